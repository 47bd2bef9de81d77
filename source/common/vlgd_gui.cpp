#include "common/vlgd_gui.h"

#include <initializer_list>
#include <utility>

namespace VLGD {
namespace {

using platform::Float;
using platform::Int32;
using platform::SplineData;
using platform::Status;
using platform::Vector;

struct KnotPoint {
  Float x;
  Float y;
};

// Inserts the knots in the order given. Later tangent edits address the knots by the
// indices this order produces.
Status InsertKnots(SplineData& curve, std::initializer_list<KnotPoint> knots) {
  for (const KnotPoint& knot : knots) VLGD_RETURN_IF_ERROR(curve.InsertKnot(knot.x, knot.y));
  return platform::Ok();
}

// Tangent edits ignore the result on purpose: an index past the last knot changes
// nothing, and PLATEAU_2 relies on that.
void Left(SplineData& curve, Int32 knot, Float x, Float y) { (void)curve.SetKnotLeftTangent(knot, Vector(x, y, 0.0)); }
void Right(SplineData& curve, Int32 knot, Float x, Float y) { (void)curve.SetKnotRightTangent(knot, Vector(x, y, 0.0)); }
void BreakTangents(SplineData& curve, Int32 knot) {
  if (const platform::SplineKnot* stored = curve.GetKnot(knot))
    (void)curve.SetKnotFlags(knot, stored->flags | platform::kKnotFlagBreakTangents);
}

Status BuildPreset(SplineData& curve, SPLINEDATAPRESET preset) {
  switch (preset) {
    case SPLINEDATAPRESET::CANYON:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {1.0, 1.0}}));
      Right(curve, 0, 0.0, 0.0);
      Left(curve, 1, -0.5, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::GLACIER:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {1.0, 1.0}}));
      Right(curve, 0, 0.5, 0.0);
      Left(curve, 1, 0.0, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::PLATEAU:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {0.45, 0.5}, {0.55, 0.5}, {1.0, 1.0}}));
      Right(curve, 0, 0.0, 0.0);
      for (const Int32 knot : {1, 2}) {
        Left(curve, knot, -0.1, 0.0);
        Right(curve, knot, 0.1, 0.0);
      }
      Left(curve, 3, 0.0, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::EMPHASIZE:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {1.0, 1.0}}));
      Right(curve, 0, 0.5, 0.0);
      Left(curve, 1, -0.5, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::TERRACE_1:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {0.25, 0.25}, {0.5, 0.5}, {0.75, 0.75}, {1.0, 1.0}}));
      Right(curve, 0, 0.0, 0.0);
      for (const Int32 knot : {1, 2, 3}) {
        Left(curve, knot, -0.15, 0.0);
        Right(curve, knot, 0.15, 0.0);
      }
      Left(curve, 4, 0.0, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::TERRACE_2:
      VLGD_RETURN_IF_ERROR(
          InsertKnots(curve, {{0.0, 0.0}, {0.2, 0.2}, {0.4, 0.4}, {0.6, 0.6}, {0.8, 0.8}, {1.0, 1.0}}));
      Right(curve, 0, 0.0, 0.0);
      Left(curve, 5, 0.0, 0.0);
      // Knot 4 keeps the tangents its insertion gave it.
      for (const Int32 knot : {1, 2, 3}) {
        Left(curve, knot, -0.1, 0.0);
        Right(curve, knot, 0.1, 0.0);
      }
      return platform::Ok();
    case SPLINEDATAPRESET::DUNES:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {0.5, 0.5}, {1.0, 0.0}}));
      Right(curve, 0, 0.2, 0.0);
      Left(curve, 1, -0.2, 0.0);
      Right(curve, 1, 0.2, 0.0);
      Left(curve, 2, -0.2, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::DUNES_2:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {0.5, 0.5}, {1.0, 0.0}}));
      Right(curve, 0, 0.2, 0.0);
      BreakTangents(curve, 1);
      Left(curve, 1, -0.2, 0.3);
      Right(curve, 1, 0.2, 0.3);
      Left(curve, 2, -0.2, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::GLACIER_2:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {1.0, 1.0}}));
      Left(curve, 0, 0.0, 0.0);
      Right(curve, 0, 0.75, 0.0);
      Left(curve, 1, -0.1, 0.0);
      Right(curve, 1, 0.0, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::PLATEAU_2:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {0.5, 0.5}, {1.0, 1.0}}));
      Right(curve, 0, 0.0, 0.0);
      Left(curve, 1, -0.2, 0.0);
      Right(curve, 1, 0.2, 0.0);
      // Index 3 is past the last knot, so knot 2 keeps its inserted tangents. Kept on
      // purpose: the preset's shape depends on it.
      Left(curve, 3, 0.0, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::CRATERS:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.5}, {0.5, 0.2}, {1.0, 0.5}}));
      Right(curve, 0, 0.2, -0.2);
      BreakTangents(curve, 1);
      Left(curve, 1, -0.2, -0.3);
      Right(curve, 1, 0.2, -0.3);
      Left(curve, 2, -0.2, -0.3);
      return platform::Ok();
    case SPLINEDATAPRESET::FLATTENVALLEYS:
      VLGD_RETURN_IF_ERROR(InsertKnots(curve, {{0.0, 0.0}, {1.0, 1.0}}));
      Right(curve, 0, 0.25, 0.0);
      Left(curve, 1, 0.0, 0.0);
      return platform::Ok();
    case SPLINEDATAPRESET::LINEAR:
    default:
      return curve.MakeLinearSpline(2);
  }
}

}  // namespace

Status ApplySplinePreset(SplineData& curve, Int32 preset) {
  // Built aside and moved in, so a failed allocation leaves the caller's curve intact.
  SplineData built;
  VLGD_RETURN_IF_ERROR(BuildPreset(built, static_cast<SPLINEDATAPRESET>(preset)));
  curve = std::move(built);
  return platform::Ok();
}

Status InitGradientProfile(SplineData& profile) {
  SplineData built;
  VLGD_RETURN_IF_ERROR(InsertKnots(built, {{0.0, 0.0}, {1.0, 1.0}}));
  Right(built, 0, 0.5, 0.0);
  Left(built, 1, -0.2, 0.0);
  profile = std::move(built);
  return platform::Ok();
}

}  // namespace VLGD
