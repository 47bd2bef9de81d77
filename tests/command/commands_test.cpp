// The editor's commands on a real document: what each changes, when it is enabled, and
// that one undo gives back exactly the document before it (and redo the one after).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "command/command_blendmode.h"
#include "command/command_group.h"
#include "command/command_info.h"
#include "command/command_resolution.h"
#include "object/operator_blur.h"
#include "object/operator_group.h"
#include "object/operator_noise.h"
#include "platform/command.h"
#include "platform/scene_file.h"
#include "support/terrain_harness.h"
#include "vellgrund/blend.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// The document as a file would hold it, and the selection by name.
std::string Snapshot(const Document& doc) {
  std::string text = SaveScene(doc).value();
  for (const Node* node : doc.GetActiveObjects()) text += "\nselected " + node->GetName();
  return text;
}

struct Editor : TerrainHarness {
  Result<bool> Run(Int32 id, bool modifier = false) {
    const PluginInfo* command = FindCommand(host.GetRegistry(), id);
    EXPECT_NE(command, nullptr) << id;
    return ExecuteCommand(*doc, *command, {.modifier = modifier});
  }
  bool Enabled(Int32 id) { return IsCommandEnabled(*doc, *FindCommand(host.GetRegistry(), id)); }
  void Select(std::initializer_list<Node*> nodes) {
    doc->SetActiveObject(nullptr);
    for (Node* node : nodes) doc->SetActiveObject(node, SelectionMode::ADD);
  }
  // Runs the command and checks that undo and redo move between the two documents exactly.
  void RunUndoable(Int32 id, bool modifier = false) {
    const std::string before = Snapshot(*doc);
    const UInt64 updates = host.UpdateRequests();
    ASSERT_TRUE(Run(id, modifier).value_or(false));
    const std::string after = Snapshot(*doc);
    EXPECT_NE(after, before);
    EXPECT_GT(host.UpdateRequests(), updates);
    ASSERT_TRUE(doc->DoUndo());
    EXPECT_EQ(Snapshot(*doc), before);
    ASSERT_TRUE(doc->DoRedo());
    EXPECT_EQ(Snapshot(*doc), after);
  }
  std::vector<std::string> Children(const Node* parent) const {
    std::vector<std::string> names;
    for (const Node* child = parent->GetDown(); child != nullptr; child = child->GetNext())
      names.push_back(child->GetName());
    return names;
  }
  void Resolution(Int32 x, Int32 z) {
    ASSERT_TRUE(terrain->SetParameter(TERRAINOBJECT_RESOLUTION_X, x));
    ASSERT_TRUE(terrain->SetParameter(TERRAINOBJECT_RESOLUTION_Z, z));
  }
  std::pair<Int32, Int32> Resolution() const {
    return {terrain->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X),
            terrain->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_Z)};
  }
};

TEST(ResolutionCommands, StepBothAxesWithinTheLowerLimitAndTheCap) {
  struct Case {
    Int32 command;
    Int32 x, z, cap;
    bool modifier;
    Int32 wantX, wantZ;
    bool enabled;
  };
  const Case cases[] = {
      {ID_DECREASERESCOMMAND, 350, 120, 4000, false, 350, 120, false},  // 120 - 250 < 100
      {ID_DECREASERESCOMMAND, 350, 120, 4000, true, 350, 120, false},   // 120 - 100 = 20
      {ID_DECREASERESCOMMAND, 600, 350, 4000, false, 350, 100, true},   // down to the limit
      {ID_DECREASERESCOMMAND, 600, 200, 4000, false, 600, 200, true},   // 250 too far; 100 would do
      {ID_INCREASERESCOMMAND, 3900, 2000, 4000, true, 4000, 2100, true},
      {ID_INCREASERESCOMMAND, 4000, 2100, 4000, true, 4000, 2100, false},
      {ID_INCREASERESCOMMAND, 3800, 100, 4000, false, 3800, 100, true},  // 250 too far; 100 would do
      {ID_INCREASERESCOMMAND, 500, 500, 600, true, 600, 600, true},      // the preference is the cap
      {ID_INCREASERESCOMMAND, 500, 500, 20000, false, 750, 750, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.command) + " " + std::to_string(c.x) + " x " + std::to_string(c.z) +
                 (c.modifier ? " fine" : ""));
    Editor e;
    e.Resolution(c.x, c.z);
    ASSERT_TRUE(e.doc->OverrideWorldPluginData(ID_PREFERENCES).Set(PREFS_MAX_RESOLUTION, c.cap));
    e.Select({e.terrain});
    EXPECT_EQ(e.Enabled(c.command), c.enabled);
    const Int undos = e.doc->UndoCount();
    ASSERT_TRUE(e.Run(c.command, c.modifier).value_or(false));
    EXPECT_EQ(e.Resolution(), std::make_pair(c.wantX, c.wantZ));
    EXPECT_EQ(e.doc->UndoCount(), undos + (e.Resolution() != std::make_pair(c.x, c.z) ? 1 : 0));
  }
}

TEST(ResolutionCommands, EachTerrainChangesOnceAndOneUndoRestoresThemAll) {
  Editor e;
  e.Resolution(1000, 500);
  Node* noise = e.AddOperator(ID_NOISEOPERATOR, "noise");
  Node* group = e.AddGroup("group");
  Node* inner = e.AddOperator(ID_BLUROPERATOR, "inner", group);
  auto second = e.doc->CreateNode(ID_TERRAINOBJECT).value();
  second->SetName("second");
  Node* other = e.doc->InsertLast(std::move(second));
  e.Select({noise, e.terrain, inner, other});
  e.RunUndoable(ID_INCREASERESCOMMAND);
  EXPECT_EQ(e.Resolution(), std::make_pair(1250, 750));
  EXPECT_EQ(other->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X), 750);

  // Operators outside a terrain and other objects are no targets.
  e.Select({});
  EXPECT_FALSE(e.Enabled(ID_INCREASERESCOMMAND));
  EXPECT_FALSE(e.Enabled(ID_DECREASERESCOMMAND));
}

TEST(BlendmodeCommands, GeneratorsStepAroundTheRingAndFiltersAreLeftAlone) {
  Editor e;
  Node* noise = e.AddOperator(ID_NOISEOPERATOR, "noise");
  Node* blur = e.AddOperator(ID_BLUROPERATOR, "blur");
  Node* group = e.AddGroup("group");
  e.Select({blur});
  EXPECT_FALSE(e.Enabled(ID_NEXTBLENDMODECOMMAND));
  EXPECT_FALSE(e.Enabled(ID_PREVIOUSBLENDMODECOMMAND));
  ASSERT_TRUE(e.Run(ID_NEXTBLENDMODECOMMAND).value_or(false));  // nothing to do is no failure
  EXPECT_EQ(e.doc->UndoCount(), 0);

  const auto mode = [](const Node* op) { return op->GetData().GetInt32(TERRAINOPERATOR_BLENDMODE); };
  const auto Set = [&](Node* op, BLENDMODE m) { ASSERT_TRUE(op->SetParameter(TERRAINOPERATOR_BLENDMODE, static_cast<Int32>(m))); };
  Set(noise, BLENDMODE::DIVIDE);
  Set(group, BLENDMODE::HARDLIGHT);
  Set(blur, BLENDMODE::ADD);
  e.Select({blur, noise, group});
  EXPECT_TRUE(e.Enabled(ID_NEXTBLENDMODECOMMAND));
  e.RunUndoable(ID_NEXTBLENDMODECOMMAND);
  EXPECT_EQ(mode(noise), static_cast<Int32>(BLENDMODE::OVERLAY));
  EXPECT_EQ(mode(group), static_cast<Int32>(BLENDMODE::NORMAL));
  EXPECT_EQ(mode(blur), static_cast<Int32>(BLENDMODE::ADD));
  e.RunUndoable(ID_PREVIOUSBLENDMODECOMMAND);
  EXPECT_EQ(mode(noise), static_cast<Int32>(BLENDMODE::MULTIPLY));
  EXPECT_EQ(mode(group), static_cast<Int32>(BLENDMODE::HARDLIGHT));

  ASSERT_TRUE(noise->SetParameter(TERRAINOPERATOR_BLENDMODE, Int32{99}));  // outside the table
  ASSERT_TRUE(e.Run(ID_PREVIOUSBLENDMODECOMMAND));
  EXPECT_EQ(mode(noise), static_cast<Int32>(BLENDMODE::NORMAL));

  const Status missing = NextBlendmodeCommand().Step(*e.doc, nullptr);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().message, "op must not be NULL!");
}

TEST(GroupCommands, GroupingKeepsTheOrderAndUngroupingKeepsEveryChildInPlace) {
  Editor e;
  Node* first = e.AddGenerator("first", 1.0);
  Node* a = e.AddOperator(ID_NOISEOPERATOR, "A");
  Node* b = e.AddOperator(ID_BLUROPERATOR, "B");
  e.AddGenerator("between", 1.0);
  Node* c = e.AddOperator(ID_NOISEOPERATOR, "C");
  e.Select({a, b, e.terrain});
  EXPECT_FALSE(e.Enabled(ID_GROUPOPERATORSCOMMAND));  // every selected object must be an operator
  EXPECT_FALSE(e.Enabled(ID_UNGROUPOPERATORSCOMMAND));

  e.Select({a, c, b});
  ASSERT_TRUE(e.Enabled(ID_GROUPOPERATORSCOMMAND));
  e.RunUndoable(ID_GROUPOPERATORSCOMMAND);
  const std::vector<Node*> selected = e.doc->GetActiveObjects();
  ASSERT_EQ(selected.size(), 1u);
  Node* group = selected.front();
  EXPECT_EQ(group->GetType(), ID_GROUPOPERATOR);
  EXPECT_EQ(group->GetPred(), first);
  EXPECT_EQ(e.Children(group), (std::vector<std::string>{"A", "C", "B"}));  // in selection order
  EXPECT_EQ(e.Children(e.terrain), (std::vector<std::string>{"first", "Group", "between"}));

  // Ungrouping a moved and turned group leaves every child where it was in the world.
  group->SetMl(TranslationMatrix(Vector(5.0, 1.0, -3.0)) * RotationMatrix(Vector(0.0, 0.7, 0.0)));
  b->SetMl(TranslationMatrix(Vector(2.0, 0.0, 1.0)) * ScaleMatrix(Vector(2.0, 1.0, 2.0)));
  const std::vector<Matrix> worlds = {a->GetMg(), c->GetMg(), b->GetMg()};
  e.Select({group});
  ASSERT_TRUE(e.Enabled(ID_UNGROUPOPERATORSCOMMAND));
  e.RunUndoable(ID_UNGROUPOPERATORSCOMMAND);
  EXPECT_EQ(e.Children(e.terrain), (std::vector<std::string>{"first", "A", "C", "B", "between"}));
  EXPECT_EQ(e.doc->GetActiveObjects(), (std::vector<Node*>{a, c, b}));
  const std::vector<Matrix> after = {a->GetMg(), c->GetMg(), b->GetMg()};
  EXPECT_EQ(after, worlds);
}

TEST(GroupCommands, ASelectedGroupAroundTheFirstSelectionIsNotMovedIntoItself) {
  Editor e;
  Node* outer = e.AddGroup("outer");
  Node* inner = e.AddOperator(ID_NOISEOPERATOR, "inner", outer);
  e.Select({inner, outer});
  ASSERT_TRUE(e.Run(ID_GROUPOPERATORSCOMMAND).value_or(false));
  EXPECT_EQ(e.Children(e.terrain), (std::vector<std::string>{"outer"}));
  ASSERT_EQ(e.Children(outer).size(), 1u);
  EXPECT_EQ(e.Children(outer->GetDown()), (std::vector<std::string>{"inner"}));
}

// Stands in for a desktop: records what the commands show.
class RecordingInterface final : public UserInterface {
 public:
  std::optional<std::filesystem::path> SaveFileDialog(std::string_view, std::string_view, std::string_view) override {
    return std::nullopt;
  }
  void MessageDialog(std::string_view text) override { messages.emplace_back(text); }
  std::optional<std::filesystem::path> OpenPage(const std::filesystem::path& page) override {
    pages.push_back(page);
    return std::nullopt;
  }
  std::vector<std::string> messages;
  std::vector<std::filesystem::path> pages;
};

TEST(InfoCommands, HelpOpensTheDocumentationIndexAndAboutNamesTheLibraries) {
  Editor e;
  RecordingInterface ui;
  e.host.SetUserInterface(ui);
  EXPECT_TRUE(e.Enabled(ID_OPENHELPCOMMAND));
  ASSERT_TRUE(e.Run(ID_OPENHELPCOMMAND).value_or(false));
  ASSERT_EQ(ui.pages.size(), 1u);
  EXPECT_EQ(ui.pages[0].filename(), "index.md");
  EXPECT_TRUE(std::filesystem::is_regular_file(ui.pages[0]));

  ASSERT_TRUE(e.Run(ID_ABOUTCOMMAND).value_or(false));
  ASSERT_EQ(ui.messages.size(), 1u);
  for (const char* text : {"Vellgrund 0.", "Built 20", "oneTBB (Apache License 2.0)", "OpenImageIO"})
    EXPECT_NE(ui.messages[0].find(text), std::string::npos) << text;
  EXPECT_EQ(e.doc->UndoCount(), 0);
}

TEST(CommandInterface, CommandsAreFoundByIdOrClassName) {
  Editor e;
  const Registry& registry = e.host.GetRegistry();
  EXPECT_EQ(MenuCommands(registry).size(), 8u);
  EXPECT_EQ(FindCommand(registry, "AboutCommand"), FindCommand(registry, ID_ABOUTCOMMAND));
  EXPECT_EQ(FindCommand(registry, "oterrain"), nullptr);  // a node type is no command
  EXPECT_EQ(FindCommand(registry, ID_TERRAINOBJECT), nullptr);
}

}  // namespace
