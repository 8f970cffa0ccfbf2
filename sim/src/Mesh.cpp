// Triangle meshes: the built-in part and the file formats (through PCL's I/O).
#include "sim/Mesh.h"

#include <pcl/PolygonMesh.h>
#include <pcl/conversions.h>
#include <pcl/io/obj_io.h>
#include <pcl/io/ply_io.h>
#include <pcl/point_cloud.h>
#include <pcl/point_types.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>

namespace sim {

namespace {

constexpr double kPi = 3.14159265358979323846;

void setError(std::string* error, const std::string& text) {
    if (error != nullptr) {
        *error = text;
    }
}

std::string lowerExtension(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos) {
        return "";
    }
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

// Builds meshes face by face; each face is given with its outward normal and wound to match.
class Builder {
public:
    explicit Builder(TriangleMesh& m) : m_(m) {}

    int vertex(const Eigen::Vector3d& p) {
        m_.vertices.push_back(p.cast<float>());
        return static_cast<int>(m_.vertices.size()) - 1;
    }
    void triangle(int a, int b, int c, const Eigen::Vector3d& outward) {
        const Eigen::Vector3d pa = m_.vertices[static_cast<size_t>(a)].cast<double>();
        const Eigen::Vector3d n =
            (m_.vertices[static_cast<size_t>(b)].cast<double>() - pa)
                .cross(m_.vertices[static_cast<size_t>(c)].cast<double>() - pa);
        if (n.dot(outward) >= 0) {
            m_.triangles.emplace_back(a, b, c);
        } else {
            m_.triangles.emplace_back(a, c, b);
        }
    }
    // A planar convex polygon given in order (either way round).
    void polygon(const std::vector<Eigen::Vector3d>& corners, const Eigen::Vector3d& outward) {
        std::vector<int> ids;
        for (const auto& p : corners) {
            ids.push_back(vertex(p));
        }
        for (size_t i = 1; i + 1 < ids.size(); ++i) {
            triangle(ids[0], ids[i], ids[i + 1], outward);
        }
    }
    // An axis-aligned rectangle face of the plane `axis` = value.
    void rect(int axis, double value, double a0, double a1, double b0, double b1, int outwardSign) {
        const int u = (axis + 1) % 3, v = (axis + 2) % 3;
        std::vector<Eigen::Vector3d> c(4, Eigen::Vector3d::Zero());
        const double us[4] = {a0, a1, a1, a0}, vs[4] = {b0, b0, b1, b1};
        for (int i = 0; i < 4; ++i) {
            c[static_cast<size_t>(i)][axis] = value;
            c[static_cast<size_t>(i)][u] = us[i];
            c[static_cast<size_t>(i)][v] = vs[i];
        }
        Eigen::Vector3d n = Eigen::Vector3d::Zero();
        n[axis] = outwardSign;
        polygon(c, n);
    }

private:
    TriangleMesh& m_;
};

// A square tile of the top face z = 0 around a blind hole: the annulus between the tile's
// border and the hole's rim, the hole's wall and its floor. The rays from the centre at
// 45 + k * 360 / n degrees meet the border at its corners, so the border stays straight.
void holeTile(Builder& b, const Eigen::Vector2d& c, double half, const TruthHole& h) {
    const int n = 32;
    std::vector<int> rimTop, rimBottom, border;
    for (int k = 0; k < n; ++k) {
        const double a = kPi / 4 + 2 * kPi * k / n;
        const Eigen::Vector2d d(std::cos(a), std::sin(a));
        const double s = half / std::max(std::fabs(d.x()), std::fabs(d.y()));
        border.push_back(b.vertex(Eigen::Vector3d(c.x() + s * d.x(), c.y() + s * d.y(), 0)));
        rimTop.push_back(
            b.vertex(Eigen::Vector3d(c.x() + h.radius * d.x(), c.y() + h.radius * d.y(), 0)));
        rimBottom.push_back(b.vertex(
            Eigen::Vector3d(c.x() + h.radius * d.x(), c.y() + h.radius * d.y(), -h.depth)));
    }
    const int floorCentre = b.vertex(Eigen::Vector3d(c.x(), c.y(), -h.depth));
    for (int k = 0; k < n; ++k) {
        const int k1 = (k + 1) % n;
        const double a = kPi / 4 + 2 * kPi * (k + 0.5) / n;
        const Eigen::Vector3d inward(-std::cos(a), -std::sin(a), 0);
        b.triangle(border[static_cast<size_t>(k)], border[static_cast<size_t>(k1)],
                   rimTop[static_cast<size_t>(k1)], Eigen::Vector3d::UnitZ());
        b.triangle(border[static_cast<size_t>(k)], rimTop[static_cast<size_t>(k1)],
                   rimTop[static_cast<size_t>(k)], Eigen::Vector3d::UnitZ());
        b.triangle(rimTop[static_cast<size_t>(k)], rimTop[static_cast<size_t>(k1)],
                   rimBottom[static_cast<size_t>(k1)], inward);
        b.triangle(rimTop[static_cast<size_t>(k)], rimBottom[static_cast<size_t>(k1)],
                   rimBottom[static_cast<size_t>(k)], inward);
        b.triangle(floorCentre, rimBottom[static_cast<size_t>(k)],
                   rimBottom[static_cast<size_t>(k1)], Eigen::Vector3d::UnitZ());
    }
}

}  // namespace

Eigen::Vector3d TriangleMesh::normal(size_t i) const {
    const Eigen::Vector3i& t = triangles[i];
    const Eigen::Vector3d a = vertices[static_cast<size_t>(t[0])].cast<double>();
    const Eigen::Vector3d n = (vertices[static_cast<size_t>(t[1])].cast<double>() - a)
                                  .cross(vertices[static_cast<size_t>(t[2])].cast<double>() - a);
    const double len = n.norm();
    return len > 0 ? Eigen::Vector3d(n / len) : Eigen::Vector3d::Zero();
}

double TriangleMesh::area(size_t i) const {
    const Eigen::Vector3i& t = triangles[i];
    const Eigen::Vector3d a = vertices[static_cast<size_t>(t[0])].cast<double>();
    return 0.5 * (vertices[static_cast<size_t>(t[1])].cast<double>() - a)
                     .cross(vertices[static_cast<size_t>(t[2])].cast<double>() - a)
                     .norm();
}

void TriangleMesh::bounds(Eigen::Vector3d& lo, Eigen::Vector3d& hi) const {
    lo.setZero();
    hi.setZero();
    for (size_t i = 0; i < vertices.size(); ++i) {
        const Eigen::Vector3d p = vertices[i].cast<double>();
        lo = i == 0 ? p : Eigen::Vector3d(lo.cwiseMin(p));
        hi = i == 0 ? p : Eigen::Vector3d(hi.cwiseMax(p));
    }
}

TriangleMesh defaultPart(std::vector<TruthHole>* holes) {
    TriangleMesh m;
    Builder b(m);
    const double tile = 50.0;
    // Blind holes in the centres of some tiles of the top face (tile column, row, radius).
    const struct {
        int i, j;
        double radius;
    } drill[] = {{5, 1, 4.0}, {9, 1, 5.0}, {1, 6, 6.0}, {4, 5, 5.0}, {11, 3, 4.0}, {6, 7, 3.0}};
    std::vector<TruthHole> made;
    for (int j = 0; j < 8; ++j) {
        for (int i = 0; i < 12; ++i) {
            const double x0 = -300 + tile * i, y0 = -200 + tile * j;
            const TruthHole* here = nullptr;
            for (const auto& d : drill) {
                if (d.i == i && d.j == j) {
                    TruthHole h;
                    h.id = static_cast<int>(made.size());
                    h.centre = Eigen::Vector3d(x0 + tile / 2, y0 + tile / 2, 0);
                    h.radius = d.radius;
                    h.depth = 12.0;
                    made.push_back(h);
                    here = &made.back();
                }
            }
            if (here != nullptr) {
                holeTile(b, Eigen::Vector2d(x0 + tile / 2, y0 + tile / 2), tile / 2, *here);
            } else {
                b.rect(2, 0.0, x0, x0 + tile, y0, y0 + tile, +1);
            }
        }
    }
    // Panel: bottom and sides (20 mm thick).
    b.rect(2, -20.0, -300, 300, -200, 200, -1);
    b.rect(0, -300.0, -200, 200, -20, 0, -1);
    b.rect(0, 300.0, -200, 200, -20, 0, +1);
    b.rect(1, -200.0, -20, 0, -300, 300, -1);
    b.rect(1, 200.0, -20, 0, -300, 300, +1);
    // Raised block on the panel (no bottom face: it stands on the top face).
    b.rect(2, 60.0, -250, -100, -150, 0, +1);
    b.rect(0, -250.0, -150, 0, 0, 60, -1);
    b.rect(0, -100.0, -150, 0, 0, 60, +1);
    b.rect(1, -150.0, 0, 60, -250, -100, -1);
    b.rect(1, 0.0, 0, 60, -250, -100, +1);
    // Ramp: the top face rises from z = 0 at x = 50 to z = 40 at x = 250.
    const Eigen::Vector3d slope = Eigen::Vector3d(-40, 0, 200).normalized();
    b.polygon({{50, 50, 0}, {250, 50, 40}, {250, 150, 40}, {50, 150, 0}}, slope);
    b.rect(0, 250.0, 50, 150, 0, 40, +1);
    b.polygon({{50, 50, 0}, {250, 50, 0}, {250, 50, 40}}, -Eigen::Vector3d::UnitY());
    b.polygon({{50, 150, 0}, {250, 150, 0}, {250, 150, 40}}, Eigen::Vector3d::UnitY());
    if (holes != nullptr) {
        *holes = made;
    }
    return m;
}

bool loadMesh(const std::string& path, TriangleMesh& mesh, std::string* error) {
    const std::string ext = lowerExtension(path);
    if (ext != "ply" && ext != "obj") {
        setError(error, "mesh files are .ply or .obj: " + path);
        return false;
    }
    if (!std::ifstream(path).good()) {
        setError(error, "cannot open " + path);
        return false;
    }
    pcl::PolygonMesh pm;
    int rc = -1;
    try {
        rc = ext == "ply" ? pcl::io::loadPLYFile(path, pm) : pcl::io::loadOBJFile(path, pm);
    } catch (const std::exception& e) {
        setError(error, "cannot read " + path + ": " + e.what());
        return false;
    }
    if (rc < 0) {
        setError(error, "cannot read " + path);
        return false;
    }
    pcl::PointCloud<pcl::PointXYZ> cloud;
    pcl::fromPCLPointCloud2(pm.cloud, cloud);
    TriangleMesh out;
    out.vertices.reserve(cloud.size());
    for (const auto& p : cloud) {
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) {
            setError(error, path + ": a vertex is not finite");
            return false;
        }
        out.vertices.emplace_back(p.x, p.y, p.z);
    }
    for (const auto& poly : pm.polygons) {
        for (const auto v : poly.vertices) {
            if (v < 0 || static_cast<size_t>(v) >= out.vertices.size()) {
                setError(error, path + ": a face names vertex " + std::to_string(v) + " of " +
                                    std::to_string(out.vertices.size()));
                return false;
            }
        }
        for (size_t k = 1; k + 1 < poly.vertices.size(); ++k) {
            out.triangles.emplace_back(static_cast<int>(poly.vertices[0]),
                                       static_cast<int>(poly.vertices[k]),
                                       static_cast<int>(poly.vertices[k + 1]));
        }
    }
    if (out.triangles.empty()) {
        setError(error, path + ": no triangles");
        return false;
    }
    mesh = std::move(out);
    return true;
}

bool saveMeshPly(const std::string& path, const TriangleMesh& mesh) {
    pcl::PointCloud<pcl::PointXYZ> cloud;
    cloud.reserve(mesh.vertices.size());
    for (const auto& v : mesh.vertices) {
        cloud.push_back(pcl::PointXYZ(v.x(), v.y(), v.z()));
    }
    pcl::PolygonMesh pm;
    pcl::toPCLPointCloud2(cloud, pm.cloud);
    pm.polygons.reserve(mesh.triangles.size());
    for (const auto& t : mesh.triangles) {
        pcl::Vertices v;
        v.vertices = {static_cast<pcl::index_t>(t[0]), static_cast<pcl::index_t>(t[1]),
                      static_cast<pcl::index_t>(t[2])};
        pm.polygons.push_back(v);
    }
    try {
        return pcl::io::savePLYFileBinary(path, pm) >= 0;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace sim
