// The artefact scene against its own truth: every laser point of a cycle lies on the artefact
// its frame looks at (spheres exact, not their triangles), the scanner stays trackable, the
// layout is the one the truth lists, and the injected calibration errors change what they
// should and nothing else.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <nlohmann/json.hpp>

#include "sim/Scene.h"

namespace {

Eigen::Vector3d toPart(const sim::ScanFrame& f, const sim::Matrix16& m, const Eigen::Vector3d& x) {
    Eigen::Vector3d k;
    for (int c = 0; c < 3; ++c) {
        k[c] = x[0] * f.rotation[c] + x[1] * f.rotation[3 + c] + x[2] * f.rotation[6 + c] +
               f.translation[c];
    }
    return sim::applyTransferInverse(m, k);
}

sim::SceneOptions exact() {
    sim::SceneOptions o;
    o.artefacts = true;
    o.artefactFrames = 8;
    o.laserNoise = o.poseNoiseMm = o.poseNoiseDeg = o.markerNoise = o.laserNormalNoiseDeg = 0;
    return o;
}

TEST(ArtefactScene, EveryLaserPointLiesOnItsArtefactAndTheScannerStaysTracked) {
    std::string error;
    auto scene = sim::Scene::create(exact(), &error);
    ASSERT_TRUE(scene) << error;
    const sim::ArtefactSet a = sim::artefactSet();
    ASSERT_EQ(scene->artefactCycle(), 17 * 8);
    EXPECT_GE(scene->truth().markers.size(), 90u);

    std::vector<size_t> onSphere(a.spheres.size(), 0);
    size_t onPlane = 0;
    sim::ScanFrame f;
    for (int i = 0; i < scene->artefactCycle(); ++i) {
        sim::FrameRequest rq;
        rq.index = i;
        scene->frame(rq, f);
        ASSERT_TRUE(f.scannerSeen) << "frame " << i;
        ASSERT_GE(f.markers.size(), 4u) << "frame " << i;
        const sim::Matrix16& m = scene->truth().transfer.at(f.trackerId);
        for (const Eigen::Vector3d& x : f.points) {
            const Eigen::Vector3d p = toPart(f, m, x);
            double best = 1e9;
            size_t which = 0;
            for (size_t s = 0; s < a.spheres.size(); ++s) {
                const double d =
                    std::fabs((p - a.spheres[s].centre).norm() - 0.5 * a.spheres[s].diameter);
                if (d < best) {
                    best = d;
                    which = s;
                }
            }
            const sim::ArtefactPlane& pl = a.planes[0];
            const double dp = std::fabs(pl.normal.dot(p - pl.centre));
            ASSERT_LT(std::min(best, dp), 1e-6) << "frame " << i << " point " << p.transpose();
            if (best < dp) {
                ++onSphere[which];
            } else {
                ++onPlane;
                EXPECT_LE(std::fabs(pl.axis.dot(p - pl.centre)), 0.5 * pl.length + 1e-6);
            }
        }
    }
    for (size_t s = 0; s < a.spheres.size(); ++s) {
        EXPECT_GT(onSphere[s], 1000u) << a.spheres[s].name;
    }
    EXPECT_GT(onPlane, 20000u);
}

TEST(ArtefactScene, TheTruthListsTheLayoutAndInjectedErrorsChangeOnlyTheirPart) {
    std::string error;
    auto scene = sim::Scene::create(exact(), &error);
    ASSERT_TRUE(scene) << error;
    const nlohmann::json j = nlohmann::json::parse(scene->describeJson());
    const auto& art = j.at("artefacts");
    ASSERT_EQ(art.at("spheres").size(), 15u);
    ASSERT_EQ(art.at("ballBars").size(), 7u);
    const Eigen::Vector3d lo(-400, -300, 0), hi(400, 300, 500);
    int diagonals = 0, axes = 0;
    for (const auto& b : art.at("ballBars")) {
        auto centre = [&](const char* k) {
            const auto& c = art.at("spheres").at(b.at(k).get<size_t>()).at("centre");
            return Eigen::Vector3d(c[0].get<double>(), c[1].get<double>(), c[2].get<double>());
        };
        const Eigen::Vector3d d = centre("b") - centre("a");
        EXPECT_NEAR(d.norm(), b.at("distance").get<double>(), 1e-9);
        EXPECT_GE(d.norm(), 300.0);
        for (const char* k : {"a", "b"}) {
            EXPECT_TRUE((centre(k).array() >= lo.array()).all() &&
                        (centre(k).array() <= hi.array()).all());
        }
        const int zeros = (d.array().abs() < 1e-9).count();
        diagonals += zeros == 0 && std::fabs(std::fabs(d.x() / d.y()) - 400.0 / 300.0) < 1e-9;
        axes += zeros == 2;
    }
    EXPECT_EQ(diagonals, 4);
    EXPECT_EQ(axes, 3);
    EXPECT_GE(art.at("planes").at(0).at("length").get<double>(), 0.5 * (hi - lo).norm());

    sim::SceneOptions o = exact();
    o.trackerScalePpm = 1000;
    auto scaled = sim::Scene::create(o, &error);
    ASSERT_TRUE(scaled) << error;
    sim::ScanFrame f0, f1;
    sim::FrameRequest rq;
    rq.index = 20;
    scene->frame(rq, f0);
    scaled->frame(rq, f1);
    ASSERT_TRUE(f0.scannerSeen && f1.scannerSeen);
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(f1.translation[c], 1.001 * f0.translation[c], 1e-9);
    }
    ASSERT_EQ(f0.markers.size(), f1.markers.size());
    ASSERT_FALSE(f0.markers.empty());
    EXPECT_LT((f1.markers[0].centre - 1.001 * f0.markers[0].centre).norm(), 1e-9);
    EXPECT_EQ(f0.points, f1.points);  // the scanner's own measurement is unchanged

    // A laser calibration error turns what the scanner reports in its own frame, nothing else.
    o = exact();
    o.laserRotationDeg = 0.05;
    auto turned = sim::Scene::create(o, &error);
    ASSERT_TRUE(turned) << error;
    sim::ScanFrame f2;
    turned->frame(rq, f2);
    ASSERT_EQ(f2.points.size(), f0.points.size());
    ASSERT_FALSE(f0.points.empty());
    const Eigen::Matrix3d err =
        Eigen::AngleAxisd(0.05 * M_PI / 180, Eigen::Vector3d::UnitX()).toRotationMatrix();
    for (size_t i = 0; i < f0.points.size(); i += 97) {
        EXPECT_LT((f2.points[i] - err * f0.points[i]).norm(), 1e-9);
    }
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(f2.translation[c], f0.translation[c]);
    }
}

}  // namespace
