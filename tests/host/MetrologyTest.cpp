// The fits behind the verification: exact on exact points, the permitted share of gross
// outliers removed and no more, and the expected residual range of Gaussian noise.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <random>

#include "Metrology.h"

namespace pfapp {
namespace {

// Points on the cap of a sphere within `capDeg` of +z, radial noise `sigma`; every
// `outlierEvery`-th point pushed 0.5 mm outwards.
std::vector<Eigen::Vector3d> cap(const Eigen::Vector3d& c, double r, double capDeg, double sigma,
                                 size_t count, size_t outlierEvery, std::mt19937& rng) {
    std::uniform_real_distribution<double> u(0, 1);
    std::normal_distribution<double> g(0, 1);
    std::vector<Eigen::Vector3d> pts;
    for (size_t i = 0; i < count; ++i) {
        const double z = 1 - u(rng) * (1 - std::cos(capDeg * M_PI / 180));
        const double a = 2 * M_PI * u(rng);
        const Eigen::Vector3d d(std::sqrt(1 - z * z) * std::cos(a),
                                std::sqrt(1 - z * z) * std::sin(a), z);
        const double extra = outlierEvery > 0 && i % outlierEvery == 0 ? 0.5 : 0.0;
        pts.push_back(c + (r + sigma * g(rng) + extra) * d);
    }
    return pts;
}

TEST(Metrology, SphereFitIsExactAndRemovesThePermittedOutliersOnly) {
    std::mt19937 rng(5);
    const Eigen::Vector3d c(143.2, -107.4, 339.1);
    SphereFit exact = fitSphere(cap(c, 12.5, 70, 0.0, 3000, 0, rng), 0.0);
    ASSERT_TRUE(exact.ok);
    EXPECT_LT((exact.centre - c).norm(), 1e-9);
    EXPECT_NEAR(exact.radius, 12.5, 1e-9);
    EXPECT_LT(spread(exact.residuals), 1e-9);

    // 0.25 % gross outliers (within the 0.3 % allowed) are all removed, with the largest of
    // the ordinary points up to the permitted share.
    const std::vector<Eigen::Vector3d> pts = cap(c, 12.5, 70, 0.01, 4000, 400, rng);
    const SphereFit fit = fitSphere(pts);
    ASSERT_TRUE(fit.ok);
    EXPECT_EQ(fit.rejected, 12u);
    EXPECT_EQ(fit.points.size() + fit.rejected, pts.size());
    EXPECT_LT((fit.centre - c).norm(), 0.005);
    EXPECT_NEAR(fit.radius, 12.5, 0.003);
    EXPECT_LT(spread(fit.residuals), 8 * 0.01);

    // Without rejection the outliers stay and widen the range to their height.
    EXPECT_GT(spread(fitSphere(pts, 0.0).residuals), 0.45);
    EXPECT_FALSE(fitSphere({c, c, c}).ok);
}

TEST(Metrology, PlaneFitFindsATiltedPlaneAndItsFlatness) {
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(-1, 1);
    std::normal_distribution<double> g(0, 0.02);
    const Eigen::Vector3d n = Eigen::Vector3d(0.1, -0.2, 1).normalized();
    const Eigen::Vector3d a = n.unitOrthogonal(), b = n.cross(a);
    std::vector<Eigen::Vector3d> pts;
    for (int i = 0; i < 20000; ++i) {
        const double off = i % 1000 == 0 ? -1.0 : g(rng);  // 0.1 % gross outliers
        pts.push_back(Eigen::Vector3d(0, -200, 100) + 300 * u(rng) * a + 40 * u(rng) * b + off * n);
    }
    const PlaneFit fit = fitPlane(pts);
    ASSERT_TRUE(fit.ok);
    EXPECT_EQ(fit.rejected, 60u);
    EXPECT_LT(std::acos(std::min(1.0, fit.normal.dot(n))), 1e-4);
    // The range of 0.3 % trimmed Gaussian residuals: close to the expected range.
    EXPECT_NEAR(spread(fit.residuals), expectedRange(0.02), 0.1 * expectedRange(0.02));
}

TEST(Metrology, ExpectedRangeAndLimits) {
    EXPECT_NEAR(normalQuantile(0.975), 1.959964, 1e-6);
    EXPECT_NEAR(expectedRange(1.0, 0.003), 2 * 2.967738, 1e-5);
    Characteristic c{"SD", "", -0.07, 0.08, true};
    EXPECT_TRUE(c.pass());
    c.value = -0.081;
    EXPECT_FALSE(c.pass());
    c.value = NAN;
    EXPECT_FALSE(c.pass());
    c = Characteristic{"F", "", 0.0, 0.1, false};
    EXPECT_FALSE(c.pass());  // not measured is not a pass
}

}  // namespace
}  // namespace pfapp
