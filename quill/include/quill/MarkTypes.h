// Records exchanged between the tracking code and the Quill matchers and optimiser.
// Their binary layouts are fixed: other code fills them by offset, so every field
// position is checked at compile time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Quill {

// One observed or reference marker (296 bytes).
//
// The matchers read the position, the normal, the label and the value. A normal of
// (0, 0, 0) means "unknown": such a marker takes part in registration without any normal
// test. The camera block (image coordinates and the two camera parameter sets) is carried
// along untouched for callers that keep it; the matchers do not read it.
struct mark_data {
    float x = 0.0f;  // position, millimetres
    float y = 0.0f;
    float z = 0.0f;
    float nx = 0.0f;  // unit normal, or all zero when unknown
    float ny = 0.0f;
    float nz = 0.0f;
    float img[4] = {0.0f, 0.0f, 0.0f, 0.0f};    // image x, y in the first camera, then the second
    std::int32_t label = -1;                    // caller's label, kept with the marker
    std::int32_t state = 0;                     // matcher scratch; ignored on input
    std::int64_t words_a[5] = {0, 0, 0, 0, 0};  // first run of caller words, zeroed before filling
    std::int64_t words_b[5] = {0, 0, 0, 0, 0};  // second run of caller words
    double cam_matrix[12] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    double cam_param[8] = {0.0, 0.0, 0.0, 0.0,
                           0.0, 0.0, 0.0, 0.0};  // first camera's four, then the second's
    double value = 0.0;                          // per-marker value (for example the blob quality)
};

static_assert(sizeof(mark_data) == 296, "mark_data must be 296 bytes");
static_assert(offsetof(mark_data, x) == 0 && offsetof(mark_data, y) == 4 &&
                  offsetof(mark_data, z) == 8,
              "mark_data position offsets");
static_assert(offsetof(mark_data, nx) == 12 && offsetof(mark_data, ny) == 16 &&
                  offsetof(mark_data, nz) == 20,
              "mark_data normal offsets");
static_assert(offsetof(mark_data, img) == 24, "mark_data image coordinates at 24");
static_assert(offsetof(mark_data, label) == 40, "mark_data label at 40");
static_assert(offsetof(mark_data, words_a) == 48, "mark_data first word run at 48");
static_assert(offsetof(mark_data, words_b) == 88, "mark_data second word run at 88");
static_assert(offsetof(mark_data, cam_matrix) == 128, "mark_data camera matrices at 128");
static_assert(offsetof(mark_data, cam_param) == 224, "mark_data camera parameters at 224");
static_assert(offsetof(mark_data, value) == 288, "mark_data value at 288");

// One optimised marker of a marker model (56 bytes, fourteen floats).
struct mcXYZ_Nor_s {
    float x = 0.0f;  // optimised position, millimetres, in the library's frame
    float y = 0.0f;
    float z = 0.0f;
    float nx = 0.0f;  // mean observed normal (unit), or zero when never observed with one
    float ny = 0.0f;
    float nz = 0.0f;
    float rms = 0.0f;           // RMS distance of its observations from the optimised position
    float frames = 0.0f;        // number of frames that observed it
    float source_label = 0.0f;  // label the marker carried when it entered the library
    float value = 0.0f;         // per-marker value
    float label = -1.0f;  // index of the marker in the library; negative: leave the record out
    float reserved[3] = {0.0f, 0.0f, 0.0f};
};

static_assert(sizeof(mcXYZ_Nor_s) == 56, "mcXYZ_Nor_s must be 56 bytes");
static_assert(offsetof(mcXYZ_Nor_s, x) == 0 && offsetof(mcXYZ_Nor_s, nx) == 12,
              "mcXYZ_Nor_s position and normal");
static_assert(offsetof(mcXYZ_Nor_s, value) == 9 * sizeof(float), "mcXYZ_Nor_s value is float 9");
static_assert(offsetof(mcXYZ_Nor_s, label) == 10 * sizeof(float), "mcXYZ_Nor_s label is float 10");

}  // namespace Quill
