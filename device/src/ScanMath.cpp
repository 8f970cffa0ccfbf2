// Matrix and point routines of the scan pipeline.
//
// Every sum below is written out term by term in the order the results are defined by, and the
// module is compiled with -ffp-contract=off (device/CMakeLists.txt) so that no build type fuses
// a product and a sum into one rounding: results are bit-identical across build types.
//
// Layout of a 4x4 matrix M (16 doubles): block B(r,c) = M[4r+c], translation T = M[12..14].
// A stored transfer matrix is read on column vectors (p -> B.p + T), a reverse matrix and a
// pose on row vectors (x -> x.B + T).
#include <cstring>

#include "device/Pathfinder.h"
#include "sdk/Records.h"

namespace device {

namespace {

// Double -> float -> double. The narrowing is part of the result; the unit tests check its
// bit patterns in the release build, where the loops are vectorised.
inline double roundToFloat(double v) {
    return static_cast<double>(static_cast<float>(v));
}

}  // namespace

void CPathfinder::getReverseTransferMatrix(double* const in, double* const out, bool bTranspose,
                                           bool bRowTranslate) {
    double src[16];
    std::memcpy(src, in, sizeof(src));
    for (int i = 0; i < 16; ++i) {
        out[i] = 0.0;
    }
    out[15] = 1.0;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            out[4 * r + c] = bTranspose ? src[4 * c + r] : src[4 * r + c];
        }
    }
    const double t0 = src[12];
    const double t1 = src[13];
    const double t2 = src[14];
    for (int i = 0; i < 3; ++i) {
        if (bRowTranslate) {
            out[12 + i] = -(out[4 * i + 0] * t0) - out[4 * i + 1] * t1 - out[4 * i + 2] * t2;
        } else {
            out[12 + i] = -(out[0 + i] * t0) - out[4 + i] * t1 - out[8 + i] * t2;
        }
    }
}

void CPathfinder::getTransposeRotateMatrix(double* const in, double* const out) {
    double src[16];
    std::memcpy(src, in, sizeof(src));
    std::memcpy(out, src, sizeof(src));
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            out[4 * r + c] = src[4 * c + r];
        }
    }
}

void CPathfinder::getTransfromRT(const double* const M, const double (*Rin)[3],
                                 const double* const tin, double (*Rout)[3], double* const tout) {
    for (int i = 0; i < 3; ++i) {
        for (int c = 0; c < 3; ++c) {
            double s = 0.0;
            s = s + Rin[i][0] * M[0 + c];
            s = s + Rin[i][1] * M[4 + c];
            s = s + Rin[i][2] * M[8 + c];
            Rout[i][c] = s;
        }
    }
    for (int c = 0; c < 3; ++c) {
        const double u = M[12] * M[0 + c] + M[13] * M[4 + c] + M[14] * M[8 + c];
        const double v = tin[0] * M[0 + c] + tin[1] * M[4 + c] + tin[2] * M[8 + c];
        tout[c] = v - u;
    }
}

// The laser transform works in place: each point reads its own three values before it writes
// them, so the result equals that of a separate result vector, without its allocation.
void CPathfinder::TransformScanData_Laser(std::vector<float>& pts, const double* const M,
                                          bool bColumn) {
    const int32_t n = static_cast<int32_t>(pts.size()) / 3;
    const size_t used = 3 * static_cast<size_t>(n > 0 ? n : 0);
    float* p = pts.data();
    const double m0 = M[0], m1 = M[1], m2 = M[2], m4 = M[4], m5 = M[5], m6 = M[6];
    const double m8 = M[8], m9 = M[9], m10 = M[10], m12 = M[12], m13 = M[13], m14 = M[14];
    if (bColumn) {
        for (size_t i = 0; i < used; i += 3) {
            const double x = p[i], y = p[i + 1], z = p[i + 2];
            const double xr = y * m1 + x * m0 + z * m2 + m12;
            const double yr = y * m5 + x * m4 + z * m6 + m13;
            const double zr = y * m9 + x * m8 + z * m10 + m14;
            p[i] = static_cast<float>(xr);
            p[i + 1] = static_cast<float>(yr);
            p[i + 2] = static_cast<float>(zr);
        }
    } else {
        for (size_t i = 0; i < used; i += 3) {
            const double x = p[i], y = p[i + 1], z = p[i + 2];
            const double xr = y * m4 + x * m0 + z * m8 + m12;
            const double yr = x * m1 + y * m5 + z * m9 + m13;
            const double zr = x * m2 + y * m6 + z * m10 + m14;
            p[i] = static_cast<float>(xr);
            p[i + 1] = static_cast<float>(yr);
            p[i + 2] = static_cast<float>(zr);
        }
    }
    for (size_t i = used; i < pts.size(); ++i) {
        pts[i] = 0.0f;
    }
}

void CPathfinder::TransformScanData_MarkPoint(std::vector<double>& pts, const double* const M,
                                              bool bColumn) {
    const int32_t n = static_cast<int32_t>(pts.size()) / 3;
    const size_t used = 3 * static_cast<size_t>(n > 0 ? n : 0);
    double* p = pts.data();
    const double m0 = M[0], m1 = M[1], m2 = M[2], m4 = M[4], m5 = M[5], m6 = M[6];
    const double m8 = M[8], m9 = M[9], m10 = M[10], m12 = M[12], m13 = M[13], m14 = M[14];
    for (size_t i = 0; i < used; i += 3) {
        const double x = roundToFloat(p[i]);
        const double y = roundToFloat(p[i + 1]);
        const double z = roundToFloat(p[i + 2]);
        double xr, yr, zr;
        if (bColumn) {
            xr = y * m1 + x * m0 + z * m2 + m12;
            yr = y * m5 + x * m4 + z * m6 + m13;
            zr = y * m9 + x * m8 + z * m10 + m14;
        } else {
            xr = y * m4 + x * m0 + z * m8 + m12;
            yr = x * m1 + y * m5 + z * m9 + m13;
            zr = x * m2 + y * m6 + z * m10 + m14;
        }
        p[i] = roundToFloat(xr);
        p[i + 1] = roundToFloat(yr);
        p[i + 2] = roundToFloat(zr);
    }
    for (size_t i = used; i < pts.size(); ++i) {
        pts[i] = 0.0;
    }
}

namespace {

// Row-vector point map through float precision: p' = p.B + T.
void mapHolePoint(const float in[3], const double* M, float out[3]) {
    const double x = in[0], y = in[1], z = in[2];
    for (int c = 0; c < 3; ++c) {
        out[c] = static_cast<float>(x * M[0 + c] + y * M[4 + c] + z * M[8 + c] + M[12 + c]);
    }
}

// Row-vector direction map by the block alone: d' = d.B.
void mapHoleDirection(const float in[3], const double* M, float out[3]) {
    const double x = in[0], y = in[1], z = in[2];
    for (int c = 0; c < 3; ++c) {
        out[c] = static_cast<float>(x * M[0 + c] + y * M[4 + c] + z * M[8 + c]);
    }
}

}  // namespace

// Field mapping (device/README.md): state, type, centre, direction, radius as they are;
// fitInfo = {id, width, height, depth}; cameraCount 0 and the two ellipses zero (the SDK's hole
// record carries no image data); edgePoints = the rim points.
void CPathfinder::TransformScanData_Hole(const std::vector<SDK_NV::tagHoleData>& holes,
                                         double* const pose, const bool& transform, const double* M,
                                         std::vector<tagScanHoleData>& out) {
    std::vector<tagScanHoleData> built;
    built.reserve(holes.size());
    for (const SDK_NV::tagHoleData& h : holes) {
        if (h.nState >= 201) {
            continue;
        }
        tagScanHoleData d;
        d.state = h.nState;
        d.type = h.nType;
        d.radius = h.fRadius;
        d.fitInfo = {static_cast<float>(h.nId), h.fWidth, h.fHeight, h.fDepth};
        const size_t rim = h.vecEdgePoints.size() / 3 * 3;
        d.edgePoints.resize(h.vecEdgePoints.size(), 0.0f);
        if (transform) {
            mapHolePoint(h.fCenter, M, d.center);
            mapHoleDirection(h.fDirection, M, d.direction);
            for (size_t i = 0; i < rim; i += 3) {
                mapHolePoint(&h.vecEdgePoints[i], M, &d.edgePoints[i]);
            }
        } else {
            std::memcpy(d.center, h.fCenter, sizeof(d.center));
            std::memcpy(d.direction, h.fDirection, sizeof(d.direction));
            std::copy(h.vecEdgePoints.begin(), h.vecEdgePoints.end(), d.edgePoints.begin());
        }
        built.push_back(std::move(d));
    }
    if (transform) {
        double P[12];
        std::memcpy(P, pose, sizeof(P));
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) {
                pose[3 * r + c] =
                    P[3 * r + 0] * M[0 + c] + P[3 * r + 1] * M[4 + c] + P[3 * r + 2] * M[8 + c];
            }
        }
        for (int c = 0; c < 3; ++c) {
            pose[9 + c] = P[9] * M[0 + c] + P[10] * M[4 + c] + P[11] * M[8 + c] + M[12 + c];
        }
    }
    out = std::move(built);
}

}  // namespace device
