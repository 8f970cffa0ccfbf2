// The one-off matcher's index (ReferenceIndex) against the real-time library's
// (MarkerLibrary, triangles filed in a hash table): for every lookup a registration of the
// moving set can make, both must offer the same library triangles, and both must answer
// inlier queries alike; near-duplicates and unusable markers are handled as for a frame.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <tuple>

#include "MarkerLibrary.h"
#include "QuillTestUtil.h"
#include "ReferenceIndex.h"
#include "Registration.h"

using namespace quilltest;
using Quill::detail::MarkerLibrary;
using Quill::detail::MovingSet;
using Quill::detail::ReferenceIndex;

namespace {

using Tri = std::tuple<int, int, int>;

Quill::MatchSettings trackerSettings() {
    Quill::MyMatchMarkClass_update m;
    applyTrackerSettings(m);
    return m.get_settings();
}

// Builds both indexes over `fixed` for the moving set `moving` and compares every lookup
// the moving set's base triangles can make.
void compareIndexes(const std::vector<Quill::mark_data>& fixed,
                    const std::vector<Quill::mark_data>& moving) {
    const Quill::MatchSettings s = trackerSettings();
    const double same = s.max_near_same_mark_dis;
    const double look = Quill::detail::lookupTolerance(s);
    MovingSet mv, fx;
    ASSERT_TRUE(
        Quill::detail::prepareMoving(moving.data(), static_cast<int>(moving.size()), same, mv));
    ASSERT_TRUE(
        Quill::detail::prepareMoving(fixed.data(), static_cast<int>(fixed.size()), same, fx));
    ReferenceIndex idx;
    ASSERT_TRUE(idx.build(fixed.data(), static_cast<int>(fixed.size()), same, mv, look));

    // Same usable markers, same linking radius as a library would take.
    ASSERT_EQ(idx.source(), fx.src);
    const double radius = std::max(MarkerLibrary::suggestLinkRadius(fx.p, same),
                                   MarkerLibrary::suggestLinkRadius(mv.p, same));
    EXPECT_DOUBLE_EQ(idx.linkRadius(), radius);
    EXPECT_LE(idx.listReach(), idx.linkRadius());

    MarkerLibrary lib;
    lib.reset(radius, same);
    for (std::size_t i = 0; i < fx.p.size(); ++i)
        lib.add(fx.p[i], fx.n[i], fx.hasN[i] != 0, 0.0, 0, false);
    lib.linkAll();

    // Triangles whose true sides lie inside the window by a margin, so that the float
    // rounding of either index cannot decide.
    const auto inside = [&](const std::vector<Eigen::Vector3d>& p, int a, int b, int c, double d1,
                            double d2, double d3) {
        const double m = 1e-4;
        return std::abs((p[b] - p[a]).norm() - d1) < look - m &&
               std::abs((p[c] - p[a]).norm() - d2) < look - m &&
               std::abs((p[c] - p[b]).norm() - d3) < look - m;
    };
    int lookups = 0;
    std::size_t found = 0;
    for (std::size_t i = 0; i < mv.p.size(); ++i) {
        std::vector<std::pair<double, std::size_t>> nb;
        for (std::size_t j = 0; j < mv.p.size(); ++j) {
            const double d = (mv.p[j] - mv.p[i]).norm();
            if (j != i && d >= same && d <= radius)
                nb.emplace_back(d, j);
        }
        std::sort(nb.begin(), nb.end());
        nb.resize(std::min<std::size_t>(nb.size(), Quill::detail::kAnchorNeighbours));
        for (std::size_t u = 0; u < nb.size(); ++u) {
            for (std::size_t v = u + 1; v < nb.size(); ++v) {
                const double d1 = nb[u].first, d2 = nb[v].first;
                const double d3 = (mv.p[nb[v].second] - mv.p[nb[u].second]).norm();
                for (int flip = 0; flip < 2; ++flip) {
                    const double e1 = flip ? d2 : d1, e2 = flip ? d1 : d2;
                    std::set<Tri> a, b;
                    idx.forEachTriangle(e1, e2, d3, look, [&](int x, int y, int z) {
                        if (inside(idx.pos, x, y, z, e1, e2, d3))
                            a.emplace(x, y, z);
                    });
                    lib.forEachTriangle(e1, e2, d3, look, [&](int x, int y, int z) {
                        if (inside(lib.pos, x, y, z, e1, e2, d3))
                            b.emplace(x, y, z);
                    });
                    ASSERT_EQ(a, b) << "lookup " << e1 << " " << e2 << " " << d3;
                    found += a.size();
                    ++lookups;
                }
            }
        }
    }
    EXPECT_GT(lookups, 0);
    EXPECT_GT(found, 0u) << "the moving set's own triangles exist in the library";

    // Inlier queries near and between library markers.
    sim::Rng rng(5);
    for (int q = 0; q < 300; ++q) {
        const Eigen::Vector3d p =
            fx.p[static_cast<std::size_t>(rng.uniformInt(0, static_cast<int>(fx.p.size()) - 1))] +
            0.3 * Eigen::Vector3d(rng.normal(), rng.normal(), rng.normal());
        const auto any = [](int) { return true; };
        EXPECT_EQ(idx.nearest(p, 0.5, any), lib.nearest(p, 0.5, any));
    }
}

std::vector<Quill::mark_data> frameOf(const sim::MarkerScene& scene, std::uint64_t seed,
                                      double spurious) {
    sim::FrameGenerator gen(scene, seed);
    sim::FrameOptions o;
    o.visible = 30;
    o.noiseSigma = 0.05;
    o.dropFraction = 0.1;
    o.spuriousFraction = spurious;
    return frameMarks(gen.randomFrame(o));
}

}  // namespace

TEST(ReferenceIndex, OffersTheLibrarysTrianglesForEveryLookup) {
    for (int n : {60, 300, 2000}) {
        const auto scene = sim::MarkerScene::randomPart(n, 70 + static_cast<std::uint64_t>(n));
        for (std::uint64_t f = 0; f < 3; ++f) {
            SCOPED_TRACE(n);
            compareIndexes(sceneMarks(scene), frameOf(scene, 80 + f, f == 2 ? 0.1 : 0.0));
        }
    }
    // A regular grid: many exactly equal distances, so ties must be broken alike.
    const auto grid = sim::MarkerScene::grid(12, 15, 20.0);
    compareIndexes(sceneMarks(grid), frameOf(grid, 90, 0.0));
}

TEST(ReferenceIndex, FoldsDuplicatesAndSkipsUnusableMarkersLikeAFrame) {
    const auto scene = sim::MarkerScene::randomPart(200, 91);
    auto fixed = sceneMarks(scene);
    // Near-duplicates of earlier markers (folded), one of a later marker placed first, and
    // markers without a position.
    for (int k = 0; k < 20; ++k) {
        Quill::mark_data d = fixed[static_cast<std::size_t>(k * 7)];
        d.x += 1.0f;
        fixed.push_back(d);
    }
    Quill::mark_data early = fixed[150];
    early.y += 2.0f;
    fixed.insert(fixed.begin(), early);
    fixed[10].x = std::numeric_limits<float>::quiet_NaN();
    fixed[11].z = std::numeric_limits<float>::infinity();
    compareIndexes(fixed, frameOf(scene, 92, 0.1));
}

TEST(ReferenceIndex, RefusesUnusableArraysAndSurvivesAbsurdCoordinates) {
    const auto scene = sim::MarkerScene::randomPart(100, 93);
    const auto fixed = sceneMarks(scene);
    const auto moving = frameOf(scene, 94, 0.0);
    MovingSet mv;
    ASSERT_TRUE(
        Quill::detail::prepareMoving(moving.data(), static_cast<int>(moving.size()), 3.0, mv));
    ReferenceIndex idx;
    EXPECT_FALSE(idx.build(fixed.data(), -1, 3.0, mv, 0.6));
    EXPECT_FALSE(idx.build(nullptr, 5, 3.0, mv, 0.6));
    EXPECT_EQ(idx.live(), 0);

    // One marker at the edge of the float range stretches the box: the grid falls back to
    // coarse cells and the index still answers.
    auto far = fixed;
    far[0].x = 3.0e38f;
    far[1].x = -3.0e38f;
    ASSERT_TRUE(idx.build(far.data(), static_cast<int>(far.size()), 3.0, mv, 0.6));
    EXPECT_EQ(idx.live(), 100);
    const auto any = [](int) { return true; };
    EXPECT_EQ(idx.nearest(idx.pos[50], 0.1, any), 50);

    // A heap of copies of one marker folds into it in linear time (a pass over all pairs of
    // 100,000 copies would not end within the test's time limit).
    auto heap = fixed;
    heap.insert(heap.end(), 100000, fixed[7]);
    ASSERT_TRUE(idx.build(heap.data(), static_cast<int>(heap.size()), 3.0, mv, 0.6));
    EXPECT_EQ(idx.live(), 100);
    EXPECT_EQ(idx.source().back(), 99);

    // The one-off registration through this index still finds the frame.
    Quill::MyMatchMarkClass_update m;
    applyTrackerSettings(m);
    auto mov = moving;
    EXPECT_EQ(m.MarkRegistration(mov.data(), static_cast<int>(mov.size()), far.data(),
                                 static_cast<int>(far.size()), -1, 0),
              1);
}

// The moving set's neighbours, computed once per registration, against a plain sort of every
// pair by (distance, index): a regular grid has many equal distances, so the order of ties
// and the tie with the fifth kept neighbour decide; a marker at exactly the same-target
// distance is a neighbour but not the nearest one the radius is estimated from.
TEST(ReferenceIndex, MovingNeighboursAreTheNearestByDistanceThenIndex) {
    const double same = 3.0;
    std::vector<Eigen::Vector3d> p;
    for (int k = 0; k < 36; ++k)
        p.emplace_back(5.0 * (k % 6), 5.0 * (k / 6), (k * 7) % 3 == 0 ? 0.0 : 0.25 * (k % 4));
    p.emplace_back(p[14].x() + same, p[14].y(), p[14].z());  // exactly `same` from marker 14
    const int n = static_cast<int>(p.size());
    Quill::detail::MovingNeighbours nb;
    nb.compute(p, same);
    ASSERT_TRUE(nb.exact);
    std::vector<double> nearest;
    for (int i = 0; i < n; ++i) {
        std::vector<std::pair<double, int>> all;
        double best = 1e300;
        for (int j = 0; j < n; ++j) {
            const double d =
                (p[static_cast<std::size_t>(j)] - p[static_cast<std::size_t>(i)]).norm();
            ASSERT_EQ(nb.distance(i, j), d);
            if (j != i && d >= same)
                all.emplace_back(d, j);
            if (j != i && d > same)
                best = std::min(best, d);
        }
        std::sort(all.begin(), all.end());
        for (int u = 0; u < Quill::detail::kAnchorNeighbours; ++u) {
            const auto su = static_cast<std::size_t>(u);
            ASSERT_EQ(nb.nearId[static_cast<std::size_t>(i)][su], all[su].second) << i << " " << u;
            ASSERT_EQ(nb.nearDist[static_cast<std::size_t>(i)][su], all[su].first);
        }
        nearest.push_back(best);
    }
    EXPECT_EQ(nb.nearId[14][0], 36);
    std::nth_element(nearest.begin(), nearest.begin() + n / 2, nearest.end());
    EXPECT_DOUBLE_EQ(nb.radius,
                     std::max(3.0 * nearest[static_cast<std::size_t>(n / 2)], 5.0 * same));
    EXPECT_DOUBLE_EQ(nb.radius, MarkerLibrary::suggestLinkRadius(p, same));
}
