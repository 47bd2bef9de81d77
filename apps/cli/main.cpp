#include <cstdio>
#include <exception>
#include <map>
#include <new>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "platform/parallel.h"

namespace {

using namespace vellgrund_cli;

// The one place where errors become messages for the user.
int Report(const platform::Error& error) {
  std::fprintf(stderr, "vellgrund: %s\n", error.message.c_str());
  switch (error.kind) {
    case platform::ErrorKind::IllegalArgument:
      return kExitBadUsage;
    default:
      return kExitFailed;
  }
}

int Run(int argc, char** argv) {
  CLI::App app{"Vellgrund: procedural terrain from the command line.", "vellgrund"};
  app.set_version_flag("--version", std::string("vellgrund ") + VELLGRUND_VERSION);
  app.require_subcommand(1);
  int threads = 0;
  app.add_option("--threads", threads, "Worker threads (default: all cores)")->check(CLI::Range(1, 1024));

  PlaneOptions plane;
  std::vector<platform::Float> size{plane.sizeX, plane.sizeZ};
  std::vector<platform::Int32> segments{plane.segmentsX, plane.segmentsZ};
  const std::map<std::string, platform::Int32> modes{{"quads", 0}, {"tris1", 1}, {"tris2", 2}};
  CLI::App* planeCommand = app.add_subcommand("plane", "Write a flat, subdivided plane (.glb, .obj or .ply)");
  planeCommand->add_option("--size", size, "Size along X and Z")->expected(2)->capture_default_str();
  planeCommand->add_option("--segments", segments, "Segments along X and Z")
      ->expected(2)
      ->check(CLI::Range(1, 20000))
      ->capture_default_str();
  planeCommand->add_option("--mode", plane.mode, "Tessellation: quads, tris1 or tris2")
      ->transform(CLI::CheckedTransformer(modes, CLI::ignore_case))
      ->default_str("quads");
  planeCommand->add_flag("--phong", plane.phong, "Smooth normals");
  planeCommand->add_option("-o,--output", plane.output, "Output file; the ending picks the format")->required();

  BuildOptions build;
  CLI::App* buildCommand = app.add_subcommand("build", "Build every Terrain object of a scene into DIR/<name>.glb");
  buildCommand->add_option("scene", build.scene, "Scene file (JSON); without one, the default scene");
  buildCommand->add_option("-o,--output", build.outputDirectory, "Output folder")->capture_default_str();
  buildCommand->add_flag("--obj", build.obj, "Also write <name>.obj");
  buildCommand->add_flag("--ply", build.ply, "Also write <name>.ply");
  buildCommand->add_option("--heightmap", build.heightmap, "Height map: .tif or .exr (32-bit float), .png (16-bit)");
  buildCommand->add_flag("--normalized", build.normalized, "Height map remapped from the terrain's range to 0..1");
  buildCommand->add_option("--heights", build.heights, "The final grid as a float64 .npy (rows, columns)");
  buildCommand->add_option("--lod", build.lod, "Level of detail")->check(CLI::Range(0.0001, 16.0))->capture_default_str();
  buildCommand->add_flag("--editor", build.editor, "Build for the editor (editor visibility decides)");
  buildCommand->add_flag("--stats", build.stats, "Per operator: rebuilt or cached, time and memory");

  std::string describeType;
  CLI::App* describeCommand = app.add_subcommand("describe", "List the node types, or the parameters of one");
  describeCommand->add_option("type", describeType, "Resource name or plug-in ID");
  CLI::App* newCommand = app.add_subcommand("new", "Print the default scene as JSON");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? kExitSuccess : kExitBadUsage;
  }

  std::optional<platform::ScopedThreadLimit> threadLimit;
  if (threads > 0) threadLimit.emplace(threads);

  platform::Status status = platform::Ok();
  if (*planeCommand) {
    plane.sizeX = size[0];
    plane.sizeZ = size[1];
    plane.segmentsX = segments[0];
    plane.segmentsZ = segments[1];
    status = RunPlane(plane);
  } else if (*buildCommand) {
    status = RunBuild(build);
  } else if (*describeCommand) {
    status = RunDescribe(describeType);
  } else if (*newCommand) {
    status = RunNew();
  }
  return status ? kExitSuccess : Report(status.error());
}

}  // namespace

int main(int argc, char** argv) {
  // Nothing may escape as an uncaught exception; the core reports errors as values, so
  // this only guards the front-end's own library calls.
  try {
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    return Report({platform::ErrorKind::OutOfMemory, "Out of memory!"});
  } catch (const std::exception& exception) {
    return Report({platform::ErrorKind::Generic, exception.what()});
  }
}
