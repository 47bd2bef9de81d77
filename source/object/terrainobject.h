#pragma once

#include <memory>
#include <vector>
#include "platform/registry.h"

#include "platform/image.h"
#include "vellgrund/evaluation.h"

namespace VLGD {

inline constexpr platform::Int32 ID_TERRAINOBJECT = 1054563;
// The preference container of the module; also the message that says it changed.
inline constexpr platform::Int32 ID_PREFERENCES = 1055624;

enum TerrainObjectParameter : ParameterId {
  TERRAINOBJECT_SIZE_X = 10000,
  TERRAINOBJECT_SIZE_Z = 10001,
  TERRAINOBJECT_RESOLUTION_X = 10002,
  TERRAINOBJECT_RESOLUTION_Z = 10003,
  TERRAINOBJECT_ISOPARM_LINES = 10004,
  TERRAINOBJECT_LOCK_DENSITY = 10005,
  TERRAINOBJECT_EDGE_HEIGHT = 10012,
  TERRAINOBJECT_EDGE_FALLOFF = 10013,
  TERRAINOBJECT_CURVATURE = 10014,
  TERRAINOBJECT_CURVATURE_RADIUS = 10015,
  TERRAINOBJECT_CURVATURE_INVERT = 10016,
  TERRAINOBJECT_PHONG = 10017,
  TERRAINOBJECT_TESSELATION = 10018,
  TERRAINOBJECT_HULL = 10019,
  TERRAINOBJECT_HULL_DEPTH = 10020,
  TERRAINOBJECT_EXPORT_MODE = 10090,
  TERRAINOBJECT_EXPORT = 10091,
  TERRAINOBJECT_MEMORY_INFO = 10092,
};

// Key of the preference container that caps the resolution per axis.
constexpr ParameterId PREFS_MAX_RESOLUTION = 1000;
// Bool: the viewport overlay draws after each rebuild.
constexpr ParameterId PREFS_SHOW_OVERLAY = 1002;
constexpr Int32 kDefaultMaxResolution = 4000;
// The most a resolution or its preference cap can be: a 16385 x 16385 grid of Floats is
// about 2 GB, and every operator holds one or two of them.
constexpr Int32 kHardMaxResolution = 16384;

// The generator the user places in a scene: evaluates its operator children into a height
// grid and turns it into a mesh, optionally with curvature, a hull and isoparms.
class TerrainObject final : public platform::ObjectData {
 public:
  bool Init(Node& node) override;
  bool Read(Node& node, Int32 diskLevel) override;
  bool Message(Node& node, Int32 type, MessageData& data) override;
  [[nodiscard]] bool GetDEnabling(const Node& node, ParameterId id, const Value& value) const override;
  void GetDimension(const Node& node, platform::Vector& centre, platform::Vector& radius) const override;
  Result<std::unique_ptr<platform::GeometryObject>> GetVirtualObjects(Node& node,
                                                                      const platform::HierarchyHelp& help) override;

  [[nodiscard]] const Grid2D<Float>& GetGrid() const { return *grid_; }
  // The grid of the last build for a reader that may outlive the next one: each build
  // makes a new grid instead of overwriting this.
  [[nodiscard]] std::shared_ptr<const Grid2D<Float>> ShareGrid() const { return grid_; }
  [[nodiscard]] const EvaluationQueue& GetQueue() const { return queue_; }

  // What the last build did with each operator of the stack, in order: for front-ends that
  // show statistics or trace a height back to the operator that made it.
  struct OperatorReport {
    const Node* object = nullptr;
    bool rebuilt = false;
    Float seconds = 0.0;
    Int memoryBytes = 0;
    const Grid2D<Float>* result = nullptr;
  };
  [[nodiscard]] std::vector<OperatorReport> LastBuildReport() const;
  [[nodiscard]] const std::vector<Int32>& GetBorderIndices() const { return border_; }
  // The grid as a one-channel float image: raw heights, or remapped from the grid's
  // minimum and maximum to 0 .. 1.
  [[nodiscard]] Result<platform::Image> HeightImage(bool normalized) const;

 private:
  Status ExportHeightMap(Node& node);

  std::shared_ptr<Grid2D<Float>> grid_ = std::make_shared<Grid2D<Float>>();
  EvaluationQueue queue_;
  bool evaluatedOnce_ = false;
  Float densityX_ = 0.0;
  Float densityZ_ = 0.0;
  std::vector<Int32> border_;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& TerrainObjectType();

}  // namespace VLGD
