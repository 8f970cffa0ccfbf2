// libFuzzer target for the configuration loader. Built twice: CONFIG_FUZZ_BINARY=0 feeds the
// input as a text file, 1 as a file in the inverted-record form. Besides surviving any input,
// a loaded file must come back with the same lines after a save in the binary form (and, for
// text input, after a save in the text form), and the linear scanner of the line grammar must
// agree with the regular expressions on every short line; a difference stops the run.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "utils/ConfigEditor.h"
#include "utils/LineGrammar.h"

#ifndef CONFIG_FUZZ_BINARY
#define CONFIG_FUZZ_BINARY 0
#endif

namespace {

constexpr bool kBinary = CONFIG_FUZZ_BINARY != 0;

const std::filesystem::path& workDir() {
    static const std::filesystem::path dir = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "cfgfuzz-XXXXXX").string();
        if (mkdtemp(&pattern[0]) == nullptr) {
            std::abort();
        }
        return std::filesystem::path(pattern);
    }();
    return dir;
}

void writeFile(const std::filesystem::path& file, const uint8_t* data, std::size_t size) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

// Saves `editor`'s file in the given form and loads it back; the lines must not change.
void checkRoundTrip(zq::utils::CConfigEditor& editor, bool binary) {
    const std::vector<zq::utils::tagConfigFileLine> before = editor.getConfigFile()->lines;
    if (!binary) {
        for (const auto& line : before) {
            if (line.text.find(L'\n') != std::wstring::npos) {
                return;  // a line feed inside a line splits it in the text form
            }
        }
    }
    const std::wstring name = editor.getConfigFile()->fileName;
    if (!editor.setBinary(binary) || !editor.save(true)) {
        std::abort();
    }
    if (!editor.load(name, binary, true) || editor.getConfigFile()->lines != before) {
        std::abort();
    }
}

// Both engines of the line grammar on every line short enough for the regular expressions.
void checkGrammar(const zq::utils::tagConfigFile& file) {
    namespace g = zq::utils::grammar;
    for (const auto& line : file.lines) {
        if (line.text.size() > g::kRegexLengthLimit) {
            continue;
        }
        const g::KeyValue a = g::analyseLine(line.text, g::Engine::Regex);
        const g::KeyValue b = g::analyseLine(line.text, g::Engine::Scanner);
        if (a.matched != b.matched || a.key != b.key || a.separator != b.separator ||
            a.value != b.value ||
            g::firstNote(line.text, g::Engine::Regex) !=
                g::firstNote(line.text, g::Engine::Scanner) ||
            g::tokens(line.text, g::Engine::Regex) != g::tokens(line.text, g::Engine::Scanner)) {
            std::abort();
        }
    }
}

void exercise(zq::utils::CConfigEditor& editor) {
    std::vector<std::wstring> keys;
    if (!editor.getAllKeys(&keys)) {
        return;
    }
    std::size_t n = 0;
    for (const std::wstring& key : keys) {
        if (++n > 8) {
            break;
        }
        const std::string narrow = editor.toString(key);
        (void)editor.getBoolean(narrow);
        (void)editor.getInteger(narrow);
        (void)editor.getFloat(narrow);
        (void)editor.getVecDouble(narrow);
        (void)editor.getVecString(key);
        if (!editor.contains(key) || !editor.findKey(key)) {
            std::abort();
        }
    }
    const std::wstring& first = keys.front();
    (void)editor.addNote(first, std::wstring(L"note"), "2u");
    (void)editor.addNote(first, std::wstring(L"right"), "1tr");
    if (!editor.modifyw(first, L"changed") || editor.getWString(first) != L"changed") {
        std::abort();
    }
    (void)editor.modifyd("added", 0.5, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::filesystem::path file = workDir() / "input.cfg";
    writeFile(file, data, size);
    zq::utils::CConfigEditor editor;
    if (editor.load(file.wstring(), kBinary, true)) {
        if (!kBinary) {
            checkRoundTrip(editor, false);
        }
        checkRoundTrip(editor, true);
        checkGrammar(*editor.getConfigFile());
        exercise(editor);
        (void)zq::utils::getConfigEditTitle(*editor.getConfigFile());
        (void)editor.save(true);
    }
    editor.close(false);
    return 0;
}
