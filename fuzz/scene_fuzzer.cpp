// Feeds arbitrary bytes to the scene loader. It must refuse them with an error or load
// them; what loads must save, load again and compare equal, and save to the same text.
// Anything else is a bug and aborts.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "platform/field_objects.h"
#include "platform/host.h"
#include "platform/scene_file.h"

namespace {

using namespace platform;

constexpr Int32 kFuzzType = 1059990;
constexpr Int32 kFuzzDiskLevel = 1;

enum FuzzParameter : ParameterId {
  FUZZ_GROUP = 900,
  FUZZ_BUTTON = 901,
  FUZZ_BOOL = 1000,
  FUZZ_MODE = 1001,    // Int32, enumeration
  FUZZ_FLAGS = 1002,   // Int32, flag set
  FUZZ_COUNT = 1003,   // Int64
  FUZZ_AMOUNT = 1004,  // Float, -100 .. 100
  FUZZ_OFFSET = 1005,  // Vector, -1000 .. 1000
  FUZZ_LABEL = 1006,
  FUZZ_PROFILE = 1007,
  FUZZ_MASK = 1008,
  FUZZ_TARGET = 1009,
  FUZZ_PLACEMENT = 1010,
  FUZZ_STATUS = 1011,  // read-only text
};

class FuzzData final : public ObjectData {
 public:
  bool Init(Node& node) override {
    return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
  }
  // Level 0 kept the amount negated; levels from the future are refused.
  bool Read(Node& node, Int32 diskLevel) override {
    if (diskLevel < 0 || diskLevel > kFuzzDiskLevel) return false;
    if (diskLevel == 0) {
      const Float amount = node.GetData().GetFloat(FUZZ_AMOUNT);
      return node.GetDataInstance().Set(FUZZ_AMOUNT, -amount).has_value();
    }
    return true;
  }
};

void Require(const Status& status, const char* what) {
  if (!status) {
    std::fprintf(stderr, "scene fuzzer: %s: %s\n", what, status.error().message.c_str());
    std::abort();
  }
}

Host& FuzzHost() {
  static Host* host = [] {
    auto* made = new Host();  // lives as long as the process
    Registry& registry = made->GetRegistry();
    Require(registry.Enumerations().Register({"FUZZMODE", {{"LOW", 0}, {"MID", 1}, {"HIGH", 2}}, false}),
            "enumeration");
    Require(registry.Enumerations().Register({"FUZZFLAGS", {{"NONE", 0}, {"A", 1}, {"B", 2}, {"C", 4}}, true}),
            "flag set");
    Require(registry.RegisterCurvePreset("LINEAR", [](SplineData& curve) { return curve.MakeLinearSpline(2); }),
            "curve preset");
    SplineData profile;
    Require(profile.MakeLinearSpline(3), "default curve");

    Description description;
    description.resourceName = "ofuzz";
    description.parameters = {
        {.id = FUZZ_GROUP, .symbol = "FUZZ_GROUP", .kind = ParameterKind::GROUP},
        {.id = FUZZ_BUTTON, .symbol = "FUZZ_BUTTON", .kind = ParameterKind::BUTTON, .group = FUZZ_GROUP},
        {.id = FUZZ_BOOL, .symbol = "FUZZ_BOOL", .type = ValueType::BOOL, .defaultValue = false},
        {.id = FUZZ_MODE,
         .symbol = "FUZZ_MODE",
         .type = ValueType::INT32,
         .defaultValue = Int32{1},
         .enumeration = "FUZZMODE",
         .minimum = 0.0,
         .maximum = 2.0},
        {.id = FUZZ_FLAGS,
         .symbol = "FUZZ_FLAGS",
         .type = ValueType::INT32,
         .defaultValue = Int32{0},
         .enumeration = "FUZZFLAGS"},
        {.id = FUZZ_COUNT, .symbol = "FUZZ_COUNT", .type = ValueType::INT64, .defaultValue = Int{1} << 40},
        {.id = FUZZ_AMOUNT,
         .symbol = "FUZZ_AMOUNT",
         .type = ValueType::FLOAT,
         .defaultValue = 10.0,
         .minimum = -100.0,
         .maximum = 100.0},
        {.id = FUZZ_OFFSET,
         .symbol = "FUZZ_OFFSET",
         .type = ValueType::VECTOR,
         .defaultValue = Vector{},
         .minimum = -1000.0,
         .maximum = 1000.0},
        {.id = FUZZ_LABEL, .symbol = "FUZZ_LABEL", .type = ValueType::STRING, .defaultValue = "label"},
        {.id = FUZZ_PROFILE, .symbol = "FUZZ_PROFILE", .type = ValueType::CURVE, .defaultValue = profile},
        {.id = FUZZ_MASK, .symbol = "FUZZ_MASK", .type = ValueType::FIELDLIST, .defaultValue = FieldList{}},
        {.id = FUZZ_TARGET, .symbol = "FUZZ_TARGET", .type = ValueType::LINK, .defaultValue = NodeLink{}},
        {.id = FUZZ_PLACEMENT, .symbol = "FUZZ_PLACEMENT", .type = ValueType::MATRIX, .defaultValue = Matrix{}},
        {.id = FUZZ_STATUS, .symbol = "FUZZ_STATUS", .type = ValueType::STRING, .defaultValue = "", .readOnly = true},
    };
    PluginInfo info;
    info.id = kFuzzType;
    info.kind = PluginKind::OBJECT;
    info.resourceName = "ofuzz";
    info.diskLevel = kFuzzDiskLevel;
    info.allocate = [] { return std::make_unique<FuzzData>(); };
    Require(registry.RegisterNodeType(std::move(info), description), "fuzz type");
    return made;
  }();
  return *host;
}

[[noreturn]] void Bug(const char* what, std::string_view detail) {
  std::fprintf(stderr, "scene fuzzer: %s\n%.*s\n", what, static_cast<int>(detail.size()), detail.data());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Host& host = FuzzHost();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto loaded = LoadScene(host, text, "fuzz.json");
  if (!loaded) {
    if (loaded.error().message.empty()) Bug("refused without a message", text);
    return 0;
  }
  auto saved = SaveScene(**loaded);
  if (!saved) Bug("a loaded scene could not be saved", saved.error().message);
  auto reloaded = LoadScene(host, *saved, "saved.json");
  if (!reloaded) Bug("a saved scene could not be loaded", reloaded.error().message + "\n" + *saved);
  if (!DocumentsEqual(**loaded, **reloaded)) Bug("the saved scene loads as a different scene", *saved);
  auto savedAgain = SaveScene(**reloaded);
  if (!savedAgain || *savedAgain != *saved) Bug("saving the reloaded scene gives other text", *saved);
  return 0;
}
