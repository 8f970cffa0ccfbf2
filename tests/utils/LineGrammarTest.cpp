// Line analysis: how one physical line splits into key, separator, value and note.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "utils/ConfigEditor.h"
#include "utils/LineGrammar.h"

using zq::utils::tagConfigFileLine;
namespace grammar = zq::utils::grammar;

namespace {

void expectKeyValue(const std::wstring& line, const std::wstring& key, const std::wstring& sep,
                    const std::wstring& value) {
    const tagConfigFileLine l(line);
    EXPECT_EQ(l.text, line);
    EXPECT_EQ(l.key, key) << "line: " << std::string(line.begin(), line.end());
    EXPECT_EQ(l.separator, sep);
    EXPECT_EQ(l.value, value);
}

void expectNoKey(const std::wstring& line) {
    const tagConfigFileLine l(line);
    EXPECT_EQ(l.text, line);
    EXPECT_TRUE(l.key.empty());
    EXPECT_TRUE(l.separator.empty());
    EXPECT_TRUE(l.value.empty());
}

}  // namespace

TEST(LineAnalysis, SeparatorRunsOfColonCommaSpaceAndEquals) {
    expectKeyValue(L"key=value", L"key", L"=", L"value");
    expectKeyValue(L"key : value", L"key", L" : ", L"value");
    expectKeyValue(L"key,value", L"key", L",", L"value");
    expectKeyValue(L"speed = 12", L"speed", L" = ", L"12");
    expectKeyValue(L"name: a, b", L"name", L": ", L"a, b");
    expectKeyValue(L"key value", L"key", L" ", L"value");
}

TEST(LineAnalysis, LeadingBlankMeansNoKey) {
    expectNoKey(L" key=value");
    expectNoKey(L"\tkey=value");
}

TEST(LineAnalysis, NotesAreRemovedWithTheBlanksBeforeThem) {
    expectKeyValue(L"port = 8080   # default", L"port", L" = ", L"8080");
    expectKeyValue(L"port = 8080#x", L"port", L" = ", L"8080");
    expectKeyValue(L"path = a#b # c", L"path", L" = ", L"a");
    expectNoKey(L"# key = value");
    expectNoKey(L"   ## heading");
}

TEST(LineAnalysis, TrailingBlanksWithoutNoteStayInValue) {
    expectKeyValue(L"port = 8080   ", L"port", L" = ", L"8080   ");
}

TEST(LineAnalysis, KeyFollowedDirectlyByNoteIsNotIndexed) {
    expectNoKey(L"flag # on");
}

TEST(LineAnalysis, KeyWithOnlyEqualsGivesTheEqualsToTheValue) {
    expectKeyValue(L"key =", L"key", L" ", L"=");
    expectNoKey(L"key=");
    expectNoKey(L"key");
}

TEST(LineAnalysis, OtherShapesAreKeptUnindexed) {
    expectNoKey(L"");
    expectNoKey(L"[section]");
    expectNoKey(L"-key = 1");
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
        const grammar::KeyValue a = grammar::matchKeyValue(s, r);
        const grammar::KeyValue b = grammar::matchKeyValue(s, n);
        ASSERT_EQ(a.matched, b.matched) << i;
        ASSERT_EQ(a.key, b.key) << i;
        ASSERT_EQ(a.separator, b.separator) << i;
        ASSERT_EQ(a.value, b.value) << i;
        ASSERT_EQ(grammar::tokens(s, r), grammar::tokens(s, n)) << i;
    }
}

TEST(LineAnalysis, VeryLongLinesAreAnalysedWhole) {
    const std::wstring value(300000, L'v');
    expectKeyValue(L"key = " + value + L"   # note", L"key", L" = ", value);
    const std::wstring blanks(300000, L' ');
    expectNoKey(blanks + L"x");
    EXPECT_EQ(grammar::stripNotes(blanks + L"# n"), L"");
    std::wstring numbers;
    for (int i = 0; i < 50000; ++i) {
        numbers += L"12,";
    }
    EXPECT_EQ(grammar::tokens(numbers).size(), 50000u);
    EXPECT_EQ(grammar::tokens(value).size(), 1u);
}
