// CTPScanWrapper: every device command as one sdk_link.Command frame (type 100). The command
// name is the member's name; the arguments follow in the member's order (sdk/PROTOCOL.md).
#include <ctime>

#include "Log.h"
#include "platform/Platform.h"
#include "sdk/TPWrapper.h"
#include "sdk/Wire.h"
#include "sdk_link.pb.h"

namespace SDK_NV {

namespace {

class Cmd {
public:
    explicit Cmd(const char* name) { m_cmd.set_name(name); }
    Cmd& i(int64_t v) {
        m_cmd.add_args()->set_i(v);
        return *this;
    }
    Cmd& d(double v) {
        m_cmd.add_args()->set_d(v);
        return *this;
    }
    Cmd& b(bool v) {
        m_cmd.add_args()->set_b(v);
        return *this;
    }
    Cmd& s(const std::string& v) {
        m_cmd.add_args()->set_s(v);
        return *this;
    }
    Cmd& raw(const google::protobuf::MessageLite& m) {
        m.SerializeToString(m_cmd.add_args()->mutable_raw());
        return *this;
    }
    Cmd& strings(const std::vector<std::string>& v) {
        auto* list = m_cmd.add_args()->mutable_strings();
        for (const std::string& x : v) {
            list->add_values(x);
        }
        return *this;
    }
    Cmd& floats(const std::vector<float>& v) {
        auto* list = m_cmd.add_args()->mutable_floats();
        list->mutable_values()->Reserve(static_cast<int>(v.size()));
        for (float x : v) {
            list->add_values(x);
        }
        return *this;
    }
    Cmd& ints(const std::vector<int>& v) {
        auto* list = m_cmd.add_args()->mutable_ints();
        list->mutable_values()->Reserve(static_cast<int>(v.size()));
        for (int x : v) {
            list->add_values(x);
        }
        return *this;
    }
    const sdk_link::Command& command() const { return m_cmd; }

private:
    sdk_link::Command m_cmd;
};

}  // namespace

#define SEND(cmd) send((cmd).command())

CTPScanWrapper::CTPScanWrapper() = default;
CTPScanWrapper::~CTPScanWrapper() = default;

bool CTPScanWrapper::send(const sdk_link::Command& command) {
    std::string body;
    if (!command.SerializeToString(&body)) {
        return false;
    }
    const bool ok = sendFrame(wire::kCommandType, body);
    traceLine("command " + command.name() + (ok ? "" : " not sent (no link)"));
    return ok;
}

// ---- acquisition ----------------------------------------------------------------------------

bool CTPScanWrapper::setTrigger(bool on, const std::vector<std::string>& deviceIds) {
    return SEND(Cmd("setTrigger").b(on).strings(deviceIds));
}
bool CTPScanWrapper::setWorkBusiness(int business) {
    return SEND(Cmd("setWorkBusiness").i(business));
}
bool CTPScanWrapper::setStartScan(SCANOBJECT object) {
    return SEND(Cmd("setStartScan").i(object));
}
bool CTPScanWrapper::setDynamicScan(SCANOBJECT object) {
    return SEND(Cmd("setDynamicScan").i(object));
}
bool CTPScanWrapper::setIsNeedEdgePoint(bool need) {
    return SEND(Cmd("setIsNeedEdgePoint").b(need));
}
bool CTPScanWrapper::setTrackScanner() {
    return SEND(Cmd("setTrackScanner"));
}
bool CTPScanWrapper::setTrackMarkpoint() {
    return SEND(Cmd("setTrackMarkpoint"));
}
bool CTPScanWrapper::setImageMode(IMAGEMODE mode) {
    return SEND(Cmd("setImageMode").i(mode));
}
bool CTPScanWrapper::setLEDExposure(const float& value, const DEVICETYPE& type) {
    return SEND(Cmd("setLEDExposure").d(value).i(type));
}
bool CTPScanWrapper::setLaserExposure(const float& value) {
    return SEND(Cmd("setLaserExposure").d(value));
}
bool CTPScanWrapper::setROIErea(bool on) {
    return SEND(Cmd("setROIErea").b(on));
}
bool CTPScanWrapper::setZaxisCompensation(bool on) {
    return SEND(Cmd("setZaxisCompensation").b(on));
}
bool CTPScanWrapper::setResetCamera() {
    return SEND(Cmd("setResetCamera"));
}
bool CTPScanWrapper::setSoundControl(bool on) {
    return SEND(Cmd("setSoundControl").b(on));
}
bool CTPScanWrapper::setSpecialMode(const tagSpecialMode& mode) {
    lumora::ScanModeSet m;
    m.set_blackoject(mode.bBlackObject ? 1 : 0);
    m.set_highlight(mode.bHighLight ? 1 : 0);
    m.set_deephole(mode.bDeepHole ? 1 : 0);
    return SEND(Cmd("setSpecialMode").raw(m));
}
bool CTPScanWrapper::setHighFrameRate(int rate) {
    return SEND(Cmd("setHighFrameRate").i(rate));
}
bool CTPScanWrapper::setCalibHighFrameRate(bool on) {
    return SEND(Cmd("setCalibHighFrameRate").b(on));
}
bool CTPScanWrapper::setHeartDevice() {
    return SEND(Cmd("setHeartDevice"));
}
bool CTPScanWrapper::setCurSystemTime() {
    const std::time_t now = std::time(nullptr);
    return SEND(Cmd("setCurSystemTime")
                    .i(static_cast<int64_t>(now))
                    .s(platform::formatLocalTime(now, "%Y-%m-%d %H:%M:%S")));
}
bool CTPScanWrapper::setLaserType(LASERTYPE laser, LIGHTTYPE light) {
    return SEND(Cmd("setLaserType").i(laser).i(light));
}
bool CTPScanWrapper::SetHoleParamter(int holeType, int first, int second) {
    lumora::HoleParamter m;
    m.set_holetype(holeType);
    m.set_surfacecolor(first);
    m.set_surfaceprocess(second);
    return SEND(Cmd("SetHoleParamter").raw(m));
}
bool CTPScanWrapper::setCustomDepth(const std::string& name, int minDepth, int maxDepth) {
    return SEND(Cmd("setCustomDepth").s(name).i(minDepth).i(maxDepth));
}
bool CTPScanWrapper::setWifiUserPassword(const std::string& user, const std::string& password) {
    return SEND(Cmd("setWifiUserPassword").s(user).s(password));
}
bool CTPScanWrapper::setGrabImages(bool on) {
    return SEND(Cmd("setGrabImages").b(on));
}
bool CTPScanWrapper::SetEnableScanExpand(bool on) {
    return SEND(Cmd("SetEnableScanExpand").b(on));
}
bool CTPScanWrapper::SetCuttingEdgeData(const lumora::DETECT_EDGE_POINTS_INFO& edges) {
    return SEND(Cmd("SetCuttingEdgeData").raw(edges));
}
bool CTPScanWrapper::setFineHoleData(const std::vector<tagFineHoleParam>& holes) {
    sdk_link::FineHoleList list;
    for (const tagFineHoleParam& h : holes) {
        sdk_link::FineHole* w = list.add_holes();
        w->set_type(h.nType);
        w->set_id(h.nId);
        for (float v : h.fCenter) {
            w->add_center(v);
        }
        for (float v : h.fDirection) {
            w->add_direction(v);
        }
        w->set_radius(h.fRadius);
        w->set_width(h.fWidth);
        w->set_height(h.fHeight);
        w->set_depth(h.fDepth);
    }
    return SEND(Cmd("setFineHoleData").raw(list));
}

// ---- markers and transforms -----------------------------------------------------------------

bool CTPScanWrapper::clearMarkpointData(const DEVICETYPE& type) {
    return SEND(Cmd("clearMarkpointData").i(type));
}
bool CTPScanWrapper::setMarkpointData(const std::vector<float>& positions,
                                      const std::vector<float>& normals,
                                      const std::vector<float>& values,
                                      const std::vector<int>& labels, const DEVICETYPE& type) {
    return SEND(Cmd("setMarkpointData")
                    .floats(positions)
                    .floats(normals)
                    .floats(values)
                    .ints(labels)
                    .i(type));
}
bool CTPScanWrapper::SetMarkPointDiameter(std::vector<float> diameters) {
    return SEND(Cmd("SetMarkPointDiameter").floats(diameters));
}
bool CTPScanWrapper::SetTrackerMarkPointDiameter(std::vector<float> diameters) {
    return SEND(Cmd("SetTrackerMarkPointDiameter").floats(diameters));
}
bool CTPScanWrapper::setTransforRT(const tagTransformMatrix& transforms) {
    sdk_link::TransformMatrix m;
    for (const auto& [id, values] : transforms.m_mapTransform) {
        sdk_link::TrackerTransform* t = m.add_transforms();
        t->set_tracker_id(id);
        for (double v : values) {
            t->add_values(v);
        }
    }
    return SEND(Cmd("setTransforRT").raw(m));
}

// ---- air devices, low part, telemetry --------------------------------------------------------

bool CTPScanWrapper::getLowPartConfigs() {
    return SEND(Cmd("getLowPartConfigs"));
}
bool CTPScanWrapper::getPripladDevices() {
    return SEND(Cmd("getPripladDevices"));
}
bool CTPScanWrapper::setLowPartConfigs(const tagLowPartConfig& config) {
    lumora::LowPartCfg m;
    wire::encodeLowPartConfig(config, &m);
    return SEND(Cmd("setLowPartConfigs").raw(m));
}
bool CTPScanWrapper::getDiagnosisInfo() {
    return SEND(Cmd("getDiagnosisInfo"));
}
bool CTPScanWrapper::getRemainingRGF() {
    return SEND(Cmd("getRemainingRGF"));
}
bool CTPScanWrapper::getWIFIConnectInfo() {
    return SEND(Cmd("getWIFIConnectInfo"));
}
bool CTPScanWrapper::getWIFISignalStrength() {
    return SEND(Cmd("getWIFISignalStrength"));
}
bool CTPScanWrapper::getHeartBeat() {
    return SEND(Cmd("getHeartBeat"));
}
std::string CTPScanWrapper::getLowpartVersion() {
    SEND(Cmd("getLowpartVersion"));
    return cachedLowpartVersion();
}

// ---- calibration ----------------------------------------------------------------------------

bool CTPScanWrapper::setCalibTeachStep(int step) {
    return SEND(Cmd("setCalibTeachStep").i(step));
}
bool CTPScanWrapper::setTrackRangeLevel(TRACKRANGE range) {
    return SEND(Cmd("setTrackRangeLevel").i(range));
}
bool CTPScanWrapper::setCalibrationMode(CALIBMODE mode) {
    return SEND(Cmd("setCalibrationMode").i(mode));
}
bool CTPScanWrapper::getCalibLocationStep(CALIBMODE mode) {
    return SEND(Cmd("getCalibLocationStep").i(mode));
}
bool CTPScanWrapper::getCalibBoardSize() {
    return SEND(Cmd("getCalibBoardSize"));
}
bool CTPScanWrapper::setGrabOneFrame(int pose) {
    return SEND(Cmd("setGrabOneFrame").i(pose));
}
bool CTPScanWrapper::getCalibraResult() {
    return SEND(Cmd("getCalibraResult"));
}
bool CTPScanWrapper::setCalibReloadParams(const DEVICETYPE& type) {
    return SEND(Cmd("setCalibReloadParams").i(type));
}

}  // namespace SDK_NV
