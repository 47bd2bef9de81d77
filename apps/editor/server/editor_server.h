#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/result.h"

namespace platform {
class Document;
class Host;
}  // namespace platform

namespace editor {

class EditorSession;

struct ServerOptions {
  int port = 0;                      // 0: a free port
  std::filesystem::path pageFolder;  // index.html, the modules and the icon sheets
  std::filesystem::path scene;       // where Save writes; empty for the default landscape
  // Besides the scene's folder, where the page's file dialogs may open, save and export.
  std::vector<std::filesystem::path> folders;
};

// The editor's HTTP server on the loopback interface: the page, its API and an event
// stream, every request checked for the session's token, its Host and its Origin.
class EditorServer {
 public:
  static platform::Result<std::unique_ptr<EditorServer>> Create(platform::Host& host,
                                                                std::unique_ptr<platform::Document> document,
                                                                ServerOptions options);
  ~EditorServer();
  EditorServer(const EditorServer&) = delete;
  EditorServer& operator=(const EditorServer&) = delete;

  // The address to open, token included.
  [[nodiscard]] std::string Address() const;
  [[nodiscard]] int Port() const;
  [[nodiscard]] const std::string& Token() const;
  [[nodiscard]] EditorSession& Session();

  // Serves until Stop; returns at once when the port could not be served.
  platform::Status Run();
  void Stop();

 private:
  struct Impl;
  explicit EditorServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// The folder with the editor's page: $VELLGRUND_EDITOR_DIR, or `editor` beside the build's
// tools (build/<preset>/editor).
std::filesystem::path DefaultPageFolder();

}  // namespace editor
