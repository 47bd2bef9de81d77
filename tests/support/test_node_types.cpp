#include "support/test_node_types.h"

#include <gtest/gtest.h>

namespace testing_support {

using namespace platform;

bool RecordingObjectData::Init(Node& node) {
  return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
}

bool RecordingObjectData::Message(Node&, Int32 type, MessageData& data) {
  messages.emplace_back(type, data.parameter);
  return true;
}

bool RecordingObjectData::GetDEnabling(const Node& node, ParameterId id, const Value&) const {
  return id != kTestDependent || node.GetData().GetBool(kTestSwitch);
}

Result<std::unique_ptr<GeometryObject>> RecordingObjectData::GetVirtualObjects(Node& node, const HierarchyHelp&) {
  if (!node.CheckCache()) return std::unique_ptr<GeometryObject>{};
  const Float x = node.GetData().GetFloat(kTestFloat);
  if (x > 5.0) return GenericError("Test generator refuses values above 5!");
  ++builds;
  VLGD_ASSIGN_OR_RETURN(auto mesh, PolygonObject::Create(1, 0));
  mesh->GetPointW()[0] = Vector{x, 0.0, 0.0};
  return std::unique_ptr<GeometryObject>(std::move(mesh));
}

void RegisterTestNodeTypes(Host& host) {
  Registry& registry = host.GetRegistry();
  ASSERT_TRUE(registry.Enumerations().Register({"TESTMODE", {{"FIRST", 0}, {"SECOND", 1}}}));
  Description description{"otest", {}, {}};
  description.parameters = {
      {.id = kTestFloat, .symbol = "TEST_FLOAT", .type = ValueType::FLOAT, .defaultValue = 1.0, .minimum = 0.0,
       .maximum = 10.0},
      {.id = kTestMode, .symbol = "TEST_MODE", .type = ValueType::INT32, .defaultValue = Int32{0},
       .enumeration = "TESTMODE"},
      {.id = kTestSwitch, .symbol = "TEST_SWITCH", .type = ValueType::BOOL, .defaultValue = false},
      {.id = kTestDependent, .symbol = "TEST_DEPENDENT", .type = ValueType::FLOAT, .defaultValue = 2.0},
      {.id = kTestButton, .symbol = "TEST_BUTTON", .kind = ParameterKind::BUTTON},
  };
  const auto allocate = [] { return std::make_unique<RecordingObjectData>(); };
  ASSERT_TRUE(registry.RegisterNodeType({.id = kTestObjectType, .resourceName = "otest", .allocate = allocate},
                                        description));
  ASSERT_TRUE(registry.RegisterDescription(kTestBaseType, description));
  ASSERT_TRUE(registry.RegisterNodeType({.id = kTestDerivedType,
                                         .resourceName = "otestderived",
                                         .baseTypes = {kTestBaseType},
                                         .allocate = allocate},
                                        Description{"otestderived", {"otest"}, {}}));
  ASSERT_TRUE(registry.RegisterNodeType({.id = kTestGeneratorType,
                                         .resourceName = "otestgenerator",
                                         .objectInfo = OBJECT_GENERATOR,
                                         .allocate = allocate},
                                        description));
}

}  // namespace testing_support
