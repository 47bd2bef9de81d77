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

std::unique_ptr<platform::PolygonObject> Plane(Float sizeX, Float sizeZ, Int32 segX, Int32 segZ,
                                               PLANETESSELATIONMODE mode, bool uvw = true) {
  auto plane = CreatePlaneGeometry(sizeX, sizeZ, segX, segZ, static_cast<Int32>(mode), uvw, nullptr);
  EXPECT_TRUE(plane) << (plane ? "" : plane.error().message);
  return plane ? std::move(*plane) : nullptr;
}

std::vector<CPolygon> Polygons(const platform::PolygonObject& object) {
  return {object.GetPolygonR().begin(), object.GetPolygonR().end()};
}

// A cell's polygons from its corners: a, then b in the next column, c and d in the next
// row. Quads and the two diagonals along which the triangle modes split a cell.
std::vector<CPolygon> CellPolygons(PLANETESSELATIONMODE mode, Int32 a, Int32 b, Int32 c, Int32 d) {
  switch (mode) {
    case PLANETESSELATIONMODE::TRIS1:
      return {{a, b, d, d}, {d, c, a, a}};
    case PLANETESSELATIONMODE::TRIS2:
      return {{b, c, a, a}, {b, d, c, c}};
    default:
      return {{b, d, c, a}};
  }
}

TEST(PlaneGeometry, LayoutUvsAndWindingInEveryMode) {
  const Int32 segX = 5, segZ = 3;
  for (PLANETESSELATIONMODE mode :
       {PLANETESSELATIONMODE::QUADS, PLANETESSELATIONMODE::TRIS1, PLANETESSELATIONMODE::TRIS2}) {
    SCOPED_TRACE(static_cast<int>(mode));
    auto plane = Plane(10.0, 6.0, segX, segZ, mode);
    ASSERT_TRUE(plane);
    ASSERT_EQ(plane->GetPointCount(), (segX + 1) * (segZ + 1));
    const auto points = plane->GetPointR();
    for (Int32 r = 0; r <= segZ; ++r)
      for (Int32 c = 0; c <= segX; ++c)
        EXPECT_EQ(points[static_cast<std::size_t>(r * (segX + 1) + c)], Vector(c * 2.0 - 5.0, 0.0, 3.0 - r * 2.0));
    std::vector<CPolygon> cells;
    for (Int32 r = 0; r < segZ; ++r)
      for (Int32 c = 0; c < segX; ++c) {
        const Int32 a = r * (segX + 1) + c;
        for (const CPolygon& polygon : CellPolygons(mode, a, a + 1, a + segX + 1, a + segX + 2))
          cells.push_back(polygon);
      }
    EXPECT_EQ(Polygons(*plane), cells);

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
      EXPECT_EQ(uvs[p], (platform::UVWStruct{expectedUv(polygon.a), expectedUv(polygon.b), expectedUv(polygon.c),
                                             expectedUv(polygon.d)}));
      // Every polygon faces up, wound clockwise seen from above (+Y) in our left-handed frame.
      const Vector a = points[static_cast<std::size_t>(polygon.a)];
      const Vector b = points[static_cast<std::size_t>(polygon.b)];
      const Vector c = points[static_cast<std::size_t>(polygon.c)];
      EXPECT_GT(Cross(b - a, c - a).y, 0.0) << p;
    }
  }
  // Any stored value other than 1 and 2 means quads.
  auto unknown = CreatePlaneGeometry(4.0, 2.0, 1, 1, 7, false, nullptr);
  ASSERT_TRUE(unknown);
  EXPECT_EQ(Polygons(**unknown), CellPolygons(PLANETESSELATIONMODE::QUADS, 0, 1, 2, 3));
  EXPECT_EQ((*unknown)->FindTag(platform::TagType::UVW), nullptr);
}

TEST(PlaneGeometry, RefusalsAndCancellation) {
  using enum platform::ErrorKind;
  const Float inf = std::numeric_limits<Float>::infinity();
  platform::CancellationToken token;
  token.Cancel();
  // The last but one has more points than 32-bit polygon indices can address.
  const struct {
    Float sizeX, sizeZ;
    Int32 segX, segZ;
    const platform::CancellationToken* thread;
    const char* message;
    platform::ErrorKind kind;
  } refusals[] = {{0.0, 1.0, 1, 1, nullptr, "A size or segments parameter is 0!", IllegalArgument},
                  {1.0, 0.0, 1, 1, nullptr, "A size or segments parameter is 0!", IllegalArgument},
                  {1.0, 1.0, 0, 1, nullptr, "A size or segments parameter is 0!", IllegalArgument},
                  {1.0, 1.0, 1, 0, nullptr, "A size or segments parameter is 0!", IllegalArgument},
                  {1.0, 1.0, -4, 2, nullptr, "A segments parameter is negative!", IllegalArgument},
                  {inf, 1.0, 4, 2, nullptr, "A size parameter is not a finite number!", IllegalArgument},
                  {1.0, 1.0, 100000, 100000, nullptr, "Could not allocate PolygonObject!", OutOfMemory},
                  {10.0, 10.0, 4, 4, &token, "CreatePlaneGeometry() cancelled!", Cancelled}};
  for (const auto& r : refusals) {
    auto refused = CreatePlaneGeometry(r.sizeX, r.sizeZ, r.segX, r.segZ, 0, true, r.thread);
    ASSERT_FALSE(refused) << r.message;
    EXPECT_EQ(refused.error().message, r.message);
    EXPECT_EQ(refused.error().kind, r.kind) << r.message;
  }
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

  ASSERT_TRUE(generator->SetParameter(kTestFloat, 9.0));  // the test generator fails above 5
  for (const auto& [node, message] : {std::pair<const Node*, std::string>{nullptr, "objectPtr must not be NULL!"},
                                      {generator, "An error occurred while executing MCOMMAND_CURRENTSTATETOOBJECT!"},
                                      {parent, "An error occurred while executing MCOMMAND_CURRENTSTATETOOBJECT!"}}) {
    auto failed = VLGD::GetCurrentState(node, {});
    ASSERT_FALSE(failed) << message;
    EXPECT_EQ(failed.error().message, message);
  }
}

}  // namespace
