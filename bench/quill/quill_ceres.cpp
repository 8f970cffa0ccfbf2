// The marker-model optimiser against Ceres Solver on the same bundle problem.
//
// Data: a smooth walk of 500 frames over a 300-marker part (sim's scene generator), each frame
// registered by the real-time matcher as the tracker does; the matcher records the poses and
// the observations the optimiser refines. The same observations are rebuilt here from the
// matcher's answers (which library marker each frame marker became) and checked against what
// our optimiser reports per marker (frames that saw it), so both solvers get the same data.
//
// Problem (both): unknowns every frame pose (R_f, t_f) and every marker X_j seen in at least
// two frames; residual R_f p_fj + t_f - X_j per observation; the first frame with three such
// markers held fixed (our optimiser's gauge). Ceres: quaternion (on its manifold) and
// translation per frame, automatic derivatives, Levenberg-Marquardt with the sparse Schur
// complement (markers eliminated), one thread.
//
// Figures: the time of each, and the final cost of each evaluated by Ceres's
// Problem::Evaluate (ours moved rigidly so that the held frame coincides; the cost does not
// change under a rigid motion of everything). Counters `cost`, `ours_cost`, `rel_diff`.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>

#include "CeresBundle.h"

namespace {

using bench::alignedToGauge;
using bench::Bundle;
using bench::CeresBundle;
using bench::gatedAt;

Bundle& bundle(int visible) {
    static std::map<int, std::unique_ptr<Bundle>> cache;
    auto& b = cache[visible];
    if (!b)
        b = std::make_unique<Bundle>(visible);
    return *b;
}

void BM_Optimiser_Ours(benchmark::State& state) {
    Bundle& b = bundle(static_cast<int>(state.range(0)));
    if (!b.error.empty()) {
        state.SkipWithError(b.error.c_str());
        return;
    }
    Quill::MarkOpt_class opt;
    opt.set_wh(2448, 2048);
    std::vector<Eigen::Matrix4d> poses;
    int rc = 0;
    for (auto _ : state) {
        poses = b.rts;
        rc = opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            b.rt.get_mark_match(0), poses, static_cast<int>(poses.size()), 0.1f, 150);
        benchmark::DoNotOptimize(rc);
    }
    CeresBundle c(b);
    const double start = c.cost();
    c.setFrom(b, alignedToGauge(b, poses));
    state.counters["cost"] = c.cost();
    state.counters["start_cost"] = start;
    state.counters["iterations"] = opt.get_iterations();
    state.counters["converged"] = rc == 1;
    state.counters["gated"] = gatedAt(b, poses);
    state.counters["frames"] = static_cast<double>(b.rts.size());
    state.counters["loose_frames"] = b.looseFrames;
    state.counters["observations"] = static_cast<double>(b.obs.size());
}

void BM_Optimiser_Ceres(benchmark::State& state) {
    Bundle& b = bundle(static_cast<int>(state.range(0)));
    if (!b.error.empty()) {
        state.SkipWithError(b.error.c_str());
        return;
    }
    const bool iterative = state.range(1) != 0;
    ceres::Solver::Summary s;
    double cost = 0.0;
    std::unique_ptr<CeresBundle> last;
    for (auto _ : state) {
        // The problem is built inside the timing, as ours builds its own system.
        last = std::make_unique<CeresBundle>(b);
        s = last->solve(b, iterative);
        cost = last->cost();
    }
    if (!last)
        return;
    const std::vector<std::array<double, 3>> t = last->t;
    // Where the minimum is: the same solver carried on from there with tight tolerances.
    last->solve(b, iterative, true);
    const double minimum = last->cost();
    // Our solution evaluated by the same problem.
    Quill::MarkOpt_class opt;
    auto poses = b.rts;
    opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
        b.rt.get_mark_match(0), poses, static_cast<int>(poses.size()), 0.1f, 150);
    CeresBundle c(b);
    c.setFrom(b, alignedToGauge(b, poses));
    const double ours = c.cost();
    // Largest difference between the two solutions' poses (translations, mm), same gauge.
    double poseDiff = 0.0;
    for (std::size_t f = 0; f < t.size(); ++f) {
        for (int i = 0; i < 3; ++i)
            poseDiff = std::max(poseDiff, std::abs(t[f][i] - c.t[f][i]));
    }
    state.counters["cost"] = cost;
    state.counters["ours_cost"] = ours;
    state.counters["rel_diff"] = (ours - cost) / cost;
    state.counters["min_cost"] = minimum;
    state.counters["ours_rel_min"] = (ours - minimum) / minimum;
    state.counters["ceres_rel_min"] = (cost - minimum) / minimum;
    state.counters["max_shift_mm"] = poseDiff;
    state.counters["iterations"] = static_cast<double>(s.iterations.size());
    state.counters["solver_ms"] = s.total_time_in_seconds * 1e3;
    state.counters["sparse_schur"] = s.linear_solver_type_used == ceres::SPARSE_SCHUR;
    state.counters["converged"] = s.termination_type == ceres::CONVERGENCE;
}

}  // namespace

BENCHMARK(BM_Optimiser_Ours)->Arg(30)->Arg(150)->Unit(benchmark::kMillisecond)->Iterations(5);
// Arguments: markers per frame; 0 sparse Schur, 1 iterative Schur.
BENCHMARK(BM_Optimiser_Ceres)
    ->Args({30, 0})
    ->Args({30, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);
BENCHMARK(BM_Optimiser_Ceres)
    ->Args({150, 0})
    ->Args({150, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

BENCHMARK_MAIN();
