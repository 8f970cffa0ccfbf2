// Pieces shared by the console's sources.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace console {

// One line "[lumora_console] text" on standard output, flushed.
void say(const std::string& text);

// Work-response code of each setting command (sdk/PROTOCOL.md, "Commands").
const std::map<std::string, int>& responseCodes();

// What a query is answered with: a receipt of `receiptKind`, or the calibration data of
// `calibSteps` when the kind is -1.
struct QueryAnswer {
    int receiptKind = -1;
    std::vector<int> calibSteps;
};
// The query named `command`, or nullptr for a setting command.
const QueryAnswer* findQuery(const std::string& command);

}  // namespace console
