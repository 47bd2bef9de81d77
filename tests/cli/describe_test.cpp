#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "platform/parameter_help.h"
#include "platform/scene_file.h"
#include "support/cli_run.h"

namespace {

using platform::ParameterHelp;

using testing_support::Outcome;
using testing_support::RunCli;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The types and parameters people meet, as the application registers them.
class Described : public testing::Test {
 protected:
  void SetUp() override {
    host_.SetConsole(console_);
    ASSERT_TRUE(VLGD::StartModule(host_));
    help_ = ParameterHelp::LoadFile(ParameterHelp::DefaultFile());
    ASSERT_TRUE(help_) << help_.error().message;
  }

  std::vector<const platform::PluginInfo*> NodeTypes() const {
    std::vector<const platform::PluginInfo*> types;
    for (const auto& info : host_.GetRegistry().All())
      if (info->allocate) types.push_back(info.get());
    return types;
  }

  platform::Host host_;
  platform::CollectingConsole console_;
  platform::Result<ParameterHelp> help_ = platform::IllegalArgumentError("not loaded");
};

// A parameter or node type added without words for people fails here, by name.
TEST_F(Described, EveryTypeAndParameterHasALabelAndAHelpText) {
  std::set<std::string> missing;
  std::set<std::string> described;
  for (const platform::PluginInfo* info : NodeTypes()) {
    described.insert(info->resourceName);
    if (help_->Find(info->resourceName) == nullptr) missing.insert(info->resourceName);
    for (const platform::ParameterDescription& parameter : info->description.Parameters()) {
      described.insert(parameter.symbol);
      if (parameter.symbol.empty() || help_->Find(parameter.symbol) == nullptr)
        missing.insert(info->resourceName + ": " + (parameter.symbol.empty() ? std::to_string(parameter.id) : parameter.symbol));
    }
  }
  EXPECT_TRUE(missing.empty()) << "without a label and help text in parameters.json: "
                               << testing::PrintToString(missing);

  // A renamed symbol would leave its old text behind, unseen.
  std::set<std::string> stale;
  for (const auto& [key, text] : help_->Entries())
    if (!described.contains(key)) stale.insert(key);
  EXPECT_TRUE(stale.empty()) << "texts for nothing registered: " << testing::PrintToString(stale);
}

// What describe prints for a type agrees with the registry: every parameter, its state at
// the defaults, and within the width of a terminal.
TEST_F(Described, DescribeShowsEveryParameterWithItsStateWithinOneHundredColumns) {
  testing_support::TempDir dir;
  platform::Document doc(host_);
  for (const platform::PluginInfo* info : NodeTypes()) {
    SCOPED_TRACE(info->resourceName);
    const Outcome outcome = RunCli(dir, "describe " + info->resourceName);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.output;
    const std::vector<std::string> lines = Lines(outcome.output);
    for (const std::string& line : lines) EXPECT_LE(line.size(), 100u) << line;

    auto node = doc.CreateNode(info->id);
    ASSERT_TRUE(node);
    for (const platform::ParameterDescription& parameter : info->description.Parameters()) {
      SCOPED_TRACE(parameter.symbol);
      // A parameter's lines: its own line (ID, symbol, ...) and the indented ones below it.
      const std::string head = "  " + std::to_string(parameter.id) + " ";
      std::size_t at = 0;
      while (at < lines.size() &&
             (lines[at].rfind(head, 0) != 0 || lines[at].find(" " + parameter.symbol + " ") == std::string::npos))
        ++at;
      ASSERT_LT(at, lines.size()) << outcome.output;
      std::string block;
      for (std::size_t next = at + 1; next < lines.size() && lines[next].rfind("  ", 0) == 0 &&
                                      !std::isdigit(static_cast<unsigned char>(lines[next][2]));
           ++next)
        block += lines[next] + "\n";

      if (const platform::HelpText* text = help_->Find(parameter.symbol)) {
        EXPECT_NE(block.find(text->help.substr(0, 20)), std::string::npos) << block;
      }
      const bool disabled = !parameter.readOnly && !platform::IsParameterEnabled(**node, parameter.id);
      EXPECT_EQ(block.find("[disabled]") != std::string::npos, disabled) << block;
      EXPECT_EQ(block.find("[kept for files (not used)]") != std::string::npos, parameter.keptForFiles) << block;
      if (const auto* enumeration = host_.GetRegistry().Enumerations().Find(parameter.enumeration)) {
        for (const platform::EnumMember& member : enumeration->members) {
          EXPECT_NE(block.find(member.name + " (" + std::to_string(member.value) + ")"), std::string::npos) << block;
        }
      }
    }
  }
}

TEST_F(Described, TheListNamesEveryTypeOnceAndFieldsAndShadersUnderTheirOwnHeadings) {
  testing_support::TempDir dir;
  const Outcome list = RunCli(dir, "describe");
  ASSERT_EQ(list.exitCode, 0) << list.output;
  const std::size_t fieldHeading = list.output.find("Field object types");
  ASSERT_NE(fieldHeading, std::string::npos) << list.output;
  for (const platform::PluginInfo* info : NodeTypes()) {
    const std::string entry = "  " + info->resourceName + " ";
    const std::size_t found = list.output.find(entry);
    ASSERT_NE(found, std::string::npos) << info->resourceName;
    EXPECT_EQ(list.output.find(entry, found + 1), std::string::npos) << info->resourceName << " twice";
    if ((info->objectInfo & (platform::OBJECT_MATERIAL | platform::OBJECT_SHADER)) != 0) {
      EXPECT_GT(found, list.output.find("Materials and shaders")) << info->resourceName;
    } else if ((info->objectInfo & platform::OBJECT_FIELD) != 0) {
      EXPECT_GT(found, fieldHeading) << info->resourceName;
    } else if (info->SortNumber()) {
      EXPECT_LT(found, fieldHeading) << info->resourceName;
    }
  }
}

// The guide's worked example is what readers copy first; a renamed symbol or choice, or a
// value that leaves its limits, must not slip into it unnoticed.
TEST_F(Described, TheSceneFormatGuidesExampleLoadsWithoutWarnings) {
  std::ifstream stream(std::string(VELLGRUND_DOCS_DIR) + "/scene-format.md");
  const std::string guide{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  const std::size_t section = guide.find("## A complete example");
  ASSERT_NE(section, std::string::npos);
  const std::size_t open = guide.find("```json\n", section);
  ASSERT_NE(open, std::string::npos);
  const std::size_t begin = open + 8;
  const std::size_t end = guide.find("```", begin);
  ASSERT_NE(end, std::string::npos);

  platform::CollectingConsole warnings;
  host_.SetWarnings(warnings);
  const auto doc = platform::LoadScene(host_, guide.substr(begin, end - begin), "scene-format.md");
  ASSERT_TRUE(doc) << doc.error().message;
  EXPECT_TRUE(warnings.Lines().empty()) << testing::PrintToString(warnings.Lines());
  std::size_t terrains = 0;
  for (const platform::Node* node : (*doc)->AllNodes()) terrains += node->GetTypeInfo().resourceName == "oterrain";
  EXPECT_EQ(terrains, 1u);
}

TEST(Describe, AMisspeltTypeIsRefusedWithTheNearestName) {
  testing_support::TempDir dir;
  const Outcome misspelt = RunCli(dir, "describe obluroperater");
  EXPECT_EQ(misspelt.exitCode, 2);
  EXPECT_NE(misspelt.output.find("did you mean 'obluroperator'?"), std::string::npos) << misspelt.output;
  const Outcome shouted = RunCli(dir, "describe OTERRAIN");
  EXPECT_EQ(shouted.exitCode, 2);
  EXPECT_NE(shouted.output.find("did you mean 'oterrain'?"), std::string::npos) << shouted.output;
  // Nothing near: no guess that would mislead.
  const Outcome unrelated = RunCli(dir, "describe xyz");
  EXPECT_EQ(unrelated.exitCode, 2);
  EXPECT_EQ(unrelated.output.find("did you mean"), std::string::npos) << unrelated.output;
}

TEST(ParameterHelpFile, SlipsInTheFileAreRefusedByName) {
  const auto refused = [](const std::string& json) {
    const auto loaded = ParameterHelp::LoadText(json, "test");
    return loaded ? std::string() : loaded.error().message;
  };
  EXPECT_NE(refused(R"({"A": {"label": "a", "help": "x"}, "A": {"label": "b", "help": "y"}})").find("'A' twice"),
            std::string::npos);
  EXPECT_NE(refused(R"({"A": {"label": "a", "help": "one\ntwo"}})").find("more than one line"), std::string::npos);
  EXPECT_NE(refused(R"({"A": {"label": " ", "help": "x"}})").find("'label' is empty"), std::string::npos);
  EXPECT_NE(refused(R"({"A": {"label": "a"}})").find("no 'help'"), std::string::npos);
  EXPECT_NE(refused(R"({"A": {"label": "a", "help": "x", "hint": "y"}})").find("'hint'"), std::string::npos);
  const auto loaded = ParameterHelp::LoadText(R"({"A": {"label": "a", "help": "x"}})", "test");
  ASSERT_TRUE(loaded);
  ASSERT_NE(loaded->Find("A"), nullptr);
  EXPECT_EQ(loaded->Find("A")->label, "a");
  EXPECT_EQ(loaded->Find("B"), nullptr);
}

}  // namespace
