// Static tracking: frames of a tracker held still are buffered; the 150th frame after the
// buffer was last emptied builds a model from the last 50, optimises it and registers it with
// the reference set, giving the transform that carries the reference frame into the tracker.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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

    // Feeds still frames (frame n moved by shift(n) millimetres along the tracker's axes)
    // until one is evaluated; every earlier one must report 0. Gives the evaluation's result
    // and how many frames it took.
    std::pair<int, int> feedUntilEvaluated(
        CTPScan_Markpoint& t, const std::function<Eigen::Vector3d(int)>& shift = nullptr) {
        for (int n = 1; n <= 400; ++n) {
            sim::RigidMotion p = pose;
            if (shift) {
                p.t += p.R * shift(n);
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
    double worst = 0.0;
    for (const sim::Marker& m : scene.markers()) {
        worst = std::max(worst, (rotationOf(rt16) * m.position + translationOf(rt16) -
                                 pose.inverse().apply(m.position))
                                    .norm());
    }
    EXPECT_LT(worst, 0.05);

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
    const auto [spurious, more] = feedUntilEvaluated(tracker);
    ASSERT_EQ(more, 150);
    EXPECT_GE(spurious, 5);
    EXPECT_LE(spurious, options.visible);

    CTPScan_Markpoint bare;  // without a reference set the evaluation fails
    bare.initLibrary();
    std::fill(rt16, rt16 + 16, kSentinel);
    EXPECT_EQ(feedUntilEvaluated(bare), std::make_pair(-1, 150));
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));
}

// Steps are compared between consecutive frames, not against the first: one of more than
// 3 mm among the last 50 fails the evaluation, writes nothing and empties the queue, so that the
// next evaluation comes 150 frames later. Exact frames carry only the float rounding of the
// marker positions, so 1 micrometre either side of 3.0 decides.
TEST_F(StaticTracking, AStepAboveThreeMillimetresBetweenTwoFramesFailsTheEvaluation) {
    const Eigen::Vector3d origin(10.0, -20.0, 30.0);
    EXPECT_FALSE(
        CTPScan_MarkpointAccess::staticStepTooLarge(origin, origin + Eigen::Vector3d(3, 0, 0)));
    EXPECT_FALSE(CTPScan_MarkpointAccess::staticStepTooLarge(Eigen::Vector3d::Zero(),
                                                             Eigen::Vector3d(1, 2, -2)));
    EXPECT_TRUE(CTPScan_MarkpointAccess::staticStepTooLarge(
        Eigen::Vector3d::Zero(), Eigen::Vector3d(0, std::nextafter(3.0, 4.0), 0)));

    struct Case {
        const char* what;
        bool exact, passes;
        std::function<Eigen::Vector3d(int)> shift;
    };
    const Case cases[] = {
        {"frame 120 moved 5 mm", false, false,
         [](int n) { return Eigen::Vector3d(n == 120 ? 5.0 : 0.0, 0, 0); }},
        {"a creep of 0.2 mm a frame with one step of 2.5 mm", false, true,
         [](int n) { return Eigen::Vector3d(0.2 * n + (n > 130 ? 2.3 : 0.0), 0, 0); }},
        {"3 mm less 1 um", true, true,
         [](int n) { return Eigen::Vector3d(0, n > 130 ? 3.0 - 1e-3 : 0.0, 0); }},
        {"3 mm and 1 um", true, false,
         [](int n) { return Eigen::Vector3d(0, n > 130 ? 3.0 + 1e-3 : 0.0, 0); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        options.noiseSigma = c.exact ? 0.0 : 0.02;
        options.normalNoiseDeg = c.exact ? 0.0 : 1.0;
        std::fill(rt16, rt16 + 16, kSentinel);
        const auto [result, frames] = feedUntilEvaluated(tracker, c.shift);
        EXPECT_EQ(frames, 150);
        if (c.passes) {
            EXPECT_GT(result, 0);
            continue;
        }
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(untouched(rt16, 16, kSentinel));
        EXPECT_EQ(CTPScan_MarkpointAccess::queued(tracker), 0u);
        const auto [again, more] = feedUntilEvaluated(tracker);
        EXPECT_EQ(more, 150);
        EXPECT_GT(again, 0);
    }
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

}  // namespace
