#include "platform/preferences.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <optional>
#include <string>

#include "support/temp_dir.h"

namespace platform {
namespace {

using testing_support::TempDir;
constexpr Int32 kPage = 1055624;

// Sets (or, for nullptr, unsets) an environment variable until the end of the scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = ::getenv(name)) old_ = old;
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

Preferences WithDefaults() {
  Preferences preferences;
  ParameterContainer defaults;
  EXPECT_TRUE(defaults.Set(1000, Int32{4000}));
  EXPECT_TRUE(defaults.Set(1001, true));
  EXPECT_TRUE(preferences.RegisterDefaults(kPage, defaults));
  return preferences;
}

TEST(PreferencesTest, RoundTripKeepsValuesAndAlwaysSavesDefaults) {
  TempDir dir;
  Preferences saved = WithDefaults();
  ParameterContainer& page = saved.GetWorldPluginData(kPage);
  ASSERT_TRUE(page.Remove(1000));  // a default is saved all the same
  using Entry = std::pair<ParameterId, Value>;
  for (const auto& [id, value] : {Entry{1001, false}, Entry{1002, Int{1} << 40}, Entry{1003, 4000.0},
                                  Entry{1004, Vector(1.0, -2.5, 3.0)}, Entry{1005, "ridge"}})
    ASSERT_TRUE(page.Set(id, value));
  ASSERT_TRUE(saved.GetWorldPluginData(7).Set(1, Int32{-3}));
  const auto file = dir.Path() / "new folder" / "preferences.json";
  ASSERT_TRUE(saved.Save(file));
  EXPECT_NE(testing_support::ReadFileBytes(file).find("\"1000\": 4000"), std::string::npos);

  Preferences loaded = WithDefaults();
  CollectingConsole console;
  loaded.Load(file, console);
  EXPECT_TRUE(console.Lines().empty());
  ParameterContainer expected = page;
  ASSERT_TRUE(expected.Set(1000, Int32{4000}));
  EXPECT_EQ(loaded.GetWorldPluginData(kPage), expected);
  EXPECT_EQ(loaded.GetWorldPluginData(7), saved.GetWorldPluginData(7));
}

TEST(PreferencesTest, MissingFileIsSilentAndBrokenFilesKeepDefaultsWithWarning) {
  TempDir dir;
  Preferences preferences = WithDefaults();
  CollectingConsole console;
  preferences.Load(dir.File("missing.json"), console);
  EXPECT_TRUE(console.Lines().empty());

  const auto file = dir.File("preferences.json");
  for (const char* broken : {R"({"1055624": {"1000": 5)", "[1, 2]"}) {
    std::ofstream(file) << broken;
    preferences.Load(file, console);
  }
  ASSERT_EQ(console.Lines().size(), 2u);
  for (const auto& line : console.Lines()) EXPECT_NE(line.find(file.string()), std::string::npos) << line;
  EXPECT_EQ(preferences.FindWorldPluginData(kPage)->GetInt32(1000), 4000);
}

TEST(PreferencesTest, ValueOfAnotherTypeKeepsTheDefaultWithWarning) {
  TempDir dir;
  const auto file = dir.File("preferences.json");
  for (const std::string bad : {R"("abc")", "1.5", "5000000000", "null"}) {
    std::ofstream(file) << R"({"1055624": {"1001": false, "1002": 7, "1000": )" + bad + "}}";
    Preferences preferences = WithDefaults();
    CollectingConsole console;
    preferences.Load(file, console);
    ASSERT_EQ(console.Lines().size(), 1u) << bad;
    EXPECT_NE(console.Lines()[0].find("key 1000"), std::string::npos) << console.Lines()[0];
    const ParameterContainer& page = *preferences.FindWorldPluginData(kPage);
    EXPECT_EQ(page.GetInt32(1000), 4000);
    EXPECT_FALSE(page.GetBool(1001, true));
    EXPECT_EQ(page.TypeOf(1002), ValueType::INT32);
  }
}

TEST(PreferencesTest, DefaultFileHonoursXdgConfigHomeAndHome) {
  ScopedEnv home("HOME", "/home/ada");
  {
    ScopedEnv xdg("XDG_CONFIG_HOME", "/xdg");
    EXPECT_EQ(Preferences::DefaultFile(), "/xdg/vellgrund/preferences.json");
  }
  {
    ScopedEnv xdg("XDG_CONFIG_HOME", "relative/config");  // not absolute: ignored
    EXPECT_EQ(Preferences::DefaultFile(), "/home/ada/.config/vellgrund/preferences.json");
  }
  ScopedEnv xdg("XDG_CONFIG_HOME", nullptr);
  ScopedEnv noHome("HOME", nullptr);
  EXPECT_EQ(Preferences::DefaultFile(), ".config/vellgrund/preferences.json");
}

}  // namespace
}  // namespace platform
