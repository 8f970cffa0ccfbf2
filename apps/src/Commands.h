// The subcommands of `pathfinder`, one file each, over the host library. Every add*Command
// registers its subcommand with its options and, when chosen, leaves the work in `run` for
// main() to call after the command line has been parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "host/Files.h"
#include "host/Session.h"

namespace pfapp {

struct CommandRun {
    std::function<int()> run;
};

// Options of every subcommand that talks to the device: --endpoint, --console, --no-start,
// --console-arg.
void addSessionOptions(CLI::App* sub, host::SessionOptions& options);
// The session's lines and progress go to standard output.
host::SessionOptions shownOnStdout(host::SessionOptions options);
// The scene options of the simulated system (--trackers, --seed) go before the user's console
// arguments.
void addSceneArgs(host::SessionOptions& options, int trackers, long seed);

void addScanCommand(CLI::App& app, CommandRun& run);
void addMarkersCommand(CLI::App& app, CommandRun& run);
void addCascadeCommand(CLI::App& app, CommandRun& run);
void addDevicesCommand(CLI::App& app, CommandRun& run);
void addCalibrateCommand(CLI::App& app, CommandRun& run);
void addConfigCommand(CLI::App& app, CommandRun& run);
void addVerifyCommand(CLI::App& app, CommandRun& run);
void addViewCommand(CLI::App& app, CommandRun& run);

}  // namespace pfapp
