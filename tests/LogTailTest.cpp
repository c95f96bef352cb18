#include "LogTail.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestUtil.h"

namespace {

constexpr std::size_t kMiB = 1u << 20;

class LogTailTest : public ::testing::Test {
 protected:
  void Append(const std::string& text) { testutil::WriteFile(path_, text, true); }
  // Starts on path_, which records at once where the file ends.
  void StartAtEnd() { ASSERT_EQ(0, tail_.Start(path_)); }

  // How many of this process's descriptors point at target ("/path (deleted)"
  // for a deleted file).
  static int CountTargets(const std::string& target) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      count += std::filesystem::read_symlink(entry.path(), ignored) == target ? 1 : 0;
    }
    return count;
  }

  testutil::LogCapture log_;
  testutil::TempDir temp_;
  const std::string path_ = temp_.File("app.log");
  LogTail tail_{"Session 1: "};
};

TEST_F(LogTailTest, FileLargerThanFourGibibytesIsFollowedAtItsEnd) {
  constexpr off_t kSize = off_t{5} << 30;  // sparse: no disk is used
  testutil::WriteFile(path_, "");
  ASSERT_EQ(0, ::truncate(path_.c_str(), kSize));
  StartAtEnd();  // a wrong start offset would make the poll read old (sparse) bytes
  Append("x\n");
  EXPECT_EQ("x\r\n", tail_.Poll());
  EXPECT_EQ(kSize + 2, tail_.GetOffset());
}

// Start sends nothing old; what is appended, before the first poll too, comes
// once, in order, with its line ends right also where a line is completed at a
// later poll.
TEST_F(LogTailTest, StartSendsOnlyAppendsAndLineEndsStayCorrectAcrossPolls) {
  testutil::WriteFile(path_, "written before start\n");
  StartAtEnd();
  Append("half a li");
  EXPECT_EQ("half a li", tail_.Poll());
  Append("ne\nCR at the end\r");
  EXPECT_EQ("ne\r\nCR at the end\r", tail_.Poll());
  Append("\nLF completes it");
  EXPECT_EQ("\nLF completes it", tail_.Poll());
  Append("\n\nblank above\r\n");
  EXPECT_EQ("\r\n\r\nblank above\r\n", tail_.Poll());
  Append("\nlone LF at the start");
  EXPECT_EQ("\r\nlone LF at the start", tail_.Poll());
  Append("\r\r\n");
  EXPECT_EQ("\r\r\n", tail_.Poll());
  Append(std::string("a\0b\n\0\0c\0", 9));  // zero bytes are sent as they are
  EXPECT_EQ(std::string("a\0b\r\n\0\0c\0", 10), tail_.Poll());
  EXPECT_EQ("", tail_.Poll());
  EXPECT_EQ(111, tail_.GetOffset());
}

TEST_F(LogTailTest, RotationSendsRestOfOldFileThenNewFileAndTruncationAllAgainEachLineOnce) {
  testutil::WriteFile(path_, "before\n");
  StartAtEnd();
  Append("old 1\n");
  EXPECT_EQ("old 1\r\n", tail_.Poll());
  Append("old 2\nold 3\n");
  ASSERT_EQ(0, std::rename(path_.c_str(), (path_ + ".1").c_str()));
  testutil::WriteFile(path_, "new 1\nnew 2\n");
  EXPECT_EQ("old 2\r\nold 3\r\nnew 1\r\nnew 2\r\n", tail_.Poll());
  EXPECT_EQ(0, CountTargets(path_ + ".1"));
  Append("new 3\n");
  EXPECT_EQ("new 3\r\n", tail_.Poll());
  // Rotated again, the new file already longer than the old one was read: sent
  // whole.
  ASSERT_EQ(0, std::rename(path_.c_str(), (path_ + ".1").c_str()));
  testutil::WriteFile(path_, std::string(100, 'n'));
  EXPECT_EQ(std::string(100, 'n'), tail_.Poll());
  EXPECT_EQ(100, tail_.GetOffset());
  testutil::WriteFile(path_, "short\n");  // truncates in place, same inode
  EXPECT_EQ("short\r\n", tail_.Poll());
  Append("next\n");
  EXPECT_EQ("next\r\n", tail_.Poll());
  EXPECT_EQ(std::vector<std::string>{}, log_.Lines());
}

TEST_F(LogTailTest, DeletedFileIsLoggedClosedAndSentWholeWhenItReturns) {
  testutil::WriteFile(path_, "kept\n");
  StartAtEnd();
  Append("last words\n");
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  EXPECT_EQ(1, CountTargets(path_ + " (deleted)"));
  EXPECT_EQ("last words\r\n", tail_.Poll());
  EXPECT_EQ(0, CountTargets(path_ + " (deleted)"));
  EXPECT_EQ("", tail_.Poll());
  const std::string line = "Session 1: Can't stat file: " + path_ + " (No such file or directory)";
  EXPECT_EQ((std::vector<std::string>{line, line}), log_.Lines());
  testutil::WriteFile(path_, "reborn\n");
  EXPECT_EQ("reborn\r\n", tail_.Poll());
  EXPECT_EQ(2u, log_.Lines().size());
  // Deleted with more than a poll reads left: still closed by that poll.
  Append(std::string(4 * kMiB + 1, 'd'));
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  EXPECT_EQ(4 * kMiB, tail_.Poll().size());
  EXPECT_EQ(0, CountTargets(path_ + " (deleted)"));
  testutil::WriteFile(path_, "again\n");
  EXPECT_EQ("again\r\n", tail_.Poll());
}

TEST_F(LogTailTest, RotationSharesThePollBudgetWithoutLosingOrRepeatingBytes) {
  testutil::WriteFile(path_, "");
  StartAtEnd();
  const std::string old_rest(3 * kMiB, 'o');
  const std::string fresh(2 * kMiB, 'f');
  Append(old_rest);
  ASSERT_EQ(0, std::rename(path_.c_str(), (path_ + ".1").c_str()));
  testutil::WriteFile(path_, fresh);
  EXPECT_TRUE(tail_.Poll() == old_rest + fresh.substr(0, kMiB));
  EXPECT_EQ(static_cast<off_t>(kMiB), tail_.GetOffset());
  EXPECT_TRUE(tail_.Poll() == fresh.substr(kMiB));
  EXPECT_EQ("", tail_.Poll());
}

TEST_F(LogTailTest, UnreadablePathIsRefusedAtStartAndLoggedOncePerFailureWhileFollowed) {
  const std::string cant_read = "Session 1: Can't read file: " + path_ + " (Is a directory)";
  ASSERT_EQ(0, ::mkdir(path_.c_str(), 0755));
  EXPECT_EQ(EISDIR, tail_.Start(path_));
  EXPECT_FALSE(tail_.IsStarted());
  EXPECT_EQ(std::vector<std::string>{cant_read}, log_.Lines());
  ASSERT_EQ(0, ::rmdir(path_.c_str()));

  // Missing at start: followed (a resume finds it gone), and the path turning
  // unreadable is logged once, not every poll; once the file appears it is sent
  // whole.
  ASSERT_EQ(0, tail_.Start(path_));
  EXPECT_EQ(LogTail::Resumed::kGone, tail_.Reposition(LogTail::Position{1, 2, 3}));
  ASSERT_EQ(0, ::mkdir(path_.c_str(), 0755));
  for (int poll = 0; poll < 3; ++poll) EXPECT_EQ("", tail_.Poll());
  EXPECT_EQ((std::vector<std::string>{cant_read, cant_read}), log_.Lines());
  ASSERT_EQ(0, ::rmdir(path_.c_str()));
  testutil::WriteFile(path_, "file now\n");
  EXPECT_EQ("file now\r\n", tail_.Poll());
}

TEST_F(LogTailTest, BacklogStartsAtTheLastWholeLinesWithinTheBounds) {
  // The file, the lines asked for, and the first poll.
  const std::tuple<std::string, std::size_t, std::string> cases[] = {
      {"a\nb\nc\n", 2, "b\r\nc\r\n"},
      {"a\nb\nc", 2, "b\r\nc"},
      {"a\nb\n", 5, "a\r\nb\r\n"},
      {"a\nb\n", 0, ""},
      {"", 3, ""},
  };
  for (const auto& [content, lines, first_poll] : cases) {
    testutil::WriteFile(path_, content);
    StartAtEnd();
    tail_.Backlog(lines);
    EXPECT_EQ(first_poll, tail_.Poll()) << content << " " << lines;
  }
  // 5000 lines of 1000 bytes: only the whole lines of the last 4 MiB (4194 of
  // them).
  std::string big;
  for (int i = 0; i < 5000; ++i) big += std::string(999, 'x') + "\n";
  testutil::WriteFile(path_, big);
  StartAtEnd();
  tail_.Backlog(100000);
  EXPECT_EQ(4194u * 1001u, tail_.Poll().size());
}

}  // namespace
