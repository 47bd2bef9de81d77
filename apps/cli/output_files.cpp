#include "output_files.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "platform/file_output.h"

namespace vellgrund_cli {
namespace {

using platform::Status;

bool IsReservedStem(std::string_view stem) {
  // Names that some file systems treat as devices, whatever the ending.
  std::string base(stem.substr(0, stem.find('.')));
  for (char& c : base)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  static constexpr std::array<std::string_view, 4> kDevices = {"CON", "PRN", "AUX", "NUL"};
  if (std::find(kDevices.begin(), kDevices.end(), base) != kDevices.end()) return true;
  return base.size() == 4 && (base.starts_with("COM") || base.starts_with("LPT")) && base[3] >= '0' && base[3] <= '9';
}


std::string SystemReason(int error) { return std::strerror(error); }

// Whether the folder exists and this process may create files in it.
Status CheckWritableFolder(const std::filesystem::path& folder, const std::string& what) {
  std::error_code error;
  const auto status = std::filesystem::status(folder, error);
  if (!std::filesystem::exists(status))
    return platform::IllegalArgumentError(what + ": the folder " + Quoted(folder) + " does not exist!");
  if (!std::filesystem::is_directory(status))
    return platform::IllegalArgumentError(what + ": " + Quoted(folder) + " is not a folder!");
  if (::access(folder.c_str(), W_OK | X_OK) != 0)
    return platform::IoError(what + ": cannot write to the folder " + Quoted(folder) + ": " + SystemReason(errno));
  return platform::Ok();
}

std::filesystem::path FolderOf(const std::filesystem::path& path) {
  return path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
}

}  // namespace

std::string SafeFileStem(std::string_view name) {
  std::string stem;
  stem.reserve(std::min(name.size(), kMaxFileStemBytes + 4));
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool refused = byte < 0x20 || byte == 0x7F || std::strchr("/\\:*?\"<>|", c) != nullptr;
    stem.push_back(refused ? '_' : c);
    if (stem.size() > kMaxFileStemBytes + 4) break;
  }
  const std::size_t first = stem.find_first_not_of(". ");
  stem.erase(0, first == std::string::npos ? stem.size() : first);
  if (stem.size() > kMaxFileStemBytes) stem.resize(platform::CharacterBoundary(stem, kMaxFileStemBytes));
  while (!stem.empty() && (stem.back() == '.' || stem.back() == ' ')) stem.pop_back();
  if (stem.empty()) return "Terrain";
  if (IsReservedStem(stem)) stem.push_back('_');
  return stem;
}

std::string Quoted(const std::filesystem::path& path) {
  std::string quoted(1, '"');
  quoted.append(Excerpt(path.string(), 200)).push_back('"');
  return quoted;
}

std::string QuotedName(std::string_view name) {
  std::string quoted(1, '\'');
  quoted.append(Excerpt(name)).push_back('\'');
  return quoted;
}

Status CheckOutputFile(const std::filesystem::path& path, std::string_view option,
                       std::initializer_list<std::string_view> endings, const std::filesystem::path& outputFolder) {
  const std::string what = std::string(option) + " " + Quoted(path);
  const std::string ending = platform::LowerCaseEnding(path);
  if (std::find(endings.begin(), endings.end(), ending) == endings.end()) {
    std::string valid;
    for (const std::string_view e : endings) valid += (valid.empty() ? "" : ", ") + std::string(e);
    return platform::IllegalArgumentError(what + ": " +
                                          (ending.empty() ? "the file name has no ending"
                                                          : "the ending \"" + Excerpt(ending, 20) + "\" is not supported") +
                                          " (use " + valid + ")!");
  }
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) return platform::IllegalArgumentError(what + " is a folder!");
  const std::filesystem::path folder = FolderOf(path);
  if (!outputFolder.empty() && folder.lexically_normal() == outputFolder.lexically_normal() &&
      !std::filesystem::exists(folder, error))
    return CheckOutputFolder(outputFolder);
  return CheckWritableFolder(folder, what);
}

Status CheckOutputFolder(const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::path existing = folder;
  while (!existing.empty() && !std::filesystem::exists(std::filesystem::symlink_status(existing, error)))
    existing = existing.parent_path();
  if (existing.empty()) existing = ".";
  const std::string what = "-o " + Quoted(folder);
  if (!std::filesystem::is_directory(existing, error))
    return platform::IllegalArgumentError(what + ": " + Quoted(existing) + " is not a folder!");
  return CheckWritableFolder(existing, what);
}

OutputTransaction::~OutputTransaction() {
  if (done_) return;
  std::error_code ignored;
  for (const Staged& file : staged_) std::filesystem::remove(file.temporary, ignored);
  // Innermost first; a folder that holds anything (a file another program put there) stays.
  for (auto folder = createdFolders_.rbegin(); folder != createdFolders_.rend(); ++folder)
    std::filesystem::remove(*folder, ignored);
}

Status OutputTransaction::CreateFolder(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> missing;
  std::error_code error;
  for (std::filesystem::path at = folder; !at.empty() && !std::filesystem::exists(at, error); at = at.parent_path())
    missing.push_back(at);
  for (auto at = missing.rbegin(); at != missing.rend(); ++at) {
    if (!std::filesystem::create_directory(*at, error) && error)
      return platform::IoError("Could not create the folder " + Quoted(*at) + ": " + error.message());
    createdFolders_.push_back(*at);
  }
  return platform::Ok();
}

std::filesystem::path OutputTransaction::Stage(const std::filesystem::path& target) {
  std::filesystem::path temporary = target;
  std::string name(1, '.');
  name.append(target.stem().string())
      .append(".partial-")
      .append(std::to_string(::getpid()))
      .append("-")
      .append(std::to_string(staged_.size()))
      .append(target.extension().string());
  temporary.replace_filename(name);
  staged_.push_back({target, temporary});
  return temporary;
}

Status OutputTransaction::Commit() {
  // Renames within a folder do not fail for lack of space, so once every file is
  // written, moving them into place is as close to all-or-nothing as a file system allows.
  for (const Staged& file : staged_) {
    std::error_code error;
    std::filesystem::rename(file.temporary, file.target, error);
    if (error)
      return platform::IoError("Could not move the new " + Quoted(file.target) + " into place: " + error.message());
    const std::uintmax_t bytes = std::filesystem::file_size(file.target, error);
    committed_.push_back({file.target, error ? 0 : bytes});
  }
  done_ = true;
  return platform::Ok();
}

}  // namespace vellgrund_cli
