// The device connected to a fake low part on a private port: commands as they go out on the
// link, acknowledged waits, the laser verdict, calibration waits and the connection's end.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <regex>

#include "DeviceTestSupport.h"
#include "ModuleState.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

namespace {

using namespace device;
using devtest::FakeLowPart;

constexpr int kWaitMs = 5000;

class Linked : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        link = std::make_unique<FakeLowPart>();
        recorder = std::make_shared<devtest::Recorder>();
        device = std::make_unique<devtest::TestDevice>(recorder);
        ASSERT_EQ(device->init(), RESULT_SUCCESS);
        ASSERT_TRUE(device->isConnected());
        link->clearCommands();
        recorder->clear();
    }
    void TearDown() override {
        device.reset();
        link.reset();
        std::filesystem::remove_all(annex);
    }

    // Answers every command `name` with a work response.
    void answer(const std::string& name, int code, int state) {
        link->setResponder([=](FakeLowPart& l, const sdk_link::Command& c) {
            if (c.name() == name) {
                l.send(*devtest::response(code, state));
            }
        });
    }
    // Sends a message and waits until the device has handled it: a Wi-Fi receipt sent after it
    // is delivered only once the message's handler has returned.
    void sendAndSettle(SDK_NV::CMessage_Base& m) {
        ASSERT_TRUE(link->send(m));
        const std::string mark = "settle " + std::to_string(++settled);
        SDK_NV::CMessage_Receipt marker;
        marker.setReceiptKind(SDK_NV::RECEIPT_WIFI_CONNECT);
        SDK_NV::tagWIFIConnectInfo wifi;
        wifi.strEventMessage = mark;
        marker.setWIFIConnectInfo(wifi);
        ASSERT_TRUE(link->send(marker));
        ASSERT_TRUE(waitFor([&] {
            for (const devtest::Event& e : recorder->of("reply")) {
                if (e.payloadText == mark) {
                    return true;
                }
            }
            return false;
        }));
    }
    // Announces a device and waits for its handling, diagnosis requests included.
    void announce(const std::string& id, SDK_NV::DEVICETYPE type) {
        SDK_NV::CMessage_Device m;
        m.setConnect(true);
        m.setDeviceType(type);
        lumora::DeviceInfo info;
        info.set_id(id);
        info.set_dtype(type == SDK_NV::DEVICE_TRACKER ? lumora::TRACKER : lumora::SCANNER);
        m.setDeviceInfo(info);
        const int requests = link->count("getDiagnosisInfo");
        sendAndSettle(m);
        // Nobody answers the diagnosis: five requests.
        ASSERT_TRUE(link->waitCommand("getDiagnosisInfo", requests + 5, kWaitMs));
    }
    template <class Pred>
    static bool waitFor(Pred done) {
        for (int i = 0; i < kWaitMs / 5; ++i) {
            if (done()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return done();
    }

    int settled = 0;
    std::string annex;
    std::unique_ptr<FakeLowPart> link;
    std::shared_ptr<devtest::Recorder> recorder;
    std::unique_ptr<devtest::TestDevice> device;
};

// --- lifecycle --------------------------------------------------------------------------------

TEST(LinkLifecycle, InitAfterAFailedInitFindsTheLinkUp) {
    const std::string annex = devtest::makeTempAnnex();
    const uint16_t port = devtest::freePort();
    const std::string endpoint = "127.0.0.1:" + std::to_string(port);
    ::setenv(SDK_NV::wire::kEndpointEnv, endpoint.c_str(), 1);
    auto recorder = std::make_shared<devtest::Recorder>();
    {
        devtest::TestDevice device(recorder);
        EXPECT_EQ(device.init(), RESULT_FAILED);  // nobody listens, no console to start
        EXPECT_FALSE(device.hasInit());
        FakeLowPart link(port);  // the devices come up late; the SDK keeps trying
        ASSERT_TRUE(link.waitClient(kWaitMs));
        for (int i = 0; i < kWaitMs / 5 && !device.isConnected(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ASSERT_TRUE(device.isConnected());  // the connection message came before this init
        EXPECT_EQ(device.init(), RESULT_SUCCESS);
        EXPECT_TRUE(device.hasInit());
        EXPECT_EQ(link.clientsAccepted(), 1);
        device.clear();
    }
    std::filesystem::remove_all(annex);
}

TEST_F(Linked, LaserOnWaitsForTheVerdictAndRefusesASecondTrigger) {
    answer("setTrigger", 1, 0);
    ASSERT_EQ(device->setWorkingDevice({"S1", "S2"}), RESULT_SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(
        std::regex_search(out, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}\] Trigger\n)")))
        << out;
    EXPECT_TRUE(device->isTriggerActive());
    EXPECT_EQ(device->controlLaserOn(), RESULT_BUSY_SCANNING);
    EXPECT_EQ(device->setWorkingDevice({"S3"}), RESULT_BUSY_SCANNING);
    EXPECT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_BUSY_SCANNING);
    EXPECT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_LASER), RESULT_BUSY_SCANNING);
    EXPECT_EQ(device->setStartCalibration(), RESULT_BUSY_SCANNING);

    const auto commands = link->commands();
    ASSERT_EQ(commands.size(), 1u);  // refused operations send nothing
    EXPECT_TRUE(commands[0].args(0).b());
    EXPECT_EQ(commands[0].args(1).strings().values_size(), 2);

    EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS);
    EXPECT_FALSE(device->isTriggerActive());
    ASSERT_TRUE(link->waitCommand("setTrigger", 2, kWaitMs));
    EXPECT_FALSE(link->commands()[1].args(0).b());
}

TEST_F(Linked, LaserWithoutVerdictGives13) {
    EXPECT_EQ(device->controlLaserOn(), RESULT_NO_ANSWER);
    EXPECT_TRUE(device->isTriggerActive());
}

TEST_F(Linked, TriggerEndingResponseClearsTheBusyFlag) {
    answer("setTrigger", 1, 0);
    ASSERT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
    SDK_NV::tagWorkRespons other;
    other.code = 7;
    other.state = 200;
    device->CallBack_Response(other);
    EXPECT_TRUE(device->isTriggerActive());
    SDK_NV::tagWorkRespons end;
    end.code = 1;
    end.state = 200;
    device->CallBack_Response(end);
    EXPECT_FALSE(device->isTriggerActive());
}

TEST_F(Linked, LaserOnWithoutLinkIsRefused) {
    device->clear();
    EXPECT_EQ(device->controlLaserOn(), RESULT_SEND_REFUSED);
    EXPECT_FALSE(device->isTriggerActive());
}

TEST_F(Linked, TriggerLaserIgnoresTheVerdictButHonoursTheLock) {
    device->clear();
    EXPECT_EQ(device->setTriggerLaser(true), RESULT_SUCCESS);
    device->setLaserLock(true);
    EXPECT_EQ(device->setTriggerLaser(false), RESULT_FAILED);
}

TEST_F(Linked, SdkDisconnectionReportsEveryKnownDeviceThenTheLink) {
    announce("TRK-A", SDK_NV::DEVICE_TRACKER);
    announce("SCN-A", SDK_NV::DEVICE_SCANNER);
    announce("TRK-B", SDK_NV::DEVICE_TRACKER);

    int count = 0;
    std::shared_ptr<tagDeviceInfoList> list;
    ASSERT_EQ(device->getDeviceInfo(&count, &list), RESULT_SUCCESS);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(list->infos[1].serialText(), "SCN-A");
    EXPECT_EQ(list->infos[1].kind, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(list->infos[2].state, STATE_NO_STATUS);

    recorder->clear();
    testing::internal::CaptureStdout();
    link->dropClient();
    const bool reported = waitFor([&] {
        for (const devtest::Event& e : recorder->of("reply")) {
            if (e.a == REPLY_SDK_DISCONNECTED) {
                return true;
            }
        }
        return false;
    });
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(reported);
    EXPECT_EQ(out.substr(0, 48), "disconnect 1533\ndisconnect 1533\ndisconnect 1541\n");

    std::vector<devtest::Event> events = recorder->events();
    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ(events[0].a, STATE_DISCONNECTED);
    EXPECT_EQ(events[0].b, DEVICE_TYPE_TRACKER);
    EXPECT_EQ(events[0].text, "TRK-A");
    EXPECT_EQ(events[1].a, STATE_DISCONNECTED);
    EXPECT_EQ(events[1].text, "TRK-B");
    EXPECT_EQ(events[1].b, DEVICE_TYPE_TRACKER);
    EXPECT_EQ(events[2].a, STATE_DISCONNECTED);
    EXPECT_EQ(events[2].text, "SCN-A");
    EXPECT_EQ(events[2].b, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(events[3].what, "reply");
    EXPECT_EQ(events[3].a, REPLY_SDK_DISCONNECTED);
}

TEST_F(Linked, EmptyCacheForgetsMarkersDevicesAndMatrices) {
    announce("TRK-A", SDK_NV::DEVICE_TRACKER);
    link->clearCommands();
    device->setWorkingDevice({"TRK-A"});

    EXPECT_EQ(device->emptyCache(), RESULT_SUCCESS);
    EXPECT_TRUE(device->workingDevices().empty());
    ASSERT_TRUE(link->waitCommand("setTransforRT", 1, kWaitMs));
    const auto commands = link->commands();
    EXPECT_EQ(commands[0].name(), "clearMarkpointData");
    EXPECT_EQ(commands[0].args(0).i(), SDK_NV::DEVICE_TRACKER);
    sdk_link::TransformMatrix matrices;
    ASSERT_TRUE(matrices.ParseFromString(commands[1].args(0).raw()));
    ASSERT_EQ(matrices.transforms_size(), 1);
    EXPECT_EQ(matrices.transforms(0).tracker_id(), "TRK-A");
    const std::vector<double> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_EQ(std::vector<double>(matrices.transforms(0).values().begin(),
                                  matrices.transforms(0).values().end()),
              identity);
}

TEST_F(Linked, TrackPreviewerSequence) {
    EXPECT_EQ(device->EnterTrackPreviewer(), RESULT_SUCCESS);
    ASSERT_TRUE(link->waitCommand("setImageMode", 1, kWaitMs));
    EXPECT_EQ(link->names(), (std::vector<std::string>{"setTrigger", "setWorkBusiness",
                                                       "setTrigger", "setImageMode"}));
    const auto c = link->commands();
    EXPECT_EQ(c[1].args(0).i(), 32);
    EXPECT_TRUE(c[2].args(0).b());
    EXPECT_EQ(c[3].args(0).i(), 10);
}

// --- commands ---------------------------------------------------------------------------------

TEST_F(Linked, ScanObjectStopsTheLaserThenSelects) {
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE_EDGE, true), RESULT_SUCCESS);
    ASSERT_TRUE(link->waitCommand("setStartScan", 1, kWaitMs));
    auto c = link->commands();
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[0].name(), "setTrigger");
    EXPECT_FALSE(c[0].args(0).b());
    EXPECT_EQ(c[1].name(), "setIsNeedEdgePoint");
    EXPECT_TRUE(c[1].args(0).b());
    EXPECT_EQ(c[2].args(0).i(), SDK_NV::SCAN_LASER);
    const CPathfinder::ScanMode mode = device->scanMode();
    EXPECT_TRUE(mode.m_bEdgePoints && mode.m_bObjectScan && !mode.m_bDynamicTracking);

    link->clearCommands();
    ASSERT_EQ(device->setDynamicTracking(SCAN_OBJECT_MARKPOINT), RESULT_SUCCESS);
    ASSERT_TRUE(link->waitCommand("setDynamicScan", 1, kWaitMs));
    c = link->commands();
    EXPECT_FALSE(c[1].args(0).b());
    EXPECT_EQ(c[2].args(0).i(), SDK_NV::SCAN_MARKPOINT);
    const CPathfinder::ScanMode dynamic = device->scanMode();
    EXPECT_TRUE(dynamic.m_bDynamicTracking);
    EXPECT_EQ(dynamic.m_bDynamicMarker, 1);
    EXPECT_FALSE(dynamic.m_bEdgePoints);  // reset by the new selection

    link->clearCommands();
    device->startSuperConversionScanObject(true);
    device->setScanObject(SCAN_OBJECT_MARKPOINT, false);
    ASSERT_TRUE(link->waitCommand("setWorkBusiness", 1, kWaitMs));
    EXPECT_EQ(link->commands()[2].args(0).i(), 25);
    EXPECT_EQ(link->count("setStartScan"), 0);
}

TEST_F(Linked, ExposuresOutOfRangeSendNothing) {
    int unused = 0;
    EXPECT_EQ(device->setLEDExposure(1.01f), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(device->setLEDExposure(-0.5f), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(device->setLEDExposure(std::nanf("")), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(device->setLaserExposure(10.5f, unused), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(device->setDeviceLaserType(LASER_TYPE_UNAVAILABLE), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(device->setWorkBusiness(WORK_BUSINESS_SCAN), RESULT_SUCCESS);
    EXPECT_EQ(device->updateConfigFolder(nullptr), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(device->setLEDExposure(1.0f), RESULT_SUCCESS);  // the only command sent
    ASSERT_TRUE(link->waitCommand("setLEDExposure", 1, kWaitMs));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto c = link->commands();
    ASSERT_EQ(c.size(), 1u);
    EXPECT_DOUBLE_EQ(c[0].args(0).d(), 1.0);
    EXPECT_EQ(c[0].args(1).i(), SDK_NV::DEVICE_TRACKER);
}

TEST_F(Linked, ArgumentsReachTheSdk) {
    int unused = 0;
    device->setLaserExposure(10.0f, unused);
    device->setDeviceLaserType(LASER_TYPE_BLUE_SINGLE);
    device->setWorkBusiness(WORK_BUSINESS_WARM_UP);
    device->setRivetHoleParamter(4, 5);
    device->setBlackObject(true);
    device->setCustomDepth("deep", 3, 9);
    device->setCalibTrackRange(TRACK_RANGE_FAR);
    ASSERT_TRUE(link->waitCommand("setTrackRangeLevel", 1, kWaitMs));
    const auto c = link->commands();
    ASSERT_EQ(c.size(), 7u);
    EXPECT_DOUBLE_EQ(c[0].args(0).d(), 10.0);
    EXPECT_EQ(c[1].args(0).i(), SDK_NV::LASER_DEEP_HOLE);
    EXPECT_EQ(c[1].args(1).i(), SDK_NV::LIGHT_RED);
    EXPECT_EQ(c[2].args(0).i(), 17);
    lumora::HoleParamter hole;
    ASSERT_TRUE(hole.ParseFromString(c[3].args(0).raw()));
    EXPECT_EQ(hole.holetype(), 1);
    EXPECT_EQ(hole.surfacecolor(), 4);
    EXPECT_EQ(hole.surfaceprocess(), 5);
    lumora::ScanModeSet special;
    ASSERT_TRUE(special.ParseFromString(c[4].args(0).raw()));
    EXPECT_EQ(special.blackoject(), 1);
    EXPECT_EQ(special.highlight(), 0);
    EXPECT_EQ(c[5].args(0).s(), "deep");
    EXPECT_EQ(c[6].args(0).i(), SDK_NV::TRACK_RANGE_FAR);
}

TEST_F(Linked, HeartBeatIntervalGoesToTheDevices) {
    device->setHeartBeatInterval(250);
    for (int i = 0; i < kWaitMs / 10 && link->heartBeatInterval() != 250; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(link->heartBeatInterval(), 250);
}

TEST_F(Linked, ImageModeWaitsForItsAcknowledgement) {
    answer("setImageMode", 173, 0);
    EXPECT_EQ(device->setImageMode(IMAGE_MODE_LASER), RESULT_SUCCESS);
    answer("setImageMode", 173, -1);
    EXPECT_EQ(device->setImageMode(IMAGE_MODE_LASER), RESULT_FAILED);
    link->setResponder(nullptr);
    EXPECT_EQ(device->setImageMode(IMAGE_MODE_LASER), RESULT_FAILED);
}

TEST_F(Linked, RegionCommandsShareTheRegionAcknowledgement) {
    answer("setROIErea", 181, 0);
    EXPECT_EQ(device->setROIErea(true), RESULT_SUCCESS);
    answer("setZaxisCompensation", 182, -1);
    EXPECT_EQ(device->setZaxisCompensation(true), RESULT_FAILED);
    answer("setZaxisCompensation", 182, 0);
    EXPECT_EQ(device->setZaxisCompensation(false), RESULT_SUCCESS);
}

TEST_F(Linked, LowpartVersionIsRepliedWhileConnected) {
    SDK_NV::CMessage_Receipt version;
    version.setReceiptKind(SDK_NV::RECEIPT_LOWPART_VERSION);
    version.setFirmwareVersion("2.4.1");
    sendAndSettle(version);
    recorder->clear();
    EXPECT_EQ(device->getLowpartVersion(), RESULT_SUCCESS);
    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].a, REPLY_LOWPART_VERSION);
    EXPECT_EQ(replies[0].payloadText, "2.4.1");
    device->clear();
    EXPECT_EQ(device->getLowpartVersion(), RESULT_FAILED);
}

TEST_F(Linked, AirDevicesAreConfiguredAndTheLinkRestarted) {
    link->setResponder([](FakeLowPart& l, const sdk_link::Command& c) {
        SDK_NV::CMessage_Receipt r;
        if (c.name() == "getLowPartConfigs" || c.name() == "setLowPartConfigs") {
            r.setReceiptKind(SDK_NV::RECEIPT_LOWPART_CONFIG);
            SDK_NV::tagLowPartConfig config;
            config.nSysId = 42;
            r.setLowPartConfig(config);
        } else if (c.name() == "getPripladDevices") {
            r.setReceiptKind(SDK_NV::RECEIPT_PRIPLAD_LIST);
            std::vector<SDK_NV::tagPripladDeviceData> devices(2);
            devices[0].strDeviceId = "AIR-1";
            devices[1].strDeviceId = "AIR-2";
            r.setPripladDevices(devices);
        } else {
            return;
        }
        l.send(r);
    });
    EXPECT_EQ(device->setPriplad(false), RESULT_SUCCESS);
    EXPECT_TRUE(device->hasInit());
    EXPECT_EQ(link->clientsAccepted(), 2);
    const auto c = link->commands();
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[2].name(), "setLowPartConfigs");
    lumora::LowPartCfg wire;
    ASSERT_TRUE(wire.ParseFromString(c[2].args(0).raw()));
    SDK_NV::tagLowPartConfig sent;
    SDK_NV::wire::decodeLowPartConfig(wire, sent);
    EXPECT_EQ(sent.nSysId, 42);
    EXPECT_EQ(sent.nUsePriplad, 2);
    EXPECT_EQ(sent.vecPripladIds, (std::vector<std::string>{"AIR-1", "AIR-2"}));
}

// --- calibration ------------------------------------------------------------------------------

TEST_F(Linked, CalibrationModeChoice) {
    EXPECT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_NONE), RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(device->calibraMode(), CALIBRA_MODE_NONE);
    EXPECT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_LASER), RESULT_SUCCESS);
    EXPECT_EQ(device->calibraMode(), CALIBRA_MODE_LASER);
    EXPECT_EQ(device->calibraValue(), -1.0);
}

TEST_F(Linked, StartCalibrationByMode) {
    // Checks the sequence around the mode's own commands and returns those.
    const auto started = [this](std::vector<std::string> expected) {
        const size_t own = expected.size();
        const std::vector<std::string> prefix = {"setTrigger", "setLEDExposure",
                                                 "setLaserExposure"};
        expected.insert(expected.begin(), prefix.begin(), prefix.end());
        expected.push_back("setTrigger");
        EXPECT_TRUE(link->waitCommand("setTrigger", 2, kWaitMs));
        EXPECT_EQ(link->names(), expected);
        const auto c = link->commands();
        link->clearCommands();
        EXPECT_EQ(c[1].args(1).i(), SDK_NV::DEVICE_SCANNER);
        EXPECT_DOUBLE_EQ(c[1].args(0).d(), 0.0);
        EXPECT_TRUE(c.back().args(0).b());
        EXPECT_EQ(c.back().args(1).strings().values_size(), 1);  // the working device
        return std::vector<sdk_link::Command>(c.begin() + 3, c.begin() + 3 + own);
    };
    device->setWorkingDevice({"S1"});
    EXPECT_EQ(device->setStartCalibration(), RESULT_SUCCESS);  // no mode: scanner calibration
    EXPECT_EQ(started({"setCalibrationMode"})[0].args(0).i(), SDK_NV::CALIB_SCANNER);

    device->setDeviceCalibraMode(CALIBRA_MODE_FAR_LASER);
    device->setStartCalibration();
    auto own = started({"getCalibBoardSize", "setCalibrationMode", "getCalibLocationStep"});
    EXPECT_EQ(own[1].args(0).i(), SDK_NV::CALIB_SCANNER_BOARD_LASER);
    EXPECT_EQ(own[2].args(0).i(), SDK_NV::CALIB_SCANNER);

    device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR);
    device->setStartCalibration();
    own = started({"setCalibrationMode", "getCalibLocationStep"});
    EXPECT_EQ(own[0].args(0).i(), SDK_NV::CALIB_BAR);
    EXPECT_EQ(own[1].args(0).i(), SDK_NV::CALIB_BAR_LOCATION);

    device->setDeviceCalibraMode(CALIBRA_MODE_SCANNER_POSITION);
    device->setStartCalibration();
    own = started({"getCalibBoardSize", "setCalibrationMode"});
    EXPECT_EQ(own[1].args(0).i(), SDK_NV::CALIB_SCANNER_POSITION);

    device->setDeviceCalibraMode(CALIBRA_MODE_SCAN_CHECK);
    device->setStartCalibration();
    EXPECT_EQ(started({"setStartScan"})[0].args(0).i(), SDK_NV::SCAN_MARKPOINT);
    EXPECT_EQ(detail::moduleFlags().calibState.load(), -1);
    EXPECT_FALSE(device->isTriggerActive());  // calibration does not mark the laser busy
}

TEST_F(Linked, StartCalibrationCreatesTheImagesFolder) {
    const std::string images = annex + "/images/run1";
    EXPECT_EQ(device->setImagesSavePath(platform::widePath(images)), RESULT_SUCCESS);
    EXPECT_TRUE(device->isSaveImages());
    EXPECT_EQ(device->setStartCalibration(), RESULT_SUCCESS);
    EXPECT_TRUE(platform::directoryExists(images));
}

TEST_F(Linked, StopCalibrationForgetsWorkingDevicesAndMode) {
    device->setWorkingDevice({"S1"});
    device->setDeviceCalibraMode(CALIBRA_MODE_SCANNER);
    EXPECT_EQ(device->setStopCalibration(), RESULT_SUCCESS);
    EXPECT_TRUE(device->workingDevices().empty());
    EXPECT_EQ(device->calibraMode(), CALIBRA_MODE_NONE);
}

// Answers getCalibraResult with a calibration-result receipt.
void answerCalibraResult(FakeLowPart& link, double value) {
    link.setResponder([value](FakeLowPart& l, const sdk_link::Command& c) {
        if (c.name() == "getCalibraResult") {
            SDK_NV::CMessage_Receipt r;
            r.setReceiptKind(SDK_NV::RECEIPT_CALIB_RESULT);
            r.setCalibraResult(value);
            l.send(r);
        }
    });
}

TEST_F(Linked, CalibrationResultZeroSucceedsAndReloads) {
    answerCalibraResult(*link, 0.0);
    device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR);
    float result = 5.0f;
    EXPECT_EQ(device->getCalibraResult(&result), RESULT_SUCCESS);
    EXPECT_EQ(result, 0.0f);
    EXPECT_EQ(device->calibraMode(), CALIBRA_MODE_NONE);
    ASSERT_TRUE(link->waitCommand("setCalibReloadParams", 1, kWaitMs));
    EXPECT_EQ(link->commands().back().args(0).i(), SDK_NV::DEVICE_TRACKER);
}

TEST_F(Linked, NegativeCalibrationResultGives9) {
    answerCalibraResult(*link, -0.5);
    float result = 0.0f;
    EXPECT_EQ(device->getCalibraResult(&result), RESULT_CALIB_NEGATIVE);
    EXPECT_EQ(result, -0.5f);
    EXPECT_EQ(link->count("setCalibReloadParams"), 0);
}

TEST_F(Linked, MissingCalibrationResultGives13) {
    float result = 0.0f;
    EXPECT_EQ(device->getCalibraResult(&result), RESULT_NO_ANSWER);
    EXPECT_EQ(result, -1.0f);
    EXPECT_EQ(link->count("getCalibraResult"), 1);
}

TEST_F(Linked, GrabOneFrameWithoutAnswerFails) {
    EXPECT_EQ(device->setGrabOneFrame(CALIBRA_POSE_VERTICAL), RESULT_FAILED);
    ASSERT_EQ(link->count("setGrabOneFrame"), 1);
    EXPECT_EQ(link->commands().back().args(0).i(), CALIBRA_POSE_VERTICAL);
}

// --- calibration files ------------------------------------------------------------------------

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST_F(Linked, CalibrationFilesNeedAMode) {
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_NO_CALIBRA_MODE);
    device->setDeviceCalibraMode(CALIBRA_MODE_LASER);
    EXPECT_EQ(device->setCalibrationDevice(L"/somewhere", nullptr), RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(device->setCalibrationDevice(L"", L"/else"), RESULT_INVALID_ARGUMENT);
    device->setDeviceCalibraMode(CALIBRA_MODE_SCANNER);
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_SUCCESS);
    EXPECT_EQ(device->calibraValue(), -1.0);
}

TEST_F(Linked, LaserCalibrationFilesComeFromBothFolders) {
    writeFile(annex + "/cam/ScannerCamera.clb", "camera");
    writeFile(annex + "/laser/Laser.clb", "laser");
    device->setDeviceCalibraMode(CALIBRA_MODE_LASER);
    const std::wstring cam = platform::widePath(annex + "/cam");
    const std::wstring laser = platform::widePath(annex + "/laser");
    EXPECT_EQ(device->setCalibrationDevice(cam.c_str(), laser.c_str()), RESULT_SUCCESS);
    EXPECT_EQ(readFile(annex + "/Lumora/Calibration/ScannerCamera.clb"), "camera");
    EXPECT_EQ(readFile(annex + "/Lumora/Calibration/Laser.clb"), "laser");

    device->setDeviceCalibraMode(CALIBRA_MODE_FAR_LASER);  // FarLaser.clb is missing
    EXPECT_EQ(device->setCalibrationDevice(cam.c_str(), laser.c_str()), RESULT_FAILED);
}

TEST_F(Linked, TrackerBarFileDefaultsToTheDocumentsAndFollowsTheVersion) {
    writeFile(annex + "/Documents/Lumora/Calibration/TrackerBar.clb", "bar v1");
    writeFile(annex + "/Documents/Lumora/Calibration/TrackerBar_V2.clb", "bar v2");
    device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR);
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_SUCCESS);
    EXPECT_EQ(readFile(annex + "/Lumora/Calibration/TrackerBar.clb"), "bar v1");

    SDK_NV::CMessage_Receipt version;
    version.setReceiptKind(SDK_NV::RECEIPT_LOWPART_VERSION);
    version.setFirmwareVersion("2.0.7");
    sendAndSettle(version);
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_SUCCESS);
    EXPECT_EQ(readFile(annex + "/Lumora/Calibration/TrackerBar_V2.clb"), "bar v2");
}

}  // namespace
