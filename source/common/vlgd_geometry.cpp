#include "common/vlgd_geometry.h"

#include <cmath>
#include <limits>

#include <new>
#include <string>

#include "platform/document.h"
#include "platform/memory.h"
#include "platform/parallel.h"

namespace VLGD {
namespace {

using platform::CPolygon;
using platform::Float;
using platform::Int;
using platform::Int32;
using platform::UVWStruct;
using platform::Vector32;


}  // namespace

platform::Result<std::unique_ptr<platform::PolygonObject>> CreatePlaneGeometry(Float sizeX, Float sizeZ, Int32 segX,
                                                                               Int32 segZ, Int32 mode, bool createUVW,
                                                                               const platform::CancellationToken* thread) {
  if (sizeX == 0.0 || sizeZ == 0.0 || segX == 0 || segZ == 0)
    return platform::IllegalArgumentError("A size or segments parameter is 0!");
  if (segX < 0 || segZ < 0) return platform::IllegalArgumentError("A segments parameter is negative!");
  if (!std::isfinite(sizeX) || !std::isfinite(sizeZ))
    return platform::IllegalArgumentError("A size parameter is not a finite number!");

  const auto tessellation = static_cast<PLANETESSELATIONMODE>(mode);
  const bool triangles = tessellation == PLANETESSELATIONMODE::TRIS1 || tessellation == PLANETESSELATIONMODE::TRIS2;
  const Int columns = Int{segX} + 1;
  const Int pointCount = columns * (Int{segZ} + 1);
  const Int cellCount = Int{segX} * Int{segZ};
  const Int polygonCount = triangles ? cellCount * 2 : cellCount;

  const platform::UInt64 bytes =
      platform::BytesFor(pointCount, sizeof(platform::Vector)) + platform::BytesFor(polygonCount, sizeof(CPolygon)) +
      (createUVW ? platform::BytesFor(polygonCount, sizeof(UVWStruct)) : 0);
  // Counts that 32-bit indices cannot address are refused by the allocation itself.
  if (pointCount <= std::numeric_limits<Int32>::max() && polygonCount <= std::numeric_limits<Int32>::max())
    VLGD_RETURN_IF_ERROR(platform::CheckMemory(
        bytes, "A plane of " + std::to_string(segX) + " x " + std::to_string(segZ) + " segments"));
  auto created = platform::PolygonObject::Create(pointCount, polygonCount);
  if (!created) return std::unexpected(std::move(created).error());
  std::unique_ptr<platform::PolygonObject> plane = std::move(*created);
  platform::Vector* points = plane->GetPointW().data();
  CPolygon* polygons = plane->GetPolygonW().data();
  if (pointCount > 0 && points == nullptr) return platform::GenericError("PolygonObject::GetPointW() failed!");
  if (polygonCount > 0 && polygons == nullptr) return platform::GenericError("PolygonObject::GetPolygonW() failed!");

  UVWStruct* uvw = nullptr;
  if (createUVW) {
    auto tag = platform::UVWTag::Create(polygonCount);
    if (!tag) return platform::OutOfMemoryError("Could not allocate UVWTag!");
    uvw = (*tag)->GetDataAddressW().data();
    VLGD_RETURN_IF_ERROR(plane->AddTag(std::move(*tag)));
  }

  const Float stepX = sizeX / segX;
  const Float stepZ = sizeZ / segZ;
  const Float halfX = sizeX / 2.0;
  const Float halfZ = sizeZ / 2.0;
  auto uv = [segX, segZ](Int column, Int row) {
    return Vector32{static_cast<float>(static_cast<Float>(column) / segX),
                    static_cast<float>(static_cast<Float>(row) / segZ), 0.0f};
  };

  // Small planes are filled on one thread; the threshold counts points, the loop runs over rows.
  const Int rowCount = Int{segZ} + 1;
  const platform::ParallelOptions rowOptions{.granularity = 16,
                                             .singleThreadBelow = pointCount < platform::kSingleThreadBelowSamples ? rowCount + 1 : 0};
  const platform::Status filled = platform::ParallelFor(0, rowCount, rowOptions, [&](Int row) -> platform::Status {
           if (platform::IsRowBreakTest(row) && platform::TestBreak(thread))
             return platform::CancelledError("CreatePlaneGeometry() cancelled!");
           const Float z = halfZ - static_cast<Float>(row) * stepZ;
           platform::Vector* line = points + row * columns;
           for (Int column = 0; column < columns; ++column)
             line[column] = platform::Vector(static_cast<Float>(column) * stepX - halfX, 0.0, z);
           if (row == segZ) return platform::Ok();

           for (Int column = 0; column < segX; ++column) {
             const Int cell = Int{segX} * row + column;
             const auto a = static_cast<Int32>(row * columns + column);
             const Int32 b = a + 1;
             const auto d = static_cast<Int32>(a + columns);
             const Int32 e = d + 1;
             const Vector32 uvA = uv(column, row), uvB = uv(column + 1, row), uvD = uv(column, row + 1),
                            uvE = uv(column + 1, row + 1);
             switch (tessellation) {
               case PLANETESSELATIONMODE::TRIS1:
                 polygons[2 * cell] = CPolygon{a, b, e, e};
                 polygons[2 * cell + 1] = CPolygon{e, d, a, a};
                 if (uvw != nullptr) {
                   uvw[2 * cell] = UVWStruct{uvA, uvB, uvE, uvE};
                   uvw[2 * cell + 1] = UVWStruct{uvE, uvD, uvA, uvA};
                 }
                 break;
               case PLANETESSELATIONMODE::TRIS2:
                 polygons[2 * cell] = CPolygon{b, d, a, a};
                 polygons[2 * cell + 1] = CPolygon{b, e, d, d};
                 if (uvw != nullptr) {
                   uvw[2 * cell] = UVWStruct{uvB, uvD, uvA, uvA};
                   uvw[2 * cell + 1] = UVWStruct{uvB, uvE, uvD, uvD};
                 }
                 break;
               case PLANETESSELATIONMODE::QUADS:
               default:
                 polygons[cell] = CPolygon{b, e, d, a};
                 if (uvw != nullptr) uvw[cell] = UVWStruct{uvB, uvE, uvD, uvA};
                 break;
             }
           }
           return platform::Ok();
         });
  if (!filled) return std::unexpected(filled.error());
  return plane;
}

platform::Result<std::shared_ptr<platform::GeometryObject>> GetCurrentState(const platform::Node* object,
                                                                            const platform::HierarchyHelp& help) {
  if (object == nullptr) return platform::IllegalArgumentError("objectPtr must not be NULL!");
  std::unique_ptr<platform::Document> temporary;
  try {
    temporary = std::make_unique<platform::Document>(object->GetHost());
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not allocate temporary document!");
  }
  auto clone = temporary->Clone(*object);
  if (!clone) return platform::MakeError(clone.error().kind, "Could not clone input object!");
  platform::Node* inserted = temporary->InsertLast(std::move(*clone));
  auto result = temporary->CurrentStateToObject(*inserted, help);
  if (!result || *result == nullptr)
    return platform::GenericError("An error occurred while executing MCOMMAND_CURRENTSTATETOOBJECT!");
  (*result)->matrix = object->GetMg();
  return std::move(*result);
}

}  // namespace VLGD
