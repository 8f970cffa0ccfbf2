// End to end, host side only: the module loaded, a console playing the physical scene, the
// delivered poses followed, and the result measured against the console's truth files.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <mutex>
#include <unordered_map>

#include <Eigen/Geometry>

#include "ConsoleProcess.h"
#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sdk/Wire.h"
#include "sim/Truth.h"

namespace {

using namespace device;
using devtest::waitFor;

// Noise of the default scene: laser 0.02 mm per coordinate, pose 0.01 mm and 0.001 degrees
// per axis (the rotation at the 450 mm far end of the depth of field).
const double kSigma =
    std::sqrt(0.02 * 0.02 + 0.01 * 0.01 + std::pow(0.001 * M_PI / 180.0 * 450.0, 2));

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        truthDir = annex + "/truth";
    }
    void TearDown() override {
        device.reset();
        console.reset();
        std::filesystem::remove_all(annex);
    }

    // Exports the truth of the scene, then starts a console playing it and connects.
    void start(const std::vector<std::string>& scene) {
        std::string cmd = std::string(LUMORA_CONSOLE_PATH) + " --export-truth " + truthDir;
        for (const std::string& s : scene) {
            cmd += " " + s;
        }
        ASSERT_EQ(std::system((cmd + " > /dev/null").c_str()), 0) << cmd;
        std::string error;
        ASSERT_TRUE(sim::loadTruth(truthDir, truth, &error)) << error;
        std::vector<std::string> args = {"--heartbeat-ms", "0", "--fps", "200"};
        args.insert(args.end(), scene.begin(), scene.end());
        console = std::make_unique<sdktest::ConsoleProcess>();
        ASSERT_TRUE(console->start(args, 0));
        ::setenv(SDK_NV::wire::kEndpointEnv, console->endpoint().c_str(), 1);
        device = std::make_unique<devtest::TestDevice>(std::make_shared<devtest::Recorder>());
        tagDeviceHandlers h = device->getHandlers();
        h.onDeviceData = [this](const std::shared_ptr<tagDeviceData>& d, const char*, int) {
            std::lock_guard<std::mutex> lock(mutex);
            frames.push_back(d);
        };
        device->setHandlers(h);
        ASSERT_EQ(device->init(), RESULT_SUCCESS);
    }
    // Scans until `n` frames arrived; returns them.
    std::vector<std::shared_ptr<tagDeviceData>> scan(size_t n) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            frames.clear();
        }
        EXPECT_EQ(device->controlLaserOn(), RESULT_SUCCESS);
        EXPECT_TRUE(waitFor(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                return frames.size() >= n;
            },
            20000));
        EXPECT_EQ(device->controlLaserOff(), RESULT_SUCCESS);
        std::lock_guard<std::mutex> lock(mutex);
        return frames;
    }
    std::wstring wide(const std::string& s) const { return std::wstring(s.begin(), s.end()); }

    // Laser points of the frames mapped by their delivered poses (row vectors).
    static std::vector<Eigen::Vector3d> reconstruct(
        const std::vector<std::shared_ptr<tagDeviceData>>& got) {
        std::vector<Eigen::Vector3d> out;
        for (const auto& d : got) {
            const auto& p = d->laserPoints;
            for (size_t i = 0; i + 2 < p.size(); i += 3) {
                Eigen::Vector3d q;
                for (int c = 0; c < 3; ++c) {
                    q[c] = p[i] * d->rotation[c] + p[i + 1] * d->rotation[3 + c] +
                           p[i + 2] * d->rotation[6 + c] + d->translation[c];
                }
                out.push_back(q);
            }
        }
        return out;
    }

    // RMS separation of two reconstructions of the same surface, along the true surface
    // normal: each sampled point of `a` is paired with the point of `b` nearest to it sideways
    // (within 0.5 mm, along the face; choosing by the full distance would favour pairs whose
    // noise happens to agree) that lies on the same face of the part (edges are left out,
    // where a sideways offset is not a separation). `pairs` receives how many were measured.
    static double separation(const std::vector<Eigen::Vector3d>& a,
                             const std::vector<Eigen::Vector3d>& b, const sim::TriangleMesh& part,
                             const sim::MeshDistance& surface, size_t& pairs) {
        const double cell = 0.5;
        const auto key = [cell](const Eigen::Vector3d& p, int dx, int dy, int dz) {
            const int64_t x = static_cast<int64_t>(std::floor(p.x() / cell)) + dx;
            const int64_t y = static_cast<int64_t>(std::floor(p.y() / cell)) + dy;
            const int64_t z = static_cast<int64_t>(std::floor(p.z() / cell)) + dz;
            return (x * 73856093) ^ (y * 19349663) ^ (z * 83492791);
        };
        std::unordered_multimap<int64_t, size_t> grid;
        for (size_t i = 0; i < b.size(); ++i) {
            grid.emplace(key(b[i], 0, 0, 0), i);
        }
        double sum2 = 0;
        pairs = 0;
        for (size_t i = 0; i < a.size(); i += 5) {
            const Eigen::Vector3d& p = a[i];
            int tp = -1;
            surface.closest(p, &tp);
            if (tp < 0) {
                continue;
            }
            const Eigen::Vector3d n = part.normal(static_cast<size_t>(tp));
            double best = cell * cell;
            const Eigen::Vector3d* q = nullptr;
            for (int d = 0; d < 27; ++d) {
                const auto range = grid.equal_range(key(p, d % 3 - 1, d / 3 % 3 - 1, d / 9 - 1));
                for (auto it = range.first; it != range.second; ++it) {
                    const Eigen::Vector3d gap = b[it->second] - p;
                    const double sideways2 = (gap - n * n.dot(gap)).squaredNorm();
                    if (sideways2 < best && std::abs(n.dot(gap)) < cell) {
                        best = sideways2;
                        q = &b[it->second];
                    }
                }
            }
            int tq = -1;
            if (q == nullptr || (surface.closest(*q, &tq), tq < 0) ||
                n.dot(part.normal(static_cast<size_t>(tq))) < 0.9999) {
                continue;
            }
            sum2 += std::pow(n.dot(p - *q), 2);
            ++pairs;
        }
        return pairs == 0 ? 0.0 : std::sqrt(sum2 / static_cast<double>(pairs));
    }

    std::string annex, truthDir;
    sim::Truth truth;
    std::unique_ptr<sdktest::ConsoleProcess> console;
    std::unique_ptr<devtest::TestDevice> device;
    std::mutex mutex;
    std::vector<std::shared_ptr<tagDeviceData>> frames;
};

TEST_F(EndToEnd, OneTrackerWithTheTrueCascadePutsTheLaserPointsOnThePart) {
    ASSERT_NO_FATAL_FAILURE(start({"--seed", "7"}));
    ASSERT_EQ(device->importCascadeFile(wide(truthDir + "/cascade.bin")), RESULT_SUCCESS);
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001"}), RESULT_SUCCESS);
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    const auto got = scan(30);
    const auto points = reconstruct(got);
    ASSERT_GT(points.size(), 10000u);
    sim::MeshDistance distance(truth.part);
    size_t within = 0;
    double sum2 = 0;
    for (const auto& p : points) {
        const double d = distance.distance(p);
        sum2 += d * d;
        within += d <= 3 * kSigma ? 1 : 0;
    }
    const double rms = std::sqrt(sum2 / static_cast<double>(points.size()));
    EXPECT_LE(rms, 1.2 * kSigma) << "sigma " << kSigma;
    EXPECT_GE(static_cast<double>(within) / static_cast<double>(points.size()), 0.99);
    // Without the table the same frames stay in the tracker's frame, far from the part.
    EXPECT_EQ(device->emptyTransferMatrix(), RESULT_SUCCESS);
    const auto raw = reconstruct(scan(3));
    ASSERT_FALSE(raw.empty());
    EXPECT_GT(distance.distance(raw.front()), 10.0);
}

TEST_F(EndToEnd, HoleCentresAndSuperConversionFollowTheTruth) {
    ASSERT_NO_FATAL_FAILURE(start({"--seed", "3"}));
    ASSERT_FALSE(truth.holes.empty());
    ASSERT_EQ(device->importCascadeFile(wide(truthDir + "/cascade.bin")), RESULT_SUCCESS);
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001"}), RESULT_SUCCESS);
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_METAL_HOLE, false), RESULT_SUCCESS);
    const auto got = scan(200);
    size_t holes = 0;
    for (const auto& d : got) {
        EXPECT_EQ(d->poseMode, 3);
        for (const tagScanHoleData& h : d->scanHoles) {
            const Eigen::Vector3d c(h.center[0], h.center[1], h.center[2]);
            double best = 1e9;
            for (const sim::TruthHole& t : truth.holes) {
                best = std::min(best, (c - t.centre).norm());
            }
            EXPECT_LE(best, 3 * kSigma) << "hole at " << c.transpose();
            ++holes;
        }
    }
    EXPECT_GT(holes, 0u);

    // Super conversion with an empty table: the supplied matrix alone re-expresses the pose.
    // Given the tracker's true matrix, the laser points land on the part; given the identity,
    // they stay in the tracker's frame.
    ASSERT_EQ(device->emptyTransferMatrix(), RESULT_SUCCESS);
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    const sim::Matrix16& m = truth.transfer.at("TRK0001");
    ASSERT_EQ(device->setSuperConversionScanMatrix(std::vector<double>(m.begin(), m.end())),
              RESULT_SUCCESS);
    ASSERT_EQ(device->startSuperConversionScanObject(true), RESULT_SUCCESS);
    const auto conv = reconstruct(scan(10));
    ASSERT_GT(conv.size(), 1000u);
    sim::MeshDistance distance(truth.part);
    double sum2 = 0;
    for (const auto& p : conv) {
        sum2 += std::pow(distance.distance(p), 2);
    }
    EXPECT_LE(std::sqrt(sum2 / static_cast<double>(conv.size())), 1.2 * kSigma);
    const std::vector<double> identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    ASSERT_EQ(device->setSuperConversionScanMatrix(identity), RESULT_SUCCESS);
    const auto raw = reconstruct(scan(3));
    ASSERT_FALSE(raw.empty());
    EXPECT_GT(distance.distance(raw.front()), 10.0);
    ASSERT_EQ(device->startSuperConversionScanObject(false), RESULT_SUCCESS);
}

// Two chained trackers measured with getTransferMatrix against the true marker set: the
// matrices match the truth, and scans seen by either tracker land on the part.
TEST_F(EndToEnd, TwoTrackersMeasuredWithTheReferenceMarkersMatchTheTruth) {
    // Each tracker's poll window is 202 x 20 ms at scale 1; the measurement ends as soon as a
    // tracker's frames are in, so the full window costs only where frames come slowly (the
    // sanitizer builds).
    // A slow sweep without the hand's tilt: the two scans below see nearly the same strip
    // however many frames a slow machine lets pass between them, so they overlap.
    platform::setTimeScale(1.0);
    ASSERT_NO_FATAL_FAILURE(
        start({"--seed", "5", "--trackers", "2", "--speed", "5", "--tilt-deg", "0"}));
    tagMarkpointList list;
    for (const sim::TruthMarker& m : truth.markers) {
        tagMarkpoint p;
        p.label = m.id;
        for (int k = 0; k < 3; ++k) {
            p.position[k] = static_cast<float>(m.position[k]);
            p.normal[k] = static_cast<float>(m.normal[k]);
        }
        p.value = static_cast<float>(m.diameter);
        list.points.push_back(p);
    }
    ASSERT_EQ(device->setMarkpoint(list, true), RESULT_SUCCESS);
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001", "TRK0002"}), RESULT_SUCCESS);
    testing::internal::CaptureStdout();
    const emDeviceResult r = device->getTransferMatrix();
    testing::internal::GetCapturedStdout();
    platform::setTimeScale(0.01);
    ASSERT_EQ(r, RESULT_SUCCESS);
    const auto measured = device->transferMatrices();
    ASSERT_EQ(measured.size(), 2u);
    for (const TransformTrackingMatrix& m : measured) {
        const sim::Matrix16& t = truth.transfer.at(m.id);
        Eigen::Matrix3d B, Bt;
        for (int i = 0; i < 9; ++i) {
            B(i / 3, i % 3) = m.matrix[4 * (i / 3) + i % 3];
            Bt(i / 3, i % 3) = t[static_cast<size_t>(4 * (i / 3) + i % 3)];
        }
        const Eigen::Vector3d dT(m.matrix[12] - t[12], m.matrix[13] - t[13], m.matrix[14] - t[14]);
        const double angle =
            std::acos(std::min(1.0, ((B * Bt.transpose()).trace() - 1) / 2)) * 180.0 / M_PI;
        EXPECT_LE(dT.norm(), 0.05) << m.id;
        EXPECT_LE(angle, 0.005) << m.id;
    }
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    sim::MeshDistance distance(truth.part);
    std::vector<std::vector<Eigen::Vector3d>> clouds;
    for (const char* tracker : {"TRK0001", "TRK0002"}) {
        ASSERT_EQ(device->setWorkingDevice({"SCN0001", tracker}), RESULT_SUCCESS);
        clouds.push_back(reconstruct(scan(10)));
        const auto& points = clouds.back();
        ASSERT_GT(points.size(), 1000u) << tracker;
        double sum2 = 0;
        for (const auto& p : points) {
            sum2 += std::pow(distance.distance(p), 2);
        }
        EXPECT_LE(std::sqrt(sum2 / static_cast<double>(points.size())), 1.5 * kSigma) << tracker;
    }
    // The two reconstructions of the overlapping strip agree with each other: two independent
    // noisy samplings are about sqrt(2) sigma apart along the normal, an error in either
    // matrix adds to that.
    size_t pairs = 0;
    const double apart = separation(clouds[0], clouds[1], truth.part, distance, pairs);
    EXPECT_GE(pairs, 2000u) << "the two scans hardly overlap";
    EXPECT_LE(apart, 2 * kSigma) << pairs << " pairs";
}

// Dynamic marker model building: frames of a marker scan grow the library while the laser is
// on; the optimised library holds the part's markers (in the tracker's frame, where the frames
// give them) and the library is empty afterwards.
TEST_F(EndToEnd, DynamicMarkerModelHoldsThePartsMarkers) {
    ASSERT_NO_FATAL_FAILURE(start({"--seed", "9"}));
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001"}), RESULT_SUCCESS);
    ASSERT_EQ(device->setDynamicTracking(SCAN_OBJECT_MARKPOINT), RESULT_SUCCESS);
    const auto got = scan(150);
    const sim::Matrix16& m = truth.transfer.at("TRK0001");
    std::vector<Eigen::Vector3d> trueK;
    for (const sim::TruthMarker& t : truth.markers) {
        trueK.push_back(sim::applyTransfer(m, t.position));
    }
    const auto nearestTrue = [&trueK](const Eigen::Vector3d& p) {
        size_t best = 0;
        for (size_t k = 1; k < trueK.size(); ++k) {
            if ((p - trueK[k]).squaredNorm() < (p - trueK[best]).squaredNorm()) {
                best = k;
            }
        }
        return best;
    };
    // Observations per marker: each frame delivers the markers it added to the library, in
    // the library's frame (the tracker's, where the markers stand still).
    std::vector<size_t> observed(trueK.size(), 0);
    size_t withModel = 0;
    for (const auto& d : got) {
        withModel += d->markerIds.empty() ? 0 : 1;
        for (size_t i = 0; i + 2 < d->markerPoints.size(); i += 3) {
            const Eigen::Vector3d p(d->markerPoints[i], d->markerPoints[i + 1],
                                    d->markerPoints[i + 2]);
            const size_t k = nearestTrue(p);
            observed[k] += (p - trueK[k]).norm() <= 0.5 ? 1 : 0;
        }
    }
    EXPECT_GT(withModel, 0u);
    EXPECT_GT(device->buildModelResult(), 0);

    tagRefMarkpointData model;
    ASSERT_EQ(device->GetOptimizationMarkpoint(model), RESULT_SUCCESS);
    ASSERT_GE(model.size(), 10u);
    // Pair each model marker with its nearest true marker, then compare after the best rigid
    // fit: a marker model is defined up to the frame it is built in.
    Eigen::Matrix3Xd src(3, static_cast<Eigen::Index>(model.size()));
    Eigen::Matrix3Xd dst(3, static_cast<Eigen::Index>(model.size()));
    std::vector<size_t> views(model.size());
    for (size_t i = 0; i < model.size(); ++i) {
        const Eigen::Vector3d p(model.positions[3 * i], model.positions[3 * i + 1],
                                model.positions[3 * i + 2]);
        const size_t best = nearestTrue(p);
        ASSERT_LE((p - trueK[best]).norm(), 0.1) << "model marker " << i;
        src.col(static_cast<Eigen::Index>(i)) = p;
        dst.col(static_cast<Eigen::Index>(i)) = trueK[best];
        views[i] = observed[best];
        ASSERT_GT(views[i], 0u) << "model marker " << i << " was never delivered";
    }
    const Eigen::Matrix4d fit = Eigen::umeyama(src, dst, false);
    const Eigen::Matrix3Xd moved =
        (fit.topLeftCorner<3, 3>() * src).colwise() + fit.topRightCorner<3, 1>();
    // Marker noise 0.005 mm per coordinate: a marker seen k times is good to about
    // sigma / sqrt(k). Each residual is scaled by sqrt(k) of its marker, and the scaled RMS
    // must stay within 1.3 sigma.
    const double sigma = 0.005 * std::sqrt(3.0);
    double scaled2 = 0;
    size_t minViews = views.front(), maxViews = views.front();
    for (size_t i = 0; i < model.size(); ++i) {
        const double r2 =
            (moved.col(static_cast<Eigen::Index>(i)) - dst.col(static_cast<Eigen::Index>(i)))
                .squaredNorm();
        scaled2 += r2 * static_cast<double>(views[i]);
        minViews = std::min(minViews, views[i]);
        maxViews = std::max(maxViews, views[i]);
    }
    EXPECT_LE(std::sqrt(scaled2 / static_cast<double>(model.size())), 1.3 * sigma)
        << model.size() << " markers seen " << minViews << " to " << maxViews << " times";
    tagRefMarkpointData again;
    EXPECT_EQ(device->GetOptimizationMarkpoint(again), RESULT_FAILED);  // emptied by the fetch
    EXPECT_TRUE(again.empty());
}

}  // namespace
