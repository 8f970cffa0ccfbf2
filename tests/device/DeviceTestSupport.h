// Test support of the device module: a device subclass that opens up its handlers and records
// every host callback and frame, helpers for annex folders, endpoints, the time scale and
// resident memory, and the fixture of the tests that run the module against a real console.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleProcess.h"
#include "device/Pathfinder.h"

namespace devtest {

using Lines = std::vector<std::string>;
using Frame = std::shared_ptr<device::tagDeviceData>;

// What a host callback delivered.
struct Event {
    std::string what;  // "state", "reply", "button", "fastcali", "image", "retrigger", "nodata",
                       // "highframerate" (a call of setHighFrameRate)
    int a = 0;         // state, reply code, button, fast-calibration kind, image a, frame rate
    int b = 0;         // device kind, button action, image b
    int c = 0;         // image c
    std::string text;  // serial, reply text, image name
    std::string payloadText;            // text payloads (-46, -49, -50), device-info id (-95)
    std::vector<double> values;         // numeric payloads (state: model and state)
    std::map<std::string, int> counts;  // -48 payload
    device::tagDeviceThermalBalance thermal;
    device::tagClbScannerCalibData scannerCalib;
};

class Recorder {
public:
    void add(Event e);
    std::vector<Event> events() const;
    std::vector<Event> of(const std::string& what) const;
    // Replies with this code (and this text payload, when given).
    std::vector<Event> replies(int code, const std::string& payload = {}) const;
    void clear();  // events and frames

    // Scan frames as the host received them; `then` runs after each is recorded (it may throw
    // or block, as a host's callback may).
    void addFrame(const Frame& frame);
    std::vector<Frame> frames() const;
    void setOnFrame(std::function<void(const device::tagDeviceData&)> then);

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
    std::vector<Frame> m_frames;
    std::function<void(const device::tagDeviceData&)> m_onFrame;
};

// The device with its receive path opened up and every host callback recorded.
class TestDevice : public device::CPathfinder {
public:
    explicit TestDevice(std::shared_ptr<Recorder> recorder);
    ~TestDevice() override;

    using device::CPathfinder::RecvMessageFn;

    // Records the call before passing it on.
    device::emDeviceResult setHighFrameRate(int rate) override;

private:
    std::shared_ptr<Recorder> m_recorder;
};

// A loopback port that was free a moment ago.
uint16_t freePort();

// The time scale 0.01 for this process and the programs it starts, unless
// PATHFINDER_TIME_SCALE is set already (slow builds such as sanitizer runs choose their own).
void useTestTimeScale();

// A fresh annex folder (empty: no companion programs, so init starts nothing and clear ends
// only processes of the older install's names) with a documents folder inside, and the test
// time scale.
std::string makeTempAnnex();

// VmRSS of /proc/self/status in kB, 0 when unknown.
long residentKb();

// Polls `done` every 5 ms for up to `timeoutMs`.
template <class Pred>
bool waitFor(Pred done, int timeoutMs = 10000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A host callback as a line: what it was, its two numbers and its text.
std::string ev(const std::string& what, int a, int b = 0, const std::string& text = {});

// The module as a host uses it against a real lumora_console on a private port, in an annex
// folder of its own. The console is steered through its control lines; its command log shows
// what the module sent.
class WithConsole : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A console with heartbeats on demand only, 200 frames/s of 300 points and every command
    // logged, on `port` (0: a free one), for the devices created afterwards; `options` come
    // after these (later ones win).
    void startConsole(const Lines& options = {}, uint16_t port = 0);
    // Starts the console and brings the device up against it; the arrivals and the answers to
    // the connection's own commands are behind us when it returns.
    void connect(const Lines& options = {});
    void control(const std::string& line);
    // Returns once the device has handled every message the console sent before.
    void settle();
    // Returns once the console has handled every command the device sent before and the device
    // has handled the answers. The command log's size then.
    size_t sync();
    // The console's command log, its comment lines left out.
    Lines logged() const;
    // The commands `op` sent, in order.
    Lines sent(const std::function<void()>& op);
    // Host callbacks (as lines, see ev), the marks of settle() left out.
    std::vector<Event> events() const;
    Lines described() const;
    // Whether the reply `code` came (waits up to `ms`).
    bool replied(int code, int ms = 10000);
    // Switches the laser on (unless it is) until `n` more frames came, and off again unless
    // `keepOn`; the frames that came meanwhile.
    std::vector<Frame> scan(size_t n, bool keepOn = false);

    std::string annex;
    std::string commandLog;
    std::unique_ptr<sdktest::ConsoleProcess> console;
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::unique_ptr<TestDevice> device;

private:
    int m_marks = 0;
};

}  // namespace devtest
