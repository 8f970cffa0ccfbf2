// Inside host::Session: the console, the module, the handlers and what the frames bring. The
// operations work through it: Scan.cpp, Verify.cpp and Operations.cpp (marker model, cascade,
// devices, calibration, live frames).
//
// The module's clear() ends every process of the console's name in its companion folder; the
// session gives the module an annex folder of its own without companion programs, so that it
// neither starts nor ends consoles by name: the session starts its console itself and ends
// exactly that one.
#pragma once

#include <Eigen/Core>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Geometry.h"
#include "Truth.h"
#include "host/Session.h"
#include "platform/Platform.h"

namespace device {
class CPathfinder;
}

namespace host {

// What the frames of one collection brought.
struct Collection {
    Cloud cloud;
    size_t frames = 0;                                        // frames delivered
    size_t dropped = 0;                                       // gaps in the frame numbers
    double seconds = 0.0;                                     // first to last frame
    std::map<int32_t, std::vector<Eigen::Vector3d>> markers;  // by id, as delivered
    std::map<int32_t, Eigen::Vector3d> markerNormals;
    std::map<int32_t, double> markerDiameters;
    std::vector<Hole> holes;
    std::map<std::string, std::array<double, 16>> trackingMatrices;  // the last each frame gave
};

// One calibration progress event.
struct CalibEvent {
    device::emDeviceTFastCali kind;
    std::vector<double> values;
};

// Throws Error(kExitDevice) naming `what` unless `result` is success.
void check(int result, const std::string& what);
std::string resultText(int result);
double secondsSince(std::chrono::steady_clock::time_point t0);

class Session::Impl {
public:
    explicit Impl(SessionOptions options);
    ~Impl();

    // Brings the system up unless it is; `scene` goes before the options' console arguments
    // (for the console and its truth export), `extra` after them (for the console only).
    void open(const std::vector<std::string>& scene = {},
              const std::vector<std::string>& extra = {});
    void close() noexcept;
    bool isOpen() const { return m_device != nullptr; }
    device::CPathfinder& device();
    const std::string& endpoint() const { return m_endpoint; }
    bool startedConsole() const { return m_console != nullptr; }
    double startupSeconds() const { return m_startupSeconds; }
    const SessionOptions& options() const { return m_options; }

    void say(const std::string& line) const;
    void progress(ProgressEvent::Phase phase, const char* stage, size_t done, size_t total,
                  double seconds) const;

    // The console's truth, exported once into the options' truth folder (or a temporary one);
    // without `always` only when this session started the console. Null when there is none.
    const Truth* truth(bool always = false);
    // A truth folder instead of the console's export (a replay's recorded scene);
    // Error(kExitInputFile) when it cannot be read.
    const Truth* useTruthFolder(const std::string& dir);
    std::shared_ptr<const Truth> loadedTruth() const;

    // The scan's preparation: every device working; transfer matrices imported from
    // `cascade`, taken as recorded (`replay`), or measured against the true markers; the scan
    // object. Returns where the matrices come from ("cascade file", "as recorded", "none",
    // "measured").
    std::string prepareScan(const std::string& cascade, bool replay, const std::string& object);
    // Gives the module the true markers as its reference set; returns how many.
    size_t setReferenceMarkers(const Truth& truth);
    std::vector<TransferMatrix> transferMatrices() const;

    // --- frames ----------------------------------------------------------------------------
    // Starts assembling delivered frames (forgets an earlier collection).
    void startCollecting();
    Collection stopCollecting();
    size_t framesSoFar() const { return m_framesSoFar.load(); }
    // Waits until `frames` frames arrived or `seconds` passed (whichever is given; 0: not
    // used), no frame came for `idleSeconds`, or a stop was requested (then true). With a
    // `stage` the progress goes to the options' handler.
    bool waitForFrames(size_t frames, double seconds, double idleSeconds,
                       const char* stage = nullptr);
    int addListener(FrameListener listener);
    void removeListener(int id);
    size_t listenerFailures() const { return m_listenerFailures.load(); }
    void requestStop() noexcept { m_stop.store(true); }

    // --- events ----------------------------------------------------------------------------
    std::vector<device::tagDeviceInfo> devices();
    std::vector<std::string> deviceIds();
    std::string lowpartVersion();  // asks the module; empty when it does not answer
    std::map<std::string, device::tagDeviceThermalBalance> thermalRecords();
    // Calibration events that arrived since the last call.
    std::vector<CalibEvent> takeCalibEvents();
    // Waits up to `seconds` for at least one calibration event.
    bool waitCalibEvent(double seconds);

private:
    void installHandlers();
    void onData(const std::shared_ptr<device::tagDeviceData>& data);
    void onCalibration(device::emDeviceTFastCali kind, const void* payload);
    void startConsole(const std::string& host, uint16_t port, std::vector<std::string> args);

    SessionOptions m_options;
    std::vector<std::string> m_scene;  // the scene the console plays (and its truth shows)
    std::string m_endpoint;
    std::string m_annex;  // private annex folder (removed at the end)
    std::wstring m_previousAnnex;
    std::optional<std::string> m_previousEndpoint;
    std::unique_ptr<platform::ChildProcess> m_console;
    std::unique_ptr<device::CPathfinder> m_device;
    double m_startupSeconds = 0.0;

    // The truth, exported once.
    bool m_truthTried = false;
    std::string m_truthTemp;  // a temporary truth folder (removed at the end)
    mutable std::mutex m_truthMutex;
    std::shared_ptr<const Truth> m_truth;

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_collecting = false;
    Collection m_collection;
    int64_t m_lastFrameId = -1;
    double m_firstFrameAt = -1.0;
    double m_lastFrameAt = -1.0;
    std::atomic<size_t> m_framesSoFar{0};
    std::atomic<bool> m_stop{false};
    std::string m_lowpart;
    std::map<std::string, device::tagDeviceThermalBalance> m_thermal;
    std::deque<CalibEvent> m_calib;

    // Frame listeners: replaced whole under the mutex, read by the module's thread, which
    // holds the call mutex while it calls them (a removal waits for a call in progress; a
    // listener may remove itself).
    mutable std::mutex m_listenersMutex;
    std::recursive_mutex m_callMutex;
    std::shared_ptr<const std::vector<std::pair<int, FrameListener>>> m_listeners;
    int m_nextListener = 1;
    std::atomic<size_t> m_listenerFailures{0};

    // Console start-up: the listening line.
    std::mutex m_consoleMutex;
    std::condition_variable m_consoleCv;
    std::string m_listening;
    std::string m_consoleFirst;  // its first line (a complaint when it ends at once)
};

}  // namespace host
