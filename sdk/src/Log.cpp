#include "Log.h"

#include <atomic>
#include <cstdio>

namespace SDK_NV {

namespace {
std::atomic<bool> g_trace{false};
}

void logLine(const std::string& text) {
    const std::string line = "[sdk_nv] " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

void traceLine(const std::string& text) {
    if (g_trace.load(std::memory_order_relaxed)) {
        logLine(text);
    }
}

bool traceEnabled() {
    return g_trace.load(std::memory_order_relaxed);
}
void setTraceEnabled(bool on) {
    g_trace.store(on, std::memory_order_relaxed);
}

}  // namespace SDK_NV
