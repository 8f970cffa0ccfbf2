// Loading and saving in both storage forms, save refusals, copies and moves, code pages,
// long lines, the header note block and file attributes.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <utility>

#include "TempDir.h"
#include "platform/Platform.h"
#include "utils/ConfigEditor.h"

using zq::utils::CConfigEditor;
using zq::utils::tagConfigFileLine;

namespace {

using Storage = cfgtest::TempDirTest;

const std::string kSample =
    "# header note\n"
    "\n"
    "speed = 12   # mm/s\n"
    "name: a, b\n"
    " indented = 1\n"
    "flag # on\n"
    "[section]\n"
    "label = \xE4\xB8\xAD\xE6\x96\x87\n"
    "trailing = 5   \n";

// A time stamp as the editor writes it: "YYYY" U+0004 "MM" U+0014 "DD" U+0008 ", hh:mm:ss".
const std::wstring kStamp = L"\\d{4}\x04\\d{2}\x14\\d{2}\x08, \\d{2}:\\d{2}:\\d{2}";

}  // namespace

TEST_F(Storage, LoadingMissingFileLeavesAnEmptyEditorThatGivesDefaults) {
    CConfigEditor e(wpath("missing.cfg"));
    EXPECT_TRUE(e.state());
    EXPECT_FALSE(e.load(L"", false, true));
    EXPECT_FALSE(e.setBinary(true));
    EXPECT_FALSE(e.setCodePage(936));
    EXPECT_FALSE(e.save(true));
    EXPECT_FALSE(e.getBoolean("SaveScanFrame"));
    EXPECT_EQ(e.getInteger("a"), 0);
    EXPECT_EQ(e.getString("a"), "");
    EXPECT_TRUE(e.getVecInteger("a").empty());
    EXPECT_FALSE(e.contains("a"));
    std::vector<std::wstring> keys;
    EXPECT_FALSE(e.getAllKeys(&keys));
    // Without a file the conversions use UTF-8.
    EXPECT_EQ(e.toString(L"\u4e2d"), "\xE4\xB8\xAD");
    EXPECT_EQ(e.toWString("\xE4\xB8\xAD"), L"\u4e2d");
}

TEST_F(Storage, TextLinesSplitAtLineFeeds) {
    writeBytes(path("t.cfg"), "a = 1\r\n\r\nb = 2\n\nlast = 3");
    CConfigEditor e(wpath("t.cfg"));
    ASSERT_FALSE(e.state());
    const auto l = lines(e);
    ASSERT_EQ(l.size(), 5u);
    EXPECT_EQ(l[0].text, L"a = 1");  // carriage return before the line feed dropped
    EXPECT_EQ(l[1].text, L"");
    EXPECT_EQ(l[3].text, L"");
    EXPECT_EQ(l[4].text, L"last = 3");  // final line without line feed taken
    EXPECT_EQ(e.getInteger("last"), 3);

    writeBytes(path("u.cfg"), "x = 1\n");
    ASSERT_TRUE(e.load(wpath("u.cfg")));
    EXPECT_EQ(lines(e).size(), 1u);  // nothing after the final line feed

    // A carriage return not followed by a line feed is text, and survives a rewrite.
    writeBytes(path("cr.cfg"), "a = 1\r\r\nb = 2\r");
    ASSERT_TRUE(e.load(wpath("cr.cfg")));
    const auto before = lines(e);
    ASSERT_EQ(before.size(), 2u);
    EXPECT_EQ(before[0].text, L"a = 1\r");
    EXPECT_EQ(before[1].text, L"b = 2\r");
    ASSERT_TRUE(e.save(true));
    ASSERT_TRUE(e.load(wpath("cr.cfg")));
    EXPECT_EQ(lines(e), before);
}

TEST_F(Storage, SavingKeepsTheLineEndsTheFileWasLoadedWith) {
    // CR LF throughout: written back with CR LF, also after an edit.
    const std::string crlf = "# note\r\na = 1\r\n\r\nb = 2\r\n";
    writeBytes(path("w.cfg"), crlf);
    {
        CConfigEditor e(wpath("w.cfg"));
        ASSERT_FALSE(e.state());
        ASSERT_TRUE(e.save(true));
        EXPECT_EQ(readBytes(path("w.cfg")), crlf);
        ASSERT_TRUE(e.modify("b", "3"));
        ASSERT_TRUE(e.save(true));
        EXPECT_EQ(readBytes(path("w.cfg")), "# note\r\na = 1\r\n\r\nb = 3\r\n");
        e.close(false);
    }
    // Mixed ends are not CR LF throughout: the file gets line feeds.
    writeBytes(path("m.cfg"), "a = 1\r\nb = 2\n");
    CConfigEditor mixed(wpath("m.cfg"));
    ASSERT_TRUE(mixed.save(true));
    EXPECT_EQ(readBytes(path("m.cfg")), "a = 1\nb = 2\n");
    mixed.close(false);

    // A new file (exclusive creation) gets line feeds.
    CConfigEditor created(wpath("new.cfg"), false, false);
    ASSERT_FALSE(created.state());
    ASSERT_TRUE(created.modify("k", "1", true));
    ASSERT_TRUE(created.modify("m", "2", true));
    ASSERT_TRUE(created.save(true));
    const std::string made = readBytes(path("new.cfg"));
    EXPECT_NE(made.find('\n'), std::string::npos);
    EXPECT_EQ(made.find('\r'), std::string::npos);
    created.close(false);
}

TEST_F(Storage, UnchangedTextFileIsRewrittenByteForByte) {
    writeBytes(path("s.cfg"), kSample);
    {
        CConfigEditor e(wpath("s.cfg"));
        ASSERT_FALSE(e.state());
        EXPECT_EQ(lines(e).size(), 9u);
        ASSERT_TRUE(e.save(true));
        EXPECT_EQ(readBytes(path("s.cfg")), kSample);
        writeBytes(path("s.cfg"), "changed\n");
    }  // the destructor saves with force
    EXPECT_EQ(readBytes(path("s.cfg")), kSample);
}

TEST_F(Storage, BinaryFormStoresInvertedRecordsAndRoundTrips) {
    writeBytes(path("b.cfg"), "a=1\n");
    CConfigEditor small(wpath("b.cfg"));
    ASSERT_TRUE(small.setBinary(true));
    ASSERT_TRUE(small.save(true));
    // Count, then per line: length with terminator, start mark, inverted bytes, 0, end mark.
    EXPECT_EQ(readBytes(path("b.cfg")),
              cfgtest::le32(1) + cfgtest::le32(4) + std::string("\xBE\x9E\xC2\xCE\x00\xED", 6));

    writeBytes(path("s.cfg"), kSample);
    CConfigEditor text(wpath("s.cfg"));
    ASSERT_FALSE(text.state());
    const auto before = lines(text);
    ASSERT_TRUE(text.setBinary(true));
    ASSERT_TRUE(text.save(true));
    CConfigEditor binary(wpath("s.cfg"), true, true);
    ASSERT_FALSE(binary.state());
    EXPECT_EQ(lines(binary), before);
    EXPECT_EQ(binary.getInteger("speed"), 12);
    EXPECT_EQ(binary.getWString("label"), L"\u4e2d\u6587");
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
}

TEST_F(Storage, CopyAssignmentRewritesTheTargetFile) {
    writeBytes(path("src.cfg"), "a = 1\n");
    writeBytes(path("dst.cfg"), "b = 2\n");
    CConfigEditor src(wpath("src.cfg"));
    CConfigEditor dst(wpath("dst.cfg"));
    ASSERT_TRUE(src.modifyi("a", 5));
    dst = src;
    EXPECT_EQ(readBytes(path("dst.cfg")), "a = 5\n");
    EXPECT_EQ(dst.getConfigFile()->fileName, wpath("dst.cfg"));
    EXPECT_EQ(dst.getInteger("a"), 5);
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
}

TEST_F(Storage, MoveTakesTheFileOver) {
    writeBytes(path("m.cfg"), "a = 1\n");
    CConfigEditor a(wpath("m.cfg"));
    CConfigEditor b(std::move(a));
    EXPECT_TRUE(a.state());  // NOLINT(bugprone-use-after-move): moved-from is empty
    EXPECT_EQ(b.getInteger("a"), 1);
    CConfigEditor c;
    c = std::move(b);
    EXPECT_TRUE(b.state());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(c.getInteger("a"), 1);
}

TEST_F(Storage, CloseSavesOnlyWhenAsked) {
    writeBytes(path("c.cfg"), "a = 1\n");
    CConfigEditor e(wpath("c.cfg"));
    ASSERT_TRUE(e.modifyi("a", 2));
    e.close(false);
    EXPECT_TRUE(e.state());
    EXPECT_EQ(readBytes(path("c.cfg")), "a = 1\n");
    ASSERT_TRUE(e.load(wpath("c.cfg")));
    ASSERT_TRUE(e.modifyi("a", 3));
    e.close(true);
    EXPECT_TRUE(e.state());
    EXPECT_EQ(readBytes(path("c.cfg")), "a = 3\n");
}

TEST_F(Storage, CodePage936ConvertsValuesAndSavesWhileReloadDecodesUtf8) {
    const std::string utf8 = "\xE4\xB8\xAD\xE6\x96\x87";  // two CJK characters
    const std::string gbk = "\xD6\xD0\xCE\xC4";
    writeBytes(path("g.cfg"), "name = " + utf8 + "\n");
    CConfigEditor e(wpath("g.cfg"));
    ASSERT_TRUE(e.setCodePage(936));
    EXPECT_EQ(e.getString("name"), gbk);
    EXPECT_EQ(e.getWString("name"), L"\u4e2d\u6587");
    EXPECT_EQ(e.toWString(gbk), L"\u4e2d\u6587");
    ASSERT_TRUE(e.save(true));
    EXPECT_EQ(readBytes(path("g.cfg")), "name = " + gbk + "\n");

    ASSERT_TRUE(e.load(wpath("g.cfg")));
    EXPECT_EQ(e.getConfigFile()->codePage, 65001);
    EXPECT_NE(e.getWString("name"), L"\u4e2d\u6587");
    EXPECT_EQ(e.getWString("name"), platform::toWide(gbk, 65001));
}

TEST_F(Storage, InvalidUtf8IsReplacedNotFatal) {
    writeBytes(path("i.cfg"), "k = \xFF\xFE\xC3\n");
    CConfigEditor e(wpath("i.cfg"));
    ASSERT_FALSE(e.state());
    EXPECT_TRUE(e.contains("k"));
    EXPECT_FALSE(e.getWString("k").empty());
}

TEST_F(Storage, LongTextLinesAreKeptWhole) {
    const std::string longValue(5000, 'x');
    const std::string huge(200000, 'y');
    const std::string content =
        "before = 1\nlong = " + longValue + "  # n\nhuge = " + huge + "\nafter = 2\n";
    writeBytes(path("l.cfg"), content);
    CConfigEditor e(wpath("l.cfg"));
    ASSERT_FALSE(e.state());
    EXPECT_EQ(lines(e).size(), 4u);
    EXPECT_EQ(e.getString("long"), longValue);
    EXPECT_EQ(e.getString("huge"), huge);
    EXPECT_EQ(e.getInteger("after"), 2);
    EXPECT_EQ(e.getVecString("huge").size(), 1u);
    ASSERT_TRUE(e.save(true));
    EXPECT_EQ(readBytes(path("l.cfg")), content);

    ASSERT_TRUE(e.setBinary(true));
    ASSERT_TRUE(e.save(true));
    CConfigEditor b(wpath("l.cfg"), true, true);
    EXPECT_EQ(b.getString("huge"), huge);
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
        EXPECT_TRUE(tagConfigFileLine(line).key.empty());
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
