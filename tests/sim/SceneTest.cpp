// The physical scene checked against its own truth: laser points, markers and holes mapped
// with the frame's pose and the tracker's true transfer matrix land on the part; chained
// trackers agree; the same seed gives the same frames; the truth files read back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cstring>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

std::unique_ptr<sim::Scene> makeScene(sim::SceneOptions o) {
    std::string error;
    auto s = sim::Scene::create(o, &error);
    EXPECT_TRUE(s) << error;
    return s;
}

sim::SceneOptions noiseless() {
    sim::SceneOptions o;
    o.laserNoise = o.poseNoiseMm = o.poseNoiseDeg = o.markerNoise = 0;
    o.laserNormalNoiseDeg = 0;
    return o;
}

// Frame `index` of two scenes that differ only in their noise: the same rays and hits.
void sameFrame(const sim::Scene& exact, const sim::Scene& noisy, int index, sim::ScanFrame& fe,
               sim::ScanFrame& fn) {
    sim::FrameRequest rq;
    rq.index = index;
    exact.frame(rq, fe);
    noisy.frame(rq, fn);
}

// Distances of a frame's laser points to the part, through the true matrix of its tracker.
std::vector<double> laserDistances(const sim::Scene& s, const sim::MeshDistance& md,
                                   const sim::ScanFrame& f) {
    std::vector<double> d;
    const Matrix16& m = s.truth().transfer.at(f.trackerId);
    for (const auto& p : f.points) {
        d.push_back(md.distance(toPart(f, m, p)));
    }
    return d;
}

}  // namespace

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
            if (o.id != m.id) {
                EXPECT_GE((o.position - m.position).norm(), 20.0);
            }
        }
    }
    EXPECT_EQ(ids.size(), 100u);
    // The distance query agrees with a plain search over the triangles.
    sim::Rng rng(5);
    for (int i = 0; i < 200; ++i) {
        const Eigen::Vector3d p(rng.uniform(-350, 350), rng.uniform(-250, 250),
                                rng.uniform(-50, 100));
        double best = 1e300;
        for (size_t k = 0; k < t.part.triangles.size(); ++k) {
            const auto& tri = t.part.triangles[k];
            best = std::min(best,
                            (sim::closestPointOnTriangle(p, t.part.vertices[tri[0]].cast<double>(),
                                                         t.part.vertices[tri[1]].cast<double>(),
                                                         t.part.vertices[tri[2]].cast<double>()) -
                             p)
                                .norm());
        }
        EXPECT_NEAR(md.distance(p), best, 1e-9);
    }
    // The true matrices are rigid and place the part in front of each tracker.
    auto s3 = makeScene([] {
        sim::SceneOptions o;
        o.trackers = 3;
        return o;
    }());
    ASSERT_EQ(s3->truth().transfer.size(), 3u);
    for (const auto& [id, m] : s3->truth().transfer) {
        Eigen::Matrix3d B;
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                B(r, c) = m[4 * r + c];
        EXPECT_NEAR((B * B.transpose() - Eigen::Matrix3d::Identity()).norm(), 0, 1e-12) << id;
        EXPECT_NEAR(B.determinant(), 1.0, 1e-12) << id;
        EXPECT_GT(sim::applyTransfer(m, Eigen::Vector3d::Zero()).z(), 2500.0) << id;
    }
}

TEST(SimScene, LaserPointsLieOnThePartExactlyWithoutNoiseAndWithinThreeSigmaWithIt) {
    auto exact = makeScene(noiseless());
    auto noisy = makeScene(sim::SceneOptions());
    sim::MeshDistance md(exact->truth().part);
    size_t total = 0;
    double worstExact = 0, sumSq = 0;
    size_t count = 0, outside = 0;
    const sim::SceneOptions& o = noisy->options();
    // The pose noise moves points too: 0.001 degree at 300 mm is 0.005 mm.
    const double sigma = std::sqrt(o.laserNoise * o.laserNoise + o.poseNoiseMm * o.poseNoiseMm +
                                   std::pow(o.poseNoiseDeg * M_PI / 180 * 450, 2));
    for (int i = 0; i < 3000; i += 150) {
        sim::ScanFrame fe, fn;
        sameFrame(*exact, *noisy, i, fe, fn);
        ASSERT_TRUE(fe.scannerSeen) << i;
        EXPECT_GT(fe.points.size(), 1000u) << i;
        EXPECT_EQ(fe.points.size(), fn.points.size());
        EXPECT_EQ(fe.lines.size(), 7u);
        for (double d : laserDistances(*exact, md, fe))
            worstExact = std::max(worstExact, d);
        for (double d : laserDistances(*noisy, md, fn)) {
            sumSq += d * d;
            ++count;
            outside += d > 3 * sigma;
        }
        for (size_t k = 0; k < fe.points.size(); ++k) {
            ASSERT_GE(fe.points[k].z(), o.depthNear);
            ASSERT_LE(fe.points[k].z(), o.depthFar);
            ASSERT_NEAR(fe.normals[k].norm(), 1.0, 1e-9);
        }
        total += fe.points.size();
    }
    EXPECT_LT(worstExact, 1e-6);
    // Distances to the surface are one-sided views of the noise normal to it: the RMS is about
    // sigma and points beyond 3 sigma are rare.
    EXPECT_GT(total, 20 * 5000u);
    EXPECT_NEAR(std::sqrt(sumSq / count), sigma, 0.25 * sigma);
    EXPECT_LT(static_cast<double>(outside) / count, 0.01);
}

// The noise of a frame against the same frame without it (the rays and hits are the same):
// position noise of the set level per coordinate, Gaussian in shape and uncorrelated between
// coordinates; normals tilted by the set angle per axis; noiseless points on their line's plane.
// A second thread gets the same frame.
TEST(SimScene, LaserNoiseHasTheSetLevelsAndAGaussianShape) {
    sim::SceneOptions quiet = noiseless();
    auto exact = makeScene(quiet);
    sim::SceneOptions o = quiet;
    o.laserNoise = 0.02;
    o.laserNormalNoiseDeg = 0.5;
    auto noisy = makeScene(o);
    double sum = 0, sumSq = 0, sumXY = 0, worst = 0, angleSq = 0, worstPlane = 0;
    size_t n = 0, beyond2 = 0, normals = 0;
    for (int i = 0; i < 2400; i += 200) {
        sim::ScanFrame fe, fn;
        sameFrame(*exact, *noisy, i, fe, fn);
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
            ++normals;
            ASSERT_NEAR(fn.normals[k].norm(), 1.0, 1e-12);
        }
        for (const sim::LaserLineInfo& l : fe.lines) {
            for (int k = l.firstPoint; k < l.firstPoint + l.pointCount; ++k) {
                const Eigen::Vector3d& p = fe.points[static_cast<size_t>(k)];
                worstPlane = std::max(worstPlane, std::fabs(l.plane.head<3>().dot(p) + l.plane[3]));
            }
        }
        if (i == 1200) {
            sim::FrameRequest rq;
            rq.index = i;
            sim::ScanFrame other;
            std::thread([&] { noisy->frame(rq, other); }).join();
            ASSERT_EQ(other.points.size(), fn.points.size());
            EXPECT_EQ(0, std::memcmp(other.points.data(), fn.points.data(), fn.points.size() * 24));
            EXPECT_EQ(0,
                      std::memcmp(other.normals.data(), fn.normals.data(), fn.normals.size() * 24));
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
    EXPECT_NEAR(std::sqrt(angleSq / normals), o.laserNormalNoiseDeg * std::sqrt(2.0), 0.02);
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
            rq.index = i;
            rq.holes = true;
            rq.tracker = tr;
            sim::ScanFrame f;
            s->frame(rq, f);
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
            for (double d : laserDistances(*s, md, f))
                ASSERT_LT(d, 1e-6) << f.trackerId;
            for (const auto& h : f.holes) {
                const auto& truth = s->truth().holes[static_cast<size_t>(h.id)];
                EXPECT_LT((sim::applyTransferInverse(m, h.centre) - truth.centre).norm(), 1e-9);
                Eigen::Matrix3d B;
                for (int r = 0; r < 3; ++r)
                    for (int c = 0; c < 3; ++c)
                        B(r, c) = m[4 * r + c];
                EXPECT_NEAR((B.transpose() * h.direction - truth.direction).norm(), 0, 1e-12);
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
    int previous = -1;
    for (int i = 0; i < 6000; i += 20) {
        sim::FrameRequest rq;
        rq.index = i;
        rq.previousTracker = previous;
        sim::ScanFrame f;
        s->frame(rq, f);
        chosen.insert(f.tracker);
        previous = f.tracker;
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
    rq.index = 321;
    rq.holes = rq.edges = true;
    sim::ScanFrame f1, f2, f3;
    a->frame(rq, f1);
    sim::FrameRequest other = rq;
    other.index = 5;
    b->frame(other, f3);  // generating another frame first changes nothing
    b->frame(rq, f2);
    ASSERT_EQ(f1.points.size(), f2.points.size());
    EXPECT_EQ(0, std::memcmp(f1.points.data(), f2.points.data(), f1.points.size() * 24));
    EXPECT_EQ(0, std::memcmp(f1.rotation, f2.rotation, sizeof f1.rotation));
    ASSERT_EQ(f1.markers.size(), f2.markers.size());
    for (size_t k = 0; k < f1.markers.size(); ++k)
        EXPECT_EQ(f1.markers[k].centre, f2.markers[k].centre);

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
    auto d = makeScene(fromFiles);
    sim::ScanFrame f4;
    rq.holes = false;
    a->frame(rq, f1);
    d->frame(rq, f4);
    ASSERT_EQ(f4.points.size(), f1.points.size());
    EXPECT_EQ(0, std::memcmp(f1.points.data(), f4.points.data(), f1.points.size() * 24));

    // Bad files are refused with a reason.
    { std::ofstream(dir + "/bad.txt") << "1 0 0 0 0 0 0 6\n"; }
    std::vector<sim::TruthMarker> ms;
    EXPECT_FALSE(sim::loadMarkers(dir + "/bad.txt", ms, &error));
    EXPECT_NE(error.find(":1:"), std::string::npos);
    { std::ofstream(dir + "/cut.bin", std::ios::binary) << std::string("\x02\0\0\0TRK", 7); }
    std::vector<std::pair<std::string, Matrix16>> cascade;
    EXPECT_FALSE(sim::readCascade(dir + "/cut.bin", cascade, &error));
    { std::ofstream(dir + "/bad.ply") << "ply\nformat ascii 1.0\nelement vertex 1\n"; }
    sim::TriangleMesh mesh;
    EXPECT_FALSE(sim::loadMesh(dir + "/bad.ply", mesh, &error));
    EXPECT_FALSE(sim::loadMesh(dir + "/none.obj", mesh, &error));
    // OBJ: a quad with texture and normal indices, one corner counted from the end.
    {
        std::ofstream(dir + "/quad.obj")
            << "# quad\nv 0 0 0\nv 10 0 0\nv 10 10 0\nv 0 10 0\nvn 0 0 1\nf 1//1 2//1 3/1/1 -1\n";
    }
    ASSERT_TRUE(sim::loadMesh(dir + "/quad.obj", mesh, &error)) << error;
    ASSERT_EQ(mesh.triangles.size(), 2u);
    EXPECT_EQ(mesh.triangles[1], Eigen::Vector3i(0, 2, 3));
    { std::ofstream(dir + "/far.obj") << "v 0 0 0\nv 1 0 0\nf 1 2 3\n"; }
    EXPECT_FALSE(sim::loadMesh(dir + "/far.obj", mesh, &error));
    EXPECT_NE(error.find("names vertex 2"), std::string::npos) << error;
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
    const sim::Matrix16 identity =
        sim::transferFromMotion(Eigen::Matrix3d::Identity(), Eigen::Vector3d::Zero());
    double moved = 0;
    size_t viewed = 0;
    for (int i = 0; i < 2400; i += 120) {
        sim::FrameRequest rq;
        rq.index = i;
        rq.dynamic = true;
        sim::ScanFrame f;
        s->frame(rq, f);
        ASSERT_TRUE(f.scannerSeen);
        for (const auto& p : f.points)
            ASSERT_LT(md.distance(toPart(f, identity, p)), 1e-6);
        const sim::Matrix16& m = s->truth().transfer.at(f.trackerId);
        for (const auto& k : f.markers) {
            const auto& t = s->truth().markers[static_cast<size_t>(k.id)];
            moved = std::max(moved, (sim::applyTransferInverse(m, k.centre) - t.position).norm());
        }
        // Marker model building: the markers in the scanner's view, in the tracker's frame.
        rq.dynamic = false;
        rq.laser = false;
        rq.scannerMarkers = true;
        sim::ScanFrame v;
        s->frame(rq, v);
        EXPECT_TRUE(v.points.empty());
        EXPECT_LT(v.markers.size(), f.markers.size());
        const sim::Pose kToS = v.truePose.inverse();
        for (const auto& k : v.markers) {
            const Eigen::Vector3d inS = kToS.apply(k.centre);
            EXPECT_GT(inS.z(), 0.8 * o.depthNear);
            EXPECT_LT(inS.z(), 1.1 * o.depthFar);
        }
        viewed += v.markers.size();
    }
    EXPECT_GT(moved, 10.0) << "the part moves under the tracker";
    EXPECT_GT(viewed, 20u * 3);
}
