// init starts the companion console when no device answers, and clear stops it. clear ends
// every process with the console's name, so these tests run alone (RUN_SERIAL): a console of
// another test running at the same time would be ended too.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

#ifndef LUMORA_CONSOLE_PATH
#error "LUMORA_CONSOLE_PATH names the console program"
#endif

namespace {

using namespace device;

// Starts a device against a private port from `annex`, checks that init started a process
// called `name` and that clear ended it.
void startAndStop(const std::wstring& annex, const std::string& name) {
    const std::string endpoint = "127.0.0.1:" + std::to_string(devtest::freePort());
    ::setenv(SDK_NV::wire::kEndpointEnv, endpoint.c_str(), 1);
    devtest::useTestTimeScale();
    CDeviceBase::setAnnexPath(annex);
    const std::vector<int> before = platform::findProcessesByName(name);

    auto recorder = std::make_shared<devtest::Recorder>();
    devtest::TestDevice device(recorder);
    ASSERT_EQ(device.init(), RESULT_SUCCESS);
    EXPECT_TRUE(device.isConnected());
    std::vector<int> started;
    for (int pid : platform::findProcessesByName(name)) {
        if (std::find(before.begin(), before.end(), pid) == before.end()) {
            started.push_back(pid);
        }
    }
    ASSERT_EQ(started.size(), 1u);

    EXPECT_EQ(device.clear(), RESULT_SUCCESS);
    EXPECT_FALSE(device.hasInit());
    EXPECT_EQ(platform::findProcessesByName(name), std::vector<int>{});
    // A process that no longer shows its executable may still be releasing its memory (slow
    // under sanitizers); it must be gone soon after.
    EXPECT_TRUE(devtest::waitFor([&] { return !platform::processAlive(started[0]); }))
        << name << " left behind";
}

TEST(ConsoleLifecycle, InitStartsTheBuildsConsoleAndClearStopsIt) {
    CDeviceBase::setAnnexPath(L"");  // the build's annex folder, where the console lives
    const std::wstring annex = CDeviceBase::getAnnexPath();
    ASSERT_TRUE(platform::fileExists(
        platform::nativePath(platform::joinPath(annex, std::wstring(L"Lumora/lumora_console")))));
    startAndStop(annex, "lumora_console");
}

TEST(ConsoleLifecycle, OlderInstallIsStartedAndStoppedByItsOwnName) {
    const std::string annex = devtest::makeTempAnnex();
    std::filesystem::create_directories(annex + "/Lumora");
    std::filesystem::copy_file(LUMORA_CONSOLE_PATH, annex + "/Lumora/zqWaymarkConsole");
    startAndStop(platform::widePath(annex), "zqWaymarkConsole");
    std::filesystem::remove_all(annex);
}

}  // namespace
