#include "object/terrainobject.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <new>
#include <string>

#include "common/vlgd_geometry.h"
#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "platform/image.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "platform/strings.h"
#include "vellgrund/string_ids.h"

namespace VLGD {
namespace {

using platform::GeometryObject;
using platform::ParameterDescription;
using platform::PolygonObject;
using platform::ValueType;
using platform::Vector;

// A terrain that lacks its size X (made by code, not by a file or the editor) is 250 units
// wide, as such terrains always were; new ones hold the default 500.
Float SizeXOf(const ParameterContainer& data) { return data.GetFloat(TERRAINOBJECT_SIZE_X, 250.0); }

struct Curvature {
  bool enabled = false;
  Float radius = 0.0;
  bool invert = false;
  Vector centre;

  // A flat point of the plane lifted by h: straight up, or along the sphere's normal.
  [[nodiscard]] Vector Place(const Vector& flat, Float h) const {
    if (!enabled) return {flat.x, h, flat.z};
    Vector direction = flat - centre;
    const Float length = platform::Length(direction);
    direction = length > 0.0 ? direction * (1.0 / length) : Vector{};
    const Vector onSphere = centre + direction * radius;
    return onSphere + (invert ? -direction : direction) * h;
  }
};

Curvature ReadCurvature(const platform::ParameterReader& data) {
  Curvature curvature;
  curvature.enabled = data.GetBool(TERRAINOBJECT_CURVATURE);
  curvature.radius = data.GetFloat(TERRAINOBJECT_CURVATURE_RADIUS);
  curvature.invert = data.GetBool(TERRAINOBJECT_CURVATURE_INVERT);
  curvature.centre = {0.0, curvature.invert ? curvature.radius : -curvature.radius, 0.0};
  return curvature;
}

Int32 EffectiveResolution(Int32 resolution, Float lod, Int32 cap) {
  const Float scaled = static_cast<Float>(resolution) * lod;
  return static_cast<Float>(cap) <= scaled ? cap : static_cast<Int32>(scaled);
}

// The shortest text that reads back as `value`.
std::string FloatText(Float value) {
  char buffer[32];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return error == std::errc() ? std::string(buffer, end) : std::string("?");
}

// A build holds the height grid, a result and a change map per operator, and the mesh
// with its texture coordinates; refused up front when that cannot fit, since the system
// would grant the memory lazily and end the process while filling it.
Status CheckBuildMemory(const Node& node, Int32 segX, Int32 segZ, Int operators) {
  const Int samples = (Int{segX} + 1) * (Int{segZ} + 1);
  const Int cells = Int{segX} * Int{segZ} * 2;  // triangles at most
  const platform::UInt64 bytes =
      platform::BytesFor(samples, sizeof(Float) * static_cast<std::size_t>(1 + 2 * operators)) +
      platform::BytesFor(samples, sizeof(Vector)) +
      platform::BytesFor(cells, sizeof(platform::CPolygon) + sizeof(platform::UVWStruct));
  Status fits = platform::CheckMemory(bytes, "The terrain '" + platform::Excerpt(node.GetName()) + "' at " +
                                                 std::to_string(Int{segX} + 1) + " x " + std::to_string(Int{segZ} + 1) +
                                                 " samples with " + std::to_string(operators) + " operators");
  if (!fits) fits.error().message += " Lower its resolution or the level of detail.";
  return fits;
}

// Tells the user when the cap limits a resolution, since the heights then have fewer
// samples than the scene and the level of detail ask for. A level of detail that lowers
// the resolution was asked for and is no news.
void WarnOfCappedResolution(const Node& node, std::array<Int32, 2> asked, std::array<Int32, 2> used, Float lod,
                            Int32 cap, Int32 preference) {
  std::array<Int32, 2> scaled{};
  bool capped = false;
  for (std::size_t k = 0; k < 2; ++k) {
    scaled[k] = static_cast<Int32>(std::min(static_cast<Float>(asked[k]) * lod, 2147483647.0));
    capped = capped || used[k] < scaled[k];
  }
  if (!capped) return;
  const std::string reason = cap < preference
                                 ? "the largest resolution there is (" + std::to_string(cap) + ")"
                                 : "the maximum resolution preference (" + std::to_string(preference) + ")";
  std::string request = std::to_string(asked[0]) + " x " + std::to_string(asked[1]);
  if (lod != 1.0)
    request += " at level of detail " + FloatText(lod) + " (" + std::to_string(scaled[0]) + " x " +
               std::to_string(scaled[1]) + ")";
  const std::string& name = node.GetName().empty() ? node.GetTypeInfo().resourceName : node.GetName();
  node.GetHost().Warn("Warning: terrain '" + name + "': resolution " + request + " is capped at " +
                      std::to_string(used[0]) + " x " + std::to_string(used[1]) + " by " + reason + ".");
}

Float SmoothStep(Float t) {
  return t < 0.0 ? 0.0 : t >= 1.0 ? 1.0 : t * t * (3.0 - 2.0 * t);
}

Status FadeEdges(Grid2D<Float>& grid, Float sizeX, Float sizeZ, Float edgeHeight,
                 const platform::CancellationToken* thread) {
  const Int width = grid.Width();
  const Int height = grid.Height();
  const Float stepX = width > 1 ? sizeX / static_cast<Float>(width - 1) : 0.0;
  const Float stepZ = height > 1 ? sizeZ / static_cast<Float>(height - 1) : 0.0;
  const Float kx = sizeX * 0.5 != 0.0 ? 1.0 / (sizeX * 0.5) : 0.0;
  const Float kz = sizeZ * 0.5 != 0.0 ? 1.0 / (sizeZ * 0.5) : 0.0;
  Float* values = grid.Data();
  platform::ParallelOptions options;
  options.cancel = thread;
  return platform::ParallelForRange(0, grid.Count(), options, [&](Int begin, Int end) {
    for (Int k = begin; k < end; ++k) {
      const Float x = static_cast<Float>(k % width) * stepX;
      const Float z = static_cast<Float>(k / width) * stepZ;
      const Float u = std::fabs(x - sizeX * 0.5) * kx;
      const Float v = std::fabs(sizeZ * 0.5 - z) * kz;
      const Float s = SmoothStep(std::sqrt((1.0 - u) * (1.0 - v)));
      values[k] += (edgeHeight - values[k]) * (1.0 - s);
    }
  });
}

// The border of a grid of columns x rows points as one closed ring starting at point 0:
// top row, right column, bottom row backwards, left column upwards.
Status CollectBorder(std::vector<Int32>& border, Int32 segX, Int32 segZ) {
  border.clear();
  VLGD_RETURN_IF_ERROR(platform::TryReserve(border, static_cast<size_t>(2 * (segX + segZ) + 1)));
  const Int32 width = segX + 1;
  const Int32 count = width * (segZ + 1);
  for (Int32 i = 0; i < segX; ++i) border.push_back(i);
  for (Int32 j = 0; j < segZ; ++j) border.push_back(segX + width * j);
  for (Int32 i = 0; i < segX; ++i) border.push_back(count - 1 - i);
  for (Int32 j = 0; j < segZ; ++j) border.push_back((count - width) - width * j);
  return platform::Ok();
}

// A skirt from the border ring down to -depth, closed by a fan at the bottom; UVW runs
// around the ring (u) and downwards (v), the bottom is mapped from above.
Result<std::unique_ptr<PolygonObject>> BuildHull(std::span<const Vector> points, std::span<const Int32> border,
                                                 Float depth, Float sizeX, Float sizeZ) {
  const Int ring = static_cast<Int>(border.size());
  std::unique_ptr<PolygonObject> hull;
  if (auto made = PolygonObject::Create(2 * ring + 1, 2 * ring); made) {
    hull = std::move(*made);
  } else {
    return platform::OutOfMemoryError("Could not allocate hull PolygonObject!");
  }
  hull->name = "Hull";
  const std::span<Vector> hullPoints = hull->GetPointW();
  const std::span<platform::CPolygon> polygons = hull->GetPolygonW();
  if (hullPoints.empty()) return platform::GenericError("PolygonObject::GetPointW() failed!");
  if (polygons.empty()) return platform::GenericError("PolygonObject::GetPolygonW() failed!");
  for (Int i = 0; i < ring; ++i) {
    const Vector top = points[static_cast<size_t>(border[static_cast<size_t>(i)])];
    hullPoints[static_cast<size_t>(i)] = top;
    hullPoints[static_cast<size_t>(ring + i)] = {top.x, -depth, top.z};
  }
  const auto bottomCentre = static_cast<Int32>(2 * ring);
  hullPoints[static_cast<size_t>(bottomCentre)] = {0.0, -depth, 0.0};

  auto uvw = platform::UVWTag::Create(2 * ring);
  if (!uvw) return platform::OutOfMemoryError("Could not allocate UVWTag!");
  const std::span<platform::UVWStruct> uv = (*uvw)->GetDataAddressW();
  if (uv.empty()) return platform::GenericError("Could not get writable UVW data adress!");
  const auto planar = [&](const Vector& p) {
    return platform::Vector32{static_cast<float>(sizeX != 0.0 ? p.x / sizeX + 0.5 : 0.5),
                              static_cast<float>(sizeZ != 0.0 ? 0.5 - p.z / sizeZ : 0.5), 0.0f};
  };
  for (Int i = 0; i < ring; ++i) {
    const auto a = static_cast<Int32>(i);
    const auto b = static_cast<Int32>((i + 1) % ring);
    const auto side = static_cast<size_t>(i);
    polygons[side] = {b, a, static_cast<Int32>(ring) + a, static_cast<Int32>(ring) + b};
    const auto u0 = static_cast<float>(static_cast<Float>(i) / static_cast<Float>(ring));
    const auto u1 = static_cast<float>(static_cast<Float>(i + 1) / static_cast<Float>(ring));
    uv[side] = {{u1, 0.0f, 0.0f}, {u0, 0.0f, 0.0f}, {u0, 1.0f, 0.0f}, {u1, 1.0f, 0.0f}};
    const auto cap = static_cast<size_t>(ring + i);
    polygons[cap] = {static_cast<Int32>(ring) + a, static_cast<Int32>(ring) + b, bottomCentre, bottomCentre};
    const Vector& pa = hullPoints[static_cast<size_t>(ring + a)];
    const Vector& pb = hullPoints[static_cast<size_t>(ring + b)];
    uv[cap] = {planar(pa), planar(pb), planar({}), planar({})};
  }
  VLGD_RETURN_IF_ERROR(hull->AddTag(std::move(*uvw)));

  auto selection = std::make_unique<platform::PolygonSelectionTag>();
  selection->name = "Hull sides";
  std::vector<Int32> sides;
  if (!platform::TryResize(sides, static_cast<size_t>(ring)))
    return platform::GenericError("Could not select hull polygons!");
  for (Int i = 0; i < ring; ++i) sides[static_cast<size_t>(i)] = static_cast<Int32>(i);
  if (!selection->Select(sides)) return platform::GenericError("Copying selection data to SelectionTag failed!");
  VLGD_RETURN_IF_ERROR(hull->AddTag(std::move(selection)));
  return hull;
}

// Isoparm outlines: the two borders and n inner lines per direction, through the mesh's
// points, so they follow the heights and the curvature.
Result<std::unique_ptr<platform::LineObject>> BuildIsoparms(Int width, Int height, const PolygonObject& mesh,
                                                            Int32 lines) {
  const std::span<const Vector> points = mesh.GetPointR();
  std::vector<Vector> linePoints;
  std::vector<Int32> lineSizes;
  try {
    const auto addLine = [&](bool alongRow, Int index) {
      const Int length = alongRow ? width : height;
      for (Int t = 0; t < length; ++t) {
        const Int k = alongRow ? index * width + t : t * width + index;
        linePoints.push_back(points[static_cast<size_t>(k)]);
      }
      lineSizes.push_back(static_cast<Int32>(length));
    };
    const auto addDirection = [&](bool alongRow) {
      const Int extent = alongRow ? height : width;
      const Int inner = std::clamp<Int>(std::min<Int>(lines, extent - 2), 0, extent);
      for (Int k = 0; k <= inner + 1; ++k) {
        const Int index = static_cast<Int>(
            std::llround(static_cast<Float>(k) / static_cast<Float>(inner + 1) * static_cast<Float>(extent - 1)));
        addLine(alongRow, index);
      }
    };
    addDirection(true);
    addDirection(false);
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not allocate the isoparm lines!");
  }
  return platform::LineObject::Create(std::move(linePoints), std::move(lineSizes));
}

}  // namespace

bool TerrainObject::Init(Node& node) {
  return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
}

bool TerrainObject::Read(Node& node, Int32 diskLevel) {
  if (diskLevel != 0) return true;
  // Files of level 0 stored the hull depth as a positive integer offset; keep the integer.
  ParameterContainer& data = node.GetDataInstance();
  return data.Set(TERRAINOBJECT_HULL_DEPTH, static_cast<Int32>(-data.GetInt32(TERRAINOBJECT_HULL_DEPTH))).has_value();
}

bool TerrainObject::GetDEnabling(const Node& node, ParameterId id, const Value&) const {
  const platform::ParameterReader data(node);
  switch (id) {
    case TERRAINOBJECT_EDGE_HEIGHT:
      return data.GetBool(TERRAINOBJECT_EDGE_FALLOFF);
    case TERRAINOBJECT_CURVATURE_RADIUS:
    case TERRAINOBJECT_CURVATURE_INVERT:
      return data.GetBool(TERRAINOBJECT_CURVATURE);
    case TERRAINOBJECT_HULL:
      return !data.GetBool(TERRAINOBJECT_CURVATURE);
    case TERRAINOBJECT_HULL_DEPTH:
      return data.GetBool(TERRAINOBJECT_HULL);
    default:
      return true;
  }
}

void TerrainObject::GetDimension(const Node& node, Vector& centre, Vector& radius) const {
  const Float minimum = grid_->IsMinMaxValid() ? grid_->Minimum() : 0.0;
  const Float maximum = grid_->IsMinMaxValid() ? grid_->Maximum() : 0.0;
  const platform::ParameterReader data(node);
  centre = {0.0, (minimum + maximum) * 0.5, 0.0};
  radius = {SizeXOf(data.Values()) * 0.5, (maximum - minimum) * 0.5,
            data.GetFloat(TERRAINOBJECT_SIZE_Z) * 0.5};
}

Result<std::unique_ptr<GeometryObject>> TerrainObject::GetVirtualObjects(Node& node,
                                                                         const platform::HierarchyHelp& help) {
  Document* doc = node.GetDocument();
  if (doc == nullptr) return std::unique_ptr<GeometryObject>{};
  const platform::ParameterReader data(node);
  const Int32 preference = doc->GetWorldPluginData(ID_PREFERENCES).GetInt32(PREFS_MAX_RESOLUTION, 0);
  const Int32 cap = std::min(preference, kHardMaxResolution);
  const Int32 askedX = data.GetInt32(TERRAINOBJECT_RESOLUTION_X);
  const Int32 askedZ = data.GetInt32(TERRAINOBJECT_RESOLUTION_Z);
  const Int32 segX = EffectiveResolution(askedX, help.lod, cap);
  const Int32 segZ = EffectiveResolution(askedZ, help.lod, cap);
  const Float sizeX = SizeXOf(data.Values());
  const Float sizeZ = data.GetFloat(TERRAINOBJECT_SIZE_Z);

  EvaluationContext context;
  context.resolutionX = segX;
  context.resolutionZ = segZ;
  context.sizeX = sizeX;
  context.sizeZ = sizeZ;
  context.terrainMatrix = node.GetMg();
  context.purpose = help.purpose;
  context.thread = help.cancel;
  context.progress = help.progress;

  EvaluationQueue previous = std::move(queue_);
  VLGD_RETURN_IF_ERROR(queue_.Build(&node, help.purpose));
  const auto status = queue_.Check(evaluatedOnce_ ? &previous : nullptr, *doc, context);
  if (!node.CheckCache() && status == EvaluationQueue::STATUS::OK && !queue_.StructureChanged())
    return std::unique_ptr<GeometryObject>{};

  // Here the grid is built anew: once per build, never for a cached result.
  WarnOfCappedResolution(node, {askedX, askedZ}, {segX, segZ}, help.lod, cap, preference);

  VLGD_RETURN_IF_ERROR(CheckBuildMemory(node, segX, segZ, static_cast<Int>(queue_.Items().size())));
  ParameterContainer& own = node.GetDataInstance();  // status texts, not edits
  // Status texts: a text that cannot be stored leaves the previous one, nothing worse.
  (void)own.Set(TERRAINOBJECT_MEMORY_INFO, node.GetHost().GetStrings().Get(STRING_CALCULATING));
  // A new grid each build: a reader sharing the last one keeps it unchanged. The old samples
  // go (unless shared) before the new ones are allocated.
  std::shared_ptr<Grid2D<Float>> fresh;
  VLGD_RETURN_IF_ERROR(platform::TryMakeShared(fresh));
  grid_ = std::move(fresh);
  VLGD_RETURN_IF_ERROR(grid_->Init(static_cast<Int>(segX) + 1, static_cast<Int>(segZ) + 1, sizeX, sizeZ));
  evaluatedOnce_ = true;
  VLGD_RETURN_IF_ERROR(queue_.Run(*grid_, *doc, context));
  grid_->RecomputeRange();
  if (data.GetBool(TERRAINOBJECT_EDGE_FALLOFF))
    VLGD_RETURN_IF_ERROR(FadeEdges(*grid_, sizeX, sizeZ, data.GetFloat(TERRAINOBJECT_EDGE_HEIGHT), help.cancel));

  const Curvature curvature = ReadCurvature(data);
  const bool wantHull = data.GetBool(TERRAINOBJECT_HULL) && !curvature.enabled;
  // Meshing a large grid takes seconds; the status says so instead of the last operator's.
  if (help.progress != nullptr)
    help.progress->SetStatus(node.GetHost().GetStrings().Format(STRING_BUILDING_MESH, {node.GetName()}));
  VLGD_ASSIGN_OR_RETURN(
      std::unique_ptr<PolygonObject> mesh,
      CreatePlaneGeometry(sizeX, sizeZ, segX, segZ, data.GetInt32(TERRAINOBJECT_TESSELATION), true, help.cancel));
  mesh->name = node.GetName();
  const std::span<Vector> points = mesh->GetPointW();
  if (points.empty()) return platform::GenericError("Could not get writeable vertex pointer!");
  const Float* heights = grid_->Data();
  platform::ParallelOptions options;
  options.singleThreadBelow = platform::kSingleThreadBelowSamples;
  options.cancel = help.cancel;
  VLGD_RETURN_IF_ERROR(platform::ParallelForRange(0, mesh->GetPointCount(), options, [&](Int begin, Int end) {
    for (Int k = begin; k < end; ++k)
      points[static_cast<size_t>(k)] = curvature.Place(points[static_cast<size_t>(k)], heights[k]);
  }));

  if (wantHull) {
    VLGD_RETURN_IF_ERROR(CollectBorder(border_, segX, segZ));
    const Float depth = data.GetFloat(TERRAINOBJECT_HULL_DEPTH);
    VLGD_ASSIGN_OR_RETURN(std::unique_ptr<PolygonObject> hull, BuildHull(points, border_, depth, sizeX, sizeZ));
    VLGD_RETURN_IF_ERROR(mesh->InsertChild(std::move(hull)));
    grid_->IncludeInRange(-depth);
  }
  if ((help.flags & platform::BUILDFLAGS_ISOPARM) != 0) {
    VLGD_ASSIGN_OR_RETURN(mesh->isoparm, BuildIsoparms(grid_->Width(), grid_->Height(), *mesh,
                                                       data.Values().GetInt32(TERRAINOBJECT_ISOPARM_LINES, 1)));
  }
  if (data.GetBool(TERRAINOBJECT_PHONG)) VLGD_RETURN_IF_ERROR(mesh->AddTag(std::make_unique<platform::PhongTag>()));

  Int bytes = 8 * grid_->Count() + 521 + queue_.GetMemory();
  for (const auto& tag : mesh->Tags()) bytes += 1 + (tag->IsVariable() ? tag->DataCount() * tag->DataSize() : 0);
  (void)own.Set(TERRAINOBJECT_MEMORY_INFO, FormatMemory(node.GetHost().GetStrings(), bytes));
  return std::unique_ptr<GeometryObject>(std::move(mesh));
}

Result<platform::Image> TerrainObject::HeightImage(bool normalized) const {
  if (!normalized) return grid_->ToHeightImage();
  Grid2D<Float> copy;
  VLGD_RETURN_IF_ERROR(copy.CopyFrom(*grid_));
  const Float minimum = grid_->Minimum();
  const Float range = grid_->Maximum() - minimum;
  const Float inverse = range != 0.0 ? 1.0 / range : 0.0;
  Float* values = copy.Data();
  VLGD_RETURN_IF_ERROR(platform::ParallelForRange(0, copy.Count(), {}, [&](Int begin, Int end) {
    for (Int k = begin; k < end; ++k) values[k] = (values[k] - minimum) * inverse;
  }));
  return copy.ToHeightImage();
}

Status TerrainObject::ExportHeightMap(Node& node) {
  platform::Host& host = node.GetHost();
  const platform::StringTable& strings = host.GetStrings();
  const bool normalized = platform::ParameterReader(node).GetInt32(TERRAINOBJECT_EXPORT_MODE) == 1;
  const Result<platform::Image> image = HeightImage(normalized);
  if (!image) {
    host.GetUserInterface().MessageDialog(strings.Get(STRING_EXPORT_FAILED));
    return platform::Ok();
  }
  const std::string proposed =
      "Terrain_" + node.GetName() + "_" + strings.Get(normalized ? STRING_EXPORT_NORMALIZED : STRING_EXPORT_RAW);
  const auto path = host.GetUserInterface().SaveFileDialog(strings.Get(STRING_EXPORT_TITLE), proposed, "tif");
  if (!path.has_value()) return platform::Ok();
  if (!platform::WriteImage(*image, *path, platform::PixelType::Float32))
    host.GetUserInterface().MessageDialog(strings.Get(STRING_EXPORT_FAILED));
  return platform::Ok();
}

bool TerrainObject::Message(Node& node, Int32 type, MessageData& data) {
  ParameterContainer& own = node.GetDataInstance();
  switch (type) {
    case platform::MSG_DESCRIPTION_COMMAND:
      if (data.parameter == TERRAINOBJECT_EXPORT && grid_->Count() >= 8) return ExportHeightMap(node).has_value();
      return true;
    case platform::MSG_DESCRIPTION_POSTSETPARAMETER: {
      // The follow-up edits below replace numbers the container holds, which cannot fail.
      const ParameterId changed = data.parameter;
      const platform::ParameterReader values(own, node.GetTypeInfo().description);
      const Float sizeX = SizeXOf(own);
      const Float sizeZ = values.GetFloat(TERRAINOBJECT_SIZE_Z);
      const auto storeDensities = [&] {
        densityX_ = sizeX != 0.0 ? values.GetInt32(TERRAINOBJECT_RESOLUTION_X) / sizeX : 0.0;
        densityZ_ = sizeZ != 0.0 ? values.GetInt32(TERRAINOBJECT_RESOLUTION_Z) / sizeZ : 0.0;
      };
      if (changed == TERRAINOBJECT_SIZE_X || changed == TERRAINOBJECT_SIZE_Z ||
          changed == TERRAINOBJECT_CURVATURE_RADIUS) {
        const Float smaller = std::min(sizeX, sizeZ);
        if (values.GetFloat(TERRAINOBJECT_CURVATURE_RADIUS) < smaller)
          (void)node.SetParameter(TERRAINOBJECT_CURVATURE_RADIUS, smaller);
        if (changed != TERRAINOBJECT_CURVATURE_RADIUS) {
          if (!values.GetBool(TERRAINOBJECT_LOCK_DENSITY)) {
            storeDensities();
          } else {
            if (densityX_ == 0.0) densityX_ = sizeX != 0.0 ? values.GetInt32(TERRAINOBJECT_RESOLUTION_X) / sizeX : 0.0;
            if (densityZ_ == 0.0) densityZ_ = sizeZ != 0.0 ? values.GetInt32(TERRAINOBJECT_RESOLUTION_Z) / sizeZ : 0.0;
            (void)node.SetParameter(TERRAINOBJECT_RESOLUTION_X, static_cast<Int32>(densityX_ * sizeX));
            (void)node.SetParameter(TERRAINOBJECT_RESOLUTION_Z, static_cast<Int32>(sizeZ * densityZ_));
          }
        }
      } else if (changed == TERRAINOBJECT_RESOLUTION_X || changed == TERRAINOBJECT_RESOLUTION_Z ||
                 changed == TERRAINOBJECT_LOCK_DENSITY) {
        storeDensities();
      }
      return true;
    }
    case platform::MSG_DOCUMENTINFO:
      if (data.info != platform::DOCUMENTINFO_LOADED) return true;
      [[fallthrough]];
    case platform::MSG_DESCRIPTION_VALIDATE: {
      Document* doc = node.GetDocument();
      const Int32 cap =
          doc != nullptr ? doc->GetWorldPluginData(ID_PREFERENCES).GetInt32(PREFS_MAX_RESOLUTION, kDefaultMaxResolution)
                         : kDefaultMaxResolution;
      // Lowering a number the container holds cannot fail.
      for (const ParameterId id : {TERRAINOBJECT_RESOLUTION_X, TERRAINOBJECT_RESOLUTION_Z})
        if (own.GetInt32(id) > cap) (void)node.SetParameter(id, cap);
      return true;
    }
    case ID_PREFERENCES:
      return node.Message(platform::MSG_DESCRIPTION_VALIDATE);
    default:
      return true;
  }
}

std::vector<TerrainObject::OperatorReport> TerrainObject::LastBuildReport() const {
  std::vector<OperatorReport> report;
  report.reserve(queue_.Items().size());
  for (const EvaluationQueue::Item& item : queue_.Items())
    report.push_back({item.object, item.result == EVALUATIONRESULT::REBUILT, item.seconds,
                      item.operatorData->GetMemoryUsage(), &item.operatorData->GetResult()});
  return report;
}

namespace {

platform::Description TerrainObjectDescription() {
  using platform::DescribeParameter;
  constexpr Float kFar = kMaxWorldDistance;
  ParameterDescription exportButton =
      DescribeParameter(TERRAINOBJECT_EXPORT, "TERRAINOBJECT_EXPORT", ValueType::NONE, Value{});
  exportButton.kind = platform::ParameterKind::BUTTON;
  ParameterDescription memory =
      DescribeParameter(TERRAINOBJECT_MEMORY_INFO, "TERRAINOBJECT_MEMORY_INFO", ValueType::STRING, Value{});
  memory.readOnly = true;
  return {
      "oterrain",
      {},
      {
          // A size of 0 would leave no area to sample.
          DescribeParameter(TERRAINOBJECT_SIZE_X, "TERRAINOBJECT_SIZE_X", ValueType::FLOAT, 500.0)
              .Limits(0.001, kFar, "units"),
          DescribeParameter(TERRAINOBJECT_SIZE_Z, "TERRAINOBJECT_SIZE_Z", ValueType::FLOAT, 500.0)
              .Limits(0.001, kFar, "units"),
          DescribeParameter(TERRAINOBJECT_RESOLUTION_X, "TERRAINOBJECT_RESOLUTION_X", ValueType::INT32, Int32{500})
              .Limits(1.0, kHardMaxResolution, "segments"),
          DescribeParameter(TERRAINOBJECT_RESOLUTION_Z, "TERRAINOBJECT_RESOLUTION_Z", ValueType::INT32, Int32{500})
              .Limits(1.0, kHardMaxResolution, "segments"),
          DescribeParameter(TERRAINOBJECT_ISOPARM_LINES, "TERRAINOBJECT_ISOPARM_LINES", ValueType::INT32, Int32{3})
              .Limits(0.0, kHardMaxResolution, "segments"),
          DescribeParameter(TERRAINOBJECT_LOCK_DENSITY, "TERRAINOBJECT_LOCK_DENSITY", ValueType::BOOL, Value{}),
          DescribeParameter(TERRAINOBJECT_EDGE_HEIGHT, "TERRAINOBJECT_EDGE_HEIGHT", ValueType::FLOAT, 0.0)
              .Limits(-kFar, kFar, "units"),
          DescribeParameter(TERRAINOBJECT_EDGE_FALLOFF, "TERRAINOBJECT_EDGE_FALLOFF", ValueType::BOOL, false),
          DescribeParameter(TERRAINOBJECT_CURVATURE, "TERRAINOBJECT_CURVATURE", ValueType::BOOL, false),
          DescribeParameter(TERRAINOBJECT_CURVATURE_RADIUS, "TERRAINOBJECT_CURVATURE_RADIUS", ValueType::FLOAT, 6371.0)
              .Limits(0.0, 1.0e9, "units"),
          DescribeParameter(TERRAINOBJECT_CURVATURE_INVERT, "TERRAINOBJECT_CURVATURE_INVERT", ValueType::BOOL, Value{}),
          DescribeParameter(TERRAINOBJECT_PHONG, "TERRAINOBJECT_PHONG", ValueType::BOOL, true),
          DescribeParameter(TERRAINOBJECT_TESSELATION, "TERRAINOBJECT_TESSELATION", ValueType::INT32, Int32{0})
              .Choice("PLANETESSELATIONMODE", static_cast<Int32>(PLANETESSELATIONMODE::QUADS),
                      static_cast<Int32>(PLANETESSELATIONMODE::TRIS2)),
          DescribeParameter(TERRAINOBJECT_HULL, "TERRAINOBJECT_HULL", ValueType::BOOL, false),
          DescribeParameter(TERRAINOBJECT_HULL_DEPTH, "TERRAINOBJECT_HULL_DEPTH", ValueType::FLOAT, 10.0)
              .Limits(-kFar, kFar, "units"),
          // 0: heights as they are, 1: normalised to 0 .. 1.
          DescribeParameter(TERRAINOBJECT_EXPORT_MODE, "TERRAINOBJECT_EXPORT_MODE", ValueType::INT32, Int32{0})
              .Limits(0.0, 1.0),
          exportButton,
          memory,
      }};
}

}  // namespace

const platform::TypeDescriptor& TerrainObjectType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_TERRAINOBJECT,
                                             .resourceName = "oterrain",
                                             .sort = 10,
                                             .icon = MainSheetIcon(0, 0),
                                             .nameStringId = 10000,
                                             .diskLevel = 1,
                                             .objectInfo = platform::OBJECT_GENERATOR | platform::OBJECT_OPERATOR_STACK,
                                             .allocate = platform::AllocatorOf<TerrainObject>(),
                                             .describe = TerrainObjectDescription};
  return type;
}

}  // namespace VLGD
