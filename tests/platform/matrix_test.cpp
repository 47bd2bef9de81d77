#include "platform/matrix.h"

#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

namespace platform {
namespace {

void ExpectNear(const Vector& actual, const Vector& expected, Float tolerance = 1e-12) {
  EXPECT_NEAR(actual.x, expected.x, tolerance);
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(actual.z, expected.z, tolerance);
}

void ExpectNear(const Matrix& actual, const Matrix& expected, Float tolerance = 1e-12) {
  ExpectNear(actual.off, expected.off, tolerance);
  ExpectNear(actual.v1, expected.v1, tolerance);
  ExpectNear(actual.v2, expected.v2, tolerance);
  ExpectNear(actual.v3, expected.v3, tolerance);
}

TEST(MatrixTest, ProductAppliesTheRightOperandFirst) {
  const Matrix move = TranslationMatrix(Vector{1.0, 2.0, 3.0});
  const Matrix scale = ScaleMatrix(Vector{2.0, 3.0, 4.0});
  const Vector p{1.0, 1.0, 1.0};
  EXPECT_EQ(TransformPoint(move * scale, p), (Vector{3.0, 5.0, 7.0}));      // scale, then move
  EXPECT_EQ(TransformPoint(scale * move, p), (Vector{4.0, 9.0, 16.0}));     // move, then scale
  EXPECT_EQ(TransformDirection(move * scale, p), (Vector{2.0, 3.0, 4.0}));  // directions ignore the offset

  // Rotations: Z first, then X, then Y, all right-handed.
  const Float q = std::numbers::pi / 2.0;
  const Vector x{1.0, 0.0, 0.0}, y{0.0, 1.0, 0.0}, z{0.0, 0.0, 1.0};
  using Turn = std::tuple<Vector, Vector, Vector>;
  for (const auto& [angles, from, to] : {Turn{{0.0, 0.0, q}, x, y}, Turn{{q, 0.0, 0.0}, y, z},
                                         Turn{{0.0, q, 0.0}, z, x}, Turn{{q, 0.0, q}, x, z}, Turn{{q, q, 0.0}, y, x}}) {
    SCOPED_TRACE(::testing::PrintToString(angles));
    ExpectNear(TransformPoint(RotationMatrix(angles), from), to);
  }
}

TEST(MatrixTest, InverseUndoesCompositesAndZeroesSingularMatrices) {
  const Matrix m = RotationMatrix(Vector{0.3, -1.1, 2.0}) * ScaleMatrix(Vector{2.0, 0.5, -3.0}) *
                   TranslationMatrix(Vector{10.0, -4.0, 0.25});
  // Both products being the identity pins the axes and the offset of the inverse.
  ExpectNear(m * Inverse(m), IdentityMatrix());
  ExpectNear(Inverse(m) * m, IdentityMatrix());

  const Matrix zero{Vector{}, Vector{}, Vector{}, Vector{}};
  EXPECT_EQ(Inverse(ScaleMatrix(Vector{1.0, 0.0, 1.0}) * TranslationMatrix(Vector{5.0, 5.0, 5.0})), zero);
  Matrix flat;  // two parallel axes
  flat.v2 = Vector{2.0, 0.0, 0.0};
  flat.off = Vector{1.0, 1.0, 1.0};
  EXPECT_EQ(Inverse(flat), zero);
}

TEST(MatrixTest, HashFollowsEveryComponentAndEquality) {
  const Matrix m = RotationMatrix(Vector{0.1, 0.2, 0.3}) * TranslationMatrix(Vector{4.0, 5.0, 6.0});
  const Matrix same = RotationMatrix(Vector{0.1, 0.2, 0.3}) * TranslationMatrix(Vector{4.0, 5.0, 6.0});
  ASSERT_EQ(m, same);
  EXPECT_EQ(HashMatrix(m), HashMatrix(same));

  const auto components = [](Matrix& matrix) {
    return std::array<Float*, 12>{&matrix.off.x, &matrix.off.y, &matrix.off.z, &matrix.v1.x,
                                  &matrix.v1.y,  &matrix.v1.z,  &matrix.v2.x,  &matrix.v2.y,
                                  &matrix.v2.z,  &matrix.v3.x,  &matrix.v3.y,  &matrix.v3.z};
  };
  for (std::size_t i = 0; i < 12; ++i) {
    Matrix changed = m;
    Float& value = *components(changed)[i];
    value = std::nextafter(value, std::numeric_limits<Float>::infinity());
    EXPECT_NE(HashMatrix(changed), HashMatrix(m)) << "component " << i;
  }
  // Swapping two axes is a different matrix.
  Matrix swapped = m;
  std::swap(swapped.v1, swapped.v2);
  EXPECT_NE(HashMatrix(swapped), HashMatrix(m));

  // -0.0 equals 0.0 and hashes alike; every NaN hashes alike too.
  EXPECT_EQ(HashFloat(-0.0), HashFloat(0.0));
  EXPECT_EQ(HashFloat(std::nan("1")), HashFloat(-std::nan("2")));
  EXPECT_NE(HashFloat(1.0), HashFloat(-1.0));
  Matrix negativeZero;
  negativeZero.off = Vector{-0.0, 0.0, -0.0};
  negativeZero.v1.y = -0.0;
  EXPECT_EQ(HashMatrix(negativeZero), HashMatrix(IdentityMatrix()));

  // The hash must be the same on every machine and run, so its values are pinned.
  static_assert(HashFloat(1.0) == 3035652100526550566ULL);
  static_assert(HashFloat(-2.5) == 4700886180178471262ULL);
  static_assert(HashMatrix(IdentityMatrix()) == 8058746195155888206ULL);
}

}  // namespace
}  // namespace platform
