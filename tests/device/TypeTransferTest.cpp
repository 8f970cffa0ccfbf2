#include <gtest/gtest.h>

#include <map>

#include "device/TypeTransfer.h"

namespace {

using device::emDeviceResult;
using device::TypeTransfer;

using Mapper = emDeviceResult (*)(const int&);

// Every code of a table, its neighbours and the int limits: codes outside the table fail (1).
void expectTable(Mapper map, const std::map<int, int>& table) {
    for (int code : {-2147483647 - 1, -1000, -10, -9, -8, -7, -6, -5, -4, -3, -2, -1, 0, 1, 2, 5,
                     201, 2147483647}) {
        const auto it = table.find(code);
        EXPECT_EQ(map(code), it != table.end() ? it->second : 1) << "code " << code;
    }
}

TEST(ErrorCodeMappers, BarCalibrationCountsUpFrom201) {
    expectTable(&TypeTransfer::barCalibErrorCodeTransfer, {{0, 0},
                                                           {-1, 201},
                                                           {-2, 202},
                                                           {-3, 203},
                                                           {-4, 204},
                                                           {-5, 205},
                                                           {-6, 206},
                                                           {-7, 207},
                                                           {-8, 208}});
}

TEST(ErrorCodeMappers, LaserCalibrationMapsThreeCodesOutOfOrderAndZeroFails) {
    expectTable(&TypeTransfer::laserCalibErrorCodeTransfer, {{-2, 301}, {-1, 302}, {-3, 303}});
}

TEST(ErrorCodeMappers, ScannerPositionHasOneError) {
    expectTable(&TypeTransfer::scannerPositionCalibErrorCodeTransfer, {{0, 0}, {-5, 401}});
}

TEST(ErrorCodeMappers, MarkerTrackingHasTwoErrorsWithAGap) {
    expectTable(&TypeTransfer::trackMarkPointErrorCodeTransfer, {{-1, 504}, {-2, 507}});
}

}  // namespace
