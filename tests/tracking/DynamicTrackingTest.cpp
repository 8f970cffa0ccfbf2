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
};

TEST_F(DynamicTracking, PoseInTranRTLayoutAndMatchedMarkersInTheReferenceFrame) {
    const sim::Frame f = frameNear(40, 3);
    SDK_NV::tagScanData frame = toScanData(f);
    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);

    // The frame-to-reference transform.
    EXPECT_TRUE(hasTranRTLayout(rt16));
    EXPECT_LT(sim::rotationAngleDeg(rotationOf(rt16), f.pose.R), 0.02);
    EXPECT_LT(worstMapping(rotationOf(rt16), translationOf(rt16), f, scene), 0.05);

    // Every matched marker, labelled with its reference index; spurious points left out.
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
}

TEST_F(DynamicTracking, ASecondCallAppendsToTheResults) {
    SDK_NV::tagScanData first = toScanData(frameNear(10, 4));
    SDK_NV::tagScanData second = toScanData(frameNear(150, 5));
    ASSERT_EQ(tracker.SetTrackDynamic(first, out, rt16), 0);
    const device::tagRefMarkpointData afterFirst = out;
    ASSERT_EQ(tracker.SetTrackDynamic(second, out, rt16), 0);

    ASSERT_GT(out.labels.size(), afterFirst.labels.size());
    EXPECT_EQ(out.positions.size(), 3 * out.labels.size());
    EXPECT_TRUE(std::equal(afterFirst.labels.begin(), afterFirst.labels.end(), out.labels.begin()));
    EXPECT_TRUE(std::equal(afterFirst.positions.begin(), afterFirst.positions.end(),
                           out.positions.begin()));
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
    EXPECT_LT(worstMapping(rotationOf(rt16), translationOf(rt16), f, scene), 0.05);

    // The reported normal of each match is its observed normal, turned into the reference.
    for (std::size_t i = 0; i < out.labels.size(); ++i) {
        const auto observed = std::find_if(f.markers.begin(), f.markers.end(), [&](const auto& m) {
            return (f.pose.apply(m.position) - pointAt(out.positions, i)).norm() < 0.2;
        });
        ASSERT_NE(observed, f.markers.end());
        EXPECT_GT(pointAt(out.normals, i).dot(f.pose.rotate(observed->normal)), 0.999);
    }
}

TEST_F(DynamicTracking, FailureWritesNothing) {
    CTPScan_Markpoint noReference;
    noReference.initLibrary();
    SDK_NV::tagScanData frame = toScanData(frameNear(40, 3));
    out.labels = {7};
    out.positions = {1, 2, 3};
    EXPECT_EQ(noReference.SetTrackDynamic(frame, out, rt16), -1);

    // A frame of another part does not match the reference either.
    const sim::MarkerScene other = sim::MarkerScene::randomPart(60, 1234);
    sim::FrameGenerator otherGenerator(other, 3);
    SDK_NV::tagScanData foreign =
        toScanData(otherGenerator.frameAt(other.centroid(), trackerPose(8), options));
    EXPECT_EQ(tracker.SetTrackDynamic(foreign, out, rt16), -1);

    EXPECT_EQ(out.labels, std::vector<int>{7});
    EXPECT_EQ(out.positions, (std::vector<double>{1, 2, 3}));
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));
}

// The reference set moved by `motion` (positions and normals).
device::tagRefMarkpointData movedSet(const sim::MarkerScene& scene,
                                     const sim::RigidMotion& motion) {
    device::tagRefMarkpointData set = markerSet(scene);
    for (std::size_t i = 0; i < set.labels.size(); ++i) {
        const Eigen::Vector3d p = motion.apply(pointAt(set.positions, i));
        const Eigen::Vector3d n = motion.rotate(pointAt(set.normals, i));
        for (int k = 0; k < 3; ++k) {
            set.positions[3 * i + static_cast<std::size_t>(k)] = p[k];
            set.normals[3 * i + static_cast<std::size_t>(k)] = n[k];
        }
    }
    return set;
}

// Largest distance between where rt16 puts the frame's true markers (noise-free, in the
// frame's coordinates) and where `motion` puts their scene markers.
double worstMovedMapping(const double* rt16, const sim::Frame& f, const sim::MarkerScene& scene,
                         const sim::RigidMotion& motion) {
    double worst = 0.0;
    for (const sim::ObservedMarker& m : f.markers) {
        if (m.truth >= 0) {
            const Eigen::Vector3d p = scene[m.truth].position;
            const Eigen::Vector3d mapped =
                rotationOf(rt16) * f.pose.inverse().apply(p) + translationOf(rt16);
            worst = std::max(worst, (mapped - motion.apply(p)).norm());
        }
    }
    return worst;
}

TEST_F(DynamicTracking, ANewReferenceSetTakesEffectFromTheNextFrame) {
    const sim::Frame f = frameNear(60, 12);
    SDK_NV::tagScanData frame = toScanData(f);
    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);
    EXPECT_LT(worstMovedMapping(rt16, f, scene, sim::RigidMotion()), 0.05);

    // The same part, set up elsewhere: the frame now lands on the moved markers.
    sim::RigidMotion moved;
    moved.R = Eigen::AngleAxisd(0.4, Eigen::Vector3d(0.2, 1.0, 0.3).normalized()).matrix();
    moved.t = Eigen::Vector3d(250.0, -40.0, 90.0);
    tracker.importMarkpointToLibrary(movedSet(scene, moved), true, false);
    ASSERT_EQ(tracker.SetTrackDynamic(frame, out, rt16), 0);
    EXPECT_LT(worstMovedMapping(rt16, f, scene, moved), 0.05);

    // A set of another part: the frame no longer matches at all.
    tracker.importMarkpointToLibrary(markerSet(sim::MarkerScene::randomPart(200, 4321)), true,
                                     false);
    EXPECT_EQ(tracker.SetTrackDynamic(frame, out, rt16), -1);
}

TEST_F(DynamicTracking, AReferenceImportedOnAnotherThreadNeverMixesWithTheFrameInFlight) {
    // One thread swaps the reference between two placements of the part while this one
    // tracks: every frame lands wholly on one placement or the other.
    sim::RigidMotion moved;
    moved.R = Eigen::AngleAxisd(-0.3, Eigen::Vector3d::UnitZ()).matrix();
    moved.t = Eigen::Vector3d(-120.0, 300.0, 15.0);
    const device::tagRefMarkpointData sets[2] = {markerSet(scene), movedSet(scene, moved)};
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
        const double onFirst = worstMovedMapping(rt16, f, scene, sim::RigidMotion());
        const double onSecond = worstMovedMapping(rt16, f, scene, moved);
        // The two placements lie hundreds of millimetres apart: a mixed pose misses both.
        EXPECT_LT(std::min(onFirst, onSecond), 0.05) << "frame " << k;
    }
    done = true;
    importer.join();
    EXPECT_GT(tracked, 30);
}

}  // namespace
