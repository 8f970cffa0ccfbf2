#include "CascadeFile.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

namespace pfapp {

static_assert(sizeof(double) == 8, "cascade files hold IEEE doubles");

bool readCascadeFile(const std::string& path, std::vector<CascadeEntry>& entries,
                     std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    int32_t count = 0;
    if (size < 4 || !in.read(reinterpret_cast<char*>(&count), 4)) {
        error = path + ": not a cascade file (shorter than its count)";
        return false;
    }
    if (count < 0 || count > kCascadeMaxEntries) {
        error = path + ": not a cascade file (count " + std::to_string(count) + ")";
        return false;
    }
    const std::streamoff expected =
        4 + static_cast<std::streamoff>(count) * static_cast<std::streamoff>(kCascadeEntryBytes);
    if (size != expected) {
        error = path + ": not a cascade file (" + std::to_string(size) + " bytes for " +
                std::to_string(count) + " entries, expected " + std::to_string(expected) + ")";
        return false;
    }
    std::vector<CascadeEntry> out(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        char id[kCascadeIdBytes];
        CascadeEntry& e = out[static_cast<size_t>(i)];
        if (!in.read(id, sizeof(id)) ||
            !in.read(reinterpret_cast<char*>(e.matrix.data()), 16 * sizeof(double))) {
            error = path + ": truncated at entry " + std::to_string(i);
            return false;
        }
        const size_t len = strnlen(id, sizeof(id));
        for (size_t k = 0; k < len; ++k) {
            const auto c = static_cast<unsigned char>(id[k]);
            if (c < 0x20 || c > 0x7e) {
                error =
                    path + ": entry " + std::to_string(i) + " has a tracker id that is not text";
                return false;
            }
        }
        e.trackerId.assign(id, len);
        for (double v : e.matrix) {
            if (!std::isfinite(v)) {
                error = path + ": entry " + std::to_string(i) + " (" + e.trackerId +
                        ") has a non-finite matrix element";
                return false;
            }
        }
    }
    entries = std::move(out);
    return true;
}

bool writeCascadeFile(const std::string& path, const std::vector<CascadeEntry>& entries,
                      std::string& error) {
    for (const CascadeEntry& e : entries) {
        if (e.trackerId.size() > kCascadeIdBytes) {
            error = "tracker id longer than 20 bytes: " + e.trackerId;
            return false;
        }
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    const auto count = static_cast<int32_t>(entries.size());
    out.write(reinterpret_cast<const char*>(&count), 4);
    for (const CascadeEntry& e : entries) {
        char id[kCascadeIdBytes] = {};
        std::memcpy(id, e.trackerId.data(), e.trackerId.size());
        out.write(id, sizeof(id));
        out.write(reinterpret_cast<const char*>(e.matrix.data()), 16 * sizeof(double));
    }
    out.flush();
    if (!out) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace pfapp
