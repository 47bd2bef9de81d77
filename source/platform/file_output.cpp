#include "platform/file_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <streambuf>
#include <string>
#include <system_error>
#include <vector>

namespace platform {
namespace {

std::filesystem::path MakeTemporaryPath(const std::filesystem::path& target) {
  static std::atomic<unsigned> counter{0};
  std::filesystem::path temporary = target;
  temporary += ".partial-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
  return temporary;
}

std::string Quoted(const std::filesystem::path& path) {
  std::string text(1, '"');
  text += path.string();
  text += '"';
  return text;
}

// A stream buffer over a file descriptor that remembers why it stopped: the system's
// error of a failed write, or a break. Blocks are large enough that the tests between
// them cost nothing and small enough that a break is seen within milliseconds.
class CheckedFileBuffer final : public std::streambuf {
 public:
  static constexpr std::size_t kBlockBytes = std::size_t{1} << 20;

  CheckedFileBuffer(int descriptor, const WriteControl& control, std::uint64_t expectedBytes)
      : descriptor_(descriptor), control_(control), expectedBytes_(expectedBytes), block_(kBlockBytes) {
    setp(block_.data(), block_.data() + block_.size());
  }
  ~CheckedFileBuffer() override {
    if (descriptor_ >= 0) ::close(descriptor_);
  }

  // Hands the rest to the system and closes the file; false when any of it failed.
  bool Finish() {
    const bool flushed = FlushBlock();
    const int descriptor = descriptor_;
    descriptor_ = -1;
    if (::close(descriptor) != 0 && error_ == 0) error_ = errno;
    return flushed && error_ == 0 && !cancelled_;
  }
  [[nodiscard]] int SystemError() const { return error_; }
  [[nodiscard]] bool Cancelled() const { return cancelled_; }

 protected:
  int_type overflow(int_type character) override {
    if (!FlushBlock()) return traits_type::eof();
    if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
    *pptr() = traits_type::to_char_type(character);
    pbump(1);
    return character;
  }
  int sync() override { return FlushBlock() ? 0 : -1; }

 private:
  bool FlushBlock() {
    if (error_ != 0 || cancelled_) return false;
    if (TestBreak(control_.cancel)) {
      cancelled_ = true;
      return false;
    }
    const char* data = pbase();
    std::size_t left = static_cast<std::size_t>(pptr() - pbase());
    while (left > 0) {
      const ssize_t written = ::write(descriptor_, data, left);
      if (written < 0) {
        if (errno == EINTR) continue;
        error_ = errno;
        return false;
      }
      // A short write is what a file size limit or a nearly full disk gives first; the
      // next write reports the reason.
      data += written;
      left -= static_cast<std::size_t>(written);
      total_ += static_cast<std::uint64_t>(written);
    }
    setp(block_.data(), block_.data() + block_.size());
    if (control_.progress != nullptr && expectedBytes_ > 0)
      control_.progress->SetProgress(
          std::min(1.0, static_cast<double>(total_) / static_cast<double>(expectedBytes_)));
    return true;
  }

  int descriptor_;
  WriteControl control_;
  std::uint64_t expectedBytes_;
  std::uint64_t total_ = 0;
  std::vector<char> block_;
  int error_ = 0;
  bool cancelled_ = false;
};

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

Status WriteFileAtomically(const std::filesystem::path& target, FunctionRef<Status(std::ostream&)> write,
                           const WriteControl& control, std::uint64_t expectedBytes) {
  PendingFile pending(target);
  const int descriptor = ::open(pending.TemporaryPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor < 0) {
    const int reason = errno;
    std::error_code ignored;
    if (const auto folder = target.parent_path(); !folder.empty() && !std::filesystem::is_directory(folder, ignored))
      return IoError("Could not open " + Quoted(target) + " for writing: the folder " + Quoted(folder) +
                     " does not exist!");
    return IoError("Could not open " + Quoted(target) + " for writing: " + std::strerror(reason) + "!");
  }
  std::unique_ptr<CheckedFileBuffer> buffer(new (std::nothrow) CheckedFileBuffer(descriptor, control, expectedBytes));
  if (!buffer) {
    ::close(descriptor);
    return OutOfMemoryError("Out of memory writing " + Quoted(target) + "!");
  }
  std::ostream stream(buffer.get());
  const Status written = write(stream);
  stream.flush();
  const bool streamGood = static_cast<bool>(stream);
  const bool finished = buffer->Finish();
  // The stream's own failure reason comes first: a write cut by a break or a full disk
  // makes the writer's later steps fail for that reason only.
  if (buffer->Cancelled()) return CancelledError("Writing " + Quoted(target) + " cancelled!");
  if (buffer->SystemError() != 0)
    return IoError("Could not write " + Quoted(target) + ": " + std::strerror(buffer->SystemError()) + "!");
  if (!written) return written;
  if (!finished || !streamGood) return IoError("Could not write " + Quoted(target) + "!");
  return pending.Commit();
}

Status WriteBytesAtomically(const std::filesystem::path& target, std::span<const std::byte> bytes,
                            const WriteControl& control) {
  return WriteFileAtomically(
      target,
      [&](std::ostream& stream) -> Status {
        // In blocks, so that the break test and the progress run between them.
        for (std::size_t at = 0; at < bytes.size() && stream; at += CheckedFileBuffer::kBlockBytes) {
          const std::size_t count = std::min(CheckedFileBuffer::kBlockBytes, bytes.size() - at);
          stream.write(reinterpret_cast<const char*>(bytes.data() + at), static_cast<std::streamsize>(count));
        }
        return Ok();
      },
      control, bytes.size());
}

}  // namespace platform
