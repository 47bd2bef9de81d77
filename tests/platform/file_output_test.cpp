#include "platform/file_output.h"

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <algorithm>
#include <fstream>
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

Status WriteText(std::ostream& stream, const std::string& text) {
  stream << text;
  return Ok();
}

TEST(FileOutputTest, FailedWritesLeaveNothingNewBehind) {
  TempDir dir;
  const auto target = dir.File("out.txt");

  // The callback writes part of its output and then fails.
  Status failed = WriteFileAtomically(target, [](std::ostream& stream) -> Status {
    stream << "half of it";
    return IoError("disk on fire");
  });
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().kind, ErrorKind::Io);
  EXPECT_EQ(failed.error().message, "disk on fire");
  EXPECT_TRUE(Names(dir.Path()).empty());

  // A stream that went bad fails the write even when the callback reports success.
  Status badStream = WriteFileAtomically(target, [](std::ostream& stream) -> Status {
    stream << "something";
    stream.setstate(std::ios::badbit);
    return Ok();
  });
  ASSERT_FALSE(badStream);
  EXPECT_NE(badStream.error().message.find(target.string()), std::string::npos) << badStream.error().message;
  EXPECT_TRUE(Names(dir.Path()).empty());

  // An existing target survives a failed write unchanged ...
  ASSERT_TRUE(WriteFileAtomically(target, [](std::ostream& stream) { return WriteText(stream, "old contents"); }));
  EXPECT_FALSE(WriteFileAtomically(target, [](std::ostream& stream) -> Status {
    stream << "new";
    return GenericError("nope");
  }));
  EXPECT_EQ(testing_support::ReadFileBytes(target), "old contents");
  EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"out.txt"});

  // ... and a successful one replaces it completely.
  ASSERT_TRUE(WriteFileAtomically(target, [](std::ostream& stream) { return WriteText(stream, "new"); }));
  EXPECT_EQ(testing_support::ReadFileBytes(target), "new");
  EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"out.txt"});

  // A folder that does not exist: an error naming the target, the callback never runs.
  bool called = false;
  const auto nowhere = dir.File("missing") / "out.txt";
  Status noFolder = WriteFileAtomically(nowhere, [&](std::ostream&) -> Status {
    called = true;
    return Ok();
  });
  ASSERT_FALSE(noFolder);
  EXPECT_FALSE(called);
  EXPECT_NE(noFolder.error().message.find(nowhere.string()), std::string::npos) << noFolder.error().message;
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
  ASSERT_TRUE(WriteFileAtomically(target, [](std::ostream& stream) { return WriteText(stream, "earlier"); }));
  const std::vector<std::byte> bytes(5u << 20, std::byte{7});

  ProgressLog log;
  ASSERT_TRUE(WriteBytesAtomically(target, bytes, {nullptr, &log}));
  EXPECT_EQ(std::filesystem::file_size(target), bytes.size());
  ASSERT_GE(log.fractions.size(), 5u);
  EXPECT_TRUE(std::is_sorted(log.fractions.begin(), log.fractions.end()));
  EXPECT_EQ(log.fractions.back(), 1.0);
  ASSERT_TRUE(WriteFileAtomically(target, [](std::ostream& stream) { return WriteText(stream, "earlier"); }));

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
  const Status cancelled = WriteFileAtomically(
      target,
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
    EXPECT_TRUE(std::filesystem::exists(pending.TemporaryPath()));
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
