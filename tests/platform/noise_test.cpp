#include "platform/noise.h"

#include <gtest/gtest.h>

#include <hwy/targets.h>

#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "platform/parallel.h"
#include "platform/random.h"

namespace {

using namespace platform;

std::unique_ptr<NoiseGenerator> Generator(Int32 seed) {
  auto generator = NoiseGenerator::Alloc(seed);
  EXPECT_TRUE(generator);
  return std::move(*generator);
}

// Points spread over several lattice cells, on and between lattice points, negative too.
std::vector<Vector> SamplePoints() {
  std::vector<Vector> points;
  for (int k = 0; k < 64; ++k) {
    const Float t = static_cast<Float>(k);
    points.emplace_back(t * 0.37 - 11.0, std::fmod(t * 0.61, 3.0) - 1.5, 7.0 - t * 0.29);
  }
  points.emplace_back(0.0, 0.0, 0.0);
  points.emplace_back(3.0, -2.0, 5.0);
  return points;
}

// The noise at p at no time, fading nothing.
Float Sample(const NoiseGenerator& noise, NoiseType type, bool twoD, const Vector& p, Int32 repeat = 0,
             bool absolute = false, Float octaves = 6.0) {
  return noise.Noise(static_cast<Int32>(type), twoD, p, 0.0, octaves, absolute, 0.0, 0.0, repeat);
}

TEST(NoiseTest, EveryTypeStaysInRangeIsDeterministicAndDependsOnTheSeed) {
  const auto noise = Generator(1234);
  const auto same = Generator(1234);
  const auto other = Generator(1235);
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  const Float inf = std::numeric_limits<Float>::infinity();
  const Vector hostile[] = {{nan, 0.0, 1.0}, {inf, -inf, 0.5}, {1e300, -1e300, 1e17}, {-4e9, 2.5, 7e12}};
  for (const NoiseTypeInfo& type : NoiseTypes()) {
    SCOPED_TRACE(type.name);
    for (const bool twoD : {true, false}) {
      int differing = 0;
      Float lowest = 1.0, highest = 0.0;
      for (const Vector& p : SamplePoints()) {
        const Float v = Sample(*noise, type.type, twoD, p);
        ASSERT_TRUE(v >= 0.0 && v <= 1.0) << v;
        lowest = std::min(lowest, v);
        highest = std::max(highest, v);
        EXPECT_EQ(v, Sample(*same, type.type, twoD, p));
        differing += v != Sample(*other, type.type, twoD, p) ? 1 : 0;
      }
      EXPECT_GT(highest - lowest, 0.1);  // a pattern, not a constant
      EXPECT_GT(differing, 40);          // another seed, another pattern
      for (const Vector& p : hostile) {
        const Float v = Sample(*noise, type.type, twoD, p);
        EXPECT_TRUE(v >= 0.0 && v <= 1.0) << v;
      }
    }
  }
  EXPECT_EQ(FindNoiseType(2), nullptr);
  EXPECT_EQ(Sample(*noise, NoiseType{2}, true, {1.5, 0.0, 2.5}), 0.0);
}

TEST(NoiseTest, ValuesAreTheSameFromEveryThread) {
  const auto noise = Generator(77);
  const std::vector<Vector> points = SamplePoints();
  const std::size_t types = NoiseTypes().size();
  const auto at = [&](Int i) {
    return Sample(*noise, NoiseTypes()[std::size_t(i) % types].type, false, points[std::size_t(i) / types]);
  };
  std::vector<Float> serial(points.size() * types), parallel(serial.size());
  for (Int i = 0; i < Int(serial.size()); ++i) serial[std::size_t(i)] = at(i);
  ASSERT_TRUE(
      ParallelFor(0, Int(parallel.size()), {.granularity = 1}, [&](Int i) { parallel[std::size_t(i)] = at(i); }));
  EXPECT_EQ(serial, parallel);
}

TEST(NoiseTest, AbsoluteFoldsRepeatTilesAndTimeMoves) {
  const auto noise = Generator(9);
  for (const NoiseTypeInfo& info : NoiseTypes()) {
    SCOPED_TRACE(info.name);
    for (const bool twoD : {true, false}) {
      for (const Vector& p : SamplePoints()) {
        const auto at = [&](const Vector& q, Int32 repeat, bool absolute = false) {
          return Sample(*noise, info.type, twoD, q, repeat, absolute);
        };
        EXPECT_DOUBLE_EQ(at(p, 0, true), std::abs(2.0 * at(p, 0) - 1.0));
        // Periodic on every axis, at every octave; in 2-D y is a phase, not an axis.
        const Float tiled = at(p, 6);
        EXPECT_NEAR(at(p + Vector(6.0, 0.0, 0.0), 6), tiled, 1e-12);
        EXPECT_NEAR(at(p + Vector(0.0, 0.0, -12.0), 6), tiled, 1e-12);
        if (!twoD) {
          EXPECT_NEAR(at(p + Vector(0.0, 6.0, 0.0), 6), tiled, 1e-12);
        }
      }
    }
  }
  // Time slides the point: in 3-D along the diagonal.
  const Vector p(0.3, 1.7, -2.2);
  const auto fbm = static_cast<Int32>(NoiseType::PERLIN);
  EXPECT_EQ(noise->Noise(fbm, false, p, 0.5, 1.0, false, 0.0, 0.0, 0),
            noise->Noise(fbm, false, p + Vector(0.5, 0.5, 0.5), 0.0, 1.0, false, 0.0, 0.0, 0));
  EXPECT_NE(noise->Noise(fbm, true, p, 0.5, 1.0, false, 0.0, 0.0, 0),
            noise->Noise(fbm, true, p, 0.0, 1.0, false, 0.0, 0.0, 0));
}

TEST(NoiseTest, SmoothNoisesAreContinuousAndFadingSmoothsDetail) {
  const auto noise = Generator(4321);
  for (const NoiseType type : {NoiseType::VALUE, NoiseType::PERLIN, NoiseType::FBM, NoiseType::TURBULENCE,
                               NoiseType::SWISS, NoiseType::ERODED_FBM, NoiseType::VORONOI_F1})
    for (const Vector& p : SamplePoints())
      EXPECT_NEAR(Sample(*noise, type, false, p, 0, false, 4.0),
                  Sample(*noise, type, false, p + Vector(1e-6, -1e-6, 1e-6), 0, false, 4.0), 1e-4)
          << static_cast<int>(type);
  // Octaves finer than the sample radius lose their weight: neighbouring samples differ less.
  auto roughness = [&](Float sampleRadius) {
    Float sum = 0.0;
    for (int k = 0; k < 2000; ++k) {
      const auto at = [&](Float x) {
        return noise->Noise(static_cast<Int32>(NoiseType::FBM), true, {x, 0.0, 1.3}, 0.0, 12.0, false, sampleRadius,
                            1.0, 0);
      };
      sum += std::abs(at(0.05 * (k + 1)) - at(0.05 * k));
    }
    return sum;
  };
  EXPECT_LT(roughness(0.1), 0.9 * roughness(0.0));
}

TEST(NoiseTest, NoLatticeLineOfATerrainPlaneIsAZeroLine) {
  // A terrain reads the noise on the plane y = 0. If the noise vanished along a whole lattice
  // edge there, sums of |n| would crease along the lattice; check 200 edges of the first
  // octave in 2-D and in 3-D.
  const auto noise = Generator(515);
  for (const bool twoD : {true, false})
    for (int edge = 0; edge < 200; ++edge) {
      const Float x = static_cast<Float>(edge % 20 - 10);
      const Float z0 = static_cast<Float>(edge / 20 - 5);
      Float largest = 0.0;
      for (int k = 1; k < 16; ++k) {
        const Vector p(x, 0.0, z0 + static_cast<Float>(k) / 16.0);
        largest = std::max(largest, std::abs(Sample(*noise, NoiseType::PERLIN, twoD, p, 0, false, 1.0) - 0.5));
      }
      EXPECT_GT(largest, 1e-3) << "twoD " << twoD << " x " << x << " z " << z0;
    }
}

TEST(NoiseTest, FbmSettingsAreCheckedAndShapeTheRidgedMultifractal) {
  const auto noise = Generator(5);
  using Fbm = std::tuple<Int32, Float, Float>;
  for (const auto& [octaves, lacunarity, gain] :
       {Fbm{0, 2.0, 1.0}, Fbm{NoiseGenerator::kMaxOctaves + 1, 2.0, 1.0}, Fbm{8, 0.0, 1.0}, Fbm{8, 17.0, 1.0},
        Fbm{8, std::nan(""), 1.0}, Fbm{8, 2.0, std::numeric_limits<Float>::infinity()}})
    EXPECT_FALSE(noise->InitFbm(octaves, lacunarity, gain)) << octaves << ", " << lacunarity << ", " << gain;

  ASSERT_TRUE(noise->InitFbm(20, 2.2, 0.8));
  Float weights = 0.0;
  for (int k = 0; k < 5; ++k) weights += std::pow(2.2, -0.8 * k);
  Float highest = 0.0;
  for (const Vector& p : SamplePoints()) {
    const Float v = noise->RidgedMultifractal(p, 0.0, 5.0, 1.0, 1.0, 0);
    EXPECT_GE(v, 0.0);
    EXPECT_LE(v, weights);
    highest = std::max(highest, v);
    // Periodic like the other noises.
    EXPECT_NEAR(noise->RidgedMultifractal(p + Vector(0.0, 0.0, 1023.0), 0.0, 5.0, 1.0, 1.0, 1023),
                noise->RidgedMultifractal(p, 0.0, 5.0, 1.0, 1.0, 1023), 1e-10);
  }
  EXPECT_GT(highest, 1.0);  // ridges build up over the octaves
  // More octaves than the limit count as the limit.
  ASSERT_TRUE(noise->InitFbm(3, 2.0, 1.0));
  const Vector p(0.3, 0.2, 0.1);
  EXPECT_EQ(noise->RidgedMultifractal(p, 0.0, 9.0, 1.0, 1.0, 0), noise->RidgedMultifractal(p, 0.0, 3.0, 1.0, 1.0, 0));

  for (const Vector& q : SamplePoints()) {
    const Float v = ScalarNoise(q, 0.25);
    EXPECT_TRUE(v >= 0.0 && v <= 1.0);
    EXPECT_EQ(v, ScalarNoise(q, 0.25));
  }
}

// A row as the generators make them (a grid line at scale 0.01, tilted), then scattered
// points on and between lattice points, and last a few no lattice arithmetic can hold.
struct Row {
  std::vector<Float> x, y, z;
  [[nodiscard]] PointRows Points() const { return {x.data(), y.data(), z.data(), Int(x.size())}; }
  [[nodiscard]] Vector At(std::size_t i) const { return {x[i], y[i], z[i]}; }
};

Row TestRow(std::size_t count) {
  Row row;
  Random random(31);
  const Float inf = std::numeric_limits<Float>::infinity();
  const Vector far[] = {{std::nan(""), 0.0, 1.0}, {inf, -inf, 0.5}, {1e300, -1e300, 1e17}, {-4e9, 2.5, 7e12}};
  for (std::size_t i = 0; i < count; ++i) {
    const Float t = static_cast<Float>(i);
    Vector p(t * 0.01 - 5.0, 0.0, 3.0 - t * 0.001);
    if (i >= count / 2) {
      p = Vector(random.Get01() * 80.0 - 40.0, random.Get01() * 8.0 - 4.0, random.Get01() * 80.0 - 40.0);
      if (i % 7 == 0) p = Vector(std::round(p.x * 2.0) * 0.5, std::round(p.y), std::round(p.z * 2.0) * 0.5);
    }
    if (i + std::size(far) >= count) p = far[i + std::size(far) - count];
    row.x.push_back(p.x);
    row.y.push_back(p.y);
    row.z.push_back(p.z);
  }
  return row;
}

// Bit-for-bit equality; the first difference is reported.
void ExpectSameBits(const std::vector<Float>& expected, const std::vector<Float>& actual, const Row& row) {
  for (std::size_t i = 0; i < expected.size(); ++i)
    if (std::bit_cast<UInt64>(expected[i]) != std::bit_cast<UInt64>(actual[i])) {
      const Vector p = row.At(i);
      ADD_FAILURE() << "point " << i << " (" << p.x << ", " << p.y << ", " << p.z << "): " << expected[i] << " vs "
                    << actual[i];
      return;
    }
}

TEST(NoiseTest, RowsGiveThePointwiseBitsOnEverySimdTarget) {
  struct Setting {
    Int32 seed;
    Float octaves;
    Int32 repeat;
    bool absolute;
    Float sampleRadius;
    Float lacunarity;  // of the fBm set-up
  };
  const Setting settings[] = {{1234, 6.0, 0, false, 0.0, 2.0},
                              {77, 3.5, 6, true, 0.25, 1.95},
                              {-5, 1.0, 1023, false, 0.05, 2.2},
                              {9, 12.0, 0, true, 0.0, 3.1}};
  const Row row = TestRow(7351);  // 28 full chunks and a partial one
  struct Case {
    std::string name;
    std::vector<Float> expected;
    std::function<void(std::vector<Float>&)> row;
  };
  std::vector<Case> cases;
  std::vector<std::unique_ptr<NoiseGenerator>> generators;
  for (const Setting& s : settings) {
    generators.push_back(Generator(s.seed));
    NoiseGenerator& noise = *generators.back();
    ASSERT_TRUE(noise.InitFbm(12, s.lacunarity, 0.95));
    for (const NoiseTypeInfo& info : NoiseTypes())
      for (const bool twoD : {true, false}) {
        const auto type = static_cast<Int32>(info.type);
        Case c{std::string(info.name) + (twoD ? " 2-D seed " : " 3-D seed ") + std::to_string(s.seed), {}, {}};
        for (std::size_t i = 0; i < row.x.size(); ++i)
          c.expected.push_back(
              noise.Noise(type, twoD, row.At(i), 0.125, s.octaves, s.absolute, s.sampleRadius, 0.5, s.repeat));
        c.row = [&noise, &row, type, twoD, s](std::vector<Float>& out) {
          noise.NoiseRow(type, twoD, row.Points(), 0.125, s.octaves, s.absolute, s.sampleRadius, 0.5, s.repeat,
                         out.data());
        };
        cases.push_back(std::move(c));
      }
    Case ridged{"ridged multifractal seed " + std::to_string(s.seed), {}, {}};
    for (std::size_t i = 0; i < row.x.size(); ++i)
      ridged.expected.push_back(noise.RidgedMultifractal(row.At(i), 0.0, s.octaves, 1.0, 0.8, s.repeat));
    ridged.row = [&noise, &row, s](std::vector<Float>& out) {
      noise.RidgedMultifractalRow(row.Points(), 0.0, s.octaves, 1.0, 0.8, s.repeat, out.data());
    };
    cases.push_back(std::move(ridged));
  }
  Case scalar{"scalar noise", {}, [&row](std::vector<Float>& out) { ScalarNoiseRow(row.Points(), 0.5, out.data()); }};
  for (std::size_t i = 0; i < row.x.size(); ++i) scalar.expected.push_back(ScalarNoise(row.At(i), 0.5));
  cases.push_back(std::move(scalar));

  std::vector<Float> actual(row.x.size());
  for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name + " on " + hwy::TargetName(target));
      c.row(actual);
      ExpectSameBits(c.expected, actual, row);
    }
  }
  hwy::SetSupportedTargetsForTest(0);
}

}  // namespace
