#include "main/vellgrund_module.h"

#include <functional>
#include <memory>
#include <optional>

#include "vellgrund/string_ids.h"
#include "object/operator_adjustment.h"
#include "object/operator_blur.h"
#include "object/operator_clamp.h"
#include "object/operator_curve.h"
#include "object/operator_erosion.h"
#include "object/operator_fold.h"
#include "object/operator_mirror.h"
#include "object/operator_quantize.h"
#include "object/operator_sharpen.h"
#include "object/operator_gradient.h"
#include "object/operator_group.h"
#include "object/operator_noise.h"
#include "object/terrainobject.h"
#include "platform/image.h"
#include "vellgrund/distortion.h"
#include "vellgrund/enumerations.h"

namespace VLGD {
namespace {

using platform::Int32;
using platform::PluginInfo;
using platform::PluginKind;

constexpr const char* kMainSheet = "vellgrund_icons.tif";
constexpr const char* kBlendModeSheet = "vellgrund_blendmodes.tif";

// Owned by the module from the system-initialisation message until PluginEnd.
struct IconSheets {
  std::optional<platform::Image> main;
  std::optional<platform::Image> blendModes;
};
IconSheets& Sheets() {
  static IconSheets sheets;
  return sheets;
}

// One line of the registration table; the order of the table is the registration order.
struct Registration {
  PluginKind kind;
  Int32 id;
  std::optional<Int32> sort;  // menu sort number
  const char* resourceName;
  std::optional<platform::IconCell> icon;
  Int32 nameStringId = 0;
  platform::NodeDataAllocator allocate = {};
  std::function<platform::Description()> description = {};
  Int32 diskLevel = 0;
  platform::UInt32 objectInfo = platform::OBJECT_NONE;
};

platform::IconCell Main(Int32 x, Int32 y) { return {kMainSheet, x, y}; }

template <class Data>
platform::NodeDataAllocator Allocate() {
  return [] { return std::make_unique<Data>(); };
}

std::vector<Registration> RegistrationTable() {
  using K = PluginKind;
  return {
      {K::DESCRIPTION, 1055057, {}, "DterrainDistortion", {}, 0, {}, TerrainDistortionDescription},
      {K::DESCRIPTION, 1055093, {}, "DaddOperator", {}},
      {K::DESCRIPTION, ID_BASETERRAINOPERATOR, {}, "Obaseterrainoperator", {}, 0, {}, BaseTerrainOperatorDescription},
      {K::OBJECT, ID_TERRAINOBJECT, 10, "oterrain", Main(0, 0), 10000, Allocate<TerrainObject>(),
       TerrainObjectDescription, 1, platform::OBJECT_GENERATOR},
      {K::SEPARATOR, 1054692, 20, "--", {}},
      {K::OBJECT, ID_NOISEOPERATOR, 21, "onoiseoperator", Main(64, 0), 10001, Allocate<NoiseOperator>(),
       NoiseOperatorDescription},
      {K::OBJECT, ID_GRADIENTOPERATOR, 24, "ogradientoperator", Main(128, 0), 10008, Allocate<GradientOperator>(),
       GradientOperatorDescription},
      {K::OBJECT, ID_GROUPOPERATOR, 25, "ogroupoperator", Main(320, 0), 10003, Allocate<GroupOperator>(),
       GroupOperatorDescription},
      {K::SEPARATOR, 1054745, 30, "--", {}},
      {K::OBJECT, ID_ADJUSTMENTOPERATOR, 31, "oadjustmentoperator", Main(384, 0), 10002, Allocate<AdjustmentOperator>(),
       AdjustmentOperatorDescription, 1},
      {K::OBJECT, ID_CURVEOPERATOR, 32, "ocurveoperator", Main(576, 0), 10004, Allocate<CurveOperator>(),
       CurveOperatorDescription},
      {K::OBJECT, ID_CLAMPOPERATOR, 33, "oclampoperator", Main(512, 0), 10005, Allocate<ClampOperator>(),
       ClampOperatorDescription},
      {K::OBJECT, ID_BLUROPERATOR, 34, "obluroperator", Main(448, 0), 10007, Allocate<BlurOperator>(),
       BlurOperatorDescription, 1},
      {K::OBJECT, ID_SHARPENOPERATOR, 35, "osharpenoperator", Main(576, 64), 10013, Allocate<SharpenOperator>(),
       SharpenOperatorDescription},
      {K::OBJECT, ID_MIRROROPERATOR, 36, "omirroroperator", Main(0, 64), 10009, Allocate<MirrorOperator>(),
       MirrorOperatorDescription},
      {K::OBJECT, ID_FOLDOPERATOR, 37, "ofoldoperator", Main(320, 64), 10011, Allocate<FoldOperator>(),
       FoldOperatorDescription},
      {K::OBJECT, ID_EROSIONOPERATOR, 38, "oerosionoperator", Main(64, 64), 10012, Allocate<ErosionOperator>(),
       ErosionOperatorDescription},
      {K::OBJECT, ID_QUANTIZEOPERATOR, 38, "oquantizeoperator", Main(0, 128), 10014, Allocate<QuantizeOperator>(),
       QuantizeOperatorDescription},
      {K::SEPARATOR, 1054746, 40, "--", {}},
      {K::SEPARATOR, 1054804, 50, "--", {}},
  };
}

platform::Status RegisterBlendModeIcons(platform::Registry& registry) {
  for (Int32 k = 0; k < 10; ++k)
    VLGD_RETURN_IF_ERROR(registry.RegisterIcon(1055710 + k, {kBlendModeSheet, 64 * k, 0}));
  const Int32 secondRow[] = {1056645, 1056646, 1056650, 1056651, 1056652};
  for (Int32 k = 0; k < 5; ++k) VLGD_RETURN_IF_ERROR(registry.RegisterIcon(secondRow[k], {kBlendModeSheet, 64 * k, 64}));
  return platform::Ok();
}

platform::Status Register(platform::Host& host, const Registration& entry) {
  platform::Registry& registry = host.GetRegistry();
  if (entry.kind == PluginKind::DESCRIPTION) {
    platform::Description description = entry.description ? entry.description() : platform::Description{};
    description.resourceName = entry.resourceName;
    return registry.RegisterDescription(entry.id, std::move(description));
  }
  PluginInfo info;
  info.id = entry.id;
  info.kind = entry.kind;
  info.resourceName = entry.resourceName;
  info.nameStringId = entry.nameStringId;
  info.icon = entry.icon;
  info.diskLevel = entry.diskLevel;
  info.objectInfo = entry.objectInfo;
  if (entry.sort.has_value())
    info.registeredName = platform::MakeSortName(
        *entry.sort, entry.kind == PluginKind::SEPARATOR ? std::string("--") : host.GetStrings().Get(entry.nameStringId));
  if (entry.kind == PluginKind::SEPARATOR) return registry.RegisterCommand(std::move(info));
  info.allocate = entry.allocate;
  if (entry.id != ID_TERRAINOBJECT) {
    if (registry.Find(entry.id) != nullptr)
      return platform::IllegalArgumentError("VLGD: Operator with this id already registered!");
    info.baseTypes = {ID_BASETERRAINOPERATOR};
  }
  if (entry.icon.has_value()) VLGD_RETURN_IF_ERROR(registry.RegisterIcon(entry.id, *entry.icon));
  return registry.RegisterNodeType(std::move(info), entry.description());
}

}  // namespace

bool PluginStart(platform::Host& host) {
  host.GetConsole().Print(std::string("Vellgrund ") + VELLGRUND_VERSION);
  host.GetConsole().Print(host.GetStrings().Get(STRING_BANNER));
  const auto failed = [&](const platform::Status& status) {
    if (!status) host.GetConsole().Print(status.error().message);
    return !status;
  };
  platform::Registry& registry = host.GetRegistry();
  if (failed(RegisterEnumerations(registry)) || failed(RegisterBlendModeIcons(registry))) return false;
  for (const Registration& entry : RegistrationTable())
    if (failed(Register(host, entry))) return false;
  // The preference page always holds the resolution cap and the overlay switch.
  platform::ParameterContainer preferences;
  return preferences.Set(PREFS_MAX_RESOLUTION, kDefaultMaxResolution) && preferences.Set(1002, true) &&
         host.GetPreferences().RegisterDefaults(ID_PREFERENCES, preferences);
}

bool PluginMessage(platform::Host& host, platform::Int32 id, const std::filesystem::path& resources) {
  if (id == 1000) return true;
  if (id != kSystemInit) return false;
  if (!host.GetStrings().LoadFile(resources / "strings" / "strings.json")) return false;
  auto main = platform::ReadImage(resources / kMainSheet);
  if (!main) return false;
  auto blendModes = platform::ReadImage(resources / kBlendModeSheet);
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
                  std::filesystem::is_regular_file(resources / kMainSheet, ignored) &&
                  std::filesystem::is_regular_file(resources / kBlendModeSheet, ignored);
  }
  if (!initialised)
    return platform::IoError("Could not load the module's resources from " + resources.string() +
                             " (strings/strings.json, " + kMainSheet + ", " + kBlendModeSheet + ")!");
  if (!PluginStart(host)) return platform::GenericError("Could not register the module's types!");
  host.GetPreferences().Load(platform::Preferences::DefaultFile(), host.GetConsole());
  return platform::Ok();
}

}  // namespace VLGD
