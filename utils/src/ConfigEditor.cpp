#include "utils/ConfigEditor.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <utility>

#include "platform/Platform.h"
#include "utils/LineGrammar.h"

namespace zq {
namespace utils {

namespace {

constexpr unsigned char kStartMark = 0xBE;
constexpr unsigned char kEndMark = 0xED;
// Smallest binary record: length, start mark, terminator, end mark.
constexpr std::size_t kMinRecordBytes = 7;

// Reads at most kMaxFileBytes; false when the file cannot be opened or read, or is larger.
bool readWholeFile(const std::string& path, std::string& bytes) {
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open()) {
        return false;
    }
    char chunk[64 * 1024];
    while (in) {
        in.read(chunk, sizeof chunk);
        const std::streamsize got = in.gcount();
        if (got > 0) {
            if (bytes.size() + static_cast<std::size_t>(got) > kMaxFileBytes) {
                return false;
            }
            bytes.append(chunk, static_cast<std::size_t>(got));
        }
    }
    return in.eof() && !in.bad();
}

int32_t readInt32(const std::string& bytes, std::size_t pos) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | static_cast<unsigned char>(bytes[pos + static_cast<std::size_t>(i)]);
    }
    return static_cast<int32_t>(v);
}

void appendInt32(std::string& out, int32_t value) {
    const auto v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFFu));
    }
}

std::wstring untilNul(const std::wstring& text) {
    const std::size_t nul = text.find(L'\0');
    return nul == std::wstring::npos ? text : text.substr(0, nul);
}

// atoi that saturates instead of overflowing.
int32_t toInt32(const std::string& text) {
    const long long v = std::strtoll(text.c_str(), nullptr, 10);
    if (v > INT32_MAX) {
        return INT32_MAX;
    }
    if (v < INT32_MIN) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(v);
}

double toDouble(const std::string& text) {
    return std::strtod(text.c_str(), nullptr);
}

float toFloat(double v) {
    if (std::isfinite(v) && std::fabs(v) > static_cast<double>(std::numeric_limits<float>::max())) {
        return v > 0 ? std::numeric_limits<float>::infinity()
                     : -std::numeric_limits<float>::infinity();
    }
    return static_cast<float>(v);
}

std::string formatFixed(double v) {
    const int n = std::snprintf(nullptr, 0, "%f", v);
    if (n <= 0) {
        return std::string();
    }
    std::string out(static_cast<std::size_t>(n) + 1, '\0');
    std::snprintf(&out[0], out.size(), "%f", v);
    out.resize(static_cast<std::size_t>(n));
    return out;
}

bool isTrue(const std::wstring& v) {
    return v == L"true" || v == L"1";
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Lines
// ---------------------------------------------------------------------------------------------

tagConfigFileLine::tagConfigFileLine(const std::wstring& line) : text(line) {
    grammar::KeyValue kv = grammar::analyseLine(line);
    if (kv.matched) {
        key = std::move(kv.key);
        separator = std::move(kv.separator);
        value = std::move(kv.value);
    }
}

// ---------------------------------------------------------------------------------------------
// Life cycle
// ---------------------------------------------------------------------------------------------

CConfigEditor::CConfigEditor(const std::wstring& path, bool binary, bool readOnly) {
    if (!path.empty()) {
        load(path, binary, readOnly);
    }
}

CConfigEditor::CConfigEditor(const CConfigEditor& other) {
    *this = other;
}

CConfigEditor::CConfigEditor(CConfigEditor&& other) noexcept
    : m_pConfigFile(std::move(other.m_pConfigFile)) {}

CConfigEditor& CConfigEditor::operator=(const CConfigEditor& other) {
    if (this == &other) {
        return *this;
    }
    try {
        if (!other.m_pConfigFile) {
            m_pConfigFile.reset();
            return *this;
        }
        auto copy = std::make_shared<tagConfigFile>(*other.m_pConfigFile);
        if (m_pConfigFile) {
            copy->fileName = m_pConfigFile->fileName;
        }
        m_pConfigFile = std::move(copy);
        save(true);
    } catch (...) {
        // Out of memory while copying: this editor keeps what it held.
    }
    return *this;
}

CConfigEditor& CConfigEditor::operator=(CConfigEditor&& other) noexcept {
    if (this != &other) {
        m_pConfigFile = std::move(other.m_pConfigFile);
    }
    return *this;
}

CConfigEditor::~CConfigEditor() {
    save(true);
    m_pConfigFile.reset();
}

bool CConfigEditor::state() const {
    return !m_pConfigFile;
}

bool CConfigEditor::setBinary(bool binary) {
    if (!m_pConfigFile) {
        return false;
    }
    m_pConfigFile->binary = binary;
    return true;
}

bool CConfigEditor::setCodePage(int codePage) {
    if (!m_pConfigFile) {
        return false;
    }
    m_pConfigFile->codePage = codePage;
    return true;
}

// ---------------------------------------------------------------------------------------------
// Loading
// ---------------------------------------------------------------------------------------------

namespace {

void appendLine(tagConfigFile& file, const std::wstring& text) {
    file.lines.emplace_back(text);
    const tagConfigFileLine& line = file.lines.back();
    if (!line.key.empty()) {
        file.keyIndex[line.key] = static_cast<int32_t>(file.lines.size() - 1);
    }
}

}  // namespace

bool CConfigEditor::load(const std::wstring& path, bool binary, bool readOnly) {
    try {
        m_pConfigFile = std::make_shared<tagConfigFile>();
        tagConfigFile& file = *m_pConfigFile;
        file.fileName = path;
        file.binary = binary;
        file.readOnly = readOnly;
        file.modified = false;
        file.codePage = kCodePageUtf8;

        const std::string native = platform::nativePath(path);
        if (native.empty() || (!readOnly && !platform::createFileExclusive(native))) {
            m_pConfigFile.reset();
            return false;
        }
        std::string bytes;
        if (platform::directoryExists(native) || !readWholeFile(native, bytes)) {
            m_pConfigFile.reset();
            return false;
        }

        bool ok = true;
        if (!binary) {
            // Lines end at line feeds; a carriage return before one is not part of the line;
            // nothing follows the final line feed. A line is taken up to its first NUL byte
            // (toWString stops there); the rest of that physical line is dropped. The file
            // keeps CR LF line ends when every one of its line feeds had a carriage return.
            std::size_t lineFeeds = 0;
            std::size_t crlfs = 0;
            std::size_t pos = 0;
            while (ok && pos < bytes.size()) {
                std::size_t end = bytes.find('\n', pos);
                const bool lineFeed = end != std::string::npos;
                if (!lineFeed) {
                    end = bytes.size();
                }
                std::size_t len = end - pos;
                if (lineFeed) {
                    ++lineFeeds;
                    if (len > 0 && bytes[end - 1] == '\r') {
                        --len;
                        ++crlfs;
                    }
                }
                if (file.lines.size() >= kMaxLines) {
                    ok = false;
                    break;
                }
                appendLine(file, toWString(bytes.substr(pos, len)));
                pos = lineFeed ? end + 1 : end;
            }
            file.crlfLineEnds = lineFeeds > 0 && crlfs == lineFeeds;
        } else if (!bytes.empty()) {
            // An empty file (as exclusive creation leaves it) holds no records. Otherwise
            // every count and length is checked against the bytes that are really left.
            std::size_t pos = 0;
            ok = bytes.size() >= 4;
            const int32_t count = ok ? readInt32(bytes, 0) : 0;
            pos = 4;
            if (ok && (count < 0 || static_cast<std::size_t>(count) > kMaxLines ||
                       static_cast<std::size_t>(count) > (bytes.size() - pos) / kMinRecordBytes)) {
                ok = false;
            }
            for (int32_t i = 0; ok && i < count; ++i) {
                if (bytes.size() - pos < 4) {
                    ok = false;
                    break;
                }
                const int32_t length = readInt32(bytes, pos);
                pos += 4;
                if (length < 1 || static_cast<std::size_t>(length) + 2 > bytes.size() - pos) {
                    ok = false;
                    break;
                }
                const std::size_t recordStart = pos;
                const auto recordBytes = static_cast<std::size_t>(length) + 2;
                pos += recordBytes;
                if (static_cast<unsigned char>(bytes[recordStart]) != kStartMark ||
                    static_cast<unsigned char>(bytes[recordStart + recordBytes - 1]) != kEndMark) {
                    continue;  // wrong marks: the record is passed over
                }
                // The line runs from after the start mark to the first zero byte; the end
                // mark's place counts as one.
                const std::size_t textStart = recordStart + 1;
                const std::size_t textLimit = recordStart + recordBytes - 1;
                std::size_t textEnd = textStart;
                while (textEnd < textLimit && bytes[textEnd] != '\0') {
                    ++textEnd;
                }
                appendLine(file,
                           toWString(encryption(bytes.substr(textStart, textEnd - textStart))));
            }
        }
        if (!ok) {
            m_pConfigFile.reset();
            return false;
        }
        return true;
    } catch (...) {
        m_pConfigFile.reset();
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Conversions
// ---------------------------------------------------------------------------------------------

const std::string CConfigEditor::toString(const std::wstring& text) const {
    try {
        const int codePage = m_pConfigFile ? m_pConfigFile->codePage : kCodePageUtf8;
        std::string out = platform::toNarrow(untilNul(text), codePage);
        while (!out.empty() && out.back() == '\0') {
            out.pop_back();
        }
        return out;
    } catch (...) {
        return std::string();
    }
}

const std::wstring CConfigEditor::toWString(const std::string& text) const {
    try {
        const int codePage = m_pConfigFile ? m_pConfigFile->codePage : kCodePageUtf8;
        const std::size_t nul = text.find('\0');
        std::wstring out =
            platform::toWide(nul == std::string::npos ? text : text.substr(0, nul), codePage);
        while (!out.empty() && out.back() == L'\0') {
            out.pop_back();
        }
        return out;
    } catch (...) {
        return std::wstring();
    }
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

const std::wstring* CConfigEditor::findValue(const std::wstring& key) const {
    if (!m_pConfigFile) {
        return nullptr;
    }
    const auto it = m_pConfigFile->keyIndex.find(key);
    if (it == m_pConfigFile->keyIndex.end() || it->second < 0 ||
        static_cast<std::size_t>(it->second) >= m_pConfigFile->lines.size()) {
        return nullptr;
    }
    return &m_pConfigFile->lines[static_cast<std::size_t>(it->second)].value;
}

bool CConfigEditor::getBoolean(const std::string& key) const {
    try {
        const std::wstring* v = findValue(toWString(key));
        return v != nullptr && isTrue(*v);
    } catch (...) {
        return false;
    }
}

int32_t CConfigEditor::getInteger(const std::string& key) const {
    try {
        const std::wstring* v = findValue(toWString(key));
        return v == nullptr ? 0 : toInt32(toString(*v));
    } catch (...) {
        return 0;
    }
}

double CConfigEditor::getDouble(const std::string& key) const {
    try {
        const std::wstring* v = findValue(toWString(key));
        return v == nullptr ? 0.0 : toDouble(toString(*v));
    } catch (...) {
        return 0.0;
    }
}

float CConfigEditor::getFloat(const std::string& key) const {
    return toFloat(getDouble(key));
}

std::string CConfigEditor::getString(const std::string& key) const {
    try {
        return getString(toWString(key));
    } catch (...) {
        return std::string();
    }
}

std::string CConfigEditor::getString(const std::wstring& key) const {
    try {
        const std::wstring* v = findValue(key);
        return v == nullptr ? std::string() : toString(*v);
    } catch (...) {
        return std::string();
    }
}

std::wstring CConfigEditor::getWString(const std::string& key) const {
    try {
        return getWString(toWString(key));
    } catch (...) {
        return std::wstring();
    }
}

std::wstring CConfigEditor::getWString(const std::wstring& key) const {
    try {
        const std::wstring* v = findValue(key);
        return v == nullptr ? std::wstring() : *v;
    } catch (...) {
        return std::wstring();
    }
}

std::vector<std::wstring> CConfigEditor::getVecWString(const std::string& key) const {
    try {
        return getVecWString(toWString(key));
    } catch (...) {
        return {};
    }
}

std::vector<std::wstring> CConfigEditor::getVecWString(const std::wstring& key) const {
    try {
        const std::wstring* v = findValue(key);
        if (v == nullptr || v->empty()) {
            return {};
        }
        return grammar::tokens(*v);
    } catch (...) {
        return {};
    }
}

std::vector<bool> CConfigEditor::getVecBoolean(const std::string& key) const {
    std::vector<bool> out;
    try {
        for (const std::wstring& t : getVecWString(key)) {
            out.push_back(isTrue(t));
        }
    } catch (...) {
        out.clear();
    }
    return out;
}

std::vector<int32_t> CConfigEditor::getVecInteger(const std::string& key) const {
    std::vector<int32_t> out;
    try {
        for (const std::wstring& t : getVecWString(key)) {
            out.push_back(toInt32(toString(t)));
        }
    } catch (...) {
        out.clear();
    }
    return out;
}

std::vector<double> CConfigEditor::getVecDouble(const std::string& key) const {
    std::vector<double> out;
    try {
        for (const std::wstring& t : getVecWString(key)) {
            out.push_back(toDouble(toString(t)));
        }
    } catch (...) {
        out.clear();
    }
    return out;
}

std::vector<float> CConfigEditor::getVecFloat(const std::string& key) const {
    std::vector<float> out;
    try {
        for (const std::wstring& t : getVecWString(key)) {
            out.push_back(toFloat(toDouble(toString(t))));
        }
    } catch (...) {
        out.clear();
    }
    return out;
}

std::vector<std::string> CConfigEditor::getVecString(const std::string& key) const {
    try {
        return getVecString(toWString(key));
    } catch (...) {
        return {};
    }
}

std::vector<std::string> CConfigEditor::getVecString(const std::wstring& key) const {
    std::vector<std::string> out;
    try {
        for (const std::wstring& t : getVecWString(key)) {
            out.push_back(toString(t));
        }
    } catch (...) {
        out.clear();
    }
    return out;
}

bool CConfigEditor::contains(const std::string& key) const {
    try {
        return contains(toWString(key));
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::contains(const std::wstring& key) const {
    return m_pConfigFile && m_pConfigFile->keyIndex.count(key) > 0;
}

bool CConfigEditor::findKey(const std::wstring& key, std::wstring* value) const {
    if (!m_pConfigFile || m_pConfigFile->keyIndex.empty()) {
        return false;
    }
    try {
        const std::wstring* v = findValue(key);
        if (value != nullptr) {
            *value = v != nullptr ? *v : std::wstring();
        }
        return v != nullptr;
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::getAllKeys(std::vector<std::wstring>* keys) const {
    if (!m_pConfigFile || m_pConfigFile->keyIndex.empty() || keys == nullptr) {
        return false;
    }
    try {
        std::vector<std::wstring> all;
        all.reserve(m_pConfigFile->keyIndex.size());
        for (const auto& entry : m_pConfigFile->keyIndex) {
            all.push_back(entry.first);
        }
        keys->swap(all);
        return true;
    } catch (...) {
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Modification
// ---------------------------------------------------------------------------------------------

bool CConfigEditor::modifyw(const std::wstring& key, const std::wstring& value, const bool& add) {
    if (!m_pConfigFile) {
        return false;
    }
    try {
        tagConfigFile& file = *m_pConfigFile;
        const auto it = file.keyIndex.find(key);
        if (it != file.keyIndex.end()) {
            if (it->second < 0 || static_cast<std::size_t>(it->second) >= file.lines.size()) {
                return false;
            }
            tagConfigFileLine& line = file.lines[static_cast<std::size_t>(it->second)];
            // Key and separator as they were written, the new value, the old note.
            std::wstring text = line.key + line.separator + value + grammar::firstNote(line.text);
            line.text = std::move(text);
            line.value = value;
        } else {
            if (!add || file.lines.size() >= static_cast<std::size_t>(INT32_MAX)) {
                return false;
            }
            tagConfigFileLine line;
            line.text = key + L" = " + value;
            line.key = key;
            line.value = value;
            // line.separator stays empty: a later modification before a reload writes the
            // key and the value back to back.
            file.lines.push_back(std::move(line));
            file.keyIndex[key] = static_cast<int32_t>(file.lines.size() - 1);
        }
        file.modified = true;
        return true;
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::modify(const std::string& key, const std::string& value, const bool& add) {
    try {
        return modifyw(toWString(key), toWString(value), add);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::modifyb(const std::string& key, bool value, const bool& add) {
    try {
        return modifyw(toWString(key), value ? L"true" : L"false", add);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::modifyi(const std::string& key, int32_t value, const bool& add) {
    try {
        return modifyw(toWString(key), toWString(std::to_string(value)), add);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::modifyd(const std::string& key, double value, const bool& add) {
    try {
        return modifyw(toWString(key), toWString(formatFixed(value)), add);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::modifyf(const std::string& key, float value, const bool& add) {
    return modifyd(key, static_cast<double>(value), add);
}

// ---------------------------------------------------------------------------------------------
// Notes
// ---------------------------------------------------------------------------------------------

bool CConfigEditor::addNote(const std::string& key, const std::string& note, const char* format) {
    try {
        return addNote(toWString(key), toWString(note), format);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::addNote(const std::string& key, const std::wstring& note, const char* format) {
    try {
        return addNote(toWString(key), note, format);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::addNote(const std::wstring& key, const std::string& note, const char* format) {
    try {
        return addNote(key, toWString(note), format);
    } catch (...) {
        return false;
    }
}

bool CConfigEditor::addNote(const std::wstring& key, const std::wstring& note, const char* format) {
    if (!m_pConfigFile) {
        return false;
    }
    try {
        tagConfigFile& file = *m_pConfigFile;
        const auto it = file.keyIndex.find(key);
        if (it == file.keyIndex.end() || it->second < 0 ||
            static_cast<std::size_t>(it->second) >= file.lines.size()) {
            return false;
        }
        // Format: [digits][s|t][u|r]; reading ends at the first other character. The indent
        // count saturates rather than overflowing; it is bounded so that a format cannot ask
        // for gigabytes of blanks.
        constexpr std::size_t kMaxIndent = 4096;
        std::size_t indent = 0;
        bool tabs = false;
        bool right = false;
        const char* f = format != nullptr ? format : "";
        while (*f >= '0' && *f <= '9') {
            indent = std::min(kMaxIndent, indent * 10 + static_cast<std::size_t>(*f - '0'));
            ++f;
        }
        if (*f == 's' || *f == 't') {
            tabs = *f == 't';
            ++f;
        }
        if (*f == 'u' || *f == 'r') {
            right = *f == 'r';
        }
        std::wstring text(indent, tabs ? L'\t' : L' ');
        text += L"# ";
        text += note;

        const int32_t position = it->second;
        if (right) {
            file.lines[static_cast<std::size_t>(position)].text += text;
            return true;
        }
        if (file.lines.size() >= static_cast<std::size_t>(INT32_MAX)) {
            return false;
        }
        file.lines.insert(file.lines.begin() + position, tagConfigFileLine(text));
        for (auto& entry : file.keyIndex) {
            if (entry.second >= position) {
                ++entry.second;
            }
        }
        return true;
    } catch (...) {
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Saving
// ---------------------------------------------------------------------------------------------

bool CConfigEditor::save(bool force) {
    if (!m_pConfigFile) {
        return false;
    }
    try {
        const tagConfigFile& file = *m_pConfigFile;
        if (!force && (file.readOnly || !file.modified)) {
            return false;
        }
        const std::string native = platform::nativePath(file.fileName);
        if (native.empty()) {
            return false;
        }
        if (file.binary) {
            std::string out;
            appendInt32(out, static_cast<int32_t>(file.lines.size()));
            for (const tagConfigFileLine& line : file.lines) {
                const std::string bytes = encryption(toString(line.text));
                if (bytes.size() >= static_cast<std::size_t>(INT32_MAX)) {
                    return false;
                }
                appendInt32(out, static_cast<int32_t>(bytes.size() + 1));
                out.push_back(static_cast<char>(kStartMark));
                out += bytes;
                out.push_back('\0');
                out.push_back(static_cast<char>(kEndMark));
            }
            std::ofstream stream(native, std::ios::out | std::ios::binary | std::ios::trunc);
            if (!stream.is_open()) {
                return false;
            }
            stream.write(out.data(), static_cast<std::streamsize>(out.size()));
            stream.close();
            return true;
        }
        std::ofstream stream(native, std::ios::out | std::ios::trunc);
        if (!stream.is_open()) {
            return false;
        }
        for (const tagConfigFileLine& line : file.lines) {
            const std::string bytes = toString(untilNul(line.text));
            stream << bytes;
#ifndef _WIN32
            // Loading drops one carriage return before a line feed: a file loaded with CR LF
            // ends gets them back, and a line that itself ends in a carriage return gets a
            // second one, so that it reads back the same. (A Windows text stream writes every
            // line feed as CR LF by itself.)
            if (file.crlfLineEnds || (!bytes.empty() && bytes.back() == '\r')) {
                stream << '\r';
            }
#endif
            stream << '\n';
            stream.flush();
        }
        stream.close();
        return true;
    } catch (...) {
        return false;
    }
}

void CConfigEditor::close(const bool& save) {
    if (save) {
        this->save(true);
    }
    m_pConfigFile.reset();
}

}  // namespace utils
}  // namespace zq
