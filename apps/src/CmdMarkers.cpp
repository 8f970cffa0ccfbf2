// pathfinder markers: the session's marker model by dynamic tracking into --out; with truth, the
// marker errors after a best rigid fit.
#include <algorithm>
#include <cstdio>

#include "Commands.h"

namespace pfapp {

namespace {

struct MarkersOptions {
    host::SessionOptions session;
    host::MarkerModelRequest request;
};

int runMarkers(const MarkersOptions& o) {
    host::Session session(shownOnStdout(o.session));
    const host::MarkerModelResult r = session.buildMarkerModel(o.request);
    std::printf("marker model: %zu markers from %zu frames -> %s\n", r.model.size(), r.frames,
                o.request.outFile.c_str());
    if (!r.observations.empty()) {
        std::printf("observations per marker: %zu to %zu\n",
                    *std::min_element(r.observations.begin(), r.observations.end()),
                    *std::max_element(r.observations.begin(), r.observations.end()));
    }
    if (r.compared && !r.matched) {
        std::printf("truth: the model matches the true markers in none of the scene's frames\n");
    } else if (r.compared) {
        std::printf(
            "after a best fit to the truth (%zu of %zu markers, %s frame): rms %.4f  max %.4f "
            "mm\n",
            r.residuals.count, r.model.size(), r.frame.c_str(), r.residuals.rms, r.residuals.max);
        std::printf("residual x sqrt(observations): rms %.4f mm", r.weightedRmsMm);
        if (r.markerNoiseMm > 0) {
            std::printf(" (bound 1.3 x marker noise %.4f mm)", 1.3 * r.markerNoiseMm);
        }
        std::printf("\n");
    }
    return host::kExitOk;
}

}  // namespace

void addMarkersCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<MarkersOptions>();
    host::MarkerModelRequest& r = o->request;
    CLI::App* sub = app.add_subcommand(
        "markers", "build a marker model with dynamic tracking and write it (id x y z nx ny nz)");
    sub->add_option("--out", r.outFile, "file to write")->required();
    auto* frames = sub->add_option("--frames", r.frames, "frames to track (default 100)")
                       ->check(CLI::Range(1, 1000000));
    sub->add_option("--seconds", r.seconds, "track for this many seconds instead")
        ->check(CLI::Range(0.1, 3600.0))
        ->excludes(frames);
    sub->add_option("--truth", r.truthDir, "truth folder: report marker errors after a best fit");
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runMarkers(*o); }; });
}

}  // namespace pfapp
