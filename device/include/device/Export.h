// PATHFINDER_API marks what the device module exports: the device object and the module's free
// functions. Windows: exported while Pathfinder.dll itself is built (CMake defines
// pathfinder_EXPORTS there), imported by hosts; the same for MinGW and MSVC. Elsewhere every
// symbol is visible already and the mark changes nothing.
#pragma once

#if defined(_WIN32)
#if defined(pathfinder_EXPORTS)
#define PATHFINDER_API __declspec(dllexport)
#else
#define PATHFINDER_API __declspec(dllimport)
#endif
#else
#define PATHFINDER_API __attribute__((visibility("default")))
#endif
