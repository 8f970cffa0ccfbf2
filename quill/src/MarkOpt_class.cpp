#include "quill/MarkOpt_class.h"

#include <algorithm>
#include <cmath>
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
}  // namespace

struct MarkOpt_class::State {
    int width = 0;
    int height = 0;
    std::vector<mcXYZ_Nor_s> out;
    int iterations = 0;
    double rms = 0.0;
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
    if (global == nullptr || frameCount < 1) {
        return 0;
    }
    try {
        const detail::MatcherState& g = *global->d_;
        const detail::MarkerLibrary& lib = g.lib;
        const int F = std::min(frameCount, static_cast<int>(frameTransforms.size()));
        const int M = lib.slots();
        if (F < 1 || M < 1)
            return 0;
        const int maxIter = std::max(1, maxIterations);
        const double stop = std::max(0.0, static_cast<double>(stopPercent)) / 100.0;

        // Observations of live markers in the frames given, grouped by marker.
        std::vector<const detail::Observation*> obs;
        obs.reserve(g.obs.size());
        for (const auto& o : g.obs) {
            if (o.frame >= 0 && o.frame < F && o.marker >= 0 && o.marker < M &&
                lib.alive[static_cast<std::size_t>(o.marker)]) {
                obs.push_back(&o);
            }
        }
        // Distinct frames per marker (observations arrive frame by frame, so a marker's
        // repeated frame shows up as the same frame number twice in a row at most rarely;
        // count properly with a last-frame marker).
        std::vector<int> frames(static_cast<std::size_t>(M), 0);
        std::vector<int> lastFrame(static_cast<std::size_t>(M), -1);
        for (const auto* o : obs) {
            const auto u = static_cast<std::size_t>(o->marker);
            if (lastFrame[u] != o->frame) {
                lastFrame[u] = o->frame;
                ++frames[u];
            }
        }
        std::vector<unsigned char> solved(static_cast<std::size_t>(M), 0);
        int solvedCount = 0;
        for (int j = 0; j < M; ++j) {
            if (lib.alive[static_cast<std::size_t>(j)] &&
                frames[static_cast<std::size_t>(j)] >= 2) {
                solved[static_cast<std::size_t>(j)] = 1;
                ++solvedCount;
            }
        }
        if (solvedCount < 3)
            return 0;

        std::vector<Eigen::Matrix3d> R(static_cast<std::size_t>(F));
        std::vector<Eigen::Vector3d> t(static_cast<std::size_t>(F));
        for (int f = 0; f < F; ++f) {
            const Eigen::Matrix4d& T = frameTransforms[static_cast<std::size_t>(f)];
            if (!T.allFinite())
                return 0;
            R[static_cast<std::size_t>(f)] = T.topLeftCorner<3, 3>();
            t[static_cast<std::size_t>(f)] = T.topRightCorner<3, 1>();
        }
        std::vector<Eigen::Vector3d> X(lib.pos.begin(), lib.pos.end());
        std::vector<unsigned char> use(obs.size(), 1);
        std::vector<double> res(obs.size(), 0.0);
        std::vector<double> scratch;
        double gate = 1e300;
        double prevSse = -1.0;

        for (int iter = 0; iter < maxIter; ++iter) {
            st.iterations = iter + 1;
            // Poses from the current marker positions.
            std::vector<detail::RigidAccumulator> acc(static_cast<std::size_t>(F));
            for (std::size_t k = 0; k < obs.size(); ++k) {
                const auto* o = obs[k];
                if (use[k] && solved[static_cast<std::size_t>(o->marker)]) {
                    acc[static_cast<std::size_t>(o->frame)].add(
                        o->local, X[static_cast<std::size_t>(o->marker)]);
                }
            }
            for (int f = 0; f < F; ++f) {
                Eigen::Matrix3d Rf;
                Eigen::Vector3d tf;
                if (acc[static_cast<std::size_t>(f)].solve(Rf, tf)) {
                    R[static_cast<std::size_t>(f)] = Rf;
                    t[static_cast<std::size_t>(f)] = tf;
                }
            }
            // Marker positions from the poses: the mean of their observations.
            std::vector<Eigen::Vector3d> sum(static_cast<std::size_t>(M), Eigen::Vector3d::Zero());
            std::vector<int> cnt(static_cast<std::size_t>(M), 0);
            for (std::size_t k = 0; k < obs.size(); ++k) {
                const auto* o = obs[k];
                if (!use[k])
                    continue;
                const auto f = static_cast<std::size_t>(o->frame);
                sum[static_cast<std::size_t>(o->marker)] += R[f] * o->local + t[f];
                ++cnt[static_cast<std::size_t>(o->marker)];
            }
            for (int j = 0; j < M; ++j) {
                if (cnt[static_cast<std::size_t>(j)] > 0) {
                    X[static_cast<std::size_t>(j)] =
                        sum[static_cast<std::size_t>(j)] / cnt[static_cast<std::size_t>(j)];
                }
            }
            // Residuals, robust scale and the gate for the next iteration.
            double sse = 0.0;
            scratch.clear();
            for (std::size_t k = 0; k < obs.size(); ++k) {
                const auto* o = obs[k];
                const auto f = static_cast<std::size_t>(o->frame);
                res[k] = (R[f] * o->local + t[f] - X[static_cast<std::size_t>(o->marker)]).norm();
                if (use[k] && solved[static_cast<std::size_t>(o->marker)]) {
                    sse += res[k] * res[k];
                    scratch.push_back(res[k]);
                }
            }
            if (!scratch.empty()) {
                const auto mid = scratch.begin() + static_cast<std::ptrdiff_t>(scratch.size() / 2);
                std::nth_element(scratch.begin(), mid, scratch.end());
                // The median length of a 3D Gaussian residual is about 0.89 of its RMS.
                gate = std::max(kMinGate, kGateSigmas * (*mid / 0.89) / std::sqrt(3.0));
            }
            for (std::size_t k = 0; k < obs.size(); ++k) {
                use[k] = res[k] <= gate ? 1 : 0;
            }
            const bool converged = prevSse >= 0.0 && prevSse - sse <= stop * prevSse;
            prevSse = sse;
            if (converged)
                break;
        }

        // Keep the library's frame: align the refined solved markers onto where they were.
        detail::RigidAccumulator gauge;
        for (int j = 0; j < M; ++j) {
            if (solved[static_cast<std::size_t>(j)]) {
                gauge.add(X[static_cast<std::size_t>(j)], lib.pos[static_cast<std::size_t>(j)]);
            }
        }
        Eigen::Matrix3d GR = Eigen::Matrix3d::Identity();
        Eigen::Vector3d Gt = Eigen::Vector3d::Zero();
        if (!gauge.solve(GR, Gt)) {
            GR.setIdentity();
            Gt.setZero();
        }
        for (int f = 0; f < F; ++f) {
            Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
            T.topLeftCorner<3, 3>() = GR * R[static_cast<std::size_t>(f)];
            T.topRightCorner<3, 1>() = GR * t[static_cast<std::size_t>(f)] + Gt;
            frameTransforms[static_cast<std::size_t>(f)] = T;
        }

        std::vector<double> markerSse(static_cast<std::size_t>(M), 0.0);
        std::vector<int> markerUsed(static_cast<std::size_t>(M), 0);
        double sse = 0.0;
        int used = 0;
        for (std::size_t k = 0; k < obs.size(); ++k) {
            if (!use[k])
                continue;
            const auto u = static_cast<std::size_t>(obs[k]->marker);
            markerSse[u] += res[k] * res[k];
            ++markerUsed[u];
            if (solved[u]) {
                sse += res[k] * res[k];
                ++used;
            }
        }
        st.rms = used > 0 ? std::sqrt(sse / used) : 0.0;

        st.out.resize(static_cast<std::size_t>(M));
        for (int j = 0; j < M; ++j) {
            const auto u = static_cast<std::size_t>(j);
            mcXYZ_Nor_s& r = st.out[u];
            r = mcXYZ_Nor_s();
            const Eigen::Vector3d p = solved[u] ? Eigen::Vector3d(GR * X[u] + Gt) : lib.pos[u];
            r.x = static_cast<float>(p.x());
            r.y = static_cast<float>(p.y());
            r.z = static_cast<float>(p.z());
            r.nx = static_cast<float>(lib.nrm[u].x());
            r.ny = static_cast<float>(lib.nrm[u].y());
            r.nz = static_cast<float>(lib.nrm[u].z());
            r.rms = markerUsed[u] > 0 ? static_cast<float>(std::sqrt(markerSse[u] / markerUsed[u]))
                                      : 0.0f;
            r.frames = static_cast<float>(frames[u]);
            r.source_label = static_cast<float>(lib.label[u]);
            r.value = static_cast<float>(lib.value[u]);
            r.label = solved[u] ? static_cast<float>(j) : -1.0f;
        }
        return 1;
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

}  // namespace Quill
