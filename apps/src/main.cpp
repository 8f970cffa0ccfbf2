// pathfinder: the host tool of the Pathfinder stack. It loads the device module as a measuring
// application does and scans, builds marker models, measures chained trackers, shows devices,
// calibrates and edits configuration files. Exit codes: ExitCodes.h (and README.md).
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

#include "Commands.h"
#include "ExitCodes.h"
#include "Writers.h"

namespace pfapp {

void addSessionOptions(CLI::App* sub, SessionOptions& options) {
    sub->add_option("--endpoint", options.endpoint,
                    "console endpoint HOST:PORT (default: $LUMORA_ENDPOINT, else a free port)");
    sub->add_option("--console", options.consoleProgram,
                    "console program to start (default: Lumora/lumora_console beside the module)");
    sub->add_flag("--no-start{false}", options.startConsole,
                  "do not start a console; fail when none answers");
    sub->add_option("--console-arg", options.consoleArgs,
                    "option for the started console (repeat it, e.g. --console-arg=--fps=60)")
        ->allow_extra_args(false);
}

void prepareOutputFolder(const std::string& dir) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!fs::is_directory(dir)) {
        throw AppError(kExitOutput, "output folder not writable: " + dir +
                                        (ec ? " (" + ec.message() + ")" : std::string()));
    }
    const fs::path probe = fs::path(dir) / ".pathfinder-write-test";
    {
        std::ofstream out(probe);
        if (!out || !(out << "x") || !out.flush()) {
            throw AppError(kExitOutput, "output folder not writable: " + dir);
        }
    }
    fs::remove(probe, ec);
}

void writeOrThrow(const Writer& writer, const std::string& path) {
    std::string error;
    if (!writer.write(path, error)) {
        throw AppError(kExitOutput, error);
    }
}

}  // namespace pfapp

int main(int argc, char** argv) {
    using namespace pfapp;
    CLI::App app{
        "pathfinder: scan with the optical-tracking system, build marker models, measure "
        "chained trackers, show devices, calibrate, edit configuration files and verify the "
        "chain on simulated artefacts.\n"
        "Exit codes: 0 ok, 1 failure, 2 usage, 3 console missing or unreachable, 4 device "
        "refused or did not answer, 5 unreadable or malformed input file, 6 unknown key, "
        "7 output not writable, 8 no data delivered, 9 verification failed.",
        "pathfinder"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("pathfinder 0.1.0"));
    CommandRun run;
    addScanCommand(app, run);
    addMarkersCommand(app, run);
    addCascadeCommand(app, run);
    addDevicesCommand(app, run);
    addCalibrateCommand(app, run);
    addConfigCommand(app, run);
    addVerifyCommand(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    }
    if (!run.run) {
        std::fprintf(stderr, "pathfinder: nothing to do\n");
        return kExitUsage;
    }
    try {
        return run.run();
    } catch (const AppError& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "pathfinder: %s\n", e.what());
        return e.code();
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "pathfinder: %s\n", e.what());
        return kExitFailure;
    }
}
