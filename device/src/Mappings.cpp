#include "Mappings.h"

#include <cmath>

namespace device {
namespace detail {

emDeviceButton buttonFromCode(int code) {
    switch (code) {
        case 49:
            return BUTTON_MAIN;
        case 51:
            return BUTTON_FIRST;
        case 53:
            return BUTTON_SECOND;
        case 55:
            return BUTTON_THIRD;
        default:
            return BUTTON_NONE;
    }
}

emDeviceButtonAction buttonActionFromCode(int action) {
    switch (action) {
        case 0:
            return BUTTON_ACTION_CLICK;
        case 1:
            return BUTTON_ACTION_DOUBLE_CLICK;
        case 2:
            return BUTTON_ACTION_LONG_PRESS;
        default:
            return BUTTON_ACTION_NONE;
    }
}

ScanObjectPlan planScanObject(emScanObject object, bool dynamic, bool superConversion) {
    ScanObjectPlan plan;
    plan.needEdgePoint = object == SCAN_OBJECT_SURFACE_EDGE;
    const ScanObjectPlan::Command scan =
        dynamic ? ScanObjectPlan::DynamicScan : ScanObjectPlan::StartScan;
    switch (object) {
        case SCAN_OBJECT_MARKPOINT:
            plan.markerObject = 1;
            if (dynamic) {
                plan.dynamicMarker = 1;
                plan.command = scan;
                plan.argument = 0;
            } else if (superConversion) {
                plan.command = ScanObjectPlan::WorkBusiness;
                plan.argument = 25;
            } else {
                plan.command = scan;
                plan.argument = 0;
            }
            break;
        case SCAN_OBJECT_SURFACE:
            plan.objectScan = true;
            plan.command = scan;
            plan.argument = 1;
            break;
        case SCAN_OBJECT_METAL_HOLE:
            plan.holeObject = true;
            plan.command = scan;
            plan.argument = 2;
            break;
        case SCAN_OBJECT_RIVET_HOLE:
            plan.holeObject = true;
            plan.command = scan;
            plan.argument = 3;
            break;
        case SCAN_OBJECT_SURFACE_EDGE:
            plan.edgePoints = true;
            plan.objectScan = true;
            plan.command = scan;
            plan.argument = 1;
            break;
        case SCAN_OBJECT_EDGE:
            plan.businessObject = true;
            plan.command = ScanObjectPlan::WorkBusiness;
            plan.argument = dynamic ? 31 : 30;
            break;
        default:
            break;
    }
    return plan;
}

bool laserTypeArguments(emDeviceLaserType type, int32_t& laser, int32_t& light) {
    light = 0;
    switch (type) {
        case LASER_TYPE_RED_SINGLE:
            laser = 0;
            return true;
        case LASER_TYPE_RED_MULTI:
            laser = 1;
            return true;
        case LASER_TYPE_BLUE_SINGLE:
            laser = 2;
            return true;
        default:
            return false;
    }
}

bool exposureInRange(float value, float max) {
    return value >= 0.0f && value <= max;  // false for NaN
}

emDeviceResult grabResultFromState(int32_t state) {
    if (state == 0) {
        return RESULT_SUCCESS;
    }
    if (state == -1) {
        return RESULT_FAILED;
    }
    return RESULT_GRAB_FRAME_FAILED;
}

emDeviceResult calibraResultCode(float result) {
    return result >= 0.0f ? RESULT_SUCCESS : RESULT_CALIB_NEGATIVE;
}

}  // namespace detail
}  // namespace device
