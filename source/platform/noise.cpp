#include "platform/noise.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <optional>

#include "platform/noise_batch.h"
#include "platform/random.h"

namespace platform {
namespace {

using Tables = NoiseGenerator::Tables;

constexpr NoiseTypeInfo kNoiseTypes[] = {
    {NoiseType::VALUE, "VALUE", false},
    {NoiseType::BILLOW, "BILLOW", true},
    {NoiseType::CELL, "CELL", false},
    {NoiseType::WARPED_TURBULENCE, "WARPED_TURBULENCE", true},
    {NoiseType::FBM, "FBM", true},
    {NoiseType::RIDGED_TURBULENCE, "RIDGED_TURBULENCE", true},
    {NoiseType::PERLIN, "PERLIN", false},
    {NoiseType::SWISS, "SWISS", true},
    {NoiseType::WHITE, "WHITE", false},
    {NoiseType::ERODED_FBM, "ERODED_FBM", true},
    {NoiseType::TURBULENCE, "TURBULENCE", true},
    {NoiseType::WAVY_TURBULENCE, "WAVY_TURBULENCE", true},
    {NoiseType::CELLULAR, "CELLULAR", false},
    {NoiseType::VORONOI_F1, "VORONOI_F1", false},
    {NoiseType::VORONOI_F2, "VORONOI_F2", false},
    {NoiseType::VORONOI_F2_F1, "VORONOI_F2_F1", false},
    {NoiseType::RIDGED_MULTIFRACTAL, "RIDGED_MULTIFRACTAL", true},
};

using noise_batch::kCoordinateLimit;
using noise_batch::kPhaseX;
using noise_batch::kPhaseZ;
// Gradient noise on the plane peaks near 1/sqrt(2); scaled so both dimensions span -1 .. 1.
constexpr Float kGradient2Scale = 1.4142135623730951;
constexpr Float kDefaultGain = 0.5;
constexpr Float kDefaultLacunarity = 2.0;
constexpr Float kSwissWarp = 0.15;
constexpr Float kWarpFrequency = 0.5;
constexpr Float kWavyWavelength = 4.0;
constexpr Float kWavyAmplitude = 0.5;
constexpr Float kWhiteQuantum = 65536.0;

constexpr Vector kGradients3[16] = {{1, 1, 0},  {-1, 1, 0},  {1, -1, 0}, {-1, -1, 0}, {1, 0, 1},  {-1, 0, 1},
                                    {1, 0, -1}, {-1, 0, -1}, {0, 1, 1},  {0, -1, 1},  {0, 1, -1}, {0, -1, -1},
                                    {1, 1, 0},  {0, -1, 1},  {-1, 1, 0}, {0, -1, -1}};
// Eight unit directions at 22.5 + k x 45 degrees. None lies along an axis: with axis-aligned
// gradients the noise vanishes along whole lattice lines, and sums of |n| show them as creases.
constexpr Float kMajor = 0.9238795325112867;  // cos 22.5 degrees
constexpr Float kMinor = 0.3826834323650898;  // sin 22.5 degrees
constexpr Float kGradients2[8][2] = {{kMajor, kMinor},   {kMinor, kMajor},   {-kMinor, kMajor}, {-kMajor, kMinor},
                                     {-kMajor, -kMinor}, {-kMinor, -kMajor}, {kMinor, -kMajor}, {kMajor, -kMinor}};

inline Int FastFloor(Float x) {
  const Int i = static_cast<Int>(x);
  return i - static_cast<Int>(x < static_cast<Float>(i));
}
inline Float Quintic(Float t) {
  return t * t * t * (t * (t * 6.0 - 15.0) + 10.0);
}
inline Float QuinticDerivative(Float t) {
  return 30.0 * t * t * (t * (t - 2.0) + 1.0);
}
inline Float Lerp(Float a, Float b, Float t) {
  return a + (b - a) * t;
}
inline Float Clamp01(Float v) {
  return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v);
}
inline Float ToUnit(Float signedValue) {
  return Clamp01(0.5 + 0.5 * signedValue);
}

Float Tame(Float c) {
  if (std::abs(c) <= kCoordinateLimit) return c;
  return std::isfinite(c) ? std::fmod(c, kCoordinateLimit) : 0.0;
}

// A sine of t full turns from +, * and floor only, so that it is the same everywhere
// (error below 0.001, plenty for a warp).
Float SineTurns(Float t) {
  const Float reduced = t - static_cast<Float>(FastFloor(t + 0.5));  // -0.5 .. 0.5
  const Float x = reduced * 2.0;                                     // -1 .. 1 for -pi .. pi
  const Float y = 4.0 * x - 4.0 * x * std::abs(x);
  return 0.225 * (y * std::abs(y) - y) + y;
}

// Lattice index of a cell, wrapped to the period when there is one, folded to the tables.
inline int Wrap(Int cell, Int period) {
  if (period > 0) {
    cell %= period;
    if (cell < 0) cell += period;
  }
  return static_cast<int>(cell & 255);
}

// A cell and its successor, wrapped to the period.
inline void WrapPair(Int cell, Int period, int& first, int& second) {
  // Points near the origin need no division; the rest pay for one.
  Int wrapped = cell < 0 ? cell + period : cell;
  if (static_cast<UInt64>(wrapped) >= static_cast<UInt64>(period)) {
    wrapped = cell % period;
    if (wrapped < 0) wrapped += period;
  }
  const Int next = wrapped + 1 == period ? 0 : wrapped + 1;
  first = static_cast<int>(wrapped & 255);
  second = static_cast<int>(next & 255);
}

inline int Hash2(const Tables& t, int x, int y) {
  return t.permutation[(t.permutation[x] + y) & 255];
}
inline int Hash3(const Tables& t, int x, int y, int z) {
  return t.permutation[(t.permutation[(t.permutation[x] + y) & 255] + z) & 255];
}

inline Float Dot3(int hash, Float x, Float y, Float z) {
  const Vector& g = kGradients3[hash & 15];
  return g.x * x + g.y * y + g.z * z;
}
inline Float Dot2(int hash, Float x, Float y) {
  const Float* g = kGradients2[hash & 7];
  return g[0] * x + g[1] * y;
}

// The eight corner hashes of a lattice cube, x fastest.
struct Corners3 {
  int h[8];
};

template <bool kPeriodic>
inline Corners3 HashCorners3(const Tables& t, Int xi, Int yi, Int zi, Int period) {
  int x0, x1, y0, y1, z0, z1;
  if constexpr (kPeriodic) {
    WrapPair(xi, period, x0, x1);
    WrapPair(yi, period, y0, y1);
    WrapPair(zi, period, z0, z1);
  } else {
    x0 = static_cast<int>(xi & 255), x1 = (x0 + 1) & 255;
    y0 = static_cast<int>(yi & 255), y1 = (y0 + 1) & 255;
    z0 = static_cast<int>(zi & 255), z1 = (z0 + 1) & 255;
  }
  // The doubled table takes sums of two entries without masking.
  const auto& p = t.doubled;
  const int a0 = p[static_cast<std::size_t>(x0)], a1 = p[static_cast<std::size_t>(x1)];
  const int b00 = p[static_cast<std::size_t>(a0 + y0)], b01 = p[static_cast<std::size_t>(a0 + y1)];
  const int b10 = p[static_cast<std::size_t>(a1 + y0)], b11 = p[static_cast<std::size_t>(a1 + y1)];
  const auto at = [&p](int b, int z) { return static_cast<int>(p[static_cast<std::size_t>(b + z)]); };
  return {{at(b00, z0), at(b10, z0), at(b01, z0), at(b11, z0), at(b00, z1), at(b10, z1), at(b01, z1), at(b11, z1)}};
}

// Gradient noise in about -1 .. 1, with its derivative when `derivative` is given.
template <bool kPeriodic, bool kDerivative>
Float Gradient3(const Tables& t, Float x, Float y, Float z, Int period, Vector* derivative) {
  const Int xi = FastFloor(x), yi = FastFloor(y), zi = FastFloor(z);
  const Float fx = x - static_cast<Float>(xi), fy = y - static_cast<Float>(yi), fz = z - static_cast<Float>(zi);
  const Corners3 c = HashCorners3<kPeriodic>(t, xi, yi, zi, period);
  const Float n000 = Dot3(c.h[0], fx, fy, fz), n100 = Dot3(c.h[1], fx - 1, fy, fz);
  const Float n010 = Dot3(c.h[2], fx, fy - 1, fz), n110 = Dot3(c.h[3], fx - 1, fy - 1, fz);
  const Float n001 = Dot3(c.h[4], fx, fy, fz - 1), n101 = Dot3(c.h[5], fx - 1, fy, fz - 1);
  const Float n011 = Dot3(c.h[6], fx, fy - 1, fz - 1), n111 = Dot3(c.h[7], fx - 1, fy - 1, fz - 1);
  const Float u = Quintic(fx), v = Quintic(fy), w = Quintic(fz);
  if constexpr (!kDerivative) {
    (void)derivative;
    // Nested interpolation: fewer operations than the expanded form the derivative needs.
    const Float front = Lerp(Lerp(n000, n100, u), Lerp(n010, n110, u), v);
    const Float back = Lerp(Lerp(n001, n101, u), Lerp(n011, n111, u), v);
    return Lerp(front, back, w);
  } else {
    const Float k1 = n100 - n000, k2 = n010 - n000, k3 = n001 - n000;
    const Float k4 = n000 - n100 - n010 + n110, k5 = n000 - n010 - n001 + n011, k6 = n000 - n100 - n001 + n101;
    const Float k7 = -n000 + n100 + n010 - n110 + n001 - n101 - n011 + n111;
    const Vector& ga = kGradients3[c.h[0] & 15];
    const Vector& gb = kGradients3[c.h[1] & 15];
    const Vector& gc = kGradients3[c.h[2] & 15];
    const Vector& gd = kGradients3[c.h[3] & 15];
    const Vector& ge = kGradients3[c.h[4] & 15];
    const Vector& gf = kGradients3[c.h[5] & 15];
    const Vector& gg = kGradients3[c.h[6] & 15];
    const Vector& gh = kGradients3[c.h[7] & 15];
    const Vector blend = ga + (gb - ga) * u + (gc - ga) * v + (ge - ga) * w + (ga - gb - gc + gd) * (u * v) +
                         (ga - gc - ge + gg) * (v * w) + (ga - gb - ge + gf) * (w * u) +
                         (-ga + gb + gc - gd + ge - gf - gg + gh) * (u * v * w);
    *derivative = blend + Vector(QuinticDerivative(fx) * (k1 + k4 * v + k6 * w + k7 * v * w),
                                 QuinticDerivative(fy) * (k2 + k5 * w + k4 * u + k7 * w * u),
                                 QuinticDerivative(fz) * (k3 + k6 * u + k5 * v + k7 * u * v));
    return n000 + k1 * u + k2 * v + k3 * w + k4 * u * v + k5 * v * w + k6 * w * u + k7 * u * v * w;
  }
}

Float Gradient3(const Tables& t, Float x, Float y, Float z, Int period, Vector* derivative) {
  if (period > 0)
    return derivative != nullptr ? Gradient3<true, true>(t, x, y, z, period, derivative)
                                 : Gradient3<true, false>(t, x, y, z, period, nullptr);
  return derivative != nullptr ? Gradient3<false, true>(t, x, y, z, 0, derivative)
                               : Gradient3<false, false>(t, x, y, z, 0, nullptr);
}

Float Gradient2(const Tables& t, Float x, Float y, Int period, Vector* derivative) {
  const Int xi = FastFloor(x), yi = FastFloor(y);
  const Float fx = x - static_cast<Float>(xi), fy = y - static_cast<Float>(yi);
  const int x0 = Wrap(xi, period), x1 = Wrap(xi + 1, period);
  const int y0 = Wrap(yi, period), y1 = Wrap(yi + 1, period);
  const int h00 = Hash2(t, x0, y0), h10 = Hash2(t, x1, y0), h01 = Hash2(t, x0, y1), h11 = Hash2(t, x1, y1);
  const Float a = Dot2(h00, fx, fy), b = Dot2(h10, fx - 1, fy), c = Dot2(h01, fx, fy - 1),
              d = Dot2(h11, fx - 1, fy - 1);
  const Float u = Quintic(fx), v = Quintic(fy);
  const Float k1 = b - a, k2 = c - a, k3 = a - b - c + d;
  if (derivative != nullptr) {
    const Float* ga = kGradients2[h00 & 7];
    const Float* gb = kGradients2[h10 & 7];
    const Float* gc = kGradients2[h01 & 7];
    const Float* gd = kGradients2[h11 & 7];
    Float g[2];
    for (int i = 0; i < 2; ++i)
      g[i] = ga[i] + u * (gb[i] - ga[i]) + v * (gc[i] - ga[i]) + u * v * (ga[i] - gb[i] - gc[i] + gd[i]);
    // The plane's axes are x and z; y carries no slope.
    *derivative = Vector(kGradient2Scale * (g[0] + QuinticDerivative(fx) * (k1 + k3 * v)), 0.0,
                         kGradient2Scale * (g[1] + QuinticDerivative(fy) * (k2 + k3 * u)));
  }
  return kGradient2Scale * (a + k1 * u + k2 * v + k3 * u * v);
}

Float Value3(const Tables& t, Float x, Float y, Float z, Int period) {
  const Int xi = FastFloor(x), yi = FastFloor(y), zi = FastFloor(z);
  const Float u = Quintic(x - static_cast<Float>(xi)), v = Quintic(y - static_cast<Float>(yi));
  const Float w = Quintic(z - static_cast<Float>(zi));
  const int x0 = Wrap(xi, period), x1 = Wrap(xi + 1, period);
  const int y0 = Wrap(yi, period), y1 = Wrap(yi + 1, period);
  const int z0 = Wrap(zi, period), z1 = Wrap(zi + 1, period);
  const auto value = [&](int a, int b, int c) { return t.values[static_cast<std::size_t>(Hash3(t, a, b, c))]; };
  const Float front =
      Lerp(Lerp(value(x0, y0, z0), value(x1, y0, z0), u), Lerp(value(x0, y1, z0), value(x1, y1, z0), u), v);
  const Float back =
      Lerp(Lerp(value(x0, y0, z1), value(x1, y0, z1), u), Lerp(value(x0, y1, z1), value(x1, y1, z1), u), v);
  return Lerp(front, back, w);
}

Float Value2(const Tables& t, Float x, Float y, Int period) {
  const Int xi = FastFloor(x), yi = FastFloor(y);
  const Float u = Quintic(x - static_cast<Float>(xi)), v = Quintic(y - static_cast<Float>(yi));
  const int x0 = Wrap(xi, period), x1 = Wrap(xi + 1, period);
  const int y0 = Wrap(yi, period), y1 = Wrap(yi + 1, period);
  const auto value = [&](int a, int b) { return t.values[static_cast<std::size_t>(Hash2(t, a, b))]; };
  return Lerp(Lerp(value(x0, y0), value(x1, y0), u), Lerp(value(x0, y1), value(x1, y1), u), v);
}

struct VoronoiDistances {
  Float f1 = 1e300;
  Float f2 = 1e300;
  int nearestHash = 0;
};

// Distances to the nearest and second nearest feature point, one point per cell.
VoronoiDistances Voronoi(const Tables& t, bool twoD, const Vector& q, Int period) {
  VoronoiDistances result;
  const Int xi = FastFloor(q.x), yi = FastFloor(q.y), zi = FastFloor(q.z);
  const Int yRange = twoD ? 0 : 1;
  for (Int dz = -1; dz <= 1; ++dz)
    for (Int dy = -yRange; dy <= yRange; ++dy)
      for (Int dx = -1; dx <= 1; ++dx) {
        const Int cx = xi + dx, cy = yi + dy, cz = zi + dz;
        const int hash = twoD ? Hash2(t, Wrap(cx, period), Wrap(cz, period))
                              : Hash3(t, Wrap(cx, period), Wrap(cy, period), Wrap(cz, period));
        const Vector& feature = t.features[static_cast<std::size_t>(hash)];
        const Float ex = static_cast<Float>(cx) + feature.x - q.x;
        const Float ey = twoD ? 0.0 : static_cast<Float>(cy) + feature.y - q.y;
        const Float ez = static_cast<Float>(cz) + feature.z - q.z;
        const Float distance = ex * ex + ey * ey + ez * ez;
        if (distance < result.f1) {
          result.f2 = result.f1;
          result.f1 = distance;
          result.nearestHash = hash;
        } else if (distance < result.f2) {
          result.f2 = distance;
        }
      }
  result.f1 = std::sqrt(result.f1);
  result.f2 = std::sqrt(result.f2);
  return result;
}

Float WhiteNoise(UInt64 seedBits, const Vector& q, Int32 repeat) {
  Int cells[3] = {FastFloor(q.x * kWhiteQuantum), FastFloor(q.y * kWhiteQuantum), FastFloor(q.z * kWhiteQuantum)};
  UInt64 hash = seedBits;
  for (Int& cell : cells) {
    if (repeat > 0) {
      const Int period = static_cast<Int>(repeat) * static_cast<Int>(kWhiteQuantum);
      cell %= period;
      if (cell < 0) cell += period;
    }
    hash = (hash ^ static_cast<UInt64>(cell)) * 0x9e3779b97f4a7c15ULL;
    hash ^= hash >> 29;
  }
  hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9ULL;
  hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebULL;
  hash ^= hash >> 31;
  return static_cast<Float>(hash >> 11) * 0x1.0p-53;
}

// Frequency, lattice period and offset of one octave.
struct Octave {
  Float frequency;
  Int period;
  Vector offset;
};

Octave MakeOctave(Int k, Float nominalFrequency, Int32 repeat) {
  // Fixed shifts keep the octaves from sharing a lattice point at the origin. Every octave
  // reads y half-way between lattice planes: a terrain samples the plane y = 0, and on a
  // lattice plane gradient noise degenerates, its zeros lining up into visible creases.
  const Float shift = static_cast<Float>(k + 1);
  const Vector offset(shift * 37.137, static_cast<Float>(k) * 17.0 + 0.5, shift * 23.713);
  if (repeat <= 0) return {nominalFrequency, 0, offset};
  const Int cells = std::max<Int>(1, FastFloor(static_cast<Float>(repeat) * nominalFrequency + 0.5));
  return {static_cast<Float>(cells) / static_cast<Float>(repeat), cells, offset};
}

// The weight factor of an octave of the given frequency for the sample radius.
Float DetailFade(Float frequency, Float sampleRadius, Float detailAttenuation) {
  if (!(sampleRadius > 0.0) || !(detailAttenuation > 0.0) || !(frequency > 0.0)) return 1.0;
  const Float wavelength = 1.0 / frequency;
  const Float t = Clamp01((2.0 * sampleRadius - wavelength) / sampleRadius);
  return 1.0 - std::min(detailAttenuation, 1.0) * t * t * (3.0 - 2.0 * t);
}

// How many octaves to sum: whole ones plus the weight of a last partial one.
struct OctaveCount {
  Int whole;
  Float fraction;
};

OctaveCount CountOctaves(Float octaves, Int32 limit) {
  if (!(octaves >= 1.0)) return {1, 0.0};
  if (octaves >= static_cast<Float>(limit)) return {limit, 0.0};
  const Int whole = FastFloor(octaves);
  return {whole, octaves - static_cast<Float>(whole)};
}

// The point where a noise is read: the plane point with its phase in 2-D, else the 3-D
// point, both moved by time.
Vector PreparePoint(const Vector& point, Float time, bool twoD) {
  const Float x = Tame(point.x), y = Tame(point.y), z = Tame(point.z);
  const Float t = std::isfinite(time) ? time : 0.0;
  if (twoD) {
    const Float phase = y + t;
    return Vector(Tame(x + phase * kPhaseX), 0.0, Tame(z + phase * kPhaseZ));
  }
  return Vector(Tame(x + t), Tame(y + t), Tame(z + t));
}

class Evaluator {
 public:
  Evaluator(const Tables& tables, bool twoD, Int32 repeat) : t_(tables), twoD_(twoD), repeat_(std::max(repeat, 0)) {}

  // Gradient noise of one octave in -1 .. 1 at q scaled to the octave.
  Float Gradient(const Vector& q, const Octave& o, Vector* derivative = nullptr) const {
    const Vector s = q * o.frequency + o.offset;
    if (twoD_) return Gradient2(t_, s.x, s.z, o.period, derivative);
    return Gradient3(t_, s.x, s.y, s.z, o.period, derivative);
  }

  // Sums octaves of shape(n) with weights weight(k) (nominal), returning the weighted mean.
  template <class Shape>
  Float Fractal(const Vector& q, OctaveCount count, Float lacunarity, const Float* weights, Float sampleRadius,
                Float detailAttenuation, Shape&& shape) const {
    Float sum = 0.0, norm = 0.0, frequency = 1.0, gainWeight = 1.0;
    for (Int k = 0; k <= count.whole; ++k) {
      const Float share = k < count.whole ? 1.0 : count.fraction;
      if (share <= 0.0) break;
      const Float nominal = (weights != nullptr ? weights[k] : gainWeight) * share;
      const Octave octave = MakeOctave(k, frequency, repeat_);
      sum += nominal * DetailFade(octave.frequency, sampleRadius, detailAttenuation) * shape(Gradient(q, octave));
      norm += nominal;
      frequency *= lacunarity;
      gainWeight *= kDefaultGain;
    }
    return norm > 0.0 ? sum / norm : 0.0;
  }

  Vector Warp(const Vector& q) const {
    Vector warp;
    const Octave base = MakeOctave(0, kWarpFrequency, repeat_);
    const Vector shifts[3] = {{5.2, 1.3, 2.8}, {1.7, 9.2, 4.1}, {8.3, 2.8, 6.6}};
    Float* components[3] = {&warp.x, &warp.y, &warp.z};
    for (int i = 0; i < 3; ++i) {
      if (twoD_ && i == 1) continue;
      *components[i] = Gradient(q, {base.frequency, base.period, shifts[i]});
    }
    return q + warp;
  }

  Vector Wave(const Vector& q) const {
    Float cyclesPerUnit = 1.0 / kWavyWavelength;
    if (repeat_ > 0) {
      const Int waves = std::max<Int>(1, FastFloor(static_cast<Float>(repeat_) / kWavyWavelength + 0.5));
      cyclesPerUnit = static_cast<Float>(waves) / static_cast<Float>(repeat_);
    }
    Vector moved = q;
    moved.x += kWavyAmplitude * SineTurns(q.z * cyclesPerUnit);
    moved.z += kWavyAmplitude * SineTurns(q.x * cyclesPerUnit);
    if (!twoD_) moved.y += kWavyAmplitude * SineTurns((q.x + q.z) * cyclesPerUnit);
    return moved;
  }

  Float Swiss(const Vector& q, OctaveCount count, Float sampleRadius, Float detailAttenuation) const {
    Float sum = 0.0, norm = 0.0, amplitude = 1.0, nominal = 1.0, frequency = 1.0;
    Vector slope;
    for (Int k = 0; k <= count.whole; ++k) {
      const Float share = k < count.whole ? 1.0 : count.fraction;
      if (share <= 0.0) break;
      const Octave octave = MakeOctave(k, frequency, repeat_);
      Vector derivative;
      const Float n = Gradient(q + slope * kSwissWarp, octave, &derivative);
      const Float weight = amplitude * share * DetailFade(octave.frequency, sampleRadius, detailAttenuation);
      sum += weight * (1.0 - std::abs(n));
      norm += nominal * share;
      slope += derivative * (-n * weight);
      amplitude *= kDefaultGain * Clamp01(sum);
      nominal *= kDefaultGain;
      frequency *= kDefaultLacunarity;
    }
    return Clamp01(sum / norm);
  }

  Float Eroded(const Vector& q, OctaveCount count, Float sampleRadius, Float detailAttenuation) const {
    Float sum = 0.0, norm = 0.0, weight = 1.0, frequency = 1.0;
    Vector accumulated;
    for (Int k = 0; k <= count.whole; ++k) {
      const Float share = k < count.whole ? 1.0 : count.fraction;
      if (share <= 0.0) break;
      const Octave octave = MakeOctave(k, frequency, repeat_);
      Vector derivative;
      const Float n = Gradient(q, octave, &derivative);
      accumulated += derivative;
      const Float damping = 1.0 / (1.0 + Dot(accumulated, accumulated));
      sum += weight * share * DetailFade(octave.frequency, sampleRadius, detailAttenuation) * n * damping;
      norm += weight * share;
      weight *= kDefaultGain;
      frequency *= kDefaultLacunarity;
    }
    return ToUnit(sum / norm);
  }

  [[nodiscard]] Float Value(const Vector& q) const {
    const Int period = repeat_;
    return twoD_ ? Value2(t_, q.x, q.z, period) : Value3(t_, q.x, q.y, q.z, period);
  }

  [[nodiscard]] Float Cell(const Vector& q) const {
    const Int xi = FastFloor(q.x), yi = FastFloor(q.y), zi = FastFloor(q.z);
    const int hash = twoD_ ? Hash2(t_, Wrap(xi, repeat_), Wrap(zi, repeat_))
                           : Hash3(t_, Wrap(xi, repeat_), Wrap(yi, repeat_), Wrap(zi, repeat_));
    return t_.values[static_cast<std::size_t>(hash)];
  }

  [[nodiscard]] VoronoiDistances Cells(const Vector& q) const { return Voronoi(t_, twoD_, q, repeat_); }

 private:
  const Tables& t_;
  bool twoD_;
  Int32 repeat_;
};

void BuildTables(UInt32 seed, Tables& tables) {
  Random random(seed);
  for (int i = 0; i < 256; ++i) tables.permutation[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
  for (int i = 255; i > 0; --i)
    std::swap(tables.permutation[static_cast<std::size_t>(i)],
              tables.permutation[static_cast<std::size_t>(random.GetInt(0, i))]);
  for (std::size_t i = 0; i < 512; ++i) tables.doubled[i] = tables.permutation[i & 255];
  for (Float& value : tables.values) value = random.Get01() * 2.0 - 1.0;
  for (Vector& feature : tables.features) {
    feature.x = random.Get01();
    feature.y = random.Get01();
    feature.z = random.Get01();
  }
}

const Tables& ScalarTables() {
  static const Tables tables = [] {
    Tables built{};
    BuildTables(0, built);
    return built;
  }();
  return tables;
}

using noise_batch::Finish;
using noise_batch::Kind;
using noise_batch::LaneTables;
using noise_batch::OctavePlan;
using noise_batch::Plan;
using noise_batch::Shape;

void BuildLaneTables(const Tables& tables, LaneTables& lanes) {
  for (std::size_t i = 0; i < 512; ++i) {
    const std::uint8_t hash = tables.doubled[i];
    lanes.permutation[i] = hash;
    lanes.permutationBytes[i] = hash;
    lanes.values[i] = tables.values[hash];
    const Vector& feature = tables.features[hash];
    lanes.featureX[i] = feature.x;
    lanes.featureY[i] = feature.y;
    lanes.featureZ[i] = feature.z;
  }
  lanes.zeroHashIndex = std::find(tables.permutation.begin(), tables.permutation.end(), 0) - tables.permutation.begin();
}

const LaneTables& ScalarLaneTables() {
  static const LaneTables& lanes = *[] {
    static LaneTables built{};
    BuildLaneTables(ScalarTables(), built);
    return &built;
  }();
  return lanes;
}

void AddOctave(Plan& plan, const Octave& octave, Float weight, Float share) {
  OctavePlan& o = plan.octaves[static_cast<std::size_t>(plan.octaveCount++)];
  o.frequency = octave.frequency;
  o.period = static_cast<Float>(octave.period);
  o.inversePeriod = octave.period > 0 ? 1.0 / o.period : 0.0;
  o.offsetX = octave.offset.x;
  o.offsetY = octave.offset.y;
  o.offsetZ = octave.offset.z;
  o.weight = weight;
  o.share = share;
  plan.periodic = octave.period > 0;
  // Lattice coordinates and periods must stay where doubles hold integers exactly.
  const Float largestOffset = std::max({std::abs(o.offsetX), std::abs(o.offsetY), std::abs(o.offsetZ)});
  const Float bound = o.period < noise_batch::kExactLimit && o.frequency > 0.0
                          ? (noise_batch::kExactLimit - largestOffset) / o.frequency
                          : -1.0;
  plan.exactBound = plan.octaveCount == 1 ? bound : std::min(plan.exactBound, bound);
}

// The plan of Evaluator::Fractal.
void AddFractalOctaves(Plan& plan, OctaveCount count, Float lacunarity, const Float* weights, Float sampleRadius,
                       Float detailAttenuation, Int32 repeat) {
  Float norm = 0.0, frequency = 1.0, gainWeight = 1.0;
  for (Int k = 0; k <= count.whole; ++k) {
    const Float share = k < count.whole ? 1.0 : count.fraction;
    if (share <= 0.0) break;
    const Float nominal = (weights != nullptr ? weights[k] : gainWeight) * share;
    const Octave octave = MakeOctave(k, frequency, repeat);
    AddOctave(plan, octave, nominal * DetailFade(octave.frequency, sampleRadius, detailAttenuation), share);
    norm += nominal;
    frequency *= lacunarity;
    gainWeight *= kDefaultGain;
  }
  plan.kind = Kind::FRACTAL;
  plan.norm = norm;
}

// A plan on the noise's own lattice (value and Voronoi noises), with the repeat as period.
Plan LatticePlan(Kind kind, Finish finish, Int32 repeat) {
  Plan plan;
  plan.kind = kind;
  plan.finish = finish;
  plan.periodic = repeat > 0;
  plan.period = static_cast<Float>(std::max(repeat, 0));
  plan.inversePeriod = repeat > 0 ? 1.0 / plan.period : 0.0;
  plan.exactBound = noise_batch::kExactLimit;
  return plan;
}

// Evaluates a plan over a row; the points the SIMD path leaves take `scalar`.
template <class Scalar>
void EvaluateRow(Plan& plan, const LaneTables& lanes, const PointRows& points, Float time, Float* out,
                 Scalar&& scalar) {
  constexpr Int kChunk = 256;
  plan.time = std::isfinite(time) ? time : 0.0;
  std::uint8_t scalarNeeded[kChunk];
  for (Int start = 0; start < points.count; start += kChunk) {
    const Int count = std::min(points.count - start, kChunk);
    if (!noise_batch::Evaluate(plan, lanes, points.x + start, points.y + start, points.z + start,
                               static_cast<std::size_t>(count), out + start, scalarNeeded))
      continue;
    for (Int i = 0; i < count; ++i)
      if (scalarNeeded[i] != 0) {
        const Int k = start + i;
        out[k] = scalar(Vector(points.x[k], points.y[k], points.z[k]));
      }
  }
}

}  // namespace

std::span<const NoiseTypeInfo> NoiseTypes() {
  return kNoiseTypes;
}

const NoiseTypeInfo* FindNoiseType(Int32 type) {
  for (const NoiseTypeInfo& info : kNoiseTypes)
    if (static_cast<Int32>(info.type) == type) return &info;
  return nullptr;
}

NoiseGenerator::~NoiseGenerator() = default;

Result<std::unique_ptr<NoiseGenerator>> NoiseGenerator::Alloc(Int32 seed) {
  std::unique_ptr<NoiseGenerator> generator(new (std::nothrow) NoiseGenerator());
  if (generator == nullptr) return OutOfMemoryError("Could not allocate noise generator!");
  generator->lanes_.reset(new (std::nothrow) LaneTables());
  if (generator->lanes_ == nullptr) return OutOfMemoryError("Could not allocate noise generator!");
  BuildTables(static_cast<UInt32>(seed), generator->tables_);
  BuildLaneTables(generator->tables_, *generator->lanes_);
  generator->seedBits_ = Random(static_cast<UInt32>(seed) ^ 0x5eedU).GetUInt64();
  VLGD_RETURN_IF_ERROR(generator->InitFbm(kMaxOctaves, kDefaultLacunarity, 1.0));
  return generator;
}

Status NoiseGenerator::InitFbm(Int32 maxOctaves, Float lacunarity, Float h) {
  if (maxOctaves < 1 || maxOctaves > kMaxOctaves)
    return IllegalArgumentError("The fBm octave limit must lie in 1 .. " + std::to_string(kMaxOctaves) + "!");
  if (!(lacunarity > 0.0 && lacunarity <= 16.0)) return IllegalArgumentError("The fBm lacunarity must lie in 0 .. 16!");
  if (!std::isfinite(h)) return IllegalArgumentError("The fBm exponent must be finite!");
  Float frequency = 1.0;
  for (Float& weight : fbmWeights_) {
    weight = std::pow(frequency, -h);
    frequency *= lacunarity;
  }
  fbmLacunarity_ = lacunarity;
  fbmMaxOctaves_ = maxOctaves;
  return Ok();
}

Float NoiseGenerator::Noise(Int32 type, bool twoD, const Vector& point, Float time, Float octaves, bool absolute,
                            Float sampleRadius, Float detailAttenuation, Int32 repeat) const {
  const Vector q = PreparePoint(point, time, twoD);
  const Evaluator noise(tables_, twoD, repeat);
  // Counted where used: the single-octave noises should not pay for them.
  const auto count = [octaves] { return CountOctaves(octaves, kMaxOctaves); };
  const auto fbmCount = [this, octaves] { return CountOctaves(octaves, fbmMaxOctaves_); };
  const auto turbulence = [](Float n) { return std::abs(n); };
  const Float r = sampleRadius, a = detailAttenuation;
  Float value = 0.0;
  switch (static_cast<NoiseType>(type)) {
    case NoiseType::VALUE:
      value = ToUnit(noise.Value(q));
      break;
    case NoiseType::BILLOW:
      value = ToUnit(noise.Fractal(q, fbmCount(), fbmLacunarity_, fbmWeights_.data(), r, a,
                                   [](Float n) { return 2.0 * std::abs(n) - 1.0; }));
      break;
    case NoiseType::CELL:
      value = ToUnit(noise.Cell(q));
      break;
    case NoiseType::WARPED_TURBULENCE:
      value = Clamp01(noise.Fractal(noise.Warp(q), count(), kDefaultLacunarity, nullptr, r, a, turbulence));
      break;
    case NoiseType::FBM:
      value = ToUnit(noise.Fractal(q, fbmCount(), fbmLacunarity_, fbmWeights_.data(), r, a, [](Float n) { return n; }));
      break;
    case NoiseType::RIDGED_TURBULENCE:
      value = Clamp01(
          noise.Fractal(q, count(), kDefaultLacunarity, nullptr, r, a, [](Float n) { return 1.0 - std::abs(n); }));
      break;
    case NoiseType::PERLIN:
      value = ToUnit(noise.Gradient(q, MakeOctave(0, 1.0, repeat)));
      break;
    case NoiseType::SWISS:
      value = noise.Swiss(q, count(), r, a);
      break;
    case NoiseType::WHITE:
      value = WhiteNoise(seedBits_, q, std::max(repeat, 0));
      break;
    case NoiseType::ERODED_FBM:
      value = noise.Eroded(q, count(), r, a);
      break;
    case NoiseType::TURBULENCE:
      value = Clamp01(noise.Fractal(q, count(), kDefaultLacunarity, nullptr, r, a, turbulence));
      break;
    case NoiseType::WAVY_TURBULENCE:
      value = Clamp01(noise.Fractal(noise.Wave(q), count(), kDefaultLacunarity, nullptr, r, a, turbulence));
      break;
    case NoiseType::CELLULAR:
      value = ToUnit(tables_.values[static_cast<std::size_t>(noise.Cells(q).nearestHash)]);
      break;
    case NoiseType::VORONOI_F1:
      value = Clamp01(noise.Cells(q).f1);
      break;
    case NoiseType::VORONOI_F2:
      value = Clamp01(noise.Cells(q).f2 * 0.75);
      break;
    case NoiseType::VORONOI_F2_F1: {
      const VoronoiDistances cells = noise.Cells(q);
      value = Clamp01(cells.f2 - cells.f1);
      break;
    }
    case NoiseType::RIDGED_MULTIFRACTAL: {
      const OctaveCount counted = fbmCount();
      Float norm =
          counted.fraction > 0.0 ? fbmWeights_[static_cast<std::size_t>(counted.whole)] * counted.fraction : 0.0;
      for (Int k = 0; k < counted.whole; ++k) norm += fbmWeights_[static_cast<std::size_t>(k)];
      value = Clamp01(RidgedMultifractal(point, time, octaves, 1.0, 1.0, repeat) / norm);
      break;
    }
    default:
      return 0.0;
  }
  return absolute ? std::abs(2.0 * value - 1.0) : value;
}

Float NoiseGenerator::RidgedMultifractal(const Vector& point, Float time, Float octaves, Float offset, Float gain,
                                         Int32 repeat) const {
  const Vector q = PreparePoint(point, time, false);
  const Evaluator noise(tables_, false, repeat);
  const OctaveCount count = CountOctaves(octaves, fbmMaxOctaves_);
  Float frequency = 1.0, weight = 1.0, sum = 0.0;
  for (Int k = 0; k <= count.whole; ++k) {
    const Float share = k < count.whole ? 1.0 : count.fraction;
    if (share <= 0.0) break;
    Float signal = offset - std::abs(noise.Gradient(q, MakeOctave(k, frequency, repeat)));
    signal *= signal * weight;
    sum += signal * fbmWeights_[static_cast<std::size_t>(k)] * share;
    weight = Clamp01(signal * gain);
    frequency *= fbmLacunarity_;
  }
  return sum;
}

void NoiseGenerator::NoiseRow(Int32 type, bool twoD, const PointRows& points, Float time, Float octaves, bool absolute,
                              Float sampleRadius, Float detailAttenuation, Int32 repeat, Float* out) const {
  const auto pointByPoint = [&](const Vector& p) {
    return Noise(type, twoD, p, time, octaves, absolute, sampleRadius, detailAttenuation, repeat);
  };
  const Int32 tiled = std::max(repeat, 0);
  const Float r = sampleRadius, a = detailAttenuation;
  std::optional<Plan> plan;
  switch (static_cast<NoiseType>(type)) {
    case NoiseType::VALUE:
      plan = LatticePlan(Kind::VALUE, Finish::TO_UNIT, tiled);
      break;
    case NoiseType::CELLULAR:
      plan = LatticePlan(Kind::CELLULAR, Finish::TO_UNIT, tiled);
      break;
    case NoiseType::VORONOI_F1:
      plan = LatticePlan(Kind::VORONOI_F1, Finish::CLAMP, tiled);
      break;
    case NoiseType::VORONOI_F2:
      plan = LatticePlan(Kind::VORONOI_F2, Finish::CLAMP, tiled);
      break;
    case NoiseType::VORONOI_F2_F1:
      plan = LatticePlan(Kind::VORONOI_F2_F1, Finish::CLAMP, tiled);
      break;
    case NoiseType::PERLIN:
      plan.emplace();
      AddOctave(*plan, MakeOctave(0, 1.0, repeat), 1.0, 1.0);
      plan->kind = Kind::GRADIENT;
      plan->finish = Finish::TO_UNIT;
      break;
    case NoiseType::FBM:
    case NoiseType::BILLOW:
      plan.emplace();
      AddFractalOctaves(*plan, CountOctaves(octaves, fbmMaxOctaves_), fbmLacunarity_, fbmWeights_.data(), r, a, tiled);
      plan->shape = type == static_cast<Int32>(NoiseType::FBM) ? Shape::SIGNED : Shape::BILLOW;
      plan->finish = Finish::TO_UNIT;
      break;
    case NoiseType::TURBULENCE:
    case NoiseType::RIDGED_TURBULENCE:
      plan.emplace();
      AddFractalOctaves(*plan, CountOctaves(octaves, kMaxOctaves), kDefaultLacunarity, nullptr, r, a, tiled);
      plan->shape = type == static_cast<Int32>(NoiseType::TURBULENCE) ? Shape::ABSOLUTE : Shape::RIDGE;
      plan->finish = Finish::CLAMP;
      break;
    case NoiseType::RIDGED_MULTIFRACTAL: {
      RidgedMultifractalRow(points, time, octaves, 1.0, 1.0, repeat, out);
      const OctaveCount counted = CountOctaves(octaves, fbmMaxOctaves_);
      Float norm =
          counted.fraction > 0.0 ? fbmWeights_[static_cast<std::size_t>(counted.whole)] * counted.fraction : 0.0;
      for (Int k = 0; k < counted.whole; ++k) norm += fbmWeights_[static_cast<std::size_t>(k)];
      for (Int i = 0; i < points.count; ++i) {
        const Float value = Clamp01(out[i] / norm);
        out[i] = absolute ? std::abs(2.0 * value - 1.0) : value;
      }
      return;
    }
    default:
      break;
  }
  if (!plan) {
    for (Int i = 0; i < points.count; ++i) out[i] = pointByPoint(Vector(points.x[i], points.y[i], points.z[i]));
    return;
  }
  plan->twoD = twoD;
  plan->absolute = absolute;
  EvaluateRow(*plan, *lanes_, points, time, out, pointByPoint);
}

void NoiseGenerator::RidgedMultifractalRow(const PointRows& points, Float time, Float octaves, Float offset, Float gain,
                                           Int32 repeat, Float* out) const {
  Plan plan;
  const OctaveCount count = CountOctaves(octaves, fbmMaxOctaves_);
  Float frequency = 1.0;
  for (Int k = 0; k <= count.whole; ++k) {
    const Float share = k < count.whole ? 1.0 : count.fraction;
    if (share <= 0.0) break;
    AddOctave(plan, MakeOctave(k, frequency, repeat), fbmWeights_[static_cast<std::size_t>(k)], share);
    frequency *= fbmLacunarity_;
  }
  plan.kind = Kind::RIDGED;
  plan.ridgedOffset = offset;
  plan.ridgedGain = gain;
  EvaluateRow(plan, *lanes_, points, time, out,
              [&](const Vector& p) { return RidgedMultifractal(p, time, octaves, offset, gain, repeat); });
}

Float ScalarNoise(const Vector& point, Float time) {
  const Vector q = PreparePoint(point, time, false);
  return ToUnit(Gradient3(ScalarTables(), q.x, q.y, q.z, 0, nullptr));
}

void ScalarNoiseRow(const PointRows& points, Float time, Float* out) {
  Plan plan;
  AddOctave(plan, Octave{1.0, 0, Vector()}, 1.0, 1.0);
  plan.kind = Kind::GRADIENT;
  plan.unscaled = true;
  plan.finish = Finish::TO_UNIT;
  EvaluateRow(plan, ScalarLaneTables(), points, time, out, [time](const Vector& p) { return ScalarNoise(p, time); });
}

}  // namespace platform
