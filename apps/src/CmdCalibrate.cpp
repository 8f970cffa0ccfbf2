// pathfinder calibrate --mode M: a calibration run against the console, one line per step.
#include <cstdio>
#include <map>

#include "Commands.h"
#include "device/Pathfinder.h"

namespace pfapp {

namespace {

struct CalibrateOptions {
    SessionOptions session;
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

void printEvent(const CalibEvent& e) {
    const auto& v = e.values;
    switch (e.kind) {
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
    HostSession session(o.session);
    session.open();
    device::CPathfinder& dev = session.device();
    std::printf("calibration mode %d (%s)\n", static_cast<int>(mode), o.mode.c_str());
    HostSession::check(dev.setDeviceCalibraMode(mode), "choosing the calibration mode");
    HostSession::check(dev.setStartCalibration(), "starting the calibration");
    std::printf("step: started\n");
    session.waitCalibEvent(1.0);
    for (const CalibEvent& e : session.takeCalibEvents()) {
        printEvent(e);
    }
    // The bar is turned through its poses; the scanner modes grab at every location.
    const device::emDeviceCalibraPose poses[] = {
        device::CALIBRA_POSE_LEVEL, device::CALIBRA_POSE_VERTICAL,
        device::CALIBRA_POSE_FRONT_BACK_UP, device::CALIBRA_POSE_FRONT_BACK_DOWN};
    int grabbed = 0;
    bool finished = false;
    for (int i = 0; i < o.grabs && !finished; ++i) {
        const auto pose =
            mode == device::CALIBRA_MODE_TRACKER_BAR ? poses[i % 4] : device::CALIBRA_POSE_LEVEL;
        const int rc = dev.setGrabOneFrame(pose);
        HostSession::check(rc, "grabbing frame " + std::to_string(i + 1));
        ++grabbed;
        std::printf("step: grab %d (pose %d)\n", grabbed, static_cast<int>(pose));
        if (!session.waitCalibEvent(1.0)) {
            std::printf("  no more data: every location is grabbed\n");
            break;
        }
        for (const CalibEvent& e : session.takeCalibEvents()) {
            printEvent(e);
            finished = finished || e.kind == device::FAST_CALI_SCANNER_DATA ||
                       e.kind == device::FAST_CALI_FINISHED ||
                       e.kind == device::FAST_CALI_TRACKER_POSE_LONG;
        }
    }
    float result = 0.0f;
    const int rc = dev.getCalibraResult(&result);
    std::printf("step: result %.4f after %d grabs\n", result, grabbed);
    HostSession::check(rc, "reading the calibration result");
    return kExitOk;
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
