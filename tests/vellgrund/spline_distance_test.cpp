#include "vellgrund/spline_distance.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

namespace {

using namespace VLGD;

struct Reference {
  Float distance = std::numeric_limits<Float>::infinity();
  Float height = 0.0;
};

// Every segment of every polyline, the plain way.
Reference BruteForce(const std::vector<std::vector<Vector>>& lines, const std::vector<bool>& closed, Float x, Float z) {
  Reference best;
  for (std::size_t l = 0; l < lines.size(); ++l) {
    const auto& p = lines[l];
    const std::size_t count = closed[l] ? p.size() : p.size() - 1;
    for (std::size_t i = 0; i < count; ++i) {
      const Vector a = p[i], b = p[(i + 1) % p.size()];
      const Vector ab(b.x - a.x, 0.0, b.z - a.z);
      const Float length = ab.x * ab.x + ab.z * ab.z;
      const Float t = length > 0.0 ? std::clamp(((x - a.x) * ab.x + (z - a.z) * ab.z) / length, 0.0, 1.0) : 0.0;
      const Float d = std::hypot(x - (a.x + t * ab.x), z - (a.z + t * ab.z));
      if (d < best.distance) best = {d, a.y + t * (b.y - a.y)};
    }
  }
  return best;
}

bool InsidePolygon(const std::vector<Vector>& p, Float x, Float z) {
  bool inside = false;
  for (std::size_t i = 0, j = p.size() - 1; i < p.size(); j = i++)
    if ((p[i].z > z) != (p[j].z > z) && x < (p[j].x - p[i].x) * (z - p[i].z) / (p[j].z - p[i].z) + p[i].x)
      inside = !inside;
  return inside;
}

Vector Bezier(const Vector& p0, const Vector& p1, const Vector& p2, const Vector& p3, Float t) {
  const Float u = 1.0 - t;
  return p0 * (u * u * u) + p1 * (3.0 * u * u * t) + p2 * (3.0 * u * t * t) + p3 * (t * t * t);
}

// Random walks, open and closed, some with repeated points, against every segment: the
// cells must never lose the nearest one, whatever the reach and cell size.
TEST(SegmentFieldTest, DistancesAndHeightsMatchEverySegmentOnRandomCurves) {
  std::mt19937 random(20240611);
  std::uniform_real_distribution<Float> unit(0.0, 1.0);
  const struct {
    Float reach, cell;
    int lines, points;
    Float step;
  } trials[] = {
      {5.0, 1.0, 1, 200, 3.0},    {30.0, 4.0, 3, 60, 10.0}, {0.5, 0.1, 2, 500, 0.4},
      {80.0, 200.0, 4, 30, 25.0}, {12.0, 0.0, 2, 2, 40.0},  // one segment each; the field picks its own cells
  };
  for (const auto& trial : trials) {
    SCOPED_TRACE(testing::Message() << "reach " << trial.reach << ", cell " << trial.cell);
    std::vector<std::vector<Vector>> lines;
    std::vector<bool> closed;
    SegmentField field;
    for (int l = 0; l < trial.lines; ++l) {
      std::vector<Vector>& line = lines.emplace_back();
      Vector at(unit(random) * 100.0, unit(random) * 10.0, unit(random) * 100.0);
      for (int i = 0; i < trial.points; ++i) {
        line.push_back(at);
        if (unit(random) > 0.05)  // else the next point repeats this one
          at = at + Vector((unit(random) - 0.5) * trial.step, unit(random) - 0.5, (unit(random) - 0.5) * trial.step);
      }
      closed.push_back(l % 2 == 1);
      ASSERT_TRUE(field.AddPolyline(line, closed.back(), false));
    }
    ASSERT_TRUE(field.Build(trial.reach, trial.cell));
    int near = 0;
    for (int q = 0; q < 20000; ++q) {
      // Half the queries anywhere, half close to a point of a curve.
      Float x = -100.0 + unit(random) * 300.0, z = -100.0 + unit(random) * 300.0;
      if (q % 2 == 1) {
        const auto& line = lines[static_cast<std::size_t>(q / 2) % lines.size()];
        const Vector& at = line[static_cast<std::size_t>(unit(random) * static_cast<Float>(line.size() - 1))];
        x = at.x + (unit(random) - 0.5) * 3.0 * trial.reach;
        z = at.z + (unit(random) - 0.5) * 3.0 * trial.reach;
      }
      const Reference expected = BruteForce(lines, closed, x, z);
      const SegmentField::Nearest found = field.Query(x, z);
      EXPECT_FALSE(found.inside);
      if (expected.distance > trial.reach) {
        EXPECT_TRUE(std::isinf(found.distance)) << x << ", " << z;
        continue;
      }
      ++near;
      ASSERT_NEAR(found.distance, expected.distance, 1e-12 * (1.0 + expected.distance)) << x << ", " << z;
      EXPECT_NEAR(found.height, expected.height, 1e-9) << x << ", " << z;
    }
    EXPECT_GT(near, 2000);
  }
}

// A random star-shaped polygon, filled, against the even-odd rule; points on no curve at
// all, far inside, must count too.
TEST(SegmentFieldTest, FilledClosedCurvesCoverTheirInsideAtTheirMeanHeight) {
  std::mt19937 random(7);
  std::uniform_real_distribution<Float> unit(0.0, 1.0);
  std::vector<Vector> star;
  for (int i = 0; i < 40; ++i) {
    const Float angle = 2.0 * std::numbers::pi * i / 40.0;
    const Float radius = 20.0 + 25.0 * unit(random);
    star.emplace_back(50.0 + radius * std::cos(angle), 6.0, 50.0 + radius * std::sin(angle));
  }
  const std::vector<Vector> open = {{-50, 1, -50}, {-40, 3, -50}};  // an open line does not fill
  SegmentField field;
  ASSERT_TRUE(field.AddPolyline(open, false, true));
  ASSERT_TRUE(field.AddPolyline(star, true, true));
  ASSERT_TRUE(field.Build(2.0, 1.0));
  for (int q = 0; q < 20000; ++q) {
    const Float x = unit(random) * 100.0, z = unit(random) * 100.0;
    const bool inside = InsidePolygon(star, x, z);
    const SegmentField::Nearest found = field.Query(x, z);
    EXPECT_EQ(found.inside, inside) << x << ", " << z;
    if (inside) {
      EXPECT_EQ(found.distance, 0.0);
      EXPECT_DOUBLE_EQ(found.height, 6.0);
    }
  }
  EXPECT_FALSE(field.Query(-45.0, -45.0).inside);
}

// The distance and height of the nearest segment with the field's own arithmetic, ties to
// the first: the cells must find exactly this, on every SIMD target.
struct Exact {
  Float distance = std::numeric_limits<Float>::infinity();
  Float height = 0.0;
};
Exact ExactNearest(const std::vector<std::vector<Vector>>& lines, Float reach, Float x, Float z) {
  Float best = std::numeric_limits<Float>::infinity();
  Exact found;
  for (const auto& p : lines) {
    for (std::size_t i = 0; i < p.size(); ++i) {
      const Vector& a = p[i];
      const Vector& b = p[(i + 1) % p.size()];
      const Float dx = b.x - a.x, dz = b.z - a.z, lengthSquared = dx * dx + dz * dz;
      const Float inverse = lengthSquared > 0.0 ? 1.0 / lengthSquared : 0.0;
      const Float px = x - a.x, pz = z - a.z;
      Float t = (px * dx + pz * dz) * inverse;
      t = t > 0.0 ? (t < 1.0 ? t : 1.0) : 0.0;
      const Float ex = px - t * dx, ez = pz - t * dz;
      const Float d = ex * ex + ez * ez;
      if (d < best) {
        best = d;
        found.height = a.y + t * (b.y - a.y);
      }
    }
  }
  found.distance = std::sqrt(best);
  if (!(found.distance <= reach)) found = {};
  return found;
}

// Rows of points walked in runs of one cell, as the operator walks them, on integer
// coordinates that fall exactly on the borders of unit cells, and between them; each point
// split into a column's part and a row offset. Closed curves (one filled) included.
TEST(SegmentFieldTest, RunsOfPointsMatchTheExactNearestSegmentOnEveryTarget) {
  std::mt19937 random(314159);
  std::uniform_real_distribution<Float> unit(0.0, 1.0);
  std::vector<std::vector<Vector>> lines;
  for (int l = 0; l < 3; ++l) {
    std::vector<Vector>& line = lines.emplace_back();
    // Every curve starts at the origin, so that the field's first cell starts at -reach.
    Vector at(0.0, 1.0, 0.0);
    for (int i = 0; i < 25; ++i) {
      line.push_back(at);
      at = at + Vector(unit(random) * 6.0 - 2.0, unit(random) - 0.5, (unit(random) - 0.5) * 8.0);
    }
  }
  const Float reach = 6.0;
  const auto build = [&](SegmentField& field) {
    for (std::size_t l = 0; l < lines.size(); ++l) ASSERT_TRUE(field.AddPolyline(lines[l], true, l == 2));
    ASSERT_TRUE(field.Build(reach, 1.0));
  };
  const Float filledLevel = [&] {
    SegmentField filled;
    EXPECT_TRUE(filled.AddPolyline(lines[2], true, true));
    EXPECT_TRUE(filled.Build(reach, 1.0));
    for (Float z = -20.0; z < 20.0; z += 0.37)
      for (Float x = 0.0; x < 60.0; x += 0.41)
        if (const SegmentField::Nearest n = filled.Query(x, z); n.inside) return n.height;
    return std::numeric_limits<Float>::quiet_NaN();
  }();
  ASSERT_FALSE(std::isnan(filledLevel)) << "the filled curve must enclose some points";

  constexpr Int kColumns = 400;
  std::vector<Float> columns(kColumns + SegmentField::kPadding), zs(kColumns + SegmentField::kPadding);
  std::vector<Float> distance(kColumns + SegmentField::kPadding), height(kColumns + SegmentField::kPadding);
  const std::vector<int64_t> targets = hwy::SupportedAndGeneratedTargets();
  ASSERT_FALSE(targets.empty());
  int compared = 0, near = 0;
  for (const int64_t target : targets) {
    SCOPED_TRACE(hwy::TargetName(target));
    hwy::SetSupportedTargetsForTest(target);
    SegmentField field;
    build(field);
    for (const Float step : {1.0, 0.25, 0.3}) {  // on the borders, a quarter of a cell, neither
      for (Float rowZ = -18.0; rowZ <= 18.0; rowZ += 0.5) {
        const Float offset = step == 0.3 ? 0.125 : SegmentField::kNoOffset;
        for (Int i = 0; i < kColumns; ++i) {
          columns[static_cast<std::size_t>(i)] = -8.0 + step * static_cast<Float>(i);
          zs[static_cast<std::size_t>(i)] = rowZ;
        }
        for (Int begin = 0; begin < kColumns;) {
          const Float x = columns[static_cast<std::size_t>(begin)] + offset;
          const Int cell = field.CellOf(x, rowZ);
          Int end = begin + 1;
          while (end < kColumns && field.CellOf(columns[static_cast<std::size_t>(end)] + offset, rowZ) == cell) ++end;
          if (cell >= 0) {
            const auto b = static_cast<std::size_t>(begin);
            field.QueryRun(cell, columns.data() + b, offset, zs.data() + b, SegmentField::kNoOffset, end - begin,
                           distance.data() + b, height.data() + b);
          }
          for (Int i = begin; i < end; ++i) {
            const auto k = static_cast<std::size_t>(i);
            const Float px = columns[k] + offset;
            Exact expected = cell >= 0 ? ExactNearest(lines, reach, px, rowZ) : Exact{};
            if (cell >= 0 && InsidePolygon(lines[2], px, rowZ)) expected = {0.0, filledLevel};
            const Float gotDistance = cell >= 0 ? distance[k] : std::numeric_limits<Float>::infinity();
            const Float gotHeight = cell >= 0 ? height[k] : 0.0;
            ASSERT_EQ(std::bit_cast<std::uint64_t>(gotDistance), std::bit_cast<std::uint64_t>(expected.distance))
                << px << ", " << rowZ << ": " << gotDistance << " against " << expected.distance;
            ASSERT_EQ(std::bit_cast<std::uint64_t>(gotHeight), std::bit_cast<std::uint64_t>(expected.height))
                << px << ", " << rowZ;
            ++compared;
            near += expected.distance <= reach;
          }
          begin = end;
        }
      }
    }
  }
  hwy::SetSupportedTargetsForTest(0);
  EXPECT_GT(near, compared / 10);
}

TEST(SegmentFieldTest, FlattenedCubicsStayWithinTheTolerance) {
  std::mt19937 random(99);
  std::uniform_real_distribution<Float> unit(-50.0, 50.0);
  for (const Float tolerance : {1.0, 0.1, 0.001}) {
    for (int c = 0; c < 20; ++c) {
      const Vector p0(unit(random), unit(random) * 0.2, unit(random)), p1(unit(random), unit(random), unit(random));
      const Vector p2(unit(random), unit(random), unit(random)), p3(unit(random), unit(random) * 0.2, unit(random));
      std::vector<Vector> points = {p0};
      ASSERT_TRUE(FlattenCubic(p0, p1, p2, p3, tolerance, points));
      EXPECT_EQ(points.back(), p3);
      EXPECT_LT(points.size(), 4000u);
      Float worst = 0.0;
      for (int k = 0; k <= 500; ++k) {
        const Vector on = Bezier(p0, p1, p2, p3, k / 500.0);
        Float nearest = std::numeric_limits<Float>::infinity();
        for (std::size_t i = 0; i + 1 < points.size(); ++i) {
          const Vector ab = points[i + 1] - points[i];
          const Float length = platform::Dot(ab, ab);
          const Float t = length > 0.0 ? std::clamp(platform::Dot(on - points[i], ab) / length, 0.0, 1.0) : 0.0;
          nearest = std::min(nearest, platform::Length(on - (points[i] + ab * t)));
        }
        worst = std::max(worst, nearest);
      }
      EXPECT_LE(worst, tolerance * (1.0 + 1e-9)) << "curve " << c;
    }
  }
}

TEST(SegmentFieldTest, DegenerateInputAddsNothingAndQueriesStayFar) {
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  SegmentField field;
  ASSERT_TRUE(field.AddPolyline(std::vector<Vector>{{1, 1, 1}}, false, false));
  ASSERT_TRUE(field.AddPolyline(std::vector<Vector>{{0, 0, 0}, {nan, 0, 0}}, false, false));
  ASSERT_TRUE(field.Build(10.0, 1.0));
  EXPECT_EQ(field.SegmentCount(), 0);
  EXPECT_TRUE(std::isinf(field.Query(0.0, 0.0).distance));

  // A point-sized segment is a dot; NaN queries find nothing.
  ASSERT_TRUE(field.AddPolyline(std::vector<Vector>{{3, 2, 4}, {3, 2, 4}}, false, false));
  ASSERT_TRUE(field.Build(10.0, 1.0));
  EXPECT_DOUBLE_EQ(field.Query(6.0, 8.0).distance, 5.0);
  EXPECT_TRUE(std::isinf(field.Query(nan, 4.0).distance));

  // An absurd reach over many segments is refused, not searched.
  SegmentField huge;
  std::vector<Vector> line;
  for (int i = 0; i < 100000; ++i) line.emplace_back(i * 10.0, 0.0, (i % 2) * 10.0);
  ASSERT_TRUE(huge.AddPolyline(line, false, false));
  const platform::Status built = huge.Build(1.0e6, 1.0);
  ASSERT_FALSE(built);
  EXPECT_NE(built.error().message.find("too many to search"), std::string::npos) << built.error().message;
}

}  // namespace
