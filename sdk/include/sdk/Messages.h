// Message classes of the device SDK (namespace SDK_NV).
//
// Every event from the devices reaches the caller as one CMessage_Base* whose getType() says
// which subclass it is. The object belongs to the SDK for the duration of the callback; copy it
// (copy constructor or assignment) to keep it.
//
// pack() writes the subclass's members as the Protocol Buffers body of the link (schema
// sdk/proto/sdk_link.proto); unpack() reads such a body. The base fields (type, id, device ids)
// travel in the frame's envelope, not in the body. Neither throws: pack returns the body size
// or -1, unpack returns 0 or -1 and leaves the object unchanged on failure.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lumora.pb.h"
#include "sdk/Records.h"

namespace SDK_NV {

// Type ids of the message classes.
enum MESSAGETYPE : int32_t {
    MSG_CONNECT = 0,       // CMessage_Connect: the SDK's link came up or went down
    MSG_RECEIPT = 1,       // CMessage_Receipt
    MSG_DEVICE = 2,        // CMessage_Device
    MSG_BUTTON = 3,        // CMessage_Button
    MSG_FRAMEDATA = 4,     // CMessage_FrameData
    MSG_SCANDATA = 5,      // CMessage_ScanData
    MSG_CALIBDATA = 6,     // CMessage_CalibData
    MSG_LIGHTPEN = 7,      // CMessage_LightpenData
    MSG_OPTIMIZATION = 8,  // CMessage_OptimizationData
};

// Kinds of a receipt (CMessage_Receipt::getReceiptKind), 0..23.
enum RECEIPTKIND : int32_t {
    RECEIPT_WORK_RESPONSE = 0,      // getWorkResponsInfo
    RECEIPT_TRACK_RANGE = 1,        // getTrackRangeLevel
    RECEIPT_HEARTBEAT = 2,          // getHeartData
    RECEIPT_BAR_STATE = 3,          // getTrackerBarState
    RECEIPT_CAMERA_IMAGES = 4,      // getCameraImages
    RECEIPT_DIAGNOSIS = 5,          // getDiagnosisInfo
    RECEIPT_LOWPART_CONFIG = 6,     // getLowPartConfig
    RECEIPT_PRIPLAD_LIST = 7,       // getPripladDevices
    RECEIPT_WIFI_SIGNAL = 8,        // getWIFISignalStrength
    RECEIPT_REMAINING_RGF = 9,      // getRemainingRGF
    RECEIPT_LOWPART_VERSION = 10,   // getFirmwareVersion (version of the low part)
    RECEIPT_CALIB_FILE = 11,        // getCalibFileName
    RECEIPT_FAR_LASER_CALIB = 12,   // getFarLaserCalibResult
    RECEIPT_SCANNER_DISTANCE = 13,  // getScannerDistance
    RECEIPT_FIRMWARE_CHECK = 14,    // getFirmwareVersionCheck
    RECEIPT_CALIB_RESULT = 15,      // getCalibraResult
    RECEIPT_VIEW_POINTS = 16,       // getViewPoints
    RECEIPT_WIFI_CONNECT = 23,      // getWIFIConnectInfo
    RECEIPT_KIND_MAX = 23,
};

// Steps of a calibration-data message (CMessage_CalibData::getTrackerGrabIndex).
enum CALIBSTEP : int32_t {
    CALIB_STEP_LOCATION = 2,       // getLocationNumber
    CALIB_STEP_BOARD_LATTICE = 3,  // getBoardLattice
    CALIB_STEP_SCANNER_BOARD = 4,  // getScannerBoard
    CALIB_STEP_TRACKER_POSE = 5,   // getTrackerPose
    CALIB_STEP_TRACKER_POSE_LONG = 6,
    CALIB_STEP_SCANNER_CALIB = 7,  // getScannerCalib
};

class CMessage_Base {
public:
    explicit CMessage_Base(const int& type);
    CMessage_Base(const CMessage_Base& other);
    CMessage_Base& operator=(const CMessage_Base& other);
    virtual ~CMessage_Base();

    virtual int pack(std::vector<char>* out) = 0;
    virtual int unpack(const char* data, const int& size) = 0;

    int getType() const { return m_nType; }
    int getID() const { return m_nID; }
    void setID(const int& id) { m_nID = id; }

    // The devices the message concerns, or nullptr. setDeviceIds stores a copy of *ids
    // (nullptr clears it); the message owns its copy.
    deviceids* getDeviceIds() const { return m_pDeviceIds; }
    void setDeviceIds(deviceids* ids);

    // When the devices started sending the message: their monotonic clock in nanoseconds, as
    // the link's envelope carries it (0 when unknown). On one machine it is this process's
    // steady clock, so a receiver can tell how long the message took to reach it.
    int64_t getSentNs() const { return m_nSentNs; }
    void setSentNs(int64_t ns) { m_nSentNs = ns; }

protected:
    int32_t m_nType;
    int32_t m_nID = 0;
    deviceids* m_pDeviceIds = nullptr;
    int64_t m_nSentNs = 0;
};

// Type 0: the SDK's link to the devices is up (true) or down (false).
class CMessage_Connect : public CMessage_Base {
public:
    CMessage_Connect();
    CMessage_Connect(const CMessage_Connect& other);
    CMessage_Connect& operator=(const CMessage_Connect& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    bool getConnect() const { return m_bConnect; }
    void setConnect(const bool& connected) { m_bConnect = connected; }

private:
    bool m_bConnect = false;
};

// Type 1: a device's answer or report. getReceiptKind() says which member carries it.
class CMessage_Receipt : public CMessage_Base {
public:
    CMessage_Receipt();
    CMessage_Receipt(const CMessage_Receipt& other);
    CMessage_Receipt& operator=(const CMessage_Receipt& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    int getReceiptKind() const { return m_nReceiptKind; }
    void setReceiptKind(const int& kind) { m_nReceiptKind = kind; }

    // Copy getters: false when the destination is null.
    bool getWorkResponsInfo(tagWorkRespons* out) const;
    void setWorkResponsInfo(const tagWorkRespons& r) { m_workRespons = r; }
    bool getHeartData(std::vector<tagHeartData>* out) const;
    void setHeartData(const std::vector<tagHeartData>& v) { m_vecHeartData = v; }
    bool getCameraImages(tagCameraImageList& out) const;
    void setCameraImages(const tagCameraImageList& v) { m_cameraImages = v; }
    bool getLowPartConfig(tagLowPartConfig* out) const;
    void setLowPartConfig(const tagLowPartConfig& v) { m_lowPartConfig = v; }
    bool getPripladDevices(std::vector<tagPripladDeviceData>* out) const;
    void setPripladDevices(const std::vector<tagPripladDeviceData>& v) { m_vecPriplad = v; }
    bool getRemainingRGF(tagRemainingRGFs& out) const;
    void setRemainingRGF(const tagRemainingRGFs& v) { m_remainingRGF = v; }
    double getCalibraResult() const { return m_dCalibraResult; }
    void setCalibraResult(const double& v) { m_dCalibraResult = v; }
    lumora::DiagnosticInfo getDiagnosisInfo() const { return m_diagnosis; }
    void setDiagnosisInfo(const lumora::DiagnosticInfo& v) { m_diagnosis = v; }

    int getTrackRangeLevel() const { return m_nTrackRangeLevel; }
    void setTrackRangeLevel(const int& v) { m_nTrackRangeLevel = v; }
    int getTrackerBarState() const { return m_nTrackerBarState; }
    void setTrackerBarState(const int& v) { m_nTrackerBarState = v; }
    const tagWIFIConnectInfo& getWIFIConnectInfo() const { return m_wifiConnect; }
    void setWIFIConnectInfo(const tagWIFIConnectInfo& v) { m_wifiConnect = v; }
    const tagWIFISignalStrength& getWIFISignalStrength() const { return m_wifiSignal; }
    void setWIFISignalStrength(const tagWIFISignalStrength& v) { m_wifiSignal = v; }
    const std::string& getCalibFileName() const { return m_strCalibFileName; }
    void setCalibFileName(const std::string& v) { m_strCalibFileName = v; }
    emFarLaserCalibrateResult getFarLaserCalibResult() const { return m_eFarLaserResult; }
    void setFarLaserCalibResult(const emFarLaserCalibrateResult& v) { m_eFarLaserResult = v; }
    const std::vector<double>& getScannerDistance() const { return m_vecScannerDistance; }
    void setScannerDistance(const std::vector<double>& v) { m_vecScannerDistance = v; }
    const lumora::FirmwareVersionCheck& getFirmwareVersionCheck() const { return m_firmwareCheck; }
    void setFirmwareVersionCheck(const lumora::FirmwareVersionCheck& v) { m_firmwareCheck = v; }
    const std::vector<double>& getViewPoints() const { return m_vecViewPoints; }  // x y z each
    void setViewPoints(const std::vector<double>& v) { m_vecViewPoints = v; }
    const std::string& getFirmwareVersion() const { return m_strFirmwareVersion; }
    void setFirmwareVersion(const std::string& v) { m_strFirmwareVersion = v; }

private:
    int32_t m_nReceiptKind = 0;
    tagWorkRespons m_workRespons;
    std::vector<tagHeartData> m_vecHeartData;
    tagCameraImageList m_cameraImages;
    tagLowPartConfig m_lowPartConfig;
    std::vector<tagPripladDeviceData> m_vecPriplad;
    tagRemainingRGFs m_remainingRGF;
    double m_dCalibraResult = 0;
    lumora::DiagnosticInfo m_diagnosis;
    int32_t m_nTrackRangeLevel = 0;
    int32_t m_nTrackerBarState = 0;
    tagWIFIConnectInfo m_wifiConnect;
    tagWIFISignalStrength m_wifiSignal;
    std::string m_strCalibFileName;
    emFarLaserCalibrateResult m_eFarLaserResult = FAR_LASER_CALIB_NONE;
    std::vector<double> m_vecScannerDistance;
    lumora::FirmwareVersionCheck m_firmwareCheck;
    std::vector<double> m_vecViewPoints;
    std::string m_strFirmwareVersion;
};

// Type 2: a device arrived (connected) or left.
class CMessage_Device : public CMessage_Base {
public:
    CMessage_Device();
    CMessage_Device(const CMessage_Device& other);
    CMessage_Device& operator=(const CMessage_Device& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    bool getConnect() const { return m_nConnect != 0; }
    void setConnect(const bool& connected) { m_nConnect = connected ? 1 : 0; }
    DEVICETYPE getDeviceType() const { return m_eDeviceType; }
    void setDeviceType(const DEVICETYPE& type) { m_eDeviceType = type; }
    lumora::DeviceInfo getDeviceInfo() const { return m_deviceInfo; }
    const lumora::DeviceInfo& deviceInfo() const { return m_deviceInfo; }
    void setDeviceInfo(const lumora::DeviceInfo& info) { m_deviceInfo = info; }
    std::string getDeviceSN() const { return m_strDeviceSN; }
    void setDeviceSN(const std::string& sn) { m_strDeviceSN = sn; }

private:
    int32_t m_nConnect = 0;
    DEVICETYPE m_eDeviceType = DEVICE_SCANNER;
    lumora::DeviceInfo m_deviceInfo;
    std::string m_strDeviceSN;
};

// Type 3: a button on a device was used. Codes 49, 51, 53, 55; actions 0 click, 1 double
// click, 2 long press (lumora::ButtonActType).
class CMessage_Button : public CMessage_Base {
public:
    CMessage_Button();
    CMessage_Button(const CMessage_Button& other);
    CMessage_Button& operator=(const CMessage_Button& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    int getButtonCode() const { return m_nButtonCode; }
    void setButtonCode(const int& code) { m_nButtonCode = code; }
    int getButtonAction() const { return m_nButtonAction; }
    void setButtonAction(const int& action) { m_nButtonAction = action; }

private:
    int32_t m_nButtonCode = 0;
    int32_t m_nButtonAction = 0;
};

// Type 4: the device asks the host to start or stop writing frames.
class CMessage_FrameData : public CMessage_Base {
public:
    CMessage_FrameData();
    CMessage_FrameData(const CMessage_FrameData& other);
    CMessage_FrameData& operator=(const CMessage_FrameData& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    bool getEnableWrite() const { return m_bEnableWrite; }
    void setEnableWrite(bool enable) { m_bEnableWrite = enable; }

private:
    bool m_bEnableWrite = false;
};

// Type 5: one scan frame. Copies share the frame record (shared pointer).
class CMessage_ScanData : public CMessage_Base {
public:
    CMessage_ScanData();
    CMessage_ScanData(const CMessage_ScanData& other);
    CMessage_ScanData& operator=(const CMessage_ScanData& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    tagScanData* getScanData() const { return m_pScanData.get(); }
    std::shared_ptr<tagScanData> getScanData_Shared() const { return m_pScanData; }
    void setScanData(const std::shared_ptr<tagScanData>& data) { m_pScanData = data; }
    int getFrameID() const { return m_nFrameID; }
    void setFrameID(const int& id) { m_nFrameID = id; }
    // The 4x4 transform (16 doubles) the SDK applied for the frame's tracker.
    const double* getTrackerMatrix() const { return m_dTrackerMatrix; }
    void setTrackerMatrix(const double* m16);

private:
    std::shared_ptr<tagScanData> m_pScanData;
    int32_t m_nFrameID = 0;
    double m_dTrackerMatrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};
static_assert(sizeof(double[16]) == 128, "tracker matrix block is 128 bytes");

// Type 6: data of a calibration in progress; getTrackerGrabIndex() is the step (CALIBSTEP).
class CMessage_CalibData : public CMessage_Base {
public:
    CMessage_CalibData();
    CMessage_CalibData(const CMessage_CalibData& other);
    CMessage_CalibData& operator=(const CMessage_CalibData& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    int getTrackerGrabIndex() const { return m_nTrackerGrabIndex; }
    void setTrackerGrabIndex(const int& step) { m_nTrackerGrabIndex = step; }
    int getLocationNumber() const { return m_nLocationNumber; }
    void setLocationNumber(const int& n) { m_nLocationNumber = n; }
    // rotation: 9 doubles by rows, translation: 3 doubles; any pointer may be null.
    void getTrackerPose(double* rotation, double* translation, CLBBARPOSE* pose) const;
    void setTrackerPose(const double* rotation, const double* translation, CLBBARPOSE pose);
    void getBoardLattice(int& rows, int& cols) const;
    void setBoardLattice(const int& rows, const int& cols);
    bool getScannerBoard(std::vector<double>* out) const;
    void setScannerBoard(const std::vector<double>& v) { m_vecScannerBoard = v; }
    bool getScannerCalib(tagCalibData& out) const;
    void setScannerCalib(const tagCalibData& v) { m_calibData = v; }

private:
    int32_t m_nTrackerGrabIndex = 0;
    int32_t m_nLocationNumber = 0;
    double m_dPoseRotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    double m_dPoseTranslation[3] = {0, 0, 0};
    CLBBARPOSE m_eBarPose = CLBBAR_ERROR_POSE;
    int32_t m_nLatticeRows = 0;
    int32_t m_nLatticeCols = 0;
    std::vector<double> m_vecScannerBoard;
    tagCalibData m_calibData;
};

// Type 7: light pen state and probe points.
class CMessage_LightpenData : public CMessage_Base {
public:
    CMessage_LightpenData();
    CMessage_LightpenData(const CMessage_LightpenData& other);
    CMessage_LightpenData& operator=(const CMessage_LightpenData& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    const tagLightPenDeviceInfo& getDeviceInfo() const { return m_deviceInfo; }
    void setDeviceInfo(const tagLightPenDeviceInfo& v) { m_deviceInfo = v; }
    const tagLightpenWarnInfo& getWarnInfo() const { return m_warnInfo; }
    void setWarnInfo(const tagLightpenWarnInfo& v) { m_warnInfo = v; }
    // Probe points: x y z per point, with one radius per point.
    const std::vector<double>& getProbePoints() const { return m_vecProbePoints; }
    const std::vector<double>& getProbeRadii() const { return m_vecProbeRadii; }
    void setProbePoints(const std::vector<double>& xyz, const std::vector<double>& radii);

private:
    tagLightPenDeviceInfo m_deviceInfo;
    tagLightpenWarnInfo m_warnInfo;
    std::vector<double> m_vecProbePoints;
    std::vector<double> m_vecProbeRadii;
};

// Type 8: result of a marker-model optimisation on the device.
class CMessage_OptimizationData : public CMessage_Base {
public:
    CMessage_OptimizationData();
    CMessage_OptimizationData(const CMessage_OptimizationData& other);
    CMessage_OptimizationData& operator=(const CMessage_OptimizationData& other);

    int pack(std::vector<char>* out) override;
    int unpack(const char* data, const int& size) override;

    int getOptType() const { return m_nOptType; }
    void setOptType(const int& v) { m_nOptType = v; }
    const std::vector<tagOptMarkPoint>& getMarkPoints() const { return m_vecMarkPoints; }
    void setMarkPoints(const std::vector<tagOptMarkPoint>& v) { m_vecMarkPoints = v; }

private:
    int32_t m_nOptType = 0;
    std::vector<tagOptMarkPoint> m_vecMarkPoints;
};

// A new message of the class with type id `type`, or nullptr for an unknown type.
std::unique_ptr<CMessage_Base> CreateMessage(int type);

}  // namespace SDK_NV
