// The live view: a small HTTP and WebSocket server (Boost.Beast) that shows a scan in the
// browser while it runs, or a finished scan folder.
//
// Frames reach it from a session's frame listener through a bounded queue (push() never
// blocks; when the server falls behind the oldest frames are dropped from the view, never from
// the scan). The server's own thread thins them by a voxel grid and sends each page what it has
// not seen yet, one message at a time: a slow page falls behind and catches up later, a page
// that goes away is forgotten, and neither holds anything up. Several pages may watch; one that
// connects late gets the cloud so far.
//
// It serves only its own page and files, answers 403 to a request whose Host is not its own
// address or localhost with its port, and accepts a WebSocket only from its own page (Origin).
// It listens on loopback unless told otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/Files.h"
#include "host/Records.h"
#include "host/Session.h"

namespace view {

struct ServerOptions {
    std::string bind = "127.0.0.1";  // address to listen on (IPv4 or IPv6)
    uint16_t port = 0;               // 0: a free port
    double voxelMm = 1.0;            // a new page's voxel size: 0.5, 1, 2, 4 or 8 mm
    size_t queueFrames = 64;         // frames between the module's thread and the server's
    std::string title;               // shown on the page
};

struct ServerStats {
    size_t frames = 0;         // frames taken from the queue
    size_t queueDropped = 0;   // frames the queue dropped because the server fell behind
    size_t points = 0;         // laser points of those frames
    size_t pages = 0;          // pages watching now
    size_t pagesSeen = 0;      // pages that ever connected
    size_t refused = 0;        // requests answered 403
    std::vector<size_t> sent;  // points sent to each page watching now
};

class Server {
public:
    // Listens and starts the server's thread; host::Error(kExitUsage) for an address that does
    // not parse, host::Error(kExitFailure) when it cannot listen there.
    explicit Server(ServerOptions options);
    // close(2.0)
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // http://ADDRESS:PORT/ (127.0.0.1 for an address that means every interface).
    const std::string& url() const;
    uint16_t port() const;
    bool loopbackOnly() const;

    // A delivered frame with its pose into the reference frame. Never blocks: safe to call from
    // a frame listener on the module's thread.
    void push(const std::shared_ptr<device::tagDeviceData>& frame, const host::Pose& pose);
    // Registers push() as a frame listener of `session` and colours by the distance to the
    // session's truth once it has one; unwatch() (and close()) remove the listener again.
    void watch(host::Session& session);
    void unwatch();
    // The scan ended: its summary.json, and whether the user stopped it.
    void finish(const std::string& summaryJson, bool stopped);
    // A finished scan instead of live frames: its cloud, its truth (empty: coloured by height),
    // the transfer matrices in use and its summary.json.
    void show(const host::Cloud& cloud, const host::TruthSurface& truth,
              const std::vector<host::TransferMatrix>& trackers, const std::string& summaryJson);

    // Waits until every page has the whole cloud and the final state (after finish() or show()),
    // or `seconds` passed, then closes the pages and stops the thread. Idempotent.
    void close(double seconds = 2.0);

    ServerStats stats() const;
    // CPU time the server's thread used so far, and the frame listener (push()) on the
    // module's thread.
    double threadCpuSeconds() const;
    double listenerCpuSeconds() const;

    class Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

}  // namespace view
