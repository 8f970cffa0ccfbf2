// pathfinder: the host tool of the Pathfinder stack, a command line over the host library. It
// scans, builds marker models, measures chained trackers, shows devices, calibrates, edits
// configuration files and verifies the chain. Exit codes: host::ExitCode (and README.md).
#include <cstdio>
#include <exception>

#include "Commands.h"
#include "Progress.h"

namespace pfapp {

void addSessionOptions(CLI::App* sub, host::SessionOptions& options) {
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

host::SessionOptions shownOnStdout(host::SessionOptions options) {
    options.onMessage = [](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    };
    options.onProgress = progressDisplay();
    return options;
}

void addSceneArgs(host::SessionOptions& options, int trackers, long seed) {
    std::vector<std::string> scene;
    if (trackers > 0) {
        scene.insert(scene.end(), {"--trackers", std::to_string(trackers)});
    }
    if (seed >= 0) {
        scene.insert(scene.end(), {"--seed", std::to_string(seed)});
    }
    options.consoleArgs.insert(options.consoleArgs.begin(), scene.begin(), scene.end());
}

}  // namespace pfapp

int main(int argc, char** argv) {
    using namespace pfapp;
    CLI::App app{
        "pathfinder: scan with the optical-tracking system, build marker models, measure "
        "chained trackers, show devices, calibrate, edit configuration files, verify the "
        "chain on simulated artefacts and show scans in the browser.\n"
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
    addViewCommand(app, run);
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
        return host::kExitUsage;
    }
    if (!run.run) {
        std::fprintf(stderr, "pathfinder: nothing to do\n");
        return host::kExitUsage;
    }
    try {
        return run.run();
    } catch (const host::Error& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "pathfinder: %s\n", e.what());
        return e.code();
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "pathfinder: %s\n", e.what());
        return host::kExitFailure;
    }
}
