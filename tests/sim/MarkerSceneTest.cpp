// The synthetic scene generator: determinism, geometry of the parts, and frames whose
// ground truth is right.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <set>

#include "sim/MarkerScene.h"

namespace {

double minSpacing(const sim::MarkerScene& s) {
    double best = 1e300;
    for (int i = 0; i < s.size(); ++i) {
        for (int j = i + 1; j < s.size(); ++j)
            best = std::min(best, (s[i].position - s[j].position).norm());
    }
    return best;
}

}  // namespace

TEST(SimRng, SameSeedSameSequenceAndSaneDistributions) {
    sim::Rng a(42), b(42), c(43);
    for (int i = 0; i < 100; ++i) {
        const auto x = a.next();
        EXPECT_EQ(x, b.next());
        EXPECT_NE(x, c.next());
    }
    sim::Rng r(7);
    double sum = 0.0, sum2 = 0.0;
    const int n = 20000;
    for (int i = 0; i < n; ++i) {
        const double u = r.uniform();
        ASSERT_GE(u, 0.0);
        ASSERT_LT(u, 1.0);
        const int k = r.uniformInt(-2, 2);
        ASSERT_GE(k, -2);
        ASSERT_LE(k, 2);
        const double g = r.normal();
        sum += g;
        sum2 += g * g;
    }
    EXPECT_NEAR(sum / n, 0.0, 0.03);
    EXPECT_NEAR(sum2 / n, 1.0, 0.05);
    EXPECT_NEAR(r.unitVector().norm(), 1.0, 1e-12);
}

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
    const sim::RigidMotion back = sim::RigidMotion::fromMatrix(m.matrix());
    EXPECT_NEAR((back.t - m.t).norm(), 0.0, 1e-12);
}

TEST(SimScene, RandomPartHasTheCountSpacingAndUnitNormals) {
    const auto s = sim::MarkerScene::randomPart(400, 5, 20.0);
    EXPECT_EQ(s.size(), 400);
    EXPECT_GE(minSpacing(s), 20.0);
    int tilted = 0;
    for (const auto& m : s.markers()) {
        EXPECT_NEAR(m.normal.norm(), 1.0, 1e-9);
        EXPECT_GT(m.normal.z(), 0.0);  // a panel seen from above
        tilted += m.normal.z() < 0.99 ? 1 : 0;
    }
    EXPECT_GT(tilted, 40);  // the panel is curved, not flat
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

TEST(SimFrame, TruthPoseAndCountsAreRight) {
    const auto s = sim::MarkerScene::randomPart(500, 11);
    sim::FrameGenerator gen(s, 12);
    sim::FrameOptions o;
    o.visible = 40;
    o.noiseSigma = 0.05;
    o.dropFraction = 0.25;
    o.spuriousFraction = 0.2;
    const sim::Frame f = gen.randomFrame(o);
    EXPECT_EQ(f.trueCount(), 30);
    EXPECT_EQ(static_cast<int>(f.markers.size()), 38);
    double sum2 = 0.0;
    std::set<int> seen;
    for (const auto& m : f.markers) {
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

TEST(SimFrame, SameSeedSameSceneAndFrames) {
    const auto s = sim::MarkerScene::randomPart(300, 13);
    const auto t = sim::MarkerScene::randomPart(300, 13);
    ASSERT_EQ(s.size(), t.size());
    for (int i = 0; i < s.size(); ++i)
        EXPECT_EQ(s[i].position, t[i].position);
    EXPECT_NE(sim::MarkerScene::randomPart(300, 14)[0].position, s[0].position);

    sim::FrameGenerator a(s, 14), b(s, 14);
    sim::FrameOptions o;
    o.spuriousFraction = 0.1;
    const sim::Frame fa = a.randomFrame(o);
    const sim::Frame fb = b.randomFrame(o);
    ASSERT_EQ(fa.markers.size(), fb.markers.size());
    for (std::size_t i = 0; i < fa.markers.size(); ++i) {
        EXPECT_EQ(fa.markers[i].position, fb.markers[i].position);
        EXPECT_EQ(fa.markers[i].truth, fb.markers[i].truth);
    }
}

TEST(SimFrame, WalkFramesOverlapLikeAHandHeldScan) {
    const auto s = sim::MarkerScene::randomPart(600, 15);
    sim::FrameGenerator gen(s, 16);
    sim::FrameOptions o;
    o.visible = 30;
    const auto frames = gen.walk(50, o, 15.0, 1.0);
    ASSERT_EQ(frames.size(), 50u);
    std::set<int> covered;
    for (std::size_t k = 1; k < frames.size(); ++k) {
        std::set<int> prev;
        for (const auto& m : frames[k - 1].markers)
            prev.insert(m.truth);
        int shared = 0;
        for (const auto& m : frames[k].markers) {
            shared += prev.count(m.truth) ? 1 : 0;
            covered.insert(m.truth);
        }
        EXPECT_GE(shared, 15) << "frame " << k;
        EXPECT_LT(sim::rotationAngleDeg(frames[k].pose.R, frames[k - 1].pose.R), 1.5);
    }
    EXPECT_GT(covered.size(), 100u);  // it moves over the part
}
