#include "object/operator_sharpen.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/operator_fixture.h"
#include "vellgrund/convolution.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

TEST(SharpenOperatorTest, TheTypeChoosesTheSeparableSharpenAKernelOrACopy) {
  DirectOperator f(ID_SHARPENOPERATOR);
  const Grid2D<Float> in = RandomGrid(13, 10, 9, -5.0, 5.0);
  // Separable, keeping the incoming range.
  f.Set(SHARPENOPERATOR_SIZE, Int32{7});
  f.Set(SHARPENOPERATOR_AMOUNT, 0.25);
  ASSERT_TRUE(f.Compute(in));
  Grid2D<Float> separable;
  ASSERT_TRUE(Convolution::SeparableSharpen(in, separable, 7, 0.25));
  EXPECT_TRUE(Identical(f.Result(), separable));
  EXPECT_EQ(f.Result().Minimum(), in.Minimum());
  EXPECT_EQ(f.Result().Maximum(), in.Maximum());
  f.Remove(SHARPENOPERATOR_SIZE);  // size 5
  ASSERT_TRUE(f.Compute(in));
  ASSERT_TRUE(Convolution::SeparableSharpen(in, separable, 5, 0.25));
  EXPECT_TRUE(Identical(f.Result(), separable));

  // Kernels, mirrored at the edges; only the unsharp mask reads the size, as its radius.
  f.Set(SHARPENOPERATOR_SIZE, Int32{3});
  Convolution::PresetKernels::Sharpen3x3 sharpen3;
  Convolution::PresetKernels::UnsharpMask5x5 unsharp5;
  Convolution::PresetKernels::UnsharpMask unsharp;
  ASSERT_TRUE(sharpen3.Initialize(3) && unsharp5.Initialize(5) && unsharp.Initialize(3));
  const Convolution::BaseKernel* kernels[] = {&sharpen3, &unsharp5, &unsharp};
  for (Int32 type = 1; type <= 3; ++type) {
    f.Set(SHARPENOPERATOR_TYPE, type);
    ASSERT_TRUE(f.Compute(in));
    Grid2D<Float> expected;
    ASSERT_TRUE(Convolution::Convolve(in, expected, *kernels[type - 1], OUTOFBOUNDSMODE::MIRROR));
    EXPECT_TRUE(Identical(f.Result(), expected)) << type;
    EXPECT_FALSE(f.Result().IsMinMaxValid());
  }

  f.Put(SHARPENOPERATOR_TYPE, Int32{6});  // any other type copies the incoming heights
  ASSERT_TRUE(f.Compute(in));
  EXPECT_TRUE(Identical(f.Result(), in));
  EXPECT_EQ(f.Result().Maximum(), in.Maximum());
}

TEST(SharpenOperatorTest, KeepsTheDegenerateSizes) {
  DirectOperator f(ID_SHARPENOPERATOR);
  const Grid2D<Float> in = RandomGrid(13, 10, 9, -5.0, 5.0);
  f.Set(SHARPENOPERATOR_SIZE, Int32{1});
  ASSERT_TRUE(f.Compute(in));
  for (const Float v : f.Result().Values()) ASSERT_TRUE(std::isnan(v));
  f.Put(SHARPENOPERATOR_SIZE, Int32{0});
  EXPECT_EQ(f.Compute(in).error().message, "Can't initialize kernel with size 0!");
  f.Set(SHARPENOPERATOR_TYPE, Int32{3});
  EXPECT_EQ(f.Compute(in).error().message, "Can't initialize kernel with size 0!");
  f.Set(SHARPENOPERATOR_TYPE, Int32{1});
  EXPECT_TRUE(f.Compute(in));  // the fixed kernels ignore the size

  // Amounts above 1 keep the centre at 1.5: still a constant-preserving kernel.
  f.Set(SHARPENOPERATOR_TYPE, Int32{0});
  f.Set(SHARPENOPERATOR_SIZE, Int32{9});
  f.Put(SHARPENOPERATOR_AMOUNT, 4.0);
  ASSERT_TRUE(f.Compute(MakeGrid(6, 6, [](Int, Int) { return 2.0; })));
  for (const Float v : f.Result().Values()) ASSERT_NEAR(v, 2.0, 1e-12);
  EXPECT_EQ(f.Compute(MakeGrid(3, 0, [](Int, Int) { return 0.0; })).error().message,
            "Can't sharpen a grid with size 0!");
}

}  // namespace
