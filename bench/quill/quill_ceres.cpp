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

#include <ceres/ceres.h>
#include <ceres/rotation.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchMarks.h"
#include "quill/Quill.h"
#include "sim/MarkerScene.h"

namespace {

struct Observation {
    int frame;   // recorded frame
    int marker;  // library index
    Eigen::Vector3d local;
};

struct Bundle {
    sim::MarkerScene scene;
    Quill::MyRealTimeMarkMatch_class rt;
    std::vector<Eigen::Matrix4d> rts;  // the matcher's poses: the start of both solvers
    std::vector<Observation> obs;
    std::vector<int> frames;  // per library marker: frames that saw it
    int gaugeFrame = -1;
    int looseFrames = 0;  // frames with fewer than three solved markers
    std::string error;    // not empty when the rebuilt observations disagree with ours

    explicit Bundle(int visible) : scene(sim::MarkerScene::randomPart(300, 701)) {
        sim::FrameGenerator gen(scene, 702);
        sim::FrameOptions o;
        o.visible = visible;
        o.noiseSigma = 0.02;
        const std::vector<sim::Frame> walk = gen.walk(500, o, 15.0, 1.0);
        rt.init_all(30000, 5000, 1);
        bench::trackerSettings(*rt.get_mark_match(0));
        // Frame markers by the scene marker they are; library index by scene marker.
        std::vector<std::vector<Quill::mark_data>> recorded;
        std::vector<std::vector<int>> truths;
        std::map<int, int> libOf;
        for (const auto& f : walk) {
            std::vector<Quill::mark_data> marks;
            std::vector<int> truth;
            for (const auto& m : f.markers) {
                marks.push_back(bench::toMark(m.position, m.normal, m.truth));
                truth.push_back(m.truth);
            }
            std::vector<Quill::mark_data> kept = marks;
            if (rt.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), 0) != 1)
                continue;
            const std::vector<int> flags = rt.get_final_match_flag();
            for (std::size_t k = 0; k < flags.size() && k < truth.size(); ++k) {
                if (flags[k] < 0)
                    continue;
                const auto it = libOf.emplace(truth[k], flags[k]).first;
                if (it->second != flags[k])
                    error = "a scene marker matched two library markers";
            }
            recorded.push_back(std::move(kept));
            truths.push_back(std::move(truth));
        }
        rts = rt.get_final_rt_array(0);
        if (rts.size() != recorded.size())
            error = "recorded frames and transforms differ in number";
        int libSize = 0;
        for (const auto& e : libOf)
            libSize = std::max(libSize, e.second + 1);
        frames.assign(static_cast<std::size_t>(libSize), 0);
        for (std::size_t f = 0; f < recorded.size(); ++f) {
            for (std::size_t k = 0; k < recorded[f].size(); ++k) {
                const auto it = libOf.find(truths[f][k]);
                if (it == libOf.end())
                    continue;
                const Quill::mark_data& m = recorded[f][k];
                obs.push_back({static_cast<int>(f), it->second, Eigen::Vector3d(m.x, m.y, m.z)});
                ++frames[static_cast<std::size_t>(it->second)];
            }
        }
        std::vector<int> solvedIn(recorded.size(), 0);
        for (const auto& ob : obs) {
            if (solved(ob.marker))
                ++solvedIn[static_cast<std::size_t>(ob.frame)];
        }
        for (std::size_t f = 0; f < solvedIn.size(); ++f) {
            if (solvedIn[f] < 3)
                ++looseFrames;
            else if (gaugeFrame < 0)
                gaugeFrame = static_cast<int>(f);
        }
        // Same data as ours: every marker seen by as many frames as our optimiser counts.
        Quill::MarkOpt_class opt;
        auto poses = rts;
        opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            rt.get_mark_match(0), poses, static_cast<int>(poses.size()), 0.1f, 150);
        int count = 0;
        const Quill::mcXYZ_Nor_s* out = opt.get_Mark_data(count);
        if (count != libSize) {
            error = "library sizes differ: " + std::to_string(count) + " against " +
                    std::to_string(libSize);
        }
        for (int j = 0; j < std::min(count, libSize); ++j) {
            if (static_cast<int>(out[j].frames) != frames[static_cast<std::size_t>(j)])
                error = "marker " + std::to_string(j) + " has other observations";
        }
    }

    bool solved(int j) const { return frames[static_cast<std::size_t>(j)] >= 2; }
};

Bundle& bundle(int visible) {
    static std::map<int, std::unique_ptr<Bundle>> cache;
    auto& b = cache[visible];
    if (!b)
        b = std::make_unique<Bundle>(visible);
    return *b;
}

// R(q) p + t - X, quaternion in Ceres's order (w, x, y, z).
struct ObservationResidual {
    explicit ObservationResidual(const Eigen::Vector3d& p) : p_(p) {}
    template <typename T>
    bool operator()(const T* q, const T* t, const T* X, T* r) const {
        const T p[3] = {T(p_.x()), T(p_.y()), T(p_.z())};
        T rp[3];
        ceres::UnitQuaternionRotatePoint(q, p, rp);
        for (int i = 0; i < 3; ++i)
            r[i] = rp[i] + t[i] - X[i];
        return true;
    }
    Eigen::Vector3d p_;
};

// The Ceres side: parameters in arrays of its own, set from poses (markers as the means of
// their transformed observations, which is also where ours puts them for given poses).
struct CeresBundle {
    std::vector<std::array<double, 4>> q;
    std::vector<std::array<double, 3>> t;
    std::vector<std::array<double, 3>> X;
    ceres::Problem problem;

    explicit CeresBundle(const Bundle& b) : q(b.rts.size()), t(b.rts.size()), X(b.frames.size()) {
        setFrom(b, b.rts);
        for (std::size_t f = 0; f < t.size(); ++f) {
            problem.AddParameterBlock(q[f].data(), 4, new ceres::QuaternionManifold());
            problem.AddParameterBlock(t[f].data(), 3);
        }
        for (const auto& o : b.obs) {
            if (!b.solved(o.marker))
                continue;
            const auto f = static_cast<std::size_t>(o.frame);
            problem.AddResidualBlock(
                new ceres::AutoDiffCostFunction<ObservationResidual, 3, 4, 3, 3>(
                    new ObservationResidual(o.local)),
                nullptr, q[f].data(), t[f].data(), X[static_cast<std::size_t>(o.marker)].data());
        }
        if (b.gaugeFrame >= 0) {
            problem.SetParameterBlockConstant(q[static_cast<std::size_t>(b.gaugeFrame)].data());
            problem.SetParameterBlockConstant(t[static_cast<std::size_t>(b.gaugeFrame)].data());
        }
    }

    void setFrom(const Bundle& b, const std::vector<Eigen::Matrix4d>& poses) {
        for (std::size_t f = 0; f < poses.size(); ++f) {
            const Eigen::Quaterniond r(Eigen::Matrix3d(poses[f].topLeftCorner<3, 3>()));
            q[f] = {r.w(), r.x(), r.y(), r.z()};
            t[f] = {poses[f](0, 3), poses[f](1, 3), poses[f](2, 3)};
        }
        std::vector<Eigen::Vector3d> sum(X.size(), Eigen::Vector3d::Zero());
        for (const auto& o : b.obs) {
            const Eigen::Matrix4d& T = poses[static_cast<std::size_t>(o.frame)];
            sum[static_cast<std::size_t>(o.marker)] +=
                T.topLeftCorner<3, 3>() * o.local + T.topRightCorner<3, 1>();
        }
        for (std::size_t j = 0; j < X.size(); ++j) {
            const Eigen::Vector3d m =
                b.frames[j] > 0 ? Eigen::Vector3d(sum[j] / b.frames[j]) : Eigen::Vector3d::Zero();
            X[j] = {m.x(), m.y(), m.z()};
        }
    }

    double cost() {
        double c = 0.0;
        problem.Evaluate(ceres::Problem::EvaluateOptions(), &c, nullptr, nullptr, nullptr);
        return c;
    }

    // Sparse Schur complement (where a sparse library is there), or conjugate gradients on the
    // Schur complement with its block diagonal as preconditioner (what ours does). `tight`:
    // tolerances far below the defaults, to see where the minimum is.
    ceres::Solver::Summary solve(const Bundle& b, bool iterative, bool tight = false) {
        ceres::Solver::Options o;
        o.linear_solver_type = ceres::SPARSE_SCHUR;
        if (iterative || !ceres::IsSparseLinearAlgebraLibraryTypeAvailable(
                             o.sparse_linear_algebra_library_type)) {
            o.linear_solver_type = ceres::ITERATIVE_SCHUR;
            o.preconditioner_type = ceres::SCHUR_JACOBI;
        }
        if (tight) {
            o.function_tolerance = 1e-14;
            o.gradient_tolerance = 1e-16;
            o.parameter_tolerance = 1e-14;
        }
        o.num_threads = 1;
        o.max_num_iterations = 150;
        auto* order = new ceres::ParameterBlockOrdering;
        for (std::size_t j = 0; j < X.size(); ++j) {
            if (b.solved(static_cast<int>(j)))
                order->AddElementToGroup(X[j].data(), 0);
        }
        for (std::size_t f = 0; f < t.size(); ++f) {
            order->AddElementToGroup(q[f].data(), 1);
            order->AddElementToGroup(t[f].data(), 1);
        }
        o.linear_solver_ordering.reset(order);
        ceres::Solver::Summary s;
        ceres::Solve(o, &problem, &s);
        return s;
    }
};

// Our poses moved rigidly so that the held frame coincides with its start.
std::vector<Eigen::Matrix4d> alignedToGauge(const Bundle& b, std::vector<Eigen::Matrix4d> poses) {
    if (b.gaugeFrame < 0)
        return poses;
    const auto g = static_cast<std::size_t>(b.gaugeFrame);
    const Eigen::Matrix4d G = b.rts[g] * poses[g].inverse();
    for (auto& T : poses)
        T = G * T;
    return poses;
}

// How many observations our gate (5 robust standard deviations, never below 0.02 mm) leaves
// out at the given poses.
int gatedAt(const Bundle& b, const std::vector<Eigen::Matrix4d>& poses) {
    std::vector<Eigen::Vector3d> sum(b.frames.size(), Eigen::Vector3d::Zero());
    for (const auto& o : b.obs) {
        const Eigen::Matrix4d& T = poses[static_cast<std::size_t>(o.frame)];
        sum[static_cast<std::size_t>(o.marker)] +=
            T.topLeftCorner<3, 3>() * o.local + T.topRightCorner<3, 1>();
    }
    std::vector<double> r;
    for (const auto& o : b.obs) {
        if (!b.solved(o.marker))
            continue;
        const Eigen::Matrix4d& T = poses[static_cast<std::size_t>(o.frame)];
        const auto j = static_cast<std::size_t>(o.marker);
        r.push_back(
            (T.topLeftCorner<3, 3>() * o.local + T.topRightCorner<3, 1>() - sum[j] / b.frames[j])
                .norm());
    }
    std::vector<double> sorted = r;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(r.size() / 2),
                     sorted.end());
    const double gate = std::max(0.02, 5.0 * sorted[r.size() / 2] / 1.54);
    return static_cast<int>(std::count_if(r.begin(), r.end(), [&](double v) { return v > gate; }));
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
