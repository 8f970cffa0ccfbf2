// A scan: bring the system up, settle the transfer matrices (measured, or from a cascade file),
// switch the laser on, assemble the delivered frames by their poses, measure them against the
// truth and write scan.ply, scan.png, markers.txt, holes.txt, cascade.bin and summary.json.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "SessionImpl.h"
#include "Writers.h"
#include "device/Pathfinder.h"
#include "host/Files.h"

namespace host {

namespace {

namespace fs = std::filesystem;

void writeOrThrow(const Writer& writer, const std::string& path, std::vector<std::string>& files) {
    std::string error;
    if (!writer.write(path, error)) {
        throw Error(kExitOutput, error);
    }
    files.push_back(path);
}

void evaluate(ScanResult& r, const Truth& truth) {
    r.truth = true;
    r.noiseSigmaMm = truth.noiseSigmaMm;
    if (truth.distance && r.cloud.size() > 0) {
        r.distances = distancesTo(r.cloud, truth.distance);
        r.accuracy = distanceStats(r.distances);
        r.hasAccuracy = true;
    }
    for (const TransferMatrix& used : r.matrices) {
        for (const TransferMatrix& real : truth.matrices) {
            if (real.trackerId == used.trackerId) {
                const MatrixError e = transferMatrixError(used.matrix, real.matrix);
                r.trackers.push_back({used.trackerId, e.translationMm, e.rotationDeg});
            }
        }
    }
}

// scan.ply, scan.png (when there are points), markers.txt, holes.txt, cascade.bin.
void writeFiles(ScanResult& r, const std::string& dir) {
    const fs::path base(dir);
    if (r.cloud.size() > 0) {
        writeOrThrow(PlyWriter(r.cloud), (base / "scan.ply").string(), r.files);
        writeOrThrow(PngWriter(r.cloud, r.distances, r.noiseSigmaMm > 0 ? 3 * r.noiseSigmaMm : 0),
                     (base / "scan.png").string(), r.files);
    }
    std::vector<std::string> markers{"# id x y z nx ny nz diameter (mm, as delivered; mean over " +
                                     std::string("the frames that saw the marker)")};
    for (const Marker& m : r.markers) {
        char line[256];
        std::snprintf(line, sizeof(line), "%d %.4f %.4f %.4f %.6f %.6f %.6f %.3f", m.id,
                      m.position[0], m.position[1], m.position[2], m.normal[0], m.normal[1],
                      m.normal[2], m.diameter);
        markers.push_back(line);
    }
    writeOrThrow(TextWriter(markers), (base / "markers.txt").string(), r.files);
    std::vector<std::string> holes{"# state type cx cy cz dx dy dz radius (mm, reference frame)"};
    for (const Hole& h : r.holes) {
        char line[256];
        std::snprintf(line, sizeof(line), "%d %d %.4f %.4f %.4f %.6f %.6f %.6f %.4f", h.state,
                      h.type, h.center[0], h.center[1], h.center[2], h.direction[0], h.direction[1],
                      h.direction[2], h.radius);
        holes.push_back(line);
    }
    writeOrThrow(TextWriter(holes), (base / "holes.txt").string(), r.files);
    writeCascadeFile((base / "cascade.bin").string(), r.matrices);
    r.files.push_back((base / "cascade.bin").string());
}

nlohmann::json summary(const ScanResult& r) {
    nlohmann::json j;
    j["frames"] = r.frames;
    j["points"] = r.cloud.size();
    j["frames_per_second"] = r.framesPerSecond;
    j["dropped_frames"] = r.dropped;
    j["duration_s"] = r.seconds;
    j["startup_s"] = r.startupSeconds;
    j["total_s"] = r.totalSeconds;
    j["normals"] = r.cloud.hasNormals();
    j["markers"] = r.markers.size();
    j["holes"] = r.holes.size();
    j["object"] = r.object;
    j["endpoint"] = r.endpoint;
    j["transfer_matrices"] = r.transferMatrices;
    j["truth"] = r.truth;
    if (r.hasAccuracy) {
        j["accuracy"] = {{"rms_mm", r.accuracy.rms},
                         {"max_mm", r.accuracy.max},
                         {"p95_mm", r.accuracy.p95},
                         {"mean_mm", r.accuracy.mean},
                         {"points", r.accuracy.count}};
        if (r.noiseSigmaMm > 0) {
            j["accuracy"]["noise_sigma_mm"] = r.noiseSigmaMm;
        }
    }
    nlohmann::json trackers = nlohmann::json::array();
    for (const TrackerFigures& t : r.trackers) {
        trackers.push_back(
            {{"id", t.id}, {"translation_mm", t.translationMm}, {"rotation_deg", t.rotationDeg}});
    }
    if (!trackers.empty()) {
        j["trackers"] = trackers;
    }
    return j;
}

}  // namespace

ScanResult Session::scan(const ScanRequest& request) {
    const auto t0 = std::chrono::steady_clock::now();
    Impl& session = *m_impl;
    const bool replay = !request.replay.empty();
    if (!request.outDir.empty()) {
        prepareOutputFolder(request.outDir);
    }
    std::vector<TransferMatrix> cascade;
    if (!request.cascade.empty()) {
        cascade = readCascadeFile(request.cascade);
    }
    const Truth* replayTruth = nullptr;
    if (replay) {
        if (!platform::fileExists(request.replay)) {
            throw Error(kExitInputFile, "cannot read the recording " + request.replay);
        }
        if (session.isOpen()) {
            throw Error(kExitUsage,
                        "a replay needs a session of its own: its console plays "
                        "the recording");
        }
        if (!request.truth.empty()) {
            replayTruth = session.useTruthFolder(request.truth);
        }
        try {
            // Played once: the console ends with the recording, so the scan ends with it too.
            session.open({}, {"--replay", request.replay, "--replay-exit"});
        } catch (const Error& e) {
            // A recording the console cannot read ends it at start.
            if (e.code() == kExitConsole &&
                std::string(e.what()).find("ended at start") != std::string::npos) {
                throw Error(kExitInputFile, "cannot replay " + request.replay + ": " + e.what());
            }
            throw;
        }
    } else {
        session.open();
    }
    char line[256];
    std::snprintf(line, sizeof(line), "connected to %s in %.1f s", session.endpoint().c_str(),
                  session.startupSeconds());
    session.say(line);
    // A recording does not say which scene it was made from: a replay is measured only against
    // the truth it is given.
    const Truth* truth = replay ? replayTruth : session.truth();

    ScanResult r;
    r.transferMatrices = session.prepareScan(request.cascade, replay, request.object);
    device::CPathfinder& dev = session.device();
    session.startCollecting();
    if (!replay) {
        check(dev.controlLaserOn(), "switching the laser on");
    }
    // A recording plays at its own pace, laser commands included: take what comes until it
    // stops.
    const size_t frames = replay || request.seconds > 0 ? 0 : request.frames;
    r.stopped = session.waitForFrames(frames, request.seconds, replay ? 8.0 : 5.0,
                                      replay ? "replaying" : "scanning");
    if (!replay) {
        dev.controlLaserOff();
        // Frames the device sent before it saw the laser go off are still on their way through
        // the module; they belong to the scan (a replay of the recording delivers them too).
        session.waitForFrames(0, 3.0, 0.3);
    }
    Collection c = session.stopCollecting();

    r.cloud = std::move(c.cloud);
    r.frames = c.frames;
    r.dropped = c.dropped;
    r.seconds = c.seconds;
    r.framesPerSecond = c.seconds > 0 ? static_cast<double>(c.frames - 1) / c.seconds : 0.0;
    for (const auto& entry : c.markers) {
        Eigen::Vector3d sum = Eigen::Vector3d::Zero();
        for (const Eigen::Vector3d& p : entry.second) {
            sum += p;
        }
        const Eigen::Vector3d mean = sum / static_cast<double>(entry.second.size());
        const auto n = c.markerNormals.find(entry.first);
        const auto d = c.markerDiameters.find(entry.first);
        Marker m;
        m.id = entry.first;
        m.position = {mean.x(), mean.y(), mean.z()};
        if (n != c.markerNormals.end()) {
            m.normal = {n->second.x(), n->second.y(), n->second.z()};
        }
        m.diameter = d != c.markerDiameters.end() ? d->second : 0.0;
        r.markers.push_back(m);
    }
    r.holes = std::move(c.holes);
    r.startupSeconds = session.startupSeconds();
    r.matrices = session.transferMatrices();
    if (r.matrices.empty()) {
        r.matrices = cascade;
    }
    if (r.matrices.empty()) {
        for (const auto& entry : c.trackingMatrices) {
            r.matrices.push_back(TransferMatrix{entry.first, entry.second});
        }
    }
    r.object = request.object;
    r.endpoint = session.endpoint();
    if (truth) {
        evaluate(r, *truth);
    }
    if (!request.outDir.empty()) {
        writeFiles(r, request.outDir);
    }
    r.totalSeconds = secondsSince(t0);
    const nlohmann::json document = summary(r);
    r.summaryJson = document.dump(2);
    if (!request.outDir.empty()) {
        writeOrThrow(JsonWriter(document), (fs::path(request.outDir) / "summary.json").string(),
                     r.files);
    }
    return r;
}

}  // namespace host
