// Modification keeps key, separator and note; adding keys; note lines and index shifts.
#include <gtest/gtest.h>

#include "TempDir.h"
#include "utils/ConfigEditor.h"

using zq::utils::CConfigEditor;

namespace {

using Modify = cfgtest::TempDirTest;

}  // namespace

TEST_F(Modify, KeepsSeparatorAndNoteAndChangesOnlyTheIndexedDuplicate) {
    CConfigEditor e;
    loadText(e, "gain: 3   # factor\nspeed=1\nname , old#n\nx = 1\nx = 2\n");
    ASSERT_TRUE(e.modifyi("gain", 4));
    ASSERT_TRUE(e.modify("speed", "2.5"));
    ASSERT_TRUE(e.modifyw(L"name", L"new"));
    ASSERT_TRUE(e.modifyi("x", 7));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"gain: 4   # factor", L"speed=2.5",
                                                   L"name , new#n", L"x = 1", L"x = 7"}));
    EXPECT_EQ(e.getInteger("gain"), 4);
    EXPECT_EQ(e.getWString("name"), L"new");
    EXPECT_TRUE(e.getConfigFile()->modified);
}

TEST_F(Modify, FormatsTypedValues) {
    CConfigEditor e;
    loadText(e, "i = 0\nd = 0\nf = 0\nb = 0\n");
    ASSERT_TRUE(e.modifyi("i", -45));
    ASSERT_TRUE(e.modifyd("d", 0.1));
    ASSERT_TRUE(e.modifyf("f", 0.5f));
    ASSERT_TRUE(e.modifyb("b", true));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"i = -45", L"d = 0.100000", L"f = 0.500000",
                                                   L"b = true"}));
    ASSERT_TRUE(e.modifyb("b", false));
    EXPECT_EQ(e.getWString("b"), L"false");
}

TEST_F(Modify, AbsentKeyWithoutAddChangesNothing) {
    CConfigEditor e;
    loadText(e, "a = 1\n");
    EXPECT_FALSE(e.modifyi("b", 2));
    EXPECT_FALSE(e.modifyw(L"b", L"2", false));
    EXPECT_FALSE(e.getConfigFile()->modified);
    EXPECT_EQ(texts(e), std::vector<std::wstring>{L"a = 1"});
    CConfigEditor empty;
    EXPECT_FALSE(empty.modify("a", "1", true));
}

TEST_F(Modify, AddedKeyIsRemodifiedWithoutSeparator) {
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

    // A reload sees what was written.
    ASSERT_TRUE(e.load(wpath("test.cfg")));
    EXPECT_FALSE(e.contains("mode"));
}

TEST_F(Modify, NoteToTheRightWithTabs) {
    CConfigEditor e;
    loadText(e, "mode = fast\n");
    ASSERT_TRUE(e.addNote("mode", "fast path", "4tr"));
    EXPECT_EQ(texts(e), std::vector<std::wstring>{L"mode = fast\t\t\t\t# fast path"});
    EXPECT_EQ(e.getWString("mode"), L"fast");
    EXPECT_FALSE(e.getConfigFile()->modified);
}

TEST_F(Modify, NoteAboveShiftsLaterIndices) {
    CConfigEditor e;
    loadText(e, "first = 1\nmode = fast\nlast = 3\n");
    ASSERT_TRUE(e.addNote(std::wstring(L"mode"), std::wstring(L"fast path"), "2"));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"first = 1", L"  # fast path", L"mode = fast",
                                                   L"last = 3"}));
    const auto& index = e.getConfigFile()->keyIndex;
    EXPECT_EQ(index.at(L"first"), 0);
    EXPECT_EQ(index.at(L"mode"), 2);
    EXPECT_EQ(index.at(L"last"), 3);
    EXPECT_EQ(e.getWString("last"), L"3");
    EXPECT_TRUE(e.getConfigFile()->lines[1].key.empty());

    // Modifying after the shift still reaches the right line.
    ASSERT_TRUE(e.modifyi("last", 4));
    EXPECT_EQ(texts(e)[3], L"last = 4");
}

TEST_F(Modify, NoteFormatDefaultsAndStops) {
    CConfigEditor e;
    loadText(e, "k = v\n");
    ASSERT_TRUE(e.addNote("k", std::wstring(L"a"), nullptr));
    ASSERT_TRUE(e.addNote(std::wstring(L"k"), "b", "1tx r"));  // 'x' ends the reading: above
    ASSERT_TRUE(e.addNote("k", "c", "s"));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"# a", L"\t# b", L"# c", L"k = v"}));
    EXPECT_FALSE(e.addNote("missing", "x", "r"));
}
