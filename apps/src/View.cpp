#include "View.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

namespace pfapp {

namespace {

std::atomic<bool> g_interrupted{false};
std::atomic<host::Session*> g_session{nullptr};

extern "C" void onInterrupt(int) {
    g_interrupted.store(true);
    if (host::Session* session = g_session.load()) {
        session->requestStop();
    }
}

void catchInterrupts() {
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
}

}  // namespace

void addViewOptions(CLI::App* sub, ViewArgs& args, bool live) {
    CLI::Option* on = nullptr;
    if (live) {
        on = sub->add_flag("--view", args.enabled,
                           "show the scan live in the browser (prints the page's address)");
    }
    auto* port =
        sub->add_option("--view-port", args.port, "port of the view (default: a free one)");
    auto* bind = sub->add_option("--view-bind", args.bind,
                                 "address the view listens on (default 127.0.0.1; anything else "
                                 "shows the scan to whoever reaches it)");
    if (on) {
        port->needs(on);
        bind->needs(on);
        sub->add_flag("--view-wait", args.wait, "keep serving the view after the scan until Ctrl-C")
            ->needs(on);
    }
}

std::unique_ptr<view::Server> startView(const ViewArgs& args, const std::string& title) {
    view::ServerOptions options;
    options.bind = args.bind;
    options.port = args.port;
    options.title = title;
    auto server = std::make_unique<view::Server>(options);
    if (!server->loopbackOnly()) {
        std::printf(
            "view: warning: listening on %s port %u, beyond this machine: whoever reaches "
            "it sees the scan\n",
            args.bind.c_str(), static_cast<unsigned>(server->port()));
    }
    std::printf("view: %s\n", server->url().c_str());
    std::fflush(stdout);
    return server;
}

WatchedSession::WatchedSession(view::Server* server, host::Session& session) : m_server(server) {
    if (m_server) {
        m_server->watch(session);
        g_session.store(&session);
        catchInterrupts();
    }
}

WatchedSession::~WatchedSession() {
    if (m_server) {
        g_session.store(nullptr);
        m_server->unwatch();
        g_interrupted.store(false);  // a Ctrl-C that stopped the scan does not end the serving
    }
}

void serveUntilInterrupted(const view::Server& server) {
    catchInterrupts();
    std::printf("view: serving %s until Ctrl-C\n", server.url().c_str());
    std::fflush(stdout);
    while (!g_interrupted.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

}  // namespace pfapp
