// The scan pipeline without a console: matrix and point routines against values computed by
// hand (bit patterns from an independent evaluation of the same summation orders), the cascade
// file, and the frame handler fed with frames built here.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>

#include "DeviceTestSupport.h"
#include "device/CascadeFile.h"
#include "platform/Platform.h"
#include "sdk/Records.h"

namespace device {

// White-box access to the private routines and state of the scan pipeline.
struct CPathfinderScanAccess {
    static void reverse(double* in, double* out, bool t, bool row) {
        CPathfinder::getReverseTransferMatrix(in, out, t, row);
    }
    static void transpose(double* in, double* out) {
        CPathfinder::getTransposeRotateMatrix(in, out);
    }
    static void poseRT(const double* M, const double (*Rin)[3], const double* tin,
                       double (*Rout)[3], double* tout) {
        CPathfinder::getTransfromRT(M, Rin, tin, Rout, tout);
    }
    static void laser(std::vector<float>& p, const double* M, bool col) {
        CPathfinder::TransformScanData_Laser(p, M, col);
    }
    static void marks(std::vector<double>& p, const double* M, bool col) {
        CPathfinder::TransformScanData_MarkPoint(p, M, col);
    }
    static void holes(const std::vector<SDK_NV::tagHoleData>& h, double* pose, bool t,
                      const double* M, std::vector<tagScanHoleData>& out) {
        CPathfinder::TransformScanData_Hole(h, pose, t, M, out);
    }
    static void get(CPathfinder& d, const std::string& id, double* M, double* Rev) {
        d.Scan_TransferMatrix_Get(id, M, Rev);
    }
    static void update(CPathfinder& d, const std::string& id, const double* M) {
        d.Scan_TransferMatrix_Update(id, M);
    }
    static void frame(CPathfinder& d, SDK_NV::tagScanData& f) { d.CallBack_ScanData(&f, true); }
    static void threePoint(CPathfinder& d, SDK_NV::tagScanData& f) { d.ScanInThreePointTrack(f); }
    static void setModes(CPathfinder& d, bool object, int marker, bool hole, bool dynamic) {
        d.m_bObjectScan.store(object);
        d.m_bMarkerObject.store(marker);
        d.m_bHoleObject.store(hole);
        d.m_bDynamicTracking.store(dynamic);
    }
    static void setSuper(CPathfinder& d, bool on) { d.m_bSuperConversion.store(on); }
};

}  // namespace device

namespace {

using device::CPathfinderScanAccess;
using A = device::CPathfinderScanAccess;

uint64_t bitsOf(double v) {
    uint64_t b;
    std::memcpy(&b, &v, sizeof(b));
    return b;
}

// A stored transfer matrix with an exact orthonormal block and an awkward translation.
const double kM[16] = {0.36, 0.48, -0.8, 0, -0.8, 0.6,   0,     0,
                       0.48, 0.64, 0.6,  0, 12.5, -7.25, 301.1, 1};
const double kI[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

TEST(ScanMatrix, ReverseTransposeAndPoseRoutinesFollowTheirSummationOrders) {
    // (true, false) of a matrix whose block is R^T, translation T: block R, translation -(T.R).
    double in[16], out[16];
    A::transpose(const_cast<double*>(kM), in);
    EXPECT_EQ(in[1], kM[4]);
    EXPECT_EQ(in[8], kM[2]);
    EXPECT_EQ(in[12], kM[12]);  // translation and last row copied
    EXPECT_EQ(in[15], 1.0);
    A::reverse(in, out, true, false);
    for (int k = 0; k < 11; ++k) {
        EXPECT_EQ(out[k], (k % 4 == 3) ? 0.0 : kM[k]) << k;
    }
    // -(0.36*12.5) - (-0.8*-7.25) - 0.48*301.1 and so on, left to right.
    EXPECT_EQ(bitsOf(out[12]), 0xc0635a7ef9db22d1u);
    EXPECT_EQ(bitsOf(out[13]), 0xc0684b53f7ced917u);
    EXPECT_EQ(bitsOf(out[14]), 0xc065551eb851eb85u);
    EXPECT_EQ(out[15], 1.0);
    // Row translation: out T[r] = -(B'(r,.) . T), here with the untransposed block.
    A::reverse(const_cast<double*>(kM), out, false, true);
    EXPECT_DOUBLE_EQ(out[12], -(0.36 * 12.5) - 0.48 * -7.25 - -0.8 * 301.1);
    EXPECT_DOUBLE_EQ(out[13], -(-0.8 * 12.5) - 0.6 * -7.25 - 0.0 * 301.1);

    // getTransfromRT: identity leaves the pose; otherwise Rout = Rin.A and tout = tin.A - T.A.
    const double Rin[3][3] = {{0.1, 0.7, 0.3}, {-0.9, 0.2, 0.4}, {0.05, -0.6, 0.8}};
    const double tin[3] = {100.1, -200.2, 300.3};
    double Rout[3][3], tout[3];
    A::poseRT(kI, Rin, tin, Rout, tout);
    EXPECT_EQ(0, std::memcmp(Rout, Rin, sizeof(Rin)));
    EXPECT_EQ(0, std::memcmp(tout, tin, sizeof(tin)));
    A::poseRT(kM, Rin, tin, Rout, tout);
    const uint64_t R[9] = {0xbfd851eb851eb850u, 0x3fe51eb851eb851eu, 0x3fb9999999999998u,
                           0xbfd2b020c49ba5e4u, 0xbfacac083126e978u, 0x3feeb851eb851eb9u,
                           0x3fec395810624dd3u, 0x3fc6872b020c49bcu, 0x3fdc28f5c28f5c28u};
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(bitsOf(Rout[i / 3][i % 3]), R[i]) << i;
    }
    // tin.A - T.A differs in its last bits from (tin - T).A: the order is pinned.
    EXPECT_EQ(bitsOf(tout[0]), 0x406730624dd2f1abu);
    EXPECT_EQ(bitsOf(tout[1]), 0xc0528ef9db22d0e6u);
    EXPECT_EQ(bitsOf(tout[2]), 0xc051a3d70a3d70a3u);
}

TEST(ScanMatrix, TableGetGivesIdentityDiagonalForUnknownTrackersAndTheReverseOtherwise) {
    devtest::makeTempAnnex();
    device::CPathfinder dev;
    double M[16], Rev[16];
    for (double& v : M) {
        v = 7.0;
    }
    A::get(dev, "nobody", M, Rev);
    for (int k = 0; k < 16; ++k) {
        EXPECT_EQ(M[k], k % 5 == 0 ? 1.0 : 7.0) << k;  // only the diagonal is set
        EXPECT_EQ(Rev[k], M[k]) << k;
    }
    A::update(dev, "T1", kM);
    double again[16] = {0};
    A::update(dev, "T1", kI);  // overwritten in place
    A::update(dev, "T1", kM);
    A::get(dev, "T1", again, Rev);
    EXPECT_EQ(0, std::memcmp(again, kM, sizeof(kM)));
    for (int k = 0; k < 11; ++k) {
        EXPECT_EQ(Rev[k], kM[k]) << k;
    }
    EXPECT_EQ(bitsOf(Rev[12]), 0xc0635a7ef9db22d1u);
    EXPECT_EQ(bitsOf(Rev[14]), 0xc065551eb851eb85u);
    // Reverse maps B.p + T back to p (row reading of Rev).
    const double p[3] = {10, -20, 30};
    double q[3], back[3];
    for (int r = 0; r < 3; ++r) {
        q[r] = kM[4 * r] * p[0] + kM[4 * r + 1] * p[1] + kM[4 * r + 2] * p[2] + kM[12 + r];
    }
    for (int c = 0; c < 3; ++c) {
        back[c] = q[0] * Rev[c] + q[1] * Rev[4 + c] + q[2] * Rev[8 + c] + Rev[12 + c];
        EXPECT_NEAR(back[c], p[c], 1e-9);
    }
    EXPECT_EQ(dev.transferMatrices().size(), 1u);
    EXPECT_EQ(dev.emptyTransferMatrix(), device::RESULT_SUCCESS);
    EXPECT_TRUE(dev.transferMatrices().empty());
}

TEST(ScanPoints, RotationOnlyReadingsAreTransposesAndThreePointTrackKeepsDirectionsUntranslated) {
    double Rot[16];
    std::memcpy(Rot, kM, sizeof(Rot));
    Rot[12] = Rot[13] = Rot[14] = 0;
    double RotT[16];
    A::transpose(Rot, RotT);
    std::vector<float> a = {1.5f, -2.25f, 4.0f}, b = a;
    A::laser(a, Rot, true);
    A::laser(b, RotT, false);
    EXPECT_EQ(a, b);

    devtest::makeTempAnnex();
    device::CPathfinder dev;
    SDK_NV::tagScanData f;
    f.m_vecLaserPoints = {1, 2, 3};
    f.m_vecLaserNormals = {0, 0, 1};
    f.m_vecMarkerCenters = {1, 2, 3};
    f.m_vecMarkerNormals = {0, 0, 1};
    A::threePoint(dev, f);  // no super conversion: unchanged
    EXPECT_EQ(f.m_vecLaserPoints, (std::vector<float>{1, 2, 3}));
    dev.setSuperConversionScanMatrix(std::vector<double>(kM, kM + 16));
    A::setSuper(dev, true);
    A::threePoint(dev, f);
    // Row reading: (0,0,1).B = third block row; points add the translation.
    EXPECT_EQ(f.m_vecLaserNormals, (std::vector<float>{0.48f, 0.64f, 0.6f}));
    EXPECT_FLOAT_EQ(f.m_vecLaserPoints[0], 1 * 0.36f + 2 * -0.8f + 3 * 0.48f + 12.5f);
    EXPECT_DOUBLE_EQ(f.m_vecMarkerNormals[2], static_cast<double>(0.6f));
    EXPECT_NEAR(f.m_vecMarkerCenters[2], -0.8 + 0 + 1.8 + 301.1, 1e-4);
}

TEST(ScanPoints, HoleTransformFiltersByStateMapsPointsAndRewritesThePose) {
    SDK_NV::tagHoleData good;
    good.nState = 200;
    good.nType = 1;
    good.nId = 4;
    good.fCenter[0] = 1;
    good.fCenter[1] = 2;
    good.fCenter[2] = 3;
    good.fRadius = 2.5f;
    good.fWidth = 7;
    good.fDepth = 9;
    good.vecEdgePoints = {1, 0, 0, 0, 1, 0};
    SDK_NV::tagHoleData bad = good;
    bad.nState = 201;
    const std::vector<SDK_NV::tagHoleData> holes = {bad, good};

    const double frame[12] = {0, 1, 0, -1, 0, 0, 0, 0, 1, 5, 6, 7};
    double pose[12];
    std::memcpy(pose, frame, sizeof(pose));
    std::vector<device::tagScanHoleData> out(5);
    A::holes(holes, pose, false, kM, out);
    ASSERT_EQ(out.size(), 1u);  // replaced as a whole; state 201 dropped
    EXPECT_EQ(out[0].state, 200);
    EXPECT_EQ(out[0].type, 1);
    EXPECT_EQ(out[0].center[2], 3.0f);
    EXPECT_EQ(out[0].fitInfo, (std::vector<float>{4, 7, 0, 9}));
    EXPECT_EQ(out[0].edgePoints, good.vecEdgePoints);
    EXPECT_EQ(0, std::memcmp(pose, frame, sizeof(pose)));  // untouched without transform

    A::holes(holes, pose, true, kM, out);
    ASSERT_EQ(out.size(), 1u);
    // centre (1,2,3).B + T, direction (0,0,1).B, rim (1,0,0).B + T.
    EXPECT_FLOAT_EQ(out[0].center[0], static_cast<float>(0.36 - 1.6 + 1.44 + 12.5));
    EXPECT_FLOAT_EQ(out[0].center[2], static_cast<float>(-0.8 + 0 + 1.8 + 301.1));
    EXPECT_FLOAT_EQ(out[0].direction[1], 0.64f);
    EXPECT_FLOAT_EQ(out[0].edgePoints[0], static_cast<float>(0.36 + 12.5));
    EXPECT_FLOAT_EQ(out[0].edgePoints[4], static_cast<float>(0.6 - 7.25));
    // Pose rows times the block; translation times the block plus T.
    EXPECT_DOUBLE_EQ(pose[0], -0.8);  // row (0,1,0).B
    EXPECT_DOUBLE_EQ(pose[3], -0.36);
    EXPECT_DOUBLE_EQ(pose[8], 0.6);
    EXPECT_DOUBLE_EQ(pose[9], 5 * 0.36 + 6 * -0.8 + 7 * 0.48 + 12.5);
    EXPECT_DOUBLE_EQ(pose[11], 5 * -0.8 + 0 + 7 * 0.6 + 301.1);
}

// ---------------------------------------------------------------------------------------------
// Cascade files and the frame handler
// ---------------------------------------------------------------------------------------------

// A device of its own annex whose frames are kept.
class Pipeline : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        dev = std::make_unique<device::CPathfinder>();
        dev->setDeviceDataHandler([this](const devtest::Frame& d, const char*, int) { last = d; });
    }
    void TearDown() override {
        dev.reset();
        std::filesystem::remove_all(annex);
    }
    std::wstring pathOf(const std::string& name) const {
        return platform::widePath(annex + "/" + name);
    }
    void writeBytes(const std::string& name, const std::string& bytes) const {
        std::ofstream(annex + "/" + name, std::ios::binary) << bytes;
    }
    static std::string count(int32_t n) { return std::string(reinterpret_cast<char*>(&n), 4); }
    static SDK_NV::tagScanData frameOf(const std::string& tracker) {
        SDK_NV::tagScanData f;
        f.m_strTrackerId = tracker;
        const double R[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
        std::memcpy(f.m_dRotation, R, sizeof(R));
        f.m_dTranslation[0] = 5;
        f.m_dTranslation[1] = 6;
        f.m_dTranslation[2] = 7;
        return f;
    }

    std::string annex;
    std::unique_ptr<device::CPathfinder> dev;
    devtest::Frame last;
};

TEST_F(Pipeline, WrittenCascadeFilesImportBackAndRepeatedImportsKeepTheTable) {
    device::TransformTrackingMatrix a, b;
    a.id = "TRK-0001";
    std::memcpy(a.matrix, kM, sizeof(kM));
    b.id = "T2";
    b.matrix[13] = -42.5;
    ASSERT_TRUE(device::writeCascadeFile(pathOf("c.bin"), {a, b}));
    EXPECT_EQ(std::filesystem::file_size(annex + "/c.bin"), 4u + 2u * 148u);
    EXPECT_EQ(dev->importCascadeFile(pathOf("c.bin")), device::RESULT_SUCCESS);
    const auto table = dev->transferMatrices();
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].id, "T2");  // ordered by identifier
    EXPECT_EQ(table[0].matrix[13], -42.5);
    EXPECT_EQ(0, std::memcmp(table[1].matrix, kM, sizeof(kM)));
    EXPECT_EQ(dev->importCascadeFile(pathOf("c.bin")), device::RESULT_SUCCESS);
    EXPECT_EQ(dev->transferMatrices().size(), 2u);

    device::TransformTrackingMatrix longId;
    longId.id = std::string(20, 'x');
    EXPECT_FALSE(device::writeCascadeFile(pathOf("long.bin"), {longId}));
    EXPECT_FALSE(std::filesystem::exists(annex + "/long.bin"));
    EXPECT_EQ(dev->importCascadeFile(L""), device::RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(dev->importCascadeFile(pathOf("missing.bin")),
              device::RESULT_CASCADE_FILE_OPEN_FAILED);
}

TEST_F(Pipeline, BadCascadeFilesAreReadOnlyAsFarAsTheyGo) {
    // Count 0, negative, and a file too short for its count. Records of earlier imports in
    // this process are applied again by every import, so the table is compared with itself.
    writeBytes("zero.bin", count(0));
    writeBytes("neg.bin", count(-5) + std::string(148, 'A'));
    EXPECT_EQ(dev->importCascadeFile(pathOf("zero.bin")), device::RESULT_SUCCESS);
    const size_t before = dev->transferMatrices().size();
    EXPECT_EQ(dev->importCascadeFile(pathOf("neg.bin")), device::RESULT_SUCCESS);
    EXPECT_EQ(dev->transferMatrices().size(), before);

    // A count of 2^31-1 with one whole record and one cut inside its matrix: two records, the
    // second keeping identity elements where its bytes are missing.
    std::string id1(20, '\0'), id2(20, '\0');
    id1.replace(0, 4, "HUGE");
    id2.replace(0, 3, "CUT");
    const double first = 99.0;
    writeBytes("huge.bin", count(INT32_MAX) + id1 +
                               std::string(reinterpret_cast<const char*>(kM), sizeof(kM)) + id2 +
                               std::string(reinterpret_cast<const char*>(&first), 8) + "xyz");
    std::FILE* f = std::fopen((annex + "/huge.bin").c_str(), "rb");
    ASSERT_NE(f, nullptr);
    std::vector<device::TransformTrackingMatrix> got;
    EXPECT_EQ(device::readCascadeRecords(f, got), 2u);
    std::fclose(f);
    EXPECT_LE(got.capacity(), 2u);  // reserved by what the file holds, not by its count
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].id + " " + got[1].id, "HUGE CUT");
    EXPECT_EQ(std::vector<double>({got[1].matrix[0], got[1].matrix[5], got[1].matrix[13]}),
              std::vector<double>({99, 1, 0}));

    // An identifier without terminator takes all 20 bytes; a file that ends inside the
    // identifier still gives one record (zeros where bytes are missing).
    writeBytes("noterm.bin", count(3) + std::string(20, 'Z') + std::string(128, '\0') + "AB");
    EXPECT_EQ(dev->importCascadeFile(pathOf("noterm.bin")), device::RESULT_SUCCESS);
    const auto table = dev->transferMatrices();
    ASSERT_EQ(table.size(), before + 2);
    EXPECT_EQ(table.front().id, "AB");
    EXPECT_EQ(table.back().id, std::string(20, 'Z'));
    EXPECT_EQ(table[0].matrix[10], 1.0);  // nothing of its matrix was read
}

// Markers are filtered by their validity flags (a marker without one is not valid); dynamic
// tracking of objects takes the diameters from the table, identifiers beyond it keep theirs.
TEST_F(Pipeline, FramesKeepTheValidMarkersAndDynamicDiametersComeFromTheTable) {
    A::setModes(*dev, false, 1, false, false);
    SDK_NV::tagScanData f = frameOf("T1");
    f.m_vecMarkerIds = {3, 8, 9};
    f.m_vecMarkerCenters = {1, 1, 1, 2, 2, 2, 3, 3, 3};
    f.m_vecMarkerNormals = {0, 0, 1, 0, 0, 1, 0, 0, 1};
    f.m_vecMarkerDiameters = {6, 7, 8};
    f.m_vecMarkerValid = {1, 0};
    A::frame(*dev, f);
    ASSERT_TRUE(last);
    EXPECT_EQ(last->markerIds, (std::vector<int32_t>{3}));
    EXPECT_EQ(last->markerPoints, (std::vector<double>{1, 1, 1}));
    EXPECT_EQ(last->markerDiameters, (std::vector<double>{6}));
    f.m_vecMarkerValid = {0, 0, 0};
    A::frame(*dev, f);
    EXPECT_TRUE(last->markerIds.empty() && last->markerPoints.empty());

    A::setModes(*dev, true, 1, false, true);
    EXPECT_EQ(dev->setMarkpointDiameter({1, 1, 1, 4.5f}), device::RESULT_SUCCESS);
    f.m_vecMarkerValid = {1, 1, 1};
    f.m_vecMarkerIds = {3, -1, 900};
    A::frame(*dev, f);
    EXPECT_EQ(last->markerDiameters, (std::vector<double>{4.5, 7, 8}));
    EXPECT_EQ(last->poseMode, 2);
    EXPECT_EQ(last->rotation[1], 1.0);  // identity: the pose as the frame gave it
}

// A new matrix for the tracker of the last frame is not fetched until the tracker changes.
TEST_F(Pipeline, TheTrackerMatrixIsFetchedOncePerTrackerChange) {
    A::setModes(*dev, true, 0, false, false);
    A::update(*dev, "T1", kM);
    SDK_NV::tagScanData f1 = frameOf("T1"), f2 = frameOf("T2");
    A::frame(*dev, f1);
    double Rout[3][3], tout[3];
    const double Rin[3][3] = {{0, 1, 0}, {-1, 0, 0}, {0, 0, 1}};
    const double tin[3] = {5, 6, 7};
    A::poseRT(kM, Rin, tin, Rout, tout);
    EXPECT_EQ(0, std::memcmp(last->translation, tout, sizeof(tout)));
    A::update(*dev, "T1", kI);
    A::frame(*dev, f1);
    EXPECT_EQ(0, std::memcmp(last->translation, tout, sizeof(tout)));
    A::frame(*dev, f2);  // unknown: identity
    EXPECT_EQ(last->translation[0], 5.0);
    A::frame(*dev, f1);
    EXPECT_EQ(last->translation[0], 5.0);  // T1 now holds the identity
}

// The log line: "[Y-m-d H:M:S] <milliseconds since 1970> <text>", written only while the
// switch is on. The millisecond field is the wall clock of the call, not a second count.
TEST(ConsoleLog, LinesCarryTheMillisecondsOfTheWallClockAndFollowTheSwitch) {
    const bool was = device::getConsoleLog();
    const auto msNow = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    device::setConsoleLog(false);
    testing::internal::CaptureStdout();
    device::TWStdout("silent");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    device::setConsoleLog(true);
    testing::internal::CaptureStdout();
    const int64_t before = msNow();
    device::TWStdout("laser on");
    const int64_t after = msNow();
    const std::string line = testing::internal::GetCapturedStdout();
    device::setConsoleLog(was);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        line, m, std::regex(R"(\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\] (\d+) laser on\n)")))
        << line;
    const int64_t ms = std::stoll(m[2].str());
    EXPECT_GE(ms, before);
    EXPECT_LE(ms, after);
    // The bracketed stamp is the same instant in local time, to the second (the two are read
    // one after the other, so they may straddle a second).
    std::tm stamp{};
    std::istringstream(m[1].str()) >> std::get_time(&stamp, "%Y-%m-%d %H:%M:%S");
    stamp.tm_isdst = -1;
    EXPECT_LE(std::abs(static_cast<int64_t>(std::mktime(&stamp)) - ms / 1000), 1) << line;
}

}  // namespace
