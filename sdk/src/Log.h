// Diagnostic lines of the SDK on standard output ("[sdk_nv] ..."), one write per line.
#pragma once

#include <string>

namespace SDK_NV {

// Always written: problems (dropped frames, failed writes).
void logLine(const std::string& text);
// Written only while CTPWrapper::setOutput(true) is in effect.
void traceLine(const std::string& text);
bool traceEnabled();
void setTraceEnabled(bool on);

}  // namespace SDK_NV
