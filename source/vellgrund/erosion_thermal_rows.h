#pragma once

// What the thermal weathering's driver and its per-target row kernels share: the neighbour
// lists and the description of one row's work.

#include <array>
#include <cstdint>

#include "platform/types.h"

namespace VLGD::Erosion::thermal {

using platform::Float;
using platform::Int;

struct Offset {
  int dx;
  int dy;
};

// The neighbour lists in their listing order, which decides ties of the lowest neighbour.
struct Eight {
  static constexpr int kCount = 8;
  static constexpr Offset kOffsets[kCount] = {{0, -1}, {1, -1}, {-1, -1}, {0, 1}, {1, 1}, {-1, 1}, {-1, 0}, {1, 0}};
};
struct Four {
  static constexpr int kCount = 4;
  static constexpr Offset kOffsets[kCount] = {{0, -1}, {1, 0}, {0, 1}, {-1, 0}};
};

// For each listing index, the index of the offset pointing back: the neighbour listed under
// k lists this sample under kBack[k].
template <class Family>
constexpr auto kBack = [] {
  std::array<int, Family::kCount> back{};
  for (int k = 0; k < Family::kCount; ++k)
    for (int j = 0; j < Family::kCount; ++j)
      if (Family::kOffsets[j].dx == -Family::kOffsets[k].dx && Family::kOffsets[j].dy == -Family::kOffsets[k].dy)
        back[static_cast<std::size_t>(k)] = j;
  return back;
}();

// The receiver code of a sample that sends nothing; otherwise the code is the listing index
// of its receiver, kept as a Float so that the gather compares it in the lanes of the heights.
constexpr Float kNoSlide = -1.0;

// The two halves of a pass, per neighbourhood mode, and the smoothing.
enum class Kernel : int {
  kSpreadOutEight,  // all lower: the sample's loss and its share factor
  kSpreadInEight,   // all lower: what the higher neighbours send
  kSpreadOutFour,
  kSpreadInFour,
  kSlideOutEight,  // lowest: the sample's loss, amount and receiver
  kSlideInEight,   // lowest: the amounts of the neighbours whose receiver it is
  kSlideOutFour,
  kSlideInFour,
  kSmooth,  // 0.2 x (left + sample + right + below + above) of the `source` rows into `target`
};

// One row y of one kernel. Row arrays hold rows y - 1, y, y + 1 ([0] above, [2] below);
// those outside the grid are never read.
struct RowJob {
  const Float* source[3];  // the heights at the start of the pass
  const Float* share[3];   // what each sample sends: the factor (all lower) or the amount (lowest)
  const Float* code[3];    // the receiver codes (lowest)
  Float* kept;             // out: the heights after the losses; in: read back
  Float* shareOut;
  Float* codeOut;
  Float* target;  // the heights after the gains
  Float talus;
  Float intensity;
  Float deposit;
};

// The inner columns begin .. end - 1 of a row whose neighbour lists are whole there, in whole
// vectors from `begin` on; returns the first column not done.
Int InnerColumns(Kernel kernel, const RowJob& job, Int begin, Int end);

}  // namespace VLGD::Erosion::thermal
