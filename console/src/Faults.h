// The faults the console injects into its link (`fault`, `silent`, `crash` control lines).
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "console/Console.h"

namespace console {

enum class FaultKind { Drop, Delay, Corrupt, Truncate, Oversize };
enum class FaultCorruption { Markers, Lines, Normals };

struct Console::Faults {
    using Kind = FaultKind;
    using Corruption = FaultCorruption;
    enum class Pattern { Next, Every, Fraction, Always };

    // One `fault` line: what happens to which outgoing messages.
    struct Rule {
        Kind kind = Kind::Drop;
        int type = SDK_NV::MSG_SCANDATA;  // message type it applies to; 0: every type
        Pattern pattern = Pattern::Next;
        int remaining = 1;    // Next: messages still to hit
        int every = 1;        // Every: each K-th message
        double fraction = 0;  // Fraction: the probability per message
        uint64_t seen = 0;    // messages of the type since the rule was given
        int delayMs = 0;      // Delay
        Corruption what = Corruption::Markers;
        uint64_t injected = 0;
    };

    // A delayed message, sent when due (in the order of its delay's end).
    struct Held {
        int64_t dueMs = 0;
        uint32_t type = 0;
        int32_t id = 0;
        std::optional<std::vector<std::string>> ids;
        std::vector<char> body;
    };

    explicit Faults(uint32_t seed) : rng(seed ^ 0x5eedfa17u) {}

    // The rule that strikes a message of `type`, counted; the index in `rules`, or -1. Rules
    // are consulted in the order given and the first that fires takes the message.
    int pick(uint32_t type);
    std::string describe(const Rule& r) const;

    std::vector<Rule> rules;
    std::deque<Held> held;
    std::mt19937 rng;  // for fraction=: a stream of its own, so the frames' noise stays as it was
    int64_t silentUntilMs = -1;  // -1: speaking; INT64_MAX: until `silent off`
    int64_t crashAtMs = -1;      // -1: no crash planned
};

}  // namespace console
