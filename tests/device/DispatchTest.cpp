// The receive path without a link: SDK messages built here are handed to RecvMessageFn (or a
// handler) directly and the host callbacks are checked.
#include <gtest/gtest.h>

#include <filesystem>

#include "DeviceTestSupport.h"
#include "ModuleState.h"
#include "sdk/Messages.h"

namespace {

using namespace device;
using devtest::Event;

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        recorder = std::make_shared<devtest::Recorder>();
        device = std::make_unique<devtest::TestDevice>(recorder);
        resetThermalRecords();
    }
    void TearDown() override {
        device.reset();
        std::filesystem::remove_all(annex);
    }
    void deliver(SDK_NV::CMessage_Base& m) { device->RecvMessageFn(&m); }
    void deliverResponse(int code, int state, const std::string& text = {}) {
        deliver(*devtest::response(code, state, text));
    }

    std::string annex;
    std::shared_ptr<devtest::Recorder> recorder;
    std::unique_ptr<devtest::TestDevice> device;
};

// --- connection, devices, buttons -------------------------------------------------------------

TEST_F(Dispatch, ConnectionMessagesSetTheFlagAndReply) {
    SDK_NV::CMessage_Connect up;
    up.setConnect(true);
    deliver(up);
    EXPECT_TRUE(device->isConnected());
    SDK_NV::CMessage_Connect down;
    deliver(down);
    EXPECT_FALSE(device->isConnected());
    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].a, REPLY_SDK_CONNECTED);
    EXPECT_EQ(replies[1].a, REPLY_SDK_DISCONNECTED);
    EXPECT_TRUE(recorder->of("state").empty());  // no device was known
}

SDK_NV::CMessage_Device arrival(const std::string& id, int model) {
    SDK_NV::CMessage_Device m;
    m.setConnect(true);
    lumora::DeviceInfo info;
    info.set_id(id);
    info.set_dtype(lumora::TRACKER);
    info.set_trackertype(model);
    info.add_errcodes(lumora::SUCCESS_ERR);
    m.setDeviceInfo(info);
    return m;
}

TEST_F(Dispatch, Model3ArrivalSetsHighFrameRate5BeforeTheState) {
    SDK_NV::CMessage_Device m = arrival("TRK-3", 3);
    deliver(m);
    const auto events = recorder->events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].what, "highframerate");
    EXPECT_EQ(events[0].a, 5);
    EXPECT_EQ(events[1].what, "state");
    EXPECT_EQ(events[1].a, STATE_READY);
    EXPECT_EQ(events[1].b, DEVICE_TYPE_TRACKER);
    EXPECT_EQ(events[1].text, "TRK-3");
    EXPECT_EQ(events[2].what, "reply");
    EXPECT_EQ(events[2].a, REPLY_DEVICE_INFO);
    EXPECT_EQ(events[2].text, "TRK-3");
    EXPECT_EQ(events[2].payloadText, "TRK-3");
}

TEST_F(Dispatch, FrameRateDependsOnTheModel) {
    SDK_NV::CMessage_Device two = arrival("A", 2);
    deliver(two);
    SDK_NV::CMessage_Device one = arrival("B", 1);
    deliver(one);
    const auto rates = recorder->of("highframerate");
    ASSERT_EQ(rates.size(), 1u);
    EXPECT_EQ(rates[0].a, 3);
}

TEST_F(Dispatch, DepartureReportsDisconnectedWithTypeAndSerial) {
    SDK_NV::CMessage_Device m;
    m.setConnect(false);
    m.setDeviceType(SDK_NV::DEVICE_SCANNER);
    m.setDeviceSN("SCN-9");
    deliver(m);
    const auto events = recorder->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].a, STATE_DISCONNECTED);
    EXPECT_EQ(events[0].b, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(events[0].text, "SCN-9");
}

TEST_F(Dispatch, Button51LongPressIsButton0Action2) {
    SDK_NV::CMessage_Button m;
    m.setButtonCode(51);
    m.setButtonAction(2);
    deliver(m);
    const auto buttons = recorder->of("button");
    ASSERT_EQ(buttons.size(), 1u);
    EXPECT_EQ(buttons[0].a, BUTTON_FIRST);
    EXPECT_EQ(buttons[0].b, BUTTON_ACTION_LONG_PRESS);
}

TEST_F(Dispatch, UndispatchedTypesAndKindsReportNothing) {
    SDK_NV::CMessage_FrameData frame;
    deliver(frame);
    SDK_NV::CMessage_LightpenData pen;
    deliver(pen);
    SDK_NV::CMessage_Receipt receipt;
    receipt.setReceiptKind(24);
    deliver(receipt);
    receipt.setReceiptKind(SDK_NV::RECEIPT_TRACK_RANGE);
    deliver(receipt);
    device->RecvMessageFn(nullptr);
    EXPECT_TRUE(recorder->events().empty());
}

// --- receipts ---------------------------------------------------------------------------------

SDK_NV::CMessage_Receipt wifiReceipt(int kind, const std::string& text) {
    SDK_NV::CMessage_Receipt m;
    m.setReceiptKind(kind);
    SDK_NV::tagWIFIConnectInfo wifi;
    wifi.strEventMessage = text;
    m.setWIFIConnectInfo(wifi);
    return m;
}

TEST_F(Dispatch, WifiReceiptRepliesTheTranslatedText) {
    SDK_NV::CMessage_Receipt m = wifiReceipt(SDK_NV::RECEIPT_WIFI_CONNECT, "wpa_state=COMPLETED");
    deliver(m);
    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].a, REPLY_WIFI_STATE);
    EXPECT_EQ(replies[0].payloadText, "complete connection");
}

TEST_F(Dispatch, FirmwareCheckRunsOnIntoTheWifiReport) {
    testing::internal::CaptureStdout();
    SDK_NV::CMessage_Receipt m = wifiReceipt(SDK_NV::RECEIPT_FIRMWARE_CHECK, "");
    deliver(m);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("test\n"), std::string::npos);
    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].a, REPLY_WIFI_STATE);
    EXPECT_EQ(replies[0].payloadText, "");
}

TEST_F(Dispatch, CalibrationResultIsStoredAndAlsoEndsInAWifiReport) {
    SDK_NV::CMessage_Receipt m = wifiReceipt(SDK_NV::RECEIPT_CALIB_RESULT, "wpa_state=SCANNING ");
    m.setCalibraResult(0.25);
    detail::moduleFlags().calibraResultReady.store(false);
    deliver(m);
    EXPECT_TRUE(detail::moduleFlags().calibraResultReady.exchange(false));
    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].payloadText, "wpa_state=SCANNING ");  // trailing blank: untranslated
}

TEST_F(Dispatch, RemainingResourcesLaterEntryWins) {
    SDK_NV::CMessage_Receipt m;
    m.setReceiptKind(SDK_NV::RECEIPT_REMAINING_RGF);
    SDK_NV::tagRemainingRGFs list;
    list.vecRGF.resize(3);
    list.vecRGF[0].strName = "laser";
    list.vecRGF[0].nCount = 5;
    list.vecRGF[1].strName = "lamp";
    list.vecRGF[1].nCount = 2;
    list.vecRGF[2].strName = "laser";
    list.vecRGF[2].nCount = 9;
    m.setRemainingRGF(list);
    deliver(m);
    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].a, REPLY_REMAINING_RESOURCES);
    const std::map<std::string, int> expected = {{"lamp", 2}, {"laser", 9}};
    EXPECT_EQ(replies[0].counts, expected);
}

TEST_F(Dispatch, DiagnosisReceiptSetsTheModuleFlags) {
    SDK_NV::CMessage_Receipt m;
    m.setReceiptKind(SDK_NV::RECEIPT_DIAGNOSIS);
    lumora::DiagnosticInfo d;
    d.add_trackerdiagnosticinfo()->set_biscamtrigger(true);
    m.setDiagnosisInfo(d);
    detail::moduleFlags().diagnosisReceived.store(false);
    deliver(m);
    EXPECT_TRUE(detail::moduleFlags().diagnosisReceived.exchange(false));
    EXPECT_TRUE(detail::moduleFlags().diagnosisState.load());
}

TEST_F(Dispatch, HeartbeatReceiptUpdatesTheThermalMapAndReports) {
    SDK_NV::CMessage_Receipt m;
    m.setReceiptKind(SDK_NV::RECEIPT_HEARTBEAT);
    SDK_NV::tagHeartData a;
    a.kind = 0;
    a.name = "TRK";
    a.temp = {30.0f, 31.0f, 32.0f};
    SDK_NV::tagHeartData b = a;
    b.kind = 1;
    b.name = "SCN";
    m.setHeartData({a, b});
    deliver(m);
    deliver(m);

    const auto replies = recorder->of("reply");
    ASSERT_EQ(replies.size(), 4u);
    EXPECT_EQ(replies[2].a, REPLY_THERMAL_BALANCE);
    EXPECT_EQ(replies[2].text, "TRK");
    EXPECT_EQ(replies[2].thermal.samples.size(), 2u);  // the map keeps the samples
    const auto states = recorder->of("state");
    ASSERT_EQ(states.size(), 4u);
    EXPECT_EQ(states[0].a, STATE_HEARTBEAT);
    EXPECT_EQ(states[0].b, DEVICE_TYPE_TRACKER);
    EXPECT_EQ(states[1].b, DEVICE_TYPE_SCANNER);
    EXPECT_EQ(states[1].text, "SCN");

    recorder->clear();
    EXPECT_EQ(device->getDeviceTemperature(), RESULT_SUCCESS);
    const auto records = recorder->of("reply");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "SCN");  // key order
    EXPECT_EQ(records[1].text, "TRK");
    EXPECT_EQ(records[0].a, REPLY_THERMAL_RECORD);
    EXPECT_EQ(records[0].values, std::vector<double>{2.0});
}

TEST_F(Dispatch, TemperatureWithoutHeartbeatsFails) {
    EXPECT_EQ(device->getDeviceTemperature(), RESULT_FAILED);
    EXPECT_TRUE(recorder->events().empty());
}

TEST_F(Dispatch, CameraImagesReportCameraWidthHeightAndName) {
    SDK_NV::CMessage_Receipt m;
    m.setReceiptKind(SDK_NV::RECEIPT_CAMERA_IMAGES);
    SDK_NV::tagCameraImageList list;
    list.vecImages.resize(2);
    list.vecImages[0].strName = "left";
    list.vecImages[0].nWidth = 640;
    list.vecImages[0].nHeight = 480;
    list.vecImages[0].nCameraIndex = 1;
    list.vecImages[1].strName = "right";
    m.setCameraImages(list);
    deliver(m);
    const auto images = recorder->of("image");
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].a, 1);
    EXPECT_EQ(images[0].b, 640);
    EXPECT_EQ(images[0].c, 480);
    EXPECT_EQ(images[0].text, "left");
    EXPECT_EQ(images[1].text, "right");
}

// --- responses --------------------------------------------------------------------------------

TEST_F(Dispatch, TriggerTimeoutStateGives7AndOneLine) {
    testing::internal::CaptureStdout();
    deliverResponse(1, 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[pathfinder] trigger device timeout\n");
    EXPECT_EQ(device->lastCommandResult(), RESULT_TRIGGER_TIMEOUT);
    deliverResponse(1, 3);
    EXPECT_EQ(device->lastCommandResult(), RESULT_TRIGGER_REJECTED);
    deliverResponse(1, 0);
    EXPECT_EQ(device->lastCommandResult(), RESULT_SUCCESS);
    deliverResponse(1, 4);
    EXPECT_EQ(device->lastCommandResult(), RESULT_TRIGGER_REJECTED);
}

TEST_F(Dispatch, RejectionResponseSetsOnlyTheRejectFlag) {
    deliverResponse(1, 3);
    deliverResponse(154, -2);
    EXPECT_TRUE(device->isRejected());
    EXPECT_EQ(device->lastCommandResult(), RESULT_TRIGGER_REJECTED);
    EXPECT_TRUE(recorder->events().empty());
}

TEST_F(Dispatch, CalibrationStatesNeedACalibrationMode) {
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_SCANNER), RESULT_SUCCESS);
    deliverResponse(3, 11);
    EXPECT_TRUE(recorder->events().empty());
    ASSERT_EQ(device->setDeviceCalibraMode(CALIBRA_MODE_TRACKER_BAR), RESULT_SUCCESS);
    deliverResponse(3, 11);
    deliverResponse(3, 12);
    deliverResponse(3, 13);
    const auto states = recorder->of("state");
    ASSERT_EQ(states.size(), 3u);
    EXPECT_EQ(states[0].a, STATE_CALIB_POSE_DONE);  // 11 -> 13
    EXPECT_EQ(states[1].a, STATE_CALIB_STEP_DONE);  // 12 -> 12
    EXPECT_EQ(states[2].a, STATE_CALIB_COMPLETE);   // 13 -> 14
}

TEST_F(Dispatch, EventCodesReachTheHost) {
    deliverResponse(159, 7);
    deliverResponse(192, 7);
    deliverResponse(300, 7);
    deliverResponse(20, 16);
    deliverResponse(20, 112, "lamp worn");
    const auto events = recorder->events();
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[0].what, "fastcali");
    EXPECT_EQ(events[0].a, FAST_CALI_FINISHED);
    EXPECT_EQ(events[0].values, std::vector<double>{1.0});
    EXPECT_EQ(events[1].what, "nodata");
    EXPECT_EQ(events[2].what, "retrigger");
    EXPECT_EQ(events[3].a, STATE_DEVICE_NOTICE);
    EXPECT_EQ(events[4].a, REPLY_DEVICE_TEXT);
    EXPECT_EQ(events[4].text, "lamp worn");
    EXPECT_EQ(events[4].payloadText, "lamp worn");
}

// --- calibration data -------------------------------------------------------------------------

TEST_F(Dispatch, CalibrationStepsBecomeFastCalibrationKinds) {
    SDK_NV::CMessage_CalibData m;
    m.setLocationNumber(4);
    m.setBoardLattice(7, 9);
    m.setScannerBoard({1.5, 2.5, 3.5});
    const double rotation[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
    const double translation[3] = {10, 20, 30};
    m.setTrackerPose(rotation, translation, SDK_NV::CLBBAR_VERTICAL_POSE);
    for (int step = 1; step <= 8; ++step) {
        m.setTrackerGrabIndex(step);
        device->CallBack_Calibrate(&m);
    }
    const auto events = recorder->of("fastcali");
    ASSERT_EQ(events.size(), 6u);  // steps 1 and 8 report nothing
    EXPECT_EQ(events[0].a, FAST_CALI_LOCATION);
    EXPECT_EQ(events[0].values, std::vector<double>{4});
    EXPECT_EQ(events[1].a, FAST_CALI_BOARD_LATTICE);
    EXPECT_EQ(events[1].values, (std::vector<double>{7, 9}));
    EXPECT_EQ(events[2].a, FAST_CALI_SCANNER_BOARD);
    EXPECT_EQ(events[2].values, (std::vector<double>{1.5, 2.5, 3.5}));
    EXPECT_EQ(events[3].a, FAST_CALI_TRACKER_POSE);
    const std::vector<double> pose = {0, 1, 0, -1, 0, 0, 0, 0, 1, 10, 20, 30, 2};
    EXPECT_EQ(events[3].values, pose);
    EXPECT_EQ(events[4].a, FAST_CALI_TRACKER_POSE_LONG);
    std::vector<double> longPose = pose;
    longPose.push_back(6);
    longPose.push_back(4);
    EXPECT_EQ(events[4].values, longPose);
    EXPECT_EQ(events[5].a, FAST_CALI_SCANNER_DATA);
}

TEST_F(Dispatch, ScannerCalibrationCarriesCamerasAndLatticeMask) {
    SDK_NV::CMessage_CalibData m;
    m.setTrackerGrabIndex(SDK_NV::CALIB_STEP_SCANNER_CALIB);
    SDK_NV::tagCalibData data;
    data.nResult = 1;
    data.nRows = 2;
    data.nCols = 3;
    data.camera[1].dMatrix[2][3] = 7.0;
    data.camera[0].dRotationVector[1] = 0.5;
    data.camera[1].dTranslation[2] = -4.0;
    data.vecLattice = {1, 0, 2, 0, 0, 1};
    m.setScannerCalib(data);
    device->RecvMessageFn(&m);

    data.nRows = 3;  // more cells than bytes: no mask
    m.setScannerCalib(data);
    device->RecvMessageFn(&m);

    const auto events = recorder->of("fastcali");
    ASSERT_EQ(events.size(), 2u);
    const tagClbScannerCalibData& out = events[0].scannerCalib;
    EXPECT_EQ(out.index, 1);
    EXPECT_EQ(out.rows, 2);
    EXPECT_EQ(out.columns, 3);
    EXPECT_EQ(out.cameras[1].rows[2][3], 7.0);
    EXPECT_EQ(out.cameras[0].vectors[0][1], 0.5);
    EXPECT_EQ(out.cameras[1].vectors[1][2], -4.0);
    EXPECT_EQ(out.lattice, (std::vector<bool>{true, false, true, false, false, true}));
    EXPECT_TRUE(events[1].scannerCalib.lattice.empty());
}

}  // namespace
