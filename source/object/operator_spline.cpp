#include "object/operator_spline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <string>

#include "common/vlgd_gui.h"
#include "common/vlgd_icons.h"
#include "object/operator_spline_rows.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "platform/spline_objects.h"
#include "vellgrund/distortion.h"
#include "vellgrund/scratch_pool.h"

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
  if (profile_ == nullptr || !(profile_->curve == *profileCurve)) {
    profile_.reset();
    std::unique_ptr<Profile> built;
    try {
      built = std::make_unique<Profile>();
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError("Could not hold the spline operator's profile!");
    }
    VLGD_RETURN_IF_ERROR(built->curve.CopyFrom(*profileCurve));
    VLGD_ASSIGN_OR_RETURN(built->sampler, platform::SplineSampler::Build(built->curve));
    profile_ = std::move(built);
  }
  const platform::SplineSampler& profile = profile_->sampler;

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
  const Float samplesPerCell = rowsStayRows ? field.CellSize() / columnStep : 0.0;
  // Without distortion a sample's point is TransformPoint(frame, GridPoint(x, y)), whose
  // sums run ((off + v1 X) + v2 0) + v3 Z: the part of X is a column's, added to the row's
  // once per sample with the same roundings.
  const bool undistorted = !distortion.enabled;
  std::vector<Float> columnX, columnZ;
  // Zeros past the last column fill the field's padding lanes.
  VLGD_RETURN_IF_ERROR(platform::TryResize(columnX, undistorted ? width + SegmentField::kPadding : 0));
  VLGD_RETURN_IF_ERROR(platform::TryResize(columnZ, undistorted ? width + SegmentField::kPadding : 0));
  for (Int x = 0; undistorted && x < width; ++x) {
    const Float gridX = GridPoint(x, 0, width, height, sizeX, sizeY).x;
    columnX[static_cast<std::size_t>(x)] = frame.off.x + frame.v1.x * gridX + frame.v2.x * 0.0;
    columnZ[static_cast<std::size_t>(x)] = frame.off.z + frame.v1.z * gridX + frame.v2.z * 0.0;
  }
  const spline_rows::Shape shape{reach, halfWidth, level, flatten};
  // Per worker, a row of points, distances and heights, with the padding that the field's
  // runs load and store past their last sample.
  const Int rowValues = width + SegmentField::kPadding;
  ScratchPool scratch;
  VLGD_RETURN_IF_ERROR(scratch.Allocate(4 * rowValues));
  Float* values = result_.Data();
  Float* weights = weight_.data();
  const platform::CancellationToken* thread = context.thread;
  platform::ParallelOptions rows;
  rows.granularity = 1;
  rows.singleThreadBelow = width * height < platform::kSingleThreadBelowSamples ? height + 1 : 0;
  return platform::ParallelForRange(0, height, rows, [&](Int begin, Int end) -> Status {
    const ScratchPool::Lease lease = scratch.Claim();
    Float* const rowX = lease.Data();
    Float* const rowZ = rowX + rowValues;
    Float* const rowDistance = rowZ + rowValues;
    Float* const rowHeight = rowDistance + rowValues;
    std::fill(rowX, rowX + 4 * rowValues, 0.0);  // padding lanes hold plain numbers
    Int y = begin;
    Float offsetX = 0.0, offsetZ = 0.0;  // undistorted: the row's v3 Z
    const auto pointAt = [&](Int x) {
      if (undistorted) {
        const auto column = static_cast<std::size_t>(x);
        return Vector(columnX[column] + offsetX, 0.0, columnZ[column] + offsetZ);
      }
      Vector p = GridPoint(x, y, width, height, sizeX, sizeY);
      if (distortion.beforeMatrix) p = platform::TransformPoint(frame, p);
      distortion.Apply(p);
      if (!distortion.beforeMatrix) p = platform::TransformPoint(frame, p);
      return p;
    };
    // Values and weights of the row's samples first .. stop - 1, whose distances are known;
    // every one is written, those beyond the reach with zeros. Their points are no longer
    // needed: that storage takes the profile's arguments and results.
    const auto finish = [&, halfWidth, inverseFalloff](Int first, Int stop) {
      const Int count = stop - first;
      const Float* distance = rowDistance + first;
      const Float* curveHeight = rowHeight + first;
      Float* shoulder = rowX + first;
      Float* shaped = rowZ + first;
      if (falloff > 0.0) {
        for (Int k = 0; k < count; ++k) shoulder[k] = 1.0 - (distance[k] - halfWidth) * inverseFalloff;
        // A curve remapped from 0 .. 1 to 0 .. 1 is the curve itself, up to the sign of a
        // zero, which the clamp below removes.
        profile.RemapNormalised(shoulder, shaped, count, 0.0, 1.0, 1.0);
      } else {
        std::fill(shaped, shaped + count, 1.0);  // read by no sample: none lies on a shoulder
      }
      spline_rows::WriteSpan(shape, distance, curveHeight, shaped, count, values + y * width + first,
                             weights + y * width + first);
    };
    // Zeros for the row's samples first .. stop - 1, which no curve reaches.
    const auto clear = [&](Int first, Int stop) {
      spline_rows::StreamZeros(values + y * width + first, values + y * width + stop);
      spline_rows::StreamZeros(weights + y * width + first, weights + y * width + stop);
    };
    for (; y < end; ++y) {
      if ((y & 999) != 0 && platform::TestBreak(thread)) {
        spline_rows::EndStreaming();
        return platform::CancelledError("Spline operator cancelled!");
      }
      if (field.SegmentCount() == 0) {
        clear(0, width);
        continue;
      }
      const Float gridZ = GridPoint(0, y, width, height, sizeX, sizeY).z;
      offsetX = frame.v3.x * gridZ;
      offsetZ = frame.v3.z * gridZ;
      // Samples in cells with segments form spans; a span, runs of samples of one cell.
      Int spanStart = -1;
      Int cleared = 0;  // samples before this one are written
      Int known = -1;   // the sample whose point the last run already computed
      for (Int x = 0; x < width;) {
        const Vector p = x == known ? Vector(rowX[x], 0.0, rowZ[x]) : pointAt(x);
        const Int runCell = field.CellOf(p.x, p.z);
        if (field.IsEmpty(runCell)) {
          if (spanStart >= 0) {
            finish(spanStart, x);
            cleared = x;
            spanStart = -1;
          }
          if (rowsStayRows) {
            const Float busy = field.BusyFrom(p.x, p.z);
            if (busy > p.x) {
              if (!(busy < std::numeric_limits<Float>::infinity())) break;
              // To the last sample before the busy cell; rounding never carries it past.
              const Float ahead = (busy - p.x) / columnStep;
              if (ahead > 2.0) x += std::min(static_cast<Int>(ahead) - 1, width);
            }
          }
          ++x;
          continue;
        }
        if (spanStart < 0) {
          clear(cleared, x);
          spanStart = x;
        }
        Int runEnd = x + 1;
        if (rowsStayRows) {
          // Along a row that stays a row the cells follow one another with x: the run
          // ends where the next cell begins, found from the cell's edge and checked.
          const auto cellAt = [&](Int column) {
            const Vector q = pointAt(column);
            return field.CellOf(q.x, q.z);
          };
          const Float ahead = field.CellAhead(p.x) * samplesPerCell;
          Int runLast = x + static_cast<Int>(ahead < static_cast<Float>(width) ? ahead : static_cast<Float>(width));
          runLast = std::clamp<Int>(runLast, x, width - 1);
          while (runLast > x && cellAt(runLast) != runCell) --runLast;
          while (runLast + 1 < width && cellAt(runLast + 1) == runCell) ++runLast;
          runEnd = runLast + 1;
          // The points are the columns' parts plus the row's, summed where the field loads them.
          field.QueryRun(runCell, columnX.data() + x, offsetX, columnZ.data() + x, offsetZ, runEnd - x, rowDistance + x,
                         rowHeight + x);
        } else {
          rowX[x] = p.x;
          rowZ[x] = p.z;
          for (; runEnd < width; ++runEnd) {
            const Vector q = pointAt(runEnd);
            rowX[runEnd] = q.x;
            rowZ[runEnd] = q.z;
            known = runEnd;
            if (field.CellOf(q.x, q.z) != runCell) break;
          }
          field.QueryRun(runCell, rowX + x, SegmentField::kNoOffset, rowZ + x, SegmentField::kNoOffset, runEnd - x,
                         rowDistance + x, rowHeight + x);
        }
        x = runEnd;
      }
      if (spanStart >= 0)
        finish(spanStart, width);
      else
        clear(cleared, width);
    }
    spline_rows::EndStreaming();
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
