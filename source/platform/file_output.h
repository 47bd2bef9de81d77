#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <ostream>
#include <span>
#include <string>

#include "platform/cancellation.h"
#include "platform/function_ref.h"
#include "platform/progress.h"
#include "platform/result.h"

namespace platform {

// What a long write listens to: the break flag, tested between blocks (a cancelled write
// fails with a cancellation error and leaves nothing behind), and a sink for its progress.
struct WriteControl {
  const CancellationToken* cancel = nullptr;
  ProgressSink* progress = nullptr;
};

// Writers never leave a half-written file behind: they write beside the target under a
// temporary name and rename it into place only when everything was written.
class PendingFile {
 public:
  explicit PendingFile(std::filesystem::path target);
  ~PendingFile();  // removes the temporary file unless it was committed
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  [[nodiscard]] const std::filesystem::path& TemporaryPath() const { return temporary_; }
  [[nodiscard]] const std::filesystem::path& TargetPath() const { return target_; }
  // Moves the temporary file onto the target.
  Status Commit();

 private:
  std::filesystem::path target_;
  std::filesystem::path temporary_;
  bool committed_ = false;
};

// The file ending in lower case with its dot (".tif" for "Map.TIF"), empty when there is none;
// writers choose their format by it.
std::string LowerCaseEnding(const std::filesystem::path& path);

// Opens a binary stream on a pending file, lets `write` fill it, and commits it when
// `write` succeeded and every byte reached the file. The stream checks each block it
// hands to the system and the close, so a full disk fails with the system's reason; it
// tests the break flag and reports progress (against `expectedBytes`, when known) between
// blocks. A failed or cancelled write leaves the target as it was.
Status WriteFileAtomically(const std::filesystem::path& target, FunctionRef<Status(std::ostream&)> write,
                           const WriteControl& control = {}, std::uint64_t expectedBytes = 0);

// Writes bytes made in memory (an encoded image) the same way.
Status WriteBytesAtomically(const std::filesystem::path& target, std::span<const std::byte> bytes,
                            const WriteControl& control = {});

}  // namespace platform
