// The only place of the project that knows the operating system.
//
// POSIX is implemented in src/platform_posix.cpp, Windows in src/platform_win32.cpp; both are
// written against this header. Nothing here throws: failures are return values.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {

// ---------------------------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------------------------

// Name of the environment variable read once, on first use, for the process-wide time scale.
constexpr const char* kTimeScaleEnv = "PATHFINDER_TIME_SCALE";

// Factor applied to every wait of the stack (default 1.0). A scale of 0.01 makes a 3 s wait
// last 30 ms. Values <= 0 or not finite are refused (the scale stays as it is) and false is
// returned.
double timeScale();
bool setTimeScale(double scale);

// Sleeps `ms` milliseconds multiplied by the time scale. Negative values sleep not at all; zero
// only yields the processor.
void sleepMs(int64_t ms);

// `duration` multiplied by the time scale, clamped to [0, about 30 years]; for timeouts that do
// not go through sleepMs (condition variables, socket waits) but must honour the scale too.
std::chrono::nanoseconds scaledDuration(std::chrono::nanoseconds duration);

// Monotonic milliseconds since an arbitrary start, unscaled.
int64_t steadyMs();

// Broken-down local time with milliseconds.
struct LocalTime {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
};
LocalTime localNow();
bool localTime(std::time_t t, std::tm& out);  // thread-safe localtime

// "YYYY-MM-DD HH:MM:SS:mmm" (the stamp of trigger lines and the console log).
std::string formatTimestamp(const LocalTime& t);
// strftime of a time_t in local time; empty on failure. Only the conversions of C99 strftime
// (with the E and O modifiers) are accepted: a format with any other conversion gives empty.
std::string formatLocalTime(std::time_t t, const char* format);

// ---------------------------------------------------------------------------------------------
// Processes (by executable file name, e.g. "lumora_console")
// ---------------------------------------------------------------------------------------------

// Process ids of every process whose executable file name equals `exeName` (no folder). On
// Windows a missing ".exe" is matched too; on POSIX a trailing ".exe" in `exeName` is ignored,
// so the same name works on both.
std::vector<int> findProcessesByName(const std::string& exeName);

// Asks every such process to end (SIGTERM / TerminateProcess with exit code 0). Returns how
// many were found.
int terminateProcessesByName(const std::string& exeName);

// Starts `path` detached from the caller with `args` and working directory `workDir` (empty:
// the program's folder). Returns the process id, or -1 when it could not be started.
// POSIX: the child runs in a session of its own with standard input from /dev/null and the
// caller's standard output and error; a `path` without '/' is looked up in PATH (its folder is
// then the program's folder), a relative one is taken from the caller's working directory.
// Windows: the shell's "open" verb.
int startProcess(const std::string& path, const std::vector<std::string>& args = {},
                 const std::string& workDir = {});

// True while the process with this id exists and is not a zombie.
bool processAlive(int pid);

// Reaps `pid` when it is a child that startProcess started and it has ended. True when nothing
// of it is left to reap (reaped now or before, or not such a child); false while it runs or is
// still ending (a zombie leader waits for its other threads before it can be reaped).
bool reapChild(int pid);

// Reaps a child started by startProcess if it has ended (POSIX); harmless otherwise. Only
// children started by startProcess are reaped, never other children of the process.
void reapChildren();

// Id of the calling process.
int currentProcessId();

// A child process whose standard output and error are read line by line on a thread of its
// own; every line (without its line end) goes to `onLine`, from that thread. Standard input is
// the null device. The child is ended when the object dies. Nothing is found or ended by name.
class ChildProcess {
public:
    ChildProcess();
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts `program` (a path; no PATH search) with `args`. False, with `error` set, when it
    // cannot be started; a started object is not started again.
    bool start(const std::string& program, const std::vector<std::string>& args,
               std::function<void(const std::string&)> onLine, std::string& error);
    // True while the child runs (an ended child is reaped here and never signalled again).
    bool alive() const;
    // Its process id; -1 when none runs.
    int pid() const;
    // Asks the child to end (SIGTERM; TerminateProcess on Windows), waits about two seconds,
    // then kills it; waits for its output to be read to the end.
    void stop();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// ---------------------------------------------------------------------------------------------
// Modules and paths
// ---------------------------------------------------------------------------------------------

constexpr char kPathSeparator =
#ifdef _WIN32
    '\\';
#else
    '/';
#endif

// a + separator + b, without doubling a separator already at the end of a or at the start of b.
// An empty a gives b unchanged (no separator is put in front of it).
std::string joinPath(const std::string& a, const std::string& b);
std::wstring joinPath(const std::wstring& a, const std::wstring& b);

// Full path of the executable or shared library that contains `address`; empty if unknown.
std::string modulePathOf(const void* address);
// Folder of that module, without trailing separator.
std::string moduleDirOf(const void* address);

// Version text of the stack, from the build ("0.1.0").
const char* versionText();

// Narrow paths are as the file system takes them: bytes (normally UTF-8) on POSIX, the ANSI code
// page on Windows.

// True when `path` exists and is not a directory.
bool fileExists(const std::string& path);
bool directoryExists(const std::string& path);
// Creates `path` and its missing parents; true when the directory exists afterwards.
bool makeDirectories(const std::string& path);

// Path as the file system takes it: wide paths are UTF-8 on POSIX (invalid bytes become U+FFFD in
// widePath), the ANSI code page on Windows.
std::string nativePath(const std::wstring& path);
std::wstring widePath(const std::string& path);

// ---------------------------------------------------------------------------------------------
// Code pages
// ---------------------------------------------------------------------------------------------

constexpr int kCodePageUtf8 = 65001;
constexpr int kCodePageGbk = 936;
// The C locale's narrow character set: 7-bit ASCII on POSIX (independent of setlocale), the
// ANSI code page on Windows.
constexpr int kCodePageSystem = 0;

// Narrow <-> wide conversion for the code pages above. Invalid input bytes/characters are
// replaced (U+FFFD, or '?' when narrowing), never thrown; `ok`, if given, tells whether the
// input was valid and the code page known. An unknown code page converts nothing.
std::wstring toWide(const std::string& text, int codePage, bool* ok = nullptr);
std::string toNarrow(const std::wstring& text, int codePage, bool* ok = nullptr);

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

// Creates `path` only if it does not exist yet (POSIX mode 0666 less the umask; no handle stays
// open). True when this call created it.
bool createFileExclusive(const std::string& path);

struct FileTimes {
    std::time_t created = 0;  // status change time on POSIX
    std::time_t modified = 0;
    std::time_t accessed = 0;
    int64_t size = 0;
};
bool fileTimes(const std::string& path, FileTimes& out);

// ---------------------------------------------------------------------------------------------
// Environment
// ---------------------------------------------------------------------------------------------

// Value of the environment variable `name`; false (and `value` untouched) when it is not set.
bool getEnvironment(const char* name, std::string& value);
// Sets the environment variable `name` for this process and the children it starts.
bool setEnvironment(const char* name, const std::string& value);

// True when standard output is a terminal (a console window on Windows).
bool stdoutIsTerminal();

// Creates a new, empty folder with a unique name that starts with `prefix` in the folder for
// temporary files ($TMPDIR or /tmp; the user's temporary folder on Windows). Its path, or empty
// when none could be made.
std::string makeTemporaryDirectory(const std::string& prefix);

// ---------------------------------------------------------------------------------------------
// Sockets
// ---------------------------------------------------------------------------------------------

// Starts the socket library (WSAStartup on Windows; on POSIX ignores SIGPIPE so a closed peer
// is reported as an error instead of ending the process). Safe to call repeatedly.
bool socketStartup();

// True when something accepts a TCP connection at host:port (IPv4; a name is resolved) within
// `timeoutMs` milliseconds (unscaled). Port 0 never answers. The connection is closed at once.
bool endpointAnswers(const std::string& host, uint16_t port, int timeoutMs);

// TCP over IPv4 with blocking sockets and explicit waits, for the SDK's link and the console.
// `host` is a dotted address or a name; every wait is in real (unscaled) milliseconds. The
// calls start the socket library themselves.

// A socket: the descriptor on POSIX, the SOCKET on Windows.
using Socket = std::intptr_t;
constexpr Socket kInvalidSocket = -1;

// Connects within `timeoutMs`; kInvalidSocket on failure. Nagle's delay is switched off.
Socket tcpConnect(const std::string& host, uint16_t port, int timeoutMs);
// Listens (address reuse on, so a restarted server gets its port back); `boundPort`, if given,
// receives the port actually bound (useful with port 0).
Socket tcpListen(const std::string& host, uint16_t port, int backlog, uint16_t* boundPort);
// Accepts one client (Nagle's delay off); kInvalidSocket when none is pending or on error.
Socket tcpAccept(Socket listener);

// Closes `s` and sets it to kInvalidSocket.
void closeSocket(Socket& s);
// Ends both directions (a thread blocked on the socket wakes up), or only the sending one;
// the socket stays open.
void shutdownSocket(Socket s, bool sendOnly = false);

// Writes a and then b completely (b may be empty). False on error or when the peer stalls
// longer than the send timeout.
bool sendAll(Socket s, const char* a, size_t na, const char* b = nullptr, size_t nb = 0);
// > 0 bytes read, 0 orderly close, -1 error, -2 the receive timeout passed without data.
long recvSome(Socket s, char* buf, size_t capacity);

bool setSendTimeout(Socket s, int timeoutMs);
bool setRecvTimeout(Socket s, int timeoutMs);
bool setBufferSizes(Socket s, int bytes);

// One thing to wait for: a socket to read from (data, a closed peer or an error count as
// ready), a socket to write to, or standard input.
struct SocketWait {
    Socket socket = kInvalidSocket;
    bool write = false;          // wait until `socket` takes data instead
    bool standardInput = false;  // wait for standard input instead of `socket`
    bool ready = false;          // set by waitSockets
};
// Waits until one of `items` (at most 16) is ready or `timeoutMs` passed (0: only looks; no
// items: sleeps). The number of ready items, 0 on timeout, -1 on error or when a signal
// interrupted the wait.
int waitSockets(SocketWait* items, size_t count, int timeoutMs);
// Reads what standard input has (at most `capacity` bytes): > 0 bytes, 0 at its end, -1 error.
long readStandardInput(char* buf, size_t capacity);

}  // namespace platform
