// lumora_console: the companion console of the device SDK (see console/README.md).
#include <csignal>
#include <cstdio>
#include <iostream>

#include "console/Console.h"
#include "console/Replay.h"

namespace {
console::Console* g_console = nullptr;
console::Replayer* g_replayer = nullptr;

extern "C" void onSignal(int) {
    if (g_console != nullptr) {
        g_console->requestQuit();
    }
    if (g_replayer != nullptr) {
        g_replayer->requestQuit();
    }
}

// --replay: a recording instead of the simulated devices. Exit code 2 when the recording is
// damaged or missing (nothing is served then).
int replay(const console::ConsoleOptions& options) {
    console::Replayer r(options);
    std::string error;
    if (!r.check(error)) {
        std::cerr << "lumora_console: cannot replay " << options.record.replayPath << ": " << error
                  << "\n";
        return 2;
    }
    if (!r.start()) {
        return 1;
    }
    g_replayer = &r;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    const int rc = r.run();
    g_replayer = nullptr;
    return rc;
}
}  // namespace

int main(int argc, char** argv) {
    console::ConsoleOptions options;
    bool help = false;
    std::string error;
    if (!console::parseOptions(argc, argv, options, help, error)) {
        std::cerr << "lumora_console: " << error << "\n" << console::usageText();
        return 2;
    }
    if (help) {
        std::cout << console::usageText();
        return 0;
    }
    try {
        if (!options.record.replayPath.empty()) {
            return replay(options);
        }
        console::Console c(options);
        if (!c.setupOk()) {
            return 2;
        }
        if (!c.start()) {
            return 1;
        }
        g_console = &c;
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
        const int rc = c.run();
        g_console = nullptr;
        return rc;
    } catch (const std::exception& e) {
        std::cerr << "lumora_console: " << e.what() << "\n";
        return 1;
    }
}
