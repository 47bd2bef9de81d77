#pragma once

#include <string_view>

#include "platform/types.h"

namespace platform {

// Receives the status text and progress of long work (the status bar of an editor, a
// progress bar on a terminal). Calls come from the thread that runs the evaluation.
class ProgressSink {
 public:
  virtual ~ProgressSink() = default;
  virtual void SetStatus(std::string_view text) = 0;
  virtual void ClearStatus() = 0;
  // fraction in 0 .. 1; a negative value means the amount of work is unknown.
  virtual void SetProgress(double fraction) = 0;
};

// Shows step `step` of `count` on the status bar; the bar moves in whole percent.
inline void ShowStepProgress(ProgressSink& sink, Int step, Int count) {
  const int percent = static_cast<int>(static_cast<double>(step) / static_cast<double>(count) * 100.0);
  sink.SetProgress(percent / 100.0);
}

// Discards everything; the default where nobody watches.
class NullProgressSink final : public ProgressSink {
 public:
  void SetStatus(std::string_view) override {}
  void ClearStatus() override {}
  void SetProgress(double) override {}
};

}  // namespace platform
