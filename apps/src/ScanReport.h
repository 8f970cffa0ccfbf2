// What one scan produced and how it is reported: the output files, summary.json and the
// table printed at the end.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "CascadeFile.h"
#include "Geometry.h"
#include "HostSession.h"
#include "Truth.h"

namespace pfapp {

struct TrackerError {
    std::string id;
    MatrixError error;
};

struct ScanReport {
    Collection collection;
    std::string object;
    std::string endpoint;
    std::string matrixSource;
    std::vector<CascadeEntry> matrices;  // the matrices in use
    double startupSeconds = 0.0;
    double totalSeconds = 0.0;

    // Filled by evaluate().
    bool hasTruth = false;
    std::vector<double> distances;  // one per point, when the truth has a surface
    std::optional<DistanceStats> accuracy;
    double noiseSigmaMm = 0.0;
    std::vector<TrackerError> trackerErrors;

    void evaluate(const Truth& truth);
    // scan.ply, scan.png (when there are points), markers.txt, holes.txt, cascade.bin.
    void writeFiles(const std::string& dir) const;
    nlohmann::json summary() const;
    void writeSummary(const std::string& dir) const;
    void printTable(std::FILE* out) const;
    std::string filesLine(const std::string& dir) const;
};

// Markers of a collection, averaged per id.
std::vector<std::pair<int32_t, Eigen::Vector3d>> averagedMarkers(const Collection& c);

}  // namespace pfapp
