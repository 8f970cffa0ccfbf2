#include "Geometry.h"

#include <Eigen/Eigenvalues>
#include <Eigen/SVD>
#include <algorithm>
#include <cmath>

namespace Quill::detail {

void RigidAccumulator::add(const Eigen::Vector3d& src, const Eigen::Vector3d& dst, double w) {
    if (count_ == 0) {
        s0_ = src;
        d0_ = dst;
    }
    const Eigen::Vector3d s = src - s0_;
    const Eigen::Vector3d d = dst - d0_;
    ++count_;
    w_ += w;
    sumS_ += w * s;
    sumD_ += w * d;
    sumSD_ += w * s * d.transpose();
    sumSS_ += w * s * s.transpose();
}

bool RigidAccumulator::solve(Eigen::Matrix3d& R, Eigen::Vector3d& t) const {
    if (count_ < 3 || !(w_ > 0.0)) {
        return false;
    }
    const Eigen::Vector3d ms = sumS_ / w_;
    const Eigen::Vector3d md = sumD_ / w_;
    const Eigen::Matrix3d H = sumSD_ - w_ * ms * md.transpose();
    const Eigen::Matrix3d S = sumSS_ - w_ * ms * ms.transpose();
    // The source spread must be two-dimensional, or the rotation about the line is free.
    Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> es(S, Eigen::EigenvaluesOnly);
    const Eigen::Vector3d ev = es.eigenvalues();  // ascending
    if (!(ev(2) > 0.0) || ev(1) <= 1e-10 * ev(2)) {
        return false;
    }
    Eigen::JacobiSVD<Eigen::Matrix3d> svd(H, Eigen::ComputeFullU | Eigen::ComputeFullV);
    const Eigen::Matrix3d& U = svd.matrixU();
    const Eigen::Matrix3d& V = svd.matrixV();
    Eigen::Matrix3d D = Eigen::Matrix3d::Identity();
    if ((V * U.transpose()).determinant() < 0.0) {
        D(2, 2) = -1.0;
    }
    R = V * D * U.transpose();
    t = (md + d0_) - R * (ms + s0_);
    return R.allFinite() && t.allFinite();
}

bool fitThree(const Eigen::Vector3d src[3], const Eigen::Vector3d dst[3], Eigen::Matrix3d& R,
              Eigen::Vector3d& t) {
    RigidAccumulator acc;
    for (int i = 0; i < 3; ++i) {
        acc.add(src[i], dst[i]);
    }
    return acc.solve(R, t);
}

double triangleShape(const Eigen::Vector3d& a, const Eigen::Vector3d& b, const Eigen::Vector3d& c) {
    const double ab = (b - a).norm();
    const double ac = (c - a).norm();
    const double bc = (c - b).norm();
    const double longest = std::max(ab, std::max(ac, bc));
    if (!(longest > 0.0)) {
        return 0.0;
    }
    const double area2 = (b - a).cross(c - a).norm();  // twice the area
    return area2 / (longest * longest);
}

double secondSpread(const Eigen::Vector3d* pts, int n) {
    if (n < 3) {
        return 0.0;
    }
    Eigen::Vector3d mean = Eigen::Vector3d::Zero();
    for (int i = 0; i < n; ++i) {
        mean += pts[i];
    }
    mean /= n;
    Eigen::Matrix3d S = Eigen::Matrix3d::Zero();
    for (int i = 0; i < n; ++i) {
        const Eigen::Vector3d d = pts[i] - mean;
        S += d * d.transpose();
    }
    S /= n;
    Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> es(S, Eigen::EigenvaluesOnly);
    return std::sqrt(std::max(0.0, es.eigenvalues()(1)));
}

}  // namespace Quill::detail
