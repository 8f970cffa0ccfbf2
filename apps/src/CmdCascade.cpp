// pathfinder cascade measure --out FILE: the session measures the transfer matrices of all
// trackers and writes them as a cascade file. pathfinder cascade show FILE: print a cascade
// file.
#include <cstdio>

#include "Commands.h"

namespace pfapp {

namespace {

struct MeasureOptions {
    host::SessionOptions session;
    std::string out;
};

int runShow(const std::string& file) {
    const std::vector<host::TransferMatrix> entries = host::readCascadeFile(file);
    std::printf("%s: %zu tracker%s (p_K = B p_W + T)\n", file.c_str(), entries.size(),
                entries.size() == 1 ? "" : "s");
    for (const host::TransferMatrix& e : entries) {
        const auto& m = e.matrix;
        const host::MatrixCheck check = host::checkTransferMatrix(e);
        std::printf("  %s\n", e.trackerId.empty() ? "(no id)" : e.trackerId.c_str());
        for (int r = 0; r < 3; ++r) {
            std::printf("    B [% .6f % .6f % .6f]\n", m[4 * r], m[4 * r + 1], m[4 * r + 2]);
        }
        std::printf("    T [% .3f % .3f % .3f] mm\n", m[12], m[13], m[14]);
        std::printf("    det(B) %.6f, |B B^T - I| %.2e%s\n", check.determinant, check.orthogonality,
                    check.rigid ? "" : "  (not a rigid transform)");
    }
    return host::kExitOk;
}

int runMeasure(const MeasureOptions& o) {
    host::Session session(shownOnStdout(o.session));
    const std::vector<host::TransferMatrix> matrices = session.measureTransferMatrices(o.out);
    std::printf("%zu matrices -> %s\n", matrices.size(), o.out.c_str());
    return host::kExitOk;
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
