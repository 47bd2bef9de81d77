#pragma once

#include <bit>
#include <cmath>
#include <limits>

#include "platform/types.h"

namespace platform {

struct Vector {
  Float x = 0.0;
  Float y = 0.0;
  Float z = 0.0;

  constexpr Vector() = default;
  constexpr Vector(Float xValue, Float yValue, Float zValue) : x(xValue), y(yValue), z(zValue) {}
  constexpr explicit Vector(Float all) : x(all), y(all), z(all) {}

  constexpr Vector& operator+=(const Vector& other) {
    x += other.x;
    y += other.y;
    z += other.z;
    return *this;
  }
  constexpr Vector& operator-=(const Vector& other) {
    x -= other.x;
    y -= other.y;
    z -= other.z;
    return *this;
  }
  constexpr Vector& operator*=(Float factor) {
    x *= factor;
    y *= factor;
    z *= factor;
    return *this;
  }
  friend constexpr Vector operator+(Vector a, const Vector& b) { return a += b; }
  friend constexpr Vector operator-(Vector a, const Vector& b) { return a -= b; }
  friend constexpr Vector operator-(const Vector& a) { return {-a.x, -a.y, -a.z}; }
  friend constexpr Vector operator*(Vector a, Float factor) { return a *= factor; }
  friend constexpr Vector operator*(Float factor, Vector a) { return a *= factor; }
  friend constexpr bool operator==(const Vector&, const Vector&) = default;
};

constexpr Float Dot(const Vector& a, const Vector& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
constexpr Vector Cross(const Vector& a, const Vector& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline Float Length(const Vector& v) { return std::sqrt(Dot(v, v)); }
// The zero vector stays zero instead of turning into NaNs.
inline Vector Normalized(const Vector& v) {
  const Float length = Length(v);
  return length == 0.0 ? Vector{} : v * (1.0 / length);
}
// Per component.
constexpr Vector Min(const Vector& a, const Vector& b) {
  return {a.x < b.x ? a.x : b.x, a.y < b.y ? a.y : b.y, a.z < b.z ? a.z : b.z};
}
constexpr Vector Max(const Vector& a, const Vector& b) {
  return {a.x > b.x ? a.x : b.x, a.y > b.y ? a.y : b.y, a.z > b.z ? a.z : b.z};
}

// A stable 64-bit hash of a value, the same on every machine and run. Equal values hash
// equally: -0.0 hashes as 0.0 and every NaN alike.
constexpr UInt64 HashFloat(Float value) {
  if (value == 0.0) value = 0.0;
  if (value != value) value = std::numeric_limits<Float>::quiet_NaN();
  UInt64 bits = std::bit_cast<UInt64>(value);
  // splitmix64 finaliser: spreads every input bit over the whole word.
  bits ^= bits >> 30;
  bits *= 0xbf58476d1ce4e5b9ULL;
  bits ^= bits >> 27;
  bits *= 0x94d049bb133111ebULL;
  bits ^= bits >> 31;
  return bits;
}

constexpr UInt64 HashVector(const Vector& v) { return (HashFloat(v.x) * 31 + HashFloat(v.y)) * 31 + HashFloat(v.z); }

// Three floats; for bulk data where single precision is enough (texture coordinates).
struct Vector32 {
  float x = 0.0f;
  float y = 0.0f;
  float z = 0.0f;
  friend constexpr bool operator==(const Vector32&, const Vector32&) = default;
};

}  // namespace platform
