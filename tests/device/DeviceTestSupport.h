// Test support of the device module: a device subclass that opens up its handlers and records
// every host callback, a few helpers for annex folders, endpoints and the time scale.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/Pathfinder.h"

namespace devtest {

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
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
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

}  // namespace devtest
