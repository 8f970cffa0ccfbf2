// The companion console: a device server that plays one tracker, one scanner and two air
// devices behind the SDK's link, answers every command and streams scan frames while the
// trigger is on. Control lines (stdin, --setup or a script file) shape the devices, choose the
// answers and inject events and faults; the grammar is in console/README.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "console/Fields.h"
#include "console/Recording.h"
#include "lumora.pb.h"
#include "sdk/Messages.h"
#include "sdk/Socket.h"
#include "sdk/Wire.h"
#include "sim/Scene.h"

namespace sdk_link {
class Command;
}

namespace console {

struct ConsoleOptions {
    SDK_NV::wire::Endpoint endpoint;  // LUMORA_ENDPOINT or the default unless --endpoint
    double fps = 120.0;               // frames per second while triggered; 0: as fast as possible
    uint32_t seed = 1;
    int laserPoints = 2000;  // laser points per frame
    int laserLines = 7;
    int markers = 12;
    int heartbeatMs = 1000;  // default heartbeat period (scaled by the time scale); 0: none
    int trackerModel = 0;    // DeviceInfo.TrackerType of the tracker
    std::string trackerId = "TRK0001";
    std::string scannerId = "SCN0001";
    std::string lowpartVersion = "1.4.2";
    std::string scriptPath;               // control lines run after the first client connected
    std::vector<std::string> setupLines;  // control lines run before listening (--setup)
    std::string commandLogPath;           // one line per command received (--command-log)
    bool readStdin = true;                // control lines from standard input
    bool verbose = false;                 // one line per command received
    // The simulated world (console/README.md, "Scene"): "physical" (default) or "plane", the
    // simple source of earlier versions.
    std::string sceneKind = "physical";
    sim::SceneOptions scene;
    std::string exportTruthDir;  // --export-truth: write the truth files and exit
    RecordOptions record;        // --record, --replay and their companions
};

// Applies one scene setting (the flag name without its dashes, e.g. "laser-noise") to the
// options; false with a message for an unknown key or a bad value. `sceneKeys()` lists them.
bool applySceneSetting(ConsoleOptions& options, const std::string& key, const std::string& value,
                       std::string& error);
const std::vector<std::string>& sceneKeys();

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
    std::vector<std::string> triggerIds;    // devices named by the last trigger
    std::vector<float> markerDiameters;     // by marker id (SetTrackerMarkPointDiameter)
    bool scanExpand = false;                // SetEnableScanExpand: wider depth of field
    size_t fineHoles = 0;                   // holes given by setFineHoleData
    size_t cuttingEdgeBytes = 0;            // size of the last SetCuttingEdgeData
};

// Builds the scan frames. The simple source here moves the scanner on a slow circle over a
// plane with a fixed marker field; every member the driver reads is filled with consistent
// counts.
class FrameSource {
public:
    FrameSource(const ConsoleOptions& options);
    virtual ~FrameSource() = default;
    virtual void fill(SDK_NV::tagScanData& frame, int frameId, const ScanState& state);
    // The trackers the source plays, in order (the first is the console's tracker).
    virtual std::vector<std::string> trackerIds() const { return {m_options.trackerId}; }
    // Writes the truth files of the scene into DIR; the plane source has none.
    virtual bool exportTruth(const std::string& dir, std::string& error) const;

protected:
    ConsoleOptions m_options;
    std::mt19937 m_rng;
};

// The frame source the options ask for (the physical scene unless --scene plane); nullptr
// with a message when the scene cannot be built (a bad mesh or marker file).
std::unique_ptr<FrameSource> makeFrameSource(const ConsoleOptions& options, std::string& error);

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

    // False when a --setup line was not understood (the console then should not start).
    bool setupOk() const { return m_setupOk; }

private:
    // How the next commands of one name are answered (`answer` control lines).
    struct Override {
        enum Kind { State, Silent, Content };
        Kind kind = State;
        int state = 0;       // State: the work response's state
        Fields fields;       // Content: the fields of the data a query is answered with
        int remaining = -1;  // -1: every time
        int delayMs = 0;     // handle the command this much later (scaled)
    };
    struct DelayedCommand {
        int64_t dueMs = 0;
        std::shared_ptr<sdk_link::Command> command;
        Override answer;
    };
    struct Device {
        std::string id;
        SDK_NV::DEVICETYPE type = SDK_NV::DEVICE_TRACKER;
        bool online = true;
        int model = 0;               // DeviceInfo.TrackerType
        std::vector<int> errors{0};  // DeviceInfo.errCodes (SUCCESS_ERR: ready)
        std::string version;         // firmware version; empty: the low-part version
    };
    // Where a device's heartbeat temperatures come from (`temperature` control lines).
    struct TemperaturePlan {
        enum Mode { Simulated, Fixed, Sequence, Ramp };
        Mode mode = Simulated;
        std::vector<float> values;  // Fixed: the whole array; Sequence: one main value each
        double from = 0;
        double step = 0;
        size_t next = 0;  // heartbeats taken from a sequence or ramp so far
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
    void executeCommand(const sdk_link::Command& command, const std::optional<Override>& scripted);
    // Checks and applies a setting command; the state of its work response.
    int applySetting(const sdk_link::Command& command);
    // The scripted answer for `command`, consumed (see `answer`); empty: the normal answer.
    std::optional<Override> takeOverride(const std::string& command);
    void sendWorkResponse(int code, int state, const std::string& text);
    void answerQuery(const std::string& name, const Fields& fields);
    void logCommand(const std::string& text);

    // content (Content.cpp): the standard data of each message with KEY=VALUE replacements.
    // The builders change no state (so scripted answers are checked when they are given) and
    // leave the check for unknown keys to their callers; the senders do both.
    bool buildReceipt(int kind, const Fields& fields, SDK_NV::CMessage_Receipt& r,
                      std::string& error) const;
    bool buildCalib(int step, const Fields& fields, SDK_NV::CMessage_CalibData& c,
                    std::string& error) const;
    bool sendReceipt(int kind, const Fields& fields = Fields(), std::string* error = nullptr);
    bool sendCalib(int step, const Fields& fields = Fields(), std::string* error = nullptr);
    void sendHeartbeat(const std::vector<std::string>& only = {});
    std::vector<float> nextTemperatures(const Device& d);
    void sendButton(int code, int action, const std::string& deviceId);
    void sendScanFrame();
    void setTriggered(bool on, const std::vector<std::string>& ids);
    // calibration (Content.cpp)
    void startCalibration(int mode);
    void calibrationAfterGrab(int pose);
    void runCalibration(int mode, double result);

    // control lines (Control.cpp)
    bool controlDevice(const std::vector<std::string>& w, std::string& error);
    bool controlAnswer(const std::vector<std::string>& w, std::string& error);
    bool controlHeartbeat(const std::vector<std::string>& w, std::string& error);
    bool controlTemperature(const std::vector<std::string>& w, std::string& error);
    bool controlCalib(const std::vector<std::string>& w, std::string& error);
    bool controlReceipt(const std::vector<std::string>& w, std::string& error);
    bool controlDrop(const std::vector<std::string>& w, std::string& error);
    bool controlScene(const std::vector<std::string>& w, std::string& error);
    void addSceneTrackers();
    Device* findDevice(const std::string& id);
    int heartbeatPeriodMs() const;

    // faults and the recording (Faults.cpp): every frame leaves through transmit()
    struct Faults;
    bool controlFault(const std::vector<std::string>& w, std::string& error);
    bool controlSilent(const std::vector<std::string>& w, std::string& error);
    bool controlCrash(const std::vector<std::string>& w, std::string& error);
    bool transmit(uint32_t type, int32_t id, const std::vector<std::string>* ids,
                  std::vector<char>& body);
    bool writeFrame(uint32_t type, int32_t id, const std::vector<std::string>* ids,
                    const char* body, size_t bodySize, bool padded);
    bool silent() const;
    void runFaultTimers();
    int64_t nextFaultTimerMs() const;
    void record(rec::Kind kind, const char* bytes = nullptr, size_t size = 0);

    // timing
    int64_t nowMs() const;
    int pollTimeoutMs() const;
    void runTimers();
    void runScript();
    void reopenListener();

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

    bool m_setupOk = true;
    std::FILE* m_commandLog = nullptr;
    int64_t m_relistenAtMs = -1;  // after `drop MS`: when to listen again; -1: listening

    std::vector<Device> m_devices;
    std::map<std::string, TemperaturePlan> m_temperatures;  // device id -> plan
    std::vector<SDK_NV::tagPripladDeviceData> m_priplad;
    SDK_NV::tagLowPartConfig m_lowPart;
    std::map<std::string, Override> m_overrides;
    std::deque<DelayedCommand> m_delayed;                     // in arrival order; delays may differ
    std::map<std::string, std::vector<double>> m_transforms;  // tracker id -> 16 doubles

    bool m_triggered = false;
    ScanState m_scan;
    int m_frameId = 0;
    int m_calibMode = -1;      // CALIBMODE of the last setCalibrationMode; -1: none
    int m_calibNext = 1;       // the next calibration location to grab, from 1
    int m_calibLocations = 6;  // locations of one calibration run (`calib locations N`)
    int m_lastGrabPose = SDK_NV::CLBBAR_LEVEL_POSE;
    int m_trackRange = 0;
    int m_heartbeatOverrideMs = 0;  // from setHeartBeatInterval; 0: default
    int m_heartbeatControlMs = -1;  // from `heartbeat period MS`; -1: none given
    int64_t m_nextFrameMs = 0;
    int64_t m_nextHeartbeatMs = 0;

    std::deque<std::string> m_script;
    bool m_scriptStarted = false;
    int64_t m_scriptResumeMs = 0;
    uint64_t m_commandsHandled = 0;

    std::unique_ptr<Faults> m_faults;
    std::unique_ptr<rec::Writer> m_recording;
};

}  // namespace console
