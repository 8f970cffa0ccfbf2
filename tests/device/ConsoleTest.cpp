// The module as a host uses it, against a real lumora_console on a private port. The console is
// steered through its control lines; its command log shows what the module sent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <regex>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"

namespace {

using namespace device;
using namespace devtest;
using sdktest::readFile;
using sdktest::writeFile;

// The kind of a state that concerns no particular device.
const int kNoKind = tagDeviceInfo().kind;

int count(const Lines& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

// --- lifecycle --------------------------------------------------------------------------------

// The console is up before init: the SDK connects during init's first 3 s wait, no console is
// started (the annex has none) and init succeeds after that wait and the settling. A second init
// keeps the one connection; clear closes it.
TEST_F(WithConsole, InitWaitsOnceForTheLinkKeepsItWhenRepeatedAndClearClosesIt) {
    ASSERT_NO_FATAL_FAILURE(startConsole({"--lowpart-version", "2.4.1"}));
    device = std::make_unique<TestDevice>(recorder);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(device->init(), RESULT_SUCCESS);
    const auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(took, platform::scaledDuration(std::chrono::milliseconds(5000)));
    EXPECT_LT(took, platform::scaledDuration(std::chrono::milliseconds(6000)) +
                        std::chrono::milliseconds(500));
    EXPECT_EQ(device->init(), RESULT_SUCCESS);
    sync();
    EXPECT_EQ(recorder->replies(REPLY_SDK_CONNECTED).size(), 1u);
    EXPECT_EQ(count(logged(), "setHeartBeatInterval 0"), 1);  // the SDK's, once per connection
    EXPECT_EQ(device->getLowpartVersion(), RESULT_SUCCESS);
    EXPECT_EQ(recorder->replies(REPLY_LOWPART_VERSION, "2.4.1").size(), 1u);

    EXPECT_EQ(device->clear(), RESULT_SUCCESS);
    EXPECT_FALSE(device->hasInit());
    EXPECT_EQ(device->getLowpartVersion(), RESULT_FAILED);
    EXPECT_EQ(device->controlLaserOn(), RESULT_SEND_REFUSED);
    EXPECT_FALSE(device->isTriggerActive());
}

// Nobody listens and the annex has no companion programs: clear ends after one search (no
// waiting for a console to end; a wait step is 500 ms at the time scale of 1 used for it), init
// fails, and once the devices come up late the SDK's own retries bring the connection before
// the next init.
TEST_F(WithConsole, WithoutAConsoleClearEndsAtOnceInitFailsAndTheNextInitFindsTheLinkUp) {
    const uint16_t port = freePort();
    const std::string endpoint = "127.0.0.1:" + std::to_string(port);
    ::setenv(SDK_NV::wire::kEndpointEnv, endpoint.c_str(), 1);
    device = std::make_unique<TestDevice>(recorder);
    const double scale = platform::timeScale();
    ASSERT_TRUE(platform::setTimeScale(1.0));
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(device->clear(), RESULT_SUCCESS);
    const auto took = std::chrono::steady_clock::now() - t0;
    platform::setTimeScale(scale);
    EXPECT_LT(took, std::chrono::milliseconds(400));

    EXPECT_EQ(device->init(), RESULT_FAILED);
    EXPECT_FALSE(device->hasInit());
    ASSERT_NO_FATAL_FAILURE(startConsole({}, port));
    ASSERT_TRUE(waitFor([&] { return device->isConnected(); }));
    EXPECT_EQ(device->init(), RESULT_SUCCESS);
    EXPECT_TRUE(device->hasInit());
}

// --- laser ------------------------------------------------------------------------------------

// A trigger's verdict follows its answer state; whatever the verdict the laser is busy (and
// refuses a second trigger and every change of what it scans) until it is switched off or an
// ending state of the trigger's own response comes. setTriggerLaser ignores the verdict but
// honours the lock.
TEST_F(WithConsole, TriggerVerdictsFollowTheAnswerStateAndTheBusyLaserRefusesChanges) {
    connect();
    const struct {
        const char* answer;
        emDeviceResult result;
    } cases[] = {
        {"answer setTrigger 5 1", RESULT_TRIGGER_TIMEOUT},
        {"answer setTrigger 3 1", RESULT_TRIGGER_REJECTED},
        {"answer setTrigger 4 1", RESULT_TRIGGER_REJECTED},
        {"answer setTrigger none 1", RESULT_NO_ANSWER},
        {"answer setTrigger 0 1", RESULT_SUCCESS},
    };
    for (const auto& c : cases) {
        control(c.answer);
        EXPECT_EQ(device->controlLaserOn(), c.result) << c.answer;
        // Whatever the verdict, the laser is busy until it is switched off.
        EXPECT_TRUE(device->isTriggerActive()) << c.answer;
        // The answer to the switch-off must not count for the next trigger.
        EXPECT_EQ(sent([&] { EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS); }),
                  Lines{"setTrigger false []"});
    }
    // The console refuses a trigger naming a device that is not there.
    ASSERT_EQ(device->setWorkingDevice({"NO-SUCH-DEVICE"}), RESULT_SUCCESS);
    EXPECT_EQ(device->controlLaserOn(), RESULT_TRIGGER_REJECTED);
    device->controlLaserOff();
    sync();
    ASSERT_EQ(device->setWorkingDevice({"SCN0001"}), RESULT_SUCCESS);

    testing::internal::CaptureStdout();
    EXPECT_EQ(sent([&] { EXPECT_EQ(device->controlLaserOn(), RESULT_SUCCESS); }),
              Lines{"setTrigger true [SCN0001]"});
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(
        std::regex_search(out, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}\] Trigger\n)")))
        << out;
    EXPECT_EQ(
        sent([&] {
            EXPECT_EQ(device->controlLaserOn(), RESULT_BUSY_SCANNING);
            EXPECT_EQ(device->setWorkingDevice({"TRK0001"}), RESULT_BUSY_SCANNING);
            EXPECT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_BUSY_SCANNING);
            EXPECT_EQ(device->setDynamicTracking(SCAN_OBJECT_MARKPOINT), RESULT_BUSY_SCANNING);
            EXPECT_EQ(device->setTrackingScanner(), RESULT_BUSY_SCANNING);
            EXPECT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_LASER), RESULT_BUSY_SCANNING);
            EXPECT_EQ(device->setStartCalibration(), RESULT_BUSY_SCANNING);
        }),
        Lines{});
    EXPECT_EQ(device->workingDevices(), Lines{"SCN0001"});
    control("response 7 200");
    control("response 154 -2");
    settle();
    EXPECT_TRUE(device->isRejected());
    EXPECT_TRUE(device->isTriggerActive());
    control("response 1 200");
    settle();
    EXPECT_FALSE(device->isTriggerActive());

    control("answer setTrigger 5 1");
    EXPECT_EQ(device->setTriggerLaser(true), RESULT_SUCCESS);
    EXPECT_EQ(device->lastCommandResult(), RESULT_TRIGGER_TIMEOUT);
    device->setLaserLock(true);
    EXPECT_TRUE(sent([&] { EXPECT_EQ(device->setTriggerLaser(false), RESULT_FAILED); }).empty());
    EXPECT_TRUE(device->isTriggerActive());
}

// --- devices and the link ---------------------------------------------------------------------

// A device's state comes from its error codes; the frame rate of its model goes out before any
// diagnosis request and reaches the host before the state. Every device leaves on `device *`.
TEST_F(WithConsole, ArrivalSetsTheFrameRateOfItsModelBeforeItsState) {
    connect();
    const struct {
        int model;
        int rate;  // 0: none
        const char* errors;
        emDeviceState state;
    } cases[] = {{1, 0, "", STATE_READY},
                 {2, 3, " errors=none", STATE_NO_STATUS},
                 {3, 5, " errors=4,3", STATE_CAMERA_OPEN_FAILED}};
    for (const auto& c : cases) {
        const std::string id = "TRK-M" + std::to_string(c.model);
        recorder->clear();
        const Lines s = sent([&] {
            control("device " + id + " on kind=tracker model=" + std::to_string(c.model) +
                    c.errors);
            settle();
        });
        Lines expected = {ev("state", c.state, DEVICE_TYPE_TRACKER, id),
                          ev("reply", REPLY_DEVICE_INFO, 0, id)};
        if (c.rate != 0) {
            expected.insert(expected.begin(), ev("highframerate", c.rate));
        }
        EXPECT_EQ(described(), expected);
        EXPECT_EQ(recorder->of("state").at(0).values.at(0), c.model);
        EXPECT_EQ(recorder->replies(REPLY_DEVICE_INFO).at(0).payloadText, id);
        const std::string rate = "setHighFrameRate " + std::to_string(c.rate);
        EXPECT_EQ(count(s, rate), c.rate != 0 ? 1 : 0);
        EXPECT_TRUE(c.rate == 0 || s.at(0) == rate) << s.at(0);
    }
    recorder->clear();
    control("device * off");
    settle();
    EXPECT_EQ(described(), (Lines{ev("state", STATE_DISCONNECTED, DEVICE_TYPE_TRACKER, "TRK0001"),
                                  ev("state", STATE_DISCONNECTED, DEVICE_TYPE_SCANNER, "SCN0001"),
                                  ev("state", STATE_DISCONNECTED, DEVICE_TYPE_TRACKER, "TRK-M1"),
                                  ev("state", STATE_DISCONNECTED, DEVICE_TYPE_TRACKER, "TRK-M2"),
                                  ev("state", STATE_DISCONNECTED, DEVICE_TYPE_TRACKER, "TRK-M3")}));
}

// Each arrival asks for the device's diagnosis at least once and goes on asking, 500 ms apart,
// until an answer came or five requests were made; the answers are handled while it waits.
TEST_F(WithConsole, EveryArrivalRequestsTheDiagnosisUntilAnswered) {
    const auto requests = [&] { return count(logged(), "getDiagnosisInfo"); };
    // The follow-ups are 500 ms apart at scale 1, and an answer that takes longer than the gap
    // rightly brings one more request. At the scale of the other tests the gap is a few
    // milliseconds, less than a round trip on a busy machine or in a sanitizer build: this test
    // runs module and console at half speed instead.
    ::setenv(platform::kTimeScaleEnv, "0.5", 1);
    ASSERT_TRUE(platform::setTimeScale(0.5));
    connect();
    EXPECT_EQ(requests(), 2) << "the two arrivals of the connection, answered at once";

    // Heartbeats bring the receiving thread round while nothing else comes.
    control("heartbeat period 50");

    // Never answered: five requests, then no more.
    control("answer getDiagnosisInfo none");
    control("device TRK0001 on");
    EXPECT_TRUE(waitFor([&] { return requests() == 7; }));
    platform::sleepMs(1500);
    EXPECT_EQ(requests(), 7);

    // Answered 1.2 s late: the answer arrives while the arrival still waits, and ends it
    // after about three requests (five would mean the answer waited behind the requests).
    control("answer getDiagnosisInfo sync=1 delay=1200");
    control("device TRK0001 on");
    EXPECT_TRUE(waitFor([&] { return requests() >= 8; }));
    platform::sleepMs(3000);
    const int late = requests() - 7;
    EXPECT_GE(late, 2);
    EXPECT_LE(late, 4);

    // The rounds are over: an arrival answered at once makes one request again (once the
    // delayed answers and follow-ups of the last round are in: the count stands still).
    control("answer getDiagnosisInfo default");
    int before = 0;
    do {
        before = requests();
        platform::sleepMs(300);
    } while (requests() != before);
    control("device SCN0001 on");
    settle();
    platform::sleepMs(1000);
    EXPECT_EQ(requests(), before + 1);
    control("heartbeat period 0");
}

// --- buttons, Wi-Fi, responses and receipts ---------------------------------------------------

// Wi-Fi texts reach the host translated when they are a whole device state; a firmware check
// and a calibration result end in the Wi-Fi report too, a signal strength does not.
TEST_F(WithConsole, ButtonsWifiResponsesAndReceiptsReachTheHost) {
    connect();
    recorder->clear();
    for (const char* line :
         {"button 51 2", "response 159 7", "response 192 7", "response 300 7", "response 20 16",
          "response 3 112 lamp  worn",
          "response 3 11",  // no calibration chosen: not a calibration state
          "receipt 9 item=laser:5 item=lamp:2 item=laser:9",
          "receipt 4 image=left:640:480:1 image=right:320:240:0",
          "receipt 1",  // a track-range level: nothing for the host
          "wifi wpa_state=ASSOCIATED", "wifi wpa_state=COMPLETED",
          "wifi wpa_state=SCANNING ",  // not a whole state text
          "receipt 14 wifi=wpa_state=DISCONNECTED", "receipt 15 value=0.5 wifi=wpa_state=SCANNING",
          "receipt 8 wifi=wpa_state=COMPLETED"}) {
        control(line);
    }
    settle();
    EXPECT_EQ(described(),
              (Lines{ev("button", BUTTON_FIRST, BUTTON_ACTION_LONG_PRESS),
                     ev("fastcali", FAST_CALI_FINISHED), ev("nodata", 0), ev("retrigger", 0),
                     ev("state", STATE_DEVICE_NOTICE, kNoKind),
                     ev("reply", REPLY_DEVICE_TEXT, 0, "lamp  worn"),
                     ev("reply", REPLY_REMAINING_RESOURCES), ev("image", 1, 640, "left"),
                     ev("image", 0, 320, "right"), ev("reply", REPLY_WIFI_STATE),
                     ev("reply", REPLY_WIFI_STATE), ev("reply", REPLY_WIFI_STATE),
                     ev("reply", REPLY_WIFI_STATE), ev("reply", REPLY_WIFI_STATE)}));
    const std::vector<Event> e = events();
    ASSERT_EQ(e.size(), 14u);
    Lines wifi;
    for (size_t i = 9; i < e.size(); ++i) {
        wifi.push_back(e[i].payloadText);
    }
    EXPECT_EQ(wifi, (Lines{"network card consulted with router ", "complete connection",
                           "wpa_state=SCANNING ", "network card disconnected",
                           "network card Scaning_Router"}));
    EXPECT_EQ(e[1].values, std::vector<double>{1});  // finished
    EXPECT_EQ(e[5].payloadText, "lamp  worn");
    EXPECT_EQ(e[6].counts, (std::map<std::string, int>{{"lamp", 2}, {"laser", 9}}));
    EXPECT_EQ(e[7].c, 480);

    // Calibration states count from mode 2 on; the device's 11, 12, 13 are the host's 13, 12, 14.
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_SCANNER), RESULT_SUCCESS);
    recorder->clear();
    control("response 3 11");
    settle();
    EXPECT_EQ(described(), Lines{});
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR), RESULT_SUCCESS);
    control("response 3 11");
    control("response 3 12");
    control("response 3 13");
    settle();
    EXPECT_EQ(described(), (Lines{ev("state", STATE_CALIB_POSE_DONE, kNoKind),
                                  ev("state", STATE_CALIB_STEP_DONE, kNoKind),
                                  ev("state", STATE_CALIB_COMPLETE, kNoKind)}));
}

// --- heartbeats -------------------------------------------------------------------------------

// Heartbeats fill each device's thermal record (the arithmetic, and a heartbeat without
// temperatures, are unit-tested) and reach the host as a balance reply and a heartbeat state
// each. The host receives the whole map once per device, in name order.
TEST_F(WithConsole, HeartbeatsFillTheThermalRecordsAndReachTheHost) {
    connect();
    control("temperature TRK0001 ramp 25 0.25");  // 25, 25.25, 25.5
    control("temperature SCN0001 seq 20 21.5");   // then 21.5 again and again
    recorder->clear();
    control("heartbeat 3 TRK0001 SCN0001");
    settle();
    EXPECT_EQ(recorder->replies(REPLY_THERMAL_BALANCE).size(), 6u);
    EXPECT_EQ(recorder->of("state").size(), 6u);
    EXPECT_EQ(ev("", recorder->of("state").at(1).a, recorder->of("state").at(1).b),
              ev("", STATE_HEARTBEAT, DEVICE_TYPE_SCANNER));
    const auto records = getThermalRecords();
    const tagDeviceThermalBalance& t = records.at("TRK0001");
    const tagDeviceThermalBalance& s = records.at("SCN0001");
    EXPECT_EQ(std::vector<float>({t.oldest, t.newest, t.temperature2, t.temperature3}),
              std::vector<float>({25.0f, 25.5f, 24.5f, 26.5f}));  // the others one below, above
    EXPECT_EQ(std::vector<float>({s.oldest, s.newest, s.temperature2}),
              std::vector<float>({20.0f, 21.5f, 20.5f}));

    recorder->clear();
    EXPECT_EQ(device->getDeviceTemperature(), RESULT_SUCCESS);
    Lines names;
    for (const Event& e : recorder->replies(REPLY_THERMAL_RECORD)) {
        names.push_back(e.text);
        EXPECT_EQ(e.values, std::vector<double>{2.0});  // the whole map
    }
    EXPECT_EQ(names, (Lines{"SCN0001", "TRK0001"}));
}

// --- commands ---------------------------------------------------------------------------------

// What each command sends, with the arguments the module chooses (the scan objects' own choice
// is unit-tested); settings out of range or not supported send nothing.
TEST_F(WithConsole, CommandsSendWhatTheirArgumentsChooseAndRefusedOnesNothing) {
    connect();
    int unused = 0;
    const Lines refused = sent([&] {
        EXPECT_EQ(device->setLEDExposure(1.01f), RESULT_OUT_OF_RANGE);
        EXPECT_EQ(device->setLEDExposure(-0.5f), RESULT_OUT_OF_RANGE);
        EXPECT_EQ(device->setLEDExposure(std::nanf("")), RESULT_OUT_OF_RANGE);
        EXPECT_EQ(device->setLaserExposure(10.5f, unused), RESULT_OUT_OF_RANGE);
        EXPECT_EQ(device->setDeviceLaserType(LASER_TYPE_UNAVAILABLE), RESULT_NOT_SUPPORTED);
        EXPECT_EQ(device->updateConfigFolder(nullptr), RESULT_NOT_SUPPORTED);
        EXPECT_EQ(device->setWorkBusiness(WORK_BUSINESS_SCAN), RESULT_SUCCESS);  // not sent
        EXPECT_EQ(device->getCalibraResult(nullptr), RESULT_INVALID_ARGUMENT);
    });
    EXPECT_EQ(refused, Lines{});
    // The largest laser exposure; the trackers' LED exposure; a blue laser (deep-hole lines in
    // red light); warm-up; scan objects; tracking the scanner; the cache (the trackers'
    // markers, then the matrices); the track previewer.
    const std::vector<std::pair<std::function<emDeviceResult()>, Lines>> cases = {
        {[&] { return device->setLaserExposure(10.0f, unused); }, {"setLaserExposure 10"}},
        {[&] { return device->setLEDExposure(1.0f); }, {"setLEDExposure 1 0"}},
        {[&] { return device->setDeviceLaserType(LASER_TYPE_BLUE_SINGLE); }, {"setLaserType 2 0"}},
        {[&] { return device->setWorkBusiness(WORK_BUSINESS_WARM_UP); }, {"setWorkBusiness 17"}},
        {[&] { return device->setScanObject(SCAN_OBJECT_SURFACE_EDGE, true); },
         {"setTrigger false []", "setIsNeedEdgePoint true", "setStartScan 1"}},
        {[&] { return device->setDynamicTracking(SCAN_OBJECT_MARKPOINT); },
         {"setTrigger false []", "setIsNeedEdgePoint false", "setDynamicScan 0"}},
        {[&] {
             device->startSuperConversionScanObject(true);
             return device->setScanObject(SCAN_OBJECT_MARKPOINT, false);
         },
         {"setTrigger false []", "setIsNeedEdgePoint false", "setWorkBusiness 25"}},
        {[&] { return device->setTrackingScanner(); }, {"setTrigger false []", "setTrackScanner"}},
        {[&] { return device->emptyCache(); }, {"clearMarkpointData 0", "setTransforRT raw()"}},
        {[&] { return device->EnterTrackPreviewer(); },
         {"setTrigger false []", "setWorkBusiness 32", "setTrigger true []", "setImageMode 10"}},
    };
    // Raw arguments as their kind only.
    const auto shape = [](Lines lines) {
        for (std::string& l : lines) {
            const size_t raw = l.find("raw(");
            l = raw == std::string::npos ? l : l.substr(0, raw) + "raw()";
        }
        return lines;
    };
    ASSERT_EQ(device->setWorkingDevice({"SCN0001"}), RESULT_SUCCESS);
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        EXPECT_EQ(shape(sent([&] { EXPECT_EQ(cases[i].first(), RESULT_SUCCESS); })),
                  cases[i].second);
    }
    EXPECT_TRUE(device->workingDevices().empty());  // the cache held them
    // The SDK's link sends a changed heartbeat interval on its own.
    device->setHeartBeatInterval(250);
    EXPECT_TRUE(waitFor([&] { return count(logged(), "setHeartBeatInterval 250") == 1; }));
}

// Commands the devices acknowledge wait for their answer and take their result from its state.
// The grabs run during a bar calibration; only the accepted one brings the bar's pose.
TEST_F(WithConsole, AcknowledgedCommandsTakeTheirResultFromTheAnswerState) {
    connect();
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR), RESULT_SUCCESS);
    ASSERT_EQ(device->setStartCalibration(), RESULT_SUCCESS);
    const auto imageMode = [&] { return device->setImageMode(IMAGE_MODE_LASER); };
    const auto region = [&] { return device->setROIErea(true); };
    const auto zAxis = [&] { return device->setZaxisCompensation(false); };
    const auto grab = [&] { return device->setGrabOneFrame(CALIBRA_POSE_VERTICAL); };
    const struct {
        const char* answer;
        std::function<emDeviceResult()> op;
        emDeviceResult result;
        const char* sends;
    } cases[] = {
        {"answer setImageMode 0 1", imageMode, RESULT_SUCCESS, "setImageMode 2"},
        {"answer setImageMode -1 1", imageMode, RESULT_FAILED, "setImageMode 2"},
        {"answer setImageMode none 1", imageMode, RESULT_FAILED, "setImageMode 2"},
        {"", imageMode, RESULT_SUCCESS, "setImageMode 2"},  // silent once only
        {"answer setROIErea 0 1", region, RESULT_SUCCESS, "setROIErea true"},
        {"answer setROIErea -1 1", region, RESULT_FAILED, "setROIErea true"},
        {"answer setZaxisCompensation none 1", zAxis, RESULT_FAILED, "setZaxisCompensation false"},
        {"answer setZaxisCompensation 0 1", zAxis, RESULT_SUCCESS, "setZaxisCompensation false"},
        {"answer setGrabOneFrame 0 1", grab, RESULT_SUCCESS, "setGrabOneFrame 2"},
        {"answer setGrabOneFrame -1 1", grab, RESULT_FAILED, "setGrabOneFrame 2"},
        {"answer setGrabOneFrame 3 1", grab, RESULT_GRAB_FRAME_FAILED, "setGrabOneFrame 2"},
        {"answer setGrabOneFrame none 1", grab, RESULT_FAILED, "setGrabOneFrame 2"},
    };
    for (const auto& c : cases) {
        if (*c.answer != '\0') {
            control(c.answer);
        }
        EXPECT_EQ(sent([&] { EXPECT_EQ(c.op(), c.result) << c.answer; }), Lines{c.sends})
            << c.answer;
    }
    // The one pose is the bar's in the grabbed position.
    std::vector<Event> poses = recorder->of("fastcali");
    poses.erase(std::remove_if(poses.begin(), poses.end(),
                               [](const Event& e) { return e.a != FAST_CALI_TRACKER_POSE; }),
                poses.end());
    ASSERT_EQ(poses.size(), 1u);
    EXPECT_EQ(poses[0].values.back(), CALIBRA_POSE_VERTICAL);
}

TEST_F(WithConsole, AirDeviceSwitchReconfiguresAndReconnects) {
    connect();
    std::vector<size_t> sizes;
    for (const char* list : {"AIR0001,AIR0002", "none"}) {
        control(std::string("answer getPripladDevices ids=") + list + " 1");
        const Lines s = sent([&] { EXPECT_EQ(device->setPriplad(false), RESULT_SUCCESS); });
        ASSERT_GE(s.size(), 3u);
        EXPECT_EQ(s[0], "getLowPartConfigs");
        EXPECT_EQ(s[1], "getPripladDevices");
        ASSERT_EQ(s[2].rfind("setLowPartConfigs raw(", 0), 0u) << s[2];
        sizes.push_back(std::stoul(s[2].substr(22)));
        EXPECT_TRUE(device->hasInit());
    }
    EXPECT_GT(sizes[0], sizes[1]);  // the air devices travel in the configuration
    // Each switch ends with a new connection; the SDK announces its interval on each.
    EXPECT_TRUE(waitFor([&] { return count(logged(), "setHeartBeatInterval 0") == 3; }));
}

// --- calibration ------------------------------------------------------------------------------

TEST_F(WithConsole, CalibrationStartsByMode) {
    connect();
    EXPECT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_NONE), RESULT_INVALID_ARGUMENT);
    const std::string images = annex + "/images/run1";
    ASSERT_EQ(device->setImagesSavePath(platform::widePath(images)), RESULT_SUCCESS);
    const struct {
        emDeviceCalibraMode mode;  // NONE: none chosen
        Lines own;
    } cases[] = {
        {CALIBRA_MODE_NONE, {"setCalibrationMode 1"}},
        {CALIBRA_MODE_SCAN_CHECK, {"setStartScan 0"}},
        {CALIBRA_MODE_TRACKER_BAR, {"setCalibrationMode 8", "getCalibLocationStep 0"}},
        {CALIBRA_MODE_LASER,
         {"getCalibBoardSize", "setCalibrationMode 9", "getCalibLocationStep 1"}},
        {CALIBRA_MODE_FAR_LASER,
         {"getCalibBoardSize", "setCalibrationMode 10", "getCalibLocationStep 1"}},
        {CALIBRA_MODE_SCANNER_POSITION, {"getCalibBoardSize", "setCalibrationMode 5"}},
    };
    for (const auto& c : cases) {
        if (c.mode != CALIBRA_MODE_NONE) {
            ASSERT_EQ(device->setDeviceCalibraMode(c.mode), RESULT_SUCCESS);
            EXPECT_EQ(device->calibraValue(), -1.0);
        }
        ASSERT_EQ(device->setWorkingDevice({"SCN0001"}), RESULT_SUCCESS);
        Lines expected = {"setTrigger false []", "setLEDExposure 0 1", "setLaserExposure 0"};
        expected.insert(expected.end(), c.own.begin(), c.own.end());
        expected.push_back("setTrigger true [SCN0001]");
        EXPECT_EQ(sent([&] { EXPECT_EQ(device->setStartCalibration(), RESULT_SUCCESS); }), expected)
            << "mode " << c.mode;
        EXPECT_FALSE(device->isTriggerActive());  // a calibration does not make the laser busy
        // Stopping forgets the working devices and the mode.
        EXPECT_EQ(sent([&] { device->setStopCalibration(); }), Lines{"setTrigger false []"});
        EXPECT_TRUE(device->workingDevices().empty());
        EXPECT_EQ(device->calibraMode(), CALIBRA_MODE_NONE);
    }
    EXPECT_TRUE(platform::directoryExists(images));
}

// A run of each mode with two locations, as the console plays it on `calib run`: the steps
// that reach the host, in order, with the locations, lattice, board and grab index they carry.
TEST_F(WithConsole, CalibrationDataReachesTheHost) {
    connect({"--setup", "calib locations 2"});
    const int lattice = FAST_CALI_BOARD_LATTICE, board = FAST_CALI_SCANNER_BOARD,
              location = FAST_CALI_LOCATION, pose = FAST_CALI_TRACKER_POSE,
              poseLong = FAST_CALI_TRACKER_POSE_LONG, scanner = FAST_CALI_SCANNER_DATA;
    const std::map<int, std::vector<int>> runs = {
        {8, {location, pose, location, pose}},                // tracker bar
        {1, {location, location, scanner}},                   // scanner
        {9, {lattice, board, location, location, scanner}},   // scanner on the board
        {10, {lattice, board, location, location, scanner}},  // the same with the laser
        {5, {lattice, board, poseLong, poseLong}}};           // scanner position
    std::map<int, std::vector<Event>> got;
    for (const auto& [mode, kinds] : runs) {
        recorder->clear();
        control("calib run " + std::to_string(mode));
        settle();
        std::vector<int> seen;
        for (const Event& e : recorder->of("fastcali")) {
            seen.push_back(e.a);
            got[mode].push_back(e);
        }
        EXPECT_EQ(seen, kinds) << "mode " << mode;
    }
    ASSERT_EQ(got[8].size(), 4u);
    EXPECT_EQ(got[8][2].values, std::vector<double>{2});  // the location
    ASSERT_EQ(got[5].size(), 4u);
    std::vector<Event> e = got[5];
    EXPECT_EQ(e[0].values, (std::vector<double>{9, 11}));
    EXPECT_EQ(e[1].values, (std::vector<double>{9, 11, 20, 20, 3}));
    EXPECT_EQ(std::vector<double>(e[3].values.end() - 2, e[3].values.end()),
              (std::vector<double>{6, 2}));  // step number as grab index, then the location

    // A laser calibration asks for the board: a scripted answer's data (once), then the
    // console's own.
    control("answer getCalibBoardSize rows=7 cols=5 board=7,5,15,15,2 1");
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_LASER), RESULT_SUCCESS);
    for (const std::vector<double>& expected :
         {std::vector<double>{7, 5, 15, 15, 2}, std::vector<double>{9, 11, 20, 20, 3}}) {
        recorder->clear();
        ASSERT_EQ(device->setStartCalibration(), RESULT_SUCCESS);
        sync();
        e = recorder->of("fastcali");
        ASSERT_GE(e.size(), 2u);
        EXPECT_EQ(e[0].values, std::vector<double>(expected.begin(), expected.begin() + 2));
        EXPECT_EQ(e[1].values, expected);
    }
    device->setStopCalibration();

    recorder->clear();
    control("calib 5 pose=vertical rotation=0,1,0,-1,0,0,0,0,1 translation=10,20,30");
    control("calib 7 result=3 rows=2 cols=3 unseen=2");
    settle();
    e = recorder->of("fastcali");
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].values,
              (std::vector<double>{0, 1, 0, -1, 0, 0, 0, 0, 1, 10, 20, 30, CALIBRA_POSE_VERTICAL}));
    const tagClbScannerCalibData& data = e[1].scannerCalib;
    EXPECT_EQ(data.index, 3);
    EXPECT_EQ(data.rows, 2);
    EXPECT_EQ(data.columns, 3);
    EXPECT_EQ(data.lattice, (std::vector<bool>{true, true, true, true, false, false}));
    // The console's second camera: focal length 2403, turned 20 degrees, 180 mm aside.
    EXPECT_EQ(data.cameras[1].rows[0][0], 2403.0);
    EXPECT_NEAR(data.cameras[1].vectors[0][1], 20.0 * M_PI / 180.0, 1e-12);
    EXPECT_EQ(data.cameras[1].vectors[1][0], -180.0);
    EXPECT_EQ(data.cameras[0].vectors[1][0], 0.0);

    // The steps that carry nothing reach no one.
    recorder->clear();
    control("calib 1");
    control("calib 8");
    control("calib 3");  // a step that does carry data, behind them
    settle();
    e = recorder->of("fastcali");
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].a, FAST_CALI_BOARD_LATTICE);
}

TEST_F(WithConsole, CalibrationResultGives0For0And9ForNegativeAnd13WithoutAnswer) {
    connect();
    const struct {
        emDeviceCalibraMode mode;
        const char* answer;
        emDeviceResult result;
        float value;
        const char* reload;  // the parameters reloaded afterwards, if any
    } cases[] = {
        {CALIBRA_MODE_TRACKER_BAR, "answer getCalibraResult value=0.0 1", RESULT_SUCCESS, 0.0f,
         "setCalibReloadParams 0"},
        {CALIBRA_MODE_LASER, "answer getCalibraResult value=0.25 1", RESULT_SUCCESS, 0.25f,
         "setCalibReloadParams 1"},
        {CALIBRA_MODE_TRACKER_BAR, "answer getCalibraResult value=-0.5 1", RESULT_CALIB_NEGATIVE,
         -0.5f, nullptr},
        {CALIBRA_MODE_TRACKER_BAR, "answer getCalibraResult none 1", RESULT_NO_ANSWER, -1.0f,
         nullptr},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(device->setDeviceCalibraMode(c.mode), RESULT_SUCCESS);
        control(c.answer);
        float value = 7.0f;
        Lines expected = {"setTrigger false []", "getCalibraResult"};
        if (c.reload != nullptr) {
            expected.push_back(c.reload);
        }
        EXPECT_EQ(sent([&] { EXPECT_EQ(device->getCalibraResult(&value), c.result) << c.answer; }),
                  expected)
            << c.answer;
        EXPECT_EQ(value, c.value) << c.answer;
        EXPECT_EQ(device->calibraMode(), CALIBRA_MODE_NONE);
    }
}

TEST_F(WithConsole, CalibrationFilesOfEveryMode) {
    connect();
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_NO_CALIBRA_MODE);
    const std::string installed = annex + "/Lumora/Calibration/";
    const std::wstring cam = platform::widePath(annex + "/cam");
    const std::wstring laser = platform::widePath(annex + "/laser");
    writeFile(annex + "/cam/ScannerCamera.clb", "camera");
    writeFile(annex + "/laser/Laser.clb", "laser");

    // Laser modes take the camera file from the first folder, the laser's from the second.
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_LASER), RESULT_SUCCESS);
    EXPECT_EQ(device->setCalibrationDevice(cam.c_str(), nullptr), RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(device->setCalibrationDevice(cam.c_str(), laser.c_str()), RESULT_SUCCESS);
    EXPECT_EQ(readFile(installed + "ScannerCamera.clb") + readFile(installed + "Laser.clb"),
              "cameralaser");
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_FAR_LASER), RESULT_SUCCESS);
    EXPECT_EQ(device->setCalibrationDevice(cam.c_str(), laser.c_str()),
              RESULT_FAILED);  // no FarLaser.clb

    // The bar's file comes from the documents without a folder, in the set of the version.
    writeFile(annex + "/Documents/Lumora/Calibration/TrackerBar.clb", "bar v1");
    writeFile(annex + "/Documents/Lumora/Calibration/TrackerBar_V2.clb", "bar v2");
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR), RESULT_SUCCESS);
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_SUCCESS);
    EXPECT_EQ(readFile(installed + "TrackerBar.clb"), "bar v1");
    // Every copy asks for the version and takes the last one known: the answers must agree.
    sync();
    control("answer getLowpartVersion version=2.0.7");
    control("receipt 10 version=2.0.7");
    settle();
    EXPECT_EQ(device->setCalibrationDevice(nullptr, nullptr), RESULT_SUCCESS);
    EXPECT_EQ(readFile(installed + "TrackerBar_V2.clb"), "bar v2");
}

// --- scan frames --------------------------------------------------------------------------------

// Every frame of a marker scan reaches the host once, with the acquisition code of a marker
// acquisition and the percentage jumping from 0 to 100 at the 15th frame of the trigger.
TEST_F(WithConsole, ScanFramesCarryPercentageAcquisitionCodeAndValidMarkers) {
    connect();
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001"}), RESULT_SUCCESS);
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_MARKPOINT, false), RESULT_SUCCESS);
    scan(20);
    sync();
    const std::vector<Frame> got = recorder->frames();
    const int first = got.front()->frameId;
    for (size_t i = 0; i < got.size(); ++i) {
        const tagDeviceData& d = *got[i];
        EXPECT_EQ(d.frameId, first + static_cast<int>(i));  // none lost, none twice
        EXPECT_EQ(d.percentage, d.frameId - first + 1 >= 15 ? 100 : 0) << i;
        EXPECT_EQ(d.acquisitionCode, 2);
        EXPECT_FALSE(d.markerIds.empty());
        EXPECT_EQ(d.markerPoints.size(), 3 * d.markerIds.size());
        EXPECT_EQ(d.markerDiameters.size(), d.markerIds.size());
    }

    // A transfer measurement consumes every frame of the tracker it measures: without a
    // reference set nothing registers, the poll runs out, and the host sees no frame.
    testing::internal::CaptureStdout();
    const emDeviceResult r = device->getTransferMatrix();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(r == RESULT_SUCCESS || r == RESULT_FAILED) << r;
    EXPECT_NE(out.find("Tracker ID:TRK0001\n"), std::string::npos) << out;
    sync();
    EXPECT_EQ(recorder->frames().size(), got.size());
    EXPECT_NE(count(logged(), "setTrigger true [TRK0001]"), 0);
    EXPECT_TRUE(device->transferMatrices().empty());
}

}  // namespace
