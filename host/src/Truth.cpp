#include "Truth.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "host/Files.h"
#include "sim/Truth.h"

namespace host {

namespace fs = std::filesystem;

std::optional<Truth> loadTruthFolder(const std::string& dir, std::string& error) {
    auto real = std::make_shared<sim::Truth>();
    if (!sim::loadTruth(dir, *real, &error)) {
        return std::nullopt;
    }
    Truth truth;
    truth.folder = dir;
    for (const sim::TruthMarker& m : real->markers) {
        truth.markers[m.id] = m.position;
        truth.markerNormals[m.id] = m.normal;
        truth.markerDiameters[m.id] = m.diameter;
    }
    for (const auto& t : real->transfer) {
        truth.matrices.push_back(TransferMatrix{t.first, t.second});
    }
    if (!real->part.triangles.empty()) {
        // The distance object keeps the mesh it was built on alive.
        auto distance = std::shared_ptr<sim::MeshDistance>(
            new sim::MeshDistance(real->part), [real](sim::MeshDistance* d) { delete d; });
        truth.distance = [distance](const Eigen::Vector3d& p) { return distance->distance(p); };
    }
    std::ifstream scene((fs::path(dir) / "scene.json").string());
    if (scene) {
        try {
            const nlohmann::json j = nlohmann::json::parse(scene);
            truth.noiseSigmaMm = j.at("noise").at("laserMm").get<double>();
            truth.markerNoiseMm = j.at("noise").value("markerMm", 0.0);
        } catch (const std::exception&) {
            truth.noiseSigmaMm = 0.0;  // a scene without noise levels: no tolerance to show
            truth.markerNoiseMm = 0.0;
        }
    }
    return truth;
}

std::shared_ptr<const Truth> loadTruthWithPart(const std::string& dir) {
    std::string error;
    std::optional<Truth> truth = loadTruthFolder(dir, error);
    if (!truth) {
        throw Error(kExitInputFile, "cannot read the truth in " + dir + ": " + error);
    }
    if (!truth->distance) {
        throw Error(kExitInputFile, "the truth in " + dir + " has no part to measure against");
    }
    return std::make_shared<const Truth>(std::move(*truth));
}

TruthSurface TruthSurface::load(const std::string& dir) {
    return TruthSurface(loadTruthWithPart(dir));
}

bool TruthSurface::valid() const {
    return m_truth && m_truth->distance;
}

bool TruthSurface::distances(const float* points, size_t count, float* out) const {
    if (!valid()) {
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        const Eigen::Vector3d p(points[3 * i], points[3 * i + 1], points[3 * i + 2]);
        out[i] = static_cast<float>(m_truth->distance(p));
    }
    return true;
}

double TruthSurface::noiseSigmaMm() const {
    return m_truth ? m_truth->noiseSigmaMm : 0.0;
}

}  // namespace host
