// RecvMessageFn: classification of the SDK's messages and what each one reports to the host.
#include <chrono>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>

#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/Messages.h"
#include "sdk/TPWrapper.h"

namespace device {

namespace {

constexpr int kDiagnosisRequests = 5;
constexpr int kDiagnosisWaitMs = 500;
constexpr int kCalibraResultSettleMs = 500;

// Whether the first diagnostic entry (scanners first, then trackers) reports state 1. The
// wire entries carry no state of their own; their camera-trigger switch is that state.
bool firstDiagnosisEntry(const lumora::DiagnosticInfo& d, bool* state) {
    if (d.scannerdiagnosticinfo_size() > 0) {
        *state = d.scannerdiagnosticinfo(0).biscamtrigger();
        return true;
    }
    if (d.trackerdiagnosticinfo_size() > 0) {
        *state = d.trackerdiagnosticinfo(0).biscamtrigger();
        return true;
    }
    return false;
}

int64_t steadyNowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Diagnosis requests after a device arrival. The answers come on the receiving thread, the
// thread that runs this, so the wait must not hold it: the arrival makes the first request
// and returns; every later message checks the round again (after it was handled, so an
// answer ends the round at once). A round ends when an answer came, or 500 ms after the
// fifth request; each further request goes out with the first message that comes 500 ms or
// more after the previous one (heartbeats keep coming while a device is connected). Then
// the received flag is cleared. A new arrival starts a new round.
void driveDiagnosis(SDK_NV::CTPScanWrapper* wrapper, bool arrival) {
    detail::ModuleFlags& flags = detail::moduleFlags();
    const int64_t now = steadyNowNs();
    const auto request = [&] {
        flags.diagnosisRequests.fetch_add(1);
        flags.diagnosisDueNs.store(
            now + platform::scaledDuration(std::chrono::milliseconds(kDiagnosisWaitMs)).count());
        wrapper->getDiagnosisInfo();
    };
    if (arrival) {
        // Request first, then test: only an answer that comes after this arrival ends it.
        flags.diagnosisReceived.store(false);
        flags.diagnosisRequests.store(0);
        flags.diagnosisPending.store(true);
        request();
        return;
    }
    if (!flags.diagnosisPending.load()) {
        return;
    }
    if (!flags.diagnosisReceived.load()) {
        if (now < flags.diagnosisDueNs.load()) {
            return;
        }
        if (flags.diagnosisRequests.load() < kDiagnosisRequests) {
            request();
            return;
        }
    }
    flags.diagnosisPending.store(false);
    flags.diagnosisReceived.store(false);
}

// Runs driveDiagnosis when a message has been handled, however the handling ended.
class AfterMessage {
public:
    explicit AfterMessage(SDK_NV::CTPScanWrapper* wrapper) : m_wrapper(wrapper) {}
    AfterMessage(const AfterMessage&) = delete;
    AfterMessage& operator=(const AfterMessage&) = delete;
    ~AfterMessage() {
        try {
            driveDiagnosis(m_wrapper, false);
        } catch (...) {
            detail::logLine("diagnosis request failed");
        }
    }

private:
    SDK_NV::CTPScanWrapper* m_wrapper;
};

}  // namespace

emDeviceResult CPathfinder::GetWifiConnectTransferInfo(std::string& text) {
    static const std::map<std::string, std::string> kTexts = {
        {"wpa_state=INTERFACE_DISABLED", "unavailable Network Card"},
        {"wpa_state=SCANNING", "network card Scaning_Router"},
        {"wpa_state=ASSOCIATING", "network card consulting with router"},
        {"wpa_state=GROUP_HANDSHAKE", "network card shaking hands with router"},
        {"wpa_state=4WAY_HANDSHAKE", "network card shaking hands with router"},
        {"wpa_state=DISCONNECTING", "network card disconnecting"},
        {"wpa_state=DISCONNECTED", "network card disconnected"},
        {"wpa_state=ASSOCIATED", "network card consulted with router "},
        {"wpa_state=COMPLETED", "complete connection"},
    };
    const auto it = kTexts.find(text);
    if (it != kTexts.end()) {
        text = it->second;
    }
    return RESULT_SUCCESS;
}

void CPathfinder::RecvMessageFn(void* message) {
    dispatchMessage(message, false);
}

void CPathfinder::dispatchMessage(void* message, bool fromLink) {
    try {
        auto* base = static_cast<SDK_NV::CMessage_Base*>(message);
        if (m_pScanWrapper == nullptr || base == nullptr) {
            return;
        }
        const AfterMessage after(m_pScanWrapper);
        const int type = base->getType();
        if (type < 0 || type > SDK_NV::MSG_CALIBDATA) {
            return;
        }

        switch (type) {
            case SDK_NV::MSG_CONNECT: {
                auto* m = dynamic_cast<SDK_NV::CMessage_Connect*>(base);
                if (m == nullptr) {
                    return;
                }
                if (m->getConnect()) {
                    m_bConnected.store(true);
                    callDeviceTReply("", REPLY_SDK_CONNECTED, nullptr);
                    return;
                }
                m_bConnected.store(false);
                {
                    // The devices stop streaming with their connection and start the next one
                    // untriggered, so the trigger ends here; otherwise a new controlLaserOn
                    // after the link came back would be refused as busy.
                    std::lock_guard<std::mutex> lock(detail::moduleMutex());
                    m_bTriggerActive.store(false);
                }
                SDK_NV::CTPDeviceManager* devices = m_pScanWrapper->getTPDeviceManager();
                for (const std::string& id : devices->getTracker()) {
                    tagDeviceInfo info;
                    info.setSerial(id);
                    info.kind = DEVICE_TYPE_TRACKER;
                    info.state = STATE_DISCONNECTED;
                    detail::writeLine("disconnect 1533");
                    callDeviceState(STATE_DISCONNECTED, info, nullptr);
                }
                for (const std::string& id : devices->getScanner()) {
                    tagDeviceInfo info;
                    info.setSerial(id);
                    info.kind = DEVICE_TYPE_SCANNER;
                    info.state = STATE_DISCONNECTED;
                    detail::writeLine("disconnect 1541");
                    callDeviceState(STATE_DISCONNECTED, info, nullptr);
                }
                callDeviceTReply("", REPLY_SDK_DISCONNECTED, nullptr);
                return;
            }

            case SDK_NV::MSG_RECEIPT: {
                auto* m = dynamic_cast<SDK_NV::CMessage_Receipt*>(base);
                if (m == nullptr) {
                    return;
                }
                m_bReceiptSeen.store(true);
                const int kind = m->getReceiptKind();
                switch (kind) {
                    case SDK_NV::RECEIPT_WORK_RESPONSE: {
                        SDK_NV::tagWorkRespons response;
                        response.state = -1;
                        m->getWorkResponsInfo(&response);
                        CallBack_Response(response);
                        return;
                    }
                    case SDK_NV::RECEIPT_HEARTBEAT: {
                        std::vector<SDK_NV::tagHeartData> beats;
                        m->getHeartData(&beats);
                        CallBack_HeartBeat(beats);
                        return;
                    }
                    case SDK_NV::RECEIPT_CAMERA_IMAGES: {
                        SDK_NV::tagCameraImageList images;
                        m->getCameraImages(images);
                        CallBack_CameraImage(&images);
                        return;
                    }
                    case SDK_NV::RECEIPT_DIAGNOSIS: {
                        const lumora::DiagnosticInfo diagnosis = m->getDiagnosisInfo();
                        bool state = false;
                        if (firstDiagnosisEntry(diagnosis, &state)) {
                            detail::moduleFlags().diagnosisState.store(state);
                        }
                        detail::moduleFlags().diagnosisReceived.store(true);
                        return;
                    }
                    case SDK_NV::RECEIPT_LOWPART_CONFIG: {
                        // The record is in place before the waiting command sees the flag.
                        {
                            std::lock_guard<std::mutex> lock(m_mtxLowPart);
                            if (m_pLowPartConfig != nullptr) {
                                m->getLowPartConfig(m_pLowPartConfig);
                            }
                        }
                        m_bConfigPending.store(false);
                        return;
                    }
                    case SDK_NV::RECEIPT_PRIPLAD_LIST: {
                        {
                            std::lock_guard<std::mutex> lock(m_mtxLowPart);
                            if (m_pPripladDevices != nullptr) {
                                m->getPripladDevices(m_pPripladDevices);
                            }
                        }
                        m_bConfigPending.store(false);
                        return;
                    }
                    case SDK_NV::RECEIPT_REMAINING_RGF: {
                        SDK_NV::tagRemainingRGFs list;
                        m->getRemainingRGF(list);
                        std::map<std::string, int> counts;
                        for (const SDK_NV::tagRemainingRGF& entry : list.vecRGF) {
                            counts[entry.strName] = entry.nCount;  // a later entry wins
                        }
                        callDeviceTReply("", REPLY_REMAINING_RESOURCES, &counts);
                        return;
                    }
                    case SDK_NV::RECEIPT_FIRMWARE_CHECK:
                        detail::writeLine("test");
                        break;  // on to the Wi-Fi report
                    case SDK_NV::RECEIPT_CALIB_RESULT:
                        m_fCalibraResult.store(static_cast<float>(m->getCalibraResult()));
                        platform::sleepMs(kCalibraResultSettleMs);
                        detail::moduleFlags().calibraResultReady.store(true);
                        detail::writeLine("test");
                        break;  // on to the Wi-Fi report
                    case SDK_NV::RECEIPT_WIFI_CONNECT:
                        break;
                    default:
                        return;
                }
                // Wi-Fi report (kind 23, and the kinds 14 and 15 that end here too).
                const SDK_NV::tagWIFIConnectInfo wifi = m->getWIFIConnectInfo();
                std::string text = wifi.strEventMessage;
                GetWifiConnectTransferInfo(text);
                callDeviceTReply("", REPLY_WIFI_STATE, text.c_str());
                return;
            }

            case SDK_NV::MSG_DEVICE: {
                auto* m = dynamic_cast<SDK_NV::CMessage_Device*>(base);
                if (m == nullptr) {
                    return;
                }
                if (!m->getConnect()) {
                    tagDeviceInfo info;
                    info.state = STATE_DISCONNECTED;
                    info.kind = static_cast<int32_t>(m->getDeviceType());
                    info.setSerial(m->getDeviceSN());
                    callDeviceState(STATE_DISCONNECTED, info, nullptr);
                    return;
                }
                tagDeviceInfo info;
                tpGetDeviceInfo(m->deviceInfo(), info);
                if (info.model == 2) {
                    setHighFrameRate(3);
                } else if (info.model == 3) {
                    setHighFrameRate(5);
                }
                callDeviceState(static_cast<emDeviceState>(info.state), info, nullptr);
                {
                    const lumora::DeviceInfo payload = m->getDeviceInfo();
                    callDeviceTReply(info.serialText(), REPLY_DEVICE_INFO, &payload);
                }
                driveDiagnosis(m_pScanWrapper, true);
                return;
            }

            case SDK_NV::MSG_BUTTON: {
                auto* m = dynamic_cast<SDK_NV::CMessage_Button*>(base);
                if (m != nullptr) {
                    CallBack_ButtonTrigger(m->getButtonCode(), m->getButtonAction());
                }
                return;
            }

            case SDK_NV::MSG_SCANDATA: {
                auto* m = dynamic_cast<SDK_NV::CMessage_ScanData*>(base);
                if (m != nullptr && m->getScanData() != nullptr) {
                    // The link's message ends when this callback returns; unless a copy of
                    // the message shares its frame (the count then exceeds this message's
                    // and the temporary's), the frame's laser arrays are handed on, not
                    // copied.
                    const bool sole = fromLink && m->getScanData_Shared().use_count() == 2;
                    scanFrame(*m->getScanData(), true, sole);
                }
                return;
            }

            case SDK_NV::MSG_CALIBDATA:
                CallBack_Calibrate(base);
                return;

            default:  // type 4: nothing
                return;
        }
    } catch (const std::exception& e) {
        detail::logLine(std::string("message dropped: ") + e.what());
    } catch (...) {
        detail::logLine("message dropped: unknown failure");
    }
}

}  // namespace device
