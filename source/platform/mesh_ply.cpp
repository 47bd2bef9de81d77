#include <limits>
#include <string>
#include <vector>

#include "platform/mesh_common.h"
#include "platform/mesh_io.h"

namespace platform {
namespace {

using mesh_internal::Float3;
using mesh_internal::OutputBuffer;
using mesh_internal::TreeEntry;

struct Part {
  const PolygonObject* object = nullptr;
  const TreeEntry* entry = nullptr;
  std::vector<float> pointUVs;  // u, v per point when the object has consistent ones
};

Status WritePlyTo(const GeometryObject& root, OutputBuffer& out) {
  const std::vector<TreeEntry> entries = mesh_internal::FlattenTree(root);
  std::vector<Part> parts;
  UInt64 vertexCount = 0;
  UInt64 faceCount = 0;
  // PLY has one vertex list for the whole file, so normals and texture coordinates are
  // all or nothing. Normals only when every mesh asks for smooth ones: shared vertices
  // cannot carry flat normals, and none beat wrong ones. Texture coordinates when some
  // mesh has them and every textured mesh has one per point; the others get (0, 0).
  bool normals = true;
  bool anyPolygons = false;
  bool anyTextured = false;
  bool uvsPerPoint = true;
  for (const TreeEntry& entry : entries) {
    if (entry.object->Type() != GeometryType::Polygon) continue;
    const auto& object = static_cast<const PolygonObject&>(*entry.object);
    VLGD_RETURN_IF_ERROR(mesh_internal::CheckPolygonObject(object, entry.name));
    Part part{&object, &entry, {}};
    if (object.GetPolygonCount() > 0) {
      anyPolygons = true;
      normals = normals && mesh_internal::HasPhongTag(object);
    }
    if (const UVWTag* uvw = mesh_internal::FindUVWTag(object); uvw != nullptr) {
      anyTextured = true;
      uvsPerPoint = uvsPerPoint && mesh_internal::CollectPointUVs(object, *uvw, part.pointUVs);
    }
    vertexCount += static_cast<UInt64>(object.GetPointCount());
    faceCount += static_cast<UInt64>(object.GetPolygonCount());
    parts.push_back(std::move(part));
  }
  normals = normals && anyPolygons;
  const bool texCoords = anyTextured && uvsPerPoint;
  if (vertexCount > std::numeric_limits<UInt32>::max()) {
    return IllegalArgumentError(std::to_string(vertexCount) + " points are more than 32-bit indices can address!");
  }

  out.Put("ply\nformat binary_little_endian 1.0\ncomment Vellgrund\nelement vertex ");
  out.PutDecimal(vertexCount);
  out.Put("\nproperty float x\nproperty float y\nproperty float z\n");
  if (normals) out.Put("property float nx\nproperty float ny\nproperty float nz\n");
  if (texCoords) out.Put("property float s\nproperty float t\n");
  out.Put("element face ");
  out.PutDecimal(faceCount);
  out.Put("\nproperty list uchar uint vertex_indices\nend_header\n");

  for (const Part& part : parts) {
    const std::span<const Vector> points = part.object->GetPointR();
    std::vector<Vector32> pointNormals;
    if (normals)
      pointNormals = mesh_internal::FilePointNormals(*part.object, mesh_internal::NormalMatrix(part.entry->world));
    for (std::size_t i = 0; i < points.size(); ++i) {
      const Float3 position = mesh_internal::FilePosition(TransformPoint(part.entry->world, points[i]));
      if (!mesh_internal::IsFinite(position)) {
        return IllegalArgumentError("object \"" + part.entry->name +
                                    "\" has a point that is not a finite single-precision number!");
      }
      for (const float value : position) out.PutLittleEndian(value);
      if (normals) {
        out.PutLittleEndian(pointNormals[i].x);
        out.PutLittleEndian(pointNormals[i].y);
        out.PutLittleEndian(pointNormals[i].z);
      }
      if (texCoords) {
        const bool textured = !part.pointUVs.empty();
        out.PutLittleEndian(textured ? part.pointUVs[2 * i] : 0.0f);
        out.PutLittleEndian(textured ? part.pointUVs[2 * i + 1] : 0.0f);
      }
    }
  }

  UInt32 base = 0;
  for (const Part& part : parts) {
    for (const CPolygon& polygon : part.object->GetPolygonR()) {
      const mesh_internal::SlotList corners = mesh_internal::FileCorners(polygon);
      out.PutLittleEndian(static_cast<std::uint8_t>(corners.count));
      for (int i = 0; i < corners.count; ++i) {
        const int slot = corners.slots[static_cast<std::size_t>(i)];
        out.PutLittleEndian(base + static_cast<UInt32>(mesh_internal::CornerPoint(polygon, slot)));
      }
    }
    base += static_cast<UInt32>(part.object->GetPointCount());
  }
  return Ok();
}

}  // namespace

Status WritePly(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control) {
  return mesh_internal::WriteMeshFile(path, root, control, {.perPoint = 32, .perPolygon = 17},
                                     [&root](OutputBuffer& out) { return WritePlyTo(root, out); });
}

}  // namespace platform
