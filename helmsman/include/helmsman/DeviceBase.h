// Host interface of a device module: the abstract device `device::CDeviceBase`, the callbacks
// through which a device delivers its results, and the way a host registers its handlers.
//
// A device module derives from CDeviceBase and overrides the operations it supports; every
// operation it leaves alone answers RESULT_NOT_SUPPORTED. The host constructs the device,
// registers its handlers with setHandlers() (or the per-callback setters), calls init() and
// steers it through the virtual operations.
//
// Threads: handlers are called on whatever thread the device calls back on (usually the
// device SDK's receiving thread). Registration may happen at any time from any thread; a
// callback in progress finishes with the handlers it started with. An exception thrown by a
// handler is caught here, reported with one "[helmsman] ..." line on standard output and
// otherwise ignored.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "helmsman/DeviceTypes.h"
#include "helmsman/Export.h"

namespace device {

// The host's handlers, one per callback. An empty handler ignores its callback.
struct tagDeviceHandlers {
    // A scan frame (or other per-frame result). `tag` may be null.
    std::function<void(const std::shared_ptr<tagDeviceData>& data, const char* tag, int value)>
        onDeviceData;
    // A device changed state. `extra` is usually null.
    std::function<void(emDeviceState state, const tagDeviceInfo& info, const void* extra)>
        onDeviceState;
    // A reply with a payload whose type the reply code names (see emDeviceReply).
    std::function<void(const std::string& text, emDeviceReply reply, const void* payload)>
        onDeviceReply;
    std::function<void(emDeviceButton button, emDeviceButtonAction action)> onDeviceButton;
    // Calibration progress; the payload's type is named by the kind (see emDeviceTFastCali).
    std::function<void(emDeviceTFastCali kind, const void* payload)> onDeviceFastCali;
    // A camera image is available.
    std::function<void(int a, int b, int c, const std::string& name, const void* payload)>
        onDeviceImage;
    // The device asks the host to trigger again.
    std::function<void()> onDeviceNeedRetrigger;
    // The trigger ran but the device produced no data.
    std::function<void()> onDeviceTriggerNoData;
};

class HELMSMAN_API CDeviceBase {
public:
    explicit CDeviceBase(emDeviceNewType type);
    virtual ~CDeviceBase();

    CDeviceBase(const CDeviceBase&) = delete;
    CDeviceBase& operator=(const CDeviceBase&) = delete;

    emDeviceNewType getNewType() const { return m_emNewType; }

    // ---------------------------------------------------------------------------------------
    // Handler registration (thread-safe)
    // ---------------------------------------------------------------------------------------

    void setHandlers(const tagDeviceHandlers& handlers);
    tagDeviceHandlers getHandlers() const;
    void clearHandlers();

    void setDeviceDataHandler(decltype(tagDeviceHandlers::onDeviceData) handler);
    void setDeviceStateHandler(decltype(tagDeviceHandlers::onDeviceState) handler);
    void setDeviceReplyHandler(decltype(tagDeviceHandlers::onDeviceReply) handler);
    void setDeviceButtonHandler(decltype(tagDeviceHandlers::onDeviceButton) handler);
    void setDeviceFastCaliHandler(decltype(tagDeviceHandlers::onDeviceFastCali) handler);
    void setDeviceImageHandler(decltype(tagDeviceHandlers::onDeviceImage) handler);
    void setDeviceNeedRetriggerHandler(decltype(tagDeviceHandlers::onDeviceNeedRetrigger) handler);
    void setDeviceTriggerNoDataHandler(decltype(tagDeviceHandlers::onDeviceTriggerNoData) handler);

    // ---------------------------------------------------------------------------------------
    // State shared between host and device
    // ---------------------------------------------------------------------------------------

    bool hasInit() const { return m_bInit.load(); }
    void setInit(bool init) { m_bInit.store(init); }

    // Whether the host wants camera images saved (set when it names an images folder).
    bool isSaveImages() const { return m_bSaveImages.load(); }
    void setSaveImages(bool save) { m_bSaveImages.store(save); }

    // Whether calibration files live in the public documents folder instead of the user's.
    bool isUsePublicDocument() const { return m_bUsePublicDocument.load(); }
    void setUsePublicDocument(bool usePublic) { m_bUsePublicDocument.store(usePublic); }

    // While set, the host forbids switching the laser trigger.
    bool isLaserLock() const { return m_bLaserLock.load(); }
    void setLaserLock(bool locked) { m_bLaserLock.store(locked); }

    // ---------------------------------------------------------------------------------------
    // Host folders (process-wide, wide paths without trailing separator)
    // ---------------------------------------------------------------------------------------

    // The annex folder, where the device module and its companion programs live. Default:
    // the folder of the module (shared library or program) that contains this library's code.
    static std::wstring getAnnexPath();
    // Overrides the annex folder; an empty path returns to the default.
    static void setAnnexPath(const std::wstring& path);

    // The user's documents folder. Default: $XDG_DOCUMENTS_DIR, else $HOME/Documents (on
    // Windows %USERPROFILE%\Documents); the annex folder when none of these is known.
    static std::wstring getDocumentPath();
    static void setDocumentPath(const std::wstring& path);

    // A documents folder shared by all users. Default: %PUBLIC%\Documents when PUBLIC is set,
    // else /var/tmp.
    static std::wstring getPublicDocumentPath();
    static void setPublicDocumentPath(const std::wstring& path);

    // ---------------------------------------------------------------------------------------
    // Lifecycle
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult init();
    virtual emDeviceResult clear();
    virtual emDeviceResult emptyCache();
    virtual emDeviceResult controlLaserOn();
    virtual emDeviceResult controlLaserOff();
    virtual emDeviceResult EnterTrackPreviewer();

    // ---------------------------------------------------------------------------------------
    // Control commands
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult setScanObject(const emScanObject& object, bool flag);
    virtual emDeviceResult setDynamicTracking(const emScanObject& object);
    virtual emDeviceResult setWorkBusiness(emWorkBusiness business);
    virtual emDeviceResult setTrackingScanner();
    virtual emDeviceResult setTrackingMarkpoint();
    virtual emDeviceResult setWorkingDevice(const std::vector<std::string>& deviceIds);
    virtual emDeviceResult setImageMode(const emImageMode& mode);
    virtual emDeviceResult setLEDExposure(const float& exposure);
    virtual emDeviceResult setLaserExposure(const float& exposure, int& value);
    virtual emDeviceResult setROIErea(bool enable);
    virtual emDeviceResult setZaxisCompensation(bool enable);
    virtual emDeviceResult setResetCamera();
    virtual emDeviceResult setSound(bool enable);
    virtual emDeviceResult setBlackObject(const bool& black);
    virtual emDeviceResult setTriggerLaser(bool on);
    virtual emDeviceResult setHighFrameRate(int rate);
    virtual emDeviceResult setCalibHighFrameRate(bool on);
    virtual emDeviceResult setHeartBeatInterval(const int& interval);
    virtual emDeviceResult setHeartDevice();
    virtual emDeviceResult setCurSystemTime();
    virtual emDeviceResult setDeviceLaserType(const emDeviceLaserType& type);
    virtual emDeviceResult setMetalHoleParamter(emMetalHoleSurfaceColor color,
                                                emMetalHoleSurfaceProcess process);
    virtual emDeviceResult setRivetHoleParamter(int first, int second);
    virtual emDeviceResult setCustomDepth(const std::string& name, int first, int second);
    virtual emDeviceResult setWifiUserPassword(const std::string& user,
                                               const std::string& password);
    virtual emDeviceResult grabImage(const std::vector<std::string>& deviceIds);
    virtual emDeviceResult setGrabSaveOneFrame(bool on);
    virtual emDeviceResult startSuperConversionScanObject(bool on);
    virtual emDeviceResult setImagesSavePath(const std::wstring& path);
    virtual emDeviceResult updateConfigFolder(wchar_t* folder);
    virtual emDeviceResult setPriplad(bool enable);

    // ---------------------------------------------------------------------------------------
    // Information
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult getDeviceInfo(int* count, std::shared_ptr<tagDeviceInfoList>* list);
    virtual emDeviceResult getLowpartVersion();
    virtual emDeviceResult getDeviceTemperature();

    // ---------------------------------------------------------------------------------------
    // Transfer matrices, holes and edges
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult getTransferMatrix();
    virtual emDeviceResult emptyTransferMatrix();
    virtual emDeviceResult setSuperConversionScanMatrix(const std::vector<double>& matrix);
    virtual emDeviceResult importCascadeFile(const std::wstring& path);
    virtual emDeviceResult setFineHoleData(const std::vector<tagScanHoleData>& holes);
    virtual emDeviceResult setCuttingEdgeData(const std::vector<tagCuttingEdgeData>& edges);

    // ---------------------------------------------------------------------------------------
    // Scan options
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult SetEnableScanExpand(bool enable);
    virtual emDeviceResult SetTrackerMarkPointDiameter(std::vector<float> diameters);

    // ---------------------------------------------------------------------------------------
    // Marker points
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult setMarkpoint(const tagMarkpointList& list, bool asReference);
    virtual emDeviceResult setMarkpointRadius(const double* radii, int count);
    virtual emDeviceResult setMarkpointDiameter(std::vector<float> diameters);
    virtual emDeviceResult GetOptimizationMarkpoint(tagRefMarkpointData& out);

    // ---------------------------------------------------------------------------------------
    // Calibration
    // ---------------------------------------------------------------------------------------

    virtual emDeviceResult setDeviceCalibraMode(const emDeviceCalibraMode& mode);
    virtual emDeviceResult setCalibTeachStep(int step);
    virtual emDeviceResult setCalibTrackRange(emTrackRange range);
    virtual emDeviceResult setStartCalibration();
    virtual emDeviceResult setGrabOneFrame(emDeviceCalibraPose pose);
    virtual emDeviceResult setStopCalibration();
    virtual emDeviceResult getCalibraResult(float* result);
    virtual emDeviceResult setCalibrationDevice(const wchar_t* first, const wchar_t* second);

protected:
    // Callbacks to the host. Each calls the registered handler, if any, on the calling thread
    // and never throws.
    void callDeviceData(const std::shared_ptr<tagDeviceData>& data, const char* tag, int value);
    void callDeviceState(const emDeviceState& state, const tagDeviceInfo& info, const void* extra);
    void callDeviceTReply(const std::string& text, const emDeviceReply& reply, const void* payload);
    void callDeviceButton(const emDeviceButton& button, const emDeviceButtonAction& action);
    void callDeviceTFastCali(const emDeviceTFastCali& kind, const void* payload);
    void callDeviceImage(int a, int b, int c, const std::string& name, const void* payload);
    void callDeviceNeedRetrigger();
    void callDeviceTriggerNoData();

private:
    std::shared_ptr<const tagDeviceHandlers> handlers() const noexcept;
    template <class Edit>
    void editHandlers(Edit edit);

    const emDeviceNewType m_emNewType;
    std::atomic<bool> m_bInit{false};
    std::atomic<bool> m_bSaveImages{false};
    std::atomic<bool> m_bUsePublicDocument{false};
    std::atomic<bool> m_bLaserLock{false};

    mutable std::mutex m_mtxHandlers;
    std::shared_ptr<const tagDeviceHandlers> m_pHandlers;
};

}  // namespace device
