#include "platform/file_output.h"

#include <atomic>
#include <fstream>
#include <string>
#include <system_error>

#include <unistd.h>

namespace platform {
namespace {

std::filesystem::path MakeTemporaryPath(const std::filesystem::path& target) {
  static std::atomic<unsigned> counter{0};
  std::filesystem::path temporary = target;
  temporary += ".partial-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
  return temporary;
}

}  // namespace

PendingFile::PendingFile(std::filesystem::path target)
    : target_(std::move(target)), temporary_(MakeTemporaryPath(target_)) {}

PendingFile::~PendingFile() {
  if (!committed_) {
    std::error_code ignored;
    std::filesystem::remove(temporary_, ignored);
  }
}

Status PendingFile::Commit() {
  std::error_code error;
  std::filesystem::rename(temporary_, target_, error);
  if (error) return IoError("Could not write \"" + target_.string() + "\": " + error.message());
  committed_ = true;
  return Ok();
}

std::string LowerCaseEnding(const std::filesystem::path& path) {
  std::string ending = path.extension().string();
  for (char& c : ending)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return ending;
}

Status WriteFileAtomically(const std::filesystem::path& target, FunctionRef<Status(std::ostream&)> write) {
  PendingFile pending(target);
  {
    std::ofstream stream(pending.TemporaryPath(), std::ios::binary | std::ios::trunc);
    if (!stream) return IoError("Could not open \"" + target.string() + "\" for writing!");
    VLGD_RETURN_IF_ERROR(write(stream));
    stream.flush();
    if (!stream) return IoError("Could not write \"" + target.string() + "\"!");
  }
  return pending.Commit();
}

}  // namespace platform
