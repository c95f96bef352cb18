// What a client's "list" offers: the files under the document root whose names match a pattern,
// sorted, and what is skipped and logged: links leading out of the root, loops, dangling links,
// directories that cannot be read, and entries past the budget.
#include "LogDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestUtil.h"

namespace {

using Names = std::vector<std::string>;

class LogDirectoryTest : public ::testing::Test {
 protected:
  // Creates the directories and file below the temp dir ("a/b/c.log").
  void MakeFile(const std::string& relative) {
    std::filesystem::create_directories(std::filesystem::path(temp_.File(relative)).parent_path());
    testutil::WriteFile(temp_.File(relative), "x");
  }
  void MakeLink(const std::string& target, const std::string& relative) {
    ASSERT_EQ(0, ::symlink(target.c_str(), temp_.File(relative).c_str())) << relative;
  }
  static Names Collect(const std::string& root, const std::string& pattern,
                       std::size_t budget = LogDirectory::kDefaultMaxEntries) {
    return LogDirectory(root, pattern, "Session 2: ", budget).Collect();
  }
  // The logged entries, sorted.
  Names Logged() const {
    Names lines = log_.Lines();
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  testutil::TempDir temp_;
  testutil::LogCapture log_;
};

}  // namespace

TEST_F(LogDirectoryTest, FilesMatchingAnyPatternAreListedWithTheirSubdirectoriesSorted) {
  for (const char* name : {"b.log", "a.log", "B.log", "notes.txt", "sub/c.log", "sub/deeper/d.log",
                           "sub/deeper/skip.txt", "x.log/e.log", "a.log.old", "app/x"}) {
    MakeFile(name);
  }
  const std::pair<std::string, Names> cases[] = {
      {"*.log", {"B.log", "a.log", "b.log", "sub/c.log", "sub/deeper/d.log", "x.log/e.log"}},
      {"a.*", {"a.log", "a.log.old"}},
      {"  a.*\t*.txt a.log  ", {"a.log", "a.log.old", "notes.txt", "sub/deeper/skip.txt"}},
      {"x", {"app/x"}},  // a pattern sees the bare name only
      {"app*", {}},
      {"app/x", {}},
      {" ", {}},
  };
  for (const auto& [pattern, names] : cases) {
    EXPECT_EQ(Collect(temp_.Path(), pattern), names) << pattern;
  }
  EXPECT_EQ(Logged(), Names{});
}

TEST_F(LogDirectoryTest, RootThatCannotBeOpenedAndDanglingLinksAreLogged) {
  MakeFile("a.log");
  MakeFile("plain");
  MakeLink(temp_.File("gone"), "dangling.log");
  MakeLink(temp_.File("plain/below"), "under-file.log");
  EXPECT_EQ(Collect(temp_.Path(), "*.log"), Names{"a.log"});
  EXPECT_EQ(Collect(temp_.File("plain"), "*"), Names{});
  EXPECT_EQ(Collect(temp_.File("missing"), "*"), Names{});
  const std::string vendor = ", please report this error to the software vendor)";
  EXPECT_EQ(
      Logged(),
      (Names{
          "Session 2: Can't open directory: " + temp_.File("missing") +
              " (No such file or directory" + vendor,
          "Session 2: Can't open directory: " + temp_.File("plain") + " (Not a directory" + vendor,
          "Session 2: Can't stat file: " + temp_.File("dangling.log") +
              " (No such file or directory)",
          "Session 2: Can't stat file: " + temp_.File("under-file.log") + " (Not a directory)"}));
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
  EXPECT_EQ(Collect(temp_.File("via-link"), "*.log"),
            (Names{"a.log", "linked/c.log", "other/c.log", "sub/b.log"}));
  const std::string root = temp_.File("via-link/");
  EXPECT_EQ(Logged(), (Names{"Session 2: Not inside the document root, skipped: " + root +
                                 "out -> " + temp_.File("secret"),
                             "Session 2: Not inside the document root, skipped: " + root +
                                 "out.log -> " + temp_.File("secret/d.log"),
                             "Session 2: Skipping directory loop: " + root + "sub/self",
                             "Session 2: Skipping directory loop: " + root + "sub/up"}));
}

TEST_F(LogDirectoryTest, WalkStopsAtItsEntryBudgetAndSaysSo) {
  for (const char* name : {"a.log", "b.log", "c.log"}) MakeFile(name);
  EXPECT_EQ(Collect(temp_.Path(), "*.log", 3).size(), 3u);
  EXPECT_EQ(Logged(), Names{});
  EXPECT_EQ(Collect(temp_.Path(), "*.log", 2).size(), 2u);
  EXPECT_EQ(Logged(), Names{"Session 2: Listing stopped after 2 entries under " + temp_.Path()});
}

// Root reads every directory, so as root the walk runs with the effective user nobody.
TEST_F(LogDirectoryTest, DirectoryWithoutReadPermissionIsLoggedAndSiblingsAreListed) {
  MakeFile("open/a.log");
  MakeFile("locked/hidden.log");
  ASSERT_EQ(0, ::chmod(temp_.Path().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(temp_.File("locked").c_str(), 0));
  const bool root = ::geteuid() == 0;
  ASSERT_TRUE(!root || ::seteuid(65534) == 0);
  const Names names = Collect(temp_.Path(), "*.log");
  ASSERT_TRUE(!root || ::seteuid(0) == 0);
  ::chmod(temp_.File("locked").c_str(), 0755);
  EXPECT_EQ(names, Names{"open/a.log"});
  EXPECT_EQ(Logged(),
            Names{"Session 2: Can't open directory: " + temp_.File("locked") +
                  " (Permission denied, please report this error to the software vendor)"});
}
