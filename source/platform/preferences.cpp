#include "platform/preferences.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/file_output.h"

namespace platform {
namespace {

// Keeps the order of insertion, so the file lists IDs in numeric order.
using Json = nlohmann::ordered_json;

// The ID of a key in its one canonical spelling ("1000"); "01000", "+1" and values outside
// Int32 are refused.
std::optional<Int32> ParseId(const std::string& key) {
  Int32 id = 0;
  const char* end = key.data() + key.size();
  const auto [next, error] = std::from_chars(key.data(), end, id);
  if (error != std::errc() || next != end || std::to_string(id) != key) return std::nullopt;
  return id;
}

const char* TypeName(ValueType type) {
  switch (type) {
    case ValueType::BOOL:
      return "a Bool";
    case ValueType::INT32:
      return "an Int32";
    case ValueType::INT64:
      return "an Int64";
    case ValueType::FLOAT:
      return "a Float";
    case ValueType::VECTOR:
      return "a Vector";
    case ValueType::STRING:
      return "a String";
    case ValueType::NONE:
      return "no value";
    case ValueType::CURVE:
      return "a curve";
    case ValueType::LINK:
      return "a node link";
    case ValueType::MATRIX:
      return "a Matrix";
    case ValueType::FIELDLIST:
      return "a field list";
    case ValueType::LINKLIST:
      return "a link list";
    case ValueType::SPLINEPATH:
      return "spline points";
  }
  return "an unknown value";
}

bool IsFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// Only what JSON holds and reads back as the same value.
bool IsStorable(const Value& value) {
  switch (value.Type()) {
    case ValueType::BOOL:
    case ValueType::INT32:
    case ValueType::INT64:
    case ValueType::STRING:
      return true;
    case ValueType::FLOAT:
      return std::isfinite(std::get<Float>(value.Data()));
    case ValueType::VECTOR:
      return IsFinite(std::get<Vector>(value.Data()));
    default:
      return false;
  }
}

// The value a JSON value reads as by itself; no value for what preferences do not store.
std::optional<Value> FromJson(const Json& json) {
  constexpr auto kInt32Max = static_cast<UInt64>(std::numeric_limits<Int32>::max());
  constexpr auto kInt64Max = static_cast<UInt64>(std::numeric_limits<Int>::max());
  if (json.is_boolean()) return Value(json.get<bool>());
  if (json.is_number_unsigned()) {
    const auto number = json.get<UInt64>();
    if (number <= kInt32Max) return Value(static_cast<Int32>(number));
    if (number <= kInt64Max) return Value(static_cast<Int>(number));
    return std::nullopt;
  }
  if (json.is_number_integer()) {
    const auto number = json.get<Int>();
    if (number >= std::numeric_limits<Int32>::min() && number <= std::numeric_limits<Int32>::max())
      return Value(static_cast<Int32>(number));
    return Value(number);
  }
  if (json.is_number_float()) {
    const auto number = json.get<Float>();
    return std::isfinite(number) ? std::optional<Value>(Value(number)) : std::nullopt;
  }
  if (json.is_string()) return Value(json.get<std::string>());
  if (json.is_array() && json.size() == 3 && json[0].is_number() && json[1].is_number() && json[2].is_number()) {
    const Vector vector(json[0].get<Float>(), json[1].get<Float>(), json[2].get<Float>());
    return IsFinite(vector) ? std::optional<Value>(Value(vector)) : std::nullopt;
  }
  return std::nullopt;
}

// The value as the given type: the same type, or an integer widened to Int64 or Float.
// Nothing narrows: a Float or an integer beyond Int32 is no Int32.
std::optional<Value> ConvertTo(const Value& value, ValueType type) {
  if (value.Type() == type) return value;
  if (type == ValueType::INT64 && value.Type() == ValueType::INT32)
    return Value(static_cast<Int>(std::get<Int32>(value.Data())));
  if (type == ValueType::FLOAT && value.Type() == ValueType::INT32)
    return Value(static_cast<Float>(std::get<Int32>(value.Data())));
  if (type == ValueType::FLOAT && value.Type() == ValueType::INT64)
    return Value(static_cast<Float>(std::get<Int>(value.Data())));
  return std::nullopt;
}

Json ToJson(const Value& value) {
  switch (value.Type()) {
    case ValueType::BOOL:
      return std::get<bool>(value.Data());
    case ValueType::INT32:
      return std::get<Int32>(value.Data());
    case ValueType::INT64:
      return std::get<Int>(value.Data());
    case ValueType::FLOAT:
      return std::get<Float>(value.Data());
    case ValueType::STRING:
      return std::get<std::string>(value.Data());
    case ValueType::VECTOR: {
      const Vector& v = std::get<Vector>(value.Data());
      return Json::array({v.x, v.y, v.z});
    }
    default:
      return nullptr;  // refused before, by IsStorable
  }
}

std::string KeyName(Int32 plugin, ParameterId key) {
  return "key " + std::to_string(key) + " of plug-in " + std::to_string(plugin);
}

}  // namespace

ParameterContainer& Preferences::GetWorldPluginData(Int32 id) {
  return containers_[id];
}

const ParameterContainer* Preferences::FindWorldPluginData(Int32 id) const {
  const auto found = containers_.find(id);
  return found != containers_.end() ? &found->second : nullptr;
}

Status Preferences::RegisterDefaults(Int32 id, const ParameterContainer& defaults) {
  for (const auto& [key, value] : defaults.Entries())
    if (!IsStorable(value))
      return IllegalArgumentError(
          "The preference default of " + KeyName(id, key) + " is " + TypeName(value.Type()) +
          (value.Type() == ValueType::FLOAT || value.Type() == ValueType::VECTOR ? " that is not finite" : "") +
          ", which a preferences file cannot store!");
  ParameterContainer& stored = defaults_[id];
  ParameterContainer& container = containers_[id];
  for (const auto& [key, value] : defaults.Entries()) {
    VLGD_RETURN_IF_ERROR(stored.Set(key, value));
    // A value already there (a file loaded before the page registered) stays when it fits.
    const Value* current = container.Find(key);
    std::optional<Value> kept = current != nullptr ? ConvertTo(*current, value.Type()) : std::nullopt;
    VLGD_RETURN_IF_ERROR(container.Set(key, kept ? std::move(*kept) : value));
  }
  return Ok();
}

void Preferences::Load(const std::filesystem::path& file, ConsoleSink& console) {
  const std::string name = "Preferences file '" + file.string() + "'";
  try {
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    if (status.type() == std::filesystem::file_type::not_found) return;
    if (error) return console.Print(name + " could not be read (" + error.message() + "); using defaults.");
    if (std::filesystem::is_directory(status)) return console.Print(name + " is a folder, not a file; using defaults.");

    std::ifstream stream(file, std::ios::binary);
    if (!stream) return console.Print(name + " could not be opened; using defaults.");
    const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    if (stream.bad()) return console.Print(name + " could not be read; using defaults.");

    Json document;
    try {
      document = Json::parse(text);
    } catch (const Json::parse_error& parseError) {
      return console.Print(name + " is not valid JSON (" + parseError.what() + "); using defaults.");
    }
    if (!document.is_object())
      return console.Print(name + " does not hold a JSON object of plug-in IDs; using defaults.");

    // Every page the file names becomes its defaults with the file's values over them.
    std::map<Int32, ParameterContainer> loaded;
    for (const auto& [pluginKey, page] : document.items()) {
      const std::optional<Int32> plugin = ParseId(pluginKey);
      if (!plugin) {
        console.Print(name + ": skipped \"" + pluginKey + "\", which is not a plug-in ID.");
        continue;
      }
      if (!page.is_object()) {
        console.Print(name + ": skipped plug-in " + pluginKey + ", whose value is not a JSON object.");
        continue;
      }
      const auto defaults = defaults_.find(*plugin);
      ParameterContainer& target = loaded[*plugin];
      if (defaults != defaults_.end()) target = defaults->second;
      for (const auto& [key, json] : page.items()) {
        const std::optional<Int32> id = ParseId(key);
        if (!id) {
          console.Print(name + ": skipped key \"" + key + "\" of plug-in " + pluginKey +
                        ", which is not a parameter ID.");
          continue;
        }
        const Value* fallback = defaults != defaults_.end() ? defaults->second.Find(*id) : nullptr;
        std::optional<Value> value = FromJson(json);
        if (fallback != nullptr && value) value = ConvertTo(*value, fallback->Type());
        if (!value) {
          console.Print(name + ": " + KeyName(*plugin, *id) +
                        (fallback != nullptr ? std::string(" should hold ") + TypeName(fallback->Type()) +
                                                   " but holds " + json.dump() + "; keeping the default."
                                             : " holds " + json.dump() + ", which preferences cannot store; skipped."));
          continue;
        }
        if (!target.Set(*id, std::move(*value)))
          console.Print(name + ": out of memory reading " + KeyName(*plugin, *id) + ".");
      }
    }
    for (auto& [plugin, container] : loaded) containers_[plugin] = std::move(container);
  } catch (const std::exception& exception) {
    console.Print(name + " could not be read (" + exception.what() + "); using defaults.");
  }
}

Status Preferences::Save(const std::filesystem::path& file) const {
  std::string text;
  try {
    std::set<Int32> plugins;
    for (const auto& entry : containers_) plugins.insert(entry.first);
    for (const auto& entry : defaults_) plugins.insert(entry.first);

    Json document = Json::object();
    for (const Int32 plugin : plugins) {
      // The container's values, and the defaults of keys that it lost.
      std::map<ParameterId, const Value*> values;
      if (const auto defaults = defaults_.find(plugin); defaults != defaults_.end())
        for (const auto& [key, value] : defaults->second.Entries()) values[key] = &value;
      if (const auto container = containers_.find(plugin); container != containers_.end())
        for (const auto& [key, value] : container->second.Entries()) values[key] = &value;

      Json page = Json::object();
      for (const auto& [key, value] : values) {
        if (!IsStorable(*value))
          return IllegalArgumentError("Could not save the preferences file '" + file.string() +
                                      "': " + KeyName(plugin, key) + " holds " + TypeName(value->Type()) +
                                      ", which a preferences file cannot store!");
        page[std::to_string(key)] = ToJson(*value);
      }
      document[std::to_string(plugin)] = std::move(page);
    }
    text = document.dump(2) + "\n";
  } catch (const std::exception& exception) {  // texts that are not UTF-8, out of memory
    return IllegalArgumentError("Could not save the preferences file '" + file.string() + "': " + exception.what());
  }

  if (file.has_parent_path()) {
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    if (error)
      return IoError("Could not create the folder of the preferences file '" + file.string() + "': " + error.message());
  }
  return WriteFileAtomically(file, [&text](std::ostream& stream) -> Status {
    stream << text;
    return Ok();
  });
}

std::filesystem::path Preferences::DefaultFile() {
  const std::filesystem::path relative = std::filesystem::path("vellgrund") / "preferences.json";
  if (const char* config = std::getenv("XDG_CONFIG_HOME");
      config != nullptr && std::filesystem::path(config).is_absolute())
    return std::filesystem::path(config) / relative;
  const char* home = std::getenv("HOME");
  const std::filesystem::path base =
      home != nullptr && *home != '\0' ? std::filesystem::path(home) : std::filesystem::path();
  return base / ".config" / relative;
}

}  // namespace platform
