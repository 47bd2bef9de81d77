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

#include <nlohmann/json.hpp>

#include "platform/file_output.h"
#include "platform/strings.h"

namespace platform {
namespace {

using Json = nlohmann::json;
// Written files keep their keys in the order we write them ("type" and "name" first),
// which reads better than sorted keys.
using OrderedJson = nlohmann::ordered_json;

constexpr Int kFormatVersion = 1;
// The application's world preferences, the container scenes override most often; its keys
// sit directly in "preferences".
// Limits that keep hostile files from exhausting the stack or the memory. A scene at the
// deepest allowed nesting of children is about 140 JSON levels deep.
constexpr Int kMaxChildDepth = 64;
constexpr Int kMaxNodes = 1'000'000;
constexpr std::size_t kMaxJsonDepth = 256;

// Builds the JSON tree as nlohmann's parser does, but refuses duplicate keys (the parser
// would silently keep the last one) and absurd nesting, naming the place of the fault.
class StrictJsonBuilder final : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return Add(Json(nullptr)); }
  bool boolean(bool value) override { return Add(Json(value)); }
  bool number_integer(number_integer_t value) override { return Add(Json(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Add(Json(value)); }
  bool number_float(number_float_t value, const string_t&) override { return Add(Json(value)); }
  bool string(string_t& value) override { return Add(Json(std::move(value))); }
  bool binary(binary_t&) override { return Fail(Path(true) + "binary data"); }
  bool start_object(std::size_t) override { return Open(Json::object()); }
  bool start_array(std::size_t) override { return Open(Json::array()); }
  bool end_object() override { return Close(); }
  bool end_array() override { return Close(); }

  bool key(string_t& key) override {
    if (open_.back().container->contains(key)) return Fail(Path(false) + "duplicate key '" + Excerpt(key) + "'");
    open_.back().key = std::move(key);
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const Json::exception& error) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: ...": the tag
    // means nothing to users, the position does.
    const std::string_view text = error.what();
    const std::size_t tagEnd = text.starts_with('[') ? text.find("] ") : std::string_view::npos;
    error_ = Path(true);
    error_ += tagEnd != std::string_view::npos ? text.substr(tagEnd + 2) : text;
    return false;
  }

  [[nodiscard]] const Json& Root() const { return root_; }
  [[nodiscard]] const std::string& ErrorText() const { return error_; }

 private:
  struct OpenContainer {
    Json* container;
    std::string key;  // of the value that comes next, in an object
  };

  bool Add(Json&& value) {
    Place(std::move(value));
    Done();
    return true;
  }

  // A value of the innermost open container is complete: its key no longer names a place.
  void Done() {
    if (!open_.empty()) open_.back().key.clear();
  }

  Json* Place(Json&& value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    OpenContainer& top = open_.back();
    if (top.container->is_array()) {
      auto& array = top.container->get_ref<Json::array_t&>();
      array.push_back(std::move(value));
      return &array.back();
    }
    auto& object = top.container->get_ref<Json::object_t&>();
    return &object.emplace(top.key, std::move(value)).first->second;  // the key stays for paths
  }

  bool Open(Json&& container) {
    if (open_.size() >= kMaxJsonDepth)
      return Fail(Path(true) + "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    // Containers only ever grow at their end, and an open container is the last element
    // of its parent until it closes, so these pointers stay valid.
    Json* placed = Place(std::move(container));
    open_.push_back({placed, {}});
    return true;
  }

  bool Close() {
    open_.pop_back();
    Done();
    return true;
  }

  // "objects[0].children[1]: ", the place of the open container; with `next` the place of
  // the value that comes next in it. Empty at the top level.
  [[nodiscard]] std::string Path(bool next) const {
    std::string path;
    const std::size_t count = next ? open_.size() : (open_.empty() ? 0 : open_.size() - 1);
    for (std::size_t i = 0; i < count; ++i) {
      const Json& container = *open_[i].container;
      const bool last = i + 1 == open_.size();
      if (container.is_array()) {
        path += '[';
        path += std::to_string(last ? container.size() : container.size() - 1);
        path += ']';
      } else if (!open_[i].key.empty()) {
        if (!path.empty()) path += '.';
        path += open_[i].key;
      }
    }
    return path.empty() ? path : path + ": ";
  }

  bool Fail(std::string message) {
    error_ = std::move(message);
    return false;
  }

  Json root_;
  std::vector<OpenContainer> open_;
  std::string error_;
};

// The kind of a JSON value, for messages: "expected a number, not a string".
std::string KindOf(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::boolean:
      return "a boolean";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
      return "an integer";
    case Json::value_t::number_float:
      return "a fractional number";
    case Json::value_t::string:
      return "a string";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::object:
      return "an object";
    default:
      return "an unknown value";
  }
}

std::unexpected<Error> Expected(std::string_view what, const Json& value) {
  return IllegalArgumentError("expected " + std::string(what) + ", not " + KindOf(value));
}

// Shortest text that reads back as the same number.
std::string NumberText(Float value) {
  return Json(value).dump();
}

// A message prefix before refusals of inner readers; out-of-memory errors pass unchanged.
template <class T>
Result<T> Within(Result<T> result, const std::string& prefix) {
  if (!result && result.error().kind != ErrorKind::OutOfMemory)
    return IllegalArgumentError(prefix + ": " + result.error().message);
  return result;
}

const Json* Member(const Json& object, const char* key) {
  const auto& members = object.get_ref<const Json::object_t&>();
  const auto found = members.find(key);
  return found != members.end() ? &found->second : nullptr;
}

Status OnlyKeys(const Json& object, std::initializer_list<std::string_view> keys) {
  for (const auto& [key, value] : object.get_ref<const Json::object_t&>())
    if (std::find(keys.begin(), keys.end(), key) == keys.end())
      return IllegalArgumentError("unknown key '" + Excerpt(key) + "'");
  return Ok();
}

// A decimal ID in its one canonical spelling ("10002", "-3"): "007", "+1" and " 1" are not
// IDs, so two keys never name the same entry.
bool ParseId(std::string_view text, Int32& id) {
  const char* end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, id);
  return error == std::errc() && next == end && std::to_string(id) == text;
}

std::optional<Int> IntegerOf(const Json& value) {
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<Int>::max())) return std::nullopt;
    return static_cast<Int>(number);
  }
  if (value.is_number_integer()) return value.get<Int>();
  return std::nullopt;
}

Result<Int> ReadInteger(const Json& value, Int low, Int high) {
  if (!value.is_number_integer()) return Expected("an integer", value);
  const std::optional<Int> number = IntegerOf(value);
  if (!number || *number < low || *number > high)
    return IllegalArgumentError(value.dump() + " is out of range (" + std::to_string(low) + " .. " +
                                std::to_string(high) + ")");
  return *number;
}

Result<Int32> ReadInt32(const Json& value) {
  VLGD_ASSIGN_OR_RETURN(const Int number,
                        ReadInteger(value, std::numeric_limits<Int32>::min(), std::numeric_limits<Int32>::max()));
  return static_cast<Int32>(number);
}

Result<bool> ReadBool(const Json& value) {
  if (!value.is_boolean()) return Expected("true or false", value);
  return value.get<bool>();
}

Result<Float> ReadNumber(const Json& value) {
  if (!value.is_number()) return Expected("a number", value);
  const auto number = value.get<Float>();
  if (!std::isfinite(number)) return IllegalArgumentError("the number is not finite");
  return number;
}

// [x, y, z], or [x, y] for curve coordinates (z is 0).
Result<Vector> ReadVector(const Json& value, std::size_t size) {
  const char* form = size == 3 ? "[x, y, z]" : "[x, y]";
  if (!value.is_array() || value.size() != size) return Expected(form, value);
  Float components[3] = {0.0, 0.0, 0.0};
  for (std::size_t i = 0; i < size; ++i) {
    if (!value[i].is_number()) return Expected(std::string(form) + " numbers", value[i]);
    VLGD_ASSIGN_OR_RETURN(components[i], ReadNumber(value[i]));
  }
  return Vector{components[0], components[1], components[2]};
}

Result<std::string> ReadString(const Json& value) {
  if (!value.is_string()) return Expected("a string", value);
  return value.get<std::string>();
}

bool IsFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}
bool IsFinite(const Matrix& m) {
  return IsFinite(m.off) && IsFinite(m.v1) && IsFinite(m.v2) && IsFinite(m.v3);
}

// {"off": [x,y,z], "v1": .., "v2": .., "v3": ..} with the missing parts from the identity,
// or {"position": .., "rotation": <degrees>, "scale": ..}.
Result<Matrix> ReadMatrix(const Json& value) {
  if (!value.is_object()) return Expected("a matrix object", value);
  VLGD_RETURN_IF_ERROR(OnlyKeys(value, {"off", "v1", "v2", "v3", "position", "rotation", "scale"}));
  const bool axes = Member(value, "off") || Member(value, "v1") || Member(value, "v2") || Member(value, "v3");
  const bool parts = Member(value, "position") || Member(value, "rotation") || Member(value, "scale");
  if (axes && parts) return IllegalArgumentError("give either off/v1/v2/v3 or position/rotation/scale, not both");
  Vector read[4];
  const char* names[4];
  if (axes) {
    const Matrix identity;
    read[0] = identity.off, read[1] = identity.v1, read[2] = identity.v2, read[3] = identity.v3;
    names[0] = "off", names[1] = "v1", names[2] = "v2", names[3] = "v3";
  } else {
    read[0] = Vector{}, read[1] = Vector{}, read[2] = Vector{1.0};
    names[0] = "position", names[1] = "rotation", names[2] = "scale", names[3] = nullptr;
  }
  for (int i = 0; i < 4 && names[i] != nullptr; ++i) {
    if (const Json* part = Member(value, names[i])) {
      VLGD_ASSIGN_OR_RETURN(read[i], Within(ReadVector(*part, 3), std::string("'") + names[i] + "'"));
    }
  }
  if (axes) return Matrix{read[0], read[1], read[2], read[3]};
  const Matrix composed =
      TranslationMatrix(read[0]) * RotationMatrix(read[1] * (std::numbers::pi / 180.0)) * ScaleMatrix(read[2]);
  if (!IsFinite(composed)) return IllegalArgumentError("the matrix is not finite");
  return composed;
}

Result<Visibility> ReadVisibility(const Json& value) {
  if (value.is_boolean()) return value.get<bool>() ? Visibility::ON : Visibility::OFF;
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    if (text == "default") return Visibility::DEFAULT;
    if (text == "on") return Visibility::ON;
    if (text == "off") return Visibility::OFF;
  }
  return IllegalArgumentError("expected \"default\", \"on\", \"off\" or a boolean, not " + Excerpt(value.dump()));
}

const char* VisibilityName(Visibility visibility) {
  switch (visibility) {
    case Visibility::ON:
      return "on";
    case Visibility::OFF:
      return "off";
    default:
      return "default";
  }
}

constexpr std::pair<FieldBlend, const char*> kBlendNames[] = {{FieldBlend::NORMAL, "NORMAL"},
                                                              {FieldBlend::ADD, "ADD"},
                                                              {FieldBlend::MULTIPLY, "MULTIPLY"},
                                                              {FieldBlend::MAX, "MAX"},
                                                              {FieldBlend::MIN, "MIN"}};

// A member name of an enumeration; flag sets also take members joined by "|".
std::optional<Int> EnumValueOf(const Enumeration& enumeration, std::string_view text) {
  if (const std::optional<Int> value = enumeration.ValueOf(text)) return value;
  if (!enumeration.isFlagSet || text.empty()) return std::nullopt;
  Int bits = 0;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t bar = std::min(text.find('|', start), text.size());
    const std::optional<Int> member = enumeration.ValueOf(text.substr(start, bar - start));
    if (!member) return std::nullopt;
    bits |= *member;
    start = bar + 1;
  }
  return bits;
}

// A parameter key of a file: "10002", "TERRAINOBJECT_SIZE_X" or the written form
// "10002 TERRAINOBJECT_SIZE_X", where the ID decides (symbols may have been renamed since).
const ParameterDescription* FindParameter(const FlatDescription& description, const std::string& key) {
  const std::size_t space = key.find(' ');
  Int32 id = 0;
  if (ParseId(std::string_view(key).substr(0, space), id)) return description.Find(id);
  return space == std::string::npos ? description.FindSymbol(key) : nullptr;
}

std::string ParameterKey(const ParameterDescription& parameter) {
  return parameter.symbol.empty() ? std::to_string(parameter.id)
                                  : std::to_string(parameter.id) + " " + parameter.symbol;
}

// The parameters a scene file keeps: described values that users can edit.
bool IsStored(const ParameterDescription& parameter) {
  return parameter.kind == ParameterKind::VALUE && !parameter.readOnly && parameter.type != ValueType::NONE;
}

// ---------------------------------------------------------------------------------------
// Loading

class SceneReader {
 public:
  explicit SceneReader(Host& host) : host_(host), registry_(host.GetRegistry()) {}

  Result<std::unique_ptr<Document>> Read(std::string_view text) {
    StrictJsonBuilder builder;
    if (!Json::sax_parse(text, &builder)) return IllegalArgumentError(builder.ErrorText());
    const Json& root = builder.Root();
    if (!root.is_object()) return IllegalArgumentError("not a scene file: expected a JSON object, not " + KindOf(root));
    VLGD_RETURN_IF_ERROR(OnlyKeys(root, {"vellgrund", "preferences", "objects"}));

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
      VLGD_RETURN_IF_ERROR(ReadNodes(*objects, "objects", nullptr, 0));
    }
    VLGD_RETURN_IF_ERROR(ResolveLinks());
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
    Int layer;  // the field list layer, or -1 for a link parameter
    std::string key;
    std::string where;
  };
  struct PendingRead {
    Node* node;
    Int32 level;
    std::string where;
    std::vector<ParameterId> given;  // the parameters the file gave
  };

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
        VLGD_RETURN_IF_ERROR(add(container, innerKey, innerJson, "preference '" + Excerpt(key) + "." + Excerpt(innerKey) + "'"));
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

  Status ReadNodes(const Json& list, const std::string& path, Node* parent, Int depth) {
    Node* previous = nullptr;
    for (std::size_t i = 0; i < list.size(); ++i) {
      VLGD_ASSIGN_OR_RETURN(previous, ReadNode(list[i], path + "[" + std::to_string(i) + "]", parent, previous, depth));
    }
    return Ok();
  }

  // Inserts the node after `previous`, or as the first child of `parent` when that is nullptr.
  Result<Node*> ReadNode(const Json& object, const std::string& path, Node* parent, Node* previous, Int depth) {
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
        return IllegalArgumentError(where + ": 'name': " + std::to_string(text.size()) + " bytes long; names may be at most " +
                                    std::to_string(kMaxNameBytes) + " bytes");
      where += " '" + Excerpt(text) + "'";
    }
    VLGD_RETURN_IF_ERROR(
        Within<void>(OnlyKeys(object, {"type", "name", "id", "enabled", "editor_visible", "render_visible", "level",
                                       "matrix", "position", "rotation", "scale", "params", "children"}),
                     where));

    const Json* type = Member(object, "type");
    if (type == nullptr) return IllegalArgumentError(where + ": 'type' is missing");
    VLGD_ASSIGN_OR_RETURN(const PluginInfo* info, Within(FindType(*type), where + ": 'type'"));
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
                                         : document_->InsertFirst(std::move(node), parent);
    reads_.push_back({inserted, level, where, std::move(given)});

    if (const Json* children = Member(object, "children")) {
      if (!children->is_array()) return Within<Node*>(Expected("an array", *children), where + ": 'children'");
      if (!children->empty() && depth >= kMaxChildDepth)
        return IllegalArgumentError(where + ": 'children': nested deeper than " + std::to_string(kMaxChildDepth) +
                                    " levels");
      VLGD_RETURN_IF_ERROR(ReadNodes(*children, path + ".children", inserted, depth + 1));
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
        const auto* found = std::find_if(std::begin(kBlendNames), std::end(kBlendNames),
                                         [&](const auto& entry) { return name == entry.second; });
        if (found == std::end(kBlendNames))
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
      if (found == keys_.end()) return IllegalArgumentError(link.where + ": no object has the id '" + Excerpt(link.key) + "'");
      const Node& target = *found->second;
      ParameterContainer& parameters = link.node->GetDataInstance();
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

  Host& host_;
  const Registry& registry_;
  std::unique_ptr<Document> document_;
  std::unordered_map<std::string, Node*> keys_;
  std::vector<PendingLink> links_;
  std::vector<PendingRead> reads_;
  Int nodeCount_ = 0;
};

// ---------------------------------------------------------------------------------------
// Saving

const char* TypeName(ValueType type) {
  switch (type) {
    case ValueType::BOOL:
      return "Bool";
    case ValueType::INT32:
      return "Int32";
    case ValueType::INT64:
      return "Int64";
    case ValueType::FLOAT:
      return "Float";
    case ValueType::VECTOR:
      return "Vector";
    case ValueType::STRING:
      return "String";
    case ValueType::CURVE:
      return "curve";
    case ValueType::LINK:
      return "link";
    case ValueType::MATRIX:
      return "Matrix";
    case ValueType::FIELDLIST:
      return "field list";
    default:
      return "empty";
  }
}

bool IsNumber(const Value& value) {
  const ValueType type = value.Type();
  return type == ValueType::BOOL || type == ValueType::INT32 || type == ValueType::INT64 || type == ValueType::FLOAT;
}

Result<OrderedJson> WriteVector(const Vector& v) {
  if (!IsFinite(v)) return IllegalArgumentError("the vector is not finite");
  return OrderedJson::array({v.x, v.y, v.z});
}

Result<OrderedJson> WriteMatrix(const Matrix& m) {
  if (!IsFinite(m)) return IllegalArgumentError("the matrix is not finite");
  OrderedJson out = OrderedJson::object();
  out["off"] = OrderedJson::array({m.off.x, m.off.y, m.off.z});
  out["v1"] = OrderedJson::array({m.v1.x, m.v1.y, m.v1.z});
  out["v2"] = OrderedJson::array({m.v2.x, m.v2.y, m.v2.z});
  out["v3"] = OrderedJson::array({m.v3.x, m.v3.y, m.v3.z});
  return out;
}

Result<OrderedJson> WritePreference(const Value& value) {
  switch (value.Type()) {
    case ValueType::BOOL:
      return OrderedJson(std::get<bool>(value.Data()));
    case ValueType::INT32:
      return OrderedJson(std::get<Int32>(value.Data()));
    case ValueType::INT64:
      return OrderedJson(std::get<Int>(value.Data()));
    case ValueType::FLOAT: {
      const Float number = std::get<Float>(value.Data());
      if (!std::isfinite(number)) return IllegalArgumentError("the number is not finite");
      return OrderedJson(number);
    }
    case ValueType::STRING:
      return OrderedJson(std::get<std::string>(value.Data()));
    case ValueType::VECTOR:
      return WriteVector(std::get<Vector>(value.Data()));
    default:
      return IllegalArgumentError(std::string("a scene file cannot keep a ") + TypeName(value.Type()) + " preference");
  }
}

// Two-space indentation like dump(2), but arrays of plain values ([x, y, z]) stay on one
// line: dump(2) gives every number a line of its own. Numbers and strings are nlohmann's,
// so floats read back exactly.
void AppendPretty(const OrderedJson& value, std::size_t indent, std::string& out) {
  const auto open = [&](char bracket) {
    out += bracket;
    out += '\n';
  };
  const auto close = [&](char bracket) {
    out += '\n';
    out.append(indent, ' ');
    out += bracket;
  };
  const bool structured =
      std::any_of(value.begin(), value.end(), [](const OrderedJson& v) { return v.is_structured(); });
  if (value.is_object() && !value.empty()) {
    open('{');
    for (auto member = value.begin(); member != value.end(); ++member) {
      if (member != value.begin()) out += ",\n";
      out.append(indent + 2, ' ');
      out += OrderedJson(member.key()).dump();
      out += ": ";
      AppendPretty(member.value(), indent + 2, out);
    }
    close('}');
  } else if (value.is_array() && structured) {
    open('[');
    for (auto element = value.begin(); element != value.end(); ++element) {
      if (element != value.begin()) out += ",\n";
      out.append(indent + 2, ' ');
      AppendPretty(*element, indent + 2, out);
    }
    close(']');
  } else if (value.is_array()) {
    out += '[';
    for (auto element = value.begin(); element != value.end(); ++element) {
      if (element != value.begin()) out += ", ";
      out += element->dump();
    }
    out += ']';
  } else {
    out += value.dump();
  }
}

class SceneWriter {
 public:
  explicit SceneWriter(const Document& document) : document_(document), registry_(document.GetHost().GetRegistry()) {}

  Result<std::string> Write() {
    const std::vector<Node*> nodes = document_.AllNodes();
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
    std::string text;
    AppendPretty(root, 0, text);
    text += '\n';
    return text;
  }

 private:
  // Nodes that links name get an "id": their depth-first index.
  void MarkTargets(const Node& node) {
    for (const auto& [id, value] : node.GetData().Entries()) {
      const ParameterDescription* parameter = node.GetTypeInfo().description.Find(id);
      if (parameter == nullptr || !IsStored(*parameter)) continue;
      if (const auto* link = std::get_if<NodeLink>(&value.Data())) MarkTarget(link->target);
      if (const auto* list = std::get_if<FieldList>(&value.Data()))
        for (const FieldLayer& layer : list->Layers()) MarkTarget(layer.field);
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
    std::sort(ids.begin(), ids.end(), [mainPage](Int32 a, Int32 b) {
      return (a == mainPage) != (b == mainPage) ? a == mainPage : a < b;
    });
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
    if (node.GetDown() != nullptr) {
      if (depth >= kMaxChildDepth)
        return IllegalArgumentError(where + ": children nested deeper than " + std::to_string(kMaxChildDepth) +
                                    " levels");
      OrderedJson children = OrderedJson::array();
      Int index = 0;
      for (const Node* child = node.GetDown(); child != nullptr; child = child->GetNext(), ++index) {
        VLGD_ASSIGN_OR_RETURN(OrderedJson written,
                              WriteNode(*child, path + ".children[" + std::to_string(index) + "]", depth + 1));
        children.push_back(std::move(written));
      }
      out["children"] = std::move(children);
    }
    return out;
  }

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
      default:
        return IllegalArgumentError("has no value");
    }
  }

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

  Result<OrderedJson> WriteFieldList(const FieldList& list) const {
    OrderedJson layers = OrderedJson::array();
    for (const FieldLayer& layer : list.Layers()) {
      const auto* blend = std::find_if(std::begin(kBlendNames), std::end(kBlendNames),
                                       [&](const auto& entry) { return entry.first == layer.blend; });
      if (blend == std::end(kBlendNames) || !std::isfinite(layer.opacity))
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

// ---------------------------------------------------------------------------------------
// Comparison

// Depth-first index of every node by identity; links compare by these.
std::unordered_map<UInt64, Int> IndexNodes(const std::vector<Node*>& nodes) {
  std::unordered_map<UInt64, Int> index;
  for (std::size_t i = 0; i < nodes.size(); ++i) index.emplace(nodes[i]->Identity(), static_cast<Int>(i));
  return index;
}

Int PlaceOf(const std::unordered_map<UInt64, Int>& index, UInt64 identity) {
  const auto found = index.find(identity);
  return identity != 0 && found != index.end() ? found->second : -1;
}

bool ValuesEqual(const Value* a, const Value* b, const std::unordered_map<UInt64, Int>& indexA,
                 const std::unordered_map<UInt64, Int>& indexB) {
  if (a == nullptr || b == nullptr) return a == b;
  if (a->Type() != b->Type()) return false;
  if (const auto* link = std::get_if<NodeLink>(&a->Data()))
    return PlaceOf(indexA, link->target) == PlaceOf(indexB, std::get<NodeLink>(b->Data()).target);
  if (const auto* list = std::get_if<FieldList>(&a->Data())) {
    const auto layersA = list->Layers();
    const auto layersB = std::get<FieldList>(b->Data()).Layers();
    if (layersA.size() != layersB.size()) return false;
    for (std::size_t i = 0; i < layersA.size(); ++i) {
      FieldLayer placed = layersA[i];
      placed.field = layersB[i].field;  // compared by place below
      if (!(placed == layersB[i]) || PlaceOf(indexA, layersA[i].field) != PlaceOf(indexB, layersB[i].field))
        return false;
    }
    return true;
  }
  return *a == *b;
}

bool NodesEqual(const Node& a, const Node& b, const std::unordered_map<UInt64, Int>& indexA,
                const std::unordered_map<UInt64, Int>& indexB) {
  if (a.GetType() != b.GetType() || a.GetName() != b.GetName() || a.IsEnabled() != b.IsEnabled() ||
      a.GetEditorVisibility() != b.GetEditorVisibility() || a.GetRenderVisibility() != b.GetRenderVisibility() ||
      a.GetMl() != b.GetMl())
    return false;
  const Node* upA = a.GetUp();
  const Node* upB = b.GetUp();
  if (PlaceOf(indexA, upA != nullptr ? upA->Identity() : 0) != PlaceOf(indexB, upB != nullptr ? upB->Identity() : 0))
    return false;
  // What a file keeps: the described values users can edit.
  for (const ParameterDescription& parameter : a.GetTypeInfo().description.Parameters()) {
    if (!IsStored(parameter)) continue;
    if (!ValuesEqual(a.GetData().Find(parameter.id), b.GetData().Find(parameter.id), indexA, indexB)) return false;
  }
  return true;
}

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
  return LoadScene(host, text, file.string());
}

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

Status SaveSceneFile(const Document& document, const std::filesystem::path& file) {
  VLGD_ASSIGN_OR_RETURN(const std::string text, SaveScene(document));
  return WriteFileAtomically(file, [&](std::ostream& stream) -> Status {
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    return Ok();
  });
}

bool DocumentsEqual(const Document& a, const Document& b) {
  try {
    if (a.WorldOverrides() != b.WorldOverrides()) return false;
    const std::vector<Node*> nodesA = a.AllNodes();
    const std::vector<Node*> nodesB = b.AllNodes();
    if (nodesA.size() != nodesB.size()) return false;
    const auto indexA = IndexNodes(nodesA);
    const auto indexB = IndexNodes(nodesB);
    for (std::size_t i = 0; i < nodesA.size(); ++i)
      if (!NodesEqual(*nodesA[i], *nodesB[i], indexA, indexB)) return false;
    return true;
  } catch (const std::bad_alloc&) {
    return false;  // cannot tell; never claim equality
  }
}

}  // namespace platform
