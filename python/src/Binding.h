// The Python module pathfinder: what its three binding files (Session.cpp, Frame.cpp, Scan.cpp)
// share.
//
// Threads. Python code runs only on the thread that called the module. A blocking operation of
// the host library runs on a thread of its own while the calling thread waits without the GIL;
// every 50 ms, and whenever the library has a line or a progress event for the caller, the
// waiting thread takes the GIL back to hand them to the Python callbacks and to let Python run
// its signal handlers (Ctrl-C). The module's receiving thread (the SDK's) never takes the GIL:
// the frame listener of a FrameStream only pushes the shared record into a host::FrameQueue.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/Session.h"

namespace pfpy {

namespace py = pybind11;

// How long the waiting thread sleeps without the GIL before it looks at Python's signals again.
constexpr std::chrono::milliseconds kPollSlice{50};

class FrameStream;

// A line or a progress event for the Python callbacks, queued by a library thread.
struct Event {
    bool progress = false;
    std::string line;
    host::ProgressEvent step;
};

struct SessionArgs {
    std::optional<std::string> endpoint;
    std::vector<std::string> consoleArgs;
    bool startConsole = true;
    std::optional<std::string> console;
    std::optional<std::string> consoleLog;
    std::optional<std::string> truthDir;
    py::object onMessage;
    py::object onProgress;
};

// A host::Session and what Python needs around it: one operation at a time, callbacks handed
// over on the calling thread, Ctrl-C turned into a stop request.
class PySession {
public:
    explicit PySession(SessionArgs args);
    ~PySession();
    PySession(const PySession&) = delete;
    PySession& operator=(const PySession&) = delete;

    host::Session& host() { return *m_session; }
    void open();
    void close();  // ends an open frame stream first

    // Runs `work` on a thread of its own and waits for it with the GIL released, handing the
    // queued events to the callbacks meanwhile. A Python exception (a callback's, or the
    // KeyboardInterrupt of Ctrl-C) asks a `stoppable` operation to stop, waits for it to end,
    // and is raised then; a host::Error is raised as pathfinder.Error.
    // `claimed`: the caller holds the session already (a frame stream).
    template <class T>
    T run(const char* what, const std::function<T()>& work, bool stoppable, bool claimed = false);
    // The same for work without a result.
    void run(const char* what, const std::function<void()>& work, bool stoppable,
             bool claimed = false) {
        run<bool>(
            what,
            [&work] {
                work();
                return true;
            },
            stoppable, claimed);
    }

    // Marks the session busy with `what` (a frame stream holds it while it is open); raises
    // RuntimeError when it is busy already. A `stoppable` operation gets the stop request of a
    // callback that raises.
    void claim(const char* what, bool stoppable);
    void release();

    // Hands the queued events to the callbacks (GIL held). The first exception a callback
    // raises is kept (see raiseCallbackError) and stops a stoppable operation.
    void deliverEvents();
    // Throws the kept exception of a callback, if any.
    void raiseCallbackError();
    // Waits (GIL released) until `done()`, an event comes, or the slice is over.
    void waitSlice(const std::function<bool()>& done);
    void wake();

    void setStream(FrameStream* stream) { m_stream = stream; }

private:
    void queueEvent(Event e);

    std::unique_ptr<host::Session> m_session;
    py::object m_onMessage;
    py::object m_onProgress;

    std::mutex m_mutex;  // the events and the wake-up of the waiting thread
    std::condition_variable m_cv;
    std::deque<Event> m_events;

    std::atomic<bool> m_busy{false};
    std::string m_busyWith;
    bool m_stoppable = false;  // the running operation ends early on a stop request
    std::optional<py::error_already_set> m_callbackError;
    FrameStream* m_stream = nullptr;
};

template <class T>
T PySession::run(const char* what, const std::function<T()>& work, bool stoppable, bool claimed) {
    if (!claimed) {
        claim(what, stoppable);
    }
    struct Job {
        std::atomic<bool> done{false};
        std::exception_ptr error;
        T result{};
    } job;
    std::optional<py::error_already_set> interrupt;
    std::thread worker([this, &job, &work] {
        try {
            job.result = work();
        } catch (...) {
            job.error = std::current_exception();
        }
        job.done.store(true);
        wake();
    });
    // Nothing below throws before the join: the worker must not outlive this frame.
    for (;;) {
        waitSlice([&job] { return job.done.load(); });
        deliverEvents();
        if (job.done.load()) {
            break;
        }
        if (!interrupt && PyErr_CheckSignals() != 0) {
            interrupt.emplace();
            if (stoppable) {
                m_session->requestStop();
            }
        }
    }
    {
        py::gil_scoped_release unlocked;
        worker.join();
    }
    deliverEvents();
    if (!claimed) {
        release();
    }
    if (interrupt) {
        throw std::move(*interrupt);
    }
    raiseCallbackError();
    if (job.error) {
        std::rethrow_exception(job.error);
    }
    return std::move(job.result);
}

// A delivered frame: the module's record, shared with the session, and its pose. Its arrays
// are read-only views of the record (other listeners share it), whose base is the Frame.
struct Frame {
    std::shared_ptr<device::tagDeviceData> data;
    host::Pose pose;
};

// A finished scan. Its arrays own the result's vectors (no copy): their base keeps `result`.
struct ScanData {
    std::shared_ptr<host::ScanResult> result;
    py::array points, normals, distances, markers, holes;
    py::object summary;
};

// Session.frames: the frames a listener pushes into a bounded queue, taken out by the Python
// thread. Live (the laser on until it is closed) or with a scan running on a thread of its
// own (frames, seconds or a replay), whose result it keeps.
class FrameStream {
public:
    FrameStream(py::object session, size_t capacity, std::string object, double timeout,
                std::optional<host::ScanRequest> scan);
    ~FrameStream();
    FrameStream(const FrameStream&) = delete;
    FrameStream& operator=(const FrameStream&) = delete;

    void start();
    Frame next();  // throws py::stop_iteration at the end
    void close();

    size_t delivered() const { return m_shared->delivered.load(); }
    size_t dropped() const { return m_shared->queue.dropped(); }
    size_t received() const { return m_received; }
    size_t pending() const { return m_shared->queue.size(); }
    double deliveredPerSecond() const;
    double receivedPerSecond() const;
    py::object result();
    bool closed() const { return m_closed; }

private:
    // What the listener (on the module's thread) shares with the stream.
    struct Shared {
        explicit Shared(size_t capacity) : queue(capacity) {}
        host::FrameQueue queue;
        std::atomic<size_t> delivered{0};
        std::atomic<int64_t> firstNs{-1};
        std::atomic<int64_t> lastNs{-1};
    };
    bool background() const { return m_scan.has_value(); }
    void finishScan();  // joins the scan's thread (GIL released)

    py::object m_sessionObject;  // keeps the session alive
    PySession& m_session;
    std::shared_ptr<Shared> m_shared;
    std::string m_object;
    double m_timeout;
    std::optional<host::ScanRequest> m_scan;
    int m_listener = 0;
    bool m_started = false;
    bool m_closed = false;
    size_t m_received = 0;
    int64_t m_firstReceivedNs = -1;
    int64_t m_lastReceivedNs = -1;

    std::thread m_worker;
    std::atomic<bool> m_workerDone{false};
    std::exception_ptr m_error;
    std::shared_ptr<host::ScanResult> m_result;
    py::object m_resultObject;
};

int64_t nowNs();

// Read-only array over memory that `owner` keeps alive (the array's base object).
py::array view(const py::dtype& type, std::vector<py::ssize_t> shape, const void* data,
               py::object owner, bool writeable);

// A capsule that owns a copy of `p` (a shared pointer): the base object of the arrays over it.
template <class T>
py::capsule keeper(const std::shared_ptr<T>& p) {
    return py::capsule(new std::shared_ptr<T>(p),
                       [](void* k) { delete static_cast<std::shared_ptr<T>*>(k); });
}

// A structured dtype: names, formats and byte offsets in a record of `itemsize` bytes (fields
// not named are left out of the view).
py::dtype recordType(const std::vector<std::string>& names, const std::vector<std::string>& formats,
                     const std::vector<py::ssize_t>& offsets, py::ssize_t itemsize);

// A transfer matrix as a 4x4 array on column vectors: p_K = M @ (p_W, 1).
py::array_t<double> transferMatrix(const std::array<double, 16>& m);
py::dict transferMatrices(const std::vector<host::TransferMatrix>& matrices);

// A document of the library (summary.json, verify.json) as a Python dict.
py::object parseJson(const std::string& text);

void bindSession(py::module_& m);
void bindFrame(py::module_& m);
void bindScan(py::module_& m);

// The scan request from the keyword arguments of Session.scan and Session.frames.
host::ScanRequest scanRequest(std::optional<size_t> frames, std::optional<double> seconds,
                              std::optional<std::string> replay, std::optional<std::string> cascade,
                              const std::string& object, std::optional<std::string> outDir);
// The Python ScanResult that owns `result`.
ScanData scanData(std::shared_ptr<host::ScanResult> result);

}  // namespace pfpy
