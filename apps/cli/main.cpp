#include <cstdio>
#include <algorithm>
#include <exception>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "platform/parallel.h"

namespace {

using namespace vellgrund_cli;

// The one place where errors become messages for the user.
int Report(const platform::Error& error) {
  switch (error.kind) {
    case platform::ErrorKind::Cancelled:
      // The engine names the loop it stopped in; the user asked to stop and needs to know
      // only that nothing they had was touched.
      std::fprintf(stderr, "vellgrund: cancelled; no existing file was changed.\n");
      return kExitCancelled;
    case platform::ErrorKind::IllegalArgument:
      std::fprintf(stderr, "vellgrund: %s\n", error.message.c_str());
      return kExitBadUsage;
    default:
      std::fprintf(stderr, "vellgrund: %s\n", error.message.c_str());
      return kExitFailed;
  }
}

// The edit distance between two words, for suggesting what a mistyped one meant.
std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// The first word that is not an option must be a command; a mistyped one gets the closest
// command suggested instead of the parser's list of unexpected arguments.
std::optional<std::string> UnknownCommand(int argc, char** argv, const CLI::App& app) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--threads") {
      ++i;
      continue;
    }
    if (word.starts_with("-")) continue;
    std::string closest;
    std::size_t best = std::string::npos;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
      if (command->get_name() == word) return std::nullopt;
      const std::size_t distance = EditDistance(word, command->get_name());
      if (distance < best) {
        best = distance;
        closest = command->get_name();
      }
    }
    std::string message = "'" + std::string(word.substr(0, 40)) + "' is not a command";
    if (best <= 2) return message + "; did you mean '" + closest + "'? See 'vellgrund --help'.";
    return message + ". See 'vellgrund --help'.";
  }
  return std::nullopt;
}

int Run(int argc, char** argv) {
  CLI::App app{"Vellgrund: procedural terrain from the command line.", "vellgrund"};
  app.set_version_flag("--version", std::string("vellgrund ") + VELLGRUND_VERSION);
  app.require_subcommand(1);
  int threads = 0;
  app.add_option("--threads", threads, "Worker threads (default: all cores); before or after the command")
      ->check(CLI::Range(1, 1024));

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
  buildCommand->add_option("scene", build.scene, "Scene file (JSON), '-' for standard input; without one, the default scene");
  buildCommand->add_option("-o,--output", build.outputDirectory, "Output folder")->capture_default_str();
  buildCommand->add_flag("--obj", build.obj, "Also write <name>.obj");
  buildCommand->add_flag("--ply", build.ply, "Also write <name>.ply");
  buildCommand->add_option("--heightmap", build.heightmap, "Height map: .tif or .exr (32-bit float), .png (16-bit)");
  buildCommand->add_flag("--normalized", build.normalized, "Height map remapped from the terrain's range to 0..1");
  buildCommand->add_option("--heights", build.heights, "The final grid as a float64 .npy (rows, columns)");
  buildCommand->add_option("--lod", build.lod, "Level of detail")->check(CLI::Range(0.0001, 16.0))->capture_default_str();
  buildCommand->add_flag("--editor", build.editor, "Build for the editor (editor visibility decides)");
  buildCommand->add_flag("--stats", build.stats,
                         "Per operator: rebuilt or cached, time and memory; per material: its bake");
  buildCommand
      ->add_option("--texture-size", build.textureSize,
                   "Pixels of baked materials along the longer side (default: one per grid sample)")
      ->check(CLI::Range(1, 16384));
  buildCommand->add_flag("-q,--quiet", build.quiet, "No progress bar, notes or list of the files written");
  buildCommand
      ->add_option("--export", build.exports,
                   "Files for engines and GIS, repeatable or a comma list: unreal, unity, geotiff, normal, splat")
      ->delimiter(',');
  buildCommand->add_flag("--fit-size", build.fitSize,
                         "Resample unreal and unity height maps to the nearest size the engine takes");
  buildCommand->add_option("--units-per-metre", build.unitsPerMetre, "World units in a metre (unreal's centimetres)")
      ->capture_default_str();
  buildCommand->add_option("--crs", build.crs, "The GeoTIFF's coordinate reference system, EPSG:<code>");
  buildCommand
      ->add_option("--normal-convention", build.normalConvention,
                   "Normal map green channel: opengl (towards the image's top) or directx (flipped)")
      ->transform(CLI::IsMember({"opengl", "directx"}, CLI::ignore_case))
      ->capture_default_str();
  buildCommand->footer(
      "SCENE '-' reads the scene from standard input. Every file is written under a temporary name and moved into\n"
      "place only when all were written: a failed or cancelled build (Ctrl-C, SIGTERM) changes no existing file.\n"
      "--export PRESET writes DIR/<name>.<preset>.png (unreal: 16-bit; normal: RGB; splat: RGBA), .raw (unity:\n"
      "16-bit little-endian) or .tif (geotiff: 32-bit float) with a sidecar DIR/<name>.<preset>.json: the size in\n"
      "world units (X, Z), position, samples, height range (min, max), height = offset + value * scale, and the\n"
      "engine's own placement (unreal: location and scale in cm; unity: size and position; geotiff: geotransform).");

  std::filesystem::path validateScene;
  CLI::App* validateCommand =
      app.add_subcommand("validate", "Check a scene file (types, parameters, names, outputs) without building it");
  validateCommand->add_option("scene", validateScene, "Scene file (JSON), or '-' for standard input")->required();

  std::string describeType;
  CLI::App* describeCommand = app.add_subcommand("describe", "List the node types, or the parameters of one");
  describeCommand->add_option("type", describeType, "Resource name or plug-in ID");
  CLI::App* newCommand = app.add_subcommand("new", "Print the default scene as JSON");

  EditOptions edit;
  CLI::App* editCommand = app.add_subcommand("edit", "Edit a scene in the browser, rebuilt live (on 127.0.0.1)");
  editCommand->add_option("scene", edit.scene, "Scene file (JSON); without one, the default landscape");
  editCommand->add_option("--port", edit.port, "Port (default: a free one)")->check(CLI::Range(1, 65535));
  bool noBrowser = false;
  editCommand->add_flag("--no-browser", noBrowser, "Only print the address; open no browser");
  editCommand->add_option("--folder", edit.folders, "A folder the editor may open, save and export in (repeatable)")
      ->check(CLI::ExistingDirectory);
  // Global options may also follow the command.
  for (CLI::App* command : {planeCommand, buildCommand, validateCommand, describeCommand, newCommand, editCommand})
    command->fallthrough();

  if (const std::optional<std::string> unknown = UnknownCommand(argc, argv, app)) {
    std::fprintf(stderr, "vellgrund: %s\n", unknown->c_str());
    return kExitBadUsage;
  }

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
  } else if (*validateCommand) {
    status = RunValidate(validateScene);
  } else if (*describeCommand) {
    status = RunDescribe(describeType);
  } else if (*newCommand) {
    status = RunNew();
  } else if (*editCommand) {
    edit.openBrowser = !noBrowser;
    status = RunEdit(edit);
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
