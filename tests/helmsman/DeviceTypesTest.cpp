#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "helmsman/DeviceTypes.h"

namespace {

using namespace device;

template <class T>
T readAt(const void* record, size_t offset) {
    T value;
    std::memcpy(&value, static_cast<const unsigned char*>(record) + offset, sizeof(T));
    return value;
}

bool allZero(const void* p, size_t n) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    return std::all_of(bytes, bytes + n, [](unsigned char b) { return b == 0; });
}

// The host reads the record byte for byte: each default must sit at its byte position.
TEST(DeviceInfoDefaults, AScannerInStateZeroWithEveryDefaultAtTheHostsByteOffset) {
    const tagDeviceInfo info;
    EXPECT_EQ(info.kind, 1);
    EXPECT_EQ(info.state, 0);
    EXPECT_TRUE(allZero(info.serial, sizeof(info.serial) + sizeof(info.description)));
    EXPECT_TRUE(info.aliases.empty() && info.attributes.empty());

    const auto* bytes = reinterpret_cast<const unsigned char*>(&info);
    const unsigned char features[4] = {0, 0, 0, 1};
    const unsigned char switches[4] = {1, 1, 0, 0};
    EXPECT_EQ(std::memcmp(bytes + 120, features, 4), 0);
    EXPECT_EQ(std::memcmp(bytes + 124, switches, 4), 0);
    EXPECT_TRUE(allZero(bytes + 96, 4));        // index
    EXPECT_EQ(readAt<int32_t>(bytes, 100), 0);  // state
    EXPECT_EQ(readAt<int32_t>(bytes, 104), 1);  // kind
    EXPECT_EQ(readAt<int32_t>(bytes, 108), 2);  // second kind field
    EXPECT_TRUE(allZero(bytes + 112, 8));
    EXPECT_TRUE(allZero(bytes + 128, 16));
    EXPECT_EQ(readAt<double>(bytes, 144), 1.0);  // scale
#if defined(__x86_64__) && defined(__linux__)
    EXPECT_EQ(readAt<double>(bytes, 216), 0.0);
    EXPECT_TRUE(allZero(bytes + 248, 64));
    EXPECT_EQ(readAt<int32_t>(bytes, 312), 0);
    EXPECT_EQ(readAt<int32_t>(bytes, 316), -1);
    EXPECT_EQ(readAt<int32_t>(bytes, 320), 0);
    EXPECT_EQ(readAt<float>(bytes, 324), 1.0f);
    EXPECT_EQ(readAt<float>(bytes, 328), 0.5f);
    EXPECT_EQ(readAt<int32_t>(bytes, 332), 0);  // model
#endif
}

TEST(DeviceInfoSerial, FillsThirtyTwoBytesZeroPaddedWithoutSpilling) {
    tagDeviceInfo info;
    const std::string id(32, 'S');
    info.setSerial(id + "overflow");
    EXPECT_EQ(std::memcmp(info.serial, id.data(), 32), 0);
    EXPECT_EQ(info.description[0], '\0');  // nothing spilled into the next field
    EXPECT_EQ(info.serialText(), id);
    info.setSerial("T-01");  // over the older, longer one
    EXPECT_EQ(info.serialText(), "T-01");
    EXPECT_TRUE(allZero(info.serial + 4, 28));
}

TEST(DeviceInfoList, HoldsCountDefaultRecordsAndNoneForANonPositiveCount) {
    tagDeviceInfoList list(3);
    ASSERT_EQ(list.count, 3);
    ASSERT_NE(list.infos, nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(list.infos[i].kind, 1);
        EXPECT_EQ(list.infos[i].selectedIndex, -1);
    }
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

TEST(DeviceData, ClearReturnsAFilledRecordToItsZeroedConstructedState) {
    const std::vector<double> fresh = summary(tagDeviceData());
    EXPECT_EQ(fresh[6], 2.0);  // the pose mode
    EXPECT_EQ(std::count(fresh.begin(), fresh.end(), 0.0), static_cast<long>(fresh.size()) - 1);

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

TEST(OtherRecords, IdentityTransformAndMarkerSetClearing) {
    const TransformTrackingMatrix m;
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(m.matrix[i], (i % 5 == 0) ? 1.0 : 0.0) << "element " << i;
    }

    tagRefMarkpointData set;
    set.positions = {1, 2, 3, 4, 5, 6};
    set.normals = {0, 0, 1, 0, 0, 1};
    set.values = {1.5, 2.5};
    set.labels = {7, 8};
    EXPECT_EQ(set.size(), 2u);
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_TRUE(set.positions.empty() && set.normals.empty() && set.values.empty());
}

}  // namespace
