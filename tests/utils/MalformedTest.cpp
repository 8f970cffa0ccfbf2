// Damaged files: a false result or skipped records, never a crash or a huge allocation.
#include <gtest/gtest.h>

#include "TempDir.h"

using cfgtest::le32;
using cfgtest::record;
using zq::utils::CConfigEditor;
using Malformed = cfgtest::TempDirTest;

TEST_F(Malformed, BinaryRecordsWithWrongMarksAreSkippedAndALineEndsAtItsFirstZeroByte) {
    std::string zero = record("k = abc");
    zero[4 + 1 + 4] = '\0';  // the inverted 'a' becomes a terminator
    const std::pair<std::string, std::vector<std::wstring>> cases[] = {
        {le32(3) + record("a = 1", 0x00) + record("b = 2") + record("c = 3", 0xBE, 0x00),
         {L"b = 2"}},
        {"", {}},
        {le32(0), {}},
        {le32(1) + zero, {L"k = "}},
    };
    for (const auto& [bytes, expected] : cases) {
        CConfigEditor e;
        ASSERT_TRUE(loadBytes(e, "b.cfg", bytes, true)) << testing::PrintToString(bytes);
        EXPECT_EQ(texts(e), expected);
    }
    CConfigEditor e;
    ASSERT_TRUE(loadBytes(e, "b.cfg", cases[0].first, true));
    EXPECT_EQ(e.getInteger("b"), 2);
    EXPECT_EQ(e.getConfigFile()->keyIndex.at(L"b"), 0);
}

TEST_F(Malformed, AbsurdCountsAndLengthsOrTruncationFail) {
    const std::string good = record("key = value");
    const std::string files[] = {
        le32(0x7FFFFFFF) + record("a = 1"),
        le32(-1) + record("a = 1"),
        le32(2) + record("a = 1"),  // one record short
        le32(1) + good.substr(0, good.size() - 1),
        le32(1) + le32(0x7FFFFFF0) + std::string(8, '\xBE'),
        le32(1) + le32(-5) + std::string(8, '\xBE'),
        le32(1) + le32(0) + std::string("\xBE\xED\x00", 3),
        std::string("\x01\x00", 2),
    };
    CConfigEditor e;
    for (const std::string& bytes : files) {
        EXPECT_FALSE(loadBytes(e, "b.cfg", bytes, true))
            << testing::PrintToString(bytes.substr(0, 12));
    }
}

TEST_F(Malformed, TextLineWithANulByteIsCutThere) {
    // The line is taken up to its first NUL; what follows the NUL on that line is dropped,
    // the next lines are read as usual, and a save writes the cut line.
    CConfigEditor e;
    ASSERT_TRUE(loadBytes(e, "t.cfg", std::string("a = 1\nb = 7\0x = 9\n\0\nc = 3\n", 26)));
    EXPECT_EQ(texts(e), (std::vector<std::wstring>{L"a = 1", L"b = 7", L"", L"c = 3"}));
    EXPECT_EQ(e.getInteger("b"), 7);
    EXPECT_EQ(e.getInteger("c"), 3);
    EXPECT_FALSE(e.contains("x"));
    ASSERT_TRUE(e.save(true));
    EXPECT_EQ(readBytes(path("t.cfg")), "a = 1\nb = 7\n\nc = 3\n");
}

TEST_F(Malformed, TooLargeFileAndADirectoryAreRefused) {
    writeBytes(path("big.cfg"), std::string(zq::utils::kMaxFileBytes + 1, '\n'));
    CConfigEditor e;
    for (const std::wstring& file : {wpath("big.cfg"), m_dir.wstring()}) {
        EXPECT_FALSE(e.load(file, false, true));
        EXPECT_TRUE(e.state());
    }
    EXPECT_FALSE(e.load(m_dir.wstring(), true, true));
}
