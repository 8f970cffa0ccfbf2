// Message classes: copy semantics and the Protocol Buffers bodies of pack/unpack.
#include "sdk/Messages.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>

#include "sdk/Wire.h"
#include "sdk_link.pb.h"

namespace SDK_NV {

namespace {

// ---- helpers between std::vector / fixed arrays and repeated fields ------------------------

// Bulk copy into a repeated scalar field (one allocation, one memcpy).
template <typename T, typename R>
void toRepeated(const T* in, size_t n, R* out) {
    out->Clear();
    if (n == 0) {
        return;
    }
    out->Reserve(static_cast<int>(n));
    T* dst = out->AddNAlreadyReserved(static_cast<int>(n));
    std::memcpy(dst, in, n * sizeof(T));
}

template <typename T, typename R>
void toRepeated(const std::vector<T>& in, R* out) {
    toRepeated(in.data(), in.size(), out);
}

template <typename T, typename R>
void fromRepeated(const R& in, std::vector<T>& out) {
    // Through raw pointers, so that the copy is one memmove.
    const T* first = in.data();
    out.assign(first, first + in.size());
}

// Copies exactly n values, or leaves `out` as it is when the field is empty and `allowEmpty`.
template <typename T, typename R>
bool fromRepeatedFixed(const R& in, T* out, int n, bool allowEmpty) {
    if (in.size() == 0 && allowEmpty) {
        return true;
    }
    if (in.size() != n) {
        return false;
    }
    std::copy(in.begin(), in.end(), out);
    return true;
}

// Serialises `body` into `out`; the body size, or -1 when it is too large for a frame.
int serializeBody(const google::protobuf::MessageLite& body, std::vector<char>* out) {
    if (out == nullptr) {
        return -1;
    }
    const size_t size = body.ByteSizeLong();
    if (size > wire::kMaxBodyBytes) {
        return -1;
    }
    try {
        out->resize(size);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (size > 0 && !body.SerializeToArray(out->data(), static_cast<int>(size))) {
        return -1;
    }
    return static_cast<int>(size);
}

bool parseBody(const char* data, const int& size, google::protobuf::MessageLite& body) {
    if (size < 0 || (size > 0 && data == nullptr)) {
        return false;
    }
    try {
        return body.ParseFromArray(data, size);
    } catch (...) {
        return false;
    }
}

// ---- records <-> bodies ----------------------------------------------------------------------

void workToWire(const tagWorkRespons& r, sdk_link::WorkResponse* w) {
    w->set_code(r.code);
    w->set_state(r.state);
    w->set_text(r.text);
    w->set_device_id(r.deviceId);
}

void workFromWire(const sdk_link::WorkResponse& w, tagWorkRespons& r) {
    r.code = w.code();
    r.state = w.state();
    r.text = w.text();
    r.deviceId = w.device_id();
}

// Heartbeats travel as lumora::HeartData: temperatures in `data`, frame rates in
// `dataFramerate`, matched by index.
void heartToWire(const std::vector<tagHeartData>& in, lumora::HeartData* out) {
    for (const tagHeartData& h : in) {
        lumora::TempInfo* t = out->add_data();
        t->set_id(h.name);
        t->set_dtype(static_cast<lumora::DeviceType>(h.kind));
        toRepeated(h.temp, t->mutable_temp());
        lumora::FrameRateInfo* f = out->add_dataframerate();
        f->set_id(h.name);
        f->set_dtype(static_cast<lumora::DeviceType>(h.kind));
        toRepeated(h.framerate, f->mutable_framerate());
    }
}

void heartFromWire(const lumora::HeartData& in, std::vector<tagHeartData>& out) {
    out.clear();
    out.reserve(static_cast<size_t>(in.data_size()));
    for (int i = 0; i < in.data_size(); ++i) {
        const lumora::TempInfo& t = in.data(i);
        tagHeartData h;
        h.kind = static_cast<int32_t>(t.dtype());
        h.name = t.id();
        fromRepeated(t.temp(), h.temp);
        if (i < in.dataframerate_size()) {
            fromRepeated(in.dataframerate(i).framerate(), h.framerate);
        }
        out.push_back(std::move(h));
    }
}

void lowPartToWire(const tagLowPartConfig& c, lumora::LowPartCfg* w) {
    w->set_nsysid(c.nSysId);
    w->set_buselocal(c.nUseLocal);
    w->set_busepriplad(c.nUsePriplad);
    w->set_busenet(c.nUseNet);
    w->set_bsyncid(c.nSyncId);
    w->set_strsysname(c.strSysName);
    for (const std::string& id : c.vecPripladIds) {
        w->add_pripladip(id);
    }
}

void lowPartFromWire(const lumora::LowPartCfg& w, tagLowPartConfig& c) {
    c.nSysId = w.nsysid();
    c.nUseLocal = w.buselocal();
    c.nUsePriplad = w.busepriplad();
    c.nUseNet = w.busenet();
    c.nSyncId = w.bsyncid();
    c.strSysName = w.strsysname();
    c.vecPripladIds.assign(w.pripladip().begin(), w.pripladip().end());
}

}  // namespace

// Exposed to the wrapper (commands carry a low-part configuration too).
namespace wire {
void encodeLowPartConfig(const tagLowPartConfig& c, lumora::LowPartCfg* w) {
    lowPartToWire(c, w);
}
void decodeLowPartConfig(const lumora::LowPartCfg& w, tagLowPartConfig& c) {
    lowPartFromWire(w, c);
}
}  // namespace wire

// =============================================================================================
// CMessage_Base
// =============================================================================================

CMessage_Base::CMessage_Base(const int& type) : m_nType(type) {}

CMessage_Base::CMessage_Base(const CMessage_Base& other)
    : m_nType(other.m_nType),
      m_nID(other.m_nID),
      m_pDeviceIds(other.m_pDeviceIds ? new deviceids(*other.m_pDeviceIds) : nullptr),
      m_nSentNs(other.m_nSentNs) {}

CMessage_Base& CMessage_Base::operator=(const CMessage_Base& other) {
    if (this != &other) {
        m_nType = other.m_nType;
        m_nID = other.m_nID;
        setDeviceIds(other.m_pDeviceIds);
        m_nSentNs = other.m_nSentNs;
    }
    return *this;
}

CMessage_Base::~CMessage_Base() {
    delete m_pDeviceIds;
}

void CMessage_Base::setDeviceIds(deviceids* ids) {
    if (ids == m_pDeviceIds) {
        return;
    }
    deviceids* copy = ids ? new deviceids(*ids) : nullptr;
    delete m_pDeviceIds;
    m_pDeviceIds = copy;
}

// =============================================================================================
// CMessage_Connect
// =============================================================================================

CMessage_Connect::CMessage_Connect() : CMessage_Base(MSG_CONNECT) {}
CMessage_Connect::CMessage_Connect(const CMessage_Connect& other)
    : CMessage_Base(other), m_bConnect(other.m_bConnect) {}
CMessage_Connect& CMessage_Connect::operator=(const CMessage_Connect& other) {
    CMessage_Base::operator=(other);
    m_bConnect = other.m_bConnect;
    return *this;
}

int CMessage_Connect::pack(std::vector<char>* out) {
    sdk_link::ConnectBody body;
    body.set_connected(m_bConnect);
    return serializeBody(body, out);
}

int CMessage_Connect::unpack(const char* data, const int& size) {
    sdk_link::ConnectBody body;
    if (!parseBody(data, size, body)) {
        return -1;
    }
    m_bConnect = body.connected();
    return 0;
}

// =============================================================================================
// CMessage_Receipt
// =============================================================================================

CMessage_Receipt::CMessage_Receipt() : CMessage_Base(MSG_RECEIPT) {}

CMessage_Receipt::CMessage_Receipt(const CMessage_Receipt& other)
    : CMessage_Base(other),
      m_nReceiptKind(other.m_nReceiptKind),
      m_workRespons(other.m_workRespons),
      m_vecHeartData(other.m_vecHeartData),
      m_cameraImages(other.m_cameraImages),
      m_lowPartConfig(other.m_lowPartConfig),
      m_vecPriplad(other.m_vecPriplad),
      m_remainingRGF(other.m_remainingRGF),
      m_dCalibraResult(other.m_dCalibraResult),
      m_diagnosis(other.m_diagnosis),
      m_nTrackRangeLevel(other.m_nTrackRangeLevel),
      m_nTrackerBarState(other.m_nTrackerBarState),
      m_wifiConnect(other.m_wifiConnect),
      m_wifiSignal(other.m_wifiSignal),
      m_strCalibFileName(other.m_strCalibFileName),
      m_eFarLaserResult(other.m_eFarLaserResult),
      m_vecScannerDistance(other.m_vecScannerDistance),
      m_firmwareCheck(other.m_firmwareCheck),
      m_vecViewPoints(other.m_vecViewPoints),
      m_strFirmwareVersion(other.m_strFirmwareVersion) {}

CMessage_Receipt& CMessage_Receipt::operator=(const CMessage_Receipt& other) {
    if (this == &other) {
        return *this;
    }
    CMessage_Base::operator=(other);
    m_nReceiptKind = other.m_nReceiptKind;
    m_workRespons = other.m_workRespons;
    m_vecHeartData = other.m_vecHeartData;
    m_cameraImages = other.m_cameraImages;
    m_lowPartConfig = other.m_lowPartConfig;
    m_vecPriplad = other.m_vecPriplad;
    m_remainingRGF = other.m_remainingRGF;
    m_dCalibraResult = other.m_dCalibraResult;
    m_diagnosis = other.m_diagnosis;
    m_nTrackRangeLevel = other.m_nTrackRangeLevel;
    m_nTrackerBarState = other.m_nTrackerBarState;
    m_wifiConnect = other.m_wifiConnect;
    m_wifiSignal = other.m_wifiSignal;
    m_strCalibFileName = other.m_strCalibFileName;
    m_eFarLaserResult = other.m_eFarLaserResult;
    m_vecScannerDistance = other.m_vecScannerDistance;
    m_firmwareCheck = other.m_firmwareCheck;
    m_vecViewPoints = other.m_vecViewPoints;
    m_strFirmwareVersion = other.m_strFirmwareVersion;
    return *this;
}

bool CMessage_Receipt::getWorkResponsInfo(tagWorkRespons* out) const {
    if (out == nullptr) {
        return false;
    }
    *out = m_workRespons;
    return true;
}

bool CMessage_Receipt::getHeartData(std::vector<tagHeartData>* out) const {
    if (out == nullptr) {
        return false;
    }
    *out = m_vecHeartData;
    return true;
}

bool CMessage_Receipt::getCameraImages(tagCameraImageList& out) const {
    out = m_cameraImages;
    return true;
}

bool CMessage_Receipt::getLowPartConfig(tagLowPartConfig* out) const {
    if (out == nullptr) {
        return false;
    }
    *out = m_lowPartConfig;
    return true;
}

bool CMessage_Receipt::getPripladDevices(std::vector<tagPripladDeviceData>* out) const {
    if (out == nullptr) {
        return false;
    }
    *out = m_vecPriplad;
    return true;
}

bool CMessage_Receipt::getRemainingRGF(tagRemainingRGFs& out) const {
    out = m_remainingRGF;
    return true;
}

int CMessage_Receipt::pack(std::vector<char>* out) {
    sdk_link::ReceiptBody b;
    b.set_kind(m_nReceiptKind);
    workToWire(m_workRespons, b.mutable_work());
    heartToWire(m_vecHeartData, b.mutable_heart());
    sdk_link::CameraImageList* images = b.mutable_images();
    images->set_frame_index(m_cameraImages.nFrameIndex);
    for (const tagCameraImgData& img : m_cameraImages.vecImages) {
        sdk_link::CameraImage* w = images->add_images();
        w->set_name(img.strName);
        w->set_width(img.nWidth);
        w->set_height(img.nHeight);
        w->set_camera_index(img.nCameraIndex);
        w->set_data(reinterpret_cast<const char*>(img.vecData.data()), img.vecData.size());
    }
    lowPartToWire(m_lowPartConfig, b.mutable_lowpart());
    for (const tagPripladDeviceData& p : m_vecPriplad) {
        sdk_link::PripladDevice* w = b.add_priplad();
        w->set_name(p.strName);
        w->set_device_id(p.strDeviceId);
        w->set_ip(p.strIP);
        w->set_version(p.strVersion);
        w->set_signal_quality(p.nSignalQuality);
        w->set_cur_electric(p.nCurElectric);
        w->set_electric1(p.nElectric1);
        w->set_electric2(p.nElectric2);
    }
    for (const tagRemainingRGF& r : m_remainingRGF.vecRGF) {
        sdk_link::RemainingRGF* w = b.add_rgf();
        w->set_count(r.nCount);
        w->set_name(r.strName);
    }
    b.set_calib_result(m_dCalibraResult);
    *b.mutable_diagnosis() = m_diagnosis;
    b.set_track_range_level(m_nTrackRangeLevel);
    b.set_bar_state(m_nTrackerBarState);
    lumora::WIFIConnectProcessInfo* wc = b.mutable_wifi_connect();
    wc->set_devicetype(m_wifiConnect.nDeviceType);
    wc->set_messagetype(m_wifiConnect.nMessageType);
    wc->set_devicesn(m_wifiConnect.strDeviceSN);
    wc->set_eventmessage(m_wifiConnect.strEventMessage);
    lumora::WIFISignalStrength* ws = b.mutable_wifi_signal();
    ws->set_devicesn(m_wifiSignal.strDeviceSN);
    ws->set_signalstength(m_wifiSignal.nSignalStrength);
    ws->set_signalstrenth_db(m_wifiSignal.nSignalDb);
    ws->set_channel(m_wifiSignal.nChannel);
    ws->set_wlanstatue(m_wifiSignal.nStatus);
    b.set_calib_file_name(m_strCalibFileName);
    b.set_far_laser_result(m_eFarLaserResult);
    toRepeated(m_vecScannerDistance, b.mutable_scanner_distance());
    *b.mutable_firmware_check() = m_firmwareCheck;
    toRepeated(m_vecViewPoints, b.mutable_view_points());
    b.set_firmware_version(m_strFirmwareVersion);
    return serializeBody(b, out);
}

int CMessage_Receipt::unpack(const char* data, const int& size) {
    sdk_link::ReceiptBody b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    if (b.kind() < 0 || b.view_points_size() % 3 != 0) {
        return -1;
    }
    CMessage_Receipt r(*this);
    r.m_nReceiptKind = b.kind();
    workFromWire(b.work(), r.m_workRespons);
    heartFromWire(b.heart(), r.m_vecHeartData);
    r.m_cameraImages.nFrameIndex = b.images().frame_index();
    r.m_cameraImages.vecImages.clear();
    for (const sdk_link::CameraImage& w : b.images().images()) {
        tagCameraImgData img;
        img.strName = w.name();
        img.nWidth = w.width();
        img.nHeight = w.height();
        img.nCameraIndex = w.camera_index();
        img.vecData.assign(w.data().begin(), w.data().end());
        r.m_cameraImages.vecImages.push_back(std::move(img));
    }
    lowPartFromWire(b.lowpart(), r.m_lowPartConfig);
    r.m_vecPriplad.clear();
    for (const sdk_link::PripladDevice& w : b.priplad()) {
        tagPripladDeviceData p;
        p.strName = w.name();
        p.strDeviceId = w.device_id();
        p.strIP = w.ip();
        p.strVersion = w.version();
        p.nSignalQuality = w.signal_quality();
        p.nCurElectric = w.cur_electric();
        p.nElectric1 = w.electric1();
        p.nElectric2 = w.electric2();
        r.m_vecPriplad.push_back(std::move(p));
    }
    r.m_remainingRGF.vecRGF.clear();
    for (const sdk_link::RemainingRGF& w : b.rgf()) {
        tagRemainingRGF e;
        e.nCount = w.count();
        e.strName = w.name();
        r.m_remainingRGF.vecRGF.push_back(std::move(e));
    }
    r.m_dCalibraResult = b.calib_result();
    r.m_diagnosis = b.diagnosis();
    r.m_nTrackRangeLevel = b.track_range_level();
    r.m_nTrackerBarState = b.bar_state();
    r.m_wifiConnect.nDeviceType = b.wifi_connect().devicetype();
    r.m_wifiConnect.nMessageType = b.wifi_connect().messagetype();
    r.m_wifiConnect.strDeviceSN = b.wifi_connect().devicesn();
    r.m_wifiConnect.strEventMessage = b.wifi_connect().eventmessage();
    r.m_wifiSignal.strDeviceSN = b.wifi_signal().devicesn();
    r.m_wifiSignal.nSignalStrength = b.wifi_signal().signalstength();
    r.m_wifiSignal.nSignalDb = b.wifi_signal().signalstrenth_db();
    r.m_wifiSignal.nChannel = b.wifi_signal().channel();
    r.m_wifiSignal.nStatus = b.wifi_signal().wlanstatue();
    r.m_strCalibFileName = b.calib_file_name();
    r.m_eFarLaserResult = static_cast<emFarLaserCalibrateResult>(b.far_laser_result());
    fromRepeated(b.scanner_distance(), r.m_vecScannerDistance);
    r.m_firmwareCheck = b.firmware_check();
    fromRepeated(b.view_points(), r.m_vecViewPoints);
    r.m_strFirmwareVersion = b.firmware_version();
    *this = std::move(r);
    return 0;
}

// =============================================================================================
// CMessage_Device
// =============================================================================================

CMessage_Device::CMessage_Device() : CMessage_Base(MSG_DEVICE) {}
CMessage_Device::CMessage_Device(const CMessage_Device& other)
    : CMessage_Base(other),
      m_nConnect(other.m_nConnect),
      m_eDeviceType(other.m_eDeviceType),
      m_deviceInfo(other.m_deviceInfo),
      m_strDeviceSN(other.m_strDeviceSN) {}
CMessage_Device& CMessage_Device::operator=(const CMessage_Device& other) {
    if (this != &other) {
        CMessage_Base::operator=(other);
        m_nConnect = other.m_nConnect;
        m_eDeviceType = other.m_eDeviceType;
        m_deviceInfo = other.m_deviceInfo;
        m_strDeviceSN = other.m_strDeviceSN;
    }
    return *this;
}

int CMessage_Device::pack(std::vector<char>* out) {
    sdk_link::DeviceBody b;
    b.set_connected(m_nConnect != 0);
    b.set_device_type(m_eDeviceType);
    *b.mutable_info() = m_deviceInfo;
    b.set_sn(m_strDeviceSN);
    return serializeBody(b, out);
}

int CMessage_Device::unpack(const char* data, const int& size) {
    sdk_link::DeviceBody b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    m_nConnect = b.connected() ? 1 : 0;
    m_eDeviceType = static_cast<DEVICETYPE>(b.device_type());
    m_deviceInfo = b.info();
    m_strDeviceSN = b.sn();
    return 0;
}

// =============================================================================================
// CMessage_Button
// =============================================================================================

CMessage_Button::CMessage_Button() : CMessage_Base(MSG_BUTTON) {}
CMessage_Button::CMessage_Button(const CMessage_Button& other)
    : CMessage_Base(other),
      m_nButtonCode(other.m_nButtonCode),
      m_nButtonAction(other.m_nButtonAction) {}
CMessage_Button& CMessage_Button::operator=(const CMessage_Button& other) {
    CMessage_Base::operator=(other);
    m_nButtonCode = other.m_nButtonCode;
    m_nButtonAction = other.m_nButtonAction;
    return *this;
}

int CMessage_Button::pack(std::vector<char>* out) {
    lumora::ButtonData b;
    b.set_num(m_nButtonCode);
    b.set_type(static_cast<lumora::ButtonActType>(m_nButtonAction));
    return serializeBody(b, out);
}

int CMessage_Button::unpack(const char* data, const int& size) {
    lumora::ButtonData b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    m_nButtonCode = b.num();
    m_nButtonAction = static_cast<int32_t>(b.type());
    return 0;
}

// =============================================================================================
// CMessage_FrameData
// =============================================================================================

CMessage_FrameData::CMessage_FrameData() : CMessage_Base(MSG_FRAMEDATA) {}
CMessage_FrameData::CMessage_FrameData(const CMessage_FrameData& other)
    : CMessage_Base(other), m_bEnableWrite(other.m_bEnableWrite) {}
CMessage_FrameData& CMessage_FrameData::operator=(const CMessage_FrameData& other) {
    CMessage_Base::operator=(other);
    m_bEnableWrite = other.m_bEnableWrite;
    return *this;
}

int CMessage_FrameData::pack(std::vector<char>* out) {
    sdk_link::FrameDataBody b;
    b.set_enable_write(m_bEnableWrite);
    return serializeBody(b, out);
}

int CMessage_FrameData::unpack(const char* data, const int& size) {
    sdk_link::FrameDataBody b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    m_bEnableWrite = b.enable_write();
    return 0;
}

// =============================================================================================
// CMessage_ScanData
// =============================================================================================

CMessage_ScanData::CMessage_ScanData() : CMessage_Base(MSG_SCANDATA) {}

CMessage_ScanData::CMessage_ScanData(const CMessage_ScanData& other)
    : CMessage_Base(other), m_pScanData(other.m_pScanData), m_nFrameID(other.m_nFrameID) {
    std::memcpy(m_dTrackerMatrix, other.m_dTrackerMatrix, sizeof(m_dTrackerMatrix));
}

CMessage_ScanData& CMessage_ScanData::operator=(const CMessage_ScanData& other) {
    if (this != &other) {
        CMessage_Base::operator=(other);
        m_pScanData = other.m_pScanData;
        m_nFrameID = other.m_nFrameID;
        std::memcpy(m_dTrackerMatrix, other.m_dTrackerMatrix, sizeof(m_dTrackerMatrix));
    }
    return *this;
}

void CMessage_ScanData::setTrackerMatrix(const double* m16) {
    if (m16 != nullptr) {
        std::memcpy(m_dTrackerMatrix, m16, sizeof(m_dTrackerMatrix));
    }
}

namespace wire {

bool scanDataConsistent(const tagScanData& f) {
    const size_t n = f.m_vecLaserPoints.size() / 3;
    if (f.m_vecLaserPoints.size() % 3 != 0) {
        return false;
    }
    if (!f.m_vecLaserNormals.empty() && f.m_vecLaserNormals.size() != f.m_vecLaserPoints.size()) {
        return false;
    }
    if (!f.m_vecLaserQuality.empty() && f.m_vecLaserQuality.size() != n) {
        return false;
    }
    if (!f.m_vecLaserLineCounts.empty()) {
        uint64_t sum = 0;
        for (int32_t c : f.m_vecLaserLineCounts) {
            if (c < 0) {
                return false;
            }
            sum += static_cast<uint64_t>(c);
        }
        if (sum != n) {
            return false;
        }
    }
    const size_t m = f.m_vecMarkerIds.size();
    if (f.m_vecMarkerCenters.size() != 3 * m || f.m_vecMarkerNormals.size() != 3 * m ||
        f.m_vecMarkerDiameters.size() != m || f.m_vecMarkerValid.size() != m) {
        return false;
    }
    for (const tagHoleData& h : f.m_vecHoles) {
        if (h.vecEdgePoints.size() % 3 != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace wire

namespace {

// Scan frames are large (hundreds of kilobytes of laser data) and arrive at up to a few hundred
// per second. Fresh buffers of that size come from the operating system page by page on every
// frame, which costs more than the copies themselves; so the receive path reuses its buffers:
//
// - ScanBodyScratch: a wire body and a byte buffer, reused by pack and unpack from a small pool
//   (at most kPoolScratches are kept; one that grew beyond kKeepBytes is released). Not one per
//   thread: MinGW-w64's emulated thread-local storage (GCC 12) frees a thread's variables
//   before their destructors run at thread end, which crashes the SDK's receiving thread on
//   Windows when it stops;
// - FramePool: released frames keep the capacity of their laser vectors for the next frame
//   (at most kPoolFrames are kept).
constexpr size_t kKeepBytes = size_t{16} << 20;
constexpr size_t kPoolFrames = 8;
constexpr size_t kPoolScratches = 4;

class ScanBodyScratch {
public:
    ScanBodyScratch() {
        {
            std::lock_guard<std::mutex> lock(pool().mutex);
            if (!pool().free.empty()) {
                m_parts = std::move(pool().free.back());
                pool().free.pop_back();
            }
        }
        if (!m_parts.body) {
            m_parts.body = std::make_unique<sdk_link::ScanFrameBody>();
        }
    }
    ~ScanBodyScratch() {
        if (m_parts.body->laser_points_size() * sizeof(float) > kKeepBytes ||
            m_parts.rest.capacity() > kKeepBytes) {
            return;
        }
        std::lock_guard<std::mutex> lock(pool().mutex);
        if (pool().free.size() < kPoolScratches) {
            pool().free.push_back(std::move(m_parts));
        }
    }
    ScanBodyScratch(const ScanBodyScratch&) = delete;
    ScanBodyScratch& operator=(const ScanBodyScratch&) = delete;
    sdk_link::ScanFrameBody& body() { return *m_parts.body; }
    std::string& rest() { return m_parts.rest; }

private:
    struct Parts {
        std::unique_ptr<sdk_link::ScanFrameBody> body;
        std::string rest;
    };
    struct Pool {
        std::mutex mutex;
        std::vector<Parts> free;
    };
    // Never destroyed: a thread may still pack or unpack while the process ends.
    static Pool& pool() {
        static Pool* const instance = new Pool;
        return *instance;
    }

    Parts m_parts;
};

class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    static std::shared_ptr<FramePool> instance() {
        static const std::shared_ptr<FramePool> pool = std::make_shared<FramePool>();
        return pool;
    }

    std::shared_ptr<tagScanData> acquire() {
        std::unique_ptr<tagScanData> frame;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_free.empty()) {
                frame = std::move(m_free.back());
                m_free.pop_back();
            }
        }
        if (frame) {
            recycle(*frame);
        } else {
            frame = std::make_unique<tagScanData>();
        }
        std::shared_ptr<FramePool> self = shared_from_this();
        return std::shared_ptr<tagScanData>(frame.release(),
                                            [self](tagScanData* p) { self->release(p); });
    }

private:
    // Back to the defaults of a new record, keeping the capacity of the laser vectors and the
    // storage of the camera and marker-image messages (cleared, their elements kept).
    static void recycle(tagScanData& f) {
        std::vector<float> points = std::move(f.m_vecLaserPoints);
        std::vector<float> normals = std::move(f.m_vecLaserNormals);
        std::vector<float> quality = std::move(f.m_vecLaserQuality);
        lumora::CamParam camera;
        lumora::MKPointImage image;
        camera.Swap(&f.m_camParam);
        image.Swap(&f.m_mkImage);
        f = tagScanData();
        points.clear();
        normals.clear();
        quality.clear();
        camera.Clear();
        image.Clear();
        f.m_vecLaserPoints = std::move(points);
        f.m_vecLaserNormals = std::move(normals);
        f.m_vecLaserQuality = std::move(quality);
        f.m_camParam.Swap(&camera);
        f.m_mkImage.Swap(&image);
    }

    void release(tagScanData* p) {
        std::unique_ptr<tagScanData> frame(p);
        const size_t bytes =
            (frame->m_vecLaserPoints.capacity() + frame->m_vecLaserNormals.capacity() +
             frame->m_vecLaserQuality.capacity()) *
                sizeof(float) +
            frame->m_mkImage.ByteSizeLong();
        if (bytes > kKeepBytes) {
            return;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_free.size() < kPoolFrames) {
            m_free.push_back(std::move(frame));
        }
    }

    std::mutex m_mutex;
    std::vector<std::unique_ptr<tagScanData>> m_free;
};

}  // namespace

namespace {

// The laser arrays (fields 10, 11 and 12 of ScanFrameBody: packed floats) carry almost all the
// bytes of a frame. On little-endian hosts, whose float layout is the wire's, they are written
// from and read into the frame's vectors directly, one copy each way instead of three; the
// encoding is the standard packed one, so any Protocol Buffers reader still reads the body.
bool hostIsLittleEndian() {
    const uint16_t probe = 1;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

constexpr uint32_t kLaserPointsField = 10;
constexpr uint32_t kLaserNormalsField = 11;
constexpr uint32_t kLaserQualityField = 12;
constexpr uint32_t kWireVarint = 0, kWireFixed64 = 1, kWireLength = 2, kWireFixed32 = 5;

size_t varintSize(uint64_t v) {
    size_t n = 1;
    while (v >= 0x80) {
        v >>= 7;
        ++n;
    }
    return n;
}

char* putVarint(char* p, uint64_t v) {
    while (v >= 0x80) {
        *p++ = static_cast<char>((v & 0x7F) | 0x80);
        v >>= 7;
    }
    *p++ = static_cast<char>(v);
    return p;
}

bool getVarint(const uint8_t*& p, const uint8_t* end, uint64_t& v) {
    v = 0;
    for (int shift = 0; shift < 64 && p < end; shift += 7) {
        const uint8_t b = *p++;
        v |= static_cast<uint64_t>(b & 0x7F) << shift;
        if ((b & 0x80) == 0) {
            return true;
        }
    }
    return false;
}

size_t packedFieldSize(uint32_t field, const std::vector<float>& v) {
    if (v.empty()) {
        return 0;
    }
    const size_t bytes = v.size() * sizeof(float);
    return varintSize((field << 3) | kWireLength) + varintSize(bytes) + bytes;
}

char* putPackedField(char* p, uint32_t field, const std::vector<float>& v) {
    if (v.empty()) {
        return p;
    }
    const size_t bytes = v.size() * sizeof(float);
    p = putVarint(p, (field << 3) | kWireLength);
    p = putVarint(p, bytes);
    std::memcpy(p, v.data(), bytes);
    return p + bytes;
}

// Splits a ScanFrameBody: the laser arrays go straight into `frame`, every other field is
// copied to `rest` for the regular parser. False when the bytes are not a valid encoding.
bool splitScanBody(const char* data, size_t size, tagScanData& frame, std::string& rest) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(data);
    const uint8_t* const end = p + size;
    rest.clear();
    while (p < end) {
        const uint8_t* const start = p;
        uint64_t tag = 0;
        if (!getVarint(p, end, tag) || (tag >> 3) == 0 || (tag >> 3) > 0x1FFFFFFF) {
            return false;
        }
        const uint32_t field = static_cast<uint32_t>(tag >> 3);
        const uint32_t wt = static_cast<uint32_t>(tag & 7);
        uint64_t len = 0;
        switch (wt) {
            case kWireVarint:
                if (!getVarint(p, end, len)) {
                    return false;
                }
                break;
            case kWireFixed64:
            case kWireFixed32: {
                const size_t n = wt == kWireFixed64 ? 8 : 4;
                if (static_cast<size_t>(end - p) < n) {
                    return false;
                }
                p += n;
                break;
            }
            case kWireLength: {
                if (!getVarint(p, end, len) || len > static_cast<uint64_t>(end - p)) {
                    return false;
                }
                std::vector<float>* target =
                    field == kLaserPointsField    ? &frame.m_vecLaserPoints
                    : field == kLaserNormalsField ? &frame.m_vecLaserNormals
                    : field == kLaserQualityField ? &frame.m_vecLaserQuality
                                                  : nullptr;
                if (target != nullptr) {
                    if (len % sizeof(float) != 0) {
                        return false;
                    }
                    if (len > 0) {
                        const size_t old = target->size();
                        target->resize(old + len / sizeof(float));
                        std::memcpy(target->data() + old, p, len);
                        p += len;
                    }
                    continue;  // not part of `rest`
                }
                p += len;
                break;
            }
            default:
                return false;  // groups and reserved wire types
        }
        rest.append(reinterpret_cast<const char*>(start), static_cast<size_t>(p - start));
    }
    return true;
}

}  // namespace

int CMessage_ScanData::pack(std::vector<char>* out) {
    if (!m_pScanData || !wire::scanDataConsistent(*m_pScanData)) {
        return -1;
    }
    const tagScanData& f = *m_pScanData;
    ScanBodyScratch scratch;
    sdk_link::ScanFrameBody& b = scratch.body();
    b.Clear();
    b.set_frame_id(m_nFrameID);
    toRepeated(m_dTrackerMatrix, 16, b.mutable_tracker_matrix());
    toRepeated(f.m_dRotation, 9, b.mutable_rotation());
    toRepeated(f.m_dTranslation, 3, b.mutable_translation());
    b.set_frame_value(f.m_nFrameValue);
    b.set_frame_count(f.m_nFrameCount);
    b.set_value(f.m_fValue);
    b.set_acquisition_kind(f.m_nAcquisitionKind);
    toRepeated(f.m_vecLaserLineCounts, b.mutable_laser_line_counts());
    const bool direct = hostIsLittleEndian();
    if (!direct) {
        toRepeated(f.m_vecLaserPoints, b.mutable_laser_points());
        toRepeated(f.m_vecLaserNormals, b.mutable_laser_normals());
        toRepeated(f.m_vecLaserQuality, b.mutable_laser_quality());
    }
    for (const tagLaserLineData& l : f.m_vecLaserLines) {
        sdk_link::LaserLine* w = b.add_laser_lines();
        w->set_line_index(l.nLineIndex);
        w->set_point_count(l.nPointCount);
        w->set_first_point(l.nFirstPoint);
        w->set_flags(l.nFlags);
        toRepeated(l.dPlane, 4, w->mutable_plane());
        toRepeated(l.dStart, 3, w->mutable_start());
        toRepeated(l.dEnd, 3, w->mutable_end());
        toRepeated(l.dDirection, 3, w->mutable_direction());
        w->set_rms(l.dRms);
    }
    toRepeated(f.m_vecMarkerIds, b.mutable_marker_ids());
    toRepeated(f.m_vecMarkerCenters, b.mutable_marker_centers());
    toRepeated(f.m_vecMarkerNormals, b.mutable_marker_normals());
    toRepeated(f.m_vecMarkerDiameters, b.mutable_marker_diameters());
    toRepeated(f.m_vecMarkerValid, b.mutable_marker_valid());
    b.set_tracker_id(f.m_strTrackerId);
    *b.mutable_cam_param() = f.m_camParam;
    *b.mutable_mk_image() = f.m_mkImage;
    for (const tagHoleData& h : f.m_vecHoles) {
        sdk_link::Hole* w = b.add_holes();
        w->set_state(h.nState);
        w->set_type(h.nType);
        w->set_id(h.nId);
        toRepeated(h.fCenter, 3, w->mutable_center());
        toRepeated(h.fDirection, 3, w->mutable_direction());
        w->set_radius(h.fRadius);
        w->set_width(h.fWidth);
        w->set_height(h.fHeight);
        w->set_depth(h.fDepth);
        toRepeated(h.vecEdgePoints, w->mutable_edge_points());
    }
    for (const tagEdgeIndex& e : f.m_vecEdgeIndex) {
        sdk_link::EdgeIndex* w = b.add_edge_index();
        w->set_index(e.nIndex);
        w->set_quality(e.fQuality);
        w->set_line_index(e.nLineIndex);
    }
    for (const tagEdgePoint& e : f.m_vecEdgePoints) {
        sdk_link::EdgePoint* w = b.add_edge_points();
        toRepeated(e.dCenter, 3, w->mutable_center());
        toRepeated(e.dNormal, 3, w->mutable_normal());
        toRepeated(e.dOutward, 3, w->mutable_outward());
        w->set_confidence(e.dConfidence);
        w->set_index(e.nIndex);
        w->set_flags(e.nFlags);
    }
    if (!direct) {
        return serializeBody(b, out);
    }
    if (out == nullptr) {
        return -1;
    }
    const size_t head = b.ByteSizeLong();
    const size_t total = head + packedFieldSize(kLaserPointsField, f.m_vecLaserPoints) +
                         packedFieldSize(kLaserNormalsField, f.m_vecLaserNormals) +
                         packedFieldSize(kLaserQualityField, f.m_vecLaserQuality);
    if (total > wire::kMaxBodyBytes) {
        return -1;
    }
    try {
        out->resize(total);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (head > 0 && !b.SerializeToArray(out->data(), static_cast<int>(head))) {
        return -1;
    }
    char* p = out->data() + head;
    p = putPackedField(p, kLaserPointsField, f.m_vecLaserPoints);
    p = putPackedField(p, kLaserNormalsField, f.m_vecLaserNormals);
    putPackedField(p, kLaserQualityField, f.m_vecLaserQuality);
    return static_cast<int>(total);
}

int CMessage_ScanData::unpack(const char* data, const int& size) {
    if (size < 0 || (size > 0 && data == nullptr)) {
        return -1;
    }
    ScanBodyScratch scratch;
    sdk_link::ScanFrameBody& b = scratch.body();
    std::shared_ptr<tagScanData> frame;
    try {
        frame = FramePool::instance()->acquire();
        tagScanData& f = *frame;
        const bool direct = hostIsLittleEndian();
        if (direct) {
            std::string& rest = scratch.rest();
            if (!splitScanBody(data, static_cast<size_t>(size), f, rest) ||
                !parseBody(rest.data(), static_cast<int>(rest.size()), b)) {
                return -1;
            }
        } else if (!parseBody(data, size, b)) {
            return -1;
        }
        double matrix[16];
        std::memcpy(matrix, m_dTrackerMatrix, sizeof(matrix));
        if (b.tracker_matrix_size() == 0) {
            const double identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
            std::memcpy(matrix, identity, sizeof(matrix));
        } else if (!fromRepeatedFixed(b.tracker_matrix(), matrix, 16, false)) {
            return -1;
        }
        if (!fromRepeatedFixed(b.rotation(), f.m_dRotation, 9, false) ||
            !fromRepeatedFixed(b.translation(), f.m_dTranslation, 3, false)) {
            return -1;
        }
        f.m_nFrameValue = b.frame_value();
        f.m_nFrameCount = b.frame_count();
        f.m_fValue = b.value();
        f.m_nAcquisitionKind = b.acquisition_kind();
        fromRepeated(b.laser_line_counts(), f.m_vecLaserLineCounts);
        // Arrays the regular parser saw (big-endian hosts, or unpacked encodings) follow.
        f.m_vecLaserPoints.insert(f.m_vecLaserPoints.end(), b.laser_points().begin(),
                                  b.laser_points().end());
        f.m_vecLaserNormals.insert(f.m_vecLaserNormals.end(), b.laser_normals().begin(),
                                   b.laser_normals().end());
        f.m_vecLaserQuality.insert(f.m_vecLaserQuality.end(), b.laser_quality().begin(),
                                   b.laser_quality().end());
        f.m_vecLaserLines.resize(static_cast<size_t>(b.laser_lines_size()));
        for (int i = 0; i < b.laser_lines_size(); ++i) {
            const sdk_link::LaserLine& w = b.laser_lines(i);
            tagLaserLineData& l = f.m_vecLaserLines[static_cast<size_t>(i)];
            l.nLineIndex = w.line_index();
            l.nPointCount = w.point_count();
            l.nFirstPoint = w.first_point();
            l.nFlags = w.flags();
            if (!fromRepeatedFixed(w.plane(), l.dPlane, 4, true) ||
                !fromRepeatedFixed(w.start(), l.dStart, 3, true) ||
                !fromRepeatedFixed(w.end(), l.dEnd, 3, true) ||
                !fromRepeatedFixed(w.direction(), l.dDirection, 3, true)) {
                return -1;
            }
            l.dRms = w.rms();
        }
        fromRepeated(b.marker_ids(), f.m_vecMarkerIds);
        fromRepeated(b.marker_centers(), f.m_vecMarkerCenters);
        fromRepeated(b.marker_normals(), f.m_vecMarkerNormals);
        fromRepeated(b.marker_diameters(), f.m_vecMarkerDiameters);
        fromRepeated(b.marker_valid(), f.m_vecMarkerValid);
        f.m_strTrackerId = b.tracker_id();
        // Exchanged, not copied: the scratch body takes the frame's cleared messages, whose
        // storage the next parse reuses.
        f.m_camParam.Swap(b.mutable_cam_param());
        f.m_mkImage.Swap(b.mutable_mk_image());
        f.m_vecHoles.resize(static_cast<size_t>(b.holes_size()));
        for (int i = 0; i < b.holes_size(); ++i) {
            const sdk_link::Hole& w = b.holes(i);
            tagHoleData& h = f.m_vecHoles[static_cast<size_t>(i)];
            h.nState = w.state();
            h.nType = w.type();
            h.nId = w.id();
            if (!fromRepeatedFixed(w.center(), h.fCenter, 3, true) ||
                !fromRepeatedFixed(w.direction(), h.fDirection, 3, true)) {
                return -1;
            }
            h.fRadius = w.radius();
            h.fWidth = w.width();
            h.fHeight = w.height();
            h.fDepth = w.depth();
            fromRepeated(w.edge_points(), h.vecEdgePoints);
        }
        f.m_vecEdgeIndex.resize(static_cast<size_t>(b.edge_index_size()));
        for (int i = 0; i < b.edge_index_size(); ++i) {
            const sdk_link::EdgeIndex& w = b.edge_index(i);
            tagEdgeIndex& e = f.m_vecEdgeIndex[static_cast<size_t>(i)];
            e.nIndex = w.index();
            e.fQuality = w.quality();
            e.nLineIndex = w.line_index();
        }
        f.m_vecEdgePoints.resize(static_cast<size_t>(b.edge_points_size()));
        for (int i = 0; i < b.edge_points_size(); ++i) {
            const sdk_link::EdgePoint& w = b.edge_points(i);
            tagEdgePoint& e = f.m_vecEdgePoints[static_cast<size_t>(i)];
            if (!fromRepeatedFixed(w.center(), e.dCenter, 3, true) ||
                !fromRepeatedFixed(w.normal(), e.dNormal, 3, true) ||
                !fromRepeatedFixed(w.outward(), e.dOutward, 3, true)) {
                return -1;
            }
            e.dConfidence = w.confidence();
            e.nIndex = w.index();
            e.nFlags = w.flags();
        }
        if (!wire::scanDataConsistent(f)) {
            return -1;
        }
        m_nFrameID = b.frame_id();
        std::memcpy(m_dTrackerMatrix, matrix, sizeof(matrix));
    } catch (...) {
        return -1;
    }
    m_pScanData = std::move(frame);
    return 0;
}

// =============================================================================================
// CMessage_CalibData
// =============================================================================================

CMessage_CalibData::CMessage_CalibData() : CMessage_Base(MSG_CALIBDATA) {}

CMessage_CalibData::CMessage_CalibData(const CMessage_CalibData& other)
    : CMessage_Base(other),
      m_nTrackerGrabIndex(other.m_nTrackerGrabIndex),
      m_nLocationNumber(other.m_nLocationNumber),
      m_eBarPose(other.m_eBarPose),
      m_nLatticeRows(other.m_nLatticeRows),
      m_nLatticeCols(other.m_nLatticeCols),
      m_vecScannerBoard(other.m_vecScannerBoard),
      m_calibData(other.m_calibData) {
    std::memcpy(m_dPoseRotation, other.m_dPoseRotation, sizeof(m_dPoseRotation));
    std::memcpy(m_dPoseTranslation, other.m_dPoseTranslation, sizeof(m_dPoseTranslation));
}

CMessage_CalibData& CMessage_CalibData::operator=(const CMessage_CalibData& other) {
    if (this != &other) {
        CMessage_Base::operator=(other);
        m_nTrackerGrabIndex = other.m_nTrackerGrabIndex;
        m_nLocationNumber = other.m_nLocationNumber;
        std::memcpy(m_dPoseRotation, other.m_dPoseRotation, sizeof(m_dPoseRotation));
        std::memcpy(m_dPoseTranslation, other.m_dPoseTranslation, sizeof(m_dPoseTranslation));
        m_eBarPose = other.m_eBarPose;
        m_nLatticeRows = other.m_nLatticeRows;
        m_nLatticeCols = other.m_nLatticeCols;
        m_vecScannerBoard = other.m_vecScannerBoard;
        m_calibData = other.m_calibData;
    }
    return *this;
}

void CMessage_CalibData::getTrackerPose(double* rotation, double* translation,
                                        CLBBARPOSE* pose) const {
    if (rotation != nullptr) {
        std::memcpy(rotation, m_dPoseRotation, sizeof(m_dPoseRotation));
    }
    if (translation != nullptr) {
        std::memcpy(translation, m_dPoseTranslation, sizeof(m_dPoseTranslation));
    }
    if (pose != nullptr) {
        *pose = m_eBarPose;
    }
}

void CMessage_CalibData::setTrackerPose(const double* rotation, const double* translation,
                                        CLBBARPOSE pose) {
    if (rotation != nullptr) {
        std::memcpy(m_dPoseRotation, rotation, sizeof(m_dPoseRotation));
    }
    if (translation != nullptr) {
        std::memcpy(m_dPoseTranslation, translation, sizeof(m_dPoseTranslation));
    }
    m_eBarPose = pose;
}

void CMessage_CalibData::getBoardLattice(int& rows, int& cols) const {
    rows = m_nLatticeRows;
    cols = m_nLatticeCols;
}

void CMessage_CalibData::setBoardLattice(const int& rows, const int& cols) {
    m_nLatticeRows = rows;
    m_nLatticeCols = cols;
}

bool CMessage_CalibData::getScannerBoard(std::vector<double>* out) const {
    if (out == nullptr) {
        return false;
    }
    *out = m_vecScannerBoard;
    return true;
}

bool CMessage_CalibData::getScannerCalib(tagCalibData& out) const {
    out = m_calibData;
    return true;
}

int CMessage_CalibData::pack(std::vector<char>* out) {
    sdk_link::CalibDataBody b;
    b.set_step(m_nTrackerGrabIndex);
    b.set_location_number(m_nLocationNumber);
    toRepeated(m_dPoseRotation, 9, b.mutable_pose_rotation());
    toRepeated(m_dPoseTranslation, 3, b.mutable_pose_translation());
    b.set_bar_pose(m_eBarPose);
    b.set_lattice_rows(m_nLatticeRows);
    b.set_lattice_cols(m_nLatticeCols);
    toRepeated(m_vecScannerBoard, b.mutable_scanner_board());
    b.set_calib_result(m_calibData.nResult);
    b.set_calib_rows(m_calibData.nRows);
    b.set_calib_cols(m_calibData.nCols);
    for (const tagCalibCamera& c : m_calibData.camera) {
        sdk_link::CalibCamera* w = b.add_cameras();
        toRepeated(&c.dMatrix[0][0], 12, w->mutable_matrix());
        toRepeated(c.dRotationVector, 3, w->mutable_rotation_vector());
        toRepeated(c.dTranslation, 3, w->mutable_translation());
    }
    b.set_lattice(reinterpret_cast<const char*>(m_calibData.vecLattice.data()),
                  m_calibData.vecLattice.size());
    return serializeBody(b, out);
}

int CMessage_CalibData::unpack(const char* data, const int& size) {
    sdk_link::CalibDataBody b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    CMessage_CalibData c(*this);
    c.m_nTrackerGrabIndex = b.step();
    c.m_nLocationNumber = b.location_number();
    if (!fromRepeatedFixed(b.pose_rotation(), c.m_dPoseRotation, 9, true) ||
        !fromRepeatedFixed(b.pose_translation(), c.m_dPoseTranslation, 3, true)) {
        return -1;
    }
    c.m_eBarPose = static_cast<CLBBARPOSE>(b.bar_pose());
    c.m_nLatticeRows = b.lattice_rows();
    c.m_nLatticeCols = b.lattice_cols();
    fromRepeated(b.scanner_board(), c.m_vecScannerBoard);
    c.m_calibData = tagCalibData();
    c.m_calibData.nResult = b.calib_result();
    c.m_calibData.nRows = b.calib_rows();
    c.m_calibData.nCols = b.calib_cols();
    if (b.cameras_size() > 2) {
        return -1;
    }
    for (int i = 0; i < b.cameras_size(); ++i) {
        tagCalibCamera& cam = c.m_calibData.camera[i];
        if (!fromRepeatedFixed(b.cameras(i).matrix(), &cam.dMatrix[0][0], 12, true) ||
            !fromRepeatedFixed(b.cameras(i).rotation_vector(), cam.dRotationVector, 3, true) ||
            !fromRepeatedFixed(b.cameras(i).translation(), cam.dTranslation, 3, true)) {
            return -1;
        }
    }
    c.m_calibData.vecLattice.assign(b.lattice().begin(), b.lattice().end());
    *this = std::move(c);
    return 0;
}

// =============================================================================================
// CMessage_LightpenData
// =============================================================================================

CMessage_LightpenData::CMessage_LightpenData() : CMessage_Base(MSG_LIGHTPEN) {}
CMessage_LightpenData::CMessage_LightpenData(const CMessage_LightpenData& other)
    : CMessage_Base(other),
      m_deviceInfo(other.m_deviceInfo),
      m_warnInfo(other.m_warnInfo),
      m_vecProbePoints(other.m_vecProbePoints),
      m_vecProbeRadii(other.m_vecProbeRadii) {}
CMessage_LightpenData& CMessage_LightpenData::operator=(const CMessage_LightpenData& other) {
    if (this != &other) {
        CMessage_Base::operator=(other);
        m_deviceInfo = other.m_deviceInfo;
        m_warnInfo = other.m_warnInfo;
        m_vecProbePoints = other.m_vecProbePoints;
        m_vecProbeRadii = other.m_vecProbeRadii;
    }
    return *this;
}

void CMessage_LightpenData::setProbePoints(const std::vector<double>& xyz,
                                           const std::vector<double>& radii) {
    m_vecProbePoints = xyz;
    m_vecProbeRadii = radii;
}

int CMessage_LightpenData::pack(std::vector<char>* out) {
    if (m_vecProbePoints.size() != 3 * m_vecProbeRadii.size()) {
        return -1;
    }
    sdk_link::LightpenBody b;
    b.set_device_sn(m_deviceInfo.strDeviceSN);
    b.set_lightpen_sn(m_deviceInfo.strLightPenSN);
    b.set_signal_quality(m_deviceInfo.nSignalQuality);
    b.set_frequency(m_deviceInfo.nFrequency);
    b.set_warn_position(m_warnInfo.nMeasurePosition);
    b.set_warn_type(m_warnInfo.nWarnType);
    b.set_warn_probe_radius(m_warnInfo.dProbeRadius);
    toRepeated(m_vecProbePoints, b.mutable_probe_points());
    toRepeated(m_vecProbeRadii, b.mutable_probe_radii());
    return serializeBody(b, out);
}

int CMessage_LightpenData::unpack(const char* data, const int& size) {
    sdk_link::LightpenBody b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    if (b.probe_points_size() != 3 * b.probe_radii_size()) {
        return -1;
    }
    m_deviceInfo.strDeviceSN = b.device_sn();
    m_deviceInfo.strLightPenSN = b.lightpen_sn();
    m_deviceInfo.nSignalQuality = b.signal_quality();
    m_deviceInfo.nFrequency = b.frequency();
    m_warnInfo.strLightPenSN = b.lightpen_sn();
    m_warnInfo.nMeasurePosition = b.warn_position();
    m_warnInfo.nWarnType = b.warn_type();
    m_warnInfo.dProbeRadius = b.warn_probe_radius();
    fromRepeated(b.probe_points(), m_vecProbePoints);
    fromRepeated(b.probe_radii(), m_vecProbeRadii);
    return 0;
}

// =============================================================================================
// CMessage_OptimizationData
// =============================================================================================

CMessage_OptimizationData::CMessage_OptimizationData() : CMessage_Base(MSG_OPTIMIZATION) {}
CMessage_OptimizationData::CMessage_OptimizationData(const CMessage_OptimizationData& other)
    : CMessage_Base(other), m_nOptType(other.m_nOptType), m_vecMarkPoints(other.m_vecMarkPoints) {}
CMessage_OptimizationData& CMessage_OptimizationData::operator=(
    const CMessage_OptimizationData& other) {
    if (this != &other) {
        CMessage_Base::operator=(other);
        m_nOptType = other.m_nOptType;
        m_vecMarkPoints = other.m_vecMarkPoints;
    }
    return *this;
}

int CMessage_OptimizationData::pack(std::vector<char>* out) {
    sdk_link::OptimizationBody b;
    b.set_opt_type(m_nOptType);
    for (const tagOptMarkPoint& p : m_vecMarkPoints) {
        lumora::OptMK* w = b.add_markers();
        w->set_mkindex(p.nIndex);
        toRepeated(p.dPosition, 3, w->mutable_xyz());
        toRepeated(p.dNormal, 3, w->mutable_vct());
        w->set_radius(p.dRadius);
    }
    return serializeBody(b, out);
}

int CMessage_OptimizationData::unpack(const char* data, const int& size) {
    sdk_link::OptimizationBody b;
    if (!parseBody(data, size, b)) {
        return -1;
    }
    std::vector<tagOptMarkPoint> points(static_cast<size_t>(b.markers_size()));
    for (int i = 0; i < b.markers_size(); ++i) {
        const lumora::OptMK& w = b.markers(i);
        tagOptMarkPoint& p = points[static_cast<size_t>(i)];
        p.nIndex = w.mkindex();
        if (!fromRepeatedFixed(w.xyz(), p.dPosition, 3, true) ||
            !fromRepeatedFixed(w.vct(), p.dNormal, 3, true)) {
            return -1;
        }
        p.dRadius = w.radius();
    }
    m_nOptType = b.opt_type();
    m_vecMarkPoints = std::move(points);
    return 0;
}

// =============================================================================================

std::unique_ptr<CMessage_Base> CreateMessage(int type) {
    switch (type) {
        case MSG_CONNECT:
            return std::make_unique<CMessage_Connect>();
        case MSG_RECEIPT:
            return std::make_unique<CMessage_Receipt>();
        case MSG_DEVICE:
            return std::make_unique<CMessage_Device>();
        case MSG_BUTTON:
            return std::make_unique<CMessage_Button>();
        case MSG_FRAMEDATA:
            return std::make_unique<CMessage_FrameData>();
        case MSG_SCANDATA:
            return std::make_unique<CMessage_ScanData>();
        case MSG_CALIBDATA:
            return std::make_unique<CMessage_CalibData>();
        case MSG_LIGHTPEN:
            return std::make_unique<CMessage_LightpenData>();
        case MSG_OPTIMIZATION:
            return std::make_unique<CMessage_OptimizationData>();
        default:
            return nullptr;
    }
}

}  // namespace SDK_NV
