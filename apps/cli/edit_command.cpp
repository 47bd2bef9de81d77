#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "commands.h"
#include "editor_server.h"
#include "terminal.h"

extern char** environ;

namespace vellgrund_cli {

namespace {

// The desktop's browser, started without a shell; a machine without one only misses the
// convenience, the address is printed anyway.
void OpenInBrowser(const std::string& address) {
  const char* const arguments[] = {"xdg-open", address.c_str(), nullptr};
  pid_t child = 0;
  if (::posix_spawnp(&child, "xdg-open", nullptr, nullptr, const_cast<char* const*>(arguments), environ) != 0) return;
  std::thread([child] {
    int status = 0;
    ::waitpid(child, &status, 0);
  }).detach();
}

}  // namespace

platform::Status RunEdit(const EditOptions& options) {
  platform::CancellationToken stop;
  InterruptScope interrupt(stop);
  platform::Host host;
  platform::CollectingConsole console;
  VLGD_RETURN_IF_ERROR(StartHost(host, console));
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Document> doc, LoadDocument(host, options.scene));
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<editor::EditorServer> server,
                        editor::EditorServer::Create(host, std::move(doc),
                                                     {.port = options.port,
                                                      .pageFolder = editor::DefaultPageFolder(),
                                                      .scene = options.scene == "-" ? "" : options.scene,
                                                      .folders = options.folders}));
  std::printf("Vellgrund editor: %s\n(Ctrl-C stops it.)\n", server->Address().c_str());
  std::fflush(stdout);
  if (options.openBrowser) OpenInBrowser(server->Address());

  platform::Status served = platform::Ok();
  std::thread serving([&] { served = server->Run(); });
  while (!stop.IsCancelled() && serving.joinable()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!served) break;
  }
  server->Stop();
  serving.join();
  return served;
}

}  // namespace vellgrund_cli
