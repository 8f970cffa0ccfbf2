// Words and KEY=VALUE arguments of control lines.
#include "console/Fields.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace console {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::vector<std::string> splitCommas(const std::string& value) {
    std::vector<std::string> out;
    if (value == "none" || value.empty()) {
        return out;
    }
    size_t start = 0;
    for (;;) {
        const size_t comma = value.find(',', start);
        out.push_back(value.substr(start, comma == std::string::npos ? comma : comma - start));
        if (comma == std::string::npos) {
            return out;
        }
        start = comma + 1;
    }
}

}  // namespace

bool splitControlLine(const std::string& line, std::vector<std::string>& words,
                      std::string& error) {
    words.clear();
    std::string word;
    bool inWord = false;
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quoted) {
            if (c == '\\' && i + 1 < line.size()) {
                word += line[++i];
            } else if (c == '"') {
                quoted = false;
            } else {
                word += c;
            }
        } else if (c == '"') {
            quoted = true;
            inWord = true;
        } else if (isBlank(c)) {
            if (inWord) {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quoted) {
        error = "unterminated quote";
        return false;
    }
    if (inWord) {
        words.push_back(word);
    }
    return true;
}

std::string restOfLine(const std::string& line, size_t n) {
    size_t i = 0;
    for (size_t w = 0; w < n; ++w) {
        while (i < line.size() && isBlank(line[i])) {
            ++i;
        }
        while (i < line.size() && !isBlank(line[i])) {
            ++i;
        }
    }
    // One run of blanks separates the words from the text; the text keeps its own blanks.
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
        ++i;
    }
    std::string rest = line.substr(i);
    while (!rest.empty() && (rest.back() == '\r' || rest.back() == '\n')) {
        rest.pop_back();
    }
    return rest;
}

bool parseInt(const std::string& s, int& out) {
    if (s.empty() || isBlank(s[0])) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || v < INT_MIN || v > INT_MAX) {
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

bool parseDouble(const std::string& s, double& out) {
    if (s.empty() || isBlank(s[0])) {
        return false;
    }
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (*end != '\0') {
        return false;
    }
    out = v;
    return true;
}

bool Fields::parse(const std::vector<std::string>& words, size_t from, Fields& out,
                   std::string& error) {
    out.m_items.clear();
    out.m_used.clear();
    for (size_t i = from; i < words.size(); ++i) {
        const size_t eq = words[i].find('=');
        if (eq == std::string::npos || eq == 0) {
            error = "expected KEY=VALUE, got \"" + words[i] + "\"";
            return false;
        }
        out.m_items.emplace_back(words[i].substr(0, eq), words[i].substr(eq + 1));
    }
    return true;
}

bool Fields::has(const std::string& key) const {
    for (const auto& kv : m_items) {
        if (kv.first == key) {
            return true;
        }
    }
    return false;
}

const std::string* Fields::get(const std::string& key) const {
    const std::string* found = nullptr;
    for (const auto& kv : m_items) {
        if (kv.first == key) {
            found = &kv.second;
        }
    }
    if (found != nullptr) {
        m_used.insert(key);
    }
    return found;
}

std::vector<std::string> Fields::all(const std::string& key) const {
    std::vector<std::string> out;
    for (const auto& kv : m_items) {
        if (kv.first == key) {
            out.push_back(kv.second);
        }
    }
    if (!out.empty()) {
        m_used.insert(key);
    }
    return out;
}

bool Fields::getInt(const std::string& key, int& out, std::string& error) const {
    const std::string* v = get(key);
    if (v != nullptr && !parseInt(*v, out)) {
        error = key + "=" + *v + ": not an integer";
        return false;
    }
    return true;
}

bool Fields::getDouble(const std::string& key, double& out, std::string& error) const {
    const std::string* v = get(key);
    if (v != nullptr && !parseDouble(*v, out)) {
        error = key + "=" + *v + ": not a number";
        return false;
    }
    return true;
}

bool Fields::getText(const std::string& key, std::string& out) const {
    const std::string* v = get(key);
    if (v != nullptr) {
        out = *v;
    }
    return true;
}

bool Fields::getDoubles(const std::string& key, std::vector<double>& out,
                        std::string& error) const {
    const std::string* v = get(key);
    if (v == nullptr) {
        return true;
    }
    std::vector<double> values;
    for (const std::string& s : splitCommas(*v)) {
        double d = 0;
        if (!parseDouble(s, d)) {
            error = key + "=" + *v + ": not a list of numbers";
            return false;
        }
        values.push_back(d);
    }
    out = std::move(values);
    return true;
}

bool Fields::getInts(const std::string& key, std::vector<int>& out, std::string& error) const {
    const std::string* v = get(key);
    if (v == nullptr) {
        return true;
    }
    std::vector<int> values;
    for (const std::string& s : splitCommas(*v)) {
        int n = 0;
        if (!parseInt(s, n)) {
            error = key + "=" + *v + ": not a list of integers";
            return false;
        }
        values.push_back(n);
    }
    out = std::move(values);
    return true;
}

bool Fields::getTexts(const std::string& key, std::vector<std::string>& out) const {
    const std::string* v = get(key);
    if (v != nullptr) {
        out = splitCommas(*v);
    }
    return true;
}

bool Fields::checkAllUsed(std::string& error) const {
    std::vector<std::string> unknown;
    for (const auto& kv : m_items) {
        if (m_used.count(kv.first) == 0 &&
            std::find(unknown.begin(), unknown.end(), kv.first) == unknown.end()) {
            unknown.push_back(kv.first);
        }
    }
    if (unknown.empty()) {
        return true;
    }
    error = "unknown key";
    for (size_t i = 0; i < unknown.size(); ++i) {
        error += (i == 0 ? " " : ", ") + unknown[i];
    }
    return false;
}

}  // namespace console
