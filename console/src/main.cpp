// lumora_console: the companion console of the device SDK (see console/README.md).
#include <csignal>
#include <cstdio>
#include <iostream>

#include "console/Console.h"

namespace {
console::Console* g_console = nullptr;

extern "C" void onSignal(int) {
    if (g_console != nullptr) {
        g_console->requestQuit();
    }
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
        if (!options.exportTruthDir.empty()) {
            // The truth of the scene these flags describe, without a server.
            std::unique_ptr<console::FrameSource> source = console::makeFrameSource(options, error);
            if (!source || !source->exportTruth(options.exportTruthDir, error)) {
                std::cerr << "lumora_console: " << error << "\n";
                return 1;
            }
            std::cout << "[lumora_console] truth written to " << options.exportTruthDir << "\n";
            return 0;
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
