// The cascade file of chained trackers: int32 count N, then N entries of a 20-byte tracker id
// (ASCII, NUL-padded) and 16 doubles (the transfer matrix, p_K = B·p_W + T), little-endian.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace pfapp {

struct CascadeEntry {
    std::string trackerId;
    std::array<double, 16> matrix{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

constexpr size_t kCascadeIdBytes = 20;
constexpr size_t kCascadeEntryBytes = kCascadeIdBytes + 16 * sizeof(double);
constexpr int kCascadeMaxEntries = 4096;

// False with a one-line `error` when the file cannot be read or is not a cascade file (size
// not matching the count, negative or huge count, non-finite matrix, id not ASCII).
bool readCascadeFile(const std::string& path, std::vector<CascadeEntry>& entries,
                     std::string& error);
// False with `error` when the file cannot be written or an id is longer than 20 bytes.
bool writeCascadeFile(const std::string& path, const std::vector<CascadeEntry>& entries,
                      std::string& error);

}  // namespace pfapp
