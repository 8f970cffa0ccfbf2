// Splicing observed markers onto a marker model, and registering one marker set onto another.
#include <gtest/gtest.h>

#include <algorithm>

#include "TrackingFixtures.h"

using namespace tracking_test;

namespace {

constexpr double kSentinel = 99.5;

struct Observation {
    std::vector<float> positions, normals, values;
    std::vector<int> labels;
};

Observation observe(const sim::Frame& f) {
    Observation o;
    int label = 100;
    for (const sim::ObservedMarker& m : f.markers) {
        for (int k = 0; k < 3; ++k) {
            o.positions.push_back(static_cast<float>(m.position[k]));
            o.normals.push_back(static_cast<float>(m.normal[k]));
        }
        o.values.push_back(static_cast<float>(kMarkerDiameter));
        o.labels.push_back(label++);
    }
    return o;
}

class Splice : public ::testing::Test {
protected:
    Splice() : scene(sim::MarkerScene::randomPart(60, 31)) {
        near = scene.nearestTo(scene.centroid(), 12);
        // The model: the 10 markers nearest the centre, labelled 0..9, in scene coordinates.
        model = markerSet(scene, std::vector<int>(near.begin(), near.begin() + 10));
        // The observation: 6 model markers (model indices 2..7) and the 2 next nearest.
        observedIndices = {near[2], near[10], near[3], near[4],
                           near[5], near[11], near[6], near[7]};
        pose = trackerPose(5);
        observed = viewOf(scene, observedIndices, pose);
        std::fill(&rt[0][0], &rt[0][0] + 12, kSentinel);
    }

    sim::MarkerScene scene;
    std::vector<int> near;
    device::tagRefMarkpointData model;
    device::tagRefMarkpointData added;
    std::vector<int> observedIndices;
    sim::RigidMotion pose;
    sim::Frame observed;
    CTPScan_Markpoint tracker;  // no library needed
    double rt[4][3];
};

TEST_F(Splice, MatchedMarkersKeepTheirLabelsNewOnesAreNumberedFromCountMinusOne) {
    const Observation o = observe(observed);
    ASSERT_EQ(tracker.realtimeSpliceMarkpoint(o.positions, o.normals, o.values, o.labels, model,
                                              added, rt),
              6);

    // Matched: in observation order, labelled with their index in the old model.
    EXPECT_EQ(model.labels, (std::vector<int>{2, 3, 4, 5, 6, 7}));
    ASSERT_EQ(model.positions.size(), 18u);
    const std::vector<int> matchedScene = {near[2], near[3], near[4], near[5], near[6], near[7]};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_LT((pointAt(model.positions, i) - scene[matchedScene[i]].position).norm(), 1e-3);
        EXPECT_GT(pointAt(model.normals, i).dot(scene[matchedScene[i]].normal), 0.9999);
    }
    // New: labelled 9 and 10, brought into the model's frame.
    EXPECT_EQ(added.labels, (std::vector<int>{9, 10}));
    ASSERT_EQ(added.positions.size(), 6u);
    EXPECT_LT((pointAt(added.positions, 0) - scene[near[10]].position).norm(), 1e-3);
    EXPECT_LT((pointAt(added.positions, 1) - scene[near[11]].position).norm(), 1e-3);
    EXPECT_EQ(added.values, (std::vector<double>{kMarkerDiameter, kMarkerDiameter}));

    // The pose: rt carries model coordinates into the observation's, rt[c][r] = M(r, c) with
    // rt[3] the translation; its inverse maps the observation onto the model.
    const Eigen::Matrix3d R = Eigen::Map<const Eigen::Matrix3d>(&rt[0][0]);
    const Eigen::Vector3d t(rt[3][0], rt[3][1], rt[3][2]);
    EXPECT_LT(sim::rotationAngleDeg(R, pose.R.transpose()), 1e-3);
    EXPECT_LT(worstMapping(R.transpose(), -R.transpose() * t, observed, scene), 1e-3);
}

TEST_F(Splice, EmptyInputGivesMinusOneAFailedRegistrationMinusTwoAndNothingIsWritten) {
    const Observation o = observe(observed);
    device::tagRefMarkpointData empty;
    EXPECT_EQ(tracker.realtimeSpliceMarkpoint(o.positions, o.normals, o.values, o.labels, empty,
                                              added, rt),
              -1);
    const device::tagRefMarkpointData before = model;
    EXPECT_EQ(tracker.realtimeSpliceMarkpoint({}, {}, {}, {}, model, added, rt), -1);
    EXPECT_TRUE(added.labels.empty());

    const sim::MarkerScene other = sim::MarkerScene::randomPart(30, 777);
    const Observation foreign = observe(viewOf(other, range(0, 9), pose));
    added = model;
    EXPECT_EQ(tracker.realtimeSpliceMarkpoint(foreign.positions, foreign.normals, foreign.values,
                                              foreign.labels, model, added, rt),
              -2);
    EXPECT_EQ(model.labels, before.labels);
    EXPECT_EQ(model.positions, before.positions);
    EXPECT_EQ(added.labels, before.labels);
    EXPECT_TRUE(untouched(&rt[0][0], 12, kSentinel));
}

TEST_F(Splice, MarkPointSplitNeedsOnlyThreeMatches) {
    // Three model markers seen from elsewhere: too few for splicing, enough for a split.
    const sim::Frame three = viewOf(scene, {near[1], near[4], near[8]}, pose);
    const Observation o = observe(three);
    EXPECT_EQ(tracker.realtimeSpliceMarkpoint(o.positions, o.normals, o.values, o.labels, model,
                                              added, rt),
              -2);

    device::tagRefMarkpointData moving;
    for (std::size_t i = 0; i < 3; ++i) {
        for (int k = 0; k < 3; ++k) {
            moving.positions.push_back(three.markers[i].position[k]);
            moving.normals.push_back(three.markers[i].normal[k]);
        }
        moving.values.push_back(kMarkerDiameter);
        moving.labels.push_back(static_cast<int>(i));
    }
    double rt16[16];
    std::fill(rt16, rt16 + 16, kSentinel);
    ASSERT_EQ(tracker.MarkPointSplit(moving, model, rt16), 0);
    // TranRT layout of the moving-to-fixed transform, which is the observation's pose.
    EXPECT_LT(sim::rotationAngleDeg(rotationOf(rt16), pose.R), 1e-3);
    EXPECT_LT(worstMapping(rotationOf(rt16), translationOf(rt16), three, scene), 1e-3);
    EXPECT_TRUE(hasTranRTLayout(rt16));

    // Two markers are not enough; nothing is written.
    moving.labels.resize(2);
    std::fill(rt16, rt16 + 16, kSentinel);
    EXPECT_EQ(tracker.MarkPointSplit(moving, model, rt16), -1);
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));
}

}  // namespace
