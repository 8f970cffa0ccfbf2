#include "quill/MarkOpt_class.h"

#include <Eigen/Cholesky>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>

#include "Geometry.h"
#include "MatcherState.h"

namespace Quill {

namespace {

// Observations farther than this many robust standard deviations from their marker are
// left out of the next iteration (and may come back when the model moves).
constexpr double kGateSigmas = 5.0;
// ... but never gate below this residual (mm): tiny noise must not shed good observations.
constexpr double kMinGate = 0.02;
// Levenberg-Marquardt damping of the pose system: lambda times its diagonal, plus a small
// absolute term. Lambda starts (and is floored) at kDampRel, where the step is the plain
// Gauss-Newton step; a step that raises the cost is taken back and lambda grows tenfold
// (shorter steps, turning towards gradient descent); an accepted step shrinks it tenfold.
constexpr double kDampRel = 1e-9;
constexpr double kDampAbs = 1e-12;
constexpr double kLambdaGrowth = 10.0;
constexpr double kLambdaMax = 1e8;
// Conjugate-gradient limits of one Gauss-Newton step.
constexpr int kMaxCgIterations = 400;
constexpr double kCgTolerance = 1e-10;  // on the preconditioned residual, relative
// Frames of the coarse level, grouped into this many rigid groups.
constexpr int kCoarseGroups = 32;
// ... of at least this many frames each (a level as fine as the frames themselves would be the
// whole system again).
constexpr int kFramesPerGroup = 8;

using Mat6 = Eigen::Matrix<double, 6, 6>;

// A transformed point q moves under a small left perturbation (rotation w, shift u) of its
// frame's pose as q -> q + w x q + u: its Jacobian J is [ -[q]x  I ].
// Weighted moments of transformed points are enough for the 6 x 6 normal block of a pose:
// for one point q, J^T J = [ |q|^2 I - q q^T   [q]x ]
//                          [ -[q]x              I   ].
struct PointMoments {
    double n = 0.0;
    Eigen::Vector3d s = Eigen::Vector3d::Zero();
    Eigen::Matrix3d ss = Eigen::Matrix3d::Zero();

    void add(const Eigen::Vector3d& q, double w) {
        n += w;
        s += w * q;
        ss.noalias() += (w * q) * q.transpose();
    }
    void add(const PointMoments& o) {
        n += o.n;
        s += o.s;
        ss += o.ss;
    }
    Mat6 normal() const {
        Mat6 N;
        N.topLeftCorner<3, 3>() = ss.trace() * Eigen::Matrix3d::Identity() - ss;
        N.topRightCorner<3, 3>() = crossMatrix(s);
        N.bottomLeftCorner<3, 3>() = -crossMatrix(s);
        N.bottomRightCorner<3, 3>() = n * Eigen::Matrix3d::Identity();
        return N;
    }
    static Eigen::Matrix3d crossMatrix(const Eigen::Vector3d& v) {
        Eigen::Matrix3d C;
        C << 0.0, -v.z(), v.y(),  //
            v.z(), 0.0, -v.x(),   //
            -v.y(), v.x(), 0.0;
        return C;
    }
};

// (sum of J over a's points)^T (sum of J over b's points), where the sum of J over points with
// sum s and count n is [ -[s]x  n I ], written in the entries of C = [s_a; n_a] [s_b; n_b]^T
// (linear in C, so sums of such products turn into sums of blocks):
//   [ (s_a . s_b) I - s_b s_a^T   n_b [s_a]x ]
//   [ -n_a [s_b]x                 n_a n_b I  ]
Mat6 couplingBlock(const Eigen::Matrix4d& C) {
    Mat6 P;
    P.topLeftCorner<3, 3>() = C.topLeftCorner<3, 3>().trace() * Eigen::Matrix3d::Identity() -
                              C.topLeftCorner<3, 3>().transpose();
    P.topRightCorner<3, 3>() = PointMoments::crossMatrix(C.block<3, 1>(0, 3));
    P.bottomLeftCorner<3, 3>() = -PointMoments::crossMatrix(C.block<1, 3>(3, 0).transpose());
    P.bottomRightCorner<3, 3>() = C(3, 3) * Eigen::Matrix3d::Identity();
    return P;
}

// A marker taking part in the current step, and 1 / the number of its used observations.
struct Run {
    int marker;
    double inv;
};

// An observation in a variable frame, in frame order: its transformed point and marker.
struct FrameObs {
    Eigen::Vector3d q;
    int marker;
};

// Everything a run allocates in proportion to the problem, kept by the optimiser between runs:
// a second run of a similar size allocates nothing and touches no fresh memory.
struct Workspace {
    std::vector<detail::Observation> obs;
    std::vector<int> start, fill, frames, var, group, touched, solvedObs;
    std::vector<Eigen::Matrix3d> R, savedR;
    std::vector<Eigen::Vector3d> t, savedT, X, transformedObs;
    std::vector<unsigned char> use;
    std::vector<double> res, gate;
    std::vector<Mat6> pre, full;
    std::vector<PointMoments> frameMoments, fullMoments, groupMoments, markerInGroup;
    std::vector<Run> runs;
    std::vector<FrameObs> frameObs;
    std::vector<int> frameStart;
    std::vector<Eigen::Vector3d> markerSum;
    Eigen::VectorXd g, damp, rc, zc, x, r, z, p, Ap;
    std::vector<Eigen::Matrix4d> coupling;
    Eigen::MatrixXd coarse;
};

// The joint problem: every marker j seen in frames f at local positions p_fj; unknowns are
// the frame poses (R_f, t_f) and the marker positions X_j; the cost is
//   sum over observations of |R_f p_fj + t_f - X_j|^2.
// For given poses the best X_j is the mean of its transformed observations, so X is
// eliminated and Gauss-Newton runs on the poses alone: the reduced normal matrix couples two
// frames through every marker both see. That 6F x 6F system is solved by conjugate gradients
// without ever forming it (each product costs one pass over the observations), with a
// two-level preconditioner (see gaussNewtonStep): the cost grows with the observations, not
// with the square of the frames.
class Bundle {
public:
    Bundle(const detail::MatcherState& g, int frameCount, std::vector<Eigen::Matrix4d>& frames,
           Workspace& w)
        : w_(w), lib_(g.lib), F_(frameCount), M_(g.lib.slots()) {
        // The usable observations, grouped by marker (a counting sort keeps each marker's
        // frames in order); every pass below then walks them in this order.
        start_.assign(static_cast<std::size_t>(M_) + 1, 0);
        auto usable = [&](const detail::Observation& o) {
            return o.frame >= 0 && o.frame < F_ && o.marker >= 0 && o.marker < M_ &&
                   lib_.alive[static_cast<std::size_t>(o.marker)];
        };
        for (const auto& o : g.obs) {
            if (usable(o))
                ++start_[static_cast<std::size_t>(o.marker) + 1];
        }
        for (int j = 0; j < M_; ++j)
            start_[static_cast<std::size_t>(j) + 1] += start_[static_cast<std::size_t>(j)];
        obs_.resize(static_cast<std::size_t>(start_.back()));
        std::vector<int>& fill = w_.fill;
        fill.assign(start_.begin(), start_.end() - 1);
        for (const auto& o : g.obs) {
            if (usable(o))
                obs_[static_cast<std::size_t>(fill[static_cast<std::size_t>(o.marker)]++)] = o;
        }
        frames_.assign(static_cast<std::size_t>(M_), 0);
        for (int j = 0; j < M_; ++j) {
            int last = -1;
            for (int a = start_[static_cast<std::size_t>(j)];
                 a < start_[static_cast<std::size_t>(j) + 1]; ++a) {
                const int f = obs_[static_cast<std::size_t>(a)].frame;
                if (f != last)
                    ++frames_[static_cast<std::size_t>(j)];
                last = f;
            }
        }
        R_.resize(static_cast<std::size_t>(F_));
        t_.resize(static_cast<std::size_t>(F_));
        for (int f = 0; f < F_; ++f) {
            R_[static_cast<std::size_t>(f)] =
                frames[static_cast<std::size_t>(f)].topLeftCorner<3, 3>();
            t_[static_cast<std::size_t>(f)] =
                frames[static_cast<std::size_t>(f)].topRightCorner<3, 1>();
        }
        X_.assign(lib_.pos.begin(), lib_.pos.end());
        use_.assign(obs_.size(), 1);
        res_.assign(obs_.size(), 0.0);
    }

    bool solved(int j) const {
        return lib_.alive[static_cast<std::size_t>(j)] && frames_[static_cast<std::size_t>(j)] >= 2;
    }
    int solvedCount() const {
        int n = 0;
        for (int j = 0; j < M_; ++j)
            n += solved(j) ? 1 : 0;
        return n;
    }

    // Marker positions from the poses, residuals, and the sum of squares of the used ones.
    double updateMarkers() {
        std::vector<Eigen::Vector3d>& q = transformed_;
        q.resize(obs_.size());
        double sse = 0.0;
        for (int j = 0; j < M_; ++j) {
            const int begin = start_[static_cast<std::size_t>(j)];
            const int end = start_[static_cast<std::size_t>(j) + 1];
            Eigen::Vector3d sum = Eigen::Vector3d::Zero();
            int cnt = 0;
            for (int a = begin; a < end; ++a) {
                const auto k = static_cast<std::size_t>(a);
                q[k] = transformed(k);
                if (use_[k]) {
                    sum += q[k];
                    ++cnt;
                }
            }
            Eigen::Vector3d& X = X_[static_cast<std::size_t>(j)];
            if (cnt > 0)
                X = sum / cnt;
            const bool counts = solved(j);
            for (int a = begin; a < end; ++a) {
                const auto k = static_cast<std::size_t>(a);
                res_[k] = (q[k] - X).norm();
                if (use_[k] && counts)
                    sse += res_[k] * res_[k];
            }
        }
        return sse;
    }

    // Re-decides which observations take part, from the robust scale of the residuals; true
    // when any observation changed sides (the markers then need updating).
    bool updateGate() {
        std::vector<double>& r = w_.gate;
        r.clear();
        for (std::size_t k = 0; k < obs_.size(); ++k) {
            if (use_[k] && solved(obs_[k].marker))
                r.push_back(res_[k]);
        }
        if (r.empty())
            return false;
        const auto mid = r.begin() + static_cast<std::ptrdiff_t>(r.size() / 2);
        std::nth_element(r.begin(), mid, r.end());
        // The median length of a 3D Gaussian residual is about 1.54 standard deviations.
        const double gate = std::max(kMinGate, kGateSigmas * (*mid / 1.54));
        bool changed = false;
        for (std::size_t k = 0; k < obs_.size(); ++k) {
            const unsigned char use = res_[k] <= gate ? 1 : 0;
            changed = changed || use != use_[k];
            use_[k] = use;
        }
        return changed;
    }

    bool setupSystem();
    bool gaussNewtonStep(double lambda);
    void refitLooseFrames();

    // Keeps the poses, or goes back to the kept ones (a rejected step); updateMarkers then
    // restores the markers and residuals.
    void savePoses() {
        savedR_ = R_;
        savedT_ = t_;
    }
    void restorePoses() {
        R_.swap(savedR_);
        t_.swap(savedT_);
    }

    void finish(std::vector<Eigen::Matrix4d>& frames, std::vector<mcXYZ_Nor_s>& out, double& rms);

private:
    Eigen::Vector3d transformed(std::size_t k) const {
        const auto f = static_cast<std::size_t>(obs_[k].frame);
        return R_[f] * obs_[k].local + t_[f];
    }

    Workspace& w_;
    const detail::MarkerLibrary& lib_;
    const int F_;
    const int M_;
    std::vector<detail::Observation>& obs_ = w_.obs;  // by marker
    std::vector<int>& start_ = w_.start;
    std::vector<int>& frames_ = w_.frames;
    std::vector<Eigen::Matrix3d>& R_ = w_.R;
    std::vector<Eigen::Vector3d>& t_ = w_.t;
    std::vector<Eigen::Matrix3d>& savedR_ = w_.savedR;
    std::vector<Eigen::Vector3d>& savedT_ = w_.savedT;
    std::vector<Eigen::Vector3d>& X_ = w_.X;
    std::vector<unsigned char>& use_ = w_.use;
    std::vector<double>& res_ = w_.res;
    // Each observation transformed by its frame's pose, from the last updateMarkers (the
    // poses have not moved since when a step is set up).
    std::vector<Eigen::Vector3d>& transformed_ = w_.transformedObs;

    // Pose system.
    void multiply(const Eigen::VectorXd& x, Eigen::VectorXd& y) const;
    std::vector<int>& var_ = w_.var;  // frame -> variable block, or -1 (held fixed)
    int nVar_ = 0;
    // The markers taking part in the current step, and their used observations in variable
    // frames, by frame.
    std::vector<Run>& runs_ = w_.runs;
    std::vector<FrameObs>& frameObs_ = w_.frameObs;
    std::vector<int>& frameStart_ = w_.frameStart;  // variable block -> first in frameObs_
    std::vector<Mat6>& full_ = w_.full;             // per frame: sum of J^T J over its observations
    std::vector<int>& group_ = w_.group;            // variable block -> coarse group
    std::vector<Mat6>& pre_ = w_.pre;               // inverse damped diagonal blocks
};

bool Bundle::setupSystem() {
    // Frames with fewer than three solved markers cannot hold a pose on their own; they and
    // the first well-observed frame (which fixes the gauge) stay out of the system.
    std::vector<int>& solvedObs = w_.solvedObs;
    solvedObs.assign(static_cast<std::size_t>(F_), 0);
    for (const auto& o : obs_) {
        if (solved(o.marker))
            ++solvedObs[static_cast<std::size_t>(o.frame)];
    }
    var_.assign(static_cast<std::size_t>(F_), -1);
    bool gaugeFixed = false;
    for (int f = 0; f < F_; ++f) {
        if (solvedObs[static_cast<std::size_t>(f)] < 3)
            continue;
        if (!gaugeFixed) {
            gaugeFixed = true;
            continue;
        }
        var_[static_cast<std::size_t>(f)] = nVar_++;
    }
    return true;
}

void Bundle::multiply(const Eigen::VectorXd& x, Eigen::VectorXd& y) const {
    // H = D - sum over markers of (1/k) S S^T, where D holds each frame's sum of J^T J and
    // S^T x = sum over the marker's observations of J x (for a transformed point q,
    // J (w, u) = w x q + u and J^T s = (q x s, s)). Both passes run frame by frame, so a
    // frame's block of x and y stays in registers and only the marker sums are scattered.
    std::vector<Eigen::Vector3d>& sum = w_.markerSum;
    sum.assign(static_cast<std::size_t>(M_), Eigen::Vector3d::Zero());
    for (int v = 0; v < nVar_; ++v) {
        const Eigen::Vector3d w = x.segment<3>(6 * v);
        const Eigen::Vector3d u = x.segment<3>(6 * v + 3);
        for (int a = frameStart_[static_cast<std::size_t>(v)];
             a < frameStart_[static_cast<std::size_t>(v) + 1]; ++a) {
            const FrameObs& o = frameObs_[static_cast<std::size_t>(a)];
            sum[static_cast<std::size_t>(o.marker)] += w.cross(o.q) + u;
        }
    }
    for (const Run& run : runs_)
        sum[static_cast<std::size_t>(run.marker)] *= run.inv;
    y.resize(x.size());
    for (int v = 0; v < nVar_; ++v) {
        Eigen::Vector3d rot = Eigen::Vector3d::Zero();
        Eigen::Vector3d shift = Eigen::Vector3d::Zero();
        for (int a = frameStart_[static_cast<std::size_t>(v)];
             a < frameStart_[static_cast<std::size_t>(v) + 1]; ++a) {
            const FrameObs& o = frameObs_[static_cast<std::size_t>(a)];
            const Eigen::Vector3d& m = sum[static_cast<std::size_t>(o.marker)];
            rot += o.q.cross(m);
            shift += m;
        }
        y.segment<6>(6 * v).noalias() = full_[static_cast<std::size_t>(v)] * x.segment<6>(6 * v);
        y.segment<3>(6 * v) -= rot;
        y.segment<3>(6 * v + 3) -= shift;
    }
}

bool Bundle::gaussNewtonStep(double lambda) {
    if (nVar_ == 0)
        return false;
    // Two-level preconditioner. Fine level: each frame's own 6 x 6 block of the reduced
    // matrix. Coarse level: consecutive variable frames grouped, each group moving as one
    // rigid body; the reduced matrix restricted to those motions is small and solved exactly.
    // The block-diagonal level alone leaves the slow modes of a long scan (the whole chain
    // bending or sliding) to the iteration; the coarse level removes them.
    const int groups = std::max(1, std::min(nVar_ / kFramesPerGroup, kCoarseGroups));
    group_.resize(static_cast<std::size_t>(nVar_));
    for (int v = 0; v < nVar_; ++v)
        group_[static_cast<std::size_t>(v)] =
            static_cast<int>((static_cast<long long>(v) * groups) / nVar_);
    Eigen::VectorXd& g = w_.g;
    g.setZero(6 * nVar_);
    std::vector<PointMoments>& frameMoments = w_.frameMoments;
    frameMoments.assign(static_cast<std::size_t>(nVar_), PointMoments());
    std::vector<PointMoments>& fullMoments = w_.fullMoments;
    fullMoments.assign(static_cast<std::size_t>(nVar_), PointMoments());
    runs_.clear();
    std::vector<PointMoments>& groupMoments = w_.groupMoments;
    groupMoments.assign(static_cast<std::size_t>(groups), PointMoments());
    // Coupling of two groups through the markers both saw, kept as sums of
    // (1/k) [s_a; n_a] [s_b; n_b]^T (point sums and counts of each group's observations of a
    // marker) and turned into 6 x 6 blocks once at the end.
    std::vector<Eigen::Matrix4d>& coupling = w_.coupling;
    coupling.assign(static_cast<std::size_t>(groups) * static_cast<std::size_t>(groups),
                    Eigen::Matrix4d::Zero());
    // Per marker: the groups its observations fall in, with their count and point sum.
    std::vector<int>& touched = w_.touched;
    std::vector<PointMoments>& markerInGroup = w_.markerInGroup;
    markerInGroup.assign(static_cast<std::size_t>(groups), PointMoments());
    // Observations per variable frame, for the frame-ordered copy below.
    frameStart_.assign(static_cast<std::size_t>(nVar_) + 1, 0);
    // The variable block of observation a when it takes part in this step, else -1.
    const auto stepVar = [&](int a) {
        const auto o = static_cast<std::size_t>(a);
        return use_[o] ? var_[static_cast<std::size_t>(obs_[o].frame)] : -1;
    };
    for (int j = 0; j < M_; ++j) {
        if (!solved(j))
            continue;
        const int begin = start_[static_cast<std::size_t>(j)];
        const int end = start_[static_cast<std::size_t>(j) + 1];
        int k = 0;
        const Eigen::Vector3d& X = X_[static_cast<std::size_t>(j)];
        for (int a = begin; a < end; ++a) {
            if (!use_[static_cast<std::size_t>(a)])
                continue;
            ++k;
            const int v = stepVar(a);
            if (v >= 0) {
                // J^T r = (q x r, r) for the residual r = q - X.
                const Eigen::Vector3d& q = transformed_[static_cast<std::size_t>(a)];
                const Eigen::Vector3d r = q - X;
                g.segment<3>(6 * v) += q.cross(r);
                g.segment<3>(6 * v + 3) += r;
            }
        }
        if (k == 0)
            continue;
        const double inv = 1.0 / k;
        runs_.push_back({j, inv});
        touched.clear();
        for (int a = begin; a < end; ++a) {
            const int v = stepVar(a);
            if (v < 0)
                continue;
            const Eigen::Vector3d& q = transformed_[static_cast<std::size_t>(a)];
            ++frameStart_[static_cast<std::size_t>(v) + 1];
            frameMoments[static_cast<std::size_t>(v)].add(q, 1.0 - inv);
            fullMoments[static_cast<std::size_t>(v)].add(q, 1.0);
            const int gr = group_[static_cast<std::size_t>(v)];
            PointMoments& m = markerInGroup[static_cast<std::size_t>(gr)];
            if (m.n == 0.0)
                touched.push_back(gr);
            m.n += 1.0;
            m.s += q;
        }
        // The marker's centring couples every pair of groups it was seen from.
        for (int ga : touched) {
            const PointMoments& ma = markerInGroup[static_cast<std::size_t>(ga)];
            const Eigen::Vector4d ea(inv * ma.s.x(), inv * ma.s.y(), inv * ma.s.z(), inv * ma.n);
            for (int gb : touched) {
                const PointMoments& mb = markerInGroup[static_cast<std::size_t>(gb)];
                const Eigen::Vector4d eb(mb.s.x(), mb.s.y(), mb.s.z(), mb.n);
                coupling[static_cast<std::size_t>(ga * groups + gb)].noalias() +=
                    ea * eb.transpose();
            }
        }
        for (int ga : touched)
            markerInGroup[static_cast<std::size_t>(ga)] = PointMoments();
    }
    // The same observations grouped by frame (counting sort), for the products.
    for (int v = 0; v < nVar_; ++v)
        frameStart_[static_cast<std::size_t>(v) + 1] += frameStart_[static_cast<std::size_t>(v)];
    frameObs_.resize(static_cast<std::size_t>(frameStart_.back()));
    {
        std::vector<int>& fill = w_.fill;
        fill.assign(frameStart_.begin(), frameStart_.end() - 1);
        for (const Run& run : runs_) {
            for (int a = start_[static_cast<std::size_t>(run.marker)];
                 a < start_[static_cast<std::size_t>(run.marker) + 1]; ++a) {
                const int v = stepVar(a);
                if (v >= 0)
                    frameObs_[static_cast<std::size_t>(fill[static_cast<std::size_t>(v)]++)] = {
                        transformed_[static_cast<std::size_t>(a)], run.marker};
            }
        }
    }
    Eigen::MatrixXd& coarse = w_.coarse;
    coarse.resize(6 * groups, 6 * groups);
    for (int ga = 0; ga < groups; ++ga) {
        for (int gb = 0; gb < groups; ++gb)
            coarse.block<6, 6>(6 * ga, 6 * gb) =
                -couplingBlock(coupling[static_cast<std::size_t>(ga * groups + gb)]);
    }
    for (int v = 0; v < nVar_; ++v)
        groupMoments[static_cast<std::size_t>(group_[static_cast<std::size_t>(v)])].add(
            fullMoments[static_cast<std::size_t>(v)]);
    for (int gr = 0; gr < groups; ++gr)
        coarse.block<6, 6>(6 * gr, 6 * gr) += groupMoments[static_cast<std::size_t>(gr)].normal();
    // Damped diagonal blocks: the fine level, and the damping the system carries too.
    pre_.resize(static_cast<std::size_t>(nVar_));
    full_.resize(static_cast<std::size_t>(nVar_));
    Eigen::VectorXd& damp = w_.damp;
    damp.resize(6 * nVar_);
    for (int v = 0; v < nVar_; ++v) {
        full_[static_cast<std::size_t>(v)] = fullMoments[static_cast<std::size_t>(v)].normal();
        Mat6 d = frameMoments[static_cast<std::size_t>(v)].normal();
        const int gr = group_[static_cast<std::size_t>(v)];
        for (int i = 0; i < 6; ++i) {
            damp(6 * v + i) = lambda * d(i, i) + kDampAbs;
            d(i, i) += damp(6 * v + i);
            coarse(6 * gr + i, 6 * gr + i) += damp(6 * v + i);
        }
        pre_[static_cast<std::size_t>(v)] = d.ldlt().solve(Mat6::Identity());
    }
    const Eigen::LLT<Eigen::MatrixXd> coarseSolver(coarse);
    if (coarseSolver.info() != Eigen::Success)
        return false;
    Eigen::VectorXd& rc = w_.rc;
    Eigen::VectorXd& zc = w_.zc;
    rc.resize(6 * groups);
    auto precondition = [&](const Eigen::VectorXd& r, Eigen::VectorXd& z) {
        z.resize(r.size());
        rc.setZero();
        for (int v = 0; v < nVar_; ++v) {
            z.segment<6>(6 * v).noalias() = pre_[static_cast<std::size_t>(v)] * r.segment<6>(6 * v);
            rc.segment<6>(6 * group_[static_cast<std::size_t>(v)]) += r.segment<6>(6 * v);
        }
        zc = coarseSolver.solve(rc);
        for (int v = 0; v < nVar_; ++v)
            z.segment<6>(6 * v) += zc.segment<6>(6 * group_[static_cast<std::size_t>(v)]);
    };
    // Preconditioned conjugate gradients on (H + damping) delta = -g.
    Eigen::VectorXd& x = w_.x;
    Eigen::VectorXd& r = w_.r;
    Eigen::VectorXd& z = w_.z;
    Eigen::VectorXd& p = w_.p;
    Eigen::VectorXd& Ap = w_.Ap;
    x.setZero(6 * nVar_);
    r = -g;
    precondition(r, z);
    p = z;
    double rz = r.dot(z);
    const double rz0 = rz;
    if (!(rz0 > 0.0))
        return false;
    for (int it = 0; it < kMaxCgIterations; ++it) {
        multiply(p, Ap);
        Ap += damp.cwiseProduct(p);
        const double pAp = p.dot(Ap);
        if (!(pAp > 0.0))
            break;
        const double alpha = rz / pAp;
        x += alpha * p;
        r -= alpha * Ap;
        precondition(r, z);
        const double rzNext = r.dot(z);
        if (rzNext <= kCgTolerance * rz0)
            break;
        p = z + (rzNext / rz) * p;
        rz = rzNext;
    }
    if (!x.allFinite())
        return false;
    for (int f = 0; f < F_; ++f) {
        const int v = var_[static_cast<std::size_t>(f)];
        if (v < 0)
            continue;
        const Eigen::Vector3d w = x.segment<3>(6 * v);
        const Eigen::Vector3d u = x.segment<3>(6 * v + 3);
        const double angle = w.norm();
        const Eigen::Matrix3d dR = angle > 1e-15
                                       ? Eigen::AngleAxisd(angle, w / angle).toRotationMatrix()
                                       : Eigen::Matrix3d::Identity();
        R_[static_cast<std::size_t>(f)] = dR * R_[static_cast<std::size_t>(f)];
        t_[static_cast<std::size_t>(f)] = dR * t_[static_cast<std::size_t>(f)] + u;
    }
    return true;
}

void Bundle::refitLooseFrames() {
    // Frames outside the system (too few solved markers) follow the refined markers as far
    // as they can: three or more usable markers give them a fresh pose.
    std::vector<detail::RigidAccumulator> acc(static_cast<std::size_t>(F_));
    for (std::size_t k = 0; k < obs_.size(); ++k) {
        const auto f = static_cast<std::size_t>(obs_[k].frame);
        if (var_.empty() || var_[f] < 0) {
            if (use_[k] && solved(obs_[k].marker))
                acc[f].add(obs_[k].local, X_[static_cast<std::size_t>(obs_[k].marker)]);
        }
    }
    for (int f = 0; f < F_; ++f) {
        Eigen::Matrix3d R;
        Eigen::Vector3d t;
        if ((var_.empty() || var_[static_cast<std::size_t>(f)] < 0) &&
            acc[static_cast<std::size_t>(f)].count() >= 3 &&
            acc[static_cast<std::size_t>(f)].solve(R, t)) {
            R_[static_cast<std::size_t>(f)] = R;
            t_[static_cast<std::size_t>(f)] = t;
        }
    }
}

void Bundle::finish(std::vector<Eigen::Matrix4d>& frames, std::vector<mcXYZ_Nor_s>& out,
                    double& rms) {
    // Keep the library's frame: align the refined solved markers onto where they were.
    detail::RigidAccumulator gauge;
    for (int j = 0; j < M_; ++j) {
        if (solved(j))
            gauge.add(X_[static_cast<std::size_t>(j)], lib_.pos[static_cast<std::size_t>(j)]);
    }
    Eigen::Matrix3d GR = Eigen::Matrix3d::Identity();
    Eigen::Vector3d Gt = Eigen::Vector3d::Zero();
    if (!gauge.solve(GR, Gt)) {
        GR.setIdentity();
        Gt.setZero();
    }
    for (int f = 0; f < F_; ++f) {
        Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
        T.topLeftCorner<3, 3>() = GR * R_[static_cast<std::size_t>(f)];
        T.topRightCorner<3, 1>() = GR * t_[static_cast<std::size_t>(f)] + Gt;
        frames[static_cast<std::size_t>(f)] = T;
    }
    std::vector<double> markerSse(static_cast<std::size_t>(M_), 0.0);
    std::vector<int> markerUsed(static_cast<std::size_t>(M_), 0);
    double sse = 0.0;
    int used = 0;
    for (std::size_t k = 0; k < obs_.size(); ++k) {
        if (!use_[k])
            continue;
        const auto u = static_cast<std::size_t>(obs_[k].marker);
        markerSse[u] += res_[k] * res_[k];
        ++markerUsed[u];
        if (solved(obs_[k].marker)) {
            sse += res_[k] * res_[k];
            ++used;
        }
    }
    rms = used > 0 ? std::sqrt(sse / used) : 0.0;
    out.resize(static_cast<std::size_t>(M_));
    for (int j = 0; j < M_; ++j) {
        const auto u = static_cast<std::size_t>(j);
        mcXYZ_Nor_s& r = out[u];
        r = mcXYZ_Nor_s();
        const Eigen::Vector3d p = solved(j) ? Eigen::Vector3d(GR * X_[u] + Gt) : lib_.pos[u];
        r.x = static_cast<float>(p.x());
        r.y = static_cast<float>(p.y());
        r.z = static_cast<float>(p.z());
        r.nx = static_cast<float>(lib_.nrm[u].x());
        r.ny = static_cast<float>(lib_.nrm[u].y());
        r.nz = static_cast<float>(lib_.nrm[u].z());
        r.rms =
            markerUsed[u] > 0 ? static_cast<float>(std::sqrt(markerSse[u] / markerUsed[u])) : 0.0f;
        r.frames = static_cast<float>(frames_[u]);
        r.source_label = static_cast<float>(lib_.label[u]);
        r.value = static_cast<float>(lib_.value[u]);
        r.label = solved(j) ? static_cast<float>(j) : -1.0f;
    }
}

}  // namespace

struct MarkOpt_class::State {
    int width = 0;
    int height = 0;
    std::vector<mcXYZ_Nor_s> out;
    int iterations = 0;
    double rms = 0.0;
    bool converged = false;
    bool stepControl = true;
    Workspace work;
};

MarkOpt_class::MarkOpt_class() : d_(new State()) {}
MarkOpt_class::~MarkOpt_class() = default;

void MarkOpt_class::set_wh(int width, int height) {
    d_->width = width;
    d_->height = height;
}

int MarkOpt_class::Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
    MyMatchMarkClass_update* global, std::vector<Eigen::Matrix4d>& frameTransforms, int frameCount,
    float stopPercent, int maxIterations) {
    State& st = *d_;
    st.out.clear();
    st.iterations = 0;
    st.rms = 0.0;
    st.converged = false;
    if (global == nullptr || frameCount < 1) {
        return 0;
    }
    try {
        const int F = std::min(frameCount, static_cast<int>(frameTransforms.size()));
        if (F < 1 || global->d_->lib.slots() < 1)
            return 0;
        for (int f = 0; f < F; ++f) {
            if (!frameTransforms[static_cast<std::size_t>(f)].allFinite())
                return 0;
        }
        Bundle bundle(*global->d_, F, frameTransforms, st.work);
        if (bundle.solvedCount() < 3)
            return 0;
        const int maxIter = std::max(1, maxIterations);
        const double stop = std::max(0.0, static_cast<double>(stopPercent)) / 100.0;

        double sse = bundle.updateMarkers();
        if (bundle.updateGate())
            sse = bundle.updateMarkers();
        if (!bundle.setupSystem())
            return 0;
        // Every trial step counts as an iteration, taken back or not. The run converges when
        // a step lowers the cost by less than the stop fraction, when a step that raised it
        // did so by less than that (rounding at the minimum), or when no step is left (nothing
        // to move, zero gradient); otherwise it ends at the iteration limit.
        double lambda = kDampRel;
        bool converged = false;
        for (int iter = 0; iter < maxIter && !converged; ++iter) {
            st.iterations = iter + 1;
            if (st.stepControl)
                bundle.savePoses();
            if (!bundle.gaussNewtonStep(lambda)) {
                converged = true;
                break;
            }
            const double next = bundle.updateMarkers();
            if (st.stepControl && !(next <= sse)) {
                bundle.restorePoses();
                bundle.updateMarkers();
                if (std::isfinite(next) && next - sse <= stop * sse) {
                    converged = true;
                } else if (lambda >= kLambdaMax) {
                    break;  // no step lowers the cost: stays unconverged
                } else {
                    lambda = std::min(kLambdaMax, lambda * kLambdaGrowth);
                }
                continue;
            }
            lambda = std::max(kDampRel, lambda / kLambdaGrowth);
            const double gated = bundle.updateGate() ? bundle.updateMarkers() : next;
            converged = sse - next <= stop * sse;
            sse = gated;
        }
        st.converged = converged;
        bundle.refitLooseFrames();
        bundle.updateMarkers();
        bundle.finish(frameTransforms, st.out, st.rms);
        return converged ? 1 : 2;
    } catch (...) {
        st.out.clear();
        return 0;
    }
}

mcXYZ_Nor_s* MarkOpt_class::get_Mark_data(int& count) {
    count = static_cast<int>(d_->out.size());
    return d_->out.empty() ? nullptr : d_->out.data();
}

int MarkOpt_class::get_iterations() const {
    return d_->iterations;
}
double MarkOpt_class::get_rms() const {
    return d_->rms;
}
bool MarkOpt_class::get_converged() const {
    return d_->converged;
}
void MarkOpt_class::set_step_control(bool on) {
    d_->stepControl = on;
}

}  // namespace Quill
