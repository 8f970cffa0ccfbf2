// init/clear cycles leave nothing behind: no thread, no descriptor, no child process and no
// memory, counted from /proc. clear ends every process with the console's name, so these run
// alone (RUN_SERIAL).
#include <gtest/gtest.h>

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers keep freed memory aside; LeakSanitizer checks the heap at exit instead.
constexpr bool kCountMemory = false;
#else
constexpr bool kCountMemory = true;
#endif

namespace {

using namespace device;
using devtest::residentKb;

int entries(const char* folder) {
    int n = 0;
    if (DIR* d = ::opendir(folder)) {
        while (const dirent* e = ::readdir(d)) {
            n += e->d_name[0] != '.';
        }
        ::closedir(d);
    }
    return n;
}

// Processes whose parent is this one, ended ones not yet reaped (zombies) included; their
// pids and states go to `seen` when given.
int children(std::string* seen = nullptr) {
    int n = 0;
    const std::string me = std::to_string(::getpid());
    for (const auto& p : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(p.path() / "stat");
        std::string stat;
        if (!std::getline(in, stat)) {
            continue;
        }
        // pid (name) state ppid ...: the name may hold blanks, so read after its ')'.
        std::istringstream rest(stat.substr(stat.rfind(')') + 1));
        std::string state, ppid;
        rest >> state >> ppid;
        if (ppid == me) {
            ++n;
            if (seen != nullptr) {
                *seen += p.path().filename().string() + " " + stat.substr(0, stat.rfind(')') + 1) +
                         " " + state + "; ";
            }
        }
    }
    return n;
}

TEST(FaultCycles, AHundredInitClearCyclesLeaveNoThreadDescriptorChildOrMemoryBehind) {
    const std::string annex = devtest::makeTempAnnex();
    sdktest::ConsoleProcess console;
    ASSERT_TRUE(console.start({"--heartbeat-ms", "0"}));
    ::setenv(SDK_NV::wire::kEndpointEnv, console.endpoint().c_str(), 1);

    auto recorder = std::make_shared<devtest::Recorder>();
    {
        devtest::TestDevice device(recorder);
        const auto cycle = [&] {
            ASSERT_EQ(device.init(), RESULT_SUCCESS);
            ASSERT_TRUE(device.isConnected());
            ASSERT_EQ(device.clear(), RESULT_SUCCESS);
        };
        for (int i = 0; i < 5; ++i) {
            ASSERT_NO_FATAL_FAILURE(cycle());
        }
        const int threads = entries("/proc/self/task");
        const int fds = entries("/proc/self/fd");
        const int kids = children();
        const long rss = residentKb();
        for (int i = 0; i < 100; ++i) {
            SCOPED_TRACE(i);
            ASSERT_NO_FATAL_FAILURE(cycle());
        }
        EXPECT_EQ(entries("/proc/self/task"), threads);
        EXPECT_EQ(entries("/proc/self/fd"), fds);
        EXPECT_EQ(children(), kids);
        if (kCountMemory) {
            EXPECT_LT(residentKb() - rss, 1024) << "kB grown over 100 cycles, from " << rss;
        }
        // Every cycle reported its connection once, and its end once.
        EXPECT_EQ(recorder->replies(REPLY_SDK_CONNECTED).size(), 105u);
        EXPECT_EQ(recorder->replies(REPLY_SDK_DISCONNECTED).size(), 105u);
    }
    std::filesystem::remove_all(annex);
}

// init starts the console when none answers and clear ends it: nothing of it is left, not
// even an unreaped child.
TEST(FaultCycles, ConsolesThatInitStartsAreEndedAndReapedByClear) {
    // The console must come up within init's 30 polls: a scale that leaves it 1.5 s on a busy
    // machine, unless the run chose one.
    std::string scale;
    if (!platform::getEnvironment(platform::kTimeScaleEnv, scale)) {
        ::setenv(platform::kTimeScaleEnv, "0.05", 1);
        platform::setTimeScale(0.05);
    }
    const std::string annex = devtest::makeTempAnnex();
    std::filesystem::create_directories(annex + "/Lumora");
    std::filesystem::copy_file(LUMORA_CONSOLE_PATH, annex + "/Lumora/zqWaymarkConsole");
    const std::string endpoint = "127.0.0.1:" + std::to_string(devtest::freePort());
    ::setenv(SDK_NV::wire::kEndpointEnv, endpoint.c_str(), 1);
    {
        devtest::TestDevice device(std::make_shared<devtest::Recorder>());
        // Counted after the first cycle: a sanitizer runtime starts a thread of its own once
        // the process has made its first one.
        int threads = 0;
        int fds = 0;
        for (int i = 0; i < 5; ++i) {
            SCOPED_TRACE(i);
            if (i == 1) {
                threads = entries("/proc/self/task");
                fds = entries("/proc/self/fd");
            }
            ASSERT_EQ(device.init(), RESULT_SUCCESS);
            std::string started;
            EXPECT_EQ(children(&started), 1) << started;
            ASSERT_EQ(device.clear(), RESULT_SUCCESS);
            std::string seen;
            EXPECT_EQ(children(&seen), 0) << seen;
        }
        EXPECT_EQ(entries("/proc/self/task"), threads);
        EXPECT_EQ(entries("/proc/self/fd"), fds);
    }
    std::filesystem::remove_all(annex);
}

}  // namespace
