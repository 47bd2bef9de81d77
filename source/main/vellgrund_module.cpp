#include "main/vellgrund_module.h"

#include <array>
#include <functional>
#include <memory>
#include <optional>

#include "command/command_blendmode.h"
#include "command/command_group.h"
#include "command/command_info.h"
#include "command/command_resolution.h"
#include "common/vlgd_icons.h"
#include "object/operator_adjustment.h"
#include "object/operator_blur.h"
#include "object/operator_clamp.h"
#include "object/operator_curve.h"
#include "object/operator_erosion.h"
#include "object/operator_fold.h"
#include "object/operator_gradient.h"
#include "object/operator_group.h"
#include "object/operator_mirror.h"
#include "object/operator_noise.h"
#include "object/operator_quantize.h"
#include "object/operator_shader.h"
#include "object/operator_sharpen.h"
#include "object/operator_spline.h"
#include "object/terrainobject.h"
#include "platform/image.h"
#include "shader/shader_colour.h"
#include "shader/shader_image.h"
#include "shader/shader_inputs.h"
#include "shader/shader_layer.h"
#include "shader/shader_terrainoperator.h"
#include "vellgrund/distortion.h"
#include "vellgrund/enumerations.h"
#include "vellgrund/string_ids.h"

namespace VLGD {
namespace {

using platform::Int32;
using platform::PluginInfo;
using platform::PluginKind;

// Owned by the module from the system-initialisation message until PluginEnd.
struct IconSheets {
  std::optional<platform::Image> main;
  std::optional<platform::Image> blendModes;
};
IconSheets& Sheets() {
  static IconSheets sheets;
  return sheets;
}

platform::TypeDescriptor Separator(Int32 id, Int32 sort) {
  return {.kind = PluginKind::SEPARATOR, .id = id, .resourceName = "--", .sort = sort};
}

// Kept for files that name it; nothing reads its parameters, and it has none.
const platform::TypeDescriptor& AddOperatorDescription() {
  static const platform::TypeDescriptor type{
      .kind = PluginKind::DESCRIPTION, .id = 1055093, .resourceName = "DaddOperator"};
  return type;
}

platform::Status RegisterBlendModeIcons(platform::Registry& registry) {
  Int32 k = 0;
  for (const Int32 id : kBlendModeIconIds) {
    VLGD_RETURN_IF_ERROR(registry.RegisterIcon(
        id, {kBlendModeIconSheet, 64 * (k % kBlendModeIconsPerRow), 64 * (k / kBlendModeIconsPerRow)}));
    ++k;
  }
  return platform::Ok();
}

platform::Status Register(platform::Host& host, const platform::TypeDescriptor& type) {
  platform::Registry& registry = host.GetRegistry();
  platform::Description description = type.describe != nullptr ? type.describe() : platform::Description{};
  if (type.kind == PluginKind::DESCRIPTION) {
    description.resourceName = std::string(type.resourceName);
    return registry.RegisterDescription(type.id, std::move(description));
  }
  PluginInfo info;
  info.id = type.id;
  info.kind = type.kind;
  info.resourceName = std::string(type.resourceName);
  info.nameStringId = type.nameStringId;
  info.helpStringId = type.helpStringId;
  info.icon = type.icon;
  info.diskLevel = type.diskLevel;
  info.objectInfo = type.objectInfo;
  info.baseTypes = type.baseTypes;
  if (type.sort.has_value())
    info.registeredName = platform::MakeSortName(
        *type.sort, type.kind == PluginKind::SEPARATOR ? std::string("--") : host.GetStrings().Get(type.nameStringId));
  if (type.kind == PluginKind::SEPARATOR) return registry.RegisterCommand(std::move(info));
  if (type.kind == PluginKind::COMMAND) {
    if (!type.command) return platform::IllegalArgumentError(info.resourceName + " has no command to run!");
    info.command = type.command();
    if (info.command == nullptr) return platform::OutOfMemoryError();
    // The second of a pair had its icon registered with the first.
    const bool iconDone = type.icon.has_value() && registry.FindIcon(type.id) != nullptr &&
                          registry.FindIcon(type.id)->x == type.icon->x && registry.FindIcon(type.id)->y == type.icon->y;
    if (type.icon.has_value() && !iconDone) VLGD_RETURN_IF_ERROR(registry.RegisterIcon(type.id, *type.icon));
    if (type.iconPartner != nullptr && type.iconPartner->icon.has_value())
      VLGD_RETURN_IF_ERROR(registry.RegisterIcon(type.iconPartner->id, *type.iconPartner->icon));
    return registry.RegisterCommand(std::move(info));
  }
  info.allocate = type.allocate;
  if (!type.baseTypes.empty() && registry.Find(type.id) != nullptr)
    return platform::IllegalArgumentError("VLGD: Operator with this id already registered!");
  if (type.icon.has_value()) VLGD_RETURN_IF_ERROR(registry.RegisterIcon(type.id, *type.icon));
  return registry.RegisterNodeType(std::move(info), description);
}

}  // namespace

std::span<const platform::TypeDescriptor* const> RegisteredTypes() {
  // The registration order: shared descriptions before the types that include them, then
  // the menu's entries.
  static const std::array<platform::TypeDescriptor, 4> separators = {Separator(1054692, 20), Separator(1054745, 30),
                                                                     Separator(1054746, 40), Separator(1054804, 50)};
  static const std::array<const platform::TypeDescriptor*, 38> types = {
      &TerrainDistortionType(),
      &AddOperatorDescription(),
      &BaseTerrainOperatorType(),
      &TerrainObjectType(),
      &separators[0],
      &NoiseOperatorType(),
      &GradientOperatorType(),
      &GroupOperatorType(),
      &separators[1],
      &AdjustmentOperatorType(),
      &CurveOperatorType(),
      &ClampOperatorType(),
      &BlurOperatorType(),
      &SharpenOperatorType(),
      &MirrorOperatorType(),
      &FoldOperatorType(),
      &ErosionOperatorType(),
      &QuantizeOperatorType(),
      &separators[2],
      &GroupOperatorsCommandType(),
      &UngroupOperatorsCommandType(),
      &IncreaseResCommandType(),
      &DecreaseResCommandType(),
      &NextBlendmodeCommandType(),
      &PreviousBlendmodeCommandType(),
      &separators[3],
      &OpenHelpCommandType(),
      &AboutCommandType(),
      &BaseShaderType(),
      &TerrainOperatorShaderType(),
      &HeightShaderType(),
      &SlopeShaderType(),
      &ColourShaderType(),
      &ColourRampShaderType(),
      &ImageShaderType(),
      &LayerShaderType(),
      &SplineOperatorType(),
      &ShaderOperatorType(),
  };
  return types;
}

namespace {

void PrintBanner(platform::Host& host) {
  host.GetConsole().Print(std::string("Vellgrund ") + VELLGRUND_VERSION);
  host.GetConsole().Print(host.GetStrings().Get(STRING_BANNER));
}

// Everything PluginStart registers; the first error that stops it.
platform::Status RegisterModule(platform::Host& host) {
  platform::Registry& registry = host.GetRegistry();
  VLGD_RETURN_IF_ERROR(RegisterEnumerations(registry));
  VLGD_RETURN_IF_ERROR(RegisterBlendModeIcons(registry));
  for (const platform::TypeDescriptor* type : RegisteredTypes()) VLGD_RETURN_IF_ERROR(Register(host, *type));
  // The preference page always holds the resolution cap and the overlay switch.
  platform::ParameterContainer preferences;
  if (!preferences.Set(PREFS_MAX_RESOLUTION, kDefaultMaxResolution) || !preferences.Set(PREFS_SHOW_OVERLAY, true))
    return platform::OutOfMemoryError();
  host.GetPreferences().SetMainPage(ID_PREFERENCES);
  return host.GetPreferences().RegisterDefaults(ID_PREFERENCES, preferences);
}

}  // namespace

bool PluginStart(platform::Host& host) {
  PrintBanner(host);
  const platform::Status registered = RegisterModule(host);
  if (!registered) host.GetConsole().Print(registered.error().message);
  return registered.has_value();
}

bool PluginMessage(platform::Host& host, platform::Int32 id, const std::filesystem::path& resources) {
  if (id == 1000) return true;
  if (id != kSystemInit) return false;
  if (!host.GetStrings().LoadFile(resources / "strings" / "strings.json")) return false;
  auto main = platform::ReadImage(resources / kMainIconSheet);
  if (!main) return false;
  auto blendModes = platform::ReadImage(resources / kBlendModeIconSheet);
  if (!blendModes) return false;
  Sheets().main = std::move(*main);
  Sheets().blendModes = std::move(*blendModes);
  return true;
}

void PluginEnd() {
  Sheets().main.reset();
  Sheets().blendModes.reset();
}

platform::Status StartModule(platform::Host& host, const std::filesystem::path& resources, IconUse icons) {
  bool initialised = false;
  if (icons == IconUse::LOAD) {
    initialised = PluginMessage(host, kSystemInit, resources);
  } else {
    std::error_code ignored;
    initialised = host.GetStrings().LoadFile(resources / "strings" / "strings.json").has_value() &&
                  std::filesystem::is_regular_file(resources / kMainIconSheet, ignored) &&
                  std::filesystem::is_regular_file(resources / kBlendModeIconSheet, ignored);
  }
  if (!initialised)
    return platform::IoError("Could not load the module's resources from " + resources.string() +
                             " (strings/strings.json, " + kMainIconSheet + ", " + kBlendModeIconSheet + ")!");
  PrintBanner(host);
  VLGD_RETURN_IF_ERROR(RegisterModule(host));
  // A broken preference file is the user's to fix, in batch work too.
  host.GetPreferences().Load(platform::Preferences::DefaultFile(), host.GetWarnings());
  return platform::Ok();
}

}  // namespace VLGD
