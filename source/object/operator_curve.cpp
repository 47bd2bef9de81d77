#include "object/operator_curve.h"

#include <algorithm>
#include <any>
#include <string>
#include <vector>

#include "common/vlgd_gui.h"
#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/enumerations.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::SplineData;
using platform::ValueType;

constexpr Int32 kDefaultPreset = static_cast<Int32>(SPLINEDATAPRESET::GLACIER_2);

}  // namespace

Status ApplyCurvePreset(Node& node, ParameterId curveId, Int32 preset) {
  SplineData* curve = node.GetDataInstance().GetSplineData(curveId);
  if (curve == nullptr) return platform::IllegalArgumentError("Could not get SplineData!");
  return ApplySplinePreset(*curve, preset);
}

bool CurveOperator::Init(Node& node) {
  if (!BaseTerrainOperatorData::Init(node)) return false;
  platform::ConsoleSink& console = node.GetHost().GetConsole();
  ParameterContainer& data = node.GetDataInstance();
  if (!data.Set(CURVEOPERATOR_CURVE, SplineData{})) {
    console.Print("Could not create new SplineData!");
    return false;
  }
  if (!data.Set(CURVEOPERATOR_PRESET, kDefaultPreset)) return false;
  if (const Status applied = ApplyCurvePreset(node, CURVEOPERATOR_CURVE, kDefaultPreset); !applied) {
    console.Print("Could not apply curve preset!: " + applied.error().message);
    return false;
  }
  return true;
}

TERRAINOPERATORFLAGS CurveOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
}

bool CurveOperator::OperatorMessage(Node& op, Int32 type, MessageData& message) {
  if (type == platform::MSG_DESCRIPTION_COMMAND && message.parameter == CURVEOPERATOR_APPLYPRESET) {
    const Int32 preset = platform::ParameterReader(op).GetInt32(CURVEOPERATOR_PRESET);
    if (const Status applied = ApplyCurvePreset(op, CURVEOPERATOR_CURVE, preset); applied)
      op.SetDirty(platform::DIRTYFLAGS_DATA);
    else
      op.GetHost().GetConsole().Print("Could not apply curve preset!: " + applied.error().message);
    return true;
  }
  if (type == platform::MSG_DESCRIPTION_READ) {
    // A file that names a preset without a curve means the preset's curve; an explicit
    // curve wins over the preset named beside it.
    const auto* given = std::any_cast<std::vector<ParameterId>>(&message.payload);
    if (given == nullptr || std::ranges::find(*given, CURVEOPERATOR_PRESET) == given->end() ||
        std::ranges::find(*given, CURVEOPERATOR_CURVE) != given->end())
      return true;
    const Int32 preset = platform::ParameterReader(op).GetInt32(CURVEOPERATOR_PRESET);
    if (preset == kCurvePresetCustom) return true;
    if (const Status applied = ApplyCurvePreset(op, CURVEOPERATOR_CURVE, preset); !applied)
      op.GetHost().GetConsole().Print("Could not apply curve preset!: " + applied.error().message);
    return true;
  }
  if (type == platform::MSG_DESCRIPTION_CHECKUPDATE && message.parameter == CURVEOPERATOR_CURVE) {
    (void)op.GetDataInstance().Set(CURVEOPERATOR_PRESET, kCurvePresetCustom);  // replaces a number: cannot fail
    return true;
  }
  return false;
}

bool CurveOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {CURVEOPERATOR_CURVE});
}

Status CurveOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const SplineData* curve = op.GetData().GetSplineData(CURVEOPERATOR_CURVE);
  if (curve == nullptr) return platform::IllegalArgumentError("Could not get SplineData!");
  const bool valid = incoming.IsMinMaxValid();
  const Float minimum = valid ? incoming.Minimum() : RangeLowest<Float>();
  const Float maximum = valid ? incoming.Maximum() : -RangeLowest<Float>();
  const Float range = maximum - minimum;
  const Float inverse = range != 0.0 ? 1.0 / range : 0.0;
  const platform::CancellationToken* thread = context.thread;
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));

  Float* out = result_.Data();
  const Int count = result_.Count();
  if (minimum - maximum == 0.0) {
    // A flat input: nothing to remap, the samples stay 0.
    std::fill(out, out + count, 0.0);
    return platform::Ok();
  }
  auto sampled = platform::SplineSampler::Build(*curve);
  if (!sampled) return std::unexpected(sampled.error());
  const platform::SplineSampler& sampler = *sampled;
  const Float* in = incoming.Data();
  // The sampler is only read. Unlike the other point-wise filters this loop uses all
  // threads at every size.
  const platform::ParallelOptions options{.granularity = 16};
  return platform::ParallelForRange(0, count, options, [=, &sampler](Int begin, Int end) -> Status {
    return InMaskedBlocks(begin, end, thread, "Curve operator cancelled!", [=, &sampler](Int b, Int e) {
      sampler.RemapNormalised(in + b, out + b, e - b, minimum, inverse, range);
    });
  });
}

namespace {

platform::Description CurveOperatorDescription() {
  using platform::DescribeParameter;
  SplineData glacier;
  (void)ApplySplinePreset(glacier, kDefaultPreset);  // Init builds the preset again and reports failures
  // The presets and "custom", which an edited curve shows; files keep either.
  platform::Enumeration presets = SplinePresets();
  presets.name = "CURVEPRESET";
  presets.members.push_back({"CUSTOM", kCurvePresetCustom});
  const platform::ParameterDescription preset =
      DescribeParameter(CURVEOPERATOR_PRESET, "CURVEOPERATOR_PRESET", ValueType::INT32, kDefaultPreset)
          .Choice("CURVEPRESET", static_cast<Int32>(SPLINEDATAPRESET::LINEAR), kCurvePresetCustom);
  platform::ParameterDescription apply =
      DescribeParameter(CURVEOPERATOR_APPLYPRESET, "CURVEOPERATOR_APPLYPRESET", ValueType::NONE, platform::Value{});
  apply.kind = platform::ParameterKind::BUTTON;
  return {"ocurveoperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(CURVEOPERATOR_CURVE, "CURVEOPERATOR_CURVE", ValueType::CURVE, std::move(glacier)),
              preset,
              apply,
          },
          {std::move(presets)}};
}

}  // namespace

const platform::TypeDescriptor& CurveOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_CURVEOPERATOR,
                                             .resourceName = "ocurveoperator",
                                             .sort = 32,
                                             .icon = MainSheetIcon(576, 0),
                                             .nameStringId = 10004,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<CurveOperator>(),
                                             .describe = CurveOperatorDescription};
  return type;
}

}  // namespace VLGD
