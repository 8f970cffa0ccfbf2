// Joint refinement of a marker model: all library marker positions and all frame poses
// from every recorded observation (a bundle adjustment in 3D). The marker positions are
// eliminated (each is the mean of its transformed observations), and the poses are refined
// by Gauss-Newton steps with Levenberg-Marquardt step control: a step that raises the cost is
// taken back and the damping raised, so a poor start or an outlier frame cannot make the
// iteration diverge. Observations far from their marker are gated out between steps.
//
// Not thread-safe: one thread at a time per object. No operation throws.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <vector>

#include "quill/MarkTypes.h"
#include "quill/MyMatchMarkClass_update.h"

namespace Quill {

class MarkOpt_class {
public:
    MarkOpt_class();
    ~MarkOpt_class();
    MarkOpt_class(const MarkOpt_class&) = delete;
    MarkOpt_class& operator=(const MarkOpt_class&) = delete;

    // Camera image size in pixels; kept with the model, the 3D refinement does not use it.
    void set_wh(int width, int height);

    // Refines the library of `global` over the first `frameCount` frames of
    // `frameTransforms` (frame -> library, as given by the real-time matcher) and the
    // observations `global` recorded for them. The refined poses are written back into
    // `frameTransforms`. Iterations stop when a step changes the residual sum of squares by
    // less than `stopPercent` percent (converged), or after `maxIterations` trial steps
    // (taken back ones included). Returns 1 when converged, 2 when stopped by the iteration
    // limit (or when no step lowered the cost any more) with the best model reached so far;
    // both deliver results in get_Mark_data. 0 when there is nothing to refine or the
    // arguments are invalid. The library itself is not changed.
    int Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
        MyMatchMarkClass_update* global, std::vector<Eigen::Matrix4d>& frameTransforms,
        int frameCount, float stopPercent, int maxIterations);

    // The optimised markers, one record per library index (retired markers and markers seen
    // in fewer than two frames carry a negative label). The array stays owned by this object
    // and is valid until the next run or its destruction; nullptr and count 0 before a
    // successful run.
    mcXYZ_Nor_s* get_Mark_data(int& count);

    // Diagnostics of the last run.
    int get_iterations() const;  // trial steps made
    double get_rms() const;      // RMS observation residual (mm) after the run
    bool get_converged() const;  // false after a stop at the iteration limit

    // Step control on (the default) or off: off takes every Gauss-Newton step as it comes,
    // for comparison in tests and benchmarks.
    void set_step_control(bool on);

private:
    struct State;
    std::unique_ptr<State> d_;
};

}  // namespace Quill
