#include "platform/parameter_help.h"

#include <exception>
#include <fstream>
#include <iterator>
#include <new>
#include <unordered_set>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/host.h"

namespace platform {
namespace {

// One entry's text: present, a string, not blank, and a single line, since describe lays
// out one line per text.
Result<std::string> ReadText(const nlohmann::json& entry, const char* key, const std::string& where) {
  const auto found = entry.find(key);
  if (found == entry.end()) return IllegalArgumentError(where + " has no '" + key + "'!");
  if (!found->is_string()) return IllegalArgumentError(where + ": '" + key + "' is not a string!");
  std::string text = found->get<std::string>();
  if (text.find_first_not_of(" \t") == std::string::npos)
    return IllegalArgumentError(where + ": '" + key + "' is empty!");
  if (text.find_first_of("\r\n") != std::string::npos)
    return IllegalArgumentError(where + ": '" + key + "' has more than one line!");
  return text;
}

}  // namespace

std::filesystem::path ParameterHelp::DefaultFile() { return ResourceFolder() / "strings" / "parameters.json"; }

Result<ParameterHelp> ParameterHelp::LoadFile(const std::filesystem::path& file) {
  std::string text;
  try {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) return IoError("Could not open the parameter help \"" + file.string() + "\"!");
    text.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    if (stream.bad()) return IoError("Could not read the parameter help \"" + file.string() + "\"!");
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return LoadText(text, file.string());
}

Result<ParameterHelp> ParameterHelp::LoadText(std::string_view json, std::string_view sourceName) {
  const std::string source(sourceName);
  try {
    // The parser keeps the last of two equal keys; a symbol given twice is a slip to report.
    std::unordered_set<std::string> symbols;
    std::string duplicate;
    const auto noteKey = [&](int depth, nlohmann::json::parse_event_t event, nlohmann::json& parsed) {
      if (depth == 1 && event == nlohmann::json::parse_event_t::key && !symbols.insert(parsed.get<std::string>()).second)
        duplicate = parsed.get<std::string>();
      return true;
    };
    nlohmann::json document;
    try {
      document = nlohmann::json::parse(json, noteKey);
    } catch (const nlohmann::json::exception& exception) {
      return IllegalArgumentError("The parameter help \"" + source + "\" is not valid JSON: " + exception.what());
    }
    if (!duplicate.empty())
      return IllegalArgumentError("The parameter help \"" + source + "\" gives '" + duplicate + "' twice!");
    if (!document.is_object())
      return IllegalArgumentError("The parameter help \"" + source + "\" is not a JSON object of symbols!");
    ParameterHelp table;
    for (const auto& [key, entry] : document.items()) {
      const std::string where = "The parameter help \"" + source + "\": '" + key + "'";
      if (!entry.is_object()) return IllegalArgumentError(where + " is not an object with 'label' and 'help'!");
      for (const auto& [name, value] : entry.items())
        if (name != "label" && name != "help") return IllegalArgumentError(where + " has the unknown key '" + name + "'!");
      VLGD_ASSIGN_OR_RETURN(std::string label, ReadText(entry, "label", where));
      VLGD_ASSIGN_OR_RETURN(std::string help, ReadText(entry, "help", where));
      table.entries_.insert_or_assign(key, HelpText{std::move(label), std::move(help)});
    }
    return table;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::exception& exception) {  // nothing of the JSON library escapes
    return IllegalArgumentError("The parameter help \"" + source + "\": " + exception.what());
  }
}

const HelpText* ParameterHelp::Find(std::string_view key) const {
  const auto found = entries_.find(std::string(key));
  return found != entries_.end() ? &found->second : nullptr;
}

}  // namespace platform
