#include "platform/document.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/host.h"
#include "platform/material.h"
#include "support/test_node_types.h"

namespace {

using namespace platform;
using namespace testing_support;

class DocumentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.SetConsole(console_);
    RegisterTestNodeTypes(host_);
  }
  Node* Add(const std::string& name, Node* parent = nullptr, Int32 type = kTestObjectType) {
    auto node = doc_.CreateNode(type);
    EXPECT_TRUE(node) << node.error().message;
    (*node)->SetName(name);
    return doc_.InsertLast(std::move(*node), parent);
  }
  std::string Walk() const {
    std::string names;
    for (const Node* node : doc_.AllNodes()) {
      names.append(node->GetName());
      if (node->GetUp() != nullptr) names.append("<").append(node->GetUp()->GetName());
      names.append(" ");
    }
    return names;
  }
  static RecordingObjectData& Data(Node* node) { return *node->GetNodeData<RecordingObjectData>(); }

  CollectingConsole console_;
  Host host_;
  Document doc_{host_};
};

TEST_F(DocumentTest, HierarchyEditsKeepLinksAndSelection) {
  Node* a = Add("a");
  Node* b = Add("b");
  Node* c = Add("c", a);
  doc_.InsertFirst(*doc_.CreateNode(kTestObjectType), a)->SetName("d");
  doc_.InsertBefore(*doc_.CreateNode(kTestObjectType), *b)->SetName("e");
  doc_.InsertAfter(*doc_.CreateNode(kTestObjectType), *c)->SetName("f");
  EXPECT_EQ(Walk(), "a d<a c<a f<a e b ");
  EXPECT_EQ(a->GetDown()->GetName(), "d");
  EXPECT_EQ(a->GetDownLast()->GetName(), "f");
  EXPECT_EQ(c->GetPred()->GetName(), "d");
  EXPECT_EQ(b->GetPred()->GetName(), "e");
  EXPECT_EQ(doc_.FindByName("f")->GetNextDepthFirst(a), nullptr);

  doc_.SetActiveObject(b);
  doc_.SetActiveObject(c, SelectionMode::ADD);
  doc_.SetActiveObject(a, SelectionMode::ADD);
  doc_.SetActiveObject(c, SelectionMode::ADD);  // already selected: keeps its place
  EXPECT_EQ(doc_.GetActiveObjects(), (std::vector<Node*>{b, c, a}));

  const NodeLink toC{c->Identity()};
  EXPECT_EQ(doc_.Resolve(toC), c);
  std::unique_ptr<Node> removed = doc_.Remove(*a);  // takes c along
  EXPECT_EQ(Walk(), "e b ");
  EXPECT_EQ(doc_.Resolve(toC), nullptr);
  EXPECT_EQ(removed->GetDocument(), nullptr);
  EXPECT_EQ(doc_.GetActiveObjects(), (std::vector<Node*>{b}));
  EXPECT_FALSE(c->IsSelected());

  doc_.InsertAfter(std::move(removed), *b);
  EXPECT_EQ(Walk(), "e b a d<a c<a f<a ");
  EXPECT_EQ(doc_.Resolve(toC), c);
  EXPECT_EQ(c->GetDocument(), &doc_);

  auto clone = doc_.Clone(*a);
  ASSERT_TRUE(clone);
  EXPECT_NE((*clone)->Identity(), a->Identity());
  EXPECT_NE((*clone)->GetDown()->GetNext()->Identity(), c->Identity());
  EXPECT_EQ((*clone)->GetDown()->GetNext()->GetName(), "c");
}

TEST_F(DocumentTest, DirtyCountersMoveOnlyOnChanges) {
  Node* parent = Add("parent");
  Node* child = Add("child", parent);
  const UInt32 data = child->GetDirty(DIRTYFLAGS_DATA);
  const UInt32 matrix = child->GetDirty(DIRTYFLAGS_MATRIX);

  ASSERT_TRUE(child->SetParameter(kTestFloat, 3.0));
  ASSERT_TRUE(child->SetParameter(kTestFloat, 3.0));  // same value
  EXPECT_EQ(child->GetDirty(DIRTYFLAGS_DATA), data + 1);
  child->SetEnabled(false);
  child->SetName("renamed");
  child->SetEditorVisibility(Visibility::OFF);
  EXPECT_EQ(child->GetDirty(DIRTYFLAGS_DATA), data + 4);
  EXPECT_EQ(child->GetDirty(DIRTYFLAGS_MATRIX), matrix);

  const Matrix moved = TranslationMatrix({1.0, 2.0, 3.0});
  child->SetMl(moved);
  child->SetMl(moved);
  EXPECT_EQ(child->GetDirty(DIRTYFLAGS_MATRIX), matrix + 1);
  EXPECT_EQ(child->GetDirty(DIRTYFLAGS_MATRIX | DIRTYFLAGS_DATA), matrix + 1 + data + 4);

  // Moving the parent moves the child's global matrix, not its own counters.
  parent->SetMl(ScaleMatrix({2.0, 2.0, 2.0}));
  EXPECT_EQ(child->GetDirty(DIRTYFLAGS_MATRIX), matrix + 1);
  EXPECT_EQ(child->GetMg().off, (Vector{2.0, 4.0, 6.0}));
  child->SetMg(TranslationMatrix({4.0, 0.0, 0.0}));
  EXPECT_EQ(child->GetMl().off, (Vector{2.0, 0.0, 0.0}));
  EXPECT_EQ(child->GetMg().off, (Vector{4.0, 0.0, 0.0}));
}

TEST_F(DocumentTest, ActiveStateFollowsEnabledAndVisibilityForThePurpose) {
  Node* node = Add("n");
  EXPECT_TRUE(node->IsActiveFor(BuildPurpose::EDITOR));
  node->SetRenderVisibility(Visibility::OFF);
  EXPECT_TRUE(node->IsActiveFor(BuildPurpose::EDITOR));
  EXPECT_FALSE(node->IsActiveFor(BuildPurpose::RENDER));
  node->SetRenderVisibility(Visibility::ON);
  node->SetEnabled(false);
  EXPECT_FALSE(node->IsActiveFor(BuildPurpose::RENDER));
  EXPECT_FALSE(node->IsActiveFor(BuildPurpose::EDITOR));
}

TEST_F(DocumentTest, EditsAreCheckedConvertedAndAnnounced) {
  Node* node = Add("n");
  RecordingObjectData& data = Data(node);
  data.messages.clear();

  ASSERT_TRUE(doc_.SetParameter(*node, kTestFloat, Int32{4}));
  EXPECT_EQ(node->GetData().TypeOf(kTestFloat), ValueType::FLOAT);
  EXPECT_EQ(data.messages, (std::vector<std::pair<Int32, Int32>>{{MSG_DESCRIPTION_CHECKUPDATE, kTestFloat},
                                                                 {MSG_DESCRIPTION_POSTSETPARAMETER, kTestFloat}}));
  ASSERT_TRUE(doc_.SetParameter(*node, kTestFloat, 25.0));  // clamped to the limit
  EXPECT_EQ(node->GetData().GetFloat(kTestFloat), 10.0);
  ASSERT_TRUE(doc_.SetParameter(*node, kTestMode, 1.7));  // numbers convert to the described type
  EXPECT_EQ(node->GetData().TypeOf(kTestMode), ValueType::INT32);
  EXPECT_EQ(node->GetData().GetInt32(kTestMode), 1);

  const auto wrongType = doc_.SetParameter(*node, kTestFloat, "high");
  ASSERT_FALSE(wrongType);
  EXPECT_EQ(wrongType.error().message, "Parameter TEST_FLOAT of 'n' does not take a value of this type!");
  ASSERT_FALSE(doc_.SetParameter(*node, kTestFloat, std::nan("")));
  ASSERT_FALSE(doc_.SetParameter(*node, kTestButton, true));
  EXPECT_EQ(node->GetData().GetFloat(kTestFloat), 10.0);

  data.messages.clear();
  EXPECT_TRUE(doc_.PressButton(*node, kTestButton));
  EXPECT_EQ(data.messages, (std::vector<std::pair<Int32, Int32>>{{MSG_DESCRIPTION_COMMAND, kTestButton}}));

  EXPECT_FALSE(IsParameterEnabled(*node, kTestDependent));
  ASSERT_TRUE(doc_.SetParameter(*node, kTestSwitch, true));
  EXPECT_TRUE(IsParameterEnabled(*node, kTestDependent));
  EXPECT_TRUE(IsParameterEnabled(*node, kTestFloat));
}

TEST_F(DocumentTest, InstanceOfBaseTypesAndUnknownTypes) {
  Node* derived = Add("d", nullptr, kTestDerivedType);
  EXPECT_TRUE(derived->IsInstanceOf(kTestDerivedType));
  EXPECT_TRUE(derived->IsInstanceOf(kTestBaseType));
  EXPECT_FALSE(derived->IsInstanceOf(kTestObjectType));
  EXPECT_EQ(derived->GetData().GetFloat(kTestFloat), 1.0);  // defaults of the included description
  EXPECT_FALSE(Add("o")->IsInstanceOf(kTestBaseType));

  const auto unknown = doc_.CreateNode(42);
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().message, "Unknown node type 42!");
  EXPECT_FALSE(doc_.CreateNode("nosuchtype"));
}

TEST_F(DocumentTest, SceneOverridesOfPreferencesStayInTheDocument) {
  ASSERT_TRUE(host_.GetPreferences().GetWorldPluginData(77).Set(1000, Int32{4000}));
  EXPECT_EQ(doc_.GetWorldPluginData(77).GetInt32(1000), 4000);
  ASSERT_TRUE(doc_.OverrideWorldPluginData(77).Set(1000, Int32{64}));
  EXPECT_EQ(doc_.GetWorldPluginData(77).GetInt32(1000), 64);
  EXPECT_EQ(host_.GetPreferences().GetWorldPluginData(77).GetInt32(1000), 4000);
  Document other(host_);
  EXPECT_EQ(other.GetWorldPluginData(77).GetInt32(1000), 4000);
}

TEST_F(DocumentTest, PassesBuildGeneratorCachesOnlyWhenTheirDataChanged) {
  Node* generator = Add("g", nullptr, kTestGeneratorType);
  Add("plain");
  ASSERT_TRUE(doc_.ExecutePasses({}));
  ASSERT_NE(generator->GetCache(), nullptr);
  EXPECT_EQ(Data(generator).builds, 1);
  const UInt32 cacheDirty = generator->GetDirty(DIRTYFLAGS_CACHE);

  ASSERT_TRUE(doc_.ExecutePasses({}));
  EXPECT_EQ(Data(generator).builds, 1);
  EXPECT_EQ(generator->GetDirty(DIRTYFLAGS_CACHE), cacheDirty);

  ASSERT_TRUE(generator->SetParameter(kTestFloat, 2.0));
  ASSERT_TRUE(doc_.ExecutePasses({}));
  EXPECT_EQ(Data(generator).builds, 2);
  const auto* mesh = static_cast<const PolygonObject*>(generator->GetCache());
  EXPECT_EQ(mesh->GetPointR()[0].x, 2.0);

  ASSERT_TRUE(generator->SetParameter(kTestFloat, 6.0));
  const auto failed = doc_.ExecutePasses({});
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().message, "Test generator refuses values above 5!");
  EXPECT_EQ(console_.Lines().back(), "Test generator refuses values above 5!");
  EXPECT_EQ(generator->GetCache(), nullptr);
}

}  // namespace

namespace {

using namespace platform;
using namespace testing_support;

// Materials live in the document's second branch; a node's own list of shaders in its
// second branch. Walks, removal, clones and undo keep the two lists apart.
TEST_F(DocumentTest, SecondBranchesHoldMaterialsAndShadersApartFromChildren) {
  const auto make = [&](const std::string& name, Int32 type = kTestObjectType) {
    auto node = doc_.CreateNode(type);
    EXPECT_TRUE(node) << node.error().message;
    (*node)->SetName(name);
    return std::move(*node);
  };
  Node* terrain = Add("terrain");
  Node* m1 = doc_.InsertMaterial(make("m1", ID_BASE_MATERIAL));
  Node* s1 = doc_.InsertBranchLast(make("s1"), m1);
  doc_.InsertLast(make("c1"), s1);
  Node* b1 = doc_.InsertBranchLast(make("b1"), s1);
  doc_.InsertBranchLast(make("s2"), m1);
  doc_.InsertMaterial(make("m2", ID_BASE_MATERIAL));
  const auto materials = [&] {
    std::string names;
    for (const Node* node : doc_.AllMaterials()) names += node->GetName() + (node->IsInBranch() ? "' " : " ");
    return names;
  };
  // Each shader, its inputs, its own branch, then the next.
  EXPECT_EQ(materials(), "m1' s1' c1 b1' s2' m2' ");
  EXPECT_EQ(Walk(), "terrain ");
  EXPECT_EQ(b1->GetNextDepthFirst(s1), nullptr);
  EXPECT_TRUE(m1->IsInstanceOf(ID_BASE_MATERIAL));
  EXPECT_EQ(doc_.FindByIdentity(b1->Identity()), b1);

  terrain->SetTextureLinks({NodeLink{m1->Identity()}});
  auto clone = doc_.Clone(*m1);
  ASSERT_TRUE(clone);
  EXPECT_EQ((*clone)->GetBranch()->GetName(), "s1");
  EXPECT_TRUE((*clone)->GetBranch()->GetBranch()->IsInBranch());

  doc_.StartUndo();
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_DELETEOBJ, *s1));
  ASSERT_TRUE(doc_.AddUndo(UNDOTYPE_CHANGE, *terrain));
  std::unique_ptr<Node> removed = doc_.Remove(*s1);
  terrain->SetTextureLinks({});
  doc_.EndUndo();
  EXPECT_EQ(materials(), "m1' s2' m2' ");
  EXPECT_EQ(doc_.FindByIdentity(b1->Identity()), nullptr);
  removed.reset();
  ASSERT_TRUE(doc_.DoUndo());
  EXPECT_EQ(materials(), "m1' s1' c1 b1' s2' m2' ");
  EXPECT_EQ(terrain->GetTextureLinks(), (std::vector<NodeLink>{NodeLink{m1->Identity()}}));
  ASSERT_TRUE(doc_.DoRedo());
  EXPECT_EQ(materials(), "m1' s2' m2' ");
  EXPECT_TRUE(terrain->GetTextureLinks().empty());
}

}  // namespace
