#include "shader/bake.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <new>

#include "object/terrainobject.h"
#include "platform/memory.h"
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

Status CheckTextureSize(Int width, Int height) {
  constexpr Int kMaxSide = 16384;
  if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide)
    return platform::IllegalArgumentError("A texture of " + std::to_string(width) + " x " + std::to_string(height) +
                                          " pixels cannot be baked (1 .. " + std::to_string(kMaxSide) + " per side)!");
  return platform::Ok();
}

// The slope along columns and rows of the Catmull-Rom surface through the samples, which is
// the central difference on a sample; continued linearly past the edges, so that there it is
// one-sided and a plane stays a plane up to its border.
std::pair<Float, Float> SmoothGradient(const Grid2D<Float>& heights, Float x, Float y) {
  const Int width = heights.Width(), height = heights.Height();
  const Int x0 = std::min(static_cast<Int>(x), width - 2), y0 = std::min(static_cast<Int>(y), height - 2);
  const Float fx = x - static_cast<Float>(x0), fy = y - static_cast<Float>(y0);
  const auto extend = [](Int i, Int count, auto&& read) {
    if (i < 0) return 2.0 * read(0) - read(1);
    if (i >= count) return 2.0 * read(count - 1) - read(count - 2);
    return read(i);
  };
  const auto at = [&](Int column, Int row) {
    return extend(row, height, [&](Int r) { return extend(column, width, [&](Int c) { return heights.Get(c, r); }); });
  };
  const auto spline = [](const Float(&p)[4], Float t) {
    return p[1] + 0.5 * t *
                      (p[2] - p[0] +
                       t * (2.0 * p[0] - 5.0 * p[1] + 4.0 * p[2] - p[3] + t * (3.0 * (p[1] - p[2]) + p[3] - p[0])));
  };
  const auto slope = [](const Float(&p)[4], Float t) {
    return 0.5 * (p[2] - p[0] + 2.0 * t * (2.0 * p[0] - 5.0 * p[1] + 4.0 * p[2] - p[3]) +
                  3.0 * t * t * (3.0 * (p[1] - p[2]) + p[3] - p[0]));
  };
  Float values[4], slopes[4];
  for (Int i = 0; i < 4; ++i) {
    const Float row[4] = {at(x0 - 1, y0 - 1 + i), at(x0, y0 - 1 + i), at(x0 + 1, y0 - 1 + i), at(x0 + 2, y0 - 1 + i)};
    values[i] = spline(row, fx);
    slopes[i] = slope(row, fx);
  }
  return {spline(slopes, fy), slope(values, fy)};
}

// The surface normal in world units at a fractional grid position; grid rows run towards -Z.
Vector WorldNormal(const Grid2D<Float>& heights, Float x, Float y, Float spacingX, Float spacingZ) {
  const auto [alongColumns, alongRows] = SmoothGradient(heights, x, y);
  return Normalized(Vector(-alongColumns / spacingX, 1.0, alongRows / spacingZ));
}

}  // namespace

Result<platform::Image> BakeNormalMap(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, Int width, Int height,
                                      const platform::CancellationToken* cancel) {
  VLGD_RETURN_IF_ERROR(CheckTextureSize(width, height));
  VLGD_ASSIGN_OR_RETURN(platform::Image image, platform::Image::Create(width, height, 3, platform::PixelType::UInt8));
  const Int columns = heights.Width(), rows = heights.Height();
  if (columns < 2 || rows < 2) {  // no surface between samples: the map is flat
    auto* pixels = reinterpret_cast<std::uint8_t*>(image.Bytes().data());
    for (Int i = 0; i < width * height; ++i) std::memcpy(pixels + 3 * i, "\x80\x80\xff", 3);
    return image;
  }
  const Float spacingX = sizeX / static_cast<Float>(columns - 1), spacingZ = sizeZ / static_cast<Float>(rows - 1);
  // The mesh's vertex normals, once per sample rather than four times per pixel.
  std::vector<Vector> vertexNormals;
  VLGD_RETURN_IF_ERROR(platform::TryResize(vertexNormals, columns * rows));
  VLGD_RETURN_IF_ERROR(platform::ParallelFor(0, rows, {.granularity = 16, .cancel = cancel}, [&](Int j) -> Status {
    for (Int i = 0; i < columns; ++i)
      vertexNormals[static_cast<size_t>(j * columns + i)] =
          WorldNormal(heights, static_cast<Float>(i), static_cast<Float>(j), spacingX, spacingZ);
    return platform::Ok();
  }));
  const auto vertex = [&](Float i, Float j) {
    return vertexNormals[static_cast<size_t>(static_cast<Int>(j) * columns + static_cast<Int>(i))];
  };
  ShadeContext context;
  context.width = width;
  context.height = height;
  std::byte* bytes = image.Bytes().data();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = 0, .cancel = cancel};
  VLGD_RETURN_IF_ERROR(platform::ParallelForRange(0, height, options, [&](Int begin, Int end) -> Status {
    for (Int y = begin; y < end; ++y) {
      const Float gridY = context.GridRow(y, rows);
      const Float y0 = std::floor(gridY), fy = gridY - y0;
      const Float y1 = std::min(y0 + 1.0, static_cast<Float>(rows - 1));
      auto* out = reinterpret_cast<std::uint8_t*>(bytes) + y * width * 3;
      for (Int x = 0; x < width; ++x) {
        const Float gridX =
            width > 1 ? static_cast<Float>(x) * static_cast<Float>(columns - 1) / static_cast<Float>(width - 1) : 0.0;
        const Float x0 = std::floor(gridX), fx = gridX - x0;
        const Float x1 = std::min(x0 + 1.0, static_cast<Float>(columns - 1));
        // The mesh interpolates its vertex normals across a cell; the map holds what the
        // surface between them adds, in the frame a viewer derives from the UVs (u along +X,
        // the image's top towards -Z).
        const Vector reference = Normalized((vertex(x0, y0) * (1.0 - fx) + vertex(x1, y0) * fx) * (1.0 - fy) +
                                            (vertex(x0, y1) * (1.0 - fx) + vertex(x1, y1) * fx) * fy);
        const Vector tangent = Normalized(Vector(1.0, 0.0, 0.0) - reference * reference.x);
        const Vector bitangent = Cross(reference, tangent);
        const Vector surface = WorldNormal(heights, gridX, gridY, spacingX, spacingZ);
        const auto encode = [](Float component) {
          return static_cast<std::uint8_t>(std::lround((std::clamp(component, -1.0, 1.0) * 0.5 + 0.5) * 255.0));
        };
        out[3 * x] = encode(Dot(surface, tangent));
        out[3 * x + 1] = encode(Dot(surface, bitangent));
        out[3 * x + 2] = encode(Dot(surface, reference));
      }
    }
    return platform::Ok();
  }));
  return image;
}

namespace {

// The slopes of the terrain's grid that slope shaders resample when the texture is not at a
// pixel per sample (at one, they make their rows themselves): made once for all the
// materials of a bake run that need them.
class SlopeGrid {
 public:
  Result<const std::vector<float>*> For(const Node& material, const Grid2D<Float>& heights, Float sizeX, Float sizeZ,
                                        Int width, Int height, const platform::CancellationToken* cancel) {
    if ((width == heights.Width() && height == heights.Height()) || !UsesType(material, ID_SLOPESHADER)) return nullptr;
    if (!made_) {
      VLGD_RETURN_IF_ERROR(ComputeSlopes(heights, sizeX, sizeZ, slopes_, cancel));
      made_ = true;
    }
    return &slopes_;
  }

 private:
  std::vector<float> slopes_;
  bool made_ = false;
};

Status BakeWithSlopes(Node& material, platform::Document& doc, const Grid2D<Float>& heights, Float sizeX, Float sizeZ,
                      Int width, Int height, const std::vector<float>* slopes,
                      const platform::CancellationToken* cancel, platform::Image& image) {
  const bool mask = material.GetData().GetBool(platform::MATERIAL_MASK, false);
  const int channels = mask ? 1 : 3;
  const platform::PixelType type = mask ? platform::PixelType::UInt16 : platform::PixelType::UInt8;
  if (image.Width() != width || image.Height() != height || image.Channels() != channels || image.Type() != type) {
    VLGD_ASSIGN_OR_RETURN(image, platform::Image::Create(width, height, channels, type));
  }

  ShadeContext context;
  context.width = width;
  context.height = height;
  context.heights = &heights;
  context.sizeX = sizeX;
  context.sizeZ = sizeZ;
  context.doc = &doc;
  context.material = &material;
  context.slopes = slopes;
  context.cancel = cancel;
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<ShaderProgram> program, CompileLayers(material.GetBranch(), context));

  std::byte* bytes = image.Bytes().data();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = 0, .cancel = cancel};
  VLGD_RETURN_IF_ERROR(platform::ParallelForRange(0, height, options, [&](Int begin, Int end) -> Status {
    try {
      SpanScratch scratch;
      const kernels::Channels colours = scratch.BorrowColours();
      for (Int y = begin; y < end; ++y) {
        for (Int x0 = 0; x0 < width; x0 += kSpanPixels) {
          const Span span{y, x0, std::min(kSpanPixels, width - x0)};
          const auto count = static_cast<size_t>(span.count);
          if (mask) {
            program->ShadeGrey(span, colours.r, scratch);
            kernels::EncodeUnit16(colours.r, reinterpret_cast<std::uint16_t*>(bytes) + y * width + x0, count);
          } else {
            program->ShadeSpan(span, colours, scratch);
            kernels::EncodeSrgb(colours.r, colours.g, colours.b,
                                reinterpret_cast<std::uint8_t*>(bytes) + (y * width + x0) * 3, count);
          }
        }
      }
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError("Could not bake the material '" + material.GetName() + "'!");
    }
    return platform::Ok();
  }));
  return platform::Ok();
}

}  // namespace

Status BakeMaterial(Node& material, platform::Document& doc, const Grid2D<Float>& heights, Float sizeX, Float sizeZ,
                    Int width, Int height, platform::Image& into, const platform::CancellationToken* cancel) {
  VLGD_RETURN_IF_ERROR(CheckTextureSize(width, height));
  SlopeGrid slopeGrid;
  VLGD_ASSIGN_OR_RETURN(const std::vector<float>* slopes,
                        slopeGrid.For(material, heights, sizeX, sizeZ, width, height, cancel));
  return BakeWithSlopes(material, doc, heights, sizeX, sizeZ, width, height, slopes, cancel, into);
}

Result<platform::Image> BakeMaterial(Node& material, platform::Document& doc, const Grid2D<Float>& heights, Float sizeX,
                                     Float sizeZ, Int width, Int height, const platform::CancellationToken* cancel) {
  platform::Image image;
  VLGD_RETURN_IF_ERROR(BakeMaterial(material, doc, heights, sizeX, sizeZ, width, height, image, cancel));
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
  VLGD_RETURN_IF_ERROR(CheckTextureSize(width, height));
  SlopeGrid slopeGrid;

  std::vector<BakeReport> reports;
  for (const platform::NodeLink& link : terrain.GetTextureLinks()) {
    Node* material = doc.Resolve(link);
    auto* materialData = material != nullptr ? material->GetNodeData<platform::MaterialData>() : nullptr;
    if (materialData == nullptr) continue;  // deleted, or not a material
    BakeReport report;
    report.material = material;
    report.colour = !material->GetData().GetBool(platform::MATERIAL_MASK, false);
    const UInt64 key = BakeKey(*material, terrain, width, height);
    const platform::MaterialBake* earlier = materialData->FindBake(terrain.Identity());
    if (earlier != nullptr && earlier->key == key && earlier->image != nullptr) {
      report.image = earlier->image;
      report.seconds = earlier->seconds;
    } else {
      if (options.progress != nullptr) options.progress->SetStatus("Baking " + material->GetName());
      const auto start = std::chrono::steady_clock::now();
      VLGD_ASSIGN_OR_RETURN(const std::vector<float>* slopes,
                            slopeGrid.For(*material, grid, sizeX, sizeZ, width, height, options.cancel));
      platform::Image image;
      VLGD_RETURN_IF_ERROR(
          BakeWithSlopes(*material, doc, grid, sizeX, sizeZ, width, height, slopes, options.cancel, image));
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
