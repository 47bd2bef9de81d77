#pragma once

#include "platform/vector.h"

namespace platform {

// An affine transform: a point p maps to off + v1 * p.x + v2 * p.y + v3 * p.z.
struct Matrix {
  Vector off{};
  Vector v1{1.0, 0.0, 0.0};
  Vector v2{0.0, 1.0, 0.0};
  Vector v3{0.0, 0.0, 1.0};

  friend constexpr bool operator==(const Matrix&, const Matrix&) = default;
};

constexpr Matrix IdentityMatrix() { return Matrix{}; }

// Applies the axes and the offset.
constexpr Vector TransformPoint(const Matrix& m, const Vector& p) { return m.off + m.v1 * p.x + m.v2 * p.y + m.v3 * p.z; }
// Applies the axes only.
constexpr Vector TransformDirection(const Matrix& m, const Vector& d) { return m.v1 * d.x + m.v2 * d.y + m.v3 * d.z; }

// a * b applies b first: (a * b)(p) = a(b(p)).
constexpr Matrix operator*(const Matrix& a, const Matrix& b) {
  return Matrix{TransformPoint(a, b.off), TransformDirection(a, b.v1), TransformDirection(a, b.v2),
                TransformDirection(a, b.v3)};
}

// The inverse transform; a singular matrix gives the zero matrix (every point maps to 0).
Matrix Inverse(const Matrix& m);

Matrix TranslationMatrix(const Vector& offset);
Matrix ScaleMatrix(const Vector& scale);
// Rotation about the X, Y and Z axes in radians, applied in the order Z, then X, then Y.
Matrix RotationMatrix(const Vector& radians);

// ((h(v1) * 31 + h(v2)) * 31 + h(v3)) * 31 + h(off), with h the Vector hash: equal matrices
// hash equally, and the hash is the same on every machine.
constexpr UInt64 HashMatrix(const Matrix& m) {
  return ((HashVector(m.v1) * 31 + HashVector(m.v2)) * 31 + HashVector(m.v3)) * 31 + HashVector(m.off);
}

}  // namespace platform
