#include "Geometry.h"

#include <Eigen/SVD>
#include <algorithm>
#include <cmath>

namespace host {

namespace {

Eigen::Matrix3d rowMajor(const std::array<double, 9>& r) {
    Eigen::Matrix3d m;
    m << r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], r[8];
    return m;
}

Eigen::Matrix3d blockOf(const std::array<double, 16>& m) {
    Eigen::Matrix3d b;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            b(r, c) = m[static_cast<size_t>(4 * r + c)];
        }
    }
    return b;
}

Eigen::Vector3d translationOf(const std::array<double, 16>& m) {
    return Eigen::Vector3d(m[12], m[13], m[14]);
}

}  // namespace

size_t appendFrame(Cloud& cloud, const Pose& pose, const std::vector<float>& points,
                   const std::vector<float>& directions) {
    const size_t n = points.size() / 3;
    const bool withNormals =
        directions.size() == points.size() && n > 0 && (cloud.points.empty() || cloud.hasNormals());
    if (!withNormals) {
        cloud.normals.clear();
    }
    // Row vector times R: component j is sum_i x_i R(i, j).
    const Eigen::Matrix3d rt = rowMajor(pose.rotation).transpose();
    const Eigen::Vector3d t(pose.translation[0], pose.translation[1], pose.translation[2]);
    size_t added = 0;
    for (size_t i = 0; i < n; ++i) {
        const Eigen::Vector3d x(points[3 * i], points[3 * i + 1], points[3 * i + 2]);
        if (!x.allFinite()) {
            continue;
        }
        const Eigen::Vector3f p = (rt * x + t).cast<float>();
        cloud.points.insert(cloud.points.end(), {p.x(), p.y(), p.z()});
        if (withNormals) {
            Eigen::Vector3d d(directions[3 * i], directions[3 * i + 1], directions[3 * i + 2]);
            d = rt * d;
            const double len = d.norm();
            const Eigen::Vector3f u =
                (len > 0 && std::isfinite(len) ? Eigen::Vector3d(d / len) : Eigen::Vector3d::Zero())
                    .cast<float>();
            cloud.normals.insert(cloud.normals.end(), {u.x(), u.y(), u.z()});
        }
        ++added;
    }
    return added;
}

DistanceFigures distanceStats(std::vector<double> distances) {
    DistanceFigures s;
    distances.erase(std::remove_if(distances.begin(), distances.end(),
                                   [](double d) { return !std::isfinite(d); }),
                    distances.end());
    if (distances.empty()) {
        return s;
    }
    double sum = 0.0;
    double sum2 = 0.0;
    for (double& d : distances) {
        d = std::abs(d);
        sum += d;
        sum2 += d * d;
        s.max = std::max(s.max, d);
    }
    s.count = distances.size();
    s.mean = sum / static_cast<double>(s.count);
    s.rms = std::sqrt(sum2 / static_cast<double>(s.count));
    // Nearest rank: the smallest value with at least 95 % of the values at or below it.
    const size_t rank = static_cast<size_t>(std::ceil(0.95 * static_cast<double>(s.count)));
    const size_t k = std::min(s.count - 1, rank == 0 ? 0 : rank - 1);
    std::nth_element(distances.begin(), distances.begin() + static_cast<std::ptrdiff_t>(k),
                     distances.end());
    s.p95 = distances[k];
    return s;
}

std::vector<double> distancesTo(const Cloud& cloud,
                                const std::function<double(const Eigen::Vector3d&)>& distance) {
    std::vector<double> out;
    out.reserve(cloud.size());
    for (size_t i = 0; i < cloud.size(); ++i) {
        out.push_back(distance(pointOf(cloud, i).cast<double>()));
    }
    return out;
}

RigidFit bestRigidFit(const std::vector<Eigen::Vector3d>& from,
                      const std::vector<Eigen::Vector3d>& to) {
    RigidFit fit;
    const size_t n = std::min(from.size(), to.size());
    if (n < 3) {
        return fit;
    }
    Eigen::Vector3d cf = Eigen::Vector3d::Zero();
    Eigen::Vector3d ct = Eigen::Vector3d::Zero();
    for (size_t i = 0; i < n; ++i) {
        cf += from[i];
        ct += to[i];
    }
    cf /= static_cast<double>(n);
    ct /= static_cast<double>(n);
    Eigen::Matrix3d h = Eigen::Matrix3d::Zero();
    for (size_t i = 0; i < n; ++i) {
        h += (from[i] - cf) * (to[i] - ct).transpose();
    }
    Eigen::JacobiSVD<Eigen::Matrix3d> svd(h, Eigen::ComputeFullU | Eigen::ComputeFullV);
    // Collinear or coincident points leave a rotation about their line undetermined.
    const Eigen::Vector3d sv = svd.singularValues();
    if (!(sv(1) > 1e-9 * std::max(1.0, sv(0)))) {
        return fit;
    }
    Eigen::Matrix3d d = Eigen::Matrix3d::Identity();
    if ((svd.matrixV() * svd.matrixU().transpose()).determinant() < 0) {
        d(2, 2) = -1.0;
    }
    fit.rotation = svd.matrixV() * d * svd.matrixU().transpose();
    fit.translation = ct - fit.rotation * cf;
    fit.residuals.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        fit.residuals.push_back((fit.rotation * from[i] + fit.translation - to[i]).norm());
    }
    fit.ok = true;
    return fit;
}

MatrixError transferMatrixError(const std::array<double, 16>& measured,
                                const std::array<double, 16>& truth) {
    MatrixError e;
    e.translationMm = (translationOf(measured) - translationOf(truth)).norm();
    const Eigen::Matrix3d delta = blockOf(measured) * blockOf(truth).transpose();
    const double c = std::max(-1.0, std::min(1.0, (delta.trace() - 1.0) / 2.0));
    e.rotationDeg = std::acos(c) * 180.0 / M_PI;
    return e;
}

Eigen::Vector3d transferToTracker(const std::array<double, 16>& m, const Eigen::Vector3d& p) {
    return blockOf(m) * p + translationOf(m);
}

namespace {

size_t nearestOf(const std::vector<Eigen::Vector3d>& set, const Eigen::Vector3d& p) {
    size_t best = 0;
    for (size_t k = 1; k < set.size(); ++k) {
        if ((set[k] - p).squaredNorm() < (set[best] - p).squaredNorm()) {
            best = k;
        }
    }
    return best;
}

}  // namespace

MarkerModelMatch matchMarkerModel(
    const std::vector<Eigen::Vector3d>& model, const std::vector<Eigen::Vector3d>& truth,
    const std::vector<std::pair<std::string, std::array<double, 16>>>& frames, double maxPairMm) {
    MarkerModelMatch best;
    if (model.empty() || truth.empty()) {
        return best;
    }
    std::vector<std::pair<std::string, std::array<double, 16>>> tried{
        {"reference", {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}}};
    tried.insert(tried.end(), frames.begin(), frames.end());
    double bestMedian = maxPairMm;
    for (const auto& frame : tried) {
        std::vector<Eigen::Vector3d> moved;
        for (const Eigen::Vector3d& t : truth) {
            moved.push_back(transferToTracker(frame.second, t));
        }
        MarkerModelMatch m;
        m.frame = frame.first;
        std::vector<double> gaps;
        std::vector<Eigen::Vector3d> from, to;
        for (size_t i = 0; i < model.size(); ++i) {
            const size_t k = nearestOf(moved, model[i]);
            const double gap = (moved[k] - model[i]).norm();
            gaps.push_back(gap);
            if (gap <= maxPairMm) {
                m.paired.push_back(i);
                m.truthOf.push_back(k);
                from.push_back(model[i]);
                to.push_back(moved[k]);
            }
        }
        std::nth_element(gaps.begin(), gaps.begin() + static_cast<long>(gaps.size() / 2),
                         gaps.end());
        const double median = gaps[gaps.size() / 2];
        if (median < bestMedian) {
            m.fit = bestRigidFit(from, to);
            m.ok = m.fit.ok;
            if (m.ok) {
                bestMedian = median;
                best = std::move(m);
            }
        }
    }
    return best;
}

std::vector<size_t> countObservations(const std::vector<Eigen::Vector3d>& model,
                                      const std::vector<Eigen::Vector3d>& observations,
                                      double radiusMm) {
    std::vector<size_t> counts(model.size(), 0);
    if (model.empty()) {
        return counts;
    }
    for (const Eigen::Vector3d& o : observations) {
        const size_t k = nearestOf(model, o);
        counts[k] += (model[k] - o).norm() <= radiusMm ? 1 : 0;
    }
    return counts;
}

double observationWeightedRms(const std::vector<double>& residuals,
                              const std::vector<size_t>& observations) {
    const size_t n = std::min(residuals.size(), observations.size());
    if (n == 0) {
        return 0.0;
    }
    double sum = 0.0;
    for (size_t i = 0; i < n; ++i) {
        sum += residuals[i] * residuals[i] * static_cast<double>(observations[i]);
    }
    return std::sqrt(sum / static_cast<double>(n));
}

}  // namespace host
