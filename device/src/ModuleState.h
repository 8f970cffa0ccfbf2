// State of the device module shared by every device object of the process, and small helpers
// used across the module's source files.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace device {
namespace detail {

// Held by controlLaserOff while it clears the trigger-active flag and by the scan-frame handler
// while it builds the real-time marker model, so that the two never interleave.
std::mutex& moduleMutex();

// Flags written by the SDK's receiving thread and polled by the host's thread. Each poller
// clears the flag it consumed.
struct ModuleFlags {
    // Diagnosis receipt (kind 5) after a device arrival.
    std::atomic<bool> diagnosisReceived{false};
    std::atomic<bool> diagnosisState{false};
    // The diagnosis requests of the last device arrival, driven on the receiving thread (see
    // Dispatch.cpp): whether it still waits for an answer, the requests made, and when the
    // next one is due (steady clock, nanoseconds).
    std::atomic<bool> diagnosisPending{false};
    std::atomic<int> diagnosisRequests{0};
    std::atomic<int64_t> diagnosisDueNs{0};
    // Calibration result receipt (kind 15) stored in the device object.
    std::atomic<bool> calibraResultReady{false};
    // Acknowledgements: any of the responses 173, 179, 181, 182 arrived (grabAnswered), and
    // the outcome of 173 (image mode) and of 181/182 (region, z-axis compensation).
    std::atomic<bool> grabAnswered{false};
    std::atomic<bool> grabOk173{false};
    std::atomic<bool> grabOk181{false};
    // Calibration state byte, set to -1 when a calibration starts.
    std::atomic<int8_t> calibState{0};
};
ModuleFlags& moduleFlags();

// Folder for saved camera images chosen with setImagesSavePath (wide and UTF-8 forms).
void setImagesSavePath(const std::wstring& path);
std::wstring imagesSavePath();
std::string imagesSavePathUtf8();

// One "[pathfinder] " line on standard output.
void logLine(const std::string& text);
// `text` and a line feed on standard output, without prefix.
void writeLine(const std::string& text);

}  // namespace detail
}  // namespace device
