#pragma once

#include <algorithm>

#include <memory>
#include <span>
#include <vector>

#include "platform/document.h"
#include "platform/node.h"
#include "platform/node_data.h"
#include "platform/registry.h"
#include "platform/result.h"
#include "vellgrund/grid2d.h"

namespace VLGD {

using platform::Int32;
using platform::Node;

// A colour in linear light, 0 .. 1 per channel. Inputs such as heights are grey.
struct Colour {
  float r = 0.0f;
  float g = 0.0f;
  float b = 0.0f;
  float a = 1.0f;
};

// Parameters every shader has: how it stacks when it is a layer of a layer shader.
enum ShaderParameter : platform::ParameterId {
  SHADER_LAYER_BLEND = 1001,    // BLENDMODE over the layers below
  SHADER_LAYER_OPACITY = 1002,  // Float 0..1; a mask shader in the second branch multiplies it
};

// What every shader of one bake reads: the texture's size and the terrain it lies on.
// Pixel (x, y) of a W x H texture samples the terrain at u = x / (W - 1) and
// v = 1 - y / (H - 1): image row 0 is the far edge, where the mesh's v is 1.
struct ShadeContext {
  Int width = 0;
  Int height = 0;
  const Grid2D<Float>* heights = nullptr;  // the terrain's final grid
  Float sizeX = 0.0;                       // the terrain's extent in world units
  Float sizeZ = 0.0;
  platform::Document* doc = nullptr;
  Node* material = nullptr;
  // Per grid sample: the slope in degrees, made once for the shaders that ask for it.
  const std::vector<float>* slopes = nullptr;
  const platform::CancellationToken* cancel = nullptr;

  // The fractional row of a grid of `rows` rows that image row y samples.
  [[nodiscard]] Float GridRow(Int y, Int rows) const;
  // Whether every pixel lies on a sample of the terrain's grid, so no sampling is needed.
  [[nodiscard]] bool OneToOne() const {
    return heights != nullptr && width == heights->Width() && height == heights->Height();
  }
};

// Rows of colours a worker lends to the inputs of the shader it runs, so that nothing is
// allocated per sample.
class RowScratch {
 public:
  explicit RowScratch(Int width) : width_(width) {}
  // A row that stays valid until the matching Release.
  std::span<Colour> Borrow();
  void Release() { --used_; }
  // The same for rows of single values.
  std::span<float> BorrowValues();
  void ReleaseValues() { --usedValues_; }

 private:
  Int width_;
  size_t used_ = 0;
  size_t usedValues_ = 0;
  std::vector<std::unique_ptr<Colour[]>> rows_;
  std::vector<std::unique_ptr<float[]>> valueRows_;
};

// A shader made ready for one bake: its parameters read once, its inputs compiled.
class ShaderProgram {
 public:
  virtual ~ShaderProgram() = default;
  // The colours of image row y, one per texture column.
  virtual void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const = 0;
};

// The node data of every shader type.
class ShaderData : public platform::NodeData {
 public:
  bool Init(Node& node) override;
  virtual Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) = 0;
  // Whether its values depend on the terrain's final heights, so that a new grid re-bakes.
  [[nodiscard]] virtual bool ReadsTerrain() const { return false; }
};

// The first enabled shader of the list starting at `first`, compiled; nullptr when there is
// none.
Result<std::unique_ptr<ShaderProgram>> CompileFirst(Node* first, const ShadeContext& context);
// A grey value of `input` for every column of row y (its red channel), or `fallback` when
// there is no input.
void ShadeInputRow(const ShaderProgram* input, Int y, std::span<float> out, RowScratch& scratch, float fallback);

// A grid of the terrain's size sampled at the pixels of row y, bilinearly.
void SampleGridRow(const Float* grid, Int gridWidth, Int gridHeight, const ShadeContext& context, Int y,
                   std::span<float> out);

// Blends a row of `top` over `base` with a stored blend mode, each pixel weighed by
// opacity x weights[x] (0 .. 1). The mode is chosen once per row, not per pixel.
void BlendColourRow(std::span<Colour> base, std::span<const Colour> top, std::span<const float> weights, Int32 mode,
                    float opacity);

inline float Smoothstep(float edge0, float edge1, float x) {
  if (!(edge1 > edge0)) return x < edge0 ? 0.0f : 1.0f;
  const float t = std::clamp((x - edge0) / (edge1 - edge0), 0.0f, 1.0f);
  return t * t * (3.0f - 2.0f * t);
}

// 1 from low up to high, changing smoothly over `smooth` centred on each bound.
inline float RangeWeight(float value, float low, float high, float smooth) {
  const float half = std::max(smooth, 0.0f) * 0.5f;
  return Smoothstep(low - half, low + half, value) * (1.0f - Smoothstep(high - half, high + half, value));
}

// The description every shader's description includes.
const platform::TypeDescriptor& BaseShaderType();
inline constexpr std::string_view kBaseShaderResource = "Xbase";

// Plug-in IDs of the shader types.
inline constexpr Int32 ID_TERRAINOPERATORSHADER = 1054655;
inline constexpr Int32 ID_HEIGHTSHADER = 1058001;
inline constexpr Int32 ID_SLOPESHADER = 1058002;
inline constexpr Int32 ID_COLOURRAMPSHADER = 1058003;
inline constexpr Int32 ID_COLOURSHADER = 1058004;
inline constexpr Int32 ID_IMAGESHADER = 1058005;
inline constexpr Int32 ID_LAYERSHADER = 1058006;

}  // namespace VLGD
