// The laser and marker transforms to the bit, on the path PATHFINDER_SIMD forces (CTest runs
// this program once per path, tests/device/CMakeLists.txt): bit patterns from an independent
// evaluation of the summation orders, and long random lists against that evaluation, so that
// every point of every block size (eight, four, one) and of the marker buffer's passes counts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>

#include "ScanSimd.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"

namespace device {

struct CPathfinderScanAccess {
    static void laser(std::vector<float>& p, const double* M, bool col) {
        CPathfinder::TransformScanData_Laser(p, M, col);
    }
    static void marks(std::vector<double>& p, const double* M, bool col) {
        CPathfinder::TransformScanData_MarkPoint(p, M, col);
    }
};

}  // namespace device

namespace {

using A = device::CPathfinderScanAccess;

uint32_t bitsOf(float v) {
    uint32_t b;
    std::memcpy(&b, &v, sizeof(b));
    return b;
}
uint64_t bitsOf(double v) {
    uint64_t b;
    std::memcpy(&b, &v, sizeof(b));
    return b;
}

// A stored transfer matrix with an exact orthonormal block and an awkward translation.
const double kM[16] = {0.36, 0.48, -0.8, 0, -0.8, 0.6,   0,     0,
                       0.48, 0.64, 0.6,  0, 12.5, -7.25, 301.1, 1};
const double kI[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// One point by the definition, each sum left to right (this file is compiled without
// contraction, like the module).
void reference(const double* in, const double* M, bool col, double* out) {
    const double x = in[0], y = in[1], z = in[2];
    if (col) {
        out[0] = y * M[1] + x * M[0] + z * M[2] + M[12];
        out[1] = y * M[5] + x * M[4] + z * M[6] + M[13];
        out[2] = y * M[9] + x * M[8] + z * M[10] + M[14];
    } else {
        out[0] = y * M[4] + x * M[0] + z * M[8] + M[12];
        out[1] = x * M[1] + y * M[5] + z * M[9] + M[13];
        out[2] = x * M[2] + y * M[6] + z * M[10] + M[14];
    }
}

TEST(ScanKernels, TheForcedPathIsTheOneThatRunsWhereTheProcessorHasIt) {
    std::string wanted;
    if (!platform::getEnvironment("PATHFINDER_SIMD", wanted)) {
        GTEST_SKIP() << "PATHFINDER_SIMD not set";
    }
    const std::string ran = device::detail::simdPathName(device::detail::simdPath());
    bool has = wanted == "scalar" || wanted == "sse2";
#if defined(__x86_64__)
    has = has || (wanted == "avx2" && __builtin_cpu_supports("avx2")) ||
          (wanted == "avx512" && __builtin_cpu_supports("avx512f"));
#endif
    if (has) {
        EXPECT_EQ(ran, wanted);
    } else {
        EXPECT_NE(ran, wanted);  // a narrower path, with one line on standard output
    }
}

// The exact bit patterns of a transformed point list in both readings; the list has a trailing
// value that becomes 0.
TEST(ScanKernels, LaserAndMarkerListsMatchTheirBitPatternsInBothReadings) {
    const std::vector<float> input = {1.1f,   2.2f,      3.3f,  -100.123f, 45.6f,
                                      0.001f, 123456.7f, -0.5f, 7.77f,     9.9f};
    const uint32_t column[9] = {0x4134fdf4, 0xc0d9eb85, 0x4398820c, 0xbfd41b3c, 0x42c86ab3,
                                0x438d1cdf, 0x472da275, 0xc7c0ea75, 0x4768aca9};
    const uint32_t row[9] = {0x414b851f, 0xc0528f5c, 0x4397199a, 0xc270185f, 0xc1df9653,
                             0x43be9979, 0x472dad0b, 0x476778a4, 0xc7c04dcd};
    // Markers: inputs and results pass through float; the last 29 mantissa bits are zero.
    const std::vector<double> marks = {0.1, 2.2, 3.3, -100.123, 45.6, 0.001};
    const uint64_t mcol[6] = {0x4025e76c80000000u, 0xc0180a3d60000000u, 0x4073089380000000u,
                              0xbffa836780000000u, 0x40590d5660000000u, 0x4071a39be0000000u};
    const uint64_t mrow[6] = {0x4028b851e0000000u, 0xc00e28f5c0000000u, 0x4072f00000000000u,
                              0xc04e030be0000000u, 0xc03bf2ca60000000u, 0x4077d32f20000000u};
    // 263 points = 32 blocks of eight, one of four and three single points for the laser; for
    // the markers a full buffer pass of 256 points and a second of 7.
    const size_t n = 263;
    for (bool col : {true, false}) {
        std::vector<float> pts;
        std::vector<double> mpts;
        for (size_t i = 0; i < n; ++i) {
            pts.insert(pts.end(), &input[3 * (i % 3)], &input[3 * (i % 3)] + 3);
            mpts.insert(mpts.end(), &marks[3 * (i % 2)], &marks[3 * (i % 2)] + 3);
        }
        pts.push_back(input[9]);
        mpts.push_back(5.0);
        A::laser(pts, kM, col);
        A::marks(mpts, kM, col);
        for (size_t i = 0; i < 3 * n; ++i) {
            ASSERT_EQ(bitsOf(pts[i]), col ? column[i % 9] : row[i % 9])
                << (col ? "column " : "row ") << i;
            ASSERT_EQ(bitsOf(mpts[i]), col ? mcol[i % 6] : mrow[i % 6])
                << (col ? "column " : "row ") << i;
        }
        EXPECT_EQ(pts.back(), 0.0f);
        EXPECT_EQ(mpts.back(), 0.0);
    }
    std::vector<float> empty;
    A::laser(empty, kM, true);
    EXPECT_TRUE(empty.empty());
    std::vector<float> four = {1, 2, 3, 4};
    A::laser(four, kI, false);
    EXPECT_EQ(four, (std::vector<float>{1, 2, 3, 0}));
    std::vector<double> tenth = {0.1, 0.2, 0.3, 5.0};
    A::marks(tenth, kI, true);
    EXPECT_EQ(tenth, (std::vector<double>{static_cast<double>(0.1f), static_cast<double>(0.2f),
                                          static_cast<double>(0.3f), 0.0}));
}

// Every point different, over magnitudes from 1e-3 to 1e5, so that a point taken from the wrong
// lane or written to the wrong place cannot hide behind a repeated value.
TEST(ScanKernels, RandomListsEqualTheDefinitionPointByPoint) {
    std::mt19937 rng(23);
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-3, 5);
    const size_t n = 1000 + 7;
    std::vector<float> laser(3 * n);
    std::vector<double> marks(3 * n);
    for (size_t i = 0; i < 3 * n; ++i) {
        marks[i] = mantissa(rng) * std::pow(10.0, exponent(rng));
        laser[i] = static_cast<float>(marks[i]);
    }
    for (bool col : {true, false}) {
        std::vector<float> pts = laser;
        std::vector<double> mpts = marks;
        A::laser(pts, kM, col);
        A::marks(mpts, kM, col);
        for (size_t i = 0; i < n; ++i) {
            const double in[3] = {laser[3 * i], laser[3 * i + 1], laser[3 * i + 2]};
            double out[3];
            reference(in, kM, col, out);
            for (int k = 0; k < 3; ++k) {
                ASSERT_EQ(bitsOf(pts[3 * i + k]), bitsOf(static_cast<float>(out[k])))
                    << (col ? "column " : "row ") << i << " " << k;
                ASSERT_EQ(bitsOf(mpts[3 * i + k]),
                          bitsOf(static_cast<double>(static_cast<float>(out[k]))))
                    << (col ? "column " : "row ") << i << " " << k;
            }
        }
    }
}

}  // namespace
