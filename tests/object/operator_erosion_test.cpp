#include "object/operator_erosion.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/description.h"
#include "platform/host.h"
#include "support/operator_fixture.h"
#include "vellgrund/erosion_droplet.h"
#include "vellgrund/erosion_hydraulic.h"
#include "vellgrund/erosion_lowland.h"
#include "vellgrund/erosion_thermal.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

std::vector<ParameterId> RebuildParameters(const DirectOperator& f) {
  std::vector<ParameterId> ids;
  EXPECT_TRUE(f.Data().GetRebuildParameters(ids, f.op->GetData()));
  return ids;
}

TEST(ErosionOperatorTest, EachModeHasItsFlagsEditableParametersAndRebuildList) {
  DirectOperator f(ID_EROSIONOPERATOR);
  const ParameterContainer& data = f.op->GetData();
  EXPECT_EQ(data.GetInt32(EROSIONOPERATOR_MODE, -1), 0);
  EXPECT_EQ(data.GetInt32(EROSIONOPERATOR_THERMAL_ITERATIONS), 5);
  EXPECT_EQ(data.GetInt64(EROSIONOPERATOR_DROPLET_SEED), 1234);
  EXPECT_EQ(data.GetInt32(EROSIONOPERATOR_DROPLET_P38), 80);
  EXPECT_TRUE(data.GetBool(EROSIONOPERATOR_THERMAL_SMOOTH));
  EXPECT_DOUBLE_EQ(data.GetFloat(EROSIONOPERATOR_FLATTEN_EXPONENT), 3.0);

  const std::vector<std::vector<ParameterId>> lists = {
      {100000, 100011, 100012, 100013, 100014, 100015, 100016},
      {100000, 100040, 100031, 100032, 100033, 100034, 100035, 100036, 100037, 100038, 100039},
      {100000, 100051, 100052, 100053, 100055, 100054, 100056},
      {100000, 100061},
      {100000}};
  const std::vector<ParameterId> groups[] = {{100011, 100016},
                                             {100031, 100035, 100039, 100040, 100041},
                                             {100051, 100056},
                                             {100061}};
  for (Int32 mode = 0; mode <= 4; ++mode) {
    f.Put(EROSIONOPERATOR_MODE, mode);
    EXPECT_EQ(static_cast<UInt32>(f.Data().GetFlags(*f.op)), mode == 0 ? 0x1u : 0x21u) << mode;
    EXPECT_EQ(RebuildParameters(f), lists[static_cast<std::size_t>(mode)]) << mode;
    EXPECT_TRUE(IsParameterEnabled(*f.op, EROSIONOPERATOR_MODE));
    EXPECT_TRUE(IsParameterEnabled(*f.op, TERRAINOPERATOR_STRENGTH));
    for (Int32 group = 0; group < 4; ++group)
      for (const ParameterId id : groups[group]) EXPECT_EQ(IsParameterEnabled(*f.op, id), group == mode) << id;
  }
}

TEST(ErosionOperatorTest, DispatchesToTheKindOnACopyOfTheInput) {
  DirectOperator f(ID_EROSIONOPERATOR);
  const Grid2D<Float> in = RandomGrid(40, 30, 4, 0.0, 3.0);
  const StringTable& strings = f.host.GetStrings();

  // Thermal weathering with the stored settings; missing counts fall back to one pass over
  // the four-neighbourhood.
  f.Set(EROSIONOPERATOR_THERMAL_TALUS, 0.05);
  ASSERT_TRUE(f.Compute(in));
  Grid2D<Float> expected = Copy(in);
  Erosion::ThermalSettings thermal;
  thermal.talus = 0.05;
  ASSERT_TRUE(Erosion::ThermalWeathering(expected, thermal, {}, strings));
  EXPECT_TRUE(Identical(f.Result(), expected));
  f.Remove(EROSIONOPERATOR_THERMAL_ITERATIONS);
  f.Remove(EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD);
  ASSERT_TRUE(f.Compute(in));
  thermal.iterations = 1;
  thermal.neighbourhood = 2;
  expected = Copy(in);
  ASSERT_TRUE(Erosion::ThermalWeathering(expected, thermal, {}, strings));
  EXPECT_TRUE(Identical(f.Result(), expected));
  f.Put(EROSIONOPERATOR_THERMAL_ITERATIONS, Int32{0});
  EXPECT_EQ(f.Compute(in).error().message, "Intensity and iterations must not be 0!");

  // Droplets: the parameters kept only for scenes change nothing.
  f.Set(EROSIONOPERATOR_MODE, Int32{1});
  f.Set(EROSIONOPERATOR_DROPLET_COUNT, Int32{300});
  f.Set(EROSIONOPERATOR_DROPLET_SEED, Int{4000000000});
  ASSERT_TRUE(f.Compute(in));
  expected = Copy(in);
  Erosion::DropletSettings droplets;
  droplets.count = 300;
  droplets.seed = 4000000000U;
  (void)Erosion::SimulateDroplets(expected, droplets);
  EXPECT_TRUE(Identical(f.Result(), expected));
  f.Set(EROSIONOPERATOR_DROPLET_P32, 0.9);
  f.Set(EROSIONOPERATOR_DROPLET_P38, Int32{3});
  f.Set(EROSIONOPERATOR_DROPLET_P41, true);
  ASSERT_TRUE(f.Compute(in));
  EXPECT_TRUE(Identical(f.Result(), expected));

  // Lowland flattening.
  f.Set(EROSIONOPERATOR_MODE, Int32{2});
  f.Set(EROSIONOPERATOR_FLATTEN_SOFTNESS, 0.5);
  ASSERT_TRUE(f.Compute(in));
  expected = Copy(in);
  Erosion::LowlandSettings lowland;
  lowland.softness = 0.5;
  ASSERT_TRUE(Erosion::FlattenLowlands(expected, lowland));
  EXPECT_TRUE(Identical(f.Result(), expected));

  // The hydraulic simulation.
  f.Set(EROSIONOPERATOR_MODE, Int32{3});
  f.Set(EROSIONOPERATOR_HYDRAULIC_ITERATIONS, Int32{3});
  ASSERT_TRUE(f.Compute(in));
  expected = Copy(in);
  ASSERT_TRUE(Erosion::HydraulicErosion(expected, 3, {}));
  EXPECT_TRUE(Identical(f.Result(), expected));

  // An unknown kind passes the terrain through.
  f.Put(EROSIONOPERATOR_MODE, Int32{9});
  ASSERT_TRUE(f.Compute(in));
  EXPECT_TRUE(Identical(f.Result(), in));
}

TEST(ErosionOperatorTest, InAStackParameterChangesRecomputeItAndBlendChangesDoNot) {
  for (Int32 mode = 0; mode <= 3; ++mode) {
    TerrainHarness h(16);
    h.AddGenerator("base", 1.0);  // heights 1 + column: a ramp
    Node* erosion = h.AddOperator(ID_EROSIONOPERATOR, "erosion");
    h.Set(erosion, TERRAINOPERATOR_BLENDMODE, Int32{0});
    h.Set(erosion, EROSIONOPERATOR_MODE, mode);
    h.Set(erosion, EROSIONOPERATOR_DROPLET_COUNT, Int32{50});
    h.Set(erosion, EROSIONOPERATOR_HYDRAULIC_ITERATIONS, Int32{2});
    EXPECT_EQ(Recomputed(h), "base erosion") << mode;
    const Float before = h.Height(3, 5);
    const ParameterId change[] = {EROSIONOPERATOR_THERMAL_TALUS, EROSIONOPERATOR_DROPLET_DEPOSITION,
                                  EROSIONOPERATOR_FLATTEN_LEVEL_HIGH};
    if (mode < 3) {
      h.Set(erosion, change[mode], 0.9);
    } else {
      h.Set(erosion, EROSIONOPERATOR_HYDRAULIC_ITERATIONS, Int32{3});
    }
    EXPECT_EQ(Recomputed(h), "erosion") << mode;
    EXPECT_NE(h.Height(3, 5), before) << mode;
    h.Set(erosion, EROSIONOPERATOR_DROPLET_P41, true);  // not in any rebuild list
    h.Set(erosion, TERRAINOPERATOR_STRENGTH, 0.5);
    EXPECT_EQ(Recomputed(h), "") << mode;
  }
}

}  // namespace
