// The cascade file of chained trackers: reading and writing (format in device/README.md).
//
// Binary, little-endian: int32 record count N, then N records of 148 bytes, each a 20-byte
// NUL-padded ASCII tracker identifier followed by 16 doubles (the transfer matrix).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "device/Export.h"
#include "helmsman/DeviceTypes.h"

namespace device {

// Bytes of one record and of the count in front of the records.
constexpr size_t kCascadeIdBytes = 20;
constexpr size_t kCascadeRecordBytes = kCascadeIdBytes + 16 * sizeof(double);
constexpr size_t kCascadeHeaderBytes = 4;

// Reads the records of an open cascade file and appends them to `out`; returns how many were
// appended. A count of 0 or less reads nothing. A count larger than the rest of the file holds
// is read only as far as the file goes: a record cut short keeps zeros in its identifier and
// identity elements in its matrix, and no record is made for bytes that are not there. An
// identifier without terminator takes all 20 bytes. Never allocates more than the file holds.
PATHFINDER_API size_t readCascadeRecords(std::FILE* file,
                                         std::vector<TransformTrackingMatrix>& out);

// Writes `records` as a cascade file at `path` (replacing it). False, with no file written,
// when an identifier has 20 bytes or more or contains a NUL, or when the file cannot be
// written completely.
PATHFINDER_API bool writeCascadeFile(const std::wstring& path,
                                     const std::vector<TransformTrackingMatrix>& records);

}  // namespace device
