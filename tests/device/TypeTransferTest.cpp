#include <gtest/gtest.h>

#include "device/TypeTransfer.h"

namespace {

using device::emDeviceResult;
using device::TypeTransfer;

// Codes around every table, far outside it and at the int limits.
const int kProbeCodes[] = {
    -2147483647 - 1, -1000, -10, -9, -8, -7, -6, -5, -4, -3, -2, -1, 0, 1, 2, 5, 8, 201,
    2147483647};

TEST(BarCalibErrorCode, ZeroIsSuccess) {
    EXPECT_EQ(TypeTransfer::barCalibErrorCodeTransfer(0), 0);
}

TEST(BarCalibErrorCode, NegativeCodesCountUpFrom201) {
    for (int code = -1; code >= -8; --code) {
        EXPECT_EQ(TypeTransfer::barCalibErrorCodeTransfer(code), 200 - code) << "code " << code;
    }
}

TEST(BarCalibErrorCode, CodesOutsideTheTableFail) {
    EXPECT_EQ(TypeTransfer::barCalibErrorCodeTransfer(-9), 1);
    EXPECT_EQ(TypeTransfer::barCalibErrorCodeTransfer(1), 1);
    EXPECT_EQ(TypeTransfer::barCalibErrorCodeTransfer(-2147483647 - 1), 1);
    EXPECT_EQ(TypeTransfer::barCalibErrorCodeTransfer(2147483647), 1);
}

TEST(LaserCalibErrorCode, MapsTheThreeDeviceCodesOutOfOrder) {
    EXPECT_EQ(TypeTransfer::laserCalibErrorCodeTransfer(-2), 301);
    EXPECT_EQ(TypeTransfer::laserCalibErrorCodeTransfer(-1), 302);
    EXPECT_EQ(TypeTransfer::laserCalibErrorCodeTransfer(-3), 303);
}

TEST(LaserCalibErrorCode, ZeroAndOtherCodesFail) {
    EXPECT_EQ(TypeTransfer::laserCalibErrorCodeTransfer(0), 1);
    EXPECT_EQ(TypeTransfer::laserCalibErrorCodeTransfer(-4), 1);
    EXPECT_EQ(TypeTransfer::laserCalibErrorCodeTransfer(1), 1);
}

TEST(ScannerPositionCalibErrorCode, MapsSuccessAndItsOneError) {
    EXPECT_EQ(TypeTransfer::scannerPositionCalibErrorCodeTransfer(0), 0);
    EXPECT_EQ(TypeTransfer::scannerPositionCalibErrorCodeTransfer(-5), 401);
}

TEST(ScannerPositionCalibErrorCode, OtherCodesFail) {
    for (int code : {-6, -4, -1, 1, 5}) {
        EXPECT_EQ(TypeTransfer::scannerPositionCalibErrorCodeTransfer(code), 1) << code;
    }
}

TEST(TrackMarkPointErrorCode, MapsToTheTwoTrackingErrorsWithTheirGap) {
    EXPECT_EQ(TypeTransfer::trackMarkPointErrorCodeTransfer(-1), 504);
    EXPECT_EQ(TypeTransfer::trackMarkPointErrorCodeTransfer(-2), 507);
}

TEST(TrackMarkPointErrorCode, OtherCodesFail) {
    for (int code : {-3, 0, 1, -504}) {
        EXPECT_EQ(TypeTransfer::trackMarkPointErrorCodeTransfer(code), 1) << code;
    }
}

// Whatever the code, each mapper answers one of its own table's results or failure, so the
// host never sees a result another mapper owns (or an undefined value).
TEST(ErrorCodeMappers, AnswerOnlyTheirOwnResultsOrFailure) {
    auto inRange = [](emDeviceResult r, int lo, int hi) { return r >= lo && r <= hi; };
    for (int code : kProbeCodes) {
        const emDeviceResult bar = TypeTransfer::barCalibErrorCodeTransfer(code);
        EXPECT_TRUE(bar == 0 || bar == 1 || inRange(bar, 201, 208)) << code;
        const emDeviceResult laser = TypeTransfer::laserCalibErrorCodeTransfer(code);
        EXPECT_TRUE(laser == 1 || inRange(laser, 301, 303)) << code;
        const emDeviceResult position = TypeTransfer::scannerPositionCalibErrorCodeTransfer(code);
        EXPECT_TRUE(position == 0 || position == 1 || position == 401) << code;
        const emDeviceResult track = TypeTransfer::trackMarkPointErrorCodeTransfer(code);
        EXPECT_TRUE(track == 1 || track == 504 || track == 507) << code;
    }
}

}  // namespace
