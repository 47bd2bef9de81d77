#include "platform/debug_stop.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace platform {
namespace {

std::mutex handlerMutex;
DebugStopHandler currentHandler;

}  // namespace

void DebugStop(std::string_view sourceUnit, std::string_view message) {
  DebugStopHandler handler;
  {
    std::lock_guard lock(handlerMutex);
    handler = currentHandler;
  }
  if (handler) {
    handler(sourceUnit, message);
    return;
  }
  std::fprintf(stderr, "debug stop in %.*s: %.*s\n", static_cast<int>(sourceUnit.size()), sourceUnit.data(),
               static_cast<int>(message.size()), message.data());
#ifndef NDEBUG
  std::abort();
#endif
}

ScopedDebugStopHandler::ScopedDebugStopHandler(DebugStopHandler handler) {
  std::lock_guard lock(handlerMutex);
  previous_ = std::move(currentHandler);
  currentHandler = std::move(handler);
}

ScopedDebugStopHandler::~ScopedDebugStopHandler() {
  std::lock_guard lock(handlerMutex);
  currentHandler = std::move(previous_);
}

}  // namespace platform
