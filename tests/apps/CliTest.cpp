// The `pathfinder` program end to end: every subcommand against consoles it starts on free
// ports (or one the test starts), with the error paths a new user meets.
#include <gtest/gtest.h>
#include <pcl/io/ply_io.h>
#include <pcl/point_types.h>

#include <mutex>
#include <thread>

#include "Geometry.h"
#include "HostTestSupport.h"
#include "host/Files.h"

namespace host {
namespace {

class HostCli : public WithFolder {
protected:
    // The console's truth of a scene, exported into `dir`.
    void exportTruth(const std::string& dir, const std::vector<std::string>& sceneArgs) {
        std::vector<std::string> args{"--export-truth", dir};
        args.insert(args.end(), sceneArgs.begin(), sceneArgs.end());
        ASSERT_EQ(run(consoleProgram(), args).code, 0);
    }
};

// Help, bad command lines, bad files, a missing console and unwritable folders: the text or the
// one line naming the problem, and the exit code that goes with it, before anything starts.
TEST_F(HostCli, EveryRefusalIsOneLineWithItsExitCodeBeforeAnythingStarts) {
    std::ofstream(path("file")) << "x";
    std::ofstream(path("bad.bin"), std::ios::binary) << std::string(151, '\0');
    std::ofstream(path("bad.json")) << "{\"PF\": 0.2, \"XY\": 1}";
    const std::string console = path("no/lumora_console");
    const std::vector<std::tuple<int, std::string, std::vector<std::string>>> cases{
        {0, "--cascade", {"scan", "--help"}},  // every subcommand has one (CLI11)
        {0, "--limit-sd", {"verify", "--help"}},
        {0, "Exit codes", {"--help"}},
        {2, "", {}},
        {2, "--out is required", {"scan"}},
        {2, "excludes", {"scan", "--out", path("u"), "--frames", "5", "--seconds", "2"}},
        {2, "wood", {"scan", "--out", path("u"), "--object", "wood"}},
        {2, "sideways", {"calibrate", "--mode", "sideways"}},
        {2, "not an endpoint (host:port): nowhere:port", {"devices", "--endpoint", "nowhere:port"}},
        {7, "output folder not writable: " + path("file"), {"scan", "--out", path("file") + "/s"}},
        {5, "bad.bin: not a cascade", {"scan", "--out", path("o"), "--cascade", path("bad.bin")}},
        {5, "cannot read the recording", {"scan", "--out", path("o"), "--replay", path("no.rec")}},
        {5, "not a cascade file (151 bytes", {"cascade", "show", path("bad.bin")}},
        {5, "cannot read " + path("missing.bin"), {"cascade", "show", path("missing.bin")}},
        {5,
         path("t/part.ply"),
         {"markers", "--out", path("m"), "--truth", path("t"), "--no-start"}},
        {5, "cannot read " + path("missing.dbg"), {"config", path("missing.dbg")}},
        {5, "characteristic XY", {"verify", "--out", path("o"), "--limits", path("bad.json")}},
        {3, "pathfinder: console missing: " + console, {"devices", "--console", console}},
        {3,
         "console missing: nothing answers at 127.0.0.1:1",
         {"scan", "--out", path("o"), "--no-start", "--endpoint", "127.0.0.1:1"}}};
    for (const auto& c : cases) {
        const Outcome r = pathfinder(std::get<2>(c));
        EXPECT_EQ(r.code, std::get<0>(c)) << r.out;
        EXPECT_TRUE(r.has(std::get<1>(c))) << r.out;
        EXPECT_FALSE(r.has("starting the console")) << r.out;
    }
    EXPECT_FALSE(std::filesystem::exists(path("u")));
}

TEST_F(HostCli, DevicesListsTheConsolesDevicesAndEndsOnlyItsOwnConsole) {
    // A console the user already runs is used and left running.
    platform::ChildProcess theirs;
    std::mutex m;
    std::string endpoint, error;
    ASSERT_TRUE(theirs.start(
        consoleProgram(),
        {"--endpoint", "127.0.0.1:0", "--no-stdin", "--tracker-id", "TRK0077", "--heartbeat-ms",
         "100"},
        [&](const std::string& line) {
            std::lock_guard<std::mutex> lock(m);
            if (endpoint.empty() && line.find("listening on ") != std::string::npos) {
                endpoint = line.substr(line.find("listening on ") + 13);
            }
        },
        error))
        << error;
    const auto listening = [&] {
        std::lock_guard<std::mutex> lock(m);
        return endpoint;
    };
    for (int i = 0; i < 500 && listening().empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Outcome r = pathfinder({"devices", "--wait", "3"}, "LUMORA_ENDPOINT=" + listening());
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(r.has("using the console that answers at " + listening())) << r.out;
    EXPECT_TRUE(r.has("TRK0077      tracker   0      ready")) << r.out;
    EXPECT_TRUE(r.has("SCN0001      scanner")) << r.out;
    EXPECT_TRUE(r.has("low-part firmware 1.4.2")) << r.out;
    EXPECT_TRUE(theirs.alive());

    // A console of its own: the scene options reach it, and it is gone afterwards.
    r = pathfinder({"devices", "--wait", "3", "--console-arg=--tracker-model=2",
                    "--console-arg=--lowpart-version=2.0.7"});
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(r.has("TRK0001      tracker   2      ready")) << r.out;
    EXPECT_TRUE(r.has("low-part firmware 2.0.7")) << r.out;
    EXPECT_TRUE(r.has("    31.")) << r.out;  // the simulated tracker's temperature, 31 C
    const size_t at = r.out.find("endpoint 127.0.0.1:");
    ASSERT_NE(at, std::string::npos) << r.out;
    const auto port = static_cast<uint16_t>(std::atoi(r.out.c_str() + at + 19));
    EXPECT_FALSE(platform::endpointAnswers("127.0.0.1", port, 300)) << r.out;
    EXPECT_TRUE(theirs.alive());
}

TEST_F(HostCli, ARejectedTriggerIsADeviceErrorInOneLine) {
    const Outcome r = pathfinder({"scan", "--out", path("s"), "--frames", "10",
                                  "--console-arg=--setup=answer setTrigger 3"});
    EXPECT_EQ(r.code, 4) << r.out;
    const size_t at = r.out.find("pathfinder: ");
    ASSERT_NE(at, std::string::npos) << r.out;
    const std::string line = r.out.substr(at, r.out.find('\n', at) - at);
    EXPECT_NE(line.find("the device rejected the trigger (result 12)"), std::string::npos) << line;
}

TEST_F(HostCli, AReplayedRecordingGivesTheFramesOfTheLiveScan) {
    const std::string rec = path("live.rec");
    // The true matrices are imported, so that the recording holds the scan alone (a measured
    // session also records the measurement's tracker frames, which a replay delivers).
    exportTruth(path("truth"), {});
    const Outcome live = pathfinder({"scan", "--out", path("live"), "--frames", "30", "--cascade",
                                     path("truth/cascade.bin"), "--console-arg=--record=" + rec});
    ASSERT_TRUE(std::filesystem::exists(rec)) << live.out;
    const Outcome replay = pathfinder({"scan", "--out", path("replay"), "--replay", rec});
    EXPECT_TRUE(replay.has("replaying")) << replay.out;
    EXPECT_EQ(replay.code, live.code) << live.out << replay.out;
    for (const char* key : {"frames", "points"}) {
        EXPECT_EQ(readJson(path("replay/summary.json")).at(key),
                  readJson(path("live/summary.json")).at(key));
    }
    std::ofstream(path("bad.rec"), std::ios::binary) << "not a recording";
    const Outcome bad = pathfinder({"scan", "--out", path("bad"), "--replay", path("bad.rec")});
    EXPECT_EQ(bad.code, 5) << bad.out;
    EXPECT_TRUE(bad.has("cannot replay " + path("bad.rec"))) << bad.out;
}

// Listing, reading, changing and an unknown key, each answered in full; the file keeps its
// notes and layout, and a refused change leaves it alone.
TEST_F(HostCli, ConfigReadsAndChangesKeysKeepingNotesAndLayout) {
    const std::string file = path("Debug.dbg");
    std::ofstream(file) << "# switches\nSaveScanFrame = false   # frames to disk\n\nLevel: 3\n";
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> steps{
        {{file}, 0, "Level = 3\nSaveScanFrame = false\n"},
        {{file, "Level"}, 0, "3\n"},
        {{file, "SaveScanFrame", "true"}, 0, "SaveScanFrame = true (was false)\n"},
        {{file, "NoSuchKey", "1"}, 6, "pathfinder: unknown key NoSuchKey in " + file + "\n"}};
    for (const auto& step : steps) {
        std::vector<std::string> args{"config"};
        args.insert(args.end(), std::get<0>(step).begin(), std::get<0>(step).end());
        const Outcome r = pathfinder(args);
        EXPECT_EQ(r.code, std::get<1>(step)) << r.out;
        EXPECT_EQ(r.out, std::get<2>(step));
    }
    std::ifstream in(file);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
              "# switches\nSaveScanFrame = true   # frames to disk\n\nLevel: 3\n");
}

TEST_F(HostCli, CalibrateRunsATrackerBarCalibrationStepByStep) {
    const Outcome r = pathfinder({"calibrate", "--mode", "tracker-bar"});
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_LT(r.out.find("calibration mode 2"), r.out.find("step: started")) << r.out;
    EXPECT_TRUE(r.has("next location 1") && r.has("tracker pose")) << r.out;
    EXPECT_TRUE(r.has("step: result 0.0210")) << r.out;
}

// Two chained trackers measured by the tool: the file it writes holds both matrices, each
// within 0.05 mm and 0.005 degrees of the true pose, and a scan with it lands on the part.
TEST_F(HostCli, CascadeMeasureWritesTheTruePosesOfChainedTrackers) {
    exportTruth(path("truth"), {"--seed=5", "--trackers=2"});
    const std::vector<TransferMatrix> truth = readCascadeFile(path("truth/cascade.bin"));
    ASSERT_EQ(truth.size(), 2u);
    // The measurement polls each tracker for 202 x 20 ms of scaled time: enough frames for a
    // static model need a slower clock than the other tests.
    const Outcome r =
        pathfinder({"cascade", "measure", "--out", path("c.bin"), "--console-arg=--seed=5",
                    "--console-arg=--trackers=2", "--console-arg=--fps=240"},
                   "PATHFINDER_TIME_SCALE=0.25");
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(r.has("2 matrices -> " + path("c.bin"))) << r.out;
    const std::vector<TransferMatrix> measured = readCascadeFile(path("c.bin"));
    ASSERT_EQ(measured.size(), 2u);
    for (const TransferMatrix& t : truth) {
        const auto m = std::find_if(measured.begin(), measured.end(),
                                    [&](const auto& e) { return e.trackerId == t.trackerId; });
        ASSERT_NE(m, measured.end()) << t.trackerId;
        const MatrixError e = transferMatrixError(m->matrix, t.matrix);
        EXPECT_LE(e.translationMm, 0.05) << t.trackerId;
        EXPECT_LE(e.rotationDeg, 0.005) << t.trackerId;
    }
    const Outcome shown = pathfinder({"cascade", "show", path("c.bin")});
    EXPECT_TRUE(shown.has("2 trackers") && shown.has(truth[1].trackerId)) << shown.out;
    EXPECT_FALSE(shown.has("not a rigid transform")) << shown.out;

    // A scan with the file lands on the part; its summary, table and files agree.
    const Outcome scan =
        pathfinder({"scan", "--out", path("s"), "--frames", "20", "--cascade", path("c.bin"),
                    "--console-arg=--seed=5", "--console-arg=--trackers=2"});
    ASSERT_EQ(scan.code, 0) << scan.out;
    const nlohmann::json s = readJson(path("s/summary.json"));
    EXPECT_EQ(s.at("transfer_matrices"), "cascade file") << s.dump(2);
    EXPECT_GE(s.at("frames").get<size_t>(), 20u);
    EXPECT_TRUE(scan.has("frames                 " + std::to_string(s.at("frames").get<int>())));
    ASSERT_TRUE(s.contains("accuracy")) << s.dump(2);
    EXPECT_LT(s["accuracy"].at("rms_mm").get<double>(),
              3 * s["accuracy"].at("noise_sigma_mm").get<double>())
        << s.dump(2);
    pcl::PointCloud<pcl::PointNormal> cloud;
    ASSERT_EQ(pcl::io::loadPLYFile(path("s/scan.ply"), cloud), 0);
    EXPECT_EQ(cloud.size(), s.at("points").get<size_t>());
    EXPECT_GT(std::filesystem::file_size(path("s/scan.png")), 1000u);
    EXPECT_EQ(readCascadeFile(path("s/cascade.bin")).size(), 2u);
}

// A marker model built by dynamic tracking: the tool reports it against the truth, and the
// residuals scaled by the square root of each marker's observations stay within 1.3 sigma of
// the marker noise. The model file holds the markers it printed.
TEST_F(HostCli, MarkersBuildsAModelWithinTheRegistrationAccuracy) {
    exportTruth(path("truth"), {"--seed=9"});
    const Outcome r = pathfinder({"markers", "--out", path("model.txt"), "--frames", "150",
                                  "--truth", path("truth"), "--console-arg=--seed=9"});
    ASSERT_EQ(r.code, 0) << r.out;
    const auto at = [&](const char* key) {
        const size_t i = r.out.find(key);
        return i == std::string::npos ? "" : r.out.c_str() + i;
    };
    size_t printed = 0, paired = 0, total = 0;
    double weighted = -1, bound = -1;
    ASSERT_EQ(std::sscanf(at("marker model: "), "marker model: %zu", &printed) +
                  std::sscanf(at("after a best fit"), "after a best fit to the truth (%zu of %zu",
                              &paired, &total) +
                  std::sscanf(at("residual x"),
                              "residual x sqrt(observations): rms %lf mm (bound 1.3 x marker "
                              "noise %lf mm)",
                              &weighted, &bound),
              5)
        << r.out;
    EXPECT_EQ(paired, total) << r.out;
    EXPECT_GT(bound, 0.0);
    EXPECT_LE(weighted, bound) << r.out;
    std::ifstream in(path("model.txt"));  // a heading and a line per marker
    const std::string model((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(static_cast<size_t>(std::count(model.begin(), model.end(), '\n')), printed + 1);
    EXPECT_GE(printed, 10u);
}

}  // namespace
}  // namespace host
