#pragma once

// Pieces the mesh writers share; not part of the public API. Helpers here may throw
// std::bad_alloc: every writer catches it at its boundary and returns an out-of-memory error.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_output.h"
#include "platform/function_ref.h"
#include "platform/geometry.h"
#include "platform/matrix.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform::mesh_internal {

using Float3 = std::array<float, 3>;

// One object of the tree, parents before their children.
struct TreeEntry {
  const GeometryObject* object = nullptr;
  std::string name;
  Matrix local;  // relative to the parent entry
  Matrix world;
  Int parent = -1;
};

// The object tree in depth-first order. A polygon object's isoparm outline follows its
// children as one more child, named after the object unless it has a name of its own.
std::vector<TreeEntry> FlattenTree(const GeometryObject& root);

// Our frame to the files' frame: z flips. `0.0 - z` rather than `-z` so that a zero stays
// +0 and text output shows no "-0".
constexpr Vector ToFileFrame(const Vector& v) { return {v.x, v.y, 0.0 - v.z}; }
// S * m * S with S = diag(1, 1, -1): the same transform seen from the files' frame.
Matrix ToFileFrame(const Matrix& m);
// The cofactor matrix of m's axes: maps a local cross product (area normal) onto the cross
// product of the transformed edges, a mirroring matrix included.
Matrix NormalMatrix(const Matrix& m);

// A point in the files' frame, single precision.
inline Float3 FilePosition(const Vector& p) {
  const Vector f = ToFileFrame(p);
  return {static_cast<float>(f.x), static_cast<float>(f.y), static_cast<float>(f.z)};
}
bool IsFinite(const Float3& value);

// A unit normal in the files' frame; a degenerate one points up so that readers that
// insist on unit normals still accept the file.
Float3 FileNormal(const Vector& normal);

// The front normal of a polygon in our frame, twice as long as the polygon's area. The
// cross product of the diagonals is exact for triangles (c == d) and quads alike and does
// not lose digits far from the origin the way edge sums do.
inline Vector PolygonAreaNormal(std::span<const Vector> points, const CPolygon& polygon) {
  const Vector& a = points[static_cast<std::size_t>(polygon.a)];
  const Vector& b = points[static_cast<std::size_t>(polygon.b)];
  const Vector& c = points[static_cast<std::size_t>(polygon.c)];
  const Vector& d = points[static_cast<std::size_t>(polygon.d)];
  return Cross(c - a, d - b);
}

// Smooth normals per point in the files' frame: the area normals of the polygons sharing
// a point summed, mapped through `normalMatrix`, normalised.
std::vector<Vector32> FilePointNormals(const PolygonObject& object, const Matrix& normalMatrix);

// Polygon corners by slot: 0..3 are a, b, c, d.
constexpr Int32 CornerPoint(const CPolygon& polygon, int slot) {
  switch (slot) {
    case 0: return polygon.a;
    case 1: return polygon.b;
    case 2: return polygon.c;
    default: return polygon.d;
  }
}
constexpr const Vector32& CornerUV(const UVWStruct& uvw, int slot) {
  switch (slot) {
    case 0: return uvw.a;
    case 1: return uvw.b;
    case 2: return uvw.c;
    default: return uvw.d;
  }
}
constexpr int CornerCount(const CPolygon& polygon) { return polygon.IsTriangle() ? 3 : 4; }

struct SlotList {
  std::array<std::uint8_t, 6> slots{};
  int count = 0;
};

// The corners in the files' winding: our order reversed, (d, c, b, a) or (c, b, a).
constexpr SlotList FileCorners(const CPolygon& polygon) {
  return polygon.IsTriangle() ? SlotList{{2, 1, 0}, 3} : SlotList{{3, 2, 1, 0}, 4};
}
// Triangles in the files' winding. A quad is cut the way readers fan (d, c, b, a) from d,
// so that every format shows the same surface for a quad that is not flat.
constexpr SlotList FileTriangles(const CPolygon& polygon) {
  return polygon.IsTriangle() ? SlotList{{2, 1, 0}, 3} : SlotList{{3, 2, 1, 3, 1, 0}, 6};
}

// Polygon indices within the points, a UVW tag with one record per polygon. Errors name
// the object.
Status CheckPolygonObject(const PolygonObject& object, std::string_view name);
const UVWTag* FindUVWTag(const GeometryObject& object);
bool HasPhongTag(const GeometryObject& object);

// Fills `uvs` with (u, v) per point and reports whether every corner of each point carries
// the same coordinate, so that one texture coordinate per point says it all. Points that
// no polygon uses get (0, 0).
bool CollectPointUVs(const PolygonObject& object, const UVWTag& tag, std::vector<float>& uvs);

// Object names as a line-based text format can hold them.
std::string SingleLineName(std::string_view name, std::string_view fallback);

// Buffers output in large blocks: the writers emit millions of small values. Binary
// values go out little-endian.
class OutputBuffer {
 public:
  explicit OutputBuffer(std::ostream& stream);
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  void Put(const void* data, std::size_t size);
  void Put(std::string_view text) { Put(text.data(), text.size()); }
  void PutChar(char c) {
    if (used_ == data_.size()) Flush();
    data_[used_++] = c;
  }
  template <class T>
  void PutLittleEndian(T value) {
    static_assert(sizeof(T) == 1 || sizeof(T) == 4);
    if constexpr (sizeof(T) == 4) {
      auto bits = std::bit_cast<std::uint32_t>(value);
      if constexpr (std::endian::native == std::endian::big) bits = std::byteswap(bits);
      Put(&bits, sizeof(bits));
    } else {
      PutChar(static_cast<char>(value));
    }
  }
  // Shortest text that reads back as the same float.
  void PutDecimal(float value);
  void PutDecimal(UInt64 value);

  // Bytes handed to the buffer so far.
  [[nodiscard]] UInt64 Count() const { return flushed_ + used_; }
  // Writes what is left; false when the stream failed at any point.
  bool Finish();

 private:
  void Flush();
  char* Reserve(std::size_t size);

  std::ostream& stream_;
  std::vector<char> data_;
  std::size_t used_ = 0;
  UInt64 flushed_ = 0;
};

// About how many bytes a format spends per point and per polygon, for the progress of a write.
struct SizeEstimate {
  UInt64 perPoint = 0;
  UInt64 perPolygon = 0;
};

// Runs `write` on a buffer over an atomically replaced file at `path`. Errors of `write`
// and running out of memory come back naming the path; nothing is left behind on failure.
// A break or a failed block ends the writer at its next flush, so that it does not go on
// formatting what can no longer be written.
Status WriteMeshFile(const std::filesystem::path& path, const GeometryObject& root, const WriteControl& control,
                     SizeEstimate estimate, FunctionRef<Status(OutputBuffer&)> write);

}  // namespace platform::mesh_internal
