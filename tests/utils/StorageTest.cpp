// Loading and saving in both storage forms, line ends, save refusals, copies and moves, code
// pages, long lines, the header note block and file attributes.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <utility>

#include "TempDir.h"
#include "platform/Platform.h"

using zq::utils::CConfigEditor;
using Storage = cfgtest::TempDirTest;

namespace {

const std::string kSample =
    "# header note\n\nspeed = 12   # mm/s\nname: a, b\n indented = 1\nflag # on\n[section]\n"
    "label = \xE4\xB8\xAD\xE6\x96\x87\ntrailing = 5   \n";

// A time stamp as the editor writes it: "YYYY" U+0004 "MM" U+0014 "DD" U+0008 ", hh:mm:ss".
const std::wstring kStamp = L"\\d{4}\x04\\d{2}\x14\\d{2}\x08, \\d{2}:\\d{2}:\\d{2}";

}  // namespace

TEST_F(Storage, WithoutAFileNothingIsDoneAndReadsGiveDefaults) {
    CConfigEditor e(wpath("missing.cfg"));
    EXPECT_TRUE(e.state());
    EXPECT_FALSE(e.load(L"", false, true));
    EXPECT_FALSE(e.setBinary(true) || e.setCodePage(936) || e.save(true));
    EXPECT_FALSE(e.getBoolean("SaveScanFrame") || e.contains("a"));
    EXPECT_EQ(e.getInteger("a"), 0);
    EXPECT_EQ(e.getString("a"), "");
    EXPECT_TRUE(e.getVecInteger("a").empty());
    std::vector<std::wstring> keys;
    EXPECT_FALSE(e.getAllKeys(&keys));
    // Without a file the conversions use UTF-8.
    EXPECT_EQ(e.toString(L"\u4e2d"), "\xE4\xB8\xAD");
    EXPECT_EQ(e.toWString("\xE4\xB8\xAD"), L"\u4e2d");
}

// Lines end at line feeds, a carriage return before one dropped; an unchanged file is written
// back byte for byte with the line ends it was loaded with (CR LF only when every line had
// one), a carriage return of the text itself survives, and the result reads back the same.
TEST_F(Storage, TextFilesSplitAtLineFeedsAndAreWrittenBackWithTheirLineEnds) {
    struct Case {
        std::string bytes;
        std::vector<std::wstring> lines;
        std::string saved;
    };
    const Case cases[] = {
        {"a = 1\r\n\r\nb = 2\n\nlast = 3",
         {L"a = 1", L"", L"b = 2", L"", L"last = 3"},
         "a = 1\n\nb = 2\n\nlast = 3\n"},
        {"x = 1\n", {L"x = 1"}, "x = 1\n"},
        {"a = 1\r\r\nb = 2\nc = 3\r",
         {L"a = 1\r", L"b = 2", L"c = 3\r"},
         "a = 1\r\r\nb = 2\nc = 3\r\r\n"},
        {"# note\r\na = 1\r\n\r\nb = 2\r\n", {L"# note", L"a = 1", L"", L"b = 2"}, ""},
        {"a = 1\r\nb = 2\n", {L"a = 1", L"b = 2"}, "a = 1\nb = 2\n"},
        {kSample, {}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        CConfigEditor e;
        ASSERT_TRUE(loadBytes(e, "t.cfg", c.bytes));
        if (!c.lines.empty()) {
            EXPECT_EQ(texts(e), c.lines);
        }
        const auto before = lines(e);
        ASSERT_TRUE(e.save(true));
        EXPECT_EQ(readBytes(path("t.cfg")), c.saved.empty() ? c.bytes : c.saved);
        ASSERT_TRUE(e.load(wpath("t.cfg")));
        EXPECT_EQ(lines(e), before);
    }
    // The destructor saves with force (the file was loaded read-only), CR LF after an edit
    // too; a new file (exclusive creation) gets line feeds.
    {
        CConfigEditor e;
        ASSERT_TRUE(loadBytes(e, "t.cfg", "# note\r\na = 1\r\n"));
        ASSERT_TRUE(e.modify("a", "3"));
        CConfigEditor created(wpath("new.cfg"), false, false);
        ASSERT_FALSE(created.state());
        ASSERT_TRUE(created.modify("k", "1", true));
        ASSERT_TRUE(created.modify("m", "2", true));
    }
    EXPECT_EQ(readBytes(path("t.cfg")), "# note\r\na = 3\r\n");
    EXPECT_EQ(readBytes(path("new.cfg")), "k = 1\nm = 2\n");
}

TEST_F(Storage, BinaryFormStoresInvertedRecordsAndRoundTrips) {
    writeBytes(path("b.cfg"), "a=1\n");
    CConfigEditor small(wpath("b.cfg"));
    ASSERT_TRUE(small.setBinary(true));
    ASSERT_TRUE(small.save(true));
    // Count, then per line: length with terminator, start mark, inverted bytes, 0, end mark.
    EXPECT_EQ(readBytes(path("b.cfg")),
              cfgtest::le32(1) + cfgtest::le32(4) + std::string("\xBE\x9E\xC2\xCE\x00\xED", 6));

    // Long lines are kept whole in both forms.
    const std::string huge(200000, 'y');
    const std::string content =
        kSample + "long = " + std::string(5000, 'x') + "  # n\nhuge = " + huge + "\nafter = 2\n";
    writeBytes(path("s.cfg"), content);
    CConfigEditor text(wpath("s.cfg"));
    ASSERT_FALSE(text.state());
    EXPECT_EQ(lines(text).size(), 12u);
    EXPECT_EQ(text.getString("huge"), huge);
    EXPECT_EQ(text.getVecString("huge").size(), 1u);
    ASSERT_TRUE(text.save(true));
    EXPECT_EQ(readBytes(path("s.cfg")), content);
    const auto before = lines(text);
    ASSERT_TRUE(text.setBinary(true));
    ASSERT_TRUE(text.save(true));
    CConfigEditor binary(wpath("s.cfg"), true, true);
    ASSERT_FALSE(binary.state());
    EXPECT_EQ(lines(binary), before);
    EXPECT_EQ(binary.getInteger("speed"), 12);
    EXPECT_EQ(binary.getWString("label"), L"\u4e2d\u6587");
    EXPECT_EQ(binary.getString("huge"), huge);
}

TEST_F(Storage, ReadOnlyUnmodifiedAndExistingFilesAreRefused) {
    writeBytes(path("r.cfg"), "k = 1\n");
    CConfigEditor ro(wpath("r.cfg"), false, true);
    EXPECT_FALSE(ro.save(false));  // right after load
    ASSERT_TRUE(ro.modifyi("k", 2));
    EXPECT_FALSE(ro.save(false));  // read-only
    EXPECT_EQ(readBytes(path("r.cfg")), "k = 1\n");
    EXPECT_TRUE(ro.save(true));
    EXPECT_EQ(readBytes(path("r.cfg")), "k = 2\n");

    CConfigEditor rw(wpath("w.cfg"), false, false);  // created exclusively
    ASSERT_FALSE(rw.state());
    EXPECT_TRUE(lines(rw).empty());
    EXPECT_FALSE(rw.save(false));  // not modified
    ASSERT_TRUE(rw.modify("k", "v", true));
    EXPECT_TRUE(rw.save(false));
    EXPECT_EQ(readBytes(path("w.cfg")), "k = v\n");
    EXPECT_TRUE(rw.getConfigFile()->modified);  // a save does not clear it

    // A writable load creates the file: an existing one is refused and left alone.
    CConfigEditor existing;
    EXPECT_FALSE(existing.load(wpath("r.cfg"), false, false));
    EXPECT_TRUE(existing.state());
    EXPECT_EQ(readBytes(path("r.cfg")), "k = 2\n");

    // close saves only when asked.
    ASSERT_TRUE(ro.modifyi("k", 3));
    ro.close(false);
    EXPECT_TRUE(ro.state());
    EXPECT_EQ(readBytes(path("r.cfg")), "k = 2\n");
    ASSERT_TRUE(ro.load(wpath("r.cfg")));
    ASSERT_TRUE(ro.modifyi("k", 4));
    ro.close(true);
    EXPECT_EQ(readBytes(path("r.cfg")), "k = 4\n");
}

TEST_F(Storage, CopiesRewriteTheirTargetFileAndMovesTakeItOver) {
    writeBytes(path("src.cfg"), "a = 1\n");
    writeBytes(path("dst.cfg"), "b = 2\n");
    CConfigEditor src(wpath("src.cfg"));
    CConfigEditor dst(wpath("dst.cfg"));
    ASSERT_TRUE(src.modifyi("a", 5));
    dst = src;
    EXPECT_EQ(readBytes(path("dst.cfg")), "a = 5\n");
    EXPECT_EQ(dst.getConfigFile()->fileName, wpath("dst.cfg"));
    EXPECT_FALSE(dst.contains("b"));
    // A deep copy: changing one does not change the other.
    ASSERT_TRUE(dst.modifyi("a", 6));
    EXPECT_EQ(src.getInteger("a"), 5);
    EXPECT_EQ(readBytes(path("src.cfg")), "a = 1\n");

    // Copy construction keeps the source's name and rewrites it at once.
    CConfigEditor copy(src);
    EXPECT_EQ(readBytes(path("src.cfg")), "a = 5\n");
    EXPECT_EQ(copy.getConfigFile()->fileName, wpath("src.cfg"));

    // Copying an empty editor empties the target without writing.
    const CConfigEditor empty;
    dst = empty;
    EXPECT_TRUE(dst.state());
    EXPECT_EQ(readBytes(path("dst.cfg")), "a = 5\n");

    CConfigEditor moved(std::move(copy));
    EXPECT_TRUE(copy.state());  // NOLINT(bugprone-use-after-move): moved-from is empty
    dst = std::move(moved);
    EXPECT_TRUE(moved.state());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(dst.getInteger("a"), 5);
}

TEST_F(Storage, CodePagesConvertWhatIsReadAndSavedAndInvalidUtf8IsReplaced) {
    const std::string utf8 = "\xE4\xB8\xAD\xE6\x96\x87";  // two CJK characters
    const std::string gbk = "\xD6\xD0\xCE\xC4";
    writeBytes(path("g.cfg"), "name = " + utf8 + "\nbad = \xFF\xFE\xC3\n");
    CConfigEditor e(wpath("g.cfg"));
    EXPECT_NE(e.getWString("bad"), L"");
    ASSERT_TRUE(e.setCodePage(936));
    EXPECT_EQ(e.getString("name"), gbk);
    EXPECT_EQ(e.getWString("name"), L"\u4e2d\u6587");
    EXPECT_EQ(e.toWString(gbk), L"\u4e2d\u6587");
    ASSERT_TRUE(e.modify("bad", "x"));
    ASSERT_TRUE(e.save(true));
    EXPECT_EQ(readBytes(path("g.cfg")), "name = " + gbk + "\nbad = x\n");

    // A reload decodes UTF-8 again.
    ASSERT_TRUE(e.load(wpath("g.cfg")));
    EXPECT_EQ(e.getConfigFile()->codePage, 65001);
    EXPECT_EQ(e.getWString("name"), platform::toWide(gbk, 65001));
}

TEST_F(Storage, HeaderNoteBlockAndFileAttributes) {
    writeBytes(path("cfg.ini"), "a = 1\n");
    CConfigEditor e(wpath("cfg.ini"));
    ASSERT_NE(e.getConfigFile(), nullptr);
    const std::wstring title = zq::utils::getConfigEditTitle(*e.getConfigFile());
    EXPECT_TRUE(std::regex_match(
        title, std::wregex(L"# File Name: cfg\\.ini\n# File Ext: ini\n# Code Page: UTF8\n"
                           L"# Version: 3\\.2\\.0\\.6\n# Create Time: " +
                           kStamp + L"\n# Modify Time: " + kStamp + L"\n")))
        << std::string(title.begin(), title.end());
    // As note lines the block carries no keys.
    std::wstring line;
    for (std::wistringstream in(title); std::getline(in, line);) {
        EXPECT_TRUE(zq::utils::tagConfigFileLine(line).key.empty());
    }
    zq::utils::tagConfigFile plain;
    plain.fileName = L"dir\\sub/noext";
    plain.codePage = 936;
    EXPECT_EQ(zq::utils::getConfigEditTitle(plain).find(
                  L"# File Name: noext\n# File Ext: noext\n# Code Page: GB2312\n"),
              0u);
    plain.codePage = 1252;
    EXPECT_NE(zq::utils::getConfigEditTitle(plain).find(L"# Code Page: 1252\n"),
              std::wstring::npos);

    zq::utils::FileAttribute attribute;
    attribute.size = -7;
    EXPECT_FALSE(zq::utils::getFileAttribute(wpath("missing"), attribute));
    EXPECT_EQ(attribute.size, -7);
    ASSERT_TRUE(zq::utils::getFileAttribute(wpath("cfg.ini"), attribute));
    EXPECT_EQ(attribute.size, 6);
    EXPECT_TRUE(std::regex_match(attribute.modifyTime, std::wregex(kStamp)));
}
