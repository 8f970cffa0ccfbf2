// Heartbeats: the process-wide thermal balance of every device.
#include <cmath>
#include <mutex>

#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "sdk/Records.h"

namespace device {

namespace {

// Process-wide: a device's samples continue across reconnections and device objects. Written
// on the SDK's receiving thread, read by getDeviceTemperature on the host's.
std::mutex g_thermalMutex;
std::map<std::string, tagDeviceThermalBalance>& thermalRecords() {
    static std::map<std::string, tagDeviceThermalBalance> records;
    return records;
}

}  // namespace

std::map<std::string, tagDeviceThermalBalance> getThermalRecords() {
    std::lock_guard<std::mutex> lock(g_thermalMutex);
    return thermalRecords();
}

void resetThermalRecords() {
    std::lock_guard<std::mutex> lock(g_thermalMutex);
    thermalRecords().clear();
}

void AddTemperature(tagDeviceThermalBalance& record, SDK_NV::tagHeartData beat) {
    // Name and kind come first, whatever the heartbeat carries; without a temperature the
    // samples, the trend and the temperature fields stay as they were.
    record.name = beat.name;
    record.kind = beat.kind;
    if (beat.temp.empty()) {
        detail::logLine("heartbeat of " + beat.name + " without temperature: no sample");
        return;
    }
    const float t = beat.temp[0];
    if (beat.kind == 0 || beat.kind == 1) {
        // Field order of the record: element 0, then element 2, then element 1. A heartbeat
        // with fewer temperatures leaves the missing ones as they were.
        record.temperature1 = t;
        if (beat.temp.size() > 2) {
            record.temperature3 = beat.temp[2];
        }
        if (beat.temp.size() > 1) {
            record.temperature2 = beat.temp[1];
        }
    }

    // Incremental single-precision running mean over the last `capacity` samples.
    const size_t n = record.samples.size();
    const float nf = static_cast<float>(n);
    if (n == 0) {
        record.mean = t;
        record.delta = t;
        record.samples.push_back(t);
    } else if (n < record.capacity) {
        record.mean = (nf * record.mean + t) / (nf + 1.0f);
        record.delta = std::fabs(t - record.samples.back());
        record.samples.push_back(t);
    } else {
        record.mean =
            (nf * record.mean - record.samples.front() + t) / static_cast<float>(record.capacity);
        record.delta = std::fabs(t - record.samples.back());
        record.samples.push_back(t);
        record.samples.pop_front();
    }
    record.oldest = record.samples.front();
    record.newest = record.samples.back();
    const float quotient = (record.newest - record.mean) / record.mean;
    record.deviation = static_cast<float>(static_cast<double>(quotient) * 100.0);
}

void CPathfinder::CallBack_HeartBeat(std::vector<SDK_NV::tagHeartData>& beats) {
    for (const SDK_NV::tagHeartData& beat : beats) {
        tagDeviceThermalBalance copy;
        {
            std::lock_guard<std::mutex> lock(g_thermalMutex);
            copy = thermalRecords()[beat.name];
        }
        AddTemperature(copy, beat);
        {
            std::lock_guard<std::mutex> lock(g_thermalMutex);
            thermalRecords()[beat.name] = copy;
        }
        callDeviceTReply(copy.name, REPLY_THERMAL_BALANCE, &copy);

        tagDeviceInfo info;
        info.setSerial(beat.name);
        info.kind = beat.kind != 0 ? DEVICE_TYPE_SCANNER : DEVICE_TYPE_TRACKER;
        callDeviceState(STATE_HEARTBEAT, info, nullptr);
    }
}

}  // namespace device
