#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <sys/wait.h>

#include "support/temp_dir.h"

namespace {

struct Outcome {
  int exitCode = -1;
  std::string output;  // standard output and standard error together
};

Outcome RunCli(const testing_support::TempDir& dir, const std::string& arguments) {
  const auto log = dir.File("cli-output.txt");
  const std::string command = std::string(VELLGRUND_CLI_PATH) + " " + arguments + " > '" + log.string() + "' 2>&1";
  const int status = std::system(command.c_str());
  Outcome outcome;
  outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream stream(log);
  outcome.output.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  return outcome;
}

TEST(Cli, HelpAndVersion) {
  testing_support::TempDir dir;
  const Outcome help = RunCli(dir, "--help");
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.output.find("plane"), std::string::npos);
  const Outcome version = RunCli(dir, "--version");
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.output.rfind("vellgrund ", 0), 0u);
  const Outcome nothing = RunCli(dir, "");
  EXPECT_EQ(nothing.exitCode, 2);
}

TEST(Cli, PlaneWritesEachFormat) {
  testing_support::TempDir dir;
  const Outcome glb = RunCli(dir, "plane --size 10 20 --segments 4 3 --mode tris1 --phong -o " + dir.File("p.glb").string());
  ASSERT_EQ(glb.exitCode, 0) << glb.output;
  const std::string binary = testing_support::ReadFileBytes(dir.File("p.glb"));
  ASSERT_GE(binary.size(), 20u);
  EXPECT_EQ(binary.substr(0, 4), "glTF");
  std::uint32_t declaredLength = 0;
  std::memcpy(&declaredLength, binary.data() + 8, 4);
  EXPECT_EQ(declaredLength, binary.size());

  ASSERT_EQ(RunCli(dir, "plane --segments 2 2 -o " + dir.File("p.obj").string()).exitCode, 0);
  const std::string obj = testing_support::ReadFileBytes(dir.File("p.obj"));
  std::size_t vertices = 0, faces = 0;
  for (std::size_t at = 0; (at = obj.find('\n', at)) != std::string::npos; ++at) {
    if (obj.compare(at + 1, 2, "v ") == 0) ++vertices;
    if (obj.compare(at + 1, 2, "f ") == 0) ++faces;
  }
  EXPECT_EQ(vertices, 9u);
  EXPECT_EQ(faces, 4u);

  ASSERT_EQ(RunCli(dir, "plane --segments 2 2 --mode TRIS2 -o " + dir.File("p.ply").string()).exitCode, 0);
  const std::string ply = testing_support::ReadFileBytes(dir.File("p.ply"));
  EXPECT_EQ(ply.rfind("ply\nformat binary_little_endian 1.0\n", 0), 0u);
  EXPECT_NE(ply.find("element face 8\n"), std::string::npos);
}

TEST(Cli, BadInputIsRefusedWithAMessageAndNoFile) {
  testing_support::TempDir dir;
  const auto target = dir.File("bad.glb");
  const Outcome zeroSize = RunCli(dir, "plane --size 0 5 -o " + target.string());
  EXPECT_EQ(zeroSize.exitCode, 2);
  EXPECT_NE(zeroSize.output.find("A size or segments parameter is 0!"), std::string::npos) << zeroSize.output;

  const Outcome badMode = RunCli(dir, "plane --mode hexagons -o " + target.string());
  EXPECT_EQ(badMode.exitCode, 2);
  const Outcome badSegments = RunCli(dir, "plane --segments 0 4 -o " + target.string());
  EXPECT_EQ(badSegments.exitCode, 2);
  const Outcome notANumber = RunCli(dir, "plane --size nan 5 -o " + target.string());
  EXPECT_EQ(notANumber.exitCode, 2) << notANumber.output;

  const Outcome badEnding = RunCli(dir, "plane -o " + dir.File("plane.fbx").string());
  EXPECT_EQ(badEnding.exitCode, 2);
  EXPECT_NE(badEnding.output.find(".fbx"), std::string::npos) << badEnding.output;

  const Outcome missingFolder = RunCli(dir, "plane -o " + dir.File("no/such/folder/p.glb").string());
  EXPECT_EQ(missingFolder.exitCode, 1);
  EXPECT_NE(missingFolder.output.find("no/such/folder"), std::string::npos) << missingFolder.output;

  // Nothing was written, not even a temporary file.
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
    if (entry.path().filename() != "cli-output.txt") ++files;
  EXPECT_EQ(files, 0u);
}

}  // namespace

namespace {

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream stream(path);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void WriteText(const std::filesystem::path& path, const std::string& text) { std::ofstream(path) << text; }

TEST(Cli, BuildWritesTheTerrainAndItsHeights) {
  testing_support::TempDir dir;
  const Outcome fallback = RunCli(dir, "build -o '" + dir.File("default").string() + "' --stats");
  ASSERT_EQ(fallback.exitCode, 0) << fallback.output;
  EXPECT_TRUE(std::filesystem::exists(dir.File("default") / "Terrain.glb"));
  EXPECT_NE(fallback.output.find("Peaks"), std::string::npos);
  EXPECT_NE(fallback.output.find("REBUILT"), std::string::npos);

  // `new` prints a scene that `build` takes; two terrains get their names in the files.
  const Outcome scene = RunCli(dir, "new");
  ASSERT_EQ(scene.exitCode, 0);
  WriteText(dir.File("two.json"), R"({"vellgrund": 1, "objects": [
    {"type": "oterrain", "name": "A", "params": {"10002": 4, "10003": 2}},
    {"type": "oterrain", "name": "B", "params": {"10002": 3, "10003": 3}}]})");
  const Outcome two = RunCli(dir, "build '" + dir.File("two.json").string() + "' -o '" + dir.Path().string() +
                                      "' --obj --ply --heights '" + dir.File("h.npy").string() + "' --heightmap '" +
                                      dir.File("h.png").string() + "' --normalized");
  ASSERT_EQ(two.exitCode, 0) << two.output;
  for (const char* file : {"A.glb", "A.obj", "A.ply", "B.glb", "h_A.npy", "h_B.npy", "h_A.png", "h_B.png"})
    EXPECT_TRUE(std::filesystem::exists(dir.File(file))) << file;
  EXPECT_NE(ReadText(dir.File("h_A.npy")).find("'shape': (3, 5)"), std::string::npos);
}

TEST(Cli, BadScenesAndCancelledBuildsLeaveNothingBehind) {
  testing_support::TempDir dir;
  WriteText(dir.File("bad.json"), R"({"vellgrund": 1, "objects": [
    {"type": "oterrain", "name": "Hills", "params": {"TERRAINOBJECT_RESOLUTION_X": "many"}}]})");
  const Outcome bad = RunCli(dir, "build '" + dir.File("bad.json").string() + "' -o '" + dir.File("bad").string() + "'");
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.output.find("Hills"), std::string::npos) << bad.output;
  EXPECT_NE(bad.output.find("TERRAINOBJECT_RESOLUTION_X"), std::string::npos) << bad.output;
  EXPECT_FALSE(std::filesystem::exists(dir.File("bad")));
  EXPECT_EQ(RunCli(dir, "build '" + dir.File("missing.json").string() + "'").exitCode, 2);

  // A build of 9 million points written three ways takes seconds; Ctrl-C stops it, and
  // what it had written is taken back.
  WriteText(dir.File("big.json"), R"({"vellgrund": 1, "objects": [
    {"type": "oterrain", "name": "Big", "params": {"10002": 3000, "10003": 3000}}]})");
  const std::string command = std::string(VELLGRUND_CLI_PATH) + " build '" + dir.File("big.json").string() + "' -o '" +
                              dir.File("big").string() + "' --obj --ply 2> '" + dir.File("big.log").string() + "'";
  // Interrupts until the tool has ended: an interrupt that arrives before the tool listens
  // for them (a slow start under a sanitizer) is ignored, as background jobs ignore them.
  const int status = std::system(
      ("(" + command + " & pid=$!; while kill -0 $pid 2>/dev/null; do sleep 0.3; kill -INT $pid 2>/dev/null; done;"
                       " wait $pid)")
          .c_str());
  EXPECT_NE(status, 0);
  EXPECT_NE(ReadText(dir.File("big.log")).find("cancelled"), std::string::npos) << ReadText(dir.File("big.log"));
  EXPECT_TRUE(!std::filesystem::exists(dir.File("big")) || std::filesystem::is_empty(dir.File("big")));
}

TEST(Cli, DescribeListsTypesInMenuOrderAndTheirParameters) {
  testing_support::TempDir dir;
  const Outcome types = RunCli(dir, "describe");
  ASSERT_EQ(types.exitCode, 0);
  EXPECT_LT(types.output.find("oterrain"), types.output.find("ogroupoperator"));
  const Outcome terrain = RunCli(dir, "describe oterrain");
  ASSERT_EQ(terrain.exitCode, 0);
  EXPECT_NE(terrain.output.find("TERRAINOBJECT_HULL_DEPTH"), std::string::npos);
  EXPECT_NE(terrain.output.find("disabled"), std::string::npos);
  const Outcome group = RunCli(dir, "describe 1054581");
  EXPECT_NE(group.output.find("TERRAINOPERATOR_BLENDMODE"), std::string::npos);
  EXPECT_EQ(RunCli(dir, "describe onothing").exitCode, 2);
}

}  // namespace

namespace {

std::string NpyPayload(const std::filesystem::path& file) {
  const std::string bytes = testing_support::ReadFileBytes(file);
  if (bytes.size() < 10) return {};
  const std::size_t headerLength = static_cast<unsigned char>(bytes[8]) | (static_cast<unsigned char>(bytes[9]) << 8);
  return bytes.substr(10 + headerLength);
}

}  // namespace

// Every shipped scene builds, on one thread and on all alike, and the two terrains that
// read one world-space noise meet without a step.
TEST(Cli, ExamplesBuildAlikeOnAnyThreadCount) {
  testing_support::TempDir dir;
  for (const char* example : {"default", "island", "dunes", "neighbours", "scree", "rain", "lowlands", "riverbed"}) {
    const std::string scene = std::string(VELLGRUND_EXAMPLES_DIR) + "/" + example + ".json";
    const auto one = dir.File(std::string(example) + "-1.npy");
    const auto all = dir.File(std::string(example) + "-n.npy");
    const Outcome single = RunCli(dir, "--threads 1 build " + scene + " -o " + dir.Path().string() + " --heights " + one.string());
    ASSERT_EQ(single.exitCode, 0) << example << ": " << single.output;
    const Outcome parallel = RunCli(dir, "build " + scene + " -o " + dir.Path().string() + " --heights " + all.string());
    ASSERT_EQ(parallel.exitCode, 0) << example << ": " << parallel.output;
    if (std::string(example) == "neighbours") {
      for (const char* terrain : {"West", "East"})
        EXPECT_EQ(NpyPayload(dir.File(std::string(example) + "-1_" + terrain + ".npy")),
                  NpyPayload(dir.File(std::string(example) + "-n_" + terrain + ".npy")));
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
      const std::string heights = NpyPayload(one);
      EXPECT_GE(heights.size(), 257u * 257u * sizeof(double)) << example;
      EXPECT_EQ(heights, NpyPayload(all)) << example;
    }
  }
}
