// Form fits of the verification: least-squares sphere and plane with a bounded share of
// rejected points, and the range expected of Gaussian residuals. No device; tests call it.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <string>
#include <vector>

#include "host/Records.h"

namespace host {

// The share of the points a fit may reject as outliers (the largest absolute residuals of a
// first fit, then the fit is repeated on the rest): 0.3 %.
constexpr double kRejectFraction = 0.003;

struct SphereFit {
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();
    double radius = 0.0;
    std::vector<Eigen::Vector3d> points;  // the points kept
    std::vector<double> residuals;        // radial distance minus radius, per kept point
    size_t rejected = 0;
    bool ok = false;
};

// Geometric least squares (Gauss-Newton on the radial distances, started from the algebraic
// fit). Needs at least 10 points not on one plane.
SphereFit fitSphere(const std::vector<Eigen::Vector3d>& points,
                    double rejectFraction = kRejectFraction);

struct PlaneFit {
    Eigen::Vector3d centroid = Eigen::Vector3d::Zero();
    Eigen::Vector3d normal = Eigen::Vector3d::UnitZ();
    std::vector<Eigen::Vector3d> points;
    std::vector<double> residuals;  // signed distances to the plane
    size_t rejected = 0;
    bool ok = false;
};

// Orthogonal least squares (the smallest principal axis of the points' covariance).
PlaneFit fitPlane(const std::vector<Eigen::Vector3d>& points,
                  double rejectFraction = kRejectFraction);

// max - min of the values (0 for none).
double spread(const std::vector<double>& values);

// The quantile of the standard normal distribution at probability p (0 < p < 1).
double normalQuantile(double p);

// The range expected of the residuals of many points with Gaussian noise `sigma` once the
// `rejectFraction` largest are removed: 2 z(1 - f/2) sigma.
double expectedRange(double sigma, double rejectFraction = kRejectFraction);

}  // namespace host
