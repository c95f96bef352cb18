#include "FWStringUtils.h"

#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <optional>
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
// 2005-05-03 14:07:09 EDT.
constexpr std::time_t kMay3rd2005NewYork = 1115143629;
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* kFormat = "%Y-%m-%d %H:%M %O";

// Sets an environment variable (TZ by default) for the life of the object, then restores it.
class ScopedEnv {
 public:
  explicit ScopedEnv(const char* value, const char* name = "TZ") : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value, 1);
    tzset();
  }
  ~ScopedEnv() {
    old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_);
    tzset();
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

class FWStringUtilsTest : public ::testing::Test {
 protected:
  // The raw text of the exception that call throws, or "" when it throws none.
  static std::string Error(const std::function<void()>& call) {
    try {
      call();
    } catch (const FWException& e) {
      EXPECT_EQ("FWStringUtils.cpp", e.GetSource());
      return e.GetNotification().GetRawText();
    }
    return "";
  }
  std::string LoadError(const std::string& path, std::size_t max_size) {
    return Error([&] { FWStringUtils::LoadFromFile(text_, path, max_size); });
  }
  static std::string SaveError(const std::string& text, const std::string& path) {
    return Error([&] { FWStringUtils::SaveToFile(text, path); });
  }
  std::time_t Time(const std::string& text, const char* order = "mdy", bool utc = false) const {
    return utils_.Str2Time(text, order, utc);
  }
  // Time2Str in the given zone.
  std::string TimeIn(const char* zone, std::time_t time, const std::string& format = kFormat,
                     bool utc = false) const {
    const ScopedEnv scoped(zone);
    return utils_.Time2Str(time, format, utc);
  }
  // "count:result" of ReplaceAll on text.
  static std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    const int count = FWStringUtils::ReplaceAll(text, from, to);
    return std::to_string(count) + ":" + text;
  }
  // For each text, "1" when pattern matches it and "0" when not.
  static std::string Matches(const std::string& pattern, const std::vector<std::string>& texts) {
    std::string bits;
    for (const std::string& text : texts) bits += FWStringUtils::Match(pattern, text) ? "1" : "0";
    return bits;
  }

  const FWStringUtils& utils_ = FWStringUtils::GetDefaultInstance();
  testutil::TempDir dir_;
  std::string text_;
};

TEST_F(FWStringUtilsTest, PrintfCutsResultAt3998CharactersAndScanfCountsFields) {
  EXPECT_EQ("7-ab", FWStringUtils::Printf("%d-%s", 7, "ab"));
  const std::string fits(3998, 'x');
  for (std::size_t size : {3998, 3999, 5000}) {
    EXPECT_EQ(fits, FWStringUtils::Printf("%s", std::string(size, 'x').c_str())) << size;
  }
  int number = 0;
  char word[3] = {};
  EXPECT_EQ(2, FWStringUtils::Scanf("12 abc", "%d %2s", &number, word));
  EXPECT_EQ(12, number);
  EXPECT_STREQ("ab", word);
  EXPECT_EQ(0, FWStringUtils::Scanf("x", "%d", &number));
}

// TrimLeft strips the end and TrimRight the start; quotes are touched only at the outside.
TEST_F(FWStringUtilsTest, TrimmingAndQuotingFollowTheirOwnNaming) {
  EXPECT_EQ("  a", FWStringUtils::TrimLeft("  a  "));
  EXPECT_EQ("a  ", FWStringUtils::TrimRight("  a  "));
  EXPECT_EQ("a", FWStringUtils::TrimRight(FWStringUtils::TrimLeft(" \t\r\na \n")));
  EXPECT_EQ("", FWStringUtils::TrimLeft(" \t "));
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
  EXPECT_EQ("3:aaaaaa", Replaced("aaa", "a", "aa"));
  EXPECT_EQ("2:abc", Replaced("a-b-c", "-", ""));
  EXPECT_EQ("0:abc", Replaced("abc", "", "x"));
}

TEST_F(FWStringUtilsTest, LineEndConversionsSplittingAndListItems) {
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
  const std::string list = "  a\tbb  ";
  std::size_t pos = 0;
  for (const std::string expected : {"a@3", "bb@6", "@8"}) {
    const std::string item = FWStringUtils::GetListItem(list, pos);
    EXPECT_EQ(expected, item + "@" + std::to_string(pos));
  }
}

TEST_F(FWStringUtilsTest, MatchIsWholeTextCaseSensitiveAndBacktracksOverStars) {
  EXPECT_EQ("100", Matches("*.log", {"x.log", "x.LOG", "x.log.1"}));
  EXPECT_EQ("110", Matches("a?c", {"abc", "a*c", "ac"}));
  EXPECT_EQ("1", Matches("*", {""}));
  EXPECT_EQ("1", Matches("**", {""}));
  EXPECT_EQ("0", Matches("", {"a"}));
  EXPECT_EQ("0", Matches("*?", {""}));
  EXPECT_EQ("1", Matches("*a*b*c", {"xxaxxbxxc"}));
  EXPECT_EQ("1", Matches("*ab", {"aab"}));
  EXPECT_EQ("10", Matches("a*b*c", {"abbcbc", "acb"}));
  EXPECT_EQ("1", Matches("*x*?y", {"xxzy"}));
  EXPECT_EQ("0", Matches("*a*a*a*b", {std::string(40, 'a')}));
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

TEST_F(FWStringUtilsTest, CaseTablesUpperReturnsLowerAndBadLocaleFallsBackToClassic) {
  EXPECT_EQ("abc", utils_.Lower("aBc"));
  EXPECT_EQ(utils_.Lower("aBc"), utils_.Upper("aBc"));
  EXPECT_EQ('A', utils_.ToUpper('a'));
  EXPECT_EQ('1', utils_.ToUpper('1'));
  const FWStringUtils classic(std::locale::classic());
  EXPECT_EQ('\xe9', classic.ToUpper('\xe9'));
  EXPECT_EQ("x\xc9y", classic.Lower("X\xc9Y"));
  const ScopedEnv locale("xx_XX.NoSuchCharset", "LC_ALL");
  std::string upper;
  EXPECT_NO_THROW(upper = std::string(1, FWStringUtils().ToUpper('q')));
  EXPECT_EQ("Q", upper);
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
  // Int642Str is 64 wide and shows only the low 32 bits.
  EXPECT_EQ(std::string(63, ' ') + "5", utils_.Int642Str(5));
  EXPECT_EQ(std::string(63, ' ') + "5", utils_.Int642Str(0x100000005LL));
  EXPECT_EQ(std::string(62, ' ') + "-1", utils_.Int642Str(0xFFFFFFFFLL));
  EXPECT_EQ(std::string(62, ' ') + "-1", utils_.Int642Str(-1));
}

// --- Time texts ---

TEST_F(FWStringUtilsTest, Time2StrWritesZoneOffsetAndNothingForUnbreakableTime) {
  EXPECT_EQ("2005-05-03 12:07 +0000", TimeIn("UTC0", kMay3rd2005));
  EXPECT_EQ("2005-05-03 08:07 -0400", TimeIn(kNewYork, kMay3rd2005));
  EXPECT_EQ("2005-01-15 07:00 -0500", TimeIn(kNewYork, kJan15th2005));
  EXPECT_EQ("2005-05-03 12:07 +0000 +0000",
            TimeIn(kNewYork, kMay3rd2005, kFormat + std::string(" %O"), true));
  EXPECT_EQ("2005-05-03 14:07 +0200", TimeIn(kBerlin, kMay3rd2005));
  EXPECT_EQ("2005-01-15 13:00 +0100", TimeIn(kBerlin, kJan15th2005));
  EXPECT_EQ("2005-01-15 08:30 -0330", TimeIn("NST3:30NDT,M3.2.0,M11.1.0", kJan15th2005));
  EXPECT_EQ("May 03, 2005, 12:07:09", utils_.Time2Str(kMay3rd2005, utils_.GetTimeFormat(), true));
  EXPECT_EQ("", utils_.Time2Str(std::numeric_limits<std::time_t>::max(), "%Y", true));
}

TEST_F(FWStringUtilsTest, Str2TimeReadsCommonLayouts) {
  const ScopedEnv zone(kNewYork);
  EXPECT_EQ("mdy", utils_.GetDateOrder());
  EXPECT_EQ(kMay3rd2005NewYork, Time("May 03, 2005, 14:07:09"));
  EXPECT_EQ(kMay3rd2005NewYork, Time("05/03/2005 2:07:09 pm"));
  EXPECT_EQ(kMay3rd2005NewYork, Time("05/03/05 14:07:09", "MDY"));
  EXPECT_EQ(kMay3rd2005NewYork, Time("03.05.2005 14:07:09", "dmy"));
  EXPECT_EQ(kMay3rd2005NewYork - 4 * 3600, Time("May 03, 2005, 14:07:09", "mdy", true));
  // A "p" anywhere in the text marks the afternoon, even one in "Sep".
  EXPECT_EQ(Time("09/03/2005 14:07:09"), Time("Sep 03, 2005, 2:07:09 am"));
  EXPECT_EQ(Time("05/03/2005 12:00"), Time("05/03/2005 12:00 pm"));
  // Compact stamps are read only when the year comes first.
  const std::time_t midnight = kMay3rd2005NewYork - 14 * 3600 - 7 * 60 - 9;
  EXPECT_EQ(kMay3rd2005NewYork, Time("20050503140709", "ymd"));
  EXPECT_EQ(kMay3rd2005NewYork, Time("050503140709", "ymd"));
  EXPECT_EQ(midnight, Time("20050503", "ymd"));
  EXPECT_EQ(midnight, Time("050503", "ymd"));
  EXPECT_NE(kMay3rd2005NewYork, Time("20050503140709", "mdy"));
}

TEST_F(FWStringUtilsTest, Str2TimePivotsTwoDigitYearsAt37AndPassesOverWeekdayName) {
  EXPECT_EQ(Time("05/03/2037", "mdy", true), Time("05/03/37", "mdy", true));
  EXPECT_EQ(Time("05/03/1938", "mdy", true), Time("05/03/38", "mdy", true));
  EXPECT_EQ(Time("05/03/2005", "mdy", true), Time("05/03/5", "mdy", true));
  const ScopedEnv zone("UTC0");
  EXPECT_EQ(1115129229, Time("Tue 05/03/2005 14:07:09"));
  // The word is passed over with the cursor on the month, so "03" becomes the month and the
  // year's "20" the day: 20 March 2005.
  EXPECT_EQ(1111327629, Time("Tue, 03 May 2005 14:07:09"));
}

// --- Whole-file load and save ---

TEST_F(FWStringUtilsTest, LoadFromFileAcceptsExactlyMaxSize) {
  // 250000 bytes span read chunks of 100000, with markers on both sides of the first boundary.
  std::string content(250000, 'x');
  content[99999] = 'a';
  content[100000] = 'b';
  for (const std::string& data : {content, std::string(100000, 'y')}) {
    const std::string path = dir_.File(std::to_string(data.size()));
    testutil::WriteFile(path, data);
    FWStringUtils::LoadFromFile(text_, path, data.size());
    EXPECT_EQ(data, text_);
    EXPECT_EQ("Size exceeded (" + path + ")", LoadError(path, data.size() - 1));
  }
}

TEST_F(FWStringUtilsTest, LoadFromFileFailuresNameFileAndReasonAndEmptyTheText) {
  const std::string missing = dir_.File("missing.txt");
  const std::string plain = dir_.File("plain");
  testutil::WriteFile(plain, "x");
  EXPECT_EQ("Cannot open file " + plain + "/f mode=read (Not a directory)",
            LoadError(plain + "/f", 100));
  EXPECT_EQ("read operation failed (Is a directory)", LoadError(dir_.Path(), 100));
  text_ = "old";
  EXPECT_EQ("Cannot open file " + missing + " mode=read (No such file or directory)",
            LoadError(missing, 100));
  EXPECT_EQ("", text_);
  EXPECT_THROW(FWStringUtils::LoadFromFile(text_, missing, 100), FWECantOpen);
}

TEST_F(FWStringUtilsTest, SaveToFileReplacesContentOrNamesFileAndReason) {
  const std::string path = dir_.File("out.txt");
  testutil::WriteFile(path, "a much longer old content");
  FWStringUtils::SaveToFile(std::string("new\0x", 5), path);
  EXPECT_EQ(std::string("new\0x", 5), testutil::ReadFile(path));
  EXPECT_EQ("Cannot open file " + path + "/f mode=write (Not a directory)",
            SaveError("x", path + "/f"));
  EXPECT_EQ("Cannot open file " + dir_.Path() + " mode=write (Is a directory)",
            SaveError("x", dir_.Path()));
  EXPECT_EQ("write operation failed (No space left on device)",
            SaveError(std::string(1 << 20, 'x'), "/dev/full"));
  EXPECT_EQ("write operation failed (No space left on device)", SaveError("x", "/dev/full"));
}

TEST(FWMIMEParserTest, MIMETimeIsLocalWithNumericOffset) {
  {
    const ScopedEnv zone(kBerlin);
    EXPECT_EQ("Tue, 03 May 2005 14:07:09 +0200", FWMIMEParser::MIMETime(kMay3rd2005));
  }
  const ScopedEnv zone(kNewYork);
  EXPECT_EQ("Sat, 15 Jan 2005 07:00:00 -0500", FWMIMEParser::MIMETime(kJan15th2005));
  const std::time_t before = std::time(nullptr);
  const std::string now = FWMIMEParser::MIMETime();
  const std::time_t after = std::time(nullptr);
  EXPECT_TRUE(now == FWMIMEParser::MIMETime(before) || now == FWMIMEParser::MIMETime(after)) << now;
}

}  // namespace
