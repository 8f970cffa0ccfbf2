// The console's event loop, the link to the SDK and the handling of its commands.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "Faults.h"
#include "Internal.h"
#include "console/Console.h"
#include "platform/Platform.h"
#include "sdk_link.pb.h"

namespace console {

using namespace SDK_NV;

void say(const std::string& text) {
    const std::string line = "[lumora_console] " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

const std::map<std::string, int>& responseCodes() {
    static const std::map<std::string, int> codes = {
        {"setWorkBusiness", 3},
        {"setStartScan", 4},
        {"setDynamicScan", 5},
        {"clearMarkpointData", 6},
        {"setIsNeedEdgePoint", 7},
        {"setTrackScanner", 8},
        {"setTrackMarkpoint", 9},
        {"setLEDExposure", 10},
        {"setLaserExposure", 11},
        {"setResetCamera", 12},
        {"setSoundControl", 13},
        {"setSpecialMode", 14},
        {"setHighFrameRate", 15},
        {"setCalibHighFrameRate", 16},
        {"setHeartBeatInterval", 17},
        {"setHeartDevice", 18},
        {"setCurSystemTime", 19},
        {"setLaserType", 20},
        {"SetHoleParamter", 21},
        {"setCustomDepth", 22},
        {"setWifiUserPassword", 23},
        {"setGrabImages", 24},
        {"setTransforRT", 25},
        {"SetEnableScanExpand", 26},
        {"SetTrackerMarkPointDiameter", 27},
        {"SetMarkPointDiameter", 28},
        {"setMarkpointData", 29},
        {"setCalibTeachStep", 30},
        {"setTrackRangeLevel", 31},
        {"setCalibrationMode", 32},
        {"setCalibReloadParams", 33},
        {"SetCuttingEdgeData", 34},
        {"setFineHoleData", 35},
        {"setLowPartConfigs", 146},
        {"setImageMode", 173},
        {"setGrabOneFrame", 179},
        {"setROIErea", 181},
        {"setZaxisCompensation", 182},
    };
    return codes;
}

const QueryAnswer* findQuery(const std::string& command) {
    static const std::map<std::string, QueryAnswer> queries = {
        {"getLowPartConfigs", {RECEIPT_LOWPART_CONFIG, {}}},
        {"getPripladDevices", {RECEIPT_PRIPLAD_LIST, {}}},
        {"getDiagnosisInfo", {RECEIPT_DIAGNOSIS, {}}},
        {"getRemainingRGF", {RECEIPT_REMAINING_RGF, {}}},
        {"getWIFIConnectInfo", {RECEIPT_WIFI_CONNECT, {}}},
        {"getWIFISignalStrength", {RECEIPT_WIFI_SIGNAL, {}}},
        {"getHeartBeat", {RECEIPT_HEARTBEAT, {}}},
        {"getLowpartVersion", {RECEIPT_LOWPART_VERSION, {}}},
        {"getCalibraResult", {RECEIPT_CALIB_RESULT, {}}},
        {"getCalibLocationStep", {-1, {CALIB_STEP_LOCATION}}},
        {"getCalibBoardSize", {-1, {CALIB_STEP_BOARD_LATTICE, CALIB_STEP_SCANNER_BOARD}}},
    };
    const auto it = queries.find(command);
    return it == queries.end() ? nullptr : &it->second;
}

namespace {

constexpr int kSendTimeoutMs = 10000;

// Argument access with defaults: a missing or differently typed argument gives the default.
int64_t argInt(const sdk_link::Command& c, int i, int64_t def = 0) {
    if (i >= c.args_size()) {
        return def;
    }
    const sdk_link::Arg& a = c.args(i);
    if (a.has_i()) {
        return a.i();
    }
    if (a.has_b()) {
        return a.b() ? 1 : 0;
    }
    if (a.has_d() && std::isfinite(a.d()) && std::fabs(a.d()) < 9e18) {
        return static_cast<int64_t>(a.d());
    }
    return def;
}

bool argBool(const sdk_link::Command& c, int i, bool def = false) {
    return argInt(c, i, def ? 1 : 0) != 0;
}

double argDouble(const sdk_link::Command& c, int i, double def = 0) {
    if (i < c.args_size() && c.args(i).has_d()) {
        return c.args(i).d();
    }
    return static_cast<double>(argInt(c, i, static_cast<int64_t>(def)));
}

std::vector<std::string> argStrings(const sdk_link::Command& c, int i) {
    if (i < c.args_size() && c.args(i).has_strings()) {
        const auto& v = c.args(i).strings().values();
        return {v.begin(), v.end()};
    }
    return {};
}

const std::string& argRaw(const sdk_link::Command& c, int i) {
    static const std::string empty;
    return i < c.args_size() && c.args(i).has_raw() ? c.args(i).raw() : empty;
}

// A command as one readable line for the command log: its name and arguments in order.
std::string describeCommand(const sdk_link::Command& c) {
    std::ostringstream out;
    out.precision(9);
    out << c.name();
    const auto list = [&out](const auto& values) {
        if (values.size() > 32) {
            out << "(" << values.size() << " values)";
            return;
        }
        out << "[";
        for (int i = 0; i < values.size(); ++i) {
            out << (i > 0 ? "," : "") << values.Get(i);
        }
        out << "]";
    };
    for (const sdk_link::Arg& a : c.args()) {
        out << " ";
        switch (a.value_case()) {
            case sdk_link::Arg::kI:
                out << a.i();
                break;
            case sdk_link::Arg::kD:
                out << a.d();
                break;
            case sdk_link::Arg::kB:
                out << (a.b() ? "true" : "false");
                break;
            case sdk_link::Arg::kS: {
                out << '"';
                for (char ch : a.s()) {
                    if (ch == '"' || ch == '\\') {
                        out << '\\';
                    }
                    out << ch;
                }
                out << '"';
                break;
            }
            case sdk_link::Arg::kRaw:
                out << "raw(" << a.raw().size() << ")";
                break;
            case sdk_link::Arg::kStrings: {
                out << "[";
                for (int i = 0; i < a.strings().values_size(); ++i) {
                    out << (i > 0 ? "," : "") << a.strings().values(i);
                }
                out << "]";
                break;
            }
            case sdk_link::Arg::kFloats:
                list(a.floats().values());
                break;
            case sdk_link::Arg::kInts:
                list(a.ints().values());
                break;
            case sdk_link::Arg::kDoubles:
                list(a.doubles().values());
                break;
            default:
                out << "-";
                break;
        }
    }
    return out.str();
}

}  // namespace

// =============================================================================================
// Set-up and the loop
// =============================================================================================

Console::Console(const ConsoleOptions& options)
    : m_options(options),
      m_rng(options.seed),
      m_decoder(std::make_unique<wire::FrameDecoder>()),
      m_faults(std::make_unique<Faults>(options.seed)) {
    Device tracker;
    tracker.id = options.trackerId;
    tracker.type = DEVICE_TRACKER;
    tracker.model = options.trackerModel;
    Device scanner;
    scanner.id = options.scannerId;
    scanner.type = DEVICE_SCANNER;
    m_devices = {tracker, scanner};
    std::string sceneError;
    m_source = makeFrameSource(options, sceneError);
    if (!m_source) {
        say("scene: " + sceneError);
        m_setupOk = false;
        m_source = std::make_unique<FrameSource>(options);
    }
    addSceneTrackers();
    for (int i = 1; i <= 2; ++i) {
        tagPripladDeviceData p;
        p.strName = "air" + std::to_string(i);
        p.strDeviceId = "AIR000" + std::to_string(i);
        p.strIP = "192.168.10." + std::to_string(20 + i);
        p.strVersion = "1.0." + std::to_string(i);
        p.nSignalQuality = 80;
        p.nCurElectric = 95 - 10 * i;
        m_priplad.push_back(p);
    }
    m_lowPart.nSysId = 1;
    m_lowPart.nUsePriplad = 1;
    m_lowPart.strSysName = "lumora";
    m_lowPart.nUseLocal = 1;
    for (const auto& p : m_priplad) {
        m_lowPart.vecPripladIds.push_back(p.strDeviceId);
    }
    m_scan.trackerId = options.trackerId;
    if (!options.scriptPath.empty()) {
        std::ifstream in(options.scriptPath);
        std::string line;
        while (std::getline(in, line)) {
            m_script.push_back(line);
        }
        if (!in.eof()) {
            say("cannot read script " + options.scriptPath);
        }
    }
    if (!options.commandLogPath.empty()) {
        m_commandLog = std::fopen(options.commandLogPath.c_str(), "a");
        if (m_commandLog == nullptr) {
            say("cannot open the command log " + options.commandLogPath);
        }
    }
    if (!options.record.recordPath.empty()) {
        m_recording = std::make_unique<rec::Writer>();
        std::string error;
        if (!m_recording->open(options.record.recordPath, error)) {
            say("record: " + error);
            m_setupOk = false;
        }
    }
    for (const std::string& line : options.setupLines) {
        std::string error;
        if (!control(line, error)) {
            say("setup: " + error);
            m_setupOk = false;
        }
    }
}

Console::~Console() {
    net::closeSocket(m_client);
    net::closeSocket(m_listener);
    if (m_commandLog != nullptr) {
        std::fclose(m_commandLog);
    }
}

bool Console::start() {
    platform::socketStartup();
    m_listener = net::listenTcp(m_options.endpoint, 4, &m_port);
    if (m_listener == net::kInvalidSocket) {
        say("cannot listen on " + m_options.endpoint.text());
        return false;
    }
    say("listening on " + m_options.endpoint.host + ":" + std::to_string(m_port));
    return true;
}

void Console::reopenListener() {
    wire::Endpoint ep = m_options.endpoint;
    ep.port = m_port;
    m_listener = net::listenTcp(ep, 4, nullptr);
    if (m_listener == net::kInvalidSocket) {
        m_relistenAtMs = nowMs() + 50;  // the port is still held: try again shortly
        return;
    }
    m_relistenAtMs = -1;
    say("listening again on " + ep.host + ":" + std::to_string(m_port));
}

int64_t Console::nowMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int Console::heartbeatPeriodMs() const {
    if (m_heartbeatControlMs >= 0) {
        return m_heartbeatControlMs;  // a control line outranks the SDK's request
    }
    return m_heartbeatOverrideMs > 0 ? m_heartbeatOverrideMs : m_options.heartbeatMs;
}

int Console::pollTimeoutMs() const {
    const int64_t now = nowMs();
    int64_t next = now + 200;
    if (m_relistenAtMs >= 0) {
        next = std::min(next, m_relistenAtMs);
    }
    next = std::min(next, nextFaultTimerMs());
    if (m_client != net::kInvalidSocket && m_scriptStarted && !m_script.empty()) {
        next = std::min(next, m_scriptResumeMs);
    }
    if (m_client != net::kInvalidSocket && !silent()) {
        next = std::min(next, m_nextHeartbeatMs);
        if (m_triggered) {
            next = std::min(next, m_nextFrameMs);
        }
        for (const DelayedCommand& d : m_delayed) {
            next = std::min(next, d.dueMs);
        }
    }
    return static_cast<int>(std::max<int64_t>(0, next - now));
}

int Console::run() {
    while (!m_quit.load()) {
        platform::SocketWait waits[3];
        int n = 0;
        // Standard input is looked at before the client: a control line written before the
        // SDK sends a command is in the pipe when that command arrives, so it is executed
        // first (a test can script an answer and then send the command without racing).
        const int stdinIndex = m_options.readStdin && m_stdinOpen ? n : -1;
        if (stdinIndex >= 0) {
            waits[n++].standardInput = true;
        }
        // A silent console reads nothing: neither its client nor new connections.
        const bool quiet = silent();
        const int listenIndex = m_listener != net::kInvalidSocket && !quiet ? n : -1;
        if (listenIndex >= 0) {
            waits[n++].socket = m_listener;
        }
        const int clientIndex = m_client != net::kInvalidSocket && !quiet ? n : -1;
        if (clientIndex >= 0) {
            waits[n++].socket = m_client;
        }
        if (platform::waitSockets(waits, static_cast<size_t>(n), pollTimeoutMs()) > 0) {
            if (stdinIndex >= 0 && waits[stdinIndex].ready) {
                char buf[4096];
                const long k = platform::readStandardInput(buf, sizeof(buf));
                if (k <= 0) {
                    m_stdinOpen = false;
                } else {
                    m_stdinBuffer.append(buf, static_cast<size_t>(k));
                    size_t eol;
                    while ((eol = m_stdinBuffer.find('\n')) != std::string::npos) {
                        const std::string line = m_stdinBuffer.substr(0, eol);
                        m_stdinBuffer.erase(0, eol + 1);
                        std::string error;
                        if (!control(line, error)) {
                            say("control: " + error);
                        }
                    }
                }
            }
            if (listenIndex >= 0 && m_listener != net::kInvalidSocket && waits[listenIndex].ready) {
                acceptClient();
            }
            if (clientIndex >= 0 && m_client != net::kInvalidSocket && waits[clientIndex].ready) {
                readClient();
            }
        }
        if (m_listener == net::kInvalidSocket && m_relistenAtMs >= 0 && nowMs() >= m_relistenAtMs) {
            reopenListener();
        }
        runFaultTimers();
        runTimers();
    }
    say("quit after " + std::to_string(m_commandsHandled) + " commands");
    return 0;
}

void Console::runTimers() {
    if (m_client == net::kInvalidSocket) {
        return;
    }
    runScript();
    if (silent()) {
        return;  // no heartbeats, frames or answers while silent
    }
    const int64_t now = nowMs();
    for (size_t i = 0; i < m_delayed.size() && m_client != net::kInvalidSocket;) {
        if (m_delayed[i].dueMs <= now) {
            const DelayedCommand d = m_delayed[i];
            m_delayed.erase(m_delayed.begin() + static_cast<long>(i));
            executeCommand(*d.command, d.answer);
        } else {
            ++i;
        }
    }
    if (m_client != net::kInvalidSocket && now >= m_nextHeartbeatMs) {
        const int period = heartbeatPeriodMs();
        if (period > 0) {
            sendHeartbeat();
            m_nextHeartbeatMs =
                now + std::max<int64_t>(1, std::llround(period * platform::timeScale()));
        } else {
            m_nextHeartbeatMs = INT64_MAX;
        }
    }
    if (m_triggered && m_client != net::kInvalidSocket && now >= m_nextFrameMs) {
        sendScanFrame();
        if (m_options.fps > 0) {
            const double period = 1000.0 / m_options.fps;
            m_nextFrameMs += std::max<int64_t>(1, std::llround(period));
            if (m_nextFrameMs < now - 1000) {
                m_nextFrameMs = now;  // far behind (a stalled reader): do not burst
            }
        } else {
            m_nextFrameMs = now;
        }
    }
}

void Console::runScript() {
    while (m_scriptStarted && !m_script.empty() && nowMs() >= m_scriptResumeMs &&
           m_client != net::kInvalidSocket) {
        const std::string line = m_script.front();
        m_script.pop_front();
        std::vector<std::string> w;
        std::string error;
        int ms = 0;
        if (splitControlLine(line, w, error) && w.size() == 2 && w[0] == "wait" &&
            parseInt(w[1], ms)) {
            m_scriptResumeMs = nowMs() + std::llround(std::max(0, ms) * platform::timeScale());
            continue;
        }
        if (!control(line, error)) {
            say("script: " + error);
        }
    }
}

// =============================================================================================
// The link
// =============================================================================================

void Console::acceptClient() {
    net::socket_t c = net::acceptClient(m_listener);
    if (c == net::kInvalidSocket) {
        return;
    }
    if (m_client != net::kInvalidSocket) {
        dropClient("replaced by a new client");
    }
    m_client = c;
    net::setSendTimeout(m_client, kSendTimeoutMs);
    m_decoder->reset();
    m_sendSequence = 0;
    m_triggered = false;
    m_heartbeatOverrideMs = 0;
    record(rec::Connected);
    say("client connected");
    announce();
    const int period = heartbeatPeriodMs();
    m_nextHeartbeatMs =
        period > 0 ? nowMs() + std::llround(period * platform::timeScale()) : INT64_MAX;
    if (!m_scriptStarted && !m_script.empty()) {
        m_scriptStarted = true;
        m_scriptResumeMs = nowMs();
    }
}

void Console::dropClient(const char* why) {
    if (m_client == net::kInvalidSocket) {
        return;
    }
    net::closeSocket(m_client);
    m_triggered = false;
    m_delayed.clear();  // commands of the old connection are not answered on a new one
    m_faults->held.clear();
    record(rec::Disconnected);
    say(std::string("client dropped: ") + why);
}

namespace {
struct ConsoleSink : wire::FrameDecoder::Sink {
    std::function<void(const wire::Frame&)> frame;
    void onFrame(const wire::Frame& f) override { frame(f); }
    void onDrop(wire::DropReason reason, const std::string& detail) override {
        say(std::string("dropped ") + wire::dropReasonText(reason) +
            " frame from client: " + detail);
    }
};
}  // namespace

void Console::readClient() {
    size_t capacity = 0;
    char* p = m_decoder->writable(&capacity);
    const long n = p != nullptr ? net::recvSome(m_client, p, capacity) : -1;
    if (n <= 0) {
        dropClient(n == 0 ? "closed by the client" : "read error");
        return;
    }
    ConsoleSink sink;
    sink.frame = [this](const wire::Frame& f) { onFrame(f); };
    if (!m_decoder->commit(static_cast<size_t>(n), sink)) {
        dropClient("frame boundary lost");
    }
}

void Console::onFrame(const wire::Frame& frame) {
    record(rec::Received, frame.raw, frame.rawSize);
    if (frame.type == static_cast<uint32_t>(wire::kKeepAliveType)) {
        // A keep-alive probe goes back as it came (a silent console reads none).
        std::vector<char> empty;
        transmit(frame.type, frame.id, nullptr, empty);
        return;
    }
    if (frame.type != static_cast<uint32_t>(wire::kCommandType)) {
        say("ignoring frame of type " + std::to_string(frame.type) + " from client");
        return;
    }
    sdk_link::Command command;
    if (!command.ParseFromArray(frame.body, static_cast<int>(frame.bodySize))) {
        say("ignoring a command that does not parse");
        return;
    }
    ++m_commandsHandled;
    if (m_options.verbose || m_commandLog != nullptr) {
        const std::string text = describeCommand(command);
        if (m_options.verbose) {
            say("command " + text);
        }
        logCommand(text);
    }
    handleCommand(command);
}

bool Console::sendMessage(CMessage_Base& message, const std::vector<std::string>* ids) {
    if (m_client == net::kInvalidSocket) {
        return false;
    }
    std::vector<char>& body = m_sendBuffer;  // reused: frames are large
    if (message.pack(&body) < 0) {
        say("cannot pack a message of type " + std::to_string(message.getType()));
        return false;
    }
    return transmit(static_cast<uint32_t>(message.getType()), message.getID(), ids, body);
}

// =============================================================================================
// Device behaviour
// =============================================================================================

void Console::announceDevice(const Device& d, bool online) {
    CMessage_Device m;
    m.setConnect(online);
    m.setDeviceType(d.type);
    m.setDeviceSN(d.id);
    if (online) {
        lumora::DeviceInfo info;
        info.set_id(d.id);
        // Light pens and air devices travel with their own kinds beyond the schema's two
        // names (an open enumeration).
        info.set_dtype(static_cast<lumora::DeviceType>(d.type));
        for (int code : d.errors) {
            info.add_errcodes(static_cast<lumora::LUMORA_STATE>(code));
        }
        info.set_fireware_version(d.version.empty() ? m_options.lowpartVersion : d.version);
        info.set_trackertype(d.model);
        info.set_scanperiod(m_options.fps > 0 ? static_cast<int>(1000 / m_options.fps) : 0);
        info.set_deviceip("127.0.0.1");
        info.add_camsn(d.id + "-L");
        info.add_camsn(d.id + "-R");
        m.setDeviceInfo(info);
    }
    std::vector<std::string> ids{d.id};
    sendMessage(m, &ids);
}

void Console::announce() {
    for (const Device& d : m_devices) {
        if (d.online) {
            announceDevice(d, true);
        }
    }
    sendReceipt(RECEIPT_LOWPART_VERSION);
}

void Console::sendWorkResponse(int code, int state, const std::string& text) {
    CMessage_Receipt r;
    r.setReceiptKind(RECEIPT_WORK_RESPONSE);
    r.setWorkResponsInfo({code, state, text, m_options.scannerId});
    sendMessage(r, nullptr);
}

std::optional<Console::Override> Console::takeOverride(const std::string& command) {
    auto it = m_overrides.find(command);
    if (it == m_overrides.end()) {
        return std::nullopt;
    }
    Override taken = it->second;
    if (it->second.remaining > 0 && --it->second.remaining == 0) {
        m_overrides.erase(it);
    }
    return taken;
}

void Console::logCommand(const std::string& text) {
    if (m_commandLog != nullptr) {
        std::fputs((text + "\n").c_str(), m_commandLog);
        std::fflush(m_commandLog);
    }
}

void Console::sendScanFrame() {
    // Back-pressure: a device drops frames its link cannot take; frame ids stay consecutive
    // over the frames actually sent.
    platform::SocketWait writable;
    writable.socket = m_client;
    writable.write = true;
    if (platform::waitSockets(&writable, 1, 0) != 1) {
        return;
    }
    auto frame = std::make_shared<tagScanData>();
    ++m_frameId;
    ++m_scan.frameCount;
    auto it = m_transforms.find(m_scan.trackerId);
    m_scan.trackerMatrix = it != m_transforms.end() ? it->second.data() : nullptr;
    m_source->fill(*frame, m_frameId, m_scan);
    // The source names the tracker that saw the frame (several trackers take turns).
    if (!frame->m_strTrackerId.empty() && frame->m_strTrackerId != m_scan.trackerId) {
        m_scan.trackerId = frame->m_strTrackerId;
        it = m_transforms.find(m_scan.trackerId);
        m_scan.trackerMatrix = it != m_transforms.end() ? it->second.data() : nullptr;
    }
    CMessage_ScanData m;
    m.setID(m_frameId);
    m.setFrameID(m_frameId);
    m.setScanData(frame);
    if (m_scan.trackerMatrix != nullptr) {
        m.setTrackerMatrix(m_scan.trackerMatrix);
    }
    std::vector<std::string> ids{m_options.scannerId, m_scan.trackerId};
    sendMessage(m, &ids);
}

void Console::setTriggered(bool on, const std::vector<std::string>& ids) {
    m_triggered = on;
    if (!on) {
        return;
    }
    m_scan.frameCount = 0;
    m_scan.trackerId = m_options.trackerId;
    m_scan.triggerIds = ids;
    for (const std::string& id : ids) {
        for (const Device& d : m_devices) {
            if (d.id == id && d.type == DEVICE_TRACKER) {
                m_scan.trackerId = id;  // a trigger naming a tracker streams from it
            }
        }
    }
    m_nextFrameMs = nowMs() + (m_options.fps > 0 ? std::llround(1000.0 / m_options.fps) : 0);
}

void Console::answerQuery(const std::string& name, const Fields& fields) {
    const QueryAnswer* q = findQuery(name);
    if (q == nullptr) {
        return;
    }
    std::string error;
    bool ok = true;
    if (q->receiptKind == RECEIPT_HEARTBEAT) {
        sendHeartbeat();
    } else if (q->receiptKind >= 0) {
        ok = sendReceipt(q->receiptKind, fields, &error);
    } else {
        // The fields were checked against all the steps together when they were scripted.
        for (int step : q->calibSteps) {
            CMessage_CalibData c;
            ok = buildCalib(step, fields, c, error) && sendMessage(c, nullptr) && ok;
        }
    }
    if (!ok && !error.empty()) {
        say("answer to " + name + ": " + error);
    }
}

void Console::handleCommand(const sdk_link::Command& c) {
    std::optional<Override> scripted = takeOverride(c.name());
    if (scripted && scripted->delayMs > 0) {
        DelayedCommand d;
        d.dueMs = nowMs() + std::llround(scripted->delayMs * platform::timeScale());
        d.command = std::make_shared<sdk_link::Command>(c);
        d.answer = *scripted;
        d.answer.delayMs = 0;
        m_delayed.push_back(std::move(d));
        return;
    }
    executeCommand(c, scripted);
}

void Console::executeCommand(const sdk_link::Command& c, const std::optional<Override>& scripted) {
    const std::string& name = c.name();
    if (scripted && scripted->kind == Override::Silent) {
        if (m_options.verbose) {
            say("not answering " + name);
        }
        return;  // as if the command was lost: no effect, no answer
    }
    const bool forced = scripted && scripted->kind == Override::State;

    if (name == "setTrigger") {
        const bool on = argBool(c, 0);
        const std::vector<std::string> ids = argStrings(c, 1);
        int state = 0;
        if (on) {
            for (const std::string& id : ids) {
                const bool known =
                    std::any_of(m_devices.begin(), m_devices.end(),
                                [&](const Device& d) { return d.id == id && d.online; });
                if (!known) {
                    state = 3;  // refused: a device of the list is not here
                }
            }
        }
        if (forced) {
            state = scripted->state;
        }
        // Only a successful trigger starts the laser; off always stops it.
        setTriggered(on && state == 0, ids);
        sendWorkResponse(on ? 1 : 2, state, name);
        return;
    }

    if (findQuery(name) != nullptr) {
        answerQuery(name,
                    scripted && scripted->kind == Override::Content ? scripted->fields : Fields());
        return;
    }

    const auto code = responseCodes().find(name);
    if (code == responseCodes().end()) {
        sendWorkResponse(0, forced ? scripted->state : lumora::UNSUPPORT_CMD_ERR, name);
        return;
    }

    // A scripted refusal leaves the device as it was; otherwise the arguments are checked and
    // applied.
    int state = forced ? scripted->state : 0;
    if (state == 0) {
        state = applySetting(c);
        if (forced) {
            state = scripted->state;
        }
    }
    sendWorkResponse(code->second, state, name);

    // Follow-ups a device sends after a successful response.
    if (state != 0) {
        return;
    }
    if (name == "setLowPartConfigs") {
        sendReceipt(RECEIPT_LOWPART_CONFIG);
    } else if (name == "setTrackRangeLevel") {
        sendReceipt(RECEIPT_TRACK_RANGE);
    } else if (name == "setGrabOneFrame") {
        calibrationAfterGrab(static_cast<int>(argInt(c, 0, CLBBAR_LEVEL_POSE)));
    }
}

int Console::applySetting(const sdk_link::Command& c) {
    const std::string& name = c.name();
    int state = 0;
    if (name == "setStartScan" || name == "setDynamicScan") {
        const int64_t object = argInt(c, 0, -1);
        if (object < SCAN_MARKPOINT || object > SCAN_HOLE_PRECISE) {
            state = lumora::PRARA_ERROR;
        } else {
            m_scan.scanObject = static_cast<int>(object);
            m_scan.dynamic = name == "setDynamicScan";
        }
    } else if (name == "setIsNeedEdgePoint") {
        m_scan.needEdgePoints = argBool(c, 0);
    } else if (name == "setLEDExposure") {
        const double v = argDouble(c, 0, -1);
        state = v >= 0.0 && v <= 1.0 ? 0 : lumora::PRARA_ERROR;
    } else if (name == "setLaserExposure") {
        const double v = argDouble(c, 0, -1);
        state = v >= 0.0 && v <= 10.0 ? 0 : lumora::PRARA_ERROR;
    } else if (name == "setHeartBeatInterval") {
        const int64_t ms = argInt(c, 0, 0);
        m_heartbeatOverrideMs = ms > 0 && ms < 3600000 ? static_cast<int>(ms) : 0;
        const int period = heartbeatPeriodMs();
        m_nextHeartbeatMs =
            period > 0
                ? nowMs() + std::max<int64_t>(1, std::llround(period * platform::timeScale()))
                : INT64_MAX;
    } else if (name == "setTrackRangeLevel") {
        m_trackRange = static_cast<int>(argInt(c, 0, 0));
    } else if (name == "setCalibrationMode") {
        startCalibration(static_cast<int>(argInt(c, 0, CALIB_SCANNER)));
    } else if (name == "setTransforRT") {
        sdk_link::TransformMatrix m;
        if (!m.ParseFromString(argRaw(c, 0))) {
            state = lumora::PRARA_ERROR;
        } else {
            for (const auto& t : m.transforms()) {
                if (t.values_size() != 12) {
                    state = lumora::PRARA_ERROR;
                    continue;
                }
                // 12 values (rotation by rows, translation) into the 4x4 layout.
                std::vector<double> m16(16, 0.0);
                for (int r = 0; r < 3; ++r) {
                    for (int k = 0; k < 3; ++k) {
                        m16[static_cast<size_t>(4 * r + k)] = t.values(3 * r + k);
                    }
                    m16[static_cast<size_t>(12 + r)] = t.values(9 + r);
                }
                m16[15] = 1;
                m_transforms[t.tracker_id()] = m16;
            }
        }
    } else if (name == "SetTrackerMarkPointDiameter" || name == "SetMarkPointDiameter") {
        // Reported marker diameters by marker id from now on.
        if (c.args_size() < 1 || !c.args(0).has_floats()) {
            state = lumora::PRARA_ERROR;
        } else {
            const auto& v = c.args(0).floats().values();
            m_scan.markerDiameters.assign(v.begin(), v.end());
        }
    } else if (name == "SetEnableScanExpand") {
        m_scan.scanExpand = argBool(c, 0);
    } else if (name == "setFineHoleData") {
        sdk_link::FineHoleList holes;
        if (!holes.ParseFromString(argRaw(c, 0))) {
            state = lumora::PRARA_ERROR;
        } else {
            m_scan.fineHoles = static_cast<size_t>(holes.holes_size());
        }
    } else if (name == "SetCuttingEdgeData") {
        lumora::DETECT_EDGE_POINTS_INFO edges;
        if (!edges.ParseFromString(argRaw(c, 0))) {
            state = lumora::PRARA_ERROR;
        } else {
            m_scan.cuttingEdgeBytes = argRaw(c, 0).size();
        }
    } else if (name == "setLowPartConfigs") {
        lumora::LowPartCfg w;
        if (!w.ParseFromString(argRaw(c, 0))) {
            state = lumora::PRARA_ERROR;
        } else {
            wire::decodeLowPartConfig(w, m_lowPart);
        }
    } else if (name == "setMarkpointData") {
        const auto count = [&](int i) {
            return i < c.args_size() && c.args(i).has_floats() ? c.args(i).floats().values_size()
                                                               : -1;
        };
        const int labels =
            c.args_size() > 3 && c.args(3).has_ints() ? c.args(3).ints().values_size() : -1;
        if (labels < 0 || count(0) != 3 * labels || count(1) != 3 * labels || count(2) != labels) {
            state = lumora::PRARA_ERROR;
        }
    }
    return state;
}

}  // namespace console
