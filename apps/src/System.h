// The few operating-system services the host tool needs beyond the platform layer: a child
// console whose output is captured, a probe of a TCP endpoint and a terminal test.
//
// POSIX only for now (the tool is built on Linux); these belong in platform/ once a second
// user needs them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pfapp {

// True when something accepts TCP connections at host:port within `timeoutMs`.
bool endpointAnswers(const std::string& host, uint16_t port, int timeoutMs);

// Splits "host:port", ":port" or "port" (host 127.0.0.1). False when it does not parse.
bool splitEndpoint(const std::string& text, std::string& host, uint16_t& port);

// True when standard output is a terminal.
bool stdoutIsTerminal();

// A child process whose standard output and error are read line by line on a thread of ours;
// every line goes to `onLine`. Standard input is /dev/null. Ended (SIGTERM, then SIGKILL)
// when the object dies.
class ChildProcess {
public:
    ChildProcess();
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // False with `error` set when the program cannot be started.
    bool start(const std::string& program, const std::vector<std::string>& args,
               std::function<void(const std::string&)> onLine, std::string& error);
    bool alive() const;
    int pid() const;
    // Ends the child and waits for it (at most about two seconds before SIGKILL).
    void stop();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace pfapp
