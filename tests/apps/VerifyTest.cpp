// `pathfinder verify` end to end: the whole chain (console scene, device module, transfer
// matrices, poses, assembly) measured on the simulated artefacts. Exact without noise, where
// the noise predicts with it, and a tracker with a length error or a turned laser fails the
// sphere spacing.
#include <gtest/gtest.h>

#include <cmath>

#include "HostTestSupport.h"
#include "Metrology.h"

namespace host {
namespace {

// |value| of each characteristic within [low, high] mm, and at least `bars` of the seven
// ball-bar positions off by `barLow` or more.
struct Case {
    const char* consoleArg;
    int code;
    double barLow;
    size_t bars;
    std::array<std::pair<double, double>, 4> pfPsSdF;
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.consoleArg;
}

class Verify : public WithFolder, public ::testing::WithParamInterface<Case> {};
class VerifyLimits : public WithFolder {};

double value(const nlohmann::json& j, size_t i) {
    const nlohmann::json& v = j.at("characteristics").at(i).at("value_mm");
    return v.is_number() ? v.get<double>() : NAN;
}

// Twelve frames per sphere (the default is 48). Without noise what remains is the float
// precision of the points (a few tenths of a micrometre at half a metre). With the default noise
// the residual ranges follow it (0.136 mm expected; the pose noise is shared by a frame's
// points, so not exactly Gaussian), and size and spacing average the pose noise over only 12
// frames: some micrometres. 300 ppm over the 400 mm bar make every position 0.12 mm long; a
// laser turned by 0.03 degrees moves each sphere's centre by up to 0.15 mm with the scanner's
// heading, which differs between the two spheres of a bar.
TEST_P(Verify, TheCharacteristicsAreWhereTheSceneSaysAndTheVerdictFollowsThem) {
    const Case& c = GetParam();
    const Outcome r = pathfinder({"verify", "--out", m_dir, "--frames-per-sphere", "12",
                                  std::string("--console-arg=") + c.consoleArg});
    EXPECT_EQ(r.code, c.code) << r.out;
    for (const char* f : {"verify.png", "verify.txt"}) {
        EXPECT_GT(std::filesystem::file_size(path(f)), 0u) << f;
    }
    const nlohmann::json j = readJson(path("verify.json"));
    ASSERT_TRUE(j.contains("characteristics")) << r.out;
    EXPECT_EQ(j.at("pass").get<bool>(), c.code == 0);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_GE(std::fabs(value(j, i)), c.pfPsSdF[i].first) << i;
        EXPECT_LE(std::fabs(value(j, i)), c.pfPsSdF[i].second) << i;
    }
    size_t bars = 0;
    for (const auto& b : j.at("ball_bar")) {
        const double sd = std::fabs(b.at("sd_mm").get<double>());
        bars += sd >= c.barLow;
        for (const auto& s : b.at("spheres")) {
            EXPECT_GT(s.at("points").get<size_t>(), 500u) << s.at("name");
        }
    }
    EXPECT_GE(bars, c.bars);
    EXPECT_GT(j.at("plane").at("points").get<size_t>(), 10000u);
    // A point's noise along the normal: laser, pose, and the pose's angle at 300 mm.
    const double sigma = j.at("expected").at("point_sigma_mm").get<double>();
    const double noise = std::hypot(0.02, 0.01, 300 * 1e-3 * M_PI / 180);
    EXPECT_NEAR(sigma, std::string(c.consoleArg) == "--noise=off" ? 0.0 : noise, 1e-9);
    EXPECT_NEAR(j.at("expected").at("form_range_mm").get<double>(), expectedRange(sigma), 1e-12);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Runs, Verify, ::testing::Values(
    Case{"--noise=off", 0, 0, 7, {{{0, .002}, {0, .001}, {0, .002}, {0, .002}}}},
    Case{"--seed=1", 0, 0, 7, {{{.102, .184}, {0, .02}, {0, .03}, {.102, .184}}}},
    Case{"--tracker-scale-ppm=300", 9, .095, 7, {{{0, .25}, {0, 1}, {.095, .145}, {0, .25}}}},
    Case{"--laser-rotation-deg=0.03", 9, .08, 2, {{{0, 1}, {0, 1}, {.08, 1}, {0, .25}}}}));
// clang-format on

TEST_F(VerifyLimits, TakesThemFromAFileAndFlagsOutrankIt) {
    // A tight flatness limit from the file fails F alone; the flag lifts the file's SD limit.
    std::ofstream(path("tight.json")) << "{\"F\": 0.01, \"SD\": 0.001}";
    const Outcome r = pathfinder({"verify", "--out", m_dir, "--frames-per-sphere", "6", "--limits",
                                  path("tight.json"), "--limit-sd", "0.5"});
    EXPECT_EQ(r.code, 9) << r.out;
    const nlohmann::json c = readJson(path("verify.json")).at("characteristics");
    ASSERT_EQ(c.size(), 4u);
    const std::vector<std::pair<double, bool>> limitAndPass{
        {0.25, true}, {0.05, true}, {0.5, true}, {0.01, false}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_DOUBLE_EQ(c[i].at("limit_mm").get<double>(), limitAndPass[i].first) << i;
        EXPECT_EQ(c[i].at("pass").get<bool>(), limitAndPass[i].second) << i;
    }
    EXPECT_TRUE(r.has("Verdict: FAIL")) << r.out;
}

}  // namespace
}  // namespace host
