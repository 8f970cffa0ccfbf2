// The host side of one session with the device module: the one class every subcommand uses.
//
// open() brings the system up as a measuring application does: it makes sure a console runs
// at a private endpoint (it starts `lumora_console` there with the scene options unless one
// already answers), points the module at it through LUMORA_ENDPOINT, constructs
// device::CPathfinder through its public constructor, registers a handler for every callback
// and calls init(). Frames delivered while collecting are assembled into one cloud by their
// delivered poses (p = x·R + t). The destructor switches the laser off, destroys the device
// and ends the console if this session started it.
//
// The module's clear() ends every process of the console's name in its companion folder; the
// session gives the module an annex folder of its own without companion programs, so that it
// neither starts nor ends consoles by name: the session starts its console itself and ends
// exactly that one.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "CascadeFile.h"
#include "Endpoint.h"
#include "ExitCodes.h"
#include "Geometry.h"
#include "helmsman/DeviceTypes.h"
#include "platform/Platform.h"

namespace device {
class CPathfinder;
}

namespace pfapp {

struct SessionOptions {
    // "host:port"; empty: $LUMORA_ENDPOINT, else a free loopback port chosen by the console.
    std::string endpoint;
    // Options for a console this session starts (ignored when one already answers).
    std::vector<std::string> consoleArgs;
    // The console program; empty: $PATHFINDER_CONSOLE, else Lumora/lumora_console beside
    // libPathfinder.so.
    std::string consoleProgram;
    // Start a console when none answers (false: a missing console is an error).
    bool startConsole = true;
    // File that receives the console's output lines (empty: dropped).
    std::string consoleLog;
    // Lines for the user ("starting the console ...").
    bool verbose = true;
};

// One measured hole as delivered.
struct HoleRecord {
    int32_t state = 0;
    int32_t type = 0;
    Eigen::Vector3d center = Eigen::Vector3d::Zero();
    Eigen::Vector3d direction = Eigen::Vector3d::Zero();
    double radius = 0.0;
};

// What the frames of one collection brought.
struct Collection {
    Cloud cloud;
    size_t frames = 0;   // frames delivered
    size_t dropped = 0;  // gaps in the frame numbers
    size_t framesWithPoints = 0;
    double seconds = 0.0;                                     // first to last frame
    std::map<int32_t, std::vector<Eigen::Vector3d>> markers;  // by id, as delivered
    std::map<int32_t, Eigen::Vector3d> markerNormals;
    std::map<int32_t, double> markerDiameters;
    std::vector<HoleRecord> holes;
    std::map<std::string, std::array<double, 16>> trackingMatrices;  // the last each frame gave
    int32_t poseMode = 0;
};

// One calibration progress event.
struct CalibEvent {
    device::emDeviceTFastCali kind;
    std::vector<double> values;
};

struct Truth;

// Runs `console --export-truth DIR sceneArgs...` (the console of the session's options, or the
// default one) and loads what it wrote. Empty, with one line on standard output and no folder
// left behind, when the console exports no truth.
std::optional<Truth> exportTruth(const std::string& consoleProgram,
                                 const std::vector<std::string>& sceneArgs, const std::string& dir);

class HostSession {
public:
    explicit HostSession(SessionOptions options);
    ~HostSession();
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    // Brings the system up; throws AppError (kExitConsole) when it cannot.
    void open();
    device::CPathfinder& device();
    const std::string& endpoint() const { return m_endpoint; }
    bool startedConsole() const { return m_console != nullptr; }
    // Seconds from the start of open() to the initialised device.
    double startupSeconds() const { return m_startupSeconds; }

    // Throws AppError(kExitDevice) naming `what` unless `result` is success.
    static void check(int result, const std::string& what);
    static std::string resultText(int result);

    // The module's transfer-matrix table (empty until matrices were imported or measured).
    std::vector<CascadeEntry> transferMatrices() const;

    // Gives the module the true markers as its reference set (what static tracking registers
    // the trackers' markers against); returns how many.
    size_t setReferenceMarkers(const Truth& truth);

    // --- frames ----------------------------------------------------------------------------
    // Starts assembling delivered frames (forgets an earlier collection).
    void startCollecting();
    // Stops and hands over what was collected.
    Collection stopCollecting();
    size_t framesSoFar() const { return m_framesSoFar.load(); }
    // Waits until `frames` frames arrived or `seconds` passed (whichever is given; 0: not
    // used) or no frame came for `idleSeconds`; calls `tick` about ten times a second.
    void waitForFrames(size_t frames, double seconds, double idleSeconds,
                       const std::function<void(size_t)>& tick);

    // --- events ----------------------------------------------------------------------------
    std::vector<device::tagDeviceInfo> devices();
    std::string lowpartVersion();  // asks the module; empty when it does not answer
    std::map<std::string, device::tagDeviceThermalBalance> thermalRecords();
    // Calibration events that arrived since the last call.
    std::vector<CalibEvent> takeCalibEvents();
    // Waits up to `seconds` for at least one calibration event.
    bool waitCalibEvent(double seconds);
    std::vector<std::string> deviceTexts();

private:
    void installHandlers();
    void onData(const std::shared_ptr<device::tagDeviceData>& data);
    void startConsole(const std::string& host, uint16_t port);

    SessionOptions m_options;
    std::string m_endpoint;
    std::string m_annex;  // private annex folder (removed at the end)
    std::unique_ptr<platform::ChildProcess> m_console;
    std::unique_ptr<device::CPathfinder> m_device;
    double m_startupSeconds = 0.0;

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_collecting = false;
    Collection m_collection;
    int64_t m_lastFrameId = -1;
    double m_firstFrameAt = -1.0;
    double m_lastFrameAt = -1.0;
    std::atomic<size_t> m_framesSoFar{0};
    std::string m_lowpart;
    std::map<std::string, device::tagDeviceThermalBalance> m_thermal;
    std::deque<CalibEvent> m_calib;
    std::vector<std::string> m_texts;
    std::map<std::string, device::tagDeviceInfo> m_states;

    // Console start-up: the listening line.
    std::mutex m_consoleMutex;
    std::condition_variable m_consoleCv;
    std::string m_listening;
    std::string m_consoleFirst;  // its first line (a complaint when it ends at once)
    bool m_consoleEnded = false;
};

}  // namespace pfapp
