// Control lines: the grammar in console/README.md.
#include <algorithm>
#include <cmath>
#include <sstream>

#include "Internal.h"
#include "console/Console.h"
#include "platform/Platform.h"

namespace console {

using namespace SDK_NV;

namespace {

bool parseDeviceKind(const std::string& text, DEVICETYPE& out) {
    static const std::map<std::string, DEVICETYPE> names = {
        {"tracker", DEVICE_TRACKER}, {"scanner", DEVICE_SCANNER}, {"lightpen", DEVICE_LIGHTPEN},
        {"air", DEVICE_PRIPLAD},     {"priplad", DEVICE_PRIPLAD},
    };
    const auto it = names.find(text);
    if (it != names.end()) {
        out = it->second;
        return true;
    }
    int n = 0;
    if (parseInt(text, n) && n >= DEVICE_TRACKER && n <= DEVICE_PRIPLAD) {
        out = static_cast<DEVICETYPE>(n);
        return true;
    }
    return false;
}

std::string firstWord(const std::string& line) {
    std::istringstream in(line);
    std::string w;
    in >> w;
    return w;
}

}  // namespace

Console::Device* Console::findDevice(const std::string& id) {
    for (Device& d : m_devices) {
        if (d.id == id) {
            return &d;
        }
    }
    return nullptr;
}

bool Console::control(const std::string& line, std::string& error) {
    const bool connected = m_client != net::kInvalidSocket;
    const std::string verb = firstWord(line);
    auto needClient = [&]() {
        if (!connected) {
            error = verb + ": no client connected";
        }
        return connected;
    };
    if (verb.empty() || verb[0] == '#') {
        return true;
    }

    // Verbs with free text: the text is taken as written, to the end of the line.
    if (verb == "say") {
        const std::string text = restOfLine(line, 1);
        say(text);
        logCommand("# " + text);
        return true;
    }
    if (verb == "wifi") {
        const std::string text = restOfLine(line, 1);
        if (text.empty()) {
            error = "usage: wifi TEXT";
            return false;
        }
        if (!needClient()) {
            return false;
        }
        CMessage_Receipt r;
        std::string ignored;
        buildReceipt(RECEIPT_WIFI_CONNECT, Fields(), r, ignored);
        r.setWIFIConnectInfo({DEVICE_SCANNER, 1, m_options.scannerId, text});
        return sendMessage(r, nullptr);
    }
    if (verb == "response") {
        std::istringstream in(line);
        std::string v, codeText, stateText;
        int code = 0, state = 0;
        in >> v >> codeText >> stateText;
        if (!parseInt(codeText, code) || !parseInt(stateText, state)) {
            error = "usage: response CODE STATE [TEXT]";
            return false;
        }
        if (!needClient()) {
            return false;
        }
        sendWorkResponse(code, state, restOfLine(line, 3));
        return true;
    }

    std::vector<std::string> w;
    if (!splitControlLine(line, w, error)) {
        return false;
    }
    int a = 0, b = 0;
    if (verb == "quit" && w.size() == 1) {
        m_quit.store(true);
        return true;
    }
    if (verb == "button" && (w.size() == 3 || w.size() == 4) && parseInt(w[1], a) &&
        parseInt(w[2], b)) {
        if (!needClient()) {
            return false;
        }
        sendButton(a, b, w.size() == 4 ? w[3] : std::string());
        return true;
    }
    if (verb == "answer") {
        return controlAnswer(w, error);
    }
    if (verb == "receipt") {
        return controlReceipt(w, error);
    }
    if (verb == "calib") {
        return controlCalib(w, error);
    }
    if (verb == "device") {
        return controlDevice(w, error);
    }
    if (verb == "heartbeat") {
        return controlHeartbeat(w, error);
    }
    if (verb == "temperature") {
        return controlTemperature(w, error);
    }
    if (verb == "drop") {
        return controlDrop(w, error);
    }
    if (verb == "fault") {
        return controlFault(w, error);
    }
    if (verb == "silent") {
        return controlSilent(w, error);
    }
    if (verb == "crash") {
        return controlCrash(w, error);
    }
    if (verb == "trigger" && w.size() == 2 && (w[1] == "on" || w[1] == "off")) {
        setTriggered(w[1] == "on", {});
        return true;
    }
    if (verb == "frames" && w.size() == 2 && parseInt(w[1], a) && a >= 0) {
        if (!needClient()) {
            return false;
        }
        for (int i = 0; i < a && m_client != net::kInvalidSocket; ++i) {
            sendScanFrame();
        }
        return true;
    }
    if (verb == "fps" && w.size() == 2) {
        double fps = 0;
        if (!parseDouble(w[1], fps) || !(fps >= 0) || fps > 10000) {
            error = "bad frame rate " + w[1];
            return false;
        }
        m_options.fps = fps;
        return true;
    }
    error = "unknown control line \"" + line + "\"";
    return false;
}

// device ID on [kind=K] [model=N] [errors=LIST] [version=V] | device ID off | device * on|off
bool Console::controlDevice(const std::vector<std::string>& w, std::string& error) {
    const bool connected = m_client != net::kInvalidSocket;
    if (w.size() < 3 || (w[2] != "on" && w[2] != "off")) {
        error =
            "usage: device ID|* on [kind=K] [model=N] [errors=C,C|none] [version=V] | "
            "device ID|* off";
        return false;
    }
    const bool on = w[2] == "on";
    if (w[1] == "*" || !on) {
        if (w.size() != 3) {
            error = "device " + w[1] + " " + w[2] + " takes no fields";
            return false;
        }
        Device* only = w[1] == "*" ? nullptr : findDevice(w[1]);
        if (w[1] != "*" && only == nullptr) {
            error = "unknown device " + w[1];
            return false;
        }
        for (Device& d : m_devices) {
            if (only == nullptr || &d == only) {
                d.online = on;
                if (connected) {
                    announceDevice(d, on);
                }
            }
        }
        return true;
    }

    Fields f;
    if (!Fields::parse(w, 3, f, error)) {
        return false;
    }
    Device* existing = findDevice(w[1]);
    Device d;
    if (existing != nullptr) {
        d = *existing;
    } else {
        d.id = w[1];
    }
    const std::string* kind = f.get("kind");
    if (kind != nullptr && !parseDeviceKind(*kind, d.type)) {
        error = "kind=" + *kind + ": tracker, scanner, lightpen, air or 0..3";
        return false;
    }
    if (existing == nullptr && kind == nullptr) {
        error = "unknown device " + w[1] + " (kind= adds it)";
        return false;
    }
    if (!f.getInt("model", d.model, error) || !f.getInts("errors", d.errors, error) ||
        !f.getText("version", d.version) || !f.checkAllUsed(error)) {
        return false;
    }
    d.online = true;
    if (existing != nullptr) {
        *existing = d;
    } else {
        m_devices.push_back(d);
    }
    if (connected) {
        announceDevice(d, true);
    }
    return true;
}

// answer COMMAND STATE [TIMES] [delay=MS] | answer COMMAND none [TIMES] |
// answer COMMAND default | answer QUERY KEY=VALUE... [TIMES] [delay=MS]
bool Console::controlAnswer(const std::vector<std::string>& words, std::string& error) {
    static const char* usage =
        "usage: answer COMMAND STATE|none [TIMES] [delay=MS] | answer COMMAND default | "
        "answer QUERY KEY=VALUE... [TIMES] [delay=MS]";
    // delay=MS may stand anywhere after the command's name.
    int delayMs = 0;
    std::vector<std::string> w;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i >= 2 && words[i].rfind("delay=", 0) == 0) {
            if (!parseInt(words[i].substr(6), delayMs) || delayMs < 0 || delayMs > 3600000) {
                error = words[i] + ": MS is 0..3600000";
                return false;
            }
        } else {
            w.push_back(words[i]);
        }
    }
    if (w.size() < 3) {
        error = usage;
        return false;
    }
    const std::string& name = w[1];
    if (w[2] == "default") {
        if (w.size() != 3 || w.size() != words.size()) {
            error = usage;
            return false;
        }
        m_overrides.erase(name);
        return true;
    }
    Override o;
    o.delayMs = delayMs;
    size_t end = w.size();
    // A last word that is a plain number (and not the state itself) counts the answers.
    if (w.size() >= 4 && w.back().find('=') == std::string::npos) {
        if (!parseInt(w.back(), o.remaining) || o.remaining < 1) {
            error = "TIMES must be a positive integer: " + w.back();
            return false;
        }
        --end;
    }
    const QueryAnswer* query = findQuery(name);
    if (w[2] == "none") {
        if (end != 3 || delayMs > 0) {
            error = delayMs > 0 ? "an unanswered command has no delay" : usage;
            return false;
        }
        o.kind = Override::Silent;
    } else if (w[2].find('=') != std::string::npos) {
        if (query == nullptr) {
            error = name + " is answered with a work response: give a state";
            return false;
        }
        o.kind = Override::Content;
        if (!Fields::parse(std::vector<std::string>(w.begin(), w.begin() + static_cast<long>(end)),
                           2, o.fields, error)) {
            return false;
        }
        // Check the fields now, against every message the answer consists of.
        o.fields.clearUse();
        if (query->receiptKind == RECEIPT_HEARTBEAT) {
            error = "heartbeats take no fields (see `temperature`)";
            return false;
        }
        if (query->receiptKind >= 0) {
            CMessage_Receipt r;
            if (!buildReceipt(query->receiptKind, o.fields, r, error)) {
                return false;
            }
        }
        for (int step : query->calibSteps) {
            CMessage_CalibData c;
            if (!buildCalib(step, o.fields, c, error)) {
                return false;
            }
        }
        if (!o.fields.checkAllUsed(error)) {
            return false;
        }
    } else {
        if (end != 3 || !parseInt(w[2], o.state)) {
            error = usage;
            return false;
        }
        if (query != nullptr) {
            error = name + " is answered with data: give KEY=VALUE fields, none or default";
            return false;
        }
        o.kind = Override::State;
    }
    m_overrides[name] = o;
    return true;
}

// receipt KIND [KEY=VALUE...]
bool Console::controlReceipt(const std::vector<std::string>& w, std::string& error) {
    int kind = 0;
    Fields f;
    if (w.size() < 2 || !parseInt(w[1], kind)) {
        error = "usage: receipt KIND [KEY=VALUE...]";
        return false;
    }
    if (kind < 0 || kind > RECEIPT_KIND_MAX) {
        error = "receipt kind " + w[1] + " is not 0..23";
        return false;
    }
    if (!Fields::parse(w, 2, f, error)) {
        return false;
    }
    if (m_client == net::kInvalidSocket) {
        error = "receipt: no client connected";
        return false;
    }
    if (!sendReceipt(kind, f, &error)) {
        if (error.empty()) {
            error = "receipt: the client went away";
        }
        return false;
    }
    return true;
}

// calib STEP [KEY=VALUE...] | calib locations N | calib run [MODE] [value=D]
bool Console::controlCalib(const std::vector<std::string>& w, std::string& error) {
    static const char* usage =
        "usage: calib STEP [KEY=VALUE...] | calib locations N | calib run [MODE] [value=D]";
    int n = 0;
    if (w.size() >= 2 && w[1] == "locations") {
        if (w.size() != 3 || !parseInt(w[2], n) || n < 1 || n > 1000) {
            error = "usage: calib locations N (1..1000)";
            return false;
        }
        m_calibLocations = n;
        return true;
    }
    if (w.size() >= 2 && w[1] == "run") {
        int mode = m_calibMode >= 0 ? m_calibMode : static_cast<int>(CALIB_SCANNER);
        size_t from = 2;
        if (w.size() >= 3 && w[2].find('=') == std::string::npos) {
            if (!parseInt(w[2], mode)) {
                error = usage;
                return false;
            }
            from = 3;
        }
        Fields f;
        double value = 0.021;
        if (!Fields::parse(w, from, f, error) || !f.getDouble("value", value, error) ||
            !f.checkAllUsed(error)) {
            return false;
        }
        if (m_client == net::kInvalidSocket) {
            error = "calib: no client connected";
            return false;
        }
        runCalibration(mode, value);
        return true;
    }
    Fields f;
    if (w.size() < 2 || !parseInt(w[1], n) || n < 0) {
        error = usage;
        return false;
    }
    if (!Fields::parse(w, 2, f, error)) {
        return false;
    }
    if (m_client == net::kInvalidSocket) {
        error = "calib: no client connected";
        return false;
    }
    if (!sendCalib(n, f, &error)) {
        if (error.empty()) {
            error = "calib: the client went away";
        }
        return false;
    }
    return true;
}

// heartbeat [N] [ID...] | heartbeat period MS|default
bool Console::controlHeartbeat(const std::vector<std::string>& w, std::string& error) {
    int n = 1;
    if (w.size() >= 2 && w[1] == "period") {
        if (w.size() == 3 && w[2] == "default") {
            m_heartbeatControlMs = -1;
        } else if (w.size() == 3 && parseInt(w[2], n) && n >= 0 && n <= 3600000) {
            m_heartbeatControlMs = n;
        } else {
            error = "usage: heartbeat period MS|default (MS 0..3600000, 0: none)";
            return false;
        }
        const int period = heartbeatPeriodMs();
        m_nextHeartbeatMs =
            period > 0
                ? nowMs() + std::max<int64_t>(1, std::llround(period * platform::timeScale()))
                : INT64_MAX;
        return true;
    }
    size_t from = 1;
    if (w.size() >= 2 && parseInt(w[1], n)) {
        if (n < 1 || n > 100000) {
            error = "heartbeat: N is 1..100000";
            return false;
        }
        from = 2;
    }
    std::vector<std::string> only(w.begin() + static_cast<long>(from), w.end());
    for (const std::string& id : only) {
        if (findDevice(id) == nullptr) {
            error = "unknown device " + id;
            return false;
        }
    }
    if (m_client == net::kInvalidSocket) {
        error = "heartbeat: no client connected";
        return false;
    }
    for (int i = 0; i < n && m_client != net::kInvalidSocket; ++i) {
        sendHeartbeat(only);
    }
    return true;
}

// temperature ID T0 [T1...] | temperature ID none | temperature ID seq V1 V2... |
// temperature ID ramp FROM STEP | temperature ID default
bool Console::controlTemperature(const std::vector<std::string>& w, std::string& error) {
    static const char* usage =
        "usage: temperature ID T0 [T1...] | ID none | ID seq V1 V2... | ID ramp FROM STEP | "
        "ID default";
    if (w.size() < 3) {
        error = usage;
        return false;
    }
    if (findDevice(w[1]) == nullptr) {
        error = "unknown device " + w[1];
        return false;
    }
    TemperaturePlan plan;
    const auto numbers = [&](size_t from, std::vector<float>& out) {
        for (size_t i = from; i < w.size(); ++i) {
            double v = 0;
            if (!parseDouble(w[i], v)) {
                error = "not a temperature: " + w[i];
                return false;
            }
            out.push_back(static_cast<float>(v));
        }
        return true;
    };
    const std::string& mode = w[2];
    if (mode == "default" && w.size() == 3) {
        m_temperatures.erase(w[1]);
        return true;
    }
    if (mode == "none" && w.size() == 3) {
        plan.mode = TemperaturePlan::Fixed;  // an empty array
    } else if (mode == "seq") {
        plan.mode = TemperaturePlan::Sequence;
        if (w.size() < 4 || !numbers(3, plan.values)) {
            error = error.empty() ? usage : error;
            return false;
        }
    } else if (mode == "ramp") {
        if (w.size() != 5 || !parseDouble(w[3], plan.from) || !parseDouble(w[4], plan.step)) {
            error = usage;
            return false;
        }
        plan.mode = TemperaturePlan::Ramp;
    } else {
        plan.mode = TemperaturePlan::Fixed;
        if (w.size() > 3 + 15 || !numbers(2, plan.values)) {
            error = error.empty() ? std::string("at most 16 temperatures") : error;
            return false;
        }
    }
    m_temperatures[w[1]] = plan;
    return true;
}

// drop | drop MS
bool Console::controlDrop(const std::vector<std::string>& w, std::string& error) {
    int ms = 0;
    if (w.size() > 2 || (w.size() == 2 && (!parseInt(w[1], ms) || ms < 0))) {
        error = "usage: drop [MS]";
        return false;
    }
    if (w.size() == 2) {
        // Nobody can connect until the listener comes back; it closes first so that the SDK's
        // quick reconnection finds it gone.
        net::closeSocket(m_listener);
        m_relistenAtMs = nowMs() + std::llround(ms * platform::timeScale());
        say("not listening for " + std::to_string(ms) + " ms");
    }
    dropClient("control line");
    return true;
}

}  // namespace console
