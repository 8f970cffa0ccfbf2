// Figures of the Quill libraries that are not timings.
//
//   quill_figures robustness [trials]   random registrations: success and wrong-acceptance rates
//   quill_figures accuracy              marker-model accuracy against sigma / sqrt(k)
//   quill_figures memory                memory of a 30,000-marker library with its index
#include <unistd.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "BenchMarks.h"
#include "quill/Quill.h"
#include "sim/MarkerScene.h"

namespace {

using bench::toMark;
using bench::trackerSettings;

pcl::PointCloud<pcl::PointNormal> cloudOf(const sim::MarkerScene& s, bool normals) {
    pcl::PointCloud<pcl::PointNormal> cloud;
    for (const auto& m : s.markers()) {
        pcl::PointNormal p;
        p.x = static_cast<float>(m.position.x());
        p.y = static_cast<float>(m.position.y());
        p.z = static_cast<float>(m.position.z());
        p.normal_x = normals ? static_cast<float>(m.normal.x()) : 0.0f;
        p.normal_y = normals ? static_cast<float>(m.normal.y()) : 0.0f;
        p.normal_z = normals ? static_cast<float>(m.normal.z()) : 0.0f;
        p.curvature = 0.0f;
        cloud.push_back(p);
    }
    return cloud;
}

// ---- robustness ----

int robustness(long trials) {
    const auto start = std::chrono::steady_clock::now();
    sim::Rng rng(20240601);
    long unique = 0, uniqueOk = 0, accepted = 0, wrong = 0;
    long gridTrials = 0, gridAccepted = 0, gridWrong = 0;
    long oneOff = 0, viaLibrary = 0;
    const int perScene = 20;
    for (long t = 0; t < trials;) {
        const bool grid = rng.uniform() < 0.1;
        sim::MarkerScene scene;
        if (grid) {
            scene = sim::MarkerScene::grid(rng.uniformInt(8, 30), rng.uniformInt(8, 30),
                                           rng.uniform(15.0, 40.0));
        } else {
            scene = sim::MarkerScene::randomPart(rng.uniformInt(50, 5000), rng.next());
        }
        const bool normals = rng.uniform() < 0.67;
        const bool useLibrary = rng.uniform() < 0.5;
        std::vector<Quill::mark_data> fixed;
        for (int i = 0; i < scene.size(); ++i) {
            fixed.push_back(
                toMark(scene[i].position, normals ? scene[i].normal : Eigen::Vector3d::Zero(), i));
        }
        Quill::MyRealTimeMarkMatch_class rt;
        if (useLibrary) {
            rt.init_all(30000, 5000, 1);
            rt.set_max_count_lib2lib(50);
            trackerSettings(*rt.get_mark_match(0));
            auto cloud = cloudOf(scene, normals);
            rt.get_mark_match(0)->set_glo_mark(cloud, static_cast<int>(cloud.size()));
            rt.set_if_real_time_update_mark(0);
            rt.set_if_real_time_new_add_mark(0);
        }
        sim::FrameGenerator gen(scene, rng.next());
        for (int k = 0; k < perScene && t < trials; ++k, ++t) {
            sim::FrameOptions o;
            o.visible = std::min(rng.uniformInt(6, 60), scene.size());
            o.noiseSigma = 0.05;
            o.dropFraction = rng.uniform(0.0, 0.3);
            o.spuriousFraction = rng.uniform(0.0, 0.3);
            o.withNormals = normals;
            const sim::Frame f = gen.randomFrame(o);
            std::vector<Quill::mark_data> moving;
            for (const auto& m : f.markers)
                moving.push_back(toMark(m.position, m.normal, m.truth));
            int r;
            Eigen::Matrix4d T;
            std::vector<int> flags;
            if (useLibrary) {
                ++viaLibrary;
                r = rt.MarkRegistration_loop(moving.data(), static_cast<int>(moving.size()), 0) >= 1
                        ? 1
                        : 0;
                T = rt.get_final_transform();
                flags = rt.get_final_match_flag();
            } else {
                ++oneOff;
                Quill::MyMatchMarkClass_update m;
                trackerSettings(m);
                r = m.MarkRegistration(moving.data(), static_cast<int>(moving.size()), fixed.data(),
                                       static_cast<int>(fixed.size()), -1, 0);
                T = m.get_final_transform();
                flags = m.get_final_match_flag();
            }
            bool correct = r == 1;
            if (r == 1) {
                for (std::size_t i = 0; i < f.markers.size(); ++i) {
                    const Eigen::Vector3d a = (T * f.markers[i].position.homogeneous()).head<3>();
                    if ((a - f.pose.apply(f.markers[i].position)).norm() > 1.0)
                        correct = false;
                    if (flags[i] >= 0 && flags[i] != f.markers[i].truth)
                        correct = false;
                }
            }
            const bool hasUnique = !grid && f.trueCount() >= 5;
            accepted += r == 1 ? 1 : 0;
            wrong += r == 1 && !correct ? 1 : 0;
            if (hasUnique) {
                ++unique;
                uniqueOk += correct ? 1 : 0;
            }
            if (grid) {
                ++gridTrials;
                gridAccepted += r == 1 ? 1 : 0;
                gridWrong += r == 1 && !correct ? 1 : 0;
            }
        }
    }
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("trials                 %ld (one-off %ld, against an installed library %ld)\n",
                trials, oneOff, viaLibrary);
    std::printf("unique answer exists   %ld\n", unique);
    std::printf("success rate           %.3f %% (%ld of %ld)\n",
                unique ? 100.0 * uniqueOk / unique : 0.0, uniqueOk, unique);
    std::printf("accepted               %ld\n", accepted);
    std::printf("wrong accepted         %ld (%.4f %% of all trials)\n", wrong,
                100.0 * wrong / std::max(1L, trials));
    std::printf("grid trials            %ld: accepted %ld, wrong %ld, refused %ld\n", gridTrials,
                gridAccepted, gridWrong, gridTrials - gridAccepted);
    std::printf("time                   %.1f s\n", secs);
    return wrong == 0 ? 0 : 1;
}

// ---- accuracy ----

void accuracyCase(int partMarkers, int frames, double sigma) {
    const auto scene = sim::MarkerScene::randomPart(partMarkers, 31);
    sim::FrameGenerator gen(scene, 32);
    sim::FrameOptions o;
    o.visible = 30;
    o.noiseSigma = sigma;
    o.dropFraction = 0.1;
    const auto walk = gen.walk(frames, o, 15.0, 1.0);
    Quill::MyRealTimeMarkMatch_class rt;
    rt.init_all(30000, 5000, 1);
    rt.set_max_count_lib2lib(50);
    rt.set_mark_point_w(20);
    trackerSettings(*rt.get_mark_match(0));
    int failed = 0;
    for (const auto& f : walk) {
        std::vector<Quill::mark_data> marks;
        for (const auto& m : f.markers)
            marks.push_back(toMark(m.position, m.normal, m.truth));
        failed +=
            rt.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), 0) < 1 ? 1 : 0;
    }
    Quill::MarkOpt_class opt;
    opt.set_wh(2448, 2048);
    auto rts = rt.get_final_rt_array(0);
    const auto t0 = std::chrono::steady_clock::now();
    const int ok = opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
        rt.get_mark_match(0), rts, static_cast<int>(rts.size()), 0.1f, 150);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    int count = 0;
    const Quill::mcXYZ_Nor_s* recs = opt.get_Mark_data(count);
    std::vector<Eigen::Vector3d> est, truth;
    double bound2 = 0.0;
    double meanK = 0.0;
    for (int i = 0; ok && i < count; ++i) {
        if (recs[i].label < 0 || recs[i].source_label < 0)
            continue;
        est.emplace_back(recs[i].x, recs[i].y, recs[i].z);
        truth.push_back(scene[static_cast<int>(recs[i].source_label)].position);
        bound2 += sigma * sigma / recs[i].frames;
        meanK += recs[i].frames;
    }
    if (est.size() < 3) {
        std::printf("part %d, %d frames: optimiser failed\n", partMarkers, frames);
        return;
    }
    Eigen::Matrix3Xd A(3, est.size()), B(3, est.size());
    for (std::size_t i = 0; i < est.size(); ++i) {
        A.col(static_cast<Eigen::Index>(i)) = est[i];
        B.col(static_cast<Eigen::Index>(i)) = truth[i];
    }
    const Eigen::Matrix4d T = Eigen::umeyama(A, B, false);
    const double rms =
        std::sqrt(((T.topLeftCorner<3, 3>() * A).colwise() + T.topRightCorner<3, 1>() - B)
                      .colwise()
                      .squaredNorm()
                      .mean() /
                  3.0);
    const double bound = std::sqrt(bound2 / static_cast<double>(est.size()));
    std::printf(
        "part %4d markers, %3d frames, sigma %.3f mm: %zu markers, mean k %.1f, RMS %.5f mm per "
        "coordinate, "
        "sigma/sqrt(k) %.5f mm, ratio %.3f (optimiser %.1f ms, %d frames failed)\n",
        partMarkers, frames, sigma, est.size(), meanK / static_cast<double>(est.size()), rms, bound,
        rms / bound, ms, failed);
}

int accuracy() {
    accuracyCase(150, 200, 0.02);
    accuracyCase(100, 200, 0.02);
    accuracyCase(400, 200, 0.02);
    accuracyCase(150, 500, 0.02);
    return 0;
}

// ---- memory ----

double rssMb() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) /
           (1024.0 * 1024.0);
}

int memory() {
    const auto scene = sim::MarkerScene::randomPart(30000, 41);
    const double rawMb = 30000.0 * sizeof(Quill::mark_data) / (1024.0 * 1024.0);
    {
        auto cloud = cloudOf(scene, true);
        const double before = rssMb();
        Quill::MyMatchMarkClass_update m;
        trackerSettings(m);
        m.set_glo_mark(cloud, static_cast<int>(cloud.size()));
        const double after = rssMb();
        std::printf(
            "installed 30,000-marker library: %d markers, %.1f MB held (resident +%.1f MB); "
            "the 30,000 mark_data records alone: %.1f MB, ratio %.2f\n",
            m.get_glo_mark_n(), m.get_memory_bytes() / (1024.0 * 1024.0), after - before, rawMb,
            m.get_memory_bytes() / (1024.0 * 1024.0) / rawMb);
    }
    {
        // A library grown frame by frame: views centred on every fourth marker, in rows. Over a
        // part this large the grown library drifts (nothing closes the loops until the
        // optimiser runs), and frames that straddle two drifted rows are refused.
        std::vector<int> order(static_cast<std::size_t>(scene.size()));
        for (int i = 0; i < scene.size(); ++i)
            order[static_cast<std::size_t>(i)] = i;
        std::sort(order.begin(), order.end(), [&](int a, int b) {
            const auto ra = static_cast<long>(std::floor(scene[a].position.y() / 60.0));
            const auto rb = static_cast<long>(std::floor(scene[b].position.y() / 60.0));
            if (ra != rb)
                return ra < rb;
            return (ra % 2 == 0) ? scene[a].position.x() < scene[b].position.x()
                                 : scene[a].position.x() > scene[b].position.x();
        });
        const double before = rssMb();
        Quill::MyRealTimeMarkMatch_class rt;
        rt.init_all(30000, 5000, 1);
        rt.set_max_count_lib2lib(50);
        rt.set_mark_point_w(20);
        trackerSettings(*rt.get_mark_match(0));
        sim::FrameGenerator gen(scene, 42);
        sim::FrameOptions o;
        o.visible = 30;
        o.noiseSigma = 0.02;
        int frames = 0, failed = 0;
        for (std::size_t k = 0; k < order.size(); k += 4) {
            const sim::Frame f =
                gen.frameAt(scene[order[k]].position, sim::randomMotion(gen.rng(), 1000), o);
            std::vector<Quill::mark_data> marks;
            for (const auto& m : f.markers)
                marks.push_back(toMark(m.position, m.normal, m.truth));
            failed += rt.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), 0) < 1
                          ? 1
                          : 0;
            ++frames;
        }
        const double after = rssMb();
        const auto* g = rt.get_mark_match(0);
        std::printf(
            "grown library: %d frames (%d not registered), %d markers, %.1f MB held with its index "
            "and "
            "observations (resident +%.1f MB), ratio %.2f to the raw records\n",
            frames, failed, g->get_glo_mark_n(), g->get_memory_bytes() / (1024.0 * 1024.0),
            after - before, g->get_memory_bytes() / (1024.0 * 1024.0) / rawMb);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "robustness") {
        const long trials = argc > 2 ? std::atol(argv[2]) : 10000;
        return robustness(trials > 0 ? trials : 10000);
    }
    if (what == "accuracy")
        return accuracy();
    if (what == "memory")
        return memory();
    std::printf("usage: quill_figures robustness [trials] | accuracy | memory\n");
    return 2;
}
