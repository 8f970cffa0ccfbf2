// Command line of lumora_console.
#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "console/Console.h"

namespace console {

std::string usageText() {
    return "usage: lumora_console [options]\n"
           "  --endpoint HOST:PORT   where to listen (default: $LUMORA_ENDPOINT or "
           "127.0.0.1:47310;\n"
           "                         port 0 picks a free port, printed on the first line)\n"
           "  --fps N                scan frames per second while triggered (0: as fast as the\n"
           "                         link takes them; default 120)\n"
           "  --seed N               seed of the simulated noise (default 1)\n"
           "  --points N             laser points per frame (default 2000)\n"
           "  --lines N              laser lines per frame (default 7)\n"
           "  --markers N            markers in the field (default 12)\n"
           "  --heartbeat-ms N       heartbeat period (default 1000, scaled by the time scale;\n"
           "                         0: no periodic heartbeats)\n"
           "  --tracker-model N      tracker model number announced (default 0)\n"
           "  --tracker-id ID        (default TRK0001)\n"
           "  --scanner-id ID        (default SCN0001)\n"
           "  --lowpart-version V    (default 1.4.2)\n"
           "  --script FILE          control lines to run once the first client connected\n"
           "  --setup LINE           a control line to run at start, before listening (repeat\n"
           "                         it; e.g. --setup 'device TRK0002 on kind=tracker')\n"
           "  --command-log FILE     append one line per command received (name and arguments)\n"
           "  --no-stdin             do not read control lines from standard input\n"
           "  --verbose              one line per command received\n"
           "  --export-truth DIR     write the scene's truth files into DIR and exit\n"
           "scene (console/README.md, \"Scene\"; each also a control line: scene KEY=VALUE):\n"
           "  --scene physical|plane|artefacts --trackers N (1-3) --mesh FILE.ply|obj\n"
           "  --marker-file FILE --artefact-frames N --tracker-scale-ppm PPM\n"
           "  --laser-rotation-deg DEG\n"
           "  --marker-count N --marker-diameter MM --laser-noise MM --normal-noise-deg DEG\n"
           "  --pose-noise-mm MM --pose-noise-deg DEG --marker-noise MM --noise off|default\n"
           "  --laser-lines N --points-per-line N --line-spacing MM --fan-deg DEG\n"
           "  --working-distance MM --depth-near MM --depth-far MM --speed MM/S\n"
           "  --row-spacing MM --tilt-deg DEG --motion none|sway --motion-mm MM\n"
           "  --motion-deg DEG --motion-period S\n"
           "  (--points N spreads N rays over the lines, --lines N and --markers N set the\n"
           "  line and marker counts of either scene)\n"
           // record and replay
           "  --record FILE          record every frame sent and received, with its time\n"
           "  --replay FILE          play a recording to clients instead of simulating\n"
           "  --replay-speed X       1: the recorded timing (default), 2: twice as fast, 0: no\n"
           "                         pauses\n"
           "  --replay-exit          end once the recording is played (default: stay up)\n"
           "  --help\n";
}

namespace {

bool toInt(const std::string& s, long lo, long hi, long& out) {
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || end == nullptr || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    out = v;
    return true;
}

// Options that take a value, each followed by a blank.
const std::string kValueOptions =
    "--endpoint --fps --seed --points --lines --markers --heartbeat-ms --tracker-model "
    "--tracker-id --scanner-id --lowpart-version --script --setup --command-log --export-truth ";

bool isSceneFlag(const std::string& a) {
    if (a.size() < 3 || a.compare(0, 2, "--") != 0) {
        return false;
    }
    for (const std::string& k : sceneKeys()) {
        if (a.compare(2, std::string::npos, k) == 0) {
            return true;
        }
    }
    return false;
}

// Record and replay.
const std::string kRecordValueOptions = "--record --replay --replay-speed ";

bool parseRecordOption(const std::string& a, const std::string& v, RecordOptions& out,
                       std::string& error) {
    if (a == "--record" && !v.empty()) {
        out.recordPath = v;
    } else if (a == "--replay" && !v.empty()) {
        out.replayPath = v;
    } else if (a == "--replay-speed") {
        char* end = nullptr;
        const double speed = std::strtod(v.c_str(), &end);
        if (v.empty() || end == nullptr || *end != '\0' || !(speed >= 0.0) || speed > 1e6) {
            error = "bad replay speed " + v + " (0: no pauses, 1: the recorded timing)";
            return false;
        }
        out.replaySpeed = speed;
    } else {
        error = "bad option " + a + " " + v;
        return false;
    }
    return true;
}

}  // namespace

bool parseOptions(int argc, const char* const* argv, ConsoleOptions& out, bool& help,
                  std::string& error) {
    help = false;
    out.endpoint = SDK_NV::wire::endpointFromEnvironment();
    bool pointsGiven = false, linesGiven = false, markersGiven = false;
    for (int i = 1; i < argc; ++i) {
        // "--option=value" is the same as "--option value".
        std::string a = argv[i];
        std::string inlineValue;
        bool hasInline = false;
        const size_t eq = a.find('=');
        if (a.compare(0, 2, "--") == 0 && eq != std::string::npos && eq > 2) {
            inlineValue = a.substr(eq + 1);
            a.erase(eq);
            hasInline = true;
        }
        auto value = [&](std::string& v) {
            if (hasInline) {
                v = inlineValue;
                hasInline = false;
                return true;
            }
            if (i + 1 >= argc) {
                error = a + " needs a value";
                return false;
            }
            v = argv[++i];
            return true;
        };
        auto noValue = [&] {
            if (hasInline) {
                error = a + " takes no value";
            }
            return !hasInline;
        };
        std::string v;
        long n = 0;
        if (a == "--help" || a == "-h") {
            if (!noValue()) {
                return false;
            }
            help = true;
            return true;
        } else if (a == "--no-stdin") {
            if (!noValue()) {
                return false;
            }
            out.readStdin = false;
        } else if (a == "--verbose") {
            if (!noValue()) {
                return false;
            }
            out.verbose = true;
        } else if (isSceneFlag(a)) {
            if (!value(v) || !applySceneSetting(out, a.substr(2), v, error)) {
                return false;
            }
        } else if (a == "--replay-exit") {
            if (!noValue()) {
                return false;
            }
            out.record.replayExit = true;
        } else if (kRecordValueOptions.find(a + " ") != std::string::npos && a.size() > 3) {
            if (!value(v) || !parseRecordOption(a, v, out.record, error)) {
                return false;
            }
        } else if (kValueOptions.find(a + " ") == std::string::npos || a.size() < 3) {
            error = "unknown option " + a;
            return false;
        } else if (!value(v)) {
            return false;
        } else if (a == "--endpoint") {
            if (!SDK_NV::wire::parseEndpoint(v, out.endpoint)) {
                error = "bad endpoint " + v;
                return false;
            }
        } else if (a == "--fps") {
            char* end = nullptr;
            const double fps = std::strtod(v.c_str(), &end);
            if (v.empty() || end == nullptr || *end != '\0' || !(fps >= 0.0) || fps > 10000.0) {
                error = "bad frame rate " + v;
                return false;
            }
            out.fps = fps;
        } else if (a == "--seed" && toInt(v, 0, 0x7fffffffL, n)) {
            out.seed = static_cast<uint32_t>(n);
        } else if (a == "--points" && toInt(v, 0, 5000000, n)) {
            out.laserPoints = static_cast<int>(n);
            pointsGiven = true;
        } else if (a == "--lines" && toInt(v, 1, 1000, n)) {
            out.laserLines = static_cast<int>(n);
            linesGiven = true;
        } else if (a == "--markers" && toInt(v, 0, 100000, n)) {
            out.markers = static_cast<int>(n);
            markersGiven = true;
        } else if (a == "--heartbeat-ms" && toInt(v, 0, 3600000, n)) {
            out.heartbeatMs = static_cast<int>(n);
        } else if (a == "--tracker-model" && toInt(v, 0, 1000, n)) {
            out.trackerModel = static_cast<int>(n);
        } else if (a == "--tracker-id" && !v.empty()) {
            out.trackerId = v;
        } else if (a == "--scanner-id" && !v.empty()) {
            out.scannerId = v;
        } else if (a == "--lowpart-version") {
            out.lowpartVersion = v;
        } else if (a == "--script") {
            out.scriptPath = v;
        } else if (a == "--setup") {
            out.setupLines.push_back(v);
        } else if (a == "--command-log" && !v.empty()) {
            out.commandLogPath = v;
        } else if (a == "--export-truth" && !v.empty()) {
            out.exportTruthDir = v;
        } else {
            error = "bad option " + a + " " + v;
            return false;
        }
    }
    // The plane source's counts also shape the physical scene when they are given.
    if (linesGiven) {
        out.scene.lines = std::min(out.laserLines, 64);
    }
    if (pointsGiven) {
        out.scene.pointsPerLine = std::max(2, out.laserPoints / out.scene.lines);
    }
    if (markersGiven) {
        out.scene.markerCount = std::min(out.markers, 10000);
    }
    if (!out.record.replayPath.empty() && !out.record.recordPath.empty()) {
        error = "--record and --replay do not go together";
        return false;
    }
    return true;
}

}  // namespace console
