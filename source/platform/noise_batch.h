#pragma once

// What the SIMD noise kernels (noise_batch.cpp) share with the scalar library (noise.cpp):
// per-generator tables laid out for gathers, and the plan of one row's evaluation, whose
// per-octave constants the scalar side works out once so that both compute them alike.

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/types.h"

namespace platform::noise_batch {

// The tables of a generator by "corner index": the index into the doubled permutation
// whose entry is the final hash of a lattice corner. Looking the hash's data up directly
// saves one dependent gather per corner.
struct LaneTables {
  alignas(64) std::array<std::int64_t, 512> permutation;  // the doubled permutation
  // The same as bytes, for the gradient noises: they hash lane by lane (scalar loads beat
  // gathers there) and derive the gradient from the hash's bits.
  alignas(64) std::array<std::uint8_t, 512> permutationBytes;
  alignas(64) std::array<Float, 512> values;
  alignas(64) std::array<Float, 512> featureX, featureY, featureZ;
  // The corner index whose hash is 0: the nearest cell of a Voronoi search that found none.
  std::int64_t zeroHashIndex;
};

enum class Kind : std::uint8_t {
  GRADIENT,  // one octave of gradient noise, in -1 .. 1
  FRACTAL,   // weighted mean of shaped gradient octaves
  RIDGED,    // ridged multifractal sum
  VALUE,
  CELLULAR,  // the nearest cell's value
  VORONOI_F1,
  VORONOI_F2,
  VORONOI_F2_F1,
};

// What a fractal sums of each octave's noise n.
enum class Shape : std::uint8_t { SIGNED, BILLOW, ABSOLUTE, RIDGE };

// How a kernel's raw result becomes the output.
enum class Finish : std::uint8_t {
  RAW,      // as it is
  TO_UNIT,  // 0.5 + 0.5 v clamped to 0 .. 1
  CLAMP,    // clamped to 0 .. 1
};

struct OctavePlan {
  Float frequency;
  Float period;  // 0 without a period
  Float inversePeriod;
  Float offsetX, offsetY, offsetZ;
  Float weight;  // FRACTAL: nominal weight x detail fade; RIDGED: the fBm weight
  Float share;   // RIDGED: the share of a partial last octave
};

struct Plan {
  Kind kind = Kind::GRADIENT;
  Shape shape = Shape::SIGNED;
  Finish finish = Finish::RAW;
  bool twoD = false;
  bool periodic = false;
  bool absolute = false;
  Float time = 0.0;  // finite
  // GRADIENT reads the point itself, not scaled and shifted to its octave.
  bool unscaled = false;
  int octaveCount = 0;
  Float norm = 1.0;    // FRACTAL: the sum of the nominal weights (0 gives 0)
  Float period = 0.0;  // VALUE and the Voronoi kinds
  Float inversePeriod = 0.0;
  Float ridgedOffset = 1.0, ridgedGain = 1.0;
  // The largest |coordinate| whose octaves keep their lattice coordinates below kExactLimit;
  // points with larger ones take the scalar path.
  Float exactBound = 0.0;
  std::array<OctavePlan, 32> octaves{};
};

// Coordinates beyond this are folded back (far-away noise stays noise), so that lattice
// indices at the finest octave still fit 64 bits.
inline constexpr Float kCoordinateLimit = 16777216.0;
// The 2-D noises read the plane point moved along this direction by y and time.
inline constexpr Float kPhaseX = 1.0;
inline constexpr Float kPhaseZ = 0.6180339887498949;
// Lattice coordinates below this magnitude are handled with exact double arithmetic.
inline constexpr Float kExactLimit = 1125899906842624.0;  // 2^50

// Evaluates the plan at count points (x, y, z) into out, on the best SIMD target. Points
// that need folding back or lie beyond exactBound are left to the caller: their flags in
// scalarNeeded (count of them) are set, and the result tells whether there were any.
bool Evaluate(const Plan& plan, const LaneTables& tables, const Float* x, const Float* y, const Float* z,
              std::size_t count, Float* out, std::uint8_t* scalarNeeded);

}  // namespace platform::noise_batch
