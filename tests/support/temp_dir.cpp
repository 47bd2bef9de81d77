#include "support/temp_dir.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>

#include <gtest/gtest.h>
#include <unistd.h>

namespace testing_support {

TempDir::TempDir() {
  static std::atomic<unsigned> counter{0};
  const char* root = std::getenv("VELLGRUND_TEST_TMP");
  std::filesystem::path base = root != nullptr ? std::filesystem::path(root) : std::filesystem::temp_directory_path();
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : "test";
  path_ = base / (name + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1)));
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace testing_support
