// Static tracking: frames of a tracker held still are buffered; the 150th frame after the
// buffer was last emptied builds a model from the last 50, optimises it and registers it with
// the reference set, giving the transform that carries the reference frame into the tracker.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>

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
        options.visible = 40;
        options.noiseSigma = 0.02;
        options.normalNoiseDeg = 1.0;
        std::fill(rt16, rt16 + 16, kSentinel);
    }

    // Feeds still frames (frame n moved by shifts[n - 1] millimetres along the tracker's axes)
    // until one is evaluated; every earlier one must report 0. Gives the evaluation's result
    // and how many frames it took.
    std::pair<int, int> feedUntilEvaluated(CTPScan_Markpoint& t,
                                           const std::vector<Eigen::Vector3d>& shifts = {}) {
        for (int n = 1; n <= 400; ++n) {
            sim::RigidMotion p = pose;
            if (n <= static_cast<int>(shifts.size())) {
                p.t += p.R * shifts[static_cast<std::size_t>(n - 1)];
            }
            SDK_NV::tagScanData frame =
                toScanData(generator.frameAt(scene.centroid(), p, options), n);
            if (const int r = t.SetTrackStatic(frame, rt16); r != 0) {
                return {r, n};
            }
        }
        return {0, 0};
    }

    sim::MarkerScene scene;
    sim::FrameGenerator generator;
    sim::RigidMotion pose = trackerPose(21);
    sim::FrameOptions options;
    CTPScan_Markpoint tracker;
    double rt16[16];
};

TEST_F(StaticTracking, The150thFrameGivesTheTransformFromReferenceIntoTracker) {
    const auto [result, frames] = feedUntilEvaluated(tracker);
    ASSERT_EQ(frames, 150);
    ASSERT_GE(result, 5);
    EXPECT_LE(result, options.visible);
    EXPECT_EQ(CTPScan_MarkpointAccess::queued(tracker), 0u);

    // Inverse layout, read on column vectors: p_tracker = B p_reference + T.
    EXPECT_TRUE(hasTranRTLayout(rt16));
    const Eigen::Matrix3d B = rotationOf(rt16);
    const Eigen::Vector3d T = translationOf(rt16);
    double worst = 0.0;
    for (const sim::Marker& m : scene.markers()) {
        worst = std::max(worst, (B * m.position + T - pose.inverse().apply(m.position)).norm());
    }
    EXPECT_LT(worst, 0.05);
}

TEST_F(StaticTracking, AJumpAboveThreeMillimetresFailsEmptiesTheQueueAndCosts150Frames) {
    // Frame 120 lies inside the last 50 frames; the tracker moved 5 mm for that one frame.
    std::vector<Eigen::Vector3d> shifts(150, Eigen::Vector3d::Zero());
    shifts[119] = Eigen::Vector3d(5.0, 0.0, 0.0);
    EXPECT_EQ(feedUntilEvaluated(tracker, shifts), std::make_pair(-1, 150));
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));
    EXPECT_EQ(CTPScan_MarkpointAccess::queued(tracker), 0u);

    // The buffer is gone: the next evaluation comes 150 frames later, and succeeds.
    const auto [again, more] = feedUntilEvaluated(tracker);
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
    const auto [result, frames] = feedUntilEvaluated(tracker, shifts);
    EXPECT_EQ(frames, 150);
    EXPECT_GT(result, 0);
}

TEST_F(StaticTracking, AStepOfExactlyThreeMillimetresPassesAnyMoreFails) {
    // The rule itself at the boundary: 3.0 passes, the next double above it fails.
    const Eigen::Vector3d origin(10.0, -20.0, 30.0);
    EXPECT_FALSE(
        CTPScan_MarkpointAccess::staticStepTooLarge(origin, origin + Eigen::Vector3d(3, 0, 0)));
    EXPECT_FALSE(CTPScan_MarkpointAccess::staticStepTooLarge(Eigen::Vector3d::Zero(),
                                                             Eigen::Vector3d(1, 2, -2)));
    EXPECT_TRUE(CTPScan_MarkpointAccess::staticStepTooLarge(
        Eigen::Vector3d::Zero(), Eigen::Vector3d(0, std::nextafter(3.0, 4.0), 0)));

    // End to end with exact frames: the registered steps carry only float rounding of the
    // marker positions, so 1 micrometre either side of 3.0 decides.
    options.noiseSigma = 0.0;
    options.normalNoiseDeg = 0.0;
    std::vector<Eigen::Vector3d> shifts(150, Eigen::Vector3d::Zero());
    for (int n = 130; n < 150; ++n) {
        shifts[static_cast<std::size_t>(n)] = Eigen::Vector3d(0.0, 3.0 - 1e-3, 0.0);
    }
    const auto [below, frames] = feedUntilEvaluated(tracker, shifts);
    EXPECT_EQ(frames, 150);
    EXPECT_GT(below, 0);
    for (int n = 130; n < 150; ++n) {
        shifts[static_cast<std::size_t>(n)] = Eigen::Vector3d(0.0, 3.0 + 1e-3, 0.0);
    }
    EXPECT_EQ(feedUntilEvaluated(tracker, shifts), std::make_pair(-1, 150));
}

TEST_F(StaticTracking, MalformedFramesAreSkippedWithoutLosingTheBuffer) {
    // Frames with short arrays or without a validity array, among the last 50: each is refused
    // on its own, and the 150th good frame still evaluates the buffered ones.
    int good = 0;
    for (int n = 1; good < 150; ++n) {
        SDK_NV::tagScanData frame =
            toScanData(generator.frameAt(scene.centroid(), pose, options), n);
        if (good >= 100 && n % 7 == 0) {
            SDK_NV::tagScanData shortNormals = frame;
            shortNormals.m_vecMarkerNormals.pop_back();
            SDK_NV::tagScanData noValidity = frame;
            noValidity.m_vecMarkerValid.clear();
            const std::size_t before = CTPScan_MarkpointAccess::queued(tracker);
            EXPECT_EQ(tracker.SetTrackStatic(shortNormals, rt16), -1);
            EXPECT_EQ(tracker.SetTrackStatic(noValidity, rt16), -1);
            EXPECT_EQ(CTPScan_MarkpointAccess::queued(tracker), before);
            EXPECT_TRUE(untouched(rt16, 16, kSentinel));
        }
        const int r = tracker.SetTrackStatic(frame, rt16);
        ++good;
        if (good < 150) {
            ASSERT_EQ(r, 0) << good;
        } else {
            EXPECT_GE(r, 5);
            EXPECT_TRUE(hasTranRTLayout(rt16));
        }
    }
}

TEST_F(StaticTracking, EmptySlotsOfTheOptimisedModelNeverReachTheMatcher) {
    // Spurious points are seen once: the optimiser leaves them out as empty slots. A reference
    // marker where the tracker stands (the model's origin) would be matched by an empty slot's
    // (0, 0, 0) if such a record reached the matcher.
    options.spuriousFraction = 0.1;
    device::tagRefMarkpointData withOrigin = markerSet(scene);
    withOrigin.positions.insert(withOrigin.positions.end(), {pose.t.x(), pose.t.y(), pose.t.z()});
    withOrigin.normals.insert(withOrigin.normals.end(), {0.0, 0.0, 1.0});
    withOrigin.values.push_back(kMarkerDiameter);
    withOrigin.labels.push_back(scene.size());
    tracker.importMarkpointToLibrary(withOrigin, true, false);

    const auto [result, frames] = feedUntilEvaluated(tracker);
    ASSERT_EQ(frames, 150);
    EXPECT_GE(result, 5);
    EXPECT_LE(result, options.visible);
}

TEST_F(StaticTracking, WithoutAReferenceSetTheEvaluationFails) {
    CTPScan_Markpoint bare;
    bare.initLibrary();
    EXPECT_EQ(feedUntilEvaluated(bare), std::make_pair(-1, 150));
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));
}

}  // namespace
