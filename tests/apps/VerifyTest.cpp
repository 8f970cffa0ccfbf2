// `pathfinder verify` end to end: the whole chain (console scene, device module, transfer
// matrices, poses, assembly) measured on the simulated artefacts. Exact without noise, where
// the noise predicts with it, and a tracker with a length error fails the sphere spacing.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "AppsTestSupport.h"
#include "Metrology.h"

namespace pfapp {
namespace {

namespace fs = std::filesystem;

class Verify : public WithFolder {
protected:
    // Runs a short verification (12 frames per sphere) with extra console arguments and reads
    // its verify.json.
    nlohmann::json run(const std::string& name, const std::vector<std::string>& consoleArgs,
                       int expectedCode) {
        const std::string out = path(name);
        std::vector<std::string> args{"verify", "--out", out, "--frames-per-sphere", "12"};
        for (const std::string& a : consoleArgs) {
            args.push_back("--console-arg=" + a);
        }
        const Outcome r = pathfinder(args);
        EXPECT_EQ(r.code, expectedCode) << r.out;
        for (const char* f : {"verify.json", "verify.png", "verify.txt"}) {
            EXPECT_GT(fs::exists(fs::path(out) / f) ? fs::file_size(fs::path(out) / f) : 0u, 0u)
                << f;
        }
        std::ifstream in((fs::path(out) / "verify.json").string());
        return in ? nlohmann::json::parse(in) : nlohmann::json::object();
    }
};

double value(const nlohmann::json& j, const std::string& name) {
    for (const auto& c : j.at("characteristics")) {
        if (c.at("name") == name) {
            return c.at("value_mm").is_number() ? c.at("value_mm").get<double>() : NAN;
        }
    }
    return NAN;
}

bool passes(const nlohmann::json& j, const std::string& name) {
    for (const auto& c : j.at("characteristics")) {
        if (c.at("name") == name) {
            return c.at("pass").get<bool>();
        }
    }
    return false;
}

TEST_F(Verify, WithoutNoiseEveryCharacteristicIsWithinMicrometresOfZero) {
    const nlohmann::json j = run("exact", {"--noise=off"}, 0);
    ASSERT_TRUE(j.contains("characteristics"));
    EXPECT_TRUE(j.at("pass").get<bool>());
    // Points travel as floats: a few tenths of a micrometre at half a metre.
    EXPECT_LT(value(j, "PF"), 0.002);
    EXPECT_LT(std::fabs(value(j, "PS")), 0.001);
    EXPECT_LT(std::fabs(value(j, "SD")), 0.002);
    EXPECT_LT(value(j, "F"), 0.002);
    ASSERT_EQ(j.at("ball_bar").size(), 7u);
    for (const auto& b : j.at("ball_bar")) {
        EXPECT_LT(std::fabs(b.at("sd_mm").get<double>()), 0.002) << b.at("position");
        for (const auto& s : b.at("spheres")) {
            EXPECT_GT(s.at("points").get<size_t>(), 500u) << s.at("name");
        }
    }
    EXPECT_GT(j.at("plane").at("points").get<size_t>(), 10000u);
}

TEST_F(Verify, WithTheDefaultNoiseTheFormErrorsAreWhereTheNoisePredicts) {
    const nlohmann::json j = run("noisy", {}, 0);
    ASSERT_TRUE(j.contains("expected"));
    const double sigma = j.at("expected").at("point_sigma_mm").get<double>();
    const double range = j.at("expected").at("form_range_mm").get<double>();
    EXPECT_NEAR(sigma, std::sqrt(0.02 * 0.02 + 0.01 * 0.01 + std::pow(0.001 * M_PI / 180 * 300, 2)),
                1e-9);
    EXPECT_NEAR(range, expectedRange(sigma), 1e-12);
    // The range of the residuals after the rejection follows the noise (pose noise is shared by
    // the points of a frame, so not exactly Gaussian). Size and spacing average the frames'
    // pose noise (about 0.011 mm) over only 12 frames per sphere, and a cap seen from above
    // turns a shift along the view into a change of radius: some micrometres, not zero.
    EXPECT_GT(value(j, "PF"), 0.75 * range);
    EXPECT_LT(value(j, "PF"), 1.35 * range);
    EXPECT_GT(value(j, "F"), 0.75 * range);
    EXPECT_LT(value(j, "F"), 1.35 * range);
    EXPECT_LT(std::fabs(value(j, "PS")), 0.02);
    EXPECT_LT(std::fabs(value(j, "SD")), 0.03);
    EXPECT_TRUE(j.at("pass").get<bool>());
}

TEST_F(Verify, ATrackerWithALengthErrorFailsTheSphereSpacing) {
    // 300 ppm over the 400 mm bar: 0.12 mm in every position, beyond the 0.08 mm limit.
    const nlohmann::json j = run("scaled", {"--tracker-scale-ppm=300"}, 9);
    ASSERT_TRUE(j.contains("ball_bar"));
    EXPECT_FALSE(j.at("pass").get<bool>());
    EXPECT_FALSE(passes(j, "SD"));
    EXPECT_TRUE(passes(j, "PF"));
    EXPECT_TRUE(passes(j, "F"));
    for (const auto& b : j.at("ball_bar")) {
        EXPECT_NEAR(b.at("sd_mm").get<double>(), 300e-6 * 400, 0.025) << b.at("position");
    }
    EXPECT_NEAR(value(j, "SD"), 0.12, 0.025);
}

TEST_F(Verify, AWrongLaserTransformFailsTheSphereSpacing) {
    // The scanner's points turned by 0.03 degrees in its own frame: at 290 mm each sphere's
    // centre moves by up to 0.15 mm with the scanner's heading, which differs between the two
    // spheres of a bar.
    const nlohmann::json j = run("laser", {"--laser-rotation-deg=0.03"}, 9);
    ASSERT_TRUE(j.contains("ball_bar"));
    EXPECT_FALSE(passes(j, "SD"));
    int beyond = 0;
    for (const auto& b : j.at("ball_bar")) {
        beyond += std::fabs(b.at("sd_mm").get<double>()) > 0.08;
    }
    EXPECT_GE(beyond, 2);
}

TEST_F(Verify, LimitsComeFromAFileOrFlagsAndABadFileIsRefusedFirst) {
    const std::string bad = path("bad.json");
    std::ofstream(bad) << "{\"PF\": 0.2, \"XY\": 1}";
    Outcome r = pathfinder({"verify", "--out", path("o"), "--limits", bad});
    EXPECT_EQ(r.code, 5) << r.out;
    EXPECT_NE(r.out.find("unknown characteristic XY"), std::string::npos) << r.out;

    // A tight flatness limit from a file fails F alone; a flag outranks the file.
    const std::string tight = path("tight.json");
    std::ofstream(tight) << "{\"F\": 0.01, \"SD\": 0.001}";
    const std::string out = path("tight");
    r = pathfinder({"verify", "--out", out, "--frames-per-sphere", "6", "--limits", tight,
                    "--limit-sd", "0.5"});
    EXPECT_EQ(r.code, 9) << r.out;
    std::ifstream in((fs::path(out) / "verify.json").string());
    ASSERT_TRUE(in);
    const nlohmann::json j = nlohmann::json::parse(in);
    EXPECT_FALSE(passes(j, "F"));
    EXPECT_TRUE(passes(j, "SD"));
    EXPECT_TRUE(passes(j, "PF"));
    EXPECT_DOUBLE_EQ(j.at("characteristics").at(3).at("limit_mm").get<double>(), 0.01);
    EXPECT_DOUBLE_EQ(j.at("characteristics").at(2).at("limit_mm").get<double>(), 0.5);
}

}  // namespace
}  // namespace pfapp
