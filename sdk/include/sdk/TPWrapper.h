// The SDK's connection and command objects.
//
// CTPWrapper owns the link to the companion console (or a device bridge): one TCP connection
// on which a receiving thread decodes frames and calls the installed callback synchronously,
// one message at a time. CTPScanWrapper adds the device commands; each is encoded and written
// to the socket by the calling thread and returns without waiting for the device's answer
// (answers arrive as messages). CTPDeviceManager keeps the list of devices that the device
// messages announced.
//
// Endpoint: 127.0.0.1:47310 unless the environment variable LUMORA_ENDPOINT ("host:port")
// or setEndpoint says otherwise. Protocol: sdk/PROTOCOL.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lumora.pb.h"
#include "sdk/Messages.h"
#include "sdk/Records.h"

namespace sdk_link {
class Command;
}

namespace SDK_NV {

// Devices announced by the link, in order of arrival; kept current from the device messages
// and emptied when the link drops (after the not-connected message has been delivered).
// Thread-safe: every getter returns a copy.
class CTPDeviceManager {
public:
    std::vector<lumora::DeviceInfo> getDeviceList() const;
    deviceids getTracker() const;
    deviceids getScanner() const;
    // DEVICE_UNKNOWN for an id that is not in the list.
    DEVICETYPE getDeviceType(const std::string& id) const;
    bool getDeviceInfo(const std::string& id, lumora::DeviceInfo* out) const;

    // Applies a device message: a connected device is added or replaced (same ID), a
    // disconnected one removed. Called by the link before the message is delivered.
    void update(const CMessage_Device& message);
    void clear();

private:
    struct Entry {
        std::string id;
        DEVICETYPE type;
        lumora::DeviceInfo info;
    };
    mutable std::mutex m_mutex;
    std::vector<Entry> m_vecDevices;
};

// Counters of the link, for diagnostics and tests.
struct LinkCounters {
    uint64_t connects = 0;            // connections established
    uint64_t disconnects = 0;         // connections lost or closed
    uint64_t framesReceived = 0;      // well-formed frames read
    uint64_t messagesDelivered = 0;   // callbacks made (connection messages included)
    uint64_t droppedOversized = 0;    // frames longer than the limit, skipped
    uint64_t droppedMalformed = 0;    // envelope or body did not parse
    uint64_t droppedUnknownType = 0;  // type id without a message class
    uint64_t streamErrors = 0;        // lost frame boundary (bad magic): connection reset
    uint64_t framesSent = 0;
    uint64_t sendFailures = 0;        // commands not sent (no link or socket error)
    uint64_t framesSaved = 0;         // scan frames written by the frame-saving switch
    uint64_t callbackExceptions = 0;  // exceptions caught around the callback
    uint64_t keepAliveProbes = 0;     // probes sent after a quiet spell
    uint64_t keepAliveAnswers = 0;    // answers to them
    uint64_t keepAliveTimeouts = 0;   // connections given up because the devices fell silent
};

class CTPWrapper {
public:
    using MessageCallBack = std::function<void(CMessage_Base*)>;

    CTPWrapper();
    virtual ~CTPWrapper();
    CTPWrapper(const CTPWrapper&) = delete;
    CTPWrapper& operator=(const CTPWrapper&) = delete;

    // The function every message is delivered to, on the receiving thread. Replacing it while
    // messages arrive is safe; the next message goes to the new one.
    void setCallBackMessage(const MessageCallBack& callback);
    MessageCallBack getCallBackMessage() const;

    // Process-wide switches. setOutput: trace lines for every connection change and command
    // on standard output (problems are always reported). setSaveFrame: write every received
    // scan frame to the frame folder (see getSaveFrameFolder).
    static void setOutput(const bool& on);
    static bool getOutput();
    static void setSaveFrame(const bool& on);
    static bool getSaveFrame();
    // Folder of saved frames: LUMORA_FRAME_DIR, else <TMPDIR or /tmp>/lumora_frames. Each
    // frame is one file "scan_<pid>_<sequence:08>_<frameID>.lfr" holding the frame exactly as
    // it crossed the link (sdk/PROTOCOL.md), readable with SDK_NV::wire::FrameDecoder.
    static void setSaveFrameFolder(const std::string& folder);
    static std::string getSaveFrameFolder();

    // Starts connecting in the background; the receiving thread keeps retrying with a
    // bounded back-off and sends a type-0 message on every change. False only when the
    // wrapper is closed (setCloseWrapper(true)) or the thread cannot be started.
    virtual bool connectToLowPart();
    bool isConnected() const;
    // true: stop the link (a connected link delivers its not-connected message first) and
    // refuse to connect until setCloseWrapper(false). Safe to call from the callback.
    void setCloseWrapper(bool close);

    // "host:port"; replaces LUMORA_ENDPOINT for this wrapper. Takes effect at the next
    // connection attempt. False (endpoint unchanged) when the text does not parse.
    bool setEndpoint(const std::string& hostPort);
    std::string getEndpoint() const;

    // Interval in milliseconds at which the devices report heartbeats; 0 leaves it to the
    // devices (1 s on the console). Sent to the devices on connection and whenever it changes.
    std::atomic<int> m_nHeartBeatInterval{0};
    void setHeartBeatInterval(const int& ms) { m_nHeartBeatInterval = ms; }

    // Keep-alive, in milliseconds; 0 (the default) switches it off. When the devices have sent
    // nothing for a third of it, the link sends a probe that a live device answers; when they
    // have sent nothing for all of it, the connection counts as dead: it is closed, the
    // disconnection is reported and the link reconnects. Time the callback spends is not
    // silence. With a keep-alive the connection is reported only once the devices have said
    // something on it, so that a peer that accepts but never speaks is not taken for a device.
    // The time follows the time scale, but the scale never takes it below 1.5 s (or below
    // itself when it is shorter), so that a busy machine is not taken for a dead peer.
    std::atomic<int> m_nKeepAliveMs{0};

    CTPDeviceManager* getTPDeviceManager();
    LinkCounters getLinkCounters() const;

    // Latest low-part version reported by the devices (empty until one arrived).
    std::string cachedLowpartVersion() const;

protected:
    // Writes one frame of `type` with `body` (and the envelope id `id`) on the calling thread.
    // False when not connected or the write failed (the link then reconnects).
    bool sendFrame(int type, const std::string& body, int32_t id = 0);

private:
    struct Link;
    std::unique_ptr<Link> m_pLink;
};

// Device commands. Every command returns true when it was written to the link and false when
// there is no link; the device answers with a message (sdk/PROTOCOL.md lists the answers).
class CTPScanWrapper : public CTPWrapper {
public:
    CTPScanWrapper();
    ~CTPScanWrapper() override;

    // Acquisition
    bool setTrigger(bool on, const std::vector<std::string>& deviceIds);
    bool setWorkBusiness(int business);
    bool setStartScan(SCANOBJECT object);
    bool setDynamicScan(SCANOBJECT object);
    bool setIsNeedEdgePoint(bool need);
    bool setTrackScanner();
    bool setTrackMarkpoint();
    bool setImageMode(IMAGEMODE mode);
    bool setLEDExposure(const float& value, const DEVICETYPE& type);
    bool setLaserExposure(const float& value);
    bool setROIErea(bool on);
    bool setZaxisCompensation(bool on);
    bool setResetCamera();
    bool setSoundControl(bool on);
    bool setSpecialMode(const tagSpecialMode& mode);
    bool setHighFrameRate(int rate);
    bool setCalibHighFrameRate(bool on);
    bool setHeartDevice();
    bool setCurSystemTime();
    bool setLaserType(LASERTYPE laser, LIGHTTYPE light);
    bool SetHoleParamter(int holeType, int first, int second);
    bool setCustomDepth(const std::string& name, int minDepth, int maxDepth);
    bool setWifiUserPassword(const std::string& user, const std::string& password);
    bool setGrabImages(bool on);
    bool SetEnableScanExpand(bool on);
    bool SetCuttingEdgeData(const lumora::DETECT_EDGE_POINTS_INFO& edges);
    bool setFineHoleData(const std::vector<tagFineHoleParam>& holes);

    // Markers and transforms
    bool clearMarkpointData(const DEVICETYPE& type);
    bool setMarkpointData(const std::vector<float>& positions, const std::vector<float>& normals,
                          const std::vector<float>& values, const std::vector<int>& labels,
                          const DEVICETYPE& type);
    bool SetMarkPointDiameter(std::vector<float> diameters);
    bool SetTrackerMarkPointDiameter(std::vector<float> diameters);
    bool setTransforRT(const tagTransformMatrix& transforms);

    // Air devices, low part, telemetry
    bool getLowPartConfigs();
    bool getPripladDevices();
    bool setLowPartConfigs(const tagLowPartConfig& config);
    bool getDiagnosisInfo();
    bool getRemainingRGF();
    bool getWIFIConnectInfo();
    bool getWIFISignalStrength();
    bool getHeartBeat();
    // The low-part version last reported by the devices (cached; a refresh is requested on
    // every call, so the next call sees a newer one). Never blocks on the devices.
    std::string getLowpartVersion();

    // Calibration
    bool setCalibTeachStep(int step);
    bool setTrackRangeLevel(TRACKRANGE range);
    bool setCalibrationMode(CALIBMODE mode);
    bool getCalibLocationStep(CALIBMODE mode);
    bool getCalibBoardSize();
    bool setGrabOneFrame(int pose);
    bool getCalibraResult();
    bool setCalibReloadParams(const DEVICETYPE& type);

private:
    bool send(const sdk_link::Command& command);
};

}  // namespace SDK_NV
