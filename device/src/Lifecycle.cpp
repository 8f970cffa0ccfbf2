// Construction, connection to the SDK, the companion console, shutdown, cache reset, the laser
// trigger and the tracking preview.
#include <chrono>
#include <exception>
#include <functional>

#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/TPWrapper.h"
#include "utils/ConfigEditor.h"

#include "tracking/TPScan_Markpoint.h"

namespace device {

namespace {

// Waits of the connection protocol (milliseconds, scaled by the platform's time scale).
constexpr int kFirstConnectWaitMs = 3000;  // for an SDK connection message after connecting
constexpr int kConnectPollMs = 1000;       // poll step while the console starts
constexpr int kConnectPolls = 30;          // at most 30 s
constexpr int kSettleMs = 2000;            // after the connection came up
constexpr int kStopPollMs = 500;           // while the console ends
constexpr int kStopPolls = 10;
constexpr int kTriggerPollMs = 100;  // laser verdict
constexpr int kTriggerPolls = 300;   // at most 30 s
constexpr int kPreviewSettleMs = 500;
// A link on which the devices say nothing for this long is taken for dead (the SDK probes
// after a third of it; see sdk/README.md for how the time scale applies).
constexpr int kKeepAliveMs = 3000;

// The companion programs: the newer install first, the older one as fallback.
#ifdef _WIN32
constexpr const wchar_t* kConsoleNew = L"lumora_console.exe";
constexpr const wchar_t* kGuiNew = L"lumora_gui.exe";
constexpr const wchar_t* kConsoleOld = L"zqWaymarkConsole.exe";
constexpr const wchar_t* kGuiOld = L"zqWaymarkGUI.exe";
#else
constexpr const wchar_t* kConsoleNew = L"lumora_console";
constexpr const wchar_t* kGuiNew = L"lumora_gui";
constexpr const wchar_t* kConsoleOld = L"zqWaymarkConsole";
constexpr const wchar_t* kGuiOld = L"zqWaymarkGUI";
#endif
constexpr const wchar_t* kCompanionFolder = L"Lumora";

}  // namespace

// ---------------------------------------------------------------------------------------------

int FindProcessByName(const std::wstring& exeName, bool terminate) {
    const std::string name = platform::toNarrow(exeName, platform::kCodePageUtf8);
    if (name.empty()) {
        return 0;
    }
    if (terminate) {
        return platform::terminateProcessesByName(name);
    }
    return static_cast<int>(platform::findProcessesByName(name).size());
}

// ---------------------------------------------------------------------------------------------

CPathfinder::CPathfinder() : CDeviceBase(NEW_TYPE_OPTICAL_TRACKING) {
    try {
        // Debug switches of the annex folder; a missing file reads as all switches off.
        zq::utils::CConfigEditor& debug = zq::utils::debugConfig();
        debug.load(platform::joinPath(CDeviceBase::getAnnexPath(),
                                      std::wstring(zq::utils::kDebugConfigFileName)),
                   false, true);
        SDK_NV::CTPWrapper::setSaveFrame(debug.getBoolean(zq::utils::kSaveScanFrameKey));

        m_pScanWrapper = new SDK_NV::CTPScanWrapper();
        m_pScanWrapper->m_nHeartBeatInterval = 0;
        m_pScanWrapper->m_nKeepAliveMs = kKeepAliveMs;
        m_pPripladDevices = new std::vector<SDK_NV::tagPripladDeviceData>();
        m_pLowPartConfig = new SDK_NV::tagLowPartConfig();
        m_pMarkpoint = new CTPScan_Markpoint();
        m_pMarkpoint->initLibrary();
    } catch (const std::exception& e) {
        detail::logLine(std::string("device object incomplete: ") + e.what());
    }
}

CPathfinder::~CPathfinder() {
    clear();
    delete m_pScanWrapper;
    m_pScanWrapper = nullptr;
    delete m_pPripladDevices;
    m_pPripladDevices = nullptr;
    delete m_pLowPartConfig;
    m_pLowPartConfig = nullptr;
    if (m_pMarkpoint != nullptr) {
        m_pMarkpoint->freeLibrary();
        delete m_pMarkpoint;
        m_pMarkpoint = nullptr;
    }
    for (auto& entry : m_mapTransferMatrix) {
        delete[] entry.second;
    }
    m_mapTransferMatrix.clear();
}

std::wstring CPathfinder::companionFolder() const {
    return platform::joinPath(CDeviceBase::getAnnexPath(), std::wstring(kCompanionFolder));
}

std::vector<std::string> CPathfinder::workingDevices() const {
    std::lock_guard<std::mutex> lock(m_mtxScanState);
    return m_vecWorkingDevices;
}

// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::init() {
    if (hasInit()) {
        return RESULT_SUCCESS;
    }
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    try {
        platform::socketStartup();
        // Normally false: the SDK's connection message sets it. A link that is already up
        // (an earlier init that gave up before the devices came) sends no new message.
        m_bConnected.store(m_pScanWrapper->isConnected());
        m_pScanWrapper->setCallBackMessage(
            [this](SDK_NV::CMessage_Base* message) { dispatchMessage(message, true); });
        m_pScanWrapper->setCloseWrapper(false);
        SDK_NV::CTPWrapper::setOutput(false);
        m_pScanWrapper->connectToLowPart();

        platform::sleepMs(kFirstConnectWaitMs);

        const std::wstring folder = companionFolder();
        const std::wstring newer = platform::joinPath(folder, std::wstring(kConsoleNew));
        const std::wstring older = platform::joinPath(folder, std::wstring(kConsoleOld));
        const std::wstring program =
            platform::fileExists(platform::nativePath(newer)) ? newer : older;

        if (!m_bConnected.load()) {
            const std::string path = platform::nativePath(program);
            m_nCompanionPid = platform::startProcess(path, {}, platform::nativePath(folder));
            if (m_nCompanionPid < 0) {
                detail::logLine("cannot start the console " + path);
            }
            for (int i = 0; i < kConnectPolls && !m_bConnected.load(); ++i) {
                platform::sleepMs(kConnectPollMs);
            }
            if (!m_bConnected.load()) {
                detail::logLine("no device connection");
                return RESULT_FAILED;
            }
        }

        platform::sleepMs(kSettleMs);
        setInit(true);
        return RESULT_SUCCESS;
    } catch (const std::exception& e) {
        detail::logLine(std::string("init failed: ") + e.what());
        return RESULT_FAILED;
    }
}

emDeviceResult CPathfinder::clear() {
    try {
        if (m_pScanWrapper != nullptr) {
            m_pScanWrapper->setCloseWrapper(true);
        }
        setInit(false);

        const std::wstring folder = companionFolder();
        const bool newer =
            platform::fileExists(platform::nativePath(platform::joinPath(folder, kConsoleNew)));
        const std::wstring console = newer ? kConsoleNew : kConsoleOld;
        const std::wstring gui = newer ? kGuiNew : kGuiOld;

        FindProcessByName(console, true);
        FindProcessByName(gui, true);
        for (int i = 0; i < kStopPolls; ++i) {
            if (FindProcessByName(console, false) == 0) {
                break;
            }
            platform::sleepMs(kStopPollMs);
        }
        // The console this object started may be past the name search (an ending process no
        // longer shows its executable) and not yet ended: wait until it is reaped, so that no
        // zombie child of the host stays behind. Ending a process takes real time, so this
        // wait is bounded in real time, whatever the time scale.
        if (m_nCompanionPid > 0) {
            const auto until = std::chrono::steady_clock::now() +
                               std::chrono::milliseconds(kStopPollMs * kStopPolls);
            while (!platform::reapChild(m_nCompanionPid) &&
                   std::chrono::steady_clock::now() < until) {
                platform::sleepMs(kStopPollMs / 50);
            }
            m_nCompanionPid = -1;
        }
    } catch (const std::exception& e) {
        detail::logLine(std::string("clear: ") + e.what());
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::emptyCache() {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->clearMarkpointData(SDK_NV::DEVICE_TRACKER);
    }
    {
        std::lock_guard<std::mutex> lock(m_mtxScanState);
        m_vecWorkingDevices.clear();
    }
    CPathfinder::emptyTransferMatrix();
    if (m_pMarkpoint != nullptr) {
        m_pMarkpoint->clearLibrary();
    }
    SendMatrix(true);
    return RESULT_SUCCESS;
}

// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::controlLaserOn() {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    if (m_pScanWrapper == nullptr) {
        return RESULT_SEND_REFUSED;
    }
    // The pending verdict and the busy flag go in before the command, so that an answer that
    // arrives at once is not overwritten by them. Only the trigger's own answer (response code
    // 1) is its verdict: answers to the commands sent just before it (the scan object's, say)
    // may still be on their way, and their state 0 says nothing about the trigger.
    const emDeviceResult previous = m_nLastResult.exchange(RESULT_NO_ANSWER);
    m_nTriggerVerdict.store(RESULT_NO_ANSWER);
    m_bTriggerActive.store(true);
    if (!m_pScanWrapper->setTrigger(true, workingDevices())) {
        m_bTriggerActive.store(false);
        m_nLastResult.store(previous);
        return RESULT_SEND_REFUSED;
    }
    detail::writeLine("[" + platform::formatTimestamp(platform::localNow()) + "] Trigger");

    for (int i = 0; i < kTriggerPolls; ++i) {
        const emDeviceResult r = m_nTriggerVerdict.load();
        if (r == RESULT_SUCCESS || r == RESULT_TRIGGER_TIMEOUT) {
            break;
        }
        platform::sleepMs(kTriggerPollMs);
    }
    const emDeviceResult verdict = m_nTriggerVerdict.load();
    m_nLastResult.store(verdict);
    return verdict;
}

emDeviceResult CPathfinder::controlLaserOff() {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setTrigger(false, {});
    }
    std::lock_guard<std::mutex> lock(detail::moduleMutex());
    m_bTriggerActive.store(false);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::EnterTrackPreviewer() {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    m_pScanWrapper->setTrigger(false, {});
    m_pScanWrapper->setWorkBusiness(32);
    m_pScanWrapper->setTrigger(true, {});
    m_pScanWrapper->setImageMode(SDK_NV::IMAGE_MODE_TRACK_PREVIEW);
    platform::sleepMs(kPreviewSettleMs);
    return RESULT_SUCCESS;
}

void CPathfinder::triggerOff() {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setTrigger(false, {});
    }
}

}  // namespace device
