#include "DeviceTestSupport.h"

#include <stdlib.h>

#include <chrono>
#include <cstdlib>

#include "lumora.pb.h"
#include "platform/Platform.h"
#include "sdk/Socket.h"
#include "sdk/Wire.h"

namespace devtest {

namespace net = SDK_NV::net;
namespace wire = SDK_NV::wire;

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
            case FAST_CALI_SCANNER_BOARD: {  // the console's boards have five values
                const auto* v = static_cast<const double*>(p);
                e.values.assign(v, v + 5);
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

}  // namespace devtest
