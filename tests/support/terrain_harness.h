#pragma once

#include <memory>
#include <string>

#include "object/terrainobject.h"
#include "platform/host.h"

namespace testing_support {

// Operators for engine tests. The generator fills its result with its value plus the
// column index; the filter adds its amount to the incoming heights. Both count their
// computations and list their value as the only parameter that needs a rebuild.
constexpr platform::Int32 kTestGeneratorOperator = 1900001;
constexpr platform::Int32 kTestFilterOperator = 1900002;
constexpr platform::ParameterId kOperatorValue = 10001;          // Float
constexpr platform::ParameterId kOperatorFollowsTerrain = 10002;  // Bool: DIRTY_MATRIX_TERRAIN

// A document with the module loaded and one Terrain object, edited and rebuilt by tests
// that then ask which operators were computed.
class TerrainHarness {
 public:
  explicit TerrainHarness(platform::Int32 resolution = 8, platform::Float size = 80.0);

  platform::Node* AddGenerator(const std::string& name, platform::Float value, platform::Node* parent = nullptr);
  platform::Node* AddFilter(const std::string& name, platform::Float amount, platform::Node* parent = nullptr);
  platform::Node* AddGroup(const std::string& name, platform::Node* parent = nullptr);
  // Any registered operator type, blending with ADD.
  platform::Node* AddOperator(platform::Int32 type, const std::string& name, platform::Node* parent = nullptr);
  void Set(platform::Node* node, platform::ParameterId id, platform::Value value);

  // Rebuilds every generator of the document, as the editor does before drawing.
  platform::Status Rebuild(platform::BuildPurpose purpose = platform::BuildPurpose::EDITOR);
  // The operators computed by the last rebuild, in order, separated by blanks; a Group's
  // children follow it in brackets.
  [[nodiscard]] std::string Rebuilt() const;
  [[nodiscard]] const VLGD::TerrainObject& Terrain() const;
  [[nodiscard]] platform::Float Height(platform::Int x, platform::Int z) const;

  platform::CollectingConsole console;
  platform::Host host;
  std::unique_ptr<platform::Document> doc;
  platform::Node* terrain = nullptr;
};

}  // namespace testing_support
