#pragma once

#include <hwy/aligned_allocator.h>

#include <memory>
#include <span>
#include <vector>

#include "platform/document.h"
#include "platform/node.h"
#include "platform/node_data.h"
#include "platform/registry.h"
#include "platform/result.h"
#include "shader/shade_kernels.h"
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

// A run of pixels of one image row: columns x0 .. x0 + count - 1 of row y.
struct Span {
  Int y = 0;
  Int x0 = 0;
  Int count = 0;
};
// Images are shaded a span at a time, so that every buffer a material needs stays in the
// first-level cache.
inline constexpr Int kSpanPixels = 256;

// Span buffers (Padded(kSpanPixels) floats, aligned for any vector) a worker lends to the
// programs it runs, so that nothing is allocated per span. Borrowing is last in, first out.
class SpanScratch {
 public:
  // Throws std::bad_alloc, which ends the bake that catches it.
  kernels::Channels BorrowColours();
  void ReleaseColours() { used_ -= 4; }
  float* BorrowValues();
  void ReleaseValues() { --used_; }

 private:
  float* Next();
  size_t used_ = 0;
  std::vector<hwy::AlignedFreeUniquePtr<float[]>> buffers_;
};

// A shader made ready for one bake: its parameters read once, its inputs compiled.
class ShaderProgram {
 public:
  virtual ~ShaderProgram() = default;
  // The colours of a span. Lanes past the span's count may be written and are ignored.
  virtual void ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const = 0;
  // Its grey value (the red channel) alone.
  virtual void ShadeGrey(const Span& span, float* out, SpanScratch& scratch) const;
  // The one colour of every pixel, where that is so: a layer then blends it without a row.
  [[nodiscard]] virtual const Colour* Constant() const { return nullptr; }
};

// A program whose values are grey: its colour is the value in red, green and blue.
class GreyProgram : public ShaderProgram {
 public:
  void ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const final;
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
// The grey value of `input` over a span, or `fallback` when there is no input.
void ShadeInputSpan(const ShaderProgram* input, const Span& span, float* out, SpanScratch& scratch, float fallback);

// A grid of the terrain's size sampled at the pixels of a span, bilinearly.
void SampleGridSpan(const Float* grid, Int gridWidth, Int gridHeight, const ShadeContext& context, const Span& span,
                    float* out);

// Every pixel of a span one colour.
void FillSpan(kernels::Channels out, const Colour& colour);
// A program that gives one colour everywhere.
std::unique_ptr<ShaderProgram> ConstantColour(const Colour& colour);

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
