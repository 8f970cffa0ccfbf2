// The cascade-file reader on arbitrary bytes: it must not crash, hang or allocate beyond what
// the input holds, and every record it appends must come from bytes of the input.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "device/CascadeFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::FILE* f = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (f == nullptr) {
        return 0;  // fmemopen refuses an empty buffer
    }
    std::vector<device::TransformTrackingMatrix> records;
    const size_t n = device::readCascadeRecords(f, records);
    std::fclose(f);
    const size_t body = size > device::kCascadeHeaderBytes ? size - device::kCascadeHeaderBytes : 0;
    const size_t most = (body + device::kCascadeRecordBytes - 1) / device::kCascadeRecordBytes;
    if (n != records.size() || n > most || records.capacity() > most) {
        std::abort();
    }
    for (const auto& r : records) {
        if (r.id.size() > device::kCascadeIdBytes) {
            std::abort();
        }
    }
    return 0;
}
