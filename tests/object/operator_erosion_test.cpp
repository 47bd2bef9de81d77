#include "object/operator_erosion.h"

#include <gtest/gtest.h>

#include <vector>

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

}  // namespace
