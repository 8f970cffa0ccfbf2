// init starts the companion console when no device answers, and clear stops it (the console of
// an older install, by its own name, in CycleTest.cpp). clear ends every process with the
// console's name, so this runs alone (RUN_SERIAL): a console of another test running at the
// same time would be ended too.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

namespace {

using namespace device;

TEST(ConsoleLifecycle, InitStartsTheBuildsConsoleAndClearStopsIt) {
    CDeviceBase::setAnnexPath(L"");  // the build's annex folder, where the console lives
    const std::wstring annex = CDeviceBase::getAnnexPath();
    ASSERT_TRUE(platform::fileExists(
        platform::nativePath(platform::joinPath(annex, std::wstring(L"Lumora/lumora_console")))));
    const std::string endpoint = "127.0.0.1:" + std::to_string(devtest::freePort());
    ::setenv(SDK_NV::wire::kEndpointEnv, endpoint.c_str(), 1);
    devtest::useTestTimeScale();
    const std::vector<int> before = platform::findProcessesByName("lumora_console");

    devtest::TestDevice device(std::make_shared<devtest::Recorder>());
    ASSERT_EQ(device.init(), RESULT_SUCCESS);
    EXPECT_TRUE(device.isConnected());
    std::vector<int> started;
    for (int pid : platform::findProcessesByName("lumora_console")) {
        if (std::find(before.begin(), before.end(), pid) == before.end()) {
            started.push_back(pid);
        }
    }
    ASSERT_EQ(started.size(), 1u);
    EXPECT_EQ(device.clear(), RESULT_SUCCESS);
    EXPECT_FALSE(device.hasInit());
    EXPECT_EQ(platform::findProcessesByName("lumora_console"), std::vector<int>{});
    // A process that no longer shows its executable may still be releasing its memory (slow
    // under sanitizers); it must be gone soon after.
    EXPECT_TRUE(devtest::waitFor([&] { return !platform::processAlive(started[0]); }));
}

}  // namespace
