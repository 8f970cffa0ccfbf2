#include "device/TypeTransfer.h"

namespace device {

emDeviceResult TypeTransfer::barCalibErrorCodeTransfer(const int& code) {
    switch (code) {
        case 0:
            return RESULT_SUCCESS;
        case -1:
            return RESULT_BAR_CALIB_ERROR_1;
        case -2:
            return RESULT_BAR_CALIB_ERROR_2;
        case -3:
            return RESULT_BAR_CALIB_ERROR_3;
        case -4:
            return RESULT_BAR_CALIB_ERROR_4;
        case -5:
            return RESULT_BAR_CALIB_ERROR_5;
        case -6:
            return RESULT_BAR_CALIB_ERROR_6;
        case -7:
            return RESULT_BAR_CALIB_ERROR_7;
        case -8:
            return RESULT_BAR_CALIB_ERROR_8;
        default:
            return RESULT_FAILED;
    }
}

emDeviceResult TypeTransfer::laserCalibErrorCodeTransfer(const int& code) {
    switch (code) {
        case -2:
            return RESULT_LASER_CALIB_ERROR_1;
        case -1:
            return RESULT_LASER_CALIB_ERROR_2;
        case -3:
            return RESULT_LASER_CALIB_ERROR_3;
        default:
            return RESULT_FAILED;
    }
}

emDeviceResult TypeTransfer::scannerPositionCalibErrorCodeTransfer(const int& code) {
    switch (code) {
        case 0:
            return RESULT_SUCCESS;
        case -5:
            return RESULT_POSITION_CALIB_ERROR;
        default:
            return RESULT_FAILED;
    }
}

emDeviceResult TypeTransfer::trackMarkPointErrorCodeTransfer(const int& code) {
    switch (code) {
        case -1:
            return RESULT_TRACK_MARKPOINT_ERROR_1;
        case -2:
            return RESULT_TRACK_MARKPOINT_ERROR_2;
        default:
            return RESULT_FAILED;
    }
}

}  // namespace device
