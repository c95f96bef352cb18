#include "FWLogStream.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "FWPublishSubscribe.h"
#include "TestUtil.h"

namespace {

// 3 May 2005, 14:07:09 UTC: the stamp of every entry below while TZ is UTC.
constexpr std::time_t kT0 = 1115129229;
constexpr std::time_t kDay = 86400;
const char kStamp[] = "May 03, 2005, 14:07:09 ";

class FWLogStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = getenv("TZ");
    saved_tz_ = tz ? tz : "";
    had_tz_ = tz != nullptr;
    setenv("TZ", "UTC0", 1);
    tzset();
    log_.SetClock([this] { return now_; });
  }
  void TearDown() override {
    log_.Close();
    if (had_tz_) {
      setenv("TZ", saved_tz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

  std::string Path() const { return dir_.File("test.log"); }
  std::string Contents() const { return testutil::ReadFile(Path()); }
  std::string Backup() const { return testutil::ReadFile(Path() + "~"); }
  // A file whose first entry was written at t.
  void WriteOldLog(std::time_t t) {
    char stamp[64];
    struct tm fields;
    gmtime_r(&t, &fields);
    std::strftime(stamp, sizeof(stamp), "%b %d, %Y, %H:%M:%S old entry\n", &fields);
    testutil::WriteFile(Path(), stamp);
  }

  testutil::TempDir dir_;
  FWLogStream log_;
  std::time_t now_ = kT0;
  std::string saved_tz_;
  bool had_tz_ = false;
};

}  // namespace

TEST_F(FWLogStreamTest, EntryHasStampSourceAndUpperCasedText) {
  log_.OpenFile(Path(), false);
  ASSERT_TRUE(log_.IsOpen());
  log_.Log("server starting", "");
  log_.Log("disk low", "WARNING: ");
  EXPECT_EQ(Contents(), std::string(kStamp) + "Server starting\n" + kStamp + "WARNING: Disk low\n");
}

TEST_F(FWLogStreamTest, MultiLineTextPrefixesEveryLineAndDropsOneFinalNewline) {
  log_.OpenFile(Path(), false);
  log_.Log("first\r\nsecond\nthird\n", "WARNING: ");
  const std::string p = std::string(kStamp) + "WARNING: ";
  EXPECT_EQ(Contents(), p + "First\n" + p + "second\n" + p + "third\n");
}

TEST_F(FWLogStreamTest, NotificationsAreWrittenWithTheirSeverityWord) {
  log_.OpenFile(Path(), false);
  log_.Log(FWNotification("fatal", 1, 0));
  log_.Log(FWNotification("error", 1, 1));
  log_.Log(FWNotification("warning", 1, 2));
  log_.Log(FWNotification("plain", 1, 3));
  log_.Log(FWNotification("debug", 1, 4));
  log_.Log(FWNotification("trace", 1, 5));
  log_.Log(FWNotification("other", 1, 6));
  const std::string s = kStamp;
  EXPECT_EQ(Contents(), s + "FATAL ERROR: Fatal\n" + s + "ERROR: Error\n" + s +
                            "WARNING: Warning\n" + s + "Plain\n" + s + "DEBUG: Debug\n" + s +
                            "TRACE: Trace\n" + s + "Other\n");
}

TEST_F(FWLogStreamTest, EntryWithoutFileOrBufferIsDropped) {
  log_.Log("nowhere");
  EXPECT_EQ(log_.GetLogBuffer(), "");
  EXPECT_FALSE(log_.IsUpdated());
}

TEST_F(FWLogStreamTest, RotatesOnlyAfterTheEntryThatReachesTheSizeLimit) {
  log_.SetMaxSize(1000);
  log_.OpenFile(Path(), false);
  const std::string text(76, 'x');  // 23 bytes of stamp + 76 + "\n" = 100 bytes an entry
  for (int i = 0; i < 10; ++i) log_.Log(text);
  EXPECT_EQ(Contents().size(), 1000u);
  EXPECT_FALSE(testutil::FileExists(Path() + "~"));
  log_.Log(text);
  EXPECT_EQ(Backup().size(), 1000u);
  EXPECT_EQ(Contents(), std::string(kStamp) + "X" + std::string(75, 'x') + "\n");
  EXPECT_EQ(log_.GetFileSize(), 100);
}

TEST_F(FWLogStreamTest, LogPastTwoGibibytesStillRotatesBySize) {
  // A sparse file just under the largest configurable limit; the next entries cross 2 GiB.
  constexpr int64_t kLimit = 2147483647;
  WriteOldLog(kT0);
  ASSERT_EQ(::truncate(Path().c_str(), kLimit - 50), 0);
  log_.SetMaxSize(kLimit);
  log_.OpenFile(Path(), false);
  const std::string text(76, 'x');  // 100 bytes an entry
  log_.Log(text);
  EXPECT_EQ(log_.GetFileSize(), kLimit + 50);
  EXPECT_FALSE(testutil::FileExists(Path() + "~"));
  log_.Log(text);
  EXPECT_EQ(std::filesystem::file_size(Path() + "~"), static_cast<std::uintmax_t>(kLimit + 50));
  EXPECT_EQ(log_.GetFileSize(), 100);
}

TEST_F(FWLogStreamTest, RotatingTwiceKeepsOnlyTheNewerBackup) {
  log_.OpenFile(Path(), false);
  log_.Log("one");
  log_.OpenFile(Path(), true);
  log_.Log("two");
  log_.OpenFile(Path(), true);
  log_.Log("three");
  EXPECT_EQ(Backup(), std::string(kStamp) + "Two\n");
  EXPECT_EQ(Contents(), std::string(kStamp) + "Three\n");
}

TEST_F(FWLogStreamTest, ExistingFileKeepsGrowingUnderItsLimits) {
  WriteOldLog(kT0 - kDay);
  log_.SetMaxDays(2);
  log_.OpenFile(Path(), false);
  log_.Log("appended");
  EXPECT_FALSE(testutil::FileExists(Path() + "~"));
  EXPECT_EQ(Contents(), "May 02, 2005, 14:07:09 old entry\n" + std::string(kStamp) + "Appended\n");
  EXPECT_EQ(log_.GetFileDay(), FWLogStream::LocalDay(kT0 - kDay));
}

TEST_F(FWLogStreamTest, FileWhoseFirstEntryIsOldEnoughIsRotatedAtOpen) {
  WriteOldLog(kT0 - 3 * kDay);
  log_.SetMaxDays(3);
  log_.OpenFile(Path(), false);
  EXPECT_EQ(Backup(), "Apr 30, 2005, 14:07:09 old entry\n");
  EXPECT_EQ(Contents(), "");
}

TEST_F(FWLogStreamTest, FileStampedInTheFutureIsRotatedEvenWithoutLimits) {
  WriteOldLog(kT0 + kDay);
  log_.OpenFile(Path(), false);
  EXPECT_EQ(Backup(), "May 04, 2005, 14:07:09 old entry\n");
  EXPECT_EQ(Contents(), "");
}

TEST_F(FWLogStreamTest, RunningLogRotatesWhenItsFirstDayIsOldEnough) {
  log_.SetMaxDays(1);
  log_.OpenFile(Path(), false);
  log_.Log("day one");
  now_ = kT0 + kDay;
  log_.Log("day two");
  EXPECT_EQ(Backup(), std::string(kStamp) + "Day one\n");
  EXPECT_EQ(Contents(), "May 04, 2005, 14:07:09 Day two\n");
}

TEST_F(FWLogStreamTest, UnopenableFileLeavesTheStreamWithoutFile) {
  testutil::WriteFile(dir_.File("plain"), "x");
  log_.OpenFile(dir_.File("plain") + "/test.log", false);  // ENOTDIR, even for root
  EXPECT_FALSE(log_.IsOpen());
  log_.Log("lost");
  log_.SetBufferLimit(1000);
  log_.Log("kept in memory");
  EXPECT_EQ(log_.GetLogBuffer(), std::string(kStamp) + "Kept in memory\n");
}

TEST_F(FWLogStreamTest, BufferKeepsTheLatestLinesWithinItsLimit) {
  log_.SetBufferLimit(60);
  log_.Log("aaaa");  // 28 bytes an entry
  EXPECT_TRUE(log_.IsUpdated());
  EXPECT_FALSE(log_.IsUpdated());
  log_.Log("bbbb");
  EXPECT_EQ(log_.GetLogBuffer().size(), 56u);
  log_.Log("cccc");
  // 84 bytes: cut at the first "\n" at or after byte 24, which ends the first entry.
  EXPECT_EQ(log_.GetLogBuffer(), std::string("\n") + kStamp + "Bbbb\n" + kStamp + "Cccc\n");
  EXPECT_TRUE(log_.IsUpdated());
  log_.ClearLogBuffer();
  EXPECT_EQ(log_.GetLogBuffer(), "");
}

TEST_F(FWLogStreamTest, ViewerWithoutBufferReadsTheWholeFileEachTime) {
  log_.OpenFile(Path(), false);
  log_.Log("one");
  EXPECT_TRUE(log_.IsUpdated());
  const std::string once = std::string(kStamp) + "One\n";
  EXPECT_EQ(log_.GetLogBuffer(), once);
  log_.Log("two");
  EXPECT_TRUE(log_.IsUpdated());
  EXPECT_EQ(log_.GetLogBuffer(), once + once + kStamp + "Two\n");
}

TEST_F(FWLogStreamTest, LocalDayCountsDaysInLocalTime) {
  EXPECT_EQ(FWLogStream::LocalDay(0), 0);
  EXPECT_EQ(FWLogStream::LocalDay(kDay - 1), 0);
  EXPECT_EQ(FWLogStream::LocalDay(kT0), 12906);
  setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
  tzset();
  // 2005-05-03 02:00 UTC is 22:00 of 2 May in New York (daylight saving time).
  EXPECT_EQ(FWLogStream::LocalDay(12906 * kDay + 2 * 3600), 12905);
}
