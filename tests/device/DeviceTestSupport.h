// Test support of the device module: a fake low part (the device end of the SDK's link, on a
// private loopback port) that records every command and answers as a test tells it, a device
// subclass that exposes the handlers, and a recorder of host callbacks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/Pathfinder.h"
#include "sdk/Messages.h"
#include "sdk/Socket.h"
#include "sdk_link.pb.h"

namespace devtest {

// Listens on 127.0.0.1 at `port` (0: a free one) and points LUMORA_ENDPOINT at it, so that a
// device object created afterwards connects here. One client at a time.
class FakeLowPart {
public:
    using Responder = std::function<void(FakeLowPart& link, const sdk_link::Command& command)>;

    explicit FakeLowPart(uint16_t port = 0);
    ~FakeLowPart();
    FakeLowPart(const FakeLowPart&) = delete;
    FakeLowPart& operator=(const FakeLowPart&) = delete;

    // Called on the link's thread for every command after it was recorded.
    void setResponder(Responder responder);

    // Sends one device message to the connected client; false without a client.
    bool send(SDK_NV::CMessage_Base& message);
    // Closes the client's connection (the SDK reconnects by itself).
    void dropClient();

    bool waitClient(int timeoutMs);
    int clientsAccepted() const { return m_clients.load(); }

    // Commands received, in order (the SDK's own heartbeat-interval commands are left out).
    std::vector<sdk_link::Command> commands() const;
    std::vector<std::string> names() const;
    int count(const std::string& name) const;
    void clearCommands();
    // Waits until `name` was received at least `n` times.
    bool waitCommand(const std::string& name, int n, int timeoutMs);
    // Last value of the SDK's heartbeat-interval command, -1 before any.
    int heartBeatInterval() const { return m_heartBeat.load(); }

private:
    void run();

    SDK_NV::net::socket_t m_listener = SDK_NV::net::kInvalidSocket;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_clients{0};
    std::atomic<int> m_heartBeat{-1};
    std::thread m_thread;

    std::mutex m_sendMutex;
    SDK_NV::net::socket_t m_client = SDK_NV::net::kInvalidSocket;
    uint64_t m_sequence = 0;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<sdk_link::Command> m_commands;
    Responder m_responder;
};

// What the host callbacks delivered, in order.
struct Event {
    std::string what;  // "state", "reply", "button", "fastcali", "image", "retrigger", "nodata",
                       // "highframerate"
    int a = 0;         // state, reply code, button, kind, image c, frame rate
    int b = 0;         // device kind, button action, image a
    int c = 0;         // image b
    std::string text;  // serial, reply text, image name
    std::string payloadText;            // -46, -49, -50 payload text
    std::vector<double> values;         // numeric payload content
    std::map<std::string, int> counts;  // -48 payload
    device::tagDeviceThermalBalance thermal;
    device::tagClbScannerCalibData scannerCalib;
};

class Recorder {
public:
    void add(Event e);
    std::vector<Event> events() const;
    std::vector<Event> of(const std::string& what) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
};

// The device with its handlers opened up for tests and every host callback recorded.
class TestDevice : public device::CPathfinder {
public:
    explicit TestDevice(std::shared_ptr<Recorder> recorder);
    ~TestDevice() override;

    using device::CPathfinder::CallBack_ButtonTrigger;
    using device::CPathfinder::CallBack_Calibrate;
    using device::CPathfinder::CallBack_CameraImage;
    using device::CPathfinder::CallBack_HeartBeat;
    using device::CPathfinder::CallBack_Response;
    using device::CPathfinder::RecvMessageFn;

    // Records the call before passing it on.
    device::emDeviceResult setHighFrameRate(int rate) override;

private:
    std::shared_ptr<Recorder> m_recorder;
};

// A loopback port that was free a moment ago.
uint16_t freePort();

// The time scale 0.01 for this process and the programs it starts, unless
// PATHFINDER_TIME_SCALE is set already.
void useTestTimeScale();

// A fresh annex folder (empty, no companion programs) and the test time scale.
std::string makeTempAnnex();

// Response receipt with a code and a state.
std::unique_ptr<SDK_NV::CMessage_Receipt> response(int code, int state,
                                                   const std::string& text = {});

}  // namespace devtest
