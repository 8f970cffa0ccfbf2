// The console's control lines seen through the SDK: a real console on a private port, driven
// through its standard input, and what the SDK delivers for each line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>

#include "ScriptedConsole.h"

using namespace SDK_NV;
using namespace sdktest;

namespace {

std::function<bool(const CMessage_Base&)> isCalib(int step) {
    return [step](const CMessage_Base& m) {
        return m.getType() == MSG_CALIBDATA &&
               static_cast<const CMessage_CalibData&>(m).getTrackerGrabIndex() == step;
    };
}

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

}  // namespace

// --- devices and the link ---------------------------------------------------------------------

TEST_F(Scripted, DevicesAreAnnouncedOnConnectionAndComeChangeAndGoOnCommand) {
    connect();
    // The connection message comes first, then the two devices and the version, which the
    // SDK caches so that the query answers at once.
    const auto first = recorder.snapshot();
    ASSERT_TRUE(isConnect(true)(*first[0]));
    const auto announced = between(0, first.size(), isType(MSG_DEVICE));
    ASSERT_EQ(announced.size(), 2u);
    const CMessage_Device& t = as<CMessage_Device>(announced[0]);
    EXPECT_TRUE(t.getConnect());
    EXPECT_EQ(t.getDeviceType(), DEVICE_TRACKER);
    EXPECT_EQ(t.getDeviceInfo().id(), "TRK0001");
    EXPECT_EQ(t.getDeviceInfo().dtype(), lumora::TRACKER);
    ASSERT_EQ(t.getDeviceInfo().errcodes_size(), 1);
    EXPECT_EQ(t.getDeviceInfo().errcodes(0), lumora::SUCCESS_ERR);
    EXPECT_EQ(as<CMessage_Device>(announced[1]).getDeviceType(), DEVICE_SCANNER);
    EXPECT_EQ(as<CMessage_Device>(announced[1]).getDeviceSN(), "SCN0001");
    EXPECT_EQ(wrapper.getTPDeviceManager()->getDeviceList().size(), 2u);
    EXPECT_EQ(wrapper.getLowpartVersion(), "1.4.2");

    size_t from = barrier();
    ASSERT_TRUE(console.control("device SCN0002 on kind=scanner model=2 errors=none version=9.9"));
    ASSERT_TRUE(console.control("device TRK0001 on model=3"));  // re-announced, changed
    size_t to = barrier();
    auto devices = between(from, to, isType(MSG_DEVICE));
    ASSERT_EQ(devices.size(), 2u);
    const CMessage_Device& s2 = as<CMessage_Device>(devices[0]);
    EXPECT_TRUE(s2.getConnect());
    EXPECT_EQ(s2.getDeviceType(), DEVICE_SCANNER);
    EXPECT_EQ(s2.deviceInfo().trackertype(), 2);
    EXPECT_EQ(s2.deviceInfo().errcodes_size(), 0);
    EXPECT_EQ(s2.deviceInfo().fireware_version(), "9.9");
    const CMessage_Device& t1 = as<CMessage_Device>(devices[1]);
    EXPECT_EQ(t1.deviceInfo().trackertype(), 3);
    ASSERT_EQ(t1.deviceInfo().errcodes_size(), 1);  // what was not given is kept
    EXPECT_EQ(t1.deviceInfo().errcodes(0), lumora::SUCCESS_ERR);
    EXPECT_EQ(wrapper.getTPDeviceManager()->getDeviceList().size(), 3u);

    ASSERT_TRUE(console.control("device * off"));
    devices = between(to, barrier(), isType(MSG_DEVICE));
    ASSERT_EQ(devices.size(), 3u);
    for (const auto* m : devices) {
        EXPECT_FALSE(as<CMessage_Device>(m).getConnect());
    }
    EXPECT_TRUE(wrapper.getTPDeviceManager()->getDeviceList().empty());
    // Offline devices leave the heartbeat.
    from = recorder.size();
    ASSERT_TRUE(console.control("heartbeat"));
    const int hb = expectMessage(from, isReceipt(RECEIPT_HEARTBEAT));
    std::vector<tagHeartData> beats;
    as<CMessage_Receipt>(message(hb)).getHeartData(&beats);
    EXPECT_TRUE(beats.empty());
}

TEST_F(Scripted, DropWithAPauseKeepsTheSdkOutUntilTheListenerReturns) {
    connect();
    const size_t from = recorder.size();
    ASSERT_TRUE(console.control("drop 1000"));
    ASSERT_GE(expectMessage(from, isConnect(false)), 0);
    // Nobody listens now.
    wire::Endpoint ep;
    ASSERT_TRUE(wire::parseEndpoint(console.endpoint(), ep));
    net::socket_t probe = net::connectTcp(ep, 1000);
    EXPECT_EQ(probe, net::kInvalidSocket);
    net::closeSocket(probe);
    // Then the SDK comes back on its own and the devices are announced again.
    const int up = recorder.waitIndex(from, isConnect(true), 10s);
    ASSERT_GE(up, 0);
    EXPECT_GE(expectMessage(static_cast<size_t>(up), isType(MSG_DEVICE)), 0);
}

TEST_F(Scripted, TriggerStreamsCompleteFramesInOrderAndStops) {
    // The plane scene: its frames have exactly the requested point and hole counts.
    connect({"--points", "300", "--scene", "plane"});
    wrapper.setStartScan(SCAN_HOLE);
    wrapper.setIsNeedEdgePoint(true);
    const size_t from = recorder.size();
    ASSERT_TRUE(wrapper.setTrigger(true, {"SCN0001", "TRK0001"}));
    const int on = recorder.waitIndex(from, isResponse(1));
    ASSERT_GE(on, 0);
    EXPECT_EQ(responseState(*message(on)), 0);

    constexpr int kFrames = 40;
    ASSERT_TRUE(
        recorder.waitFor([&](const auto& v) { return countType(v, MSG_SCANDATA) >= kFrames; }));
    const size_t offAt = recorder.size();
    ASSERT_TRUE(wrapper.setTrigger(false, {}));
    const int off = recorder.waitIndex(offAt, isResponse(2));
    ASSERT_GE(off, 0);

    int expectedId = 1;
    for (const auto* m : recorder.snapshot()) {
        if (m->getType() != MSG_SCANDATA) {
            continue;
        }
        const auto& s = as<CMessage_ScanData>(m);
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

// --- answers ------------------------------------------------------------------------------------

// Every command gets its answer; the states of refused parameters are the documented ones, and
// a refused trigger streams nothing.
TEST_F(Scripted, EveryCommandIsAnsweredAndRefusedParametersGetTheirState) {
    connect();
    struct Case {
        const char* what;
        std::function<bool()> send;
        std::function<bool(const CMessage_Base&)> answer;
        int state = 0;
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
        {"setLEDExposure beyond 1", [&] { return w.setLEDExposure(1.5f, DEVICE_TRACKER); },
         isResponse(10), lumora::PRARA_ERROR},
        {"setTrigger of an absent device", [&] { return w.setTrigger(true, {"NOT-HERE"}); },
         isResponse(1), 3},
        {"setTrigger off", [&] { return w.setTrigger(false, {}); }, isResponse(2)},
    };
    for (const Case& c : cases) {
        const size_t from = recorder.size();
        ASSERT_TRUE(c.send()) << c.what;
        const int at = recorder.waitIndex(from, c.answer, 5s);
        ASSERT_GE(at, 0) << c.what << " got no answer";
        if (isReceipt(RECEIPT_WORK_RESPONSE)(*message(at))) {
            EXPECT_EQ(responseState(*message(at)), c.state) << c.what;
        }
    }
    // The configuration sent is the one reported afterwards.
    tagLowPartConfig last;
    for (const auto* m : recorder.snapshot()) {
        if (isReceipt(RECEIPT_LOWPART_CONFIG)(*m)) {
            as<CMessage_Receipt>(m).getLowPartConfig(&last);
        }
    }
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

// Scripted answers: silent for the given times, delayed behind later answers, or carrying the
// scripted data.
TEST_F(Scripted, ScriptedAnswersAreSilentDelayedOrCarryTheirData) {
    connect();
    ASSERT_TRUE(console.control("answer setImageMode none 1"));
    ASSERT_TRUE(console.control("answer getCalibraResult none"));
    size_t from = recorder.size();
    wrapper.setImageMode(IMAGE_MODE_TRACK_PREVIEW);
    wrapper.getCalibraResult();
    wrapper.setResetCamera();  // answered in order: everything before it has been answered
    const int mark = expectMessage(from, isResponse(12));
    ASSERT_GE(mark, 0);
    EXPECT_TRUE(between(from, static_cast<size_t>(mark), isResponse(173)).empty());
    EXPECT_TRUE(between(from, static_cast<size_t>(mark), isReceipt(RECEIPT_CALIB_RESULT)).empty());

    // The image mode was silenced once only; the result stays silent until `default`.
    from = recorder.size();
    wrapper.setImageMode(IMAGE_MODE_TRACK_PREVIEW);
    EXPECT_EQ(work(message(expectMessage(from, isResponse(173)))).state, 0);
    ASSERT_TRUE(console.control("answer getCalibraResult default"));
    from = recorder.size();
    wrapper.getCalibraResult();
    EXPECT_GE(expectMessage(from, isReceipt(RECEIPT_CALIB_RESULT)), 0);

    // A delayed answer comes after the answers to later commands.
    ASSERT_TRUE(console.control("answer setResetCamera 6 1 delay=200"));
    from = recorder.size();
    wrapper.setResetCamera();
    wrapper.setSoundControl(true);
    const int late = expectMessage(from, isResponse(12));
    ASSERT_GE(late, 0);
    EXPECT_EQ(work(message(late)).state, 6);
    EXPECT_EQ(between(from, static_cast<size_t>(late), isResponse(13)).size(), 1u);

    // Queries are answered with the scripted data.
    ASSERT_TRUE(console.control("answer getCalibraResult value=-0.5 1"));
    ASSERT_TRUE(console.control("answer getCalibBoardSize rows=7 cols=5 board=7,5,15,15,2"));
    from = recorder.size();
    wrapper.getCalibraResult();
    wrapper.getCalibraResult();
    wrapper.getCalibBoardSize();
    wrapper.setResetCamera();
    const int answered = expectMessage(from, isResponse(12));
    ASSERT_GE(answered, 0);
    const size_t mark2 = static_cast<size_t>(answered);
    const auto results = between(from, mark2, isReceipt(15));
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(as<CMessage_Receipt>(results[0]).getCalibraResult(), -0.5);
    EXPECT_EQ(as<CMessage_Receipt>(results[1]).getCalibraResult(), 0.021);  // once only
    const auto lattice = between(from, mark2, isCalib(3));
    ASSERT_EQ(lattice.size(), 1u);
    int rows = 0, cols = 0;
    as<CMessage_CalibData>(lattice[0]).getBoardLattice(rows, cols);
    EXPECT_EQ(rows, 7);
    EXPECT_EQ(cols, 5);
    const auto board = between(from, mark2, isCalib(4));
    ASSERT_EQ(board.size(), 1u);
    std::vector<double> values;
    as<CMessage_CalibData>(board[0]).getScannerBoard(&values);
    EXPECT_EQ(values, (std::vector<double>{7, 5, 15, 15, 2}));
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
    const size_t from = recorder.size();
    wrapper.setTrigger(false, {});
    ASSERT_GE(expectMessage(from, isResponse(2)), 0);
    std::ifstream in(log);
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) {
        lines.push_back(l);
    }
    std::remove(log.c_str());
    const std::vector<std::string> tail = {
        "# phase two", "setHighFrameRate 5", "setTrigger true [SCN0001]",
        "setCustomDepth \"deep \\\"one\\\"\" 10 40", "setTrigger false []"};
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(std::vector<std::string>(lines.end() - static_cast<long>(tail.size()), lines.end()),
              tail);
    EXPECT_EQ(lines.front().rfind("setHeartBeatInterval", 0), 0u);  // sent on connection
}

// --- receipts -----------------------------------------------------------------------------------

TEST_F(Scripted, EveryReceiptKindCanBeSentAndFieldsReplaceItsStandardContent) {
    connect();
    size_t from = barrier();
    for (int kind = 0; kind <= RECEIPT_KIND_MAX; ++kind) {
        ASSERT_TRUE(console.control("receipt " + std::to_string(kind)));
    }
    const size_t to = barrier();
    std::vector<int> kinds;
    for (const auto* m : between(from, to, isType(MSG_RECEIPT))) {
        kinds.push_back(as<CMessage_Receipt>(m).getReceiptKind());
    }
    ASSERT_EQ(kinds.size(), 24u);
    for (int kind = 0; kind <= RECEIPT_KIND_MAX; ++kind) {
        EXPECT_EQ(kinds[static_cast<size_t>(kind)], kind);
    }

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
    EXPECT_EQ(w.code, 154);
    EXPECT_EQ(w.state, -2);
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

// --- heartbeats and buttons ---------------------------------------------------------------------

TEST_F(Scripted, HeartbeatsCarryTheChosenTemperatures) {
    connect({"--setup", "device PEN01 on kind=lightpen"}, 3);
    ASSERT_TRUE(console.control("temperature TRK0001 seq 30 31.5 32"));
    ASSERT_TRUE(console.control("temperature SCN0001 20.5 21.5"));
    ASSERT_TRUE(console.control("temperature PEN01 none"));
    const size_t from = barrier();
    ASSERT_TRUE(console.control("heartbeat 4"));
    const auto hb = between(from, barrier(), isReceipt(RECEIPT_HEARTBEAT));
    ASSERT_EQ(hb.size(), 4u);
    const float trackerMain[4] = {30.0f, 31.5f, 32.0f, 32.0f};  // then the last value again
    for (size_t i = 0; i < 4; ++i) {
        std::vector<tagHeartData> beats;
        as<CMessage_Receipt>(hb[i]).getHeartData(&beats);
        ASSERT_EQ(beats.size(), 3u);
        EXPECT_EQ(beats[0].name, "TRK0001");
        EXPECT_EQ(beats[0].kind, DEVICE_TRACKER);
        EXPECT_EQ(beats[0].temp,
                  (std::vector<float>{trackerMain[i], trackerMain[i] - 1, trackerMain[i] + 1}));
        EXPECT_EQ(beats[1].temp, (std::vector<float>{20.5f, 21.5f}));
        EXPECT_EQ(beats[2].kind, DEVICE_LIGHTPEN);
        EXPECT_TRUE(beats[2].temp.empty());
    }
    // A heartbeat for listed devices only.
    const size_t listed = barrier();
    ASSERT_TRUE(console.control("heartbeat 1 SCN0001"));
    const auto one = between(listed, barrier(), isReceipt(RECEIPT_HEARTBEAT));
    ASSERT_EQ(one.size(), 1u);
    std::vector<tagHeartData> beats;
    as<CMessage_Receipt>(one[0]).getHeartData(&beats);
    ASSERT_EQ(beats.size(), 1u);
    EXPECT_EQ(beats[0].name, "SCN0001");
}

// Without a period of their own (--heartbeat-ms 0) heartbeats come at the period the SDK's
// interval or a control line sets, for the devices that are on.
TEST_F(Scripted, PeriodicHeartbeatsFollowAControlLineAndTheSdksInterval) {
    connect();
    const auto beatsFrom = [&](size_t from) {
        return recorder.waitFor([&](const auto& v) {
            return std::count_if(v.begin() + static_cast<long>(std::min(from, v.size())), v.end(),
                                 [](const auto* m) { return isReceipt(RECEIPT_HEARTBEAT)(*m); }) >=
                   3;
        });
    };
    EXPECT_TRUE(between(0, recorder.size(), isReceipt(RECEIPT_HEARTBEAT)).empty());
    wrapper.setHeartBeatInterval(20);
    EXPECT_TRUE(beatsFrom(0));
    const int at = expectMessage(0, isReceipt(RECEIPT_HEARTBEAT));
    std::vector<tagHeartData> beats;
    as<CMessage_Receipt>(message(at)).getHeartData(&beats);
    ASSERT_EQ(beats.size(), 2u);
    EXPECT_EQ(beats[0].kind, DEVICE_TRACKER);
    EXPECT_EQ(beats[0].name, "TRK0001");
    EXPECT_EQ(beats[1].kind, DEVICE_SCANNER);
    EXPECT_EQ(beats[1].temp.size(), 3u);

    // A control line outranks the SDK's interval: none, then every 5 ms.
    ASSERT_TRUE(console.control("heartbeat period 0"));
    size_t from = barrier();
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(between(from, recorder.size(), isReceipt(RECEIPT_HEARTBEAT)).empty());
    from = recorder.size();
    ASSERT_TRUE(console.control("heartbeat period 5"));
    EXPECT_TRUE(beatsFrom(from));
}

// --- calibration --------------------------------------------------------------------------------

// Each mode's run with two locations, driven by the SDK's commands (one grab more than there are
// locations: nothing comes after the last location) and played whole by `calib run`: the steps
// it reports, the locations of its location and pose steps, and poses that are rotations.
TEST_F(Scripted, CalibrationRunsReportEachModesStepsByCommandAndByControlLine) {
    connect({"--setup", "calib locations 2"});
    const auto check = [&](size_t from, size_t to, const std::vector<int>& expectedSteps,
                           const std::vector<int>& expectedLocations, const std::string& what,
                           bool grabbedVertical) {
        std::vector<int> steps, locations;
        std::vector<std::vector<double>> translations;
        for (const auto* m : between(from, to, isType(MSG_CALIBDATA))) {
            const auto& d = as<CMessage_CalibData>(m);
            const int step = d.getTrackerGrabIndex();
            steps.push_back(step);
            const bool pose =
                step == CALIB_STEP_TRACKER_POSE || step == CALIB_STEP_TRACKER_POSE_LONG;
            if (pose || step == CALIB_STEP_LOCATION) {
                locations.push_back(d.getLocationNumber());
            }
            if (pose) {
                double R[9], t[3];
                CLBBARPOSE p = CLBBAR_ERROR_POSE;
                d.getTrackerPose(R, t, &p);
                expectRotation(R);
                translations.emplace_back(t, t + 3);
                EXPECT_TRUE(!grabbedVertical || step != CALIB_STEP_TRACKER_POSE ||
                            p == CLBBAR_VERTICAL_POSE)
                    << what;
            }
        }
        EXPECT_EQ(steps, expectedSteps) << what;
        EXPECT_EQ(locations, expectedLocations) << what;
        if (translations.size() == 2) {
            EXPECT_NE(translations[0], translations[1]) << what;
        }
    };
    const struct {
        CALIBMODE mode;
        std::vector<int> steps;
        std::vector<int> locations;
    } cases[] = {
        {CALIB_BAR, {2, 5, 2, 5}, {1, 1, 2, 2}},
        {CALIB_SCANNER, {2, 2, 7}, {1, 2}},
        {CALIB_SCANNER_BOARD, {3, 4, 2, 2, 7}, {1, 2}},
        {CALIB_SCANNER_BOARD_LASER, {3, 4, 2, 2, 7}, {1, 2}},
        {CALIB_SCANNER_POSITION, {3, 4, 6, 6}, {1, 2}},
    };
    for (const auto& c : cases) {
        const std::string what = "mode " + std::to_string(c.mode);
        size_t from = barrier();
        ASSERT_TRUE(console.control("calib run " + std::to_string(c.mode) + " value=-0.5"));
        size_t to = barrier();
        check(from, to, c.steps, c.locations, what + " by calib run", false);
        const auto results = between(from, to, isReceipt(RECEIPT_CALIB_RESULT));
        ASSERT_EQ(results.size(), 1u) << what;
        EXPECT_EQ(as<CMessage_Receipt>(results[0]).getCalibraResult(), -0.5);
        if (c.mode == CALIB_SCANNER || c.mode == CALIB_SCANNER_BOARD_LASER) {
            continue;
        }
        from = recorder.size();
        if (c.mode != CALIB_BAR) {
            wrapper.getCalibBoardSize();
        }
        wrapper.setCalibrationMode(c.mode);
        if (c.mode != CALIB_SCANNER_POSITION) {
            wrapper.getCalibLocationStep(c.mode == CALIB_BAR ? CALIB_BAR_LOCATION : CALIB_SCANNER);
        }
        for (int i = 0; i < 3; ++i) {
            wrapper.setGrabOneFrame(CLBBAR_VERTICAL_POSE);
        }
        wrapper.setResetCamera();  // answered after everything before it
        const int mark = expectMessage(from, isResponse(12));
        ASSERT_GE(mark, 0);
        to = static_cast<size_t>(mark);
        EXPECT_EQ(between(from, to, isResponse(179)).size(), 3u) << what;
        check(from, to, c.steps, c.locations, what + " by commands", true);
    }
}

TEST_F(Scripted, CalibrationStepsTakeChosenContent) {
    connect();
    const size_t from = barrier();
    ASSERT_TRUE(console.control("calib 2 location=4"));
    ASSERT_TRUE(console.control("calib 5 pose=up translation=1,2,3"));
    ASSERT_TRUE(console.control("calib 7 lattice=none"));
    ASSERT_TRUE(console.control("calib 8"));
    const auto c = between(from, barrier(), isType(MSG_CALIBDATA));
    ASSERT_EQ(c.size(), 4u);
    EXPECT_EQ(as<CMessage_CalibData>(c[0]).getLocationNumber(), 4);
    double R[9], t[3];
    CLBBARPOSE pose = CLBBAR_ERROR_POSE;
    as<CMessage_CalibData>(c[1]).getTrackerPose(R, t, &pose);
    EXPECT_EQ(pose, CLBBAR_FRONT_BACK_UP_POSE);
    EXPECT_EQ(std::vector<double>(t, t + 3), (std::vector<double>{1, 2, 3}));
    expectRotation(R);
    tagCalibData d;
    as<CMessage_CalibData>(c[2]).getScannerCalib(d);
    EXPECT_TRUE(d.vecLattice.empty());
    EXPECT_EQ(as<CMessage_CalibData>(c[3]).getTrackerGrabIndex(), 8);
}
