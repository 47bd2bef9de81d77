#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

namespace vellgrund_cli {
namespace {

std::string ClockText(double seconds) {
  const auto total = static_cast<long>(seconds + 0.5);
  char text[32];
  if (total >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
  return text;
}

int TerminalColumns(std::FILE* terminal) {
  winsize size{};
  if (::ioctl(::fileno(terminal), TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
  return 80;
}

platform::CancellationToken* interruptToken = nullptr;

extern "C" void OnInterrupt(int) {
  if (interruptToken != nullptr) interruptToken->Cancel();
}

constexpr std::array<int, 3> kCancellingSignals = {SIGINT, SIGTERM, SIGHUP};

}  // namespace

void ProgressBar::SetStatus(std::string_view text) {
  if (text == stage_) return;
  stage_ = text;
  fraction_ = -1.0;
  stageStart_ = Clock::now();
  Draw(true);
}

void ProgressBar::ClearStatus() {
  if (shown_) std::fputs("\r\033[K", terminal_);
  std::fflush(terminal_);
  shown_ = false;
  stage_.clear();
  fraction_ = -1.0;
}

void ProgressBar::SetProgress(double fraction) {
  fraction_ = std::min(fraction, 1.0);
  Draw(false);
}

void ProgressBar::Draw(bool force) {
  const Clock::time_point now = Clock::now();
  if (!force && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  const double elapsed = std::chrono::duration<double>(now - stageStart_).count();
  const int columns = TerminalColumns(terminal_);
  std::string line = stage_.empty() ? std::string("Working...") : stage_;
  if (fraction_ >= 0.0) {
    constexpr int kBarWidth = 20;
    const int filled = static_cast<int>(fraction_ * kBarWidth);
    char percent[16];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction_ * 100.0));
    line += "  [" + std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(kBarWidth - filled), ' ') +
            "] " + percent + "  " + ClockText(elapsed) + " elapsed";
    // An estimate from the first moments of a stage is mostly noise.
    if (fraction_ > 0.02 && elapsed > 1.0) line += "  " + ClockText(elapsed * (1.0 - fraction_) / fraction_) + " left";
  } else {
    line += "  " + ClockText(elapsed) + " elapsed";
  }
  if (static_cast<int>(line.size()) >= columns) line.resize(static_cast<size_t>(columns - 1));
  std::fprintf(terminal_, "\r\033[K%s", line.c_str());
  std::fflush(terminal_);
  shown_ = true;
}

InterruptScope::InterruptScope(platform::CancellationToken& token) {
  interruptToken = &token;
  struct sigaction action{};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  for (const int signal : kCancellingSignals) ::sigaction(signal, &action, nullptr);
  std::signal(SIGXFSZ, SIG_IGN);
}

InterruptScope::~InterruptScope() {
  for (const int signal : kCancellingSignals) std::signal(signal, SIG_DFL);
  interruptToken = nullptr;
}

}  // namespace vellgrund_cli
