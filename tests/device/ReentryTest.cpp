// Host handlers that call the module back, against a real lumora_console: the data handler calls
// every operation that touches the scan state on every frame of a scan, a state handler and a
// reply handler once each in between; nothing hangs, frames keep coming and each frame shows
// what the last handler before it left. Also the dynamic build's marker counts and the trigger's
// verdict among the answers of other commands.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "ConsoleProcess.h"
#include "DeviceTestSupport.h"
#include "device/CascadeFile.h"
#include "platform/Platform.h"
#include "sdk/Records.h"
#include "sdk/Wire.h"

namespace {

using namespace device;
using devtest::waitFor;

// The two operations of the SDK side that a host reaches as well.
class ReentryDevice : public devtest::TestDevice {
public:
    using CPathfinder::ScanInThreePointTrack;
    using CPathfinder::SendMatrix;
    using devtest::TestDevice::TestDevice;
};

// Translations far outside the scene (mm): a pose re-expressed with one of them shows which.
constexpr double kFar = 1e5;
enum class Seen { Raw, Cascade, Super };

Seen seenIn(const tagDeviceData& d) {
    return d.translation[0] < -kFar / 2   ? Seen::Cascade
           : d.translation[2] < -kFar / 2 ? Seen::Super
                                          : Seen::Raw;
}

std::vector<double> translation(double x, double y, double z) {
    return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1};
}

class Reentry : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        cascade = annex + "/cascade.bin";
        std::vector<TransformTrackingMatrix> records(2);
        for (size_t i = 0; i < 2; ++i) {
            records[i].id = "TRK000" + std::to_string(i + 1);
            const std::vector<double> m = translation(kFar, 0, 0);
            std::copy(m.begin(), m.end(), records[i].matrix);
        }
        ASSERT_TRUE(writeCascadeFile(platform::widePath(cascade), records));
        console = std::make_unique<sdktest::ConsoleProcess>(REENTRY_CONSOLE_PATH);
        ASSERT_TRUE(console->start({"--heartbeat-ms", "0", "--setup", "heartbeat period 0", "--fps",
                                    "50", "--points", "50", "--seed", "9", "--speed", "1000"}));
        ::setenv(SDK_NV::wire::kEndpointEnv, console->endpoint().c_str(), 1);
        device = std::make_unique<ReentryDevice>(std::make_shared<devtest::Recorder>());
        ASSERT_EQ(device->init(), RESULT_SUCCESS);
        ASSERT_EQ(device->setWorkingDevice({"SCN0001"}), RESULT_SUCCESS);
    }
    void TearDown() override {
        active.store(false);  // handlers stop acting before the device goes
        device.reset();
        console.reset();
        std::filesystem::remove_all(annex);
    }

    // Waits until `n` frames have come. A handler stuck in the module would hold the receiving
    // thread for good, and the device's destructor with it: the process ends here instead.
    void waitFrames(int n) {
        if (!waitFor([&] { return frames.load() >= n; }, 30000)) {
            ADD_FAILURE() << "frames stopped after " << frames.load();
            std::fflush(stdout);
            console.reset();  // its output would keep CTest waiting
            std::_Exit(1);
        }
    }

    // Every operation a handler may call, leaving the transfer table imported (`state`
    // Cascade) or empty, and super conversion on with the far matrix (Super) or off. What
    // failed goes into `failed`, by name.
    void callEverything(ReentryDevice& d, Seen state) {
        std::vector<std::string> wrong;
        const auto check = [&wrong](bool ok, const char* what) {
            if (!ok) {
                wrong.push_back(what);
            }
        };
        d.SendMatrix(false);
        check(d.setFineHoleData({}) == RESULT_SUCCESS, "setFineHoleData");
        check(d.setCuttingEdgeData({}) == RESULT_SUCCESS, "setCuttingEdgeData");
        check(d.setMarkpointDiameter({6.0f, 6.0f}) == RESULT_SUCCESS, "setMarkpointDiameter");
        const double radii[2] = {3.0, 3.0};
        check(d.setMarkpointRadius(radii, 2) == RESULT_SUCCESS, "setMarkpointRadius");
        const std::wstring file = platform::widePath(cascade);
        if (state == Seen::Cascade) {
            check(d.emptyCache() == RESULT_SUCCESS, "emptyCache");
            check(d.emptyTransferMatrix() == RESULT_SUCCESS, "emptyTransferMatrix");
            check(d.importCascadeFile(file) == RESULT_SUCCESS, "importCascadeFile");
        } else {
            check(d.importCascadeFile(file) == RESULT_SUCCESS, "importCascadeFile");
            check(d.emptyCache() == RESULT_SUCCESS, "emptyCache");
            check(d.emptyTransferMatrix() == RESULT_SUCCESS, "emptyTransferMatrix");
        }
        const bool super = state == Seen::Super;
        check(d.setSuperConversionScanMatrix(super ? translation(0, 0, kFar)
                                                   : translation(0, 0, 0)) == RESULT_SUCCESS,
              "setSuperConversionScanMatrix");
        d.startSuperConversionScanObject(super);
        // This thread sees its own changes at once.
        check(d.transferMatrices().size() == (state == Seen::Cascade ? 2u : 0u),
              "transferMatrices");
        SDK_NV::tagScanData f;
        f.m_vecLaserPoints = {1, 2, 3};
        d.ScanInThreePointTrack(f);
        check(f.m_vecLaserPoints[2] == (super ? static_cast<float>(3 + kFar) : 3.0f),
              "ScanInThreePointTrack");
        std::lock_guard<std::mutex> lock(mutex);
        failed.insert(failed.end(), wrong.begin(), wrong.end());
    }

    // What the handlers share with the test (here, so that it outlives a handler still
    // running when a test ends); they act only while `active`.
    std::atomic<bool> active{true};
    std::atomic<int> frames{0};
    std::atomic<int> calls{0};
    std::mutex mutex;
    std::vector<std::string> failed;
    Seen pending = Seen::Raw;      // what the last handler left
    std::vector<Seen> seen, left;  // per frame: what it showed, what the handlers left before
    std::vector<std::pair<int, int>> counts;
    std::string annex;
    std::string cascade;
    std::unique_ptr<sdktest::ConsoleProcess> console;
    std::unique_ptr<ReentryDevice> device;
};

TEST_F(Reentry, HandlersCallEveryOperationAndTheNextFrameShowsTheChange) {
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    ReentryDevice* dev = device.get();
    // Every handler calls every operation and leaves a state; the next frame must show it.
    const auto leave = [this, dev](int step) {
        Seen state;
        {
            std::lock_guard<std::mutex> lock(mutex);
            state = static_cast<Seen>((static_cast<int>(pending) + step) % 3);
        }
        callEverything(*dev, state);
        std::lock_guard<std::mutex> lock(mutex);
        pending = state;
    };
    device->setDeviceDataHandler(
        [this, leave](const std::shared_ptr<tagDeviceData>& d, const char*, int) {
            if (active.load()) {
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    seen.push_back(seenIn(*d));
                    left.push_back(pending);
                }
                leave(1);
                frames.fetch_add(1);
            }
        });
    // A state handler (the arrival of TRK0009; not its departure when the device closes) and a
    // reply handler (a Wi-Fi report), once each, between frames.
    device->setDeviceStateHandler(
        [this, leave](emDeviceState state, const tagDeviceInfo& info, const void*) {
            if (active.load() && info.serialText() == "TRK0009" && state != STATE_DISCONNECTED) {
                leave(2);
                calls.fetch_add(1);
            }
        });
    device->setDeviceReplyHandler(
        [this, leave](const std::string&, emDeviceReply reply, const void* p) {
            if (active.load() && reply == REPLY_WIFI_STATE && p != nullptr &&
                std::string(static_cast<const char*>(p)) == "reentry") {
                leave(2);
                calls.fetch_add(1);
            }
        });
    ASSERT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
    waitFrames(10);
    ASSERT_TRUE(console->control("device TRK0009 on kind=tracker"));
    ASSERT_TRUE(console->control("wifi reentry"));
    EXPECT_TRUE(waitFor([&] { return calls.load() >= 2; }));
    waitFrames(frames.load() + 10);
    active.store(false);
    EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(failed, std::vector<std::string>{});
    ASSERT_GE(seen.size(), 20u);
    for (size_t k = 0; k < seen.size(); ++k) {
        EXPECT_EQ(seen[k], left[k]) << "frame " << k;
    }
}

// The counts of the dynamic build are the library's: before a frame's step as many markers as
// after the previous frame's, and the library grows as the scanner moves.
TEST_F(Reentry, DynamicBuildCountsTheLibraryBeforeAndAfterEachFrame) {
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001"}), RESULT_SUCCESS);
    ASSERT_EQ(device->setDynamicTracking(SCAN_OBJECT_MARKPOINT), RESULT_SUCCESS);
    ReentryDevice* dev = device.get();
    device->setDeviceDataHandler(
        [this, dev](const std::shared_ptr<tagDeviceData>&, const char*, int) {
            if (active.load()) {
                std::lock_guard<std::mutex> lock(mutex);
                counts.emplace_back(dev->markerCountBefore(), dev->markerCountAfter());
                frames.fetch_add(1);
            }
        });
    ASSERT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
    waitFrames(40);
    active.store(false);
    EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS);
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_GE(counts.size(), 40u);
    EXPECT_EQ(counts[0].first, 0);
    EXPECT_GT(counts[0].second, 0);
    for (size_t k = 1; k < counts.size(); ++k) {
        EXPECT_EQ(counts[k].first, counts[k - 1].second) << "frame " << k;
    }
    EXPECT_GT(counts.back().second, counts[0].second);
}

// Answers of commands sent before the trigger may still come while the trigger waits for its
// verdict: a state 0 among them does not make a rejected trigger a success.
TEST_F(Reentry, TheTriggersVerdictIsItsOwnAnswer) {
    ASSERT_TRUE(console->control("answer setTrigger 3"));
    ASSERT_TRUE(console->control("answer setCustomDepth 0 delay=1000"));
    ASSERT_EQ(device->setCustomDepth("late", 0, 0), RESULT_SUCCESS);
    EXPECT_EQ(device->controlLaserOn(), RESULT_TRIGGER_REJECTED);
    EXPECT_EQ(device->lastCommandResult(), RESULT_TRIGGER_REJECTED);
}

}  // namespace
