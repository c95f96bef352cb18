#include "LogDirectory.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWLogStream.h"
#include "TestUtil.h"

namespace {

using Names = std::vector<std::string>;

class LogDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.ClearLogBuffer();
    LogStream.SetBufferLimit(1 << 20);
  }
  void TearDown() override {
    LogStream.SetBufferLimit(0);
    LogStream.ClearLogBuffer();
  }

  // Creates the directories and file below the temp dir ("a/b/c.log").
  void MakeFile(const std::string& relative) {
    for (std::size_t slash = relative.find('/'); slash != std::string::npos;
         slash = relative.find('/', slash + 1)) {
      ::mkdir(temp_.File(relative.substr(0, slash)).c_str(), 0755);
    }
    testutil::WriteFile(temp_.File(relative), "x");
  }
  void MakeLink(const std::string& target, const std::string& relative) {
    ASSERT_EQ(0, ::symlink(target.c_str(), temp_.File(relative).c_str())) << relative;
  }
  Names Collect(const std::string& root, const std::string& pattern) const {
    return LogDirectory(root, pattern, "Session 2: ").Collect();
  }

  // The logged entries without their time stamps, from the source on.
  static Names Logged() {
    Names lines;
    const std::string& buffer = LogStream.GetLogBuffer();
    for (std::size_t pos = 0, end; (end = buffer.find('\n', pos)) != std::string::npos;
         pos = end + 1) {
      const std::string line = buffer.substr(pos, end - pos);
      const std::size_t source = line.find("Session 2: ");
      lines.push_back(source == std::string::npos ? line : line.substr(source));
    }
    return lines;
  }

  testutil::TempDir temp_;
};

TEST_F(LogDirectoryTest, SubdirectoriesAreListedWithPrefixesSortedByByteValue) {
  for (const char* name : {"b.log", "a.log", "B.log", "notes.txt", "sub/c.log", "sub/deeper/d.log",
                           "sub/deeper/skip.txt", "x.log/e.log", "a.log.old"})
    MakeFile(name);
  EXPECT_EQ((Names{"B.log", "a.log", "b.log", "sub/c.log", "sub/deeper/d.log", "x.log/e.log"}),
            Collect(temp_.Path(), "*.log"));
  EXPECT_EQ((Names{"a.log", "a.log.old"}), Collect(temp_.Path(), "a.*"));
  // A blank-separated list: a name matching any of the patterns is offered once.
  EXPECT_EQ((Names{"a.log", "a.log.old", "notes.txt", "sub/deeper/skip.txt"}),
            Collect(temp_.Path(), "  a.*\t*.txt a.log  "));
  EXPECT_EQ(Names{}, Collect(temp_.Path(), " "));
  EXPECT_EQ(Names{}, Logged());
}

TEST_F(LogDirectoryTest, PatternIsMatchedAgainstTheBareNameOnly) {
  MakeFile("app/server.log");
  MakeFile("app/x");
  EXPECT_EQ((Names{"app/x"}), Collect(temp_.Path(), "x"));
  EXPECT_EQ(Names{}, Collect(temp_.Path(), "app*"));
  EXPECT_EQ(Names{}, Collect(temp_.Path(), "app/server.log"));
}

// With the root R = <temp>/data, the directory R/x/<temp>/data holds the root text twice: both
// go, so its files are listed under x/.
TEST_F(LogDirectoryTest, EveryOccurrenceOfTheRootTextIsRemovedFromThePrefix) {
  const std::string nested = "data/x" + temp_.Path() + "/data";
  MakeFile("data/top.log");
  MakeFile(nested + "/inner.log");
  MakeFile("data/x/mid.log");
  const std::string root = temp_.File("data");
  ASSERT_TRUE(testutil::FileExists(root + "/x" + root + "/inner.log"));
  EXPECT_EQ((Names{"top.log", "x/inner.log", "x/mid.log"}), Collect(root, "*.log"));
}

// Failures are logged with the session prefix; what can be collected still is.
TEST_F(LogDirectoryTest, RootThatCannotBeOpenedIsLoggedAndGivesNoNames) {
  MakeFile("plain");
  const std::string suffix = ", please report this error to the software vendor)";
  EXPECT_EQ(Names{}, Collect(temp_.File("plain"), "*"));
  EXPECT_EQ(Names{}, Collect(temp_.File("missing"), "*"));
  EXPECT_EQ((Names{"Session 2: Can't open directory: " + temp_.File("plain") + " (Not a directory" +
                       suffix,
                   "Session 2: Can't open directory: " + temp_.File("missing") +
                       " (No such file or directory" + suffix}),
            Logged());
}

TEST_F(LogDirectoryTest, DanglingSymlinkIsLoggedAndSiblingsAreStillListed) {
  MakeFile("a.log");
  MakeFile("plain");
  MakeLink(temp_.File("gone"), "dangling.log");
  MakeLink(temp_.File("plain/below"), "under-file.log");
  EXPECT_EQ((Names{"a.log"}), Collect(temp_.Path(), "*.log"));
  Names logged = Logged();
  std::sort(logged.begin(), logged.end());
  EXPECT_EQ(
      (Names{"Session 2: Can't stat file: " + temp_.File("dangling.log") +
                 " (No such file or directory)",
             "Session 2: Can't stat file: " + temp_.File("under-file.log") + " (Not a directory)"}),
      logged);
}

// Links are followed only where they stay inside the root, which may itself be reached through
// a link.
TEST_F(LogDirectoryTest, LinksLeadingOutOfTheRootAndLinkLoopsAreSkipped) {
  MakeFile("root/a.log");
  MakeFile("root/sub/b.log");
  MakeFile("root/other/c.log");
  MakeFile("secret/d.log");
  MakeLink(temp_.File("root"), "root/sub/up");
  MakeLink(".", "root/sub/self");
  MakeLink("other", "root/linked");
  MakeLink("../secret", "root/out");
  MakeLink(temp_.File("secret/d.log"), "root/out.log");
  MakeLink("root", "via-link");
  EXPECT_EQ((Names{"a.log", "linked/c.log", "other/c.log", "sub/b.log"}),
            Collect(temp_.File("via-link"), "*.log"));
  Names logged = Logged();
  std::sort(logged.begin(), logged.end());
  const std::string root = temp_.File("via-link/");
  EXPECT_EQ((Names{"Session 2: Not inside the document root, skipped: " + root + "out -> " +
                       temp_.File("secret"),
                   "Session 2: Not inside the document root, skipped: " + root + "out.log -> " +
                       temp_.File("secret/d.log"),
                   "Session 2: Skipping directory loop: " + root + "sub/self",
                   "Session 2: Skipping directory loop: " + root + "sub/up"}),
            logged);
}

TEST_F(LogDirectoryTest, WalkStopsAtItsEntryBudgetAndSaysSo) {
  for (const char* name : {"a.log", "b.log", "c.log"}) MakeFile(name);
  EXPECT_EQ(3u, LogDirectory(temp_.Path(), "*.log", "Session 2: ", 3).Collect().size());
  EXPECT_EQ(Names{}, Logged());
  EXPECT_EQ(2u, LogDirectory(temp_.Path(), "*.log", "Session 2: ", 2).Collect().size());
  EXPECT_EQ(Names{"Session 2: Listing stopped after 2 entries under " + temp_.Path()}, Logged());
}

// Root reads every directory, so the collection runs in a child that drops to the user nobody
// when the suite runs as root; the child reports the names and the log through a pipe.
TEST_F(LogDirectoryTest, DirectoryWithoutReadPermissionIsLoggedAndSiblingsAreListed) {
  MakeFile("open/a.log");
  MakeFile("locked/hidden.log");
  ASSERT_EQ(0, ::chmod(temp_.Path().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(temp_.File("locked").c_str(), 0));
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  const pid_t pid = ::fork();
  ASSERT_LE(0, pid);
  if (pid == 0) {
    ::close(fds[0]);
    if (::geteuid() == 0 && ::setuid(65534) != 0) ::_exit(2);
    std::string report;
    for (const std::string& name : Collect(temp_.Path(), "*.log")) report += name + "\n";
    report += "--\n" + LogStream.GetLogBuffer();
    const bool written =
        ::write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size());
    ::_exit(written ? 0 : 3);
  }
  ::close(fds[1]);
  int status = -1;
  EXPECT_TRUE(testutil::WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
  std::string report;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof(buffer))) > 0;) report.append(buffer, n);
  ::close(fds[0]);
  ::chmod(temp_.File("locked").c_str(), 0755);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  const std::size_t entry = report.find("Session 2: ");
  ASSERT_NE(std::string::npos, entry) << report;
  EXPECT_EQ("open/a.log\n--\n", report.substr(0, report.find("--\n") + 3));
  EXPECT_EQ("Session 2: Can't open directory: " + temp_.File("locked") +
                " (Permission denied, please report this error to the software vendor)\n",
            report.substr(entry));
}

}  // namespace
