#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "common/vlgd_export.h"
#include "main/default_scene.h"
#include "main/vellgrund_module.h"
#include "object/terrainobject.h"
#include "output_files.h"
#include "platform/file_output.h"
#include "platform/material.h"
#include "platform/mesh_io.h"
#include "platform/npy.h"
#include "platform/parameter_reader.h"
#include "platform/scene_file.h"
#include "shader/bake.h"
#include "terminal.h"

namespace vellgrund_cli {
namespace {

using platform::Status;

// Messages for the user on standard error, each line under the tool's name.
class PrefixedStandardError final : public platform::ConsoleSink {
 public:
  void Print(std::string_view line) override {
    std::fprintf(stderr, "vellgrund: %.*s\n", static_cast<int>(line.size()), line.data());
  }
};

void Note(const std::string& text) {
  std::fprintf(stderr, "vellgrund: note: %s\n", text.c_str());
}

std::string NameOf(const platform::Node& node) {
  return QuotedName(node.GetName());
}

// The scene's text: from a file, from standard input ("-"), or the default scene. Reading
// is bounded, so a huge or endless input is refused instead of filling the memory.
platform::Result<std::string> ReadSceneText(const std::filesystem::path& scene) {
  if (scene.empty()) return std::string(VLGD::kDefaultScene);
  const bool standardInput = scene == "-";
  const std::string what =
      standardInput ? std::string("The scene on standard input") : "The scene file " + Quoted(scene);
  std::FILE* file = stdin;
  if (!standardInput) {
    struct stat info {};
    if (::stat(scene.c_str(), &info) != 0) {
      if (errno == ENOENT) return platform::IllegalArgumentError(what + " does not exist!");
      return platform::IllegalArgumentError("Could not read the scene file " + Quoted(scene) + ": " +
                                            std::strerror(errno));
    }
    if (S_ISDIR(info.st_mode))
      return platform::IllegalArgumentError(what + " is a folder; give the path of a .json scene file!");
    if (S_ISREG(info.st_mode) && static_cast<std::uintmax_t>(info.st_size) > std::uintmax_t{platform::kMaxSceneBytes})
      return platform::IllegalArgumentError(what + " is " + ByteSize(static_cast<std::uintmax_t>(info.st_size)) +
                                            "; scene files may be at most " + ByteSize(platform::kMaxSceneBytes) + "!");
    file = std::fopen(scene.c_str(), "rb");
    if (file == nullptr)
      return platform::IllegalArgumentError("Could not read the scene file " + Quoted(scene) + ": " +
                                            std::strerror(errno));
  }
  std::string text;
  char block[65536];
  std::size_t count = 0;
  bool failed = false;
  while ((count = std::fread(block, 1, sizeof block, file)) > 0) {
    text.append(block, count);
    if (text.size() > platform::kMaxSceneBytes) break;
  }
  failed = std::ferror(file) != 0;
  const int reason = errno;
  if (!standardInput) std::fclose(file);
  if (failed) return platform::IllegalArgumentError("Could not read " + what.substr(4) + ": " + std::strerror(reason));
  if (text.size() > platform::kMaxSceneBytes)
    return platform::IllegalArgumentError(what + " is larger than " + ByteSize(platform::kMaxSceneBytes) +
                                          ", the most a scene file may hold!");
  if (text.find_first_not_of(" \t\r\n") == std::string::npos)
    return platform::IllegalArgumentError(what + " is empty; 'vellgrund new' prints a scene to start from.");
  return text;
}

// One --export preset of one terrain: its data file and its sidecar.
struct ExportFile {
  VLGD::EXPORTPRESET preset = VLGD::EXPORTPRESET::UNREAL;
  std::filesystem::path file;
  std::filesystem::path sidecar;
};

// The weight grids of a terrain's splat map and their names, owned for the write.
struct SplatWeights {
  std::vector<VLGD::Grid2D<platform::Float>> grids;
  std::vector<std::string> names;
};

// The files of one terrain.
struct TerrainFiles {
  platform::Node* terrain = nullptr;
  std::vector<std::filesystem::path> meshes;  // the .glb last
  std::filesystem::path heightmap;
  std::filesystem::path heights;
  std::vector<ExportFile> exports;
  SplatWeights splat;
  std::vector<VLGD::BakeReport> bakes;  // its materials, in the order it lists them
};

// The --export presets and what they share, parsed before the scene is read.
struct ExportRequest {
  std::vector<VLGD::EXPORTPRESET> presets;
  VLGD::ExportOptions options;
};

// The heights file of a terrain: the given name, with the terrain's file name added when
// the scene has several.
std::filesystem::path PerTerrain(const std::filesystem::path& file, const std::string& stem, bool several) {
  if (!several || file.empty()) return file;
  std::filesystem::path named = file;
  named.replace_filename(file.stem().string() + "_" + stem + file.extension().string());
  return named;
}

platform::Result<ExportRequest> ParseExports(const BuildOptions& options) {
  ExportRequest request;
  for (const std::string& name : options.exports) {
    if (name.empty()) continue;
    VLGD_ASSIGN_OR_RETURN(const VLGD::EXPORTPRESET preset, VLGD::ParseExportPreset(name));
    if (std::find(request.presets.begin(), request.presets.end(), preset) == request.presets.end())
      request.presets.push_back(preset);
  }
  const auto wants = [&](VLGD::EXPORTPRESET preset) {
    return std::find(request.presets.begin(), request.presets.end(), preset) != request.presets.end();
  };
  if (!std::isfinite(options.unitsPerMetre) || options.unitsPerMetre <= 0.0)
    return platform::IllegalArgumentError("--units-per-metre must be a number above 0, not " +
                                          std::to_string(options.unitsPerMetre) + "!");
  request.options.unitsPerMetre = options.unitsPerMetre;
  request.options.fitSize = options.fitSize;
  request.options.normalConvention =
      options.normalConvention == "directx" ? VLGD::NORMALCONVENTION::DIRECTX : VLGD::NORMALCONVENTION::OPENGL;
  if (!options.crs.empty()) {
    if (!wants(VLGD::EXPORTPRESET::GEOTIFF))
      return platform::IllegalArgumentError("--crs names the CRS of a GeoTIFF; add --export geotiff!");
    VLGD_ASSIGN_OR_RETURN(request.options.epsg, VLGD::ParseCrs(options.crs));
  }
  return request;
}

Status CheckOptions(const BuildOptions& options) {
  if (!std::isfinite(options.lod) || options.lod <= 0.0)
    return platform::IllegalArgumentError("--lod must be a number above 0, not " + std::to_string(options.lod) + "!");
  VLGD_RETURN_IF_ERROR(CheckOutputFolder(options.outputDirectory));
  if (!options.heightmap.empty())
    VLGD_RETURN_IF_ERROR(
        CheckOutputFile(options.heightmap, "--heightmap", {".tif", ".tiff", ".exr", ".png"}, options.outputDirectory));
  if (!options.heights.empty())
    VLGD_RETURN_IF_ERROR(CheckOutputFile(options.heights, "--heights", {".npy"}, options.outputDirectory));
  return platform::Ok();
}

// Which terrains are built and where each file goes, decided before the build so that
// every refusal comes before the work.
platform::Result<std::vector<TerrainFiles>> PlanFiles(platform::Document& doc, const BuildOptions& options,
                                                      platform::BuildPurpose purpose, bool notes,
                                                      const ExportRequest& exports = {}) {
  std::vector<platform::Node*> terrains;
  std::size_t found = 0;
  for (platform::Node* node : doc.AllNodes()) {
    if (node->GetType() != VLGD::ID_TERRAINOBJECT) continue;
    ++found;
    if (!node->IsActiveFor(purpose)) {
      if (notes)
        Note("skipping the terrain " + NameOf(*node) + ": it is " +
             (node->IsEnabled() ? std::string("hidden in ") +
                                      (purpose == platform::BuildPurpose::RENDER ? "render" : "editor") + " builds"
                                : std::string("disabled")) +
             ".");
      continue;
    }
    terrains.push_back(node);
  }
  if (found == 0) return platform::IllegalArgumentError("The scene holds no Terrain object (type 'oterrain')!");
  if (terrains.empty())
    return platform::IllegalArgumentError("Every Terrain object of the scene is disabled or hidden; nothing to build!");

  const bool several = terrains.size() > 1;
  std::map<std::string, platform::Node*> byStem;
  std::vector<TerrainFiles> plan;
  for (platform::Node* terrain : terrains) {
    const std::string stem = SafeFileStem(terrain->GetName());
    const auto [other, added] = byStem.emplace(stem, terrain);
    if (!added)
      return platform::IllegalArgumentError("The terrains " + NameOf(*other->second) + " and " + NameOf(*terrain) +
                                            " would both be written as " + Quoted(stem + ".glb") +
                                            "; give them different names!");
    const platform::ParameterContainer& data = terrain->GetData();
    for (const auto& [id, axis] :
         {std::pair{VLGD::TERRAINOBJECT_RESOLUTION_X, "X"}, std::pair{VLGD::TERRAINOBJECT_RESOLUTION_Z, "Z"}}) {
      const platform::Int32 resolution = data.GetInt32(id);
      if (resolution >= 1 && static_cast<platform::Float>(resolution) * options.lod < 1.0) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "--lod %g leaves the terrain %s no sample in %s (resolution %d); use --lod %g or more!",
                      options.lod, NameOf(*terrain).c_str(), axis, resolution, 1.0 / resolution);
        return platform::IllegalArgumentError(text);
      }
    }
    TerrainFiles files;
    files.terrain = terrain;
    const std::filesystem::path base = options.outputDirectory / stem;
    if (options.obj) files.meshes.push_back(base.string() + ".obj");
    if (options.ply) files.meshes.push_back(base.string() + ".ply");
    files.meshes.push_back(base.string() + ".glb");
    files.heightmap = PerTerrain(options.heightmap, stem, several);
    files.heights = PerTerrain(options.heights, stem, several);
    for (const VLGD::EXPORTPRESET preset : exports.presets) {
      const std::string name = base.string() + "." + std::string(VLGD::ExportPresetName(preset));
      ExportFile exported{preset, name + std::string(VLGD::ExportPresetEnding(preset)), name + ".json"};
      for (const std::filesystem::path& named : {files.heightmap, files.heights})
        if (!named.empty() && named.lexically_normal() == exported.file.lexically_normal())
          return platform::IllegalArgumentError(Quoted(named) + " is also the " +
                                                std::string(VLGD::ExportPresetName(preset)) + " export of " +
                                                NameOf(*terrain) + "; give it another name!");
      files.exports.push_back(std::move(exported));
    }
    plan.push_back(std::move(files));
  }
  return plan;
}

// Exact in metadata, short in messages.
std::string HeightText(platform::Float value, bool exact = true) {
  char text[40];
  std::snprintf(text, sizeof text, exact ? "%.17g" : "%g", value);
  return text;
}

Status WriteHeightMap(const TerrainFiles& files, const std::filesystem::path& temporary, bool normalized,
                      const platform::WriteControl& control) {
  const auto& data = *files.terrain->GetNodeData<VLGD::TerrainObject>();
  const VLGD::Grid2D<platform::Float>& grid = data.GetGrid();
  // A 16-bit PNG holds 0 .. 65535: raw heights would all clip, so it always holds the
  // terrain's range mapped to 0 .. 1, and the range goes into the file to map it back.
  const bool png = platform::LowerCaseEnding(files.heightmap) == ".png";
  const bool mapped = normalized || png;
  if (png && !normalized)
    Note(Quoted(files.heightmap) + " holds the heights " + HeightText(grid.Minimum(), false) + " .. " +
         HeightText(grid.Maximum(), false) +
         " mapped to 0 .. 65535 (a PNG cannot hold raw heights; the range is in its metadata).");
  VLGD_ASSIGN_OR_RETURN(platform::Image image, data.HeightImage(mapped));
  std::vector<platform::ImageAttribute> attributes;
  if (mapped) {
    attributes.push_back({"Vellgrund:HeightMinimum", HeightText(grid.Minimum())});
    attributes.push_back({"Vellgrund:HeightMaximum", HeightText(grid.Maximum())});
  }
  return platform::WriteImage(image, temporary, png ? platform::PixelType::UInt16 : platform::PixelType::Float32,
                              control, attributes);
}

// The first sample that a mesh file cannot hold (not a finite single-precision number), or -1.
platform::Int FirstUnwritableHeight(const VLGD::Grid2D<platform::Float>& grid) {
  constexpr platform::Float kLargest = std::numeric_limits<float>::max();
  const platform::Float* values = grid.Data();
  for (platform::Int i = 0; i < grid.Count(); ++i)
    if (!(std::abs(values[i]) <= kLargest)) return i;
  return -1;
}

// Names the first operator whose result holds a height no mesh file can hold, so the
// user knows which parameters to look at.
Status CheckHeights(const platform::Node& terrain) {
  const auto& data = *terrain.GetNodeData<VLGD::TerrainObject>();
  const VLGD::Grid2D<platform::Float>& grid = data.GetGrid();
  if (FirstUnwritableHeight(grid) < 0) return platform::Ok();
  std::string culprit;
  platform::Int at = -1;
  for (const VLGD::TerrainObject::OperatorReport& step : data.LastBuildReport()) {
    at = FirstUnwritableHeight(*step.result);
    if (at < 0) continue;
    culprit = " The first operator whose own result holds one is " + NameOf(*step.object) + " (column " +
              std::to_string(at % step.result->Width()) + ", row " + std::to_string(at / step.result->Width()) +
              "); check its parameters and the scales of the operators above it.";
    break;
  }
  return platform::IllegalArgumentError("The terrain " + NameOf(terrain) +
                                        " has a height that is not a number or too large for a mesh file!" + culprit);
}

VLGD::ExportTerrain ExportTerrainOf(const platform::Node& terrain) {
  return {terrain.GetName(), &terrain.GetNodeData<VLGD::TerrainObject>()->GetGrid(), terrain.GetMg().off};
}

// A terrain's baked mask materials (the first four, in the order it lists them) as weight
// grids in the grid's row order: a baked texture's first line is the grid's last row.
platform::Result<SplatWeights> SplatWeightsOf(const TerrainFiles& files) {
  SplatWeights weights;
  for (const VLGD::BakeReport& bake : files.bakes) {
    if (bake.colour) continue;
    if (weights.grids.size() == 4) break;
    const platform::Image& image = *bake.image;
    VLGD::Grid2D<platform::Float> grid;
    const VLGD::Grid2D<platform::Float>& heights = files.terrain->GetNodeData<VLGD::TerrainObject>()->GetGrid();
    VLGD_RETURN_IF_ERROR(grid.Init(image.Width(), image.Height(), heights.SizeX(), heights.SizeY()));
    for (platform::Int y = 0; y < image.Height(); ++y)
      for (platform::Int x = 0; x < image.Width(); ++x)
        grid.Set(x, image.Height() - 1 - y, image.GetPixel(x, y, 0) / 65535.0);
    try {
      weights.grids.push_back(std::move(grid));
      weights.names.push_back(bake.material->GetName());
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError();
    }
  }
  return weights;
}

// What the exports of the built terrains refuse or want said, before any file is written.
Status CheckExports(std::vector<TerrainFiles>& plan, const ExportRequest& exports, bool notes) {
  for (TerrainFiles& files : plan) {
    if (files.exports.empty()) continue;
    const platform::Matrix placement = files.terrain->GetMg();
    if (notes && (placement.v1 != platform::Vector(1.0, 0.0, 0.0) || placement.v2 != platform::Vector(0.0, 1.0, 0.0) ||
                  placement.v3 != platform::Vector(0.0, 0.0, 1.0)))
      Note("the terrain " + NameOf(*files.terrain) +
           " is turned or scaled; the exports place it by its position only.");
    const VLGD::ExportTerrain terrain = ExportTerrainOf(*files.terrain);
    for (const ExportFile& exported : files.exports) {
      if (exported.preset == VLGD::EXPORTPRESET::SPLAT) {
        VLGD_ASSIGN_OR_RETURN(files.splat, SplatWeightsOf(files));
        if (files.splat.grids.empty())
          return platform::IllegalArgumentError("--export splat: the terrain " + NameOf(*files.terrain) +
                                                " has no mask materials to make a splat map from!");
        continue;
      }
      VLGD_ASSIGN_OR_RETURN(const VLGD::ExportShape shape,
                            VLGD::PlanExportShape(exported.preset, terrain, exports.options));
      if (notes && !shape.note.empty()) Note(shape.note);
    }
  }
  return platform::Ok();
}

Status WriteExport(const TerrainFiles& files, const ExportFile& exported, const ExportRequest& exports,
                   const std::filesystem::path& staged, std::string& sidecar, const platform::WriteControl& control) {
  const VLGD::ExportTerrain terrain = ExportTerrainOf(*files.terrain);
  const std::string fileName = exported.file.filename().string();
  std::vector<VLGD::SplatLayer> layers;
  for (std::size_t i = 0; i < files.splat.grids.size(); ++i)
    layers.push_back({&files.splat.grids[i], i < files.splat.names.size() ? files.splat.names[i] : std::string()});
  platform::Result<std::string> text =
      exported.preset == VLGD::EXPORTPRESET::SPLAT
          ? VLGD::WriteSplatMap(terrain, layers, exports.options, staged, fileName, control)
          : VLGD::WriteTerrainExport(exported.preset, terrain, exports.options, staged, fileName, control);
  if (!text) return std::unexpected(text.error());
  sidecar = std::move(*text);
  return platform::Ok();
}

Status WriteFiles(const std::vector<TerrainFiles>& plan, const BuildOptions& options, const ExportRequest& exports,
                  OutputTransaction& outputs, platform::ProgressSink& progress,
                  const platform::CancellationToken& cancel) {
  VLGD_RETURN_IF_ERROR(outputs.CreateFolder(options.outputDirectory));
  const platform::WriteControl control{&cancel, &progress};
  const auto write = [&](const std::filesystem::path& target, auto&& writer) -> Status {
    if (cancel.IsCancelled()) return platform::CancelledError("Build cancelled!");
    progress.SetStatus("Writing " + Excerpt(target.filename().string(), 60));
    const std::filesystem::path staged = outputs.Stage(target);
    Status written = writer(staged);
    if (!written) {
      // The user knows the file by the name they asked for, not by its staging name.
      std::string& message = written.error().message;
      const std::string from = staged.string(), to = target.string();
      for (std::size_t at = message.find(from); at != std::string::npos; at = message.find(from, at + to.size()))
        message.replace(at, from.size(), to);
    }
    return written;
  };
  // The small files first: a cancel during the large ones then finds everything staged.
  for (const TerrainFiles& files : plan) {
    const platform::GeometryObject* mesh = files.terrain->GetCache();
    if (mesh == nullptr) return platform::GenericError("The terrain " + NameOf(*files.terrain) + " built no mesh!");
    VLGD_RETURN_IF_ERROR(CheckHeights(*files.terrain));
    if (!files.heights.empty()) {
      const VLGD::Grid2D<platform::Float>& grid = files.terrain->GetNodeData<VLGD::TerrainObject>()->GetGrid();
      VLGD_RETURN_IF_ERROR(write(files.heights, [&](const auto& path) {
        return platform::WriteNpy(path, grid.Values(), grid.Height(), grid.Width(), control);
      }));
    }
    if (!files.heightmap.empty())
      VLGD_RETURN_IF_ERROR(write(
          files.heightmap, [&](const auto& path) { return WriteHeightMap(files, path, options.normalized, control); }));
    for (const ExportFile& exported : files.exports) {
      std::string sidecar;
      VLGD_RETURN_IF_ERROR(write(exported.file, [&](const auto& path) {
        return WriteExport(files, exported, exports, path, sidecar, control);
      }));
      VLGD_RETURN_IF_ERROR(write(exported.sidecar, [&](const auto& path) {
        return platform::WriteBytesAtomically(path, std::as_bytes(std::span(sidecar)), control);
      }));
    }
    // The first colour material goes into the .glb.
    platform::MeshMaterial meshMaterial;
    const platform::MeshMaterial* material = nullptr;
    platform::Image normalMap;
    for (const VLGD::BakeReport& bake : files.bakes) {
      if (!bake.colour || files.meshes.empty()) continue;
      const platform::ParameterReader values(*bake.material);
      const platform::ParameterReader terrainValues(*files.terrain);
      VLGD_ASSIGN_OR_RETURN(normalMap, VLGD::BakeNormalMap(files.terrain->GetNodeData<VLGD::TerrainObject>()->GetGrid(),
                                                           terrainValues.GetFloat(VLGD::TERRAINOBJECT_SIZE_X),
                                                           terrainValues.GetFloat(VLGD::TERRAINOBJECT_SIZE_Z),
                                                           bake.image->Width(), bake.image->Height(), &cancel));
      meshMaterial = {bake.material->GetName(), bake.image.get(), &normalMap,
                      values.GetFloat(platform::MATERIAL_ROUGHNESS), values.GetFloat(platform::MATERIAL_METALLIC)};
      material = &meshMaterial;
      break;
    }
    for (const std::filesystem::path& target : files.meshes)
      VLGD_RETURN_IF_ERROR(
          write(target, [&](const auto& path) { return platform::WriteGeometry(*mesh, path, control, material); }));
  }
  if (cancel.IsCancelled()) return platform::CancelledError("Build cancelled!");
  progress.ClearStatus();
  return outputs.Commit();
}

void PrintStats(platform::Node& terrain) {
  std::printf("%s\n", terrain.GetName().c_str());
  for (const VLGD::TerrainObject::OperatorReport& step : terrain.GetNodeData<VLGD::TerrainObject>()->LastBuildReport())
    std::printf("  %-24s %-7s %9.2f ms %12lld bytes\n", step.object->GetName().c_str(),
                step.rebuilt ? "REBUILT" : "CACHED", step.seconds * 1000.0, static_cast<long long>(step.memoryBytes));
}

}  // namespace

platform::Result<std::unique_ptr<platform::Document>> LoadDocument(platform::Host& host,
                                                                   const std::filesystem::path& scene) {
  VLGD_ASSIGN_OR_RETURN(const std::string text, ReadSceneText(scene));
  const std::string source = scene.empty()  ? std::string("default scene")
                             : scene == "-" ? std::string("standard input")
                                            : scene.string();
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Document> doc, platform::LoadScene(host, text, Excerpt(source, 200)));
  if (!scene.empty() && scene != "-") doc->SetFolder(scene.parent_path());
  return doc;
}

Status StartHost(platform::Host& host, platform::CollectingConsole& console) {
  // The console (the banner, build errors) is for editors, and errors reach the user once
  // through the caller's report; warnings (a clamped value, a broken preference file) are
  // for everyone.
  static PrefixedStandardError warnings;
  host.SetConsole(console);
  host.SetWarnings(warnings);
  return VLGD::StartModule(host, platform::ResourceFolder(), VLGD::IconUse::CHECK_ONLY);
}

Status RunBuild(const BuildOptions& options) {
  platform::CancellationToken cancel;
  InterruptScope interrupt(cancel);
  VLGD_RETURN_IF_ERROR(CheckOptions(options));
  VLGD_ASSIGN_OR_RETURN(const ExportRequest exports, ParseExports(options));
  platform::Host host;
  platform::CollectingConsole console;
  VLGD_RETURN_IF_ERROR(StartHost(host, console));
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Document> doc, LoadDocument(host, options.scene));
  const platform::BuildPurpose purpose =
      options.editor ? platform::BuildPurpose::EDITOR : platform::BuildPurpose::RENDER;
  VLGD_ASSIGN_OR_RETURN(std::vector<TerrainFiles> plan, PlanFiles(*doc, options, purpose, !options.quiet, exports));

  std::optional<ProgressBar> bar;
  platform::NullProgressSink silent;
  if (!options.quiet && ::isatty(STDERR_FILENO) != 0) bar.emplace(stderr);
  platform::ProgressSink& progress = bar ? static_cast<platform::ProgressSink&>(*bar) : silent;
  platform::HierarchyHelp help;
  help.lod = options.lod;
  help.purpose = purpose;
  help.flags = platform::BUILDFLAGS_ISOPARM;
  help.cancel = &cancel;
  help.progress = &progress;
  if (cancel.IsCancelled()) return platform::CancelledError("Build cancelled!");
  // Where the time of a build goes, for --stats: the passes (operators, blending, meshes),
  // the bakes and the files.
  using Clock = std::chrono::steady_clock;
  const auto milliseconds = [](Clock::duration span) {
    return std::chrono::duration<double, std::milli>(span).count();
  };
  const Clock::time_point start = Clock::now();
  VLGD_RETURN_IF_ERROR(doc->ExecutePasses(help));
  const Clock::time_point built = Clock::now();
  for (TerrainFiles& files : plan) {
    VLGD_ASSIGN_OR_RETURN(
        files.bakes,
        VLGD::BakeMaterials(*files.terrain, *doc,
                            {.textureSize = options.textureSize, .cancel = &cancel, .progress = &progress}));
  }
  const Clock::time_point baked = Clock::now();
  VLGD_RETURN_IF_ERROR(CheckExports(plan, exports, !options.quiet));
  OutputTransaction outputs;
  VLGD_RETURN_IF_ERROR(WriteFiles(plan, options, exports, outputs, progress, cancel));
  const Clock::time_point written = Clock::now();
  bar.reset();
  if (!options.quiet)
    for (const OutputTransaction::Written& file : outputs.Committed())
      std::printf("wrote %s (%s)\n", file.path.c_str(), ByteSize(file.bytes).c_str());
  if (options.stats)
    for (const TerrainFiles& files : plan) {
      PrintStats(*files.terrain);
      for (const VLGD::BakeReport& bake : files.bakes)
        std::printf("  %-24s %-7s %9.2f ms  material, %lld x %lld\n", bake.material->GetName().c_str(),
                    bake.baked ? "BAKED" : "CACHED", bake.seconds * 1000.0, static_cast<long long>(bake.image->Width()),
                    static_cast<long long>(bake.image->Height()));
    }
  if (options.stats) {
    double operators = 0.0;
    for (const TerrainFiles& files : plan)
      for (const auto& step : files.terrain->GetNodeData<VLGD::TerrainObject>()->LastBuildReport())
        operators += step.seconds * 1000.0;
    std::printf("Stages: operators %.2f ms, blending and meshes %.2f ms, bakes %.2f ms, files %.2f ms\n", operators,
                milliseconds(built - start) - operators, milliseconds(baked - built), milliseconds(written - baked));
  }
  return platform::Ok();
}

Status RunValidate(const std::filesystem::path& scene) {
  platform::Host host;
  platform::CollectingConsole console;
  VLGD_RETURN_IF_ERROR(StartHost(host, console));
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Document> doc, LoadDocument(host, scene));
  BuildOptions options;
  VLGD_ASSIGN_OR_RETURN(const std::vector<TerrainFiles> plan,
                        PlanFiles(*doc, options, platform::BuildPurpose::RENDER, true));
  std::size_t operators = 0;
  for (const platform::Node* node : doc->AllNodes())
    if (node->GetTypeInfo().kind == platform::PluginKind::OBJECT && node->GetType() != VLGD::ID_TERRAINOBJECT)
      ++operators;
  std::printf("%s: valid (%zu terrain%s to build, %zu other object%s)\n",
              scene.empty()  ? "default scene"
              : scene == "-" ? "standard input"
                             : Excerpt(scene.string(), 200).c_str(),
              plan.size(), plan.size() == 1 ? "" : "s", operators, operators == 1 ? "" : "s");
  return platform::Ok();
}

}  // namespace vellgrund_cli
