#include "object/operator_mirror.h"

#include <new>

#include "platform/parallel.h"

namespace VLGD {
namespace {

using platform::ValueType;

constexpr Int kSingleThreadBelow = 10001;

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

struct Rows {
  const Float* in;
  Float* out;
  Int width;
  Int height;
  bool flipY;
  const platform::CancellationToken* thread;
  platform::ParallelOptions options;
};

// Writes every row of `rows.in`, each sample through `transform`, to its destination row;
// the row loop tests the break flag at rows whose index ANDed with 999 is not 0.
template <bool kFlipX, class Transform>
Status MirrorRows(const Rows& rows, Transform transform) {
  return platform::ParallelForRange(0, rows.height, rows.options, [&rows, transform](Int begin, Int end) -> Status {
    const Int width = rows.width;
    for (Int y = begin; y < end; ++y) {
      if ((y & 999) != 0 && platform::TestBreak(rows.thread))
        return platform::CancelledError("Mirror operator cancelled!");
      const Float* __restrict source = rows.in + y * width;
      Float* __restrict target = rows.out + (rows.flipY ? rows.height - 1 - y : y) * width;
      if constexpr (kFlipX) {
        for (Int x = 0; x < width; ++x) target[width - 1 - x] = transform(source[x]);
      } else {
        for (Int x = 0; x < width; ++x) target[x] = transform(source[x]);
      }
    }
    return platform::Ok();
  });
}

template <class Transform>
Status MirrorRows(const Rows& rows, bool flipX, Transform transform) {
  return flipX ? MirrorRows<true>(rows, transform) : MirrorRows<false>(rows, transform);
}

}  // namespace

TERRAINOPERATORFLAGS MirrorOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
}

bool MirrorOperator::InitOperatorDefaults(ParameterContainer& data) {
  return data.Set(MIRROROPERATOR_X, false) && data.Set(MIRROROPERATOR_HEIGHT, false) &&
         data.Set(MIRROROPERATOR_Y, false);
}

bool MirrorOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  try {
    ids.insert(ids.end(), {MIRROROPERATOR_X, MIRROROPERATOR_HEIGHT, MIRROROPERATOR_Y});
  } catch (const std::bad_alloc&) {
    // No list: every parameter change rebuilds, which is never wrong.
    ids.clear();
    return false;
  }
  return true;
}

Status MirrorOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const ParameterContainer& data = op.GetData();
  const bool flipX = data.GetBool(MIRROROPERATOR_X);
  const bool flipH = data.GetBool(MIRROROPERATOR_HEIGHT);
  const bool flipY = data.GetBool(MIRROROPERATOR_Y);
  VLGD_RETURN_IF_ERROR(ShapeResultLike(result_, incoming));

  // The loop runs over rows, but the one-thread threshold counts samples.
  platform::ParallelOptions options{.granularity = 16};
  if (result_.Count() < kSingleThreadBelow) options.singleThreadBelow = result_.Height() + 1;
  const Rows rows{incoming.Data(), result_.Data(), result_.Width(), result_.Height(), flipY, context.thread, options};

  if (!flipH) return MirrorRows(rows, flipX, [](Float v) { return v; });
  // min + max - v as (min - max) x t + max, t = (v - min) / (max - min); a flat input (and
  // one without a valid range, read as 0 .. 0) becomes max everywhere.
  const bool valid = incoming.IsMinMaxValid();
  const Float minimum = valid ? incoming.Minimum() : 0.0;
  const Float maximum = valid ? incoming.Maximum() : 0.0;
  const Float range = maximum - minimum;
  const Float drop = minimum - maximum;
  if (range == 0.0) {
    const Float flat = drop * 0.0 + maximum;
    return MirrorRows(rows, flipX, [flat](Float) { return flat; });
  }
  return MirrorRows(rows, flipX, [=](Float v) { return drop * ((v - minimum) / range) + maximum; });
}

platform::Description MirrorOperatorDescription() {
  using platform::DescribeParameter;
  return {"omirroroperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(MIRROROPERATOR_X, "MIRROROPERATOR_X", ValueType::BOOL, false),
              DescribeParameter(MIRROROPERATOR_HEIGHT, "MIRROROPERATOR_HEIGHT", ValueType::BOOL, false),
              DescribeParameter(MIRROROPERATOR_Y, "MIRROROPERATOR_Y", ValueType::BOOL, false),
          }};
}

}  // namespace VLGD
