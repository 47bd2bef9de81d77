#include "object/operator_clamp.h"

#include <algorithm>
#include <new>
#include <string>

#include "platform/parallel.h"

namespace VLGD {
namespace {

using platform::ValueType;

constexpr Int kSingleThreadBelow = 10001;
// Samples written between two looks at the break flag.
constexpr Int kBreakBlock = 1024;

// Gives the result the incoming grid's shape and an invalid range. A result that has the
// shape already keeps its storage as it is, as the host's array resize does: the compute
// writes every sample, so zeroing it first would only cost a pass over memory.
Status ShapeResultLike(Grid2D<Float>& result, const Grid2D<Float>& incoming) {
  if (result.Width() == incoming.Width() && result.Height() == incoming.Height() &&
      result.Count() == incoming.Count() && result.SizeX() == incoming.SizeX() && result.SizeY() == incoming.SizeY()) {
    result.ResetRange();
    return platform::Ok();
  }
  result.Reset();  // frees the old samples before the new ones are allocated
  return result.InitFrom(incoming);
}

// Runs block(b, e) over [begin, end) in blocks of at most kBreakBlock samples. The break
// flag is tested before sample i only where (i AND 3999) != 0 (a bit mask, deliberately
// not a modulo), and a break stops the loop with `message`. Testing once before a block
// stands for the tests of its samples: every block of two or more samples holds an odd
// index, and a single-sample block tests only where its index passes the mask.
template <class Block>
Status InMaskedBlocks(Int begin, Int end, const platform::CancellationToken* thread, const char* message,
                      Block&& block) {
  for (Int b = begin; b < end; b += kBreakBlock) {
    const Int e = std::min(end, b + kBreakBlock);
    if (thread != nullptr && (e - b > 1 || (b & 3999) != 0) && thread->IsCancelled())
      return platform::CancelledError(message);
    block(b, e);
  }
  return platform::Ok();
}

}  // namespace

TERRAINOPERATORFLAGS ClampOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
}

bool ClampOperator::InitOperatorDefaults(ParameterContainer& data) {
  return data.Set(CLAMPOPERATOR_MIN, 0.0) && data.Set(CLAMPOPERATOR_MAX, 50.0) &&
         data.Set(CLAMPOPERATOR_HARDCLAMP, false);
}

bool ClampOperator::OperatorMessage(Node& op, Int32 type, MessageData& message) {
  if (type != platform::MSG_DESCRIPTION_CHECKUPDATE) return false;
  ParameterContainer& data = op.GetDataInstance();
  const Float low = data.GetFloat(CLAMPOPERATOR_MIN, 0.0);
  const Float high = data.GetFloat(CLAMPOPERATOR_MAX, 100.0);
  if (low > high) {
    if (message.parameter == CLAMPOPERATOR_MIN)
      (void)data.Set(CLAMPOPERATOR_MIN, high);
    else if (message.parameter == CLAMPOPERATOR_MAX)
      (void)data.Set(CLAMPOPERATOR_MAX, low);
  }
  return true;
}

bool ClampOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  try {
    ids.insert(ids.end(), {CLAMPOPERATOR_MIN, CLAMPOPERATOR_MAX, CLAMPOPERATOR_HARDCLAMP});
  } catch (const std::bad_alloc&) {
    // No list: every parameter change rebuilds, which is never wrong.
    ids.clear();
    return false;
  }
  return true;
}

Status ClampOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const ParameterContainer& data = op.GetData();
  const Float low = data.GetFloat(CLAMPOPERATOR_MIN, 0.0);
  const Float high = data.GetFloat(CLAMPOPERATOR_MAX, 100.0);
  const bool hard = data.GetBool(CLAMPOPERATOR_HARDCLAMP, false);
  const platform::CancellationToken* thread = context.thread;
  VLGD_RETURN_IF_ERROR(ShapeResultLike(result_, incoming));

  const Float* in = incoming.Data();
  Float* out = result_.Data();
  const Int count = result_.Count();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kSingleThreadBelow};

  if (hard) {
    // A NaN fails lo <= v and becomes lo (or hi, where lo > hi).
    return platform::ParallelForRange(0, count, options, [=](Int begin, Int end) -> Status {
      return InMaskedBlocks(begin, end, thread, "Clamp operator cancelled!", [=](Int b, Int e) {
        const Float* __restrict source = in;
        Float* __restrict target = out;
        for (Int i = b; i < e; ++i) {
          const Float v = source[i];
          const Float a = low <= v ? v : low;
          target[i] = a <= high ? a : high;
        }
      });
    });
  }

  // Fitting: the input's lowest point lands on lo, its highest on hi. No break test.
  const bool valid = incoming.IsMinMaxValid();
  const Float minimum = valid ? incoming.Minimum() : RangeLowest<Float>();
  const Float maximum = valid ? incoming.Maximum() : -RangeLowest<Float>();
  const Float range = maximum - minimum;
  const Float span = high - low;
  if (range == 0.0) {
    const Float flat = low + span * 0.0;  // t = 0 for every sample
    return platform::ParallelForRange(0, count, options,
                                      [=](Int begin, Int end) { std::fill(out + begin, out + end, flat); });
  }
  return platform::ParallelForRange(0, count, options, [=](Int begin, Int end) {
    const Float* __restrict source = in;
    Float* __restrict target = out;
    for (Int i = begin; i < end; ++i) target[i] = low + span * ((source[i] - minimum) / range);
  });
}

platform::Description ClampOperatorDescription() {
  using platform::DescribeParameter;
  return {"oclampoperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(CLAMPOPERATOR_MIN, "CLAMPOPERATOR_MIN", ValueType::FLOAT, 0.0),
              DescribeParameter(CLAMPOPERATOR_MAX, "CLAMPOPERATOR_MAX", ValueType::FLOAT, 50.0),
              DescribeParameter(CLAMPOPERATOR_HARDCLAMP, "CLAMPOPERATOR_HARDCLAMP", ValueType::BOOL, false),
          }};
}

}  // namespace VLGD
