// pathfinder.Frame and pathfinder.FrameStream: delivered frames as read-only NumPy views of the
// module's record, handed from the module's thread to Python through a bounded queue.
#include "Binding.h"

namespace pfpy {

namespace {

template <class Record, class Field>
py::ssize_t offsetIn(const Record& r, const Field& f) {
    return reinterpret_cast<const char*>(&f) - reinterpret_cast<const char*>(&r);
}

// The device's hole record holds vectors too: the view names only its plain fields.
const py::dtype& holeType() {
    static const device::tagScanHoleData k;
    static const py::dtype* type =
        new py::dtype(recordType({"state", "type", "center", "direction", "radius"},
                                 {"<i4", "<i4", "(3,)<f4", "(3,)<f4", "<f4"},
                                 {offsetIn(k, k.state), offsetIn(k, k.type), offsetIn(k, k.center),
                                  offsetIn(k, k.direction), offsetIn(k, k.radius)},
                                 sizeof(device::tagScanHoleData)));
    return *type;
}

// Rows of `width` values of a vector of the frame (a partial last row left out).
template <class T>
py::array rows(const std::vector<T>& v, py::ssize_t width, py::object frame) {
    return view(py::dtype::of<T>(), {static_cast<py::ssize_t>(v.size()) / width, width}, v.data(),
                std::move(frame), false);
}

template <class T>
py::array column(const std::vector<T>& v, size_t n, py::object frame) {
    return view(py::dtype::of<T>(), {static_cast<py::ssize_t>(std::min(v.size(), n))}, v.data(),
                std::move(frame), false);
}

size_t markerCount(const device::tagDeviceData& d) {
    return std::min(d.markerIds.size(), d.markerPoints.size() / 3);
}

}  // namespace

// ---- FrameStream ----------------------------------------------------------------------------

FrameStream::FrameStream(py::object session, size_t capacity, std::string object, double timeout,
                         std::optional<host::ScanRequest> scan)
    : m_sessionObject(std::move(session)),
      m_session(m_sessionObject.cast<PySession&>()),
      m_shared(std::make_shared<Shared>(capacity)),
      m_object(std::move(object)),
      m_timeout(timeout),
      m_scan(std::move(scan)) {}

FrameStream::~FrameStream() {
    try {
        close();
    } catch (...) {
    }
}

void FrameStream::start() {
    m_session.claim("a frame stream", background());
    m_session.setStream(this);
    m_started = true;
    // On the module's thread: no GIL, no Python; a shared record and a pose into the queue.
    std::shared_ptr<Shared> shared = m_shared;
    m_listener = m_session.host().addFrameListener(
        [shared](const std::shared_ptr<device::tagDeviceData>& frame, const host::Pose& pose) {
            const int64_t now = nowNs();
            int64_t unset = -1;
            shared->firstNs.compare_exchange_strong(unset, now);
            shared->lastNs.store(now);
            shared->delivered.fetch_add(1);
            shared->queue.push(frame, pose);
        });
    if (background()) {
        m_result = std::make_shared<host::ScanResult>();
        m_worker = std::thread([this] {
            try {
                *m_result = m_session.host().scan(*m_scan);
            } catch (...) {
                m_error = std::current_exception();
            }
            // Nothing more reaches the queue: what it delivered is what was pushed.
            m_session.host().removeFrameListener(m_listener);
            m_shared->queue.close();
            m_workerDone.store(true);
            m_session.wake();
        });
        return;
    }
    try {
        m_session.run(
            "a frame stream", [this] { m_session.host().startFrames(m_object); }, false, true);
    } catch (...) {
        close();
        throw;
    }
}

Frame FrameStream::next() {
    const int64_t waitFrom = nowNs();
    for (;;) {
        if (m_closed) {
            throw py::stop_iteration();
        }
        host::FrameQueue::Item item;
        bool got = false;
        {
            py::gil_scoped_release unlocked;
            got = m_shared->queue.pop(item, std::chrono::duration<double>(kPollSlice).count());
        }
        if (got) {
            const int64_t now = nowNs();
            if (m_received++ == 0) {
                m_firstReceivedNs = now;
            }
            m_lastReceivedNs = now;
            return Frame{std::move(item.frame), item.pose};
        }
        m_session.deliverEvents();
        m_session.raiseCallbackError();
        if (PyErr_CheckSignals() != 0) {
            throw py::error_already_set();
        }
        if (background()) {
            if (m_workerDone.load() && m_shared->queue.size() == 0) {
                finishScan();
                if (m_error) {
                    std::exception_ptr error = m_error;
                    m_error = nullptr;
                    std::rethrow_exception(error);
                }
                throw py::stop_iteration();
            }
        } else if (static_cast<double>(nowNs() - waitFrom) * 1e-9 >= m_timeout) {
            throw py::stop_iteration();
        }
    }
}

void FrameStream::finishScan() {
    if (m_worker.joinable()) {
        py::gil_scoped_release unlocked;
        m_worker.join();
    }
}

void FrameStream::close() {
    if (m_closed || !m_started) {
        m_closed = true;
        return;
    }
    m_closed = true;
    if (background()) {
        if (!m_workerDone.load()) {
            m_session.host().requestStop();
        }
        finishScan();
        m_session.deliverEvents();
    }
    {
        py::gil_scoped_release unlocked;
        if (!background()) {
            m_session.host().stopFrames();
        }
        // Returns once a push in progress is over: nothing touches the queue after it.
        m_session.host().removeFrameListener(m_listener);
        m_shared->queue.close();
    }
    m_session.setStream(nullptr);
    m_session.release();
    m_session.raiseCallbackError();
}

double FrameStream::deliveredPerSecond() const {
    const size_t n = delivered();
    const int64_t span = m_shared->lastNs.load() - m_shared->firstNs.load();
    return n > 1 && span > 0 ? static_cast<double>(n - 1) / (static_cast<double>(span) * 1e-9)
                             : 0.0;
}

double FrameStream::receivedPerSecond() const {
    const int64_t span = m_lastReceivedNs - m_firstReceivedNs;
    return m_received > 1 && span > 0
               ? static_cast<double>(m_received - 1) / (static_cast<double>(span) * 1e-9)
               : 0.0;
}

py::object FrameStream::result() {
    if (!background() || !m_workerDone.load() || m_error) {
        return py::none();
    }
    finishScan();
    if (!m_resultObject) {
        m_resultObject = py::cast(scanData(m_result));
    }
    return m_resultObject;
}

// ---- the Python classes ---------------------------------------------------------------------

void bindFrame(py::module_& m) {
    py::class_<Frame>(m, "Frame", R"(A frame as the device module delivered it.

Its arrays are read-only views of the module's record (no copy; the record stays alive as
long as an array of it does). Laser points and directions are in the scanner's frame;
``pose`` maps them into the reference frame: ``p_W = pose @ (p, 1)``, that is
``points @ pose[:3, :3].T + pose[:3, 3]``. Copy an array (``np.array(a)``) to change it.)")
        .def_property_readonly(
            "number", [](const Frame& f) { return f.data->frameId; },
            "The frame number the device gives.")
        .def_property_readonly(
            "timestamp_ms", [](const Frame& f) { return f.data->timestampMs; },
            "The device's time stamp, ms.")
        .def_property_readonly(
            "points",
            [](py::object self) {
                return rows(self.cast<const Frame&>().data->laserPoints, 3, self);
            },
            "(N, 3) float32 laser points, mm, scanner frame.")
        .def_property_readonly(
            "directions",
            [](py::object self) {
                return rows(self.cast<const Frame&>().data->laserDirections, 3, self);
            },
            "(N, 3) float32 laser point directions, scanner frame ((0, 3) when none).")
        .def_property_readonly(
            "pose",
            [](const Frame& f) {
                const std::array<double, 16> m = f.pose.matrix();
                py::array_t<double> out({4, 4});
                std::copy(m.begin(), m.end(), out.mutable_data());
                return out;
            },
            "(4, 4) float64: the scanner pose into the reference frame on column vectors.")
        .def_property_readonly(
            "marker_ids",
            [](py::object self) {
                const device::tagDeviceData& d = *self.cast<const Frame&>().data;
                return column(d.markerIds, markerCount(d), self);
            },
            "(M,) int32 ids of the markers seen.")
        .def_property_readonly(
            "markers",
            [](py::object self) {
                const device::tagDeviceData& d = *self.cast<const Frame&>().data;
                return view(py::dtype::of<double>(), {static_cast<py::ssize_t>(markerCount(d)), 3},
                            d.markerPoints.data(), self, false);
            },
            "(M, 3) float64 marker centres, mm, as delivered.")
        .def_property_readonly(
            "marker_normals",
            [](py::object self) {
                return rows(self.cast<const Frame&>().data->markerNormals, 3, self);
            },
            "(M, 3) float64 marker directions ((0, 3) when none).")
        .def_property_readonly(
            "marker_diameters",
            [](py::object self) {
                const device::tagDeviceData& d = *self.cast<const Frame&>().data;
                return column(d.markerDiameters, markerCount(d), self);
            },
            "(M,) float64 marker diameters, mm.")
        .def_property_readonly(
            "holes",
            [](py::object self) {
                const auto& h = self.cast<const Frame&>().data->scanHoles;
                return view(holeType(), {static_cast<py::ssize_t>(h.size())}, h.data(), self,
                            false);
            },
            "Structured array of the holes measured in this frame (reference frame): "
            "``state``, ``type``, ``center`` (3), ``direction`` (3), ``radius`` (float32).")
        .def("__repr__", [](const Frame& f) {
            return "<Frame " + std::to_string(f.data->frameId) + ": " +
                   std::to_string(f.data->laserPoints.size() / 3) + " points, " +
                   std::to_string(markerCount(*f.data)) + " markers>";
        });

    py::class_<FrameStream>(m, "FrameStream", R"(The frames of a session, in order of delivery.

An iterator and a context manager (see :meth:`Session.frames`). Waiting for the next frame
releases the GIL; Ctrl-C raises KeyboardInterrupt from the wait. Closing it (leaving the
``with`` block) switches the laser off, or stops and finishes the background scan.)")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &FrameStream::next)
        .def("__enter__", [](py::object self) { return self; })
        .def(
            "__exit__",
            [](FrameStream& s, py::handle, py::handle, py::handle) {
                s.close();
                return false;
            },
            py::arg("kind"), py::arg("value"), py::arg("traceback"), "Closes the stream.")
        .def("close", &FrameStream::close,
             "Ends the stream (laser off, or the background scan stopped and finished); safe "
             "to call twice.")
        .def_property_readonly("closed", &FrameStream::closed)
        .def_property_readonly("delivered", &FrameStream::delivered,
                               "Frames the module delivered to this stream.")
        .def_property_readonly("dropped", &FrameStream::dropped,
                               "Frames the full queue had to drop (the oldest first).")
        .def_property_readonly("received", &FrameStream::received,
                               "Frames handed to Python so far.")
        .def_property_readonly("pending", &FrameStream::pending, "Frames waiting in the queue.")
        .def_property_readonly(
            "delivered_per_second", &FrameStream::deliveredPerSecond,
            "Rate at which the module delivered frames, first to last (measured on its "
            "thread).")
        .def_property_readonly("received_per_second", &FrameStream::receivedPerSecond,
                               "Rate at which Python took frames, first to last.")
        .def_property_readonly(
            "result", &FrameStream::result,
            "The background scan's ScanResult once the stream has ended (None for live frames "
            "or before the end).");
}

}  // namespace pfpy
