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

using Mat6 = Eigen::Matrix<double, 6, 6>;
using Vec6 = Eigen::Matrix<double, 6, 1>;
using Mat36 = Eigen::Matrix<double, 3, 6>;

// Jacobian of a transformed point q under a small left perturbation (rotation w, shift u):
// q -> q + w x q + u.
Mat36 pointJacobian(const Eigen::Vector3d& q) {
    Mat36 J;
    J << 0.0, q.z(), -q.y(), 1.0, 0.0, 0.0,  //
        -q.z(), 0.0, q.x(), 0.0, 1.0, 0.0,   //
        q.y(), -q.x(), 0.0, 0.0, 0.0, 1.0;
    return J;
}

// The joint problem: every marker j seen in frames f at local positions p_fj; unknowns are
// the frame poses (R_f, t_f) and the marker positions X_j; the cost is
//   sum over observations of |R_f p_fj + t_f - X_j|^2.
// For given poses the best X_j is the mean of its transformed observations, so X is
// eliminated and Gauss-Newton runs on the poses alone: the reduced normal matrix couples two
// frames through every marker both see. That 6F x 6F system is solved by conjugate gradients
// without ever forming it (each product costs one pass over the observations), with the
// 6 x 6 diagonal blocks as preconditioner: the cost grows with the observations, not with
// the square of the frames.
class Bundle {
public:
    Bundle(const detail::MatcherState& g, int frameCount, std::vector<Eigen::Matrix4d>& frames)
        : lib_(g.lib), F_(frameCount), M_(g.lib.slots()) {
        for (const auto& o : g.obs) {
            if (o.frame >= 0 && o.frame < F_ && o.marker >= 0 && o.marker < M_ &&
                lib_.alive[static_cast<std::size_t>(o.marker)]) {
                obs_.push_back(&o);
            }
        }
        // Group by marker (counting sort keeps each marker's frames in order).
        start_.assign(static_cast<std::size_t>(M_) + 1, 0);
        for (const auto* o : obs_)
            ++start_[static_cast<std::size_t>(o->marker) + 1];
        for (int j = 0; j < M_; ++j)
            start_[static_cast<std::size_t>(j) + 1] += start_[static_cast<std::size_t>(j)];
        order_.resize(obs_.size());
        std::vector<int> fill(start_.begin(), start_.end() - 1);
        for (std::size_t k = 0; k < obs_.size(); ++k) {
            order_[static_cast<std::size_t>(fill[static_cast<std::size_t>(obs_[k]->marker)]++)] =
                static_cast<int>(k);
        }
        frames_.assign(static_cast<std::size_t>(M_), 0);
        for (int j = 0; j < M_; ++j) {
            int last = -1;
            for (int a = start_[static_cast<std::size_t>(j)];
                 a < start_[static_cast<std::size_t>(j) + 1]; ++a) {
                const int f =
                    obs_[static_cast<std::size_t>(order_[static_cast<std::size_t>(a)])]->frame;
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
    int frames(int j) const { return frames_[static_cast<std::size_t>(j)]; }

    // Marker positions from the poses, residuals, and the sum of squares of the used ones.
    double updateMarkers() {
        for (int j = 0; j < M_; ++j) {
            Eigen::Vector3d sum = Eigen::Vector3d::Zero();
            int cnt = 0;
            for (int a = start_[static_cast<std::size_t>(j)];
                 a < start_[static_cast<std::size_t>(j) + 1]; ++a) {
                const auto k = static_cast<std::size_t>(order_[static_cast<std::size_t>(a)]);
                if (!use_[k])
                    continue;
                sum += transformed(k);
                ++cnt;
            }
            if (cnt > 0)
                X_[static_cast<std::size_t>(j)] = sum / cnt;
        }
        double sse = 0.0;
        for (std::size_t k = 0; k < obs_.size(); ++k) {
            res_[k] = (transformed(k) - X_[static_cast<std::size_t>(obs_[k]->marker)]).norm();
            if (use_[k] && solved(obs_[k]->marker))
                sse += res_[k] * res_[k];
        }
        return sse;
    }

    // Re-decides which observations take part, from the robust scale of the residuals.
    void updateGate() {
        std::vector<double> r;
        r.reserve(obs_.size());
        for (std::size_t k = 0; k < obs_.size(); ++k) {
            if (use_[k] && solved(obs_[k]->marker))
                r.push_back(res_[k]);
        }
        if (r.empty())
            return;
        const auto mid = r.begin() + static_cast<std::ptrdiff_t>(r.size() / 2);
        std::nth_element(r.begin(), mid, r.end());
        // The median length of a 3D Gaussian residual is about 1.54 standard deviations.
        const double gate = std::max(kMinGate, kGateSigmas * (*mid / 1.54));
        for (std::size_t k = 0; k < obs_.size(); ++k)
            use_[k] = res_[k] <= gate ? 1 : 0;
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
        const auto f = static_cast<std::size_t>(obs_[k]->frame);
        return R_[f] * obs_[k]->local + t_[f];
    }

    const detail::MarkerLibrary& lib_;
    const int F_;
    const int M_;
    std::vector<const detail::Observation*> obs_;
    std::vector<int> start_;
    std::vector<int> order_;
    std::vector<int> frames_;
    std::vector<Eigen::Matrix3d> R_;
    std::vector<Eigen::Vector3d> t_;
    std::vector<Eigen::Matrix3d> savedR_;
    std::vector<Eigen::Vector3d> savedT_;
    std::vector<Eigen::Vector3d> X_;
    std::vector<unsigned char> use_;
    std::vector<double> res_;

    // Pose system.
    void multiply(const Eigen::VectorXd& x, Eigen::VectorXd& y) const;
    std::vector<int> var_;  // frame -> variable block, or -1 (held fixed)
    int nVar_ = 0;
    // Per observation taking part in the current step: its Jacobian and variable block.
    std::vector<Eigen::Vector3d> Q_;  // transformed point
    mutable std::vector<Eigen::Vector3d> jx_;
    std::vector<int> jVar_;
    std::vector<int> jMarker_;
    std::vector<double> invK_;  // per marker: 1 / used observations
};

bool Bundle::setupSystem() {
    // Frames with fewer than three solved markers cannot hold a pose on their own; they and
    // the first well-observed frame (which fixes the gauge) stay out of the system.
    std::vector<int> solvedObs(static_cast<std::size_t>(F_), 0);
    for (const auto* o : obs_) {
        if (solved(o->marker))
            ++solvedObs[static_cast<std::size_t>(o->frame)];
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
    y.setZero(x.size());
    // H x = sum over markers of  sum_f J_f^T (J_f x_f - (1/k) sum_g J_g x_g), where for the
    // transformed point q:  J (w, u) = w x q + u  and  J^T v = (q x v, v).
    std::size_t a = 0;
    std::vector<Eigen::Vector3d>& jx = jx_;
    jx.resize(Q_.size());
    while (a < Q_.size()) {
        const int j = jMarker_[a];
        std::size_t b = a;
        Eigen::Vector3d s = Eigen::Vector3d::Zero();
        for (; b < Q_.size() && jMarker_[b] == j; ++b) {
            if (jVar_[b] < 0) {
                jx[b].setZero();
                continue;
            }
            const auto v = 6 * jVar_[b];
            jx[b] = x.segment<3>(v).cross(Q_[b]) + x.segment<3>(v + 3);
            s += jx[b];
        }
        s *= invK_[static_cast<std::size_t>(j)];
        for (std::size_t c = a; c < b; ++c) {
            if (jVar_[c] < 0)
                continue;
            const Eigen::Vector3d v = jx[c] - s;
            const auto o = 6 * jVar_[c];
            y.segment<3>(o) += Q_[c].cross(v);
            y.segment<3>(o + 3) += v;
        }
        a = b;
    }
}

bool Bundle::gaussNewtonStep(double lambda) {
    if (nVar_ == 0)
        return false;
    Q_.clear();
    jVar_.clear();
    jMarker_.clear();
    invK_.assign(static_cast<std::size_t>(M_), 0.0);
    Eigen::VectorXd g = Eigen::VectorXd::Zero(6 * nVar_);
    std::vector<Mat6> diag(static_cast<std::size_t>(nVar_), Mat6::Zero());
    for (int j = 0; j < M_; ++j) {
        if (!solved(j))
            continue;
        int k = 0;
        const std::size_t first = Q_.size();
        for (int a = start_[static_cast<std::size_t>(j)];
             a < start_[static_cast<std::size_t>(j) + 1]; ++a) {
            const auto o = static_cast<std::size_t>(order_[static_cast<std::size_t>(a)]);
            if (!use_[o])
                continue;
            ++k;
            const int v = var_[static_cast<std::size_t>(obs_[o]->frame)];
            const Eigen::Vector3d q = transformed(o);
            Q_.push_back(q);
            jVar_.push_back(v);
            jMarker_.push_back(j);
            if (v >= 0) {
                g.segment<6>(6 * v) +=
                    pointJacobian(q).transpose() * (q - X_[static_cast<std::size_t>(j)]);
            }
        }
        if (k == 0)
            continue;
        const double inv = 1.0 / k;
        invK_[static_cast<std::size_t>(j)] = inv;
        for (std::size_t c = first; c < Q_.size(); ++c) {
            if (jVar_[c] < 0)
                continue;
            const Mat36 J = pointJacobian(Q_[c]);
            diag[static_cast<std::size_t>(jVar_[c])] += (1.0 - inv) * (J.transpose() * J);
        }
    }
    // Damped diagonal blocks: the preconditioner, and the damping the system carries too.
    std::vector<Eigen::LDLT<Mat6>> pre(static_cast<std::size_t>(nVar_));
    Eigen::VectorXd damp(6 * nVar_);
    for (int v = 0; v < nVar_; ++v) {
        Mat6 d = diag[static_cast<std::size_t>(v)];
        for (int i = 0; i < 6; ++i) {
            damp(6 * v + i) = lambda * d(i, i) + kDampAbs;
            d(i, i) += damp(6 * v + i);
        }
        pre[static_cast<std::size_t>(v)].compute(d);
    }
    auto precondition = [&](const Eigen::VectorXd& r, Eigen::VectorXd& z) {
        z.resize(r.size());
        for (int v = 0; v < nVar_; ++v) {
            z.segment<6>(6 * v) = pre[static_cast<std::size_t>(v)].solve(r.segment<6>(6 * v));
        }
    };
    // Preconditioned conjugate gradients on (H + damping) delta = -g.
    Eigen::VectorXd x = Eigen::VectorXd::Zero(6 * nVar_);
    Eigen::VectorXd r = -g;
    Eigen::VectorXd z, p, Ap;
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
        const auto f = static_cast<std::size_t>(obs_[k]->frame);
        if (var_.empty() || var_[f] < 0) {
            if (use_[k] && solved(obs_[k]->marker))
                acc[f].add(obs_[k]->local, X_[static_cast<std::size_t>(obs_[k]->marker)]);
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
        const auto u = static_cast<std::size_t>(obs_[k]->marker);
        markerSse[u] += res_[k] * res_[k];
        ++markerUsed[u];
        if (solved(obs_[k]->marker)) {
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
        Bundle bundle(*global->d_, F, frameTransforms);
        if (bundle.solvedCount() < 3)
            return 0;
        const int maxIter = std::max(1, maxIterations);
        const double stop = std::max(0.0, static_cast<double>(stopPercent)) / 100.0;

        double sse = bundle.updateMarkers();
        bundle.updateGate();
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
            bundle.updateGate();
            const double gated = bundle.updateMarkers();
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
