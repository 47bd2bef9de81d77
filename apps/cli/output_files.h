#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "platform/memory.h"
#include "platform/result.h"
#include "platform/strings.h"

namespace vellgrund_cli {

// A terrain's name as a file name that stays inside its folder on any common file system:
// separators, control characters and characters that some systems refuse become '_', a
// leading dot or space and trailing dots and spaces are dropped, names reserved by some
// systems ("CON", "aux.txt") get a '_' added, and the result is at most kMaxFileStemBytes
// bytes, cut between UTF-8 characters. An empty result becomes "Terrain".
inline constexpr std::size_t kMaxFileStemBytes = 120;
std::string SafeFileStem(std::string_view name);

using platform::Excerpt;
// A path in double quotes and a name in single quotes, as messages show them, cut as above.
std::string Quoted(const std::filesystem::path& path);
std::string QuotedName(std::string_view name);

// Checks, before any work, that a file the user named can be written: its ending is one
// of `endings` (lower case, with the dot), its folder exists (or is `outputFolder`, which
// the run creates), is a folder and can be written to, and the path itself is not a
// folder. `option` names the option in messages.
platform::Status CheckOutputFile(const std::filesystem::path& path, std::string_view option,
                                 std::initializer_list<std::string_view> endings,
                                 const std::filesystem::path& outputFolder = {});
// The same for the output folder, which may not exist yet: the nearest existing folder
// above it must be writable.
platform::Status CheckOutputFolder(const std::filesystem::path& folder);

using platform::ByteSize;

// The files of one run, as one transaction: each is written under a hidden temporary name
// beside its target, and only when every file has been written does Commit move them all
// into place. A run that fails or is cancelled removes its temporaries, the folders it
// created (when they are still empty) and nothing else, so every file that existed before
// the run stays as it was.
class OutputTransaction {
 public:
  OutputTransaction() = default;
  OutputTransaction(const OutputTransaction&) = delete;
  OutputTransaction& operator=(const OutputTransaction&) = delete;
  ~OutputTransaction();

  // Creates the folder and the ones above it that are missing, remembering them.
  platform::Status CreateFolder(const std::filesystem::path& folder);
  // The temporary path to write `target` to; it keeps the target's ending, as writers
  // choose their format by it.
  std::filesystem::path Stage(const std::filesystem::path& target);
  // Moves every staged file onto its target.
  platform::Status Commit();

  struct Written {
    std::filesystem::path path;
    std::uintmax_t bytes = 0;
  };
  [[nodiscard]] const std::vector<Written>& Committed() const { return committed_; }

 private:
  struct Staged {
    std::filesystem::path target;
    std::filesystem::path temporary;
  };
  std::vector<Staged> staged_;
  std::vector<std::filesystem::path> createdFolders_;  // outermost first
  std::vector<Written> committed_;
  bool done_ = false;
};

}  // namespace vellgrund_cli
