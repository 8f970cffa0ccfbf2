// Host interface: enumerations and records exchanged between a measuring application and a
// device module. Plain copyable records, no behaviour beyond construction and reset.
//
// The numeric values of every enumeration are the contract with the host; the enumerator
// names are this library's own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <type_traits>
#include <vector>

#include "helmsman/Export.h"

namespace device {

// ---------------------------------------------------------------------------------------------
// Results
// ---------------------------------------------------------------------------------------------

// Result of every device operation. 0 is success.
enum emDeviceResult : int32_t {
    RESULT_SUCCESS = 0,
    RESULT_FAILED = 1,             // no acknowledgement within the wait, or no SDK connection
    RESULT_NOT_SUPPORTED = 2,      // the device (or this interface's default) does not do it
    RESULT_SEND_REFUSED = 3,       // the SDK refused to send the command
    RESULT_OUT_OF_RANGE = 5,       // an argument lies outside its range
    RESULT_INVALID_ARGUMENT = 6,   // an argument is invalid (empty path, no mode, ...)
    RESULT_TRIGGER_TIMEOUT = 7,    // the device reported a trigger timeout
    RESULT_BUSY_SCANNING = 8,      // refused while laser acquisition runs
    RESULT_CALIB_NEGATIVE = 9,     // the calibration result is negative
    RESULT_TRIGGER_REJECTED = 12,  // the device rejected the trigger
    RESULT_NO_ANSWER = 13,         // no answer within the wait (also "pending")
    RESULT_NO_CALIBRA_MODE = 101,  // calibration files requested before a mode was chosen

    // Tracker-bar calibration errors (device codes -1 .. -8).
    RESULT_BAR_CALIB_ERROR_1 = 201,
    RESULT_BAR_CALIB_ERROR_2 = 202,
    RESULT_BAR_CALIB_ERROR_3 = 203,
    RESULT_BAR_CALIB_ERROR_4 = 204,
    RESULT_BAR_CALIB_ERROR_5 = 205,
    RESULT_BAR_CALIB_ERROR_6 = 206,
    RESULT_BAR_CALIB_ERROR_7 = 207,
    RESULT_BAR_CALIB_ERROR_8 = 208,
    RESULT_GRAB_FRAME_FAILED = 209,  // single-frame grab answered with an unexpected state

    // Laser calibration errors (device codes -2, -1, -3 in this order).
    RESULT_LASER_CALIB_ERROR_1 = 301,
    RESULT_LASER_CALIB_ERROR_2 = 302,
    RESULT_LASER_CALIB_ERROR_3 = 303,

    RESULT_POSITION_CALIB_ERROR = 401,  // scanner position calibration (device code -5)

    // Marker tracking errors (device codes -1 and -2; 505 and 506 are not used).
    RESULT_TRACK_MARKPOINT_ERROR_1 = 504,
    RESULT_TRACK_MARKPOINT_ERROR_2 = 507,

    RESULT_CASCADE_FILE_OPEN_FAILED = 509,
};

// ---------------------------------------------------------------------------------------------
// Host enumerations
// ---------------------------------------------------------------------------------------------

// Kind of device object, given to the CDeviceBase constructor.
enum emDeviceNewType : int32_t {
    NEW_TYPE_UNKNOWN = 0,
    NEW_TYPE_ARM = 1,
    NEW_TYPE_LASER_TRACKER = 2,
    NEW_TYPE_HANDHELD = 3,
    NEW_TYPE_OPTICAL_TRACKING = 4,  // the optical-tracking module
};

// Device state carried in tagDeviceInfo::state and reported through callDeviceState.
enum emDeviceState : int32_t {
    STATE_UNKNOWN = 0,
    STATE_NO_STATUS = 1,  // the device reported no status codes
    STATE_DISCONNECTED = 4,
    STATE_CAMERA_OPEN_FAILED = 5,
    STATE_USB_START_FAILED = 6,
    STATE_READY = 7,  // connected and ready
    STATE_CALIB_STEP_DONE = 12,
    STATE_CALIB_POSE_DONE = 13,
    STATE_CALIB_COMPLETE = 14,
    STATE_HEARTBEAT = 18,
    STATE_DEVICE_NOTICE = 19,
};

// First argument of callDeviceTReply: what the payload is.
enum emDeviceReply : int32_t {
    REPLY_NONE = 0,
    REPLY_THERMAL_RECORD = -96,       // text: device name; payload: the whole thermal map
    REPLY_DEVICE_INFO = -95,          // text: serial; payload: the device's wire record
    REPLY_SDK_CONNECTED = -56,        // no payload
    REPLY_SDK_DISCONNECTED = -55,     // no payload
    REPLY_LOWPART_VERSION = -50,      // payload: std::string
    REPLY_DEVICE_TEXT = -49,          // text and payload: the device's text
    REPLY_THERMAL_BALANCE = -47,      // payload: tagDeviceThermalBalance
    REPLY_REMAINING_RESOURCES = -48,  // payload: std::map<std::string, int>
    REPLY_WIFI_STATE = -46,           // payload: zero-terminated text
};

// Buttons of a hand-held device.
enum emDeviceButton : int32_t {
    BUTTON_NONE = -1,  // a code the device module does not know
    BUTTON_FIRST = 0,
    BUTTON_SECOND = 1,
    BUTTON_THIRD = 2,
    BUTTON_MAIN = 5,
};

enum emDeviceButtonAction : int32_t {
    BUTTON_ACTION_NONE = -1,
    BUTTON_ACTION_CLICK = 0,
    BUTTON_ACTION_DOUBLE_CLICK = 1,
    BUTTON_ACTION_LONG_PRESS = 2,
};

// What the scanner measures.
enum emScanObject : int32_t {
    SCAN_OBJECT_NONE = 0,
    SCAN_OBJECT_MARKPOINT = 1,     // marker points
    SCAN_OBJECT_SURFACE = 2,       // laser surface
    SCAN_OBJECT_METAL_HOLE = 3,    // holes in metal parts
    SCAN_OBJECT_RIVET_HOLE = 4,    // rivet holes
    SCAN_OBJECT_SURFACE_EDGE = 5,  // laser surface with edge points
    SCAN_OBJECT_EDGE = 6,          // cutting edges
};

enum emWorkBusiness : int32_t {
    WORK_BUSINESS_WARM_UP = 0,  // heat the device
    WORK_BUSINESS_SCAN = 1,
};

// Camera image mode, passed to the device unchanged.
enum emImageMode : int32_t {
    IMAGE_MODE_NORMAL = 0,
    IMAGE_MODE_MARKPOINT = 1,
    IMAGE_MODE_LASER = 2,
    IMAGE_MODE_TRACK_PREVIEW = 10,
};

enum emDeviceLaserType : int32_t {
    LASER_TYPE_RED_SINGLE = 0,
    LASER_TYPE_RED_MULTI = 1,
    LASER_TYPE_UNAVAILABLE = 2,  // not offered by the optical-tracking system
    LASER_TYPE_BLUE_SINGLE = 3,
};

// Working range of the tracker, passed to the device unchanged.
enum emTrackRange : int32_t {
    TRACK_RANGE_NEAR = 0,
    TRACK_RANGE_MIDDLE = 1,
    TRACK_RANGE_FAR = 2,
};

// Pose of the calibration bar for one grabbed frame, passed to the device unchanged.
enum emDeviceCalibraPose : int32_t {
    CALIBRA_POSE_ERROR = 0,
    CALIBRA_POSE_LEVEL = 1,
    CALIBRA_POSE_VERTICAL = 2,
    CALIBRA_POSE_FRONT_BACK_UP = 3,
    CALIBRA_POSE_FRONT_BACK_DOWN = 4,
};

enum emDeviceCalibraMode : int32_t {
    CALIBRA_MODE_NONE = -1,
    CALIBRA_MODE_SCAN_CHECK = 0,
    CALIBRA_MODE_SCANNER = 1,
    CALIBRA_MODE_TRACKER_BAR = 2,
    CALIBRA_MODE_LASER = 3,
    CALIBRA_MODE_FAR_LASER = 4,
    CALIBRA_MODE_SCANNER_POSITION = 5,
};

enum emMetalHoleSurfaceColor : int32_t {
    METAL_HOLE_COLOR_BRIGHT = 0,
    METAL_HOLE_COLOR_DARK = 1,
    METAL_HOLE_COLOR_BLACK = 2,
};

enum emMetalHoleSurfaceProcess : int32_t {
    METAL_HOLE_PROCESS_MACHINED = 0,
    METAL_HOLE_PROCESS_CAST = 1,
    METAL_HOLE_PROCESS_PAINTED = 2,
};

enum emDeviceType : int32_t {
    DEVICE_TYPE_TRACKER = 0,
    DEVICE_TYPE_SCANNER = 1,
    DEVICE_TYPE_LIGHT_PEN = 2,
    DEVICE_TYPE_AIR = 3,
};

// Kind of calibration progress reported through callDeviceTFastCali, with its payload.
enum emDeviceTFastCali : int32_t {
    FAST_CALI_LOCATION = 0,           // int32: the next calibration location
    FAST_CALI_BOARD_LATTICE = 1,      // int32[2]: the board lattice
    FAST_CALI_SCANNER_BOARD = 2,      // double*: the scanner board's values
    FAST_CALI_SCANNER_DATA = 3,       // tagClbScannerCalibData
    FAST_CALI_TRACKER_POSE_LONG = 4,  // tagClbTrackerPoseEx
    FAST_CALI_TRACKER_POSE = 5,       // tagClbTrackerPose
    FAST_CALI_FINISHED = 6,           // bool: fast calibration ended
};

// ---------------------------------------------------------------------------------------------
// Device description
// ---------------------------------------------------------------------------------------------

struct tagDeviceInfoRange {
    uint8_t key[16] = {};
    double value = 0.0;
};

struct tagDeviceInfoSetting {
    int32_t key = 0;
    int32_t padding = 0;  // explicit, so that every byte of a new record is defined
    double value = 0.0;
};

// One physical device (tracker, scanner). Byte-compatible with the host's record: the fields
// that the device module does not write keep their defaults.
struct HELMSMAN_API tagDeviceInfo {
    char serial[32] = {};       // device id, 32 bytes, not terminated when it is 32 long
    char description[64] = {};  // host text
    int32_t index = 0;
    int32_t state = STATE_UNKNOWN;       // emDeviceState
    int32_t kind = DEVICE_TYPE_SCANNER;  // 0 tracker, 1 scanner
    int32_t hostKind = 2;
    uint8_t options[4] = {0, 0, 0, 0};
    int32_t reserved0 = 0;
    uint8_t features[4] = {0, 0, 0, 1};
    uint8_t switches[4] = {1, 1, 0, 0};
    uint64_t reservedWords[2] = {0, 0};
    double scale = 1.0;
    std::vector<std::string> aliases;
    std::vector<std::string> attributes;
    tagDeviceInfoRange ranges[2];
    uint8_t reservedBlock[32] = {};
    tagDeviceInfoSetting settings[2];
    int32_t reserved1 = 0;
    int32_t selectedIndex = -1;
    int32_t reserved2 = 0;
    float factor = 1.0f;
    float ratio = 0.5f;
    int32_t model = 0;  // device model number; 2 and 3 are high-frame-rate models

    // The serial up to its first zero byte (at most 32 characters).
    std::string serialText() const;
    // Copies the first 32 bytes of `id` into serial (zero-padded when shorter).
    void setSerial(const std::string& id);
};

// The device list handed to the host: an owned array of `count` records.
struct HELMSMAN_API tagDeviceInfoList {
    tagDeviceInfo* infos = nullptr;
    int32_t count = 0;

    tagDeviceInfoList() = default;
    // Creates `n` default records; a negative n gives an empty list.
    explicit tagDeviceInfoList(int32_t n);
    ~tagDeviceInfoList();
    tagDeviceInfoList(const tagDeviceInfoList&) = delete;
    tagDeviceInfoList& operator=(const tagDeviceInfoList&) = delete;
};

// ---------------------------------------------------------------------------------------------
// Telemetry
// ---------------------------------------------------------------------------------------------

// Running thermal balance of one device, fed by its heartbeats.
struct tagDeviceThermalBalance {
    std::string name;
    int32_t kind = -1;          // heartbeat kind of the last update
    float temperature1 = 0.0f;  // main temperature (element 0)
    float temperature3 = 0.0f;  // element 2 of the device's temperatures
    float temperature2 = 0.0f;  // element 1 of the device's temperatures
    uint32_t capacity = 120;    // number of samples averaged
    uint32_t reserved = 0;
    std::list<float> samples;  // last samples of the main temperature, oldest first
    float mean = 0.0f;
    float delta = 0.0f;  // absolute change against the previous sample
    float oldest = 0.0f;
    float newest = 0.0f;
    float deviation = 0.0f;  // (newest - mean) / mean * 100
};

// ---------------------------------------------------------------------------------------------
// Marker points and matrices
// ---------------------------------------------------------------------------------------------

// A set of marker points as four parallel arrays. The point count is the label count.
struct tagRefMarkpointData {
    std::vector<double> positions;  // x, y, z per point
    std::vector<double> normals;    // x, y, z per point
    std::vector<double> values;     // one per point
    std::vector<int32_t> labels;    // one per point

    size_t size() const { return labels.size(); }
    bool empty() const { return labels.empty(); }
    void clear() {
        positions.clear();
        normals.clear();
        values.clear();
        labels.clear();
    }
};

// One marker point given by the host.
struct tagMarkpoint {
    int32_t label = 0;
    float position[3] = {0.0f, 0.0f, 0.0f};
    float normal[3] = {0.0f, 0.0f, 0.0f};
    float value = 0.0f;
    int32_t reserved = 0;
};

// Marker points given by the host; the count is the number of entries.
struct tagMarkpointList {
    std::vector<tagMarkpoint> points;

    int32_t count() const { return static_cast<int32_t>(points.size()); }
};

// One tracker's transfer matrix: 16 doubles, rotation block in elements 0-2, 4-6, 8-10,
// translation (millimetres) in 12-14, elements 3, 7, 11 zero and 15 one.
struct TransformTrackingMatrix {
    std::string id;
    double matrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

// ---------------------------------------------------------------------------------------------
// Scan results
// ---------------------------------------------------------------------------------------------

// One measured hole, in the frame the pose of its record delivers.
struct tagScanHoleData {
    int32_t state = 0;  // the device's hole state; 201 and above: not measured
    int32_t type = 0;   // hole shape (0 circle, 1 oval slot, 2 square slot)
    float center[3] = {0.0f, 0.0f, 0.0f};
    float direction[3] = {0.0f, 0.0f, 0.0f};  // unit axis of the hole
    float radius = 0.0f;
    int32_t cameraCount = 0;
    float leftEllipse[5] = {0, 0, 0, 0, 0};   // centre u, v, width, height, angle
    float rightEllipse[5] = {0, 0, 0, 0, 0};  // centre u, v, width, height, angle
    std::vector<float> edgePoints;            // x, y, z per point of the rim
    std::vector<float> fitInfo;               // fit residuals as the device reports them
};

// A hole fitted by the host from scan data.
struct tagDeviceHole {
    int32_t type = 0;
    double center[3] = {0.0, 0.0, 0.0};
    double direction[3] = {0.0, 0.0, 0.0};
    double radius = 0.0;
    double depth = 0.0;
};

// One laser line of a frame (192 bytes).
struct tagDeviceLaserLine {
    int32_t lineIndex = 0;
    int32_t firstPoint = 0;  // index of its first point in the laser point list
    int32_t pointCount = 0;
    int32_t brightness = 0;
    double plane[4] = {0, 0, 0, 0};  // laser plane a, b, c, d
    double start[3] = {0, 0, 0};
    double end[3] = {0, 0, 0};
    double reserved[12] = {};
};

// One cutting-edge point seen by one camera.
struct tagEdgeSubpixel {
    float center[3] = {0.0f, 0.0f, 0.0f};
    float normal[3] = {0.0f, 0.0f, 0.0f};
    bool valid = false;
    uint8_t padding[3] = {0, 0, 0};
};

// One cutting-edge point with its sub-pixel observations (96 bytes).
struct tagCuttingEdgeData {
    float center[3] = {0.0f, 0.0f, 0.0f};
    float normal[3] = {0.0f, 0.0f, 0.0f};
    float outward[3] = {0.0f, 0.0f, 0.0f};  // direction pointing away from the material
    int32_t index = 0;
    tagEdgeSubpixel left;
    tagEdgeSubpixel right;
};

// A short edge record of a frame (12 bytes).
struct tagDeviceEdgeRecord {
    int32_t index = 0;
    float value = 0.0f;
    int32_t flag = 0;
};

// One camera image.
struct tagDeviceCameraImage {
    std::string name;
    int32_t camera = 0;
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> pixels;  // 8-bit grey, row by row
};

// Camera parameters of the scanner's stereo pair and its images.
struct HELMSMAN_API tagDeviceCamera {
    double leftIntrinsic[3][3] = {};   // rows of the left camera matrix
    double rightIntrinsic[3][3] = {};  // rows of the right camera matrix
    double rotation[3][3] = {};        // rows of the rotation right-to-left
    double translation[3] = {};        // translation right-to-left
    double translationRight[3] = {};
    double translationLeft[3] = {};
    std::vector<double> leftDistortion;
    std::vector<double> rightDistortion;
    std::vector<double> rotationRight;
    std::vector<double> rotationLeft;
    std::vector<double> essential;
    std::vector<double> fundamental;
    std::vector<tagDeviceCameraImage> images;

    // Empties the arrays and images and zeroes the matrices.
    void clear();
};

// An image grabbed during scanning.
struct tagDeviceCameraImage_scan {
    int32_t camera = 0;
    int32_t frameId = 0;
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> pixels;
};

// A marker point as one camera sees it.
struct tagDeviceCameraLookMarkpoint {
    int32_t camera = 0;
    int32_t id = 0;
    float u = 0.0f;
    float v = 0.0f;
    float diameter = 0.0f;
};

// The results of one scan frame of one device, handed to the host through
// callDeviceData. Created per frame; all members start zeroed except poseMode.
struct HELMSMAN_API tagDeviceData {
    // Pose mode: 2 object scanning, 3 hole scanning.
    static constexpr int32_t kDefaultPoseMode = 2;

    tagDeviceData();
    ~tagDeviceData();
    tagDeviceData(const tagDeviceData&) = default;
    tagDeviceData& operator=(const tagDeviceData&) = default;
    tagDeviceData(tagDeviceData&&) = default;
    tagDeviceData& operator=(tagDeviceData&&) = default;

    // Empties every vector and resets every scalar to its constructed value.
    void clear();

    // Counters.
    int32_t frameId = 0;     // the frame value the device gives
    int32_t percentage = 0;  // acquisition progress 0..100

    // Frame values.
    bool liveFrame = false;        // delivered by the device (not replayed)
    bool trackingScanner = false;  // tracking of the scanner was on
    uint8_t acquisitionCode = 0;   // 1 normal, 2 acquisition of kind 1
    float objectDistance = 0.0f;   // the frame's float value
    int32_t poseMode = kDefaultPoseMode;
    int64_t timestampMs = 0;

    // Scanner pose: a point x of the scanner frame maps to x * rotation + translation
    // (row vector; rotation by rows).
    double rotation[9] = {};
    double translation[3] = {};

    // Point data (x, y, z per point for the float and double lists).
    std::vector<float> scanPoints;
    std::vector<float> scanNormals;
    std::vector<int32_t> laserSegmentIds;   // segment of each laser line
    std::vector<float> laserPoints;         // laser points in the scanner frame
    std::vector<float> laserDirections;     // laser point directions
    std::vector<int32_t> laserPointCounts;  // points per laser segment
    std::vector<int32_t> markerIds;
    std::vector<double> markerPoints;     // marker centres
    std::vector<double> markerNormals;    // marker directions
    std::vector<double> markerDiameters;  // one per marker
    std::vector<float> edgePoints;
    std::vector<float> edgeNormals;

    std::vector<tagDeviceLaserLine> laserLines;
    tagDeviceCamera camera;
    std::vector<tagDeviceHole> holes;
    std::vector<tagDeviceCameraImage_scan> cameraImages;
    std::vector<tagDeviceCameraLookMarkpoint> lookMarkpoints;
    std::vector<tagCuttingEdgeData> cuttingEdges;
    std::vector<TransformTrackingMatrix> trackingMatrices;
    std::vector<tagScanHoleData> scanHoles;
    std::vector<tagDeviceEdgeRecord> edgeRecords;

private:
    void resetScalars();
};

// ---------------------------------------------------------------------------------------------
// Calibration
// ---------------------------------------------------------------------------------------------

// Parameters of one camera as the scanner calibration reports them.
struct tagClbCameraBlock {
    double rows[3][4] = {};     // three rows of four values
    double vectors[2][3] = {};  // two 3-vectors
};

// Scanner calibration data.
struct tagClbScannerCalibData {
    int32_t index = 0;  // calibration location
    int32_t rows = 0;
    int32_t columns = 0;
    tagClbCameraBlock cameras[2];
    std::vector<bool> lattice;  // rows x columns, row by row: the board point was seen
};

// Values of the scanner's calibration board.
struct tagClbTrackerBoards {
    std::vector<double> values;
};

// Pose of the tracker against the calibration bar.
struct tagClbTrackerPose {
    double rotation[9] = {};
    double translation[3] = {};
    int32_t barPose = 0;  // emDeviceCalibraPose
};

// The same with the index of the grabbed tracker frame.
struct tagClbTrackerPoseEx {
    tagClbTrackerPose pose;
    int32_t grabIndex = 0;
    int32_t location = 0;
};

// ---------------------------------------------------------------------------------------------
// Layout checks (the host reads these records byte for byte)
// ---------------------------------------------------------------------------------------------

static_assert(sizeof(emDeviceResult) == 4, "results are 32-bit");
static_assert(std::is_standard_layout<tagDeviceInfo>::value, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, serial) == 0, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, description) == 32, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, index) == 96, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, state) == 100, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, kind) == 104, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, hostKind) == 108, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, options) == 112, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, reserved0) == 116, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, features) == 120, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, switches) == 124, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, reservedWords) == 128, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, scale) == 144, "tagDeviceInfo layout");
static_assert(sizeof(tagMarkpoint) == 36, "marker entry is nine 32-bit fields");
static_assert(sizeof(tagDeviceEdgeRecord) == 12, "edge record layout");
static_assert(sizeof(tagCuttingEdgeData) == 96, "cutting-edge record layout");
static_assert(sizeof(tagDeviceLaserLine) == 192, "laser line record layout");
#if defined(__x86_64__) && defined(__linux__)
// x86_64 Linux: std::vector is three pointers.
static_assert(offsetof(tagDeviceInfo, aliases) == 152, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, attributes) == 176, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, ranges) == 200, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, reservedBlock) == 248, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, settings) == 280, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, reserved1) == 312, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, selectedIndex) == 316, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, reserved2) == 320, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, factor) == 324, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, ratio) == 328, "tagDeviceInfo layout");
static_assert(offsetof(tagDeviceInfo, model) == 332, "tagDeviceInfo layout");
static_assert(sizeof(tagDeviceInfo) == 336, "tagDeviceInfo layout");
#endif

}  // namespace device
