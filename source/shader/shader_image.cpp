#include "shader/shader_image.h"

#include <cmath>
#include <new>

#include "platform/description.h"
#include "shader/shader_colour.h"

namespace VLGD {
namespace {

class ImageProgram final : public ShaderProgram {
 public:
  ImageProgram(const ShadeContext& context, std::shared_ptr<const std::vector<Colour>> pixels, Int width, Int height,
               Float tilesU, Float tilesV, Float offsetU, Float offsetV)
      : context_(context),
        pixels_(std::move(pixels)),
        width_(width),
        height_(height),
        tilesU_(tilesU),
        tilesV_(tilesV),
        offsetU_(offsetU),
        offsetV_(offsetV) {}

  void ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const override {
    (void)scratch;
    const Float v =
        context_.height > 1 ? 1.0 - static_cast<Float>(span.y) / static_cast<Float>(context_.height - 1) : 0.0;
    // Image row 0 is the top: texture v = 1.
    const Float row = Wrap((1.0 - (v * tilesV_ + offsetV_)) * static_cast<Float>(height_) - 0.5, height_);
    const Int j0 = static_cast<Int>(row);
    const Int j1 = (j0 + 1) % height_;
    const float fy = static_cast<float>(row - static_cast<Float>(j0));
    const Float stepU = context_.width > 1 ? 1.0 / static_cast<Float>(context_.width - 1) : 0.0;
    const std::vector<Colour>& p = *pixels_;
    for (Int x = 0; x < span.count; ++x) {
      const Float u = static_cast<Float>(span.x0 + x) * stepU;
      const Float column = Wrap((u * tilesU_ + offsetU_) * static_cast<Float>(width_) - 0.5, width_);
      const Int i0 = static_cast<Int>(column);
      const Int i1 = (i0 + 1) % width_;
      const float fx = static_cast<float>(column - static_cast<Float>(i0));
      const auto mix = [](const Colour& a, const Colour& b, float f) {
        return Colour{a.r + (b.r - a.r) * f, a.g + (b.g - a.g) * f, a.b + (b.b - a.b) * f, a.a + (b.a - a.a) * f};
      };
      const auto at = [&](Int i, Int j) -> const Colour& { return p[static_cast<size_t>(j * width_ + i)]; };
      const Colour c = mix(mix(at(i0, j0), at(i1, j0), fx), mix(at(i0, j1), at(i1, j1), fx), fy);
      out.r[x] = c.r;
      out.g[x] = c.g;
      out.b[x] = c.b;
      out.a[x] = c.a;
    }
  }

 private:
  // Into [0, size): the image repeats.
  static Float Wrap(Float value, Int size) {
    const Float n = static_cast<Float>(size);
    Float wrapped = std::fmod(value, n);
    if (wrapped < 0.0) wrapped += n;
    return std::isfinite(wrapped) && wrapped < n ? wrapped : 0.0;
  }

  ShadeContext context_;
  std::shared_ptr<const std::vector<Colour>> pixels_;
  Int width_, height_;
  Float tilesU_, tilesV_, offsetU_, offsetV_;
};

platform::Description ImageShaderDescription() {
  using platform::DescribeParameter;
  using platform::ValueType;
  return {
      "ximageshader",
      {std::string(kBaseShaderResource)},
      {
          DescribeParameter(IMAGESHADER_FILE, "IMAGESHADER_FILE", ValueType::STRING, std::string()),
          DescribeParameter(IMAGESHADER_TILES_U, "IMAGESHADER_TILES_U", ValueType::FLOAT, 1.0).Limits(0.0, 1.0e4),
          DescribeParameter(IMAGESHADER_TILES_V, "IMAGESHADER_TILES_V", ValueType::FLOAT, 1.0).Limits(0.0, 1.0e4),
          DescribeParameter(IMAGESHADER_OFFSET_U, "IMAGESHADER_OFFSET_U", ValueType::FLOAT, 0.0).Limits(-1.0e4, 1.0e4),
          DescribeParameter(IMAGESHADER_OFFSET_V, "IMAGESHADER_OFFSET_V", ValueType::FLOAT, 0.0).Limits(-1.0e4, 1.0e4),
      }};
}

// The image in linear colours, one Colour per pixel.
Result<std::vector<Colour>> Decode(const platform::Image& image) {
  const bool srgb = image.Type() != platform::PixelType::Float32;
  const Float unit = image.Type() == platform::PixelType::UInt8    ? 255.0
                     : image.Type() == platform::PixelType::UInt16 ? 65535.0
                                                                   : 1.0;
  std::vector<Colour> pixels;
  try {
    pixels.resize(static_cast<size_t>(image.Width() * image.Height()));
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not hold the image of an image shader!");
  }
  const int channels = image.Channels();
  for (Int y = 0; y < image.Height(); ++y) {
    for (Int x = 0; x < image.Width(); ++x) {
      const auto channel = [&](int c) {
        const float value = static_cast<float>(image.GetPixel(x, y, c) / unit);
        return srgb ? SrgbToLinear(value) : value;
      };
      Colour& pixel = pixels[static_cast<size_t>(y * image.Width() + x)];
      if (channels <= 2) {
        pixel = {channel(0), channel(0), channel(0), 1.0f};
        if (channels == 2) pixel.a = static_cast<float>(image.GetPixel(x, y, 1) / unit);
      } else {
        pixel = {channel(0), channel(1), channel(2), 1.0f};
        if (channels == 4) pixel.a = static_cast<float>(image.GetPixel(x, y, 3) / unit);
      }
    }
  }
  return pixels;
}

}  // namespace

Result<std::unique_ptr<ShaderProgram>> ImageShader::Compile(Node& shader, const ShadeContext& context) {
  const platform::ParameterContainer& data = shader.GetData();
  const std::filesystem::path named = data.GetString(IMAGESHADER_FILE, "");
  const std::filesystem::path file = context.doc != nullptr ? context.doc->ResolveFile(named) : named;
  if (file.empty()) return ConstantColour(Colour{0.0f, 0.0f, 0.0f, 1.0f});
  if (file != loadedPath_ || pixels_ == nullptr) {
    auto image = platform::ReadImage(file);
    if (!image)
      return platform::IllegalArgumentError("The image shader '" + shader.GetName() +
                                            "' could not read its image: " + image.error().message);
    if (image->Width() <= 0 || image->Height() <= 0)
      return platform::IllegalArgumentError("The image of the image shader '" + shader.GetName() + "' is empty!");
    VLGD_ASSIGN_OR_RETURN(std::vector<Colour> pixels, Decode(*image));
    pixels_ = std::make_shared<const std::vector<Colour>>(std::move(pixels));
    imageWidth_ = image->Width();
    imageHeight_ = image->Height();
    loadedPath_ = file;
  }
  return std::make_unique<ImageProgram>(
      context, pixels_, imageWidth_, imageHeight_, data.GetFloat(IMAGESHADER_TILES_U, 1.0),
      data.GetFloat(IMAGESHADER_TILES_V, 1.0), data.GetFloat(IMAGESHADER_OFFSET_U, 0.0),
      data.GetFloat(IMAGESHADER_OFFSET_V, 0.0));
}

const platform::TypeDescriptor& ImageShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_IMAGESHADER,
                                             .resourceName = "ximageshader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<ImageShader>(),
                                             .describe = ImageShaderDescription};
  return type;
}

}  // namespace VLGD
