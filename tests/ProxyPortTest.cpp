#include "ProxyPort.h"

#include <list>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWPublishSubscribe.h"
#include "MonitoringPort.h"

namespace {

// ProxyPort is abstract; MonitoringPort is its one concrete class.
TEST(ProxyPortTest, MissingIncomingPortGivesOneValueRequiredNotification) {
  MonitoringPort port;
  port.SetIncomingPort(FWString());
  std::list<FWNotification> notifications;
  port.ProxyPort::Validate(notifications);
  ASSERT_EQ(notifications.size(), 1u);
  EXPECT_EQ(notifications.front().GetRawText(), "Port must not be empty");
  EXPECT_EQ(notifications.front().GetSeverity(), FWNotification::kMessage);
}

TEST(ProxyPortTest, ComparisonCoversTheProxyPortMembers) {
  MonitoringPort left;
  MonitoringPort right;
  right.SetIncomingServer(FWString("127.0.0.1"));
  EXPECT_FALSE(left.ProxyPort::operator==(right));
  left.ProxyPort::operator=(right);
  EXPECT_TRUE(left.ProxyPort::operator==(right));
  EXPECT_EQ(left.GetIncomingServer(), "127.0.0.1");
}

TEST(ProxyPortTest, CastAcceptsDerivedPorts) {
  MonitoringPort port;
  const ProxyPort& base = port;
  EXPECT_EQ(base.ProxyPort::Cast(static_cast<FWObject*>(&port)), &port);
  EXPECT_EQ(base.ProxyPort::GetClass(), FWApplication::GetInstance().GetClass("ProxyPort"));
}

}  // namespace
