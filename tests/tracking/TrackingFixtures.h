// Shared helpers of the marker-tracking tests: synthetic scan frames and marker sets built
// from the shared scene generator, and white-box access to the tracker.
#pragma once

#include <Eigen/Core>
#include <algorithm>
#include <numeric>
#include <vector>

#include "helmsman/DeviceTypes.h"
#include "quill/Quill.h"
#include "sdk/Records.h"
#include "sim/MarkerScene.h"
#include "tracking/TPScan_Markpoint.h"

// Reaches the tracker's private operations and members for the tests.
struct CTPScan_MarkpointAccess {
    static bool setTrackMarkpoint(CTPScan_Markpoint& t, bool track) {
        return t.setTrackMarkpoint(track);
    }
    static Quill::MarkOpt_class* optimizer(CTPScan_Markpoint& t) { return t.optimizer.get(); }
    static std::size_t queued(const CTPScan_Markpoint& t) { return t.frameQueue.size(); }
    static bool staticStepTooLarge(const Eigen::Vector3d& previous, const Eigen::Vector3d& t) {
        return CTPScan_Markpoint::staticStepTooLarge(previous, t);
    }
    static bool Frame2MarkPoint(const SDK_NV::tagScanData& frame,
                                std::vector<Quill::mark_data>& marks, int& frameValue,
                                bool skipCameraBlock) {
        return CTPScan_Markpoint::Frame2MarkPoint(frame, marks, frameValue, skipCameraBlock);
    }
};

namespace tracking_test {

constexpr double kMarkerDiameter = 6.0;

// A scan frame carrying the observed markers of `frame` (labels 0.., all valid).
inline SDK_NV::tagScanData toScanData(const sim::Frame& frame, int frameValue = 0) {
    SDK_NV::tagScanData d;
    d.m_nFrameValue = frameValue;
    for (const sim::ObservedMarker& m : frame.markers) {
        d.m_vecMarkerIds.push_back(static_cast<int>(d.m_vecMarkerIds.size()));
        d.m_vecMarkerCenters.insert(d.m_vecMarkerCenters.end(), m.position.data(),
                                    m.position.data() + 3);
        d.m_vecMarkerNormals.insert(d.m_vecMarkerNormals.end(), m.normal.data(),
                                    m.normal.data() + 3);
        d.m_vecMarkerDiameters.push_back(kMarkerDiameter);
        d.m_vecMarkerValid.push_back(1);
    }
    return d;
}

// The scene markers `indices` seen from `pose` (frame -> scene), without noise.
inline sim::Frame viewOf(const sim::MarkerScene& scene, const std::vector<int>& indices,
                         const sim::RigidMotion& pose) {
    sim::Frame f;
    f.pose = pose;
    for (int i : indices) {
        sim::ObservedMarker o;
        o.truth = i;
        o.position = pose.inverse().apply(scene[i].position);
        o.normal = pose.inverse().rotate(scene[i].normal);
        f.markers.push_back(o);
    }
    return f;
}

// The scene markers `indices` (all of them when empty), moved by `motion`, as a marker set
// labelled by position in the set.
inline device::tagRefMarkpointData markerSet(const sim::MarkerScene& scene,
                                             std::vector<int> indices = {},
                                             const sim::RigidMotion& motion = {}) {
    if (indices.empty()) {
        indices.resize(static_cast<std::size_t>(scene.size()));
        std::iota(indices.begin(), indices.end(), 0);
    }
    device::tagRefMarkpointData set;
    for (int i : indices) {
        const Eigen::Vector3d p = motion.apply(scene[i].position),
                              n = motion.rotate(scene[i].normal);
        set.positions.insert(set.positions.end(), {p.x(), p.y(), p.z()});
        set.normals.insert(set.normals.end(), {n.x(), n.y(), n.z()});
        set.values.push_back(kMarkerDiameter);
        set.labels.push_back(static_cast<int>(set.labels.size()));
    }
    return set;
}

// A pose a tracker might stand in relative to the part: turned and a metre or two away.
inline sim::RigidMotion trackerPose(std::uint64_t seed) {
    sim::Rng rng(seed);
    sim::RigidMotion pose;
    pose.R = sim::randomSmallRotation(rng, 35.0);
    pose.t =
        Eigen::Vector3d(rng.uniform(-300, 300), rng.uniform(-300, 300), rng.uniform(-2000, -1200));
    return pose;
}

// Point i of a flat x, y, z array.
inline Eigen::Vector3d pointAt(const std::vector<double>& v, std::size_t i) {
    return Eigen::Vector3d(v[3 * i], v[3 * i + 1], v[3 * i + 2]);
}

// True when all `n` values still hold `sentinel`: nothing was written.
inline bool untouched(const double* values, int n, double sentinel) {
    return std::all_of(values, values + n, [&](double v) { return v == sentinel; });
}

// A 16-double transform in the TranRT layout: rotation row by row in elements 0-2, 4-6, 8-10,
// translation in 12-14, zeros in 3, 7, 11 and a one in 15.
inline Eigen::Matrix3d rotationOf(const double* rt16) {
    return Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>, 0, Eigen::OuterStride<4>>(
        rt16);
}
inline Eigen::Vector3d translationOf(const double* rt16) {
    return Eigen::Vector3d(rt16[12], rt16[13], rt16[14]);
}
inline bool hasTranRTLayout(const double* rt16) {
    return rt16[3] == 0.0 && rt16[7] == 0.0 && rt16[11] == 0.0 && rt16[15] == 1.0;
}

// Largest distance between R p + t for the true markers p of `frame`, in the frame's
// coordinates, and the same markers in the scene moved by `motion`: how well the transform
// maps a region, unlike a bare translation that depends on the lever arm.
inline double worstMapping(const Eigen::Matrix3d& R, const Eigen::Vector3d& t,
                           const sim::Frame& frame, const sim::MarkerScene& scene,
                           const sim::RigidMotion& motion = {}) {
    double worst = 0.0;
    for (const sim::ObservedMarker& m : frame.markers) {
        if (m.truth >= 0) {
            const Eigen::Vector3d p = scene[m.truth].position;
            worst =
                std::max(worst, (R * frame.pose.inverse().apply(p) + t - motion.apply(p)).norm());
        }
    }
    return worst;
}
inline double worstMapping(const double* rt16, const sim::Frame& frame,
                           const sim::MarkerScene& scene, const sim::RigidMotion& motion = {}) {
    return worstMapping(rotationOf(rt16), translationOf(rt16), frame, scene, motion);
}

}  // namespace tracking_test
