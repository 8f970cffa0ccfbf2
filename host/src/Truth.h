// The truth of a simulated scene, as the console exports it (`lumora_console --export-truth
// DIR`): the part's surface, the reference markers and the true transfer matrices.
#pragma once

#include <Eigen/Core>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/Records.h"

namespace host {

struct Truth {
    std::string folder;
    // Distance of a point of the reference frame to the true part (millimetres); empty when
    // the part could not be read.
    std::function<double(const Eigen::Vector3d&)> distance;
    std::map<int32_t, Eigen::Vector3d> markers;  // reference markers by id (W)
    std::map<int32_t, Eigen::Vector3d> markerNormals;
    std::map<int32_t, double> markerDiameters;
    std::vector<TransferMatrix> matrices;
    double noiseSigmaMm = 0.0;   // the laser noise of the scene (0: unknown)
    double markerNoiseMm = 0.0;  // the noise of a marker centre, per coordinate (0: unknown)
};

// Loads the truth files of `dir` (through the simulator's loadTruth: part.ply, markers.txt,
// cascade.bin, and the laser noise from scene.json); empty with `error` when they are missing
// or unreadable. The distance to the part uses the simulator's MeshDistance.
std::optional<Truth> loadTruthFolder(const std::string& dir, std::string& error);

// The same, refusing a folder without a readable part: Error(kExitInputFile).
std::shared_ptr<const Truth> loadTruthWithPart(const std::string& dir);

}  // namespace host
