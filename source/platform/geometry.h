#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/large_array.h"
#include "platform/matrix.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

// A polygon with four point slots; a triangle repeats its third point in the fourth.
struct CPolygon {
  Int32 a = 0;
  Int32 b = 0;
  Int32 c = 0;
  Int32 d = 0;
  [[nodiscard]] constexpr bool IsTriangle() const { return c == d; }
  friend constexpr bool operator==(const CPolygon&, const CPolygon&) = default;
};

// Texture coordinates of the four corners of one polygon.
struct UVWStruct {
  Vector32 a, b, c, d;
  friend constexpr bool operator==(const UVWStruct&, const UVWStruct&) = default;
};

enum class TagType { UVW, Phong, PolygonSelection };

class Tag {
 public:
  virtual ~Tag() = default;
  [[nodiscard]] virtual TagType Type() const = 0;
  // Tags that store one record per element report their record count and size.
  [[nodiscard]] virtual bool IsVariable() const { return false; }
  [[nodiscard]] virtual Int DataCount() const { return 0; }
  [[nodiscard]] virtual Int DataSize() const { return 0; }

  std::string name;
};

class UVWTag final : public Tag {
 public:
  static Result<std::unique_ptr<UVWTag>> Create(Int polygonCount);
  [[nodiscard]] TagType Type() const override { return TagType::UVW; }
  [[nodiscard]] bool IsVariable() const override { return true; }
  [[nodiscard]] Int DataCount() const override { return static_cast<Int>(data_.size()); }
  [[nodiscard]] Int DataSize() const override { return sizeof(UVWStruct); }

  [[nodiscard]] std::span<UVWStruct> GetDataAddressW() { return data_; }
  [[nodiscard]] std::span<const UVWStruct> GetDataAddressR() const { return data_; }

 private:
  LargeArray<UVWStruct> data_;
};

// Marks a mesh for smooth shading: writers then emit normals averaged over the polygons
// that share a point.
class PhongTag final : public Tag {
 public:
  [[nodiscard]] TagType Type() const override { return TagType::Phong; }
};

// A named set of polygons, kept as ascending unique indices.
class PolygonSelectionTag final : public Tag {
 public:
  [[nodiscard]] TagType Type() const override { return TagType::PolygonSelection; }
  [[nodiscard]] const std::vector<Int32>& Selected() const { return selected_; }
  Status Select(std::span<const Int32> polygons);

 private:
  std::vector<Int32> selected_;
};

enum class GeometryType { Polygon, Line };

// An object of a generated result: its local matrix, tags and child objects.
class GeometryObject {
 public:
  virtual ~GeometryObject() = default;
  [[nodiscard]] virtual GeometryType Type() const = 0;

  Status InsertChild(std::unique_ptr<GeometryObject> child);
  Status AddTag(std::unique_ptr<Tag> tag);
  [[nodiscard]] Tag* FindTag(TagType type) const;
  [[nodiscard]] const std::vector<std::unique_ptr<GeometryObject>>& Children() const { return children_; }
  [[nodiscard]] const std::vector<std::unique_ptr<Tag>>& Tags() const { return tags_; }

  std::string name;
  Matrix matrix;  // relative to the parent

 private:
  std::vector<std::unique_ptr<GeometryObject>> children_;
  std::vector<std::unique_ptr<Tag>> tags_;
};

// Polylines: the points of every line one after another, and per line its point count.
class LineObject final : public GeometryObject {
 public:
  static Result<std::unique_ptr<LineObject>> Create(std::vector<Vector> points, std::vector<Int32> lineSizes);
  [[nodiscard]] GeometryType Type() const override { return GeometryType::Line; }

  [[nodiscard]] std::span<const Vector> Points() const { return points_; }
  [[nodiscard]] std::span<const Int32> LineSizes() const { return lineSizes_; }

 private:
  std::vector<Vector> points_;
  std::vector<Int32> lineSizes_;
};

class PolygonObject final : public GeometryObject {
 public:
  static Result<std::unique_ptr<PolygonObject>> Create(Int pointCount, Int polygonCount);
  [[nodiscard]] GeometryType Type() const override { return GeometryType::Polygon; }

  [[nodiscard]] Int GetPointCount() const { return static_cast<Int>(points_.size()); }
  [[nodiscard]] Int GetPolygonCount() const { return static_cast<Int>(polygons_.size()); }
  [[nodiscard]] std::span<Vector> GetPointW() { return points_; }
  [[nodiscard]] std::span<const Vector> GetPointR() const { return points_; }
  [[nodiscard]] std::span<CPolygon> GetPolygonW() { return polygons_; }
  [[nodiscard]] std::span<const CPolygon> GetPolygonR() const { return polygons_; }

  // The outline drawn in place of the mesh's wireframe; written as a child by exporters.
  std::unique_ptr<LineObject> isoparm;

 private:
  LargeArray<Vector> points_;
  LargeArray<CPolygon> polygons_;
};


}  // namespace platform
