// pathfinder scan: bring the system up, settle the transfer matrices (measured, or from a
// cascade file), switch the laser on, assemble the delivered frames by their poses and write
// scan.ply, scan.png, markers.txt, holes.txt, cascade.bin and summary.json.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "CascadeFile.h"
#include "Commands.h"
#include "Progress.h"
#include "ScanReport.h"
#include "Truth.h"
#include "Writers.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"

namespace pfapp {

namespace {

struct ScanOptions {
    SessionOptions session;
    std::string out;
    size_t frames = 200;
    double seconds = 0.0;
    int trackers = 0;
    long seed = -1;
    std::string cascade;
    std::string object = "static";
    std::string replay;
};

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

int runScan(ScanOptions o) {
    const auto t0 = std::chrono::steady_clock::now();
    namespace fs = std::filesystem;
    prepareOutputFolder(o.out);

    std::vector<CascadeEntry> cascade;
    if (!o.cascade.empty()) {
        std::string error;
        if (!readCascadeFile(o.cascade, cascade, error)) {
            throw AppError(kExitInputFile, error);
        }
    }
    if (!o.replay.empty() && !platform::fileExists(o.replay)) {
        throw AppError(kExitInputFile, "cannot read the recording " + o.replay);
    }

    // The scene options go to the console that plays the scene and to its truth export.
    std::vector<std::string> scene;
    if (o.trackers > 0) {
        scene.insert(scene.end(), {"--trackers", std::to_string(o.trackers)});
    }
    if (o.seed >= 0) {
        scene.insert(scene.end(), {"--seed", std::to_string(o.seed)});
    }
    scene.insert(scene.end(), o.session.consoleArgs.begin(), o.session.consoleArgs.end());
    o.session.consoleArgs = scene;
    if (!o.replay.empty()) {
        // Played once: the console ends with the recording, so the scan ends with it too.
        o.session.consoleArgs.insert(o.session.consoleArgs.end(),
                                     {"--replay", o.replay, "--replay-exit"});
    }
    o.session.consoleLog = (fs::path(o.out) / "console.log").string();

    HostSession session(o.session);
    try {
        session.open();
    } catch (const AppError& e) {
        // A recording the console cannot read ends it at start.
        if (!o.replay.empty() && e.code() == kExitConsole &&
            std::string(e.what()).find("ended at start") != std::string::npos) {
            throw AppError(kExitInputFile, "cannot replay " + o.replay + ": " + e.what());
        }
        throw;
    }
    std::printf("connected to %s in %.1f s\n", session.endpoint().c_str(),
                session.startupSeconds());

    const std::string truthDir = (fs::path(o.out) / "truth").string();
    std::optional<Truth> truth;
    if (session.startedConsole() && o.replay.empty()) {
        truth = exportTruth(o.session.consoleProgram, scene, truthDir);
    }

    device::CPathfinder& dev = session.device();
    // The module measures and triggers the working devices: every device announced.
    std::vector<std::string> ids;
    for (const device::tagDeviceInfo& d : session.devices()) {
        ids.push_back(d.serialText());
    }
    HostSession::check(dev.setWorkingDevice(ids), "choosing the working devices");
    std::string matrixSource;
    if (!cascade.empty()) {
        const int rc = dev.importCascadeFile(platform::widePath(o.cascade));
        HostSession::check(rc, "importing the cascade file " + o.cascade);
        matrixSource = "cascade file";
    } else if (!o.replay.empty()) {
        matrixSource = "as recorded";
    } else if (!truth || truth->markers.empty()) {
        // Static tracking registers each tracker's markers against a reference set; without
        // one a measurement only runs into its timeout.
        std::printf(
            "transfer matrices: no reference markers (no truth, no --cascade); poses "
            "stay as the trackers deliver them\n");
        matrixSource = "none";
    } else {
        const size_t count = session.setReferenceMarkers(*truth);
        std::printf("measuring the transfer matrices against %zu reference markers ...\n", count);
        std::fflush(stdout);
        const int rc = dev.getTransferMatrix();
        if (rc == device::RESULT_NOT_SUPPORTED) {
            std::printf("transfer matrices: %s; poses stay as the trackers deliver them\n",
                        HostSession::resultText(rc).c_str());
            matrixSource = "none";
        } else {
            HostSession::check(rc, "measuring the transfer matrices");
            matrixSource = "measured";
        }
    }

    const bool holes = o.object == "hole";
    HostSession::check(
        dev.setScanObject(holes ? device::SCAN_OBJECT_METAL_HOLE : device::SCAN_OBJECT_SURFACE,
                          true),
        "choosing the scan object");
    session.startCollecting();
    if (o.replay.empty()) {
        HostSession::check(dev.controlLaserOn(), "switching the laser on");
    }
    {
        // A recording plays at its own pace, laser commands included: take what comes until
        // it stops.
        const bool replay = !o.replay.empty();
        const size_t frames = replay || o.seconds > 0 ? 0 : o.frames;
        Progress progress(replay ? "replaying" : "scanning", "frames", frames, o.seconds,
                          platform::stdoutIsTerminal());
        session.waitForFrames(frames, o.seconds, replay ? 8.0 : 5.0,
                              [&](size_t n) { progress.update(n); });
        progress.finish(session.framesSoFar());
    }
    if (o.replay.empty()) {
        dev.controlLaserOff();
        // Frames the device sent before it saw the laser go off are still on their way through
        // the module; they belong to the scan (a replay of the recording delivers them too).
        session.waitForFrames(0, 3.0, 0.3, {});
    }
    Collection c = session.stopCollecting();

    ScanReport report;
    report.collection = std::move(c);
    report.startupSeconds = session.startupSeconds();
    report.matrixSource = matrixSource;
    report.matrices = session.transferMatrices();
    if (report.matrices.empty()) {
        report.matrices = cascade;
    }
    if (report.matrices.empty()) {
        for (const auto& entry : report.collection.trackingMatrices) {
            report.matrices.push_back(CascadeEntry{entry.first, entry.second});
        }
    }
    report.object = o.object;
    report.endpoint = session.endpoint();
    if (truth) {
        report.evaluate(*truth);
    }
    report.writeFiles(o.out);
    report.totalSeconds = secondsSince(t0);
    report.writeSummary(o.out);
    report.printTable(stdout);
    std::printf("files: %s\n", report.filesLine(o.out).c_str());
    if (report.collection.frames == 0) {
        throw AppError(kExitNoData,
                       "no frames were delivered: the module passed on none of the "
                       "console's frames");
    }
    return kExitOk;
}

}  // namespace

void addScanCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<ScanOptions>();
    CLI::App* sub =
        app.add_subcommand("scan",
                           "scan the part and write scan.ply, scan.png, markers.txt, holes.txt, "
                           "cascade.bin and summary.json into --out");
    sub->add_option("--out", o->out, "output folder (created when missing)")->required();
    auto* frames = sub->add_option("--frames", o->frames, "frames to collect (default 200)")
                       ->check(CLI::Range(1, 1000000));
    auto* seconds = sub->add_option("--seconds", o->seconds, "scan for this many seconds instead")
                        ->check(CLI::Range(0.1, 3600.0));
    frames->excludes(seconds);
    sub->add_option("--trackers", o->trackers, "trackers in the simulated scene")
        ->check(CLI::Range(1, 16));
    sub->add_option("--seed", o->seed, "seed of the simulated scene")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--cascade", o->cascade,
                    "cascade file with the transfer matrices (instead of measuring them)");
    sub->add_option("--object", o->object, "what is scanned: static (surface) or hole")
        ->check(CLI::IsMember({"static", "hole"}));
    sub->add_option("--replay", o->replay, "play a console recording instead of a live scan");
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runScan(*o); }; });
}

}  // namespace pfapp
