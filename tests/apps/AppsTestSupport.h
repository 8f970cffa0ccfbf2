// What the host tool's tests share: running the `pathfinder` program and a folder of its own
// for each test.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace pfapp {

struct Outcome {
    int code = -1;
    std::string out;
};

// `s` as one shell word.
inline std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) {
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return q + "'";
}

#ifdef PATHFINDER_CLI_PATH
// Runs the program with `args` (and standard error joined to standard output). The waits of
// the stack run ten times faster, the tool's endpoint is its own unless `env` says otherwise.
inline Outcome pathfinder(const std::vector<std::string>& args, const std::string& env = "") {
    std::string cmd = "env -u LUMORA_ENDPOINT PATHFINDER_TIME_SCALE=0.1 " + env + " " +
                      quote(PATHFINDER_CLI_PATH);
    for (const std::string& a : args) {
        cmd += " " + quote(a);
    }
    cmd += " 2>&1 </dev/null";
    Outcome r;
    FILE* p = ::popen(cmd.c_str(), "r");
    if (p == nullptr) {
        return r;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), p)) > 0) {
        r.out.append(buffer, n);
    }
    const int status = ::pclose(p);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}
#endif

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

}  // namespace pfapp
