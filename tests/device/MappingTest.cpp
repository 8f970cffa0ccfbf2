// Conversions that need no device (buttons, scan objects, Wi-Fi texts, wire device records, the
// thermal balance) and the module's own identity and process search.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "Mappings.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/Records.h"

namespace {

using namespace device;
using detail::ScanObjectPlan;

TEST(ButtonMapping, DeviceCodesBecomeHostButtonsAndUnknownOnesAreNeutral) {
    EXPECT_EQ(detail::buttonFromCode(49), BUTTON_MAIN);
    EXPECT_EQ(detail::buttonFromCode(51), BUTTON_FIRST);
    EXPECT_EQ(detail::buttonFromCode(53), BUTTON_SECOND);
    EXPECT_EQ(detail::buttonFromCode(55), BUTTON_THIRD);
    EXPECT_EQ(detail::buttonFromCode(50), BUTTON_NONE);
    EXPECT_EQ(detail::buttonActionFromCode(2), BUTTON_ACTION_LONG_PRESS);
    EXPECT_EQ(detail::buttonActionFromCode(3), BUTTON_ACTION_NONE);
}

TEST(ScanObjectMapping, StaticObjectsStartTheMatchingScan) {
    struct Case {
        emScanObject object;
        ScanObjectPlan::Command command;
        int argument;
    } cases[] = {
        {SCAN_OBJECT_MARKPOINT, ScanObjectPlan::StartScan, 0},
        {SCAN_OBJECT_SURFACE, ScanObjectPlan::StartScan, 1},
        {SCAN_OBJECT_METAL_HOLE, ScanObjectPlan::StartScan, 2},
        {SCAN_OBJECT_RIVET_HOLE, ScanObjectPlan::StartScan, 3},
        {SCAN_OBJECT_SURFACE_EDGE, ScanObjectPlan::StartScan, 1},
        {SCAN_OBJECT_EDGE, ScanObjectPlan::WorkBusiness, 30},
        {SCAN_OBJECT_NONE, ScanObjectPlan::None, 0},
    };
    for (const Case& c : cases) {
        const ScanObjectPlan plan = detail::planScanObject(c.object, false, false);
        EXPECT_EQ(plan.command, c.command) << "object " << c.object;
        EXPECT_EQ(plan.argument, c.argument) << "object " << c.object;
        EXPECT_EQ(plan.needEdgePoint, c.object == SCAN_OBJECT_SURFACE_EDGE);
        EXPECT_EQ(plan.dynamicMarker, 0);
    }
}

TEST(ScanObjectMapping, DynamicObjectsUseTheDynamicScan) {
    const ScanObjectPlan markers = detail::planScanObject(SCAN_OBJECT_MARKPOINT, true, true);
    EXPECT_EQ(markers.command, ScanObjectPlan::DynamicScan);  // super conversion plays no part
    EXPECT_EQ(markers.dynamicMarker, 1);
    EXPECT_EQ(markers.markerObject, 1);
    EXPECT_EQ(detail::planScanObject(SCAN_OBJECT_RIVET_HOLE, true, false).command,
              ScanObjectPlan::DynamicScan);
    EXPECT_EQ(detail::planScanObject(SCAN_OBJECT_EDGE, true, false).argument, 31);
}

TEST(ScanObjectMapping, SuperConversionTurnsMarkerScanningIntoWorkBusiness25) {
    const ScanObjectPlan plan = detail::planScanObject(SCAN_OBJECT_MARKPOINT, false, true);
    EXPECT_EQ(plan.command, ScanObjectPlan::WorkBusiness);
    EXPECT_EQ(plan.argument, 25);
    EXPECT_EQ(plan.markerObject, 1);
}

TEST(WifiText, DeviceStatesAreTranslated) {
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
    };
    for (const auto& row : table) {
        std::string text = row.first;
        EXPECT_EQ(CPathfinder::GetWifiConnectTransferInfo(text), RESULT_SUCCESS);
        EXPECT_EQ(text, row.second);
    }
}

TEST(WifiText, OnlyTheWholeTextMatches) {
    for (const char* untouched :
         {"wpa_state=SCANNING ", "WPA_STATE=SCANNING", "wpa_state=", "", "anything"}) {
        std::string text = untouched;
        CPathfinder::GetWifiConnectTransferInfo(text);
        EXPECT_EQ(text, untouched);
    }
}

lumora::DeviceInfo wireDevice(const std::string& id, std::initializer_list<int> codes) {
    lumora::DeviceInfo wire;
    wire.set_id(id);
    wire.set_dtype(lumora::SCANNER);
    for (int code : codes) {
        wire.add_errcodes(static_cast<lumora::LUMORA_STATE>(code));
    }
    return wire;
}

TEST(WireDeviceRecord, ErrorCodesDecideTheState) {
    tagDeviceInfo info;
    tpGetDeviceInfo(wireDevice("S1", {3, 4}), info);
    EXPECT_EQ(info.state, STATE_USB_START_FAILED);
    tpGetDeviceInfo(wireDevice("S1", {4, 3}), info);
    EXPECT_EQ(info.state, STATE_CAMERA_OPEN_FAILED);
    tpGetDeviceInfo(wireDevice("S1", {9}), info);
    EXPECT_EQ(info.state, STATE_READY);
    tpGetDeviceInfo(wireDevice("S1", {}), info);
    EXPECT_EQ(info.state, STATE_NO_STATUS);
}

TEST(WireDeviceRecord, KindModelAndSerial) {
    lumora::DeviceInfo wire = wireDevice("T-0001", {});
    wire.set_dtype(lumora::TRACKER);
    wire.set_trackertype(3);
    tagDeviceInfo info;
    tpGetDeviceInfo(wire, info);
    EXPECT_EQ(info.kind, DEVICE_TYPE_TRACKER);
    EXPECT_EQ(info.model, 3);
    EXPECT_EQ(info.serialText(), "T-0001");
    EXPECT_EQ(info.serial[6], '\0');
}

TEST(WireDeviceRecord, LongIdFillsTheSerialWithoutTerminator) {
    const std::string id(40, 'x');
    tagDeviceInfo info;
    tpGetDeviceInfo(wireDevice(id, {}), info);
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

TEST(ThermalBalance, FirstSampleIsItsOwnMeanAndDelta) {
    tagDeviceThermalBalance r;
    AddTemperature(r, beat(30.0f, 1, 31.0f, 32.0f));
    EXPECT_EQ(r.name, "T1");
    EXPECT_EQ(r.kind, 1);
    EXPECT_FLOAT_EQ(r.mean, 30.0f);
    EXPECT_FLOAT_EQ(r.delta, 30.0f);
    EXPECT_FLOAT_EQ(r.oldest, 30.0f);
    EXPECT_FLOAT_EQ(r.newest, 30.0f);
    EXPECT_FLOAT_EQ(r.deviation, 0.0f);
    // Field order: element 0, element 2, element 1.
    EXPECT_FLOAT_EQ(r.temperature1, 30.0f);
    EXPECT_FLOAT_EQ(r.temperature3, 32.0f);
    EXPECT_FLOAT_EQ(r.temperature2, 31.0f);
}

TEST(ThermalBalance, The121stSampleReplacesTheOldest) {
    tagDeviceThermalBalance r;
    for (int i = 1; i <= 120; ++i) {
        AddTemperature(r, beat(static_cast<float>(i)));
    }
    EXPECT_EQ(r.samples.size(), 120u);
    EXPECT_FLOAT_EQ(r.mean, 60.5f);
    AddTemperature(r, beat(121.0f));
    EXPECT_EQ(r.samples.size(), 120u);
    EXPECT_FLOAT_EQ(r.mean, (120.0f * 60.5f - 1.0f + 121.0f) / 120.0f);
    EXPECT_FLOAT_EQ(r.oldest, 2.0f);
    EXPECT_FLOAT_EQ(r.newest, 121.0f);
    EXPECT_FLOAT_EQ(r.delta, 1.0f);
    EXPECT_NEAR(r.deviation, (121.0 - 61.5) / 61.5 * 100.0, 1e-3);
}

TEST(ThermalBalance, OtherKindsKeepTheTemperatureFields) {
    tagDeviceThermalBalance r;
    AddTemperature(r, beat(30.0f, 0, 31.0f, 32.0f));
    AddTemperature(r, beat(40.0f, 2, 41.0f, 42.0f));
    EXPECT_FLOAT_EQ(r.temperature1, 30.0f);
    EXPECT_FLOAT_EQ(r.temperature2, 31.0f);
    EXPECT_FLOAT_EQ(r.newest, 40.0f);
    EXPECT_FLOAT_EQ(r.delta, 10.0f);
    EXPECT_EQ(r.kind, 2);
}

TEST(ThermalBalance, HeartbeatWithoutTemperatureChangesNothing) {
    tagDeviceThermalBalance r;
    AddTemperature(r, beat(30.0f));
    SDK_NV::tagHeartData empty;
    empty.name = "other";
    AddTemperature(r, empty);
    EXPECT_EQ(r.name, "T1");
    EXPECT_EQ(r.samples.size(), 1u);
}

// --- the module itself --------------------------------------------------------------------------

TEST(ModuleIdentity, VersionComesFromTheBuildAndTheFolderFromTheModule) {
    const char* version = getTrackVersion();
    EXPECT_TRUE(std::regex_match(version, std::regex(R"(\d+\.\d+\.\d+\.\d+)"))) << version;
    EXPECT_EQ(getTrackVersion(), version);  // cached
    const std::string folder = platform::nativePath(getAnnexPath());
    EXPECT_TRUE(platform::fileExists(folder + "/libPathfinder.so")) << folder;
}

TEST(ModuleIdentity, FindProcessByNameFindsAndEndsOnlyThatName) {
    // A copy of `sleep` under a name no other process has.
    const std::string name = "pf_sleeper_" + std::to_string(platform::currentProcessId());
    const std::filesystem::path copy = std::filesystem::temp_directory_path() / name;
    std::filesystem::copy_file("/bin/sleep", copy,
                               std::filesystem::copy_options::overwrite_existing);
    const int pid = platform::startProcess(copy.string(), {"30"});
    ASSERT_GT(pid, 0);
    const std::wstring wide = platform::widePath(name);
    EXPECT_EQ(FindProcessByName(wide, false), 1);
    EXPECT_TRUE(platform::processAlive(pid));  // looking ends nothing
    EXPECT_EQ(FindProcessByName(wide, true), 1);
    for (int i = 0; i < 500 && platform::processAlive(pid); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_FALSE(platform::processAlive(pid));
    EXPECT_EQ(FindProcessByName(wide, false), 0);
    std::filesystem::remove(copy);
}

}  // namespace
