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

    std::vector<int> nearest(int first, int last) const {
        return std::vector<int>(near.begin() + first, near.begin() + last + 1);
    }
    SDK_NV::tagScanData view(const std::vector<int>& indices, std::uint64_t poseSeed) {
        return toScanData(viewOf(scene, indices, trackerPose(poseSeed)), ++frameValue);
    }

    sim::MarkerScene scene;
    std::vector<int> near;  // scene markers nearest to the centre, nearest first
    CTPScan_Markpoint tracker;
    double rt[4][3];
    int frameValue = 0;
};

device::tagRefMarkpointData filledSet() {
    device::tagRefMarkpointData s;
    s.labels = {3};
    s.positions = {1, 2, 3};
    s.normals = {0, 0, 1};
    s.values = {5};
    return s;
}

bool sameSet(const device::tagRefMarkpointData& a, const device::tagRefMarkpointData& b) {
    return a.labels == b.labels && a.positions == b.positions && a.normals == b.normals &&
           a.values == b.values;
}

TEST_F(Library, FramesOfFourMarkersAreLeftAloneFramesOfFiveRegister) {
    device::tagRefMarkpointData out = filledSet();
    SDK_NV::tagScanData four = view(nearest(0, 3), 1);
    EXPECT_EQ(tracker.addOneFrameToLibrary(four, out, rt, true), 0);
    EXPECT_TRUE(sameSet(out, filledSet()));
    EXPECT_TRUE(untouched(&rt[0][0], 12, kSentinel));
    EXPECT_FALSE(tracker.getResultData(out));  // nothing registered: nothing to optimise

    // Five markers seed the library; without returnMatchCount the result is the number of
    // markers written to `out`, labelled with the frame's per-marker validity values.
    SDK_NV::tagScanData five = view(nearest(0, 4), 1);
    EXPECT_EQ(tracker.addOneFrameToLibrary(five, out, rt, false), 5);
    EXPECT_EQ(out.labels, five.m_vecMarkerValid);
    EXPECT_EQ(out.positions.size(), 15u);
    // The seeding frame defines the library's frame: its pose is the identity.
    for (int c = 0; c < 4; ++c) {
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(rt[c][r], c == r ? 1.0 : 0.0, 1e-12);
        }
    }
}

TEST_F(Library, TheShortFormLooksAtANullPoseOnlyWhereItWritesIt) {
    // Too few markers: the full form's 0, whatever rt16 is.
    SDK_NV::tagScanData four = view(nearest(0, 3), 1);
    EXPECT_EQ(tracker.addOneFrameToLibrary(four, nullptr), 0);
    // A frame that registers is added to the library; only its pose is not delivered.
    SDK_NV::tagScanData seed = view(nearest(0, 11), 1);
    EXPECT_EQ(tracker.addOneFrameToLibrary(seed, nullptr), 12);
    device::tagRefMarkpointData out;
    SDK_NV::tagScanData next = view(nearest(6, 17), 2);
    EXPECT_EQ(tracker.addOneFrameToLibrary(next, out, rt, true), 6) << "matched the seed frame";
}

TEST_F(Library, AnInconsistentSetSetsTheOpenFlagThenIsRefused) {
    device::tagRefMarkpointData out;
    SDK_NV::tagScanData a = view(nearest(0, 11), 1);
    ASSERT_GT(tracker.addOneFrameToLibrary(a, out, rt, true), 0);
    device::tagRefMarkpointData bad = markerSet(scene);
    bad.values.pop_back();

    EXPECT_FALSE(tracker.importMarkpointToLibrary(bad, true, false));
    out = filledSet();
    EXPECT_FALSE(tracker.getResultData(out)) << "the library is closed by the call";
    EXPECT_TRUE(sameSet(out, filledSet()));
    // Nothing else changed: the built library still registers frames, no reference was kept.
    SDK_NV::tagScanData b = view(nearest(4, 15), 2);
    EXPECT_EQ(tracker.addOneFrameToLibrary(b, out, rt, true), 8);
    double rt16[16];
    EXPECT_EQ(tracker.SetTrackDynamic(b, out, rt16), -1);

    EXPECT_FALSE(tracker.importMarkpointToLibrary(bad, true, true));
    EXPECT_TRUE(tracker.getResultData(out)) << "opened again by the next call";
}

TEST_F(Library, AFrameIsRegisteredIntoTheSeedingFramesCoordinates) {
    SDK_NV::tagScanData a = view(nearest(0, 11), 1);
    SDK_NV::tagScanData b = view(nearest(4, 19), 2);
    device::tagRefMarkpointData out;
    ASSERT_EQ(tracker.addOneFrameToLibrary(a, out, rt, true), 12);
    EXPECT_EQ(tracker.addOneFrameToLibrary(b, out, rt, true), 8);  // near[4..11] are known

    // `out`: the frame's markers, in order, in the library's (= first frame's) coordinates.
    const sim::RigidMotion poseA = trackerPose(1);
    const std::vector<int> indices = nearest(4, 19);
    ASSERT_EQ(out.labels.size(), indices.size());
    for (std::size_t i = 0; i < indices.size(); ++i) {
        const Eigen::Vector3d expected = poseA.inverse().apply(scene[indices[i]].position);
        EXPECT_LT((pointAt(out.positions, i) - expected).norm(), 0.01);
    }
    // `rt` carries library coordinates into the frame's: rt[c][r] = M(r, c).
    const Eigen::Matrix4d M = (trackerPose(2).inverse() * poseA).matrix();
    for (int c = 0; c < 4; ++c) {
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(rt[c][r], M(r, c), c == 3 ? 0.01 : 1e-5) << "rt[" << c << "][" << r << "]";
        }
    }

    // The short form gives the number of markers written and only the first rotation column
    // and the translation.
    CTPScan_Markpoint twin;
    twin.initLibrary();
    double rt16[16];
    std::fill(rt16, rt16 + 16, kSentinel);
    ASSERT_GT(twin.addOneFrameToLibrary(a, rt16), 0);
    ASSERT_EQ(twin.addOneFrameToLibrary(b, rt16), 16);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(rt16[k], rt[0][k]);
        EXPECT_EQ(rt16[4 + k], rt[3][k]);
    }
    EXPECT_EQ(rt16[3], kSentinel);
    EXPECT_TRUE(untouched(rt16 + 7, 9, kSentinel));
}

TEST_F(Library, AfterFreeLibraryEveryOperationFailsUntilClearLibrary) {
    SDK_NV::tagScanData a = view(nearest(0, 11), 1);
    device::tagRefMarkpointData out;
    ASSERT_GT(tracker.addOneFrameToLibrary(a, out, rt, true), 0);
    EXPECT_TRUE(tracker.freeLibrary());
    EXPECT_FALSE(tracker.freeLibrary());

    out = filledSet();
    EXPECT_EQ(tracker.addOneFrameToLibrary(a, out, rt, true), -1);
    EXPECT_FALSE(tracker.getResultData(out));
    EXPECT_TRUE(sameSet(out, filledSet()));
    EXPECT_FALSE(CTPScan_MarkpointAccess::setTrackMarkpoint(tracker, true));
    // The import changes nothing: no reference is kept, so dynamic tracking still fails.
    EXPECT_FALSE(tracker.importMarkpointToLibrary(markerSet(scene), true, true));
    double rt16[16];
    EXPECT_EQ(tracker.SetTrackDynamic(a, out, rt16), -1);

    EXPECT_TRUE(tracker.clearLibrary());
    EXPECT_EQ(tracker.addOneFrameToLibrary(a, out, rt, true), 12);
    EXPECT_TRUE(CTPScan_MarkpointAccess::setTrackMarkpoint(tracker, false));
}

TEST_F(Library, AFixedSetIsInstalledButDeliversNoResults) {
    SDK_NV::tagScanData a = view(nearest(0, 11), 1);
    device::tagRefMarkpointData out;
    ASSERT_GT(tracker.addOneFrameToLibrary(a, out, rt, true), 0);

    // Reported as false although it worked.
    EXPECT_FALSE(tracker.importMarkpointToLibrary(markerSet(scene), true, false));
    out = filledSet();
    EXPECT_FALSE(tracker.getResultData(out));
    EXPECT_TRUE(sameSet(out, filledSet()));

    // The library is now the given set, in the set's own coordinates.
    SDK_NV::tagScanData b = view(nearest(10, 25), 3);
    ASSERT_EQ(tracker.addOneFrameToLibrary(b, out, rt, true), 16);
    const std::vector<int> indices = nearest(10, 25);
    for (std::size_t i = 0; i < indices.size(); ++i) {
        EXPECT_LT((pointAt(out.positions, i) - scene[indices[i]].position).norm(), 0.01);
    }
    // ... and it was kept as the reference.
    double rt16[16];
    device::tagRefMarkpointData tracked;
    EXPECT_EQ(tracker.SetTrackDynamic(b, tracked, rt16), 0);

    // clearLibrary opens the library again.
    EXPECT_TRUE(tracker.clearLibrary());
    SDK_NV::tagScanData overlapping = view(nearest(4, 19), 2);
    ASSERT_GT(tracker.addOneFrameToLibrary(a, out, rt, true), 0);
    ASSERT_GT(tracker.addOneFrameToLibrary(overlapping, out, rt, true), 0);
    EXPECT_TRUE(tracker.getResultData(out));
    EXPECT_FALSE(out.labels.empty());
}

TEST_F(Library, ResultLabelsArePositionsInTheOptimisersListWithGaps) {
    // near[7] is seen by the first frame only: the optimiser leaves it out.
    std::vector<int> most = nearest(0, 14);
    most.erase(most.begin() + 7);
    device::tagRefMarkpointData out;
    SDK_NV::tagScanData a = view(nearest(0, 14), 1);
    ASSERT_EQ(tracker.addOneFrameToLibrary(a, out, rt, true), 15);
    SDK_NV::tagScanData b = view(most, 2);
    SDK_NV::tagScanData c = view(most, 3);
    ASSERT_EQ(tracker.addOneFrameToLibrary(b, out, rt, true), 14);
    ASSERT_EQ(tracker.addOneFrameToLibrary(c, out, rt, true), 14);

    out = filledSet();
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
        frames.push_back(view(nearest(2 * k, 2 * k + 11), static_cast<std::uint64_t>(k + 1)));
    }
    std::atomic<bool> stop{false};
    std::atomic<int> badResults{0};
    std::thread scan([&] {
        device::tagRefMarkpointData out;
        double rtScan[4][3];
        for (int n = 0; n < 400; ++n) {
            const int r = tracker.addOneFrameToLibrary(frames[n % 4], out, rtScan, true);
            if (r == 0 || r > 12 || r < -1) {
                ++badResults;
            }
            if (r > 0 && out.positions.size() != 3 * out.labels.size()) {
                ++badResults;
            }
        }
        stop = true;
    });
    while (!stop) {
        device::tagRefMarkpointData out;
        if (tracker.getResultData(out)) {
            EXPECT_EQ(out.positions.size(), 3 * out.labels.size());
        }
        tracker.clearLibrary();
    }
    scan.join();
    EXPECT_EQ(badResults, 0);
}

// Frames A, B, C in a row: B brings 8 markers the library does not know; C sees only 6 of
// those plus 6 unknown ones, so C registers only when B's new markers were added.
class LibraryFlags : public Library {
protected:
    int runABC() {
        device::tagRefMarkpointData out;
        tracker.addOneFrameToLibrary(frameA, out, rt, true);
        tracker.addOneFrameToLibrary(frameB, out, rt, true);
        return tracker.addOneFrameToLibrary(frameC, out, rt, true);
    }
    SDK_NV::tagScanData frameA = view(nearest(0, 11), 1);
    SDK_NV::tagScanData frameB = view(nearest(4, 19), 2);
    SDK_NV::tagScanData frameC = view(nearest(14, 25), 3);
};

TEST_F(LibraryFlags, ClearLibraryKeepsTheNewMatchersDefaultsUntilTheNextFlagPush) {
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
