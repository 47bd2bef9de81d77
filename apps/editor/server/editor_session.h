#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "editor_files.h"
#include "platform/cancellation.h"
#include "platform/document.h"
#include "platform/host.h"
#include "platform/image.h"
#include "platform/parameter_help.h"
#include "vellgrund/grid2d.h"

namespace editor {

using Json = nlohmann::json;

// A terrain as the last finished build left it: its heights and the bake of its first colour
// material, shared without a copy (a build makes new ones instead of writing into these),
// and what the overlay shows.
struct BuiltTerrain {
  std::uint64_t node = 0;
  std::string name;
  std::shared_ptr<const VLGD::Grid2D<double>> heights;
  Json overlay;
  std::shared_ptr<const platform::Image> texture;  // 8-bit sRGB RGB, or none
  std::uint64_t textureVersion = 0;                // changes only when the texture was baked again
};

// Where the page learns that something changed. Versions only grow; a reader waits for a
// version newer than the one it has seen.
struct Versions {
  std::uint64_t document = 0;  // tree, selection, parameters, undo
  std::uint64_t build = 0;     // a finished build
  std::uint64_t progress = 0;  // status text or fraction of a running build
};

// One document being edited: every request of the page is applied here under one lock,
// and a worker thread rebuilds after each change with the engine's cache. A change cancels
// a running build through the break flag, so the newest edit is the one that gets built.
class EditorSession {
 public:
  // `folders`: besides the scene's, the folders the page's file dialogs may reach.
  EditorSession(platform::Host& host, std::unique_ptr<platform::Document> document, std::filesystem::path scene,
                const std::vector<std::filesystem::path>& folders = {});
  ~EditorSession();
  EditorSession(const EditorSession&) = delete;
  EditorSession& operator=(const EditorSession&) = delete;

  // The registered node types and commands in menu order, with their parameters as the
  // attribute panel draws them.
  [[nodiscard]] Json Types() const;
  // The name people know a node type by.
  [[nodiscard]] std::string TypeLabel(const platform::PluginInfo& info) const;
  // The tree, the selection, the commands' states and the undo depth.
  [[nodiscard]] Json State();
  // One node's parameter values with their enabled and visible states.
  [[nodiscard]] Json NodeValues(std::uint64_t identity);
  // Applies one request of the page; an error leaves the document as it was.
  [[nodiscard]] platform::Result<Json> Apply(const Json& request);

  // A folder's listing for the page's file dialogs (see FolderAccess::List).
  [[nodiscard]] platform::Result<Json> Files(const std::string& folder, bool showAll);

  // The last finished build's terrains, and its summary for the page.
  [[nodiscard]] std::vector<BuiltTerrain> Built();
  [[nodiscard]] Json BuildSummary();
  [[nodiscard]] Json ProgressState();

  // Waits until a version differs from `seen` or `timeout` passes; returns the versions.
  Versions WaitForChange(const Versions& seen, std::chrono::milliseconds timeout);
  // Wakes every waiter for good: the server is stopping.
  void Close();
  [[nodiscard]] bool Closing();

 private:
  class ProgressRelay;
  class Dialogs;
  void RequestBuild();
  void BuildLoop();
  [[nodiscard]] platform::Result<Json> ApplyLocked(const Json& request);
  [[nodiscard]] platform::Result<Json> SetPreferences(const Json& request);
  [[nodiscard]] platform::Result<Json> Open(const Json& request);
  [[nodiscard]] platform::Result<Json> Save(const Json& request);
  // The materials of the built terrains baked into `terrains`; false when a newer edit
  // cancelled the bake.
  bool Bake(std::vector<BuiltTerrain>& terrains, Json& summary);
  // Waits until the build of the last edit has finished: a button (the export) reads it.
  void WaitForBuild();

  platform::Host& host_;
  std::unique_ptr<platform::Document> document_;
  std::filesystem::path scene_;
  std::filesystem::file_time_type sceneTime_{};  // of the file as loaded or last saved
  std::mutex folderMutex_;                       // folders_, which a save or an open widens
  FolderAccess folders_;
  std::unique_ptr<Dialogs> dialogs_;
  platform::UserInterface* hostInterface_ = nullptr;  // given back when the session ends
  platform::Result<platform::ParameterHelp> help_;

  std::mutex documentMutex_;  // the document and everything built from it
  platform::CancellationToken cancel_;

  std::mutex versionMutex_;  // versions_, the build results and the progress below
  std::condition_variable changed_;
  Versions versions_;
  std::uint64_t wantedBuild_ = 1;
  std::uint64_t finishedBuild_ = 0;
  bool closing_ = false;
  std::vector<BuiltTerrain> built_;
  std::uint64_t textureVersion_ = 0;  // the last version given to a texture
  Json buildSummary_ = Json::object();
  std::string progressText_;
  double progressFraction_ = 0.0;
  std::unique_ptr<ProgressRelay> progress_;
  std::thread builder_;
};

}  // namespace editor
