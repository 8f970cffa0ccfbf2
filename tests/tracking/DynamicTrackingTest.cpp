// Dynamic tracking: one frame registered directly with the reference set.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "TrackingFixtures.h"

using namespace tracking_test;

namespace {

constexpr double kSentinel = -777.0;

class DynamicTracking : public ::testing::Test {
protected:
    DynamicTracking() : scene(sim::MarkerScene::randomPart(200, 17)), generator(scene, 9) {
        tracker.initLibrary();
        tracker.importMarkpointToLibrary(markerSet(scene), true, false);
        options.visible = 30;
        options.noiseSigma = 0.02;
        options.dropFraction = 0.1;
        options.spuriousFraction = 0.1;
        std::fill(rt16, rt16 + 16, kSentinel);
        moved.R = Eigen::AngleAxisd(0.4, Eigen::Vector3d(0.2, 1.0, 0.3).normalized()).matrix();
        moved.t = Eigen::Vector3d(250.0, -40.0, 90.0);
    }

    sim::Frame frameNear(int marker, std::uint64_t poseSeed) {
        return generator.frameAt(scene[marker].position, trackerPose(poseSeed), options);
    }

    sim::MarkerScene scene;
    sim::FrameGenerator generator;
    sim::FrameOptions options;
    CTPScan_Markpoint tracker;
    device::tagRefMarkpointData out;
    double rt16[16];
    sim::RigidMotion moved;  // the same part set up elsewhere
};

// The frame-to-reference transform in the TranRT layout, and every matched marker labelled
// with its reference index (spurious points left out); a second call appends its matches.
TEST_F(DynamicTracking, PoseInTranRTLayoutAndMatchedMarkersInTheReferenceFrame) {
    const sim::Frame f = frameNear(40, 3);
    SDK_NV::tagScanData frame = toScanData(f);
    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);
    EXPECT_TRUE(hasTranRTLayout(rt16));
    EXPECT_LT(sim::rotationAngleDeg(rotationOf(rt16), f.pose.R), 0.02);
    EXPECT_LT(worstMapping(rt16, f, scene), 0.05);
    ASSERT_GE(out.labels.size(), 5u);
    EXPECT_LE(out.labels.size(), static_cast<std::size_t>(f.trueCount()));
    ASSERT_EQ(out.positions.size(), 3 * out.labels.size());
    ASSERT_EQ(out.normals.size(), 3 * out.labels.size());
    ASSERT_EQ(out.values.size(), out.labels.size());
    for (std::size_t i = 0; i < out.labels.size(); ++i) {
        const sim::Marker& m = scene[out.labels[i]];
        EXPECT_LT((pointAt(out.positions, i) - m.position).norm(), 0.15) << out.labels[i];
        EXPECT_GT(pointAt(out.normals, i).dot(m.normal), 0.99) << out.labels[i];
        EXPECT_EQ(out.values[i], kMarkerDiameter);
    }

    const device::tagRefMarkpointData first = out;
    SDK_NV::tagScanData second = toScanData(frameNear(150, 5));
    ASSERT_EQ(tracker.SetTrackDynamic(second, out, rt16), 0);
    ASSERT_GT(out.labels.size(), first.labels.size());
    EXPECT_EQ(out.positions.size(), 3 * out.labels.size());
    EXPECT_TRUE(std::equal(first.labels.begin(), first.labels.end(), out.labels.begin()));
    EXPECT_TRUE(std::equal(first.positions.begin(), first.positions.end(), out.positions.begin()));
}

TEST_F(DynamicTracking, ObservedNormalsTakeNoPartInTheMatchButAreReported) {
    // Normals that disagree with the reference everywhere: the reference reaches the matcher
    // with its normals, so a match that used the observed ones would fail.
    sim::Frame f = frameNear(90, 6);
    sim::Rng rng(99);
    for (sim::ObservedMarker& m : f.markers) {
        m.normal = rng.unitVector();
    }
    SDK_NV::tagScanData frame = toScanData(f);
    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);
    EXPECT_LT(worstMapping(rt16, f, scene), 0.05);
    // The reported normal of each match is its observed normal, turned into the reference.
    for (std::size_t i = 0; i < out.labels.size(); ++i) {
        const auto observed = std::find_if(f.markers.begin(), f.markers.end(), [&](const auto& m) {
            return (f.pose.apply(m.position) - pointAt(out.positions, i)).norm() < 0.2;
        });
        ASSERT_NE(observed, f.markers.end());
        EXPECT_GT(pointAt(out.normals, i).dot(f.pose.rotate(observed->normal)), 0.999);
    }
}

// Without a reference set, or with a frame of another part, the call fails and writes nothing;
// a new reference set takes effect from the next frame.
TEST_F(DynamicTracking, FailureWritesNothingAndANewReferenceSetTakesEffectAtOnce) {
    CTPScan_Markpoint noReference;
    noReference.initLibrary();
    const sim::Frame f = frameNear(60, 12);
    SDK_NV::tagScanData frame = toScanData(f);
    out.labels = {7};
    out.positions = {1, 2, 3};
    EXPECT_EQ(noReference.SetTrackDynamic(frame, out, rt16), -1);
    const sim::MarkerScene other = sim::MarkerScene::randomPart(60, 1234);
    sim::FrameGenerator otherGenerator(other, 3);
    SDK_NV::tagScanData foreign =
        toScanData(otherGenerator.frameAt(other.centroid(), trackerPose(8), options));
    EXPECT_EQ(tracker.SetTrackDynamic(foreign, out, rt16), -1);
    EXPECT_EQ(out.labels, std::vector<int>{7});
    EXPECT_EQ(out.positions, (std::vector<double>{1, 2, 3}));
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));

    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);
    EXPECT_LT(worstMapping(rt16, f, scene), 0.05);
    tracker.importMarkpointToLibrary(markerSet(scene, {}, moved), true, false);
    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);
    EXPECT_LT(worstMapping(rt16, f, scene, moved), 0.05);  // lands on the moved markers
    tracker.importMarkpointToLibrary(markerSet(sim::MarkerScene::randomPart(200, 4321)), true,
                                     false);
    EXPECT_EQ(tracker.SetTrackDynamic(frame, out, rt16), -1);
}

TEST_F(DynamicTracking, AReferenceImportedOnAnotherThreadNeverMixesWithTheFrameInFlight) {
    // One thread swaps the reference between two placements of the part while this one
    // tracks: every frame lands wholly on one placement or the other.
    const device::tagRefMarkpointData sets[2] = {markerSet(scene), markerSet(scene, {}, moved)};
    std::atomic<bool> done{false};
    std::thread importer([&] {
        for (int k = 0; !done; ++k) {
            tracker.importMarkpointToLibrary(sets[k % 2], true, false);
        }
    });
    int tracked = 0;
    for (int k = 0; k < 40; ++k) {
        const sim::Frame f = frameNear(10 + 3 * k, 30 + static_cast<std::uint64_t>(k));
        SDK_NV::tagScanData frame = toScanData(f);
        if (tracker.SetTrackDynamic(frame, out, rt16) != 0) {
            continue;
        }
        ++tracked;
        // The two placements lie hundreds of millimetres apart: a mixed pose misses both.
        EXPECT_LT(std::min(worstMapping(rt16, f, scene), worstMapping(rt16, f, scene, moved)), 0.05)
            << "frame " << k;
    }
    done = true;
    importer.join();
    EXPECT_GT(tracked, 30);
}

}  // namespace
