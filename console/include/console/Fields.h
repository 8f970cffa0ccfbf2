// Words and KEY=VALUE arguments of the console's control lines.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace console {

// Splits a control line into words at blanks. A double-quoted part keeps its blanks (the quotes
// are removed; inside quotes a backslash takes the next character literally), so `text="a b "`
// is one word `text=a b `. False with a message on an unterminated quote.
bool splitControlLine(const std::string& line, std::vector<std::string>& words, std::string& error);

// The rest of `line` after its first `n` words and the blanks that follow them, as written
// (trailing blanks kept): the free text of `say`, `wifi` and `response`.
std::string restOfLine(const std::string& line, size_t n);

bool parseInt(const std::string& s, int& out);
bool parseDouble(const std::string& s, double& out);  // "nan" and "inf" are accepted

// KEY=VALUE words. A key may repeat (`image=...` twice); readers mark the keys they consume so
// that a misspelt key is reported instead of silently ignored.
class Fields {
public:
    // Reads words[from..] as KEY=VALUE; false with a message on a word without '=' or an
    // empty key.
    static bool parse(const std::vector<std::string>& words, size_t from, Fields& out,
                      std::string& error);

    bool empty() const { return m_items.empty(); }
    bool has(const std::string& key) const;

    // The last value of `key`, or nullptr when absent (marks the key used).
    const std::string* get(const std::string& key) const;
    // Every value of `key` in order (marks the key used).
    std::vector<std::string> all(const std::string& key) const;

    // Typed readers: true when the key is absent (`out` unchanged) or its value is valid;
    // false with a message naming the key otherwise.
    bool getInt(const std::string& key, int& out, std::string& error) const;
    bool getDouble(const std::string& key, double& out, std::string& error) const;
    bool getText(const std::string& key, std::string& out) const;
    // Comma-separated lists; the value "none" is the empty list.
    bool getDoubles(const std::string& key, std::vector<double>& out, std::string& error) const;
    bool getInts(const std::string& key, std::vector<int>& out, std::string& error) const;
    bool getTexts(const std::string& key, std::vector<std::string>& out) const;

    // False with a message listing the keys that no reader consumed.
    bool checkAllUsed(std::string& error) const;
    void clearUse() const { m_used.clear(); }

private:
    std::vector<std::pair<std::string, std::string>> m_items;
    mutable std::set<std::string> m_used;
};

}  // namespace console
