// The compiled schema, as the generated descriptor pool sees it, against schema_table.txt.
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "lumora.pb.h"

namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

// One table line: a message field (type and label set) or an enumeration value.
struct Row {
    std::string owner, name, type;
    int number = 0;
    bool repeated = false;
};

// Owner names in first-appearance order, with how many rows each has.
using Groups = std::vector<std::pair<std::string, int>>;

struct Table {
    std::vector<Row> fields, values;
    Groups messages, enums;
    std::vector<std::string> badLines;
};

void count(Groups& groups, const std::string& owner) {
    if (groups.empty() || groups.back().first != owner) {
        groups.emplace_back(owner, 0);
    }
    ++groups.back().second;
}

const Table& table() {
    static const Table parsed = [] {
        Table t;
        std::ifstream in(PROTO_SCHEMA_TABLE);
        for (std::string line; std::getline(in, line);) {
            std::istringstream s(line);
            std::string first, label, rest;
            if (!(s >> first) || first[0] == '#') {
                continue;
            }
            // enum <enumeration> <value> <number> | <message> <field> <number> <type> [repeated]
            Row r;
            const bool isEnum = first == "enum";
            r.owner = isEnum ? "" : first;
            const bool ok = isEnum ? bool(s >> r.owner >> r.name >> r.number)
                                   : (s >> r.name >> r.number >> r.type) &&
                                         (!(s >> label) || label == "repeated");
            if (!ok || (s >> rest)) {
                t.badLines.push_back(line);
                continue;
            }
            r.repeated = label == "repeated";
            (isEnum ? t.values : t.fields).push_back(r);
            count(isEnum ? t.enums : t.messages, r.owner);
        }
        return t;
    }();
    return parsed;
}

const FileDescriptor* schemaFile() {
    // Touching a generated class links the schema's object file and registers its descriptor.
    (void)lumora::DeviceInfo::descriptor();
    return google::protobuf::DescriptorPool::generated_pool()->FindFileByName("lumora.proto");
}

const Descriptor* message(const std::string& name) {
    return schemaFile()->FindMessageTypeByName(name);
}

const EnumDescriptor* enumeration(const std::string& name) {
    return schemaFile()->FindEnumTypeByName(name);
}

// The type of a field as the table writes it: a scalar keyword or a schema type name.
std::string typeName(const FieldDescriptor* field) {
    if (field->message_type() != nullptr) {
        return field->message_type()->name();
    }
    if (field->enum_type() != nullptr) {
        return field->enum_type()->name();
    }
    return FieldDescriptor::TypeName(field->type());
}

TEST(SchemaFile, IsProto3PackageLumoraWithExactlyTheListedTypesInOrder) {
    EXPECT_TRUE(table().badLines.empty()) << table().badLines.front();
    const FileDescriptor* file = schemaFile();
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->syntax(), FileDescriptor::SYNTAX_PROTO3);
    EXPECT_EQ(file->package(), "lumora");
    EXPECT_EQ(file->dependency_count(), 0);
    EXPECT_EQ(file->service_count(), 0);
    EXPECT_EQ(file->extension_count(), 0);

    const Groups& messages = table().messages;
    ASSERT_EQ(file->message_type_count(), static_cast<int>(messages.size()));
    for (int i = 0; i < file->message_type_count(); ++i) {
        EXPECT_EQ(file->message_type(i)->name(), messages[i].first) << "position " << i;
    }
    const Groups& enums = table().enums;
    ASSERT_EQ(file->enum_type_count(), static_cast<int>(enums.size()));
    for (int i = 0; i < file->enum_type_count(); ++i) {
        EXPECT_EQ(file->enum_type(i)->name(), enums[i].first) << "position " << i;
    }
}

// Every listed field with its number, type and label, and no other field; no nesting; every
// number up to the highest either used or reserved (a retired number, DeviceInfo 6 or the
// diagnostic records' 4, must stay reserved).
TEST(SchemaMessages, HaveExactlyTheListedFieldsAndReserveEveryGap) {
    for (const Row& row : table().fields) {
        SCOPED_TRACE(row.owner + "." + row.name);
        const Descriptor* m = message(row.owner);
        ASSERT_NE(m, nullptr);
        const FieldDescriptor* field = m->FindFieldByName(row.name);
        ASSERT_NE(field, nullptr);
        EXPECT_EQ(field->number(), row.number);
        EXPECT_EQ(typeName(field), row.type);
        EXPECT_EQ(field->is_repeated(), row.repeated);
        // Repeated numbers and enumerations travel packed; strings and messages cannot.
        const bool packable = field->cpp_type() != FieldDescriptor::CPPTYPE_STRING &&
                              field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE;
        EXPECT_EQ(field->is_packed(), row.repeated && packable);
    }
    for (const auto& [name, fields] : table().messages) {
        SCOPED_TRACE(name);
        const Descriptor* m = message(name);
        EXPECT_EQ(m->field_count(), fields);
        EXPECT_EQ(m->nested_type_count() + m->enum_type_count() + m->oneof_decl_count(), 0);
        int highest = 0;
        for (int i = 0; i < m->field_count(); ++i) {
            highest = std::max(highest, m->field(i)->number());
        }
        for (int number = 1; number <= highest + 1; ++number) {
            const bool used = m->FindFieldByNumber(number) != nullptr;
            EXPECT_EQ(m->IsReservedNumber(number), !used && number <= highest) << number;
        }
    }
}

// Every listed value with its number and no other; the first is 0; gaps are reserved.
TEST(SchemaEnums, HaveExactlyTheListedValuesAndReserveEveryGap) {
    for (const Row& row : table().values) {
        SCOPED_TRACE(row.owner + "." + row.name);
        const EnumDescriptor* e = enumeration(row.owner);
        ASSERT_NE(e, nullptr);
        const auto* value = e->FindValueByName(row.name);
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(value->number(), row.number);
    }
    for (const auto& [name, values] : table().enums) {
        SCOPED_TRACE(name);
        const EnumDescriptor* e = enumeration(name);
        ASSERT_EQ(e->value_count(), values);
        EXPECT_EQ(e->value(0)->number(), 0);
        int highest = 0;
        for (int i = 0; i < e->value_count(); ++i) {
            highest = std::max(highest, e->value(i)->number());
        }
        for (int number = 0; number <= highest; ++number) {
            const bool used = e->FindValueByNumber(number) != nullptr;
            EXPECT_NE(used, e->IsReservedNumber(number)) << number;
        }
    }
}

}  // namespace
