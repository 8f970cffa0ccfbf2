// Frames of the physical scene seen through the SDK, checked against the truth the console
// exports: laser points, markers and holes of frames from two trackers land on the part with
// the trackers' true matrices; a tracker triggered alone reports its markers; the export flag
// and the control line write the same truth. (The scene's own frames, the same for the same
// seed, are tested in tests/sim.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "ScriptedConsole.h"
#include "sim/Truth.h"

using namespace SDK_NV;
using namespace sdktest;

namespace {

std::vector<const CMessage_ScanData*> scanFrames(Session& s, size_t from = 0) {
    std::vector<const CMessage_ScanData*> out;
    const auto v = s.recorder.snapshot();
    for (size_t i = from; i < v.size(); ++i) {
        if (v[i]->getType() == MSG_SCANDATA) {
            out.push_back(static_cast<const CMessage_ScanData*>(v[i]));
        }
    }
    return out;
}

// Streams with the trigger naming `ids` until `count` frames arrived; the frames.
std::vector<const CMessage_ScanData*> stream(Session& s, const std::vector<std::string>& ids,
                                             size_t count) {
    const size_t from = s.recorder.size();
    EXPECT_TRUE(s.wrapper.setTrigger(true, ids));
    EXPECT_TRUE(eventually([&] { return scanFrames(s, from).size() >= count; }));
    const size_t offAt = s.recorder.size();
    EXPECT_TRUE(s.wrapper.setTrigger(false, {}));
    EXPECT_GE(s.recorder.waitIndex(offAt, isResponse(2)), 0);
    return scanFrames(s, from);
}

Eigen::Vector3d toTracker(const tagScanData& f, const float* x) {
    Eigen::Vector3d k;
    for (int c = 0; c < 3; ++c) {
        k[c] = x[0] * f.m_dRotation[c] + x[1] * f.m_dRotation[3 + c] + x[2] * f.m_dRotation[6 + c] +
               f.m_dTranslation[c];
    }
    return k;
}

}  // namespace

class SceneConsole : public ::testing::Test {
protected:
    void SetUp() override { platform::setTimeScale(0.01); }
};

TEST_F(SceneConsole, FramesOfTwoTrackersLandOnTheExportedTruth) {
    const std::string dir = ::testing::TempDir() + "/scene_truth_" + std::to_string(::getpid());
    const std::vector<std::string> flags = {"--trackers", "2",    "--noise", "off",
                                            "--speed",    "3000", "--seed",  "4"};
    Session s;
    std::vector<std::string> args = {"--fps", "400", "--heartbeat-ms", "0"};
    args.insert(args.end(), flags.begin(), flags.end());
    ASSERT_NO_FATAL_FAILURE(s.connect(args, 3));
    ASSERT_TRUE(s.console.control("scene export " + dir));
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(dir + "/scene.json"); }));
    sim::Truth truth;
    std::string error;
    ASSERT_TRUE(eventually([&] { return sim::loadTruth(dir, truth, &error); })) << error;
    ASSERT_EQ(truth.transfer.size(), 2u);
    sim::MeshDistance md(truth.part);

    // The export flag writes the same truth without a server.
    const std::string dir2 = dir + "_cli";
    std::string cmd = std::string(LUMORA_CONSOLE_PATH) + " --export-truth " + dir2;
    for (const auto& f : flags)
        cmd += " " + f;
    ASSERT_EQ(std::system((cmd + " > /dev/null").c_str()), 0);
    for (const char* file : {"/part.ply", "/markers.txt", "/cascade.bin", "/scene.json"}) {
        EXPECT_EQ(readFile(dir + file), readFile(dir2 + file)) << file;
    }

    ASSERT_TRUE(s.wrapper.setStartScan(SCAN_HOLE));
    ASSERT_TRUE(s.wrapper.SetTrackerMarkPointDiameter(std::vector<float>(200, 7.5f)));
    std::set<std::string> seen;
    size_t points = 0, markers = 0, holes = 0;
    for (const std::string tracker : {"TRK0001", "TRK0002"}) {
        for (const CMessage_ScanData* m : stream(s, {"SCN0001", tracker}, 40)) {
            const tagScanData& f = *m->getScanData();
            ASSERT_EQ(f.m_strTrackerId, tracker);
            const sim::Matrix16& M = truth.transfer.at(f.m_strTrackerId);
            for (size_t i = 0; i < f.laserPointCount(); ++i) {
                const Eigen::Vector3d w =
                    sim::applyTransferInverse(M, toTracker(f, &f.m_vecLaserPoints[3 * i]));
                // Laser points travel as floats: about 1e-5 mm at 300 mm.
                ASSERT_LT(md.distance(w), 2e-4) << tracker << " point " << i;
            }
            points += f.laserPointCount();
            for (size_t i = 0; i < f.markerCount(); ++i) {
                const Eigen::Vector3d k(&f.m_vecMarkerCenters[3 * i]);
                const auto& t = truth.markers.at(static_cast<size_t>(f.m_vecMarkerIds[i]));
                ASSERT_LT((sim::applyTransferInverse(M, k) - t.position).norm(), 1e-6);
                EXPECT_EQ(f.m_vecMarkerDiameters[i], 7.5);
            }
            markers += f.markerCount();
            for (const tagHoleData& h : f.m_vecHoles) {
                const Eigen::Vector3d c(h.fCenter[0], h.fCenter[1], h.fCenter[2]);
                const auto& t = truth.holes.at(static_cast<size_t>(h.nId));
                EXPECT_LT((sim::applyTransferInverse(M, c) - t.centre).norm(), 1e-3);
                EXPECT_EQ(h.vecEdgePoints.size(), 72u);
                ++holes;
            }
            if (f.laserPointCount() > 0)
                seen.insert(tracker);
        }
    }
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_GT(points, 80 * 3000u);
    EXPECT_GT(markers, 80 * 20u);
    EXPECT_GT(holes, 0u);

    // Transfer measurement: a tracker triggered alone reports the markers it sees, no laser.
    for (const CMessage_ScanData* m : stream(s, {"TRK0002"}, 20)) {
        const tagScanData& f = *m->getScanData();
        EXPECT_EQ(f.m_strTrackerId, "TRK0002");
        EXPECT_EQ(f.laserPointCount(), 0u);
        EXPECT_GE(f.markerCount(), 20u);
        const sim::Matrix16& M = truth.transfer.at("TRK0002");
        for (size_t i = 0; i < f.markerCount(); ++i) {
            const Eigen::Vector3d k(&f.m_vecMarkerCenters[3 * i]);
            const auto& t = truth.markers.at(static_cast<size_t>(f.m_vecMarkerIds[i]));
            ASSERT_LT((sim::applyTransferInverse(M, k) - t.position).norm(), 1e-6);
        }
    }
    std::filesystem::remove_all(dir);
    std::filesystem::remove_all(dir2);
}
