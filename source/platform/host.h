#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/console.h"
#include "platform/preferences.h"
#include "platform/registry.h"
#include "platform/strings.h"

namespace platform {

// Dialogs an editor shows; a tool answers them from its options.
class UserInterface {
 public:
  virtual ~UserInterface() = default;
  // The file the user chose, or no value when the dialog was cancelled.
  virtual std::optional<std::filesystem::path> SaveFileDialog(std::string_view title, std::string_view proposedName,
                                                              std::string_view suffix) = 0;
  virtual void MessageDialog(std::string_view text) = 0;
  // Shows a page of the documentation in the system's viewer. No value when it opened;
  // the page's path when there is nothing to show it in, for the caller to pass on.
  virtual std::optional<std::filesystem::path> OpenPage(const std::filesystem::path& page) { return page; }
};

// Cancels every dialog and prints messages on the console.
class ConsoleUserInterface final : public UserInterface {
 public:
  explicit ConsoleUserInterface(ConsoleSink& console) : console_(&console) {}
  std::optional<std::filesystem::path> SaveFileDialog(std::string_view, std::string_view, std::string_view) override {
    return std::nullopt;
  }
  void MessageDialog(std::string_view text) override { console_->Print(text); }
  std::optional<std::filesystem::path> OpenPage(const std::filesystem::path& page) override {
    console_->Print("Documentation: " + page.string());
    return page;
  }

 private:
  ConsoleSink* console_;
};

// The services of the application that documents and node types share: the registry,
// the preferences, the string table, the console and the dialogs.
class Host {
 public:
  // Console on standard error, dialogs cancelled, the field object types registered.
  Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  Registry& GetRegistry() { return registry_; }
  [[nodiscard]] const Registry& GetRegistry() const { return registry_; }
  Preferences& GetPreferences() { return preferences_; }
  StringTable& GetStrings() { return strings_; }
  [[nodiscard]] const StringTable& GetStrings() const { return strings_; }
  ConsoleSink& GetConsole() { return *console_; }
  // Warnings about the user's input that did not stop the work (a value clamped into its
  // limits, a resolution capped): one line each, for the user to see even in batch work.
  void Warn(std::string_view text) { warnings_->Print(text); }
  ConsoleSink& GetWarnings() { return *warnings_; }
  UserInterface& GetUserInterface() { return *userInterface_; }
  // The application's timer: values that differ between objects made one after the other
  // (a new noise's seed). While a scene is read it counts 0, 1, 2, ... instead, so that a
  // scene file that leaves such values out still gives the same document every time.
  UInt64 TimerValue();
  // A command changed the scene: the editor redraws. Counted, so that a front-end without
  // a viewport (and a test) can see that it was asked.
  void RequestUpdate() { ++updateRequests_; }
  [[nodiscard]] UInt64 UpdateRequests() const { return updateRequests_; }

  // Switches the counting timer on for its lifetime.
  class CountingTimerScope {
   public:
    explicit CountingTimerScope(Host& host) : host_(host), previous_(host.countingTimer_) {
      host.countingTimer_ = 0;
    }
    ~CountingTimerScope() { host_.countingTimer_ = previous_; }
    CountingTimerScope(const CountingTimerScope&) = delete;
    CountingTimerScope& operator=(const CountingTimerScope&) = delete;

   private:
    Host& host_;
    std::optional<UInt64> previous_;
  };

  // The sinks stay owned by the caller and must outlive their use.
  void SetConsole(ConsoleSink& console) { console_ = &console; }
  void SetWarnings(ConsoleSink& warnings) { warnings_ = &warnings; }
  void SetUserInterface(UserInterface& userInterface) { userInterface_ = &userInterface; }

 private:
  Registry registry_;
  Preferences preferences_;
  StringTable strings_;
  StandardErrorConsole standardError_;
  ConsoleUserInterface cancellingInterface_{standardError_};
  ConsoleSink* console_ = &standardError_;
  ConsoleSink* warnings_ = &standardError_;
  UserInterface* userInterface_ = &cancellingInterface_;
  std::optional<UInt64> countingTimer_;
  UInt64 updateRequests_ = 0;
};

// The folder of resource files (string table, icon sheets): $VELLGRUND_RESOURCES when set,
// else "res" beside the executable or one level up, else the source tree's.
std::filesystem::path ResourceFolder();
// The user documentation: $VELLGRUND_DOCS when set, else "docs" beside the resource folder.
std::filesystem::path DocumentationFolder();

}  // namespace platform
