// One proxy session driven call by call, without the loop: what its connections record and log,
// and how they fail.
#include "ProxySession.h"

#include <poll.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "FWLogStream.h"
#include "FWSocket.h"
#include "TestPorts.h"
#include "TestUtil.h"

namespace {

using testutil::FeedPeer;
using testutil::LoopPort;
using testutil::TestSession;
using Lines = std::vector<std::string>;

bool WaitReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 10000) == 1;
}

class ProxySessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.SetOptions(0);
    port_.SetIncomingPort(FWString(std::to_string(listener_.Port())));
  }

  // Connects a client and lets a new session accept it, as the port does.
  std::unique_ptr<TestSession> Accept(int number) {
    client_ = std::make_unique<FeedPeer>(listener_.Port());
    auto session = std::make_unique<TestSession>(number, &port_, false);
    EXPECT_TRUE(WaitReadable(listener_.Fd()));
    session->Open(listener_.Fd());
    return session;
  }
  static int Receive(ProxySession& session) {
    EXPECT_TRUE(WaitReadable(session.GetIncomingSocket())) << "client sent nothing";
    return session.ReceiveIncoming();
  }

  testutil::LogCapture log_;
  testutil::LoopbackListener listener_;
  LoopPort port_;
  std::unique_ptr<FeedPeer> client_;
};

TEST_F(ProxySessionTest, AcceptRecordsBothEndsAndConnectionLinesAreLoggedOnceWhenSwitchedOn) {
  LogStream.SetOptions(FWLogStream::kLogConnections);
  auto session = Accept(3);
  EXPECT_TRUE(session->IsOpen());
  client_->SendRaw("abc");
  EXPECT_EQ(Receive(*session), 3);
  session->Close();
  EXPECT_EQ(session->GetIncomingSocket(), 0);
  EXPECT_EQ(session->GetIncomingBuffer().Text(), "");
  EXPECT_TRUE(client_->ReceiveRaw(1).empty() && client_->Closed());
  session->Close();
  EXPECT_EQ(session->ReceiveIncoming(), 0);
  EXPECT_EQ(log_.Lines(), (Lines{"Session 3: Connection from 127.0.0.1 accepted on 127.0.0.1:" +
                                     std::to_string(listener_.Port()),
                                 "Session 3: Connection from 127.0.0.1 closed"}));
}

// A reply that was not sent makes the client's close worth a log line, finished or not; after a
// finished session's last reply the close is quiet and CheckFinished closes.
TEST_F(ProxySessionTest, ClientClosingIsLoggedOnlyWhileAReplyIsQueued) {
  for (const std::string data : {"hello", "quit", "quit drained"}) {
    SCOPED_TRACE(data);
    LogStream.ClearLogBuffer();
    auto session = Accept(0);
    client_->SendRaw(data);
    EXPECT_EQ(Receive(*session), static_cast<int>(data.size()));
    if (data == "quit drained") {
      EXPECT_EQ(session->SendIncoming(), 12);
      EXPECT_EQ(client_->ReceiveRaw(12), data);
    }
    client_->Close();
    const bool drained = data == "quit drained";
    if (!drained) {
      session->CheckFinished();
      EXPECT_TRUE(session->IsOpen());  // the reply is not sent yet
    }
    EXPECT_EQ(Receive(*session), 0);
    EXPECT_TRUE(session->IsIncomingClosed());
    EXPECT_EQ(session->IsOpen(), drained);
    session->CheckFinished();
    EXPECT_FALSE(session->IsOpen());
    EXPECT_EQ(session->GetIncomingBuffer().Text(), "");
    EXPECT_EQ(log_.Lines(), drained ? Lines{} : Lines{"Session 0: Connection closed by client"});
  }
}

// ---- Failures: logged under the session prefix; only the subclass's own exceptions propagate ----

TEST_F(ProxySessionTest, FailedConnectLeavesTheSessionOpenAndAResetByTheClientClosesIt) {
  const std::string closed_port = std::to_string(testutil::FreePort());
  auto receiving = Accept(2);
  const std::time_t before = std::time(nullptr);
  receiving->OpenOutgoing("127.0.0.1", closed_port);
  EXPECT_EQ(receiving->GetOutgoingSocket(), 0);
  EXPECT_GE(receiving->GetOutgoingActivity(), before);
  EXPECT_TRUE(receiving->IsOpen());
  client_->Reset();
  EXPECT_EQ(Receive(*receiving), 0);
  EXPECT_FALSE(receiving->IsOpen());
  auto sending = Accept(2);
  client_->SendRaw("hello");
  EXPECT_EQ(Receive(*sending), 5);
  client_->Reset();
  ASSERT_TRUE(WaitReadable(sending->GetIncomingSocket()));
  EXPECT_EQ(sending->SendIncoming(), 0);
  EXPECT_FALSE(sending->IsOpen());
  EXPECT_EQ(sending->GetIncomingBuffer().Text(), "");
  EXPECT_EQ(log_.Lines(),
            (Lines{"Session 2: Connect to 127.0.0.1:" + closed_port +
                       " failed: (connect) Connection refused",
                   "Session 2: Receive from client: (receive) Connection reset by peer",
                   "Session 2: Send to client: (send) Connection reset by peer"}));
}

TEST_F(ProxySessionTest, QueueExceptionLeavesSessionOpenAndAcceptFailureLeavesNoSocket) {
  auto open = Accept(0);
  client_->SendRaw("boom");
  EXPECT_THROW(Receive(*open), FWEProtocolError);
  EXPECT_TRUE(open->IsOpen());
  EXPECT_EQ(log_.Lines(), Lines{});
  const int lone = FWSocketManager::GetInstance().CreateSocket("tcp");
  TestSession session(0, &port_, false);
  EXPECT_THROW(session.Open(lone), FWESocketError);
  ::close(lone);
  EXPECT_EQ(session.GetIncomingSocket(), 0);
  EXPECT_FALSE(session.IsOpen());
}

}  // namespace
