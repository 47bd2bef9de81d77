#include "platform/strings.h"

#include <charconv>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace platform {

std::size_t CharacterBoundary(std::string_view text, std::size_t at) {
  while (at > 0 && at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) --at;
  return at;
}

std::string Excerpt(std::string_view text, std::size_t limit) {
  const bool cut = text.size() > limit;
  std::string excerpt(text.substr(0, cut ? CharacterBoundary(text, limit) : text.size()));
  for (char& c : excerpt)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  if (cut) excerpt += "...";
  return excerpt;
}
namespace {

// The ID of a key in its one canonical spelling ("10016", "-3"); "007", "+1", " 1" and
// values outside Int32 are refused, so two keys never name the same text.
bool ParseId(const std::string& key, Int32& id) {
  const char* end = key.data() + key.size();
  const auto [next, error] = std::from_chars(key.data(), end, id);
  return error == std::errc() && next == end && std::to_string(id) == key;
}

}  // namespace

Status StringTable::LoadFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) return IoError("Could not open the string table \"" + file.string() + "\"!");
  std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  if (stream.bad()) return IoError("Could not read the string table \"" + file.string() + "\"!");
  return LoadText(text, file.string());
}

Status StringTable::LoadText(std::string_view json, std::string_view sourceName) {
  const std::string source(sourceName);
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(json);
  } catch (const std::exception& exception) {  // parse errors, and nothing else escapes either
    return IllegalArgumentError("The string table \"" + source + "\" is not valid JSON: " + exception.what());
  }
  if (!document.is_object())
    return IllegalArgumentError("The string table \"" + source + "\" is not a JSON object of IDs and texts!");

  std::vector<std::pair<Int32, std::string>> texts;
  texts.reserve(document.size());
  for (const auto& [key, value] : document.items()) {
    Int32 id = 0;
    if (!ParseId(key, id))
      return IllegalArgumentError("The string table \"" + source + "\" has the key \"" + key +
                                  "\", which is not a decimal resource ID!");
    if (!value.is_string())
      return IllegalArgumentError("The string table \"" + source + "\" gives key \"" + key +
                                  "\" a value that is not a string!");
    texts.emplace_back(id, value.get<std::string>());
  }
  for (auto& [id, text] : texts) texts_.insert_or_assign(id, std::move(text));
  return Ok();
}

std::string StringTable::Get(Int32 id) const {
  const auto found = texts_.find(id);
  if (found != texts_.end()) return found->second;
  std::string missing = "#";
  missing += std::to_string(id);  // not "#" + ...: g++ 12 warns falsely about that (-Wrestrict)
  return missing;
}

std::string StringTable::Format(Int32 id, std::initializer_list<std::string_view> arguments) const {
  const auto found = texts_.find(id);
  if (found == texts_.end()) return Get(id);  // "#<ID>" stays as it is, not a placeholder
  const std::string& text = found->second;
  std::string result;
  result.reserve(text.size());
  const std::string_view* argument = arguments.begin();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '#') {
      result += text[i];
    } else if (i + 1 < text.size() && text[i + 1] == '#') {
      result += '#';
      ++i;
    } else if (argument != arguments.end()) {
      result += *argument++;
    }
  }
  return result;
}

}  // namespace platform
