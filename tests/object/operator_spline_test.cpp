#include "object/operator_spline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/parallel.h"
#include "platform/scene_file.h"
#include "platform/spline_objects.h"
#include "support/terrain_harness.h"
#include "vellgrund/blend.h"
#include "vellgrund/distortion.h"

namespace {

using namespace platform;
using namespace testing_support;
using namespace VLGD;

// 100 x 100 cells of one unit: column x lies at X = x - 50, row y at Z = 50 - y. A base
// generator of 3 + column index lies below the spline operator, which blends NORMAL.
struct SplineHarness : TerrainHarness {
  SplineHarness() : TerrainHarness(100, 100.0) {
    base = AddGenerator("base", 3.0);
    op = AddOperator(ID_SPLINEOPERATOR, "spline");
    Set(op, TERRAINOPERATOR_BLENDMODE, static_cast<Int32>(BLENDMODE::NORMAL));
    Set(op, SPLINEOPERATOR_WIDTH, 10.0);
    Set(op, SPLINEOPERATOR_FALLOFF, 10.0);
    SplineData linear;
    EXPECT_TRUE(linear.MakeLinearSpline(2));
    Set(op, SPLINEOPERATOR_PROFILE, std::move(linear));
  }
  Node* AddSpline(std::vector<SplinePoint> points, bool closed = false, SPLINETYPE type = SPLINETYPE::LINEAR) {
    auto created = doc->CreateNode(ID_SPLINE_OBJECT);
    EXPECT_TRUE(created);
    Node* spline = doc->InsertLast(std::move(*created));
    Set(spline, SPLINEOBJECT_POINTS, SplinePath{std::move(points)});
    Set(spline, SPLINEOBJECT_CLOSED, closed);
    Set(spline, SPLINEOBJECT_TYPE, static_cast<Int32>(type));
    NodeLinkList links;
    if (const NodeLinkList* held = op->GetData().GetLinkList(SPLINEOPERATOR_SPLINES)) links = *held;
    links.targets.push_back(spline->Identity());
    Set(op, SPLINEOPERATOR_SPLINES, links);
    return spline;
  }
  std::vector<Float> Heights() const {
    const Grid2D<Float>& grid = Terrain().GetGrid();
    return {grid.Data(), grid.Data() + grid.Count()};
  }
  static Float Base(Int x) { return 3.0 + static_cast<Float>(x); }
  Node* base = nullptr;
  Node* op = nullptr;
};

// A straight spline along X at Z = 0, its height rising from 0 at X = -60 to 12 at X = 60.
std::vector<SplinePoint> Straight() {
  return {{{-60, 0, 0}, {}, {}}, {{60, 12, 0}, {}, {}}};
}

TEST(SplineOperatorTest, EachModeFollowsTheProfileAcrossTheShoulders) {
  SplineHarness h;
  h.AddSpline(Straight());
  const Float height = 20.0;
  h.Set(h.op, SPLINEOPERATOR_HEIGHT, height);
  // Rows at distance d from the spline: the core reaches 5, the shoulder fades linearly
  // to 0 at 15, and at 15 and beyond the base is left as it was.
  const struct {
    SPLINEMODE mode;
    BLENDMODE blend;
  } modes[] = {{SPLINEMODE::FLATTEN, BLENDMODE::NORMAL},
               {SPLINEMODE::RAISE, BLENDMODE::ADD},
               {SPLINEMODE::CARVE, BLENDMODE::ADD},
               {SPLINEMODE::RAISE, BLENDMODE::NORMAL}};
  for (const auto& [mode, blend] : modes) {
    SCOPED_TRACE(testing::Message() << "mode " << static_cast<int>(mode) << ", blend " << static_cast<int>(blend));
    h.Set(h.op, SPLINEOPERATOR_MODE, static_cast<Int32>(mode));
    h.Set(h.op, TERRAINOPERATOR_BLENDMODE, static_cast<Int32>(blend));
    ASSERT_TRUE(h.Rebuild());
    for (const Int x : {0, 37, 100}) {
      const Float curve = (static_cast<Float>(x) - 50.0 + 60.0) * 0.1;  // the spline's Y above column x
      for (const auto& [d, weight] : {std::pair{0.0, 1.0},
                                      {3.0, 1.0},
                                      {5.0, 1.0},
                                      {8.0, 0.7},
                                      {12.0, 0.3},
                                      {14.0, 0.1},
                                      {15.0, 0.0},
                                      {30.0, 0.0}}) {
        for (const Float side : {-1.0, 1.0}) {
          const Int y = 50 + static_cast<Int>(side * d);
          const Float b = SplineHarness::Base(x);
          const Float target = mode == SPLINEMODE::FLATTEN ? curve
                               : blend == BLENDMODE::ADD   ? b + (mode == SPLINEMODE::RAISE ? height : -height)
                                                           : height;
          const Float expected = b + (target - b) * weight;
          if (weight == 0.0)
            EXPECT_EQ(h.Height(x, y), b) << x << ", " << y;  // untouched to the bit
          else
            EXPECT_NEAR(h.Height(x, y), expected, 1e-9) << x << ", " << y;
        }
      }
    }
  }
}

// Every sample against the nearest of all segments, with the operator moved and turned
// (which moves samples and curves alike): rows that stay rows walk their cells in runs,
// turned rows sample by sample; both must find each sample's nearest segment.
TEST(SplineOperatorTest, EverySampleFollowsTheNearestSegmentInAnyFrame) {
  const std::vector<std::vector<Vector>> lines = {
      {{-45, 2, -30}, {-20, 8, 10}, {0, 1, -5}, {15, 12, 35}, {45, 4, 20}},
      {{10, 6, -40}, {40, 6, -35}, {25, 6, -10}},  // closed
  };
  const Float halfWidth = 3.0, falloff = 7.0;
  const Float c = std::cos(0.5), s = std::sin(0.5);
  const Matrix frames[] = {Matrix{}, Matrix{{7.5, 0, -3.25}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}},
                           Matrix{{2, 0, 1}, {c, 0, s}, {0, 1, 0}, {-s, 0, c}}};
  for (const Matrix& frame : frames) {
    SCOPED_TRACE(testing::Message() << "frame offset " << frame.off.x << ", axis " << frame.v1.x);
    SplineHarness h;
    h.Set(h.op, SPLINEOPERATOR_WIDTH, 2.0 * halfWidth);
    h.Set(h.op, SPLINEOPERATOR_FALLOFF, falloff);
    for (std::size_t l = 0; l < std::size(lines); ++l) {
      std::vector<SplinePoint> points;
      for (const Vector& p : lines[l]) points.push_back({p, {}, {}});
      h.AddSpline(points, l == 1);
    }
    h.op->SetMl(frame);
    ASSERT_TRUE(h.Rebuild());
    int shoulders = 0;
    for (Int y = 0; y <= 100; ++y) {
      for (Int x = 0; x <= 100; ++x) {
        const Float px = static_cast<Float>(x) - 50.0, pz = 50.0 - static_cast<Float>(y);
        Float best = std::numeric_limits<Float>::infinity(), curve = 0.0;
        for (std::size_t l = 0; l < std::size(lines); ++l) {
          const auto& p = lines[l];
          for (std::size_t i = 0; i + (l == 1 ? 0 : 1) < p.size(); ++i) {
            const Vector& a = p[i];
            const Vector& b = p[(i + 1) % p.size()];
            const Float dx = b.x - a.x, dz = b.z - a.z;
            const Float t = std::clamp(((px - a.x) * dx + (pz - a.z) * dz) / (dx * dx + dz * dz), 0.0, 1.0);
            const Float d = std::hypot(px - a.x - t * dx, pz - a.z - t * dz);
            if (d < best) best = d, curve = a.y + t * (b.y - a.y);
          }
        }
        const Float weight = std::clamp(1.0 - (best - halfWidth) / falloff, 0.0, 1.0);
        const Float base = SplineHarness::Base(x);
        // Samples a rounding away from the falloff's edge may go either way.
        if (std::abs(best - halfWidth - falloff) < 1e-9) continue;
        shoulders += weight > 0.0 && weight < 1.0;
        if (weight == 0.0)
          ASSERT_EQ(h.Height(x, y), base) << x << ", " << y;
        else
          ASSERT_NEAR(h.Height(x, y), base + (curve - base) * weight, 1e-8) << x << ", " << y;
      }
    }
    EXPECT_GT(shoulders, 1000);
  }
}

TEST(SplineOperatorTest, BeyondTheFalloffTheTerrainIsBitIdentical) {
  SplineHarness h;
  h.Set(h.base, TERRAINOPERATOR_STRENGTH, 0.37);  // heights without short binary forms
  // A curved road across the terrain; its reach is 15 units.
  h.AddSpline({{{-70, 4, -30}, {}, {40, 0, 0}}, {{10, -2, 20}, {-20, 0, -10}, {20, 0, 10}}, {{70, 9, -10}, {}, {}}},
              false, SPLINETYPE::BEZIER);
  h.Set(h.op, TERRAINDISTORTION_ENABLED, true);
  h.Set(h.op, TERRAINDISTORTION_AMOUNT, 0.05);  // up to 5 units each way
  ASSERT_TRUE(h.Rebuild());
  const std::vector<Float> with = h.Heights();
  h.op->SetEnabled(false);
  ASSERT_TRUE(h.Rebuild());
  const std::vector<Float> without = h.Heights();
  const std::span<const Float> mask = h.op->GetNodeData<SplineOperator>()->GetResultMask();
  ASSERT_EQ(mask.size(), with.size());
  std::size_t changed = 0, untouched = 0;
  for (std::size_t i = 0; i < with.size(); ++i) {
    if (mask[i] == 0.0) {
      ++untouched;
      EXPECT_EQ(with[i], without[i]) << i;
    } else {
      changed += with[i] != without[i];
    }
  }
  EXPECT_GT(changed, 1500u);
  EXPECT_GT(untouched, 5000u);
}

TEST(SplineOperatorTest, ClosedSplinesFillTheirInsideOnlyWhenAsked) {
  SplineHarness h;
  h.Set(h.op, SPLINEOPERATOR_WIDTH, 0.0);
  h.Set(h.op, SPLINEOPERATOR_FALLOFF, 5.0);
  // A square at height 4 from -20 to 20, and an open line that never fills.
  h.AddSpline({{{-20, 4, -20}, {}, {}}, {{20, 4, -20}, {}, {}}, {{20, 4, 20}, {}, {}}, {{-20, 4, 20}, {}, {}}}, true);
  h.AddSpline({{{-45, 1, 40}, {}, {}}, {{-30, 1, 40}, {}, {}}, {{-30, 1, 30}, {}, {}}});
  const struct {
    bool fill;
    Int x, y;
    Float expected;  // NaN: the base
  } cases[] = {
      {true, 50, 50, 4.0},  {true, 31, 31, 4.0},
      {true, 70, 50, 4.0},  {true, 72, 50, 0.6 * 4.0 + 0.4 * 75.0},
      {true, 75, 50, NAN},  {true, 10, 10, 1.0},
      {true, 12, 15, NAN},  {false, 50, 50, NAN},
      {false, 70, 50, 4.0}, {false, 68, 50, 0.6 * 4.0 + 0.4 * 71.0},
      {false, 10, 10, 1.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.fill ? "filled " : "open ") << c.x << ", " << c.y);
    h.Set(h.op, SPLINEOPERATOR_FILL, c.fill);
    ASSERT_TRUE(h.Rebuild());
    if (std::isnan(c.expected))
      EXPECT_EQ(h.Height(c.x, c.y), SplineHarness::Base(c.x));
    else
      EXPECT_NEAR(h.Height(c.x, c.y), c.expected, 1e-9);
  }
}

TEST(SplineOperatorTest, AlikeOnAnyThreadCount) {
  TerrainHarness h(600, 1000.0);
  Node* op = h.AddOperator(ID_SPLINEOPERATOR, "spline");
  h.Set(op, SPLINEOPERATOR_FILL, true);
  h.Set(op, TERRAINDISTORTION_ENABLED, true);
  std::mt19937 random(5);
  std::uniform_real_distribution<Float> unit(-400.0, 400.0);
  NodeLinkList links;
  for (const bool closed : {false, true}) {
    std::vector<SplinePoint> points;
    for (int i = 0; i < 40; ++i)
      points.push_back({{unit(random), unit(random) * 0.05, unit(random)},
                        {unit(random) * 0.1, 0, unit(random) * 0.1},
                        {unit(random) * 0.1, 0, unit(random) * 0.1}});
    auto created = h.doc->CreateNode(ID_SPLINE_OBJECT);
    ASSERT_TRUE(created);
    Node* spline = h.doc->InsertLast(std::move(*created));
    h.Set(spline, SPLINEOBJECT_POINTS, SplinePath{points});
    h.Set(spline, SPLINEOBJECT_CLOSED, closed);
    links.targets.push_back(spline->Identity());
  }
  h.Set(op, SPLINEOPERATOR_SPLINES, links);
  std::vector<Float> single;
  {
    const ScopedThreadLimit one(1);
    ASSERT_TRUE(h.Rebuild());
    const Grid2D<Float>& grid = h.Terrain().GetGrid();
    single.assign(grid.Data(), grid.Data() + grid.Count());
  }
  h.Set(op, SPLINEOPERATOR_WIDTH, 21.0);
  ASSERT_TRUE(h.Rebuild());
  h.Set(op, SPLINEOPERATOR_WIDTH, 20.0);  // back to the first settings, now on every thread
  ASSERT_TRUE(h.Rebuild());
  EXPECT_NE(h.Rebuilt().find("spline"), std::string::npos);
  const Grid2D<Float>& grid = h.Terrain().GetGrid();
  EXPECT_TRUE(std::equal(single.begin(), single.end(), grid.Data())) << "results differ with " << MaxThreads();
  EXPECT_GT(std::count_if(single.begin(), single.end(), [](Float v) { return v != 0.0; }), 10000);
}

TEST(SplineOperatorTest, RebuildsWhenALinkedSplineChangesAndOnlyThen) {
  SplineHarness h;
  Node* spline = h.AddSpline(Straight());
  ASSERT_TRUE(h.Rebuild());
  const Float before = h.Height(50, 50);
  EXPECT_NEAR(before, 6.0, 1e-12);

  const struct {
    const char* change;
    std::function<void()> apply;
    bool rebuilds;
    Float height;  // at the centre afterwards
  } steps[] = {
      {"nothing", [] {}, false, 6.0},
      {"moved up",
       [&] {
         spline->SetMl(TranslationMatrix({0, 2, 0}));
       },
       true, 8.0},
      {"a point raised",
       [&] {
         h.Set(spline, SPLINEOBJECT_POINTS, SplinePath{{{{-60, 0, 0}, {}, {}}, {{60, 24, 0}, {}, {}}}});
       },
       true, 14.0},
      {"a parent moved",
       [&] {
         auto created = h.doc->CreateNode(ID_SPLINE_OBJECT);
         Node* parent = h.doc->InsertLast(std::move(*created));
         std::unique_ptr<Node> moved = h.doc->Remove(*spline);
         spline = h.doc->InsertLast(std::move(moved), parent);
         parent->SetMl(TranslationMatrix({0, -4, 0}));
       },
       true, 10.0},
      {"unlinked", [&] { h.Set(h.op, SPLINEOPERATOR_SPLINES, NodeLinkList{}); }, true, SplineHarness::Base(50)},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.change);
    step.apply();
    ASSERT_TRUE(h.Rebuild());
    EXPECT_EQ(h.Rebuilt().find("spline") != std::string::npos, step.rebuilds) << h.Rebuilt();
    EXPECT_NEAR(h.Height(50, 50), step.height, 1e-12);
  }
}

TEST(SplineOperatorTest, LinkListsSurviveTheSceneFileAndBadLinksAreRefused) {
  TerrainHarness h;
  const std::string scene = R"({"vellgrund": 1, "objects": [
      {"type": "ospline", "name": "Road", "id": "road", "params": {"SPLINEOBJECT_POINTS": {"points": [
        {"position": [-10, 0, 0]}, {"position": [10, 1, 0]}]}}},
      {"type": "ospline", "name": "River", "id": "river"},
      {"type": "oterrain", "name": "Terrain", "children": [
        {"type": "osplineoperator", "name": "Roads", "params": {"SPLINEOPERATOR_SPLINES": {"links": ["road", null, "river"]},
          "SPLINEOPERATOR_MODE": "CARVE"}}]}]})";
  auto loaded = LoadScene(h.host, scene, "roads.json");
  ASSERT_TRUE(loaded) << loaded.error().message;
  const Node* road = (*loaded)->GetFirstObject();
  const Node* op = road->GetNext()->GetNext()->GetDown();
  const NodeLinkList* links = op->GetData().GetLinkList(SPLINEOPERATOR_SPLINES);
  ASSERT_NE(links, nullptr);
  EXPECT_EQ(links->targets, (std::vector<UInt64>{road->Identity(), 0, road->GetNext()->Identity()}));
  auto saved = SaveScene(**loaded);
  ASSERT_TRUE(saved) << saved.error().message;
  auto reloaded = LoadScene(h.host, *saved, "saved.json");
  ASSERT_TRUE(reloaded) << reloaded.error().message;
  EXPECT_TRUE(DocumentsEqual(**loaded, **reloaded));

  const struct {
    std::string from, to, message;
  } refusals[] = {
      {R"(["road", null, "river"])", R"(["road", "lake"])", "'links'[1]: no object has the id 'lake'"},
      {R"({"links": ["road", null, "river"]})", R"(["road"])", "expected {\"links\": [...]}, not an array"},
      {R"(["road", null, "river"])", R"([1.5])", "'links'[0]: expected a string or an integer"},
      {R"("links")", R"("items")", "unknown key 'items'"},
  };
  for (const auto& r : refusals) {
    SCOPED_TRACE(r.to);
    std::string bad = scene;
    bad.replace(bad.find(r.from), r.from.size(), r.to);
    const auto refused = LoadScene(h.host, bad, "bad.json");
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find("'Roads'"), std::string::npos) << refused.error().message;
    EXPECT_NE(refused.error().message.find(r.message), std::string::npos) << refused.error().message;
  }
}

}  // namespace
