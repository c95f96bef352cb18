// The configuration as an operator writes it: the documented defaults of every setting, the
// shipped example, the corners of the file's grammar and its failures, and the descriptor limit
// the session pool needs. How norvaned reports all this is in NorvanedTest.
#include <sys/resource.h>

#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWException.h"
#include "FWIniParser.h"
#include "FWMember.h"
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
