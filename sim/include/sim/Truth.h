// Ground truth of a simulated scene and the files it is exchanged in.
//
// Directory layout (written by `lumora_console --export-truth DIR`):
//   part.ply      the part, triangle mesh in W, millimetres (binary PLY)
//   markers.txt   one line per reference marker: id x y z nx ny nz diameter
//   cascade.bin   the true stored transfer matrix of every tracker (cascade-file format)
//   scene.json    trackers with their true matrices, noise levels, seed and options
//
// A stored transfer matrix M of a tracker maps W into the tracker on column vectors:
// p_K = B * p_W + T with B(r,c) = M[4r+c] and T = (M[12], M[13], M[14]).
#pragma once

#include <Eigen/Core>
#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/Mesh.h"

namespace sim {

struct TruthMarker {
    int id = 0;
    Eigen::Vector3d position = Eigen::Vector3d::Zero();
    Eigen::Vector3d normal = Eigen::Vector3d::UnitZ();
    double diameter = 6.0;
};

using Matrix16 = std::array<double, 16>;

struct Truth {
    TriangleMesh part;
    std::vector<TruthMarker> markers;
    std::map<std::string, Matrix16> transfer;  // tracker id -> true stored matrix
    std::vector<TruthHole> holes;
};

// p_K = B p_W + T of a stored matrix, and its inverse p_W = B^T (p_K - T).
Eigen::Vector3d applyTransfer(const Matrix16& m, const Eigen::Vector3d& pW);
Eigen::Vector3d applyTransferInverse(const Matrix16& m, const Eigen::Vector3d& pK);
// The stored matrix of a rigid motion W -> K given as p_K = R p_W + t.
Matrix16 transferFromMotion(const Eigen::Matrix3d& R, const Eigen::Vector3d& t);

// Marker files: one marker per line "id x y z nx ny nz diameter"; blank lines and lines
// starting with '#' are skipped. Normals are normalised on reading; a line with fewer fields,
// a zero normal or a non-positive diameter is an error (named with its line number).
bool loadMarkers(const std::string& path, std::vector<TruthMarker>& markers,
                 std::string* error = nullptr);
bool saveMarkers(const std::string& path, const std::vector<TruthMarker>& markers);

// Cascade files, little-endian: int32 count N, then N records of a 20-byte tracker id
// (ASCII, NUL-padded) and 16 doubles (the stored matrix). Ids longer than 19 characters are
// refused on writing. Reading refuses a negative or oversized count and a short file.
bool writeCascade(const std::string& path, const std::map<std::string, Matrix16>& matrices);
bool readCascade(const std::string& path, std::vector<std::pair<std::string, Matrix16>>& out,
                 std::string* error = nullptr);

// Reads part.ply, markers.txt and cascade.bin of DIR (holes come from scene.json when it
// lists them). False with the first problem in `error`.
bool loadTruth(const std::string& dir, Truth& truth, std::string* error = nullptr);
// Writes part.ply, markers.txt, cascade.bin and scene.json (the latter with `sceneJson`, a
// JSON text the caller composes; holes and trackers are added to it) into DIR, created when
// missing.
bool exportTruth(const std::string& dir, const Truth& truth, const std::string& sceneJson,
                 std::string* error = nullptr);

// Unsigned distance from a point to the closest point of a mesh's surface (Embree point
// queries over its bounding-volume hierarchy).
class MeshDistance {
public:
    explicit MeshDistance(const TriangleMesh& mesh);
    ~MeshDistance();
    MeshDistance(const MeshDistance&) = delete;
    MeshDistance& operator=(const MeshDistance&) = delete;

    double distance(const Eigen::Vector3d& p) const;
    // The closest surface point and its triangle.
    Eigen::Vector3d closest(const Eigen::Vector3d& p, int* triangle = nullptr) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// Closest point of triangle (a, b, c) to p.
Eigen::Vector3d closestPointOnTriangle(const Eigen::Vector3d& p, const Eigen::Vector3d& a,
                                       const Eigen::Vector3d& b, const Eigen::Vector3d& c);

}  // namespace sim
