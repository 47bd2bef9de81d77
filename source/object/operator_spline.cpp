#include "object/operator_spline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <string>

#include "common/vlgd_gui.h"
#include "common/vlgd_icons.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "platform/spline_objects.h"
#include "vellgrund/distortion.h"

namespace VLGD {
namespace {

using platform::Matrix;
using platform::ValueType;

// More segments than this come only from absurd splines or tolerances.
constexpr Int kMaxSegments = 20'000'000;

UInt64 Mix(UInt64 hash, UInt64 value) {
  hash ^= value + 0x9E3779B97F4A7C15ULL + (hash << 6) + (hash >> 2);
  return hash;
}

const platform::NodeLinkList* LinkedSplines(const Node& op) {
  return op.GetData().GetLinkList(SPLINEOPERATOR_SPLINES);
}

// Appends one spline object's curve, flattened, in the frame `toFrame` maps its global
// space to.
Status AddSpline(const Node& spline, const Matrix& toFrame, Float tolerance, bool fill, SegmentField& field,
                 std::vector<Vector>& points, Int& segments) {
  const platform::ParameterContainer& data = spline.GetData();
  const platform::SplinePath* path = data.GetSplinePath(platform::SPLINEOBJECT_POINTS);
  if (path == nullptr || path->points.size() < 2) return platform::Ok();
  const bool closed = data.GetBool(platform::SPLINEOBJECT_CLOSED, false);
  const bool bezier = data.GetInt32(platform::SPLINEOBJECT_TYPE, 0) == static_cast<Int32>(platform::SPLINETYPE::BEZIER);
  const Matrix m = toFrame * spline.GetMg();
  const std::vector<platform::SplinePoint>& p = path->points;
  points.clear();
  try {
    if (!bezier) {
      for (const platform::SplinePoint& point : p) points.push_back(platform::TransformPoint(m, point.position));
    } else {
      points.push_back(platform::TransformPoint(m, p.front().position));
      const std::size_t spans = closed ? p.size() : p.size() - 1;
      for (std::size_t i = 0; i < spans; ++i) {
        const platform::SplinePoint& a = p[i];
        const platform::SplinePoint& b = p[(i + 1) % p.size()];
        VLGD_RETURN_IF_ERROR(FlattenCubic(points.back(), platform::TransformPoint(m, a.position + a.right),
                                          platform::TransformPoint(m, b.position + b.left),
                                          platform::TransformPoint(m, b.position), tolerance, points));
        if (segments + static_cast<Int>(points.size()) > kMaxSegments) break;
      }
      // The closing span ends on the first point, which the polyline joins by itself.
      if (closed) points.pop_back();
    }
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not allocate the flattened spline!");
  }
  segments += static_cast<Int>(points.size());
  if (segments > kMaxSegments)
    return platform::IllegalArgumentError("Spline operator: the splines flatten into more than " +
                                          std::to_string(kMaxSegments) + " segments!");
  return field.AddPolyline(points, closed, fill);
}

}  // namespace

UInt64 LinkedSplinesState(const Node& op, const Document& doc) {
  UInt64 state = 0x5EED;
  const platform::NodeLinkList* links = LinkedSplines(op);
  if (links == nullptr) return state;
  for (const UInt64 target : links->targets) {
    state = Mix(state, target);
    const Node* spline = doc.FindByIdentity(target);
    if (spline == nullptr) continue;
    state = Mix(state, spline->GetDirty(platform::DIRTYFLAGS_DATA | platform::DIRTYFLAGS_MATRIX));
    // The global matrix: moving a parent moves the spline too.
    state = Mix(state, platform::HashMatrix(spline->GetMg()));
  }
  return state;
}

Status BuildSplineField(const Node& op, const Document& doc, const Matrix& toFrame, Float tolerance, bool fill,
                        SegmentField& field) {
  const platform::NodeLinkList* links = LinkedSplines(op);
  if (links == nullptr) return platform::Ok();
  std::vector<Vector> points;
  Int segments = 0;
  for (const UInt64 target : links->targets) {
    const Node* spline = doc.FindByIdentity(target);
    // Deleted splines and links to other objects add nothing.
    if (spline == nullptr || spline->GetNodeData<platform::SplineObjectData>() == nullptr) continue;
    VLGD_RETURN_IF_ERROR(AddSpline(*spline, toFrame, tolerance, fill, field, points, segments));
  }
  return platform::Ok();
}

TERRAINOPERATORFLAGS SplineOperator::GetFlags(const Node&) const {
  // The splines are placed by their global matrices, which the terrain's matrix maps into
  // the terrain: a moved terrain slides under them.
  return TERRAINOPERATORFLAGS::TYPE_GENERATOR | TERRAINOPERATORFLAGS::DIRTY_MATRIX_OPERATOR |
         TERRAINOPERATORFLAGS::DIRTY_MATRIX_TERRAIN | TERRAINOPERATORFLAGS::DIRTY_MATRIX_PARENTHIERARCHY;
}

bool SplineOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  const platform::ParameterReader data(op);
  if (id == SPLINEOPERATOR_HEIGHT)
    return static_cast<SPLINEMODE>(data.GetInt32(SPLINEOPERATOR_MODE)) != SPLINEMODE::FLATTEN;
  return IsDistortionParameterEnabled(data.Values(), id);
}

bool SplineOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  AppendGeneratorParameters(ids, SPLINEOPERATOR_SPLINES, SPLINEOPERATOR_FILL);
  return true;
}

bool SplineOperator::NeedsRebuild(Node& op, Document& doc, const EvaluationContext&) {
  return LinkedSplinesState(op, doc) != splinesState_;
}

Int SplineOperator::GetMemoryUsage() const {
  return BaseTerrainOperatorData::GetMemoryUsage() + static_cast<Int>(weight_.size() * sizeof(Float)) + fieldMemory_;
}

Status SplineOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document& doc,
                               const EvaluationContext& context) {
  fieldMemory_ = 0;
  // Storage of the last build is reused: the rows below clear what they do not write.
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));
  if (static_cast<Int>(weight_.size()) != result_.Count()) {
    weight_.clear();
    weight_.shrink_to_fit();
    VLGD_RETURN_IF_ERROR(platform::TryResize(weight_, result_.Count()));
  }
  const platform::ParameterReader data(op);
  const platform::SplineData* profileCurve = data.Values().GetSplineData(SPLINEOPERATOR_PROFILE);
  if (profileCurve == nullptr) return platform::IllegalArgumentError("Could not access SplineData!");
  VLGD_ASSIGN_OR_RETURN(const platform::SplineSampler profile, platform::SplineSampler::Build(*profileCurve));

  const auto mode = static_cast<SPLINEMODE>(data.GetInt32(SPLINEOPERATOR_MODE));
  // NaN and negative widths read as none.
  const Float halfWidth = std::fmax(data.GetFloat(SPLINEOPERATOR_WIDTH), 0.0) * 0.5;
  const Float falloff = std::fmax(data.GetFloat(SPLINEOPERATOR_FALLOFF), 0.0);
  const Float inverseFalloff = falloff > 0.0 ? 1.0 / falloff : 0.0;
  const Float reach = halfWidth + falloff;
  const Float amount = data.GetFloat(SPLINEOPERATOR_HEIGHT);
  const Float level = mode == SPLINEMODE::RAISE ? amount : mode == SPLINEMODE::CARVE ? -amount : 0.0;
  const bool flatten = mode == SPLINEMODE::FLATTEN;
  if (!std::isfinite(reach) || !std::isfinite(level))
    return platform::IllegalArgumentError("Spline operator: width, falloff and height must be finite!");

  const Int width = result_.Width();
  const Int height = result_.Height();
  const Float sizeX = result_.SizeX();
  const Float sizeY = result_.SizeY();
  // Curves are followed to a tenth of a sample: closer than any grid can show.
  const Float stepX = width > 1 ? sizeX / static_cast<Float>(width - 1) : sizeX;
  const Float stepZ = height > 1 ? sizeY / static_cast<Float>(height - 1) : sizeY;
  const Float step = std::fmin(stepX, stepZ);
  const Float tolerance = step > 0.0 ? step * 0.1 : 0.01;

  const TerrainDistortion distortion = TerrainDistortion::Read(data);
  const Matrix frame = SamplingFrame(op, context, false);
  const Matrix toFrame = frame * platform::Inverse(context.terrainMatrix);
  const bool fill = data.GetBool(SPLINEOPERATOR_FILL);
  const Float cell = std::fmax(step * 4.0, reach / 8.0);
  splinesState_ = LinkedSplinesState(op, doc);
  const FieldKey key{splinesState_, platform::HashMatrix(toFrame), tolerance, reach, cell, fill};
  if (field_ == nullptr || !(key == fieldKey_)) {
    field_.reset();
    std::unique_ptr<SegmentField> built;
    try {
      built = std::make_unique<SegmentField>();
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError("Could not hold the spline operator's segments!");
    }
    VLGD_RETURN_IF_ERROR(BuildSplineField(op, doc, toFrame, tolerance, fill, *built));
    VLGD_RETURN_IF_ERROR(built->Build(reach, cell, context.thread));
    field_ = std::move(built);
    fieldKey_ = key;
  }
  const SegmentField& field = *field_;
  fieldMemory_ = field.MemoryUsage();

  // Without distortion and with rows that stay rows in the operator's frame, a row can
  // jump over the samples whose cells hold no segment: most of a grid, for roads.
  const bool rowsStayRows = !distortion.enabled && frame.v1.z == 0.0 && frame.v1.x > 0.0 && width > 1;
  const Float columnStep = rowsStayRows ? frame.v1.x * sizeX / static_cast<Float>(width - 1) : 0.0;
  Float* values = result_.Data();
  Float* weights = weight_.data();
  const platform::CancellationToken* thread = context.thread;
  platform::ParallelOptions rows;
  rows.granularity = 1;
  rows.singleThreadBelow = width * height < platform::kSingleThreadBelowSamples ? height + 1 : 0;
  return platform::ParallelForRange(0, height, rows, [&](Int begin, Int end) -> Status {
    for (Int y = begin; y < end; ++y) {
      if ((y & 999) != 0 && platform::TestBreak(thread)) return platform::CancelledError("Spline operator cancelled!");
      std::fill(values + y * width, values + (y + 1) * width, 0.0);
      std::fill(weights + y * width, weights + (y + 1) * width, 0.0);
      if (field.SegmentCount() == 0) continue;
      for (Int x = 0; x < width; ++x) {
        Vector p = GridPoint(x, y, width, height, sizeX, sizeY);
        if (distortion.beforeMatrix) p = platform::TransformPoint(frame, p);
        distortion.Apply(p);
        if (!distortion.beforeMatrix) p = platform::TransformPoint(frame, p);
        if (rowsStayRows) {
          const Float busy = field.BusyFrom(p.x, p.z);
          if (busy > p.x) {
            if (!(busy < std::numeric_limits<Float>::infinity())) break;
            // To the last sample before the busy cell; rounding never carries it past.
            const Float ahead = (busy - p.x) / columnStep;
            if (ahead > 2.0) x += std::min(static_cast<Int>(ahead) - 1, width);
            continue;
          }
        }
        const SegmentField::Nearest nearest = field.Query(p.x, p.z);
        if (!(nearest.distance < reach) && !(nearest.distance <= halfWidth)) continue;
        Float weight = 1.0;
        if (nearest.distance > halfWidth) {
          weight = profile(1.0 - (nearest.distance - halfWidth) * inverseFalloff);
          weight = weight > 0.0 ? (weight < 1.0 ? weight : 1.0) : 0.0;
        }
        const Int i = y * width + x;
        values[i] = flatten ? nearest.height : level;
        weights[i] = weight;
      }
    }
    return platform::Ok();
  });
}

namespace {

platform::Description SplineOperatorDescription() {
  using platform::DescribeParameter;
  platform::SplineData profile;
  (void)InitGradientProfile(profile);  // an empty curve is the identity, should this fail
  constexpr Float kFar = kMaxWorldDistance;
  return {"osplineoperator",
          {"Obaseterrainoperator", "DterrainDistortion"},
          {
              DescribeParameter(SPLINEOPERATOR_SPLINES, "SPLINEOPERATOR_SPLINES", ValueType::LINKLIST,
                                platform::NodeLinkList{}),
              DescribeParameter(SPLINEOPERATOR_MODE, "SPLINEOPERATOR_MODE", ValueType::INT32,
                                static_cast<Int32>(SPLINEMODE::FLATTEN))
                  .Choice("SPLINEMODE", static_cast<Int32>(SPLINEMODE::RAISE), static_cast<Int32>(SPLINEMODE::FLATTEN)),
              DescribeParameter(SPLINEOPERATOR_WIDTH, "SPLINEOPERATOR_WIDTH", ValueType::FLOAT, 20.0)
                  .Limits(0.0, kFar, "units"),
              DescribeParameter(SPLINEOPERATOR_FALLOFF, "SPLINEOPERATOR_FALLOFF", ValueType::FLOAT, 30.0)
                  .Limits(0.0, kFar, "units"),
              DescribeParameter(SPLINEOPERATOR_PROFILE, "SPLINEOPERATOR_PROFILE", ValueType::CURVE, std::move(profile)),
              DescribeParameter(SPLINEOPERATOR_HEIGHT, "SPLINEOPERATOR_HEIGHT", ValueType::FLOAT, 20.0)
                  .Limits(-kFar, kFar, "units"),
              DescribeParameter(SPLINEOPERATOR_FILL, "SPLINEOPERATOR_FILL", ValueType::BOOL, false),
          },
          {{"SPLINEMODE", {{"RAISE", 0}, {"CARVE", 1}, {"FLATTEN", 2}}}}};
}

}  // namespace

const platform::TypeDescriptor& SplineOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_SPLINEOPERATOR,
                                             .resourceName = "osplineoperator",
                                             .sort = 23,
                                             .icon = MainSheetIcon(256, 0),
                                             .nameStringId = 10010,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<SplineOperator>(),
                                             .describe = SplineOperatorDescription};
  return type;
}

}  // namespace VLGD
