#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "platform/document.h"
#include "platform/host.h"
#include "support/test_node_types.h"

namespace {

using namespace platform;
using namespace testing_support;

class UndoTest : public ::testing::Test {
 protected:
  void SetUp() override { RegisterTestNodeTypes(host_); }
  Node* Add(const std::string& name, Node* parent = nullptr) {
    auto node = doc_.CreateNode(kTestObjectType);
    (*node)->SetName(name);
    return doc_.InsertLast(std::move(*node), parent);
  }
  // Names with parents, the float, the enabled state, the offset and the selection in one text.
  std::string State() const {
    std::ostringstream state;
    for (const Node* node : doc_.AllNodes()) {
      state << node->GetName() << (node->GetUp() != nullptr ? "<" + node->GetUp()->GetName() : "") << "("
            << node->GetData().GetFloat(kTestFloat) << "," << node->IsEnabled() << "," << node->GetMl().off.x << ") ";
    }
    state << "| ";
    for (const Node* node : doc_.GetActiveObjects()) state << node->GetName() << " ";
    return state.str();
  }

  Host host_;
  Document doc_{host_};
};

// Wrapping selected nodes into a new parent: the editor's grouping, step by step.
TEST_F(UndoTest, GroupingIsUndoneAndRedoneExactly) {
  Add("x");
  Node* a = Add("a");
  Node* b = Add("b");
  Node* c = Add("c");
  Add("y");
  doc_.SetActiveObject(a);
  doc_.SetActiveObject(b, SelectionMode::ADD);
  doc_.SetActiveObject(c, SelectionMode::ADD);
  const std::string before = State();

  doc_.StartUndo();
  const std::vector<Node*> selected = doc_.GetActiveObjects();
  Node* group = doc_.InsertBefore(*doc_.CreateNode(kTestObjectType), *a);
  group->SetName("group");
  doc_.SetActiveObject(group);
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_NEWOBJ, *group));
  for (Node* node : selected) {
    ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_CHANGE, *node));
    doc_.InsertLast(doc_.Remove(*node), group);
  }
  doc_.EndUndo();
  const std::string after = State();
  EXPECT_EQ(after, "x(1,1,0) group(1,1,0) a<group(1,1,0) b<group(1,1,0) c<group(1,1,0) y(1,1,0) | group ");

  ASSERT_TRUE(doc_.DoUndo());
  EXPECT_EQ(State(), before);
  ASSERT_TRUE(doc_.DoRedo());
  EXPECT_EQ(State(), after);
  ASSERT_TRUE(doc_.DoUndo());
  EXPECT_EQ(State(), before);
  EXPECT_FALSE(doc_.DoUndo());
}

TEST_F(UndoTest, ChangesOfParametersStateAndMatrixSwapBothWays) {
  Node* node = Add("n");
  doc_.StartUndo();
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_CHANGE_SMALL, *node));
  ASSERT_TRUE(doc_.SetParameter(*node, kTestFloat, 7.0));
  doc_.EndUndo();
  doc_.StartUndo();
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_CHANGE, *node));
  node->SetEnabled(false);
  node->SetMl(TranslationMatrix({3.0, 0.0, 0.0}));
  ASSERT_TRUE(node->SetParameter(kTestFloat, 8.0));
  doc_.EndUndo();
  EXPECT_EQ(doc_.UndoCount(), 2);

  const UInt32 dirty = node->GetDirty(DIRTYFLAGS_DATA);
  ASSERT_TRUE(doc_.DoUndo());
  EXPECT_EQ(State(), "n(7,1,0) | ");
  EXPECT_GT(node->GetDirty(DIRTYFLAGS_DATA), dirty);  // caches must see the restored values
  ASSERT_TRUE(doc_.DoUndo());
  EXPECT_EQ(State(), "n(1,1,0) | ");
  ASSERT_TRUE(doc_.DoRedo());
  ASSERT_TRUE(doc_.DoRedo());
  EXPECT_EQ(State(), "n(8,0,3) | ");

  // A new edit drops what could be redone.
  ASSERT_TRUE(doc_.DoUndo());
  doc_.StartUndo();
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_CHANGE_SMALL, *node));
  doc_.EndUndo();
  EXPECT_EQ(doc_.RedoCount(), 0);
}

TEST_F(UndoTest, DeletedNodesComeBackWithTheirIdentityChildrenAndSelection) {
  Add("first");
  Node* doomed = Add("doomed");
  Node* child = Add("child", doomed);
  Add("last");
  ASSERT_TRUE(child->SetParameter(kTestFloat, 4.0));
  doc_.SetActiveObject(child);
  const NodeLink link{child->Identity()};
  const std::string before = State();

  doc_.StartUndo();
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_DELETEOBJ, *doomed));
  doc_.Remove(*doomed).reset();
  doc_.EndUndo();
  EXPECT_EQ(doc_.Resolve(link), nullptr);
  EXPECT_EQ(State(), "first(1,1,0) last(1,1,0) | ");

  ASSERT_TRUE(doc_.DoUndo());
  EXPECT_EQ(State(), before);
  EXPECT_EQ(doc_.Resolve(link), doc_.FindByName("child"));  // the same identity, the values in State()
  ASSERT_TRUE(doc_.DoRedo());
  EXPECT_EQ(doc_.Resolve(link), nullptr);
}

TEST_F(UndoTest, StepsNeedAnOpenGroupAndEmptyGroupsLeaveNoEntry) {
  Node* node = Add("n");
  EXPECT_FALSE(doc_.AddUndo(UNDOTYPE_CHANGE, *node));
  doc_.StartUndo();
  doc_.StartUndo();  // nested groups make one entry
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_CHANGE_SMALL, *node));
  doc_.EndUndo();
  EXPECT_FALSE(doc_.DoUndo());  // not while a group is open
  doc_.EndUndo();
  EXPECT_EQ(doc_.UndoCount(), 1);
  doc_.StartUndo();
  doc_.EndUndo();
  EXPECT_EQ(doc_.UndoCount(), 1);
}

}  // namespace
