// End to end, host side only: the module loaded, a console playing the physical scene, the
// delivered poses followed, and the result measured against the console's truth files, at the
// noise's own bounds. (Marker models built by dynamic tracking are measured against the truth
// through the host tool, tests/apps: HostCli.MarkersBuildsAModelWithinTheRegistrationAccuracy.)
#include <gtest/gtest.h>

#include <cmath>

#include "DeviceTestSupport.h"
#include "platform/Platform.h"
#include "sim/Truth.h"

namespace {

using namespace device;

// Noise of the default scene: laser 0.02 mm per coordinate, pose 0.01 mm and 0.001 degrees
// per axis (the rotation at the 450 mm far end of the depth of field).
const double kSigma =
    std::sqrt(0.02 * 0.02 + 0.01 * 0.01 + std::pow(0.001 * M_PI / 180.0 * 450.0, 2));

class EndToEnd : public devtest::WithConsole {
protected:
    // Starts a console playing the scene with frames of the scene's own size, connects, and
    // reads the truth the console exports on its control line.
    void start(const std::vector<std::string>& scene) {
        std::vector<std::string> args = {"--points", "14000"};
        args.insert(args.end(), scene.begin(), scene.end());
        ASSERT_NO_FATAL_FAILURE(connect(args));
        truthDir = annex + "/truth";
        control("scene export " + truthDir);
        ASSERT_TRUE(console->saw("truth written to " + truthDir));
        std::string error;
        ASSERT_TRUE(sim::loadTruth(truthDir, truth, &error)) << error;
        surface = std::make_unique<sim::MeshDistance>(truth.part);
    }
    std::wstring wide(const std::string& s) const { return std::wstring(s.begin(), s.end()); }
    // RMS distance of the points to the part.
    double rms(const std::vector<Eigen::Vector3d>& points) const {
        double sum2 = 0;
        for (const auto& p : points) {
            sum2 += std::pow(surface->distance(p), 2);
        }
        return std::sqrt(sum2 / static_cast<double>(std::max<size_t>(1, points.size())));
    }

    // Laser points of the frames mapped by their delivered poses (row vectors).
    static std::vector<Eigen::Vector3d> reconstruct(const std::vector<devtest::Frame>& got) {
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

    std::string truthDir;
    sim::Truth truth;
    std::unique_ptr<sim::MeshDistance> surface;
};

// One tracker with the true cascade file: laser points land on the part within the noise and
// hole centres on the true holes; without the table the frames stay in the tracker's frame.
// Super conversion with an empty table: the supplied matrix alone re-expresses the pose.
TEST_F(EndToEnd, OneTrackerWithTheTrueMatricesPutsPointsAndHolesOnThePart) {
    ASSERT_NO_FATAL_FAILURE(start({"--seed", "3"}));
    ASSERT_FALSE(truth.holes.empty());
    ASSERT_EQ(device->importCascadeFile(wide(truthDir + "/cascade.bin")), RESULT_SUCCESS);
    ASSERT_EQ(device->setWorkingDevice({"SCN0001", "TRK0001"}), RESULT_SUCCESS);
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    const auto points = reconstruct(scan(30));
    ASSERT_GT(points.size(), 10000u);
    const auto within = std::count_if(points.begin(), points.end(), [&](const auto& p) {
        return surface->distance(p) <= 3 * kSigma;
    });
    EXPECT_LE(rms(points), 1.2 * kSigma) << "sigma " << kSigma;
    EXPECT_GE(static_cast<double>(within) / static_cast<double>(points.size()), 0.99);

    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_METAL_HOLE, false), RESULT_SUCCESS);
    size_t holes = 0;
    for (const auto& d : scan(200)) {
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

    ASSERT_EQ(device->emptyTransferMatrix(), RESULT_SUCCESS);
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    EXPECT_GT(surface->distance(reconstruct(scan(3)).at(0)), 10.0);
    const sim::Matrix16& m = truth.transfer.at("TRK0001");
    ASSERT_EQ(device->setSuperConversionScanMatrix(std::vector<double>(m.begin(), m.end())),
              RESULT_SUCCESS);
    ASSERT_EQ(device->startSuperConversionScanObject(true), RESULT_SUCCESS);
    const auto converted = reconstruct(scan(10));
    ASSERT_GT(converted.size(), 1000u);
    EXPECT_LE(rms(converted), 1.2 * kSigma);
    const std::vector<double> identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    ASSERT_EQ(device->setSuperConversionScanMatrix(identity), RESULT_SUCCESS);
    EXPECT_GT(surface->distance(reconstruct(scan(3)).at(0)), 10.0);
    ASSERT_EQ(device->startSuperConversionScanObject(false), RESULT_SUCCESS);
}

// Two chained trackers measured with getTransferMatrix against the true marker set (static
// tracking of each tracker's frames): the matrices match the truth, and scans seen by either
// tracker land on the part.
TEST_F(EndToEnd, TwoTrackersMeasuredWithTheReferenceMarkersMatchTheTruth) {
    // Each tracker's poll window is 202 x 20 ms at scale 1; the measurement ends as soon as a
    // tracker's frames are in, so the full window costs only where frames come slowly (the
    // sanitizer builds).
    platform::setTimeScale(1.0);
    ASSERT_NO_FATAL_FAILURE(start({"--seed", "5", "--trackers", "2"}));
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
    // A scan seen by either tracker lands on the part within the noise: an error of its matrix
    // would add to that. (Two such scans of an overlapping strip then lie within about their
    // two noise levels of each other, along the surface normal.)
    ASSERT_EQ(device->setScanObject(SCAN_OBJECT_SURFACE, false), RESULT_SUCCESS);
    for (const char* tracker : {"TRK0001", "TRK0002"}) {
        ASSERT_EQ(device->setWorkingDevice({"SCN0001", tracker}), RESULT_SUCCESS);
        const auto cloud = reconstruct(scan(10));
        ASSERT_GT(cloud.size(), 1000u) << tracker;
        EXPECT_LE(rms(cloud), 1.5 * kSigma) << tracker;
    }
}

}  // namespace
