// The host library's session with the device module: what every host of ours (the tool, the
// Python module, the live view) is built on.
//
// A session brings the system up as a measuring application does: it makes sure a console
// answers at a private endpoint (it starts `lumora_console` there with the scene options unless
// one already answers), points the module at it, constructs the device through its public
// constructor, registers a handler for every callback and calls init(). It opens on its first
// operation (or open()); close() and the destructor switch the laser off, destroy the device and
// end the console if this session started it, and nothing else.
//
// Threads: the operations are called from one thread (the host's). The module's receiving
// thread delivers the frames; frame listeners run on it. requestStop() may be called from any
// thread and from a signal handler. No exception leaves a handler into the module.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "helmsman/DeviceBase.h"
#include "host/Files.h"
#include "host/Records.h"

namespace host {

struct SessionOptions {
    // "host:port"; empty: $LUMORA_ENDPOINT, else a free loopback port chosen by the console.
    std::string endpoint;
    // Scene options of a console this session starts (ignored when one already answers); the
    // console's truth export gets the same.
    std::vector<std::string> consoleArgs;
    // The console program; empty: $PATHFINDER_CONSOLE, else Lumora/lumora_console beside the
    // module.
    std::string consoleProgram;
    // Start a console when none answers (false: a missing console is an error).
    bool startConsole = true;
    // File that receives the started console's output lines (empty: dropped).
    std::string consoleLog;
    // Where the console's truth is exported (empty: a temporary folder of the session).
    std::string truthDir;
    // Lines for the user ("starting the console ...", "measuring the transfer matrices ...").
    std::function<void(const std::string& line)> onMessage;
    ProgressHandler onProgress;
};

// A delivered frame and its pose into the reference frame (the module's record, shared).
// Called on the module's receiving thread: it must return quickly and must not throw (an
// exception is caught and counted, see Session::listenerFailures).
using FrameListener =
    std::function<void(const std::shared_ptr<device::tagDeviceData>& frame, const Pose& pose)>;

class Session {
public:
    explicit Session(SessionOptions options = {});
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Brings the system up (see above); Error(kExitConsole) when it cannot.
    void open();
    void close() noexcept;
    bool isOpen() const;
    const std::string& endpoint() const;
    bool startedConsole() const;
    double startupSeconds() const;  // from the start of open() to the initialised device

    // A scan: transfer matrices imported from the request's cascade file, or measured against
    // the console's true markers; laser on; frames assembled by their poses until enough came,
    // the time is up, none came for 5 s or a stop was requested; laser off; with truth, the
    // points' distances to the true part and each matrix's error; the files when asked for.
    // A scan that delivers no frame returns frames == 0.
    ScanResult scan(const ScanRequest& request);
    // The acceptance test on the simulated artefacts (sphere, ball bar, plane): PF, PS, SD and
    // F against their limits. Its console plays the artefact scene, so it must be the first
    // operation of its session.
    VerifyResult verify(const VerifyRequest& request);
    // A marker model by dynamic tracking; Error(kExitNoData) when it is empty.
    MarkerModelResult buildMarkerModel(const MarkerModelRequest& request);
    // Measures the transfer matrices of every tracker (against the console's true markers when
    // it exports them) and writes them as a cascade file when `outFile` is given.
    std::vector<TransferMatrix> measureTransferMatrices(const std::string& outFile = {});
    // The module's transfer-matrix table (empty until matrices were imported or measured).
    std::vector<TransferMatrix> transferMatrices();
    // The devices, after waiting up to `waitSeconds` for two heartbeats of each.
    DeviceReport devices(double waitSeconds = 0.0);
    // A calibration run: chooses the mode, starts, grabs up to `grabs` frames (the bar turned
    // through its poses in tracker-bar mode) until the device has no more data, and returns
    // the result. Every step goes to `onStep` as it happens.
    float calibrate(device::emDeviceCalibraMode mode, int grabs,
                    const CalibrationHandler& onStep = {});

    // Live frames for the listeners without a scan: the scan's preparation (working devices,
    // transfer matrices, scan object "static" or "hole"), then the laser on; stopFrames()
    // switches it off.
    void startFrames(const std::string& object = "static");
    void stopFrames();
    // Every delivered frame goes to every listener, in the order of registration. Returns the
    // listener's id for removeFrameListener, which returns once a call in progress finished
    // (so the listener's state may go right after it; a listener may remove itself).
    int addFrameListener(FrameListener listener);
    void removeFrameListener(int id);
    size_t listenerFailures() const;  // exceptions the listeners threw

    // Ends the running wait for frames (or the next one) early; the operation finishes with
    // what it has. Safe in a signal handler.
    void requestStop() noexcept;

    // Whether the console's truth is at hand (exported on the first call when this session
    // started the console).
    bool hasTruth();
    // Distances of `count` points (x, y, z, mm, reference frame) to the true part into `out`;
    // false when there is no true surface. Safe on any thread once hasTruth() returned true.
    bool truthDistances(const float* points, size_t count, float* out) const;
    // The truth loaded so far (empty before the session exported or loaded one), for another
    // thread to measure against while a scan runs.
    TruthSurface truthSurface() const;

    // The module through the host interface, for what the session does not offer (opens).
    device::CDeviceBase& device();

    class Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

// A bounded queue of frames between the module's thread and a consumer: push() never blocks
// (when full it drops the oldest frame and counts it); pop() waits.
class FrameQueue {
public:
    struct Item {
        std::shared_ptr<device::tagDeviceData> frame;
        Pose pose;
    };

    explicit FrameQueue(size_t capacity);
    void push(const std::shared_ptr<device::tagDeviceData>& frame, const Pose& pose);
    // The oldest frame, waiting up to `seconds`; false when none came or the queue is closed
    // and empty.
    bool pop(Item& item, double seconds);
    void close();  // wakes every pop()
    size_t dropped() const;
    size_t size() const;

private:
    const size_t m_capacity;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Item> m_items;
    size_t m_dropped = 0;
    bool m_closed = false;
};

// Whether standard output is a terminal (where a progress bar may redraw its line).
bool stdoutIsTerminal();

}  // namespace host
