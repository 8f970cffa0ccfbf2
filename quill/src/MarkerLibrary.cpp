#include "MarkerLibrary.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Geometry.h"

namespace Quill::detail {

void MarkerLibrary::reset(double linkRadius, double minSide) {
    linkRadius_ = linkRadius > 1e-3 ? linkRadius : 1e-3;
    minSide_ = minSide > 0.0 ? minSide : 0.0;
    live_ = 0;
    pos.clear();
    nrm.clear();
    value.clear();
    label.clear();
    weight.clear();
    hasNormal.clear();
    alive.clear();
    linked.clear();
    fine_.reset(kFineCell);
    coarse_.reset(linkRadius_);
    nbrId_.clear();
    nbrDist_.clear();
    nbrCount_.clear();
    tris_.clear();
    triKeys_.assign(1024, kEmpty);
    triHeads_.assign(1024, -1);
    triUsed_ = 0;
}

double MarkerLibrary::suggestLinkRadius(const std::vector<Eigen::Vector3d>& pts, double minSide) {
    const std::size_t n = pts.size();
    std::vector<double> nn;
    nn.reserve(n);
    // Small sets only (a frame, or a sample of a large set): quadratic is fine.
    const std::size_t step = n > 32 ? n / 32 : 1;
    for (std::size_t i = 0; i < n; i += step) {
        double best = 1e300;
        for (std::size_t j = 0; j < n; ++j) {
            if (j == i)
                continue;
            const double d = (pts[i] - pts[j]).norm();
            if (d > minSide && d < best)
                best = d;
        }
        if (best < 1e299)
            nn.push_back(best);
    }
    if (nn.empty()) {
        return 100.0;
    }
    std::nth_element(nn.begin(), nn.begin() + static_cast<std::ptrdiff_t>(nn.size() / 2), nn.end());
    const double median = nn[nn.size() / 2];
    return std::max(3.0 * median, 5.0 * std::max(minSide, 1.0));
}

std::size_t MarkerLibrary::nearestFirst(std::vector<std::pair<double, int>>& cand) {
    const std::size_t k = std::min<std::size_t>(cand.size(), kNeighbours);
    if (cand.size() > k) {
        std::nth_element(cand.begin(), cand.begin() + static_cast<std::ptrdiff_t>(k), cand.end());
    }
    std::sort(cand.begin(), cand.begin() + static_cast<std::ptrdiff_t>(k));
    return k;
}

void MarkerLibrary::reserveTriangles(std::size_t n) {
    tris_.reserve(tris_.size() + n);
    while ((triUsed_ + n / 2) * 2 > triKeys_.size())
        triGrow();
}

void MarkerLibrary::reserve(int n) {
    if (n <= 0)
        return;
    const auto un = static_cast<std::size_t>(n);
    pos.reserve(un);
    nrm.reserve(un);
    value.reserve(un);
    label.reserve(un);
    weight.reserve(un);
    hasNormal.reserve(un);
    alive.reserve(un);
    linked.reserve(un);
    nbrId_.reserve(un * kNeighbours);
    nbrDist_.reserve(un * kNeighbours);
    nbrCount_.reserve(un);
    fine_.reserve(un);
}

int MarkerLibrary::add(const Eigen::Vector3d& p, const Eigen::Vector3d& n, bool hasN, double v,
                       int lab, bool doLink) {
    const int id = static_cast<int>(pos.size());
    pos.push_back(p);
    nrm.push_back(hasN ? n : Eigen::Vector3d::Zero());
    value.push_back(v);
    label.push_back(lab);
    weight.push_back(1);
    hasNormal.push_back(hasN ? 1 : 0);
    alive.push_back(1);
    linked.push_back(0);
    nbrId_.resize(nbrId_.size() + kNeighbours, -1);
    nbrDist_.resize(nbrDist_.size() + kNeighbours, 0.0f);
    nbrCount_.push_back(0);
    ++live_;
    fine_.insert(id, p);
    if (doLink) {
        link(id);
    }
    return id;
}

void MarkerLibrary::offerNeighbour(int x, int y, double d) {
    const std::size_t base = static_cast<std::size_t>(x) * kNeighbours;
    int cnt = nbrCount_[static_cast<std::size_t>(x)];
    if (cnt == kNeighbours && d >= nbrDist_[base + kNeighbours - 1]) {
        return;
    }
    // Insert y in distance order, dropping the farthest when the list is full.
    int at = cnt < kNeighbours ? cnt : kNeighbours - 1;
    while (at > 0 && nbrDist_[base + static_cast<std::size_t>(at) - 1] > d) {
        nbrId_[base + static_cast<std::size_t>(at)] =
            nbrId_[base + static_cast<std::size_t>(at) - 1];
        nbrDist_[base + static_cast<std::size_t>(at)] =
            nbrDist_[base + static_cast<std::size_t>(at) - 1];
        --at;
    }
    nbrId_[base + static_cast<std::size_t>(at)] = y;
    nbrDist_[base + static_cast<std::size_t>(at)] = static_cast<float>(d);
    if (cnt < kNeighbours) {
        ++cnt;
        nbrCount_[static_cast<std::size_t>(x)] = static_cast<unsigned char>(cnt);
    }
    for (int k = 0; k < cnt; ++k) {
        const int c = nbrId_[base + static_cast<std::size_t>(k)];
        if (c != y) {
            fileTriangle(x, y, c);
        }
    }
}

void MarkerLibrary::link(int id) {
    if (id < 0 || id >= slots() || linked[static_cast<std::size_t>(id)] ||
        !alive[static_cast<std::size_t>(id)]) {
        return;
    }
    const Eigen::Vector3d p = pos[static_cast<std::size_t>(id)];
    const double r2 = linkRadius_ * linkRadius_;
    const double min2 = minSide_ * minSide_;
    std::vector<std::pair<double, int>> cand;
    coarse_.forEachNear(p, linkRadius_, [&](int y) {
        const double d2 = (pos[static_cast<std::size_t>(y)] - p).squaredNorm();
        if (d2 <= r2 && d2 >= min2 && alive[static_cast<std::size_t>(y)]) {
            cand.emplace_back(std::sqrt(d2), y);
        }
    });
    // The new marker's own list: its nearest markers, with their triangles filed once.
    const std::size_t k = nearestFirst(cand);
    const std::size_t base = static_cast<std::size_t>(id) * kNeighbours;
    for (std::size_t j = 0; j < k; ++j) {
        nbrId_[base + j] = cand[j].second;
        nbrDist_[base + j] = static_cast<float>(cand[j].first);
    }
    nbrCount_[static_cast<std::size_t>(id)] = static_cast<unsigned char>(k);
    for (std::size_t a = 0; a < k; ++a) {
        for (std::size_t b = a + 1; b < k; ++b) {
            fileTriangle(id, nbrId_[base + a], nbrId_[base + b]);
        }
    }
    // Then the markers that now have it among their nearest.
    for (const auto& c : cand) {
        offerNeighbour(c.second, id, c.first);
    }
    linked[static_cast<std::size_t>(id)] = 1;
    coarse_.insert(id, p);
}

void MarkerLibrary::linkAll() {
    // Batch path: every unlinked marker goes into the coarse grid first, then each takes
    // its nearest neighbours once, and each anchor files its triangles once.
    std::vector<int> fresh;
    for (int i = 0; i < slots(); ++i) {
        if (!linked[static_cast<std::size_t>(i)] && alive[static_cast<std::size_t>(i)]) {
            fresh.push_back(i);
        }
    }
    if (fresh.empty())
        return;
    bool wasEmpty = true;
    for (unsigned char l : linked) {
        if (l) {
            wasEmpty = false;
            break;
        }
    }
    if (!wasEmpty) {
        for (int i : fresh)
            link(i);
        return;
    }
    for (int i : fresh) {
        coarse_.insert(i, pos[static_cast<std::size_t>(i)]);
        linked[static_cast<std::size_t>(i)] = 1;
    }
    reserveTriangles(fresh.size() * (kNeighbours * (kNeighbours - 1) / 2));
    const double r2 = linkRadius_ * linkRadius_;
    const double min2 = minSide_ * minSide_;
    // A dense grid with cells of the linking radius over the batch's box, filled by counting
    // sort, finds every marker's candidates with array lookups over contiguous memory. (Only
    // when a huge, sparse box forces larger cells does the hash grid serve as well.)
    Eigen::Vector3d lo = pos[static_cast<std::size_t>(fresh[0])], hi = lo;
    for (int i : fresh) {
        lo = lo.cwiseMin(pos[static_cast<std::size_t>(i)]);
        hi = hi.cwiseMax(pos[static_cast<std::size_t>(i)]);
    }
    double cell = linkRadius_;
    const double cellBudget = 8.0 * static_cast<double>(fresh.size()) + 4096.0;
    for (;;) {
        const Eigen::Vector3d dims = ((hi - lo) / cell).array().floor() + 1.0;
        if (dims.prod() <= cellBudget)
            break;
        cell *= 1.5;
    }
    const double near2 = std::min(cell * cell, r2);
    const int nx = static_cast<int>((hi.x() - lo.x()) / cell) + 1;
    const int ny = static_cast<int>((hi.y() - lo.y()) / cell) + 1;
    const int nz = static_cast<int>((hi.z() - lo.z()) / cell) + 1;
    auto cellOf = [&](const Eigen::Vector3d& p, int& cx, int& cy, int& cz) {
        cx = std::min(nx - 1, static_cast<int>((p.x() - lo.x()) / cell));
        cy = std::min(ny - 1, static_cast<int>((p.y() - lo.y()) / cell));
        cz = std::min(nz - 1, static_cast<int>((p.z() - lo.z()) / cell));
    };
    const std::size_t cells =
        static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny) * static_cast<std::size_t>(nz);
    std::vector<int> start(cells + 1, 0);
    std::vector<int> cellIdx(fresh.size());
    for (std::size_t u = 0; u < fresh.size(); ++u) {
        int cx, cy, cz;
        cellOf(pos[static_cast<std::size_t>(fresh[u])], cx, cy, cz);
        cellIdx[u] = (cz * ny + cy) * nx + cx;
        ++start[static_cast<std::size_t>(cellIdx[u]) + 1];
    }
    for (std::size_t c = 0; c < cells; ++c)
        start[c + 1] += start[c];
    std::vector<int> sortedId(fresh.size());
    std::vector<Eigen::Vector3d> sortedPos(fresh.size());
    {
        std::vector<int> fill(start.begin(), start.end() - 1);
        for (std::size_t u = 0; u < fresh.size(); ++u) {
            const auto at = static_cast<std::size_t>(fill[static_cast<std::size_t>(cellIdx[u])]++);
            sortedId[at] = fresh[u];
            sortedPos[at] = pos[static_cast<std::size_t>(fresh[u])];
        }
    }
    std::vector<std::pair<double, int>> cand;
    for (int i : fresh) {
        const Eigen::Vector3d p = pos[static_cast<std::size_t>(i)];
        cand.clear();
        int cx, cy, cz;
        cellOf(p, cx, cy, cz);
        for (int z = std::max(0, cz - 1); z <= std::min(nz - 1, cz + 1); ++z) {
            for (int y = std::max(0, cy - 1); y <= std::min(ny - 1, cy + 1); ++y) {
                const int row = (z * ny + y) * nx;
                const int c0 = row + std::max(0, cx - 1);
                const int c1 = row + std::min(nx - 1, cx + 1);
                for (int e = start[static_cast<std::size_t>(c0)];
                     e < start[static_cast<std::size_t>(c1) + 1]; ++e) {
                    const double d2 = (sortedPos[static_cast<std::size_t>(e)] - p).squaredNorm();
                    if (d2 <= near2 && d2 >= min2 && sortedId[static_cast<std::size_t>(e)] != i) {
                        cand.emplace_back(d2, sortedId[static_cast<std::size_t>(e)]);
                    }
                }
            }
        }
        if (cand.size() < kNeighbours && near2 < r2) {
            cand.clear();
            coarse_.forEachNear(p, linkRadius_, [&](int y) {
                if (y == i)
                    return;
                const double d2 = (pos[static_cast<std::size_t>(y)] - p).squaredNorm();
                if (d2 <= r2 && d2 >= min2)
                    cand.emplace_back(d2, y);
            });
        }
        const std::size_t k = nearestFirst(cand);
        const std::size_t base = static_cast<std::size_t>(i) * kNeighbours;
        for (std::size_t j = 0; j < k; ++j) {
            nbrId_[base + j] = cand[j].second;
            nbrDist_[base + j] = static_cast<float>(std::sqrt(cand[j].first));
        }
        nbrCount_[static_cast<std::size_t>(i)] = static_cast<unsigned char>(k);
        for (std::size_t a = 0; a < k; ++a) {
            for (std::size_t b = a + 1; b < k; ++b) {
                fileTriangle(i, nbrId_[base + a], nbrId_[base + b]);
            }
        }
    }
}

void MarkerLibrary::relinkAll() {
    coarse_.reset(linkRadius_);
    std::fill(nbrId_.begin(), nbrId_.end(), -1);
    std::fill(nbrCount_.begin(), nbrCount_.end(), static_cast<unsigned char>(0));
    std::fill(linked.begin(), linked.end(), static_cast<unsigned char>(0));
    tris_.clear();
    std::fill(triKeys_.begin(), triKeys_.end(), kEmpty);
    std::fill(triHeads_.begin(), triHeads_.end(), -1);
    triUsed_ = 0;
    linkAll();
}

void MarkerLibrary::movePoint(int id, const Eigen::Vector3d& p) {
    const auto u = static_cast<std::size_t>(id);
    fine_.move(id, pos[u], p);
    if (linked[u]) {
        coarse_.move(id, pos[u], p);
    }
    pos[u] = p;
}

void MarkerLibrary::retire(int id) {
    const auto u = static_cast<std::size_t>(id);
    if (id < 0 || id >= slots() || !alive[u])
        return;
    fine_.remove(id, pos[u]);
    if (linked[u])
        coarse_.remove(id, pos[u]);
    alive[u] = 0;
    --live_;
}

void MarkerLibrary::fileTriangle(int a, int b, int c) {
    const Eigen::Vector3d& pa = pos[static_cast<std::size_t>(a)];
    const Eigen::Vector3d& pb = pos[static_cast<std::size_t>(b)];
    const Eigen::Vector3d& pc = pos[static_cast<std::size_t>(c)];
    double dab = (pb - pa).norm();
    double dac = (pc - pa).norm();
    const double dbc = (pc - pb).norm();
    if (dab < minSide_ || dac < minSide_ || dbc < minSide_)
        return;
    if (triangleShape(pa, pb, pc) < kMinShape)
        return;
    if (dab > dac) {
        std::swap(b, c);
        std::swap(dab, dac);
    }
    const std::size_t s = triFindOrAdd(triKey(qlo(dab), qlo(dac), qlo(dbc)));
    tris_.push_back(Tri{a, b, c, triHeads_[s]});
    triHeads_[s] = static_cast<int>(tris_.size() - 1);
}

std::size_t MarkerLibrary::triFind(std::uint64_t key) const {
    const std::size_t mask = triKeys_.size() - 1;
    std::uint64_t h = key * 0x9E3779B97F4A7C15ULL;
    h ^= h >> 29;
    for (std::size_t s = static_cast<std::size_t>(h) & mask;; s = (s + 1) & mask) {
        if (triKeys_[s] == key)
            return s;
        if (triKeys_[s] == kEmpty)
            return kNone;
    }
}

std::size_t MarkerLibrary::triFindOrAdd(std::uint64_t key) {
    if ((triUsed_ + 1) * 2 > triKeys_.size())
        triGrow();
    const std::size_t mask = triKeys_.size() - 1;
    std::uint64_t h = key * 0x9E3779B97F4A7C15ULL;
    h ^= h >> 29;
    for (std::size_t s = static_cast<std::size_t>(h) & mask;; s = (s + 1) & mask) {
        if (triKeys_[s] == key)
            return s;
        if (triKeys_[s] == kEmpty) {
            triKeys_[s] = key;
            triHeads_[s] = -1;
            ++triUsed_;
            return s;
        }
    }
}

void MarkerLibrary::triGrow() {
    std::vector<std::uint64_t> oldKeys(triKeys_.size() * 2, kEmpty);
    std::vector<int> oldHeads(triKeys_.size() * 2, -1);
    oldKeys.swap(triKeys_);
    oldHeads.swap(triHeads_);
    const std::size_t mask = triKeys_.size() - 1;
    for (std::size_t i = 0; i < oldKeys.size(); ++i) {
        if (oldKeys[i] == kEmpty)
            continue;
        std::uint64_t h = oldKeys[i] * 0x9E3779B97F4A7C15ULL;
        h ^= h >> 29;
        std::size_t s = static_cast<std::size_t>(h) & mask;
        while (triKeys_[s] != kEmpty)
            s = (s + 1) & mask;
        triKeys_[s] = oldKeys[i];
        triHeads_[s] = oldHeads[i];
    }
}

std::size_t MarkerLibrary::memoryBytes() const {
    std::size_t b = 0;
    b += pos.capacity() * sizeof(Eigen::Vector3d) + nrm.capacity() * sizeof(Eigen::Vector3d);
    b += value.capacity() * sizeof(double) + label.capacity() * sizeof(int) +
         weight.capacity() * sizeof(int);
    b += hasNormal.capacity() + alive.capacity() + linked.capacity();
    b += fine_.memoryBytes() + coarse_.memoryBytes();
    b += nbrId_.capacity() * sizeof(int) + nbrDist_.capacity() * sizeof(float) +
         nbrCount_.capacity();
    b += tris_.capacity() * sizeof(Tri) + triKeys_.capacity() * sizeof(std::uint64_t) +
         triHeads_.capacity() * sizeof(int);
    return b;
}

}  // namespace Quill::detail
