#include "DeviceTestSupport.h"

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lumora.pb.h"
#include "platform/Platform.h"
#include "sdk/Socket.h"
#include "sdk/Wire.h"

namespace devtest {

namespace net = SDK_NV::net;
namespace wire = SDK_NV::wire;

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

std::vector<Event> Recorder::replies(int code, const std::string& payload) const {
    std::vector<Event> out;
    for (const Event& e : of("reply")) {
        if (e.a == code && (payload.empty() || e.payloadText == payload)) {
            out.push_back(e);
        }
    }
    return out;
}

void Recorder::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
    m_frames.clear();
}

void Recorder::addFrame(const Frame& frame) {
    std::function<void(const device::tagDeviceData&)> then;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_frames.push_back(frame);
        then = m_onFrame;
    }
    if (then) {
        then(*frame);
    }
}

std::vector<Frame> Recorder::frames() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_frames;
}

void Recorder::setOnFrame(std::function<void(const device::tagDeviceData&)> then) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_onFrame = std::move(then);
}

namespace {

Event event(const char* what, int a = 0, int b = 0, int c = 0, const std::string& text = {}) {
    Event e;
    e.what = what;
    e.a = a;
    e.b = b;
    e.c = c;
    e.text = text;
    return e;
}

// The payload of a reply, as far as tests look at it.
void readReply(device::emDeviceReply reply, const void* p, Event& e) {
    using namespace device;
    if (p == nullptr) {
        return;
    }
    if (reply == REPLY_WIFI_STATE || reply == REPLY_DEVICE_TEXT) {
        e.payloadText = static_cast<const char*>(p);
    } else if (reply == REPLY_LOWPART_VERSION) {
        e.payloadText = *static_cast<const std::string*>(p);
    } else if (reply == REPLY_REMAINING_RESOURCES) {
        e.counts = *static_cast<const std::map<std::string, int>*>(p);
    } else if (reply == REPLY_THERMAL_BALANCE) {
        e.thermal = *static_cast<const tagDeviceThermalBalance*>(p);
    } else if (reply == REPLY_THERMAL_RECORD) {
        e.values = {static_cast<double>(
            static_cast<const std::map<std::string, tagDeviceThermalBalance>*>(p)->size())};
    } else if (reply == REPLY_DEVICE_INFO) {
        e.payloadText = static_cast<const lumora::DeviceInfo*>(p)->id();
    }
}

// The payload of a calibration step: numbers in order, or the scanner's calibration record.
void readFastCali(device::emDeviceTFastCali kind, const void* p, Event& e) {
    using namespace device;
    const auto ints = static_cast<const int32_t*>(p);
    switch (kind) {
        case FAST_CALI_LOCATION:
            e.values = {static_cast<double>(ints[0])};
            break;
        case FAST_CALI_BOARD_LATTICE:
            e.values = {static_cast<double>(ints[0]), static_cast<double>(ints[1])};
            break;
        case FAST_CALI_SCANNER_BOARD:  // the console's boards have five values
            e.values.assign(static_cast<const double*>(p), static_cast<const double*>(p) + 5);
            break;
        case FAST_CALI_TRACKER_POSE:
        case FAST_CALI_TRACKER_POSE_LONG: {
            const auto* ex = static_cast<const tagClbTrackerPoseEx*>(p);
            const tagClbTrackerPose& pose = kind == FAST_CALI_TRACKER_POSE
                                                ? *static_cast<const tagClbTrackerPose*>(p)
                                                : ex->pose;
            e.values.assign(pose.rotation, pose.rotation + 9);
            e.values.insert(e.values.end(), pose.translation, pose.translation + 3);
            e.values.push_back(pose.barPose);
            if (kind == FAST_CALI_TRACKER_POSE_LONG) {
                e.values.insert(e.values.end(), {static_cast<double>(ex->grabIndex),
                                                 static_cast<double>(ex->location)});
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
}

}  // namespace

TestDevice::TestDevice(std::shared_ptr<Recorder> recorder) : m_recorder(std::move(recorder)) {
    using namespace device;
    Recorder* rec = m_recorder.get();
    tagDeviceHandlers h;
    h.onDeviceState = [rec](emDeviceState state, const tagDeviceInfo& info, const void*) {
        Event e = event("state", state, info.kind, 0, info.serialText());
        e.values = {static_cast<double>(info.model), static_cast<double>(info.state)};
        rec->add(e);
    };
    h.onDeviceReply = [rec](const std::string& text, emDeviceReply reply, const void* p) {
        Event e = event("reply", reply, 0, 0, text);
        readReply(reply, p, e);
        rec->add(e);
    };
    h.onDeviceButton = [rec](emDeviceButton button, emDeviceButtonAction action) {
        rec->add(event("button", button, action));
    };
    h.onDeviceFastCali = [rec](emDeviceTFastCali kind, const void* p) {
        Event e = event("fastcali", kind);
        readFastCali(kind, p, e);
        rec->add(e);
    };
    h.onDeviceImage = [rec](int a, int b, int c, const std::string& name, const void*) {
        rec->add(event("image", a, b, c, name));
    };
    h.onDeviceNeedRetrigger = [rec] { rec->add(event("retrigger")); };
    h.onDeviceTriggerNoData = [rec] { rec->add(event("nodata")); };
    h.onDeviceData = [rec](const Frame& d, const char*, int) { rec->addFrame(d); };
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

long residentKb() {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

std::string ev(const std::string& what, int a, int b, const std::string& text) {
    return what + " " + std::to_string(a) + " " + std::to_string(b) + " " + text;
}

// ---------------------------------------------------------------------------------------------

void WithConsole::SetUp() {
    annex = makeTempAnnex();
    commandLog = annex + "/commands.log";
    device::resetThermalRecords();
}

void WithConsole::TearDown() {
    device.reset();
    console.reset();
    std::filesystem::remove_all(annex);
}

void WithConsole::startConsole(const Lines& options, uint16_t port) {
    Lines args = {"--heartbeat-ms", "0",       "--setup",  "heartbeat period 0",
                  "--fps",          "200",     "--points", "300",
                  "--command-log",  commandLog};
    args.insert(args.end(), options.begin(), options.end());
    console = std::make_unique<sdktest::ConsoleProcess>();
    ASSERT_TRUE(console->start(args, port));
    ::setenv(wire::kEndpointEnv, console->endpoint().c_str(), 1);
}

void WithConsole::connect(const Lines& options) {
    ASSERT_NO_FATAL_FAILURE(startConsole(options));
    device = std::make_unique<TestDevice>(recorder);
    ASSERT_EQ(device->init(), device::RESULT_SUCCESS);
    sync();
}

void WithConsole::control(const std::string& line) {
    ASSERT_TRUE(console->control(line)) << line;
}

// Control lines run in order, so a Wi-Fi report asked for now arrives after everything before.
void WithConsole::settle() {
    const std::string mark = "~settle " + std::to_string(++m_marks);
    control("wifi " + mark);
    ASSERT_TRUE(
        waitFor([&] { return !recorder->replies(device::REPLY_WIFI_STATE, mark).empty(); }));
}

// A command of the device's own is logged behind the ones before it.
size_t WithConsole::sync() {
    const std::string name = "sync " + std::to_string(++m_marks);
    device->setCustomDepth(name, 0, 0);
    const std::string line = "setCustomDepth \"" + name + "\" 0 0";
    size_t at = 0;
    EXPECT_TRUE(waitFor([&] {
        const Lines log = logged();
        at = static_cast<size_t>(std::find(log.begin(), log.end(), line) - log.begin()) + 1;
        return at <= log.size();
    })) << line;
    settle();
    return at;
}

Lines WithConsole::logged() const {
    Lines out;
    std::ifstream in(commandLog);
    for (std::string l; std::getline(in, l);) {
        if (l.rfind('#', 0) != 0) {
            out.push_back(l);
        }
    }
    return out;
}

Lines WithConsole::sent(const std::function<void()>& op) {
    const size_t from = sync();
    op();
    const size_t to = sync();
    const Lines log = logged();
    return to > from && to <= log.size() ? Lines(log.begin() + from, log.begin() + to - 1)
                                         : Lines{"<log out of order>"};
}

std::vector<Event> WithConsole::events() const {
    std::vector<Event> out;
    for (const Event& e : recorder->events()) {
        if (!(e.a == device::REPLY_WIFI_STATE && e.payloadText.rfind("~settle", 0) == 0)) {
            out.push_back(e);
        }
    }
    return out;
}

Lines WithConsole::described() const {
    Lines out;
    for (const Event& e : events()) {
        out.push_back(ev(e.what, e.a, e.b, e.text));
    }
    return out;
}

bool WithConsole::replied(int code, int ms) {
    return waitFor([&] { return !recorder->replies(code).empty(); }, ms);
}

std::vector<Frame> WithConsole::scan(size_t n, bool keepOn) {
    const size_t before = recorder->frames().size();
    if (!device->isTriggerActive()) {
        EXPECT_EQ(device->controlLaserOn(), device::RESULT_SUCCESS);
    }
    EXPECT_TRUE(waitFor([&] { return recorder->frames().size() >= before + n; }, 20000));
    if (!keepOn) {
        EXPECT_EQ(device->controlLaserOff(), device::RESULT_SUCCESS);
    }
    const std::vector<Frame> all = recorder->frames();
    return std::vector<Frame>(all.begin() + static_cast<long>(std::min(before, all.size())),
                              all.end());
}

}  // namespace devtest
