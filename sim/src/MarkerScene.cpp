#include "sim/MarkerScene.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace sim {

namespace {

// M_PI is POSIX, not C++: strict C++17 on Windows does not define it. The same double.
constexpr double kPi = 3.14159265358979323846;

std::uint64_t splitmix(std::uint64_t& x) {
    std::uint64_t z = (x += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

std::uint64_t cellKey(std::int64_t x, std::int64_t y, std::int64_t z) {
    const std::uint64_t m = (1u << 21) - 1u;
    return ((static_cast<std::uint64_t>(x + 1048576) & m) << 42) |
           ((static_cast<std::uint64_t>(y + 1048576) & m) << 21) |
           (static_cast<std::uint64_t>(z + 1048576) & m);
}

// A smooth random panel: a gentle overall curvature plus Gaussian bumps.
struct Panel {
    double size = 1000.0;
    double cx = 0.0, cy = 0.0;  // curvature coefficients
    struct Bump {
        double x, y, h, s;
    };
    std::vector<Bump> bumps;

    double height(double x, double y) const {
        double z = cx * x * x + cy * y * y;
        for (const auto& b : bumps) {
            const double dx = x - b.x, dy = y - b.y;
            z += b.h * std::exp(-(dx * dx + dy * dy) / (2.0 * b.s * b.s));
        }
        return z;
    }
    Eigen::Vector3d normal(double x, double y) const {
        double gx = 2.0 * cx * x, gy = 2.0 * cy * y;
        for (const auto& b : bumps) {
            const double dx = x - b.x, dy = y - b.y;
            const double e = b.h * std::exp(-(dx * dx + dy * dy) / (2.0 * b.s * b.s));
            gx += -e * dx / (b.s * b.s);
            gy += -e * dy / (b.s * b.s);
        }
        return Eigen::Vector3d(-gx, -gy, 1.0).normalized();
    }
};

}  // namespace

Rng::Rng(std::uint64_t seed) {
    std::uint64_t x = seed;
    for (auto& s : s_)
        s = splitmix(x);
}

double Rng::uniform() {
    return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0);
}
double Rng::uniform(double lo, double hi) {
    return lo + (hi - lo) * uniform();
}

int Rng::uniformInt(int lo, int hi) {
    if (hi <= lo)
        return lo;
    const auto span = static_cast<std::uint64_t>(static_cast<std::int64_t>(hi) - lo + 1);
    return static_cast<int>(lo + static_cast<std::int64_t>(next() % span));
}

double Rng::normal() {
    if (hasSpare_) {
        hasSpare_ = false;
        return spare_;
    }
    // Marsaglia's polar method.
    double u, v, s;
    do {
        u = uniform(-1.0, 1.0);
        v = uniform(-1.0, 1.0);
        s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    const double f = std::sqrt(-2.0 * std::log(s) / s);
    spare_ = v * f;
    hasSpare_ = true;
    return u * f;
}

Eigen::Vector3d Rng::unitVector() {
    Eigen::Vector3d v;
    do {
        v = Eigen::Vector3d(normal(), normal(), normal());
    } while (v.norm() < 1e-9);
    return v.normalized();
}

RigidMotion RigidMotion::inverse() const {
    RigidMotion m;
    m.R = R.transpose();
    m.t = -(m.R * t);
    return m;
}

RigidMotion RigidMotion::operator*(const RigidMotion& o) const {
    RigidMotion m;
    m.R = R * o.R;
    m.t = R * o.t + t;
    return m;
}

Eigen::Matrix4d RigidMotion::matrix() const {
    Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
    T.topLeftCorner<3, 3>() = R;
    T.topRightCorner<3, 1>() = t;
    return T;
}

RigidMotion RigidMotion::fromMatrix(const Eigen::Matrix4d& T) {
    RigidMotion m;
    m.R = T.topLeftCorner<3, 3>();
    m.t = T.topRightCorner<3, 1>();
    return m;
}

Eigen::Matrix3d randomRotation(Rng& rng) {
    // A uniformly distributed unit quaternion gives a uniformly distributed rotation.
    Eigen::Quaterniond q(rng.normal(), rng.normal(), rng.normal(), rng.normal());
    if (q.norm() < 1e-12)
        q = Eigen::Quaterniond::Identity();
    q.normalize();
    return q.toRotationMatrix();
}

Eigen::Matrix3d randomSmallRotation(Rng& rng, double angleDeg) {
    return Eigen::AngleAxisd(angleDeg * kPi / 180.0, rng.unitVector()).toRotationMatrix();
}

RigidMotion randomMotion(Rng& rng, double maxTranslation) {
    RigidMotion m;
    m.R = randomRotation(rng);
    m.t = Eigen::Vector3d(rng.uniform(-maxTranslation, maxTranslation),
                          rng.uniform(-maxTranslation, maxTranslation),
                          rng.uniform(-maxTranslation, maxTranslation));
    return m;
}

double rotationAngleDeg(const Eigen::Matrix3d& a, const Eigen::Matrix3d& b) {
    const double c = std::clamp(((a.transpose() * b).trace() - 1.0) * 0.5, -1.0, 1.0);
    return std::acos(c) * 180.0 / kPi;
}

MarkerScene::MarkerScene(std::vector<Marker> markers) : markers_(std::move(markers)) {
    buildGrid();
}

void MarkerScene::buildGrid() {
    grid_.clear();
    if (markers_.empty())
        return;
    Eigen::Vector3d lo = markers_[0].position, hi = lo;
    for (const auto& m : markers_) {
        lo = lo.cwiseMin(m.position);
        hi = hi.cwiseMax(m.position);
    }
    // About a handful of markers per occupied cell.
    const double extent = std::max(1.0, (hi - lo).maxCoeff());
    cell_ = std::max(1.0,
                     extent / std::max(1.0, std::sqrt(static_cast<double>(markers_.size()) / 4.0)));
    for (std::size_t i = 0; i < markers_.size(); ++i) {
        const Eigen::Vector3d& p = markers_[i].position;
        grid_[cellKey(static_cast<std::int64_t>(std::floor(p.x() / cell_)),
                      static_cast<std::int64_t>(std::floor(p.y() / cell_)),
                      static_cast<std::int64_t>(std::floor(p.z() / cell_)))]
            .push_back(static_cast<int>(i));
    }
}

MarkerScene MarkerScene::randomPart(int markerCount, std::uint64_t seed, double minSpacing) {
    PartOptions opt;
    opt.markerCount = markerCount;
    opt.minSpacing = minSpacing;
    return randomPart(opt, seed);
}

MarkerScene MarkerScene::randomPart(const PartOptions& opt, std::uint64_t seed) {
    Rng rng(seed);
    const int count = std::max(0, opt.markerCount);
    const double d = opt.minSpacing > 0.0 ? opt.minSpacing : 20.0;
    // Random sequential placement fills about 0.55 of a plane with discs of diameter d;
    // size the panel so that the count needs well under that.
    Panel panel;
    panel.size = std::sqrt(2.4 * std::max(count, 1)) * d;
    const double half = panel.size * 0.5;
    panel.cx = rng.uniform(-0.3, 0.3) / panel.size;
    panel.cy = rng.uniform(-0.3, 0.3) / panel.size;
    const int bumps = 6;
    for (int b = 0; b < bumps; ++b) {
        panel.bumps.push_back({rng.uniform(-half, half), rng.uniform(-half, half),
                               rng.uniform(-1.0, 1.0) * opt.bumpiness * panel.size,
                               rng.uniform(0.08, 0.2) * panel.size});
    }
    std::vector<Marker> markers;
    markers.reserve(static_cast<std::size_t>(count));
    // Placement in the panel's plan, checked with a grid of cell d.
    std::unordered_map<std::uint64_t, std::vector<int>> cells;
    const long long maxAttempts = 200LL * count + 1000;
    for (long long a = 0; a < maxAttempts && static_cast<int>(markers.size()) < count; ++a) {
        const double x = rng.uniform(-half, half);
        const double y = rng.uniform(-half, half);
        const Eigen::Vector3d p(x, y, panel.height(x, y));
        const auto cx = static_cast<std::int64_t>(std::floor(x / d));
        const auto cy = static_cast<std::int64_t>(std::floor(y / d));
        bool clear = true;
        for (std::int64_t i = cx - 1; i <= cx + 1 && clear; ++i) {
            for (std::int64_t j = cy - 1; j <= cy + 1 && clear; ++j) {
                const auto it = cells.find(cellKey(i, j, 0));
                if (it == cells.end())
                    continue;
                for (int k : it->second) {
                    if ((markers[static_cast<std::size_t>(k)].position - p).norm() < d) {
                        clear = false;
                        break;
                    }
                }
            }
        }
        if (!clear)
            continue;
        cells[cellKey(cx, cy, 0)].push_back(static_cast<int>(markers.size()));
        markers.push_back(Marker{p, panel.normal(x, y)});
    }
    return MarkerScene(std::move(markers));
}

MarkerScene MarkerScene::grid(int rows, int cols, double pitch) {
    std::vector<Marker> markers;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            markers.push_back(
                Marker{Eigen::Vector3d(c * pitch, r * pitch, 0.0), Eigen::Vector3d::UnitZ()});
        }
    }
    return MarkerScene(std::move(markers));
}

std::vector<int> MarkerScene::nearestTo(const Eigen::Vector3d& p, int count) const {
    std::vector<std::pair<double, int>> d;
    d.reserve(markers_.size());
    for (std::size_t i = 0; i < markers_.size(); ++i) {
        d.emplace_back((markers_[i].position - p).squaredNorm(), static_cast<int>(i));
    }
    const std::size_t k =
        std::min<std::size_t>(static_cast<std::size_t>(std::max(count, 0)), d.size());
    std::partial_sort(d.begin(), d.begin() + static_cast<std::ptrdiff_t>(k), d.end());
    std::vector<int> out;
    out.reserve(k);
    for (std::size_t i = 0; i < k; ++i)
        out.push_back(d[i].second);
    return out;
}

double MarkerScene::distanceToNearest(const Eigen::Vector3d& p) const {
    double best = std::numeric_limits<double>::infinity();
    if (markers_.empty())
        return best;
    const auto cx = static_cast<std::int64_t>(std::floor(p.x() / cell_));
    const auto cy = static_cast<std::int64_t>(std::floor(p.y() / cell_));
    const auto cz = static_cast<std::int64_t>(std::floor(p.z() / cell_));
    // Widen the search ring by ring until the nearest found is certainly the nearest.
    for (std::int64_t r = 1; r < 1000000; ++r) {
        for (std::int64_t i = cx - r; i <= cx + r; ++i) {
            for (std::int64_t j = cy - r; j <= cy + r; ++j) {
                for (std::int64_t k = cz - r; k <= cz + r; ++k) {
                    if (std::max({std::abs(i - cx), std::abs(j - cy), std::abs(k - cz)}) < r &&
                        r > 1) {
                        continue;  // inner cells were searched in earlier rings
                    }
                    const auto it = grid_.find(cellKey(i, j, k));
                    if (it == grid_.end())
                        continue;
                    for (int m : it->second) {
                        best = std::min(
                            best, (markers_[static_cast<std::size_t>(m)].position - p).norm());
                    }
                }
            }
        }
        if (best <= static_cast<double>(r) * cell_)
            break;
        if (static_cast<double>(r) * cell_ > 1e7)
            break;
    }
    return best;
}

Eigen::Vector3d MarkerScene::centroid() const {
    Eigen::Vector3d c = Eigen::Vector3d::Zero();
    for (const auto& m : markers_)
        c += m.position;
    return markers_.empty() ? c : Eigen::Vector3d(c / static_cast<double>(markers_.size()));
}

int Frame::trueCount() const {
    int n = 0;
    for (const auto& m : markers)
        n += m.truth >= 0 ? 1 : 0;
    return n;
}

FrameGenerator::FrameGenerator(const MarkerScene& scene, std::uint64_t seed)
    : scene_(scene), rng_(seed) {}

Frame FrameGenerator::randomFrame(const FrameOptions& opt) {
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();
    if (scene_.size() > 0)
        centre = scene_[rng_.uniformInt(0, scene_.size() - 1)].position;
    const RigidMotion pose = randomMotion(rng_, opt.maxTranslation);
    return frameAt(centre, pose, opt);
}

Frame FrameGenerator::frameAt(const Eigen::Vector3d& centre, const RigidMotion& pose,
                              const FrameOptions& opt) {
    Frame f;
    f.pose = pose;
    const RigidMotion toFrame = pose.inverse();
    std::vector<int> visible = scene_.nearestTo(centre, opt.visible);
    // Drop a random subset.
    const int drop = static_cast<int>(
        std::floor(std::clamp(opt.dropFraction, 0.0, 1.0) * visible.size() + 1e-9));
    for (int k = 0; k < drop && !visible.empty(); ++k) {
        const int i = rng_.uniformInt(0, static_cast<int>(visible.size()) - 1);
        visible.erase(visible.begin() + i);
    }
    const double normalSigma = opt.normalNoiseDeg * kPi / 180.0;
    Eigen::Vector3d lo = centre, hi = centre;
    for (int idx : visible) {
        const Marker& m = scene_[idx];
        lo = lo.cwiseMin(m.position);
        hi = hi.cwiseMax(m.position);
        ObservedMarker o;
        o.truth = idx;
        o.position = toFrame.apply(m.position) +
                     opt.noiseSigma * Eigen::Vector3d(rng_.normal(), rng_.normal(), rng_.normal());
        if (opt.withNormals) {
            o.normal = (toFrame.rotate(m.normal) +
                        normalSigma * Eigen::Vector3d(rng_.normal(), rng_.normal(), rng_.normal()))
                           .normalized();
        }
        f.markers.push_back(o);
    }
    // Spurious points in the view's box (grown by 10 mm), clear of every scene marker.
    const int spurious =
        static_cast<int>(std::floor(std::max(0.0, opt.spuriousFraction) * opt.visible + 1e-9));
    lo -= Eigen::Vector3d::Constant(10.0);
    hi += Eigen::Vector3d::Constant(10.0);
    for (int k = 0; k < spurious; ++k) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            const Eigen::Vector3d p(rng_.uniform(lo.x(), hi.x()), rng_.uniform(lo.y(), hi.y()),
                                    rng_.uniform(lo.z(), hi.z()));
            if (scene_.distanceToNearest(p) < opt.spuriousClearance)
                continue;
            bool clash = false;
            for (const auto& o : f.markers) {
                if (o.truth < 0 && (pose.apply(o.position) - p).norm() < opt.spuriousClearance)
                    clash = true;
            }
            if (clash)
                continue;
            ObservedMarker o;
            o.truth = -1;
            o.position = toFrame.apply(p);
            if (opt.withNormals)
                o.normal = rng_.unitVector();
            f.markers.push_back(o);
            break;
        }
    }
    if (opt.shuffle) {
        for (int i = static_cast<int>(f.markers.size()) - 1; i > 0; --i) {
            std::swap(f.markers[static_cast<std::size_t>(i)],
                      f.markers[static_cast<std::size_t>(rng_.uniformInt(0, i))]);
        }
    }
    return f;
}

std::vector<Frame> FrameGenerator::walk(int frames, const FrameOptions& opt, double stepMm,
                                        double turnDeg) {
    std::vector<Frame> out;
    if (frames <= 0 || scene_.size() == 0)
        return out;
    const Eigen::Vector3d mid = scene_.centroid();
    double radius = 0.0;
    for (const auto& m : scene_.markers())
        radius = std::max(radius, (m.position - mid).norm());
    Eigen::Vector3d centre = scene_[rng_.uniformInt(0, scene_.size() - 1)].position;
    Eigen::Vector3d dir = rng_.unitVector();
    RigidMotion pose = randomMotion(rng_, opt.maxTranslation);
    for (int k = 0; k < frames; ++k) {
        out.push_back(frameAt(centre, pose, opt));
        // Turn the walking direction a little, keep it along the part's surface, and head
        // back towards the middle near the edge.
        dir = (dir + 0.3 * rng_.unitVector()).normalized();
        const Eigen::Vector3d& n = scene_[scene_.nearestTo(centre, 1).front()].normal;
        dir -= n.dot(dir) * n;
        dir = dir.norm() > 1e-9 ? Eigen::Vector3d(dir.normalized())
                                : Eigen::Vector3d(n.unitOrthogonal());
        Eigen::Vector3d next = centre + stepMm * dir;
        if ((next - mid).norm() > 0.8 * radius) {
            dir = (mid - centre).normalized();
            next = centre + stepMm * dir;
        }
        centre = next;
        pose.R = randomSmallRotation(rng_, turnDeg) * pose.R;
        pose.t += Eigen::Vector3d(rng_.normal(), rng_.normal(), rng_.normal()) * stepMm * 0.5;
    }
    return out;
}

}  // namespace sim
