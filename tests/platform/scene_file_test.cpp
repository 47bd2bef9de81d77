#include "platform/scene_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numbers>
#include <string>
#include <vector>

#include "platform/field_objects.h"
#include "support/temp_dir.h"

namespace {

using namespace platform;
using testing_support::TempDir;

constexpr Int32 kSceneType = 1059901;

enum : ParameterId {
  TEST_GROUP = 900,
  TEST_BOOL = 1000,
  TEST_MODE = 1001,
  TEST_SEED = 1002,
  TEST_HEIGHT = 1003,
  TEST_OFFSET = 1004,
  TEST_LABEL = 1005,
  TEST_PROFILE = 1006,
  TEST_MASK = 1007,
  TEST_TARGET = 1008,
  TEST_PLACEMENT = 1009,
  TEST_STATUS = 1010,
};

class SceneTestData final : public ObjectData {
 public:
  bool Init(Node& node) override {
    return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
  }
  // Disk level 0 stored the height negated.
  bool Read(Node& node, Int32 diskLevel) override {
    if (diskLevel > 1) return false;
    if (diskLevel == 0)
      return node.GetDataInstance().Set(TEST_HEIGHT, -node.GetData().GetFloat(TEST_HEIGHT)).has_value();
    return true;
  }
};

class SceneFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.SetConsole(console_);
    host_.SetWarnings(warnings_);
    Registry& registry = host_.GetRegistry();
    ASSERT_TRUE(registry.Enumerations().Register({"TESTMODE", {{"LOW", 0}, {"MID", 1}, {"HIGH", 2}}, false}));
    ASSERT_TRUE(registry.RegisterCurvePreset("RAMP", [](SplineData& curve) { return curve.MakeLinearSpline(3); }));
    SplineData profile;
    ASSERT_TRUE(profile.MakeLinearSpline(2));
    Description description;
    description.resourceName = "oscenetest";
    description.parameters = {
        {.id = TEST_GROUP, .symbol = "TEST_GROUP", .kind = ParameterKind::GROUP},
        DescribeParameter(TEST_BOOL, "TEST_BOOL", ValueType::BOOL, false),
        DescribeParameter(TEST_MODE, "TEST_MODE", ValueType::INT32, Int32{1}).Choice("TESTMODE", 0, 2),
        DescribeParameter(TEST_SEED, "TEST_SEED", ValueType::INT64, Int{0}, -2.5, 1e18),
        DescribeParameter(TEST_HEIGHT, "TEST_HEIGHT", ValueType::FLOAT, 10.0, -50.0, 50.0),
        DescribeParameter(TEST_OFFSET, "TEST_OFFSET", ValueType::VECTOR, Vector{}, -10.0, 10.0),
        DescribeParameter(TEST_LABEL, "TEST_LABEL", ValueType::STRING, ""),
        DescribeParameter(TEST_PROFILE, "TEST_PROFILE", ValueType::CURVE, profile),
        DescribeParameter(TEST_MASK, "TEST_MASK", ValueType::FIELDLIST, FieldList{}),
        DescribeParameter(TEST_TARGET, "TEST_TARGET", ValueType::LINK, NodeLink{}),
        DescribeParameter(TEST_PLACEMENT, "TEST_PLACEMENT", ValueType::MATRIX, Matrix{}),
        DescribeParameter(TEST_STATUS, "TEST_STATUS", ValueType::STRING, "idle"),
    };
    description.parameters.back().readOnly = true;
    PluginInfo info;
    info.id = kSceneType;
    info.resourceName = "oscenetest";
    info.diskLevel = 1;
    info.allocate = [] { return std::make_unique<SceneTestData>(); };
    ASSERT_TRUE(registry.RegisterNodeType(std::move(info), description));
  }

  std::unique_ptr<Document> Load(const std::string& json) {
    auto loaded = LoadScene(host_, json, "scene.json");
    EXPECT_TRUE(loaded) << loaded.error().message;
    return loaded ? std::move(*loaded) : nullptr;
  }

  CollectingConsole console_;
  CollectingConsole warnings_;
  Host host_;
};

const char* const kScene = R"json({
  "vellgrund": 1,
  "objects": [
    { "type": 1059001, "name": "Sphere", "id": "s" },
    { "type": "oscenetest", "name": "Parent", "id": 5,
      "position": [1, 2, 3], "rotation": [90, 0, 30], "scale": [2, 1, 1],
      "params": {
        "1001": "HIGH", "TEST_SEED": 9007199254740993, "1003 OLD_SYMBOL": -2.5, "1005": "r\u00e9gion",
        "1006": { "knots": [ { "position": [1, 1], "left": [-0.25, 0] },
                             { "position": [0, 0], "right": [0.1, 0.3], "flags": 16 } ] },
        "1007": { "layers": [ { "field": "s", "opacity": 0.25, "blend": "MAX" },
                              { "field": null, "enabled": false } ] },
        "1008": { "link": "c" }, "1009": { "off": [0, 0, 7] }, "1010": "busy" },
      "children": [
        { "type": "oscenetest", "name": "Child", "id": "c",
          "enabled": false, "editor_visible": "off", "render_visible": true,
          "params": { "1001": 0, "1000": true, "1004": [1, -2, 0.1], "1006": { "preset": "RAMP" },
                      "1008": { "link": 5 } } }
      ] }
  ]
})json";

TEST_F(SceneFileTest, RoundTripKeepsTreeValuesLinksAndFields) {
  auto document = Load(kScene);
  ASSERT_NE(document, nullptr);
  Node* sphere = document->FindByName("Sphere");
  Node* parent = document->FindByName("Parent");
  Node* child = document->FindByName("Child");
  ASSERT_TRUE(sphere && parent && child);
  EXPECT_EQ(child->GetUp(), parent);
  EXPECT_FALSE(child->IsEnabled());
  EXPECT_EQ(child->GetEditorVisibility(), Visibility::OFF);
  EXPECT_EQ(child->GetRenderVisibility(), Visibility::ON);
  const Matrix placed = TranslationMatrix({1.0, 2.0, 3.0}) *
                        RotationMatrix(Vector{90.0, 0.0, 30.0} * (std::numbers::pi / 180.0)) *
                        ScaleMatrix({2.0, 1.0, 1.0});
  EXPECT_EQ(parent->GetMl(), placed);

  const ParameterContainer& values = parent->GetData();
  EXPECT_EQ(values.GetInt32(TEST_MODE), 2);  // by member name
  EXPECT_EQ(child->GetData().GetInt32(TEST_MODE), 0);
  EXPECT_EQ(values.GetInt64(TEST_SEED), 9007199254740993);  // by symbol, exact beyond 2^53
  EXPECT_EQ(values.GetFloat(TEST_HEIGHT), -2.5);            // "ID SYMBOL": the ID wins over a renamed symbol
  EXPECT_EQ(values.GetString(TEST_LABEL), "r\u00e9gion");
  EXPECT_EQ(values.GetString(TEST_STATUS), "idle");  // read-only values are not taken from files
  EXPECT_EQ(values.GetMatrix(TEST_PLACEMENT).off, (Vector{0.0, 0.0, 7.0}));
  EXPECT_EQ(document->Resolve(values.GetLink(TEST_TARGET)), child);
  EXPECT_EQ(document->Resolve(child->GetData().GetLink(TEST_TARGET)), parent);

  // Knots come sorted by x with the file's tangents and flags.
  const SplineData* curve = values.GetSplineData(TEST_PROFILE);
  ASSERT_TRUE(curve && curve->GetKnotCount() == 2);
  EXPECT_EQ(curve->GetKnot(0)->rightTangent, (Vector{0.1, 0.3, 0.0}));
  EXPECT_EQ(curve->GetKnot(0)->flags, kKnotFlagBreakTangents);
  EXPECT_EQ(curve->GetKnot(1)->position, (Vector{1.0, 1.0, 0.0}));
  EXPECT_EQ(curve->GetKnot(1)->rightTangent, Vector{});  // no neighbour on the right
  SplineData ramp;
  ASSERT_TRUE(ramp.MakeLinearSpline(3));
  EXPECT_EQ(*child->GetData().GetSplineData(TEST_PROFILE), ramp);

  FieldList mask;
  ASSERT_TRUE(mask.AddLayer({.field = sphere->Identity(), .opacity = 0.25, .blend = FieldBlend::MAX}));
  ASSERT_TRUE(mask.AddLayer({.enabled = false}));
  EXPECT_EQ(*values.GetFieldList(TEST_MASK), mask);

  auto saved = SaveScene(*document);
  ASSERT_TRUE(saved) << saved.error().message;
  EXPECT_NE(saved->find("\"1001 TEST_MODE\": \"HIGH\""), std::string::npos) << *saved;
  EXPECT_EQ(saved->find("TEST_STATUS"), std::string::npos);
  EXPECT_EQ(saved->find("\"level\""), std::string::npos);
  auto reloaded = Load(*saved);
  ASSERT_NE(reloaded, nullptr);
  EXPECT_TRUE(DocumentsEqual(*document, *reloaded));
  EXPECT_EQ(SaveScene(*reloaded).value_or(""), *saved);

  // The comparison sees a changed value, a link to another place and a moved node.
  const std::function<void(Document&, Node&)> edits[] = {
      [](Document&, Node& node) { ASSERT_TRUE(node.SetParameter(TEST_HEIGHT, 1.0)); },
      [](Document&, Node& node) { ASSERT_TRUE(node.SetParameter(TEST_TARGET, NodeLink{node.Identity()})); },
      [](Document& moved, Node& node) { moved.InsertLast(moved.Remove(node)); },
  };
  for (const auto& edit : edits) {
    auto edited = Load(*saved);
    edit(*edited, *edited->FindByName("Child"));
    EXPECT_FALSE(DocumentsEqual(*document, *edited));
  }
}

TEST_F(SceneFileTest, PreferencesAreOverriddenInTheDocumentOnly) {
  constexpr Int32 kWorld = 1055624;
  host_.GetPreferences().SetMainPage(kWorld);
  ASSERT_TRUE(host_.GetPreferences().GetWorldPluginData(kWorld).Set(1000, Int32{4000}));
  ASSERT_TRUE(host_.GetPreferences().GetWorldPluginData(kWorld).Set(1004, 2.5));
  auto document = Load(R"json({"vellgrund": 1, "preferences": {"1000": 64, "1001": 3000000000, "1002": 0.5,
      "1003": [1, 2, 3], "1004": 7, "77": {"5": true}}})json");
  ASSERT_NE(document, nullptr);
  // Integers take the type the key has in the application; the host's values stay.
  ParameterContainer world;
  using Entry = std::pair<ParameterId, Value>;
  for (const auto& [id, value] : {Entry{1000, Int32{64}}, Entry{1001, Int{3000000000}}, Entry{1002, 0.5},
                                  Entry{1003, Vector{1.0, 2.0, 3.0}}, Entry{1004, 7.0}})
    ASSERT_TRUE(world.Set(id, value));
  EXPECT_EQ(document->GetWorldPluginData(kWorld), world);
  EXPECT_TRUE(document->GetWorldPluginData(77).GetBool(5));
  EXPECT_EQ(host_.GetPreferences().GetWorldPluginData(kWorld).GetInt32(1000), 4000);
  EXPECT_FALSE(host_.GetPreferences().GetWorldPluginData(kWorld).Contains(1001));

  auto saved = SaveScene(*document);
  ASSERT_TRUE(saved);
  auto reloaded = Load(*saved);
  ASSERT_NE(reloaded, nullptr);
  EXPECT_TRUE(DocumentsEqual(*document, *reloaded)) << *saved;
  EXPECT_FALSE(DocumentsEqual(*document, *Load(R"({"vellgrund": 1})")));
}

TEST_F(SceneFileTest, DiskLevelLetsTheNodeConvertOlderData) {
  auto document = Load(R"json({"vellgrund": 1, "objects": [
      {"type": "oscenetest", "name": "old", "level": 0, "params": {"1003": -10}},
      {"type": "oscenetest", "name": "current", "params": {"1003": -10}}]})json");
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(*document->FindByName("old")->GetData().Find(TEST_HEIGHT), Value{10.0});
  EXPECT_EQ(*document->FindByName("current")->GetData().Find(TEST_HEIGHT), Value{-10.0});
}

std::string Nested(int depth) {
  std::string node = R"({"type": "oscenetest", "name": "leaf"})";
  for (int i = 0; i < depth; ++i) node = R"({"type": "oscenetest", "children": [)" + node + "]}";
  return R"({"vellgrund": 1, "objects": [)" + node + "]}";
}

std::string DeepPath(int depth) {
  std::string path = "objects[0]";
  for (int i = 0; i < depth; ++i) path += ".children[0]";
  return path;
}

TEST_F(SceneFileTest, RefusalsNameTheSourceTheNodeAndTheKey) {
  auto scene = [](const std::string& node) {
    return R"({"vellgrund": 1, "objects": [{"type": "oscenetest", "name": "n", )" + node + "}]}";
  };
  struct Case {
    std::string json;
    std::vector<std::string> fragments;
  };
  const std::vector<Case> cases = {
      {R"({"vellgrund": 1, "objects": [)", {"scene.json: ", "line 1"}},
      {R"({"objects": []})", {"'vellgrund'", "missing"}},
      {R"({"vellgrund": 2})", {"'vellgrund'", "newer version"}},
      {R"({"vellgrund": 1, "objects": [{"type": "onothing"}]})", {"objects[0]", "'type'", "onothing"}},
      {R"({"vellgrund": 1, "objects": [{"type": 1055624}]})", {"objects[0]", "'type'", "not a registered object type"}},
      {scene(R"("params": {"4242": 1})"), {"objects[0] 'n'", "parameter '4242'", "not a parameter"}},
      {scene(R"("params": {"TEST_GROUP": 1})"), {"objects[0] 'n'", "parameter 'TEST_GROUP'", "has no value"}},
      {scene(R"("params": {"1003": "high"})"), {"objects[0] 'n'", "parameter '1003'", "expected a number"}},
      {scene(R"("params": {"1001": 1.5})"), {"parameter '1001'", "expected an integer"}},
      {scene(R"("params": {"1001": -1})"),
       {"parameter '1001'", "-1 is not a member of TESTMODE (valid: LOW, MID, HIGH)"}},
      {scene(R"("params": {"1001": 3})"), {"parameter '1001'", "3 is not a member of TESTMODE"}},
      {scene(R"("params": {"1002": 1e999})"), {"objects[0].params.1002", "number overflow"}},
      {scene(R"("params": {"1001": 9999999999})"), {"parameter '1001'", "out of range"}},
      {scene(R"("params": {"1001": "LOUD"})"),
       {"parameter '1001'", "'LOUD' is not a member of TESTMODE (valid: LOW, MID, HIGH)"}},
      {scene(R"("params": {"1003": 1e400})"), {"objects[0].params.1003", "number overflow"}},
      {scene(R"("params": {"1004": [1, 2]})"), {"parameter '1004'", "[x, y, z]"}},
      {scene(R"("params": {"1006": {"preset": "WAVY"}})"), {"parameter '1006'", "unknown curve preset 'WAVY'"}},
      {scene(R"("params": {"1006": {"knots": [{"left": [0, 0]}]}})"), {"parameter '1006'", "knot 0", "'position'"}},
      {scene(R"("params": {"1008": {"link": "gone"}})"), {"objects[0] 'n'", "parameter '1008'", "'gone'"}},
      {scene(R"("params": {"1007": {"layers": [{"field": "self"}]}}, "id": "self")"),
       {"parameter '1007'", "layer 0", "not a field object"}},
      {scene(R"("params": {"1007": {"layers": [{"opacity": 2}]}})"), {"parameter '1007'", "layer 0", "'opacity'"}},
      {scene(R"("params": {"1000": true, "TEST_BOOL": false})"), {"objects[0] 'n'", "given twice"}},
      {scene(R"("id": "a", "children": [{"type": "oscenetest", "name": "m", "id": "a"}])"),
       {"objects[0].children[0] 'm'", "'id'", "'a'"}},
      {scene(R"("name": "twice")"), {"objects[0]", "duplicate key 'name'"}},
      {scene(R"("colour": "red")"), {"objects[0] 'n'", "unknown key 'colour'"}},
      {scene(R"("matrix": {}, "scale": [1, 1, 1])"), {"objects[0] 'n'", "'matrix'"}},
      {scene(R"("editor_visible": "maybe")"), {"objects[0] 'n'", "'editor_visible'"}},
      {scene(R"("level": 5)"), {"objects[0] 'n'", "disk level 5"}},
      {Nested(65), {DeepPath(64) + ": 'children'", "deeper than 64"}},
      {std::string(100000, '[') + std::string(100000, ']'), {"scene.json: ", "nested deeper"}},
  };
  for (const Case& c : cases) {
    const auto loaded = LoadScene(host_, c.json, "scene.json");
    ASSERT_FALSE(loaded) << c.json;
    EXPECT_EQ(loaded.error().kind, ErrorKind::IllegalArgument);
    EXPECT_TRUE(loaded.error().message.starts_with("scene.json: ")) << loaded.error().message;
    for (const std::string& fragment : c.fragments)
      EXPECT_NE(loaded.error().message.find(fragment), std::string::npos)
          << "'" << fragment << "' missing in: " << loaded.error().message;
  }
  EXPECT_TRUE(LoadScene(host_, Nested(64), "scene.json"));
}

// A number outside its limits is brought inside, as an editor's field would, with one warning
// line per value; values inside the limits load silently.
TEST_F(SceneFileTest, NumbersOutsideTheirLimitsAreClampedWithAWarning) {
  struct Case {
    std::string params;
    ParameterId id;
    Value expected;
    std::vector<std::string> warnings;  // after "Warning: 'n' parameter "
  };
  const std::vector<Case> cases = {
      {R"("1003": 75)", TEST_HEIGHT, 50.0, {"TEST_HEIGHT: 75.0 is above the maximum 50.0; using 50.0."}},
      {R"("TEST_HEIGHT": -50.5)", TEST_HEIGHT, -50.0, {"TEST_HEIGHT: -50.5 is below the minimum -50.0; using -50.0."}},
      // A whole number stops at the nearest whole number inside a fractional limit.
      {R"("1002": -7)", TEST_SEED, Int{-2}, {"TEST_SEED: -7 is below the minimum -2; using -2."}},
      {R"("1002": 9223372036854775807)",
       TEST_SEED,
       Int{1'000'000'000'000'000'000},
       {"TEST_SEED: 9223372036854775807 is above the maximum 1000000000000000000; using 1000000000000000000."}},
      {R"("1004": [20, 0, -30])",
       TEST_OFFSET,
       Vector{10.0, 0.0, -10.0},
       {"TEST_OFFSET.x: 20.0 is above the maximum 10.0; using 10.0.",
        "TEST_OFFSET.z: -30.0 is below the minimum -10.0; using -10.0."}},
      {R"("1003": 50, "1002": -2, "1004": [-10, 10, 0])", TEST_HEIGHT, 50.0, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.params);
    const std::size_t before = warnings_.Lines().size();
    auto document =
        Load(R"({"vellgrund": 1, "objects": [{"type": "oscenetest", "name": "n", "params": {)" + c.params + "}}]}");
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(*document->FindByName("n")->GetData().Find(c.id), c.expected);
    std::vector<std::string> expected;
    for (const std::string& warning : c.warnings) expected.push_back("Warning: 'n' parameter " + warning);
    const std::vector<std::string> lines = warnings_.Lines();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + static_cast<std::ptrdiff_t>(before), lines.end()), expected);
  }
  EXPECT_TRUE(console_.Lines().empty());

  // Values set in code are brought into the same limits, silently; a choice still needs a member.
  auto document = Load(R"({"vellgrund": 1, "objects": [{"type": "oscenetest", "name": "n"}]})");
  ASSERT_NE(document, nullptr);
  Node& node = *document->FindByName("n");
  ASSERT_TRUE(document->SetParameter(node, TEST_SEED, Int{-7}));
  EXPECT_EQ(node.GetData().GetInt64(TEST_SEED), -2);
  ASSERT_TRUE(document->SetParameter(node, TEST_OFFSET, Vector{20.0, 0.0, -30.0}));
  EXPECT_EQ(node.GetData().GetVector(TEST_OFFSET), (Vector{10.0, 0.0, -10.0}));
  EXPECT_FALSE(document->SetParameter(node, TEST_MODE, Int32{7}));
}

TEST_F(SceneFileTest, FilesOnDiskAreWrittenWholeOrNotAtAll) {
  TempDir dir;
  auto document = Load(kScene);
  ASSERT_NE(document, nullptr);
  ASSERT_TRUE(SaveSceneFile(*document, dir.File("scene.json")));
  auto loaded = LoadSceneFile(host_, dir.File("scene.json"));
  ASSERT_TRUE(loaded) << loaded.error().message;
  EXPECT_TRUE(DocumentsEqual(*document, **loaded));

  const auto failed = SaveSceneFile(*document, dir.File("missing/scene.json"));
  ASSERT_FALSE(failed);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 1);

  const auto absent = LoadSceneFile(host_, dir.File("absent.json"));
  ASSERT_FALSE(absent);
  EXPECT_EQ(absent.error().kind, ErrorKind::Io);
}

}  // namespace
