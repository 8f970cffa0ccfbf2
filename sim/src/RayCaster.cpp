// Ray casting with Embree: one device and one static scene per mesh.
#include "sim/RayCaster.h"

#include <embree3/rtcore.h>

#include <Eigen/Geometry>

#include <cmath>
#include <stdexcept>
#include <string>

namespace sim {

struct RayCaster::Impl {
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    mutable std::vector<RTCRayHit> batch;

    // One coherent stream: Embree groups the rays into packets itself.
    void castBatch(std::vector<RTCRayHit>& rays) const {
        if (rays.empty()) {
            return;
        }
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        context.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
        rtcIntersect1M(scene, &context, rays.data(), static_cast<unsigned>(rays.size()),
                       sizeof(RTCRayHit));
    }

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

void fillRay(const Ray& r, RTCRayHit& rh) {
    rh.ray.org_x = r.origin.x();
    rh.ray.org_y = r.origin.y();
    rh.ray.org_z = r.origin.z();
    rh.ray.dir_x = r.direction.x();
    rh.ray.dir_y = r.direction.y();
    rh.ray.dir_z = r.direction.z();
    rh.ray.tnear = r.tnear;
    rh.ray.tfar = r.tfar;
    rh.ray.time = 0.0f;
    rh.ray.mask = 0xFFFFFFFFu;
    rh.ray.id = 0;
    rh.ray.flags = 0;
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.primID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
}

Hit toHit(const RTCRayHit& rh) {
    Hit h;
    if (rh.hit.geomID != RTC_INVALID_GEOMETRY_ID) {
        h.t = rh.ray.tfar;
        h.triangle = static_cast<int>(rh.hit.primID);
    }
    return h;
}

}  // namespace

RayCaster::RayCaster(const TriangleMesh& mesh) : m_impl(std::make_unique<Impl>()), m_mesh(mesh) {
    // One thread: the callers are single-threaded per frame and the machine is shared.
    m_impl->device = rtcNewDevice("threads=1");
    if (m_impl->device == nullptr) {
        throw std::runtime_error("Embree device cannot be created");
    }
    m_impl->scene = rtcNewScene(m_impl->device);
    rtcSetSceneBuildQuality(m_impl->scene, RTC_BUILD_QUALITY_HIGH);
    if (!mesh.triangles.empty()) {
        RTCGeometry geom = rtcNewGeometry(m_impl->device, RTC_GEOMETRY_TYPE_TRIANGLE);
        auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0,
                                                              RTC_FORMAT_FLOAT3, 3 * sizeof(float),
                                                              mesh.vertices.size()));
        for (size_t i = 0; i < mesh.vertices.size(); ++i) {
            v[3 * i] = mesh.vertices[i].x();
            v[3 * i + 1] = mesh.vertices[i].y();
            v[3 * i + 2] = mesh.vertices[i].z();
        }
        auto* t = static_cast<unsigned*>(
            rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                    3 * sizeof(unsigned), mesh.triangles.size()));
        for (size_t i = 0; i < mesh.triangles.size(); ++i) {
            for (int k = 0; k < 3; ++k) {
                t[3 * i + static_cast<size_t>(k)] = static_cast<unsigned>(mesh.triangles[i][k]);
            }
        }
        rtcCommitGeometry(geom);
        rtcAttachGeometry(m_impl->scene, geom);
        rtcReleaseGeometry(geom);
    }
    rtcCommitScene(m_impl->scene);
}

RayCaster::~RayCaster() = default;

void RayCaster::intersect(const std::vector<Ray>& rays, std::vector<Hit>& hits) const {
    std::vector<RTCRayHit>& batch = m_impl->batch;
    batch.resize(rays.size());
    for (size_t i = 0; i < rays.size(); ++i) {
        fillRay(rays[i], batch[i]);
    }
    m_impl->castBatch(batch);
    hits.resize(rays.size());
    for (size_t i = 0; i < rays.size(); ++i) {
        hits[i] = toHit(batch[i]);
    }
}

void RayCaster::intersectFan(const Eigen::Vector3f& origin,
                             const std::vector<Eigen::Vector3d>& directions, float tnear,
                             float tfar, std::vector<Hit>& hits) const {
    std::vector<RTCRayHit>& batch = m_impl->batch;
    batch.resize(directions.size());
    Ray r;
    r.origin = origin;
    r.tnear = tnear;
    r.tfar = tfar;
    for (size_t i = 0; i < directions.size(); ++i) {
        r.direction = directions[i].cast<float>();
        fillRay(r, batch[i]);
    }
    m_impl->castBatch(batch);
    hits.resize(batch.size());
    for (size_t i = 0; i < batch.size(); ++i) {
        hits[i] = toHit(batch[i]);
    }
}

Hit RayCaster::intersect(const Ray& ray) const {
    RTCRayHit rh;
    fillRay(ray, rh);
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcIntersect1(m_impl->scene, &context, &rh);
    return toHit(rh);
}

bool RayCaster::occluded(const Ray& ray) const {
    RTCRayHit rh;
    fillRay(ray, rh);
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcOccluded1(m_impl->scene, &context, &rh.ray);
    return rh.ray.tfar < 0.0f;  // Embree marks an occluded ray with tfar = -inf
}

Hit intersectBruteForce(const TriangleMesh& mesh, const Ray& ray) {
    Hit best;
    float bestT = ray.tfar;
    const Eigen::Vector3f& o = ray.origin;
    const Eigen::Vector3f& d = ray.direction;
    for (size_t i = 0; i < mesh.triangles.size(); ++i) {
        const Eigen::Vector3i& tri = mesh.triangles[i];
        const Eigen::Vector3f& a = mesh.vertices[static_cast<size_t>(tri[0])];
        const Eigen::Vector3f e1 = mesh.vertices[static_cast<size_t>(tri[1])] - a;
        const Eigen::Vector3f e2 = mesh.vertices[static_cast<size_t>(tri[2])] - a;
        const Eigen::Vector3f p = d.cross(e2);
        const float det = e1.dot(p);
        if (std::fabs(det) < 1e-12f) {
            continue;
        }
        const float inv = 1.0f / det;
        const Eigen::Vector3f s = o - a;
        const float u = s.dot(p) * inv;
        if (u < 0.0f || u > 1.0f) {
            continue;
        }
        const Eigen::Vector3f q = s.cross(e1);
        const float v = d.dot(q) * inv;
        if (v < 0.0f || u + v > 1.0f) {
            continue;
        }
        const float t = e2.dot(q) * inv;
        if (t >= ray.tnear && t < bestT) {
            bestT = t;
            best.t = t;
            best.triangle = static_cast<int>(i);
        }
    }
    return best;
}

}  // namespace sim
