// Pieces shared by the Quill benchmark and figures programs.
#pragma once

#include <Eigen/Core>

#include "quill/Quill.h"

namespace bench {

// One marker record from a position, a normal and a label.
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

// The settings the tracking code gives every matcher.
inline void trackerSettings(Quill::MyMatchMarkClass_update& m) {
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

}  // namespace bench
