// Work responses of the devices and button events.
#include "Mappings.h"
#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "sdk/Records.h"

namespace device {

void CPathfinder::CallBack_Response(SDK_NV::tagWorkRespons& response) {
    detail::ModuleFlags& flags = detail::moduleFlags();
    const int32_t code = response.code;
    // Codes 1 and 2 are the trigger's own answers: an ending state stops the trigger.
    const auto clearOnTrigger = [this, code] {
        if (code == 1 || code == 2) {
            m_bTriggerActive.store(false);
        }
    };

    switch (code) {
        case 154:
            if (response.state == -2) {
                m_bRejectFlag.store(true);
                clearOnTrigger();
                return;
            }
            break;
        case 159: {
            const bool finished = true;
            callDeviceTFastCali(FAST_CALI_FINISHED, &finished);
            break;
        }
        // The outcome goes in before the acknowledgement, so that a poller that sees the
        // acknowledgement reads this answer's outcome.
        case 173:
            if (response.state == -1) {
                flags.grabOk173.store(false);
                flags.grabAnswered.store(true);
                clearOnTrigger();
                return;
            }
            if (response.state == 0) {
                flags.grabOk173.store(true);
            }
            flags.grabAnswered.store(true);
            break;
        case 179:
            m_nGrabResult.store(response.state);
            flags.grabAnswered.store(true);
            break;
        case 181:
        case 182:
            if (response.state == -1) {
                flags.grabOk181.store(false);
                flags.grabAnswered.store(true);
                clearOnTrigger();
                return;
            }
            if (response.state == 0) {
                flags.grabOk181.store(true);
            }
            flags.grabAnswered.store(true);
            break;
        case 192:
            callDeviceTriggerNoData();
            break;
        case 300:
            callDeviceNeedRetrigger();
            break;
        default:
            break;
    }

    // States compare as unsigned: -1 and -2 lie above every listed state.
    const auto state = static_cast<uint32_t>(response.state);
    const bool calibrating = m_nCalibraMode.load() > 1;
    // The last command result; the trigger's own answer (code 1) is also its verdict.
    const auto result = [this, code](emDeviceResult r) {
        if (code == 1) {
            m_nTriggerVerdict.store(r);
        }
        m_nLastResult.store(r);
    };
    switch (state) {
        case 0:
            if (code == 146) {
                m_bPripladBusy.store(false);
            }
            result(RESULT_SUCCESS);
            return;
        case 3:
        case 4:
            result(RESULT_TRIGGER_REJECTED);
            return;
        case 5:
            detail::writeLine("[pathfinder] trigger device timeout");
            result(RESULT_TRIGGER_TIMEOUT);
            return;
        case 11:
        case 12:
        case 13:
            if (calibrating) {
                // Device states 11, 12, 13 are the host's 13, 12, 14.
                const emDeviceState hostState = state == 11   ? STATE_CALIB_POSE_DONE
                                                : state == 12 ? STATE_CALIB_STEP_DONE
                                                              : STATE_CALIB_COMPLETE;
                result(RESULT_SUCCESS);
                callDeviceState(hostState, tagDeviceInfo(), nullptr);
            }
            return;
        case 15:
            m_bPripladBusy.store(false);
            return;
        case 16:
            callDeviceState(STATE_DEVICE_NOTICE, tagDeviceInfo(), nullptr);
            return;
        case 112:
            callDeviceTReply(response.text, REPLY_DEVICE_TEXT, response.text.c_str());
            return;
        default:
            clearOnTrigger();
            return;
    }
}

void CPathfinder::CallBack_ButtonTrigger(int code, int action) {
    callDeviceButton(detail::buttonFromCode(code), detail::buttonActionFromCode(action));
}

}  // namespace device
