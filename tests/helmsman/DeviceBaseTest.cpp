// The host interface's base class: operations a device does not override, the host callbacks
// (delivery, registration from any thread, a host handler that throws) and the host folders.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "helmsman/DeviceBase.h"
#include "platform/Platform.h"

namespace {

using namespace device;

// A device that overrides nothing and lets the tests fire its callbacks.
class BareDevice : public CDeviceBase {
public:
    BareDevice() : CDeviceBase(NEW_TYPE_OPTICAL_TRACKING) {}
    // Fires every callback once, in the order of tagDeviceHandlers.
    void fireAll(const std::shared_ptr<tagDeviceData>& data, const tagDeviceInfo& info,
                 const void* payload) {
        callDeviceData(data, "frame", 9);
        callDeviceState(STATE_DISCONNECTED, info, payload);
        callDeviceTReply("T-01", REPLY_THERMAL_BALANCE, payload);
        callDeviceButton(BUTTON_FIRST, BUTTON_ACTION_LONG_PRESS);
        callDeviceTFastCali(FAST_CALI_BOARD_LATTICE, payload);
        callDeviceImage(3, 1, 2, "left.bmp", nullptr);
        callDeviceNeedRetrigger();
        callDeviceTriggerNoData();
    }
    using CDeviceBase::callDeviceButton;
    using CDeviceBase::callDeviceData;
    using CDeviceBase::callDeviceNeedRetrigger;
    using CDeviceBase::callDeviceTReply;
    using CDeviceBase::callDeviceTriggerNoData;
};

TEST(DeviceBaseDefaults, OperationsAnswerNotSupportedAndLeaveOutputsAlone) {
    BareDevice bare;
    CDeviceBase& d = bare;
    EXPECT_EQ(d.getNewType(), NEW_TYPE_OPTICAL_TRACKING);
    EXPECT_FALSE(d.hasInit() || d.isLaserLock());
    int laserValue = 0;
    int count = -1;
    std::shared_ptr<tagDeviceInfoList> list;
    float calibResult = 0.0f;
    tagRefMarkpointData markers;
    markers.labels = {4};
    const std::vector<std::pair<const char*, std::function<emDeviceResult()>>> ops = {
        {"init", [&] { return d.init(); }},
        {"controlLaserOn", [&] { return d.controlLaserOn(); }},
        {"setScanObject", [&] { return d.setScanObject(SCAN_OBJECT_SURFACE, false); }},
        {"setLaserExposure", [&] { return d.setLaserExposure(1.0f, laserValue); }},
        {"getDeviceInfo", [&] { return d.getDeviceInfo(&count, &list); }},
        {"getTransferMatrix", [&] { return d.getTransferMatrix(); }},
        {"setMarkpoint", [&] { return d.setMarkpoint(tagMarkpointList(), true); }},
        {"GetOptimizationMarkpoint", [&] { return d.GetOptimizationMarkpoint(markers); }},
        {"getCalibraResult", [&] { return d.getCalibraResult(&calibResult); }},
    };
    for (const auto& op : ops) {
        EXPECT_EQ(op.second(), RESULT_NOT_SUPPORTED) << op.first;
    }
    EXPECT_EQ(laserValue, 0);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(calibResult, 0.0f);
    EXPECT_EQ(markers.labels, std::vector<int>{4});
}

// Without handlers every callback is dropped; a single setter replaces only its handler;
// clearing silences all. (What each callback carries to the host is checked through the module,
// tests/device/ConsoleTest.cpp.)
TEST(DeviceCallbacks, SettersReplaceOneHandlerAndClearingSilencesAll) {
    BareDevice d;
    const auto data = std::make_shared<tagDeviceData>();
    tagDeviceInfo info;
    d.fireAll(data, info, nullptr);  // nobody listens yet: nothing happens
    std::vector<std::string> calls;
    tagDeviceHandlers h;
    h.onDeviceNeedRetrigger = [&] { calls.push_back("retrigger"); };
    h.onDeviceTriggerNoData = [&] { calls.push_back("nodata"); };
    d.setHandlers(h);
    d.setDeviceNeedRetriggerHandler([&] { calls.push_back("second"); });
    d.fireAll(data, info, nullptr);
    EXPECT_EQ(calls, (std::vector<std::string>{"second", "nodata"}));
    EXPECT_TRUE(d.getHandlers().onDeviceTriggerNoData != nullptr);
    d.clearHandlers();
    d.fireAll(data, info, nullptr);
    EXPECT_EQ(calls.size(), 2u);
}

TEST(DeviceCallbacks, AThrowingHandlerIsReportedAndAHandlerMayReRegisterItself) {
    BareDevice d;
    d.setDeviceDataHandler([](const std::shared_ptr<tagDeviceData>&, const char*, int) {
        throw std::runtime_error("host bug");
    });
    d.setDeviceTriggerNoDataHandler([] { throw 7; });
    int replies = 0;
    d.setDeviceReplyHandler([&](const std::string&, emDeviceReply, const void*) { ++replies; });
    testing::internal::CaptureStdout();
    EXPECT_NO_THROW(d.callDeviceData(std::make_shared<tagDeviceData>(), nullptr, 0));
    EXPECT_NO_THROW(d.callDeviceTriggerNoData());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[helmsman] DeviceData handler threw: host bug\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("[helmsman] DeviceTriggerNoData handler threw"), std::string::npos) << out;
    // The device keeps working: later callbacks are still delivered.
    d.callDeviceTReply("", REPLY_SDK_CONNECTED, nullptr);
    EXPECT_EQ(replies, 1);

    int later = 0;
    d.setDeviceNeedRetriggerHandler([&] { d.setDeviceNeedRetriggerHandler([&] { ++later; }); });
    d.callDeviceNeedRetrigger();  // must not deadlock on the registration lock
    d.callDeviceNeedRetrigger();
    EXPECT_EQ(later, 1);
}

// Callbacks on one thread while the host swaps handlers on another: every callback reaches
// exactly one of the handlers (none is lost or torn).
TEST(DeviceCallbacks, RegistrationIsSafeWhileAnotherThreadCallsBack) {
    BareDevice d;
    std::atomic<int> first{0}, second{0};
    const decltype(tagDeviceHandlers::onDeviceButton) toFirst =
        [&](emDeviceButton, emDeviceButtonAction) { ++first; };
    const decltype(tagDeviceHandlers::onDeviceButton) toSecond =
        [&](emDeviceButton, emDeviceButtonAction) { ++second; };
    d.setDeviceButtonHandler(toFirst);
    constexpr int kCalls = 20000;
    std::atomic<bool> done{false};
    std::thread sdk([&] {
        for (int i = 0; i < kCalls; ++i) {
            d.callDeviceButton(BUTTON_MAIN, BUTTON_ACTION_CLICK);
        }
        done = true;
    });
    for (int swaps = 0; !done; ++swaps) {
        d.setDeviceButtonHandler(swaps % 2 == 0 ? toSecond : toFirst);
    }
    sdk.join();
    EXPECT_EQ(first + second, kCalls);
}

// The annex defaults to the folder of the module holding the library (libHelmsman.so is built
// into the annex folder, beside the device module); the document folders under HOME. Setters
// override without a trailing separator, each folder on its own; empty restores the default.
TEST(HostFolders, DefaultsOverridesAndTheirRestoration) {
    const std::wstring annex = platform::widePath(PATHFINDER_TEST_ANNEX_DIR);
    ASSERT_FALSE(annex.empty());
    EXPECT_EQ(CDeviceBase::getAnnexPath(), annex);
    const char* home = std::getenv("HOME");
    const char* xdg = std::getenv("XDG_DOCUMENTS_DIR");
    EXPECT_FALSE(CDeviceBase::getPublicDocumentPath().empty());
    if (home != nullptr && *home != '\0' && (xdg == nullptr || *xdg == '\0')) {
        EXPECT_EQ(CDeviceBase::getDocumentPath(),
                  platform::joinPath(platform::widePath(home), std::wstring(L"Documents")));
    }
    CDeviceBase::setAnnexPath(L"/opt/measure/annex/");
    CDeviceBase::setDocumentPath(L"/home/op/Documents");
    CDeviceBase::setPublicDocumentPath(L"/srv/shared//");
    EXPECT_EQ(CDeviceBase::getAnnexPath(), L"/opt/measure/annex");
    EXPECT_EQ(CDeviceBase::getDocumentPath(), L"/home/op/Documents");
    EXPECT_EQ(CDeviceBase::getPublicDocumentPath(), L"/srv/shared");
    CDeviceBase::setAnnexPath(L"");
    CDeviceBase::setDocumentPath(L"");
    CDeviceBase::setPublicDocumentPath(L"");
    EXPECT_EQ(CDeviceBase::getAnnexPath(), annex);
}

}  // namespace
