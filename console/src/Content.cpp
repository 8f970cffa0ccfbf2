// What the console sends besides scan frames: receipts, calibration data, heartbeats and
// buttons, each with standard content that KEY=VALUE fields of a control line can replace;
// and the device side of a calibration run.
#include <algorithm>
#include <cmath>

#include "Internal.h"
#include "console/Console.h"

namespace console {

using namespace SDK_NV;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kStandardCalibResult = 0.021;  // RMS of a good calibration, millimetres
constexpr int kLatticeRows = 9;
constexpr int kLatticeCols = 11;

// Row-major 3x3 rotations about the axes and their product.
void rotation(char axis, double degrees, double out[9]) {
    const double a = degrees * kPi / 180.0;
    const double c = std::cos(a);
    const double s = std::sin(a);
    const double x[9] = {1, 0, 0, 0, c, -s, 0, s, c};
    const double y[9] = {c, 0, s, 0, 1, 0, -s, 0, c};
    const double z[9] = {c, -s, 0, s, c, 0, 0, 0, 1};
    const double* r = axis == 'x' ? x : axis == 'y' ? y : z;
    std::copy(r, r + 9, out);
}

void multiply(const double a[9], const double b[9], double out[9]) {
    double m[9];
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            m[3 * r + c] = a[3 * r] * b[c] + a[3 * r + 1] * b[3 + c] + a[3 * r + 2] * b[6 + c];
        }
    }
    std::copy(m, m + 9, out);
}

// The calibration bar as the tracker sees it at location k (from 1) held in `pose`: a little
// further away and turned a little more at every location; vertical poses stand it up, the
// front-back poses tilt it by 30 degrees.
void barPose(int k, int pose, double R[9], double t[3]) {
    double turn[9], tilt[9];
    rotation('z', 5.0 * (k - 1) + (pose == CLBBAR_VERTICAL_POSE ? 90.0 : 0.0), turn);
    rotation('x',
             pose == CLBBAR_FRONT_BACK_UP_POSE     ? 30.0
             : pose == CLBBAR_FRONT_BACK_DOWN_POSE ? -30.0
                                                   : 0.0,
             tilt);
    multiply(tilt, turn, R);
    t[0] = -400.0 + 160.0 * ((k - 1) % 6);
    t[1] = 100.0 * ((k % 3) - 1);
    t[2] = 2200.0 + 150.0 * (k - 1);
}

// The scanner on its stand as the tracker sees it at location k (the scanner-position mode).
void scannerPose(int k, double R[9], double t[3]) {
    double yaw[9], pitch[9];
    rotation('y', -30.0 + 12.0 * (k - 1), yaw);
    rotation('x', 10.0, pitch);
    multiply(pitch, yaw, R);
    t[0] = 150.0 * (k - 3);
    t[1] = 50.0;
    t[2] = 2500.0 - 60.0 * k;
}

bool parseBarPose(const std::string& text, int& out) {
    static const std::map<std::string, int> names = {
        {"error", CLBBAR_ERROR_POSE},          {"level", CLBBAR_LEVEL_POSE},
        {"vertical", CLBBAR_VERTICAL_POSE},    {"up", CLBBAR_FRONT_BACK_UP_POSE},
        {"down", CLBBAR_FRONT_BACK_DOWN_POSE}, {"errorpoint", CLBBAR_ERROR_POINT},
    };
    const auto it = names.find(text);
    if (it != names.end()) {
        out = it->second;
        return true;
    }
    return parseInt(text, out);
}

// "a:b:c:d" into parts.
std::vector<std::string> splitColons(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t colon = text.find(':', start);
        parts.push_back(text.substr(start, colon == std::string::npos ? colon : colon - start));
        if (colon == std::string::npos) {
            return parts;
        }
        start = colon + 1;
    }
}

}  // namespace

// =============================================================================================
// Receipts
// =============================================================================================

bool Console::buildReceipt(int kind, const Fields& f, CMessage_Receipt& r,
                           std::string& error) const {
    if (kind < 0 || kind > RECEIPT_KIND_MAX) {
        error = "receipt kind " + std::to_string(kind) + " is not 0..23";
        return false;
    }
    r.setReceiptKind(kind);
    bool ok = true;
    switch (kind) {
        case RECEIPT_WORK_RESPONSE: {
            tagWorkRespons w{0, 0, "", m_options.scannerId};
            ok = f.getInt("code", w.code, error) && f.getInt("state", w.state, error) &&
                 f.getText("text", w.text) && f.getText("device", w.deviceId);
            r.setWorkResponsInfo(w);
            break;
        }
        case RECEIPT_TRACK_RANGE: {
            int level = m_trackRange;
            ok = f.getInt("level", level, error);
            r.setTrackRangeLevel(level);
            break;
        }
        case RECEIPT_HEARTBEAT:
            // The data comes from the temperature plans (sendHeartbeat); nothing to choose here.
            break;
        case RECEIPT_BAR_STATE: {
            int state = 1;
            ok = f.getInt("state", state, error);
            r.setTrackerBarState(state);
            break;
        }
        case RECEIPT_CAMERA_IMAGES: {
            tagCameraImageList images;
            images.nFrameIndex = m_frameId;
            int count = 2;
            ok = f.getInt("frame", images.nFrameIndex, error) && f.getInt("images", count, error);
            if (ok && (count < 0 || count > 64)) {
                error = "images=" + std::to_string(count) + ": 0..64";
                ok = false;
            }
            for (int cam = 0; ok && cam < count; ++cam) {
                images.vecImages.push_back(
                    {m_options.scannerId + "-cam" + std::to_string(cam), 1280, 1024, cam, {}});
            }
            const std::vector<std::string> explicitImages = f.all("image");
            if (ok && !explicitImages.empty()) {
                images.vecImages.clear();
                for (const std::string& entry : explicitImages) {
                    const std::vector<std::string> p = splitColons(entry);
                    tagCameraImgData img;
                    if (p.size() != 4 || !parseInt(p[1], img.nWidth) ||
                        !parseInt(p[2], img.nHeight) || !parseInt(p[3], img.nCameraIndex)) {
                        error = "image=" + entry + ": expected NAME:WIDTH:HEIGHT:CAMERA";
                        ok = false;
                        break;
                    }
                    img.strName = p[0];
                    images.vecImages.push_back(img);
                }
            }
            r.setCameraImages(images);
            break;
        }
        case RECEIPT_DIAGNOSIS: {
            int sync = 1;
            int trackers = 0;
            int scanners = 0;
            std::vector<std::string> trackerIds, scannerIds;
            for (const Device& d : m_devices) {
                if (d.online && d.type == DEVICE_TRACKER) {
                    trackerIds.push_back(d.id);
                } else if (d.online && d.type == DEVICE_SCANNER) {
                    scannerIds.push_back(d.id);
                }
            }
            trackers = static_cast<int>(trackerIds.size());
            scanners = static_cast<int>(scannerIds.size());
            ok = f.getInt("sync", sync, error) && f.getInt("trackers", trackers, error) &&
                 f.getInt("scanners", scanners, error);
            if (ok && (trackers < 0 || scanners < 0 || trackers > 64 || scanners > 64)) {
                error = "trackers= and scanners= are 0..64";
                ok = false;
            }
            lumora::DiagnosticInfo d;
            d.set_strbarid(m_options.trackerId);
            d.set_bdevicesyncstatus(sync != 0);
            for (int i = 0; ok && i < scanners; ++i) {
                lumora::ScannerDiagnosticInfo* s = d.add_scannerdiagnosticinfo();
                s->set_strdeviceid(i < static_cast<int>(scannerIds.size())
                                       ? scannerIds[static_cast<size_t>(i)]
                                       : m_options.scannerId + "-" + std::to_string(i));
                s->set_strfirmwareversion(m_options.lowpartVersion);
                s->set_ddevicetemp(35.0);
                s->set_biscamtrigger(true);
                s->set_bislztrigger(true);
            }
            for (int i = 0; ok && i < trackers; ++i) {
                lumora::TrackerDiagnosticInfo* t = d.add_trackerdiagnosticinfo();
                t->set_strdeviceid(i < static_cast<int>(trackerIds.size())
                                       ? trackerIds[static_cast<size_t>(i)]
                                       : m_options.trackerId + "-" + std::to_string(i));
                t->set_strfirmwareversion(m_options.lowpartVersion);
                t->set_ddevicetemp(31.0);
                t->set_biscamtrigger(true);
            }
            r.setDiagnosisInfo(d);
            break;
        }
        case RECEIPT_LOWPART_CONFIG: {
            tagLowPartConfig c = m_lowPart;
            ok = f.getText("name", c.strSysName) && f.getInt("sysid", c.nSysId, error) &&
                 f.getInt("local", c.nUseLocal, error) &&
                 f.getInt("priplad", c.nUsePriplad, error) && f.getInt("net", c.nUseNet, error) &&
                 f.getInt("syncid", c.nSyncId, error) && f.getTexts("ids", c.vecPripladIds);
            r.setLowPartConfig(c);
            break;
        }
        case RECEIPT_PRIPLAD_LIST: {
            std::vector<tagPripladDeviceData> list = m_priplad;
            std::vector<std::string> ids;
            if (f.has("ids")) {
                f.getTexts("ids", ids);
                list.clear();
                for (size_t i = 0; i < ids.size(); ++i) {
                    tagPripladDeviceData p;
                    p.strName = "air" + std::to_string(i + 1);
                    p.strDeviceId = ids[i];
                    p.strIP = "192.168.10." + std::to_string(21 + i);
                    p.strVersion = "1.0.0";
                    p.nSignalQuality = 80;
                    p.nCurElectric = 90;
                    list.push_back(p);
                }
            }
            int signal = -1, battery = -1;
            std::string version;
            ok = f.getInt("signal", signal, error) && f.getInt("battery", battery, error) &&
                 f.getText("version", version);
            for (tagPripladDeviceData& p : list) {
                p.nSignalQuality = f.has("signal") ? signal : p.nSignalQuality;
                p.nCurElectric = f.has("battery") ? battery : p.nCurElectric;
                p.strVersion = f.has("version") ? version : p.strVersion;
            }
            r.setPripladDevices(list);
            break;
        }
        case RECEIPT_WIFI_SIGNAL: {
            tagWIFISignalStrength s{m_options.scannerId, 80, -45, 6, 1};
            ok = f.getText("device", s.strDeviceSN) &&
                 f.getInt("strength", s.nSignalStrength, error) &&
                 f.getInt("db", s.nSignalDb, error) && f.getInt("channel", s.nChannel, error) &&
                 f.getInt("status", s.nStatus, error);
            r.setWIFISignalStrength(s);
            break;
        }
        case RECEIPT_REMAINING_RGF: {
            tagRemainingRGFs rgf;
            rgf.vecRGF = {{120, "laser hours", 0}, {3, "calibrations", 0}};
            const std::vector<std::string> items = f.all("item");
            if (!items.empty()) {
                rgf.vecRGF.clear();
                for (const std::string& entry : items) {
                    if (entry == "none") {
                        continue;
                    }
                    const size_t colon = entry.rfind(':');
                    tagRemainingRGF item;
                    if (colon == std::string::npos ||
                        !parseInt(entry.substr(colon + 1), item.nCount)) {
                        error = "item=" + entry + ": expected NAME:COUNT";
                        ok = false;
                        break;
                    }
                    item.strName = entry.substr(0, colon);
                    rgf.vecRGF.push_back(item);
                }
            }
            r.setRemainingRGF(rgf);
            break;
        }
        case RECEIPT_LOWPART_VERSION: {
            std::string version = m_options.lowpartVersion;
            f.getText("version", version);
            r.setFirmwareVersion(version);
            break;
        }
        case RECEIPT_CALIB_FILE: {
            std::string name = m_options.scannerId + ".clb";
            f.getText("name", name);
            r.setCalibFileName(name);
            break;
        }
        case RECEIPT_FAR_LASER_CALIB: {
            int result = FAR_LASER_CALIB_SUCCESS;
            ok = f.getInt("result", result, error);
            r.setFarLaserCalibResult(static_cast<emFarLaserCalibrateResult>(result));
            break;
        }
        case RECEIPT_SCANNER_DISTANCE: {
            std::vector<double> d = {250.0, 400.0, 550.0};
            ok = f.getDoubles("distances", d, error);
            r.setScannerDistance(d);
            break;
        }
        case RECEIPT_FIRMWARE_CHECK: {
            lumora::FirmwareVersionCheck c;
            std::string device = m_options.scannerId, current = m_options.lowpartVersion,
                        minimum = "1.0.0";
            f.getText("device", device);
            f.getText("current", current);
            f.getText("minimum", minimum);
            c.set_devicesn(device);
            c.set_currenversion(current);
            c.set_minimumversion(minimum);
            r.setFirmwareVersionCheck(c);
            break;
        }
        case RECEIPT_CALIB_RESULT: {
            double value = kStandardCalibResult;
            ok = f.getDouble("value", value, error);
            r.setCalibraResult(value);
            break;
        }
        case RECEIPT_VIEW_POINTS: {
            std::vector<double> points = {0, 0, 1500, 0, 0, 3500};
            ok = f.getDoubles("points", points, error);
            if (ok && points.size() % 3 != 0) {
                error = "points= takes x,y,z per point";
                ok = false;
            }
            r.setViewPoints(points);
            break;
        }
        default:
            break;  // reserved kinds carry nothing of their own
    }

    // The Wi-Fi block: the data of kind 23; every other receipt carries one too (empty unless
    // wifi= is given), which the device module reads after kinds 14 and 15.
    tagWIFIConnectInfo wifi;
    if (kind == RECEIPT_WIFI_CONNECT) {
        wifi = {DEVICE_SCANNER, 1, m_options.scannerId, "wpa_state=COMPLETED"};
        ok = ok && f.getText("text", wifi.strEventMessage) &&
             f.getText("device", wifi.strDeviceSN) && f.getInt("kind", wifi.nDeviceType, error) &&
             f.getInt("type", wifi.nMessageType, error);
    }
    f.getText("wifi", wifi.strEventMessage);
    r.setWIFIConnectInfo(wifi);
    return ok;
}

bool Console::sendReceipt(int kind, const Fields& fields, std::string* error) {
    std::string e;
    if (kind == RECEIPT_HEARTBEAT) {
        if (!fields.empty()) {
            e = "a heartbeat receipt takes no keys (see `temperature`)";
        } else {
            sendHeartbeat();
            return true;
        }
    } else {
        CMessage_Receipt r;
        fields.clearUse();
        if (buildReceipt(kind, fields, r, e) && fields.checkAllUsed(e)) {
            return sendMessage(r, nullptr);
        }
    }
    if (error != nullptr) {
        *error = e;
    }
    return false;
}

// =============================================================================================
// Calibration data
// =============================================================================================

bool Console::buildCalib(int step, const Fields& f, CMessage_CalibData& c,
                         std::string& error) const {
    if (step < 0) {
        error = "calibration step " + std::to_string(step) + " is negative";
        return false;
    }
    c.setTrackerGrabIndex(step);
    bool ok = true;
    switch (step) {
        case CALIB_STEP_LOCATION: {
            int location = m_calibNext;
            ok = f.getInt("location", location, error);
            c.setLocationNumber(location);
            break;
        }
        case CALIB_STEP_BOARD_LATTICE: {
            int rows = kLatticeRows, cols = kLatticeCols;
            ok = f.getInt("rows", rows, error) && f.getInt("cols", cols, error);
            c.setBoardLattice(rows, cols);
            break;
        }
        case CALIB_STEP_SCANNER_BOARD: {
            // Lattice rows and columns, point spacing in x and y (mm), marker diameter (mm).
            std::vector<double> board = {kLatticeRows, kLatticeCols, 20.0, 20.0, 3.0};
            ok = f.getDoubles("board", board, error);
            c.setScannerBoard(board);
            break;
        }
        case CALIB_STEP_TRACKER_POSE:
        case CALIB_STEP_TRACKER_POSE_LONG: {
            int location = std::max(1, m_calibNext - 1);  // the location grabbed last
            int pose = m_lastGrabPose;
            const std::string* poseText = f.get("pose");
            if (poseText != nullptr && !parseBarPose(*poseText, pose)) {
                error =
                    "pose=" + *poseText + ": a number or level|vertical|up|down|error|errorpoint";
                ok = false;
            }
            ok = ok && f.getInt("location", location, error);
            double R[9], t[3];
            if (step == CALIB_STEP_TRACKER_POSE) {
                barPose(location, pose, R, t);
            } else {
                scannerPose(location, R, t);
            }
            std::vector<double> rot(R, R + 9), tr(t, t + 3);
            ok = ok && f.getDoubles("rotation", rot, error) &&
                 f.getDoubles("translation", tr, error);
            if (ok && (rot.size() != 9 || tr.size() != 3)) {
                error = "rotation= takes 9 values (by rows), translation= 3";
                ok = false;
            }
            if (ok) {
                c.setTrackerPose(rot.data(), tr.data(), static_cast<CLBBARPOSE>(pose));
                c.setLocationNumber(location);
            }
            break;
        }
        case CALIB_STEP_SCANNER_CALIB: {
            tagCalibData d;
            int unseen = 0;
            d.nRows = kLatticeRows;
            d.nCols = kLatticeCols;
            ok = f.getInt("result", d.nResult, error) && f.getInt("rows", d.nRows, error) &&
                 f.getInt("cols", d.nCols, error) && f.getInt("unseen", unseen, error);
            const int64_t cells = static_cast<int64_t>(d.nRows) * d.nCols;
            if (ok && (d.nRows < 0 || d.nCols < 0 || cells > 1000000)) {
                error = "rows= and cols= give at most 1000000 lattice cells";
                ok = false;
            }
            // Both cameras: intrinsics in the left 3x3 block of the 3x4 matrix; the right
            // camera sits 180 mm to the side, turned 20 degrees inwards.
            for (int cam = 0; ok && cam < 2; ++cam) {
                tagCalibCamera& k = d.camera[cam];
                k.dMatrix[0][0] = 2400.0 + 3.0 * cam;
                k.dMatrix[1][1] = 2400.0 - 2.0 * cam;
                k.dMatrix[0][2] = 1024.0 + 1.5 * cam;
                k.dMatrix[1][2] = 768.0 - 0.5 * cam;
                k.dMatrix[2][2] = 1.0;
                k.dRotationVector[1] = cam == 0 ? 0.0 : 20.0 * kPi / 180.0;
                k.dTranslation[0] = cam == 0 ? 0.0 : -180.0;
                k.dTranslation[2] = cam == 0 ? 0.0 : 30.0;
            }
            const std::string* lattice = f.get("lattice");
            if (ok && lattice != nullptr && *lattice != "none") {
                error = "lattice= only takes none (no mask)";
                ok = false;
            }
            if (ok && lattice == nullptr && cells > 0) {
                d.vecLattice.assign(static_cast<size_t>(cells), 1);
                for (int64_t i = 0; i < std::min<int64_t>(std::max(unseen, 0), cells); ++i) {
                    d.vecLattice[static_cast<size_t>(cells - 1 - i)] = 0;  // unseen: the last cells
                }
            }
            c.setScannerCalib(d);
            break;
        }
        default:
            break;  // other steps carry nothing
    }
    return ok;
}

bool Console::sendCalib(int step, const Fields& fields, std::string* error) {
    CMessage_CalibData c;
    std::string e;
    fields.clearUse();
    if (buildCalib(step, fields, c, e) && fields.checkAllUsed(e)) {
        return sendMessage(c, nullptr);
    }
    if (error != nullptr) {
        *error = e;
    }
    return false;
}

void Console::startCalibration(int mode) {
    m_calibMode = mode;
    m_calibNext = 1;
    m_lastGrabPose = CLBBAR_LEVEL_POSE;
}

// What the device reports after a successful grab, by calibration mode: the bar's pose and the
// next location in bar calibration; the scanner's pose in the scanner-position mode; the next
// location and, after the last one, the scanner calibration data in the scanner modes.
void Console::calibrationAfterGrab(int pose) {
    m_lastGrabPose = pose >= CLBBAR_LEVEL_POSE && pose <= CLBBAR_FRONT_BACK_DOWN_POSE
                         ? pose
                         : static_cast<int>(CLBBAR_LEVEL_POSE);
    if (m_calibNext > m_calibLocations) {
        return;  // the run is complete: further grabs bring nothing new
    }
    const bool last = m_calibNext == m_calibLocations;
    ++m_calibNext;
    switch (m_calibMode) {
        case CALIB_BAR:
        case CALIB_BAR_LOCATION:
            sendCalib(CALIB_STEP_TRACKER_POSE);
            if (!last) {
                sendCalib(CALIB_STEP_LOCATION);
            }
            break;
        case CALIB_SCANNER_POSITION:
            sendCalib(CALIB_STEP_TRACKER_POSE_LONG);
            break;
        default:
            sendCalib(last ? CALIB_STEP_SCANNER_CALIB : CALIB_STEP_LOCATION);
            break;
    }
}

// A whole run as the device side sends it when the host starts mode `mode` and grabs every
// location: the board size for the board modes, the first location, the data after each grab,
// and the result.
void Console::runCalibration(int mode, double result) {
    startCalibration(mode);
    if (mode == CALIB_SCANNER_BOARD || mode == CALIB_SCANNER_BOARD_LASER ||
        mode == CALIB_SCANNER_POSITION) {
        sendCalib(CALIB_STEP_BOARD_LATTICE);
        sendCalib(CALIB_STEP_SCANNER_BOARD);
    }
    if (mode != CALIB_SCANNER_POSITION) {
        sendCalib(CALIB_STEP_LOCATION);
    }
    for (int k = 1; k <= m_calibLocations; ++k) {
        calibrationAfterGrab(CLBBAR_LEVEL_POSE);
    }
    CMessage_Receipt r;
    std::string error;
    Fields none;
    buildReceipt(RECEIPT_CALIB_RESULT, none, r, error);
    r.setCalibraResult(result);
    sendMessage(r, nullptr);
}

// =============================================================================================
// Heartbeats and buttons
// =============================================================================================

std::vector<float> Console::nextTemperatures(const Device& d) {
    const auto it = m_temperatures.find(d.id);
    if (it == m_temperatures.end() || it->second.mode == TemperaturePlan::Simulated) {
        std::normal_distribution<float> drift(0.0f, 0.05f);
        const float base = d.type == DEVICE_TRACKER   ? 31.0f
                           : d.type == DEVICE_SCANNER ? 35.0f
                                                      : 33.0f;
        return {base + drift(m_rng), base - 1 + drift(m_rng), base + 1 + drift(m_rng)};
    }
    TemperaturePlan& plan = it->second;
    float t = 0;
    switch (plan.mode) {
        case TemperaturePlan::Fixed:
            return plan.values;
        case TemperaturePlan::Sequence:
            t = plan.values[std::min(plan.next, plan.values.size() - 1)];
            break;
        default:  // Ramp
            t = static_cast<float>(plan.from + plan.step * static_cast<double>(plan.next));
            break;
    }
    ++plan.next;
    return {t, t - 1.0f, t + 1.0f};
}

void Console::sendHeartbeat(const std::vector<std::string>& only) {
    std::vector<tagHeartData> beats;
    for (const Device& d : m_devices) {
        const bool chosen =
            only.empty() ? d.online : std::find(only.begin(), only.end(), d.id) != only.end();
        if (!chosen) {
            continue;
        }
        beats.push_back(
            {d.type, d.id, {static_cast<int32_t>(m_options.fps), 0}, nextTemperatures(d)});
    }
    CMessage_Receipt r;
    r.setReceiptKind(RECEIPT_HEARTBEAT);
    r.setHeartData(beats);
    sendMessage(r, nullptr);
}

void Console::sendButton(int code, int action, const std::string& deviceId) {
    CMessage_Button b;
    b.setButtonCode(code);
    b.setButtonAction(action);
    std::vector<std::string> ids{deviceId.empty() ? m_options.scannerId : deviceId};
    sendMessage(b, &ids);
}

}  // namespace console
