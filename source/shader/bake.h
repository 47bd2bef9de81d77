#pragma once

#include <vector>

#include "platform/document.h"
#include "platform/material.h"
#include "platform/progress.h"
#include "shader/shader.h"

namespace VLGD {

struct BakeOptions {
  Int textureSize = 0;  // pixels along the longer side; 0: one pixel per grid sample
  const platform::CancellationToken* cancel = nullptr;
  platform::ProgressSink* progress = nullptr;
};

// One material of a terrain after BakeMaterials: baked now, or its earlier bake kept.
struct BakeReport {
  Node* material = nullptr;
  bool colour = false;  // an sRGB colour texture, not a mask
  bool baked = false;
  Float seconds = 0.0;
  std::shared_ptr<const platform::Image> image;
};

// Bakes the materials a built terrain is textured with, in the order of its texture links;
// a material whose shaders, parameters and inputs are as at its last bake for this terrain
// keeps that bake. Colour materials become 8-bit sRGB RGB textures, mask materials linear
// 16-bit grey ones; image row 0 is the terrain's far edge (the mesh's v = 1).
Result<std::vector<BakeReport>> BakeMaterials(Node& terrain, platform::Document& doc, const BakeOptions& options);

// Bakes one material over a grid without keeping the result; the core of BakeMaterials.
Result<platform::Image> BakeMaterial(Node& material, platform::Document& doc, const Grid2D<Float>& heights, Float sizeX,
                                     Float sizeZ, Int width, Int height,
                                     const platform::CancellationToken* cancel = nullptr);
// The same into an image that is reused where it has the bake's size and pixel type, as a
// caller that bakes again and again does to spare the system fresh pages each time.
Status BakeMaterial(Node& material, platform::Document& doc, const Grid2D<Float>& heights, Float sizeX, Float sizeZ,
                    Int width, Int height, platform::Image& into, const platform::CancellationToken* cancel = nullptr);

// A tangent-space normal map (8-bit, OpenGL green) of what the surface between the mesh's
// vertices adds to the normals the mesh interpolates: flat at one pixel per grid sample,
// detail where the texture is finer than the grid. Rows as in BakeMaterials.
Result<platform::Image> BakeNormalMap(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, Int width, Int height,
                                      const platform::CancellationToken* cancel = nullptr);

}  // namespace VLGD
