// Small geometric helpers shared by the matchers and the optimiser.
#pragma once

#include <Eigen/Core>
#include <Eigen/Geometry>

namespace Quill::detail {

// Accumulates point pairs (src, dst, weight) and solves for the rigid transform that
// carries src onto dst in the least-squares sense (Kabsch/Umeyama without scale).
// Sums are taken relative to the first source and destination points so that large
// coordinates do not cost precision.
class RigidAccumulator {
public:
    void add(const Eigen::Vector3d& src, const Eigen::Vector3d& dst, double w = 1.0);
    int count() const { return count_; }
    // Solves dst ~ R * src + t. Returns false with fewer than three pairs or when the
    // source points are (nearly) collinear, which leaves the rotation undetermined.
    bool solve(Eigen::Matrix3d& R, Eigen::Vector3d& t) const;

private:
    int count_ = 0;
    double w_ = 0.0;
    Eigen::Vector3d s0_ = Eigen::Vector3d::Zero();
    Eigen::Vector3d d0_ = Eigen::Vector3d::Zero();
    Eigen::Vector3d sumS_ = Eigen::Vector3d::Zero();
    Eigen::Vector3d sumD_ = Eigen::Vector3d::Zero();
    Eigen::Matrix3d sumSD_ = Eigen::Matrix3d::Zero();
    Eigen::Matrix3d sumSS_ = Eigen::Matrix3d::Zero();
};

// Rigid transform from three point pairs; false for degenerate triangles.
bool fitThree(const Eigen::Vector3d src[3], const Eigen::Vector3d dst[3], Eigen::Matrix3d& R,
              Eigen::Vector3d& t);

inline Eigen::Matrix4d toMatrix(const Eigen::Matrix3d& R, const Eigen::Vector3d& t) {
    Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
    T.topLeftCorner<3, 3>() = R;
    T.topRightCorner<3, 1>() = t;
    return T;
}

// Height of the triangle (a, b, c) over its longest side, divided by that side: 0 for
// collinear points, about 0.87 for an equilateral triangle.
double triangleShape(const Eigen::Vector3d& a, const Eigen::Vector3d& b, const Eigen::Vector3d& c);

// Second largest standard deviation of a point set's scatter (0 for collinear points).
double secondSpread(const Eigen::Vector3d* pts, int n);

}  // namespace Quill::detail
