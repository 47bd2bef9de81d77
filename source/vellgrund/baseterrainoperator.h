#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/document.h"
#include "platform/node.h"
#include "platform/node_data.h"
#include "platform/registry.h"
#include "platform/strings.h"
#include "platform/types.h"
#include "vellgrund/blend.h"
#include "vellgrund/grid2d.h"
#include "vellgrund/observable.h"

namespace VLGD {

using platform::Document;
using platform::MessageData;
using platform::Node;
using platform::ParameterContainer;
using platform::ParameterId;
using platform::UInt32;
using platform::UInt64;
using platform::Value;

// What an operator is and what makes it dirty. Stored in documents by value.
enum class TERRAINOPERATORFLAGS : UInt32 {
  NONE = 0,
  TYPE_FILTER = 1,     // transforms the incoming terrain; publishes its change map
  TYPE_GENERATOR = 2,  // creates heights of its own
  DIRTY_MATRIX_OPERATOR = 4,
  DIRTY_MATRIX_TERRAIN = 8,
  DIRTY_MATRIX_PARENTHIERARCHY = 16,
  REQUIRES_MINMAX = 32,  // needs the incoming grid's minimum and maximum to be current
};

constexpr TERRAINOPERATORFLAGS operator|(TERRAINOPERATORFLAGS a, TERRAINOPERATORFLAGS b) {
  return static_cast<TERRAINOPERATORFLAGS>(static_cast<UInt32>(a) | static_cast<UInt32>(b));
}
constexpr TERRAINOPERATORFLAGS operator&(TERRAINOPERATORFLAGS a, TERRAINOPERATORFLAGS b) {
  return static_cast<TERRAINOPERATORFLAGS>(static_cast<UInt32>(a) & static_cast<UInt32>(b));
}
constexpr bool HasFlag(TERRAINOPERATORFLAGS flags, TERRAINOPERATORFLAGS flag) {
  return (flags & flag) == flag;
}

// Whether an operator's result was computed in this evaluation or reused.
enum class EVALUATIONRESULT : UInt32 {
  REBUILT = 0,
  CACHED = 1,
};

// What a change means for an operator.
enum class OPERATORDIRTY : UInt32 {
  CLEAN = 0,
  REEVALUATE = 1,  // the result stays valid; blending or mask inputs changed
  REBUILD = 2,     // the result must be computed again
};

// Plug-in IDs of the engine's own concepts; each node type keeps its ID beside its unit.
enum PluginId : Int32 {
  ID_BASETERRAINOPERATOR = 1054564,  // the type every operator is an instance of
  ID_CUSTOMOUTPUT_CHANGEMAP = 1056542,
  // The terrain operator shader; also the message that tells materials an operator changed.
  ID_TERRAINOPERATORSHADER_MESSAGE = 1054655,
};

// Parameters every operator has.
enum TerrainOperatorParameter : ParameterId {
  TERRAINOPERATOR_STRENGTH = 1001,
  TERRAINOPERATOR_BLENDMODE = 1002,
  TERRAINOPERATOR_HEIGHTSCALE = 1003,  // scale of the additive modes, a height amount
  TERRAINOPERATOR_OFFSET = 1004,
  TERRAINOPERATOR_FACTOR = 1005,   // scale of the factor modes
  TERRAINOPERATOR_VERSION = 1090,  // the operator format the values were written in
  TERRAINOPERATOR_EXPORT_CHANGEMAP = 1091,
  TERRAINOPERATOR_STATUS = 1092,
  TERRAINOPERATOR_MASKING_FIELDS_LIST = 3001,
  TERRAINOPERATOR_MASKING_SLOPE_ENABLED = 3021,
  TERRAINOPERATOR_MASKING_SLOPE_LOW = 3022,
  TERRAINOPERATOR_MASKING_SLOPE_HIGH = 3023,
  TERRAINOPERATOR_MASKING_SLOPE_LOWFALLOFF = 3024,
  TERRAINOPERATOR_MASKING_SLOPE_HIGHFALLOFF = 3025,
  TERRAINOPERATOR_MASKING_HEIGHT_ENABLED = 3031,
  TERRAINOPERATOR_MASKING_HEIGHT_LOW = 3032,
  TERRAINOPERATOR_MASKING_HEIGHT_HIGH = 3033,
  TERRAINOPERATOR_MASKING_HEIGHT_LOWFALLOFF = 3034,
  TERRAINOPERATOR_MASKING_HEIGHT_HIGHFALLOFF = 3035,
};

// Messages for the outputs an operator publishes besides its result.
enum TerrainOperatorMessage : Int32 {
  // payload: std::vector<CustomOutput>*, filled with the operator's outputs
  MSG_TERRAINOPERATOR_GETCUSTOMOUTPUTS = 1056543,
  // payload: CustomOutputExport*; info: the export mode
  MSG_TERRAINOPERATOR_EXPORTCUSTOMOUTPUT = 1056544,
};

struct CustomOutput {
  Int32 id = 0;
  std::string name;
};

// Writes one custom output as a 32-bit float TIFF.
struct CustomOutputExport {
  Int32 outputId = ID_CUSTOMOUTPUT_CHANGEMAP;
  std::filesystem::path path;  // ".tif" is added when the path has another ending
  Status result = platform::Ok();
};

// Operators written before this version keep their factor in the height scale.
constexpr Int32 kTerrainOperatorVersion = 9;
// The largest distance or height, in units, a parameter takes: far beyond any scene, yet
// small enough that squares and sums of such values stay exact enough in a Float.
constexpr Float kMaxWorldDistance = 1.0e6;

// Where and how the stack is evaluated; passed to every operator untouched, except that a
// Group replaces the parent hierarchy matrix for its children.
struct EvaluationContext {
  Int32 resolutionX = 0;  // samples minus one per axis
  Int32 resolutionZ = 0;
  Float sizeX = 0.0;
  Float sizeZ = 0.0;
  platform::Matrix terrainMatrix;
  platform::Matrix parentHierarchyMatrix;
  platform::Matrix parentHierarchyMatrixInverse;
  platform::BuildPurpose purpose = platform::BuildPurpose::EDITOR;
  const platform::CancellationToken* thread = nullptr;
  platform::ProgressSink* progress = nullptr;
};

// The values the dirty check compares between builds.
struct DirtySnapshot {
  UInt32 dataDirty = 0;
  UInt64 operatorMatrixHash = 0;
  UInt64 terrainMatrixHash = 0;
  UInt64 parentHierarchyMatrixHash = 0;
  UInt32 fieldsDirty = 0;
  UInt32 fieldLayersDirty = 0;
  UInt32 fieldObjectsDirty = 0;
  UInt64 previousIdentity = 0;
  UInt32 previousDirty = 0;
  friend bool operator==(const DirtySnapshot&, const DirtySnapshot&) = default;
};

// Reads the blend settings of an operator's parameters.
BlendSettings ReadBlendSettings(const ParameterContainer& data);

// Status text for a memory amount, e.g. "Memory: 16.00 MB".
std::string FormatMemory(const platform::StringTable& strings, Int bytes);

// The common part of every terrain operator: its result grid, the change map filters
// publish, the dirty snapshot, the evaluation wrapper and the combination into the terrain.
class BaseTerrainOperatorData : public platform::ObjectData {
 public:
  [[nodiscard]] virtual TERRAINOPERATORFLAGS GetFlags(const Node& op) const = 0;
  // Writes the operator's own defaults after the common ones.
  virtual bool InitOperatorDefaults(ParameterContainer& data) {
    (void)data;
    return true;
  }
  // Messages the base does not handle itself; true when handled.
  virtual bool OperatorMessage(Node& op, Int32 type, MessageData& data) {
    (void)op;
    (void)type;
    (void)data;
    return false;
  }
  [[nodiscard]] virtual bool GetOperatorDescriptionVisibility(const Node& op, ParameterId id) const {
    (void)op;
    (void)id;
    return true;
  }
  [[nodiscard]] virtual bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const {
    (void)op;
    (void)id;
    (void)value;
    return true;
  }
  // Writes result from the incoming grid (the terrain made by the operators before).
  virtual Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) = 0;
  virtual Status CombineIntoTerrain(Grid2D<Float>& terrain, Node& op, Document& doc, const EvaluationContext& context);
  // The blend settings the combination reads from the operator's parameters. An operator
  // whose result already holds scene heights leaves out the height scale.
  [[nodiscard]] virtual BlendSettings GetBlendSettings(const Node& op) const;
  // True forces a rebuild in the dirty check.
  virtual bool NeedsRebuild(Node& op, Document& doc, const EvaluationContext& context) {
    (void)op;
    (void)doc;
    (void)context;
    return false;
  }
  [[nodiscard]] virtual Int GetMemoryUsage() const;
  // A weight per sample of the result that the operator's own computation decided, 0 where
  // it leaves the terrain as it is; multiplied into the masks. Empty: full weight.
  [[nodiscard]] virtual std::span<const Float> GetResultMask() const { return {}; }
  // True when only the listed parameters (all, when the list stays empty) decide a
  // rebuild; changes of the others then only recombine.
  virtual bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const {
    (void)ids;
    (void)data;
    return false;
  }
  [[nodiscard]] std::string GetCustomOutputName(const platform::StringTable& strings, Int32 outputId) const;
  [[nodiscard]] const Grid2D<Float>* GetCustomOutput(Int32 outputId) const;

  bool Init(Node& node) override;
  bool Read(Node& node, Int32 diskLevel) override;
  bool Message(Node& node, Int32 type, MessageData& data) override;
  [[nodiscard]] bool GetDEnabling(const Node& node, ParameterId id, const Value& value) const override;
  [[nodiscard]] bool GetDVisibility(const Node& node, ParameterId id) const override;

  // The evaluation wrapper: computes when needed, updates the change map, the status text
  // and the dirty snapshot.
  Result<EVALUATIONRESULT> Evaluate(const Grid2D<Float>& incoming, Node& op, Document& doc,
                                    const EvaluationContext& context);

  [[nodiscard]] const Grid2D<Float>& GetResult() const { return result_; }
  [[nodiscard]] const Grid2D<Float>& GetChangeMap() const { return changeMap_; }
  // The weight of the last combination per sample (fields, slope and height range); empty
  // when the operator acted everywhere at full weight.
  [[nodiscard]] std::span<const Float> GetMask() const { return mask_; }
  // The materials whose shaders read this operator.
  [[nodiscard]] ObserverList& Observers() { return observers_; }
  // A freed operator tells its observers, which then read nothing from it.
  void Removing(Node& node, Document& doc) override;
  [[nodiscard]] bool NeedsEvaluation() const { return needsEvaluation_; }
  void SetNeedsEvaluation() { needsEvaluation_ = true; }

  // Writes a custom output as a 32-bit float TIFF.
  [[nodiscard]] Status ExportCustomOutput(Int32 outputId, std::filesystem::path path) const;

  DirtySnapshot current;                 // written by the dirty check
  DirtySnapshot last;                    // written when an evaluation finishes
  ParameterContainer parameterSnapshot;  // the parameters of the last evaluation

 protected:
  Grid2D<Float> result_;

 private:
  Grid2D<Float> changeMap_;
  std::vector<Float> mask_;  // kept between builds to reuse its memory
  ObserverList observers_;
  bool needsEvaluation_ = true;
};

// The description every operator's description includes.
// The parameters every operator includes.
const platform::TypeDescriptor& BaseTerrainOperatorType();

}  // namespace VLGD
