#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/image.h"
#include "platform/mesh_common.h"
#include "platform/mesh_io.h"

namespace platform {
namespace {

using json = nlohmann::json;
using mesh_internal::CornerCount;
using mesh_internal::CornerPoint;
using mesh_internal::CornerUV;
using mesh_internal::FileNormal;
using mesh_internal::FilePosition;
using mesh_internal::Float3;
using mesh_internal::OutputBuffer;
using mesh_internal::TreeEntry;

constexpr UInt32 kGlbMagic = 0x46546C67;  // "glTF"
constexpr UInt32 kGlbVersion = 2;
constexpr UInt32 kJsonChunk = 0x4E4F534A;  // "JSON"
constexpr UInt32 kBinChunk = 0x004E4942;   // "BIN\0"
constexpr UInt64 kHeaderSize = 12;
constexpr UInt64 kChunkHeaderSize = 8;
constexpr int kComponentFloat = 5126;
constexpr int kComponentUnsignedInt = 5125;
constexpr int kTargetArrayBuffer = 34962;
constexpr int kTargetElementArrayBuffer = 34963;
constexpr int kModeLines = 1;
constexpr int kModeTriangles = 4;
constexpr int kFilterLinear = 9729;
constexpr int kFilterLinearMipmapLinear = 9987;
constexpr int kWrapRepeat = 10497;
// Graphics hardware commonly samples at most 16384 texels a side: a larger texture would
// not show in a viewer.
constexpr Int kMaxTextureSide = 16384;
// 0xFFFFFFFF is the primitive-restart value; an index must stay below it.
constexpr UInt64 kMaxVertexCount = std::numeric_limits<UInt32>::max();

// What one node's mesh holds, settled before anything is written: the JSON chunk, which
// comes first, needs every size and the position bounds.
struct MeshPlan {
  std::size_t node = 0;
  const PolygonObject* polygons = nullptr;
  const LineObject* lines = nullptr;
  const UVWTag* uvw = nullptr;
  bool smooth = false;
  // One vertex per point; otherwise one per polygon corner, which flat normals and texture
  // seams need.
  bool shared = false;
  std::vector<float> pointUVs;  // u, v per point when shared and textured
  UInt64 vertexCount = 0;
  UInt64 indexCount = 0;
  Float3 min{std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
             std::numeric_limits<float>::infinity()};
  Float3 max{-std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
             -std::numeric_limits<float>::infinity()};
};

Status Include(MeshPlan& plan, const Float3& position, const std::string& name) {
  if (!mesh_internal::IsFinite(position))
    return IllegalArgumentError("object \"" + name + "\" has a point that is not a finite single-precision number!");
  for (std::size_t i = 0; i < 3; ++i) {
    plan.min[i] = std::min(plan.min[i], position[i]);
    plan.max[i] = std::max(plan.max[i], position[i]);
  }
  return Ok();
}

Status CheckVertexCount(const MeshPlan& plan, const std::string& name) {
  if (plan.vertexCount >= kMaxVertexCount) {
    return IllegalArgumentError("object \"" + name + "\" needs " + std::to_string(plan.vertexCount) +
                                " vertices, more than 32-bit indices can address!");
  }
  return Ok();
}

Status PlanPolygonMesh(const PolygonObject& object, const std::string& name, MeshPlan& plan) {
  VLGD_RETURN_IF_ERROR(mesh_internal::CheckPolygonObject(object, name));
  plan.polygons = &object;
  plan.uvw = mesh_internal::FindUVWTag(object);
  plan.smooth = mesh_internal::HasPhongTag(object);
  const bool oneUVPerPoint = plan.uvw == nullptr || mesh_internal::CollectPointUVs(object, *plan.uvw, plan.pointUVs);
  plan.shared = plan.smooth && oneUVPerPoint;
  if (!plan.shared) std::vector<float>().swap(plan.pointUVs);

  const std::span<const Vector> points = object.GetPointR();
  if (plan.shared) {
    plan.vertexCount = points.size();
    for (const Vector& point : points) VLGD_RETURN_IF_ERROR(Include(plan, FilePosition(point), name));
  }
  for (const CPolygon& polygon : object.GetPolygonR()) {
    plan.indexCount += polygon.IsTriangle() ? 3 : 6;
    if (plan.shared) continue;
    plan.vertexCount += static_cast<UInt64>(CornerCount(polygon));
    for (int slot = 0; slot < CornerCount(polygon); ++slot) {
      VLGD_RETURN_IF_ERROR(
          Include(plan, FilePosition(points[static_cast<std::size_t>(CornerPoint(polygon, slot))]), name));
    }
  }
  return CheckVertexCount(plan, name);
}

Status PlanLineMesh(const LineObject& object, const std::string& name, MeshPlan& plan) {
  plan.lines = &object;
  plan.vertexCount = object.Points().size();
  for (const Int32 size : object.LineSizes())
    if (size > 1) plan.indexCount += 2 * static_cast<UInt64>(size - 1);
  for (const Vector& point : object.Points()) VLGD_RETURN_IF_ERROR(Include(plan, FilePosition(point), name));
  return CheckVertexCount(plan, name);
}

// A texture of the material: what it is called in messages and which channel counts it takes.
struct TextureRole {
  const Image* image;
  std::string_view name;
  int minChannels;
  int maxChannels;
};

std::vector<TextureRole> Textures(const MeshMaterial& material) {
  std::vector<TextureRole> textures{{material.baseColor, "base colour texture", 3, 4}};
  if (material.normalMap != nullptr) textures.push_back({material.normalMap, "normal map", 3, 3});
  return textures;
}

std::string ShortestText(double value) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  return {text.data(), end};
}

Status CheckMaterial(const MeshMaterial& material) {
  if (material.baseColor == nullptr) return IllegalArgumentError("the material has no base colour texture!");
  for (const TextureRole& texture : Textures(material)) {
    const Image& image = *texture.image;
    const std::string what = "the material's " + std::string(texture.name);
    if (image.Width() <= 0 || image.Height() <= 0) return IllegalArgumentError(what + " is empty!");
    if (image.Width() > kMaxTextureSide || image.Height() > kMaxTextureSide) {
      return IllegalArgumentError(what + " is " + std::to_string(image.Width()) + " x " +
                                  std::to_string(image.Height()) + " pixels; a texture has at most " +
                                  std::to_string(kMaxTextureSide) + " a side!");
    }
    if (image.Type() != PixelType::UInt8) return IllegalArgumentError(what + " must hold 8-bit channels!");
    if (image.Channels() < texture.minChannels || image.Channels() > texture.maxChannels) {
      return IllegalArgumentError(what + " has " + std::to_string(image.Channels()) + " channels; it must be " +
                                  (texture.maxChannels == 4 ? "RGB or RGBA!" : "RGB!"));
    }
    // The encoder reads width x height pixels; a moved-from image has none.
    if (image.Bytes().size() < static_cast<std::size_t>(image.Width() * image.Height() * image.Channels()))
      return IllegalArgumentError(what + " holds fewer pixels than its size!");
  }
  for (const auto& [value, name] :
       {std::pair{material.roughness, "roughness"}, {material.metallic, "metallic factor"}}) {
    if (!(value >= 0.0 && value <= 1.0))
      return IllegalArgumentError("the material's " + std::string(name) + " " + ShortestText(value) +
                                  " lies outside 0 .. 1!");
  }
  return Ok();
}

json FloatArray(const Float3& values) {
  return json::array({static_cast<double>(values[0]), static_cast<double>(values[1]), static_cast<double>(values[2])});
}

// Column-major 4x4 of the local matrix in the files' frame.
json MatrixArray(const Matrix& local) {
  const Matrix m = mesh_internal::ToFileFrame(local);
  return json::array({m.v1.x, m.v1.y, m.v1.z, 0.0, m.v2.x, m.v2.y, m.v2.z, 0.0, m.v3.x, m.v3.y, m.v3.z, 0.0, m.off.x,
                      m.off.y, m.off.z, 1.0});
}

// Buffer views and accessors, laid out one after another in the single buffer. Every
// element is 4 or 12 or 8 bytes, so every view starts 4-byte aligned.
class BufferLayout {
 public:
  int AddAccessor(UInt64 count, UInt64 elementSize, int componentType, const char* type, int target) {
    bufferViews_.push_back(
        {{"buffer", 0}, {"byteOffset", length_}, {"byteLength", count * elementSize}, {"target", target}});
    length_ += count * elementSize;
    accessors_.push_back({{"bufferView", bufferViews_.size() - 1},
                          {"componentType", componentType},
                          {"count", count},
                          {"type", type}});
    return static_cast<int>(accessors_.size() - 1);
  }
  // A view of encoded bytes (an image), padded so that the next view stays aligned.
  int AddView(UInt64 byteLength) {
    bufferViews_.push_back({{"buffer", 0}, {"byteOffset", length_}, {"byteLength", byteLength}});
    length_ += (byteLength + 3) / 4 * 4;
    return static_cast<int>(bufferViews_.size() - 1);
  }
  json& Accessor(int index) { return accessors_[static_cast<std::size_t>(index)]; }
  [[nodiscard]] UInt64 Length() const { return length_; }
  void MoveInto(json& document) {
    if (length_ == 0) return;  // glTF forbids empty arrays
    document["buffers"] = json::array({json{{"byteLength", length_}}});
    document["bufferViews"] = std::move(bufferViews_);
    document["accessors"] = std::move(accessors_);
  }

 private:
  json bufferViews_ = json::array();
  json accessors_ = json::array();
  UInt64 length_ = 0;
};

json MakeMesh(const MeshPlan& plan, const std::string& name, bool textured, BufferLayout& layout) {
  json attributes = json::object();
  const int position = layout.AddAccessor(plan.vertexCount, 12, kComponentFloat, "VEC3", kTargetArrayBuffer);
  layout.Accessor(position)["min"] = FloatArray(plan.min);
  layout.Accessor(position)["max"] = FloatArray(plan.max);
  attributes["POSITION"] = position;
  if (plan.polygons != nullptr) {
    attributes["NORMAL"] = layout.AddAccessor(plan.vertexCount, 12, kComponentFloat, "VEC3", kTargetArrayBuffer);
    if (plan.uvw != nullptr)
      attributes["TEXCOORD_0"] = layout.AddAccessor(plan.vertexCount, 8, kComponentFloat, "VEC2", kTargetArrayBuffer);
  }
  const int indices =
      layout.AddAccessor(plan.indexCount, 4, kComponentUnsignedInt, "SCALAR", kTargetElementArrayBuffer);
  json primitive = {{"attributes", std::move(attributes)},
                    {"indices", indices},
                    {"mode", plan.polygons != nullptr ? kModeTriangles : kModeLines}};
  if (textured && plan.polygons != nullptr) primitive["material"] = 0;
  json mesh = {{"primitives", json::array({std::move(primitive)})}};
  if (!name.empty()) mesh["name"] = name;
  return mesh;
}

void PutFloat3(OutputBuffer& out, const Float3& value) {
  out.PutLittleEndian(value[0]);
  out.PutLittleEndian(value[1]);
  out.PutLittleEndian(value[2]);
}

void PutVector32(OutputBuffer& out, const Vector32& value) {
  out.PutLittleEndian(value.x);
  out.PutLittleEndian(value.y);
  out.PutLittleEndian(value.z);
}

void PutTexCoord(OutputBuffer& out, float u, float v) {
  out.PutLittleEndian(u);
  out.PutLittleEndian(1.0f - v);
}

// Streams the views of a polygon mesh in the order MakeMesh declared them.
void WritePolygonMesh(const MeshPlan& plan, OutputBuffer& out) {
  const PolygonObject& object = *plan.polygons;
  const std::span<const Vector> points = object.GetPointR();
  const std::span<const CPolygon> polygons = object.GetPolygonR();
  auto pointOf = [&points](const CPolygon& polygon, int slot) -> const Vector& {
    return points[static_cast<std::size_t>(CornerPoint(polygon, slot))];
  };

  if (plan.shared) {
    for (const Vector& point : points) PutFloat3(out, FilePosition(point));
  } else {
    for (const CPolygon& polygon : polygons)
      for (int slot = 0; slot < CornerCount(polygon); ++slot) PutFloat3(out, FilePosition(pointOf(polygon, slot)));
  }

  {
    std::vector<Vector32> pointNormals;
    if (plan.smooth) pointNormals = mesh_internal::FilePointNormals(object, mesh_internal::NormalMatrix(IdentityMatrix()));
    if (plan.shared) {
      for (const Vector32& normal : pointNormals) PutVector32(out, normal);
    } else {
      for (const CPolygon& polygon : polygons) {
        if (plan.smooth) {
          for (int slot = 0; slot < CornerCount(polygon); ++slot)
            PutVector32(out, pointNormals[static_cast<std::size_t>(CornerPoint(polygon, slot))]);
        } else {
          const Float3 normal = FileNormal(mesh_internal::PolygonAreaNormal(points, polygon));
          for (int slot = 0; slot < CornerCount(polygon); ++slot) PutFloat3(out, normal);
        }
      }
    }
  }

  if (plan.uvw != nullptr) {
    if (plan.shared) {
      for (std::size_t i = 0; i < plan.pointUVs.size(); i += 2) PutTexCoord(out, plan.pointUVs[i], plan.pointUVs[i + 1]);
    } else {
      const std::span<const UVWStruct> records = plan.uvw->GetDataAddressR();
      for (std::size_t i = 0; i < polygons.size(); ++i) {
        for (int slot = 0; slot < CornerCount(polygons[i]); ++slot) {
          const Vector32& uv = CornerUV(records[i], slot);
          PutTexCoord(out, uv.x, uv.y);
        }
      }
    }
  }

  UInt32 base = 0;
  for (const CPolygon& polygon : polygons) {
    const mesh_internal::SlotList triangles = mesh_internal::FileTriangles(polygon);
    for (int i = 0; i < triangles.count; ++i) {
      const int slot = triangles.slots[static_cast<std::size_t>(i)];
      out.PutLittleEndian(plan.shared ? static_cast<UInt32>(CornerPoint(polygon, slot)) : base + static_cast<UInt32>(slot));
    }
    base += static_cast<UInt32>(CornerCount(polygon));
  }
}

void WriteLineMesh(const MeshPlan& plan, OutputBuffer& out) {
  for (const Vector& point : plan.lines->Points()) PutFloat3(out, FilePosition(point));
  UInt32 start = 0;
  for (const Int32 size : plan.lines->LineSizes()) {
    for (Int32 i = 1; i < size; ++i) {
      out.PutLittleEndian(start + static_cast<UInt32>(i - 1));
      out.PutLittleEndian(start + static_cast<UInt32>(i));
    }
    start += static_cast<UInt32>(size);
  }
}

// The material, its textures and their images, referring to the views of `encoded`. No
// TANGENT attribute goes with a normal map: viewers derive tangents from positions,
// normals and texture coordinates the one standard way, which ours would have to match.
void AddMaterial(const MeshMaterial& material, const std::vector<std::vector<std::byte>>& encoded, BufferLayout& layout,
                 json& document) {
  json entry = {{"pbrMetallicRoughness",
                 {{"baseColorTexture", {{"index", 0}}},
                  {"metallicFactor", material.metallic},
                  {"roughnessFactor", material.roughness}}}};
  if (!material.name.empty()) entry["name"] = material.name;
  if (material.normalMap != nullptr) entry["normalTexture"] = {{"index", 1}};
  json textures = json::array();
  json images = json::array();
  for (const std::vector<std::byte>& png : encoded) {
    textures.push_back({{"sampler", 0}, {"source", images.size()}});
    images.push_back({{"bufferView", layout.AddView(png.size())}, {"mimeType", "image/png"}});
  }
  document["materials"] = json::array({std::move(entry)});
  document["textures"] = std::move(textures);
  document["images"] = std::move(images);
  // Mipmapped, so that a terrain seen far off does not shimmer; repeated, so that tiling
  // texture coordinates work.
  document["samplers"] = json::array({json{{"magFilter", kFilterLinear},
                                           {"minFilter", kFilterLinearMipmapLinear},
                                           {"wrapS", kWrapRepeat},
                                           {"wrapT", kWrapRepeat}}});
}

Status WriteGlbTo(const GeometryObject& root, const MeshMaterial* material, const WriteControl& control,
                  OutputBuffer& out) {
  if (material != nullptr) VLGD_RETURN_IF_ERROR(CheckMaterial(*material));
  const std::vector<TreeEntry> entries = mesh_internal::FlattenTree(root);

  std::vector<MeshPlan> plans;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const GeometryObject& object = *entries[i].object;
    MeshPlan plan;
    plan.node = i;
    if (object.Type() == GeometryType::Polygon) {
      const auto& polygons = static_cast<const PolygonObject&>(object);
      if (polygons.GetPolygonCount() == 0) continue;
      VLGD_RETURN_IF_ERROR(PlanPolygonMesh(polygons, entries[i].name, plan));
      if (material != nullptr && plan.uvw == nullptr) {
        return IllegalArgumentError("object \"" + entries[i].name +
                                    "\" has no texture coordinates (UVW tag) for the material's textures!");
      }
    } else {
      VLGD_RETURN_IF_ERROR(PlanLineMesh(static_cast<const LineObject&>(object), entries[i].name, plan));
      if (plan.indexCount == 0) continue;
    }
    plans.push_back(std::move(plan));
  }

  json nodes = json::array();
  for (const TreeEntry& entry : entries) {
    // JSON has no infinities or NaNs; they would come out as null and break the file.
    const Matrix& m = entry.local;
    for (const Vector& axis : {m.off, m.v1, m.v2, m.v3}) {
      if (!std::isfinite(axis.x) || !std::isfinite(axis.y) || !std::isfinite(axis.z))
        return IllegalArgumentError("object \"" + entry.name + "\" has a matrix that is not finite!");
    }
    json node = json::object();
    if (!entry.name.empty()) node["name"] = entry.name;
    if (entry.local != IdentityMatrix()) node["matrix"] = MatrixArray(entry.local);
    nodes.push_back(std::move(node));
  }
  for (std::size_t i = 1; i < entries.size(); ++i) {
    json& parent = nodes[static_cast<std::size_t>(entries[i].parent)];
    if (!parent.contains("children")) parent["children"] = json::array();
    parent["children"].push_back(i);
  }
  // Encoded before the JSON chunk, which needs their sizes. The write's progress counts
  // the bytes of the file, so encoding only listens for a break.
  std::vector<std::vector<std::byte>> encoded;
  if (material != nullptr) {
    for (const TextureRole& texture : Textures(*material)) {
      // Before the encoder starts: it would load the image library for nothing.
      if (TestBreak(control.cancel)) return CancelledError("cancelled while encoding the textures!");
      VLGD_ASSIGN_OR_RETURN(std::vector<std::byte> png, EncodePng(*texture.image, {control.cancel, nullptr}));
      encoded.push_back(std::move(png));
    }
  }

  BufferLayout layout;
  json meshes = json::array();
  for (const MeshPlan& plan : plans) {
    nodes[plan.node]["mesh"] = meshes.size();
    meshes.push_back(MakeMesh(plan, entries[plan.node].name, material != nullptr, layout));
  }

  json document = {{"asset", {{"version", "2.0"}, {"generator", "Vellgrund"}}}, {"scene", 0}};
  document["scenes"] = json::array({json{{"nodes", json::array({0})}}});
  document["nodes"] = std::move(nodes);
  if (!meshes.empty()) document["meshes"] = std::move(meshes);
  if (material != nullptr) AddMaterial(*material, encoded, layout, document);
  const UInt64 binLength = layout.Length();
  layout.MoveInto(document);

  // Names may hold anything; invalid UTF-8 is replaced rather than failing the export.
  std::string text = document.dump(-1, ' ', false, json::error_handler_t::replace);
  text.append((4 - text.size() % 4) % 4, ' ');
  const UInt64 total =
      kHeaderSize + kChunkHeaderSize + text.size() + (binLength > 0 ? kChunkHeaderSize + binLength : 0);
  if (total > std::numeric_limits<UInt32>::max()) {
    return IllegalArgumentError("the meshes need " + std::to_string(total) +
                                " bytes, more than a .glb file can hold (4 GiB)!");
  }

  out.PutLittleEndian(kGlbMagic);
  out.PutLittleEndian(kGlbVersion);
  out.PutLittleEndian(static_cast<UInt32>(total));
  out.PutLittleEndian(static_cast<UInt32>(text.size()));
  out.PutLittleEndian(kJsonChunk);
  out.Put(text);
  if (binLength > 0) {
    out.PutLittleEndian(static_cast<UInt32>(binLength));
    out.PutLittleEndian(kBinChunk);
    for (const MeshPlan& plan : plans) {
      if (plan.polygons != nullptr)
        WritePolygonMesh(plan, out);
      else
        WriteLineMesh(plan, out);
    }
    for (const std::vector<std::byte>& png : encoded) {
      out.Put(png.data(), png.size());
      for (std::size_t i = png.size(); i % 4 != 0; ++i) out.PutChar('\0');
    }
  }
  if (out.Count() != total)
    return GenericError("wrote " + std::to_string(out.Count()) + " bytes instead of " + std::to_string(total) + "!");
  return Ok();
}

}  // namespace

Status WriteGlb(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control,
                const MeshMaterial* material) {
  return mesh_internal::WriteMeshFile(
      path, root, control, {.perPoint = 32, .perPolygon = 24},
      [&root, material, &control](OutputBuffer& out) { return WriteGlbTo(root, material, control, out); });
}

}  // namespace platform
