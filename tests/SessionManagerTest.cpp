#include "SessionManager.h"

#include <sys/resource.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWPublishSubscribe.h"
#include "MonitoringPort.h"

namespace {

class SessionManagerTest : public ::testing::Test {
 protected:
  MonitoringPort* AddPort(const std::string& name, const std::string& server,
                          const std::string& port_text) {
    auto* port = new MonitoringPort();
    port->SetName(FWString(name));
    port->SetIncomingServer(FWString(server));
    port->SetIncomingPort(FWString(port_text));
    manager_.GetPorts().push_back(port);
    return port;
  }

  SessionManager manager_;
};

TEST_F(SessionManagerTest, DefaultsAreOneDayNoSizeLimitAndNoPorts) {
  EXPECT_EQ(manager_.GetMaxLogFileDays(), FWVariable<int>(1));
  EXPECT_TRUE(manager_.GetMaxLogFileSize().IsNull());
  EXPECT_TRUE(manager_.GetPorts().empty());
}

TEST_F(SessionManagerTest, ClearDeletesThePortsAndKeepsTheScalars) {
  AddPort("A", "", "1");
  AddPort("B", "", "2");
  manager_.SetMaxLogFileSize(FWVariable<int>(500));
  manager_.Clear();
  EXPECT_TRUE(manager_.GetPorts().empty());
  EXPECT_EQ(manager_.GetMaxLogFileSize(), FWVariable<int>(500));
}

TEST_F(SessionManagerTest, CopiesOwnClonesOfThePorts) {
  MonitoringPort* port = AddPort("A", "", "1");
  const std::unique_ptr<SessionManager> copy(manager_.Clone());
  ASSERT_EQ(copy->GetPorts().size(), 1u);
  EXPECT_NE(copy->GetPorts().front(), port);
  EXPECT_TRUE(copy->IsEqual(&manager_));
  port->SetUser(FWString("changed"));
  EXPECT_FALSE(*copy == manager_);
  copy->Assign(&manager_);
  EXPECT_TRUE(*copy == manager_);
  AddPort("B", "", "2");
  EXPECT_FALSE(*copy == manager_);
}

TEST_F(SessionManagerTest, ValidateCollectsThePortNotificationsInOrder) {
  AddPort("A", "", "1");
  MonitoringPort* second = AddPort("B", "", "");
  second->SetDocumentRoot(FWString("/srv"));
  std::list<FWNotification> notifications;
  manager_.Validate(notifications);
  std::vector<std::string> texts;
  for (const FWNotification& notification : notifications) {
    texts.push_back(notification.GetRawText());
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"Log File Path must not be empty",
                                             "Port must not be empty"}));
}

TEST_F(SessionManagerTest, AddressIsInUseWhenPortsMatchAndServersOverlap) {
  MonitoringPort* all = AddPort("A", "", "9080");
  MonitoringPort* local = AddPort("B", "127.0.0.1", "9080");
  MonitoringPort* other_port = AddPort("C", "127.0.0.1", "9081");
  MonitoringPort* other_server = AddPort("D", "10.0.0.1", "9081");
  EXPECT_TRUE(manager_.IsAddressInUse(all));
  EXPECT_TRUE(manager_.IsAddressInUse(local));
  EXPECT_FALSE(manager_.IsAddressInUse(other_port));
  EXPECT_FALSE(manager_.IsAddressInUse(other_server));
  other_server->SetIncomingServer(FWString("127.0.0.1"));
  EXPECT_TRUE(manager_.IsAddressInUse(other_port));
  EXPECT_FALSE(manager_.IsAddressInUse(nullptr));
  const MonitoringPort outside;  // not in the list: compared with every port
  EXPECT_TRUE(manager_.IsAddressInUse(&outside));
}

TEST_F(SessionManagerTest, PortNameIsUniqueWhenOnlyThePortItselfHasIt) {
  MonitoringPort* first = AddPort("Same", "", "1");
  MonitoringPort* second = AddPort("Same", "", "2");
  MonitoringPort* third = AddPort("Other", "", "3");
  EXPECT_FALSE(manager_.IsPortNameUnique(first));
  EXPECT_FALSE(manager_.IsPortNameUnique(second));
  EXPECT_TRUE(manager_.IsPortNameUnique(third));
  EXPECT_FALSE(manager_.IsPortNameUnique(nullptr));
}

// Two descriptors per session must fit below the select limit (1024) and the soft limit, which
// FitDescriptorLimit raises as far as the hard limit allows. Eight are the daemon's own with one
// port.
TEST_F(SessionManagerTest, PoolFitsTheDescriptorLimitsAndTheSoftLimitIsRaisedForIt) {
  AddPort("A", "", "1");
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  ASSERT_GE(saved.rlim_max, 1024u) << "the test needs a hard descriptor limit of 1024";
  rlimit low = saved;
  low.rlim_cur = 200;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  EXPECT_EQ(manager_.GetPoolSize(), (200 - 8) / 2);
  EXPECT_EQ(manager_.FitDescriptorLimit(), "descriptor limit raised from 200 to 1024");
  EXPECT_EQ(manager_.GetPoolSize(), (1024 - 8) / 2);
  EXPECT_EQ(manager_.FitDescriptorLimit(), "");
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

}  // namespace
