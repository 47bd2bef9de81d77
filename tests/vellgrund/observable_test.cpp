#include "vellgrund/observable.h"

#include <gtest/gtest.h>

#include "shader/shader_terrainoperator.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using testing_support::TerrainHarness;

class ObserverListTest : public ::testing::Test {
 protected:
  Node* Material(const std::string& name) {
    auto created = harness_.doc->CreateNode(ID_BASE_MATERIAL);
    EXPECT_TRUE(created);
    (*created)->SetName(name);
    return harness_.doc->InsertMaterial(std::move(*created));
  }
  Node* Shader(Node& owner, bool branch, Int32 type = VLGD::ID_TERRAINOPERATORSHADER) {
    auto created = harness_.doc->CreateNode(type);
    EXPECT_TRUE(created);
    return branch ? harness_.doc->InsertBranchLast(std::move(*created), &owner)
                  : harness_.doc->InsertLast(std::move(*created), &owner);
  }
  static UInt32 Refreshes(const Node* shader) {
    return shader->GetNodeData<VLGD::TerrainOperatorShader>()->Refreshes();
  }
  static UInt32 Updates(const Node* material) { return material->GetNodeData<MaterialData>()->UpdateCount(); }

  TerrainHarness harness_;
  Document& doc_ = *harness_.doc;
  VLGD::ObserverList list_;
};

TEST_F(ObserverListTest, AddFindAndRemoveKeepOneLinkEachInOrder) {
  Node* a = Material("a");
  Node* b = Material("b");
  Node* c = Material("c");
  for (Node* material : {a, b, c, a}) ASSERT_TRUE(list_.AddObserver(material, &doc_));
  EXPECT_EQ(list_.Count(), 3);
  list_.RemoveObserver(b, &doc_);
  EXPECT_EQ(list_.Find(a, &doc_), 0);
  EXPECT_EQ(list_.Find(c, &doc_), 1);
  EXPECT_EQ(list_.Find(b, &doc_), -1);

  EXPECT_EQ(list_.AddObserver(nullptr, &doc_).error().message, "Observer must not be nullptr!");
  EXPECT_EQ(list_.AddObserver(a, nullptr).error().message, "doc must not be nullptr!");
  EXPECT_EQ(list_.Find(nullptr, &doc_), -1);
  EXPECT_EQ(list_.Find(a, nullptr), -1);
  list_.RemoveObserver(nullptr, &doc_);
  EXPECT_EQ(list_.Count(), 2);

  // A deleted material is neither found nor told.
  std::unique_ptr<Node> removed = doc_.Remove(*a);
  EXPECT_EQ(list_.Find(removed.get(), &doc_), -1);
  list_.Notify(VLGD::ID_TERRAINOPERATORSHADER, doc_, true);
  EXPECT_EQ(Updates(removed.get()), 0u);
}

TEST_F(ObserverListTest, NotifyWalksTheShaderTreeAndUpdatesOnlyMatchedMaterials) {
  Node* watched = Material("watched");
  Node* layer = Shader(*watched, true, VLGD::ID_LAYERSHADER);
  Node* input = Shader(*layer, false);
  Node* mask = Shader(*input, true);
  Node* second = Shader(*watched, true);
  Node* plain = Material("plain");
  Shader(*plain, true, VLGD::ID_HEIGHTSHADER);
  for (Node* material : {watched, plain}) ASSERT_TRUE(list_.AddObserver(material, &doc_));

  const UInt32 dirtyBefore = watched->GetDirty(DIRTYFLAGS_DATA);
  list_.Notify(VLGD::ID_TERRAINOPERATORSHADER, doc_, false);
  for (const Node* shader : {input, mask, second}) EXPECT_EQ(Refreshes(shader), 1u);
  EXPECT_EQ(Updates(watched), 0u);
  EXPECT_EQ(watched->GetDirty(DIRTYFLAGS_DATA), dirtyBefore);

  list_.Notify(VLGD::ID_TERRAINOPERATORSHADER, doc_, true);
  EXPECT_EQ(Updates(watched), 1u);
  EXPECT_GT(watched->GetDirty(DIRTYFLAGS_DATA), dirtyBefore);
  EXPECT_EQ(Updates(plain), 0u);  // no shader of that type: not touched

  list_.SendMessage(MSG_UPDATE, doc_);
  EXPECT_EQ(Updates(watched), 2u);
  EXPECT_EQ(Updates(plain), 1u);
}

}  // namespace
