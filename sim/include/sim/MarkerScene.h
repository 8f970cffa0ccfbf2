// Synthetic marker scenes for tests, benchmarks and the device simulator.
//
// A MarkerScene is a set of markers (position and unit normal, millimetres) fixed on a
// part: a randomly curved panel, or a regular grid (the hard case for registration, since
// every patch of it looks like every other). A FrameGenerator takes views of a scene the way
// a tracker sees them: the markers near a view centre, expressed in the frame of a sensor
// that stands in some rigid pose, with Gaussian noise, some markers dropped and some
// spurious points added. Every frame carries its ground truth: the pose and, for each
// observed marker, which scene marker it is (or -1 for a spurious point).
//
// Everything is deterministic by seed and independent of the standard library's
// distributions, so a seed gives the same scene on every platform.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace sim {

// Small, fast, platform-independent random numbers (xoshiro256** seeded by splitmix64).
class Rng {
public:
    explicit Rng(std::uint64_t seed = 1);
    std::uint64_t next() {  // inline: the simulator draws several words per laser point
        const std::uint64_t result = rotl(s_[1] * 5, 7) * 9;
        const std::uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = rotl(s_[3], 45);
        return result;
    }
    double uniform();                      // [0, 1)
    double uniform(double lo, double hi);  // [lo, hi)
    int uniformInt(int lo, int hi);        // lo..hi inclusive; lo when hi < lo
    double normal();                       // standard normal
    Eigen::Vector3d unitVector();          // uniform on the sphere

private:
    static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    std::uint64_t s_[4];
    bool hasSpare_ = false;
    double spare_ = 0.0;
};

// A rigid motion p' = R p + t.
struct RigidMotion {
    Eigen::Matrix3d R = Eigen::Matrix3d::Identity();
    Eigen::Vector3d t = Eigen::Vector3d::Zero();

    Eigen::Vector3d apply(const Eigen::Vector3d& p) const { return R * p + t; }
    Eigen::Vector3d rotate(const Eigen::Vector3d& v) const { return R * v; }
    RigidMotion inverse() const;
    RigidMotion operator*(const RigidMotion& o) const;  // (this * o)(p) = this(o(p))
    Eigen::Matrix4d matrix() const;                     // homogeneous, column vectors
    static RigidMotion fromMatrix(const Eigen::Matrix4d& T);
};

Eigen::Matrix3d randomRotation(Rng& rng);  // uniform over all rotations
// Rotation by `angleDeg` degrees about a random axis.
Eigen::Matrix3d randomSmallRotation(Rng& rng, double angleDeg);
// Uniform rotation and a translation uniform in the cube of half-size maxTranslation.
RigidMotion randomMotion(Rng& rng, double maxTranslation);
double rotationAngleDeg(const Eigen::Matrix3d& a, const Eigen::Matrix3d& b);

struct Marker {
    Eigen::Vector3d position = Eigen::Vector3d::Zero();
    Eigen::Vector3d normal = Eigen::Vector3d::UnitZ();
};

struct PartOptions {
    int markerCount = 500;
    double minSpacing = 20.0;  // no two markers nearer than this (mm)
    double bumpiness = 0.08;   // height of the panel's bumps relative to its size
};

class MarkerScene {
public:
    MarkerScene() = default;
    explicit MarkerScene(std::vector<Marker> markers);

    // Markers scattered on a randomly curved panel (a smooth height field with bumps),
    // no two nearer than minSpacing, normals from the surface. The panel is sized so that
    // the requested count fits; if it cannot, fewer markers result.
    static MarkerScene randomPart(const PartOptions& opt, std::uint64_t seed);
    static MarkerScene randomPart(int markerCount, std::uint64_t seed, double minSpacing = 20.0);
    // A flat rows x cols grid of the given pitch in the plane z = 0, normals +z.
    static MarkerScene grid(int rows, int cols, double pitch);

    const std::vector<Marker>& markers() const { return markers_; }
    int size() const { return static_cast<int>(markers_.size()); }
    const Marker& operator[](int i) const { return markers_[static_cast<std::size_t>(i)]; }
    // Indices of the `count` markers nearest to p, nearest first.
    std::vector<int> nearestTo(const Eigen::Vector3d& p, int count) const;
    // Distance from p to the nearest marker (infinity for an empty scene).
    double distanceToNearest(const Eigen::Vector3d& p) const;
    Eigen::Vector3d centroid() const;

private:
    void buildGrid();
    std::vector<Marker> markers_;
    double cell_ = 50.0;  // spatial buckets for nearest-marker queries
    std::unordered_map<std::uint64_t, std::vector<int>> grid_;
};

struct ObservedMarker {
    Eigen::Vector3d position = Eigen::Vector3d::Zero();  // in the frame's coordinates
    Eigen::Vector3d normal = Eigen::Vector3d::Zero();    // zero when normals are off
    int truth = -1;  // index of the scene marker, -1 for a spurious point
};

struct FrameOptions {
    int visible = 30;                // scene markers in view (the nearest to the view centre)
    double noiseSigma = 0.05;        // Gaussian noise per coordinate (mm)
    double normalNoiseDeg = 2.0;     // angular noise of observed normals
    double dropFraction = 0.0;       // fraction of visible markers that go unseen
    double spuriousFraction = 0.0;   // spurious points, as a fraction of `visible`
    double spuriousClearance = 3.0;  // spurious points keep this far from every scene marker
    bool withNormals = true;
    bool shuffle = true;             // observed order unrelated to the scene's
    double maxTranslation = 2000.0;  // random poses: translation range (mm)
};

struct Frame {
    std::vector<ObservedMarker> markers;
    // Sensor pose: carries frame coordinates into scene coordinates (p_scene = pose(p_frame)),
    // exact (before noise).
    RigidMotion pose;
    int trueCount() const;  // observed markers that are scene markers
};

class FrameGenerator {
public:
    FrameGenerator(const MarkerScene& scene, std::uint64_t seed);

    // A view of the markers nearest to a random scene marker, from a random pose.
    Frame randomFrame(const FrameOptions& opt);
    // A view of the markers nearest to `centre` from the given pose.
    Frame frameAt(const Eigen::Vector3d& centre, const RigidMotion& pose, const FrameOptions& opt);
    // A smooth pass over the part: the view centre walks `stepMm` per frame in a slowly
    // turning direction (turning back at the part's edge) and the pose turns by about
    // `turnDeg` per frame, so consecutive frames overlap the way a hand-held scan does.
    std::vector<Frame> walk(int frames, const FrameOptions& opt, double stepMm, double turnDeg);

    Rng& rng() { return rng_; }

private:
    const MarkerScene& scene_;
    Rng rng_;
};

}  // namespace sim
