#include "vellgrund/baseterrainoperator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <new>

#include "platform/debug_stop.h"
#include "platform/file_output.h"
#include "platform/host.h"
#include "platform/image.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "vellgrund/blend.h"
#include "vellgrund/string_ids.h"

namespace VLGD {
namespace {

using platform::Float;
using platform::ParameterDescription;
using platform::ParameterKind;
using platform::ValueType;

constexpr Float kHalfPi = 1.5707963267948966;

// 1 inside [low, high], fading to 0 over the falloff parts at both ends with a smooth step;
// a falloff of 0 gives a hard edge without any division.
Float RangeFactor(Float h, Float low, Float high, Float lowFalloff, Float highFalloff) {
  if (h < low || h > high) return 0.0;
  const Float fadeLow = lowFalloff * 0.5 * (high - low);
  const Float fadeHigh = highFalloff * 0.5 * (high - low);
  const auto smooth = [](Float t) { return t < 0.0 ? 0.0 : t >= 1.0 ? 1.0 : t * t * (3.0 - 2.0 * t); };
  if (h < low + fadeLow) return smooth((h - low) / fadeLow);
  if (h > high - fadeHigh) return smooth((high - h) / fadeHigh);
  return 1.0;
}

// Fills or multiplies the mask with the range factor of every value.
Status ApplyRange(std::vector<Float>& mask, std::span<const Float> values, const std::array<Float, 4>& range,
                  const platform::CancellationToken* thread) {
  const bool fresh = mask.empty();
  if (fresh) VLGD_RETURN_IF_ERROR(platform::TryResize(mask, values.size()));
  platform::ParallelOptions options;
  options.singleThreadBelow = platform::kSingleThreadBelowSamples;
  options.cancel = thread;
  Float* out = mask.data();
  return platform::ParallelForRange(0, static_cast<Int>(values.size()), options, [&](Int begin, Int end) {
    for (Int i = begin; i < end; ++i) {
      const Float m = RangeFactor(values[i], range[0], range[1], range[2], range[3]);
      out[i] = fresh ? m : out[i] * m;
    }
  });
}

}  // namespace

BlendSettings ReadBlendSettings(const ParameterContainer& data) {
  // A missing entry reads as no effect (strength 0, no mask), not as the default of a new
  // operator: a container without blend settings must leave the terrain as it is.
  BlendSettings settings;
  settings.strength = data.GetFloat(TERRAINOPERATOR_STRENGTH, 0.0);
  settings.mode = data.GetInt32(TERRAINOPERATOR_BLENDMODE, 0);
  settings.scale =
      data.GetFloat(IsFactorBlendMode(settings.mode) ? TERRAINOPERATOR_FACTOR : TERRAINOPERATOR_HEIGHTSCALE, 1.0);
  settings.offset = data.GetFloat(TERRAINOPERATOR_OFFSET, 0.0);
  settings.slopeMaskEnabled = data.GetBool(TERRAINOPERATOR_MASKING_SLOPE_ENABLED, false);
  settings.heightMaskEnabled = data.GetBool(TERRAINOPERATOR_MASKING_HEIGHT_ENABLED, false);
  for (Int32 k = 0; k < 4; ++k) {
    settings.slopeMaskParams[k] = data.GetFloat(TERRAINOPERATOR_MASKING_SLOPE_LOW + k, 0.0);
    settings.heightMaskParams[k] = data.GetFloat(TERRAINOPERATOR_MASKING_HEIGHT_LOW + k, 0.0);
  }
  return settings;
}

std::string FormatMemory(const platform::StringTable& strings, Int bytes) {
  auto value = static_cast<Float>(bytes);
  Int32 divisions = 0;
  while (value > 1024.0 && divisions < 3) {
    value *= 0.0009765625;
    ++divisions;
  }
  char number[64];
  std::snprintf(number, sizeof number, divisions == 0 ? "%.0f" : "%.2f", value);
  const std::string text = std::string(number) + " " + strings.Get(STRING_UNIT_BYTES + divisions);
  return strings.Format(STRING_MEMORY, {text});
}

BlendSettings BaseTerrainOperatorData::GetBlendSettings(const Node& op) const {
  return ReadBlendSettings(op.GetData());
}

Int BaseTerrainOperatorData::GetMemoryUsage() const {
  return (changeMap_.Count() + result_.Count()) * 8 + 576;
}

std::string BaseTerrainOperatorData::GetCustomOutputName(const platform::StringTable& strings, Int32 outputId) const {
  if (outputId == ID_CUSTOMOUTPUT_CHANGEMAP) return strings.Get(STRING_CHANGE_MAP);
  platform::DebugStop("baseterrainoperator", "Unknown outputId!");
  return {};
}

const Grid2D<Float>* BaseTerrainOperatorData::GetCustomOutput(Int32 outputId) const {
  if (outputId == ID_CUSTOMOUTPUT_CHANGEMAP) return &changeMap_;
  platform::DebugStop("baseterrainoperator", "Unknown outputId!");
  return nullptr;
}

bool BaseTerrainOperatorData::Init(Node& node) {
  ParameterContainer& data = node.GetDataInstance();
  return node.GetTypeInfo().description.WriteDefaults(data).has_value() && InitOperatorDefaults(data);
}

bool BaseTerrainOperatorData::Read(Node& node, Int32 diskLevel) {
  (void)diskLevel;
  ParameterContainer& data = node.GetDataInstance();
  if (data.GetInt32(TERRAINOPERATOR_VERSION, 0) >= kTerrainOperatorVersion) return true;
  // Older operators kept the factor of the factor modes in the height scale.
  if (IsFactorBlendMode(data.GetInt32(TERRAINOPERATOR_BLENDMODE, 0)) && data.Contains(TERRAINOPERATOR_HEIGHTSCALE)) {
    if (!data.Set(TERRAINOPERATOR_FACTOR, data.GetFloat(TERRAINOPERATOR_HEIGHTSCALE, 1.0))) return false;
  }
  return data.Set(TERRAINOPERATOR_VERSION, kTerrainOperatorVersion).has_value();
}

Status BaseTerrainOperatorData::ExportCustomOutput(Int32 outputId, std::filesystem::path path) const {
  const Grid2D<Float>* output = GetCustomOutput(outputId);
  if (output == nullptr) return platform::IllegalArgumentError("Unknown outputId!");
  if (platform::LowerCaseEnding(path) != ".tif") path += ".tif";
  VLGD_ASSIGN_OR_RETURN(const platform::Image image, output->ToHeightImage());
  return platform::WriteImage(image, path, platform::PixelType::Float32);
}

bool BaseTerrainOperatorData::Message(Node& node, Int32 type, MessageData& data) {
  platform::Host& host = node.GetHost();
  switch (type) {
    case MSG_TERRAINOPERATOR_GETCUSTOMOUTPUTS: {
      auto* const* outputs = std::any_cast<std::vector<CustomOutput>*>(&data.payload);
      if (outputs == nullptr || *outputs == nullptr) {
        host.GetConsole().Print("Could not get operator's custom outputs list!");
        return false;
      }
      try {
        (*outputs)->push_back(
            {ID_CUSTOMOUTPUT_CHANGEMAP, GetCustomOutputName(host.GetStrings(), ID_CUSTOMOUTPUT_CHANGEMAP)});
      } catch (const std::bad_alloc&) {
        host.GetConsole().Print("Could not get operator's custom outputs list!");
        return false;
      }
      return true;
    }
    case MSG_TERRAINOPERATOR_EXPORTCUSTOMOUTPUT: {
      auto* const* request = std::any_cast<CustomOutputExport*>(&data.payload);
      if (request == nullptr || *request == nullptr) {
        host.GetConsole().Print("Did not receive a custom output pointer for export mode " + std::to_string(data.info));
        return false;
      }
      (*request)->result = ExportCustomOutput((*request)->outputId, (*request)->path);
      return (*request)->result.has_value();
    }
    case platform::MSG_DESCRIPTION_COMMAND: {
      if (data.parameter != TERRAINOPERATOR_EXPORT_CHANGEMAP) break;
      if (changeMap_.IsEmpty()) return true;
      const std::string proposed =
          node.GetName() + "_" + GetCustomOutputName(host.GetStrings(), ID_CUSTOMOUTPUT_CHANGEMAP);
      const auto path =
          host.GetUserInterface().SaveFileDialog(host.GetStrings().Get(STRING_EXPORT_TITLE), proposed, "tif");
      if (path.has_value() && !ExportCustomOutput(ID_CUSTOMOUTPUT_CHANGEMAP, *path))
        host.GetUserInterface().MessageDialog(host.GetStrings().Get(STRING_EXPORT_FAILED));
      return true;
    }
    default:
      break;
  }
  return OperatorMessage(node, type, data);
}

bool BaseTerrainOperatorData::GetDEnabling(const Node& node, ParameterId id, const Value& value) const {
  const ParameterContainer& data = node.GetData();
  if (id >= TERRAINOPERATOR_MASKING_SLOPE_LOW && id <= TERRAINOPERATOR_MASKING_SLOPE_HIGHFALLOFF)
    return data.GetBool(TERRAINOPERATOR_MASKING_SLOPE_ENABLED);
  if (id >= TERRAINOPERATOR_MASKING_HEIGHT_LOW && id <= TERRAINOPERATOR_MASKING_HEIGHT_HIGHFALLOFF)
    return data.GetBool(TERRAINOPERATOR_MASKING_HEIGHT_ENABLED);
  if (id == TERRAINOPERATOR_EXPORT_CHANGEMAP) return data.GetInt32(TERRAINOPERATOR_VERSION, 0) > 8;
  return GetOperatorDEnabling(node, id, value);
}

bool BaseTerrainOperatorData::GetDVisibility(const Node& node, ParameterId id) const {
  return GetOperatorDescriptionVisibility(node, id);
}

Result<EVALUATIONRESULT> BaseTerrainOperatorData::Evaluate(const Grid2D<Float>& incoming, Node& op, Document& doc,
                                                           const EvaluationContext& context) {
  const platform::StringTable& strings = op.GetHost().GetStrings();
  // Status texts are not edits: they go straight into the container without a dirty count.
  ParameterContainer& data = op.GetDataInstance();
  EVALUATIONRESULT evaluation = EVALUATIONRESULT::CACHED;
  if (needsEvaluation_) {
    if (auto computed = Compute(incoming, op, doc, context); !computed) {
      // A status text that cannot be stored leaves the previous one.
      (void)data.Set(TERRAINOPERATOR_STATUS, strings.Get(STRING_CALCULATING));
      return std::unexpected(computed.error());
    }
    evaluation = EVALUATIONRESULT::REBUILT;
    if (HasFlag(GetFlags(op), TERRAINOPERATORFLAGS::TYPE_FILTER)) {
      if (incoming.Count() != result_.Count()) return platform::GenericError("Cannot merge grids of different sizes!");
      VLGD_RETURN_IF_ERROR(changeMap_.CopyFrom(incoming));
      BlendSettings difference;
      difference.strength = 1.0;
      difference.mode = static_cast<Int32>(BLENDMODE::DIFFERENCE);
      VLGD_RETURN_IF_ERROR(Combine(changeMap_, result_, {}, difference));
      VLGD_RETURN_IF_ERROR(changeMap_.Normalize(1.0, 0.0, context.thread));
    }
  }
  (void)data.Set(TERRAINOPERATOR_STATUS, FormatMemory(strings, GetMemoryUsage()));
  last = current;
  last.dataDirty = op.GetDirty(platform::DIRTYFLAGS_DATA);
  VLGD_RETURN_IF_ERROR(parameterSnapshot.CopyFrom(op.GetData()));
  needsEvaluation_ = false;
  return evaluation;
}

void BaseTerrainOperatorData::Removing(Node& node, Document& doc) {
  (void)node;
  observers_.Notify(ID_TERRAINOPERATORSHADER_MESSAGE, doc, true);
}

Status BaseTerrainOperatorData::CombineIntoTerrain(Grid2D<Float>& terrain, Node& op, Document& doc,
                                                   const EvaluationContext& context) {
  const BlendSettings settings = GetBlendSettings(op);
  const platform::Value* fieldsValue = op.GetData().Find(TERRAINOPERATOR_MASKING_FIELDS_LIST);
  const platform::FieldList* fields = op.GetData().GetFieldList(TERRAINOPERATOR_MASKING_FIELDS_LIST);
  if (fieldsValue != nullptr && fields == nullptr)
    return platform::GenericError("Could not get parameter TERRAINOPERATOR_MASKING_FIELDS_LIST from linked object!");

  mask_.clear();
  if (fields != nullptr && fields->HasContent()) {
    // The fields are sampled where the flat terrain's samples lie in the scene.
    const Int width = result_.Width();
    const Int height = result_.Height();
    std::vector<platform::Vector> positions;
    VLGD_RETURN_IF_ERROR(platform::TryResize(positions, static_cast<size_t>(result_.Count())));
    VLGD_RETURN_IF_ERROR(platform::TryResize(mask_, static_cast<size_t>(result_.Count())));
    const Float stepX = width > 1 ? context.sizeX / static_cast<Float>(width - 1) : 0.0;
    const Float stepZ = height > 1 ? context.sizeZ / static_cast<Float>(height - 1) : 0.0;
    for (Int y = 0; y < height; ++y)
      for (Int x = 0; x < width; ++x)
        positions[static_cast<size_t>(y * width + x)] =
            platform::TransformPoint(context.terrainMatrix, {static_cast<Float>(x) * stepX - context.sizeX * 0.5, 0.0,
                                                             context.sizeZ * 0.5 - static_cast<Float>(y) * stepZ});
    platform::ParallelOptions options;
    options.singleThreadBelow = platform::kSingleThreadBelowSamples;
    options.cancel = context.thread;
    VLGD_RETURN_IF_ERROR(fields->Sample(doc, positions, mask_, options));
  }

  if (const std::span<const Float> own = GetResultMask(); !own.empty()) {
    if (static_cast<Int>(own.size()) != result_.Count())
      return platform::GenericError("FieldOutput and _size are different!");
    if (mask_.empty()) {
      VLGD_RETURN_IF_ERROR(platform::TryResize(mask_, static_cast<size_t>(own.size())));
      std::copy(own.begin(), own.end(), mask_.begin());
    } else {
      for (size_t i = 0; i < own.size(); ++i) mask_[i] *= own[i];
    }
  }

  const Node* previous = op.GetPred();
  if (previous != nullptr && previous->IsInstanceOf(ID_BASETERRAINOPERATOR)) {
    if (settings.slopeMaskEnabled) {
      Grid2D<platform::Vector> normals;
      VLGD_RETURN_IF_ERROR(normals.ComputeNormals(terrain));
      std::vector<Float> slopes;
      VLGD_RETURN_IF_ERROR(platform::TryResize(slopes, static_cast<size_t>(normals.Count())));
      const std::span<const platform::Vector> normal = normals.Values();
      for (size_t i = 0; i < slopes.size(); ++i) {
        const Float length = platform::Length(normal[i]);
        const Float cosine = length > 0.0 ? std::clamp(normal[i].y / length, -1.0, 1.0) : 1.0;
        slopes[i] = std::acos(cosine) / kHalfPi;
      }
      VLGD_RETURN_IF_ERROR(ApplyRange(mask_, slopes, settings.slopeMaskParams, context.thread));
    }
    if (settings.heightMaskEnabled) {
      if (terrain.IsEmpty()) return platform::GenericError("terrain size must not be 0!");
      VLGD_RETURN_IF_ERROR(ApplyRange(mask_, terrain.Values(), settings.heightMaskParams, context.thread));
    }
  }
  return Combine(terrain, result_, mask_, settings);
}

namespace {

platform::Description BaseTerrainOperatorDescription() {
  platform::Description description;
  description.resourceName = "Obaseterrainoperator";
  using platform::DescribeParameter;
  const auto fraction = [](ParameterId id, const char* symbol, Float value) {
    return DescribeParameter(id, symbol, ValueType::FLOAT, value).Limits(0.0, 1.0);
  };
  const auto height = [](ParameterId id, const char* symbol, Float value) {
    return DescribeParameter(id, symbol, ValueType::FLOAT, value)
        .Limits(-kMaxWorldDistance, kMaxWorldDistance, "units");
  };
  ParameterDescription version =
      DescribeParameter(TERRAINOPERATOR_VERSION, "TERRAINOPERATOR_VERSION", ValueType::INT32, kTerrainOperatorVersion)
          .Limits(0.0, std::numeric_limits<Int32>::max());
  version.readOnly = true;
  ParameterDescription exportButton =
      DescribeParameter(TERRAINOPERATOR_EXPORT_CHANGEMAP, "TERRAINOPERATOR_EXPORT_CHANGEMAP", ValueType::NONE, Value{});
  exportButton.kind = ParameterKind::BUTTON;
  ParameterDescription status =
      DescribeParameter(TERRAINOPERATOR_STATUS, "TERRAINOPERATOR_STATUS", ValueType::STRING, Value{});
  status.readOnly = true;
  description.parameters = {
      fraction(TERRAINOPERATOR_STRENGTH, "TERRAINOPERATOR_STRENGTH", 1.0),
      DescribeParameter(TERRAINOPERATOR_BLENDMODE, "TERRAINOPERATOR_BLENDMODE", ValueType::INT32, Int32{0})
          .Choice("BLENDMODE", static_cast<Int32>(BLENDMODE::NORMAL), static_cast<Int32>(BLENDMODE::HARDLIGHT)),
      // A multiplier of the operator's heights, as a height per unit of its output.
      height(TERRAINOPERATOR_HEIGHTSCALE, "TERRAINOPERATOR_HEIGHTSCALE", 1.0),
      height(TERRAINOPERATOR_OFFSET, "TERRAINOPERATOR_OFFSET", 0.0),
      DescribeParameter(TERRAINOPERATOR_FACTOR, "TERRAINOPERATOR_FACTOR", ValueType::FLOAT, 1.0)
          .Limits(-1000.0, 1000.0),
      version,
      exportButton,
      status,
      DescribeParameter(TERRAINOPERATOR_MASKING_FIELDS_LIST, "TERRAINOPERATOR_MASKING_FIELDS_LIST",
                        ValueType::FIELDLIST, platform::FieldList{}),
      DescribeParameter(TERRAINOPERATOR_MASKING_SLOPE_ENABLED, "TERRAINOPERATOR_MASKING_SLOPE_ENABLED", ValueType::BOOL,
                        false),
      // Slopes as a share of a right angle, 0 flat to 1 vertical; falloffs as a share of the range.
      fraction(TERRAINOPERATOR_MASKING_SLOPE_LOW, "TERRAINOPERATOR_MASKING_SLOPE_LOW", 0.0),
      fraction(TERRAINOPERATOR_MASKING_SLOPE_HIGH, "TERRAINOPERATOR_MASKING_SLOPE_HIGH", 1.0),
      fraction(TERRAINOPERATOR_MASKING_SLOPE_LOWFALLOFF, "TERRAINOPERATOR_MASKING_SLOPE_LOWFALLOFF", 0.0),
      fraction(TERRAINOPERATOR_MASKING_SLOPE_HIGHFALLOFF, "TERRAINOPERATOR_MASKING_SLOPE_HIGHFALLOFF", 0.0),
      DescribeParameter(TERRAINOPERATOR_MASKING_HEIGHT_ENABLED, "TERRAINOPERATOR_MASKING_HEIGHT_ENABLED",
                        ValueType::BOOL, false),
      height(TERRAINOPERATOR_MASKING_HEIGHT_LOW, "TERRAINOPERATOR_MASKING_HEIGHT_LOW", 0.0),
      height(TERRAINOPERATOR_MASKING_HEIGHT_HIGH, "TERRAINOPERATOR_MASKING_HEIGHT_HIGH", 100.0),
      fraction(TERRAINOPERATOR_MASKING_HEIGHT_LOWFALLOFF, "TERRAINOPERATOR_MASKING_HEIGHT_LOWFALLOFF", 0.0),
      fraction(TERRAINOPERATOR_MASKING_HEIGHT_HIGHFALLOFF, "TERRAINOPERATOR_MASKING_HEIGHT_HIGHFALLOFF", 0.0),
  };
  return description;
}

}  // namespace

const platform::TypeDescriptor& BaseTerrainOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::DESCRIPTION,
                                             .id = ID_BASETERRAINOPERATOR,
                                             .resourceName = "Obaseterrainoperator",
                                             .describe = BaseTerrainOperatorDescription};
  return type;
}

}  // namespace VLGD
