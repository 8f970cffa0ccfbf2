// The marker-model optimiser (MarkOpt_class): accuracy against the truth, the markers it
// leaves out, the poses it writes back, its step control and its refusals.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "QuillTestUtil.h"

using namespace quilltest;

namespace {

// A library built frame by frame from a walk over a random part, then refined.
struct Model : Library {
    sim::MarkerScene scene;
    sim::FrameGenerator gen;
    Quill::MarkOpt_class opt;
    std::vector<Eigen::Matrix4d> rts;
    Model(int markers, std::uint64_t seed)
        : scene(sim::MarkerScene::randomPart(markers, seed)), gen(scene, seed + 1) {
        opt.set_wh(2448, 2048);
    }
    std::vector<sim::Frame> walk(int frames, const sim::FrameOptions& o) {
        std::vector<sim::Frame> w = gen.walk(frames, o, 15.0, 1.0);
        for (const auto& f : w) {
            EXPECT_GT(add(f), 0);
        }
        return w;
    }
    int run(Quill::MarkOpt_class& o, std::vector<Eigen::Matrix4d>& poses, int iterations = 150) {
        return o.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            rt.get_mark_match(0), poses, static_cast<int>(poses.size()), 0.1f, iterations);
    }
    int run() {
        rts = rt.get_final_rt_array(0);
        return run(opt, rts);
    }
    // The optimised markers (those not left out) and their true positions.
    void markers(std::vector<Eigen::Vector3d>& est, std::vector<Eigen::Vector3d>& truth) {
        int count = 0;
        const Quill::mcXYZ_Nor_s* recs = opt.get_Mark_data(count);
        for (int i = 0; i < count; ++i) {
            if (recs[i].label >= 0) {
                est.emplace_back(recs[i].x, recs[i].y, recs[i].z);
                truth.push_back(scene[static_cast<int>(recs[i].source_label)].position);
            }
        }
    }
};

sim::FrameOptions options(double sigma, double drop = 0.0) {
    sim::FrameOptions o;
    o.visible = 30;
    o.noiseSigma = sigma;
    o.dropFraction = drop;
    return o;
}

// Distances of `est` from the truth after a rigid best fit of the one onto the other.
std::vector<double> fittedErrors(const std::vector<Eigen::Vector3d>& est,
                                 const std::vector<Eigen::Vector3d>& truth) {
    Eigen::Matrix3Xd A(3, est.size()), B(3, est.size());
    for (std::size_t i = 0; i < est.size(); ++i) {
        A.col(static_cast<Eigen::Index>(i)) = est[i];
        B.col(static_cast<Eigen::Index>(i)) = truth[i];
    }
    const Eigen::Matrix4d T = Eigen::umeyama(A, B, false);
    std::vector<double> errors;
    for (std::size_t i = 0; i < est.size(); ++i) {
        errors.push_back(((T * est[i].homogeneous()).head<3>() - truth[i]).norm());
    }
    return errors;
}

// RMS error per coordinate after the best fit.
double fittedRms(const std::vector<Eigen::Vector3d>& est,
                 const std::vector<Eigen::Vector3d>& truth) {
    double s = 0.0;
    for (double e : fittedErrors(est, truth)) {
        s += e * e;
    }
    return std::sqrt(s / (3.0 * static_cast<double>(est.size())));
}

// The markers reach the noise limit sigma / sqrt(k) of k observations, better than the
// library's running averages; the residual is the noise put in; the relative poses written
// back are at least as good as the registered ones.
TEST(MarkOpt, ModelFromTwoHundredFramesReachesTheNoiseLimitAndRefinesThePoses) {
    const double sigma = 0.02;
    Model m(150, 31);
    const auto frames = m.walk(200, options(sigma, 0.1));
    const auto registered = m.rt.get_final_rt_array(0);
    ASSERT_EQ(m.run(), 1);
    int count = 0;
    const Quill::mcXYZ_Nor_s* recs = m.opt.get_Mark_data(count);
    ASSERT_NE(recs, nullptr);
    std::vector<Eigen::Vector3d> est, raw, truth;
    double bound2 = 0.0;
    for (int i = 0; i < count; ++i) {
        if (recs[i].label < 0) {
            continue;
        }
        EXPECT_EQ(static_cast<int>(recs[i].label), i);
        ASSERT_GE(static_cast<int>(recs[i].source_label), 0);
        est.emplace_back(recs[i].x, recs[i].y, recs[i].z);
        truth.push_back(m.scene[static_cast<int>(recs[i].source_label)].position);
        Quill::mark_data lib;
        ASSERT_TRUE(m.rt.get_mark_match(0)->get_glo_mark(i, lib));
        raw.emplace_back(lib.x, lib.y, lib.z);
        ASSERT_GE(recs[i].frames, 2.0f);
        bound2 += sigma * sigma / recs[i].frames;
    }
    ASSERT_GT(est.size(), 100u);
    const double bound = std::sqrt(bound2 / static_cast<double>(est.size()));
    const double rms = fittedRms(est, truth);
    EXPECT_LT(rms, 1.3 * bound) << "sigma/sqrt(k) = " << bound;
    EXPECT_LT(rms, fittedRms(raw, truth));
    EXPECT_NEAR(m.opt.get_rms(), std::sqrt(3.0) * sigma, 0.3 * sigma);

    // Relative poses (frame k to frame 0) against the truth.
    ASSERT_EQ(m.rts.size(), frames.size());
    auto relErr = [&](const std::vector<Eigen::Matrix4d>& T) {
        double s = 0.0;
        for (std::size_t k = 1; k < frames.size(); ++k) {
            const Eigen::Matrix4d truth = (frames[0].pose.inverse() * frames[k].pose).matrix();
            const Eigen::Matrix4d found = T[0].inverse() * T[k];
            s += (found.topRightCorner<3, 1>() - truth.topRightCorner<3, 1>()).squaredNorm();
        }
        return std::sqrt(s / static_cast<double>(frames.size() - 1));
    };
    EXPECT_LT(relErr(m.rts), relErr(registered));
}

TEST(MarkOpt, GatesAnObservationThatDoesNotFit) {
    Model m(120, 37);
    auto frames = m.gen.walk(60, options(0.01), 10.0, 1.0);
    // One observation 0.4 mm off: still inside the matcher's inlier distance.
    const int victim = frames[5].markers[0].truth;
    frames[5].markers[0].position += Eigen::Vector3d(0.4, 0.0, 0.0);
    for (const auto& f : frames) {
        ASSERT_GT(m.add(f), 0);
    }
    ASSERT_EQ(m.run(), 1);
    std::vector<Eigen::Vector3d> est, truth;
    m.markers(est, truth);
    const auto at = std::find(truth.begin(), truth.end(), m.scene[victim].position);
    ASSERT_NE(at, truth.end());
    // Averaged in, the bad observation would pull the marker by 0.4 / k (k ~ 20): ~0.02 mm.
    EXPECT_LT(fittedErrors(est, truth)[static_cast<std::size_t>(at - truth.begin())], 0.012);
}

TEST(MarkOpt, RefusesWhatItCannotRefine) {
    Quill::MarkOpt_class opt;
    std::vector<Eigen::Matrix4d> none;
    EXPECT_EQ(opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(nullptr, none, 0, 0.1f, 150),
              0);
    int count = -1;
    EXPECT_EQ(opt.get_Mark_data(count), nullptr);
    EXPECT_EQ(count, 0);
    // One frame: nothing is seen twice.
    Model m(100, 39);
    ASSERT_GT(m.add(m.gen.randomFrame(sim::FrameOptions())), 0);
    EXPECT_EQ(m.run(), 0);
    EXPECT_EQ(m.opt.get_Mark_data(count), nullptr);
    // A frame count beyond what is held, or non-finite transforms, are refused too.
    std::vector<Eigen::Matrix4d> bad(1, Eigen::Matrix4d::Constant(std::nan("")));
    EXPECT_EQ(m.run(opt, bad), 0);
}

// `pose` turned by `angle` radians about `axis` through its own origin.
Eigen::Matrix4d turned(const Eigen::Matrix4d& pose, double angle, const Eigen::Vector3d& axis) {
    Eigen::Matrix4d turn = Eigen::Matrix4d::Identity();
    turn.topLeftCorner<3, 3>() = Eigen::AngleAxisd(angle, axis.normalized()).toRotationMatrix();
    return pose * turn;
}

TEST(MarkOpt, AStartFarOffConvergesAndTheIterationLimitIsReported) {
    Model m(150, 41);
    const double sigma = 0.02;
    m.walk(40, options(sigma));
    // Every frame after the first turned by 1 radian: a lever arm of more than a metre.
    std::vector<Eigen::Matrix4d> start = m.rt.get_final_rt_array(0);
    for (std::size_t k = 1; k < start.size(); ++k) {
        start[k] = turned(start[k], 1.0, Eigen::Vector3d(1.0, 2.0, 0.5 * static_cast<double>(k)));
    }
    Quill::MarkOpt_class full, hurried;
    std::vector<Eigen::Matrix4d> a = start, b = start;
    ASSERT_EQ(m.run(full, a), 1);
    EXPECT_TRUE(full.get_converged());
    EXPECT_LT(full.get_iterations(), 20);
    EXPECT_NEAR(full.get_rms(), std::sqrt(3.0) * sigma, 0.3 * sigma);
    // Two steps are not enough from there: the stop is reported, with results delivered.
    EXPECT_EQ(m.run(hurried, b, 2), 2);
    EXPECT_FALSE(hurried.get_converged());
    EXPECT_EQ(hurried.get_iterations(), 2);
    EXPECT_GT(hurried.get_rms(), 2.0 * full.get_rms());
    int count = 0;
    EXPECT_NE(hurried.get_Mark_data(count), nullptr);
    EXPECT_GT(count, 0);
}

TEST(MarkOpt, AnOutlierFrameMakesPlainGaussNewtonDivergeButNotTheControlledSteps) {
    const double sigma = 0.02;
    Model m(100, 41);
    for (const auto& f : m.gen.walk(3, options(sigma), 10.0, 1.0)) {
        ASSERT_GT(m.add(f), 0);
    }
    // The last of three frames starts turned by 2.5 radians about its own origin.
    const std::vector<Eigen::Matrix4d> registered = m.rt.get_final_rt_array(0);
    std::vector<Eigen::Matrix4d> start = registered;
    start.back() = turned(start.back(), 2.5, Eigen::Vector3d(1.0, 2.0, 1.0));
    // Plain Gauss-Newton takes its first step, which raises the cost by orders of magnitude.
    Quill::MarkOpt_class plain, controlled;
    plain.set_step_control(false);
    std::vector<Eigen::Matrix4d> plainPoses = start, poses = start;
    ASSERT_NE(m.run(plain, plainPoses), 0);
    EXPECT_GT(plain.get_rms(), 10.0);
    // The controlled steps reach the noise level and the frame's true pose.
    ASSERT_EQ(m.run(controlled, poses), 1);
    EXPECT_TRUE(controlled.get_converged());
    EXPECT_LT(controlled.get_rms(), 2.0 * sigma);
    const Eigen::Matrix4d truth = registered.front().inverse() * registered.back();
    const Eigen::Matrix4d found = poses.front().inverse() * poses.back();
    EXPECT_LT((found.topLeftCorner<3, 3>() - truth.topLeftCorner<3, 3>()).norm(), 1e-3);
    EXPECT_LT((found.topRightCorner<3, 1>() - truth.topRightCorner<3, 1>()).norm(), 0.5);
}

}  // namespace
