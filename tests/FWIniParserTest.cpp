#include "FWIniParser.h"

#include <iterator>
#include <list>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FWException.h"
#include "FWLogStream.h"
#include "MonitoringPort.h"
#include "SessionManager.h"
#include "TestUtil.h"

namespace {

const std::string kDataDir = NORVANE_TEST_DATA_DIR;

// The example configuration as the writer produces it in memory ("\n" line ends).
const char kExampleText[] =
    "FileVersion=1.0\n"
    "\n[SessionManager]\n\n"
    "MaxLogFileDays=\"7\"\n"
    "\n[SessionManager\\Ports\\MonitoringPort]\n\n"
    "DocumentRoot=\"/var/log\"\n"
    "IncomingPort=\"9090\"\n"
    "\n[SessionManager\\Ports\\MonitoringPort]\n\n"
    "DocumentRoot=\"/srv/logs\"\n"
    "Name=\"Second\"\n";

const char kDefaultsText[] = "FileVersion=1.0\n\n[SessionManager]\n\n";

class FWIniParserTest : public ::testing::Test {
 protected:
  void TearDown() override {
    LogStream.SetBufferLimit(0);
    LogStream.ClearLogBuffer();
  }

  static MonitoringPort* AddPort(SessionManager& manager) {
    auto* port = new MonitoringPort();
    manager.GetPorts().push_back(port);
    return port;
  }
  static const MonitoringPort& PortAt(const SessionManager& manager, std::size_t index) {
    return dynamic_cast<const MonitoringPort&>(**std::next(manager.GetPorts().begin(), index));
  }

  // The configuration that the example text describes.
  static std::unique_ptr<SessionManager> ExampleManager() {
    auto manager = std::make_unique<SessionManager>();
    manager->SetMaxLogFileDays(FWVariable<int>(7));
    MonitoringPort* first = AddPort(*manager);
    first->SetDocumentRoot(FWString("/var/log"));
    first->SetIncomingPort(FWString("9090"));
    MonitoringPort* second = AddPort(*manager);
    second->SetDocumentRoot(FWString("/srv/logs"));
    second->SetName(FWString("Second"));
    return manager;
  }

  std::string Write(const SessionManager& manager) {
    std::string text;
    parser_.GenerateFromObject(manager, text, false);
    return text;
  }
  SessionManager Read(const std::string& text) {
    SessionManager manager;
    parser_.ParseToObject(manager, text, false);
    return manager;
  }
  // The raw message of the failure that parsing the text raises; "" when none.
  std::string ParseFailure(const std::string& text) {
    SessionManager manager;
    try {
      parser_.ParseToObject(manager, text, false);
    } catch (const FWException& e) {
      return e.GetNotification().GetRawText();
    }
    return "";
  }

  FWIniParser parser_{"1.0", false};
  testutil::TempDir dir_;
};

TEST_F(FWIniParserTest, ExampleWritesTheDocumentedText) {
  EXPECT_EQ(Write(*ExampleManager()), kExampleText);
  EXPECT_EQ(parser_.GetFileVersion(), "1.0");
}

TEST_F(FWIniParserTest, ExampleReadsBackToTheSameObjects) {
  const SessionManager manager = Read(kExampleText);
  EXPECT_TRUE(manager == *ExampleManager());
  ASSERT_EQ(manager.GetPorts().size(), 2u);
  EXPECT_EQ(PortAt(manager, 0).GetName(), "Monitoring");  // the default, not written
  EXPECT_EQ(PortAt(manager, 1).GetIncomingPort(), "9080");
  EXPECT_EQ(PortAt(manager, 1).GetName(), "Second");
  EXPECT_EQ(parser_.GetFileVersion(), "1.0");
}

TEST_F(FWIniParserTest, FileRoundTripUsesDosLineEndsByteForByte) {
  const std::string path = dir_.File("Norvane.cf");
  std::string target = path;
  parser_.GenerateFromObject(*ExampleManager(), target, true);
  EXPECT_EQ(testutil::ReadFile(path), testutil::ReadFile(kDataDir + "/FWIniParserExample.cf"));

  SessionManager manager;
  parser_.ParseToObject(manager, path, true);
  EXPECT_TRUE(manager == *ExampleManager());
}

TEST_F(FWIniParserTest, HandWrittenFileReadsLikeTheWrittenOne) {
  SessionManager manager;
  parser_.ParseToObject(manager, kDataDir + "/FWIniParserHandWritten.cf", true);
  EXPECT_TRUE(manager == *ExampleManager());
}

TEST_F(FWIniParserTest, DefaultConfigurationWritesOnlyVersionAndRootHeader) {
  const SessionManager defaults;
  EXPECT_EQ(Write(defaults), kDefaultsText);
  EXPECT_TRUE(Read(kDefaultsText) == defaults);
}

TEST_F(FWIniParserTest, EmptiedMembersAreWrittenAsEmptyAndReadBackNull) {
  SessionManager manager;
  manager.SetMaxLogFileDays(FWVariable<int>());
  AddPort(manager)->SetSearchPattern(FWString());
  const std::string text = Write(manager);
  EXPECT_EQ(text, std::string(kDefaultsText) + "MaxLogFileDays=\"\"\n" +
                      "\n[SessionManager\\Ports\\MonitoringPort]\n\nSearchPattern=\"\"\n");
  const SessionManager read = Read(text);
  EXPECT_TRUE(read.GetMaxLogFileDays().IsNull());
  EXPECT_TRUE(read == manager);
}

TEST_F(FWIniParserTest, ValuesAreNormalisedOnWriteAndQuotesStayInside) {
  SessionManager manager;
  MonitoringPort* port = AddPort(manager);
  port->SetDocumentRoot(FWString("  x  "));
  port->SetUser(FWString("x\r\ny"));
  port->SetPassword(FWString("a\"b"));
  const std::string text = Write(manager);
  EXPECT_NE(text.find("DocumentRoot=\" x \"\n"), std::string::npos) << text;
  EXPECT_NE(text.find("User=\"x y\"\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Password=\"a\"b\"\n"), std::string::npos) << text;

  const SessionManager read = Read(text);
  EXPECT_EQ(PortAt(read, 0).GetDocumentRoot(), " x ");
  EXPECT_EQ(PortAt(read, 0).GetUser(), "x y");
  EXPECT_EQ(PortAt(read, 0).GetPassword(), "a\"b");
}

TEST_F(FWIniParserTest, OnlyTheOuterPairOfQuotesIsRemoved) {
  const std::string head =
      "FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\MonitoringPort]\n";
  EXPECT_EQ(PortAt(Read(head + "User=\"a\"b\"\n"), 0).GetUser(), "a\"b");
  EXPECT_EQ(PortAt(Read(head + "User=\"\n"), 0).GetUser(), "\"");
  EXPECT_EQ(PortAt(Read(head + "User=\"\"\n"), 0).GetUser(), "");
  EXPECT_EQ(PortAt(Read(head + "User= ; not a comment # either\n"), 0).GetUser(),
            "; not a comment # either");
}

TEST_F(FWIniParserTest, TwoSuccessivePortSectionsGiveTwoPortsInFileOrder) {
  const SessionManager manager = Read(
      "FileVersion=1.0\n[SessionManager]\n"
      "[SessionManager\\Ports\\MonitoringPort]\nName=A\n"
      "[SessionManager\\Ports\\MonitoringPort]\nName=B\n"
      "[SessionManager\\Ports\\MonitoringPort]\nName=C\n");
  ASSERT_EQ(manager.GetPorts().size(), 3u);
  EXPECT_EQ(PortAt(manager, 0).GetName(), "A");
  EXPECT_EQ(PortAt(manager, 1).GetName(), "B");
  EXPECT_EQ(PortAt(manager, 2).GetName(), "C");
}

TEST_F(FWIniParserTest, SectionWithOnlyItsHeaderKeepsTheClassDefaults) {
  const SessionManager manager =
      Read("FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\MonitoringPort]\n");
  ASSERT_EQ(manager.GetPorts().size(), 1u);
  EXPECT_TRUE(PortAt(manager, 0) == MonitoringPort());
}

TEST_F(FWIniParserTest, KeyGivenTwiceKeepsTheLastValue) {
  EXPECT_EQ(Read("FileVersion=1.0\n[SessionManager]\nMaxLogFileDays=3\nMaxLogFileDays=4\n")
                .GetMaxLogFileDays(),
            FWVariable<int>(4));
}

TEST_F(FWIniParserTest, EmptyOrCommentOnlyTextGivesDefaultsWithoutVersion) {
  SessionManager manager;
  manager.SetMaxLogFileDays(FWVariable<int>(9));
  AddPort(manager);
  parser_.ParseToObject(manager, "", false);
  EXPECT_TRUE(manager == SessionManager());
  AddPort(manager);
  parser_.ParseToObject(manager, "; only\n  # comments\n\n", false);
  EXPECT_TRUE(manager == SessionManager());
  EXPECT_EQ(parser_.GetFileVersion(), "");
}

TEST_F(FWIniParserTest, VersionValueIsStrippedAndUnquoted) {
  EXPECT_EQ(ParseFailure("FileVersion= 1.0\n[SessionManager]\n"), "");
  EXPECT_EQ(ParseFailure("FileVersion=\"1.0\"\n[SessionManager]\n"), "");
  EXPECT_EQ(ParseFailure("x FileVersion=1.0 \n[SessionManager]\n"), "");
}

TEST_F(FWIniParserTest, RepeatedRootHeaderEndsTheParse) {
  const SessionManager manager = Read(
      "FileVersion=1.0\n[SessionManager]\nMaxLogFileDays=2\n[SessionManager]\n"
      "MaxLogFileDays=5\n[SessionManager\\Ports\\MonitoringPort]\n");
  EXPECT_EQ(manager.GetMaxLogFileDays(), FWVariable<int>(2));
  EXPECT_TRUE(manager.GetPorts().empty());
}

TEST_F(FWIniParserTest, EmptyFirstHeaderGivesDefaults) {
  EXPECT_TRUE(Read("FileVersion=1.0\n[]\nMaxLogFileDays=3\n") == SessionManager());
}

TEST_F(FWIniParserTest, UnknownKeyIsLoggedAndParsingGoesOn) {
  LogStream.SetBufferLimit(10000);
  const SessionManager manager =
      Read("FileVersion=1.0\n[SessionManager]\nColour = blue\nMaxLogFileDays=3\n");
  EXPECT_EQ(manager.GetMaxLogFileDays(), FWVariable<int>(3));
  const std::string& log = LogStream.GetLogBuffer();
  EXPECT_NE(log.find(" ERROR: Invalid configuration option (Colour)\n"), std::string::npos) << log;
}

// --- Failures ---

TEST_F(FWIniParserTest, MissingOrWrongVersionFails) {
  const std::string failure = "parse operation failed (version not supported)";
  EXPECT_EQ(ParseFailure("[SessionManager]\n"), failure);
  EXPECT_EQ(ParseFailure("FileVersion=1.1\n[SessionManager]\n"), failure);
  EXPECT_EQ(ParseFailure("FileVersion=1.0x\n[SessionManager]\n"), failure);
  EXPECT_EQ(ParseFailure("FileVersion = 1.0\n[SessionManager]\n"), failure);
}

TEST_F(FWIniParserTest, GrammarErrorsFailWithTheOffendingLine) {
  const std::string head = "FileVersion=1.0\n[SessionManager]\n";
  const std::string prefix = "parse operation failed (parse error: ";
  EXPECT_EQ(ParseFailure(head + "  MaxLogFileDays 3 \n"), prefix + "MaxLogFileDays 3)");
  EXPECT_EQ(ParseFailure(head + "[SessionManager\\Ports\\MonitoringPort\n"),
            prefix + "[SessionManager\\Ports\\MonitoringPort)");
  EXPECT_EQ(ParseFailure("FileVersion=1.0\n[Nothing]\n"), prefix + "[Nothing])");
  EXPECT_EQ(ParseFailure(head + "[SessionManager\\Ports]\n"), prefix + "[SessionManager\\Ports])");
  EXPECT_EQ(ParseFailure(head + "[SessionManager\\Sockets\\MonitoringPort]\n"),
            prefix + "[SessionManager\\Sockets\\MonitoringPort])");
  EXPECT_EQ(ParseFailure(head + "[SessionManager\\Ports\\Nothing]\n"),
            prefix + "[SessionManager\\Ports\\Nothing])");
}

TEST_F(FWIniParserTest, KeyBeforeFirstSectionFailsWithParseError) {
  EXPECT_EQ(ParseFailure("FileVersion=1.0\nMaxLogFileDays=3\n[SessionManager]\n"),
            "parse operation failed (parse error: MaxLogFileDays=3)");
}

TEST_F(FWIniParserTest, FailureCarriesParserSourceAndTextLine) {
  SessionManager manager;
  try {
    parser_.ParseToObject(manager, "FileVersion=1.0\n\n; c\n[SessionManager]\nbad line\n", false);
    FAIL() << "no failure";
  } catch (const FWEOperationFailed& e) {
    EXPECT_EQ(e.GetSource(), "src/FWIniParser");
    EXPECT_EQ(e.GetLine(), 5u);
    EXPECT_EQ(e.GetNotification().GetCode(), 10014);
  }
}

TEST_F(FWIniParserTest, ProxyPortSectionFailsBecauseTheClassIsAbstract) {
  SessionManager manager;
  try {
    parser_.ParseToObject(manager,
                          "FileVersion=1.0\n[SessionManager]\n"
                          "[SessionManager\\Ports\\ProxyPort]\n",
                          false);
    FAIL() << "no failure";
  } catch (const FWEInternal& e) {
    EXPECT_EQ(e.GetFullText(), "Internal consistency error (classes/FWClassFactory: 200)");
  }
}

// Run under LeakSanitizer: the manager and the port made before the error must be released.
TEST_F(FWIniParserTest, FailureAfterObjectsWereMadeLeavesTargetUnchanged) {
  SessionManager manager;
  manager.SetMaxLogFileDays(FWVariable<int>(9));
  EXPECT_EQ(ParseFailure("FileVersion=1.0\n[SessionManager]\nMaxLogFileDays=3\n"
                         "[SessionManager\\Ports\\MonitoringPort]\nName=A\n"
                         "[SessionManager\\Ports\\SessionManager]\n"),
            "Cannot cast to container member class");
  std::list<FWObject*> objects;
  EXPECT_THROW(parser_.ParseToList(objects,
                                   "FileVersion=1.0\n[SessionManager]\n"
                                   "[SessionManager\\Ports\\MonitoringPort]\nbroken\n",
                                   false),
               FWEOperationFailed);
  EXPECT_TRUE(objects.empty());
  EXPECT_EQ(manager.GetMaxLogFileDays(), FWVariable<int>(9));
}

TEST_F(FWIniParserTest, RootOfAnotherClassCannotFillTheManager) {
  EXPECT_EQ(ParseFailure("FileVersion=1.0\n[MonitoringPort]\nName=x\n"),
            "Cannot cast to SessionManager");
}

// --- Files ---

TEST_F(FWIniParserTest, MissingFileFailsUnlessTolerant) {
  const std::string missing = dir_.File("Norvane.cf");
  SessionManager manager;
  try {
    parser_.ParseToObject(manager, missing, true);
    FAIL() << "no failure";
  } catch (const FWECantOpen& e) {
    EXPECT_EQ(e.GetNotification().GetRawText(),
              "Cannot open file " + missing + " mode=read (No such file or directory)");
  }

  FWIniParser tolerant("1.0", true);
  manager.SetMaxLogFileDays(FWVariable<int>(9));
  AddPort(manager);
  tolerant.ParseToObject(manager, missing, true);
  EXPECT_TRUE(manager == SessionManager());
  tolerant.ParseToObject(manager, dir_.Path(), true);  // a directory in the file's place
  EXPECT_TRUE(manager == SessionManager());
}

TEST_F(FWIniParserTest, FileOfExactlyTheLimitIsReadAndOneByteMoreIsNot) {
  std::string text = "FileVersion=1.0\n[SessionManager]\nMaxLogFileDays=4\n;";
  text.append(FWIniParser::kMaxFileSize - text.size() - 1, 'x');
  text += "\n";
  const std::string path = dir_.File("Norvane.cf");
  testutil::WriteFile(path, text);
  SessionManager manager;
  parser_.ParseToObject(manager, path, true);
  EXPECT_EQ(manager.GetMaxLogFileDays(), FWVariable<int>(4));

  testutil::WriteFile(path, "\n", true);
  EXPECT_THROW(parser_.ParseToObject(manager, path, true), FWESizeExceeded);
  FWIniParser tolerant("1.0", true);
  tolerant.ParseToObject(manager, path, true);
  EXPECT_TRUE(manager == SessionManager());
}

TEST_F(FWIniParserTest, TolerantReaderStillFailsOnPresentFileThatDoesNotParse) {
  const std::string path = dir_.File("Norvane.cf");
  testutil::WriteFile(path, "FileVersion=2.0\n[SessionManager]\n");
  FWIniParser tolerant("1.0", true);
  SessionManager manager;
  EXPECT_THROW(tolerant.ParseToObject(manager, path, true), FWEOperationFailed);
}

TEST_F(FWIniParserTest, WritingToUnopenablePathFailsWithCantOpen) {
  testutil::WriteFile(dir_.File("plain"), "x");
  std::string target = dir_.File("plain/Norvane.cf");
  EXPECT_THROW(parser_.GenerateFromObject(SessionManager(), target, true), FWECantOpen);
}

}  // namespace
