// The reference marker library: building it frame by frame, installing a fixed set, reading
// it back optimised, and the life cycle of its matcher.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "TrackingFixtures.h"

using namespace tracking_test;

namespace {

constexpr double kSentinel = 4242.0;

class Library : public ::testing::Test {
protected:
    Library() : scene(sim::MarkerScene::randomPart(60, 23)) {
        near = scene.nearestTo(scene.centroid(), 30);
        tracker.initLibrary();
        std::fill(&rt[0][0], &rt[0][0] + 12, kSentinel);
    }
    // The frame of scene markers near[first..last] from tracker pose `poseSeed`.
    SDK_NV::tagScanData view(int first, int last, std::uint64_t poseSeed, int skip = -1) {
        std::vector<int> indices(near.begin() + first, near.begin() + last + 1);
        if (skip >= 0) {
            indices.erase(std::find(indices.begin(), indices.end(), near[skip]));
        }
        return toScanData(viewOf(scene, indices, trackerPose(poseSeed)), ++frameValue);
    }
    int add(SDK_NV::tagScanData frame) {
        return tracker.addOneFrameToLibrary(frame, out, rt, true);
    }
    // A result that a failing call must leave alone.
    void filled() {
        out.labels = {3};
        out.positions = {1, 2, 3};
        out.normals = {0, 0, 1};
        out.values = {5};
    }
    bool outUntouched() const {
        return out.labels == std::vector<int>{3} && out.positions == std::vector<double>{1, 2, 3} &&
               out.normals == std::vector<double>{0, 0, 1} && out.values == std::vector<double>{5};
    }

    sim::MarkerScene scene;
    std::vector<int> near;  // scene markers nearest to the centre, nearest first
    CTPScan_Markpoint tracker;
    device::tagRefMarkpointData out;
    double rt[4][3];
    int frameValue = 0;
};

TEST_F(Library, FramesOfFourMarkersAreLeftAloneFramesOfFiveSeedTheLibraryInTheirOwnFrame) {
    filled();
    EXPECT_EQ(add(view(0, 3, 1)), 0);
    EXPECT_TRUE(outUntouched());
    EXPECT_TRUE(untouched(&rt[0][0], 12, kSentinel));
    SDK_NV::tagScanData four = view(0, 3, 1);
    EXPECT_EQ(tracker.addOneFrameToLibrary(four, nullptr), 0);  // the short form too
    EXPECT_FALSE(tracker.getResultData(out));  // nothing registered: nothing to optimise

    // Five markers seed the library; without returnMatchCount the result is the number of
    // markers written to `out`, labelled with the frame's per-marker validity values.
    SDK_NV::tagScanData five = view(0, 4, 1);
    EXPECT_EQ(tracker.addOneFrameToLibrary(five, out, rt, false), 5);
    EXPECT_EQ(out.labels, five.m_vecMarkerValid);
    EXPECT_EQ(out.positions.size(), 15u);
    for (int c = 0; c < 4; ++c) {  // the seeding frame's pose is the identity
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(rt[c][r], c == r ? 1.0 : 0.0, 1e-12);
        }
    }
}

TEST_F(Library, AFrameIsRegisteredIntoTheSeedingFramesCoordinates) {
    ASSERT_EQ(add(view(0, 11, 1)), 12);
    EXPECT_EQ(add(view(4, 19, 2)), 8);  // near[4..11] are known
    // `out`: the frame's markers, in order, in the library's (= first frame's) coordinates.
    const sim::RigidMotion poseA = trackerPose(1);
    ASSERT_EQ(out.labels.size(), 16u);
    for (std::size_t i = 0; i < 16; ++i) {
        const Eigen::Vector3d expected = poseA.inverse().apply(scene[near[4 + i]].position);
        EXPECT_LT((pointAt(out.positions, i) - expected).norm(), 0.01);
    }
    // `rt` carries library coordinates into the frame's: rt[c][r] = M(r, c).
    const Eigen::Matrix4d M = (trackerPose(2).inverse() * poseA).matrix();
    for (int c = 0; c < 4; ++c) {
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(rt[c][r], M(r, c), c == 3 ? 0.01 : 1e-5) << "rt[" << c << "][" << r << "]";
        }
    }
    // The short form adds a frame without a pose to write (a null one is never looked at),
    // gives the number of markers written and only the first rotation column and the
    // translation.
    CTPScan_Markpoint twin;
    twin.initLibrary();
    SDK_NV::tagScanData a = view(0, 11, 1), b = view(4, 19, 2);
    ASSERT_EQ(twin.addOneFrameToLibrary(a, nullptr), 12);
    double rt16[16];
    std::fill(rt16, rt16 + 16, kSentinel);
    ASSERT_EQ(twin.addOneFrameToLibrary(b, rt16), 16);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(rt16[k], rt[0][k]);
        EXPECT_EQ(rt16[4 + k], rt[3][k]);
    }
    EXPECT_EQ(rt16[3], kSentinel);
    EXPECT_TRUE(untouched(rt16 + 7, 9, kSentinel));
}

TEST_F(Library, AnInconsistentSetSetsTheOpenFlagThenIsRefused) {
    ASSERT_GT(add(view(0, 11, 1)), 0);
    device::tagRefMarkpointData bad = markerSet(scene);
    bad.values.pop_back();
    EXPECT_FALSE(tracker.importMarkpointToLibrary(bad, true, false));
    filled();
    EXPECT_FALSE(tracker.getResultData(out)) << "the library is closed by the call";
    EXPECT_TRUE(outUntouched());
    // Nothing else changed: the built library still registers frames, no reference was kept.
    SDK_NV::tagScanData b = view(4, 15, 2);
    EXPECT_EQ(add(b), 8);
    double rt16[16];
    EXPECT_EQ(tracker.SetTrackDynamic(b, out, rt16), -1);
    EXPECT_FALSE(tracker.importMarkpointToLibrary(bad, true, true));
    EXPECT_TRUE(tracker.getResultData(out)) << "opened again by the next call";
}

TEST_F(Library, AfterFreeLibraryEveryOperationFailsUntilClearLibrary) {
    SDK_NV::tagScanData a = view(0, 11, 1);
    ASSERT_GT(add(a), 0);
    EXPECT_TRUE(tracker.freeLibrary());
    EXPECT_FALSE(tracker.freeLibrary());
    filled();
    EXPECT_EQ(add(a), -1);
    EXPECT_FALSE(tracker.getResultData(out));
    EXPECT_TRUE(outUntouched());
    EXPECT_FALSE(CTPScan_MarkpointAccess::setTrackMarkpoint(tracker, true));
    // The import changes nothing: no reference is kept, so dynamic tracking still fails.
    EXPECT_FALSE(tracker.importMarkpointToLibrary(markerSet(scene), true, true));
    double rt16[16];
    EXPECT_EQ(tracker.SetTrackDynamic(a, out, rt16), -1);
    EXPECT_TRUE(tracker.clearLibrary());
    EXPECT_EQ(add(a), 12);
    EXPECT_TRUE(CTPScan_MarkpointAccess::setTrackMarkpoint(tracker, false));
}

TEST_F(Library, AFixedSetIsInstalledButDeliversNoResults) {
    ASSERT_GT(add(view(0, 11, 1)), 0);
    // Reported as false although it worked.
    EXPECT_FALSE(tracker.importMarkpointToLibrary(markerSet(scene), true, false));
    filled();
    EXPECT_FALSE(tracker.getResultData(out));
    EXPECT_TRUE(outUntouched());
    // The library is now the given set, in the set's own coordinates ...
    SDK_NV::tagScanData b = view(10, 25, 3);
    ASSERT_EQ(add(b), 16);
    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_LT((pointAt(out.positions, i) - scene[near[10 + i]].position).norm(), 0.01);
    }
    // ... and it was kept as the reference.
    double rt16[16];
    device::tagRefMarkpointData tracked;
    EXPECT_EQ(tracker.SetTrackDynamic(b, tracked, rt16), 0);
    // clearLibrary opens the library again.
    EXPECT_TRUE(tracker.clearLibrary());
    ASSERT_GT(add(view(0, 11, 1)), 0);
    ASSERT_GT(add(view(4, 19, 2)), 0);
    EXPECT_TRUE(tracker.getResultData(out));
    EXPECT_FALSE(out.labels.empty());
}

TEST_F(Library, ResultLabelsArePositionsInTheOptimisersListWithGaps) {
    // near[7] is seen by the first frame only: the optimiser leaves it out.
    ASSERT_EQ(add(view(0, 14, 1)), 15);
    ASSERT_EQ(add(view(0, 14, 2, 7)), 14);
    ASSERT_EQ(add(view(0, 14, 3, 7)), 14);
    ASSERT_TRUE(tracker.getResultData(out));
    int count = 0;
    const Quill::mcXYZ_Nor_s* records =
        CTPScan_MarkpointAccess::optimizer(tracker)->get_Mark_data(count);
    ASSERT_NE(records, nullptr);
    std::vector<int> kept;
    for (int k = 0; k < count; ++k) {
        if (static_cast<int>(records[k].label) >= 0) {
            kept.push_back(k);
        }
    }
    EXPECT_EQ(out.labels, kept);
    ASSERT_EQ(out.labels.size(), 14u);
    EXPECT_GT(out.labels.back(), 13) << "no gap in the labels";
    for (std::size_t i = 0; i < out.labels.size(); ++i) {
        const Quill::mcXYZ_Nor_s& r = records[out.labels[i]];
        EXPECT_EQ(out.positions[3 * i], static_cast<double>(r.x));
        EXPECT_EQ(out.normals[3 * i + 2], static_cast<double>(r.nz));
        EXPECT_EQ(out.values[i], static_cast<double>(r.value));
    }
}

TEST_F(Library, FrameAdditionAndHostCommandsMayOverlap) {
    // The scan-frame thread adds frames while a host thread fetches results and clears the
    // library, as the device does during a real-time model build.
    std::vector<SDK_NV::tagScanData> frames;
    for (int k = 0; k < 4; ++k) {
        frames.push_back(view(2 * k, 2 * k + 11, static_cast<std::uint64_t>(k + 1)));
    }
    std::atomic<bool> stop{false};
    std::atomic<int> badResults{0};
    std::thread scan([&] {
        device::tagRefMarkpointData own;
        double rtScan[4][3];
        for (int n = 0; n < 400; ++n) {
            const int r = tracker.addOneFrameToLibrary(frames[n % 4], own, rtScan, true);
            badResults += r == 0 || r > 12 || r < -1;
            badResults += r > 0 && own.positions.size() != 3 * own.labels.size();
        }
        stop = true;
    });
    while (!stop) {
        device::tagRefMarkpointData result;
        if (tracker.getResultData(result)) {
            EXPECT_EQ(result.positions.size(), 3 * result.labels.size());
        }
        tracker.clearLibrary();
    }
    scan.join();
    EXPECT_EQ(badResults, 0);
}

// Frames A, B, C in a row: B brings 8 markers the library does not know; C sees only 6 of
// those plus 6 unknown ones, so C registers only when B's new markers were added.
TEST_F(Library, ClearLibraryKeepsTheNewMatchersDefaultsUntilTheNextFlagPush) {
    const auto runABC = [&] {
        add(view(0, 11, 1));
        add(view(4, 19, 2));
        return add(view(14, 25, 3));
    };
    // Kept as reference: real-time update off, the flag group pushed as all zero.
    tracker.importMarkpointToLibrary(markerSet(scene), true, true);
    tracker.clearLibrary();
    EXPECT_EQ(runABC(), 6) << "the new matcher adds new markers by default";
    tracker.clearLibrary();
    ASSERT_TRUE(CTPScan_MarkpointAccess::setTrackMarkpoint(tracker, true));
    EXPECT_EQ(runABC(), -1) << "tracking pushes the flags off: nothing new is added";
    tracker.clearLibrary();
    ASSERT_TRUE(CTPScan_MarkpointAccess::setTrackMarkpoint(tracker, false));
    EXPECT_EQ(runABC(), 6);
}

}  // namespace
