#pragma once

#include <filesystem>
#include <optional>

#include "platform/image.h"
#include "shader/shader.h"

namespace VLGD {

enum ImageShaderParameter : platform::ParameterId {
  IMAGESHADER_FILE = 10001,      // String: the image file, relative paths from the working folder
  IMAGESHADER_TILES_U = 10002,   // Float: repetitions across the terrain's x
  IMAGESHADER_TILES_V = 10003,   // Float: repetitions across its z
  IMAGESHADER_OFFSET_U = 10004,  // Float: shift in repetitions
  IMAGESHADER_OFFSET_V = 10005,
};

// An image draped over the terrain by its texture coordinates, tiled and filtered
// bilinearly; 8 and 16-bit files are taken as sRGB, float files as linear.
class ImageShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;

 private:
  // The decoded image of the last bake, kept while the file name stays the same.
  std::filesystem::path loadedPath_;
  std::shared_ptr<const std::vector<Colour>> pixels_;
  Int imageWidth_ = 0;
  Int imageHeight_ = 0;
};

const platform::TypeDescriptor& ImageShaderType();

}  // namespace VLGD
