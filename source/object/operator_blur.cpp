#include "object/operator_blur.h"

#include <memory>

#include "common/vlgd_icons.h"
#include "platform/parameter_reader.h"
#include "vellgrund/convolution.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

constexpr Int32 kOldGaussType = 4;  // the Gaussian's value in scenes of disk level 0

}  // namespace

bool BlurOperator::Read(Node& node, Int32 diskLevel) {
  if (!BaseTerrainOperatorData::Read(node, diskLevel)) return false;
  if (diskLevel != 0) return true;
  ParameterContainer& data = node.GetDataInstance();
  if (data.GetInt32(BLUROPERATOR_TYPE, 0) == kOldGaussType) {
    return data.Set(BLUROPERATOR_TYPE, Int32{BLUROPERATOR_TYPE_GAUSS}).has_value();
  } else if (data.GetInt32(BLUROPERATOR_TYPE, 0) == BLUROPERATOR_TYPE_BOX && data.Contains(BLUROPERATOR_RADIUS)) {
    return data.Set(BLUROPERATOR_RADIUS, data.GetInt32(BLUROPERATOR_RADIUS) / 2).has_value();
  }
  return true;
}

TERRAINOPERATORFLAGS BlurOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER;
}

bool BlurOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  if (id != BLUROPERATOR_RADIUS) return true;
  const Int32 type = platform::ParameterReader(op).GetInt32(BLUROPERATOR_TYPE);
  return type != BLUROPERATOR_TYPE_GAUSS3X3 && type != BLUROPERATOR_TYPE_GAUSS5X5;
}

bool BlurOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {BLUROPERATOR_RADIUS, BLUROPERATOR_TYPE});
}

Status BlurOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  // A blur that lacks its radius blurs by 5, as blurs stored before the radius did; new
  // blurs hold the default 2.
  const Int32 radius = data.Values().GetInt32(BLUROPERATOR_RADIUS, 5);
  const Int32 type = data.GetInt32(BLUROPERATOR_TYPE);
  switch (type) {
    case BLUROPERATOR_TYPE_GAUSS:
    case BLUROPERATOR_TYPE_GAUSS3X3:
    case BLUROPERATOR_TYPE_GAUSS5X5: {
      std::unique_ptr<Convolution::BaseKernel> kernel;
      if (type == BLUROPERATOR_TYPE_GAUSS) {
        if (radius < 0) return platform::IllegalArgumentError("Can't initialize kernel with a negative size!");
        kernel = std::make_unique<Convolution::PresetKernels::GaussBlur>();
        // Built directly, not through Initialize: radius 0 gives the not-a-number kernel.
        VLGD_RETURN_IF_ERROR(kernel->Build(static_cast<UInt32>(radius), nullptr));
      } else if (type == BLUROPERATOR_TYPE_GAUSS3X3) {
        kernel = std::make_unique<Convolution::PresetKernels::GaussBlur3x3>();
        VLGD_RETURN_IF_ERROR(kernel->Initialize(3));
      } else {
        kernel = std::make_unique<Convolution::PresetKernels::GaussBlur5x5>();
        VLGD_RETURN_IF_ERROR(kernel->Initialize(5));
      }
      // The convolution of the incoming grid; the result's range is not known yet.
      return Convolution::Convolve(incoming, result_, *kernel, OUTOFBOUNDSMODE::MIRROR);
    }
    case BLUROPERATOR_TYPE_BOX:
    default: {
      const Int diameter = 2 * static_cast<Int>(radius) + 1;
      VLGD_RETURN_IF_ERROR(Convolution::BoxBlur(incoming, result_, diameter, context.thread));
      result_.CopyRangeFrom(incoming);  // the range is kept, as a copy would keep it
      return platform::Ok();
    }
  }
}

namespace {

platform::Description BlurOperatorDescription() {
  using platform::DescribeParameter;
  return {"obluroperator",
          {"Obaseterrainoperator"},
          {
              // A Gauss kernel holds (2 radius + 1)^2 weights: 2048 keeps it near 130 MB.
              DescribeParameter(BLUROPERATOR_RADIUS, "BLUROPERATOR_RADIUS", ValueType::INT32, Int32{2})
                  .Limits(0.0, kMaxKernelRadius, "samples"),
              DescribeParameter(BLUROPERATOR_TYPE, "BLUROPERATOR_TYPE", ValueType::INT32, Int32{BLUROPERATOR_TYPE_BOX})
                  .Choice("BLURTYPE", BLUROPERATOR_TYPE_BOX, BLUROPERATOR_TYPE_GAUSS5X5),
          },
          {{"BLURTYPE",
            {{"BOX", BLUROPERATOR_TYPE_BOX},
             {"GAUSS", BLUROPERATOR_TYPE_GAUSS},
             {"GAUSS3X3", BLUROPERATOR_TYPE_GAUSS3X3},
             {"GAUSS5X5", BLUROPERATOR_TYPE_GAUSS5X5}}}}};
}

}  // namespace

const platform::TypeDescriptor& BlurOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_BLUROPERATOR,
                                             .resourceName = "obluroperator",
                                             .sort = 34,
                                             .icon = MainSheetIcon(448, 0),
                                             .nameStringId = 10007,
                                             .diskLevel = 1,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<BlurOperator>(),
                                             .describe = BlurOperatorDescription};
  return type;
}

}  // namespace VLGD
