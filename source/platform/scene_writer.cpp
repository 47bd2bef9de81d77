// Saving scene files.

#include "platform/scene_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <new>
#include <numbers>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/file_output.h"
#include "platform/scene_codec.h"

namespace platform {
namespace {

using namespace scene_internal;

class SceneWriter {
 public:
  explicit SceneWriter(const Document& document) : document_(document), registry_(document.GetHost().GetRegistry()) {}

  Result<std::string> Write() {
    std::vector<Node*> nodes = document_.AllNodes();
    const std::vector<Node*> materials = document_.AllMaterials();
    nodes.insert(nodes.end(), materials.begin(), materials.end());
    for (std::size_t i = 0; i < nodes.size(); ++i) indexOf_.emplace(nodes[i]->Identity(), static_cast<Int>(i));
    for (const Node* node : nodes) MarkTargets(*node);

    OrderedJson root = OrderedJson::object();
    root["vellgrund"] = kFormatVersion;
    VLGD_RETURN_IF_ERROR(WritePreferences(root));
    OrderedJson objects = OrderedJson::array();
    Int index = 0;
    for (const Node* node = document_.GetFirstObject(); node != nullptr; node = node->GetNext(), ++index) {
      VLGD_ASSIGN_OR_RETURN(OrderedJson written, WriteNode(*node, "objects[" + std::to_string(index) + "]", 0));
      objects.push_back(std::move(written));
    }
    root["objects"] = std::move(objects);
    if (document_.GetFirstMaterial() != nullptr) {
      OrderedJson written = OrderedJson::array();
      VLGD_RETURN_IF_ERROR(WriteList(document_.GetFirstMaterial(), "materials", 0, written));
      root["materials"] = std::move(written);
    }
    std::string text;
    AppendPretty(root, 0, text);
    text += '\n';
    return text;
  }

 private:
  // Nodes that links name get an "id": their depth-first index.
  void MarkTargets(const Node& node) {
    for (const NodeLink& link : node.GetTextureLinks()) MarkTarget(link.target);
    for (const auto& [id, value] : node.GetData().Entries()) {
      const ParameterDescription* parameter = node.GetTypeInfo().description.Find(id);
      if (parameter == nullptr || !IsStored(*parameter)) continue;
      if (const auto* link = std::get_if<NodeLink>(&value.Data())) MarkTarget(link->target);
      if (const auto* list = std::get_if<FieldList>(&value.Data()))
        for (const FieldLayer& layer : list->Layers()) MarkTarget(layer.field);
      if (const auto* list = std::get_if<NodeLinkList>(&value.Data()))
        for (const UInt64 target : list->targets) MarkTarget(target);
    }
  }
  void MarkTarget(UInt64 identity) {
    if (identity != 0 && indexOf_.contains(identity)) targets_.insert(identity);
  }
  // The "id" key of a node of the document, or null for a link that does not resolve.
  OrderedJson KeyOf(UInt64 identity) const {
    const auto found = indexOf_.find(identity);
    return found != indexOf_.end() && identity != 0 ? OrderedJson(std::to_string(found->second)) : OrderedJson();
  }

  Status WritePreferences(OrderedJson& root) const {
    const auto& overrides = document_.WorldOverrides();
    if (overrides.empty()) return Ok();
    const Int32 mainPage = document_.GetHost().GetPreferences().MainPage();
    std::vector<Int32> ids;
    for (const auto& [id, container] : overrides) ids.push_back(id);
    std::sort(ids.begin(), ids.end(),
              [mainPage](Int32 a, Int32 b) { return (a == mainPage) != (b == mainPage) ? a == mainPage : a < b; });
    OrderedJson preferences = OrderedJson::object();
    for (const Int32 id : ids) {
      OrderedJson values = OrderedJson::object();
      for (const auto& [key, value] : overrides.at(id).Entries()) {
        const std::string where = "preference '" + std::to_string(id) + "." + std::to_string(key) + "'";
        VLGD_ASSIGN_OR_RETURN(values[std::to_string(key)], Within(WritePreference(value), where));
      }
      // The world container's keys sit at the top, unless it is empty beside others (an
      // empty "preferences" would not tell that it is overridden).
      if (id == mainPage && (!values.empty() || ids.size() == 1)) {
        preferences = std::move(values);
      } else {
        preferences[std::to_string(id)] = std::move(values);
      }
    }
    root["preferences"] = std::move(preferences);
    return Ok();
  }

  Result<OrderedJson> WriteNode(const Node& node, const std::string& path, Int depth) const {
    const PluginInfo& info = node.GetTypeInfo();
    const std::string where = node.GetName().empty() ? path : path + " '" + node.GetName() + "'";
    OrderedJson out = OrderedJson::object();
    out["type"] = info.resourceName.empty() ? OrderedJson(info.id) : OrderedJson(info.resourceName);
    out["name"] = node.GetName();
    if (targets_.contains(node.Identity())) out["id"] = KeyOf(node.Identity());
    if (!node.IsEnabled()) out["enabled"] = false;
    if (node.GetEditorVisibility() != Visibility::DEFAULT)
      out["editor_visible"] = VisibilityName(node.GetEditorVisibility());
    if (node.GetRenderVisibility() != Visibility::DEFAULT)
      out["render_visible"] = VisibilityName(node.GetRenderVisibility());
    if (node.GetMl() != IdentityMatrix()) {
      VLGD_ASSIGN_OR_RETURN(out["matrix"], Within(WriteMatrix(node.GetMl()), where + ": 'matrix'"));
    }
    OrderedJson params = OrderedJson::object();
    for (const auto& [id, value] : node.GetData().Entries()) {
      const ParameterDescription* parameter = info.description.Find(id);
      if (parameter == nullptr || !IsStored(*parameter) || value.Type() == ValueType::NONE) continue;
      const std::string key = ParameterKey(*parameter);
      VLGD_ASSIGN_OR_RETURN(params[key], Within(WriteValue(*parameter, value), where + ": parameter '" + key + "'"));
    }
    if (!params.empty()) out["params"] = std::move(params);
    if (!node.GetTextureLinks().empty()) {
      OrderedJson materials = OrderedJson::array();
      for (const NodeLink& link : node.GetTextureLinks()) materials.push_back(KeyOf(link.target));
      out["materials"] = std::move(materials);
    }
    for (const auto& [first, key] : {std::pair{node.GetDown(), "children"}, std::pair{node.GetBranch(), "shaders"}}) {
      if (first == nullptr) continue;
      if (depth >= kMaxChildDepth)
        return IllegalArgumentError(where + ": " + key + " nested deeper than " + std::to_string(kMaxChildDepth) +
                                    " levels");
      OrderedJson list = OrderedJson::array();
      VLGD_RETURN_IF_ERROR(WriteList(first, path + "." + key, depth + 1, list));
      out[key] = std::move(list);
    }
    return out;
  }

  Status WriteList(const Node* first, const std::string& path, Int depth, OrderedJson& list) const {
    Int index = 0;
    for (const Node* node = first; node != nullptr; node = node->GetNext(), ++index) {
      VLGD_ASSIGN_OR_RETURN(OrderedJson written, WriteNode(*node, path + "[" + std::to_string(index) + "]", depth));
      list.push_back(std::move(written));
    }
    return Ok();
  }

 public:
  Result<OrderedJson> WriteValue(const ParameterDescription& parameter, const Value& value) const {
    const bool numeric = parameter.type == ValueType::BOOL || parameter.type == ValueType::INT32 ||
                         parameter.type == ValueType::INT64 || parameter.type == ValueType::FLOAT;
    // Numbers are written as the described type; anything else must be stored as described.
    if (numeric ? !IsNumber(value) : value.Type() != parameter.type)
      return IllegalArgumentError(std::string("holds a ") + TypeName(value.Type()) + " value where a " +
                                  TypeName(parameter.type) + " is described");
    switch (parameter.type) {
      case ValueType::BOOL:
        return OrderedJson(value.ToBool(false));
      case ValueType::INT32: {
        const Int32 number = value.ToInt32(0);
        if (const Enumeration* enumeration = registry_.Enumerations().Find(parameter.enumeration)) {
          // A name only where it reads back as the same number.
          const std::optional<std::string> name = enumeration->NameOf(number);
          if (name && EnumValueOf(*enumeration, *name) == Int{number}) return OrderedJson(*name);
        }
        return OrderedJson(number);
      }
      case ValueType::INT64:
        return OrderedJson(value.ToInt64(0));
      case ValueType::FLOAT: {
        const Float number = value.ToFloat(0.0);
        if (!std::isfinite(number)) return IllegalArgumentError("the number is not finite");
        return OrderedJson(number);
      }
      case ValueType::VECTOR:
        return WriteVector(std::get<Vector>(value.Data()));
      case ValueType::STRING:
        return OrderedJson(std::get<std::string>(value.Data()));
      case ValueType::CURVE:
        return WriteCurve(std::get<SplineData>(value.Data()));
      case ValueType::FIELDLIST:
        return WriteFieldList(std::get<FieldList>(value.Data()));
      case ValueType::LINK: {
        OrderedJson key = KeyOf(std::get<NodeLink>(value.Data()).target);
        if (key.is_null()) return key;
        OrderedJson out = OrderedJson::object();
        out["link"] = std::move(key);
        return out;
      }
      case ValueType::MATRIX:
        return WriteMatrix(std::get<Matrix>(value.Data()));
      case ValueType::LINKLIST: {
        OrderedJson entries = OrderedJson::array();
        for (const UInt64 target : std::get<NodeLinkList>(value.Data()).targets) entries.push_back(KeyOf(target));
        OrderedJson out = OrderedJson::object();
        out["links"] = std::move(entries);
        return out;
      }
      case ValueType::SPLINEPATH:
        return WriteSplinePath(std::get<SplinePath>(value.Data()));
      default:
        return IllegalArgumentError("has no value");
    }
  }

 private:

  static Result<OrderedJson> WriteCurve(const SplineData& curve) {
    OrderedJson knots = OrderedJson::array();
    for (Int32 i = 0; i < curve.GetKnotCount(); ++i) {
      const SplineKnot& knot = *curve.GetKnot(i);
      if (!IsFinite(knot.position) || !IsFinite(knot.leftTangent) || !IsFinite(knot.rightTangent))
        return IllegalArgumentError("knot " + std::to_string(i) + " is not finite");
      OrderedJson out = OrderedJson::object();
      out["position"] = OrderedJson::array({knot.position.x, knot.position.y});
      out["left"] = OrderedJson::array({knot.leftTangent.x, knot.leftTangent.y});
      out["right"] = OrderedJson::array({knot.rightTangent.x, knot.rightTangent.y});
      out["flags"] = knot.flags;
      knots.push_back(std::move(out));
    }
    OrderedJson out = OrderedJson::object();
    out["knots"] = std::move(knots);
    return out;
  }

  static Result<OrderedJson> WriteSplinePath(const SplinePath& path) {
    OrderedJson points = OrderedJson::array();
    for (const SplinePoint& point : path.points) {
      if (!IsFinite(point.position) || !IsFinite(point.left) || !IsFinite(point.right))
        return IllegalArgumentError("point " + std::to_string(points.size()) + " is not finite");
      OrderedJson out = OrderedJson::object();
      out["position"] = OrderedJson::array({point.position.x, point.position.y, point.position.z});
      out["left"] = OrderedJson::array({point.left.x, point.left.y, point.left.z});
      out["right"] = OrderedJson::array({point.right.x, point.right.y, point.right.z});
      points.push_back(std::move(out));
    }
    OrderedJson out = OrderedJson::object();
    out["points"] = std::move(points);
    return out;
  }

  Result<OrderedJson> WriteFieldList(const FieldList& list) const {
    OrderedJson layers = OrderedJson::array();
    for (const FieldLayer& layer : list.Layers()) {
      const auto* blend = std::find_if(std::begin(kFieldBlendNames), std::end(kFieldBlendNames),
                                       [&](const auto& entry) { return entry.first == layer.blend; });
      if (blend == std::end(kFieldBlendNames) || !std::isfinite(layer.opacity))
        return IllegalArgumentError("layer " + std::to_string(layers.size()) + " has no valid blend mode or opacity");
      OrderedJson out = OrderedJson::object();
      out["field"] = KeyOf(layer.field);
      out["opacity"] = layer.opacity;
      out["blend"] = blend->second;
      out["enabled"] = layer.enabled;
      layers.push_back(std::move(out));
    }
    OrderedJson out = OrderedJson::object();
    out["layers"] = std::move(layers);
    return out;
  }

  const Document& document_;
  const Registry& registry_;
  std::unordered_map<UInt64, Int> indexOf_;
  std::unordered_set<UInt64> targets_;
};

}  // namespace

Result<std::string> SaveScene(const Document& document) {
  try {
    return SceneWriter(document).Write();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::length_error&) {
    return OutOfMemoryError();
  } catch (const std::exception& exception) {  // the JSON library refuses text that is not UTF-8
    return IllegalArgumentError(std::string("The scene cannot be written: ") + exception.what());
  }
}

Result<std::string> WriteParameterValue(const Node& node, const ParameterDescription& parameter) {
  if (node.GetDocument() == nullptr) return IllegalArgumentError("The node is not in a document!");
  if (parameter.type == ValueType::LINK || parameter.type == ValueType::FIELDLIST ||
      parameter.type == ValueType::LINKLIST)
    return IllegalArgumentError(std::string("a ") + TypeName(parameter.type) + " is only written within a scene file");
  const Value* value = node.GetData().Find(parameter.id);
  if (value == nullptr) return std::string("null");
  try {
    VLGD_ASSIGN_OR_RETURN(const OrderedJson json,
                          Within(SceneWriter(*node.GetDocument()).WriteValue(parameter, *value), parameter.symbol));
    return json.dump();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::exception& exception) {
    return IllegalArgumentError(parameter.symbol + ": " + exception.what());
  }
}

Status SaveSceneFile(const Document& document, const std::filesystem::path& file) {
  VLGD_ASSIGN_OR_RETURN(const std::string text, SaveScene(document));
  return WriteFileAtomically(file, [&](std::ostream& stream) -> Status {
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    return Ok();
  });
}

}  // namespace platform
