// Calibration: the host's calibration protocol, the calibration-data and camera-image
// handlers, and the calibration files of setCalibrationDevice.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>

#include "Mappings.h"
#include "ModuleState.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/Messages.h"
#include "sdk/TPWrapper.h"

namespace device {

namespace {

constexpr int kCalibSettleMs = 1000;
constexpr int kGrabFirstWaitMs = 500;
constexpr int kGrabPolls = 50;
constexpr int kGrabPollMs = 100;
constexpr int kResultFirstWaitMs = 500;
constexpr int kResultPolls = 20;
constexpr int kResultPollMs = 1000;

// ---------------------------------------------------------------------------------------------
// Calibration files (setCalibrationDevice)
// ---------------------------------------------------------------------------------------------

// Folder of calibration files below the host's documents folder and below the annex folder.
constexpr const wchar_t* kCalibrationFolder = L"Lumora";
constexpr const wchar_t* kCalibrationSubfolder = L"Calibration";

// File name of a calibration file of the standard set, or of the alternative set that devices
// whose low-part version begins with '2' use ("<stem>_V2.clb").
std::wstring calibrationFileName(const wchar_t* stem, bool alternative) {
    return std::wstring(stem) + (alternative ? L"_V2.clb" : L".clb");
}

// Copies `from` to `to` through a temporary file beside `to`, so that a failed copy never
// leaves a damaged calibration file behind.
bool copyFile(const std::wstring& from, const std::wstring& to) {
    const std::string source = platform::nativePath(from);
    const std::string target = platform::nativePath(to);
    const std::string temporary = target + ".tmp";
    if (!platform::fileExists(source)) {
        detail::logLine("calibration file missing: " + source);
        return false;
    }
    {
        std::ifstream in(source, std::ios::binary);
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!in || !out) {
            detail::logLine("cannot copy " + source + " to " + target);
            return false;
        }
        out << in.rdbuf();
        out.flush();
        if (!out) {
            out.close();
            std::remove(temporary.c_str());
            detail::logLine("cannot write " + temporary);
            return false;
        }
    }
    if (std::rename(temporary.c_str(), target.c_str()) != 0) {
        std::remove(temporary.c_str());
        detail::logLine("cannot replace " + target);
        return false;
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Protocol
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::setDeviceCalibraMode(const emDeviceCalibraMode& mode) {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    if (mode == CALIBRA_MODE_NONE) {
        return RESULT_INVALID_ARGUMENT;
    }
    m_dCalibraValue.store(-1.0);
    m_nCalibraMode.store(mode);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setCalibTeachStep(int step) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    m_pScanWrapper->setCalibTeachStep(step);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setCalibTrackRange(emTrackRange range) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    m_pScanWrapper->setTrackRangeLevel(static_cast<SDK_NV::TRACKRANGE>(range));
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setStartCalibration() {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    SDK_NV::CTPScanWrapper& sdk = *m_pScanWrapper;
    sdk.setTrigger(false, {});
    sdk.setLEDExposure(0.0f, SDK_NV::DEVICE_SCANNER);
    sdk.setLaserExposure(0.0f);
    switch (m_nCalibraMode.load()) {
        case CALIBRA_MODE_SCAN_CHECK:
            sdk.setStartScan(SDK_NV::SCAN_MARKPOINT);
            break;
        case CALIBRA_MODE_TRACKER_BAR:
            sdk.setCalibrationMode(SDK_NV::CALIB_BAR);
            sdk.getCalibLocationStep(SDK_NV::CALIB_BAR_LOCATION);
            break;
        case CALIBRA_MODE_LASER:
            sdk.getCalibBoardSize();
            sdk.setCalibrationMode(SDK_NV::CALIB_SCANNER_BOARD);
            sdk.getCalibLocationStep(SDK_NV::CALIB_SCANNER);
            break;
        case CALIBRA_MODE_FAR_LASER:
            sdk.getCalibBoardSize();
            sdk.setCalibrationMode(SDK_NV::CALIB_SCANNER_BOARD_LASER);
            sdk.getCalibLocationStep(SDK_NV::CALIB_SCANNER);
            break;
        case CALIBRA_MODE_SCANNER_POSITION:
            sdk.getCalibBoardSize();
            sdk.setCalibrationMode(SDK_NV::CALIB_SCANNER_POSITION);
            break;
        default:  // scanner calibration, also when no mode was chosen
            sdk.setCalibrationMode(SDK_NV::CALIB_SCANNER);
            break;
    }
    platform::sleepMs(kCalibSettleMs);
    sdk.setTrigger(true, workingDevices());
    platform::sleepMs(kCalibSettleMs);
    detail::moduleFlags().calibState.store(-1);
    if (isSaveImages()) {
        const std::wstring folder = detail::imagesSavePath();
        if (!folder.empty() && !platform::makeDirectories(platform::nativePath(folder))) {
            detail::logLine("cannot create the images folder " + detail::imagesSavePathUtf8());
        }
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setGrabOneFrame(emDeviceCalibraPose pose) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    detail::ModuleFlags& flags = detail::moduleFlags();
    // Reset before sending, so that neither a stale acknowledgement nor the reset itself can
    // hide this grab's answer.
    m_nGrabResult.store(0);
    flags.grabAnswered.store(false);
    m_pScanWrapper->setGrabOneFrame(pose);
    platform::sleepMs(kGrabFirstWaitMs);
    for (int i = 0; i < kGrabPolls; ++i) {
        if (flags.grabAnswered.exchange(false)) {
            return detail::grabResultFromState(m_nGrabResult.load());
        }
        platform::sleepMs(kGrabPollMs);
    }
    return RESULT_FAILED;
}

emDeviceResult CPathfinder::setStopCalibration() {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setTrigger(false, {});
    }
    {
        std::lock_guard<std::mutex> lock(detail::moduleMutex());
        m_bTriggerActive.store(false);
    }
    {
        std::lock_guard<std::mutex> lock(m_mtxScanState);
        m_vecWorkingDevices.clear();
    }
    m_nCalibraMode.store(CALIBRA_MODE_NONE);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::getCalibraResult(float* result) {
    if (result == nullptr) {
        return RESULT_INVALID_ARGUMENT;
    }
    const int mode = m_nCalibraMode.load();
    setStopCalibration();
    platform::sleepMs(kResultFirstWaitMs);

    detail::ModuleFlags& flags = detail::moduleFlags();
    flags.calibraResultReady.store(false);  // only this request's answer counts
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->getCalibraResult();
    }
    *result = -1.0f;
    bool answered = false;
    for (int i = 0; i < kResultPolls; ++i) {
        if (flags.calibraResultReady.load()) {
            *result = m_fCalibraResult.load();
            answered = true;
            break;
        }
        platform::sleepMs(kResultPollMs);
    }
    flags.calibraResultReady.store(false);
    if (!answered) {
        return RESULT_NO_ANSWER;
    }
    const emDeviceResult code = detail::calibraResultCode(*result);
    if (code != RESULT_SUCCESS) {
        return code;
    }
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setCalibReloadParams(
            mode == CALIBRA_MODE_TRACKER_BAR ? SDK_NV::DEVICE_TRACKER : SDK_NV::DEVICE_SCANNER);
    }
    return RESULT_SUCCESS;
}

// ---------------------------------------------------------------------------------------------
// Calibration files
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::setCalibrationDevice(const wchar_t* first, const wchar_t* second) {
    const std::wstring documents = isUsePublicDocument() ? CDeviceBase::getPublicDocumentPath()
                                                         : CDeviceBase::getDocumentPath();
    const std::wstring hostFolder = platform::joinPath(
        platform::joinPath(documents, std::wstring(kCalibrationFolder)), kCalibrationSubfolder);
    const std::wstring deviceFolder =
        platform::joinPath(companionFolder(), std::wstring(kCalibrationSubfolder));
    const std::string version =
        m_pScanWrapper != nullptr ? m_pScanWrapper->getLowpartVersion() : std::string();
    const bool alternative = !version.empty() && version[0] == '2';
    const std::wstring firstFolder = first != nullptr ? std::wstring(first) : std::wstring();
    const std::wstring secondFolder = second != nullptr ? std::wstring(second) : std::wstring();

    // (source folder, file stem) of every file the mode installs.
    std::vector<std::pair<std::wstring, const wchar_t*>> files;
    switch (m_nCalibraMode.load()) {
        case CALIBRA_MODE_NONE:
            return RESULT_NO_CALIBRA_MODE;
        case CALIBRA_MODE_TRACKER_BAR:
            files.emplace_back(firstFolder.empty() ? hostFolder : firstFolder, L"TrackerBar");
            break;
        case CALIBRA_MODE_SCANNER_POSITION:
            files.emplace_back(firstFolder.empty() ? hostFolder : firstFolder, L"ScannerPosition");
            break;
        case CALIBRA_MODE_LASER:
        case CALIBRA_MODE_FAR_LASER:
            if (firstFolder.empty() || secondFolder.empty()) {
                return RESULT_INVALID_ARGUMENT;
            }
            files.emplace_back(firstFolder, L"ScannerCamera");
            files.emplace_back(
                secondFolder, m_nCalibraMode.load() == CALIBRA_MODE_LASER ? L"Laser" : L"FarLaser");
            break;
        default:
            m_dCalibraValue.store(-1.0);
            return RESULT_SUCCESS;
    }

    if (!platform::makeDirectories(platform::nativePath(deviceFolder))) {
        detail::logLine("cannot create " + platform::nativePath(deviceFolder));
        return RESULT_FAILED;
    }
    bool ok = true;
    for (const auto& file : files) {
        const std::wstring name = calibrationFileName(file.second, alternative);
        ok = copyFile(platform::joinPath(file.first, name),
                      platform::joinPath(deviceFolder, name)) &&
             ok;
    }
    return ok ? RESULT_SUCCESS : RESULT_FAILED;
}

// ---------------------------------------------------------------------------------------------
// Handlers on the receiving thread
// ---------------------------------------------------------------------------------------------

void CPathfinder::CallBack_Calibrate(void* calibDataMessage) {
    auto* base = static_cast<SDK_NV::CMessage_Base*>(calibDataMessage);
    auto* m = dynamic_cast<SDK_NV::CMessage_CalibData*>(base);
    if (m == nullptr) {
        return;
    }
    switch (m->getTrackerGrabIndex()) {
        case SDK_NV::CALIB_STEP_LOCATION: {
            const int32_t location = m->getLocationNumber();
            callDeviceTFastCali(FAST_CALI_LOCATION, &location);
            return;
        }
        case SDK_NV::CALIB_STEP_BOARD_LATTICE: {
            int a = 0;
            int b = 0;
            m->getBoardLattice(a, b);
            const int32_t lattice[2] = {a, b};
            callDeviceTFastCali(FAST_CALI_BOARD_LATTICE, lattice);
            return;
        }
        case SDK_NV::CALIB_STEP_SCANNER_BOARD: {
            std::vector<double> values;
            m->getScannerBoard(&values);
            callDeviceTFastCali(FAST_CALI_SCANNER_BOARD, values.data());
            return;
        }
        case SDK_NV::CALIB_STEP_TRACKER_POSE: {
            tagClbTrackerPose pose;
            SDK_NV::CLBBARPOSE bar = SDK_NV::CLBBAR_ERROR_POSE;
            m->getTrackerPose(pose.rotation, pose.translation, &bar);
            pose.barPose = bar;
            callDeviceTFastCali(FAST_CALI_TRACKER_POSE, &pose);
            return;
        }
        case SDK_NV::CALIB_STEP_TRACKER_POSE_LONG: {
            tagClbTrackerPoseEx pose;
            SDK_NV::CLBBARPOSE bar = SDK_NV::CLBBAR_ERROR_POSE;
            m->getTrackerPose(pose.pose.rotation, pose.pose.translation, &bar);
            pose.pose.barPose = bar;
            pose.grabIndex = m->getTrackerGrabIndex();
            pose.location = m->getLocationNumber();
            callDeviceTFastCali(FAST_CALI_TRACKER_POSE_LONG, &pose);
            return;
        }
        case SDK_NV::CALIB_STEP_SCANNER_CALIB: {
            SDK_NV::tagCalibData in;
            m->getScannerCalib(in);
            tagClbScannerCalibData out;
            out.index = in.nResult;
            out.rows = in.nRows;
            out.columns = in.nCols;
            for (int c = 0; c < 2; ++c) {
                std::memcpy(out.cameras[c].rows, in.camera[c].dMatrix, sizeof(out.cameras[c].rows));
                std::memcpy(out.cameras[c].vectors[0], in.camera[c].dRotationVector,
                            sizeof(out.cameras[c].vectors[0]));
                std::memcpy(out.cameras[c].vectors[1], in.camera[c].dTranslation,
                            sizeof(out.cameras[c].vectors[1]));
            }
            const int64_t cells = static_cast<int64_t>(in.nRows) * in.nCols;
            if (cells >= 1 && !in.vecLattice.empty()) {
                if (static_cast<uint64_t>(cells) <= in.vecLattice.size()) {
                    out.lattice.reserve(static_cast<size_t>(cells));
                    for (int64_t i = 0; i < cells; ++i) {
                        out.lattice.push_back(in.vecLattice[static_cast<size_t>(i)] != 0);
                    }
                } else {
                    detail::logLine(
                        "calibration lattice shorter than its rows x columns; mask "
                        "left empty");
                }
            }
            callDeviceTFastCali(FAST_CALI_SCANNER_DATA, &out);
            return;
        }
        default:
            return;  // other steps are not reported
    }
}

void CPathfinder::CallBack_CameraImage(void* imageList) {
    const auto* list = static_cast<const SDK_NV::tagCameraImageList*>(imageList);
    if (list == nullptr) {
        return;
    }
    for (const SDK_NV::tagCameraImgData& image : list->vecImages) {
        callDeviceImage(image.nCameraIndex, image.nWidth, image.nHeight, image.strName, nullptr);
    }
}

}  // namespace device
