#include "vellgrund/enumerations.h"

#include "common/vlgd_geometry.h"
#include "common/vlgd_gui.h"
#include "vellgrund/baseterrainoperator.h"
#include "vellgrund/blend.h"
#include "vellgrund/evaluation.h"
#include "vellgrund/grid2d.h"

namespace VLGD {
namespace {

using platform::Enumeration;
using platform::Int;

template <class Enum>
platform::EnumMember Member(const char* name, Enum value) {
  return {name, static_cast<Int>(value)};
}

}  // namespace

platform::Enumeration SplinePresets() {
  using S = SPLINEDATAPRESET;
  return {"SPLINEDATAPRESET",
          {Member("LINEAR", S::LINEAR), Member("CANYON", S::CANYON), Member("GLACIER", S::GLACIER),
           Member("PLATEAU", S::PLATEAU), Member("EMPHASIZE", S::EMPHASIZE), Member("TERRACE_1", S::TERRACE_1),
           Member("TERRACE_2", S::TERRACE_2), Member("DUNES", S::DUNES), Member("DUNES_2", S::DUNES_2),
           Member("GLACIER_2", S::GLACIER_2), Member("PLATEAU_2", S::PLATEAU_2), Member("CRATERS", S::CRATERS),
           Member("FLATTENVALLEYS", S::FLATTENVALLEYS)}};
}

platform::Status RegisterEnumerations(platform::Registry& registry) {
  using B = BLENDMODE;
  using F = TERRAINOPERATORFLAGS;
  const Enumeration splinePresets = SplinePresets();
  const Enumeration enumerations[] = {
      {"BLENDMODE",
       {Member("NORMAL", B::NORMAL), Member("ADD", B::ADD), Member("SUBTRACT", B::SUBTRACT),
        Member("MULTIPLY", B::MULTIPLY), Member("DIVIDE", B::DIVIDE), Member("LOWEST", B::LOWEST),
        Member("HIGHEST", B::HIGHEST), Member("DIFFERENCE", B::DIFFERENCE), Member("PHOENIX", B::PHOENIX),
        Member("PHOENIXINVERSE", B::PHOENIXINVERSE), Member("OVERLAY", B::OVERLAY), Member("NEGATION", B::NEGATION),
        Member("SCREEN", B::SCREEN), Member("SOFTLIGHT", B::SOFTLIGHT), Member("HARDLIGHT", B::HARDLIGHT)}},
      {"SAMPLEINTERPOLATION",
       {Member("NEAREST", SAMPLEINTERPOLATION::NEAREST), Member("BILINEAR", SAMPLEINTERPOLATION::BILINEAR),
        Member("BICUBIC", SAMPLEINTERPOLATION::BICUBIC)}},
      {"OUTOFBOUNDSMODE",
       {Member("NONE", OUTOFBOUNDSMODE::NONE), Member("CLAMP", OUTOFBOUNDSMODE::CLAMP),
        Member("TILE", OUTOFBOUNDSMODE::TILE), Member("MIRROR", OUTOFBOUNDSMODE::MIRROR)}},
      {"TERRAINOPERATORFLAGS",
       {Member("NONE", F::NONE), Member("TYPE_FILTER", F::TYPE_FILTER), Member("TYPE_GENERATOR", F::TYPE_GENERATOR),
        Member("DIRTY_MATRIX_OPERATOR", F::DIRTY_MATRIX_OPERATOR),
        Member("DIRTY_MATRIX_TERRAIN", F::DIRTY_MATRIX_TERRAIN),
        Member("DIRTY_MATRIX_PARENTHIERARCHY", F::DIRTY_MATRIX_PARENTHIERARCHY),
        Member("REQUIRES_MINMAX", F::REQUIRES_MINMAX)},
       true},
      {"EVALUATIONRESULT", {Member("REBUILT", EVALUATIONRESULT::REBUILT), Member("CACHED", EVALUATIONRESULT::CACHED)}},
      {"OPERATORDIRTY",
       {Member("CLEAN", OPERATORDIRTY::CLEAN), Member("REEVALUATE", OPERATORDIRTY::REEVALUATE),
        Member("REBUILD", OPERATORDIRTY::REBUILD)}},
      {"EvaluationQueue::STATUS",
       {Member("UNKNOWN", EvaluationQueue::STATUS::UNKNOWN), Member("OK", EvaluationQueue::STATUS::OK),
        Member("EVALUATE", EvaluationQueue::STATUS::EVALUATE)}},
      {"PLANETESSELATIONMODE",
       {Member("QUADS", PLANETESSELATIONMODE::QUADS), Member("TRIS1", PLANETESSELATIONMODE::TRIS1),
        Member("TRIS2", PLANETESSELATIONMODE::TRIS2)}},
      splinePresets,
  };
  for (const Enumeration& enumeration : enumerations)
    VLGD_RETURN_IF_ERROR(registry.Enumerations().Register(enumeration));
  for (const platform::EnumMember& preset : splinePresets.members) {
    const auto value = static_cast<platform::Int32>(preset.value);
    VLGD_RETURN_IF_ERROR(registry.RegisterCurvePreset(
        preset.name, [value](platform::SplineData& curve) { return ApplySplinePreset(curve, value); }));
  }
  return platform::Ok();
}

}  // namespace VLGD
