#include "Truth.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

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

}  // namespace host
