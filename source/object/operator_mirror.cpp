#include "object/operator_mirror.h"

#include "common/vlgd_icons.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

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
      if (platform::IsRowBreakTest(y) && platform::TestBreak(rows.thread))
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

bool MirrorOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {MIRROROPERATOR_X, MIRROROPERATOR_HEIGHT, MIRROROPERATOR_Y});
}

Status MirrorOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  const bool flipX = data.GetBool(MIRROROPERATOR_X);
  const bool flipH = data.GetBool(MIRROROPERATOR_HEIGHT);
  const bool flipY = data.GetBool(MIRROROPERATOR_Y);
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));

  // The loop runs over rows, but the one-thread threshold counts samples.
  platform::ParallelOptions options{.granularity = 16};
  if (result_.Count() < kPointFilterSingleThreadBelow) options.singleThreadBelow = result_.Height() + 1;
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

namespace {

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

}  // namespace

const platform::TypeDescriptor& MirrorOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_MIRROROPERATOR,
                                             .resourceName = "omirroroperator",
                                             .sort = 36,
                                             .icon = MainSheetIcon(0, 64),
                                             .nameStringId = 10009,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<MirrorOperator>(),
                                             .describe = MirrorOperatorDescription};
  return type;
}

}  // namespace VLGD
