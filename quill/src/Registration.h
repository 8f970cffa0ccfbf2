// Registration of a moving marker set onto a MarkerLibrary without known correspondences.
//
//  1. Base triangles: each moving marker with pairs of its nearest moving markers, tried
//     anchors first (one pair per anchor per round), in a seeded order.
//  2. Each base triangle is looked up in the library's triangle index with the side
//     tolerance; candidates are screened by their current side lengths, by rigid-invariant
//     normal cosines and by the residual of the three-marker fit.
//  3. A surviving hypothesis is verified against every moving marker with the spatial grid
//     (inlier within max_inline_mark_dis, normals agreeing), refined by least squares over
//     its inliers and re-verified until its inlier set is stable.
//  4. Hypotheses that agree on at least three correspondences and disagree on none are the
//     same; different ones are kept side by side.
//  5. The search stops once two base triangles lying wholly inside the best hypothesis'
//     inliers have been examined (every library triangle congruent to them has then been
//     tried, so any rival explanation of those markers is known), or after maxTries.
//  6. The best hypothesis (lowest truncated mean squared residual over all moving markers)
//     is accepted if it has enough inliers, spans more than a line, fits within
//     max_final_err, and no different hypothesis comes within max_second_final_err of it.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>
#include <vector>

#include "MarkerLibrary.h"
#include "ReferenceIndex.h"
#include "quill/MarkTypes.h"
#include "quill/MyMatchMarkClass_update.h"

namespace Quill::detail {

// Marker arrays above this count are refused as bad input rather than allocated for.
constexpr int kMaxMarkers = 1 << 20;
// Nearest moving markers paired with each anchor to form base triangles.
constexpr int kAnchorNeighbours = 5;

// The usable markers of a caller's array: finite positions, near-duplicates (nearer than
// the same-target distance) folded into the first one.
struct MovingSet {
    std::vector<Eigen::Vector3d> p;
    std::vector<Eigen::Vector3d> n;
    std::vector<unsigned char> hasN;
    std::vector<int> src;  // index in the caller's array
    int callerCount = 0;
};

// The moving set's own pair distances, computed once per registration and read by both
// users: the reference index (the linking radius and how far the base triangles reach) and
// the search (each anchor's nearest markers, the base triangles' sides). Sets larger than
// kMaxPairSet keep no distances: only the radius is estimated, and the search finds each
// anchor's neighbours itself.
struct MovingNeighbours {
    static constexpr int kMaxPairSet = 256;

    bool exact = false;
    int count = 0;          // markers of the moving set
    double minSide = 0.0;   // neighbours lie at least this far from their anchor
    double radius = 100.0;  // linking radius suggested by the set's nearest-marker distances
    // With `exact`: count x count distances |p_j - p_i|, and per anchor its kAnchorNeighbours
    // nearest markers at least minSide away, by (distance, index), padded with -1 / infinity.
    std::vector<double> dist;
    std::vector<std::array<int, kAnchorNeighbours>> nearId;
    std::vector<std::array<double, kAnchorNeighbours>> nearDist;

    void compute(const std::vector<Eigen::Vector3d>& p, double minSideDistance);
    double distance(int i, int j) const {
        return dist[static_cast<std::size_t>(i) * static_cast<std::size_t>(count) +
                    static_cast<std::size_t>(j)];
    }
    // Longest anchor side of any base triangle when anchors pair with markers up to
    // `linkRadius` away (the radius itself when the distances are not kept).
    double longestSide(double linkRadius) const;
};

// Fills `out`; returns false when the array itself is unusable (null with a positive count,
// a negative or absurd count).
bool prepareMoving(const mark_data* marks, int count, double sameDist, MovingSet& out);

// A normal counts as known when it has a length of at least 0.5 (it is then normalised).
bool readNormal(float x, float y, float z, Eigen::Vector3d& n);

struct RegistrationResult {
    int status = kMatchNotRun;
    Eigen::Matrix3d R = Eigen::Matrix3d::Identity();
    Eigen::Vector3d t = Eigen::Vector3d::Zero();
    std::vector<int> match;  // per usable moving marker: library index or -1
    int matched = 0;
    double rms = 0.0;
    double cost = 0.0;
    int hypotheses = 0;
    int tries = 0;
};

struct RegistrationOptions {
    int maxTries = -1;          // base triangles; -1: automatic
    std::uint64_t seed = 0;     // order in which base triangles are tried
    bool matchUnlinked = true;  // markers outside the triangle index may still be inliers
};

// Tolerance with which a base triangle's sides are looked up in a library.
double lookupTolerance(const MatchSettings& s);

RegistrationResult registerMoving(const MovingSet& mv, const MarkerLibrary& lib,
                                  const MatchSettings& s, const RegistrationOptions& opt);
// `nb` (optional): the moving set's distances computed beforehand for this same set.
RegistrationResult registerMoving(const MovingSet& mv, const ReferenceIndex& lib,
                                  const MatchSettings& s, const RegistrationOptions& opt,
                                  const MovingNeighbours* nb = nullptr);
RegistrationResult registerMoving(const MovingSet& mv, const ReferenceView& lib,
                                  const MatchSettings& s, const RegistrationOptions& opt,
                                  const MovingNeighbours* nb = nullptr);

}  // namespace Quill::detail
