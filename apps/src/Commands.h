// The subcommands of `pathfinder`, one file each. Every add*Command registers its subcommand
// with its options and, when chosen, leaves the work in `run` for main() to call after the
// command line has been parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "HostSession.h"

namespace pfapp {

struct CommandRun {
    std::function<int()> run;
};

// Options of every subcommand that talks to the device: --endpoint, --console, --no-start,
// --console-arg.
void addSessionOptions(CLI::App* sub, SessionOptions& options);

// The output folder: created when missing and checked for writing; throws AppError
// (kExitOutput) with one line when it cannot be written.
void prepareOutputFolder(const std::string& dir);
// Writes through `writer`, throwing AppError(kExitOutput) on failure.
class Writer;
void writeOrThrow(const Writer& writer, const std::string& path);

void addScanCommand(CLI::App& app, CommandRun& run);
void addMarkersCommand(CLI::App& app, CommandRun& run);
void addCascadeCommand(CLI::App& app, CommandRun& run);
void addDevicesCommand(CLI::App& app, CommandRun& run);
void addCalibrateCommand(CLI::App& app, CommandRun& run);
void addConfigCommand(CLI::App& app, CommandRun& run);
void addVerifyCommand(CLI::App& app, CommandRun& run);

}  // namespace pfapp
