#include "FWStringUtils.h"

#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "FWMIMEParser.h"
#include "TestUtil.h"

namespace {

// 2005-05-03 12:07:09 UTC: 14:07:09 in Berlin summer time.
constexpr std::time_t kMay3rd2005 = 1115122029;
// 2005-01-15 12:00:00 UTC, a winter moment.
constexpr std::time_t kJan15th2005 = 1105790400;
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

// Sets TZ for the life of the object and restores the previous value (or its absence).
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    const char* old = std::getenv("TZ");
    had_old_ = old != nullptr;
    if (had_old_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (had_old_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  bool had_old_ = false;
  std::string old_;
};

class FWStringUtilsTest : public ::testing::Test {
 protected:
  const FWStringUtils& utils_ = FWStringUtils::GetDefaultInstance();
  testutil::TempDir dir_;

  // The raw text of the exception that Load throws, or "" when it throws none.
  std::string LoadError(const std::string& path, std::size_t max_size) {
    std::string text;
    try {
      FWStringUtils::LoadFromFile(text, path, max_size);
    } catch (const FWException& e) {
      EXPECT_EQ("FWStringUtils.cpp", e.GetSource());
      return e.GetNotification().GetRawText();
    }
    return "";
  }

  std::string SaveError(const std::string& text, const std::string& path) {
    try {
      FWStringUtils::SaveToFile(text, path);
    } catch (const FWException& e) {
      EXPECT_EQ("FWStringUtils.cpp", e.GetSource());
      return e.GetNotification().GetRawText();
    }
    return "";
  }
};

TEST_F(FWStringUtilsTest, PrintfCutsResultAt3998Characters) {
  EXPECT_EQ("7-ab", FWStringUtils::Printf("%d-%s", 7, "ab"));
  const std::string fits(3998, 'x');
  EXPECT_EQ(fits, FWStringUtils::Printf("%s", fits.c_str()));
  EXPECT_EQ(fits, FWStringUtils::Printf("%s", std::string(3999, 'x').c_str()));
  EXPECT_EQ(fits, FWStringUtils::Printf("%s", std::string(5000, 'x').c_str()));
}

TEST_F(FWStringUtilsTest, ScanfReturnsFieldsRead) {
  int number = 0;
  char word[3] = {};
  EXPECT_EQ(2, FWStringUtils::Scanf("12 abc", "%d %2s", &number, word));
  EXPECT_EQ(12, number);
  EXPECT_STREQ("ab", word);
  EXPECT_EQ(0, FWStringUtils::Scanf("x", "%d", &number));
}

TEST_F(FWStringUtilsTest, TrimLeftStripsEndAndTrimRightStripsStart) {
  EXPECT_EQ("  a", FWStringUtils::TrimLeft("  a  "));
  EXPECT_EQ("a  ", FWStringUtils::TrimRight("  a  "));
  EXPECT_EQ("a", FWStringUtils::TrimRight(FWStringUtils::TrimLeft(" \t\r\na \n")));
  EXPECT_EQ("", FWStringUtils::TrimLeft(" \t "));
}

TEST_F(FWStringUtilsTest, QuoteAndUnquoteTouchOnlyTheOuterQuotes) {
  EXPECT_EQ("\"x", FWStringUtils::Quote("\"x"));
  EXPECT_EQ("\"\"", FWStringUtils::Quote(""));
  EXPECT_EQ("\"a\"b\"", FWStringUtils::Quote("a\"b"));
  EXPECT_EQ("x", FWStringUtils::Unquote("\"x\""));
  EXPECT_EQ("", FWStringUtils::Unquote("\"\""));
  EXPECT_EQ("\"", FWStringUtils::Unquote("\""));
  EXPECT_EQ("\"x", FWStringUtils::Unquote("\"x"));
  EXPECT_EQ("a\\\"b", FWStringUtils::Unquote("\"a\\\"b\""));
}

TEST_F(FWStringUtilsTest, ReplaceAllNeverRescansInsertedText) {
  std::string s = "aaa";
  EXPECT_EQ(3, FWStringUtils::ReplaceAll(s, "a", "aa"));
  EXPECT_EQ("aaaaaa", s);
  s = "a-b-c";
  EXPECT_EQ(2, FWStringUtils::ReplaceAll(s, "-", ""));
  EXPECT_EQ("abc", s);
  EXPECT_EQ(0, FWStringUtils::ReplaceAll(s, "", "x"));
  EXPECT_EQ("abc", s);
}

TEST_F(FWStringUtilsTest, LineEndConversionsAndSplitting) {
  EXPECT_EQ("a\r\nb\r\nc", FWStringUtils::Convert2Dos("a\r\nb\nc"));
  EXPECT_EQ("\nx\r\n", FWStringUtils::Convert2Dos("\nx\n"));
  EXPECT_EQ("a\nb\rc\n", FWStringUtils::Convert2Unix("a\r\nb\rc\r\n"));

  std::vector<std::string> lines = {"stale"};
  FWStringUtils::Str2Lines("a\r\n\nb\n", lines);
  EXPECT_EQ((std::vector<std::string>{"a", "", "b"}), lines);
  FWStringUtils::Str2Lines("x", lines);
  EXPECT_EQ((std::vector<std::string>{"x"}), lines);
  FWStringUtils::Str2Lines("", lines);
  EXPECT_TRUE(lines.empty());

  std::string joined = ">";
  FWStringUtils::Lines2Str({"a", ""}, joined);
  EXPECT_EQ(">a\n\n", joined);
  EXPECT_EQ("> a\n> b\n> ", FWStringUtils::LinePrefix("a\nb\n", "> "));
  EXPECT_EQ("> ", FWStringUtils::LinePrefix("", "> "));
}

TEST_F(FWStringUtilsTest, GetListItemWalksWhiteSpaceSeparatedItems) {
  const std::string list = "  a\tbb  ";
  std::size_t pos = 0;
  EXPECT_EQ("a", FWStringUtils::GetListItem(list, pos));
  EXPECT_EQ(3u, pos);
  EXPECT_EQ("bb", FWStringUtils::GetListItem(list, pos));
  EXPECT_EQ(6u, pos);
  EXPECT_EQ("", FWStringUtils::GetListItem(list, pos));
  EXPECT_EQ(list.size(), pos);
}

TEST_F(FWStringUtilsTest, MatchIsWholeTextAndCaseSensitive) {
  EXPECT_TRUE(FWStringUtils::Match("*.log", "x.log"));
  EXPECT_FALSE(FWStringUtils::Match("*.log", "x.LOG"));
  EXPECT_FALSE(FWStringUtils::Match("*.log", "x.log.1"));
  EXPECT_TRUE(FWStringUtils::Match("a?c", "abc"));
  EXPECT_TRUE(FWStringUtils::Match("a?c", "a*c"));
  EXPECT_FALSE(FWStringUtils::Match("a?c", "ac"));
  EXPECT_TRUE(FWStringUtils::Match("*", ""));
  EXPECT_TRUE(FWStringUtils::Match("**", ""));
  EXPECT_FALSE(FWStringUtils::Match("", "a"));
  EXPECT_FALSE(FWStringUtils::Match("*?", ""));
}

TEST_F(FWStringUtilsTest, MatchWithSeveralStarsBacktracks) {
  EXPECT_TRUE(FWStringUtils::Match("*a*b*c", "xxaxxbxxc"));
  EXPECT_TRUE(FWStringUtils::Match("*ab", "aab"));
  EXPECT_TRUE(FWStringUtils::Match("a*b*c", "abbcbc"));
  EXPECT_FALSE(FWStringUtils::Match("a*b*c", "acb"));
  EXPECT_TRUE(FWStringUtils::Match("*x*?y", "xxzy"));
  EXPECT_FALSE(FWStringUtils::Match("*a*a*a*b", std::string(40, 'a')));
}

TEST_F(FWStringUtilsTest, MatchListStopsAtFirstMatch) {
  EXPECT_TRUE(FWStringUtils::MatchList("*.log *.txt", "a.txt"));
  EXPECT_TRUE(FWStringUtils::MatchList("  *.log\t", "a.log"));
  EXPECT_FALSE(FWStringUtils::MatchList("*.log *.txt", "a.csv"));
  EXPECT_FALSE(FWStringUtils::MatchList("", "a"));
  EXPECT_FALSE(FWStringUtils::MatchList("   ", ""));
}

TEST_F(FWStringUtilsTest, HTTPEscapeSignExtendsHighBytes) {
  EXPECT_EQ("a%20b%2fZ9", FWStringUtils::HTTPEscape("a b/Z9", false));
  EXPECT_EQ("a+b%2f", FWStringUtils::HTTPEscape("a b/", true));
  EXPECT_EQ("%ffffff80%ffffffff%7f", FWStringUtils::HTTPEscape("\x80\xff\x7f", true));
}

TEST_F(FWStringUtilsTest, CaseTablesUpperReturnsLower) {
  EXPECT_EQ("abc", utils_.Lower("aBc"));
  EXPECT_EQ(utils_.Lower("aBc"), utils_.Upper("aBc"));
  EXPECT_EQ('A', utils_.ToUpper('a'));
  EXPECT_EQ('1', utils_.ToUpper('1'));
  const FWStringUtils classic(std::locale::classic());
  EXPECT_EQ('\xe9', classic.ToUpper('\xe9'));
  EXPECT_EQ("x\xc9y", classic.Lower("X\xc9Y"));
}

TEST_F(FWStringUtilsTest, MissingProcessLocaleFallsBackToClassic) {
  const char* old = std::getenv("LC_ALL");
  const std::string saved = old != nullptr ? old : "";
  setenv("LC_ALL", "xx_XX.NoSuchCharset", 1);
  std::string upper;
  EXPECT_NO_THROW(upper = std::string(1, FWStringUtils().ToUpper('q')));
  EXPECT_EQ("Q", upper);
  if (old != nullptr) {
    setenv("LC_ALL", saved.c_str(), 1);
  } else {
    unsetenv("LC_ALL");
  }
}

TEST_F(FWStringUtilsTest, ValueConversions) {
  EXPECT_EQ("true", utils_.Bool2Str(true));
  EXPECT_EQ("false", utils_.Bool2Str(false));
  for (const char* yes : {"yes", "1", "True", "t", "Y"}) EXPECT_TRUE(utils_.Str2Bool(yes)) << yes;
  for (const char* no : {" true", "", "false", "no", "0"}) EXPECT_FALSE(utils_.Str2Bool(no)) << no;
  EXPECT_EQ("-42", utils_.Int2Str(-42));
  EXPECT_EQ(12, utils_.Str2Int("12abc"));
  EXPECT_EQ(0, utils_.Str2Int("abc"));
  EXPECT_EQ(9000000000LL, utils_.Str2Int64("9000000000"));
  EXPECT_EQ("1.500000", utils_.Double2Str(1.5));
  EXPECT_DOUBLE_EQ(2.25, utils_.Str2Double("2.25x"));
}

TEST_F(FWStringUtilsTest, Int642StrIsSixtyFourWideWithLow32Bits) {
  EXPECT_EQ(std::string(63, ' ') + "5", utils_.Int642Str(5));
  EXPECT_EQ(std::string(63, ' ') + "5", utils_.Int642Str(0x100000005LL));
  EXPECT_EQ(std::string(62, ' ') + "-1", utils_.Int642Str(0xFFFFFFFFLL));
  EXPECT_EQ(std::string(62, ' ') + "-1", utils_.Int642Str(-1));
}

// --- Time texts ---

TEST_F(FWStringUtilsTest, Time2StrWritesZoneOffset) {
  const std::string format = "%Y-%m-%d %H:%M %O";
  {
    const ScopedTimeZone zone("UTC0");
    EXPECT_EQ("2005-05-03 12:07 +0000", utils_.Time2Str(kMay3rd2005, format, false));
  }
  {
    const ScopedTimeZone zone(kNewYork);
    EXPECT_EQ("2005-05-03 08:07 -0400", utils_.Time2Str(kMay3rd2005, format, false));
    EXPECT_EQ("2005-01-15 07:00 -0500", utils_.Time2Str(kJan15th2005, format, false));
    EXPECT_EQ("2005-05-03 12:07 +0000 +0000", utils_.Time2Str(kMay3rd2005, format + " %O", true));
  }
  {
    const ScopedTimeZone zone(kBerlin);
    EXPECT_EQ("2005-05-03 14:07 +0200", utils_.Time2Str(kMay3rd2005, format, false));
    EXPECT_EQ("2005-01-15 13:00 +0100", utils_.Time2Str(kJan15th2005, format, false));
  }
  {
    const ScopedTimeZone zone("NST3:30NDT,M3.2.0,M11.1.0");
    EXPECT_EQ("2005-01-15 08:30 -0330", utils_.Time2Str(kJan15th2005, format, false));
  }
}

TEST_F(FWStringUtilsTest, Time2StrOfUnbreakableTimeIsEmpty) {
  EXPECT_EQ("May 03, 2005, 12:07:09", utils_.Time2Str(kMay3rd2005, utils_.GetTimeFormat(), true));
  EXPECT_EQ("", utils_.Time2Str(std::numeric_limits<std::time_t>::max(), "%Y", true));
}

TEST_F(FWStringUtilsTest, Str2TimeReadsCommonLayouts) {
  const ScopedTimeZone zone(kNewYork);
  const std::time_t expected = 1115143629;  // 2005-05-03 14:07:09 EDT
  EXPECT_EQ("mdy", utils_.GetDateOrder());
  EXPECT_EQ(expected, utils_.Str2Time("May 03, 2005, 14:07:09", "mdy", false));
  EXPECT_EQ(expected, utils_.Str2Time("05/03/2005 2:07:09 pm", "mdy", false));
  EXPECT_EQ(expected, utils_.Str2Time("05/03/05 14:07:09", "MDY", false));
  EXPECT_EQ(expected, utils_.Str2Time("03.05.2005 14:07:09", "dmy", false));
  EXPECT_EQ(expected - 4 * 3600, utils_.Str2Time("May 03, 2005, 14:07:09", "mdy", true));
  // A "p" anywhere in the text marks the afternoon, even one in "Sep".
  EXPECT_EQ(utils_.Str2Time("09/03/2005 14:07:09", "mdy", false),
            utils_.Str2Time("Sep 03, 2005, 2:07:09 am", "mdy", false));
  EXPECT_EQ(utils_.Str2Time("05/03/2005 12:00", "mdy", false),
            utils_.Str2Time("05/03/2005 12:00 pm", "mdy", false));
}

TEST_F(FWStringUtilsTest, Str2TimeReadsCompactStampsOnlyWhenYearComesFirst) {
  const ScopedTimeZone zone(kNewYork);
  const std::time_t expected = 1115143629;
  EXPECT_EQ(expected, utils_.Str2Time("20050503140709", "ymd", false));
  EXPECT_EQ(expected, utils_.Str2Time("050503140709", "ymd", false));
  EXPECT_EQ(expected - 14 * 3600 - 7 * 60 - 9, utils_.Str2Time("20050503", "ymd", false));
  EXPECT_EQ(expected - 14 * 3600 - 7 * 60 - 9, utils_.Str2Time("050503", "ymd", false));
  EXPECT_NE(expected, utils_.Str2Time("20050503140709", "mdy", false));
}

TEST_F(FWStringUtilsTest, Str2TimeTwoDigitYearsPivotAt37) {
  EXPECT_EQ(utils_.Str2Time("05/03/2037", "mdy", true), utils_.Str2Time("05/03/37", "mdy", true));
  EXPECT_EQ(utils_.Str2Time("05/03/1938", "mdy", true), utils_.Str2Time("05/03/38", "mdy", true));
  EXPECT_EQ(utils_.Str2Time("05/03/2005", "mdy", true), utils_.Str2Time("05/03/5", "mdy", true));
}

TEST_F(FWStringUtilsTest, Str2TimePassesOverLeadingWeekdayName) {
  const ScopedTimeZone zone("UTC0");
  EXPECT_EQ(1115129229, utils_.Str2Time("Tue 05/03/2005 14:07:09", "mdy", false));
  // The word is passed over with the cursor on the month, so "03" becomes the month and the
  // year's "20" the day: 20 March 2005.
  EXPECT_EQ(1111327629, utils_.Str2Time("Tue, 03 May 2005 14:07:09", "mdy", false));
}

// --- Whole-file load and save ---

TEST_F(FWStringUtilsTest, LoadFromFileAcceptsExactlyMaxSize) {
  const std::string path = dir_.File("big.txt");
  std::string content(250000, 'x');
  content[99999] = 'a';
  content[100000] = 'b';
  testutil::WriteFile(path, content);
  std::string text;
  FWStringUtils::LoadFromFile(text, path, content.size());
  EXPECT_EQ(content, text);
  EXPECT_EQ("Size exceeded (" + path + ")", LoadError(path, content.size() - 1));

  const std::string chunk_path = dir_.File("chunk.txt");
  testutil::WriteFile(chunk_path, std::string(100000, 'y'));
  FWStringUtils::LoadFromFile(text, chunk_path, 100000);
  EXPECT_EQ(std::string(100000, 'y'), text);
  EXPECT_EQ("Size exceeded (" + chunk_path + ")", LoadError(chunk_path, 99999));
}

TEST_F(FWStringUtilsTest, LoadFromFileFailuresNameFileAndReason) {
  const std::string missing = dir_.File("missing.txt");
  EXPECT_EQ("Cannot open file " + missing + " mode=read (No such file or directory)",
            LoadError(missing, 100));
  const std::string plain = dir_.File("plain");
  testutil::WriteFile(plain, "x");
  EXPECT_EQ("Cannot open file " + plain + "/f mode=read (Not a directory)",
            LoadError(plain + "/f", 100));
  EXPECT_EQ("read operation failed (Is a directory)", LoadError(dir_.Path(), 100));
  std::string text = "old";
  EXPECT_THROW(FWStringUtils::LoadFromFile(text, missing, 100), FWECantOpen);
  EXPECT_EQ("", text);
}

TEST_F(FWStringUtilsTest, SaveToFileReplacesContent) {
  const std::string path = dir_.File("out.txt");
  testutil::WriteFile(path, "a much longer old content");
  FWStringUtils::SaveToFile(std::string("new\0x", 5), path);
  EXPECT_EQ(std::string("new\0x", 5), testutil::ReadFile(path));
}

TEST_F(FWStringUtilsTest, SaveToFileFailuresNameFileAndReason) {
  const std::string plain = dir_.File("plain");
  testutil::WriteFile(plain, "x");
  EXPECT_EQ("Cannot open file " + plain + "/f mode=write (Not a directory)",
            SaveError("x", plain + "/f"));
  EXPECT_EQ("Cannot open file " + dir_.Path() + " mode=write (Is a directory)",
            SaveError("x", dir_.Path()));
  EXPECT_EQ("write operation failed (No space left on device)",
            SaveError(std::string(1 << 20, 'x'), "/dev/full"));
  EXPECT_EQ("write operation failed (No space left on device)", SaveError("x", "/dev/full"));
}

TEST(FWMIMEParserTest, MIMETimeIsLocalWithNumericOffset) {
  {
    const ScopedTimeZone zone(kBerlin);
    EXPECT_EQ("Tue, 03 May 2005 14:07:09 +0200", FWMIMEParser::MIMETime(kMay3rd2005));
  }
  const ScopedTimeZone zone(kNewYork);
  EXPECT_EQ("Sat, 15 Jan 2005 07:00:00 -0500", FWMIMEParser::MIMETime(kJan15th2005));
  const std::time_t before = std::time(nullptr);
  const std::string now = FWMIMEParser::MIMETime();
  const std::time_t after = std::time(nullptr);
  EXPECT_TRUE(now == FWMIMEParser::MIMETime(before) || now == FWMIMEParser::MIMETime(after)) << now;
}

}  // namespace
