// The SDK against a real lumora_console process on a private port.
#include <gtest/gtest.h>

#include "ConsoleProcess.h"
#include "SdkTestSupport.h"
#include "platform/Platform.h"

using namespace SDK_NV;
using namespace sdktest;

namespace {

class ConsoleLink : public ::testing::Test {
protected:
    void SetUp() override {
        platform::setTimeScale(0.01);
        ASSERT_TRUE(console.start(args()));
        wrapper.setEndpoint(console.endpoint());
        wrapper.setCallBackMessage(recorder.callback());
        ASSERT_TRUE(wrapper.connectToLowPart());
    }

    virtual std::vector<std::string> args() {
        // The plane scene: its frames have exactly the requested point and hole counts.
        return {"--fps", "200", "--heartbeat-ms", "100000", "--points", "300", "--scene", "plane"};
    }

    // Waits for the two announcements after the connection came up.
    void waitAnnounced(size_t from = 0) {
        ASSERT_GE(recorder.waitIndex(from, isConnect(true)), 0);
        ASSERT_TRUE(recorder.waitFor([&](const auto& v) {
            int devices = 0;
            for (size_t i = from; i < v.size(); ++i) {
                devices += v[i]->getType() == MSG_DEVICE;
            }
            return devices >= 2;
        }));
    }

    ConsoleProcess console;
    Recorder recorder;
    CTPScanWrapper wrapper;
};

const CMessage_ScanData& asScan(const CMessage_Base* m) {
    return static_cast<const CMessage_ScanData&>(*m);
}

}  // namespace

TEST_F(ConsoleLink, ConnectsAndReceivesTheDeviceAnnouncements) {
    waitAnnounced();
    const auto v = recorder.snapshot();
    ASSERT_TRUE(isConnect(true)(*v[0]));  // the connection message comes first
    std::vector<const CMessage_Device*> devices;
    for (const auto* m : v) {
        if (m->getType() == MSG_DEVICE) {
            devices.push_back(static_cast<const CMessage_Device*>(m));
        }
    }
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_TRUE(devices[0]->getConnect());
    EXPECT_EQ(devices[0]->getDeviceType(), DEVICE_TRACKER);
    EXPECT_EQ(devices[0]->getDeviceInfo().id(), "TRK0001");
    EXPECT_EQ(devices[0]->getDeviceInfo().dtype(), lumora::TRACKER);
    ASSERT_EQ(devices[0]->getDeviceInfo().errcodes_size(), 1);
    EXPECT_EQ(devices[0]->getDeviceInfo().errcodes(0), lumora::SUCCESS_ERR);
    EXPECT_EQ(devices[1]->getDeviceType(), DEVICE_SCANNER);
    EXPECT_EQ(devices[1]->getDeviceSN(), "SCN0001");
    EXPECT_EQ(wrapper.getTPDeviceManager()->getDeviceList().size(), 2u);

    // The version is announced too, so the cached query answers at once.
    ASSERT_GE(recorder.waitIndex(0, isReceipt(RECEIPT_LOWPART_VERSION)), 0);
    EXPECT_EQ(wrapper.getLowpartVersion(), "1.4.2");
}

TEST_F(ConsoleLink, EveryCommandIsAnswered) {
    waitAnnounced();
    struct Case {
        const char* what;
        std::function<bool()> send;
        std::function<bool(const CMessage_Base&)> answer;
    };
    tagTransformMatrix tm;
    tm.m_mapTransform["TRK0001"] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 5, 6, 7};
    tagLowPartConfig cfg;
    cfg.nSysId = 1;
    cfg.nUsePriplad = 2;
    cfg.vecPripladIds = {"AIR0001"};
    lumora::DETECT_EDGE_POINTS_INFO edges;
    CTPScanWrapper& w = wrapper;
    const std::vector<Case> cases = {
        {"setWorkBusiness", [&] { return w.setWorkBusiness(32); }, isResponse(3)},
        {"setStartScan", [&] { return w.setStartScan(SCAN_LASER); }, isResponse(4)},
        {"setDynamicScan", [&] { return w.setDynamicScan(SCAN_HOLE); }, isResponse(5)},
        {"clearMarkpointData", [&] { return w.clearMarkpointData(DEVICE_TRACKER); }, isResponse(6)},
        {"setIsNeedEdgePoint", [&] { return w.setIsNeedEdgePoint(true); }, isResponse(7)},
        {"setTrackScanner", [&] { return w.setTrackScanner(); }, isResponse(8)},
        {"setTrackMarkpoint", [&] { return w.setTrackMarkpoint(); }, isResponse(9)},
        {"setLEDExposure", [&] { return w.setLEDExposure(0.5f, DEVICE_TRACKER); }, isResponse(10)},
        {"setLaserExposure", [&] { return w.setLaserExposure(2.0f); }, isResponse(11)},
        {"setResetCamera", [&] { return w.setResetCamera(); }, isResponse(12)},
        {"setSoundControl", [&] { return w.setSoundControl(true); }, isResponse(13)},
        {"setSpecialMode",
         [&] {
             return w.setSpecialMode({true, false, false});
         },
         isResponse(14)},
        {"setHighFrameRate", [&] { return w.setHighFrameRate(3); }, isResponse(15)},
        {"setCalibHighFrameRate", [&] { return w.setCalibHighFrameRate(true); }, isResponse(16)},
        {"setHeartDevice", [&] { return w.setHeartDevice(); }, isResponse(18)},
        {"setCurSystemTime", [&] { return w.setCurSystemTime(); }, isResponse(19)},
        {"setLaserType", [&] { return w.setLaserType(LASER_MULTI_LINE, LIGHT_BLUE); },
         isResponse(20)},
        {"SetHoleParamter", [&] { return w.SetHoleParamter(0, 1, 2); }, isResponse(21)},
        {"setCustomDepth", [&] { return w.setCustomDepth("deep", 10, 40); }, isResponse(22)},
        {"setWifiUserPassword", [&] { return w.setWifiUserPassword("u", "p"); }, isResponse(23)},
        {"setGrabImages", [&] { return w.setGrabImages(true); }, isResponse(24)},
        {"setTransforRT", [&] { return w.setTransforRT(tm); }, isResponse(25)},
        {"SetEnableScanExpand", [&] { return w.SetEnableScanExpand(true); }, isResponse(26)},
        {"SetTrackerMarkPointDiameter",
         [&] {
             return w.SetTrackerMarkPointDiameter({6, 3});
         },
         isResponse(27)},
        {"SetMarkPointDiameter", [&] { return w.SetMarkPointDiameter({6}); }, isResponse(28)},
        {"setMarkpointData",
         [&] {
             return w.setMarkpointData({1, 2, 3}, {0, 0, 1}, {6}, {7}, DEVICE_TRACKER);
         },
         isResponse(29)},
        {"setCalibTeachStep", [&] { return w.setCalibTeachStep(2); }, isResponse(30)},
        {"setTrackRangeLevel", [&] { return w.setTrackRangeLevel(TRACK_RANGE_FAR); },
         isResponse(31)},
        {"setCalibrationMode", [&] { return w.setCalibrationMode(CALIB_BAR); }, isResponse(32)},
        {"setCalibReloadParams", [&] { return w.setCalibReloadParams(DEVICE_SCANNER); },
         isResponse(33)},
        {"SetCuttingEdgeData", [&] { return w.SetCuttingEdgeData(edges); }, isResponse(34)},
        {"setFineHoleData", [&] { return w.setFineHoleData({tagFineHoleParam()}); },
         isResponse(35)},
        {"setLowPartConfigs", [&] { return w.setLowPartConfigs(cfg); }, isResponse(146)},
        {"setImageMode", [&] { return w.setImageMode(IMAGE_MODE_TRACK_PREVIEW); }, isResponse(173)},
        {"setGrabOneFrame", [&] { return w.setGrabOneFrame(1); }, isResponse(179)},
        {"setROIErea", [&] { return w.setROIErea(true); }, isResponse(181)},
        {"setZaxisCompensation", [&] { return w.setZaxisCompensation(false); }, isResponse(182)},
        {"getLowPartConfigs", [&] { return w.getLowPartConfigs(); },
         isReceipt(RECEIPT_LOWPART_CONFIG)},
        {"getPripladDevices", [&] { return w.getPripladDevices(); },
         isReceipt(RECEIPT_PRIPLAD_LIST)},
        {"getDiagnosisInfo", [&] { return w.getDiagnosisInfo(); }, isReceipt(RECEIPT_DIAGNOSIS)},
        {"getRemainingRGF", [&] { return w.getRemainingRGF(); }, isReceipt(RECEIPT_REMAINING_RGF)},
        {"getWIFIConnectInfo", [&] { return w.getWIFIConnectInfo(); },
         isReceipt(RECEIPT_WIFI_CONNECT)},
        {"getWIFISignalStrength", [&] { return w.getWIFISignalStrength(); },
         isReceipt(RECEIPT_WIFI_SIGNAL)},
        {"getHeartBeat", [&] { return w.getHeartBeat(); }, isReceipt(RECEIPT_HEARTBEAT)},
        {"getLowpartVersion", [&] { return !w.getLowpartVersion().empty(); },
         isReceipt(RECEIPT_LOWPART_VERSION)},
        {"getCalibraResult", [&] { return w.getCalibraResult(); }, isReceipt(RECEIPT_CALIB_RESULT)},
        {"getCalibLocationStep", [&] { return w.getCalibLocationStep(CALIB_BAR_LOCATION); },
         isType(MSG_CALIBDATA)},
        {"getCalibBoardSize", [&] { return w.getCalibBoardSize(); }, isType(MSG_CALIBDATA)},
        {"setTrigger off", [&] { return w.setTrigger(false, {}); }, isResponse(2)},
    };
    for (const Case& c : cases) {
        const size_t from = recorder.size();
        ASSERT_TRUE(c.send()) << c.what;
        const int at = recorder.waitIndex(from, c.answer, 5s);
        ASSERT_GE(at, 0) << c.what << " got no answer";
        const auto* m = recorder.snapshot()[static_cast<size_t>(at)];
        if (isReceipt(RECEIPT_WORK_RESPONSE)(*m)) {
            EXPECT_EQ(responseState(*m), 0) << c.what;
        }
    }
    // The configuration sent is the one reported afterwards.
    const auto v = recorder.snapshot();
    tagLowPartConfig last;
    for (const auto* m : v) {
        if (isReceipt(RECEIPT_LOWPART_CONFIG)(*m)) {
            static_cast<const CMessage_Receipt*>(m)->getLowPartConfig(&last);
        }
    }
    EXPECT_EQ(last.nUsePriplad, 2);
    EXPECT_EQ(last.vecPripladIds, cfg.vecPripladIds);
}

TEST_F(ConsoleLink, RefusedParametersGetADocumentedState) {
    waitAnnounced();
    size_t from = recorder.size();
    wrapper.setLEDExposure(1.5f, DEVICE_TRACKER);
    int at = recorder.waitIndex(from, isResponse(10));
    ASSERT_GE(at, 0);
    EXPECT_EQ(responseState(*recorder.snapshot()[static_cast<size_t>(at)]), lumora::PRARA_ERROR);

    from = recorder.size();
    wrapper.setTrigger(true, {"NOT-HERE"});
    at = recorder.waitIndex(from, isResponse(1));
    ASSERT_GE(at, 0);
    EXPECT_EQ(responseState(*recorder.snapshot()[static_cast<size_t>(at)]), 3);
    std::this_thread::sleep_for(100ms);
    for (const auto* m : recorder.snapshot()) {
        EXPECT_NE(m->getType(), MSG_SCANDATA) << "a refused trigger streamed frames";
    }
}

TEST_F(ConsoleLink, TriggerStreamsCompleteFramesInOrderAndStops) {
    waitAnnounced();
    wrapper.setStartScan(SCAN_HOLE);
    wrapper.setIsNeedEdgePoint(true);
    const size_t from = recorder.size();
    ASSERT_TRUE(wrapper.setTrigger(true, {"SCN0001", "TRK0001"}));
    const int on = recorder.waitIndex(from, isResponse(1));
    ASSERT_GE(on, 0);
    EXPECT_EQ(responseState(*recorder.snapshot()[static_cast<size_t>(on)]), 0);

    constexpr int kFrames = 40;
    ASSERT_TRUE(recorder.waitFor([&](const auto& v) {
        int n = 0;
        for (const auto* m : v) {
            n += m->getType() == MSG_SCANDATA;
        }
        return n >= kFrames;
    }));
    const size_t offAt = recorder.size();
    ASSERT_TRUE(wrapper.setTrigger(false, {}));
    const int off = recorder.waitIndex(offAt, isResponse(2));
    ASSERT_GE(off, 0);

    int expectedId = 1;
    for (const auto* m : recorder.snapshot()) {
        if (m->getType() != MSG_SCANDATA) {
            continue;
        }
        const CMessage_ScanData& s = asScan(m);
        const tagScanData& f = *s.getScanData();
        EXPECT_EQ(s.getFrameID(), expectedId) << "frames lost or reordered";
        EXPECT_EQ(f.m_nFrameCount, expectedId);
        EXPECT_EQ(f.m_nFrameValue, expectedId);
        ++expectedId;
        EXPECT_EQ(f.m_strTrackerId, "TRK0001");
        EXPECT_EQ(f.laserPointCount(), 300u);
        EXPECT_EQ(f.m_vecLaserNormals.size(), f.m_vecLaserPoints.size());
        EXPECT_EQ(f.m_vecLaserQuality.size(), 300u);
        EXPECT_EQ(f.m_vecLaserLines.size(), f.m_vecLaserLineCounts.size());
        EXPECT_FALSE(f.m_vecMarkerIds.empty());
        EXPECT_EQ(f.m_vecMarkerCenters.size(), 3 * f.markerCount());
        EXPECT_EQ(f.m_vecMarkerValid.size(), f.markerCount());
        EXPECT_EQ(f.m_mkImage.mksolve_size(), static_cast<int>(f.markerCount()));
        EXPECT_EQ(f.m_camParam.i_m_l_size(), 9);
        EXPECT_EQ(f.m_vecHoles.size(), 3u);
        EXPECT_EQ(f.m_vecEdgePoints.size(), f.m_vecEdgeIndex.size());
        EXPECT_FALSE(f.m_vecEdgePoints.empty());
        // The pose is a rotation.
        const double* R = f.m_dRotation;
        const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                           R[2] * (R[3] * R[7] - R[4] * R[6]);
        EXPECT_NEAR(det, 1.0, 1e-9);
        ASSERT_NE(s.getDeviceIds(), nullptr);
        EXPECT_EQ(s.getDeviceIds()->front(), "SCN0001");
    }
    EXPECT_GE(expectedId - 1, kFrames);

    // After the off response no frame follows.
    const size_t settled = recorder.size();
    std::this_thread::sleep_for(150ms);
    const auto v = recorder.snapshot();
    for (size_t i = static_cast<size_t>(off); i < v.size(); ++i) {
        EXPECT_NE(v[i]->getType(), MSG_SCANDATA) << "frame after trigger off";
    }
    EXPECT_GE(v.size(), settled);
}

TEST_F(ConsoleLink, HeartbeatIntervalIsHonouredByTheConsole) {
    waitAnnounced();
    // The default period of this fixture is far too long to see a heartbeat; asking for
    // 20 ms (scaled) brings them.
    wrapper.setHeartBeatInterval(20);
    const int at = recorder.waitIndex(0, isReceipt(RECEIPT_HEARTBEAT), 5s);
    ASSERT_GE(at, 0);
    std::vector<tagHeartData> beats;
    static_cast<const CMessage_Receipt*>(recorder.snapshot()[at])->getHeartData(&beats);
    ASSERT_EQ(beats.size(), 2u);
    EXPECT_EQ(beats[0].kind, DEVICE_TRACKER);
    EXPECT_EQ(beats[0].name, "TRK0001");
    EXPECT_EQ(beats[1].kind, DEVICE_SCANNER);
    EXPECT_EQ(beats[1].temp.size(), 3u);
}
