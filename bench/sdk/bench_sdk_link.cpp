// Link benchmarks of the SDK, each against a baseline measured in the same run:
//
// - Throughput: frames of 20,000 laser points packed by a device-side sender (the console's
//   code path: pack, frame, write) and delivered by CTPScanWrapper to its callback (read,
//   decode, unpack), against a plain loopback TCP copy of the same bytes (write, read into a
//   buffer). Counter `ratio` = link throughput / raw throughput.
// - Latency at 120 frames/s: send start (before pack) to callback entry, median and 99th
//   percentile, against the raw loopback write-to-read latency of the same bytes (the first
//   kWarmup frames of each are not counted).
//
// Run: build with -DPATHFINDER_BUILD_BENCH=ON, then build/bench/sdk/bench_sdk_link.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "console/Console.h"
#include "sdk/Socket.h"
#include "sdk/TPWrapper.h"
#include "sdk/Wire.h"

using namespace SDK_NV;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPoints = 20000;
// Frames sent before the latency is recorded: the first frames of a connection grow the
// buffers and the frame pool, which a steady stream does not do.
constexpr int kWarmup = 12;

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

std::shared_ptr<tagScanData> makeFrame() {
    console::ConsoleOptions o;
    o.laserPoints = kPoints;
    console::FrameSource source(o);
    console::ScanState s;
    s.trackerId = o.trackerId;
    s.frameCount = 1;
    auto f = std::make_shared<tagScanData>();
    source.fill(*f, 1, s);
    return f;
}

// A connected pair of loopback sockets: listener accepts what connectTcp opens.
struct SocketPair {
    net::socket_t tx = net::kInvalidSocket, rx = net::kInvalidSocket;
    SocketPair() {
        wire::Endpoint ep;
        ep.port = 0;
        uint16_t port = 0;
        net::socket_t l = net::listenTcp(ep, 1, &port);
        ep.port = port;
        rx = net::connectTcp(ep, 1000);
        tx = net::acceptClient(l);
        net::closeSocket(l);
    }
    ~SocketPair() {
        net::closeSocket(tx);
        net::closeSocket(rx);
    }
};

bool recvExactly(net::socket_t s, char* buf, size_t n) {
    size_t got = 0;
    while (got < n) {
        const long k = net::recvSome(s, buf + got, n - got);
        if (k <= 0) {
            return false;
        }
        got += static_cast<size_t>(k);
    }
    return true;
}

// The device side of the link: a listener the wrapper connects to, and a sender.
struct LinkRig {
    net::socket_t listener = net::kInvalidSocket;
    net::socket_t device = net::kInvalidSocket;
    CTPScanWrapper wrapper;
    std::mutex mutex;
    std::condition_variable cv;
    std::atomic<int> received{0};
    std::vector<int64_t> sendStart;  // by frame id
    std::vector<int64_t> latencyNs;  // by frame id
    uint64_t sequence = 0;
    std::vector<char> body;  // reused, as the console does

    explicit LinkRig(int maxFrames) : sendStart(maxFrames + 1), latencyNs(maxFrames + 1) {
        wire::Endpoint ep;
        ep.port = 0;
        uint16_t port = 0;
        listener = net::listenTcp(ep, 1, &port);
        wrapper.setEndpoint("127.0.0.1:" + std::to_string(port));
        wrapper.setCallBackMessage([this](CMessage_Base* m) {
            if (m->getType() != MSG_SCANDATA) {
                return;
            }
            const int id = static_cast<CMessage_ScanData*>(m)->getFrameID();
            if (id > 0 && id < static_cast<int>(latencyNs.size())) {
                latencyNs[static_cast<size_t>(id)] = nowNs() - sendStart[static_cast<size_t>(id)];
            }
            benchmark::DoNotOptimize(static_cast<CMessage_ScanData*>(m)->getScanData());
            received.fetch_add(1);
            cv.notify_one();
        });
        wrapper.connectToLowPart();
        net::waitReadable(listener, 5000);
        device = net::acceptClient(listener);
    }
    ~LinkRig() {
        wrapper.setCloseWrapper(true);
        net::closeSocket(device);
        net::closeSocket(listener);
    }

    // What the console does per frame: pack, frame, write.
    void send(CMessage_ScanData& m, int id) {
        sendStart[static_cast<size_t>(id)] = nowNs();
        m.setFrameID(id);
        m.pack(&body);
        std::string head;
        wire::encodeFrameHead(MSG_SCANDATA, id, nullptr, ++sequence, wire::monotonicNs(),
                              body.size(), head);
        net::sendAll(device, head.data(), head.size(), body.data(), body.size());
    }

    void waitReceived(int n) {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait_for(lock, std::chrono::seconds(30), [&] { return received.load() >= n; });
    }
};

size_t encodedSize(const std::shared_ptr<tagScanData>& frame) {
    CMessage_ScanData m;
    m.setScanData(frame);
    m.setFrameID(1);
    std::vector<char> body;
    m.pack(&body);
    std::string head;
    wire::encodeFrameHead(MSG_SCANDATA, 1, nullptr, 1, 0, body.size(), head);
    return head.size() + body.size();
}

double percentile(std::vector<int64_t> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
    return static_cast<double>(v[i]);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

static void BM_LinkThroughput20k(benchmark::State& state) {
    const int frames = static_cast<int>(state.range(0));
    const auto frame = makeFrame();
    const size_t bytes = encodedSize(frame);
    const std::string payload(bytes, '\x5a');

    double rawSeconds = 0, linkSeconds = 0;
    int64_t rounds = 0;
    for (auto _ : state) {
        // Baseline: the same bytes, written and read into a buffer.
        {
            SocketPair pair;
            std::vector<char> buffer(bytes);
            const auto t0 = Clock::now();
            std::thread reader([&] {
                for (int i = 0; i < frames; ++i) {
                    recvExactly(pair.rx, buffer.data(), bytes);
                }
            });
            for (int i = 0; i < frames; ++i) {
                net::sendAll(pair.tx, payload.data(), payload.size());
            }
            reader.join();
            rawSeconds += std::chrono::duration<double>(Clock::now() - t0).count();
        }
        // The link: pack, frame, write / read, decode, unpack, callback.
        {
            LinkRig rig(frames);
            CMessage_ScanData m;
            m.setScanData(frame);
            const auto t0 = Clock::now();
            for (int i = 1; i <= frames; ++i) {
                rig.send(m, i);
            }
            rig.waitReceived(frames);
            const double s = std::chrono::duration<double>(Clock::now() - t0).count();
            linkSeconds += s;
            state.SetIterationTime(s);
            if (rig.received.load() != frames) {
                state.SkipWithError("frames lost on the link");
                break;
            }
        }
        ++rounds;
    }
    const double total = static_cast<double>(bytes) * frames * static_cast<double>(rounds);
    state.counters["frame_bytes"] = static_cast<double>(bytes);
    state.counters["link_MBps"] = total / linkSeconds / 1e6;
    state.counters["raw_MBps"] = total / rawSeconds / 1e6;
    state.counters["ratio"] = rawSeconds / linkSeconds;
    state.SetBytesProcessed(static_cast<int64_t>(total));
}
BENCHMARK(BM_LinkThroughput20k)->Arg(200)->UseManualTime()->Unit(benchmark::kMillisecond);

static void BM_LinkLatency120fps(benchmark::State& state) {
    const int frames = static_cast<int>(state.range(0));
    const auto frame = makeFrame();
    const size_t bytes = encodedSize(frame);
    const std::string payload(bytes, '\x5a');
    const auto period = std::chrono::nanoseconds(1000000000 / 120);

    std::vector<int64_t> link, raw;
    for (auto _ : state) {
        {
            SocketPair pair;
            std::vector<char> buffer(bytes);
            std::vector<int64_t> start(static_cast<size_t>(frames));
            std::thread reader([&] {
                for (int i = 0; i < frames; ++i) {
                    if (recvExactly(pair.rx, buffer.data(), bytes) && i >= kWarmup) {
                        raw.push_back(nowNs() - start[static_cast<size_t>(i)]);
                    }
                }
            });
            auto next = Clock::now();
            for (int i = 0; i < frames; ++i) {
                std::this_thread::sleep_until(next);
                next += period;
                start[static_cast<size_t>(i)] = nowNs();
                net::sendAll(pair.tx, payload.data(), payload.size());
            }
            reader.join();
        }
        {
            LinkRig rig(frames);
            CMessage_ScanData m;
            m.setScanData(frame);
            auto next = Clock::now();
            for (int i = 1; i <= frames; ++i) {
                std::this_thread::sleep_until(next);
                next += period;
                rig.send(m, i);
            }
            rig.waitReceived(frames);
            for (int i = 1; i <= frames; ++i) {
                if (i > kWarmup) {
                    link.push_back(rig.latencyNs[static_cast<size_t>(i)]);
                }
            }
        }
    }
    state.counters["frame_bytes"] = static_cast<double>(bytes);
    state.counters["link_p50_us"] = percentile(link, 0.50) / 1e3;
    state.counters["link_p99_us"] = percentile(link, 0.99) / 1e3;
    state.counters["raw_p50_us"] = percentile(raw, 0.50) / 1e3;
    state.counters["raw_p99_us"] = percentile(raw, 0.99) / 1e3;
    state.counters["p99_ratio"] = percentile(link, 0.99) / std::max(1.0, percentile(raw, 0.99));
}
BENCHMARK(BM_LinkLatency120fps)->Arg(360)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
