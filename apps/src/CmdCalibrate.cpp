// pathfinder calibrate --mode M: the session's calibration run, one line per step.
#include <cstdio>
#include <map>

#include "Commands.h"

namespace pfapp {

namespace {

struct CalibrateOptions {
    host::SessionOptions session;
    std::string mode = "scanner";
    int grabs = 12;
};

const std::map<std::string, device::emDeviceCalibraMode>& modes() {
    static const std::map<std::string, device::emDeviceCalibraMode> m{
        {"scan-check", device::CALIBRA_MODE_SCAN_CHECK},
        {"scanner", device::CALIBRA_MODE_SCANNER},
        {"tracker-bar", device::CALIBRA_MODE_TRACKER_BAR},
        {"laser", device::CALIBRA_MODE_LASER},
        {"far-laser", device::CALIBRA_MODE_FAR_LASER},
        {"scanner-position", device::CALIBRA_MODE_SCANNER_POSITION},
        {"0", device::CALIBRA_MODE_SCAN_CHECK},
        {"1", device::CALIBRA_MODE_SCANNER},
        {"2", device::CALIBRA_MODE_TRACKER_BAR},
        {"3", device::CALIBRA_MODE_LASER},
        {"4", device::CALIBRA_MODE_FAR_LASER},
        {"5", device::CALIBRA_MODE_SCANNER_POSITION}};
    return m;
}

void printStep(const host::CalibrationStep& s) {
    const auto& v = s.values;
    switch (s.kind) {
        case host::CalibrationStep::Started:
            std::printf("step: started\n");
            return;
        case host::CalibrationStep::Grab:
            std::printf("step: grab %d (pose %d)\n", s.grab, s.pose);
            return;
        case host::CalibrationStep::Exhausted:
            std::printf("  no more data: every location is grabbed\n");
            return;
        case host::CalibrationStep::Result:
            std::printf("step: result %.4f after %d grabs\n", s.result, s.grab);
            return;
        case host::CalibrationStep::Event:
            break;
    }
    switch (s.event) {
        case device::FAST_CALI_LOCATION:
            std::printf("  next location %g\n", v.empty() ? 0.0 : v[0]);
            break;
        case device::FAST_CALI_BOARD_LATTICE:
            std::printf("  board lattice %g x %g\n", v.size() > 0 ? v[0] : 0.0,
                        v.size() > 1 ? v[1] : 0.0);
            break;
        case device::FAST_CALI_SCANNER_BOARD:
            std::printf("  scanner board received\n");
            break;
        case device::FAST_CALI_SCANNER_DATA:
            std::printf("  scanner calibration data (%g x %g lattice)\n", v.size() > 0 ? v[0] : 0.0,
                        v.size() > 1 ? v[1] : 0.0);
            break;
        case device::FAST_CALI_TRACKER_POSE:
        case device::FAST_CALI_TRACKER_POSE_LONG:
            std::printf("  tracker pose: translation %.1f %.1f %.1f mm, bar pose %g\n",
                        v.size() > 2 ? v[0] : 0.0, v.size() > 2 ? v[1] : 0.0,
                        v.size() > 2 ? v[2] : 0.0, v.size() > 3 ? v[3] : 0.0);
            break;
        case device::FAST_CALI_FINISHED:
            std::printf("  calibration finished\n");
            break;
    }
}

int runCalibrate(const CalibrateOptions& o) {
    const auto mode = modes().at(o.mode);
    host::Session session(shownOnStdout(o.session));
    session.open();
    std::printf("calibration mode %d (%s)\n", static_cast<int>(mode), o.mode.c_str());
    session.calibrate(mode, o.grabs, printStep);
    return host::kExitOk;
}

}  // namespace

void addCalibrateCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<CalibrateOptions>();
    CLI::App* sub = app.add_subcommand("calibrate", "run a calibration against the console");
    std::vector<std::string> names;
    for (const auto& m : modes()) {
        names.push_back(m.first);
    }
    sub->add_option("--mode", o->mode,
                    "scan-check, scanner, tracker-bar, laser, far-laser, scanner-position (or 0-5)")
        ->required()
        ->check(CLI::IsMember(names));
    sub->add_option("--grabs", o->grabs, "most frames to grab (default 12)")
        ->check(CLI::Range(1, 100));
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runCalibrate(*o); }; });
}

}  // namespace pfapp
