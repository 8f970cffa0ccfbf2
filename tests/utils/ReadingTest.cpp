// Typed and list reading, key tests and listings.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "TempDir.h"
#include "utils/ConfigEditor.h"

using zq::utils::CConfigEditor;

namespace {

using Reading = cfgtest::TempDirTest;

}  // namespace

TEST_F(Reading, BooleanIsTrueOnlyForExactTrueOrOne) {
    CConfigEditor e;
    loadText(e, "a = true\nb = 1\nc = True\nd = yes\ne = 0\nf = 1 \n");
    EXPECT_TRUE(e.getBoolean("a"));
    EXPECT_TRUE(e.getBoolean("b"));
    EXPECT_FALSE(e.getBoolean("c"));
    EXPECT_FALSE(e.getBoolean("d"));
    EXPECT_FALSE(e.getBoolean("e"));
    EXPECT_FALSE(e.getBoolean("f"));  // trailing blank stays in the value
    EXPECT_FALSE(e.getBoolean("missing"));
    ASSERT_TRUE(e.modify("a", " true"));
    EXPECT_FALSE(e.getBoolean("a"));  // leading blank
}

TEST_F(Reading, NumbersReadLikeAtoiAndAtof) {
    CConfigEditor e;
    loadText(e,
             "i = 12abc\nj = abc\nk = -45\nbig = 99999999999\nsmall = -99999999999\n"
             "d = 2.5e2\nf = 0.25\nhuge = 1e300\n");
    EXPECT_EQ(e.getInteger("i"), 12);
    EXPECT_EQ(e.getInteger("j"), 0);
    EXPECT_EQ(e.getInteger("k"), -45);
    EXPECT_EQ(e.getInteger("missing"), 0);
    EXPECT_EQ(e.getInteger("big"), INT32_MAX);
    EXPECT_EQ(e.getInteger("small"), INT32_MIN);
    EXPECT_DOUBLE_EQ(e.getDouble("d"), 250.0);
    EXPECT_DOUBLE_EQ(e.getDouble("missing"), 0.0);
    EXPECT_FLOAT_EQ(e.getFloat("f"), 0.25f);
    EXPECT_TRUE(std::isinf(e.getFloat("huge")));
}

TEST_F(Reading, StringsInBothWidths) {
    CConfigEditor e;
    loadText(e, "name = \xE4\xB8\xAD\xE6\x96\x87 text\n");
    EXPECT_EQ(e.getWString("name"), L"\u4e2d\u6587 text");
    EXPECT_EQ(e.getString("name"), "\xE4\xB8\xAD\xE6\x96\x87 text");
    EXPECT_EQ(e.getString(std::wstring(L"name")), "\xE4\xB8\xAD\xE6\x96\x87 text");
    EXPECT_EQ(e.getString("Name"), "");  // keys are case-sensitive
}

TEST_F(Reading, ListsFollowTheTokenPattern) {
    CConfigEditor e;
    loadText(e,
             "ints = 1, 2.5, -3\nexp = 1e-3\nhalf = -.5\nnames = a1 b2\n"
             "flags = true,0,1,false,yes\n");
    EXPECT_EQ(e.getVecInteger("ints"), (std::vector<int32_t>{1, 2, -3}));
    EXPECT_EQ(e.getVecDouble("ints"), (std::vector<double>{1.0, 2.5, -3.0}));
    EXPECT_EQ(e.getVecWString("exp"), (std::vector<std::wstring>{L"1", L"e", L"-3"}));
    EXPECT_EQ(e.getVecDouble("exp"), (std::vector<double>{1.0, 0.0, -3.0}));
    EXPECT_EQ(e.getVecDouble("half"), (std::vector<double>{-0.5}));
    EXPECT_EQ(e.getVecString("names"), (std::vector<std::string>{"a1", "b2"}));
    EXPECT_EQ(e.getVecBoolean("flags"), (std::vector<bool>{true, false, true, false, false}));
    EXPECT_TRUE(e.getVecInteger("missing").empty());
    EXPECT_TRUE(e.getVecWString(std::wstring(L"missing")).empty());
}

TEST_F(Reading, KeysAreFoundAndListedAndTheLastOfDuplicatesWins) {
    CConfigEditor e;
    loadText(e, "beta = 2\n# note\nalpha = 1\nbeta = 3\n");
    EXPECT_EQ(e.getInteger("beta"), 3);
    EXPECT_EQ(e.getConfigFile()->keyIndex.at(L"beta"), 3);
    EXPECT_TRUE(e.contains("alpha"));
    EXPECT_TRUE(e.contains(std::wstring(L"beta")));
    EXPECT_FALSE(e.contains("gamma"));

    std::wstring value = L"untouched";
    EXPECT_TRUE(e.findKey(L"beta", &value));
    EXPECT_EQ(value, L"3");
    EXPECT_FALSE(e.findKey(L"gamma", &value));
    EXPECT_EQ(value, L"");
    EXPECT_TRUE(e.findKey(L"alpha"));

    std::vector<std::wstring> keys{L"old"};
    ASSERT_TRUE(e.getAllKeys(&keys));
    EXPECT_EQ(keys, (std::vector<std::wstring>{L"alpha", L"beta"}));
    EXPECT_FALSE(e.getAllKeys(nullptr));

    // A file of notes only has no keys; the outputs stay as they were.
    loadText(e, "# one\n\n  # two\n");
    keys = {L"old"};
    EXPECT_FALSE(e.getAllKeys(&keys));
    EXPECT_EQ(keys, std::vector<std::wstring>{L"old"});
    value = L"untouched";
    EXPECT_FALSE(e.findKey(L"one", &value));
    EXPECT_EQ(value, L"untouched");
}
