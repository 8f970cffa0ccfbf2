// Device discovery and information: wire device records, the device list, versions,
// temperatures and the module's own folder and version.
#include <map>

#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/TPWrapper.h"

#ifndef PATHFINDER_TRACK_VERSION
#define PATHFINDER_TRACK_VERSION ""
#endif

namespace device {

void tpGetDeviceInfo(const lumora::DeviceInfo& wire, tagDeviceInfo& info) {
    info.setSerial(wire.id());
    info.kind = wire.dtype() == lumora::SCANNER ? DEVICE_TYPE_SCANNER : DEVICE_TYPE_TRACKER;
    info.model = wire.trackertype();
    info.state = STATE_READY;
    if (wire.errcodes_size() == 0) {
        info.state = STATE_NO_STATUS;
        return;
    }
    for (const int code : wire.errcodes()) {
        if (code == lumora::OPEN_CAMERA_ERR) {
            info.state = STATE_CAMERA_OPEN_FAILED;
        } else if (code == lumora::START_USB2_ERR) {
            info.state = STATE_USB_START_FAILED;
        }
    }
}

emDeviceResult CPathfinder::getDeviceInfo(int* count, std::shared_ptr<tagDeviceInfoList>* list) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    const std::vector<lumora::DeviceInfo> devices =
        m_pScanWrapper->getTPDeviceManager()->getDeviceList();
    const auto n = static_cast<int32_t>(devices.size());
    auto out = std::make_shared<tagDeviceInfoList>(n);
    // One scratch record for all devices: what the conversion does not write carries over.
    tagDeviceInfo scratch;
    for (int32_t i = 0; i < n && i < out->count; ++i) {
        tpGetDeviceInfo(devices[static_cast<size_t>(i)], scratch);
        out->infos[i] = scratch;
    }
    if (count != nullptr) {
        *count = out->count;
    }
    if (list != nullptr) {
        *list = std::move(out);
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::getLowpartVersion() {
    if (m_pScanWrapper == nullptr || !m_pScanWrapper->isConnected()) {
        return RESULT_FAILED;
    }
    const std::string version = m_pScanWrapper->getLowpartVersion();
    callDeviceTReply("", REPLY_LOWPART_VERSION, &version);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::getDeviceTemperature() {
    // The host receives a snapshot of the whole map; the receiving thread may go on updating
    // the live one meanwhile.
    const std::map<std::string, tagDeviceThermalBalance> records = getThermalRecords();
    if (records.empty()) {
        return RESULT_FAILED;
    }
    for (const auto& entry : records) {
        const tagDeviceThermalBalance record = entry.second;
        callDeviceTReply(record.name, REPLY_THERMAL_RECORD, &records);
    }
    return RESULT_SUCCESS;
}

std::wstring getAnnexPath() {
    static const std::wstring path =
        platform::widePath(platform::moduleDirOf(reinterpret_cast<const void*>(&tpGetDeviceInfo)));
    return path;
}

const char* getTrackVersion() {
    static const std::string version = PATHFINDER_TRACK_VERSION;
    return version.c_str();
}

}  // namespace device
