// A fresh directory per test, removed with everything in it afterwards.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

class TempDir {
public:
    TempDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "platform_test_XXXXXX";
        path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) {
            std::filesystem::remove_all(path_, ec);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
