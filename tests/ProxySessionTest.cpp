#include "ProxySession.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "FWLogStream.h"
#include "FWMIMEParser.h"
#include "FWSocket.h"
#include "ProxyPort.h"
#include "TestUtil.h"

namespace {

// The name the system's resolver gives 127.0.0.1 ("localhost" from /etc/hosts on a standard
// machine), asked independently of the socket manager; "" when it has none.
constexpr int kWaitMs = 5000;

bool WaitReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, kWaitMs) == 1;
}

// Bytes queued for reading on fd, for waits that must see a whole write arrive.
int Queued(int fd) {
  int queued = -1;
  return ::ioctl(fd, FIONREAD, &queued) == 0 ? queued : -1;
}

// One end of a loopback connection that the test plays: a client or the server a session
// connects to. Owns its descriptor.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}
  Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Peer& operator=(Peer&& other) noexcept {
    Close();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~Peer() { Close(); }

  int Fd() const { return fd_; }

  static Peer Connect(int port) {
    FWSocketManager& sockets = FWSocketManager::GetInstance();
    sockaddr_in address{};
    sockets.AddressCreate(address, "127.0.0.1", std::to_string(port), "tcp");
    Peer peer(sockets.CreateSocket("tcp"));
    sockets.Connect(peer.fd_, address);
    return peer;
  }
  static Peer Accept(int listening) {
    EXPECT_TRUE(WaitReadable(listening)) << "no connection to accept";
    return Peer(::accept(listening, nullptr, nullptr));
  }

  void Write(const std::string& data) {
    ASSERT_EQ(::send(fd_, data.data(), data.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(data.size()));
  }
  // Reads until `size` bytes have come or a wait runs out.
  std::string Read(std::size_t size) {
    std::string data;
    char buffer[4096];
    while (data.size() < size && WaitReadable(fd_)) {
      const ssize_t got = ::recv(fd_, buffer, std::min(sizeof(buffer), size - data.size()), 0);
      if (got <= 0) break;
      data.append(buffer, static_cast<std::size_t>(got));
    }
    return data;
  }
  bool SeesEndOfStream() {
    char byte = 0;
    return WaitReadable(fd_) && ::recv(fd_, &byte, 1, 0) == 0;
  }
  // Closes with a zero linger time: the other side gets a reset.
  void Reset() {
    const linger reset{1, 0};
    ASSERT_EQ(::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
    Close();
  }
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// Opens the client side only and queues what the server side sends for the client.
class TestSession : public ProxySession {
 public:
  using ProxySession::ProxySession;

  void Open(int listening) override {
    OpenIncoming(listening);
    SetOpen(true);
  }
  void CheckActive() override {}
  std::size_t GetMemoryRequired() const override { return 0; }
  bool ReadyToReceiveIncoming() override { return true; }
  bool ReadyToReceiveOutgoing() override { return true; }
  bool Finished() override { return false; }
  void QueueIncoming(const std::string& data, bool) override { AppendIncoming(data); }
};

// Echoes every client chunk back and is finished once it has seen "quit".
class EchoSession final : public TestSession {
 public:
  using TestSession::TestSession;

  bool Finished() override { return seen_quit_; }
  void QueueOutgoing(const std::string& data) override {
    chunks_.push_back(data);
    if (data == "boom") throw FWEProtocolError(FW_HERE, "boom");
    if (data.find("quit") != std::string::npos) seen_quit_ = true;
    AppendIncoming(data);
  }
  const std::vector<std::string>& Chunks() const { return chunks_; }

 private:
  std::vector<std::string> chunks_;
  bool seen_quit_ = false;
};

// Passes bytes between the client and the port's outgoing server, unchanged.
class ForwardingSession final : public TestSession {
 public:
  using TestSession::TestSession;

  void Open(int listening) override {
    TestSession::Open(listening);
    OpenOutgoing(GetPort()->GetOutgoingServer(), GetPort()->GetOutgoingPort());
  }
  void QueueOutgoing(const std::string& data) override { AppendOutgoing(data); }
};

class TestPort final : public ProxyPort {
 public:
  TestPort* New() const override { return new TestPort(); }
  TestPort* Clone() const override { return new TestPort(*this); }
  ProxySession* SessionCreate(int number) override { return new EchoSession(number, this); }
};

}  // namespace

class ProxySessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.ClearLogBuffer();
    LogStream.SetBufferLimit(1 << 20);
    LogStream.SetOptions(0);
    port_.SetIncomingPort(FWString(std::to_string(listener_.Port())));
  }
  void TearDown() override {
    LogStream.Close();
    LogStream.SetBufferLimit(0);
    LogStream.ClearLogBuffer();
    LogStream.SetOptions(0);
  }

  // Connects a client and lets a new session accept it, as the port does.
  template <typename Session = EchoSession>
  std::unique_ptr<Session> Accept(int number) {
    client_ = Peer::Connect(listener_.Port());
    auto session = std::make_unique<Session>(number, &port_);
    EXPECT_TRUE(WaitReadable(listener_.Fd()));
    session->Open(listener_.Fd());
    return session;
  }
  static int Receive(ProxySession& session) {
    EXPECT_TRUE(WaitReadable(session.GetIncomingSocket())) << "client sent nothing";
    return session.ReceiveIncoming();
  }
  // The log lines from the session prefix on (the time stamp cut off).
  static std::vector<std::string> LogLines() {
    std::vector<std::string> lines;
    std::istringstream stream(LogStream.GetLogBuffer());
    for (std::string line; std::getline(stream, line);) {
      const std::size_t start = line.find("Session ");
      lines.push_back(start == std::string::npos ? line : line.substr(start));
    }
    return lines;
  }
  using Lines = std::vector<std::string>;

  testutil::LoopbackListener listener_;
  TestPort port_;
  Peer client_{-1};
};

TEST_F(ProxySessionTest, AcceptRecordsBothAddressesAndTimeAndLogsNothingByDefault) {
  const std::time_t before = std::time(nullptr);
  auto session = Accept(7);
  const std::time_t after = std::time(nullptr);
  EXPECT_TRUE(session->IsOpen());
  EXPECT_GT(session->GetIncomingSocket(), 0);
  EXPECT_EQ(session->GetOutgoingSocket(), 0);
  EXPECT_EQ(session->GetIncomingAddress(), "127.0.0.1");
  EXPECT_EQ(session->GetIncomingHost(), "");
  EXPECT_EQ(session->GetLocalAddress(), "127.0.0.1");
  EXPECT_EQ(session->GetLocalHost(), "");  // no reverse look-up on the loop
  EXPECT_GE(session->GetStartTime(), before);
  EXPECT_LE(session->GetStartTime(), after);
  EXPECT_EQ(session->GetAcceptDate(), FWMIMEParser::MIMETime(session->GetStartTime()));
  EXPECT_EQ(session->GetLogPrefix(), "Session 7: ");
  EXPECT_EQ(LogLines(), Lines{});
}

TEST_F(ProxySessionTest, ReceivedBytesAreReadAtMost32000AtATimeAndSentAsTheSocketTakesThem) {
  auto session = Accept(0);
  client_.Write("hello");
  EXPECT_EQ(Receive(*session), 5);
  EXPECT_EQ(session->Chunks(), Lines{"hello"});
  EXPECT_EQ(session->GetIncomingBuffer().Text(), "hello");
  EXPECT_NE(session->GetIncomingActivity(), 0);
  EXPECT_EQ(session->SendIncoming(), 5);
  EXPECT_EQ(session->GetIncomingBuffer().Text(), "");
  EXPECT_EQ(client_.Read(5), "hello");
  EXPECT_EQ(session->SendIncoming(), 0);     // nothing queued
  EXPECT_EQ(session->ReceiveOutgoing(), 0);  // no server side
  EXPECT_EQ(session->SendOutgoing(), 0);
  session->CheckFinished();
  EXPECT_TRUE(session->IsOpen());
  EXPECT_EQ(LogLines(), Lines{});
  std::string data(32001, 'x');
  data.back() = 'y';
  client_.Write(data);
  ASSERT_TRUE(testutil::WaitUntil([&] { return Queued(session->GetIncomingSocket()) == 32001; }));
  EXPECT_EQ(session->ReceiveIncoming(), 32000);
  EXPECT_EQ(session->ReceiveIncoming(), 1);
  EXPECT_EQ(session->GetIncomingBuffer().size(), 32001u);
  EXPECT_EQ(session->SendIncoming(), 32001);  // both chunks in one call
  EXPECT_TRUE(session->GetIncomingBuffer().empty());
  EXPECT_EQ(client_.Read(32001), data);
}

// Finished or not, a reply that was not sent makes the close worth a log line.
TEST_F(ProxySessionTest, ClientClosingWithReplyQueuedIsLoggedAndDropsReply) {
  for (const std::string data : {"hello", "quit"}) {
    LogStream.ClearLogBuffer();
    auto session = Accept(0);
    client_.Write(data);
    client_.Close();
    EXPECT_EQ(Receive(*session), static_cast<int>(data.size()));
    session->CheckFinished();  // the reply is not sent yet
    EXPECT_TRUE(session->IsOpen()) << data;
    EXPECT_EQ(Receive(*session), 0);
    EXPECT_EQ(LogLines(), Lines{"Session 0: Connection closed by client"});
    EXPECT_FALSE(session->IsOpen());
    EXPECT_TRUE(session->IsIncomingClosed());
    EXPECT_EQ(session->GetIncomingSocket(), 0);
    EXPECT_EQ(session->GetIncomingBuffer().Text(), "");
  }
}

TEST_F(ProxySessionTest, ClientClosingAfterFinishedAndDrainedIsQuietAndCheckFinishedCloses) {
  auto session = Accept(0);
  client_.Write("quit");
  EXPECT_EQ(Receive(*session), 4);
  EXPECT_EQ(session->SendIncoming(), 4);
  EXPECT_EQ(client_.Read(4), "quit");
  client_.Close();
  EXPECT_EQ(Receive(*session), 0);
  EXPECT_TRUE(session->IsIncomingClosed());
  EXPECT_TRUE(session->IsOpen());
  session->CheckFinished();
  EXPECT_FALSE(session->IsOpen());
  EXPECT_EQ(LogLines(), Lines{});
}

TEST_F(ProxySessionTest, EmptyReadThatWouldBlockStillReachesQueueOutgoing) {
  auto session = Accept(0);
  FWSocketManager::GetInstance().SetBlocking(session->GetIncomingSocket(), false);
  EXPECT_EQ(session->ReceiveIncoming(), 0);
  EXPECT_EQ(session->Chunks(), Lines{""});
  EXPECT_TRUE(session->IsOpen());
  EXPECT_FALSE(session->IsIncomingClosed());
  EXPECT_EQ(LogLines(), Lines{});
}

TEST_F(ProxySessionTest, ForwardingSessionPassesBytesBothWays) {
  testutil::LoopbackListener server_listener;
  port_.SetOutgoingServer(FWString("127.0.0.1"));
  port_.SetOutgoingPort(FWString(std::to_string(server_listener.Port())));
  auto session = Accept<ForwardingSession>(5);
  Peer server = Peer::Accept(server_listener.Fd());
  ASSERT_NE(session->GetOutgoingSocket(), 0);
  EXPECT_EQ(session->GetOutgoingAddress(), "127.0.0.1");
  EXPECT_EQ(session->GetOutgoingHost(), "");
  EXPECT_NE(session->GetOutgoingActivity(), 0);

  client_.Write("ping");
  EXPECT_EQ(Receive(*session), 4);
  EXPECT_EQ(session->GetOutgoingBuffer().Text(), "ping");
  EXPECT_EQ(session->SendOutgoing(), 4);
  EXPECT_EQ(server.Read(4), "ping");

  server.Write("pong");
  ASSERT_TRUE(WaitReadable(session->GetOutgoingSocket()));
  EXPECT_EQ(session->ReceiveOutgoing(), 4);
  EXPECT_EQ(session->GetIncomingBuffer().Text(), "pong");
  EXPECT_EQ(session->SendIncoming(), 4);
  EXPECT_EQ(client_.Read(4), "pong");

  server.Close();
  ASSERT_TRUE(WaitReadable(session->GetOutgoingSocket()));
  EXPECT_EQ(session->ReceiveOutgoing(), 0);
  EXPECT_EQ(LogLines(), Lines{"Session 5: Connection closed by server"});
  EXPECT_TRUE(session->IsOutgoingClosed());
  EXPECT_FALSE(session->IsOpen());
  EXPECT_EQ(session->GetOutgoingSocket(), 0);
  EXPECT_TRUE(client_.SeesEndOfStream());
}

TEST_F(ProxySessionTest, ConnectionLinesAreLoggedOnceWhenSwitchedOnAndCloseTwiceDoesNothing) {
  LogStream.SetOptions(FWLogStream::kLogConnections);
  auto session = Accept(3);
  const std::string port = std::to_string(listener_.Port());
  EXPECT_EQ(LogLines(),
            Lines{"Session 3: Connection from 127.0.0.1 accepted on 127.0.0.1:" + port});
  client_.Write("abc");
  EXPECT_EQ(Receive(*session), 3);
  session->Close();
  EXPECT_FALSE(session->IsOpen());
  EXPECT_EQ(session->GetIncomingSocket(), 0);
  EXPECT_EQ(session->GetIncomingBuffer().Text(), "");
  EXPECT_TRUE(client_.SeesEndOfStream());
  session->Close();
  EXPECT_EQ(session->ReceiveIncoming(), 0);
  EXPECT_EQ(session->Chunks(), Lines{"abc"});  // no read after the close
  EXPECT_EQ(LogLines(), (Lines{"Session 3: Connection from 127.0.0.1 accepted on 127.0.0.1:" + port,
                               "Session 3: Connection from 127.0.0.1 closed"}));
}

TEST_F(ProxySessionTest, DestroyingAnUnclosedSessionClosesItsSocketWithoutLogging) {
  LogStream.SetOptions(FWLogStream::kLogConnections);
  auto session = Accept(1);
  LogStream.ClearLogBuffer();
  session.reset();
  EXPECT_TRUE(client_.SeesEndOfStream());
  EXPECT_EQ(LogLines(), Lines{});
}

// Failures: logged under the session prefix; only the subclass's own exceptions propagate.

TEST_F(ProxySessionTest, ConnectToClosedPortLogsOneLineAndSessionStaysOpen) {
  const int closed_port = testutil::LoopbackListener().Port();
  auto session = Accept(4);
  const std::time_t before = std::time(nullptr);
  session->OpenOutgoing("127.0.0.1", std::to_string(closed_port));
  EXPECT_EQ(LogLines(), Lines{"Session 4: Connect to 127.0.0.1:" + std::to_string(closed_port) +
                              " failed: (connect) Connection refused"});
  EXPECT_EQ(session->GetOutgoingSocket(), 0);
  EXPECT_GE(session->GetOutgoingActivity(), before);
  EXPECT_TRUE(session->IsOpen());
  EXPECT_GT(session->GetIncomingSocket(), 0);
}

TEST_F(ProxySessionTest, ResetByClientLogsReceiveErrorAndCloses) {
  auto session = Accept(2);
  client_.Reset();
  EXPECT_EQ(Receive(*session), 0);
  EXPECT_EQ(LogLines(),
            Lines{"Session 2: Receive from client: (receive) Connection reset by peer"});
  EXPECT_FALSE(session->IsOpen());
}

TEST_F(ProxySessionTest, SendToResetClientLogsSendErrorAndCloses) {
  auto session = Accept(2);
  client_.Write("hello");
  EXPECT_EQ(Receive(*session), 5);
  client_.Reset();
  ASSERT_TRUE(WaitReadable(session->GetIncomingSocket()));
  EXPECT_EQ(session->SendIncoming(), 0);
  EXPECT_EQ(LogLines(), Lines{"Session 2: Send to client: (send) Connection reset by peer"});
  EXPECT_FALSE(session->IsOpen());
  EXPECT_EQ(session->GetIncomingBuffer().Text(), "");
}

TEST_F(ProxySessionTest, QueueExceptionLeavesSessionOpenAndAcceptFailureLeavesNoSocket) {
  auto open = Accept(0);
  client_.Write("boom");
  EXPECT_THROW(Receive(*open), FWEProtocolError);
  EXPECT_TRUE(open->IsOpen());
  EXPECT_EQ(LogLines(), Lines{});
  const Peer lone(FWSocketManager::GetInstance().CreateSocket("tcp"));
  EchoSession session(0, &port_);
  EXPECT_THROW(session.Open(lone.Fd()), FWESocketError);
  EXPECT_EQ(session.GetIncomingSocket(), 0);
  EXPECT_FALSE(session.IsOpen());
}
