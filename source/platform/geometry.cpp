#include "platform/geometry.h"

#include <algorithm>
#include <limits>
#include <numeric>

#include "platform/memory.h"

namespace platform {

Result<std::unique_ptr<UVWTag>> UVWTag::Create(Int polygonCount) {
  std::unique_ptr<UVWTag> tag(new (std::nothrow) UVWTag);
  if (!tag) return OutOfMemoryError("Could not allocate UVWTag!");
  VLGD_RETURN_IF_ERROR(TryResize(tag->data_, polygonCount));
  return tag;
}

Status PolygonSelectionTag::Select(std::span<const Int32> polygons) {
  try {
    selected_.insert(selected_.end(), polygons.begin(), polygons.end());
    std::sort(selected_.begin(), selected_.end());
    selected_.erase(std::unique(selected_.begin(), selected_.end()), selected_.end());
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Status GeometryObject::InsertChild(std::unique_ptr<GeometryObject> child) {
  if (!child) return IllegalArgumentError("Child object must not be nullptr!");
  try {
    children_.push_back(std::move(child));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Status GeometryObject::AddTag(std::unique_ptr<Tag> tag) {
  if (!tag) return IllegalArgumentError("Tag must not be nullptr!");
  try {
    tags_.push_back(std::move(tag));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Tag* GeometryObject::FindTag(TagType type) const {
  for (const auto& tag : tags_)
    if (tag->Type() == type) return tag.get();
  return nullptr;
}

Result<std::unique_ptr<PolygonObject>> PolygonObject::Create(Int pointCount, Int polygonCount) {
  // Polygons address points with 32-bit indices.
  if (pointCount < 0 || polygonCount < 0 || pointCount > std::numeric_limits<Int32>::max() ||
      polygonCount > std::numeric_limits<Int32>::max())
    return OutOfMemoryError("Could not allocate PolygonObject!");
  std::unique_ptr<PolygonObject> object(new (std::nothrow) PolygonObject);
  if (!object || !TryResize(object->points_, pointCount) || !TryResize(object->polygons_, polygonCount))
    return OutOfMemoryError("Could not allocate PolygonObject!");
  return object;
}

Result<std::unique_ptr<LineObject>> LineObject::Create(std::vector<Vector> points, std::vector<Int32> lineSizes) {
  Int total = 0;
  for (const Int32 size : lineSizes) {
    if (size < 0) return IllegalArgumentError("A line must not have a negative point count!");
    total += size;
  }
  if (total != static_cast<Int>(points.size()))
    return IllegalArgumentError("The line sizes do not add up to the point count!");
  std::unique_ptr<LineObject> object(new (std::nothrow) LineObject);
  if (!object) return OutOfMemoryError("Could not allocate LineObject!");
  object->points_ = std::move(points);
  object->lineSizes_ = std::move(lineSizes);
  return object;
}

}  // namespace platform
