#include "HostSession.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Truth.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"

namespace pfapp {

namespace fs = std::filesystem;

namespace {

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string defaultConsoleProgram() {
    std::string value;
    if (platform::getEnvironment("PATHFINDER_CONSOLE", value) && !value.empty()) {
        return value;
    }
    return platform::joinPath(platform::nativePath(device::getAnnexPath()),
                              std::string("Lumora/lumora_console"));
}

}  // namespace

std::vector<CascadeEntry> HostSession::transferMatrices() const {
    std::vector<CascadeEntry> out;
    if (!m_device) {
        return out;
    }
    for (const device::TransformTrackingMatrix& m : m_device->transferMatrices()) {
        CascadeEntry e;
        e.trackerId = m.id;
        std::copy(m.matrix, m.matrix + 16, e.matrix.begin());
        out.push_back(e);
    }
    return out;
}

HostSession::HostSession(SessionOptions options) : m_options(std::move(options)) {}

HostSession::~HostSession() {
    if (m_device) {
        if (m_device->isTriggerActive()) {
            m_device->controlLaserOff();
        }
        m_device->clearHandlers();
        m_device.reset();  // clear(): closes the link
    }
    if (m_console) {
        m_console->stop();
        m_console.reset();
    }
    if (!m_annex.empty()) {
        std::error_code ec;
        fs::remove_all(m_annex, ec);
    }
}

std::string HostSession::resultText(int result) {
    switch (result) {
        case device::RESULT_SUCCESS:
            return "success";
        case device::RESULT_FAILED:
            return "failed, no answer or no connection";
        case device::RESULT_NOT_SUPPORTED:
            return "not supported by this module";
        case device::RESULT_SEND_REFUSED:
            return "the command could not be sent";
        case device::RESULT_OUT_OF_RANGE:
            return "argument out of range";
        case device::RESULT_INVALID_ARGUMENT:
            return "invalid argument";
        case device::RESULT_TRIGGER_TIMEOUT:
            return "trigger timeout";
        case device::RESULT_BUSY_SCANNING:
            return "the laser is busy scanning";
        case device::RESULT_CALIB_NEGATIVE:
            return "negative calibration result";
        case device::RESULT_TRIGGER_REJECTED:
            return "the device rejected the trigger";
        case device::RESULT_NO_ANSWER:
            return "no answer from the device";
        case device::RESULT_NO_CALIBRA_MODE:
            return "no calibration mode chosen";
        case 509:
            return "the cascade file cannot be opened";
        default:
            return "device error";
    }
}

void HostSession::check(int result, const std::string& what) {
    if (result != device::RESULT_SUCCESS) {
        throw AppError(kExitDevice, what + ": " + resultText(result) + " (result " +
                                        std::to_string(result) + ")");
    }
}

void HostSession::startConsole(const std::string& host, uint16_t port) {
    const std::string program =
        m_options.consoleProgram.empty() ? defaultConsoleProgram() : m_options.consoleProgram;
    if (!platform::fileExists(program)) {
        throw AppError(kExitConsole,
                       "console missing: " + program +
                           " not found (build the target lumora_console, or name it with "
                           "--console or PATHFINDER_CONSOLE)");
    }
    std::shared_ptr<std::ofstream> log;
    if (!m_options.consoleLog.empty()) {
        log = std::make_shared<std::ofstream>(m_options.consoleLog, std::ios::trunc);
    }
    // The console reads "--option=value" as "--option value": the arguments go as given, the
    // same as to the truth export.
    std::vector<std::string> args{"--endpoint", host + ":" + std::to_string(port), "--no-stdin"};
    args.insert(args.end(), m_options.consoleArgs.begin(), m_options.consoleArgs.end());
    if (m_options.verbose) {
        std::printf("starting the console %s\n", program.c_str());
        std::fflush(stdout);
    }
    auto child = std::make_unique<platform::ChildProcess>();
    std::string error;
    const bool started = child->start(
        program, args,
        [this, log](const std::string& line) {
            if (log && *log) {
                *log << line << '\n';
                log->flush();
            }
            std::lock_guard<std::mutex> lock(m_consoleMutex);
            static const std::string kListening = "listening on ";
            const size_t at = line.find(kListening);
            if (m_listening.empty() && at != std::string::npos) {
                m_listening = line.substr(at + kListening.size());
                while (!m_listening.empty() &&
                       (m_listening.back() == '\r' || m_listening.back() == ' ')) {
                    m_listening.pop_back();
                }
            }
            if (m_consoleFirst.empty()) {
                m_consoleFirst = line;
            }
            m_consoleCv.notify_all();
        },
        error);
    if (!started) {
        throw AppError(kExitConsole, "cannot start the console: " + error);
    }
    m_console = std::move(child);
    std::unique_lock<std::mutex> lock(m_consoleMutex);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (m_listening.empty()) {
        if (!m_console->alive()) {
            const std::string last = m_consoleFirst;
            lock.unlock();
            m_console->stop();
            m_console.reset();
            throw AppError(kExitConsole, "the console ended at start" +
                                             (last.empty() ? std::string() : ": " + last));
        }
        if (m_consoleCv.wait_until(lock, std::min(until, std::chrono::steady_clock::now() +
                                                             std::chrono::milliseconds(100))) ==
                std::cv_status::timeout &&
            std::chrono::steady_clock::now() >= until) {
            lock.unlock();
            m_console->stop();
            m_console.reset();
            throw AppError(kExitConsole, "the console did not start listening within 15 s");
        }
    }
    m_endpoint = m_listening;
}

void HostSession::open() {
    const double t0 = nowSeconds();
    std::string wanted = m_options.endpoint;
    if (wanted.empty()) {
        platform::getEnvironment("LUMORA_ENDPOINT", wanted);
    }
    std::string host = "127.0.0.1";
    uint16_t port = 0;
    if (!wanted.empty() && !splitEndpoint(wanted, host, port)) {
        throw AppError(kExitUsage, "not an endpoint (host:port): " + wanted);
    }
    if (port != 0 && platform::endpointAnswers(host, port, 500)) {
        m_endpoint = host + ":" + std::to_string(port);
        if (m_options.verbose) {
            std::printf("using the console that answers at %s\n", m_endpoint.c_str());
        }
    } else if (!m_options.startConsole) {
        throw AppError(kExitConsole,
                       "console missing: nothing answers at " +
                           (wanted.empty() ? std::string("127.0.0.1:47310") : wanted));
    } else {
        startConsole(host, port);
    }
    platform::setEnvironment("LUMORA_ENDPOINT", m_endpoint);

    // An annex folder without companion programs (see the header).
    m_annex = platform::makeTemporaryDirectory("pathfinder_host_");
    if (!m_annex.empty()) {
        device::CDeviceBase::setAnnexPath(platform::widePath(m_annex));
    }

    m_device = std::make_unique<device::CPathfinder>();
    installHandlers();
    const int rc = m_device->init();
    if (rc != device::RESULT_SUCCESS) {
        throw AppError(kExitConsole, "no connection to the console at " + m_endpoint +
                                         " (init: " + resultText(rc) + ")");
    }
    // The devices are announced right after the connection.
    for (int i = 0; i < 100 && devices().empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    m_startupSeconds = nowSeconds() - t0;
}

device::CPathfinder& HostSession::device() {
    return *m_device;
}

void HostSession::installHandlers() {
    using namespace device;
    tagDeviceHandlers h;
    h.onDeviceData = [this](const std::shared_ptr<tagDeviceData>& data, const char*, int) {
        if (data) {
            onData(data);
        }
    };
    h.onDeviceState = [this](emDeviceState state, const tagDeviceInfo& info, const void*) {
        std::lock_guard<std::mutex> lock(m_mutex);
        tagDeviceInfo copy = info;
        copy.state = state;
        m_states[info.serialText()] = copy;
    };
    h.onDeviceReply = [this](const std::string& text, emDeviceReply reply, const void* payload) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (payload == nullptr) {
            return;
        }
        if (reply == REPLY_LOWPART_VERSION) {
            m_lowpart = *static_cast<const std::string*>(payload);
        } else if (reply == REPLY_THERMAL_BALANCE) {
            const auto& record = *static_cast<const tagDeviceThermalBalance*>(payload);
            m_thermal[record.name.empty() ? text : record.name] = record;
        } else if (reply == REPLY_THERMAL_RECORD) {
            m_thermal =
                *static_cast<const std::map<std::string, tagDeviceThermalBalance>*>(payload);
        } else if (reply == REPLY_DEVICE_TEXT) {
            m_texts.push_back(static_cast<const char*>(payload));
        }
        m_cv.notify_all();
    };
    h.onDeviceButton = [](emDeviceButton, emDeviceButtonAction) {};
    h.onDeviceFastCali = [this](emDeviceTFastCali kind, const void* p) {
        CalibEvent e{kind, {}};
        if (p != nullptr) {
            switch (kind) {
                case FAST_CALI_LOCATION:
                    e.values = {static_cast<double>(*static_cast<const int32_t*>(p))};
                    break;
                case FAST_CALI_BOARD_LATTICE: {
                    const auto* v = static_cast<const int32_t*>(p);
                    e.values = {static_cast<double>(v[0]), static_cast<double>(v[1])};
                    break;
                }
                case FAST_CALI_TRACKER_POSE:
                case FAST_CALI_TRACKER_POSE_LONG: {
                    const tagClbTrackerPose& pose =
                        kind == FAST_CALI_TRACKER_POSE
                            ? *static_cast<const tagClbTrackerPose*>(p)
                            : static_cast<const tagClbTrackerPoseEx*>(p)->pose;
                    e.values.assign(pose.translation, pose.translation + 3);
                    e.values.push_back(pose.barPose);
                    break;
                }
                case FAST_CALI_SCANNER_DATA: {
                    const auto& d = *static_cast<const tagClbScannerCalibData*>(p);
                    e.values = {static_cast<double>(d.rows), static_cast<double>(d.columns)};
                    break;
                }
                case FAST_CALI_FINISHED:
                    e.values = {*static_cast<const bool*>(p) ? 1.0 : 0.0};
                    break;
                default:
                    break;
            }
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calib.push_back(e);
        m_cv.notify_all();
    };
    h.onDeviceImage = [](int, int, int, const std::string&, const void*) {};
    h.onDeviceNeedRetrigger = [] {};
    h.onDeviceTriggerNoData = [] {};
    m_device->setHandlers(h);
}

void HostSession::onData(const std::shared_ptr<device::tagDeviceData>& data) {
    const double now = nowSeconds();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_collecting) {
        return;
    }
    const device::tagDeviceData& d = *data;
    Collection& c = m_collection;
    ++c.frames;
    m_framesSoFar.store(c.frames);
    if (m_lastFrameId >= 0 && d.frameId > m_lastFrameId + 1) {
        c.dropped += static_cast<size_t>(d.frameId - m_lastFrameId - 1);
    }
    m_lastFrameId = d.frameId;
    if (m_firstFrameAt < 0) {
        m_firstFrameAt = now;
    }
    m_lastFrameAt = now;
    c.poseMode = d.poseMode;

    RowPose pose;
    std::copy(d.rotation, d.rotation + 9, pose.rotation.begin());
    std::copy(d.translation, d.translation + 3, pose.translation.begin());
    if (appendFrame(c.cloud, pose, d.laserPoints, d.laserDirections) > 0) {
        ++c.framesWithPoints;
    }
    const size_t markers = std::min(d.markerIds.size(), d.markerPoints.size() / 3);
    for (size_t i = 0; i < markers; ++i) {
        const int32_t id = d.markerIds[i];
        c.markers[id].emplace_back(d.markerPoints[3 * i], d.markerPoints[3 * i + 1],
                                   d.markerPoints[3 * i + 2]);
        if (d.markerNormals.size() >= 3 * (i + 1)) {
            c.markerNormals[id] = Eigen::Vector3d(
                d.markerNormals[3 * i], d.markerNormals[3 * i + 1], d.markerNormals[3 * i + 2]);
        }
        if (d.markerDiameters.size() > i) {
            c.markerDiameters[id] = d.markerDiameters[i];
        }
    }
    for (const device::tagScanHoleData& h : d.scanHoles) {
        HoleRecord r;
        r.state = h.state;
        r.type = h.type;
        r.center = Eigen::Vector3d(h.center[0], h.center[1], h.center[2]);
        r.direction = Eigen::Vector3d(h.direction[0], h.direction[1], h.direction[2]);
        r.radius = h.radius;
        c.holes.push_back(r);
    }
    for (const device::TransformTrackingMatrix& m : d.trackingMatrices) {
        std::array<double, 16> values;
        std::copy(m.matrix, m.matrix + 16, values.begin());
        c.trackingMatrices[m.id] = values;
    }
    m_cv.notify_all();
}

void HostSession::startCollecting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_collection = Collection();
    m_collecting = true;
    m_lastFrameId = -1;
    m_firstFrameAt = -1.0;
    m_lastFrameAt = -1.0;
    m_framesSoFar.store(0);
}

Collection HostSession::stopCollecting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_collecting = false;
    Collection out = std::move(m_collection);
    m_collection = Collection();
    out.seconds = m_firstFrameAt >= 0 ? m_lastFrameAt - m_firstFrameAt : 0.0;
    return out;
}

void HostSession::waitForFrames(size_t frames, double seconds, double idleSeconds,
                                const std::function<void(size_t)>& tick) {
    const double start = nowSeconds();
    double lastChange = start;
    size_t lastCount = 0;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const size_t n = m_framesSoFar.load();
        const double now = nowSeconds();
        if (n != lastCount) {
            lastCount = n;
            lastChange = now;
        }
        if (tick) {
            tick(n);
        }
        if (frames > 0 && n >= frames) {
            return;
        }
        if (seconds > 0 && now - start >= seconds) {
            return;
        }
        if (now - lastChange >= idleSeconds) {
            return;
        }
    }
}

std::vector<device::tagDeviceInfo> HostSession::devices() {
    std::vector<device::tagDeviceInfo> out;
    int count = 0;
    std::shared_ptr<device::tagDeviceInfoList> list;
    if (m_device && m_device->getDeviceInfo(&count, &list) == device::RESULT_SUCCESS && list) {
        for (int32_t i = 0; i < list->count; ++i) {
            out.push_back(list->infos[i]);
        }
    }
    return out;
}

std::string HostSession::lowpartVersion() {
    if (m_device && m_device->getLowpartVersion() == device::RESULT_SUCCESS) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lowpart;
    }
    return std::string();
}

std::map<std::string, device::tagDeviceThermalBalance> HostSession::thermalRecords() {
    if (m_device) {
        m_device->getDeviceTemperature();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_thermal;
}

std::vector<CalibEvent> HostSession::takeCalibEvents() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<CalibEvent> out(m_calib.begin(), m_calib.end());
    m_calib.clear();
    return out;
}

bool HostSession::waitCalibEvent(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::duration<double>(seconds),
                         [this] { return !m_calib.empty(); });
}

std::vector<std::string> HostSession::deviceTexts() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_texts;
}

size_t HostSession::setReferenceMarkers(const Truth& truth) {
    device::tagMarkpointList reference;
    for (const auto& m : truth.markers) {
        device::tagMarkpoint p;
        p.label = m.first;
        const Eigen::Vector3d n = truth.markerNormals.count(m.first)
                                      ? truth.markerNormals.at(m.first)
                                      : Eigen::Vector3d::UnitZ();
        for (int k = 0; k < 3; ++k) {
            p.position[k] = static_cast<float>(m.second[k]);
            p.normal[k] = static_cast<float>(n[k]);
        }
        p.value = static_cast<float>(
            truth.markerDiameters.count(m.first) ? truth.markerDiameters.at(m.first) : 6.0);
        reference.points.push_back(p);
    }
    HostSession::check(m_device->setMarkpoint(reference, true), "giving the reference markers");
    return reference.points.size();
}

std::optional<Truth> exportTruth(const std::string& consoleProgram,
                                 const std::vector<std::string>& sceneArgs,
                                 const std::string& dir) {
    const std::string program = consoleProgram.empty() ? defaultConsoleProgram() : consoleProgram;
    std::error_code ec;
    fs::create_directories(dir, ec);
    std::vector<std::string> args{"--export-truth", dir};
    args.insert(args.end(), sceneArgs.begin(), sceneArgs.end());
    auto log = std::make_shared<std::ofstream>((fs::path(dir) / "export.log").string());
    platform::ChildProcess child;
    std::string error;
    if (!child.start(
            program, args, [log](const std::string& l) { *log << l << '\n'; }, error)) {
        std::printf("truth: %s\n", error.c_str());
        return std::nullopt;
    }
    for (int i = 0; i < 600 && child.alive(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    child.stop();
    std::optional<Truth> truth = loadTruthFolder(dir, error);
    if (!truth) {
        std::printf("truth: this console exports none; no accuracy figures\n");
        fs::remove_all(dir, ec);
    }
    return truth;
}

}  // namespace pfapp
