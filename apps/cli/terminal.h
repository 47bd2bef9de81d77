#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/cancellation.h"
#include "platform/progress.h"

namespace vellgrund_cli {

// A progress bar on one terminal line, rewritten in place:
//   Evaluating Peaks...   [##########          ]  52%  0:03 elapsed  0:03 left
// Each status text starts a stage whose elapsed and remaining time are its own; the
// remaining time is shown once a stage has gone on long enough to estimate it. Redraws
// are limited to ten a second, so a fast loop does not spend its time printing.
class ProgressBar final : public platform::ProgressSink {
 public:
  explicit ProgressBar(std::FILE* terminal) : terminal_(terminal) {}
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() override { ClearStatus(); }

  void SetStatus(std::string_view text) override;
  void ClearStatus() override;
  void SetProgress(double fraction) override;

 private:
  using Clock = std::chrono::steady_clock;
  void Draw(bool force);

  std::FILE* terminal_;
  std::string stage_;
  double fraction_ = -1.0;
  Clock::time_point stageStart_ = Clock::now();
  Clock::time_point lastDraw_{};
  bool shown_ = false;
};

// SIGINT, SIGTERM and SIGHUP cancel the token for the scope's lifetime; the work then stops
// at its next break test and the run takes back what it wrote. SIGXFSZ is ignored so that
// a write over the file size limit fails with an error instead of killing the process.
class InterruptScope {
 public:
  explicit InterruptScope(platform::CancellationToken& token);
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;
  ~InterruptScope();
};

}  // namespace vellgrund_cli
