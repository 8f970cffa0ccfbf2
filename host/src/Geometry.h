// Geometry that needs no device: applying delivered poses, distance statistics against the
// truth, best rigid fits of markers and the error of a transfer matrix. Tests call it directly.
#pragma once

#include <Eigen/Core>
#include <Eigen/Geometry>
#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/Records.h"

namespace host {

// Point i of a cloud.
inline Eigen::Map<const Eigen::Vector3f> pointOf(const Cloud& cloud, size_t i) {
    return Eigen::Map<const Eigen::Vector3f>(&cloud.points[3 * i]);
}

// Appends a frame's laser points (x, y, z per point, scanner frame) mapped by `pose`. The
// directions are used when there is one per point; when a frame brings none, the cloud stops
// carrying normals. Non-finite points are skipped. Returns the number of points added.
size_t appendFrame(Cloud& cloud, const Pose& pose, const std::vector<float>& points,
                   const std::vector<float>& directions);

// Figures of absolute distances (non-finite ones left out; none gives count 0 and zeros).
DistanceFigures distanceStats(std::vector<double> distances);

// Distance of every cloud point to a surface (a callable answering one point).
std::vector<double> distancesTo(const Cloud& cloud,
                                const std::function<double(const Eigen::Vector3d&)>& distance);

// Best rigid motion (rotation, translation; no scale) taking `from[i]` onto `to[i]`, by the
// SVD of the cross-covariance (Kabsch). Needs three points not on one line; `ok` false
// otherwise.
struct RigidFit {
    Eigen::Matrix3d rotation = Eigen::Matrix3d::Identity();
    Eigen::Vector3d translation = Eigen::Vector3d::Zero();
    std::vector<double> residuals;  // |R·from + t - to| per pair
    bool ok = false;
};
RigidFit bestRigidFit(const std::vector<Eigen::Vector3d>& from,
                      const std::vector<Eigen::Vector3d>& to);

// A transfer matrix (16 doubles: B in 0-2, 4-6, 8-10 with B(r,c) = m[4r+c], T in 12-14;
// p_K = B·p_W + T) against the true one: the difference of the translations in millimetres
// and the angle of B·B_true^T in degrees.
struct MatrixError {
    double translationMm = 0.0;
    double rotationDeg = 0.0;
};
MatrixError transferMatrixError(const std::array<double, 16>& measured,
                                const std::array<double, 16>& truth);

// Where a point of the reference frame W lands in the tracker: B·p + T.
Eigen::Vector3d transferToTracker(const std::array<double, 16>& m, const Eigen::Vector3d& p);

// A marker model against the true markers when the two share no labels (a model's labels are
// its own). A model is built in some frame of the scene: the true markers are tried in the
// reference frame and in each tracker's (`frames`: name and transfer matrix), every model
// marker is paired with the nearest true marker, and the frame with the smallest median pair
// distance wins when that is below `maxPairMm`. The pairs within `maxPairMm` then get the best
// rigid fit.
struct MarkerModelMatch {
    bool ok = false;
    std::string frame;            // "reference" or the tracker's id
    std::vector<size_t> paired;   // model markers that found a true one
    std::vector<size_t> truthOf;  // the true marker of each paired model marker
    RigidFit fit;                 // residuals in the order of `paired`
};
MarkerModelMatch matchMarkerModel(
    const std::vector<Eigen::Vector3d>& model, const std::vector<Eigen::Vector3d>& truth,
    const std::vector<std::pair<std::string, std::array<double, 16>>>& frames, double maxPairMm);

// How often each model marker was observed: every observation (a marker position in the
// model's frame) counts for the nearest model marker within `radiusMm`.
std::vector<size_t> countObservations(const std::vector<Eigen::Vector3d>& model,
                                      const std::vector<Eigen::Vector3d>& observations,
                                      double radiusMm);

// The residuals of markers seen k_i times, each scaled by sqrt(k_i): sqrt(sum k_i r_i^2 / n).
// A model whose markers are the means of their observations gives about the noise of one
// observation, however often each marker was seen.
double observationWeightedRms(const std::vector<double>& residuals,
                              const std::vector<size_t>& observations);

}  // namespace host
