// Triangle meshes of the simulated world: the part the scanner measures, in millimetres.
//
// Files are read and written through PCL's I/O (PLY, OBJ); the default part is built here.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

namespace sim {

struct TriangleMesh {
    std::vector<Eigen::Vector3f> vertices;
    std::vector<Eigen::Vector3i> triangles;  // vertex indices, counter-clockwise seen from outside

    bool empty() const { return triangles.empty(); }
    // Unit normal of triangle i (zero for a degenerate triangle).
    Eigen::Vector3d normal(size_t i) const;
    double area(size_t i) const;
    // Axis-aligned bounds of the vertices; both zero when there are none.
    void bounds(Eigen::Vector3d& lo, Eigen::Vector3d& hi) const;
};

// Loads a triangle mesh from a PLY or OBJ file (chosen by the extension, case-insensitive).
// Polygons with more than three corners are split into fans. False with a reason in `error`
// (when given) on a missing, unreadable or empty file, or on an index outside the vertices.
bool loadMesh(const std::string& path, TriangleMesh& mesh, std::string* error = nullptr);

// Writes the mesh as a binary little-endian PLY file (float vertices, int32 faces).
bool saveMeshPly(const std::string& path, const TriangleMesh& mesh);

// A drilled hole of the part: centre on the surface, unit direction out of the material.
struct TruthHole {
    int id = 0;
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();
    Eigen::Vector3d direction = Eigen::Vector3d::UnitZ();
    double radius = 0;
    double depth = 0;
};

// The built-in part in the reference frame W: a 600 x 400 x 20 mm panel (top face z = 0,
// centred on the origin) carrying a raised block 150 x 150 x 60 mm, a ramp whose top face
// slopes from 0 to 40 mm over 200 mm, and through holes drilled into the panel. The mesh is
// closed; `holes` receives the drilled holes.
TriangleMesh defaultPart(std::vector<TruthHole>* holes = nullptr);

}  // namespace sim
