#include "object/operator_blur.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/scene_file.h"
#include "support/operator_fixture.h"
#include "vellgrund/convolution.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

TEST(BlurOperatorTest, TheTypeChoosesABoxBlurOrAGaussianKernel) {
  DirectOperator f(ID_BLUROPERATOR);
  const Grid2D<Float> in = RandomGrid(11, 9, 5, 0.0, 10.0);
  f.Set(BLUROPERATOR_RADIUS, Int32{3});
  // Box (and unknown types) of diameter 2 radius + 1, keeping the incoming range.
  for (const Int32 type : {0, 9}) {
    f.Put(BLUROPERATOR_TYPE, type);  // 9 is outside the choice: only code can place it
    ASSERT_TRUE(f.Compute(in));
    Grid2D<Float> expected;
    ASSERT_TRUE(Convolution::BoxBlur(in, expected, 7));
    EXPECT_TRUE(Identical(f.Result(), expected)) << type;
    EXPECT_EQ(f.Result().Minimum(), in.Minimum());
    EXPECT_EQ(f.Result().Maximum(), in.Maximum());
  }
  f.Remove(BLUROPERATOR_RADIUS);  // blurs with radius 5
  ASSERT_TRUE(f.Compute(in));
  Grid2D<Float> fallback;
  ASSERT_TRUE(Convolution::BoxBlur(in, fallback, 11));
  EXPECT_TRUE(Identical(f.Result(), fallback));

  // Gaussian kernels, mirrored at the edges, range unknown; the fixed ones ignore the radius.
  f.Set(BLUROPERATOR_RADIUS, Int32{4});
  Convolution::PresetKernels::GaussBlur gauss;
  Convolution::PresetKernels::GaussBlur3x3 gauss3;
  Convolution::PresetKernels::GaussBlur5x5 gauss5;
  ASSERT_TRUE(gauss.Initialize(4) && gauss3.Initialize(3) && gauss5.Initialize(5));
  const Convolution::BaseKernel* kernels[] = {&gauss, &gauss3, &gauss5};
  for (Int32 type = 1; type <= 3; ++type) {
    f.Set(BLUROPERATOR_TYPE, type);
    ASSERT_TRUE(f.Compute(in));
    Grid2D<Float> expected;
    ASSERT_TRUE(Convolution::Convolve(in, expected, *kernels[type - 1], OUTOFBOUNDSMODE::MIRROR));
    EXPECT_TRUE(Identical(f.Result(), expected)) << type;
    EXPECT_FALSE(f.Result().IsMinMaxValid());
  }
}

TEST(BlurOperatorTest, ScenesOfDiskLevelZeroGetTheNewGaussianAndBoxRadius) {
  DirectOperator f(ID_BLUROPERATOR);
  const ParameterContainer& data = f.op->GetData();
  f.Put(BLUROPERATOR_TYPE, Int32{4});  // the old Gaussian
  f.Put(BLUROPERATOR_RADIUS, Int32{9});
  EXPECT_TRUE(f.Data().Read(*f.op, 1));  // later levels: nothing
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_TYPE), 4);
  EXPECT_TRUE(f.Data().Read(*f.op, 0));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_TYPE), 1);
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 9);
  f.Put(BLUROPERATOR_TYPE, Int32{0});  // a box stored its diameter
  EXPECT_TRUE(f.Data().Read(*f.op, 0));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 4);
  f.Put(BLUROPERATOR_TYPE, Int32{3});
  EXPECT_TRUE(f.Data().Read(*f.op, 0));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 4);

  // The scene file's level reaches Read.
  auto scene = LoadScene(f.host, R"json({"vellgrund": 1, "objects": [
      {"type": "obluroperator", "name": "old", "level": 0, "params": {"BLUROPERATOR_RADIUS": 7}},
      {"type": "obluroperator", "name": "new", "level": 1, "params": {"BLUROPERATOR_RADIUS": 7}}]})json",
                         "scene.json");
  ASSERT_TRUE(scene) << scene.error().message;
  EXPECT_EQ((*scene)->FindByName("old")->GetData().GetInt32(BLUROPERATOR_RADIUS), 3);
  EXPECT_EQ((*scene)->FindByName("new")->GetData().GetInt32(BLUROPERATOR_RADIUS), 7);
}

TEST(BlurOperatorTest, KeepsTheDegenerateRadii) {
  DirectOperator f(ID_BLUROPERATOR);
  const Grid2D<Float> in = RandomGrid(11, 9, 5, 0.0, 10.0);
  f.Set(BLUROPERATOR_RADIUS, Int32{0});
  ASSERT_TRUE(f.Compute(in));  // box of diameter 1: unchanged
  EXPECT_TRUE(Identical(f.Result(), in));
  f.Set(BLUROPERATOR_TYPE, Int32{1});
  ASSERT_TRUE(f.Compute(in));  // Gaussian of radius 0: 0 / 0
  for (const Float v : f.Result().Values()) ASSERT_TRUE(std::isnan(v));

  f.Put(BLUROPERATOR_RADIUS, Int32{-2});
  EXPECT_EQ(f.Compute(in).error().message, "Can't initialize kernel with a negative size!");
  f.Set(BLUROPERATOR_TYPE, Int32{0});
  ASSERT_TRUE(f.Compute(in));  // a negative diameter sums no tap
  for (const Float v : f.Result().Values()) ASSERT_EQ(v, 0.0);
  EXPECT_EQ(f.Compute(Row({})).error().message, "Can't BluxBlur a grid with size 0!");
}

}  // namespace
