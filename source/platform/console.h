#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Where messages for the user go (the console of an editor, standard error of a tool).
class ConsoleSink {
 public:
  virtual ~ConsoleSink() = default;
  virtual void Print(std::string_view line) = 0;
};

class StandardErrorConsole final : public ConsoleSink {
 public:
  void Print(std::string_view line) override;

 private:
  std::mutex mutex_;
};

// Keeps every line; for tests and for front-ends that show messages later.
class CollectingConsole final : public ConsoleSink {
 public:
  void Print(std::string_view line) override;
  [[nodiscard]] std::vector<std::string> Lines() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace platform
