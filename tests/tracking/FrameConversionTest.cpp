// Conversion of a scan frame into matcher records, including the camera block that library
// building and static tracking carry along, and frames too damaged to convert.
#include <gtest/gtest.h>

#include <Eigen/Geometry>

#include "TrackingFixtures.h"

using namespace tracking_test;

TEST(FrameConversion, TheCameraBlockCarriesImagePointsParametersAndTheCamerasRelativePose) {
    const sim::MarkerScene scene = sim::MarkerScene::randomPart(20, 3);
    SDK_NV::tagScanData frame = toScanData(viewOf(scene, {0, 1, 2, 3, 4, 5}, trackerPose(2)), 77);
    for (std::size_t i = 0; i < frame.m_vecMarkerValid.size(); ++i) {
        frame.m_vecMarkerIds[i] = static_cast<int>(40 + i);
        lumora::MKPointSolve* s = frame.m_mkImage.add_mksolve();
        s->mutable_mkimageleft()->set_x(100.0 + static_cast<double>(i));
        s->mutable_mkimageleft()->set_y(200.0);
        s->mutable_mkimageright()->set_x(300.0);
        s->mutable_mkimageright()->set_y(400.0 + static_cast<double>(i));
    }
    for (double v : {2400.0, 2401.0, 1224.0, 1024.0, 55.0}) {
        frame.m_mkImage.add_left_im(v);
        frame.m_mkImage.add_right_im(v + 1.0);
    }
    // Each camera's pose: its rotation row by row, then its translation.
    sim::Rng rng(8);
    const Eigen::Matrix<double, 3, 3, Eigen::RowMajor> R1 = sim::randomRotation(rng),
                                                       R2 = sim::randomRotation(rng);
    const Eigen::Vector3d t1(10, -20, 5), t2(-240, 3, 17);
    frame.m_mkImage.mutable_left_rt()->Add(R1.data(), R1.data() + 9);
    frame.m_mkImage.mutable_left_rt()->Add(t1.data(), t1.data() + 3);
    frame.m_mkImage.mutable_right_rt()->Add(R2.data(), R2.data() + 9);
    frame.m_mkImage.mutable_right_rt()->Add(t2.data(), t2.data() + 3);

    std::vector<Quill::mark_data> marks;
    int frameValue = 0;
    ASSERT_TRUE(CTPScan_MarkpointAccess::Frame2MarkPoint(frame, marks, frameValue, false));
    ASSERT_EQ(marks.size(), 6u);
    EXPECT_EQ(frameValue, 77);
    const Quill::mark_data& m = marks[4];
    EXPECT_EQ(m.label, 44);
    EXPECT_EQ(std::vector<float>(m.img, m.img + 4), (std::vector<float>{104, 200, 300, 404}));
    EXPECT_EQ(std::vector<double>(m.cam_param, m.cam_param + 8),
              (std::vector<double>{2400, 2401, 1224, 1024, 2401, 2402, 1225, 1025}));
    // The twelve doubles carry a point from the first camera into the second.
    const Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>> R(m.cam_matrix);
    const Eigen::Map<const Eigen::Vector3d> t(m.cam_matrix + 9);
    for (const Eigen::Vector3d& X : {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(100, -50, 900)}) {
        EXPECT_LT((R * (R1 * X + t1) + t - (R2 * X + t2)).norm(), 1e-9);
    }
    // Dynamic tracking leaves the camera block at its defaults.
    ASSERT_TRUE(CTPScan_MarkpointAccess::Frame2MarkPoint(frame, marks, frameValue, true));
    EXPECT_EQ(marks[4].img[0], 0.0f);
    EXPECT_EQ(marks[4].cam_param[0], 0.0);
    EXPECT_EQ(marks[4].cam_matrix[11], 0.0);

    // Image points not one per marker are left out; short marker arrays are refused.
    frame.m_mkImage.mutable_mksolve()->RemoveLast();
    ASSERT_TRUE(CTPScan_MarkpointAccess::Frame2MarkPoint(frame, marks, frameValue, false));
    EXPECT_EQ(marks[0].img[0], 0.0f);
    EXPECT_EQ(marks[0].cam_param[0], 2400.0);
    CTPScan_Markpoint tracker;
    tracker.initLibrary();
    device::tagRefMarkpointData out;
    double rt[4][3] = {};
    frame.m_vecMarkerNormals.pop_back();
    EXPECT_FALSE(CTPScan_MarkpointAccess::Frame2MarkPoint(frame, marks, frameValue, false));
    EXPECT_EQ(tracker.addOneFrameToLibrary(frame, out, rt, true), -1);
    frame.m_vecMarkerNormals.push_back(0.0);
    frame.m_vecMarkerValid.pop_back();
    EXPECT_EQ(tracker.addOneFrameToLibrary(frame, out, rt, true), -1);
    EXPECT_TRUE(out.labels.empty());
}
