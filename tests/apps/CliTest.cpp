// The `pathfinder` program end to end: every subcommand against consoles it starts on free
// ports (or one the test starts), with the error paths a new user meets.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <pcl/io/ply_io.h>
#include <pcl/point_types.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "AppsTestSupport.h"
#include "CascadeFile.h"
#include "Endpoint.h"
#include "Geometry.h"
#include "Truth.h"
#include "platform/Platform.h"

namespace pfapp {
namespace {

namespace fs = std::filesystem;

class HostCli : public WithFolder {};

std::string endpointIn(const std::string& out) {
    const size_t at = out.find("endpoint ");
    if (at == std::string::npos) {
        return {};
    }
    const size_t end = out.find(',', at);
    return out.substr(at + 9, end - at - 9);
}

TEST_F(HostCli, EverySubcommandHasHelpAndBadCommandLinesAreUsageErrors) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> helps{
        {{"scan", "--help"}, "--cascade"},
        {{"markers", "--help"}, "--out"},
        {{"cascade", "measure", "--help"}, "--out"},
        {{"cascade", "show", "--help"}, "FILE"},
        {{"devices", "--help"}, "--endpoint"},
        {{"calibrate", "--help"}, "--mode"},
        {{"config", "--help"}, "KEY"},
        {{"--help"}, "Exit codes"}};
    for (const auto& h : helps) {
        const Outcome r = pathfinder(h.first);
        EXPECT_EQ(r.code, 0) << h.first[0] << "\n" << r.out;
        EXPECT_NE(r.out.find(h.second), std::string::npos) << h.first[0] << "\n" << r.out;
    }
    EXPECT_EQ(pathfinder({}).code, 2);
    EXPECT_EQ(pathfinder({"scan"}).code, 2);  // --out is required
    EXPECT_EQ(pathfinder({"scan", "--out", path("o"), "--frames", "5", "--seconds", "2"}).code, 2);
    EXPECT_EQ(pathfinder({"scan", "--out", path("o"), "--object", "wood"}).code, 2);
    EXPECT_EQ(pathfinder({"calibrate", "--mode", "sideways"}).code, 2);
    EXPECT_EQ(pathfinder({"devices", "--endpoint", "nowhere:port"}).code, 2);
    EXPECT_FALSE(fs::exists(path("o")));
}

TEST_F(HostCli, AMissingConsoleIsOneLineAndExitCodeThree) {
    Outcome r = pathfinder({"devices", "--console", path("no/lumora_console")});
    EXPECT_EQ(r.code, 3) << r.out;
    EXPECT_NE(r.out.find("pathfinder: console missing: " + path("no/lumora_console")),
              std::string::npos)
        << r.out;

    // Nothing listens on a port that was free a moment ago, and starting is not allowed.
    std::string port;
    {
        platform::ChildProcess probe;  // any free port: let a console pick one and end it again
        std::mutex m;
        std::string line;
        std::string error;
        ASSERT_TRUE(probe.start(
            fs::path(PATHFINDER_CLI_PATH).parent_path().parent_path().string() +
                "/annex/Lumora/lumora_console",
            {"--endpoint", "127.0.0.1:0", "--no-stdin"},
            [&](const std::string& l) {
                std::lock_guard<std::mutex> lock(m);
                if (line.empty()) {
                    line = l;
                }
            },
            error))
            << error;
        for (int i = 0; i < 500; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            std::lock_guard<std::mutex> lock(m);
            if (!line.empty()) {
                break;
            }
        }
        std::lock_guard<std::mutex> lock(m);
        port = line.substr(line.rfind(':') + 1);
    }
    ASSERT_FALSE(port.empty());
    r = pathfinder({"scan", "--out", path("s"), "--no-start", "--endpoint", "127.0.0.1:" + port});
    EXPECT_EQ(r.code, 3) << r.out;
    EXPECT_NE(r.out.find("console missing: nothing answers at 127.0.0.1:" + port),
              std::string::npos)
        << r.out;
}

TEST_F(HostCli, DevicesListsTheConsolesDevicesAndEndsOnlyItsOwnConsole) {
    // A console the user already runs is used and left running.
    platform::ChildProcess theirs;
    std::mutex m;
    std::string listening;
    std::string error;
    const std::string console = fs::path(PATHFINDER_CLI_PATH).parent_path().parent_path().string() +
                                "/annex/Lumora/lumora_console";
    ASSERT_TRUE(theirs.start(
        console,
        {"--endpoint", "127.0.0.1:0", "--no-stdin", "--tracker-id", "TRK0077", "--heartbeat-ms",
         "100"},
        [&](const std::string& l) {
            std::lock_guard<std::mutex> lock(m);
            if (listening.empty() && l.find("listening on ") != l.npos) {
                listening = l.substr(l.find("listening on ") + 13);
            }
        },
        error))
        << error;
    std::string endpoint;
    for (int i = 0; i < 500 && endpoint.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::lock_guard<std::mutex> lock(m);
        endpoint = listening;
    }
    ASSERT_FALSE(endpoint.empty());
    Outcome r = pathfinder({"devices", "--wait", "3"}, "LUMORA_ENDPOINT=" + endpoint);
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("using the console that answers at " + endpoint), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("TRK0077      tracker   0      ready"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("SCN0001      scanner"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("low-part firmware 1.4.2"), std::string::npos) << r.out;
    EXPECT_TRUE(theirs.alive());

    // A console of its own: the scene options reach it, and it is gone afterwards.
    r = pathfinder({"devices", "--wait", "3", "--console-arg=--tracker-model=2",
                    "--console-arg=--lowpart-version=2.0.7"});
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("starting the console"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("TRK0001      tracker   2      ready"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("low-part firmware 2.0.7"), std::string::npos) << r.out;
    // Temperatures of the simulated devices (31 C tracker) with their running mean.
    EXPECT_NE(r.out.find("    31."), std::string::npos) << r.out;
    std::string host;
    uint16_t port = 0;
    ASSERT_TRUE(splitEndpoint(endpointIn(r.out), host, port)) << r.out;
    EXPECT_FALSE(platform::endpointAnswers(host, port, 300));
    EXPECT_TRUE(theirs.alive());
}

TEST_F(HostCli, ScanRefusesBadInputsBeforeStartingAnything) {
    std::ofstream(path("file")) << "x";
    Outcome r = pathfinder({"scan", "--out", path("file") + "/sub"});
    EXPECT_EQ(r.code, 7) << r.out;
    EXPECT_NE(r.out.find("output folder not writable: " + path("file") + "/sub"), std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("starting the console"), std::string::npos) << r.out;

    std::ofstream(path("bad.bin"), std::ios::binary) << "0123456789";
    r = pathfinder({"scan", "--out", path("out"), "--cascade", path("bad.bin")});
    EXPECT_EQ(r.code, 5) << r.out;
    EXPECT_NE(r.out.find(path("bad.bin") + ": not a cascade file"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("starting the console"), std::string::npos) << r.out;

    r = pathfinder({"scan", "--out", path("out"), "--replay", path("none.rec")});
    EXPECT_EQ(r.code, 5) << r.out;
    EXPECT_NE(r.out.find("cannot read the recording"), std::string::npos) << r.out;
}

TEST_F(HostCli, ScanWritesAnHonestSummaryAndFilesThatLoad) {
    const std::string out = path("scan");
    const Outcome r = pathfinder({"scan", "--out", out, "--frames", "40"});
    ASSERT_TRUE(fs::exists(out + "/summary.json")) << r.out;
    std::ifstream in(out + "/summary.json");
    const nlohmann::json s = nlohmann::json::parse(in);
    for (const char* key :
         {"frames", "points", "frames_per_second", "dropped_frames", "duration_s", "startup_s"}) {
        EXPECT_TRUE(s.contains(key)) << key;
    }
    const size_t frames = s.at("frames");
    const size_t points = s.at("points");
    EXPECT_NE(r.out.find("frames                 " + std::to_string(frames)), std::string::npos)
        << r.out;
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_GE(frames, 40u);
    pcl::PointCloud<pcl::PointXYZ> cloud;
    ASSERT_EQ(pcl::io::loadPLYFile(out + "/scan.ply", cloud), 0);
    EXPECT_EQ(cloud.size(), points);
    EXPECT_TRUE(fs::file_size(out + "/scan.png") > 1000);
    std::vector<CascadeEntry> matrices;
    std::string error;
    EXPECT_TRUE(readCascadeFile(out + "/cascade.bin", matrices, error)) << error;
    // The console exports its truth, so the cloud is measured against the true part.
    ASSERT_TRUE(s.contains("accuracy")) << s.dump(2);
    const double sigma = s["accuracy"].value("noise_sigma_mm", 0.0);
    ASSERT_GT(sigma, 0.0);
    EXPECT_LT(s["accuracy"].at("rms_mm").get<double>(), 3 * sigma) << s.dump(2);
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

std::string consoleProgram() {
    return fs::path(PATHFINDER_CLI_PATH).parent_path().parent_path().string() +
           "/annex/Lumora/lumora_console";
}

// The truth of the scene that `sceneArgs` give, as the console exports it.
Truth exportedTruth(const std::string& dir, const std::vector<std::string>& sceneArgs) {
    std::string cmd = quote(consoleProgram()) + " --export-truth " + quote(dir);
    for (const std::string& a : sceneArgs) {
        cmd += " " + quote(a);
    }
    EXPECT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd;
    std::string error;
    std::optional<Truth> truth = loadTruthFolder(dir, error);
    EXPECT_TRUE(truth) << error;
    return truth ? *truth : Truth();
}

nlohmann::json summaryOf(const std::string& dir) {
    std::ifstream in(dir + "/summary.json");
    return nlohmann::json::parse(in);
}

size_t summaryFrames(const std::string& dir) {
    std::ifstream in(dir + "/summary.json");
    return nlohmann::json::parse(in).at("frames").get<size_t>();
}

TEST_F(HostCli, AReplayedRecordingGivesTheFramesOfTheLiveScan) {
    const std::string rec = path("live.rec");
    // The true matrices are imported, so that the recording holds the scan alone (a measured
    // session also records the measurement's tracker frames, which a replay delivers).
    exportedTruth(path("truth"), {});
    Outcome live = pathfinder({"scan", "--out", path("live"), "--frames", "30", "--cascade",
                               path("truth/cascade.bin"), "--console-arg=--record=" + rec});
    ASSERT_TRUE(fs::exists(rec)) << live.out;
    Outcome replay = pathfinder({"scan", "--out", path("replay"), "--replay", rec});
    EXPECT_NE(replay.out.find("replaying"), std::string::npos) << replay.out;
    EXPECT_EQ(replay.code, live.code) << live.out << replay.out;
    EXPECT_EQ(summaryFrames(path("replay")), summaryFrames(path("live")));
    EXPECT_EQ(summaryOf(path("replay")).at("points"), summaryOf(path("live")).at("points"));

    std::ofstream(path("bad.rec"), std::ios::binary) << "not a recording";
    Outcome bad = pathfinder({"scan", "--out", path("bad"), "--replay", path("bad.rec")});
    EXPECT_EQ(bad.code, 5) << bad.out;
    EXPECT_NE(bad.out.find("cannot replay " + path("bad.rec")), std::string::npos) << bad.out;
}

TEST_F(HostCli, CascadeShowPrintsAFileAndRefusesADamagedOne) {
    std::vector<CascadeEntry> entries(2);
    entries[0].trackerId = "TRK0001";
    entries[1].trackerId = "TRK0002";
    entries[1].matrix[12] = 1500.25;
    std::string error;
    ASSERT_TRUE(writeCascadeFile(path("c.bin"), entries, error));
    Outcome r = pathfinder({"cascade", "show", path("c.bin")});
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("2 trackers"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("TRK0002"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1500.250"), std::string::npos) << r.out;

    std::ofstream(path("bad.bin"), std::ios::binary) << std::string(151, '\0');
    r = pathfinder({"cascade", "show", path("bad.bin")});
    EXPECT_EQ(r.code, 5) << r.out;
    EXPECT_NE(r.out.find("not a cascade file"), std::string::npos) << r.out;
    r = pathfinder({"cascade", "show", path("missing.bin")});
    EXPECT_EQ(r.code, 5) << r.out;
}

TEST_F(HostCli, ConfigReadsAndChangesKeysKeepingNotesAndLayout) {
    const std::string file = path("Debug.dbg");
    std::ofstream(file) << "# switches\nSaveScanFrame = false   # frames to disk\n\nLevel: 3\n";
    Outcome r = pathfinder({"config", file});
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("Level = 3"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("SaveScanFrame = false"), std::string::npos) << r.out;

    r = pathfinder({"config", file, "Level"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "3\n");

    r = pathfinder({"config", file, "SaveScanFrame", "true"});
    EXPECT_EQ(r.code, 0) << r.out;
    std::ifstream in(file);
    const std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(text, "# switches\nSaveScanFrame = true   # frames to disk\n\nLevel: 3\n");

    r = pathfinder({"config", file, "NoSuchKey", "1"});
    EXPECT_EQ(r.code, 6) << r.out;
    EXPECT_NE(r.out.find("unknown key NoSuchKey"), std::string::npos) << r.out;
    std::ifstream again(file);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(again)), {}), text);

    r = pathfinder({"config", path("missing.dbg")});
    EXPECT_EQ(r.code, 5) << r.out;
    EXPECT_NE(r.out.find("cannot read"), std::string::npos) << r.out;
}

TEST_F(HostCli, CalibrateRunsATrackerBarCalibrationStepByStep) {
    const Outcome r = pathfinder({"calibrate", "--mode", "tracker-bar"});
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("next location 1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("tracker pose"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("step: result 0.0210"), std::string::npos) << r.out;
}

// Two chained trackers measured by the tool: the file it writes holds both matrices, each
// within 0.05 mm and 0.005 degrees of the true pose.
TEST_F(HostCli, CascadeMeasureWritesTheTruePosesOfChainedTrackers) {
    const Truth truth = exportedTruth(path("truth"), {"--seed=5", "--trackers=2"});
    ASSERT_EQ(truth.matrices.size(), 2u);
    // The measurement polls each tracker for 202 x 20 ms of scaled time: enough frames for a
    // static model need a slower clock than the other tests.
    const Outcome r =
        pathfinder({"cascade", "measure", "--out", path("c.bin"), "--console-arg=--seed=5",
                    "--console-arg=--trackers=2", "--console-arg=--fps=240"},
                   "PATHFINDER_TIME_SCALE=0.25");
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("2 matrices -> " + path("c.bin")), std::string::npos) << r.out;
    std::vector<CascadeEntry> measured;
    std::string error;
    ASSERT_TRUE(readCascadeFile(path("c.bin"), measured, error)) << error;
    ASSERT_EQ(measured.size(), 2u);
    for (const CascadeEntry& m : measured) {
        const CascadeEntry* t = nullptr;
        for (const CascadeEntry& e : truth.matrices) {
            t = e.trackerId == m.trackerId ? &e : t;
        }
        ASSERT_NE(t, nullptr) << m.trackerId;
        const MatrixError e = transferMatrixError(m.matrix, t->matrix);
        EXPECT_LE(e.translationMm, 0.05) << m.trackerId;
        EXPECT_LE(e.rotationDeg, 0.005) << m.trackerId;
    }
    const Outcome shown = pathfinder({"cascade", "show", path("c.bin")});
    EXPECT_EQ(shown.code, 0) << shown.out;
    EXPECT_NE(shown.out.find("2 trackers"), std::string::npos) << shown.out;

    // The module imports the file the tool wrote: a scan with it lands on the part.
    const Outcome scan =
        pathfinder({"scan", "--out", path("s"), "--frames", "20", "--cascade", path("c.bin"),
                    "--console-arg=--seed=5", "--console-arg=--trackers=2"});
    ASSERT_EQ(scan.code, 0) << scan.out;
    const nlohmann::json s = summaryOf(path("s"));
    EXPECT_EQ(s.at("transfer_matrices"), "cascade file") << s.dump(2);
    ASSERT_TRUE(s.contains("accuracy")) << s.dump(2);
    EXPECT_LT(s["accuracy"].at("rms_mm").get<double>(),
              3 * s["accuracy"].at("noise_sigma_mm").get<double>())
        << s.dump(2);
}

// A marker model built by dynamic tracking: the tool reports it against the truth, and the
// residuals scaled by the square root of each marker's observations stay within 1.3 sigma of
// the marker noise. The model file holds the markers it printed.
TEST_F(HostCli, MarkersBuildsAModelWithinTheRegistrationAccuracy) {
    exportedTruth(path("truth"), {"--seed=9"});
    const Outcome r = pathfinder({"markers", "--out", path("model.txt"), "--frames", "150",
                                  "--truth", path("truth"), "--console-arg=--seed=9"});
    ASSERT_EQ(r.code, 0) << r.out;
    size_t printed = 0;
    ASSERT_EQ(
        std::sscanf(r.out.c_str() + r.out.find("marker model: "), "marker model: %zu", &printed), 1)
        << r.out;
    std::ifstream in(path("model.txt"));
    std::string line;
    size_t rows = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        int id = 0;
        double v[6];
        EXPECT_EQ(std::sscanf(line.c_str(), "%d %lf %lf %lf %lf %lf %lf", &id, &v[0], &v[1], &v[2],
                              &v[3], &v[4], &v[5]),
                  7)
            << line;
        ++rows;
    }
    EXPECT_EQ(rows, printed);
    EXPECT_GE(rows, 10u);
    const size_t fit = r.out.find("after a best fit to the truth (");
    ASSERT_NE(fit, std::string::npos) << r.out;
    size_t paired = 0, total = 0;
    ASSERT_EQ(std::sscanf(r.out.c_str() + fit, "after a best fit to the truth (%zu of %zu", &paired,
                          &total),
              2);
    EXPECT_EQ(paired, total) << r.out;
    const size_t at = r.out.find("residual x sqrt(observations): rms ");
    ASSERT_NE(at, std::string::npos) << r.out;
    double weighted = -1, bound = -1;
    ASSERT_EQ(std::sscanf(r.out.c_str() + at,
                          "residual x sqrt(observations): rms %lf mm (bound 1.3 x marker noise "
                          "%lf mm)",
                          &weighted, &bound),
              2)
        << r.out;
    EXPECT_GT(bound, 0.0);
    EXPECT_LE(weighted, bound) << r.out;

    const Outcome bad =
        pathfinder({"markers", "--out", path("m2.txt"), "--truth", path("no truth"), "--no-start"});
    EXPECT_EQ(bad.code, 5) << bad.out;
}

}  // namespace
}  // namespace pfapp
