// Cascade files, configuration files and output folders (host/Files.h).
#include "host/Files.h"

#include <Eigen/Dense>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/Platform.h"
#include "utils/ConfigEditor.h"

namespace host {

namespace {

static_assert(sizeof(double) == 8, "cascade files hold IEEE doubles");

constexpr size_t kCascadeIdBytes = 20;
constexpr size_t kCascadeEntryBytes = kCascadeIdBytes + 16 * sizeof(double);
constexpr int kCascadeMaxEntries = 4096;

[[noreturn]] void refuse(const std::string& message) {
    throw Error(kExitInputFile, message);
}

}  // namespace

std::vector<TransferMatrix> readCascadeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        refuse("cannot read " + path + ": " + std::strerror(errno));
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    int32_t count = 0;
    if (size < 4 || !in.read(reinterpret_cast<char*>(&count), 4)) {
        refuse(path + ": not a cascade file (shorter than its count)");
    }
    if (count < 0 || count > kCascadeMaxEntries) {
        refuse(path + ": not a cascade file (count " + std::to_string(count) + ")");
    }
    const std::streamoff expected =
        4 + static_cast<std::streamoff>(count) * static_cast<std::streamoff>(kCascadeEntryBytes);
    if (size != expected) {
        refuse(path + ": not a cascade file (" + std::to_string(size) + " bytes for " +
               std::to_string(count) + " entries, expected " + std::to_string(expected) + ")");
    }
    std::vector<TransferMatrix> out(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        char id[kCascadeIdBytes];
        TransferMatrix& e = out[static_cast<size_t>(i)];
        if (!in.read(id, sizeof(id)) ||
            !in.read(reinterpret_cast<char*>(e.matrix.data()), 16 * sizeof(double))) {
            refuse(path + ": truncated at entry " + std::to_string(i));
        }
        const size_t len = strnlen(id, sizeof(id));
        for (size_t k = 0; k < len; ++k) {
            const auto c = static_cast<unsigned char>(id[k]);
            if (c < 0x20 || c > 0x7e) {
                refuse(path + ": entry " + std::to_string(i) +
                       " has a tracker id that is not text");
            }
        }
        e.trackerId.assign(id, len);
        for (double v : e.matrix) {
            if (!std::isfinite(v)) {
                refuse(path + ": entry " + std::to_string(i) + " (" + e.trackerId +
                       ") has a non-finite matrix element");
            }
        }
    }
    return out;
}

void writeCascadeFile(const std::string& path, const std::vector<TransferMatrix>& matrices) {
    for (const TransferMatrix& e : matrices) {
        if (e.trackerId.size() > kCascadeIdBytes) {
            throw Error(kExitOutput, "tracker id longer than 20 bytes: " + e.trackerId);
        }
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        throw Error(kExitOutput, "cannot write " + path + ": " + std::strerror(errno));
    }
    const auto count = static_cast<int32_t>(matrices.size());
    out.write(reinterpret_cast<const char*>(&count), 4);
    for (const TransferMatrix& e : matrices) {
        char id[kCascadeIdBytes] = {};
        std::memcpy(id, e.trackerId.data(), e.trackerId.size());
        out.write(id, sizeof(id));
        out.write(reinterpret_cast<const char*>(e.matrix.data()), 16 * sizeof(double));
    }
    out.flush();
    if (!out) {
        throw Error(kExitOutput, "cannot write " + path);
    }
}

MatrixCheck checkTransferMatrix(const TransferMatrix& matrix) {
    const auto& m = matrix.matrix;
    Eigen::Matrix3d b;
    b << m[0], m[1], m[2], m[4], m[5], m[6], m[8], m[9], m[10];
    MatrixCheck check;
    check.determinant = b.determinant();
    check.orthogonality = (b * b.transpose() - Eigen::Matrix3d::Identity()).norm();
    check.rigid = !(check.orthogonality > 1e-6 || std::abs(m[15] - 1.0) > 1e-12);
    return check;
}

namespace {

// A configuration file loaded for reading or changing; the editor saves on close only when
// asked to (it would otherwise save when it is destroyed).
class ConfigFile {
public:
    ConfigFile(const std::string& path, bool binary) : m_path(path) {
        if (!platform::fileExists(path) || !std::ifstream(path)) {
            throw Error(kExitInputFile, "cannot read " + path);
        }
        if (!m_editor.load(platform::widePath(path), binary, true)) {
            throw Error(kExitInputFile, path + ": not a " +
                                            std::string(binary ? "binary" : "text") +
                                            " configuration file");
        }
    }
    ~ConfigFile() { m_editor.close(false); }
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

    std::string value(const std::string& key) {
        const std::wstring k = m_editor.toWString(key);
        std::wstring current;
        if (!m_editor.findKey(k, &current) || !m_editor.contains(k)) {
            throw Error(kExitUnknownKey, "unknown key " + key + " in " + m_path);
        }
        return m_editor.toString(current);
    }

    std::string m_path;
    zq::utils::CConfigEditor m_editor;
};

}  // namespace

std::vector<std::pair<std::string, std::string>> readConfigFile(const std::string& path,
                                                                bool binary) {
    ConfigFile file(path, binary);
    std::vector<std::wstring> keys;
    file.m_editor.getAllKeys(&keys);
    std::vector<std::pair<std::string, std::string>> out;
    for (const std::wstring& k : keys) {
        std::wstring v;
        file.m_editor.findKey(k, &v);
        out.emplace_back(file.m_editor.toString(k), file.m_editor.toString(v));
    }
    return out;
}

std::string configValue(const std::string& path, const std::string& key, bool binary) {
    ConfigFile file(path, binary);
    return file.value(key);
}

std::string changeConfigValue(const std::string& path, const std::string& key,
                              const std::string& value, bool binary) {
    ConfigFile file(path, binary);
    const std::string was = file.value(key);
    if (!file.m_editor.modify(key, value)) {
        throw Error(kExitFailure, "cannot change " + key);
    }
    if (!file.m_editor.save(true)) {
        throw Error(kExitOutput, "cannot write " + path);
    }
    return was;
}

void prepareOutputFolder(const std::string& dir) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!fs::is_directory(dir)) {
        throw Error(kExitOutput, "output folder not writable: " + dir +
                                     (ec ? " (" + ec.message() + ")" : std::string()));
    }
    const fs::path probe = fs::path(dir) / ".pathfinder-write-test";
    {
        std::ofstream out(probe);
        if (!out || !(out << "x") || !out.flush()) {
            throw Error(kExitOutput, "output folder not writable: " + dir);
        }
    }
    fs::remove(probe, ec);
}

}  // namespace host
