// Exit codes of the `pathfinder` program and the error that carries one up to main().
#pragma once

#include <stdexcept>
#include <string>

namespace pfapp {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,       // anything not listed below
    kExitUsage = 2,         // the command line does not parse
    kExitConsole = 3,       // console missing, not started or not reachable
    kExitDevice = 4,        // the device refused or did not answer (busy laser, unsupported, ...)
    kExitInputFile = 5,     // an input file is unreadable or malformed
    kExitUnknownKey = 6,    // a configuration key is not in the file
    kExitOutput = 7,        // an output folder or file cannot be written
    kExitNoData = 8,        // the device delivered nothing to work with (0 frames)
    kExitVerifyFailed = 9,  // verification: a characteristic beyond its limit
};

// One line for the user and the exit code that goes with it.
class AppError : public std::runtime_error {
public:
    AppError(ExitCode code, const std::string& message)
        : std::runtime_error(message), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

}  // namespace pfapp
