// Baselines for the registration benchmarks: RANSAC over random moving triplets with
// brute-force correspondence search and brute-force verification, no index of any kind.
//
//  - allTriplets: every ordered triplet of library markers is tested against the sampled
//    moving triplet (three distance comparisons each), O(N^3) per iteration.
//  - pairPruned: the same search written with the obvious early exit (a library pair must
//    match the first side before a third marker is looked for), O(N^2) per iteration.
//
// Both verify each candidate transform against the whole moving set with a linear
// nearest-marker search, keep the best, and stop adaptively (99 % confidence from the best
// inlier ratio so far).
#pragma once

#include <Eigen/Core>
#include <Eigen/Geometry>
#include <cmath>
#include <vector>

#include "sim/MarkerScene.h"

namespace naive {

struct Result {
    Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
    int inliers = 0;
    long long tested = 0;
};

inline Eigen::Matrix4d fit3(const Eigen::Vector3d* s, const Eigen::Vector3d* d) {
    Eigen::Matrix3d A, B;
    for (int i = 0; i < 3; ++i) {
        A.col(i) = s[i];
        B.col(i) = d[i];
    }
    return Eigen::umeyama(A, B, false);
}

inline int countInliers(const Eigen::Matrix4d& T, const std::vector<Eigen::Vector3d>& mv,
                        const std::vector<Eigen::Vector3d>& lib, double tau) {
    int k = 0;
    for (const auto& p : mv) {
        const Eigen::Vector3d q = T.topLeftCorner<3, 3>() * p + T.topRightCorner<3, 1>();
        for (const auto& l : lib) {
            if ((l - q).squaredNorm() <= tau * tau) {
                ++k;
                break;
            }
        }
    }
    return k;
}

inline Result ransac(const std::vector<Eigen::Vector3d>& mv,
                     const std::vector<Eigen::Vector3d>& lib, bool pairPruned, std::uint64_t seed,
                     double tol = 0.35, double tau = 0.5, int maxIterations = 200) {
    Result best;
    sim::Rng rng(seed);
    const int n = static_cast<int>(mv.size());
    const int N = static_cast<int>(lib.size());
    if (n < 3 || N < 3)
        return best;
    double needed = maxIterations;
    for (int it = 0; it < maxIterations && it < needed; ++it) {
        int i = rng.uniformInt(0, n - 1), j = rng.uniformInt(0, n - 1),
            k = rng.uniformInt(0, n - 1);
        if (i == j || j == k || i == k)
            continue;
        const double dij = (mv[i] - mv[j]).norm(), dik = (mv[i] - mv[k]).norm(),
                     djk = (mv[j] - mv[k]).norm();
        const Eigen::Vector3d src[3] = {mv[i], mv[j], mv[k]};
        auto consider = [&](int a, int b, int c) {
            const Eigen::Vector3d dst[3] = {lib[a], lib[b], lib[c]};
            const Eigen::Matrix4d T = fit3(src, dst);
            const int in = countInliers(T, mv, lib, tau);
            if (in > best.inliers) {
                best.inliers = in;
                best.T = T;
            }
        };
        for (int a = 0; a < N; ++a) {
            for (int b = 0; b < N; ++b) {
                if (pairPruned) {
                    if (b == a || std::abs((lib[a] - lib[b]).norm() - dij) > tol)
                        continue;
                    for (int c = 0; c < N; ++c) {
                        ++best.tested;
                        if (c == a || c == b || std::abs((lib[a] - lib[c]).norm() - dik) > tol ||
                            std::abs((lib[b] - lib[c]).norm() - djk) > tol) {
                            continue;
                        }
                        consider(a, b, c);
                    }
                } else {
                    for (int c = 0; c < N; ++c) {
                        ++best.tested;
                        const bool ok = a != b && b != c && a != c &&
                                        std::abs((lib[a] - lib[b]).norm() - dij) <= tol &&
                                        std::abs((lib[a] - lib[c]).norm() - dik) <= tol &&
                                        std::abs((lib[b] - lib[c]).norm() - djk) <= tol;
                        if (ok)
                            consider(a, b, c);
                    }
                }
            }
        }
        const double w = static_cast<double>(best.inliers) / n;
        if (w > 0.0) {
            const double p = std::max(1e-12, 1.0 - w * w * w);
            needed = p < 1.0 ? std::log(0.01) / std::log(p) : maxIterations;
        }
    }
    return best;
}

}  // namespace naive
