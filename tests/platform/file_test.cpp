#include <utime.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "temp_dir.h"

namespace {

TEST(PlatformExclusiveCreate, CreatesOnceAndRefusesAnExistingFile) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.file("Debug.dbg");
    EXPECT_TRUE(platform::createFileExclusive(path));
    EXPECT_TRUE(platform::fileExists(path));
    EXPECT_FALSE(platform::createFileExclusive(path));

    platform::FileTimes times;
    ASSERT_TRUE(platform::fileTimes(path, times));
    EXPECT_EQ(times.size, 0);
}

TEST(PlatformExclusiveCreate, RefusesMissingFoldersAndEmptyPaths) {
    TempDir dir;
    EXPECT_FALSE(platform::createFileExclusive(dir.file("missing/file.txt")));
    EXPECT_FALSE(platform::createFileExclusive(""));
    EXPECT_FALSE(platform::createFileExclusive(dir.path()));  // a directory exists there
}

TEST(PlatformFileTimes, ReportsSizeAndTimesOfAWrittenFile) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.file("cfg.ini");
    {
        std::ofstream out(path, std::ios::binary);
        out << "key = value\n";
    }
    const std::time_t modified = 1000000000;  // 2001-09-09
    const std::time_t accessed = 1100000000;
    utimbuf stamp{};
    stamp.actime = accessed;
    stamp.modtime = modified;
    ASSERT_EQ(::utime(path.c_str(), &stamp), 0);

    platform::FileTimes times;
    ASSERT_TRUE(platform::fileTimes(path, times));
    EXPECT_EQ(times.size, 12);
    EXPECT_EQ(times.modified, modified);
    EXPECT_EQ(times.accessed, accessed);
    EXPECT_GT(times.created, modified);  // the status changed just now
}

TEST(PlatformFileTimes, MissingFileLeavesTheRecordAlone) {
    TempDir dir;
    platform::FileTimes times;
    times.size = 77;
    EXPECT_FALSE(platform::fileTimes(dir.file("absent"), times));
    EXPECT_FALSE(platform::fileTimes("", times));
    EXPECT_EQ(times.size, 77);
}

TEST(PlatformPaths, JoinAddsExactlyOneSeparator) {
    EXPECT_EQ(platform::joinPath(std::string("annex"), std::string("Debug.dbg")),
              "annex/Debug.dbg");
    EXPECT_EQ(platform::joinPath(std::string("annex/"), std::string("Debug.dbg")),
              "annex/Debug.dbg");
    EXPECT_EQ(platform::joinPath(std::string("annex"), std::string("/Lumora")), "annex/Lumora");
    EXPECT_EQ(platform::joinPath(std::string(""), std::string("Lumora")), "Lumora");
    EXPECT_EQ(platform::joinPath(std::string("/"), std::string("tmp")), "/tmp");
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
    EXPECT_TRUE(platform::fileExists(file));
    EXPECT_FALSE(platform::directoryExists(file));
    EXPECT_FALSE(platform::makeDirectories(file + "/below"));  // a file is in the way
    EXPECT_FALSE(platform::makeDirectories(""));
}

}  // namespace
