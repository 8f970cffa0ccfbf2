// pathfinder.Session: the host library's session, its operations run off the Python thread,
// callbacks handed over on it, Ctrl-C turned into a stop request.
#include <cstring>
#include <set>

#include "Binding.h"

namespace pfpy {

namespace {

// Every session alive, so that the interpreter's exit closes them (and ends their consoles)
// even when a traceback still holds one.
std::mutex& registryMutex() {
    static std::mutex m;
    return m;
}
std::set<PySession*>& registry() {
    static std::set<PySession*> s;
    return s;
}

py::dict deviceReport(const host::DeviceReport& r) {
    py::list devices;
    for (const device::tagDeviceInfo& d : r.devices) {
        py::dict e;
        e["id"] = d.serialText();
        e["kind"] = host::deviceKindName(d.kind);
        e["model"] = d.model;
        e["state"] = d.state;
        e["ready"] = d.state == device::STATE_READY;
        e["description"] = std::string(d.description, strnlen(d.description, sizeof d.description));
        devices.append(e);
    }
    py::dict thermal;
    for (const auto& t : r.thermal) {
        py::dict e;
        e["temperature"] = t.second.temperature1;
        e["mean"] = t.second.mean;
        e["samples"] = t.second.samples.size();
        e["deviation_percent"] = t.second.deviation;
        thermal[py::str(t.first)] = e;
    }
    py::dict out;
    out["endpoint"] = r.endpoint;
    out["module_version"] = r.moduleVersion;
    out["lowpart_version"] =
        r.lowpartVersion.empty() ? py::object(py::none()) : py::object(py::str(r.lowpartVersion));
    out["devices"] = devices;
    out["thermal"] = thermal;
    return out;
}

py::dict verifyReport(const host::VerifyResult& r) {
    py::object parsed = r.json.empty() ? py::dict() : parseJson(r.json);
    py::dict out = parsed.cast<py::dict>();
    out["pass"] = r.pass;
    out["stopped"] = r.stopped;
    out["report"] = r.report;
    out["files"] = r.files;
    return out;
}

std::string optional(const std::optional<std::string>& s) {
    return s ? *s : std::string();
}

}  // namespace

// ---- helpers shared by the binding files ----------------------------------------------------

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

py::array view(const py::dtype& type, std::vector<py::ssize_t> shape, const void* data,
               py::object owner, bool writeable) {
    py::array a(type, std::move(shape), {}, data, owner);
    if (!writeable) {
        py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    }
    return a;
}

py::dtype recordType(const std::vector<std::string>& names, const std::vector<std::string>& formats,
                     const std::vector<py::ssize_t>& offsets, py::ssize_t itemsize) {
    py::list n, f, o;
    for (size_t i = 0; i < names.size(); ++i) {
        n.append(names[i]);
        f.append(formats[i]);
        o.append(offsets[i]);
    }
    return py::dtype(n, f, o, itemsize);
}

py::array_t<double> transferMatrix(const std::array<double, 16>& m) {
    // Stored: B(r, c) = m[4r + c], T in 12-14 (p_K = B p_W + T).
    py::array_t<double> out({4, 4});
    auto a = out.mutable_unchecked<2>();
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
            a(r, c) = r == 3 ? (c == 3 ? 1.0 : 0.0) : (c == 3 ? m[12 + r] : m[4 * r + c]);
        }
    }
    return out;
}

py::dict transferMatrices(const std::vector<host::TransferMatrix>& matrices) {
    py::dict out;
    for (const host::TransferMatrix& t : matrices) {
        out[py::str(t.trackerId)] = transferMatrix(t.matrix);
    }
    return out;
}

py::object parseJson(const std::string& text) {
    static py::object* loads = new py::object(py::module_::import("json").attr("loads"));
    return (*loads)(text);
}

// ---- PySession ------------------------------------------------------------------------------

PySession::PySession(SessionArgs args)
    : m_onMessage(std::move(args.onMessage)), m_onProgress(std::move(args.onProgress)) {
    host::SessionOptions o;
    o.endpoint = optional(args.endpoint);
    o.consoleArgs = std::move(args.consoleArgs);
    o.startConsole = args.startConsole;
    o.consoleProgram = optional(args.console);
    o.consoleLog = optional(args.consoleLog);
    o.truthDir = optional(args.truthDir);
    // The library calls these on the thread of the operation; they only queue.
    if (!m_onMessage.is_none()) {
        o.onMessage = [this](const std::string& line) { queueEvent(Event{false, line, {}}); };
    }
    if (!m_onProgress.is_none()) {
        o.onProgress = [this](const host::ProgressEvent& e) { queueEvent(Event{true, {}, e}); };
    }
    m_session = std::make_unique<host::Session>(std::move(o));
    std::lock_guard<std::mutex> lock(registryMutex());
    registry().insert(this);
}

PySession::~PySession() {
    {
        std::lock_guard<std::mutex> lock(registryMutex());
        registry().erase(this);
    }
    // Switches the laser off, destroys the device, ends the console: seconds, without the GIL.
    py::gil_scoped_release unlocked;
    m_session.reset();
}

void PySession::claim(const char* what, bool stoppable) {
    if (!m_session->isOpen()) {
        // The module finds its console through one process-wide endpoint and keeps process-wide
        // state (transfer matrices, reference markers): one open session per process.
        std::lock_guard<std::mutex> lock(registryMutex());
        for (PySession* other : registry()) {
            if (other != this && other->m_session->isOpen()) {
                throw host::Error(host::kExitUsage,
                                  "another session is open in this process (console at " +
                                      other->m_session->endpoint() + "); close it first");
            }
        }
    }
    if (m_busy.exchange(true)) {
        throw std::runtime_error(std::string("the session is busy with ") + m_busyWith +
                                 "; one operation at a time (close the frame stream first)");
    }
    m_busyWith = what;
    m_stoppable = stoppable;
}

void PySession::release() {
    m_busyWith.clear();
    m_stoppable = false;
    m_busy.store(false);
}

void PySession::open() {
    try {
        run(
            "open", [this] { m_session->open(); }, false);
    } catch (py::error_already_set&) {
        // Ctrl-C or a callback's exception while it came up: nothing stays behind.
        py::gil_scoped_release unlocked;
        m_session->close();
        throw;
    }
}

void PySession::close() {
    std::optional<py::error_already_set> streamError;  // a callback's, raised once closed
    if (m_stream != nullptr) {
        try {
            m_stream->close();
        } catch (py::error_already_set& e) {
            streamError.emplace(std::move(e));
        }
    }
    if (m_busy.load()) {
        throw std::runtime_error("the session is busy with " + m_busyWith +
                                 " on another thread; it closes when that ends");
    }
    {
        py::gil_scoped_release unlocked;
        m_session->close();
    }
    if (streamError) {
        throw std::move(*streamError);
    }
}

void PySession::queueEvent(Event e) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(std::move(e));
    }
    m_cv.notify_all();
}

void PySession::wake() {
    { std::lock_guard<std::mutex> lock(m_mutex); }
    m_cv.notify_all();
}

void PySession::waitSlice(const std::function<bool()>& done) {
    py::gil_scoped_release unlocked;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait_for(lock, kPollSlice, [&] { return done() || !m_events.empty(); });
}

void PySession::deliverEvents() {
    std::deque<Event> events;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        events.swap(m_events);
    }
    for (const Event& e : events) {
        if (m_callbackError) {
            return;  // the operation is stopping; the rest is of no use
        }
        try {
            if (e.progress) {
                m_onProgress(e.step);
            } else {
                m_onMessage(e.line);
            }
        } catch (py::error_already_set& error) {
            m_callbackError.emplace(std::move(error));
            if (m_stoppable) {
                m_session->requestStop();
            }
        }
    }
}

void PySession::raiseCallbackError() {
    if (m_callbackError) {
        py::error_already_set e = std::move(*m_callbackError);
        m_callbackError.reset();
        throw e;
    }
}

// ---- the Python class -----------------------------------------------------------------------

void bindSession(py::module_& m) {
    py::class_<host::ProgressEvent>(m, "Progress", R"(Progress of a long operation.

Given to the session's ``on_progress`` callback: once when a stage starts, about ten
times a second, and once at its end, always on the thread that called the operation.)")
        .def_property_readonly(
            "phase",
            [](const host::ProgressEvent& e) {
                return e.phase == host::ProgressEvent::Start
                           ? "start"
                           : (e.phase == host::ProgressEvent::Tick ? "tick" : "finish");
            },
            "``'start'``, ``'tick'`` or ``'finish'``.")
        .def_readonly("stage", &host::ProgressEvent::stage,
                      "What runs: ``'scanning'``, ``'replaying'``, ``'tracking'``, ...")
        .def_readonly("done", &host::ProgressEvent::done, "Frames so far.")
        .def_readonly("total", &host::ProgressEvent::total, "Frames wanted; 0: not counted.")
        .def_readonly("seconds", &host::ProgressEvent::seconds, "> 0: the stage lasts this long.")
        .def("__repr__", [](const host::ProgressEvent& e) {
            return "<Progress " + e.stage + " " + std::to_string(e.done) + "/" +
                   std::to_string(e.total) + ">";
        });

    py::class_<PySession>(m, "Session", R"(A session with the measuring system.

Brings the system up as a measuring application does, on its first operation (or
``open()``): makes sure a console answers at the endpoint
(starts one on a free loopback port unless one answers, or ``start_console`` is false),
points the device module at it, registers a handler for every callback and initialises the
device. ``close()`` (leaving the ``with`` block, or the end of the interpreter) switches the
laser off, destroys the device and ends the console this session started, and nothing else.

Operations run one at a time. They release the GIL while they wait; the callbacks
``on_message(line)`` and ``on_progress(Progress)`` run on the thread that called the
operation, never on a thread of the library. A callback that raises stops the operation
(a scan ends with what it has, the laser goes off) and its exception is raised by the
operation.

Ctrl-C (SIGINT) during a scan, a verification or a frame stream asks the session to stop:
the scan ends cleanly (laser off, frames so far assembled), then ``KeyboardInterrupt`` is
raised. Python's signal handlers run while an operation waits: one of your own that calls
``request_stop()`` instead of raising makes the scan return its result with ``stopped``
true. During start-up the session comes up first, then closes again (ending its console)
and raises. Leaving the ``with`` block ends the console.

Failures raise :class:`pathfinder.Error` with the tool's one-line message and exit code
(3: console missing or unreachable, 4: device, 5: input file, 7: output, 8: no data).

Example::

    with pathfinder.Session() as session:
        result = session.scan(frames=200, out_dir="out")
        print(result.points.shape, result.summary["accuracy"]["rms_mm"])
)")
        .def(
            py::init([](std::optional<std::string> endpoint, std::vector<std::string> args,
                        bool start, std::optional<std::string> console,
                        std::optional<std::string> log, std::optional<std::string> truth,
                        py::object onMessage, py::object onProgress) {
                return std::make_unique<PySession>(SessionArgs{
                    std::move(endpoint), std::move(args), start, std::move(console), std::move(log),
                    std::move(truth), std::move(onMessage), std::move(onProgress)});
            }),
            py::arg("endpoint") = py::none(), py::arg("console_args") = std::vector<std::string>{},
            py::arg("start_console") = true, py::kw_only(), py::arg("console") = py::none(),
            py::arg("console_log") = py::none(), py::arg("truth_dir") = py::none(),
            py::arg("on_message") = py::none(), py::arg("on_progress") = py::none(),
            R"(Nothing starts yet.

endpoint: ``"host:port"`` of the console; None: ``$LUMORA_ENDPOINT``, else a free
    loopback port chosen by a console this session starts.
console_args: options of a console this session starts (its scene: ``["--trackers",
    "2"]``, ``["--seed", "7"]``, ...); its truth export gets the same.
start_console: start a console when none answers (False: that is an Error, code 3).
console: the console program (None: ``$PATHFINDER_CONSOLE``, else the one installed beside
    the device module).
console_log: file for the started console's output lines.
truth_dir: where the console's truth is exported (None: a temporary folder).
on_message: ``f(line: str)``, the session's lines for the user.
on_progress: ``f(progress: Progress)``, progress of scans and other waits.)")
        .def(
            "open", [](PySession& s) { s.open(); },
            "Brings the system up now (the first operation does it otherwise).")
        .def(
            "close", [](PySession& s) { s.close(); },
            "Closes a frame stream, switches the laser off, destroys the device and ends the "
            "console this session started. Safe to call twice.")
        .def(
            "__enter__", [](py::object self) { return self; },
            "Returns the session; it comes up on its first operation (so that a replay or a "
            "verification can be that operation).")
        .def(
            "__exit__",
            [](PySession& s, py::handle, py::handle, py::handle) {
                s.close();
                return false;
            },
            py::arg("kind"), py::arg("value"), py::arg("traceback"), "Closes the session.")
        .def_property_readonly(
            "is_open", [](PySession& s) { return s.host().isOpen(); }, "Whether it is up.")
        .def_property_readonly(
            "endpoint", [](PySession& s) { return s.host().endpoint(); },
            "The console's ``host:port`` once open.")
        .def_property_readonly(
            "started_console", [](PySession& s) { return s.host().startedConsole(); },
            "Whether this session started the console it uses.")
        .def_property_readonly(
            "startup_seconds", [](PySession& s) { return s.host().startupSeconds(); },
            "Seconds from the start of ``open()`` to the initialised device.")
        .def(
            "scan",
            [](PySession& s, std::optional<size_t> frames, std::optional<double> seconds,
               std::optional<std::string> replay, std::optional<std::string> cascade,
               const std::string& object, std::optional<std::string> outDir) {
                const host::ScanRequest request =
                    scanRequest(frames, seconds, std::move(replay), std::move(cascade), object,
                                std::move(outDir));
                auto result = s.run<std::shared_ptr<host::ScanResult>>(
                    "a scan",
                    [&] { return std::make_shared<host::ScanResult>(s.host().scan(request)); },
                    true);
                return scanData(std::move(result));
            },
            py::arg("frames") = py::none(), py::arg("seconds") = py::none(),
            py::arg("replay") = py::none(), py::kw_only(), py::arg("cascade") = py::none(),
            py::arg("object") = "static", py::arg("out_dir") = py::none(),
            R"(Scans and returns the cloud in the reference frame.

frames: frames to collect (default 200); or seconds: scan this long; or replay: a console
    recording to play instead (its console plays the recording, so a replay must be the
    first operation of its session).
cascade: cascade file with the transfer matrices (else they are measured against the
    console's true markers).
object: ``"static"`` (surface) or ``"hole"``.
out_dir: folder for scan.ply, scan.png, markers.txt, holes.txt, cascade.bin and
    summary.json (created when missing; None: no files).

The laser goes on, frames are assembled by their poses until enough came, the time is up,
none came for 5 s, or a stop was requested (Ctrl-C, ``request_stop()``); then the laser
goes off and, when the console exported its truth, the points are measured against the
true part. Returns a :class:`ScanResult`.)")
        .def(
            "frames",
            [](py::object self, size_t capacity, std::optional<size_t> frames,
               std::optional<double> seconds, std::optional<std::string> replay,
               const std::string& object, double timeout) {
                std::optional<host::ScanRequest> scan;
                if (frames || seconds || replay) {
                    scan = scanRequest(frames, seconds, std::move(replay), std::nullopt, object,
                                       std::nullopt);
                }
                if (capacity == 0) {
                    throw py::value_error("capacity must be at least 1");
                }
                auto stream =
                    std::make_unique<FrameStream>(self, capacity, object, timeout, std::move(scan));
                stream->start();
                return stream;
            },
            py::arg("capacity") = 64, py::kw_only(), py::arg("frames") = py::none(),
            py::arg("seconds") = py::none(), py::arg("replay") = py::none(),
            py::arg("object") = "static", py::arg("timeout") = 10.0,
            R"(An iterator over the delivered frames (a :class:`FrameStream`).

Without ``frames``, ``seconds`` or ``replay``: live frames (the scan's preparation, then the
laser on) until the stream is closed, or no frame came for ``timeout`` seconds. With one of
them: the same scan as :meth:`scan` runs in the background; the stream ends with it and its
``result`` is the scan's :class:`ScanResult`.

The device module's thread pushes each frame into a queue of ``capacity`` frames without
taking the GIL; when the queue is full the oldest frame is dropped and counted
(``dropped``). Use it as a context manager (closing it switches the laser off)::

    with session.frames(capacity=16) as stream:
        for frame in stream:
            ...)")
        .def(
            "devices",
            [](PySession& s, double wait) {
                return deviceReport(s.run<host::DeviceReport>(
                    "devices", [&] { return s.host().devices(wait); }, false));
            },
            py::arg("wait") = 0.0,
            R"(The devices, after waiting up to ``wait`` seconds for two heartbeats of each.

Returns a dict: ``endpoint``, ``module_version``, ``lowpart_version`` (None: no answer),
``devices`` (a list of dicts: ``id``, ``kind`` ('tracker', 'scanner', 'light pen', 'air'),
``model``, ``state``, ``ready``, ``description``) and ``thermal`` (by device id:
``temperature``, ``mean``, ``samples``, ``deviation_percent``).)")
        .def(
            "transfer_matrices",
            [](PySession& s) {
                return transferMatrices(s.run<std::vector<host::TransferMatrix>>(
                    "transfer matrices", [&] { return s.host().transferMatrices(); }, false));
            },
            R"(The module's transfer matrices: ``{tracker_id: M}``, M a 4x4 float64 array
on column vectors, ``p_K = M @ (p_W, 1)`` (reference frame W into tracker K). Empty until
matrices were imported or measured (a scan does).)")
        .def(
            "measure_transfer_matrices",
            [](PySession& s, std::optional<std::string> outFile) {
                return transferMatrices(s.run<std::vector<host::TransferMatrix>>(
                    "measuring transfer matrices",
                    [&] { return s.host().measureTransferMatrices(optional(outFile)); }, false));
            },
            py::arg("out_file") = py::none(),
            "Measures the transfer matrix of every tracker (against the console's true "
            "markers), writes them as a cascade file when ``out_file`` is given and returns "
            "them as :meth:`transfer_matrices` does.")
        .def(
            "verify",
            [](PySession& s, std::optional<std::string> outDir, int framesPerSphere,
               std::optional<std::map<std::string, double>> limits,
               std::optional<std::string> limitsFile) {
                host::VerifyRequest request;
                request.outDir = optional(outDir);
                request.framesPerSphere = framesPerSphere;
                request.limits = limits ? *limits : std::map<std::string, double>{};
                request.limitsFile = optional(limitsFile);
                return verifyReport(s.run<host::VerifyResult>(
                    "a verification", [&] { return s.host().verify(request); }, true));
            },
            py::arg("out_dir") = py::none(), py::kw_only(), py::arg("frames_per_sphere") = 0,
            py::arg("limits") = py::none(), py::arg("limits_file") = py::none(),
            R"(The acceptance test on the simulated artefacts (sphere, ball bar, plane).

Its console plays the artefact scene, so it must be the first operation of its session.
limits: ``{"PF": mm, "PS": mm, "SD": mm, "F": mm}``, over those of ``limits_file`` (JSON).
out_dir: folder for verify.json, verify.png and verify.txt.

Returns the figures of verify.json as a dict (``characteristics`` with each value, limit
and verdict, ``pass``, ``sphere``, ``ball_bar``, ``plane``, ``expected``, ``frames``,
``points``, ...), plus ``stopped``, ``report`` (verify.txt) and ``files``. A failed
characteristic is ``pass`` False, not an exception.)")
        .def(
            "has_truth",
            [](PySession& s) {
                return s.run<bool>(
                    "the truth", [&] { return s.host().hasTruth(); }, false);
            },
            "Whether the console's truth is at hand (exported on the first call when this "
            "session started the console).")
        .def(
            "truth_distances",
            [](PySession& s, py::array_t<float, py::array::c_style | py::array::forcecast> points) {
                if (points.ndim() != 2 || points.shape(1) != 3) {
                    throw py::value_error("points must be an (N, 3) array");
                }
                if (!s.run<bool>(
                        "the truth", [&] { return s.host().hasTruth(); }, false)) {
                    throw host::Error(host::kExitNoData,
                                      "no truth: this session's console exports none");
                }
                const size_t n = static_cast<size_t>(points.shape(0));
                py::array_t<float> out(static_cast<py::ssize_t>(n));
                const float* in = points.data();
                float* to = out.mutable_data();
                bool ok = false;
                {
                    py::gil_scoped_release unlocked;
                    ok = s.host().truthDistances(in, n, to);
                }
                if (!ok) {
                    throw host::Error(host::kExitNoData, "no true surface in the truth");
                }
                return out;
            },
            py::arg("points"),
            "Distances (mm, float32, shape (N,)) of points (an (N, 3) array, mm, reference "
            "frame) to the true part; Error (code 8) when the console exports no truth.")
        .def(
            "request_stop", [](PySession& s) { s.host().requestStop(); },
            "Ends the running wait for frames (or the next one) early; the operation finishes "
            "with what it has. Callable from any thread.")
        .def_property_readonly(
            "listener_failures", [](PySession& s) { return s.host().listenerFailures(); },
            "Exceptions the frame listeners threw on the module's thread (0 unless something "
            "is wrong inside: Python code never runs there).");

    m.def(
        "_close_sessions",
        [] {
            std::vector<PySession*> open;
            {
                std::lock_guard<std::mutex> lock(registryMutex());
                open.assign(registry().begin(), registry().end());
            }
            for (PySession* s : open) {
                try {
                    s->close();
                } catch (...) {
                    s->host().requestStop();
                }
            }
        },
        "Closes every session (the interpreter's exit calls it).");
}

}  // namespace pfpy
