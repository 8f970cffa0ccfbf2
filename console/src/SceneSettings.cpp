// Scene settings: one table shared by the command-line flags (--KEY VALUE) and the `scene`
// control line (scene KEY=VALUE...), and the control line itself.
#include <cstdlib>
#include <functional>

#include "Internal.h"
#include "console/Console.h"

namespace console {

namespace {

bool toDouble(const std::string& s, double lo, double hi, double& out) {
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || end == nullptr || *end != '\0' || !(v >= lo) || !(v <= hi)) {
        return false;
    }
    out = v;
    return true;
}

struct Setting {
    const char* key;
    std::function<bool(ConsoleOptions&, const std::string&)> apply;
};

// A floating-point member of the scene options within [lo, hi].
Setting number(const char* key, double sim::SceneOptions::*member, double lo, double hi) {
    return {key, [member, lo, hi](ConsoleOptions& o, const std::string& v) {
                return toDouble(v, lo, hi, o.scene.*member);
            }};
}

Setting integer(const char* key, int sim::SceneOptions::*member, int lo, int hi) {
    return {key, [member, lo, hi](ConsoleOptions& o, const std::string& v) {
                double d = 0;
                if (!toDouble(v, lo, hi, d) || d != static_cast<int>(d)) {
                    return false;
                }
                o.scene.*member = static_cast<int>(d);
                return true;
            }};
}

const std::vector<Setting>& settings() {
    using S = sim::SceneOptions;
    static const std::vector<Setting> table = {
        {"scene",
         [](ConsoleOptions& o, const std::string& v) {
             o.sceneKind = v;
             o.scene.artefacts = v == "artefacts";
             return v == "physical" || v == "plane" || v == "artefacts";
         }},
        integer("trackers", &S::trackers, 1, 3),
        {"mesh",
         [](ConsoleOptions& o, const std::string& v) {
             o.scene.meshPath = v == "default" ? std::string() : v;
             return true;
         }},
        {"marker-file",
         [](ConsoleOptions& o, const std::string& v) {
             o.scene.markersPath = v == "default" ? std::string() : v;
             return true;
         }},
        integer("marker-count", &S::markerCount, 0, 10000),
        number("marker-diameter", &S::markerDiameter, 0.5, 100),
        number("laser-noise", &S::laserNoise, 0, 10),
        number("normal-noise-deg", &S::laserNormalNoiseDeg, 0, 45),
        number("pose-noise-mm", &S::poseNoiseMm, 0, 10),
        number("pose-noise-deg", &S::poseNoiseDeg, 0, 10),
        number("marker-noise", &S::markerNoise, 0, 10),
        integer("laser-lines", &S::lines, 1, 64),
        integer("points-per-line", &S::pointsPerLine, 2, 100000),
        number("line-spacing", &S::lineSpacing, 0, 200),
        number("fan-deg", &S::fanDeg, 1, 170),
        number("working-distance", &S::workingDistance, 50, 5000),
        number("depth-near", &S::depthNear, 1, 5000),
        number("depth-far", &S::depthFar, 2, 10000),
        number("speed", &S::speed, 0, 10000),
        number("row-spacing", &S::rowSpacing, 1, 1000),
        number("tilt-deg", &S::tiltDeg, 0, 60),
        {"motion",
         [](ConsoleOptions& o, const std::string& v) {
             o.scene.motion = v;
             return v == "none" || v == "sway";
         }},
        integer("artefact-frames", &S::artefactFrames, 2, 100000),
        number("tracker-scale-ppm", &S::trackerScalePpm, -100000, 100000),
        number("laser-rotation-deg", &S::laserRotationDeg, -10, 10),
        number("motion-mm", &S::motionMm, 0, 1000),
        number("motion-deg", &S::motionDeg, 0, 90),
        number("motion-period", &S::motionPeriodS, 0.1, 3600),
        {"noise",
         [](ConsoleOptions& o, const std::string& v) {
             // noise=off: every noise level zero (the exact scene); noise=default: as built.
             if (v == "off") {
                 o.scene.laserNoise = o.scene.laserNormalNoiseDeg = 0;
                 o.scene.poseNoiseMm = o.scene.poseNoiseDeg = o.scene.markerNoise = 0;
                 return true;
             }
             if (v == "default") {
                 const sim::SceneOptions d;
                 o.scene.laserNoise = d.laserNoise;
                 o.scene.laserNormalNoiseDeg = d.laserNormalNoiseDeg;
                 o.scene.poseNoiseMm = d.poseNoiseMm;
                 o.scene.poseNoiseDeg = d.poseNoiseDeg;
                 o.scene.markerNoise = d.markerNoise;
                 return true;
             }
             return false;
         }},
    };
    return table;
}

}  // namespace

const std::vector<std::string>& sceneKeys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> k;
        for (const Setting& s : settings()) {
            k.push_back(s.key);
        }
        return k;
    }();
    return keys;
}

bool applySceneSetting(ConsoleOptions& options, const std::string& key, const std::string& value,
                       std::string& error) {
    for (const Setting& s : settings()) {
        if (key == s.key) {
            if (!s.apply(options, value)) {
                error = "bad value for " + key + ": " + value;
                return false;
            }
            return true;
        }
    }
    error = "unknown scene setting " + key;
    return false;
}

// Trackers of the scene the console does not know yet become devices (announced at once when
// a client is connected).
void Console::addSceneTrackers() {
    for (const std::string& id : m_source->trackerIds()) {
        if (findDevice(id) == nullptr) {
            Device d;
            d.id = id;
            d.type = SDK_NV::DEVICE_TRACKER;
            d.model = m_options.trackerModel;
            m_devices.insert(
                m_devices.begin() + 1 +
                    static_cast<long>(std::count_if(
                        m_devices.begin() + 1, m_devices.end(),
                        [](const Device& x) { return x.type == SDK_NV::DEVICE_TRACKER; })),
                d);
            if (m_client != SDK_NV::net::kInvalidSocket) {
                announceDevice(d, true);
            }
        }
    }
}

// scene KEY=VALUE... | scene export DIR | scene show
bool Console::controlScene(const std::vector<std::string>& w, std::string& error) {
    if (w.size() == 3 && w[1] == "export") {
        if (!m_source->exportTruth(w[2], error)) {
            return false;
        }
        say("truth written to " + w[2]);
        return true;
    }
    if (w.size() == 2 && w[1] == "show") {
        std::string line = "scene " + m_options.sceneKind;
        const sim::SceneOptions& s = m_options.scene;
        line += " seed=" + std::to_string(m_options.seed) +
                " trackers=" + std::to_string(s.trackers) +
                " laser-lines=" + std::to_string(s.lines) +
                " points-per-line=" + std::to_string(s.pointsPerLine) + " motion=" + s.motion;
        say(line);
        return true;
    }
    if (w.size() < 2) {
        error = "usage: scene KEY=VALUE... | scene export DIR | scene show";
        return false;
    }
    ConsoleOptions changed = m_options;
    for (size_t i = 1; i < w.size(); ++i) {
        const size_t eq = w[i].find('=');
        if (eq == std::string::npos || eq == 0) {
            error = "scene: expected KEY=VALUE, got " + w[i];
            return false;
        }
        const std::string key = w[i].substr(0, eq), value = w[i].substr(eq + 1);
        if (key == "seed") {
            char* end = nullptr;
            const long v = std::strtol(value.c_str(), &end, 10);
            if (value.empty() || *end != '\0' || v < 0 || v > 0x7fffffffL) {
                error = "bad value for seed: " + value;
                return false;
            }
            changed.seed = static_cast<uint32_t>(v);
            changed.scene.seed = changed.seed;
        } else if (!applySceneSetting(changed, key, value, error)) {
            return false;
        }
    }
    std::unique_ptr<FrameSource> source = makeFrameSource(changed, error);
    if (!source) {
        return false;
    }
    m_options = changed;
    m_source = std::move(source);
    addSceneTrackers();
    return true;
}

}  // namespace console
