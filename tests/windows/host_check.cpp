// A host of the device module as a measuring application is one: it links the module, constructs
// device::CPathfinder, registers its handlers and steers it through the host interface.
// scripts/windows-check.sh builds it for Windows, runs it under Wine against the native Linux
// console, and builds it natively to compare: the same source on both sides.
//
//   host_check scan OUT [--frames N] [--truth DIR]   live: init(), the transfer matrices measured
//       against DIR/markers.txt (saved as OUT.cascade), a scan until N frames (default 120) with
//       laser points arrived
//   host_check scan OUT --replay CASCADE             a replayed session: CASCADE imported and
//       the surface chosen before init(), then every frame until the connection ends
//   host_check compare CLOUD TRUTH                   (native build) RMS distance of the cloud to
//       the true part against 3 sigma of the scene's laser noise
//
// The console is the one LUMORA_ENDPOINT names. OUT is the cloud: x, y, z per laser point as
// doubles in the frame the module delivered (the pose applied as a row vector), in arrival
// order, so that two hosts fed the same frames must write the same bytes. Exit code 0 when every
// step passed.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "device/CascadeFile.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#ifdef HOST_CHECK_TRUTH
#include <nlohmann/json.hpp>

#include "sim/Truth.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// Filled on the SDK's receiving thread, read on the host's.
struct Cloud {
    std::mutex mutex;
    std::vector<double> xyz;
    size_t frames = 0;
    size_t framesWithPoints = 0;
    Clock::time_point last = Clock::now();
    bool disconnected = false;

    void add(const device::tagDeviceData& d) {
        std::lock_guard<std::mutex> lock(mutex);
        ++frames;
        last = Clock::now();
        const double* R = d.rotation;
        const double* t = d.translation;
        const size_t before = xyz.size();
        for (size_t i = 0; i + 2 < d.laserPoints.size(); i += 3) {
            const double x = d.laserPoints[i], y = d.laserPoints[i + 1], z = d.laserPoints[i + 2];
            if (std::isfinite(x) && std::isfinite(y) && std::isfinite(z)) {
                for (int j = 0; j < 3; ++j) {
                    xyz.push_back(x * R[j] + y * R[3 + j] + z * R[6 + j] + t[j]);
                }
            }
        }
        framesWithPoints += xyz.size() > before ? 1 : 0;
    }
    template <typename Done>
    bool waitUntil(double seconds, Done done) {
        const Clock::time_point start = Clock::now();
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (done()) {
                    return true;
                }
            }
            if (secondsSince(start) > seconds) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
};

int failed(const std::string& what) {
    std::printf("FAILED %s\n", what.c_str());
    return 1;
}

// The reference markers of the truth: one "id x y z nx ny nz diameter" per line.
device::tagMarkpointList readMarkers(const std::string& path) {
    device::tagMarkpointList list;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        device::tagMarkpoint p;
        double v[7];
        if (line.empty() || line[0] == '#' ||
            !(fields >> p.label >> v[0] >> v[1] >> v[2] >> v[3] >> v[4] >> v[5] >> v[6])) {
            continue;
        }
        for (int k = 0; k < 3; ++k) {
            p.position[k] = static_cast<float>(v[k]);
            p.normal[k] = static_cast<float>(v[3 + k]);
        }
        p.value = static_cast<float>(v[6]);
        list.points.push_back(p);
    }
    return list;
}

int scan(const std::string& out, size_t frames, const std::string& truth,
         const std::string& cascade) {
    Cloud cloud;  // outlives the device, whose receiving thread fills it
    device::CPathfinder dev;
    device::tagDeviceHandlers handlers;
    handlers.onDeviceData = [&cloud](const std::shared_ptr<device::tagDeviceData>& d, const char*,
                                     int) {
        if (d) {
            cloud.add(*d);
        }
    };
    handlers.onDeviceReply = [&cloud](const std::string&, device::emDeviceReply reply,
                                      const void*) {
        std::lock_guard<std::mutex> lock(cloud.mutex);
        cloud.disconnected = cloud.disconnected || reply == device::REPLY_SDK_DISCONNECTED;
    };
    dev.setHandlers(handlers);
    // A replay's frames come from the start of the connection: the matrices and the scan object
    // are set before init(), so that every frame's pose goes through the same transform.
    const bool replay = !cascade.empty();
    if (replay &&
        (dev.importCascadeFile(platform::widePath(cascade)) != device::RESULT_SUCCESS ||
         dev.setScanObject(device::SCAN_OBJECT_SURFACE, true) != device::RESULT_SUCCESS)) {
        return failed("importing " + cascade);
    }
    const Clock::time_point start = Clock::now();
    const int init = dev.init();
    std::printf("init() = %d after %.1f s\n", init, secondsSince(start));
    if (init != device::RESULT_SUCCESS) {
        return failed("init()");
    }
    if (!replay) {
        std::vector<std::string> ids;
        for (int i = 0; i < 100 && ids.empty(); ++i) {
            int count = 0;
            std::shared_ptr<device::tagDeviceInfoList> list;
            if (dev.getDeviceInfo(&count, &list) == device::RESULT_SUCCESS && list) {
                for (int32_t k = 0; k < list->count; ++k) {
                    ids.push_back(list->infos[k].serialText());
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const device::tagMarkpointList reference = readMarkers(truth + "/markers.txt");
        if (ids.empty() || reference.points.empty() ||
            dev.setWorkingDevice(ids) != device::RESULT_SUCCESS ||
            dev.setMarkpoint(reference, true) != device::RESULT_SUCCESS) {
            return failed("devices (" + std::to_string(ids.size()) + ") or reference markers (" +
                          std::to_string(reference.points.size()) + ")");
        }
        const int transfer = dev.getTransferMatrix();
        const std::vector<device::TransformTrackingMatrix> matrices = dev.transferMatrices();
        std::printf("getTransferMatrix() = %d: %zu matrices from %zu reference markers\n", transfer,
                    matrices.size(), reference.points.size());
        if (transfer != device::RESULT_SUCCESS || matrices.empty() ||
            !device::writeCascadeFile(platform::widePath(out + ".cascade"), matrices)) {
            return failed("transfer measurement");
        }
        {
            std::lock_guard<std::mutex> lock(cloud.mutex);
            cloud.xyz.clear();
            cloud.frames = cloud.framesWithPoints = 0;
        }
        if (dev.setScanObject(device::SCAN_OBJECT_SURFACE, true) != device::RESULT_SUCCESS ||
            dev.controlLaserOn() != device::RESULT_SUCCESS) {
            return failed("laser on");
        }
        const bool enough = cloud.waitUntil(60, [&] { return cloud.framesWithPoints >= frames; });
        dev.controlLaserOff();
        if (!enough) {
            return failed("fewer than " + std::to_string(frames) + " frames with laser points");
        }
    }
    // A replay ends with its connection. Live, frames still on their way belong to the scan.
    const bool ended = cloud.waitUntil(
        120, [&] { return replay ? cloud.disconnected : secondsSince(cloud.last) > 1.0; });
    dev.clearHandlers();
    if (!ended) {
        return failed(replay ? "the replay did not end within 120 s" : "frames did not stop");
    }
    std::lock_guard<std::mutex> lock(cloud.mutex);
    std::ofstream file(out, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(cloud.xyz.data()),
               static_cast<std::streamsize>(cloud.xyz.size() * sizeof(double)));
    std::printf("%zu frames (%zu with laser points), %zu points in %.1f s\n", cloud.frames,
                cloud.framesWithPoints, cloud.xyz.size() / 3, secondsSince(start));
    return file.good() && cloud.framesWithPoints > 0 ? 0 : failed("writing " + out);
}

#ifdef HOST_CHECK_TRUTH
int compare(const std::string& cloudPath, const std::string& truthDir) {
    sim::Truth truth;
    std::string error;
    if (!sim::loadTruth(truthDir, truth, &error)) {
        return failed("truth: " + error);
    }
    std::ifstream scene(truthDir + "/scene.json");
    const nlohmann::json j = nlohmann::json::parse(scene, nullptr, false);
    const double sigma = j.is_object() ? j["noise"].value("laserMm", 0.0) : 0.0;
    std::ifstream in(cloudPath, std::ios::binary);
    std::vector<double> xyz;
    for (double v[3]; in.read(reinterpret_cast<char*>(v), sizeof(v));) {
        xyz.insert(xyz.end(), v, v + 3);
    }
    const sim::MeshDistance distance(truth.part);
    double sum = 0.0;
    for (size_t i = 0; i < xyz.size(); i += 3) {
        const double d = distance.distance(Eigen::Vector3d(xyz[i], xyz[i + 1], xyz[i + 2]));
        sum += d * d;
    }
    const size_t n = xyz.size() / 3;
    const double rms = n > 0 ? std::sqrt(sum / static_cast<double>(n)) : 0.0;
    std::printf("RMS distance to the true part %.4f mm over %zu points, 3 sigma %.4f mm\n", rms, n,
                3 * sigma);
    return n > 0 && sigma > 0 && rms < 3 * sigma ? 0 : failed("RMS within 3 sigma");
}
#endif

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() >= 2 && args[0] == "scan") {
        size_t frames = 120;
        std::string truth, cascade;
        for (size_t i = 2; i + 1 < args.size(); i += 2) {
            if (args[i] == "--frames") {
                frames = std::stoul(args[i + 1]);
            } else if (args[i] == "--truth") {
                truth = args[i + 1];
            } else if (args[i] == "--replay") {
                cascade = args[i + 1];
            }
        }
        return scan(args[1], frames, truth, cascade);
    }
#ifdef HOST_CHECK_TRUTH
    if (args.size() == 3 && args[0] == "compare") {
        return compare(args[1], args[2]);
    }
#endif
    std::printf("usage: host_check scan OUT [--frames N] [--truth DIR | --replay CASCADE]%s\n",
#ifdef HOST_CHECK_TRUTH
                "\n       host_check compare CLOUD TRUTH"
#else
                ""
#endif
    );
    return 2;
}
