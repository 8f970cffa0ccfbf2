// Accuracy against the simulator's truth without a device: a truth folder written by the
// simulator, read back by the host tool, and points scattered about the true part with a known
// noise give that noise back.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <random>

#include "Geometry.h"
#include "Truth.h"
#include "sim/Truth.h"

namespace pfapp {
namespace {

namespace fs = std::filesystem;

TEST(HostTruth, PointsWithKnownNoiseGiveThatNoiseAsDistanceToTheTruth) {
    std::string pattern = (fs::temp_directory_path() / "pf_truth_XXXXXX").string();
    ASSERT_NE(::mkdtemp(&pattern[0]), nullptr);
    const std::string dir = pattern;

    sim::Truth real;
    real.part = sim::defaultPart(&real.holes);
    real.markers.push_back({7, Eigen::Vector3d(10, 20, 0), Eigen::Vector3d::UnitZ(), 6.0});
    real.transfer["TRK0001"] =
        sim::transferFromMotion(Eigen::AngleAxisd(0.3, Eigen::Vector3d::UnitZ()).toRotationMatrix(),
                                Eigen::Vector3d(0, 0, 2500));
    std::string error;
    ASSERT_TRUE(sim::exportTruth(dir, real, R"({"noise": {"laserMm": 0.05}})", &error)) << error;

    std::optional<Truth> truth = loadTruthFolder(dir, error);
    ASSERT_TRUE(truth) << error;
    EXPECT_DOUBLE_EQ(truth->noiseSigmaMm, 0.05);
    ASSERT_EQ(truth->markers.count(7), 1u);
    EXPECT_TRUE(truth->markers.at(7).isApprox(Eigen::Vector3d(10, 20, 0)));
    ASSERT_EQ(truth->matrices.size(), 1u);
    EXPECT_EQ(truth->matrices[0].trackerId, "TRK0001");
    EXPECT_EQ(
        transferMatrixError(truth->matrices[0].matrix, real.transfer["TRK0001"]).translationMm,
        0.0);
    ASSERT_TRUE(truth->distance);

    // Points on the top faces of the part (away from edges), pushed along the face normal
    // by Gaussian noise: their distances are that noise.
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 0.05);
    Cloud cloud;
    for (size_t i = 0; i < real.part.triangles.size(); ++i) {
        const Eigen::Vector3d n = real.part.normal(i);
        if (n.z() < 0.99 || real.part.area(i) < 100.0) {
            continue;
        }
        const Eigen::Vector3i t = real.part.triangles[i];
        const Eigen::Vector3d c =
            (real.part.vertices[t[0]].cast<double>() + real.part.vertices[t[1]].cast<double>() +
             real.part.vertices[t[2]].cast<double>()) /
            3.0;
        for (int k = 0; k < 50; ++k) {
            cloud.points.push_back((c + noise(rng) * n).cast<float>());
        }
    }
    ASSERT_GT(cloud.points.size(), 500u);
    const DistanceStats s = distanceStats(distancesTo(cloud, truth->distance));
    EXPECT_EQ(s.count, cloud.points.size());
    EXPECT_NEAR(s.rms, 0.05, 0.006);
    EXPECT_NEAR(s.p95, 1.96 * 0.05, 0.015);
    EXPECT_LT(s.max, 5 * 0.05);

    // A folder without truth is said to be one.
    EXPECT_FALSE(loadTruthFolder(dir + "/none", error));
    EXPECT_FALSE(error.empty());
    fs::remove_all(dir);
}

}  // namespace
}  // namespace pfapp
