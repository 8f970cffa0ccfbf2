// The session's smaller operations: a marker model by dynamic tracking, the cascade of chained
// trackers, the device report, a calibration run and live frames.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <thread>

#include "SessionImpl.h"
#include "Writers.h"
#include "device/Pathfinder.h"
#include "host/Files.h"

namespace host {

namespace {

void writeText(const std::vector<std::string>& lines, const std::string& path) {
    std::string error;
    if (!TextWriter(lines).write(path, error)) {
        throw Error(kExitOutput, error);
    }
}

// The folder a file goes into.
void prepareFolderOf(const std::string& file) {
    const std::filesystem::path path(file);
    prepareOutputFolder(path.has_parent_path() ? path.parent_path().string() : ".");
}

}  // namespace

MarkerModelResult Session::buildMarkerModel(const MarkerModelRequest& request) {
    Impl& session = *m_impl;
    if (!request.outFile.empty()) {
        prepareFolderOf(request.outFile);
    }
    std::optional<Truth> truth;
    if (!request.truthDir.empty()) {
        std::string error;
        truth = loadTruthFolder(request.truthDir, error);
        if (!truth) {
            throw Error(kExitInputFile, error);
        }
    }
    device::CPathfinder& dev = session.device();
    check(dev.setDynamicTracking(device::SCAN_OBJECT_MARKPOINT),
          "choosing dynamic marker tracking");
    session.startCollecting();
    check(dev.controlLaserOn(), "switching the laser on");
    const size_t frames = request.seconds > 0 ? 0 : request.frames;
    session.waitForFrames(frames, request.seconds, 5.0, "tracking");
    dev.controlLaserOff();
    const Collection c = session.stopCollecting();

    device::tagRefMarkpointData model;
    check(dev.GetOptimizationMarkpoint(model), "building the marker model");
    if (model.empty()) {
        throw Error(kExitNoData, "the marker model is empty (" + std::to_string(c.frames) +
                                     " frames delivered)");
    }
    MarkerModelResult r;
    r.frames = c.frames;
    std::vector<std::string> lines{"# id x y z nx ny nz (mm, reference frame of the model)"};
    std::vector<Eigen::Vector3d> positions;
    for (size_t i = 0; i < model.size(); ++i) {
        const double* p = &model.positions[3 * i];
        const double* n = model.normals.size() >= 3 * (i + 1) ? &model.normals[3 * i] : nullptr;
        Marker m;
        m.id = model.labels[i];
        m.position = {p[0], p[1], p[2]};
        if (n) {
            m.normal = {n[0], n[1], n[2]};
        }
        char line[256];
        std::snprintf(line, sizeof(line), "%d %.4f %.4f %.4f %.6f %.6f %.6f", m.id, p[0], p[1],
                      p[2], m.normal[0], m.normal[1], m.normal[2]);
        lines.push_back(line);
        positions.emplace_back(p[0], p[1], p[2]);
        r.model.push_back(m);
    }
    if (!request.outFile.empty()) {
        writeText(lines, request.outFile);
    }
    // The frames delivered the markers they added, in the model's frame: how often each model
    // marker was seen.
    std::vector<Eigen::Vector3d> observed;
    for (const auto& byId : c.markers) {
        observed.insert(observed.end(), byId.second.begin(), byId.second.end());
    }
    r.observations = countObservations(positions, observed, 0.5);
    if (truth) {
        r.compared = true;
        std::vector<Eigen::Vector3d> real;
        for (const auto& m : truth->markers) {
            real.push_back(m.second);
        }
        std::vector<std::pair<std::string, std::array<double, 16>>> frames;
        for (const TransferMatrix& e : truth->matrices) {
            frames.emplace_back(e.trackerId, e.matrix);
        }
        const MarkerModelMatch match = matchMarkerModel(positions, real, frames, 1.0);
        r.matched = match.ok;
        if (match.ok) {
            r.frame = match.frame;
            r.paired = match.paired.size();
            r.residuals = distanceStats(match.fit.residuals);
            std::vector<size_t> views;
            for (size_t i : match.paired) {
                views.push_back(r.observations[i]);
            }
            r.weightedRmsMm = observationWeightedRms(match.fit.residuals, views);
            r.markerNoiseMm = truth->markerNoiseMm * std::sqrt(3.0);
        }
    }
    return r;
}

std::vector<TransferMatrix> Session::measureTransferMatrices(const std::string& outFile) {
    Impl& session = *m_impl;
    if (!outFile.empty()) {
        prepareFolderOf(outFile);
    }
    device::CPathfinder& dev = session.device();
    // The module measures and triggers the working devices: every device announced.
    check(dev.setWorkingDevice(session.deviceIds()), "choosing the working devices");
    if (const Truth* truth = session.truth()) {
        session.setReferenceMarkers(*truth);
    }
    session.say("measuring the transfer matrices ...");
    check(dev.getTransferMatrix(), "measuring the transfer matrices");
    std::vector<TransferMatrix> matrices = session.transferMatrices();
    if (matrices.empty()) {
        // A module that keeps no table to hand out: the matrices some frames carry.
        check(dev.setScanObject(device::SCAN_OBJECT_SURFACE, true), "choosing the scan object");
        session.startCollecting();
        check(dev.controlLaserOn(), "switching the laser on");
        session.waitForFrames(5, 0, 5.0);
        dev.controlLaserOff();
        const Collection c = session.stopCollecting();
        for (const auto& m : c.trackingMatrices) {
            matrices.push_back(TransferMatrix{m.first, m.second});
        }
        if (matrices.empty()) {
            throw Error(kExitNoData, "the module handed out no transfer matrices (" +
                                         std::to_string(c.frames) + " frames delivered)");
        }
    }
    if (!outFile.empty()) {
        writeCascadeFile(outFile, matrices);
    }
    return matrices;
}

const char* deviceKindName(int kind) {
    switch (kind) {
        case device::DEVICE_TYPE_TRACKER:
            return "tracker";
        case device::DEVICE_TYPE_SCANNER:
            return "scanner";
        case device::DEVICE_TYPE_LIGHT_PEN:
            return "light pen";
        case device::DEVICE_TYPE_AIR:
            return "air";
        default:
            return "unknown";
    }
}

DeviceReport Session::devices(double waitSeconds) {
    Impl& session = *m_impl;
    session.open();
    DeviceReport report;
    // Heartbeats bring the temperatures; give them a moment.
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(waitSeconds);
    while (std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        report.thermal = session.thermalRecords();
        const bool enough = !report.thermal.empty() &&
                            std::all_of(report.thermal.begin(), report.thermal.end(),
                                        [](const auto& t) { return t.second.samples.size() >= 2; });
        if (enough) {
            break;
        }
    }
    report.devices = session.devices();
    report.lowpartVersion = session.lowpartVersion();
    report.endpoint = session.endpoint();
    report.moduleVersion = device::getTrackVersion();
    return report;
}

float Session::calibrate(device::emDeviceCalibraMode mode, int grabs,
                         const CalibrationHandler& onStep) {
    Impl& session = *m_impl;
    device::CPathfinder& dev = session.device();
    const auto step = [&](CalibrationStep s) {
        if (onStep) {
            onStep(s);
        }
    };
    // Events waiting are handed on; true when one of them ends the run.
    const auto events = [&]() {
        bool finished = false;
        for (const CalibEvent& e : session.takeCalibEvents()) {
            CalibrationStep s;
            s.kind = CalibrationStep::Event;
            s.event = e.kind;
            s.values = e.values;
            step(s);
            finished = finished || e.kind == device::FAST_CALI_SCANNER_DATA ||
                       e.kind == device::FAST_CALI_FINISHED ||
                       e.kind == device::FAST_CALI_TRACKER_POSE_LONG;
        }
        return finished;
    };
    check(dev.setDeviceCalibraMode(mode), "choosing the calibration mode");
    check(dev.setStartCalibration(), "starting the calibration");
    step(CalibrationStep{});
    session.waitCalibEvent(1.0);
    events();
    // The bar is turned through its poses; the scanner modes grab at every location.
    const device::emDeviceCalibraPose poses[] = {
        device::CALIBRA_POSE_LEVEL, device::CALIBRA_POSE_VERTICAL,
        device::CALIBRA_POSE_FRONT_BACK_UP, device::CALIBRA_POSE_FRONT_BACK_DOWN};
    int grabbed = 0;
    bool finished = false;
    for (int i = 0; i < grabs && !finished; ++i) {
        const auto pose =
            mode == device::CALIBRA_MODE_TRACKER_BAR ? poses[i % 4] : device::CALIBRA_POSE_LEVEL;
        check(dev.setGrabOneFrame(pose), "grabbing frame " + std::to_string(i + 1));
        ++grabbed;
        CalibrationStep s;
        s.kind = CalibrationStep::Grab;
        s.grab = grabbed;
        s.pose = static_cast<int>(pose);
        step(s);
        if (!session.waitCalibEvent(1.0)) {
            s.kind = CalibrationStep::Exhausted;
            step(s);
            break;
        }
        finished = events();
    }
    float result = 0.0f;
    const int rc = dev.getCalibraResult(&result);
    CalibrationStep s;
    s.kind = CalibrationStep::Result;
    s.grab = grabbed;
    s.result = result;
    step(s);
    check(rc, "reading the calibration result");
    return result;
}

void Session::startFrames(const std::string& object) {
    m_impl->prepareScan({}, false, object);
    check(m_impl->device().controlLaserOn(), "switching the laser on");
}

void Session::stopFrames() {
    if (m_impl->isOpen()) {
        m_impl->device().controlLaserOff();
    }
}

}  // namespace host
