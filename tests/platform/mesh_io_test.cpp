#include "platform/mesh_io.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

// tinygltf reads the files back as an independent check. Its PNG decoder is not part of
// the build: embedded images go through DecodePng below.
#define TINYGLTF_NO_STB_IMAGE
#define TINYGLTF_NO_STB_IMAGE_WRITE
#define TINYGLTF_NO_EXTERNAL_IMAGE
#define TINYGLTF_IMPLEMENTATION
#include <tiny_gltf.h>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace platform;
using testing_support::ReadFileBytes;
using F2 = std::array<float, 2>;
using F3 = std::array<float, 3>;

// A 2 x 2 quad ridge: point rows at z = 2, 0, -1, columns at x = -1, 0, 1, the middle row
// raised to y = 1. The quad rows differ in slope and area, so area weighting of smooth
// normals shows, and their normals lean along z, so a missing z flip shows. u and v differ
// everywhere, so a swapped or unflipped v shows.
const auto RidgePoint = [](int i) {
  return F3{float(i % 3 - 1), float(i / 3 == 1), float(std::array{2, 0, -1}[std::size_t(i / 3)])};
};
const auto RidgeUV = [](int i) { return Vector32{float(i % 3) * 0.5f, float(i / 3) * 0.25f, 0.0f}; };
const auto ToFile = [](const F3& p) { return F3{p[0], p[1], -p[2]}; };
const auto V = [](const F3& p) { return Vector(double{p[0]}, double{p[1]}, double{p[2]}); };
const auto FaceNormal = [](const F3& a, const F3& b, const F3& c) { return Cross(V(b) - V(a), V(c) - V(a)); };

std::unique_ptr<PolygonObject> MakeRidge(bool uvw, bool phong, const std::string& name = "Ridge") {
  auto object = std::move(*PolygonObject::Create(9, 4));
  object->name = name;
  for (int i = 0; i < 9; ++i) object->GetPointW()[std::size_t(i)] = V(RidgePoint(i));
  auto tag = std::move(*UVWTag::Create(4));
  for (Int32 cell = 0; cell < 4; ++cell) {  // clockwise seen from above, as our plane builds quads
    const Int32 a = cell / 2 * 3 + cell % 2, b = a + 1, d = a + 3, e = d + 1;
    object->GetPolygonW()[std::size_t(cell)] = CPolygon{b, e, d, a};
    tag->GetDataAddressW()[std::size_t(cell)] = UVWStruct{RidgeUV(b), RidgeUV(e), RidgeUV(d), RidgeUV(a)};
  }
  EXPECT_TRUE(!uvw || object->AddTag(std::move(tag)));
  EXPECT_TRUE(!phong || object->AddTag(std::make_unique<PhongTag>()));
  return object;
}

// Gives polygon 0 (1, 4, 3, 0) a texture seam at its corner b, point 4.
void AddSeam(PolygonObject& ridge) {
  static_cast<UVWTag*>(ridge.FindTag(TagType::UVW))->GetDataAddressW()[0].b = Vector32{0.9f, 0.8f, 0.0f};
}

// The ridge's normals worked out by hand, in the files' frame: flat per quad row; smooth
// per point row, the middle row straight up only when weighted by area.
const F3 kFlatNear{0.0f, 2.0f / std::sqrt(5.0f), -1.0f / std::sqrt(5.0f)};
const F3 kFlatFar{0.0f, 1.0f / std::sqrt(2.0f), 1.0f / std::sqrt(2.0f)};
const auto RidgeSmoothNormal = [](int i) { return i / 3 == 0 ? kFlatNear : i / 3 == 1 ? F3{0, 1, 0} : kFlatFar; };
const float kRidgeArea = 2.0f * std::sqrt(5.0f) + 2.0f * std::sqrt(2.0f);

// A flat quad (0, 1, 2, 3) and a triangle (1, 4, 2) stored with c == d, in the y = 0 plane.
std::unique_ptr<PolygonObject> MakeMixed(const std::string& name, bool phong) {
  auto object = std::move(*PolygonObject::Create(5, 2));
  object->name = name;
  const std::array points{Vector(0, 0, 0), Vector(0, 0, 1), Vector(1, 0, 1), Vector(1, 0, 0), Vector(0.5, 0, 2)};
  std::ranges::copy(points, object->GetPointW().begin());
  object->GetPolygonW()[0] = CPolygon{0, 1, 2, 3};
  object->GetPolygonW()[1] = CPolygon{1, 4, 2, 2};
  EXPECT_TRUE(!phong || object->AddTag(std::make_unique<PhongTag>()));
  return object;
}

// Lines of 3, 1 and 2 points: the single point has no segment but shifts the rest.
std::unique_ptr<LineObject> MakeLines() {
  return std::move(*LineObject::Create(
      {Vector(0, 0, 1), Vector(1, 0, 2), Vector(2, 0, 3), Vector(9, 9, 9), Vector(4, 1, 5), Vector(5, 1, 6)},
      {3, 1, 2}));
}

// A tree of the mixed root, moved by `offset`, with lines and a ridge child turned by a
// quarter about Y and moved: p -> (z + 5, y, 7 - x) before the root's move.
std::unique_ptr<PolygonObject> MakeTree(const Vector& offset, bool childUVW) {
  auto root = MakeMixed("Root", false);
  root->matrix.off = offset;
  root->isoparm = MakeLines();
  auto child = MakeRidge(childUVW, true, "Child");
  child->matrix.v1 = Vector(0, 0, -1);
  child->matrix.v3 = Vector(1, 0, 0);
  child->matrix.off = Vector(5, 0, 7);
  EXPECT_TRUE(root->InsertChild(std::move(child)));
  return root;
}

void ExpectNear3(const F3& actual, const F3& expected, const std::string& what) {
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(actual[i], expected[i], 1e-5f) << what << " [" << i << "]";
}

// Index of the ridge point at a files'-frame position, -1 if none.
int FindRidgePoint(const F3& position) {
  for (int i = 0; i < 9; ++i)
    if (Length(V(position) - V(ToFile(RidgePoint(i)))) < 1e-5) return i;
  return -1;
}

// ---------------------------------------------------------------------------------------
// Reading the files back

struct GltfMesh {
  int mode = -1;
  std::vector<F3> positions, normals;
  std::vector<F2> uvs;
  std::vector<std::uint32_t> indices;
};

// Decodes an embedded image with the platform's reader, which reads files only: through a
// file in the folder passed as `user`.
bool DecodePng(tinygltf::Image* image, int index, std::string* error, std::string*, int, int,
               const unsigned char* bytes, int size, void* user) {
  const std::string data(reinterpret_cast<const char*>(bytes), std::size_t(size));
  const fs::path file = static_cast<testing_support::TempDir*>(user)->File("image" + std::to_string(index));
  std::ofstream(file, std::ios::binary) << data;
  const Result<Image> decoded = data.starts_with("\x89PNG\r\n\x1a\n") ? ReadImage(file) : IoError("not a PNG");
  if (!decoded || decoded->Type() != PixelType::UInt8) {
    *error = "image " + std::to_string(index) + " is no 8-bit PNG";
    return false;
  }
  image->width = int(decoded->Width());
  image->height = int(decoded->Height());
  image->component = decoded->Channels();
  const auto* pixels = reinterpret_cast<const unsigned char*>(decoded->Bytes().data());
  image->image.assign(pixels, pixels + decoded->Bytes().size());
  return true;
}

tinygltf::Model LoadGlb(const fs::path& path, testing_support::TempDir* imageFolder = nullptr) {
  tinygltf::Model model;
  std::string error, warning;
  tinygltf::TinyGLTF reader;
  if (imageFolder != nullptr) reader.SetImageLoader(DecodePng, imageFolder);
  EXPECT_TRUE(reader.LoadBinaryFromFile(&model, &error, &warning, path.string())) << error;
  EXPECT_EQ(warning, "");
  return model;
}

template <typename T, std::size_t N>
std::vector<std::array<T, N>> ReadAccessor(const tinygltf::Model& model, int index, int componentType) {
  const tinygltf::Accessor& accessor = model.accessors.at(std::size_t(index));
  EXPECT_EQ(accessor.componentType, componentType);
  const tinygltf::BufferView& view = model.bufferViews.at(std::size_t(accessor.bufferView));
  const std::vector<unsigned char>& data = model.buffers.at(std::size_t(view.buffer)).data;
  const std::size_t stride = view.byteStride != 0 ? view.byteStride : sizeof(std::array<T, N>);
  const std::size_t start = view.byteOffset + accessor.byteOffset;
  std::vector<std::array<T, N>> values(accessor.count);
  if (start + stride * accessor.count > data.size()) ADD_FAILURE() << "accessor " << index << " overruns its buffer";
  for (std::size_t i = 0; i < accessor.count && start + stride * accessor.count <= data.size(); ++i)
    std::memcpy(values[i].data(), data.data() + start + i * stride, sizeof(values[i]));
  return values;
}

GltfMesh ReadMesh(const tinygltf::Model& model, int meshIndex) {
  const tinygltf::Mesh& source = model.meshes.at(std::size_t(meshIndex));
  EXPECT_EQ(source.primitives.size(), 1u);
  const tinygltf::Primitive& primitive = source.primitives.at(0);
  const auto& attributes = primitive.attributes;
  const auto attribute = [&](const char* name) { return attributes.contains(name) ? attributes.at(name) : -1; };
  GltfMesh mesh;
  mesh.mode = primitive.mode;
  mesh.positions = ReadAccessor<float, 3>(model, attribute("POSITION"), TINYGLTF_COMPONENT_TYPE_FLOAT);
  // POSITION min and max match the float data exactly, or validators reject the file.
  const tinygltf::Accessor& position = model.accessors.at(std::size_t(attribute("POSITION")));
  std::vector<float> low, high;
  for (std::size_t i = 0; i < 3 && !mesh.positions.empty(); ++i) {
    const auto [min, max] = std::ranges::minmax(mesh.positions, {}, [i](const F3& p) { return p[i]; });
    low.push_back(min[i]);
    high.push_back(max[i]);
  }
  EXPECT_EQ(std::vector<float>(position.minValues.begin(), position.minValues.end()), low);
  EXPECT_EQ(std::vector<float>(position.maxValues.begin(), position.maxValues.end()), high);
  if (attribute("NORMAL") >= 0)
    mesh.normals = ReadAccessor<float, 3>(model, attribute("NORMAL"), TINYGLTF_COMPONENT_TYPE_FLOAT);
  if (attribute("TEXCOORD_0") >= 0)
    mesh.uvs = ReadAccessor<float, 2>(model, attribute("TEXCOORD_0"), TINYGLTF_COMPONENT_TYPE_FLOAT);
  for (const auto [index] :
       ReadAccessor<std::uint32_t, 1>(model, primitive.indices, TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT)) {
    EXPECT_LT(index, mesh.positions.size());
    mesh.indices.push_back(index < mesh.positions.size() ? index : 0);
  }
  return mesh;
}

// Triangles face the way their normals point, together cover `area`, and form one
// consistently wound surface: no directed edge twice (overlapping or flipped triangles).
void ExpectSurface(const GltfMesh& mesh, float area) {
  ASSERT_EQ(mesh.mode, TINYGLTF_MODE_TRIANGLES);
  ASSERT_EQ(mesh.indices.size() % 3, 0u);
  ASSERT_EQ(mesh.normals.size(), mesh.positions.size());
  double total = 0.0;
  std::map<std::pair<F3, F3>, int> edges;
  for (std::size_t t = 0; t < mesh.indices.size(); t += 3) {
    const auto corner = [&](std::size_t k) { return mesh.positions[mesh.indices[t + k % 3]]; };
    for (std::size_t k = 0; k < 3; ++k) EXPECT_EQ((++edges[{corner(k), corner(k + 1)}]), 1) << "triangle " << t / 3;
    const Vector geometric = FaceNormal(corner(0), corner(1), corner(2));
    total += Length(geometric) / 2.0;
    for (std::size_t k = 0; k < 3; ++k)
      EXPECT_GT(Dot(geometric, V(mesh.normals[mesh.indices[t + k]])), 0.0) << "triangle " << t / 3 << " faces away";
  }
  EXPECT_NEAR(total, area, 1e-4);
}

struct ObjCorner {
  long v = 0, vt = 0, vn = 0;
};
struct ObjFile {
  std::vector<std::string> lines, objects;
  std::vector<F3> v, vn;
  std::vector<F2> vt;
  std::vector<std::vector<ObjCorner>> faces;
  std::vector<std::vector<long>> polylines;
};

ObjFile ParseObj(const fs::path& path) {
  ObjFile obj;
  std::istringstream text(ReadFileBytes(path));
  for (std::string line; std::getline(text, line);) {
    obj.lines.push_back(line);
    std::istringstream tokens(line);
    std::string keyword;
    tokens >> keyword;
    if (keyword == "o") obj.objects.push_back(line.substr(2));
    if (keyword == "v" || keyword == "vn") {
      F3& value = (keyword == "v" ? obj.v : obj.vn).emplace_back();
      tokens >> value[0] >> value[1] >> value[2];
    }
    if (keyword == "vt") tokens >> obj.vt.emplace_back()[0] >> obj.vt.back()[1];
    if (keyword == "l") obj.polylines.emplace_back(std::istream_iterator<long>(tokens), std::istream_iterator<long>());
    if (keyword == "f") obj.faces.emplace_back();
    for (std::string corner, field; keyword == "f" && tokens >> corner;) {  // v, v/vt, v//vn or v/vt/vn
      ObjCorner& parsed = obj.faces.back().emplace_back();
      std::istringstream fields(corner);
      for (long* target : {&parsed.v, &parsed.vt, &parsed.vn})
        if (std::getline(fields, field, '/') && !field.empty()) *target = std::stol(field);
    }
  }
  return obj;
}

std::vector<long> Field(const std::vector<ObjCorner>& face, long ObjCorner::*field) {
  std::vector<long> result;
  for (const ObjCorner& corner : face) result.push_back(corner.*field);
  return result;
}

struct PlyFile {
  std::vector<std::string> properties;  // of a vertex, all float
  std::vector<std::vector<float>> vertices;
  std::vector<std::vector<std::uint32_t>> faces;
  bool valid = false;  // the header as we write it, the data exactly as long as announced
};

PlyFile ParsePly(const fs::path& path) {
  PlyFile ply;
  const std::string data = ReadFileBytes(path), headerEnd = "end_header\n";
  std::size_t offset = data.find(headerEnd), counts[2] = {0, 0};
  if (!data.starts_with("ply\nformat binary_little_endian 1.0\n") || offset == std::string::npos) return ply;
  std::istringstream header(data.substr(0, offset));
  offset += headerEnd.size();
  for (std::string line, keyword, type, name; std::getline(header, line);) {
    std::istringstream(line) >> keyword >> type >> name;
    if (keyword == "element") counts[type == "vertex" ? 0 : 1] = std::stoul(name);
    if (keyword == "property" && type == "float") ply.properties.push_back(name);
    if (keyword == "property" && type != "float" && line != "property list uchar uint vertex_indices") return ply;
  }
  const auto take = [&](void* target, std::size_t size) {
    if (offset + size > data.size()) return false;
    std::memcpy(target, data.data() + offset, size);
    offset += size;
    return true;
  };
  for (std::size_t i = 0; i < counts[0]; ++i)
    if (!take(ply.vertices.emplace_back(ply.properties.size()).data(), ply.properties.size() * 4)) return ply;
  for (std::size_t i = 0; i < counts[1]; ++i) {
    std::uint8_t count = 0;
    if (!take(&count, 1) || !take(ply.faces.emplace_back(count).data(), count * 4u)) return ply;
  }
  ply.valid = offset == data.size();
  return ply;
}

F3 PlyValue3(const PlyFile& ply, std::size_t vertex, const std::string& first) {
  const auto column = std::size_t(std::ranges::find(ply.properties, first) - ply.properties.begin());
  return {ply.vertices[vertex][column], ply.vertices[vertex][column + 1], ply.vertices[vertex][column + 2]};
}

// ---------------------------------------------------------------------------------------
// glTF

TEST(MeshGltfTest, VertexLayoutNormalsAndTextureCoordinates) {
  testing_support::TempDir dir;
  const auto write = [&dir](const PolygonObject& object) {
    EXPECT_TRUE(WriteGlb(object, dir.File("mesh.glb")));
    return ReadMesh(LoadGlb(dir.File("mesh.glb")), 0);
  };
  // Flat: a vertex per polygon corner. Smooth: shared points, unless a texture seam splits
  // them per corner, normals still smooth. glTF stores 1 - v.
  for (const auto& [phong, seam, vertices] : {std::tuple{false, false, 16u}, {true, false, 9u}, {true, true, 16u}}) {
    SCOPED_TRACE(std::string(phong ? "smooth" : "flat") + (seam ? " with a seam" : ""));
    auto ridge = MakeRidge(true, phong);
    if (seam) AddSeam(*ridge);
    const GltfMesh mesh = write(*ridge);
    ASSERT_EQ(mesh.positions.size(), vertices);
    ASSERT_EQ(mesh.uvs.size(), vertices);
    EXPECT_EQ(mesh.indices.size(), 24u);
    int seamCorners = 0;
    for (std::size_t i = 0; i < vertices; ++i) {
      const int point = FindRidgePoint(mesh.positions[i]);
      ASSERT_GE(point, 0) << "vertex " << i << " is no ridge point in the files' frame";
      const bool atSeam = seam && point == 4 && mesh.uvs[i][0] == 0.9f;
      seamCorners += atSeam;
      const Vector32 uv = atSeam ? Vector32{0.9f, 0.8f, 0.0f} : RidgeUV(point);
      EXPECT_FLOAT_EQ(mesh.uvs[i][0], uv.x);
      EXPECT_FLOAT_EQ(mesh.uvs[i][1], 1.0f - uv.y);
      if (phong)
        ExpectNear3(mesh.normals[i], RidgeSmoothNormal(point), "smooth normal of point " + std::to_string(point));
    }
    EXPECT_EQ(seamCorners, seam ? 1 : 0);
    for (std::size_t k = 0; !phong && k < mesh.indices.size(); ++k) {
      // A triangle touching the top row (z = 2, file z = -2) lies in a row-0 quad.
      const auto& t = mesh.indices;
      const bool near =
          std::ranges::any_of(&t[k / 3 * 3], &t[k / 3 * 3 + 3], [&](auto c) { return mesh.positions[c][2] < -1.5f; });
      ExpectNear3(mesh.normals[t[k]], near ? kFlatNear : kFlatFar, "flat normal");
    }
    ExpectSurface(mesh, kRidgeArea);
  }
  EXPECT_TRUE(write(*MakeRidge(false, true)).uvs.empty()) << "no TEXCOORD_0 without a texture";

  // A quad and a triangle (c == d): 4 + 3 corners, 6 + 3 indices. The quad is cut from b to
  // d (points 1 and 3), as readers fan the reversed quad of OBJ and PLY, so that all formats
  // show the same surface.
  const GltfMesh mixed = write(*MakeMixed("Mixed", false));
  EXPECT_EQ(mixed.positions.size(), 7u);
  ASSERT_EQ(mixed.indices.size(), 9u);
  for (const F3& normal : mixed.normals) ExpectNear3(normal, {0.0f, 1.0f, 0.0f}, "flat normal of a y = 0 plane");
  ExpectSurface(mixed, 1.5f);
  long hits = 0;
  for (std::size_t k = 0; k < 6; ++k)
    hits += std::ranges::count(std::array{ToFile({0, 0, 1}), ToFile({1, 0, 0})}, mixed.positions[mixed.indices[k]]);
  EXPECT_EQ(hits, 4) << "both triangles of the quad hold b and d";
}

// Applies a node's column-major matrix to a point.
F3 ApplyNodeMatrix(const std::vector<double>& m, const F3& p) {
  F3 result{};
  for (std::size_t r = 0; r < 3; ++r)
    result[r] = float(m[r] * double{p[0]} + m[4 + r] * double{p[1]} + m[8 + r] * double{p[2]} + m[12 + r]);
  return result;
}

TEST(MeshGltfTest, NodeTreeMatricesAndIsoparmLines) {
  testing_support::TempDir dir;
  ASSERT_TRUE(WriteGlb(*MakeTree(Vector(1, 2, 3), false), dir.File("tree.glb")));
  const tinygltf::Model model = LoadGlb(dir.File("tree.glb"));
  ASSERT_EQ(model.scenes.size(), 1u);
  EXPECT_EQ(model.scenes[0].nodes, std::vector<int>{0});
  ASSERT_EQ(model.nodes.size(), 3u);
  const tinygltf::Node &root = model.nodes[0], &child = model.nodes[1], &isoparms = model.nodes[2];
  EXPECT_EQ(std::tuple(root.name, child.name, isoparms.name), std::tuple("Root", "Child", "Root Isoparms"));
  EXPECT_EQ(root.children, (std::vector<int>{1, 2}));
  EXPECT_TRUE(child.children.empty());
  EXPECT_TRUE(isoparms.matrix.empty()) << "an identity matrix is left out";

  // The node matrices act on files'-frame points as ours act on ours.
  ASSERT_EQ(root.matrix.size(), 16u);
  ExpectNear3(ApplyNodeMatrix(root.matrix, {0.5f, 0.25f, 2.0f}), {1.5f, 2.25f, -1.0f}, "root matrix");
  ASSERT_EQ(child.matrix.size(), 16u);
  for (const F3& p : {F3{1, 2, 3}, F3{-4, 0, 0.5f}})
    ExpectNear3(ApplyNodeMatrix(child.matrix, ToFile(p)), ToFile({p[2] + 5, p[1], 7 - p[0]}), "child matrix");
  EXPECT_EQ(child.matrix[3], 0.0);
  EXPECT_EQ(child.matrix[15], 1.0);
  // The child's mesh stays local: its normals are those of the plain ridge.
  ExpectNear3(ReadMesh(model, child.mesh).normals.at(0), RidgeSmoothNormal(0), "local normal");

  ASSERT_GE(isoparms.mesh, 0);
  const GltfMesh lines = ReadMesh(model, isoparms.mesh);
  EXPECT_EQ(lines.mode, TINYGLTF_MODE_LINE);
  EXPECT_TRUE(lines.normals.empty());
  ASSERT_EQ(lines.positions.size(), 6u);
  ExpectNear3(lines.positions[1], {1.0f, 0.0f, -2.0f}, "line point");
  ExpectNear3(lines.positions[5], {5.0f, 1.0f, -6.0f}, "line point");
  EXPECT_EQ(lines.indices, (std::vector<std::uint32_t>{0, 1, 1, 2, 4, 5}));
}

TEST(MeshGltfTest, BinaryLayoutAndEmptyTrees) {
  testing_support::TempDir dir;
  ASSERT_TRUE(WriteGlb(*MakeRidge(true, false), dir.File("ridge.glb")));
  const std::string bytes = ReadFileBytes(dir.File("ridge.glb"));
  ASSERT_GE(bytes.size(), 28u);
  const auto word = [&bytes](std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 4);
    return value;
  };
  // The reader checks the chunk types and their alignment, not the version or that the
  // lengths fill the file exactly.
  EXPECT_EQ(word(4), 2u);
  EXPECT_EQ(word(8), bytes.size());
  const std::size_t bin = 20 + word(12);
  ASSERT_LE(bin + 8, bytes.size());
  EXPECT_EQ(word(bin), 16u * 32u + 24u * 4u) << "16 corners of 12 + 12 + 8 bytes, 24 indices of 4";
  EXPECT_EQ(bin + 8 + word(bin), bytes.size());
  for (const tinygltf::BufferView& view : LoadGlb(dir.File("ridge.glb")).bufferViews)
    EXPECT_EQ(view.byteOffset % 4, 0u);

  // Nothing to draw still makes a loadable file: a node, no meshes, no buffer.
  ASSERT_TRUE(WriteGlb(*std::move(*PolygonObject::Create(0, 0)), dir.File("empty.glb")));
  const tinygltf::Model empty = LoadGlb(dir.File("empty.glb"));
  EXPECT_EQ(empty.nodes.size(), 1u);
  EXPECT_TRUE(empty.meshes.empty());
  EXPECT_TRUE(empty.buffers.empty());

  // A polygon without area has no direction; its normal must still be a unit vector.
  for (const bool phong : {false, true}) {
    auto collapsed = std::move(*PolygonObject::Create(3, 1));
    collapsed->GetPolygonW()[0] = CPolygon{0, 1, 2, 2};
    ASSERT_TRUE(!phong || collapsed->AddTag(std::make_unique<PhongTag>()));
    ASSERT_TRUE(WriteGlb(*collapsed, dir.File("collapsed.glb")));
    const GltfMesh mesh = ReadMesh(LoadGlb(dir.File("collapsed.glb")), 0);
    ASSERT_EQ(mesh.normals.size(), 3u);
    for (const F3& normal : mesh.normals) EXPECT_NEAR(Length(V(normal)), 1.0, 1e-5);
  }
}

TEST(MeshGltfTest, EmbeddedMaterialAndTextures) {
  testing_support::TempDir dir;
  // Every channel value differs, so swapped channels, rows or images show.
  auto color = std::move(*Image::Create(4, 3, 4, PixelType::UInt8));
  for (std::size_t i = 0; i < color.Bytes().size(); ++i) color.Bytes()[i] = std::byte(i * 5 + 1);
  auto normals = std::move(*Image::Create(2, 2, 3, PixelType::UInt8));
  for (std::size_t i = 0; i < normals.Bytes().size(); ++i) normals.Bytes()[i] = std::byte(128 + i * 9);
  auto ridge = MakeRidge(true, true);
  ridge->isoparm = MakeLines();
  const MeshMaterial material{
      .name = "Rock", .baseColor = &color, .normalMap = &normals, .roughness = 0.25, .metallic = 0.5};
  ASSERT_TRUE(WriteGlb(*ridge, dir.File("rock.glb"), {}, &material));
  const tinygltf::Model model = LoadGlb(dir.File("rock.glb"), &dir);

  ASSERT_EQ(model.materials.size(), 1u);
  const tinygltf::Material& rock = model.materials[0];
  EXPECT_EQ(rock.name, "Rock");
  EXPECT_EQ(rock.pbrMetallicRoughness.roughnessFactor, 0.25);
  EXPECT_EQ(rock.pbrMetallicRoughness.metallicFactor, 0.5);
  // The polygons wear the material, the isoparm lines (node 1) keep the default.
  ASSERT_EQ(model.nodes.size(), 2u);
  EXPECT_EQ(model.meshes.at(std::size_t(model.nodes[0].mesh)).primitives.at(0).material, 0);
  EXPECT_EQ(model.meshes.at(std::size_t(model.nodes[1].mesh)).primitives.at(0).material, -1);
  EXPECT_EQ(ReadMesh(model, model.nodes[0].mesh).uvs.size(), 9u);

  // Both images are PNG in the file's one buffer and decode to the pixels given.
  ASSERT_EQ(model.buffers.size(), 1u);
  EXPECT_TRUE(model.buffers[0].uri.empty());
  const tinygltf::TextureInfo& base = rock.pbrMetallicRoughness.baseColorTexture;
  for (const auto& [index, texCoord, expected] : {std::tuple{base.index, base.texCoord, &color},
                                                  {rock.normalTexture.index, rock.normalTexture.texCoord, &normals}}) {
    SCOPED_TRACE(expected == &color ? "base colour" : "normal map");
    EXPECT_EQ(texCoord, 0);
    const tinygltf::Texture& texture = model.textures.at(std::size_t(index));
    EXPECT_EQ(texture.sampler, 0);
    const tinygltf::Image& image = model.images.at(std::size_t(texture.source));
    EXPECT_EQ(std::tuple(image.mimeType, image.uri), std::tuple("image/png", ""));
    EXPECT_EQ(std::tuple(image.width, image.height, image.component),
              std::tuple(int(expected->Width()), int(expected->Height()), expected->Channels()));
    const auto* pixels = reinterpret_cast<const unsigned char*>(expected->Bytes().data());
    EXPECT_EQ(image.image, std::vector<unsigned char>(pixels, pixels + expected->Bytes().size()));
  }
  ASSERT_EQ(model.samplers.size(), 1u);
  const tinygltf::Sampler& sampler = model.samplers[0];
  EXPECT_EQ(std::tuple(sampler.magFilter, sampler.minFilter, sampler.wrapS, sampler.wrapT),
            std::tuple(TINYGLTF_TEXTURE_FILTER_LINEAR, TINYGLTF_TEXTURE_FILTER_LINEAR_MIPMAP_LINEAR,
                       TINYGLTF_TEXTURE_WRAP_REPEAT, TINYGLTF_TEXTURE_WRAP_REPEAT));
  for (const tinygltf::BufferView& view : model.bufferViews) EXPECT_EQ(view.byteOffset % 4, 0u);
}

TEST(MeshGltfTest, MaterialRefusals) {
  testing_support::TempDir dir;
  const auto image = [](Int width, int channels, PixelType type) {
    return std::move(*Image::Create(width, 3, channels, type));
  };
  const Image color = image(4, 3, PixelType::UInt8), rgba = image(4, 4, PixelType::UInt8),
              deep = image(4, 3, PixelType::UInt16), wide = image(16385, 3, PixelType::UInt8), empty;
  Image movedFrom = image(4, 3, PixelType::UInt8);
  [[maybe_unused]] const Image taken = std::move(movedFrom);  // keeps its size, loses its pixels
  const auto ridge = MakeRidge(true, false), bare = MakeRidge(false, false, "Bare");
  // A refusal of `kind` naming the file and `named`, leaving nothing behind.
  const auto expectRefused = [&dir](const Status& status, ErrorKind kind, const std::string& named) {
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().kind, kind);
    EXPECT_NE(status.error().message.find(named), std::string::npos) << status.error().message;
    EXPECT_NE(status.error().message.find(dir.File("refused.glb").string()), std::string::npos);
    EXPECT_TRUE(fs::is_empty(dir.Path()));
  };
  struct Case {
    const char* what;
    const PolygonObject* object;
    const Image* baseColor;
    const Image* normalMap;
    double roughness, metallic;
    const char* named;
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const Case& refused : {
           Case{"no UVs", bare.get(), &color, nullptr, 1, 0, "\"Bare\" has no texture coordinates"},
           Case{"no base colour", ridge.get(), nullptr, nullptr, 1, 0, "no base colour texture"},
           Case{"empty image", ridge.get(), &empty, nullptr, 1, 0, "base colour texture is empty"},
           Case{"moved-from image", ridge.get(), &movedFrom, nullptr, 1, 0, "fewer pixels"},
           Case{"too wide", ridge.get(), &wide, nullptr, 1, 0, "16385 x 3 pixels"},
           Case{"16-bit", ridge.get(), &deep, nullptr, 1, 0, "must hold 8-bit"},
           Case{"RGBA normals", ridge.get(), &color, &rgba, 1, 0, "normal map has 4 channels"},
           Case{"roughness", ridge.get(), &color, nullptr, 1.5, 0, "roughness 1.5 lies outside"},
           Case{"metallic", ridge.get(), &color, nullptr, 1, nan, "metallic factor nan"},
       }) {
    SCOPED_TRACE(refused.what);
    const MeshMaterial material{.baseColor = refused.baseColor,
                                .normalMap = refused.normalMap,
                                .roughness = refused.roughness,
                                .metallic = refused.metallic};
    expectRefused(WriteGeometry(*refused.object, dir.File("refused.glb"), {}, &material), ErrorKind::IllegalArgument,
                  refused.named);
  }
  // A break stops the write before the textures are encoded.
  CancellationToken cancelled;
  cancelled.Cancel();
  const MeshMaterial material{.baseColor = &color};
  expectRefused(WriteGlb(*ridge, dir.File("refused.glb"), {&cancelled, nullptr}, &material), ErrorKind::Cancelled, "");

  // Formats without materials leave it out.
  EXPECT_TRUE(WriteGeometry(*bare, dir.File("bare.obj"), {}, &material));
}

// ---------------------------------------------------------------------------------------
// OBJ

TEST(MeshObjTest, WorldPositionsWindingAndRecords) {
  testing_support::TempDir dir;
  ASSERT_TRUE(WriteObj(*MakeTree(Vector(2, 3, 0), true), dir.File("tree.obj")));
  const ObjFile obj = ParseObj(dir.File("tree.obj"));
  EXPECT_EQ(obj.objects, (std::vector<std::string>{"Root", "Child", "Root Isoparms"}));
  ASSERT_EQ(obj.v.size(), 5u + 9u + 6u);
  // Root: quad (0, 1, 2, 3) and triangle (1, 4, 2) reversed, without vt or vn.
  ASSERT_EQ(obj.faces.size(), 2u + 4u);
  EXPECT_EQ(Field(obj.faces[0], &ObjCorner::v), (std::vector<long>{4, 3, 2, 1}));
  EXPECT_EQ(Field(obj.faces[1], &ObjCorner::v), (std::vector<long>{3, 5, 2}));
  for (const auto field : {&ObjCorner::vt, &ObjCorner::vn})
    EXPECT_EQ(Field(obj.faces[1], field), (std::vector<long>{0, 0, 0}));
  ExpectNear3(obj.v[4], {2.5f, 3.0f, -2.0f}, "root position");
  // Child: world space, its quarter turn first, then the root's move, then z flipped. One
  // vt and vn per point, OBJ keeping v; the turn carries our normal (x, y, z) to (z, y, -x).
  ASSERT_EQ(obj.vt.size(), 9u);
  ASSERT_EQ(obj.vn.size(), 9u);
  for (int i = 0; i < 9; ++i) {
    const F3 p = RidgePoint(i), n = ToFile(RidgeSmoothNormal(i));
    ExpectNear3(obj.v[std::size_t(5 + i)], ToFile({p[2] + 7, p[1] + 3, 7 - p[0]}), "world position");
    ExpectNear3(obj.vn[std::size_t(i)], {n[2], n[1], n[0]}, "world normal");
    EXPECT_EQ(obj.vt[std::size_t(i)], (F2{RidgeUV(i).x, RidgeUV(i).y}));
  }
  // Polygon (1, 4, 3, 0) of the child reversed, numbered after the root's 5 points; vt and
  // vn carry the point's own number. Every child face faces the way its normals point.
  EXPECT_EQ(Field(obj.faces[2], &ObjCorner::v), (std::vector<long>{6, 9, 10, 7}));
  for (std::size_t f = 2; f < obj.faces.size(); ++f) {
    const std::vector<ObjCorner>& face = obj.faces[f];
    for (const ObjCorner& corner : face) EXPECT_TRUE(corner.vt == corner.v - 5 && corner.vn == corner.v - 5);
    const auto at = [&](std::size_t k) { return obj.v[std::size_t(face[k].v - 1)]; };
    EXPECT_GT(Dot(FaceNormal(at(0), at(1), at(2)), V(obj.vn[std::size_t(face[0].vn - 1)])), 0.0) << "face " << f;
  }
  // Lines of 3, 1 and 2 points after the 14 mesh points; the single point has no record.
  EXPECT_EQ(obj.polylines, (std::vector<std::vector<long>>{{15, 16, 17}, {19, 20}}));
  ExpectNear3(obj.v[19], {7.0f, 4.0f, -6.0f}, "line point");

  // Flat with a texture seam: a vt per polygon corner, no vn, faces in v/vt form. Polygon 0
  // (1, 4, 3, 0) had its corners a, b, c, d written as vt 1..4; reversed: d, c, b, a.
  auto seam = MakeRidge(true, false);
  AddSeam(*seam);
  ASSERT_TRUE(WriteObj(*seam, dir.File("seam.obj")));
  const ObjFile seamObj = ParseObj(dir.File("seam.obj"));
  EXPECT_EQ(seamObj.vt.size(), 16u);
  EXPECT_TRUE(seamObj.vn.empty());
  ASSERT_EQ(seamObj.faces.size(), 4u);
  EXPECT_EQ(Field(seamObj.faces[0], &ObjCorner::vt), (std::vector<long>{4, 3, 2, 1}));
  EXPECT_EQ(Field(seamObj.faces[0], &ObjCorner::v), (std::vector<long>{1, 4, 5, 2})) << "the seam corner is point 4";
  EXPECT_EQ(seamObj.vt[1], (F2{0.9f, 0.8f}));

  // Smooth without texture: the v//vn form.
  ASSERT_TRUE(WriteObj(*MakeRidge(false, true), dir.File("plain.obj")));
  const ObjFile plain = ParseObj(dir.File("plain.obj"));
  ASSERT_EQ(plain.faces.size(), 4u);
  EXPECT_EQ(Field(plain.faces[0], &ObjCorner::vt), (std::vector<long>{0, 0, 0, 0}));
  EXPECT_EQ(Field(plain.faces[0], &ObjCorner::vn), Field(plain.faces[0], &ObjCorner::v));

  // Nothing to write is still a file with its header and group.
  ASSERT_TRUE(WriteObj(*std::move(*PolygonObject::Create(0, 0)), dir.File("empty.obj")));
  EXPECT_EQ(ParseObj(dir.File("empty.obj")).lines, (std::vector<std::string>{"# Vellgrund", "o unnamed"}));
}

// ---------------------------------------------------------------------------------------
// PLY

TEST(MeshPlyTest, MergedWorldSpaceMeshes) {
  testing_support::TempDir dir;
  const auto write = [&dir](const PolygonObject& object) {
    EXPECT_TRUE(WritePly(object, dir.File("mesh.ply")));
    PlyFile ply = ParsePly(dir.File("mesh.ply"));
    EXPECT_TRUE(ply.valid);
    return ply;
  };
  // Both meshes smooth, one textured: normals, and s t with zeros for the other mesh.
  auto root = MakeRidge(true, true, "Root");
  root->matrix.off = Vector(0, 0, 10);
  root->isoparm = MakeLines();
  ASSERT_TRUE(root->InsertChild(MakeMixed("Child", true)));
  const PlyFile ply = write(*root);
  EXPECT_EQ(ply.properties, (std::vector<std::string>{"x", "y", "z", "nx", "ny", "nz", "s", "t"}));
  ASSERT_EQ(ply.vertices.size(), 9u + 5u) << "line points are not part of the file";
  for (int i = 0; i < 9; ++i) {
    const F3 p = RidgePoint(i);
    ExpectNear3(PlyValue3(ply, std::size_t(i), "x"), ToFile({p[0], p[1], p[2] + 10}), "world position");
    ExpectNear3(PlyValue3(ply, std::size_t(i), "nx"), RidgeSmoothNormal(i), "smooth normal");
    EXPECT_EQ(ply.vertices[std::size_t(i)][6], RidgeUV(i).x);
    EXPECT_EQ(ply.vertices[std::size_t(i)][7], RidgeUV(i).y) << "PLY keeps v";
  }
  ExpectNear3(PlyValue3(ply, 9 + 4, "x"), {0.5f, 0.0f, -12.0f}, "child inherits the root's matrix");
  EXPECT_EQ(ply.vertices[9][6], 0.0f);
  ASSERT_EQ(ply.faces.size(), 4u + 2u);
  EXPECT_EQ(ply.faces[0], (std::vector<std::uint32_t>{0, 3, 4, 1}));
  EXPECT_EQ(ply.faces[4], (std::vector<std::uint32_t>{12, 11, 10, 9}));
  EXPECT_EQ(ply.faces[5], (std::vector<std::uint32_t>{11, 13, 10}));

  // A stretched smooth mesh with a texture seam: normals follow the stretch, no s t. With
  // doubled heights row 0 slopes as y = 2 - z, row 1 as y = 2 + 2z; the middle row,
  // area-weighted, still points straight up.
  auto ridge = MakeRidge(true, true);
  ridge->matrix.v2 = Vector(0, 2, 0);
  AddSeam(*ridge);
  const PlyFile stretched = write(*ridge);
  EXPECT_EQ(stretched.properties, (std::vector<std::string>{"x", "y", "z", "nx", "ny", "nz"}));
  ASSERT_EQ(stretched.vertices.size(), 9u);
  ExpectNear3(PlyValue3(stretched, 0, "nx"), {0.0f, 1.0f / std::sqrt(2.0f), -1.0f / std::sqrt(2.0f)}, "normal");
  ExpectNear3(PlyValue3(stretched, 4, "nx"), {0.0f, 1.0f, 0.0f}, "normal");
  ExpectNear3(PlyValue3(stretched, 8, "nx"), {0.0f, 1.0f / std::sqrt(5.0f), 2.0f / std::sqrt(5.0f)}, "normal");
  ExpectNear3(PlyValue3(stretched, 4, "x"), {0.0f, 2.0f, 0.0f}, "stretched position");

  // A flat mesh among smooth ones: shared vertices cannot carry its normals, so none.
  auto smooth = MakeRidge(false, true);
  ASSERT_TRUE(smooth->InsertChild(MakeMixed("Flat", false)));
  EXPECT_EQ(write(*smooth).properties, (std::vector<std::string>{"x", "y", "z"}));
  const PlyFile empty = write(*std::move(*PolygonObject::Create(0, 0)));
  EXPECT_TRUE(empty.vertices.empty() && empty.faces.empty());
}

// ---------------------------------------------------------------------------------------
// Choosing the writer, failing cleanly

TEST(MeshWriterTest, EndingsAndFailures) {
  testing_support::TempDir dir;
  const auto ridge = MakeRidge(true, true);
  for (const auto& [name, start] :
       {std::pair{"upper.GLB", "glTF"}, {"mixed.Obj", "# Vellgrund\n"}, {"lower.ply", "ply\n"}}) {
    ASSERT_TRUE(WriteGeometry(*ridge, dir.File(name))) << name;
    EXPECT_TRUE(ReadFileBytes(dir.File(name)).starts_with(start)) << name;
  }

  // A refusal of `kind` naming the file and every one of `named`, leaving no file.
  const auto expectRefused = [](const Status& status, ErrorKind kind, const fs::path& path,
                                const std::vector<std::string>& named) {
    ASSERT_FALSE(status) << path;
    EXPECT_EQ(status.error().kind, kind) << path;
    for (const std::string& text : named) EXPECT_NE(status.error().message.find(text), std::string::npos) << text;
    EXPECT_NE(status.error().message.find(path.string()), std::string::npos) << status.error().message;
    EXPECT_FALSE(fs::is_regular_file(path));
  };
  for (const char* name : {"mesh.stl", "mesh"})
    expectRefused(WriteGeometry(*ridge, dir.File(name)), ErrorKind::IllegalArgument, dir.File(name),
                  {".glb", ".obj", ".ply"});
  EXPECT_NE(WriteGeometry(*ridge, dir.File("mesh.stl")).error().message.find("\".stl\""), std::string::npos);

  // A missing folder and a folder in the way: an I/O error naming the file, nothing left.
  fs::create_directories(dir.File("sub") / "taken.obj");
  for (const fs::path& path : {dir.File("sub") / "missing" / "mesh.glb", dir.File("sub") / "taken.obj"})
    expectRefused(WriteGeometry(*ridge, path), ErrorKind::Io, path, {});
  EXPECT_TRUE(fs::is_empty(dir.File("sub") / "taken.obj"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.File("sub")), fs::directory_iterator()), 1);

  // Broken objects are refused with the object and the file named, in every format.
  auto broken = MakeRidge(true, false, "Broken");
  broken->GetPolygonW()[3].c = 9;
  auto shortTag = MakeRidge(false, false, "ShortTag");
  ASSERT_TRUE(shortTag->AddTag(std::move(*UVWTag::Create(3))));
  auto farAway = MakeRidge(false, false, "FarAway");
  farAway->GetPointW()[2].x = 1e300;
  auto lost = MakeRidge(false, false, "Lost");
  lost->matrix.off.x = std::numeric_limits<double>::quiet_NaN();
  for (const PolygonObject* object : {broken.get(), shortTag.get(), farAway.get(), lost.get()})
    for (const char* name : {"bad.glb", "bad.obj", "bad.ply"})
      expectRefused(WriteGeometry(*object, dir.File(name)), ErrorKind::IllegalArgument, dir.File(name),
                    {"\"" + object->name + "\""});
  EXPECT_NE(WriteGlb(*broken, dir.File("bad.glb")).error().message.find("point 9"), std::string::npos);
}

}  // namespace
