// Speed of the scan pipeline, each figure a ratio against a baseline in the same run:
//   - CallBack_ScanData on a 20,000-point frame against copying the frame's bytes into a new
//     record (goal: at most 2 times the copy);
//   - TransformScanData_Laser on 1 million points against a plain copy of the same array, on
//     each instruction-set path (goal: at least 0.8 times the copy's throughput with AVX2 and
//     AVX-512; the others are reported), and TransformScanData_MarkPoint likewise against a
//     copy of its doubles. A path the processor lacks is skipped;
//   - the bound of any kernel on the AVX2 and AVX-512 paths: the same widening, products and sums
//     in the same order and narrowing on 1 million points whose x, y and z are already apart
//     (blocks of one vector's width each), so without the splitting and interleaving that
//     points stored x, y, z, x, y, z... need. No kernel of that path can beat it.
// Run on one core: taskset -c 0 build/bench/device/device_scan_bench
#include <benchmark/benchmark.h>
#if defined(__x86_64__) && defined(__GNUC__)
// GCC 12's AVX-512 conversions start from an undefined register that its flow analysis reports
// at the header's lines (as in device/src/ScanMath.cpp).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#define SCAN_BENCH_X86 1
#endif

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "ScanSimd.h"
#include "device/Pathfinder.h"
#include "sdk/Records.h"

namespace device {
struct CPathfinderScanAccess {
    static void frame(CPathfinder& d, SDK_NV::tagScanData& f) { d.CallBack_ScanData(&f, true); }
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
using device::detail::SimdPath;
const double kM[16] = {0.36, 0.48, -0.8, 0, -0.8, 0.6,   0,     0,
                       0.48, 0.64, 0.6,  0, 12.5, -7.25, 301.1, 1};

SDK_NV::tagScanData makeFrame(size_t points) {
    SDK_NV::tagScanData f;
    f.m_strTrackerId = "T1";
    f.m_nFrameCount = 20;
    const size_t lines = 7;
    f.m_vecLaserLineCounts.assign(lines, static_cast<int32_t>(points / lines));
    f.m_vecLaserLines.resize(lines);
    f.m_vecLaserPoints.resize(3 * points);
    f.m_vecLaserNormals.resize(3 * points);
    f.m_vecLaserQuality.assign(points, 0.9f);
    for (size_t i = 0; i < 3 * points; ++i) {
        f.m_vecLaserPoints[i] = static_cast<float>(i % 977) * 0.25f;
        f.m_vecLaserNormals[i] = (i % 3 == 2) ? -1.0f : 0.0f;
    }
    for (int m = 0; m < 40; ++m) {
        f.m_vecMarkerIds.push_back(m);
        f.m_vecMarkerCenters.insert(f.m_vecMarkerCenters.end(), {1.0 * m, 2.0, 3.0});
        f.m_vecMarkerNormals.insert(f.m_vecMarkerNormals.end(), {0, 0, 1});
        f.m_vecMarkerDiameters.push_back(6);
        f.m_vecMarkerValid.push_back(1);
    }
    return f;
}

void BM_FrameCopyBaseline(benchmark::State& state) {
    const SDK_NV::tagScanData f = makeFrame(20000);
    for (auto _ : state) {
        auto d = std::make_shared<device::tagDeviceData>();
        d->laserPoints = f.m_vecLaserPoints;
        d->laserDirections = f.m_vecLaserNormals;
        d->laserPointCounts = f.m_vecLaserLineCounts;
        d->markerIds = f.m_vecMarkerIds;
        d->markerPoints = f.m_vecMarkerCenters;
        d->markerNormals = f.m_vecMarkerNormals;
        d->markerDiameters = f.m_vecMarkerDiameters;
        benchmark::DoNotOptimize(d.get());
        benchmark::ClobberMemory();
    }
}

void BM_CallBackScanData(benchmark::State& state) {
    device::CPathfinder dev;
    device::tagDeviceHandlers h;
    h.onDeviceData = [](const std::shared_ptr<device::tagDeviceData>& d, const char*, int) {
        benchmark::DoNotOptimize(d.get());
    };
    dev.setHandlers(h);
    dev.setScanObject(device::SCAN_OBJECT_SURFACE, false);  // object scanning: tracker matrix
    SDK_NV::tagScanData f = makeFrame(20000);
    for (auto _ : state) {
        A::frame(dev, f);
        benchmark::ClobberMemory();
    }
}

// A plain copy of 1 million points' coordinates (floats for the laser, doubles for markers).
template <class T>
void BM_PointCopyBaseline(benchmark::State& state) {
    std::vector<T> src(3000000, T(1.5));
    std::vector<T> dst(src.size());
    for (auto _ : state) {
        std::copy(src.begin(), src.end(), dst.begin());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(src.size() * sizeof(T)));
}

// One transform of 1 million points, in place, on `path`.
template <class T>
void transformPoints(benchmark::State& state, SimdPath path, bool column) {
    if (device::detail::useSimdPath(path) != path) {
        state.SkipWithError("the processor cannot run this path");
        return;
    }
    std::vector<T> pts(3000000, T(1.5));
    for (auto _ : state) {
        if constexpr (std::is_same_v<T, float>) {
            A::laser(pts, kM, column);
        } else {
            A::marks(pts, kM, column);
        }
        benchmark::DoNotOptimize(pts.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(pts.size() * sizeof(T)));
}

#if defined(SCAN_BENCH_X86)
// The bound kernels: x, y and z of one vector's width of points stored one after the other.
// Each output is ((x mx + y my) + z mz) + t in doubles, narrowed to float, as on every path.
__attribute__((target("avx512f"))) void boundAvx512(float* p, size_t n, const double* m) {
    __m512d c[12];
    for (int i = 0; i < 12; ++i) {
        c[i] = _mm512_set1_pd(m[i]);
    }
    for (size_t b = 0; b + 8 <= n; b += 8) {
        float* q = p + 3 * b;
        const __m512d x = _mm512_cvtps_pd(_mm256_loadu_ps(q));
        const __m512d y = _mm512_cvtps_pd(_mm256_loadu_ps(q + 8));
        const __m512d z = _mm512_cvtps_pd(_mm256_loadu_ps(q + 16));
#pragma GCC unroll 3
        for (int r = 0; r < 3; ++r) {
            const __m512d s = _mm512_add_pd(_mm512_mul_pd(x, c[r]), _mm512_mul_pd(y, c[3 + r]));
            const __m512d o = _mm512_add_pd(_mm512_add_pd(s, _mm512_mul_pd(z, c[6 + r])), c[9 + r]);
            _mm256_storeu_ps(q + 8 * r, _mm512_cvtpd_ps(o));
        }
    }
}

__attribute__((target("avx2"))) void boundAvx2(float* p, size_t n, const double* m) {
    __m256d c[12];
    for (int i = 0; i < 12; ++i) {
        c[i] = _mm256_set1_pd(m[i]);
    }
    for (size_t b = 0; b + 4 <= n; b += 4) {
        float* q = p + 3 * b;
        const __m256d x = _mm256_cvtps_pd(_mm_loadu_ps(q));
        const __m256d y = _mm256_cvtps_pd(_mm_loadu_ps(q + 4));
        const __m256d z = _mm256_cvtps_pd(_mm_loadu_ps(q + 8));
#pragma GCC unroll 3
        for (int r = 0; r < 3; ++r) {
            const __m256d s = _mm256_add_pd(_mm256_mul_pd(x, c[r]), _mm256_mul_pd(y, c[3 + r]));
            const __m256d o = _mm256_add_pd(_mm256_add_pd(s, _mm256_mul_pd(z, c[6 + r])), c[9 + r]);
            _mm_storeu_ps(q + 4 * r, _mm256_cvtpd_ps(o));
        }
    }
}

void transformBound(benchmark::State& state, SimdPath path) {
    if (device::detail::useSimdPath(path) != path) {
        state.SkipWithError("the processor cannot run this path");
        return;
    }
    // mx, my, mz and t of the three outputs (column reading of kM).
    const double m[12] = {kM[0], kM[4], kM[8],  kM[1],  kM[5],  kM[9],
                          kM[2], kM[6], kM[10], kM[12], kM[13], kM[14]};
    std::vector<float> pts(3000000, 1.5f);
    for (auto _ : state) {
        if (path == SimdPath::Avx512) {
            boundAvx512(pts.data(), pts.size() / 3, m);
        } else {
            boundAvx2(pts.data(), pts.size() / 3, m);
        }
        benchmark::DoNotOptimize(pts.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(pts.size() * sizeof(float)));
}
#endif

// Collects each run's time per iteration, and the median where the runs were repeated, to print
// the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Iteration) {
                last[r.run_name.str()] = r.GetAdjustedRealTime();
            } else if (r.aggregate_name == "median") {
                median[r.run_name.str()] = r.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // The median of a repeated run, else its only time; 0 for a run that did not happen.
    double time(const std::string& name) const {
        const auto m = median.find(name);
        if (m != median.end()) {
            return m->second;
        }
        const auto l = last.find(name);
        return l != last.end() ? l->second : 0.0;
    }

private:
    std::map<std::string, double> last, median;
};

}  // namespace

BENCHMARK(BM_FrameCopyBaseline)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CallBackScanData)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PointCopyBaseline<float>)->Name("BM_PointCopyBaseline")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PointCopyBaseline<double>)
    ->Name("BM_MarkerCopyBaseline")
    ->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    // BM_TransformLaser/<path>/<reading> and BM_TransformMarkers/<path>/column.
    const SimdPath paths[] = {SimdPath::Scalar, SimdPath::Sse2, SimdPath::Avx2, SimdPath::Avx512};
    for (const SimdPath path : paths) {
        const std::string name = device::detail::simdPathName(path);
        for (const bool column : {true, false}) {
            benchmark::RegisterBenchmark(
                ("BM_TransformLaser/" + name + (column ? "/column" : "/row")).c_str(),
                [path, column](benchmark::State& st) { transformPoints<float>(st, path, column); })
                ->Unit(benchmark::kMicrosecond);
        }
        benchmark::RegisterBenchmark(
            ("BM_TransformMarkers/" + name + "/column").c_str(),
            [path](benchmark::State& st) { transformPoints<double>(st, path, true); })
            ->Unit(benchmark::kMicrosecond);
    }
#if defined(SCAN_BENCH_X86)
    for (const SimdPath path : {SimdPath::Avx2, SimdPath::Avx512}) {
        benchmark::RegisterBenchmark(
            (std::string("BM_TransformBound/") + device::detail::simdPathName(path)).c_str(),
            [path](benchmark::State& st) { transformBound(st, path); })
            ->Unit(benchmark::kMicrosecond);
    }
#endif
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto ratio = [&reporter](const char* a, const char* b) {
        const double ta = reporter.time(a), tb = reporter.time(b);
        return ta > 0 && tb > 0 ? ta / tb : -1.0;
    };
    std::printf("CallBack_ScanData / frame copy (time, goal <= 2): %.3f\n",
                ratio("BM_CallBackScanData", "BM_FrameCopyBaseline"));
    for (const SimdPath path : paths) {
        const std::string name = device::detail::simdPathName(path);
        const char* goal = path >= SimdPath::Avx2 ? " (goal >= 0.8)" : "";
        for (const char* reading : {"column", "row"}) {
            const double r = ratio(("BM_TransformLaser/" + name + "/" + reading).c_str(),
                                   "BM_PointCopyBaseline");
            std::printf("laser transform throughput / copy, %s, %s%s: %.3f\n", name.c_str(),
                        reading, goal, r > 0 ? 1.0 / r : -1.0);
        }
        if (path >= SimdPath::Avx2) {
            const double b = ratio(("BM_TransformBound/" + name).c_str(), "BM_PointCopyBaseline");
            std::printf("bound of any laser kernel / copy, %s: %.3f\n", name.c_str(),
                        b > 0 ? 1.0 / b : -1.0);
        }
        const double r =
            ratio(("BM_TransformMarkers/" + name + "/column").c_str(), "BM_MarkerCopyBaseline");
        std::printf("marker transform throughput / copy, %s, column: %.3f\n", name.c_str(),
                    r > 0 ? 1.0 / r : -1.0);
    }
    return 0;
}
