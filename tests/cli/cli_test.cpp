#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
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
