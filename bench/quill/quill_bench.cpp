// Speed of the Quill matchers and optimiser, each against a baseline run in the same
// process; the ratios are printed after the runs.
//
//   RealTimeLoop        a 30-marker frame against a 5,000-marker library (new markers added)
//   OneOff              MarkRegistration of a 30-marker frame against a 300-marker reference,
//                       its index built by the call
//   *_NaiveAllTriplets  RANSAC testing every library triplet per sampled frame triplet
//   *_NaivePairPruned   the same with the obvious early exit on the first side
//   Optimiser           500 frames of 30 markers, against plain alternating least squares
//   Query_*             the spatial index choice: hash grid against PCL's kd-tree
#include <benchmark/benchmark.h>

#include <pcl/kdtree/kdtree_flann.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>

#include "BenchMarks.h"
#include "HashGrid.h"
#include "NaiveRansac.h"
#include "quill/Quill.h"
#include "sim/MarkerScene.h"

namespace {

using bench::toMark;
using bench::trackerSettings;

using Clock = std::chrono::steady_clock;

std::vector<Quill::mark_data> frameMarks(const sim::Frame& f) {
    std::vector<Quill::mark_data> out;
    for (const auto& o : f.markers)
        out.push_back(toMark(o.position, o.normal, o.truth));
    return out;
}

// Per-call times of a benchmark, reported as median and 99th percentile counters.
void reportPercentiles(benchmark::State& state, std::vector<double>& ms) {
    if (ms.empty())
        return;
    std::sort(ms.begin(), ms.end());
    state.counters["p50_ms"] = ms[ms.size() / 2];
    state.counters["p99_ms"] = ms[std::min(ms.size() - 1, ms.size() * 99 / 100)];
}

sim::FrameOptions frameOptions() {
    sim::FrameOptions o;
    o.visible = 30;
    o.noiseSigma = 0.05;
    return o;
}

// ---- real-time loop against a 5,000-marker library ----

struct LoopSetup {
    sim::MarkerScene scene = sim::MarkerScene::randomPart(6000, 501);
    std::vector<std::vector<Quill::mark_data>> frames;
    std::vector<sim::Frame> truth;
    LoopSetup() {
        sim::FrameGenerator gen(scene, 502);
        for (int i = 0; i < 2000; ++i) {
            truth.push_back(gen.randomFrame(frameOptions()));
            frames.push_back(frameMarks(truth.back()));
        }
    }
    // A library of 5,000 of the scene's markers: frames also see the other 1,000, which the
    // loop adds as new markers.
    void install(Quill::MyRealTimeMarkMatch_class& rt) const {
        rt.init_all(30000, 5000, 1);
        rt.set_max_count_lib2lib(50);
        rt.set_mark_point_w(20);
        trackerSettings(*rt.get_mark_match(0));
        pcl::PointCloud<pcl::PointNormal> cloud;
        for (int i = 0; i < scene.size(); ++i) {
            if (i % 6 == 5)
                continue;
            pcl::PointNormal p;
            p.x = static_cast<float>(scene[i].position.x());
            p.y = static_cast<float>(scene[i].position.y());
            p.z = static_cast<float>(scene[i].position.z());
            p.normal_x = static_cast<float>(scene[i].normal.x());
            p.normal_y = static_cast<float>(scene[i].normal.y());
            p.normal_z = static_cast<float>(scene[i].normal.z());
            p.curvature = 0.0f;
            cloud.push_back(p);
        }
        rt.get_mark_match(0)->set_glo_mark(cloud, static_cast<int>(cloud.size()));
        rt.set_if_real_time_update_mark(1);
        rt.set_if_real_time_new_add_mark(1);
        rt.set_if_only_match_from_glomark(1);
        rt.set_if_use_temporary_library(0);
    }
};

const LoopSetup& loopSetup() {
    static const LoopSetup s;
    return s;
}

void BM_RealTimeLoop(benchmark::State& state) {
    const LoopSetup& s = loopSetup();
    Quill::MyRealTimeMarkMatch_class rt;
    s.install(rt);
    std::vector<double> ms;
    std::size_t i = 0;
    int failed = 0;
    for (auto _ : state) {
        auto marks = s.frames[i % s.frames.size()];
        const auto t0 = Clock::now();
        const int r = rt.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), 0);
        const auto t1 = Clock::now();
        failed += r < 1 ? 1 : 0;
        const double sec = std::chrono::duration<double>(t1 - t0).count();
        state.SetIterationTime(sec);
        ms.push_back(sec * 1e3);
        ++i;
    }
    reportPercentiles(state, ms);
    state.counters["failed"] = failed;
    state.counters["library"] = rt.get_mark_match(0)->get_glo_mark_n();
}
BENCHMARK(BM_RealTimeLoop)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(2000);

void BM_RealTimeLoop_NaivePairPruned(benchmark::State& state) {
    const LoopSetup& s = loopSetup();
    std::vector<Eigen::Vector3d> lib;
    for (int i = 0; i < s.scene.size(); ++i) {
        if (i % 6 != 5)
            lib.push_back(s.scene[i].position);
    }
    std::size_t i = 0;
    for (auto _ : state) {
        const sim::Frame& f = s.truth[i++ % s.truth.size()];
        std::vector<Eigen::Vector3d> mv;
        for (const auto& o : f.markers)
            mv.push_back(o.position);
        benchmark::DoNotOptimize(naive::ransac(mv, lib, true, i));
    }
}
BENCHMARK(BM_RealTimeLoop_NaivePairPruned)->Unit(benchmark::kMicrosecond)->Iterations(3);

// ---- one-off registration against a 300-marker reference ----

struct OneOffSetup {
    sim::MarkerScene scene = sim::MarkerScene::randomPart(300, 601);
    std::vector<Quill::mark_data> fixed;
    std::vector<Eigen::Vector3d> fixedPts;
    std::vector<sim::Frame> truth;
    std::vector<std::vector<Quill::mark_data>> frames;
    OneOffSetup() {
        for (int i = 0; i < scene.size(); ++i) {
            fixed.push_back(toMark(scene[i].position, scene[i].normal, i));
            fixedPts.push_back(scene[i].position);
        }
        sim::FrameGenerator gen(scene, 602);
        for (int i = 0; i < 500; ++i) {
            truth.push_back(gen.randomFrame(frameOptions()));
            frames.push_back(frameMarks(truth.back()));
        }
    }
};

const OneOffSetup& oneOffSetup() {
    static const OneOffSetup s;
    return s;
}

void BM_OneOff(benchmark::State& state) {
    const OneOffSetup& s = oneOffSetup();
    Quill::MyMatchMarkClass_update m;
    trackerSettings(m);
    auto fixed = s.fixed;
    std::vector<double> ms;
    std::size_t i = 0;
    int failed = 0;
    for (auto _ : state) {
        auto marks = s.frames[i++ % s.frames.size()];
        const auto t0 = Clock::now();
        const int r = m.MarkRegistration(marks.data(), static_cast<int>(marks.size()), fixed.data(),
                                         static_cast<int>(fixed.size()), -1, 0);
        const auto t1 = Clock::now();
        failed += r != 1 ? 1 : 0;
        const double sec = std::chrono::duration<double>(t1 - t0).count();
        state.SetIterationTime(sec);
        ms.push_back(sec * 1e3);
    }
    reportPercentiles(state, ms);
    state.counters["failed"] = failed;
}
BENCHMARK(BM_OneOff)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(2000);

void naiveOneOff(benchmark::State& state, bool pairPruned) {
    const OneOffSetup& s = oneOffSetup();
    std::size_t i = 0;
    int wrong = 0;
    for (auto _ : state) {
        const sim::Frame& f = s.truth[i++ % s.truth.size()];
        std::vector<Eigen::Vector3d> mv;
        for (const auto& o : f.markers)
            mv.push_back(o.position);
        const naive::Result r = naive::ransac(mv, s.fixedPts, pairPruned, i);
        const Eigen::Vector3d p = mv[0];
        wrong += ((r.T.topLeftCorner<3, 3>() * p + r.T.topRightCorner<3, 1>()) - f.pose.apply(p))
                     .norm() > 1.0;
    }
    state.counters["wrong"] = wrong;
}
void BM_OneOff_NaiveAllTriplets(benchmark::State& state) {
    naiveOneOff(state, false);
}
void BM_OneOff_NaivePairPruned(benchmark::State& state) {
    naiveOneOff(state, true);
}
BENCHMARK(BM_OneOff_NaiveAllTriplets)->Unit(benchmark::kMicrosecond)->Iterations(5);
BENCHMARK(BM_OneOff_NaivePairPruned)->Unit(benchmark::kMicrosecond)->Iterations(50);

// ---- optimiser: 500 frames of 30 markers ----

struct ModelSetup {
    sim::MarkerScene scene = sim::MarkerScene::randomPart(300, 701);
    std::vector<sim::Frame> frames;
    Quill::MyRealTimeMarkMatch_class rt;
    std::vector<Eigen::Matrix4d> rts;
    ModelSetup() {
        sim::FrameGenerator gen(scene, 702);
        sim::FrameOptions o = frameOptions();
        o.noiseSigma = 0.02;
        frames = gen.walk(500, o, 15.0, 1.0);
        rt.init_all(30000, 5000, 1);
        trackerSettings(*rt.get_mark_match(0));
        for (const auto& f : frames) {
            auto marks = frameMarks(f);
            rt.MarkRegistration_loop(marks.data(), static_cast<int>(marks.size()), 0);
        }
        rts = rt.get_final_rt_array(0);
    }
};

ModelSetup& modelSetup() {
    static ModelSetup s;
    return s;
}

// Runs of an optimiser that has run before (as the tracker's, which lives from the library's
// start to its end): one untimed run first, so that its buffers exist.
void BM_Optimiser(benchmark::State& state) {
    ModelSetup& s = modelSetup();
    Quill::MarkOpt_class opt;
    opt.set_wh(2448, 2048);
    {
        auto rts = s.rts;
        opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            s.rt.get_mark_match(0), rts, static_cast<int>(rts.size()), 0.1f, 150);
    }
    for (auto _ : state) {
        auto rts = s.rts;
        benchmark::DoNotOptimize(opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            s.rt.get_mark_match(0), rts, static_cast<int>(rts.size()), 0.1f, 150));
    }
    state.counters["frames"] = static_cast<double>(s.rts.size());
    state.counters["iterations"] = opt.get_iterations();
}
BENCHMARK(BM_Optimiser)->Unit(benchmark::kMillisecond)->Iterations(5);

// The same run on a fresh optimiser each time: the first run of an optimiser also pays for
// the memory its buffers take (page faults), which later runs of a similar size reuse.
void BM_Optimiser_FirstRun(benchmark::State& state) {
    ModelSetup& s = modelSetup();
    for (auto _ : state) {
        Quill::MarkOpt_class opt;
        opt.set_wh(2448, 2048);
        auto rts = s.rts;
        benchmark::DoNotOptimize(opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            s.rt.get_mark_match(0), rts, static_cast<int>(rts.size()), 0.1f, 150));
    }
}
BENCHMARK(BM_Optimiser_FirstRun)->Unit(benchmark::kMillisecond)->Iterations(5);

// The same run with every Gauss-Newton step taken as it comes: what the step control costs.
void BM_Optimiser_PlainSteps(benchmark::State& state) {
    ModelSetup& s = modelSetup();
    Quill::MarkOpt_class opt;
    opt.set_wh(2448, 2048);
    opt.set_step_control(false);
    for (auto _ : state) {
        auto rts = s.rts;
        benchmark::DoNotOptimize(opt.Run_FastKeyGlobalRegistrtion_MarkPoint_nCam_Global(
            s.rt.get_mark_match(0), rts, static_cast<int>(rts.size()), 0.1f, 150));
    }
    state.counters["iterations"] = opt.get_iterations();
}
BENCHMARK(BM_Optimiser_PlainSteps)->Unit(benchmark::kMillisecond)->Iterations(5);

// Plain alternating least squares on the same observations (grouped by the scene truth):
// poses by Kabsch from the current markers, markers as means, 150 rounds.
void BM_Optimiser_NaiveALS(benchmark::State& state) {
    ModelSetup& s = modelSetup();
    for (auto _ : state) {
        std::vector<Eigen::Matrix4d> T = s.rts;
        std::vector<Eigen::Vector3d> X(static_cast<std::size_t>(s.scene.size()),
                                       Eigen::Vector3d::Zero());
        std::vector<int> cnt(X.size(), 0);
        for (int round = 0; round < 150; ++round) {
            std::fill(X.begin(), X.end(), Eigen::Vector3d::Zero());
            std::fill(cnt.begin(), cnt.end(), 0);
            for (std::size_t f = 0; f < s.frames.size(); ++f) {
                for (const auto& o : s.frames[f].markers) {
                    X[static_cast<std::size_t>(o.truth)] +=
                        T[f].topLeftCorner<3, 3>() * o.position + T[f].topRightCorner<3, 1>();
                    ++cnt[static_cast<std::size_t>(o.truth)];
                }
            }
            for (std::size_t j = 0; j < X.size(); ++j) {
                if (cnt[j] > 0)
                    X[j] /= cnt[j];
            }
            for (std::size_t f = 0; f < s.frames.size(); ++f) {
                Eigen::Matrix3Xd A(3, s.frames[f].markers.size()), B(3, s.frames[f].markers.size());
                for (std::size_t k = 0; k < s.frames[f].markers.size(); ++k) {
                    A.col(static_cast<Eigen::Index>(k)) = s.frames[f].markers[k].position;
                    B.col(static_cast<Eigen::Index>(k)) =
                        X[static_cast<std::size_t>(s.frames[f].markers[k].truth)];
                }
                T[f] = Eigen::umeyama(A, B, false);
            }
        }
        benchmark::DoNotOptimize(X.data());
    }
}
BENCHMARK(BM_Optimiser_NaiveALS)->Unit(benchmark::kMillisecond)->Iterations(2);

// ---- the spatial index: 30 inlier queries against 5,000 markers, and growth ----

struct IndexSetup {
    std::vector<Eigen::Vector3d> pts;
    std::vector<Eigen::Vector3d> queries;
    pcl::PointCloud<pcl::PointXYZ>::Ptr cloud{new pcl::PointCloud<pcl::PointXYZ>};
    IndexSetup() {
        const auto scene = sim::MarkerScene::randomPart(5000, 801);
        sim::Rng rng(802);
        for (const auto& m : scene.markers()) {
            pts.push_back(m.position);
            cloud->push_back(pcl::PointXYZ(static_cast<float>(m.position.x()),
                                           static_cast<float>(m.position.y()),
                                           static_cast<float>(m.position.z())));
        }
        for (int i = 0; i < 30; ++i) {
            queries.push_back(pts[static_cast<std::size_t>(rng.uniformInt(0, 4999))] +
                              Eigen::Vector3d(rng.normal(), rng.normal(), rng.normal()) * 0.1);
        }
    }
};

const IndexSetup& indexSetup() {
    static const IndexSetup s;
    return s;
}

void BM_Query_HashGrid(benchmark::State& state) {
    const IndexSetup& s = indexSetup();
    Quill::detail::HashGrid grid(2.0);
    for (std::size_t i = 0; i < s.pts.size(); ++i)
        grid.insert(static_cast<int>(i), s.pts[i]);
    for (auto _ : state) {
        int found = 0;
        for (const auto& q : s.queries) {
            grid.forEachNear(q, 0.5, [&](int id) {
                found += (s.pts[static_cast<std::size_t>(id)] - q).squaredNorm() <= 0.25;
            });
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Query_HashGrid)->Unit(benchmark::kMicrosecond);

void BM_Query_PclKdTree(benchmark::State& state) {
    const IndexSetup& s = indexSetup();
    pcl::KdTreeFLANN<pcl::PointXYZ> tree;
    tree.setInputCloud(s.cloud);
    std::vector<int> idx(1);
    std::vector<float> d2(1);
    for (auto _ : state) {
        int found = 0;
        for (const auto& q : s.queries) {
            const pcl::PointXYZ p(static_cast<float>(q.x()), static_cast<float>(q.y()),
                                  static_cast<float>(q.z()));
            found += tree.nearestKSearch(p, 1, idx, d2) > 0 && d2[0] <= 0.25f;
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Query_PclKdTree)->Unit(benchmark::kMicrosecond);

// Growth by five markers: the grid inserts them, the kd-tree must be rebuilt.
void BM_Grow_HashGrid(benchmark::State& state) {
    const IndexSetup& s = indexSetup();
    Quill::detail::HashGrid grid(2.0);
    for (std::size_t i = 0; i < s.pts.size(); ++i)
        grid.insert(static_cast<int>(i), s.pts[i]);
    int next = static_cast<int>(s.pts.size());
    for (auto _ : state) {
        for (int k = 0; k < 5; ++k) {
            grid.insert(next, s.queries[static_cast<std::size_t>(k)] +
                                  Eigen::Vector3d(0, 0, 1000.0 + next));
            ++next;
        }
    }
}
BENCHMARK(BM_Grow_HashGrid)->Unit(benchmark::kMicrosecond);

void BM_Grow_PclKdTree(benchmark::State& state) {
    const IndexSetup& s = indexSetup();
    pcl::PointCloud<pcl::PointXYZ>::Ptr cloud(new pcl::PointCloud<pcl::PointXYZ>(*s.cloud));
    for (auto _ : state) {
        for (int k = 0; k < 5; ++k)
            cloud->push_back(pcl::PointXYZ(0, 0, static_cast<float>(k)));
        pcl::KdTreeFLANN<pcl::PointXYZ> tree;
        tree.setInputCloud(cloud);
        benchmark::DoNotOptimize(tree.getInputCloud());
        cloud->resize(s.cloud->size());
    }
}
BENCHMARK(BM_Grow_PclKdTree)->Unit(benchmark::kMicrosecond);

// Keeps the per-benchmark times (median where reported) to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs) {
            const auto it = r.counters.find("p50_ms");
            times_[r.benchmark_name()] = it != r.counters.end()
                                             ? it->second.value * 1e-3
                                             : r.GetAdjustedRealTime() * unitSeconds(r.time_unit);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void printRatio(const std::string& fast, const std::string& slow) const {
        const auto a = times_.find(fast);
        const auto b = times_.find(slow);
        if (a == times_.end() || b == times_.end() || a->second <= 0.0)
            return;
        std::printf("%-34s %10.4f ms   %-36s %12.4f ms   ratio %8.1fx\n", fast.c_str(),
                    a->second * 1e3, slow.c_str(), b->second * 1e3, b->second / a->second);
    }

private:
    static double unitSeconds(benchmark::TimeUnit u) {
        switch (u) {
            case benchmark::kNanosecond:
                return 1e-9;
            case benchmark::kMicrosecond:
                return 1e-6;
            case benchmark::kMillisecond:
                return 1e-3;
            default:
                return 1.0;
        }
    }
    std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nRatios (median per call where measured, else mean):\n");
    reporter.printRatio("BM_RealTimeLoop/iterations:2000/manual_time",
                        "BM_RealTimeLoop_NaivePairPruned/iterations:3");
    reporter.printRatio("BM_OneOff/iterations:2000/manual_time",
                        "BM_OneOff_NaiveAllTriplets/iterations:5");
    reporter.printRatio("BM_OneOff/iterations:2000/manual_time",
                        "BM_OneOff_NaivePairPruned/iterations:50");
    reporter.printRatio("BM_Optimiser/iterations:5", "BM_Optimiser_NaiveALS/iterations:2");
    reporter.printRatio("BM_Query_HashGrid", "BM_Query_PclKdTree");
    reporter.printRatio("BM_Grow_HashGrid", "BM_Grow_PclKdTree");
    benchmark::Shutdown();
    return 0;
}
