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
    using CDeviceBase::callDeviceButton;
    using CDeviceBase::callDeviceData;
    using CDeviceBase::callDeviceImage;
    using CDeviceBase::callDeviceNeedRetrigger;
    using CDeviceBase::callDeviceState;
    using CDeviceBase::callDeviceTFastCali;
    using CDeviceBase::callDeviceTReply;
    using CDeviceBase::callDeviceTriggerNoData;
};

TEST(DeviceBaseDefaults, OperationsAnswerNotSupportedAndLeaveOutputsAlone) {
    BareDevice bare;
    CDeviceBase& d = bare;
    EXPECT_EQ(d.getNewType(), NEW_TYPE_OPTICAL_TRACKING);
    EXPECT_FALSE(d.hasInit());
    EXPECT_FALSE(d.isLaserLock());
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

// ---------------------------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------------------------

TEST(DeviceCallbacks, WithoutHandlersAreIgnored) {
    BareDevice d;
    d.callDeviceData(std::make_shared<tagDeviceData>(), nullptr, 0);
    d.callDeviceState(STATE_READY, tagDeviceInfo(), nullptr);
    d.callDeviceTReply("", REPLY_SDK_CONNECTED, nullptr);
    d.callDeviceButton(BUTTON_MAIN, BUTTON_ACTION_CLICK);
    d.callDeviceTFastCali(FAST_CALI_LOCATION, nullptr);
    d.callDeviceImage(1, 2, 3, "img", nullptr);
    d.callDeviceNeedRetrigger();
    d.callDeviceTriggerNoData();
    SUCCEED();  // reaching here without a crash is the behaviour under test
}

TEST(DeviceCallbacks, EachReachesItsHandlerWithItsArguments) {
    BareDevice d;
    std::vector<std::string> calls;
    auto data = std::make_shared<tagDeviceData>();
    data->frameId = 42;
    tagDeviceInfo info;
    info.setSerial("SCN-7");
    const int payload = 5;

    tagDeviceHandlers h;
    h.onDeviceData = [&](const std::shared_ptr<tagDeviceData>& p, const char* tag, int value) {
        EXPECT_EQ(p.get(), data.get());
        EXPECT_STREQ(tag, "frame");
        EXPECT_EQ(value, 9);
        calls.push_back("data");
    };
    h.onDeviceState = [&](emDeviceState state, const tagDeviceInfo& i, const void* extra) {
        EXPECT_EQ(state, STATE_DISCONNECTED);
        EXPECT_EQ(i.serialText(), "SCN-7");
        EXPECT_EQ(extra, &payload);
        calls.push_back("state");
    };
    h.onDeviceReply = [&](const std::string& text, emDeviceReply reply, const void* p) {
        EXPECT_EQ(text, "T-01");
        EXPECT_EQ(reply, REPLY_THERMAL_BALANCE);
        EXPECT_EQ(p, &payload);
        calls.push_back("reply");
    };
    h.onDeviceButton = [&](emDeviceButton button, emDeviceButtonAction action) {
        EXPECT_EQ(button, BUTTON_FIRST);
        EXPECT_EQ(action, BUTTON_ACTION_LONG_PRESS);
        calls.push_back("button");
    };
    h.onDeviceFastCali = [&](emDeviceTFastCali kind, const void* p) {
        EXPECT_EQ(kind, FAST_CALI_BOARD_LATTICE);
        EXPECT_EQ(p, &payload);
        calls.push_back("fastcali");
    };
    h.onDeviceImage = [&](int a, int b, int c, const std::string& name, const void* p) {
        EXPECT_EQ(a, 3);
        EXPECT_EQ(b, 1);
        EXPECT_EQ(c, 2);
        EXPECT_EQ(name, "left.bmp");
        EXPECT_EQ(p, nullptr);
        calls.push_back("image");
    };
    h.onDeviceNeedRetrigger = [&] { calls.push_back("retrigger"); };
    h.onDeviceTriggerNoData = [&] { calls.push_back("nodata"); };
    d.setHandlers(h);

    d.callDeviceData(data, "frame", 9);
    d.callDeviceState(STATE_DISCONNECTED, info, &payload);
    d.callDeviceTReply("T-01", REPLY_THERMAL_BALANCE, &payload);
    d.callDeviceButton(BUTTON_FIRST, BUTTON_ACTION_LONG_PRESS);
    d.callDeviceTFastCali(FAST_CALI_BOARD_LATTICE, &payload);
    d.callDeviceImage(3, 1, 2, "left.bmp", nullptr);
    d.callDeviceNeedRetrigger();
    d.callDeviceTriggerNoData();

    const std::vector<std::string> expected = {"data",     "state", "reply",     "button",
                                               "fastcali", "image", "retrigger", "nodata"};
    EXPECT_EQ(calls, expected);
}

TEST(DeviceCallbacks, ASingleSetterReplacesOnlyItsHandlerAndClearingSilencesAll) {
    BareDevice d;
    int buttons = 0, first = 0, second = 0;
    d.setDeviceButtonHandler([&](emDeviceButton, emDeviceButtonAction) { ++buttons; });
    d.setDeviceNeedRetriggerHandler([&] { ++first; });
    d.setDeviceNeedRetriggerHandler([&] { ++second; });
    d.callDeviceButton(BUTTON_MAIN, BUTTON_ACTION_CLICK);
    d.callDeviceNeedRetrigger();
    EXPECT_EQ(buttons, 1);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    d.clearHandlers();
    d.callDeviceButton(BUTTON_MAIN, BUTTON_ACTION_CLICK);
    d.callDeviceNeedRetrigger();
    EXPECT_EQ(buttons + second, 2);
}

TEST(DeviceCallbacks, AThrowingHandlerIsReportedAndDoesNotPropagate) {
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
}

TEST(DeviceCallbacks, AHandlerMayReRegisterFromInsideACallback) {
    BareDevice d;
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
    auto toFirst = [&](emDeviceButton, emDeviceButtonAction) { ++first; };
    auto toSecond = [&](emDeviceButton, emDeviceButtonAction) { ++second; };
    d.setDeviceButtonHandler(toFirst);

    constexpr int kCalls = 20000;
    std::atomic<bool> done{false};
    std::thread sdk([&] {
        for (int i = 0; i < kCalls; ++i) {
            d.callDeviceButton(BUTTON_MAIN, BUTTON_ACTION_CLICK);
        }
        done = true;
    });
    int swaps = 0;
    while (!done) {
        if (swaps % 2 == 0) {
            d.setDeviceButtonHandler(toSecond);
        } else {
            d.setDeviceButtonHandler(toFirst);
        }
        ++swaps;
    }
    sdk.join();
    EXPECT_EQ(first + second, kCalls);
}

// ---------------------------------------------------------------------------------------------
// Host folders
// ---------------------------------------------------------------------------------------------

class HostFolders : public testing::Test {
protected:
    void TearDown() override {
        CDeviceBase::setAnnexPath(L"");
        CDeviceBase::setDocumentPath(L"");
        CDeviceBase::setPublicDocumentPath(L"");
    }
};

TEST_F(HostFolders, AnnexDefaultsToTheFolderOfTheModuleHoldingTheLibrary) {
    // libHelmsman.so is built into the annex folder, beside the device module.
    const std::wstring expected = platform::widePath(PATHFINDER_TEST_ANNEX_DIR);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(CDeviceBase::getAnnexPath(), expected);
}

TEST_F(HostFolders, AnnexSetterOverridesAndEmptyRestoresTheDefault) {
    const std::wstring original = CDeviceBase::getAnnexPath();
    CDeviceBase::setAnnexPath(L"/opt/measure/annex/");
    EXPECT_EQ(CDeviceBase::getAnnexPath(), L"/opt/measure/annex");  // no trailing separator
    CDeviceBase::setAnnexPath(L"");
    EXPECT_EQ(CDeviceBase::getAnnexPath(), original);
}

TEST_F(HostFolders, DocumentFoldersDefaultUnderHomeAndAreSetIndependently) {
    const char* home = std::getenv("HOME");
    const char* xdg = std::getenv("XDG_DOCUMENTS_DIR");
    EXPECT_FALSE(CDeviceBase::getPublicDocumentPath().empty());
    if (home != nullptr && *home != '\0' && (xdg == nullptr || *xdg == '\0')) {
        EXPECT_EQ(CDeviceBase::getDocumentPath(),
                  platform::joinPath(platform::widePath(home), std::wstring(L"Documents")));
    }
    CDeviceBase::setDocumentPath(L"/home/op/Documents");
    CDeviceBase::setPublicDocumentPath(L"/srv/shared//");
    EXPECT_EQ(CDeviceBase::getDocumentPath(), L"/home/op/Documents");
    EXPECT_EQ(CDeviceBase::getPublicDocumentPath(), L"/srv/shared");
    EXPECT_NE(CDeviceBase::getAnnexPath(), L"/home/op/Documents");
}

}  // namespace
