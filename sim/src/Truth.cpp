// Truth files of a simulated scene and the distance of points to the part.
#include "sim/Truth.h"

#include <embree3/rtcore.h>

#include <Eigen/Geometry>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace sim {

namespace {

void setError(std::string* error, const std::string& text) {
    if (error != nullptr) {
        *error = text;
    }
}

constexpr int32_t kMaxCascadeRecords = 4096;

}  // namespace

Eigen::Vector3d applyTransfer(const Matrix16& m, const Eigen::Vector3d& p) {
    Eigen::Vector3d out;
    for (int r = 0; r < 3; ++r) {
        out[r] = m[static_cast<size_t>(4 * r)] * p[0] + m[static_cast<size_t>(4 * r + 1)] * p[1] +
                 m[static_cast<size_t>(4 * r + 2)] * p[2] + m[static_cast<size_t>(12 + r)];
    }
    return out;
}

Eigen::Vector3d applyTransferInverse(const Matrix16& m, const Eigen::Vector3d& pK) {
    const Eigen::Vector3d d(pK[0] - m[12], pK[1] - m[13], pK[2] - m[14]);
    Eigen::Vector3d out;
    for (int c = 0; c < 3; ++c) {
        out[c] = m[static_cast<size_t>(c)] * d[0] + m[static_cast<size_t>(4 + c)] * d[1] +
                 m[static_cast<size_t>(8 + c)] * d[2];
    }
    return out;
}

Matrix16 transferFromMotion(const Eigen::Matrix3d& R, const Eigen::Vector3d& t) {
    Matrix16 m{};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            m[static_cast<size_t>(4 * r + c)] = R(r, c);
        }
        m[static_cast<size_t>(12 + r)] = t[r];
    }
    m[15] = 1.0;
    return m;
}

bool loadMarkers(const std::string& path, std::vector<TruthMarker>& markers, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        setError(error, "cannot open " + path);
        return false;
    }
    std::vector<TruthMarker> out;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        std::istringstream fields(line);
        TruthMarker m;
        double v[7];
        if (!(fields >> m.id >> v[0] >> v[1] >> v[2] >> v[3] >> v[4] >> v[5] >> v[6])) {
            setError(error,
                     path + ":" + std::to_string(number) + ": expected id x y z nx ny nz diameter");
            return false;
        }
        m.position = Eigen::Vector3d(v[0], v[1], v[2]);
        m.normal = Eigen::Vector3d(v[3], v[4], v[5]);
        m.diameter = v[6];
        const double n = m.normal.norm();
        if (!m.position.allFinite() || !(n > 1e-9) || !std::isfinite(n) || !(m.diameter > 0) ||
            !std::isfinite(m.diameter) || m.id < 0) {
            setError(error, path + ":" + std::to_string(number) +
                                ": needs a non-negative id, a finite position, a non-zero "
                                "normal and a positive diameter");
            return false;
        }
        m.normal /= n;
        out.push_back(m);
    }
    markers = std::move(out);
    return true;
}

bool saveMarkers(const std::string& path, const std::vector<TruthMarker>& markers) {
    std::ofstream out(path);
    out.precision(17);
    out << "# id x y z nx ny nz diameter (millimetres, reference frame)\n";
    for (const TruthMarker& m : markers) {
        out << m.id << ' ' << m.position.x() << ' ' << m.position.y() << ' ' << m.position.z()
            << ' ' << m.normal.x() << ' ' << m.normal.y() << ' ' << m.normal.z() << ' '
            << m.diameter << '\n';
    }
    return static_cast<bool>(out);
}

bool writeCascade(const std::string& path, const std::map<std::string, Matrix16>& matrices) {
    for (const auto& [id, m] : matrices) {
        if (id.size() > 19) {
            return false;
        }
    }
    std::ofstream out(path, std::ios::binary);
    const int32_t n = static_cast<int32_t>(matrices.size());
    unsigned char head[4];
    for (int i = 0; i < 4; ++i) {
        head[i] = static_cast<unsigned char>((static_cast<uint32_t>(n) >> (8 * i)) & 0xFFu);
    }
    out.write(reinterpret_cast<const char*>(head), 4);
    for (const auto& [id, m] : matrices) {
        char name[20] = {};
        std::memcpy(name, id.data(), id.size());
        out.write(name, 20);
        for (double v : m) {
            uint64_t bits = 0;
            std::memcpy(&bits, &v, 8);
            unsigned char b[8];
            for (int i = 0; i < 8; ++i) {
                b[i] = static_cast<unsigned char>((bits >> (8 * i)) & 0xFFu);
            }
            out.write(reinterpret_cast<const char*>(b), 8);
        }
    }
    return static_cast<bool>(out);
}

bool readCascade(const std::string& path, std::vector<std::pair<std::string, Matrix16>>& out,
                 std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        setError(error, "cannot open " + path);
        return false;
    }
    unsigned char head[4];
    if (!in.read(reinterpret_cast<char*>(head), 4)) {
        setError(error, path + ": no record count");
        return false;
    }
    uint32_t u = 0;
    for (int i = 0; i < 4; ++i) {
        u |= static_cast<uint32_t>(head[i]) << (8 * i);
    }
    int32_t n = 0;
    std::memcpy(&n, &u, 4);
    if (n < 0 || n > kMaxCascadeRecords) {
        setError(error, path + ": bad record count " + std::to_string(n));
        return false;
    }
    std::vector<std::pair<std::string, Matrix16>> records;
    for (int32_t r = 0; r < n; ++r) {
        char name[21] = {};
        unsigned char raw[128];
        if (!in.read(name, 20) || !in.read(reinterpret_cast<char*>(raw), 128)) {
            setError(error, path + ": record " + std::to_string(r) + " is cut short");
            return false;
        }
        Matrix16 m{};
        for (int k = 0; k < 16; ++k) {
            uint64_t bits = 0;
            for (int i = 0; i < 8; ++i) {
                bits |= static_cast<uint64_t>(raw[8 * k + i]) << (8 * i);
            }
            std::memcpy(&m[static_cast<size_t>(k)], &bits, 8);
        }
        records.emplace_back(std::string(name), m);
    }
    out = std::move(records);
    return true;
}

bool loadTruth(const std::string& dir, Truth& truth, std::string* error) {
    Truth t;
    if (!loadMesh(dir + "/part.ply", t.part, error) ||
        !loadMarkers(dir + "/markers.txt", t.markers, error)) {
        return false;
    }
    std::vector<std::pair<std::string, Matrix16>> cascade;
    if (!readCascade(dir + "/cascade.bin", cascade, error)) {
        return false;
    }
    for (const auto& [id, m] : cascade) {
        t.transfer[id] = m;
    }
    std::ifstream js(dir + "/scene.json");
    if (js) {
        try {
            const nlohmann::json j = nlohmann::json::parse(js);
            for (const auto& h : j.value("holes", nlohmann::json::array())) {
                TruthHole hole;
                hole.id = h.at("id").get<int>();
                const auto c = h.at("centre").get<std::vector<double>>();
                const auto d = h.at("direction").get<std::vector<double>>();
                if (c.size() != 3 || d.size() != 3) {
                    throw std::runtime_error("a hole needs 3 values for centre and direction");
                }
                hole.centre = Eigen::Vector3d(c[0], c[1], c[2]);
                hole.direction = Eigen::Vector3d(d[0], d[1], d[2]).normalized();
                hole.radius = h.at("radius").get<double>();
                hole.depth = h.at("depth").get<double>();
                t.holes.push_back(hole);
            }
        } catch (const std::exception& e) {
            setError(error, dir + "/scene.json: " + e.what());
            return false;
        }
    }
    truth = std::move(t);
    return true;
}

bool exportTruth(const std::string& dir, const Truth& truth, const std::string& sceneJson,
                 std::string* error) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        setError(error, "cannot create " + dir + ": " + ec.message());
        return false;
    }
    nlohmann::json j;
    try {
        j = sceneJson.empty() ? nlohmann::json::object() : nlohmann::json::parse(sceneJson);
    } catch (const std::exception& e) {
        setError(error, std::string("scene description: ") + e.what());
        return false;
    }
    nlohmann::json holes = nlohmann::json::array();
    for (const TruthHole& h : truth.holes) {
        holes.push_back({{"id", h.id},
                         {"centre", {h.centre.x(), h.centre.y(), h.centre.z()}},
                         {"direction", {h.direction.x(), h.direction.y(), h.direction.z()}},
                         {"radius", h.radius},
                         {"depth", h.depth}});
    }
    j["holes"] = holes;
    nlohmann::json transfer = nlohmann::json::object();
    for (const auto& [id, m] : truth.transfer) {
        transfer[id] = std::vector<double>(m.begin(), m.end());
    }
    j["transfer"] = transfer;
    j["markerCount"] = truth.markers.size();
    j["triangleCount"] = truth.part.triangles.size();
    if (!saveMeshPly(dir + "/part.ply", truth.part)) {
        setError(error, "cannot write " + dir + "/part.ply");
        return false;
    }
    if (!saveMarkers(dir + "/markers.txt", truth.markers)) {
        setError(error, "cannot write " + dir + "/markers.txt");
        return false;
    }
    if (!writeCascade(dir + "/cascade.bin", truth.transfer)) {
        setError(error, "cannot write " + dir + "/cascade.bin (tracker ids are at most 19 bytes)");
        return false;
    }
    std::ofstream out(dir + "/scene.json");
    out << j.dump(2) << '\n';
    if (!out) {
        setError(error, "cannot write " + dir + "/scene.json");
        return false;
    }
    return true;
}

// =============================================================================================
// Distance to the surface
// =============================================================================================

Eigen::Vector3d closestPointOnTriangle(const Eigen::Vector3d& p, const Eigen::Vector3d& a,
                                       const Eigen::Vector3d& b, const Eigen::Vector3d& c) {
    // Region tests on the barycentric coordinates (vertex, edge or face region).
    const Eigen::Vector3d ab = b - a, ac = c - a, ap = p - a;
    const double d1 = ab.dot(ap), d2 = ac.dot(ap);
    if (d1 <= 0 && d2 <= 0) {
        return a;
    }
    const Eigen::Vector3d bp = p - b;
    const double d3 = ab.dot(bp), d4 = ac.dot(bp);
    if (d3 >= 0 && d4 <= d3) {
        return b;
    }
    const double vc = d1 * d4 - d3 * d2;
    if (vc <= 0 && d1 >= 0 && d3 <= 0) {
        return a + ab * (d1 / (d1 - d3));
    }
    const Eigen::Vector3d cp = p - c;
    const double d5 = ab.dot(cp), d6 = ac.dot(cp);
    if (d6 >= 0 && d5 <= d6) {
        return c;
    }
    const double vb = d5 * d2 - d1 * d6;
    if (vb <= 0 && d2 >= 0 && d6 <= 0) {
        return a + ac * (d2 / (d2 - d6));
    }
    const double va = d3 * d6 - d5 * d4;
    if (va <= 0 && (d4 - d3) >= 0 && (d5 - d6) >= 0) {
        return b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)));
    }
    const double denom = 1.0 / (va + vb + vc);
    return a + ab * (vb * denom) + ac * (vc * denom);
}

struct MeshDistance::Impl {
    const TriangleMesh* mesh = nullptr;
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    ~Impl() {
        if (scene != nullptr) {
            rtcReleaseScene(scene);
        }
        if (device != nullptr) {
            rtcReleaseDevice(device);
        }
    }
};

namespace {

struct QueryState {
    const TriangleMesh* mesh;
    Eigen::Vector3d p;
    Eigen::Vector3d best;
    double bestDistance;
    int triangle;
};

// Called by Embree for every triangle whose bounds meet the query sphere; shrinks the sphere
// to the closest distance found so far.
bool closestTriangle(RTCPointQueryFunctionArguments* args) {
    auto* s = static_cast<QueryState*>(args->userPtr);
    const Eigen::Vector3i& t = s->mesh->triangles[args->primID];
    const Eigen::Vector3d q =
        closestPointOnTriangle(s->p, s->mesh->vertices[static_cast<size_t>(t[0])].cast<double>(),
                               s->mesh->vertices[static_cast<size_t>(t[1])].cast<double>(),
                               s->mesh->vertices[static_cast<size_t>(t[2])].cast<double>());
    const double d = (q - s->p).norm();
    if (d < s->bestDistance) {
        s->bestDistance = d;
        s->best = q;
        s->triangle = static_cast<int>(args->primID);
        // The query centre is the point rounded to float: keep a margin for that rounding.
        args->query->radius = static_cast<float>(d + 1e-3);
        return true;
    }
    return false;
}

}  // namespace

MeshDistance::MeshDistance(const TriangleMesh& mesh) : m_impl(std::make_unique<Impl>()) {
    m_impl->mesh = &mesh;
    m_impl->device = rtcNewDevice("threads=1");
    if (m_impl->device == nullptr) {
        throw std::runtime_error("Embree device cannot be created");
    }
    m_impl->scene = rtcNewScene(m_impl->device);
    RTCGeometry geom = rtcNewGeometry(m_impl->device, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* v = static_cast<float*>(
        rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                3 * sizeof(float), std::max<size_t>(1, mesh.vertices.size())));
    v[0] = v[1] = v[2] = 0;
    for (size_t i = 0; i < mesh.vertices.size(); ++i) {
        v[3 * i] = mesh.vertices[i].x();
        v[3 * i + 1] = mesh.vertices[i].y();
        v[3 * i + 2] = mesh.vertices[i].z();
    }
    auto* t = static_cast<unsigned*>(rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0,
                                                             RTC_FORMAT_UINT3, 3 * sizeof(unsigned),
                                                             mesh.triangles.size()));
    for (size_t i = 0; i < mesh.triangles.size(); ++i) {
        for (int k = 0; k < 3; ++k) {
            t[3 * i + static_cast<size_t>(k)] = static_cast<unsigned>(mesh.triangles[i][k]);
        }
    }
    rtcCommitGeometry(geom);
    rtcAttachGeometry(m_impl->scene, geom);
    rtcReleaseGeometry(geom);
    rtcCommitScene(m_impl->scene);
}

MeshDistance::~MeshDistance() = default;

Eigen::Vector3d MeshDistance::closest(const Eigen::Vector3d& p, int* triangle) const {
    QueryState s{m_impl->mesh, p, p, std::numeric_limits<double>::infinity(), -1};
    if (!m_impl->mesh->triangles.empty()) {
        RTCPointQuery q;
        q.x = static_cast<float>(p.x());
        q.y = static_cast<float>(p.y());
        q.z = static_cast<float>(p.z());
        q.time = 0.0f;
        q.radius = std::numeric_limits<float>::infinity();
        RTCPointQueryContext context;
        rtcInitPointQueryContext(&context);
        rtcPointQuery(m_impl->scene, &q, &context, closestTriangle, &s);
    }
    if (triangle != nullptr) {
        *triangle = s.triangle;
    }
    return s.best;
}

double MeshDistance::distance(const Eigen::Vector3d& p) const {
    if (m_impl->mesh->triangles.empty()) {
        return std::numeric_limits<double>::infinity();
    }
    return (closest(p) - p).norm();
}

}  // namespace sim
