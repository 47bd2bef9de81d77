#include "platform/geometry.h"

#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

constexpr Int kInt32Max = std::numeric_limits<Int32>::max();

// Sizes that cannot be indexed or that do not add up are refused before anything is
// allocated or read.
TEST(GeometryTest, SizesAreCheckedBeforeAllocating) {
  // Polygons index points with 32 bits.
  for (const auto& [points, polygons] : std::vector<std::pair<Int, Int>>{
           {-1, 0}, {0, -1}, {kInt32Max + 1, 0}, {0, kInt32Max + 1}, {std::numeric_limits<Int>::max(), 1}})
    EXPECT_FALSE(PolygonObject::Create(points, polygons)) << points << ", " << polygons;
  EXPECT_FALSE(UVWTag::Create(-1));

  const std::vector<Vector> points(5);
  EXPECT_TRUE(LineObject::Create({}, {}));
  EXPECT_TRUE(LineObject::Create(points, {0, 5, 0}));  // empty lines are allowed
  // Sums short of or beyond the points, negative sizes, and sums that fit only after
  // wrapping around 32 bits.
  for (const std::vector<Int32>& sizes :
       std::vector<std::vector<Int32>>{{3, 1}, {3, 3}, {}, {6, -1}, {-2, 7}, {kInt32Max, kInt32Max, 7}}) {
    Result<std::unique_ptr<LineObject>> refused = LineObject::Create(points, sizes);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, ErrorKind::IllegalArgument);
  }
}

TEST(GeometryTest, TagsAreFoundByTypeAndSelectionsMerge) {
  PolygonSelectionTag selection;
  ASSERT_TRUE(selection.Select(std::vector<Int32>{7, 1, 3, 1, 7}));
  ASSERT_TRUE(selection.Select(std::vector<Int32>{3, 0, 9}));
  EXPECT_EQ(selection.Selected(), (std::vector<Int32>{0, 1, 3, 7, 9}));

  auto mesh = std::move(*PolygonObject::Create(4, 1));
  auto first = std::move(*UVWTag::Create(5));
  const Tag* const uvw = first.get();
  ASSERT_TRUE(mesh->AddTag(std::move(first)));
  ASSERT_TRUE(mesh->AddTag(std::make_unique<PhongTag>()));
  ASSERT_TRUE(mesh->AddTag(std::move(*UVWTag::Create(1))));
  EXPECT_EQ(mesh->FindTag(TagType::UVW), uvw);  // the first of its type
  EXPECT_EQ(mesh->FindTag(TagType::PolygonSelection), nullptr);
  EXPECT_FALSE(mesh->AddTag(nullptr));
  EXPECT_FALSE(mesh->InsertChild(nullptr));
  EXPECT_EQ(mesh->Tags().size(), 3u);
}

}  // namespace
}  // namespace platform
