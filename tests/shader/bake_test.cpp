#include "shader/bake.h"

#include "platform/scene_file.h"

#include <array>

#include <gtest/gtest.h>

#include "shader/shader_colour.h"
#include "shader/shader_inputs.h"
#include "shader/shader_layer.h"
#include "shader/shader_terrainoperator.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using testing_support::TerrainHarness;

class BakeTest : public ::testing::Test {
 protected:
  BakeTest() : harness_(8, 80.0) {
    generator_ = harness_.AddGenerator("G", 0.0);  // heights 0 .. 8 across the columns
    filter_ = harness_.AddFilter("F", 1.0);
  }
  Node* Material(const std::string& name, std::initializer_list<Node*> users = {}) {
    auto created = doc_.CreateNode(ID_BASE_MATERIAL);
    EXPECT_TRUE(created);
    (*created)->SetName(name);
    Node* material = doc_.InsertMaterial(std::move(*created));
    for (Node* user : users) {
      std::vector<NodeLink> links = user->GetTextureLinks();
      links.push_back({material->Identity()});
      user->SetTextureLinks(links);
    }
    return material;
  }
  Node* Shader(Node& owner, Int32 type, bool branch = true) {
    auto created = doc_.CreateNode(type);
    EXPECT_TRUE(created);
    return branch ? doc_.InsertBranchLast(std::move(*created), &owner) : doc_.InsertLast(std::move(*created), &owner);
  }
  Node* Reading(Node& owner, Node* op, VLGD::OPERATOROUTPUT output = VLGD::OPERATOROUTPUT::RESULT, bool branch = true) {
    Node* shader = Shader(owner, VLGD::ID_TERRAINOPERATORSHADER, branch);
    harness_.Set(shader, VLGD::TERRAINOPERATORSHADER_OPERATOR, NodeLink{op->Identity()});
    harness_.Set(shader, VLGD::TERRAINOPERATORSHADER_OUTPUT, static_cast<Int32>(output));
    return shader;
  }
  // Rebuilds and bakes; the names of the materials baked now, in order.
  std::string RebuildAndBake(VLGD::BakeOptions options = {}) {
    EXPECT_TRUE(harness_.Rebuild());
    auto reports = VLGD::BakeMaterials(*harness_.terrain, doc_, options);
    EXPECT_TRUE(reports) << reports.error().message;
    last_ = reports ? *reports : std::vector<VLGD::BakeReport>{};
    std::string baked;
    for (const VLGD::BakeReport& report : last_)
      if (report.baked) baked += report.material->GetName() + " ";
    return baked;
  }
  [[nodiscard]] const Image& Texture(size_t k) const { return *last_.at(k).image; }

  TerrainHarness harness_;
  Document& doc_ = *harness_.doc;
  Node* generator_ = nullptr;
  Node* filter_ = nullptr;
  std::vector<VLGD::BakeReport> last_;
};

TEST_F(BakeTest, OnlyMaterialsThatReadWhatChangedAreBakedAgain) {
  Node* fromGenerator = Material("fromG", {harness_.terrain});
  Reading(*fromGenerator, generator_);
  Node* fromFilter = Material("fromF", {harness_.terrain});
  Reading(*fromFilter, filter_, VLGD::OPERATOROUTPUT::CHANGEMAP);
  Node* high = Material("high", {harness_.terrain});
  Shader(*high, VLGD::ID_HEIGHTSHADER);
  Material("unused");

  EXPECT_EQ(RebuildAndBake(), "fromG fromF high ");
  EXPECT_EQ(RebuildAndBake(), "");
  harness_.Set(filter_, testing_support::kOperatorValue, 2.0);  // the last operator
  EXPECT_EQ(RebuildAndBake(), "fromF high ");
  harness_.Set(generator_, VLGD::TERRAINOPERATOR_STRENGTH, 0.5);  // the filter after it runs again too
  EXPECT_EQ(RebuildAndBake(), "fromG fromF high ");
  harness_.Set(fromGenerator->GetBranch(), VLGD::TERRAINOPERATORSHADER_OUTPUT, Int32{2});
  EXPECT_EQ(RebuildAndBake(), "fromG ");
  EXPECT_EQ(RebuildAndBake({.textureSize = 4}), "fromG fromF high ");
  EXPECT_EQ(Texture(0).Width(), 4);

  // A deleted operator tells its materials, which then read nothing from it.
  std::unique_ptr<Node> removed = doc_.Remove(*filter_);
  EXPECT_EQ(RebuildAndBake({.textureSize = 4}), "fromF high ");
  EXPECT_EQ(Texture(1).GetPixel(2, 2, 0), 0.0);
}

TEST_F(BakeTest, ShadersGiveKnownValuesAtKnownSamples) {
  // A mask of the generator's result: the columns 0 .. 8 brought into 0 .. 1, 16 bits.
  Node* mask = Material("mask", {harness_.terrain});
  ASSERT_TRUE(doc_.SetParameter(*mask, MATERIAL_MASK, true));
  Reading(*mask, generator_);
  // Red, then blue at half opacity over it: the halfway colour in linear light.
  Node* layered = Material("layered", {harness_.terrain});
  harness_.Set(Shader(*layered, VLGD::ID_COLOURSHADER), VLGD::COLOURSHADER_COLOUR, Vector(1.0, 0.0, 0.0));
  Node* blue = Shader(*layered, VLGD::ID_COLOURSHADER);
  harness_.Set(blue, VLGD::COLOURSHADER_COLOUR, Vector(0.0, 0.0, 1.0));
  harness_.Set(blue, VLGD::SHADER_LAYER_OPACITY, 0.5);
  // A ramp from black to white over the generator's result, masked to nothing on the right
  // half by a height range in the ramp's own branch.
  Node* ramp = Material("ramp", {harness_.terrain});
  Node* rampShader = Shader(*ramp, VLGD::ID_COLOURRAMPSHADER);
  Reading(*rampShader, generator_, VLGD::OPERATOROUTPUT::RESULT, false);
  Node* range = Shader(*rampShader, VLGD::ID_HEIGHTSHADER);
  harness_.Set(range, VLGD::HEIGHTSHADER_LOW, -100.0);
  harness_.Set(range, VLGD::HEIGHTSHADER_HIGH, 5.0);
  harness_.Set(range, VLGD::HEIGHTSHADER_SMOOTH, 0.0);
  ASSERT_EQ(RebuildAndBake(), "mask layered ramp ");

  const Image& masked = Texture(0);
  ASSERT_EQ(masked.Width(), 9);
  ASSERT_EQ(masked.Channels(), 1);
  EXPECT_EQ(masked.Type(), PixelType::UInt16);
  for (Int y : {0, 8}) {
    EXPECT_EQ(masked.GetPixel(0, y, 0), 0.0);
    EXPECT_EQ(masked.GetPixel(8, y, 0), 65535.0);
    EXPECT_EQ(masked.GetPixel(2, y, 0), 16384.0);  // 2 / 8 of 65535, rounded
  }
  const Image& colour = Texture(1);
  ASSERT_EQ(colour.Channels(), 3);
  const double half = std::round(VLGD::LinearToSrgb(0.5f) * 255.0f);
  EXPECT_EQ(colour.GetPixel(4, 4, 0), half);
  EXPECT_EQ(colour.GetPixel(4, 4, 1), 0.0);
  EXPECT_EQ(colour.GetPixel(4, 4, 2), half);
  // Heights are the columns plus the filter's 1: below 5 the ramp shows, from 5 on black.
  const Image& ramped = Texture(2);
  EXPECT_EQ(ramped.GetPixel(0, 3, 0), 0.0);
  EXPECT_EQ(ramped.GetPixel(3, 3, 0), std::round(VLGD::LinearToSrgb(0.375f) * 255.0f));
  EXPECT_EQ(ramped.GetPixel(4, 3, 0), 0.0);
}

TEST(ShadeContext, ImageRowZeroIsTheFarEdgeOfTheGrid) {
  const std::vector<Float> rows = {0.0, 0.0, 10.0, 10.0, 20.0, 20.0};  // 2 columns, 3 rows
  VLGD::ShadeContext context;
  context.width = 2;
  context.height = 5;
  std::vector<float> out(2);
  for (const auto& [y, expected] : {std::pair{0, 20.0f}, {2, 10.0f}, {3, 5.0f}, {4, 0.0f}}) {
    VLGD::SampleGridSpan(rows.data(), 2, 3, context, {y, 0, 2}, out.data());
    EXPECT_EQ(out[0], expected) << "image row " << y;
  }
}

// Pixels of the normal map along the first image row, as (red, green, blue).
std::vector<std::array<int, 3>> NormalRow(const std::vector<Float>& profile, Int textureWidth) {
  VLGD::Grid2D<Float> grid;
  const Int columns = static_cast<Int>(profile.size());
  EXPECT_TRUE(grid.Init(columns, 3, 40.0, 20.0).has_value());
  for (Int y = 0; y < 3; ++y)
    for (Int x = 0; x < columns; ++x) grid.Set(x, y, profile[static_cast<size_t>(x)]);
  const Result<Image> map = VLGD::BakeNormalMap(grid, 40.0, 20.0, textureWidth, 3);
  EXPECT_TRUE(map.has_value());
  std::vector<std::array<int, 3>> row;
  const auto* pixels = reinterpret_cast<const std::uint8_t*>(map->Bytes().data());
  for (Int x = 0; x < textureWidth; ++x) row.push_back({pixels[3 * x], pixels[3 * x + 1], pixels[3 * x + 2]});
  return row;
}

TEST(NormalMap, FlatWhereTheMeshNormalsAreExactAndTiltedWhereTheSurfaceBendsBetweenThem) {
  // A plane, at one pixel per sample and finer: the interpolated normals are the surface's.
  for (const Int width : {5, 17})
    for (const auto& pixel : NormalRow({0.0, 10.0, 20.0, 30.0, 40.0}, width)) {
      EXPECT_NEAR(pixel[0], 128, 1);
      EXPECT_NEAR(pixel[1], 128, 1);
      EXPECT_GE(pixel[2], 254);
    }
  // Ridges: flat on the vertices, where the mesh's normals are exact; halfway up the first
  // flank the surface is steeper than the blend of its ends, so the normal leans towards -X.
  const auto ridges = NormalRow({0.0, 10.0, 0.0, 10.0, 0.0}, 9);
  EXPECT_NEAR(ridges[2][0], 128, 1);
  EXPECT_NEAR(ridges[4][0], 128, 1);
  EXPECT_LT(ridges[1][0], 110);
  EXPECT_NEAR(ridges[1][1], 128, 1);
  // A grid too small to have a surface between samples, and a refused size.
  EXPECT_EQ(NormalRow({5.0}, 2)[1], (std::array<int, 3>{128, 128, 255}));
  VLGD::Grid2D<Float> grid;
  ASSERT_TRUE(grid.Init(2, 2, 1.0, 1.0).has_value());
  EXPECT_FALSE(VLGD::BakeNormalMap(grid, 1.0, 1.0, 0, 4).has_value());
}

}  // namespace

namespace {

// Materials, their shader trees and the terrains' material lists survive a save and a
// load; lists that hold the wrong kind of node are refused with the place named.
TEST(MaterialScenes, RoundTripAndRefusals) {
  TerrainHarness harness;
  const std::string scene = R"({"vellgrund": 1,
    "objects": [{"type": "oterrain", "name": "T", "materials": ["rock", "snow"], "children": [
      {"type": "onoiseoperator", "name": "N", "id": "noise"}]}],
    "materials": [
      {"type": "Mmaterial", "name": "Rock", "id": "rock", "shaders": [
        {"type": "xcolourrampshader", "name": "Ramp", "children": [
          {"type": "xterrainoperatorshader", "params": {"TERRAINOPERATORSHADER_OPERATOR": {"link": "noise"},
                                                        "TERRAINOPERATORSHADER_OUTPUT": "CHANGEMAP"}}],
         "shaders": [{"type": "xslopeshader"}]}]},
      {"type": "Mmaterial", "name": "Snow", "id": "snow", "params": {"MATERIAL_MASK": true},
       "shaders": [{"type": "xheightshader"}]}]})";
  auto loaded = LoadScene(harness.host, scene, "materials.json");
  ASSERT_TRUE(loaded) << loaded.error().message;
  Document& doc = **loaded;
  Node* terrain = doc.FindByName("T");
  ASSERT_EQ(terrain->GetTextureLinks().size(), 2u);
  Node* rock = doc.Resolve(terrain->GetTextureLinks()[0]);
  ASSERT_NE(rock, nullptr);
  EXPECT_EQ(rock->GetName(), "Rock");
  const Node* ramp = rock->GetBranch();
  EXPECT_EQ(doc.Resolve(ramp->GetDown()->GetData().GetLink(VLGD::TERRAINOPERATORSHADER_OPERATOR)), doc.FindByName("N"));
  EXPECT_EQ(ramp->GetBranch()->GetType(), VLGD::ID_SLOPESHADER);

  auto saved = SaveScene(doc);
  ASSERT_TRUE(saved) << saved.error().message;
  auto again = LoadScene(harness.host, *saved, "saved.json");
  ASSERT_TRUE(again) << again.error().message << "\n" << *saved;
  EXPECT_TRUE(DocumentsEqual(doc, **again)) << *saved;

  const std::pair<std::string, std::string> refused[] = {
      {R"({"vellgrund": 1, "objects": [{"type": "xheightshader"}]})", "objects[0]: 'type': \"xheightshader\" cannot"},
      {R"({"vellgrund": 1, "materials": [{"type": "oterrain"}]})", "expected a material type"},
      {R"({"vellgrund": 1, "materials": [{"type": "Mmaterial", "shaders": [{"type": "Mmaterial"}]}]})",
       "materials[0].shaders[0]: 'type'"},
      {R"({"vellgrund": 1, "materials": [{"type": "Mmaterial", "children": [{"type": "xheightshader"}]}]})",
       "a material holds its shaders in 'shaders'"},
      {R"({"vellgrund": 1, "objects": [{"type": "oterrain", "shaders": [{"type": "xheightshader"}]}]})",
       "only materials and shaders hold shaders"},
      {R"({"vellgrund": 1, "objects": [{"type": "oterrain", "materials": ["nothing"]}]})",
       "'materials'[0]: no object has the id 'nothing'"},
      {R"({"vellgrund": 1, "objects": [{"type": "oterrain", "id": "t", "materials": ["t"]}]})", "is not a material"},
  };
  for (const auto& [text, message] : refused) {
    auto result = LoadScene(harness.host, text, "bad.json");
    ASSERT_FALSE(result) << text;
    EXPECT_NE(result.error().message.find(message), std::string::npos) << result.error().message;
  }
}

}  // namespace
