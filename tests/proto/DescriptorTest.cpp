// The compiled schema, as the generated descriptor pool sees it, against schema_table.txt:
// written out in the table's form, line for line, it must be the table.
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "lumora.pb.h"

namespace {

using namespace google::protobuf;

// The type of a field as the table writes it: a scalar keyword or a schema type name.
std::string typeName(const FieldDescriptor* f) {
    return f->message_type() != nullptr ? f->message_type()->name()
           : f->enum_type() != nullptr  ? f->enum_type()->name()
                                        : FieldDescriptor::TypeName(f->type());
}

// Non-note lines of the table with their words joined by single blanks: enumeration values
// (first word "enum") or, otherwise, message fields.
void readTable(std::vector<std::string>& fields, std::vector<std::string>& values) {
    std::ifstream in(PROTO_SCHEMA_TABLE);
    for (std::string line, word; std::getline(in, line);) {
        std::istringstream s(line);
        std::string joined;
        while (s >> word) {
            joined += (joined.empty() ? "" : " ") + word;
        }
        if (!joined.empty() && joined[0] != '#') {
            (joined.rfind("enum ", 0) == 0 ? values : fields).push_back(joined);
        }
    }
}

void expectSameLines(const std::vector<std::string>& schema,
                     const std::vector<std::string>& table) {
    for (std::size_t i = 0; i < std::max(schema.size(), table.size()); ++i) {
        ASSERT_EQ(i < schema.size() ? schema[i] : "(none)", i < table.size() ? table[i] : "(none)")
            << "line " << i << " of the schema against the table";
    }
}

// Besides the listed messages, fields, enumerations and values in their order: proto3, package
// lumora, nothing imported or nested; repeated numbers and enumerations travel packed (strings
// and messages cannot); every number up to the highest is used or reserved (a retired number,
// DeviceInfo 6 or the diagnostic records' 4, must stay reserved); enumerations start at 0.
TEST(Schema, IsTheTableFlatProto3AndReservesEveryRetiredNumber) {
    (void)lumora::DeviceInfo::descriptor();  // links the schema and registers its descriptor
    const FileDescriptor* file = DescriptorPool::generated_pool()->FindFileByName("lumora.proto");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->syntax(), FileDescriptor::SYNTAX_PROTO3);
    EXPECT_EQ(file->package(), "lumora");
    EXPECT_EQ(file->dependency_count() + file->service_count() + file->extension_count(), 0);
    std::vector<std::string> fields, values, tableFields, tableValues;
    for (int i = 0; i < file->message_type_count(); ++i) {
        const Descriptor* m = file->message_type(i);
        EXPECT_EQ(m->nested_type_count() + m->enum_type_count() + m->oneof_decl_count(), 0);
        int highest = 0;
        for (int k = 0; k < m->field_count(); ++k) {
            const FieldDescriptor* f = m->field(k);
            fields.push_back(m->name() + " " + f->name() + " " + std::to_string(f->number()) + " " +
                             typeName(f) + (f->is_repeated() ? " repeated" : ""));
            const bool packable = f->cpp_type() != FieldDescriptor::CPPTYPE_STRING &&
                                  f->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE;
            EXPECT_EQ(f->is_packed(), f->is_repeated() && packable) << fields.back();
            highest = std::max(highest, f->number());
        }
        for (int n = 1; n <= highest + 1; ++n) {
            EXPECT_EQ(m->IsReservedNumber(n), !m->FindFieldByNumber(n) && n <= highest)
                << m->name() << " " << n;
        }
    }
    for (int i = 0; i < file->enum_type_count(); ++i) {
        const EnumDescriptor* e = file->enum_type(i);
        EXPECT_EQ(e->value(0)->number(), 0) << e->name();
        int highest = 0;
        for (int k = 0; k < e->value_count(); ++k) {
            values.push_back("enum " + e->name() + " " + e->value(k)->name() + " " +
                             std::to_string(e->value(k)->number()));
            highest = std::max(highest, e->value(k)->number());
        }
        for (int n = 0; n <= highest; ++n) {
            EXPECT_NE(e->FindValueByNumber(n) != nullptr, e->IsReservedNumber(n))
                << e->name() << " " << n;
        }
    }
    readTable(tableFields, tableValues);
    expectSameLines(fields, tableFields);
    expectSameLines(values, tableValues);
}

}  // namespace
