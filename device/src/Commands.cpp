// The thin control commands: argument checks, mapping to SDK commands, acknowledged waits.
#include "Mappings.h"
#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/TPWrapper.h"

namespace device {

namespace {

constexpr int kImageModePolls = 5;
constexpr int kImageModePollMs = 1000;
constexpr int kRegionFirstWaitMs = 500;
constexpr int kRegionPolls = 100;
constexpr int kRegionPollMs = 100;
constexpr int kConfigPolls = 30;
constexpr int kConfigPollMs = 200;

// One test of an acknowledged wait: 0 accepted, 1 refused, -1 nothing yet. The acknowledgement
// and the accepted flag are consumed.
int takeAcknowledgement(std::atomic<bool>& accepted) {
    detail::ModuleFlags& flags = detail::moduleFlags();
    if (!flags.grabAnswered.exchange(false)) {
        return -1;
    }
    return accepted.exchange(false) ? 0 : 1;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Scan objects and tracking modes
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::selectScanObject(const emScanObject& object, bool dynamic) {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    const detail::ScanObjectPlan plan =
        detail::planScanObject(object, dynamic, m_bSuperConversion.load());
    m_bDynamicMarker.store(plan.dynamicMarker);
    m_bObjectScan.store(plan.objectScan);
    m_bMarkerObject.store(plan.markerObject);
    m_bHoleObject.store(plan.holeObject);
    m_bEdgePoints.store(plan.edgePoints);
    m_bBusinessObject.store(plan.businessObject);
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setTrigger(false, {});
        m_pScanWrapper->setIsNeedEdgePoint(plan.needEdgePoint);
        const auto scanObject = static_cast<SDK_NV::SCANOBJECT>(plan.argument);
        switch (plan.command) {
            case detail::ScanObjectPlan::StartScan:
                m_pScanWrapper->setStartScan(scanObject);
                break;
            case detail::ScanObjectPlan::DynamicScan:
                m_pScanWrapper->setDynamicScan(scanObject);
                break;
            case detail::ScanObjectPlan::WorkBusiness:
                m_pScanWrapper->setWorkBusiness(plan.argument);
                break;
            case detail::ScanObjectPlan::None:
                break;
        }
    }
    m_bDynamicTracking.store(dynamic);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setScanObject(const emScanObject& object, bool /*flag*/) {
    return selectScanObject(object, false);
}

emDeviceResult CPathfinder::setDynamicTracking(const emScanObject& object) {
    return selectScanObject(object, true);
}

emDeviceResult CPathfinder::setWorkBusiness(emWorkBusiness business) {
    if (business == WORK_BUSINESS_WARM_UP && m_pScanWrapper != nullptr) {
        m_pScanWrapper->setWorkBusiness(17);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setTrackingScanner() {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    triggerOff();
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setTrackScanner();
    }
    m_bTrackScanner.store(true);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setTrackingMarkpoint() {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    triggerOff();
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setTrackMarkpoint();
    }
    m_bTrackMarkpoint.store(false);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setWorkingDevice(const std::vector<std::string>& deviceIds) {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    std::lock_guard<std::mutex> lock(m_mtxScanState);
    m_vecWorkingDevices = deviceIds;
    return RESULT_SUCCESS;
}

CPathfinder::ScanMode CPathfinder::scanMode() const {
    ScanMode mode;
    mode.m_bDynamicMarker = m_bDynamicMarker.load();
    mode.m_bObjectScan = m_bObjectScan.load();
    mode.m_bMarkerObject = m_bMarkerObject.load();
    mode.m_bHoleObject = m_bHoleObject.load();
    mode.m_bEdgePoints = m_bEdgePoints.load();
    mode.m_bBusinessObject = m_bBusinessObject.load();
    mode.m_bDynamicTracking = m_bDynamicTracking.load();
    mode.m_bSuperConversion = m_bSuperConversion.load();
    mode.m_bTrackScanner = m_bTrackScanner.load();
    mode.m_bTrackMarkpoint = m_bTrackMarkpoint.load();
    return mode;
}

// ---------------------------------------------------------------------------------------------
// Acknowledged commands
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::setImageMode(const emImageMode& mode) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    detail::ModuleFlags& flags = detail::moduleFlags();
    // An acknowledgement left over from an earlier command must not answer this one.
    flags.grabAnswered.store(false);
    flags.grabOk173.store(false);
    m_pScanWrapper->setImageMode(static_cast<SDK_NV::IMAGEMODE>(mode));
    for (int i = 0; i < kImageModePolls; ++i) {
        const int answer = takeAcknowledgement(flags.grabOk173);
        if (answer >= 0) {
            return answer == 0 ? RESULT_SUCCESS : RESULT_FAILED;
        }
        platform::sleepMs(kImageModePollMs);
    }
    return RESULT_FAILED;
}

emDeviceResult CPathfinder::waitRegionAccepted() {
    detail::ModuleFlags& flags = detail::moduleFlags();
    platform::sleepMs(kRegionFirstWaitMs);
    for (int i = 0; i < kRegionPolls; ++i) {
        const int answer = takeAcknowledgement(flags.grabOk181);
        if (answer >= 0) {
            return answer == 0 ? RESULT_SUCCESS : RESULT_FAILED;
        }
        platform::sleepMs(kRegionPollMs);
    }
    return RESULT_FAILED;
}

emDeviceResult CPathfinder::setROIErea(bool enable) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    detail::moduleFlags().grabAnswered.store(false);
    detail::moduleFlags().grabOk181.store(false);
    m_pScanWrapper->setROIErea(enable);
    return waitRegionAccepted();
}

emDeviceResult CPathfinder::setZaxisCompensation(bool enable) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    detail::moduleFlags().grabAnswered.store(false);
    detail::moduleFlags().grabOk181.store(false);
    m_pScanWrapper->setZaxisCompensation(enable);
    return waitRegionAccepted();
}

// ---------------------------------------------------------------------------------------------
// Exposures and switches
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::setLEDExposure(const float& exposure) {
    if (!detail::exposureInRange(exposure, 1.0f)) {
        return RESULT_OUT_OF_RANGE;
    }
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setLEDExposure(exposure, SDK_NV::DEVICE_TRACKER);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setLaserExposure(const float& exposure, int& /*value*/) {
    if (!detail::exposureInRange(exposure, 10.0f)) {
        return RESULT_OUT_OF_RANGE;
    }
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setLaserExposure(exposure);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setResetCamera() {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setResetCamera();
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setSound(bool enable) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setSoundControl(enable);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setBlackObject(const bool& black) {
    if (m_pScanWrapper != nullptr) {
        SDK_NV::tagSpecialMode mode;
        mode.bBlackObject = black;
        mode.bHighLight = false;
        mode.bDeepHole = false;
        m_pScanWrapper->setSpecialMode(mode);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setTriggerLaser(bool on) {
    if (m_pScanWrapper == nullptr || isLaserLock()) {
        return RESULT_FAILED;
    }
    // The verdict of the switch itself is not this operation's result.
    if (on) {
        controlLaserOn();
    } else {
        controlLaserOff();
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setHighFrameRate(int rate) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setHighFrameRate(rate);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setCalibHighFrameRate(bool on) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setCalibHighFrameRate(on);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setHeartBeatInterval(const int& interval) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->m_nHeartBeatInterval = interval;
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setHeartDevice() {
    triggerOff();
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setHeartDevice();
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setCurSystemTime() {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setCurSystemTime();
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setDeviceLaserType(const emDeviceLaserType& type) {
    if (type == LASER_TYPE_UNAVAILABLE) {
        return RESULT_NOT_SUPPORTED;
    }
    int32_t laser = 0;
    int32_t light = 0;
    if (detail::laserTypeArguments(type, laser, light) && m_pScanWrapper != nullptr) {
        m_pScanWrapper->setLaserType(static_cast<SDK_NV::LASERTYPE>(laser),
                                     static_cast<SDK_NV::LIGHTTYPE>(light));
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setMetalHoleParamter(emMetalHoleSurfaceColor color,
                                                 emMetalHoleSurfaceProcess process) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->SetHoleParamter(0, color, process);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setRivetHoleParamter(int first, int second) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->SetHoleParamter(1, first, second);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setCustomDepth(const std::string& name, int first, int second) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setCustomDepth(name, first, second);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setWifiUserPassword(const std::string& user,
                                                const std::string& password) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setWifiUserPassword(user, password);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::grabImage(const std::vector<std::string>& /*deviceIds*/) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setGrabImages(true);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setGrabSaveOneFrame(bool on) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setGrabImages(on);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::startSuperConversionScanObject(bool on) {
    m_bSuperConversion.store(on);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setImagesSavePath(const std::wstring& path) {
    if (path.empty()) {
        return RESULT_SUCCESS;
    }
    setSaveImages(true);
    detail::setImagesSavePath(path);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::updateConfigFolder(wchar_t* /*folder*/) {
    return RESULT_NOT_SUPPORTED;
}

// ---------------------------------------------------------------------------------------------
// Air devices
// ---------------------------------------------------------------------------------------------

void CPathfinder::waitConfiguration() {
    for (int i = 0; i < kConfigPolls && m_bConfigPending.load(); ++i) {
        platform::sleepMs(kConfigPollMs);
    }
}

emDeviceResult CPathfinder::setPriplad(bool enable) {
    m_bPripladBusy.store(true);
    if (m_pScanWrapper != nullptr) {
        // The pending flag goes up before each request so that a quick answer clears it.
        m_bConfigPending.store(true);
        m_pScanWrapper->getLowPartConfigs();
        waitConfiguration();

        m_bConfigPending.store(true);
        m_pScanWrapper->getPripladDevices();
        waitConfiguration();

        SDK_NV::tagLowPartConfig config;
        {
            std::lock_guard<std::mutex> lock(m_mtxLowPart);
            if (m_pLowPartConfig != nullptr) {
                config.nSysId = m_pLowPartConfig->nSysId;
            }
            if (m_pPripladDevices != nullptr) {
                for (const SDK_NV::tagPripladDeviceData& device : *m_pPripladDevices) {
                    config.vecPripladIds.push_back(device.strDeviceId);
                }
            }
        }
        config.nUsePriplad = enable ? 1 : 2;
        m_bConfigPending.store(true);
        m_pScanWrapper->setLowPartConfigs(config);
        waitConfiguration();
    }
    // The devices take the new configuration with a fresh connection.
    clear();
    init();
    return RESULT_SUCCESS;
}

}  // namespace device
