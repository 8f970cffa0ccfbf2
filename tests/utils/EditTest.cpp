// Reading typed values, lists and keys; modifying values and adding keys and notes, with the
// key index kept right.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "TempDir.h"

using zq::utils::CConfigEditor;
using Edit = cfgtest::TempDirTest;

TEST_F(Edit, TypedValuesReadLikeAtoiAndAtofAndBooleansOnlyAsExactTrueOrOne) {
    CConfigEditor e;
    loadText(e,
             "a = true\nb = 1\nc = True\nd = yes\ne = 0\nf = 1 \n"
             "i = 12abc\nj = abc\nk = -45\nbig = 99999999999\nsmall = -99999999999\n"
             "x = 2.5e2\ny = 0.25\nhuge = 1e300\nname = \xE4\xB8\xAD\xE6\x96\x87 text\n");
    for (const char* key : {"a", "b"}) {
        EXPECT_TRUE(e.getBoolean(key)) << key;
    }
    for (const char* key : {"c", "d", "e", "f", "missing"}) {  // f: the blank stays in the value
        EXPECT_FALSE(e.getBoolean(key)) << key;
    }
    const std::pair<const char*, int32_t> ints[] = {
        {"i", 12}, {"j", 0}, {"k", -45}, {"missing", 0}, {"big", INT32_MAX}, {"small", INT32_MIN}};
    for (const auto& [key, value] : ints) {
        EXPECT_EQ(e.getInteger(key), value) << key;
    }
    EXPECT_DOUBLE_EQ(e.getDouble("x"), 250.0);
    EXPECT_DOUBLE_EQ(e.getDouble("missing"), 0.0);
    EXPECT_FLOAT_EQ(e.getFloat("y"), 0.25f);
    EXPECT_TRUE(std::isinf(e.getFloat("huge")));
    EXPECT_EQ(e.getWString("name"), L"\u4e2d\u6587 text");
    EXPECT_EQ(e.getString(std::wstring(L"name")), "\xE4\xB8\xAD\xE6\x96\x87 text");
    EXPECT_EQ(e.getString("Name"), "");  // keys are case-sensitive
    ASSERT_TRUE(e.modify("a", " true"));
    EXPECT_FALSE(e.getBoolean("a"));  // a leading blank too
}

TEST_F(Edit, ListsConvertEveryToken) {
    CConfigEditor e;
    loadText(e, "ints = 1, 2.5, -3\nexp = 1e-3\nnames = a1 b2\nflags = true,0,1,false,yes\n");
    EXPECT_EQ(e.getVecInteger("ints"), (std::vector<int32_t>{1, 2, -3}));
    EXPECT_EQ(e.getVecDouble("ints"), (std::vector<double>{1.0, 2.5, -3.0}));
    EXPECT_EQ(e.getVecFloat("ints"), (std::vector<float>{1.0f, 2.5f, -3.0f}));
    EXPECT_EQ(e.getVecDouble("exp"), (std::vector<double>{1.0, 0.0, -3.0}));
    EXPECT_EQ(e.getVecWString("exp"), (std::vector<std::wstring>{L"1", L"e", L"-3"}));
    EXPECT_EQ(e.getVecString(std::wstring(L"names")), (std::vector<std::string>{"a1", "b2"}));
    EXPECT_EQ(e.getVecBoolean("flags"), (std::vector<bool>{true, false, true, false, false}));
    EXPECT_TRUE(e.getVecInteger("missing").empty());
    EXPECT_TRUE(e.getVecWString(std::wstring(L"missing")).empty());
}

TEST_F(Edit, KeysAreFoundAndListedAndTheLastOfDuplicatesWins) {
    CConfigEditor e;
    loadText(e, "beta = 2\n# note\nalpha = 1\nbeta = 3\n");
    EXPECT_EQ(e.getInteger("beta"), 3);
    EXPECT_EQ(e.getConfigFile()->keyIndex.at(L"beta"), 3);
    EXPECT_TRUE(e.contains("alpha") && e.contains(std::wstring(L"beta")) && e.findKey(L"alpha"));
    EXPECT_FALSE(e.contains("gamma"));
    std::wstring value = L"untouched";
    EXPECT_TRUE(e.findKey(L"beta", &value));
    EXPECT_EQ(value, L"3");
    EXPECT_FALSE(e.findKey(L"gamma", &value));
    EXPECT_EQ(value, L"");
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

TEST_F(Edit, ModifyKeepsSeparatorAndNoteFormatsTypedValuesAndChangesTheIndexedDuplicate) {
    CConfigEditor e;
    loadText(e, "gain: 3   # factor\nspeed=1\nname , old#n\nx = 1\nx = 2\nd = 0\nf = 0\nb = 0\n");
    ASSERT_TRUE(e.modifyi("gain", -4));
    ASSERT_TRUE(e.modify("speed", "2.5"));
    ASSERT_TRUE(e.modifyw(L"name", L"new"));
    ASSERT_TRUE(e.modifyi("x", 7));
    ASSERT_TRUE(e.modifyd("d", 0.1));
    ASSERT_TRUE(e.modifyf("f", 0.5f));
    ASSERT_TRUE(e.modifyb("b", true));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"gain: -4   # factor", L"speed=2.5",
                                                   L"name , new#n", L"x = 1", L"x = 7",
                                                   L"d = 0.100000", L"f = 0.500000", L"b = true"}));
    EXPECT_EQ(e.getInteger("gain"), -4);
    EXPECT_EQ(e.getWString("name"), L"new");
    EXPECT_TRUE(e.getConfigFile()->modified);
    ASSERT_TRUE(e.modifyb("b", false));
    EXPECT_EQ(e.getWString("b"), L"false");

    // An absent key is not added unless asked; an editor without a file changes nothing.
    loadText(e, "a = 1\n");
    EXPECT_FALSE(e.modifyi("b", 2));
    EXPECT_FALSE(e.modifyw(L"b", L"2", false));
    EXPECT_FALSE(e.getConfigFile()->modified);
    EXPECT_EQ(texts(e), std::vector<std::wstring>{L"a = 1"});
    EXPECT_FALSE(CConfigEditor().modify("a", "1", true));
}

TEST_F(Edit, AnAddedKeyHasNoSeparatorOfItsOwnSoAModificationJoinsKeyAndValue) {
    CConfigEditor e;
    loadText(e, "a = 1\n");
    ASSERT_TRUE(e.modify("mode", "fast", true));
    EXPECT_EQ(texts(e).back(), L"mode = fast");
    EXPECT_EQ(e.getConfigFile()->lines.back().separator, L"");
    EXPECT_EQ(e.getWString("mode"), L"fast");
    EXPECT_EQ(e.getConfigFile()->keyIndex.at(L"mode"), 1);
    ASSERT_TRUE(e.modify("mode", "slow"));
    EXPECT_EQ(texts(e).back(), L"modeslow");
    ASSERT_TRUE(e.save(true));
    EXPECT_EQ(readBytes(path("test.cfg")), "a = 1\nmodeslow\n");
    ASSERT_TRUE(e.load(wpath("test.cfg")));  // a reload sees what was written
    EXPECT_FALSE(e.contains("mode"));
}

TEST_F(Edit, NotesGoRightOrAboveAsTheirFormatSaysAndShiftTheIndex) {
    struct Case {
        const char* format;
        std::vector<std::wstring> expected;
    };
    const Case cases[] = {
        {"4tr", {L"first = 1", L"mode = fast\t\t\t\t# fast path", L"last = 3"}},
        {"2", {L"first = 1", L"  # fast path", L"mode = fast", L"last = 3"}},
        {nullptr, {L"first = 1", L"# fast path", L"mode = fast", L"last = 3"}},
        {"1tx r", {L"first = 1", L"\t# fast path", L"mode = fast", L"last = 3"}},  // x: stop
        {"s", {L"first = 1", L"# fast path", L"mode = fast", L"last = 3"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format != nullptr ? c.format : "null");
        CConfigEditor e;
        loadText(e, "first = 1\nmode = fast\nlast = 3\n");
        ASSERT_TRUE(e.addNote("mode", "fast path", c.format));
        EXPECT_EQ(texts(e), c.expected);
        EXPECT_FALSE(e.getConfigFile()->modified);
        const int shift = static_cast<int>(c.expected.size()) - 3;
        EXPECT_EQ(e.getConfigFile()->keyIndex.at(L"last"), 2 + shift);
        EXPECT_EQ(e.getWString("mode"), L"fast");
        ASSERT_TRUE(e.modifyi("last", 4));  // reaches the right line after the shift
        EXPECT_EQ(texts(e).back(), L"last = 4");
    }
    CConfigEditor e;
    loadText(e, "k = v\n");
    ASSERT_TRUE(e.addNote(std::wstring(L"k"), std::wstring(L"a"), "r"));
    ASSERT_TRUE(e.addNote(std::wstring(L"k"), "b", "r"));
    ASSERT_TRUE(e.addNote("k", std::wstring(L"c"), ""));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"# c", L"k = v# a# b"}));
    EXPECT_FALSE(e.addNote("missing", "x", "r"));
}
