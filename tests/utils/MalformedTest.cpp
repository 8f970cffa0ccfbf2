// Damaged files: a false result or skipped records, never a crash or a huge allocation.
#include <gtest/gtest.h>

#include "TempDir.h"
#include "utils/ConfigEditor.h"

using cfgtest::le32;
using cfgtest::record;
using zq::utils::CConfigEditor;

namespace {

class Malformed : public cfgtest::TempDirTest {
protected:
    bool loadBinary(const std::string& bytes) {
        writeBytes(path("b.cfg"), bytes);
        const bool ok = m_editor.load(wpath("b.cfg"), true, true);
        EXPECT_EQ(ok, !m_editor.state());
        return ok;
    }
    CConfigEditor m_editor;
};

}  // namespace

TEST_F(Malformed, WrongMarksSkipTheRecord) {
    ASSERT_TRUE(loadBinary(le32(3) + record("a = 1", 0x00) + record("b = 2") +
                           record("c = 3", 0xBE, 0x00)));
    EXPECT_EQ(m_editor.getConfigFile()->lines.size(), 1u);
    EXPECT_FALSE(m_editor.contains("a"));
    EXPECT_EQ(m_editor.getInteger("b"), 2);
    EXPECT_FALSE(m_editor.contains("c"));
    EXPECT_EQ(m_editor.getConfigFile()->keyIndex.at(L"b"), 0);
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
    for (const std::string& bytes : files) {
        EXPECT_FALSE(loadBinary(bytes)) << testing::PrintToString(bytes.substr(0, 12));
    }
}

TEST_F(Malformed, EmptyBinaryFileHasNoRecords) {
    ASSERT_TRUE(loadBinary(""));
    EXPECT_TRUE(m_editor.getConfigFile()->lines.empty());
    ASSERT_TRUE(loadBinary(le32(0)));
    EXPECT_TRUE(m_editor.getConfigFile()->lines.empty());
}

TEST_F(Malformed, LineEndsAtFirstZeroByteInsideRecord) {
    std::string r = record("k = abc");
    r[4 + 1 + 4] = '\0';  // the inverted 'a' becomes a terminator
    ASSERT_TRUE(loadBinary(le32(1) + r));
    EXPECT_EQ(m_editor.getConfigFile()->lines.at(0).text, L"k = ");
}

TEST_F(Malformed, TextLineWithANulByteIsCutThere) {
    // The line is taken up to its first NUL; what follows the NUL on that line is dropped,
    // the next lines are read as usual, and a save writes the cut line.
    writeBytes(path("t.cfg"), std::string("a = 1\nb = 7\0x = 9\n\0\nc = 3\n", 26));
    ASSERT_TRUE(m_editor.load(wpath("t.cfg"), false, true));
    const auto& l = m_editor.getConfigFile()->lines;
    ASSERT_EQ(l.size(), 4u);
    EXPECT_EQ(l[1].text, L"b = 7");
    EXPECT_EQ(l[2].text, L"");
    EXPECT_EQ(m_editor.getInteger("b"), 7);
    EXPECT_EQ(m_editor.getInteger("c"), 3);
    EXPECT_FALSE(m_editor.contains("x"));
    ASSERT_TRUE(m_editor.save(true));
    EXPECT_EQ(readBytes(path("t.cfg")), "a = 1\nb = 7\n\nc = 3\n");
}

TEST_F(Malformed, TooLargeFileAndADirectoryAreRefused) {
    writeBytes(path("big.cfg"), std::string(zq::utils::kMaxFileBytes + 1, '\n'));
    for (const std::wstring& file : {wpath("big.cfg"), m_dir.wstring()}) {
        EXPECT_FALSE(m_editor.load(file, false, true));
        EXPECT_TRUE(m_editor.state());
    }
    EXPECT_FALSE(m_editor.load(m_dir.wstring(), true, true));
}
