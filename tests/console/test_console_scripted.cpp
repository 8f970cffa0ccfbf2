// The console's control lines and answers seen through the SDK: a real console on a private
// port, driven through its standard input, and what the SDK delivers. (What the device module
// makes of the console's messages, scripted answers included, is tested in tests/device against
// the same console.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>

#include "ScriptedConsole.h"

using namespace SDK_NV;
using namespace sdktest;

namespace {

using Match = std::function<bool(const CMessage_Base&)>;

// R is a rotation: orthonormal rows, determinant 1.
void expectRotation(const double R[9]) {
    for (int a = 0; a < 3; ++a) {
        for (int b = 0; b < 3; ++b) {
            const double dot =
                R[3 * a] * R[3 * b] + R[3 * a + 1] * R[3 * b + 1] + R[3 * a + 2] * R[3 * b + 2];
            EXPECT_NEAR(dot, a == b ? 1.0 : 0.0, 1e-9);
        }
    }
    const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                       R[2] * (R[3] * R[7] - R[4] * R[6]);
    EXPECT_NEAR(det, 1.0, 1e-9);
}

using Scripted = ScriptedConsole;

// --- the link and the frames ------------------------------------------------------------------

TEST_F(Scripted, DropWithAPauseKeepsTheSdkOutUntilTheListenerReturns) {
    connect();
    const size_t from = recorder.size();
    ASSERT_TRUE(console.control("drop 1000"));
    ASSERT_GE(expectMessage(from, isConnect(false)), 0);
    wire::Endpoint ep;  // nobody listens now
    ASSERT_TRUE(wire::parseEndpoint(console.endpoint(), ep));
    net::socket_t probe = net::connectTcp(ep, 1000);
    EXPECT_EQ(probe, net::kInvalidSocket);
    net::closeSocket(probe);
    // Then the SDK comes back on its own and the devices are announced again.
    const int up = recorder.waitIndex(from, isConnect(true), 10s);
    ASSERT_GE(up, 0);
    EXPECT_GE(expectMessage(static_cast<size_t>(up), isType(MSG_DEVICE)), 0);
}

// The plane scene: its frames have exactly the requested point and hole counts, every member
// filled, in order, and none after the trigger's off answer.
TEST_F(Scripted, TriggerStreamsCompleteFramesInOrderAndStops) {
    connect({"--points", "300", "--scene", "plane"});
    wrapper.setStartScan(SCAN_HOLE);
    wrapper.setIsNeedEdgePoint(true);
    const size_t from = recorder.size();
    ASSERT_TRUE(wrapper.setTrigger(true, {"SCN0001", "TRK0001"}));
    const int on = recorder.waitIndex(from, isResponse(1));
    ASSERT_GE(on, 0);
    EXPECT_EQ(responseState(*message(on)), 0);
    ASSERT_TRUE(recorder.waitFor([&](const auto& v) { return countType(v, MSG_SCANDATA) >= 40; }));
    const size_t offAt = recorder.size();
    ASSERT_TRUE(wrapper.setTrigger(false, {}));
    const int off = recorder.waitIndex(offAt, isResponse(2));
    ASSERT_GE(off, 0);
    std::this_thread::sleep_for(150ms);
    const auto all = recorder.snapshot();
    const auto frames = between(0, all.size(), isType(MSG_SCANDATA));
    EXPECT_GE(frames.size(), 40u);
    EXPECT_EQ(between(static_cast<size_t>(off), all.size(), isType(MSG_SCANDATA)).size(), 0u);
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto& s = as<CMessage_ScanData>(frames[i]);
        const tagScanData& f = *s.getScanData();
        const int id = static_cast<int>(i) + 1;  // none lost or reordered
        EXPECT_EQ(std::vector<int>({s.getFrameID(), f.m_nFrameCount, f.m_nFrameValue}),
                  std::vector<int>({id, id, id}));
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
        expectRotation(f.m_dRotation);
        ASSERT_NE(s.getDeviceIds(), nullptr);
        EXPECT_EQ(s.getDeviceIds()->front(), "SCN0001");
    }
}

// --- answers ------------------------------------------------------------------------------------

// Every command gets its answer; the states of refused parameters are the documented ones, and
// a refused trigger streams nothing.
TEST_F(Scripted, EveryCommandIsAnsweredAndRefusedParametersGetTheirState) {
    connect();
    tagTransformMatrix tm;
    tm.m_mapTransform["TRK0001"] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 5, 6, 7};
    tagLowPartConfig cfg;
    cfg.nSysId = 1;
    cfg.nUsePriplad = 2;
    cfg.vecPripladIds = {"AIR0001"};
    CTPScanWrapper& w = wrapper;
    struct Case {
        std::function<bool()> send;
        Match answer;
        int state = 0;  // of a work response
    };
    const auto response = [](int code, std::function<bool()> send) {
        return Case{std::move(send), isResponse(code)};
    };
    const std::vector<Case> cases = {
        response(3, [&] { return w.setWorkBusiness(32); }),
        response(4, [&] { return w.setStartScan(SCAN_LASER); }),
        response(5, [&] { return w.setDynamicScan(SCAN_HOLE); }),
        response(6, [&] { return w.clearMarkpointData(DEVICE_TRACKER); }),
        response(7, [&] { return w.setIsNeedEdgePoint(true); }),
        response(8, [&] { return w.setTrackScanner(); }),
        response(9, [&] { return w.setTrackMarkpoint(); }),
        response(10, [&] { return w.setLEDExposure(0.5f, DEVICE_TRACKER); }),
        response(11, [&] { return w.setLaserExposure(2.0f); }),
        response(12, [&] { return w.setResetCamera(); }),
        response(13, [&] { return w.setSoundControl(true); }),
        response(14,
                 [&] {
                     return w.setSpecialMode({true, false, false});
                 }),
        response(15, [&] { return w.setHighFrameRate(3); }),
        response(16, [&] { return w.setCalibHighFrameRate(true); }),
        response(18, [&] { return w.setHeartDevice(); }),
        response(19, [&] { return w.setCurSystemTime(); }),
        response(20, [&] { return w.setLaserType(LASER_MULTI_LINE, LIGHT_BLUE); }),
        response(21, [&] { return w.SetHoleParamter(0, 1, 2); }),
        response(22, [&] { return w.setCustomDepth("deep", 10, 40); }),
        response(23, [&] { return w.setWifiUserPassword("u", "p"); }),
        response(24, [&] { return w.setGrabImages(true); }),
        response(25, [&] { return w.setTransforRT(tm); }),
        response(26, [&] { return w.SetEnableScanExpand(true); }),
        response(27,
                 [&] {
                     return w.SetTrackerMarkPointDiameter({6, 3});
                 }),
        response(28, [&] { return w.SetMarkPointDiameter({6}); }),
        response(29,
                 [&] {
                     return w.setMarkpointData({1, 2, 3}, {0, 0, 1}, {6}, {7}, DEVICE_TRACKER);
                 }),
        response(30, [&] { return w.setCalibTeachStep(2); }),
        response(31, [&] { return w.setTrackRangeLevel(TRACK_RANGE_FAR); }),
        response(32, [&] { return w.setCalibrationMode(CALIB_BAR); }),
        response(33, [&] { return w.setCalibReloadParams(DEVICE_SCANNER); }),
        response(34, [&] { return w.SetCuttingEdgeData(lumora::DETECT_EDGE_POINTS_INFO()); }),
        response(35, [&] { return w.setFineHoleData({tagFineHoleParam()}); }),
        response(146, [&] { return w.setLowPartConfigs(cfg); }),
        response(173, [&] { return w.setImageMode(IMAGE_MODE_TRACK_PREVIEW); }),
        response(179, [&] { return w.setGrabOneFrame(1); }),
        response(181, [&] { return w.setROIErea(true); }),
        response(182, [&] { return w.setZaxisCompensation(false); }),
        {[&] { return w.getLowPartConfigs(); }, isReceipt(RECEIPT_LOWPART_CONFIG)},
        {[&] { return w.getPripladDevices(); }, isReceipt(RECEIPT_PRIPLAD_LIST)},
        {[&] { return w.getDiagnosisInfo(); }, isReceipt(RECEIPT_DIAGNOSIS)},
        {[&] { return w.getRemainingRGF(); }, isReceipt(RECEIPT_REMAINING_RGF)},
        {[&] { return w.getWIFIConnectInfo(); }, isReceipt(RECEIPT_WIFI_CONNECT)},
        {[&] { return w.getWIFISignalStrength(); }, isReceipt(RECEIPT_WIFI_SIGNAL)},
        {[&] { return w.getHeartBeat(); }, isReceipt(RECEIPT_HEARTBEAT)},
        {[&] { return !w.getLowpartVersion().empty(); }, isReceipt(RECEIPT_LOWPART_VERSION)},
        {[&] { return w.getCalibraResult(); }, isReceipt(RECEIPT_CALIB_RESULT)},
        {[&] { return w.getCalibLocationStep(CALIB_BAR_LOCATION); }, isType(MSG_CALIBDATA)},
        {[&] { return w.getCalibBoardSize(); }, isType(MSG_CALIBDATA)},
        // LED exposure beyond 1, a trigger naming an absent device.
        {[&] { return w.setLEDExposure(1.5f, DEVICE_TRACKER); }, isResponse(10),
         lumora::PRARA_ERROR},
        {[&] { return w.setTrigger(true, {"NOT-HERE"}); }, isResponse(1), 3},
        response(2, [&] { return w.setTrigger(false, {}); }),
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        const size_t from = recorder.size();
        ASSERT_TRUE(cases[i].send());
        const int at = recorder.waitIndex(from, cases[i].answer, 5s);
        ASSERT_GE(at, 0) << "no answer";
        if (isReceipt(RECEIPT_WORK_RESPONSE)(*message(at))) {
            EXPECT_EQ(responseState(*message(at)), cases[i].state);
        }
    }
    // The configuration sent is the one reported afterwards.
    const auto configs = between(0, recorder.size(), isReceipt(RECEIPT_LOWPART_CONFIG));
    tagLowPartConfig last;
    ASSERT_FALSE(configs.empty());
    as<CMessage_Receipt>(configs.back()).getLowPartConfig(&last);
    EXPECT_EQ(last.nUsePriplad, 2);
    EXPECT_EQ(last.vecPripladIds, cfg.vecPripladIds);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(countType(recorder.snapshot(), MSG_SCANDATA), 0) << "a refused trigger streamed";
}

TEST_F(Scripted, AControlLineWrittenBeforeACommandGovernsItsAnswer) {
    connect();
    // No retries: the line is in the pipe before the command is on the socket.
    for (int i = 0; i < 40; ++i) {
        const int state = 100 + i;
        ASSERT_TRUE(console.control("answer setResetCamera " + std::to_string(state)));
        const size_t from = recorder.size();
        ASSERT_TRUE(wrapper.setResetCamera());
        const int at = expectMessage(from, isResponse(12));
        ASSERT_GE(at, 0);
        ASSERT_EQ(work(message(at)).state, state) << "round " << i;
    }
}

TEST_F(Scripted, TheCommandLogNamesEveryCommandWithItsArguments) {
    const std::string log =
        testing::TempDir() + "console_commands_" + std::to_string(::getpid()) + ".log";
    std::remove(log.c_str());
    connect({"--command-log", log});
    ASSERT_TRUE(console.control("say phase two"));
    wrapper.setHighFrameRate(5);
    wrapper.setTrigger(true, {"SCN0001"});
    wrapper.setCustomDepth("deep \"one\"", 10, 40);
    wrapper.setMarkpointData(std::vector<float>(33, 1.5f), {}, {6}, {7, -8}, DEVICE_SCANNER);
    const size_t from = recorder.size();
    wrapper.setTrigger(false, {});
    ASSERT_GE(expectMessage(from, isResponse(2)), 0);
    std::ifstream in(log);
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) {
        lines.push_back(l);
    }
    std::remove(log.c_str());
    const std::vector<std::string> tail = {"# phase two",
                                           "setHighFrameRate 5",
                                           "setTrigger true [SCN0001]",
                                           "setCustomDepth \"deep \\\"one\\\"\" 10 40",
                                           "setMarkpointData (33 values) [] [6] [7,-8] 1",
                                           "setTrigger false []"};
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(std::vector<std::string>(lines.end() - static_cast<long>(tail.size()), lines.end()),
              tail);
    EXPECT_EQ(lines.front().rfind("setHeartBeatInterval", 0), 0u);  // sent on connection
}

// --- receipts and heartbeats
// ----------------------------------------------------------------------

TEST_F(Scripted, EveryReceiptKindCanBeSentAndFieldsReplaceItsStandardContent) {
    connect();
    size_t from = barrier();
    for (int kind = 0; kind <= RECEIPT_KIND_MAX; ++kind) {
        ASSERT_TRUE(console.control("receipt " + std::to_string(kind)));
    }
    const size_t to = barrier();
    std::vector<int> kinds, expected;
    for (const auto* m : between(from, to, isType(MSG_RECEIPT))) {
        kinds.push_back(as<CMessage_Receipt>(m).getReceiptKind());
        expected.push_back(static_cast<int>(expected.size()));
    }
    EXPECT_EQ(kinds.size(), 24u);
    EXPECT_EQ(kinds, expected);

    from = to;
    const std::vector<std::string> lines = {
        "receipt 0 code=154 state=-2 text=\"two  words \" device=TRK0001",
        "receipt 5 trackers=0 scanners=0 sync=0",
        "receipt 6 priplad=2 ids=none name=bench",
        "receipt 7 ids=AIR7,AIR8,AIR9 battery=12",
        "receipt 8 strength=33 db=-70",
    };
    for (const std::string& l : lines) {
        ASSERT_TRUE(console.control(l));
    }
    const auto r = between(from, barrier(), isType(MSG_RECEIPT));
    ASSERT_EQ(r.size(), lines.size());
    const tagWorkRespons w = work(r[0]);
    EXPECT_EQ(std::make_pair(w.code, w.state), std::make_pair(154, -2));
    EXPECT_EQ(w.text, "two  words ");
    EXPECT_EQ(w.deviceId, "TRK0001");
    const lumora::DiagnosticInfo d = as<CMessage_Receipt>(r[1]).getDiagnosisInfo();
    EXPECT_EQ(d.trackerdiagnosticinfo_size() + d.scannerdiagnosticinfo_size(), 0);
    EXPECT_FALSE(d.bdevicesyncstatus());
    tagLowPartConfig cfg;
    as<CMessage_Receipt>(r[2]).getLowPartConfig(&cfg);
    EXPECT_EQ(cfg.nUsePriplad, 2);
    EXPECT_TRUE(cfg.vecPripladIds.empty());
    EXPECT_EQ(cfg.strSysName, "bench");
    std::vector<tagPripladDeviceData> air;
    as<CMessage_Receipt>(r[3]).getPripladDevices(&air);
    ASSERT_EQ(air.size(), 3u);
    EXPECT_EQ(air[2].strDeviceId, "AIR9");
    EXPECT_EQ(air[2].nCurElectric, 12);
    EXPECT_EQ(as<CMessage_Receipt>(r[4]).getWIFISignalStrength().nSignalStrength, 33);
    EXPECT_EQ(as<CMessage_Receipt>(r[4]).getWIFISignalStrength().nSignalDb, -70);
}

// Without a period of their own (--heartbeat-ms 0) heartbeats come at the period the SDK's
// interval sets, for the devices that are on; a control line outranks it.
TEST_F(Scripted, PeriodicHeartbeatsFollowTheSdksIntervalAndAControlLine) {
    connect({"--setup", "device TRK0002 on kind=tracker", "--setup", "device TRK0002 off"});
    const auto beats = [&](size_t from) {
        return between(from, recorder.size(), isReceipt(RECEIPT_HEARTBEAT));
    };
    EXPECT_TRUE(beats(0).empty());
    wrapper.setHeartBeatInterval(20);
    ASSERT_TRUE(eventually([&] { return beats(0).size() >= 3; }));
    std::vector<tagHeartData> hb;
    as<CMessage_Receipt>(beats(0)[0]).getHeartData(&hb);
    ASSERT_EQ(hb.size(), 2u);
    EXPECT_EQ(hb[0].name + " " + hb[1].name, "TRK0001 SCN0001");
    EXPECT_EQ(hb[1].temp.size(), 3u);
    ASSERT_TRUE(console.control("heartbeat period 0"));
    const size_t from = barrier();
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(beats(from).empty());
    ASSERT_TRUE(console.control("heartbeat period 5"));
    EXPECT_TRUE(eventually([&] { return beats(from).size() >= 3; }));
}

}  // namespace
