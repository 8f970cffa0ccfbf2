// HELMSMAN_API marks what the host library exports. Windows: exported while Helmsman.dll itself
// is built (CMake defines helmsman_EXPORTS there), imported by everyone else; the same for MinGW
// and MSVC. Elsewhere every symbol is visible already and the mark changes nothing.
#pragma once

#if defined(_WIN32)
#if defined(helmsman_EXPORTS)
#define HELMSMAN_API __declspec(dllexport)
#else
#define HELMSMAN_API __declspec(dllimport)
#endif
#else
#define HELMSMAN_API __attribute__((visibility("default")))
#endif
