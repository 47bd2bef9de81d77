#pragma once

#include <algorithm>

#include "platform/types.h"

// The inner loops of the separable filters, compiled for every SIMD target and dispatched to
// the machine's best; convolution.cpp drives them (parallel loops, restarts, breaks). Each
// lane computes one column or one row with the scalar loop's operations in the scalar loop's
// order, and no multiply is fused with an add, so every target gives the same bits.
namespace VLGD::Convolution::Rows {

using platform::Float;
using platform::Int;

// The rows one call along the rows handles, and the most lanes it puts side by side.
constexpr Int kGroupRows = 4;

// The window of the clamped sequence around c: the direct indices lo .. hi, plus the
// indices before 0 (each reading index 0) and past count - 1 (reading count - 1).
struct BoxWindow {
  Int lo;
  Int hi;
  Float below;
  Float above;
};

inline BoxWindow BoxWindowAt(Int c, Int half, Int count) {
  return {std::max<Int>(0, c - half), std::min<Int>(count - 1, c + half),
          static_cast<Float>(std::max<Int>(0, half - c)), static_cast<Float>(std::max<Int>(0, c + half - (count - 1)))};
}

// The ramp kernel v[k] = a + delta k (k = |offset| = 0 .. half) as a box and a tent:
// v[k] = A - delta (half + 1 - k) with A = a + delta (half + 1), so the window at c is
// A S(c) - delta T(c), S the sum of the 2 half + 1 samples and T the tent sum with weights
// half + 1 - |k|. With F(j) = x[j + 1] + ... + x[j + half + 1] (a sliding sum):
//   T(c) = F(c - half - 1) + ... + F(c - 1),  T(c + 1) = T(c) + F(c) - F(c - half - 1),
//   S(c) = F(c - half - 1) + F(c) - x[c + half + 1].
// The last half + 1 values of F are kept in a ring, so that T takes back exactly the value
// it added: rounding then grows with the number of steps, not with its square.
struct Ramp {
  Int half;
  Float a;
  Float delta;
  Float w;
};

// out[x] = 0 + weights[0] rows[0][x] + ... + weights[count - 1] rows[count - 1][x], added in
// this order.
void WeightedRows(Float* out, const Float* const* rows, const Float* weights, Int count, Int width);

// out[x] = centre x centreRow[x] + weights[0] padded[x] + ... + weights[count - 1]
// padded[x + count - 1], added in this order. Streamed stores bypass the cache: for outputs
// larger than it, they save reading each line before writing it.
void WeightedShifts(Float* out, const Float* centreRow, Float centre, const Float* padded, const Float* weights,
                    Int count, Int width, bool streamed);

// The box blur's vertical sums restarted at row y0: sums[x] = 0 + the samples of column x in
// rows lo .. hi of the clamped window, in order, + (below x row 0 + above x the last row).
void BoxColumnSums(const Float* src, Int width, Int height, Int y0, Int half, Float* sums);

// Slides the same sums past rows y .. y + rows - 1 without writing them.
void BoxAdvance(const Float* src, Int width, Int height, Int y, Int rows, Int half, Float* sums);

// Rows y .. y + rows - 1 (rows <= kGroupRows) of the box blur into dst, both passes: the
// vertical one slides `sums` down the rows (they leave holding the sums of row y + rows), the
// horizontal one restarts every `period` columns. buffer holds width x kGroupRows doubles of
// undefined contents. src and dst must not overlap.
void BoxRows(const Float* src, Float* dst, Int width, Int height, Int y, Int rows, Int half, Float w, Int period,
             Float* sums, Float* buffer);

// The vertical ramp over columns x0 .. x0 + count - 1, restarted at row y0: state holds
// (half + 3) x count doubles, the ring of forward sums, the forward sum and the tent sum.
void RampColumnsStart(const Float* src, Int width, Int height, Int y0, Int x0, Int count, const Ramp& ramp,
                      Float* state);
// Row y of the same, the ring's oldest entry being `oldest`.
void RampColumnsRow(const Float* src, Float* dst, Int width, Int height, Int y, Int x0, Int count, const Ramp& ramp,
                    Float* state, Int oldest);

// Rows 0 .. rows - 1 (rows <= kGroupRows) of src along the rows into the same rows of dst,
// restarting every `period` columns; src and dst may be the same rows. buffer holds width x
// kGroupRows doubles, ring (half + 1) x kGroupRows, both of undefined contents.
void RampRows(const Float* src, Float* dst, Int width, Int rows, const Ramp& ramp, Int period, Float* ring,
              Float* buffer);

}  // namespace VLGD::Convolution::Rows
