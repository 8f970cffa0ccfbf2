// The synthetic marker scenes the matchers are tested on: rigid motions, the parts and grids,
// and frames whose ground truth, noise and seed are right. (That walks overlap enough to
// register frame after frame is shown by the matchers' own tests, which build on them.)
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <set>

#include "sim/MarkerScene.h"

TEST(SimMotion, InverseCompositionAndMatrixAgree) {
    sim::Rng rng(1);
    const sim::RigidMotion m = sim::randomMotion(rng, 1000.0);
    EXPECT_NEAR((m.R.transpose() * m.R - Eigen::Matrix3d::Identity()).norm(), 0.0, 1e-12);
    EXPECT_NEAR(m.R.determinant(), 1.0, 1e-12);
    const Eigen::Vector3d p(10, -20, 30);
    EXPECT_NEAR((m.inverse().apply(m.apply(p)) - p).norm(), 0.0, 1e-9);
    EXPECT_NEAR(((m.matrix() * p.homogeneous()).head<3>() - m.apply(p)).norm(), 0.0, 1e-9);
    const sim::RigidMotion n = sim::randomMotion(rng, 1000.0);
    EXPECT_NEAR(((m * n).apply(p) - m.apply(n.apply(p))).norm(), 0.0, 1e-9);
    EXPECT_NEAR(
        sim::rotationAngleDeg(sim::randomSmallRotation(rng, 5.0), Eigen::Matrix3d::Identity()), 5.0,
        1e-9);
    EXPECT_NEAR((sim::RigidMotion::fromMatrix(m.matrix()).t - m.t).norm(), 0.0, 1e-12);
}

TEST(SimScene, GridAndNearestQueries) {
    const auto g = sim::MarkerScene::grid(4, 5, 10.0);
    ASSERT_EQ(g.size(), 20);
    EXPECT_EQ(g[7].position, Eigen::Vector3d(20.0, 10.0, 0.0));
    const auto near = g.nearestTo(Eigen::Vector3d(21.0, 10.0, 0.0), 3);
    ASSERT_EQ(near.size(), 3u);
    EXPECT_EQ(near[0], 7);
    EXPECT_NEAR(g.distanceToNearest(Eigen::Vector3d(21.0, 10.0, 0.0)), 1.0, 1e-12);
    EXPECT_NEAR(g.distanceToNearest(Eigen::Vector3d(-100.0, 0.0, 0.0)), 100.0, 1e-9);
    EXPECT_TRUE(std::isinf(sim::MarkerScene().distanceToNearest(Eigen::Vector3d::Zero())));
}

// A curved panel with the count and spacing asked for; a frame of it with the counts its
// options give, every true marker once and where the pose and the noise put it, spurious
// points clear of the part; the same seeds the same part and frame, others another.
TEST(SimFrame, PartAndFrameFollowTheirOptionsTruthAndSeed) {
    const auto s = sim::MarkerScene::randomPart(500, 11);
    ASSERT_EQ(s.size(), 500);
    int tilted = 0;
    for (int i = 0; i < s.size(); ++i) {
        EXPECT_GE((s[s.nearestTo(s[i].position, 2)[1]].position - s[i].position).norm(), 20.0);
        EXPECT_NEAR(s[i].normal.norm(), 1.0, 1e-9);
        EXPECT_GT(s[i].normal.z(), 0.0);  // a panel seen from above
        tilted += s[i].normal.z() < 0.99;
    }
    EXPECT_GT(tilted, 50);  // curved, not flat
    EXPECT_EQ(sim::MarkerScene::randomPart(500, 11)[499].position, s[499].position);
    EXPECT_NE(sim::MarkerScene::randomPart(500, 12)[0].position, s[0].position);

    sim::FrameGenerator gen(s, 12), twin(s, 12);
    sim::FrameOptions o;
    o.visible = 40;
    o.noiseSigma = 0.05;
    o.dropFraction = 0.25;
    o.spuriousFraction = 0.2;
    const sim::Frame f = gen.randomFrame(o), g = twin.randomFrame(o);
    EXPECT_EQ(f.trueCount(), 30);
    ASSERT_EQ(f.markers.size(), 38u);
    ASSERT_EQ(g.markers.size(), f.markers.size());
    double sum2 = 0.0;
    std::set<int> seen;
    for (std::size_t i = 0; i < f.markers.size(); ++i) {
        const sim::ObservedMarker& m = f.markers[i];
        EXPECT_EQ(m.position, g.markers[i].position);
        EXPECT_EQ(m.truth, g.markers[i].truth);
        const Eigen::Vector3d inScene = f.pose.apply(m.position);
        if (m.truth >= 0) {
            EXPECT_TRUE(seen.insert(m.truth).second);
            sum2 += (inScene - s[m.truth].position).squaredNorm();
            EXPECT_GT(f.pose.rotate(m.normal).dot(s[m.truth].normal), 0.99);
        } else {
            EXPECT_GE(s.distanceToNearest(inScene), o.spuriousClearance);
        }
    }
    // Noise: per-coordinate sigma 0.05 over 30 markers.
    EXPECT_NEAR(std::sqrt(sum2 / (3.0 * 30)), 0.05, 0.015);
}
