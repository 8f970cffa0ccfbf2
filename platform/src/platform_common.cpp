// The parts of the platform layer that need nothing of the operating system: the time scale,
// time stamp formatting, path joining, the version and the UTF-8 codec.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "platform/Platform.h"
#include "platform_internal.h"

#ifndef PATHFINDER_VERSION_TEXT
#define PATHFINDER_VERSION_TEXT "0.0.0"
#endif

namespace platform {

namespace detail {

bool parseTimeScale(const char* text, double& scale) {
    if (text == nullptr) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || errno == ERANGE) {
        return false;
    }
    while (*end != '\0' && std::isspace(static_cast<unsigned char>(*end))) {
        ++end;
    }
    if (*end != '\0' || !std::isfinite(value) || value <= 0.0) {
        return false;
    }
    scale = value;
    return true;
}

}  // namespace detail

namespace {

// Longest wait the scale can produce: about 31 years, far from int64 overflow in nanoseconds.
constexpr double kMaxScaledNs = 1e18;

double initialTimeScale() {
    std::string text;
    if (!getEnvironment(kTimeScaleEnv, text)) {
        return 1.0;
    }
    double scale = 1.0;
    if (!detail::parseTimeScale(text.c_str(), scale)) {
        std::printf("[platform] ignoring %s=\"%s\": not a positive number, time scale stays 1\n",
                    kTimeScaleEnv, text.c_str());
        std::fflush(stdout);
        return 1.0;
    }
    return scale;
}

// The environment is read on first use (thread-safe static initialisation); setTimeScale goes
// through the same cell, so a scale set by code is never overwritten by the environment later.
std::atomic<double>& scaleCell() {
    static std::atomic<double> cell{initialTimeScale()};
    return cell;
}

int64_t scaledNsOf(double ns) {
    const double scaled = ns * scaleCell().load(std::memory_order_relaxed);
    if (!(scaled > 0.0)) {
        return 0;
    }
    return static_cast<int64_t>(std::min(scaled, kMaxScaledNs));
}

bool isSeparator(char c) {
#ifdef _WIN32
    return c == '\\' || c == '/';
#else
    return c == '/';
#endif
}

bool isSeparator(wchar_t c) {
#ifdef _WIN32
    return c == L'\\' || c == L'/';
#else
    return c == L'/';
#endif
}

template <typename String>
String joinPathImpl(const String& a, const String& b) {
    if (a.empty()) {
        return b;
    }
    using Char = typename String::value_type;
    String out = a;
    if (!isSeparator(out.back())) {
        out.push_back(static_cast<Char>(kPathSeparator));
    }
    std::size_t skip = 0;
    while (skip < b.size() && isSeparator(b[skip])) {
        ++skip;
    }
    out.append(b, skip, String::npos);
    return out;
}

// Conversions of C99 strftime; E and O are modifiers that must be followed by one of them.
bool validStrftimeFormat(const char* format) {
    static const char kConversions[] = "aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZ%";
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            continue;
        }
        ++p;
        if (*p == 'E' || *p == 'O') {
            ++p;
        }
        if (*p == '\0' || std::strchr(kConversions, *p) == nullptr) {
            return false;
        }
    }
    return true;
}

}  // namespace

double timeScale() {
    return scaleCell().load(std::memory_order_relaxed);
}

bool setTimeScale(double scale) {
    if (!std::isfinite(scale) || scale <= 0.0) {
        return false;
    }
    scaleCell().store(scale, std::memory_order_relaxed);
    return true;
}

int64_t detail::scaledNanoseconds(int64_t ms) {
    if (ms <= 0) {
        return 0;
    }
    return scaledNsOf(static_cast<double>(ms) * 1e6);
}

std::chrono::nanoseconds scaledDuration(std::chrono::nanoseconds duration) {
    if (duration.count() <= 0) {
        return std::chrono::nanoseconds(0);
    }
    return std::chrono::nanoseconds(scaledNsOf(static_cast<double>(duration.count())));
}

int64_t steadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

LocalTime localNow() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    // to_time_t may round; take the milliseconds relative to the second it chose.
    auto ms = duration_cast<milliseconds>(now - system_clock::from_time_t(seconds)).count();
    ms = std::clamp<long long>(ms, 0, 999);
    LocalTime out;
    std::tm tm{};
    if (!localTime(seconds, tm)) {
        return out;
    }
    out.year = tm.tm_year + 1900;
    out.month = tm.tm_mon + 1;
    out.day = tm.tm_mday;
    out.hour = tm.tm_hour;
    out.minute = tm.tm_min;
    out.second = tm.tm_sec;
    out.millisecond = static_cast<int>(ms);
    return out;
}

std::string formatTimestamp(const LocalTime& t) {
    char buffer[96];
    const int n = std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d:%03d", t.year,
                                t.month, t.day, t.hour, t.minute, t.second, t.millisecond);
    if (n < 0) {
        return {};
    }
    return std::string(buffer, static_cast<std::size_t>(std::min<int>(n, sizeof buffer - 1)));
}

std::string formatLocalTime(std::time_t t, const char* format) {
    if (format == nullptr || *format == '\0' || !validStrftimeFormat(format)) {
        return {};
    }
    std::tm tm{};
    if (!localTime(t, tm)) {
        return {};
    }
    // strftime gives 0 both for "too small" and for an empty result; grow a few times, then give
    // up with an empty text.
    std::string buffer(64, '\0');
    for (int attempt = 0; attempt < 8; ++attempt) {
        const std::size_t n = std::strftime(buffer.data(), buffer.size(), format, &tm);
        if (n > 0) {
            buffer.resize(n);
            return buffer;
        }
        buffer.assign(buffer.size() * 2, '\0');
    }
    return {};
}

std::string joinPath(const std::string& a, const std::string& b) {
    return joinPathImpl(a, b);
}

std::wstring joinPath(const std::wstring& a, const std::wstring& b) {
    return joinPathImpl(a, b);
}

std::string moduleDirOf(const void* address) {
    std::string path = modulePathOf(address);
    std::size_t cut = std::string::npos;
    for (std::size_t i = path.size(); i > 0; --i) {
        if (isSeparator(path[i - 1])) {
            cut = i - 1;
            break;
        }
    }
    if (cut == std::string::npos) {
        return {};
    }
    path.resize(cut);
    return path;
}

const char* versionText() {
    return PATHFINDER_VERSION_TEXT;
}

// ---------------------------------------------------------------------------------------------
// UTF-8
// ---------------------------------------------------------------------------------------------

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendCodePoint(std::wstring& out, char32_t cp) {
    if constexpr (sizeof(wchar_t) == 2) {
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
            return;
        }
    }
    out.push_back(static_cast<wchar_t>(cp));
}

char32_t wideUnit(wchar_t c) {
    return static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(c));
}

}  // namespace

std::wstring detail::utf8ToWide(const std::string& text, bool& ok) {
    std::wstring out;
    out.reserve(text.size());
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char b0 = s[i];
        if (b0 < 0x80) {
            out.push_back(static_cast<wchar_t>(b0));
            ++i;
            continue;
        }
        // Length of the sequence and the allowed range of its second byte (which excludes
        // overlong forms, surrogates and values above U+10FFFF).
        std::size_t length = 0;
        unsigned char lo = 0x80, hi = 0xBF;
        char32_t cp = 0;
        if (b0 >= 0xC2 && b0 <= 0xDF) {
            length = 2;
            cp = b0 & 0x1F;
        } else if (b0 >= 0xE0 && b0 <= 0xEF) {
            length = 3;
            cp = b0 & 0x0F;
            if (b0 == 0xE0) {
                lo = 0xA0;
            } else if (b0 == 0xED) {
                hi = 0x9F;
            }
        } else if (b0 >= 0xF0 && b0 <= 0xF4) {
            length = 4;
            cp = b0 & 0x07;
            if (b0 == 0xF0) {
                lo = 0x90;
            } else if (b0 == 0xF4) {
                hi = 0x8F;
            }
        } else {
            out.push_back(static_cast<wchar_t>(kReplacement));
            ok = false;
            ++i;
            continue;
        }
        std::size_t k = 1;
        for (; k < length && i + k < n; ++k) {
            const unsigned char b = s[i + k];
            const unsigned char low = k == 1 ? lo : static_cast<unsigned char>(0x80);
            const unsigned char high = k == 1 ? hi : static_cast<unsigned char>(0xBF);
            if (b < low || b > high) {
                break;
            }
            cp = (cp << 6) | (b & 0x3F);
        }
        if (k < length) {
            // One replacement for the valid prefix; the offending byte starts anew.
            out.push_back(static_cast<wchar_t>(kReplacement));
            ok = false;
            i += k;
            continue;
        }
        appendCodePoint(out, cp);
        i += length;
    }
    return out;
}

std::string detail::wideToUtf8(const std::wstring& text, bool& ok) {
    std::string out;
    out.reserve(text.size());
    const std::size_t n = text.size();
    for (std::size_t i = 0; i < n; ++i) {
        char32_t cp = wideUnit(text[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n) {
                const char32_t next = wideUnit(text[i + 1]);
                if (next >= 0xDC00 && next <= 0xDFFF) {
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (next - 0xDC00);
                    ++i;
                }
            }
        }
        if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
            out.push_back('?');
            ok = false;
        } else if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

}  // namespace platform
