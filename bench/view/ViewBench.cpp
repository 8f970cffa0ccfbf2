// What the live view costs a scan, on the same replayed recording, in one run:
//
//   - the scan's frames per second with two pages watching, against the same replay without a
//     view (goal: at least 0.95 of it): the view must never hold the module's thread up;
//   - the CPU the view spends (its server thread, and its frame listener on the module's
//     thread) per second of scanning at 125 frames/s, as a share of one core (goal: at most
//     0.10).
//
// The two pages are two WebSocket clients in this process (Boost.Beast) that read everything
// the server sends until the final state, as a browser's page does.
//
// The recording is made first: the console's truth, then a 600-frame scan with the true
// transfer matrices imported while the console records it (--record). Each measurement replays
// it at the recorded timing (125 frames/s) in a session of its own, measured against the truth
// as the tool does with --truth, so that the view colours by distance; the session ends as soon
// as the recording's frames are in. (A replay as fast as the link takes it, --replay-speed 0,
// plays the recorded connection before the module's init() has finished waiting, so the
// session cannot take it.)
// Run: build with -DPATHFINDER_BUILD_BENCH=ON, then build/bench/view/view_bench.
#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "host/Session.h"
#include "view/Server.h"

namespace {

namespace fs = std::filesystem;
namespace net = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;

struct Recording {
    std::string file;
    std::string truth;
    size_t frames = 0;
};

const Recording& recording() {
    static const Recording r = [] {
        Recording out;
        const fs::path dir = fs::temp_directory_path() / "pathfinder_view_bench";
        fs::remove_all(dir);
        fs::create_directories(dir);
        out.file = (dir / "scan.rec").string();
        out.truth = (dir / "truth").string();
        host::SessionOptions options;
        options.consoleArgs = {"--record", out.file};
        options.truthDir = out.truth;
        host::Session session(options);
        if (!session.hasTruth()) {
            std::fprintf(stderr, "view_bench: the console exports no truth\n");
            return out;
        }
        host::ScanRequest request;
        request.frames = 600;
        request.cascade = out.truth + "/cascade.bin";
        out.frames = session.scan(request).frames;
        return out;
    }();
    return r;
}

// A page: reads every message until the final status or the end of the stream.
class Page {
public:
    explicit Page(uint16_t port) : m_thread([this, port] { run(port); }) {}
    ~Page() { m_thread.join(); }
    size_t points() const { return m_points.load(); }

private:
    void run(uint16_t port) {
        try {
            net::io_context ioc;
            websocket::stream<beast::tcp_stream> ws(ioc);
            net::ip::tcp::resolver resolver(ioc);
            beast::get_lowest_layer(ws).connect(
                *resolver.resolve("127.0.0.1", std::to_string(port)).begin());
            const std::string host = "127.0.0.1:" + std::to_string(port);
            ws.set_option(websocket::stream_base::decorator([host](websocket::request_type& req) {
                req.set(beast::http::field::origin, "http://" + host);
            }));
            ws.handshake(host, "/stream");
            for (beast::flat_buffer buffer;; buffer.consume(buffer.size())) {
                ws.read(buffer);
                if (ws.got_binary()) {
                    uint32_t count = 0;
                    net::buffer_copy(net::buffer(&count, 4), buffer.data() + 8);
                    m_points += count;
                } else if (beast::buffers_to_string(buffer.data()).find("\"summary\"") !=
                           std::string::npos) {
                    break;  // the final status
                }
            }
            ws.close(websocket::close_code::normal);
        } catch (const std::exception&) {
            // The server closed: what came is counted.
        }
    }

    std::atomic<size_t> m_points{0};
    std::thread m_thread;
};

struct Replay {
    double framesPerSecond = 0.0;
    double seconds = 0.0;
    size_t frames = 0;
};

// One replay in a session of its own, ended as soon as the recording's frames are in.
Replay replay(view::Server* server) {
    const Recording& rec = recording();
    host::SessionOptions options;
    host::Session* current = nullptr;
    options.onProgress = [&current, &rec](const host::ProgressEvent& e) {
        if (current && e.done >= rec.frames) {
            current->requestStop();
        }
    };
    host::Session session(options);
    current = &session;
    if (server) {
        server->watch(session);
    }
    host::ScanRequest request;
    request.replay = rec.file;
    request.truth = rec.truth;
    request.cascade = rec.truth + "/cascade.bin";
    const host::ScanResult r = session.scan(request);
    if (server) {
        server->unwatch();
        server->finish(r.summaryJson, false);
    }
    return {r.framesPerSecond, r.seconds, r.frames};
}

void BM_ViewOnReplay(benchmark::State& state) {
    if (recording().frames == 0) {
        state.SkipWithError("no recording");
        return;
    }
    for (auto _ : state)
        try {
            const Replay alone = replay(nullptr);
            view::Server server(view::ServerOptions{});  // the pages' default 1 mm grid
            Page first(server.port());
            Page second(server.port());
            const double cpu0 = server.threadCpuSeconds();
            const Replay watched = replay(&server);
            server.close(5.0);
            const double cpu = server.threadCpuSeconds() - cpu0 + server.listenerCpuSeconds();
            const view::ServerStats stats = server.stats();
            state.SetIterationTime(watched.seconds);
            state.counters["frames_per_s"] = watched.framesPerSecond;
            state.counters["alone_frames_per_s"] = alone.framesPerSecond;
            state.counters["fps_ratio"] = watched.framesPerSecond / alone.framesPerSecond;
            state.counters["frames"] = static_cast<double>(watched.frames);
            state.counters["alone_frames"] = static_cast<double>(alone.frames);
            state.counters["view_core_share"] = cpu / watched.seconds;
            state.counters["listener_cpu_s"] = server.listenerCpuSeconds();
            state.counters["server_cpu_s"] = cpu - server.listenerCpuSeconds();
            state.counters["queue_dropped"] = static_cast<double>(stats.queueDropped);
            state.counters["points_per_page"] = static_cast<double>(first.points());
            state.counters["pages_agree"] = first.points() == second.points();
        } catch (const host::Error& e) {
            state.SkipWithError(e.what());
            return;
        }
}
BENCHMARK(BM_ViewOnReplay)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
