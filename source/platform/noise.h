#pragma once

#include <array>
#include <memory>
#include <span>
#include <string_view>

#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

namespace noise_batch {
struct LaneTables;
}

// A row of points in structure-of-arrays form: point i is (x[i], y[i], z[i]).
struct PointRows {
  const Float* x;
  const Float* y;
  const Float* z;
  Int count;
};

// Noise types by their stored number; scenes keep these numbers, so they never change.
enum class NoiseType : Int32 {
  VALUE = 1,                 // smooth value noise
  BILLOW = 3,                // fBm of folded gradient noise, with the fBm set-up
  CELL = 4,                  // one random height per lattice cell
  WARPED_TURBULENCE = 7,     // turbulence of a domain-warped point
  FBM = 8,                   // fractional Brownian motion, with the fBm set-up
  RIDGED_TURBULENCE = 12,    // turbulence of 1 - |n| ridges
  PERLIN = 13,               // one octave of gradient noise
  SWISS = 14,                // fBm whose octaves are damped by the accumulated slope
  WHITE = 18,                // a hash per point
  ERODED_FBM = 20,           // fBm damped by the accumulated derivative
  TURBULENCE = 21,           // sum of |n| octaves
  WAVY_TURBULENCE = 23,      // turbulence with sine-warped coordinates
  CELLULAR = 24,             // Voronoi cells, one random height per cell
  VORONOI_F1 = 27,           // distance to the nearest feature point
  VORONOI_F2 = 28,           // distance to the second nearest
  VORONOI_F2_F1 = 29,        // their difference
  RIDGED_MULTIFRACTAL = 64,  // ridged multifractal; see RidgedMultifractal
};

struct NoiseTypeInfo {
  NoiseType type;
  std::string_view name;
  bool usesOctaves;
};

// Every noise type, in the order of their numbers.
std::span<const NoiseTypeInfo> NoiseTypes();
// Nullptr for a number that is no noise type.
const NoiseTypeInfo* FindNoiseType(Int32 type);

// A seeded family of noises. Set-up (Alloc, InitFbm) is single-threaded; afterwards every
// evaluation is const, allocation-free and safe from any number of threads. The
// algorithms and tables are fixed and use no library transcendental per sample, so a seed
// gives bit-identical values on every machine and in every release.
//
// Conventions shared by the noises:
// - Lattice: features are one unit apart at the first octave; octave k is sampled at the
//   lacunarity to the power k, shifted by a fixed offset so octaves do not align at the
//   origin.
// - twoD: the noise is evaluated on the horizontal plane (x, z); y shifts the plane point
//   along the fixed oblique direction (1, 0.618034) as an extra phase, so a constant y is a
//   different but equally smooth slice. The 3-D noises use all three components.
// - time moves the point: along the phase direction in 2-D, along (1, 1, 1) in 3-D.
// - repeat > 0 makes the noise periodic with period `repeat` on every axis: the lattice
//   wraps, and each octave's frequency is rounded to a whole number of cells per period
//   (at least one), so a tiling terrain stays seamless at every octave.
// - octaves are clamped to 1 .. the octave limit; a fractional part weights the last
//   octave.
// - sampleRadius and detailAttenuation fade octaves finer than the sample spacing: with
//   wavelength w = 1 / frequency and r = sampleRadius, an octave is weighted by
//   1 - detailAttenuation * s, where s = smoothstep((2r - w) / r) is 0 for w >= 2r and 1
//   for w <= r. Sums are divided by the unfaded weights, so fading lowers fine detail
//   instead of redistributing it. sampleRadius <= 0 fades nothing; detailAttenuation is
//   clamped to 0 .. 1.
// - absolute folds the value around its middle: |2v - 1|.
class NoiseGenerator {
 public:
  static constexpr Int32 kMaxOctaves = 32;

  // A generator whose tables are shuffled from `seed`.
  static Result<std::unique_ptr<NoiseGenerator>> Alloc(Int32 seed);

  // The fBm set-up of BILLOW, FBM and RIDGED_MULTIFRACTAL: octave k is weighted by
  // lacunarity^(-h k) and sampled at lacunarity^k; at most maxOctaves octaves are summed.
  // Refuses maxOctaves outside 1 .. kMaxOctaves, a lacunarity outside 0 .. 16 (0
  // excluded; larger ones would outrun the lattice), or an h that is not finite. The default is (kMaxOctaves, 2, 1).
  Status InitFbm(Int32 maxOctaves, Float lacunarity, Float h);

  // The noise value in 0 .. 1; 0 for a number that is no noise type (FindNoiseType tells).
  [[nodiscard]] Float Noise(Int32 type, bool twoD, const Vector& point, Float time, Float octaves, bool absolute,
                            Float sampleRadius, Float detailAttenuation, Int32 repeat) const;

  // Ridged multifractal 3-D noise with the fBm set-up: each octave's signal is
  // (offset - |n|)^2, weighted by the previous signal x gain clamped to 0 .. 1. Not
  // normalised: the value lies in 0 .. offset^2 times the sum of the fBm weights.
  [[nodiscard]] Float RidgedMultifractal(const Vector& point, Float time, Float octaves, Float offset, Float gain,
                                         Int32 repeat) const;

  // Noise() and RidgedMultifractal() of every point of a row into out[0 .. count), the same
  // bits as point by point, several points per instruction on the machine's best SIMD
  // target (WARPED_TURBULENCE, WAVY_TURBULENCE, SWISS, ERODED_FBM, WHITE and CELL go point
  // by point). Allocation-free; scratch lives on the stack.
  void NoiseRow(Int32 type, bool twoD, const PointRows& points, Float time, Float octaves, bool absolute,
                Float sampleRadius, Float detailAttenuation, Int32 repeat, Float* out) const;
  void RidgedMultifractalRow(const PointRows& points, Float time, Float octaves, Float offset, Float gain, Int32 repeat,
                             Float* out) const;

  struct Tables {
    std::array<std::uint8_t, 256> permutation;
    std::array<std::uint8_t, 512> doubled;  // the permutation twice
    std::array<Float, 256> values;          // -1 .. 1
    std::array<Vector, 256> features;       // 0 .. 1 on each axis
  };

  ~NoiseGenerator();
  NoiseGenerator(const NoiseGenerator&) = delete;
  NoiseGenerator& operator=(const NoiseGenerator&) = delete;

 private:
  NoiseGenerator() = default;

  Tables tables_{};
  std::unique_ptr<noise_batch::LaneTables> lanes_;  // tables_ laid out for the SIMD rows
  UInt64 seedBits_ = 0;                             // mixed into WHITE
  std::array<Float, kMaxOctaves> fbmWeights_{};
  Float fbmLacunarity_ = 2.0;
  Int32 fbmMaxOctaves_ = kMaxOctaves;
};

// A fixed, unseeded 3-D noise of a point and a time in 0 .. 1, for distortions.
Float ScalarNoise(const Vector& point, Float time);
// ScalarNoise of every point of a row, as NoiseGenerator::NoiseRow.
void ScalarNoiseRow(const PointRows& points, Float time, Float* out);

}  // namespace platform
