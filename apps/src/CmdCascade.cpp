// pathfinder cascade measure --out FILE: measure the transfer matrices of all trackers and
// write them as a cascade file. pathfinder cascade show FILE: print a cascade file.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "CascadeFile.h"
#include "Commands.h"
#include "Truth.h"
#include "device/Pathfinder.h"

namespace pfapp {

namespace {

struct MeasureOptions {
    SessionOptions session;
    std::string out;
};

int runShow(const std::string& file) {
    std::vector<CascadeEntry> entries;
    std::string error;
    if (!readCascadeFile(file, entries, error)) {
        throw AppError(kExitInputFile, error);
    }
    std::printf("%s: %zu tracker%s (p_K = B p_W + T)\n", file.c_str(), entries.size(),
                entries.size() == 1 ? "" : "s");
    for (const CascadeEntry& e : entries) {
        const auto& m = e.matrix;
        Eigen::Matrix3d b;
        b << m[0], m[1], m[2], m[4], m[5], m[6], m[8], m[9], m[10];
        const double orth = (b * b.transpose() - Eigen::Matrix3d::Identity()).norm();
        std::printf("  %s\n", e.trackerId.empty() ? "(no id)" : e.trackerId.c_str());
        for (int r = 0; r < 3; ++r) {
            std::printf("    B [% .6f % .6f % .6f]%s\n", b(r, 0), b(r, 1), b(r, 2),
                        r == 1 ? "" : "");
        }
        std::printf("    T [% .3f % .3f % .3f] mm\n", m[12], m[13], m[14]);
        std::printf(
            "    det(B) %.6f, |B B^T - I| %.2e%s\n", b.determinant(), orth,
            orth > 1e-6 || std::abs(m[15] - 1.0) > 1e-12 ? "  (not a rigid transform)" : "");
    }
    return kExitOk;
}

int runMeasure(const MeasureOptions& o) {
    namespace fs = std::filesystem;
    const fs::path outPath(o.out);
    prepareOutputFolder(outPath.has_parent_path() ? outPath.parent_path().string() : ".");
    HostSession session(o.session);
    session.open();
    device::CPathfinder& dev = session.device();
    // The module measures and triggers the working devices: every device announced.
    std::vector<std::string> ids;
    for (const device::tagDeviceInfo& d : session.devices()) {
        ids.push_back(d.serialText());
    }
    HostSession::check(dev.setWorkingDevice(ids), "choosing the working devices");
    std::optional<Truth> truth;
    if (session.startedConsole()) {
        const std::string dir = o.out + ".truth";
        truth = exportTruth(o.session.consoleProgram, o.session.consoleArgs, dir);
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    if (truth) {
        session.setReferenceMarkers(*truth);
    }
    std::printf("measuring the transfer matrices ...\n");
    std::fflush(stdout);
    HostSession::check(dev.getTransferMatrix(), "measuring the transfer matrices");
    std::vector<CascadeEntry> entries = session.transferMatrices();
    if (!entries.empty()) {
        std::string error;
        if (!writeCascadeFile(o.out, entries, error)) {
            throw AppError(kExitOutput, error);
        }
        std::printf("%zu matrices -> %s\n", entries.size(), o.out.c_str());
        return kExitOk;
    }
    // A module that keeps no table to hand out: the matrices some frames carry.
    HostSession::check(dev.setScanObject(device::SCAN_OBJECT_SURFACE, true),
                       "choosing the scan object");
    session.startCollecting();
    HostSession::check(dev.controlLaserOn(), "switching the laser on");
    session.waitForFrames(5, 0, 5.0, nullptr);
    dev.controlLaserOff();
    const Collection c = session.stopCollecting();
    for (const auto& m : c.trackingMatrices) {
        entries.push_back(CascadeEntry{m.first, m.second});
    }
    if (entries.empty()) {
        throw AppError(kExitNoData, "the module handed out no transfer matrices (" +
                                        std::to_string(c.frames) + " frames delivered)");
    }
    std::string error;
    if (!writeCascadeFile(o.out, entries, error)) {
        throw AppError(kExitOutput, error);
    }
    std::printf("%zu matrices -> %s\n", entries.size(), o.out.c_str());
    return kExitOk;
}

}  // namespace

void addCascadeCommand(CLI::App& app, CommandRun& run) {
    CLI::App* sub = app.add_subcommand("cascade", "transfer matrices of chained trackers");
    sub->require_subcommand(1);
    auto m = std::make_shared<MeasureOptions>();
    CLI::App* measure =
        sub->add_subcommand("measure", "measure the transfer matrices and write a cascade file");
    measure->add_option("--out", m->out, "cascade file to write")->required();
    addSessionOptions(measure, m->session);
    measure->callback([m, &run] { run.run = [m] { return runMeasure(*m); }; });

    auto file = std::make_shared<std::string>();
    CLI::App* show = sub->add_subcommand("show", "print the matrices of a cascade file");
    show->add_option("FILE", *file, "cascade file")->required();
    show->callback([file, &run] { run.run = [file] { return runShow(*file); }; });
}

}  // namespace pfapp
