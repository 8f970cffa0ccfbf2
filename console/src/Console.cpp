// The console's event loop, command handling and control lines.
#include "console/Console.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "platform/Platform.h"
#include "sdk_link.pb.h"

namespace console {

using namespace SDK_NV;

namespace {

constexpr int kSendTimeoutMs = 10000;

void say(const std::string& text) {
    const std::string line = "[lumora_console] " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

// Response codes of the work responses, per command (sdk/PROTOCOL.md, "Commands").
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

std::vector<std::string> splitWords(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    std::string w;
    while (in >> w) {
        words.push_back(w);
    }
    return words;
}

bool toInt(const std::string& s, int& out) {
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || v < -2147483647L || v > 2147483647L) {
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

}  // namespace

// =============================================================================================
// Set-up and the loop
// =============================================================================================

Console::Console(const ConsoleOptions& options)
    : m_options(options),
      m_source(std::make_unique<FrameSource>(options)),
      m_rng(options.seed),
      m_decoder(std::make_unique<wire::FrameDecoder>()) {
    m_devices = {{options.trackerId, DEVICE_TRACKER, true},
                 {options.scannerId, DEVICE_SCANNER, true}};
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
}

Console::~Console() {
    net::closeSocket(m_client);
    net::closeSocket(m_listener);
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

int64_t Console::nowMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int Console::pollTimeoutMs() const {
    const int64_t now = nowMs();
    int64_t next = now + 200;
    if (m_client != net::kInvalidSocket) {
        next = std::min(next, m_nextHeartbeatMs);
        if (m_triggered) {
            next = std::min(next, m_nextFrameMs);
        }
        if (m_scriptStarted && !m_script.empty()) {
            next = std::min(next, m_scriptResumeMs);
        }
    }
    return static_cast<int>(std::max<int64_t>(0, next - now));
}

int Console::run() {
    while (!m_quit.load()) {
        pollfd fds[3];
        int n = 0;
        fds[n++] = {m_listener, POLLIN, 0};
        const int clientIndex = m_client != net::kInvalidSocket ? n : -1;
        if (clientIndex >= 0) {
            fds[n++] = {m_client, POLLIN, 0};
        }
        const int stdinIndex = m_options.readStdin && m_stdinOpen ? n : -1;
        if (stdinIndex >= 0) {
            fds[n++] = {STDIN_FILENO, POLLIN, 0};
        }
        const int rc = ::poll(fds, static_cast<nfds_t>(n), pollTimeoutMs());
        if (rc > 0) {
            if (fds[0].revents & POLLIN) {
                acceptClient();
            }
            if (clientIndex >= 0 && m_client != net::kInvalidSocket &&
                (fds[clientIndex].revents & (POLLIN | POLLHUP | POLLERR))) {
                readClient();
            }
            if (stdinIndex >= 0 && (fds[stdinIndex].revents & (POLLIN | POLLHUP))) {
                char buf[4096];
                const ssize_t k = ::read(STDIN_FILENO, buf, sizeof(buf));
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
        }
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
    const int64_t now = nowMs();
    if (now >= m_nextHeartbeatMs) {
        sendHeartbeat();
        const int period =
            m_heartbeatOverrideMs > 0 ? m_heartbeatOverrideMs : m_options.heartbeatMs;
        m_nextHeartbeatMs =
            now + std::max<int64_t>(1, std::llround(period * platform::timeScale()));
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
    while (m_scriptStarted && !m_script.empty() && nowMs() >= m_scriptResumeMs) {
        const std::string line = m_script.front();
        m_script.pop_front();
        std::vector<std::string> w = splitWords(line);
        int ms = 0;
        if (w.size() == 2 && w[0] == "wait" && toInt(w[1], ms)) {
            m_scriptResumeMs = nowMs() + std::llround(std::max(0, ms) * platform::timeScale());
            continue;
        }
        std::string error;
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
    say("client connected");
    announce();
    m_nextHeartbeatMs = nowMs() + std::llround(m_options.heartbeatMs * platform::timeScale());
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
    if (m_options.verbose) {
        say("command " + command.name());
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
    std::string head;
    if (!wire::encodeFrameHead(static_cast<uint32_t>(message.getType()), message.getID(), ids,
                               ++m_sendSequence, wire::monotonicNs(), body.size(), head) ||
        !net::sendAll(m_client, head.data(), head.size(), body.data(), body.size())) {
        dropClient("write failed");
        return false;
    }
    return true;
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
        info.set_dtype(d.type == DEVICE_TRACKER ? lumora::TRACKER : lumora::SCANNER);
        info.add_errcodes(lumora::SUCCESS_ERR);
        info.set_fireware_version(m_options.lowpartVersion);
        info.set_trackertype(d.type == DEVICE_TRACKER ? m_options.trackerModel : 0);
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

int Console::answerState(const std::string& command, int state) {
    auto it = m_overrides.find(command);
    if (it == m_overrides.end()) {
        return state;
    }
    state = it->second.state;
    if (it->second.remaining > 0 && --it->second.remaining == 0) {
        m_overrides.erase(it);
    }
    return state;
}

void Console::respond(const std::string& command, int code, int state) {
    sendWorkResponse(code, answerState(command, state), command);
}

bool Console::sendReceipt(int kind) {
    CMessage_Receipt r;
    r.setReceiptKind(kind);
    switch (kind) {
        case RECEIPT_WORK_RESPONSE:
            r.setWorkResponsInfo({0, 0, "", m_options.scannerId});
            break;
        case RECEIPT_TRACK_RANGE:
            r.setTrackRangeLevel(m_trackRange);
            break;
        case RECEIPT_HEARTBEAT:
            sendHeartbeat();
            return true;
        case RECEIPT_BAR_STATE:
            r.setTrackerBarState(1);
            break;
        case RECEIPT_CAMERA_IMAGES: {
            tagCameraImageList images;
            images.nFrameIndex = m_frameId;
            for (int cam = 0; cam < 2; ++cam) {
                images.vecImages.push_back(
                    {m_options.scannerId + (cam == 0 ? "-L" : "-R"), 64, 48, cam, {}});
            }
            r.setCameraImages(images);
            break;
        }
        case RECEIPT_DIAGNOSIS: {
            lumora::DiagnosticInfo d;
            d.set_strbarid(m_options.trackerId);
            d.set_bdevicesyncstatus(true);
            lumora::ScannerDiagnosticInfo* s = d.add_scannerdiagnosticinfo();
            s->set_strdeviceid(m_options.scannerId);
            s->set_strfirmwareversion(m_options.lowpartVersion);
            s->set_ddevicetemp(35.0);
            s->set_biscamtrigger(true);
            lumora::TrackerDiagnosticInfo* t = d.add_trackerdiagnosticinfo();
            t->set_strdeviceid(m_options.trackerId);
            t->set_strfirmwareversion(m_options.lowpartVersion);
            t->set_ddevicetemp(31.0);
            r.setDiagnosisInfo(d);
            break;
        }
        case RECEIPT_LOWPART_CONFIG:
            r.setLowPartConfig(m_lowPart);
            break;
        case RECEIPT_PRIPLAD_LIST:
            r.setPripladDevices(m_priplad);
            break;
        case RECEIPT_WIFI_SIGNAL:
            r.setWIFISignalStrength({m_options.scannerId, 80, -45, 6, 1});
            break;
        case RECEIPT_REMAINING_RGF: {
            tagRemainingRGFs rgf;
            rgf.vecRGF = {{120, "laser hours", 0}, {3, "calibrations", 0}};
            r.setRemainingRGF(rgf);
            break;
        }
        case RECEIPT_LOWPART_VERSION:
            r.setFirmwareVersion(m_options.lowpartVersion);
            break;
        case RECEIPT_CALIB_FILE:
            r.setCalibFileName(m_options.scannerId + ".clb");
            break;
        case RECEIPT_FAR_LASER_CALIB:
            r.setFarLaserCalibResult(FAR_LASER_CALIB_SUCCESS);
            break;
        case RECEIPT_SCANNER_DISTANCE:
            r.setScannerDistance({250.0, 400.0, 550.0});
            break;
        case RECEIPT_FIRMWARE_CHECK: {
            lumora::FirmwareVersionCheck c;
            c.set_devicesn(m_options.scannerId);
            c.set_currenversion(m_options.lowpartVersion);
            c.set_minimumversion("1.0.0");
            r.setFirmwareVersionCheck(c);
            break;
        }
        case RECEIPT_CALIB_RESULT:
            r.setCalibraResult(0.021);
            break;
        case RECEIPT_VIEW_POINTS:
            r.setViewPoints({0, 0, 1500, 0, 0, 3500});
            break;
        case RECEIPT_WIFI_CONNECT:
            r.setWIFIConnectInfo({DEVICE_SCANNER, 1, m_options.scannerId, "wpa_state=COMPLETED"});
            break;
        default:
            if (kind < 0 || kind > RECEIPT_KIND_MAX) {
                return false;
            }
            break;  // reserved kinds go out empty
    }
    return sendMessage(r, nullptr);
}

bool Console::sendCalib(int step) {
    CMessage_CalibData c;
    c.setTrackerGrabIndex(step);
    switch (step) {
        case CALIB_STEP_LOCATION:
            c.setLocationNumber(m_calibLocation);
            break;
        case CALIB_STEP_BOARD_LATTICE:
            c.setBoardLattice(9, 11);
            break;
        case CALIB_STEP_SCANNER_BOARD:
            c.setScannerBoard({9, 11, 20.0, 20.0, 3.0});
            break;
        case CALIB_STEP_TRACKER_POSE:
        case CALIB_STEP_TRACKER_POSE_LONG: {
            const double rot[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
            const double tr[3] = {0, 0, 2000.0 + 100 * m_calibLocation};
            c.setTrackerPose(rot, tr, CLBBAR_LEVEL_POSE);
            break;
        }
        case CALIB_STEP_SCANNER_CALIB: {
            tagCalibData d;
            d.nResult = 0;
            d.nRows = 9;
            d.nCols = 11;
            for (tagCalibCamera& cam : d.camera) {
                cam.dMatrix[0][0] = cam.dMatrix[1][1] = cam.dMatrix[2][2] = 1;
            }
            d.vecLattice.assign(99, 1);
            c.setScannerCalib(d);
            break;
        }
        default:
            if (step < 0) {
                return false;
            }
            break;
    }
    return sendMessage(c, nullptr);
}

void Console::sendHeartbeat() {
    std::normal_distribution<float> drift(0.0f, 0.05f);
    std::vector<tagHeartData> beats;
    for (const Device& d : m_devices) {
        if (!d.online) {
            continue;
        }
        const float base = d.type == DEVICE_TRACKER ? 31.0f : 35.0f;
        beats.push_back({d.type,
                         d.id,
                         {static_cast<int32_t>(m_options.fps), 0},
                         {base + drift(m_rng), base - 1 + drift(m_rng), base + 1 + drift(m_rng)}});
    }
    CMessage_Receipt r;
    r.setReceiptKind(RECEIPT_HEARTBEAT);
    r.setHeartData(beats);
    sendMessage(r, nullptr);
}

void Console::sendButton(int code, int action) {
    CMessage_Button b;
    b.setButtonCode(code);
    b.setButtonAction(action);
    std::vector<std::string> ids{m_options.scannerId};
    sendMessage(b, &ids);
}

void Console::sendScanFrame() {
    // Back-pressure: a device drops frames its link cannot take; frame ids stay consecutive
    // over the frames actually sent.
    pollfd p{m_client, POLLOUT, 0};
    if (::poll(&p, 1, 0) != 1 || !(p.revents & POLLOUT)) {
        return;
    }
    auto frame = std::make_shared<tagScanData>();
    ++m_frameId;
    ++m_scan.frameCount;
    auto it = m_transforms.find(m_scan.trackerId);
    m_scan.trackerMatrix = it != m_transforms.end() ? it->second.data() : nullptr;
    m_source->fill(*frame, m_frameId, m_scan);
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
    for (const std::string& id : ids) {
        for (const Device& d : m_devices) {
            if (d.id == id && d.type == DEVICE_TRACKER) {
                m_scan.trackerId = id;  // a trigger naming a tracker streams from it
            }
        }
    }
    m_nextFrameMs = nowMs() + (m_options.fps > 0 ? std::llround(1000.0 / m_options.fps) : 0);
}

void Console::handleCommand(const sdk_link::Command& c) {
    const std::string& name = c.name();

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
        state = answerState(name, state);
        // Only a successful trigger starts the laser; off always stops it.
        setTriggered(on && state == 0, ids);
        sendWorkResponse(on ? 1 : 2, state, name);
        return;
    }

    // Queries: answered with their data.
    if (name == "getLowPartConfigs") {
        sendReceipt(RECEIPT_LOWPART_CONFIG);
        return;
    }
    if (name == "getPripladDevices") {
        sendReceipt(RECEIPT_PRIPLAD_LIST);
        return;
    }
    if (name == "getDiagnosisInfo") {
        sendReceipt(RECEIPT_DIAGNOSIS);
        return;
    }
    if (name == "getRemainingRGF") {
        sendReceipt(RECEIPT_REMAINING_RGF);
        return;
    }
    if (name == "getWIFIConnectInfo") {
        sendReceipt(RECEIPT_WIFI_CONNECT);
        return;
    }
    if (name == "getWIFISignalStrength") {
        sendReceipt(RECEIPT_WIFI_SIGNAL);
        return;
    }
    if (name == "getHeartBeat") {
        sendHeartbeat();
        return;
    }
    if (name == "getLowpartVersion") {
        sendReceipt(RECEIPT_LOWPART_VERSION);
        return;
    }
    if (name == "getCalibraResult") {
        sendReceipt(RECEIPT_CALIB_RESULT);
        return;
    }
    if (name == "getCalibLocationStep") {
        sendCalib(CALIB_STEP_LOCATION);
        return;
    }
    if (name == "getCalibBoardSize") {
        sendCalib(CALIB_STEP_BOARD_LATTICE);
        sendCalib(CALIB_STEP_SCANNER_BOARD);
        return;
    }

    const auto code = responseCodes().find(name);
    if (code == responseCodes().end()) {
        sendWorkResponse(0, lumora::UNSUPPORT_CMD_ERR, name);
        return;
    }

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
        const int period =
            m_heartbeatOverrideMs > 0 ? m_heartbeatOverrideMs : m_options.heartbeatMs;
        m_nextHeartbeatMs =
            nowMs() + std::max<int64_t>(1, std::llround(period * platform::timeScale()));
    } else if (name == "setTrackRangeLevel") {
        m_trackRange = static_cast<int>(argInt(c, 0, 0));
    } else if (name == "setCalibrationMode") {
        m_calibMode = static_cast<int>(argInt(c, 0, -1));
        m_calibLocation = 0;
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
    respond(name, code->second, state);

    // Follow-ups a device sends after the response.
    if (state == 0 && name == "setLowPartConfigs") {
        sendReceipt(RECEIPT_LOWPART_CONFIG);
    } else if (state == 0 && name == "setTrackRangeLevel") {
        sendReceipt(RECEIPT_TRACK_RANGE);
    } else if (state == 0 && name == "setGrabOneFrame") {
        ++m_calibLocation;
        if (m_calibMode == CALIB_BAR) {
            sendCalib(CALIB_STEP_TRACKER_POSE);
        }
        sendCalib(CALIB_STEP_LOCATION);
    }
}

// =============================================================================================
// Control lines
// =============================================================================================

bool Console::control(const std::string& line, std::string& error) {
    const std::vector<std::string> w = splitWords(line);
    if (w.empty() || w[0][0] == '#') {
        return true;
    }
    const std::string& verb = w[0];
    int a = 0, b = 0;
    const bool connected = m_client != net::kInvalidSocket;
    auto needClient = [&]() {
        if (!connected) {
            error = verb + ": no client connected";
        }
        return connected;
    };

    if (verb == "quit") {
        m_quit.store(true);
        return true;
    }
    if (verb == "button" && w.size() == 3 && toInt(w[1], a) && toInt(w[2], b)) {
        if (!needClient()) {
            return false;
        }
        sendButton(a, b);
        return true;
    }
    if (verb == "answer" && (w.size() == 3 || w.size() == 4)) {
        if (w[2] == "default") {
            m_overrides.erase(w[1]);
            return true;
        }
        int times = -1;
        if (!toInt(w[2], a) || (w.size() == 4 && (!toInt(w[3], times) || times < 1))) {
            error = "usage: answer <command> <state>|default [times]";
            return false;
        }
        m_overrides[w[1]] = {a, times};
        return true;
    }
    if (verb == "response" && w.size() >= 3 && toInt(w[1], a) && toInt(w[2], b)) {
        if (!needClient()) {
            return false;
        }
        std::string text;
        for (size_t i = 3; i < w.size(); ++i) {
            text += (i > 3 ? " " : "") + w[i];
        }
        sendWorkResponse(a, b, text);
        return true;
    }
    if (verb == "receipt" && w.size() == 2 && toInt(w[1], a)) {
        if (!needClient()) {
            return false;
        }
        if (!sendReceipt(a)) {
            error = "receipt kind " + w[1] + " is not 0..23";
            return false;
        }
        return true;
    }
    if (verb == "calib" && w.size() == 2 && toInt(w[1], a)) {
        if (!needClient()) {
            return false;
        }
        if (!sendCalib(a)) {
            error = "bad calibration step " + w[1];
            return false;
        }
        return true;
    }
    if (verb == "wifi" && w.size() >= 2) {
        if (!needClient()) {
            return false;
        }
        std::string text = line.substr(line.find(w[1]));
        CMessage_Receipt r;
        r.setReceiptKind(RECEIPT_WIFI_CONNECT);
        r.setWIFIConnectInfo({DEVICE_SCANNER, 1, m_options.scannerId, text});
        sendMessage(r, nullptr);
        return true;
    }
    if (verb == "device" && w.size() == 3 && (w[2] == "on" || w[2] == "off")) {
        for (Device& d : m_devices) {
            if (d.id == w[1]) {
                d.online = w[2] == "on";
                if (connected) {
                    announceDevice(d, d.online);
                }
                return true;
            }
        }
        error = "unknown device " + w[1];
        return false;
    }
    if (verb == "trigger" && w.size() == 2 && (w[1] == "on" || w[1] == "off")) {
        setTriggered(w[1] == "on", {});
        return true;
    }
    if (verb == "frames" && w.size() == 2 && toInt(w[1], a) && a >= 0) {
        if (!needClient()) {
            return false;
        }
        for (int i = 0; i < a && m_client != net::kInvalidSocket; ++i) {
            sendScanFrame();
        }
        return true;
    }
    if (verb == "heartbeat" && w.size() == 1) {
        if (!needClient()) {
            return false;
        }
        sendHeartbeat();
        return true;
    }
    if (verb == "fps" && w.size() == 2) {
        char* end = nullptr;
        const double fps = std::strtod(w[1].c_str(), &end);
        if (*end != '\0' || !(fps >= 0) || fps > 10000) {
            error = "bad frame rate " + w[1];
            return false;
        }
        m_options.fps = fps;
        return true;
    }
    if (verb == "drop" && w.size() == 1) {
        dropClient("control line");
        return true;
    }
    if (verb == "say") {
        say(line.size() > 4 ? line.substr(4) : "");
        return true;
    }
    error = "unknown control line \"" + line + "\"";
    return false;
}

}  // namespace console
