// The module as a host uses it, against a real console that misbehaves: killed or restarted in
// the middle of a scan, sending damaged frames, going silent, and a host whose callbacks throw
// or block, or that closes the device while frames arrive.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <regex>
#include <set>
#include <stdexcept>

#include "ConsoleProcess.h"
#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

namespace {

using namespace device;
using namespace std::chrono_literals;
using devtest::waitFor;
using Lines = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

// Frames as the host saw them, and what the host callback does with each.
class FrameLog {
public:
    // What the host callback does after it recorded a frame; it may throw or block.
    void setOnFrame(std::function<void(int frameId)> f) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_onFrame = std::move(f);
    }

    void add(int frameId) {
        std::function<void(int)> then;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_ids.push_back(frameId);
            then = m_onFrame;
        }
        if (then) {
            then(frameId);
        }
    }
    std::vector<int> ids() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids;
    }
    size_t size() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids.size();
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<int> m_ids;
    std::function<void(int)> m_onFrame;
};

class Faults : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        recorder = std::make_shared<devtest::Recorder>();
        frames = std::make_shared<FrameLog>();
    }
    void TearDown() override {
        device.reset();
        console.reset();
        std::filesystem::remove_all(annex);
    }

    // A console streaming small frames fast, without heartbeats, on `port` (0: a free one).
    void startConsole(uint16_t port = 0, const Lines& extra = {}) {
        Lines args = {"--heartbeat-ms", "0", "--fps", "200", "--points", "300"};
        args.insert(args.end(), extra.begin(), extra.end());
        console = std::make_unique<sdktest::ConsoleProcess>();
        ASSERT_TRUE(console->start(args, port));
        ::setenv(SDK_NV::wire::kEndpointEnv, console->endpoint().c_str(), 1);
    }
    // A device whose frames go to `frames`, brought up against the console.
    void connect() {
        device = std::make_unique<devtest::TestDevice>(recorder);
        std::shared_ptr<FrameLog> log = frames;
        device->setDeviceDataHandler([log](const std::shared_ptr<tagDeviceData>& d, const char*,
                                           int) { log->add(d->frameId); });
        ASSERT_EQ(device->init(), RESULT_SUCCESS);
    }
    // Switches the laser on and waits for `n` more frames.
    void scan(size_t n = 10) {
        const size_t before = frames->size();
        ASSERT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
        ASSERT_TRUE(waitFor([&] { return frames->size() >= before + n; }));
    }
    // Whether the reply `code` came (waits up to `ms`).
    bool replied(int code, int ms = 10000) {
        return waitFor([&] { return !recorder->replies(code).empty(); }, ms);
    }
    Lines described() const {
        Lines out;
        for (const devtest::Event& e : recorder->events()) {
            out.push_back(e.what + " " + std::to_string(e.a) + " " + std::to_string(e.b) + " " +
                          e.text);
        }
        return out;
    }

    std::string annex;
    std::shared_ptr<devtest::Recorder> recorder;
    std::shared_ptr<FrameLog> frames;
    std::unique_ptr<sdktest::ConsoleProcess> console;
    std::unique_ptr<devtest::TestDevice> device;
};

const std::string kTrackerGone = "state 4 0 TRK0001";
const std::string kScannerGone = "state 4 1 SCN0001";
const std::string kLinkGone = "reply -55 0 ";

// --- the console goes away ----------------------------------------------------------------------

// Every device is reported gone, trackers first, each with a log line, then the link.
TEST_F(Faults, AConsoleKilledDuringAScanReportsEveryDeviceThenTheLinkAndEndsTheTrigger) {
    ASSERT_NO_FATAL_FAILURE(
        startConsole(0, {"--setup", "device TRK0002 on kind=tracker errors=3"}));
    ASSERT_NO_FATAL_FAILURE(connect());
    int n = 0;
    std::shared_ptr<tagDeviceInfoList> list;
    ASSERT_EQ(device->getDeviceInfo(&n, &list), RESULT_SUCCESS);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(list->infos[1].serialText(), "SCN0001");
    EXPECT_EQ(list->infos[1].kind, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(list->infos[0].state, STATE_READY);
    EXPECT_EQ(list->infos[2].state, STATE_CAMERA_OPEN_FAILED);
    ASSERT_NO_FATAL_FAILURE(scan());
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
    const uint16_t port = devtest::freePort();
    ASSERT_NO_FATAL_FAILURE(startConsole(port));
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_NO_FATAL_FAILURE(scan());

    // Back on the same port without the host doing anything: the link comes up again by
    // itself and a new trigger streams.
    console->kill();
    ASSERT_TRUE(replied(REPLY_SDK_DISCONNECTED));
    recorder->clear();
    ASSERT_NO_FATAL_FAILURE(startConsole(port));
    ASSERT_TRUE(replied(REPLY_SDK_CONNECTED));
    EXPECT_TRUE(device->isConnected());
    ASSERT_NO_FATAL_FAILURE(scan());

    // The host closes the device, the console is restarted, and init brings it back.
    console->kill();
    ASSERT_TRUE(replied(REPLY_SDK_DISCONNECTED));
    EXPECT_EQ(device->clear(), RESULT_SUCCESS);
    ASSERT_NO_FATAL_FAILURE(startConsole(port));
    EXPECT_EQ(device->init(), RESULT_SUCCESS);
    EXPECT_TRUE(device->isConnected());
    frames->clear();
    ASSERT_NO_FATAL_FAILURE(scan());
    const std::vector<int> ids = frames->ids();
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
}

// --- a console that stops answering
// ----------------------------------------------------------------

TEST_F(Faults, ASilentConsoleIsFoundOutByTheKeepAliveAndTheLinkComesBackWhenItSpeaks) {
    ASSERT_NO_FATAL_FAILURE(startConsole());
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_NO_FATAL_FAILURE(scan());
    recorder->clear();
    // The socket stays open, but nothing comes: no frames, no answers, no heartbeats.
    ASSERT_TRUE(console->control("silent"));
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

    // It speaks again: the link comes back by itself and a new trigger streams.
    ASSERT_TRUE(console->control("silent off"));
    ASSERT_TRUE(replied(REPLY_SDK_CONNECTED));
    EXPECT_TRUE(device->isConnected());
    ASSERT_NO_FATAL_FAILURE(scan());
}

// --- damaged frames ------------------------------------------------------------------------------

TEST_F(Faults, DamagedFramesDuringAScanAreSkippedAndNothingAfterThemIsLost) {
    ASSERT_NO_FATAL_FAILURE(startConsole(0, {"--verbose"}));
    ASSERT_NO_FATAL_FAILURE(connect());
    testing::internal::CaptureStdout();
    ASSERT_NO_FATAL_FAILURE(scan());
    // Every kind of damage, several times while the frames stream (one oversized frame: it is
    // 64 MiB long on the link).
    for (const char* rule :
         {"fault corrupt every=7 what=markers", "fault corrupt 3 what=lines",
          "fault corrupt 3 what=normals", "fault truncate every=11", "fault oversize 1"}) {
        ASSERT_TRUE(console->control(rule));
    }
    const size_t from = frames->size();
    EXPECT_TRUE(waitFor([&] { return frames->size() >= from + 150; }, 20000));
    ASSERT_TRUE(console->control("fault off"));
    EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS);
    std::this_thread::sleep_for(200ms);  // what was under way arrives
    const std::string out = testing::internal::GetCapturedStdout();

    // The frames the console damaged, by its own account.
    std::set<int> damaged;
    const std::regex struck(
        R"(fault: (corrupt|truncate|oversize) a message of type 5 \(id (\d+)\))");
    for (const std::string& line : console->lines()) {
        std::smatch m;
        if (std::regex_search(line, m, struck)) {
            damaged.insert(std::stoi(m[2]));
        }
    }
    ASSERT_GE(damaged.size(), 10u);

    // Exactly the undamaged frames arrived, in order, each once.
    const std::vector<int> ids = frames->ids();
    ASSERT_FALSE(ids.empty());
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    std::vector<int> missing;
    for (int id = ids.front(); id <= ids.back(); ++id) {
        if (!std::binary_search(ids.begin(), ids.end(), id)) {
            missing.push_back(id);
        }
    }
    std::vector<int> damagedInRange;
    for (int id : damaged) {
        if (id > ids.front() && id < ids.back()) {
            damagedInRange.push_back(id);
        }
    }
    EXPECT_EQ(missing, damagedInRange);
    // One line each, and the link stayed up throughout.
    size_t dropped = 0;
    for (size_t at = out.find("[sdk_nv] dropped"); at != std::string::npos;
         at = out.find("[sdk_nv] dropped", at + 1)) {
        ++dropped;
    }
    EXPECT_EQ(dropped, damaged.size());
    EXPECT_TRUE(recorder->replies(REPLY_SDK_DISCONNECTED).empty());
    EXPECT_TRUE(device->isConnected());
}

// --- the host's callbacks
// -------------------------------------------------------------------------

TEST_F(Faults, HostCallbacksThatThrowOrBlockLeaveTheStreamGoing) {
    ASSERT_NO_FATAL_FAILURE(startConsole());
    ASSERT_NO_FATAL_FAILURE(connect());
    std::atomic<int> thrown{0};
    frames->setOnFrame([&](int id) {
        if (id % 2 == 0) {
            ++thrown;
            throw std::runtime_error("host failure");
        }
        if (id % 3 == 0) {
            throw 42;  // not even an exception class
        }
    });
    ASSERT_NO_FATAL_FAILURE(scan(60));
    EXPECT_GE(thrown.load(), 20);

    // A callback that blocks for longer than the link's keep-alive allows for silence: the
    // time spent in the host is not taken for a dead link, and the host thread is not held.
    std::atomic<bool> blocked{false};
    std::atomic<bool> release{false};
    frames->setOnFrame([&](int) {
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
    const size_t at = frames->size();
    release = true;
    EXPECT_TRUE(waitFor([&] { return frames->size() >= at + 50; }));
    EXPECT_TRUE(recorder->replies(REPLY_SDK_DISCONNECTED).empty());
    EXPECT_TRUE(device->isConnected());
    frames->setOnFrame(nullptr);
}

TEST_F(Faults, NoCallbackAfterClearOrDestructionWhileFramesArrive) {
    ASSERT_NO_FATAL_FAILURE(startConsole(0, {"--fps", "1000"}));
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        auto closed = std::make_shared<std::atomic<bool>>(false);
        auto late = std::make_shared<std::atomic<int>>(0);
        auto seen = std::make_shared<std::atomic<int>>(0);
        device = std::make_unique<devtest::TestDevice>(recorder);
        tagDeviceHandlers h = device->getHandlers();
        h.onDeviceData = [closed, late, seen](const std::shared_ptr<tagDeviceData>&, const char*,
                                              int) {
            ++*seen;
            if (closed->load()) {
                ++*late;
            }
        };
        h.onDeviceReply = [closed, late](const std::string&, emDeviceReply, const void*) {
            if (closed->load()) {
                ++*late;
            }
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
