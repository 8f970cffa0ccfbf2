// A marker library with the two indexes the matchers need, both grown incrementally:
//
// - a fine spatial hash grid (cell kFineCell mm) for "which library marker is near this
//   point" (inlier verification, same-target tests);
// - a triangle index: every library marker (the anchor) is linked to its kNeighbours nearest
//   markers within the linking radius, and every non-degenerate triangle formed by an anchor
//   and two of its linked markers is filed under its three side lengths (anchor to nearer
//   marker, anchor to farther marker, between the two), quantised to kBucket mm. Looking a
//   moving triangle up costs a few hash probes and returns the few library triangles of
//   nearly the same shape. A coarse grid (cell = linking radius) finds the markers to link
//   when a marker is added.
//
// Adding a marker links it to its nearest markers and inserts it into the lists of the
// markers it is among the nearest of; triangles that drop out of a list stay filed (they
// are still true triangles of the library), so nothing is ever rebuilt per frame.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "HashGrid.h"

namespace Quill::detail {

class MarkerLibrary {
public:
    static constexpr int kNeighbours = 8;
    static constexpr double kFineCell = 2.0;
    static constexpr double kBucket = 2.0;
    // Smallest height/longest-side ratio of an indexed triangle (rejects collinear triples).
    static constexpr double kMinShape = 0.1;

    MarkerLibrary() { reset(100.0, 1.0); }

    // Empties the library; `linkRadius` bounds the links, `minSide` is the shortest side of
    // an indexed triangle. (A set registered against once is indexed by ReferenceIndex
    // instead: filing its triangles would cost more than the lookups it saves.)
    void reset(double linkRadius, double minSide);
    double linkRadius() const { return linkRadius_; }
    double minSide() const { return minSide_; }

    // Linking radius suited to a marker set: a few times its median nearest-marker distance.
    static double suggestLinkRadius(const std::vector<Eigen::Vector3d>& pts, double minSide);

    int slots() const { return static_cast<int>(pos.size()); }
    int live() const { return live_; }
    void reserve(int n);

    // Adds a marker and returns its index. With `link` false it is stored and found by the
    // spatial grid but takes no part in triangles until link() is called.
    int add(const Eigen::Vector3d& p, const Eigen::Vector3d& n, bool hasNormal, double value,
            int label, bool link);
    void link(int id);
    // Builds the whole index for markers added with link = false, in one pass (faster than
    // linking them one by one).
    void linkAll();
    // Drops every link and triangle and builds them again for the live markers (after
    // markers moved by more than refinement does, for example when targets were merged).
    void relinkAll();
    void movePoint(int id, const Eigen::Vector3d& p);
    void retire(int id);

    // Index of the nearest live marker within r of p (and passing `accept(id)`), or -1.
    template <class Accept>
    int nearest(const Eigen::Vector3d& p, double r, Accept&& accept,
                double* dist2 = nullptr) const {
        int best = -1;
        double bestD2 = r * r;
        fine_.forEachNear(p, r, [&](int id) {
            const double d2 = (pos[static_cast<std::size_t>(id)] - p).squaredNorm();
            if (d2 <= bestD2 && accept(id)) {
                bestD2 = d2;
                best = id;
            }
        });
        if (dist2 != nullptr) {
            *dist2 = bestD2;
        }
        return best;
    }
    template <class F>
    void forEachNear(const Eigen::Vector3d& p, double r, F&& f) const {
        fine_.forEachNear(p, r, f);
    }

    // Calls f(a, b, c) for filed triangles whose sides (anchor a to b, a to c, b to c) lie
    // within `tol` of (d1, d2, d3) by their filed lengths. The caller re-checks the current
    // lengths (markers move slightly as they are refined).
    template <class F>
    void forEachTriangle(double d1, double d2, double d3, double tol, F&& f) const {
        const std::int64_t a0 = qlo(d1 - tol), a1 = qlo(d1 + tol);
        const std::int64_t b0 = qlo(d2 - tol), b1 = qlo(d2 + tol);
        const std::int64_t c0 = qlo(d3 - tol), c1 = qlo(d3 + tol);
        if (triUsed_ == 0) {
            return;
        }
        for (std::int64_t a = a0; a <= a1; ++a) {
            for (std::int64_t b = b0; b <= b1; ++b) {
                for (std::int64_t c = c0; c <= c1; ++c) {
                    const std::size_t s = triFind(triKey(a, b, c));
                    if (s == kNone) {
                        continue;
                    }
                    for (int e = triHeads_[s]; e >= 0;
                         e = tris_[static_cast<std::size_t>(e)].next) {
                        const Tri& t = tris_[static_cast<std::size_t>(e)];
                        f(t.a, t.b, t.c);
                    }
                }
            }
        }
    }

    std::size_t triangleCount() const { return tris_.size(); }
    std::size_t memoryBytes() const;

    // Per-marker data (index = marker id).
    std::vector<Eigen::Vector3d> pos;
    std::vector<Eigen::Vector3d> nrm;
    std::vector<double> value;
    std::vector<int> label;
    std::vector<int> weight;  // observations merged into the position
    std::vector<unsigned char> hasNormal;
    std::vector<unsigned char> alive;
    std::vector<unsigned char> linked;

private:
    static constexpr std::size_t kNone = ~static_cast<std::size_t>(0);
    static constexpr std::uint64_t kEmpty = ~static_cast<std::uint64_t>(0);
    struct Tri {
        int a, b, c, next;
    };

    std::int64_t qlo(double d) const {
        if (d < 0.0)
            d = 0.0;
        if (d > 2.0e6)
            d = 2.0e6;
        return static_cast<std::int64_t>(d * (1.0 / kBucket));
    }
    static std::uint64_t triKey(std::int64_t a, std::int64_t b, std::int64_t c) {
        const std::uint64_t m = (1u << 21) - 1u;
        return ((static_cast<std::uint64_t>(a) & m) << 42) |
               ((static_cast<std::uint64_t>(b) & m) << 21) | (static_cast<std::uint64_t>(c) & m);
    }
    std::size_t triFind(std::uint64_t key) const;
    std::size_t triFindOrAdd(std::uint64_t key);
    void triGrow();
    void fileTriangle(int a, int b, int c);
    // Moves the kNeighbours nearest candidates (by their first member) to the front, in
    // order; returns how many there are.
    static std::size_t nearestFirst(std::vector<std::pair<double, int>>& cand);
    void reserveTriangles(std::size_t n);
    // Offers `y` as a neighbour of `x` at distance d; files the new triangles if taken.
    void offerNeighbour(int x, int y, double d);

    double linkRadius_ = 100.0;
    double minSide_ = 1.0;
    int live_ = 0;
    HashGrid fine_;
    HashGrid coarse_;
    std::vector<int> nbrId_;      // kNeighbours per marker, nearest first
    std::vector<float> nbrDist_;  // their distances
    std::vector<unsigned char> nbrCount_;
    std::vector<Tri> tris_;
    std::vector<std::uint64_t> triKeys_;
    std::vector<int> triHeads_;
    std::size_t triUsed_ = 0;
};

}  // namespace Quill::detail
