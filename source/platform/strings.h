#pragma once

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/result.h"
#include "platform/types.h"

namespace platform {

// Backs up to the start of a UTF-8 character so that a cut at `at` never splits one.
std::size_t CharacterBoundary(std::string_view text, std::size_t at);

// A user's text cut for a message: at most `limit` bytes, between UTF-8 characters, with
// "..." added when it was longer, and control characters shown as '?'. A scene may hold
// a name of a megabyte; a message quoting it must stay one line.
std::string Excerpt(std::string_view text, std::size_t limit = 80);

// The texts shown to users, by numeric resource ID, loaded from the resource folder.
class StringTable {
 public:
  // Reads a table file (JSON: {"<ID>": "text", ...}) and adds its texts, replacing texts
  // of the same IDs. A broken file is refused and the table is left as it was.
  Status LoadFile(const std::filesystem::path& file);
  Status LoadText(std::string_view json, std::string_view sourceName);

  [[nodiscard]] bool Contains(Int32 id) const { return texts_.contains(id); }
  // The text, or "#<ID>" when the table lacks it, so a missing text is visible, not blank.
  [[nodiscard]] std::string Get(Int32 id) const;
  // The text with "#" replaced by the arguments in order; "##" is a literal "#". Extra
  // placeholders stay empty, extra arguments are ignored.
  [[nodiscard]] std::string Format(Int32 id, std::initializer_list<std::string_view> arguments) const;

 private:
  std::unordered_map<Int32, std::string> texts_;
};

}  // namespace platform
