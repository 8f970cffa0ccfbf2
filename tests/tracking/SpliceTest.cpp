// Splicing observed markers onto a marker model, and registering one marker set onto another.
#include <gtest/gtest.h>

#include <algorithm>

#include "TrackingFixtures.h"

using namespace tracking_test;

namespace {

constexpr double kSentinel = 99.5;

class Splice : public ::testing::Test {
protected:
    Splice() : scene(sim::MarkerScene::randomPart(60, 31)) {
        near = scene.nearestTo(scene.centroid(), 12);
        // The model: the 10 markers nearest the centre, labelled 0..9, in scene coordinates.
        model = markerSet(scene, std::vector<int>(near.begin(), near.begin() + 10));
        std::fill(&rt[0][0], &rt[0][0] + 12, kSentinel);
    }
    // Splices `f` (float arrays, labels from 100) onto the model.
    int splice(const sim::Frame& f) {
        std::vector<float> positions, normals, values;
        std::vector<int> labels;
        for (const sim::ObservedMarker& m : f.markers) {
            for (int k = 0; k < 3; ++k) {
                positions.push_back(static_cast<float>(m.position[k]));
                normals.push_back(static_cast<float>(m.normal[k]));
            }
            values.push_back(static_cast<float>(kMarkerDiameter));
            labels.push_back(100 + static_cast<int>(labels.size()));
        }
        return tracker.realtimeSpliceMarkpoint(positions, normals, values, labels, model, added,
                                               rt);
    }

    sim::MarkerScene scene;
    std::vector<int> near;
    device::tagRefMarkpointData model, added;
    sim::RigidMotion pose = trackerPose(5);
    CTPScan_Markpoint tracker;  // no library needed
    double rt[4][3];
};

TEST_F(Splice, MatchedMarkersKeepTheirLabelsNewOnesAreNumberedFromCountMinusOne) {
    // The observation: 6 model markers (model indices 2..7) and the 2 next nearest.
    const sim::Frame observed = viewOf(
        scene, {near[2], near[10], near[3], near[4], near[5], near[11], near[6], near[7]}, pose);
    ASSERT_EQ(splice(observed), 6);
    // Matched: in observation order, labelled with their index in the old model.
    EXPECT_EQ(model.labels, (std::vector<int>{2, 3, 4, 5, 6, 7}));
    ASSERT_EQ(model.positions.size(), 18u);
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_LT((pointAt(model.positions, i) - scene[near[i + 2]].position).norm(), 1e-3);
        EXPECT_GT(pointAt(model.normals, i).dot(scene[near[i + 2]].normal), 0.9999);
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
    const sim::Frame observed = viewOf(scene, {near[2], near[3], near[4], near[5], near[6]}, pose);
    const device::tagRefMarkpointData saved = model;
    model = device::tagRefMarkpointData();
    EXPECT_EQ(splice(observed), -1);  // an empty model
    model = saved;
    EXPECT_EQ(splice(sim::Frame()), -1);
    EXPECT_TRUE(added.labels.empty());

    const sim::MarkerScene other = sim::MarkerScene::randomPart(30, 777);
    added = model;
    EXPECT_EQ(splice(viewOf(other, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, pose)), -2);
    // Three model markers seen from elsewhere: too few for splicing.
    const sim::Frame three = viewOf(scene, {near[1], near[4], near[8]}, pose);
    EXPECT_EQ(splice(three), -2);
    EXPECT_EQ(model.labels, saved.labels);
    EXPECT_EQ(model.positions, saved.positions);
    EXPECT_EQ(added.labels, saved.labels);
    EXPECT_TRUE(untouched(&rt[0][0], 12, kSentinel));
}

TEST_F(Splice, MarkPointSplitNeedsOnlyThreeMatches) {
    const sim::Frame three = viewOf(scene, {near[1], near[4], near[8]}, pose);
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
    EXPECT_TRUE(hasTranRTLayout(rt16));
    EXPECT_LT(sim::rotationAngleDeg(rotationOf(rt16), pose.R), 1e-3);
    EXPECT_LT(worstMapping(rt16, three, scene), 1e-3);
    // Two markers are not enough; nothing is written.
    moving.labels.resize(2);
    std::fill(rt16, rt16 + 16, kSentinel);
    EXPECT_EQ(tracker.MarkPointSplit(moving, model, rt16), -1);
    EXPECT_TRUE(untouched(rt16, 16, kSentinel));
}

}  // namespace
