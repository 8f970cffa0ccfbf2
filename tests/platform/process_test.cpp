// Processes: starting one (arguments, working folder, PATH, time scale), finding and ending it
// by name, reaping only our own children, the child with captured output, module paths.
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

// Polls `condition` with unscaled sleeps for at most `limitMs`.
template <typename Condition>
bool waitFor(Condition condition, int64_t limitMs = 3000) {
    const int64_t end = platform::steadyMs() + limitMs;
    while (!condition()) {
        if (platform::steadyMs() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Ends a started child whatever the test's outcome.
struct ChildGuard {
    int pid = -1;
    ~ChildGuard() {
        if (pid > 0 && platform::processAlive(pid)) {
            ::kill(pid, SIGKILL);
            waitFor([&] { return !platform::processAlive(pid); });
        }
    }
};

bool contains(const std::vector<int>& v, int x) {
    return std::find(v.begin(), v.end(), x) != v.end();
}

// A copy of the helper program under a name of its own, so that other programs are not hit.
std::string copyOfChild(const TempDir& dir, const std::string& name) {
    const std::string exe = dir.file(name);
    fs::copy_file(PLATFORM_TEST_CHILD, exe);
    return exe;
}

// Runs the helper's "report" through startProcess; the lines are its working folder, its
// time scale and its arguments after the report file. Empty when it did not run.
std::vector<std::string> report(const std::string& program,
                                const std::vector<std::string>& args = {},
                                const std::string& workingDir = "") {
    TempDir dir;
    const std::string file = dir.file("report.txt");
    std::vector<std::string> all = {"report", file};
    all.insert(all.end(), args.begin(), args.end());
    ChildGuard child;
    child.pid = platform::startProcess(program, all, workingDir);
    std::vector<std::string> lines;
    if (child.pid > 0 && waitFor([&] { return !platform::processAlive(child.pid); })) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
    }
    return lines;
}

TEST(PlatformProcesses, StartedChildIsFoundByNameThenTerminatedAndReaped) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string name = "platform_child_" + std::to_string(::getpid());
    const std::string exe = copyOfChild(dir, name);

    ChildGuard child;
    child.pid = platform::startProcess(exe, {"sleep", "30"});
    ASSERT_GT(child.pid, 0);
    EXPECT_TRUE(platform::processAlive(child.pid));
    EXPECT_FALSE(platform::reapChild(child.pid));  // still running

    // The name is longer than the kernel's 15-character command name; ".exe" is ignored.
    EXPECT_TRUE(waitFor([&] { return contains(platform::findProcessesByName(name), child.pid); }));
    EXPECT_TRUE(contains(platform::findProcessesByName(name + ".exe"), child.pid));
    EXPECT_TRUE(contains(platform::findProcessesByName(exe), child.pid));
    EXPECT_FALSE(contains(platform::findProcessesByName(name.substr(0, 15)), child.pid));

    EXPECT_EQ(platform::terminateProcessesByName(name), 1);
    EXPECT_TRUE(waitFor([&] { return platform::reapChild(child.pid); }));
    EXPECT_FALSE(platform::processAlive(child.pid));
    EXPECT_TRUE(platform::findProcessesByName(name).empty());
    EXPECT_EQ(platform::terminateProcessesByName(name), 0);

    // Queries of nothing find nothing.
    EXPECT_FALSE(platform::processAlive(-1) || platform::processAlive(0));
    EXPECT_TRUE(platform::processAlive(platform::currentProcessId()));
    EXPECT_TRUE(platform::findProcessesByName("").empty());
}

// Children this process forked itself: a zombie is never found by name, and reaping leaves
// it (and its exit status) to its parent.
TEST(PlatformProcesses, ForeignChildrenAreNeitherFoundAsZombiesNorReaped) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    // A short name: the kernel's command name alone identifies the ended child.
    const std::string name = "pfz" + std::to_string(::getpid() % 100000);
    const std::string exe = copyOfChild(dir, name);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(exe.c_str(), name.c_str(), "sleep", "0", static_cast<char*>(nullptr));
        ::_exit(7);
    }
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(waitFor([&] { return !platform::processAlive(pid); }));
    EXPECT_FALSE(contains(platform::findProcessesByName(name), pid));
    EXPECT_EQ(platform::terminateProcessesByName(name), 0);
    platform::reapChildren();
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(PlatformProcesses, ChildGetsArgumentsWorkingFolderAndPathLookup) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    std::vector<std::string> lines = report(PLATFORM_TEST_CHILD, {"two words", ""}, dir.path());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(fs::canonical(lines[0]), fs::canonical(dir.path()));
    EXPECT_EQ(lines[2], "two words");
    EXPECT_EQ(lines[3], "");

    // By default the child runs in its program's folder.
    const fs::path child(PLATFORM_TEST_CHILD);
    lines = report(PLATFORM_TEST_CHILD);
    ASSERT_GE(lines.size(), 1u);
    EXPECT_EQ(fs::canonical(lines[0]), fs::canonical(child.parent_path()));

    // A bare program name is looked up in PATH.
    const char* oldPath = std::getenv("PATH");
    const std::string saved = oldPath != nullptr ? oldPath : "";
    ::setenv("PATH", (dir.path() + ":" + child.parent_path().string() + ":" + saved).c_str(), 1);
    lines = report(child.filename().string(), {"x"});
    ::setenv("PATH", saved.c_str(), 1);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], "x");

    // A missing program or folder is not started.
    for (const char* missing :
         {"/nonexistent/platform_no_such_program", "platform_no_such_program_in_path", ""}) {
        EXPECT_EQ(platform::startProcess(missing), -1) << missing;
    }
    EXPECT_EQ(platform::startProcess(PLATFORM_TEST_CHILD, {}, dir.file("missing_folder")), -1);
}

TEST(PlatformProcesses, ChildReadsTheTimeScaleFromTheEnvironment) {
    struct Case {
        const char* value;
        double expected;
    };
    for (const Case& c : {Case{"0.01", 0.01}, Case{" 2.5 ", 2.5}, Case{"fast", 1.0},
                          Case{"-1", 1.0}, Case{"0", 1.0}, Case{"inf", 1.0}, Case{"1e-3x", 1.0}}) {
        ::setenv(platform::kTimeScaleEnv, c.value, 1);
        const std::vector<std::string> lines = report(PLATFORM_TEST_CHILD);
        ::unsetenv(platform::kTimeScaleEnv);
        ASSERT_GE(lines.size(), 2u) << c.value;
        EXPECT_DOUBLE_EQ(std::stod(lines[1]), c.expected) << "for \"" << c.value << "\"";
    }
}

// The child with captured output: lines of standard output and error in order, the last one
// without its line end too; a running child is ended by stop, a missing program not started.
TEST(PlatformChildProcess, CapturesEveryLineAndEndsOnlyItsChild) {
    std::mutex m;
    std::vector<std::string> lines;
    platform::ChildProcess echo;
    std::string error;
    ASSERT_TRUE(echo.start(
        PLATFORM_TEST_CHILD, {"echo", "to out", "to err"},
        [&](const std::string& l) {
            std::lock_guard<std::mutex> lock(m);
            lines.push_back(l);
        },
        error))
        << error;
    EXPECT_GT(echo.pid(), 0);
    EXPECT_FALSE(echo.start(PLATFORM_TEST_CHILD, {}, nullptr, error));  // started once only
    EXPECT_TRUE(waitFor([&] { return !echo.alive(); }, 5000));
    EXPECT_EQ(echo.pid(), -1);
    echo.stop();  // joins the reader: every line is in
    EXPECT_EQ(lines, (std::vector<std::string>{"to out", "to err"}));

    platform::ChildProcess sleeper;
    ASSERT_TRUE(sleeper.start(PLATFORM_TEST_CHILD, {"sleep", "30"}, nullptr, error)) << error;
    const int pid = sleeper.pid();
    EXPECT_TRUE(sleeper.alive());
    const auto t0 = std::chrono::steady_clock::now();
    sleeper.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    EXPECT_FALSE(sleeper.alive());
    EXPECT_FALSE(platform::processAlive(pid));

    platform::ChildProcess missing;
    error.clear();
    EXPECT_FALSE(missing.start("/nonexistent/program", {}, nullptr, error));
    EXPECT_NE(error.find("/nonexistent/program"), std::string::npos) << error;
    EXPECT_FALSE(missing.alive());
}

TEST(PlatformModules, PathOfAnAddressNamesItsModule) {
    const void* own = reinterpret_cast<const void*>(&contains);
    const std::string path = platform::modulePathOf(own);
    EXPECT_EQ(fs::path(path), fs::canonical("/proc/self/exe"));
    EXPECT_EQ(platform::moduleDirOf(own), fs::path(path).parent_path().string());
    // ::iconv_open lives in the C library, a module of its own.
    void* symbol = ::dlsym(RTLD_DEFAULT, "iconv_open");
    ASSERT_NE(symbol, nullptr);
    const std::string libc = platform::modulePathOf(symbol);
    EXPECT_NE(libc.find("libc"), std::string::npos) << libc;
    EXPECT_EQ(libc.front(), '/');
    EXPECT_EQ(platform::modulePathOf(nullptr), "");
    EXPECT_EQ(platform::moduleDirOf(nullptr), "");
    EXPECT_STREQ(platform::versionText(), PLATFORM_EXPECTED_VERSION);
}

}  // namespace
