// Message classes: copies, pack/unpack round trips of every member, the body as standard
// Protocol Buffers, and refusal of inconsistent or damaged bodies.
#include <gtest/gtest.h>

#include <cstring>

#include "sdk/Messages.h"
#include "sdk_link.pb.h"

using namespace SDK_NV;

namespace {

std::shared_ptr<tagScanData> makeFrame(int points, int markers) {
    auto f = std::make_shared<tagScanData>();
    for (int i = 0; i < 9; ++i) {
        f->m_dRotation[i] = 0.1 * (i + 1);
    }
    f->m_dTranslation[0] = 10;
    f->m_dTranslation[1] = -20;
    f->m_dTranslation[2] = 300.5;
    f->m_nFrameValue = 77;
    f->m_nFrameCount = 15;
    f->m_fValue = 412.5f;
    f->m_nAcquisitionKind = 1;
    f->m_vecLaserLineCounts = {points};
    for (int i = 0; i < points; ++i) {
        f->m_vecLaserPoints.insert(f->m_vecLaserPoints.end(), {float(i), float(2 * i), 3.5f});
        f->m_vecLaserNormals.insert(f->m_vecLaserNormals.end(), {0, 0, 1});
        f->m_vecLaserQuality.push_back(0.5f);
    }
    tagLaserLineData line;
    line.nPointCount = points;
    line.dPlane[3] = -7;
    line.dRms = 0.02;
    f->m_vecLaserLines.push_back(line);
    for (int i = 0; i < markers; ++i) {
        f->m_vecMarkerIds.push_back(100 + i);
        f->m_vecMarkerCenters.insert(f->m_vecMarkerCenters.end(), {1.0 * i, 2.0, 3.0});
        f->m_vecMarkerNormals.insert(f->m_vecMarkerNormals.end(), {0, 1, 0});
        f->m_vecMarkerDiameters.push_back(6.0);
        f->m_vecMarkerValid.push_back(i % 2);
    }
    f->m_strTrackerId = "TRK-1";
    f->m_camParam.add_i_m_l(1234.5);
    f->m_mkImage.add_left_rt(0.25);
    tagHoleData hole;
    hole.nState = 7;
    hole.fRadius = 4;
    hole.vecEdgePoints = {1, 2, 3, 4, 5, 6};
    f->m_vecHoles.push_back(hole);
    f->m_vecEdgeIndex.push_back({3, 0.75f, 1});
    tagEdgePoint edge;
    edge.dOutward[2] = 1;
    edge.nIndex = 3;
    f->m_vecEdgePoints.push_back(edge);
    return f;
}

// A receipt with every member set.
CMessage_Receipt fullReceipt() {
    CMessage_Receipt r;
    r.setReceiptKind(RECEIPT_LOWPART_CONFIG);
    r.setWorkResponsInfo({1, 5, "late", "SCN"});
    r.setHeartData({{1, "SCN", {120, 60}, {35.f, 36.f, 37.f}}});
    tagCameraImageList images;
    images.vecImages.push_back({"left", 640, 480, 0, {1, 2, 3}});
    r.setCameraImages(images);
    r.setLowPartConfig({4, 2, {"AIR-1", "AIR-2"}, "sys", 1, 1, 1});
    r.setPripladDevices({{"pad", "AIR-1", "10.0.0.2", "1.0", 80, 90, 1, 2}});
    r.setRemainingRGF({{{3, "laser", 0}, {5, "led", 0}}});
    r.setCalibraResult(0.125);
    lumora::DiagnosticInfo diag;
    diag.set_strbarid("BAR");
    r.setDiagnosisInfo(diag);
    r.setTrackRangeLevel(2);
    r.setTrackerBarState(1);
    r.setWIFIConnectInfo({1, 2, "SCN", "wpa_state=COMPLETED"});
    r.setWIFISignalStrength({"SCN", 70, -50, 6, 1});
    r.setCalibFileName("cal.bin");
    r.setFarLaserCalibResult(FAR_LASER_CALIB_FAILED);
    r.setScannerDistance({312.5});
    lumora::FirmwareVersionCheck check;
    check.set_devicesn("SCN");
    r.setFirmwareVersionCheck(check);
    r.setViewPoints({1, 2, 3});
    r.setFirmwareVersion("2.1.0");
    return r;
}

std::vector<char> packed(CMessage_Base& m) {
    std::vector<char> body;
    EXPECT_GE(m.pack(&body), 0);
    return body;
}

// Every field of the packed body carries a value (with every member filled, pack wrote each),
// and a fresh message of the same type unpacks it and packs it to the same bytes (unpack lost
// nothing). Returns the fresh message.
template <typename Body, typename M>
M roundTrip(M& in) {
    const std::vector<char> bytes = packed(in);
    Body body;
    EXPECT_TRUE(body.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
    const auto* reflection = body.GetReflection();
    for (int i = 0; i < body.GetDescriptor()->field_count(); ++i) {
        const auto* field = body.GetDescriptor()->field(i);
        EXPECT_TRUE(field->is_repeated() ? reflection->FieldSize(body, field) > 0
                                         : reflection->HasField(body, field))
            << in.getType() << ": " << field->name();
    }
    M out;
    EXPECT_EQ(out.unpack(bytes.data(), static_cast<int>(bytes.size())), 0);
    EXPECT_EQ(packed(out), bytes) << in.getType();
    return out;
}

}  // namespace

TEST(MessageCopy, CopiesOwnTheirDeviceIdsShareTheFrameAndCarryEveryMember) {
    CMessage_Button a;
    a.setID(42);
    deviceids ids{"TRK-1", "SCN-1"};
    a.setDeviceIds(&ids);
    a.setButtonCode(51);
    CMessage_Button b(a);
    EXPECT_EQ(b.getID(), 42);
    ASSERT_NE(b.getDeviceIds(), nullptr);
    EXPECT_NE(b.getDeviceIds(), a.getDeviceIds());  // its own copy
    EXPECT_EQ(*b.getDeviceIds(), ids);
    EXPECT_EQ(packed(b), packed(a));
    ids.push_back("X");
    a.setDeviceIds(&ids);  // the copy keeps its list
    EXPECT_EQ(b.getDeviceIds()->size(), 2u);
    a.setDeviceIds(a.getDeviceIds());  // its own list handed back is kept
    ASSERT_NE(a.getDeviceIds(), nullptr);
    EXPECT_EQ(a.getDeviceIds()->back(), "X");
    a.setDeviceIds(nullptr);
    EXPECT_EQ(a.getDeviceIds(), nullptr);

    // Assignment replaces everything, a list of ids by none included; self-assignment keeps.
    CMessage_Device d;
    d.setID(7);
    d.setDeviceSN("TRK-9");
    d.setDeviceInfo(lumora::DeviceInfo());
    CMessage_Device e;
    e.setDeviceIds(&ids);
    e = d;
    EXPECT_EQ(e.getID(), 7);
    EXPECT_EQ(e.getDeviceIds(), nullptr);
    EXPECT_EQ(packed(e), packed(d));
    const CMessage_Device& same = e;
    e = same;
    EXPECT_EQ(e.getDeviceSN(), "TRK-9");

    // Scan data copies share the frame and copy the matrix block.
    CMessage_ScanData s;
    s.setScanData(makeFrame(4, 2));
    s.setFrameID(12);
    double m[16];
    for (int i = 0; i < 16; ++i) {
        m[i] = i;
    }
    s.setTrackerMatrix(m);
    CMessage_ScanData t(s);
    CMessage_ScanData u;
    u = s;
    EXPECT_EQ(t.getScanData_Shared().use_count(), 4);  // s, t, u and the temporary
    for (CMessage_ScanData* copy : {&t, &u}) {
        EXPECT_EQ(copy->getScanData(), s.getScanData());
        EXPECT_EQ(copy->getFrameID(), 12);
        EXPECT_EQ(std::memcmp(copy->getTrackerMatrix(), m, sizeof(m)), 0);
    }
    CMessage_Receipt r = fullReceipt();
    CMessage_Receipt r2(r);
    CMessage_Receipt r3;
    r3 = r;
    EXPECT_EQ(packed(r2), packed(r));
    EXPECT_EQ(packed(r3), packed(r));
    EXPECT_FALSE(r.getWorkResponsInfo(nullptr));
}

// Each message type, every member filled with a value of its own: the round trip writes every
// field and loses none, and the getters read back what was set.
TEST(MessagePacking, EveryMessageRoundTripsWithEveryMember) {
    CMessage_ScanData scan;
    scan.setScanData(makeFrame(5, 3));
    scan.setFrameID(99);
    double m[16];
    for (int i = 0; i < 16; ++i) {
        m[i] = i + 1.0;
    }
    scan.setTrackerMatrix(m);
    CMessage_ScanData scan2 = roundTrip<sdk_link::ScanFrameBody>(scan);
    EXPECT_EQ(std::memcmp(scan2.getTrackerMatrix(), m, sizeof(m)), 0);
    EXPECT_EQ(scan2.getScanData()->m_vecMarkerValid, scan.getScanData()->m_vecMarkerValid);
    EXPECT_FLOAT_EQ(scan2.getScanData()->m_vecEdgeIndex[0].fQuality, 0.75f);

    CMessage_Receipt receipt = fullReceipt();
    CMessage_Receipt r = roundTrip<sdk_link::ReceiptBody>(receipt);
    tagLowPartConfig config;
    ASSERT_TRUE(r.getLowPartConfig(&config));
    EXPECT_EQ(config.vecPripladIds, (std::vector<std::string>{"AIR-1", "AIR-2"}));
    std::vector<tagHeartData> hearts;
    ASSERT_TRUE(r.getHeartData(&hearts));
    ASSERT_EQ(hearts.size(), 1u);
    EXPECT_EQ(hearts[0].framerate, (std::vector<int32_t>{120, 60}));
    EXPECT_EQ(hearts[0].temp, (std::vector<float>{35.f, 36.f, 37.f}));
    tagRemainingRGFs rgf;
    r.getRemainingRGF(rgf);
    ASSERT_EQ(rgf.vecRGF.size(), 2u);
    EXPECT_EQ(rgf.vecRGF[1].strName, "led");
    EXPECT_EQ(r.getWIFISignalStrength().nSignalDb, -50);
    EXPECT_EQ(r.getFarLaserCalibResult(), FAR_LASER_CALIB_FAILED);
    EXPECT_EQ(r.getViewPoints(), (std::vector<double>{1, 2, 3}));

    CMessage_Connect c;
    c.setConnect(true);
    EXPECT_TRUE(roundTrip<sdk_link::ConnectBody>(c).getConnect());
    CMessage_Button button;
    button.setButtonCode(55);
    button.setButtonAction(1);
    const CMessage_Button button2 = roundTrip<lumora::ButtonData>(button);
    EXPECT_EQ(button2.getButtonCode(), 55);
    EXPECT_EQ(button2.getButtonAction(), 1);
    CMessage_FrameData fd;
    fd.setEnableWrite(true);
    EXPECT_TRUE(roundTrip<sdk_link::FrameDataBody>(fd).getEnableWrite());
    CMessage_Device dev;
    dev.setConnect(true);
    dev.setDeviceType(DEVICE_SCANNER);
    dev.setDeviceSN("TRK-2");
    lumora::DeviceInfo info;
    info.set_trackertype(3);
    dev.setDeviceInfo(info);
    const CMessage_Device dev2 = roundTrip<sdk_link::DeviceBody>(dev);
    EXPECT_EQ(dev2.getDeviceType(), DEVICE_SCANNER);
    EXPECT_EQ(dev2.getDeviceSN(), "TRK-2");

    CMessage_CalibData calib;
    calib.setTrackerGrabIndex(CALIB_STEP_SCANNER_CALIB);
    calib.setLocationNumber(6);
    const double rot[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
    const double tr[3] = {5, 6, 7};
    calib.setTrackerPose(rot, tr, CLBBAR_VERTICAL_POSE);
    calib.setBoardLattice(9, 11);
    calib.setScannerBoard({1.5, 2.5});
    tagCalibData cd;
    cd.nResult = 1;
    cd.nRows = 2;
    cd.nCols = 3;
    cd.camera[1].dMatrix[2][3] = 8.5;
    cd.vecLattice = {1, 0, 1, 1, 0, 1};
    calib.setScannerCalib(cd);
    const CMessage_CalibData calib2 = roundTrip<sdk_link::CalibDataBody>(calib);
    double r2[9], t2[3];
    CLBBARPOSE pose;
    calib2.getTrackerPose(r2, t2, &pose);
    EXPECT_EQ(std::memcmp(r2, rot, sizeof(rot)), 0);
    EXPECT_EQ(pose, CLBBAR_VERTICAL_POSE);
    tagCalibData cd2;
    calib2.getScannerCalib(cd2);
    EXPECT_EQ(cd2.camera[1].dMatrix[2][3], 8.5);
    EXPECT_EQ(cd2.vecLattice, cd.vecLattice);

    CMessage_LightpenData lp;
    lp.setDeviceInfo({"TRK", "LP-1", 70, 50});
    lp.setWarnInfo({"LP-1", 2, 3, 0.75});
    lp.setProbePoints({1, 2, 3}, {0.5});
    const CMessage_LightpenData lp2 = roundTrip<sdk_link::LightpenBody>(lp);
    EXPECT_EQ(lp2.getDeviceInfo().strLightPenSN, "LP-1");
    EXPECT_EQ(lp2.getProbeRadii(), std::vector<double>{0.5});
    CMessage_OptimizationData opt;
    opt.setOptType(2);
    tagOptMarkPoint p;
    p.nIndex = 4;
    p.dPosition[1] = 9;
    opt.setMarkPoints({p});
    const CMessage_OptimizationData opt2 = roundTrip<sdk_link::OptimizationBody>(opt);
    EXPECT_EQ(opt2.getOptType(), 2);
    ASSERT_EQ(opt2.getMarkPoints().size(), 1u);
    EXPECT_EQ(opt2.getMarkPoints()[0].dPosition[1], 9);
}

TEST(MessagePacking, ScanBodyIsStandardProtocolBuffersBothWays) {
    // What pack writes, a generic reader reads ...
    CMessage_ScanData a;
    a.setScanData(makeFrame(6, 2));
    std::vector<char> body = packed(a);
    sdk_link::ScanFrameBody w;
    ASSERT_TRUE(w.ParseFromArray(body.data(), static_cast<int>(body.size())));
    const tagScanData& f = *a.getScanData();
    ASSERT_EQ(w.laser_points_size(), static_cast<int>(f.m_vecLaserPoints.size()));
    EXPECT_EQ(w.laser_points(7), f.m_vecLaserPoints[7]);
    EXPECT_EQ(w.laser_normals_size(), static_cast<int>(f.m_vecLaserNormals.size()));
    EXPECT_EQ(w.laser_quality_size(), 6);
    EXPECT_EQ(w.tracker_id(), "TRK-1");

    // ... and what a generic writer writes, unpack reads, including a packed array that
    // arrives in two pieces and one of length zero (no values).
    w.clear_laser_quality();
    std::string bytes = w.SerializeAsString();
    sdk_link::ScanFrameBody tail;
    for (int i = 0; i < 6; ++i) {
        tail.add_laser_quality(0.25f * i);
    }
    bytes += tail.SerializeAsString() + std::string("\x52\x00", 2);  // field 10, length 0
    CMessage_ScanData b;
    ASSERT_EQ(b.unpack(bytes.data(), static_cast<int>(bytes.size())), 0);
    EXPECT_EQ(b.getScanData()->m_vecLaserPoints, f.m_vecLaserPoints);
    EXPECT_EQ(b.getScanData()->m_vecLaserQuality,
              (std::vector<float>{0, 0.25f, 0.5f, 0.75f, 1.0f, 1.25f}));
    bytes += std::string("\x52\x03\x01\x02\x03", 5);  // not a whole float
    EXPECT_EQ(b.unpack(bytes.data(), static_cast<int>(bytes.size())), -1);
}

TEST(MessagePacking, ReusedFrameBuffersCarryNothingOver) {
    // A rich frame, released, then a sparse one: the second must not inherit anything. The
    // marker images differ in which sub-messages they set, so storage kept from one frame and
    // reused by the next must come back with nothing of the earlier one.
    std::vector<char> rich, other, sparse;
    std::string richImage, otherImage;
    {
        CMessage_ScanData a;
        std::shared_ptr<tagScanData> f = makeFrame(8, 3);
        lumora::MKPointSolve* s = f->m_mkImage.add_mksolve();
        s->set_mkpointcode(5);
        s->mutable_mkimageleft()->set_x(1.5);
        s->mutable_mkimageright()->set_y(-2.5);
        f->m_mkImage.add_mksolve()->set_rtcode(9);
        richImage = f->m_mkImage.SerializeAsString();
        a.setScanData(f);
        rich = packed(a);
        std::shared_ptr<tagScanData> g = makeFrame(4, 1);
        g->m_mkImage.add_mksolve()->mutable_mkimageleft()->set_y(7.0);
        otherImage = g->m_mkImage.SerializeAsString();
        a.setScanData(g);
        other = packed(a);
        auto bare = std::make_shared<tagScanData>();
        bare->m_strTrackerId = "T2";
        a.setScanData(bare);
        sparse = packed(a);
    }
    for (int round = 0; round < 3; ++round) {
        CMessage_ScanData m;
        ASSERT_EQ(m.unpack(rich.data(), static_cast<int>(rich.size())), 0);
        EXPECT_EQ(m.getScanData()->laserPointCount(), 8u);
        EXPECT_EQ(m.getScanData()->m_mkImage.SerializeAsString(), richImage);
        m.setScanData(nullptr);  // back to the pool
        ASSERT_EQ(m.unpack(other.data(), static_cast<int>(other.size())), 0);
        EXPECT_EQ(m.getScanData()->laserPointCount(), 4u);
        EXPECT_EQ(m.getScanData()->m_mkImage.SerializeAsString(), otherImage);
        m.setScanData(nullptr);
        ASSERT_EQ(m.unpack(sparse.data(), static_cast<int>(sparse.size())), 0);
        const tagScanData& f = *m.getScanData();
        EXPECT_TRUE(f.m_vecLaserPoints.empty() && f.m_vecLaserNormals.empty() &&
                    f.m_vecLaserQuality.empty() && f.m_vecLaserLines.empty() &&
                    f.m_vecMarkerIds.empty() && f.m_vecHoles.empty());
        EXPECT_EQ(f.m_camParam.ByteSizeLong() + f.m_mkImage.ByteSizeLong(), 0u);
        EXPECT_EQ(f.m_nFrameCount, 0);
        EXPECT_EQ(f.m_strTrackerId, "T2");
    }
}

// Counts that disagree are refused by pack and by unpack; a refused or damaged body leaves the
// message as it was.
TEST(MessagePacking, InconsistentOrDamagedBodiesAreRefused) {
    CMessage_ScanData a;
    auto frame = makeFrame(3, 2);
    frame->m_vecMarkerDiameters.pop_back();  // one diameter short
    a.setScanData(frame);
    std::vector<char> body;
    EXPECT_EQ(a.pack(&body), -1);
    frame->m_vecMarkerDiameters.push_back(6.0);
    frame->m_vecLaserLineCounts = {2};  // three points on lines of two
    EXPECT_EQ(a.pack(&body), -1);
    frame->m_vecLaserLineCounts = {1, 2};
    EXPECT_GT(a.pack(&body), 0);
    frame->m_vecLaserNormals.pop_back();
    EXPECT_EQ(a.pack(&body), -1);
    CMessage_LightpenData lp;
    lp.setProbePoints({1, 2}, {0.5});  // not three values per radius
    EXPECT_EQ(lp.pack(&body), -1);

    sdk_link::ScanFrameBody w;
    for (int i = 0; i < 12; ++i) {
        i < 9 ? w.add_rotation(0) : w.add_translation(0);
    }
    w.add_marker_ids(1);
    w.add_marker_centers(1);  // should be three values
    const std::string bytes = w.SerializeAsString();
    CMessage_ScanData b;
    b.setScanData(makeFrame(1, 1));
    auto before = b.getScanData_Shared();
    EXPECT_EQ(b.unpack(bytes.data(), static_cast<int>(bytes.size())), -1);
    EXPECT_EQ(b.getScanData(), before.get());

    const char junk[] = {'\xff', '\xff', '\xff', '\xff', '\x0f'};
    CMessage_Receipt r;
    r.setReceiptKind(9);
    EXPECT_EQ(r.unpack(junk, sizeof(junk)), -1);
    EXPECT_EQ(r.getReceiptKind(), 9);
    EXPECT_EQ(r.unpack(nullptr, 4), -1);
    EXPECT_EQ(r.unpack(junk, -1), -1);
    EXPECT_EQ(r.pack(nullptr), -1);
    // An empty body is a valid message with every member at its default.
    EXPECT_EQ(r.unpack(nullptr, 0), 0);
    EXPECT_EQ(r.getReceiptKind(), 0);
}

TEST(MessageFactory, KnownTypesMakeTheirClassesOthersNothing) {
    for (int t = MSG_CONNECT; t <= MSG_OPTIMIZATION; ++t) {
        auto m = CreateMessage(t);
        ASSERT_NE(m, nullptr) << t;
        EXPECT_EQ(m->getType(), t);
    }
    for (int t : {-1, 9, 100}) {
        EXPECT_EQ(CreateMessage(t), nullptr) << t;
    }
}
