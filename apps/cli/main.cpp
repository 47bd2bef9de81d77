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
