#include "shader/bake.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <new>

#include "object/terrainobject.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "shader/shader_colour.h"
#include "shader/shader_inputs.h"
#include "shader/shader_layer.h"

namespace VLGD {
namespace {

using platform::UInt64;

UInt64 Mix(UInt64 hash, UInt64 value) {
  // FNV-1a over the value's bytes; collisions only cost a needless bake.
  for (int k = 0; k < 8; ++k) {
    hash ^= (value >> (8 * k)) & 0xffu;
    hash *= 1099511628211ull;
  }
  return hash;
}

// Everything a bake reads that can change: the material and each shader (identity, data
// count, place), and the terrain's grid where a shader reads it.
UInt64 BakeKey(const Node& material, const Node& terrain, Int width, Int height) {
  UInt64 key = Mix(Mix(14695981039346656037ull, static_cast<UInt64>(width)), static_cast<UInt64>(height));
  key = Mix(key, material.GetDirty(platform::DIRTYFLAGS_DATA));
  bool readsTerrain = false;
  for (const Node* shader = material.GetBranch(); shader != nullptr; shader = shader->GetNextDepthFirst(&material)) {
    key = Mix(Mix(key, shader->Identity()), shader->GetDirty(platform::DIRTYFLAGS_DATA));
    key = Mix(key, shader->GetUp() != nullptr ? shader->GetUp()->Identity() : 0);
    if (const auto* data = shader->GetNodeData<ShaderData>(); data != nullptr && data->ReadsTerrain())
      readsTerrain = true;
  }
  if (readsTerrain) key = Mix(Mix(key, terrain.Identity()), terrain.GetDirty(platform::DIRTYFLAGS_CACHE));
  return key;
}

bool UsesType(const Node& material, Int32 type) {
  for (const Node* shader = material.GetBranch(); shader != nullptr; shader = shader->GetNextDepthFirst(&material))
    if (shader->GetType() == type && shader->IsEnabled()) return true;
  return false;
}

// The texture's pixel counts: the grid's, or `size` along the longer side keeping its shape.
void TextureSize(const Grid2D<Float>& grid, Int size, Int& width, Int& height) {
  width = grid.Width();
  height = grid.Height();
  if (size <= 0 || width <= 0 || height <= 0) return;
  const Float longer = static_cast<Float>(std::max(width, height));
  width = std::max<Int>(1, std::llround(static_cast<Float>(size) * static_cast<Float>(width) / longer));
  height = std::max<Int>(1, std::llround(static_cast<Float>(size) * static_cast<Float>(height) / longer));
}

}  // namespace

Result<platform::Image> BakeMaterial(Node& material, platform::Document& doc, const Grid2D<Float>& heights, Float sizeX,
                                     Float sizeZ, Int width, Int height, const platform::CancellationToken* cancel) {
  constexpr Int kMaxSide = 16384;
  if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide)
    return platform::IllegalArgumentError("A texture of " + std::to_string(width) + " x " + std::to_string(height) +
                                          " pixels cannot be baked (1 .. " + std::to_string(kMaxSide) + " per side)!");
  const bool mask = material.GetData().GetBool(platform::MATERIAL_MASK, false);
  VLGD_ASSIGN_OR_RETURN(platform::Image image,
                        platform::Image::Create(width, height, mask ? 1 : 3,
                                                mask ? platform::PixelType::UInt16 : platform::PixelType::UInt8));
  std::vector<float> slopes;
  if (UsesType(material, ID_SLOPESHADER)) VLGD_RETURN_IF_ERROR(ComputeSlopes(heights, sizeX, sizeZ, slopes, cancel));

  ShadeContext context;
  context.width = width;
  context.height = height;
  context.heights = &heights;
  context.sizeX = sizeX;
  context.sizeZ = sizeZ;
  context.doc = &doc;
  context.material = &material;
  context.slopes = &slopes;
  context.cancel = cancel;
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<ShaderProgram> program, CompileLayers(material.GetBranch(), context));

  std::byte* bytes = image.Bytes().data();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = 0, .cancel = cancel};
  VLGD_RETURN_IF_ERROR(platform::ParallelForRange(0, height, options, [&](Int begin, Int end) -> Status {
    try {
      RowScratch scratch(width);
      const std::span<Colour> row = scratch.Borrow();
      for (Int y = begin; y < end; ++y) {
        program->ShadeRow(y, row, scratch);
        if (mask) {
          auto* out = reinterpret_cast<std::uint16_t*>(bytes) + y * width;
          for (Int x = 0; x < width; ++x)
            out[x] = static_cast<std::uint16_t>(
                std::lround(std::clamp(row[static_cast<size_t>(x)].r, 0.0f, 1.0f) * 65535.0f));
        } else {
          auto* out = reinterpret_cast<std::uint8_t*>(bytes) + y * width * 3;
          for (Int x = 0; x < width; ++x) {
            const Colour& c = row[static_cast<size_t>(x)];
            out[3 * x] = static_cast<std::uint8_t>(std::lround(LinearToSrgb(c.r) * 255.0f));
            out[3 * x + 1] = static_cast<std::uint8_t>(std::lround(LinearToSrgb(c.g) * 255.0f));
            out[3 * x + 2] = static_cast<std::uint8_t>(std::lround(LinearToSrgb(c.b) * 255.0f));
          }
        }
      }
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError("Could not bake the material '" + material.GetName() + "'!");
    }
    return platform::Ok();
  }));
  return image;
}

Result<std::vector<BakeReport>> BakeMaterials(Node& terrain, platform::Document& doc, const BakeOptions& options) {
  const auto* data = terrain.GetNodeData<TerrainObject>();
  if (data == nullptr) return platform::IllegalArgumentError("Only terrains bake materials!");
  const Grid2D<Float>& grid = data->GetGrid();
  const platform::ParameterReader values(terrain);
  const Float sizeX = values.GetFloat(TERRAINOBJECT_SIZE_X);
  const Float sizeZ = values.GetFloat(TERRAINOBJECT_SIZE_Z);
  Int width = 0, height = 0;
  TextureSize(grid, options.textureSize, width, height);

  std::vector<BakeReport> reports;
  for (const platform::NodeLink& link : terrain.GetTextureLinks()) {
    Node* material = doc.Resolve(link);
    auto* materialData = material != nullptr ? material->GetNodeData<platform::MaterialData>() : nullptr;
    if (materialData == nullptr) continue;  // deleted, or not a material
    BakeReport report;
    report.material = material;
    const UInt64 key = BakeKey(*material, terrain, width, height);
    const platform::MaterialBake* earlier = materialData->FindBake(terrain.Identity());
    if (earlier != nullptr && earlier->key == key && earlier->image != nullptr) {
      report.image = earlier->image;
      report.seconds = earlier->seconds;
    } else {
      if (options.progress != nullptr) options.progress->SetStatus("Baking " + material->GetName());
      const auto start = std::chrono::steady_clock::now();
      VLGD_ASSIGN_OR_RETURN(platform::Image image,
                            BakeMaterial(*material, doc, grid, sizeX, sizeZ, width, height, options.cancel));
      report.seconds = std::chrono::duration<Float>(std::chrono::steady_clock::now() - start).count();
      report.baked = true;
      try {
        report.image = std::make_shared<const platform::Image>(std::move(image));
      } catch (const std::bad_alloc&) {
        return platform::OutOfMemoryError("Could not keep the bake of '" + material->GetName() + "'!");
      }
      // Compiling registered the material with the operators it reads, which may have
      // counted as a change of the material; the key is taken after.
      VLGD_RETURN_IF_ERROR(materialData->StoreBake(
          {terrain.Identity(), BakeKey(*material, terrain, width, height), report.image, report.seconds}));
    }
    try {
      reports.push_back(std::move(report));
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError();
    }
  }
  return reports;
}

}  // namespace VLGD
