#include <string>
#include <vector>

#include "platform/mesh_common.h"
#include "platform/mesh_io.h"

namespace platform {
namespace {

using mesh_internal::CornerCount;
using mesh_internal::CornerPoint;
using mesh_internal::CornerUV;
using mesh_internal::Float3;
using mesh_internal::OutputBuffer;
using mesh_internal::TreeEntry;

// Running 1-based numbers of the records written so far; OBJ indices count over the whole file.
struct Counters {
  UInt64 position = 1;
  UInt64 texCoord = 1;
  UInt64 normal = 1;
};

void PutRecord(OutputBuffer& out, std::string_view keyword, const float* values, int count) {
  out.Put(keyword);
  for (int i = 0; i < count; ++i) {
    out.PutChar(' ');
    out.PutDecimal(values[i]);
  }
  out.PutChar('\n');
}

Status PutPositions(OutputBuffer& out, std::span<const Vector> points, const TreeEntry& entry) {
  for (const Vector& point : points) {
    const Float3 position = mesh_internal::FilePosition(TransformPoint(entry.world, point));
    if (!mesh_internal::IsFinite(position)) {
      return IllegalArgumentError("object \"" + entry.name +
                                  "\" has a point that is not a finite single-precision number!");
    }
    PutRecord(out, "v", position.data(), 3);
  }
  return Ok();
}

Status WritePolygonObject(const PolygonObject& object, const TreeEntry& entry, OutputBuffer& out, Counters& counters) {
  VLGD_RETURN_IF_ERROR(mesh_internal::CheckPolygonObject(object, entry.name));
  const std::span<const Vector> points = object.GetPointR();
  const std::span<const CPolygon> polygons = object.GetPolygonR();
  VLGD_RETURN_IF_ERROR(PutPositions(out, points, entry));

  const UVWTag* uvw = mesh_internal::FindUVWTag(object);
  bool uvPerPoint = false;
  UInt64 texCoordCount = 0;
  if (uvw != nullptr) {
    std::vector<float> pointUVs;
    uvPerPoint = mesh_internal::CollectPointUVs(object, *uvw, pointUVs);
    if (uvPerPoint) {
      for (std::size_t i = 0; i < pointUVs.size(); i += 2) PutRecord(out, "vt", &pointUVs[i], 2);
      texCoordCount = points.size();
    } else {
      const std::span<const UVWStruct> records = uvw->GetDataAddressR();
      for (std::size_t i = 0; i < polygons.size(); ++i) {
        for (int slot = 0; slot < CornerCount(polygons[i]); ++slot) {
          const Vector32& uv = CornerUV(records[i], slot);
          const float values[2] = {uv.x, uv.y};
          PutRecord(out, "vt", values, 2);
        }
        texCoordCount += static_cast<UInt64>(CornerCount(polygons[i]));
      }
    }
  }

  const bool smooth = mesh_internal::HasPhongTag(object);
  if (smooth) {
    const std::vector<Vector32> normals =
        mesh_internal::FilePointNormals(object, mesh_internal::NormalMatrix(entry.world));
    for (const Vector32& normal : normals) {
      const float values[3] = {normal.x, normal.y, normal.z};
      PutRecord(out, "vn", values, 3);
    }
  }

  UInt64 corner = 0;
  for (const CPolygon& polygon : polygons) {
    out.PutChar('f');
    const mesh_internal::SlotList corners = mesh_internal::FileCorners(polygon);
    for (int i = 0; i < corners.count; ++i) {
      const int slot = corners.slots[static_cast<std::size_t>(i)];
      const auto point = static_cast<UInt64>(CornerPoint(polygon, slot));
      out.PutChar(' ');
      out.PutDecimal(counters.position + point);
      if (uvw != nullptr) {
        out.PutChar('/');
        out.PutDecimal(counters.texCoord + (uvPerPoint ? point : corner + static_cast<UInt64>(slot)));
      }
      if (smooth) {
        out.Put(uvw != nullptr ? "/" : "//");
        out.PutDecimal(counters.normal + point);
      }
    }
    out.PutChar('\n');
    corner += static_cast<UInt64>(CornerCount(polygon));
  }

  counters.position += points.size();
  counters.texCoord += texCoordCount;
  if (smooth) counters.normal += points.size();
  return Ok();
}

Status WriteLineObject(const LineObject& object, const TreeEntry& entry, OutputBuffer& out, Counters& counters) {
  VLGD_RETURN_IF_ERROR(PutPositions(out, object.Points(), entry));
  UInt64 start = counters.position;
  for (const Int32 size : object.LineSizes()) {
    if (size > 1) {
      out.PutChar('l');
      for (Int32 i = 0; i < size; ++i) {
        out.PutChar(' ');
        out.PutDecimal(start + static_cast<UInt64>(i));
      }
      out.PutChar('\n');
    }
    start += static_cast<UInt64>(size);
  }
  counters.position += object.Points().size();
  return Ok();
}

Status WriteObjTo(const GeometryObject& root, OutputBuffer& out) {
  const std::vector<TreeEntry> entries = mesh_internal::FlattenTree(root);
  out.Put("# Vellgrund\n");
  Counters counters;
  for (const TreeEntry& entry : entries) {
    out.Put("o ");
    out.Put(mesh_internal::SingleLineName(entry.name, "unnamed"));
    out.PutChar('\n');
    if (entry.object->Type() == GeometryType::Polygon) {
      VLGD_RETURN_IF_ERROR(
          WritePolygonObject(static_cast<const PolygonObject&>(*entry.object), entry, out, counters));
    } else {
      VLGD_RETURN_IF_ERROR(WriteLineObject(static_cast<const LineObject&>(*entry.object), entry, out, counters));
    }
  }
  return Ok();
}

}  // namespace

Status WriteObj(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control) {
  return mesh_internal::WriteMeshFile(path, root, control, {.perPoint = 90, .perPolygon = 60},
                                     [&root](OutputBuffer& out) { return WriteObjTo(root, out); });
}

}  // namespace platform
