// pathfinder markers: build a marker model with dynamic tracking and write it (id x y z nx ny
// nz per line); with truth, the marker errors after a best rigid fit.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "Commands.h"
#include "Progress.h"
#include "Truth.h"
#include "Writers.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"

namespace pfapp {

namespace {

struct MarkersOptions {
    SessionOptions session;
    std::string out;
    size_t frames = 100;
    double seconds = 0.0;
    std::string truth;
};

int runMarkers(MarkersOptions o) {
    namespace fs = std::filesystem;
    const fs::path outPath(o.out);
    prepareOutputFolder(outPath.has_parent_path() ? outPath.parent_path().string() : ".");
    std::optional<Truth> truth;
    if (!o.truth.empty()) {
        std::string error;
        truth = loadTruthFolder(o.truth, error);
        if (!truth) {
            throw AppError(kExitInputFile, error);
        }
    }

    HostSession session(o.session);
    session.open();
    device::CPathfinder& dev = session.device();
    HostSession::check(dev.setDynamicTracking(device::SCAN_OBJECT_MARKPOINT),
                       "choosing dynamic marker tracking");
    session.startCollecting();
    HostSession::check(dev.controlLaserOn(), "switching the laser on");
    {
        Progress progress("tracking", "frames", o.seconds > 0 ? 0 : o.frames, o.seconds,
                          platform::stdoutIsTerminal());
        session.waitForFrames(o.seconds > 0 ? 0 : o.frames, o.seconds, 5.0,
                              [&](size_t n) { progress.update(n); });
        progress.finish(session.framesSoFar());
    }
    dev.controlLaserOff();
    const Collection c = session.stopCollecting();

    device::tagRefMarkpointData model;
    HostSession::check(dev.GetOptimizationMarkpoint(model), "building the marker model");
    if (model.empty()) {
        throw AppError(kExitNoData, "the marker model is empty (" + std::to_string(c.frames) +
                                        " frames delivered)");
    }
    std::vector<std::string> lines{"# id x y z nx ny nz (mm, reference frame of the model)"};
    std::vector<Eigen::Vector3d> positions;
    for (size_t i = 0; i < model.size(); ++i) {
        const double* p = &model.positions[3 * i];
        const double* n = model.normals.size() >= 3 * (i + 1) ? &model.normals[3 * i] : nullptr;
        char line[256];
        std::snprintf(line, sizeof(line), "%d %.4f %.4f %.4f %.6f %.6f %.6f", model.labels[i], p[0],
                      p[1], p[2], n ? n[0] : 0.0, n ? n[1] : 0.0, n ? n[2] : 0.0);
        lines.push_back(line);
        positions.emplace_back(p[0], p[1], p[2]);
    }
    writeOrThrow(TextWriter(lines), o.out);
    std::printf("marker model: %zu markers from %zu frames -> %s\n", model.size(), c.frames,
                o.out.c_str());
    // The frames delivered the markers they added, in the model's frame: how often each model
    // marker was seen.
    std::vector<Eigen::Vector3d> observed;
    for (const auto& byId : c.markers) {
        observed.insert(observed.end(), byId.second.begin(), byId.second.end());
    }
    const std::vector<size_t> seen = countObservations(positions, observed, 0.5);
    if (!seen.empty()) {
        std::printf("observations per marker: %zu to %zu\n",
                    *std::min_element(seen.begin(), seen.end()),
                    *std::max_element(seen.begin(), seen.end()));
    }
    if (truth) {
        std::vector<Eigen::Vector3d> real;
        for (const auto& m : truth->markers) {
            real.push_back(m.second);
        }
        std::vector<std::pair<std::string, std::array<double, 16>>> frames;
        for (const CascadeEntry& e : truth->matrices) {
            frames.emplace_back(e.trackerId, e.matrix);
        }
        const MarkerModelMatch match = matchMarkerModel(positions, real, frames, 1.0);
        if (!match.ok) {
            std::printf(
                "truth: the model matches the true markers in none of the scene's "
                "frames\n");
        } else {
            const DistanceStats s = distanceStats(match.fit.residuals);
            std::printf(
                "after a best fit to the truth (%zu of %zu markers, %s frame): rms %.4f  "
                "max %.4f mm\n",
                s.count, model.size(), match.frame.c_str(), s.rms, s.max);
            std::vector<size_t> views;
            for (size_t i : match.paired) {
                views.push_back(seen[i]);
            }
            const double weighted = observationWeightedRms(match.fit.residuals, views);
            const double sigma = truth->markerNoiseMm * std::sqrt(3.0);
            std::printf("residual x sqrt(observations): rms %.4f mm", weighted);
            if (sigma > 0) {
                std::printf(" (bound 1.3 x marker noise %.4f mm)", 1.3 * sigma);
            }
            std::printf("\n");
        }
    }
    return kExitOk;
}

}  // namespace

void addMarkersCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<MarkersOptions>();
    CLI::App* sub = app.add_subcommand(
        "markers", "build a marker model with dynamic tracking and write it (id x y z nx ny nz)");
    sub->add_option("--out", o->out, "file to write")->required();
    auto* frames = sub->add_option("--frames", o->frames, "frames to track (default 100)")
                       ->check(CLI::Range(1, 1000000));
    sub->add_option("--seconds", o->seconds, "track for this many seconds instead")
        ->check(CLI::Range(0.1, 3600.0))
        ->excludes(frames);
    sub->add_option("--truth", o->truth, "truth folder: report marker errors after a best fit");
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runMarkers(*o); }; });
}

}  // namespace pfapp
