// The real-time matcher (MyRealTimeMarkMatch_class): seeding, growing and refining the
// library frame by frame, its flags and transforms, capacities and lifecycle.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "QuillTestUtil.h"

using namespace quilltest;

namespace {

sim::FrameOptions walkOpts(double drop = 0.1, double spurious = 0.1) {
    sim::FrameOptions o;
    o.visible = 30;
    o.noiseSigma = 0.05;
    o.dropFraction = drop;
    o.spuriousFraction = spurious;
    return o;
}

TEST(RealTimeLifecycle, OnlyAValidInitAllMakesThePerCameraMatchers) {
    Quill::MyRealTimeMarkMatch_class rt;
    std::vector<Quill::mark_data> marks(10);
    EXPECT_EQ(rt.MarkRegistration_loop(marks.data(), 10, 0), -1);
    EXPECT_TRUE(rt.get_final_rt_array(0).empty());
    EXPECT_EQ(rt.free_all(), 0);
    for (const auto& [marksMax, frames, cams] :
         {std::tuple(0, 5000, 1), {30000, 0, 1}, {30000, 5000, 0}, {2000000000, 5000, 1}}) {
        EXPECT_EQ(rt.init_all(marksMax, frames, cams), 0) << marksMax << " " << frames;
    }
    EXPECT_EQ(rt.get_cam_n(), 0);
    EXPECT_EQ(rt.get_mark_match(0), nullptr);
    ASSERT_EQ(rt.init_all(30000, 5000, 3), 1);
    EXPECT_EQ(rt.get_cam_n(), 3);
    for (int c = 0; c < 3; ++c) {
        EXPECT_NE(rt.get_mark_match(c), nullptr);
    }
    EXPECT_EQ(rt.get_mark_match(3), nullptr);
    EXPECT_EQ(rt.get_mark_match(-1), nullptr);
    EXPECT_EQ(rt.free_all(), 1);
    EXPECT_EQ(rt.free_all(), 0);
    EXPECT_EQ(rt.get_mark_match(0), nullptr);
    EXPECT_EQ(rt.MarkRegistration_loop(marks.data(), 10, 0), -1);
}

// The first frame seeds the library in its own frame; along a walk every frame registers with
// the pose the truth gives (frame 0 defines the library's frame), every flag names the library
// marker of the same scene marker, and a scene marker enters the library once. A frame of
// another part changes nothing.
TEST(RealTimeLibrary, SeedsThenGrowsAlongAWalkAndTracksEveryFrame) {
    const auto scene = sim::MarkerScene::randomPart(400, 3);
    sim::FrameGenerator gen(scene, 4);
    const auto frames = gen.walk(80, walkOpts(), 15.0, 1.0);
    Library lib;
    int previous = 0;
    for (std::size_t k = 0; k < frames.size(); ++k) {
        SCOPED_TRACE(k);
        ASSERT_EQ(lib.add(frames[k], static_cast<int>(k) + 77), 1);
        const auto flags = lib.rt.get_final_match_flag();
        ASSERT_EQ(flags.size(), frames[k].markers.size());
        if (k == 0) {
            EXPECT_EQ(lib.size(), static_cast<int>(flags.size()));
            EXPECT_EQ(lib.rt.get_final_match_n(), lib.size());
            EXPECT_TRUE(lib.rt.get_final_transform().isIdentity());
            EXPECT_EQ(std::set<int>(flags.begin(), flags.end()).size(), flags.size());
        }
        ASSERT_GE(lib.rt.get_final_match_n(), 5);
        // The library grows from noisy frames, so it drifts a little along the walk; a wrong
        // registration would be off by a marker spacing.
        const Eigen::Matrix4d truth = (frames[0].pose.inverse() * frames[k].pose).matrix();
        double worst = 0.0;
        for (const auto& o : frames[k].markers) {
            worst = std::max(
                worst, ((lib.rt.get_final_transform() - truth) * o.position.homogeneous()).norm());
        }
        EXPECT_LT(worst, 1.0);
        for (std::size_t i = 0; i < flags.size(); ++i) {
            if (flags[i] >= 0) {
                EXPECT_EQ(lib.sourceLabel(flags[i]), frames[k].markers[i].truth);
            }
        }
        EXPECT_GE(lib.size(), previous);
        previous = lib.size();
    }
    EXPECT_GT(lib.size(), 100);
    const auto rts = lib.rt.get_final_rt_array(0);
    ASSERT_EQ(rts.size(), frames.size());
    EXPECT_TRUE(rts[0].isIdentity());
    EXPECT_TRUE(lib.rt.get_final_rt_array(1).empty());
    EXPECT_EQ(lib.rt.get_frame_values().front(), 77);
    std::set<int> sources;
    for (int i = 0; i < lib.size(); ++i) {
        const int s = lib.sourceLabel(i);
        EXPECT_TRUE(s < 0 || sources.insert(s).second) << "scene marker " << s << " twice";
    }

    const auto other = sim::MarkerScene::randomPart(300, 12);
    sim::FrameGenerator elsewhere(other, 14);
    EXPECT_EQ(lib.add(elsewhere.randomFrame(walkOpts())), 0);
    EXPECT_EQ(lib.size(), previous);
    EXPECT_EQ(lib.rt.get_final_rt_array(0).size(), frames.size());
    EXPECT_EQ(lib.rt.get_final_match_n(), 0);
    const auto flags = lib.rt.get_final_match_flag();
    EXPECT_EQ(std::count(flags.begin(), flags.end(), -1), static_cast<long>(flags.size()));
}

TEST(RealTimeLibrary, RefinementPullsLibraryMarkersTowardsTheTruth) {
    const auto scene = sim::MarkerScene::randomPart(120, 5);
    sim::FrameGenerator gen(scene, 6);
    const sim::FrameOptions o = walkOpts(0.0, 0.0);
    const Eigen::Vector3d centre = scene[0].position;
    const sim::Frame first = gen.frameAt(centre, sim::randomMotion(gen.rng(), 500), o);
    Library lib;
    ASSERT_GT(lib.add(first), 0);
    auto errorOfFirstFrame = [&]() {
        // Library positions against the truth after a rigid best fit (the library's frame
        // is the first frame's, noise included).
        Eigen::Matrix3Xd A(3, first.markers.size()), B(3, first.markers.size());
        for (std::size_t i = 0; i < first.markers.size(); ++i) {
            Quill::mark_data m;
            EXPECT_TRUE(lib.rt.get_mark_match(0)->get_glo_mark(static_cast<int>(i), m));
            A.col(static_cast<Eigen::Index>(i)) = Eigen::Vector3d(m.x, m.y, m.z);
            B.col(static_cast<Eigen::Index>(i)) = scene[m.label].position;
        }
        const Eigen::Matrix4d T = Eigen::umeyama(A, B, false);
        return std::sqrt(((T.topLeftCorner<3, 3>() * A).colwise() + T.topRightCorner<3, 1>() - B)
                             .colwise()
                             .squaredNorm()
                             .mean());
    };
    const double before = errorOfFirstFrame();
    for (int k = 0; k < 15; ++k) {
        ASSERT_GT(lib.add(gen.frameAt(centre, sim::randomMotion(gen.rng(), 500), o)), 0);
    }
    // Sixteen observations averaged: about a quarter of the single-frame error.
    EXPECT_LT(errorOfFirstFrame(), 0.4 * before);
}

TEST(RealTimeLibrary, RegistersAgainstAnInstalledGlobalMarkerSetAndRespectsItsCapacities) {
    const auto scene = sim::MarkerScene::randomPart(2000, 9);
    sim::FrameGenerator gen(scene, 10);
    Library lib;
    auto cloud = sceneCloud(scene);
    lib.rt.get_mark_match(0)->set_glo_mark(cloud, static_cast<int>(cloud.size()));
    lib.rt.set_if_real_time_update_mark(0);
    lib.rt.set_if_real_time_new_add_mark(0);
    EXPECT_EQ(lib.size(), scene.size());
    Quill::mark_data before, after;
    ASSERT_TRUE(lib.rt.get_mark_match(0)->get_glo_mark(0, before));
    for (int k = 0; k < 20; ++k) {
        const sim::Frame f = gen.randomFrame(walkOpts());
        ASSERT_EQ(lib.add(f), 1);
        EXPECT_GE(lib.rt.get_final_match_n(), 5);
        EXPECT_LT(transformError(lib.rt.get_final_transform(), f), 0.3);
        EXPECT_EQ(wrongFlags(lib.rt.get_final_match_flag(), f), 0);
    }
    // With updates and additions off the library stays as it is.
    EXPECT_EQ(lib.size(), scene.size());
    ASSERT_TRUE(lib.rt.get_mark_match(0)->get_glo_mark(0, after));
    EXPECT_EQ(Eigen::Vector3f(before.x, before.y, before.z),
              Eigen::Vector3f(after.x, after.y, after.z));

    Library small(45, 5);
    for (const auto& f : gen.walk(30, walkOpts(), 20.0, 1.0)) {
        small.add(f);
    }
    EXPECT_LE(small.size(), 45);
    EXPECT_EQ(small.rt.get_final_rt_array(0).size(), 5u);
}

TEST(RealTimeLibrary, TemporaryMarkersWaitForASecondSighting) {
    const auto scene = sim::MarkerScene::randomPart(300, 17);
    sim::FrameGenerator gen(scene, 18);
    const sim::FrameOptions o = walkOpts(0.0, 0.0);
    const Eigen::Vector3d c = scene[0].position;
    const sim::Frame a = gen.frameAt(c, sim::randomMotion(gen.rng(), 500), o);
    // A view shifted sideways: part overlap, part new markers.
    const Eigen::Vector3d shifted = scene[scene.nearestTo(c, 30).back()].position;
    const sim::Frame b = gen.frameAt(shifted, sim::randomMotion(gen.rng(), 500), o);
    auto matchesOfRepeatedB = [&](bool temporary) {
        Library lib;
        lib.rt.set_if_use_temporary_library(temporary ? 1 : 0);
        lib.rt.set_if_only_match_from_glomark(1);
        EXPECT_GT(lib.add(a), 0);
        std::vector<int> counts;
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(lib.add(b), 1);
            counts.push_back(lib.rt.get_final_match_n());
        }
        return counts;
    };
    const auto direct = matchesOfRepeatedB(false);
    const auto waiting = matchesOfRepeatedB(true);
    EXPECT_LT(direct[0], 30);
    EXPECT_EQ(direct[1], 30);  // new markers matched from the second sighting on
    EXPECT_EQ(waiting[0], direct[0]);
    EXPECT_EQ(waiting[1], direct[0]);  // confirmed by the second sighting, not yet matched
    EXPECT_EQ(waiting[2], 30);
}

TEST(RealTimeLibrary, MergeSameTargetJoinsNearbyLibraryMarkers) {
    const auto scene = sim::MarkerScene::randomPart(50, 19);
    std::vector<sim::Marker> markers = scene.markers();
    sim::Marker twin = markers[10];
    twin.position += Eigen::Vector3d(1.0, 0.0, 0.0);
    markers.push_back(twin);
    auto cloud = sceneCloud(sim::MarkerScene(markers));
    Quill::MyMatchMarkClass_update m;
    applyTrackerSettings(m);
    m.set_glo_mark(cloud, static_cast<int>(cloud.size()));
    EXPECT_EQ(m.get_glo_mark_n(), 51);
    m.MergeSameTgt(20);
    EXPECT_EQ(m.get_glo_mark_n(), 50);
    Quill::mark_data merged;
    ASSERT_TRUE(m.get_glo_mark(10, merged));
    EXPECT_NEAR(merged.x, scene[10].position.x() + 0.5, 1e-3);
    EXPECT_FALSE(m.get_glo_mark(50, merged));
    // Markers farther apart than the same-target distance stay apart.
    m.MergeSameTgt(20);
    EXPECT_EQ(m.get_glo_mark_n(), 50);
}

}  // namespace
