// Conversions that need no device (error codes, buttons, scan objects, Wi-Fi texts, wire device
// records, the thermal balance), the module's own identity, and the receive path with messages
// no device sends (built here and handed to RecvMessageFn).
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <regex>

#include "DeviceTestSupport.h"
#include "Mappings.h"
#include "device/Pathfinder.h"
#include "device/TypeTransfer.h"
#include "lumora.pb.h"
#include "platform/Platform.h"
#include "sdk/Messages.h"
#include "sdk/Records.h"

namespace {

using namespace device;
using detail::ScanObjectPlan;

// Every code of a table, its neighbours and the int limits: codes outside the table fail (1).
void expectTable(emDeviceResult (*map)(const int&), const std::map<int, int>& table) {
    for (int code : {-2147483647 - 1, -1000, -10, -9, -8, -7, -6, -5, -4, -3, -2, -1, 0, 1, 2, 5,
                     201, 2147483647}) {
        const auto it = table.find(code);
        EXPECT_EQ(map(code), it != table.end() ? it->second : 1) << "code " << code;
    }
}

TEST(ErrorCodeMappers, EachCalibrationAndTrackingTableMapsItsCodesAndFailsTheRest) {
    expectTable(&TypeTransfer::barCalibErrorCodeTransfer, {{0, 0},
                                                           {-1, 201},
                                                           {-2, 202},
                                                           {-3, 203},
                                                           {-4, 204},
                                                           {-5, 205},
                                                           {-6, 206},
                                                           {-7, 207},
                                                           {-8, 208}});
    // Three codes out of order, and zero fails.
    expectTable(&TypeTransfer::laserCalibErrorCodeTransfer, {{-2, 301}, {-1, 302}, {-3, 303}});
    expectTable(&TypeTransfer::scannerPositionCalibErrorCodeTransfer, {{0, 0}, {-5, 401}});
    expectTable(&TypeTransfer::trackMarkPointErrorCodeTransfer, {{-1, 504}, {-2, 507}});
}

TEST(ButtonMapping, DeviceCodesBecomeHostButtonsAndUnknownOnesAreNeutral) {
    const std::pair<int, int> buttons[] = {{49, BUTTON_MAIN},   {51, BUTTON_FIRST},
                                           {53, BUTTON_SECOND}, {55, BUTTON_THIRD},
                                           {50, BUTTON_NONE},   {0, BUTTON_NONE}};
    for (const auto& b : buttons) {
        EXPECT_EQ(detail::buttonFromCode(b.first), b.second) << b.first;
    }
    EXPECT_EQ(detail::buttonActionFromCode(2), BUTTON_ACTION_LONG_PRESS);
    EXPECT_EQ(detail::buttonActionFromCode(3), BUTTON_ACTION_NONE);
    EXPECT_EQ(detail::buttonActionFromCode(-1), BUTTON_ACTION_NONE);
}

// The mode flags a plan sets, by name.
std::string flags(const ScanObjectPlan& p) {
    std::string out;
    for (const auto& [set, name] : {std::pair<bool, const char*>{p.dynamicMarker != 0, "dynamic "},
                                    {p.markerObject != 0, "marker "},
                                    {p.objectScan, "object "},
                                    {p.holeObject, "hole "},
                                    {p.edgePoints, "edges "},
                                    {p.businessObject, "business "},
                                    {p.needEdgePoint, "need-edges "}}) {
        out += set ? name : "";
    }
    return out;
}

TEST(ScanObjectMapping, EachObjectSetsItsFlagsAndChoosesOneCommand) {
    using P = ScanObjectPlan;
    const struct {
        emScanObject object;
        bool dynamic, superConversion;
        P::Command command;
        int argument;
        const char* flags;
    } cases[] = {
        {SCAN_OBJECT_MARKPOINT, false, false, P::StartScan, 0, "marker "},
        {SCAN_OBJECT_MARKPOINT, false, true, P::WorkBusiness, 25, "marker "},
        {SCAN_OBJECT_MARKPOINT, true, true, P::DynamicScan, 0, "dynamic marker "},
        {SCAN_OBJECT_SURFACE, false, true, P::StartScan, 1, "object "},
        {SCAN_OBJECT_METAL_HOLE, false, false, P::StartScan, 2, "hole "},
        {SCAN_OBJECT_RIVET_HOLE, true, false, P::DynamicScan, 3, "hole "},
        {SCAN_OBJECT_SURFACE_EDGE, false, false, P::StartScan, 1, "object edges need-edges "},
        {SCAN_OBJECT_EDGE, false, false, P::WorkBusiness, 30, "business "},
        {SCAN_OBJECT_EDGE, true, false, P::WorkBusiness, 31, "business "},
        {SCAN_OBJECT_NONE, false, false, P::None, 0, ""},
    };
    for (const auto& c : cases) {
        const P p = detail::planScanObject(c.object, c.dynamic, c.superConversion);
        const std::string what = "object " + std::to_string(c.object) +
                                 (c.dynamic ? " dynamic" : "") +
                                 (c.superConversion ? " super" : "");
        EXPECT_EQ(p.command, c.command) << what;
        EXPECT_EQ(p.argument, c.argument) << what;
        EXPECT_EQ(flags(p), c.flags) << what;
    }
}

TEST(WifiText, WholeDeviceStatesAreTranslatedAndOtherTextsKept) {
    const std::pair<const char*, const char*> table[] = {
        {"wpa_state=INTERFACE_DISABLED", "unavailable Network Card"},
        {"wpa_state=SCANNING", "network card Scaning_Router"},
        {"wpa_state=ASSOCIATING", "network card consulting with router"},
        {"wpa_state=GROUP_HANDSHAKE", "network card shaking hands with router"},
        {"wpa_state=4WAY_HANDSHAKE", "network card shaking hands with router"},
        {"wpa_state=DISCONNECTING", "network card disconnecting"},
        {"wpa_state=DISCONNECTED", "network card disconnected"},
        {"wpa_state=ASSOCIATED", "network card consulted with router "},
        {"wpa_state=COMPLETED", "complete connection"},
        {"wpa_state=SCANNING ", "wpa_state=SCANNING "},
        {"WPA_STATE=SCANNING", "WPA_STATE=SCANNING"},
        {"wpa_state=", "wpa_state="},
        {"", ""},
    };
    for (const auto& row : table) {
        std::string text = row.first;
        EXPECT_EQ(CPathfinder::GetWifiConnectTransferInfo(text), RESULT_SUCCESS);
        EXPECT_EQ(text, row.second);
    }
}

// The state comes from the error codes, the last match winning; a long identifier fills the
// serial without a terminator.
TEST(WireDeviceRecord, ErrorCodesDecideTheStateAndTheSerialIsCut) {
    const struct {
        std::vector<int> codes;
        int state;
    } cases[] = {{{3, 4}, STATE_USB_START_FAILED},
                 {{4, 3}, STATE_CAMERA_OPEN_FAILED},
                 {{9}, STATE_READY},
                 {{}, STATE_NO_STATUS}};
    for (const auto& c : cases) {
        lumora::DeviceInfo wire;
        wire.set_id("T-0001");
        wire.set_dtype(lumora::TRACKER);
        wire.set_trackertype(3);
        for (int code : c.codes) {
            wire.add_errcodes(static_cast<lumora::LUMORA_STATE>(code));
        }
        tagDeviceInfo info;
        tpGetDeviceInfo(wire, info);
        EXPECT_EQ(info.state, c.state);
        EXPECT_EQ(info.kind, DEVICE_TYPE_TRACKER);
        EXPECT_EQ(info.model, 3);
        EXPECT_EQ(info.serialText(), "T-0001");
    }
    lumora::DeviceInfo wire;
    wire.set_id(std::string(40, 'x'));
    wire.set_dtype(lumora::SCANNER);
    tagDeviceInfo info;
    tpGetDeviceInfo(wire, info);
    EXPECT_EQ(std::string(info.serial, sizeof(info.serial)), std::string(32, 'x'));
    EXPECT_EQ(info.kind, DEVICE_TYPE_SCANNER);
}

// --- thermal balance --------------------------------------------------------------------------

SDK_NV::tagHeartData beat(float t0, int kind = 0, float t1 = 0.0f, float t2 = 0.0f) {
    SDK_NV::tagHeartData b;
    b.kind = kind;
    b.name = "T1";
    b.temp = {t0, t1, t2};
    return b;
}

TEST(ThermalBalance, The121stSampleReplacesTheOldest) {
    tagDeviceThermalBalance r;
    AddTemperature(r, beat(1.0f));
    EXPECT_FLOAT_EQ(r.delta, 1.0f);  // the first sample is its own delta
    for (int i = 2; i <= 120; ++i) {
        AddTemperature(r, beat(static_cast<float>(i)));
    }
    EXPECT_EQ(r.samples.size(), 120u);
    EXPECT_FLOAT_EQ(r.mean, 60.5f);
    AddTemperature(r, beat(121.0f));
    EXPECT_EQ(r.samples.size(), 120u);
    EXPECT_FLOAT_EQ(r.mean, 61.5f);
    EXPECT_FLOAT_EQ(r.oldest, 2.0f);
    EXPECT_FLOAT_EQ(r.newest, 121.0f);
    EXPECT_FLOAT_EQ(r.delta, 1.0f);
    EXPECT_NEAR(r.deviation, (121.0 - 61.5) / 61.5 * 100.0, 1e-3);
}

TEST(ThermalBalance, OnlyTrackersAndScannersSetTheTemperatureFields) {
    tagDeviceThermalBalance r;
    AddTemperature(r, beat(30.0f, 1, 31.0f, 32.0f));
    AddTemperature(r, beat(40.0f, 2, 41.0f, 42.0f));
    EXPECT_FLOAT_EQ(r.temperature1, 30.0f);
    EXPECT_FLOAT_EQ(r.temperature2, 31.0f);
    EXPECT_FLOAT_EQ(r.temperature3, 32.0f);
    EXPECT_FLOAT_EQ(r.newest, 40.0f);
    EXPECT_EQ(r.kind, 2);
    // A heartbeat without temperatures gives its name and kind, and no sample.
    SDK_NV::tagHeartData empty;
    empty.name = "other";
    empty.kind = 1;
    AddTemperature(r, empty);
    EXPECT_EQ(r.name, "other");
    EXPECT_EQ(r.kind, 1);
    EXPECT_EQ(r.samples.size(), 2u);
    EXPECT_FLOAT_EQ(r.newest, 40.0f);
    EXPECT_FLOAT_EQ(r.temperature1, 30.0f);
}

TEST(ThermalBalance, AMeanOfZeroGivesTheDeviationAsComputed) {
    tagDeviceThermalBalance r;
    AddTemperature(r, beat(2.0f));
    AddTemperature(r, beat(-2.0f));  // mean 0, newest -2: -2 / 0 is minus infinity
    EXPECT_EQ(r.mean, 0.0f);
    EXPECT_TRUE(std::isinf(r.deviation) && r.deviation < 0.0f) << r.deviation;
    tagDeviceThermalBalance zero;
    AddTemperature(zero, beat(0.0f));  // 0 / 0
    EXPECT_TRUE(std::isnan(zero.deviation)) << zero.deviation;
}

// --- the module itself --------------------------------------------------------------------------

TEST(ModuleIdentity, VersionComesFromTheBuildAndTheFolderFromTheModule) {
    const char* version = getTrackVersion();
    EXPECT_TRUE(std::regex_match(version, std::regex(R"(\d+\.\d+\.\d+\.\d+)"))) << version;
    const std::string folder = platform::nativePath(getAnnexPath());
    EXPECT_TRUE(platform::fileExists(folder + "/libPathfinder.so")) << folder;
}

// --- the receive path ----------------------------------------------------------------------------

// Nothing, unknown receipt kinds, and a scanner calibration whose lattice is shorter than its
// rows and columns announce: the mask's size comes from them, and it must not be read beyond
// the lattice's end.
TEST(Dispatch, MissingOrUnknownMessagesReportNothingAndAShortLatticeHasNoMask) {
    const std::string annex = devtest::makeTempAnnex();
    auto recorder = std::make_shared<devtest::Recorder>();
    {
        devtest::TestDevice device(recorder);
        device.RecvMessageFn(nullptr);
        SDK_NV::CMessage_Receipt receipt;
        for (int kind : {24, -1}) {
            receipt.setReceiptKind(kind);
            device.RecvMessageFn(&receipt);
        }
        EXPECT_TRUE(recorder->events().empty());
        SDK_NV::CMessage_CalibData m;
        m.setTrackerGrabIndex(SDK_NV::CALIB_STEP_SCANNER_CALIB);
        SDK_NV::tagCalibData data;
        data.vecLattice = {1, 0, 2, 0, 0, 1};
        for (int side : {2, 3000}) {
            data.nRows = side;
            data.nCols = side == 2 ? 3 : side;
            m.setScannerCalib(data);
            device.RecvMessageFn(&m);
        }
    }
    const auto events = recorder->of("fastcali");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].scannerCalib.lattice,
              (std::vector<bool>{true, false, true, false, false, true}));
    EXPECT_EQ(events[1].scannerCalib.rows, 3000);
    EXPECT_TRUE(events[1].scannerCalib.lattice.empty());
    std::filesystem::remove_all(annex);
}

}  // namespace
