// The device list, kept current from the device messages.
#include <algorithm>

#include "sdk/TPWrapper.h"

namespace SDK_NV {

std::vector<lumora::DeviceInfo> CTPDeviceManager::getDeviceList() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<lumora::DeviceInfo> out;
    out.reserve(m_vecDevices.size());
    for (const Entry& e : m_vecDevices) {
        out.push_back(e.info);
    }
    return out;
}

deviceids CTPDeviceManager::getTracker() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    deviceids out;
    for (const Entry& e : m_vecDevices) {
        if (e.type == DEVICE_TRACKER) {
            out.push_back(e.id);
        }
    }
    return out;
}

deviceids CTPDeviceManager::getScanner() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    deviceids out;
    for (const Entry& e : m_vecDevices) {
        if (e.type == DEVICE_SCANNER) {
            out.push_back(e.id);
        }
    }
    return out;
}

DEVICETYPE CTPDeviceManager::getDeviceType(const std::string& id) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Entry& e : m_vecDevices) {
        if (e.id == id) {
            return e.type;
        }
    }
    return DEVICE_UNKNOWN;
}

bool CTPDeviceManager::getDeviceInfo(const std::string& id, lumora::DeviceInfo* out) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Entry& e : m_vecDevices) {
        if (e.id == id) {
            if (out != nullptr) {
                *out = e.info;
            }
            return true;
        }
    }
    return false;
}

void CTPDeviceManager::update(const CMessage_Device& message) {
    // The id is the wire record's ID; a departure may carry only the serial number.
    std::string id = message.deviceInfo().id();
    if (id.empty()) {
        id = message.getDeviceSN();
    }
    if (id.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = std::find_if(m_vecDevices.begin(), m_vecDevices.end(),
                           [&](const Entry& e) { return e.id == id; });
    if (!message.getConnect()) {
        if (it != m_vecDevices.end()) {
            m_vecDevices.erase(it);
        }
        return;
    }
    Entry entry{id, message.getDeviceType(), message.deviceInfo()};
    if (it != m_vecDevices.end()) {
        *it = std::move(entry);
    } else {
        m_vecDevices.push_back(std::move(entry));
    }
}

void CTPDeviceManager::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vecDevices.clear();
}

}  // namespace SDK_NV
