#include "helmsman/DeviceBase.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "platform/Platform.h"

namespace device {

namespace {

// An object inside this library: its address tells which loaded module holds the library.
const char kModuleAnchor = 0;

// Host folders set by the host; empty means "use the default".
struct HostFolders {
    std::mutex mutex;
    std::wstring annex;
    std::wstring documents;
    std::wstring publicDocuments;
};

HostFolders& hostFolders() {
    static HostFolders folders;
    return folders;
}

std::wstring defaultAnnexPath() {
    static const std::wstring path = platform::widePath(platform::moduleDirOf(&kModuleAnchor));
    return path;
}

std::wstring environmentPath(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') {
        return std::wstring();
    }
    return platform::widePath(value);
}

std::wstring defaultDocumentPath() {
    std::wstring path = environmentPath("XDG_DOCUMENTS_DIR");
    if (!path.empty()) {
        return path;
    }
    for (const char* home : {"HOME", "USERPROFILE"}) {
        path = environmentPath(home);
        if (!path.empty()) {
            return platform::joinPath(path, std::wstring(L"Documents"));
        }
    }
    return CDeviceBase::getAnnexPath();
}

std::wstring defaultPublicDocumentPath() {
    const std::wstring path = environmentPath("PUBLIC");
    if (!path.empty()) {
        return platform::joinPath(path, std::wstring(L"Documents"));
    }
    return L"/var/tmp";
}

// Removes trailing separators (but keeps a lone root separator).
std::wstring withoutTrailingSeparator(std::wstring path) {
    while (path.size() > 1 && (path.back() == L'/' || path.back() == L'\\')) {
        path.pop_back();
    }
    return path;
}

void reportHandlerFailure(const char* callback, const char* what) {
    std::fprintf(stdout, "[helmsman] %s handler threw: %s\n", callback, what);
    std::fflush(stdout);
}

// Calls the handler `member` of `handlers` with `args` when it is set; whatever it throws
// stops here.
template <class Handler, class... Args>
void invokeGuarded(const char* callback, const std::shared_ptr<const tagDeviceHandlers>& handlers,
                   Handler tagDeviceHandlers::*member, Args&&... args) noexcept {
    try {
        if (handlers && handlers.get()->*member) {
            (handlers.get()->*member)(std::forward<Args>(args)...);
        }
    } catch (const std::exception& e) {
        reportHandlerFailure(callback, e.what());
    } catch (...) {
        reportHandlerFailure(callback, "unknown exception");
    }
}

}  // namespace

CDeviceBase::CDeviceBase(emDeviceNewType type)
    : m_emNewType(type), m_pHandlers(std::make_shared<const tagDeviceHandlers>()) {}

CDeviceBase::~CDeviceBase() = default;

// ---------------------------------------------------------------------------------------------
// Handlers
// ---------------------------------------------------------------------------------------------

std::shared_ptr<const tagDeviceHandlers> CDeviceBase::handlers() const noexcept {
    try {
        std::lock_guard<std::mutex> lock(m_mtxHandlers);
        return m_pHandlers;
    } catch (...) {
        return nullptr;  // the lock failed: the callback is dropped
    }
}

// Registration builds a new handler set and swaps it in, so that a callback running on another
// thread keeps the set it started with.
template <class Edit>
void CDeviceBase::editHandlers(Edit edit) {
    try {
        std::lock_guard<std::mutex> lock(m_mtxHandlers);
        auto copy = std::make_shared<tagDeviceHandlers>(*m_pHandlers);
        edit(*copy);
        m_pHandlers = std::move(copy);
    } catch (const std::exception& e) {
        std::fprintf(stdout, "[helmsman] handler registration failed: %s\n", e.what());
        std::fflush(stdout);
    }
}

void CDeviceBase::setHandlers(const tagDeviceHandlers& handlers) {
    editHandlers([&](tagDeviceHandlers& h) { h = handlers; });
}

tagDeviceHandlers CDeviceBase::getHandlers() const {
    try {
        const auto current = handlers();
        return current ? *current : tagDeviceHandlers();
    } catch (const std::exception&) {
        return tagDeviceHandlers();
    }
}

void CDeviceBase::clearHandlers() {
    setHandlers(tagDeviceHandlers());
}

void CDeviceBase::setDeviceDataHandler(decltype(tagDeviceHandlers::onDeviceData) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceData = std::move(handler); });
}

void CDeviceBase::setDeviceStateHandler(decltype(tagDeviceHandlers::onDeviceState) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceState = std::move(handler); });
}

void CDeviceBase::setDeviceReplyHandler(decltype(tagDeviceHandlers::onDeviceReply) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceReply = std::move(handler); });
}

void CDeviceBase::setDeviceButtonHandler(decltype(tagDeviceHandlers::onDeviceButton) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceButton = std::move(handler); });
}

void CDeviceBase::setDeviceFastCaliHandler(decltype(tagDeviceHandlers::onDeviceFastCali) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceFastCali = std::move(handler); });
}

void CDeviceBase::setDeviceImageHandler(decltype(tagDeviceHandlers::onDeviceImage) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceImage = std::move(handler); });
}

void CDeviceBase::setDeviceNeedRetriggerHandler(
    decltype(tagDeviceHandlers::onDeviceNeedRetrigger) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceNeedRetrigger = std::move(handler); });
}

void CDeviceBase::setDeviceTriggerNoDataHandler(
    decltype(tagDeviceHandlers::onDeviceTriggerNoData) handler) {
    editHandlers([&](tagDeviceHandlers& h) { h.onDeviceTriggerNoData = std::move(handler); });
}

// ---------------------------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------------------------

void CDeviceBase::callDeviceData(const std::shared_ptr<tagDeviceData>& data, const char* tag,
                                 int value) {
    invokeGuarded("DeviceData", handlers(), &tagDeviceHandlers::onDeviceData, data, tag, value);
}

void CDeviceBase::callDeviceState(const emDeviceState& state, const tagDeviceInfo& info,
                                  const void* extra) {
    invokeGuarded("DeviceState", handlers(), &tagDeviceHandlers::onDeviceState, state, info, extra);
}

void CDeviceBase::callDeviceTReply(const std::string& text, const emDeviceReply& reply,
                                   const void* payload) {
    invokeGuarded("DeviceTReply", handlers(), &tagDeviceHandlers::onDeviceReply, text, reply,
                  payload);
}

void CDeviceBase::callDeviceButton(const emDeviceButton& button,
                                   const emDeviceButtonAction& action) {
    invokeGuarded("DeviceButton", handlers(), &tagDeviceHandlers::onDeviceButton, button, action);
}

void CDeviceBase::callDeviceTFastCali(const emDeviceTFastCali& kind, const void* payload) {
    invokeGuarded("DeviceTFastCali", handlers(), &tagDeviceHandlers::onDeviceFastCali, kind,
                  payload);
}

void CDeviceBase::callDeviceImage(int a, int b, int c, const std::string& name,
                                  const void* payload) {
    invokeGuarded("DeviceImage", handlers(), &tagDeviceHandlers::onDeviceImage, a, b, c, name,
                  payload);
}

void CDeviceBase::callDeviceNeedRetrigger() {
    invokeGuarded("DeviceNeedRetrigger", handlers(), &tagDeviceHandlers::onDeviceNeedRetrigger);
}

void CDeviceBase::callDeviceTriggerNoData() {
    invokeGuarded("DeviceTriggerNoData", handlers(), &tagDeviceHandlers::onDeviceTriggerNoData);
}

// ---------------------------------------------------------------------------------------------
// Host folders
// ---------------------------------------------------------------------------------------------

std::wstring CDeviceBase::getAnnexPath() {
    {
        HostFolders& folders = hostFolders();
        std::lock_guard<std::mutex> lock(folders.mutex);
        if (!folders.annex.empty()) {
            return folders.annex;
        }
    }
    return defaultAnnexPath();
}

void CDeviceBase::setAnnexPath(const std::wstring& path) {
    HostFolders& folders = hostFolders();
    std::lock_guard<std::mutex> lock(folders.mutex);
    folders.annex = withoutTrailingSeparator(path);
}

std::wstring CDeviceBase::getDocumentPath() {
    {
        HostFolders& folders = hostFolders();
        std::lock_guard<std::mutex> lock(folders.mutex);
        if (!folders.documents.empty()) {
            return folders.documents;
        }
    }
    return defaultDocumentPath();
}

void CDeviceBase::setDocumentPath(const std::wstring& path) {
    HostFolders& folders = hostFolders();
    std::lock_guard<std::mutex> lock(folders.mutex);
    folders.documents = withoutTrailingSeparator(path);
}

std::wstring CDeviceBase::getPublicDocumentPath() {
    {
        HostFolders& folders = hostFolders();
        std::lock_guard<std::mutex> lock(folders.mutex);
        if (!folders.publicDocuments.empty()) {
            return folders.publicDocuments;
        }
    }
    return defaultPublicDocumentPath();
}

void CDeviceBase::setPublicDocumentPath(const std::wstring& path) {
    HostFolders& folders = hostFolders();
    std::lock_guard<std::mutex> lock(folders.mutex);
    folders.publicDocuments = withoutTrailingSeparator(path);
}

// ---------------------------------------------------------------------------------------------
// Default bodies: a device answers "not supported" for every operation it does not override.
// ---------------------------------------------------------------------------------------------

emDeviceResult CDeviceBase::init() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::clear() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::emptyCache() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::controlLaserOn() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::controlLaserOff() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::EnterTrackPreviewer() {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CDeviceBase::setScanObject(const emScanObject&, bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setDynamicTracking(const emScanObject&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setWorkBusiness(emWorkBusiness) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setTrackingScanner() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setTrackingMarkpoint() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setWorkingDevice(const std::vector<std::string>&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setImageMode(const emImageMode&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setLEDExposure(const float&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setLaserExposure(const float&, int&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setROIErea(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setZaxisCompensation(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setResetCamera() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setSound(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setBlackObject(const bool&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setTriggerLaser(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setHighFrameRate(int) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCalibHighFrameRate(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setHeartBeatInterval(const int&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setHeartDevice() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCurSystemTime() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setDeviceLaserType(const emDeviceLaserType&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setMetalHoleParamter(emMetalHoleSurfaceColor,
                                                 emMetalHoleSurfaceProcess) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setRivetHoleParamter(int, int) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCustomDepth(const std::string&, int, int) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setWifiUserPassword(const std::string&, const std::string&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::grabImage(const std::vector<std::string>&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setGrabSaveOneFrame(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::startSuperConversionScanObject(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setImagesSavePath(const std::wstring&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::updateConfigFolder(wchar_t*) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setPriplad(bool) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CDeviceBase::getDeviceInfo(int*, std::shared_ptr<tagDeviceInfoList>*) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::getLowpartVersion() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::getDeviceTemperature() {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CDeviceBase::getTransferMatrix() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::emptyTransferMatrix() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setSuperConversionScanMatrix(const std::vector<double>&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::importCascadeFile(const std::wstring&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setFineHoleData(const std::vector<tagScanHoleData>&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCuttingEdgeData(const std::vector<tagCuttingEdgeData>&) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CDeviceBase::SetEnableScanExpand(bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::SetTrackerMarkPointDiameter(std::vector<float>) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CDeviceBase::setMarkpoint(const tagMarkpointList&, bool) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setMarkpointRadius(const double*, int) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setMarkpointDiameter(std::vector<float>) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::GetOptimizationMarkpoint(tagRefMarkpointData&) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CDeviceBase::setDeviceCalibraMode(const emDeviceCalibraMode&) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCalibTeachStep(int) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCalibTrackRange(emTrackRange) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setStartCalibration() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setGrabOneFrame(emDeviceCalibraPose) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setStopCalibration() {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::getCalibraResult(float*) {
    return RESULT_NOT_SUPPORTED;
}
emDeviceResult CDeviceBase::setCalibrationDevice(const wchar_t*, const wchar_t*) {
    return RESULT_NOT_SUPPORTED;
}

}  // namespace device
