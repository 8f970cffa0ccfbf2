#include "Truth.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "System.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"

namespace pfapp {

namespace fs = std::filesystem;

bool readMarkerTable(const std::string& path, std::map<int32_t, Eigen::Vector3d>& markers,
                     std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        std::istringstream fields(line);
        long id = 0;
        double x = 0, y = 0, z = 0;
        if (!(fields >> id >> x >> y >> z)) {
            error = path + ":" + std::to_string(number) + ": not a marker line";
            return false;
        }
        markers[static_cast<int32_t>(id)] = Eigen::Vector3d(x, y, z);
    }
    return true;
}

std::optional<Truth> loadTruthFolder(const std::string& dir, std::string& error) {
    Truth truth;
    truth.folder = dir;
    const fs::path base(dir);
    if (!fs::exists(base / "markers.txt") || !fs::exists(base / "cascade.bin")) {
        error = "no truth files in " + dir;
        return std::nullopt;
    }
    if (!readMarkerTable((base / "markers.txt").string(), truth.markers, error) ||
        !readCascadeFile((base / "cascade.bin").string(), truth.matrices, error)) {
        return std::nullopt;
    }
    return truth;
}

std::optional<Truth> exportTruth(const std::string& consoleProgram,
                                 const std::vector<std::string>& sceneArgs,
                                 const std::string& dir) {
    std::string program = consoleProgram;
    if (program.empty() && !platform::getEnvironment("PATHFINDER_CONSOLE", program)) {
        program = platform::joinPath(platform::nativePath(device::getAnnexPath()),
                                     std::string("Lumora/lumora_console"));
    }
    std::error_code ec;
    fs::create_directories(dir, ec);
    std::vector<std::string> args{"--export-truth", dir};
    args.insert(args.end(), sceneArgs.begin(), sceneArgs.end());
    auto log = std::make_shared<std::ofstream>((fs::path(dir) / "export.log").string());
    ChildProcess child;
    std::string error;
    if (!child.start(
            program, args, [log](const std::string& l) { *log << l << '\n'; }, error)) {
        std::printf("truth: %s\n", error.c_str());
        return std::nullopt;
    }
    for (int i = 0; i < 600 && child.alive(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    child.stop();
    std::optional<Truth> truth = loadTruthFolder(dir, error);
    if (!truth) {
        std::printf("truth: this console exports none; no accuracy figures\n");
        fs::remove_all(dir, ec);
    }
    return truth;
}

}  // namespace pfapp
