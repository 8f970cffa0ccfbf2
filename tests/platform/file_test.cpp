// Files, folders and paths, and the process's environment and temporary folders.
#include <stdlib.h>
#include <unistd.h>
#include <utime.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "temp_dir.h"

namespace {

TEST(PlatformFiles, ExclusiveCreationSucceedsOnceAndTimesAreReported) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.file("Debug.dbg");
    EXPECT_TRUE(platform::createFileExclusive(path));
    EXPECT_TRUE(platform::fileExists(path));
    for (const std::string& refused : {path, dir.file("missing/file.txt"), std::string(),
                                       dir.path()}) {  // exists, no folder, nothing, a folder
        EXPECT_FALSE(platform::createFileExclusive(refused)) << refused;
    }

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
    EXPECT_EQ(times.size, 77);  // left alone on failure
}

TEST(PlatformPaths, JoinAddsExactlyOneSeparatorAndFoldersAreMadeWithTheirParents) {
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

TEST(PlatformEnvironment, VariablesAndTemporaryFoldersOfTheProcess) {
    std::string value;
    EXPECT_TRUE(platform::setEnvironment("PF_PLATFORM_TEST", "a b=c"));
    EXPECT_TRUE(platform::getEnvironment("PF_PLATFORM_TEST", value));
    EXPECT_EQ(value, "a b=c");
    EXPECT_FALSE(platform::setEnvironment("PF=BAD", "x"));
    EXPECT_FALSE(platform::setEnvironment("", "x"));

    TempDir dir;
    std::string old;
    const bool hadOld = platform::getEnvironment("TMPDIR", old);
    ASSERT_TRUE(platform::setEnvironment("TMPDIR", dir.path()));
    const std::string a = platform::makeTemporaryDirectory("pf_");
    const std::string b = platform::makeTemporaryDirectory("pf_");
    ::unsetenv("TMPDIR");
    const std::string c = platform::makeTemporaryDirectory("pf_");  // under /tmp
    if (hadOld) {
        platform::setEnvironment("TMPDIR", old);
    }
    EXPECT_EQ(a.rfind(dir.path() + "/pf_", 0), 0u) << a;
    EXPECT_NE(a, b);
    EXPECT_TRUE(platform::directoryExists(a) && platform::directoryExists(b));
    EXPECT_EQ(c.rfind("/tmp/pf_", 0), 0u) << c;
    EXPECT_TRUE(platform::directoryExists(c));
    ::rmdir(c.c_str());
}

}  // namespace
