#include "ModuleState.h"

#include <cstdio>

#include "platform/Platform.h"

namespace device {
namespace detail {

namespace {

std::mutex g_imagesPathMutex;
std::wstring g_imagesPath;
std::string g_imagesPathUtf8;

}  // namespace

std::mutex& moduleMutex() {
    static std::mutex mutex;
    return mutex;
}

ModuleFlags& moduleFlags() {
    static ModuleFlags flags;
    return flags;
}

void setImagesSavePath(const std::wstring& path) {
    std::string utf8 = platform::toNarrow(path, platform::kCodePageUtf8);
    std::lock_guard<std::mutex> lock(g_imagesPathMutex);
    g_imagesPath = path;
    g_imagesPathUtf8 = std::move(utf8);
}

std::wstring imagesSavePath() {
    std::lock_guard<std::mutex> lock(g_imagesPathMutex);
    return g_imagesPath;
}

std::string imagesSavePathUtf8() {
    std::lock_guard<std::mutex> lock(g_imagesPathMutex);
    return g_imagesPathUtf8;
}

void logLine(const std::string& text) {
    writeLine("[pathfinder] " + text);
}

void writeLine(const std::string& text) {
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

}  // namespace detail
}  // namespace device
