// The module as a host uses it, against a real console that misbehaves: killed or restarted in
// the middle of a scan, sending damaged frames, going silent, and a host whose callbacks throw
// or block, or that closes the device while frames arrive.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <set>
#include <stdexcept>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"

namespace {

using namespace device;
using namespace devtest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Faults = WithConsole;

std::vector<int> frameIds(const std::vector<Frame>& frames) {
    std::vector<int> ids;
    for (const Frame& f : frames) {
        ids.push_back(f->frameId);
    }
    return ids;
}

const std::string kTrackerGone = "state 4 0 TRK0001";
const std::string kScannerGone = "state 4 1 SCN0001";
const std::string kLinkGone = "reply -55 0 ";

// Every device is reported gone, trackers first, each with a log line, then the link.
TEST_F(Faults, AConsoleKilledDuringAScanReportsEveryDeviceThenTheLinkAndEndsTheTrigger) {
    ASSERT_NO_FATAL_FAILURE(connect({"--setup", "device TRK0002 on kind=tracker errors=3"}));
    int n = 0;
    std::shared_ptr<tagDeviceInfoList> list;
    ASSERT_EQ(device->getDeviceInfo(&n, &list), RESULT_SUCCESS);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(list->infos[1].serialText(), "SCN0001");
    EXPECT_EQ(list->infos[1].kind, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(list->infos[0].state, STATE_READY);
    EXPECT_EQ(list->infos[2].state, STATE_CAMERA_OPEN_FAILED);
    scan(10, true);
    recorder->clear();
    testing::internal::CaptureStdout();
    console->kill();
    const bool reported = replied(REPLY_SDK_DISCONNECTED);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(reported);
    EXPECT_NE(out.find("disconnect 1533\ndisconnect 1533\ndisconnect 1541\n"), std::string::npos)
        << out;
    EXPECT_EQ(described(), (Lines{kTrackerGone, "state 4 0 TRK0002", kScannerGone, kLinkGone}));
    EXPECT_FALSE(device->isConnected());
    // The devices stream no more: the laser is off as far as the host is concerned, and a new
    // trigger is refused while nothing is connected.
    EXPECT_FALSE(device->isTriggerActive());
    EXPECT_EQ(device->controlLaserOn(), RESULT_SEND_REFUSED);
    const size_t seen = recorder->events().size();
    EXPECT_EQ(device->clear(), RESULT_SUCCESS);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(recorder->events().size(), seen);  // nothing more after the link was reported lost
}

TEST_F(Faults, ARestartedConsoleIsFoundAgainAndAnotherInitResumesTheScan) {
    const uint16_t port = freePort();
    ASSERT_NO_FATAL_FAILURE(startConsole({}, port));
    device = std::make_unique<TestDevice>(recorder);
    ASSERT_EQ(device->init(), RESULT_SUCCESS);
    scan(10, true);
    // Back on the same port without the host doing anything: the link comes up again by
    // itself and a new trigger streams.
    console->kill();
    ASSERT_TRUE(replied(REPLY_SDK_DISCONNECTED));
    recorder->clear();
    ASSERT_NO_FATAL_FAILURE(startConsole({}, port));
    ASSERT_TRUE(replied(REPLY_SDK_CONNECTED));
    EXPECT_TRUE(device->isConnected());
    scan(10, true);
    // The host closes the device, the console is restarted, and init brings it back.
    console->kill();
    ASSERT_TRUE(replied(REPLY_SDK_DISCONNECTED));
    EXPECT_EQ(device->clear(), RESULT_SUCCESS);
    ASSERT_NO_FATAL_FAILURE(startConsole({}, port));
    EXPECT_EQ(device->init(), RESULT_SUCCESS);
    EXPECT_TRUE(device->isConnected());
    const std::vector<int> ids = frameIds(scan(10, true));
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
}

// A console that stops answering: the socket stays open, but nothing comes (no frames, no
// answers, no heartbeats) until it speaks again.
TEST_F(Faults, ASilentConsoleIsFoundOutByTheKeepAliveAndTheLinkComesBackWhenItSpeaks) {
    ASSERT_NO_FATAL_FAILURE(connect());
    scan(10, true);
    recorder->clear();
    control("silent");
    ASSERT_TRUE(console->saw("silent"));
    const auto start = Clock::now();
    ASSERT_TRUE(replied(REPLY_SDK_DISCONNECTED, 10000));
    const auto detected = Clock::now() - start;
    // 3 s, which the time scale of the tests does not take below 1.5 s.
    const auto span = std::max<std::chrono::nanoseconds>(
        platform::scaledDuration(std::chrono::milliseconds(3000)), 1500ms);
    EXPECT_GE(detected, span - 100ms);
    EXPECT_LT(detected, span + 1000ms);
    EXPECT_EQ(described(), (Lines{kTrackerGone, kScannerGone, kLinkGone}));
    EXPECT_FALSE(device->isConnected());
    EXPECT_FALSE(device->isTriggerActive());
    // While it stays silent the host hears nothing more: no connection that comes and goes.
    std::this_thread::sleep_for(span + 500ms);
    EXPECT_EQ(recorder->events().size(), 3u);
    control("silent off");
    ASSERT_TRUE(replied(REPLY_SDK_CONNECTED));
    EXPECT_TRUE(device->isConnected());
    scan(10, true);
}

// Every kind of damage in turn while the frames stream (one rule of a kind at a time: each is
// given once the console struck the frames of the one before; one oversized frame, which is
// 64 MiB long on the link), and a damaged heartbeat: exactly the undamaged frames arrive, in
// order, each once, with one log line of its kind per dropped message, and the link stays up.
TEST_F(Faults, DamagedFramesDuringAScanAreSkippedAndNothingAfterThemIsLost) {
    ASSERT_NO_FATAL_FAILURE(connect({"--verbose"}));
    testing::internal::CaptureStdout();
    scan(10, true);
    const std::regex struck(
        R"(fault: (corrupt|truncate|oversize) a message of type (\d) \(id (\d+)\))");
    std::set<int> damaged;  // the frames the console damaged, by its own account
    const auto strikes = [&] {
        damaged.clear();
        int n = 0;
        for (const std::string& line : console->lines()) {
            std::smatch m;
            if (std::regex_search(line, m, struck)) {
                ++n;
                if (m[2] == "5") {
                    damaged.insert(std::stoi(m[3]));
                }
            }
        }
        return n;
    };
    int expected = 0;
    for (const auto& [rule, times] :
         std::vector<std::pair<std::string, int>>{{"fault corrupt 3 what=markers", 3},
                                                  {"fault corrupt 3 what=lines", 3},
                                                  {"fault corrupt 3 what=normals", 3},
                                                  {"fault truncate 3", 3},
                                                  {"fault oversize 1", 1},
                                                  {"fault truncate 1 on=receipt", 0},
                                                  {"heartbeat", 1}}) {
        control(rule);
        expected += times;
        ASSERT_TRUE(waitFor([&] { return strikes() >= expected; })) << rule;
    }
    const std::vector<int> ids = frameIds(scan(50));
    std::this_thread::sleep_for(200ms);  // what was under way arrives
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(strikes(), expected);
    ASSERT_EQ(damaged.size(), 13u);
    const std::vector<int> all = frameIds(recorder->frames());
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    std::set<int> missing;
    for (int id = all.front(); id <= all.back(); ++id) {
        if (!std::binary_search(all.begin(), all.end(), id)) {
            missing.insert(id);
        }
    }
    EXPECT_EQ(missing, damaged);
    const auto count = [&](const std::string& what) {
        size_t n = 0;
        for (size_t at = out.find(what); at != std::string::npos; at = out.find(what, at + 1)) {
            ++n;
        }
        return n;
    };
    EXPECT_EQ(count("[sdk_nv] dropped malformed frame"), 13u) << out;  // and the heartbeat
    EXPECT_EQ(count("[sdk_nv] dropped oversized frame"), 1u) << out;
    EXPECT_TRUE(recorder->replies(REPLY_SDK_DISCONNECTED).empty());
    EXPECT_TRUE(device->isConnected());
    EXPECT_FALSE(ids.empty());
}

TEST_F(Faults, HostCallbacksThatThrowOrBlockLeaveTheStreamGoing) {
    ASSERT_NO_FATAL_FAILURE(connect());
    std::atomic<int> thrown{0};
    recorder->setOnFrame([&](const tagDeviceData& d) {
        if (d.frameId % 2 == 0) {
            ++thrown;
            throw std::runtime_error("host failure");
        }
        if (d.frameId % 3 == 0) {
            throw 42;  // not even an exception class
        }
    });
    scan(60, true);
    EXPECT_GE(thrown.load(), 20);

    // A callback that blocks for longer than the link's keep-alive allows for silence: the
    // time spent in the host is not taken for a dead link, and the host thread is not held.
    std::atomic<bool> blocked{false};
    std::atomic<bool> release{false};
    recorder->setOnFrame([&](const tagDeviceData&) {
        if (!blocked.exchange(true)) {
            while (!release.load()) {
                std::this_thread::sleep_for(5ms);
            }
        }
    });
    ASSERT_TRUE(waitFor([&] { return blocked.load(); }));
    const auto start = Clock::now();
    int count = 0;
    std::shared_ptr<tagDeviceInfoList> list;
    EXPECT_EQ(device->getDeviceInfo(&count, &list), RESULT_SUCCESS);
    EXPECT_LT(Clock::now() - start, 1s);
    std::this_thread::sleep_for(2500ms);
    const size_t at = recorder->frames().size();
    release = true;
    EXPECT_TRUE(waitFor([&] { return recorder->frames().size() >= at + 50; }));
    EXPECT_TRUE(recorder->replies(REPLY_SDK_DISCONNECTED).empty());
    EXPECT_TRUE(device->isConnected());
    recorder->setOnFrame(nullptr);
}

TEST_F(Faults, NoCallbackAfterClearOrDestructionWhileFramesArrive) {
    ASSERT_NO_FATAL_FAILURE(startConsole({"--fps", "1000"}));
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        auto closed = std::make_shared<std::atomic<bool>>(false);
        auto late = std::make_shared<std::atomic<int>>(0);
        auto seen = std::make_shared<std::atomic<int>>(0);
        device = std::make_unique<TestDevice>(recorder);
        tagDeviceHandlers h = device->getHandlers();
        h.onDeviceData = [closed, late, seen](const Frame&, const char*, int) {
            ++*seen;
            *late += closed->load() ? 1 : 0;
        };
        h.onDeviceReply = [closed, late](const std::string&, emDeviceReply, const void*) {
            *late += closed->load() ? 1 : 0;
        };
        device->setHandlers(h);
        ASSERT_EQ(device->init(), RESULT_SUCCESS);
        ASSERT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
        ASSERT_TRUE(waitFor([&] { return seen->load() >= 20; }));
        if (round % 2 == 0) {
            EXPECT_EQ(device->clear(), RESULT_SUCCESS);
            closed->store(true);
            std::this_thread::sleep_for(50ms);
            device.reset();
        } else {
            device.reset();
            closed->store(true);
            std::this_thread::sleep_for(50ms);
        }
        EXPECT_EQ(late->load(), 0);
    }
}

}  // namespace
