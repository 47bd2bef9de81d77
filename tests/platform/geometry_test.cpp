#include "platform/geometry.h"

#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

constexpr Int kInt32Max = std::numeric_limits<Int32>::max();

TEST(GeometryTest, PolygonObjectSizesAndRefusals) {
  Result<std::unique_ptr<PolygonObject>> object = PolygonObject::Create(9, 4);
  ASSERT_TRUE(object);
  PolygonObject& mesh = **object;
  EXPECT_EQ(mesh.Type(), GeometryType::Polygon);
  EXPECT_EQ(mesh.GetPointCount(), 9);
  EXPECT_EQ(mesh.GetPolygonCount(), 4);
  ASSERT_EQ(mesh.GetPointW().size(), 9u);
  ASSERT_EQ(mesh.GetPolygonW().size(), 4u);
  for (const Vector& p : mesh.GetPointR()) EXPECT_EQ(p, Vector{});
  for (const CPolygon& polygon : mesh.GetPolygonR()) EXPECT_EQ(polygon, CPolygon{});
  EXPECT_EQ(mesh.matrix, IdentityMatrix());
  mesh.GetPointW()[8] = Vector{1.0, 2.0, 3.0};
  EXPECT_EQ(mesh.GetPointR()[8], (Vector{1.0, 2.0, 3.0}));

  Result<std::unique_ptr<PolygonObject>> empty = PolygonObject::Create(0, 0);
  ASSERT_TRUE(empty);
  EXPECT_EQ((*empty)->GetPointCount(), 0);
  EXPECT_EQ((*empty)->GetPolygonCount(), 0);

  // Polygons index points with 32 bits, so larger counts are refused before allocating.
  for (const auto& [points, polygons] : std::vector<std::pair<Int, Int>>{
           {-1, 0}, {0, -1}, {kInt32Max + 1, 0}, {0, kInt32Max + 1}, {std::numeric_limits<Int>::max(), 1}}) {
    EXPECT_FALSE(PolygonObject::Create(points, polygons)) << points << ", " << polygons;
  }

  EXPECT_TRUE((CPolygon{0, 1, 2, 2}).IsTriangle());
  EXPECT_FALSE((CPolygon{0, 1, 2, 3}).IsTriangle());
}

TEST(GeometryTest, LineObjectChecksItsSizes) {
  const std::vector<Vector> points{{0.0, 0.0, 0.0}, {1.0, 0.0, 0.0}, {1.0, 1.0, 0.0}, {5.0, 5.0, 5.0}, {6.0, 5.0, 5.0}};
  Result<std::unique_ptr<LineObject>> lines = LineObject::Create(points, {3, 2});
  ASSERT_TRUE(lines);
  EXPECT_EQ((*lines)->Type(), GeometryType::Line);
  ASSERT_EQ((*lines)->Points().size(), 5u);
  EXPECT_EQ((*lines)->Points()[3], (Vector{5.0, 5.0, 5.0}));
  ASSERT_EQ((*lines)->LineSizes().size(), 2u);
  EXPECT_EQ((*lines)->LineSizes()[0], 3);
  EXPECT_EQ((*lines)->LineSizes()[1], 2);

  EXPECT_TRUE(LineObject::Create({}, {}));
  EXPECT_TRUE(LineObject::Create(points, {0, 5, 0}));  // empty lines are allowed
  for (const std::vector<Int32>& sizes : std::vector<std::vector<Int32>>{{3, 1}, {3, 3}, {}, {6, -1}, {-2, 7}}) {
    Result<std::unique_ptr<LineObject>> refused = LineObject::Create(points, sizes);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, ErrorKind::IllegalArgument);
  }
  // Sizes that add up only after wrapping around 32 bits.
  Result<std::unique_ptr<LineObject>> wrapped =
      LineObject::Create(points, {std::numeric_limits<Int32>::max(), std::numeric_limits<Int32>::max(), 7});
  EXPECT_FALSE(wrapped);
}

TEST(GeometryTest, TagsStoreAndFindTheirData) {
  Result<std::unique_ptr<UVWTag>> uvw = UVWTag::Create(5);
  ASSERT_TRUE(uvw);
  EXPECT_EQ((*uvw)->Type(), TagType::UVW);
  EXPECT_TRUE((*uvw)->IsVariable());
  EXPECT_EQ((*uvw)->DataCount(), 5);
  EXPECT_EQ((*uvw)->DataSize(), static_cast<Int>(12 * sizeof(float)));  // four corners of three floats
  ASSERT_EQ((*uvw)->GetDataAddressW().size(), 5u);
  for (const UVWStruct& corners : (*uvw)->GetDataAddressR()) EXPECT_EQ(corners, UVWStruct{});
  (*uvw)->GetDataAddressW()[4].c = Vector32{0.5f, 0.25f, 0.0f};
  EXPECT_EQ((*uvw)->GetDataAddressR()[4].c, (Vector32{0.5f, 0.25f, 0.0f}));
  EXPECT_FALSE(UVWTag::Create(-1));

  PolygonSelectionTag selection;
  EXPECT_FALSE(selection.IsVariable());
  const std::vector<Int32> first{7, 1, 3, 1, 7};
  ASSERT_TRUE(selection.Select(first));
  EXPECT_EQ(selection.Selected(), (std::vector<Int32>{1, 3, 7}));
  const std::vector<Int32> second{3, 0, 9};
  ASSERT_TRUE(selection.Select(second));
  EXPECT_EQ(selection.Selected(), (std::vector<Int32>{0, 1, 3, 7, 9}));
  ASSERT_TRUE(selection.Select({}));
  EXPECT_EQ(selection.Selected().size(), 5u);

  Result<std::unique_ptr<PolygonObject>> object = PolygonObject::Create(4, 1);
  ASSERT_TRUE(object);
  GeometryObject& mesh = **object;
  EXPECT_EQ(mesh.FindTag(TagType::UVW), nullptr);
  Tag* const uvwTag = uvw->get();
  ASSERT_TRUE(mesh.AddTag(std::move(*uvw)));
  auto phong = std::make_unique<PhongTag>();
  Tag* const phongTag = phong.get();
  ASSERT_TRUE(mesh.AddTag(std::move(phong)));
  Result<std::unique_ptr<UVWTag>> secondUvw = UVWTag::Create(1);
  ASSERT_TRUE(secondUvw);
  ASSERT_TRUE(mesh.AddTag(std::move(*secondUvw)));
  EXPECT_EQ(mesh.FindTag(TagType::UVW), uvwTag);  // the first of its type
  EXPECT_EQ(mesh.FindTag(TagType::Phong), phongTag);
  EXPECT_EQ(mesh.FindTag(TagType::PolygonSelection), nullptr);
  EXPECT_EQ(mesh.Tags().size(), 3u);

  Status noTag = mesh.AddTag(nullptr);
  ASSERT_FALSE(noTag);
  EXPECT_EQ(noTag.error().kind, ErrorKind::IllegalArgument);
  Status noChild = mesh.InsertChild(nullptr);
  ASSERT_FALSE(noChild);
  EXPECT_EQ(noChild.error().kind, ErrorKind::IllegalArgument);
  EXPECT_EQ(mesh.Tags().size(), 3u);
  EXPECT_TRUE(mesh.Children().empty());

  Result<std::unique_ptr<PolygonObject>> child = PolygonObject::Create(1, 0);
  ASSERT_TRUE(child);
  GeometryObject* const childObject = child->get();
  ASSERT_TRUE(mesh.InsertChild(std::move(*child)));
  ASSERT_EQ(mesh.Children().size(), 1u);
  EXPECT_EQ(mesh.Children()[0].get(), childObject);
}

}  // namespace
}  // namespace platform
