// Ray casting against a triangle mesh with Embree, and the plain loop over the triangles that
// serves as the baseline of its benchmark and as a cross-check in the tests.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <vector>

#include "sim/Mesh.h"

namespace sim {

struct Ray {
    Eigen::Vector3f origin = Eigen::Vector3f::Zero();
    Eigen::Vector3f direction = Eigen::Vector3f::UnitZ();  // unit length
    float tnear = 0.0f;
    float tfar = 1e30f;
};

struct Hit {
    float t = -1.0f;  // distance along the ray; negative: no hit
    int triangle = -1;
    bool valid() const { return triangle >= 0; }
};

class RayCaster {
public:
    explicit RayCaster(const TriangleMesh& mesh);
    ~RayCaster();
    RayCaster(const RayCaster&) = delete;
    RayCaster& operator=(const RayCaster&) = delete;

    // The first hit of each ray (hits.size() becomes rays.size()). Rays of one call should be
    // coherent (one fan of a laser plane) for speed.
    void intersect(const std::vector<Ray>& rays, std::vector<Hit>& hits) const;
    Hit intersect(const Ray& ray) const;
    // A fan from one origin: the first hit along each direction (unit length, cast to float)
    // between tnear and tfar. Same hits as intersect() on the equivalent rays, without the
    // intermediate Ray list.
    void intersectFan(const Eigen::Vector3f& origin, const std::vector<Eigen::Vector3d>& directions,
                      float tnear, float tfar, std::vector<Hit>& hits) const;
    // True when something lies on the ray between tnear and tfar.
    bool occluded(const Ray& ray) const;

    const TriangleMesh& mesh() const { return m_mesh; }

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    const TriangleMesh& m_mesh;
};

// The baseline: every ray against every triangle (Moller-Trumbore), same results up to
// rounding.
Hit intersectBruteForce(const TriangleMesh& mesh, const Ray& ray);

}  // namespace sim
