// Files a host reads and writes without a device: cascade files of chained trackers, the
// module's configuration files, a scan's cloud and a scene's truth. Failures are Error with the
// exit code and one line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/Records.h"

namespace host {

// Cascade file: int32 count N, then N entries of a 20-byte tracker id (ASCII, NUL-padded) and
// 16 doubles (the transfer matrix), little-endian. Reading refuses a damaged file outright
// (size not matching the count, negative or huge count, non-finite matrix, id not text):
// Error(kExitInputFile). Writing: Error(kExitOutput), also for an id longer than 20 bytes.
std::vector<TransferMatrix> readCascadeFile(const std::string& path);
void writeCascadeFile(const std::string& path, const std::vector<TransferMatrix>& matrices);

// How rigid a matrix is: det(B), |B·B^T - I| and whether both and element 15 are as they
// should be.
struct MatrixCheck {
    double determinant = 1.0;
    double orthogonality = 0.0;
    bool rigid = true;
};
MatrixCheck checkTransferMatrix(const TransferMatrix& matrix);

// Configuration files through the module's configuration editor (notes and layout kept; text
// form, or the scrambled binary form). An unreadable file is Error(kExitInputFile), a key
// that is not in it Error(kExitUnknownKey); reading never rewrites the file.
std::vector<std::pair<std::string, std::string>> readConfigFile(const std::string& path,
                                                                bool binary);
std::string configValue(const std::string& path, const std::string& key, bool binary);
// Changes one key in place and saves; returns the value it had.
std::string changeConfigValue(const std::string& path, const std::string& key,
                              const std::string& value, bool binary);

// The output folder: created when missing and checked for writing; Error(kExitOutput) when
// it cannot be written.
void prepareOutputFolder(const std::string& dir);

// A cloud written as scan.ply (x y z, with normals when the file has them); an unreadable file
// or one without points is Error(kExitInputFile).
Cloud readPlyFile(const std::string& path);

struct Truth;

// The true part of a scene (a truth folder the console exports: part.ply, scene.json, ...), to
// measure points against. Copies share the loaded surface; an empty one has none. Its methods
// may be called from any thread.
class TruthSurface {
public:
    TruthSurface() = default;
    explicit TruthSurface(std::shared_ptr<const Truth> truth) : m_truth(std::move(truth)) {}
    // Error(kExitInputFile) when the folder is not a readable truth export.
    static TruthSurface load(const std::string& dir);

    bool valid() const;
    // Distances of `count` points (x, y, z, mm, reference frame) to the true part into `out`;
    // false (and nothing written) when there is no surface.
    bool distances(const float* points, size_t count, float* out) const;
    // The scene's laser noise (0: unknown); scan.png's colour scale ends at three times it.
    double noiseSigmaMm() const;

private:
    std::shared_ptr<const Truth> m_truth;
};

// The colour scale of the host's pictures (scan.png), low to high: 256 entries of r, g, b.
std::array<uint8_t, 768> colourScale();

}  // namespace host
