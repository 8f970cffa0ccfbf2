// Speed of the simulated scanner, each figure against a baseline run in the same process.
//
// FrameGeneration: whole frames of about 20,000 laser points (10 crossing lines, markers of
// the observing tracker, noise), one core; goal at least 1,000 frames/s, so that 120
// frames/s cost less than an eighth of a core. Counters: frames/s and points per frame.
// RayCast/Embree against RayCast/PlainLoop: the same fan of rays against the part, through
// Embree's hierarchy and through a loop over every triangle. MeshDistanceQuery: points near the
// surface per second for the accuracy checks.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "sim/Scene.h"

namespace {

sim::SceneOptions benchOptions() {
    sim::SceneOptions o;
    o.lines = 10;
    o.pointsPerLine = 2650;  // about 20,000 of the 26,500 rays are kept on the sweep
    return o;
}

const sim::Scene& scene() {
    static const std::unique_ptr<sim::Scene> s = sim::Scene::create(benchOptions(), nullptr);
    return *s;
}

// One laser fan of the scanner at frame 400, in the part's frame.
std::vector<sim::Ray> fan(int count) {
    const sim::Pose p = scene().scannerInPart(400);
    std::vector<sim::Ray> rays;
    for (int k = 0; k < count; ++k) {
        const double th = (-0.5 + static_cast<double>(k) / (count - 1)) * 50.0 * M_PI / 180.0;
        const Eigen::Vector3d d(std::sin(th) * -0.7071, std::sin(th) * 0.7071, std::cos(th));
        sim::Ray r;
        r.origin = p.t.cast<float>();
        r.direction = (p.R * d).cast<float>();
        rays.push_back(r);
    }
    return rays;
}

void FrameGeneration(benchmark::State& state) {
    const sim::Scene& s = scene();
    sim::FrameRequest rq;
    sim::ScanFrame f;
    size_t points = 0;
    int index = 0;
    for (auto _ : state) {
        rq.index = index;
        index = (index + 7) % 20000;
        s.frame(rq, f);
        points += f.points.size();
        benchmark::DoNotOptimize(f.points.data());
    }
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["points/frame"] =
        static_cast<double>(points) / static_cast<double>(std::max<int64_t>(1, state.iterations()));
}
BENCHMARK(FrameGeneration)->Unit(benchmark::kMicrosecond);

void RayCastEmbree(benchmark::State& state) {
    const std::vector<sim::Ray> rays = fan(2000);
    std::vector<sim::Hit> hits;
    for (auto _ : state) {
        scene().caster().intersect(rays, hits);
        benchmark::DoNotOptimize(hits.data());
    }
    state.counters["rays/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 2000),
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(RayCastEmbree)->Unit(benchmark::kMicrosecond);

void RayCastPlainLoop(benchmark::State& state) {
    const std::vector<sim::Ray> rays = fan(2000);
    const sim::TriangleMesh& mesh = scene().truth().part;
    for (auto _ : state) {
        for (const sim::Ray& r : rays) {
            benchmark::DoNotOptimize(sim::intersectBruteForce(mesh, r));
        }
    }
    state.counters["rays/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 2000),
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(RayCastPlainLoop)->Unit(benchmark::kMicrosecond);

// Distance of points to the part (the host tool's accuracy report measures a million).
void MeshDistanceQuery(benchmark::State& state) {
    const sim::MeshDistance md(scene().truth().part);
    sim::Rng rng(3);
    std::vector<Eigen::Vector3d> points;
    for (int i = 0; i < 10000; ++i) {
        points.emplace_back(rng.uniform(-300, 300), rng.uniform(-200, 200), rng.uniform(-1, 1));
    }
    for (auto _ : state) {
        double sum = 0;
        for (const auto& p : points)
            sum += md.distance(p);
        benchmark::DoNotOptimize(sum);
    }
    state.counters["points/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 10000),
                                                    benchmark::Counter::kIsRate);
}
BENCHMARK(MeshDistanceQuery)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
