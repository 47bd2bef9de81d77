#include "common/vlgd_geometry.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "platform/document.h"
#include "platform/host.h"
#include "platform/parallel.h"
#include "support/test_node_types.h"

namespace VLGD {
namespace {

using platform::CPolygon;
using platform::Float;
using platform::Int;
using platform::Int32;
using platform::Vector;

std::unique_ptr<platform::PolygonObject> Plane(Float sizeX, Float sizeZ, Int32 segX, Int32 segZ, PLANETESSELATIONMODE mode,
                                               bool uvw = true) {
  auto plane = CreatePlaneGeometry(sizeX, sizeZ, segX, segZ, static_cast<Int32>(mode), uvw, nullptr);
  EXPECT_TRUE(plane) << (plane ? "" : plane.error().message);
  return plane ? std::move(*plane) : nullptr;
}

std::vector<CPolygon> Polygons(const platform::PolygonObject& object) {
  return {object.GetPolygonR().begin(), object.GetPolygonR().end()};
}

TEST(PlaneGeometry, SingleCellInEveryMode) {
  auto quads = Plane(4.0, 2.0, 1, 1, PLANETESSELATIONMODE::QUADS);
  ASSERT_TRUE(quads);
  const std::vector<Vector> corners{Vector(-2, 0, 1), Vector(2, 0, 1), Vector(-2, 0, -1), Vector(2, 0, -1)};
  EXPECT_EQ(std::vector<Vector>(quads->GetPointR().begin(), quads->GetPointR().end()), corners);
  EXPECT_EQ(Polygons(*quads), (std::vector<CPolygon>{{1, 3, 2, 0}}));
  EXPECT_EQ(Polygons(*Plane(4.0, 2.0, 1, 1, PLANETESSELATIONMODE::TRIS1)),
            (std::vector<CPolygon>{{0, 1, 3, 3}, {3, 2, 0, 0}}));
  EXPECT_EQ(Polygons(*Plane(4.0, 2.0, 1, 1, PLANETESSELATIONMODE::TRIS2)),
            (std::vector<CPolygon>{{1, 2, 0, 0}, {1, 3, 2, 2}}));
  // Any stored value other than 1 and 2 means quads.
  auto unknown = CreatePlaneGeometry(4.0, 2.0, 1, 1, 7, false, nullptr);
  ASSERT_TRUE(unknown);
  EXPECT_EQ(Polygons(**unknown), (std::vector<CPolygon>{{1, 3, 2, 0}}));
  EXPECT_EQ((*unknown)->FindTag(platform::TagType::UVW), nullptr);
}

TEST(PlaneGeometry, LayoutUvsAndWindingOfLargerPlanes) {
  const Int32 segX = 5, segZ = 3;
  for (PLANETESSELATIONMODE mode : {PLANETESSELATIONMODE::QUADS, PLANETESSELATIONMODE::TRIS1, PLANETESSELATIONMODE::TRIS2}) {
    SCOPED_TRACE(static_cast<int>(mode));
    auto plane = Plane(10.0, 6.0, segX, segZ, mode);
    ASSERT_TRUE(plane);
    ASSERT_EQ(plane->GetPointCount(), (segX + 1) * (segZ + 1));
    ASSERT_EQ(plane->GetPolygonCount(), mode == PLANETESSELATIONMODE::QUADS ? segX * segZ : 2 * segX * segZ);
    const auto points = plane->GetPointR();
    for (Int32 r = 0; r <= segZ; ++r)
      for (Int32 c = 0; c <= segX; ++c)
        EXPECT_EQ(points[static_cast<std::size_t>(r * (segX + 1) + c)], Vector(c * 2.0 - 5.0, 0.0, 3.0 - r * 2.0));

    auto* uvw = static_cast<platform::UVWTag*>(plane->FindTag(platform::TagType::UVW));
    ASSERT_NE(uvw, nullptr);
    const auto uvs = uvw->GetDataAddressR();
    ASSERT_EQ(static_cast<Int>(uvs.size()), plane->GetPolygonCount());
    const auto polygons = plane->GetPolygonR();
    auto expectedUv = [&](Int32 point) {
      return platform::Vector32{static_cast<float>(static_cast<Float>(point % (segX + 1)) / segX),
                                static_cast<float>(static_cast<Float>(point / (segX + 1)) / segZ), 0.0f};
    };
    for (std::size_t p = 0; p < polygons.size(); ++p) {
      const CPolygon& polygon = polygons[p];
      EXPECT_EQ(uvs[p].a, expectedUv(polygon.a));
      EXPECT_EQ(uvs[p].b, expectedUv(polygon.b));
      EXPECT_EQ(uvs[p].c, expectedUv(polygon.c));
      EXPECT_EQ(uvs[p].d, expectedUv(polygon.d));
      EXPECT_EQ(polygon.IsTriangle(), mode != PLANETESSELATIONMODE::QUADS);
      // Every polygon faces up, wound clockwise seen from above (+Y) in our left-handed frame.
      const Vector a = points[static_cast<std::size_t>(polygon.a)];
      const Vector b = points[static_cast<std::size_t>(polygon.b)];
      const Vector c = points[static_cast<std::size_t>(polygon.c)];
      EXPECT_GT(Cross(b - a, c - a).y, 0.0) << p;
    }
    // Cells split along their fixed diagonal: TRIS1 from a to e, TRIS2 from b to d.
    if (mode == PLANETESSELATIONMODE::TRIS1) {
      EXPECT_EQ(polygons[2 * 7], (CPolygon{8, 9, 15, 15}));
    }
    if (mode == PLANETESSELATIONMODE::TRIS2) {
      EXPECT_EQ(polygons[2 * 7 + 1], (CPolygon{9, 15, 14, 14}));
    }
  }
}

TEST(PlaneGeometry, RefusalsAndCancellation) {
  for (auto [sizeX, sizeZ, segX, segZ] : {std::tuple{0.0, 1.0, 1, 1}, std::tuple{1.0, 0.0, 1, 1},
                                          std::tuple{1.0, 1.0, 0, 1}, std::tuple{1.0, 1.0, 1, 0}}) {
    auto refused = CreatePlaneGeometry(sizeX, sizeZ, segX, segZ, 0, true, nullptr);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().message, "A size or segments parameter is 0!");
    EXPECT_EQ(refused.error().kind, platform::ErrorKind::IllegalArgument);
  }
  EXPECT_FALSE(CreatePlaneGeometry(1.0, 1.0, -4, 2, 0, true, nullptr));
  EXPECT_FALSE(CreatePlaneGeometry(std::numeric_limits<Float>::infinity(), 1.0, 4, 2, 0, true, nullptr));

  // More points than 32-bit polygon indices can address.
  auto tooLarge = CreatePlaneGeometry(1.0, 1.0, 100000, 100000, 0, true, nullptr);
  ASSERT_FALSE(tooLarge);
  EXPECT_EQ(tooLarge.error().message, "Could not allocate PolygonObject!");
  EXPECT_EQ(tooLarge.error().kind, platform::ErrorKind::OutOfMemory);

  platform::CancellationToken token;
  token.Cancel();
  auto cancelled = CreatePlaneGeometry(10.0, 10.0, 4, 4, 0, true, &token);
  ASSERT_FALSE(cancelled);
  EXPECT_EQ(cancelled.error().message, "CreatePlaneGeometry() cancelled!");
  EXPECT_EQ(cancelled.error().kind, platform::ErrorKind::Cancelled);
  token.Reset();
  EXPECT_TRUE(CreatePlaneGeometry(10.0, 10.0, 4, 4, 0, true, &token));
}

TEST(PlaneGeometry, ThreadCountDoesNotChangeTheMesh) {
  auto parallel = Plane(300.0, 200.0, 257, 181, PLANETESSELATIONMODE::TRIS2);
  std::unique_ptr<platform::PolygonObject> serial;
  {
    platform::ScopedThreadLimit oneThread(1);
    serial = Plane(300.0, 200.0, 257, 181, PLANETESSELATIONMODE::TRIS2);
  }
  ASSERT_TRUE(parallel && serial);
  EXPECT_TRUE(std::ranges::equal(parallel->GetPointR(), serial->GetPointR()));
  EXPECT_TRUE(std::ranges::equal(parallel->GetPolygonR(), serial->GetPolygonR()));
  auto* a = static_cast<platform::UVWTag*>(parallel->FindTag(platform::TagType::UVW));
  auto* b = static_cast<platform::UVWTag*>(serial->FindTag(platform::TagType::UVW));
  EXPECT_TRUE(std::ranges::equal(a->GetDataAddressR(), b->GetDataAddressR()));
}

}  // namespace
}  // namespace VLGD

namespace {

using namespace platform;
using namespace testing_support;

TEST(CurrentStateTest, BuildsACloneAndPlacesTheResultWithTheGlobalMatrix) {
  Host host;
  RegisterTestNodeTypes(host);
  Document doc(host);
  Node* parent = doc.InsertLast(*doc.CreateNode(kTestObjectType));
  parent->SetMl(TranslationMatrix({10.0, 0.0, 0.0}));
  Node* generator = doc.InsertLast(*doc.CreateNode(kTestGeneratorType), parent);
  generator->SetMl(TranslationMatrix({0.0, 5.0, 0.0}));
  ASSERT_TRUE(generator->SetParameter(kTestFloat, 3.0));

  auto state = VLGD::GetCurrentState(generator, {});
  ASSERT_TRUE(state) << state.error().message;
  EXPECT_EQ((*state)->matrix.off, (Vector{10.0, 5.0, 0.0}));
  EXPECT_EQ(static_cast<const PolygonObject&>(**state).GetPointR()[0].x, 3.0);
  EXPECT_EQ(generator->GetCache(), nullptr);  // the original was not built
  EXPECT_EQ(doc.AllNodes().size(), 2u);

  const auto ErrorOf = [](const Node* node) {
    auto failed = VLGD::GetCurrentState(node, {});
    return failed ? std::string("no error") : failed.error().message;
  };
  EXPECT_EQ(ErrorOf(nullptr), "objectPtr must not be NULL!");
  ASSERT_TRUE(generator->SetParameter(kTestFloat, 9.0));  // the test generator fails above 5
  EXPECT_EQ(ErrorOf(generator), "An error occurred while executing MCOMMAND_CURRENTSTATETOOBJECT!");
  EXPECT_EQ(ErrorOf(parent), "An error occurred while executing MCOMMAND_CURRENTSTATETOOBJECT!");
}

}  // namespace
