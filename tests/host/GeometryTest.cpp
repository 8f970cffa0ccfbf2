// The host library's geometry without a device: frames assembled by their poses, distance
// statistics, rigid fits, transfer-matrix errors, marker models, the distance to a truth the
// simulator wrote, and the sphere and plane fits of the verification.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "Geometry.h"
#include "HostTestSupport.h"
#include "Metrology.h"
#include "Truth.h"
#include "sim/Truth.h"

namespace host {
namespace {

Eigen::Matrix3d turn(double angle, const Eigen::Vector3d& axis) {
    return Eigen::AngleAxisd(angle, axis.normalized()).toRotationMatrix();
}

TEST(HostGeometry, FramesAreAssembledByTheRowVectorPose) {
    // Row vector x·R: (1,0,0) -> (0,1,0), (0,1,0) -> (-1,0,0); the 4×4 matrix maps alike.
    Pose pose;
    pose.rotation = {0, 1, 0, -1, 0, 0, 0, 0, 1};
    pose.translation = {10, 20, 30};
    Cloud cloud;
    EXPECT_EQ(appendFrame(cloud, pose, {1, 0, 0, 0, 2, 0, NAN, 0, 0}, {0, 0, 1, 1, 0, 0, 0, 0, 1}),
              2u);  // the NaN point is skipped
    ASSERT_EQ(cloud.size(), 2u);
    EXPECT_TRUE(pointOf(cloud, 0).isApprox(Eigen::Vector3f(10, 21, 30)));
    EXPECT_TRUE(pointOf(cloud, 1).isApprox(Eigen::Vector3f(8, 20, 30)));
    const std::array<double, 16> m = pose.matrix();
    const Eigen::Vector4d moved =
        Eigen::Map<const Eigen::Matrix<double, 4, 4, Eigen::RowMajor>>(m.data()) *
        Eigen::Vector4d(0, 2, 0, 1);
    EXPECT_TRUE(moved.isApprox(Eigen::Vector4d(8, 20, 30, 1)));
    ASSERT_TRUE(cloud.hasNormals());
    EXPECT_EQ(std::vector<float>(cloud.normals.begin() + 3, cloud.normals.end()),
              std::vector<float>({0, 1, 0}));
    // A frame without directions ends the normals of the whole cloud (a PLY has one layout).
    appendFrame(cloud, Pose(), {5, 5, 5}, {});
    EXPECT_EQ(cloud.size(), 3u);
    EXPECT_FALSE(cloud.hasNormals());
}

TEST(HostGeometry, DistanceStatisticsOfKnownValues) {
    std::vector<double> d{NAN};  // ignored
    for (int i = 1; i <= 100; ++i) {
        d.push_back(i % 2 ? -0.01 * i : 0.01 * i);  // signs do not matter
    }
    const DistanceFigures s = distanceStats(d);
    EXPECT_EQ(s.count, 100u);
    EXPECT_NEAR(s.max, 1.0, 1e-12);
    EXPECT_NEAR(s.p95, 0.95, 1e-12);
    EXPECT_NEAR(s.mean, 0.505, 1e-12);
    EXPECT_NEAR(s.rms, std::sqrt(338350.0 / 100.0) * 0.01, 1e-12);
    EXPECT_EQ(distanceStats({}).count, 0u);
}

TEST(HostGeometry, TransferMatrixError) {
    const std::array<double, 16> truth =
        sim::transferFromMotion(Eigen::Matrix3d::Identity(), {100, 200, 300});
    const Eigen::Matrix3d r = turn(0.5 * M_PI / 180.0, Eigen::Vector3d::UnitZ());
    const std::array<double, 16> measured = sim::transferFromMotion(r, {103, 200, 296});
    const MatrixError e = transferMatrixError(measured, truth);
    EXPECT_NEAR(e.translationMm, 5.0, 1e-12);
    EXPECT_NEAR(e.rotationDeg, 0.5, 1e-9);
}

// A model without the true labels is found in the tracker frame it was built in, paired marker
// by marker, fitted rigidly, and its residuals weighted by how often each marker was seen.
TEST(HostGeometry, MarkerModelsAreMatchedInTheirFrameAndWeightedByObservations) {
    std::vector<Eigen::Vector3d> truth;
    for (int i = 0; i < 12; ++i) {
        truth.emplace_back(40.0 * (i % 4), 55.0 * (i / 4), 3.0 * (i % 3));
    }
    const std::array<double, 16> m =
        sim::transferFromMotion(turn(0.4, {1, 2, 3}), {100, -2500, 40});
    const std::array<double, 16> far =
        sim::transferFromMotion(Eigen::Matrix3d::Identity(), {900, 0, 0});
    // The model lists the markers in reverse, in the tracker's frame, one of them 0.01 mm off.
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
    // The best rigid fit takes up the motion, not the marker that is off.
    EXPECT_NEAR(match.fit.rotation.determinant(), 1.0, 1e-12);
    const auto worst = std::max_element(match.fit.residuals.begin(), match.fit.residuals.end());
    EXPECT_EQ(worst - match.fit.residuals.begin(), 3);
    EXPECT_GT(*worst, 0.005);
    EXPECT_LT(*worst, 0.01);
    EXPECT_FALSE(matchMarkerModel(model, truth, {{"TRK0001", far}}, 1.0).ok);
    const std::vector<Eigen::Vector3d> line{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
    EXPECT_FALSE(bestRigidFit(line, line).ok);  // a turn about the line is not determined

    // Marker i seen i + 1 times (two more observations outside the radius, not counted).
    std::vector<Eigen::Vector3d> seen{model[0] + Eigen::Vector3d(0, 0.6, 0), {1e4, 0, 0}};
    for (size_t i = 0; i < model.size(); ++i) {
        seen.insert(seen.end(), i + 1, model[i] + Eigen::Vector3d(0.1, 0, 0));
    }
    const std::vector<size_t> counts = countObservations(model, seen, 0.5);
    for (size_t i = 0; i < counts.size(); ++i) {
        EXPECT_EQ(counts[i], i + 1) << i;
    }
    EXPECT_DOUBLE_EQ(observationWeightedRms({0.02, 0.01}, {1, 4}), std::sqrt(0.0008 / 2));
}

// A truth folder written by the simulator and read back: points scattered about the true part
// with a known noise give that noise as their distance to it.
class HostTruth : public WithFolder {};

TEST_F(HostTruth, PointsWithKnownNoiseGiveThatNoiseAsDistanceToTheTruth) {
    sim::Truth real;
    real.part = sim::defaultPart(&real.holes);
    real.markers.push_back({7, Eigen::Vector3d(10, 20, 0), Eigen::Vector3d::UnitZ(), 6.0});
    real.transfer["TRK0001"] =
        sim::transferFromMotion(turn(0.3, Eigen::Vector3d::UnitZ()), {0, 0, 2500});
    std::string error;
    ASSERT_TRUE(sim::exportTruth(m_dir, real, R"({"noise": {"laserMm": 0.05}})", &error)) << error;
    std::optional<Truth> truth = loadTruthFolder(m_dir, error);
    ASSERT_TRUE(truth && truth->distance) << error;
    EXPECT_DOUBLE_EQ(truth->noiseSigmaMm, 0.05);
    EXPECT_EQ(truth->matrices.at(0).matrix, real.transfer["TRK0001"]);

    // Points on the large top faces of the part, pushed along the face normal.
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 0.05);
    Cloud cloud;
    for (size_t i = 0; i < real.part.triangles.size(); ++i) {
        const Eigen::Vector3d n = real.part.normal(i);
        const Eigen::Vector3i t = real.part.triangles[i];
        for (int k = 0; k < 50 && n.z() > 0.99 && real.part.area(i) >= 100.0; ++k) {
            const Eigen::Vector3d c =
                (real.part.vertices[t[0]] + real.part.vertices[t[1]] + real.part.vertices[t[2]])
                    .cast<double>() /
                3.0;
            const Eigen::Vector3f p = (c + noise(rng) * n).cast<float>();
            cloud.points.insert(cloud.points.end(), {p.x(), p.y(), p.z()});
        }
    }
    ASSERT_GT(cloud.size(), 500u);
    const DistanceFigures s = distanceStats(distancesTo(cloud, truth->distance));
    EXPECT_EQ(s.count, cloud.size());
    EXPECT_NEAR(s.rms, 0.05, 0.006);
    EXPECT_NEAR(s.p95, 1.96 * 0.05, 0.015);
    EXPECT_LT(s.max, 5 * 0.05);
    EXPECT_FALSE(loadTruthFolder(m_dir + "/none", error));
    EXPECT_FALSE(error.empty());
}

// Points on the cap of a sphere within `capDeg` of +z, radial noise `sigma`; every
// `outlierEvery`-th point pushed 0.5 mm outwards.
std::vector<Eigen::Vector3d> cap(const Eigen::Vector3d& c, double r, double capDeg, double sigma,
                                 size_t count, size_t outlierEvery, std::mt19937& rng) {
    std::uniform_real_distribution<double> u(0, 1);
    std::normal_distribution<double> g(0, 1);
    std::vector<Eigen::Vector3d> pts;
    for (size_t i = 0; i < count; ++i) {
        const double z = 1 - u(rng) * (1 - std::cos(capDeg * M_PI / 180));
        const double a = 2 * M_PI * u(rng);
        const double extra = outlierEvery > 0 && i % outlierEvery == 0 ? 0.5 : 0.0;
        pts.push_back(c + (r + sigma * g(rng) + extra) *
                              Eigen::Vector3d(std::sqrt(1 - z * z) * std::cos(a),
                                              std::sqrt(1 - z * z) * std::sin(a), z));
    }
    return pts;
}

TEST(Metrology, SphereFitIsExactAndRemovesThePermittedOutliersOnly) {
    std::mt19937 rng(5);
    const Eigen::Vector3d c(143.2, -107.4, 339.1);
    SphereFit exact = fitSphere(cap(c, 12.5, 70, 0.0, 3000, 0, rng), 0.0);
    ASSERT_TRUE(exact.ok);
    EXPECT_LT((exact.centre - c).norm(), 1e-9);
    EXPECT_NEAR(exact.radius, 12.5, 1e-9);
    EXPECT_LT(spread(exact.residuals), 1e-9);

    // 0.25 % gross outliers (within the 0.3 % allowed) are all removed, with the largest of
    // the ordinary points up to the permitted share.
    const std::vector<Eigen::Vector3d> pts = cap(c, 12.5, 70, 0.01, 4000, 400, rng);
    const SphereFit fit = fitSphere(pts);
    ASSERT_TRUE(fit.ok);
    EXPECT_EQ(fit.rejected, 12u);
    EXPECT_EQ(fit.points.size() + fit.rejected, pts.size());
    EXPECT_LT((fit.centre - c).norm(), 0.005);
    EXPECT_NEAR(fit.radius, 12.5, 0.003);
    EXPECT_LT(spread(fit.residuals), 8 * 0.01);
    // Without rejection the outliers stay and widen the range to their height.
    EXPECT_GT(spread(fitSphere(pts, 0.0).residuals), 0.45);
    EXPECT_FALSE(fitSphere({c, c, c}).ok);
}

TEST(Metrology, PlaneFitFindsATiltedPlaneAndItsFlatness) {
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(-1, 1);
    std::normal_distribution<double> g(0, 0.02);
    const Eigen::Vector3d n = Eigen::Vector3d(0.1, -0.2, 1).normalized();
    const Eigen::Vector3d a = n.unitOrthogonal(), b = n.cross(a);
    std::vector<Eigen::Vector3d> pts;
    for (int i = 0; i < 20000; ++i) {
        const double off = i % 1000 == 0 ? -1.0 : g(rng);  // 0.1 % gross outliers
        pts.push_back(Eigen::Vector3d(0, -200, 100) + 300 * u(rng) * a + 40 * u(rng) * b + off * n);
    }
    const PlaneFit fit = fitPlane(pts);
    ASSERT_TRUE(fit.ok);
    EXPECT_EQ(fit.rejected, 60u);
    EXPECT_LT(std::acos(std::min(1.0, fit.normal.dot(n))), 1e-4);
    // The range of 0.3 % trimmed Gaussian residuals: close to the expected range.
    EXPECT_NEAR(spread(fit.residuals), expectedRange(0.02), 0.1 * expectedRange(0.02));
    EXPECT_NEAR(normalQuantile(0.975), 1.959964, 1e-6);
    EXPECT_NEAR(expectedRange(1.0, 0.003), 2 * 2.967738, 1e-5);
}

}  // namespace
}  // namespace host
