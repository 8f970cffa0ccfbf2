#include "DeviceTestSupport.h"

#include <stdlib.h>

#include <chrono>
#include <cstdlib>

#include "platform/Platform.h"
#include "sdk/Wire.h"

namespace devtest {

namespace net = SDK_NV::net;
namespace wire = SDK_NV::wire;

// ---------------------------------------------------------------------------------------------
// FakeLowPart
// ---------------------------------------------------------------------------------------------

namespace {

class CommandSink : public wire::FrameDecoder::Sink {
public:
    explicit CommandSink(std::function<void(const sdk_link::Command&)> onCommand)
        : m_onCommand(std::move(onCommand)) {}
    void onFrame(const wire::Frame& frame) override {
        sdk_link::Command command;
        if (frame.type == static_cast<uint32_t>(wire::kCommandType) &&
            command.ParseFromArray(frame.body, static_cast<int>(frame.bodySize))) {
            m_onCommand(command);
        }
    }
    void onDrop(wire::DropReason, const std::string&) override {}

private:
    std::function<void(const sdk_link::Command&)> m_onCommand;
};

}  // namespace

FakeLowPart::FakeLowPart(uint16_t port) {
    wire::Endpoint endpoint;
    endpoint.host = "127.0.0.1";
    endpoint.port = port;
    m_listener = net::listenTcp(endpoint, 4, &port);
    const std::string text = "127.0.0.1:" + std::to_string(port);
    ::setenv(wire::kEndpointEnv, text.c_str(), 1);
    m_thread = std::thread([this] { run(); });
}

FakeLowPart::~FakeLowPart() {
    m_stop.store(true);
    dropClient();
    m_thread.join();
    net::closeSocket(m_listener);
}

void FakeLowPart::setResponder(Responder responder) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_responder = std::move(responder);
}

void FakeLowPart::run() {
    while (!m_stop.load()) {
        if (net::waitReadable(m_listener, 20) != 1) {
            continue;
        }
        net::socket_t client = net::acceptClient(m_listener);
        if (client == net::kInvalidSocket) {
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(m_sendMutex);
            m_client = client;
            m_sequence = 0;
        }
        m_clients.fetch_add(1);
        m_changed.notify_all();

        CommandSink sink([this](const sdk_link::Command& command) {
            if (command.name() == "setHeartBeatInterval") {
                m_heartBeat.store(command.args_size() > 0 ? static_cast<int>(command.args(0).i())
                                                          : -1);
                return;
            }
            Responder responder;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_commands.push_back(command);
                responder = m_responder;
            }
            m_changed.notify_all();
            if (responder) {
                responder(*this, command);
            }
        });
        wire::FrameDecoder decoder;
        char buffer[65536];
        while (!m_stop.load()) {
            const int ready = net::waitReadable(client, 20);
            if (ready == 0) {
                continue;
            }
            const long n = ready > 0 ? net::recvSome(client, buffer, sizeof(buffer)) : -1;
            if (n <= 0 || !decoder.feed(buffer, static_cast<size_t>(n), sink)) {
                break;
            }
        }
        std::lock_guard<std::mutex> lock(m_sendMutex);
        net::closeSocket(m_client);
    }
}

bool FakeLowPart::send(SDK_NV::CMessage_Base& message) {
    std::vector<char> body;
    if (message.pack(&body) < 0) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_sendMutex);
    std::string frame;
    if (m_client == net::kInvalidSocket ||
        !wire::encodeFrame(static_cast<uint32_t>(message.getType()), message.getID(), nullptr,
                           ++m_sequence, body.data(), body.size(), frame)) {
        return false;
    }
    return net::sendAll(m_client, frame.data(), frame.size());
}

void FakeLowPart::dropClient() {
    std::lock_guard<std::mutex> lock(m_sendMutex);
    net::shutdownSocket(m_client);
}

bool FakeLowPart::waitClient(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [this] { return m_clients.load() > 0; });
}

std::vector<sdk_link::Command> FakeLowPart::commands() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_commands;
}

std::vector<std::string> FakeLowPart::names() const {
    std::vector<std::string> out;
    for (const sdk_link::Command& c : commands()) {
        out.push_back(c.name());
    }
    return out;
}

int FakeLowPart::count(const std::string& name) const {
    int n = 0;
    for (const std::string& s : names()) {
        n += s == name ? 1 : 0;
    }
    return n;
}

void FakeLowPart::clearCommands() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_commands.clear();
}

bool FakeLowPart::waitCommand(const std::string& name, int n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        int seen = 0;
        for (const sdk_link::Command& c : m_commands) {
            seen += c.name() == name ? 1 : 0;
        }
        return seen >= n;
    });
}

// ---------------------------------------------------------------------------------------------
// Recorder and TestDevice
// ---------------------------------------------------------------------------------------------

void Recorder::add(Event e) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(std::move(e));
}

std::vector<Event> Recorder::events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<Event> Recorder::of(const std::string& what) const {
    std::vector<Event> out;
    for (const Event& e : events()) {
        if (e.what == what) {
            out.push_back(e);
        }
    }
    return out;
}

void Recorder::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
}

TestDevice::TestDevice(std::shared_ptr<Recorder> recorder) : m_recorder(std::move(recorder)) {
    using namespace device;
    Recorder* rec = m_recorder.get();
    tagDeviceHandlers h;
    h.onDeviceState = [rec](emDeviceState state, const tagDeviceInfo& info, const void*) {
        Event e;
        e.what = "state";
        e.a = state;
        e.b = info.kind;
        e.text = info.serialText();
        e.values = {static_cast<double>(info.model), static_cast<double>(info.state)};
        rec->add(e);
    };
    h.onDeviceReply = [rec](const std::string& text, emDeviceReply reply, const void* p) {
        Event e;
        e.what = "reply";
        e.a = reply;
        e.text = text;
        if (p != nullptr) {
            switch (reply) {
                case REPLY_WIFI_STATE:
                case REPLY_DEVICE_TEXT:
                    e.payloadText = static_cast<const char*>(p);
                    break;
                case REPLY_LOWPART_VERSION:
                    e.payloadText = *static_cast<const std::string*>(p);
                    break;
                case REPLY_REMAINING_RESOURCES:
                    e.counts = *static_cast<const std::map<std::string, int>*>(p);
                    break;
                case REPLY_THERMAL_BALANCE:
                    e.thermal = *static_cast<const tagDeviceThermalBalance*>(p);
                    break;
                case REPLY_THERMAL_RECORD: {
                    const auto& map =
                        *static_cast<const std::map<std::string, tagDeviceThermalBalance>*>(p);
                    e.values = {static_cast<double>(map.size())};
                    break;
                }
                case REPLY_DEVICE_INFO:
                    e.payloadText = static_cast<const lumora::DeviceInfo*>(p)->id();
                    break;
                default:
                    break;
            }
        }
        rec->add(e);
    };
    h.onDeviceButton = [rec](emDeviceButton button, emDeviceButtonAction action) {
        Event e;
        e.what = "button";
        e.a = button;
        e.b = action;
        rec->add(e);
    };
    h.onDeviceFastCali = [rec](emDeviceTFastCali kind, const void* p) {
        Event e;
        e.what = "fastcali";
        e.a = kind;
        switch (kind) {
            case FAST_CALI_LOCATION:
                e.values = {static_cast<double>(*static_cast<const int32_t*>(p))};
                break;
            case FAST_CALI_BOARD_LATTICE: {
                const auto* v = static_cast<const int32_t*>(p);
                e.values = {static_cast<double>(v[0]), static_cast<double>(v[1])};
                break;
            }
            case FAST_CALI_SCANNER_BOARD: {  // tests send three values
                const auto* v = static_cast<const double*>(p);
                e.values = {v[0], v[1], v[2]};
                break;
            }
            case FAST_CALI_TRACKER_POSE:
            case FAST_CALI_TRACKER_POSE_LONG: {
                const tagClbTrackerPose& pose =
                    kind == FAST_CALI_TRACKER_POSE
                        ? *static_cast<const tagClbTrackerPose*>(p)
                        : static_cast<const tagClbTrackerPoseEx*>(p)->pose;
                e.values.assign(pose.rotation, pose.rotation + 9);
                e.values.insert(e.values.end(), pose.translation, pose.translation + 3);
                e.values.push_back(pose.barPose);
                if (kind == FAST_CALI_TRACKER_POSE_LONG) {
                    const auto* ex = static_cast<const tagClbTrackerPoseEx*>(p);
                    e.values.push_back(ex->grabIndex);
                    e.values.push_back(ex->location);
                }
                break;
            }
            case FAST_CALI_SCANNER_DATA:
                e.scannerCalib = *static_cast<const tagClbScannerCalibData*>(p);
                break;
            case FAST_CALI_FINISHED:
                e.values = {*static_cast<const bool*>(p) ? 1.0 : 0.0};
                break;
        }
        rec->add(e);
    };
    h.onDeviceImage = [rec](int a, int b, int c, const std::string& name, const void*) {
        Event e;
        e.what = "image";
        e.a = a;
        e.b = b;
        e.c = c;
        e.text = name;
        rec->add(e);
    };
    h.onDeviceNeedRetrigger = [rec] {
        Event e;
        e.what = "retrigger";
        rec->add(e);
    };
    h.onDeviceTriggerNoData = [rec] {
        Event e;
        e.what = "nodata";
        rec->add(e);
    };
    setHandlers(h);
}

TestDevice::~TestDevice() {
    // Close the link while this object and its recorder are whole: the closing connection
    // still reports to the handlers.
    clear();
}

device::emDeviceResult TestDevice::setHighFrameRate(int rate) {
    Event e;
    e.what = "highframerate";
    e.a = rate;
    m_recorder->add(e);
    return device::CPathfinder::setHighFrameRate(rate);
}

// ---------------------------------------------------------------------------------------------

uint16_t freePort() {
    wire::Endpoint probe;
    probe.port = 0;
    uint16_t port = 0;
    net::socket_t s = net::listenTcp(probe, 1, &port);
    net::closeSocket(s);
    return port;
}

void useTestTimeScale() {
    std::string value;
    if (platform::getEnvironment(platform::kTimeScaleEnv, value)) {
        return;  // the caller chose one (slow builds such as sanitizer runs)
    }
    ::setenv(platform::kTimeScaleEnv, "0.01", 1);  // for the consoles the tests start too
    platform::setTimeScale(0.01);
}

std::string makeTempAnnex() {
    useTestTimeScale();
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pathfinder_device_XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const char* dir = ::mkdtemp(buffer.data());
    const std::string annex = dir != nullptr ? dir : "";
    device::CDeviceBase::setAnnexPath(platform::widePath(annex));
    device::CDeviceBase::setDocumentPath(platform::widePath(annex + "/Documents"));
    return annex;
}

std::unique_ptr<SDK_NV::CMessage_Receipt> response(int code, int state, const std::string& text) {
    auto m = std::make_unique<SDK_NV::CMessage_Receipt>();
    m->setReceiptKind(SDK_NV::RECEIPT_WORK_RESPONSE);
    SDK_NV::tagWorkRespons r;
    r.code = code;
    r.state = state;
    r.text = text;
    m->setWorkResponsInfo(r);
    return m;
}

}  // namespace devtest
