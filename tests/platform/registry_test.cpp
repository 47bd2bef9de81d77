#include "platform/registry.h"

#include <gtest/gtest.h>

#include "platform/node_data.h"

namespace {

using namespace platform;

PluginInfo Entry(Int32 id, PluginKind kind, std::string name, std::optional<Int32> sort) {
  PluginInfo info;
  info.id = id;
  info.kind = kind;
  info.resourceName = name;
  if (sort.has_value()) info.registeredName = MakeSortName(*sort, name);
  if (kind == PluginKind::OBJECT) info.allocate = [] { return std::make_unique<ObjectData>(); };
  return info;
}

TEST(RegistryTest, MenuOrderFollowsSortNumbersAndKeepsRegistrationOrderForTies) {
  Registry registry;
  ASSERT_TRUE(registry.RegisterNodeType(Entry(1, PluginKind::OBJECT, "oterrain", 10), {}));
  ASSERT_TRUE(registry.RegisterCommand(Entry(2, PluginKind::SEPARATOR, "--", 20)));
  ASSERT_TRUE(registry.RegisterNodeType(Entry(3, PluginKind::OBJECT, "oerosion", 38), {}));
  ASSERT_TRUE(registry.RegisterNodeType(Entry(4, PluginKind::OBJECT, "oquantize", 38), {}));
  ASSERT_TRUE(registry.RegisterNodeType(Entry(5, PluginKind::OBJECT, "onoise", 21), {}));
  ASSERT_TRUE(registry.RegisterNodeType(Entry(6, PluginKind::OBJECT, "ohidden", std::nullopt), {}));
  ASSERT_TRUE(registry.RegisterNodeType(Entry(7, PluginKind::OBJECT, "ofar", 100), {}));

  std::vector<Int32> order;
  for (const PluginInfo* info : registry.MenuOrder()) order.push_back(info->id);
  EXPECT_EQ(order, (std::vector<Int32>{1, 2, 5, 3, 4, 7}));
  EXPECT_EQ(registry.Find(7)->SortNumber(), 100);

  EXPECT_EQ(registry.FindByResourceName("oquantize")->id, 4);
  EXPECT_EQ(registry.FindByResourceName("--"), nullptr);
  EXPECT_EQ(registry.Find(99), nullptr);

  const auto duplicate = registry.RegisterCommand(Entry(3, PluginKind::COMMAND, "SomeCommand", 41));
  ASSERT_FALSE(duplicate);
  EXPECT_EQ(duplicate.error().message, "A plug-in with the ID 3 is already registered!");
  EXPECT_FALSE(registry.RegisterIcon(50, {"sheet.tif", 0, 0}) && registry.RegisterIcon(50, {"sheet.tif", 64, 0}));
  EXPECT_EQ(registry.FindIcon(50)->x, 0);
}

TEST(RegistryTest, DescriptionsIncludeSharedBlocksFirstAndRefuseClashes) {
  Registry registry;
  ASSERT_TRUE(registry.RegisterDescription(
      100, {"Obase", {}, {{.id = 1001, .symbol = "BASE_STRENGTH", .type = ValueType::FLOAT, .defaultValue = 1.0}}}));
  const Description own{"oown", {"Obase"}, {{.id = 10001, .symbol = "OWN_SEED", .type = ValueType::INT32}}};
  ASSERT_TRUE(registry.RegisterNodeType(Entry(200, PluginKind::OBJECT, "oown", 31), own));
  const FlatDescription& flat = registry.Find(200)->description;
  ASSERT_EQ(flat.Parameters().size(), 2u);
  EXPECT_EQ(flat.Parameters()[0].symbol, "BASE_STRENGTH");
  EXPECT_EQ(flat.FindSymbol("OWN_SEED")->id, 10001);
  ParameterContainer defaults;
  ASSERT_TRUE(flat.WriteDefaults(defaults));
  EXPECT_EQ(defaults.Count(), 1);  // the seed has no default to write

  const Description unknownInclude{"obad", {"Onothing"}, {}};
  EXPECT_FALSE(registry.RegisterNodeType(Entry(201, PluginKind::OBJECT, "obad", 32), unknownInclude));
  const Description clash{"oclash", {"Obase"}, {{.id = 1001, .symbol = "OTHER", .type = ValueType::BOOL}}};
  const auto refused = registry.RegisterNodeType(Entry(202, PluginKind::OBJECT, "oclash", 33), clash);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "The parameter ID 1001 is described twice!");
  EXPECT_EQ(registry.Find(202), nullptr);
}

TEST(RegistryTest, EnumerationsTranslateNamesAndFlagSets) {
  EnumRegistry enumerations;
  ASSERT_TRUE(enumerations.Register({"MODE", {{"NORMAL", 0}, {"ADD", 1}}}));
  ASSERT_TRUE(enumerations.Register({"FLAGS", {{"NONE", 0}, {"FILTER", 1}, {"GENERATOR", 2}, {"MATRIX", 4}}, true}));
  EXPECT_FALSE(enumerations.Register({"MODE", {}}));

  const Enumeration* mode = enumerations.Find("MODE");
  EXPECT_EQ(mode->ValueOf("ADD"), 1);
  EXPECT_EQ(mode->ValueOf("add"), std::nullopt);
  EXPECT_EQ(mode->NameOf(0), "NORMAL");
  EXPECT_EQ(mode->NameOf(3), std::nullopt);

  const Enumeration* flags = enumerations.Find("FLAGS");
  EXPECT_EQ(flags->NameOf(0), "NONE");
  EXPECT_EQ(flags->NameOf(6), "GENERATOR|MATRIX");
  EXPECT_EQ(flags->NameOf(8), std::nullopt);
}

}  // namespace
