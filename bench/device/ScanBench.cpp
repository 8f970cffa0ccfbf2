// Speed of the scan pipeline, each figure a ratio against a baseline in the same run:
//   - CallBack_ScanData on a 20,000-point frame against copying the frame's bytes into a new
//     record (goal: at most 2 times the copy);
//   - TransformScanData_Laser on 1 million points against a plain copy of the same array
//     (goal: at least 0.8 times the copy's throughput).
// Run on one core: taskset -c 0 build/bench/device/device_scan_bench
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device/Pathfinder.h"
#include "sdk/Records.h"

namespace device {
struct CPathfinderScanAccess {
    static void frame(CPathfinder& d, SDK_NV::tagScanData& f) { d.CallBack_ScanData(&f, true); }
    static void laser(std::vector<float>& p, const double* M, bool col) {
        CPathfinder::TransformScanData_Laser(p, M, col);
    }
};
}  // namespace device

namespace {

using A = device::CPathfinderScanAccess;
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

void BM_PointCopyBaseline(benchmark::State& state) {
    std::vector<float> src(3000000, 1.5f);
    std::vector<float> dst(src.size());
    for (auto _ : state) {
        std::copy(src.begin(), src.end(), dst.begin());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(src.size() * sizeof(float)));
}

void BM_TransformLaser(benchmark::State& state) {
    std::vector<float> pts(3000000, 1.5f);
    for (auto _ : state) {
        A::laser(pts, kM, state.range(0) != 0);
        benchmark::DoNotOptimize(pts.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(pts.size() * sizeof(float)));
}

// Collects the mean time per iteration of every run to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            times[r.benchmark_name()] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

BENCHMARK(BM_FrameCopyBaseline)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CallBackScanData)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PointCopyBaseline)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TransformLaser)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto& t = reporter.times;
    const auto ratio = [&t](const char* a, const char* b) {
        const auto ia = t.find(a), ib = t.find(b);
        return ia != t.end() && ib != t.end() && ib->second > 0 ? ia->second / ib->second : -1.0;
    };
    std::printf("CallBack_ScanData / frame copy (time, goal <= 2): %.3f\n",
                ratio("BM_CallBackScanData", "BM_FrameCopyBaseline"));
    std::printf("laser transform throughput / copy, column (goal >= 0.8): %.3f\n",
                1.0 / ratio("BM_TransformLaser/1", "BM_PointCopyBaseline"));
    std::printf("laser transform throughput / copy, row (goal >= 0.8): %.3f\n",
                1.0 / ratio("BM_TransformLaser/0", "BM_PointCopyBaseline"));
    return 0;
}
