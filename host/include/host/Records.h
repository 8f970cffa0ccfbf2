// Records of the host library: what its operations take and give back. Plain values of the
// standard library and the host interface's records, arrays contiguous (x, y, z per point), so
// that a binding can hand them on without knowing the library's inside.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "helmsman/DeviceTypes.h"

namespace host {

// Exit codes of the `pathfinder` tool; every Error carries one.
enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,       // anything not listed below
    kExitUsage = 2,         // a request (command line, options) that does not make sense
    kExitConsole = 3,       // console missing, not started or not reachable, or init() failed
    kExitDevice = 4,        // the device refused or did not answer (busy laser, unsupported, ...)
    kExitInputFile = 5,     // an input file is unreadable or malformed
    kExitUnknownKey = 6,    // a configuration key is not in the file
    kExitOutput = 7,        // an output folder or file cannot be written
    kExitNoData = 8,        // the device delivered nothing to work with
    kExitVerifyFailed = 9,  // verification: a characteristic beyond its limit
};

// What failed, in one line, and the exit code that goes with it. The library throws nothing
// else on purpose; none is thrown on the module's threads.
class Error : public std::runtime_error {
public:
    Error(ExitCode code, const std::string& message) : std::runtime_error(message), m_code(code) {}
    ExitCode code() const noexcept { return m_code; }

private:
    ExitCode m_code;
};

// Points in millimetres, x, y, z per point; normals (unit) the same way when the scanner gave
// directions, else empty.
struct Cloud {
    std::vector<float> points;
    std::vector<float> normals;

    size_t size() const { return points.size() / 3; }
    bool hasNormals() const { return !normals.empty() && normals.size() == points.size(); }
};

// A scanner pose as the module delivers it: a scanner point x (row vector) maps to x·R + t,
// R by rows. Delivered frames carry it into the reference frame.
struct Pose {
    std::array<double, 9> rotation{1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::array<double, 3> translation{0, 0, 0};

    // The same map on column vectors as a 4×4 matrix, row-major: p = M·(x, 1).
    std::array<double, 16> matrix() const {
        const auto& r = rotation;
        return {r[0], r[3], r[6], translation[0], r[1], r[4], r[7], translation[1],
                r[2], r[5], r[8], translation[2], 0,    0,    0,    1};
    }
};

// One tracker's stored transfer matrix: p_K = B·p_W + T, B in elements 0-2, 4-6, 8-10
// (B(r, c) = m[4r + c]), T in 12-14.
struct TransferMatrix {
    std::string trackerId;
    std::array<double, 16> matrix{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

// Absolute distances: count, root mean square, largest, 95th percentile (nearest rank), mean.
struct DistanceFigures {
    size_t count = 0;
    double rms = 0.0;
    double max = 0.0;
    double p95 = 0.0;
    double mean = 0.0;
};

struct Marker {
    int32_t id = 0;
    std::array<double, 3> position{0, 0, 0};
    std::array<double, 3> normal{0, 0, 0};
    double diameter = 0.0;
};

struct Hole {
    int32_t state = 0;
    int32_t type = 0;
    std::array<double, 3> center{0, 0, 0};
    std::array<double, 3> direction{0, 0, 0};
    double radius = 0.0;
};

// Progress of long work: once when a stage starts, about ten times a second, once at its end.
struct ProgressEvent {
    enum Phase { Start, Tick, Finish } phase = Start;
    std::string stage;   // "scanning", "replaying", "tracking", "scanning the artefacts"
    size_t done = 0;     // frames so far
    size_t total = 0;    // frames wanted; 0: not counted
    double seconds = 0;  // > 0: the stage lasts this long
};
using ProgressHandler = std::function<void(const ProgressEvent&)>;

// ---- scan -----------------------------------------------------------------------------------

struct ScanRequest {
    size_t frames = 200;   // frames to collect (ignored with `seconds` or `replay`)
    double seconds = 0.0;  // > 0: scan this long instead
    // A console recording to play instead of a live scan. Its console plays the recording, so
    // the replay must be the first operation of its session.
    std::string replay;
    // With a replay: the truth folder of the recorded scene (for example DIR/truth of the scan
    // that recorded it) to measure the replayed cloud against; empty: no accuracy figures.
    std::string truth;
    std::string cascade;            // cascade file with the transfer matrices, else measured
    std::string object = "static";  // "static" (surface) or "hole"
    // Folder for scan.ply, scan.png, markers.txt, holes.txt, cascade.bin and summary.json
    // (created when missing; empty: no files).
    std::string outDir;
};

struct TrackerFigures {
    std::string id;
    double translationMm = 0.0;  // measured against true matrix
    double rotationDeg = 0.0;
};

struct ScanResult {
    Cloud cloud;                    // reference frame, millimetres
    std::vector<double> distances;  // per point, to the true part (empty without truth)
    size_t frames = 0;
    size_t dropped = 0;    // gaps in the frame numbers
    double seconds = 0.0;  // first to last frame
    double framesPerSecond = 0.0;
    double startupSeconds = 0.0;
    double totalSeconds = 0.0;
    bool stopped = false;         // ended by requestStop()
    std::vector<Marker> markers;  // averaged per id, as delivered
    std::vector<Hole> holes;
    std::string object;
    std::string endpoint;
    std::string transferMatrices;          // "measured", "cascade file", "as recorded" or "none"
    std::vector<TransferMatrix> matrices;  // the matrices in use
    bool truth = false;                    // the console exported its truth
    bool hasAccuracy = false;
    DistanceFigures accuracy;   // distances of the points to the true part
    double noiseSigmaMm = 0.0;  // the simulated laser noise (0: unknown)
    std::vector<TrackerFigures> trackers;
    std::string summaryJson;         // summary.json
    std::vector<std::string> files;  // the files written
};

// ---- acceptance test on the simulated artefacts ----------------------------------------------

// One characteristic against its limit: |value| <= limit passes.
struct Characteristic {
    std::string name;
    std::string what;
    double value = 0.0;  // mm; NaN when it could not be measured
    double limit = 0.0;  // mm
    bool measured = false;
    bool pass() const { return measured && std::isfinite(value) && std::fabs(value) <= limit; }
};

struct VerifyRequest {
    // Folder for verify.json, verify.png and verify.txt (created when missing; empty: none).
    std::string outDir;
    int framesPerSphere = 0;               // 0: the scene's default
    std::string limitsFile;                // JSON object {"PF": mm, "PS": mm, "SD": mm, "F": mm}
    std::map<std::string, double> limits;  // "PF", "PS", "SD", "F"; outrank the file
};

struct VerifyResult {
    std::vector<Characteristic> characteristics;  // PF, PS, SD, F
    bool pass = false;
    std::vector<double> sphereSpacing;  // SD per ball-bar position (NaN: not measured)
    double expectedFormMm = 0.0;        // expected range of the residuals of the noise
    size_t frames = 0;
    size_t points = 0;
    double totalSeconds = 0.0;
    bool stopped = false;
    std::string json;    // verify.json
    std::string report;  // verify.txt
    std::vector<std::string> files;
};

// ---- marker model ---------------------------------------------------------------------------

struct MarkerModelRequest {
    size_t frames = 100;   // frames to track
    double seconds = 0.0;  // > 0: track this long instead
    std::string outFile;   // model file "id x y z nx ny nz" (empty: none)
    std::string truthDir;  // truth folder to compare with (empty: none)
};

struct MarkerModelResult {
    std::vector<Marker> model;         // the model's own labels and frame
    std::vector<size_t> observations;  // per model marker
    size_t frames = 0;
    bool compared = false;  // a truth was given
    bool matched = false;   // it matched in one of its frames
    std::string frame;      // "reference" or the tracker's id
    size_t paired = 0;
    DistanceFigures residuals;   // after the best rigid fit
    double weightedRmsMm = 0.0;  // residuals scaled by the square root of their observations
    double markerNoiseMm = 0.0;  // the scene's marker noise in 3D (0: unknown)
};

// ---- devices and calibration ----------------------------------------------------------------

struct DeviceReport {
    std::string endpoint;
    std::string moduleVersion;
    std::string lowpartVersion;  // empty: no answer
    std::vector<device::tagDeviceInfo> devices;
    std::map<std::string, device::tagDeviceThermalBalance> thermal;  // by device id
};

// A device kind (tagDeviceInfo::kind) as a word: "tracker", "scanner", "light pen", "air",
// "unknown".
const char* deviceKindName(int kind);

// One step of a calibration run, as it happens.
struct CalibrationStep {
    enum Kind { Started, Event, Grab, Exhausted, Result } kind = Started;
    device::emDeviceTFastCali event = device::FAST_CALI_LOCATION;  // Event
    std::vector<double> values;                                    // Event: the payload's figures
    int grab = 0;         // Grab, Result: frames grabbed so far
    int pose = 0;         // Grab: the bar's pose
    float result = 0.0f;  // Result
};
using CalibrationHandler = std::function<void(const CalibrationStep&)>;

}  // namespace host
