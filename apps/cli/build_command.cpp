#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "commands.h"
#include "main/vellgrund_module.h"
#include "object/terrainobject.h"
#include "platform/file_output.h"
#include "platform/mesh_io.h"
#include "platform/npy.h"
#include "platform/scene_file.h"

namespace vellgrund_cli {
namespace {

using platform::Status;

// Ctrl-C sets the evaluation's break flag; the build then ends with a cancellation error
// and writes nothing.
platform::CancellationToken* interruptToken = nullptr;
extern "C" void OnInterrupt(int) {
  if (interruptToken != nullptr) interruptToken->Cancel();
}

// One line on the terminal, rewritten as the status changes.
class TerminalProgress final : public platform::ProgressSink {
 public:
  void SetStatus(std::string_view text) override { std::fprintf(stderr, "\r\033[K%.*s", static_cast<int>(text.size()), text.data()); }
  void ClearStatus() override { std::fprintf(stderr, "\r\033[K"); }
  void SetProgress(double) override {}
};

// The heights file of a terrain: the given name, with the terrain's name added when the
// scene has several.
std::filesystem::path PerTerrain(const std::filesystem::path& file, const std::string& name, bool several) {
  if (!several) return file;
  std::filesystem::path named = file;
  named.replace_filename(file.stem().string() + "_" + name + file.extension().string());
  return named;
}

// Writes one output and remembers it, so that a cancelled build can take back what it wrote.
class Outputs {
 public:
  explicit Outputs(const platform::CancellationToken& cancel) : cancel_(cancel) {}
  Outputs(const Outputs&) = delete;
  Outputs& operator=(const Outputs&) = delete;
  ~Outputs() {
    if (committed_) return;
    std::error_code ignored;
    for (const auto& path : written_) std::filesystem::remove(path, ignored);
  }
  template <class Write>
  Status Add(const std::filesystem::path& path, Write&& write) {
    if (cancel_.IsCancelled()) return platform::CancelledError("Build cancelled!");
    VLGD_RETURN_IF_ERROR(write(path));
    written_.push_back(path);
    return cancel_.IsCancelled() ? platform::Status(platform::CancelledError("Build cancelled!")) : platform::Ok();
  }
  void Commit() { committed_ = true; }

 private:
  const platform::CancellationToken& cancel_;
  std::vector<std::filesystem::path> written_;
  bool committed_ = false;
};

Status WriteOutputs(const BuildOptions& options, platform::Node& terrain, bool several, Outputs& outputs) {
  const auto& data = *terrain.GetNodeData<VLGD::TerrainObject>();
  const platform::GeometryObject* mesh = terrain.GetCache();
  if (mesh == nullptr) return platform::GenericError("The terrain '" + terrain.GetName() + "' built no mesh!");
  std::error_code error;
  std::filesystem::create_directories(options.outputDirectory, error);
  if (error)
    return platform::IoError("Could not create the folder " + options.outputDirectory.string() + ": " + error.message());
  const std::filesystem::path base = options.outputDirectory / terrain.GetName();
  VLGD_RETURN_IF_ERROR(outputs.Add(base.string() + ".glb", [&](const auto& path) { return platform::WriteGlb(*mesh, path); }));
  if (options.obj)
    VLGD_RETURN_IF_ERROR(outputs.Add(base.string() + ".obj", [&](const auto& path) { return platform::WriteObj(*mesh, path); }));
  if (options.ply)
    VLGD_RETURN_IF_ERROR(outputs.Add(base.string() + ".ply", [&](const auto& path) { return platform::WritePly(*mesh, path); }));
  if (!options.heightmap.empty()) {
    VLGD_ASSIGN_OR_RETURN(platform::Image image, data.HeightImage(options.normalized));
    const bool png = platform::LowerCaseEnding(options.heightmap) == ".png";
    VLGD_RETURN_IF_ERROR(outputs.Add(PerTerrain(options.heightmap, terrain.GetName(), several), [&](const auto& path) {
      return platform::WriteImage(image, path, png ? platform::PixelType::UInt16 : platform::PixelType::Float32);
    }));
  }
  if (!options.heights.empty()) {
    const VLGD::Grid2D<platform::Float>& grid = data.GetGrid();
    VLGD_RETURN_IF_ERROR(outputs.Add(PerTerrain(options.heights, terrain.GetName(), several), [&](const auto& path) {
      return platform::WriteNpy(path, grid.Values(), grid.Height(), grid.Width());
    }));
  }
  return platform::Ok();
}

void PrintStats(platform::Node& terrain) {
  const auto& queue = terrain.GetNodeData<VLGD::TerrainObject>()->GetQueue();
  std::printf("%s\n", terrain.GetName().c_str());
  for (const auto& item : queue.Items()) {
    std::printf("  %-24s %-7s %9.2f ms %12lld bytes\n", item.object->GetName().c_str(),
                item.result == VLGD::EVALUATIONRESULT::REBUILT ? "REBUILT" : "CACHED", item.seconds * 1000.0,
                static_cast<long long>(item.operatorData->GetMemoryUsage()));
  }
}

}  // namespace


Status StartHost(platform::Host& host, platform::CollectingConsole& console) {
  host.SetConsole(console);
  VLGD_RETURN_IF_ERROR(VLGD::StartModule(host));
  // The banner is for editors; warnings (a broken preference file, say) are for everyone.
  const std::vector<std::string> lines = console.Lines();
  for (size_t i = 2; i < lines.size(); ++i) std::fprintf(stderr, "vellgrund: %s\n", lines[i].c_str());
  return platform::Ok();
}

// Ctrl-C from the start: a break before the build skips it, a break during it stops it, a
// break while files are written stops before the next file.
class InterruptScope {
 public:
  explicit InterruptScope(platform::CancellationToken& token) {
    interruptToken = &token;
    std::signal(SIGINT, OnInterrupt);
  }
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;
  ~InterruptScope() {
    std::signal(SIGINT, SIG_DFL);
    interruptToken = nullptr;
  }
};

Status RunBuild(const BuildOptions& options) {
  platform::CancellationToken cancel;
  InterruptScope interrupt(cancel);
  if (!options.scene.empty() && !std::filesystem::is_regular_file(options.scene))
    return platform::IllegalArgumentError("The scene file " + options.scene.string() + " does not exist!");
  platform::Host host;
  // Build errors reach the user once, through the caller's report.
  platform::CollectingConsole console;
  VLGD_RETURN_IF_ERROR(StartHost(host, console));
  std::unique_ptr<platform::Document> doc;
  if (options.scene.empty()) {
    VLGD_ASSIGN_OR_RETURN(doc, platform::LoadScene(host, kDefaultScene, "default scene"));
  } else {
    VLGD_ASSIGN_OR_RETURN(doc, platform::LoadSceneFile(host, options.scene));
  }
  std::vector<platform::Node*> terrains;
  for (platform::Node* node : doc->AllNodes())
    if (node->GetType() == VLGD::ID_TERRAINOBJECT) terrains.push_back(node);
  if (terrains.empty()) return platform::IllegalArgumentError("The scene holds no Terrain object!");

  TerminalProgress terminal;
  platform::NullProgressSink quiet;
  platform::HierarchyHelp help;
  help.lod = options.lod;
  help.purpose = options.editor ? platform::BuildPurpose::EDITOR : platform::BuildPurpose::RENDER;
  help.flags = platform::BUILDFLAGS_ISOPARM;
  help.cancel = &cancel;
  help.progress = isatty(STDERR_FILENO) != 0 ? static_cast<platform::ProgressSink*>(&terminal) : &quiet;
  if (cancel.IsCancelled()) return platform::CancelledError("Build cancelled!");
  VLGD_RETURN_IF_ERROR(doc->ExecutePasses(help));
  Outputs outputs(cancel);
  for (platform::Node* terrain : terrains) VLGD_RETURN_IF_ERROR(WriteOutputs(options, *terrain, terrains.size() > 1, outputs));
  outputs.Commit();
  if (options.stats)
    for (platform::Node* terrain : terrains) PrintStats(*terrain);
  return platform::Ok();
}

}  // namespace vellgrund_cli
