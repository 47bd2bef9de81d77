#include "platform/mesh_common.h"

#include <charconv>
#include <cmath>
#include <new>
#include <stdexcept>

#include "platform/file_output.h"

namespace platform::mesh_internal {
namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 20;

void Flatten(const GeometryObject& object, std::string name, const Matrix& parentWorld, Int parent,
             std::vector<TreeEntry>& entries) {
  const auto index = static_cast<Int>(entries.size());
  const Matrix world = parentWorld * object.matrix;
  entries.push_back(TreeEntry{&object, std::move(name), object.matrix, world, parent});
  for (const auto& child : object.Children()) Flatten(*child, child->name, world, index, entries);
  if (object.Type() == GeometryType::Polygon) {
    const auto& polygons = static_cast<const PolygonObject&>(object);
    if (polygons.isoparm) {
      std::string isoparmName = polygons.isoparm->name.empty() ? object.name + " Isoparms" : polygons.isoparm->name;
      Flatten(*polygons.isoparm, std::move(isoparmName), world, index, entries);
    }
  }
}

}  // namespace

std::vector<TreeEntry> FlattenTree(const GeometryObject& root) {
  std::vector<TreeEntry> entries;
  Flatten(root, root.name, IdentityMatrix(), -1, entries);
  return entries;
}

Matrix ToFileFrame(const Matrix& m) {
  // S * m * S: the first two axes and the offset flip their z; the third axis flips its
  // x and y instead (S * v3 * -1).
  return Matrix{ToFileFrame(m.off), ToFileFrame(m.v1), ToFileFrame(m.v2), Vector{0.0 - m.v3.x, 0.0 - m.v3.y, m.v3.z}};
}

Matrix NormalMatrix(const Matrix& m) {
  return Matrix{Vector{}, Cross(m.v2, m.v3), Cross(m.v3, m.v1), Cross(m.v1, m.v2)};
}

bool IsFinite(const Float3& value) {
  return std::isfinite(value[0]) && std::isfinite(value[1]) && std::isfinite(value[2]);
}

Float3 FileNormal(const Vector& normal) {
  const Vector file = ToFileFrame(normal);
  const Float length = Length(file);
  if (!(length > 0.0) || !std::isfinite(length)) return {0.0f, 1.0f, 0.0f};
  const Vector unit = file * (1.0 / length);
  return {static_cast<float>(unit.x), static_cast<float>(unit.y), static_cast<float>(unit.z)};
}

std::vector<Vector32> FilePointNormals(const PolygonObject& object, const Matrix& normalMatrix) {
  std::vector<Vector32> normals(static_cast<std::size_t>(object.GetPointCount()));
  const std::span<const Vector> points = object.GetPointR();
  // The sums stay in single precision: a point gathers only a handful of polygons.
  for (const CPolygon& polygon : object.GetPolygonR()) {
    const Vector area = PolygonAreaNormal(points, polygon);
    const Vector32 add{static_cast<float>(area.x), static_cast<float>(area.y), static_cast<float>(area.z)};
    for (int slot = 0; slot < CornerCount(polygon); ++slot) {
      Vector32& sum = normals[static_cast<std::size_t>(CornerPoint(polygon, slot))];
      sum.x += add.x;
      sum.y += add.y;
      sum.z += add.z;
    }
  }
  for (Vector32& normal : normals) {
    const Vector world = TransformDirection(normalMatrix, Vector{static_cast<Float>(normal.x), static_cast<Float>(normal.y), static_cast<Float>(normal.z)});
    const Float3 file = FileNormal(world);
    normal = Vector32{file[0], file[1], file[2]};
  }
  return normals;
}

Status CheckPolygonObject(const PolygonObject& object, std::string_view name) {
  const Int pointCount = object.GetPointCount();
  const std::span<const CPolygon> polygons = object.GetPolygonR();
  for (std::size_t i = 0; i < polygons.size(); ++i) {
    for (int slot = 0; slot < 4; ++slot) {
      const Int32 point = CornerPoint(polygons[i], slot);
      if (point < 0 || point >= pointCount) {
        return IllegalArgumentError("object \"" + std::string(name) + "\": polygon " + std::to_string(i) +
                                    " refers to point " + std::to_string(point) + ", but the object has " +
                                    std::to_string(pointCount) + " points!");
      }
    }
  }
  if (const UVWTag* uvw = FindUVWTag(object); uvw != nullptr && uvw->DataCount() != object.GetPolygonCount()) {
    return IllegalArgumentError("object \"" + std::string(name) + "\": the UVW tag has " +
                                std::to_string(uvw->DataCount()) + " records for " +
                                std::to_string(object.GetPolygonCount()) + " polygons!");
  }
  return Ok();
}

const UVWTag* FindUVWTag(const GeometryObject& object) {
  return static_cast<const UVWTag*>(object.FindTag(TagType::UVW));
}

bool HasPhongTag(const GeometryObject& object) { return object.FindTag(TagType::Phong) != nullptr; }

bool CollectPointUVs(const PolygonObject& object, const UVWTag& tag, std::vector<float>& uvs) {
  const auto pointCount = static_cast<std::size_t>(object.GetPointCount());
  uvs.assign(2 * pointCount, 0.0f);
  std::vector<unsigned char> seen(pointCount, 0);
  const std::span<const CPolygon> polygons = object.GetPolygonR();
  const std::span<const UVWStruct> records = tag.GetDataAddressR();
  for (std::size_t i = 0; i < polygons.size(); ++i) {
    for (int slot = 0; slot < CornerCount(polygons[i]); ++slot) {
      const auto point = static_cast<std::size_t>(CornerPoint(polygons[i], slot));
      const Vector32& uv = CornerUV(records[i], slot);
      if (seen[point] == 0) {
        seen[point] = 1;
        uvs[2 * point] = uv.x;
        uvs[2 * point + 1] = uv.y;
      } else if (uvs[2 * point] != uv.x || uvs[2 * point + 1] != uv.y) {
        return false;
      }
    }
  }
  return true;
}

std::string SingleLineName(std::string_view name, std::string_view fallback) {
  std::string result(name.empty() ? fallback : name);
  for (char& c : result)
    if (c == '\n' || c == '\r') c = ' ';
  return result;
}

OutputBuffer::OutputBuffer(std::ostream& stream) : stream_(stream), data_(kBufferSize) {}

void OutputBuffer::Put(const void* data, std::size_t size) {
  if (size > data_.size() - used_) {
    Flush();
    if (size >= data_.size()) {
      stream_.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
      flushed_ += size;
      return;
    }
  }
  std::memcpy(data_.data() + used_, data, size);
  used_ += size;
}

char* OutputBuffer::Reserve(std::size_t size) {
  if (size > data_.size() - used_) Flush();
  return data_.data() + used_;
}

void OutputBuffer::PutDecimal(float value) {
  constexpr std::size_t kMaxLength = 32;
  char* begin = Reserve(kMaxLength);
  const auto [end, error] = std::to_chars(begin, begin + kMaxLength, value);
  used_ += static_cast<std::size_t>(end - begin);
}

void OutputBuffer::PutDecimal(UInt64 value) {
  constexpr std::size_t kMaxLength = 24;
  char* begin = Reserve(kMaxLength);
  const auto [end, error] = std::to_chars(begin, begin + kMaxLength, value);
  used_ += static_cast<std::size_t>(end - begin);
}

namespace {

// Thrown by a flush into a stream that has stopped (a break or a failed write) and caught
// by WriteMeshFile, which then reports the stream's own reason.
struct StreamStopped {};

UInt64 EstimateBytes(const GeometryObject& root, SizeEstimate estimate) {
  UInt64 bytes = 0;
  for (const TreeEntry& entry : FlattenTree(root)) {
    if (entry.object->Type() != GeometryType::Polygon) continue;
    const auto& object = static_cast<const PolygonObject&>(*entry.object);
    bytes += static_cast<UInt64>(object.GetPointCount()) * estimate.perPoint +
             static_cast<UInt64>(object.GetPolygonCount()) * estimate.perPolygon;
  }
  return bytes;
}

}  // namespace

void OutputBuffer::Flush() {
  if (used_ == 0) return;
  stream_.write(data_.data(), static_cast<std::streamsize>(used_));
  if (!stream_) throw StreamStopped{};
  flushed_ += used_;
  used_ = 0;
}

bool OutputBuffer::Finish() {
  Flush();
  return static_cast<bool>(stream_);
}

Status WriteMeshFile(const std::filesystem::path& path, const GeometryObject& root, const WriteControl& control,
                     SizeEstimate estimate, FunctionRef<Status(OutputBuffer&)> write) {
  const auto named = [&path](Error error) {
    error.message = "Cannot write \"" + path.string() + "\": " + error.message;
    return std::unexpected<Error>(std::move(error));
  };
  try {
    bool writerFailed = false;
    Status status = WriteFileAtomically(
        path,
        [&](std::ostream& stream) -> Status {
          OutputBuffer buffer(stream);
          try {
            if (Status written = write(buffer); !written) {
              writerFailed = true;
              return written;
            }
            buffer.Finish();
          } catch (const StreamStopped&) {
            // WriteFileAtomically knows why the stream stopped.
          }
          return Ok();
        },
        control, EstimateBytes(root, estimate));
    if (!status && writerFailed) return named(std::move(status).error());
    return status;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory writing \"" + path.string() + "\"!");
  } catch (const std::length_error&) {
    return OutOfMemoryError("Out of memory writing \"" + path.string() + "\"!");
  }
}

}  // namespace platform::mesh_internal
