#include "object/operator_gradient.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "common/vlgd_gui.h"
#include "common/vlgd_icons.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/distortion.h"

namespace VLGD {
namespace {

using platform::SplineData;
using platform::ValueType;

Float InverseOrZero(Float value) {
  return value != 0.0 ? 1.0 / value : 0.0;
}

// The shape constants of one evaluation.
struct Shape {
  GRADIENTTYPE type;
  Float inverse = 0.0;    // radial, square
  Float limit = 0.0;      // radial: radius squared; square: half edge
  Float start = 0.0;      // linear
  Float span = 0.0;       // linear
  Float halfWidth = 0.0;  // rectangular
  Float halfHeight = 0.0;
  Float inverseWidth = 0.0;
  Float inverseHeight = 0.0;
};

const char* CancelMessage(GRADIENTTYPE type) {
  switch (type) {
    case GRADIENTTYPE::RADIAL:
      return "Radial gradient cancelled!";
    case GRADIENTTYPE::LINEAR:
      return "Linear gradient cancelled!";
    case GRADIENTTYPE::RECTANGULAR:
      return "Rectangular gradient cancelled!";
    case GRADIENTTYPE::SQUARE:
      return "Square gradient cancelled!";
  }
  return "";
}

}  // namespace

TERRAINOPERATORFLAGS GradientOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_GENERATOR | TERRAINOPERATORFLAGS::DIRTY_MATRIX_OPERATOR |
         TERRAINOPERATORFLAGS::DIRTY_MATRIX_PARENTHIERARCHY;
}

bool GradientOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  const platform::ParameterReader data(op);
  const auto type = static_cast<GRADIENTTYPE>(data.GetInt32(GRADIENTOPERATOR_TYPE));
  switch (id) {
    case GRADIENTOPERATOR_RADIUS:
      return type == GRADIENTTYPE::RADIAL;
    case GRADIENTOPERATOR_SIZE:
      return type == GRADIENTTYPE::LINEAR || type == GRADIENTTYPE::RECTANGULAR || type == GRADIENTTYPE::SQUARE;
    case GRADIENTOPERATOR_HEIGHT:
      return type == GRADIENTTYPE::RECTANGULAR;
    default:
      return IsDistortionParameterEnabled(data.Values(), id);
  }
}

bool GradientOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  AppendGeneratorParameters(ids, GRADIENTOPERATOR_PROFILE, GRADIENTOPERATOR_HEIGHT);
  return true;
}

Status GradientOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  VLGD_RETURN_IF_ERROR(result_.InitFrom(incoming));
  const platform::ParameterReader data(op);
  const SplineData* profile = data.Values().GetSplineData(GRADIENTOPERATOR_PROFILE);
  if (profile == nullptr) return platform::IllegalArgumentError("Could not access SplineData!");
  const TerrainDistortion distortion = TerrainDistortion::Read(data);
  const platform::Matrix frame = SamplingFrame(op, context, false);

  Shape shape{static_cast<GRADIENTTYPE>(data.GetInt32(GRADIENTOPERATOR_TYPE))};
  const Float size = data.GetFloat(GRADIENTOPERATOR_SIZE);
  switch (shape.type) {
    case GRADIENTTYPE::RADIAL: {
      const Float radius = data.GetFloat(GRADIENTOPERATOR_RADIUS);
      shape.inverse = InverseOrZero(radius);
      shape.limit = radius * radius;
      break;
    }
    case GRADIENTTYPE::LINEAR:
      shape.start = size * 0.25;
      shape.span = std::max(0.0001, size * 0.5);
      break;
    case GRADIENTTYPE::RECTANGULAR:
      shape.halfWidth = size * 0.5;
      shape.inverseWidth = InverseOrZero(shape.halfWidth);
      shape.halfHeight = data.GetFloat(GRADIENTOPERATOR_HEIGHT) * 0.5;
      shape.inverseHeight = InverseOrZero(shape.halfHeight);
      break;
    case GRADIENTTYPE::SQUARE:
      shape.limit = size * 0.5;
      shape.inverse = InverseOrZero(shape.limit);
      break;
    default:
      return platform::Ok();  // an unknown shape leaves the grid flat
  }

  const Int width = result_.Width();
  const Int height = result_.Height();
  const Float sizeX = result_.SizeX();
  const Float sizeY = result_.SizeY();
  Float* values = result_.Data();
  const platform::CancellationToken* thread = context.thread;
  const std::string_view cancelled = CancelMessage(shape.type);
  const platform::ParallelOptions samples{.granularity = 16};
  return platform::ParallelForRange(0, result_.Count(), samples, [&](Int begin, Int end) -> Status {
    // The distortion takes a block of points per call, and the profile a block of positions
    // on it, on the worker's stack.
    constexpr Int kBlock = 256;
    Vector points[kBlock];
    Float along[2 * kBlock];  // positions on the profile; the rectangle's second ones from kBlock on
    Int sampleOf[kBlock];     // the sample of each position
    // Column and row advance with the index: no division per sample.
    Int x = begin % width;
    Int y = begin / width;
    for (Int start = begin; start < end; start += kBlock) {
      const Int count = std::min(kBlock, end - start);
      for (Int k = 0; k < count; ++k, ++x) {
        if (x == width) {
          x = 0;
          ++y;
        }
        const Vector p = GridPoint(x, y, width, height, sizeX, sizeY);
        points[k] = distortion.beforeMatrix ? platform::TransformPoint(frame, p) : p;
      }
      distortion.ApplyRow(std::span(points, static_cast<std::size_t>(count)));
      Int inside = 0;  // samples the shape covers, each with its positions on the profile
      for (Int k = 0; k < count; ++k) {
        const Int i = start + k;
        // The break is honoured only where the index's low byte masked with 0x9F is odd.
        if ((static_cast<Int>(platform::TestBreak(thread)) & (i & 0x9F)) != 0)
          return platform::CancelledError(std::string(cancelled));
        const Vector p = distortion.beforeMatrix ? points[k] : platform::TransformPoint(frame, points[k]);
        switch (shape.type) {
          case GRADIENTTYPE::RADIAL: {
            const Float distanceSquared = p.x * p.x + p.y * p.y + p.z * p.z;
            if (distanceSquared <= shape.limit) {
              sampleOf[inside] = i;
              along[inside++] = 1.0 - std::sqrt(distanceSquared) * shape.inverse;
            }
            break;
          }
          case GRADIENTTYPE::LINEAR:
            sampleOf[inside] = i;
            along[inside++] = std::clamp(((p.z + shape.start) - shape.span) / (0.0 - shape.span), 0.0, 1.0);
            break;
          case GRADIENTTYPE::RECTANGULAR:
            if (std::abs(p.x) <= shape.halfWidth && std::abs(p.z) <= shape.halfHeight) {
              sampleOf[inside] = i;
              along[kBlock + inside] = 1.0 - std::abs(p.z) * shape.inverseHeight;
              along[inside++] = 1.0 - std::abs(p.x) * shape.inverseWidth;
            }
            break;
          case GRADIENTTYPE::SQUARE: {
            const Float distance = std::max(std::abs(p.x), std::abs(p.z));
            if (distance <= shape.limit) {
              sampleOf[inside] = i;
              along[inside++] = 1.0 - distance * shape.inverse;
            }
            break;
          }
        }
      }
      profile->GetPointsY(along, along, inside);
      if (shape.type == GRADIENTTYPE::RECTANGULAR) {
        profile->GetPointsY(along + kBlock, along + kBlock, inside);
        for (Int j = 0; j < inside; ++j) {
          const Float u = along[j];
          const Float v = along[kBlock + j];
          values[sampleOf[j]] = u <= v ? u : v;
        }
      } else {
        for (Int j = 0; j < inside; ++j) values[sampleOf[j]] = along[j];
      }
    }
    return platform::Ok();
  });
}

namespace {

platform::Description GradientOperatorDescription() {
  using platform::DescribeParameter;
  SplineData profile;
  (void)InitGradientProfile(profile);  // an empty curve is the identity, should this fail
  constexpr Float kFar = kMaxWorldDistance;
  return {
      "ogradientoperator",
      {"Obaseterrainoperator", "DterrainDistortion"},
      {
          DescribeParameter(GRADIENTOPERATOR_PROFILE, "GRADIENTOPERATOR_PROFILE", ValueType::CURVE, std::move(profile)),
          DescribeParameter(GRADIENTOPERATOR_TYPE, "GRADIENTOPERATOR_TYPE", ValueType::INT32, Int32{1})
              .Choice("GRADIENTTYPE", static_cast<Int32>(GRADIENTTYPE::RADIAL),
                      static_cast<Int32>(GRADIENTTYPE::SQUARE)),
          DescribeParameter(GRADIENTOPERATOR_RADIUS, "GRADIENTOPERATOR_RADIUS", ValueType::FLOAT, 200.0)
              .Limits(0.0, kFar, "units"),
          DescribeParameter(GRADIENTOPERATOR_SIZE, "GRADIENTOPERATOR_SIZE", ValueType::FLOAT, 200.0)
              .Limits(0.0, kFar, "units"),
          DescribeParameter(GRADIENTOPERATOR_HEIGHT, "GRADIENTOPERATOR_HEIGHT", ValueType::FLOAT, 150.0)
              .Limits(0.0, kFar, "units"),
      },
      {{"GRADIENTTYPE", {{"RADIAL", 1}, {"LINEAR", 2}, {"RECTANGULAR", 3}, {"SQUARE", 4}}}}};
}

}  // namespace

const platform::TypeDescriptor& GradientOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_GRADIENTOPERATOR,
                                             .resourceName = "ogradientoperator",
                                             .sort = 24,
                                             .icon = MainSheetIcon(128, 0),
                                             .nameStringId = 10008,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<GradientOperator>(),
                                             .describe = GradientOperatorDescription};
  return type;
}

}  // namespace VLGD
