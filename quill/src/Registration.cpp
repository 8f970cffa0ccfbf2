#include "Registration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

#include "Geometry.h"

namespace Quill::detail {

namespace {

// A library this self-similar cannot give a unique answer; stop collecting rivals.
constexpr std::size_t kMaxHypotheses = 4000;
// Base triangles inside the best hypothesis' inliers needed before the search stops.
constexpr int kConfirmations = 2;
// Lookup margin for library markers that moved a little since their triangles were filed.
constexpr double kDriftMargin = 0.25;
// Smallest shape ratio of a base triangle (a little above the library's, to skip lookups
// that could only find filtered triangles).
constexpr double kMinBaseShape = 0.12;

struct Hyp {
    Eigen::Matrix3d R;
    Eigen::Vector3d t;
    std::vector<int> match;
    int k = 0;
    double sse = 0.0;
    double cost = 0.0;
};

// Side-length tolerance of the screening: a three-marker fit whose mean squared residual is
// at most e has every side-length difference below sqrt(6 e), so looser lookups could only
// find triangles the fit test rejects.
double sideTolerance(const MatchSettings& s) {
    double tol = s.max_mark2mark_dis > 0.0f ? s.max_mark2mark_dis : 1.0;
    if (s.max_err_for_three_mark > 0.0f)
        tol = std::min(tol, std::sqrt(6.0 * s.max_err_for_three_mark));
    return tol;
}

// The search over either kind of library (MarkerLibrary or a ReferenceIndex's view).
template <class Library>
class Searcher {
public:
    Searcher(const MovingSet& mv, const Library& lib, const MatchSettings& s,
             const RegistrationOptions& opt, const MovingNeighbours* nb)
        : mv_(mv), lib_(lib), s_(s), opt_(opt), n_(static_cast<int>(mv.p.size())) {
        if (nb != nullptr && nb->exact && nb->count == n_)
            nb_ = nb;
        tau_ = s.max_inline_mark_dis > 0.0f ? s.max_inline_mark_dis : 0.5;
        tau2_ = tau_ * tau_;
        tol_ = sideTolerance(s);
        useNor_ = s.use_nor != 0;
    }

    RegistrationResult run();

private:
    bool acceptInlier(int i, int id, const Eigen::Matrix3d& R) const {
        const auto u = static_cast<std::size_t>(id);
        if (!lib_.alive[u] || (!opt_.matchUnlinked && !lib_.linked[u]))
            return false;
        if (useNor_ && mv_.hasN[static_cast<std::size_t>(i)] && lib_.hasNormal[u]) {
            return (R * mv_.n[static_cast<std::size_t>(i)]).dot(lib_.nrm[u]) >= s_.max_nor_cos;
        }
        return true;
    }
    // |p_j - p_i| of two moving markers.
    double movingDist(int i, int j) const {
        if (nb_ != nullptr)
            return nb_->distance(i, j);
        return (mv_.p[static_cast<std::size_t>(j)] - mv_.p[static_cast<std::size_t>(i)]).norm();
    }
    void evaluate(const Eigen::Matrix3d& R, const Eigen::Vector3d& t, Hyp& h);
    bool refine(Hyp& h);
    void tryBase(int i, int j, int k);
    void consider(int i, int j, int k, int a, int b, int c);
    void addHypothesis(Hyp&& h);
    int bestIndex() const;
    bool inBest(int i, int j, int k, int best) const {
        const auto& m = hyps_[static_cast<std::size_t>(best)].match;
        return m[static_cast<std::size_t>(i)] >= 0 && m[static_cast<std::size_t>(j)] >= 0 &&
               m[static_cast<std::size_t>(k)] >= 0;
    }

    const MovingSet& mv_;
    const Library& lib_;
    const MatchSettings& s_;
    const RegistrationOptions& opt_;
    const MovingNeighbours* nb_ = nullptr;  // the moving set's distances, when computed
    const int n_;
    double tau_ = 0.5, tau2_ = 0.25, tol_ = 1.0;
    bool useNor_ = true;
    std::vector<Hyp> hyps_;
    std::vector<std::pair<int, int>> scratch_;  // (library id, moving index)
    std::vector<double> scratchD2_;
};

template <class Library>
void Searcher<Library>::evaluate(const Eigen::Matrix3d& R, const Eigen::Vector3d& t, Hyp& h) {
    h.R = R;
    h.t = t;
    h.match.assign(static_cast<std::size_t>(n_), -1);
    scratch_.clear();
    scratchD2_.assign(static_cast<std::size_t>(n_), 0.0);
    for (int i = 0; i < n_; ++i) {
        const Eigen::Vector3d q = R * mv_.p[static_cast<std::size_t>(i)] + t;
        double d2 = 0.0;
        const int id = lib_.nearest(
            q, tau_, [&](int c) { return acceptInlier(i, c, R); }, &d2);
        if (id >= 0) {
            scratch_.emplace_back(id, i);
            scratchD2_[static_cast<std::size_t>(i)] = d2;
        }
    }
    // One library marker explains at most one moving marker: the nearer one keeps it.
    std::sort(scratch_.begin(), scratch_.end());
    h.k = 0;
    h.sse = 0.0;
    for (std::size_t a = 0; a < scratch_.size();) {
        std::size_t b = a;
        int keep = scratch_[a].second;
        while (b < scratch_.size() && scratch_[b].first == scratch_[a].first) {
            const int i = scratch_[b].second;
            if (scratchD2_[static_cast<std::size_t>(i)] <
                scratchD2_[static_cast<std::size_t>(keep)]) {
                keep = i;
            }
            ++b;
        }
        h.match[static_cast<std::size_t>(keep)] = scratch_[a].first;
        h.sse += scratchD2_[static_cast<std::size_t>(keep)];
        ++h.k;
        a = b;
    }
    h.cost = (h.sse + static_cast<double>(n_ - h.k) * tau2_) / static_cast<double>(n_);
}

template <class Library>
bool Searcher<Library>::refine(Hyp& h) {
    for (int iter = 0; iter < 6; ++iter) {
        RigidAccumulator acc;
        for (int i = 0; i < n_; ++i) {
            const int id = h.match[static_cast<std::size_t>(i)];
            if (id >= 0) {
                acc.add(mv_.p[static_cast<std::size_t>(i)], lib_.pos[static_cast<std::size_t>(id)]);
            }
        }
        Eigen::Matrix3d R;
        Eigen::Vector3d t;
        if (!acc.solve(R, t)) {
            return h.k >= 3;  // keep the triangle's own fit when the inliers are collinear
        }
        Hyp next;
        evaluate(R, t, next);
        const bool same = next.match == h.match;
        if (next.k < 3) {
            return h.k >= 3;
        }
        h = std::move(next);
        if (same) {
            break;
        }
    }
    return true;
}

template <class Library>
void Searcher<Library>::addHypothesis(Hyp&& h) {
    for (auto& o : hyps_) {
        int agree = 0;
        int disagree = 0;
        for (int i = 0; i < n_; ++i) {
            const int a = h.match[static_cast<std::size_t>(i)];
            const int b = o.match[static_cast<std::size_t>(i)];
            if (a >= 0 && b >= 0) {
                if (a == b) {
                    ++agree;
                } else {
                    ++disagree;
                }
            }
        }
        if (agree >= 3 && disagree == 0) {
            if (h.cost < o.cost) {
                o = std::move(h);
            }
            return;
        }
    }
    if (hyps_.size() < kMaxHypotheses) {
        hyps_.push_back(std::move(h));
    }
}

template <class Library>
void Searcher<Library>::consider(int i, int j, int k, int a, int b, int c) {
    const auto ua = static_cast<std::size_t>(a), ub = static_cast<std::size_t>(b),
               uc = static_cast<std::size_t>(c);
    if (!lib_.alive[ua] || !lib_.alive[ub] || !lib_.alive[uc])
        return;
    const Eigen::Vector3d& pi = mv_.p[static_cast<std::size_t>(i)];
    const Eigen::Vector3d& pj = mv_.p[static_cast<std::size_t>(j)];
    const Eigen::Vector3d& pk = mv_.p[static_cast<std::size_t>(k)];
    const Eigen::Vector3d& qa = lib_.pos[ua];
    const Eigen::Vector3d& qb = lib_.pos[ub];
    const Eigen::Vector3d& qc = lib_.pos[uc];
    if (std::abs(movingDist(i, j) - (qb - qa).norm()) > tol_ ||
        std::abs(movingDist(i, k) - (qc - qa).norm()) > tol_ ||
        std::abs(movingDist(j, k) - (qc - qb).norm()) > tol_) {
        return;
    }
    // Rigid-invariant normal tests: the cosine between two markers' normals, and between a
    // normal and the direction to the other marker, survive any rigid motion.
    if (useNor_) {
        const int mi[3] = {i, j, k};
        const int li[3] = {a, b, c};
        for (int u = 0; u < 3; ++u) {
            const auto mu = static_cast<std::size_t>(mi[u]);
            const auto lu = static_cast<std::size_t>(li[u]);
            if (!mv_.hasN[mu] || !lib_.hasNormal[lu])
                continue;
            for (int v = 0; v < 3; ++v) {
                if (v == u)
                    continue;
                const auto mv = static_cast<std::size_t>(mi[v]);
                const auto lv = static_cast<std::size_t>(li[v]);
                const Eigen::Vector3d dm = (mv_.p[mv] - mv_.p[mu]).normalized();
                const Eigen::Vector3d dl = (lib_.pos[lv] - lib_.pos[lu]).normalized();
                if (std::abs(mv_.n[mu].dot(dm) - lib_.nrm[lu].dot(dl)) > s_.diff_nor_cos)
                    return;
                if (v > u && mv_.hasN[mv] && lib_.hasNormal[lv] &&
                    std::abs(mv_.n[mu].dot(mv_.n[mv]) - lib_.nrm[lu].dot(lib_.nrm[lv])) >
                        s_.diff_nor_cos) {
                    return;
                }
            }
        }
    }
    // Already explained by a known hypothesis?
    for (const auto& h : hyps_) {
        if (h.match[static_cast<std::size_t>(i)] == a &&
            h.match[static_cast<std::size_t>(j)] == b &&
            h.match[static_cast<std::size_t>(k)] == c) {
            return;
        }
    }
    const Eigen::Vector3d src[3] = {pi, pj, pk};
    const Eigen::Vector3d dst[3] = {qa, qb, qc};
    Eigen::Matrix3d R;
    Eigen::Vector3d t;
    if (!fitThree(src, dst, R, t))
        return;
    double sse = 0.0;
    for (int u = 0; u < 3; ++u)
        sse += (R * src[u] + t - dst[u]).squaredNorm();
    if (s_.max_err_for_three_mark > 0.0f && sse / 3.0 > s_.max_err_for_three_mark)
        return;
    if (useNor_) {
        const int mi[3] = {i, j, k};
        const int li[3] = {a, b, c};
        for (int u = 0; u < 3; ++u) {
            const auto mu = static_cast<std::size_t>(mi[u]);
            const auto lu = static_cast<std::size_t>(li[u]);
            if (mv_.hasN[mu] && lib_.hasNormal[lu] &&
                (R * mv_.n[mu]).dot(lib_.nrm[lu]) < s_.max_nor_cos) {
                return;
            }
        }
    }
    Hyp h;
    evaluate(R, t, h);
    if (h.k < 3 || !refine(h))
        return;
    addHypothesis(std::move(h));
}

template <class Library>
void Searcher<Library>::tryBase(int i, int j, int k) {
    const double d1 = movingDist(i, j);
    const double d2 = movingDist(i, k);
    const double d3 = movingDist(j, k);
    const double look = tol_ + kDriftMargin;
    // The library files a triangle with its nearer marker first; near ties may be filed
    // either way round.
    if (d1 <= d2 + 2.0 * look) {
        lib_.forEachTriangle(d1, d2, d3, look,
                             [&](int a, int b, int c) { consider(i, j, k, a, b, c); });
    }
    if (d2 <= d1 + 2.0 * look) {
        lib_.forEachTriangle(d2, d1, d3, look,
                             [&](int a, int b, int c) { consider(i, k, j, a, b, c); });
    }
}

template <class Library>
int Searcher<Library>::bestIndex() const {
    int best = -1;
    for (std::size_t h = 0; h < hyps_.size(); ++h) {
        if (best < 0 || hyps_[h].cost < hyps_[static_cast<std::size_t>(best)].cost) {
            best = static_cast<int>(h);
        }
    }
    return best;
}

template <class Library>
RegistrationResult Searcher<Library>::run() {
    RegistrationResult res;
    res.match.assign(static_cast<std::size_t>(n_), -1);
    const int minN = std::max(3, s_.min_final_match_n);
    if (n_ < minN || lib_.live() < minN) {
        res.status = kMatchTooFewMarkers;
        return res;
    }

    // Base triangles: anchor, then pairs of its nearest moving markers.
    const double minSide = std::max(lib_.minSide(), static_cast<double>(s_.max_near_same_mark_dis));
    const double maxSide = lib_.linkRadius();
    // Nearest moving markers of an anchor, computed when the anchor is first used.
    std::vector<std::vector<int>> near(static_cast<std::size_t>(n_));
    std::vector<unsigned char> nearDone(static_cast<std::size_t>(n_), 0);
    std::vector<std::pair<double, int>> cand;
    const bool shared = nb_ != nullptr && nb_->minSide == minSide;
    auto nearOf = [&](int i) -> const std::vector<int>& {
        auto& nb = near[static_cast<std::size_t>(i)];
        if (nearDone[static_cast<std::size_t>(i)])
            return nb;
        nearDone[static_cast<std::size_t>(i)] = 1;
        if (shared) {
            // The nearest at least minSide away, by (distance, index): those within maxSide
            // are the same as a selection among the candidates within maxSide.
            const auto& id = nb_->nearId[static_cast<std::size_t>(i)];
            const auto& nd = nb_->nearDist[static_cast<std::size_t>(i)];
            for (int u = 0; u < kAnchorNeighbours; ++u) {
                if (id[static_cast<std::size_t>(u)] < 0 ||
                    !(nd[static_cast<std::size_t>(u)] <= maxSide))
                    break;
                nb.push_back(id[static_cast<std::size_t>(u)]);
            }
            return nb;
        }
        cand.clear();
        for (int j = 0; j < n_; ++j) {
            if (j == i)
                continue;
            const double d =
                (mv_.p[static_cast<std::size_t>(j)] - mv_.p[static_cast<std::size_t>(i)]).norm();
            if (d >= minSide && d <= maxSide)
                cand.emplace_back(d, j);
        }
        const std::size_t kk = std::min<std::size_t>(cand.size(), kAnchorNeighbours);
        std::partial_sort(cand.begin(), cand.begin() + static_cast<std::ptrdiff_t>(kk), cand.end());
        for (std::size_t u = 0; u < kk; ++u)
            nb.push_back(cand[u].second);
        return nb;
    };
    std::vector<int> anchors(static_cast<std::size_t>(n_));
    std::iota(anchors.begin(), anchors.end(), 0);
    std::uint64_t state = opt_.seed * 0x9E3779B97F4A7C15ULL + 0x2545F4914F6CDD1DULL;
    for (int i = n_ - 1; i > 0; --i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        const auto r = static_cast<int>(state % static_cast<std::uint64_t>(i + 1));
        std::swap(anchors[static_cast<std::size_t>(i)], anchors[static_cast<std::size_t>(r)]);
    }
    static const int kPairs[][2] = {{0, 1}, {0, 2}, {1, 2}, {0, 3}, {1, 3},
                                    {2, 3}, {0, 4}, {1, 4}, {2, 4}, {3, 4}};
    const int maxTries = opt_.maxTries > 0 ? opt_.maxTries : 200;

    std::vector<std::array<int, 3>> done;
    bool stop = false;
    for (const auto& pr : kPairs) {
        for (int i : anchors) {
            if (res.tries >= maxTries) {
                stop = true;
                break;
            }
            const auto& nb = nearOf(i);
            if (static_cast<int>(nb.size()) <= pr[1])
                continue;
            const int j = nb[static_cast<std::size_t>(pr[0])];
            const int k = nb[static_cast<std::size_t>(pr[1])];
            if (triangleShape(mv_.p[static_cast<std::size_t>(i)],
                              mv_.p[static_cast<std::size_t>(j)],
                              mv_.p[static_cast<std::size_t>(k)]) < kMinBaseShape) {
                continue;
            }
            ++res.tries;
            tryBase(i, j, k);
            done.push_back({i, j, k});
            const int best = bestIndex();
            if (hyps_.size() >= kMaxHypotheses) {
                stop = true;
                break;
            }
            if (best < 0 || hyps_[static_cast<std::size_t>(best)].k < minN)
                continue;
            int confirmations = 0;
            for (const auto& d : done) {
                if (inBest(d[0], d[1], d[2], best))
                    ++confirmations;
            }
            if (confirmations >= kConfirmations) {
                stop = true;
                break;
            }
        }
        if (stop)
            break;
    }
    res.hypotheses = static_cast<int>(hyps_.size());
    const int best = bestIndex();
    if (best < 0) {
        res.status = kMatchNoHypothesis;
        return res;
    }
    const Hyp& h = hyps_[static_cast<std::size_t>(best)];
    res.R = h.R;
    res.t = h.t;
    res.cost = h.cost;
    res.rms = h.k > 0 ? std::sqrt(h.sse / h.k) : 0.0;
    if (h.k < minN || static_cast<double>(h.k) < static_cast<double>(s_.su_point_percentage) * n_) {
        res.status = kMatchNoHypothesis;
        return res;
    }
    if (hyps_.size() >= kMaxHypotheses) {
        res.status = kMatchAmbiguous;
        return res;
    }
    // The matched markers must span more than a line, or the rotation about it is free.
    std::vector<Eigen::Vector3d> in;
    for (int i = 0; i < n_; ++i) {
        if (h.match[static_cast<std::size_t>(i)] >= 0)
            in.push_back(mv_.p[static_cast<std::size_t>(i)]);
    }
    if (secondSpread(in.data(), static_cast<int>(in.size())) < 2.0 * tau_) {
        res.status = kMatchAmbiguous;
        return res;
    }
    for (std::size_t o = 0; o < hyps_.size(); ++o) {
        if (static_cast<int>(o) != best && hyps_[o].cost - h.cost < s_.max_second_final_err) {
            res.status = kMatchAmbiguous;
            return res;
        }
    }
    if (s_.max_final_err > 0.0f && res.rms > s_.max_final_err) {
        res.status = kMatchErrorTooLarge;
        return res;
    }
    res.status = kMatchOk;
    res.match = h.match;
    res.matched = h.k;
    return res;
}

}  // namespace

bool readNormal(float x, float y, float z, Eigen::Vector3d& n) {
    n = Eigen::Vector3d(x, y, z);
    const double len = n.norm();
    if (!std::isfinite(len) || len < 0.5) {
        n.setZero();
        return false;
    }
    n /= len;
    return true;
}

bool prepareMoving(const mark_data* marks, int count, double sameDist, MovingSet& out) {
    out = MovingSet();
    if (count < 0 || count > kMaxMarkers || (count > 0 && marks == nullptr)) {
        return false;
    }
    out.callerCount = count;
    const double same2 = sameDist * sameDist;
    const auto reserve = static_cast<std::size_t>(std::min(count, 4096));
    out.p.reserve(reserve);
    out.n.reserve(reserve);
    out.hasN.reserve(reserve);
    out.src.reserve(reserve);
    // A frame's few dozen markers are compared directly; larger sets go through a grid
    // with cells twice the search radius (a query meets at most two cells per axis).
    const bool useGrid = sameDist > 0.0 && count > 64;
    HashGrid grid(useGrid ? 2.0 * sameDist : 1.0);
    if (useGrid)
        grid.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const mark_data& m = marks[i];
        const Eigen::Vector3d p(m.x, m.y, m.z);
        if (!p.allFinite())
            continue;
        bool dup = false;
        if (useGrid) {
            grid.forEachNear(p, sameDist, [&](int k) {
                if ((out.p[static_cast<std::size_t>(k)] - p).squaredNorm() < same2)
                    dup = true;
            });
        } else if (sameDist > 0.0) {
            for (const auto& q : out.p) {
                if ((q - p).squaredNorm() < same2) {
                    dup = true;
                    break;
                }
            }
        }
        if (dup)
            continue;
        Eigen::Vector3d n;
        const bool hasN = readNormal(m.nx, m.ny, m.nz, n);
        if (useGrid)
            grid.insert(static_cast<int>(out.p.size()), p);
        out.p.push_back(p);
        out.n.push_back(n);
        out.hasN.push_back(hasN ? 1 : 0);
        out.src.push_back(i);
    }
    return true;
}

double lookupTolerance(const MatchSettings& s) {
    return sideTolerance(s) + kDriftMargin;
}

RegistrationResult registerMoving(const MovingSet& mv, const MarkerLibrary& lib,
                                  const MatchSettings& s, const RegistrationOptions& opt) {
    Searcher<MarkerLibrary> searcher(mv, lib, s, opt, nullptr);
    return searcher.run();
}

RegistrationResult registerMoving(const MovingSet& mv, const ReferenceIndex& lib,
                                  const MatchSettings& s, const RegistrationOptions& opt,
                                  const MovingNeighbours* nb) {
    return registerMoving(mv, ReferenceView(lib), s, opt, nb);
}

RegistrationResult registerMoving(const MovingSet& mv, const ReferenceView& lib,
                                  const MatchSettings& s, const RegistrationOptions& opt,
                                  const MovingNeighbours* nb) {
    Searcher<ReferenceView> searcher(mv, lib, s, opt, nb);
    return searcher.run();
}

}  // namespace Quill::detail
