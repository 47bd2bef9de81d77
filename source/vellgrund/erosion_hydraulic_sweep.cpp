#include "vellgrund/erosion_hydraulic.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <new>
#include <numbers>
#include <string>
#include <thread>

#include "platform/cancellation.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/progress.h"
#include "platform/random.h"
#include "vellgrund/erosion_hydraulic_internal.h"

// The iteration's sweep: the per-sample physics, the row loops built from it, and the
// bands of rows that run them in parallel.
namespace VLGD::Erosion {
namespace detail {
namespace {

constexpr Float kPipeArea = 1.0;    // A
constexpr Float kPipeLength = 1.0;  // L
constexpr Float kGravity = 9.81;
constexpr Float kFluxGain = kStep * 5e-05 * kGravity;
constexpr Float kCapacity = 25.0;
constexpr Float kDissolving = 0.012;
constexpr Float kDeposition = 0.012;
constexpr Float kShallow = 0.01;  // water shallower than this carries proportionally less
constexpr Float kMinTilt = 0.1;
constexpr Float kEvaporation = 1.0 - 5.5e-05 * kStep;
constexpr Float kDryBelow = 0.005;
constexpr Float kSpike = 0.2;

// Where dX² + dY² is at most this, the tilt sin(acos(2 / sqrt(dX² + dY² + 4))) is below
// 0.0895 and so raised to kMinTilt: the trigonometry can be skipped without changing a bit.
constexpr Float kGentleSlope2 = 0.03;

// Transport runs this many rows behind erosion, so that the sediment of a sample can be
// traced back from one row above to this many rows below without waiting. The flux scale
// keeps the velocities within about one sample per step, so further traces are rare; they
// wait for the end of the sweep.
constexpr Int kTraceLag = 2;
// Rings of row scratch hold four rows, indexed by row & kRingMask.
constexpr Int kRingMask = 3;

// Rows of one band's scratch slot.
constexpr Int kHaloFluxRows = 0;  // 4 halo rows (two above, two below the band) x 4 directions
constexpr Int kVelocityURows = 16;
constexpr Int kVelocityVRows = 20;
constexpr Int kErodedTerrainRows = 24;
constexpr Int kErodedSedimentRows = 28;
constexpr Int kMovedWaterRow = 32;  // the water after the flow, before erosion
constexpr Int kTiltRow = 33;
constexpr Int kMarkRow = 34;
constexpr Int kHaloWaterRow = 35;  // the eroded water of a row beyond the band, unused
constexpr Int kSpeedRow = 36;
constexpr Int kDepthRow = 37;

// The row loops are compiled for the x86-64 baseline, for AVX2 (x86-64-v3) and for AVX-512
// (x86-64-v4), and the best one for the processor is picked at run time: two, four or
// eight samples per instruction. Contraction into FMA is off for this file, so all compute
// the same bits. They stay functions of their own: restrict-qualified parameters are what
// lets them vectorise, and inlined into the sweep they would lose that.
//
// Sanitizer builds keep the baseline only: the run-time choice happens while the program is
// loaded, before the sanitizer runtimes are set up, and their instrumentation of it crashes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VLGD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VLGD_SANITIZED 1
#endif
#endif
#if defined(__x86_64__) && defined(__linux__) && (defined(__GNUC__) || defined(__clang__)) && !defined(VLGD_SANITIZED)
#define VLGD_ROW_LOOP __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define VLGD_ROW_LOOP __attribute__((noinline))
#endif

// ---- Per-sample steps -------------------------------------------------------------------
//
// Each step is a function of values, called with compile-time edge flags from row loops
// whose pointers are restrict-qualified, so that the interior of every row vectorises.
// Choices are selects of values computed unconditionally, not branches.

// One outflow flux: the old one plus the gain times the drop of the water surface, never
// negative.
inline Float Outflow(Float old, Float surface, Float neighbourSurface) {
  return std::max(0.0, old + kFluxGain * (surface - neighbourSurface));
}

struct Flow {
  Float left, right, top, bottom;
};

// The four outflow fluxes of a sample, scaled so that it never sends out more water than it
// holds. A sample with no outflow at all keeps scale 1 instead of dividing by zero.
template <bool kLeft, bool kRight, bool kUp, bool kDown>
inline Flow FluxAt(Float water, Float surface, Float leftSurface, Float rightSurface, Float upSurface,
                   Float downSurface, const Flow& old) {
  const Float left = kLeft ? Outflow(old.left, surface, leftSurface) : 0.0;
  const Float right = kRight ? Outflow(old.right, surface, rightSurface) : 0.0;
  const Float top = kUp ? Outflow(old.top, surface, upSurface) : 0.0;
  const Float bottom = kDown ? Outflow(old.bottom, surface, downSurface) : 0.0;
  const Float sum = left + right + top + bottom;
  const Float ratio = std::min(1.0, water * kPipeArea * kPipeLength / (sum * kStep));
  const Float scale = sum == 0.0 ? 1.0 : ratio;
  return {left * scale, right * scale, top * scale, bottom * scale};
}

// The outflow fluxes of one row from the old ones and the water surfaces of the row and
// its neighbours (the up/down pointers are unused where kUp/kDown say there is no such row).
template <bool kUp, bool kDown>
VLGD_ROW_LOOP void FluxRow(Int width, const Float* __restrict b, const Float* __restrict d, const Float* __restrict bUp,
                           const Float* __restrict dUp, const Float* __restrict bDown, const Float* __restrict dDown,
                           const Float* __restrict oldL, const Float* __restrict oldR, const Float* __restrict oldT,
                           const Float* __restrict oldB, Float* __restrict outL, Float* __restrict outR,
                           Float* __restrict outT, Float* __restrict outB) {
  const auto store = [&](Int x, const Flow& f) {
    outL[x] = f.left;
    outR[x] = f.right;
    outT[x] = f.top;
    outB[x] = f.bottom;
  };
  const auto up = [&](Int x) { return kUp ? bUp[x] + dUp[x] : 0.0; };
  const auto down = [&](Int x) { return kDown ? bDown[x] + dDown[x] : 0.0; };
  const auto old = [&](Int x) { return Flow{oldL[x], oldR[x], oldT[x], oldB[x]}; };
  if (width == 1) {
    store(0, FluxAt<false, false, kUp, kDown>(d[0], b[0] + d[0], 0.0, 0.0, up(0), down(0), old(0)));
    return;
  }
  store(0, FluxAt<false, true, kUp, kDown>(d[0], b[0] + d[0], 0.0, b[1] + d[1], up(0), down(0), old(0)));
  for (Int x = 1; x < width - 1; ++x) {
    const Flow f = FluxAt<true, true, kUp, kDown>(d[x], b[x] + d[x], b[x - 1] + d[x - 1], b[x + 1] + d[x + 1],
                                                  kUp ? bUp[x] + dUp[x] : 0.0, kDown ? bDown[x] + dDown[x] : 0.0,
                                                  Flow{oldL[x], oldR[x], oldT[x], oldB[x]});
    outL[x] = f.left;
    outR[x] = f.right;
    outT[x] = f.top;
    outB[x] = f.bottom;
  }
  const Int last = width - 1;
  store(last, FluxAt<true, false, kUp, kDown>(d[last], b[last] + d[last], b[last - 1] + d[last - 1], 0.0, up(last),
                                              down(last), old(last)));
}

// The rows one flux row is computed from; up/down null where there is no such row.
struct FluxInputs {
  const Float* b;
  const Float* d;
  const Float* bUp;
  const Float* dUp;
  const Float* bDown;
  const Float* dDown;
};

inline FluxInputs RowsAround(const Float* terrain, const Float* water, Int y, Int width, Int height) {
  const Float* b = terrain + y * width;
  const Float* d = water + y * width;
  const bool up = y > 0;
  const bool down = y < height - 1;
  return {
      b, d, up ? b - width : nullptr, up ? d - width : nullptr, down ? b + width : nullptr, down ? d + width : nullptr};
}

inline void FluxRowAt(Int width, const FluxInputs& in, const Float* const old[4], Float* const out[4]) {
#define VLGD_FLUX_ROW(up, down)                                                                             \
  FluxRow<up, down>(width, in.b, in.d, in.bUp, in.dUp, in.bDown, in.dDown, old[FLUX_LEFT], old[FLUX_RIGHT], \
                    old[FLUX_TOP], old[FLUX_BOTTOM], out[FLUX_LEFT], out[FLUX_RIGHT], out[FLUX_TOP], out[FLUX_BOTTOM])
  if (in.bUp != nullptr && in.bDown != nullptr)
    VLGD_FLUX_ROW(true, true);
  else if (in.bUp != nullptr)
    VLGD_FLUX_ROW(true, false);
  else if (in.bDown != nullptr)
    VLGD_FLUX_ROW(false, true);
  else
    VLGD_FLUX_ROW(false, false);
#undef VLGD_FLUX_ROW
}

struct WaterUpdate {
  Float depth, u, v;
};

// The water after the fluxes of the sample and of its neighbours have moved it, and the
// velocities from the mean of the water before and after (0 where both are 0). X divides by
// the pipe length, Y by the cross-section.
inline WaterUpdate WaterAt(Float before, Float fromLeft, Float fromRight, Float fromUp, Float fromDown,
                           const Flow& own) {
  const Float inflow = fromLeft + fromRight + fromUp + fromDown;
  const Float outflow = own.left + own.right + own.top + own.bottom;
  const Float after = std::max(0.0, before + kStep * (inflow - outflow) / (kPipeArea * kPipeLength));
  const Float mean = (before + after) * 0.5;
  const Float u = (fromLeft - own.left + own.right - fromRight) * 0.5 / (mean * kPipeLength);
  const Float v = (fromUp - own.top + own.bottom - fromDown) * 0.5 / (mean * kPipeArea);
  return {after, mean == 0.0 ? 0.0 : u, mean == 0.0 ? 0.0 : v};
}

// The water and velocities of one row from its new fluxes and from what flows in from the
// row above (its bottom flux) and below (its top flux).
template <bool kUp, bool kDown>
VLGD_ROW_LOOP void WaterRow(Int width, const Float* __restrict d1, const Float* __restrict fL,
                            const Float* __restrict fR, const Float* __restrict fT, const Float* __restrict fB,
                            const Float* __restrict fromUp, const Float* __restrict fromDown, Float* __restrict d2,
                            Float* __restrict u, Float* __restrict v) {
  const auto at = [&](Int x, Float fromLeft, Float fromRight) {
    const WaterUpdate w = WaterAt(d1[x], fromLeft, fromRight, kUp ? fromUp[x] : 0.0, kDown ? fromDown[x] : 0.0,
                                  Flow{fL[x], fR[x], fT[x], fB[x]});
    d2[x] = w.depth;
    u[x] = w.u;
    v[x] = w.v;
  };
  if (width == 1) return at(0, 0.0, 0.0);
  at(0, 0.0, fL[1]);
  for (Int x = 1; x < width - 1; ++x) {
    const WaterUpdate w = WaterAt(d1[x], fR[x - 1], fL[x + 1], kUp ? fromUp[x] : 0.0, kDown ? fromDown[x] : 0.0,
                                  Flow{fL[x], fR[x], fT[x], fB[x]});
    d2[x] = w.depth;
    u[x] = w.u;
    v[x] = w.v;
  }
  at(width - 1, fR[width - 2], 0.0);
}

inline void WaterRowAt(Int width, const Float* d1, const Float* const own[4], const Float* fromUp,
                       const Float* fromDown, Float* d2, Float* u, Float* v) {
#define VLGD_WATER_ROW(up, down)                                                                                    \
  WaterRow<up, down>(width, d1, own[FLUX_LEFT], own[FLUX_RIGHT], own[FLUX_TOP], own[FLUX_BOTTOM], fromUp, fromDown, \
                     d2, u, v)
  if (fromUp != nullptr && fromDown != nullptr)
    VLGD_WATER_ROW(true, true);
  else if (fromUp != nullptr)
    VLGD_WATER_ROW(true, false);
  else if (fromDown != nullptr)
    VLGD_WATER_ROW(false, true);
  else
    VLGD_WATER_ROW(false, false);
#undef VLGD_WATER_ROW
}

// sin of the angle between the surface normal (dX, dY, 2) / len and the vertical, never
// below kMinTilt.
Float Tilt(Float slope2) {
  const Float length = std::sqrt(slope2 + 4.0);
  const Float c = length == 0.0 ? 0.0 : 2.0 / length;
  const Float angle = c >= 1.0 ? 0.0 : (c <= -1.0 ? std::numbers::pi : std::acos(c));
  const Float s = std::sin(angle);
  return s < kMinTilt ? kMinTilt : s;
}

// 1 where the tilt can change the capacity speed x Kc x tilt x depth, else 0: not where the
// slope is so gentle that the tilt is kMinTilt anyway, nor where the speed or the depth is
// zero (then the capacity is the same for any finite tilt), except that a NaN slope makes
// the tilt NaN. Products of 0/1 values rather than logic, which the loop could not
// vectorise.
inline Float TiltMark(Float slope2, Float speed, Float depth) {
  const Float steep = slope2 <= kGentleSlope2 ? 0.0 : 1.0;
  const Float moving = (speed != 0.0 ? 1.0 : 0.0) * (depth != 0.0 ? 1.0 : 0.0);
  const Float undefined = slope2 == slope2 ? 0.0 : 1.0;
  return steep * std::max(moving, undefined);
}

struct Eroded {
  Float terrain, water, sediment;
};

// Dissolving where the water can carry more than it does, deposition where it carries too
// much; the water column takes the amount too. Then evaporation with its cut-off.
inline Eroded ErodeAt(Float terrain, Float water, Float sediment, Float speed, Float depth, Float tilt) {
  const Float diff = speed * kCapacity * tilt * depth - sediment;
  const Float amount = diff > 0.0 ? diff * kDissolving : diff * kDeposition;
  const bool changes = (diff > 0.0) | (diff < 0.0);
  const Float wet = std::max(0.0, kEvaporation * (changes ? water + amount : water));
  return {changes ? terrain - amount : terrain, wet < kDryBelow ? 0.0 : wet, changes ? sediment + amount : sediment};
}

inline Float Speed(Float u, Float v) {
  return std::sqrt(u * u + v * v);
}
// Water shallower than kShallow carries proportionally less.
inline Float DepthFactor(Float water) {
  return std::min(water, kShallow) / kShallow;
}

// Erosion, deposition and evaporation of one row. A first pass finds each sample's speed,
// depth factor and whether its tilt matters (`marks`); `tilts` receives kMinTilt, or the
// slope² of marked samples, whose tilt is then computed one by one (the trigonometry does
// not vectorise); a second pass erodes every sample with its tilt. The slope is read from
// the terrain rows up, row and down (clamped by the caller) as they were before the pass.
VLGD_ROW_LOOP void ErodeRow(Int width, const Float* __restrict up, const Float* __restrict row,
                            const Float* __restrict down, const Float* __restrict d2, const Float* __restrict u,
                            const Float* __restrict v, const Float* __restrict sediment, Float* __restrict bOut,
                            Float* __restrict dOut, Float* __restrict sOut, Float* __restrict tilts,
                            Float* __restrict marks, Float* __restrict speeds, Float* __restrict depths) {
  // Whether any sample is marked, as bits: a count would keep the loop from vectorising.
  platform::UInt64 marked = 0;
  // Edge and inner samples differ only in how they find their neighbours along the row.
  const auto prepare = [&](Int x, Float dX) {
    const Float dY = down[x] - up[x];
    const Float slope2 = dX * dX + dY * dY;
    const Float speed = Speed(u[x], v[x]);
    const Float depth = DepthFactor(d2[x]);
    const Float mark = TiltMark(slope2, speed, depth);
    speeds[x] = speed;
    depths[x] = depth;
    tilts[x] = mark != 0.0 ? slope2 : kMinTilt;
    marks[x] = mark;
    return std::bit_cast<platform::UInt64>(mark);
  };
  const Int last = width - 1;
  for (Int x = 0; x < width; x += std::max<Int>(last, 1))  // the two edge samples
    marked |= prepare(x, row[std::min(x + 1, last)] - row[std::max<Int>(x - 1, 0)]);
  for (Int x = 1; x < last; ++x) marked |= prepare(x, row[x + 1] - row[x - 1]);
  if (marked != 0) {
    // The marked columns, listed in place without a branch per sample (mispredicted where
    // marked and unmarked samples mix).
    Int count = 0;
    for (Int x = 0; x < width; ++x) {
      const Float mark = marks[x];
      marks[count] = static_cast<Float>(x);
      count += mark != 0.0 ? 1 : 0;
    }
    for (Int k = 0; k < count; ++k) {
      const auto x = static_cast<Int>(marks[k]);
      tilts[x] = Tilt(tilts[x]);
    }
  }
  for (Int x = 0; x < width; ++x) {
    const Eroded e = ErodeAt(row[x], d2[x], sediment[x], speeds[x], depths[x], tilts[x]);
    bOut[x] = e.terrain;
    dOut[x] = e.water;
    sOut[x] = e.sediment;
  }
}

// Where the sediment of a sample comes from: the four samples around (px, py), clamped,
// and the fractions between them.
struct Trace {
  Int x0, x1, y0, y1;
  Float fx, fy;
};

// A floor()ed coordinate clamped to 0 .. last, still as a Float; NaN gives 0.
inline Float ClampedIndex(Float floored, Float last) {
  return std::min(last, std::max(0.0, floored));
}

inline Trace TraceBack(Float px, Float py, Int width, Int height) {
  const Float floorX = std::floor(px);
  const Float floorY = std::floor(py);
  const auto lastX = static_cast<Float>(width - 1);
  const auto lastY = static_cast<Float>(height - 1);
  return {static_cast<Int>(ClampedIndex(floorX, lastX)),
          static_cast<Int>(ClampedIndex(floorX + 1.0, lastX)),
          static_cast<Int>(ClampedIndex(floorY, lastY)),
          static_cast<Int>(ClampedIndex(floorY + 1.0, lastY)),
          px - floorX,
          py - floorY};
}

inline Float Bilinear(Float s00, Float s10, Float s01, Float s11, Float fx, Float fy) {
  const Float a = s00 + (s10 - s00) * fx;
  const Float b = s01 + (s11 - s01) * fx;
  return a + (b - a) * fy;
}

inline Float Bilinear(const Trace& t, const Float* row0, const Float* row1) {
  return Bilinear(row0[t.x0], row0[t.x1], row1[t.x0], row1[t.x1], t.fx, t.fy);
}

// The sediment transport of row y: each sample takes the blend of the eroded sediment
// around the point it traces back to, read from `ring`, four consecutive rows of the
// eroded sediment indexed by row & kRingMask, of which rows first .. last are ready.
// Samples that trace back outside them are marked in `far` (1, else 0) and get a value
// that the caller replaces; returns whether there are any.
VLGD_ROW_LOOP bool TransportRow(Int width, Int height, Int y, Int first, Int last, const Float* __restrict ring,
                                const Float* __restrict u, const Float* __restrict v, Float* __restrict out,
                                Float* __restrict far) {
  const auto lastColumn = static_cast<Float>(width - 1);
  const auto lastRow = static_cast<Float>(height - 1);
  const auto firstReady = static_cast<Float>(first);
  const auto lastReady = static_cast<Float>(last);
  const auto row = static_cast<Float>(y);
  // 32-bit indices (a ring of four rows of a grid is far below 2^31 samples) convert from
  // Float in vector registers where 64-bit ones do not before AVX-512.
  const auto stride = static_cast<int>(width);
  // Whether any sample is far, as bits: a count would keep the loop from vectorising.
  platform::UInt64 any = 0;
  for (Int x = 0; x < width; ++x) {
    const Float px = static_cast<Float>(x) - kStep * u[x];
    const Float py = row - kStep * v[x];
    const Float floorX = std::floor(px);
    const Float floorY = std::floor(py);
    const Float y0 = ClampedIndex(floorY, lastRow);
    const Float y1 = ClampedIndex(floorY + 1.0, lastRow);
    const bool outside = (y0 < firstReady) | (y1 > lastReady);
    const int r0 = (static_cast<int>(outside ? row : y0) & kRingMask) * stride;
    const int r1 = (static_cast<int>(outside ? row : y1) & kRingMask) * stride;
    const auto c0 = static_cast<int>(ClampedIndex(floorX, lastColumn));
    const auto c1 = static_cast<int>(ClampedIndex(floorX + 1.0, lastColumn));
    out[x] = Bilinear(ring[r0 + c0], ring[r0 + c1], ring[r1 + c0], ring[r1 + c1], px - floorX, py - floorY);
    const Float mark = outside ? 1.0 : 0.0;
    far[x] = mark;
    any |= std::bit_cast<platform::UInt64>(mark);
  }
  return any != 0;
}

// A sample that sticks out of both of its neighbours along an axis by more than the
// threshold on one side becomes the mean of its cross.
inline Float SmoothAt(Float h, Float l, Float r, Float t, Float b) {
  const bool spikeX = ((std::abs(h - l) > kSpike) | (std::abs(h - r) > kSpike)) & ((h - r) * (h - l) > 0.0);
  const bool spikeY = ((std::abs(h - b) > kSpike) | (std::abs(h - t) > kSpike)) & ((h - t) * (h - b) > 0.0);
  const Float mean = (l + h + r + b + t) / 5.0;
  return spikeX | spikeY ? mean : h;
}

VLGD_ROW_LOOP void SmoothRow(Int width, const Float* __restrict up, const Float* __restrict row,
                             const Float* __restrict down, Float* __restrict out) {
  const Int last = width - 1;
  out[0] = SmoothAt(row[0], row[0], row[std::min<Int>(1, last)], up[0], down[0]);
  for (Int x = 1; x < last; ++x) out[x] = SmoothAt(row[x], row[x - 1], row[x + 1], up[x], down[x]);
  if (last > 0) out[last] = SmoothAt(row[last], row[last - 1], row[last], up[last], down[last]);
}

}  // namespace

// One band of rows [r0, r1) of an iteration, pipelined row by row: at step j the fluxes of
// row j, the water, velocity and erosion of row j - 1, the smoothing of row j - 2 and the
// transport of row j - 1 - kTraceLag. Intermediate rows live in rings of scratch rows, so
// the band also computes the fluxes of the two rows and the erosion of the row beyond each
// of its edges, without writing them out: their owners do.
class BandSweep {
 public:
  BandSweep(HydraulicSimulation& sim, Float* scratch)
      : sim_(sim), width_(sim.width_), height_(sim.height_), scratch_(scratch) {
    const int next = sim.current_ ^ 1;
    terrain_ = sim.terrain_[sim.current_].data();
    water_ = sim.water_[sim.current_].data();
    sediment_ = sim.sediment_[sim.current_].data();
    terrainNext_ = sim.terrain_[next].data();
    waterNext_ = sim.water_[next].data();
    sedimentNext_ = sim.sediment_[next].data();
    for (int k = 0; k < 4; ++k) {
      flux_[k] = sim.flux_[sim.current_][k].data();
      fluxNext_[k] = sim.flux_[next][k].data();
    }
  }

  void Run(Int r0, Int r1) {
    r0_ = r0;
    r1_ = r1;
    const Int fluxLast = std::min(height_ - 1, r1 + 1);
    erodedFirst_ = std::max<Int>(0, r0 - 1);
    const Int erodedLast = std::min(height_ - 1, r1);
    for (Int j = std::max<Int>(0, r0 - 2); j <= r1 + kTraceLag; ++j) {
      if (j <= fluxLast) Flux(j);
      if (j - 1 >= erodedFirst_ && j - 1 <= erodedLast) WaterAndErosion(j - 1);
      if (j - 2 >= r0 && j - 2 < r1) Smooth(j - 2);
      const Int t = j - 1 - kTraceLag;
      if (t >= r0 && t < r1) Transport(t, std::min(j - 1, erodedLast));
    }
  }

  // After the sweep: the sediment of the samples of row y that were left waiting. The
  // eroded sediment they trace back to is computed again, from the state before the
  // iteration and the new fluxes, with the same row steps, so it has the same bits; the
  // ring keeps the last four rows so computed.
  void FetchDeferred(Int y) {
    Int ready[4] = {-1, -1, -1, -1};
    const auto eroded = [&](Int row) {
      Float* out = ErodedSedimentRow(row);
      if (ready[row & kRingMask] != row) {
        ErodeAgain(row, out);
        ready[row & kRingMask] = row;
      }
      return out;
    };
    Float* next = sedimentNext_ + y * width_;
    const Float* entry = sim_.deferred_.data() + y * width_ * 3;
    for (Int k = 0; k < sim_.deferredCount_[static_cast<std::size_t>(y)]; ++k, entry += 3) {
      const Trace t = TraceBack(entry[1], entry[2], width_, height_);
      const Float* row0 = eroded(t.y0);
      next[static_cast<Int>(entry[0])] = Bilinear(t, row0, eroded(t.y1));
    }
  }

 private:
  void ErodeAgain(Int y, Float* sediment) const {
    const Float* own[4];
    for (int k = 0; k < 4; ++k) own[k] = fluxNext_[k] + y * width_;
    const Float* fromUp = y > 0 ? fluxNext_[FLUX_BOTTOM] + (y - 1) * width_ : nullptr;
    const Float* fromDown = y < height_ - 1 ? fluxNext_[FLUX_TOP] + (y + 1) * width_ : nullptr;
    Float* moved = ScratchRow(kMovedWaterRow);
    Float* u = VelocityURow(0);
    Float* v = VelocityVRow(0);
    WaterRowAt(width_, water_ + y * width_, own, fromUp, fromDown, moved, u, v);
    const Float* row = terrain_ + y * width_;
    ErodeRow(width_, y > 0 ? row - width_ : row, row, y < height_ - 1 ? row + width_ : row, moved, u, v,
             sediment_ + y * width_, ErodedTerrainRow(0), ScratchRow(kHaloWaterRow), sediment, ScratchRow(kTiltRow),
             ScratchRow(kMarkRow), ScratchRow(kSpeedRow), ScratchRow(kDepthRow));
  }

  [[nodiscard]] bool Own(Int y) const { return y >= r0_ && y < r1_; }
  [[nodiscard]] Float* ScratchRow(Int index) const { return scratch_ + index * width_; }

  [[nodiscard]] Float* FluxRowOf(int direction, Int y) const {
    if (Own(y)) return fluxNext_[direction] + y * width_;
    const Int halo = y < r0_ ? y - (r0_ - 2) : 2 + (y - r1_);
    return ScratchRow(kHaloFluxRows + halo * 4 + direction);
  }
  [[nodiscard]] Float* ErodedSedimentRow(Int y) const { return ScratchRow(kErodedSedimentRows + (y & kRingMask)); }
  [[nodiscard]] Float* ErodedTerrainRow(Int y) const { return ScratchRow(kErodedTerrainRows + (y & kRingMask)); }
  [[nodiscard]] Float* VelocityURow(Int y) const { return ScratchRow(kVelocityURows + (y & kRingMask)); }
  [[nodiscard]] Float* VelocityVRow(Int y) const { return ScratchRow(kVelocityVRows + (y & kRingMask)); }

  void Flux(Int y) const {
    const Float* old[4];
    Float* out[4];
    for (int k = 0; k < 4; ++k) {
      old[k] = flux_[k] + y * width_;
      out[k] = FluxRowOf(k, y);
    }
    FluxRowAt(width_, RowsAround(terrain_, water_, y, width_, height_), old, out);
  }

  void WaterAndErosion(Int y) const {
    const Float* own[4];
    for (int k = 0; k < 4; ++k) own[k] = FluxRowOf(k, y);
    const Float* fromUp = y > 0 ? FluxRowOf(FLUX_BOTTOM, y - 1) : nullptr;
    const Float* fromDown = y < height_ - 1 ? FluxRowOf(FLUX_TOP, y + 1) : nullptr;
    Float* moved = ScratchRow(kMovedWaterRow);
    Float* u = VelocityURow(y);
    Float* v = VelocityVRow(y);
    WaterRowAt(width_, water_ + y * width_, own, fromUp, fromDown, moved, u, v);
    const Float* row = terrain_ + y * width_;
    ErodeRow(width_, y > 0 ? row - width_ : row, row, y < height_ - 1 ? row + width_ : row, moved, u, v,
             sediment_ + y * width_, ErodedTerrainRow(y), Own(y) ? waterNext_ + y * width_ : ScratchRow(kHaloWaterRow),
             ErodedSedimentRow(y), ScratchRow(kTiltRow), ScratchRow(kMarkRow), ScratchRow(kSpeedRow),
             ScratchRow(kDepthRow));
  }

  void Smooth(Int y) const {
    SmoothRow(width_, ErodedTerrainRow(std::max<Int>(y - 1, 0)), ErodedTerrainRow(y),
              ErodedTerrainRow(std::min(y + 1, height_ - 1)), terrainNext_ + y * width_);
  }

  // The eroded sediment of rows max(y - 1, erodedFirst_) .. erodedLast is in the ring by now;
  // samples that trace back outside them wait in the row's deferred list.
  void Transport(Int y, Int erodedLast) const {
    const Float* u = VelocityURow(y);
    const Float* v = VelocityVRow(y);
    Float* far = ScratchRow(kMarkRow);
    Int count = 0;
    if (TransportRow(width_, height_, y, std::max(y - 1, erodedFirst_), erodedLast, ScratchRow(kErodedSedimentRows), u,
                     v, sedimentNext_ + y * width_, far)) {
      Float* deferred = sim_.deferred_.data() + y * width_ * 3;
      for (Int x = 0; x < width_; ++x) {
        if (far[x] == 0.0) continue;
        deferred[count * 3] = static_cast<Float>(x);
        deferred[count * 3 + 1] = static_cast<Float>(x) - kStep * u[x];
        deferred[count * 3 + 2] = static_cast<Float>(y) - kStep * v[x];
        ++count;
      }
    }
    sim_.deferredCount_[static_cast<std::size_t>(y)] = count;
  }

  HydraulicSimulation& sim_;
  Int width_;
  Int height_;
  Float* scratch_;
  const Float* terrain_ = nullptr;
  const Float* water_ = nullptr;
  const Float* sediment_ = nullptr;
  const Float* flux_[4] = {};
  Float* terrainNext_ = nullptr;
  Float* waterNext_ = nullptr;
  Float* sedimentNext_ = nullptr;
  Float* fluxNext_[4] = {};
  Int r0_ = 0;
  Int r1_ = 0;
  Int erodedFirst_ = 0;
};

Status HydraulicSimulation::Sweep() {
  platform::ParallelOptions options;
  options.granularity = 16;
  return platform::ParallelForRange(0, height_, options, [this](Int c0, Int c1) {
    const ScratchPool::Lease scratch = scratch_.Claim();
    BandSweep band(*this, scratch.Data());
    const Int step = bandLimit_ > 0 ? bandLimit_ : c1 - c0;
    for (Int r0 = c0; r0 < c1; r0 += step) band.Run(r0, std::min(c1, r0 + step));
  });
}

Status HydraulicSimulation::FetchDeferred() {
  deferredSamples_ = 0;
  for (const Int count : deferredCount_) deferredSamples_ += count;
  if (deferredSamples_ == 0) return platform::Ok();
  platform::ParallelOptions options;
  options.granularity = 16;
  return platform::ParallelForRange(0, height_, options, [this](Int y0, Int y1) {
    const ScratchPool::Lease scratch = scratch_.Claim();
    BandSweep band(*this, scratch.Data());
    for (Int y = y0; y < y1; ++y)
      if (deferredCount_[static_cast<std::size_t>(y)] > 0) band.FetchDeferred(y);
  });
}

void FlowStep(Int width, Int height, const Float* terrain, const Float* water, const Float* const fluxes[4],
              Float* newWater, Float* const newFluxes[4], Float* u, Float* v) {
  for (Int y = 0; y < height; ++y) {
    const Float* old[4];
    Float* out[4];
    for (int k = 0; k < 4; ++k) {
      old[k] = fluxes[k] + y * width;
      out[k] = newFluxes[k] + y * width;
    }
    FluxRowAt(width, RowsAround(terrain, water, y, width, height), old, out);
  }
  for (Int y = 0; y < height; ++y) {
    const Float* own[4];
    for (int k = 0; k < 4; ++k) own[k] = newFluxes[k] + y * width;
    const Float* fromUp = y > 0 ? newFluxes[FLUX_BOTTOM] + (y - 1) * width : nullptr;
    const Float* fromDown = y < height - 1 ? newFluxes[FLUX_TOP] + (y + 1) * width : nullptr;
    WaterRowAt(width, water + y * width, own, fromUp, fromDown, newWater + y * width, u + y * width, v + y * width);
  }
}
}  // namespace detail
}  // namespace VLGD::Erosion
