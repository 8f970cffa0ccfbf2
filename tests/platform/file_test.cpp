#include <utime.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "temp_dir.h"

namespace {

TEST(PlatformExclusiveCreate, CreatesOnceAndRefusesAnExistingFileOrAMissingFolder) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.file("Debug.dbg");
    EXPECT_TRUE(platform::createFileExclusive(path));
    EXPECT_TRUE(platform::fileExists(path));
    EXPECT_FALSE(platform::createFileExclusive(path));
    EXPECT_FALSE(platform::createFileExclusive(dir.file("missing/file.txt")));
    EXPECT_FALSE(platform::createFileExclusive(""));
    EXPECT_FALSE(platform::createFileExclusive(dir.path()));  // a directory exists there
}

TEST(PlatformFileTimes, ReportsSizeAndTimesAndLeavesTheRecordAloneOnFailure) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.file("cfg.ini");
    std::ofstream(path, std::ios::binary) << "key = value\n";
    utimbuf stamp{};
    stamp.actime = 1100000000;
    stamp.modtime = 1000000000;  // 2001-09-09
    ASSERT_EQ(::utime(path.c_str(), &stamp), 0);

    platform::FileTimes times;
    ASSERT_TRUE(platform::fileTimes(path, times));
    EXPECT_EQ(times.size, 12);
    EXPECT_EQ(times.modified, stamp.modtime);
    EXPECT_EQ(times.accessed, stamp.actime);
    EXPECT_GT(times.created, stamp.modtime);  // the status changed just now

    times.size = 77;
    EXPECT_FALSE(platform::fileTimes(dir.file("absent"), times));
    EXPECT_FALSE(platform::fileTimes("", times));
    EXPECT_EQ(times.size, 77);
}

TEST(PlatformPaths, JoinAddsExactlyOneSeparator) {
    struct Case {
        const char *dir, *name, *joined;
    };
    for (const Case& c :
         {Case{"annex", "Debug.dbg", "annex/Debug.dbg"},
          Case{"annex/", "Debug.dbg", "annex/Debug.dbg"}, Case{"annex", "/Lumora", "annex/Lumora"},
          Case{"", "Lumora", "Lumora"}, Case{"/", "tmp", "/tmp"}}) {
        EXPECT_EQ(platform::joinPath(std::string(c.dir), std::string(c.name)), c.joined);
    }
    EXPECT_EQ(platform::joinPath(std::wstring(L"annex"), std::wstring(L"\x4E2D")), L"annex/\x4E2D");
}

TEST(PlatformPaths, DirectoriesAreMadeWithTheirParents) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string nested = dir.file("annex/Lumora/logs");
    EXPECT_FALSE(platform::directoryExists(nested));
    EXPECT_TRUE(platform::makeDirectories(nested));
    EXPECT_TRUE(platform::directoryExists(nested));
    EXPECT_FALSE(platform::fileExists(nested));
    EXPECT_TRUE(platform::makeDirectories(nested + "/"));  // exists already: still fine

    const std::string file = dir.file("annex/plain");
    ASSERT_TRUE(platform::createFileExclusive(file));
    EXPECT_FALSE(platform::directoryExists(file));
    EXPECT_FALSE(platform::makeDirectories(file + "/below"));  // a file is in the way
    EXPECT_FALSE(platform::makeDirectories(""));
}

}  // namespace
