// pathfinder.ScanResult: a finished scan, its cloud as NumPy arrays that own the result's
// vectors.
#include "Binding.h"

namespace pfpy {

namespace {

template <class Record, class Field>
py::ssize_t offsetIn(const Record& r, const Field& f) {
    return reinterpret_cast<const char*>(&f) - reinterpret_cast<const char*>(&r);
}

const py::dtype& markerType() {
    static const host::Marker k;
    static const py::dtype* type = new py::dtype(
        recordType({"id", "position", "normal", "diameter"}, {"<i4", "(3,)<f8", "(3,)<f8", "<f8"},
                   {offsetIn(k, k.id), offsetIn(k, k.position), offsetIn(k, k.normal),
                    offsetIn(k, k.diameter)},
                   sizeof(host::Marker)));
    return *type;
}

const py::dtype& holeType() {
    static const host::Hole k;
    static const py::dtype* type =
        new py::dtype(recordType({"state", "type", "center", "direction", "radius"},
                                 {"<i4", "<i4", "(3,)<f8", "(3,)<f8", "<f8"},
                                 {offsetIn(k, k.state), offsetIn(k, k.type), offsetIn(k, k.center),
                                  offsetIn(k, k.direction), offsetIn(k, k.radius)},
                                 sizeof(host::Hole)));
    return *type;
}

}  // namespace

host::ScanRequest scanRequest(std::optional<size_t> frames, std::optional<double> seconds,
                              std::optional<std::string> replay, std::optional<std::string> cascade,
                              const std::string& object, std::optional<std::string> outDir) {
    if (static_cast<int>(frames.has_value()) + static_cast<int>(seconds.has_value()) +
            static_cast<int>(replay.has_value()) >
        1) {
        throw py::value_error("give one of frames, seconds and replay");
    }
    if ((frames && *frames == 0) || (seconds && !(*seconds > 0))) {
        throw py::value_error("frames and seconds must be positive");
    }
    host::ScanRequest r;
    r.frames = frames.value_or(r.frames);
    r.seconds = seconds.value_or(0.0);
    r.replay = replay.value_or(std::string());
    r.cascade = cascade.value_or(std::string());
    r.object = object;
    r.outDir = outDir.value_or(std::string());
    return r;
}

ScanData scanData(std::shared_ptr<host::ScanResult> result) {
    ScanData s;
    host::ScanResult& r = *result;
    s.result = result;
    const py::capsule owner = keeper(result);
    const auto n = static_cast<py::ssize_t>(r.cloud.size());
    const py::dtype f4 = py::dtype::of<float>();
    s.points = view(f4, {n, 3}, r.cloud.points.data(), owner, true);
    s.normals = view(f4, {r.cloud.hasNormals() ? n : 0, 3}, r.cloud.normals.data(), owner, true);
    s.distances = view(py::dtype::of<double>(), {static_cast<py::ssize_t>(r.distances.size())},
                       r.distances.data(), owner, true);
    s.markers = view(markerType(), {static_cast<py::ssize_t>(r.markers.size())}, r.markers.data(),
                     owner, true);
    s.holes =
        view(holeType(), {static_cast<py::ssize_t>(r.holes.size())}, r.holes.data(), owner, true);
    s.summary = parseJson(r.summaryJson);
    return s;
}

void bindScan(py::module_& m) {
    py::class_<ScanData>(m, "ScanResult", R"(A finished scan.

Its arrays own the scan's storage (no copy was made) and may be kept after the result.
``points`` and ``normals`` are (N, 3) float32 arrays in millimetres, in the reference frame;
``normals`` is (0, 3) when the scanner gave no directions.)")
        .def_readonly("points", &ScanData::points, "(N, 3) float32, mm, reference frame.")
        .def_readonly("normals", &ScanData::normals,
                      "(N, 3) float32 unit normals, or (0, 3) without directions.")
        .def_readonly("distances", &ScanData::distances,
                      "(N,) float64: each point's distance (mm) to the true part; (0,) "
                      "without truth.")
        .def_readonly("markers", &ScanData::markers,
                      "Structured array of the markers seen, averaged per id: ``id``, "
                      "``position`` (3), ``normal`` (3), ``diameter``.")
        .def_readonly("holes", &ScanData::holes,
                      "Structured array of the holes: ``state``, ``type``, ``center`` (3), "
                      "``direction`` (3), ``radius``.")
        .def_readonly("summary", &ScanData::summary,
                      "The figures of summary.json as a dict: ``frames``, ``points``, "
                      "``frames_per_second``, ``dropped_frames``, ``duration_s``, ``startup_s``, "
                      "``total_s``, ``transfer_matrices``, ``truth``, ``accuracy`` (``rms_mm``, "
                      "``p95_mm``, ``max_mm``, ``mean_mm``, ``points``, ``noise_sigma_mm``), "
                      "``trackers``, ...")
        .def_property_readonly(
            "frames", [](const ScanData& s) { return s.result->frames; }, "Frames delivered.")
        .def_property_readonly(
            "dropped", [](const ScanData& s) { return s.result->dropped; },
            "Frames missing (gaps in the frame numbers).")
        .def_property_readonly(
            "stopped", [](const ScanData& s) { return s.result->stopped; },
            "Whether a stop request ended it early.")
        .def_property_readonly(
            "noise_sigma_mm", [](const ScanData& s) { return s.result->noiseSigmaMm; },
            "The simulated laser noise (0: unknown).")
        .def_property_readonly(
            "transfer_matrices",
            [](const ScanData& s) { return transferMatrices(s.result->matrices); },
            "The matrices in use, as Session.transfer_matrices() gives them.")
        .def_property_readonly(
            "files", [](const ScanData& s) { return s.result->files; }, "The files written.")
        .def("__repr__", [](const ScanData& s) {
            const host::ScanResult& r = *s.result;
            return "<ScanResult " + std::to_string(r.frames) + " frames, " +
                   std::to_string(r.cloud.size()) + " points" + (r.stopped ? ", stopped>" : ">");
        });
}

}  // namespace pfpy
