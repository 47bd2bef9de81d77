// Loading scene files.

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

#include "platform/scene_codec.h"
#include "platform/strings.h"

namespace platform {
namespace {

using namespace scene_internal;

class SceneReader {
 public:
  explicit SceneReader(Host& host) : host_(host), registry_(host.GetRegistry()) {}

  Result<std::unique_ptr<Document>> Read(std::string_view text) {
    VLGD_ASSIGN_OR_RETURN(const Json root, ParseStrictJson(text));
    if (!root.is_object()) return IllegalArgumentError("not a scene file: expected a JSON object, not " + KindOf(root));
    VLGD_RETURN_IF_ERROR(OnlyKeys(root, {"vellgrund", "preferences", "objects", "materials"}));

    const Json* version = Member(root, "vellgrund");
    if (version == nullptr) return IllegalArgumentError("not a scene file: the format number 'vellgrund' is missing");
    const std::optional<Int> format = IntegerOf(*version);
    if (!format && version->is_number_integer())  // beyond any integer we read
      return IllegalArgumentError("'vellgrund': format " + version->dump() + " was written by a newer version");
    if (!format || *format < 1)
      return IllegalArgumentError("'vellgrund': expected the format number 1, not " + Excerpt(version->dump()));
    if (*format > kFormatVersion)
      return IllegalArgumentError("'vellgrund': format " + std::to_string(*format) + " was written by a newer version");

    document_ = std::make_unique<Document>(host_);
    if (const Json* preferences = Member(root, "preferences")) VLGD_RETURN_IF_ERROR(ReadPreferences(*preferences));
    if (const Json* objects = Member(root, "objects")) {
      if (!objects->is_array()) return IllegalArgumentError("'objects': expected an array, not " + KindOf(*objects));
      VLGD_RETURN_IF_ERROR(ReadNodes(*objects, "objects", nullptr, 0, ListKind::OBJECTS));
    }
    if (const Json* materials = Member(root, "materials")) {
      if (!materials->is_array())
        return IllegalArgumentError("'materials': expected an array, not " + KindOf(*materials));
      VLGD_RETURN_IF_ERROR(ReadNodes(*materials, "materials", nullptr, 0, ListKind::MATERIALS));
    }
    VLGD_RETURN_IF_ERROR(ResolveLinks());
    VLGD_RETURN_IF_ERROR(ResolveTextureLinks());
    // Conversions run once the whole scene is there, links included.
    for (const PendingRead& read : reads_) {
      NodeData* data = read.node->GetNodeData();
      if (data != nullptr && !data->Read(*read.node, read.level))
        return IllegalArgumentError(read.where + ": could not convert from disk level " + std::to_string(read.level));
    }
    // Then each node learns which values the file gave, to act on them as on an edit.
    for (PendingRead& read : reads_) {
      MessageData message;
      message.payload = std::move(read.given);
      read.node->Message(MSG_DESCRIPTION_READ, message);
    }
    return std::move(document_);
  }

 private:
  // A link whose target is known only once every node exists.
  struct PendingLink {
    Node* node;
    ParameterId parameter;
    Int layer;  // the field list layer or link list entry, or -1 for a link parameter
    std::string key;
    std::string where;
    bool linkList = false;  // `layer` is an entry of a link list
  };
  struct PendingRead {
    Node* node;
    Int32 level;
    std::string where;
    std::vector<ParameterId> given;  // the parameters the file gave
  };

  // Which node types a list holds: objects and their children, the document's materials,
  // or a shader tree (a material's or shader's "shaders" and a shader's "children").
  enum class ListKind { OBJECTS, MATERIALS, SHADERS };
  static constexpr UInt32 kTreeKinds = OBJECT_MATERIAL | OBJECT_SHADER;
  static bool Holds(ListKind kind, const PluginInfo& info) {
    switch (kind) {
      case ListKind::OBJECTS:
        return (info.objectInfo & kTreeKinds) == 0;
      case ListKind::MATERIALS:
        return (info.objectInfo & OBJECT_MATERIAL) != 0;
      case ListKind::SHADERS:
        return (info.objectInfo & OBJECT_SHADER) != 0;
    }
    return false;
  }
  static const char* ExpectedType(ListKind kind) {
    switch (kind) {
      case ListKind::OBJECTS:
        return "an object type (materials and shaders have lists of their own)";
      case ListKind::MATERIALS:
        return "a material type";
      case ListKind::SHADERS:
        return "a shader type";
    }
    return "";
  }

  // {"<key>": value, ...} for the world preferences, and {"<container ID>": {...}} for
  // other containers; preference values are never objects, so the two cannot be confused.
  Status ReadPreferences(const Json& preferences) {
    if (!preferences.is_object()) return Within<void>(Expected("an object", preferences), "'preferences'");
    std::map<Int32, std::map<Int32, Value>> containers;
    auto add = [&](Int32 container, const std::string& key, const Json& json, const std::string& where) -> Status {
      Int32 id = 0;
      if (!ParseId(key, id)) return IllegalArgumentError(where + ": a preference key must be a decimal ID");
      Value value;
      if (json.is_boolean()) {
        value = json.get<bool>();
      } else if (json.is_number_integer()) {
        const std::optional<Int> number = IntegerOf(json);
        if (!number) return IllegalArgumentError(where + ": " + json.dump() + " is out of range");
        if (*number >= std::numeric_limits<Int32>::min() && *number <= std::numeric_limits<Int32>::max())
          value = static_cast<Int32>(*number);
        else
          value = *number;
      } else if (json.is_number_float()) {
        VLGD_ASSIGN_OR_RETURN(const Float number, Within(ReadNumber(json), where));
        value = number;
      } else if (json.is_string()) {
        value = json.get<std::string>();
      } else if (json.is_array()) {
        VLGD_ASSIGN_OR_RETURN(const Vector vector, Within(ReadVector(json, 3), where));
        value = vector;
      } else {
        return IllegalArgumentError(where + ": expected a boolean, number, string or [x, y, z], not " + KindOf(json));
      }
      if (!containers[container].emplace(id, std::move(value)).second)
        return IllegalArgumentError(where + ": given twice");
      return Ok();
    };
    const Int32 mainPage = host_.GetPreferences().MainPage();
    for (const auto& [key, json] : preferences.get_ref<const Json::object_t&>()) {
      const std::string where = "preference '" + Excerpt(key) + "'";
      if (!json.is_object()) {
        if (mainPage == 0)
          return IllegalArgumentError(where + ": no module has a preference page; give the page's ID around it");
        VLGD_RETURN_IF_ERROR(add(mainPage, key, json, where));
        continue;
      }
      Int32 container = 0;
      if (!ParseId(key, container))
        return IllegalArgumentError(where + ": a preference container must be a decimal ID");
      containers[container];  // an empty container is still an override
      for (const auto& [innerKey, innerJson] : json.get_ref<const Json::object_t&>())
        VLGD_RETURN_IF_ERROR(
            add(container, innerKey, innerJson, "preference '" + Excerpt(key) + "." + Excerpt(innerKey) + "'"));
    }
    if (preferences.empty() && mainPage != 0) containers[mainPage];
    for (auto& [container, values] : containers) {
      ParameterContainer& target = document_->OverrideWorldPluginData(container);
      for (auto& [id, value] : values) {
        if (const Value* existing = target.Find(id)) value = Widened(std::move(value), existing->Type());
        VLGD_RETURN_IF_ERROR(target.Set(id, std::move(value)));
      }
    }
    return Ok();
  }

  // An integer read for a key that holds an Int64 or a Float takes that type, as the
  // application's preferences file does; nothing narrows.
  static Value Widened(Value value, ValueType type) {
    if (value.Type() == ValueType::INT32 && type == ValueType::INT64) return Value(value.ToInt64(0));
    if ((value.Type() == ValueType::INT32 || value.Type() == ValueType::INT64) && type == ValueType::FLOAT)
      return Value(value.ToFloat(0.0));
    return value;
  }

  // `branch`: the list is the second branch of `parent` (of the document for materials).
  Status ReadNodes(const Json& list, const std::string& path, Node* parent, Int depth, ListKind kind,
                   bool branch = false) {
    Node* previous = nullptr;
    branch = branch || kind == ListKind::MATERIALS;
    for (std::size_t i = 0; i < list.size(); ++i) {
      VLGD_ASSIGN_OR_RETURN(
          previous, ReadNode(list[i], path + "[" + std::to_string(i) + "]", parent, previous, depth, kind, branch));
    }
    return Ok();
  }

  // Inserts the node after `previous`, or first in `parent`'s list when that is nullptr.
  Result<Node*> ReadNode(const Json& object, const std::string& path, Node* parent, Node* previous, Int depth,
                         ListKind kind, bool branch) {
    if (!object.is_object()) return Within<Node*>(Expected("an object", object), path);
    if (++nodeCount_ > kMaxNodes)
      return IllegalArgumentError(path + ": the scene has more than " + std::to_string(kMaxNodes) + " objects");
    // The name comes first, so that every later message can name the node.
    std::string where = path;
    const Json* name = Member(object, "name");
    if (name != nullptr) {
      if (!name->is_string()) return Within<Node*>(Expected("a string", *name), where + ": 'name'");
      const auto& text = name->get_ref<const std::string&>();
      if (text.size() > kMaxNameBytes)
        return IllegalArgumentError(where + ": 'name': " + std::to_string(text.size()) +
                                    " bytes long; names may be at most " + std::to_string(kMaxNameBytes) + " bytes");
      where += " '" + Excerpt(text) + "'";
    }
    VLGD_RETURN_IF_ERROR(Within<void>(
        OnlyKeys(object, {"type", "name", "id", "enabled", "editor_visible", "render_visible", "level", "matrix",
                          "position", "rotation", "scale", "params", "children", "shaders", "materials"}),
        where));

    const Json* type = Member(object, "type");
    if (type == nullptr) return IllegalArgumentError(where + ": 'type' is missing");
    VLGD_ASSIGN_OR_RETURN(const PluginInfo* info, Within(FindType(*type), where + ": 'type'"));
    if (!Holds(kind, *info))
      return IllegalArgumentError(where + ": 'type': " + Excerpt(type->dump()) + " cannot stand here; expected " +
                                  ExpectedType(kind));
    auto created = document_->CreateNode(info->id);
    if (!created) return Within<Node*>(std::unexpected(created.error()), where + ": 'type'");
    std::unique_ptr<Node> node = std::move(*created);

    if (name != nullptr) node->SetName(name->get<std::string>());
    if (const Json* enabled = Member(object, "enabled")) {
      VLGD_ASSIGN_OR_RETURN(const bool on, Within(ReadBool(*enabled), where + ": 'enabled'"));
      node->SetEnabled(on);
    }
    if (const Json* visible = Member(object, "editor_visible")) {
      VLGD_ASSIGN_OR_RETURN(const Visibility mode, Within(ReadVisibility(*visible), where + ": 'editor_visible'"));
      node->SetEditorVisibility(mode);
    }
    if (const Json* visible = Member(object, "render_visible")) {
      VLGD_ASSIGN_OR_RETURN(const Visibility mode, Within(ReadVisibility(*visible), where + ": 'render_visible'"));
      node->SetRenderVisibility(mode);
    }
    Int32 level = info->diskLevel;
    if (const Json* written = Member(object, "level")) {
      VLGD_ASSIGN_OR_RETURN(level, Within(ReadInt32(*written), where + ": 'level'"));
    }
    VLGD_RETURN_IF_ERROR(ReadNodeMatrix(object, *node, where));
    std::vector<ParameterId> given;
    if (const Json* params = Member(object, "params"))
      VLGD_RETURN_IF_ERROR(ReadParameters(*params, *node, where, given));
    if (const Json* id = Member(object, "id")) {
      VLGD_ASSIGN_OR_RETURN(std::string key, Within(ReadKey(*id), where + ": 'id'"));
      if (!keys_.emplace(key, node.get()).second)
        return IllegalArgumentError(where + ": 'id': another object has the id '" + Excerpt(key) + "' already");
    }

    Node* inserted = previous != nullptr ? document_->InsertAfter(std::move(node), *previous)
                     : branch            ? document_->InsertBranchLast(std::move(node), parent)
                                         : document_->InsertFirst(std::move(node), parent);
    reads_.push_back({inserted, level, where, std::move(given)});

    if (const Json* materials = Member(object, "materials")) {
      if (kind != ListKind::OBJECTS)
        return IllegalArgumentError(where + ": 'materials': only objects are textured with materials");
      if (!materials->is_array()) return Within<Node*>(Expected("an array", *materials), where + ": 'materials'");
      for (std::size_t i = 0; i < materials->size(); ++i) {
        const std::string at = where + ": 'materials'[" + std::to_string(i) + "]";
        VLGD_ASSIGN_OR_RETURN(std::string key, Within(ReadKey((*materials)[i]), at));
        textureLinks_.push_back({inserted, 0, -1, std::move(key), at});
      }
    }
    // A shader's inputs are shaders; an object's children objects; a material has shaders only.
    const ListKind childKind = kind == ListKind::OBJECTS ? ListKind::OBJECTS : ListKind::SHADERS;
    for (const auto& [key, inBranch] : {std::pair{"children", false}, std::pair{"shaders", true}}) {
      const Json* list = Member(object, key);
      if (list == nullptr) continue;
      const std::string at = where + ": '" + key + "'";
      if (!list->is_array()) return Within<Node*>(Expected("an array", *list), at);
      if (list->empty()) continue;
      if (inBranch ? kind == ListKind::OBJECTS : kind == ListKind::MATERIALS)
        return IllegalArgumentError(
            at + ": " +
            (inBranch ? "only materials and shaders hold shaders" : "a material holds its shaders in 'shaders'"));
      if (depth >= kMaxChildDepth)
        return IllegalArgumentError(at + ": nested deeper than " + std::to_string(kMaxChildDepth) + " levels");
      VLGD_RETURN_IF_ERROR(ReadNodes(*list, path + "." + key, inserted, depth + 1, childKind, inBranch));
    }
    return inserted;
  }

  // A resource name or a plug-in ID of an object type.
  Result<const PluginInfo*> FindType(const Json& type) const {
    const PluginInfo* info = nullptr;
    if (type.is_string()) {
      info = registry_.FindByResourceName(type.get_ref<const std::string&>());
    } else if (type.is_number_integer()) {
      VLGD_ASSIGN_OR_RETURN(const Int32 id, ReadInt32(type));
      info = registry_.Find(id);
    } else {
      return Expected("a type name or plug-in ID", type);
    }
    if (info == nullptr || info->kind != PluginKind::OBJECT)
      return IllegalArgumentError(Excerpt(type.dump()) + " is not a registered object type");
    return info;
  }

  // "id" keys and the links that name them: strings, or integers standing for their
  // decimal text.
  static Result<std::string> ReadKey(const Json& key) {
    if (key.is_string()) return key.get<std::string>();
    if (key.is_number_integer()) return key.dump();
    return Expected("a string or an integer", key);
  }

  static Status ReadNodeMatrix(const Json& object, Node& node, const std::string& where) {
    const Json* matrix = Member(object, "matrix");
    const bool parts = Member(object, "position") || Member(object, "rotation") || Member(object, "scale");
    if (matrix != nullptr && parts)
      return IllegalArgumentError(where + ": 'matrix': not together with 'position', 'rotation' or 'scale'");
    if (matrix != nullptr) {
      VLGD_ASSIGN_OR_RETURN(const Matrix m, Within(ReadMatrix(*matrix), where + ": 'matrix'"));
      node.SetMl(m);
    } else if (parts) {
      Json composed = Json::object();
      for (const char* key : {"position", "rotation", "scale"})
        if (const Json* part = Member(object, key)) composed[key] = *part;
      VLGD_ASSIGN_OR_RETURN(const Matrix m, Within(ReadMatrix(composed), where));
      node.SetMl(m);
    }
    return Ok();
  }

  Status ReadParameters(const Json& params, Node& node, const std::string& where, std::vector<ParameterId>& given) {
    if (!params.is_object()) return Within<void>(Expected("an object", params), where + ": 'params'");
    const FlatDescription& description = node.GetTypeInfo().description;
    std::unordered_set<ParameterId> seen;
    for (const auto& [key, json] : params.get_ref<const Json::object_t&>()) {
      const std::string at = where + ": parameter '" + Excerpt(key) + "'";
      const ParameterDescription* parameter = FindParameter(description, key);
      if (parameter == nullptr)
        return IllegalArgumentError(at + ": not a parameter of '" + node.GetTypeInfo().resourceName + "'");
      if (parameter->kind != ParameterKind::VALUE || parameter->type == ValueType::NONE)
        return IllegalArgumentError(at + ": has no value");
      if (!seen.insert(parameter->id).second) return IllegalArgumentError(at + ": the parameter is given twice");
      std::vector<PendingLink> links;
      VLGD_ASSIGN_OR_RETURN(Value value, Within(ReadValue(*parameter, json, node, at, links), at));
      // Read-only values are status texts the node writes itself: checked, then dropped.
      if (parameter->readOnly) continue;
      VLGD_RETURN_IF_ERROR(node.GetDataInstance().Set(parameter->id, std::move(value)));
      given.push_back(parameter->id);
      for (PendingLink& link : links) links_.push_back(std::move(link));
    }
    return Ok();
  }

  // A file's number outside its parameter's limits is brought inside, as an editor's field
  // would, with a warning naming the node, the parameter and both values.
  void WarnClamped(const Node& node, const std::string& symbol, const ParameterDescription& parameter,
                   const std::string& given, const std::string& used, bool below, bool whole) const {
    const std::string& name = node.GetName().empty() ? node.GetTypeInfo().resourceName : node.GetName();
    // A whole number's limit is the nearest whole number inside: what it is clamped to.
    const Float limit = below ? *parameter.minimum : *parameter.maximum;
    const std::string limitText = whole ? used : NumberText(limit);
    host_.Warn("Warning: '" + name + "' parameter " + symbol + ": " + given + " is " + (below ? "below" : "above") +
               " the " + (below ? "minimum " : "maximum ") + limitText + "; using " + used + ".");
  }

  Int ClampInteger(const Node& node, const ParameterDescription& parameter, Int value) const {
    const Int used = ClampToLimits(parameter, value);
    if (used != value)
      WarnClamped(node, parameter.symbol, parameter, std::to_string(value), std::to_string(used), used > value, true);
    return used;
  }

  Float ClampNumber(const Node& node, const std::string& symbol, const ParameterDescription& parameter,
                    Float value) const {
    const Float used = ClampToLimits(parameter, value);
    if (used != value) WarnClamped(node, symbol, parameter, NumberText(value), NumberText(used), used > value, false);
    return used;
  }

  // A choice must name a member: there is no nearest one to fall back on.
  static std::unexpected<Error> NotAMember(const std::string& given, const Enumeration& enumeration) {
    std::string valid;
    for (const EnumMember& member : enumeration.members) valid += (valid.empty() ? "" : ", ") + member.name;
    return IllegalArgumentError(given + " is not a member of " + enumeration.name + " (valid: " + valid + ")");
  }

  // A value outside a file: nothing to link to.
 public:
  Result<Value> ReadLooseValue(const ParameterDescription& parameter, const Json& json, Node& node) {
    if (parameter.type == ValueType::LINK || parameter.type == ValueType::FIELDLIST ||
        parameter.type == ValueType::LINKLIST)
      return IllegalArgumentError(std::string("a ") + TypeName(parameter.type) + " is only read within a scene file");
    std::vector<PendingLink> links;
    return ReadValue(parameter, json, node, parameter.symbol, links);
  }

 private:

  Result<Value> ReadValue(const ParameterDescription& parameter, const Json& json, Node& node, const std::string& where,
                          std::vector<PendingLink>& links) {
    switch (parameter.type) {
      case ValueType::BOOL: {
        VLGD_ASSIGN_OR_RETURN(const bool value, ReadBool(json));
        return Value(value);
      }
      case ValueType::INT32: {
        const Enumeration* enumeration =
            parameter.enumeration.empty() ? nullptr : registry_.Enumerations().Find(parameter.enumeration);
        if (json.is_string() && !parameter.enumeration.empty()) {
          const auto& name = json.get_ref<const std::string&>();
          if (enumeration == nullptr)
            return IllegalArgumentError("'" + Excerpt(name) + "' is not a member of " + parameter.enumeration);
          const std::optional<Int> member = EnumValueOf(*enumeration, name);
          if (!member || *member < std::numeric_limits<Int32>::min() || *member > std::numeric_limits<Int32>::max())
            return NotAMember("'" + Excerpt(name) + "'", *enumeration);
          return Value(static_cast<Int32>(*member));
        }
        if (!json.is_number_integer())
          return Expected(parameter.enumeration.empty() ? "an integer" : "an integer or a member name", json);
        VLGD_ASSIGN_OR_RETURN(const Int32 value, ReadInt32(json));
        if (enumeration != nullptr && !enumeration->isFlagSet) {
          if (!enumeration->NameOf(value)) return NotAMember(std::to_string(value), *enumeration);
          return Value(value);
        }
        const Int used = std::clamp<Int>(ClampInteger(node, parameter, value), std::numeric_limits<Int32>::min(),
                                         std::numeric_limits<Int32>::max());
        return Value(static_cast<Int32>(used));
      }
      case ValueType::INT64: {
        VLGD_ASSIGN_OR_RETURN(const Int value,
                              ReadInteger(json, std::numeric_limits<Int>::min(), std::numeric_limits<Int>::max()));
        return Value(ClampInteger(node, parameter, value));
      }
      case ValueType::FLOAT: {
        VLGD_ASSIGN_OR_RETURN(const Float value, ReadNumber(json));
        return Value(ClampNumber(node, parameter.symbol, parameter, value));
      }
      case ValueType::VECTOR: {
        VLGD_ASSIGN_OR_RETURN(Vector value, ReadVector(json, 3));
        value.x = ClampNumber(node, parameter.symbol + ".x", parameter, value.x);
        value.y = ClampNumber(node, parameter.symbol + ".y", parameter, value.y);
        value.z = ClampNumber(node, parameter.symbol + ".z", parameter, value.z);
        return Value(value);
      }
      case ValueType::STRING: {
        VLGD_ASSIGN_OR_RETURN(std::string value, ReadString(json));
        return Value(std::move(value));
      }
      case ValueType::CURVE: {
        VLGD_ASSIGN_OR_RETURN(SplineData value, ReadCurve(json));
        return Value(std::move(value));
      }
      case ValueType::FIELDLIST: {
        VLGD_ASSIGN_OR_RETURN(FieldList value, ReadFieldList(json, node, parameter.id, where, links));
        return Value(std::move(value));
      }
      case ValueType::LINK: {
        if (json.is_null()) return Value(NodeLink{});
        if (!json.is_object()) return Expected("{\"link\": <id>} or null", json);
        VLGD_RETURN_IF_ERROR(OnlyKeys(json, {"link"}));
        const Json* key = Member(json, "link");
        if (key == nullptr) return IllegalArgumentError("'link' is missing");
        VLGD_ASSIGN_OR_RETURN(std::string target, Within(ReadKey(*key), "'link'"));
        links.push_back({&node, parameter.id, -1, std::move(target), where});
        return Value(NodeLink{});
      }
      case ValueType::MATRIX: {
        VLGD_ASSIGN_OR_RETURN(const Matrix value, ReadMatrix(json));
        return Value(value);
      }
      case ValueType::LINKLIST: {
        VLGD_ASSIGN_OR_RETURN(NodeLinkList value, ReadLinkList(json, node, parameter.id, where, links));
        return Value(std::move(value));
      }
      case ValueType::SPLINEPATH: {
        VLGD_ASSIGN_OR_RETURN(SplinePath value, ReadSplinePath(json));
        return Value(std::move(value));
      }
      default:
        return IllegalArgumentError("has no value");
    }
  }

  // {"preset": "NAME"} or {"knots": [{"position": [x, y], "left": [x, y], "right": [x, y],
  // "flags": 0}, ...]}. Missing tangents point a third of the way to the neighbours.
  Result<SplineData> ReadCurve(const Json& json) const {
    if (!json.is_object()) return Expected("{\"preset\": NAME} or {\"knots\": [...]}", json);
    VLGD_RETURN_IF_ERROR(OnlyKeys(json, {"preset", "knots"}));
    const Json* preset = Member(json, "preset");
    const Json* knots = Member(json, "knots");
    if ((preset != nullptr) == (knots != nullptr)) return IllegalArgumentError("give either 'preset' or 'knots'");
    SplineData curve;
    if (preset != nullptr) {
      VLGD_ASSIGN_OR_RETURN(const std::string name, Within(ReadString(*preset), "'preset'"));
      const Registry::CurvePreset* make = registry_.FindCurvePreset(name);
      if (make == nullptr) return IllegalArgumentError("'preset': unknown curve preset '" + Excerpt(name) + "'");
      VLGD_RETURN_IF_ERROR(Within<void>((*make)(curve), "'preset'"));
      return curve;
    }
    if (!knots->is_array()) return Within<SplineData>(Expected("an array", *knots), "'knots'");
    struct Knot {
      Vector position;
      std::optional<Vector> left;
      std::optional<Vector> right;
      Int32 flags = 0;
    };
    std::vector<Knot> read;
    read.reserve(knots->size());
    for (std::size_t i = 0; i < knots->size(); ++i) {
      const Json& knot = (*knots)[i];
      const std::string at = "knot " + std::to_string(i);
      if (!knot.is_object()) return Within<SplineData>(Expected("an object", knot), at);
      VLGD_RETURN_IF_ERROR(Within<void>(OnlyKeys(knot, {"position", "left", "right", "flags"}), at));
      Knot& k = read.emplace_back();
      const Json* position = Member(knot, "position");
      if (position == nullptr) return IllegalArgumentError(at + ": 'position' is missing");
      VLGD_ASSIGN_OR_RETURN(k.position, Within(ReadVector(*position, 2), at + ": 'position'"));
      if (const Json* left = Member(knot, "left")) {
        VLGD_ASSIGN_OR_RETURN(k.left, Within(ReadVector(*left, 2), at + ": 'left'"));
      }
      if (const Json* right = Member(knot, "right")) {
        VLGD_ASSIGN_OR_RETURN(k.right, Within(ReadVector(*right, 2), at + ": 'right'"));
      }
      if (const Json* flags = Member(knot, "flags")) {
        VLGD_ASSIGN_OR_RETURN(k.flags, Within(ReadInt32(*flags), at + ": 'flags'"));
      }
    }
    // Sorted first, every insertion appends: linear time even for long lists. The sort is
    // stable, so knots at the same x keep the file's order, as InsertKnot would.
    std::stable_sort(read.begin(), read.end(),
                     [](const Knot& a, const Knot& b) { return a.position.x < b.position.x; });
    for (const Knot& k : read) VLGD_RETURN_IF_ERROR(curve.InsertKnot(k.position.x, k.position.y, k.flags));
    const auto count = static_cast<Int32>(read.size());
    for (Int32 i = 0; i < count; ++i) {
      const Knot& k = read[static_cast<std::size_t>(i)];
      const Float x = k.position.x;
      const Vector left = k.left.value_or(
          i > 0 ? Vector{(read[static_cast<std::size_t>(i) - 1].position.x - x) / 3.0, 0.0, 0.0} : Vector{});
      const Vector right = k.right.value_or(
          i + 1 < count ? Vector{(read[static_cast<std::size_t>(i) + 1].position.x - x) / 3.0, 0.0, 0.0} : Vector{});
      if (!curve.SetKnotLeftTangent(i, left) || !curve.SetKnotRightTangent(i, right))
        return IllegalArgumentError("knot " + std::to_string(i) + ": the tangents are not finite");
    }
    return curve;
  }

  // {"links": [<id> or null, ...]}; the entries resolve once every node exists.
  static Result<NodeLinkList> ReadLinkList(const Json& json, Node& node, ParameterId parameter,
                                           const std::string& where, std::vector<PendingLink>& links) {
    if (!json.is_object()) return Expected("{\"links\": [...]}", json);
    VLGD_RETURN_IF_ERROR(OnlyKeys(json, {"links"}));
    NodeLinkList list;
    const Json* entries = Member(json, "links");
    if (entries == nullptr) return list;
    if (!entries->is_array()) return Within<NodeLinkList>(Expected("an array", *entries), "'links'");
    if (entries->size() > kMaxLinkListEntries)
      return IllegalArgumentError("'links': " + std::to_string(entries->size()) +
                                  " entries; a link list holds at most " + std::to_string(kMaxLinkListEntries));
    list.targets.assign(entries->size(), 0);
    for (std::size_t i = 0; i < entries->size(); ++i) {
      const Json& entry = (*entries)[i];
      if (entry.is_null()) continue;
      const std::string at = "'links'[" + std::to_string(i) + "]";
      VLGD_ASSIGN_OR_RETURN(std::string key, Within(ReadKey(entry), at));
      links.push_back({&node, parameter, static_cast<Int>(i), std::move(key), where + ": " + at, true});
    }
    return list;
  }

  // {"points": [{"position": [x, y, z], "left": [x, y, z], "right": [x, y, z]}, ...]};
  // missing tangents are zero.
  static Result<SplinePath> ReadSplinePath(const Json& json) {
    if (!json.is_object()) return Expected("{\"points\": [...]}", json);
    VLGD_RETURN_IF_ERROR(OnlyKeys(json, {"points"}));
    SplinePath path;
    const Json* points = Member(json, "points");
    if (points == nullptr) return path;
    if (!points->is_array()) return Within<SplinePath>(Expected("an array", *points), "'points'");
    if (points->size() > kMaxSplinePoints)
      return IllegalArgumentError("'points': " + std::to_string(points->size()) + " points; a spline holds at most " +
                                  std::to_string(kMaxSplinePoints));
    path.points.reserve(points->size());
    for (std::size_t i = 0; i < points->size(); ++i) {
      const Json& point = (*points)[i];
      const std::string at = "point " + std::to_string(i);
      if (!point.is_object()) return Within<SplinePath>(Expected("an object", point), at);
      VLGD_RETURN_IF_ERROR(Within<void>(OnlyKeys(point, {"position", "left", "right"}), at));
      SplinePoint& read = path.points.emplace_back();
      const Json* position = Member(point, "position");
      if (position == nullptr) return IllegalArgumentError(at + ": 'position' is missing");
      for (auto [key, target] :
           {std::pair{"position", &read.position}, std::pair{"left", &read.left}, std::pair{"right", &read.right}}) {
        const Json* part = Member(point, key);
        if (part == nullptr) continue;
        VLGD_ASSIGN_OR_RETURN(*target, Within(ReadVector(*part, 3), at + ": '" + key + "'"));
        if (std::fabs(target->x) > kMaxSplineCoordinate || std::fabs(target->y) > kMaxSplineCoordinate ||
            std::fabs(target->z) > kMaxSplineCoordinate)
          return IllegalArgumentError(at + ": '" + key + "': " + Excerpt(part->dump()) + " lies beyond " +
                                      NumberText(kMaxSplineCoordinate) + " units");
      }
    }
    return path;
  }

  // {"layers": [{"field": <id>, "opacity": 0 .. 1, "blend": "NORMAL", "enabled": true}, ...]}
  Result<FieldList> ReadFieldList(const Json& json, Node& node, ParameterId parameter, const std::string& where,
                                  std::vector<PendingLink>& links) const {
    if (!json.is_object()) return Expected("{\"layers\": [...]}", json);
    VLGD_RETURN_IF_ERROR(OnlyKeys(json, {"layers"}));
    FieldList list;
    const Json* layers = Member(json, "layers");
    if (layers == nullptr) return list;
    if (!layers->is_array()) return Within<FieldList>(Expected("an array", *layers), "'layers'");
    for (std::size_t i = 0; i < layers->size(); ++i) {
      const Json& layer = (*layers)[i];
      const std::string at = "layer " + std::to_string(i);
      if (!layer.is_object()) return Within<FieldList>(Expected("an object", layer), at);
      VLGD_RETURN_IF_ERROR(Within<void>(OnlyKeys(layer, {"field", "opacity", "blend", "enabled"}), at));
      FieldLayer read;
      if (const Json* opacity = Member(layer, "opacity")) {
        VLGD_ASSIGN_OR_RETURN(read.opacity, Within(ReadNumber(*opacity), at + ": 'opacity'"));
        if (read.opacity < 0.0 || read.opacity > 1.0)
          return IllegalArgumentError(at + ": 'opacity': " + NumberText(read.opacity) + " is outside 0 .. 1");
      }
      if (const Json* blend = Member(layer, "blend")) {
        VLGD_ASSIGN_OR_RETURN(const std::string name, Within(ReadString(*blend), at + ": 'blend'"));
        const auto* found = std::find_if(std::begin(kFieldBlendNames), std::end(kFieldBlendNames),
                                         [&](const auto& entry) { return name == entry.second; });
        if (found == std::end(kFieldBlendNames))
          return IllegalArgumentError(at + ": 'blend': '" + name + "' is not NORMAL, ADD, MULTIPLY, MAX or MIN");
        read.blend = found->first;
      }
      if (const Json* enabled = Member(layer, "enabled")) {
        VLGD_ASSIGN_OR_RETURN(read.enabled, Within(ReadBool(*enabled), at + ": 'enabled'"));
      }
      const Json* field = Member(layer, "field");
      if (field != nullptr && !field->is_null()) {
        VLGD_ASSIGN_OR_RETURN(std::string key, Within(ReadKey(*field), at + ": 'field'"));
        links.push_back({&node, parameter, static_cast<Int>(i), std::move(key), where + ": " + at + ": 'field'"});
      }
      VLGD_RETURN_IF_ERROR(list.AddLayer(read));
    }
    return list;
  }

  Status ResolveLinks() {
    for (const PendingLink& link : links_) {
      const auto found = keys_.find(link.key);
      if (found == keys_.end())
        return IllegalArgumentError(link.where + ": no object has the id '" + Excerpt(link.key) + "'");
      const Node& target = *found->second;
      ParameterContainer& parameters = link.node->GetDataInstance();
      if (link.linkList) {
        const Value* held = parameters.Find(link.parameter);
        if (held == nullptr || held->Type() != ValueType::LINKLIST) continue;
        NodeLinkList list = std::get<NodeLinkList>(held->Data());
        list.targets[static_cast<std::size_t>(link.layer)] = target.Identity();
        VLGD_RETURN_IF_ERROR(parameters.Set(link.parameter, std::move(list)));
        continue;
      }
      if (link.layer < 0) {
        VLGD_RETURN_IF_ERROR(parameters.Set(link.parameter, NodeLink{target.Identity()}));
        continue;
      }
      if ((target.GetTypeInfo().objectInfo & OBJECT_FIELD) == 0)
        return IllegalArgumentError(link.where + ": the object with the id '" + link.key + "' is not a field object");
      FieldList* list = parameters.GetFieldList(link.parameter);
      if (list == nullptr || link.layer >= static_cast<Int>(list->Layers().size())) continue;
      FieldLayer layer = list->Layers()[static_cast<std::size_t>(link.layer)];
      layer.field = target.Identity();
      list->SetLayer(link.layer, layer);
    }
    return Ok();
  }

  // Texture links name materials, in the order given.
  Status ResolveTextureLinks() {
    for (const PendingLink& link : textureLinks_) {
      const auto found = keys_.find(link.key);
      if (found == keys_.end())
        return IllegalArgumentError(link.where + ": no object has the id '" + Excerpt(link.key) + "'");
      if ((found->second->GetTypeInfo().objectInfo & OBJECT_MATERIAL) == 0)
        return IllegalArgumentError(link.where + ": the object with the id '" + Excerpt(link.key) +
                                    "' is not a material");
      std::vector<NodeLink> links = link.node->GetTextureLinks();
      links.push_back(NodeLink{found->second->Identity()});
      link.node->SetTextureLinks(std::move(links));
    }
    return Ok();
  }

  Host& host_;
  const Registry& registry_;
  std::vector<PendingLink> textureLinks_;
  std::unique_ptr<Document> document_;
  std::unordered_map<std::string, Node*> keys_;
  std::vector<PendingLink> links_;
  std::vector<PendingRead> reads_;
  Int nodeCount_ = 0;
};

}  // namespace

Result<std::unique_ptr<Document>> LoadScene(Host& host, std::string_view json, std::string_view sourceName) {
  const std::string source(sourceName);
  if (json.size() > kMaxSceneBytes)
    return IllegalArgumentError(source + ": the scene is " + std::to_string(json.size()) +
                                " bytes long; scene files may be at most " + std::to_string(kMaxSceneBytes >> 20) +
                                " MiB");
  const Host::CountingTimerScope reproducible(host);
  try {
    SceneReader reader(host);
    auto document = reader.Read(json);
    if (!document && document.error().kind != ErrorKind::OutOfMemory)
      return MakeError(ErrorKind::IllegalArgument, source + ": " + document.error().message);
    return document;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::length_error&) {
    return OutOfMemoryError();
  } catch (const std::exception& exception) {  // nothing of the JSON library escapes
    return IllegalArgumentError(source + ": " + exception.what());
  }
}

Result<Value> ReadParameterValue(Node& node, const ParameterDescription& parameter, std::string_view json) {
  try {
    VLGD_ASSIGN_OR_RETURN(const Json parsed, ParseStrictJson(json));
    return Within(SceneReader(node.GetHost()).ReadLooseValue(parameter, parsed, node), parameter.symbol);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::exception& exception) {
    return IllegalArgumentError(parameter.symbol + ": " + exception.what());
  }
}

Result<std::unique_ptr<Document>> LoadSceneFile(Host& host, const std::filesystem::path& file) {
  std::string text;
  try {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) return IoError("Could not open the scene file \"" + file.string() + "\"!");
    std::error_code error;
    // Checked before reading, so that a huge file is refused without taking the memory.
    if (const auto size = std::filesystem::file_size(file, error); !error && size > kMaxSceneBytes)
      return IllegalArgumentError("\"" + file.string() + "\": the scene is " + std::to_string(size) +
                                  " bytes long; scene files may be at most " + std::to_string(kMaxSceneBytes >> 20) +
                                  " MiB");
    text.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    if (stream.bad()) return IoError("Could not read the scene file \"" + file.string() + "\"!");
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::length_error&) {
    return OutOfMemoryError();
  }
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<Document> doc, LoadScene(host, text, file.string()));
  doc->SetFolder(file.parent_path());
  return doc;
}

}  // namespace platform
