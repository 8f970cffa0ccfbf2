// Joint refinement of a marker model: all library marker positions and all frame poses
// from every recorded observation (a bundle adjustment in 3D, solved by alternating least
// squares with outlier gating).
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
    // `frameTransforms`. Iterations stop when one lowers the residual sum of squares by less
    // than `stopPercent` percent, or after `maxIterations`. Returns 1 on success (results in
    // get_Mark_data), 0 when there is nothing to refine or the arguments are invalid.
    // The library itself is not changed.
    int Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
        MyMatchMarkClass_update* global, std::vector<Eigen::Matrix4d>& frameTransforms,
        int frameCount, float stopPercent, int maxIterations);

    // The optimised markers, one record per library index (retired markers and markers seen
    // in fewer than two frames carry a negative label). The array stays owned by this object
    // and is valid until the next run or its destruction; nullptr and count 0 before a
    // successful run.
    mcXYZ_Nor_s* get_Mark_data(int& count);

    // Diagnostics of the last run.
    int get_iterations() const;
    double get_rms() const;  // RMS observation residual (mm) after the run

private:
    struct State;
    std::unique_ptr<State> d_;
};

}  // namespace Quill
