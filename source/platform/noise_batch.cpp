// Compiled once per SIMD target; Evaluate at the end picks the machine's best. Every kernel
// performs the scalar library's operations in the scalar library's order, lane by lane, so
// the values are the same bits on every target.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "platform/noise_batch.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "platform/noise_batch.h"

HWY_BEFORE_NAMESPACE();
namespace platform::noise_batch::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using D = hn::ScalableTag<double>;
using DI = hn::RebindToSigned<D>;
using V = hn::Vec<D>;
using VI = hn::Vec<DI>;

// Adding 1.5 x 2^52 to an integral double below 2^51 in magnitude puts the integer, in two's
// complement, into the low bits of the sum's mantissa.
constexpr double kIntegerMagic = 6755399441055744.0;
constexpr double kGradient2Scale = 1.4142135623730951;

// floor(s) as the scalar code has it: an integer converted back, so never -0.
HWY_INLINE V FloorOf(D d, V s) {
  return hn::Floor(s) + hn::Zero(d);
}

// The low 8 bits of an integral value: its index into a permutation.
HWY_INLINE VI LowByte(D d, V integral) {
  const DI di;
  return hn::And(hn::BitCast(di, integral + hn::Set(d, kIntegerMagic)), hn::Set(di, 255));
}

// cell mod period in 0 .. period - 1 for integral values; the reciprocal may miss the
// quotient by one either way, which the two corrections take back.
HWY_INLINE V Modulo(D d, V cell, V period, V inversePeriod) {
  V wrapped = cell - hn::Floor(cell * inversePeriod) * period;
  wrapped = hn::IfThenElse(wrapped < hn::Zero(d), wrapped + period, wrapped);
  return hn::IfThenElse(wrapped >= period, wrapped - period, wrapped);
}

HWY_INLINE V Quintic(D d, V t) {
  return t * t * t * (t * (t * hn::Set(d, 6.0) - hn::Set(d, 15.0)) + hn::Set(d, 10.0));
}
HWY_INLINE V Lerp(V a, V b, V t) {
  return a + (b - a) * t;
}
HWY_INLINE V Clamp01(D d, V v) {
  const V one = hn::Set(d, 1.0);
  return hn::IfThenElse(v < hn::Zero(d), hn::Zero(d), hn::IfThenElse(v > one, one, v));
}
HWY_INLINE V ToUnit(D d, V v) {
  return Clamp01(d, hn::Set(d, 0.5) + hn::Set(d, 0.5) * v);
}

// One axis of a lattice cell: the fraction in the cell, and the permutation indices of the
// cell and its successor, wrapped to the period.
struct Axis {
  V fraction;
  VI first;
  VI second;
};

template <bool kPeriodic>
HWY_INLINE Axis LatticeAxis(D d, V s, V period, V inversePeriod) {
  const DI di;
  const V cell = FloorOf(d, s);
  Axis axis;
  axis.fraction = s - cell;
  if constexpr (kPeriodic) {
    const V wrapped = Modulo(d, cell, period, inversePeriod);
    const V next = wrapped + hn::Set(d, 1.0);
    axis.first = LowByte(d, wrapped);
    axis.second = LowByte(d, hn::IfThenZeroElse(next == period, next));
  } else {
    axis.first = LowByte(d, cell);
    axis.second = hn::And(axis.first + hn::Set(di, 1), hn::Set(di, 255));
  }
  return axis;
}

// The corner indices of a lattice cube: p[p[p[x] + y] + z] is the hash, so p[p[x] + y] + z
// indexes the hash's data.
struct Corners3 {
  VI c000, c100, c010, c110, c001, c101, c011, c111;
};

HWY_INLINE Corners3 CubeCorners(const LaneTables& t, const Axis& ax, const Axis& ay, const Axis& az) {
  const DI di;
  const std::int64_t* p = t.permutation.data();
  const VI a0 = hn::GatherIndex(di, p, ax.first), a1 = hn::GatherIndex(di, p, ax.second);
  const VI b00 = hn::GatherIndex(di, p, a0 + ay.first), b01 = hn::GatherIndex(di, p, a0 + ay.second);
  const VI b10 = hn::GatherIndex(di, p, a1 + ay.first), b11 = hn::GatherIndex(di, p, a1 + ay.second);
  return {b00 + az.first,  b10 + az.first,  b01 + az.first,  b11 + az.first,
          b00 + az.second, b10 + az.second, b01 + az.second, b11 + az.second};
}

// The hashes of the corners of each lane's lattice cell, masked to the bits that pick a
// gradient, corner k at bit k of (x, y, z) offsets. Scalar loads from the byte table: on
// the machines measured, a gather per corner costs more than a lane-by-lane lookup.
template <int kDimensions>
HWY_INLINE void CornerHashes(D d, const LaneTables& t, const Axis* axes, int mask, VI* hashes) {
  const DI di;
  constexpr std::size_t kMaxLanes = hn::MaxLanes(D());
  alignas(64) std::int64_t first[kDimensions][kMaxLanes], second[kDimensions][kMaxLanes];
  alignas(64) std::int64_t corners[1 << kDimensions][kMaxLanes];
  for (int a = 0; a < kDimensions; ++a) {
    hn::Store(axes[a].first, di, first[a]);
    hn::Store(axes[a].second, di, second[a]);
  }
  const std::uint8_t* p = t.permutationBytes.data();
  for (std::size_t lane = 0; lane < hn::Lanes(d); ++lane) {
    const int a0 = p[first[0][lane]], a1 = p[second[0][lane]];
    if constexpr (kDimensions == 2) {
      corners[0][lane] = p[a0 + first[1][lane]] & mask;
      corners[1][lane] = p[a1 + first[1][lane]] & mask;
      corners[2][lane] = p[a0 + second[1][lane]] & mask;
      corners[3][lane] = p[a1 + second[1][lane]] & mask;
    } else {
      const int b00 = p[a0 + first[1][lane]], b01 = p[a0 + second[1][lane]];
      const int b10 = p[a1 + first[1][lane]], b11 = p[a1 + second[1][lane]];
      const std::int64_t z0 = first[2][lane], z1 = second[2][lane];
      corners[0][lane] = p[b00 + z0] & mask;
      corners[1][lane] = p[b10 + z0] & mask;
      corners[2][lane] = p[b01 + z0] & mask;
      corners[3][lane] = p[b11 + z0] & mask;
      corners[4][lane] = p[b00 + z1] & mask;
      corners[5][lane] = p[b10 + z1] & mask;
      corners[6][lane] = p[b01 + z1] & mask;
      corners[7][lane] = p[b11 + z1] & mask;
    }
  }
  for (int k = 0; k < (1 << kDimensions); ++k) hashes[k] = hn::Load(di, corners[k]);
}

// The scalar code's dot product with gradient h of its sixteen: two of the terms are +-x,
// +-y or +-z, the third is a signed zero. The sum is the same up to the sign of a zero
// result, which no noise shows: every value goes on through 0.5 + 0.5 n, |n| or a sum that
// starts at +0.
HWY_INLINE V GradientDot3(D d, VI h, V x, V y, V z) {
  const DI di;
  const auto firstIsX = hn::RebindMask(d, h < hn::Set(di, 8));
  const auto secondIsY = hn::RebindMask(d, h < hn::Set(di, 4));
  const auto secondIsX = hn::RebindMask(d, hn::And(h, hn::Set(di, 13)) == hn::Set(di, 12));
  const V first = hn::IfThenElse(firstIsX, x, y);
  const V second = hn::IfThenElse(secondIsY, y, hn::IfThenElse(secondIsX, x, z));
  const V firstSign = hn::BitCast(d, hn::ShiftLeft<63>(h));
  const V secondSign = hn::BitCast(d, hn::And(hn::ShiftLeft<62>(h), hn::Set(di, hwy::LimitsMin<std::int64_t>())));
  return hn::Xor(first, firstSign) + hn::Xor(second, secondSign);
}

// The scalar code's plane gradient h of its eight, at 22.5 + 45 h degrees: the cosine is the
// major magnitude for h = 0, 3, 4, 7 and negative for h = 2 .. 5; the sine takes the other
// magnitude and is negative for h = 4 .. 7.
HWY_INLINE V GradientDot2(D d, VI h, V x, V z) {
  const DI di;
  constexpr double kMajor = 0.9238795325112867, kMinor = 0.3826834323650898;
  const auto cosineMajor = hn::RebindMask(d, hn::And(h + hn::Set(di, 1), hn::Set(di, 2)) == hn::Zero(di));
  const V major = hn::Set(d, kMajor), minor = hn::Set(d, kMinor);
  const V cosineSign = hn::BitCast(d, hn::ShiftLeft<61>(h + hn::Set(di, 2)));
  const V sineSign = hn::BitCast(d, hn::ShiftLeft<61>(h));
  const V sign = hn::Set(d, -0.0);
  const V gx = hn::Or(hn::IfThenElse(cosineMajor, major, minor), hn::And(cosineSign, sign));
  const V gz = hn::Or(hn::IfThenElse(cosineMajor, minor, major), hn::And(sineSign, sign));
  return gx * x + gz * z;
}

template <bool kPeriodic>
HWY_INLINE V Gradient3(D d, const LaneTables& t, V x, V y, V z, V period, V inversePeriod) {
  const Axis axes[3] = {LatticeAxis<kPeriodic>(d, x, period, inversePeriod),
                        LatticeAxis<kPeriodic>(d, y, period, inversePeriod),
                        LatticeAxis<kPeriodic>(d, z, period, inversePeriod)};
  VI h[8];
  CornerHashes<3>(d, t, axes, 15, h);
  const V one = hn::Set(d, 1.0);
  const V fx = axes[0].fraction, fy = axes[1].fraction, fz = axes[2].fraction;
  const V gx = fx - one, gy = fy - one, gz = fz - one;
  const V n000 = GradientDot3(d, h[0], fx, fy, fz), n100 = GradientDot3(d, h[1], gx, fy, fz);
  const V n010 = GradientDot3(d, h[2], fx, gy, fz), n110 = GradientDot3(d, h[3], gx, gy, fz);
  const V n001 = GradientDot3(d, h[4], fx, fy, gz), n101 = GradientDot3(d, h[5], gx, fy, gz);
  const V n011 = GradientDot3(d, h[6], fx, gy, gz), n111 = GradientDot3(d, h[7], gx, gy, gz);
  const V u = Quintic(d, fx), v = Quintic(d, fy), w = Quintic(d, fz);
  const V front = Lerp(Lerp(n000, n100, u), Lerp(n010, n110, u), v);
  const V back = Lerp(Lerp(n001, n101, u), Lerp(n011, n111, u), v);
  return Lerp(front, back, w);
}

// Gradient noise on the plane (x, z).
template <bool kPeriodic>
HWY_INLINE V Gradient2(D d, const LaneTables& t, V x, V z, V period, V inversePeriod) {
  const Axis axes[2] = {LatticeAxis<kPeriodic>(d, x, period, inversePeriod),
                        LatticeAxis<kPeriodic>(d, z, period, inversePeriod)};
  VI h[4];
  CornerHashes<2>(d, t, axes, 7, h);
  const V one = hn::Set(d, 1.0);
  const V fx = axes[0].fraction, fz = axes[1].fraction;
  const V gx = fx - one, gz = fz - one;
  const V a = GradientDot2(d, h[0], fx, fz), b = GradientDot2(d, h[1], gx, fz);
  const V c = GradientDot2(d, h[2], fx, gz), e = GradientDot2(d, h[3], gx, gz);
  const V u = Quintic(d, fx), v = Quintic(d, fz);
  const V k1 = b - a, k2 = c - a, k3 = a - b - c + e;
  return hn::Set(d, kGradient2Scale) * (a + k1 * u + k2 * v + k3 * u * v);
}

template <bool kPeriodic>
HWY_INLINE V Value3(D d, const LaneTables& t, V x, V y, V z, V period, V inversePeriod) {
  const Axis ax = LatticeAxis<kPeriodic>(d, x, period, inversePeriod);
  const Axis ay = LatticeAxis<kPeriodic>(d, y, period, inversePeriod);
  const Axis az = LatticeAxis<kPeriodic>(d, z, period, inversePeriod);
  const Corners3 c = CubeCorners(t, ax, ay, az);
  const V u = Quintic(d, ax.fraction), v = Quintic(d, ay.fraction), w = Quintic(d, az.fraction);
  const auto value = [&](VI corner) { return hn::GatherIndex(d, t.values.data(), corner); };
  const V front = Lerp(Lerp(value(c.c000), value(c.c100), u), Lerp(value(c.c010), value(c.c110), u), v);
  const V back = Lerp(Lerp(value(c.c001), value(c.c101), u), Lerp(value(c.c011), value(c.c111), u), v);
  return Lerp(front, back, w);
}

template <bool kPeriodic>
HWY_INLINE V Value2(D d, const LaneTables& t, V x, V z, V period, V inversePeriod) {
  const DI di;
  const Axis ax = LatticeAxis<kPeriodic>(d, x, period, inversePeriod);
  const Axis az = LatticeAxis<kPeriodic>(d, z, period, inversePeriod);
  const std::int64_t* p = t.permutation.data();
  const VI a0 = hn::GatherIndex(di, p, ax.first), a1 = hn::GatherIndex(di, p, ax.second);
  const V u = Quintic(d, ax.fraction), v = Quintic(d, az.fraction);
  const auto value = [&](VI corner) { return hn::GatherIndex(d, t.values.data(), corner); };
  return Lerp(Lerp(value(a0 + az.first), value(a1 + az.first), u),
              Lerp(value(a0 + az.second), value(a1 + az.second), u), v);
}

// The cells around a point on one axis: their integral coordinates and permutation indices.
template <bool kPeriodic>
HWY_INLINE void NeighbourCells(D d, V q, V period, V inversePeriod, V cells[3], VI indices[3]) {
  const V cell = FloorOf(d, q);
  for (int k = 0; k < 3; ++k) {
    cells[k] = cell + hn::Set(d, static_cast<double>(k - 1));
    indices[k] = LowByte(d, kPeriodic ? Modulo(d, cells[k], period, inversePeriod) : cells[k]);
  }
}

struct Nearest {
  V f1, f2;   // distances
  VI corner;  // of the nearest feature
};

template <bool kTwoD, bool kPeriodic>
HWY_INLINE Nearest Voronoi(D d, const LaneTables& t, V x, V y, V z, V period, V inversePeriod) {
  const DI di;
  const std::int64_t* p = t.permutation.data();
  V cellsX[3], cellsY[3], cellsZ[3];
  VI indicesX[3], indicesY[3], indicesZ[3];
  NeighbourCells<kPeriodic>(d, x, period, inversePeriod, cellsX, indicesX);
  NeighbourCells<kPeriodic>(d, z, period, inversePeriod, cellsZ, indicesZ);
  if constexpr (!kTwoD) NeighbourCells<kPeriodic>(d, y, period, inversePeriod, cellsY, indicesY);
  VI rows[3];
  for (int k = 0; k < 3; ++k) rows[k] = hn::GatherIndex(di, p, indicesX[k]);
  Nearest nearest{hn::Set(d, 1e300), hn::Set(d, 1e300), hn::Set(di, t.zeroHashIndex)};
  const auto visit = [&](VI corner, V cellX, V cellY, V cellZ) {
    const V ex = cellX + hn::GatherIndex(d, t.featureX.data(), corner) - x;
    const V ez = cellZ + hn::GatherIndex(d, t.featureZ.data(), corner) - z;
    V distance = ex * ex;
    if constexpr (!kTwoD) {
      const V ey = cellY + hn::GatherIndex(d, t.featureY.data(), corner) - y;
      distance = distance + ey * ey;
    }
    // In 2-D the scalar code adds 0 * 0 here, which changes no square.
    distance = distance + ez * ez;
    const auto closest = distance < nearest.f1;
    nearest.f2 = hn::IfThenElse(closest, nearest.f1, hn::IfThenElse(distance < nearest.f2, distance, nearest.f2));
    nearest.f1 = hn::IfThenElse(closest, distance, nearest.f1);
    nearest.corner = hn::IfThenElse(hn::RebindMask(di, closest), corner, nearest.corner);
  };
  if constexpr (kTwoD) {
    for (int dz = 0; dz < 3; ++dz)
      for (int dx = 0; dx < 3; ++dx) visit(rows[dx] + indicesZ[dz], cellsX[dx], cellsX[dx], cellsZ[dz]);
  } else {
    VI planes[3][3];  // p[p[x] + y] by x and y
    for (int dy = 0; dy < 3; ++dy)
      for (int dx = 0; dx < 3; ++dx) planes[dy][dx] = hn::GatherIndex(di, p, rows[dx] + indicesY[dy]);
    for (int dz = 0; dz < 3; ++dz)
      for (int dy = 0; dy < 3; ++dy)
        for (int dx = 0; dx < 3; ++dx) visit(planes[dy][dx] + indicesZ[dz], cellsX[dx], cellsY[dy], cellsZ[dz]);
  }
  nearest.f1 = hn::Sqrt(nearest.f1);
  nearest.f2 = hn::Sqrt(nearest.f2);
  return nearest;
}

template <Shape kShape>
HWY_INLINE V Shaped(D d, V n) {
  if constexpr (kShape == Shape::SIGNED) return n;
  if constexpr (kShape == Shape::BILLOW) return hn::Set(d, 2.0) * hn::Abs(n) - hn::Set(d, 1.0);
  if constexpr (kShape == Shape::ABSOLUTE) return hn::Abs(n);
  if constexpr (kShape == Shape::RIDGE) return hn::Set(d, 1.0) - hn::Abs(n);
}

// The raw value of a plan's kind at one vector of points.
template <Kind kKind, bool kTwoD, bool kPeriodic, Shape kShape>
HWY_INLINE V Raw(D d, const Plan& plan, const LaneTables& t, V x, V y, V z) {
  if constexpr (kKind == Kind::VALUE) {
    const V period = hn::Set(d, plan.period), inverse = hn::Set(d, plan.inversePeriod);
    return kTwoD ? Value2<kPeriodic>(d, t, x, z, period, inverse) : Value3<kPeriodic>(d, t, x, y, z, period, inverse);
  } else if constexpr (kKind == Kind::CELLULAR || kKind == Kind::VORONOI_F1 || kKind == Kind::VORONOI_F2 ||
                       kKind == Kind::VORONOI_F2_F1) {
    const Nearest cells =
        Voronoi<kTwoD, kPeriodic>(d, t, x, y, z, hn::Set(d, plan.period), hn::Set(d, plan.inversePeriod));
    if constexpr (kKind == Kind::CELLULAR) return hn::GatherIndex(d, t.values.data(), cells.corner);
    if constexpr (kKind == Kind::VORONOI_F1) return cells.f1;
    if constexpr (kKind == Kind::VORONOI_F2) return cells.f2 * hn::Set(d, 0.75);
    if constexpr (kKind == Kind::VORONOI_F2_F1) return cells.f2 - cells.f1;
  } else {
    V sum = hn::Zero(d), weight = hn::Set(d, 1.0);
    for (int k = 0; k < plan.octaveCount; ++k) {
      const OctavePlan& o = plan.octaves[static_cast<std::size_t>(k)];
      const V period = hn::Set(d, o.period), inverse = hn::Set(d, o.inversePeriod);
      V n;
      if (kKind == Kind::GRADIENT && plan.unscaled) {
        n = kTwoD ? Gradient2<kPeriodic>(d, t, x, z, period, inverse)
                  : Gradient3<kPeriodic>(d, t, x, y, z, period, inverse);
      } else {
        const V frequency = hn::Set(d, o.frequency);
        const V sx = x * frequency + hn::Set(d, o.offsetX);
        const V sz = z * frequency + hn::Set(d, o.offsetZ);
        if constexpr (kTwoD) {
          n = Gradient2<kPeriodic>(d, t, sx, sz, period, inverse);
        } else {
          const V sy = y * frequency + hn::Set(d, o.offsetY);
          n = Gradient3<kPeriodic>(d, t, sx, sy, sz, period, inverse);
        }
      }
      if constexpr (kKind == Kind::GRADIENT) {
        return n;
      } else if constexpr (kKind == Kind::FRACTAL) {
        sum = sum + hn::Set(d, o.weight) * Shaped<kShape>(d, n);
      } else {
        V signal = hn::Set(d, plan.ridgedOffset) - hn::Abs(n);
        signal = signal * (signal * weight);
        sum = sum + signal * hn::Set(d, o.weight) * hn::Set(d, o.share);
        weight = Clamp01(d, signal * hn::Set(d, plan.ridgedGain));
      }
    }
    if constexpr (kKind == Kind::FRACTAL) return plan.norm > 0.0 ? sum / hn::Set(d, plan.norm) : hn::Zero(d);
    return sum;
  }
}

// The scalar code's point preparation (time, the 2-D phase), where it folds nothing back and
// the lattice stays exact; false where not.
template <bool kTwoD>
HWY_INLINE bool Prepare(D d, const Plan& plan, V x, V y, V z, V& qx, V& qy, V& qz) {
  const V limit = hn::Set(d, kCoordinateLimit);
  const V time = hn::Set(d, plan.time);
  const auto given = hn::And(hn::And(hn::Abs(x) <= limit, hn::Abs(y) <= limit), hn::Abs(z) <= limit);
  if constexpr (kTwoD) {
    const V phase = y + time;
    qx = x + phase * hn::Set(d, kPhaseX);
    qy = hn::Zero(d);
    qz = z + phase * hn::Set(d, kPhaseZ);
  } else {
    qx = x + time;
    qy = y + time;
    qz = z + time;
  }
  const V bound = hn::Set(d, plan.exactBound < kCoordinateLimit ? plan.exactBound : kCoordinateLimit);
  const auto prepared = hn::And(hn::And(hn::Abs(qx) <= bound, hn::Abs(qy) <= bound), hn::Abs(qz) <= bound);
  return hn::AllTrue(d, hn::And(given, prepared));
}

template <Kind kKind, bool kTwoD, bool kPeriodic, Shape kShape>
bool Loop(const Plan& plan, const LaneTables& t, const Float* x, const Float* y, const Float* z, std::size_t count,
          Float* out, std::uint8_t* scalarNeeded) {
  const D d;
  const std::size_t lanes = hn::Lanes(d);
  bool any = false;
  for (std::size_t i = 0; i < count; i += lanes) {
    const std::size_t valid = count - i < lanes ? count - i : lanes;
    V px, py, pz;
    if (valid == lanes) {
      px = hn::LoadU(d, x + i), py = hn::LoadU(d, y + i), pz = hn::LoadU(d, z + i);
    } else {
      alignas(64) double tail[3][hn::MaxLanes(D())] = {};
      for (std::size_t k = 0; k < valid; ++k) tail[0][k] = x[i + k], tail[1][k] = y[i + k], tail[2][k] = z[i + k];
      px = hn::Load(d, tail[0]), py = hn::Load(d, tail[1]), pz = hn::Load(d, tail[2]);
    }
    V qx, qy, qz;
    const bool exact = Prepare<kTwoD>(d, plan, px, py, pz, qx, qy, qz);
    for (std::size_t k = 0; k < valid; ++k) scalarNeeded[i + k] = exact ? 0 : 1;
    if (!exact) {
      any = true;
      continue;
    }
    V v = Raw<kKind, kTwoD, kPeriodic, kShape>(d, plan, t, qx, qy, qz);
    switch (plan.finish) {
      case Finish::RAW:
        break;
      case Finish::TO_UNIT:
        v = ToUnit(d, v);
        break;
      case Finish::CLAMP:
        v = Clamp01(d, v);
        break;
    }
    if (plan.absolute) v = hn::Abs(hn::Set(d, 2.0) * v - hn::Set(d, 1.0));
    if (valid == lanes) {
      hn::StoreU(v, d, out + i);
    } else {
      alignas(64) double tail[hn::MaxLanes(D())];
      hn::Store(v, d, tail);
      for (std::size_t k = 0; k < valid; ++k) out[i + k] = tail[k];
    }
  }
  return any;
}

template <Kind kKind, Shape kShape = Shape::SIGNED>
bool ByLattice(const Plan& plan, const LaneTables& t, const Float* x, const Float* y, const Float* z, std::size_t count,
               Float* out, std::uint8_t* scalarNeeded) {
  if (plan.twoD) {
    if (plan.periodic) return Loop<kKind, true, true, kShape>(plan, t, x, y, z, count, out, scalarNeeded);
    return Loop<kKind, true, false, kShape>(plan, t, x, y, z, count, out, scalarNeeded);
  }
  if (plan.periodic) return Loop<kKind, false, true, kShape>(plan, t, x, y, z, count, out, scalarNeeded);
  return Loop<kKind, false, false, kShape>(plan, t, x, y, z, count, out, scalarNeeded);
}

bool EvaluateImpl(const Plan& plan, const LaneTables& t, const Float* x, const Float* y, const Float* z,
                  std::size_t count, Float* out, std::uint8_t* scalarNeeded) {
  switch (plan.kind) {
    case Kind::GRADIENT:
      return ByLattice<Kind::GRADIENT>(plan, t, x, y, z, count, out, scalarNeeded);
    case Kind::FRACTAL:
      switch (plan.shape) {
        case Shape::SIGNED:
          return ByLattice<Kind::FRACTAL, Shape::SIGNED>(plan, t, x, y, z, count, out, scalarNeeded);
        case Shape::BILLOW:
          return ByLattice<Kind::FRACTAL, Shape::BILLOW>(plan, t, x, y, z, count, out, scalarNeeded);
        case Shape::ABSOLUTE:
          return ByLattice<Kind::FRACTAL, Shape::ABSOLUTE>(plan, t, x, y, z, count, out, scalarNeeded);
        case Shape::RIDGE:
          return ByLattice<Kind::FRACTAL, Shape::RIDGE>(plan, t, x, y, z, count, out, scalarNeeded);
      }
      return false;
    case Kind::RIDGED:
      // Always on the 3-D lattice.
      if (plan.periodic)
        return Loop<Kind::RIDGED, false, true, Shape::SIGNED>(plan, t, x, y, z, count, out, scalarNeeded);
      return Loop<Kind::RIDGED, false, false, Shape::SIGNED>(plan, t, x, y, z, count, out, scalarNeeded);
    case Kind::VALUE:
      return ByLattice<Kind::VALUE>(plan, t, x, y, z, count, out, scalarNeeded);
    case Kind::CELLULAR:
      return ByLattice<Kind::CELLULAR>(plan, t, x, y, z, count, out, scalarNeeded);
    case Kind::VORONOI_F1:
      return ByLattice<Kind::VORONOI_F1>(plan, t, x, y, z, count, out, scalarNeeded);
    case Kind::VORONOI_F2:
      return ByLattice<Kind::VORONOI_F2>(plan, t, x, y, z, count, out, scalarNeeded);
    case Kind::VORONOI_F2_F1:
      return ByLattice<Kind::VORONOI_F2_F1>(plan, t, x, y, z, count, out, scalarNeeded);
  }
  return false;
}

}  // namespace platform::noise_batch::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace platform::noise_batch {

HWY_EXPORT(EvaluateImpl);

bool Evaluate(const Plan& plan, const LaneTables& tables, const Float* x, const Float* y, const Float* z,
              std::size_t count, Float* out, std::uint8_t* scalarNeeded) {
  return HWY_DYNAMIC_DISPATCH(EvaluateImpl)(plan, tables, x, y, z, count, out, scalarNeeded);
}

}  // namespace platform::noise_batch
#endif
