#include "quill/MyRealTimeMarkMatch_class.h"

#include <algorithm>
#include <new>

#include "MatcherState.h"
#include "Registration.h"

namespace Quill {

namespace {
// Bounds of init_all's arguments: larger requests are refused, not allocated for.
constexpr int kMaxLibraryMarks = 10000000;
constexpr int kMaxFrames = 10000000;
constexpr int kMaxCams = 64;
}  // namespace

struct MyRealTimeMarkMatch_class::State {
    std::vector<std::unique_ptr<MyMatchMarkClass_update>> matchers;
    int maxLib = 0;
    int maxFrames = 0;
    int lib2lib = 0;
    int weightCap = 20;
    bool update = true;
    bool newAdd = true;
    bool onlyGlobal = true;
    bool temporary = false;
    std::vector<Eigen::Matrix4d> rts;
    std::vector<int> frameValues;
    unsigned frameCounter = 0;

    std::vector<int> flags;
    int matchN = 0;
    Eigen::Matrix4d transform = Eigen::Matrix4d::Identity();

    void clearResult(int count) {
        flags.assign(static_cast<std::size_t>(count > 0 && count <= (1 << 20) ? count : 0), -1);
        matchN = 0;
        transform.setIdentity();
    }
};

MyRealTimeMarkMatch_class::MyRealTimeMarkMatch_class() : d_(new State()) {}
MyRealTimeMarkMatch_class::~MyRealTimeMarkMatch_class() = default;

int MyRealTimeMarkMatch_class::init_all(int maxLibraryMarks, int maxFrames, int camCount) {
    State& st = *d_;
    if (maxLibraryMarks < 1 || maxLibraryMarks > kMaxLibraryMarks || maxFrames < 1 ||
        maxFrames > kMaxFrames || camCount < 1 || camCount > kMaxCams) {
        return 0;
    }
    try {
        st.matchers.clear();
        for (int c = 0; c < camCount; ++c) {
            st.matchers.emplace_back(new MyMatchMarkClass_update());
        }
        st.maxLib = maxLibraryMarks;
        st.maxFrames = maxFrames;
        st.rts.clear();
        st.frameValues.clear();
        st.frameCounter = 0;
        st.clearResult(0);
        return 1;
    } catch (...) {
        st.matchers.clear();
        return 0;
    }
}

int MyRealTimeMarkMatch_class::free_all() {
    State& st = *d_;
    const bool had = !st.matchers.empty() || !st.rts.empty();
    st.matchers.clear();
    st.rts.clear();
    st.rts.shrink_to_fit();
    st.frameValues.clear();
    st.frameValues.shrink_to_fit();
    st.maxLib = 0;
    st.maxFrames = 0;
    st.clearResult(0);
    return had ? 1 : 0;
}

void MyRealTimeMarkMatch_class::set_max_count_lib2lib(int count) {
    d_->lib2lib = count;
}
void MyRealTimeMarkMatch_class::set_mark_point_w(int w) {
    d_->weightCap = std::max(1, w);
}
void MyRealTimeMarkMatch_class::set_if_real_time_update_mark(int on) {
    d_->update = on != 0;
}
void MyRealTimeMarkMatch_class::set_if_real_time_new_add_mark(int on) {
    d_->newAdd = on != 0;
}
void MyRealTimeMarkMatch_class::set_if_only_match_from_glomark(int on) {
    d_->onlyGlobal = on != 0;
}
void MyRealTimeMarkMatch_class::set_if_use_temporary_library(int on) {
    d_->temporary = on != 0;
}

int MyRealTimeMarkMatch_class::MarkRegistration_loop(mark_data* marks, int count, int frameValue) {
    State& st = *d_;
    st.clearResult(count);
    if (st.matchers.empty()) {
        return -1;
    }
    detail::MatcherState& g = *st.matchers[0]->d_;
    g.clearResult();
    try {
        detail::MarkerLibrary& lib = g.lib;
        const double same = std::max(0.0f, g.settings.max_near_same_mark_dis);
        detail::MovingSet mv;
        if (!detail::prepareMoving(marks, count, same, mv)) {
            g.status = kMatchBadInput;
            return -1;
        }
        g.flags.assign(static_cast<std::size_t>(count), -1);
        const int n = static_cast<int>(mv.p.size());
        const bool recordFrame = static_cast<int>(st.rts.size()) < st.maxFrames;
        const int frameIndex = static_cast<int>(st.rts.size());
        ++st.frameCounter;

        if (lib.live() == 0) {
            // The first frame seeds the library and defines its frame.
            if (n < 3) {
                g.status = kMatchTooFewMarkers;
                return 0;
            }
            lib.reset(detail::MarkerLibrary::suggestLinkRadius(mv.p, same), same);
            g.obs.clear();
            const int room = std::min(n, st.maxLib);
            for (int i = 0; i < room; ++i) {
                const auto u = static_cast<std::size_t>(i);
                const mark_data& m = marks[mv.src[u]];
                const int id = lib.add(mv.p[u], mv.n[u], mv.hasN[u] != 0, m.value, m.label, false);
                st.flags[static_cast<std::size_t>(mv.src[u])] = id;
                if (recordFrame)
                    g.obs.push_back({frameIndex, id, mv.p[u]});
            }
            lib.linkAll();
            if (recordFrame) {
                st.rts.push_back(Eigen::Matrix4d::Identity());
                st.frameValues.push_back(frameValue);
            }
            st.matchN = room;
            g.status = kMatchOk;
            g.matchN = room;
            g.flags = st.flags;
            return 1;
        }

        detail::RegistrationOptions opt;
        opt.maxTries = st.lib2lib > 0 ? st.lib2lib : -1;
        opt.seed = st.frameCounter;
        opt.matchUnlinked = !(st.temporary && st.onlyGlobal);
        const detail::RegistrationResult r = detail::registerMoving(mv, lib, g.settings, opt);
        g.storeResult(r, mv, nullptr);
        if (r.status != kMatchOk) {
            return 0;
        }
        const Eigen::Matrix3d& R = r.R;
        const Eigen::Vector3d& t = r.t;
        for (int i = 0; i < n; ++i) {
            const auto u = static_cast<std::size_t>(i);
            const int id = r.match[u];
            if (id < 0)
                continue;
            st.flags[static_cast<std::size_t>(mv.src[u])] = id;
            const auto uid = static_cast<std::size_t>(id);
            if (!lib.linked[uid]) {
                lib.link(id);  // a waiting marker seen again is confirmed
            }
            if (st.update) {
                const double w = std::min(lib.weight[uid], st.weightCap);
                const Eigen::Vector3d p = R * mv.p[u] + t;
                lib.movePoint(id, (w * lib.pos[uid] + p) / (w + 1.0));
                if (mv.hasN[u]) {
                    const Eigen::Vector3d nn = w * lib.nrm[uid] + R * mv.n[u];
                    if (nn.norm() > 1e-9) {
                        lib.nrm[uid] = nn.normalized();
                        lib.hasNormal[uid] = 1;
                    }
                }
                ++lib.weight[uid];
            }
            if (recordFrame)
                g.obs.push_back({frameIndex, id, mv.p[u]});
        }
        if (st.newAdd) {
            for (int i = 0; i < n; ++i) {
                const auto u = static_cast<std::size_t>(i);
                if (r.match[u] >= 0)
                    continue;
                const Eigen::Vector3d p = R * mv.p[u] + t;
                const int near = lib.nearest(p, same, [&](int) { return true; });
                if (near >= 0) {
                    const auto un = static_cast<std::size_t>(near);
                    if (!lib.linked[un] && st.temporary) {
                        // Second sighting of a waiting marker: confirm it.
                        lib.movePoint(near, (lib.pos[un] + p) * 0.5);
                        ++lib.weight[un];
                        lib.link(near);
                        if (recordFrame)
                            g.obs.push_back({frameIndex, near, mv.p[u]});
                    }
                    // Otherwise too near a known marker to be a new target, too far to be it.
                    continue;
                }
                if (lib.slots() >= st.maxLib)
                    break;
                const mark_data& m = marks[mv.src[u]];
                const int id =
                    lib.add(p, R * mv.n[u], mv.hasN[u] != 0, m.value, m.label, !st.temporary);
                if (recordFrame)
                    g.obs.push_back({frameIndex, id, mv.p[u]});
            }
        }
        if (recordFrame) {
            Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
            T.topLeftCorner<3, 3>() = R;
            T.topRightCorner<3, 1>() = t;
            st.rts.push_back(T);
            st.frameValues.push_back(frameValue);
        }
        st.transform = g.transform;
        st.matchN = r.matched;
        return 1;
    } catch (const std::bad_alloc&) {
        g.status = kMatchNoMemory;
        st.clearResult(count);
        return 0;
    } catch (...) {
        st.clearResult(count);
        return -1;
    }
}

std::vector<int> MyRealTimeMarkMatch_class::get_final_match_flag() const {
    try {
        return d_->flags;
    } catch (...) {
        return {};
    }
}
int MyRealTimeMarkMatch_class::get_final_match_n() const {
    return d_->matchN;
}
Eigen::Matrix4d MyRealTimeMarkMatch_class::get_final_transform() const {
    return d_->transform;
}

std::vector<Eigen::Matrix4d> MyRealTimeMarkMatch_class::get_final_rt_array(int cam) const {
    try {
        if (cam == 0 && !d_->matchers.empty())
            return d_->rts;
    } catch (...) {
    }
    return {};
}

std::vector<int> MyRealTimeMarkMatch_class::get_frame_values() const {
    try {
        return d_->frameValues;
    } catch (...) {
        return {};
    }
}

int MyRealTimeMarkMatch_class::get_cam_n() const {
    return static_cast<int>(d_->matchers.size());
}

MyMatchMarkClass_update* MyRealTimeMarkMatch_class::get_mark_match(int cam) {
    if (cam < 0 || cam >= static_cast<int>(d_->matchers.size()))
        return nullptr;
    return d_->matchers[static_cast<std::size_t>(cam)].get();
}

}  // namespace Quill
