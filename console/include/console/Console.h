// The companion console: a device server that plays one tracker, one scanner and two air
// devices behind the SDK's link, answers every command and streams scan frames while the
// trigger is on. Control lines (stdin or a script file) inject events and faults; the list is
// in console/README.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "lumora.pb.h"
#include "sdk/Messages.h"
#include "sdk/Socket.h"
#include "sdk/Wire.h"

namespace sdk_link {
class Command;
}

namespace console {

struct ConsoleOptions {
    SDK_NV::wire::Endpoint endpoint;  // LUMORA_ENDPOINT or the default unless --endpoint
    double fps = 30.0;                // frames per second while triggered; 0: as fast as possible
    uint32_t seed = 1;
    int laserPoints = 2000;  // laser points per frame
    int laserLines = 7;
    int markers = 12;
    int heartbeatMs = 1000;  // default heartbeat period (scaled by the time scale)
    int trackerModel = 0;    // DeviceInfo.TrackerType of the tracker
    std::string trackerId = "TRK0001";
    std::string scannerId = "SCN0001";
    std::string lowpartVersion = "1.4.2";
    std::string scriptPath;  // control lines run after the first client connected
    bool readStdin = true;   // control lines from standard input
    bool verbose = false;    // one line per command received
};

// Parses the command line; false with a message in `error` on a bad option. `--help` sets
// `help` and returns true.
bool parseOptions(int argc, const char* const* argv, ConsoleOptions& out, bool& help,
                  std::string& error);
std::string usageText();

// Scan state the frame source reads.
struct ScanState {
    int scanObject = SDK_NV::SCAN_LASER;  // last setStartScan / setDynamicScan
    bool dynamic = false;
    bool needEdgePoints = false;
    int frameCount = 0;  // frames since the trigger went on
    std::string trackerId;
    const double* trackerMatrix = nullptr;  // 16 doubles
};

// Builds the scan frames. The simple source here moves the scanner on a slow circle over a
// plane with a fixed marker field; every member the driver reads is filled with consistent
// counts.
class FrameSource {
public:
    FrameSource(const ConsoleOptions& options);
    virtual ~FrameSource() = default;
    virtual void fill(SDK_NV::tagScanData& frame, int frameId, const ScanState& state);

protected:
    ConsoleOptions m_options;
    std::mt19937 m_rng;
};

class Console {
public:
    explicit Console(const ConsoleOptions& options);
    ~Console();

    // Binds the endpoint and prints "[lumora_console] listening on host:port".
    bool start();
    uint16_t port() const { return m_port; }
    // Serves until quit (control line, SIGINT/SIGTERM through requestQuit). Returns the exit code.
    int run();
    void requestQuit() { m_quit.store(true); }

    // Executes one control line; false with a message when it is not understood.
    bool control(const std::string& line, std::string& error);

    void setFrameSource(std::unique_ptr<FrameSource> source) { m_source = std::move(source); }

private:
    struct Override {
        int state = 0;
        int remaining = -1;  // -1: every time
    };
    struct Device {
        std::string id;
        SDK_NV::DEVICETYPE type;
        bool online = true;
    };

    // link
    void acceptClient();
    void dropClient(const char* why);
    void readClient();
    bool sendMessage(SDK_NV::CMessage_Base& message, const std::vector<std::string>* ids);
    void onFrame(const SDK_NV::wire::Frame& frame);

    // device behaviour
    void announce();
    void announceDevice(const Device& d, bool online);
    void handleCommand(const sdk_link::Command& command);
    // The state to answer `command` with: a scripted one (see `answer`) or `state`.
    int answerState(const std::string& command, int state);
    void respond(const std::string& command, int code, int state);
    void sendWorkResponse(int code, int state, const std::string& text);
    bool sendReceipt(int kind);
    bool sendCalib(int step);
    void sendHeartbeat();
    void sendScanFrame();
    void sendButton(int code, int action);
    void setTriggered(bool on, const std::vector<std::string>& ids);

    // timing
    int64_t nowMs() const;
    int pollTimeoutMs() const;
    void runTimers();
    void runScript();

    ConsoleOptions m_options;
    std::unique_ptr<FrameSource> m_source;
    std::mt19937 m_rng;
    std::atomic<bool> m_quit{false};

    SDK_NV::net::socket_t m_listener = SDK_NV::net::kInvalidSocket;
    SDK_NV::net::socket_t m_client = SDK_NV::net::kInvalidSocket;
    uint16_t m_port = 0;
    std::unique_ptr<SDK_NV::wire::FrameDecoder> m_decoder;
    uint64_t m_sendSequence = 0;
    std::vector<char> m_sendBuffer;
    std::string m_stdinBuffer;
    bool m_stdinOpen = true;

    std::vector<Device> m_devices;
    std::vector<SDK_NV::tagPripladDeviceData> m_priplad;
    SDK_NV::tagLowPartConfig m_lowPart;
    std::map<std::string, Override> m_overrides;
    std::map<std::string, std::vector<double>> m_transforms;  // tracker id -> 16 doubles

    bool m_triggered = false;
    ScanState m_scan;
    int m_frameId = 0;
    int m_calibMode = -1;
    int m_calibLocation = 0;
    int m_trackRange = 0;
    int m_heartbeatOverrideMs = 0;  // from setHeartBeatInterval; 0: default
    int64_t m_nextFrameMs = 0;
    int64_t m_nextHeartbeatMs = 0;

    std::deque<std::string> m_script;
    bool m_scriptStarted = false;
    int64_t m_scriptResumeMs = 0;
    uint64_t m_commandsHandled = 0;
};

}  // namespace console
