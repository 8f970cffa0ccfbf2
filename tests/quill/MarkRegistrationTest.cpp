// One-off registration (MyMatchMarkClass_update::MarkRegistration): recovers known motions,
// names the right fixed markers, and refuses what it cannot vouch for.
#include <gtest/gtest.h>

#include <cmath>

#include "QuillTestUtil.h"

using namespace quilltest;

namespace {

// A scene as the fixed marker set, frames of it, and a matcher set up as the tracker sets it.
struct Fixture {
    sim::MarkerScene scene;
    sim::FrameGenerator gen;
    std::vector<Quill::mark_data> fixed;
    Quill::MyMatchMarkClass_update matcher;

    Fixture(sim::MarkerScene s, std::uint64_t frameSeed, bool normals = true)
        : scene(std::move(s)), gen(scene, frameSeed), fixed(sceneMarks(scene, normals)) {
        applyTrackerSettings(matcher);
    }
    // A random scene part of `n` markers (seed) and its frames (seed + 1).
    Fixture(int n, std::uint64_t seed) : Fixture(sim::MarkerScene::randomPart(n, seed), seed + 1) {}

    int run(std::vector<Quill::mark_data> moving) {
        return matcher.MarkRegistration(moving.data(), static_cast<int>(moving.size()),
                                        fixed.data(), static_cast<int>(fixed.size()), -1, 0);
    }
    int run(const sim::Frame& f, bool normals = true) { return run(frameMarks(f, normals)); }
    bool matchedTruth(const sim::Frame& f, double tolerance) {
        return transformError(matcher.get_final_transform(), f) <= tolerance &&
               wrongFlags(matcher.get_final_match_flag(), f) == 0;
    }
    sim::Frame frame(int visible, double drop = 0.0, double spurious = 0.0) {
        sim::FrameOptions o;
        o.visible = visible;
        o.noiseSigma = 0.05;
        o.dropFraction = drop;
        o.spuriousFraction = spurious;
        return gen.randomFrame(o);
    }
};

TEST(MarkRegistration, FlagsUseTheCallersIndexingWhenFixedMarkersAreSkipped) {
    Fixture fx(200, 31);
    // A non-finite marker and a duplicate in front shift every index by two.
    Quill::mark_data bad;
    bad.x = std::nanf("");
    fx.fixed.insert(fx.fixed.begin(), fx.fixed[5]);
    fx.fixed.insert(fx.fixed.begin(), bad);
    const sim::Frame f = fx.frame(25);
    ASSERT_EQ(fx.run(f), 1);
    const auto flags = fx.matcher.get_final_match_flag();
    for (std::size_t i = 0; i < flags.size(); ++i) {
        // Scene marker 5 appears twice (indices 1 and 7); the first copy is the one kept.
        const int truth = f.markers[i].truth;
        EXPECT_EQ(flags[i], truth == 5 ? 1 : truth + 2);
    }
}

// Too few markers for the minimum match count, too small a matched fraction, too large a
// final error, bad arguments: a failure with its status and nothing matched.
TEST(MarkRegistration, RefusesBelowItsLimitsAndOnBadArguments) {
    Fixture fx(300, 51);
    const sim::Frame four = fx.frame(4);
    EXPECT_EQ(fx.run(four), 0);
    EXPECT_EQ(fx.matcher.get_final_status(), Quill::kMatchTooFewMarkers);
    EXPECT_EQ(fx.matcher.get_final_match_n(), 0);
    EXPECT_TRUE(fx.matcher.get_final_transform().isIdentity());
    EXPECT_EQ(fx.matcher.get_final_match_flag(), std::vector<int>(four.markers.size(), -1));
    // Six true markers: enough for the tracker's minimum of five, not for a minimum of seven.
    const sim::Frame six = fx.frame(6);
    EXPECT_EQ(fx.run(six), 1);
    fx.matcher.set_min_final_match_n(7);
    EXPECT_EQ(fx.run(six), 0);
    fx.matcher.set_min_final_match_n(5);

    // 20 true markers and 6 spurious points: 77 % of the frame can be matched.
    const sim::Frame partly = fx.frame(20, 0.0, 0.3);
    fx.matcher.set_su_point_percentage(0.7f);
    EXPECT_EQ(fx.run(partly), 1);
    fx.matcher.set_su_point_percentage(0.85f);
    EXPECT_EQ(fx.run(partly), 0);
    fx.matcher.set_su_point_percentage(0.0f);

    sim::FrameOptions o;
    o.noiseSigma = 0.12;  // RMS residual about 0.2 mm
    const sim::Frame noisy = fx.gen.randomFrame(o);
    fx.matcher.set_max_err_for_three_mark(0.2f);
    EXPECT_EQ(fx.run(noisy), 0);
    EXPECT_EQ(fx.matcher.get_final_status(), Quill::kMatchErrorTooLarge);
    fx.matcher.set_max_final_err(0.4f);
    EXPECT_EQ(fx.run(noisy), 1);

    std::vector<Quill::mark_data> some(10);
    Quill::MyMatchMarkClass_update& m = fx.matcher;
    EXPECT_EQ(m.MarkRegistration(nullptr, 5, some.data(), 10, -1, 0), -1);
    EXPECT_EQ(m.MarkRegistration(some.data(), 10, nullptr, 5, -1, 0), -1);
    EXPECT_EQ(m.MarkRegistration(some.data(), -1, some.data(), 10, -1, 0), -1);
    EXPECT_EQ(m.get_final_status(), Quill::kMatchBadInput);
    // Empty sets are valid input with nothing to match.
    EXPECT_EQ(m.MarkRegistration(nullptr, 0, some.data(), 10, -1, 0), 0);
    EXPECT_EQ(m.MarkRegistration(some.data(), 10, nullptr, 0, -1, 0), 0);
    EXPECT_EQ(m.get_final_status(), Quill::kMatchTooFewMarkers);
}

TEST(MarkRegistration, RefusesCollinearMarkersAndAmbiguousPatchesOfARegularGrid) {
    // Markers along a line: the rotation about the line is undetermined.
    std::vector<sim::Marker> line;
    std::vector<Quill::mark_data> moving;
    const double gaps[] = {0, 17, 41, 58, 90, 111, 140, 152, 181, 203};
    for (int i = 0; i < 10; ++i) {
        line.push_back(sim::Marker{Eigen::Vector3d(gaps[i], 0, 0), Eigen::Vector3d::Zero()});
        moving.push_back(
            toMark(Eigen::Vector3d(0, gaps[i] + 5.0, 3.0), Eigen::Vector3d::Zero(), i));
    }
    Fixture collinear(sim::MarkerScene(line), 1);
    EXPECT_EQ(collinear.run(moving), 0);
    EXPECT_NE(collinear.matcher.get_final_status(), Quill::kMatchOk);

    Fixture fx(sim::MarkerScene::grid(12, 12, 25.0), 61);
    for (int trial = 0; trial < 10; ++trial) {
        EXPECT_EQ(fx.run(fx.frame(16, 0.1, 0.1)), 0) << "trial " << trial;
        EXPECT_EQ(fx.matcher.get_final_status(), Quill::kMatchAmbiguous) << "trial " << trial;
    }
    // A grid with one marker missing, seen around the hole: shifted by one pitch the patch
    // still fits all but one marker, which a single dropped marker would explain.
    std::vector<sim::Marker> markers = sim::MarkerScene::grid(8, 8, 25.0).markers();
    markers.erase(markers.begin() + 3 * 8 + 4);
    Fixture holed(sim::MarkerScene(markers), 71);
    sim::FrameOptions o;
    o.visible = 20;
    EXPECT_EQ(holed.run(holed.gen.frameAt(Eigen::Vector3d(4 * 25.0, 3 * 25.0, 0.0),
                                          sim::randomMotion(holed.gen.rng(), 500), o)),
              0);
    EXPECT_EQ(holed.matcher.get_final_status(), Quill::kMatchAmbiguous);
}

TEST(MarkRegistration, AcceptsAGridWhenIrregularMarkersPinThePose) {
    // A grid with a cluster of off-grid markers in the middle: a patch that contains the
    // cluster fits one way only.
    std::vector<sim::Marker> markers = sim::MarkerScene::grid(10, 10, 25.0).markers();
    sim::Rng rng(72);
    for (int k = 0; k < 8; ++k) {
        const Eigen::Vector3d p(112.5 + rng.uniform(-40, 40), 112.5 + rng.uniform(-40, 40),
                                rng.uniform(5, 15));
        markers.push_back(sim::Marker{p, Eigen::Vector3d::UnitZ()});
    }
    Fixture fx(sim::MarkerScene(markers), 73);
    sim::FrameOptions o;
    o.visible = 30;
    const sim::Frame f =
        fx.gen.frameAt(Eigen::Vector3d(112.5, 112.5, 0.0), sim::randomMotion(fx.gen.rng(), 500), o);
    ASSERT_EQ(fx.run(f), 1);
    EXPECT_TRUE(fx.matchedTruth(f, 0.2));
}

TEST(MarkRegistration, NormalsPruneWhenEnabledAndAreNotNeeded) {
    Fixture fx(300, 81);
    sim::Frame f = fx.frame(30);
    for (auto& o : f.markers) {
        o.normal = -o.normal;  // every normal turned around
    }
    EXPECT_EQ(fx.run(f), 0);
    fx.matcher.set_use_nor(0);
    EXPECT_EQ(fx.run(f), 1);
    EXPECT_LT(transformError(fx.matcher.get_final_transform(), f), 0.1);

    Fixture none(sim::MarkerScene::randomPart(1000, 91), 92, false);
    const sim::Frame g = none.frame(30, 0.2, 0.2);
    ASSERT_EQ(none.run(g, false), 1);
    EXPECT_TRUE(none.matchedTruth(g, 0.2));
}

// A few hundred random trials across library sizes, frame sizes, drops and spurious points:
// nearly every frame with a unique answer matches, and every accepted registration is right:
// the true motion (within 0.1 mm and 0.1 degree from 20 true markers on, twice that below),
// every true marker named and every spurious point left out (-1), an error within the limit.
TEST(MarkRegistrationRobustness, RandomTrialsRecoverTheMotionAndNeverAcceptAWrongMatch) {
    sim::Rng rng(2024);
    int unique = 0, succeeded = 0;
    const int trials = 300;
    for (int trial = 0; trial < trials; ++trial) {
        SCOPED_TRACE(trial);
        const int libSize = rng.uniformInt(50, 1500);
        const std::uint64_t sceneSeed = rng.next();
        Fixture fx(sim::MarkerScene::randomPart(libSize, sceneSeed), rng.next());
        const sim::Frame f = fx.frame(std::min(rng.uniformInt(6, 60), fx.scene.size()),
                                      rng.uniform(0.0, 0.3), rng.uniform(0.0, 0.3));
        unique += f.trueCount() >= 5;
        if (fx.run(f) != 1) {
            continue;
        }
        succeeded += f.trueCount() >= 5;
        const Eigen::Matrix4d T = fx.matcher.get_final_transform();
        const double tolerance = f.trueCount() >= 20 ? 0.1 : 0.2;
        EXPECT_LT(transformError(T, f), tolerance);
        EXPECT_LT(sim::rotationAngleDeg(T.topLeftCorner<3, 3>(), f.pose.R), tolerance);
        std::vector<int> truth;
        for (const auto& o : f.markers) {
            truth.push_back(o.truth);
        }
        EXPECT_EQ(fx.matcher.get_final_match_flag(), truth);
        EXPECT_EQ(fx.matcher.get_final_match_n(), f.trueCount());
        EXPECT_EQ(fx.matcher.get_final_status(), Quill::kMatchOk);
        EXPECT_GT(fx.matcher.get_final_err(), 0.0f);
        EXPECT_LE(fx.matcher.get_final_err(), 0.15f);
    }
    EXPECT_GE(succeeded, unique * 0.98)
        << succeeded << " of " << unique << " unique frames matched";
    EXPECT_GT(unique, trials / 2);
}

}  // namespace
