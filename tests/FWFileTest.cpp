#include "FWFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "TestUtil.h"

namespace {

class FWFileTest : public ::testing::Test {
 protected:
  void MakeDir(const std::string& name) {
    ASSERT_EQ(0, ::mkdir(temp_.File(name).c_str(), 0755)) << name;
  }

  // Every name the directory yields until the first "".
  static std::multiset<std::string> ReadAll(FWDirectory& dir) {
    std::multiset<std::string> names;
    for (int i = 0; i < 1000; ++i) {
      const std::string name = dir.NextName();
      if (name.empty()) break;
      names.insert(name);
    }
    return names;
  }

  // The text of the exception that Open raises, or "" when it raises none.
  static std::string OpenFailure(const std::string& path, std::string* source = nullptr) {
    FWDirectory dir;
    try {
      dir.Open(path);
    } catch (const FWESystemException& e) {
      if (source != nullptr) *source = e.GetSource();
      return e.GetText();
    }
    return "";
  }

  testutil::TempDir temp_;
};

TEST_F(FWFileTest, PathSplitsIntoDirectoryNameBaseAndExtension) {
  EXPECT_EQ("a/b/", FWFileName::GetDirectory("a/b/c.log"));
  EXPECT_EQ("c.log", FWFileName::GetName("a/b/c.log"));
  EXPECT_EQ("c", FWFileName::GetNameBase("a/b/c.log"));
  EXPECT_EQ("log", FWFileName::GetNameExt("a/b/c.log"));
  EXPECT_EQ("archive.tar", FWFileName::GetNameBase("archive.tar.gz"));
  EXPECT_EQ("gz", FWFileName::GetNameExt("archive.tar.gz"));
  EXPECT_EQ("/", FWFileName::GetDirectory("/c"));
  EXPECT_EQ("c", FWFileName::GetName("/c"));
}

TEST_F(FWFileTest, PathWithoutSlashHasNoDirectoryAndIsAllName) {
  EXPECT_EQ("", FWFileName::GetDirectory("c.log"));
  EXPECT_EQ("c.log", FWFileName::GetName("c.log"));
  EXPECT_EQ("", FWFileName::GetName("a/b/"));
  EXPECT_EQ("a/b/", FWFileName::GetDirectory("a/b/"));
}

TEST_F(FWFileTest, DotsOutsideTheNameOrAtItsEdgesSplitAsWritten) {
  EXPECT_EQ("", FWFileName::GetNameBase("dir/.profile"));
  EXPECT_EQ("profile", FWFileName::GetNameExt("dir/.profile"));
  EXPECT_EQ("", FWFileName::GetNameExt("my.dir/file"));
  EXPECT_EQ("file", FWFileName::GetNameBase("my.dir/file"));
  EXPECT_EQ("name", FWFileName::GetNameBase("name."));
  EXPECT_EQ("", FWFileName::GetNameExt("name."));
  EXPECT_EQ("", FWFileName::GetNameBase(""));
  EXPECT_EQ("", FWFileName::GetNameExt(""));
}

TEST_F(FWFileTest, ShortNameIsThePathAndTmpDirectoryIsFixed) {
  EXPECT_EQ("a/b/c.log", FWFileName::GetShortName("a/b/c.log"));
  EXPECT_EQ("/tmp", FWFileName::GetTmpDirectory());
}

TEST_F(FWFileTest, IsDirectoryLooksOnlyAtTheTrailingSlash) {
  EXPECT_FALSE(FWFileName::IsDirectory(temp_.Path()));
  EXPECT_TRUE(FWFileName::IsDirectory(temp_.Path() + "/"));
  EXPECT_TRUE(FWFileName::IsDirectory("no/such/dir/"));
  EXPECT_TRUE(FWFileName::IsDirectory("/"));
  EXPECT_FALSE(FWFileName::IsDirectory(""));
}

TEST_F(FWFileTest, SlashForceAndStripTouchOnlyOneTrailingSlash) {
  EXPECT_EQ("", FWFileName::SlashForce(""));
  EXPECT_EQ("a/", FWFileName::SlashForce("a"));
  EXPECT_EQ("a/", FWFileName::SlashForce("a/"));
  EXPECT_EQ("/", FWFileName::SlashForce("/"));
  EXPECT_EQ("", FWFileName::SlashStrip("/"));
  EXPECT_EQ("", FWFileName::SlashStrip(""));
  EXPECT_EQ("a", FWFileName::SlashStrip("a/"));
  EXPECT_EQ("a/", FWFileName::SlashStrip("a//"));
  EXPECT_EQ("a/b", FWFileName::SlashStrip("a/b"));
}

TEST_F(FWFileTest, ComparePathMarksSlashesAndFileNames) {
  EXPECT_EQ(std::string("a\x01"
                        "b\x01",
                        4),
            FWFileName::GetComparePath("a/b/"));
  EXPECT_EQ(std::string("a\x01\x7F"
                        "c.log"),
            FWFileName::GetComparePath("a/c.log"));
  EXPECT_EQ(std::string("\x7F"
                        "c.log"),
            FWFileName::GetComparePath("c.log"));
  EXPECT_EQ(std::string("\x01\x7F"
                        "c"),
            FWFileName::GetComparePath("/c"));
  EXPECT_EQ(std::string("\x7F"), FWFileName::GetComparePath(""));
}

TEST_F(FWFileTest, SortingByComparePathListsSubdirectoriesBeforeFiles) {
  std::vector<std::string> paths = {"z.log",     "a/",      "a/y.log", "b.log", "a/b/",
                                    "a/b/x.log", "a/0.log", "A.log",   "c/",    "a/b/c/"};
  std::sort(paths.begin(), paths.end(), [](const std::string& l, const std::string& r) {
    return FWFileName::GetComparePath(l) < FWFileName::GetComparePath(r);
  });
  const std::vector<std::string> expected = {"a/",      "a/b/", "a/b/c/", "a/b/x.log", "a/0.log",
                                             "a/y.log", "c/",   "A.log",  "b.log",     "z.log"};
  EXPECT_EQ(expected, paths);
}

TEST_F(FWFileTest, DirectoryListsEveryEntryIncludingDotAndDotDot) {
  testutil::WriteFile(temp_.File("a.log"), "x");
  testutil::WriteFile(temp_.File("b"), "");
  MakeDir("sub");
  FWDirectory dir;
  dir.Open(temp_.Path());
  const std::multiset<std::string> expected = {".", "..", "a.log", "b", "sub"};
  EXPECT_EQ(expected, ReadAll(dir));
  EXPECT_EQ("", dir.NextName());
  EXPECT_EQ("", dir.NextName());
}

TEST_F(FWFileTest, OpenAgainRestartsAndCloseEndsTheListing) {
  testutil::WriteFile(temp_.File("only"), "");
  FWDirectory dir;
  EXPECT_EQ("", dir.NextName());
  dir.Open(temp_.Path() + "/");
  EXPECT_EQ(3u, ReadAll(dir).size());
  dir.Open(temp_.Path());
  const std::multiset<std::string> expected = {".", "..", "only"};
  EXPECT_EQ(expected, ReadAll(dir));
  dir.Open(temp_.Path());
  dir.Close();
  dir.Close();
  EXPECT_EQ("", dir.NextName());
}

// Failures of Open carry the system's own text.
TEST_F(FWFileTest, OpenOfMissingDirectoryThrowsSystemText) {
  std::string source;
  EXPECT_EQ("No such file or directory, please report this error to the software vendor",
            OpenFailure(temp_.File("missing"), &source));
  EXPECT_EQ("FWFile", source);
  EXPECT_EQ("No such file or directory, please report this error to the software vendor",
            OpenFailure(""));
}

TEST_F(FWFileTest, OpenOfPathUnderRegularFileThrowsNotADirectory) {
  testutil::WriteFile(temp_.File("plain"), "x");
  EXPECT_EQ("Not a directory, please report this error to the software vendor",
            OpenFailure(temp_.File("plain")));
  EXPECT_EQ("Not a directory, please report this error to the software vendor",
            OpenFailure(temp_.File("plain/below")));
}

TEST_F(FWFileTest, FailedOpenLeavesNoStreamOpen) {
  FWDirectory dir;
  dir.Open(temp_.Path());
  EXPECT_THROW(dir.Open(temp_.File("missing")), FWESystemException);
  EXPECT_EQ("", dir.NextName());
}

TEST_F(FWFileTest, ErrorMessageIsTheSystemText) {
  EXPECT_EQ("No such file or directory", GetErrorMessage(ENOENT));
  EXPECT_EQ("Not a directory", GetErrorMessage(ENOTDIR));
  EXPECT_EQ("Success", GetErrorMessage(0));
  EXPECT_EQ("Unknown error 99999", GetErrorMessage(99999));
}

TEST_F(FWFileTest, DeleteDirRemovesTheWholeTree) {
  MakeDir("tree");
  MakeDir("tree/inner");
  testutil::WriteFile(temp_.File("tree/inner/x.log"), "x");
  testutil::WriteFile(temp_.File("keep"), "k");
  EXPECT_TRUE(DeleteDir(temp_.File("tree").c_str()));
  EXPECT_FALSE(testutil::FileExists(temp_.File("tree")));
  EXPECT_TRUE(testutil::FileExists(temp_.File("keep")));
  EXPECT_FALSE(DeleteDir(nullptr));
}

}  // namespace
