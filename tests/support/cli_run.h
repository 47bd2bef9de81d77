#pragma once

// Runs the command-line tool as a person would, through a shell; for tests built with
// VELLGRUND_CLI_PATH defined.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <sys/wait.h>

#include "support/temp_dir.h"

namespace testing_support {

struct Outcome {
  int exitCode = -1;
  std::string output;  // standard output and standard error together
};

inline std::string ReadText(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// Runs a shell line in `dir`, where "$V" is the tool.
inline Outcome RunShell(const std::filesystem::path& dir, const std::string& line) {
  const auto log = dir / "cli-output.txt";
  const std::string command = "cd '" + dir.string() + "' && V='" + VELLGRUND_CLI_PATH + "' && { " + line + " ; } > '" +
                              log.string() + "' 2>&1";
  const int status = std::system(command.c_str());
  Outcome outcome;
  outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  outcome.output = ReadText(log);
  std::filesystem::remove(log);
  return outcome;
}

inline Outcome RunCli(const TempDir& dir, const std::string& arguments) {
  return RunShell(dir.Path(), "\"$V\" " + arguments);
}

}  // namespace testing_support
