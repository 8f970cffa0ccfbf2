// The simulated measuring system: a part with reference markers, one to three trackers with
// true poses, a hand-held scanner on a repeatable raster sweep, and the scan frames that
// follow from them.
//
// Frames and poses (one convention everywhere):
// - W is the part's reference frame, K_i the frame of tracker i, S the scanner's frame.
// - The stored transfer matrix of tracker i maps W into it on column vectors:
//   p_K = B p_W + T (Truth::transfer).
// - A frame's scanner pose (R by rows, t) maps scanner coordinates as a row vector:
//   p = x_S R + t, into the observing tracker's frame (or, in dynamic tracking, into the
//   part's frame W as it moves).
// - Laser points and their directions stay in S; markers and holes are in the tracker's frame.
//
// Every frame is a pure function of the options and its index: the noise of frame i comes
// from a generator seeded by (seed, i), so the same options give the same frames byte for
// byte whatever was generated before.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

#include "sim/MarkerScene.h"
#include "sim/Mesh.h"
#include "sim/RayCaster.h"
#include "sim/Truth.h"

namespace sim {

struct TrackerPlacement {
    std::string id;
    Eigen::Vector3d position = Eigen::Vector3d::Zero();  // in W, millimetres
    Eigen::Vector3d target = Eigen::Vector3d::Zero();    // the point it looks at
    double fovDeg = 60.0;                                // full opening angle of its cone of view
    double nearMm = 1200.0;                              // working range
    double farMm = 6000.0;
};

// The trackers of a scene of `count` trackers (1..3): TRK0001 in front of the part, TRK0002
// to its right, TRK0003 to its left, each about 3 m away and 1.6 to 1.8 m above it.
std::vector<TrackerPlacement> defaultTrackers(int count);

struct SceneOptions {
    uint64_t seed = 1;
    std::string meshPath;     // empty: the built-in part
    std::string markersPath;  // empty: markers placed on the part from the seed
    int markerCount = 100;
    double markerDiameter = 6.0;
    int trackers = 1;                     // 1..3
    std::vector<std::string> trackerIds;  // ids of the trackers in order; missing: TRK000n
    // noise (standard deviations)
    double laserNoise = 0.02;  // mm per coordinate of a laser point
    double laserNormalNoiseDeg = 0.5;
    double poseNoiseMm = 0.01;    // per axis of the scanner translation
    double poseNoiseDeg = 0.001;  // per axis of the scanner rotation
    double markerNoise = 0.005;   // mm per coordinate of a marker centre
    // scanner
    int lines = 7;              // crossing laser planes (two families at +-45 degrees)
    int pointsPerLine = 2000;   // rays cast per plane
    double lineSpacing = 15.0;  // mm between the parallel planes of one family
    double fanDeg = 50.0;       // opening of each laser fan
    double workingDistance = 300.0;
    double depthNear = 180.0;  // depth of field along the scanner's axis
    double depthFar = 450.0;
    double cameraFovDeg = 60.0;  // the scanner's cameras (markers and holes it sees)
    // trajectory
    double fps = 120.0;        // frames per second of the trajectory's clock
    double speed = 100.0;      // mm/s along the raster
    double rowSpacing = 50.0;  // mm between raster rows
    double tiltDeg = 15.0;     // amplitude of the hand's tilt
    // motion of the part (dynamic tracking): "none" or "sway"
    std::string motion = "none";
    double motionMm = 20.0;  // amplitude of the sway's translation
    double motionDeg = 3.0;  // amplitude of its rotation
    double motionPeriodS = 20.0;
    // Artefact scene: instead of the part, calibrated artefacts (a sphere, a ball bar in seven
    // positions, a plane) above a marker table, visited in turn by the scanner (see
    // artefactSet()). `artefactFrames` frames per sphere, twice that for the plane.
    bool artefacts = false;
    int artefactFrames = 48;
    // Length error of the trackers (parts per million): the pose translations and marker
    // centres they report are scaled by 1 + ppm/1e6 about their origin. Zero in a sound system.
    double trackerScalePpm = 0.0;
    // Error of the scanner's laser calibration (degrees): the laser points, directions and line
    // planes it reports are turned about its x axis. Zero in a sound system.
    double laserRotationDeg = 0.0;
};

// Calibrated artefacts in W (millimetres).
struct ArtefactSphere {
    std::string name;
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();
    double diameter = 25.0;
};
struct ArtefactBallBar {
    std::string name;
    int a = 0, b = 0;       // its two spheres (indices into ArtefactSet::spheres)
    double distance = 0.0;  // calibrated centre distance
};
struct ArtefactPlane {
    std::string name;
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();  // of the measured (top) face
    Eigen::Vector3d normal = Eigen::Vector3d::UnitZ();
    Eigen::Vector3d axis = Eigen::Vector3d::UnitX();  // along its length
    double length = 0.0, width = 0.0, thickness = 0.0;
};
struct ArtefactSet {
    Eigen::Vector3d volumeLo = Eigen::Vector3d::Zero(), volumeHi = Eigen::Vector3d::Zero();
    std::vector<ArtefactSphere> spheres;  // [0] the single sphere, then two per ball-bar position
    std::vector<ArtefactBallBar> bars;    // seven positions
    std::vector<ArtefactPlane> planes;
    Eigen::Vector3d tableCentre = Eigen::Vector3d::Zero();  // top face of the marker table
    Eigen::Vector3d tableSize = Eigen::Vector3d::Zero();
};
// The artefacts of the artefact scene: a 800 x 600 x 500 mm measuring volume (x -400..400,
// y -300..300, z 0..500); a 25 mm sphere at its centre; a 400 mm ball bar of two 25 mm spheres
// centred on the volume's centre along the four space diagonals and the three axes; a
// 600 x 80 mm plane along x at y -200, z 100; the marker table 300 mm below
// the volume, out of the scanner's depth of field while it looks at an artefact.
ArtefactSet artefactSet();

// A rigid pose, column reading: p_to = R p_from + t.
using Pose = RigidMotion;

struct LaserLineInfo {
    int index = 0;
    int firstPoint = 0;
    int pointCount = 0;
    Eigen::Vector4d plane = Eigen::Vector4d::Zero();  // n.x + d = 0 in S
    Eigen::Vector3d start = Eigen::Vector3d::Zero();  // first and last point of the line (S)
    Eigen::Vector3d end = Eigen::Vector3d::Zero();
};

struct ObservedMarkerK {
    int id = 0;
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();  // tracker frame
    Eigen::Vector3d normal = Eigen::Vector3d::Zero();
    double diameter = 0;
    bool valid = true;  // false: seen at a grazing angle (centre less reliable)
};

struct ObservedHole {
    int id = 0;
    int state = 0;                                     // below 201: measured
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();  // tracker frame
    Eigen::Vector3d direction = Eigen::Vector3d::UnitZ();
    double radius = 0;
    double depth = 0;
    std::vector<Eigen::Vector3d> edge;  // rim points, tracker frame
};

struct EdgePointK {
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();  // tracker frame
    Eigen::Vector3d normal = Eigen::Vector3d::Zero();
    Eigen::Vector3d outward = Eigen::Vector3d::Zero();
    int line = 0;
};

// What a frame should contain.
struct FrameRequest {
    int index = 0;                  // frame index on the trajectory (from 0)
    bool laser = true;              // laser lines
    bool holes = false;             // hole features (hole scanning)
    bool scannerMarkers = false;    // markers the scanner's cameras see (marker model building)
    bool dynamic = false;           // pose relative to the part (dynamic tracking)
    bool edges = false;             // edge points where laser lines end
    bool trackerOnly = false;       // a tracker triggered alone: its markers, no scanner data
    int tracker = -1;               // forced tracker; -1: the one that sees the scanner best
    std::vector<int> allowed;       // trackers to choose from; empty: all
    int previousTracker = -1;       // kept on ties, so the observing tracker does not flicker
    std::vector<double> diameters;  // reported marker diameter by id (empty or short: truth)
    double depthScale = 1.0;        // >1 widens the depth of field (scan expansion)
};

struct ScanFrame {
    int index = 0;
    int tracker = -1;  // index into Scene::trackers(); -1: no tracker sees the scanner
    std::string trackerId;
    bool scannerSeen = false;
    double rotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // noisy pose, row reading, by rows
    double translation[3] = {0, 0, 0};
    Pose truePose;        // exact pose S -> (K or W), column reading
    double distance = 0;  // scanner to the surface along its axis (mm; 0 when it misses)

    std::vector<Eigen::Vector3d> points;   // S
    std::vector<Eigen::Vector3d> normals;  // S, unit, towards the scanner
    std::vector<float> quality;
    std::vector<LaserLineInfo> lines;

    std::vector<ObservedMarkerK> markers;
    std::vector<ObservedHole> holes;
    std::vector<EdgePointK> edges;
};

class Scene {
public:
    ~Scene();
    // Builds the scene; false with a reason (bad mesh or marker file, bad option).
    static std::unique_ptr<Scene> create(const SceneOptions& options, std::string* error);

    const SceneOptions& options() const { return m_options; }
    const Truth& truth() const { return m_truth; }
    const std::vector<TrackerPlacement>& trackers() const { return m_trackers; }
    const RayCaster& caster() const { return *m_caster; }
    // Body markers of the scanner in S (position, outward normal).
    const std::vector<Marker>& scannerMarkers() const { return m_bodyMarkers; }

    // The scanner in W at frame `index` (S -> W), and the part in the room at that time
    // (part frame -> W of the trackers; identity unless the part moves).
    Pose scannerInPart(int index) const;
    Pose partInRoom(int index) const;
    // Tracker i's true motion W -> K.
    Pose roomToTracker(int i) const;

    void frame(const FrameRequest& request, ScanFrame& out) const;

    // The scene description for scene.json (options, trackers, noise, seed).
    std::string describeJson() const;
    // Writes the truth files into DIR.
    bool exportTruth(const std::string& dir, std::string* error) const;
    // Frames of one visit of every artefact (0 unless the artefact scene).
    int artefactCycle() const { return m_cycle; }

private:
    Scene() = default;
    bool build(const SceneOptions& options, std::string* error);
    void placeMarkers(Rng& rng);
    int bodyMarkersSeen(int tracker, const Pose& scannerInRoom, const Pose& part) const;
    bool trackerSees(int tracker, const Eigen::Vector3d& pRoom) const;

    SceneOptions m_options;
    Truth m_truth;
    std::vector<TrackerPlacement> m_trackers;
    std::vector<Pose> m_roomToTracker;
    std::unique_ptr<RayCaster> m_caster;
    // Plane of every triangle: unit normal n and offset d = n.a of its first corner a.
    struct TrianglePlane {
        Eigen::Vector3d n = Eigen::Vector3d::UnitZ();
        double d = 0;
    };
    static std::vector<TrianglePlane> trianglePlanes(const TriangleMesh& mesh);
    std::vector<TrianglePlane> m_planes;
    // cos and sin of each ray's angle in a laser fan (fixed by the options).
    std::vector<double> m_fanCos, m_fanSin;
    std::vector<Marker> m_bodyMarkers;
    // Artefact scene: one stage per artefact setting (the table plus the sphere, one ball-bar
    // position or the plane), each with its own ray caster; frames visit them in turn.
    struct Stage;
    bool buildArtefacts(std::string* error);
    const Stage* stageAt(int index, int* frameInStage) const;
    Pose artefactScannerPose(int index) const;
    std::vector<std::unique_ptr<Stage>> m_stages;
    ArtefactSet m_artefacts;
    int m_cycle = 0;
    // trajectory
    Eigen::Vector3d m_lo = Eigen::Vector3d::Zero(), m_hi = Eigen::Vector3d::Zero();
    double m_height = 0;
    double m_phase[6] = {0, 0, 0, 0, 0, 0};
};

}  // namespace sim
