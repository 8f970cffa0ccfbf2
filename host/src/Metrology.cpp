#include "Metrology.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <numeric>

namespace host {

namespace {

// Residuals of `points` by `residual`.
template <typename Residual>
std::vector<double> residualsOf(const std::vector<Eigen::Vector3d>& points, Residual residual) {
    std::vector<double> res;
    res.reserve(points.size());
    for (const Eigen::Vector3d& p : points) {
        res.push_back(residual(p));
    }
    return res;
}

// The points kept, in their order: all but the `fraction` with the largest |residual|.
template <typename Residual>
std::vector<Eigen::Vector3d> keepBest(const std::vector<Eigen::Vector3d>& points, Residual residual,
                                      double fraction) {
    const std::vector<double> res = residualsOf(points, residual);
    std::vector<size_t> order(res.size());
    std::iota(order.begin(), order.end(), size_t{0});
    const size_t drop = static_cast<size_t>(std::floor(fraction * res.size()));
    if (drop > 0) {
        std::nth_element(order.begin(), order.end() - static_cast<long>(drop), order.end(),
                         [&](size_t a, size_t b) { return std::fabs(res[a]) < std::fabs(res[b]); });
        order.resize(order.size() - drop);
        std::sort(order.begin(), order.end());
    }
    std::vector<Eigen::Vector3d> kept;
    kept.reserve(order.size());
    for (size_t i : order) {
        kept.push_back(points[i]);
    }
    return kept;
}

bool sphereOnce(const std::vector<Eigen::Vector3d>& p, Eigen::Vector3d& c, double& r) {
    // Algebraic start: |x|^2 = 2 c.x + k, with k = r^2 - |c|^2.
    Eigen::MatrixXd A(p.size(), 4);
    Eigen::VectorXd b(p.size());
    const Eigen::Vector3d mean =
        std::accumulate(p.begin(), p.end(), Eigen::Vector3d(Eigen::Vector3d::Zero())) /
        static_cast<double>(p.size());
    for (size_t i = 0; i < p.size(); ++i) {
        const Eigen::Vector3d q = p[i] - mean;  // centred for conditioning
        A.row(static_cast<Eigen::Index>(i)) << 2 * q.x(), 2 * q.y(), 2 * q.z(), 1.0;
        b[static_cast<Eigen::Index>(i)] = q.squaredNorm();
    }
    const Eigen::Vector4d s = A.colPivHouseholderQr().solve(b);
    c = s.head<3>();
    const double r2 = s[3] + c.squaredNorm();
    if (!(r2 > 0)) {
        return false;
    }
    r = std::sqrt(r2);
    // Geometric refinement: residual_i = |q_i - c| - r.
    for (int it = 0; it < 20; ++it) {
        Eigen::MatrixXd J(p.size(), 4);
        Eigen::VectorXd f(p.size());
        for (size_t i = 0; i < p.size(); ++i) {
            const Eigen::Vector3d d = p[i] - mean - c;
            const double n = d.norm();
            if (n == 0) {
                return false;
            }
            J.row(static_cast<Eigen::Index>(i)) << -d.x() / n, -d.y() / n, -d.z() / n, -1.0;
            f[static_cast<Eigen::Index>(i)] = n - r;
        }
        const Eigen::Vector4d step = J.colPivHouseholderQr().solve(-f);
        c += step.head<3>();
        r += step[3];
        if (step.norm() < 1e-12) {
            break;
        }
    }
    c += mean;
    return std::isfinite(r) && r > 0 && c.allFinite();
}

bool planeOnce(const std::vector<Eigen::Vector3d>& p, Eigen::Vector3d& centroid,
               Eigen::Vector3d& normal) {
    centroid = std::accumulate(p.begin(), p.end(), Eigen::Vector3d(Eigen::Vector3d::Zero())) /
               static_cast<double>(p.size());
    Eigen::Matrix3d cov = Eigen::Matrix3d::Zero();
    for (const Eigen::Vector3d& q : p) {
        cov += (q - centroid) * (q - centroid).transpose();
    }
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> eig(cov);
    if (eig.info() != Eigen::Success) {
        return false;
    }
    normal = eig.eigenvectors().col(0);  // smallest eigenvalue first
    if (normal.z() < 0) {
        normal = -normal;
    }
    return normal.allFinite();
}

}  // namespace

SphereFit fitSphere(const std::vector<Eigen::Vector3d>& points, double rejectFraction) {
    SphereFit fit;
    if (points.size() < 10) {
        return fit;
    }
    Eigen::Vector3d c;
    double r = 0;
    if (!sphereOnce(points, c, r)) {
        return fit;
    }
    fit.points = keepBest(
        points, [&](const Eigen::Vector3d& p) { return (p - c).norm() - r; }, rejectFraction);
    fit.rejected = points.size() - fit.points.size();
    if (!sphereOnce(fit.points, c, r)) {
        return fit;
    }
    fit.centre = c;
    fit.radius = r;
    fit.residuals =
        residualsOf(fit.points, [&](const Eigen::Vector3d& p) { return (p - c).norm() - r; });
    fit.ok = true;
    return fit;
}

PlaneFit fitPlane(const std::vector<Eigen::Vector3d>& points, double rejectFraction) {
    PlaneFit fit;
    if (points.size() < 3) {
        return fit;
    }
    Eigen::Vector3d c, n;
    if (!planeOnce(points, c, n)) {
        return fit;
    }
    fit.points = keepBest(
        points, [&](const Eigen::Vector3d& p) { return n.dot(p - c); }, rejectFraction);
    fit.rejected = points.size() - fit.points.size();
    if (!planeOnce(fit.points, c, n)) {
        return fit;
    }
    fit.centroid = c;
    fit.normal = n;
    fit.residuals = residualsOf(fit.points, [&](const Eigen::Vector3d& p) { return n.dot(p - c); });
    fit.ok = true;
    return fit;
}

double spread(const std::vector<double>& values) {
    if (values.empty()) {
        return 0.0;
    }
    const auto mm = std::minmax_element(values.begin(), values.end());
    return *mm.second - *mm.first;
}

double normalQuantile(double p) {
    double lo = -40, hi = 40;
    for (int k = 0; k < 200; ++k) {
        const double mid = 0.5 * (lo + hi);
        (0.5 * std::erfc(-mid / std::sqrt(2.0)) < p ? lo : hi) = mid;
    }
    return 0.5 * (lo + hi);
}

double expectedRange(double sigma, double rejectFraction) {
    return 2.0 * normalQuantile(1.0 - 0.5 * std::max(rejectFraction, 1e-9)) * sigma;
}

}  // namespace host
