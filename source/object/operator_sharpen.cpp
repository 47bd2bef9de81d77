#include "object/operator_sharpen.h"

#include <memory>

#include "common/vlgd_icons.h"
#include "platform/parameter_reader.h"
#include "vellgrund/convolution.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
using platform::ValueType;

TERRAINOPERATORFLAGS SharpenOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER;
}

bool SharpenOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  const Int32 type = platform::ParameterReader(op).GetInt32(SHARPENOPERATOR_TYPE);
  switch (id) {
    case SHARPENOPERATOR_SIZE:
      return type == SHARPENOPERATOR_TYPE_SEPARABLE || type == SHARPENOPERATOR_TYPE_UNSHARP;
    case SHARPENOPERATOR_AMOUNT:
      return type == SHARPENOPERATOR_TYPE_SEPARABLE;
    default:
      return true;
  }
}

bool SharpenOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {SHARPENOPERATOR_TYPE, SHARPENOPERATOR_SIZE, SHARPENOPERATOR_AMOUNT});
}

Status SharpenOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  const Int32 type = data.GetInt32(SHARPENOPERATOR_TYPE);
  // A sharpen that lacks its size uses 5, as those stored before the size did; new ones
  // hold the default 3.
  const Int32 size = data.Values().GetInt32(SHARPENOPERATOR_SIZE, 5);
  const Float amount = data.GetFloat(SHARPENOPERATOR_AMOUNT);
  std::unique_ptr<Convolution::BaseKernel> kernel;
  switch (type) {
    case SHARPENOPERATOR_TYPE_SEPARABLE:
      VLGD_RETURN_IF_ERROR(Convolution::SeparableSharpen(incoming, result_, size, amount, context.thread));
      result_.CopyRangeFrom(incoming);  // the range is kept, as a copy would keep it
      return platform::Ok();
    case SHARPENOPERATOR_TYPE_SHARPEN3X3:
      kernel = std::make_unique<Convolution::PresetKernels::Sharpen3x3>();
      VLGD_RETURN_IF_ERROR(kernel->Initialize(3));
      break;
    case SHARPENOPERATOR_TYPE_UNSHARP5X5:
      kernel = std::make_unique<Convolution::PresetKernels::UnsharpMask5x5>();
      VLGD_RETURN_IF_ERROR(kernel->Initialize(5));
      break;
    case SHARPENOPERATOR_TYPE_UNSHARP:
      if (size < 0) return platform::IllegalArgumentError("Can't initialize kernel with a negative size!");
      kernel = std::make_unique<Convolution::PresetKernels::UnsharpMask>();
      // Through Initialize, so that radius 0 fails with the kernel's message.
      VLGD_RETURN_IF_ERROR(kernel->Initialize(static_cast<UInt32>(size)));
      break;
    default:
      result_.Reset();
      return result_.CopyFrom(incoming);
  }
  // The convolution of the incoming grid; the result's range is not known yet.
  return Convolution::Convolve(incoming, result_, *kernel, OUTOFBOUNDSMODE::MIRROR);
}

namespace {

platform::Description SharpenOperatorDescription() {
  using platform::DescribeParameter;
  return {
      "osharpenoperator",
      {"Obaseterrainoperator"},
      {
          DescribeParameter(SHARPENOPERATOR_TYPE, "SHARPENOPERATOR_TYPE", ValueType::INT32,
                            Int32{SHARPENOPERATOR_TYPE_SEPARABLE})
              .Choice("SHARPENTYPE", SHARPENOPERATOR_TYPE_SEPARABLE, SHARPENOPERATOR_TYPE_UNSHARP),
          // 0 makes no kernel; the unsharp kernel holds (2 size + 1)^2 weights.
          DescribeParameter(SHARPENOPERATOR_SIZE, "SHARPENOPERATOR_SIZE", ValueType::INT32, Int32{3})
              .Limits(1.0, kMaxKernelRadius, "samples"),
          // 0: the hard ramp, 1: the soft one.
          DescribeParameter(SHARPENOPERATOR_AMOUNT, "SHARPENOPERATOR_AMOUNT", ValueType::FLOAT, 0.0).Limits(0.0, 1.0),
      },
      {{"SHARPENTYPE",
        {{"SEPARABLE", SHARPENOPERATOR_TYPE_SEPARABLE},
         {"SHARPEN3X3", SHARPENOPERATOR_TYPE_SHARPEN3X3},
         {"UNSHARP5X5", SHARPENOPERATOR_TYPE_UNSHARP5X5},
         {"UNSHARP", SHARPENOPERATOR_TYPE_UNSHARP}}}}};
}

}  // namespace

const platform::TypeDescriptor& SharpenOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_SHARPENOPERATOR,
                                             .resourceName = "osharpenoperator",
                                             .sort = 35,
                                             .icon = MainSheetIcon(576, 64),
                                             .nameStringId = 10013,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<SharpenOperator>(),
                                             .describe = SharpenOperatorDescription};
  return type;
}

}  // namespace VLGD
