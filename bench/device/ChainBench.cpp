// The whole chain as a host sees it, against raw loopback TCP of the same bytes in the same
// process:
//
//   console (lumora_console, physical scene, frames of about 20,000 laser points, as fast as
//   the link takes them) -> SDK link -> device module (libPathfinder.so: frame handling,
//   transfer matrix of the cascade) -> host callback that assembles the cloud (each delivered
//   pose applied to its laser points, appended to one growing array).
//
// Figure: frames per second delivered to the host, against the frames per second a plain
// loopback TCP copy of the same bytes per frame reaches (write, read into a buffer). The bytes
// per frame are the mean size of the scan frames, as they crossed the link, in a recording of
// the same scan (the console's --record). Counters also tell where the time goes: the CPU the
// console and this process used, in cores (on a 2-core machine the console generating frames
// can be the limit), and the page faults this process took per frame.
//
// The host's cloud is what a careful host keeps: one anonymous mapping that grows in large
// steps (mremap, so nothing already written is copied) and asks for transparent huge pages
// (madvise MADV_HUGEPAGE), so memory comes in 2 MB pieces, one fault each, instead of one
// fault per 4 KB page (about one fault per frame instead of about 70). On this kind of virtual
// machine a fault costs about 15 us, so a std::vector grown by reserve (fresh pages, and a copy
// of the cloud at every doubling) spends about 1 ms per frame on its memory, several times
// what the rest of the chain costs.
//
// Arguments: 0 the live console, 1 the console replaying a recording of the same scan at full
// speed (--replay-speed 0), which takes frame generation out of the chain (the console then
// sends as fast as the link takes); then what the host callback does:
//   0 it only notes the frame (the chain without the host's work),
//   1 it assembles the cloud in the growing huge-page mapping (the headline),
//   2 it assembles the cloud in a std::vector grown by reserve (fresh 4 KB pages as it grows).
// Run: build with -DPATHFINDER_BUILD_BENCH=ON, then build/bench/device/device_chain_bench.
#include <benchmark/benchmark.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/Socket.h"
#include "sdk/Wire.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// Frames before the measurement (connection buffers and pools grow), and the measurement.
constexpr int kWarmupFrames = 30;
constexpr int kMeasuredFrames = 400;
constexpr double kMaxSeconds = 20.0;

const std::vector<std::string> kScene = {"--seed", "7", "--points", "20000"};

// CPU seconds a process used and the page faults it took (minor: fresh memory), from /proc.
struct ProcSample {
    double cpuSeconds = 0.0;
    double faults = 0.0;
};

ProcSample sample(int pid) {
    ProcSample s;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // Fields after the command name (which may hold spaces): state is field 3, minflt 10,
    // utime 14, stime 15.
    const auto close = line.rfind(')');
    if (close != std::string::npos) {
        std::istringstream rest(line.substr(close + 2));
        std::string field;
        double utime = 0, stime = 0;
        for (int k = 3; k <= 15 && rest >> field; ++k) {
            if (k == 10)
                s.faults = std::atof(field.c_str());
            if (k == 14)
                utime = std::atof(field.c_str());
            if (k == 15)
                stime = std::atof(field.c_str());
        }
        s.cpuSeconds = (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    return s;
}

// A cloud of floats in one anonymous mapping that grows by doubling (at least 64 MB at a
// time) with mremap, which moves page tables, not data, and asks for huge pages on all of it.
class HugeCloud {
public:
    HugeCloud() = default;
    HugeCloud(const HugeCloud&) = delete;
    HugeCloud& operator=(const HugeCloud&) = delete;
    ~HugeCloud() {
        if (m_data != nullptr)
            munmap(m_data, m_bytes);
    }
    // Room for `n` more floats; null when the memory cannot be had.
    float* append(size_t n) {
        const size_t need = (m_size + n) * sizeof(float);
        if (need > m_bytes && !grow(need))
            return nullptr;
        float* at = m_data + m_size;
        m_size += n;
        return at;
    }
    size_t size() const { return m_size; }

private:
    static constexpr size_t kStep = size_t{64} << 20;
    bool grow(size_t need) {
        size_t bytes = std::max({need, 2 * m_bytes, kStep});
        bytes = (bytes + kStep - 1) / kStep * kStep;
        void* p = m_data == nullptr ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)
                                    : mremap(m_data, m_bytes, bytes, MREMAP_MAYMOVE);
        if (p == MAP_FAILED)
            return false;
        // Advice only: without huge pages the cloud still works, 4 KB at a time.
        madvise(p, bytes, MADV_HUGEPAGE);
        m_data = static_cast<float*>(p);
        m_bytes = bytes;
        return true;
    }

    float* m_data = nullptr;
    size_t m_bytes = 0;
    size_t m_size = 0;  // floats written
};

// The host: the device module with a callback that assembles the cloud.
class Host {
public:
    // `assemble` 0: the callback only notes the frame (what the chain costs without the host's
    // own work); 1: the cloud grows in the huge-page mapping; 2: the cloud grows in a
    // std::vector.
    explicit Host(int assemble) : m_assemble(assemble) {
        device::tagDeviceHandlers h;
        h.onDeviceData = [this](const std::shared_ptr<device::tagDeviceData>& d, const char*, int) {
            if (d)
                onFrame(*d);
        };
        m_device->setHandlers(h);
    }
    // The device goes first: destroying it closes the link and ends its receive thread, so no
    // callback can reach the cloud after it is gone.
    ~Host() {
        if (m_device->isTriggerActive())
            m_device->controlLaserOff();
        m_device.reset();
    }
    device::CPathfinder& device() { return *m_device; }

    // The frames and points so far, and the cloud itself.
    int frames() const { return m_frames.load(); }
    // When each frame arrived.
    std::vector<Clock::time_point> arrivals() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_arrivals;
    }
    size_t points() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return (m_assemble == 2 ? m_vector.size() : m_cloud.size()) / 3;
    }
    bool waitFrames(int n, double seconds) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::duration<double>(seconds),
                             [&] { return m_frames.load() >= n; });
    }

private:
    // The frame's laser points mapped by its pose (row vectors: p' = p R + t), each coordinate
    // handed to `put` in order.
    template <class Put>
    static void place(const std::vector<float>& p, const double* R, const double* t, Put put) {
        for (size_t i = 0; i + 2 < p.size(); i += 3) {
            const double x = p[i], y = p[i + 1], z = p[i + 2];
            for (int c = 0; c < 3; ++c)
                put(static_cast<float>(x * R[c] + y * R[3 + c] + z * R[6 + c] + t[c]));
        }
    }

    void onFrame(const device::tagDeviceData& d) {
        const std::vector<float>& p = d.laserPoints;
        const size_t n = p.size() / 3 * 3;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_assemble == 1) {
                float* out = m_cloud.append(n);
                if (out != nullptr)
                    place(p, d.rotation, d.translation, [&out](float v) { *out++ = v; });
            } else if (m_assemble == 2) {
                // Grows geometrically without zero-filling what is written next.
                if (m_vector.capacity() < m_vector.size() + n)
                    m_vector.reserve(2 * (m_vector.size() + n));
                place(p, d.rotation, d.translation, [this](float v) { m_vector.push_back(v); });
            }
            m_arrivals.push_back(Clock::now());
            m_frames.fetch_add(1);
        }
        m_cv.notify_all();
    }

    const int m_assemble;
    std::unique_ptr<device::CPathfinder> m_device = std::make_unique<device::CPathfinder>();
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    HugeCloud m_cloud;
    std::vector<float> m_vector;
    std::atomic<int> m_frames{0};
    std::vector<Clock::time_point> m_arrivals;
};

// A console at a private port; ended by stop() or the destructor.
class Console {
public:
    bool start(const std::vector<std::string>& extra, std::string& error) {
        std::vector<std::string> args = {"--endpoint", "127.0.0.1:0", "--no-stdin",
                                         "--heartbeat-ms", "0"};
        args.insert(args.end(), extra.begin(), extra.end());
        if (!m_child.start(
                LUMORA_CONSOLE_PATH, args,
                [this](const std::string& line) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    const std::string key = "listening on ";
                    const auto at = line.find(key);
                    if (m_endpoint.empty() && at != std::string::npos)
                        m_endpoint = line.substr(at + key.size());
                    m_cv.notify_all();
                },
                error)) {
            return false;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, std::chrono::seconds(15), [&] { return !m_endpoint.empty(); })) {
            error = "the console did not start listening";
            return false;
        }
        return true;
    }
    std::string endpoint() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_endpoint;
    }
    int pid() const { return m_child.pid(); }
    void stop() { m_child.stop(); }

private:
    platform::ChildProcess m_child;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::string m_endpoint;
};

// A private annex folder (no companion programs: the module neither starts nor ends consoles
// by name) and the truth of the scene (its cascade file).
struct Workspace {
    std::string dir = platform::makeTemporaryDirectory("pathfinder_chain_");
    std::string cascade = dir + "/truth/cascade.bin";
    std::string recording = dir + "/scan.lrec";
    bool ready = false;
    Workspace() {
        if (dir.empty())
            return;
        device::CDeviceBase::setAnnexPath(platform::widePath(dir));
        std::string cmd = std::string(LUMORA_CONSOLE_PATH) + " --export-truth " + dir + "/truth";
        for (const auto& s : kScene)
            cmd += " " + s;
        ready = std::system((cmd + " > /dev/null").c_str()) == 0 && fs::exists(cascade);
    }
    ~Workspace() {
        std::error_code ec;
        if (!dir.empty())
            fs::remove_all(dir, ec);
    }
};

struct ChainResult {
    int frames = 0;
    double seconds = 0.0;
    double pointsPerFrame = 0.0;
    double consoleCores = 0.0;
    double hostCores = 0.0;
    double hostFaults = 0.0;  // page faults of this process per frame
    std::string error;
};

// One scan through the whole chain: warm-up frames, then the measured ones.
ChainResult runChain(const Workspace& w, const std::vector<std::string>& consoleArgs, bool replay,
                     int assemble = 1) {
    ChainResult r;
    Console console;
    if (!console.start(consoleArgs, r.error))
        return r;
    platform::setEnvironment(SDK_NV::wire::kEndpointEnv, console.endpoint());
    Host host(assemble);
    // A replay sends as soon as the module connects: its CPU is counted from here.
    ProcSample c0 = sample(console.pid());
    ProcSample h0 = sample(static_cast<int>(getpid()));
    auto s0 = Clock::now();
    device::CPathfinder& dev = host.device();
    if (dev.init() != device::RESULT_SUCCESS) {
        r.error = "init failed";
        return r;
    }
    if (!replay) {
        // A recording carries the matrices as they were; a live scan imports the cascade.
        if (dev.importCascadeFile(platform::widePath(w.cascade)) != device::RESULT_SUCCESS ||
            dev.setWorkingDevice({"SCN0001", "TRK0001"}) != device::RESULT_SUCCESS ||
            dev.setScanObject(device::SCAN_OBJECT_SURFACE, false) != device::RESULT_SUCCESS ||
            dev.controlLaserOn() != device::RESULT_SUCCESS) {
            r.error = "the scan could not be started";
            return r;
        }
    }
    if (!replay) {
        c0 = sample(console.pid());
        h0 = sample(static_cast<int>(getpid()));
        s0 = Clock::now();
    }
    // Until the frames are in, or (a replay that ends sooner) no frame came for a second.
    int seen = -1;
    while (!host.waitFrames(kWarmupFrames + kMeasuredFrames, 1.0) && host.frames() > seen &&
           Clock::now() - s0 < std::chrono::duration<double>(kMaxSeconds)) {
        seen = host.frames();
    }
    const ProcSample c1 = sample(console.pid());
    const ProcSample h1 = sample(static_cast<int>(getpid()));
    const auto s1 = Clock::now();
    if (!replay)
        dev.controlLaserOff();
    // The rate from the arrival times of the frames after the warm-up ones.
    const std::vector<Clock::time_point> at = host.arrivals();
    const size_t first = kWarmupFrames;
    const size_t last = std::min(at.size(), first + kMeasuredFrames + 1) - 1;
    if (at.size() <= first + 1) {
        r.error = "too few frames: " + std::to_string(at.size());
        return r;
    }
    r.frames = static_cast<int>(last - first);
    r.seconds = std::chrono::duration<double>(at[last] - at[first]).count();
    r.pointsPerFrame = static_cast<double>(host.points()) / static_cast<double>(at.size());
    // CPU per second of frames arriving (a replay's idle second at the end left out).
    const double busy = std::chrono::duration<double>(std::min(s1, at.back()) - s0).count();
    if (busy > 0.0) {
        r.consoleCores = (c1.cpuSeconds - c0.cpuSeconds) / busy;
        r.hostCores = (h1.cpuSeconds - h0.cpuSeconds) / busy;
        r.hostFaults = (h1.faults - h0.faults) / static_cast<double>(at.size());
    }
    console.stop();
    return r;
}

// Mean size of the scan frames of a recording (frames sent by the console, larger than a
// command's answer), 0 when it cannot be read. Records: kind (1 byte), flags, 2 reserved,
// time (8), length L (4), then L bytes.
double meanScanFrameBytes(const std::string& path, int& frames) {
    std::ifstream in(path, std::ios::binary);
    char head[16];
    frames = 0;
    if (!in.read(head, 16))
        return 0.0;
    double total = 0.0;
    while (in.read(head, 16)) {
        const auto kind = static_cast<unsigned char>(head[0]);
        uint32_t length = 0;
        for (int i = 0; i < 4; ++i)
            length |= static_cast<uint32_t>(static_cast<unsigned char>(head[12 + i])) << (8 * i);
        if (kind == 1 && length > 10000) {
            total += length;
            ++frames;
        }
        in.seekg(length, std::ios::cur);
    }
    return frames > 0 ? total / frames : 0.0;
}

// Raw loopback TCP: `frames` writes of `bytes` each, read into a buffer by another thread.
double rawFramesPerSecond(size_t bytes, int frames) {
    using namespace SDK_NV;
    wire::Endpoint ep;
    ep.port = 0;
    uint16_t port = 0;
    net::socket_t l = net::listenTcp(ep, 1, &port);
    ep.port = port;
    net::socket_t rx = net::connectTcp(ep, 1000);
    net::socket_t tx = net::acceptClient(l);
    net::closeSocket(l);
    const std::string payload(bytes, '\x5a');
    std::vector<char> buffer(bytes);
    const auto t0 = Clock::now();
    std::thread reader([&] {
        for (int i = 0; i < frames; ++i) {
            size_t got = 0;
            while (got < bytes) {
                const long k = net::recvSome(rx, buffer.data() + got, bytes - got);
                if (k <= 0)
                    return;
                got += static_cast<size_t>(k);
            }
        }
    });
    for (int i = 0; i < frames; ++i)
        net::sendAll(tx, payload.data(), payload.size());
    reader.join();
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    net::closeSocket(tx);
    net::closeSocket(rx);
    return frames / s;
}

Workspace& workspace() {
    static Workspace w;
    return w;
}

void BM_ChainToHostCloud(benchmark::State& state) {
    Workspace& w = workspace();
    if (!w.ready) {
        state.SkipWithError("the console's truth export failed");
        return;
    }
    const bool replay = state.range(0) != 0;
    const int assemble = static_cast<int>(state.range(1));
    std::vector<std::string> args = {"--fps", "0"};
    args.insert(args.end(), kScene.begin(), kScene.end());
    // A recording of the same scan, once: the bytes of its frames, and what a replay plays.
    if (!fs::exists(w.recording)) {
        std::vector<std::string> rec = args;
        rec.insert(rec.end(), {"--record", w.recording});
        const ChainResult made = runChain(w, rec, false);
        if (!made.error.empty()) {
            state.SkipWithError(("recording: " + made.error).c_str());
            return;
        }
    }
    int recorded = 0;
    const double frameBytes = meanScanFrameBytes(w.recording, recorded);
    if (frameBytes <= 0.0) {
        state.SkipWithError("the recording holds no scan frames");
        return;
    }
    if (replay)
        args = {"--replay", w.recording, "--replay-speed", "0"};
    ChainResult r;
    double raw = 0.0;
    for (auto _ : state) {
        r = runChain(w, args, replay, assemble);
        if (!r.error.empty()) {
            state.SkipWithError(r.error.c_str());
            return;
        }
        state.SetIterationTime(r.seconds);
        raw = rawFramesPerSecond(static_cast<size_t>(frameBytes), r.frames);
    }
    const double fps = r.frames / r.seconds;
    state.counters["frames"] = r.frames;
    state.counters["frames_per_s"] = fps;
    state.counters["raw_frames_per_s"] = raw;
    state.counters["ratio"] = fps / raw;
    state.counters["frame_bytes"] = frameBytes;
    state.counters["recorded_frames"] = recorded;
    state.counters["points_per_frame"] = r.pointsPerFrame;
    state.counters["console_cores"] = r.consoleCores;
    state.counters["host_cores"] = r.hostCores;
    state.counters["host_faults_per_frame"] = r.hostFaults;
}

}  // namespace

BENCHMARK(BM_ChainToHostCloud)
    ->Args({0, 1})
    ->Args({1, 1})
    ->Args({1, 0})
    ->Args({1, 2})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

BENCHMARK_MAIN();
