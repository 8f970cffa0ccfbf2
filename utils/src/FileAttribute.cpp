#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "platform/Platform.h"
#include "utils/ConfigEditor.h"

namespace zq {
namespace utils {

namespace {

void appendNumber(std::wstring& out, int value, std::size_t width) {
    std::wstring digits = std::to_wstring(value);
    if (digits.size() < width) {
        digits.insert(0, width - digits.size(), L'0');
    }
    out += digits;
}

// Year, U+0004, month, U+0014, day, U+0008, ", hh:mm:ss" in local time. The control
// characters stand where date separators would be and are part of the format.
std::wstring formatFileTime(std::time_t t) {
    // Time stamps are taken as 32-bit seconds since 1970.
    const auto seconds = static_cast<std::time_t>(static_cast<int32_t>(t));
    std::tm tm{};
    if (!platform::localTime(seconds, tm)) {
        return std::wstring();
    }
    std::wstring out;
    appendNumber(out, tm.tm_year + 1900, 4);
    out += L'\x04';
    appendNumber(out, tm.tm_mon + 1, 2);
    out += L'\x14';
    appendNumber(out, tm.tm_mday, 2);
    out += L'\x08';
    out += L", ";
    appendNumber(out, tm.tm_hour, 2);
    out += L':';
    appendNumber(out, tm.tm_min, 2);
    out += L':';
    appendNumber(out, tm.tm_sec, 2);
    return out;
}

std::wstring codePageName(int32_t codePage) {
    switch (codePage) {
        case kCodePageAnsi:
            return L"ANSI";
        case kCodePageGb2312:
            return L"GB2312";
        case kCodePageUtf8:
            return L"UTF8";
        default:
            return std::to_wstring(codePage);
    }
}

}  // namespace

bool getFileAttribute(const std::wstring& path, FileAttribute& attribute) {
    try {
        platform::FileTimes times;
        const std::string native = platform::nativePath(path);
        if (native.empty() || !platform::fileTimes(native, times)) {
            return false;
        }
        FileAttribute filled;
        filled.createTime = formatFileTime(times.created);
        filled.modifyTime = formatFileTime(times.modified);
        filled.accessTime = formatFileTime(times.accessed);
        filled.size = times.size > INT32_MAX
                          ? INT32_MAX
                          : static_cast<int32_t>(times.size < 0 ? 0 : times.size);
        attribute = std::move(filled);
        return true;
    } catch (...) {
        return false;
    }
}

std::wstring getConfigEditTitle(const tagConfigFile& file) {
    try {
        const std::size_t slash = file.fileName.find_last_of(L"/\\");
        const std::wstring name =
            slash == std::wstring::npos ? file.fileName : file.fileName.substr(slash + 1);
        // A name without a dot is given whole as its extension.
        const std::size_t dot = name.rfind(L'.');
        const std::wstring ext = dot == std::wstring::npos ? name : name.substr(dot + 1);

        FileAttribute attribute;
        getFileAttribute(file.fileName, attribute);

        std::wstring title;
        title += L"# File Name: " + name + L"\n";
        title += L"# File Ext: " + ext + L"\n";
        title += L"# Code Page: " + codePageName(file.codePage) + L"\n";
        title += L"# Version: " + std::wstring(kConfigEditorVersion) + L"\n";
        title += L"# Create Time: " + attribute.createTime + L"\n";
        title += L"# Modify Time: " + attribute.modifyTime + L"\n";
        return title;
    } catch (...) {
        return std::wstring();
    }
}

std::string encryption(const std::string& text) {
    std::string out(text);
    for (char& c : out) {
        c = static_cast<char>(~static_cast<unsigned char>(c));
    }
    return out;
}

CConfigEditor& debugConfig() {
    static CConfigEditor editor;
    return editor;
}

namespace {
// Constructs the module-wide editor (empty) at start-up.
[[maybe_unused]] CConfigEditor& g_debugConfigAtStartUp = debugConfig();
}  // namespace

}  // namespace utils
}  // namespace zq
