// The physical scene checked against its own truth: laser points, markers and holes mapped
// with the frame's pose and the tracker's true transfer matrix land on the part (or on the
// artefact the frame looks at); chained trackers agree; the noise has its set levels and
// shape; the same seed gives the same frames; the truth files read back, bad ones are refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "sim/Scene.h"

namespace {

using sim::Matrix16;

// p_K = x_S R + t (rows), then p_W = B^T (p_K - T).
Eigen::Vector3d toPart(const sim::ScanFrame& f, const Matrix16& m, const Eigen::Vector3d& x) {
    Eigen::Vector3d k;
    for (int c = 0; c < 3; ++c) {
        k[c] = x[0] * f.rotation[c] + x[1] * f.rotation[3 + c] + x[2] * f.rotation[6 + c] +
               f.translation[c];
    }
    return sim::applyTransferInverse(m, k);
}

Eigen::Matrix3d rotationOf(const Matrix16& m) {
    Eigen::Matrix3d B;
    for (int k = 0; k < 9; ++k) {
        B(k / 3, k % 3) = m[4 * (k / 3) + k % 3];
    }
    return B;
}

std::unique_ptr<sim::Scene> makeScene(sim::SceneOptions o) {
    std::string error;
    auto s = sim::Scene::create(o, &error);
    EXPECT_TRUE(s) << error;
    return s;
}

sim::SceneOptions noiseless(bool artefacts = false) {
    sim::SceneOptions o;
    o.laserNoise = o.poseNoiseMm = o.poseNoiseDeg = o.markerNoise = o.laserNormalNoiseDeg = 0;
    o.artefacts = artefacts;
    o.artefactFrames = 8;
    return o;
}

sim::ScanFrame frameOf(const sim::Scene& s, int index, sim::FrameRequest rq = {}) {
    rq.index = index;
    sim::ScanFrame f;
    s.frame(rq, f);
    return f;
}

// Distances of a frame's laser points to the part, through the true matrix of its tracker.
std::vector<double> laserDistances(const sim::Scene& s, const sim::MeshDistance& md,
                                   const sim::ScanFrame& f) {
    std::vector<double> d;
    for (const auto& p : f.points) {
        d.push_back(md.distance(toPart(f, s.truth().transfer.at(f.trackerId), p)));
    }
    return d;
}

bool sameBytes(const std::vector<Eigen::Vector3d>& a, const std::vector<Eigen::Vector3d>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * 24) == 0;
}

TEST(SimScene, DefaultPartMarkersAndTrackersAreSound) {
    auto s = makeScene(sim::SceneOptions());
    const sim::Truth& t = s->truth();
    EXPECT_GT(t.part.triangles.size(), 500u);
    EXPECT_EQ(t.holes.size(), 6u);
    ASSERT_EQ(t.markers.size(), 100u);
    sim::MeshDistance md(t.part);
    std::set<int> ids;
    for (const auto& m : t.markers) {
        ids.insert(m.id);
        EXPECT_LT(md.distance(m.position), 1e-3) << m.id;
        EXPECT_NEAR(m.normal.norm(), 1.0, 1e-12);
        EXPECT_EQ(m.diameter, 6.0);
        for (const auto& o : t.markers) {
            EXPECT_TRUE(o.id == m.id || (o.position - m.position).norm() >= 20.0);
        }
    }
    EXPECT_EQ(ids.size(), 100u);
    // The distance query agrees with a plain search over the triangles.
    sim::Rng rng(5);
    for (int i = 0; i < 200; ++i) {
        const Eigen::Vector3d p(rng.uniform(-350, 350), rng.uniform(-250, 250),
                                rng.uniform(-50, 100));
        double best = 1e300;
        for (const auto& tri : t.part.triangles) {
            const auto corner = [&](int k) { return t.part.vertices[tri[k]].cast<double>(); };
            best = std::min(
                best, (sim::closestPointOnTriangle(p, corner(0), corner(1), corner(2)) - p).norm());
        }
        EXPECT_NEAR(md.distance(p), best, 1e-9);
    }
    // The true matrices are rigid and place the part in front of each tracker.
    sim::SceneOptions o;
    o.trackers = 3;
    auto s3 = makeScene(o);
    ASSERT_EQ(s3->truth().transfer.size(), 3u);
    for (const auto& [id, m] : s3->truth().transfer) {
        const Eigen::Matrix3d B = rotationOf(m);
        EXPECT_NEAR((B * B.transpose() - Eigen::Matrix3d::Identity()).norm(), 0, 1e-12) << id;
        EXPECT_NEAR(B.determinant(), 1.0, 1e-12) << id;
        EXPECT_GT(sim::applyTransfer(m, Eigen::Vector3d::Zero()).z(), 2500.0) << id;
    }
}

// With the default noise, distances to the surface are one-sided views of the noise normal to
// it: their RMS is about sigma and points beyond 3 sigma are rare. (Without noise every point
// lies on the part: SimScene.MarkersAndHolesMapOntoTheTruthFromEveryTracker.)
TEST(SimScene, LaserPointsLieWithinTheNoiseOfThePart) {
    auto noisy = makeScene(sim::SceneOptions());
    sim::MeshDistance md(noisy->truth().part);
    const sim::SceneOptions& o = noisy->options();
    // The pose noise moves points too: 0.001 degree at 300 mm is 0.005 mm.
    const double sigma = std::sqrt(o.laserNoise * o.laserNoise + o.poseNoiseMm * o.poseNoiseMm +
                                   std::pow(o.poseNoiseDeg * M_PI / 180 * 450, 2));
    double sumSq = 0;
    size_t count = 0, outside = 0;
    for (int i = 0; i < 3000; i += 150) {
        const sim::ScanFrame fn = frameOf(*noisy, i);
        ASSERT_TRUE(fn.scannerSeen) << i;
        EXPECT_GT(fn.points.size(), 1000u) << i;
        for (double d : laserDistances(*noisy, md, fn)) {
            sumSq += d * d;
            ++count;
            outside += d > 3 * sigma;
        }
    }
    EXPECT_GT(count, 20 * 5000u);
    EXPECT_NEAR(std::sqrt(sumSq / count), sigma, 0.25 * sigma);
    EXPECT_LT(static_cast<double>(outside) / count, 0.01);
}

// The noise of a frame against the same frame without it (the rays and hits are the same):
// position noise of the set level per coordinate, Gaussian in shape and uncorrelated between
// coordinates; normals tilted by the set angle per axis; noiseless points on their line's plane.
// A second thread gets the same frame.
TEST(SimScene, LaserNoiseHasTheSetLevelsAndAGaussianShape) {
    auto exact = makeScene(noiseless());
    sim::SceneOptions o = noiseless();
    o.laserNoise = 0.02;
    o.laserNormalNoiseDeg = 0.5;
    auto noisy = makeScene(o);
    double sum = 0, sumSq = 0, sumXY = 0, worst = 0, angleSq = 0, worstPlane = 0;
    size_t n = 0, beyond2 = 0;
    for (int i = 0; i < 2400; i += 200) {
        const sim::ScanFrame fe = frameOf(*exact, i), fn = frameOf(*noisy, i);
        ASSERT_EQ(fe.points.size(), fn.points.size()) << i;
        for (size_t k = 0; k < fe.points.size(); ++k) {
            const Eigen::Vector3d r = (fn.points[k] - fe.points[k]) / o.laserNoise;
            for (int c = 0; c < 3; ++c) {
                sum += r[c];
                sumSq += r[c] * r[c];
                beyond2 += std::fabs(r[c]) > 2.0;
                worst = std::max(worst, std::fabs(r[c]));
            }
            sumXY += r.x() * r.y();
            n += 3;
            const double cosA = std::clamp(fn.normals[k].dot(fe.normals[k]), -1.0, 1.0);
            angleSq += std::pow(std::acos(cosA) * 180 / M_PI, 2);
            ASSERT_NEAR(fn.normals[k].norm(), 1.0, 1e-12);
        }
        for (const sim::LaserLineInfo& l : fe.lines) {
            for (int k = l.firstPoint; k < l.firstPoint + l.pointCount; ++k) {
                const Eigen::Vector3d& p = fe.points[static_cast<size_t>(k)];
                worstPlane = std::max(worstPlane, std::fabs(l.plane.head<3>().dot(p) + l.plane[3]));
            }
        }
        if (i == 1200) {
            sim::ScanFrame other;
            std::thread([&] { other = frameOf(*noisy, i); }).join();
            EXPECT_TRUE(sameBytes(other.points, fn.points));
            EXPECT_TRUE(sameBytes(other.normals, fn.normals));
        }
    }
    ASSERT_GT(n, 300000u);
    const double mean = sum / n, sd = std::sqrt(sumSq / n - mean * mean);
    EXPECT_LT(std::fabs(mean), 0.01);
    EXPECT_NEAR(sd, 1.0, 0.01);
    EXPECT_NEAR(static_cast<double>(beyond2) / n, 0.0455, 0.003);  // two-sided 2-sigma share
    EXPECT_LT(worst, 4.3);
    EXPECT_GT(worst, 3.5);
    EXPECT_LT(std::fabs(sumXY / (n / 3)), 0.015);
    // A tilt of sigma about each of the two axes across the normal: RMS angle sigma * sqrt 2.
    EXPECT_NEAR(std::sqrt(angleSq / (n / 3)), o.laserNormalNoiseDeg * std::sqrt(2.0), 0.02);
    EXPECT_LT(worstPlane, 1e-9);
}

TEST(SimScene, MarkersAndHolesMapOntoTheTruthFromEveryTracker) {
    sim::SceneOptions o = noiseless();
    o.trackers = 2;
    auto s = makeScene(o);
    sim::MeshDistance md(s->truth().part);
    std::set<std::string> observers;
    size_t markers = 0, holes = 0, invalid = 0;
    for (int i = 0; i < 6000; i += 97) {
        for (int tr = 0; tr < 2; ++tr) {
            sim::FrameRequest rq;
            rq.holes = true;
            rq.tracker = tr;
            const sim::ScanFrame f = frameOf(*s, i, rq);
            const Matrix16& m = s->truth().transfer.at(f.trackerId);
            for (const auto& k : f.markers) {
                const auto& truth = s->truth().markers[static_cast<size_t>(k.id)];
                ASSERT_LT((sim::applyTransferInverse(m, k.centre) - truth.position).norm(), 1e-9);
                ++markers;
                invalid += !k.valid;
            }
            if (!f.scannerSeen) {
                continue;
            }
            observers.insert(f.trackerId);
            EXPECT_EQ(f.lines.size(), 7u);
            for (double d : laserDistances(*s, md, f)) {
                ASSERT_LT(d, 1e-6) << f.trackerId;
            }
            for (size_t k = 0; k < f.points.size(); ++k) {
                ASSERT_GE(f.points[k].z(), o.depthNear);
                ASSERT_LE(f.points[k].z(), o.depthFar);
                ASSERT_NEAR(f.normals[k].norm(), 1.0, 1e-9);
            }
            for (const auto& h : f.holes) {
                const auto& truth = s->truth().holes[static_cast<size_t>(h.id)];
                EXPECT_LT((sim::applyTransferInverse(m, h.centre) - truth.centre).norm(), 1e-9);
                EXPECT_NEAR((rotationOf(m).transpose() * h.direction - truth.direction).norm(), 0,
                            1e-12);
                for (const auto& e : h.edge) {
                    EXPECT_NEAR((sim::applyTransferInverse(m, e) - truth.centre).norm(),
                                truth.radius, 1e-9);
                }
                ++holes;
            }
        }
    }
    EXPECT_EQ(observers.size(), 2u);
    EXPECT_GT(markers, 2000u);
    EXPECT_GT(holes, 5u);
    EXPECT_GT(invalid, 0u);
    EXPECT_LT(invalid, markers / 2);
    // Left alone, frames come from the tracker that sees the scanner best, and both get turns.
    std::set<int> chosen;
    sim::FrameRequest rq;
    for (int i = 0; i < 6000; i += 20) {
        rq.previousTracker = frameOf(*s, i, rq).tracker;
        chosen.insert(rq.previousTracker);
    }
    EXPECT_TRUE(chosen.count(0) && chosen.count(1));
}

TEST(SimScene, SameSeedSameFramesAndTruthFilesReadBack) {
    sim::SceneOptions o;
    o.trackers = 2;
    o.seed = 77;
    auto a = makeScene(o), b = makeScene(o);
    o.seed = 78;
    auto c = makeScene(o);
    EXPECT_EQ(a->describeJson(), b->describeJson());
    bool differs = false;
    for (size_t k = 0; k < a->truth().markers.size(); ++k) {
        ASSERT_EQ(a->truth().markers[k].position, b->truth().markers[k].position);
        differs = differs || a->truth().markers[k].position != c->truth().markers[k].position;
    }
    EXPECT_TRUE(differs);
    sim::FrameRequest rq;
    rq.holes = rq.edges = true;
    const sim::ScanFrame f1 = frameOf(*a, 321, rq);
    frameOf(*b, 5, rq);  // generating another frame first changes nothing
    const sim::ScanFrame f2 = frameOf(*b, 321, rq);
    EXPECT_TRUE(sameBytes(f1.points, f2.points));
    EXPECT_EQ(0, std::memcmp(f1.rotation, f2.rotation, sizeof f1.rotation));
    ASSERT_EQ(f1.markers.size(), f2.markers.size());
    for (size_t k = 0; k < f1.markers.size(); ++k) {
        EXPECT_EQ(f1.markers[k].centre, f2.markers[k].centre);
    }

    const std::string dir = ::testing::TempDir() + "/sim_truth_" + std::to_string(::getpid());
    std::string error;
    ASSERT_TRUE(a->exportTruth(dir, &error)) << error;
    sim::Truth t;
    ASSERT_TRUE(sim::loadTruth(dir, t, &error)) << error;
    EXPECT_EQ(t.part.triangles.size(), a->truth().part.triangles.size());
    ASSERT_EQ(t.markers.size(), a->truth().markers.size());
    for (size_t k = 0; k < t.markers.size(); ++k) {
        EXPECT_EQ(t.markers[k].position, a->truth().markers[k].position);
        EXPECT_EQ(t.markers[k].diameter, a->truth().markers[k].diameter);
    }
    EXPECT_EQ(t.transfer, a->truth().transfer);
    EXPECT_EQ(t.holes.size(), a->truth().holes.size());
    // The exported mesh is the scene's mesh: a scene loaded from it with the exported markers
    // gives the same laser points.
    sim::SceneOptions fromFiles = a->options();
    fromFiles.meshPath = dir + "/part.ply";
    fromFiles.markersPath = dir + "/markers.txt";
    rq.holes = false;
    EXPECT_TRUE(
        sameBytes(frameOf(*makeScene(fromFiles), 321, rq).points, frameOf(*a, 321, rq).points));

    // Bad files are refused with a reason.
    const auto write = [&](const std::string& name, const std::string& bytes) {
        std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
        return dir + "/" + name;
    };
    std::vector<sim::TruthMarker> ms;
    EXPECT_FALSE(sim::loadMarkers(write("bad.txt", "1 0 0 0 0 0 0 6\n"), ms, &error));
    EXPECT_NE(error.find(":1:"), std::string::npos);
    std::vector<std::pair<std::string, Matrix16>> cascade;
    EXPECT_FALSE(sim::readCascade(write("cut.bin", std::string("\x02\0\0\0TRK", 7)), cascade));
    sim::TriangleMesh mesh;
    EXPECT_FALSE(
        sim::loadMesh(write("bad.ply", "ply\nformat ascii 1.0\nelement vertex 1\n"), mesh));
    EXPECT_FALSE(sim::loadMesh(dir + "/none.obj", mesh));
    EXPECT_FALSE(sim::loadMesh(write("far.obj", "v 0 0 0\nv 1 0 0\nf 1 2 3\n"), mesh, &error));
    EXPECT_NE(error.find("names vertex 2"), std::string::npos) << error;
    // OBJ: a quad with texture and normal indices, one corner counted from the end.
    ASSERT_TRUE(sim::loadMesh(write("quad.obj",
                                    "# quad\nv 0 0 0\nv 10 0 0\nv 10 10 0\nv 0 10 0\nvn 0 0 1\n"
                                    "f 1//1 2//1 3/1/1 -1\n"),
                              mesh, &error))
        << error;
    ASSERT_EQ(mesh.triangles.size(), 2u);
    EXPECT_EQ(mesh.triangles[1], Eigen::Vector3i(0, 2, 3));
    std::filesystem::remove_all(dir);
}

TEST(SimScene, DynamicTrackingAndMarkerModelFrames) {
    // The part sways: in dynamic tracking the pose maps the laser onto the part directly (no
    // transfer matrix) while the tracker sees the markers move; the scanner's own view holds
    // only markers near its axis.
    sim::SceneOptions o = noiseless();
    o.motion = "sway";
    o.motionMm = 40;
    o.motionDeg = 5;
    o.motionPeriodS = 4;
    auto s = makeScene(o);
    sim::MeshDistance md(s->truth().part);
    const Matrix16 identity =
        sim::transferFromMotion(Eigen::Matrix3d::Identity(), Eigen::Vector3d::Zero());
    double moved = 0;
    size_t viewed = 0;
    for (int i = 0; i < 2400; i += 120) {
        sim::FrameRequest rq;
        rq.dynamic = true;
        const sim::ScanFrame f = frameOf(*s, i, rq);
        ASSERT_TRUE(f.scannerSeen);
        for (const auto& p : f.points) {
            ASSERT_LT(md.distance(toPart(f, identity, p)), 1e-6);
        }
        const Matrix16& m = s->truth().transfer.at(f.trackerId);
        for (const auto& k : f.markers) {
            const auto& t = s->truth().markers[static_cast<size_t>(k.id)];
            moved = std::max(moved, (sim::applyTransferInverse(m, k.centre) - t.position).norm());
        }
        // Marker model building: the markers in the scanner's view, in the tracker's frame.
        rq.dynamic = rq.laser = false;
        rq.scannerMarkers = true;
        const sim::ScanFrame v = frameOf(*s, i, rq);
        EXPECT_TRUE(v.points.empty());
        EXPECT_LT(v.markers.size(), f.markers.size());
        for (const auto& k : v.markers) {
            const Eigen::Vector3d inS = v.truePose.inverse().apply(k.centre);
            EXPECT_GT(inS.z(), 0.8 * o.depthNear);
            EXPECT_LT(inS.z(), 1.1 * o.depthFar);
        }
        viewed += v.markers.size();
    }
    EXPECT_GT(moved, 10.0) << "the part moves under the tracker";
    EXPECT_GT(viewed, 20u * 3);
}

// Every laser point of an artefact cycle lies on the artefact its frame looks at (spheres
// exact, not their triangles), and the scanner stays trackable.
TEST(ArtefactScene, EveryLaserPointLiesOnItsArtefactAndTheScannerStaysTracked) {
    auto scene = makeScene(noiseless(true));
    const sim::ArtefactSet a = sim::artefactSet();
    ASSERT_EQ(scene->artefactCycle(), 17 * 8);
    EXPECT_GE(scene->truth().markers.size(), 90u);
    std::vector<size_t> onSphere(a.spheres.size(), 0);
    size_t onPlane = 0;
    const sim::ArtefactPlane& pl = a.planes[0];
    for (int i = 0; i < scene->artefactCycle(); ++i) {
        const sim::ScanFrame f = frameOf(*scene, i);
        ASSERT_TRUE(f.scannerSeen) << "frame " << i;
        ASSERT_GE(f.markers.size(), 4u) << "frame " << i;
        for (const Eigen::Vector3d& x : f.points) {
            const Eigen::Vector3d p = toPart(f, scene->truth().transfer.at(f.trackerId), x);
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

// The truth lists the layout. (What a tracker's scale error or a turned laser changes is measured
// end to end by the acceptance test, tests/apps/VerifyTest.cpp.)
TEST(ArtefactScene, TheTruthListsTheLayout) {
    auto scene = makeScene(noiseless(true));
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
}

}  // namespace
