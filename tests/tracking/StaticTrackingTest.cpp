// Static tracking: frames of a tracker held still are buffered; the 150th frame after the
// buffer was last emptied builds a model from the last 50, optimises it and registers it with
// the reference set, giving the transform that carries the reference frame into the tracker.
#include <gtest/gtest.h>

#include <algorithm>

#include "TrackingFixtures.h"

using namespace tracking_test;

namespace {

constexpr double kSentinel = -12345.0;

class StaticTracking : public ::testing::Test {
protected:
    StaticTracking() : scene(sim::MarkerScene::randomPart(200, 11)), generator(scene, 5) {
        tracker.initLibrary();
        tracker.clearLibrary();
        tracker.importMarkpointToLibrary(markerSet(scene), true, false);
        pose = trackerPose(21);
        options.visible = 40;
        options.noiseSigma = 0.02;
        options.normalNoiseDeg = 1.0;
        centre = scene.centroid();
        std::fill(rt16, rt16 + 16, kSentinel);
    }

    // One still frame; `shift` moves the tracker (millimetres, tracker axes).
    SDK_NV::tagScanData still(const Eigen::Vector3d& shift = Eigen::Vector3d::Zero()) {
        sim::RigidMotion p = pose;
        p.t += p.R * shift;
        return toScanData(generator.frameAt(centre, p, options), ++frameValue);
    }

    // Feeds frames until one is evaluated; every earlier one must report 0. Returns the
    // evaluation's result and how many frames it took.
    std::pair<int, int> feedUntilEvaluated(const std::vector<Eigen::Vector3d>& shifts = {}) {
        for (int n = 1; n <= 400; ++n) {
            const Eigen::Vector3d shift = n <= static_cast<int>(shifts.size())
                                              ? shifts[static_cast<std::size_t>(n - 1)]
                                              : Eigen::Vector3d::Zero();
            SDK_NV::tagScanData frame = still(shift);
            const int r = tracker.SetTrackStatic(frame, rt16);
            if (r != 0) {
                return {r, n};
            }
        }
        return {0, 0};
    }

    bool rtUntouched() const {
        return std::all_of(rt16, rt16 + 16, [](double v) { return v == kSentinel; });
    }

    sim::MarkerScene scene;
    sim::FrameGenerator generator;
    sim::RigidMotion pose;
    sim::FrameOptions options;
    Eigen::Vector3d centre;
    CTPScan_Markpoint tracker;
    double rt16[16];
    int frameValue = 0;
};

TEST_F(StaticTracking, The150thFrameGivesTheTransformFromReferenceIntoTracker) {
    // Frames 1-149 are buffered and report 0 (feedUntilEvaluated checks each one).
    const auto [result, frames] = feedUntilEvaluated();
    ASSERT_EQ(frames, 150);
    ASSERT_GE(result, 5);
    EXPECT_LE(result, options.visible);
    EXPECT_EQ(CTPScan_MarkpointAccess::queued(tracker), 0u);

    // Inverse layout, read on column vectors: p_tracker = B p_reference + T.
    EXPECT_EQ(rt16[3], 0.0);
    EXPECT_EQ(rt16[7], 0.0);
    EXPECT_EQ(rt16[11], 0.0);
    EXPECT_EQ(rt16[15], 1.0);
    const Eigen::Matrix3d B = rotationOf(rt16);
    const Eigen::Vector3d T = translationOf(rt16);
    const sim::RigidMotion truth = pose.inverse();
    double worst = 0.0;
    for (const sim::Marker& m : scene.markers()) {
        worst = std::max(worst, (B * m.position + T - truth.apply(m.position)).norm());
    }
    EXPECT_LT(worst, 0.05);
}

TEST_F(StaticTracking, AJumpAboveThreeMillimetresFailsEmptiesTheQueueAndCosts150Frames) {
    // Frame 120 lies inside the last 50 frames; the tracker moved 5 mm for that one frame.
    std::vector<Eigen::Vector3d> shifts(150, Eigen::Vector3d::Zero());
    shifts[119] = Eigen::Vector3d(5.0, 0.0, 0.0);
    const auto [failed, frames] = feedUntilEvaluated(shifts);
    EXPECT_EQ(frames, 150);
    EXPECT_EQ(failed, -1);
    EXPECT_TRUE(rtUntouched());
    EXPECT_EQ(CTPScan_MarkpointAccess::queued(tracker), 0u);

    // The buffer is gone: the next evaluation comes 150 frames later, and succeeds.
    const auto [again, more] = feedUntilEvaluated();
    EXPECT_EQ(more, 150);
    EXPECT_GT(again, 0);
}

TEST_F(StaticTracking, StepsAreComparedBetweenConsecutiveFramesNotAgainstTheFirst) {
    // A slow creep of 0.2 mm per frame with one step of 2.9 mm: the last 50 frames span more
    // than 12 mm, but no two consecutive ones are more than 3 mm apart.
    std::vector<Eigen::Vector3d> shifts;
    for (int n = 0; n < 150; ++n) {
        shifts.emplace_back(0.2 * n + (n >= 130 ? 2.7 : 0.0), 0.0, 0.0);
    }
    const auto [result, frames] = feedUntilEvaluated(shifts);
    EXPECT_EQ(frames, 150);
    EXPECT_GT(result, 0);
}

TEST_F(StaticTracking, WithoutAReferenceSetTheEvaluationFails) {
    CTPScan_Markpoint bare;
    bare.initLibrary();
    int result = 0;
    int n = 0;
    while (result == 0 && n < 200) {
        SDK_NV::tagScanData frame = still();
        result = bare.SetTrackStatic(frame, rt16);
        ++n;
    }
    EXPECT_EQ(n, 150);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(rtUntouched());
}

}  // namespace
