#include "platform/matrix.h"

#include <cmath>

namespace platform {

Matrix Inverse(const Matrix& m) {
  // The axes are the columns of the 3x3 part; its inverse is the adjugate over the
  // determinant, and the offset maps back through it.
  const Vector c0 = Cross(m.v2, m.v3);
  const Vector c1 = Cross(m.v3, m.v1);
  const Vector c2 = Cross(m.v1, m.v2);
  const Float determinant = Dot(m.v1, c0);
  if (determinant == 0.0) return Matrix{Vector{}, Vector{}, Vector{}, Vector{}};
  const Float inverse = 1.0 / determinant;
  // Rows of the inverse are c0, c1, c2 scaled; write them as columns.
  Matrix result;
  result.v1 = Vector{c0.x, c1.x, c2.x} * inverse;
  result.v2 = Vector{c0.y, c1.y, c2.y} * inverse;
  result.v3 = Vector{c0.z, c1.z, c2.z} * inverse;
  result.off = -TransformDirection(result, m.off);
  return result;
}

Matrix TranslationMatrix(const Vector& offset) {
  Matrix m;
  m.off = offset;
  return m;
}

Matrix ScaleMatrix(const Vector& scale) {
  Matrix m;
  m.v1 = Vector{scale.x, 0.0, 0.0};
  m.v2 = Vector{0.0, scale.y, 0.0};
  m.v3 = Vector{0.0, 0.0, scale.z};
  return m;
}

Matrix RotationMatrix(const Vector& radians) {
  const Float cx = std::cos(radians.x), sx = std::sin(radians.x);
  const Float cy = std::cos(radians.y), sy = std::sin(radians.y);
  const Float cz = std::cos(radians.z), sz = std::sin(radians.z);
  Matrix rx, ry, rz;
  rx.v2 = Vector{0.0, cx, sx};
  rx.v3 = Vector{0.0, -sx, cx};
  ry.v1 = Vector{cy, 0.0, -sy};
  ry.v3 = Vector{sy, 0.0, cy};
  rz.v1 = Vector{cz, sz, 0.0};
  rz.v2 = Vector{-sz, cz, 0.0};
  return ry * rx * rz;
}

}  // namespace platform
