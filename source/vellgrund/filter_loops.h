#pragma once

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "platform/cancellation.h"
#include "platform/parallel.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

// Point-wise filters run on one thread below this many samples.
inline constexpr Int kPointFilterSingleThreadBelow = platform::kSingleThreadBelowSamples;

// Appends `list` to `ids` for GetRebuildParameters. When the list cannot grow, it is
// cleared and false returned: every parameter change then rebuilds, which is never wrong.
bool AppendRebuildParameters(std::vector<ParameterId>& ids, std::initializer_list<ParameterId> list);

// Runs block(b, e) over [begin, end) in blocks of at most 1024 samples, testing for a break
// before sample i only where (i AND 3999) != 0: a bit mask, deliberately not a modulo. One
// test before a block stands for those of its samples, since every block of two or more
// samples holds an odd index; a single-sample block tests only where its index passes.
template <class Block>
Status InMaskedBlocks(Int begin, Int end, const platform::CancellationToken* thread, std::string_view cancelled,
                      Block&& block) {
  constexpr Int kBlock = 1024;
  for (Int b = begin; b < end; b += kBlock) {
    const Int e = std::min(end, b + kBlock);
    if (thread != nullptr && (e - b > 1 || platform::IsSampleBreakTest(b)) && thread->IsCancelled())
      return platform::CancelledError(std::string(cancelled));
    block(b, e);
  }
  return platform::Ok();
}

}  // namespace VLGD
