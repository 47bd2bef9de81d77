#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/cli_run.h"

namespace {

using testing_support::Outcome;
using testing_support::ReadText;
using testing_support::RunCli;
using testing_support::RunShell;

void WriteText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string Terrain(const std::string& name, int resolution, const std::string& extra = "",
                    const std::string& children = "") {
  return R"({"type": "oterrain", "name": )" + name + R"(, "params": {"10002": )" + std::to_string(resolution) +
         R"(, "10003": )" + std::to_string(resolution) + "}" + extra + R"(, "children": [)" + children + "]}";
}

std::string Scene(const std::string& objects) { return R"({"vellgrund": 1, "objects": [)" + objects + "]}"; }

const std::string kNoise = R"({"type": "onoiseoperator", "params": {"NOISEOPERATOR_SEED": 7}})";

// The scenes every case can name.
const std::map<std::string, std::string>& Scenes() {
  static const std::map<std::string, std::string> scenes = {
      {"small.json", Scene(Terrain(R"("Terrain")", 32, "", kNoise))},
      {"big.json", Scene(Terrain(R"("Terrain")", 1000, "", kNoise))},
      {"name.json", Scene(Terrain("\"" + std::string(2 << 20, 'n') + "\"", 8))},
      {"escape.json", Scene(Terrain(R"("../../escaped")", 8) + "," + Terrain(R"("/tmp/vellgrund-absolute")", 8) + "," +
                            Terrain(R"("line\nbreak")", 8) + "," + Terrain(R"("")", 8) + "," + Terrain(R"("con")", 8))},
      {"twins.json", Scene(Terrain(R"("A")", 8) + "," + Terrain(R"("A")", 8))},
      {"lookalikes.json", Scene(Terrain(R"("a/b")", 8) + "," + Terrain(R"("a_b")", 8))},
      {"some-off.json", Scene(Terrain(R"("Off")", 8, R"(, "enabled": false)") + "," +
                              Terrain(R"("Hidden")", 8, R"(, "render_visible": false)") + "," + Terrain(R"("On")", 8))},
      {"all-off.json", Scene(Terrain(R"("Off")", 8, R"(, "enabled": false)"))},
      {"malformed.json", R"({"vellgrund": 1, "objects": [)"},
      {"wrong-type.json", Scene(R"({"type": "oterrain", "name": "Hills", "params": {"TERRAINOBJECT_RESOLUTION_X": "many"}})")},
      {"bad-enum.json", Scene(Terrain(R"("T")", 8, "", R"({"type": "onoiseoperator", "params": {"TERRAINOPERATOR_BLENDMODE": "SPARKLE"}})"))},
      {"nan.json", Scene(Terrain(R"("T")", 8, "", R"({"type": "oadjustmentoperator", "params": {"TERRAINOPERATOR_STRENGTH": NaN}})"))},
      {"clamped.json", Scene(Terrain(R"("T")", 128, "", kNoise + R"(, {"type": "osharpenoperator", "name": "Sharp", "params": {"SHARPENOPERATOR_SIZE": 2147483647}},
            {"type": "obluroperator", "params": {"BLUROPERATOR_RADIUS": -3}}, {"type": "oquantizeoperator", "params": {"QUANTIZEOPERATOR_STEPS": 0}})"))},
      {"capped.json", R"({"vellgrund": 1, "preferences": {"1000": 64}, "objects": [)" + Terrain(R"("Wide")", 200) + "]}"},
      {"droplets.json", Scene(Terrain(R"("Terrain")", 128, "", kNoise + R"(, {"type": "oerosionoperator", "params": {
            "EROSIONOPERATOR_MODE": "DROPLET", "EROSIONOPERATOR_DROPLET_COUNT": 2147483647}})"))},
      {"vast.json", R"({"vellgrund": 1, "preferences": {"1000": 16384}, "objects": [)" +
                        Terrain(R"("Vast")", 16384, "", kNoise + R"(, {"type": "obluroperator"})") + "]}"},
      {"curve.json", Scene(Terrain(R"("T")", 16, "", kNoise + R"(, {"type": "ocurveoperator", "params": {"CURVEOPERATOR_PRESET": "TERRACE_2"}})"))},
  };
  return scenes;
}

struct Case {
  const char* what;
  std::string line;  // shell; "$V" is the tool
  int exitCode;
  std::string message;                 // a fragment of the output
  std::vector<std::string> created{};  // files the run must have written
  std::vector<std::string> absent{};   // files that must not exist afterwards
};

// Writes the tool's earlier output, so each case can check that a failed run kept it.
void WriteEarlierOutputs(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir / "out");
  for (const char* file : {"out/Terrain.glb", "out/Terrain.obj", "out/Terrain.ply", "h.png", "h.npy"})
    WriteText(dir / file, std::string("earlier ") + file);
}

// Every failure kind, for each the message, the exit code, and the promise that a failed
// or cancelled run leaves every earlier file as it was and no temporary behind.
TEST(Cli, RefusalsAndFailuresKeepEveryEarlierFile) {
  // Waits until the tool writes the given kind of file, then signals it.
  const auto signalWhileWriting = [](const std::string& arguments, const std::string& pattern, const char* signal) {
    return "\"$V\" " + arguments + " & pid=$!; n=0; until ls out/" + pattern +
           " >/dev/null 2>&1 || ! kill -0 $pid 2>/dev/null || [ $n -gt 600 ]; do sleep 0.05; n=$((n+1)); done; kill -" +
           signal + " $pid 2>/dev/null; wait $pid";
  };
  const std::vector<Case> cases = {
      {"height map in a missing folder", "\"$V\" build small.json -o out --heightmap nodir/h.png", 2,
       "\"nodir\" does not exist"},
      {"height map ending", "\"$V\" build small.json -o out --heightmap h.jpg", 2, "\".jpg\" is not supported"},
      {"heights ending", "\"$V\" build small.json -o out --heights h.txt", 2, "(use .npy)"},
      {"output folder is a file", "\"$V\" build small.json -o small.json", 2, "is not a folder"},
      {"scene is a folder", "\"$V\" build out -o out", 2, "is a folder"},
      {"scene is empty", "\"$V\" build /dev/null -o out", 2, "is empty"},
      {"scene is missing", "\"$V\" build missing.json -o out", 2, "does not exist"},
      {"malformed scene", "\"$V\" build malformed.json -o out", 2, "malformed.json"},
      {"wrong value type", "\"$V\" build wrong-type.json -o out", 2, "TERRAINOBJECT_RESOLUTION_X"},
      {"bad enumeration name", "\"$V\" build bad-enum.json -o out", 2, "NORMAL"},
      {"not a number", "\"$V\" build nan.json -o out", 2, "TERRAINOPERATOR_STRENGTH"},
      {"scene too large", "truncate -s 65M huge.json && \"$V\" build huge.json -o out", 2, "64.0 MB"},
      {"standard input too large", "head -c 70000000 /dev/zero | \"$V\" build - -o out", 2, "64.0 MB"},
      {"huge name", "\"$V\" build name.json -o out", 2, "name"},
      {"two terrains, one name", "\"$V\" build twins.json -o out", 2, "would both be written as \"A.glb\""},
      {"names that map to one file", "\"$V\" build lookalikes.json -o out", 2, "'a/b' and 'a_b'"},
      {"nothing to build", "\"$V\" build all-off.json -o out", 2, "disabled or hidden"},
      {"level of detail below a sample", "\"$V\" build small.json -o out --lod 0.0001", 2, "--lod 0.0001"},
      {"level of detail not a number", "\"$V\" build small.json -o out --lod nan", 2, "--lod"},
      {"mistyped command", "\"$V\" biuld small.json", 2, "did you mean 'build'?"},
      {"full disk during .npy", "ulimit -f 4 && \"$V\" build small.json -o out --heights h.npy", 1,
       "Could not write \"h.npy\": File too large"},
      {"full disk during .png", "ulimit -f 100 && \"$V\" build big.json -o out --heightmap h.png", 1,
       "Could not write \"h.png\": File too large"},
      {"full disk during .glb", "ulimit -f 20 && \"$V\" build small.json -o out", 1,
       "Could not write \"out/Terrain.glb\": File too large"},
      {"plane beyond memory",
       "ulimit -v 4000000 && \"$V\" plane --segments 20000 20000 -o out/p.glb",
       1,
       "20000 x 20000",
       {},
       {"out/p.glb"}},
      {"terrain beyond memory", "ulimit -v 4000000 && \"$V\" build vast.json -o out", 1,
       "'Vast' at 16385 x 16385 samples with 2 operators needs"},
      {"kernel beyond memory", "ulimit -v 4000000 && \"$V\" build clamped.json -o out/x", 0, "SHARPENOPERATOR_SIZE"},
      {"interrupted droplets", "\"$V\" build droplets.json -o out & pid=$!; sleep 1; kill -INT $pid; wait $pid", 130,
       "cancelled"},
      {"terminated droplets", "\"$V\" build droplets.json -o out & pid=$!; sleep 1; kill -TERM $pid; wait $pid", 130,
       "cancelled"},
      {"interrupted .glb", signalWhileWriting("build big.json -o out", ".Terrain.partial-*.glb*", "INT"), 130,
       "cancelled"},
      {"terminated .obj", signalWhileWriting("build big.json -o out --obj", ".Terrain.partial-*.obj*", "TERM"), 130,
       "cancelled"},
      {"hung up .ply", signalWhileWriting("build big.json -o out --ply", ".Terrain.partial-*.ply*", "HUP"), 130,
       "cancelled"},
      {"interrupted .png",
       signalWhileWriting("build big.json -o out --heightmap out/h.png", ".h.partial-*", "INT"),
       130,
       "cancelled",
       {},
       {"out/h.png"}},
      {"interrupted .npy",
       signalWhileWriting("build big.json -o out --heights out/h.npy", ".h.partial-*", "INT"),
       130,
       "cancelled",
       {},
       {"out/h.npy"}},
      // Runs that succeed: names become safe file names inside the output folder, and
      // what was clamped, capped or skipped is said.
      {"names",
       "\"$V\" build escape.json -o out/names",
       0,
       "wrote out/names/_.._escaped.glb",
       {"out/names/_.._escaped.glb", "out/names/_tmp_vellgrund-absolute.glb", "out/names/line_break.glb",
        "out/names/Terrain.glb", "out/names/con_.glb"},
       {"escaped.glb", "../escaped.glb", "/tmp/vellgrund-absolute.glb"}},
      {"skipped terrains",
       "\"$V\" build some-off.json -o out/some",
       0,
       "skipping the terrain 'Hidden'",
       {"out/some/On.glb"},
       {"out/some/Off.glb", "out/some/Hidden.glb"}},
      {"clamped values",
       "\"$V\" build clamped.json -o out/clamped",
       0,
       "BLUROPERATOR_RADIUS: -3 is below the minimum",
       {"out/clamped/T.glb"}},
      {"capped resolution", "\"$V\" build capped.json -o out/wide --quiet", 0, "capped"},
      {"raw heights in a PNG",
       "\"$V\" build small.json -o out/png --heightmap out/png/h.png",
       0,
       "mapped to 0 .. 65535",
       {"out/png/h.png"}},
      {"scene from standard input, options after the command",
       "\"$V\" new | \"$V\" build - -o out/stdin --threads 1",
       0,
       "wrote out/stdin/Terrain.glb",
       {"out/stdin/Terrain.glb"}},
      {"validate", "\"$V\" validate curve.json", 0, "valid (1 terrain"},
      {"export preset", "\"$V\" build small.json -o out --export unreal,fbx", 2, "'fbx' is not a preset"},
      {"export CRS", "\"$V\" build small.json -o out --export geotiff --crs EPSG:99999", 2,
       "EPSG:99999 is not a known"},
      {"export size",
       "\"$V\" build small.json -o out --export unity --lod 0.5",
       2,
       "a Unity height map needs",
       {},
       {"out/Terrain.unity.raw", "out/Terrain.unity.json"}},
      {"splat without mask materials", "\"$V\" build small.json -o out --export splat", 2, "no mask materials"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
#ifdef VELLGRUND_NO_ADDRESS_LIMIT
    if (test.line.find("ulimit -v") != std::string::npos) continue;
#endif
    std::optional<testing_support::TempDir> folder;
    Outcome run;
    // A signal that lands after the files have moved into place finds nothing left to
    // cancel and the run succeeds; that is a lost race, not a fault, so try again.
    for (int attempt = 0; attempt < 5 && (attempt == 0 || (test.exitCode == 130 && run.exitCode == 0)); ++attempt) {
      folder.emplace();
      for (const auto& [name, text] : Scenes())
        if (test.line.find(name) != std::string::npos) WriteText(folder->File(name), text);
      WriteEarlierOutputs(folder->Path());
      run = RunShell(folder->Path(), test.line);
    }
    const testing_support::TempDir& dir = *folder;
    EXPECT_EQ(run.exitCode, test.exitCode) << run.output.substr(0, 2000);
    EXPECT_NE(run.output.find(test.message), std::string::npos) << run.output.substr(0, 2000);
    EXPECT_LT(run.output.size(), 4000u) << "messages quote user text at a bounded length";
    for (const char* file : {"out/Terrain.glb", "out/Terrain.obj", "out/Terrain.ply", "h.png", "h.npy"})
      EXPECT_EQ(ReadText(dir.File(file)), std::string("earlier ") + file) << file;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.Path()))
      EXPECT_EQ(entry.path().filename().string().find(".partial-"), std::string::npos) << entry.path();
    for (const std::string& file : test.created) EXPECT_TRUE(std::filesystem::exists(dir.File(file))) << file;
    for (const std::string& file : test.absent)
      EXPECT_FALSE(std::filesystem::exists(file.starts_with("/") ? file : dir.File(file).string())) << file;
  }
}

TEST(Cli, HelpVersionAndPlanes) {
  testing_support::TempDir dir;
  const Outcome help = RunCli(dir, "--help");
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.output.find("validate"), std::string::npos);
  const Outcome version = RunCli(dir, "--version");
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.output.rfind("vellgrund ", 0), 0u);
#ifndef VELLGRUND_IMAGE_CODEC_LINKED
  // The image library loads when an image is read or written, not at every start.
  EXPECT_EQ(RunShell(dir.Path(), "ldd \"$V\" | grep -c OpenImageIO").output, "0\n");
  // Nor GDAL, which only GeoTIFF exports and CRS checks load (sanitizer builds link both in).
  EXPECT_EQ(RunShell(dir.Path(), "ldd \"$V\" | grep -c gdal").output, "0\n");
#endif
  EXPECT_EQ(RunCli(dir, "").exitCode, 2);

  const Outcome glb = RunCli(dir, "plane --size 10 20 --segments 4 3 --mode tris1 --phong -o p.glb");
  ASSERT_EQ(glb.exitCode, 0) << glb.output;
  const std::string binary = testing_support::ReadFileBytes(dir.File("p.glb"));
  ASSERT_GE(binary.size(), 20u);
  EXPECT_EQ(binary.substr(0, 4), "glTF");
  std::uint32_t declaredLength = 0;
  std::memcpy(&declaredLength, binary.data() + 8, 4);
  EXPECT_EQ(declaredLength, binary.size());

  ASSERT_EQ(RunCli(dir, "plane --segments 2 2 -o p.obj").exitCode, 0);
  const std::string obj = ReadText(dir.File("p.obj"));
  std::size_t vertices = 0, faces = 0;
  for (std::size_t at = 0; (at = obj.find('\n', at)) != std::string::npos; ++at) {
    if (obj.compare(at + 1, 2, "v ") == 0) ++vertices;
    if (obj.compare(at + 1, 2, "f ") == 0) ++faces;
  }
  EXPECT_EQ(vertices, 9u);
  EXPECT_EQ(faces, 4u);
  ASSERT_EQ(RunCli(dir, "plane --segments 2 2 --mode TRIS2 -o p.ply").exitCode, 0);
  EXPECT_NE(ReadText(dir.File("p.ply")).find("element face 8\n"), std::string::npos);

  for (const char* bad : {"--size 0 5", "--mode hexagons", "--segments 0 4", "--size nan 5"})
    EXPECT_EQ(RunCli(dir, std::string("plane ") + bad + " -o bad.glb").exitCode, 2) << bad;
  EXPECT_NE(RunCli(dir, "plane -o plane.fbx").output.find(".fbx"), std::string::npos);
  EXPECT_NE(RunCli(dir, "plane -o no/such/folder/p.glb").output.find("no/such/folder"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir.File("bad.glb")));
}

TEST(Cli, BuildWritesEveryFileOfEveryTerrain) {
  testing_support::TempDir dir;
  const Outcome fallback = RunCli(dir, "build -o default --stats");
  ASSERT_EQ(fallback.exitCode, 0) << fallback.output;
  EXPECT_TRUE(std::filesystem::exists(dir.File("default") / "Terrain.glb"));
  EXPECT_NE(fallback.output.find("Peaks"), std::string::npos);
  EXPECT_NE(fallback.output.find("REBUILT"), std::string::npos);

  WriteText(dir.File("two.json"), Scene(Terrain(R"("A")", 4) + "," + Terrain(R"("B")", 3)));
  const Outcome two =
      RunCli(dir, "build two.json -o . --obj --ply --heights h.npy --heightmap h.png --normalized --quiet");
  ASSERT_EQ(two.exitCode, 0) << two.output;
  EXPECT_EQ(two.output, "");
  for (const char* file : {"A.glb", "A.obj", "A.ply", "B.glb", "h_A.npy", "h_B.npy", "h_A.png", "h_B.png"})
    EXPECT_TRUE(std::filesystem::exists(dir.File(file))) << file;
  EXPECT_NE(ReadText(dir.File("h_A.npy")).find("'shape': (5, 5)"), std::string::npos);
}

TEST(Cli, ExportsWriteEachFileWithItsSidecar) {
  testing_support::TempDir dir;
  WriteText(dir.File("small.json"), Scenes().at("small.json"));
  const Outcome run = RunCli(dir, "build small.json -o out --export unreal,unity");
  ASSERT_EQ(run.exitCode, 0) << run.output;
  EXPECT_NE(run.output.find("Unreal recommends"), std::string::npos) << "33 samples is no landscape size";
  const std::vector<std::string> files = {"out/Terrain.unreal.png", "out/Terrain.unreal.json", "out/Terrain.unity.raw",
                                          "out/Terrain.unity.json"};
  for (const std::string& file : files) EXPECT_NE(run.output.find("wrote " + file), std::string::npos) << file;
  EXPECT_EQ(testing_support::ReadFileBytes(dir.File("out/Terrain.unity.raw")).size(), 33u * 33u * 2u);
  EXPECT_NE(ReadText(dir.File("out/Terrain.unity.json")).find("\"heightmap_resolution\": 33"), std::string::npos);
  EXPECT_NE(ReadText(dir.File("out/Terrain.unreal.json")).find("\"file\": \"Terrain.unreal.png\""), std::string::npos);

  // A run that Unity's sizes refuse leaves every file of the earlier one as it was.
  std::vector<std::string> earlier;
  for (const std::string& file : files) earlier.push_back(testing_support::ReadFileBytes(dir.File(file)));
  const Outcome refused = RunCli(dir, "build small.json -o out --export unreal --export unity --lod 0.5");
  EXPECT_EQ(refused.exitCode, 2) << refused.output;
  for (std::size_t i = 0; i < files.size(); ++i)
    EXPECT_EQ(testing_support::ReadFileBytes(dir.File(files[i])), earlier[i]) << files[i];
}

std::string NpyPayload(const std::filesystem::path& file) {
  const std::string bytes = testing_support::ReadFileBytes(file);
  if (bytes.size() < 10) return {};
  const std::size_t headerLength = static_cast<unsigned char>(bytes[8]) | (static_cast<unsigned char>(bytes[9]) << 8);
  return bytes.substr(10 + headerLength);
}

// Every shipped scene builds, on one thread and on all alike, and the two terrains that
// read one world-space noise meet without a step.
TEST(Cli, ExamplesBuildAlikeOnAnyThreadCount) {
  testing_support::TempDir dir;
  std::size_t built = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VELLGRUND_EXAMPLES_DIR)) {
    if (entry.path().extension() != ".json") continue;
    const std::string example = entry.path().stem().string();
    SCOPED_TRACE(example);
    const std::string scene = entry.path().string();
    const Outcome single = RunCli(dir, "--threads 1 build " + scene + " -o . -q --heights " + example + "-1.npy");
    ASSERT_EQ(single.exitCode, 0) << single.output;
    const Outcome parallel = RunCli(dir, "build " + scene + " -o . -q --heights " + example + "-n.npy");
    ASSERT_EQ(parallel.exitCode, 0) << parallel.output;
    ++built;
    if (example == "neighbours") {
      for (const char* terrain : {"West", "East"})
        EXPECT_EQ(NpyPayload(dir.File(example + "-1_" + terrain + ".npy")),
                  NpyPayload(dir.File(example + "-n_" + terrain + ".npy")));
      const std::string west = NpyPayload(dir.File("neighbours-1_West.npy"));
      const std::string east = NpyPayload(dir.File("neighbours-1_East.npy"));
      ASSERT_EQ(west.size(), 251u * 251u * sizeof(double));
      ASSERT_EQ(east.size(), west.size());
      for (std::size_t row = 0; row < 251; ++row) {
        double westEdge = 0.0, eastEdge = 0.0;
        std::memcpy(&westEdge, west.data() + (row * 251 + 250) * sizeof(double), sizeof(double));
        std::memcpy(&eastEdge, east.data() + row * 251 * sizeof(double), sizeof(double));
        ASSERT_EQ(westEdge, eastEdge) << "row " << row;
      }
    } else {
      // One file per terrain: "<example>-1.npy", or "<example>-1_<terrain>.npy" for several.
      std::size_t terrains = 0;
      for (const auto& file : std::filesystem::directory_iterator(dir.Path())) {
        const std::string name = file.path().filename().string();
        if (!name.starts_with(example + "-1") || file.path().extension() != ".npy") continue;
        const std::string heights = NpyPayload(file.path());
        EXPECT_GE(heights.size(), 129u * 129u * sizeof(double)) << name;
        EXPECT_EQ(heights, NpyPayload(dir.File(example + "-n" + name.substr(example.size() + 2)))) << name;
        ++terrains;
      }
      EXPECT_GE(terrains, 1u);
    }
  }
  EXPECT_GE(built, 11u);
}

}  // namespace
