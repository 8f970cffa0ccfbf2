// One-off marker registration against PCL's registrations for sparse point sets, on the same
// scenes: a 300-marker panel, 30 of its markers observed from a random pose with 0.05 mm
// noise, plus 3 spurious points. Each benchmark iteration registers one scene; a scene is
// right when every observed panel marker lands within 1 mm of its true position.
//
//   Peer_Quill                 MarkRegistration (its index built by the call)
//   Peer_PclFpcs               pcl::registration::FPCSInitialAlignment (four-point congruent
//                              sets), given the markers' normals, capped at 1 s per scene
//                              (its time limit is in whole seconds)
//   Peer_PclPrerejective       pcl::SampleConsensusPrerejective on FPFH features computed
//                              from the markers' normals
//
// The table at the end gives each method's success rate and median time per scene, and the
// time ratio to ours.
#include <benchmark/benchmark.h>

#include <pcl/features/fpfh.h>
#include <pcl/registration/ia_fpcs.h>
#include <pcl/registration/sample_consensus_prerejective.h>
#include <pcl/search/kdtree.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "BenchMarks.h"
#include "quill/Quill.h"
#include "sim/MarkerScene.h"

namespace {

using Clock = std::chrono::steady_clock;
using Cloud = pcl::PointCloud<pcl::PointNormal>;

constexpr int kScenes = 20;

struct Scene {
    sim::MarkerScene panel;
    sim::Frame frame;
    std::vector<Quill::mark_data> fixed;
    std::vector<Quill::mark_data> moving;
    Cloud::Ptr target{new Cloud};  // the panel
    Cloud::Ptr source{new Cloud};  // the observed markers, in the sensor's frame
};

pcl::PointNormal toPoint(const Eigen::Vector3d& p, const Eigen::Vector3d& n) {
    pcl::PointNormal q;
    q.x = static_cast<float>(p.x());
    q.y = static_cast<float>(p.y());
    q.z = static_cast<float>(p.z());
    q.normal_x = static_cast<float>(n.x());
    q.normal_y = static_cast<float>(n.y());
    q.normal_z = static_cast<float>(n.z());
    q.curvature = 0.0f;
    return q;
}

const std::vector<Scene>& scenes() {
    static const std::vector<Scene> all = [] {
        std::vector<Scene> out(kScenes);
        for (int s = 0; s < kScenes; ++s) {
            Scene& sc = out[static_cast<std::size_t>(s)];
            sc.panel = sim::MarkerScene::randomPart(300, 9100 + static_cast<std::uint64_t>(s));
            for (int i = 0; i < sc.panel.size(); ++i) {
                sc.fixed.push_back(bench::toMark(sc.panel[i].position, sc.panel[i].normal, i));
                sc.target->push_back(toPoint(sc.panel[i].position, sc.panel[i].normal));
            }
            sim::FrameGenerator gen(sc.panel, 9200 + static_cast<std::uint64_t>(s));
            sim::FrameOptions o;
            o.visible = 30;
            o.noiseSigma = 0.05;
            o.spuriousFraction = 0.1;  // 3 spurious points
            sc.frame = gen.randomFrame(o);
            for (const auto& m : sc.frame.markers) {
                sc.moving.push_back(bench::toMark(m.position, m.normal, m.truth));
                sc.source->push_back(toPoint(m.position, m.normal));
            }
        }
        return out;
    }();
    return all;
}

// Does T (sensor frame -> panel) put every observed panel marker within 1 mm of the truth?
bool isRight(const Scene& sc, const Eigen::Matrix4d& T) {
    for (const auto& m : sc.frame.markers) {
        if (m.truth < 0)
            continue;
        const Eigen::Vector3d a = (T * m.position.homogeneous()).head<3>();
        if ((a - sc.frame.pose.apply(m.position)).norm() > 1.0)
            return false;
    }
    return true;
}

// Runs `reg(scene, T)` once per iteration over the scenes; reports success and the median.
template <class Reg>
void runScenes(benchmark::State& state, Reg&& reg) {
    const auto& all = scenes();
    std::vector<double> ms;
    int right = 0;
    std::size_t i = 0;
    for (auto _ : state) {
        const Scene& sc = all[i++ % all.size()];
        Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
        const auto t0 = Clock::now();
        const bool ok = reg(sc, T);
        const auto t1 = Clock::now();
        const double sec = std::chrono::duration<double>(t1 - t0).count();
        state.SetIterationTime(sec);
        ms.push_back(sec * 1e3);
        right += ok && isRight(sc, T) ? 1 : 0;
    }
    std::sort(ms.begin(), ms.end());
    state.counters["p50_ms"] = ms.empty() ? 0.0 : ms[ms.size() / 2];
    state.counters["right"] = right;
    state.counters["scenes"] = static_cast<double>(ms.size());
}

void BM_Peer_Quill(benchmark::State& state) {
    Quill::MyMatchMarkClass_update m;
    bench::trackerSettings(m);
    runScenes(state, [&](const Scene& sc, Eigen::Matrix4d& T) {
        auto moving = sc.moving;
        auto fixed = sc.fixed;
        const int r = m.MarkRegistration(moving.data(), static_cast<int>(moving.size()),
                                         fixed.data(), static_cast<int>(fixed.size()), -1, 0);
        T = m.get_final_transform();
        return r == 1;
    });
}

void BM_Peer_PclFpcs(benchmark::State& state) {
    runScenes(state, [&](const Scene& sc, Eigen::Matrix4d& T) {
        // FPCS draws its four-point bases from the target and sizes them by the target's
        // extent: the observed markers are the target, the panel is searched for congruent
        // sets, and the result (panel -> sensor) is inverted.
        pcl::registration::FPCSInitialAlignment<pcl::PointNormal, pcl::PointNormal,
                                                pcl::PointNormal>
            fpcs;
        fpcs.setInputSource(sc.target);
        fpcs.setInputTarget(sc.source);
        fpcs.setSourceNormals(sc.target);
        fpcs.setTargetNormals(sc.source);
        fpcs.setApproxOverlap(0.9f);
        fpcs.setDelta(0.5f, false);
        fpcs.setMaxNormalDifference(20.0f);
        // At best 30 of the panel's 300 markers are seen (a score of 0.9 outliers): stop at
        // the first candidate that explains at least 24 of them, else at the time limit.
        fpcs.setScoreThreshold(0.92f);
        fpcs.setNumberOfThreads(1);
        fpcs.setMaxComputationTime(1);
        Cloud out;
        fpcs.align(out);
        T = fpcs.getFinalTransformation().cast<double>().inverse();
        return fpcs.hasConverged();
    });
}

void BM_Peer_PclPrerejective(benchmark::State& state) {
    using Features = pcl::PointCloud<pcl::FPFHSignature33>;
    runScenes(state, [&](const Scene& sc, Eigen::Matrix4d& T) {
        // FPFH over each set's markers within about three marker spacings.
        auto describe = [](const Cloud::Ptr& cloud) {
            pcl::FPFHEstimation<pcl::PointNormal, pcl::PointNormal, pcl::FPFHSignature33> fe;
            Features::Ptr f(new Features);
            fe.setInputCloud(cloud);
            fe.setInputNormals(cloud);
            fe.setSearchMethod(pcl::search::KdTree<pcl::PointNormal>::Ptr(
                new pcl::search::KdTree<pcl::PointNormal>));
            fe.setRadiusSearch(70.0);
            fe.compute(*f);
            return f;
        };
        const Features::Ptr fs = describe(sc.source);
        const Features::Ptr ft = describe(sc.target);
        pcl::SampleConsensusPrerejective<pcl::PointNormal, pcl::PointNormal, pcl::FPFHSignature33>
            scp;
        scp.setInputSource(sc.source);
        scp.setSourceFeatures(fs);
        scp.setInputTarget(sc.target);
        scp.setTargetFeatures(ft);
        scp.setMaximumIterations(50000);
        scp.setNumberOfSamples(3);
        scp.setCorrespondenceRandomness(20);
        scp.setSimilarityThreshold(0.9f);
        scp.setMaxCorrespondenceDistance(0.5);
        scp.setInlierFraction(0.5f);
        Cloud out;
        scp.align(out);
        T = scp.getFinalTransformation().cast<double>();
        return scp.hasConverged();
    });
}

BENCHMARK(BM_Peer_Quill)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(kScenes * 50);
BENCHMARK(BM_Peer_PclFpcs)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(kScenes);
BENCHMARK(BM_Peer_PclPrerejective)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(kScenes);

class TableReporter : public benchmark::ConsoleReporter {
public:
    struct Row {
        double right = 0, scenes = 0, p50 = 0;
    };
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs) {
            Row row;
            const auto get = [&](const char* k) {
                const auto it = r.counters.find(k);
                return it == r.counters.end() ? 0.0 : it->second.value;
            };
            row.right = get("right");
            row.scenes = get("scenes");
            row.p50 = get("p50_ms");
            std::string name = r.benchmark_name();
            name = name.substr(0, name.find('/'));
            rows_.emplace_back(name, row);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void printTable() const {
        double ours = 0.0;
        for (const auto& [name, row] : rows_) {
            if (name == "BM_Peer_Quill")
                ours = row.p50;
        }
        std::printf("\n%-26s %14s %16s %14s\n", "method", "right of runs", "median ms/scene",
                    "time ratio");
        for (const auto& [name, row] : rows_) {
            std::printf("%-26s %6.0f of %-5.0f %16.4f %13.0fx\n", name.c_str(), row.right,
                        row.scenes, row.p50, ours > 0.0 ? row.p50 / ours : 0.0);
        }
    }

private:
    std::vector<std::pair<std::string, Row>> rows_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    scenes();
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printTable();
    benchmark::Shutdown();
    return 0;
}
