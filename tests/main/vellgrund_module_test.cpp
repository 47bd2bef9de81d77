#include "main/vellgrund_module.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <string>
#include <variant>
#include <vector>

#include "common/vlgd_icons.h"
#include "platform/image.h"
#include "support/temp_dir.h"

namespace {

using namespace platform;

TEST(ModuleTest, RegistersTheMenuInOrderAndNeedsBothIconSheets) {
  Host host;
  CollectingConsole console;
  host.SetConsole(console);
  ASSERT_TRUE(VLGD::StartModule(host));
  // The menu is the descriptors with a sort number, by that number, ties in registration
  // order; each entry names its type by its string, and every type has its text and an icon
  // cell inside its sheet.
  const Result<Image> sheet = ReadImage(ResourceFolder() / VLGD::kMainIconSheet);
  ASSERT_TRUE(sheet);
  std::vector<const TypeDescriptor*> inMenu;
  for (const TypeDescriptor* type : VLGD::RegisteredTypes()) {
    if (!type->sort) continue;
    inMenu.push_back(type);
    if (type->kind == PluginKind::SEPARATOR) continue;
    EXPECT_TRUE(host.GetStrings().Contains(type->nameStringId)) << type->resourceName;
    ASSERT_TRUE(type->icon) << type->resourceName;
    EXPECT_EQ(type->icon->x % 64 + type->icon->y % 64, 0) << type->resourceName;
    EXPECT_LE(type->icon->x + 64, sheet->Width()) << type->resourceName;
    EXPECT_LE(type->icon->y + 64, sheet->Height()) << type->resourceName;
  }
  std::stable_sort(inMenu.begin(), inMenu.end(), [](auto* a, auto* b) { return *a->sort < *b->sort; });
  const std::vector<const PluginInfo*> menu = host.GetRegistry().MenuOrder();
  ASSERT_EQ(menu.size(), inMenu.size());
  for (std::size_t i = 0; i < menu.size(); ++i) {
    EXPECT_EQ(menu[i]->id, inMenu[i]->id);
    const std::string name =
        inMenu[i]->kind == PluginKind::SEPARATOR ? "--" : host.GetStrings().Get(inMenu[i]->nameStringId);
    EXPECT_EQ(menu[i]->registeredName, "#$" + std::to_string(*inMenu[i]->sort) + name);
  }
  EXPECT_EQ(console.Lines().at(1), "Procedural terrain for artists and technical directors.");
  EXPECT_FALSE(VLGD::PluginStart(host));  // every name is taken now
  EXPECT_EQ(console.Lines().back(), "The enumeration BLENDMODE is already registered!");

  // An operator type whose ID is taken stops the start-up.
  Host clash;
  clash.SetConsole(console);
  ASSERT_TRUE(VLGD::PluginMessage(clash, VLGD::kSystemInit));
  ASSERT_TRUE(clash.GetRegistry().RegisterNodeType(
      {.id = 1054581, .resourceName = "oother", .allocate = [] { return std::make_unique<ObjectData>(); }}, {}));
  EXPECT_FALSE(VLGD::PluginStart(clash));
  EXPECT_EQ(console.Lines().back(), "VLGD: Operator with this id already registered!");
  // The resolution commands register their icons in one step: the second icon's failure
  // stops the first command too.
  Host iconClash;
  iconClash.SetConsole(console);
  ASSERT_TRUE(VLGD::PluginMessage(iconClash, VLGD::kSystemInit));
  ASSERT_TRUE(iconClash.GetRegistry().RegisterIcon(1056091, {"elsewhere.tif", 0, 0}));
  EXPECT_FALSE(VLGD::PluginStart(iconClash));
  EXPECT_EQ(console.Lines().back(), "An icon with the ID 1056091 is already registered!");
  EXPECT_EQ(iconClash.GetRegistry().Find(1056090), nullptr);
  EXPECT_TRUE(VLGD::PluginMessage(host, 1000));
  EXPECT_FALSE(VLGD::PluginMessage(host, 77));

  // A resource folder without the blend-mode sheet fails the start-up.
  testing_support::TempDir dir;
  const std::filesystem::path source = ResourceFolder();
  std::filesystem::copy(source / "strings", dir.Path() / "strings");
  std::filesystem::copy_file(source / "vellgrund_icons.tif", dir.Path() / "vellgrund_icons.tif");
  Host other;
  EXPECT_FALSE(VLGD::PluginMessage(other, VLGD::kSystemInit, dir.Path()));
  const auto failed = VLGD::StartModule(other, dir.Path());
  ASSERT_FALSE(failed);
  EXPECT_NE(failed.error().message.find("vellgrund_blendmodes.tif"), std::string::npos);
  VLGD::PluginEnd();
}

// What an editor and the scene loader need of every registered node type: each number has
// both limits around its default, and each choice spans exactly its members and starts on one.
TEST(ModuleTest, EveryNumberHasLimitsAroundItsDefaultAndChoicesSpanTheirMembers) {
  Host host;
  CollectingConsole console;
  host.SetConsole(console);
  ASSERT_TRUE(VLGD::StartModule(host));
  const Registry& registry = host.GetRegistry();
  int numbers = 0;
  for (const auto& info : registry.All()) {
    if (info->kind != PluginKind::OBJECT) continue;
    for (const ParameterDescription& parameter : info->description.Parameters()) {
      const bool numeric = parameter.type == ValueType::INT32 || parameter.type == ValueType::INT64 ||
                           parameter.type == ValueType::FLOAT || parameter.type == ValueType::VECTOR;
      if (parameter.kind != ParameterKind::VALUE || !numeric) continue;
      const std::string what = info->resourceName + " " + parameter.symbol;
      ++numbers;
      ASSERT_TRUE(parameter.minimum && parameter.maximum) << what;
      EXPECT_LT(*parameter.minimum, *parameter.maximum) << what;
      const Value& fallback = parameter.defaultValue;
      const std::vector<Float> defaults =
          fallback.Type() == ValueType::VECTOR
              ? std::vector<Float>{std::get<Vector>(fallback.Data()).x, std::get<Vector>(fallback.Data()).y,
                                   std::get<Vector>(fallback.Data()).z}
          : fallback.Type() == ValueType::NONE ? std::vector<Float>{}
                                               : std::vector<Float>{fallback.ToFloat(0.0)};
      for (const Float value : defaults) {
        EXPECT_GE(value, *parameter.minimum) << what;
        EXPECT_LE(value, *parameter.maximum) << what;
      }
      if (parameter.enumeration.empty()) continue;
      const Enumeration* enumeration = registry.Enumerations().Find(parameter.enumeration);
      ASSERT_NE(enumeration, nullptr) << what;
      Int lowest = std::numeric_limits<Int>::max();
      Int highest = std::numeric_limits<Int>::min();
      for (const EnumMember& member : enumeration->members) {
        lowest = std::min(lowest, member.value);
        highest = std::max(highest, member.value);
      }
      EXPECT_EQ(*parameter.minimum, static_cast<Float>(lowest)) << what;
      EXPECT_EQ(*parameter.maximum, static_cast<Float>(highest)) << what;
      EXPECT_TRUE(enumeration->NameOf(fallback.ToInt64(0))) << what;
    }
  }
  // The terrain, twelve operators and three field shapes hold far more than this.
  EXPECT_GT(numbers, 60);
}

}  // namespace
