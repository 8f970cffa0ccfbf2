// The SDK's link against a plain TCP peer that plays the device side and misbehaves.
#include <gtest/gtest.h>

#include <tuple>

#include "SdkTestSupport.h"
#include "platform/Platform.h"

using namespace SDK_NV;
using namespace sdktest;

namespace {

class Link : public ::testing::Test {
protected:
    void SetUp() override {
        platform::setTimeScale(0.01);
        ASSERT_TRUE(peer.valid());
        EXPECT_FALSE(wrapper.setEndpoint("bad endpoint"));
        ASSERT_TRUE(wrapper.setEndpoint(peer.endpoint()));
        EXPECT_EQ(wrapper.getEndpoint(), peer.endpoint());
        wrapper.setCallBackMessage(recorder.callback());
        ASSERT_TRUE(wrapper.connectToLowPart());
        ASSERT_TRUE(peer.accept());
        ASSERT_GE(recorder.waitIndex(0, isConnect(true)), 0);
    }

    static CMessage_Receipt response(int code, int state) {
        CMessage_Receipt r;
        r.setReceiptKind(RECEIPT_WORK_RESPONSE);
        r.setWorkResponsInfo({code, state, "", ""});
        return r;
    }

    TestPeer peer;
    Recorder recorder;
    CTPScanWrapper wrapper;
};

}  // namespace

TEST_F(Link, BadFramesAreDroppedAndCountedWhileGoodOnesArrive) {
    CMessage_Receipt first = response(101, 0);
    ASSERT_TRUE(peer.sendMessage(first));

    // Malformed: an envelope that does not parse. (Oversized frames and bodies that do not
    // parse come from the console's faults, tests/device/FaultTest.cpp.)
    ASSERT_TRUE(peer.sendRaw(frameHeader(wire::kFrameMagic, 3, 3) + "\x08\xff\xff"));
    // Unknown types: one no class has, the SDK's own connection type and a command.
    ASSERT_TRUE(peer.sendBody(42, ""));
    ASSERT_TRUE(peer.sendBody(MSG_CONNECT, ""));
    ASSERT_TRUE(peer.sendBody(wire::kCommandType, ""));
    // A scan frame whose counts disagree is malformed as well.
    sdk_link::ScanFrameBody scan;
    for (int i = 0; i < 9; ++i) {
        scan.add_rotation(i % 4 == 0);
    }
    for (int i = 0; i < 3; ++i) {
        scan.add_translation(0);
    }
    scan.add_laser_points(1);
    ASSERT_TRUE(peer.sendBody(MSG_SCANDATA, scan.SerializeAsString()));

    CMessage_Receipt last = response(102, 0);
    ASSERT_TRUE(peer.sendMessage(last));

    ASSERT_GE(recorder.waitIndex(0, isResponse(102), 20s), 0);
    const LinkCounters c = wrapper.getLinkCounters();
    EXPECT_EQ(c.droppedMalformed, 2u);
    EXPECT_EQ(c.droppedUnknownType, 3u);
    EXPECT_EQ(c.streamErrors, 0u);
    EXPECT_EQ(c.connects, 1u);  // the link stayed up
    EXPECT_TRUE(wrapper.isConnected());
    // Exactly the connection message and the two good responses were delivered, in order.
    const auto v = recorder.snapshot();
    ASSERT_EQ(v.size(), 3u);
    EXPECT_TRUE(isConnect(true)(*v[0]));
    EXPECT_TRUE(isResponse(101)(*v[1]));
    EXPECT_TRUE(isResponse(102)(*v[2]));
}

TEST_F(Link, LostFrameBoundaryResetsTheConnection) {
    ASSERT_TRUE(peer.sendRaw(std::string(16, 'G')));
    ASSERT_GE(recorder.waitIndex(1, isConnect(false)), 0);
    EXPECT_EQ(wrapper.getLinkCounters().streamErrors, 1u);
    ASSERT_TRUE(peer.accept());
    ASSERT_GE(recorder.waitIndex(2, isConnect(true)), 0);
    CMessage_Receipt r = response(7, 0);
    ASSERT_TRUE(peer.sendMessage(r));
    EXPECT_GE(recorder.waitIndex(3, isResponse(7)), 0);
}

// One message at a time, in order; a callback that throws (an exception class or not) loses
// nothing but its own message.
TEST_F(Link, MessagesAreDeliveredOneAtATimeInOrderAndAThrowingCallbackIsContained) {
    std::atomic<int> inside{0};
    std::atomic<int> maxInside{0};
    std::vector<int> codes;
    std::mutex codesMutex;
    std::atomic<int> count{0};
    wrapper.setCallBackMessage([&](CMessage_Base* m) {
        if (!isReceipt(RECEIPT_WORK_RESPONSE)(*m)) {
            return;
        }
        const int now = ++inside;
        maxInside = std::max(maxInside.load(), now);
        tagWorkRespons w;
        static_cast<CMessage_Receipt*>(m)->getWorkResponsInfo(&w);
        std::this_thread::sleep_for(1ms);
        {
            std::lock_guard<std::mutex> lock(codesMutex);
            codes.push_back(w.code);
        }
        --inside;
        ++count;
        if (w.code == 3) {
            throw std::runtime_error("host bug");
        }
        if (w.code == 4) {
            throw 42;
        }
    });
    for (int i = 0; i < 50; ++i) {
        CMessage_Receipt r = response(i, 0);
        ASSERT_TRUE(peer.sendMessage(r));
    }
    eventually([&] { return count == 50; });
    wrapper.setCloseWrapper(true);  // nothing else may reach the locals
    EXPECT_EQ(maxInside.load(), 1);
    EXPECT_EQ(wrapper.getLinkCounters().callbackExceptions, 2u);
    std::lock_guard<std::mutex> lock(codesMutex);
    ASSERT_EQ(codes.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(codes[static_cast<size_t>(i)], i);
    }
}

// The device list follows the device messages (a device going off leaves it) and empties when
// the link goes down.
TEST_F(Link, DeviceListFollowsDeviceMessagesAndTheLink) {
    for (const auto& [id, type, on] :
         std::vector<std::tuple<std::string, DEVICETYPE, bool>>{{"T1", DEVICE_TRACKER, true},
                                                                {"T2", DEVICE_TRACKER, true},
                                                                {"S1", DEVICE_SCANNER, true},
                                                                {"T1", DEVICE_TRACKER, false}}) {
        CMessage_Device d;
        d.setConnect(on);
        d.setDeviceType(type);
        d.setDeviceSN(id);
        lumora::DeviceInfo info;
        info.set_id(on ? id : "");
        info.set_dtype(type == DEVICE_TRACKER ? lumora::TRACKER : lumora::SCANNER);
        d.setDeviceInfo(info);
        ASSERT_TRUE(peer.sendMessage(d));
    }
    ASSERT_TRUE(recorder.waitFor([](const auto& v) { return v.size() == 5; }));
    CTPDeviceManager* dm = wrapper.getTPDeviceManager();
    EXPECT_EQ(dm->getTracker(), deviceids{"T2"});
    EXPECT_EQ(dm->getScanner(), deviceids{"S1"});
    EXPECT_EQ(dm->getDeviceType("S1"), DEVICE_SCANNER);
    EXPECT_EQ(dm->getDeviceType("T1"), DEVICE_UNKNOWN);
    lumora::DeviceInfo info;
    EXPECT_TRUE(dm->getDeviceInfo("T2", &info));
    EXPECT_EQ(info.dtype(), lumora::TRACKER);
    peer.close();
    ASSERT_GE(recorder.waitIndex(1, isConnect(false)), 0);
    ASSERT_TRUE(eventually([&] { return dm->getDeviceList().empty(); }));
}

// A close from the callback does not deadlock; while closed, commands are refused and counted;
// the link opens again when asked.
TEST_F(Link, CloseFromTheCallbackDoesNotDeadlockAndTheLinkReopens) {
    std::atomic<bool> closed{false};
    wrapper.setCallBackMessage([&](CMessage_Base* m) {
        if (isResponse(9)(*m)) {
            wrapper.setCloseWrapper(true);
            closed = true;
        }
    });
    CMessage_Receipt r = response(9, 0);
    ASSERT_TRUE(peer.sendMessage(r));
    EXPECT_TRUE(peer.waitClosed());
    EXPECT_TRUE(closed.load());
    EXPECT_FALSE(wrapper.isConnected());
    EXPECT_FALSE(wrapper.connectToLowPart());
    EXPECT_FALSE(wrapper.setTrigger(false, {}));
    EXPECT_GE(wrapper.getLinkCounters().sendFailures, 1u);
    wrapper.setCallBackMessage(recorder.callback());
    wrapper.setCloseWrapper(false);
    ASSERT_TRUE(wrapper.connectToLowPart());
    ASSERT_TRUE(peer.accept());
    EXPECT_TRUE(eventually([&] { return wrapper.isConnected(); }));
}
