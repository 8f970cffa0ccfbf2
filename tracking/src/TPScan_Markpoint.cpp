#include "tracking/TPScan_Markpoint.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <utility>

#include <pcl/point_cloud.h>
#include <pcl/point_types.h>
#include <Eigen/Dense>
#include <opencv2/core.hpp>

#include "quill/Quill.h"

namespace {

// Frames with fewer markers than this are not added to the library.
constexpr std::size_t kMinFrameMarkers = 5;
// Static tracking: frames kept, frames counted between evaluations, largest translation step
// (millimetres, the unit of the frame's marker centres) between consecutive buffered frames.
constexpr std::size_t kStaticQueueSize = 50;
constexpr int32_t kStaticEvaluationPeriod = 100;
constexpr double kStaticMaxStep = 3.0;

// Library matcher set-up; the meaning of the numbers is the matcher's own.
constexpr int kLibraryMaxMarks = 30000;
constexpr int kLibraryMaxFrames = 5000;
constexpr int kMaxCountLib2Lib = 50;
constexpr int kMarkPointWeight = 20;
constexpr int kMergeWeightCap = 20;
// Global optimisation: stop threshold (percent) and iteration limit.
constexpr float kOptimiseStopPercent = 0.1f;
constexpr int kOptimiseMaxIterations = 150;
// Markers nearer than this (millimetres) are one target for the tracking matchers.
constexpr float kSameMarkDistance = 3.0f;
// One-off splice registrations accept a match of this many markers.
constexpr int kSplitMinMatches = 3;

// Whether the per-marker arrays of a marker set agree with its label count.
bool consistent(const device::tagRefMarkpointData& set) {
    const std::size_t n = set.labels.size();
    return set.positions.size() >= 3 * n && set.normals.size() >= 3 * n && set.values.size() >= n;
}

// Overwrites each mark's label with the frame's per-marker validity value, the value the
// library matcher stores with each observation. False when the frame lacks that array.
bool useValidityAsLabels(const SDK_NV::tagScanData& frame, std::vector<Quill::mark_data>& marks) {
    if (frame.m_vecMarkerValid.size() < marks.size()) {
        return false;
    }
    for (std::size_t i = 0; i < marks.size(); ++i) {
        marks[i].label = frame.m_vecMarkerValid[i];
    }
    return true;
}

// Whether the frame's per-marker arrays cover its label array, validity array included: the
// frames library building and static tracking can convert.
bool wellFormed(const SDK_NV::tagScanData& frame) {
    const std::size_t n = frame.m_vecMarkerIds.size();
    return frame.m_vecMarkerCenters.size() >= 3 * n && frame.m_vecMarkerNormals.size() >= 3 * n &&
           frame.m_vecMarkerDiameters.size() >= n && frame.m_vecMarkerValid.size() >= n;
}

// Relative pose of the second camera with respect to the first, from the two cameras'
// [R | t] lists (rotation by rows, then translation): R = R2 * R1^-1, t = t2 - R * t1, written
// as the rotation by rows followed by the translation. False when a list is short or the
// first rotation cannot be inverted.
bool relativeCameraPose(const google::protobuf::RepeatedField<double>& first,
                        const google::protobuf::RepeatedField<double>& second, double out[12]) {
    if (first.size() < 12 || second.size() < 12) {
        return false;
    }
    const cv::Matx33d r1(first.Get(0), first.Get(1), first.Get(2), first.Get(3), first.Get(4),
                         first.Get(5), first.Get(6), first.Get(7), first.Get(8));
    const cv::Matx33d r2(second.Get(0), second.Get(1), second.Get(2), second.Get(3), second.Get(4),
                         second.Get(5), second.Get(6), second.Get(7), second.Get(8));
    cv::Matx33d r1Inverse;
    if (cv::invert(r1, r1Inverse, cv::DECOMP_LU) == 0.0) {
        return false;
    }
    const cv::Matx33d r = r2 * r1Inverse;
    const cv::Vec3d t1(first.Get(9), first.Get(10), first.Get(11));
    const cv::Vec3d t2(second.Get(9), second.Get(10), second.Get(11));
    const cv::Vec3d t = t2 - r * t1;
    for (int k = 0; k < 9; ++k) {
        out[k] = r.val[k];
    }
    for (int k = 0; k < 3; ++k) {
        out[9 + k] = t[k];
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and configuration
// ---------------------------------------------------------------------------------------------

// The imported reference markers and the matcher's index of them (normals included, as
// dynamic tracking hands them over), built with the tracking matchers' same-target distance.
struct CTPScan_Markpoint::ReferenceSet {
    device::tagRefMarkpointData data;
    std::vector<Quill::mark_data> withNormals;
    Quill::IndexedMarkSet indexed;
};

CTPScan_Markpoint::CTPScan_Markpoint() {
    // An empty set is a valid index: frames then fail for want of markers, as before any
    // import.
    const auto empty = std::make_shared<ReferenceSet>();
    empty->indexed.build(nullptr, 0, kSameMarkDistance);
    reference = empty;
}

std::shared_ptr<const CTPScan_Markpoint::ReferenceSet> CTPScan_Markpoint::referenceSnapshot() {
    std::lock_guard<std::mutex> lock(referenceMutex);
    return reference;
}

CTPScan_Markpoint::~CTPScan_Markpoint() {
    freeLibrary();
    optimizer.reset();
}

void CTPScan_Markpoint::initLibrary() {
    try {
        if (match) {
            match->free_all();
        }
        match = std::make_unique<Quill::MyRealTimeMarkMatch_class>();
        InitMarkPointObject(match.get());
        optimizer = std::make_unique<Quill::MarkOpt_class>();
        optimizer->set_wh(imageWidth, imageHeight);
        realTimeUpdate = true;
        pushFlagGroup();
    } catch (const std::exception& e) {
        std::printf("[pathfinder] marker library not created: %s\n", e.what());
        match.reset();
    }
}

void CTPScan_Markpoint::InitMarkPointObject(Quill::MyRealTimeMarkMatch_class* matcher) {
    matcher->init_all(kLibraryMaxMarks, kLibraryMaxFrames, camCount);
    matcher->set_max_count_lib2lib(kMaxCountLib2Lib);
    matcher->set_mark_point_w(kMarkPointWeight);
    for (int cam = 0; cam < camCount; ++cam) {
        if (Quill::MyMatchMarkClass_update* m = matcher->get_mark_match(cam)) {
            InitMarkPointUpdateObject(m);
        }
    }
}

void CTPScan_Markpoint::InitMarkPointUpdateObject(Quill::MyMatchMarkClass_update* matcher) {
    matcher->set_use_nor(1);
    matcher->set_diff_nor_cos(0.2f);
    matcher->set_max_final_err(0.15f);
    matcher->set_max_inline_mark_dis(0.5f);
    matcher->set_max_mark2mark_dis(1.0f);
    matcher->set_max_nor_cos(0.7f);
    matcher->set_min_final_match_n(5);
    matcher->set_max_near_same_mark_dis(kSameMarkDistance);
    matcher->set_max_err_for_three_mark(0.02f);
    matcher->set_max_second_final_err(0.05f);
    matcher->set_su_point_percentage(0.0f);
}

std::shared_ptr<Quill::MyMatchMarkClass_update> CTPScan_Markpoint::CreateMarkPointUpdate() {
    auto matcher = std::make_shared<Quill::MyMatchMarkClass_update>();
    InitMarkPointUpdateObject(matcher.get());
    return matcher;
}

void CTPScan_Markpoint::pushFlagGroup() {
    const int on = realTimeUpdate ? 1 : 0;
    match->set_if_real_time_update_mark(on);
    match->set_if_real_time_new_add_mark(on);
    match->set_if_only_match_from_glomark(on);
    match->set_if_use_temporary_library(0);
}

bool CTPScan_Markpoint::setTrackMarkpoint(const bool& track) {
    if (!match) {
        return false;
    }
    realTimeUpdate = !track;
    pushFlagGroup();
    return true;
}

// ---------------------------------------------------------------------------------------------
// Record conversions
// ---------------------------------------------------------------------------------------------

bool CTPScan_Markpoint::Frame2MarkPoint(const SDK_NV::tagScanData& frame,
                                        std::vector<Quill::mark_data>& marks, int& frameValue,
                                        bool skipCameraBlock) {
    const std::size_t n = frame.m_vecMarkerIds.size();
    if (frame.m_vecMarkerCenters.size() < 3 * n || frame.m_vecMarkerNormals.size() < 3 * n ||
        frame.m_vecMarkerDiameters.size() < n) {
        return false;
    }
    marks.assign(n, Quill::mark_data());
    frameValue = frame.m_nFrameValue;

    const lumora::MKPointImage& image = frame.m_mkImage;
    // The image block is index-aligned with the markers when it has one entry per marker;
    // otherwise the image coordinates stay at their defaults.
    const bool imagesAligned = static_cast<std::size_t>(image.mksolve_size()) == n;
    double cameraParams[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    const bool haveParams = image.left_im_size() >= 4 && image.right_im_size() >= 4;
    if (haveParams) {
        for (int k = 0; k < 4; ++k) {
            cameraParams[k] = image.left_im(k);
            cameraParams[4 + k] = image.right_im(k);
        }
    }
    double cameraPose[12];
    const bool havePose =
        !skipCameraBlock && relativeCameraPose(image.left_rt(), image.right_rt(), cameraPose);

    for (std::size_t i = 0; i < n; ++i) {
        Quill::mark_data& m = marks[i];
        for (int k = 0; k < 5; ++k) {
            m.words_a[k] = 0;
            m.words_b[k] = 0;
        }
        m.x = static_cast<float>(frame.m_vecMarkerCenters[3 * i]);
        m.y = static_cast<float>(frame.m_vecMarkerCenters[3 * i + 1]);
        m.z = static_cast<float>(frame.m_vecMarkerCenters[3 * i + 2]);
        m.nx = static_cast<float>(frame.m_vecMarkerNormals[3 * i]);
        m.ny = static_cast<float>(frame.m_vecMarkerNormals[3 * i + 1]);
        m.nz = static_cast<float>(frame.m_vecMarkerNormals[3 * i + 2]);
        m.value = frame.m_vecMarkerDiameters[i];
        m.label = frame.m_vecMarkerIds[i];
        if (skipCameraBlock) {
            continue;
        }
        if (imagesAligned) {
            const lumora::MKPointSolve& s = image.mksolve(static_cast<int>(i));
            m.img[0] = static_cast<float>(s.mkimageleft().x());
            m.img[1] = static_cast<float>(s.mkimageleft().y());
            m.img[2] = static_cast<float>(s.mkimageright().x());
            m.img[3] = static_cast<float>(s.mkimageright().y());
        }
        if (haveParams) {
            for (int k = 0; k < 8; ++k) {
                m.cam_param[k] = cameraParams[k];
            }
        }
        if (havePose) {
            for (int k = 0; k < 12; ++k) {
                m.cam_matrix[k] = cameraPose[k];
            }
        }
    }
    return true;
}

void CTPScan_Markpoint::PushData2RefrenceMarkPoint(const Quill::mark_data& mark,
                                                   device::tagRefMarkpointData& out, bool transform,
                                                   const Eigen::Matrix4d& T) {
    Eigen::Vector4d p(mark.x, mark.y, mark.z, 1.0);
    Eigen::Vector4d n(mark.nx, mark.ny, mark.nz, 0.0);
    if (transform) {
        p = T * p;
        n = T * n;
    }
    out.positions.insert(out.positions.end(), {p.x(), p.y(), p.z()});
    out.normals.insert(out.normals.end(), {n.x(), n.y(), n.z()});
    out.values.push_back(mark.value);
}

bool CTPScan_Markpoint::RefrenceMarkPoint2MarkPoint(const device::tagRefMarkpointData& set,
                                                    std::vector<Quill::mark_data>& marks,
                                                    bool withNormals) {
    if (!consistent(set)) {
        marks.clear();
        return false;
    }
    const std::size_t n = set.labels.size();
    marks.assign(n, Quill::mark_data());
    for (std::size_t i = 0; i < n; ++i) {
        marks[i].x = static_cast<float>(set.positions[3 * i]);
        marks[i].y = static_cast<float>(set.positions[3 * i + 1]);
        marks[i].z = static_cast<float>(set.positions[3 * i + 2]);
        marks[i].value = set.values[i];
        marks[i].label = set.labels[i];
        if (withNormals) {
            marks[i].nx = static_cast<float>(set.normals[3 * i]);
            marks[i].ny = static_cast<float>(set.normals[3 * i + 1]);
            marks[i].nz = static_cast<float>(set.normals[3 * i + 2]);
        }
    }
    return true;
}

void CTPScan_Markpoint::MarkOptToMarkPoint(const Quill::mcXYZ_Nor_s* records, int count,
                                           std::vector<Quill::mark_data>& marks) {
    // Records the optimiser left out (negative label) are empty slots, not markers: they are
    // not converted, so that no (0, 0, 0) record reaches a matcher.
    marks.clear();
    const std::size_t n = records != nullptr && count > 0 ? static_cast<std::size_t>(count) : 0;
    for (std::size_t k = 0; k < n; ++k) {
        const Quill::mcXYZ_Nor_s& r = records[k];
        const int label = static_cast<int>(r.label);
        if (label < 0) {
            continue;
        }
        Quill::mark_data& m = marks.emplace_back();
        m.x = r.x;
        m.y = r.y;
        m.z = r.z;
        m.nx = r.nx;
        m.ny = r.ny;
        m.nz = r.nz;
        m.label = label;
    }
}

// ---------------------------------------------------------------------------------------------
// Transform layouts
// ---------------------------------------------------------------------------------------------

void CTPScan_Markpoint::TranRT(const Eigen::Matrix4d& T, double* rt16) {
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            rt16[4 * r + c] = T(r, c);
        }
        rt16[12 + r] = T(r, 3);
    }
    rt16[3] = 0.0;
    rt16[7] = 0.0;
    rt16[11] = 0.0;
    rt16[15] = 1.0;
}

Eigen::Matrix4d CTPScan_Markpoint::TranBackRT(const Eigen::Matrix4d& T) {
    const cv::Matx33d r(T(0, 0), T(0, 1), T(0, 2), T(1, 0), T(1, 1), T(1, 2), T(2, 0), T(2, 1),
                        T(2, 2));
    cv::Matx33d inverse;
    cv::invert(r, inverse, cv::DECOMP_LU);
    const cv::Vec3d t = -(inverse * cv::Vec3d(T(0, 3), T(1, 3), T(2, 3)));
    Eigen::Matrix4d back = Eigen::Matrix4d::Identity();
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            back(i, j) = inverse(i, j);
        }
        back(i, 3) = t[i];
    }
    return back;
}

// ---------------------------------------------------------------------------------------------
// Library
// ---------------------------------------------------------------------------------------------

bool CTPScan_Markpoint::importMarkpointToLibrary(const device::tagRefMarkpointData& set,
                                                 bool keepAsReference, bool keepOpen) {
    if (!match) {
        return false;
    }
    // The library-open flag follows the call whatever the set holds; an inconsistent set is
    // refused after that, before anything else changes.
    libraryOpen = keepOpen;
    if (!consistent(set)) {
        std::printf("[pathfinder] marker set not imported: %zu labels but %zu/%zu/%zu values\n",
                    set.labels.size(), set.positions.size(), set.normals.size(), set.values.size());
        return false;
    }
    try {
        if (!keepOpen) {
            const std::size_t n = set.labels.size();
            pcl::PointCloud<pcl::PointNormal> cloud;
            cloud.resize(n);
            for (std::size_t i = 0; i < n; ++i) {
                pcl::PointNormal& p = cloud[i];
                p.x = static_cast<float>(set.positions[3 * i]);
                p.y = static_cast<float>(set.positions[3 * i + 1]);
                p.z = static_cast<float>(set.positions[3 * i + 2]);
                p.data[3] = 1.0f;
                p.normal_x = static_cast<float>(set.normals[3 * i]);
                p.normal_y = static_cast<float>(set.normals[3 * i + 1]);
                p.normal_z = static_cast<float>(set.normals[3 * i + 2]);
                p.data_n[3] = 0.0f;
                p.curvature = static_cast<float>(set.values[i]);
            }
            cloud.width = static_cast<std::uint32_t>(n);
            cloud.height = 1;
            cloud.is_dense = true;
            if (Quill::MyMatchMarkClass_update* global = match->get_mark_match(0)) {
                global->set_glo_mark(cloud, static_cast<int>(n));
            }
        }
        realTimeUpdate = !keepAsReference;
        pushFlagGroup();
        if (keepAsReference) {
            auto next = std::make_shared<ReferenceSet>();
            next->data.positions = set.positions;
            next->data.normals = set.normals;
            next->data.labels = set.labels;
            next->data.values = set.values;
            RefrenceMarkPoint2MarkPoint(next->data, next->withNormals, true);
            if (!next->indexed.build(next->withNormals.data(),
                                     static_cast<int>(next->withNormals.size()),
                                     kSameMarkDistance)) {
                std::printf("[pathfinder] reference set not indexed\n");
                return false;
            }
            std::lock_guard<std::mutex> lock(referenceMutex);
            reference = std::move(next);
        }
    } catch (const std::exception& e) {
        std::printf("[pathfinder] marker set import failed: %s\n", e.what());
    }
    return false;
}

int CTPScan_Markpoint::addOneFrameToLibrary(SDK_NV::tagScanData& frame,
                                            device::tagRefMarkpointData& out, double rt[4][3],
                                            bool returnMatchCount) {
    if (frame.m_vecMarkerIds.size() < kMinFrameMarkers) {
        return 0;
    }
    if (rt == nullptr) {
        return -1;
    }
    try {
        std::vector<Quill::mark_data> marks;
        int frameValue = 0;
        if (!Frame2MarkPoint(frame, marks, frameValue, false) ||
            !useValidityAsLabels(frame, marks)) {
            return -1;
        }
        std::lock_guard<std::mutex> lock(mutex);
        if (!match) {
            return -1;
        }
        const int n =
            match->MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), frameValue);
        if (n < 1) {
            return -1;
        }
        out.clear();
        (void)match->get_final_match_flag();
        const Eigen::Matrix4d T = match->get_final_transform();
        for (const Quill::mark_data& m : marks) {
            PushData2RefrenceMarkPoint(m, out, true, T);
            out.labels.push_back(m.label);
        }
        const Eigen::Matrix4d M = TranBackRT(T);
        for (int c = 0; c < 4; ++c) {
            for (int r = 0; r < 3; ++r) {
                rt[c][r] = M(r, c);
            }
        }
        return returnMatchCount ? match->get_final_match_n() : static_cast<int>(out.labels.size());
    } catch (const std::exception&) {
        return -1;
    }
}

int CTPScan_Markpoint::addOneFrameToLibrary(SDK_NV::tagScanData& frame, double* rt16) {
    // The result is the full form's; rt16 is needed only where it is written. A null rt16
    // thus still registers the frame, and its pose is not delivered.
    device::tagRefMarkpointData scratch;
    double rt[4][3];
    const int result = addOneFrameToLibrary(frame, scratch, rt, false);
    if (result > 0 && rt16 != nullptr) {
        for (int k = 0; k < 3; ++k) {
            rt16[k] = rt[0][k];
            rt16[4 + k] = rt[3][k];
        }
    }
    return result;
}

bool CTPScan_Markpoint::clearLibrary() {
    cleared = true;
    libraryOpen = true;
    freeLibrary();
    try {
        std::lock_guard<std::mutex> lock(mutex);
        match = std::make_unique<Quill::MyRealTimeMarkMatch_class>();
        InitMarkPointObject(match.get());
    } catch (const std::exception& e) {
        std::printf("[pathfinder] marker library not re-created: %s\n", e.what());
    }
    return true;
}

bool CTPScan_Markpoint::freeLibrary() {
    try {
        std::lock_guard<std::mutex> lock(mutex);
        if (!match) {
            return false;
        }
        const bool released = match->free_all() != 0;
        match.reset();
        return released;
    } catch (const std::exception&) {
        return false;
    }
}

int CTPScan_Markpoint::libraryMarkerCount() {
    std::lock_guard<std::mutex> lock(mutex);
    Quill::MyMatchMarkClass_update* global = match ? match->get_mark_match(0) : nullptr;
    return global != nullptr ? global->get_glo_mark_n() : 0;
}

bool CTPScan_Markpoint::getResultData(device::tagRefMarkpointData& out) {
    // A fixed library delivers nothing; the matcher itself is tested under the lock, since
    // another command thread may be replacing it.
    if (!libraryOpen || !optimizer) {
        return false;
    }
    try {
        std::lock_guard<std::mutex> lock(mutex);
        Quill::MyMatchMarkClass_update* global = match ? match->get_mark_match(0) : nullptr;
        if (global == nullptr) {
            return false;
        }
        global->MergeSameTgt(kMergeWeightCap);
        out.clear();
        std::vector<Eigen::Matrix4d> frames = match->get_final_rt_array(0);
        const int ok = optimizer->Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            global, frames, static_cast<int>(frames.size()), kOptimiseStopPercent,
            kOptimiseMaxIterations);
        if (ok == 0) {
            return false;
        }
        int count = 0;
        const Quill::mcXYZ_Nor_s* records = optimizer->get_Mark_data(count);
        if (records == nullptr) {
            count = 0;
        }
        for (int k = 0; k < count; ++k) {
            const Quill::mcXYZ_Nor_s& r = records[k];
            if (static_cast<int>(r.label) < 0) {
                continue;
            }
            out.positions.insert(out.positions.end(), {r.x, r.y, r.z});
            out.normals.insert(out.normals.end(), {r.nx, r.ny, r.nz});
            out.values.push_back(r.value);
            out.labels.push_back(k);
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Static and dynamic tracking
// ---------------------------------------------------------------------------------------------

int CTPScan_Markpoint::SetTrackStatic(SDK_NV::tagScanData& frame, double* rt16) {
    // A null output or a malformed frame (marker arrays shorter than the label array, no
    // validity array) is refused with -1 on its own: the frame is not buffered or counted,
    // and the frames buffered so far stay for the next evaluation.
    if (rt16 == nullptr || !wellFormed(frame)) {
        return -1;
    }
    try {
        if (frameQueue.size() < kStaticQueueSize) {
            frameQueue.push_back(frame);
            return 0;
        }
        frameQueue.pop_front();
        frameQueue.push_back(frame);
        ++staticCounter;
        if (staticCounter < kStaticEvaluationPeriod) {
            return 0;
        }
        staticCounter = 0;
        const int result = evaluateStatic(rt16);
        frameQueue.clear();
        return result;
    } catch (const std::exception&) {
        frameQueue.clear();
        staticCounter = 0;
        return -1;
    }
}

// Builds a model from the buffered frames, optimises it and registers it with the reference
// set. Consumes the queue.
int CTPScan_Markpoint::evaluateStatic(double* rt16) {
    if (!optimizer) {
        return -1;
    }
    Quill::MyRealTimeMarkMatch_class model;
    InitMarkPointObject(&model);
    model.set_if_real_time_update_mark(1);
    model.set_if_real_time_new_add_mark(1);

    std::vector<Quill::mark_data> marks;
    Eigen::Vector3d previous = Eigen::Vector3d::Zero();
    bool first = true;
    while (!frameQueue.empty()) {
        const SDK_NV::tagScanData& frame = frameQueue.front();
        int frameValue = 0;
        if (!Frame2MarkPoint(frame, marks, frameValue, false) ||
            !useValidityAsLabels(frame, marks)) {
            return -1;
        }
        // 1: registered (or seeding the model); 0: not registered; -1: bad arguments.
        if (model.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), frameValue) !=
            1) {
            return -1;
        }
        const Eigen::Vector3d t = model.get_final_transform().block<3, 1>(0, 3);
        if (!first && staticStepTooLarge(previous, t)) {
            return -1;
        }
        first = false;
        previous = t;
        frameQueue.pop_front();
    }

    std::vector<Eigen::Matrix4d> frames = model.get_final_rt_array(0);
    optimizer->Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
        model.get_mark_match(0), frames, static_cast<int>(frames.size()), kOptimiseStopPercent,
        kOptimiseMaxIterations);
    int count = 0;
    const Quill::mcXYZ_Nor_s* records = optimizer->get_Mark_data(count);
    std::vector<Quill::mark_data> moving;
    MarkOptToMarkPoint(records, count, moving);
    std::vector<Quill::mark_data> fixed;
    if (!RefrenceMarkPoint2MarkPoint(referenceSnapshot()->data, fixed)) {
        return -1;
    }
    std::shared_ptr<Quill::MyMatchMarkClass_update> matcher = CreateMarkPointUpdate();
    const int r = matcher->MarkRegistration(moving.data(), static_cast<int>(moving.size()),
                                            fixed.data(), static_cast<int>(fixed.size()), -1, 0);
    (void)matcher->get_final_err();
    if (r != 1) {
        return -1;
    }
    TranRT(TranBackRT(matcher->get_final_transform()), rt16);
    model.free_all();
    return matcher->get_final_match_n();
}

bool CTPScan_Markpoint::staticStepTooLarge(const Eigen::Vector3d& previous,
                                           const Eigen::Vector3d& current) {
    return (current - previous).norm() > kStaticMaxStep;
}

int CTPScan_Markpoint::SetTrackDynamic(SDK_NV::tagScanData& frame, device::tagRefMarkpointData& out,
                                       double* rt16) {
    if (rt16 == nullptr) {
        return -1;
    }
    try {
        std::shared_ptr<Quill::MyMatchMarkClass_update> matcher = CreateMarkPointUpdate();
        // The reference keeps its normals here (its index was built with them at import); the
        // observed normals are zeroed below, and that alone keeps normals out of the match
        // (the matcher compares normals only where both sides know them).
        const std::shared_ptr<const ReferenceSet> ref = referenceSnapshot();
        std::vector<Quill::mark_data> moving;
        std::vector<Quill::mark_data> full;
        int frameValue = 0;
        if (!Frame2MarkPoint(frame, moving, frameValue, true)) {
            return -1;
        }
        full = moving;
        for (Quill::mark_data& m : moving) {
            m.nx = 0.0f;
            m.ny = 0.0f;
            m.nz = 0.0f;
        }
        const int r = matcher->MarkRegistration(moving.data(), static_cast<int>(moving.size()),
                                                ref->indexed, -1, 0);
        if (r != 1) {
            return -1;
        }
        const std::vector<int> flags = matcher->get_final_match_flag();
        const Eigen::Matrix4d T = matcher->get_final_transform();
        const std::size_t n = std::min(flags.size(), full.size());
        for (std::size_t i = 0; i < n; ++i) {
            if (flags[i] == -1) {
                continue;
            }
            PushData2RefrenceMarkPoint(full[i], out, true, T);
            out.labels.push_back(flags[i]);
        }
        TranRT(T, rt16);
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

int CTPScan_Markpoint::MarkPointSplit(const device::tagRefMarkpointData& moving,
                                      const device::tagRefMarkpointData& fixed, double* rt16) {
    if (rt16 == nullptr) {
        return -1;
    }
    try {
        std::shared_ptr<Quill::MyMatchMarkClass_update> matcher = CreateMarkPointUpdate();
        matcher->set_min_final_match_n(kSplitMinMatches);
        std::vector<Quill::mark_data> movingMarks;
        std::vector<Quill::mark_data> fixedMarks;
        if (!RefrenceMarkPoint2MarkPoint(moving, movingMarks) ||
            !RefrenceMarkPoint2MarkPoint(fixed, fixedMarks)) {
            return -1;
        }
        const int r = matcher->MarkRegistration(
            movingMarks.data(), static_cast<int>(movingMarks.size()), fixedMarks.data(),
            static_cast<int>(fixedMarks.size()), -1, 0);
        if (r != 1) {
            return -1;
        }
        TranRT(matcher->get_final_transform(), rt16);
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

// ---------------------------------------------------------------------------------------------
// Splicing
// ---------------------------------------------------------------------------------------------

int CTPScan_Markpoint::realtimeSpliceMarkpoint(
    const std::vector<float>& positions, const std::vector<float>& normals,
    const std::vector<float>& values, const std::vector<int>& labels,
    device::tagRefMarkpointData& model, device::tagRefMarkpointData& added, double rt[4][3]) {
    const std::size_t n = labels.size();
    if (model.labels.empty() || n == 0 || rt == nullptr) {
        return -1;
    }
    if (positions.size() < 3 * n || normals.size() < 3 * n || values.size() < n) {
        return -1;
    }
    try {
        std::shared_ptr<Quill::MyMatchMarkClass_update> matcher = CreateMarkPointUpdate();
        std::vector<Quill::mark_data> fixed;
        if (!RefrenceMarkPoint2MarkPoint(model, fixed)) {
            return -1;
        }
        const int m = static_cast<int>(fixed.size());
        std::vector<Quill::mark_data> moving(n);
        for (std::size_t i = 0; i < n; ++i) {
            moving[i].x = positions[3 * i];
            moving[i].y = positions[3 * i + 1];
            moving[i].z = positions[3 * i + 2];
            moving[i].value = values[i];
            moving[i].label = labels[i];
        }
        const int r =
            matcher->MarkRegistration(moving.data(), static_cast<int>(n), fixed.data(), m, -1, 0);
        if (r <= 0) {
            return -2;
        }
        // The normals take no part in the registration, only in the result.
        for (std::size_t i = 0; i < n; ++i) {
            moving[i].nx = normals[3 * i];
            moving[i].ny = normals[3 * i + 1];
            moving[i].nz = normals[3 * i + 2];
        }
        const std::vector<int> flags = matcher->get_final_match_flag();
        (void)matcher->get_final_match_n();
        const Eigen::Matrix4d T = matcher->get_final_transform();

        device::tagRefMarkpointData matched;
        device::tagRefMarkpointData fresh;
        // New markers are numbered from one below the old model's count: the first new label
        // equals the old model's last index. Hosts rely on this numbering.
        int nextLabel = m - 1;
        for (std::size_t i = 0; i < n; ++i) {
            const int flag = i < flags.size() ? flags[i] : -1;
            if (flag == -1) {
                PushData2RefrenceMarkPoint(moving[i], fresh, true, T);
                fresh.labels.push_back(nextLabel++);
            } else {
                matched.labels.push_back(flag);
                PushData2RefrenceMarkPoint(moving[i], matched, true, T);
            }
        }
        const Eigen::Matrix4d M = TranBackRT(T);
        model = std::move(matched);
        added = std::move(fresh);
        for (int c = 0; c < 4; ++c) {
            for (int r2 = 0; r2 < 3; ++r2) {
                rt[c][r2] = M(r2, c);
            }
        }
        return static_cast<int>(model.labels.size());
    } catch (const std::exception&) {
        return -1;
    }
}
