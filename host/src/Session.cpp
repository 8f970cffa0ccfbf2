// The session: console, endpoint, module, handlers, frames and the truth.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Endpoint.h"
#include "SessionImpl.h"
#include "device/Pathfinder.h"

namespace host {

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

// Runs `console --export-truth DIR sceneArgs...` and loads what it wrote. Empty, with a line
// for the user and no folder left behind, when the console exports no truth.
std::optional<Truth> exportTruth(const Session::Impl& session, const std::string& dir,
                                 const std::vector<std::string>& sceneArgs) {
    const std::string& consoleProgram = session.options().consoleProgram;
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
        session.say("truth: " + error);
        return std::nullopt;
    }
    for (int i = 0; i < 600 && child.alive(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    child.stop();
    std::optional<Truth> truth = loadTruthFolder(dir, error);
    if (!truth) {
        session.say("truth: this console exports none; no accuracy figures");
        fs::remove_all(dir, ec);
    }
    return truth;
}

}  // namespace

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::string resultText(int result) {
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
        case device::RESULT_CASCADE_FILE_OPEN_FAILED:
            return "the cascade file cannot be opened";
        default:
            return "device error";
    }
}

void check(int result, const std::string& what) {
    if (result != device::RESULT_SUCCESS) {
        throw Error(kExitDevice,
                    what + ": " + resultText(result) + " (result " + std::to_string(result) + ")");
    }
}

// ---- Impl: lifecycle ------------------------------------------------------------------------

Session::Impl::Impl(SessionOptions options)
    : m_options(std::move(options)),
      m_listeners(std::make_shared<const std::vector<std::pair<int, FrameListener>>>()) {}

Session::Impl::~Impl() {
    close();
}

void Session::Impl::close() noexcept {
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
    std::error_code ec;
    if (!m_annex.empty()) {
        device::CDeviceBase::setAnnexPath(m_previousAnnex);
        fs::remove_all(m_annex, ec);
        m_annex.clear();
    }
    if (m_previousEndpoint) {
        platform::setEnvironment("LUMORA_ENDPOINT", *m_previousEndpoint);
        m_previousEndpoint.reset();
    }
    {
        std::lock_guard<std::mutex> lock(m_truthMutex);
        m_truth.reset();
    }
    m_truthTried = false;
    if (!m_truthTemp.empty()) {
        fs::remove_all(m_truthTemp, ec);
        m_truthTemp.clear();
    }
}

void Session::Impl::say(const std::string& line) const {
    if (m_options.onMessage) {
        m_options.onMessage(line);
    }
}

void Session::Impl::progress(ProgressEvent::Phase phase, const char* stage, size_t done,
                             size_t total, double seconds) const {
    if (m_options.onProgress && stage != nullptr) {
        m_options.onProgress(ProgressEvent{phase, stage, done, total, seconds});
    }
}

void Session::Impl::startConsole(const std::string& host, uint16_t port,
                                 std::vector<std::string> args) {
    const std::string program =
        m_options.consoleProgram.empty() ? defaultConsoleProgram() : m_options.consoleProgram;
    if (!platform::fileExists(program)) {
        throw Error(kExitConsole, "console missing: " + program +
                                      " not found (build the target lumora_console, or name it "
                                      "with --console or PATHFINDER_CONSOLE)");
    }
    std::shared_ptr<std::ofstream> log;
    if (!m_options.consoleLog.empty()) {
        log = std::make_shared<std::ofstream>(m_options.consoleLog, std::ios::trunc);
    }
    // The console reads "--option=value" as "--option value": the arguments go as given, the
    // same as to the truth export.
    args.insert(args.begin(), {"--endpoint", host + ":" + std::to_string(port), "--no-stdin"});
    say("starting the console " + program);
    {
        std::lock_guard<std::mutex> lock(m_consoleMutex);
        m_listening.clear();
        m_consoleFirst.clear();
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
        throw Error(kExitConsole, "cannot start the console: " + error);
    }
    m_console = std::move(child);
    std::unique_lock<std::mutex> lock(m_consoleMutex);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (m_listening.empty()) {
        if (!m_console->alive()) {
            const std::string last = m_consoleFirst;
            lock.unlock();
            throw Error(kExitConsole, "the console ended at start" +
                                          (last.empty() ? std::string() : ": " + last));
        }
        if (m_consoleCv.wait_until(lock, std::min(until, std::chrono::steady_clock::now() +
                                                             std::chrono::milliseconds(100))) ==
                std::cv_status::timeout &&
            std::chrono::steady_clock::now() >= until) {
            throw Error(kExitConsole, "the console did not start listening within 15 s");
        }
    }
    m_endpoint = m_listening;
}

void Session::Impl::open(const std::vector<std::string>& scene,
                         const std::vector<std::string>& extra) {
    if (isOpen()) {
        return;
    }
    try {
        const double t0 = nowSeconds();
        m_scene = scene;
        m_scene.insert(m_scene.end(), m_options.consoleArgs.begin(), m_options.consoleArgs.end());
        std::string wanted = m_options.endpoint;
        std::string previous;
        const bool hadEndpoint = platform::getEnvironment("LUMORA_ENDPOINT", previous);
        if (wanted.empty()) {
            wanted = previous;
        }
        std::string host = "127.0.0.1";
        uint16_t port = 0;
        if (!wanted.empty() && !splitEndpoint(wanted, host, port)) {
            throw Error(kExitUsage, "not an endpoint (host:port): " + wanted);
        }
        if (port != 0 && platform::endpointAnswers(host, port, 500)) {
            m_endpoint = host + ":" + std::to_string(port);
            say("using the console that answers at " + m_endpoint);
        } else if (!m_options.startConsole) {
            throw Error(kExitConsole,
                        "console missing: nothing answers at " +
                            (wanted.empty() ? std::string("127.0.0.1:47310") : wanted));
        } else {
            std::vector<std::string> args = m_scene;
            args.insert(args.end(), extra.begin(), extra.end());
            startConsole(host, port, std::move(args));
        }
        m_previousEndpoint = hadEndpoint ? previous : std::string();
        platform::setEnvironment("LUMORA_ENDPOINT", m_endpoint);

        // An annex folder without companion programs (see the header).
        m_annex = platform::makeTemporaryDirectory("pathfinder_host_");
        if (!m_annex.empty()) {
            m_previousAnnex = device::CDeviceBase::getAnnexPath();
            device::CDeviceBase::setAnnexPath(platform::widePath(m_annex));
        }

        m_device = std::make_unique<device::CPathfinder>();
        installHandlers();
        const int rc = m_device->init();
        if (rc != device::RESULT_SUCCESS) {
            throw Error(kExitConsole, "no connection to the console at " + m_endpoint +
                                          " (init: " + resultText(rc) + ")");
        }
        // The devices are announced right after the connection.
        for (int i = 0; i < 100 && devices().empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        m_startupSeconds = nowSeconds() - t0;
    } catch (...) {
        close();
        throw;
    }
}

device::CPathfinder& Session::Impl::device() {
    open();
    return *m_device;
}

// ---- Impl: handlers and frames ---------------------------------------------------------------

void Session::Impl::installHandlers() {
    using namespace device;
    tagDeviceHandlers h;
    // Nothing thrown here may reach the module's thread.
    h.onDeviceData = [this](const std::shared_ptr<tagDeviceData>& data, const char*, int) {
        if (data) {
            try {
                onData(data);
            } catch (...) {
                m_listenerFailures.fetch_add(1);
            }
        }
    };
    h.onDeviceState = [](emDeviceState, const tagDeviceInfo&, const void*) {};
    h.onDeviceReply = [this](const std::string& text, emDeviceReply reply, const void* payload) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (payload == nullptr) {
            return;
        }
        try {
            if (reply == REPLY_LOWPART_VERSION) {
                m_lowpart = *static_cast<const std::string*>(payload);
            } else if (reply == REPLY_THERMAL_BALANCE) {
                const auto& record = *static_cast<const tagDeviceThermalBalance*>(payload);
                m_thermal[record.name.empty() ? text : record.name] = record;
            } else if (reply == REPLY_THERMAL_RECORD) {
                m_thermal =
                    *static_cast<const std::map<std::string, tagDeviceThermalBalance>*>(payload);
            }
        } catch (...) {
        }
        m_cv.notify_all();
    };
    h.onDeviceButton = [](emDeviceButton, emDeviceButtonAction) {};
    h.onDeviceFastCali = [this](emDeviceTFastCali kind, const void* p) {
        try {
            onCalibration(kind, p);
        } catch (...) {
        }
    };
    h.onDeviceImage = [](int, int, int, const std::string&, const void*) {};
    h.onDeviceNeedRetrigger = [] {};
    h.onDeviceTriggerNoData = [] {};
    m_device->setHandlers(h);
}

void Session::Impl::onCalibration(device::emDeviceTFastCali kind, const void* p) {
    using namespace device;
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
}

void Session::Impl::onData(const std::shared_ptr<device::tagDeviceData>& data) {
    const double now = nowSeconds();
    const device::tagDeviceData& d = *data;
    Pose pose;
    std::copy(d.rotation, d.rotation + 9, pose.rotation.begin());
    std::copy(d.translation, d.translation + 3, pose.translation.begin());

    std::shared_ptr<const std::vector<std::pair<int, FrameListener>>> listeners;
    {
        std::lock_guard<std::mutex> lock(m_listenersMutex);
        listeners = m_listeners;
    }
    if (!listeners->empty()) {
        std::lock_guard<std::recursive_mutex> calling(m_callMutex);
        for (const auto& listener : *listeners) {
            try {
                listener.second(data, pose);
            } catch (...) {
                m_listenerFailures.fetch_add(1);
            }
        }
    }

    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_collecting) {
        return;
    }
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

    appendFrame(c.cloud, pose, d.laserPoints, d.laserDirections);
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
        c.holes.push_back(Hole{h.state,
                               h.type,
                               {h.center[0], h.center[1], h.center[2]},
                               {h.direction[0], h.direction[1], h.direction[2]},
                               h.radius});
    }
    for (const device::TransformTrackingMatrix& m : d.trackingMatrices) {
        std::array<double, 16> values;
        std::copy(m.matrix, m.matrix + 16, values.begin());
        c.trackingMatrices[m.id] = values;
    }
    m_cv.notify_all();
}

int Session::Impl::addListener(FrameListener listener) {
    std::lock_guard<std::mutex> lock(m_listenersMutex);
    auto next = std::make_shared<std::vector<std::pair<int, FrameListener>>>(*m_listeners);
    next->emplace_back(m_nextListener, std::move(listener));
    m_listeners = std::move(next);
    return m_nextListener++;
}

void Session::Impl::removeListener(int id) {
    {
        std::lock_guard<std::mutex> lock(m_listenersMutex);
        auto next = std::make_shared<std::vector<std::pair<int, FrameListener>>>(*m_listeners);
        next->erase(std::remove_if(next->begin(), next->end(),
                                   [id](const auto& l) { return l.first == id; }),
                    next->end());
        m_listeners = std::move(next);
    }
    // A call in progress finishes before the removal returns.
    std::lock_guard<std::recursive_mutex> waitForCalls(m_callMutex);
}

void Session::Impl::startCollecting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_collection = Collection();
    m_collecting = true;
    m_lastFrameId = -1;
    m_firstFrameAt = -1.0;
    m_lastFrameAt = -1.0;
    m_framesSoFar.store(0);
}

Collection Session::Impl::stopCollecting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_collecting = false;
    Collection out = std::move(m_collection);
    m_collection = Collection();
    out.seconds = m_firstFrameAt >= 0 ? m_lastFrameAt - m_firstFrameAt : 0.0;
    return out;
}

bool Session::Impl::waitForFrames(size_t frames, double seconds, double idleSeconds,
                                  const char* stage) {
    progress(ProgressEvent::Start, stage, 0, frames, seconds);
    const double start = nowSeconds();
    double lastChange = start;
    size_t lastCount = 0;
    bool stopped = false;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const size_t n = m_framesSoFar.load();
        const double now = nowSeconds();
        if (n != lastCount) {
            lastCount = n;
            lastChange = now;
        }
        progress(ProgressEvent::Tick, stage, n, frames, seconds);
        if (m_stop.exchange(false)) {
            stopped = true;
            break;
        }
        if ((frames > 0 && n >= frames) || (seconds > 0 && now - start >= seconds) ||
            now - lastChange >= idleSeconds) {
            break;
        }
    }
    progress(ProgressEvent::Finish, stage, m_framesSoFar.load(), frames, seconds);
    return stopped;
}

// ---- Impl: truth, matrices, devices, events --------------------------------------------------

const Truth* Session::Impl::truth(bool always) {
    if (!m_truthTried && isOpen() && (always || startedConsole())) {
        m_truthTried = true;
        std::string dir = m_options.truthDir;
        if (dir.empty()) {
            m_truthTemp = platform::makeTemporaryDirectory("pathfinder_truth_");
            dir = m_truthTemp;
        }
        if (!dir.empty()) {
            std::optional<Truth> loaded = exportTruth(*this, dir, m_scene);
            std::lock_guard<std::mutex> lock(m_truthMutex);
            m_truth = loaded ? std::make_shared<const Truth>(std::move(*loaded)) : nullptr;
        }
    }
    std::lock_guard<std::mutex> lock(m_truthMutex);
    return m_truth.get();
}

const Truth* Session::Impl::useTruthFolder(const std::string& dir) {
    std::shared_ptr<const Truth> loaded = loadTruthWithPart(dir);
    std::lock_guard<std::mutex> lock(m_truthMutex);
    m_truthTried = true;
    m_truth = std::move(loaded);
    return m_truth.get();
}

std::shared_ptr<const Truth> Session::Impl::loadedTruth() const {
    std::lock_guard<std::mutex> lock(m_truthMutex);
    return m_truth;
}

size_t Session::Impl::setReferenceMarkers(const Truth& truth) {
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
    check(device().setMarkpoint(reference, true), "giving the reference markers");
    return reference.points.size();
}

std::vector<TransferMatrix> Session::Impl::transferMatrices() const {
    std::vector<TransferMatrix> out;
    if (!m_device) {
        return out;
    }
    for (const device::TransformTrackingMatrix& m : m_device->transferMatrices()) {
        TransferMatrix e;
        e.trackerId = m.id;
        std::copy(m.matrix, m.matrix + 16, e.matrix.begin());
        out.push_back(e);
    }
    return out;
}

std::string Session::Impl::prepareScan(const std::string& cascade, bool replay,
                                       const std::string& object) {
    if (object != "static" && object != "hole") {
        throw Error(kExitUsage, "not a scan object (static or hole): " + object);
    }
    device::CPathfinder& dev = device();
    // The module measures and triggers the working devices: every device announced.
    check(dev.setWorkingDevice(deviceIds()), "choosing the working devices");
    std::string source;
    const Truth* real = replay || !cascade.empty() ? nullptr : truth();
    if (!cascade.empty()) {
        check(dev.importCascadeFile(platform::widePath(cascade)),
              "importing the cascade file " + cascade);
        source = "cascade file";
    } else if (replay) {
        source = "as recorded";
    } else if (!real || real->markers.empty()) {
        // Static tracking registers each tracker's markers against a reference set; without
        // one a measurement only runs into its timeout.
        say("transfer matrices: no reference markers (no truth, no --cascade); poses stay as the "
            "trackers deliver them");
        source = "none";
    } else {
        const size_t count = setReferenceMarkers(*real);
        say("measuring the transfer matrices against " + std::to_string(count) +
            " reference markers ...");
        const int rc = dev.getTransferMatrix();
        if (rc == device::RESULT_NOT_SUPPORTED) {
            say("transfer matrices: " + resultText(rc) +
                "; poses stay as the trackers deliver them");
            source = "none";
        } else {
            check(rc, "measuring the transfer matrices");
            source = "measured";
        }
    }
    check(
        dev.setScanObject(
            object == "hole" ? device::SCAN_OBJECT_METAL_HOLE : device::SCAN_OBJECT_SURFACE, true),
        "choosing the scan object");
    return source;
}

std::vector<device::tagDeviceInfo> Session::Impl::devices() {
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

std::vector<std::string> Session::Impl::deviceIds() {
    std::vector<std::string> ids;
    for (const device::tagDeviceInfo& d : devices()) {
        ids.push_back(d.serialText());
    }
    return ids;
}

std::string Session::Impl::lowpartVersion() {
    if (m_device && m_device->getLowpartVersion() == device::RESULT_SUCCESS) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lowpart;
    }
    return std::string();
}

std::map<std::string, device::tagDeviceThermalBalance> Session::Impl::thermalRecords() {
    if (m_device) {
        m_device->getDeviceTemperature();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_thermal;
}

std::vector<CalibEvent> Session::Impl::takeCalibEvents() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<CalibEvent> out(m_calib.begin(), m_calib.end());
    m_calib.clear();
    return out;
}

bool Session::Impl::waitCalibEvent(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::duration<double>(seconds),
                         [this] { return !m_calib.empty(); });
}

// ---- Session ---------------------------------------------------------------------------------

Session::Session(SessionOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}

Session::~Session() = default;

void Session::open() {
    m_impl->open();
}

void Session::close() noexcept {
    m_impl->close();
}

bool Session::isOpen() const {
    return m_impl->isOpen();
}

const std::string& Session::endpoint() const {
    return m_impl->endpoint();
}

bool Session::startedConsole() const {
    return m_impl->startedConsole();
}

double Session::startupSeconds() const {
    return m_impl->startupSeconds();
}

std::vector<TransferMatrix> Session::transferMatrices() {
    m_impl->open();
    return m_impl->transferMatrices();
}

int Session::addFrameListener(FrameListener listener) {
    return m_impl->addListener(std::move(listener));
}

void Session::removeFrameListener(int id) {
    m_impl->removeListener(id);
}

size_t Session::listenerFailures() const {
    return m_impl->listenerFailures();
}

void Session::requestStop() noexcept {
    m_impl->requestStop();
}

bool Session::hasTruth() {
    m_impl->open();
    return m_impl->truth() != nullptr;
}

bool Session::truthDistances(const float* points, size_t count, float* out) const {
    return truthSurface().distances(points, count, out);
}

TruthSurface Session::truthSurface() const {
    return TruthSurface(m_impl->loadedTruth());
}

device::CDeviceBase& Session::device() {
    return m_impl->device();
}

// ---- FrameQueue ------------------------------------------------------------------------------

FrameQueue::FrameQueue(size_t capacity) : m_capacity(std::max<size_t>(1, capacity)) {}

void FrameQueue::push(const std::shared_ptr<device::tagDeviceData>& frame, const Pose& pose) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed) {
            return;
        }
        if (m_items.size() >= m_capacity) {
            m_items.pop_front();
            ++m_dropped;
        }
        m_items.push_back(Item{frame, pose});
    }
    m_cv.notify_one();
}

bool FrameQueue::pop(Item& item, double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, std::chrono::duration<double>(seconds),
                       [this] { return !m_items.empty() || m_closed; }) ||
        m_items.empty()) {
        return false;
    }
    item = std::move(m_items.front());
    m_items.pop_front();
    return true;
}

void FrameQueue::close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_cv.notify_all();
}

size_t FrameQueue::dropped() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_dropped;
}

size_t FrameQueue::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_items.size();
}

bool stdoutIsTerminal() {
    return platform::stdoutIsTerminal();
}

}  // namespace host
