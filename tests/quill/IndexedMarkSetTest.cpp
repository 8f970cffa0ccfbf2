// A fixed set indexed once (IndexedMarkSet) must register every moving set exactly as the
// plain array does: same status, transform, flags and error, bit for bit, whether the shared
// lists suffice or the call falls back to its own index.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <vector>

#include "QuillTestUtil.h"

using namespace quilltest;

namespace {

// Everything a registration gives: result, status, matched count, error, flags, transform.
using Outcome = std::tuple<int, int, int, float, std::vector<int>, std::vector<double>>;
Outcome outcome(const Quill::MyMatchMarkClass_update& m, int result) {
    const Eigen::Matrix4d T = m.get_final_transform();
    return {result,
            m.get_final_status(),
            m.get_final_match_n(),
            m.get_final_err(),
            m.get_final_match_flag(),
            {T.data(), T.data() + 16}};
}

// Registers `moving` both ways with one matcher and demands identical outcomes.
void expectSame(Quill::MyMatchMarkClass_update& m, std::vector<Quill::mark_data> moving,
                std::vector<Quill::mark_data>& fixed, const Quill::IndexedMarkSet& indexed,
                int* successes) {
    std::vector<Quill::mark_data> again = moving;
    const int n = static_cast<int>(moving.size());
    const Outcome plain = outcome(m, m.MarkRegistration(moving.data(), n, fixed.data(),
                                                        static_cast<int>(fixed.size()), -1, 0));
    ASSERT_EQ(plain, outcome(m, m.MarkRegistration(again.data(), n, indexed, -1, 0)));
    *successes += std::get<0>(plain) == 1;
}

TEST(IndexedMarkSet, RegistersEveryFrameExactlyAsThePlainArray) {
    int successes = 0;
    int trials = 0;
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        const sim::MarkerScene scene = sim::MarkerScene::randomPart(100 + 50 * seed, seed);
        std::vector<Quill::mark_data> fixed = sceneMarks(scene, seed % 2 == 0);
        // Copies of a few markers, which both indexes must fold alike.
        for (int k = 0; k < 3; ++k) {
            Quill::mark_data copy = fixed[static_cast<std::size_t>(7 * k)];
            copy.x += 0.5f;
            fixed.push_back(copy);
        }
        Quill::IndexedMarkSet indexed;
        ASSERT_TRUE(indexed.build(fixed.data(), static_cast<int>(fixed.size()), 3.0f));
        ASSERT_EQ(indexed.size(), static_cast<int>(fixed.size()));
        Quill::MyMatchMarkClass_update m;
        applyTrackerSettings(m);
        sim::FrameGenerator gen(scene, seed + 100);
        for (int f = 0; f < 40; ++f) {
            sim::FrameOptions opt;
            // From dense views to sparse ones, whose lookups reach farther than the shared
            // lists (the call then builds its own index).
            opt.visible = 6 + (f * 7) % 40;
            opt.noiseSigma = 0.02;
            opt.dropFraction = f % 3 == 0 ? 0.6 : 0.1;
            opt.spuriousFraction = 0.1;
            opt.withNormals = f % 4 != 0;
            expectSame(m, frameMarks(gen.randomFrame(opt)), fixed, indexed, &successes);
            ++trials;
        }
        // A frame of another part, and a sparse handful spread over the whole part.
        const sim::MarkerScene other = sim::MarkerScene::randomPart(80, seed + 50);
        sim::FrameGenerator otherGen(other, seed);
        expectSame(m, frameMarks(otherGen.randomFrame(sim::FrameOptions())), fixed, indexed,
                   &successes);
        std::vector<Quill::mark_data> spread;
        for (int i = 0; i < scene.size(); i += scene.size() / 8)
            spread.push_back(fixed[static_cast<std::size_t>(i)]);
        expectSame(m, spread, fixed, indexed, &successes);
        // A matcher with another same-target distance indexes the copy per call.
        Quill::MyMatchMarkClass_update loose;
        applyTrackerSettings(loose);
        loose.set_max_near_same_mark_dis(1.0f);
        expectSame(loose, frameMarks(gen.randomFrame(sim::FrameOptions())), fixed, indexed,
                   &successes);
    }
    // The comparison means something only if most frames register.
    EXPECT_GT(successes, trials / 2);
}

TEST(IndexedMarkSet, UnusableAndEmptySetsAreRefusedLikeTheirArrays) {
    const sim::MarkerScene scene = sim::MarkerScene::randomPart(60, 4);
    sim::FrameGenerator gen(scene, 5);
    const std::vector<Quill::mark_data> moving = frameMarks(gen.randomFrame(sim::FrameOptions()));
    Quill::MyMatchMarkClass_update m;
    applyTrackerSettings(m);

    Quill::IndexedMarkSet unbuilt;
    std::vector<Quill::mark_data> copy = moving;
    EXPECT_EQ(m.MarkRegistration(copy.data(), static_cast<int>(copy.size()), unbuilt, -1, 0), -1);
    EXPECT_EQ(m.get_final_status(), Quill::kMatchBadInput);

    Quill::IndexedMarkSet bad;
    EXPECT_FALSE(bad.build(nullptr, 5, 3.0f));
    EXPECT_FALSE(bad.build(copy.data(), -1, 3.0f));
    EXPECT_EQ(m.MarkRegistration(copy.data(), static_cast<int>(copy.size()), bad, -1, 0), -1);

    Quill::IndexedMarkSet empty;
    ASSERT_TRUE(empty.build(nullptr, 0, 3.0f));
    EXPECT_EQ(m.MarkRegistration(copy.data(), static_cast<int>(copy.size()), empty, -1, 0), 0);
    EXPECT_EQ(m.get_final_status(), Quill::kMatchTooFewMarkers);

    // Markers at absurd or undefined places are skipped as in the array.
    std::vector<Quill::mark_data> fixed = sceneMarks(scene);
    fixed[3].x = std::numeric_limits<float>::quiet_NaN();
    fixed[9].y = 3e38f;
    Quill::IndexedMarkSet odd;
    ASSERT_TRUE(odd.build(fixed.data(), static_cast<int>(fixed.size()), 3.0f));
    int successes = 0;
    expectSame(m, moving, fixed, odd, &successes);
}

}  // namespace
