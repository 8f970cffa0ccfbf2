#include "quill/MyMatchMarkClass_update.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>

#include "MatcherState.h"
#include "Registration.h"

namespace Quill {

using detail::MarkerLibrary;
using detail::MatcherState;
using detail::MovingSet;

namespace detail {

void MatcherState::storeResult(const RegistrationResult& r, const MovingSet& mv,
                               const std::vector<int>* toCaller) {
    status = r.status;
    flags.assign(static_cast<std::size_t>(mv.callerCount), -1);
    if (r.status != kMatchOk) {
        transform.setIdentity();
        matchN = 0;
        err = 0.0f;
        return;
    }
    transform.setIdentity();
    transform.topLeftCorner<3, 3>() = r.R;
    transform.topRightCorner<3, 1>() = r.t;
    matchN = r.matched;
    err = static_cast<float>(r.rms);
    for (std::size_t i = 0; i < r.match.size(); ++i) {
        const int id = r.match[i];
        if (id >= 0) {
            flags[static_cast<std::size_t>(mv.src[i])] =
                toCaller != nullptr ? (*toCaller)[static_cast<std::size_t>(id)] : id;
        }
    }
}

}  // namespace detail

MyMatchMarkClass_update::MyMatchMarkClass_update() : d_(new MatcherState()) {}
MyMatchMarkClass_update::~MyMatchMarkClass_update() = default;

void MyMatchMarkClass_update::set_use_nor(int on) {
    d_->settings.use_nor = on != 0 ? 1 : 0;
}
void MyMatchMarkClass_update::set_diff_nor_cos(float v) {
    d_->settings.diff_nor_cos = v;
}
void MyMatchMarkClass_update::set_max_final_err(float v) {
    d_->settings.max_final_err = v;
}
void MyMatchMarkClass_update::set_max_inline_mark_dis(float v) {
    d_->settings.max_inline_mark_dis = v;
}
void MyMatchMarkClass_update::set_max_mark2mark_dis(float v) {
    d_->settings.max_mark2mark_dis = v;
}
void MyMatchMarkClass_update::set_max_nor_cos(float v) {
    d_->settings.max_nor_cos = v;
}
void MyMatchMarkClass_update::set_min_final_match_n(int v) {
    d_->settings.min_final_match_n = v;
}
void MyMatchMarkClass_update::set_max_near_same_mark_dis(float v) {
    d_->settings.max_near_same_mark_dis = v;
}
void MyMatchMarkClass_update::set_max_err_for_three_mark(float v) {
    d_->settings.max_err_for_three_mark = v;
}
void MyMatchMarkClass_update::set_max_second_final_err(float v) {
    d_->settings.max_second_final_err = v;
}
void MyMatchMarkClass_update::set_su_point_percentage(float v) {
    d_->settings.su_point_percentage = v;
}
const MatchSettings& MyMatchMarkClass_update::get_settings() const {
    return d_->settings;
}

namespace detail {

struct IndexedMarkSetState {
    bool valid = false;
    std::vector<mark_data> marks;
    double sameDist = 0.0;
    ReferenceIndex index;
};

}  // namespace detail

IndexedMarkSet::IndexedMarkSet() = default;
IndexedMarkSet::~IndexedMarkSet() = default;

bool IndexedMarkSet::build(const mark_data* fixed, int m, float sameTargetDistance) {
    try {
        d_ = std::make_unique<detail::IndexedMarkSetState>();
        detail::IndexedMarkSetState& st = *d_;
        st.sameDist = std::max(0.0f, sameTargetDistance);
        if (!st.index.buildShared(fixed, m, st.sameDist))
            return false;
        st.marks.assign(fixed, fixed + m);
        st.valid = true;
        return true;
    } catch (...) {
        d_.reset();
        return false;
    }
}

int IndexedMarkSet::size() const {
    return d_ ? static_cast<int>(d_->marks.size()) : 0;
}

int MyMatchMarkClass_update::MarkRegistration(mark_data* moving, int n, mark_data* fixed, int m,
                                              int maxTries, int seed) {
    return registerAgainst(moving, n, fixed, m, nullptr, maxTries, seed);
}

int MyMatchMarkClass_update::MarkRegistration(mark_data* moving, int n, const IndexedMarkSet& fixed,
                                              int maxTries, int seed) {
    const detail::IndexedMarkSetState* st = fixed.d_.get();
    if (st == nullptr || !st->valid) {
        d_->clearResult();
        d_->status = kMatchBadInput;
        return -1;
    }
    return registerAgainst(moving, n, st->marks.data(), static_cast<int>(st->marks.size()), st,
                           maxTries, seed);
}

int MyMatchMarkClass_update::registerAgainst(mark_data* moving, int n, const mark_data* fixed,
                                             int m, const detail::IndexedMarkSetState* indexed,
                                             int maxTries, int seed) {
    MatcherState& st = *d_;
    st.clearResult();
    try {
        MovingSet mv;
        const double same = std::max(0.0f, st.settings.max_near_same_mark_dis);
        if (!detail::prepareMoving(moving, n, same, mv) || m < 0 || m > detail::kMaxMarkers ||
            (m > 0 && fixed == nullptr)) {
            st.status = kMatchBadInput;
            return -1;
        }
        st.flags.assign(static_cast<std::size_t>(n), -1);
        const int minN = std::max(3, st.settings.min_final_match_n);
        if (static_cast<int>(mv.p.size()) < minN) {
            st.status = kMatchTooFewMarkers;
            return 0;
        }
        detail::RegistrationOptions opt;
        opt.maxTries = maxTries;
        opt.seed = static_cast<std::uint64_t>(static_cast<std::uint32_t>(seed));
        const double look = detail::lookupTolerance(st.settings);
        // A set indexed beforehand for this same-target distance is cut for this moving set;
        // otherwise (or when this moving set reaches farther than its lists) the fixed set
        // gets its own index, built for this call and only as far as this moving set's
        // lookups reach.
        // The moving set's pair distances serve both the index and the search.
        detail::MovingNeighbours nb;
        nb.compute(mv.p, same);
        double linkRadius = 0.0;
        std::vector<unsigned char> counts;
        if (indexed != nullptr && indexed->sameDist == same &&
            indexed->index.cutFor(nb, look, linkRadius, counts)) {
            const detail::ReferenceIndex& lib = indexed->index;
            if (lib.live() < minN) {
                st.status = kMatchTooFewMarkers;
                return 0;
            }
            const detail::RegistrationResult r = detail::registerMoving(
                mv, detail::ReferenceView(lib, linkRadius, counts), st.settings, opt, &nb);
            st.storeResult(r, mv, &lib.source());
            return r.status == kMatchOk ? 1 : 0;
        }
        detail::ReferenceIndex lib;
        lib.build(fixed, m, same, nb, look);
        if (lib.live() < minN) {
            st.status = kMatchTooFewMarkers;
            return 0;
        }
        const detail::RegistrationResult r = detail::registerMoving(mv, lib, st.settings, opt, &nb);
        st.storeResult(r, mv, &lib.source());
        return r.status == kMatchOk ? 1 : 0;
    } catch (const std::bad_alloc&) {
        st.clearResult();
        st.status = kMatchNoMemory;
        return 0;
    } catch (...) {
        st.clearResult();
        st.status = kMatchBadInput;
        return -1;
    }
}

Eigen::Matrix4d MyMatchMarkClass_update::get_final_transform() const {
    return d_->transform;
}
int MyMatchMarkClass_update::get_final_match_n() const {
    return d_->matchN;
}
float MyMatchMarkClass_update::get_final_err() const {
    return d_->err;
}
std::vector<int> MyMatchMarkClass_update::get_final_match_flag() const {
    try {
        return d_->flags;
    } catch (...) {
        return {};
    }
}
int MyMatchMarkClass_update::get_final_status() const {
    return d_->status;
}

void MyMatchMarkClass_update::set_glo_mark(pcl::PointCloud<pcl::PointNormal>& cloud, int count) {
    MatcherState& st = *d_;
    try {
        const int n = std::max(0, std::min(count, static_cast<int>(cloud.size())));
        const double same = std::max(0.0f, st.settings.max_near_same_mark_dis);
        std::vector<Eigen::Vector3d> pts;
        pts.reserve(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i) {
            const auto& q = cloud[static_cast<std::size_t>(i)];
            const Eigen::Vector3d p(q.x, q.y, q.z);
            if (p.allFinite())
                pts.push_back(p);
        }
        st.lib.reset(MarkerLibrary::suggestLinkRadius(pts, same), same);
        st.lib.reserve(n);
        st.obs.clear();
        st.clearResult();
        for (int i = 0; i < n; ++i) {
            const auto& q = cloud[static_cast<std::size_t>(i)];
            Eigen::Vector3d p(q.x, q.y, q.z);
            Eigen::Vector3d nn;
            const bool hasN = detail::readNormal(q.normal_x, q.normal_y, q.normal_z, nn);
            const bool ok = p.allFinite();
            if (!ok)
                p.setZero();
            const int id =
                st.lib.add(p, nn, hasN, std::isfinite(q.curvature) ? q.curvature : 0.0, i, false);
            if (!ok)
                st.lib.retire(id);
        }
        st.lib.linkAll();
    } catch (...) {
        st.lib.reset(100.0, 1.0);
        st.obs.clear();
    }
}

void MyMatchMarkClass_update::MergeSameTgt(int weightCap) {
    MatcherState& st = *d_;
    try {
        MarkerLibrary& lib = st.lib;
        const double same = st.settings.max_near_same_mark_dis;
        if (!(same > 0.0) || lib.live() < 2)
            return;
        const int cap = std::max(1, weightCap);
        std::vector<int> target(static_cast<std::size_t>(lib.slots()));
        for (int i = 0; i < lib.slots(); ++i)
            target[static_cast<std::size_t>(i)] = i;
        bool merged = false;
        for (int a = 0; a < lib.slots(); ++a) {
            if (!lib.alive[static_cast<std::size_t>(a)])
                continue;
            // Gather the later markers within reach first: the grid must not change while
            // it is being walked.
            std::vector<int> close;
            lib.forEachNear(lib.pos[static_cast<std::size_t>(a)], same, [&](int b) {
                if (b > a && lib.alive[static_cast<std::size_t>(b)] &&
                    (lib.pos[static_cast<std::size_t>(b)] - lib.pos[static_cast<std::size_t>(a)])
                            .norm() < same) {
                    close.push_back(b);
                }
            });
            std::sort(close.begin(), close.end());
            for (int b : close) {
                const auto ua = static_cast<std::size_t>(a), ub = static_cast<std::size_t>(b);
                const double wa = std::min(lib.weight[ua], cap);
                const double wb = std::min(lib.weight[ub], cap);
                const Eigen::Vector3d p = (wa * lib.pos[ua] + wb * lib.pos[ub]) / (wa + wb);
                if (lib.hasNormal[ub]) {
                    Eigen::Vector3d nn = wa * lib.nrm[ua] + wb * lib.nrm[ub];
                    if (nn.norm() > 1e-9) {
                        lib.nrm[ua] = nn.normalized();
                        lib.hasNormal[ua] = 1;
                    }
                }
                lib.weight[ua] += lib.weight[ub];
                lib.retire(b);
                lib.movePoint(a, p);
                target[ub] = a;
                merged = true;
            }
        }
        if (!merged)
            return;
        for (auto& o : st.obs) {
            o.marker = target[static_cast<std::size_t>(o.marker)];
        }
        lib.relinkAll();
    } catch (...) {
        // Out of memory while merging: the library keeps what was merged so far.
    }
}

int MyMatchMarkClass_update::get_glo_mark_n() const {
    return d_->lib.live();
}

bool MyMatchMarkClass_update::get_glo_mark(int index, mark_data& out) const {
    const MarkerLibrary& lib = d_->lib;
    if (index < 0 || index >= lib.slots() || !lib.alive[static_cast<std::size_t>(index)]) {
        return false;
    }
    const auto u = static_cast<std::size_t>(index);
    out = mark_data();
    out.x = static_cast<float>(lib.pos[u].x());
    out.y = static_cast<float>(lib.pos[u].y());
    out.z = static_cast<float>(lib.pos[u].z());
    out.nx = static_cast<float>(lib.nrm[u].x());
    out.ny = static_cast<float>(lib.nrm[u].y());
    out.nz = static_cast<float>(lib.nrm[u].z());
    out.label = lib.label[u];
    out.value = lib.value[u];
    return true;
}

std::size_t MyMatchMarkClass_update::get_memory_bytes() const {
    return sizeof(MatcherState) + d_->lib.memoryBytes() +
           d_->obs.capacity() * sizeof(detail::Observation) + d_->flags.capacity() * sizeof(int);
}

}  // namespace Quill
