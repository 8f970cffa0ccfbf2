// A fresh temporary directory per test, removed afterwards, with small file and editor helpers.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "utils/ConfigEditor.h"

namespace cfgtest {

class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "cfgedit-XXXXXX").string();
        ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
        m_dir = pattern;
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }

    std::string path(const std::string& name) const { return (m_dir / name).string(); }
    std::wstring wpath(const std::string& name) const { return (m_dir / name).wstring(); }

    static void writeBytes(const std::string& file, const std::string& bytes) {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    static std::string readBytes(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    // Writes `bytes` to the file `name` and loads it into `editor`: the result of the load.
    bool loadBytes(zq::utils::CConfigEditor& editor, const std::string& name,
                   const std::string& bytes, bool binary = false) {
        writeBytes(path(name), bytes);
        const bool ok = editor.load(wpath(name), binary, true);
        EXPECT_EQ(ok, !editor.state());
        return ok;
    }
    // Writes `content` as a text file and loads it read-only into `editor`.
    void loadText(zq::utils::CConfigEditor& editor, const std::string& content) {
        ASSERT_TRUE(loadBytes(editor, "test.cfg", content));
    }
    static std::vector<zq::utils::tagConfigFileLine> lines(const zq::utils::CConfigEditor& e) {
        return e.getConfigFile() != nullptr ? e.getConfigFile()->lines
                                            : std::vector<zq::utils::tagConfigFileLine>{};
    }
    static std::vector<std::wstring> texts(const zq::utils::CConfigEditor& e) {
        std::vector<std::wstring> out;
        for (const auto& line : lines(e)) {
            out.push_back(line.text);
        }
        return out;
    }

    std::filesystem::path m_dir;
};

// Little-endian int32 as the binary form stores it.
inline std::string le32(int32_t v) {
    std::string out;
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((static_cast<uint32_t>(v) >> (8 * i)) & 0xFFu));
    }
    return out;
}

// One binary record of `line` (bytes in the file's code page) with the given marks.
inline std::string record(const std::string& line, unsigned char start = 0xBE,
                          unsigned char end = 0xED) {
    std::string out = le32(static_cast<int32_t>(line.size() + 1));
    out.push_back(static_cast<char>(start));
    for (char c : line) {
        out.push_back(static_cast<char>(~static_cast<unsigned char>(c)));
    }
    out.push_back('\0');
    out.push_back(static_cast<char>(end));
    return out;
}

}  // namespace cfgtest
