// The simulated measuring system: scene construction, trajectory and frames.
#include "sim/Scene.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace sim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Standard normal draws for the per-point noise, two per random word: the inverse of the
// normal distribution function tabulated at 4096 quantiles and interpolated linearly (tails
// end at 4.26 sigma). Several times faster than the polar method, which dominated the cost of
// a frame.
class NormalTable {
public:
    NormalTable() {
        for (int i = 0; i <= kBins; ++i) {
            const double u = std::clamp(static_cast<double>(i) / kBins, 1e-5, 1 - 1e-5);
            // Bisection on the distribution function 0.5 * erfc(-x / sqrt 2).
            double lo = -10, hi = 10;
            for (int k = 0; k < 80; ++k) {
                const double mid = 0.5 * (lo + hi);
                (0.5 * std::erfc(-mid / std::sqrt(2.0)) < u ? lo : hi) = mid;
            }
            m_x[static_cast<size_t>(i)] = 0.5 * (lo + hi);
        }
    }
    // Two independent draws from one random word: 12 bits choose the bin, 20 bits place the
    // draw inside it, far finer than the bins themselves.
    void pair(Rng& rng, double& a, double& b) const {
        const uint64_t r = rng.next();
        a = at(static_cast<uint32_t>(r >> 32));
        b = at(static_cast<uint32_t>(r));
    }

private:
    static constexpr int kBins = 4096;
    double at(uint32_t h) const {
        const size_t bin = h >> 20;
        const double f = static_cast<double>(h & 0xFFFFFu) * 0x1p-20;
        return m_x[bin] + f * (m_x[bin + 1] - m_x[bin]);
    }
    double m_x[kBins + 1];
};

const NormalTable& normalTable() {
    static const NormalTable table;
    return table;
}

Eigen::Vector3d noise3(Rng& rng, double sigma) {
    if (sigma <= 0) {
        return Eigen::Vector3d::Zero();
    }
    const NormalTable& t = normalTable();
    double x, y, z, unused;
    t.pair(rng, x, y);
    t.pair(rng, z, unused);
    return Eigen::Vector3d(x, y, z) * sigma;
}

// A small random rotation: Gaussian angles of `sigmaDeg` about each axis.
Eigen::Matrix3d noiseRotation(Rng& rng, double sigmaDeg) {
    if (sigmaDeg <= 0) {
        return Eigen::Matrix3d::Identity();
    }
    const Eigen::Vector3d w = noise3(rng, sigmaDeg * kDeg);
    const double a = w.norm();
    if (a == 0) {
        return Eigen::Matrix3d::Identity();
    }
    return Eigen::AngleAxisd(a, w / a).toRotationMatrix();
}

// Two unit vectors perpendicular to n and to each other.
void basis(const Eigen::Vector3d& n, Eigen::Vector3d& u, Eigen::Vector3d& v) {
    const Eigen::Vector3d a =
        std::fabs(n.x()) < 0.9 ? Eigen::Vector3d::UnitX() : Eigen::Vector3d::UnitY();
    u = n.cross(a).normalized();
    v = n.cross(u);
}

uint64_t frameSeed(uint64_t seed, int index) {
    return seed * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(index) * 0xD1B54A32D192ED03ull +
           0x632BE59BD9B4E019ull;
}

}  // namespace

// Artefact scene
// =============================================================================================

struct Scene::Stage {
    struct Target {
        int sphere = -1;  // index into the artefact spheres, or
        int plane = -1;   // into the planes
        int frames = 0;
    };
    TriangleMesh mesh;
    std::unique_ptr<RayCaster> caster;
    std::vector<TrianglePlane> planes;
    std::vector<int> sphereOf;  // per triangle: the sphere it approximates, or -1
    std::vector<Target> targets;
    int firstFrame = 0;
    int frames = 0;
};

namespace {

// An oriented box: centre, unit axes and half sizes; outward-facing triangles.
void appendBox(TriangleMesh& mesh, const Eigen::Vector3d& c, const Eigen::Matrix3d& axes,
               const Eigen::Vector3d& half) {
    for (int k = 0; k < 3; ++k) {
        for (int side = -1; side <= 1; side += 2) {
            const Eigen::Vector3d n = side * axes.col(k);
            const Eigen::Vector3d a = axes.col((k + 1) % 3) * half[(k + 1) % 3];
            const Eigen::Vector3d b = side * axes.col((k + 2) % 3) * half[(k + 2) % 3];
            const Eigen::Vector3d f = c + n * half[k];
            const int first = static_cast<int>(mesh.vertices.size());
            const Eigen::Vector3d corners[4] = {f - a - b, f + a - b, f + a + b, f - a + b};
            for (const Eigen::Vector3d& v : corners) {
                mesh.vertices.push_back(v.cast<float>());
            }
            mesh.triangles.emplace_back(first, first + 1, first + 2);
            mesh.triangles.emplace_back(first, first + 2, first + 3);
        }
    }
}

// A latitude-longitude sphere inscribed in the true one (vertices on it), so every ray that
// meets the triangles meets the sphere; hits are recomputed on the true sphere.
void appendSphere(TriangleMesh& mesh, const Eigen::Vector3d& c, double r) {
    constexpr int kLat = 24, kLon = 48;
    const int first = static_cast<int>(mesh.vertices.size());
    for (int i = 0; i <= kLat; ++i) {
        for (int j = 0; j <= kLon; ++j) {
            const double th = kPi * i / kLat, ph = 2 * kPi * j / kLon;
            const Eigen::Vector3d d(std::sin(th) * std::cos(ph), std::sin(th) * std::sin(ph),
                                    std::cos(th));
            mesh.vertices.push_back((c + r * d).cast<float>());
        }
    }
    auto at = [&](int i, int j) { return first + i * (kLon + 1) + j; };
    for (int i = 0; i < kLat; ++i) {
        for (int j = 0; j < kLon; ++j) {
            if (i > 0) {
                mesh.triangles.emplace_back(at(i, j), at(i + 1, j), at(i + 1, j + 1));
            }
            if (i < kLat - 1) {
                mesh.triangles.emplace_back(at(i, j), at(i + 1, j + 1), at(i, j + 1));
            }
        }
    }
}

}  // namespace

ArtefactSet artefactSet() {
    ArtefactSet a;
    a.volumeLo = Eigen::Vector3d(-400, -300, 0);
    a.volumeHi = Eigen::Vector3d(400, 300, 500);
    const Eigen::Vector3d centre = 0.5 * (a.volumeLo + a.volumeHi);
    const double diameter = 25.0, length = 400.0;
    a.spheres.push_back({"sphere", centre, diameter});
    const Eigen::Vector3d half = 0.5 * (a.volumeHi - a.volumeLo);
    const std::vector<std::pair<std::string, Eigen::Vector3d>> directions = {
        {"diagonal +x+y+z", Eigen::Vector3d(half.x(), half.y(), half.z())},
        {"diagonal -x+y+z", Eigen::Vector3d(-half.x(), half.y(), half.z())},
        {"diagonal +x-y+z", Eigen::Vector3d(half.x(), -half.y(), half.z())},
        {"diagonal -x-y+z", Eigen::Vector3d(-half.x(), -half.y(), half.z())},
        {"axis x", Eigen::Vector3d::UnitX()},
        {"axis y", Eigen::Vector3d::UnitY()},
        {"axis z", Eigen::Vector3d::UnitZ()},
    };
    for (const auto& d : directions) {
        const Eigen::Vector3d u = d.second.normalized();
        const int first = static_cast<int>(a.spheres.size());
        a.spheres.push_back({d.first + " A", centre - 0.5 * length * u, diameter});
        a.spheres.push_back({d.first + " B", centre + 0.5 * length * u, diameter});
        a.bars.push_back({d.first, first, first + 1, length});
    }
    ArtefactPlane plane;
    plane.name = "plane";
    // Along x, in front of every sphere: no sphere comes within 50 mm of it.
    plane.centre = Eigen::Vector3d(0, -200, 100);
    plane.axis = Eigen::Vector3d::UnitX();
    plane.length = 600.0;
    plane.width = 80.0;
    plane.thickness = 10.0;
    a.planes.push_back(plane);
    a.tableCentre = Eigen::Vector3d(0, 0, -300);
    a.tableSize = Eigen::Vector3d(1200, 900, 20);
    return a;
}

Scene::~Scene() = default;

std::vector<Scene::TrianglePlane> Scene::trianglePlanes(const TriangleMesh& mesh) {
    std::vector<TrianglePlane> planes(mesh.triangles.size());
    for (size_t i = 0; i < planes.size(); ++i) {
        planes[i].n = mesh.normal(i);
        planes[i].d = planes[i].n.dot(
            mesh.vertices[static_cast<size_t>(mesh.triangles[i][0])].cast<double>());
    }
    return planes;
}

bool Scene::buildArtefacts(std::string* error) {
    const ArtefactSet& a = m_artefacts;
    const int frames = m_options.artefactFrames;
    if (frames < 2 || frames > 100000) {
        if (error != nullptr) {
            *error = "artefact-frames: 2 to 100000";
        }
        return false;
    }
    auto stage = [&](const std::vector<int>& spheres, int plane) {
        auto s = std::make_unique<Stage>();
        s->mesh = m_truth.part;
        s->sphereOf.assign(s->mesh.triangles.size(), -1);
        for (int k : spheres) {
            const ArtefactSphere& sp = a.spheres[static_cast<size_t>(k)];
            appendSphere(s->mesh, sp.centre, 0.5 * sp.diameter);
            s->sphereOf.resize(s->mesh.triangles.size(), k);
            s->targets.push_back({k, -1, frames});
        }
        if (plane >= 0) {
            const ArtefactPlane& p = a.planes[static_cast<size_t>(plane)];
            Eigen::Matrix3d axes;
            axes.col(0) = p.axis;
            axes.col(1) = p.normal.cross(p.axis);
            axes.col(2) = p.normal;
            appendBox(s->mesh, p.centre - 0.5 * p.thickness * p.normal, axes,
                      Eigen::Vector3d(0.5 * p.length, 0.5 * p.width, 0.5 * p.thickness));
            s->sphereOf.resize(s->mesh.triangles.size(), -1);
            s->targets.push_back({-1, plane, 2 * frames});
        }
        s->planes = trianglePlanes(s->mesh);
        s->caster = std::make_unique<RayCaster>(s->mesh);
        s->firstFrame = m_cycle;
        for (const Stage::Target& t : s->targets) {
            s->frames += t.frames;
        }
        m_cycle += s->frames;
        m_stages.push_back(std::move(s));
    };
    stage({0}, -1);
    for (const ArtefactBallBar& b : a.bars) {
        stage({b.a, b.b}, -1);
    }
    for (size_t p = 0; p < a.planes.size(); ++p) {
        stage({}, static_cast<int>(p));
    }
    return true;
}

const Scene::Stage* Scene::stageAt(int index, int* frameInStage) const {
    if (m_stages.empty() || m_cycle <= 0) {
        return nullptr;
    }
    int k = index % m_cycle;
    if (k < 0) {
        k += m_cycle;
    }
    for (const auto& s : m_stages) {
        if (k < s->firstFrame + s->frames) {
            *frameInStage = k - s->firstFrame;
            return s.get();
        }
    }
    *frameInStage = 0;
    return m_stages.back().get();
}

Pose Scene::artefactScannerPose(int index) const {
    int j = 0;
    const Stage* stage = stageAt(index, &j);
    const Stage::Target* target = &stage->targets.back();
    for (const Stage::Target& t : stage->targets) {
        if (j < t.frames) {
            target = &t;
            break;
        }
        j -= t.frames;
    }
    const double f = (j + 0.5) / target->frames;
    Eigen::Matrix3d base;
    base.col(0) = Eigen::Vector3d::UnitX();
    base.col(1) = -Eigen::Vector3d::UnitY();
    base.col(2) = -Eigen::Vector3d::UnitZ();
    const double d = m_options.workingDistance;
    Pose p;
    if (target->sphere >= 0) {
        // Around the sphere on a cone of 20 degrees about the vertical, turning as it goes and
        // aiming a little off the centre, so the laser lines cross the whole visible cap.
        const Eigen::Vector3d c = m_artefacts.spheres[static_cast<size_t>(target->sphere)].centre;
        const double theta = 2 * kPi * f + m_phase[3];
        // The second sphere of a ball bar is scanned with the scanner turned half round, as an
        // operator walking round the bar does: errors of the scanner's own frame then move the
        // two centres differently.
        const double turn = target == &stage->targets.front() ? 0.0 : kPi;
        const double alpha = 20 * kDeg;
        const Eigen::Vector3d v(std::sin(alpha) * std::cos(theta),
                                std::sin(alpha) * std::sin(theta), std::cos(alpha));
        const Eigen::Vector3d aim = c + 6.0 * Eigen::Vector3d(std::cos(3 * theta + m_phase[4]),
                                                              std::sin(3 * theta + m_phase[4]), 0);
        p.R = (Eigen::AngleAxisd(alpha, Eigen::Vector3d(-std::sin(theta), std::cos(theta), 0)) *
               Eigen::AngleAxisd(0.5 * theta + turn, Eigen::Vector3d::UnitZ()))
                  .toRotationMatrix() *
              base;
        p.t = aim + d * v;
        return p;
    }
    // Along the plane at working distance, tilting and turning a little.
    const ArtefactPlane& plane = m_artefacts.planes[static_cast<size_t>(target->plane)];
    const double along = (f - 0.5) * (plane.length - 100.0);
    const double tilt = 8 * kDeg * std::sin(2 * kPi * 3 * f + m_phase[4]);
    const double yaw = std::atan2(plane.axis.y(), plane.axis.x()) +
                       25 * kDeg * std::sin(2 * kPi * 2 * f + m_phase[5]);
    p.R = (Eigen::AngleAxisd(yaw, Eigen::Vector3d::UnitZ()) *
           Eigen::AngleAxisd(tilt, Eigen::Vector3d::UnitX()))
              .toRotationMatrix() *
          base;
    p.t = plane.centre + along * plane.axis + d * plane.normal;
    return p;
}

std::vector<TrackerPlacement> defaultTrackers(int count) {
    const TrackerPlacement all[3] = {
        {"TRK0001", {0, -2600, 1800}, {0, 0, 0}, 60.0, 1200.0, 6000.0},
        {"TRK0002", {2500, 900, 1600}, {0, 0, 0}, 60.0, 1200.0, 6000.0},
        {"TRK0003", {-2500, 1000, 1700}, {0, 0, 0}, 60.0, 1200.0, 6000.0},
    };
    std::vector<TrackerPlacement> out;
    for (int i = 0; i < std::clamp(count, 1, 3); ++i) {
        out.push_back(all[i]);
    }
    return out;
}

std::unique_ptr<Scene> Scene::create(const SceneOptions& options, std::string* error) {
    std::unique_ptr<Scene> s(new Scene());
    if (!s->build(options, error)) {
        return nullptr;
    }
    return s;
}

bool Scene::build(const SceneOptions& o, std::string* error) {
    auto fail = [&](const std::string& text) {
        if (error != nullptr) {
            *error = text;
        }
        return false;
    };
    if (o.trackers < 1 || o.trackers > 3) {
        return fail("trackers: 1 to 3");
    }
    if (o.lines < 1 || o.lines > 64 || o.pointsPerLine < 2 || o.pointsPerLine > 100000) {
        return fail("laser: 1 to 64 lines of 2 to 100000 points");
    }
    if (!(o.depthNear > 0) || !(o.depthFar > o.depthNear) || !(o.fps > 0) || !(o.speed >= 0) ||
        !(o.rowSpacing > 0) || !(o.markerDiameter > 0) || o.markerCount < 0 ||
        o.markerCount > 100000) {
        return fail("scene options out of range");
    }
    if (o.laserNoise < 0 || o.poseNoiseMm < 0 || o.poseNoiseDeg < 0 || o.markerNoise < 0 ||
        o.laserNormalNoiseDeg < 0) {
        return fail("noise levels are not negative");
    }
    if (o.motion != "none" && o.motion != "sway") {
        return fail("motion is none or sway");
    }
    m_options = o;
    if (o.artefacts) {
        // The marker table is the part; the artefacts come with the stages.
        m_artefacts = artefactSet();
        m_truth.part = TriangleMesh();
        appendBox(
            m_truth.part,
            m_artefacts.tableCentre - 0.5 * m_artefacts.tableSize.z() * Eigen::Vector3d::UnitZ(),
            Eigen::Matrix3d::Identity(), 0.5 * m_artefacts.tableSize);
    } else if (o.meshPath.empty()) {
        m_truth.part = defaultPart(&m_truth.holes);
    } else if (!loadMesh(o.meshPath, m_truth.part, error)) {
        return false;
    }
    m_caster = std::make_unique<RayCaster>(m_truth.part);
    m_planes = trianglePlanes(m_truth.part);
    m_fanCos.resize(static_cast<size_t>(o.pointsPerLine));
    m_fanSin.resize(static_cast<size_t>(o.pointsPerLine));
    for (int k = 0; k < o.pointsPerLine; ++k) {
        const double th = (-0.5 + static_cast<double>(k) / (o.pointsPerLine - 1)) * o.fanDeg * kDeg;
        m_fanCos[static_cast<size_t>(k)] = std::cos(th);
        m_fanSin[static_cast<size_t>(k)] = std::sin(th);
    }
    m_truth.part.bounds(m_lo, m_hi);
    m_height =
        std::max(m_hi.z() + o.depthNear + 30.0, 0.5 * (m_lo.z() + m_hi.z()) + o.workingDistance);

    Rng rng(o.seed);
    for (double& p : m_phase) {
        p = rng.uniform(0, 2 * kPi);
    }
    if (!o.markersPath.empty()) {
        if (!loadMarkers(o.markersPath, m_truth.markers, error)) {
            return false;
        }
    } else {
        placeMarkers(rng);
    }

    m_trackers = defaultTrackers(o.trackers);
    for (size_t i = 0; i < m_trackers.size() && i < o.trackerIds.size(); ++i) {
        if (o.trackerIds[i].empty() || o.trackerIds[i].size() > 19) {
            return fail("tracker ids have 1 to 19 characters");
        }
        m_trackers[i].id = o.trackerIds[i];
    }
    for (const TrackerPlacement& t : m_trackers) {
        const Eigen::Vector3d z = (t.target - t.position).normalized();
        const Eigen::Vector3d x = z.cross(Eigen::Vector3d::UnitZ()).normalized();
        const Eigen::Vector3d y = z.cross(x);
        Pose p;
        p.R.row(0) = x.transpose();
        p.R.row(1) = y.transpose();
        p.R.row(2) = z.transpose();
        p.t = -p.R * t.position;
        m_roomToTracker.push_back(p);
        m_truth.transfer[t.id] = transferFromMotion(p.R, p.t);
    }

    // Body markers of the scanner: six on its back (facing away from the part), two on each
    // side.
    for (int i = -1; i <= 1; ++i) {
        for (int j = -1; j <= 1; j += 2) {
            m_bodyMarkers.push_back(
                {Eigen::Vector3d(50.0 * i, 25.0 * j, -40), -Eigen::Vector3d::UnitZ()});
        }
    }
    for (int s = -1; s <= 1; s += 2) {
        for (int k = -1; k <= 1; k += 2) {
            m_bodyMarkers.push_back(
                {Eigen::Vector3d(70.0 * s, 20.0 * k, -10), Eigen::Vector3d(s, 0, 0)});
            m_bodyMarkers.push_back(
                {Eigen::Vector3d(30.0 * k, 45.0 * s, -10), Eigen::Vector3d(0, s, 0)});
        }
    }
    return !o.artefacts || buildArtefacts(error);
}

void Scene::placeMarkers(Rng& rng) {
    const TriangleMesh& mesh = m_truth.part;
    const int want = m_options.markerCount;
    // Candidate faces: all but those facing down (the part rests on them).
    std::vector<double> cumulative;
    std::vector<size_t> faces;
    double total = 0;
    for (size_t i = 0; i < mesh.triangles.size(); ++i) {
        if (mesh.normal(i).z() >= -0.05 && mesh.area(i) > 1e-6) {
            total += mesh.area(i);
            cumulative.push_back(total);
            faces.push_back(i);
        }
    }
    if (faces.empty() || want == 0) {
        return;
    }
    const double radius = 0.5 * m_options.markerDiameter;
    const double spacing = std::min(25.0, 0.6 * std::sqrt(total / want));
    auto acceptable = [&](const Eigen::Vector3d& p, const Eigen::Vector3d& n,
                          const std::vector<TruthMarker>& placed, size_t skip) {
        for (size_t k = 0; k < placed.size(); ++k) {
            if (k != skip && (placed[k].position - p).norm() < spacing) {
                return false;
            }
        }
        // Flat under the whole sticker: probes on a ring a little wider than the marker all
        // meet the surface 1 mm below their start.
        Eigen::Vector3d u, v;
        basis(n, u, v);
        for (int k = 0; k < 8; ++k) {
            const double a = 2 * kPi * k / 8;
            Ray r;
            r.origin = (p + n + (radius + 2.0) * (std::cos(a) * u + std::sin(a) * v)).cast<float>();
            r.direction = (-n).cast<float>();
            r.tfar = 3.0f;
            const Hit h = m_caster->intersect(r);
            if (!h.valid() || std::fabs(h.t - 1.0f) > 0.01f) {
                return false;
            }
        }
        // Nothing covers it (the panel under the raised block, for instance).
        Ray up;
        up.origin = (p + 0.05 * n).cast<float>();
        up.direction = n.cast<float>();
        up.tfar = 500.0f;
        return !m_caster->occluded(up);
    };
    auto draw = [&](Eigen::Vector3d& p, Eigen::Vector3d& n) {
        const double x = rng.uniform(0, total);
        const size_t k = static_cast<size_t>(
            std::lower_bound(cumulative.begin(), cumulative.end(), x) - cumulative.begin());
        const size_t f = faces[std::min(k, faces.size() - 1)];
        const Eigen::Vector3i& t = mesh.triangles[f];
        double a = rng.uniform(), b = rng.uniform();
        if (a + b > 1) {
            a = 1 - a;
            b = 1 - b;
        }
        const Eigen::Vector3d p0 = mesh.vertices[static_cast<size_t>(t[0])].cast<double>();
        p = p0 + a * (mesh.vertices[static_cast<size_t>(t[1])].cast<double>() - p0) +
            b * (mesh.vertices[static_cast<size_t>(t[2])].cast<double>() - p0);
        n = mesh.normal(f);
    };
    std::vector<TruthMarker>& out = m_truth.markers;
    for (int attempt = 0; attempt < 400 * want && static_cast<int>(out.size()) < want; ++attempt) {
        TruthMarker m;
        draw(m.position, m.normal);
        if (acceptable(m.position, m.normal, out, out.size())) {
            m.id = static_cast<int>(out.size());
            m.diameter = m_options.markerDiameter;
            out.push_back(m);
        }
    }
    // No two local constellations alike: the distances to the three nearest neighbours of
    // every marker differ from those of every other marker by at least 0.5 mm somewhere.
    auto signature = [&](size_t i) {
        std::vector<double> d;
        for (size_t k = 0; k < out.size(); ++k) {
            if (k != i) {
                d.push_back((out[k].position - out[i].position).norm());
            }
        }
        std::sort(d.begin(), d.end());
        d.resize(std::min<size_t>(3, d.size()));
        return d;
    };
    for (int pass = 0; pass < 20; ++pass) {
        bool moved = false;
        std::vector<std::vector<double>> sig;
        for (size_t i = 0; i < out.size(); ++i) {
            sig.push_back(signature(i));
        }
        for (size_t i = 0; i < out.size() && !moved; ++i) {
            for (size_t j = i + 1; j < out.size() && !moved; ++j) {
                double diff = 0;
                for (size_t k = 0; k < sig[i].size() && k < sig[j].size(); ++k) {
                    diff = std::max(diff, std::fabs(sig[i][k] - sig[j][k]));
                }
                if (diff < 0.5) {
                    // Move marker j somewhere else.
                    for (int attempt = 0; attempt < 1000; ++attempt) {
                        Eigen::Vector3d p, n;
                        draw(p, n);
                        if (acceptable(p, n, out, j)) {
                            out[j].position = p;
                            out[j].normal = n;
                            moved = true;
                            break;
                        }
                    }
                }
            }
        }
        if (!moved) {
            break;
        }
    }
}

Pose Scene::scannerInPart(int index) const {
    if (!m_stages.empty()) {
        return artefactScannerPose(index);
    }
    const SceneOptions& o = m_options;
    const double s = index / o.fps;
    const double margin = 30.0;
    const double x0 = m_lo.x() + margin, x1 = std::max(x0, m_hi.x() - margin);
    const double y0 = m_lo.y() + 40.0, y1 = std::max(y0, m_hi.y() - 40.0);
    const int rows = static_cast<int>(std::floor((y1 - y0) / o.rowSpacing)) + 1;
    const double rowLength = x1 - x0;
    const double cycle = rows * rowLength + (rows - 1) * o.rowSpacing;
    double m = cycle > 0 ? std::fmod(o.speed * s, 2 * cycle) : 0.0;
    if (m > cycle) {
        m = 2 * cycle - m;  // the sweep runs back the way it came
    }
    const double segment = rowLength + o.rowSpacing;
    int r = segment > 0 ? static_cast<int>(std::floor(m / segment)) : 0;
    double u = m - r * segment;
    if (r >= rows) {
        r = rows - 1;
        u = rowLength;
    }
    double x, y;
    if (u <= rowLength) {
        x = r % 2 == 0 ? x0 + u : x1 - u;
        y = y0 + r * o.rowSpacing;
    } else {
        x = r % 2 == 0 ? x1 : x0;
        y = y0 + r * o.rowSpacing + (u - rowLength);
    }
    // Looking down; the hand tilts and turns slowly.
    Eigen::Matrix3d base;
    base.col(0) = Eigen::Vector3d::UnitX();
    base.col(1) = -Eigen::Vector3d::UnitY();
    base.col(2) = -Eigen::Vector3d::UnitZ();
    const double a = o.tiltDeg * kDeg * std::sin(2 * kPi * s / 7.3 + m_phase[0]);
    const double b = o.tiltDeg * kDeg * std::sin(2 * kPi * s / 5.1 + m_phase[1]);
    const double yaw = 2 * o.tiltDeg * kDeg * std::sin(2 * kPi * s / 11.7 + m_phase[2]);
    Pose p;
    p.R = (Eigen::AngleAxisd(yaw, Eigen::Vector3d::UnitZ()) *
           Eigen::AngleAxisd(a, Eigen::Vector3d::UnitX()) *
           Eigen::AngleAxisd(b, Eigen::Vector3d::UnitY()))
              .toRotationMatrix() *
          base;
    p.t = Eigen::Vector3d(x, y, m_height);
    return p;
}

Pose Scene::partInRoom(int index) const {
    Pose p;
    if (m_options.motion != "sway") {
        return p;
    }
    const double w = 2 * kPi * (index / m_options.fps) / m_options.motionPeriodS;
    const Eigen::Vector3d centre = 0.5 * (m_lo + m_hi);
    p.R = Eigen::AngleAxisd(m_options.motionDeg * kDeg * std::sin(w), Eigen::Vector3d::UnitZ())
              .toRotationMatrix();
    p.t = centre - p.R * centre +
          m_options.motionMm * Eigen::Vector3d(std::sin(w), 0.5 * std::sin(2 * w), 0);
    return p;
}

Pose Scene::roomToTracker(int i) const {
    return m_roomToTracker[static_cast<size_t>(i)];
}

bool Scene::trackerSees(int i, const Eigen::Vector3d& p) const {
    const TrackerPlacement& t = m_trackers[static_cast<size_t>(i)];
    const Eigen::Vector3d k = m_roomToTracker[static_cast<size_t>(i)].apply(p);
    const double d = k.norm();
    return d >= t.nearMm && d <= t.farMm && k.z() >= d * std::cos(0.5 * t.fovDeg * kDeg);
}

int Scene::bodyMarkersSeen(int i, const Pose& scanner, const Pose& /*part*/) const {
    const Eigen::Vector3d eye = m_trackers[static_cast<size_t>(i)].position;
    int seen = 0;
    for (const Marker& b : m_bodyMarkers) {
        const Eigen::Vector3d p = scanner.apply(b.position);
        const Eigen::Vector3d n = scanner.rotate(b.normal);
        if (trackerSees(i, p) && n.dot((eye - p).normalized()) >= std::cos(80 * kDeg)) {
            ++seen;
        }
    }
    return seen;
}

void Scene::frame(const FrameRequest& rq, ScanFrame& out) const {
    const SceneOptions& o = m_options;
    Rng rng(frameSeed(o.seed, rq.index));
    {
        // Start afresh but keep the buffers: frames are large and come one after another.
        std::vector<Eigen::Vector3d> points, normals;
        std::vector<float> quality;
        points.swap(out.points);
        normals.swap(out.normals);
        quality.swap(out.quality);
        out = ScanFrame();
        points.clear();
        normals.clear();
        quality.clear();
        out.points.swap(points);
        out.normals.swap(normals);
        out.quality.swap(quality);
    }
    out.index = rq.index;
    int inStage = 0;
    const Stage* stage = stageAt(rq.index, &inStage);
    const RayCaster& caster = stage != nullptr ? *stage->caster : *m_caster;
    const Pose part = partInRoom(rq.index);
    const Pose scanner = scannerInPart(rq.index);
    const Pose scannerRoom = part * scanner;
    const int n = static_cast<int>(m_trackers.size());

    // The observing tracker.
    int tracker = -1, best = 0;
    if (rq.tracker >= 0 && rq.tracker < n) {
        tracker = rq.tracker;
        best = bodyMarkersSeen(tracker, scannerRoom, part);
    } else {
        for (int i = 0; i < n; ++i) {
            if (!rq.allowed.empty() &&
                std::find(rq.allowed.begin(), rq.allowed.end(), i) == rq.allowed.end()) {
                continue;
            }
            const int c = bodyMarkersSeen(i, scannerRoom, part);
            if (c >= 4 && (tracker < 0 || c > best || (c == best && i == rq.previousTracker))) {
                tracker = i;
                best = c;
            }
        }
    }
    out.tracker = tracker;
    if (tracker < 0) {
        return;  // nobody sees the scanner: an empty frame
    }
    out.trackerId = m_trackers[static_cast<size_t>(tracker)].id;
    const Pose toK = m_roomToTracker[static_cast<size_t>(tracker)];
    const Pose partToK = toK * part;
    out.scannerSeen = !rq.trackerOnly && best >= 4;

    if (out.scannerSeen) {
        out.truePose = rq.dynamic ? scanner : partToK * scanner;
        const Eigen::Matrix3d R = noiseRotation(rng, o.poseNoiseDeg) * out.truePose.R;
        const Eigen::Vector3d t = out.truePose.t + noise3(rng, o.poseNoiseMm);
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) {
                out.rotation[3 * r + c] = R(c, r);  // row reading: p = x R_rows + t
            }
            out.translation[r] = t[r];
        }
        // Distance along the axis.
        Ray axis;
        axis.origin = scanner.t.cast<float>();
        axis.direction = scanner.R.col(2).cast<float>();
        const Hit h = caster.intersect(axis);
        out.distance = h.valid() ? h.t : 0.0;
    }

    // Laser lines.
    if (out.scannerSeen && rq.laser) {
        const int lines = o.lines;
        const int perLine = o.pointsPerLine;
        const size_t fan = static_cast<size_t>(perLine);
        const int familyA = (lines + 1) / 2;
        const double nearZ = o.depthNear / std::max(1.0, rq.depthScale);
        const double farZ = o.depthFar * std::max(1.0, rq.depthScale);
        const double minCos = std::cos(80 * kDeg);
        const double sigmaN = o.laserNormalNoiseDeg * kDeg;
        const double laserNoise = o.laserNoise;
        const NormalTable& gauss = normalTable();
        // Scratch of the fans, kept from frame to frame by the calling thread.
        struct Scratch {
            std::vector<Eigen::Vector3d> directions;  // in the part's frame
            std::vector<Hit> hits;
            std::vector<int> valid;
            std::vector<double> scale;
        };
        thread_local Scratch scratch;
        std::vector<Eigen::Vector3d>& dirs = scratch.directions;
        std::vector<Hit>& hits = scratch.hits;
        std::vector<int>& valid = scratch.valid;
        dirs.resize(fan);
        valid.resize(fan);
        scratch.scale.resize(fan);
        const std::vector<TrianglePlane>& planes = stage != nullptr ? stage->planes : m_planes;
        const Eigen::Matrix3d Rt = scanner.R.transpose();
        const Eigen::Vector3d zW = scanner.R.col(2);
        out.points.reserve(static_cast<size_t>(lines) * fan);
        out.normals.reserve(static_cast<size_t>(lines) * fan);
        out.quality.reserve(static_cast<size_t>(lines) * fan);
        for (int l = 0; l < lines; ++l) {
            const int family = l % 2;
            const int inFamily = l / 2;
            const int familySize = family == 0 ? familyA : lines - familyA;
            const double phi = (family == 0 ? 45.0 : -45.0) * kDeg;
            const Eigen::Vector3d nS(std::cos(phi), std::sin(phi), 0);
            const Eigen::Vector3d uS(-std::sin(phi), std::cos(phi), 0);
            const double offset = (inFamily - 0.5 * (familySize - 1)) * o.lineSpacing;
            const Eigen::Vector3d eS = offset * nS;  // the emitter, on the scanner's xy plane
            const Eigen::Vector3d eW = scanner.apply(eS);
            LaserLineInfo info;
            info.index = l;
            info.firstPoint = static_cast<int>(out.points.size());
            info.plane = Eigen::Vector4d(nS.x(), nS.y(), nS.z(), -offset);
            // Ray k leaves along cos(th_k) z + sin(th_k) u in S: the fan's two axes turn into
            // the part's frame once per line.
            const Eigen::Vector3d uW = scanner.R * uS;
            for (size_t k = 0; k < fan; ++k) {
                dirs[k] = m_fanCos[k] * zW + m_fanSin[k] * uW;
            }
            caster.intersectFan(eW.cast<float>(), dirs, static_cast<float>(0.5 * nearZ),
                                static_cast<float>(2.0 * farZ), hits);
            // Room for every ray of the line, trimmed to the points kept afterwards.
            const size_t first = out.points.size();
            size_t kept = first;
            out.points.resize(first + fan);
            out.normals.resize(first + fan);
            out.quality.resize(first + fan);
            Eigen::Vector3d* points = out.points.data();
            Eigen::Vector3d* normals = out.normals.data();
            float* quality = out.quality.data();
            for (size_t k = 0; k < fan; ++k) {
                valid[k] = -1;
                const Hit& h = hits[k];
                if (!h.valid()) {
                    continue;
                }
                const Eigen::Vector3d& dW = dirs[k];
                const size_t tri = static_cast<size_t>(h.triangle);
                const TrianglePlane& plane = planes[tri];
                Eigen::Vector3d nW = plane.n;
                double t = 0, facing = 0;
                const int sphere = stage != nullptr ? stage->sphereOf[tri] : -1;
                if (sphere >= 0) {
                    // The exact hit on the true sphere (the triangles lie inside it).
                    const ArtefactSphere& sp = m_artefacts.spheres[static_cast<size_t>(sphere)];
                    const double r = 0.5 * sp.diameter;
                    const Eigen::Vector3d oc = eW - sp.centre;
                    const double b = oc.dot(dW);
                    const double disc = b * b - (oc.squaredNorm() - r * r);
                    if (disc < 0) {
                        continue;
                    }
                    t = -b - std::sqrt(disc);
                    nW = (oc + t * dW) / r;
                    facing = -nW.dot(dW);
                } else {
                    // The exact hit on the triangle's plane, in double precision.
                    facing = -nW.dot(dW);
                    if (facing < minCos) {
                        continue;
                    }
                    t = (nW.dot(eW) - plane.d) / facing;
                }
                if (facing < minCos) {
                    continue;  // back face or grazing
                }
                // In S the ray runs from eS (z = 0) along (sin u_x, sin u_y, cos).
                const double z = t * m_fanCos[k];
                if (z < nearZ || z > farZ) {
                    continue;
                }
                const double along = t * m_fanSin[k];
                valid[k] = static_cast<int>(kept);
                points[kept] = Eigen::Vector3d(eS.x() + along * uS.x(), eS.y() + along * uS.y(), z);
                normals[kept] =
                    Eigen::Vector3d(Rt.row(0).dot(nW), Rt.row(1).dot(nW), Rt.row(2).dot(nW));
                quality[kept] = static_cast<float>(0.5 + 0.5 * facing);
                ++kept;
            }
            out.points.resize(kept);
            out.normals.resize(kept);
            out.quality.resize(kept);
            // The noise of the line's points in a loop of its own: its draws and square roots
            // do not wait on the hit tests.
            for (size_t i = first; i < kept; ++i) {
                double g[6];
                gauss.pair(rng, g[0], g[1]);
                gauss.pair(rng, g[2], g[3]);
                if (laserNoise > 0) {
                    out.points[i] += laserNoise * Eigen::Vector3d(g[0], g[1], g[2]);
                }
                if (sigmaN > 0) {
                    gauss.pair(rng, g[4], g[5]);
                    // A small Gaussian tilt: the perpendicular part of the added vector turns
                    // the normal by about its length in radians.
                    Eigen::Vector3d& n = out.normals[i];
                    n += sigmaN * Eigen::Vector3d(g[3], g[4], g[5]);
                }
            }
            if (sigmaN > 0) {
                // Back to unit length: the lengths' inverses in a loop of their own, which the
                // compiler turns into packed square roots and divisions.
                const size_t count = kept - first;
                double* scale = scratch.scale.data();
                const Eigen::Vector3d* nn = out.normals.data() + first;
                for (size_t i = 0; i < count; ++i) {
                    scale[i] = nn[i].squaredNorm();
                }
                for (size_t i = 0; i < count; ++i) {
                    scale[i] = 1.0 / std::sqrt(scale[i]);
                }
                for (size_t i = 0; i < count; ++i) {
                    out.normals[first + i] *= scale[i];
                }
            }
            info.pointCount = static_cast<int>(out.points.size()) - info.firstPoint;
            if (info.pointCount > 0) {
                info.start = out.points[static_cast<size_t>(info.firstPoint)];
                info.end = out.points.back();
            }
            out.lines.push_back(info);
            if (rq.edges) {
                // An edge where a line breaks off: a valid point next to a missing one, or two
                // neighbours more than 3 mm apart (a step).
                for (int k = 0; k < perLine; ++k) {
                    const int here = valid[static_cast<size_t>(k)];
                    if (here < 0) {
                        continue;
                    }
                    for (int side = -1; side <= 1; side += 2) {
                        const int j = k + side;
                        const int there =
                            j >= 0 && j < perLine ? valid[static_cast<size_t>(j)] : -1;
                        const bool inside = j >= 0 && j < perLine;
                        const bool brk = (inside && there < 0) ||
                                         (there >= 0 &&
                                          (out.points[static_cast<size_t>(here)] -
                                           out.points[static_cast<size_t>(there)])
                                                  .norm() > 3.0 &&
                                          out.points[static_cast<size_t>(here)].z() <
                                              out.points[static_cast<size_t>(there)].z());
                        if (!brk) {
                            continue;
                        }
                        const Pose sToK = partToK * scanner;
                        EdgePointK e;
                        e.centre = sToK.apply(out.points[static_cast<size_t>(here)]);
                        e.normal = sToK.rotate(out.normals[static_cast<size_t>(here)]);
                        e.outward = sToK.rotate(side * uS);
                        e.line = l;
                        out.edges.push_back(e);
                    }
                }
            }
        }
    }

    // Reference markers: those the tracker sees, or those the scanner's cameras see.
    const Pose kToPart = partToK.inverse();
    const Eigen::Vector3d eyeInPart = kToPart.t;  // the tracker's origin in the part frame
    const Pose partToS = scanner.inverse();
    for (const TruthMarker& m : m_truth.markers) {
        const Eigen::Vector3d pRoom = part.apply(m.position);
        if (!trackerSees(tracker, pRoom)) {
            continue;
        }
        const Eigen::Vector3d toEye = (eyeInPart - m.position).normalized();
        const double facing = m.normal.dot(toEye);
        if (facing < std::cos(75 * kDeg)) {
            continue;
        }
        Ray r;
        r.origin = (m.position + 0.05 * m.normal).cast<float>();
        r.direction = toEye.cast<float>();
        r.tfar = 1e5f;
        if (caster.occluded(r)) {
            continue;
        }
        if (rq.scannerMarkers) {
            if (!out.scannerSeen) {
                continue;
            }
            const Eigen::Vector3d s = partToS.apply(m.position);
            const double d = s.norm();
            if (s.z() < 0.8 * o.depthNear || s.z() > 1.1 * o.depthFar ||
                s.z() < d * std::cos(0.5 * o.cameraFovDeg * kDeg) ||
                m.normal.dot((scanner.t - m.position).normalized()) < std::cos(70 * kDeg)) {
                continue;
            }
        }
        ObservedMarkerK k;
        k.id = m.id;
        k.centre = partToK.apply(m.position) + noise3(rng, o.markerNoise);
        k.normal = partToK.rotate(m.normal);
        k.diameter = m.id >= 0 && static_cast<size_t>(m.id) < rq.diameters.size() &&
                             rq.diameters[static_cast<size_t>(m.id)] > 0
                         ? rq.diameters[static_cast<size_t>(m.id)]
                         : m.diameter;
        k.valid = facing >= std::cos(60 * kDeg);
        out.markers.push_back(k);
    }

    // Holes the scanner's cameras see.
    if (out.scannerSeen && rq.holes) {
        for (const TruthHole& h : m_truth.holes) {
            const Eigen::Vector3d s = partToS.apply(h.centre);
            const double d = s.norm();
            if (s.z() < o.depthNear || s.z() > o.depthFar ||
                s.z() < d * std::cos(0.5 * o.cameraFovDeg * kDeg) ||
                h.direction.dot((scanner.t - h.centre).normalized()) < std::cos(60 * kDeg)) {
                continue;
            }
            ObservedHole oh;
            oh.id = h.id;
            oh.centre = partToK.apply(h.centre) + noise3(rng, 0.5 * o.laserNoise);
            oh.direction = partToK.rotate(h.direction);
            oh.radius = h.radius;
            oh.depth = h.depth;
            Eigen::Vector3d u, v;
            basis(h.direction, u, v);
            for (int k = 0; k < 24; ++k) {
                const double a = 2 * kPi * k / 24;
                oh.edge.push_back(
                    partToK.apply(h.centre + h.radius * (std::cos(a) * u + std::sin(a) * v)) +
                    noise3(rng, o.laserNoise));
            }
            out.holes.push_back(std::move(oh));
        }
    }

    if (o.laserRotationDeg != 0 && !out.points.empty()) {
        // A scanner whose laser calibration is off reports its points turned about its x axis.
        const Eigen::Matrix3d err =
            Eigen::AngleAxisd(o.laserRotationDeg * kDeg, Eigen::Vector3d::UnitX())
                .toRotationMatrix();
        for (Eigen::Vector3d& p : out.points) {
            p = err * p;
        }
        for (Eigen::Vector3d& n : out.normals) {
            n = err * n;
        }
        for (LaserLineInfo& l : out.lines) {
            const Eigen::Vector3d n = err * l.plane.head<3>();
            l.plane.head<3>() = n;
            l.start = err * l.start;
            l.end = err * l.end;
        }
    }
    if (o.trackerScalePpm != 0) {
        // A tracker with a length error reports every position scaled about its origin.
        const double k = 1.0 + 1e-6 * o.trackerScalePpm;
        for (double& v : out.translation) {
            v *= k;
        }
        for (ObservedMarkerK& m : out.markers) {
            m.centre *= k;
        }
        for (ObservedHole& h : out.holes) {
            h.centre *= k;
            for (Eigen::Vector3d& e : h.edge) {
                e *= k;
            }
        }
        for (EdgePointK& e : out.edges) {
            e.centre *= k;
        }
    }
}

std::string Scene::describeJson() const {
    const SceneOptions& o = m_options;
    nlohmann::json j;
    j["seed"] = o.seed;
    j["part"] = o.artefacts          ? std::string("artefact table")
                : o.meshPath.empty() ? std::string("built-in")
                                     : o.meshPath;
    j["markers"] = o.markersPath.empty() ? std::string("placed") : o.markersPath;
    j["markerCount"] = m_truth.markers.size();
    j["markerDiameter"] = o.markerDiameter;
    j["noise"] = {{"laserMm", o.laserNoise},
                  {"laserNormalDeg", o.laserNormalNoiseDeg},
                  {"poseMm", o.poseNoiseMm},
                  {"poseDeg", o.poseNoiseDeg},
                  {"markerMm", o.markerNoise}};
    j["scanner"] = {{"lines", o.lines},
                    {"pointsPerLine", o.pointsPerLine},
                    {"lineSpacingMm", o.lineSpacing},
                    {"fanDeg", o.fanDeg},
                    {"workingDistanceMm", o.workingDistance},
                    {"depthNearMm", o.depthNear},
                    {"depthFarMm", o.depthFar},
                    {"cameraFovDeg", o.cameraFovDeg}};
    j["trajectory"] = {{"fps", o.fps},
                       {"speedMmPerS", o.speed},
                       {"rowSpacingMm", o.rowSpacing},
                       {"tiltDeg", o.tiltDeg},
                       {"heightMm", m_height}};
    j["motion"] = {{"kind", o.motion},
                   {"amplitudeMm", o.motionMm},
                   {"amplitudeDeg", o.motionDeg},
                   {"periodS", o.motionPeriodS}};
    nlohmann::json trackers = nlohmann::json::array();
    for (size_t i = 0; i < m_trackers.size(); ++i) {
        const TrackerPlacement& t = m_trackers[i];
        const Matrix16& m = m_truth.transfer.at(t.id);
        trackers.push_back({{"id", t.id},
                            {"position", {t.position.x(), t.position.y(), t.position.z()}},
                            {"target", {t.target.x(), t.target.y(), t.target.z()}},
                            {"fovDeg", t.fovDeg},
                            {"nearMm", t.nearMm},
                            {"farMm", t.farMm},
                            {"matrix", std::vector<double>(m.begin(), m.end())}});
    }
    j["trackers"] = trackers;
    j["trackerScalePpm"] = o.trackerScalePpm;
    if (o.artefacts) {
        const ArtefactSet& a = m_artefacts;
        auto vec = [](const Eigen::Vector3d& v) {
            return std::vector<double>{v.x(), v.y(), v.z()};
        };
        nlohmann::json spheres = nlohmann::json::array(), bars = nlohmann::json::array(),
                       planes = nlohmann::json::array();
        for (const ArtefactSphere& sp : a.spheres) {
            spheres.push_back(
                {{"name", sp.name}, {"centre", vec(sp.centre)}, {"diameter", sp.diameter}});
        }
        for (const ArtefactBallBar& b : a.bars) {
            bars.push_back({{"name", b.name}, {"a", b.a}, {"b", b.b}, {"distance", b.distance}});
        }
        for (const ArtefactPlane& p : a.planes) {
            planes.push_back({{"name", p.name},
                              {"centre", vec(p.centre)},
                              {"normal", vec(p.normal)},
                              {"axis", vec(p.axis)},
                              {"length", p.length},
                              {"width", p.width}});
        }
        j["artefacts"] = {{"volumeLo", vec(a.volumeLo)},
                          {"volumeHi", vec(a.volumeHi)},
                          {"spheres", spheres},
                          {"ballBars", bars},
                          {"planes", planes},
                          {"framesPerSphere", o.artefactFrames},
                          {"cycleFrames", m_cycle}};
    }
    j["convention"] =
        "matrix: p_K = B p_W + T with B(r,c) = M[4r+c], T = M[12..14]; frame pose: p_K = x_S R + t";
    return j.dump();
}

bool Scene::exportTruth(const std::string& dir, std::string* error) const {
    return sim::exportTruth(dir, m_truth, describeJson(), error);
}

}  // namespace sim
