// Windows implementation of platform/Platform.h.
//
// Narrow paths are in the ANSI code page, as the C runtime's narrow file functions take them;
// every file system call converts them and uses the wide API.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
// The order of these headers matters and must not be sorted: winsock2.h must precede
// windows.h (a windows.h without WIN32_LEAN_AND_MEAN pulls in the old winsock.h, which clashes
// with it), ws2tcpip.h follows winsock2.h, and shellapi.h and tlhelp32.h need the types windows.h
// declares.
// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <shellapi.h>
#include <tlhelp32.h>
// clang-format on

#include <io.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <wchar.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "platform_internal.h"

namespace platform {

using detail::guarded;

namespace {

// With the "use UTF-8 for worldwide language support" option the ANSI code page is 65001, for
// which WideCharToMultiByte refuses a default character; the own codec handles that case.
bool ansiIsUtf8() {
    return GetACP() == CP_UTF8;
}

std::wstring apiToWide(UINT codePage, const std::string& text, bool& ok) {
    if (text.empty()) {
        return {};
    }
    if (text.size() > static_cast<std::size_t>(INT_MAX)) {
        ok = false;
        return {};
    }
    const int inLength = static_cast<int>(text.size());
    DWORD flags = MB_ERR_INVALID_CHARS;
    int n = MultiByteToWideChar(codePage, flags, text.data(), inLength, nullptr, 0);
    if (n == 0) {
        // Invalid bytes: convert again, now with the system's replacement characters.
        ok = false;
        flags = 0;
        n = MultiByteToWideChar(codePage, flags, text.data(), inLength, nullptr, 0);
        if (n == 0) {
            return {};
        }
    }
    std::wstring out(static_cast<std::size_t>(n), L'\0');
    n = MultiByteToWideChar(codePage, flags, text.data(), inLength, &out[0], n);
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

std::string apiToNarrow(UINT codePage, const std::wstring& text, bool& ok) {
    if (text.empty()) {
        return {};
    }
    if (text.size() > static_cast<std::size_t>(INT_MAX)) {
        ok = false;
        return {};
    }
    const int inLength = static_cast<int>(text.size());
    // No best-fit mapping: a character the code page lacks becomes '?' and is reported, instead
    // of silently turning into a look-alike.
    const DWORD flags = WC_NO_BEST_FIT_CHARS;
    BOOL usedDefault = FALSE;
    int n =
        WideCharToMultiByte(codePage, flags, text.data(), inLength, nullptr, 0, "?", &usedDefault);
    if (n == 0) {
        ok = false;
        return {};
    }
    std::string out(static_cast<std::size_t>(n), '\0');
    usedDefault = FALSE;
    n = WideCharToMultiByte(codePage, flags, text.data(), inLength, &out[0], n, "?", &usedDefault);
    if (usedDefault) {
        ok = false;
    }
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

std::wstring ansiToWide(const std::string& text, bool& ok) {
    return ansiIsUtf8() ? detail::utf8ToWide(text, ok) : apiToWide(CP_ACP, text, ok);
}

std::string wideToAnsi(const std::wstring& text, bool& ok) {
    return ansiIsUtf8() ? detail::wideToUtf8(text, ok) : apiToNarrow(CP_ACP, text, ok);
}

std::wstring wide(const std::string& path) {
    return widePath(path);
}

bool isSeparator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------------------------

void sleepMs(int64_t ms) {
    if (ms < 0) {
        return;
    }
    const int64_t ns = detail::scaledNanoseconds(ms);
    if (ns <= 0) {
        std::this_thread::yield();
        return;
    }
    // The system timer limits the resolution (about 1 ms with a raised timer rate, 15.6 ms
    // otherwise); scaled waits below that end after one timer tick.
    std::this_thread::sleep_for(std::chrono::nanoseconds(ns));
}

bool localTime(std::time_t t, std::tm& out) {
    return localtime_s(&out, &t) == 0;
}

// ---------------------------------------------------------------------------------------------
// Processes
// ---------------------------------------------------------------------------------------------

namespace {

std::wstring exeNameOf(const std::string& exeName) {
    std::wstring name = wide(exeName);
    std::size_t cut = std::wstring::npos;
    for (std::size_t i = name.size(); i > 0; --i) {
        if (isSeparator(name[i - 1])) {
            cut = i;
            break;
        }
    }
    if (cut != std::wstring::npos) {
        name.erase(0, cut);
    }
    return name;
}

// The snapshot names carry ".exe"; a name given without it matches too.
bool nameMatches(const wchar_t* exe, const std::wstring& name) {
    if (_wcsicmp(exe, name.c_str()) == 0) {
        return true;
    }
    const std::wstring withSuffix = name + L".exe";
    return _wcsicmp(exe, withSuffix.c_str()) == 0;
}

// Quotes one argument so that the C runtime's command-line parsing gives it back unchanged:
// backslashes are literal except before a quote, where they are doubled.
std::wstring quoteArgument(const std::wstring& arg) {
    if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        return arg;
    }
    std::wstring out = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"') {
            out.append(backslashes * 2 + 1, L'\\');
        } else {
            out.append(backslashes, L'\\');
        }
        out.push_back(c);
        backslashes = 0;
    }
    out.append(backslashes * 2, L'\\');
    out.push_back(L'"');
    return out;
}

}  // namespace

std::vector<int> findProcessesByName(const std::string& exeName) {
    return guarded(std::vector<int>{}, [&] {
        std::vector<int> found;
        const std::wstring name = exeNameOf(exeName);
        if (name.empty()) {
            return found;
        }
        HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
        if (snapshot == INVALID_HANDLE_VALUE) {
            return found;
        }
        PROCESSENTRY32W entry{};
        entry.dwSize = sizeof entry;
        for (BOOL more = Process32FirstW(snapshot, &entry); more;
             more = Process32NextW(snapshot, &entry)) {
            if (nameMatches(entry.szExeFile, name)) {
                found.push_back(static_cast<int>(entry.th32ProcessID));
            }
        }
        CloseHandle(snapshot);
        return found;
    });
}

int terminateProcessesByName(const std::string& exeName) {
    const std::vector<int> pids = findProcessesByName(exeName);
    for (const int pid : pids) {
        HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid));
        if (process != nullptr) {
            TerminateProcess(process, 0);
            CloseHandle(process);
        }
    }
    return static_cast<int>(pids.size());
}

int startProcess(const std::string& path, const std::vector<std::string>& args,
                 const std::string& workDir) {
    return guarded(-1, [&]() -> int {
        if (path.empty()) {
            return -1;
        }
        const std::wstring file = wide(path);
        std::wstring dir = wide(workDir);
        if (dir.empty()) {
            for (std::size_t i = file.size(); i > 0; --i) {
                if (isSeparator(file[i - 1])) {
                    dir = file.substr(0, i - 1);
                    break;
                }
            }
        } else if (!directoryExists(workDir)) {
            return -1;
        }
        std::wstring parameters;
        for (const std::string& arg : args) {
            if (!parameters.empty()) {
                parameters.push_back(L' ');
            }
            parameters += quoteArgument(wide(arg));
        }

        SHELLEXECUTEINFOW info{};
        info.cbSize = sizeof info;
        info.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC;
        info.lpVerb = L"open";
        info.lpFile = file.c_str();
        info.lpParameters = parameters.empty() ? nullptr : parameters.c_str();
        info.lpDirectory = dir.empty() ? nullptr : dir.c_str();
        info.nShow = SW_SHOWNORMAL;
        if (!ShellExecuteExW(&info) || info.hProcess == nullptr) {
            return -1;
        }
        const DWORD pid = GetProcessId(info.hProcess);
        CloseHandle(info.hProcess);
        return pid == 0 ? -1 : static_cast<int>(pid);
    });
}

bool processAlive(int pid) {
    if (pid <= 0) {
        return false;
    }
    HANDLE process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                 static_cast<DWORD>(pid));
    if (process == nullptr) {
        // A process of another user that may not be opened still exists.
        return GetLastError() == ERROR_ACCESS_DENIED;
    }
    const bool alive = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return alive;
}

// Windows keeps no zombies: nothing to reap.
void reapChildren() {}

bool reapChild(int pid) {
    return !processAlive(pid);
}

int currentProcessId() {
    return static_cast<int>(GetCurrentProcessId());
}

// ---------------------------------------------------------------------------------------------
// A child with captured output
// ---------------------------------------------------------------------------------------------

struct ChildProcess::State {
    HANDLE process = nullptr;
    DWORD id = 0;
    std::thread reader;
};

ChildProcess::ChildProcess() : m_state(new State) {}

ChildProcess::~ChildProcess() {
    stop();
}

bool ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                         std::function<void(const std::string&)> onLine, std::string& error) {
    return guarded(false, [&] {
        if (m_state->process != nullptr || m_state->reader.joinable()) {
            error = "already started";
            return false;
        }
        if (!fileExists(program)) {
            error = program + ": no such file";
            return false;
        }
        SECURITY_ATTRIBUTES inherit{};
        inherit.nLength = sizeof inherit;
        inherit.bInheritHandle = TRUE;
        HANDLE readEnd = nullptr, writeEnd = nullptr;
        if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
            error = "cannot create a pipe";
            return false;
        }
        SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
        HANDLE nul = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                 OPEN_EXISTING, 0, nullptr);
        std::wstring commandLine = quoteArgument(wide(program));
        for (const std::string& a : args) {
            commandLine += L' ';
            commandLine += quoteArgument(wide(a));
        }
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = nul == INVALID_HANDLE_VALUE ? nullptr : nul;
        startup.hStdOutput = writeEnd;
        startup.hStdError = writeEnd;
        PROCESS_INFORMATION info{};
        const std::wstring file = wide(program);
        const BOOL ok = CreateProcessW(file.c_str(), &commandLine[0], nullptr, nullptr, TRUE,
                                       CREATE_NO_WINDOW, nullptr, nullptr, &startup, &info);
        CloseHandle(writeEnd);
        if (nul != INVALID_HANDLE_VALUE) {
            CloseHandle(nul);
        }
        if (!ok) {
            CloseHandle(readEnd);
            error = program + ": cannot start (error " + std::to_string(GetLastError()) + ")";
            return false;
        }
        CloseHandle(info.hThread);
        m_state->process = info.hProcess;
        m_state->id = info.dwProcessId;
        m_state->reader = std::thread([readEnd, onLine = std::move(onLine)] {
            std::string pending;
            char buffer[4096];
            DWORD n = 0;
            while (ReadFile(readEnd, buffer, sizeof buffer, &n, nullptr) && n > 0) {
                pending.append(buffer, n);
                std::size_t eol;
                while ((eol = pending.find('\n')) != std::string::npos) {
                    std::string line = pending.substr(0, eol);
                    if (!line.empty() && line.back() == '\r') {
                        line.pop_back();
                    }
                    if (onLine) {
                        onLine(line);
                    }
                    pending.erase(0, eol + 1);
                }
            }
            if (!pending.empty() && onLine) {
                onLine(pending);
            }
            CloseHandle(readEnd);
        });
        return true;
    });
}

bool ChildProcess::alive() const {
    if (m_state->process == nullptr) {
        return false;
    }
    if (WaitForSingleObject(m_state->process, 0) == WAIT_TIMEOUT) {
        return true;
    }
    CloseHandle(m_state->process);
    m_state->process = nullptr;
    m_state->id = 0;
    return false;
}

int ChildProcess::pid() const {
    return m_state->process != nullptr ? static_cast<int>(m_state->id) : -1;
}

void ChildProcess::stop() {
    if (m_state->process != nullptr) {
        // Windows has no polite request for a console program without a window: end it.
        TerminateProcess(m_state->process, 1);
        WaitForSingleObject(m_state->process, 2000);
        CloseHandle(m_state->process);
        m_state->process = nullptr;
        m_state->id = 0;
    }
    if (m_state->reader.joinable()) {
        m_state->reader.join();
    }
}

// ---------------------------------------------------------------------------------------------
// Modules and paths
// ---------------------------------------------------------------------------------------------

std::string modulePathOf(const void* address) {
    return guarded(std::string(), [&]() -> std::string {
        if (address == nullptr) {
            return {};
        }
        HMODULE module = nullptr;
        const DWORD flags =
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
        if (!GetModuleHandleExW(flags, static_cast<LPCWSTR>(address), &module)) {
            return {};
        }
        // Long paths may exceed MAX_PATH: grow until the name fits.
        std::wstring buffer(MAX_PATH, L'\0');
        for (int attempt = 0; attempt < 8; ++attempt) {
            const DWORD n =
                GetModuleFileNameW(module, &buffer[0], static_cast<DWORD>(buffer.size()));
            if (n == 0) {
                return {};
            }
            if (n < buffer.size()) {
                buffer.resize(n);
                return nativePath(buffer);
            }
            buffer.resize(buffer.size() * 2);
        }
        return {};
    });
}

bool fileExists(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    const DWORD attributes = GetFileAttributesW(wide(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool directoryExists(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    const DWORD attributes = GetFileAttributesW(wide(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool makeDirectories(const std::string& path) {
    return guarded(false, [&] {
        if (path.empty()) {
            return false;
        }
        const std::wstring target = wide(path);
        // Every prefix that ends before a separator, then the whole path. Prefixes that cannot
        // be created (a drive "C:", a server "\\host") are passed over; the final check decides.
        for (std::size_t i = 1; i <= target.size(); ++i) {
            if (i < target.size() && !isSeparator(target[i])) {
                continue;
            }
            const std::wstring prefix = target.substr(0, i);
            const DWORD attributes = GetFileAttributesW(prefix.c_str());
            if (attributes == INVALID_FILE_ATTRIBUTES) {
                CreateDirectoryW(prefix.c_str(), nullptr);
            }
        }
        return directoryExists(path);
    });
}

std::string nativePath(const std::wstring& path) {
    return guarded(std::string(), [&] {
        bool ok = true;
        return wideToAnsi(path, ok);
    });
}

std::wstring widePath(const std::string& path) {
    return guarded(std::wstring(), [&] {
        bool ok = true;
        return ansiToWide(path, ok);
    });
}

// ---------------------------------------------------------------------------------------------
// Code pages
// ---------------------------------------------------------------------------------------------

// UTF-8 goes through the own codec on both systems, so that invalid input is replaced the same
// way everywhere; 936 and the ANSI code page use the system's tables.
std::wstring toWide(const std::string& text, int codePage, bool* ok) {
    bool valid = true;
    std::wstring out = guarded(std::wstring(), [&]() -> std::wstring {
        switch (codePage) {
            case kCodePageUtf8:
                return detail::utf8ToWide(text, valid);
            case kCodePageGbk:
                return apiToWide(936, text, valid);
            case kCodePageSystem:
                return ansiToWide(text, valid);
            default:
                valid = false;
                return {};
        }
    });
    if (ok != nullptr) {
        *ok = valid;
    }
    return out;
}

std::string toNarrow(const std::wstring& text, int codePage, bool* ok) {
    bool valid = true;
    std::string out = guarded(std::string(), [&]() -> std::string {
        switch (codePage) {
            case kCodePageUtf8:
                return detail::wideToUtf8(text, valid);
            case kCodePageGbk:
                return apiToNarrow(936, text, valid);
            case kCodePageSystem:
                return wideToAnsi(text, valid);
            default:
                valid = false;
                return {};
        }
    });
    if (ok != nullptr) {
        *ok = valid;
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

bool createFileExclusive(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    HANDLE file = CreateFileW(wide(path).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                              nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    CloseHandle(file);
    return true;
}

bool fileTimes(const std::string& path, FileTimes& out) {
    if (path.empty()) {
        return false;
    }
    struct _stat64 st {};
    if (_wstat64(wide(path).c_str(), &st) != 0) {
        return false;
    }
    out.created = static_cast<std::time_t>(st.st_ctime);  // the creation time on Windows
    out.modified = static_cast<std::time_t>(st.st_mtime);
    out.accessed = static_cast<std::time_t>(st.st_atime);
    out.size = static_cast<int64_t>(st.st_size);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Environment and sockets
// ---------------------------------------------------------------------------------------------

bool getEnvironment(const char* name, std::string& value) {
    if (name == nullptr || *name == '\0') {
        return false;
    }
    return guarded(false, [&] {
        std::string buffer(64, '\0');
        // The value may change between the sizing call and the reading call: retry a few times.
        for (int attempt = 0; attempt < 4; ++attempt) {
            SetLastError(ERROR_SUCCESS);
            const DWORD n =
                GetEnvironmentVariableA(name, &buffer[0], static_cast<DWORD>(buffer.size()));
            if (n == 0) {
                if (GetLastError() == ERROR_ENVVAR_NOT_FOUND) {
                    return false;
                }
                value.clear();  // set, but empty
                return true;
            }
            if (n < buffer.size()) {
                buffer.resize(n);
                value = buffer;
                return true;
            }
            buffer.assign(n, '\0');  // n counts the terminating NUL here
        }
        return false;
    });
}

bool setEnvironment(const char* name, const std::string& value) {
    // _putenv_s changes the C runtime's copy and the process environment alike.
    return name != nullptr && *name != '\0' && std::string(name).find('=') == std::string::npos &&
           _putenv_s(name, value.c_str()) == 0;
}

bool stdoutIsTerminal() {
    return _isatty(_fileno(stdout)) != 0;
}

std::string makeTemporaryDirectory(const std::string& prefix) {
    return guarded(std::string(), [&] {
        wchar_t folder[MAX_PATH + 1] = {0};
        const DWORD n = GetTempPathW(MAX_PATH + 1, folder);
        if (n == 0 || n > MAX_PATH) {
            return std::string();
        }
        const std::string base = nativePath(std::wstring(folder, n));
        const unsigned long long seed =
            static_cast<unsigned long long>(GetCurrentProcessId()) * 0x9E3779B97F4A7C15ULL ^
            static_cast<unsigned long long>(GetTickCount64());
        for (unsigned attempt = 0; attempt < 100; ++attempt) {
            const unsigned long long x = seed + attempt * 0x2545F4914F6CDD1DULL;
            char suffix[8];
            for (int k = 0; k < 6; ++k) {
                suffix[k] = "abcdefghijklmnopqrstuvwxyz0123456789"[(x >> (6 * k)) % 36];
            }
            suffix[6] = '\0';
            const std::string path = joinPath(base, prefix + suffix);
            if (CreateDirectoryW(wide(path).c_str(), nullptr)) {
                return path;
            }
            if (GetLastError() != ERROR_ALREADY_EXISTS) {
                return std::string();
            }
        }
        return std::string();
    });
}

bool socketStartup() {
    // Winsock keeps a count of start-ups; one per process is enough and is never undone, so
    // that sockets stay usable until the process ends.
    static const bool started = [] {
        WSADATA data{};
        return WSAStartup(MAKEWORD(1, 1), &data) == 0;
    }();
    return started;
}

bool endpointAnswers(const std::string& host, uint16_t port, int timeoutMs) {
    if (port == 0 || !socketStartup()) {
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return false;
    }
    bool answered = false;
    const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s != INVALID_SOCKET) {
        u_long nonBlocking = 1;
        ioctlsocket(s, FIONBIO, &nonBlocking);
        int rc = connect(s, found->ai_addr, static_cast<int>(found->ai_addrlen));
        if (rc != 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
            fd_set writable, failed;
            FD_ZERO(&writable);
            FD_ZERO(&failed);
            FD_SET(s, &writable);
            FD_SET(s, &failed);
            const int ms = std::max(0, timeoutMs);
            timeval wait{ms / 1000, (ms % 1000) * 1000};
            rc = select(0, nullptr, &writable, &failed, &wait) == 1 && FD_ISSET(s, &writable) ? 0
                                                                                              : -1;
        }
        answered = rc == 0;
        closesocket(s);
    }
    freeaddrinfo(found);
    return answered;
}

// ---------------------------------------------------------------------------------------------
// TCP sockets
// ---------------------------------------------------------------------------------------------

namespace {

SOCKET nativeOf(Socket s) {
    return static_cast<SOCKET>(s);
}

bool resolveIpv4(const std::string& host, uint16_t port, sockaddr_in& addr) {
    ZeroMemory(&addr, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1) {
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) {
        return false;
    }
    addr.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
    return true;
}

// A socket that the programs this process starts do not inherit (POSIX: close-on-exec).
Socket adopt(SOCKET s) {
    if (s == INVALID_SOCKET) {
        return kInvalidSocket;
    }
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
    return static_cast<Socket>(s);
}

void setNoDelay(SOCKET s) {
    BOOL one = TRUE;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof(one));
}

bool setTimeout(Socket s, int option, int timeoutMs) {
    const DWORD ms = static_cast<DWORD>(std::max(0, timeoutMs));
    return setsockopt(nativeOf(s), SOL_SOCKET, option, reinterpret_cast<const char*>(&ms),
                      sizeof(ms)) == 0;
}

// Standard input cannot be waited for together with sockets (select takes sockets only), so a
// thread of its own reads it, started on first use, and the waits look at what it has read.
struct StandardInput {
    std::mutex mutex;
    std::condition_variable changed;
    std::string data;
    bool ended = false;

    StandardInput() {
        std::thread([this] {
            char buf[4096];
            for (;;) {
                DWORD n = 0;
                const BOOL ok =
                    ReadFile(GetStdHandle(STD_INPUT_HANDLE), buf, sizeof(buf), &n, nullptr);
                std::lock_guard<std::mutex> lock(mutex);
                if (!ok || n == 0) {
                    ended = true;
                } else {
                    data.append(buf, n);
                }
                changed.notify_all();
                if (ended) {
                    return;
                }
            }
        }).detach();
    }
    bool ready() {
        std::lock_guard<std::mutex> lock(mutex);
        return ended || !data.empty();
    }
};

// Never destroyed: its thread may still wait in ReadFile when the process ends.
StandardInput& standardInput() {
    static StandardInput* input = new StandardInput;
    return *input;
}

}  // namespace

Socket tcpConnect(const std::string& host, uint16_t port, int timeoutMs) {
    sockaddr_in addr;
    if (!socketStartup() || !resolveIpv4(host, port, addr)) {
        return kInvalidSocket;
    }
    Socket handle = adopt(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (handle == kInvalidSocket) {
        return kInvalidSocket;
    }
    const SOCKET s = nativeOf(handle);
    u_long nonBlocking = 1;
    ioctlsocket(s, FIONBIO, &nonBlocking);
    int rc = connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc != 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
        fd_set writable, failed;
        FD_ZERO(&writable);
        FD_ZERO(&failed);
        FD_SET(s, &writable);
        FD_SET(s, &failed);
        const int ms = std::max(0, timeoutMs);
        timeval wait{ms / 1000, (ms % 1000) * 1000};
        rc = select(0, nullptr, &writable, &failed, &wait) == 1 && FD_ISSET(s, &writable) ? 0 : -1;
    }
    if (rc != 0) {
        closeSocket(handle);
        return kInvalidSocket;
    }
    nonBlocking = 0;
    ioctlsocket(s, FIONBIO, &nonBlocking);
    setNoDelay(s);
    return handle;
}

Socket tcpListen(const std::string& host, uint16_t port, int backlog, uint16_t* boundPort) {
    sockaddr_in addr;
    if (!socketStartup() || !resolveIpv4(host, port, addr)) {
        return kInvalidSocket;
    }
    Socket handle = adopt(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (handle == kInvalidSocket) {
        return kInvalidSocket;
    }
    const SOCKET s = nativeOf(handle);
    // Windows lets a port in TIME_WAIT be bound again without SO_REUSEADDR, which there would
    // let a second server take a port in use; exclusive use keeps the POSIX meaning.
    BOOL one = TRUE;
    setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&one),
               sizeof(one));
    if (bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(s, backlog) != 0) {
        closeSocket(handle);
        return kInvalidSocket;
    }
    if (boundPort != nullptr) {
        sockaddr_in actual{};
        int len = sizeof(actual);
        getsockname(s, reinterpret_cast<sockaddr*>(&actual), &len);
        *boundPort = ntohs(actual.sin_port);
    }
    return handle;
}

Socket tcpAccept(Socket listener) {
    const Socket handle = adopt(accept(nativeOf(listener), nullptr, nullptr));
    if (handle != kInvalidSocket) {
        setNoDelay(nativeOf(handle));
    }
    return handle;
}

void closeSocket(Socket& s) {
    if (s != kInvalidSocket) {
        closesocket(nativeOf(s));
        s = kInvalidSocket;
    }
}

void shutdownSocket(Socket s, bool sendOnly) {
    if (s != kInvalidSocket) {
        shutdown(nativeOf(s), sendOnly ? SD_SEND : SD_BOTH);
    }
}

bool sendAll(Socket s, const char* a, size_t na, const char* b, size_t nb) {
    if (s == kInvalidSocket) {
        return false;
    }
    const std::pair<const char*, size_t> parts[2] = {{a, na}, {b, nb}};
    for (const auto& part : parts) {
        for (size_t done = 0; done < part.second;) {
            const int chunk = static_cast<int>(std::min<size_t>(part.second - done, INT_MAX));
            const int n = send(nativeOf(s), part.first + done, chunk, 0);
            if (n == SOCKET_ERROR) {
                return false;
            }
            done += static_cast<size_t>(n);
        }
    }
    return true;
}

long recvSome(Socket s, char* buf, size_t capacity) {
    const int n = recv(nativeOf(s), buf, static_cast<int>(std::min<size_t>(capacity, INT_MAX)), 0);
    if (n != SOCKET_ERROR) {
        return n;
    }
    const int error = WSAGetLastError();
    return error == WSAETIMEDOUT || error == WSAEWOULDBLOCK ? -2 : -1;
}

bool setSendTimeout(Socket s, int timeoutMs) {
    return setTimeout(s, SO_SNDTIMEO, timeoutMs);
}

bool setRecvTimeout(Socket s, int timeoutMs) {
    return setTimeout(s, SO_RCVTIMEO, timeoutMs);
}

bool setBufferSizes(Socket s, int bytes) {
    const char* value = reinterpret_cast<const char*>(&bytes);
    return setsockopt(nativeOf(s), SOL_SOCKET, SO_SNDBUF, value, sizeof(bytes)) == 0 &&
           setsockopt(nativeOf(s), SOL_SOCKET, SO_RCVBUF, value, sizeof(bytes)) == 0;
}

int waitSockets(SocketWait* items, size_t count, int timeoutMs) {
    if (count > 16) {
        return -1;
    }
    bool input = false, sockets = false;
    for (size_t i = 0; i < count; ++i) {
        items[i].ready = false;
        (items[i].standardInput ? input : sockets) = true;
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
    for (;;) {
        int ready = 0;
        if (input && standardInput().ready()) {
            for (size_t i = 0; i < count; ++i) {
                if (items[i].standardInput) {
                    items[i].ready = true;
                    ++ready;
                }
            }
        }
        // With standard input in the wait, the sockets are looked at in slices of 10 ms.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const long slice =
            ready > 0 ? 0
                      : static_cast<long>(std::max<int64_t>(
                            0, input ? std::min<int64_t>(left.count(), 10) : left.count()));
        if (sockets) {
            fd_set readable, writable, failed;
            FD_ZERO(&readable);
            FD_ZERO(&writable);
            FD_ZERO(&failed);
            for (size_t i = 0; i < count; ++i) {
                if (!items[i].standardInput) {
                    FD_SET(nativeOf(items[i].socket), items[i].write ? &writable : &readable);
                    FD_SET(nativeOf(items[i].socket), &failed);
                }
            }
            timeval wait{slice / 1000, (slice % 1000) * 1000};
            if (select(0, &readable, &writable, &failed, &wait) == SOCKET_ERROR) {
                return -1;
            }
            for (size_t i = 0; i < count; ++i) {
                const SOCKET s = nativeOf(items[i].socket);
                if (!items[i].standardInput &&
                    (items[i].write ? FD_ISSET(s, &writable)
                                    : FD_ISSET(s, &readable) || FD_ISSET(s, &failed))) {
                    items[i].ready = true;
                    ++ready;
                }
            }
        } else if (slice > 0) {
            Sleep(static_cast<DWORD>(slice));
        }
        if (ready > 0 || std::chrono::steady_clock::now() >= deadline) {
            return ready;
        }
    }
}

long readStandardInput(char* buf, size_t capacity) {
    StandardInput& in = standardInput();
    std::unique_lock<std::mutex> lock(in.mutex);
    in.changed.wait(lock, [&] { return in.ended || !in.data.empty(); });
    const size_t n = std::min(capacity, in.data.size());
    std::memcpy(buf, in.data.data(), n);
    in.data.erase(0, n);
    return static_cast<long>(n);
}

}  // namespace platform
