// pathfinder scan: the session's scan into --out, and its summary as a table.
#include <cstdio>
#include <filesystem>

#include "Commands.h"
#include "View.h"

namespace pfapp {

namespace {

struct ScanOptions {
    host::SessionOptions session;
    host::ScanRequest request;
    int trackers = 0;
    long seed = -1;
    ViewArgs view;
};

void printTable(const host::ScanResult& r) {
    std::printf("\n  %-22s %zu (%zu dropped)\n", "frames", r.frames, r.dropped);
    std::printf("  %-22s %zu%s\n", "points", r.cloud.size(),
                r.cloud.hasNormals() ? " with normals" : "");
    std::printf("  %-22s %.1f\n", "frames per second", r.framesPerSecond);
    std::printf("  %-22s %.1f s (start-up %.1f s, total %.1f s)\n", "scan", r.seconds,
                r.startupSeconds, r.totalSeconds);
    std::printf("  %-22s %zu\n", "markers seen", r.markers.size());
    std::printf("  %-22s %zu\n", "holes", r.holes.size());
    std::printf("  %-22s %s\n", "transfer matrices", r.transferMatrices.c_str());
    if (r.hasAccuracy) {
        std::printf("  %-22s rms %.4f  p95 %.4f  max %.4f mm (%zu points)\n", "distance to truth",
                    r.accuracy.rms, r.accuracy.p95, r.accuracy.max, r.accuracy.count);
        if (r.noiseSigmaMm > 0) {
            std::printf("  %-22s %.4f mm\n", "simulated noise", r.noiseSigmaMm);
        }
    } else {
        std::printf("  %-22s %s\n", "distance to truth",
                    r.truth ? "no surface in the truth" : "no truth from this console");
    }
    for (const host::TrackerFigures& t : r.trackers) {
        std::printf("  tracker %-14s %.4f mm, %.5f deg\n", t.id.c_str(), t.translationMm,
                    t.rotationDeg);
    }
    std::printf("\n");
}

int runScan(ScanOptions o) {
    namespace fs = std::filesystem;
    addSceneArgs(o.session, o.trackers, o.seed);
    o.session.consoleLog = (fs::path(o.request.outDir) / "console.log").string();
    o.session.truthDir = (fs::path(o.request.outDir) / "truth").string();
    std::unique_ptr<view::Server> server =
        o.view.enabled ? startView(o.view, "pathfinder scan " + o.request.outDir) : nullptr;
    host::Session session(shownOnStdout(o.session));
    host::ScanResult r;
    {
        WatchedSession watched(server.get(), session);
        r = session.scan(o.request);
    }
    if (server) {
        server->finish(r.summaryJson, r.stopped);
    }
    printTable(r);
    std::string files;
    for (const std::string& f : r.files) {
        const std::string name = fs::path(f).filename().string();
        if (name == "scan.ply" || name == "scan.png" || name == "summary.json") {
            files += (files.empty() ? "" : "  ") + f;
        }
    }
    std::printf("files: %s\n",
                files.empty() ? "(no scan files: nothing was delivered)" : files.c_str());
    if (server && o.view.wait) {
        serveUntilInterrupted(*server);
    }
    if (r.frames == 0) {
        throw host::Error(host::kExitNoData,
                          "no frames were delivered: the module passed on none of the console's "
                          "frames");
    }
    return host::kExitOk;
}

}  // namespace

void addScanCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<ScanOptions>();
    host::ScanRequest& r = o->request;
    CLI::App* sub =
        app.add_subcommand("scan",
                           "scan the part and write scan.ply, scan.png, markers.txt, holes.txt, "
                           "cascade.bin and summary.json into --out");
    sub->add_option("--out", r.outDir, "output folder (created when missing)")->required();
    auto* frames = sub->add_option("--frames", r.frames, "frames to collect (default 200)")
                       ->check(CLI::Range(1, 1000000));
    auto* seconds = sub->add_option("--seconds", r.seconds, "scan for this many seconds instead")
                        ->check(CLI::Range(0.1, 3600.0));
    frames->excludes(seconds);
    sub->add_option("--trackers", o->trackers, "trackers in the simulated scene")
        ->check(CLI::Range(1, 16));
    sub->add_option("--seed", o->seed, "seed of the simulated scene")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--cascade", r.cascade,
                    "cascade file with the transfer matrices (instead of measuring them)");
    sub->add_option("--object", r.object, "what is scanned: static (surface) or hole")
        ->check(CLI::IsMember({"static", "hole"}));
    auto* replay =
        sub->add_option("--replay", r.replay, "play a console recording instead of a live scan");
    sub->add_option("--truth", r.truth,
                    "with --replay: the recorded scene's truth folder (DIR/truth of the scan that "
                    "recorded it), to measure the replay against")
        ->needs(replay);
    addViewOptions(sub, o->view, true);
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runScan(*o); }; });
}

}  // namespace pfapp
