// The view's server: Boost.Asio on one thread of its own, Boost.Beast for HTTP and WebSocket.
//
// Everything below runs on that thread except push() (the module's thread: the bounded queue
// only), watch()/unwatch() and the calls that post work to it. Every 20 ms the thread takes the
// queued frames, maps their laser points by their poses into the reference frame, adds them to
// the voxel grids (VoxelCloud.h) and brings each page up to date.
//
// Protocol (README.md): the page opens a WebSocket at /stream. The server sends text messages
// (JSON: "hello", "status", "reset", "error") and binary messages of points: a 16-byte header
// (uint32 kind = 1, uint32 index of the first point, uint32 count, float32 voxel size in mm),
// then count records of 20 bytes: x, y, z, value as float32 and the unit normal as three int8
// (times 127; 0, 0, 0: none) and one zero byte, little-endian. The value is the distance to the
// truth in mm, or the height z without truth. The page sends {"voxel": mm} to change its grid.
#include "view/Server.h"

#include <pthread.h>

#include <Eigen/Core>
#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "Assets.h"
#include "VoxelCloud.h"

namespace view {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

namespace {

constexpr auto kTick = std::chrono::milliseconds(20);
constexpr double kStatusSeconds = 0.2;  // a page's figures, five times a second
constexpr size_t kChunkPoints = 16384;  // points per binary message (320 KB)
constexpr size_t kRecordBytes = 20;
constexpr size_t kRmsSamplesPerFrame = 64;  // points of each frame measured for the running RMS
constexpr uint32_t kPointsMessage = 1;

static_assert(sizeof(float) == 4, "points go out as float32");

// CPU time of the calling thread.
double callerCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// An address as it stands in a Host header.
std::string hostText(const net::ip::address& a) {
    if (a.is_v6() && a.to_v6().is_v4_mapped()) {
        return net::ip::make_address_v4(net::ip::v4_mapped, a.to_v6()).to_string();
    }
    return a.is_v6() ? "[" + a.to_string() + "]" : a.to_string();
}

json matrixJson(const std::array<double, 16>& m) {
    json out = json::array();
    for (double v : m) {
        out.push_back(v);
    }
    return out;
}

// A tracker's frame in the reference frame from its transfer matrix (p_K = B p_W + T, B(r, c)
// in element 4r + c, T in 12-14): p_W = B^T (p_K - T), as a row-major 4x4 on column vectors.
std::array<double, 16> trackerFrame(const double* m) {
    std::array<double, 16> f{};
    for (int r = 0; r < 3; ++r) {
        double t = 0.0;
        for (int c = 0; c < 3; ++c) {
            f[4 * r + c] = m[4 * c + r];
            t -= m[4 * c + r] * m[12 + c];
        }
        f[4 * r + 3] = t;
    }
    f[15] = 1.0;
    return f;
}

const Asset* findAsset(beast::string_view target) {
    const beast::string_view path = target.substr(0, target.find('?'));
    for (size_t i = 0; i < kAssetCount; ++i) {
        if (path == kAssets[i].path) {
            return &kAssets[i];
        }
    }
    return nullptr;
}

}  // namespace

class Page;
class Connection;

class Server::Impl {
public:
    explicit Impl(ServerOptions options);
    ~Impl();

    void start();
    void close(double seconds);
    void push(const std::shared_ptr<device::tagDeviceData>& frame, const host::Pose& pose) {
        const double t0 = callerCpuSeconds();
        m_queue.push(frame, pose);
        m_listenerCpu.store(m_listenerCpu.load() + callerCpuSeconds() - t0);
    }
    double listenerCpuSeconds() const { return m_listenerCpu.load(); }
    void watch(host::Session& session);
    void unwatch();
    void finish(const std::string& summaryJson, bool stopped);
    void show(std::shared_ptr<std::vector<float>> points,
              std::shared_ptr<std::vector<float>> normals, const host::TruthSurface& truth,
              const std::vector<host::TransferMatrix>& trackers, const std::string& summaryJson);
    ServerStats stats() const {
        std::lock_guard<std::mutex> lock(m_statsMutex);
        return m_stats;
    }
    double threadCpuSeconds() const;

    const std::string& url() const { return m_url; }
    uint16_t port() const { return m_port; }
    bool loopbackOnly() const { return m_loopback; }

    // ---- on the server's thread ------------------------------------------------------------
    void handle(const std::shared_ptr<Connection>& connection,
                http::request<http::string_body> req);
    void join(const std::shared_ptr<Page>& page);
    void leave(Page& page);
    void pump(Page& page);
    void onPageMessage(Page& page, const std::string& text);
    void refuse() { m_refused.fetch_add(1); }

private:
    void accept();
    void onTick();
    void drainQueue(size_t most);
    void ingest(const host::FrameQueue::Item& item);
    void refreshTruth();
    void resetPages();
    bool finished() const { return m_state == "finished" || m_state == "stopped"; }
    bool hostAllowed(beast::string_view host, const tcp::endpoint& local) const;
    bool originAllowed(beast::string_view origin, const tcp::endpoint& local) const;
    std::string statusJson(const Page& page) const;
    std::array<float, 2> scale() const;
    void fillPoints(Page& page, std::string& out);
    void shutdown();
    void updateStats();

    const ServerOptions m_options;
    net::io_context m_ioc;
    tcp::acceptor m_acceptor;
    net::steady_timer m_tick;
    std::thread m_thread;
    std::string m_url;
    uint16_t m_port = 0;
    bool m_loopback = true;
    int m_defaultLevel = 1;
    std::atomic<bool> m_closed{false};
    std::atomic<bool> m_delivered{false};
    pthread_t m_handle{};
    std::atomic<bool> m_exited{false};
    std::atomic<double> m_cpuAtExit{0.0};
    std::atomic<size_t> m_refused{0};
    std::atomic<double> m_listenerCpu{0.0};  // written by the one thread that delivers frames

    host::FrameQueue m_queue;
    // The session watched (its truth is looked up until it has one); set by the owner's thread.
    mutable std::mutex m_sourceMutex;
    host::Session* m_session = nullptr;
    int m_listener = -1;

    // The model, on the server's thread.
    VoxelCloud m_cloud;
    std::vector<float> m_values;  // distance of each cloud point to the truth (NaN: not yet)
    host::TruthSurface m_truth;
    bool m_byDistance = false;
    std::string m_source = "live";
    std::string m_state = "waiting";
    size_t m_frames = 0;
    size_t m_points = 0;
    size_t m_gaps = 0;
    int64_t m_lastFrameId = -1;
    std::deque<Clock::time_point> m_recent;  // frame arrivals of the last second
    std::optional<double> m_fixedFps;        // a finished folder's figure
    std::optional<std::array<double, 16>> m_pose;
    std::map<std::string, std::array<double, 16>> m_trackers;
    double m_squares = 0.0;
    size_t m_measured = 0;
    std::optional<double> m_fixedRms;
    json m_summary;
    std::vector<std::shared_ptr<Page>> m_pages;
    size_t m_pagesSeen = 0;
    std::vector<float> m_world;    // one frame's points in the reference frame
    std::vector<float> m_normals;  // and their normals
    std::vector<float> m_samples;  // points measured for the running RMS, and their distances
    std::vector<float> m_distances;

    mutable std::mutex m_statsMutex;
    ServerStats m_stats;
};

// ---- one plain HTTP connection ---------------------------------------------------------------

class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(tcp::socket&& socket, Server::Impl* server)
        : m_stream(std::move(socket)), m_server(server) {}

    void read() {
        m_parser.emplace();
        m_parser->header_limit(8192);
        m_parser->body_limit(4096);
        m_stream.expires_after(std::chrono::seconds(30));
        http::async_read(
            m_stream, m_buffer, *m_parser,
            [self = shared_from_this()](beast::error_code ec, size_t) { self->onRead(ec); });
    }

    // Answers and, unless either side wants to close, reads the next request.
    void reply(http::status status, const std::string& type, std::string body, bool keepAlive) {
        m_response = {};
        m_response.result(status);
        m_response.version(11);
        m_response.set(http::field::server, "pathfinder-view");
        m_response.set(http::field::content_type, type);
        m_response.set(http::field::cache_control, "no-store");
        m_response.set("X-Content-Type-Options", "nosniff");
        m_response.set(
            "Content-Security-Policy",
            "default-src 'self'; style-src 'self' 'unsafe-inline'; img-src 'self' data:");
        m_response.keep_alive(keepAlive);
        m_response.body() = std::move(body);
        m_response.prepare_payload();
        http::async_write(
            m_stream, m_response, [self = shared_from_this()](beast::error_code ec, size_t) {
                if (ec || !self->m_response.keep_alive()) {
                    beast::error_code ignored;
                    self->m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                    return;
                }
                self->read();
            });
    }

    tcp::endpoint local() const {
        beast::error_code ec;
        return m_stream.socket().local_endpoint(ec);
    }
    tcp::socket releaseSocket() { return m_stream.release_socket(); }

private:
    void onRead(beast::error_code ec) {
        if (ec == http::error::end_of_stream) {
            m_stream.socket().shutdown(tcp::socket::shutdown_send, ec);
            return;
        }
        if (ec && ec.category() == http::make_error_code(http::error::bad_target).category()) {
            reply(http::status::bad_request, "text/plain", "bad request: " + ec.message() + "\n",
                  false);
            return;
        }
        if (ec) {
            return;  // timed out or gone
        }
        m_server->handle(shared_from_this(), m_parser->release());
    }

    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::string_body>> m_parser;
    http::response<http::string_body> m_response;
    Server::Impl* m_server;
};

// ---- one page's WebSocket --------------------------------------------------------------------

class Page : public std::enable_shared_from_this<Page> {
public:
    Page(tcp::socket&& socket, Server::Impl* server, int level)
        : level(level), m_ws(std::move(socket)), m_server(server) {}

    void accept(http::request<http::string_body> req) {
        m_request = std::move(req);
        beast::get_lowest_layer(m_ws).expires_never();
        m_ws.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        m_ws.read_message_max(4096);
        m_ws.async_accept(m_request, [self = shared_from_this()](beast::error_code ec) {
            if (!ec) {
                self->m_server->join(self);
                self->read();
            }
        });
    }

    // Sends `out` (the page is not writing); pump() again when it went.
    void send(bool binary) {
        writing = true;
        m_ws.binary(binary);
        m_ws.async_write(net::buffer(out),
                         [self = shared_from_this()](beast::error_code ec, size_t) {
                             self->writing = false;
                             if (ec) {
                                 self->m_server->leave(*self);
                                 return;
                             }
                             self->m_server->pump(*self);
                         });
    }

    void close() {
        gone = true;
        m_ws.async_close(websocket::close_code::going_away,
                         [self = shared_from_this()](beast::error_code) {});
    }

    std::string out;
    std::deque<std::string> outbox;  // text messages before anything else
    bool writing = false;
    bool gone = false;
    int level;
    size_t cursor = 0;  // points of the level's grid sent since the last reset
    bool finalSent = false;
    Clock::time_point lastStatus{};

private:
    void read() {
        m_ws.async_read(m_in, [self = shared_from_this()](beast::error_code ec, size_t) {
            if (ec) {
                self->m_server->leave(*self);
                return;
            }
            const std::string text = beast::buffers_to_string(self->m_in.data());
            self->m_in.consume(self->m_in.size());
            self->m_server->onPageMessage(*self, text);
            self->read();
        });
    }

    websocket::stream<beast::tcp_stream> m_ws;
    beast::flat_buffer m_in;
    http::request<http::string_body> m_request;
    Server::Impl* m_server;
};

// ---- the server ------------------------------------------------------------------------------

Server::Impl::Impl(ServerOptions options)
    : m_options(std::move(options)),
      m_acceptor(m_ioc),
      m_tick(m_ioc),
      m_queue(std::max<size_t>(1, m_options.queueFrames)) {
    m_defaultLevel = VoxelCloud::levelOf(m_options.voxelMm);
    if (m_defaultLevel < 0) {
        throw host::Error(host::kExitUsage,
                          "not a voxel size of the view (0.5, 1, 2, 4 or 8 mm): " +
                              std::to_string(m_options.voxelMm));
    }
    beast::error_code ec;
    const net::ip::address address = net::ip::make_address(m_options.bind, ec);
    if (ec) {
        throw host::Error(host::kExitUsage,
                          "not an address to serve the view on: " + m_options.bind);
    }
    const tcp::endpoint endpoint(address, m_options.port);
    m_acceptor.open(endpoint.protocol(), ec);
    if (!ec) {
        m_acceptor.set_option(net::socket_base::reuse_address(true), ec);
        m_acceptor.bind(endpoint, ec);
    }
    if (!ec) {
        m_acceptor.listen(net::socket_base::max_listen_connections, ec);
    }
    if (ec) {
        throw host::Error(host::kExitFailure, "cannot serve the view on " + hostText(address) +
                                                  ":" + std::to_string(m_options.port) + ": " +
                                                  ec.message());
    }
    m_port = m_acceptor.local_endpoint().port();
    m_loopback = address.is_loopback();
    m_url = "http://" + (address.is_unspecified() ? std::string("127.0.0.1") : hostText(address)) +
            ":" + std::to_string(m_port) + "/";
}

Server::Impl::~Impl() {
    close(0.0);
}

void Server::Impl::start() {
    accept();
    m_tick.expires_after(kTick);
    m_tick.async_wait([this](beast::error_code ec) {
        if (!ec) {
            onTick();
        }
    });
    m_thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "pathfinder-view");
        for (;;) {
            try {
                m_ioc.run();
                break;
            } catch (const std::exception&) {
                // A handler failed (out of memory, say): the others go on.
            }
        }
        m_cpuAtExit.store(callerCpuSeconds());
        m_exited.store(true);
    });
    m_handle = m_thread.native_handle();
}

double Server::Impl::threadCpuSeconds() const {
    clockid_t clock;
    timespec t{};
    if (!m_exited.load() && pthread_getcpuclockid(m_handle, &clock) == 0 &&
        clock_gettime(clock, &t) == 0) {
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    }
    return m_cpuAtExit.load();
}

void Server::Impl::close(double waitSeconds) {
    if (m_closed.load()) {
        return;
    }
    unwatch();
    const Clock::time_point until =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(std::max(0.0, waitSeconds)));
    while (Clock::now() < until && !m_delivered.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (m_closed.exchange(true)) {
        return;
    }
    m_queue.close();
    if (m_thread.joinable()) {
        net::post(m_ioc, [this] { shutdown(); });
        m_thread.join();
    }
}

void Server::Impl::shutdown() {
    beast::error_code ec;
    m_acceptor.close(ec);
    m_tick.cancel();
    for (const std::shared_ptr<Page>& page : m_pages) {
        page->close();
    }
    m_pages.clear();
    // Closing handshakes get a moment; idle keep-alive connections are simply dropped.
    auto last = std::make_shared<net::steady_timer>(m_ioc, std::chrono::milliseconds(300));
    last->async_wait([this, last](beast::error_code) { m_ioc.stop(); });
}

void Server::Impl::accept() {
    m_acceptor.async_accept([this](beast::error_code ec, tcp::socket socket) {
        if (!m_acceptor.is_open()) {
            return;
        }
        if (!ec) {
            std::make_shared<Connection>(std::move(socket), this)->read();
        }
        accept();
    });
}

void Server::Impl::watch(host::Session& session) {
    unwatch();
    Impl* self = this;
    const int id =
        session.addFrameListener([self](const std::shared_ptr<device::tagDeviceData>& frame,
                                        const host::Pose& pose) { self->push(frame, pose); });
    std::lock_guard<std::mutex> lock(m_sourceMutex);
    m_session = &session;
    m_listener = id;
}

void Server::Impl::unwatch() {
    host::Session* session = nullptr;
    int id = -1;
    {
        std::lock_guard<std::mutex> lock(m_sourceMutex);
        std::swap(session, m_session);
        std::swap(id, m_listener);
    }
    if (session) {
        session->removeFrameListener(id);
    }
}

void Server::Impl::finish(const std::string& summaryJson, bool stopped) {
    json summary = json::parse(summaryJson, nullptr, false);
    net::post(m_ioc, [this, stopped, summary = std::move(summary)]() mutable {
        refreshTruth();
        drainQueue(std::numeric_limits<size_t>::max());
        m_summary = summary.is_discarded() ? json() : std::move(summary);
        m_state = stopped ? "stopped" : "finished";
        m_recent.clear();
        for (const std::shared_ptr<Page>& page : m_pages) {
            pump(*page);
        }
    });
}

void Server::Impl::show(std::shared_ptr<std::vector<float>> points,
                        std::shared_ptr<std::vector<float>> normals,
                        const host::TruthSurface& truth,
                        const std::vector<host::TransferMatrix>& trackers,
                        const std::string& summaryJson) {
    json summary = json::parse(summaryJson, nullptr, false);
    net::post(m_ioc,
              [this, points, normals, truth, trackers, summary = std::move(summary)]() mutable {
                  m_source = "folder";
                  m_truth = truth;
                  m_byDistance = truth.valid();
                  m_cloud.clear();
                  m_cloud.add(points->data(), normals->empty() ? nullptr : normals->data(),
                              points->size() / 3);
                  m_values.assign(m_cloud.size(0), std::numeric_limits<float>::quiet_NaN());
                  for (const host::TransferMatrix& t : trackers) {
                      m_trackers[t.trackerId] = trackerFrame(t.matrix.data());
                  }
                  m_summary = summary.is_discarded() ? json() : std::move(summary);
                  if (m_summary.is_object()) {
                      m_frames = m_summary.value("frames", size_t{0});
                      m_points = m_summary.value("points", points->size() / 3);
                      m_gaps = m_summary.value("dropped_frames", size_t{0});
                      m_fixedFps = m_summary.value("frames_per_second", 0.0);
                      if (m_summary.contains("accuracy") && m_summary["accuracy"].is_object()) {
                          m_fixedRms = m_summary["accuracy"].value("rms_mm", 0.0);
                      }
                  } else {
                      m_points = points->size() / 3;
                  }
                  m_state = "finished";
                  resetPages();
              });
}

void Server::Impl::refreshTruth() {
    if (m_truth.valid()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_sourceMutex);
        if (!m_session) {
            return;
        }
        m_truth = m_session->truthSurface();
    }
    if (m_truth.valid()) {
        // Points sent so far showed their height: every page starts again in distances.
        m_byDistance = true;
        m_values.assign(m_cloud.size(0), std::numeric_limits<float>::quiet_NaN());
        resetPages();
    }
}

void Server::Impl::resetPages() {
    for (const std::shared_ptr<Page>& page : m_pages) {
        page->cursor = 0;
        page->finalSent = false;
        page->outbox.push_back(
            json{{"type", "reset"}, {"voxel", VoxelCloud::voxelMm(page->level)}}.dump());
    }
}

void Server::Impl::onTick() {
    if (m_closed.load()) {
        return;
    }
    refreshTruth();
    // A few hundred frames at most per tick, so that pages are served in between.
    drainQueue(256);
    for (const std::shared_ptr<Page>& page : m_pages) {
        pump(*page);
    }
    updateStats();
    m_tick.expires_after(kTick);
    m_tick.async_wait([this](beast::error_code ec) {
        if (!ec) {
            onTick();
        }
    });
}

void Server::Impl::drainQueue(size_t most) {
    host::FrameQueue::Item item;
    for (size_t n = 0; n < most && m_queue.pop(item, 0.0); ++n) {
        ingest(item);
    }
}

void Server::Impl::ingest(const host::FrameQueue::Item& item) {
    const device::tagDeviceData& d = *item.frame;
    const Clock::time_point now = Clock::now();
    ++m_frames;
    m_recent.push_back(now);
    while (seconds(now - m_recent.front()) > 1.0) {
        m_recent.pop_front();
    }
    if (m_lastFrameId >= 0 && d.frameId > m_lastFrameId + 1) {
        m_gaps += static_cast<size_t>(d.frameId - m_lastFrameId - 1);
    }
    m_lastFrameId = d.frameId;
    if (m_state == "waiting") {
        m_state = "scanning";
    }
    m_pose = item.pose.matrix();
    for (const device::TransformTrackingMatrix& m : d.trackingMatrices) {
        m_trackers[m.id] = trackerFrame(m.matrix);
    }

    // The laser points into the reference frame: x R + t, as the session assembles its cloud.
    Eigen::Matrix3d r;
    const auto& rot = item.pose.rotation;
    r << rot[0], rot[1], rot[2], rot[3], rot[4], rot[5], rot[6], rot[7], rot[8];
    const Eigen::Matrix3d rt = r.transpose();
    const Eigen::Vector3d t(item.pose.translation[0], item.pose.translation[1],
                            item.pose.translation[2]);
    const size_t n = d.laserPoints.size() / 3;
    const bool directions = d.laserDirections.size() == d.laserPoints.size();
    const Eigen::Matrix3f rf = rt.cast<float>();
    m_world.resize(3 * n);
    m_normals.resize(directions ? 3 * n : 0);
    size_t kept = 0;
    for (size_t i = 0; i < n; ++i) {
        const Eigen::Vector3d x(d.laserPoints[3 * i], d.laserPoints[3 * i + 1],
                                d.laserPoints[3 * i + 2]);
        if (!x.allFinite()) {
            continue;
        }
        Eigen::Map<Eigen::Vector3f> point(&m_world[3 * kept]);
        point = (rt * x + t).cast<float>();
        if (directions) {
            // The directions are unit vectors; the page needs them to a 127th.
            Eigen::Map<Eigen::Vector3f> normal(&m_normals[3 * kept]);
            normal = rf * Eigen::Map<const Eigen::Vector3f>(&d.laserDirections[3 * i]);
        }
        ++kept;
    }
    m_points += kept;
    m_cloud.add(m_world.data(), directions ? m_normals.data() : nullptr, kept);
    if (m_byDistance) {
        m_values.resize(m_cloud.size(0), std::numeric_limits<float>::quiet_NaN());
        // The running RMS from an even sample of every frame's points.
        const size_t step = std::max<size_t>(1, kept / kRmsSamplesPerFrame);
        m_samples.clear();
        for (size_t i = 0; i < kept; i += step) {
            m_samples.insert(m_samples.end(), &m_world[3 * i], &m_world[3 * i] + 3);
        }
        m_distances.resize(m_samples.size() / 3);
        if (m_truth.distances(m_samples.data(), m_distances.size(), m_distances.data())) {
            for (float e : m_distances) {
                if (std::isfinite(e)) {
                    m_squares += static_cast<double>(e) * e;
                    ++m_measured;
                }
            }
        }
    }
}

bool Server::Impl::hostAllowed(beast::string_view host, const tcp::endpoint& local) const {
    const std::string h = lower(std::string(host));
    const std::string port = ":" + std::to_string(m_port);
    return h == "127.0.0.1" + port || h == "localhost" + port || h == "[::1]" + port ||
           h == lower(hostText(local.address())) + port;
}

bool Server::Impl::originAllowed(beast::string_view origin, const tcp::endpoint& local) const {
    const std::string o = lower(std::string(origin));
    const std::string scheme = "http://";
    return o.compare(0, scheme.size(), scheme) == 0 &&
           hostAllowed(beast::string_view(o).substr(scheme.size()), local);
}

void Server::Impl::handle(const std::shared_ptr<Connection>& connection,
                          http::request<http::string_body> req) {
    const tcp::endpoint local = connection->local();
    const bool keepAlive = req.keep_alive();
    if (!hostAllowed(req[http::field::host], local)) {
        refuse();
        connection->reply(http::status::forbidden, "text/plain",
                          "forbidden: this server answers only to its own address\n", false);
        return;
    }
    const beast::string_view target = req.target();
    if (websocket::is_upgrade(req)) {
        if (target != "/stream") {
            connection->reply(http::status::not_found, "text/plain", "not found\n", false);
        } else if (!originAllowed(req[http::field::origin], local)) {
            refuse();
            connection->reply(http::status::forbidden, "text/plain",
                              "forbidden: the stream is for this server's own page\n", false);
        } else {
            ++m_pagesSeen;
            std::make_shared<Page>(connection->releaseSocket(), this, m_defaultLevel)
                ->accept(std::move(req));
        }
        return;
    }
    if (req.method() != http::verb::get) {
        connection->reply(http::status::method_not_allowed, "text/plain",
                          "only GET is served here\n", keepAlive);
        return;
    }
    const Asset* asset = findAsset(target);
    if (!asset) {
        connection->reply(http::status::not_found, "text/plain", "not found\n", keepAlive);
        return;
    }
    connection->reply(http::status::ok, asset->type,
                      std::string(reinterpret_cast<const char*>(asset->data), asset->size),
                      keepAlive);
}

void Server::Impl::join(const std::shared_ptr<Page>& page) {
    if (m_closed.load()) {
        page->close();
        return;
    }
    json levels = json::array();
    for (int level = 0; level < VoxelCloud::kLevels; ++level) {
        levels.push_back(VoxelCloud::voxelMm(level));
    }
    const std::array<uint8_t, 768> scale = host::colourScale();
    page->outbox.push_back(json{{"type", "hello"},
                                {"title", m_options.title},
                                {"voxel", VoxelCloud::voxelMm(page->level)},
                                {"voxels", levels},
                                {"colours", std::vector<int>(scale.begin(), scale.end())}}
                               .dump());
    m_pages.push_back(page);
    pump(*page);
}

void Server::Impl::leave(Page& page) {
    page.gone = true;
    m_pages.erase(
        std::remove_if(m_pages.begin(), m_pages.end(),
                       [&page](const std::shared_ptr<Page>& p) { return p.get() == &page; }),
        m_pages.end());
}

void Server::Impl::onPageMessage(Page& page, const std::string& text) {
    const json message = json::parse(text, nullptr, false);
    const int level =
        message.is_object() && message.contains("voxel") && message["voxel"].is_number()
            ? VoxelCloud::levelOf(message["voxel"].get<double>())
            : -1;
    if (level < 0) {
        page.outbox.push_back(json{
            {"type", "error"}, {"message", "not understood (send {\"voxel\": 0.5, 1, 2, 4 or 8})"}}
                                  .dump());
    } else if (level != page.level) {
        page.level = level;
        page.cursor = 0;
        page.finalSent = false;
        page.outbox.push_back(
            json{{"type", "reset"}, {"voxel", VoxelCloud::voxelMm(level)}}.dump());
    }
    pump(page);
}

void Server::Impl::pump(Page& page) {
    if (page.writing || page.gone || m_closed.load()) {
        return;
    }
    if (!page.outbox.empty()) {
        page.out = std::move(page.outbox.front());
        page.outbox.pop_front();
        page.send(false);
        return;
    }
    if (page.cursor < m_cloud.size(page.level)) {
        fillPoints(page, page.out);
        page.send(true);
        return;
    }
    const Clock::time_point now = Clock::now();
    const bool due =
        finished() ? !page.finalSent : seconds(now - page.lastStatus) >= kStatusSeconds;
    if (due) {
        page.finalSent = finished();
        page.lastStatus = now;
        page.out = statusJson(page);
        page.send(false);
    }
}

void Server::Impl::fillPoints(Page& page, std::string& out) {
    const size_t first = page.cursor;
    const size_t count = std::min(kChunkPoints, m_cloud.size(page.level) - first);
    const std::vector<float>& xyz = m_cloud.points();
    if (m_byDistance) {
        // Distances of the points that have none yet, in one call.
        m_samples.clear();
        std::vector<uint32_t> missing;
        for (size_t i = first; i < first + count; ++i) {
            const uint32_t k = m_cloud.at(page.level, i);
            if (std::isnan(m_values[k])) {
                missing.push_back(k);
                m_samples.insert(m_samples.end(), &xyz[3 * k], &xyz[3 * k] + 3);
            }
        }
        m_distances.resize(missing.size());
        if (m_truth.distances(m_samples.data(), missing.size(), m_distances.data())) {
            for (size_t j = 0; j < missing.size(); ++j) {
                m_values[missing[j]] = m_distances[j];
            }
        }
    }
    const uint32_t header[3] = {kPointsMessage, static_cast<uint32_t>(first),
                                static_cast<uint32_t>(count)};
    const float voxel = static_cast<float>(VoxelCloud::voxelMm(page.level));
    const std::vector<int8_t>& normals = m_cloud.normals();
    out.assign(16 + kRecordBytes * count, '\0');
    char* o = &out[0];
    std::memcpy(o, header, 12);
    std::memcpy(o + 12, &voxel, 4);
    o += 16;
    for (size_t i = first; i < first + count; ++i, o += kRecordBytes) {
        const uint32_t k = m_cloud.at(page.level, i);
        const float v = m_byDistance ? m_values[k] : xyz[3 * k + 2];
        std::memcpy(o, &xyz[3 * k], 12);
        std::memcpy(o + 12, &v, 4);
        std::memcpy(o + 16, &normals[3 * k], 3);
    }
    page.cursor = first + count;
}

std::array<float, 2> Server::Impl::scale() const {
    if (m_byDistance) {
        // scan.png's scale: three times the scene's laser noise (else three times the RMS).
        const double sigma = m_truth.noiseSigmaMm();
        const double rms = m_measured ? std::sqrt(m_squares / double(m_measured)) : 0.0;
        const double top = sigma > 0 ? 3 * sigma : rms > 0 ? 3 * rms : 0.1;
        return {0.0f, static_cast<float>(top)};
    }
    const float lo = m_cloud.size(0) ? m_cloud.lowestZ() : 0.0f;
    const float hi = m_cloud.size(0) ? m_cloud.highestZ() : 1.0f;
    return {lo, std::max(hi, lo + 1.0f)};
}

std::string Server::Impl::statusJson(const Page& page) const {
    json s{{"type", "status"},
           {"state", m_state},
           {"source", m_source},
           {"frames", m_frames},
           {"points", m_points},
           {"dropped", m_gaps},
           {"queue_dropped", m_queue.dropped()},
           {"cloud", m_cloud.size(page.level)},
           {"sent", page.cursor},
           {"voxel", VoxelCloud::voxelMm(page.level)},
           {"pages", m_pages.size()},
           {"colour", m_byDistance ? "distance" : "height"}};
    const std::array<float, 2> range = scale();
    s["scale"] = {range[0], range[1]};
    double fps = 0.0;
    if (m_fixedFps) {
        fps = *m_fixedFps;
    } else if (m_recent.size() > 1 && !finished() &&
               seconds(Clock::now() - m_recent.back()) < 1.0) {
        fps = double(m_recent.size() - 1) / seconds(m_recent.back() - m_recent.front());
    }
    s["fps"] = fps;
    if (m_fixedRms) {
        s["rms"] = *m_fixedRms;
    } else if (m_measured > 0) {
        s["rms"] = std::sqrt(m_squares / double(m_measured));
    } else {
        s["rms"] = nullptr;
    }
    s["pose"] = m_pose ? matrixJson(*m_pose) : json();
    json trackers = json::array();
    for (const auto& t : m_trackers) {
        trackers.push_back({{"id", t.first}, {"frame", matrixJson(t.second)}});
    }
    s["trackers"] = trackers;
    if (finished()) {
        s["summary"] = m_summary;
    }
    return s.dump();
}

void Server::Impl::updateStats() {
    // Delivered: every page has had the final state (nothing to wait for without pages).
    bool delivered = finished() || m_pages.empty();
    ServerStats stats;
    stats.frames = m_frames;
    stats.queueDropped = m_queue.dropped();
    stats.points = m_points;
    stats.pages = m_pages.size();
    stats.pagesSeen = m_pagesSeen;
    stats.refused = m_refused.load();
    for (const std::shared_ptr<Page>& page : m_pages) {
        stats.sent.push_back(page->cursor);
        delivered = delivered && page->finalSent && !page->writing;
    }
    m_delivered.store(delivered);
    std::lock_guard<std::mutex> lock(m_statsMutex);
    m_stats = std::move(stats);
}

// ---- Server ----------------------------------------------------------------------------------

Server::Server(ServerOptions options) : m_impl(std::make_shared<Impl>(std::move(options))) {
    m_impl->start();
}

Server::~Server() {
    close();
}

const std::string& Server::url() const {
    return m_impl->url();
}

uint16_t Server::port() const {
    return m_impl->port();
}

bool Server::loopbackOnly() const {
    return m_impl->loopbackOnly();
}

void Server::push(const std::shared_ptr<device::tagDeviceData>& frame, const host::Pose& pose) {
    m_impl->push(frame, pose);
}

void Server::watch(host::Session& session) {
    m_impl->watch(session);
}

void Server::unwatch() {
    m_impl->unwatch();
}

void Server::finish(const std::string& summaryJson, bool stopped) {
    m_impl->finish(summaryJson, stopped);
}

void Server::show(const host::Cloud& cloud, const host::TruthSurface& truth,
                  const std::vector<host::TransferMatrix>& trackers,
                  const std::string& summaryJson) {
    m_impl->show(std::make_shared<std::vector<float>>(cloud.points),
                 std::make_shared<std::vector<float>>(cloud.hasNormals() ? cloud.normals
                                                                         : std::vector<float>()),
                 truth, trackers, summaryJson);
}

void Server::close(double seconds) {
    m_impl->close(seconds);
}

ServerStats Server::stats() const {
    return m_impl->stats();
}

double Server::threadCpuSeconds() const {
    return m_impl->threadCpuSeconds();
}

double Server::listenerCpuSeconds() const {
    return m_impl->listenerCpuSeconds();
}

}  // namespace view
