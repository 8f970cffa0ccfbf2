// A lumora_console child process for the integration tests: started on a free port (or a
// given one), control lines written to its standard input. Its standard output is read (so
// that it never blocks) for the listening line. And the files the tests read and write.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace sdktest {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Creates the folders on the way.
inline void writeFile(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

class ConsoleProcess {
public:
    // `program`: the console to run (a test may run a copy under a name of its own).
    explicit ConsoleProcess(std::string program = LUMORA_CONSOLE_PATH)
        : m_program(std::move(program)) {}
    // Ends the console as a host would, with SIGTERM, so that it leaves through main (and a
    // coverage build writes its counters); SIGKILL when it has not ended within two seconds.
    ~ConsoleProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            if (waitExit(std::chrono::seconds(2)) == -1 && m_pid > 0) {
                kill();
            }
        }
        if (m_stdin >= 0) {
            ::close(m_stdin);
        }
        if (m_reader.joinable()) {
            m_reader.join();
        }
    }

    // Starts the console with `args` on `port` (0: a free one) and waits for its listening
    // line. False when it did not come up.
    bool start(const std::vector<std::string>& args, uint16_t port = 0) {
        int out[2], in[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0) {
            return false;
        }
        std::vector<std::string> argv = {m_program, "--endpoint",
                                         "127.0.0.1:" + std::to_string(port)};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargv;
        for (std::string& a : argv) {
            cargv.push_back(a.data());
        }
        cargv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&fa, in[0], STDIN_FILENO);
        const int rc = posix_spawn(&m_pid, cargv[0], &fa, nullptr, cargv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        ::close(out[1]);
        ::close(in[0]);
        m_stdin = in[1];
        if (rc != 0) {
            ::close(out[0]);
            m_pid = -1;
            return false;
        }
        m_reader = std::thread([this, fd = out[0]] { readLoop(fd); });
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_port != 0 || m_eof; });
        return m_port != 0;
    }

    std::string endpoint() const { return "127.0.0.1:" + std::to_string(m_port); }

    bool control(const std::string& line) {
        const std::string l = line + "\n";
        return ::write(m_stdin, l.data(), l.size()) == static_cast<ssize_t>(l.size());
    }

    // The exit code once the console ended by itself (-1 after the timeout, -2 when a signal
    // ended it).
    int waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (m_pid > 0) {
            int status = 0;
            const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
            if (r == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

    // True once the console printed a line containing `text` (waits up to the timeout).
    bool saw(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] {
            for (const std::string& l : m_lines) {
                if (l.find(text) != std::string::npos) {
                    return true;
                }
            }
            return false;
        });
    }

    // Every line the console printed so far.
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    // Ends the console at once (SIGKILL), as a crash or a killed process does.
    void kill() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

private:
    void readLoop(int fd) {
        std::string pending;
        char buf[4096];
        for (ssize_t n; (n = ::read(fd, buf, sizeof(buf))) > 0;) {
            pending.append(buf, static_cast<size_t>(n));
            for (size_t eol; (eol = pending.find('\n')) != std::string::npos;) {
                const std::string line = pending.substr(0, eol);
                pending.erase(0, eol + 1);
                std::lock_guard<std::mutex> lock(m_mutex);
                m_lines.push_back(line);
                m_cv.notify_all();
                if (m_port == 0 && line.find("listening on ") != std::string::npos) {
                    m_port = static_cast<uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
                    m_cv.notify_all();
                }
            }
        }
        ::close(fd);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_eof = true;
        m_cv.notify_all();
    }

    std::string m_program;
    pid_t m_pid = -1;
    int m_stdin = -1;
    std::thread m_reader;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    uint16_t m_port = 0;
    bool m_eof = false;
    std::vector<std::string> m_lines;
};

}  // namespace sdktest
