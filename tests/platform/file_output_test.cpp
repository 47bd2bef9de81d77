#include "platform/file_output.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace platform {
namespace {

using testing_support::TempDir;

std::vector<std::string> Names(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  return names;
}

// A writer of `text` that succeeds.
std::function<Status(std::ostream&)> Text(std::string text) {
  return [text](std::ostream& stream) {
    stream << text;
    return Ok();
  };
}

TEST(FileOutputTest, FailedWritesLeaveTheEarlierFileAsItWas) {
  TempDir dir;
  const auto target = dir.File("out.txt");
  ASSERT_TRUE(WriteFileAtomically(target, Text("old contents")));
  // The message of an I/O error that left the earlier file as it was and no temporary.
  const auto refused = [&](const Status& status) {
    EXPECT_FALSE(status);
    EXPECT_EQ(testing_support::ReadFileBytes(target), "old contents");
    EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"out.txt"});
    EXPECT_EQ(status ? ErrorKind::Generic : status.error().kind, ErrorKind::Io);
    return status ? std::string() : status.error().message;
  };
  // The callback writes part of its output and then fails: its own error comes back.
  const Status failing = WriteFileAtomically(target, [](std::ostream& stream) -> Status {
    stream << "half of it";
    return IoError("disk on fire");
  });
  EXPECT_EQ(refused(failing), "disk on fire");
  // A stream that went bad fails the write even when the callback reports success.
  const Status badStream = WriteFileAtomically(target, [](std::ostream& stream) {
    stream << "something";
    stream.setstate(std::ios::badbit);
    return Ok();
  });
  EXPECT_PRED_FORMAT2(::testing::IsSubstring, target.string(), refused(badStream));
  // A folder that does not exist: an error naming the target, the callback never runs.
  const auto nowhere = dir.File("missing") / "out.txt";
  const Status noFolder = WriteFileAtomically(nowhere, [](std::ostream&) { return GenericError("called"); });
  EXPECT_PRED_FORMAT2(::testing::IsSubstring, nowhere.string(), refused(noFolder));

  ASSERT_TRUE(WriteFileAtomically(target, Text("new")));
  EXPECT_EQ(testing_support::ReadFileBytes(target), "new");
  EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"out.txt"});
}

class ProgressLog final : public ProgressSink {
 public:
  void SetStatus(std::string_view) override {}
  void ClearStatus() override {}
  void SetProgress(double fraction) override { fractions.push_back(fraction); }
  std::vector<double> fractions;
};

// The system's refusals and a break stop a write between blocks, say why, and leave the
// earlier file as it was.
TEST(FileOutputTest, FullDisksAndBreaksStopBetweenBlocksAndSayWhy) {
  TempDir dir;
  const auto target = dir.File("big.bin");
  ASSERT_TRUE(WriteFileAtomically(target, Text("earlier")));
  const std::vector<std::byte> bytes(5u << 20, std::byte{7});

  // A file size limit stands in for a full disk: the write fails with the system's text.
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = old;
  small.rlim_cur = 3u << 20;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const Status full = WriteBytesAtomically(target, bytes);
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, oldHandler);
  ASSERT_FALSE(full);
  EXPECT_EQ(full.error().kind, ErrorKind::Io);
  EXPECT_NE(full.error().message.find("File too large"), std::string::npos) << full.error().message;

  // A break during the writer's own loop ends at the next block.
  CancellationToken cancel;
  int blocksOffered = 0;
  const Status cancelled = WriteFileAtomically(target,
                                               [&](std::ostream& stream) -> Status {
                                                 for (int block = 0; block < 64 && stream; ++block, ++blocksOffered) {
                                                   if (block == 2) cancel.Cancel();
                                                   stream.write(reinterpret_cast<const char*>(bytes.data()), 1 << 20);
                                                 }
                                                 return Ok();
                                               },
                                               {&cancel, nullptr});
  ASSERT_FALSE(cancelled);
  EXPECT_EQ(cancelled.error().kind, ErrorKind::Cancelled);
  EXPECT_LE(blocksOffered, 4);
  EXPECT_EQ(testing_support::ReadFileBytes(target), "earlier");
  EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"big.bin"});

  // Unhindered, the write reports its progress block by block.
  ProgressLog log;
  ASSERT_TRUE(WriteBytesAtomically(target, bytes, {nullptr, &log}));
  EXPECT_EQ(std::filesystem::file_size(target), bytes.size());
  ASSERT_GE(log.fractions.size(), 5u);
  EXPECT_TRUE(std::is_sorted(log.fractions.begin(), log.fractions.end()));
  EXPECT_EQ(log.fractions.back(), 1.0);
}

TEST(FileOutputTest, PendingFileRemovesItsTemporaryUnlessCommitted) {
  TempDir dir;
  const auto target = dir.File("data.bin");
  std::filesystem::path firstTemporary;
  {
    PendingFile pending(target);
    firstTemporary = pending.TemporaryPath();
    EXPECT_EQ(pending.TargetPath(), target);
    EXPECT_NE(pending.TemporaryPath(), target);
    EXPECT_EQ(pending.TemporaryPath().parent_path(), dir.Path());  // beside it, so rename stays atomic
    std::ofstream(pending.TemporaryPath()) << "abandoned";
  }
  EXPECT_TRUE(Names(dir.Path()).empty());
  {
    PendingFile pending(target);
    EXPECT_NE(pending.TemporaryPath(), firstTemporary);  // two writers of one target do not collide
    std::ofstream(pending.TemporaryPath()) << "kept";
    ASSERT_TRUE(pending.Commit());
  }
  EXPECT_EQ(testing_support::ReadFileBytes(target), "kept");
  EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"data.bin"});

  // Nothing was written: the commit fails and says which file.
  PendingFile never(dir.File("never.bin"));
  Status commit = never.Commit();
  ASSERT_FALSE(commit);
  EXPECT_NE(commit.error().message.find("never.bin"), std::string::npos);
}

}  // namespace
}  // namespace platform
