// The configuration as an operator writes it: the documented defaults of every setting, the
// shipped example, the corners of the file's grammar and its failures, and the descriptor limit
// the session pool needs. How norvaned reports all this is in NorvanedTest.
#include <sys/resource.h>

#include <cerrno>
#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWClassFactory.h"
#include "FWException.h"
#include "FWIniParser.h"
#include "FWMember.h"
#include "FWMemberObject.h"
#include "FWStringUtils.h"
#include "MonitoringPort.h"
#include "SessionManager.h"
#include "TestUtil.h"

namespace {

// "Member=value" for every member of the object, in the registry's order, blank-separated.
std::string Settings(const FWObject& object) {
  std::string text;
  for (const FWMember* member : object.GetClass()->GetMembers()) {
    text += std::string(text.empty() ? "" : " ") + member->GetName() + "=" +
            member->GetForString(&object);
  }
  return text;
}

// The manager the text describes, as "root settings | port settings | ...", or the raw text of
// the failure.
std::string Parse(const std::string& text, bool is_file = false) {
  SessionManager manager;
  try {
    FWIniParser("1.0", false).ParseToObject(manager, text, is_file);
  } catch (const FWException& e) {
    return "failed: " + e.GetNotification().GetRawText();
  }
  std::string result = Settings(manager);
  for (const auto& port : manager.GetPorts()) result += " | " + Settings(*port);
  return result;
}

const std::string kDefaultRoot = "MaxLogFileDays=1 MaxLogFileSize=";
const std::string kDefaultPort =
    "DocumentRoot= IncomingConnectionCount=20 IncomingPort=9080 IncomingServer= "
    "IncomingTimeout= KeepAliveTimeout=40 MonitoringInterval=1 Name=Monitoring "
    "OutgoingConnectionCount=1000 OutgoingPort= OutgoingServer= OutgoingTimeout= "
    "Password=Kem01&*sB SearchPattern=*.log User=logwatcher";

}  // namespace

TEST(FWConfigTest, EverySettingHasItsDocumentedDefault) {
  EXPECT_EQ(Settings(SessionManager()), kDefaultRoot);
  EXPECT_EQ(Settings(MonitoringPort()), kDefaultPort);
  // A section with its header alone.
  EXPECT_EQ(Parse("FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\MonitoringPort]\n"),
            kDefaultRoot + " | " + kDefaultPort);
}

// The example names every setting with its default, but for the two an operator must look at.
TEST(FWConfigTest, ShippedExampleNamesEverySettingWithItsDefault) {
  const std::string example = testutil::ReadFile(NORVANE_SOURCE_DIR "/dist/Norvane.cf.example");
  for (const char* name : {"SessionManager", "MonitoringPort"}) {
    for (const FWMember* member : FWApplication::GetInstance().GetClass(name)->GetMembers()) {
      EXPECT_NE(example.find("\n" + std::string(member->GetName()) + "=\""), std::string::npos)
          << member->GetName();
    }
  }
  std::string expected = kDefaultRoot + " | " + kDefaultPort;
  FWStringUtils::ReplaceAll(expected, "DocumentRoot=", "DocumentRoot=/var/log");
  FWStringUtils::ReplaceAll(expected, "IncomingServer=", "IncomingServer=127.0.0.1");
  testutil::LogCapture log;
  EXPECT_EQ(Parse(example), expected);
  EXPECT_TRUE(log.Lines().empty()) << log.Lines().front();
}

TEST(FWConfigTest, GrammarCornersAndFailures) {
  const std::string head = "FileVersion=1.0\n[SessionManager]\n";
  const std::string port = head + "[SessionManager\\Ports\\MonitoringPort]\n";
  const auto user = [](const std::string& value) {
    std::string settings = kDefaultPort;
    FWStringUtils::ReplaceAll(settings, "User=logwatcher", "User=" + value);
    return kDefaultRoot + " | " + settings;
  };
  const auto days = [](const std::string& value) {
    return "MaxLogFileDays=" + value + " MaxLogFileSize=";
  };
  const std::string failed = "failed: parse operation failed (";
  const std::map<std::string, std::string> cases = {
      // Only the outer pair of quotes goes; ";" and "#" start comments only at a line's start.
      {port + "User=\"a\"b\"\n", user("a\"b")},
      {port + "User=\"\n", user("\"")},
      {port + "User=\"\"\n", user("")},
      {port + "User= ; not # a comment\n", user("; not # a comment")},
      {port + "  User =\tx y \n", user("x y")},
      // The last of a key given twice counts; a repeated root header ends the file.
      {head + "MaxLogFileDays=3\nMaxLogFileDays=4\n", days("4")},
      {head + "MaxLogFileDays=2\n[SessionManager]\nMaxLogFileDays=5\n" + port, days("2")},
      {"", days("1")},
      {"; only\n  # comments\n\n", days("1")},
      {"FileVersion=\"1.0\"\n[SessionManager]\n", days("1")},
      {"FileVersion = 1.0\n[SessionManager]\n", failed + "version not supported)"},
      {"[SessionManager]\n", failed + "version not supported)"},
      {"FileVersion=1.0\nMaxLogFileDays=3\n[SessionManager]\n",
       failed + "parse error: MaxLogFileDays=3)"},
      {head + "[SessionManager\\Ports\\MonitoringPort\n",
       failed + "parse error: [SessionManager\\Ports\\MonitoringPort)"},
      {head + "[SessionManager\\Ports]\n", failed + "parse error: [SessionManager\\Ports])"},
      {head + "[SessionManager\\Sockets\\MonitoringPort]\n",
       failed + "parse error: [SessionManager\\Sockets\\MonitoringPort])"},
      {"FileVersion=1.0\n[MonitoringPort]\nName=x\n", "failed: Cannot cast to SessionManager"},
      {head + "[SessionManager\\Ports\\ProxyPort]\n", "failed: internal consistency error"},
      // Objects already made are released (LeakSanitizer watches).
      {port + "Name=A\n[SessionManager\\Ports\\SessionManager]\n",
       "failed: Cannot cast to container member class"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(Parse(text), expected) << text;
}

// A bad line is an FWEIniParseError at its line; a file that cannot be read, or a section the
// registry cannot make an object for, fails with an error of another type.
TEST(FWConfigTest, OnlyGrammarFailuresAreIniParseErrors) {
  const auto parse = [](const std::string& text, bool is_file) {
    SessionManager manager;
    try {
      FWIniParser("1.0", false).ParseToObject(manager, text, is_file);
    } catch (const FWEIniParseError& e) {
      return "grammar: " + e.GetFullText();
    } catch (const FWECantOpen& e) {
      return "load: " + e.GetObject() + " " + std::to_string(e.GetErrno());
    } catch (const FWException& e) {
      return "other: " + e.GetFullText();
    }
    return std::string("parsed");
  };
  EXPECT_EQ(parse("FileVersion=1.0\n[SessionManager]\n\nMaxLogFileDays 3\n", false),
            "grammar: Parse operation failed (parse error: MaxLogFileDays 3) (src/FWIniParser: 4)");
  EXPECT_EQ(parse("FileVersion=2.0\n", false),
            "grammar: Parse operation failed (version not supported) (src/FWIniParser: 1)");
  const testutil::TempDir dir;
  EXPECT_EQ(parse(dir.File("missing.cf"), true),
            "load: " + dir.File("missing.cf") + " " + std::to_string(ENOENT));
  EXPECT_EQ(parse("FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\ProxyPort]\n", false),
            "other: Internal consistency error (classes/FWClassFactory: 200)");
}

TEST(FWConfigTest, FileOfExactly100000BytesIsReadAndOneByteMoreIsNot) {
  testutil::TempDir dir;
  const std::string path = dir.File("Norvane.cf");
  std::string text = "FileVersion=1.0\n[SessionManager]\nMaxLogFileDays=4\n;";
  text += std::string(100000 - text.size() - 1, 'x') + "\n";
  testutil::WriteFile(path, text);
  EXPECT_EQ(Parse(path, true), "MaxLogFileDays=4 MaxLogFileSize=");
  testutil::WriteFile(path, "\n", true);
  EXPECT_EQ(Parse(path, true), "failed: Size exceeded (" + path + ")");
}

// Two descriptors per session, plus 8 of the daemon's own with one port, below the select limit
// of 1024: the soft limit is raised as far as the hard limit allows.
TEST(FWConfigTest, SoftDescriptorLimitIsRaisedForTheSessionPool) {
  SessionManager manager;
  manager.GetPorts().push_back(std::make_unique<MonitoringPort>());
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  ASSERT_GE(saved.rlim_max, 1024u) << "the test needs a hard descriptor limit of 1024";
  rlimit low = saved;
  low.rlim_cur = 200;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  EXPECT_EQ(manager.GetPoolSize(), 96);
  EXPECT_EQ(manager.FitDescriptorLimit(), "descriptor limit raised from 200 to 1024");
  EXPECT_EQ(manager.GetPoolSize(), 508);
  EXPECT_EQ(manager.FitDescriptorLimit(), "");
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

// ---- The class registry: what the service's class factory tells it ----

namespace {

// "Name(base, "caption", number)" of each class, in registry order.
std::string ClassList() {
  std::string text;
  for (const FWClass* cls : FWApplication::GetInstance().GetClasses()) {
    text += cls->GetName() + "(" + cls->GetBaseName() + ", \"" + cls->GetCaption() + "\", " +
            std::to_string(cls->GetNumber()) + ") ";
  }
  return text;
}

// One line per own member in the order added: name, type, size, required, caption, description;
// then the object members: name, element class, multiplicity, required, caption, description.
std::string OwnMembers(const std::string& class_name) {
  const FWClass* cls = FWApplication::GetInstance().GetClass(class_name);
  if (cls == nullptr) return "no class " + class_name;
  std::string text;
  for (const FWMember* m : cls->GetOwnMembers()) {
    text += m->GetName() + " " + m->GetTypeName() + " " + m->GetSize().GetAsString() + " " +
            m->GetRequired().GetAsString() + " \"" + m->GetCaption() + "\" \"" +
            m->GetDescription() + "\"\n";
  }
  for (const FWMemberObject* m : cls->GetOwnMemberObjects()) {
    text += m->GetName() + " " + m->GetTypeName() + " " + m->GetMultiplicity() + " " +
            m->GetRequired().GetAsString() + " \"" + m->GetCaption() + "\" \"" +
            m->GetDescription() + "\"\n";
  }
  return text;
}

}  // namespace

TEST(FWConfigTest, RegistryHoldsTheThreeServiceClassesSortedByName) {
  EXPECT_EQ(ClassList(),
            "MonitoringPort(ProxyPort, \"Norvane Settings\", 1) ProxyPort(FWObject, \"\", 2) "
            "SessionManager(FWObject, \"\", 3) ");
  const FWApplication& registry = FWApplication::GetInstance();
  EXPECT_EQ(registry.GetClass("ProxyPort"), registry.GetClasses()[1]);
  for (const char* absent : {"proxyport", "", "FWObject", "MonitoringSession"}) {
    EXPECT_EQ(registry.GetClass(absent), nullptr) << absent;
    EXPECT_EQ(registry.GetEnum(absent), nullptr) << absent;
  }
}

// The vocabulary of the configuration file. "were" and the class caption repeated for
// MonitoringInterval and User are what users have always been shown.
TEST(FWConfigTest, EachClassDescribesItsOwnMembersInTheOrderAdded) {
  EXPECT_EQ(OwnMembers("MonitoringPort"),
            "DocumentRoot FWString 0 1 \"Log File Path\" \"The file system path were to look for "
            "log files.\"\n"
            "MonitoringInterval FWInteger 0 0 \"Norvane Settings\" \"\"\n"
            "Password FWString 0 1 \"Password\" \"The password a client must submit to connect "
            "log feeds.\"\n"
            "SearchPattern FWString 0 1 \"Log File Search Pattern\" \"The search pattern used to "
            "find log files.\"\n"
            "User FWString 0 0 \"Norvane Settings\" \"\"\n");
  EXPECT_EQ(OwnMembers("ProxyPort"),
            "IncomingConnectionCount FWInteger 0 0 \"\" \"\"\n"
            "IncomingPort FWString 0 1 \"Port\" \"The port used by Norvane to listen for incoming "
            "client connections.\"\n"
            "IncomingServer FWString 0 0 \"Interface IP\" \"The IP address of the interface used "
            "by Norvane to listen for incoming client connections.\"\n"
            "IncomingTimeout FWInteger 0 0 \"\" \"\"\n"
            "KeepAliveTimeout FWInteger 0 0 \"\" \"\"\n"
            "Name FWString 30 0 \"\" \"\"\n"
            "OutgoingConnectionCount FWInteger 0 0 \"\" \"\"\n"
            "OutgoingPort FWString 0 0 \"\" \"\"\n"
            "OutgoingServer FWString 0 0 \"\" \"\"\n"
            "OutgoingTimeout FWInteger 0 0 \"\" \"\"\n");
  EXPECT_EQ(OwnMembers("SessionManager"),
            "MaxLogFileDays FWInteger 0 0 \"\" \"\"\n"
            "MaxLogFileSize FWInteger 0 0 \"\" \"\"\n"
            "Ports ProxyPort n 0 \"\" \"\"\n");
}

// The factory fills the registry once, and constructs only the concrete classes.
TEST(FWConfigTest, FactoryFillsOnceAndConstructsOnlyConcreteClasses) {
  FWApplication& registry = FWApplication::GetInstance();
  const std::string before = ClassList();
  try {
    registry.Init();
    ADD_FAILURE() << "a second fill succeeded";
  } catch (const FWEInternal& e) {
    EXPECT_EQ(e.GetFullText(), "Internal consistency error (classes/FWClassFactory: 115)");
  }
  EXPECT_EQ(ClassList(), before);
  try {
    delete registry.GetClass("ProxyPort")->NewInstance();
    ADD_FAILURE() << "an abstract ProxyPort was made";
  } catch (const FWEInternal& e) {
    EXPECT_EQ(e.GetFullText(), "Internal consistency error (classes/FWClassFactory: 200)");
  }
  const std::unique_ptr<FWObject> port(registry.GetClass("MonitoringPort")->NewInstance());
  ASSERT_NE(dynamic_cast<MonitoringPort*>(port.get()), nullptr);
  EXPECT_EQ(Settings(*port), kDefaultPort);
  const std::unique_ptr<FWObject> root(registry.GetClass("SessionManager")->NewInstance());
  ASSERT_NE(dynamic_cast<SessionManager*>(root.get()), nullptr);
  EXPECT_EQ(Settings(*root), kDefaultRoot);
  // The registry exists: its factory can no longer change.
  EXPECT_THROW(RegisterServiceClasses(), FWEInternal);
  EXPECT_EQ(ClassList(), before);
}
