#include "System.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace pfapp {

bool splitEndpoint(const std::string& text, std::string& host, uint16_t& port) {
    const size_t colon = text.rfind(':');
    const std::string h = colon == std::string::npos ? std::string() : text.substr(0, colon);
    const std::string p = colon == std::string::npos ? text : text.substr(colon + 1);
    if (p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const unsigned long value = std::stoul(p);
    if (value > 65535) {
        return false;
    }
    host = h.empty() ? "127.0.0.1" : h;
    port = static_cast<uint16_t>(value);
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
            if (::poll(&p, 1, timeoutMs) == 1) {
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

bool stdoutIsTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

struct ChildProcess::State {
    pid_t pid = -1;
    std::thread reader;
    std::atomic<bool> ended{false};
};

ChildProcess::ChildProcess() : m_state(new State) {}

ChildProcess::~ChildProcess() {
    stop();
}

bool ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                         std::function<void(const std::string&)> onLine, std::string& error) {
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
    const int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, cargv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
        ::close(out[0]);
        error = program + ": " + std::strerror(rc);
        return false;
    }
    m_state->pid = pid;
    m_state->reader = std::thread([fd = out[0], onLine, state = m_state.get()] {
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
        state->ended = true;
    });
    return true;
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
    return m_state->pid;
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

}  // namespace pfapp
