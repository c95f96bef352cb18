// The daemon's own log as an operator reads it: the layout of an entry, and rotation to the one
// backup "name~" by size, by the age of the first entry, and when that entry lies in the future.
#include "FWLogStream.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "FWPublishSubscribe.h"
#include "TestUtil.h"

namespace {

// 3 May 2005, 14:07:09 UTC: the stamp of every entry below while TZ is UTC.
constexpr std::time_t kT0 = 1115129229;
constexpr std::time_t kDay = 86400;
const std::string kStamp = "May 03, 2005, 14:07:09 ";

class FWLogStreamTest : public ::testing::Test {
 protected:
  FWLogStreamTest() {
    setenv("TZ", "UTC0", 1);  // for the whole of this suite's process
    tzset();
    log_.SetClock([this] { return now_; });
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
};

}  // namespace

TEST_F(FWLogStreamTest, EntryIsStampSourceAndTextWithACapitalOnEveryLine) {
  log_.OpenFile(Path(), false);
  ASSERT_TRUE(log_.IsOpen());
  log_.Log("server starting", "");
  log_.Log("first\r\nsecond\nthird\n", "Session 3: ");
  for (int severity = 0; severity <= 6; ++severity) {
    log_.Log(FWNotification("text " + std::to_string(severity), 1, severity));
  }
  const std::string s = kStamp;
  const std::string session = s + "Session 3: ";
  EXPECT_EQ(Contents(), s + "Server starting\n" + session + "First\n" + session + "second\n" +
                            session + "third\n" + s + "FATAL ERROR: Text 0\n" + s +
                            "ERROR: Text 1\n" + s + "WARNING: Text 2\n" + s + "Text 3\n" + s +
                            "DEBUG: Text 4\n" + s + "TRACE: Text 5\n" + s + "Text 6\n");
  struct stat st {};
  ASSERT_EQ(::stat(Path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

// The entry that reaches the limit stays; the next one goes to a fresh file. Past 2 GiB too: a
// sparse file just under the largest configurable limit, which the tenth entry crosses.
TEST_F(FWLogStreamTest, RotatesBySizeAfterTheEntryThatReachesTheLimitAlsoPastTwoGibibytes) {
  const std::string text(76, 'x');  // 23 bytes of stamp + 76 + "\n" = 100 bytes an entry
  for (const auto& [limit, start] :
       {std::pair<int64_t, off_t>{1000, 0}, {2147483647, 2147482697}}) {
    WriteOldLog(kT0);
    ASSERT_EQ(::truncate(Path().c_str(), start), 0);
    log_.SetMaxSize(limit);
    log_.OpenFile(Path(), false);
    for (int i = 0; i < 10; ++i) log_.Log(text);
    EXPECT_EQ(std::filesystem::file_size(Path()), static_cast<std::uintmax_t>(start + 1000));
    EXPECT_FALSE(testutil::FileExists(Path() + "~"));
    log_.Log(text);
    EXPECT_EQ(std::filesystem::file_size(Path() + "~"), static_cast<std::uintmax_t>(start + 1000));
    EXPECT_EQ(Contents(), kStamp + "X" + std::string(75, 'x') + "\n");
    std::filesystem::remove(Path() + "~");
  }
}

// A first entry MaxLogFileDays old, or stamped in the future (the clock was set back), rotates
// the log at open; rotating again replaces the backup.
TEST_F(FWLogStreamTest, RotatesByTheAgeOfTheFirstEntryAndKeepsOneBackup) {
  const struct {
    std::time_t first_entry;
    int max_days;
    bool rotated;
  } cases[] = {{kT0 - 3600, 1, false},      {kT0 - kDay, 2, false},    {kT0 - 2 * kDay, 3, false},
               {kT0 - 2 * kDay, 2, true},   {kT0 - 3 * kDay, 3, true}, {kT0 + kDay, 0, true},
               {kT0 - 400 * kDay, 0, false}};
  for (const auto& [first_entry, max_days, rotated] : cases) {
    WriteOldLog(first_entry);
    const std::string old = Contents();
    testutil::WriteFile(Path() + "~", "older backup\n");
    log_.SetMaxDays(max_days);
    log_.OpenFile(Path(), false);
    log_.Log("new");
    EXPECT_EQ(Backup(), rotated ? old : "older backup\n") << old << max_days;
    EXPECT_EQ(Contents(), (rotated ? "" : old) + kStamp + "New\n") << old << max_days;
  }
  std::filesystem::remove(Path());
  log_.SetMaxDays(1);
  log_.OpenFile(Path(), false);
  log_.Log("day one");
  now_ = kT0 + kDay;  // the running log's first entry is now a day old
  log_.Log("day two");
  EXPECT_EQ(Backup(), kStamp + "Day one\n");
  EXPECT_EQ(Contents(), "May 04, 2005, 14:07:09 Day two\n");
}
