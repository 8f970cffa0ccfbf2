// Conversions between the synthetic scenes and the matcher's records, the library matcher as
// the tracking code configures it, and the checks the tests share.
#pragma once

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <Eigen/Geometry>
#include <algorithm>
#include <vector>

#include "quill/Quill.h"
#include "sim/MarkerScene.h"

namespace quilltest {

inline Quill::mark_data toMark(const Eigen::Vector3d& p, const Eigen::Vector3d& n, int label) {
    Quill::mark_data m;
    m.x = static_cast<float>(p.x());
    m.y = static_cast<float>(p.y());
    m.z = static_cast<float>(p.z());
    m.nx = static_cast<float>(n.x());
    m.ny = static_cast<float>(n.y());
    m.nz = static_cast<float>(n.z());
    m.label = label;
    return m;
}

inline std::vector<Quill::mark_data> sceneMarks(const sim::MarkerScene& scene,
                                                bool normals = true) {
    std::vector<Quill::mark_data> out;
    for (int i = 0; i < scene.size(); ++i) {
        out.push_back(
            toMark(scene[i].position, normals ? scene[i].normal : Eigen::Vector3d::Zero(), i));
    }
    return out;
}

inline std::vector<Quill::mark_data> frameMarks(const sim::Frame& f, bool normals = true) {
    std::vector<Quill::mark_data> out;
    for (const auto& o : f.markers) {
        out.push_back(toMark(o.position, normals ? o.normal : Eigen::Vector3d::Zero(), o.truth));
    }
    return out;
}

inline pcl::PointCloud<pcl::PointNormal> sceneCloud(const sim::MarkerScene& scene) {
    pcl::PointCloud<pcl::PointNormal> cloud;
    for (const auto& m : scene.markers()) {
        pcl::PointNormal p;
        p.x = static_cast<float>(m.position.x());
        p.y = static_cast<float>(m.position.y());
        p.z = static_cast<float>(m.position.z());
        p.data[3] = 1.0f;
        p.normal_x = static_cast<float>(m.normal.x());
        p.normal_y = static_cast<float>(m.normal.y());
        p.normal_z = static_cast<float>(m.normal.z());
        p.data_n[3] = 0.0f;
        p.curvature = 0.0f;
        cloud.push_back(p);
    }
    cloud.width = static_cast<std::uint32_t>(cloud.size());
    cloud.height = 1;
    cloud.is_dense = true;
    return cloud;
}

// The settings the tracking code gives every matcher.
inline void applyTrackerSettings(Quill::MyMatchMarkClass_update& m) {
    m.set_use_nor(1);
    m.set_diff_nor_cos(0.2f);
    m.set_max_final_err(0.15f);
    m.set_max_inline_mark_dis(0.5f);
    m.set_max_mark2mark_dis(1.0f);
    m.set_max_nor_cos(0.7f);
    m.set_min_final_match_n(5);
    m.set_max_near_same_mark_dis(3.0f);
    m.set_max_err_for_three_mark(0.02f);
    m.set_max_second_final_err(0.05f);
    m.set_su_point_percentage(0.0f);
}

// A matcher configured as the tracking code configures its library matcher.
struct Library {
    Quill::MyRealTimeMarkMatch_class rt;
    explicit Library(int maxMarks = 30000, int maxFrames = 5000, int cams = 1) {
        EXPECT_EQ(rt.init_all(maxMarks, maxFrames, cams), 1);
        rt.set_max_count_lib2lib(50);
        rt.set_mark_point_w(20);
        for (int c = 0; c < rt.get_cam_n(); ++c)
            applyTrackerSettings(*rt.get_mark_match(c));
    }
    int add(const sim::Frame& f, int value = 0) {
        auto marks = frameMarks(f);
        return rt.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), value);
    }
    int size() { return rt.get_mark_match(0)->get_glo_mark_n(); }
    int sourceLabel(int index) {
        Quill::mark_data m;
        return rt.get_mark_match(0)->get_glo_mark(index, m) ? m.label : -2;
    }
};

// Largest distance between where the found and the true transform put the frame's markers.
inline double transformError(const Eigen::Matrix4d& found, const sim::Frame& f) {
    double worst = 0.0;
    for (const auto& o : f.markers) {
        const Eigen::Vector3d a = (found * o.position.homogeneous()).head<3>();
        worst = std::max(worst, (a - f.pose.apply(o.position)).norm());
    }
    return worst;
}

// Flags that name a scene marker other than the true one (a spurious point matched to a
// marker counts too); a true marker left unmatched is not wrong.
inline int wrongFlags(const std::vector<int>& flags, const sim::Frame& f) {
    int wrong = 0;
    for (std::size_t i = 0; i < f.markers.size() && i < flags.size(); ++i) {
        if (flags[i] >= 0 && flags[i] != f.markers[i].truth)
            ++wrong;
    }
    return wrong;
}

}  // namespace quilltest
