#include "FWObject.h"

#include <list>
#include <memory>

#include <gtest/gtest.h>

#include "FWPublishSubscribe.h"
#include "MonitoringPort.h"
#include "SessionManager.h"

namespace {

class FWObjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    first_ = new MonitoringPort();
    second_ = new MonitoringPort();
    manager_.GetPorts().push_back(first_);
    manager_.GetPorts().push_back(second_);
  }

  SessionManager manager_;
  MonitoringPort* first_ = nullptr;   // owned by manager_
  MonitoringPort* second_ = nullptr;  // owned by manager_
};

TEST_F(FWObjectTest, RootHasNoStateAndNoRegisteredClass) {
  const FWObject root;
  const std::unique_ptr<FWObject> made(root.New());
  const std::unique_ptr<FWObject> copy(root.Clone());
  EXPECT_TRUE(*made == root);
  EXPECT_TRUE(copy->IsEqual(&root));
  EXPECT_EQ(root.Cast(&manager_), &manager_);
  EXPECT_EQ(root.GetClass(), nullptr);
  EXPECT_EQ(root.GetClass(), nullptr);
  std::list<FWNotification> notifications;
  root.Validate(notifications);
  EXPECT_TRUE(notifications.empty());
}

TEST_F(FWObjectTest, EmptyPathOrSingleDotNamesTheObjectItself) {
  EXPECT_EQ(manager_.GetObjectBySpecifier(""), &manager_);
  EXPECT_EQ(manager_.GetObjectBySpecifier("."), &manager_);
}

TEST_F(FWObjectTest, PathStepsSelectListElementsByIndex) {
  EXPECT_EQ(manager_.GetObjectBySpecifier("Ports"), first_);
  EXPECT_EQ(manager_.GetObjectBySpecifier("Ports:0"), first_);
  EXPECT_EQ(manager_.GetObjectBySpecifier(".Ports:1"), second_);
  EXPECT_EQ(manager_.GetObjectBySpecifier("Ports:1."), second_);
}

TEST_F(FWObjectTest, PathPastTheListOrThroughUnknownMembersIsNull) {
  EXPECT_EQ(manager_.GetObjectBySpecifier("Ports:2"), nullptr);
  EXPECT_EQ(manager_.GetObjectBySpecifier("Ports:7"), nullptr);
  EXPECT_EQ(manager_.GetObjectBySpecifier("ports:0"), nullptr);
  EXPECT_EQ(manager_.GetObjectBySpecifier("Ports:0.Sub"), nullptr);
  EXPECT_EQ(manager_.GetObjectBySpecifier("MaxLogFileDays"), nullptr);
  SessionManager empty;
  EXPECT_EQ(empty.GetObjectBySpecifier("Ports"), nullptr);
}

}  // namespace
