// The host records' own operations (their byte layout is checked where they are declared).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "helmsman/DeviceTypes.h"

namespace {

using namespace device;

TEST(DeviceInfo, SerialFillsThirtyTwoBytesZeroPaddedAndListsHoldDefaultRecords) {
    tagDeviceInfo info;
    const std::string id(32, 'S');
    info.setSerial(id + "overflow");
    EXPECT_EQ(std::memcmp(info.serial, id.data(), 32), 0);
    EXPECT_EQ(info.description[0], '\0');  // nothing spilled into the next field
    EXPECT_EQ(info.serialText(), id);
    info.setSerial("T-01");  // over the older, longer one
    EXPECT_EQ(info.serialText(), "T-01");
    EXPECT_TRUE(std::all_of(info.serial + 4, info.serial + 32, [](char c) { return c == 0; }));

    tagDeviceInfoList list(3);
    ASSERT_EQ(list.count, 3);
    ASSERT_NE(list.infos, nullptr);
    EXPECT_EQ(list.infos[2].selectedIndex, -1);
    for (int n : {0, -5}) {
        tagDeviceInfoList none(n);
        EXPECT_EQ(none.count, 0);
        EXPECT_EQ(none.infos, nullptr);
    }
}

// Every member of the record, scalars by value and containers by size.
std::vector<double> summary(const tagDeviceData& d) {
    std::vector<double> s = {double(d.frameId),
                             double(d.percentage),
                             double(d.liveFrame),
                             double(d.trackingScanner),
                             double(d.acquisitionCode),
                             d.objectDistance,
                             double(d.poseMode),
                             double(d.timestampMs),
                             d.rotation[0],
                             d.rotation[8],
                             d.translation[2],
                             d.camera.leftIntrinsic[0][0],
                             d.camera.translation[0]};
    for (size_t n : {d.scanPoints.size(),      d.scanNormals.size(),      d.laserSegmentIds.size(),
                     d.laserPoints.size(),     d.laserDirections.size(),  d.laserPointCounts.size(),
                     d.markerIds.size(),       d.markerPoints.size(),     d.markerNormals.size(),
                     d.markerDiameters.size(), d.edgePoints.size(),       d.edgeNormals.size(),
                     d.laserLines.size(),      d.camera.essential.size(), d.camera.images.size(),
                     d.holes.size(),           d.cameraImages.size(),     d.lookMarkpoints.size(),
                     d.cuttingEdges.size(),    d.trackingMatrices.size(), d.scanHoles.size(),
                     d.edgeRecords.size()}) {
        s.push_back(double(n));
    }
    return s;
}

TEST(DeviceData, ClearReturnsAFilledRecordToItsConstructedState) {
    const std::vector<double> fresh = summary(tagDeviceData());
    tagDeviceData d;
    d.frameId = d.percentage = 17;
    d.liveFrame = d.trackingScanner = true;
    d.acquisitionCode = 2;
    d.objectDistance = 312.5f;
    d.poseMode = 3;
    d.timestampMs = 123456;
    d.rotation[0] = d.rotation[8] = d.translation[2] = 7.0;
    d.camera.leftIntrinsic[0][0] = d.camera.translation[0] = 2400.0;
    d.scanPoints = d.scanNormals = d.laserPoints = d.laserDirections = d.edgePoints =
        d.edgeNormals = {1, 2, 3};
    d.laserSegmentIds = d.laserPointCounts = d.markerIds = {4};
    d.markerPoints = d.markerNormals = d.markerDiameters = d.camera.essential = {1, 2, 3};
    d.laserLines.resize(2);
    d.camera.images.resize(1);
    d.holes.resize(1);
    d.cameraImages.resize(1);
    d.lookMarkpoints.resize(1);
    d.cuttingEdges.resize(1);
    d.trackingMatrices.resize(1);
    d.scanHoles.resize(1);
    d.edgeRecords.resize(1);
    const std::vector<double> filled = summary(d);
    for (size_t i = 0; i < fresh.size(); ++i) {
        ASSERT_NE(filled[i], fresh[i]) << "member " << i << " not filled";
    }
    d.clear();
    EXPECT_EQ(summary(d), fresh);
}

}  // namespace
