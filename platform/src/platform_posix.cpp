// POSIX (Linux first) implementation of platform/Platform.h.
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <iconv.h>
#include <link.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "platform/Platform.h"
#include "platform_internal.h"

extern char** environ;

namespace platform {

using detail::guarded;

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
    // An absolute deadline on the monotonic clock: interruptions by signals resume the same wait
    // instead of restarting it, and changes of the wall clock do not matter.
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const int64_t totalNs = static_cast<int64_t>(deadline.tv_nsec) + ns % 1000000000;
    deadline.tv_sec += static_cast<time_t>(ns / 1000000000 + totalNs / 1000000000);
    deadline.tv_nsec = static_cast<long>(totalNs % 1000000000);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

bool localTime(std::time_t t, std::tm& out) {
    return localtime_r(&t, &out) != nullptr;
}

// ---------------------------------------------------------------------------------------------
// Processes
// ---------------------------------------------------------------------------------------------

namespace {

// Children started by startProcess that have not been reaped yet. Only these are waited for,
// so that children the host started itself keep their exit status.
std::mutex& childrenMutex() {
    static std::mutex m;
    return m;
}
std::set<pid_t>& startedChildren() {
    static std::set<pid_t> children;
    return children;
}

bool readSmallFile(const std::string& path, std::string& out) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char buffer[4096];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (n < 0) {
        return false;
    }
    out.assign(buffer, static_cast<std::size_t>(n));
    return true;
}

std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The name to compare: no folder, no trailing ".exe" (any case).
std::string normaliseExeName(const std::string& exeName) {
    std::string name = baseName(exeName);
    if (name.size() > 4) {
        std::string tail = name.substr(name.size() - 4);
        std::transform(tail.begin(), tail.end(), tail.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (tail == ".exe") {
            name.resize(name.size() - 4);
        }
    }
    return name;
}

// State letter of /proc/<pid>/stat ('R', 'S', 'Z', ...); 0 when the process is unknown. The
// command name in parentheses may itself hold blanks and ')', so the last ')' is the anchor.
char processState(pid_t pid) {
    std::string stat;
    if (!readSmallFile("/proc/" + std::to_string(pid) + "/stat", stat)) {
        return 0;
    }
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size()) {
        return 0;
    }
    return stat[close + 2];
}

bool isGone(char state) {
    return state == 0 || state == 'Z' || state == 'X' || state == 'x';
}

// Executable file name of a process: from /proc/<pid>/exe; when that link cannot be read (a
// process of another user, a kernel thread), from /proc/<pid>/comm, which the kernel cuts to
// 15 characters, completed by the first word of /proc/<pid>/cmdline.
bool processMatches(const std::string& dir, const std::string& name) {
    char link[PATH_MAX];
    const ssize_t n = ::readlink((dir + "/exe").c_str(), link, sizeof link - 1);
    if (n > 0) {
        std::string exe(link, static_cast<std::size_t>(n));
        static const char kDeleted[] = " (deleted)";
        const std::size_t deletedLength = sizeof kDeleted - 1;
        if (exe.size() > deletedLength &&
            exe.compare(exe.size() - deletedLength, deletedLength, kDeleted) == 0) {
            exe.resize(exe.size() - deletedLength);
        }
        return baseName(exe) == name;
    }
    std::string comm;
    if (!readSmallFile(dir + "/comm", comm)) {
        return false;
    }
    if (!comm.empty() && comm.back() == '\n') {
        comm.pop_back();
    }
    constexpr std::size_t kCommLength = 15;
    if (comm != name.substr(0, kCommLength)) {
        return false;
    }
    if (name.size() < kCommLength) {
        return true;
    }
    std::string cmdline;
    if (!readSmallFile(dir + "/cmdline", cmdline)) {
        return false;
    }
    return baseName(std::string(cmdline.c_str())) == name;
}

// Full path of a program name found in PATH (the shell's default when PATH is unset), the way
// execvp would look it up; empty when there is none. Done before fork, as execvp is no
// async-signal-safe call.
std::string searchPath(const std::string& name) {
    const char* pathList = std::getenv("PATH");
    const std::string dirs = pathList != nullptr ? pathList : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos) {
            end = dirs.size();
        }
        // An empty entry means the working directory.
        const std::string dir = end > start ? dirs.substr(start, end - start) : ".";
        std::string candidate = joinPath(dir, name);
        struct stat st {};
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            if (candidate.front() != '/') {
                char resolved[PATH_MAX];
                if (::realpath(candidate.c_str(), resolved) == nullptr) {
                    return {};
                }
                candidate = resolved;
            }
            return candidate;
        }
        start = end + 1;
    }
    return {};
}

void reapStartedChildren() {
    std::lock_guard<std::mutex> lock(childrenMutex());
    auto& children = startedChildren();
    for (auto it = children.begin(); it != children.end();) {
        int status = 0;
        const pid_t r = ::waitpid(*it, &status, WNOHANG);
        // r == pid: reaped; r < 0 (ECHILD): someone else reaped it already.
        if (r == *it || (r < 0 && errno == ECHILD)) {
            it = children.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace

std::vector<int> findProcessesByName(const std::string& exeName) {
    return guarded(std::vector<int>{}, [&] {
        std::vector<int> found;
        const std::string name = normaliseExeName(exeName);
        if (name.empty()) {
            return found;
        }
        reapStartedChildren();
        DIR* proc = ::opendir("/proc");
        if (proc == nullptr) {
            return found;
        }
        while (const dirent* entry = ::readdir(proc)) {
            char* end = nullptr;
            const long pid = std::strtol(entry->d_name, &end, 10);
            if (*end != '\0' || pid <= 0 || pid > INT_MAX) {
                continue;
            }
            const std::string dir = std::string("/proc/") + entry->d_name;
            if (processMatches(dir, name) && !isGone(processState(static_cast<pid_t>(pid)))) {
                found.push_back(static_cast<int>(pid));
            }
        }
        ::closedir(proc);
        std::sort(found.begin(), found.end());
        return found;
    });
}

int terminateProcessesByName(const std::string& exeName) {
    const std::vector<int> pids = findProcessesByName(exeName);
    for (const int pid : pids) {
        ::kill(static_cast<pid_t>(pid), SIGTERM);
    }
    return static_cast<int>(pids.size());
}

int startProcess(const std::string& path, const std::vector<std::string>& args,
                 const std::string& workDir) {
    return guarded(-1, [&]() -> int {
        if (path.empty()) {
            return -1;
        }
        reapStartedChildren();
        // Everything the child needs is prepared here: between fork and exec only
        // async-signal-safe calls are allowed.
        std::string program = path;
        if (path.find('/') == std::string::npos) {
            program = searchPath(path);
            if (program.empty()) {
                return -1;
            }
        } else if (program.front() != '/') {
            char cwd[PATH_MAX];
            if (::getcwd(cwd, sizeof cwd) == nullptr) {
                return -1;
            }
            program = joinPath(cwd, program);
        }
        std::string dir = workDir;
        if (dir.empty()) {
            dir = program.substr(0, program.rfind('/'));
            if (dir.empty()) {
                dir = "/";
            }
        }
        std::vector<std::string> argvText;
        argvText.reserve(args.size() + 1);
        argvText.push_back(path);
        argvText.insert(argvText.end(), args.begin(), args.end());
        std::vector<char*> argv;
        argv.reserve(argvText.size() + 1);
        for (auto& a : argvText) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);

        const long openMax = ::sysconf(_SC_OPEN_MAX);
        const int maxFd = openMax > 0 && openMax < 65536 ? static_cast<int>(openMax) : 65536;
        const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        // The child reports a failed chdir or exec through this pipe; a successful exec closes
        // it (close-on-exec), which the parent sees as end of file.
        int report[2];
        if (::pipe2(report, O_CLOEXEC) != 0) {
            if (devNull >= 0) {
                ::close(devNull);
            }
            return -1;
        }
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::setsid();
            sigset_t none;
            sigemptyset(&none);
            ::sigprocmask(SIG_SETMASK, &none, nullptr);
            // Ignored signals stay ignored across exec; the parent may ignore SIGPIPE.
            struct sigaction dfl {};
            dfl.sa_handler = SIG_DFL;
            ::sigaction(SIGPIPE, &dfl, nullptr);
            if (devNull >= 0) {
                ::dup2(devNull, STDIN_FILENO);
            }
            // Descriptors of the parent (sockets, files) do not leak into the child: all are
            // marked close-on-exec, by one call where the kernel has it.
            long marked = -1;
#ifdef SYS_close_range
            marked = ::syscall(SYS_close_range, 3U, ~0U, 4U /* CLOSE_RANGE_CLOEXEC */);
#endif
            for (int fd = 3; marked != 0 && fd < maxFd; ++fd) {
                ::fcntl(fd, F_SETFD, FD_CLOEXEC);
            }
            int error = 0;
            if (!dir.empty() && ::chdir(dir.c_str()) != 0) {
                error = errno;
            } else {
                ::execve(program.c_str(), argv.data(), environ);
                error = errno;
            }
            ssize_t ignored = ::write(report[1], &error, sizeof error);
            (void)ignored;
            ::_exit(127);
        }
        ::close(report[1]);
        if (devNull >= 0) {
            ::close(devNull);
        }
        if (pid < 0) {
            ::close(report[0]);
            return -1;
        }
        int error = 0;
        ssize_t n;
        do {
            n = ::read(report[0], &error, sizeof error);
        } while (n < 0 && errno == EINTR);
        ::close(report[0]);
        if (n > 0) {
            int status = 0;
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::lock_guard<std::mutex> lock(childrenMutex());
        startedChildren().insert(pid);
        return static_cast<int>(pid);
    });
}

bool processAlive(int pid) {
    if (pid <= 0) {
        return false;
    }
    reapStartedChildren();
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
        return false;
    }
    // Without /proc the signal check above is all there is.
    const char state = processState(static_cast<pid_t>(pid));
    return state == 0 ? !directoryExists("/proc/self") : !isGone(state);
}

void reapChildren() {
    reapStartedChildren();
}

bool reapChild(int pid) {
    std::lock_guard<std::mutex> lock(childrenMutex());
    auto& children = startedChildren();
    const auto it = children.find(static_cast<pid_t>(pid));
    if (it == children.end()) {
        return true;
    }
    int status = 0;
    const pid_t r = ::waitpid(*it, &status, WNOHANG);
    if (r == *it || (r < 0 && errno == ECHILD)) {
        children.erase(it);
        return true;
    }
    return false;
}

int currentProcessId() {
    return static_cast<int>(::getpid());
}

// ---------------------------------------------------------------------------------------------
// A child with captured output
// ---------------------------------------------------------------------------------------------

struct ChildProcess::State {
    pid_t pid = -1;
    std::thread reader;
};

ChildProcess::ChildProcess() : m_state(new State) {}

ChildProcess::~ChildProcess() {
    stop();
}

bool ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                         std::function<void(const std::string&)> onLine, std::string& error) {
    return guarded(false, [&] {
        if (m_state->pid > 0 || m_state->reader.joinable()) {
            error = "already started";
            return false;
        }
        if (::access(program.c_str(), X_OK) != 0) {
            error = program + ": " + std::strerror(errno);
            return false;
        }
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            error = std::string("pipe: ") + std::strerror(errno);
            return false;
        }
        std::vector<std::string> argv{program};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargv;
        for (std::string& a : argv) {
            cargv.push_back(&a[0]);
        }
        cargv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
        pid_t pid = -1;
        const int rc =
            ::posix_spawn(&pid, program.c_str(), &actions, nullptr, cargv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        if (rc != 0) {
            ::close(out[0]);
            error = program + ": " + std::strerror(rc);
            return false;
        }
        m_state->pid = pid;
        m_state->reader = std::thread([fd = out[0], onLine = std::move(onLine)] {
            std::string pending;
            char buffer[4096];
            for (;;) {
                const ssize_t n = ::read(fd, buffer, sizeof(buffer));
                if (n < 0 && errno == EINTR) {
                    continue;
                }
                if (n <= 0) {
                    break;
                }
                pending.append(buffer, static_cast<size_t>(n));
                size_t eol;
                while ((eol = pending.find('\n')) != std::string::npos) {
                    if (onLine) {
                        onLine(pending.substr(0, eol));
                    }
                    pending.erase(0, eol + 1);
                }
            }
            if (!pending.empty() && onLine) {
                onLine(pending);
            }
            ::close(fd);
        });
        return true;
    });
}

bool ChildProcess::alive() const {
    if (m_state->pid <= 0) {
        return false;
    }
    const pid_t r = ::waitpid(m_state->pid, nullptr, WNOHANG);
    if (r == m_state->pid || (r < 0 && errno == ECHILD)) {
        m_state->pid = -1;  // reaped: its id may be reused, never signal it again
        return false;
    }
    return true;
}

int ChildProcess::pid() const {
    return m_state->pid > 0 ? static_cast<int>(m_state->pid) : -1;
}

void ChildProcess::stop() {
    if (m_state->pid > 0) {
        ::kill(m_state->pid, SIGTERM);
        int status = 0;
        bool reaped = false;
        for (int i = 0; i < 200 && !reaped; ++i) {
            const pid_t r = ::waitpid(m_state->pid, &status, WNOHANG);
            reaped = r == m_state->pid || (r < 0 && errno == ECHILD);
            if (!reaped) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        if (!reaped) {
            ::kill(m_state->pid, SIGKILL);
            ::waitpid(m_state->pid, &status, 0);
        }
        m_state->pid = -1;
    }
    if (m_state->reader.joinable()) {
        m_state->reader.join();
    }
}

// ---------------------------------------------------------------------------------------------
// Modules and paths
// ---------------------------------------------------------------------------------------------

namespace {

struct MainProgramQuery {
    std::uintptr_t address = 0;
    bool inside = false;
};

// True when `address` lies in a loaded segment of the main program (always the first object
// dl_iterate_phdr reports).
bool inMainProgram(const void* address) {
    MainProgramQuery query;
    query.address = reinterpret_cast<std::uintptr_t>(address);
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) -> int {
            auto* q = static_cast<MainProgramQuery*>(data);
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const ElfW(Phdr)& ph = info->dlpi_phdr[i];
                if (ph.p_type != PT_LOAD) {
                    continue;
                }
                const std::uintptr_t start = info->dlpi_addr + ph.p_vaddr;
                if (q->address >= start && q->address < start + ph.p_memsz) {
                    q->inside = true;
                }
            }
            return 1;  // only the first object
        },
        &query);
    return query.inside;
}

std::string selfExecutable() {
    char link[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", link, sizeof link - 1);
    return n > 0 ? std::string(link, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

std::string modulePathOf(const void* address) {
    return guarded(std::string(), [&]() -> std::string {
        if (address == nullptr) {
            return {};
        }
        Dl_info info{};
        if (::dladdr(address, &info) == 0) {
            return {};
        }
        // For the main program the loader only knows argv[0], which may be relative or a bare
        // name: the kernel's link is the reliable answer.
        if (info.dli_fname == nullptr || info.dli_fname[0] == '\0' || inMainProgram(address)) {
            return selfExecutable();
        }
        if (info.dli_fname[0] != '/') {
            char resolved[PATH_MAX];
            if (::realpath(info.dli_fname, resolved) != nullptr) {
                return resolved;
            }
        }
        return info.dli_fname;
    });
}

bool fileExists(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool directoryExists(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool makeDirectories(const std::string& path) {
    return guarded(false, [&] {
        if (path.empty()) {
            return false;
        }
        // Create every prefix that ends before a separator, then the whole path.
        for (std::size_t i = 1; i <= path.size(); ++i) {
            if (i < path.size() && path[i] != '/') {
                continue;
            }
            const std::string prefix = path.substr(0, i);
            if (::mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) {
                return false;
            }
        }
        return directoryExists(path);
    });
}

std::string nativePath(const std::wstring& path) {
    return guarded(std::string(), [&] {
        bool ok = true;
        return detail::wideToUtf8(path, ok);
    });
}

std::wstring widePath(const std::string& path) {
    return guarded(std::wstring(), [&] {
        bool ok = true;
        return detail::utf8ToWide(path, ok);
    });
}

// ---------------------------------------------------------------------------------------------
// Code pages
// ---------------------------------------------------------------------------------------------

namespace {

// The C locale's narrow set taken as 7-bit ASCII, independent of whatever locale the host set.
std::wstring asciiToWide(const std::string& text, bool& ok) {
    std::wstring out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            out.push_back(static_cast<wchar_t>(byte));
        } else {
            out.push_back(static_cast<wchar_t>(0xFFFD));
            ok = false;
        }
    }
    return out;
}

std::string wideToAscii(const std::wstring& text, bool& ok) {
    std::string out;
    out.reserve(text.size());
    for (const wchar_t c : text) {
        if (c >= 0 && c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('?');
            ok = false;
        }
    }
    return out;
}

// One iconv conversion descriptor, closed on destruction.
class Iconv {
public:
    Iconv(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
    ~Iconv() {
        if (valid()) {
            iconv_close(cd_);
        }
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;
    bool valid() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return cd_; }

private:
    iconv_t cd_;
};

// Windows code page 936 is GBK; glibc knows it as CP936, other iconv implementations as GBK.
const char* const kGbkNames[] = {"CP936", "GBK"};

Iconv* openGbk(bool toGbk, std::unique_ptr<Iconv>& holder) {
    for (const char* name : kGbkNames) {
        holder = toGbk ? std::make_unique<Iconv>(name, "WCHAR_T")
                       : std::make_unique<Iconv>("WCHAR_T", name);
        if (holder->valid()) {
            return holder.get();
        }
    }
    return nullptr;
}

// Runs iconv over `in`, growing the output as needed. An input unit that cannot be converted is
// skipped (`skip` bytes) and `replacement` is written in its place; a truncated sequence at the
// end is replaced the same way.
std::string runIconv(iconv_t cd, const char* inData, std::size_t inSize, std::size_t skip,
                     const std::string& replacement, bool& ok) {
    std::string out;
    std::size_t used = 0;
    out.resize(inSize * 2 + 16);
    char* in = const_cast<char*>(inData);
    std::size_t inLeft = inSize;
    auto append = [&](const std::string& bytes) {
        if (out.size() - used < bytes.size()) {
            out.resize(out.size() * 2 + bytes.size());
        }
        std::memcpy(out.data() + used, bytes.data(), bytes.size());
        used += bytes.size();
    };
    while (inLeft > 0) {
        char* outPtr = out.data() + used;
        std::size_t outLeft = out.size() - used;
        const std::size_t r = iconv(cd, &in, &inLeft, &outPtr, &outLeft);
        used = static_cast<std::size_t>(outPtr - out.data());
        if (r != static_cast<std::size_t>(-1)) {
            break;
        }
        if (errno == E2BIG) {
            out.resize(out.size() * 2);
        } else if (errno == EILSEQ) {
            ok = false;
            append(replacement);
            const std::size_t step = std::min(skip, inLeft);
            in += step;
            inLeft -= step;
        } else {  // EINVAL: incomplete sequence at the end of the input
            ok = false;
            append(replacement);
            break;
        }
    }
    // Flush any shift state (none for GBK, but harmless).
    for (;;) {
        char* outPtr = out.data() + used;
        std::size_t outLeft = out.size() - used;
        const std::size_t r = iconv(cd, nullptr, nullptr, &outPtr, &outLeft);
        used = static_cast<std::size_t>(outPtr - out.data());
        if (r == static_cast<std::size_t>(-1) && errno == E2BIG) {
            out.resize(out.size() * 2 + 16);
            continue;
        }
        break;
    }
    out.resize(used);
    return out;
}

std::wstring gbkToWide(const std::string& text, bool& ok) {
    std::unique_ptr<Iconv> holder;
    Iconv* cd = openGbk(false, holder);
    if (cd == nullptr) {
        ok = false;
        return {};
    }
    const wchar_t replacementChar = static_cast<wchar_t>(0xFFFD);
    const std::string replacement(reinterpret_cast<const char*>(&replacementChar),
                                  sizeof replacementChar);
    const std::string bytes = runIconv(cd->get(), text.data(), text.size(), 1, replacement, ok);
    std::wstring out(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(out.data(), bytes.data(), out.size() * sizeof(wchar_t));
    return out;
}

std::string wideToGbk(const std::wstring& text, bool& ok) {
    std::unique_ptr<Iconv> holder;
    Iconv* cd = openGbk(true, holder);
    if (cd == nullptr) {
        ok = false;
        return {};
    }
    return runIconv(cd->get(), reinterpret_cast<const char*>(text.data()),
                    text.size() * sizeof(wchar_t), sizeof(wchar_t), "?", ok);
}

}  // namespace

std::wstring toWide(const std::string& text, int codePage, bool* ok) {
    bool valid = true;
    std::wstring out = guarded(std::wstring(), [&]() -> std::wstring {
        switch (codePage) {
            case kCodePageUtf8:
                return detail::utf8ToWide(text, valid);
            case kCodePageGbk:
                return gbkToWide(text, valid);
            case kCodePageSystem:
                return asciiToWide(text, valid);
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
                return wideToGbk(text, valid);
            case kCodePageSystem:
                return wideToAscii(text, valid);
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
    const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

bool fileTimes(const std::string& path, FileTimes& out) {
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) {
        return false;
    }
    out.created = st.st_ctime;
    out.modified = st.st_mtime;
    out.accessed = st.st_atime;
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
    const char* text = std::getenv(name);
    if (text == nullptr) {
        return false;
    }
    return guarded(false, [&] {
        value = text;
        return true;
    });
}

bool setEnvironment(const char* name, const std::string& value) {
    return name != nullptr && *name != '\0' && std::strchr(name, '=') == nullptr &&
           ::setenv(name, value.c_str(), 1) == 0;
}

bool stdoutIsTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

std::string makeTemporaryDirectory(const std::string& prefix) {
    return guarded(std::string(), [&] {
        std::string tmp;
        if (!getEnvironment("TMPDIR", tmp) || tmp.empty()) {
            tmp = "/tmp";
        }
        std::string pattern = joinPath(tmp, prefix + "XXXXXX");
        return ::mkdtemp(&pattern[0]) != nullptr ? pattern : std::string();
    });
}

bool socketStartup() {
    // A handler the host installed itself is left alone.
    struct sigaction current {};
    if (::sigaction(SIGPIPE, nullptr, &current) != 0) {
        return false;
    }
    if (current.sa_handler == SIG_DFL && (current.sa_flags & SA_SIGINFO) == 0) {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        return ::sigaction(SIGPIPE, &ignore, nullptr) == 0;
    }
    return true;
}

bool endpointAnswers(const std::string& host, uint16_t port, int timeoutMs) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (port == 0 ||
        ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return false;
    }
    bool answered = false;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0) {
        int rc = ::connect(fd, found->ai_addr, found->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            rc = -1;
            if (::poll(&p, 1, std::max(0, timeoutMs)) == 1) {
                int err = 0;
                socklen_t len = sizeof(err);
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                rc = err == 0 ? 0 : -1;
            }
        }
        answered = rc == 0;
        ::close(fd);
    }
    ::freeaddrinfo(found);
    return answered;
}

// ---------------------------------------------------------------------------------------------
// TCP sockets
// ---------------------------------------------------------------------------------------------

namespace {

bool resolveIpv4(const std::string& host, uint16_t port, sockaddr_in& addr) {
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1) {
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) {
        return false;
    }
    addr.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    ::freeaddrinfo(res);
    return true;
}

void setNoDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

int fdOf(Socket s) {
    return static_cast<int>(s);
}

bool setTimeout(Socket s, int option, int timeoutMs) {
    timeval tv{};
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = (timeoutMs % 1000) * 1000;
    return ::setsockopt(fdOf(s), SOL_SOCKET, option, &tv, sizeof(tv)) == 0;
}

}  // namespace

Socket tcpConnect(const std::string& host, uint16_t port, int timeoutMs) {
    sockaddr_in addr;
    if (!resolveIpv4(host, port, addr)) {
        return kInvalidSocket;
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return kInvalidSocket;
    }
    const int flags = ::fcntl(fd, F_GETFL, 0);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        rc = ::poll(&p, 1, timeoutMs);
        if (rc == 1) {
            int err = 0;
            socklen_t len = sizeof(err);
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            rc = err == 0 ? 0 : -1;
        } else {
            rc = -1;
        }
    }
    if (rc != 0) {
        ::close(fd);
        return kInvalidSocket;
    }
    ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    setNoDelay(fd);
    return fd;
}

Socket tcpListen(const std::string& host, uint16_t port, int backlog, uint16_t* boundPort) {
    sockaddr_in addr;
    if (!resolveIpv4(host, port, addr)) {
        return kInvalidSocket;
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return kInvalidSocket;
    }
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(fd, backlog) != 0) {
        ::close(fd);
        return kInvalidSocket;
    }
    if (boundPort != nullptr) {
        sockaddr_in actual{};
        socklen_t len = sizeof(actual);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&actual), &len);
        *boundPort = ntohs(actual.sin_port);
    }
    return fd;
}

Socket tcpAccept(Socket listener) {
    const int fd = ::accept4(fdOf(listener), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return kInvalidSocket;
    }
    setNoDelay(fd);
    return fd;
}

void closeSocket(Socket& s) {
    if (s != kInvalidSocket) {
        ::close(fdOf(s));
        s = kInvalidSocket;
    }
}

void shutdownSocket(Socket s, bool sendOnly) {
    if (s != kInvalidSocket) {
        ::shutdown(fdOf(s), sendOnly ? SHUT_WR : SHUT_RDWR);
    }
}

bool sendAll(Socket s, const char* a, size_t na, const char* b, size_t nb) {
    if (s == kInvalidSocket) {
        return false;
    }
    iovec iov[2];
    iov[0].iov_base = const_cast<char*>(a);
    iov[0].iov_len = na;
    iov[1].iov_base = const_cast<char*>(b);
    iov[1].iov_len = nb;
    int first = 0;
    const int count = nb > 0 ? 2 : 1;
    while (first < count) {
        msghdr msg{};
        msg.msg_iov = iov + first;
        msg.msg_iovlen = static_cast<size_t>(count - first);
        const ssize_t n = ::sendmsg(fdOf(s), &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        size_t done = static_cast<size_t>(n);
        while (first < count && done >= iov[first].iov_len) {
            done -= iov[first].iov_len;
            ++first;
        }
        if (first < count) {
            iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + done;
            iov[first].iov_len -= done;
        }
    }
    return true;
}

long recvSome(Socket s, char* buf, size_t capacity) {
    for (;;) {
        const ssize_t n = ::recv(fdOf(s), buf, capacity, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return -2;
        }
        return n < 0 ? -1 : static_cast<long>(n);
    }
}

bool setSendTimeout(Socket s, int timeoutMs) {
    return setTimeout(s, SO_SNDTIMEO, timeoutMs);
}

bool setRecvTimeout(Socket s, int timeoutMs) {
    return setTimeout(s, SO_RCVTIMEO, timeoutMs);
}

bool setBufferSizes(Socket s, int bytes) {
    return ::setsockopt(fdOf(s), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)) == 0 &&
           ::setsockopt(fdOf(s), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

int waitSockets(SocketWait* items, size_t count, int timeoutMs) {
    constexpr size_t kMost = 16;
    if (count > kMost) {
        return -1;
    }
    pollfd fds[kMost];
    for (size_t i = 0; i < count; ++i) {
        items[i].ready = false;
        fds[i] = {items[i].standardInput ? STDIN_FILENO : fdOf(items[i].socket),
                  static_cast<short>(items[i].write ? POLLOUT : POLLIN), 0};
    }
    // A signal ends the wait (-1), so that a caller whose handler asked it to stop sees that.
    const int rc = ::poll(fds, static_cast<nfds_t>(count), timeoutMs);
    if (rc <= 0) {
        return rc < 0 ? -1 : 0;
    }
    int ready = 0;
    for (size_t i = 0; i < count; ++i) {
        const short wanted = items[i].write ? POLLOUT : (POLLIN | POLLHUP | POLLERR);
        items[i].ready = (fds[i].revents & wanted) != 0;
        ready += items[i].ready ? 1 : 0;
    }
    return ready;
}

long readStandardInput(char* buf, size_t capacity) {
    return static_cast<long>(::read(STDIN_FILENO, buf, capacity));
}

}  // namespace platform
