#pragma once

#include <memory>
#include <vector>

#include "platform/registry.h"
#include "platform/spline_data.h"
#include "vellgrund/baseterrainoperator.h"
#include "vellgrund/spline_distance.h"

namespace VLGD {

inline constexpr platform::Int32 ID_SPLINEOPERATOR = 1054654;

enum SplineOperatorParameter : ParameterId {
  SPLINEOPERATOR_SPLINES = 10001,  // link list of spline objects
  SPLINEOPERATOR_MODE = 10002,     // SPLINEMODE
  SPLINEOPERATOR_WIDTH = 10003,    // full width of the core, units
  SPLINEOPERATOR_FALLOFF = 10004,  // width of each shoulder beyond the core, units
  SPLINEOPERATOR_PROFILE = 10005,  // curve: shoulder weight from its outer edge (0) to the core (1)
  SPLINEOPERATOR_HEIGHT = 10006,   // raise and carve: the height of the ridge or depth of the channel
  SPLINEOPERATOR_FILL = 10007,     // closed splines also cover their inside
};

enum class SPLINEMODE : Int32 {
  RAISE = 0,    // a ridge of the given height
  CARVE = 1,    // a channel of the given depth
  FLATTEN = 2,  // the spline's own height, as a road or a river bed
};

// Heights from spline objects through a distance field: every sample within the core width
// of a curve gets the mode's height at full weight, the shoulders fade it out through the
// profile, and beyond them the operator's mask is 0, so the terrain stays exactly as it was.
// The result is the mode's target height; its weight lives in the result mask, so a
// flattened road blends NORMAL and a ridge or channel blends ADD.
class SplineOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool NeedsRebuild(Node& op, Document& doc, const EvaluationContext& context) override;
  [[nodiscard]] Int GetMemoryUsage() const override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
  [[nodiscard]] std::span<const Float> GetResultMask() const override { return weight_; }

 private:
  // What the segment field was built from: the same curves in the same frame, bucketed the
  // same way, give the same field, so an edit of the profile, height or mode reuses it.
  struct FieldKey {
    UInt64 splines = 0;
    UInt64 frame = 0;
    Float tolerance = 0.0;
    Float reach = 0.0;
    Float cell = 0.0;
    bool fill = false;
    friend bool operator==(const FieldKey&, const FieldKey&) = default;
  };

  // The profile's sampler over its own copy of the curve, kept while the curve is unchanged.
  struct Profile {
    platform::SplineData curve;
    platform::SplineSampler sampler;
  };

  std::vector<Float> weight_;  // per sample of result
  UInt64 splinesState_ = 0;    // of the linked splines at the last computation
  Int fieldMemory_ = 0;
  std::unique_ptr<SegmentField> field_;
  FieldKey fieldKey_;
  std::unique_ptr<Profile> profile_;
};

// The change state of the splines an operator links: their identities, data and matrix
// dirty counts and global matrices. Equal states mean equal curves.
UInt64 LinkedSplinesState(const Node& op, const Document& doc);

// The splines' curves as polylines in the operator's frame, flattened to `tolerance`; then
// bucketed for queries within `reach`. Exposed for tests and benchmarks.
Status BuildSplineField(const Node& op, const Document& doc, const platform::Matrix& toFrame, Float tolerance,
                        bool fill, SegmentField& field);

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& SplineOperatorType();

}  // namespace VLGD
