#include "platform/console.h"

#include <cstdio>

namespace platform {

void StandardErrorConsole::Print(std::string_view line) {
  std::lock_guard lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fputc('\n', stderr);
}

void CollectingConsole::Print(std::string_view line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(line);
}

std::vector<std::string> CollectingConsole::Lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

}  // namespace platform
