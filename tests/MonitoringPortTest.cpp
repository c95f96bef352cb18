#include "MonitoringPort.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWException.h"
#include "FWPublishSubscribe.h"

namespace {

std::vector<std::string> TextsOf(const MonitoringPort& port) {
  std::list<FWNotification> notifications;
  port.Validate(notifications);
  std::vector<std::string> texts;
  for (const FWNotification& notification : notifications) {
    texts.push_back(notification.GetRawText());
    EXPECT_EQ(notification.GetCode(), 10021);
  }
  return texts;
}

TEST(MonitoringPortTest, DefaultsOverrideThePortAndName) {
  const MonitoringPort port;
  EXPECT_EQ(port.GetMonitoringInterval(), FWVariable<int>(1));
  EXPECT_TRUE(port.GetDocumentRoot().IsNull());
  EXPECT_EQ(port.GetSearchPattern(), "*.log");
  EXPECT_EQ(port.GetUser(), "logwatcher");
  EXPECT_EQ(port.GetPassword(), "Kem01&*sB");
  EXPECT_EQ(port.GetIncomingPort(), "9080");
  EXPECT_EQ(port.GetName(), "Monitoring");
  EXPECT_EQ(port.GetIncomingConnectionCount(), FWVariable<int>(20));
  EXPECT_EQ(port.GetKeepAliveTimeout(), FWVariable<int>(40));
  EXPECT_EQ(port.GetOutgoingConnectionCount(), FWVariable<int>(1000));
  EXPECT_TRUE(port.GetIncomingServer().IsNull());
}

TEST(MonitoringPortTest, DefaultPortLacksOnlyTheLogFilePath) {
  EXPECT_EQ(TextsOf(MonitoringPort()),
            (std::vector<std::string>{"Log File Path must not be empty"}));
}

TEST(MonitoringPortTest, EmptiedSettingsGoToTheFrontInReverseOrder) {
  MonitoringPort port;
  port.SetSearchPattern(FWString());
  port.SetPassword(FWString());
  port.SetUser(FWString());
  port.SetIncomingPort(FWString());
  EXPECT_EQ(TextsOf(port),
            (std::vector<std::string>{
                "Password must not be empty", "Log File Search Pattern must not be empty",
                "Log File Path must not be empty", "Port must not be empty"}));
  port.SetDocumentRoot(FWString("/var/log"));
  port.SetSearchPattern(FWString("*.txt"));
  port.SetPassword(FWString("p"));
  port.SetIncomingPort(FWString("1"));
  EXPECT_TRUE(TextsOf(port).empty());
}

TEST(MonitoringPortTest, CopiesCompareEqualUntilAMemberDiffers) {
  MonitoringPort port;
  port.SetDocumentRoot(FWString("/srv"));
  port.SetOutgoingTimeout(FWVariable<int>(9));
  const std::unique_ptr<MonitoringPort> copy(port.Clone());
  EXPECT_TRUE(copy->IsEqual(&port));
  copy->SetUser(FWString("other"));
  EXPECT_FALSE(*copy == port);
  copy->Assign(&port);
  EXPECT_TRUE(*copy == port);
  copy->SetOutgoingTimeout(FWVariable<int>());
  EXPECT_FALSE(*copy == port);
  const std::unique_ptr<MonitoringPort> fresh(port.New());
  EXPECT_TRUE(*fresh == MonitoringPort());
  EXPECT_EQ(port.Cast(static_cast<FWObject*>(fresh.get())), fresh.get());
}

TEST(MonitoringPortTest, ClearKeepsTheScalarValues) {
  MonitoringPort port;
  port.SetDocumentRoot(FWString("/srv"));
  port.Clear();
  EXPECT_EQ(port.GetDocumentRoot(), "/srv");
  EXPECT_EQ(port.GetName(), "Monitoring");
}

TEST(MonitoringPortTest, ClassIsTheRegisteredOneAndStatusIsEmpty) {
  const MonitoringPort port;
  EXPECT_EQ(port.GetClass(), FWApplication::GetInstance().GetClass("MonitoringPort"));
  EXPECT_EQ(port.GetStatusString(), "");
}

TEST(MonitoringPortTest, AssignFromAnotherClassIsRejected) {
  MonitoringPort port;
  const FWObject root;
  EXPECT_THROW(port.Assign(&root), FWEBadCast);
  EXPECT_EQ(port.Cast(&root), nullptr);
  EXPECT_EQ(port.Cast(static_cast<const FWObject*>(nullptr)), nullptr);
}

}  // namespace
