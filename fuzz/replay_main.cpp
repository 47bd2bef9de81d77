// Runs the scene fuzzer's entry point without libFuzzer, so that every build (and every
// sanitizer preset) fuzzes a little: each corpus file, then inputs made from them by
// mutations of a fixed-seed generator. The same inputs on every run and machine.
//
//   scene_fuzz_replay <corpus folder> <mutation count>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/random.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using platform::Random;

// Pieces of scene files that single-byte edits would rarely produce.
constexpr std::string_view kTokens[] = {
    "{",
    "}",
    "[",
    "]",
    ",",
    ":",
    "\"",
    "null",
    "true",
    "false",
    "[1, 2, 3]",
    "{}",
    "[]",
    "\"vellgrund\": 1",
    "\"id\": \"x\", ",
    "{\"link\": \"x\"}",
    "{\"type\": \"ofuzz\", \"id\": \"x\"}, ",
    "{\"type\": \"fspherical\", \"id\": 0}, ",
    "\"children\": [{\"type\": \"ofuzz\"}], ",
};
// Replacements for number literals: limits, exactness and range edges.
constexpr std::string_view kNumbers[] = {
    "0",
    "-1",
    "1",
    "2",
    "3",
    "7",
    "100",
    "100.5",
    "-100",
    "1000",
    "0.5",
    "-0.0",
    "1e-320",
    "1e308",
    "1e999",
    "2147483647",
    "2147483648",
    "-2147483649",
    "9007199254740993",
    "18446744073709551615",
    "1059001",
    "1059002",
    "1059003",
    "1059990",
    "1055624",
};
// Replacements for string literals: keys, type names, members, presets and link keys.
constexpr std::string_view kStrings[] = {
    "\"\"",           "\"x\"",          "\"0\"",        "\"3\"",
    "\"ofuzz\"",      "\"fspherical\"", "\"flinear\"",  "\"fbox\"",
    "\"id\"",         "\"name\"",       "\"type\"",     "\"params\"",
    "\"children\"",   "\"matrix\"",     "\"position\"", "\"rotation\"",
    "\"scale\"",      "\"level\"",      "\"enabled\"",  "\"editor_visible\"",
    "\"off\"",        "\"on\"",         "\"default\"",  "\"link\"",
    "\"field\"",      "\"layers\"",     "\"blend\"",    "\"opacity\"",
    "\"MAX\"",        "\"preset\"",     "\"LINEAR\"",   "\"knots\"",
    "\"left\"",       "\"flags\"",      "\"1000\"",     "\"1001 FUZZ_MODE\"",
    "\"FUZZ_FLAGS\"", "\"1004\"",       "\"1007\"",     "\"1008\"",
    "\"1009\"",       "\"1010\"",       "\"1011\"",     "\"901\"",
    "\"HIGH\"",       "\"A|C\"",        "\"NONE|B\"",   "\"preferences\"",
    "\"1055700\"",    "\"\\u00e9\"",    "\"\\ud800\"",
};
constexpr std::string_view kLiterals[] = {"true", "false", "null"};

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::size_t Pick(Random& random, std::size_t count) {
  return count == 0 ? 0 : static_cast<std::size_t>(random.GetUInt64() % count);
}

template <std::size_t N>
std::string_view PickFrom(Random& random, const std::string_view (&choices)[N]) {
  return choices[Pick(random, N)];
}

bool IsNumberChar(char c) {
  return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

// Replaces the first number (or string, or keyword) at or after `at`; false when there is
// none. These edits mostly keep the text valid JSON, so they reach the loader's checks
// and the save/reload comparison rather than stopping in the parser.
bool ReplaceNumber(std::string& input, std::size_t at, std::string_view with) {
  std::size_t begin = at;
  while (begin < input.size() && !(input[begin] >= '0' && input[begin] <= '9')) ++begin;
  if (begin == input.size()) return false;
  while (begin > 0 && IsNumberChar(input[begin - 1])) --begin;
  std::size_t end = begin;
  while (end < input.size() && IsNumberChar(input[end])) ++end;
  input.replace(begin, end - begin, with);
  return true;
}

bool ReplaceString(std::string& input, std::size_t at, std::string_view with) {
  const std::size_t begin = input.find('"', at);
  if (begin == std::string::npos) return false;
  std::size_t end = begin + 1;
  while (end < input.size() && input[end] != '"') end += input[end] == '\\' ? 2 : 1;
  if (end >= input.size()) return false;
  input.replace(begin, end + 1 - begin, with);
  return true;
}

bool ReplaceLiteral(std::string& input, std::size_t at, std::string_view with) {
  for (const std::string_view literal : kLiterals) {
    const std::size_t found = input.find(literal, at);
    if (found != std::string::npos) {
      input.replace(found, literal.size(), with);
      return true;
    }
  }
  return false;
}

std::string Mutate(Random& random, const std::vector<std::string>& corpus) {
  std::string input = corpus[Pick(random, corpus.size())];
  const int edits = 1 + static_cast<int>(Pick(random, 3));
  for (int edit = 0; edit < edits; ++edit) {
    const std::size_t at = Pick(random, input.size() + 1);
    switch (Pick(random, 16)) {
      case 0:  // flip a bit
        if (!input.empty()) input[at % input.size()] ^= static_cast<char>(1u << Pick(random, 8));
        break;
      case 1:  // insert a byte
        input.insert(at, 1, static_cast<char>(random.GetUInt64()));
        break;
      case 2:  // delete a few bytes
        input.erase(at, 1 + Pick(random, 8));
        break;
      case 3:
      case 4:  // insert a token
        input.insert(at, PickFrom(random, kTokens));
        break;
      case 5: {  // splice: this input's head, another's tail
        const std::string& other = corpus[Pick(random, corpus.size())];
        input = input.substr(0, at) + other.substr(Pick(random, other.size() + 1));
        break;
      }
      case 6: {  // repeat a piece, which nests brackets deeper
        const std::size_t rest = input.size() - std::min(at, input.size());
        const std::size_t length = Pick(random, std::min<std::size_t>(rest, 64) + 1);
        input.insert(at, input.substr(at, length));
        break;
      }
      case 7:
      case 8:
      case 9:
      case 10:
        ReplaceNumber(input, at, PickFrom(random, kNumbers));
        break;
      case 11:
      case 12:
      case 13:
        ReplaceString(input, at, PickFrom(random, kStrings));
        break;
      default:
        ReplaceLiteral(input, at, PickFrom(random, kLiterals));
        break;
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  long mutations = 0;
  if (argc != 3 || std::from_chars(argv[2], argv[2] + std::string_view(argv[2]).size(), mutations).ec != std::errc() ||
      mutations < 0) {
    std::fprintf(stderr, "usage: %s <corpus folder> <mutation count>\n", argc > 0 ? argv[0] : "scene_fuzz_replay");
    return 2;
  }
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1], error))
    if (entry.is_regular_file()) files.push_back(entry.path());
  if (error || files.empty()) {
    std::fprintf(stderr, "%s: no corpus files in %s\n", argv[0], argv[1]);
    return 2;
  }
  std::sort(files.begin(), files.end());  // the directory's order is not fixed

  std::vector<std::string> corpus;
  for (const auto& file : files) corpus.push_back(ReadFile(file));
  long runs = 0;
  for (const std::string& input : corpus) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    ++runs;
  }
  Random random(20240611);
  for (long i = 0; i < mutations; ++i) {
    const std::string input = Mutate(random, corpus);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    ++runs;
  }
  std::printf("%ld inputs run (%zu corpus files, %ld mutations)\n", runs, corpus.size(), mutations);
  return 0;
}
