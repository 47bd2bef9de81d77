#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <memory>

#include "platform/document.h"
#include "platform/host.h"
#include "platform/result.h"
#include "platform/types.h"

namespace vellgrund_cli {

// Exit codes: what went wrong decides, so scripts can tell bad input from a failed build.
enum ExitCode : int {
  kExitSuccess = 0,
  kExitFailed = 1,    // the work itself failed (could not write, out of memory, ...)
  kExitBadUsage = 2,  // the command line or its input is wrong
  kExitCancelled = 130,  // stopped by SIGINT, SIGTERM or SIGHUP, as shells report an interrupt
};

struct PlaneOptions {
  platform::Float sizeX = 500.0;
  platform::Float sizeZ = 500.0;
  platform::Int32 segmentsX = 100;
  platform::Int32 segmentsZ = 100;
  platform::Int32 mode = 0;  // PLANETESSELATIONMODE
  bool phong = false;
  std::filesystem::path output;
};

platform::Status RunPlane(const PlaneOptions& options);

struct BuildOptions {
  std::filesystem::path scene;  // empty: the default scene
  std::filesystem::path outputDirectory = "out";
  bool obj = false;
  bool ply = false;
  std::filesystem::path heightmap;  // .tif, .exr (32-bit float) or .png (16-bit); empty: none
  bool normalized = false;
  std::filesystem::path heights;  // .npy; empty: none
  platform::Float lod = 1.0;
  bool editor = false;
  bool stats = false;
  bool quiet = false;  // no progress bar, notes or list of written files
  platform::Int textureSize = 0;  // pixels of baked materials along the longer side; 0: the grid's
  // Files for game engines and GIS, each with a JSON sidecar: <DIR>/<name>.<preset>.<ending>
  // and <DIR>/<name>.<preset>.json.
  std::vector<std::string> exports;  // preset names
  bool fitSize = false;
  platform::Float unitsPerMetre = 100.0;
  std::string crs;  // EPSG:<code> for the GeoTIFF; empty: none
  std::string normalConvention = "opengl";
};

platform::Status RunBuild(const BuildOptions& options);

// The application as every command starts it, and a scene of it: a file, standard input
// ("-") or, for an empty path, the default landscape.
platform::Status StartHost(platform::Host& host, platform::CollectingConsole& console);
platform::Result<std::unique_ptr<platform::Document>> LoadDocument(platform::Host& host,
                                                                   const std::filesystem::path& scene);

struct EditOptions {
  std::filesystem::path scene;  // empty: the default landscape
  int port = 0;                 // 0: a free port
  bool openBrowser = true;
  std::vector<std::filesystem::path> folders;  // more folders the file dialogs may reach
};

// Serves the editor on 127.0.0.1 until interrupted.
platform::Status RunEdit(const EditOptions& options);
// Loads a scene and plans its outputs as a build would, without building.
platform::Status RunValidate(const std::filesystem::path& scene);
// Lists the registered types in menu order, or the parameters of one type.
platform::Status RunDescribe(const std::string& type);
// Prints the default scene.
platform::Status RunNew();

}  // namespace vellgrund_cli
