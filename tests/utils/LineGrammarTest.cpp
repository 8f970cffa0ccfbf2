// Line analysis: how one physical line splits into key, separator, value and note.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "utils/ConfigEditor.h"
#include "utils/LineGrammar.h"

using zq::utils::tagConfigFileLine;
namespace grammar = zq::utils::grammar;

namespace {

// A line and how it splits; without a key the line is kept but not indexed.
struct Split {
    std::wstring line, key{}, separator{}, value{};
};

}  // namespace

TEST(LineAnalysis, SplitsIntoKeySeparatorValueAndNote) {
    std::vector<Split> cases = {
        // Separator runs of colon, comma, space and equals.
        {L"key=value", L"key", L"=", L"value"},
        {L"key : value", L"key", L" : ", L"value"},
        {L"key,value", L"key", L",", L"value"},
        {L"name: a, b", L"name", L": ", L"a, b"},
        {L"key value", L"key", L" ", L"value"},
        // Notes go with the blanks before them; trailing blanks without a note stay.
        {L"port = 8080   # default", L"port", L" = ", L"8080"},
        {L"port = 8080#x", L"port", L" = ", L"8080"},
        {L"path = a#b # c", L"path", L" = ", L"a"},
        {L"port = 8080   ", L"port", L" = ", L"8080   "},
        // With nothing after the equals sign, the sign is the value.
        {L"key =", L"key", L" ", L"="}};
    // Kept, but not indexed.
    for (const wchar_t* keyless :
         {L" key=value", L"\tkey=value", L"# key = value", L"   ## heading", L"flag # on", L"key=",
          L"key", L"", L"[section]", L"-key = 1"}) {
        cases.push_back({keyless});
    }
    for (const Split& c : cases) {
        const tagConfigFileLine l(c.line);
        SCOPED_TRACE(std::string(c.line.begin(), c.line.end()));
        EXPECT_EQ(l.text, c.line);
        EXPECT_EQ(l.key, c.key);
        EXPECT_EQ(l.separator, c.separator);
        EXPECT_EQ(l.value, c.value);
    }
}

TEST(LineAnalysis, TokensSplitNamesAndNumbers) {
    EXPECT_EQ(grammar::tokens(L"1e-3"), (std::vector<std::wstring>{L"1", L"e", L"-3"}));
    EXPECT_EQ(grammar::tokens(L"-.5"), (std::vector<std::wstring>{L"-.5"}));
    EXPECT_EQ(grammar::tokens(L"[1, 2.5; -3]"), (std::vector<std::wstring>{L"1", L"2.5", L"-3"}));
    EXPECT_EQ(grammar::tokens(L"a1 b2 _c 12."),
              (std::vector<std::wstring>{L"a1", L"b2", L"_c", L"12"}));
    EXPECT_EQ(grammar::tokens(L"\u4e2d\u6587 x"),
              (std::vector<std::wstring>{L"\u4e2d\u6587", L"x"}));
    EXPECT_EQ(grammar::tokens(L"+ - ."), std::vector<std::wstring>{});
}

// The linear scanner must give exactly what the regular expressions give.
TEST(LineAnalysis, ScannerAgreesWithRegularExpressions) {
    const std::wstring alphabet = std::wstring(L"ab_Z09 :,=#\t\r\n.+-x") + wchar_t(0x4e2d) +
                                  wchar_t(0x2028) + wchar_t(0xe9) + wchar_t(0x3000) +
                                  wchar_t(0x9fa6);
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<std::size_t> len(0, 24);
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    for (int i = 0; i < 20000; ++i) {
        std::wstring s(len(rng), L' ');
        for (wchar_t& c : s) {
            c = alphabet[pick(rng)];
        }
        const auto r = grammar::Engine::Regex;
        const auto n = grammar::Engine::Scanner;
        ASSERT_EQ(grammar::stripNotes(s, r), grammar::stripNotes(s, n)) << i;
        ASSERT_EQ(grammar::firstNote(s, r), grammar::firstNote(s, n)) << i;
        const grammar::KeyValue a = grammar::matchKeyValue(s, r), b = grammar::matchKeyValue(s, n);
        ASSERT_EQ(std::tie(a.matched, a.key, a.separator, a.value),
                  std::tie(b.matched, b.key, b.separator, b.value))
            << i;
        ASSERT_EQ(grammar::tokens(s, r), grammar::tokens(s, n)) << i;
    }
}
