#include "ProxyPort.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWException.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWPublishSubscribe.h"
#include "FWSocket.h"
#include "MonitoringPort.h"
#include "ProxySession.h"
#include "TestUtil.h"

namespace {

bool WaitReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 5000) == 1;
}

// A loopback client; owns its descriptor.
class Client {
 public:
  explicit Client(int port) : fd_(FWSocketManager::GetInstance().CreateSocket("tcp")) {
    sockaddr_in address{};
    FWSocketManager::GetInstance().AddressCreate(address, "127.0.0.1", std::to_string(port), "tcp");
    FWSocketManager::GetInstance().Connect(fd_, address);
  }
  ~Client() { ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool SeesEndOfStream() const {
    char byte = 0;
    return WaitReadable(fd_) && ::recv(fd_, &byte, 1, 0) == 0;
  }

 private:
  const int fd_;
};

// Accepts its client; with fail_open it then throws, as a session whose start-up fails.
class AcceptingSession final : public ProxySession {
 public:
  AcceptingSession(int number, ProxyPort* port, bool fail_open)
      : ProxySession(number, port), fail_open_(fail_open) {}

  void Open(int listening) override {
    OpenIncoming(listening);
    SetOpen(true);
    if (fail_open_) throw FWEProtocolError(FW_HERE, "no greeting");
  }
  void CheckActive() override {}
  std::size_t GetMemoryRequired() const override { return 0; }
  bool ReadyToReceiveIncoming() override { return true; }
  bool ReadyToReceiveOutgoing() override { return true; }
  bool Finished() override { return false; }
  void QueueIncoming(const std::string&, bool) override {}
  void QueueOutgoing(const std::string&) override {}

 private:
  const bool fail_open_;
};

class AcceptingPort final : public ProxyPort {
 public:
  AcceptingPort* New() const override { return new AcceptingPort(); }
  AcceptingPort* Clone() const override { return new AcceptingPort(*this); }
  ProxySession* SessionCreate(int number) override {
    return new AcceptingSession(number, this, fail_open_);
  }
  void SetFailOpen(bool fail) { fail_open_ = fail; }

 private:
  bool fail_open_ = false;
};

class ProxyPortTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.ClearLogBuffer();
    LogStream.SetBufferLimit(1 << 20);
    // The port must be known before Open: a listener on port 0 tells a free one, and closes it.
    port_number_ = std::to_string(testutil::LoopbackListener().Port());
    port_.SetIncomingServer(FWString("127.0.0.1"));
    port_.SetIncomingPort(FWString(port_number_));
  }
  void TearDown() override {
    LogStream.SetBufferLimit(0);
    LogStream.ClearLogBuffer();
  }

  // The log lines without their time stamps.
  static std::vector<std::string> LogLines() {
    std::vector<std::string> lines;
    std::istringstream stream(LogStream.GetLogBuffer());
    for (std::string line; std::getline(stream, line);) lines.push_back(line.substr(23));
    return lines;
  }
  using Lines = std::vector<std::string>;

  std::string port_number_;
  AcceptingPort port_;
};

// ---- Configuration side ----

// ProxyPort is abstract; MonitoringPort is its one concrete class.
TEST_F(ProxyPortTest, MissingIncomingPortGivesOneValueRequiredNotification) {
  MonitoringPort port;
  port.SetIncomingPort(FWString());
  std::list<FWNotification> notifications;
  port.ProxyPort::Validate(notifications);
  ASSERT_EQ(notifications.size(), 1u);
  EXPECT_EQ(notifications.front().GetRawText(), "Port must not be empty");
  EXPECT_EQ(notifications.front().GetSeverity(), FWNotification::kMessage);
}

TEST_F(ProxyPortTest, ComparisonCoversTheProxyPortMembers) {
  MonitoringPort left;
  MonitoringPort right;
  right.SetIncomingServer(FWString("127.0.0.1"));
  EXPECT_FALSE(left.ProxyPort::operator==(right));
  left.ProxyPort::operator=(right);
  EXPECT_TRUE(left.ProxyPort::operator==(right));
  EXPECT_EQ(left.GetIncomingServer(), "127.0.0.1");
}

TEST_F(ProxyPortTest, CastAcceptsDerivedPorts) {
  MonitoringPort port;
  const ProxyPort& base = port;
  EXPECT_EQ(base.ProxyPort::Cast(static_cast<FWObject*>(&port)), &port);
  EXPECT_EQ(base.ProxyPort::GetClass(), FWApplication::GetInstance().GetClass("ProxyPort"));
}

// ---- Run-time side: listening, sessions, closing ----

TEST_F(ProxyPortTest, OpenListensOnTheServerAndLogsTheAddress) {
  EXPECT_EQ(port_.GetListeningSocket(), 0);
  port_.Open();
  EXPECT_NE(port_.GetListeningSocket(), 0);
  EXPECT_EQ(LogLines(),
            Lines{FWProduct::GetDisplayName() + " listening on 127.0.0.1:" + port_number_});
  EXPECT_EQ(port_.GetIncomingConnectionCount(), FWVariable<int>(20));
  Client client(std::stoi(port_number_));
  EXPECT_TRUE(WaitReadable(port_.GetListeningSocket()));
  port_.Close();
  EXPECT_EQ(port_.GetListeningSocket(), 0);
  port_.Close();  // a closed port stays closed
  EXPECT_EQ(port_.GetListeningSocket(), 0);
}

TEST_F(ProxyPortTest, EmptyServerListensOnAllInterfacesAndNullBacklogBecomesFive) {
  port_.SetIncomingServer(FWString());
  port_.SetIncomingConnectionCount(FWVariable<int>());
  port_.Open();
  EXPECT_EQ(LogLines(),
            Lines{FWProduct::GetDisplayName() + " listening on <all interfaces>:" + port_number_});
  EXPECT_EQ(port_.GetIncomingConnectionCount(), FWVariable<int>(5));
  Client client(std::stoi(port_number_));
  EXPECT_TRUE(WaitReadable(port_.GetListeningSocket()));
}

TEST_F(ProxyPortTest, AddressInUseThrowsBindErrorAndLeavesThePortClosed) {
  testutil::LoopbackListener occupant;
  port_.SetIncomingPort(FWString(std::to_string(occupant.Port())));
  try {
    port_.Open();
    FAIL() << "Open on a port in use succeeded";
  } catch (const FWESocketError& e) {
    EXPECT_EQ(e.GetText(), "(bind) Address already in use");
  }
  EXPECT_EQ(port_.GetListeningSocket(), 0);
  EXPECT_EQ(LogLines(), Lines{});
}

TEST_F(ProxyPortTest, SessionOpenAcceptsAndTheSessionBelongsToThePort) {
  port_.Open();
  Client client(std::stoi(port_number_));
  ProxySession* session = port_.SessionOpen(7);
  ASSERT_EQ(port_.GetSessions().size(), 1u);
  EXPECT_EQ(port_.GetSessions().front(), session);
  EXPECT_EQ(session->GetNumber(), 7u);
  EXPECT_TRUE(session->IsOpen());
  EXPECT_EQ(session->GetPort(), &port_);
  // A copy has the configuration only.
  const std::unique_ptr<AcceptingPort> copy(port_.Clone());
  EXPECT_EQ(copy->GetIncomingPort(), port_number_);
  EXPECT_EQ(copy->GetListeningSocket(), 0);
  EXPECT_TRUE(copy->GetSessions().empty());
  // Close deletes the session (which closes its connection) and the listener.
  port_.Close();
  EXPECT_TRUE(port_.GetSessions().empty());
  EXPECT_TRUE(client.SeesEndOfStream());
}

TEST_F(ProxyPortTest, FailingSessionStartIsLoggedAndTheSessionClosedButKept) {
  port_.SetFailOpen(true);
  port_.Open();
  LogStream.ClearLogBuffer();
  Client client(std::stoi(port_number_));
  ProxySession* session = port_.SessionOpen(3);
  EXPECT_EQ(LogLines(), Lines{"Session 3: Protocol error: no greeting - closing session"});
  EXPECT_FALSE(session->IsOpen());
  ASSERT_EQ(port_.GetSessions().size(), 1u);
  EXPECT_TRUE(client.SeesEndOfStream());
  EXPECT_NE(port_.GetListeningSocket(), 0);
}

}  // namespace
