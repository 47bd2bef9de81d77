#pragma once

#include <filesystem>
#include <string>

namespace testing_support {

// A fresh, empty folder for one test's files, removed when the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& Path() const { return path_; }
  [[nodiscard]] std::filesystem::path File(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// The whole content of a file, byte for byte; empty when it cannot be read.
std::string ReadFileBytes(const std::filesystem::path& path);

}  // namespace testing_support
