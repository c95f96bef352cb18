// The shared feed of one followed file, and the set of feeds with the inotify rounds that wake
// them: real files in a temporary directory, followers that decode what they are delivered.
#include "LogFeed.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWFeedCodec.h"
#include "LogTail.h"
#include "TestUtil.h"

namespace {

class LogFeedTest : public ::testing::Test {
 protected:
  void Append(const std::string& text) { testutil::WriteFile(path_, text, true); }

  testutil::LogCapture log_;
  testutil::TempDir temp_;
  const std::string path_ = temp_.File("app.log");
};

// A follower as a session is one: it reads on its own while it has a reader,
// and decodes what the feed delivers.
class TestFollower final : public LogFeed::Follower {
 public:
  bool IsHeldBack() const override { return held_back; }
  bool WantsPositions() const override { return false; }
  void Deliver(const std::vector<FWSharedBytes>& frames) override {
    for (const FWSharedBytes& frame : frames) codec_.Append({frame.data(), frame.size()});
    for (std::string message; codec_.Next(&message) == FWFeedCodec::Result::kMessage;) {
      delivered += message;
    }
  }
  LogTail* GetOwnTail() override { return own.get(); }
  void SetOwnTail(std::unique_ptr<LogTail> tail) override { own = std::move(tail); }
  std::string GetReaderPrefix() const override { return "Session 2: "; }

  bool held_back = false;
  std::unique_ptr<LogTail> own;
  std::string delivered;

 private:
  FWFeedCodec codec_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
};

TEST_F(LogFeedTest, FeedFollowersTakeSharedDataOnlyInStepAndCatchUpAloneWhenHeldBack) {
  testutil::WriteFile(path_, "old\n");
  LogFeed feed(temp_.Path(), "app.log");
  ASSERT_EQ(feed.Start(), 0);
  TestFollower a, b, c;
  b.own = std::make_unique<LogTail>("Session 2: ");
  ASSERT_EQ(b.own->Start(temp_.Path(), "app.log"), 0);
  feed.Join(&a);
  feed.Join(&b);  // at the same end: in step at once
  EXPECT_EQ(b.own, nullptr);

  Append("x\n");
  feed.Poll();
  b.held_back = true;
  Append("y\n");
  feed.Poll();  // b falls out of step before the poll: y is left for its own
                // reader
  ASSERT_NE(b.own, nullptr);
  b.held_back = false;
  Append("z\n");
  feed.Poll();  // b is behind the feed: it neither takes z nor joins
  ASSERT_NE(b.own, nullptr);
  EXPECT_EQ(b.own->Poll(), "y\r\nz\r\n");
  feed.Rejoin(&b);
  EXPECT_EQ(b.own, nullptr);
  Append("w\n");
  feed.Poll();
  EXPECT_EQ(a.delivered, "x\r\ny\r\nz\r\nw\r\n");
  EXPECT_EQ(b.delivered, "x\r\nw\r\n");

  // A follower that read ahead of the feed joins once the feed stands where it
  // stands.
  c.own = std::make_unique<LogTail>("Session 3: ");
  ASSERT_EQ(c.own->Start(path_), 0);
  Append("v\n");
  EXPECT_EQ(c.own->Poll(), "v\r\n");
  feed.Join(&c);
  EXPECT_EQ(c.own, nullptr);
  EXPECT_EQ(c.delivered, "");
  EXPECT_EQ(a.delivered, "x\r\ny\r\nz\r\nw\r\nv\r\n");
  for (TestFollower* follower : {&a, &b, &c}) feed.Leave(follower);
  EXPECT_TRUE(feed.IsEmpty());
}

// Events are taken in rounds; the wait after a round grows with the sessions it served: a few
// clients see each write at once, many busy ones get a second's writes per read.
TEST_F(LogFeedTest, RoundsOfEventsWaitLongerTheMoreSessionsTheyServed) {
  testutil::WriteFile(path_, "");
  const std::vector<std::pair<int, int>> wait_after{
      {1, 20}, {28, 20}, {100, 250}, {200, 1000}, {400, 1000}};  // sessions -> ms
  for (const auto& [sessions, wait] : wait_after) {
    LogFeeds feeds;
    std::vector<TestFollower> followers(static_cast<std::size_t>(sessions));
    LogFeed* feed = nullptr;
    for (TestFollower& follower : followers) feed = feeds.Join(temp_.Path(), "app.log", &follower);
    ASSERT_NE(feed, nullptr);
    EXPECT_EQ(feeds.GetWaitBound(), -1);
    Append("line\n");
    feeds.ReadEvents();
    feeds.PollDue(false);
    const int bound = feeds.GetWaitBound();
    EXPECT_LE(bound, wait) << sessions;
    EXPECT_GT(bound, wait - 150) << sessions;  // 150 ms for a busy machine
    EXPECT_EQ(followers.front().delivered + followers.back().delivered, "line\r\nline\r\n");
    for (TestFollower& follower : followers) feeds.Leave(feed, &follower);
  }
}

}  // namespace
