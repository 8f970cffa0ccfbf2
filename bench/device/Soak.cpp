// A long scan through the module, as a host runs one: a console plays the simulated part at a
// high frame rate with large frames, the module delivers every frame to a host callback, and
// this program prints the resident memory over time, the frames, the frames lost and the
// latency from the console's send to the host's callback. Run by scripts/soak.sh.
//
//   device_soak --seconds S [--fps N] [--points N] [--every S] [--warmup S]
//
// Exit code 0 when the goals held (memory growth after the warm-up below 1 MB, no frame lost,
// 99th percentile latency below 2 ms), 1 when one did not, 2 when the scan could not start.
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/Messages.h"
#include "sdk/TPWrapper.h"
#include "sdk/Wire.h"

namespace {

using Clock = std::chrono::steady_clock;

// VmRSS of /proc/self/status in kB, 0 when unknown.
long residentKb() {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

// The console on a private port, its endpoint read from its listening line; ended (SIGTERM) by
// the destructor.
class Console {
public:
    bool start(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"--endpoint", "127.0.0.1:0", "--no-stdin"};
        args.insert(args.end(), extra.begin(), extra.end());
        std::string error;
        const bool started = m_child.start(
            LUMORA_CONSOLE_PATH, args,
            [this](const std::string& line) {
                const size_t at = line.find("listening on ");
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_endpoint.empty() && at != std::string::npos) {
                    m_endpoint = line.substr(at + 13);
                    m_cv.notify_all();
                }
            },
            error);
        std::unique_lock<std::mutex> lock(m_mutex);
        return started &&
               m_cv.wait_for(lock, std::chrono::seconds(15), [&] { return !m_endpoint.empty(); });
    }
    std::string endpoint() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_endpoint;
    }

private:
    platform::ChildProcess m_child;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::string m_endpoint;
};

struct Options {
    double seconds = 60;
    int fps = 120;
    int points = 20000;
    double every = 30;   // seconds between memory lines
    double warmup = -1;  // seconds; negative: a fifth of the run, at most 60 s
};

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) {
            return false;
        }
        const char* v = argv[++i];
        if (a == "--seconds") {
            o.seconds = std::atof(v);
        } else if (a == "--fps") {
            o.fps = std::atoi(v);
        } else if (a == "--points") {
            o.points = std::atoi(v);
        } else if (a == "--every") {
            o.every = std::atof(v);
        } else if (a == "--warmup") {
            o.warmup = std::atof(v);
        } else {
            return false;
        }
    }
    return o.seconds > 0 && o.fps > 0 && o.points > 0 && o.every > 0;
}

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// Latencies in microseconds, one bucket per microsecond up to 100 ms (allocated once, so that
// counting does not grow the memory being watched).
class Histogram {
public:
    static constexpr size_t kBuckets = 100000;
    Histogram() : m_counts(kBuckets + 1, 0) {}
    void add(int64_t us) {
        m_counts[static_cast<size_t>(std::clamp<int64_t>(us, 0, kBuckets))]++;
        ++m_total;
        m_max = std::max(m_max, us);
    }
    uint64_t total() const { return m_total; }
    int64_t max() const { return m_max; }
    // The smallest latency that `q` of the samples do not exceed.
    int64_t quantile(double q) const {
        const uint64_t want = static_cast<uint64_t>(q * static_cast<double>(m_total) + 0.5);
        uint64_t seen = 0;
        for (size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (seen >= std::max<uint64_t>(want, 1)) {
                return static_cast<int64_t>(i);
            }
        }
        return m_max;
    }

private:
    std::vector<uint64_t> m_counts;
    uint64_t m_total = 0;
    int64_t m_max = 0;
};

// The host's device: the module as it stands, plus a look at the send time of the message the
// module is handling, so that the host callback can tell how old its frame is.
class SoakDevice : public device::CPathfinder {
public:
    // Wraps the module's message callback (installed by init) so that each message's send
    // time is known while the module handles it. Called once after init.
    void watchSendTimes() {
        SDK_NV::CTPScanWrapper* wrapper = scanWrapper();
        if (wrapper == nullptr) {
            return;
        }
        auto inner = wrapper->getCallBackMessage();
        wrapper->setCallBackMessage([this, inner](SDK_NV::CMessage_Base* m) {
            m_sentNs.store(m != nullptr ? m->getSentNs() : 0);
            inner(m);
        });
    }
    int64_t sentNs() const { return m_sentNs.load(); }

private:
    std::atomic<int64_t> m_sentNs{0};
};

// What the host callback counts (on the SDK's receiving thread).
struct Counts {
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> gaps{0};       // frames missing between consecutive frame ids
    std::atomic<uint64_t> reordered{0};  // a frame id not above the one before
    std::atomic<uint64_t> empty{0};      // frames without laser points
    std::atomic<uint64_t> points{0};     // laser points delivered
    int lastId = 0;                      // receiving thread only
    Histogram latency;                   // receiving thread only, read after the scan
};

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: device_soak --seconds S [--fps N] [--points N] [--every S] "
                     "[--warmup S]\n");
        return 2;
    }
    const double warmup = o.warmup >= 0 ? o.warmup : std::min(60.0, o.seconds / 5);

    // The module must not start a console of its own: an annex folder without one.
    char annexTemplate[] = "/tmp/pathfinder_soak_XXXXXX";
    if (::mkdtemp(annexTemplate) == nullptr) {
        std::perror("mkdtemp");
        return 2;
    }
    device::CDeviceBase::setAnnexPath(platform::widePath(annexTemplate));

    // The soak runs in real time, console included, whatever scale the environment gives.
    ::setenv(platform::kTimeScaleEnv, "1", 1);
    platform::setTimeScale(1.0);
    Console console;
    if (!console.start({"--fps", std::to_string(o.fps), "--points", std::to_string(o.points)})) {
        std::fprintf(stderr, "soak: the console did not start\n");
        return 2;
    }
    ::setenv(SDK_NV::wire::kEndpointEnv, console.endpoint().c_str(), 1);

    Counts counts;
    {
        SoakDevice device;
        device.setDeviceDataHandler(
            [&](const std::shared_ptr<device::tagDeviceData>& d, const char*, int) {
                const int64_t sent = device.sentNs();
                if (sent > 0) {
                    counts.latency.add((nowNs() - sent) / 1000);
                }
                if (counts.lastId != 0) {
                    if (d->frameId > counts.lastId) {
                        counts.gaps += static_cast<uint64_t>(d->frameId - counts.lastId - 1);
                    } else {
                        counts.reordered++;
                    }
                }
                counts.lastId = d->frameId;
                if (d->laserPoints.empty()) {
                    counts.empty++;
                }
                counts.points += d->laserPoints.size() / 3;
                counts.frames++;
            });
        std::printf("soak: %g s at %d frames/s of %d points (warm-up %g s), console %s\n",
                    o.seconds, o.fps, o.points, warmup, console.endpoint().c_str());
        if (device.init() != device::RESULT_SUCCESS) {
            std::fprintf(stderr, "soak: init failed\n");
            return 2;
        }
        device.watchSendTimes();
        const int on = device.controlLaserOn();
        if (on != device::RESULT_SUCCESS) {
            std::fprintf(stderr, "soak: laser on gave %d\n", on);
            return 2;
        }

        const auto start = Clock::now();
        long warmRss = 0;
        long lastRss = 0;
        std::printf("%8s %10s %8s %10s\n", "seconds", "frames", "lost", "rss_kB");
        for (double next = 0;;) {
            const double t = std::chrono::duration<double>(Clock::now() - start).count();
            if (warmRss == 0 && t >= warmup) {
                warmRss = residentKb();
            }
            if (t >= next || t >= o.seconds) {
                lastRss = residentKb();
                std::printf("%8.0f %10llu %8llu %10ld\n", t,
                            static_cast<unsigned long long>(counts.frames.load()),
                            static_cast<unsigned long long>(counts.gaps.load()), lastRss);
                std::fflush(stdout);
                next += o.every;
            }
            if (t >= o.seconds) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        device.controlLaserOff();
        device.clear();

        const Histogram& h = counts.latency;
        const double tickMs = std::max(1.0, std::round(1000.0 / o.fps));
        const double scheduled = elapsed * 1000.0 / tickMs;
        const long growth = lastRss - warmRss;
        std::printf(
            "frames %llu in %.1f s (%.1f frames/s; the console's tick of %.0f ms "
            "schedules %.0f)\n",
            static_cast<unsigned long long>(counts.frames.load()), elapsed,
            static_cast<double>(counts.frames.load()) / elapsed, tickMs, scheduled);
        std::printf(
            "lost %llu (frame-id gaps), out of order %llu, without laser points %llu, "
            "%.0f laser points per frame\n",
            static_cast<unsigned long long>(counts.gaps.load()),
            static_cast<unsigned long long>(counts.reordered.load()),
            static_cast<unsigned long long>(counts.empty.load()),
            counts.frames.load() > 0 ? static_cast<double>(counts.points.load()) /
                                           static_cast<double>(counts.frames.load())
                                     : 0.0);
        std::printf(
            "latency send->callback us: p50 %lld  p90 %lld  p99 %lld  p99.9 %lld  "
            "max %lld  (%llu samples)\n",
            static_cast<long long>(h.quantile(0.50)), static_cast<long long>(h.quantile(0.90)),
            static_cast<long long>(h.quantile(0.99)), static_cast<long long>(h.quantile(0.999)),
            static_cast<long long>(h.max()), static_cast<unsigned long long>(h.total()));
        std::printf("resident memory kB: after warm-up %ld, at the end %ld, growth %ld\n", warmRss,
                    lastRss, growth);

        const bool memoryOk = growth < 1024;
        const bool lossOk = counts.gaps.load() == 0 && counts.reordered.load() == 0 &&
                            counts.empty.load() == 0 && counts.frames.load() > 0;
        const bool latencyOk = h.total() > 0 && h.quantile(0.99) < 2000;
        std::printf("goals: memory growth < 1 MB %s, no frame lost %s, p99 < 2 ms %s\n",
                    memoryOk ? "met" : "MISSED", lossOk ? "met" : "MISSED",
                    latencyOk ? "met" : "MISSED");
        std::error_code ignored;
        std::filesystem::remove_all(annexTemplate, ignored);
        return memoryOk && lossOk && latencyOk ? 0 : 1;
    }
}
