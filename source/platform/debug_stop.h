#pragma once

#include <functional>
#include <string_view>

namespace platform {

// A debug stop marks a path that must not be taken in working code (for example a
// deliberately unimplemented operation). It is reported through a handler: by default it
// is printed to standard error, and debug builds abort so that the fault is seen at once.
// Tests install their own handler to observe it.
using DebugStopHandler = std::function<void(std::string_view sourceUnit, std::string_view message)>;

void DebugStop(std::string_view sourceUnit, std::string_view message);

// Installs a handler for the lifetime of the object and restores the previous one after.
class ScopedDebugStopHandler {
 public:
  explicit ScopedDebugStopHandler(DebugStopHandler handler);
  ~ScopedDebugStopHandler();
  ScopedDebugStopHandler(const ScopedDebugStopHandler&) = delete;
  ScopedDebugStopHandler& operator=(const ScopedDebugStopHandler&) = delete;

 private:
  DebugStopHandler previous_;
};

}  // namespace platform
