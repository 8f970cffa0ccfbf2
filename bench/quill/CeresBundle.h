// The optimiser's bundle problem rebuilt for Ceres Solver: the data (a walk over a part
// registered frame by frame by the real-time matcher), the same observations our optimiser
// refines, and the same cost, so that both solvers' results can be evaluated by one function.
//
// Unknowns: every frame pose (R_f, t_f) and every marker X_j seen in at least two frames;
// residual R_f p_fj + t_f - X_j per observation; the first frame with three such markers held
// fixed (our optimiser's gauge). Ceres: quaternion (on its manifold) and translation per frame,
// automatic derivatives, Levenberg-Marquardt with the Schur complement (markers eliminated),
// one thread.
#pragma once

#include <ceres/ceres.h>
#include <ceres/rotation.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "BenchMarks.h"
#include "quill/Quill.h"
#include "sim/MarkerScene.h"

namespace bench {

struct BundleObservation {
    int frame;   // recorded frame
    int marker;  // library index
    Eigen::Vector3d local;
};

struct Bundle {
    sim::MarkerScene scene;
    Quill::MyRealTimeMarkMatch_class rt;
    std::vector<Eigen::Matrix4d> rts;  // the matcher's poses: the start of both solvers
    std::vector<BundleObservation> obs;
    std::vector<int> frames;  // per library marker: frames that saw it
    int gaugeFrame = -1;
    int looseFrames = 0;  // frames with fewer than three solved markers
    int seenOnce = 0;     // markers of one observation that the matcher never named
    std::string error;    // not empty when the rebuilt observations disagree with ours

    // A walk of `frameCount` frames of `visible` markers over a part of `partMarkers`.
    // `outlierMm`: the first marker of the middle frame is observed that far off along x (an
    // outlier for the optimiser's gate, still near enough for the matcher).
    explicit Bundle(int visible, int frameCount = 500, int partMarkers = 300,
                    double outlierMm = 0.0)
        : scene(sim::MarkerScene::randomPart(partMarkers, 701)) {
        sim::FrameGenerator gen(scene, 702);
        sim::FrameOptions o;
        o.visible = visible;
        o.noiseSigma = 0.02;
        std::vector<sim::Frame> walk = gen.walk(frameCount, o, 15.0, 1.0);
        if (outlierMm != 0.0 && !walk.empty() && !walk[walk.size() / 2].markers.empty())
            walk[walk.size() / 2].markers[0].position.x() += outlierMm;
        rt.init_all(30000, 5000, 1);
        trackerSettings(*rt.get_mark_match(0));
        // Frame markers by the scene marker they are; library index by scene marker.
        std::vector<std::vector<Quill::mark_data>> recorded;
        std::vector<std::vector<int>> truths;
        std::map<int, int> libOf;
        for (const auto& f : walk) {
            std::vector<Quill::mark_data> marks;
            std::vector<int> truth;
            for (const auto& m : f.markers) {
                marks.push_back(toMark(m.position, m.normal, m.truth));
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
        // Same data as ours: every marker seen by as many frames as our optimiser counts. A
        // marker that one frame added and no later frame matched is never named by the
        // matcher (its only frame flags it -1): it is missing here, and left out by both
        // solvers alike (one observation fixes nothing).
        Quill::MarkOpt_class opt;
        auto poses = rts;
        opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            rt.get_mark_match(0), poses, static_cast<int>(poses.size()), 0.1f, 150);
        int count = 0;
        const Quill::mcXYZ_Nor_s* out = opt.get_Mark_data(count);
        if (count < libSize) {
            error = "library sizes differ: " + std::to_string(count) + " against " +
                    std::to_string(libSize);
        }
        frames.resize(static_cast<std::size_t>(std::max(count, libSize)), 0);
        for (int j = 0; j < count; ++j) {
            const int theirs = static_cast<int>(out[j].frames);
            const int mine = frames[static_cast<std::size_t>(j)];
            if (mine == 0 && theirs == 1)
                ++seenOnce;
            else if (mine != theirs)
                error = "marker " + std::to_string(j) + " has other observations";
        }
    }

    bool solved(int j) const { return frames[static_cast<std::size_t>(j)] >= 2; }
};

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
inline std::vector<Eigen::Matrix4d> alignedToGauge(const Bundle& b,
                                                   std::vector<Eigen::Matrix4d> poses) {
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
inline int gatedAt(const Bundle& b, const std::vector<Eigen::Matrix4d>& poses) {
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

}  // namespace bench
