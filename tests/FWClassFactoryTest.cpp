#include "FWClassFactory.h"

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWException.h"
#include "MonitoringPort.h"
#include "SessionManager.h"

namespace {

struct MemberRow {
  std::string name;
  std::string type_name;
  int size;
  int required;
  std::string caption;
  std::string description;
};

const FWClass& ClassNamed(const std::string& name) {
  const FWClass* cls = FWApplication::GetInstance().GetClass(name);
  EXPECT_NE(cls, nullptr) << name;
  return *cls;
}

// Compares the own members of a class, in the order of addition, with the rows.
void ExpectOwnMembers(const std::string& class_name, const std::vector<MemberRow>& rows) {
  const std::list<FWMember*>& members = ClassNamed(class_name).GetOwnMembers();
  ASSERT_EQ(members.size(), rows.size()) << class_name;
  auto row = rows.begin();
  for (const FWMember* member : members) {
    SCOPED_TRACE(class_name + "." + row->name);
    EXPECT_EQ(member->GetName(), row->name);
    EXPECT_EQ(member->GetTypeName(), row->type_name);
    EXPECT_EQ(member->GetSize(), FWVariable<int>(row->size));
    EXPECT_EQ(member->GetRequired(), FWVariable<int>(row->required));
    EXPECT_EQ(member->GetCaption(), row->caption);
    EXPECT_EQ(member->GetDescription(), row->description);
    EXPECT_EQ(member->GetOwner(), &ClassNamed(class_name));
    ++row;
  }
}

TEST(FWClassFactoryTest, ClassesCarryNameBaseCaptionAndNumber) {
  const std::vector<const FWClass*>& classes = FWApplication::GetInstance().GetClasses();
  ASSERT_EQ(classes.size(), 3u);
  EXPECT_EQ(classes[0]->GetName(), "MonitoringPort");
  EXPECT_EQ(classes[0]->GetBaseName(), "ProxyPort");
  EXPECT_EQ(classes[0]->GetCaption(), "Norvane Settings");
  EXPECT_EQ(classes[0]->GetNumber(), 1);
  EXPECT_EQ(classes[1]->GetName(), "ProxyPort");
  EXPECT_EQ(classes[1]->GetBaseName(), "FWObject");
  EXPECT_EQ(classes[1]->GetCaption(), "");
  EXPECT_EQ(classes[1]->GetNumber(), 2);
  EXPECT_EQ(classes[2]->GetName(), "SessionManager");
  EXPECT_EQ(classes[2]->GetBaseName(), "FWObject");
  EXPECT_EQ(classes[2]->GetCaption(), "");
  EXPECT_EQ(classes[2]->GetNumber(), 3);
}

TEST(FWClassFactoryTest, MonitoringPortMembersAsDocumented) {
  ExpectOwnMembers("MonitoringPort",
                   {{"DocumentRoot", "FWString", 0, 1, "Log File Path",
                     "The file system path were to look for log files."},
                    {"MonitoringInterval", "FWInteger", 0, 0, "Norvane Settings", ""},
                    {"Password", "FWString", 0, 1, "Password",
                     "The password a client must submit to connect log feeds."},
                    {"SearchPattern", "FWString", 0, 1, "Log File Search Pattern",
                     "The search pattern used to find log files."},
                    {"User", "FWString", 0, 0, "Norvane Settings", ""}});
  EXPECT_TRUE(ClassNamed("MonitoringPort").GetOwnMemberObjects().empty());
}

TEST(FWClassFactoryTest, ProxyPortMembersAsDocumented) {
  ExpectOwnMembers(
      "ProxyPort",
      {{"IncomingConnectionCount", "FWInteger", 0, 0, "", ""},
       {"IncomingPort", "FWString", 0, 1, "Port",
        "The port used by Norvane to listen for incoming client connections."},
       {"IncomingServer", "FWString", 0, 0, "Interface IP",
        "The IP address of the interface used by Norvane to listen for incoming client "
        "connections."},
       {"IncomingTimeout", "FWInteger", 0, 0, "", ""},
       {"KeepAliveTimeout", "FWInteger", 0, 0, "", ""},
       {"Name", "FWString", 30, 0, "", ""},
       {"OutgoingConnectionCount", "FWInteger", 0, 0, "", ""},
       {"OutgoingPort", "FWString", 0, 0, "", ""},
       {"OutgoingServer", "FWString", 0, 0, "", ""},
       {"OutgoingTimeout", "FWInteger", 0, 0, "", ""}});
  EXPECT_TRUE(ClassNamed("ProxyPort").GetOwnMemberObjects().empty());
}

TEST(FWClassFactoryTest, SessionManagerMembersAsDocumented) {
  ExpectOwnMembers("SessionManager", {{"MaxLogFileDays", "FWInteger", 0, 0, "", ""},
                                      {"MaxLogFileSize", "FWInteger", 0, 0, "", ""}});
  const std::list<FWMemberObject*>& lists = ClassNamed("SessionManager").GetOwnMemberObjects();
  ASSERT_EQ(lists.size(), 1u);
  const FWMemberObject* ports = lists.front();
  EXPECT_EQ(ports->GetName(), "Ports");
  EXPECT_EQ(ports->GetTypeName(), "ProxyPort");
  EXPECT_EQ(ports->GetMultiplicity(), "n");
  EXPECT_EQ(ports->GetRequired(), FWVariable<int>(0));
  EXPECT_EQ(ports->GetCaption(), "");
  EXPECT_EQ(ports->GetDescription(), "");
}

TEST(FWClassFactoryTest, MembersAreBoundToTheAccessorsOfTheSameName) {
  MonitoringPort port;
  const FWClass& cls = ClassNamed("MonitoringPort");
  cls.GetMember("DocumentRoot")->SetForString(&port, "/var/log");
  cls.GetMember("Name")->SetForString(&port, "Feed");
  cls.GetMember("KeepAliveTimeout")->SetForString(&port, "");
  EXPECT_EQ(port.GetDocumentRoot(), "/var/log");
  EXPECT_EQ(port.GetName(), "Feed");
  EXPECT_TRUE(port.GetKeepAliveTimeout().IsNull());
  EXPECT_EQ(cls.GetMember("Password")->GetForString(&port), "Kem01&*sB");
  EXPECT_EQ(cls.GetMember("IncomingConnectionCount")->GetForString(&port), "20");

  FWVariable<int> interval;
  cls.GetMember("MonitoringInterval")->SafeGetFor(&port, &interval);
  EXPECT_EQ(interval, FWVariable<int>(1));
  const FWString user("reader");
  cls.GetMember("User")->SafeSetFor(&port, &user);
  EXPECT_EQ(port.GetUser(), "reader");
}

TEST(FWClassFactoryTest, NewInstanceMakesOnlyTheConcreteClasses) {
  const MonitoringPort defaults;
  const std::unique_ptr<FWObject> port(ClassNamed("MonitoringPort").NewInstance());
  EXPECT_TRUE(port->IsEqual(&defaults));
  const std::unique_ptr<FWObject> manager(ClassNamed("SessionManager").NewInstance());
  EXPECT_NE(dynamic_cast<SessionManager*>(manager.get()), nullptr);
  try {
    ClassNamed("ProxyPort").NewInstance();
    FAIL() << "no failure";
  } catch (const FWEInternal& e) {
    EXPECT_EQ(e.GetFullText(), "Internal consistency error (classes/FWClassFactory: 200)");
  }
}

TEST(FWClassFactoryTest, SecondInitOfTheRegistryFails) {
  try {
    FWApplication::GetInstance().Init();
    FAIL() << "no failure";
  } catch (const FWEInternal& e) {
    EXPECT_EQ(e.GetFullText(), "Internal consistency error (classes/FWClassFactory: 115)");
  }
  EXPECT_EQ(FWApplication::GetInstance().GetClasses().size(), 3u);
}

// --- Typed member failures ---

std::string BadCastAt(const std::function<void()>& action) {
  try {
    action();
  } catch (const FWEBadCast& e) {
    return e.GetFullText();
  }
  return "no failure";
}

TEST(FWClassFactoryTest, TypedMemberRejectsObjectsOfAnotherClass) {
  const FWMember* name = ClassNamed("ProxyPort").GetMember("Name");
  SessionManager manager;
  FWString text;
  EXPECT_EQ(BadCastAt([&] { name->GetForString(nullptr); }),
            "Cannot cast to ProxyPort (classes/FWClassFactory: 45)");
  EXPECT_EQ(BadCastAt([&] { name->GetForString(&manager); }),
            "Cannot cast to ProxyPort (classes/FWClassFactory: 45)");
  EXPECT_EQ(BadCastAt([&] { name->SetForString(&manager, "x"); }),
            "Cannot cast to ProxyPort (classes/FWClassFactory: 49)");
  EXPECT_EQ(BadCastAt([&] { name->SafeGetFor(&manager, &text); }),
            "Cannot cast to ProxyPort (classes/FWClassFactory: 67)");
  EXPECT_EQ(BadCastAt([&] { name->SafeSetFor(&manager, &text); }),
            "Cannot cast to ProxyPort (classes/FWClassFactory: 73)");
  const FWMemberObject* ports = ClassNamed("SessionManager").GetMemberObject("Ports");
  MonitoringPort port;
  EXPECT_EQ(BadCastAt([&] { ports->GetBeginFor(&port); }),
            "Cannot cast to SessionManager (classes/FWClassFactory: 103)");
  EXPECT_EQ(BadCastAt([&] { ports->GetEndFor(nullptr); }),
            "Cannot cast to SessionManager (classes/FWClassFactory: 103)");
}

TEST(FWClassFactoryTest, TypedMemberRejectsValuesOfAnotherType) {
  const FWMember* name = ClassNamed("ProxyPort").GetMember("Name");
  MonitoringPort port;
  FWVariable<int> number(3);
  EXPECT_EQ(BadCastAt([&] { name->SafeGetFor(&port, &number); }),
            "Cannot cast to FWString (classes/FWClassFactory: 69)");
  EXPECT_EQ(BadCastAt([&] { name->SafeSetFor(&port, &number); }),
            "Cannot cast to FWString (classes/FWClassFactory: 75)");
  EXPECT_EQ(port.GetName(), "Monitoring");
}

}  // namespace
