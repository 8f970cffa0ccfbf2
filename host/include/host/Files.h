// Files a host reads and writes without a device: cascade files of chained trackers and the
// module's configuration files. Failures are Error with the exit code and one line.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/Records.h"

namespace host {

// Cascade file: int32 count N, then N entries of a 20-byte tracker id (ASCII, NUL-padded) and
// 16 doubles (the transfer matrix), little-endian. Reading refuses a damaged file outright
// (size not matching the count, negative or huge count, non-finite matrix, id not text):
// Error(kExitInputFile). Writing: Error(kExitOutput), also for an id longer than 20 bytes.
std::vector<TransferMatrix> readCascadeFile(const std::string& path);
void writeCascadeFile(const std::string& path, const std::vector<TransferMatrix>& matrices);

// How rigid a matrix is: det(B), |B·B^T - I| and whether both and element 15 are as they
// should be.
struct MatrixCheck {
    double determinant = 1.0;
    double orthogonality = 0.0;
    bool rigid = true;
};
MatrixCheck checkTransferMatrix(const TransferMatrix& matrix);

// Configuration files through the module's configuration editor (notes and layout kept; text
// form, or the scrambled binary form). An unreadable file is Error(kExitInputFile), a key
// that is not in it Error(kExitUnknownKey); reading never rewrites the file.
std::vector<std::pair<std::string, std::string>> readConfigFile(const std::string& path,
                                                                bool binary);
std::string configValue(const std::string& path, const std::string& key, bool binary);
// Changes one key in place and saves; returns the value it had.
std::string changeConfigValue(const std::string& path, const std::string& key,
                              const std::string& value, bool binary);

// The output folder: created when missing and checked for writing; Error(kExitOutput) when
// it cannot be written.
void prepareOutputFolder(const std::string& dir);

}  // namespace host
