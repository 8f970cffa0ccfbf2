// pathfinder verify: the session's acceptance test on the simulated artefacts into --out, its
// report printed; exit 9 when a characteristic fails.
#include <cstdio>
#include <filesystem>
#include <optional>

#include "Commands.h"

namespace pfapp {

namespace {

struct VerifyOptions {
    host::SessionOptions session;
    host::VerifyRequest request;
    int trackers = 0;
    long seed = -1;
    std::optional<double> pf, ps, sd, f;
};

int runVerify(VerifyOptions o) {
    namespace fs = std::filesystem;
    const std::pair<const char*, const std::optional<double>&> flags[] = {
        {"PF", o.pf}, {"PS", o.ps}, {"SD", o.sd}, {"F", o.f}};
    for (const auto& flag : flags) {
        if (flag.second) {
            o.request.limits[flag.first] = *flag.second;
        }
    }
    addSceneArgs(o.session, o.trackers, o.seed);
    o.session.consoleLog = (fs::path(o.request.outDir) / "console.log").string();
    o.session.truthDir = (fs::path(o.request.outDir) / "truth").string();
    host::Session session(shownOnStdout(o.session));
    const host::VerifyResult r = session.verify(o.request);
    std::fputs(r.report.c_str(), stdout);
    std::printf("files: verify.json verify.png verify.txt in %s\n", o.request.outDir.c_str());
    return r.pass ? host::kExitOk : host::kExitVerifyFailed;
}

}  // namespace

void addVerifyCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<VerifyOptions>();
    CLI::App* sub = app.add_subcommand(
        "verify",
        "acceptance test on simulated artefacts (sphere, ball bar, plane): PF, PS, SD and F "
        "against limits; writes verify.json, verify.png and verify.txt into --out");
    sub->add_option("--out", o->request.outDir, "output folder (created when missing)")->required();
    sub->add_option("--trackers", o->trackers, "trackers in the simulated scene")
        ->check(CLI::Range(1, 16));
    sub->add_option("--seed", o->seed, "seed of the simulated scene")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--frames-per-sphere", o->request.framesPerSphere,
                    "frames the scanner spends on each sphere (the plane gets twice as many)")
        ->check(CLI::Range(2, 100000));
    sub->add_option("--limits", o->request.limitsFile,
                    "JSON file of limits in mm: {\"PF\": .., \"PS\": .., \"SD\": .., \"F\": ..}");
    sub->add_option("--limit-pf", o->pf, "limit of PF in mm (default 0.25)")
        ->check(CLI::PositiveNumber);
    sub->add_option("--limit-ps", o->ps, "limit of |PS| in mm (default 0.05)")
        ->check(CLI::PositiveNumber);
    sub->add_option("--limit-sd", o->sd, "limit of |SD| in mm (default 0.08)")
        ->check(CLI::PositiveNumber);
    sub->add_option("--limit-f", o->f, "limit of F in mm (default 0.25)")
        ->check(CLI::PositiveNumber);
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runVerify(*o); }; });
}

}  // namespace pfapp
