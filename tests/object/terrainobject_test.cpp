#include "object/terrainobject.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "platform/image.h"
#include "support/temp_dir.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace testing_support;
using namespace VLGD;

const PolygonObject& Mesh(const TerrainHarness& h) { return static_cast<const PolygonObject&>(*h.terrain->GetCache()); }

TEST(TerrainObjectTest, TheMeshMatchesTheGridAndTheBuildSteps) {
  TerrainHarness h(4, 40.0);
  h.AddGenerator("ramp", 0.0);  // heights = column index
  ASSERT_TRUE(h.Rebuild());
  const PolygonObject& flat = Mesh(h);
  ASSERT_EQ(flat.GetPointCount(), 25);
  EXPECT_EQ(flat.GetPointR()[0], (Vector{-20.0, 0.0, 20.0}));
  EXPECT_EQ(flat.GetPointR()[24], (Vector{20.0, 4.0, -20.0}));
  EXPECT_NE(flat.FindTag(TagType::Phong), nullptr);
  EXPECT_EQ(flat.Children().size(), 0u);
  Vector centre;
  Vector radius;
  h.terrain->GetNodeData<ObjectData>()->GetDimension(*h.terrain, centre, radius);
  EXPECT_EQ(centre, (Vector{0.0, 2.0, 0.0}));
  EXPECT_EQ(radius, (Vector{20.0, 2.0, 20.0}));
  // 8 x 25 samples + 521 + the operator's 25 x 8 + 576, 1 per tag and 16 polygons of UVW
  // data: 2267 bytes.
  EXPECT_EQ(h.terrain->GetData().GetString(TERRAINOBJECT_MEMORY_INFO), "Memory: 2.21 KB");

  // Edge fade: the border goes to the edge height, the centre keeps its height.
  h.Set(h.terrain, TERRAINOBJECT_EDGE_FALLOFF, true);
  h.Set(h.terrain, TERRAINOBJECT_EDGE_HEIGHT, -1.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(0, 2), -1.0);
  EXPECT_EQ(h.Height(2, 2), 2.0);
  const Float t = std::sqrt(0.5 * 1.0);  // sample (1, 2): u = 0.5, v = 0
  EXPECT_DOUBLE_EQ(h.Height(1, 2), 1.0 + (-1.0 - 1.0) * (1.0 - t * t * (3.0 - 2.0 * t)));

  // Hull: one ring of 2 x (4 + 4) border points from point 0, down to -depth.
  h.Set(h.terrain, TERRAINOBJECT_EDGE_FALLOFF, false);
  h.Set(h.terrain, TERRAINOBJECT_HULL, true);
  h.Set(h.terrain, TERRAINOBJECT_HULL_DEPTH, 7.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Terrain().GetBorderIndices(),
            (std::vector<Int32>{0, 1, 2, 3, 4, 9, 14, 19, 24, 23, 22, 21, 20, 15, 10, 5}));
  ASSERT_EQ(Mesh(h).Children().size(), 1u);
  const auto& hull = static_cast<const PolygonObject&>(*Mesh(h).Children()[0]);
  EXPECT_EQ(hull.GetPointR()[3], Mesh(h).GetPointR()[3]);
  EXPECT_EQ(hull.GetPointR()[16 + 3].y, -7.0);
  EXPECT_NE(hull.FindTag(TagType::UVW), nullptr);
  EXPECT_NE(hull.FindTag(TagType::PolygonSelection), nullptr);
  EXPECT_EQ(h.Terrain().GetGrid().Minimum(), -7.0);

  // Curvature suppresses the hull and bends the plane onto a sphere around (0, -R, 0).
  h.Set(h.terrain, TERRAINOBJECT_CURVATURE, true);
  h.Set(h.terrain, TERRAINOBJECT_CURVATURE_RADIUS, 100.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(Mesh(h).Children().size(), 0u);
  EXPECT_FALSE(IsParameterEnabled(*h.terrain, TERRAINOBJECT_HULL));
  const Vector corner = Mesh(h).GetPointR()[24];
  EXPECT_NEAR(Length(corner - Vector{0.0, -100.0, 0.0}), 100.0 + 4.0, 1e-9);
}

TEST(TerrainObjectTest, ResolutionFollowsLevelOfDetailAndTheCap) {
  TerrainHarness h(500, 500.0);
  CollectingConsole warnings;
  h.host.SetWarnings(warnings);
  h.terrain->SetName("Hills");
  HierarchyHelp help;
  help.lod = 0.5;
  help.flags = BUILDFLAGS_ISOPARM;
  ASSERT_TRUE(h.doc->ExecutePasses(help));
  EXPECT_EQ(h.Terrain().GetGrid().Width(), 251);
  EXPECT_EQ(warnings.Lines(), std::vector<std::string>{}) << "a lower level of detail was asked for";
  // Isoparms: 3 inner lines and 2 borders per direction.
  EXPECT_EQ(Mesh(h).isoparm->LineSizes().size(), 10u);
  ASSERT_TRUE(h.doc->GetWorldPluginData(ID_PREFERENCES).Set(PREFS_MAX_RESOLUTION, Int32{200}));
  h.terrain->SetDirty(DIRTYFLAGS_DATA);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Terrain().GetGrid().Width(), 201);
  EXPECT_EQ(warnings.Lines().back(),
            "Warning: terrain 'Hills': resolution 500 x 500 is capped at 200 x 200 by the maximum resolution "
            "preference (200).");
  // A cap the resolution stays within is no news.
  ASSERT_TRUE(h.doc->GetWorldPluginData(ID_PREFERENCES).Set(PREFS_MAX_RESOLUTION, Int32{500}));
  h.terrain->SetDirty(DIRTYFLAGS_DATA);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(Mesh(h).GetPointCount(), 501 * 501);
  EXPECT_EQ(warnings.Lines().size(), 1u);
  // Raised by the level of detail beyond the cap.
  help.lod = 4.0;
  h.terrain->SetDirty(DIRTYFLAGS_DATA);
  ASSERT_TRUE(h.doc->ExecutePasses(help));
  EXPECT_EQ(warnings.Lines().back(),
            "Warning: terrain 'Hills': resolution 500 x 500 at level of detail 4 (2000 x 2000) is capped at 500 x 500 "
            "by the maximum resolution preference (500).");
}

TEST(TerrainObjectTest, EditsKeepRadiusDensityAndCapRules) {
  TerrainHarness h(100, 200.0);
  Node* t = h.terrain;
  h.Set(t, TERRAINOBJECT_CURVATURE_RADIUS, 50.0);
  h.Set(t, TERRAINOBJECT_SIZE_X, 300.0);  // radius below the smaller size is raised to it
  EXPECT_EQ(t->GetData().GetFloat(TERRAINOBJECT_CURVATURE_RADIUS), 200.0);
  h.Set(t, TERRAINOBJECT_CURVATURE_RADIUS, 1000.0);
  h.Set(t, TERRAINOBJECT_SIZE_Z, 250.0);
  EXPECT_EQ(t->GetData().GetFloat(TERRAINOBJECT_CURVATURE_RADIUS), 1000.0);

  h.Set(t, TERRAINOBJECT_RESOLUTION_X, Int32{150});  // densities: 0.5 and 0.4 per unit
  h.Set(t, TERRAINOBJECT_LOCK_DENSITY, true);
  h.Set(t, TERRAINOBJECT_SIZE_X, 600.0);
  EXPECT_EQ(t->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X), 300);
  EXPECT_EQ(t->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_Z), 100);

  ASSERT_TRUE(t->SetParameter(TERRAINOBJECT_RESOLUTION_X, Int32{9000}));
  ASSERT_TRUE(h.doc->OverrideWorldPluginData(ID_PREFERENCES).Remove(PREFS_MAX_RESOLUTION));
  EXPECT_TRUE(t->Message(MSG_DESCRIPTION_VALIDATE));  // falls back to 4000 when validating
  EXPECT_EQ(t->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X), 4000);
  ASSERT_TRUE(h.doc->OverrideWorldPluginData(ID_PREFERENCES).Set(PREFS_MAX_RESOLUTION, Int32{1000}));
  EXPECT_TRUE(t->Message(ID_PREFERENCES));
  EXPECT_EQ(t->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X), 1000);

  // Files of level 0 kept the hull depth as a positive integer.
  ASSERT_TRUE(t->GetDataInstance().Set(TERRAINOBJECT_HULL_DEPTH, 10.0));
  EXPECT_TRUE(t->GetNodeData()->Read(*t, 0));
  EXPECT_EQ(t->GetData().TypeOf(TERRAINOBJECT_HULL_DEPTH), ValueType::INT32);
  EXPECT_EQ(t->GetData().GetInt32(TERRAINOBJECT_HULL_DEPTH), -10);
}

// Answers the save dialog with a fixed file and records what was asked.
class ScriptedDialogs final : public UserInterface {
 public:
  std::optional<std::filesystem::path> SaveFileDialog(std::string_view title, std::string_view proposedName,
                                                      std::string_view suffix) override {
    asked = std::string(title) + "|" + std::string(proposedName) + "|" + std::string(suffix);
    return answer;
  }
  void MessageDialog(std::string_view text) override { messages += std::string(text) + "\n"; }
  std::optional<std::filesystem::path> answer;
  std::string asked;
  std::string messages;
};

TEST(TerrainObjectTest, TheExportButtonWritesRawOrNormalisedFloatTiffs) {
  TerrainHarness h(4, 40.0);
  ScriptedDialogs dialogs;
  h.host.SetUserInterface(dialogs);
  testing_support::TempDir dir;
  h.terrain->SetName("Hills");
  EXPECT_TRUE(h.doc->PressButton(*h.terrain, TERRAINOBJECT_EXPORT));  // nothing built yet: nothing to ask
  EXPECT_EQ(dialogs.asked, "");

  h.AddGenerator("ramp", 10.0);
  ASSERT_TRUE(h.Rebuild());
  dialogs.answer = dir.Path() / "raw.tif";
  EXPECT_TRUE(h.doc->PressButton(*h.terrain, TERRAINOBJECT_EXPORT));
  EXPECT_EQ(dialogs.asked, "Export height map|Terrain_Hills_raw|tif");
  auto raw = ReadImage(dir.Path() / "raw.tif");
  ASSERT_TRUE(raw) << raw.error().message;
  EXPECT_EQ(raw->Type(), PixelType::Float32);
  EXPECT_EQ(raw->GetPixel(4, 0, 0), 14.0);  // row 0 of the image is the grid's last row

  h.Set(h.terrain, TERRAINOBJECT_EXPORT_MODE, Int32{1});
  dialogs.answer = dir.Path() / "normalized.tif";
  EXPECT_TRUE(h.doc->PressButton(*h.terrain, TERRAINOBJECT_EXPORT));
  EXPECT_EQ(dialogs.asked, "Export height map|Terrain_Hills_normalized|tif");
  auto normalized = ReadImage(dir.Path() / "normalized.tif");
  ASSERT_TRUE(normalized);
  EXPECT_EQ(normalized->GetPixel(4, 0, 0), 1.0);
  EXPECT_EQ(normalized->GetPixel(0, 0, 0), 0.0);

  dialogs.answer = dir.Path() / "missing" / "folder.tif";
  EXPECT_TRUE(h.doc->PressButton(*h.terrain, TERRAINOBJECT_EXPORT));
  EXPECT_EQ(dialogs.messages, "The height map could not be exported.\n");
}

}  // namespace
