// Helpers shared by the POSIX and Windows implementations; not part of the public interface.
#pragma once

#include <cstdint>
#include <string>

namespace platform::detail {

// Parses a time scale text: a finite number > 0, surrounded by nothing but white space.
bool parseTimeScale(const char* text, double& scale);

// Scaled length of a wait of `ms` milliseconds in nanoseconds (0 for ms <= 0), clamped.
int64_t scaledNanoseconds(int64_t ms);

// UTF-8 <-> wide conversion with replacement: invalid byte sequences become one U+FFFD per
// maximal ill-formed subpart, wide characters that are no Unicode scalar value become '?'.
// `ok` is cleared when anything was replaced and left alone otherwise. Works for 16-bit (UTF-16)
// and 32-bit (UTF-32) wchar_t.
std::wstring utf8ToWide(const std::string& text, bool& ok);
std::string wideToUtf8(const std::wstring& text, bool& ok);

// Runs `body` and turns any exception (in practice std::bad_alloc) into `fallback`, so that no
// exception leaves the layer.
template <typename Result, typename Body>
Result guarded(Result fallback, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

}  // namespace platform::detail
