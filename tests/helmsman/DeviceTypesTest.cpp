// The host records' own operations (their byte layout is checked where they are declared).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

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

}  // namespace
