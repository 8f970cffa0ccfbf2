// Progress of long work: a bar with count, rate and time left on a terminal, plain lines
// (at most one per second and at the end) otherwise.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include "host/Records.h"

namespace pfapp {

class Progress {
public:
    // `total` units of `unit` ("frames"); `total` 0 means unknown. `seconds` > 0: the work
    // ends after that long, so the time left follows the clock instead of the count.
    Progress(std::string label, std::string unit, size_t total, double seconds, bool terminal,
             std::FILE* out = stdout);
    void update(size_t done);
    // Final line (the bar stays on screen).
    void finish(size_t done);

private:
    void draw(size_t done, bool final);

    std::string m_label;
    std::string m_unit;
    size_t m_total;
    double m_seconds;
    bool m_terminal;
    std::FILE* m_out;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastDraw;
    bool m_drawn = false;
};

// The session's progress as bars: one per stage, on standard output.
host::ProgressHandler progressDisplay();

}  // namespace pfapp
