// Marker-set registration without known correspondences.
//
// A MyMatchMarkClass_update finds the rigid transform that carries a moving marker set onto
// a fixed one, using only the geometry (and, when known, the normals) of the markers. It
// either returns a transform it can vouch for or fails: a match is refused when it is not
// supported by enough markers, fits worse than the configured error, or when a second,
// different transform explains the data almost as well (regular marker grids).
//
// It also holds a marker library (the "global" marker set) that a real-time matcher grows
// frame by frame and that the optimiser refines; see MyRealTimeMarkMatch_class and
// MarkOpt_class.
//
// Not thread-safe: one thread at a time per object. No operation throws.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <memory>
#include <vector>

#include <pcl/point_cloud.h>
#include <pcl/point_types.h>

#include "quill/MarkTypes.h"

namespace Quill {

class MyRealTimeMarkMatch_class;
class MarkOpt_class;

namespace detail {
struct MatcherState;
struct IndexedMarkSetState;
}  // namespace detail

// A fixed marker set indexed once for many one-off registrations against it (a tracker's
// reference set): MarkRegistration against it gives the same results as against the plain
// array, without indexing the set on every call. Immutable once built, so several threads
// may register against one set at the same time, each with its own matcher.
class IndexedMarkSet {
public:
    IndexedMarkSet();
    ~IndexedMarkSet();
    IndexedMarkSet(const IndexedMarkSet&) = delete;
    IndexedMarkSet& operator=(const IndexedMarkSet&) = delete;

    // Copies and indexes the first m markers of `fixed` for matchers whose same-target
    // distance (max_near_same_mark_dis) is `sameTargetDistance`; a matcher with another
    // distance indexes the copy per call. Returns false, leaving an empty set that every
    // registration refuses as bad input, for an unusable array (null with a positive count,
    // a negative or absurd count). No exception leaves it (false on lack of memory).
    bool build(const mark_data* fixed, int m, float sameTargetDistance);
    int size() const;  // markers copied (m), 0 before build

private:
    friend class MyMatchMarkClass_update;
    std::unique_ptr<detail::IndexedMarkSetState> d_;
};

// The eleven settings of a matcher. Distances are millimetres, cosines are plain numbers.
struct MatchSettings {
    int use_nor = 1;              // use normals (when both sides know them) to prune
    float diff_nor_cos = 0.2f;    // tolerance on rigid-invariant normal cosines
    float max_final_err = 0.15f;  // largest RMS inlier residual of an accepted match
    float max_inline_mark_dis =
        0.5f;  // a transformed moving marker this near a fixed one is an inlier
    float max_mark2mark_dis = 1.0f;        // tolerance on marker-to-marker distances in lookups
    float max_nor_cos = 0.7f;              // smallest cosine between matched normals
    int min_final_match_n = 5;             // fewest matched markers of an accepted match
    float max_near_same_mark_dis = 3.0f;   // markers nearer than this are one target
    float max_err_for_three_mark = 0.02f;  // largest mean squared residual (mm^2) of a 3-marker fit
    float max_second_final_err = 0.05f;    // margin (mm^2) the best match must keep over any other
    float su_point_percentage = 0.0f;      // smallest matched fraction of the moving markers (0..1)
};

// Why the last registration ended as it did (get_final_status()).
enum MatchStatus : int {
    kMatchOk = 1,
    kMatchNotRun = 0,
    kMatchBadInput = -1,       // null pointer, negative or absurd count, non-finite coordinates
    kMatchTooFewMarkers = -2,  // fewer usable markers than a match needs
    kMatchNoHypothesis = -3,   // no three-marker hypothesis reached the minimum support
    kMatchAmbiguous = -4,      // a different transform explains the data almost as well
    kMatchErrorTooLarge = -5,  // best match fits worse than max_final_err
    kMatchNoMemory = -6,
};

class MyMatchMarkClass_update {
public:
    MyMatchMarkClass_update();
    ~MyMatchMarkClass_update();
    MyMatchMarkClass_update(const MyMatchMarkClass_update&) = delete;
    MyMatchMarkClass_update& operator=(const MyMatchMarkClass_update&) = delete;

    // --- the eleven settings (see MatchSettings for units and meaning) ---
    void set_use_nor(int on);
    void set_diff_nor_cos(float cosTolerance);
    void set_max_final_err(float mm);
    void set_max_inline_mark_dis(float mm);
    void set_max_mark2mark_dis(float mm);
    void set_max_nor_cos(float minCos);
    void set_min_final_match_n(int count);
    void set_max_near_same_mark_dis(float mm);
    void set_max_err_for_three_mark(float mm2);
    void set_max_second_final_err(float mm2);
    void set_su_point_percentage(float fraction);
    const MatchSettings& get_settings() const;

    // --- one-off registration ---

    // Registers `moving` (n markers) onto `fixed` (m markers). Returns 1 on success, 0 when
    // no acceptable match exists (too few markers, no hypothesis, ambiguous, error too large)
    // and -1 on invalid arguments. `maxTries` bounds the number of three-marker base
    // triangles of the moving set that are tried (-1: automatic); `seed` varies the order in
    // which they are tried (0 is fine). The fixed set's index is built by this call.
    int MarkRegistration(mark_data* moving, int n, mark_data* fixed, int m, int maxTries, int seed);
    // The same against a set indexed beforehand; same results as against its markers.
    int MarkRegistration(mark_data* moving, int n, const IndexedMarkSet& fixed, int maxTries,
                         int seed);

    // Results of the last registration (this one or the real-time matcher's through it).
    // The transform carries moving coordinates onto fixed ones: p_fixed = T * p_moving.
    Eigen::Matrix4d get_final_transform() const;
    int get_final_match_n() const;  // matched markers, 0 after a failure
    float get_final_err() const;    // RMS inlier residual (mm) of the accepted match, else 0
    // One entry per moving marker: index of the matched fixed marker (library index for
    // the library), or -1.
    std::vector<int> get_final_match_flag() const;
    int get_final_status() const;  // a MatchStatus

    // --- the marker library held by this matcher ---

    // Replaces the library with the first `count` points of `cloud` (position, normal,
    // curvature = value; label = index). Observations and frames recorded so far are dropped.
    void set_glo_mark(pcl::PointCloud<pcl::PointNormal>& cloud, int count);
    // Merges library markers nearer than max_near_same_mark_dis into one target; the merged
    // position is the mean weighted by observation counts, each capped at `weightCap`
    // (values below 1 mean 1). The surviving marker keeps the smaller index; the other is
    // retired (its index is not reused) and its observations move over.
    void MergeSameTgt(int weightCap);
    int get_glo_mark_n() const;  // live library markers
    // Library marker `index` (position, normal, value, label) into `out`; false if retired
    // or out of range.
    bool get_glo_mark(int index, mark_data& out) const;
    // Bytes held by the library, its indexes and its observation store.
    std::size_t get_memory_bytes() const;

private:
    friend class MyRealTimeMarkMatch_class;
    friend class MarkOpt_class;
    int registerAgainst(mark_data* moving, int n, const mark_data* fixed, int m,
                        const detail::IndexedMarkSetState* indexed, int maxTries, int seed);
    std::unique_ptr<detail::MatcherState> d_;
};

}  // namespace Quill
