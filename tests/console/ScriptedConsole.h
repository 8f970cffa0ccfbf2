// The fixture of the tests that drive a real console through its standard input and watch what
// an SDK client receives: a console on a private port, a connected client, and barriers that
// tell when everything sent before them has been delivered.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "ConsoleProcess.h"
#include "SdkTestSupport.h"
#include "platform/Platform.h"

namespace sdktest {

template <class T>
const T& as(const SDK_NV::CMessage_Base* m) {
    return static_cast<const T&>(*m);
}

inline SDK_NV::tagWorkRespons work(const SDK_NV::CMessage_Base* m) {
    SDK_NV::tagWorkRespons w;
    as<SDK_NV::CMessage_Receipt>(m).getWorkResponsInfo(&w);
    return w;
}

inline std::vector<int> frameIds(const std::vector<const SDK_NV::CMessage_Base*>& v) {
    std::vector<int> ids;
    for (const auto* m : v) {
        ids.push_back(as<SDK_NV::CMessage_ScanData>(m).getFrameID());
    }
    return ids;
}

inline int countType(const std::vector<const SDK_NV::CMessage_Base*>& v, int type) {
    return static_cast<int>(
        std::count_if(v.begin(), v.end(), [type](const auto* m) { return m->getType() == type; }));
}

// A console and an SDK client connected to it.
struct Session {
    // Starts the console with `args` and connects; waits for the announcements of `devices`
    // devices and for the answer to the heartbeat interval the SDK sends on connection, the last
    // thing the connection brings.
    void connect(const std::vector<std::string>& args, int devices) {
        ASSERT_TRUE(console.start(args));
        wrapper.setEndpoint(console.endpoint());
        wrapper.setCallBackMessage(recorder.callback());
        ASSERT_TRUE(wrapper.connectToLowPart());
        ASSERT_TRUE(recorder.waitFor(
            [&](const auto& v) { return countType(v, SDK_NV::MSG_DEVICE) >= devices; }));
        ASSERT_GE(recorder.waitIndex(0, isReceipt(SDK_NV::RECEIPT_LOWPART_VERSION)), 0);
        ASSERT_GE(recorder.waitIndex(0, isResponse(17)), 0);
    }
    ~Session() { wrapper.setCloseWrapper(true); }

    ConsoleProcess console;
    Recorder recorder;
    SDK_NV::CTPScanWrapper wrapper;
};

class ScriptedConsole : public ::testing::Test, public Session {
protected:
    void SetUp() override { platform::setTimeScale(0.01); }

    // A console with 200 frames/s of 100 points and heartbeats on demand only, `extra` options
    // after these (later ones win).
    void connect(std::vector<std::string> extra = {}, int devices = 2) {
        std::vector<std::string> args = {"--fps", "200", "--heartbeat-ms", "0", "--points", "100"};
        args.insert(args.end(), extra.begin(), extra.end());
        Session::connect(args, devices);
    }

    // Index of the first message at or after `from` that matches; fails the test when none
    // comes.
    int expectMessage(size_t from, const std::function<bool(const SDK_NV::CMessage_Base&)>& match) {
        const int at = recorder.waitIndex(from, match, 5s);
        EXPECT_GE(at, 0);
        return at;
    }
    const SDK_NV::CMessage_Base* message(int at) {
        return recorder.snapshot()[static_cast<size_t>(at)];
    }

    // Everything the console sent before this call has been delivered when it returns: a work
    // response with a fresh text travels behind it on the same connection. Returns the index
    // just after that response.
    size_t barrier() {
        const std::string text = "barrier-" + std::to_string(++m_barriers);
        EXPECT_TRUE(console.control("response 999 0 " + text));
        const int at = recorder.waitIndex(0, [&](const SDK_NV::CMessage_Base& m) {
            return isResponse(999)(m) && work(&m).text == text;
        });
        EXPECT_GE(at, 0);
        return static_cast<size_t>(std::max(at, 0)) + 1;
    }

    // Messages in [from, to) that match, barriers left out.
    std::vector<const SDK_NV::CMessage_Base*> between(
        size_t from, size_t to, const std::function<bool(const SDK_NV::CMessage_Base&)>& m) {
        std::vector<const SDK_NV::CMessage_Base*> out;
        const auto v = recorder.snapshot();
        for (size_t i = from; i < to && i < v.size(); ++i) {
            if (m(*v[i]) && !isResponse(999)(*v[i])) {
                out.push_back(v[i]);
            }
        }
        return out;
    }

private:
    int m_barriers = 0;
};

}  // namespace sdktest
