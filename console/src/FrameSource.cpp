// The frame sources: the physical scene of sim/ (default) and the simple source of earlier
// versions, a scanner moving on a slow circle above a plane with a marker field.
//
// Conventions: the pose (R, t) maps scanner coordinates into the tracker's frame as a row
// vector, p = x * R + t. Laser points are in scanner coordinates (on the plane z = 0 of the
// tracker's frame, seen from the scanner), markers and holes in the tracker's frame.
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "console/Console.h"

namespace console {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Row-vector pose: p = x * R + t.
void applyPose(const double R[9], const double t[3], const double x[3], double p[3]) {
    for (int c = 0; c < 3; ++c) {
        p[c] = x[0] * R[c] + x[1] * R[3 + c] + x[2] * R[6 + c] + t[c];
    }
}

// Inverse of the row-vector pose: x = (p - t) * R^T.
void applyInverse(const double R[9], const double t[3], const double p[3], double x[3]) {
    const double d[3] = {p[0] - t[0], p[1] - t[1], p[2] - t[2]};
    for (int r = 0; r < 3; ++r) {
        x[r] = d[0] * R[3 * r] + d[1] * R[3 * r + 1] + d[2] * R[3 * r + 2];
    }
}

void fillCamParam(lumora::CamParam& p) {
    const double K[9] = {2400, 0, 1024, 0, 2400, 768, 0, 0, 1};
    const double I3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    for (double v : K) {
        p.add_i_m_l(v);
        p.add_i_m_r(v);
    }
    for (int i = 0; i < 5; ++i) {
        p.add_d_cff_l(i == 0 ? -0.05 : 0.0);
        p.add_d_cff_r(i == 0 ? -0.04 : 0.0);
    }
    for (double v : I3) {
        p.add_r_m(v);
        p.add_r_m_rc(v);
        p.add_r_m_lc(v);
        p.add_e(v);
        p.add_f(v);
    }
    const double baseline[3] = {-120.0, 0, 0};
    for (int i = 0; i < 3; ++i) {
        p.add_t_v(baseline[i]);
        p.add_t_v_rc(baseline[i] / 2);
        p.add_t_v_lc(-baseline[i] / 2);
    }
}

}  // namespace

FrameSource::FrameSource(const ConsoleOptions& options) : m_options(options), m_rng(options.seed) {}

bool FrameSource::exportTruth(const std::string&, std::string& error) const {
    error = "the plane scene has no truth files (use --scene physical)";
    return false;
}

void FrameSource::fill(SDK_NV::tagScanData& f, int frameId, const ScanState& state) {
    std::normal_distribution<float> noise(0.0f, 0.01f);

    // Pose: the scanner looks down at the plane z = 0 from 400 mm, on a circle of 100 mm.
    const double a = 2 * kPi * frameId / 600.0;
    const double c = std::cos(a), s = std::sin(a);
    // Scanner axes in the tracker's frame (rows of R): x along the path, y outwards, z down;
    // a proper rotation (determinant +1).
    const double R[9] = {-s, c, 0, c, s, 0, 0, 0, -1};
    const double t[3] = {100 * c, 100 * s, 400};
    std::copy(R, R + 9, f.m_dRotation);
    std::copy(t, t + 3, f.m_dTranslation);

    f.m_nFrameValue = frameId;
    f.m_nFrameCount = state.frameCount;
    f.m_fValue = 400.0f;
    f.m_nAcquisitionKind = state.scanObject == SDK_NV::SCAN_MARKPOINT ? 1 : 0;
    f.m_strTrackerId = state.trackerId;

    // Laser lines: parallel lines across the plane; each point is where the laser plane meets
    // z = 0, expressed in scanner coordinates (z = 400 below the scanner).
    const bool laser = state.scanObject != SDK_NV::SCAN_MARKPOINT;
    const int lines = laser ? std::max(1, m_options.laserLines) : 0;
    const int total = laser ? m_options.laserPoints : 0;
    f.m_vecLaserLineCounts.assign(static_cast<size_t>(lines), 0);
    f.m_vecLaserPoints.resize(3 * static_cast<size_t>(total));
    f.m_vecLaserNormals.resize(3 * static_cast<size_t>(total));
    f.m_vecLaserQuality.resize(static_cast<size_t>(total));
    f.m_vecLaserLines.assign(static_cast<size_t>(lines), SDK_NV::tagLaserLineData());
    int point = 0;
    for (int l = 0; l < lines; ++l) {
        const int count = total / lines + (l < total % lines ? 1 : 0);
        const double y = (l - (lines - 1) / 2.0) * 8.0;
        SDK_NV::tagLaserLineData& line = f.m_vecLaserLines[static_cast<size_t>(l)];
        line.nLineIndex = l;
        line.nPointCount = count;
        line.nFirstPoint = point;
        line.dPlane[1] = 1;
        line.dPlane[3] = -y;
        line.dStart[0] = -60;
        line.dStart[1] = y;
        line.dStart[2] = 400;
        line.dEnd[0] = 60;
        line.dEnd[1] = y;
        line.dEnd[2] = 400;
        line.dDirection[0] = 1;
        line.dRms = 0.01;
        f.m_vecLaserLineCounts[static_cast<size_t>(l)] = count;
        for (int k = 0; k < count; ++k, ++point) {
            const double x = count > 1 ? -60.0 + 120.0 * k / (count - 1) : 0.0;
            const size_t i = 3 * static_cast<size_t>(point);
            f.m_vecLaserPoints[i] = static_cast<float>(x) + noise(m_rng);
            f.m_vecLaserPoints[i + 1] = static_cast<float>(y) + noise(m_rng);
            f.m_vecLaserPoints[i + 2] = 400.0f + noise(m_rng);
            f.m_vecLaserNormals[i] = 0;
            f.m_vecLaserNormals[i + 1] = 0;
            f.m_vecLaserNormals[i + 2] = -1;  // towards the scanner
            f.m_vecLaserQuality[static_cast<size_t>(point)] = 0.9f;
        }
    }

    // Markers: a fixed grid on the plane, seen when within 250 mm of the scanner's foot.
    f.m_vecMarkerIds.clear();
    f.m_vecMarkerCenters.clear();
    f.m_vecMarkerNormals.clear();
    f.m_vecMarkerDiameters.clear();
    f.m_vecMarkerValid.clear();
    f.m_mkImage.Clear();
    const int side = std::max(1, static_cast<int>(std::ceil(std::sqrt(m_options.markers))));
    for (int m = 0; m < m_options.markers; ++m) {
        const double p[3] = {(m % side - (side - 1) / 2.0) * 60.0,
                             (m / side - (side - 1) / 2.0) * 60.0, 0.0};
        if (std::hypot(p[0] - t[0], p[1] - t[1]) > 250.0) {
            continue;
        }
        f.m_vecMarkerIds.push_back(m);
        f.m_vecMarkerCenters.insert(f.m_vecMarkerCenters.end(),
                                    {p[0] + noise(m_rng), p[1] + noise(m_rng), p[2]});
        f.m_vecMarkerNormals.insert(f.m_vecMarkerNormals.end(), {0, 0, 1});
        f.m_vecMarkerDiameters.push_back(6.0);
        f.m_vecMarkerValid.push_back(1);
        // Image coordinates: a pinhole projection in each camera (baseline 120 mm).
        double x[3];
        applyInverse(R, t, p, x);
        lumora::MKPointSolve* solve = f.m_mkImage.add_mksolve();
        solve->set_mkpointcode(m);
        solve->mutable_mkimageleft()->set_x(1024 + 2400 * (x[0] + 60) / x[2]);
        solve->mutable_mkimageleft()->set_y(768 + 2400 * x[1] / x[2]);
        solve->mutable_mkimageright()->set_x(1024 + 2400 * (x[0] - 60) / x[2]);
        solve->mutable_mkimageright()->set_y(768 + 2400 * x[1] / x[2]);
    }
    for (int i = 0; i < 12; ++i) {
        f.m_mkImage.add_left_rt(i % 5 == 0 ? 1.0 : (i == 3 ? 60.0 : 0.0));
        f.m_mkImage.add_right_rt(i % 5 == 0 ? 1.0 : (i == 3 ? -60.0 : 0.0));
    }
    for (double v : {2400.0, 2400.0, 1024.0, 768.0}) {
        f.m_mkImage.add_left_im(v);
        f.m_mkImage.add_right_im(v);
    }

    f.m_camParam.Clear();
    fillCamParam(f.m_camParam);

    // Holes: in hole scanning, round holes of radius 5 at fixed places under the scanner.
    f.m_vecHoles.clear();
    if (state.scanObject == SDK_NV::SCAN_HOLE || state.scanObject == SDK_NV::SCAN_HOLE_PRECISE) {
        for (int h = 0; h < 3; ++h) {
            SDK_NV::tagHoleData hole;
            hole.nId = h;
            hole.nState = 0;
            hole.nType = lumora::HOLE_DETECTION_CIRCLE_DRILL;
            const double centre[3] = {t[0] + (h - 1) * 40.0, t[1], 0.0};
            hole.fCenter[0] = static_cast<float>(centre[0]);
            hole.fCenter[1] = static_cast<float>(centre[1]);
            hole.fCenter[2] = 0;
            hole.fDirection[0] = 0;
            hole.fDirection[1] = 0;
            hole.fDirection[2] = 1;
            hole.fRadius = 5;
            hole.fDepth = 10;
            for (int k = 0; k < 16; ++k) {
                const double b = 2 * kPi * k / 16;
                hole.vecEdgePoints.insert(hole.vecEdgePoints.end(),
                                          {static_cast<float>(centre[0] + 5 * std::cos(b)),
                                           static_cast<float>(centre[1] + 5 * std::sin(b)), 0.0f});
            }
            f.m_vecHoles.push_back(std::move(hole));
        }
    }

    // Edge points: on request, the ends of every laser line.
    f.m_vecEdgeIndex.clear();
    f.m_vecEdgePoints.clear();
    if (state.needEdgePoints) {
        for (int l = 0; l < lines; ++l) {
            const SDK_NV::tagLaserLineData& line = f.m_vecLaserLines[static_cast<size_t>(l)];
            if (line.nPointCount == 0) {
                continue;
            }
            SDK_NV::tagEdgePoint e;
            const double local[3] = {line.dEnd[0], line.dEnd[1], 0.0};
            double world[3];
            applyPose(R, t, local, world);
            std::copy(world, world + 3, e.dCenter);
            e.dNormal[2] = 1;
            e.dOutward[0] = 1;
            e.dConfidence = 0.9;
            e.nIndex = static_cast<int32_t>(f.m_vecEdgePoints.size());
            f.m_vecEdgeIndex.push_back({e.nIndex, 0.9f, l});
            f.m_vecEdgePoints.push_back(e);
        }
    }
}

// =============================================================================================
// The physical scene
// =============================================================================================

namespace {

class PhysicalFrameSource : public FrameSource {
public:
    PhysicalFrameSource(const ConsoleOptions& options, std::unique_ptr<sim::Scene> scene)
        : FrameSource(options), m_scene(std::move(scene)) {}

    std::vector<std::string> trackerIds() const override {
        std::vector<std::string> ids;
        for (const sim::TrackerPlacement& t : m_scene->trackers()) {
            ids.push_back(t.id);
        }
        return ids;
    }

    bool exportTruth(const std::string& dir, std::string& error) const override {
        return m_scene->exportTruth(dir, &error);
    }

    void fill(SDK_NV::tagScanData& f, int frameId, const ScanState& state) override;

private:
    std::unique_ptr<sim::Scene> m_scene;
    int m_previousTracker = -1;
    sim::ScanFrame m_frame;  // reused: frames are large
};

void PhysicalFrameSource::fill(SDK_NV::tagScanData& f, int frameId, const ScanState& state) {
    const std::vector<sim::TrackerPlacement>& trackers = m_scene->trackers();
    sim::FrameRequest rq;
    rq.index = frameId;
    rq.laser = state.scanObject != SDK_NV::SCAN_MARKPOINT;
    rq.holes =
        state.scanObject == SDK_NV::SCAN_HOLE || state.scanObject == SDK_NV::SCAN_HOLE_PRECISE;
    rq.scannerMarkers = state.scanObject == SDK_NV::SCAN_MARKPOINT;
    rq.dynamic = state.dynamic;
    rq.edges = state.needEdgePoints;
    rq.previousTracker = m_previousTracker;
    rq.depthScale = state.scanExpand ? 1.25 : 1.0;
    rq.diameters.assign(state.markerDiameters.begin(), state.markerDiameters.end());
    // A trigger naming trackers limits the frames to them; naming only trackers (no scanner)
    // is a transfer measurement: the first named tracker reports the markers it sees.
    bool scannerNamed = false;
    for (const std::string& id : state.triggerIds) {
        bool isTracker = false;
        for (size_t i = 0; i < trackers.size(); ++i) {
            if (trackers[i].id == id) {
                rq.allowed.push_back(static_cast<int>(i));
                isTracker = true;
            }
        }
        scannerNamed = scannerNamed || !isTracker;
    }
    if (!rq.allowed.empty() && !scannerNamed) {
        rq.trackerOnly = true;
        rq.tracker = rq.allowed.front();
    }
    sim::ScanFrame& s = m_frame;
    m_scene->frame(rq, s);
    if (s.tracker >= 0) {
        m_previousTracker = s.tracker;
    }

    std::copy(s.rotation, s.rotation + 9, f.m_dRotation);
    std::copy(s.translation, s.translation + 3, f.m_dTranslation);
    f.m_nFrameValue = frameId;
    f.m_nFrameCount = state.frameCount;
    f.m_fValue = static_cast<float>(s.distance);
    f.m_nAcquisitionKind = state.scanObject == SDK_NV::SCAN_MARKPOINT ? 1 : 0;
    f.m_strTrackerId = s.tracker >= 0 ? s.trackerId
                       : m_previousTracker >= 0
                           ? trackers[static_cast<size_t>(m_previousTracker)].id
                           : trackers.front().id;

    // Laser lines, scanner frame.
    const size_t n = s.points.size();
    f.m_vecLaserPoints.resize(3 * n);
    f.m_vecLaserNormals.resize(3 * n);
    f.m_vecLaserQuality.assign(s.quality.begin(), s.quality.end());
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            f.m_vecLaserPoints[3 * i + static_cast<size_t>(c)] = static_cast<float>(s.points[i][c]);
            f.m_vecLaserNormals[3 * i + static_cast<size_t>(c)] =
                static_cast<float>(s.normals[i][c]);
        }
    }
    f.m_vecLaserLineCounts.clear();
    f.m_vecLaserLines.clear();
    for (const sim::LaserLineInfo& l : s.lines) {
        f.m_vecLaserLineCounts.push_back(l.pointCount);
        SDK_NV::tagLaserLineData d;
        d.nLineIndex = l.index;
        d.nPointCount = l.pointCount;
        d.nFirstPoint = l.firstPoint;
        for (int c = 0; c < 4; ++c) {
            d.dPlane[c] = l.plane[c];
        }
        const Eigen::Vector3d dir = (l.end - l.start).normalized();
        for (int c = 0; c < 3; ++c) {
            d.dStart[c] = l.start[c];
            d.dEnd[c] = l.end[c];
            d.dDirection[c] = l.pointCount > 1 ? dir[c] : 0.0;
        }
        d.dRms = m_scene->options().laserNoise;
        f.m_vecLaserLines.push_back(d);
    }

    // Markers, tracker frame; their image coordinates in the scanner's cameras.
    f.m_vecMarkerIds.clear();
    f.m_vecMarkerCenters.clear();
    f.m_vecMarkerNormals.clear();
    f.m_vecMarkerDiameters.clear();
    f.m_vecMarkerValid.clear();
    f.m_mkImage.Clear();
    for (const sim::ObservedMarkerK& m : s.markers) {
        f.m_vecMarkerIds.push_back(m.id);
        f.m_vecMarkerCenters.insert(f.m_vecMarkerCenters.end(),
                                    {m.centre.x(), m.centre.y(), m.centre.z()});
        f.m_vecMarkerNormals.insert(f.m_vecMarkerNormals.end(),
                                    {m.normal.x(), m.normal.y(), m.normal.z()});
        f.m_vecMarkerDiameters.push_back(m.diameter);
        f.m_vecMarkerValid.push_back(m.valid ? 1 : 0);
        const double p[3] = {m.centre.x(), m.centre.y(), m.centre.z()};
        double x[3];
        applyInverse(s.rotation, s.translation, p, x);
        const double z = std::max(1.0, x[2]);
        lumora::MKPointSolve* solve = f.m_mkImage.add_mksolve();
        solve->set_mkpointcode(m.id);
        solve->mutable_mkimageleft()->set_x(1024 + 2400 * (x[0] + 60) / z);
        solve->mutable_mkimageleft()->set_y(768 + 2400 * x[1] / z);
        solve->mutable_mkimageright()->set_x(1024 + 2400 * (x[0] - 60) / z);
        solve->mutable_mkimageright()->set_y(768 + 2400 * x[1] / z);
    }
    for (int i = 0; i < 12; ++i) {
        f.m_mkImage.add_left_rt(i % 5 == 0 ? 1.0 : (i == 3 ? 60.0 : 0.0));
        f.m_mkImage.add_right_rt(i % 5 == 0 ? 1.0 : (i == 3 ? -60.0 : 0.0));
    }
    for (double v : {2400.0, 2400.0, 1024.0, 768.0}) {
        f.m_mkImage.add_left_im(v);
        f.m_mkImage.add_right_im(v);
    }
    f.m_camParam.Clear();
    fillCamParam(f.m_camParam);

    // Holes, tracker frame.
    f.m_vecHoles.clear();
    for (const sim::ObservedHole& h : s.holes) {
        SDK_NV::tagHoleData d;
        d.nId = h.id;
        d.nState = h.state;
        d.nType = lumora::HOLE_DETECTION_CIRCLE_DRILL;
        for (int c = 0; c < 3; ++c) {
            d.fCenter[c] = static_cast<float>(h.centre[c]);
            d.fDirection[c] = static_cast<float>(h.direction[c]);
        }
        d.fRadius = static_cast<float>(h.radius);
        d.fDepth = static_cast<float>(h.depth);
        for (const Eigen::Vector3d& e : h.edge) {
            d.vecEdgePoints.insert(
                d.vecEdgePoints.end(),
                {static_cast<float>(e.x()), static_cast<float>(e.y()), static_cast<float>(e.z())});
        }
        f.m_vecHoles.push_back(std::move(d));
    }

    // Edge points, tracker frame.
    f.m_vecEdgeIndex.clear();
    f.m_vecEdgePoints.clear();
    for (const sim::EdgePointK& e : s.edges) {
        SDK_NV::tagEdgePoint p;
        for (int c = 0; c < 3; ++c) {
            p.dCenter[c] = e.centre[c];
            p.dNormal[c] = e.normal[c];
            p.dOutward[c] = e.outward[c];
        }
        p.dConfidence = 0.9;
        p.nIndex = static_cast<int32_t>(f.m_vecEdgePoints.size());
        f.m_vecEdgeIndex.push_back({p.nIndex, 0.9f, e.line});
        f.m_vecEdgePoints.push_back(p);
    }
}

}  // namespace

std::unique_ptr<FrameSource> makeFrameSource(const ConsoleOptions& options, std::string& error) {
    if (options.sceneKind == "plane") {
        return std::make_unique<FrameSource>(options);
    }
    sim::SceneOptions so = options.scene;
    so.seed = options.seed;
    if (so.trackerIds.empty()) {
        so.trackerIds.push_back(options.trackerId);
    } else {
        so.trackerIds[0] = options.trackerId;
    }
    std::unique_ptr<sim::Scene> scene = sim::Scene::create(so, &error);
    if (!scene) {
        return nullptr;
    }
    return std::make_unique<PhysicalFrameSource>(options, std::move(scene));
}

}  // namespace console
