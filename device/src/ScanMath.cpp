// Matrix and point routines of the scan pipeline.
//
// Every sum below is written out term by term in the order the results are defined by, and the
// module is compiled with -ffp-contract=off (device/CMakeLists.txt) so that no build type fuses
// a product and a sum into one rounding: results are bit-identical across build types.
//
// Layout of a 4x4 matrix M (16 doubles): block B(r,c) = M[4r+c], translation T = M[12..14].
// A stored transfer matrix is read on column vectors (p -> B.p + T), a reverse matrix and a
// pose on row vectors (x -> x.B + T).
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
// The AVX2 and AVX-512 kernels, compiled for their instruction sets function by function and
// run where the processor has them. GCC 12's AVX-512 intrinsics start some results from a
// deliberately undefined register, which its own flow analysis then reports as maybe
// uninitialised (at the header's lines, so the diagnostic is switched off for the header).
#if defined(__clang__)
#include <immintrin.h>
#else
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#endif
#define PATHFINDER_SCAN_X86 1
#endif

#include "ModuleState.h"
#include "ScanSimd.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/Records.h"

namespace device {

namespace {

// Forces a path of the laser and marker transforms (ScanSimd.h).
constexpr const char* kSimdEnv = "PATHFINDER_SIMD";

// Double -> float -> double. The narrowing is part of the result; the unit tests check its
// bit patterns in the release build, where the loops are vectorised.
inline double roundToFloat(double v) {
    return static_cast<double>(static_cast<float>(v));
}

}  // namespace

void CPathfinder::getReverseTransferMatrix(double* const in, double* const out, bool bTranspose,
                                           bool bRowTranslate) {
    double src[16];
    std::memcpy(src, in, sizeof(src));
    for (int i = 0; i < 16; ++i) {
        out[i] = 0.0;
    }
    out[15] = 1.0;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            out[4 * r + c] = bTranspose ? src[4 * c + r] : src[4 * r + c];
        }
    }
    const double t0 = src[12];
    const double t1 = src[13];
    const double t2 = src[14];
    for (int i = 0; i < 3; ++i) {
        if (bRowTranslate) {
            out[12 + i] = -(out[4 * i + 0] * t0) - out[4 * i + 1] * t1 - out[4 * i + 2] * t2;
        } else {
            out[12 + i] = -(out[0 + i] * t0) - out[4 + i] * t1 - out[8 + i] * t2;
        }
    }
}

void CPathfinder::getTransposeRotateMatrix(double* const in, double* const out) {
    double src[16];
    std::memcpy(src, in, sizeof(src));
    std::memcpy(out, src, sizeof(src));
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            out[4 * r + c] = src[4 * c + r];
        }
    }
}

void CPathfinder::getTransfromRT(const double* const M, const double (*Rin)[3],
                                 const double* const tin, double (*Rout)[3], double* const tout) {
    for (int i = 0; i < 3; ++i) {
        for (int c = 0; c < 3; ++c) {
            double s = 0.0;
            s = s + Rin[i][0] * M[0 + c];
            s = s + Rin[i][1] * M[4 + c];
            s = s + Rin[i][2] * M[8 + c];
            Rout[i][c] = s;
        }
    }
    for (int c = 0; c < 3; ++c) {
        const double u = M[12] * M[0 + c] + M[13] * M[4 + c] + M[14] * M[8 + c];
        const double v = tin[0] * M[0 + c] + tin[1] * M[4 + c] + tin[2] * M[8 + c];
        tout[c] = v - u;
    }
}

namespace {

// Coefficients of one laser transform: out_r = ((u a[r] + v b[r]) + z cz[r]) + t[r], with
// (u, v) = (y, x) where yFirst[r], else (x, y): the operands in the order of both readings.
struct LaserCoefficients {
    bool yFirst[3];
    double a[3], b[3], cz[3], t[3];
};

inline void transformLaserPoint(float* p, const LaserCoefficients& c) {
    const double x = p[0], y = p[1], z = p[2];
    for (int r = 0; r < 3; ++r) {
        const double u = c.yFirst[r] ? y : x;
        const double v = c.yFirst[r] ? x : y;
        p[r] = static_cast<float>(u * c.a[r] + v * c.b[r] + z * c.cz[r] + c.t[r]);
    }
}

#if defined(__SSE2__)
// Four points (12 floats) per step, two points per double vector: the same products and sums
// in the same order as one point at a time, only side by side.
size_t transformLaserSse2(float* p, size_t n, const LaserCoefficients& c) {
    __m128d a[3], b[3], cz[3], t[3];
    for (int r = 0; r < 3; ++r) {
        a[r] = _mm_set1_pd(c.a[r]);
        b[r] = _mm_set1_pd(c.b[r]);
        cz[r] = _mm_set1_pd(c.cz[r]);
        t[r] = _mm_set1_pd(c.t[r]);
    }
    const auto apply = [&](__m128d x, __m128d y, __m128d z, int r) {
        const __m128d u = c.yFirst[r] ? y : x;
        const __m128d v = c.yFirst[r] ? x : y;
        const __m128d s = _mm_add_pd(_mm_mul_pd(u, a[r]), _mm_mul_pd(v, b[r]));
        return _mm_add_pd(_mm_add_pd(s, _mm_mul_pd(z, cz[r])), t[r]);
    };
    const size_t blocks = n / 4;
    for (size_t b = 0; b < blocks; ++b) {
        float* q = p + 12 * b;
        const __m128 f0 = _mm_loadu_ps(q);                       // x0 y0 z0 x1
        const __m128 f1 = _mm_loadu_ps(q + 4);                   // y1 z1 x2 y2
        const __m128 f2 = _mm_loadu_ps(q + 8);                   // z2 x3 y3 z3
        const __m128d d0 = _mm_cvtps_pd(f0);                     // x0 y0
        const __m128d d1 = _mm_cvtps_pd(_mm_movehl_ps(f0, f0));  // z0 x1
        const __m128d d2 = _mm_cvtps_pd(f1);                     // y1 z1
        const __m128d d3 = _mm_cvtps_pd(_mm_movehl_ps(f1, f1));  // x2 y2
        const __m128d d4 = _mm_cvtps_pd(f2);                     // z2 x3
        const __m128d d5 = _mm_cvtps_pd(_mm_movehl_ps(f2, f2));  // y3 z3
        // Zeroed only to keep the sanitizer builds' flow analysis quiet; every lane is written.
        __m128 out[3] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
        for (int half = 0; half < 2; ++half) {
            const __m128d a = half == 0 ? d0 : d3;
            const __m128d m = half == 0 ? d1 : d4;
            const __m128d e = half == 0 ? d2 : d5;
            const __m128d x = _mm_shuffle_pd(a, m, 2);  // a[0] m[1]
            const __m128d y = _mm_shuffle_pd(a, e, 1);  // a[1] e[0]
            const __m128d z = _mm_shuffle_pd(m, e, 2);  // m[0] e[1]
            const __m128d xr = apply(x, y, z, 0);
            const __m128d yr = apply(x, y, z, 1);
            const __m128d zr = apply(x, y, z, 2);
            const __m128 lo = _mm_cvtpd_ps(_mm_unpacklo_pd(xr, yr));     // xr0 yr0
            const __m128 mid = _mm_cvtpd_ps(_mm_shuffle_pd(zr, xr, 2));  // zr0 xr1
            const __m128 hi = _mm_cvtpd_ps(_mm_unpackhi_pd(yr, zr));     // yr1 zr1
            if (half == 0) {
                out[0] = _mm_movelh_ps(lo, mid);
                out[1] = hi;
            } else {
                out[1] = _mm_movelh_ps(out[1], lo);
                out[2] = _mm_movelh_ps(mid, hi);
            }
        }
        _mm_storeu_ps(q, out[0]);
        _mm_storeu_ps(q + 4, out[1]);
        _mm_storeu_ps(q + 8, out[2]);
    }
    return 4 * blocks;
}
#endif

#if defined(PATHFINDER_SCAN_X86)
// Eight points (24 floats) per step with AVX-512, where the processor has it: the points are
// split into x, y and z lanes while still floats, widened, transformed with eight points side by
// side and interleaved again. Every output is ((x mx + y my) + z mz) + t: the first sum is
// either reading's (u a + v b), as addition and multiplication of two operands are exactly
// commutative. Products and sums stay separate instructions (-ffp-contract=off, and no fused
// intrinsic is used), so the roundings are those of one point at a time.
__attribute__((target("avx512f"))) size_t transformLaserAvx512(float* p, size_t n,
                                                               const LaserCoefficients& c) {
    __m512d mx[3], my[3], mz[3], t[3];
    for (int r = 0; r < 3; ++r) {
        mx[r] = _mm512_set1_pd(c.yFirst[r] ? c.b[r] : c.a[r]);
        my[r] = _mm512_set1_pd(c.yFirst[r] ? c.a[r] : c.b[r]);
        mz[r] = _mm512_set1_pd(c.cz[r]);
        t[r] = _mm512_set1_pd(c.t[r]);
    }
    // Gather component r of eight points: float 3l + r of the 24 (indices past 15 select the
    // second source's lanes).
    __m512i split[3];
    for (int r = 0; r < 3; ++r) {
        alignas(64) int32_t idx[16] = {};
        for (int l = 0; l < 8; ++l) {
            idx[l] = 3 * l + r;
        }
        split[r] = _mm512_load_si512(idx);
    }
    // Interleave: output float m is component m % 3 of point m / 3; x and y come from the
    // first source (x in lanes 0-7, y in 8-15), z from the second.
    __m512i join[2];
    for (int half = 0; half < 2; ++half) {
        alignas(64) int32_t idx[16] = {};
        for (int k = 0; k < 16; ++k) {
            const int m = 16 * half + k;
            const int l = m / 3, r = m % 3;
            idx[k] = r == 0 ? l : r == 1 ? 8 + l : 16 + l;
        }
        join[half] = _mm512_load_si512(idx);
    }
    const size_t blocks = n / 8;
#pragma GCC unroll 2
    for (size_t b = 0; b < blocks; ++b) {
        float* q = p + 24 * b;
        const __m512 lo = _mm512_loadu_ps(q);
        const __m512 hi = _mm512_zextps256_ps512(_mm256_loadu_ps(q + 16));
        const __m512d x =
            _mm512_cvtps_pd(_mm512_castps512_ps256(_mm512_permutex2var_ps(lo, split[0], hi)));
        const __m512d y =
            _mm512_cvtps_pd(_mm512_castps512_ps256(_mm512_permutex2var_ps(lo, split[1], hi)));
        const __m512d z =
            _mm512_cvtps_pd(_mm512_castps512_ps256(_mm512_permutex2var_ps(lo, split[2], hi)));
        __m256 out[3];
        for (int r = 0; r < 3; ++r) {
            const __m512d s = _mm512_add_pd(_mm512_mul_pd(x, mx[r]), _mm512_mul_pd(y, my[r]));
            out[r] =
                _mm512_cvtpd_ps(_mm512_add_pd(_mm512_add_pd(s, _mm512_mul_pd(z, mz[r])), t[r]));
        }
        const __m512 xy = _mm512_castpd_ps(_mm512_insertf64x4(
            _mm512_zextpd256_pd512(_mm256_castps_pd(out[0])), _mm256_castps_pd(out[1]), 1));
        const __m512 zz = _mm512_zextps256_ps512(out[2]);
        _mm512_storeu_ps(q, _mm512_permutex2var_ps(xy, join[0], zz));
        _mm256_storeu_ps(q + 16, _mm512_castps512_ps256(_mm512_permutex2var_ps(xy, join[1], zz)));
    }
    return 8 * blocks;
}

#endif

#if defined(PATHFINDER_SCAN_X86)
// Four points (12 floats) per step with AVX2, four doubles per vector. The floats are widened
// as they are loaded, in memory order (x0 y0 z0 x1 | y1 z1 x2 y2 | z2 x3 y3 z3), turned into x,
// y and z of the four points by blends, a shuffle within the vectors' halves and one across
// them, transformed, and put back in memory order the same way before they are narrowed and
// stored (the narrowing and widening are free of shuffles there). The arithmetic is the AVX-512
// kernel's, four points per vector: separate products and sums, the same roundings.
__attribute__((target("avx2"))) size_t transformLaserAvx2(float* p, size_t n,
                                                          const LaserCoefficients& c) {
    __m256d mx[3], my[3], mz[3], t[3];
    for (int r = 0; r < 3; ++r) {
        mx[r] = _mm256_set1_pd(c.yFirst[r] ? c.b[r] : c.a[r]);
        my[r] = _mm256_set1_pd(c.yFirst[r] ? c.a[r] : c.b[r]);
        mz[r] = _mm256_set1_pd(c.cz[r]);
        t[r] = _mm256_set1_pd(c.t[r]);
    }
    const size_t blocks = n / 4;
    for (size_t b = 0; b < blocks; ++b) {
        float* q = p + 12 * b;
        const __m256d a = _mm256_cvtps_pd(_mm_loadu_ps(q));      // x0 y0 | z0 x1
        const __m256d m = _mm256_cvtps_pd(_mm_loadu_ps(q + 4));  // y1 z1 | x2 y2
        const __m256d e = _mm256_cvtps_pd(_mm_loadu_ps(q + 8));  // z2 x3 | y3 z3
        const __m256d xy = _mm256_blend_pd(a, m, 0xc);           // x0 y0 | x2 y2
        const __m256d zx = _mm256_permute2f128_pd(a, e, 0x21);   // z0 x1 | z2 x3
        const __m256d yz = _mm256_blend_pd(m, e, 0xc);           // y1 z1 | y3 z3
        const __m256d x = _mm256_blend_pd(xy, zx, 0xa);
        const __m256d y = _mm256_shuffle_pd(xy, yz, 0x5);
        const __m256d z = _mm256_blend_pd(zx, yz, 0xa);
        __m256d out[3];
        for (int r = 0; r < 3; ++r) {
            const __m256d s = _mm256_add_pd(_mm256_mul_pd(x, mx[r]), _mm256_mul_pd(y, my[r]));
            out[r] = _mm256_add_pd(_mm256_add_pd(s, _mm256_mul_pd(z, mz[r])), t[r]);
        }
        const __m256d oxy = _mm256_unpacklo_pd(out[0], out[1]);      // x0 y0 | x2 y2
        const __m256d ozx = _mm256_shuffle_pd(out[2], out[0], 0xa);  // z0 x1 | z2 x3
        const __m256d oyz = _mm256_unpackhi_pd(out[1], out[2]);      // y1 z1 | y3 z3
        _mm_storeu_ps(q, _mm256_cvtpd_ps(_mm256_permute2f128_pd(oxy, ozx, 0x20)));
        _mm_storeu_ps(q + 4, _mm256_cvtpd_ps(_mm256_blend_pd(oyz, oxy, 0xc)));
        _mm_storeu_ps(q + 8, _mm256_cvtpd_ps(_mm256_permute2f128_pd(ozx, oyz, 0x31)));
    }
    return 4 * blocks;
}
#endif

bool processorHas(detail::SimdPath path) {
    switch (path) {
        case detail::SimdPath::Scalar:
            return true;
        case detail::SimdPath::Sse2:
#if defined(__SSE2__)
            return true;
#else
            return false;
#endif
        case detail::SimdPath::Avx2:
#if defined(PATHFINDER_SCAN_X86)
            return __builtin_cpu_supports("avx2") != 0;
#else
            return false;
#endif
        case detail::SimdPath::Avx512:
#if defined(PATHFINDER_SCAN_X86)
            return __builtin_cpu_supports("avx512f") != 0;
#else
            return false;
#endif
    }
    return false;
}

// `wanted`, or the widest path below it that the processor has.
detail::SimdPath runnable(detail::SimdPath wanted) {
    int k = static_cast<int>(wanted);
    while (k > 0 && !processorHas(static_cast<detail::SimdPath>(k))) {
        --k;
    }
    return static_cast<detail::SimdPath>(k);
}

detail::SimdPath pathFromEnvironment() {
    const detail::SimdPath best = detail::bestSimdPath();
    std::string wanted;
    if (!platform::getEnvironment(kSimdEnv, wanted) || wanted.empty()) {
        return best;
    }
    for (int k = 0; k <= static_cast<int>(detail::SimdPath::Avx512); ++k) {
        const auto path = static_cast<detail::SimdPath>(k);
        if (wanted == detail::simdPathName(path)) {
            const detail::SimdPath taken = runnable(path);
            if (taken != path) {
                detail::logLine(std::string(kSimdEnv) + "=" + wanted +
                                ": the processor cannot run it; the transforms use " +
                                detail::simdPathName(taken));
            }
            return taken;
        }
    }
    detail::logLine(std::string(kSimdEnv) + "=" + wanted +
                    " names no path (scalar, sse2, avx2, avx512); the transforms use " +
                    detail::simdPathName(best));
    return best;
}

// Set by useSimdPath; -1 until then.
std::atomic<int> g_forcedPath{-1};

// The points of one list through the chosen path: the widest kernel, then four at a time with
// SSE2, then one by one.
void transformLaserPoints(float* p, size_t count, const LaserCoefficients& c,
                          detail::SimdPath path) {
    size_t done = 0;
#if defined(PATHFINDER_SCAN_X86)
    if (path == detail::SimdPath::Avx512) {
        done = transformLaserAvx512(p, count, c);
    } else if (path == detail::SimdPath::Avx2) {
        done = transformLaserAvx2(p, count, c);
    }
#endif
#if defined(__SSE2__)
    if (path != detail::SimdPath::Scalar) {
        done += transformLaserSse2(p + 3 * done, count - done, c);
    }
#endif
    for (size_t i = done; i < count; ++i) {
        transformLaserPoint(p + 3 * i, c);
    }
}

// The coefficients of M in the order of the laser and marker formulas.
LaserCoefficients coefficientsOf(const double* M, bool bColumn) {
    LaserCoefficients c{};
    for (int r = 0; r < 3; ++r) {
        // Column reading: row r of the block, y's term first; row reading: column r, y's term
        // first in the first output only.
        const double mx = bColumn ? M[4 * r] : M[r];
        const double my = bColumn ? M[4 * r + 1] : M[4 + r];
        c.yFirst[r] = bColumn || r == 0;
        c.a[r] = c.yFirst[r] ? my : mx;
        c.b[r] = c.yFirst[r] ? mx : my;
        c.cz[r] = bColumn ? M[4 * r + 2] : M[8 + r];
        c.t[r] = M[12 + r];
    }
    return c;
}

}  // namespace

namespace detail {

const char* simdPathName(SimdPath path) {
    switch (path) {
        case SimdPath::Scalar:
            return "scalar";
        case SimdPath::Sse2:
            return "sse2";
        case SimdPath::Avx2:
            return "avx2";
        case SimdPath::Avx512:
            return "avx512";
    }
    return "scalar";
}

SimdPath bestSimdPath() {
    static const SimdPath best = runnable(SimdPath::Avx512);
    return best;
}

SimdPath simdPath() {
    const int forced = g_forcedPath.load(std::memory_order_relaxed);
    if (forced >= 0) {
        return static_cast<SimdPath>(forced);
    }
    static const SimdPath chosen = pathFromEnvironment();
    return chosen;
}

SimdPath useSimdPath(SimdPath path) {
    const SimdPath taken = runnable(path);
    g_forcedPath.store(static_cast<int>(taken), std::memory_order_relaxed);
    return taken;
}

}  // namespace detail

// The laser transform works in place: each point reads its own three values before it writes
// them, so the result equals that of a separate result vector, without its allocation. The
// points go through the path detail::simdPath() chose (ScanSimd.h), all paths with the same
// roundings.
void CPathfinder::TransformScanData_Laser(std::vector<float>& pts, const double* const M,
                                          bool bColumn) {
    const int32_t n = static_cast<int32_t>(pts.size()) / 3;
    const size_t count = static_cast<size_t>(n > 0 ? n : 0);
    const size_t used = 3 * count;
    transformLaserPoints(pts.data(), count, coefficientsOf(M, bColumn), detail::simdPath());
    for (size_t i = used; i < pts.size(); ++i) {
        pts[i] = 0.0f;
    }
}

// The marker transform is the laser transform of the coordinates rounded to float, its results
// widened again: the same formulas, in the same order, on the same float inputs. So every path
// but the scalar one narrows a block of points into a float buffer, runs the laser kernels on
// it and widens the results back; the scalar path is the routine written out on doubles.
void CPathfinder::TransformScanData_MarkPoint(std::vector<double>& pts, const double* const M,
                                              bool bColumn) {
    const int32_t n = static_cast<int32_t>(pts.size()) / 3;
    const size_t count = static_cast<size_t>(n > 0 ? n : 0);
    const size_t used = 3 * count;
    double* p = pts.data();
    const detail::SimdPath path = detail::simdPath();
    if (path != detail::SimdPath::Scalar) {
        const LaserCoefficients c = coefficientsOf(M, bColumn);
        constexpr size_t kBlock = 256;  // points per pass through the float buffer
        alignas(64) float buffer[3 * kBlock];
        for (size_t first = 0; first < count; first += kBlock) {
            const size_t m = std::min(kBlock, count - first);
            double* q = p + 3 * first;
            for (size_t i = 0; i < 3 * m; ++i) {
                buffer[i] = static_cast<float>(q[i]);
            }
            transformLaserPoints(buffer, m, c, path);
            for (size_t i = 0; i < 3 * m; ++i) {
                q[i] = static_cast<double>(buffer[i]);
            }
        }
    } else {
        const double m0 = M[0], m1 = M[1], m2 = M[2], m4 = M[4], m5 = M[5], m6 = M[6];
        const double m8 = M[8], m9 = M[9], m10 = M[10], m12 = M[12], m13 = M[13], m14 = M[14];
        for (size_t i = 0; i < used; i += 3) {
            const double x = roundToFloat(p[i]);
            const double y = roundToFloat(p[i + 1]);
            const double z = roundToFloat(p[i + 2]);
            double xr, yr, zr;
            if (bColumn) {
                xr = y * m1 + x * m0 + z * m2 + m12;
                yr = y * m5 + x * m4 + z * m6 + m13;
                zr = y * m9 + x * m8 + z * m10 + m14;
            } else {
                xr = y * m4 + x * m0 + z * m8 + m12;
                yr = x * m1 + y * m5 + z * m9 + m13;
                zr = x * m2 + y * m6 + z * m10 + m14;
            }
            p[i] = roundToFloat(xr);
            p[i + 1] = roundToFloat(yr);
            p[i + 2] = roundToFloat(zr);
        }
    }
    for (size_t i = used; i < pts.size(); ++i) {
        pts[i] = 0.0;
    }
}

namespace {

// Row-vector point map through float precision: p' = p.B + T.
void mapHolePoint(const float in[3], const double* M, float out[3]) {
    const double x = in[0], y = in[1], z = in[2];
    for (int c = 0; c < 3; ++c) {
        out[c] = static_cast<float>(x * M[0 + c] + y * M[4 + c] + z * M[8 + c] + M[12 + c]);
    }
}

// Row-vector direction map by the block alone: d' = d.B.
void mapHoleDirection(const float in[3], const double* M, float out[3]) {
    const double x = in[0], y = in[1], z = in[2];
    for (int c = 0; c < 3; ++c) {
        out[c] = static_cast<float>(x * M[0 + c] + y * M[4 + c] + z * M[8 + c]);
    }
}

}  // namespace

// Field mapping (device/README.md): state, type, centre, direction, radius as they are;
// fitInfo = {id, width, height, depth}; cameraCount 0 and the two ellipses zero (the SDK's hole
// record carries no image data); edgePoints = the rim points.
void CPathfinder::TransformScanData_Hole(const std::vector<SDK_NV::tagHoleData>& holes,
                                         double* const pose, const bool& transform, const double* M,
                                         std::vector<tagScanHoleData>& out) {
    std::vector<tagScanHoleData> built;
    built.reserve(holes.size());
    for (const SDK_NV::tagHoleData& h : holes) {
        if (h.nState >= 201) {
            continue;
        }
        tagScanHoleData d;
        d.state = h.nState;
        d.type = h.nType;
        d.radius = h.fRadius;
        d.fitInfo = {static_cast<float>(h.nId), h.fWidth, h.fHeight, h.fDepth};
        const size_t rim = h.vecEdgePoints.size() / 3 * 3;
        d.edgePoints.resize(h.vecEdgePoints.size(), 0.0f);
        if (transform) {
            mapHolePoint(h.fCenter, M, d.center);
            mapHoleDirection(h.fDirection, M, d.direction);
            for (size_t i = 0; i < rim; i += 3) {
                mapHolePoint(&h.vecEdgePoints[i], M, &d.edgePoints[i]);
            }
        } else {
            std::memcpy(d.center, h.fCenter, sizeof(d.center));
            std::memcpy(d.direction, h.fDirection, sizeof(d.direction));
            std::copy(h.vecEdgePoints.begin(), h.vecEdgePoints.end(), d.edgePoints.begin());
        }
        built.push_back(std::move(d));
    }
    if (transform) {
        double P[12];
        std::memcpy(P, pose, sizeof(P));
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) {
                pose[3 * r + c] =
                    P[3 * r + 0] * M[0 + c] + P[3 * r + 1] * M[4 + c] + P[3 * r + 2] * M[8 + c];
            }
        }
        for (int c = 0; c < 3; ++c) {
            pose[9 + c] = P[9] * M[0 + c] + P[10] * M[4 + c] + P[11] * M[8 + c] + M[12 + c];
        }
    }
    out = std::move(built);
}

}  // namespace device
