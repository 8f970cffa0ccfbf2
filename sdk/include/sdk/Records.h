// Records and enumerations of the device SDK (namespace SDK_NV).
//
// Every record here is a plain copyable value type: the SDK fills them from the link and hands
// them to the caller, who owns its copies. Wire messages of the `lumora` schema are embedded
// where the devices send them as such (camera parameters, marker image data, device info).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lumora.pb.h"

namespace SDK_NV {

// ---------------------------------------------------------------------------------------------
// Enumerations
// ---------------------------------------------------------------------------------------------

// Kind of a device on the link. Trackers and scanners are the kinds the driver distinguishes;
// light pens and air devices are announced with their own kinds. DEVICE_UNKNOWN is what
// CTPDeviceManager::getDeviceType answers for an id it does not know.
enum DEVICETYPE : int32_t {
    DEVICE_UNKNOWN = -1,
    DEVICE_TRACKER = 0,
    DEVICE_SCANNER = 1,
    DEVICE_LIGHTPEN = 2,
    DEVICE_PRIPLAD = 3,
};

// What a scan acquires (setStartScan / setDynamicScan).
enum SCANOBJECT : int32_t {
    SCAN_MARKPOINT = 0,     // marker points only
    SCAN_LASER = 1,         // laser lines (object surface) with the markers
    SCAN_HOLE = 2,          // hole features
    SCAN_HOLE_PRECISE = 3,  // hole features, high-accuracy fit
};

// Camera image mode of the device. The values are passed through unchanged from the host, so
// any int32 is accepted; the named ones are those the console knows.
enum IMAGEMODE : int32_t {
    IMAGE_MODE_NORMAL = 0,
    IMAGE_MODE_LASER = 1,
    IMAGE_MODE_MARKPOINT = 2,
    IMAGE_MODE_RAW = 3,
    IMAGE_MODE_TRACK_PREVIEW = 10,
};

// Laser pattern of the scanner (setLaserType).
enum LASERTYPE : int32_t {
    LASER_SINGLE_LINE = 0,
    LASER_MULTI_LINE = 1,
    LASER_DEEP_HOLE = 2,
};

// Light colour (same values as lumora::LightType).
enum LIGHTTYPE : int32_t {
    LIGHT_RED = 0,
    LIGHT_BLUE = 1,
    LIGHT_IR = 2,
};

// Working range of the tracker (setTrackRangeLevel).
enum TRACKRANGE : int32_t {
    TRACK_RANGE_NEAR = 0,
    TRACK_RANGE_MIDDLE = 1,
    TRACK_RANGE_FAR = 2,
};

// Calibration procedures of the device (setCalibrationMode, getCalibLocationStep).
enum CALIBMODE : int32_t {
    CALIB_BAR_LOCATION = 0,          // location steps of the tracker-bar calibration
    CALIB_SCANNER = 1,               // scanner calibration (default procedure)
    CALIB_SCANNER_POSITION = 5,      // scanner position in the tracker
    CALIB_BAR = 8,                   // tracker-bar calibration
    CALIB_SCANNER_BOARD = 9,         // scanner on the calibration board
    CALIB_SCANNER_BOARD_LASER = 10,  // scanner on the board, laser included
};

// Pose of the calibration bar (same values as lumora::CLBBAR_POSE).
enum CLBBARPOSE : int32_t {
    CLBBAR_ERROR_POSE = 0,
    CLBBAR_LEVEL_POSE = 1,
    CLBBAR_VERTICAL_POSE = 2,
    CLBBAR_FRONT_BACK_UP_POSE = 3,
    CLBBAR_FRONT_BACK_DOWN_POSE = 4,
    CLBBAR_ERROR_POINT = 5,
};

// Outcome of a far-laser calibration (receipt kind 12).
enum emFarLaserCalibrateResult : int32_t {
    FAR_LASER_CALIB_NONE = 0,
    FAR_LASER_CALIB_SUCCESS = 1,
    FAR_LASER_CALIB_FAILED = 2,
    FAR_LASER_CALIB_TIMEOUT = 3,
};

// ---------------------------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------------------------

// Special acquisition modes of the scanner (setSpecialMode): three switches.
struct tagSpecialMode {
    bool bBlackObject = false;  // dark or absorbing surface
    bool bHighLight = false;    // shiny surface
    bool bDeepHole = false;     // deep holes and pockets
};

// A list of device identifiers.
using deviceids = std::vector<std::string>;

// One measured hole, in the frame of the tracker that saw it.
struct tagHoleData {
    int32_t nState = 0;  // below 201: a usable measurement; 201 and above: an error code
    int32_t nType = 0;   // lumora::NEW_HOLE_FLAG: round, oval slot, square slot
    int32_t nId = 0;     // index of the hole within the frame
    float fCenter[3] = {0, 0, 0};
    float fDirection[3] = {0, 0, 1};  // unit axis of the hole
    float fRadius = 0;
    float fWidth = 0;   // slot extent along its long axis (0 for a round hole)
    float fHeight = 0;  // slot extent across
    float fDepth = 0;
    std::vector<float> vecEdgePoints;  // rim points, x y z each
};

// A hole the host asks the device to measure precisely (setFineHoleData).
struct tagFineHoleParam {
    int32_t nType = 0;  // lumora::NEW_HOLE_FLAG
    int32_t nId = 0;
    float fCenter[3] = {0, 0, 0};
    float fDirection[3] = {0, 0, 1};
    float fRadius = 0;
    float fWidth = 0;
    float fHeight = 0;
    float fDepth = 0;
};

// Fit of one laser line of a frame; 192 bytes, copied whole by the driver.
struct tagLaserLineData {
    int32_t nLineIndex = 0;
    int32_t nPointCount = 0;
    int32_t nFirstPoint = 0;  // index of the line's first point in the frame's laser points
    int32_t nFlags = 0;
    double dPlane[4] = {0, 0, 0, 0};  // laser plane n.x + d = 0 in scanner coordinates
    double dStart[3] = {0, 0, 0};
    double dEnd[3] = {0, 0, 0};
    double dDirection[3] = {0, 0, 0};
    double dRms = 0;  // fit residual in millimetres
    double dReserved[8] = {0, 0, 0, 0, 0, 0, 0, 0};
};
static_assert(sizeof(tagLaserLineData) == 192, "laser line record is 192 bytes");

// Index entry of an edge point: 12 bytes (int32, float, int32).
struct tagEdgeIndex {
    int32_t nIndex = 0;      // index into the frame's edge points
    float fQuality = 0;      // 0..1
    int32_t nLineIndex = 0;  // laser line the point lies on
};
static_assert(sizeof(tagEdgeIndex) == 12, "edge index record is 12 bytes");

// One detected edge point: 96 bytes.
struct tagEdgePoint {
    double dCenter[3] = {0, 0, 0};
    double dNormal[3] = {0, 0, 0};
    double dOutward[3] = {0, 0, 0};
    double dConfidence = 0;
    int32_t nIndex = 0;
    int32_t nFlags = 0;
    double dReserved = 0;
};
static_assert(sizeof(tagEdgePoint) == 96, "edge point record is 96 bytes");

// One scan frame as the scanner and tracker deliver it.
//
// The pose (m_dRotation by rows, m_dTranslation in millimetres) maps scanner coordinates into
// the frame of the tracker m_strTrackerId as a row vector: p = x * R + t. Laser points stay in
// scanner coordinates; marker centres and holes are in the tracker's frame.
//
// Counts are consistent: m_vecLaserPoints and m_vecLaserNormals hold 3 floats per laser point,
// m_vecLaserQuality one value per point, and m_vecLaserLineCounts sums to the point count; the
// five marker vectors are index-aligned (3 doubles per marker for centres and normals, one
// entry otherwise).
struct tagScanData {
    double m_dRotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    double m_dTranslation[3] = {0, 0, 0};
    int32_t m_nFrameValue = 0;       // frame number assigned by the scanner
    int32_t m_nFrameCount = 0;       // frames acquired since the trigger went on
    float m_fValue = 0;              // distance of the scanner to the object, millimetres
    int32_t m_nAcquisitionKind = 0;  // 0 normal, 1 marker-only, 2 laser-only, 3 edge

    std::vector<int32_t> m_vecLaserLineCounts;  // points per laser line
    std::vector<float> m_vecLaserPoints;        // x y z per point, scanner frame
    std::vector<float> m_vecLaserNormals;       // x y z per point
    std::vector<float> m_vecLaserQuality;       // one brightness/quality value per point
    std::vector<tagLaserLineData> m_vecLaserLines;

    std::vector<int32_t> m_vecMarkerIds;     // marker labels
    std::vector<double> m_vecMarkerCenters;  // x y z per marker, tracker frame
    std::vector<double> m_vecMarkerNormals;  // x y z per marker
    std::vector<double> m_vecMarkerDiameters;
    std::vector<int32_t> m_vecMarkerValid;  // 1 = valid

    std::string m_strTrackerId;
    lumora::CamParam m_camParam;     // camera parameters of the scanner's two cameras
    lumora::MKPointImage m_mkImage;  // image coordinates of the markers in both cameras

    std::vector<tagHoleData> m_vecHoles;
    std::vector<tagEdgeIndex> m_vecEdgeIndex;
    std::vector<tagEdgePoint> m_vecEdgePoints;

    // Number of laser points, markers: derived from the vectors above.
    size_t laserPointCount() const { return m_vecLaserPoints.size() / 3; }
    size_t markerCount() const { return m_vecMarkerIds.size(); }
};

// Telemetry of one device in a heartbeat.
struct tagHeartData {
    int32_t kind = 0;                // DEVICETYPE of the device
    std::string name;                // device identifier
    std::vector<int32_t> framerate;  // camera frame rates
    std::vector<float> temp;         // temperatures; [0] the device's main temperature
};

// A device's answer to a command: which command (code) and its outcome (state).
struct tagWorkRespons {
    int32_t code = 0;
    int32_t state = -1;  // 0 success; see sdk/PROTOCOL.md for the other states
    std::string text;
    std::string deviceId;
};

// Transforms of the chained trackers handed to the device: per tracker id, 12 values (the
// rotation block by rows, then the translation).
struct tagTransformMatrix {
    std::map<std::string, std::vector<double>> m_mapTransform;
};

// Configuration of the low part (the device hub).
struct tagLowPartConfig {
    int32_t nSysId = 0;
    int32_t nUsePriplad = 0;  // 1 air devices enabled, 2 disabled, 0 unknown
    std::vector<std::string> vecPripladIds;
    std::string strSysName;
    int32_t nUseLocal = 0;
    int32_t nUseNet = 0;
    int32_t nSyncId = 0;
};

// One air (wireless companion) device.
struct tagPripladDeviceData {
    std::string strName;
    std::string strDeviceId;
    std::string strIP;
    std::string strVersion;
    int32_t nSignalQuality = 0;
    int32_t nCurElectric = 0;  // battery percent
    int32_t nElectric1 = 0;
    int32_t nElectric2 = 0;
};

// Synchronisation state of an air device.
struct tagPripladSyncInfo {
    std::string strDeviceId;
    int32_t nSyncId = 0;
    int32_t nState = 0;
};

struct tagBatteryInfo {
    std::string strDeviceSN;
    int32_t nBatteryType = 0;
    int32_t nAlarmInfo = 0;
    int32_t nCapacity = 0;  // percent
    float fTemperature = 0;
};

// A remaining-resource counter of the device.
struct tagRemainingRGF {
    int32_t nCount = 0;
    std::string strName;
    int64_t nReserved = 0;
};

struct tagRemainingRGFs {
    std::vector<tagRemainingRGF> vecRGF;
};

// Progress of a Wi-Fi connection of a device: two int32 values and two strings; the second
// string is the device's state text ("wpa_state=...").
struct tagWIFIConnectInfo {
    int32_t nDeviceType = 0;
    int32_t nMessageType = 0;
    std::string strDeviceSN;
    std::string strEventMessage;
};

struct tagWIFISignalStrength {
    std::string strDeviceSN;
    int32_t nSignalStrength = 0;  // percent
    int32_t nSignalDb = 0;
    int32_t nChannel = 0;
    int32_t nStatus = 0;
};

// Parameters of one calibrated camera: a 3 x 4 matrix (three rows of four doubles) and two
// three-vectors.
struct tagCalibCamera {
    double dMatrix[3][4] = {{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}};
    double dRotationVector[3] = {0, 0, 0};
    double dTranslation[3] = {0, 0, 0};
};

// Scanner calibration data: three leading integers (result, lattice rows, lattice columns),
// both cameras' parameters and the lattice mask (rows x columns bytes, nonzero = seen).
struct tagCalibData {
    int32_t nResult = 0;
    int32_t nRows = 0;
    int32_t nCols = 0;
    tagCalibCamera camera[2];
    std::vector<uint8_t> vecLattice;
};

// One camera image the device announces (name and three integers in this order).
struct tagCameraImgData {
    std::string strName;
    int32_t nWidth = 0;
    int32_t nHeight = 0;
    int32_t nCameraIndex = 0;
    std::vector<uint8_t> vecData;
};

struct tagCameraImageList {
    std::vector<tagCameraImgData> vecImages;
    int32_t nFrameIndex = 0;
};

// Result of a camera optimisation step during calibration.
struct tagCameraOptimization {
    int32_t nCameraIndex = 0;
    double dError = 0;
    std::vector<double> vecParams;
};

// Light pen state.
struct tagLightPenDeviceInfo {
    std::string strDeviceSN;
    std::string strLightPenSN;
    int32_t nSignalQuality = 0;
    int32_t nFrequency = 0;
};

struct tagLightpenWarnInfo {
    std::string strLightPenSN;
    int32_t nMeasurePosition = 0;
    int32_t nWarnType = 0;
    double dProbeRadius = 0;
};

// One optimised marker of a marker-model optimisation.
struct tagOptMarkPoint {
    int32_t nIndex = 0;
    double dPosition[3] = {0, 0, 0};
    double dNormal[3] = {0, 0, 0};
    double dRadius = 0;
};

}  // namespace SDK_NV
