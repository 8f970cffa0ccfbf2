// The accuracy geometry of the host tool, without a device.
#include <gtest/gtest.h>

#include <cmath>

#include "Geometry.h"

namespace pfapp {
namespace {

RowPose quarterTurnAboutZ(double tx, double ty, double tz) {
    // Row vector x·R: (1,0,0) -> (0,1,0), (0,1,0) -> (-1,0,0).
    RowPose pose;
    pose.rotation = {0, 1, 0, -1, 0, 0, 0, 0, 1};
    pose.translation = {tx, ty, tz};
    return pose;
}

TEST(HostGeometry, FramesAreAssembledByTheRowVectorPose) {
    Cloud cloud;
    const RowPose pose = quarterTurnAboutZ(10, 20, 30);
    const std::vector<float> points{1, 0, 0, 0, 2, 0, NAN, 0, 0};
    const std::vector<float> dirs{0, 0, 1, 1, 0, 0, 0, 0, 1};
    EXPECT_EQ(appendFrame(cloud, pose, points, dirs), 2u);  // the NaN point is skipped
    ASSERT_EQ(cloud.points.size(), 2u);
    EXPECT_TRUE(cloud.points[0].isApprox(Eigen::Vector3f(10, 21, 30)));
    EXPECT_TRUE(cloud.points[1].isApprox(Eigen::Vector3f(8, 20, 30)));
    ASSERT_TRUE(cloud.hasNormals());
    EXPECT_TRUE(cloud.normals[1].isApprox(Eigen::Vector3f(0, 1, 0)));

    // A frame without directions ends the normals of the whole cloud (a PLY has one layout).
    appendFrame(cloud, RowPose(), {5, 5, 5}, {});
    EXPECT_EQ(cloud.points.size(), 3u);
    EXPECT_FALSE(cloud.hasNormals());
    EXPECT_TRUE(cloud.points[2].isApprox(Eigen::Vector3f(5, 5, 5)));
}

TEST(HostGeometry, DistanceStatisticsOfKnownValues) {
    std::vector<double> d;
    for (int i = 1; i <= 100; ++i) {
        d.push_back(i % 2 ? -0.01 * i : 0.01 * i);  // signs do not matter
    }
    d.push_back(NAN);  // ignored
    const DistanceStats s = distanceStats(d);
    EXPECT_EQ(s.count, 100u);
    EXPECT_NEAR(s.max, 1.0, 1e-12);
    EXPECT_NEAR(s.p95, 0.95, 1e-12);
    EXPECT_NEAR(s.mean, 0.505, 1e-12);
    EXPECT_NEAR(s.rms, std::sqrt(338350.0 / 100.0) * 0.01, 1e-12);
    EXPECT_EQ(distanceStats({}).count, 0u);
}

TEST(HostGeometry, BestFitRecoversAMotionAndRefusesALine) {
    const Eigen::Matrix3d r =
        Eigen::AngleAxisd(0.7, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix();
    const Eigen::Vector3d t(100, -50, 20);
    std::vector<Eigen::Vector3d> from{{0, 0, 0}, {100, 0, 0}, {0, 80, 0}, {30, 40, 25}, {5, 9, 70}};
    std::vector<Eigen::Vector3d> to;
    for (const auto& p : from) {
        to.push_back(r * p + t);
    }
    to[3] += Eigen::Vector3d(0, 0, 0.5);  // one marker off by half a millimetre
    const RigidFit fit = bestRigidFit(from, to);
    ASSERT_TRUE(fit.ok);
    EXPECT_LT((fit.rotation - r).norm(), 0.01);
    EXPECT_NEAR(fit.rotation.determinant(), 1.0, 1e-12);
    // The outlier carries most of the residual.
    const auto worst = std::max_element(fit.residuals.begin(), fit.residuals.end());
    EXPECT_EQ(worst - fit.residuals.begin(), 3);
    EXPECT_GT(*worst, 0.3);

    std::vector<Eigen::Vector3d> line{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
    EXPECT_FALSE(bestRigidFit(line, line).ok);
    EXPECT_FALSE(bestRigidFit({{0, 0, 0}, {1, 0, 0}}, {{0, 0, 0}, {1, 0, 0}}).ok);
}

TEST(HostGeometry, TransferMatrixErrorAndDirections) {
    std::array<double, 16> truth{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 100, 200, 300, 1};
    std::array<double, 16> measured = truth;
    const Eigen::Matrix3d r =
        Eigen::AngleAxisd(0.5 * M_PI / 180.0, Eigen::Vector3d::UnitZ()).toRotationMatrix();
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            measured[static_cast<size_t>(4 * i + j)] = r(i, j);
        }
    }
    measured[12] += 3;
    measured[14] -= 4;
    const MatrixError e = transferMatrixError(measured, truth);
    EXPECT_NEAR(e.translationMm, 5.0, 1e-12);
    EXPECT_NEAR(e.rotationDeg, 0.5, 1e-9);

    const Eigen::Vector3d p(1, 2, 3);
    const Eigen::Vector3d k = transferToTracker(measured, p);
    EXPECT_TRUE((r * p + Eigen::Vector3d(103, 200, 296)).isApprox(k));
    EXPECT_TRUE(transferToReference(measured, k).isApprox(p));
}

// A model without the true labels is found in the tracker frame it was built in, paired marker
// by marker, and its residuals weighted by how often each marker was seen.
TEST(HostGeometry, MarkerModelsAreMatchedInTheirFrameAndWeightedByObservations) {
    std::vector<Eigen::Vector3d> truth;
    for (int i = 0; i < 12; ++i) {
        truth.emplace_back(40.0 * (i % 4), 55.0 * (i / 4), 3.0 * (i % 3));
    }
    const Eigen::Matrix3d b =
        Eigen::AngleAxisd(0.4, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix();
    std::array<double, 16> m{};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            m[static_cast<size_t>(4 * r + c)] = b(r, c);
        }
    }
    m[12] = 100;
    m[13] = -2500;
    m[14] = 40;
    m[15] = 1;
    const std::array<double, 16> far{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 900, 0, 0, 1};
    // The model lists the markers in reverse, in the tracker's frame, one of them 0.01 mm off
    // along a direction the rigid fit cannot take up alone.
    std::vector<Eigen::Vector3d> model;
    for (size_t i = truth.size(); i-- > 0;) {
        model.push_back(transferToTracker(m, truth[i]));
    }
    model[3].z() += 0.01;
    const MarkerModelMatch match =
        matchMarkerModel(model, truth, {{"TRK0001", far}, {"TRK0002", m}}, 1.0);
    ASSERT_TRUE(match.ok);
    EXPECT_EQ(match.frame, "TRK0002");
    ASSERT_EQ(match.paired.size(), 12u);
    EXPECT_EQ(match.truthOf[0], 11u);
    EXPECT_EQ(match.truthOf[3], 8u);
    const DistanceStats s = distanceStats(match.fit.residuals);
    EXPECT_GT(s.max, 0.005);
    EXPECT_LT(s.max, 0.01);
    EXPECT_FALSE(matchMarkerModel(model, truth, {{"TRK0001", far}}, 1.0).ok);

    // Marker i seen i + 1 times (two of them outside the radius, not counted).
    std::vector<Eigen::Vector3d> seen;
    for (size_t i = 0; i < model.size(); ++i) {
        for (size_t k = 0; k <= i; ++k) {
            seen.push_back(model[i] + Eigen::Vector3d(0.1, 0, 0));
        }
    }
    seen.push_back(model[0] + Eigen::Vector3d(0, 0.6, 0));
    seen.push_back(Eigen::Vector3d(1e4, 0, 0));
    const std::vector<size_t> counts = countObservations(model, seen, 0.5);
    for (size_t i = 0; i < counts.size(); ++i) {
        EXPECT_EQ(counts[i], i + 1) << i;
    }
    EXPECT_DOUBLE_EQ(observationWeightedRms({0.02, 0.01}, {1, 4}),
                     std::sqrt((0.0004 + 0.0004) / 2));
    EXPECT_EQ(observationWeightedRms({}, {}), 0.0);
}

}  // namespace
}  // namespace pfapp
