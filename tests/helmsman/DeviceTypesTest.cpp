#include <gtest/gtest.h>

#include <cstring>
#include <string>

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
    for (size_t i = 0; i < n; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// tagDeviceInfo
// ---------------------------------------------------------------------------------------------

TEST(DeviceInfoDefaults, IsAScannerInStateZero) {
    const tagDeviceInfo info;
    EXPECT_EQ(info.kind, 1);
    EXPECT_EQ(info.state, 0);
    EXPECT_EQ(info.model, 0);
    EXPECT_TRUE(allZero(info.serial, sizeof(info.serial)));
    EXPECT_TRUE(allZero(info.description, sizeof(info.description)));
    EXPECT_TRUE(info.aliases.empty());
    EXPECT_TRUE(info.attributes.empty());
}

// The host reads the record byte for byte: each default must sit at its byte position.
TEST(DeviceInfoDefaults, SitAtTheHostsByteOffsets) {
    const tagDeviceInfo info;
    EXPECT_EQ(readAt<int32_t>(&info, 96), 0);
    EXPECT_EQ(readAt<int32_t>(&info, 100), 0);  // state
    EXPECT_EQ(readAt<int32_t>(&info, 104), 1);  // kind
    EXPECT_EQ(readAt<int32_t>(&info, 108), 2);  // second kind field
    EXPECT_EQ(readAt<uint32_t>(&info, 112), 0u);
    EXPECT_EQ(readAt<int32_t>(&info, 116), 0);
    const unsigned char features[4] = {0, 0, 0, 1};
    const unsigned char switches[4] = {1, 1, 0, 0};
    EXPECT_EQ(std::memcmp(reinterpret_cast<const unsigned char*>(&info) + 120, features, 4), 0);
    EXPECT_EQ(std::memcmp(reinterpret_cast<const unsigned char*>(&info) + 124, switches, 4), 0);
    EXPECT_EQ(readAt<uint64_t>(&info, 128), 0u);
    EXPECT_EQ(readAt<uint64_t>(&info, 136), 0u);
    EXPECT_EQ(readAt<double>(&info, 144), 1.0);  // scale
#if defined(__x86_64__) && defined(__linux__)
    EXPECT_EQ(readAt<double>(&info, 200 + 16), 0.0);
    EXPECT_TRUE(allZero(reinterpret_cast<const unsigned char*>(&info) + 248, 32));
    EXPECT_TRUE(allZero(reinterpret_cast<const unsigned char*>(&info) + 280, 32));
    EXPECT_EQ(readAt<int32_t>(&info, 312), 0);
    EXPECT_EQ(readAt<int32_t>(&info, 316), -1);
    EXPECT_EQ(readAt<int32_t>(&info, 320), 0);
    EXPECT_EQ(readAt<float>(&info, 324), 1.0f);
    EXPECT_EQ(readAt<float>(&info, 328), 0.5f);
    EXPECT_EQ(readAt<int32_t>(&info, 332), 0);  // model
#endif
}

TEST(DeviceInfoSerial, A32CharacterIdFillsTheFieldWithoutTerminator) {
    tagDeviceInfo info;
    const std::string id(32, 'S');
    info.setSerial(id + "overflow");
    EXPECT_EQ(std::memcmp(info.serial, id.data(), 32), 0);
    EXPECT_EQ(info.description[0], '\0');  // nothing spilled into the next field
    EXPECT_EQ(info.serialText(), id);
}

TEST(DeviceInfoSerial, AShortIdIsZeroPaddedOverAnOlderOne) {
    tagDeviceInfo info;
    info.setSerial(std::string(32, 'x'));
    info.setSerial("T-01");
    EXPECT_EQ(info.serialText(), "T-01");
    EXPECT_TRUE(allZero(info.serial + 4, 28));
}

TEST(DeviceInfoList, HoldsCountDefaultRecords) {
    tagDeviceInfoList list(3);
    ASSERT_EQ(list.count, 3);
    ASSERT_NE(list.infos, nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(list.infos[i].kind, 1);
        EXPECT_EQ(list.infos[i].selectedIndex, -1);
    }
}

TEST(DeviceInfoList, ZeroOrNegativeCountGivesAnEmptyList) {
    tagDeviceInfoList none(0);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.infos, nullptr);
    tagDeviceInfoList negative(-5);
    EXPECT_EQ(negative.count, 0);
    EXPECT_EQ(negative.infos, nullptr);
}

// ---------------------------------------------------------------------------------------------
// tagDeviceData
// ---------------------------------------------------------------------------------------------

void fillEverything(tagDeviceData& d) {
    d.frameId = 17;
    d.percentage = 100;
    d.liveFrame = true;
    d.trackingScanner = true;
    d.acquisitionCode = 2;
    d.objectDistance = 312.5f;
    d.poseMode = 3;
    d.timestampMs = 123456;
    for (int i = 0; i < 9; ++i) {
        d.rotation[i] = i + 1.0;
    }
    d.translation[0] = d.translation[1] = d.translation[2] = 7.0;
    d.scanPoints = {1, 2, 3};
    d.scanNormals = {0, 0, 1};
    d.laserSegmentIds = {4};
    d.laserPoints = {1, 2, 3};
    d.laserDirections = {0, 1, 0};
    d.laserPointCounts = {1};
    d.markerIds = {5};
    d.markerPoints = {1, 2, 3};
    d.markerNormals = {0, 0, 1};
    d.markerDiameters = {3.0};
    d.edgePoints = {1, 1, 1};
    d.edgeNormals = {1, 0, 0};
    d.laserLines.resize(2);
    d.camera.leftIntrinsic[0][0] = 2400.0;
    d.camera.translation[0] = -100.0;
    d.camera.essential = {1, 2, 3};
    d.camera.images.resize(1);
    d.holes.resize(1);
    d.cameraImages.resize(1);
    d.lookMarkpoints.resize(1);
    d.cuttingEdges.resize(1);
    d.trackingMatrices.resize(1);
    d.scanHoles.resize(1);
    d.edgeRecords.resize(1);
}

void expectConstructedState(const tagDeviceData& d) {
    EXPECT_EQ(d.frameId, 0);
    EXPECT_EQ(d.percentage, 0);
    EXPECT_FALSE(d.liveFrame);
    EXPECT_FALSE(d.trackingScanner);
    EXPECT_EQ(d.acquisitionCode, 0);
    EXPECT_EQ(d.objectDistance, 0.0f);
    EXPECT_EQ(d.poseMode, 2);
    EXPECT_EQ(d.timestampMs, 0);
    for (double v : d.rotation) {
        EXPECT_EQ(v, 0.0);
    }
    for (double v : d.translation) {
        EXPECT_EQ(v, 0.0);
    }
    EXPECT_TRUE(d.scanPoints.empty());
    EXPECT_TRUE(d.scanNormals.empty());
    EXPECT_TRUE(d.laserSegmentIds.empty());
    EXPECT_TRUE(d.laserPoints.empty());
    EXPECT_TRUE(d.laserDirections.empty());
    EXPECT_TRUE(d.laserPointCounts.empty());
    EXPECT_TRUE(d.markerIds.empty());
    EXPECT_TRUE(d.markerPoints.empty());
    EXPECT_TRUE(d.markerNormals.empty());
    EXPECT_TRUE(d.markerDiameters.empty());
    EXPECT_TRUE(d.edgePoints.empty());
    EXPECT_TRUE(d.edgeNormals.empty());
    EXPECT_TRUE(d.laserLines.empty());
    EXPECT_EQ(d.camera.leftIntrinsic[0][0], 0.0);
    EXPECT_EQ(d.camera.translation[0], 0.0);
    EXPECT_TRUE(d.camera.essential.empty());
    EXPECT_TRUE(d.camera.images.empty());
    EXPECT_TRUE(d.holes.empty());
    EXPECT_TRUE(d.cameraImages.empty());
    EXPECT_TRUE(d.lookMarkpoints.empty());
    EXPECT_TRUE(d.cuttingEdges.empty());
    EXPECT_TRUE(d.trackingMatrices.empty());
    EXPECT_TRUE(d.scanHoles.empty());
    EXPECT_TRUE(d.edgeRecords.empty());
}

TEST(DeviceData, ConstructsZeroedWithPoseModeTwo) {
    const tagDeviceData d;
    expectConstructedState(d);
}

TEST(DeviceData, ClearReturnsAFilledRecordToItsConstructedState) {
    tagDeviceData d;
    fillEverything(d);
    d.clear();
    expectConstructedState(d);
}

// ---------------------------------------------------------------------------------------------
// Other records
// ---------------------------------------------------------------------------------------------

TEST(ThermalBalanceDefaults, StartWithNoKindAndCapacity120) {
    const tagDeviceThermalBalance t;
    EXPECT_EQ(t.kind, -1);
    EXPECT_EQ(t.capacity, 120u);
    EXPECT_TRUE(t.samples.empty());
    EXPECT_EQ(t.mean, 0.0f);
    EXPECT_EQ(t.deviation, 0.0f);
}

TEST(TransformTrackingMatrixDefaults, IsTheIdentity) {
    const TransformTrackingMatrix m;
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(m.matrix[i], (i % 5 == 0) ? 1.0 : 0.0) << "element " << i;
    }
}

TEST(RefMarkpointData, CountsPointsByLabelsAndClearsAllArrays) {
    tagRefMarkpointData set;
    set.positions = {1, 2, 3, 4, 5, 6};
    set.normals = {0, 0, 1, 0, 0, 1};
    set.values = {1.5, 2.5};
    set.labels = {7, 8};
    EXPECT_EQ(set.size(), 2u);
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_TRUE(set.positions.empty());
    EXPECT_TRUE(set.normals.empty());
    EXPECT_TRUE(set.values.empty());
}

}  // namespace
