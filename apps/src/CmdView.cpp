// pathfinder view DIR: a finished scan folder (scan.ply, summary.json, truth/ or --truth,
// cascade.bin) on the live view's page, until Ctrl-C.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Commands.h"
#include "View.h"

namespace pfapp {

namespace {

struct ViewOptions {
    std::string dir;
    std::string truth;  // empty: DIR/truth when it is there
    ViewArgs view;
};

int runView(const ViewOptions& o) {
    namespace fs = std::filesystem;
    const fs::path dir(o.dir);
    const host::Cloud cloud = host::readPlyFile((dir / "scan.ply").string());
    std::string summary = "{}";
    if (std::ifstream in{dir / "summary.json"}) {
        summary.assign(std::istreambuf_iterator<char>(in), {});
    }
    host::TruthSurface truth;
    if (!o.truth.empty()) {
        truth = host::TruthSurface::load(o.truth);  // 5 when it cannot be read
    } else if (fs::is_directory(dir / "truth")) {
        try {
            truth = host::TruthSurface::load((dir / "truth").string());
        } catch (const host::Error& e) {
            std::printf("truth: %s; coloured by height\n", e.what());
        }
    }
    std::vector<host::TransferMatrix> trackers;
    if (fs::exists(dir / "cascade.bin")) {
        trackers = host::readCascadeFile((dir / "cascade.bin").string());
    }
    std::printf("%zu points%s\n", cloud.size(),
                truth.valid() ? ", coloured by the distance to the truth" : ", coloured by height");
    std::unique_ptr<view::Server> server = startView(o.view, "pathfinder view " + o.dir);
    server->show(cloud, truth, trackers, summary);
    serveUntilInterrupted(*server);
    return host::kExitOk;
}

}  // namespace

void addViewCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<ViewOptions>();
    CLI::App* sub = app.add_subcommand(
        "view", "show a finished scan folder (scan.ply, summary, truth) in the browser");
    sub->add_option("dir", o->dir, "the scan's output folder")
        ->required()
        ->check(CLI::ExistingDirectory);
    sub->add_option("--truth", o->truth,
                    "truth folder to colour by (default: DIR/truth, else coloured by height)");
    addViewOptions(sub, o->view, false);
    sub->callback([o, &run] { run.run = [o] { return runView(*o); }; });
}

}  // namespace pfapp
