// Behaviour of the generated messages on the wire: empty and unknown data, copies and merges.
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "lumora.pb.h"

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Reflection;
using google::protobuf::util::MessageDifferencer;

// Hand-made wire bytes, so that the tests do not depend on the encoder they check.
class Wire {
public:
    Wire& varint(uint64_t value) {
        while (value >= 0x80) {
            bytes_.push_back(static_cast<char>((value & 0x7f) | 0x80));
            value >>= 7;
        }
        bytes_.push_back(static_cast<char>(value));
        return *this;
    }
    Wire& tag(int number, int wireType) {
        return varint((static_cast<uint64_t>(number) << 3) | static_cast<uint64_t>(wireType));
    }
    Wire& varintField(int number, uint64_t value) { return tag(number, 0).varint(value); }
    Wire& bytesField(int number, const std::string& payload) {
        tag(number, 2).varint(payload.size());
        bytes_ += payload;
        return *this;
    }
    Wire& fixed32Field(int number, uint32_t value) {
        tag(number, 5);
        for (int i = 0; i < 4; ++i) {
            bytes_.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
        }
        return *this;
    }
    Wire& fixed64Field(int number, uint64_t value) {
        tag(number, 1);
        for (int i = 0; i < 8; ++i) {
            bytes_.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
        }
        return *this;
    }
    const std::string& str() const { return bytes_; }

private:
    std::string bytes_;
};

lumora::DeviceInfo fullDeviceInfo() {
    lumora::DeviceInfo info;
    info.set_id(std::string("TRK\0-07", 7));  // bytes: embedded zero must survive
    info.set_dtype(lumora::SCANNER);
    info.set_lzexposure(1.25);
    info.set_curlight(lumora::BLUE);
    info.set_mixedtype(lumora::M11111);
    info.add_errcodes(lumora::DEVICE_OFF);
    info.add_errcodes(lumora::BAR_CAL_ERR);
    info.set_fireware_version("4.2.17");
    lumora::PointInfo* view = info.add_view_points();
    view->set_x(-310.5);
    view->set_y(20.0);
    view->set_z(2800.0);
    info.add_view_points()->set_z(4500.0);
    info.set_scanperiod(16);
    info.set_spport("/dev/ttyS3");
    info.add_camsn("CAM-L-001");
    info.add_camsn("CAM-R-002");
    info.add_oricamsn("ORI-L-001");
    info.set_deviceip("192.168.10.21");
    info.set_trackertype(2);
    return info;
}

// True when every field of the message holds a non-default value.
bool everyFieldSet(const google::protobuf::Message& message) {
    const Reflection* reflection = message.GetReflection();
    const google::protobuf::Descriptor* descriptor = message.GetDescriptor();
    for (int i = 0; i < descriptor->field_count(); ++i) {
        const FieldDescriptor* field = descriptor->field(i);
        const bool set = field->is_repeated() ? reflection->FieldSize(message, field) > 0
                                              : reflection->HasField(message, field);
        if (!set) {
            return false;
        }
    }
    return true;
}

TEST(ErrorCodes, EmptyListRoundTripsAsEmpty) {
    lumora::DeviceInfo info;
    info.set_id("SCN-11");
    info.set_dtype(lumora::SCANNER);
    std::string bytes;
    ASSERT_TRUE(info.SerializeToString(&bytes));

    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.errcodes_size(), 0);
    EXPECT_EQ(parsed.id(), "SCN-11");
    EXPECT_EQ(parsed.dtype(), lumora::SCANNER);
}

TEST(ErrorCodes, ClearedListSerializesLikeNeverSetList) {
    lumora::DeviceInfo cleared = fullDeviceInfo();
    cleared.clear_errcodes();
    lumora::DeviceInfo never = fullDeviceInfo();
    never.mutable_errcodes()->Clear();
    EXPECT_EQ(cleared.SerializeAsString(), never.SerializeAsString());

    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(cleared.SerializeAsString()));
    EXPECT_EQ(parsed.errcodes_size(), 0);
    EXPECT_EQ(parsed.camsn_size(), 2);
}

TEST(ErrorCodes, EmptyPackedRecordOnTheWireParsesAsEmpty) {
    const std::string bytes = Wire().bytesField(1, "TRK-1").bytesField(7, "").str();
    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.errcodes_size(), 0);
    EXPECT_EQ(parsed.id(), "TRK-1");
}

TEST(ErrorCodes, PackedAndUnpackedCodesKeepOrderIncludingUnlistedValues) {
    // 133 DEVICE_OFF, 50 (no name), 158 BAR_CAL_ERR packed; then 9 RECOGQR_SUCC unpacked.
    const std::string packed = Wire().varint(133).varint(50).varint(158).str();
    const std::string bytes = Wire().bytesField(7, packed).varintField(7, 9).str();
    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    ASSERT_EQ(parsed.errcodes_size(), 4);
    EXPECT_EQ(parsed.errcodes(0), lumora::DEVICE_OFF);
    EXPECT_EQ(static_cast<int>(parsed.errcodes(1)), 50);
    EXPECT_EQ(parsed.errcodes(2), lumora::BAR_CAL_ERR);
    EXPECT_EQ(parsed.errcodes(3), lumora::RECOGQR_SUCC);
}

TEST(UnknownFields, DoNotStopParsingAndKnownFieldsSurvive) {
    const std::string bytes = Wire()
                                  .bytesField(1, "TRK-2")
                                  .varintField(6, 9)  // reserved number
                                  .varintField(15, 3)
                                  .bytesField(99, "future payload")
                                  .fixed32Field(200, 0xdeadbeef)
                                  .fixed64Field(201, 42)
                                  .varintField(10, 40)
                                  .str();
    lumora::DeviceInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.id(), "TRK-2");
    EXPECT_EQ(parsed.trackertype(), 3);
    EXPECT_EQ(parsed.scanperiod(), 40);
    EXPECT_EQ(parsed.GetReflection()->GetUnknownFields(parsed).field_count(), 4);

    // Kept unknown fields travel on when the message is forwarded.
    lumora::DeviceInfo forwarded;
    ASSERT_TRUE(forwarded.ParseFromString(parsed.SerializeAsString()));
    EXPECT_EQ(forwarded.GetReflection()->GetUnknownFields(forwarded).field_count(), 4);
    EXPECT_EQ(forwarded.scanperiod(), 40);
}

TEST(UnknownFields, InsideANestedMessageLeaveTheOuterMessageIntact) {
    const std::string scanner = Wire()
                                    .bytesField(1, "SCN-5")
                                    .varintField(4, 1)  // reserved number
                                    .varintField(7, 60)
                                    .bytesField(40, "x")
                                    .str();
    const std::string bytes =
        Wire().bytesField(1, "BDB-1").bytesField(7, scanner).varintField(5, 3).str();
    lumora::DiagnosticInfo parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.strbdbid(), "BDB-1");
    EXPECT_EQ(parsed.nserialportnum(), 3);
    ASSERT_EQ(parsed.scannerdiagnosticinfo_size(), 1);
    EXPECT_EQ(parsed.scannerdiagnosticinfo(0).strdeviceid(), "SCN-5");
    EXPECT_EQ(parsed.scannerdiagnosticinfo(0).ncamerasyncfps(), 60);
}

TEST(MalformedInput, LengthBeyondTheBufferIsRejected) {
    std::string bytes = Wire().bytesField(1, "TRK-3").tag(8, 2).varint(1000).str();
    bytes += "abc";
    lumora::DeviceInfo parsed;
    EXPECT_FALSE(parsed.ParseFromString(bytes));
}

TEST(MalformedInput, HugeDeclaredLengthIsRejected) {
    const std::string bytes = Wire().tag(9, 2).varint(0x7ffffff0u).str();
    lumora::DeviceInfo parsed;
    EXPECT_FALSE(parsed.ParseFromString(bytes));
}

TEST(DeviceInfoCopy, CopyKeepsEveryField) {
    const lumora::DeviceInfo original = fullDeviceInfo();
    ASSERT_TRUE(everyFieldSet(original));

    const lumora::DeviceInfo constructed(original);
    lumora::DeviceInfo assigned;
    assigned = original;
    const lumora::DeviceInfo* copies[] = {&constructed, &assigned};
    for (const lumora::DeviceInfo* copy : copies) {
        EXPECT_TRUE(everyFieldSet(*copy));
        EXPECT_TRUE(MessageDifferencer::Equals(*copy, original));
        EXPECT_EQ(copy->id().size(), 7u);
        EXPECT_EQ(copy->view_points(0).x(), -310.5);
    }
}

TEST(DeviceInfoCopy, CopyIsIndependentOfItsSource) {
    lumora::DeviceInfo original = fullDeviceInfo();
    lumora::DeviceInfo copy(original);
    copy.mutable_view_points(0)->set_x(1.0);
    copy.add_errcodes(lumora::BUG_ERROR);
    copy.set_fireware_version("changed");
    EXPECT_EQ(original.view_points(0).x(), -310.5);
    EXPECT_EQ(original.errcodes_size(), 2);
    EXPECT_EQ(original.fireware_version(), "4.2.17");
}

TEST(DeviceInfoMerge, MergeIntoEmptyKeepsEveryField) {
    const lumora::DeviceInfo source = fullDeviceInfo();
    lumora::DeviceInfo target;
    target.MergeFrom(source);
    EXPECT_TRUE(everyFieldSet(target));
    EXPECT_TRUE(MessageDifferencer::Equals(target, source));
}

TEST(DeviceInfoMerge, SingularFieldsOverwriteAndRepeatedFieldsAppend) {
    lumora::DeviceInfo target;
    target.set_id("OLD");
    target.set_deviceip("10.0.0.1");
    target.add_errcodes(lumora::CONFIG_ERR);
    target.add_camsn("CAM-OLD");

    lumora::DeviceInfo source = fullDeviceInfo();
    source.clear_deviceip();  // empty in the source: the target keeps its own
    target.MergeFrom(source);

    EXPECT_EQ(target.id(), source.id());
    EXPECT_EQ(target.deviceip(), "10.0.0.1");
    EXPECT_EQ(target.trackertype(), 2);
    ASSERT_EQ(target.errcodes_size(), 3);
    EXPECT_EQ(target.errcodes(0), lumora::CONFIG_ERR);
    EXPECT_EQ(target.errcodes(1), lumora::DEVICE_OFF);
    EXPECT_EQ(target.errcodes(2), lumora::BAR_CAL_ERR);
    ASSERT_EQ(target.camsn_size(), 3);
    EXPECT_EQ(target.camsn(0), "CAM-OLD");
    EXPECT_EQ(target.view_points_size(), 2);
}

TEST(CuttingEdgeData, PointsRoundTripWithTheirVectorsAndIndex) {
    lumora::DETECT_EDGE_POINTS_INFO edges;
    for (int i = 0; i < 3; ++i) {
        lumora::POITN_3D_EDGE* point = edges.add_point_3d_edge();
        point->mutable_center()->set_x(10.0f * static_cast<float>(i));
        point->mutable_normal_vector()->set_z(1.0f);
        point->mutable_extend_outward_vector()->set_y(-1.0f);
        point->set_index(100 + i);
    }
    lumora::DETECT_EDGE_POINTS_INFO parsed;
    ASSERT_TRUE(parsed.ParseFromString(edges.SerializeAsString()));
    ASSERT_EQ(parsed.point_3d_edge_size(), 3);
    EXPECT_EQ(parsed.point_3d_edge(2).center().x(), 20.0f);
    EXPECT_EQ(parsed.point_3d_edge(2).normal_vector().z(), 1.0f);
    EXPECT_EQ(parsed.point_3d_edge(2).extend_outward_vector().y(), -1.0f);
    EXPECT_EQ(parsed.point_3d_edge(2).index(), 102);
    EXPECT_TRUE(MessageDifferencer::Equals(parsed, edges));
}

}  // namespace
