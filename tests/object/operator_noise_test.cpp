#include "object/operator_noise.h"

#include <gtest/gtest.h>

#include <bit>
#include <set>

#include "platform/noise.h"
#include "platform/parameter_reader.h"
#include "support/terrain_harness.h"
#include "vellgrund/distortion.h"

namespace {

using namespace platform;
using namespace testing_support;
using namespace VLGD;

constexpr Int kSide = 17;  // 16 x 16 cells of 10 units

std::vector<Float> Heights(const TerrainHarness& h) {
  const auto& grid = h.Terrain().GetGrid();
  return {grid.Data(), grid.Data() + grid.Count()};
}

Node* AddNoise(TerrainHarness& h, Int32 type, bool normalize = false) {
  Node* noise = h.AddOperator(ID_NOISEOPERATOR, "noise");
  h.Set(noise, NOISEOPERATOR_TYPE, type);
  h.Set(noise, NOISEOPERATOR_SEED, Int32{321});
  h.Set(noise, NOISEOPERATOR_SCALE, 0.5);
  h.Set(noise, NOISEOPERATOR_NORMALIZE, normalize);
  return noise;
}

TEST(NoiseOperatorTest, HeightsAreNormalisedAndInverted) {
  TerrainHarness h(kSide - 1, 160.0);
  Node* noise = AddNoise(h, 21, true);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Terrain().GetGrid().Minimum(), 0.0);
  EXPECT_EQ(h.Terrain().GetGrid().Maximum(), 1.0);
  const std::vector<Float> plain = Heights(h);

  h.Set(noise, NOISEOPERATOR_INVERT, true);
  ASSERT_TRUE(h.Rebuild());
  const std::vector<Float> inverted = Heights(h);
  for (std::size_t k = 0; k < plain.size(); ++k) EXPECT_NEAR(inverted[k], 1.0 - plain[k], 1e-12);

  // The same noise in another document, with the operator's own seed and scale fallbacks.
  h.Set(noise, NOISEOPERATOR_INVERT, false);
  ASSERT_TRUE(noise->GetDataInstance().Remove(NOISEOPERATOR_SEED));
  h.Set(noise, NOISEOPERATOR_SCALE, 1.0);
  ASSERT_TRUE(h.Rebuild());
  TerrainHarness other(kSide - 1, 160.0);
  Node* twin = AddNoise(other, 21, true);
  other.Set(twin, NOISEOPERATOR_SEED, Int32{123});
  other.Set(twin, NOISEOPERATOR_SCALE, 1.0);
  ASSERT_TRUE(other.Rebuild());
  EXPECT_EQ(Heights(h), Heights(other));

  // Scale 0 reads one point of the noise everywhere.
  h.Set(noise, NOISEOPERATOR_NORMALIZE, false);
  h.Set(noise, NOISEOPERATOR_SCALE, 0.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Terrain().GetGrid().Minimum(), h.Terrain().GetGrid().Maximum());
}

TEST(NoiseOperatorTest, ThePatternMovesWithTheOperatorAndOptionallyStaysWithTheWorld) {
  TerrainHarness h(kSide - 1, 160.0);
  Node* noise = AddNoise(h, 13);
  ASSERT_TRUE(h.Rebuild());
  const std::vector<Float> still = Heights(h);

  // Moving the operator by one cell along X moves the pattern one column to the right.
  noise->SetMl(TranslationMatrix({10.0, 0.0, 0.0}));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "noise");
  for (Int x = 1; x < kSide; ++x) EXPECT_NEAR(h.Height(x, 5), still[5 * kSide + x - 1], 1e-9);
  // The offset moves the sample point instead: the pattern goes back by one column.
  h.Set(noise, NOISEOPERATOR_OFFSET, Vector(10.0, 0.0, 0.0));
  ASSERT_TRUE(h.Rebuild());
  for (Int x = 0; x < kSide; ++x) EXPECT_NEAR(h.Height(x, 5), still[5 * kSide + x], 1e-9);

  // The terrain's own matrix matters only when asked for.
  h.Set(noise, NOISEOPERATOR_OFFSET, Vector());
  noise->SetMl(Matrix());
  h.terrain->SetMl(TranslationMatrix({0.0, 0.0, 10.0}));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(Heights(h), still);
  h.Set(noise, NOISEOPERATOR_USE_TERRAIN_MATRIX, true);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "noise");
  // World Z is 10 units further north: row y reads what row y + 1 read (rows run to -Z).
  for (Int y = 1; y < kSide; ++y) EXPECT_NEAR(h.Height(6, y), still[(y - 1) * kSide + 6], 1e-9);
  h.terrain->SetMl(TranslationMatrix({0.0, 0.0, 20.0}));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "noise");

  // The distortion moves samples; with no amount it changes nothing.
  h.terrain->SetMl(Matrix());
  h.Set(noise, TERRAINDISTORTION_ENABLED, true);
  h.Set(noise, TERRAINDISTORTION_AMOUNT, 0.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(Heights(h), still);
  h.Set(noise, TERRAINDISTORTION_AMOUNT, 0.2);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_NE(Heights(h), still);
}

TEST(NoiseOperatorTest, TypeSpecificsAndFailures) {
  TerrainHarness h(kSide - 1, 160.0);
  Node* noise = AddNoise(h, 21);
  // The ridged multifractal has no absolute form; billow's octave count sets its lacunarity.
  h.Set(noise, NOISEOPERATOR_TYPE, Int32{64});
  ASSERT_TRUE(h.Rebuild());
  const std::vector<Float> ridged = Heights(h);
  h.Set(noise, NOISEOPERATOR_ABSOLUTE, true);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(Heights(h), ridged);
  h.Set(noise, NOISEOPERATOR_TYPE, Int32{3});
  ASSERT_TRUE(h.Rebuild());
  const std::vector<Float> billow = Heights(h);
  h.Set(noise, NOISEOPERATOR_OCTAVES, 9.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_NE(Heights(h), billow);

  // The fBm types turn the octave count into their lacunarity; an impossible one (which
  // the editor's limits keep out) fails.
  h.Set(noise, NOISEOPERATOR_TYPE, Int32{8});
  ASSERT_TRUE(noise->GetDataInstance().Set(NOISEOPERATOR_OCTAVES, 100.0));
  noise->SetDirty(DIRTYFLAGS_DATA);
  Status failed = h.Rebuild();
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().message, "Could not initialize Fbm!");
  h.Set(noise, NOISEOPERATOR_OCTAVES, 5.0);
  ASSERT_TRUE(noise->GetDataInstance().Set(NOISEOPERATOR_TYPE, Int32{2}));  // no member: only code places it
  noise->SetDirty(DIRTYFLAGS_DATA);
  failed = h.Rebuild();
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().message, "Unknown noise type 2!");
}

TEST(NoiseOperatorTest, RowsGiveThePointwiseValuesWithTheDistortion) {
  // Wider than a block of the row path, with a partial block at the end of every row.
  constexpr Int kWide = 300;
  TerrainHarness h(kWide - 1, 598.0);
  Node* noise = AddNoise(h, 21);
  h.Set(noise, TERRAINDISTORTION_ENABLED, true);
  h.Set(noise, TERRAINDISTORTION_AMOUNT, 0.2);
  h.Set(noise, TERRAINDISTORTION_ANGLE, 0.7);
  h.Set(noise, NOISEOPERATOR_OFFSET, Vector(3.0, 40.0, -7.0));
  for (const Int32 type : {21, 13, 8, 24, 27, 64}) {
    SCOPED_TRACE(type);
    h.Set(noise, NOISEOPERATOR_TYPE, type);
    ASSERT_TRUE(h.Rebuild());
    auto generator = NoiseGenerator::Alloc(321);
    ASSERT_TRUE(generator);
    NoiseGenerator& reference = **generator;
    const Float octaves = 5.0;
    // The operator's fBm set-ups.
    if (type == 64) {
      ASSERT_TRUE(reference.InitFbm(20, 2.2, 0.8));
    } else if (type == 8) {
      ASSERT_TRUE(reference.InitFbm(12, octaves * 0.19 + 1.0, 0.95));
    }
    const bool twoD = type != 8 && type != 27;
    const TerrainDistortion distortion = TerrainDistortion::Read(ParameterReader(*noise));
    const Grid2D<Float>& result = noise->GetNodeData<BaseTerrainOperatorData>()->GetResult();
    int differing = 0;
    for (Int y = 0; y < kWide; ++y)
      for (Int x = 0; x < kWide; ++x) {
        Vector p = GridPoint(x, y, kWide, kWide, 598.0, 598.0);
        distortion.Apply(p);
        p += Vector(3.0, 40.0, -7.0);
        const Vector q(p.x * 0.02, p.y * 0.02 * 0.1, p.z * 0.02);
        const Float expected = type == 64 ? reference.RidgedMultifractal(q, 0.0, octaves, 1.0, 1.0, 1023) * 0.4
                                          : reference.Noise(type, twoD, q, 0.0, octaves, false, 0.25, 0.25, 0);
        differing += std::bit_cast<UInt64>(expected) != std::bit_cast<UInt64>(result.Data()[y * kWide + x]) ? 1 : 0;
      }
    EXPECT_EQ(differing, 0);
  }
}

TEST(NoiseOperatorTest, NewOperatorsDrawDifferentSeedsThatRepeatUnderTheCountingTimer) {
  std::set<Int32> seen;
  for (UInt64 timer = 0; timer < 2000; ++timer) {
    const Int32 seed = DrawNoiseSeed(timer * 7919u + 13u);
    ASSERT_GE(seed, 1);
    ASSERT_LE(seed, 5000);
    seen.insert(seed);
  }
  EXPECT_GT(seen.size(), 1500u);

  auto seedsOfNewOperators = [] {
    TerrainHarness h;
    const Host::CountingTimerScope counting(h.host);
    std::vector<Int32> seeds;
    for (int k = 0; k < 3; ++k)
      seeds.push_back(h.AddOperator(ID_NOISEOPERATOR, "noise")->GetData().GetInt32(NOISEOPERATOR_SEED));
    return seeds;
  };
  const std::vector<Int32> seeds = seedsOfNewOperators();
  EXPECT_NE(seeds[0], seeds[1]);
  EXPECT_NE(seeds[1], seeds[2]);
  EXPECT_EQ(seeds, seedsOfNewOperators());
}

}  // namespace
