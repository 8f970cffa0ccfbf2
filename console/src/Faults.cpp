// Faults of the link and the recording: every frame the console sends leaves through
// transmit(), which applies the `fault` rules, holds delayed messages, keeps quiet while the
// console is silent and records what crossed the link. The grammar is in console/README.md.
#include "Faults.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Internal.h"
#include "platform/Platform.h"
#include "sdk_link.pb.h"

namespace console {

using namespace SDK_NV;

namespace {

constexpr int kCrashExitCode = 3;

const std::vector<std::pair<std::string, int>>& typeNames() {
    static const std::vector<std::pair<std::string, int>> names = {
        {"any", 0},
        {"receipt", MSG_RECEIPT},
        {"device", MSG_DEVICE},
        {"button", MSG_BUTTON},
        {"images", MSG_FRAMEDATA},
        {"scan", MSG_SCANDATA},
        {"calib", MSG_CALIBDATA},
        {"lightpen", MSG_LIGHTPEN},
        {"optimization", MSG_OPTIMIZATION},
    };
    return names;
}

std::string typeName(int type) {
    for (const auto& [name, t] : typeNames()) {
        if (t == type) {
            return name;
        }
    }
    return std::to_string(type);
}

bool parseType(const std::string& text, int& out) {
    for (const auto& [name, t] : typeNames()) {
        if (name == text) {
            out = t;
            return true;
        }
    }
    int n = 0;
    if (parseInt(text, n) && n >= MSG_RECEIPT && n <= MSG_OPTIMIZATION) {
        out = n;
        return true;
    }
    return false;
}

const char* kindText(FaultKind k) {
    using K = FaultKind;
    switch (k) {
        case K::Drop:
            return "drop";
        case K::Delay:
            return "delay";
        case K::Corrupt:
            return "corrupt";
        case K::Truncate:
            return "truncate";
        case K::Oversize:
            return "oversize";
    }
    return "?";
}

void putU32(char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
    }
}

// A scan frame body whose counts disagree with its arrays; unchanged when it does not parse.
void corruptScanBody(std::vector<char>& body, FaultCorruption what) {
    using C = FaultCorruption;
    sdk_link::ScanFrameBody b;
    if (!b.ParseFromArray(body.data(), static_cast<int>(body.size()))) {
        return;
    }
    const int points = b.laser_points_size() / 3;
    switch (what) {
        case C::Markers:
            // One identifier more than there are centres, normals, diameters and flags.
            b.add_marker_ids(b.marker_ids_size() + 1);
            break;
        case C::Lines:
            // The line counts add up to one point more than the frame holds.
            if (b.laser_line_counts_size() == 0) {
                b.add_laser_line_counts(points + 1);
            } else {
                const int last = b.laser_line_counts_size() - 1;
                b.set_laser_line_counts(last, b.laser_line_counts(last) + 1);
            }
            break;
        case C::Normals:
            // One normal more than there are points.
            for (int i = 0; i < (b.laser_normals_size() == 0 ? 3 * (points + 1) : 3); ++i) {
                b.add_laser_normals(0.0f);
            }
            break;
    }
    body.resize(b.ByteSizeLong());
    b.SerializeToArray(body.data(), static_cast<int>(body.size()));
}

// The body cut short so that it no longer parses: its first half, or all but its last byte
// when the half happens to parse (every field has a value byte, so losing the last byte always
// leaves the last field incomplete).
void truncateBody(uint32_t type, std::vector<char>& body) {
    if (body.size() < 2) {
        body.clear();
        return;
    }
    size_t keep = body.size() / 2;
    std::unique_ptr<CMessage_Base> m = CreateMessage(static_cast<int>(type));
    if (!m || m->unpack(body.data(), static_cast<int>(keep)) == 0) {
        keep = body.size() - 1;
    }
    body.resize(keep);
}

}  // namespace

int Console::Faults::pick(uint32_t type) {
    for (size_t i = 0; i < rules.size(); ++i) {
        Rule& r = rules[i];
        if (r.type != 0 && static_cast<uint32_t>(r.type) != type) {
            continue;
        }
        ++r.seen;
        bool fire = false;
        switch (r.pattern) {
            case Pattern::Next:
                fire = r.remaining > 0;
                break;
            case Pattern::Every:
                fire = r.seen % static_cast<uint64_t>(r.every) == 0;
                break;
            case Pattern::Fraction:
                fire = std::uniform_real_distribution<double>(0.0, 1.0)(rng) < r.fraction;
                break;
            case Pattern::Always:
                fire = true;
                break;
        }
        if (fire) {
            ++r.injected;
            return static_cast<int>(i);
        }
    }
    return -1;
}

std::string Console::Faults::describe(const Rule& r) const {
    std::string s = std::string("fault ") + kindText(r.kind);
    if (r.kind == Kind::Delay) {
        s += " " + std::to_string(r.delayMs);
    }
    switch (r.pattern) {
        case Pattern::Next:
            s += " " + std::to_string(r.remaining);
            break;
        case Pattern::Every:
            s += " every=" + std::to_string(r.every);
            break;
        case Pattern::Fraction:
            s += " fraction=" + std::to_string(r.fraction);
            break;
        case Pattern::Always:
            s += " always";
            break;
    }
    s += " on=" + typeName(r.type);
    if (r.kind == Kind::Corrupt) {
        s += r.what == Corruption::Markers ? " what=markers"
             : r.what == Corruption::Lines ? " what=lines"
                                           : " what=normals";
    }
    return s + " (" + std::to_string(r.injected) + " so far)";
}

// =============================================================================================
// Control lines
// =============================================================================================

// fault KIND [MS] [N|every=K|fraction=F|always] [on=TYPE] [what=W] | fault KIND off |
// fault off | fault list
bool Console::controlFault(const std::vector<std::string>& w, std::string& error) {
    static const char* usage =
        "usage: fault drop|corrupt|truncate|oversize [N|every=K|fraction=F|always] [on=TYPE] | "
        "fault delay MS [N|every=K|fraction=F|always] [on=TYPE] | fault KIND off | fault off | "
        "fault list";
    using K = Faults::Kind;
    if (w.size() == 2 && w[1] == "off") {
        m_faults->rules.clear();
        return true;
    }
    if (w.size() == 2 && w[1] == "list") {
        if (m_faults->rules.empty()) {
            say("no faults");
        }
        for (const Faults::Rule& r : m_faults->rules) {
            say(m_faults->describe(r));
        }
        return true;
    }
    static const std::vector<std::pair<std::string, K>> kinds = {
        {"drop", K::Drop},         {"delay", K::Delay},       {"corrupt", K::Corrupt},
        {"truncate", K::Truncate}, {"oversize", K::Oversize},
    };
    const auto kind = std::find_if(kinds.begin(), kinds.end(),
                                   [&](const auto& k) { return w.size() >= 2 && k.first == w[1]; });
    if (kind == kinds.end()) {
        error = usage;
        return false;
    }
    Faults::Rule rule;
    rule.kind = kind->second;
    if (w.size() == 3 && w[2] == "off") {
        auto& rules = m_faults->rules;
        rules.erase(std::remove_if(rules.begin(), rules.end(),
                                   [&](const Faults::Rule& r) { return r.kind == rule.kind; }),
                    rules.end());
        return true;
    }
    size_t i = 2;
    if (rule.kind == K::Delay) {
        if (w.size() < 3 || !parseInt(w[2], rule.delayMs) || rule.delayMs < 0 ||
            rule.delayMs > 3600000) {
            error = "usage: fault delay MS ... (MS 0..3600000)";
            return false;
        }
        i = 3;
    }
    bool patternGiven = false;
    const auto setPattern = [&](Faults::Pattern p) {
        if (patternGiven) {
            error = "give one of N, every=K, fraction=F or always";
            return false;
        }
        patternGiven = true;
        rule.pattern = p;
        return true;
    };
    for (; i < w.size(); ++i) {
        const std::string& word = w[i];
        const size_t eq = word.find('=');
        const std::string key = eq == std::string::npos ? word : word.substr(0, eq);
        const std::string value = eq == std::string::npos ? std::string() : word.substr(eq + 1);
        if (eq == std::string::npos && word == "always") {
            if (!setPattern(Faults::Pattern::Always)) {
                return false;
            }
        } else if (eq == std::string::npos) {
            if (!parseInt(word, rule.remaining) || rule.remaining < 1) {
                error = "N must be a positive integer: " + word;
                return false;
            }
            if (!setPattern(Faults::Pattern::Next)) {
                return false;
            }
        } else if (key == "every") {
            if (!parseInt(value, rule.every) || rule.every < 1) {
                error = "every=K needs K >= 1: " + word;
                return false;
            }
            if (!setPattern(Faults::Pattern::Every)) {
                return false;
            }
        } else if (key == "fraction") {
            if (!parseDouble(value, rule.fraction) || !(rule.fraction >= 0.0) ||
                rule.fraction > 1.0) {
                error = "fraction=F needs F in 0..1: " + word;
                return false;
            }
            if (!setPattern(Faults::Pattern::Fraction)) {
                return false;
            }
        } else if (key == "on") {
            if (!parseType(value, rule.type)) {
                error = "on=" + value +
                        ": scan, receipt, device, button, calib, images, lightpen, "
                        "optimization, any or 1..8";
                return false;
            }
        } else if (key == "what" && rule.kind == K::Corrupt) {
            if (value == "markers") {
                rule.what = Faults::Corruption::Markers;
            } else if (value == "lines") {
                rule.what = Faults::Corruption::Lines;
            } else if (value == "normals") {
                rule.what = Faults::Corruption::Normals;
            } else {
                error = "what=" + value + ": markers, lines or normals";
                return false;
            }
        } else {
            error = "unknown argument " + word + "; " + usage;
            return false;
        }
    }
    if (rule.kind == K::Corrupt && rule.type != MSG_SCANDATA) {
        error = "only scan frames have counts to corrupt (on=scan)";
        return false;
    }
    // One rule per kind and message type: a new line replaces the old one.
    auto& rules = m_faults->rules;
    const auto same = std::find_if(rules.begin(), rules.end(), [&](const Faults::Rule& r) {
        return r.kind == rule.kind && r.type == rule.type;
    });
    if (same != rules.end()) {
        *same = rule;
    } else {
        rules.push_back(rule);
    }
    return true;
}

// silent | silent MS | silent off
bool Console::controlSilent(const std::vector<std::string>& w, std::string& error) {
    int ms = 0;
    if (w.size() == 1) {
        m_faults->silentUntilMs = INT64_MAX;
    } else if (w.size() == 2 && w[1] == "off") {
        m_faults->silentUntilMs = nowMs();  // the timers end it at once
    } else if (w.size() == 2 && parseInt(w[1], ms) && ms >= 0 && ms <= 3600000) {
        m_faults->silentUntilMs = nowMs() + std::llround(ms * platform::timeScale());
    } else {
        error = "usage: silent [MS] | silent off (MS 0..3600000)";
        return false;
    }
    if (w.size() == 1 || w[1] != "off") {
        say("silent" + (w.size() == 2 ? " for " + w[1] + " ms" : std::string()));
    }
    return true;
}

// crash | crash after MS
bool Console::controlCrash(const std::vector<std::string>& w, std::string& error) {
    int ms = 0;
    if (w.size() == 1) {
        m_faults->crashAtMs = nowMs();
    } else if (w.size() == 3 && w[1] == "after" && parseInt(w[2], ms) && ms >= 0) {
        m_faults->crashAtMs = nowMs() + std::llround(ms * platform::timeScale());
    } else if (w.size() == 2 && w[1] == "off") {
        m_faults->crashAtMs = -1;
    } else {
        error = "usage: crash [after MS] | crash off";
        return false;
    }
    return true;
}

// =============================================================================================
// The way out
// =============================================================================================

bool Console::silent() const {
    return m_faults->silentUntilMs >= 0 && nowMs() < m_faults->silentUntilMs;
}

int64_t Console::nextFaultTimerMs() const {
    int64_t next = INT64_MAX;
    if (m_faults->crashAtMs >= 0) {
        next = std::min(next, m_faults->crashAtMs);
    }
    if (m_faults->silentUntilMs >= 0) {
        next = std::min(next, m_faults->silentUntilMs);
    }
    if (m_client != net::kInvalidSocket && !silent()) {
        for (const Faults::Held& h : m_faults->held) {
            next = std::min(next, h.dueMs);
        }
    }
    return next;
}

void Console::runFaultTimers() {
    const int64_t now = nowMs();
    if (m_faults->crashAtMs >= 0 && now >= m_faults->crashAtMs) {
        // Gone without a word: no socket is shut down, nothing is flushed but what is already
        // written (the recording and the command log are flushed record by record).
        if (m_client != net::kInvalidSocket) {
            record(rec::Disconnected);  // the link ends here, as a replay should show
        }
        say("crashing");
        std::_Exit(kCrashExitCode);
    }
    if (m_faults->silentUntilMs >= 0 && now >= m_faults->silentUntilMs) {
        m_faults->silentUntilMs = -1;
        m_nextFrameMs = std::max(m_nextFrameMs, now);  // no burst of the frames not made
        say("speaking again");
    }
    if (silent()) {
        return;
    }
    auto& held = m_faults->held;
    for (size_t i = 0; i < held.size() && m_client != net::kInvalidSocket;) {
        if (held[i].dueMs <= now) {
            Faults::Held h = std::move(held[i]);
            held.erase(held.begin() + static_cast<long>(i));
            writeFrame(h.type, h.id, h.ids ? &*h.ids : nullptr, h.body.data(), h.body.size(),
                       false);
        } else {
            ++i;
        }
    }
}

bool Console::transmit(uint32_t type, int32_t id, const std::vector<std::string>* ids,
                       std::vector<char>& body) {
    if (m_client == net::kInvalidSocket) {
        return false;
    }
    if (silent()) {
        return true;  // a silent console's messages are lost
    }
    const int at = m_faults->pick(type);
    if (at < 0) {
        return writeFrame(type, id, ids, body.data(), body.size(), false);
    }
    const Faults::Rule rule = m_faults->rules[static_cast<size_t>(at)];
    if (rule.pattern == Faults::Pattern::Next &&
        --m_faults->rules[static_cast<size_t>(at)].remaining == 0) {
        m_faults->rules.erase(m_faults->rules.begin() + at);
    }
    if (m_options.verbose) {
        say(std::string("fault: ") + kindText(rule.kind) + " a message of type " +
            std::to_string(type) + " (id " + std::to_string(id) + ")");
    }
    bool padded = false;
    switch (rule.kind) {
        case Faults::Kind::Drop:
            return true;
        case Faults::Kind::Delay: {
            Faults::Held h;
            h.dueMs = nowMs() + std::llround(rule.delayMs * platform::timeScale());
            h.type = type;
            h.id = id;
            if (ids != nullptr) {
                h.ids = *ids;
            }
            h.body = body;
            m_faults->held.push_back(std::move(h));
            return true;
        }
        case Faults::Kind::Corrupt:
            corruptScanBody(body, rule.what);
            break;
        case Faults::Kind::Truncate:
            truncateBody(type, body);
            break;
        case Faults::Kind::Oversize:
            padded = true;
            break;
    }
    return writeFrame(type, id, ids, body.data(), body.size(), padded);
}

bool Console::writeFrame(uint32_t type, int32_t id, const std::vector<std::string>* ids,
                         const char* body, size_t bodySize, bool padded) {
    std::string head;
    if (!wire::encodeFrameHead(type, id, ids, ++m_sendSequence, wire::monotonicNs(), bodySize,
                               head)) {
        say("a message of type " + std::to_string(type) + " exceeds the frame limit");
        return false;
    }
    // An oversized frame declares one byte more than the limit and is followed by zeros up to
    // that length, so that a receiver that skips it finds the next frame where it should be.
    const uint64_t declared = wire::kMaxFrameBytes + 1;
    const uint64_t content = head.size() - wire::kHeaderBytes + bodySize;
    if (padded) {
        putU32(&head[4], static_cast<uint32_t>(declared));
    }
    bool ok = net::sendAll(m_client, head.data(), head.size(), body, bodySize);
    if (ok && padded) {
        static const std::vector<char> zeros(size_t{1} << 20, 0);
        for (uint64_t left = declared - content; ok && left > 0;) {
            const size_t k = static_cast<size_t>(std::min<uint64_t>(left, zeros.size()));
            ok = net::sendAll(m_client, zeros.data(), k);
            left -= k;
        }
    }
    if (!ok) {
        dropClient("write failed");
        return false;
    }
    if (m_recording && m_recording->isOpen() &&
        !m_recording->write(rec::Sent, padded ? rec::kFlagPadded : 0, head.data(), head.size(),
                            body, bodySize)) {
        say("the recording stopped: cannot write " + m_options.record.recordPath);
    }
    return true;
}

void Console::record(rec::Kind kind, const char* bytes, size_t size) {
    if (m_recording && m_recording->isOpen() && !m_recording->write(kind, 0, bytes, size)) {
        say("the recording stopped: cannot write " + m_options.record.recordPath);
    }
}

}  // namespace console
