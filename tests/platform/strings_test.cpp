#include "platform/strings.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/host.h"

namespace platform {
namespace {

TEST(StringTableTest, ResourceTableHasEveryText) {
  StringTable table;
  const auto loaded = table.LoadFile(ResourceFolder() / "strings" / "strings.json");
  ASSERT_TRUE(loaded) << loaded.error().message;
  for (Int32 id = 10000; id <= 10014; ++id) EXPECT_TRUE(table.Contains(id)) << id;
  for (const Int32 id : {10016, 10022, 10024, 10025, 10026, 10027, 10028, 10029, 10030, 10031, 10033, 10034,
                         10035, 10036, 10037, 10038, 10040, 10045, 10046, 10047, 10048, 10071, 10073, 10083})
    EXPECT_TRUE(table.Contains(id)) << id;
  EXPECT_NE(table.Format(10071, {"Noise"}).find("Noise"), std::string::npos);
}

TEST(StringTableTest, FormatFillsPlaceholdersInOrder) {
  StringTable table;
  ASSERT_TRUE(table.LoadText(R"js({"1": "# of # (##)", "2": "plain", "-5": "#"})js", "test"));
  EXPECT_EQ(table.Format(1, {"3", "7"}), "3 of 7 (#)");
  EXPECT_EQ(table.Format(1, {"3"}), "3 of  (#)");
  EXPECT_EQ(table.Format(1, {"a", "b", "c"}), "a of b (#)");
  EXPECT_EQ(table.Format(2, {"x"}), "plain");
  EXPECT_EQ(table.Get(-5), "#");
  EXPECT_EQ(table.Get(3), "#3");
  EXPECT_EQ(table.Format(3, {"x"}), "#3");
}

TEST(StringTableTest, MalformedTableIsRefusedAndLeavesTableUnchanged) {
  StringTable table;
  ASSERT_TRUE(table.LoadText(R"({"1": "one"})", "good.json"));
  struct Case {
    const char* text;
    const char* named;  // what the error names besides the source
  };
  for (const Case& bad : {Case{R"({"2": "two", "x": "ex"})", "\"x\""}, Case{R"({"2": 5})", "\"2\""},
                          Case{R"({"1": "uno", "2147483648": "big"})", "\"2147483648\""},
                          Case{R"({"01": "o"})", "\"01\""}, Case{R"(["one"])", ""}, Case{"{broken", ""}}) {
    const Status status = table.LoadText(bad.text, "bad.json");
    ASSERT_FALSE(status) << bad.text;
    EXPECT_EQ(status.error().kind, ErrorKind::IllegalArgument);
    EXPECT_NE(status.error().message.find("bad.json"), std::string::npos) << status.error().message;
    EXPECT_NE(status.error().message.find(bad.named), std::string::npos) << status.error().message;
    EXPECT_EQ(table.Get(1), "one");
    EXPECT_FALSE(table.Contains(2));
  }
  const Status missing = table.LoadFile("/nonexistent/strings.json");
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().message.find("/nonexistent/strings.json"), std::string::npos);
}

}  // namespace
}  // namespace platform
