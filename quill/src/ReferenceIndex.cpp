#include "ReferenceIndex.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "Geometry.h"
#include "MarkerLibrary.h"
#include "Registration.h"

namespace Quill::detail {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// The linking radius for a median nearest-marker distance, as MarkerLibrary suggests it.
double radiusFromNearest(std::vector<double>& nn, double minSide) {
    if (nn.empty())
        return 100.0;
    std::nth_element(nn.begin(), nn.begin() + static_cast<std::ptrdiff_t>(nn.size() / 2), nn.end());
    const double median = nn[nn.size() / 2];
    return std::max(3.0 * median, 5.0 * std::max(minSide, 1.0));
}

}  // namespace

void MovingNeighbours::compute(const std::vector<Eigen::Vector3d>& p, double minSideDistance) {
    const int n = static_cast<int>(p.size());
    count = n;
    minSide = minSideDistance;
    if (n > kMaxPairSet) {
        // Not a tracker's frame: estimate the radius only; the lists would be as long as
        // the linking radius allows anyway.
        exact = false;
        dist.clear();
        nearId.clear();
        nearDist.clear();
        radius = MarkerLibrary::suggestLinkRadius(p, minSide);
        return;
    }
    exact = true;
    const auto un = static_cast<std::size_t>(n);
    // Each pair once: |p_j - p_i| and |p_i - p_j| are the same number.
    dist.resize(un * un);
    for (std::size_t i = 0; i < un; ++i) {
        const Eigen::Vector3d pi = p[i];
        dist[i * un + i] = 0.0;
        for (std::size_t j = i + 1; j < un; ++j) {
            const double d = std::sqrt((p[j] - pi).squaredNorm());
            dist[i * un + j] = d;
            dist[j * un + i] = d;
        }
    }
    // Per anchor, its kAnchorNeighbours nearest at least minSide away, by (distance, index).
    // A first scan of its row keeps the smallest distances with min/max only (no branch to
    // mispredict: a frame's markers arrive in no useful order); a second one gathers, in
    // index order and again without branches, the markers no farther than the last of them.
    nearId.resize(un);
    nearDist.resize(un);
    std::vector<double> nn;
    nn.reserve(32);
    std::vector<int> within(un);
    const std::size_t step = un > 32 ? un / 32 : 1;
    constexpr int K = kAnchorNeighbours;
    for (std::size_t i = 0; i < un; ++i) {
        const double* row = &dist[i * un];
        double small[K];
        for (double& v : small)
            v = kInf;
        for (std::size_t j = 0; j < un; ++j) {
            double d = row[j];
            if (j == i || !(d >= minSide))
                continue;
            for (double& v : small) {
                const double lo = std::min(v, d);
                d = std::max(v, d);
                v = lo;
            }
        }
        const double last = small[K - 1];
        std::size_t m = 0;
        for (std::size_t j = 0; j < un; ++j) {
            const double d = row[j];
            within[m] = static_cast<int>(j);
            m += j != i && d >= minSide && d <= last ? 1 : 0;
        }
        // Those nearer than the last kept distance (fewer than K unless the row has fewer
        // than K at all), in order of (distance, index); then ties with it, lower index first.
        auto& nd = nearDist[i];
        auto& id = nearId[i];
        nd.fill(kInf);
        id.fill(-1);
        int kept = 0;
        for (std::size_t e = 0; e < m; ++e) {
            const int j = within[e];
            const double d = row[static_cast<std::size_t>(j)];
            if (!(d < last))
                continue;
            int at = kept++;
            while (at > 0 && nd[static_cast<std::size_t>(at) - 1] > d) {
                nd[static_cast<std::size_t>(at)] = nd[static_cast<std::size_t>(at) - 1];
                id[static_cast<std::size_t>(at)] = id[static_cast<std::size_t>(at) - 1];
                --at;
            }
            nd[static_cast<std::size_t>(at)] = d;
            id[static_cast<std::size_t>(at)] = j;
        }
        for (std::size_t e = 0; e < m && kept < K; ++e) {
            const int j = within[e];
            if (row[static_cast<std::size_t>(j)] == last) {
                nd[static_cast<std::size_t>(kept)] = last;
                id[static_cast<std::size_t>(kept)] = j;
                ++kept;
            }
        }
        // The nearest marker beyond minSide: the nearest kept one, unless that lies at
        // exactly minSide.
        double best = nd[0] < kInf ? nd[0] : 1e300;
        if (nd[0] == minSide) {
            best = 1e300;
            for (std::size_t j = 0; j < un; ++j) {
                const double d = row[j];
                if (j != i && d > minSide && d < best)
                    best = d;
            }
        }
        // The nearest-marker distances of a sample, as MarkerLibrary::suggestLinkRadius
        // takes them.
        if (i % step == 0 && best < 1e299)
            nn.push_back(best);
    }
    radius = radiusFromNearest(nn, minSide);
}

double MovingNeighbours::longestSide(double linkRadius) const {
    if (!exact)
        return linkRadius;
    double longest = 0.0;
    for (const auto& nd : nearDist) {
        for (double d : nd) {
            if (d <= linkRadius)
                longest = std::max(longest, d);
        }
    }
    return longest;
}

void ReferenceIndex::buildGrid(const std::vector<Eigen::Vector3d>& pts, double cell) {
    const std::size_t n = pts.size();
    lo_ = Eigen::Vector3d::Zero();
    Eigen::Vector3d hi = lo_;
    if (n > 0) {
        lo_ = pts[0];
        hi = lo_;
        for (const auto& p : pts) {
            lo_ = lo_.cwiseMin(p);
            hi = hi.cwiseMax(p);
        }
    }
    if (!(cell > 1e-6))
        cell = 1e-6;
    // At most about four cells per marker: enlarge the cells until the box fits.
    const double budget = 4.0 * static_cast<double>(n) + 256.0;
    const Eigen::Vector3d ext = hi - lo_;
    bool fits = false;
    for (int round = 0; round < 64 && ext.allFinite(); ++round) {
        const Eigen::Vector3d dims = (ext / cell).array().floor() + 1.0;
        const double cells = dims.prod();
        if (cells <= budget) {
            fits = true;
            break;
        }
        cell *= std::max(1.5, std::cbrt(cells / budget));
    }
    if (fits) {
        inv_ = 1.0 / cell;
        nx_ = static_cast<int>(ext.x() * inv_) + 1;
        ny_ = static_cast<int>(ext.y() * inv_) + 1;
        nz_ = static_cast<int>(ext.z() * inv_) + 1;
    } else {
        // A box no cell size fits: one cell holds everything.
        inv_ = 0.0;
        nx_ = ny_ = nz_ = 1;
    }
    const std::size_t cells = static_cast<std::size_t>(nx_) * static_cast<std::size_t>(ny_) *
                              static_cast<std::size_t>(nz_);
    start_.assign(cells + 1, 0);
    cellOf_.resize(n);
    for (std::size_t k = 0; k < n; ++k) {
        const Eigen::Vector3d q = (pts[k] - lo_) * inv_;
        const int cx = std::min(nx_ - 1, static_cast<int>(q.x()));
        const int cy = std::min(ny_ - 1, static_cast<int>(q.y()));
        const int cz = std::min(nz_ - 1, static_cast<int>(q.z()));
        cellOf_[k] = (cz * ny_ + cy) * nx_ + cx;
        ++start_[static_cast<std::size_t>(cellOf_[k]) + 1];
    }
    for (std::size_t c = 0; c < cells; ++c)
        start_[c + 1] += start_[c];
    cellId_.resize(n);
    // Fill each cell from its end so that ids end up in ascending order within a cell.
    for (std::size_t k = n; k-- > 0;) {
        const auto c = static_cast<std::size_t>(cellOf_[k]);
        cellId_[static_cast<std::size_t>(--start_[c + 1])] = static_cast<int>(k);
    }
    // The decrements moved every start back by its cell's count: start_[c + 1] is now the
    // beginning of cell c; shift the array back into place.
    for (std::size_t c = 0; c < cells; ++c)
        start_[c] = start_[c + 1];
    start_[cells] = static_cast<int>(n);
    cellPos_.resize(n);
    for (std::size_t e = 0; e < n; ++e)
        cellPos_[e] = pts[static_cast<std::size_t>(cellId_[e])];
}

double ReferenceIndex::nearestOther(int i) const {
    const Eigen::Vector3d& p = pos[static_cast<std::size_t>(i)];
    const double cell = inv_ > 0.0 ? 1.0 / inv_ : kInf;
    double r = std::isfinite(cell) ? cell : 1.0;
    for (;;) {
        double best = 1e300;
        forEachNear(p, r, [&](int j) {
            if (j == i)
                return;
            const double d = (p - pos[static_cast<std::size_t>(j)]).norm();
            if (d > minSide_ && d < best)
                best = d;
        });
        // Every marker within r of p has been seen: the answer is exact when it lies within
        // r, or when the cube already covered the whole grid.
        int x0, x1, y0, y1, z0, z1;
        const bool all =
            inv_ == 0.0 || (cellRange(p, r, x0, x1, y0, y1, z0, z1) && x0 == 0 && y0 == 0 &&
                            z0 == 0 && x1 == nx_ - 1 && y1 == ny_ - 1 && z1 == nz_ - 1);
        if (best <= r || all)
            return best;
        r *= 2.0;
    }
}

bool ReferenceIndex::pairPass(double rho) {
    const auto un = static_cast<std::size_t>(live());
    nearest2_.assign(un, kInf);
    pairs_.clear();
    pairs_.reserve(16 * un);
    const double r2 = rho * rho;
    const double min2 = minSide_ * minSide_;
    bool dup = false;
    auto pair = [&](int i, const Eigen::Vector3d& pi, int e) {
        const double d2 = (cellPos_[static_cast<std::size_t>(e)] - pi).squaredNorm();
        if (d2 > r2)
            return;
        if (d2 < min2) {
            dup = true;
            return;
        }
        const int j = cellId_[static_cast<std::size_t>(e)];
        if (d2 > min2) {
            double& a = nearest2_[static_cast<std::size_t>(i)];
            double& b = nearest2_[static_cast<std::size_t>(j)];
            a = std::min(a, d2);
            b = std::min(b, d2);
        }
        pairs_.push_back(Pair{static_cast<float>(std::sqrt(d2)), i, j});
    };
    for (int z = 0; z < nz_; ++z) {
        for (int y = 0; y < ny_; ++y) {
            for (int x = 0; x < nx_; ++x) {
                const int c = (z * ny_ + y) * nx_ + x;
                const int c0 = start_[static_cast<std::size_t>(c)];
                const int c1 = start_[static_cast<std::size_t>(c) + 1];
                if (c0 == c1)
                    continue;
                // Forward neighbours: the next cell of the row, then three cells of the next
                // row and of three rows in the next layer (each a contiguous range).
                int from[5], to[5];
                int nr = 0;
                if (x + 1 < nx_) {
                    from[nr] = c1;
                    to[nr] = start_[static_cast<std::size_t>(c) + 2];
                    ++nr;
                }
                const int xa = x > 0 ? x - 1 : 0;
                const int xb = x + 1 < nx_ ? x + 1 : nx_ - 1;
                const auto addRow = [&](int yy, int zz) {
                    if (yy < 0 || yy >= ny_ || zz >= nz_)
                        return;
                    const int row = (zz * ny_ + yy) * nx_;
                    from[nr] = start_[static_cast<std::size_t>(row + xa)];
                    to[nr] = start_[static_cast<std::size_t>(row + xb) + 1];
                    ++nr;
                };
                addRow(y + 1, z);
                addRow(y - 1, z + 1);
                addRow(y, z + 1);
                addRow(y + 1, z + 1);
                for (int e = c0; e < c1; ++e) {
                    if (dup)
                        return true;  // the caller folds the duplicates and comes back
                    const int i = cellId_[static_cast<std::size_t>(e)];
                    const Eigen::Vector3d pi = cellPos_[static_cast<std::size_t>(e)];
                    for (int f = e + 1; f < c1; ++f)
                        pair(i, pi, f);
                    for (int r = 0; r < nr; ++r) {
                        for (int f = from[r]; f < to[r]; ++f)
                            pair(i, pi, f);
                    }
                }
            }
        }
    }
    // Offer the pairs in order of distance (a counting sort on the distance), so that a
    // marker's list mostly grows at its end and fills with its nearest first.
    nbr_.resize(un * kNeighbours);
    nbrCount_.assign(un, 0);
    const std::size_t np = pairs_.size();
    const std::size_t buckets = std::min<std::size_t>(4096, np + 1);
    const double scale = rho > 0.0 ? static_cast<double>(buckets) / rho : 0.0;
    std::vector<int> at(buckets + 1, 0);
    const auto bucketOf = [&](float d) {
        return std::min(buckets - 1, static_cast<std::size_t>(static_cast<double>(d) * scale));
    };
    for (const Pair& q : pairs_)
        ++at[bucketOf(q.d) + 1];
    for (std::size_t b = 0; b < buckets; ++b)
        at[b + 1] += at[b];
    // Plain storage: every slot is written before it is read.
    sorted_.reset(new Pair[np]);
    for (const Pair& q : pairs_)
        sorted_[static_cast<std::size_t>(at[bucketOf(q.d)]++)] = q;
    const auto offer = [&](int i, std::uint64_t key) {
        std::uint64_t* k = &nbr_[static_cast<std::size_t>(i) * kNeighbours];
        const int cnt = nbrCount_[static_cast<std::size_t>(i)];
        if (cnt == kNeighbours && key > k[kNeighbours - 1])
            return;
        int slot = cnt < kNeighbours ? cnt : kNeighbours - 1;
        while (slot > 0 && k[slot - 1] > key) {
            k[slot] = k[slot - 1];
            --slot;
        }
        k[slot] = key;
        if (cnt < kNeighbours)
            nbrCount_[static_cast<std::size_t>(i)] = static_cast<unsigned char>(cnt + 1);
    };
    for (std::size_t e = 0; e < np; ++e) {
        const Pair& q = sorted_[e];
        offer(q.i, distanceKey(q.d, q.j));
        offer(q.j, distanceKey(q.d, q.i));
    }
    return dup;
}

void ReferenceIndex::cutLists(double reach) {
    const std::uint64_t last = highKey(reach);
    for (std::size_t i = 0; i < nbrCount_.size(); ++i) {
        const std::uint64_t* k = &nbr_[i * kNeighbours];
        int cnt = nbrCount_[i];
        while (cnt > 0 && k[cnt - 1] > last)
            --cnt;
        nbrCount_[i] = static_cast<unsigned char>(cnt);
    }
}

double ReferenceIndex::ownRadius(double rho) {
    // Linking radius from a sample of nearest-marker distances, as for a library. The last
    // pass found each marker's nearest within rho; a marker with none that near is searched
    // further, and so is one whose distance rounds to exactly minSide.
    std::vector<double> nn;
    const std::size_t n = pos.size();
    const std::size_t step = n > 32 ? n / 32 : 1;
    for (std::size_t i = 0; i < n; i += step) {
        double d = std::sqrt(nearest2_[i]);
        if (!(d > minSide_ && d <= rho))
            d = nearestOther(static_cast<int>(i));
        if (d < 1e299)
            nn.push_back(d);
    }
    return radiusFromNearest(nn, minSide_);
}

bool ReferenceIndex::build(const mark_data* marks, int count, double sameDist, const MovingSet& mv,
                           double lookTol) {
    MovingNeighbours nb;
    nb.compute(mv.p, sameDist > 0.0 ? sameDist : 0.0);
    return build(marks, count, sameDist, nb, lookTol);
}

bool ReferenceIndex::build(const mark_data* marks, int count, double sameDist,
                           const MovingNeighbours& nb, double lookTol) {
    shared_ = false;
    pos.clear();
    nrm.clear();
    hasNormal.clear();
    alive.clear();
    linked.clear();
    src_.clear();
    nbrCount_.clear();
    buildGrid(pos, 1.0);
    if (count < 0 || count > kMaxMarkers || (count > 0 && marks == nullptr))
        return false;
    minSide_ = sameDist > 0.0 ? sameDist : 0.0;
    if (nb.minSide != minSide_)
        return false;
    const double margin = 1e-6;
    const auto listRadius = [&](double linkRadius) {
        const double r = (nb.longestSide(linkRadius) + lookTol) * (1.0 + margin) + margin;
        return std::min(r, linkRadius);
    };
    // The lists must reach min(linking radius, longest side + tolerance). The linking
    // radius is at least the moving set's and rarely much more: gather pairs as far as 1.5
    // times that, and go again in the rare case that falls short.
    // (At least minSide, so that the pass also meets every near-duplicate.)
    const double rho = std::max(listRadius(1.5 * std::max(nb.radius, 1e-3)), minSide_);

    pos.reserve(static_cast<std::size_t>(count));
    src_.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const Eigen::Vector3d p(marks[i].x, marks[i].y, marks[i].z);
        if (p.allFinite()) {
            pos.push_back(p);
            src_.push_back(i);
        }
    }
    buildGrid(pos, rho);
    if (pairPass(rho)) {
        // Near-duplicates: fold each into the first of them, in the caller's order, as for a
        // frame (a fine hash grid over the kept markers: a heap of copies of one marker costs
        // one comparison each).
        MovingSet folded;
        prepareMoving(marks, count, minSide_, folded);
        pos = std::move(folded.p);
        src_ = std::move(folded.src);
        buildGrid(pos, rho);
        pairPass(rho);
    }
    const std::size_t n = pos.size();
    nrm.resize(n);
    hasNormal.resize(n);
    for (std::size_t k = 0; k < n; ++k) {
        const mark_data& m = marks[src_[k]];
        hasNormal[k] = readNormal(m.nx, m.ny, m.nz, nrm[k]) ? 1 : 0;
    }
    alive.assign(n, 1);
    linked.assign(n, 1);

    {
        const double r = std::max(ownRadius(rho), nb.radius);
        linkRadius_ = r > 1e-3 ? r : 1e-3;
    }
    reach_ = listRadius(linkRadius_);
    if (reach_ > rho) {
        buildGrid(pos, reach_);
        pairPass(reach_);
    }
    cutLists(reach_);
    return true;
}

bool ReferenceIndex::buildShared(const mark_data* marks, int count, double sameDist) {
    shared_ = true;
    pos.clear();
    nrm.clear();
    hasNormal.clear();
    alive.clear();
    linked.clear();
    src_.clear();
    nbrCount_.clear();
    buildGrid(pos, 1.0);
    if (count < 0 || count > kMaxMarkers || (count > 0 && marks == nullptr))
        return false;
    minSide_ = sameDist > 0.0 ? sameDist : 0.0;

    pos.reserve(static_cast<std::size_t>(count));
    src_.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const Eigen::Vector3d p(marks[i].x, marks[i].y, marks[i].z);
        if (p.allFinite()) {
            pos.push_back(p);
            src_.push_back(i);
        }
    }
    // A pass as far as minSide meets every near-duplicate; they are folded as build() folds
    // them, whatever distance its pass reaches.
    const double rho0 = std::max(minSide_, 1e-3);
    buildGrid(pos, rho0);
    if (pairPass(rho0)) {
        MovingSet folded;
        prepareMoving(marks, count, minSide_, folded);
        pos = std::move(folded.p);
        src_ = std::move(folded.src);
        buildGrid(pos, rho0);
        pairPass(rho0);
    }
    const std::size_t n = pos.size();
    nrm.resize(n);
    hasNormal.resize(n);
    for (std::size_t k = 0; k < n; ++k) {
        const mark_data& m = marks[src_[k]];
        hasNormal[k] = readNormal(m.nx, m.ny, m.nz, nrm[k]) ? 1 : 0;
    }
    alive.assign(n, 1);
    linked.assign(n, 1);
    ownRadius_ = ownRadius(rho0);
    linkRadius_ = ownRadius_ > 1e-3 ? ownRadius_ : 1e-3;

    // Lists as far as twice the set's own linking radius: a frame of the same part asks for
    // at most about one linking radius (cutFor tells when a moving set asks for more).
    reach_ = std::max(2.0 * linkRadius_, minSide_);
    buildGrid(pos, reach_);
    pairPass(reach_);
    // The inlier queries get cells of about the typical marker spacing.
    buildGrid(pos, linkRadius_ / 3.0);
    pairs_ = std::vector<Pair>();
    sorted_.reset();
    nearest2_ = std::vector<double>();
    return true;
}

bool ReferenceIndex::cutFor(const MovingSet& mv, double lookTol, double& linkRadius,
                            std::vector<unsigned char>& counts) const {
    MovingNeighbours nb;
    nb.compute(mv.p, minSide_);
    return cutFor(nb, lookTol, linkRadius, counts);
}

bool ReferenceIndex::cutFor(const MovingNeighbours& nb, double lookTol, double& linkRadius,
                            std::vector<unsigned char>& counts) const {
    if (!shared_ || nb.minSide != minSide_)
        return false;
    // The radii build() would take for this moving set.
    const double margin = 1e-6;
    const auto listRadius = [&](double r) {
        const double l = (nb.longestSide(r) + lookTol) * (1.0 + margin) + margin;
        return std::min(l, r);
    };
    const double rho = std::max(listRadius(1.5 * std::max(nb.radius, 1e-3)), minSide_);
    const double r = std::max(ownRadius_, nb.radius);
    linkRadius = r > 1e-3 ? r : 1e-3;
    const double reach = listRadius(linkRadius);
    // build() gathers the pairs within `bound` and cuts its lists at `reach`.
    const double bound = std::max(rho, reach);
    if (!(bound <= reach_))
        return false;
    const double bound2 = bound * bound;
    const std::uint64_t last = highKey(reach);
    const std::uint64_t nearBound = lowKey(bound);
    const std::size_t n = pos.size();
    counts.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint64_t* k = &nbr_[i * kNeighbours];
        const int cnt = nbrCount_[i];
        // The list keeps its entries up to `last`, a prefix since it is sorted (counted
        // without branches).
        int keep = 0;
        int edge = 0;
        for (int u = 0; u < kNeighbours; ++u) {
            const bool kept = u < cnt && k[u] <= last;
            keep += kept ? 1 : 0;
            edge += kept && k[u] >= nearBound ? 1 : 0;
        }
        // Only a distance that rounds to the bound as a float can lie beyond it.
        for (int u = 0; edge > 0 && u < keep; ++u) {
            if (k[u] >= nearBound &&
                (pos[static_cast<std::size_t>(keyId(k[u]))] - pos[i]).squaredNorm() > bound2) {
                return false;  // build() would have skipped this pair: rare, build per call
            }
        }
        counts[i] = static_cast<unsigned char>(keep);
    }
    return true;
}

bool ReferenceIndex::goodTriangle(int a, int b, int c) const {
    const Eigen::Vector3d& pa = pos[static_cast<std::size_t>(a)];
    const Eigen::Vector3d& pb = pos[static_cast<std::size_t>(b)];
    const Eigen::Vector3d& pc = pos[static_cast<std::size_t>(c)];
    const double m2 = minSide_ * minSide_;
    if ((pb - pa).squaredNorm() < m2 || (pc - pa).squaredNorm() < m2 ||
        (pc - pb).squaredNorm() < m2) {
        return false;
    }
    return triangleShape(pa, pb, pc) >= kMinShape;
}

}  // namespace Quill::detail
