#include "ScanReport.h"

#include <filesystem>

#include "Commands.h"
#include "Writers.h"

namespace pfapp {

namespace fs = std::filesystem;

std::vector<std::pair<int32_t, Eigen::Vector3d>> averagedMarkers(const Collection& c) {
    std::vector<std::pair<int32_t, Eigen::Vector3d>> out;
    for (const auto& entry : c.markers) {
        Eigen::Vector3d sum = Eigen::Vector3d::Zero();
        for (const Eigen::Vector3d& p : entry.second) {
            sum += p;
        }
        out.emplace_back(entry.first, sum / static_cast<double>(entry.second.size()));
    }
    return out;
}

void ScanReport::evaluate(const Truth& truth) {
    hasTruth = true;
    noiseSigmaMm = truth.noiseSigmaMm;
    if (truth.distance && !collection.cloud.points.empty()) {
        distances = distancesTo(collection.cloud, truth.distance);
        accuracy = distanceStats(distances);
    }
    for (const CascadeEntry& used : matrices) {
        for (const CascadeEntry& real : truth.matrices) {
            if (real.trackerId == used.trackerId) {
                trackerErrors.push_back(
                    {used.trackerId, transferMatrixError(used.matrix, real.matrix)});
            }
        }
    }
}

void ScanReport::writeFiles(const std::string& dir) const {
    const fs::path base(dir);
    if (!collection.cloud.points.empty()) {
        writeOrThrow(PlyWriter(collection.cloud), (base / "scan.ply").string());
        writeOrThrow(
            PngWriter(collection.cloud, distances, noiseSigmaMm > 0 ? 3 * noiseSigmaMm : 0),
            (base / "scan.png").string());
    }
    std::vector<std::string> markers{"# id x y z nx ny nz diameter (mm, as delivered; mean over " +
                                     std::string("the frames that saw the marker)")};
    for (const auto& m : averagedMarkers(collection)) {
        char line[256];
        const auto n = collection.markerNormals.count(m.first)
                           ? collection.markerNormals.at(m.first)
                           : Eigen::Vector3d::Zero();
        const double d = collection.markerDiameters.count(m.first)
                             ? collection.markerDiameters.at(m.first)
                             : 0.0;
        std::snprintf(line, sizeof(line), "%d %.4f %.4f %.4f %.6f %.6f %.6f %.3f", m.first,
                      m.second.x(), m.second.y(), m.second.z(), n.x(), n.y(), n.z(), d);
        markers.push_back(line);
    }
    writeOrThrow(TextWriter(markers), (base / "markers.txt").string());
    std::vector<std::string> holes{"# state type cx cy cz dx dy dz radius (mm, reference frame)"};
    for (const HoleRecord& h : collection.holes) {
        char line[256];
        std::snprintf(line, sizeof(line), "%d %d %.4f %.4f %.4f %.6f %.6f %.6f %.4f", h.state,
                      h.type, h.center.x(), h.center.y(), h.center.z(), h.direction.x(),
                      h.direction.y(), h.direction.z(), h.radius);
        holes.push_back(line);
    }
    writeOrThrow(TextWriter(holes), (base / "holes.txt").string());
    std::string error;
    if (!writeCascadeFile((base / "cascade.bin").string(), matrices, error)) {
        throw AppError(kExitOutput, error);
    }
}

nlohmann::json ScanReport::summary() const {
    nlohmann::json j;
    const Collection& c = collection;
    j["frames"] = c.frames;
    j["points"] = c.cloud.points.size();
    j["frames_per_second"] = c.seconds > 0 ? static_cast<double>(c.frames - 1) / c.seconds : 0.0;
    j["dropped_frames"] = c.dropped;
    j["duration_s"] = c.seconds;
    j["startup_s"] = startupSeconds;
    j["total_s"] = totalSeconds;
    j["normals"] = c.cloud.hasNormals();
    j["markers"] = c.markers.size();
    j["holes"] = c.holes.size();
    j["object"] = object;
    j["endpoint"] = endpoint;
    j["transfer_matrices"] = matrixSource;
    j["truth"] = hasTruth;
    if (accuracy) {
        j["accuracy"] = {{"rms_mm", accuracy->rms},
                         {"max_mm", accuracy->max},
                         {"p95_mm", accuracy->p95},
                         {"mean_mm", accuracy->mean},
                         {"points", accuracy->count}};
        if (noiseSigmaMm > 0) {
            j["accuracy"]["noise_sigma_mm"] = noiseSigmaMm;
        }
    }
    nlohmann::json trackers = nlohmann::json::array();
    for (const TrackerError& t : trackerErrors) {
        trackers.push_back({{"id", t.id},
                            {"translation_mm", t.error.translationMm},
                            {"rotation_deg", t.error.rotationDeg}});
    }
    if (!trackers.empty()) {
        j["trackers"] = trackers;
    }
    return j;
}

void ScanReport::writeSummary(const std::string& dir) const {
    writeOrThrow(JsonWriter(summary()), (fs::path(dir) / "summary.json").string());
}

void ScanReport::printTable(std::FILE* out) const {
    const Collection& c = collection;
    const double fps = c.seconds > 0 ? static_cast<double>(c.frames - 1) / c.seconds : 0.0;
    std::fprintf(out, "\n  %-22s %zu (%zu dropped)\n", "frames", c.frames, c.dropped);
    std::fprintf(out, "  %-22s %zu%s\n", "points", c.cloud.points.size(),
                 c.cloud.hasNormals() ? " with normals" : "");
    std::fprintf(out, "  %-22s %.1f\n", "frames per second", fps);
    std::fprintf(out, "  %-22s %.1f s (start-up %.1f s, total %.1f s)\n", "scan", c.seconds,
                 startupSeconds, totalSeconds);
    std::fprintf(out, "  %-22s %zu\n", "markers seen", c.markers.size());
    std::fprintf(out, "  %-22s %zu\n", "holes", c.holes.size());
    std::fprintf(out, "  %-22s %s\n", "transfer matrices", matrixSource.c_str());
    if (accuracy) {
        std::fprintf(out, "  %-22s rms %.4f  p95 %.4f  max %.4f mm (%zu points)\n",
                     "distance to truth", accuracy->rms, accuracy->p95, accuracy->max,
                     accuracy->count);
        if (noiseSigmaMm > 0) {
            std::fprintf(out, "  %-22s %.4f mm\n", "simulated noise", noiseSigmaMm);
        }
    } else {
        std::fprintf(out, "  %-22s %s\n", "distance to truth",
                     hasTruth ? "no surface in the truth" : "no truth from this console");
    }
    for (const TrackerError& t : trackerErrors) {
        std::fprintf(out, "  tracker %-14s %.4f mm, %.5f deg\n", t.id.c_str(),
                     t.error.translationMm, t.error.rotationDeg);
    }
    std::fprintf(out, "\n");
}

std::string ScanReport::filesLine(const std::string& dir) const {
    const fs::path base(dir);
    std::string line;
    for (const char* name : {"scan.ply", "scan.png", "summary.json"}) {
        if (fs::exists(base / name)) {
            line += (line.empty() ? "" : "  ") + (base / name).string();
        }
    }
    return line.empty() ? "(no scan files: nothing was delivered)" : line;
}

}  // namespace pfapp
