#include "vellgrund/erosion_thermal.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "platform/cancellation.h"
#include "platform/parallel.h"
#include "platform/progress.h"
#include "vellgrund/erosion_thermal_rows.h"

namespace VLGD::Erosion {
namespace {

using namespace thermal;
using platform::ParallelOptions;

constexpr const char* kZeroIterations = "Intensity and iterations must not be 0!";
constexpr const char* kCancelled = "Thermal Weathering cancelled!";

// A band of rows computes everything it needs in rings of four rows of scratch, indexed by
// row & kRingMask: the shares, the heights after the losses and either the receiver codes
// (lowest) or the heights before smoothing (all lower).
constexpr Int kRingMask = 3;
constexpr Int kShareRing = 0;
constexpr Int kKeptRing = 4;
constexpr Int kExtraRing = 8;
constexpr Int kScratchRows = 12;
// Rows a worker takes at least: a band recomputes up to two rows beyond each edge.
constexpr Int kBandRows = 32;

template <class Family, bool kBorder>
inline bool Listed(Int x, Int y, Int width, Int height, int k) {
  if constexpr (!kBorder) {
    return true;
  } else {
    const Int nx = x + Family::kOffsets[k].dx;
    const Int ny = y + Family::kOffsets[k].dy;
    return nx >= 0 && nx < width && ny >= 0 && ny < height;
  }
}

// The value of neighbour k of column x in rows[3] (row y - 1, y, y + 1).
template <class Family>
inline Float At(const Float* const rows[3], Int x, int k) {
  return rows[1 + Family::kOffsets[k].dy][x + Family::kOffsets[k].dx];
}

// The per-sample halves of a pass as the row kernels do them lane by lane; the border
// samples, whose neighbour lists are cut, and the columns after the last whole vector come
// here.

// All lower, first half: the sample's own loss, and the factor (dmax - talus) / sum that its
// receivers multiply their difference with.
template <class Family, bool kBorder>
inline void SpreadOut(const RowJob& job, Int x, Int y, Int width, Int height) {
  const Float h = job.source[1][x];
  Float d[Family::kCount];
  bool kept[Family::kCount];
  Float sum = 0.0;
  Float dmax = -std::numeric_limits<Float>::infinity();
  for (int k = 0; k < Family::kCount; ++k) {
    kept[k] = false;
    d[k] = 0.0;
    if (!Listed<Family, kBorder>(x, y, width, height, k)) continue;
    d[k] = h - At<Family>(job.source, x, k);
    kept[k] = d[k] > job.talus;
    sum += kept[k] ? d[k] : 0.0;
    dmax = kept[k] ? std::max(dmax, d[k]) : dmax;
  }
  const Float inverse = sum != 0.0 ? 1.0 / sum : 0.0;
  const Float factor = dmax > -std::numeric_limits<Float>::infinity() ? (dmax - job.talus) * inverse : 0.0;
  Float out = h;
  for (int k = 0; k < Family::kCount; ++k) out -= kept[k] ? factor * d[k] * job.intensity : 0.0;
  job.kept[x] = out;
  job.shareOut[x] = factor;
}

// All lower, second half: what every higher neighbour sends this sample.
template <class Family, bool kBorder>
inline void SpreadIn(const RowJob& job, Int x, Int y, Int width, Int height) {
  const Float h = job.source[1][x];
  Float gain = 0.0;
  for (int k = 0; k < Family::kCount; ++k) {
    if (!Listed<Family, kBorder>(x, y, width, height, k)) continue;
    const Float d = At<Family>(job.source, x, k) - h;
    gain += d > job.talus ? At<Family>(job.share, x, k) * d : 0.0;
  }
  job.target[x] = job.kept[x] + gain * job.deposit;
}

// Lowest neighbour, first half: the sample's loss, the amount and where it goes.
template <class Family, bool kBorder>
inline void SlideOut(const RowJob& job, Int x, Int y, Int width, Int height) {
  const Float h = job.source[1][x];
  int best = -1;
  Float low = 0.0;
  for (int k = 0; k < Family::kCount; ++k) {
    if (!Listed<Family, kBorder>(x, y, width, height, k)) continue;
    const Float candidate = At<Family>(job.source, x, k);
    if (best < 0 || candidate < low) {  // strictly lower: the first of equal ones stays
      best = k;
      low = candidate;
    }
  }
  Float amount = 0.0;
  Float code = kNoSlide;
  if (best >= 0 && h - low > job.talus) {
    amount = (h - low) * job.intensity;
    code = static_cast<Float>(best);
  }
  job.kept[x] = h - amount;
  job.shareOut[x] = amount;
  job.codeOut[x] = code;
}

// Lowest neighbour, second half: the amounts of the neighbours whose lowest is this sample.
template <class Family, bool kBorder>
inline void SlideIn(const RowJob& job, Int x, Int y, Int width, Int height) {
  Float gain = 0.0;
  for (int k = 0; k < Family::kCount; ++k) {
    if (!Listed<Family, kBorder>(x, y, width, height, k)) continue;
    const auto back = static_cast<Float>(kBack<Family>[static_cast<std::size_t>(k)]);
    gain += At<Family>(job.code, x, k) == back ? At<Family>(job.share, x, k) : 0.0;
  }
  job.target[x] = job.kept[x] + gain * job.deposit;
}

template <class Family, bool kAllLower, bool kGather>
struct Half {
  template <bool kBorder>
  static void Sample(const RowJob& job, Int x, Int y, Int width, Int height) {
    if constexpr (kAllLower && !kGather) SpreadOut<Family, kBorder>(job, x, y, width, height);
    if constexpr (kAllLower && kGather) SpreadIn<Family, kBorder>(job, x, y, width, height);
    if constexpr (!kAllLower && !kGather) SlideOut<Family, kBorder>(job, x, y, width, height);
    if constexpr (!kAllLower && kGather) SlideIn<Family, kBorder>(job, x, y, width, height);
  }
  static constexpr Kernel kKernel = [] {
    constexpr bool kEight = Family::kCount == 8;
    if constexpr (kAllLower && kEight) return kGather ? Kernel::kSpreadInEight : Kernel::kSpreadOutEight;
    if constexpr (kAllLower && !kEight) return kGather ? Kernel::kSpreadInFour : Kernel::kSpreadOutFour;
    if constexpr (!kAllLower && kEight) return kGather ? Kernel::kSlideInEight : Kernel::kSlideOutEight;
    return kGather ? Kernel::kSlideInFour : Kernel::kSlideOutFour;
  }();
};

// One half of a pass over row y: the edge rows and columns sample by sample, the inner
// columns in vectors.
template <class Step>
void RunRow(const RowJob& job, Int y, Int width, Int height) {
  if (y == 0 || y == height - 1) {
    for (Int x = 0; x < width; ++x) Step::template Sample<true>(job, x, y, width, height);
    return;
  }
  Step::template Sample<true>(job, 0, y, width, height);
  if (width == 1) return;
  for (Int x = InnerColumns(Step::kKernel, job, 1, width - 1); x < width - 1; ++x)
    Step::template Sample<false>(job, x, y, width, height);
  Step::template Sample<true>(job, width - 1, y, width, height);
}

// destination = 0.2 x (left + sample + right + below + above) of job.source, edges clamped.
void SmoothRow(const RowJob& job, Int width) {
  const Float* row = job.source[1];
  const Float* above = job.source[0];
  const Float* below = job.source[2];
  Float* out = job.target;
  const Int last = width - 1;
  out[0] = 0.2 * (row[0] + row[0] + row[std::min<Int>(1, last)] + below[0] + above[0]);
  if (last <= 0) return;
  for (Int x = last > 1 ? InnerColumns(Kernel::kSmooth, job, 1, last) : 1; x < last; ++x)
    out[x] = 0.2 * (row[x - 1] + row[x] + row[x + 1] + below[x] + above[x]);
  out[last] = 0.2 * (row[last - 1] + row[last] + row[last] + below[last] + above[last]);
}

struct PassSetup {
  const Float* source;  // the grid at the start of the pass
  Float* destination;   // the grid after the pass
  Int width;
  Int height;
  Float talus;
  Float intensity;
  Float deposit;
  bool smooth;
};

// Rows r0 .. r1 - 1 of a pass, pipelined: at step j the first half of row j, the second of
// row j - 1 and the smoothing of row j - 2. The band also does the rows beyond its edges that
// its own rows need, without writing them out: their own band does.
template <class Family, bool kAllLower>
void RunBand(const PassSetup& pass, Float* scratch, Int r0, Int r1) {
  const Int width = pass.width;
  const Int height = pass.height;
  const Int gatherFirst = pass.smooth ? std::max<Int>(0, r0 - 1) : r0;
  const Int gatherLast = pass.smooth ? std::min(height - 1, r1) : r1 - 1;
  const Int sendFirst = std::max<Int>(0, gatherFirst - 1);
  const Int sendLast = std::min(height - 1, gatherLast + 1);
  const auto ring = [&](Int base, Int y) { return scratch + (base + (y & kRingMask)) * width; };
  const auto rows = [&](auto row, Int y, const Float* out[3]) {
    out[0] = row(std::max<Int>(y - 1, 0));
    out[1] = row(y);
    out[2] = row(std::min(y + 1, height - 1));
  };
  const auto sourceRow = [&](Int y) -> const Float* { return pass.source + y * width; };
  RowJob job{};
  job.talus = pass.talus;
  job.intensity = pass.intensity;
  job.deposit = pass.deposit;
  for (Int j = sendFirst; j <= gatherLast + (pass.smooth ? 2 : 1); ++j) {
    if (j <= sendLast) {
      rows(sourceRow, j, job.source);
      job.kept = ring(kKeptRing, j);
      job.shareOut = ring(kShareRing, j);
      job.codeOut = ring(kExtraRing, j);
      RunRow<Half<Family, kAllLower, false>>(job, j, width, height);
    }
    if (const Int t = j - 1; t >= gatherFirst && t <= gatherLast) {
      rows(sourceRow, t, job.source);
      rows([&](Int y) { return ring(kShareRing, y); }, t, job.share);
      rows([&](Int y) { return ring(kExtraRing, y); }, t, job.code);
      job.kept = ring(kKeptRing, t);
      job.target = pass.smooth ? ring(kExtraRing, t) : pass.destination + t * width;
      RunRow<Half<Family, kAllLower, true>>(job, t, width, height);
    }
    if (const Int y = j - 2; pass.smooth && y >= r0 && y < r1) {
      rows([&](Int row) { return ring(kExtraRing, row); }, y, job.source);
      job.target = pass.destination + y * width;
      SmoothRow(job, width);
    }
  }
}

template <class Family, bool kAllLower>
Status RunPass(const PassSetup& pass, ScratchPool& scratch) {
  ParallelOptions options;
  options.granularity = kBandRows;
  options.singleThreadBelow = (platform::kSingleThreadBelowSamples + pass.width - 1) / pass.width;
  return platform::ParallelForRange(0, pass.height, options, [&pass, &scratch](Int r0, Int r1) {
    const ScratchPool::Lease rows = scratch.Claim();
    RunBand<Family, kAllLower>(pass, rows.Data(), r0, r1);
  });
}

void ShowPass(const EvaluationContext& context, const platform::StringTable& strings, Int32 i, Int32 count) {
  if (context.progress == nullptr) return;
  context.progress->SetStatus(strings.Format(kThermalStatusText, {std::to_string(i), std::to_string(count)}));
  platform::ShowStepProgress(*context.progress, i, count);
}

}  // namespace

Status ThermalScratch::Prepare(const Grid2D<Float>& grid) {
  VLGD_RETURN_IF_ERROR(next_.ReshapeLike(grid));
  const Int values = kScratchRows * grid.Width();
  const int slots = std::max(1, platform::MaxThreads());
  if (values > rowValues_ || slots > rowSlots_) {
    rowValues_ = -1;
    VLGD_RETURN_IF_ERROR(rows_.Allocate(values));
    rowValues_ = values;
    rowSlots_ = slots;
  }
  return platform::Ok();
}

void ThermalScratch::Release() {
  next_.Reset();
  rows_ = ScratchPool();
  rowValues_ = -1;
  rowSlots_ = 0;
}

Status ThermalWeathering(Grid2D<Float>& grid, const ThermalSettings& settings, const EvaluationContext& context,
                         const platform::StringTable& strings) {
  ThermalScratch scratch;
  return ThermalWeathering(grid, settings, context, strings, scratch);
}

Status ThermalWeathering(Grid2D<Float>& grid, const ThermalSettings& settings, const EvaluationContext& context,
                         const platform::StringTable& strings, ThermalScratch& scratch) {
  if (settings.iterations == 0) return platform::IllegalArgumentError(kZeroIterations);
  if (settings.iterations < 0) return platform::Ok();
  const bool eight = settings.neighbourhood == 1 || settings.neighbourhood == 3;
  const bool allLower = settings.neighbourhood == 3 || settings.neighbourhood == 4;
  const Int count = grid.Count();
  VLGD_RETURN_IF_ERROR(scratch.Prepare(grid));

  // Each pass reads `current` and writes `following`, then they swap roles, so the latest
  // heights may sit in the working grid until the end.
  Float* current = grid.Data();
  Float* following = scratch.Grid();
  const auto settle = [&] {
    if (current != grid.Data() && count > 0)
      std::memcpy(grid.Data(), current, static_cast<std::size_t>(count) * sizeof(Float));
  };

  PassSetup pass{};
  pass.width = grid.Width();
  pass.height = grid.Height();
  pass.talus = settings.talus;
  pass.intensity = settings.intensity;
  pass.deposit = settings.deposit;
  pass.smooth = allLower && settings.smooth;

  for (Int32 i = 0; i < settings.iterations; ++i) {
    // A sparse break test: only passes 2, 3, 6, 7, 10, ... look.
    if ((i & 2) != 0 && platform::TestBreak(context.thread)) {
      settle();
      return platform::CancelledError(kCancelled);
    }
    ShowPass(context, strings, i, settings.iterations);
    if (count == 0) continue;

    pass.source = current;
    pass.destination = following;
    ScratchPool& rows = scratch.Rows();
    const Status done = eight ? (allLower ? RunPass<Eight, true>(pass, rows) : RunPass<Eight, false>(pass, rows))
                              : (allLower ? RunPass<Four, true>(pass, rows) : RunPass<Four, false>(pass, rows));
    if (!done) {
      settle();
      return done;
    }
    std::swap(current, following);
  }
  settle();
  return platform::Ok();
}

}  // namespace VLGD::Erosion
