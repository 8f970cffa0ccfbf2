// Windows check of the platform layer and the configuration editor, built by
// scripts/windows-check.sh with the MinGW-w64 cross compiler and run under Wine.
//
// Plain checks without a test framework (none is packaged for this target). Every failed check
// prints its line; the exit code is the number of failures (capped at 100).
//
// Usage: windows_check                        checks in <program folder>\windows_check_work
//        windows_check --child <file> <text>  writes <text> to <file> (the process check)
//        windows_check --echo <text>          prints "first" and <text> (the captured child)
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "utils/ConfigEditor.h"

namespace {

int failures = 0;
int checks = 0;

#define CHECK(cond)                                                         \
    do {                                                                    \
        ++checks;                                                           \
        if (!(cond)) {                                                      \
            ++failures;                                                     \
            std::printf("  FAILED %s:%d: %s\n", __FILE__, __LINE__, #cond); \
        }                                                                   \
    } while (0)

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeAll(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

std::wstring wideOf(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

void codePages() {
    std::printf("code pages\n");
    // "Größe 测量 €" and a character outside the basic plane, as UTF-8 and UTF-16.
    const std::string utf8 =
        "Gr\xC3\xB6\xC3\x9F"
        "e \xE6\xB5\x8B\xE9\x87\x8F \xE2\x82\xAC \xF0\x9F\x98\x80";
    const std::wstring wide = L"Gr\u00F6\u00DFe \u6D4B\u91CF \u20AC \U0001F600";
    bool ok = false;
    CHECK(platform::toWide(utf8, platform::kCodePageUtf8, &ok) == wide && ok);
    CHECK(platform::toNarrow(wide, platform::kCodePageUtf8, &ok) == utf8 && ok);

    // GBK goes through the system's tables on Windows: "测量" is C2 E2 C1 BF.
    const std::string gbk = "\xB2\xE2\xC1\xBF";
    CHECK(platform::toWide(gbk, platform::kCodePageGbk, &ok) == L"\u6D4B\u91CF" && ok);
    CHECK(platform::toNarrow(L"\u6D4B\u91CF", platform::kCodePageGbk, &ok) == gbk && ok);
    // A Thai letter has no GBK form: '?' and not ok, never a look-alike.
    CHECK(platform::toNarrow(L"a\u0E01b", platform::kCodePageGbk, &ok) == "a?b" && !ok);

    // Ill-formed UTF-8: one U+FFFD per maximal ill-formed subpart, embedded NUL kept.
    const std::string bad(
        "a\xC0\xAF"
        "b\0c\xED\xA0\x80",
        9);
    const std::wstring badWide(L"a\uFFFD\uFFFDb\0c\uFFFD\uFFFD\uFFFD", 9);
    CHECK(platform::toWide(bad, platform::kCodePageUtf8, &ok) == badWide && !ok);

    // The ANSI code page round-trips plain text; an unknown code page converts nothing.
    CHECK(platform::toNarrow(platform::toWide("abc 123", platform::kCodePageSystem, &ok),
                             platform::kCodePageSystem, nullptr) == "abc 123" &&
          ok);
    CHECK(platform::toWide("abc", 1234, &ok).empty() && !ok);
}

void files(const std::string& dir) {
    std::printf("files and folders\n");
    const std::string nested = platform::joinPath(dir, "a/b\\c");
    CHECK(platform::makeDirectories(nested));
    CHECK(platform::directoryExists(platform::joinPath(dir, "a\\b")));
    CHECK(!platform::fileExists(nested));

    const std::string file = platform::joinPath(nested, "exclusive.txt");
    CHECK(platform::createFileExclusive(file));
    CHECK(!platform::createFileExclusive(file));  // exists now
    CHECK(platform::fileExists(file) && !platform::directoryExists(file));
    CHECK(!platform::createFileExclusive(platform::joinPath(dir, "missing\\x.txt")));

    writeAll(file, "12345678901");
    platform::FileTimes times;
    const std::time_t now = std::time(nullptr);
    CHECK(platform::fileTimes(file, times));
    CHECK(times.size == 11);
    CHECK(times.modified > now - 120 && times.modified < now + 120);
    CHECK(times.created > now - 120 && times.created <= times.modified + 1);
    CHECK(!platform::fileTimes(platform::joinPath(dir, "missing.txt"), times));

    CHECK(platform::widePath(file) == wideOf(file));
    CHECK(platform::nativePath(wideOf(file)) == file);

    const std::string self = platform::modulePathOf(reinterpret_cast<const void*>(&codePages));
    CHECK(self.size() > 4 && self.compare(self.size() - 4, 4, ".exe") == 0);
    CHECK(platform::fileExists(self));

    std::string value;
    CHECK(platform::getEnvironment("PATH", value) && !value.empty());
    CHECK(!platform::getEnvironment("PATHFINDER_SURELY_NOT_SET_42", value));
    CHECK(platform::socketStartup() && platform::socketStartup());
}

void processes(const std::string& dir, const std::string& self) {
    std::printf("processes\n");
    // The argument with blanks, quotes and trailing backslashes must arrive unchanged.
    const std::string marker = platform::joinPath(dir, "child out.txt");
    const std::string text = "say \"hi\" to C:\\dir\\";
    const int pid = platform::startProcess(self, {"--child", marker, text}, dir);
    CHECK(pid > 0);
    std::string got;
    for (int i = 0; i < 300 && got.empty(); ++i) {
        platform::sleepMs(100);
        got = readAll(marker);
    }
    CHECK(got == text);
    CHECK(platform::startProcess(platform::joinPath(dir, "no such program.exe")) == -1);
    CHECK(platform::currentProcessId() > 0 && platform::processAlive(platform::currentProcessId()));

    // A child whose output is captured line by line, CR LF ends removed.
    std::vector<std::string> lines;
    std::mutex linesMutex;
    {
        platform::ChildProcess child;
        std::string error;
        CHECK(child.start(
            self, {"--echo", text},
            [&](const std::string& l) {
                std::lock_guard<std::mutex> lock(linesMutex);
                lines.push_back(l);
            },
            error));
        CHECK(child.pid() > 0);
        for (int i = 0; i < 300 && child.alive(); ++i) {
            platform::sleepMs(100);
        }
        CHECK(!child.alive());
        child.stop();
        std::string missing;
        platform::ChildProcess none;
        CHECK(!none.start(platform::joinPath(dir, "no such program.exe"), {}, nullptr, missing));
        CHECK(!missing.empty());
    }
    CHECK((lines == std::vector<std::string>{"first", text}));

    const std::string tmp = platform::makeTemporaryDirectory("pf_check_");
    CHECK(!tmp.empty() && platform::directoryExists(tmp));
    CHECK(platform::makeTemporaryDirectory("pf_check_") != tmp);
    std::string value;
    CHECK(platform::setEnvironment("PF_CHECK_VALUE", "a b=c"));
    CHECK(platform::getEnvironment("PF_CHECK_VALUE", value) && value == "a b=c");
    CHECK(!platform::setEnvironment("PF=CHECK", "x"));
    CHECK(!platform::endpointAnswers("127.0.0.1", 0, 100));
}

void configEditor(const std::string& dir) {
    std::printf("configuration editor\n");
    const std::string path = platform::joinPath(dir, "settings.cfg");
    const std::wstring wpath = wideOf(path);
    const std::string original =
        "# device settings\n"
        "speed = 12   # frames per second\n"
        "name: scanner\r\n"
        "\n"
        "odd line without key\n"
        "gains = 1.5, 2, 3\n";
    writeAll(path, original);
    {
        zq::utils::CConfigEditor editor(wpath);
        CHECK(!editor.state());
        CHECK(editor.getInteger("speed") == 12);
        CHECK(editor.getString("name") == "scanner");
        CHECK(editor.getVecDouble("gains") == (std::vector<double>{1.5, 2.0, 3.0}));
        CHECK(editor.modifyi("speed", 25));
        CHECK(editor.modifyw(L"name", L"\u6D4B\u91CF"));
        CHECK(editor.modify("added", "yes", true));
        CHECK(editor.save(true));
        editor.close(false);
    }
    // Notes, blank and unkeyed lines stay; the text form is written in text mode, which
    // gives carriage return + line feed endings on Windows.
    const std::string expected =
        "# device settings\r\n"
        "speed = 25   # frames per second\r\n"
        "name: \xE6\xB5\x8B\xE9\x87\x8F\r\n"
        "\r\n"
        "odd line without key\r\n"
        "gains = 1.5, 2, 3\r\n"
        "added = yes\r\n";
    CHECK(readAll(path) == expected);

    // The binary form round-trips too, and a fresh editor reads the edited values back.
    {
        zq::utils::CConfigEditor editor(wpath);
        CHECK(editor.getWString("name") == L"\u6D4B\u91CF");
        CHECK(editor.setBinary(true));
        CHECK(editor.save(true));  // rewrites settings.cfg in the binary form
        editor.close(false);
    }
    CHECK(readAll(path).compare(0, 4, std::string("\x07\0\0\0", 4)) == 0);
    {
        zq::utils::CConfigEditor binary(wpath, true);
        CHECK(!binary.state());
        CHECK(binary.getInteger("speed") == 25 && binary.getString("added") == "yes");
        const zq::utils::tagConfigFile* file = binary.getConfigFile();
        CHECK(file != nullptr && file->lines.size() == 7 &&
              file->lines[1].text == L"speed = 25   # frames per second");
        binary.close(false);
    }

    // Loading for writing creates the file exclusively: an existing file is refused.
    zq::utils::CConfigEditor writer;
    CHECK(!writer.load(wpath, false, false));
    const std::wstring fresh = wideOf(platform::joinPath(dir, "fresh.cfg"));
    CHECK(writer.load(fresh, false, false));
    CHECK(writer.modifyb("enabled", true, true));
    CHECK(writer.addNote("enabled", "switched on by the check", "r"));
    CHECK(writer.save());
    writer.close(false);
    zq::utils::CConfigEditor reread(fresh);
    CHECK(reread.getBoolean("enabled"));
    CHECK(reread.getConfigFile() != nullptr && reread.getConfigFile()->lines.size() == 1 &&
          reread.getConfigFile()->lines[0].text.find(L"# switched on by the check") !=
              std::wstring::npos);
    reread.close(false);

    zq::utils::FileAttribute attribute;
    CHECK(zq::utils::getFileAttribute(fresh, attribute) && attribute.size > 0 &&
          !attribute.modifyTime.empty());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--echo") {
        std::printf("first\n%s\n", argv[2]);
        return 0;
    }
    if (argc == 4 && std::string(argv[1]) == "--child") {
        std::ofstream(argv[2], std::ios::binary) << argv[3];
        return 0;
    }
    if (argc != 1) {
        std::fprintf(stderr, "usage: windows_check\n");
        return 2;
    }
    // An absolute work folder beside the program, so that the child process finds it too.
    const std::string dir = platform::joinPath(
        platform::moduleDirOf(reinterpret_cast<const void*>(&codePages)), "windows_check_work");
    if (!platform::makeDirectories(dir)) {
        std::fprintf(stderr, "cannot create %s\n", dir.c_str());
        return 2;
    }
    codePages();
    files(dir);
    processes(dir, platform::modulePathOf(reinterpret_cast<const void*>(&codePages)));
    configEditor(dir);
    std::printf("%d checks, %d failed\n", checks, failures);
    return failures > 100 ? 100 : failures;
}
