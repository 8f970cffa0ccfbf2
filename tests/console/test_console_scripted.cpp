// The console's control lines seen through the SDK: a real console on a private port, driven
// through its standard input, and what the SDK delivers for each line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>

#include "ConsoleProcess.h"
#include "SdkTestSupport.h"
#include "platform/Platform.h"

using namespace SDK_NV;
using namespace sdktest;

namespace {

template <class T>
const T& as(const CMessage_Base* m) {
    return static_cast<const T&>(*m);
}

tagWorkRespons work(const CMessage_Base* m) {
    tagWorkRespons w;
    as<CMessage_Receipt>(m).getWorkResponsInfo(&w);
    return w;
}

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

class Scripted : public ::testing::Test {
protected:
    void SetUp() override { platform::setTimeScale(0.01); }
    void TearDown() override { wrapper.setCloseWrapper(true); }

    // Starts the console with `extra` options and connects; waits for the announcements of
    // `devices` devices.
    void connect(std::vector<std::string> extra = {}, int devices = 2) {
        std::vector<std::string> args = {"--fps", "200", "--heartbeat-ms", "0", "--points", "100"};
        args.insert(args.end(), extra.begin(), extra.end());
        ASSERT_TRUE(console.start(args));
        wrapper.setEndpoint(console.endpoint());
        wrapper.setCallBackMessage(recorder.callback());
        ASSERT_TRUE(wrapper.connectToLowPart());
        ASSERT_TRUE(recorder.waitFor([&](const auto& v) {
            int n = 0;
            for (const auto* m : v) {
                n += m->getType() == MSG_DEVICE;
            }
            return n >= devices;
        }));
        ASSERT_GE(recorder.waitIndex(0, isReceipt(RECEIPT_LOWPART_VERSION)), 0);
        // The SDK sends the heartbeat interval on connection; its answer is the last thing
        // the connection brings.
        ASSERT_GE(recorder.waitIndex(0, isResponse(17)), 0);
    }

    // Index of the first message at or after `from` that matches; fails the test when none
    // comes.
    int expectMessage(size_t from, const std::function<bool(const CMessage_Base&)>& match) {
        const int at = recorder.waitIndex(from, match, 5s);
        EXPECT_GE(at, 0);
        return at;
    }
    const CMessage_Base* message(int at) { return recorder.snapshot()[static_cast<size_t>(at)]; }

    // Everything the console sent before this call has been delivered when it returns: a work
    // response with a fresh text travels behind it on the same connection. Returns the index
    // just after that response.
    size_t barrier() {
        const std::string text = "barrier-" + std::to_string(++m_barriers);
        EXPECT_TRUE(console.control("response 999 0 " + text));
        const int at = recorder.waitIndex(
            0, [&](const CMessage_Base& m) { return isResponse(999)(m) && work(&m).text == text; });
        EXPECT_GE(at, 0);
        return static_cast<size_t>(std::max(at, 0)) + 1;
    }

    // Messages in [from, to) that match, barriers left out.
    std::vector<const CMessage_Base*> between(size_t from, size_t to,
                                              const std::function<bool(const CMessage_Base&)>& m) {
        std::vector<const CMessage_Base*> out;
        const auto v = recorder.snapshot();
        for (size_t i = from; i < to && i < v.size(); ++i) {
            if (m(*v[i]) && !isResponse(999)(*v[i])) {
                out.push_back(v[i]);
            }
        }
        return out;
    }

    ConsoleProcess console;
    Recorder recorder;
    CTPScanWrapper wrapper;
    int m_barriers = 0;
};

}  // namespace

// --- devices and the link ---------------------------------------------------------------------

TEST_F(Scripted, DevicesComeChangeAndGoOnCommand) {
    connect();
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

// --- answers ------------------------------------------------------------------------------------

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

TEST_F(Scripted, SilentAnswersSendNothingForTheGivenTimes) {
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
}

TEST_F(Scripted, ADelayedAnswerComesAfterTheAnswersToLaterCommands) {
    connect();
    ASSERT_TRUE(console.control("answer setResetCamera 6 1 delay=200"));
    const size_t from = recorder.size();
    wrapper.setResetCamera();
    wrapper.setSoundControl(true);
    const int late = expectMessage(from, isResponse(12));
    ASSERT_GE(late, 0);
    EXPECT_EQ(work(message(late)).state, 6);
    const auto sound = between(from, static_cast<size_t>(late), isResponse(13));
    EXPECT_EQ(sound.size(), 1u);
}

TEST_F(Scripted, QueriesAreAnsweredWithTheScriptedData) {
    connect();
    ASSERT_TRUE(console.control("answer getCalibraResult value=-0.5 1"));
    ASSERT_TRUE(console.control("answer getCalibBoardSize rows=7 cols=5 board=7,5,15,15,2"));
    const size_t from = recorder.size();
    wrapper.getCalibraResult();
    wrapper.getCalibraResult();
    wrapper.getCalibBoardSize();
    wrapper.setResetCamera();
    const int mark = expectMessage(from, isResponse(12));
    ASSERT_GE(mark, 0);
    const auto results = between(from, static_cast<size_t>(mark), isReceipt(15));
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(as<CMessage_Receipt>(results[0]).getCalibraResult(), -0.5);
    EXPECT_EQ(as<CMessage_Receipt>(results[1]).getCalibraResult(), 0.021);  // once only
    const auto lattice = between(from, static_cast<size_t>(mark), isCalib(3));
    ASSERT_EQ(lattice.size(), 1u);
    int rows = 0, cols = 0;
    as<CMessage_CalibData>(lattice[0]).getBoardLattice(rows, cols);
    EXPECT_EQ(rows, 7);
    EXPECT_EQ(cols, 5);
    const auto board = between(from, static_cast<size_t>(mark), isCalib(4));
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

TEST_F(Scripted, EveryReceiptKindCanBeSent) {
    connect();
    const size_t from = barrier();
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
}

TEST_F(Scripted, ReceiptFieldsReplaceTheStandardContent) {
    connect();
    const size_t from = barrier();
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

TEST_F(Scripted, PeriodicHeartbeatsCanBeStartedByAControlLine) {
    connect();  // --heartbeat-ms 0: none on their own
    const size_t from = recorder.size();
    ASSERT_TRUE(console.control("heartbeat period 5"));
    EXPECT_TRUE(recorder.waitFor([&](const auto& v) {
        int n = 0;
        for (size_t i = from; i < v.size(); ++i) {
            n += isReceipt(RECEIPT_HEARTBEAT)(*v[i]);
        }
        return n >= 3;
    }));
}

// --- calibration --------------------------------------------------------------------------------

// Runs driven by the SDK's commands, with one grab more than there are locations: the steps
// each mode reports, the locations they belong to, and nothing after the last location.
TEST_F(Scripted, CommandDrivenRunsReportEachModesStepsUntilTheLastLocation) {
    connect({"--setup", "calib locations 2"});
    const struct {
        CALIBMODE mode;
        std::vector<int> steps;
        std::vector<int> locations;  // of the location and pose steps
    } cases[] = {
        {CALIB_BAR, {2, 5, 2, 5}, {1, 1, 2, 2}},
        {CALIB_SCANNER_BOARD, {3, 4, 2, 2, 7}, {1, 2}},
        {CALIB_SCANNER_POSITION, {3, 4, 6, 6}, {1, 2}},
    };
    for (const auto& c : cases) {
        const size_t from = recorder.size();
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
        EXPECT_EQ(between(from, static_cast<size_t>(mark), isResponse(179)).size(), 3u);
        std::vector<int> steps, locations;
        std::vector<std::vector<double>> translations;
        for (const auto* m : between(from, static_cast<size_t>(mark), isType(MSG_CALIBDATA))) {
            const auto& d = as<CMessage_CalibData>(m);
            const int step = d.getTrackerGrabIndex();
            steps.push_back(step);
            if (step == CALIB_STEP_LOCATION || step == CALIB_STEP_TRACKER_POSE ||
                step == CALIB_STEP_TRACKER_POSE_LONG) {
                locations.push_back(d.getLocationNumber());
            }
            if (step == CALIB_STEP_TRACKER_POSE || step == CALIB_STEP_TRACKER_POSE_LONG) {
                double R[9], t[3];
                CLBBARPOSE pose = CLBBAR_ERROR_POSE;
                d.getTrackerPose(R, t, &pose);
                expectRotation(R);
                translations.emplace_back(t, t + 3);
                EXPECT_TRUE(step != CALIB_STEP_TRACKER_POSE || pose == CLBBAR_VERTICAL_POSE);
            }
        }
        EXPECT_EQ(steps, c.steps) << "mode " << c.mode;
        EXPECT_EQ(locations, c.locations) << "mode " << c.mode;
        if (translations.size() == 2) {
            EXPECT_NE(translations[0], translations[1]) << "mode " << c.mode;
        }
    }
}

TEST_F(Scripted, ACalibrationRunPlaysEveryModesSteps) {
    connect({"--setup", "calib locations 2"});
    const std::map<int, std::vector<int>> expected = {
        {CALIB_BAR, {2, 5, 2, 5}},
        {CALIB_SCANNER, {2, 2, 7}},
        {CALIB_SCANNER_POSITION, {3, 4, 6, 6}},
        {CALIB_SCANNER_BOARD_LASER, {3, 4, 2, 2, 7}},
    };
    for (const auto& [mode, steps] : expected) {
        const size_t from = barrier();
        ASSERT_TRUE(console.control("calib run " + std::to_string(mode) + " value=-0.5"));
        const size_t to = barrier();
        std::vector<int> got;
        std::vector<int> posedAt;  // the location each pose belongs to
        for (const auto* m : between(from, to, isType(MSG_CALIBDATA))) {
            const auto& c = as<CMessage_CalibData>(m);
            got.push_back(c.getTrackerGrabIndex());
            if (c.getTrackerGrabIndex() == CALIB_STEP_TRACKER_POSE ||
                c.getTrackerGrabIndex() == CALIB_STEP_TRACKER_POSE_LONG) {
                posedAt.push_back(c.getLocationNumber());
            }
        }
        EXPECT_EQ(got, steps) << "mode " << mode;
        if (mode == CALIB_BAR || mode == CALIB_SCANNER_POSITION) {
            EXPECT_EQ(posedAt, (std::vector<int>{1, 2})) << "mode " << mode;
        }
        const auto results = between(from, to, isReceipt(RECEIPT_CALIB_RESULT));
        ASSERT_EQ(results.size(), 1u) << "mode " << mode;
        EXPECT_EQ(as<CMessage_Receipt>(results[0]).getCalibraResult(), -0.5);
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
