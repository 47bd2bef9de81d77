#include "shader/shade_kernels.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include "shader/shader_colour.h"
#include "vellgrund/blend.h"

namespace {

using namespace VLGD::kernels;

// Runs `check` once on every SIMD target this machine has and the library was built for.
void OnEveryTarget(const std::function<void(const char*)>& check) {
  for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    check(hwy::TargetName(target));
  }
  hwy::SetSupportedTargetsForTest(0);
}

std::uint8_t ExactByte(float linear) {
  return static_cast<std::uint8_t>(std::lround(VLGD::LinearToSrgb(linear) * 255.0f));
}

TEST(ShadeKernels, SrgbBytesAreExactOnEveryTarget) {
  // A sweep of bit patterns over 0 .. 1, each byte's first value and its neighbours, and
  // the values outside 0 .. 1.
  std::vector<float> values;
  for (std::uint32_t bits = 0; bits <= std::bit_cast<std::uint32_t>(1.0f); bits += 997)
    values.push_back(std::bit_cast<float>(bits));
  for (int byte = 1; byte < 256; ++byte) {
    float low = 0.0f, high = 1.0f;
    while (std::nextafter(low, 1.0f) < high) {
      const float middle =
          std::bit_cast<float>((std::bit_cast<std::uint32_t>(low) + std::bit_cast<std::uint32_t>(high)) / 2);
      (ExactByte(middle) >= byte ? high : low) = middle;
    }
    for (const float v : {low, high, std::nextafter(high, 2.0f)}) values.push_back(v);
  }
  const float specials[] = {-1.0f,
                            -0.0f,
                            1.0f,
                            1.5f,
                            std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN()};
  values.insert(values.end(), std::begin(specials), std::end(specials));
  values.resize(Padded(values.size()), 0.5f);

  for (const float v : values) ASSERT_EQ(SrgbByte(v), std::isnan(v) ? 0 : ExactByte(v)) << v;
  OnEveryTarget([&](const char* target) {
    std::vector<std::uint8_t> bytes(3 * values.size());
    EncodeSrgb(values.data(), values.data(), values.data(), bytes.data(), values.size());
    for (size_t i = 0; i < values.size(); ++i)
      ASSERT_EQ(bytes[3 * i + 1], SrgbByte(values[i])) << target << " " << values[i];
  });
}

TEST(ShadeKernels, BlendModesOnEveryTarget) {
  using VLGD::BLENDMODE;
  // Each mode over a = 0.25 (under) with b = 0.75 and with b = 0.2, at full weight.
  const struct {
    BLENDMODE mode;
    float high, low;
  } cases[] = {
      {BLENDMODE::NORMAL, 0.75f, 0.2f},       {BLENDMODE::ADD, 1.0f, 0.45f},
      {BLENDMODE::SUBTRACT, 0.0f, 0.05f},     {BLENDMODE::MULTIPLY, 0.1875f, 0.05f},
      {BLENDMODE::DIVIDE, 1.0f / 3.0f, 1.0f}, {BLENDMODE::LOWEST, 0.25f, 0.2f},
      {BLENDMODE::HIGHEST, 0.75f, 0.25f},     {BLENDMODE::DIFFERENCE, 0.5f, 0.05f},
      {BLENDMODE::PHOENIX, 0.5f, 0.95f},      {BLENDMODE::PHOENIXINVERSE, 0.5f, 0.05f},
      {BLENDMODE::OVERLAY, 0.375f, 0.1f},     {BLENDMODE::NEGATION, 1.0f, 0.45f},
      {BLENDMODE::SCREEN, 0.8125f, 0.4f},     {BLENDMODE::SOFTLIGHT, 0.375f, 0.1375f},
      {BLENDMODE::HARDLIGHT, 0.625f, 0.1f},
  };
  // Channels of a span padded to one widest vector, all of one value.
  struct Pixels {
    explicit Pixels(float value, float alpha) {
      for (auto* channel : {r, g, b}) std::fill_n(channel, kSpanPadding, value);
      std::fill_n(a, kSpanPadding, alpha);
    }
    Channels Out() { return {r, g, b, a}; }
    ConstChannels In() const { return {r, g, b, a}; }
    alignas(64) float r[kSpanPadding], g[kSpanPadding], b[kSpanPadding], a[kSpanPadding];
  };
  alignas(64) float weights[kSpanPadding];
  for (size_t i = 0; i < kSpanPadding; ++i) weights[i] = i < 2 ? 1.0f : 0.5f;
  OnEveryTarget([&](const char* target) {
    for (const auto& c : cases) {
      const auto mode = static_cast<platform::Int32>(c.mode);
      for (const float top : {0.75f, 0.2f}) {
        Pixels under(0.25f, 0.0f);
        BlendSpan(mode, under.Out(), Pixels(top, 1.0f).In(), weights, 1.0f, 1);
        EXPECT_NEAR(under.g[0], top > 0.5f ? c.high : c.low, 1e-6f) << target << " mode " << mode << " over " << top;
        EXPECT_EQ(under.a[0], 1.0f);
        EXPECT_EQ(under.a[2], 0.5f);  // half the weight
        // A constant top gives the bits a row of it gives.
        Pixels constant(0.25f, 0.0f);
        const float colour[4] = {top, top, top, 1.0f};
        BlendConstantSpan(mode, constant.Out(), colour, weights, 1.0f, 1);
        for (size_t i = 0; i < kSpanPadding; ++i) ASSERT_EQ(constant.b[i], under.b[i]) << target << " mode " << mode;
      }
    }
  });
}

TEST(ShadeKernels, SlopesAndRangesAgreeWithTheScalarFormsOnEveryTarget) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> height(-50.0, 50.0);
  std::vector<double> rows[3];
  for (auto& row : rows) {
    row.resize(203);
    for (double& h : row) h = height(random);
  }
  const double inverseDx = 1.0 / 3.0, inverseDz = 0.25;
  std::vector<float> reference(201);
  for (size_t i = 1; i < 202; ++i) {
    const double gx = (rows[1][i + 1] - rows[1][i - 1]) * inverseDx;
    const double gz = (rows[0][i] - rows[2][i]) * inverseDz;
    reference[i - 1] = SlopeDegreesOfSquared(static_cast<float>(gx * gx + gz * gz));
    const double degrees = std::atan(std::sqrt(gx * gx + gz * gz)) * 180.0 / std::numbers::pi;
    ASSERT_NEAR(reference[i - 1], degrees, 2e-3);
  }
  const RangeWeights range(20.0f, 60.0f, 10.0f), step(20.0f, 60.0f, 0.0f);
  EXPECT_EQ(range(15.0f), 0.0f);
  EXPECT_EQ(range(20.0f), 0.5f);
  EXPECT_EQ(range(40.0f), 1.0f);
  EXPECT_EQ(range(65.0f), 0.0f);
  EXPECT_EQ(step(19.99f), 0.0f);
  EXPECT_EQ(step(20.0f), 1.0f);
  EXPECT_EQ(step(60.0f), 0.0f);

  OnEveryTarget([&](const char* target) {
    // Every start and length, so that each takes its own mix of whole vectors and tail.
    for (const size_t first : {1, 2, 5}) {
      for (size_t count = 1; first + count < 202; count += 13) {
        std::vector<float> out(Padded(count), -1.0f);
        InteriorSlopes(rows[1].data(), rows[0].data(), rows[2].data(), inverseDx, inverseDz, first, count, out.data());
        for (size_t k = 0; k < count; ++k)
          ASSERT_EQ(out[k], reference[first + k - 1]) << target << " sample " << first + k << " of " << count;
      }
    }
    std::vector<float> weights(reference.begin(), reference.end());
    weights.resize(Padded(weights.size()));
    ApplyRangeWeights(range, weights.data(), reference.size());
    for (size_t i = 0; i < reference.size(); ++i) ASSERT_EQ(weights[i], range(reference[i])) << target;
  });
}

}  // namespace
