// A fixed marker set indexed for one registration (the one-off matcher builds it per call).
//
// It offers the same lookups as MarkerLibrary with the same answers: every marker (the
// anchor) is linked to its kNeighbours nearest markers within the linking radius, a
// triangle is an anchor with two of its linked markers, and "which marker is near this
// point" is answered from a spatial grid. What differs is the cost of building it:
//
// - one dense grid, filled by a counting sort over the set's bounding box, serves duplicate
//   folding, the linking-radius estimate, the neighbour search and the inlier queries;
// - neighbour lists are kept only as far as the moving set's base triangles can reach (the
//   longest anchor side any of them has, plus the lookup tolerance). A list cut there holds
//   exactly the entries of the full list that a lookup can visit, since lookups walk a list
//   in distance order and stop past the side they look for;
// - no triangle table: a lookup walks every anchor's short sorted list.
//
// Building it for 300 markers costs a few tens of microseconds, far less than filing every
// triangle in a hash table would, which only pays off when many frames are registered.
//
// A set that many moving sets are registered against (a tracker's reference) is indexed once
// with buildShared: its lists reach a few of its own linking radii, and cutFor() derives, per
// moving set, the linking radius and the list lengths that build() would have given. The
// registration reads either through a ReferenceView and finds the same answers.
#pragma once

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "quill/MarkTypes.h"

namespace Quill::detail {

struct MovingSet;
struct MovingNeighbours;

class ReferenceIndex {
public:
    static constexpr int kNeighbours = 8;
    static constexpr double kMinShape = 0.1;

    // Indexes the usable markers of `marks` (finite positions; markers nearer than
    // `sameDist` to an earlier one folded into it) for registering `mv` with anchor sides
    // looked up with tolerance `lookTol`. Returns false, leaving the index empty, when the
    // array itself is unusable (null with a positive count, a negative or absurd count).
    bool build(const mark_data* marks, int count, double sameDist, const MovingSet& mv,
               double lookTol);
    // The same with the moving set's distances computed beforehand (their minSide must be
    // the clamped `sameDist`, else the index stays empty and false is returned).
    bool build(const mark_data* marks, int count, double sameDist, const MovingNeighbours& nb,
               double lookTol);
    // Indexes the usable markers of `marks` once, for any moving set (see cutFor). Returns
    // false, leaving the index empty, when the array itself is unusable.
    bool buildShared(const mark_data* marks, int count, double sameDist);
    // For an index from buildShared: the linking radius and, per marker, the list length that
    // build(marks, count, sameDist, mv, lookTol) would give. False when the moving set asks
    // for lists longer than the shared ones reach (then build per call).
    bool cutFor(const MovingSet& mv, double lookTol, double& linkRadius,
                std::vector<unsigned char>& counts) const;
    bool cutFor(const MovingNeighbours& nb, double lookTol, double& linkRadius,
                std::vector<unsigned char>& counts) const;
    // List lengths of an index from build().
    const std::vector<unsigned char>& listCounts() const { return nbrCount_; }

    double linkRadius() const { return linkRadius_; }
    double minSide() const { return minSide_; }
    int live() const { return static_cast<int>(pos.size()); }
    // Caller's index of each usable marker.
    const std::vector<int>& source() const { return src_; }
    // Longest neighbour distance the lists keep (the reach of the moving set's lookups).
    double listReach() const { return reach_; }

    // Index of the nearest marker within r of p (and passing `accept(id)`), or -1.
    template <class Accept>
    int nearest(const Eigen::Vector3d& p, double r, Accept&& accept,
                double* dist2 = nullptr) const {
        int best = -1;
        double bestD2 = r * r;
        forEachNear(p, r, [&](int id) {
            const double d2 = (pos[static_cast<std::size_t>(id)] - p).squaredNorm();
            // Equal distances go to the lower id, so that the answer does not depend on the
            // order in which the grid offers the markers.
            if ((d2 < bestD2 || (d2 == bestD2 && (best < 0 || id < best))) && accept(id)) {
                bestD2 = d2;
                best = id;
            }
        });
        if (dist2 != nullptr)
            *dist2 = bestD2;
        return best;
    }

    // Calls f(id) for every marker in a grid cell that meets the cube of half-size r around
    // p; the caller tests the distance.
    template <class F>
    void forEachNear(const Eigen::Vector3d& p, double r, F&& f) const {
        int x0, x1, y0, y1, z0, z1;
        if (!cellRange(p, r, x0, x1, y0, y1, z0, z1))
            return;
        for (int z = z0; z <= z1; ++z) {
            for (int y = y0; y <= y1; ++y) {
                const std::size_t row = static_cast<std::size_t>((z * ny_ + y) * nx_);
                const int e1 = start_[row + static_cast<std::size_t>(x1) + 1];
                for (int e = start_[row + static_cast<std::size_t>(x0)]; e < e1; ++e)
                    f(cellId_[static_cast<std::size_t>(e)]);
            }
        }
    }

    // Calls f(a, b, c) for every triangle whose sides (anchor a to b, a to c, b to c) lie
    // within `tol` of (d1, d2, d3); b and c are among a's linked markers, b the nearer.
    template <class F>
    void forEachTriangle(double d1, double d2, double d3, double tol, F&& f) const {
        forEachTriangleIn(nbrCount_.data(), d1, d2, d3, tol, f);
    }
    // The same with the list lengths `counts` (one per marker, at most the index's own).
    template <class F>
    void forEachTriangleIn(const unsigned char* counts, double d1, double d2, double d3, double tol,
                           F&& f) const {
        // Lists hold keys ordered like (distance as float, id): compare keys directly.
        const std::uint64_t lo1 = lowKey(d1 - tol), hi1 = highKey(d1 + tol);
        const std::uint64_t lo2 = lowKey(d2 - tol), hi2 = highKey(d2 + tol);
        const double lo3 = d3 > tol ? (d3 - tol) * (d3 - tol) : 0.0;
        const double hi3 = (d3 + tol) * (d3 + tol);
        const int n = live();
        for (int a = 0; a < n; ++a) {
            const std::uint64_t* list = &nbr_[static_cast<std::size_t>(a) * kNeighbours];
            const int cnt = counts[static_cast<std::size_t>(a)];
            for (int u = 0; u < cnt; ++u) {
                if (list[u] < lo1)
                    continue;
                if (list[u] > hi1)
                    break;
                const int b = keyId(list[u]);
                for (int v = u + 1; v < cnt; ++v) {
                    if (list[v] < lo2)
                        continue;
                    if (list[v] > hi2)
                        break;
                    const int c = keyId(list[v]);
                    const double e =
                        (pos[static_cast<std::size_t>(c)] - pos[static_cast<std::size_t>(b)])
                            .squaredNorm();
                    if (e >= lo3 && e <= hi3 && goodTriangle(a, b, c))
                        f(a, b, c);
                }
            }
        }
    }

    // List key of a distance (as a float; its bit pattern orders like the value) and an id.
    static std::uint64_t distanceKey(double d, int id) {
        const float f = static_cast<float>(d);
        std::uint32_t bits;
        std::memcpy(&bits, &f, sizeof bits);
        return (static_cast<std::uint64_t>(bits) << 32) | static_cast<std::uint32_t>(id);
    }

    // The linked markers of `a`, nearest first (as far as the lists reach).
    int neighbourCount(int a) const { return nbrCount_[static_cast<std::size_t>(a)]; }
    int neighbour(int a, int k) const {
        return keyId(nbr_[static_cast<std::size_t>(a) * kNeighbours + static_cast<std::size_t>(k)]);
    }

    // Per-marker data (index = usable marker). Every marker is alive and linked; the two
    // flags exist so that the registration reads both kinds of library alike.
    std::vector<Eigen::Vector3d> pos;
    std::vector<Eigen::Vector3d> nrm;
    std::vector<unsigned char> hasNormal;
    std::vector<unsigned char> alive;
    std::vector<unsigned char> linked;

private:
    // Fills the grid with `pts` (id = index in pts), cells at least `cell` wide.
    void buildGrid(const std::vector<Eigen::Vector3d>& pts, double cell);
    bool cellRange(const Eigen::Vector3d& p, double r, int& x0, int& x1, int& y0, int& y1, int& z0,
                   int& z1) const {
        const Eigen::Vector3d a = ((p - lo_).array() * inv_ - r * inv_).matrix();
        const Eigen::Vector3d b = ((p - lo_).array() * inv_ + r * inv_).matrix();
        if (!(b.x() >= 0.0 && b.y() >= 0.0 && b.z() >= 0.0 && a.x() < nx_ && a.y() < ny_ &&
              a.z() < nz_)) {
            return false;  // outside the grid (or not a number)
        }
        x0 = a.x() > 0.0 ? static_cast<int>(a.x()) : 0;
        y0 = a.y() > 0.0 ? static_cast<int>(a.y()) : 0;
        z0 = a.z() > 0.0 ? static_cast<int>(a.z()) : 0;
        x1 = b.x() < nx_ - 1 ? static_cast<int>(b.x()) : nx_ - 1;
        y1 = b.y() < ny_ - 1 ? static_cast<int>(b.y()) : ny_ - 1;
        z1 = b.z() < nz_ - 1 ? static_cast<int>(b.z()) : nz_ - 1;
        return true;
    }
    static int keyId(std::uint64_t key) { return static_cast<int>(key & 0xFFFFFFFFu); }
    // Smallest key of distances >= d, largest key of distances <= d (as floats).
    static std::uint64_t lowKey(double d) { return d > 0.0 ? distanceKey(d, 0) : 0; }
    static std::uint64_t highKey(double d) {
        return d >= 0.0 ? distanceKey(d, 0) | 0xFFFFFFFFu : 0;
    }
    bool goodTriangle(int a, int b, int c) const;
    // Nearest marker farther than minSide_ from marker i (its distance; 1e300 if none).
    double nearestOther(int i) const;
    // Visits every pair of markers within rho of each other once (cells of at least rho,
    // each cell against itself and its 13 forward neighbours) and keeps per marker its
    // kNeighbours nearest at least minSide_ away, by (distance as a float, id), and the
    // squared distance of its nearest marker beyond minSide_. Returns true when some pair
    // lies nearer than minSide_ (duplicates to fold).
    bool pairPass(double rho);
    // Cuts the neighbour lists at `reach`.
    void cutLists(double reach);

    // The linking radius from this set's own nearest-marker distances (sampled as a library
    // samples them), and the sampling itself.
    double ownRadius(double rho);

    double linkRadius_ = 100.0;
    double minSide_ = 0.0;
    double reach_ = 0.0;
    bool shared_ = false;
    double ownRadius_ = 100.0;  // buildShared: the set's own linking radius
    std::vector<int> src_;
    // Dense grid: cells of size 1/inv_ over [lo_, lo_ + n * cell); the ids of cell c are
    // cellId_[start_[c] .. start_[c + 1]).
    Eigen::Vector3d lo_ = Eigen::Vector3d::Zero();
    double inv_ = 1.0;
    int nx_ = 0, ny_ = 0, nz_ = 0;
    std::vector<int> start_;
    std::vector<int> cellId_;
    std::vector<int> cellOf_;
    std::vector<Eigen::Vector3d> cellPos_;  // positions in cell order
    struct Pair {
        float d;
        int i, j;
    };
    std::vector<Pair> pairs_;  // pairPass: pairs within rho, then in distance order
    std::unique_ptr<Pair[]> sorted_;
    std::vector<double> nearest2_;
    std::vector<std::uint64_t> nbr_;  // kNeighbours keys per marker, ascending
    std::vector<unsigned char> nbrCount_;
};

// What a registration reads of a ReferenceIndex: its markers, its grid, and the linking radius
// and list lengths for one moving set.
class ReferenceView {
public:
    // The index as build() made it.
    explicit ReferenceView(const ReferenceIndex& idx)
        : pos(idx.pos),
          nrm(idx.nrm),
          hasNormal(idx.hasNormal),
          alive(idx.alive),
          linked(idx.linked),
          idx_(idx),
          linkRadius_(idx.linkRadius()),
          counts_(idx.listCounts().data()) {}
    // A shared index cut for one moving set (ReferenceIndex::cutFor); `counts` must outlive
    // the view.
    ReferenceView(const ReferenceIndex& idx, double linkRadius,
                  const std::vector<unsigned char>& counts)
        : pos(idx.pos),
          nrm(idx.nrm),
          hasNormal(idx.hasNormal),
          alive(idx.alive),
          linked(idx.linked),
          idx_(idx),
          linkRadius_(linkRadius),
          counts_(counts.data()) {}

    const std::vector<Eigen::Vector3d>& pos;
    const std::vector<Eigen::Vector3d>& nrm;
    const std::vector<unsigned char>& hasNormal;
    const std::vector<unsigned char>& alive;
    const std::vector<unsigned char>& linked;

    int live() const { return idx_.live(); }
    double minSide() const { return idx_.minSide(); }
    double linkRadius() const { return linkRadius_; }
    const std::vector<int>& source() const { return idx_.source(); }
    template <class Accept>
    int nearest(const Eigen::Vector3d& p, double r, Accept&& accept,
                double* dist2 = nullptr) const {
        return idx_.nearest(p, r, accept, dist2);
    }
    template <class F>
    void forEachTriangle(double d1, double d2, double d3, double tol, F&& f) const {
        idx_.forEachTriangleIn(counts_, d1, d2, d3, tol, f);
    }

private:
    const ReferenceIndex& idx_;
    double linkRadius_;
    const unsigned char* counts_;
};

}  // namespace Quill::detail
