// Maps the calibration and tracking error codes of the device SDK to host results.
#pragma once

#include "device/Export.h"
#include "helmsman/DeviceTypes.h"

namespace device {

class PATHFINDER_API TypeTransfer {
public:
    // Every mapper answers RESULT_FAILED (1) for a code it does not know.

    // Tracker-bar calibration: 0 -> 0, -1 .. -8 -> 201 .. 208.
    static emDeviceResult barCalibErrorCodeTransfer(const int& code);
    // Laser calibration: -2 -> 301, -1 -> 302, -3 -> 303 (0 is not a laser result).
    static emDeviceResult laserCalibErrorCodeTransfer(const int& code);
    // Scanner position calibration: 0 -> 0, -5 -> 401.
    static emDeviceResult scannerPositionCalibErrorCodeTransfer(const int& code);
    // Marker tracking: -1 -> 504, -2 -> 507.
    static emDeviceResult trackMarkPointErrorCodeTransfer(const int& code);
};

}  // namespace device
