// The instruction sets of the laser and marker transforms (ScanMath.cpp), chosen at run time.
// Every path gives the same bits as the scalar routine; they differ in speed only.
#pragma once

namespace device {
namespace detail {

enum class SimdPath : int { Scalar = 0, Sse2 = 1, Avx2 = 2, Avx512 = 3 };

// "scalar", "sse2", "avx2" or "avx512" (the values of PATHFINDER_SIMD).
const char* simdPathName(SimdPath path);

// The widest path that this build and this processor can run.
SimdPath bestSimdPath();

// The path the transforms take. Chosen on first use: the one PATHFINDER_SIMD names, else the
// best. A named path the processor lacks gives the best it has below that one, and a value
// that names no path gives the best; either writes one line on standard output.
SimdPath simdPath();

// Makes the transforms take `path` from now on, with the same fallback (without a line), for
// benchmarks that compare the paths in one process. Returns the path taken.
SimdPath useSimdPath(SimdPath path);

}  // namespace detail
}  // namespace device
