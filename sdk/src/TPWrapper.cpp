// CTPWrapper: the link to the devices and its receiving thread.
#include "sdk/TPWrapper.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Log.h"
#include "platform/Platform.h"
#include "sdk/Socket.h"
#include "sdk/Wire.h"
#include "sdk_link.pb.h"

namespace SDK_NV {

namespace {

// Reconnection back-off: starts short, doubles up to the bound. Both are waits of the stack
// and therefore honour the process-wide time scale.
constexpr int kBackoffFirstMs = 50;
constexpr int kBackoffMaxMs = 2000;
constexpr int kConnectTimeoutMs = 1000;
constexpr int kSendTimeoutMs = 2000;
constexpr int kPollMs = 20;
// The time scale does not shorten the keep-alive below this (real milliseconds).
constexpr int kKeepAliveFloorMs = 1500;

std::atomic<bool> g_saveFrame{false};
std::atomic<uint64_t> g_savedSequence{0};
std::mutex g_folderMutex;
std::string g_frameFolder;  // empty: the default

std::string defaultFrameFolder() {
    if (const char* env = std::getenv(wire::kFrameDirEnv); env != nullptr && *env != '\0') {
        return env;
    }
    const char* tmp = std::getenv("TMPDIR");
    return platform::joinPath(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp", "lumora_frames");
}

}  // namespace

// ---------------------------------------------------------------------------------------------

struct CTPWrapper::Link : wire::FrameDecoder::Sink {
    CTPWrapper* owner = nullptr;

    mutable std::mutex callbackMutex;
    std::shared_ptr<const MessageCallBack> callback;

    mutable std::mutex endpointMutex;
    wire::Endpoint endpoint = wire::endpointFromEnvironment();

    std::mutex threadMutex;
    std::thread thread;
    std::atomic<bool> running{false};
    std::atomic<bool> stop{false};
    std::atomic<bool> closed{false};
    std::atomic<bool> connected{false};

    // The socket as writers see it; the receiving thread closes it under this mutex.
    std::mutex sendMutex;
    net::socket_t txSocket = net::kInvalidSocket;
    uint64_t txSequence = 0;

    CTPDeviceManager devices;
    mutable std::mutex versionMutex;
    std::string lowpartVersion;

    struct Counters {
        std::atomic<uint64_t> connects{0}, disconnects{0}, framesReceived{0}, messagesDelivered{0},
            droppedOversized{0}, droppedMalformed{0}, droppedUnknownType{0}, streamErrors{0},
            framesSent{0}, sendFailures{0}, framesSaved{0}, callbackExceptions{0},
            keepAliveProbes{0}, keepAliveAnswers{0}, keepAliveTimeouts{0};
    } counters;

    wire::FrameDecoder decoder;

    // ---- receiving thread -------------------------------------------------------------------

    void run();
    bool sleepInterruptible(int ms);
    void serve(net::socket_t s);
    void deliver(CMessage_Base& message);
    void deliverConnect(bool up);
    void sendHeartBeatInterval(int ms);
    void sendKeepAliveProbe(int32_t number);
    void saveFrame(const wire::Frame& frame, int frameID);

    void onFrame(const wire::Frame& frame) override;
    void onDrop(wire::DropReason reason, const std::string& detail) override;
};

bool CTPWrapper::Link::sleepInterruptible(int ms) {
    for (int left = ms; left > 0 && !stop.load(); left -= kPollMs) {
        platform::sleepMs(std::min(left, kPollMs));
    }
    return !stop.load();
}

void CTPWrapper::Link::run() {
    int backoff = kBackoffFirstMs;
    while (!stop.load()) {
        wire::Endpoint ep;
        {
            std::lock_guard<std::mutex> lock(endpointMutex);
            ep = endpoint;
        }
        net::socket_t s = net::connectTcp(ep, kConnectTimeoutMs);
        if (s == net::kInvalidSocket) {
            sleepInterruptible(backoff);
            backoff = std::min(backoff * 2, kBackoffMaxMs);
            continue;
        }
        backoff = kBackoffFirstMs;
        serve(s);
        if (!stop.load()) {
            sleepInterruptible(backoff);
        }
    }
    running.store(false);
}

// The keep-alive of `ms` as a steady-clock duration: scaled, but not below the floor.
static std::chrono::nanoseconds keepAliveSpan(int ms) {
    const std::chrono::nanoseconds scaled = platform::scaledDuration(std::chrono::milliseconds(ms));
    const std::chrono::nanoseconds floor =
        std::chrono::milliseconds(std::min(ms, kKeepAliveFloorMs));
    return std::max(scaled, floor);
}

void CTPWrapper::Link::serve(net::socket_t s) {
    using Clock = std::chrono::steady_clock;
    net::setSendTimeout(s, kSendTimeoutMs);
    net::setRecvTimeout(s, kPollMs);
    {
        std::lock_guard<std::mutex> lock(sendMutex);
        txSocket = s;
        txSequence = 0;
    }
    decoder.reset();
    connected.store(true);
    counters.connects++;
    {
        std::lock_guard<std::mutex> lock(endpointMutex);
        traceLine("connected to " + endpoint.text());
    }
    // With a keep-alive the connection is reported once the devices said something on it.
    bool reported = owner->m_nKeepAliveMs.load() <= 0;
    if (reported) {
        deliverConnect(true);
    }
    int sentInterval = owner->m_nHeartBeatInterval.load();
    sendHeartBeatInterval(sentInterval);

    Clock::time_point heard = Clock::now();  // the devices' last word, or the connection
    Clock::time_point probed = heard;
    int32_t probes = 0;
    while (!stop.load()) {
        const int interval = owner->m_nHeartBeatInterval.load();
        if (interval != sentInterval) {
            sentInterval = interval;
            sendHeartBeatInterval(interval);
        }
        if (const int keepAlive = owner->m_nKeepAliveMs.load(); keepAlive > 0) {
            const std::chrono::nanoseconds span = keepAliveSpan(keepAlive);
            const Clock::time_point now = Clock::now();
            if (now - heard >= span) {
                counters.keepAliveTimeouts++;
                logLine("the devices sent nothing for " +
                        std::to_string(
                            std::chrono::duration_cast<std::chrono::milliseconds>(now - heard)
                                .count()) +
                        " ms; reconnecting");
                break;
            }
            if (now - heard >= span / 3 && now - probed >= span / 3) {
                probed = now;
                sendKeepAliveProbe(++probes);
            }
        }
        size_t capacity = 0;
        char* p = decoder.writable(&capacity);
        if (p == nullptr) {
            logLine("out of memory for the receive buffer; resetting the connection");
            break;
        }
        // Blocking read with a short timeout: one call per arrival, and the stop flag, the
        // heartbeat interval and the keep-alive are looked at between them.
        const long n = net::recvSome(s, p, capacity);
        if (n == -2) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        if (!reported) {
            reported = true;
            deliverConnect(true);
        }
        const bool inStep = decoder.commit(static_cast<size_t>(n), *this);
        // After the callbacks: the time the host spent in them is not the devices' silence.
        heard = Clock::now();
        if (!inStep) {
            break;  // frame boundary lost: reconnect
        }
    }

    connected.store(false);  // before the socket goes: nobody sees a closed link as up
    {
        std::lock_guard<std::mutex> lock(sendMutex);
        net::closeSocket(txSocket);
    }
    counters.disconnects++;
    traceLine("disconnected");
    if (reported) {
        deliverConnect(false);
    }
    devices.clear();
}

void CTPWrapper::Link::deliver(CMessage_Base& message) {
    std::shared_ptr<const MessageCallBack> cb;
    {
        std::lock_guard<std::mutex> lock(callbackMutex);
        cb = callback;
    }
    if (!cb || !*cb) {
        return;
    }
    counters.messagesDelivered++;
    try {
        (*cb)(&message);
    } catch (const std::exception& e) {
        counters.callbackExceptions++;
        logLine(std::string("message callback threw: ") + e.what());
    } catch (...) {
        counters.callbackExceptions++;
        logLine("message callback threw a non-standard exception");
    }
}

void CTPWrapper::Link::deliverConnect(bool up) {
    CMessage_Connect message;
    message.setConnect(up);
    deliver(message);
}

void CTPWrapper::Link::sendHeartBeatInterval(int ms) {
    sdk_link::Command c;
    c.set_name("setHeartBeatInterval");
    c.add_args()->set_i(ms);
    owner->sendFrame(wire::kCommandType, c.SerializeAsString());
}

void CTPWrapper::Link::sendKeepAliveProbe(int32_t number) {
    counters.keepAliveProbes++;
    owner->sendFrame(wire::kKeepAliveType, std::string(), number);
}

void CTPWrapper::Link::onDrop(wire::DropReason reason, const std::string& detail) {
    switch (reason) {
        case wire::DropReason::Oversized:
            counters.droppedOversized++;
            break;
        case wire::DropReason::Malformed:
            counters.droppedMalformed++;
            break;
        case wire::DropReason::StreamError:
            counters.streamErrors++;
            break;
    }
    logLine(std::string("dropped ") + wire::dropReasonText(reason) + " frame: " + detail +
            (reason == wire::DropReason::StreamError ? "; reconnecting" : ""));
}

void CTPWrapper::Link::onFrame(const wire::Frame& frame) {
    counters.framesReceived++;
    if (frame.type == static_cast<uint32_t>(wire::kKeepAliveType)) {
        counters.keepAliveAnswers++;  // the devices are there; nothing to deliver
        return;
    }
    // Type 0 is the SDK's own connection message and 100 a command: neither comes from a
    // device, so both count as unknown here.
    std::unique_ptr<CMessage_Base> message;
    if (frame.type != MSG_CONNECT && frame.type <= static_cast<uint32_t>(MSG_OPTIMIZATION)) {
        message = CreateMessage(static_cast<int>(frame.type));
    }
    if (!message) {
        counters.droppedUnknownType++;
        logLine("dropped frame of unknown type " + std::to_string(frame.type));
        return;
    }
    if (message->unpack(frame.body, static_cast<int>(frame.bodySize)) != 0) {
        counters.droppedMalformed++;
        logLine("dropped malformed frame: body of type " + std::to_string(frame.type) +
                " does not parse");
        return;
    }
    message->setID(frame.id);
    message->setSentNs(frame.sentNs);
    if (!frame.deviceIds.empty()) {
        deviceids ids = frame.deviceIds;
        message->setDeviceIds(&ids);
    }
    switch (frame.type) {
        case MSG_DEVICE:
            devices.update(static_cast<CMessage_Device&>(*message));
            break;
        case MSG_RECEIPT: {
            auto& r = static_cast<CMessage_Receipt&>(*message);
            if (r.getReceiptKind() == RECEIPT_LOWPART_VERSION) {
                std::lock_guard<std::mutex> lock(versionMutex);
                lowpartVersion = r.getFirmwareVersion();
            }
            break;
        }
        case MSG_SCANDATA:
            if (g_saveFrame.load()) {
                saveFrame(frame, static_cast<CMessage_ScanData&>(*message).getFrameID());
            }
            break;
        default:
            break;
    }
    deliver(*message);
}

void CTPWrapper::Link::saveFrame(const wire::Frame& frame, int frameID) {
    const std::string folder = CTPWrapper::getSaveFrameFolder();
    if (!platform::directoryExists(folder) && !platform::makeDirectories(folder)) {
        logLine("cannot create the frame folder " + folder);
        return;
    }
    char name[96];
    std::snprintf(name, sizeof(name), "scan_%ld_%08llu_%d.lfr",
                  static_cast<long>(platform::currentProcessId()),
                  static_cast<unsigned long long>(++g_savedSequence), frameID);
    const std::string path = platform::joinPath(folder, name);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        logLine("cannot write " + path);
        return;
    }
    const bool ok = std::fwrite(frame.raw, 1, frame.rawSize, f) == frame.rawSize;
    if (std::fclose(f) != 0 || !ok) {
        logLine("incomplete frame file " + path);
        return;
    }
    counters.framesSaved++;
}

// ---------------------------------------------------------------------------------------------
// CTPWrapper
// ---------------------------------------------------------------------------------------------

CTPWrapper::CTPWrapper() : m_pLink(std::make_unique<Link>()) {
    m_pLink->owner = this;
    platform::socketStartup();
}

CTPWrapper::~CTPWrapper() {
    setCloseWrapper(true);
    std::lock_guard<std::mutex> lock(m_pLink->threadMutex);
    if (m_pLink->thread.joinable()) {
        if (m_pLink->thread.get_id() == std::this_thread::get_id()) {
            m_pLink->thread.detach();  // destroyed from its own callback: cannot join itself
        } else {
            m_pLink->thread.join();
        }
    }
}

void CTPWrapper::setCallBackMessage(const MessageCallBack& callback) {
    auto cb = std::make_shared<const MessageCallBack>(callback);
    std::lock_guard<std::mutex> lock(m_pLink->callbackMutex);
    m_pLink->callback = std::move(cb);
}

CTPWrapper::MessageCallBack CTPWrapper::getCallBackMessage() const {
    std::lock_guard<std::mutex> lock(m_pLink->callbackMutex);
    return m_pLink->callback ? *m_pLink->callback : MessageCallBack();
}

void CTPWrapper::setOutput(const bool& on) {
    setTraceEnabled(on);
}
bool CTPWrapper::getOutput() {
    return traceEnabled();
}
void CTPWrapper::setSaveFrame(const bool& on) {
    g_saveFrame.store(on);
}
bool CTPWrapper::getSaveFrame() {
    return g_saveFrame.load();
}

void CTPWrapper::setSaveFrameFolder(const std::string& folder) {
    std::lock_guard<std::mutex> lock(g_folderMutex);
    g_frameFolder = folder;
}

std::string CTPWrapper::getSaveFrameFolder() {
    std::lock_guard<std::mutex> lock(g_folderMutex);
    return g_frameFolder.empty() ? defaultFrameFolder() : g_frameFolder;
}

bool CTPWrapper::connectToLowPart() {
    Link& L = *m_pLink;
    if (L.closed.load()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(L.threadMutex);
    if (L.running.load()) {
        L.stop.store(false);  // a close requested from the callback is withdrawn
        return true;
    }
    if (L.thread.joinable()) {
        if (L.thread.get_id() == std::this_thread::get_id()) {
            L.thread.detach();
        } else {
            L.thread.join();
        }
    }
    L.stop.store(false);
    L.running.store(true);
    try {
        L.thread = std::thread([&L] { L.run(); });
    } catch (const std::exception& e) {
        L.running.store(false);
        logLine(std::string("cannot start the receiving thread: ") + e.what());
        return false;
    }
    return true;
}

bool CTPWrapper::isConnected() const {
    return m_pLink->connected.load();
}

void CTPWrapper::setCloseWrapper(bool close) {
    Link& L = *m_pLink;
    L.closed.store(close);
    if (!close) {
        return;
    }
    L.stop.store(true);
    std::lock_guard<std::mutex> lock(L.threadMutex);
    if (!L.thread.joinable() || L.thread.get_id() == std::this_thread::get_id()) {
        return;  // from the callback: the thread ends after the callback returns
    }
    L.thread.join();
}

bool CTPWrapper::setEndpoint(const std::string& hostPort) {
    wire::Endpoint ep;
    if (!wire::parseEndpoint(hostPort, ep)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_pLink->endpointMutex);
    m_pLink->endpoint = ep;
    return true;
}

std::string CTPWrapper::getEndpoint() const {
    std::lock_guard<std::mutex> lock(m_pLink->endpointMutex);
    return m_pLink->endpoint.text();
}

CTPDeviceManager* CTPWrapper::getTPDeviceManager() {
    return &m_pLink->devices;
}

LinkCounters CTPWrapper::getLinkCounters() const {
    const Link::Counters& c = m_pLink->counters;
    LinkCounters out;
    out.connects = c.connects;
    out.disconnects = c.disconnects;
    out.framesReceived = c.framesReceived;
    out.messagesDelivered = c.messagesDelivered;
    out.droppedOversized = c.droppedOversized;
    out.droppedMalformed = c.droppedMalformed;
    out.droppedUnknownType = c.droppedUnknownType;
    out.streamErrors = c.streamErrors;
    out.framesSent = c.framesSent;
    out.sendFailures = c.sendFailures;
    out.framesSaved = c.framesSaved;
    out.callbackExceptions = c.callbackExceptions;
    out.keepAliveProbes = c.keepAliveProbes;
    out.keepAliveAnswers = c.keepAliveAnswers;
    out.keepAliveTimeouts = c.keepAliveTimeouts;
    return out;
}

std::string CTPWrapper::cachedLowpartVersion() const {
    std::lock_guard<std::mutex> lock(m_pLink->versionMutex);
    return m_pLink->lowpartVersion;
}

bool CTPWrapper::sendFrame(int type, const std::string& body, int32_t id) {
    Link& L = *m_pLink;
    if (!L.connected.load()) {
        L.counters.sendFailures++;
        return false;
    }
    std::lock_guard<std::mutex> lock(L.sendMutex);
    if (L.txSocket == net::kInvalidSocket) {
        L.counters.sendFailures++;
        return false;
    }
    std::string head;
    if (!wire::encodeFrameHead(static_cast<uint32_t>(type), id, nullptr, ++L.txSequence,
                               wire::monotonicNs(), body.size(), head)) {
        L.counters.sendFailures++;
        logLine("command of " + std::to_string(body.size()) + " bytes exceeds the frame limit");
        return false;
    }
    if (!net::sendAll(L.txSocket, head.data(), head.size(), body.data(), body.size())) {
        L.counters.sendFailures++;
        logLine("write to the devices failed; reconnecting");
        net::shutdownSocket(L.txSocket);  // the receiving thread notices and reconnects
        return false;
    }
    L.counters.framesSent++;
    return true;
}

}  // namespace SDK_NV
