// The scan pipeline: the scan-frame handler, the transfer-matrix table and its measurement,
// the cascade file, super conversion, holes and edges, the scan options, the console log and
// the marker commands. The matrix and point routines are in ScanMath.cpp.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <utility>
#include <vector>

#include "ModuleState.h"
#include "device/CascadeFile.h"
#include "device/Pathfinder.h"
#include "platform/Platform.h"
#include "sdk/TPWrapper.h"
#include "tracking/TPScan_Markpoint.h"

namespace device {

namespace {

constexpr uint16_t kTransferWaiting = 0x0001;    // low byte: a measurement waits for a frame
constexpr uint16_t kTransferFrameDone = 0x0100;  // high byte: that frame has been processed
constexpr int kTransferPollMs = 100;
constexpr int kTransferPollLimit = 200;  // the counter may exceed this once: 202 sleeps at most
constexpr int kTransferQuietPolls = 3;   // quiet polls that end the drain after a measurement
constexpr int kTransferDrainPolls = 20;  // bound of that drain

// Frames a transfer measurement consumed, so that its end can tell when the link went quiet.
std::atomic<uint64_t> g_transferFramesSwallowed{0};

constexpr double kIdentity16[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// Held while a scan frame is turned into its record (the process-wide matrix copies below and
// the dynamic build's sets are the frame's alone), released before the record is delivered.
// What host operations change (table, super conversion, diameters) has a lock of its own on
// each device object (m_mtxScanState).
std::mutex& frameMutex() {
    static std::mutex m;
    return m;
}

// Laser arrays of host records the host has let go of, kept for the link's next frames. A
// frame from the link hands its laser points and directions to the host record (no copy) and
// takes a pair from here in their place, so the SDK's frame pool keeps vectors with capacity
// and the next frame is read without a fresh allocation either. Records may be released on
// any thread (a host may keep them), hence the mutex; the deleters hold the spares alive.
class LaserSpares {
public:
    static const std::shared_ptr<LaserSpares>& instance() {
        static const std::shared_ptr<LaserSpares> spares = std::make_shared<LaserSpares>();
        return spares;
    }
    void put(std::vector<float>&& points, std::vector<float>&& directions) {
        if ((points.capacity() + directions.capacity()) * sizeof(float) > kKeepBytes) {
            return;
        }
        points.clear();
        directions.clear();
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_free.size() < kKeepPairs) {
            m_free.emplace_back(std::move(points), std::move(directions));
        }
    }
    // Empty vectors, with capacity when a pair was kept.
    void take(std::vector<float>& points, std::vector<float>& directions) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_free.empty()) {
            return;
        }
        points = std::move(m_free.back().first);
        directions = std::move(m_free.back().second);
        m_free.pop_back();
    }

private:
    static constexpr size_t kKeepPairs = 4;
    static constexpr size_t kKeepBytes = size_t{16} << 20;
    std::mutex m_mutex;
    std::vector<std::pair<std::vector<float>, std::vector<float>>> m_free;
};

// A new host record; with `spares` its laser arrays go back to them when it is released.
std::shared_ptr<tagDeviceData> newDeviceData(const std::shared_ptr<LaserSpares>* spares) {
    if (spares == nullptr) {
        return std::make_shared<tagDeviceData>();
    }
    std::shared_ptr<LaserSpares> keep = *spares;
    return std::shared_ptr<tagDeviceData>(new tagDeviceData, [keep](tagDeviceData* d) {
        keep->put(std::move(d->laserPoints), std::move(d->laserDirections));
        delete d;
    });
}

// Every cascade record read by this process, in read order; never cleared. Its lock is held
// for a whole import (read and apply), so imports apply in the order they read.
std::mutex& cascadeMutex() {
    static std::mutex m;
    return m;
}
std::vector<TransformTrackingMatrix>& cascadeRecords() {
    static std::vector<TransformTrackingMatrix> v;
    return v;
}

// The process-wide reference marker arrays written by setMarkpoint(list, true).
struct ReferenceArrays {
    std::mutex mutex;
    std::vector<double> positions;
    std::vector<double> normals;
    std::vector<int32_t> labels;
    std::vector<double> values;
};
ReferenceArrays& referenceArrays() {
    static ReferenceArrays r;
    return r;
}

std::atomic<bool> g_bConsoleLog{false};

// Copies of the current transfer matrix for object and hole scanning, refreshed when the
// frame's tracker changes (under the frame mutex and the object's state lock).
double g_dStaticTransfer[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
double g_dHoleTransfer[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// The 12 values handed to the SDK for one matrix: block by rows, then translation.
std::vector<double> twelveOf(const double* m) {
    return {m[0], m[1], m[2], m[4], m[5], m[6], m[8], m[9], m[10], m[12], m[13], m[14]};
}

void copyCamera(const lumora::CamParam& p, tagDeviceCamera& cam) {
    const auto rows = [](const google::protobuf::RepeatedField<double>& f, double(*out)[3]) {
        for (int r = 0; r < 3; ++r) {
            if (f.size() >= 3 * r + 3) {
                std::copy(f.begin() + 3 * r, f.begin() + 3 * r + 3, out[r]);
            }
        }
    };
    const auto three = [](const google::protobuf::RepeatedField<double>& f, double* out) {
        if (f.size() >= 3) {
            std::copy(f.begin(), f.begin() + 3, out);
        }
    };
    rows(p.i_m_l(), cam.leftIntrinsic);
    rows(p.i_m_r(), cam.rightIntrinsic);
    rows(p.r_m(), cam.rotation);
    three(p.t_v(), cam.translation);
    three(p.t_v_rc(), cam.translationRight);
    three(p.t_v_lc(), cam.translationLeft);
    cam.leftDistortion.assign(p.d_cff_l().begin(), p.d_cff_l().end());
    cam.rightDistortion.assign(p.d_cff_r().begin(), p.d_cff_r().end());
    cam.rotationRight.assign(p.r_m_rc().begin(), p.r_m_rc().end());
    cam.rotationLeft.assign(p.r_m_lc().begin(), p.r_m_lc().end());
    cam.essential.assign(p.e().begin(), p.e().end());
    cam.fundamental.assign(p.f().begin(), p.f().end());
}

void copyLaserLines(const std::vector<SDK_NV::tagLaserLineData>& in,
                    std::vector<tagDeviceLaserLine>& out) {
    out.resize(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        const SDK_NV::tagLaserLineData& s = in[i];
        tagDeviceLaserLine& d = out[i];
        d.lineIndex = s.nLineIndex;
        d.firstPoint = s.nFirstPoint;
        d.pointCount = s.nPointCount;
        d.brightness = s.nFlags;
        std::copy(s.dPlane, s.dPlane + 4, d.plane);
        std::copy(s.dStart, s.dStart + 3, d.start);
        std::copy(s.dEnd, s.dEnd + 3, d.end);
        std::copy(s.dDirection, s.dDirection + 3, d.reserved);
        d.reserved[3] = s.dRms;
        std::copy(s.dReserved, s.dReserved + 8, d.reserved + 4);
    }
}

void copyEdges(const SDK_NV::tagScanData& f, tagDeviceData& d) {
    d.edgeRecords.resize(f.m_vecEdgeIndex.size());
    for (size_t i = 0; i < f.m_vecEdgeIndex.size(); ++i) {
        d.edgeRecords[i].index = f.m_vecEdgeIndex[i].nIndex;
        d.edgeRecords[i].value = f.m_vecEdgeIndex[i].fQuality;
        d.edgeRecords[i].flag = f.m_vecEdgeIndex[i].nLineIndex;
    }
    d.cuttingEdges.resize(f.m_vecEdgePoints.size());
    for (size_t i = 0; i < f.m_vecEdgePoints.size(); ++i) {
        const SDK_NV::tagEdgePoint& s = f.m_vecEdgePoints[i];
        tagCuttingEdgeData& e = d.cuttingEdges[i];
        for (int k = 0; k < 3; ++k) {
            e.center[k] = static_cast<float>(s.dCenter[k]);
            e.normal[k] = static_cast<float>(s.dNormal[k]);
            e.outward[k] = static_cast<float>(s.dOutward[k]);
        }
        e.index = s.nIndex;
    }
}

// Holes as the frame gives them (replaced by the hole transform in hole scanning).
void copyHoles(const std::vector<SDK_NV::tagHoleData>& holes, std::vector<tagScanHoleData>& out) {
    out.reserve(holes.size());
    for (const SDK_NV::tagHoleData& h : holes) {
        tagScanHoleData d;
        d.state = h.nState;
        d.type = h.nType;
        std::memcpy(d.center, h.fCenter, sizeof(d.center));
        std::memcpy(d.direction, h.fDirection, sizeof(d.direction));
        d.radius = h.fRadius;
        d.fitInfo = {static_cast<float>(h.nId), h.fWidth, h.fHeight, h.fDepth};
        d.edgePoints = h.vecEdgePoints;
        out.push_back(std::move(d));
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Console log
// ---------------------------------------------------------------------------------------------

void setConsoleLog(bool on) {
    g_bConsoleLog.store(on);
}

bool getConsoleLog() {
    return g_bConsoleLog.load();
}

void TWStdout(const std::string& msg) {
    if (!g_bConsoleLog.load()) {
        return;
    }
    const std::time_t now = std::time(nullptr);
    std::tm local{};
#ifdef _WIN32
    localtime_s(&local, &now);
#else
    localtime_r(&now, &local);
#endif
    char when[64] = {0};
    std::strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &local);
    // 100 ns units since 1970-01-01 UTC, then milliseconds (truncating).
    const int64_t ticks = std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count() /
                          100;
    std::ostringstream line;
    line << "[" << when << "] " << ticks / 10000 << " " << msg << "\n";
    std::cout << line.str() << std::flush;
}

tagRefMarkpointData getReferenceMarkpoints() {
    ReferenceArrays& r = referenceArrays();
    std::lock_guard<std::mutex> lock(r.mutex);
    tagRefMarkpointData out;
    out.positions = r.positions;
    out.normals = r.normals;
    out.labels = r.labels;
    out.values = r.values;
    return out;
}

// ---------------------------------------------------------------------------------------------
// Cascade file
// ---------------------------------------------------------------------------------------------

size_t readCascadeRecords(std::FILE* file, std::vector<TransformTrackingMatrix>& out) {
    int32_t count = 0;
    unsigned char head[kCascadeHeaderBytes] = {0, 0, 0, 0};
    if (std::fread(head, 1, sizeof(head), file) != sizeof(head)) {
        return 0;
    }
    count = static_cast<int32_t>(
        static_cast<uint32_t>(head[0]) | static_cast<uint32_t>(head[1]) << 8 |
        static_cast<uint32_t>(head[2]) << 16 | static_cast<uint32_t>(head[3]) << 24);
    if (count <= 0) {
        return 0;
    }
    // What the rest of the file can hold (a record cut short still counts once), so that a
    // huge count reserves no more than the file's size.
    size_t available = static_cast<size_t>(count);
    const long here = std::ftell(file);
    if (here >= 0 && std::fseek(file, 0, SEEK_END) == 0) {
        const long end = std::ftell(file);
        std::fseek(file, here, SEEK_SET);
        if (end >= here) {
            const size_t rest = static_cast<size_t>(end - here);
            available = std::min(available, (rest + kCascadeRecordBytes - 1) / kCascadeRecordBytes);
        }
    }
    if (out.capacity() < out.size() + available) {
        out.reserve(out.size() + available);
    }
    size_t appended = 0;
    for (int32_t i = 0; i < count; ++i) {
        char id[kCascadeIdBytes];
        std::memset(id, 0, sizeof(id));
        const size_t gotId = std::fread(id, 1, sizeof(id), file);
        if (gotId == 0) {
            break;  // the file ends here: no record for bytes that are not there
        }
        TransformTrackingMatrix rec;
        std::memcpy(rec.matrix, kIdentity16, sizeof(rec.matrix));
        unsigned char raw[16 * sizeof(double)];
        const size_t gotMatrix = std::fread(raw, 1, sizeof(raw), file);
        // Whole doubles only; a double cut short keeps its identity value.
        std::memcpy(rec.matrix, raw, gotMatrix / sizeof(double) * sizeof(double));
        rec.id.assign(id, strnlen(id, sizeof(id)));
        out.push_back(std::move(rec));
        ++appended;
        if (gotId < sizeof(id) || gotMatrix < sizeof(raw)) {
            break;
        }
    }
    return appended;
}

bool writeCascadeFile(const std::wstring& path,
                      const std::vector<TransformTrackingMatrix>& records) {
    if (path.empty() || records.size() > static_cast<size_t>(INT32_MAX)) {
        return false;
    }
    for (const TransformTrackingMatrix& r : records) {
        if (r.id.size() >= kCascadeIdBytes || r.id.find('\0') != std::string::npos) {
            return false;
        }
    }
    std::string bytes;
    bytes.reserve(kCascadeHeaderBytes + records.size() * kCascadeRecordBytes);
    const uint32_t n = static_cast<uint32_t>(records.size());
    for (int k = 0; k < 4; ++k) {
        bytes.push_back(static_cast<char>((n >> (8 * k)) & 0xffu));
    }
    for (const TransformTrackingMatrix& r : records) {
        char id[kCascadeIdBytes] = {0};
        std::memcpy(id, r.id.data(), r.id.size());
        bytes.append(id, sizeof(id));
        bytes.append(reinterpret_cast<const char*>(r.matrix), sizeof(r.matrix));
    }
    const std::string native = platform::nativePath(path);
    const std::string temp = native + ".part";
    std::FILE* f = std::fopen(temp.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    const bool closed = std::fclose(f) == 0;
    if (!written || !closed || std::rename(temp.c_str(), native.c_str()) != 0) {
        std::remove(temp.c_str());
        return false;
    }
    return true;
}

emDeviceResult CPathfinder::importCascadeFile(const std::wstring& path) {
    if (path.empty()) {
        return RESULT_INVALID_ARGUMENT;
    }
    std::FILE* f = std::fopen(platform::nativePath(path).c_str(), "rb");
    if (f == nullptr) {
        return RESULT_CASCADE_FILE_OPEN_FAILED;
    }
    std::lock_guard<std::mutex> records(cascadeMutex());
    readCascadeRecords(f, cascadeRecords());
    std::fclose(f);
    // Every record read so far, older imports first, in read order: a later record of the
    // same tracker wins.
    std::lock_guard<std::mutex> state(m_mtxScanState);
    for (const TransformTrackingMatrix& r : cascadeRecords()) {
        Scan_TransferMatrix_Update(r.id, r.matrix);
    }
    m_strCurTrackerId.clear();  // the next frame fetches its tracker's matrix again
    return RESULT_SUCCESS;
}

// ---------------------------------------------------------------------------------------------
// Transfer-matrix table
// ---------------------------------------------------------------------------------------------

void CPathfinder::Scan_TransferMatrix_Get(const std::string& id, double* const M,
                                          double* const Rev) {
    M[0] = M[5] = M[10] = M[15] = 1.0;
    std::memcpy(Rev, M, 16 * sizeof(double));
    const auto it = m_mapTransferMatrix.find(id);
    if (it == m_mapTransferMatrix.end()) {
        return;
    }
    std::memcpy(M, it->second, 16 * sizeof(double));
    double S[16];
    getTransposeRotateMatrix(M, S);
    getReverseTransferMatrix(S, Rev, true, false);
}

void CPathfinder::Scan_TransferMatrix_Update(const std::string& id, const double* const M) {
    const auto it = m_mapTransferMatrix.find(id);
    if (it != m_mapTransferMatrix.end()) {
        std::memcpy(it->second, M, 16 * sizeof(double));
        return;
    }
    double* block = new double[16];
    std::memcpy(block, M, 16 * sizeof(double));
    m_mapTransferMatrix.emplace(id, block);
}

void CPathfinder::releaseTransferTable() {
    for (auto& entry : m_mapTransferMatrix) {
        delete[] entry.second;
    }
    m_mapTransferMatrix.clear();
}

std::vector<TransformTrackingMatrix> CPathfinder::transferMatrices() const {
    std::lock_guard<std::mutex> lock(m_mtxScanState);
    std::vector<TransformTrackingMatrix> out;
    out.reserve(m_mapTransferMatrix.size());
    for (const auto& entry : m_mapTransferMatrix) {
        TransformTrackingMatrix r;
        r.id = entry.first;
        std::memcpy(r.matrix, entry.second, sizeof(r.matrix));
        out.push_back(std::move(r));
    }
    return out;
}

emDeviceResult CPathfinder::emptyTransferMatrix() {
    std::lock_guard<std::mutex> lock(m_mtxScanState);
    releaseTransferTable();
    m_strCurTrackerId.clear();  // the next frame fetches its tracker's matrix again
    return RESULT_SUCCESS;
}

void CPathfinder::SendMatrix(bool bIdentity) {
    if (m_pScanWrapper == nullptr) {
        return;
    }
    const SDK_NV::deviceids trackers = m_pScanWrapper->getTPDeviceManager()->getTracker();
    SDK_NV::tagTransformMatrix record;
    for (const std::string& id : trackers) {
        record.m_mapTransform[id] = twelveOf(kIdentity16);
    }
    {
        std::lock_guard<std::mutex> lock(m_mtxScanState);
        if (!bIdentity && !m_mapTransferMatrix.empty()) {
            for (const std::string& id : trackers) {
                double M[16] = {0};
                double Rev[16] = {0};
                Scan_TransferMatrix_Get(id, M, Rev);
                record.m_mapTransform[id] = twelveOf(Rev);
            }
        }
    }
    m_pScanWrapper->setTransforRT(record);
}

emDeviceResult CPathfinder::getTransferMatrix() {
    if (m_bTriggerActive.load()) {
        return RESULT_BUSY_SCANNING;
    }
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    m_pScanWrapper->setTrigger(false, {});
    m_pScanWrapper->setWorkBusiness(12);

    std::vector<std::string> trackers;
    for (const std::string& id : workingDevices()) {
        if (m_pScanWrapper->getTPDeviceManager()->getDeviceType(id) == SDK_NV::DEVICE_TRACKER) {
            trackers.push_back(id);
            std::cout << "Tracker ID:" << id << "\n";
        }
    }
    std::cout << std::flush;

    m_bTransferOk.store(true);
    m_nTransferResult.store(RESULT_NO_ANSWER);
    for (const std::string& id : trackers) {
        {
            std::lock_guard<std::mutex> lock(m_mtxScanState);
            m_strCurTrackerId = id;
        }
        m_pScanWrapper->setTrigger(true, {id});
        m_nTransferHandshake.store(kTransferWaiting);
        for (int poll = 0;; ++poll) {
            platform::sleepMs(kTransferPollMs);
            const uint16_t hs = m_nTransferHandshake.load();
            if ((hs & kTransferFrameDone) != 0 || poll > kTransferPollLimit) {
                break;
            }
            if ((hs & kTransferWaiting) == 0) {
                break;
            }
        }
        // Frames still on their way from this tracker are swallowed (frame done: not measured,
        // not delivered) until the whole measurement has switched the trigger off.
        m_nTransferHandshake.store(kTransferWaiting | kTransferFrameDone);
        m_pScanWrapper->setTrigger(false, {});
    }

    m_bTriggerActive.store(false);
    m_pScanWrapper->setTrigger(false, {});
    if (!trackers.empty()) {
        // The trigger-off is not acknowledged: frames the device sent before it handled it are
        // still on their way. They are swallowed until the link has been quiet for a few polls.
        uint64_t seen = g_transferFramesSwallowed.load();
        for (int quiet = 0, polls = 0; quiet < kTransferQuietPolls && polls < kTransferDrainPolls;
             ++polls) {
            platform::sleepMs(kTransferPollMs);
            const uint64_t now = g_transferFramesSwallowed.load();
            quiet = now == seen ? quiet + 1 : 0;
            seen = now;
        }
    }
    const int business = m_nWorkBusiness == 3 ? 11 : (m_nWorkBusiness == 4 ? 22 : 2);
    m_pScanWrapper->setWorkBusiness(business);
    m_nTransferHandshake.store(0);
    {
        std::lock_guard<std::mutex> lock(m_mtxScanState);
        m_strCurTrackerId.clear();
    }
    if (!m_bTransferOk.load()) {
        emptyTransferMatrix();
        return static_cast<emDeviceResult>(m_nTransferResult.load());
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setSuperConversionScanMatrix(const std::vector<double>& matrix) {
    if (&matrix == &m_vecSuperConversionMatrix) {
        return RESULT_SUCCESS;
    }
    std::lock_guard<std::mutex> lock(m_mtxScanState);
    m_vecSuperConversionMatrix = matrix;
    return RESULT_SUCCESS;
}

void CPathfinder::ScanInThreePointTrack(SDK_NV::tagScanData& frame) {
    if (!m_bSuperConversion.load()) {
        return;
    }
    std::vector<double> super;
    {
        std::lock_guard<std::mutex> lock(m_mtxScanState);
        super = m_vecSuperConversionMatrix;
    }
    if (super.empty()) {
        return;
    }
    // A full matrix for the points, its block alone (D[15] as supplied) for the directions.
    double M[16] = {0};
    std::copy(super.begin(), super.begin() + std::min<size_t>(16, super.size()), M);
    double D[16];
    std::memcpy(D, M, sizeof(D));
    D[3] = D[7] = D[11] = D[12] = D[13] = D[14] = 0.0;
    TransformScanData_Laser(frame.m_vecLaserPoints, M, false);
    TransformScanData_Laser(frame.m_vecLaserNormals, D, false);
    TransformScanData_MarkPoint(frame.m_vecMarkerCenters, M, false);
    TransformScanData_MarkPoint(frame.m_vecMarkerNormals, D, false);
}

// ---------------------------------------------------------------------------------------------
// The scan-frame handler
// ---------------------------------------------------------------------------------------------

void CPathfinder::CallBack_ScanData(void* pScanData, bool bFlag) {
    if (pScanData == nullptr) {
        return;
    }
    scanFrame(*static_cast<SDK_NV::tagScanData*>(pScanData), bFlag, false);
}

// The record is built under the frame mutex, and everything the host's operations change is
// read in one hold of the object's state lock; both are released before the record goes to the
// host, so that the host's handler may call any operation. A change made by the handler (or by
// another thread while this frame is built) counts from the next frame on.
void CPathfinder::scanFrame(SDK_NV::tagScanData& frame, bool bFlag, bool takeLaser) {
    std::unique_lock<std::mutex> frameLock(frameMutex());  // throws std::system_error

    // A waiting transfer measurement consumes the frame; nothing reaches the host.
    const uint16_t handshake = m_nTransferHandshake.load();
    if ((handshake & kTransferWaiting) != 0) {
        g_transferFramesSwallowed.fetch_add(1);
        if ((handshake & kTransferFrameDone) == 0 && m_pMarkpoint != nullptr) {
            double M[16] = {0};
            const int r = m_pMarkpoint->SetTrackStatic(frame, M);
            if (r != 0) {
                m_nLastTrackResult.store(r);
                if (r > 0) {
                    std::lock_guard<std::mutex> state(m_mtxScanState);
                    Scan_TransferMatrix_Update(m_strCurTrackerId, M);
                    m_nTransferStatus.store(0);
                } else {
                    m_bTransferOk.store(false);
                    m_nTransferStatus.store(1);
                    m_nTransferResult.store(RESULT_FAILED);
                }
                m_nTransferHandshake.store(kTransferWaiting | kTransferFrameDone);
            }
        }
        return;
    }

    const std::shared_ptr<LaserSpares>& spares = LaserSpares::instance();
    auto record = newDeviceData(takeLaser ? &spares : nullptr);
    tagDeviceData& d = *record;
    d.frameId = frame.m_nFrameValue;
    d.liveFrame = bFlag;
    d.trackingScanner = m_bTrackScanner.load();
    std::memcpy(d.rotation, frame.m_dRotation, sizeof(d.rotation));
    std::memcpy(d.translation, frame.m_dTranslation, sizeof(d.translation));
    d.laserPointCounts = frame.m_vecLaserLineCounts;
    // The two largest arrays of a frame (about 240 KB each at 20,000 points): nothing below
    // reads them from the frame again.
    if (takeLaser) {
        d.laserPoints.swap(frame.m_vecLaserPoints);
        d.laserDirections.swap(frame.m_vecLaserNormals);
        spares->take(frame.m_vecLaserPoints, frame.m_vecLaserNormals);
    } else {
        d.laserPoints = frame.m_vecLaserPoints;
        d.laserDirections = frame.m_vecLaserNormals;
    }
    copyLaserLines(frame.m_vecLaserLines, d.laserLines);
    d.objectDistance = frame.m_fValue;
    d.percentage = std::min(100, frame.m_nFrameCount / 15 * 100);
    d.acquisitionCode = frame.m_nAcquisitionKind == 1 ? 2 : 1;
    copyHoles(frame.m_vecHoles, d.scanHoles);
    if (frame.m_camParam.ByteSizeLong() != 0) {
        copyCamera(frame.m_camParam, d.camera);
    }
    copyEdges(frame, d);

    const bool superConversion = m_bSuperConversion.load();
    const bool dynamicMarker = m_bDynamicMarker.load() != 0;

    // Markers: valid ones (all of them in dynamic marker building), one pass.
    if (m_bMarkerObject.load() != 0 && !superConversion) {
        const size_t count = frame.m_vecMarkerDiameters.size();
        const size_t usable =
            std::min({count, frame.m_vecMarkerIds.size(), frame.m_vecMarkerCenters.size() / 3,
                      frame.m_vecMarkerNormals.size() / 3});
        std::vector<int32_t> ids;
        std::vector<double> centres, normals, diameters;
        ids.reserve(usable);
        centres.reserve(3 * usable);
        normals.reserve(3 * usable);
        diameters.reserve(usable);
        for (size_t i = 0; i < usable; ++i) {
            const bool valid = i < frame.m_vecMarkerValid.size() && frame.m_vecMarkerValid[i] == 1;
            if (!dynamicMarker && !valid) {
                continue;
            }
            centres.insert(centres.end(), &frame.m_vecMarkerCenters[3 * i],
                           &frame.m_vecMarkerCenters[3 * i] + 3);
            normals.insert(normals.end(), &frame.m_vecMarkerNormals[3 * i],
                           &frame.m_vecMarkerNormals[3 * i] + 3);
            diameters.push_back(frame.m_vecMarkerDiameters[i]);
            ids.push_back(frame.m_vecMarkerIds[i]);
        }
        if (dynamicMarker) {
            // A frame whose build fails delivers no markers (not the previous frame's).
            m_nMarkerCountAfter.store(0);
            // The counts are the library's, before and after this frame's build step.
            const auto libraryCount = [this] {
                return m_pMarkpoint != nullptr ? m_pMarkpoint->libraryMarkerCount() : 0;
            };
            std::lock_guard<std::mutex> markerLock(detail::moduleMutex());
            if (m_bTriggerActive.load()) {
                m_refMarkpointResult.clear();
                m_nMarkerCountBefore.store(libraryCount());
                const int n =
                    ReadltimeBuildModel(frame, m_refMarkpointResult, m_refMarkpointWork, true);
                m_nBuildModelResult.store(n);
                m_nMarkerCountAfter.store(libraryCount());
            }
        } else {
            d.markerIds = std::move(ids);
            d.markerPoints = std::move(centres);
            d.markerNormals = std::move(normals);
            d.markerDiameters = std::move(diameters);
            m_nMarkerCountAfter.store(0);
        }
        if (m_nMarkerCountAfter.load() > 0) {
            d.markerIds = m_refMarkpointResult.labels;
            d.markerPoints = m_refMarkpointResult.positions;
            d.markerNormals = m_refMarkpointResult.normals;
            d.markerDiameters = m_refMarkpointResult.values;
        }
    }

    // Pose in the chosen frame.
    const auto applyPose = [&d](const double* M) {
        double Rin[3][3], Rout[3][3], tin[3], tout[3];
        std::memcpy(Rin, d.rotation, sizeof(Rin));
        std::memcpy(tin, d.translation, sizeof(tin));
        getTransfromRT(M, Rin, tin, Rout, tout);
        std::memcpy(d.rotation, Rout, sizeof(Rout));
        std::memcpy(d.translation, tout, sizeof(tout));
    };
    const auto followTracker = [this, &frame](double* copy) {
        if (frame.m_strTrackerId != m_strCurTrackerId) {
            m_strCurTrackerId = frame.m_strTrackerId;
            // Zeroed first: the table sets only the diagonal for a tracker it does not know,
            // which must give the identity, not the previous tracker's off-diagonal values.
            std::fill(m_dCurTransferMatrix, m_dCurTransferMatrix + 16, 0.0);
            Scan_TransferMatrix_Get(m_strCurTrackerId, m_dCurTransferMatrix, m_dCurReverseMatrix);
            std::memcpy(copy, m_dCurTransferMatrix, 16 * sizeof(double));
        }
    };
    const bool objectScan = m_bObjectScan.load();
    const bool holeObject = m_bHoleObject.load();
    std::unique_lock<std::mutex> stateLock(m_mtxScanState);
    if (superConversion && !m_vecSuperConversionMatrix.empty()) {
        double M[16] = {0};
        std::copy(m_vecSuperConversionMatrix.begin(),
                  m_vecSuperConversionMatrix.begin() +
                      std::min<size_t>(16, m_vecSuperConversionMatrix.size()),
                  M);
        applyPose(M);
    }
    if (objectScan && !superConversion) {
        d.poseMode = 2;
        m_nMarkerCountBefore.store(frame.m_nFrameCount);
        if (m_bDynamicTracking.load()) {
            applyPose(kIdentity16);
            for (size_t i = 0; i < d.markerDiameters.size() && i < d.markerIds.size(); ++i) {
                const int32_t id = d.markerIds[i];
                // An identifier outside the table keeps the diameter the frame measured.
                if (id >= 0 && static_cast<size_t>(id) < m_vecMarkerDiameter.size()) {
                    d.markerDiameters[i] = m_vecMarkerDiameter[static_cast<size_t>(id)];
                }
            }
        } else {
            followTracker(g_dStaticTransfer);
            applyPose(g_dStaticTransfer);
        }
    }
    if (holeObject) {
        d.poseMode = 3;
        followTracker(g_dHoleTransfer);
        applyPose(g_dHoleTransfer);

        m_nFrameHoleCount.store(static_cast<int32_t>(frame.m_vecHoles.size()));
        double pose[12];
        std::memcpy(pose, frame.m_dRotation, 9 * sizeof(double));
        std::memcpy(pose + 9, frame.m_dTranslation, 3 * sizeof(double));
        if (superConversion) {
            if (!m_vecSuperConversionMatrix.empty()) {
                double super[16] = {0};
                std::copy(m_vecSuperConversionMatrix.begin(),
                          m_vecSuperConversionMatrix.begin() +
                              std::min<size_t>(16, m_vecSuperConversionMatrix.size()),
                          super);
                double S[16], H[16];
                getTransposeRotateMatrix(super, S);
                getReverseTransferMatrix(S, H, true, false);
                const bool transform = true;
                TransformScanData_Hole(frame.m_vecHoles, pose, transform, H, d.scanHoles);
            }
        } else {
            const bool transform = !m_mapTransferMatrix.empty();
            TransformScanData_Hole(frame.m_vecHoles, pose, transform, m_dCurReverseMatrix,
                                   d.scanHoles);
        }
        std::memcpy(d.rotation, pose, 9 * sizeof(double));
        std::memcpy(d.translation, pose + 9, 3 * sizeof(double));
    }
    stateLock.unlock();
    frameLock.unlock();

    callDeviceData(record, nullptr, 0);
}

// ---------------------------------------------------------------------------------------------
// Holes and edges handed to the device
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::setFineHoleData(const std::vector<tagScanHoleData>& holes) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    SendMatrix(false);
    std::vector<SDK_NV::tagFineHoleParam> params;
    params.reserve(holes.size());
    for (const tagScanHoleData& h : holes) {
        SDK_NV::tagFineHoleParam p;
        p.nType = h.type;
        const auto fit = [&h](size_t i) { return i < h.fitInfo.size() ? h.fitInfo[i] : 0.0f; };
        p.nId = static_cast<int32_t>(fit(0));
        std::memcpy(p.fCenter, h.center, sizeof(p.fCenter));
        std::memcpy(p.fDirection, h.direction, sizeof(p.fDirection));
        p.fRadius = h.radius;
        p.fWidth = fit(1);
        p.fHeight = fit(2);
        p.fDepth = fit(3);
        params.push_back(p);
    }
    return m_pScanWrapper->setFineHoleData(params) ? RESULT_SUCCESS : RESULT_SEND_REFUSED;
}

emDeviceResult CPathfinder::setCuttingEdgeData(const std::vector<tagCuttingEdgeData>& edges) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    SendMatrix(false);
    lumora::DETECT_EDGE_POINTS_INFO info;
    for (const tagCuttingEdgeData& e : edges) {
        lumora::POITN_3D_EDGE* p = info.add_point_3d_edge();
        const auto put = [](lumora::PointInfo3DF* q, const float* v) {
            q->set_x(v[0]);
            q->set_y(v[1]);
            q->set_z(v[2]);
        };
        put(p->mutable_center(), e.center);
        put(p->mutable_normal_vector(), e.normal);
        put(p->mutable_extend_outward_vector(), e.outward);
        p->set_index(e.index);
    }
    return m_pScanWrapper->SetCuttingEdgeData(info) ? RESULT_SUCCESS : RESULT_SEND_REFUSED;
}

// ---------------------------------------------------------------------------------------------
// Scan options
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::SetEnableScanExpand(bool enable) {
    if (m_pScanWrapper == nullptr) {
        return RESULT_FAILED;
    }
    m_pScanWrapper->SetEnableScanExpand(enable);
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::SetTrackerMarkPointDiameter(std::vector<float> diameters) {
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->SetTrackerMarkPointDiameter(diameters);
    }
    diameters.clear();
    diameters.shrink_to_fit();
    return RESULT_SUCCESS;
}

// ---------------------------------------------------------------------------------------------
// Marker commands
// ---------------------------------------------------------------------------------------------

emDeviceResult CPathfinder::setMarkpoint(const tagMarkpointList& list, bool asReference) {
    const size_t n = list.points.size();
    std::vector<int> labels;
    std::vector<float> positions, normals, values;
    labels.reserve(n);
    positions.reserve(3 * n);
    normals.reserve(3 * n);
    values.reserve(n);
    for (const tagMarkpoint& p : list.points) {
        labels.push_back(p.label);
        positions.insert(positions.end(), p.position, p.position + 3);
        normals.insert(normals.end(), p.normal, p.normal + 3);
        values.push_back(p.value);
    }
    m_vecMarkPositions = positions;
    m_vecMarkNormals = normals;
    m_vecMarkValues = values;
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->setMarkpointData(positions, normals, values, labels,
                                         SDK_NV::DEVICE_TRACKER);
        m_pScanWrapper->setTrigger(false, {});
        m_pScanWrapper->setTrackMarkpoint();
    }
    tagRefMarkpointData set;
    set.positions.assign(positions.begin(), positions.end());
    set.normals.assign(normals.begin(), normals.end());
    set.values.assign(values.begin(), values.end());
    set.labels.assign(labels.begin(), labels.end());
    if (m_pMarkpoint != nullptr) {
        if (asReference) {
            m_pMarkpoint->clearLibrary();
            m_pMarkpoint->importMarkpointToLibrary(set, true, false);
        } else {
            m_pMarkpoint->importMarkpointToLibrary(set, false, false);
        }
    }
    if (asReference) {
        ReferenceArrays& r = referenceArrays();
        std::lock_guard<std::mutex> lock(r.mutex);
        r.positions = set.positions;
        r.normals = set.normals;
        r.labels = set.labels;
        r.values = set.values;
    }
    return RESULT_SUCCESS;
}

emDeviceResult CPathfinder::setMarkpointRadius(const double* radii, int count) {
    if (count <= 0 || radii == nullptr) {
        return RESULT_OUT_OF_RANGE;
    }
    std::vector<float> diameters(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        diameters[static_cast<size_t>(i)] = static_cast<float>(2.0 * radii[i]);
    }
    return setMarkpointDiameter(std::move(diameters));
}

// The diameters, indexed by reference marker identifier, are also the table the frame handler
// uses in dynamic tracking.
emDeviceResult CPathfinder::setMarkpointDiameter(std::vector<float> diameters) {
    {
        std::lock_guard<std::mutex> lock(m_mtxScanState);
        m_vecMarkerDiameter = diameters;
    }
    if (m_pScanWrapper != nullptr) {
        m_pScanWrapper->SetMarkPointDiameter(std::move(diameters));
    }
    return RESULT_SUCCESS;
}

int CPathfinder::ReadltimeBuildModel(SDK_NV::tagScanData& frame, tagRefMarkpointData& result,
                                     tagRefMarkpointData& work, bool /*unused*/) {
    if (m_pMarkpoint == nullptr) {
        return -1;
    }
    double rt[4][3];
    const int n = m_pMarkpoint->addOneFrameToLibrary(frame, work, rt, true);
    if (n < 1) {
        return n;
    }
    result = work;
    work.clear();
    return n;
}

emDeviceResult CPathfinder::GetOptimizationMarkpoint(tagRefMarkpointData& out) {
    if (m_pMarkpoint == nullptr) {
        return RESULT_FAILED;
    }
    const bool ok = m_pMarkpoint->getResultData(out);
    m_pMarkpoint->clearLibrary();
    return ok ? RESULT_SUCCESS : RESULT_FAILED;
}

}  // namespace device
