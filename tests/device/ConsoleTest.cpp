// The module as a host uses it, against a real lumora_console on a private port. The console
// is steered through its control lines (standard input).
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <numeric>
#include <thread>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

#ifndef LUMORA_CONSOLE_PATH
#error "LUMORA_CONSOLE_PATH names the console program"
#endif

namespace {

using namespace device;
using devtest::Event;

constexpr int kWaitMs = 10000;

template <class Pred>
bool waitFor(Pred done) {
    for (int i = 0; i < kWaitMs / 5; ++i) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

// Points LUMORA_ENDPOINT at a free loopback port and shortens the device protocol's waits (in
// this process and in every console it starts).
void usePrivateEndpoint() {
    const std::string endpoint = "127.0.0.1:" + std::to_string(devtest::freePort());
    ::setenv(SDK_NV::wire::kEndpointEnv, endpoint.c_str(), 1);
    devtest::useTestTimeScale();
}

// A console started by the test, with a pipe to its control lines.
class ConsoleProcess {
public:
    explicit ConsoleProcess(const std::string& options = {}) {
        const std::string command =
            std::string("exec '") + LUMORA_CONSOLE_PATH + "' --heartbeat-ms 600000 " + options;
        m_pipe = ::popen(command.c_str(), "w");
    }
    ~ConsoleProcess() {
        if (m_pipe != nullptr) {
            control("quit");
            ::pclose(m_pipe);
        }
    }
    bool running() const { return m_pipe != nullptr; }
    void control(const std::string& line) {
        std::fputs((line + "\n").c_str(), m_pipe);
        std::fflush(m_pipe);
    }

private:
    FILE* m_pipe = nullptr;
};

class WithConsole : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();  // no companion programs: init starts nothing
        usePrivateEndpoint();
    }
    void TearDown() override {
        device.reset();
        console.reset();
        std::filesystem::remove_all(annex);
    }
    // Starts the console and brings the device up against it.
    void connect(const std::string& options = {}) {
        console = std::make_unique<ConsoleProcess>(options);
        ASSERT_TRUE(console->running());
        recorder = std::make_shared<devtest::Recorder>();
        device = std::make_unique<devtest::TestDevice>(recorder);
        ASSERT_EQ(device->init(), RESULT_SUCCESS);
        // The console announces its devices on connection, and every state-0 answer counts as
        // the last command's success: wait until a marker sent now comes back, so that the
        // arrivals and the answers to the connection's own commands are behind us.
        console->control("wifi connected-mark");
        ASSERT_TRUE(waitFor([&] { return hasReply(REPLY_WIFI_STATE, "connected-mark"); }));
    }
    bool hasReply(int code, const std::string& payload = {}) const {
        for (const Event& e : recorder->of("reply")) {
            if (e.a == code && (payload.empty() || e.payloadText == payload)) {
                return true;
            }
        }
        return false;
    }

    std::string annex;
    std::unique_ptr<ConsoleProcess> console;
    std::shared_ptr<devtest::Recorder> recorder;
    std::unique_ptr<devtest::TestDevice> device;
};

// --- lifecycle --------------------------------------------------------------------------------

TEST_F(WithConsole, InitTwiceKeepsTheConnection) {
    connect();
    EXPECT_EQ(device->init(), RESULT_SUCCESS);
    EXPECT_TRUE(device->isConnected());
    int connections = 0;
    for (const Event& e : recorder->of("reply")) {
        connections += e.a == REPLY_SDK_CONNECTED ? 1 : 0;
    }
    EXPECT_EQ(connections, 1);
}

// --- laser ------------------------------------------------------------------------------------

TEST_F(WithConsole, LaserOnTwiceGives8) {
    connect();
    EXPECT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
    EXPECT_EQ(device->controlLaserOn(), RESULT_BUSY_SCANNING);
    EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS);
    EXPECT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
    device->controlLaserOff();
}

TEST_F(WithConsole, TriggerTimeoutGives7) {
    connect();
    console->control("answer setTrigger 5");
    // The control line and the command travel on different paths: retry until the console
    // has taken the line.
    emDeviceResult r = device->controlLaserOn();
    for (int i = 0; i < 20 && r != RESULT_TRIGGER_TIMEOUT; ++i) {
        device->controlLaserOff();
        r = device->controlLaserOn();
    }
    EXPECT_EQ(r, RESULT_TRIGGER_TIMEOUT);
}

TEST_F(WithConsole, RejectedTriggerGives12) {
    connect();
    // A trigger naming a device that is not there is refused (state 3).
    ASSERT_EQ(device->setWorkingDevice({"NO-SUCH-DEVICE"}), RESULT_SUCCESS);
    EXPECT_EQ(device->controlLaserOn(), RESULT_TRIGGER_REJECTED);
    EXPECT_TRUE(device->isTriggerActive());  // a rejection does not end the busy state
    device->controlLaserOff();
}

// --- events -----------------------------------------------------------------------------------

TEST_F(WithConsole, Model3TrackerGetsHighFrameRate5BeforeItsState) {
    connect("--tracker-model 3 --tracker-id TRK-M3");
    ASSERT_TRUE(waitFor([&] { return !recorder->of("highframerate").empty(); }));
    ASSERT_TRUE(waitFor([&] { return recorder->of("state").size() >= 2; }));
    const std::vector<Event> events = recorder->events();
    size_t rate = events.size();
    size_t state = events.size();
    for (size_t i = 0; i < events.size(); ++i) {
        if (events[i].what == "highframerate" && rate == events.size()) {
            rate = i;
            EXPECT_EQ(events[i].a, 5);
        }
        if (events[i].what == "state" && events[i].text == "TRK-M3") {
            state = i;
        }
    }
    ASSERT_LT(state, events.size());
    EXPECT_LT(rate, state);
    EXPECT_EQ(events[state].a, STATE_READY);
    EXPECT_EQ(events[state].values[0], 3.0);  // model
}

TEST_F(WithConsole, ButtonWifiAndDropReachTheHost) {
    connect();
    recorder->clear();
    console->control("button 51 2");
    console->control("wifi wpa_state=ASSOCIATED");
    ASSERT_TRUE(waitFor([&] { return hasReply(REPLY_WIFI_STATE); }));
    const auto buttons = recorder->of("button");
    ASSERT_EQ(buttons.size(), 1u);
    EXPECT_EQ(buttons[0].a, BUTTON_FIRST);
    EXPECT_EQ(buttons[0].b, BUTTON_ACTION_LONG_PRESS);
    EXPECT_TRUE(hasReply(REPLY_WIFI_STATE, "network card consulted with router "));

    recorder->clear();
    console->control("drop");
    ASSERT_TRUE(waitFor([&] { return hasReply(REPLY_SDK_DISCONNECTED); }));
    const auto events = recorder->events();
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events[0].a, STATE_DISCONNECTED);
    EXPECT_EQ(events[0].b, DEVICE_TYPE_TRACKER);
    EXPECT_EQ(events[1].a, STATE_DISCONNECTED);
    EXPECT_EQ(events[1].b, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(events[2].a, REPLY_SDK_DISCONNECTED);
}

TEST_F(WithConsole, HeartbeatsKeepARunningMeanOfTheLast120) {
    connect("--tracker-id TRK-H");
    resetThermalRecords();
    for (int i = 0; i < 121; ++i) {
        console->control("heartbeat");
    }
    std::vector<float> samples;
    const auto trackerBeats = [&] {
        samples.clear();
        for (const Event& e : recorder->of("reply")) {
            if (e.a == REPLY_THERMAL_BALANCE && e.text == "TRK-H") {
                samples.push_back(e.thermal.newest);
            }
        }
        return samples.size() >= 121;
    };
    ASSERT_TRUE(waitFor(trackerBeats));
    const tagDeviceThermalBalance last = getThermalRecords().at("TRK-H");
    ASSERT_EQ(last.samples.size(), 120u);
    const double exact = std::accumulate(samples.end() - 120, samples.end(), 0.0) / 120.0;
    EXPECT_NEAR(last.mean, exact, 1e-3);
    EXPECT_EQ(last.oldest, samples[samples.size() - 120]);
}

// --- calibration ------------------------------------------------------------------------------

TEST_F(WithConsole, GrabOneFrameStates) {
    connect();
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR), RESULT_SUCCESS);
    ASSERT_EQ(device->setStartCalibration(), RESULT_SUCCESS);
    EXPECT_EQ(device->setGrabOneFrame(CALIBRA_POSE_LEVEL), RESULT_SUCCESS);
    // The grab's calibration data follows its answer.
    EXPECT_TRUE(waitFor([&] { return recorder->of("fastcali").size() >= 2; }));

    console->control("answer setGrabOneFrame -1 1");
    emDeviceResult r = RESULT_SUCCESS;
    ASSERT_TRUE(waitFor([&] { return (r = device->setGrabOneFrame(CALIBRA_POSE_LEVEL)) != 0; }));
    EXPECT_EQ(r, RESULT_FAILED);
    console->control("answer setGrabOneFrame 3 1");
    ASSERT_TRUE(waitFor([&] { return (r = device->setGrabOneFrame(CALIBRA_POSE_LEVEL)) != 0; }));
    EXPECT_EQ(r, RESULT_GRAB_FRAME_FAILED);
}

}  // namespace
