#pragma once

#include <utility>
#include <vector>

#include "platform/host.h"
#include "platform/node.h"

namespace testing_support {

// Node types for platform tests: a plain object with every kind of description entry, an
// object that is also an instance of a base type, and a generator.
constexpr platform::Int32 kTestObjectType = 1000001;
constexpr platform::Int32 kTestDerivedType = 1000002;
constexpr platform::Int32 kTestGeneratorType = 1000003;
constexpr platform::Int32 kTestBaseType = 1000100;

// Parameters of the test object.
constexpr platform::ParameterId kTestFloat = 1001;      // Float, default 1, limits 0 .. 10
constexpr platform::ParameterId kTestMode = 1002;       // Int32 of the TESTMODE enumeration, default 0
constexpr platform::ParameterId kTestSwitch = 1003;     // Bool, default false
constexpr platform::ParameterId kTestDependent = 1004;  // Float, enabled only while kTestSwitch is on
constexpr platform::ParameterId kTestButton = 1005;

// The data of every test type records the messages it receives.
class RecordingObjectData : public platform::ObjectData {
 public:
  bool Init(platform::Node& node) override;
  bool Message(platform::Node& node, platform::Int32 type, platform::MessageData& data) override;
  [[nodiscard]] bool GetDEnabling(const platform::Node& node, platform::ParameterId id,
                                  const platform::Value& value) const override;
  // The generator builds one point at (kTestFloat, 0, 0) and fails for kTestFloat above 5.
  platform::Result<std::unique_ptr<platform::GeometryObject>> GetVirtualObjects(
      platform::Node& node, const platform::HierarchyHelp& help) override;

  std::vector<std::pair<platform::Int32, platform::Int32>> messages;  // (type, parameter)
  int builds = 0;
};

void RegisterTestNodeTypes(platform::Host& host);

}  // namespace testing_support
