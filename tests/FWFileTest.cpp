#include "FWFile.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "TestUtil.h"

namespace {

class FWFileTest : public ::testing::Test {
 protected:
  // Every name the directory yields until the first "".
  static std::multiset<std::string> ReadAll(FWDirectory& dir) {
    std::multiset<std::string> names;
    for (std::string name; names.size() < 1000 && !(name = dir.NextName()).empty();)
      names.insert(name);
    return names;
  }

  // "source: text" of the exception that Open raises, or "" when it raises none.
  static std::string OpenFailure(const std::string& path) {
    FWDirectory dir;
    try {
      dir.Open(path);
    } catch (const FWESystemException& e) {
      return e.GetSource() + ": " + e.GetText();
    }
    return "";
  }

  // "directory|name|base|ext" of the path.
  static std::string Split(const std::string& path) {
    return FWFileName::GetDirectory(path) + "|" + FWFileName::GetName(path) + "|" +
           FWFileName::GetNameBase(path) + "|" + FWFileName::GetNameExt(path);
  }

  // "SlashForce|SlashStrip|IsDirectory" of the path.
  static std::string Slashes(const std::string& path) {
    return FWFileName::SlashForce(path) + "|" + FWFileName::SlashStrip(path) + "|" +
           (FWFileName::IsDirectory(path) ? "dir" : "not dir");
  }

  testutil::TempDir temp_;
};

TEST_F(FWFileTest, PathSplitsAtLastSlashAndLastDotOfTheName) {
  EXPECT_EQ("a/b/|c.log|c|log", Split("a/b/c.log"));
  EXPECT_EQ("|archive.tar.gz|archive.tar|gz", Split("archive.tar.gz"));
  EXPECT_EQ("/|c|c|", Split("/c"));
  EXPECT_EQ("|c.log|c|log", Split("c.log"));
  EXPECT_EQ("a/b/|||", Split("a/b/"));
  EXPECT_EQ("dir/|.profile||profile", Split("dir/.profile"));
  EXPECT_EQ("my.dir/|file|file|", Split("my.dir/file"));
  EXPECT_EQ("|name.|name|", Split("name."));
  EXPECT_EQ("|||", Split(""));
  EXPECT_EQ("a/b/c.log", FWFileName::GetShortName("a/b/c.log"));
  EXPECT_EQ("/tmp", FWFileName::GetTmpDirectory());
}

TEST_F(FWFileTest, TrailingSlashAloneMakesADirectoryAndIsForcedOrStrippedOnce) {
  // The file system is not consulted: an existing directory without the slash is no directory.
  EXPECT_FALSE(FWFileName::IsDirectory(temp_.Path()));
  EXPECT_TRUE(FWFileName::IsDirectory(temp_.Path() + "/"));
  EXPECT_EQ("||not dir", Slashes(""));
  EXPECT_EQ("a/|a|not dir", Slashes("a"));
  EXPECT_EQ("a/|a|dir", Slashes("a/"));
  EXPECT_EQ("/||dir", Slashes("/"));
  EXPECT_EQ("a//|a/|dir", Slashes("a//"));
  EXPECT_EQ("a/b/|a/b|not dir", Slashes("a/b"));
  EXPECT_EQ("no/such/dir/|no/such/dir|dir", Slashes("no/such/dir/"));
}

TEST_F(FWFileTest, ComparePathMarksSlashesAndFileNamesAndSortsSubdirectoriesFirst) {
  // "/" becomes \1 and a file name gets \177 in front.
  EXPECT_EQ("a\1b\1", FWFileName::GetComparePath("a/b/"));
  EXPECT_EQ("a\1\177c.log", FWFileName::GetComparePath("a/c.log"));
  EXPECT_EQ("\177c.log", FWFileName::GetComparePath("c.log"));
  EXPECT_EQ("\1\177c", FWFileName::GetComparePath("/c"));
  EXPECT_EQ("\177", FWFileName::GetComparePath(""));
  const std::vector<std::string> expected = {"a/",      "a/b/", "a/b/c/", "a/b/x.log", "a/0.log",
                                             "a/y.log", "c/",   "A.log",  "b.log",     "z.log"};
  std::vector<std::string> paths(expected.rbegin(), expected.rend());
  std::sort(paths.begin(), paths.end(), [](const std::string& l, const std::string& r) {
    return FWFileName::GetComparePath(l) < FWFileName::GetComparePath(r);
  });
  EXPECT_EQ(expected, paths);
}

TEST_F(FWFileTest, DirectoryListsEveryEntryThenEmptyNamesUntilReopened) {
  testutil::WriteFile(temp_.File("a.log"), "x");
  testutil::WriteFile(temp_.File("b"), "");
  std::filesystem::create_directory(temp_.File("sub"));
  FWDirectory dir;
  EXPECT_EQ("", dir.NextName());  // not open yet
  dir.Open(temp_.Path() + "/");
  EXPECT_EQ((std::multiset<std::string>{".", "..", "a.log", "b", "sub"}), ReadAll(dir));
  EXPECT_EQ("", dir.NextName());
  EXPECT_EQ("", dir.NextName());
  dir.Open(temp_.Path());
  EXPECT_EQ(5u, ReadAll(dir).size());
  dir.Open(temp_.Path());
  dir.Close();
  dir.Close();
  EXPECT_EQ("", dir.NextName());
}

// Failures of Open carry the system's own text, and close the stream that was open.
TEST_F(FWFileTest, OpenFailuresThrowSystemTextAndLeaveNoStreamOpen) {
  const std::string kSuffix = ", please report this error to the software vendor";
  testutil::WriteFile(temp_.File("plain"), "x");
  EXPECT_EQ("FWFile: No such file or directory" + kSuffix, OpenFailure(temp_.File("missing")));
  EXPECT_EQ("FWFile: No such file or directory" + kSuffix, OpenFailure(""));
  EXPECT_EQ("FWFile: Not a directory" + kSuffix, OpenFailure(temp_.File("plain")));
  EXPECT_EQ("FWFile: Not a directory" + kSuffix, OpenFailure(temp_.File("plain/below")));

  FWDirectory dir;
  dir.Open(temp_.Path());
  EXPECT_THROW(dir.Open(temp_.File("missing")), FWESystemException);
  EXPECT_EQ("", dir.NextName());

  EXPECT_EQ("No such file or directory", GetErrorMessage(ENOENT));
  EXPECT_EQ("Not a directory", GetErrorMessage(ENOTDIR));
  EXPECT_EQ("Success", GetErrorMessage(0));
  EXPECT_EQ("Unknown error 99999", GetErrorMessage(99999));
}

TEST_F(FWFileTest, DeleteDirRemovesTheWholeTree) {
  ASSERT_TRUE(std::filesystem::create_directories(temp_.File("tree/inner")));
  testutil::WriteFile(temp_.File("tree/inner/x.log"), "x");
  testutil::WriteFile(temp_.File("keep"), "k");
  EXPECT_TRUE(DeleteDir(temp_.File("tree").c_str()));
  EXPECT_FALSE(testutil::FileExists(temp_.File("tree")));
  EXPECT_TRUE(testutil::FileExists(temp_.File("keep")));
  EXPECT_FALSE(DeleteDir(nullptr));
}

}  // namespace
