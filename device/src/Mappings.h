// Pure translations between host values and SDK values used by the device object.
#pragma once

#include <cstdint>

#include "helmsman/DeviceTypes.h"

namespace device {
namespace detail {

// SDK button codes 49, 51, 53, 55 become buttons 5, 0, 1, 2; any other code BUTTON_NONE.
emDeviceButton buttonFromCode(int code);
// SDK actions 0, 1, 2 pass through; any other action BUTTON_ACTION_NONE.
emDeviceButtonAction buttonActionFromCode(int action);

// What selecting a scan object does: the mode flags it sets and the one SDK command that
// follows the trigger-off and edge-point commands.
struct ScanObjectPlan {
    enum Command { None, StartScan, DynamicScan, WorkBusiness };
    int32_t dynamicMarker = 0;
    bool objectScan = false;
    int32_t markerObject = 0;
    bool holeObject = false;
    bool edgePoints = false;
    bool businessObject = false;
    bool needEdgePoint = false;  // argument of setIsNeedEdgePoint
    Command command = None;
    int32_t argument = 0;  // scan object or work business of the command
};
// `dynamic`: setDynamicTracking instead of setScanObject. `superConversion`: marker scanning
// becomes work business 25 instead of a marker scan (setScanObject only).
ScanObjectPlan planScanObject(emScanObject object, bool dynamic, bool superConversion);

// Laser type and light type for setLaserType; false when the host's laser type sends nothing.
bool laserTypeArguments(emDeviceLaserType type, int32_t& laser, int32_t& light);

// True when `value` lies in [0, max]; NaN is out of range.
bool exposureInRange(float value, float max);

// Result of a single-frame grab from the state of its response: 0 -> 0, -1 -> 1, else 209.
emDeviceResult grabResultFromState(int32_t state);

// Result of getCalibraResult for an answered calibration result: 0 when >= 0, else 9 (NaN too).
emDeviceResult calibraResultCode(float result);

}  // namespace detail
}  // namespace device
