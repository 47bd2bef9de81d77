#include "object/operator_fold.h"

#include <algorithm>

#include "common/vlgd_icons.h"
#include "platform/noise.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

// The fold of one height at a level: down, v > L ? L - (v - L) : v; up, v < L ? L + (L - v)
// : v. The strict comparisons leave a height on the level as it is. Written as a choice
// between v and its reflection r by comparing the two, which gives the same sample in
// every case (r < v exactly where v > L, NaN and infinities included, since r lies on the
// other side of L), so that the reflection is computed on every path and the loop needs no
// branch.
template <FOLDMODE kMode>
inline Float Fold(Float v, Float level) {
  if constexpr (kMode == FOLDMODE::DOWN) {
    const Float reflected = level - (v - level);
    return reflected < v ? reflected : v;
  } else {
    const Float reflected = level + (level - v);
    return reflected > v ? reflected : v;
  }
}

// Where the level noise is sampled: x from -SX/2 to +SX/2 across the columns, z from +SY/2
// down to -SY/2 down the rows, y the offset; the whole point scaled by the frequency. A
// grid of one column or one row divides by zero here, as it always has.
struct NoiseFrame {
  Int width;
  Float lastColumn;  // W - 1
  Float lastRow;     // H - 1
  Float sizeX;
  Float sizeY;
  Float frequency;
  Float offset;
  Float strength;
  Float level;

  [[nodiscard]] Float X(Int column) const {
    return ((static_cast<Float>(column) / lastColumn) * sizeX - sizeX * 0.5) * frequency;
  }
  [[nodiscard]] Float Y() const { return (offset + 0.0) * frequency; }
  [[nodiscard]] Float Z(Int row) const {
    return (sizeY * 0.5 - (static_cast<Float>(row) / lastRow) * sizeY) * frequency;
  }
};

template <FOLDMODE kMode>
Status FoldFlat(const Float* in, Float* out, Int count, Float level) {
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kPointFilterSingleThreadBelow};
  return platform::ParallelForRange(0, count, options, [=](Int begin, Int end) {
    const Float* __restrict source = in;
    Float* __restrict target = out;
    for (Int i = begin; i < end; ++i) target[i] = Fold<kMode>(source[i], level);
  });
}

template <FOLDMODE kMode>
Status FoldNoisy(const Float* in, Float* out, Int count, const NoiseFrame& frame) {
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kPointFilterSingleThreadBelow};
  return platform::ParallelForRange(0, count, options, [=, &frame](Int begin, Int end) {
    // The level noise takes a block of points per call, on the worker's stack.
    constexpr Int kBlock = 256;
    Float x[kBlock], y[kBlock], z[kBlock], noise[kBlock];
    std::fill_n(y, kBlock, frame.Y());
    // Column and row advance with the index: one division per chunk, not per sample.
    Int column = begin % frame.width;
    Int row = begin / frame.width;
    for (Int start = begin; start < end; start += kBlock) {
      const Int n = std::min(kBlock, end - start);
      for (Int k = 0; k < n; ++k, ++column) {
        if (column == frame.width) {
          column = 0;
          ++row;
        }
        x[k] = frame.X(column);
        z[k] = frame.Z(row);
      }
      platform::ScalarNoiseRow({x, y, z, n}, 0.0, noise);
      for (Int k = 0; k < n; ++k) out[start + k] = Fold<kMode>(in[start + k], frame.level + noise[k] * frame.strength);
    }
  });
}

}  // namespace

TERRAINOPERATORFLAGS FoldOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER;
}

bool FoldOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {FOLDOPERATOR_MODE, FOLDOPERATOR_LEVEL, FOLDOPERATOR_NOISESTRENGTH,
                                       FOLDOPERATOR_NOISESCALE, FOLDOPERATOR_NOISEOFFSET});
}

Status FoldOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext&) {
  const platform::ParameterReader data(op);
  const Int32 mode = data.GetInt32(FOLDOPERATOR_MODE);
  const Float level = data.GetFloat(FOLDOPERATOR_LEVEL);
  const Float strength = data.GetFloat(FOLDOPERATOR_NOISESTRENGTH);
  const bool noisy = strength > 0.0;
  Float frequency = 1.0;
  Float offset = 0.0;
  if (noisy) {
    const Float scaled = data.GetFloat(FOLDOPERATOR_NOISESCALE) * 100.0;
    frequency = scaled != 0.0 ? 1.0 / scaled : 0.0;
    offset = data.GetFloat(FOLDOPERATOR_NOISEOFFSET);
  }
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));

  const Float* in = incoming.Data();
  Float* out = result_.Data();
  const Int count = result_.Count();
  if (mode != static_cast<Int32>(FOLDMODE::DOWN) && mode != static_cast<Int32>(FOLDMODE::UP)) {
    // Another mode leaves every height as it is.
    const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kPointFilterSingleThreadBelow};
    return platform::ParallelForRange(0, count, options,
                                      [=](Int begin, Int end) { std::copy(in + begin, in + end, out + begin); });
  }
  const bool down = mode == static_cast<Int32>(FOLDMODE::DOWN);
  if (!noisy)
    return down ? FoldFlat<FOLDMODE::DOWN>(in, out, count, level) : FoldFlat<FOLDMODE::UP>(in, out, count, level);
  const NoiseFrame frame{result_.Width(),
                         static_cast<Float>(result_.Width() - 1),
                         static_cast<Float>(result_.Height() - 1),
                         result_.SizeX(),
                         result_.SizeY(),
                         frequency,
                         offset,
                         strength,
                         level};
  return down ? FoldNoisy<FOLDMODE::DOWN>(in, out, count, frame) : FoldNoisy<FOLDMODE::UP>(in, out, count, frame);
}

namespace {

platform::Description FoldOperatorDescription() {
  using platform::DescribeParameter;
  constexpr Float kFar = kMaxWorldDistance;
  return {"ofoldoperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(FOLDOPERATOR_MODE, "FOLDOPERATOR_MODE", ValueType::INT32, Int32{0})
                  .Choice("FOLDMODE", static_cast<Int32>(FOLDMODE::DOWN), static_cast<Int32>(FOLDMODE::UP)),
              DescribeParameter(FOLDOPERATOR_LEVEL, "FOLDOPERATOR_LEVEL", ValueType::FLOAT, 25.0)
                  .Limits(-kFar, kFar, "units"),
              DescribeParameter(FOLDOPERATOR_NOISESTRENGTH, "FOLDOPERATOR_NOISESTRENGTH", ValueType::FLOAT, 0.0)
                  .Limits(0.0, kFar, "units"),
              // In hundreds of units of noise period.
              DescribeParameter(FOLDOPERATOR_NOISESCALE, "FOLDOPERATOR_NOISESCALE", ValueType::FLOAT, 1.0)
                  .Limits(0.0, 10000.0),
              DescribeParameter(FOLDOPERATOR_NOISEOFFSET, "FOLDOPERATOR_NOISEOFFSET", ValueType::FLOAT, 0.0)
                  .Limits(-kFar, kFar),
          },
          {{"FOLDMODE", {{"DOWN", 0}, {"UP", 1}}}}};
}

}  // namespace

const platform::TypeDescriptor& FoldOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_FOLDOPERATOR,
                                             .resourceName = "ofoldoperator",
                                             .sort = 37,
                                             .icon = MainSheetIcon(320, 64),
                                             .nameStringId = 10011,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<FoldOperator>(),
                                             .describe = FoldOperatorDescription};
  return type;
}

}  // namespace VLGD
