#include "FWClass.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWException.h"
#include "FWMember.h"
#include "FWMemberObject.h"
#include "MonitoringPort.h"
#include "SessionManager.h"

namespace {

const FWClass* Registered(const std::string& name) {
  return FWApplication::GetInstance().GetClass(name);
}

std::vector<std::string> NamesOf(const std::vector<const FWMember*>& members) {
  std::vector<std::string> names;
  for (const FWMember* member : members) names.push_back(member->GetName());
  return names;
}

std::string AssertionAt(const std::function<void()>& action) {
  try {
    action();
  } catch (const FWEAssertionFailed& e) {
    return e.GetFullText();
  }
  return "no failure";
}

TEST(FWClassTest, MembersOfMonitoringPortIncludeInheritedOnesSortedByName) {
  const std::vector<std::string> expected = {"DocumentRoot",
                                             "IncomingConnectionCount",
                                             "IncomingPort",
                                             "IncomingServer",
                                             "IncomingTimeout",
                                             "KeepAliveTimeout",
                                             "MonitoringInterval",
                                             "Name",
                                             "OutgoingConnectionCount",
                                             "OutgoingPort",
                                             "OutgoingServer",
                                             "OutgoingTimeout",
                                             "Password",
                                             "SearchPattern",
                                             "User"};
  EXPECT_EQ(NamesOf(Registered("MonitoringPort")->GetMembers()), expected);
  EXPECT_EQ(NamesOf(Registered("SessionManager")->GetMembers()),
            (std::vector<std::string>{"MaxLogFileDays", "MaxLogFileSize"}));
  EXPECT_TRUE(Registered("MonitoringPort")->GetMemberObjects().empty());
  ASSERT_EQ(Registered("SessionManager")->GetMemberObjects().size(), 1u);
}

TEST(FWClassTest, MemberLookupFindsInheritedMembersAndCaseMatters) {
  const FWClass* port_class = Registered("MonitoringPort");
  const FWMember* name = port_class->GetMember("Name");
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(name->GetOwner(), Registered("ProxyPort"));
  EXPECT_EQ(port_class->GetMember("name"), nullptr);
  EXPECT_EQ(port_class->GetMember("Nam"), nullptr);
  EXPECT_EQ(port_class->GetMember("Zzz"), nullptr);
  EXPECT_EQ(port_class->GetMember(""), nullptr);
  EXPECT_EQ(port_class->GetMember("User")->GetOwner(), port_class);
  EXPECT_EQ(Registered("SessionManager")->GetMemberObject("Ports")->GetName(), "Ports");
  EXPECT_EQ(Registered("SessionManager")->GetMemberObject("ports"), nullptr);
  EXPECT_TRUE(name->IsMemberOf(port_class));
  EXPECT_FALSE(port_class->GetMember("User")->IsMemberOf(Registered("ProxyPort")));
  const MonitoringPort port;
  EXPECT_TRUE(name->IsMemberOf(&port));
}

TEST(FWClassTest, BaseAndDerivedRelations) {
  const FWClass* monitoring = Registered("MonitoringPort");
  const FWClass* proxy = Registered("ProxyPort");
  const FWClass* manager = Registered("SessionManager");
  EXPECT_EQ(monitoring->GetBaseClass(), proxy);
  EXPECT_EQ(proxy->GetBaseClass(), nullptr);
  EXPECT_TRUE(proxy->IsBaseOf(monitoring));
  EXPECT_TRUE(proxy->IsBaseOf(proxy));
  EXPECT_TRUE(proxy->IsDerivedOf(proxy));
  EXPECT_FALSE(monitoring->IsBaseOf(proxy));
  EXPECT_TRUE(monitoring->IsDerivedOf(proxy));
  EXPECT_FALSE(proxy->IsDerivedOf(monitoring));
  EXPECT_FALSE(manager->IsBaseOf(monitoring));
  const MonitoringPort port;
  EXPECT_TRUE(proxy->IsClassOf(&port));
  EXPECT_FALSE(manager->IsClassOf(&port));
}

TEST(FWClassTest, NullArgumentsAreBrokenAssertions) {
  const FWClass* proxy = Registered("ProxyPort");
  EXPECT_EQ(AssertionAt([&] { proxy->IsBaseOf(nullptr); }),
            "Assertion Failed (Class) (src/FWClass: 326)");
  EXPECT_EQ(AssertionAt([&] { proxy->IsClassOf(nullptr); }),
            "Assertion Failed (Object) (src/FWClass: 336)");
  EXPECT_EQ(AssertionAt([&] { proxy->IsDerivedOf(nullptr); }),
            "Assertion Failed (Class) (src/FWClass: 342)");
}

TEST(FWClassTest, MetadataRecordsAreNotRegisteredClasses) {
  const FWClass* proxy = Registered("ProxyPort");
  EXPECT_EQ(AssertionAt([&] { proxy->GetClass(); }), "Assertion Failed (Class) (src/FWClass: 174)");
  EXPECT_EQ(AssertionAt([&] { proxy->GetMember("Name")->GetClass(); }),
            "Assertion Failed (Class) (src/FWMember: 145)");
  EXPECT_EQ(AssertionAt([&] {
              Registered("SessionManager")->GetMemberObject("Ports")->GetClass();
            }).rfind("Assertion Failed (Class) (src/FWMemberObject: ", 0),
            0u);
}

TEST(FWClassTest, CloneCopiesMembersAndOwnsThem) {
  const FWClass* proxy = Registered("ProxyPort");
  const std::unique_ptr<FWClass> copy(proxy->Clone());
  EXPECT_TRUE(*copy == *proxy);
  ASSERT_EQ(copy->GetOwnMembers().size(), 10u);
  EXPECT_EQ(copy->GetOwnMembers().front()->GetOwner(), copy.get());
  EXPECT_TRUE(copy->GetOwnMembers().front()->IsEqual(proxy->GetOwnMembers().front()));
  MonitoringPort port;
  copy->GetMember("Name")->SetForString(&port, "Copied");
  EXPECT_EQ(port.GetName(), "Copied");
  copy->Clear();
  EXPECT_TRUE(copy->GetOwnMembers().empty());
  EXPECT_EQ(copy->GetMember("Name"), nullptr);
  EXPECT_EQ(copy->GetName(), "ProxyPort");
}

TEST(FWClassTest, DummyMemberCarriesOnlyAName) {
  const FWDummyMember dummy("Name");
  MonitoringPort port;
  EXPECT_EQ(dummy.GetName(), "Name");
  EXPECT_EQ(dummy.GetForString(&port), "");
  dummy.SetForString(&port, "x");
  EXPECT_EQ(port.GetName(), "Monitoring");
}

}  // namespace
