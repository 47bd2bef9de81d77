#include "vellgrund/evaluation.h"

#include <gtest/gtest.h>

#include "object/operator_group.h"
#include "platform/field_objects.h"
#include "platform/image.h"
#include "support/temp_dir.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace testing_support;
using VLGD::TERRAINOPERATOR_STRENGTH;

TEST(EvaluationTest, BlendChangesOnlyRecombineAndFiltersFollowTheirInput) {
  TerrainHarness h;
  Node* base = h.AddGenerator("base", 1.0);
  h.AddFilter("raise", 2.0);
  Node* detail = h.AddGenerator("detail", 10.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "base raise detail");
  EXPECT_EQ(h.Height(3, 0), (1.0 + 3.0 + 2.0) + (10.0 + 3.0));

  ASSERT_TRUE(h.Rebuild());  // nothing changed: the mesh is reused
  EXPECT_EQ(h.Rebuilt(), "");

  h.Set(detail, TERRAINOPERATOR_STRENGTH, 0.5);  // blending only
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(3, 0), 6.0 + 0.5 * 13.0);

  h.Set(base, TERRAINOPERATOR_STRENGTH, 0.0);  // a filter after it sees another input
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "raise");
  EXPECT_EQ(h.Height(3, 0), 2.0 + 0.5 * 13.0);

  h.Set(base, kOperatorValue, 4.0);  // a computation parameter
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "base raise");
}

TEST(EvaluationTest, MatricesResolutionAndHierarchyChangesRebuildWhatTheyConcern) {
  TerrainHarness h;
  Node* fixed = h.AddGenerator("fixed", 1.0);
  Node* follows = h.AddGenerator("follows", 1.0);
  h.AddFilter("filter", 1.0);
  Node* last = h.AddGenerator("last", 1.0);
  h.Set(follows, kOperatorFollowsTerrain, true);
  ASSERT_TRUE(h.Rebuild());

  h.terrain->SetMl(TranslationMatrix({5.0, 0.0, 0.0}));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "follows filter");

  h.Set(h.terrain, VLGD::TERRAINOBJECT_RESOLUTION_X, Int32{12});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "fixed follows filter last");
  EXPECT_EQ(h.Terrain().GetGrid().Width(), 13);

  fixed->SetEnabled(false);  // the queue differs from its first item on
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "filter");
  fixed->SetEnabled(true);
  ASSERT_TRUE(h.Rebuild());

  h.doc->Remove(*last).reset();  // shorter queue, no mismatch: the terrain is still rebuilt
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(2, 0), 2.0 * 3.0 + 1.0);
}

TEST(EvaluationTest, GroupsEvaluateTheirOwnStackOnAFlatGridAndNest) {
  TerrainHarness h;
  h.AddGenerator("below", 5.0);
  Node* outer = h.AddGroup("outer");
  Node* inner = h.AddGroup("inner", outer);
  Node* child = h.AddGenerator("child", 1.0, inner);
  outer->SetMl(TranslationMatrix({1.0, 0.0, 0.0}));
  inner->SetMl(ScaleMatrix({2.0, 2.0, 2.0}));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "below outer [inner [child]]");
  // The group's children start from 0, not from the terrain below the group.
  EXPECT_EQ(h.Height(2, 0), (5.0 + 2.0) + (1.0 + 2.0));
  EXPECT_EQ(VLGD::GroupOperator::ParentHierarchyMatrix(*inner),
            TranslationMatrix({1.0, 0.0, 0.0}) * ScaleMatrix({2.0, 2.0, 2.0}));

  h.Set(child, kOperatorValue, 2.0);  // an edit inside rebuilds the groups around it
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "outer [inner [child]]");

  h.doc->Remove(*inner).reset();  // an empty group adds nothing, and with NORMAL flattens
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(2, 0), 7.0);
  h.Set(outer, VLGD::TERRAINOPERATOR_BLENDMODE, Int32{0});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(2, 0), 0.0);
}

TEST(EvaluationTest, MasksRestrictTheBlendToHeightRangesSlopesAndFields) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 0.0);  // heights 0 .. 8 along X
  Node* masked = h.AddGenerator("masked", 100.0);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_HEIGHT_ENABLED, true);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_HEIGHT_LOW, 2.0);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_HEIGHT_HIGH, 6.0);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_HEIGHT_LOWFALLOFF, 1.0);  // fades over the lower half
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(1, 0), 1.0);                         // below the range
  EXPECT_EQ(h.Height(3, 0), 3.0 + 0.5 * 103.0);           // t = 0.5: smooth step 0.5
  EXPECT_EQ(h.Height(5, 0), 5.0 + 105.0);                 // inside
  EXPECT_EQ(h.Height(7, 0), 7.0);                         // above

  // Changing a mask only recombines.
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_HEIGHT_HIGH, 8.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(7, 0), 7.0 + 107.0);

  // The ramp's gentle slope lies outside a range of steep slopes only.
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_HEIGHT_ENABLED, false);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_SLOPE_ENABLED, true);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(5, 3), 5.0 + 105.0);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_SLOPE_LOW, 0.9);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(5, 3), 5.0);
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_SLOPE_ENABLED, false);

  // A sphere of radius 15 around the terrain's centre: 1 there, 0 at the border.
  Node* field = h.doc->InsertLast(*h.doc->CreateNode(ID_FIELD_SPHERICAL));
  h.Set(field, FIELD_RADIUS, 15.0);
  FieldList fields;
  ASSERT_TRUE(fields.AddLayer({.field = field->Identity()}));
  h.Set(masked, VLGD::TERRAINOPERATOR_MASKING_FIELDS_LIST, fields);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(4, 4), 4.0 + 104.0);
  EXPECT_EQ(h.Height(0, 0), 0.0);
  field->SetMl(TranslationMatrix({-40.0, 0.0, 40.0}));  // moving the field object re-masks
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(0, 0), 100.0);
  EXPECT_EQ(h.Height(4, 4), 4.0);
}

TEST(EvaluationTest, FiltersPublishTheirNormalisedChangeAndEveryOperatorItsMemory) {
  TerrainHarness h(1023, 100.0);
  h.AddGenerator("ramp", 0.0);
  Node* filter = h.AddFilter("filter", 3.0);
  ASSERT_TRUE(h.Rebuild());
  const auto& data = *filter->GetNodeData<VLGD::BaseTerrainOperatorData>();
  // A flat change map has no range to normalise over and keeps the change itself.
  for (const Float change : data.GetChangeMap().Values()) ASSERT_EQ(change, 3.0);
  EXPECT_EQ(data.GetMemoryUsage(), (1048576 + 1048576) * 8 + 576);
  EXPECT_EQ(filter->GetData().GetString(VLGD::TERRAINOPERATOR_STATUS), "Memory: 16.00 MB");
  EXPECT_EQ(VLGD::FormatMemory(h.host.GetStrings(), 1000), "Memory: 1000 bytes");

  // The change map is listed and exported as a float TIFF through the operator's messages.
  std::vector<VLGD::CustomOutput> outputs;
  MessageData list;
  list.payload = &outputs;
  ASSERT_TRUE(filter->Message(VLGD::MSG_TERRAINOPERATOR_GETCUSTOMOUTPUTS, list));
  ASSERT_EQ(outputs.size(), 1u);
  EXPECT_EQ(outputs[0].name, "Change map");
  testing_support::TempDir dir;
  VLGD::CustomOutputExport request;
  request.path = dir.File("change");
  MessageData exported;
  exported.payload = &request;
  ASSERT_TRUE(filter->Message(VLGD::MSG_TERRAINOPERATOR_EXPORTCUSTOMOUTPUT, exported)) << request.result.error().message;
  auto image = ReadImage(dir.File("change.tif"));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->GetPixel(7, 7, 0), 3.0);
  MessageData empty;
  empty.info = 2;
  EXPECT_FALSE(filter->Message(VLGD::MSG_TERRAINOPERATOR_EXPORTCUSTOMOUTPUT, empty));
  EXPECT_EQ(h.console.Lines().back(), "Did not receive a custom output pointer for export mode 2");
  EXPECT_FALSE(filter->Message(VLGD::MSG_TERRAINOPERATOR_GETCUSTOMOUTPUTS, empty));
  EXPECT_EQ(h.console.Lines().back(), "Could not get operator's custom outputs list!");
  EXPECT_EQ(VLGD::FormatMemory(h.host.GetStrings(), 1536), "Memory: 1.50 KB");
}

}  // namespace
