// device::CPathfinder: the optical-tracking device object a measuring application holds.
//
// The host constructs the object, registers its handlers (CDeviceBase::setHandlers), calls
// init() and steers the system through the virtual operations below; results come back through
// the CDeviceBase callbacks. Underneath sits the device SDK (SDK_NV::CTPScanWrapper), whose
// receiving thread delivers every device message to RecvMessageFn one at a time.
//
// Threads: the object makes no thread of its own. The host's thread runs the public
// operations; the SDK's receiving thread runs RecvMessageFn and every CallBack_* handler, and
// with them the host callbacks. Commands are fire-and-poll: an operation sends an SDK command
// and polls flags that the receiving thread writes (all of them std::atomic), with sleeps that
// honour the process-wide time scale (platform::sleepMs).
//
// Scan frames: CallBack_ScanData turns every frame into one tagDeviceData with the scanner pose
// in the frame the scan mode chose (the frame tracker's transfer matrix, the super conversion
// matrix or the dynamic reference) and hands it to the host; while getTransferMatrix measures
// a tracker, frames feed that measurement and are not delivered. Matrix layout and readings:
// device/README.md ("Transfer matrices"). No lock of the module is held while a host callback
// runs, so a handler may call the object's operations (device/README.md, "Host handlers").
//
// Failures are results (emDeviceResult); no exception leaves the object.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device/Export.h"
#include "helmsman/DeviceBase.h"
#include "helmsman/DeviceTypes.h"

namespace SDK_NV {
class CTPScanWrapper;
struct tagWorkRespons;
struct tagHeartData;
struct tagLowPartConfig;
struct tagPripladDeviceData;
struct tagScanData;
struct tagHoleData;
}  // namespace SDK_NV

namespace lumora {
class DeviceInfo;
}

class CTPScan_Markpoint;

namespace device {

// ---------------------------------------------------------------------------------------------
// Free functions of the module
// ---------------------------------------------------------------------------------------------

// Looks for running processes whose executable file name is `exeName` (a trailing ".exe" is
// ignored on POSIX) and, with `terminate`, asks each to end. Nonzero when one was found.
PATHFINDER_API int FindProcessByName(const std::wstring& exeName, bool terminate);

// Fills `info` from the wire record of a device: serial (first 32 bytes of ID), kind (1 for a
// scanner, else 0), model (TrackerType) and state (1 without error codes, 5 for a camera that
// could not be opened, 6 for a USB link that could not be started, else 7; the last matching
// code wins). Other fields of `info` are left as they are.
PATHFINDER_API void tpGetDeviceInfo(const lumora::DeviceInfo& wire, tagDeviceInfo& info);

// Adds one heartbeat to a device's running thermal balance (single-precision running mean over
// the last `record.capacity` samples of the main temperature). A heartbeat without any
// temperature leaves the record as it is and writes one line.
PATHFINDER_API void AddTemperature(tagDeviceThermalBalance& record, SDK_NV::tagHeartData beat);

// The process-wide thermal balance of every device seen, by device name (a copy).
PATHFINDER_API std::map<std::string, tagDeviceThermalBalance> getThermalRecords();
// Forgets every thermal record (for hosts and tests that start over within one process).
PATHFINDER_API void resetThermalRecords();

// Folder of the module's own file, without trailing separator (cached on first use).
PATHFINDER_API std::wstring getAnnexPath();
// The module's version "major.minor.patch.tweak" from the build (cached; valid for the life of
// the module).
PATHFINDER_API const char* getTrackVersion();

// One time-stamped line on standard output: "[Y-m-d H:M:S] <ms since 1970> <msg>", written
// only while the console-log switch is on (off by default).
PATHFINDER_API void TWStdout(const std::string& msg);
PATHFINDER_API void setConsoleLog(bool on);
PATHFINDER_API bool getConsoleLog();

// The process-wide reference marker set: the last set setMarkpoint was told to make the
// reference (a copy; empty before).
PATHFINDER_API tagRefMarkpointData getReferenceMarkpoints();

// ---------------------------------------------------------------------------------------------
// The device object
// ---------------------------------------------------------------------------------------------

class PATHFINDER_API CPathfinder : public CDeviceBase {
public:
    CPathfinder();
    ~CPathfinder() override;
    CPathfinder(const CPathfinder&) = delete;
    CPathfinder& operator=(const CPathfinder&) = delete;

    // --- lifecycle ---------------------------------------------------------------------------
    emDeviceResult init() override;
    emDeviceResult clear() override;
    emDeviceResult emptyCache() override;
    emDeviceResult controlLaserOn() override;
    emDeviceResult controlLaserOff() override;
    emDeviceResult EnterTrackPreviewer() override;

    // --- control commands --------------------------------------------------------------------
    emDeviceResult setScanObject(const emScanObject& object, bool flag) override;
    emDeviceResult setDynamicTracking(const emScanObject& object) override;
    emDeviceResult setWorkBusiness(emWorkBusiness business) override;
    emDeviceResult setTrackingScanner() override;
    emDeviceResult setTrackingMarkpoint() override;
    emDeviceResult setWorkingDevice(const std::vector<std::string>& deviceIds) override;
    emDeviceResult setImageMode(const emImageMode& mode) override;
    emDeviceResult setLEDExposure(const float& exposure) override;
    emDeviceResult setLaserExposure(const float& exposure, int& value) override;
    emDeviceResult setROIErea(bool enable) override;
    emDeviceResult setZaxisCompensation(bool enable) override;
    emDeviceResult setResetCamera() override;
    emDeviceResult setSound(bool enable) override;
    emDeviceResult setBlackObject(const bool& black) override;
    emDeviceResult setTriggerLaser(bool on) override;
    emDeviceResult setHighFrameRate(int rate) override;
    emDeviceResult setCalibHighFrameRate(bool on) override;
    emDeviceResult setHeartBeatInterval(const int& interval) override;
    emDeviceResult setHeartDevice() override;
    emDeviceResult setCurSystemTime() override;
    emDeviceResult setDeviceLaserType(const emDeviceLaserType& type) override;
    emDeviceResult setMetalHoleParamter(emMetalHoleSurfaceColor color,
                                        emMetalHoleSurfaceProcess process) override;
    emDeviceResult setRivetHoleParamter(int first, int second) override;
    emDeviceResult setCustomDepth(const std::string& name, int first, int second) override;
    emDeviceResult setWifiUserPassword(const std::string& user,
                                       const std::string& password) override;
    emDeviceResult grabImage(const std::vector<std::string>& deviceIds) override;
    emDeviceResult setGrabSaveOneFrame(bool on) override;
    emDeviceResult startSuperConversionScanObject(bool on) override;
    emDeviceResult setImagesSavePath(const std::wstring& path) override;
    emDeviceResult updateConfigFolder(wchar_t* folder) override;
    emDeviceResult setPriplad(bool enable) override;

    // --- information -------------------------------------------------------------------------
    emDeviceResult getDeviceInfo(int* count, std::shared_ptr<tagDeviceInfoList>* list) override;
    emDeviceResult getLowpartVersion() override;
    emDeviceResult getDeviceTemperature() override;

    // --- transfer matrices, holes, edges, scan options, markers ------------------------------
    emDeviceResult getTransferMatrix() override;
    emDeviceResult emptyTransferMatrix() override;
    emDeviceResult setSuperConversionScanMatrix(const std::vector<double>& matrix) override;
    emDeviceResult importCascadeFile(const std::wstring& path) override;
    emDeviceResult setFineHoleData(const std::vector<tagScanHoleData>& holes) override;
    emDeviceResult setCuttingEdgeData(const std::vector<tagCuttingEdgeData>& edges) override;
    emDeviceResult SetEnableScanExpand(bool enable) override;
    emDeviceResult SetTrackerMarkPointDiameter(std::vector<float> diameters) override;
    emDeviceResult setMarkpoint(const tagMarkpointList& list, bool asReference) override;
    emDeviceResult setMarkpointRadius(const double* radii, int count) override;
    emDeviceResult setMarkpointDiameter(std::vector<float> diameters) override;
    emDeviceResult GetOptimizationMarkpoint(tagRefMarkpointData& out) override;

    // --- calibration -------------------------------------------------------------------------
    emDeviceResult setDeviceCalibraMode(const emDeviceCalibraMode& mode) override;
    emDeviceResult setCalibTeachStep(int step) override;
    emDeviceResult setCalibTrackRange(emTrackRange range) override;
    emDeviceResult setStartCalibration() override;
    emDeviceResult setGrabOneFrame(emDeviceCalibraPose pose) override;
    emDeviceResult setStopCalibration() override;
    emDeviceResult getCalibraResult(float* result) override;
    // Copies the calibration files of the chosen mode into the host's calibration folder (see
    // device/README.md for the file sets): 101 before a mode was chosen, 6 when modes 3 and 4
    // lack one of the two source folders, 1 when a file is missing or cannot be copied.
    emDeviceResult setCalibrationDevice(const wchar_t* first, const wchar_t* second) override;

    // Translates a device's Wi-Fi state text ("wpa_state=...") into the text shown to the
    // user; any other text is left unchanged. Always 0.
    static emDeviceResult GetWifiConnectTransferInfo(std::string& text);

    // --- state, for hosts and tests that want to look -----------------------------------------
    bool isConnected() const { return m_bConnected.load(); }
    bool isTriggerActive() const { return m_bTriggerActive.load(); }
    emDeviceResult lastCommandResult() const { return m_nLastResult.load(); }
    int calibraMode() const { return m_nCalibraMode.load(); }
    double calibraValue() const { return m_dCalibraValue.load(); }
    bool isRejected() const { return m_bRejectFlag.load(); }
    bool isPripladBusy() const { return m_bPripladBusy.load(); }
    int grabResult() const { return m_nGrabResult.load(); }
    std::vector<std::string> workingDevices() const;
    // The transfer-matrix table as cascade records, ordered by tracker identifier (what
    // writeCascadeFile saves).
    std::vector<TransformTrackingMatrix> transferMatrices() const;
    // Build-model counters of the last frame: the marker library's point count before and
    // after its real-time build step, and the step's result.
    int markerCountBefore() const { return m_nMarkerCountBefore.load(); }
    int markerCountAfter() const { return m_nMarkerCountAfter.load(); }
    int buildModelResult() const { return m_nBuildModelResult.load(); }

    // Scan-mode members, read by the scan-frame handler.
    struct ScanMode {
        int32_t m_bDynamicMarker = 0;
        bool m_bObjectScan = false;
        int32_t m_bMarkerObject = 0;
        bool m_bHoleObject = false;
        bool m_bEdgePoints = false;
        bool m_bBusinessObject = false;
        bool m_bDynamicTracking = false;
        bool m_bSuperConversion = false;
        bool m_bTrackScanner = false;
        bool m_bTrackMarkpoint = false;
    };
    ScanMode scanMode() const;

protected:
    // The SDK's message callback: classifies one SDK_NV::CMessage_Base* and hands it to the
    // handlers below or straight to the host. Never throws.
    void RecvMessageFn(void* message);

    // Handlers entered from RecvMessageFn on the SDK's receiving thread.
    void CallBack_Response(SDK_NV::tagWorkRespons& response);
    void CallBack_ButtonTrigger(int code, int action);
    void CallBack_HeartBeat(std::vector<SDK_NV::tagHeartData>& beats);
    // `imageList` is an SDK_NV::tagCameraImageList.
    void CallBack_CameraImage(void* imageList);
    // `calibDataMessage` is an SDK_NV::CMessage_CalibData.
    void CallBack_Calibrate(void* calibDataMessage);
    // `pScanData` is an SDK_NV::tagScanData: one frame, turned into one tagDeviceData for
    // the host (or consumed by a waiting transfer measurement).
    void CallBack_ScanData(void* pScanData, bool bFlag);

    // Tells the SDK the transform of every tracker it knows: the identity for each, or with
    // bIdentity false and a non-empty table the reverse of each tracker's stored matrix.
    void SendMatrix(bool bIdentity);

    // Re-expresses a whole frame (laser points and directions, marker centres and directions)
    // in the super conversion frame; nothing without super conversion or its matrix.
    void ScanInThreePointTrack(SDK_NV::tagScanData& frame);

    // The SDK wrapper (null only if it could not be created).
    SDK_NV::CTPScanWrapper* scanWrapper() const { return m_pScanWrapper; }

private:
    friend struct CPathfinderScanAccess;  // white-box access for the unit tests

    // RecvMessageFn's work. `fromLink`: the message is the one the SDK link is delivering
    // (the callback init registers), which the SDK releases when the callback returns.
    void dispatchMessage(void* message, bool fromLink);
    // CallBack_ScanData's work. `takeLaser`: nobody reads the frame afterwards, so its laser
    // points and directions move into the host's record instead of being copied.
    void scanFrame(SDK_NV::tagScanData& frame, bool bFlag, bool takeLaser);

    // --- matrix and point routines (ScanMath.cpp); layouts in device/README.md ------------
    static void getReverseTransferMatrix(double* const in, double* const out, bool bTranspose,
                                         bool bRowTranslate);
    static void getTransposeRotateMatrix(double* const in, double* const out);
    static void getTransfromRT(const double* const M, const double (*Rin)[3],
                               const double* const tin, double (*Rout)[3], double* const tout);
    static void TransformScanData_Laser(std::vector<float>& pts, const double* const M,
                                        bool bColumn);
    static void TransformScanData_MarkPoint(std::vector<double>& pts, const double* const M,
                                            bool bColumn);
    // Converts the frame's holes (state below 201 only) into host records; with `transform`
    // centres and rim points are mapped as row-vector points by M, directions by its block,
    // and the pose buffer (rotation 9, translation 3) is rewritten as pose * M.
    static void TransformScanData_Hole(const std::vector<SDK_NV::tagHoleData>& holes,
                                       double* const pose, const bool& transform, const double* M,
                                       std::vector<tagScanHoleData>& out);

    // --- transfer-matrix table (callers hold m_mtxScanState) ---------------------------------
    void Scan_TransferMatrix_Get(const std::string& id, double* const M, double* const Rev);
    void Scan_TransferMatrix_Update(const std::string& id, const double* const M);
    void releaseTransferTable();
    // One real-time model step of the marker library with the frame's markers.
    int ReadltimeBuildModel(SDK_NV::tagScanData& frame, tagRefMarkpointData& result,
                            tagRefMarkpointData& work, bool unused);

    // Sends setTrigger(false, {}) so that the laser stops before a mode changes.
    void triggerOff();
    // Scan-object selection shared by setScanObject and setDynamicTracking.
    emDeviceResult selectScanObject(const emScanObject& object, bool dynamic);
    // Waits for an acknowledgement of setROIErea / setZaxisCompensation.
    emDeviceResult waitRegionAccepted();
    // Waits until the receiving thread clears the configuration-pending flag.
    void waitConfiguration();
    // Companion folder (annex + "Lumora") and its programs.
    std::wstring companionFolder() const;

    SDK_NV::CTPScanWrapper* m_pScanWrapper = nullptr;  // owned
    CTPScan_Markpoint* m_pMarkpoint = nullptr;         // owned
    std::atomic<emDeviceResult> m_nLastResult{RESULT_SUCCESS};
    // The answer to the last trigger-on (response code 1) alone, which controlLaserOn waits
    // for: answers to other commands that arrive meanwhile are no verdict on the trigger.
    std::atomic<emDeviceResult> m_nTriggerVerdict{RESULT_NO_ANSWER};
    // Guards the working devices and the scan state below (transfer-matrix table, current
    // tracker and its matrices, super conversion matrix, diameter table). Held only for short
    // reads and updates, never while a host callback or an SDK command runs: a host handler
    // may call every operation that takes it (device/README.md, "Host handlers").
    mutable std::mutex m_mtxScanState;
    std::vector<std::string> m_vecWorkingDevices;
    std::map<std::string, double*> m_mapTransferMatrix;
    int32_t m_nWorkBusiness = 2;
    std::atomic<bool> m_bTriggerActive{false};
    std::atomic<bool> m_bConnected{false};
    int m_nCompanionPid = -1;  // the console init started (host thread only), -1: none
    std::atomic<bool> m_bReceiptSeen{false};
    std::atomic<bool> m_bConfigPending{false};
    std::atomic<bool> m_bPripladBusy{false};
    std::atomic<bool> m_bRejectFlag{false};
    std::atomic<int32_t> m_nGrabResult{0};
    std::atomic<int32_t> m_nCalibraMode{CALIBRA_MODE_NONE};
    std::atomic<double> m_dCalibraValue{0.0};
    std::atomic<float> m_fCalibraResult{0.0f};
    // Written by the receiving thread (receipts 6 and 7), read by setPriplad; guarded.
    mutable std::mutex m_mtxLowPart;
    std::vector<SDK_NV::tagPripladDeviceData>* m_pPripladDevices = nullptr;  // owned
    SDK_NV::tagLowPartConfig* m_pLowPartConfig = nullptr;                    // owned

    // Scan modes: written on the host's thread, read by the scan-frame handler.
    std::atomic<int32_t> m_bDynamicMarker{0};
    std::atomic<bool> m_bObjectScan{false};
    std::atomic<int32_t> m_bMarkerObject{0};
    std::atomic<bool> m_bHoleObject{false};
    std::atomic<bool> m_bEdgePoints{false};
    std::atomic<bool> m_bBusinessObject{false};
    std::atomic<bool> m_bDynamicTracking{false};
    std::atomic<bool> m_bSuperConversion{false};
    std::atomic<bool> m_bTrackScanner{false};
    std::atomic<bool> m_bTrackMarkpoint{false};

    // Scan pipeline, guarded by m_mtxScanState: a frame reads all of it in one hold of the
    // lock, so it sees the state of one moment.
    std::string m_strCurTrackerId;
    double m_dCurTransferMatrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    double m_dCurReverseMatrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    std::vector<double> m_vecSuperConversionMatrix;
    std::vector<float> m_vecMarkerDiameter;  // by reference marker identifier
    // Transfer measurement handshake: waiting in the low byte, frame done in the high byte,
    // both written in one store by the measuring thread.
    std::atomic<uint16_t> m_nTransferHandshake{0};
    std::atomic<bool> m_bTransferOk{false};
    std::atomic<int32_t> m_nTransferResult{0};
    std::atomic<int32_t> m_nTransferStatus{0};
    std::atomic<int32_t> m_nLastTrackResult{0};
    // Frame counters.
    std::atomic<int32_t> m_nFrameHoleCount{0};
    std::atomic<int32_t> m_nMarkerCountBefore{0};
    std::atomic<int32_t> m_nMarkerCountAfter{0};
    std::atomic<int32_t> m_nBuildModelResult{0};
    // Reference set of the dynamic model build and its result (frame thread only).
    tagRefMarkpointData m_refMarkpointWork;
    tagRefMarkpointData m_refMarkpointResult;
    // Last set given to setMarkpoint (host thread only).
    std::vector<float> m_vecMarkPositions;
    std::vector<float> m_vecMarkNormals;
    std::vector<float> m_vecMarkValues;
};

}  // namespace device
