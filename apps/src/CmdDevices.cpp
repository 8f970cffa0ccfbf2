// pathfinder devices: the session's devices with state, kind, model, versions, last
// temperatures and thermal balance.
#include <cstdio>

#include "Commands.h"

namespace pfapp {

namespace {

struct DevicesOptions {
    host::SessionOptions session;
    double wait = 2.5;
};

const char* stateName(int state) {
    switch (state) {
        case device::STATE_NO_STATUS:
            return "no status";
        case device::STATE_DISCONNECTED:
            return "disconnected";
        case device::STATE_CAMERA_OPEN_FAILED:
            return "camera failed";
        case device::STATE_USB_START_FAILED:
            return "USB failed";
        case device::STATE_READY:
            return "ready";
        default:
            return "unknown";
    }
}

int runDevices(const DevicesOptions& o) {
    host::Session session(shownOnStdout(o.session));
    const host::DeviceReport report = session.devices(o.wait);
    const auto& list = report.devices;
    const auto& thermal = report.thermal;
    const std::string& lowpart = report.lowpartVersion;
    std::printf("endpoint %s, module %s, low-part firmware %s\n", report.endpoint.c_str(),
                report.moduleVersion.c_str(), lowpart.empty() ? "(no answer)" : lowpart.c_str());
    std::printf("%-12s %-9s %-6s %-13s %8s %8s %8s %9s\n", "device", "kind", "model", "state",
                "temp C", "mean C", "samples", "balance%");
    for (const device::tagDeviceInfo& d : list) {
        const std::string id = d.serialText();
        const auto t = thermal.find(id);
        if (t != thermal.end()) {
            std::printf("%-12s %-9s %-6d %-13s %8.2f %8.2f %8zu %9.3f\n", id.c_str(),
                        host::deviceKindName(d.kind), d.model, stateName(d.state),
                        t->second.temperature1, t->second.mean, t->second.samples.size(),
                        t->second.deviation);
        } else {
            std::printf("%-12s %-9s %-6d %-13s %8s %8s %8s %9s\n", id.c_str(),
                        host::deviceKindName(d.kind), d.model, stateName(d.state), "-", "-", "0",
                        "-");
        }
    }
    for (const auto& t : thermal) {
        bool listed = false;
        for (const device::tagDeviceInfo& d : list) {
            listed = listed || d.serialText() == t.first;
        }
        if (!listed) {
            std::printf("%-12s %-9s %-6s %-13s %8.2f %8.2f %8zu %9.3f\n", t.first.c_str(), "-", "-",
                        "heartbeat", t.second.temperature1, t.second.mean, t.second.samples.size(),
                        t.second.deviation);
        }
    }
    if (list.empty()) {
        throw host::Error(host::kExitNoData, "the console announced no devices");
    }
    return host::kExitOk;
}

}  // namespace

void addDevicesCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<DevicesOptions>();
    CLI::App* sub = app.add_subcommand(
        "devices", "list the devices: state, kind, model, versions, temperatures, balance");
    sub->add_option("--wait", o->wait, "seconds to wait for heartbeats (default 2.5)")
        ->check(CLI::Range(0.0, 60.0));
    addSessionOptions(sub, o->session);
    sub->callback([o, &run] { run.run = [o] { return runDevices(*o); }; });
}

}  // namespace pfapp
