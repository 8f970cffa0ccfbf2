// Real-time registration of scan frames against a marker library that grows as it goes.
//
// Each call of MarkRegistration_loop registers one frame of observed markers (in the
// scanner's frame) against the library held by the global matcher (get_mark_match(0)).
// The first frame of an empty library seeds it and defines the library's frame. With
// real-time update on, matched library markers are refined by the new observation; with
// new-add on, unmatched frame markers enter the library. Every registered frame's transform
// and its observations are kept for the optimiser (MarkOpt_class).
//
// Not thread-safe: one thread at a time per object. No operation throws.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <vector>

#include "quill/MarkTypes.h"
#include "quill/MyMatchMarkClass_update.h"

namespace Quill {

class MyRealTimeMarkMatch_class {
public:
    MyRealTimeMarkMatch_class();
    ~MyRealTimeMarkMatch_class();
    MyRealTimeMarkMatch_class(const MyRealTimeMarkMatch_class&) = delete;
    MyRealTimeMarkMatch_class& operator=(const MyRealTimeMarkMatch_class&) = delete;

    // Sets up an empty library for at most `maxLibraryMarks` markers and `maxFrames`
    // recorded frames, with `camCount` matchers (the first is the global one holding the
    // library). Calling it again starts over. Returns 1, or 0 on invalid arguments.
    int init_all(int maxLibraryMarks, int maxFrames, int camCount);
    // Releases the library, the frames and the matchers. Returns 1 if there was anything to
    // release, else 0.
    int free_all();

    // Most base triangles tried per frame registration (values below 1 mean automatic).
    void set_max_count_lib2lib(int count);
    // Weight cap of the running mean that refines a library marker: after `w` observations
    // a new one moves it by 1/(w+1) of the difference. Values below 1 mean 1.
    void set_mark_point_w(int w);

    // The four behaviour flags (non-zero = on). Defaults: update 1, new-add 1,
    // only-from-global 1, temporary library 0.
    void set_if_real_time_update_mark(int on);   // refine matched library markers
    void set_if_real_time_new_add_mark(int on);  // add unmatched frame markers
    // With the temporary library on, new markers wait in it until a second frame confirms
    // them; with only-from-global on, hypotheses are formed from confirmed markers only.
    void set_if_only_match_from_glomark(int on);
    void set_if_use_temporary_library(int on);

    // Registers one frame. Returns 1 when the frame was registered (or seeded the library),
    // 0 when it could not be registered (nothing changes), -1 on invalid arguments or before
    // init_all. get_final_match_n() tells how many frame markers matched library markers (for
    // the seeding frame: how many it put in the library). `frameValue` is stored with the frame.
    int MarkRegistration_loop(mark_data* marks, int count, int frameValue);

    // Results of the last MarkRegistration_loop.
    std::vector<int> get_final_match_flag() const;  // library index per frame marker, or -1
    int get_final_match_n() const;
    Eigen::Matrix4d get_final_transform() const;  // frame -> library: p_lib = T * p_frame

    // Transforms (frame -> library) of every frame registered so far, in order, for camera
    // group `cam` (0: the global library). Empty for an unknown group.
    std::vector<Eigen::Matrix4d> get_final_rt_array(int cam) const;
    std::vector<int> get_frame_values() const;  // the frameValue of each recorded frame

    int get_cam_n() const;  // number of per-camera matchers (0 before init_all)
    // Per-camera matcher `cam`, the first (0) being the global one; nullptr when out of
    // range or before init_all. The object stays owned by this matcher.
    MyMatchMarkClass_update* get_mark_match(int cam);

private:
    struct State;
    std::unique_ptr<State> d_;
};

}  // namespace Quill
