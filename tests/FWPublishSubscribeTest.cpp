#include "FWPublishSubscribe.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"

namespace {

// Records every notification with the publisher that sent it.
class Recorder : public FWSubscriber {
 public:
  void NotificationReceive(const FWNotification& n, FWPublisher* sender) override {
    received.emplace_back(n.GetRawText(), sender);
  }
  std::vector<std::pair<std::string, FWPublisher*>> received;
};

FWNotification Note(const std::string& text) { return FWNotification(text, 1, 3); }

}  // namespace

TEST(FWPublishSubscribeTest, SenderArgumentTellsTwoPublishersApart) {
  FWPublisher a;
  FWPublisher b;
  Recorder r;
  a.Attach(&r);
  r.Subscribe(&b);
  a.NotificationSend(Note("from a"));
  b.NotificationSend(Note("from b"));
  ASSERT_EQ(r.received.size(), 2u);
  EXPECT_EQ(r.received[0], std::make_pair(std::string("from a"), &a));
  EXPECT_EQ(r.received[1], std::make_pair(std::string("from b"), &b));
}

TEST(FWPublishSubscribeTest, DestroyedSubscriberIsRemovedFromEveryPublisher) {
  FWPublisher a;
  FWPublisher b;
  {
    Recorder r;
    a.Attach(&r);
    b.Attach(&r);
    EXPECT_EQ(a.GetSubscribers().size(), 1u);
  }
  EXPECT_TRUE(a.GetSubscribers().empty());
  EXPECT_TRUE(b.GetSubscribers().empty());
  a.NotificationSend(Note("nobody listens"));  // must not touch the destroyed subscriber
}

TEST(FWPublishSubscribeTest, DestroyedPublisherIsRemovedFromEverySubscriber) {
  Recorder r1;
  Recorder r2;
  {
    FWPublisher p;
    p.Attach(&r1);
    p.Attach(&r2);
    EXPECT_EQ(r1.GetPublishers().size(), 1u);
  }
  EXPECT_TRUE(r1.GetPublishers().empty());
  EXPECT_TRUE(r2.GetPublishers().empty());
}

TEST(FWPublishSubscribeTest, AttachTwiceDeliversOnceAndDetachIsHarmless) {
  FWPublisher p;
  Recorder r;
  p.Attach(&r);
  p.Attach(&r);
  p.NotificationSend(Note("once"));
  EXPECT_EQ(r.received.size(), 1u);
  p.Detach(&r);
  p.Detach(&r);
  p.NotificationSend(Note("after detach"));
  EXPECT_EQ(r.received.size(), 1u);
  EXPECT_TRUE(r.GetPublishers().empty());
}

TEST(FWPublishSubscribeTest, AttachAllAndSubscribeAllCopyLinks) {
  FWPublisher a;
  FWPublisher b;
  Recorder r1;
  Recorder r2;
  a.Attach(&r1);
  a.Attach(&r2);
  b.AttachAll(a);
  EXPECT_EQ(b.GetSubscribers().size(), 2u);
  EXPECT_EQ(a.GetSubscribers().size(), 2u);
  EXPECT_EQ(r1.GetPublishers().size(), 2u);

  Recorder r3;
  r3.SubscribeAll(r1);
  EXPECT_EQ(r3.GetPublishers(), r1.GetPublishers());
  r3.UnsubscribeAll();
  EXPECT_TRUE(r3.GetPublishers().empty());
  EXPECT_EQ(a.GetSubscribers().count(&r3), 0u);

  a.DetachAll();
  EXPECT_TRUE(a.GetSubscribers().empty());
  EXPECT_EQ(r1.GetPublishers().size(), 1u);  // still linked to b
}

TEST(FWPublishSubscribeTest, NullPartnerFailsTheAssertionAndChangesNothing) {
  FWPublisher p;
  Recorder r;
  try {
    p.Attach(nullptr);
    FAIL() << "Attach(nullptr) did not throw";
  } catch (const FWEAssertionFailed& e) {
    EXPECT_EQ(e.GetText(), "Assertion Failed (Subscriber && this)");
    EXPECT_EQ(e.GetNotification().GetCode(), 10016);
  }
  EXPECT_THROW(p.Detach(nullptr), FWEAssertionFailed);
  EXPECT_THROW(r.Subscribe(nullptr), FWEAssertionFailed);
  EXPECT_TRUE(p.GetSubscribers().empty());
  EXPECT_TRUE(r.GetPublishers().empty());
}

TEST(FWPublishSubscribeTest, SendWithoutSubscribersDoesNothing) {
  FWPublisher p;
  p.NotificationSend(Note("x"));
  EXPECT_TRUE(p.GetSubscribers().empty());
}

TEST(FWPublishSubscribeTest, NotificationTextIsUpperCasedOnTheWayOut) {
  const FWNotification n("parse error: x", 5, 1);
  EXPECT_EQ(n.GetText(), "Parse error: x");
  EXPECT_EQ(n.GetRawText(), "parse error: x");
  EXPECT_EQ(FWNotification("", 0, 3).GetText(), "");
  EXPECT_EQ(FWNotification::GetText({Note("a"), Note("b"), Note("c")}, ", "), "A, B, C");
  EXPECT_EQ(FWNotification::GetText({}, ", "), "");
  EXPECT_EQ(FWNotification::GetText({Note(""), Note("x")}, "|"), "|X");
}
