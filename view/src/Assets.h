// The page and its scripts, built into the library: view/web and Debian's three.js
// (libjs-three), turned into a source file at build time by view/cmake/Embed.cmake.
#pragma once

#include <cstddef>

namespace view {

struct Asset {
    const char* path;  // as requested: "/", "/view.js", ...
    const char* type;  // Content-Type
    const unsigned char* data;
    size_t size;
};

extern const Asset kAssets[];
extern const size_t kAssetCount;

}  // namespace view
