// Resident memory of this process, for the cycle test and the soak.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

namespace devtest {

// VmRSS of /proc/self/status in kB, 0 when unknown.
inline long residentKb() {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

}  // namespace devtest
