// The live view's options and its life in the tool: the server (view/), the address printed,
// Ctrl-C, and serving on after the work until Ctrl-C.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "host/Session.h"
#include "view/Server.h"

namespace pfapp {

struct ViewArgs {
    bool enabled = false;
    uint16_t port = 0;
    std::string bind = "127.0.0.1";
    bool wait = false;
};

// --view-port and --view-bind; with `live` also --view and --view-wait (they need --view).
void addViewOptions(CLI::App* sub, ViewArgs& args, bool live);

// Starts the server and prints its address (and a warning when it listens beyond loopback).
std::unique_ptr<view::Server> startView(const ViewArgs& args, const std::string& title);

// While it lives, the server takes the session's frames and Ctrl-C stops the session's work
// (requestStop) instead of ending the tool.
class WatchedSession {
public:
    WatchedSession(view::Server* server, host::Session& session);
    ~WatchedSession();
    WatchedSession(const WatchedSession&) = delete;
    WatchedSession& operator=(const WatchedSession&) = delete;

private:
    view::Server* m_server;
};

// Serves until Ctrl-C (or SIGTERM).
void serveUntilInterrupted(const view::Server& server);

}  // namespace pfapp
