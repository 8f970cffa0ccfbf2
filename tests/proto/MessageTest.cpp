// The schema on the wire where peers differ: empty error lists and fields this build lacks.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "lumora.pb.h"

namespace {

// Hand-made wire bytes, so that the tests do not depend on the encoder they check.
class Wire {
public:
    Wire& varint(uint64_t value) {
        for (; value >= 0x80; value >>= 7) {
            bytes_.push_back(static_cast<char>((value & 0x7f) | 0x80));
        }
        bytes_.push_back(static_cast<char>(value));
        return *this;
    }
    Wire& varintField(int number, uint64_t value) {
        return varint(static_cast<uint64_t>(number) << 3).varint(value);
    }
    Wire& bytesField(int number, const std::string& payload) {
        varint((static_cast<uint64_t>(number) << 3) | 2).varint(payload.size());
        bytes_ += payload;
        return *this;
    }
    const std::string& str() const { return bytes_; }

private:
    std::string bytes_;
};

TEST(ErrorCodes, AnEmptyListRoundTripsAndAnEmptyPackedRecordParsesAsEmpty) {
    lumora::DeviceInfo info;
    info.set_id("SCN-11");
    info.set_dtype(lumora::SCANNER);
    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(info.SerializeAsString()));
    EXPECT_EQ(parsed.errcodes_size(), 0);
    EXPECT_EQ(parsed.id(), "SCN-11");
    EXPECT_EQ(parsed.dtype(), lumora::SCANNER);

    // Another writer may send the packed record with length zero.
    ASSERT_TRUE(parsed.ParseFromString(Wire().bytesField(1, "TRK-1").bytesField(7, "").str()));
    EXPECT_EQ(parsed.errcodes_size(), 0);
    EXPECT_EQ(parsed.id(), "TRK-1");
}

TEST(UnknownFields, DoNotStopParsingAndTravelOnWhenForwarded) {
    const std::string bytes = Wire()
                                  .bytesField(1, "TRK-2")
                                  .varintField(6, 9)  // reserved number
                                  .varintField(15, 3)
                                  .bytesField(99, "future payload")
                                  .varintField(10, 40)
                                  .str();
    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.id(), "TRK-2");
    EXPECT_EQ(parsed.trackertype(), 3);
    EXPECT_EQ(parsed.scanperiod(), 40);

    lumora::DeviceInfo forwarded;
    ASSERT_TRUE(forwarded.ParseFromString(parsed.SerializeAsString()));
    EXPECT_EQ(forwarded.GetReflection()->GetUnknownFields(forwarded).field_count(), 2);
    EXPECT_EQ(forwarded.scanperiod(), 40);
}

}  // namespace
