#include "platform/strings.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/host.h"

namespace platform {
namespace {

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
