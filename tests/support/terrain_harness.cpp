#include "support/terrain_harness.h"

#include <gtest/gtest.h>

#include "main/vellgrund_module.h"
#include "object/operator_group.h"

namespace testing_support {
namespace {

using namespace platform;
using VLGD::TERRAINOPERATORFLAGS;

class TestOperator : public VLGD::BaseTerrainOperatorData {
 public:
  explicit TestOperator(bool filter) : filter_(filter) {}
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override {
    TERRAINOPERATORFLAGS flags = filter_ ? TERRAINOPERATORFLAGS::TYPE_FILTER : TERRAINOPERATORFLAGS::TYPE_GENERATOR;
    if (op.GetData().GetBool(kOperatorFollowsTerrain)) flags = flags | TERRAINOPERATORFLAGS::DIRTY_MATRIX_TERRAIN;
    return flags;
  }
  Status Compute(const VLGD::Grid2D<Float>& incoming, Node& op, Document&, const VLGD::EvaluationContext&) override {
    VLGD_RETURN_IF_ERROR(result_.InitFrom(incoming));
    const Float value = op.GetData().GetFloat(kOperatorValue);
    for (Int k = 0; k < result_.Count(); ++k)
      result_.Data()[k] = filter_ ? incoming.Data()[k] + value : value + static_cast<Float>(k % result_.Width());
    return Ok();
  }
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const override {
    ids = {kOperatorValue, kOperatorFollowsTerrain};
    return true;
  }

 private:
  bool filter_;
};

Description TestOperatorDescription(const char* name) {
  return {name,
          {"Obaseterrainoperator"},
          {{.id = kOperatorValue, .symbol = "TEST_VALUE", .type = ValueType::FLOAT, .defaultValue = 0.0},
           {.id = kOperatorFollowsTerrain, .symbol = "TEST_FOLLOWS_TERRAIN", .type = ValueType::BOOL,
            .defaultValue = false}}};
}

void RegisterTestOperators(Registry& registry) {
  for (const bool filter : {false, true}) {
    PluginInfo info;
    info.id = filter ? kTestFilterOperator : kTestGeneratorOperator;
    info.resourceName = filter ? "otestfilter" : "otestgenerator";
    info.baseTypes = {VLGD::ID_BASETERRAINOPERATOR};
    info.allocate = [filter] { return std::make_unique<TestOperator>(filter); };
    ASSERT_TRUE(registry.RegisterNodeType(std::move(info), TestOperatorDescription(filter ? "otestfilter" : "otestgenerator")));
  }
}

void AppendRebuilt(const VLGD::EvaluationQueue& queue, std::string& names) {
  for (const auto& item : queue.Items()) {
    if (item.result == VLGD::EVALUATIONRESULT::REBUILT) names.append(names.empty() ? "" : " ").append(item.object->GetName());
    if (const auto* group = dynamic_cast<const VLGD::GroupOperator*>(item.operatorData)) {
      std::string inner;
      AppendRebuilt(group->GetQueue(), inner);
      if (!inner.empty()) names.append(" [").append(inner).append("]");
    }
  }
}

}  // namespace

TerrainHarness::TerrainHarness(Int32 resolution, Float size) {
  host.SetConsole(console);
  EXPECT_TRUE(VLGD::StartModule(host));
  RegisterTestOperators(host.GetRegistry());
  doc = std::make_unique<Document>(host);
  auto created = doc->CreateNode(VLGD::ID_TERRAINOBJECT);
  EXPECT_TRUE(created);
  terrain = doc->InsertLast(std::move(*created));
  auto& data = terrain->GetDataInstance();
  EXPECT_TRUE(data.Set(VLGD::TERRAINOBJECT_RESOLUTION_X, resolution));
  EXPECT_TRUE(data.Set(VLGD::TERRAINOBJECT_RESOLUTION_Z, resolution));
  EXPECT_TRUE(data.Set(VLGD::TERRAINOBJECT_SIZE_X, size));
  EXPECT_TRUE(data.Set(VLGD::TERRAINOBJECT_SIZE_Z, size));
  // Tests see exactly the configured resolution, whatever the user's preference file says.
  EXPECT_TRUE(doc->OverrideWorldPluginData(VLGD::ID_PREFERENCES).Set(VLGD::PREFS_MAX_RESOLUTION, Int32{4000}));
}

Node* TerrainHarness::AddOperator(Int32 type, const std::string& name, Node* parent) {
  auto created = doc->CreateNode(type);
  EXPECT_TRUE(created);
  (*created)->SetName(name);
  EXPECT_TRUE((*created)->SetParameter(VLGD::TERRAINOPERATOR_BLENDMODE, Int32{1}));  // ADD
  return doc->InsertLast(std::move(*created), parent != nullptr ? parent : terrain);
}

Node* TerrainHarness::AddGenerator(const std::string& name, Float value, Node* parent) {
  Node* node = AddOperator(kTestGeneratorOperator, name, parent);
  Set(node, kOperatorValue, value);
  return node;
}

Node* TerrainHarness::AddFilter(const std::string& name, Float amount, Node* parent) {
  Node* node = AddOperator(kTestFilterOperator, name, parent);
  Set(node, kOperatorValue, amount);
  Set(node, VLGD::TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL: the filtered terrain replaces the terrain
  return node;
}

Node* TerrainHarness::AddGroup(const std::string& name, Node* parent) {
  return AddOperator(VLGD::ID_GROUPOPERATOR, name, parent);
}

void TerrainHarness::Set(Node* node, ParameterId id, Value value) {
  EXPECT_TRUE(doc->SetParameter(*node, id, std::move(value)));
}

Status TerrainHarness::Rebuild(BuildPurpose purpose) {
  HierarchyHelp help;
  help.purpose = purpose;
  return doc->ExecutePasses(help);
}

std::string TerrainHarness::Rebuilt() const {
  std::string names;
  AppendRebuilt(Terrain().GetQueue(), names);
  return names;
}

const VLGD::TerrainObject& TerrainHarness::Terrain() const { return *terrain->GetNodeData<VLGD::TerrainObject>(); }

Float TerrainHarness::Height(Int x, Int z) const { return Terrain().GetGrid().Get(x, z); }

}  // namespace testing_support
