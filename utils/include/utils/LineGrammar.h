// The line grammar of configuration files.
//
// Three ECMAScript regular expressions on wide strings define it:
//
//   note pattern       (\s*#+.*)                 white space, one or more '#', rest of the line
//   key-value pattern  ^(\w+)([:, =]+)(.+)$      key, separator run, value
//   token pattern      ([\u4e00-\u9fa5_a-zA-Z]+\w*|[+-]?[0-9]*\.?[0-9]+)
//
// The standard library's matcher recurses once per character, so a line of some ten thousand
// characters can exhaust the stack, and the note search is quadratic in a run of blanks. Texts
// up to kRegexLengthLimit characters (every line a classic 1023-byte line reader would take)
// are therefore matched with the regular expressions themselves; longer texts go to a linear
// scanner that yields the same result, character classes included (it asks the expressions'
// own traits what \s and \w are). The tests check both engines against each other.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zq {
namespace utils {
namespace grammar {

// Longest text (in wide characters) handed to the regular expressions by Engine::Automatic.
constexpr std::size_t kRegexLengthLimit = 1024;

enum class Engine {
    Automatic,  // regular expressions up to kRegexLengthLimit, scanner beyond
    Regex,      // always the regular expressions (only safe for short texts)
    Scanner,    // always the linear scanner
};

struct KeyValue {
    bool matched = false;
    std::wstring key;
    std::wstring separator;
    std::wstring value;
};

// The line with every match of the note pattern removed.
std::wstring stripNotes(const std::wstring& line, Engine engine = Engine::Automatic);

// The first match of the note pattern in `text`, or an empty string when there is none.
std::wstring firstNote(const std::wstring& text, Engine engine = Engine::Automatic);

// Searches `text` (a line with its notes removed) with the key-value pattern.
KeyValue matchKeyValue(const std::wstring& text, Engine engine = Engine::Automatic);

// Every successive non-overlapping match of the token pattern, left to right.
std::vector<std::wstring> tokens(const std::wstring& value, Engine engine = Engine::Automatic);

// Line analysis: notes removed, then the key-value pattern searched.
KeyValue analyseLine(const std::wstring& line, Engine engine = Engine::Automatic);

}  // namespace grammar
}  // namespace utils
}  // namespace zq
