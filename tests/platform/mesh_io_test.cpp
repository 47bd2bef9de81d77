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
#include <vector>

#include <gtest/gtest.h>

// tinygltf reads the files back as an independent check; images are never involved.
#define TINYGLTF_NO_STB_IMAGE
#define TINYGLTF_NO_STB_IMAGE_WRITE
#define TINYGLTF_NO_EXTERNAL_IMAGE
#define TINYGLTF_IMPLEMENTATION
#include <tiny_gltf.h>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using platform::CPolygon;
using platform::ErrorKind;
using platform::Int32;
using platform::LineObject;
using platform::Matrix;
using platform::PolygonObject;
using platform::UVWStruct;
using platform::Vector;
using platform::Vector32;

using F2 = std::array<float, 2>;
using F3 = std::array<float, 3>;

constexpr float kTolerance = 1e-5f;

// ---------------------------------------------------------------------------------------
// Test objects

// A 2 x 2 quad ridge: rows of points at z = 2, 0, -1, columns at x = -1, 0, 1, the middle
// row raised to y = 1. The two quad rows differ in slope and area, so area weighting of
// smooth normals shows, and their normals lean along z, so a missing z flip shows.
constexpr std::array<double, 3> kRidgeZ = {2.0, 0.0, -1.0};

F3 RidgePoint(int point) {
  const int row = point / 3;
  const int column = point % 3;
  return {static_cast<float>(column - 1), row == 1 ? 1.0f : 0.0f, static_cast<float>(kRidgeZ[static_cast<std::size_t>(row)])};
}
// Chosen so that u and v differ everywhere and a swapped or unflipped v shows.
Vector32 RidgeUV(int point) { return {static_cast<float>(point % 3) * 0.5f, static_cast<float>(point / 3) * 0.25f, 0.0f}; }

std::unique_ptr<PolygonObject> MakeRidge(bool uvw, bool phong, const std::string& name = "Ridge") {
  auto object = std::move(*PolygonObject::Create(9, 4));
  object->name = name;
  for (int i = 0; i < 9; ++i) {
    const F3 p = RidgePoint(i);
    object->GetPointW()[static_cast<std::size_t>(i)] = Vector(p[0], p[1], p[2]);
  }
  std::unique_ptr<platform::UVWTag> tag;
  if (uvw) tag = std::move(*platform::UVWTag::Create(4));
  for (int row = 0; row < 2; ++row) {
    for (int column = 0; column < 2; ++column) {
      // Clockwise seen from above, as our plane builds its quads.
      const Int32 a = row * 3 + column, b = a + 1, d = a + 3, e = d + 1;
      const auto cell = static_cast<std::size_t>(row * 2 + column);
      object->GetPolygonW()[cell] = CPolygon{b, e, d, a};
      if (tag) tag->GetDataAddressW()[cell] = UVWStruct{RidgeUV(b), RidgeUV(e), RidgeUV(d), RidgeUV(a)};
    }
  }
  if (tag) {
    EXPECT_TRUE(object->AddTag(std::move(tag)));
  }
  if (phong) {
    EXPECT_TRUE(object->AddTag(std::make_unique<platform::PhongTag>()));
  }
  return object;
}

// Our-frame normals of the ridge worked out by hand, given in the files' frame (z flipped).
const F3 kFlatNear{0.0f, 2.0f / std::sqrt(5.0f), -1.0f / std::sqrt(5.0f)};  // quads of row 0
const F3 kFlatFar{0.0f, 1.0f / std::sqrt(2.0f), 1.0f / std::sqrt(2.0f)};    // quads of row 1
// Smooth normals per point row. The middle row is straight up only when the polygon
// normals are weighted by area (the row-0 quads are larger).
F3 RidgeSmoothNormal(int point) {
  const int row = point / 3;
  return row == 0 ? kFlatNear : row == 1 ? F3{0.0f, 1.0f, 0.0f} : kFlatFar;
}

// A flat quad (0, 1, 2, 3) and a triangle (1, 4, 2) stored with c == d, in the y = 0 plane.
std::unique_ptr<PolygonObject> MakeMixed(const std::string& name, bool phong) {
  auto object = std::move(*PolygonObject::Create(5, 2));
  object->name = name;
  const std::array<Vector, 5> points = {Vector(0, 0, 0), Vector(0, 0, 1), Vector(1, 0, 1), Vector(1, 0, 0),
                                        Vector(0.5, 0, 2)};
  std::copy(points.begin(), points.end(), object->GetPointW().begin());
  object->GetPolygonW()[0] = CPolygon{0, 1, 2, 3};
  object->GetPolygonW()[1] = CPolygon{1, 4, 2, 2};
  if (phong) {
    EXPECT_TRUE(object->AddTag(std::make_unique<platform::PhongTag>()));
  }
  return object;
}

std::unique_ptr<LineObject> MakeLines() {
  // Three lines of 3, 1 and 2 points: the single point has no segment but shifts the rest.
  std::vector<Vector> points = {Vector(0, 0, 1), Vector(1, 0, 2), Vector(2, 0, 3),
                                Vector(9, 9, 9), Vector(4, 1, 5), Vector(5, 1, 6)};
  return std::move(*LineObject::Create(std::move(points), {3, 1, 2}));
}

// Rotation by a quarter turn about Y, then a move: p -> (z + 5, y, 7 - x).
Matrix QuarterTurnAndMove() {
  Matrix m;
  m.v1 = Vector(0, 0, -1);
  m.v3 = Vector(1, 0, 0);
  m.off = Vector(5, 0, 7);
  return m;
}

F3 ToFile(const F3& p) { return {p[0], p[1], -p[2]}; }

void ExpectNear3(const F3& actual, const F3& expected, const std::string& what) {
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(actual[i], expected[i], kTolerance) << what << " [" << i << "]";
}

F3 Sub(const F3& a, const F3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
F3 CrossF(const F3& a, const F3& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
float DotF(const F3& a, const F3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
float LengthF(const F3& a) { return std::sqrt(DotF(a, a)); }

// Index of the ridge point at a files'-frame position, -1 if none.
int FindRidgePoint(const F3& position) {
  for (int i = 0; i < 9; ++i) {
    const F3 expected = ToFile(RidgePoint(i));
    if (LengthF(Sub(position, expected)) < kTolerance) return i;
  }
  return -1;
}

bool NoFilesIn(const fs::path& directory) { return fs::is_empty(directory); }

// ---------------------------------------------------------------------------------------
// glTF reading

struct GltfMesh {
  int mode = -1;
  std::vector<F3> positions, normals;
  std::vector<F2> uvs;
  std::vector<std::uint32_t> indices;
  std::vector<double> min, max;
  bool hasUVs = false;
};

tinygltf::Model LoadGlb(const fs::path& path) {
  tinygltf::TinyGLTF loader;
  tinygltf::Model model;
  std::string error, warning;
  const bool loaded = loader.LoadBinaryFromFile(&model, &error, &warning, path.string());
  EXPECT_TRUE(loaded) << error;
  EXPECT_EQ(warning, "");
  return model;
}

template <std::size_t N>
std::vector<std::array<float, N>> ReadFloats(const tinygltf::Model& model, int index) {
  const tinygltf::Accessor& accessor = model.accessors[static_cast<std::size_t>(index)];
  EXPECT_EQ(accessor.componentType, TINYGLTF_COMPONENT_TYPE_FLOAT);
  const tinygltf::BufferView& view = model.bufferViews[static_cast<std::size_t>(accessor.bufferView)];
  const std::vector<unsigned char>& data = model.buffers[static_cast<std::size_t>(view.buffer)].data;
  const std::size_t stride = view.byteStride != 0 ? view.byteStride : N * sizeof(float);
  std::vector<std::array<float, N>> values(accessor.count);
  EXPECT_LE(view.byteOffset + accessor.byteOffset + stride * accessor.count, data.size());
  for (std::size_t i = 0; i < accessor.count; ++i)
    std::memcpy(values[i].data(), data.data() + view.byteOffset + accessor.byteOffset + i * stride, N * sizeof(float));
  return values;
}

GltfMesh ReadMesh(const tinygltf::Model& model, int meshIndex) {
  GltfMesh mesh;
  const tinygltf::Mesh& source = model.meshes.at(static_cast<std::size_t>(meshIndex));
  EXPECT_EQ(source.primitives.size(), 1u);
  const tinygltf::Primitive& primitive = source.primitives.at(0);
  mesh.mode = primitive.mode;
  const int position = primitive.attributes.at("POSITION");
  mesh.positions = ReadFloats<3>(model, position);
  mesh.min = model.accessors[static_cast<std::size_t>(position)].minValues;
  mesh.max = model.accessors[static_cast<std::size_t>(position)].maxValues;
  if (primitive.attributes.contains("NORMAL")) mesh.normals = ReadFloats<3>(model, primitive.attributes.at("NORMAL"));
  if (primitive.attributes.contains("TEXCOORD_0")) {
    mesh.hasUVs = true;
    mesh.uvs = ReadFloats<2>(model, primitive.attributes.at("TEXCOORD_0"));
  }
  const tinygltf::Accessor& accessor = model.accessors.at(static_cast<std::size_t>(primitive.indices));
  EXPECT_EQ(accessor.componentType, TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT);
  const tinygltf::BufferView& view = model.bufferViews[static_cast<std::size_t>(accessor.bufferView)];
  const auto& data = model.buffers[static_cast<std::size_t>(view.buffer)].data;
  mesh.indices.resize(accessor.count);
  std::memcpy(mesh.indices.data(), data.data() + view.byteOffset + accessor.byteOffset, accessor.count * 4);
  for (const std::uint32_t index : mesh.indices) EXPECT_LT(index, mesh.positions.size());
  return mesh;
}

// Triangles face the way their normals point, together cover `area`, and form one
// consistently wound surface: no directed edge twice (overlapping or flipped triangles).
void ExpectTrianglesAgreeWithNormals(const GltfMesh& mesh, float area) {
  ASSERT_EQ(mesh.mode, TINYGLTF_MODE_TRIANGLES);
  ASSERT_EQ(mesh.indices.size() % 3, 0u);
  ASSERT_EQ(mesh.normals.size(), mesh.positions.size());
  float total = 0.0f;
  std::map<std::pair<F3, F3>, int> edges;
  for (std::size_t t = 0; t < mesh.indices.size(); t += 3) {
    for (std::size_t k = 0; k < 3; ++k) {
      const auto edge = std::pair(mesh.positions[mesh.indices[t + k]], mesh.positions[mesh.indices[t + (k + 1) % 3]]);
      EXPECT_EQ(++edges[edge], 1) << "triangle " << t / 3 << " repeats a directed edge";
    }
    const F3& p0 = mesh.positions[mesh.indices[t]];
    const F3 geometric = CrossF(Sub(mesh.positions[mesh.indices[t + 1]], p0), Sub(mesh.positions[mesh.indices[t + 2]], p0));
    total += LengthF(geometric) / 2.0f;
    for (std::size_t k = 0; k < 3; ++k)
      EXPECT_GT(DotF(geometric, mesh.normals[mesh.indices[t + k]]), 0.0f) << "triangle " << t / 3 << " faces away";
  }
  EXPECT_NEAR(total, area, 1e-4f);
}

void ExpectMinMax(const GltfMesh& mesh) {
  ASSERT_EQ(mesh.min.size(), 3u);
  ASSERT_EQ(mesh.max.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    float low = mesh.positions.at(0)[i], high = low;
    for (const F3& p : mesh.positions) {
      low = std::min(low, p[i]);
      high = std::max(high, p[i]);
    }
    // Must match the float data exactly, or validators reject the file.
    EXPECT_EQ(static_cast<float>(mesh.min[i]), low);
    EXPECT_EQ(static_cast<float>(mesh.max[i]), high);
  }
}

// Applies a node's column-major matrix to a point.
F3 ApplyNodeMatrix(const std::vector<double>& m, const F3& p) {
  F3 result{};
  for (std::size_t r = 0; r < 3; ++r)
    result[r] = static_cast<float>(m[r] * double{p[0]} + m[4 + r] * double{p[1]} + m[8 + r] * double{p[2]} + m[12 + r]);
  return result;
}

const float kRidgeArea = 2.0f * std::sqrt(5.0f) + 2.0f * std::sqrt(2.0f);

// ---------------------------------------------------------------------------------------
// OBJ and PLY reading

struct ObjCorner {
  long v = 0, vt = 0, vn = 0;
};
struct ObjFile {
  std::vector<std::string> lines;  // every line as written
  std::vector<std::string> objects;
  std::vector<F3> v, vn;
  std::vector<F2> vt;
  std::vector<std::vector<ObjCorner>> faces;
  std::vector<std::vector<long>> polylines;
};

ObjFile ParseObj(const fs::path& path) {
  ObjFile obj;
  std::istringstream text(testing_support::ReadFileBytes(path));
  for (std::string line; std::getline(text, line);) {
    obj.lines.push_back(line);
    std::istringstream tokens(line);
    std::string keyword;
    tokens >> keyword;
    if (keyword == "o") {
      obj.objects.push_back(line.substr(2));
    } else if (keyword == "v" || keyword == "vn") {
      F3 value{};
      tokens >> value[0] >> value[1] >> value[2];
      (keyword == "v" ? obj.v : obj.vn).push_back(value);
    } else if (keyword == "vt") {
      F2 value{};
      tokens >> value[0] >> value[1];
      obj.vt.push_back(value);
    } else if (keyword == "f") {
      std::vector<ObjCorner> face;
      for (std::string corner; tokens >> corner;) {
        ObjCorner parsed;
        std::array<long*, 3> fields = {&parsed.v, &parsed.vt, &parsed.vn};
        std::size_t field = 0, begin = 0;
        for (std::size_t i = 0; i <= corner.size(); ++i) {
          if (i == corner.size() || corner[i] == '/') {
            if (i > begin) *fields.at(field) = std::stol(corner.substr(begin, i - begin));
            ++field;
            begin = i + 1;
          }
        }
        face.push_back(parsed);
      }
      obj.faces.push_back(face);
    } else if (keyword == "l") {
      std::vector<long> polyline;
      for (long index = 0; tokens >> index;) polyline.push_back(index);
      obj.polylines.push_back(polyline);
    }
  }
  return obj;
}

struct PlyFile {
  std::vector<std::string> vertexProperties;
  std::vector<std::vector<float>> vertices;
  std::vector<std::vector<std::uint32_t>> faces;
  bool valid = false;
};

PlyFile ParsePly(const fs::path& path) {
  PlyFile ply;
  const std::string data = testing_support::ReadFileBytes(path);
  const std::string endHeader = "end_header\n";
  const std::size_t headerEnd = data.find(endHeader);
  if (headerEnd == std::string::npos) return ply;
  std::istringstream header(data.substr(0, headerEnd));
  std::string line;
  std::getline(header, line);
  if (line != "ply") return ply;
  std::getline(header, line);
  if (line != "format binary_little_endian 1.0") return ply;
  std::size_t vertexCount = 0, faceCount = 0;
  std::string element;
  bool faceListOk = false;
  while (std::getline(header, line)) {
    std::istringstream tokens(line);
    std::string keyword;
    tokens >> keyword;
    if (keyword == "element") {
      std::size_t count = 0;
      tokens >> element >> count;
      (element == "vertex" ? vertexCount : faceCount) = count;
    } else if (keyword == "property" && element == "vertex") {
      std::string type, name;
      tokens >> type >> name;
      if (type != "float") return ply;
      ply.vertexProperties.push_back(name);
    } else if (keyword == "property" && element == "face") {
      faceListOk = line == "property list uchar uint vertex_indices";
    }
  }
  if (!faceListOk && faceCount > 0) return ply;
  std::size_t offset = headerEnd + endHeader.size();
  auto take = [&](void* target, std::size_t size) {
    if (offset + size > data.size()) return false;
    std::memcpy(target, data.data() + offset, size);
    offset += size;
    return true;
  };
  for (std::size_t i = 0; i < vertexCount; ++i) {
    std::vector<float> vertex(ply.vertexProperties.size());
    if (!take(vertex.data(), vertex.size() * sizeof(float))) return ply;
    ply.vertices.push_back(vertex);
  }
  for (std::size_t i = 0; i < faceCount; ++i) {
    std::uint8_t count = 0;
    if (!take(&count, 1)) return ply;
    std::vector<std::uint32_t> face(count);
    if (!take(face.data(), count * sizeof(std::uint32_t))) return ply;
    ply.faces.push_back(face);
  }
  ply.valid = offset == data.size();
  return ply;
}

F3 PlyValue3(const PlyFile& ply, std::size_t vertex, const std::string& first) {
  const auto it = std::find(ply.vertexProperties.begin(), ply.vertexProperties.end(), first);
  const auto column = static_cast<std::size_t>(it - ply.vertexProperties.begin());
  return {ply.vertices[vertex][column], ply.vertices[vertex][column + 1], ply.vertices[vertex][column + 2]};
}

// ---------------------------------------------------------------------------------------
// glTF

TEST(MeshGltfTest, VertexLayoutNormalsAndTextureCoordinates) {
  testing_support::TempDir dir;

  {  // Flat: a vertex per polygon corner, every corner carrying its polygon's normal.
    const auto ridge = MakeRidge(true, false);
    ASSERT_TRUE(platform::WriteGlb(*ridge, dir.File("flat.glb")));
    const tinygltf::Model model = LoadGlb(dir.File("flat.glb"));
    const GltfMesh mesh = ReadMesh(model, 0);
    ASSERT_EQ(mesh.positions.size(), 16u);
    EXPECT_EQ(mesh.indices.size(), 24u);
    ASSERT_EQ(mesh.uvs.size(), 16u);
    for (std::size_t i = 0; i < mesh.positions.size(); ++i) {
      const int point = FindRidgePoint(mesh.positions[i]);
      ASSERT_GE(point, 0) << "vertex " << i << " is no ridge point in the files' frame";
      const Vector32 uv = RidgeUV(point);
      EXPECT_FLOAT_EQ(mesh.uvs[i][0], uv.x);
      EXPECT_FLOAT_EQ(mesh.uvs[i][1], 1.0f - uv.y);
    }
    for (std::size_t t = 0; t < mesh.indices.size(); t += 3) {
      // A triangle touching the top row (z = 2, file z = -2) lies in a row-0 quad.
      bool near = false;
      for (std::size_t k = 0; k < 3; ++k) near = near || mesh.positions[mesh.indices[t + k]][2] < -1.5f;
      for (std::size_t k = 0; k < 3; ++k) ExpectNear3(mesh.normals[mesh.indices[t + k]], near ? kFlatNear : kFlatFar, "flat normal");
    }
    ExpectTrianglesAgreeWithNormals(mesh, kRidgeArea);
    ExpectMinMax(mesh);
    EXPECT_EQ(mesh.min, (std::vector<double>{-1.0, 0.0, -2.0}));
    EXPECT_EQ(mesh.max, (std::vector<double>{1.0, 1.0, 1.0}));
  }

  {  // Smooth with one texture coordinate per point: vertices are the points.
    const auto ridge = MakeRidge(true, true);
    ASSERT_TRUE(platform::WriteGlb(*ridge, dir.File("smooth.glb")));
    const GltfMesh mesh = ReadMesh(LoadGlb(dir.File("smooth.glb")), 0);
    ASSERT_EQ(mesh.positions.size(), 9u);
    EXPECT_EQ(mesh.indices.size(), 24u);
    ASSERT_EQ(mesh.uvs.size(), 9u);
    for (int i = 0; i < 9; ++i) {
      const auto v = static_cast<std::size_t>(i);
      ExpectNear3(mesh.positions[v], ToFile(RidgePoint(i)), "position");
      ExpectNear3(mesh.normals[v], RidgeSmoothNormal(i), "smooth normal of point " + std::to_string(i));
      EXPECT_FLOAT_EQ(mesh.uvs[v][0], RidgeUV(i).x);
      EXPECT_FLOAT_EQ(mesh.uvs[v][1], 1.0f - RidgeUV(i).y);
    }
    ExpectTrianglesAgreeWithNormals(mesh, kRidgeArea);
    ExpectMinMax(mesh);
  }

  {  // Smooth but with a texture seam at point 4: split per corner, normals still smooth.
    auto ridge = MakeRidge(true, true);
    auto* uvw = static_cast<platform::UVWTag*>(ridge->FindTag(platform::TagType::UVW));
    // Polygon 0 is (1, 4, 3, 0); its corner b is point 4.
    uvw->GetDataAddressW()[0].b = Vector32{0.9f, 0.8f, 0.0f};
    ASSERT_TRUE(platform::WriteGlb(*ridge, dir.File("seam.glb")));
    const GltfMesh mesh = ReadMesh(LoadGlb(dir.File("seam.glb")), 0);
    ASSERT_EQ(mesh.positions.size(), 16u);
    int seamCorners = 0;
    for (std::size_t i = 0; i < mesh.positions.size(); ++i) {
      const int point = FindRidgePoint(mesh.positions[i]);
      ASSERT_GE(point, 0);
      ExpectNear3(mesh.normals[i], RidgeSmoothNormal(point), "smooth normal at a seam");
      if (mesh.uvs[i][0] == 0.9f && mesh.uvs[i][1] == 1.0f - 0.8f) {
        EXPECT_EQ(point, 4);
        ++seamCorners;
      }
    }
    EXPECT_EQ(seamCorners, 1);
    ExpectTrianglesAgreeWithNormals(mesh, kRidgeArea);
  }

  {  // Smooth without texture coordinates: shared vertices, no TEXCOORD_0.
    const auto ridge = MakeRidge(false, true);
    ASSERT_TRUE(platform::WriteGlb(*ridge, dir.File("plain.glb")));
    const GltfMesh mesh = ReadMesh(LoadGlb(dir.File("plain.glb")), 0);
    EXPECT_EQ(mesh.positions.size(), 9u);
    EXPECT_FALSE(mesh.hasUVs);
  }

  {  // A quad and a triangle (c == d): 4 + 3 corners, 6 + 3 indices.
    const auto mixed = MakeMixed("Mixed", false);
    ASSERT_TRUE(platform::WriteGlb(*mixed, dir.File("mixed.glb")));
    const GltfMesh mesh = ReadMesh(LoadGlb(dir.File("mixed.glb")), 0);
    EXPECT_EQ(mesh.positions.size(), 7u);
    EXPECT_EQ(mesh.indices.size(), 9u);
    for (const F3& normal : mesh.normals) ExpectNear3(normal, {0.0f, 1.0f, 0.0f}, "flat normal of a y = 0 plane");
    ExpectTrianglesAgreeWithNormals(mesh, 1.0f + 0.5f);
    // The quad is cut from b to d (points 1 and 3), as readers fan the reversed quad of
    // the OBJ and PLY files, so that all formats show the same surface.
    const F3 b = ToFile({0, 0, 1}), d = ToFile({1, 0, 0});
    bool cutBD = false;
    for (std::size_t t = 0; t < 6; t += 3) {
      int hits = 0;
      for (std::size_t k = 0; k < 3; ++k) hits += mesh.positions[mesh.indices[t + k]] == b || mesh.positions[mesh.indices[t + k]] == d;
      cutBD = cutBD || hits == 2;
    }
    EXPECT_TRUE(cutBD);
  }
}

TEST(MeshGltfTest, NodeTreeMatricesAndIsoparmLines) {
  testing_support::TempDir dir;
  auto root = MakeMixed("Root", false);
  root->matrix.off = Vector(1, 2, 3);
  root->isoparm = MakeLines();
  auto child = MakeRidge(false, true, "Child");
  child->matrix = QuarterTurnAndMove();
  ASSERT_TRUE(root->InsertChild(std::move(child)));
  ASSERT_TRUE(platform::WriteGlb(*root, dir.File("tree.glb")));

  const tinygltf::Model model = LoadGlb(dir.File("tree.glb"));
  EXPECT_EQ(model.asset.version, "2.0");
  EXPECT_EQ(model.asset.generator, "Vellgrund");
  ASSERT_EQ(model.scenes.size(), 1u);
  EXPECT_EQ(model.defaultScene, 0);
  EXPECT_EQ(model.scenes[0].nodes, std::vector<int>{0});
  ASSERT_EQ(model.nodes.size(), 3u);
  const tinygltf::Node& rootNode = model.nodes[0];
  EXPECT_EQ(rootNode.name, "Root");
  ASSERT_EQ(rootNode.children, (std::vector<int>{1, 2}));
  const tinygltf::Node& childNode = model.nodes[1];
  const tinygltf::Node& isoparmNode = model.nodes[2];
  EXPECT_EQ(childNode.name, "Child");
  EXPECT_EQ(isoparmNode.name, "Root Isoparms");
  EXPECT_TRUE(childNode.children.empty());
  EXPECT_TRUE(isoparmNode.matrix.empty()) << "an identity matrix is left out";

  // The node matrices act on files'-frame points as ours act on ours.
  ASSERT_EQ(rootNode.matrix.size(), 16u);
  ExpectNear3(ApplyNodeMatrix(rootNode.matrix, {0.5f, 0.25f, 2.0f}), {1.5f, 2.25f, -1.0f}, "root matrix");
  ASSERT_EQ(childNode.matrix.size(), 16u);
  for (const F3& p : {F3{1, 2, 3}, F3{-4, 0, 0.5f}}) {
    const F3 ours{p[2] + 5, p[1], 7 - p[0]};
    ExpectNear3(ApplyNodeMatrix(childNode.matrix, ToFile(p)), ToFile(ours), "child matrix");
  }
  EXPECT_EQ(childNode.matrix[15], 1.0);
  EXPECT_EQ(childNode.matrix[3], 0.0);

  // The child's mesh stays local: its points and normals are those of the plain ridge.
  const GltfMesh childMesh = ReadMesh(model, childNode.mesh);
  ASSERT_EQ(childMesh.positions.size(), 9u);
  ExpectNear3(childMesh.normals[0], RidgeSmoothNormal(0), "local normal");

  ASSERT_GE(isoparmNode.mesh, 0);
  const GltfMesh lines = ReadMesh(model, isoparmNode.mesh);
  EXPECT_EQ(lines.mode, TINYGLTF_MODE_LINE);
  EXPECT_TRUE(lines.normals.empty());
  ASSERT_EQ(lines.positions.size(), 6u);
  ExpectNear3(lines.positions[1], {1.0f, 0.0f, -2.0f}, "line point");
  ExpectNear3(lines.positions[5], {5.0f, 1.0f, -6.0f}, "line point");
  EXPECT_EQ(lines.indices, (std::vector<std::uint32_t>{0, 1, 1, 2, 4, 5}));
  ExpectMinMax(lines);
}

TEST(MeshGltfTest, BinaryLayoutAndEmptyTrees) {
  testing_support::TempDir dir;
  const auto ridge = MakeRidge(true, false);
  ASSERT_TRUE(platform::WriteGlb(*ridge, dir.File("ridge.glb")));
  const std::string bytes = testing_support::ReadFileBytes(dir.File("ridge.glb"));
  auto word = [&bytes](std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 4);
    return value;
  };
  ASSERT_GE(bytes.size(), 28u);
  EXPECT_EQ(bytes.substr(0, 4), "glTF");
  EXPECT_EQ(word(4), 2u);
  EXPECT_EQ(word(8), bytes.size());
  const std::uint32_t jsonLength = word(12);
  EXPECT_EQ(jsonLength % 4, 0u);
  EXPECT_EQ(bytes.substr(16, 4), "JSON");
  const std::size_t binHeader = 20 + jsonLength;
  ASSERT_LE(binHeader + 8, bytes.size());
  EXPECT_EQ(bytes.substr(binHeader + 4, 4), std::string("BIN\0", 4));
  EXPECT_EQ(binHeader + 8 + word(binHeader), bytes.size());
  // 16 corners * (12 + 12 + 8) bytes and 24 indices * 4 bytes.
  EXPECT_EQ(word(binHeader), 16u * 32u + 24u * 4u);
  const tinygltf::Model model = LoadGlb(dir.File("ridge.glb"));
  for (const tinygltf::BufferView& view : model.bufferViews) EXPECT_EQ(view.byteOffset % 4, 0u);
  ASSERT_EQ(model.buffers.size(), 1u);

  // Nothing to draw still makes a loadable file: a node, no meshes, no buffer.
  const auto empty = std::move(*PolygonObject::Create(0, 0));
  ASSERT_TRUE(platform::WriteGlb(*empty, dir.File("empty.glb")));
  const tinygltf::Model emptyModel = LoadGlb(dir.File("empty.glb"));
  EXPECT_EQ(emptyModel.nodes.size(), 1u);
  EXPECT_TRUE(emptyModel.meshes.empty());
  EXPECT_TRUE(emptyModel.buffers.empty());

  // A polygon without area has no direction; its normal must still be a unit vector.
  for (const bool phong : {false, true}) {
    auto collapsed = std::move(*PolygonObject::Create(3, 1));
    collapsed->GetPolygonW()[0] = CPolygon{0, 1, 2, 2};
    if (phong) {
      ASSERT_TRUE(collapsed->AddTag(std::make_unique<platform::PhongTag>()));
    }
    ASSERT_TRUE(platform::WriteGlb(*collapsed, dir.File("collapsed.glb")));
    const GltfMesh mesh = ReadMesh(LoadGlb(dir.File("collapsed.glb")), 0);
    ASSERT_EQ(mesh.normals.size(), 3u);
    for (const F3& normal : mesh.normals) EXPECT_NEAR(LengthF(normal), 1.0f, kTolerance);
  }

  // Points without polygons, lines without segments: nodes without meshes.
  auto pointsOnly = std::move(*PolygonObject::Create(3, 0));
  ASSERT_TRUE(pointsOnly->InsertChild(std::move(*LineObject::Create({Vector(1, 2, 3)}, {1}))));
  ASSERT_TRUE(platform::WriteGlb(*pointsOnly, dir.File("points.glb")));
  const tinygltf::Model pointsModel = LoadGlb(dir.File("points.glb"));
  EXPECT_EQ(pointsModel.nodes.size(), 2u);
  EXPECT_TRUE(pointsModel.meshes.empty());
}

// ---------------------------------------------------------------------------------------
// OBJ

TEST(MeshObjTest, WorldPositionsWindingAndRecords) {
  testing_support::TempDir dir;
  auto root = MakeMixed("Root", false);
  root->matrix.off = Vector(2, 3, 0);
  root->isoparm = MakeLines();
  auto child = MakeRidge(true, true, "Child");
  child->matrix = QuarterTurnAndMove();
  ASSERT_TRUE(root->InsertChild(std::move(child)));
  ASSERT_TRUE(platform::WriteObj(*root, dir.File("tree.obj")));
  const ObjFile obj = ParseObj(dir.File("tree.obj"));

  ASSERT_FALSE(obj.lines.empty());
  EXPECT_EQ(obj.lines[0], "# Vellgrund");
  EXPECT_EQ(obj.objects, (std::vector<std::string>{"Root", "Child", "Root Isoparms"}));
  ASSERT_EQ(obj.v.size(), 5u + 9u + 6u);
  // Root: quad (0, 1, 2, 3) reversed, triangle (1, 4, 2) reversed, no vt/vn.
  ASSERT_EQ(obj.faces.size(), 2u + 4u);
  auto vIndices = [](const std::vector<ObjCorner>& face) {
    std::vector<long> result;
    for (const ObjCorner& corner : face) result.push_back(corner.v);
    return result;
  };
  EXPECT_EQ(vIndices(obj.faces[0]), (std::vector<long>{4, 3, 2, 1}));
  EXPECT_EQ(vIndices(obj.faces[1]), (std::vector<long>{3, 5, 2}));
  EXPECT_EQ(obj.faces[0][0].vt, 0);
  EXPECT_EQ(obj.faces[0][0].vn, 0);

  ExpectNear3(obj.v[4], {2.5f, 3.0f, -2.0f}, "root position");
  // Child: world space, its quarter turn first, then the root's move, then z flipped.
  for (int i = 0; i < 9; ++i) {
    const F3 p = RidgePoint(i);
    ExpectNear3(obj.v[5 + static_cast<std::size_t>(i)], ToFile({p[2] + 7, p[1] + 3, 7 - p[0]}), "world position");
  }
  // One vt and vn per point; faces refer to them with the point's own number.
  ASSERT_EQ(obj.vt.size(), 9u);
  ASSERT_EQ(obj.vn.size(), 9u);
  EXPECT_EQ(obj.vt[4], (F2{RidgeUV(4).x, RidgeUV(4).y})) << "OBJ keeps v";
  // The quarter turn carries our normal (x, y, z) to (z, y, -x); the file flips z.
  for (int i = 0; i < 9; ++i) {
    const F3 local = ToFile(RidgeSmoothNormal(i));  // back to our frame
    ExpectNear3(obj.vn[static_cast<std::size_t>(i)], {local[2], local[1], local[0]}, "world normal");
  }
  // Polygon (1, 4, 3, 0) of the child, reversed, numbered after the root's 5 points.
  const std::vector<ObjCorner>& face = obj.faces[2];
  EXPECT_EQ(vIndices(face), (std::vector<long>{6, 9, 10, 7}));
  for (const ObjCorner& corner : face) {
    EXPECT_EQ(corner.vt, corner.v - 5);
    EXPECT_EQ(corner.vn, corner.v - 5);
  }
  // The written order faces the way the normals point (right-handed, counter-clockwise).
  for (const auto& childFace : std::vector(obj.faces.begin() + 2, obj.faces.end())) {
    const F3& p0 = obj.v[static_cast<std::size_t>(childFace[0].v - 1)];
    const F3 geometric = CrossF(Sub(obj.v[static_cast<std::size_t>(childFace[1].v - 1)], p0),
                                Sub(obj.v[static_cast<std::size_t>(childFace[2].v - 1)], p0));
    EXPECT_GT(DotF(geometric, obj.vn[static_cast<std::size_t>(childFace[0].vn - 1)]), 0.0f);
  }

  // Lines of 3, 1 and 2 points after the 14 mesh points; the single point has no record.
  EXPECT_EQ(obj.polylines, (std::vector<std::vector<long>>{{15, 16, 17}, {19, 20}}));
  ExpectNear3(obj.v[19], {7.0f, 4.0f, -6.0f}, "line point");

  // Flat with a texture seam: a vt per polygon corner, no vn, faces in v/vt form.
  auto seam = MakeRidge(true, false);
  static_cast<platform::UVWTag*>(seam->FindTag(platform::TagType::UVW))->GetDataAddressW()[0].b = Vector32{0.9f, 0.8f, 0};
  ASSERT_TRUE(platform::WriteObj(*seam, dir.File("seam.obj")));
  const ObjFile seamObj = ParseObj(dir.File("seam.obj"));
  EXPECT_EQ(seamObj.vt.size(), 16u);
  EXPECT_TRUE(seamObj.vn.empty());
  ASSERT_EQ(seamObj.faces.size(), 4u);
  // Polygon 0 (1, 4, 3, 0) had its corners written a, b, c, d as vt 1..4; reversed: d, c, b, a.
  std::vector<long> vts;
  for (const ObjCorner& corner : seamObj.faces[0]) vts.push_back(corner.vt);
  EXPECT_EQ(vts, (std::vector<long>{4, 3, 2, 1}));
  EXPECT_EQ(seamObj.vt[1], (F2{0.9f, 0.8f}));
  EXPECT_EQ(seamObj.faces[0][2].v, 5) << "the seam corner is point 4";

  // Smooth without texture: the v//vn form.
  ASSERT_TRUE(platform::WriteObj(*MakeRidge(false, true), dir.File("plain.obj")));
  const ObjFile plainObj = ParseObj(dir.File("plain.obj"));
  ASSERT_EQ(plainObj.faces.size(), 4u);
  EXPECT_EQ(plainObj.faces[0][0].vt, 0);
  EXPECT_EQ(plainObj.faces[0][0].vn, plainObj.faces[0][0].v);

  // Nothing to write is still a file with its header and group.
  const auto empty = std::move(*PolygonObject::Create(0, 0));
  ASSERT_TRUE(platform::WriteObj(*empty, dir.File("empty.obj")));
  const ObjFile emptyObj = ParseObj(dir.File("empty.obj"));
  EXPECT_EQ(emptyObj.lines, (std::vector<std::string>{"# Vellgrund", "o unnamed"}));
}

// ---------------------------------------------------------------------------------------
// PLY

TEST(MeshPlyTest, MergedWorldSpaceMeshes) {
  testing_support::TempDir dir;
  {  // Both meshes smooth; one textured: normals, and s t with zeros for the other mesh.
    auto root = MakeRidge(true, true, "Root");
    root->matrix.off = Vector(0, 0, 10);
    root->isoparm = MakeLines();
    ASSERT_TRUE(root->InsertChild(MakeMixed("Child", true)));
    ASSERT_TRUE(platform::WritePly(*root, dir.File("tree.ply")));
    const PlyFile ply = ParsePly(dir.File("tree.ply"));
    ASSERT_TRUE(ply.valid);
    EXPECT_EQ(ply.vertexProperties, (std::vector<std::string>{"x", "y", "z", "nx", "ny", "nz", "s", "t"}));
    ASSERT_EQ(ply.vertices.size(), 9u + 5u) << "line points are not part of the file";
    for (int i = 0; i < 9; ++i) {
      const auto v = static_cast<std::size_t>(i);
      const F3 p = RidgePoint(i);
      ExpectNear3(PlyValue3(ply, v, "x"), ToFile({p[0], p[1], p[2] + 10}), "world position");
      ExpectNear3(PlyValue3(ply, v, "nx"), RidgeSmoothNormal(i), "smooth normal");
      EXPECT_EQ(ply.vertices[v][6], RidgeUV(i).x);
      EXPECT_EQ(ply.vertices[v][7], RidgeUV(i).y) << "PLY keeps v";
    }
    ExpectNear3(PlyValue3(ply, 9 + 4, "x"), {0.5f, 0.0f, -12.0f}, "child inherits the root's matrix");
    EXPECT_EQ(ply.vertices[9][6], 0.0f);
    ASSERT_EQ(ply.faces.size(), 4u + 2u);
    EXPECT_EQ(ply.faces[0], (std::vector<std::uint32_t>{0, 3, 4, 1}));
    EXPECT_EQ(ply.faces[4], (std::vector<std::uint32_t>{12, 11, 10, 9}));
    EXPECT_EQ(ply.faces[5], (std::vector<std::uint32_t>{11, 13, 10}));
  }

  {  // A stretched smooth mesh with a texture seam: normals follow the stretch, no s t.
    auto ridge = MakeRidge(true, true);
    ridge->matrix.v2 = Vector(0, 2, 0);
    static_cast<platform::UVWTag*>(ridge->FindTag(platform::TagType::UVW))->GetDataAddressW()[0].b = Vector32{0.9f, 0.8f, 0};
    ASSERT_TRUE(platform::WritePly(*ridge, dir.File("stretched.ply")));
    const PlyFile ply = ParsePly(dir.File("stretched.ply"));
    ASSERT_TRUE(ply.valid);
    EXPECT_EQ(ply.vertexProperties, (std::vector<std::string>{"x", "y", "z", "nx", "ny", "nz"}));
    // Doubled heights: row 0 slopes as y = 2 - z, row 1 as y = 2 + 2z; the middle row,
    // area-weighted, still points straight up.
    ASSERT_EQ(ply.vertices.size(), 9u);
    ExpectNear3(PlyValue3(ply, 0, "nx"), {0.0f, 1.0f / std::sqrt(2.0f), -1.0f / std::sqrt(2.0f)}, "stretched normal");
    ExpectNear3(PlyValue3(ply, 4, "nx"), {0.0f, 1.0f, 0.0f}, "stretched normal");
    ExpectNear3(PlyValue3(ply, 8, "nx"), {0.0f, 1.0f / std::sqrt(5.0f), 2.0f / std::sqrt(5.0f)}, "stretched normal");
    ExpectNear3(PlyValue3(ply, 4, "x"), {0.0f, 2.0f, 0.0f}, "stretched position");
  }

  {  // A flat mesh among smooth ones: shared vertices cannot carry its normals, so none.
    auto root = MakeRidge(false, true);
    ASSERT_TRUE(root->InsertChild(MakeMixed("Flat", false)));
    ASSERT_TRUE(platform::WritePly(*root, dir.File("mixed.ply")));
    const PlyFile ply = ParsePly(dir.File("mixed.ply"));
    ASSERT_TRUE(ply.valid);
    EXPECT_EQ(ply.vertexProperties, (std::vector<std::string>{"x", "y", "z"}));
  }

  const auto empty = std::move(*PolygonObject::Create(0, 0));
  ASSERT_TRUE(platform::WritePly(*empty, dir.File("empty.ply")));
  const PlyFile emptyPly = ParsePly(dir.File("empty.ply"));
  EXPECT_TRUE(emptyPly.valid);
  EXPECT_TRUE(emptyPly.vertices.empty());
  EXPECT_TRUE(emptyPly.faces.empty());
}

// ---------------------------------------------------------------------------------------
// Choosing the writer, failing cleanly

TEST(MeshWriterTest, EndingsAndFailures) {
  testing_support::TempDir dir;
  const auto ridge = MakeRidge(true, true);

  ASSERT_TRUE(platform::WriteGeometry(*ridge, dir.File("upper.GLB")));
  EXPECT_EQ(testing_support::ReadFileBytes(dir.File("upper.GLB")).substr(0, 4), "glTF");
  ASSERT_TRUE(platform::WriteGeometry(*ridge, dir.File("mixed.Obj")));
  EXPECT_EQ(testing_support::ReadFileBytes(dir.File("mixed.Obj")).substr(0, 12), "# Vellgrund\n");
  ASSERT_TRUE(platform::WriteGeometry(*ridge, dir.File("lower.ply")));
  EXPECT_EQ(testing_support::ReadFileBytes(dir.File("lower.ply")).substr(0, 4), "ply\n");

  for (const std::string name : {"mesh.stl", "mesh"}) {
    const platform::Status status = platform::WriteGeometry(*ridge, dir.File(name));
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().kind, ErrorKind::IllegalArgument);
    EXPECT_NE(status.error().message.find(dir.File(name).string()), std::string::npos) << status.error().message;
    for (const char* ending : {".glb", ".obj", ".ply"}) EXPECT_NE(status.error().message.find(ending), std::string::npos);
    EXPECT_FALSE(fs::exists(dir.File(name)));
  }
  EXPECT_NE(platform::WriteGeometry(*ridge, dir.File("mesh.stl")).error().message.find("\".stl\""), std::string::npos);

  // A missing folder and a folder in the way: an I/O error naming the file, nothing left.
  fs::create_directory(dir.File("sub"));
  fs::create_directory(dir.File("sub") / "taken.obj");
  for (const fs::path& path : {dir.File("sub") / "missing" / "mesh.glb", dir.File("sub") / "taken.obj"}) {
    const platform::Status status = platform::WriteGeometry(*ridge, path);
    ASSERT_FALSE(status) << path;
    EXPECT_EQ(status.error().kind, ErrorKind::Io);
    EXPECT_NE(status.error().message.find(path.string()), std::string::npos) << status.error().message;
  }
  EXPECT_TRUE(NoFilesIn(dir.File("sub") / "taken.obj"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.File("sub")), fs::directory_iterator()), 1);

  // Broken objects are refused with the object and the file named, in every format.
  auto broken = MakeRidge(true, false, "Broken");
  broken->GetPolygonW()[3].c = 9;
  auto shortTag = MakeRidge(false, false, "ShortTag");
  ASSERT_TRUE(shortTag->AddTag(std::move(*platform::UVWTag::Create(3))));
  auto farAway = MakeRidge(false, false, "FarAway");
  farAway->GetPointW()[2].x = 1e300;
  for (const PolygonObject* object : {broken.get(), shortTag.get(), farAway.get()}) {
    for (const char* name : {"bad.glb", "bad.obj", "bad.ply"}) {
      const platform::Status status = platform::WriteGeometry(*object, dir.File(name));
      ASSERT_FALSE(status) << object->name << " " << name;
      EXPECT_EQ(status.error().kind, ErrorKind::IllegalArgument);
      EXPECT_NE(status.error().message.find("\"" + object->name + "\""), std::string::npos) << status.error().message;
      EXPECT_NE(status.error().message.find(dir.File(name).string()), std::string::npos) << status.error().message;
      EXPECT_FALSE(fs::exists(dir.File(name)));
    }
  }
  EXPECT_NE(platform::WriteGlb(*broken, dir.File("bad.glb")).error().message.find("point 9"), std::string::npos);
  auto lost = MakeRidge(false, false, "Lost");
  lost->matrix.off.x = std::numeric_limits<double>::quiet_NaN();
  for (const char* name : {"lost.glb", "lost.obj", "lost.ply"}) {
    const platform::Status status = platform::WriteGeometry(*lost, dir.File(name));
    ASSERT_FALSE(status) << name;
    EXPECT_NE(status.error().message.find("\"Lost\""), std::string::npos) << status.error().message;
    EXPECT_FALSE(fs::exists(dir.File(name)));
  }
}

}  // namespace
