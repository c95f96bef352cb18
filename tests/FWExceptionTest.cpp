#include "FWException.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct BuilderCase {
  std::function<FWNotification()> build;
  int32_t code;
  std::string text;
};

// Every builder in code order, with the exact text it makes from sample arguments.
std::vector<BuilderCase> AllBuilders() {
  return {
      {[] { return FWMInternal(); }, 10000, "internal consistency error"},
      {[] { return FWMCastFromNull(); }, 10001, "Illegal cast from null value"},
      {[] { return FWMBadCast("FWString"); }, 10002, "Cannot cast to FWString"},
      {[] { return FWMBadMember("Port", "SessionManager"); }, 10003,
       "Port is not a member of SessionManager"},
      {[] { return FWMIllegalOperationInState("Open", 3); }, 10004,
       "Operation Open not available while in state 3"},
      {[] { return FWMIllegalOperationInContext("Insert"); }, 10005,
       "Context does not support Insert"},
      {[] { return FWMAccessAtEnd("Get"); }, 10006, "Get after last record"},
      {[] { return FWMOperationNotAvailable("Delete"); }, 10007, "Operation Delete not available"},
      {[] { return FWMCantPost("no name"); }, 10008, "Cannot save invalid object (no name)"},
      {[] { return FWMXMLParserError("bad tag"); }, 10009, "XML parser error: bad tag"},
      {[] { return FWMCantControlService("stop", "denied"); }, 10010,
       "Cannot stop service (denied)"},
      {[] { return FWMSocketError("bind", "Address already in use"); }, 10011,
       "(bind) Address already in use"},
      {[] { return FWMProtocolError("bad frame"); }, 10012, "protocol error: bad frame"},
      {[] { return FWMCantOpen("/x/y", "read", "No such file or directory"); }, 10013,
       "Cannot open file /x/y mode=read (No such file or directory)"},
      {[] { return FWMOperationFailed("parse", "line 3"); }, 10014,
       "parse operation failed (line 3)"},
      {[] { return FWMSizeExceeded("big.cf"); }, 10015, "Size exceeded (big.cf)"},
      {[] { return FWMAssertionFailed("Subscriber && this"); }, 10016,
       "Assertion Failed (Subscriber && this)"},
      {[] { return FWMUnhandledException("ignored detail"); }, 10017, "Unhandled Exception"},
      {[] { return FWMSystemException("disk gone"); }, 10018,
       "disk gone, please report this error to the software vendor"},
      {[] { return FWMObjectRequired("Port"); }, 10019, "Port required"},
      {[] { return FWMTooManyObjects("Manager"); }, 10020, "at most one Manager allowed"},
      {[] { return FWMValueRequired("Password"); }, 10021, "Password must not be empty"},
  };
}

}  // namespace

TEST(FWExceptionTest, EveryBuilderHasItsTextCodeAndPlainSeverity) {
  for (const BuilderCase& c : AllBuilders()) {
    const FWNotification n = c.build();
    EXPECT_EQ(n.GetRawText(), c.text) << "code " << c.code;
    EXPECT_EQ(n.GetCode(), c.code) << c.text;
    EXPECT_EQ(n.GetSeverity(), FWNotification::kMessage) << c.text;
  }
}

TEST(FWExceptionTest, ExceptionsCarryTheirBuildersNotificationAndLocation) {
  const FWECantOpen e("src/FWStringUtils", 120, "a.cf", "read", "Permission denied");
  EXPECT_EQ(e.GetSource(), "src/FWStringUtils");
  EXPECT_EQ(e.GetLine(), 120u);
  EXPECT_EQ(e.GetNotification().GetCode(), 10013);
  EXPECT_EQ(e.GetText(), "Cannot open file a.cf mode=read (Permission denied)");
  EXPECT_EQ(e.GetFullText(),
            "Cannot open file a.cf mode=read (Permission denied) (src/FWStringUtils: 120)");

  const FWEIllegalOperationInState state("s", 1, "Run", 7);
  EXPECT_EQ(state.GetText(), "Operation Run not available while in state 7");
}

TEST(FWExceptionTest, GetTextUpperCasesTheFirstLetterOnly) {
  EXPECT_EQ(FWEInternal("a", 7).GetText(), "Internal consistency error");
  EXPECT_EQ(FWEInternal("a", 7).GetNotification().GetRawText(), "internal consistency error");
  EXPECT_EQ(FWEProtocolError("f", 1, "bad").GetText(), "Protocol error: bad");
  EXPECT_EQ(FWETooManyObjects("f", 1, "port").GetText(), "At most one port allowed");
  EXPECT_EQ(FWEOperationFailed("f", 1, "parse", "x").GetText(), "Parse operation failed (x)");
}

TEST(FWExceptionTest, GetFullTextAppendsSourceAndLine) {
  EXPECT_EQ(FWEInternal("a", 7).GetFullText(), "Internal consistency error (a: 7)");
  EXPECT_EQ(FWESocketError("src/FWSocket", 138, "bind", "Address already in use").GetFullText(),
            "(bind) Address already in use (src/FWSocket: 138)");
}

TEST(FWExceptionTest, PercentSignsInArgumentsPrintAsThemselves) {
  EXPECT_EQ(FWMBadCast("%s%n%d").GetRawText(), "Cannot cast to %s%n%d");
  EXPECT_EQ(FWEValueRequired("f", 1, "100%").GetFullText(), "100% must not be empty (f: 1)");
}

TEST(FWExceptionTest, CaughtByReferenceToTheRoot) {
  try {
    throw FWESizeExceeded(FW_HERE, "Norvane.cf");
  } catch (const FWException& e) {
    EXPECT_EQ(e.GetText(), "Size exceeded (Norvane.cf)");
    EXPECT_EQ(e.GetSource(), "FWExceptionTest.cpp");
    return;
  }
  FAIL() << "the exception was not caught as FWException";
}
