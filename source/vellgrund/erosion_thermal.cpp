#include "vellgrund/erosion_thermal.h"

#include <algorithm>
#include <array>
#include <string>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/progress.h"

namespace VLGD::Erosion {
namespace {

using platform::ParallelOptions;

constexpr Int kGranularity = 16;

constexpr const char* kZeroIterations = "Intensity and iterations must not be 0!";
constexpr const char* kCancelled = "Thermal Weathering cancelled!";

struct Offset {
  Int dx;
  Int dy;
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
  std::array<std::int8_t, Family::kCount> back{};
  for (int k = 0; k < Family::kCount; ++k)
    for (int j = 0; j < Family::kCount; ++j)
      if (Family::kOffsets[j].dx == -Family::kOffsets[k].dx && Family::kOffsets[j].dy == -Family::kOffsets[k].dy)
        back[static_cast<std::size_t>(k)] = static_cast<std::int8_t>(j);
  return back;
}();

constexpr std::int8_t kNoSlide = -1;

// One pass's inputs and working buffers; the pointers stay valid for the whole call.
struct Pass {
  const Float* source;  // the grid at the start of the pass
  Float* target;        // the grid after the pass
  Float* share;         // per sample: the slide factor (all lower) or the slid amount (lowest)
  std::int8_t* lowest;  // per sample: listing index of the receiving neighbour, or kNoSlide
  Int width;
  Int height;
  Float talus;
  Float intensity;
  Float deposit;
  Int step[8];  // index distance of each listed neighbour
};

template <class Family>
void SetSteps(Pass& pass) {
  for (int k = 0; k < Family::kCount; ++k) pass.step[k] = Family::kOffsets[k].dy * pass.width + Family::kOffsets[k].dx;
}

template <class Family, bool kBorder>
inline bool Listed(const Pass& pass, Int x, Int y, int k) {
  if constexpr (!kBorder) {
    return true;
  } else {
    const Int nx = x + Family::kOffsets[k].dx;
    const Int ny = y + Family::kOffsets[k].dy;
    return nx >= 0 && nx < pass.width && ny >= 0 && ny < pass.height;
  }
}

// Visits the samples i0 .. i1-1 row by row, telling border samples (whose neighbour lists
// are cut) from inner ones, so that inner samples skip the bounds tests.
template <class Visit>
void ForEachSample(Int i0, Int i1, Int width, Int height, Visit&& visit) {
  Int y = i0 / width;
  Int x = i0 - y * width;
  Int i = i0;
  while (i < i1) {
    const Int xEnd = x + (std::min(i1, (y + 1) * width) - i);
    if (y == 0 || y == height - 1) {
      for (; x < xEnd; ++x, ++i) visit(i, x, y, std::true_type{});
    } else {
      if (x == 0) {
        visit(i, x, y, std::true_type{});
        ++x;
        ++i;
      }
      const Int inner = std::min(xEnd, width - 1);
      for (; x < inner; ++x, ++i) visit(i, x, y, std::false_type{});
      for (; x < xEnd; ++x, ++i) visit(i, x, y, std::true_type{});
    }
    x = 0;
    ++y;
  }
}

// All lower, first half: the sample's own loss, and the factor (dmax - talus) / sum that its
// receivers multiply their difference with.
template <class Family, bool kBorder>
inline void SpreadOut(const Pass& pass, Int i, Int x, Int y) {
  const Float h = pass.source[i];
  Float d[Family::kCount];
  bool kept[Family::kCount];
  Float sum = 0.0;
  Float dmax = -std::numeric_limits<Float>::infinity();
  for (int k = 0; k < Family::kCount; ++k) {
    kept[k] = false;
    d[k] = 0.0;
    if (!Listed<Family, kBorder>(pass, x, y, k)) continue;
    d[k] = h - pass.source[i + pass.step[k]];
    kept[k] = d[k] > pass.talus;
    sum += kept[k] ? d[k] : 0.0;
    dmax = kept[k] ? std::max(dmax, d[k]) : dmax;
  }
  const Float inverse = sum != 0.0 ? 1.0 / sum : 0.0;
  const Float factor = dmax > -std::numeric_limits<Float>::infinity() ? (dmax - pass.talus) * inverse : 0.0;
  Float out = h;
  for (int k = 0; k < Family::kCount; ++k) out -= kept[k] ? factor * d[k] * pass.intensity : 0.0;
  pass.target[i] = out;
  pass.share[i] = factor;
}

// All lower, second half: what every higher neighbour sends this sample.
template <class Family, bool kBorder>
inline void SpreadIn(const Pass& pass, Int i, Int x, Int y) {
  const Float h = pass.source[i];
  Float gain = 0.0;
  for (int k = 0; k < Family::kCount; ++k) {
    if (!Listed<Family, kBorder>(pass, x, y, k)) continue;
    const Int n = i + pass.step[k];
    const Float d = pass.source[n] - h;
    gain += d > pass.talus ? pass.share[n] * d : 0.0;
  }
  pass.target[i] += gain * pass.deposit;
}

// Lowest neighbour, first half: the sample's loss, the amount and where it goes.
template <class Family, bool kBorder>
inline void SlideOut(const Pass& pass, Int i, Int x, Int y) {
  const Float h = pass.source[i];
  int best = kNoSlide;
  Float low = 0.0;
  for (int k = 0; k < Family::kCount; ++k) {
    if (!Listed<Family, kBorder>(pass, x, y, k)) continue;
    const Float candidate = pass.source[i + pass.step[k]];
    if (best == kNoSlide || candidate < low) {  // strictly lower: the first of equal ones stays
      best = k;
      low = candidate;
    }
  }
  Float amount = 0.0;
  if (best != kNoSlide && h - low > pass.talus) {
    amount = (h - low) * pass.intensity;
  } else {
    best = kNoSlide;
  }
  pass.target[i] = h - amount;
  pass.share[i] = amount;
  pass.lowest[i] = static_cast<std::int8_t>(best);
}

// Lowest neighbour, second half: the amounts of the neighbours whose lowest is this sample.
template <class Family, bool kBorder>
inline void SlideIn(const Pass& pass, Int i, Int x, Int y) {
  Float gain = 0.0;
  for (int k = 0; k < Family::kCount; ++k) {
    if (!Listed<Family, kBorder>(pass, x, y, k)) continue;
    const Int n = i + pass.step[k];
    gain += pass.lowest[n] == kBack<Family>[static_cast<std::size_t>(k)] ? pass.share[n] : 0.0;
  }
  pass.target[i] += gain * pass.deposit;
}

ParallelOptions SampleOptions() {
  ParallelOptions options;
  options.granularity = kGranularity;
  options.singleThreadBelow = platform::kSingleThreadBelowSamples;
  return options;
}

// Two sample loops: every sample first settles what it sends (and from where it is owed),
// then collects what its neighbours send it. No sample is written by another's worker.
template <class Family, bool kAllLower>
Status SlidePass(const Pass& pass) {
  const Int count = pass.width * pass.height;
  const auto loop = [&pass](auto gather) {
    return [&pass](Int i0, Int i1) {
      ForEachSample(i0, i1, pass.width, pass.height, [&pass](Int i, Int x, Int y, auto border) {
        constexpr bool kBorder = decltype(border)::value;
        if constexpr (kAllLower && !decltype(gather)::value) SpreadOut<Family, kBorder>(pass, i, x, y);
        if constexpr (kAllLower && decltype(gather)::value) SpreadIn<Family, kBorder>(pass, i, x, y);
        if constexpr (!kAllLower && !decltype(gather)::value) SlideOut<Family, kBorder>(pass, i, x, y);
        if constexpr (!kAllLower && decltype(gather)::value) SlideIn<Family, kBorder>(pass, i, x, y);
      });
    };
  };
  VLGD_RETURN_IF_ERROR(platform::ParallelForRange(0, count, SampleOptions(), loop(std::false_type{})));
  return platform::ParallelForRange(0, count, SampleOptions(), loop(std::true_type{}));
}

// destination = 0.2 x (left + sample + right + below + above), edges clamped.
Status Smooth(const Float* source, Float* destination, Int width, Int height) {
  ParallelOptions options;
  options.granularity = kGranularity;
  options.singleThreadBelow = platform::kSingleThreadBelowRows;
  return platform::ParallelForRange(0, height, options, [=](Int y0, Int y1) {
    for (Int y = y0; y < y1; ++y) {
      const Float* row = source + y * width;
      const Float* above = source + std::max<Int>(y - 1, 0) * width;
      const Float* below = source + std::min<Int>(y + 1, height - 1) * width;
      Float* out = destination + y * width;
      const Int last = width - 1;
      out[0] = 0.2 * (row[0] + row[0] + row[std::min<Int>(1, last)] + below[0] + above[0]);
      for (Int x = 1; x < last; ++x) out[x] = 0.2 * (row[x - 1] + row[x] + row[x + 1] + below[x] + above[x]);
      if (last > 0) out[last] = 0.2 * (row[last - 1] + row[last] + row[last] + below[last] + above[last]);
    }
  });
}

template <class Family, bool kAllLower>
Status RunPass(Pass& pass) {
  SetSteps<Family>(pass);
  return SlidePass<Family, kAllLower>(pass);
}

void ShowPass(const EvaluationContext& context, const platform::StringTable& strings, Int32 i, Int32 count) {
  if (context.progress == nullptr) return;
  context.progress->SetStatus(strings.Format(kThermalStatusText, {std::to_string(i), std::to_string(count)}));
  platform::ShowStepProgress(*context.progress, i, count);
}

}  // namespace

Status ThermalWeathering(Grid2D<Float>& grid, const ThermalSettings& settings, const EvaluationContext& context,
                         const platform::StringTable& strings) {
  if (settings.iterations == 0) return platform::IllegalArgumentError(kZeroIterations);
  if (settings.iterations < 0) return platform::Ok();
  const bool eight = settings.neighbourhood == 1 || settings.neighbourhood == 3;
  const bool allLower = settings.neighbourhood == 3 || settings.neighbourhood == 4;
  const bool smooth = allLower && settings.smooth;
  const Int count = grid.Count();

  // Everything a pass writes, allocated once: the pass result and the per-sample shares;
  // the lowest-neighbour modes also note each sample's receiver.
  Grid2D<Float> next;
  Grid2D<Float> shares;
  std::vector<std::int8_t> lowest;
  VLGD_RETURN_IF_ERROR(next.InitFrom(grid));
  VLGD_RETURN_IF_ERROR(shares.InitFrom(grid));
  if (!allLower) VLGD_RETURN_IF_ERROR(platform::TryResize(lowest, count));

  // The pass reads `current` and writes `following`; without smoothing the two swap roles,
  // so the latest heights may sit in the working grid until the end.
  Float* current = grid.Data();
  Float* following = next.Data();
  const auto settle = [&] {
    if (current != grid.Data() && count > 0)
      std::memcpy(grid.Data(), current, static_cast<std::size_t>(count) * sizeof(Float));
  };

  Pass pass{};
  pass.share = shares.Data();
  pass.lowest = lowest.data();
  pass.width = grid.Width();
  pass.height = grid.Height();
  pass.talus = settings.talus;
  pass.intensity = settings.intensity;
  pass.deposit = settings.deposit;

  for (Int32 i = 0; i < settings.iterations; ++i) {
    // A sparse break test: only passes 2, 3, 6, 7, 10, ... look.
    if ((i & 2) != 0 && platform::TestBreak(context.thread)) {
      settle();
      return platform::CancelledError(kCancelled);
    }
    ShowPass(context, strings, i, settings.iterations);
    if (count == 0) continue;

    pass.source = current;
    pass.target = following;
    Status done = eight ? (allLower ? RunPass<Eight, true>(pass) : RunPass<Eight, false>(pass))
                        : (allLower ? RunPass<Four, true>(pass) : RunPass<Four, false>(pass));
    if (!done) {
      settle();
      return done;
    }
    if (smooth) {
      // The start-of-pass heights are no longer needed: the smoothed pass replaces them.
      done = Smooth(following, current, pass.width, pass.height);
      if (!done) {
        settle();
        return done;
      }
    } else {
      std::swap(current, following);
    }
  }
  settle();
  return platform::Ok();
}

}  // namespace VLGD::Erosion
