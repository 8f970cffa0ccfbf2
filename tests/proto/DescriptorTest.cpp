// The compiled schema, as the generated descriptor pool sees it, against the expected table.
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "SchemaTable.h"
#include "lumora.pb.h"

namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::EnumDescriptor;
using google::protobuf::EnumValueDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

const DescriptorPool* pool() {
    // Touching a generated class guarantees that the schema's object file is linked in and
    // its descriptor registered before the pool is searched by name.
    (void)lumora::DeviceInfo::descriptor();
    return DescriptorPool::generated_pool();
}

const FileDescriptor* schemaFile() {
    return pool()->FindFileByName("lumora.proto");
}

std::string qualified(const std::string& name) {
    return "lumora." + name;
}

// The type of a field as the table writes it: a scalar keyword or a schema type name.
std::string typeName(const FieldDescriptor* field) {
    switch (field->type()) {
        case FieldDescriptor::TYPE_MESSAGE:
            return field->message_type()->name();
        case FieldDescriptor::TYPE_ENUM:
            return field->enum_type()->name();
        default:
            return FieldDescriptor::TypeName(field->type());
    }
}

// Table row names in first-appearance order, with how many rows each has.
template <typename Row, typename Key>
std::vector<std::pair<std::string, int>> groupInOrder(const Row* rows, size_t count, Key key) {
    std::vector<std::pair<std::string, int>> groups;
    for (size_t i = 0; i < count; ++i) {
        const std::string name = key(rows[i]);
        if (groups.empty() || groups.back().first != name) {
            groups.emplace_back(name, 0);
        }
        ++groups.back().second;
    }
    return groups;
}

std::vector<std::pair<std::string, int>> expectedMessages() {
    return groupInOrder(schema_table::kFields, std::size(schema_table::kFields),
                        [](const schema_table::FieldRow& r) { return r.message; });
}

std::vector<std::pair<std::string, int>> expectedEnums() {
    return groupInOrder(schema_table::kEnumValues, std::size(schema_table::kEnumValues),
                        [](const schema_table::EnumValueRow& r) { return r.enumeration; });
}

TEST(SchemaFile, IsProto3PackageLumoraWithoutImportsOrServices) {
    const FileDescriptor* file = schemaFile();
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->syntax(), FileDescriptor::SYNTAX_PROTO3);
    EXPECT_EQ(file->package(), "lumora");
    EXPECT_EQ(file->dependency_count(), 0);
    EXPECT_EQ(file->service_count(), 0);
    EXPECT_EQ(file->extension_count(), 0);
}

TEST(SchemaFile, DeclaresExactlyTheListedMessagesInOrder) {
    const FileDescriptor* file = schemaFile();
    ASSERT_NE(file, nullptr);
    const auto expected = expectedMessages();
    ASSERT_EQ(file->message_type_count(), static_cast<int>(expected.size()));
    for (int i = 0; i < file->message_type_count(); ++i) {
        EXPECT_EQ(file->message_type(i)->name(), expected[i].first) << "position " << i;
    }
}

TEST(SchemaFile, DeclaresExactlyTheListedEnumerationsInOrder) {
    const FileDescriptor* file = schemaFile();
    ASSERT_NE(file, nullptr);
    const auto expected = expectedEnums();
    ASSERT_EQ(file->enum_type_count(), static_cast<int>(expected.size()));
    for (int i = 0; i < file->enum_type_count(); ++i) {
        EXPECT_EQ(file->enum_type(i)->name(), expected[i].first) << "position " << i;
    }
}

TEST(SchemaMessages, EveryListedFieldHasItsNumberTypeAndLabel) {
    for (const auto& row : schema_table::kFields) {
        SCOPED_TRACE(std::string(row.message) + "." + row.field);
        const Descriptor* message = pool()->FindMessageTypeByName(qualified(row.message));
        ASSERT_NE(message, nullptr);
        const FieldDescriptor* field = message->FindFieldByName(row.field);
        ASSERT_NE(field, nullptr);
        EXPECT_EQ(field->number(), row.number);
        EXPECT_EQ(message->FindFieldByNumber(row.number), field);
        EXPECT_EQ(typeName(field), row.type);
        EXPECT_EQ(field->is_repeated(), row.repeated);
        if (field->message_type() != nullptr) {
            EXPECT_EQ(field->message_type()->full_name(), qualified(row.type));
        }
        if (field->enum_type() != nullptr) {
            EXPECT_EQ(field->enum_type()->full_name(), qualified(row.type));
        }
    }
}

TEST(SchemaMessages, HaveNoFieldsBeyondTheListedOnes) {
    for (const auto& [name, count] : expectedMessages()) {
        const Descriptor* message = pool()->FindMessageTypeByName(qualified(name));
        ASSERT_NE(message, nullptr) << name;
        EXPECT_EQ(message->field_count(), count) << name;
    }
}

TEST(SchemaMessages, AreFlatWithoutNestedTypesOrOneofs) {
    for (const auto& [name, count] : expectedMessages()) {
        const Descriptor* message = pool()->FindMessageTypeByName(qualified(name));
        ASSERT_NE(message, nullptr) << name;
        EXPECT_EQ(message->nested_type_count(), 0) << name;
        EXPECT_EQ(message->enum_type_count(), 0) << name;
        EXPECT_EQ(message->oneof_decl_count(), 0) << name;
    }
}

TEST(SchemaMessages, RepeatedNumericAndEnumFieldsArePacked) {
    int packedSeen = 0;
    for (const auto& row : schema_table::kFields) {
        const Descriptor* message = pool()->FindMessageTypeByName(qualified(row.message));
        ASSERT_NE(message, nullptr) << row.message;
        const FieldDescriptor* field = message->FindFieldByName(row.field);
        ASSERT_NE(field, nullptr) << row.message << "." << row.field;
        if (!field->is_repeated()) {
            continue;
        }
        const bool packable = field->cpp_type() != FieldDescriptor::CPPTYPE_STRING &&
                              field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE;
        EXPECT_EQ(field->is_packed(), packable) << row.message << "." << row.field;
        packedSeen += packable ? 1 : 0;
    }
    EXPECT_GT(packedSeen, 0);
}

TEST(SchemaReserved, GapsInFieldNumbersAreReservedInEveryMessage) {
    for (const auto& [name, count] : expectedMessages()) {
        const Descriptor* message = pool()->FindMessageTypeByName(qualified(name));
        ASSERT_NE(message, nullptr) << name;
        int highest = 0;
        for (int i = 0; i < message->field_count(); ++i) {
            highest = std::max(highest, message->field(i)->number());
        }
        for (int number = 1; number <= highest; ++number) {
            const bool used = message->FindFieldByNumber(number) != nullptr;
            EXPECT_NE(used, message->IsReservedNumber(number)) << name << " number " << number;
        }
        EXPECT_FALSE(message->IsReservedNumber(highest + 1)) << name;
    }
}

TEST(SchemaReserved, DeviceInfoReservesSixOnly) {
    const Descriptor* message = pool()->FindMessageTypeByName("lumora.DeviceInfo");
    ASSERT_NE(message, nullptr);
    ASSERT_EQ(message->reserved_range_count(), 1);
    EXPECT_EQ(message->reserved_range(0)->start, 6);
    EXPECT_EQ(message->reserved_range(0)->end, 7);  // exclusive end
}

TEST(SchemaReserved, DiagnosticMessagesReserveFourOnly) {
    for (const char* name : {"lumora.ScannerDiagnosticInfo", "lumora.TrackerDiagnosticInfo"}) {
        const Descriptor* message = pool()->FindMessageTypeByName(name);
        ASSERT_NE(message, nullptr) << name;
        ASSERT_EQ(message->reserved_range_count(), 1) << name;
        EXPECT_EQ(message->reserved_range(0)->start, 4) << name;
        EXPECT_EQ(message->reserved_range(0)->end, 5) << name;
    }
}

TEST(SchemaReserved, ContiguousMessagesReserveNothing) {
    for (const char* name : {"lumora.DiagnosticInfo", "lumora.CamParam", "lumora.POITN_3D_EDGE",
                             "lumora.ScanRealTimeDataV5", "lumora.WIFISignalStrength"}) {
        const Descriptor* message = pool()->FindMessageTypeByName(name);
        ASSERT_NE(message, nullptr) << name;
        EXPECT_EQ(message->reserved_range_count(), 0) << name;
    }
}

TEST(SchemaEnums, EveryListedValueHasItsNumber) {
    for (const auto& row : schema_table::kEnumValues) {
        SCOPED_TRACE(std::string(row.enumeration) + "." + row.value);
        const EnumDescriptor* enumeration = pool()->FindEnumTypeByName(qualified(row.enumeration));
        ASSERT_NE(enumeration, nullptr);
        const EnumValueDescriptor* value = enumeration->FindValueByName(row.value);
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(value->number(), row.number);
        EXPECT_EQ(enumeration->FindValueByNumber(row.number), value);
    }
}

TEST(SchemaEnums, HaveNoValuesBeyondTheListedOnesAndStartAtZero) {
    for (const auto& [name, count] : expectedEnums()) {
        const EnumDescriptor* enumeration = pool()->FindEnumTypeByName(qualified(name));
        ASSERT_NE(enumeration, nullptr) << name;
        EXPECT_EQ(enumeration->value_count(), count) << name;
        ASSERT_GT(enumeration->value_count(), 0) << name;
        EXPECT_EQ(enumeration->value(0)->number(), 0) << name;
    }
}

TEST(SchemaEnums, GapsInValuesAreReserved) {
    for (const auto& [name, count] : expectedEnums()) {
        const EnumDescriptor* enumeration = pool()->FindEnumTypeByName(qualified(name));
        ASSERT_NE(enumeration, nullptr) << name;
        int highest = 0;
        for (int i = 0; i < enumeration->value_count(); ++i) {
            highest = std::max(highest, enumeration->value(i)->number());
        }
        for (int number = 0; number <= highest; ++number) {
            const bool used = enumeration->FindValueByNumber(number) != nullptr;
            EXPECT_NE(used, enumeration->IsReservedNumber(number)) << name << " " << number;
        }
    }
}

TEST(SchemaEnums, StateCodesReserveTheirGapsAsRanges) {
    const EnumDescriptor* state = pool()->FindEnumTypeByName("lumora.LUMORA_STATE");
    ASSERT_NE(state, nullptr);
    // Enum reserved ranges are inclusive at both ends.
    const std::vector<std::pair<int, int>> expected = {
        {1, 2}, {16, 102}, {112, 112}, {115, 122}, {127, 128}, {137, 154}, {161, 200}};
    ASSERT_EQ(state->reserved_range_count(), static_cast<int>(expected.size()));
    for (int i = 0; i < state->reserved_range_count(); ++i) {
        EXPECT_EQ(state->reserved_range(i)->start, expected[i].first) << "range " << i;
        EXPECT_EQ(state->reserved_range(i)->end, expected[i].second) << "range " << i;
    }
}

TEST(SchemaEnums, ValuesLiveInPackageScope) {
    // proto3 enum values are siblings of their enumeration, so code names them lumora::VALUE.
    for (const auto& row : schema_table::kEnumValues) {
        const EnumValueDescriptor* value = pool()->FindEnumValueByName(qualified(row.value));
        ASSERT_NE(value, nullptr) << row.value;
        EXPECT_EQ(value->type()->name(), row.enumeration) << row.value;
    }
    EXPECT_EQ(lumora::LP_NEEDLE_CLB_SUCC, 205);
    EXPECT_EQ(lumora::TRACK_PREVIEW, 32);
    EXPECT_EQ(lumora::HOLE_DETECTION_SQUARE_SLOT, 2);
}

}  // namespace
