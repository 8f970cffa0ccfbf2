// What the host library's tests and the tool's share: a temporary folder for each test, and
// running a program (the tool, the console) with its output and exit code.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace host {

// A test with a temporary folder of its own, removed afterwards.
class WithFolder : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = platform::makeTemporaryDirectory("pf_test_");
        ASSERT_FALSE(m_dir.empty());
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string path(const std::string& name) const {
        return (std::filesystem::path(m_dir) / name).string();
    }

    std::string m_dir;
};

struct Outcome {
    int code = -1;
    std::string out;
    bool has(const std::string& text) const { return out.find(text) != std::string::npos; }
};

// Runs `program args` (standard error joined to standard output). The waits of the stack run
// ten times faster, the program's endpoint is its own unless `env` says otherwise.
inline Outcome run(const std::string& program, const std::vector<std::string>& args,
                   const std::string& env = "") {
    const auto quote = [](const std::string& s) {
        std::string q = "'";
        for (char c : s) {
            q += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        return q + "'";
    };
    std::string cmd =
        "env -u LUMORA_ENDPOINT PATHFINDER_TIME_SCALE=0.1 " + env + " " + quote(program);
    for (const std::string& a : args) {
        cmd += " " + quote(a);
    }
    Outcome r;
    FILE* p = ::popen((cmd + " 2>&1 </dev/null").c_str(), "r");
    char buffer[4096];
    size_t n;
    while (p != nullptr && (n = std::fread(buffer, 1, sizeof(buffer), p)) > 0) {
        r.out.append(buffer, n);
    }
    const int status = p != nullptr ? ::pclose(p) : -1;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

// The document in `file`; a discarded value when there is none.
inline nlohmann::json readJson(const std::string& file) {
    return nlohmann::json::parse(std::ifstream(file), nullptr, false);
}

#ifdef PATHFINDER_CLI_PATH
inline Outcome pathfinder(const std::vector<std::string>& args, const std::string& env = "") {
    return run(PATHFINDER_CLI_PATH, args, env);
}

inline std::string consoleProgram() {
    return std::filesystem::path(PATHFINDER_CLI_PATH).parent_path().parent_path().string() +
           "/annex/Lumora/lumora_console";
}
#endif

}  // namespace host
