// GCC 12 with the address sanitizer reports a std::function inside libstdc++'s regex compiler
// as maybe uninitialised (a false positive of its flow analysis); silence it for this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "utils/LineGrammar.h"

#include <regex>

namespace zq {
namespace utils {
namespace grammar {

namespace {

// The expressions are compiled once, on first use (safe from any static initialiser).
const std::wregex& notePattern() {
    static const std::wregex re(L"(\\s*#+.*)", std::regex_constants::ECMAScript);
    return re;
}

const std::wregex& keyValuePattern() {
    static const std::wregex re(L"^(\\w+)([:, =]+)(.+)$", std::regex_constants::ECMAScript);
    return re;
}

const std::wregex& tokenPattern() {
    static const std::wregex re(L"([\\u4e00-\\u9fa5_a-zA-Z]+\\w*|[+-]?[0-9]*\\.?[0-9]+)",
                                std::regex_constants::ECMAScript);
    return re;
}

// Character classes exactly as the compiled expressions see them.
class Classes {
public:
    Classes() {
        m_traits.imbue(notePattern().getloc());
        const wchar_t s[] = L"s";
        const wchar_t w[] = L"w";
        m_space = m_traits.lookup_classname(s, s + 1);
        m_word = m_traits.lookup_classname(w, w + 1);
    }
    bool isSpace(wchar_t c) const { return m_traits.isctype(c, m_space); }
    bool isWord(wchar_t c) const { return m_traits.isctype(c, m_word); }

private:
    std::regex_traits<wchar_t> m_traits;
    std::regex_traits<wchar_t>::char_class_type m_space{};
    std::regex_traits<wchar_t>::char_class_type m_word{};
};

const Classes& classes() {
    static const Classes c;
    return c;
}

// What '.' refuses in ECMAScript.
bool isLineTerminator(wchar_t c) {
    return c == L'\n' || c == L'\r' || c == static_cast<wchar_t>(0x2028) ||
           c == static_cast<wchar_t>(0x2029);
}

bool isSeparator(wchar_t c) {
    return c == L':' || c == L',' || c == L' ' || c == L'=';
}

bool isDigit(wchar_t c) {
    return c >= L'0' && c <= L'9';
}

bool isNameStart(wchar_t c) {
    return (c >= static_cast<wchar_t>(0x4e00) && c <= static_cast<wchar_t>(0x9fa5)) || c == L'_' ||
           (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

bool useRegex(const std::wstring& text, Engine engine) {
    if (engine == Engine::Regex) {
        return true;
    }
    if (engine == Engine::Scanner) {
        return false;
    }
    return text.size() <= kRegexLengthLimit;
}

// Leftmost match of the note pattern at or after `from`: [begin, end). False when none.
// The match starts where the run of white space before the first '#' starts (never before
// `from`) and ends at the next line terminator or the end of the text.
bool scanNote(const std::wstring& text, std::size_t from, std::size_t& begin, std::size_t& end) {
    const std::size_t hash = text.find(L'#', from);
    if (hash == std::wstring::npos) {
        return false;
    }
    const Classes& cls = classes();
    begin = hash;
    while (begin > from && cls.isSpace(text[begin - 1])) {
        --begin;
    }
    end = hash;
    while (end < text.size() && !isLineTerminator(text[end])) {
        ++end;
    }
    return true;
}

std::wstring stripNotesScan(const std::wstring& line) {
    std::wstring out;
    std::size_t pos = 0;
    std::size_t begin = 0;
    std::size_t end = 0;
    while (pos < line.size() && scanNote(line, pos, begin, end)) {
        out.append(line, pos, begin - pos);
        pos = end;
    }
    if (pos < line.size()) {
        out.append(line, pos, std::wstring::npos);
    }
    return out;
}

KeyValue matchKeyValueScan(const std::wstring& text) {
    KeyValue kv;
    const Classes& cls = classes();
    std::size_t keyEnd = 0;
    while (keyEnd < text.size() && cls.isWord(text[keyEnd])) {
        ++keyEnd;
    }
    if (keyEnd == 0) {
        return kv;
    }
    std::size_t sepEnd = keyEnd;
    while (sepEnd < text.size() && isSeparator(text[sepEnd])) {
        ++sepEnd;
    }
    if (sepEnd == keyEnd) {
        return kv;
    }
    for (std::size_t i = sepEnd; i < text.size(); ++i) {
        if (isLineTerminator(text[i])) {
            return kv;
        }
    }
    if (sepEnd == text.size()) {
        // The value needs one character: the greedy separator gives back its last one.
        if (sepEnd - keyEnd < 2) {
            return kv;
        }
        --sepEnd;
    }
    kv.matched = true;
    kv.key = text.substr(0, keyEnd);
    kv.separator = text.substr(keyEnd, sepEnd - keyEnd);
    kv.value = text.substr(sepEnd);
    return kv;
}

// Length of the token starting at `p`, or 0 when none starts there.
std::size_t tokenAt(const std::wstring& s, std::size_t p) {
    const Classes& cls = classes();
    if (isNameStart(s[p])) {
        // A run of name characters, then a run of word characters.
        std::size_t e = p + 1;
        while (e < s.size() && isNameStart(s[e])) {
            ++e;
        }
        while (e < s.size() && cls.isWord(s[e])) {
            ++e;
        }
        return e - p;
    }
    std::size_t q = p;
    if (s[q] == L'+' || s[q] == L'-') {
        ++q;
    }
    std::size_t intEnd = q;
    while (intEnd < s.size() && isDigit(s[intEnd])) {
        ++intEnd;
    }
    if (intEnd < s.size() && s[intEnd] == L'.') {
        std::size_t fracEnd = intEnd + 1;
        while (fracEnd < s.size() && isDigit(s[fracEnd])) {
            ++fracEnd;
        }
        if (fracEnd > intEnd + 1) {
            return fracEnd - p;
        }
    }
    return intEnd > q ? intEnd - p : 0;
}

std::vector<std::wstring> tokensScan(const std::wstring& value) {
    std::vector<std::wstring> out;
    std::size_t p = 0;
    while (p < value.size()) {
        const std::size_t n = tokenAt(value, p);
        if (n == 0) {
            ++p;
            continue;
        }
        out.push_back(value.substr(p, n));
        p += n;
    }
    return out;
}

}  // namespace

std::wstring stripNotes(const std::wstring& line, Engine engine) {
    if (useRegex(line, engine)) {
        return std::regex_replace(line, notePattern(), L"");
    }
    return stripNotesScan(line);
}

std::wstring firstNote(const std::wstring& text, Engine engine) {
    if (useRegex(text, engine)) {
        std::wsmatch m;
        if (std::regex_search(text, m, notePattern())) {
            return m.str(0);
        }
        return std::wstring();
    }
    std::size_t begin = 0;
    std::size_t end = 0;
    if (scanNote(text, 0, begin, end)) {
        return text.substr(begin, end - begin);
    }
    return std::wstring();
}

KeyValue matchKeyValue(const std::wstring& text, Engine engine) {
    if (!useRegex(text, engine)) {
        return matchKeyValueScan(text);
    }
    KeyValue kv;
    std::wsmatch m;
    if (std::regex_search(text, m, keyValuePattern())) {
        kv.matched = true;
        kv.key = m.str(1);
        kv.separator = m.str(2);
        kv.value = m.str(3);
    }
    return kv;
}

std::vector<std::wstring> tokens(const std::wstring& value, Engine engine) {
    if (!useRegex(value, engine)) {
        return tokensScan(value);
    }
    std::vector<std::wstring> out;
    const std::wsregex_iterator end;
    for (std::wsregex_iterator it(value.begin(), value.end(), tokenPattern()); it != end; ++it) {
        out.push_back(it->str(0));
    }
    return out;
}

KeyValue analyseLine(const std::wstring& line, Engine engine) {
    return matchKeyValue(stripNotes(line, engine), engine);
}

}  // namespace grammar
}  // namespace utils
}  // namespace zq
