// Speed of static and dynamic tracking, each against a baseline run in the same process: the
// same pose estimate when the marker correspondences are already known (a least-squares
// rigid fit of the same frames to the reference, no matching, no model building).
//
// One static evaluation: 50 buffered frames registered into a model, the model optimised and
// registered with a 200-marker reference (goal: below 16 ms, one frame period at 60 Hz).
// One dynamic tracking frame of 30 markers against a 300-marker reference (goal: below
// 0.03 ms); its matcher's share is measured as well.
#include <benchmark/benchmark.h>

#include <Eigen/Geometry>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "quill/Quill.h"
#include "sim/MarkerScene.h"
#include "tracking/TPScan_Markpoint.h"

namespace {

// Static tracking registers against 200 reference markers, dynamic tracking against 300.
constexpr int kStaticReference = 200;
constexpr int kDynamicReference = 300;
constexpr int kVisible = 40;

struct Scene {
    sim::MarkerScene scene;
    device::tagRefMarkpointData reference;
    sim::RigidMotion pose;
    std::vector<sim::Frame> still;    // 150 frames of a tracker held still
    std::vector<sim::Frame> walking;  // frames of a moving scanner

    explicit Scene(int referenceMarkers)
        : scene(sim::MarkerScene::randomPart(referenceMarkers, 11)) {
        for (int i = 0; i < scene.size(); ++i) {
            const sim::Marker& m = scene[i];
            reference.positions.insert(reference.positions.end(),
                                       {m.position.x(), m.position.y(), m.position.z()});
            reference.normals.insert(reference.normals.end(),
                                     {m.normal.x(), m.normal.y(), m.normal.z()});
            reference.values.push_back(6.0);
            reference.labels.push_back(i);
        }
        sim::Rng rng(3);
        pose.R = sim::randomSmallRotation(rng, 30.0);
        pose.t = Eigen::Vector3d(120.0, -80.0, -1600.0);
        sim::FrameGenerator generator(scene, 5);
        sim::FrameOptions opt;
        opt.visible = kVisible;
        opt.noiseSigma = 0.02;
        for (int n = 0; n < 150; ++n) {
            still.push_back(generator.frameAt(scene.centroid(), pose, opt));
        }
        opt.visible = 30;
        opt.dropFraction = 0.1;
        opt.spuriousFraction = 0.1;
        walking = generator.walk(64, opt, 15.0, 1.0);
    }
};

const Scene& staticScene() {
    static const Scene s(kStaticReference);
    return s;
}
const Scene& dynamicScene() {
    static const Scene s(kDynamicReference);
    return s;
}

SDK_NV::tagScanData toScanData(const sim::Frame& f) {
    SDK_NV::tagScanData d;
    int label = 0;
    for (const sim::ObservedMarker& m : f.markers) {
        d.m_vecMarkerIds.push_back(label++);
        d.m_vecMarkerCenters.insert(d.m_vecMarkerCenters.end(),
                                    {m.position.x(), m.position.y(), m.position.z()});
        d.m_vecMarkerNormals.insert(d.m_vecMarkerNormals.end(),
                                    {m.normal.x(), m.normal.y(), m.normal.z()});
        d.m_vecMarkerDiameters.push_back(6.0);
        d.m_vecMarkerValid.push_back(1);
    }
    return d;
}

// Least-squares rigid fit of the frame's true markers onto the reference (correspondences
// from the generator's truth).
Eigen::Matrix4d knownCorrespondenceFit(const sim::Frame& f, const sim::MarkerScene& scene) {
    Eigen::Matrix3Xd src(3, static_cast<Eigen::Index>(f.markers.size()));
    Eigen::Matrix3Xd dst(3, static_cast<Eigen::Index>(f.markers.size()));
    Eigen::Index n = 0;
    for (const sim::ObservedMarker& m : f.markers) {
        if (m.truth < 0) {
            continue;
        }
        src.col(n) = m.position;
        dst.col(n) = scene[m.truth].position;
        ++n;
    }
    return Eigen::umeyama(src.leftCols(n), dst.leftCols(n), false);
}

// --- static tracking ---

void BM_StaticEvaluation(benchmark::State& state) {
    const Scene& s = staticScene();
    std::vector<SDK_NV::tagScanData> frames;
    for (const sim::Frame& f : s.still) {
        frames.push_back(toScanData(f));
    }
    CTPScan_Markpoint tracker;
    tracker.initLibrary();
    tracker.importMarkpointToLibrary(s.reference, true, false);
    double rt16[16];
    for (auto _ : state) {
        state.PauseTiming();
        for (int n = 0; n < 149; ++n) {
            tracker.SetTrackStatic(frames[static_cast<std::size_t>(n)], rt16);
        }
        state.ResumeTiming();
        const int r = tracker.SetTrackStatic(frames[149], rt16);
        if (r <= 0) {
            state.SkipWithError("static evaluation failed");
            break;
        }
        benchmark::DoNotOptimize(rt16);
    }
}
BENCHMARK(BM_StaticEvaluation)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(25)
    ->ReportAggregatesOnly(true);

void BM_StaticBaseline(benchmark::State& state) {
    const Scene& s = staticScene();
    for (auto _ : state) {
        for (std::size_t n = 100; n < 150; ++n) {
            benchmark::DoNotOptimize(knownCorrespondenceFit(s.still[n], s.scene));
        }
    }
}
BENCHMARK(BM_StaticBaseline)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

// --- dynamic tracking ---

void BM_DynamicFrame(benchmark::State& state) {
    const Scene& s = dynamicScene();
    std::vector<SDK_NV::tagScanData> frames;
    for (const sim::Frame& f : s.walking) {
        frames.push_back(toScanData(f));
    }
    CTPScan_Markpoint tracker;
    tracker.initLibrary();
    tracker.importMarkpointToLibrary(s.reference, true, false);
    device::tagRefMarkpointData out;
    double rt16[16];
    std::size_t k = 0;
    int failures = 0;
    for (auto _ : state) {
        out.clear();
        failures += tracker.SetTrackDynamic(frames[k], out, rt16) != 0 ? 1 : 0;
        k = (k + 1) % frames.size();
        benchmark::DoNotOptimize(rt16);
    }
    state.counters["failed"] = benchmark::Counter(failures, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_DynamicFrame)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

void BM_DynamicBaseline(benchmark::State& state) {
    const Scene& s = dynamicScene();
    std::size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(knownCorrespondenceFit(s.walking[k], s.scene));
        k = (k + 1) % s.walking.size();
    }
}
BENCHMARK(BM_DynamicBaseline)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

// The matcher's share of a dynamic frame: a fresh matcher (its defaults are the tracker's
// settings) registering records prepared beforehand, without any conversion, against the
// reference indexed once (as the tracker does) or indexed by every call (as it did before).
void dynamicMatcher(benchmark::State& state, bool indexOnce) {
    const Scene& s = dynamicScene();
    std::vector<std::vector<Quill::mark_data>> frames;
    for (const sim::Frame& f : s.walking) {
        std::vector<Quill::mark_data> marks(f.markers.size());
        for (std::size_t i = 0; i < marks.size(); ++i) {
            marks[i].x = static_cast<float>(f.markers[i].position.x());
            marks[i].y = static_cast<float>(f.markers[i].position.y());
            marks[i].z = static_cast<float>(f.markers[i].position.z());
        }
        frames.push_back(std::move(marks));
    }
    std::vector<Quill::mark_data> fixed(static_cast<std::size_t>(s.scene.size()));
    for (std::size_t i = 0; i < fixed.size(); ++i) {
        const Eigen::Vector3d& p = s.scene[static_cast<int>(i)].position;
        fixed[i].x = static_cast<float>(p.x());
        fixed[i].y = static_cast<float>(p.y());
        fixed[i].z = static_cast<float>(p.z());
    }
    Quill::IndexedMarkSet indexed;
    indexed.build(fixed.data(), static_cast<int>(fixed.size()), 3.0f);
    std::size_t k = 0;
    for (auto _ : state) {
        Quill::MyMatchMarkClass_update matcher;
        std::vector<Quill::mark_data>& moving = frames[k];
        const int n = static_cast<int>(moving.size());
        benchmark::DoNotOptimize(
            indexOnce ? matcher.MarkRegistration(moving.data(), n, indexed, -1, 0)
                      : matcher.MarkRegistration(moving.data(), n, fixed.data(),
                                                 static_cast<int>(fixed.size()), -1, 0));
        k = (k + 1) % frames.size();
    }
}
void BM_DynamicMatcherOnly(benchmark::State& state) {
    dynamicMatcher(state, true);
}
void BM_DynamicMatcherIndexPerCall(benchmark::State& state) {
    dynamicMatcher(state, false);
}
BENCHMARK(BM_DynamicMatcherOnly)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DynamicMatcherIndexPerCall)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

// Prints the usual table and remembers each benchmark's median.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                medians[r.run_name.function_name] =
                    r.GetAdjustedRealTime() * toMilliseconds(r.time_unit);
            }
        }
    }
    std::map<std::string, double> medians;  // milliseconds

private:
    static double toMilliseconds(benchmark::TimeUnit unit) {
        switch (unit) {
            case benchmark::kNanosecond:
                return 1e-6;
            case benchmark::kMicrosecond:
                return 1e-3;
            case benchmark::kMillisecond:
                return 1.0;
            case benchmark::kSecond:
                return 1e3;
        }
        return 1.0;
    }
};

void printRatio(const MedianReporter& rep, const char* name, const char* baseline, double goalMs) {
    const auto a = rep.medians.find(name);
    const auto b = rep.medians.find(baseline);
    if (a == rep.medians.end() || b == rep.medians.end() || b->second <= 0.0) {
        return;
    }
    std::printf("%-22s median %9.4f ms  (goal < %.2f ms: %s)  ratio to %s: %.1fx\n", name,
                a->second, goalMs, a->second < goalMs ? "met" : "missed", baseline,
                a->second / b->second);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::printf("\n");
    printRatio(reporter, "BM_StaticEvaluation", "BM_StaticBaseline", 16.0);
    printRatio(reporter, "BM_DynamicFrame", "BM_DynamicBaseline", 0.03);
    printRatio(reporter, "BM_DynamicFrame", "BM_DynamicMatcherOnly", 0.03);
    printRatio(reporter, "BM_DynamicFrame", "BM_DynamicMatcherIndexPerCall", 0.03);
    return 0;
}
