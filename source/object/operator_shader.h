#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/cancellation.h"
#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_SHADEROPERATOR = 1054617;

enum ShaderOperatorParameter : ParameterId {
  SHADEROPERATOR_FILE = 10001,           // String: image or elevation model; relative to the working folder
  SHADEROPERATOR_CHANNEL = 10002,        // SHADEROPERATORCHANNEL
  SHADEROPERATOR_METRES = 10003,         // Bool: the samples are heights in scene units
  SHADEROPERATOR_MAPPING = 10004,        // SHADEROPERATORMAPPING
  SHADEROPERATOR_SIZE_X = 10005,         // Float: the picture's extent along X for SIZE
  SHADEROPERATOR_SIZE_Z = 10006,         // Float: and along Z
  SHADEROPERATOR_OUTOFBOUNDS = 10007,    // OUTOFBOUNDSMODE
  SHADEROPERATOR_INTERPOLATION = 10008,  // SAMPLEINTERPOLATION
  SHADEROPERATOR_USE_TERRAIN_MATRIX = 10009,
};

enum class SHADEROPERATORCHANNEL : Int32 {
  RED = 0,  // the first channel; the grey of a greyscale image
  GREEN = 1,
  BLUE = 2,
  ALPHA = 3,  // the last of two or four channels
  LUMINANCE = 4,
};

enum class SHADEROPERATORMAPPING : Int32 {
  FIT = 0,   // the picture's corner samples on the terrain's corners
  SIZE = 1,  // the picture covers SIZE_X x SIZE_Z units around the operator
};

// One channel of a picture as 32-bit floats, row 0 the top line (the +Z edge), NaN where it
// has no data. The range is that of the samples with data; `valid` false when none has.
struct HeightPicture {
  std::vector<float> samples;
  Int width = 0;
  Int height = 0;
  Float minimum = 0.0;
  Float maximum = 0.0;
  bool valid = false;
  bool hasNoData = false;
};

// Reads a picture from an image file (PNG, OpenEXR, JPEG ...) through the image library,
// or from anything the GDAL codec opens (GeoTIFF and other TIFF, ESRI ASCII grid, SRTM
// .hgt), chosen by the file ending. Failures read "Could not load image "<path>": <why>".
Result<HeightPicture> LoadHeightPicture(const std::filesystem::path& path, SHADEROPERATORCHANNEL channel,
                                        const platform::CancellationToken* cancel = nullptr);

// Heights from a picture sampled in the operator's own space: moving, turning or scaling
// the operator moves the picture. Samples without data, and with out-of-bounds NONE those
// outside the picture, leave the terrain below untouched.
class ShaderOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  [[nodiscard]] BlendSettings GetBlendSettings(const Node& op) const override;
  // 0 where the picture has no data or, with out-of-bounds NONE, does not reach.
  [[nodiscard]] std::span<const Float> GetResultMask() const override { return resultMask_; }
  // True when the file on disk changed since it was loaded.
  bool NeedsRebuild(Node& op, Document& doc, const EvaluationContext& context) override;
  [[nodiscard]] Int GetMemoryUsage() const override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;

  // How many times a file was read, for the cache's tests.
  [[nodiscard]] Int LoadCount() const { return loads_; }

 private:
  // What identifies the loaded picture: a change of any of these reads the file again.
  struct FileStamp {
    std::string path;
    bool exists = false;
    std::filesystem::file_time_type modified{};
    std::uintmax_t size = 0;
    Int32 channel = 0;
    friend bool operator==(const FileStamp&, const FileStamp&) = default;
  };
  FileStamp loaded_;
  std::vector<Float> resultMask_;  // empty when the picture covers every sample with data
  // The file as it was at the last try, loaded or not: a file that appears, changes or
  // goes away after it marks the operator for a rebuild.
  std::optional<FileStamp> attempted_;
  std::shared_ptr<const HeightPicture> picture_;
  Int loads_ = 0;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& ShaderOperatorType();

}  // namespace VLGD
