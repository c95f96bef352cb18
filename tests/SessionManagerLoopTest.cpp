// The session manager's run-time side: start-up and shutdown, the select loop driven pass by pass
// over real loopback connections, session numbers, and the worker thread's update check. Also
// one proxy session driven call by call without the loop: what its connections record and log,
// and how they fail.
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWCounter.h"
#include "FWException.h"
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWSocket.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "ProxySession.h"
#include "SessionManager.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using testutil::FeedPeer;
using Lines = std::vector<std::string>;
using Numbers = std::set<unsigned int>;

constexpr milliseconds kWait{10000};

// Echoes what the client sends and is finished once that held "quit"; "boom" throws. With relay
// it passes each side's data to the other, finished once the port's outgoing server has closed.
class TestSession final : public ProxySession {
 public:
  TestSession(int number, ProxyPort* port, bool relay)
      : ProxySession(number, port), relay_(relay) {}

  void Open(int listening) override {
    OpenIncoming(listening);
    SetOpen(true);
    if (relay_) OpenOutgoing(GetPort()->GetOutgoingServer(), GetPort()->GetOutgoingPort());
  }
  void CheckActive() override {}
  std::size_t GetMemoryRequired() const override { return 0; }
  bool ReadyToReceiveIncoming() override { return true; }
  bool ReadyToReceiveOutgoing() override { return true; }
  bool Finished() override { return relay_ ? IsOutgoingClosed() : seen_quit_; }
  void QueueIncoming(const std::string& data, bool) override { AppendIncoming(data); }
  void QueueOutgoing(const std::string& data) override {
    if (data == "boom") throw FWEProtocolError(FW_HERE, "boom");
    if (relay_) {
      AppendOutgoing(data);
      return;
    }
    seen_quit_ = seen_quit_ || data.find("quit") != std::string::npos;
    AppendIncoming(data);
  }

 private:
  const bool relay_;
  bool seen_quit_ = false;
};

class LoopPort final : public ProxyPort {
 public:
  explicit LoopPort(bool relay = false) : relay_(relay) {}

  LoopPort* New() const override { return new LoopPort(relay_); }
  LoopPort* Clone() const override { return new LoopPort(*this); }
  ProxySession* SessionCreate(int number, const SessionContext& /*context*/) override {
    return new TestSession(number, this, relay_);
  }

 private:
  const bool relay_;
};

bool WaitReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 10000) == 1;
}

class SessionManagerLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.SetOptions(0);
    for (const auto& entry : Counter.GetAll()) Counter.Clear(entry.first);  // sets it to 0
    manager_.SetUpdateCheck("", milliseconds(1000));
  }
  void TearDown() override { manager_.Exit(); }

  unsigned PoolSize() const { return static_cast<unsigned>(manager_.GetPoolSize()); }

  // A port on 127.0.0.1 and a free port number, appended to the manager.
  template <typename Port = LoopPort, typename... Args>
  Port* AddPort(const std::string& name, Args... args) {
    auto owned = std::make_unique<Port>(args...);
    Port* port = owned.get();  // the manager's list owns the port
    port->SetName(FWString(name));
    port->SetIncomingServer(FWString("127.0.0.1"));
    port->SetIncomingPort(FWString(std::to_string(testutil::FreePort())));
    manager_.GetPorts().push_back(std::move(owned));
    return port;
  }
  static std::unique_ptr<FeedPeer> Connect(const ProxyPort* port) {
    return std::make_unique<FeedPeer>(std::stoi(port->GetIncomingPort()));
  }
  // Runs passes of the loop until pred holds, for at most kWait.
  bool PassUntil(const std::function<bool()>& pred) {
    return testutil::WaitUntil(
        [&] {
          if (pred()) return true;
          manager_.Select();
          return pred();
        },
        kWait);
  }
  // Passes until the peer has received exactly data (and, with closed, seen the end).
  bool PassUntilReceived(FeedPeer& peer, const std::string& data, bool closed = false) {
    std::string received;
    return PassUntil([&] {
      received += peer.ReceiveRaw(65536, milliseconds(0));
      return received == data && (!closed || peer.Closed());
    });
  }
  static Numbers NumbersOf(const ProxyPort* port) {
    Numbers numbers;
    for (const auto& session : port->GetSessions()) numbers.insert(session->GetNumber());
    return numbers;
  }
  Lines LinesStartingWith(const std::string& start) const {
    Lines lines = log_.Lines();
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(start); });
    return lines;
  }

  testutil::LogCapture log_;
  SessionManager manager_;
};

// ---- Serving sessions ----

// A session that finishes is closed in that pass and reaped in the next; plain ports take the
// smallest free number, the monitoring port the largest, and reaping gives them back. An
// exception ends only its session and is logged under the session's prefix.
TEST_F(SessionManagerLoopTest, SessionsAreServedReapedAndNumberedFromBothEndsOfThePool) {
  LoopPort* port = AddPort("Echo");
  testutil::TempDir root;
  auto* monitoring = AddPort<MonitoringPort>("Monitoring");
  monitoring->SetDocumentRoot(FWString(root.Path()));
  manager_.Init();
  auto first = Connect(port);
  ASSERT_TRUE(PassUntil([&] { return port->GetSessions().size() == 1; }));
  auto second = Connect(port);
  auto watcher = Connect(monitoring);
  ASSERT_TRUE(
      PassUntil([&] { return NumbersOf(port).size() == 2 && NumbersOf(monitoring).size(); }));
  EXPECT_EQ(NumbersOf(port), (Numbers{0, 1}));
  EXPECT_EQ(NumbersOf(monitoring), Numbers{PoolSize() - 1});
  first->SendRaw("hello quit");
  ProxySession* session = port->GetSessions().front().get();
  ASSERT_TRUE(PassUntil([&] { return !session->IsOpen(); }));
  EXPECT_EQ(port->GetSessions().size(), 2u);  // closed, but kept until the next pass
  EXPECT_TRUE(PassUntilReceived(*first, "hello quit", true)) << "the reply, then the close";
  EXPECT_TRUE(PassUntil([&] { return NumbersOf(port) == Numbers{1}; }));
  auto third = Connect(port);
  ASSERT_TRUE(PassUntil([&] { return NumbersOf(port) == Numbers{0, 1}; }));
  second->SendRaw("boom");
  ASSERT_TRUE(PassUntilReceived(*second, "", true));
  EXPECT_EQ(LinesStartingWith("Session "), Lines{"Session 1: Protocol error: boom"});
  third->SendRaw("still here");
  EXPECT_TRUE(PassUntilReceived(*third, "still here"));
  watcher.reset();
  ASSERT_TRUE(PassUntil([&] { return monitoring->GetSessions().empty(); }));
  EXPECT_EQ(manager_.GetLoop().GetPool().GetUsed(), Numbers{0});
  watcher = Connect(monitoring);
  ASSERT_TRUE(PassUntil([&] { return NumbersOf(monitoring).size() == 1; }));
  EXPECT_EQ(NumbersOf(monitoring), Numbers{PoolSize() - 1});
  EXPECT_EQ(manager_.GetLoop().GetPool().GetFree().size(), PoolSize() - 2);
}

TEST_F(SessionManagerLoopTest, AcceptsStartAtTheNextPortEachPass) {
  LoopPort* a = AddPort("A");
  LoopPort* b = AddPort("B");
  manager_.Init();
  auto a1 = Connect(a);
  auto b1 = Connect(b);
  manager_.Select();  // both listeners are ready: this pass starts at B
  EXPECT_EQ(NumbersOf(b), Numbers{0});
  EXPECT_EQ(NumbersOf(a), Numbers{1});
  auto a2 = Connect(a);
  auto b2 = Connect(b);
  manager_.Select();  // and this one at A
  EXPECT_EQ(NumbersOf(a), (Numbers{1, 2}));
  EXPECT_EQ(NumbersOf(b), (Numbers{0, 3}));
}

// A slower machine only makes the pass longer.
TEST_F(SessionManagerLoopTest, PassWithoutPortsSleepsHalfASecondAndReportsIdle) {
  manager_.Init();
  const auto start = std::chrono::steady_clock::now();
  manager_.Select();
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(490));
  EXPECT_EQ(Counter.Get("InternalSessionManagerIdle"), 1u);
}

// ---- Start-up, failures of a pass, and shutdown ----

volatile sig_atomic_t alarm_seen = 0;
void OnAlarm(int) { alarm_seen = 1; }

// Between a second Init and a second Exit, which do nothing: a pass interrupted by a signal counts
// as nothing ready, and a failed poll throws a socket error with its source and line.
TEST_F(SessionManagerLoopTest, InitAndExitLogTheirLinesInOrderOnlyOnce) {
  manager_.SetMaxLogFileDays(FWVariable<int>(3));
  manager_.SetMaxLogFileSize(FWVariable<int>(123456));
  LoopPort* port = AddPort("Main");
  manager_.Init();
  EXPECT_EQ(LogStream.GetMaxDays(), 3);
  EXPECT_EQ(LogStream.GetMaxSize(), 123456);
  manager_.Init();  // a second Init does nothing

  struct sigaction action {};
  action.sa_handler = OnAlarm;  // no SA_RESTART: poll returns EINTR
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGALRM, &action, &previous), 0);
  alarm_seen = 0;
  itimerval timer{};
  timer.it_value.tv_usec = 100000;  // well inside the pass's half-second wait
  ASSERT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);
  EXPECT_NO_THROW(manager_.Select());
  EXPECT_EQ(static_cast<int>(alarm_seen), 1);
  timer = itimerval{};
  ::setitimer(ITIMER_REAL, &timer, nullptr);
  ::sigaction(SIGALRM, &previous, nullptr);

  // poll() refuses more entries than the descriptor limit: the listener is one.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  const rlimit none{0, saved.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  try {
    manager_.Select();
    ADD_FAILURE() << "poll past the descriptor limit succeeded";
  } catch (const FWESocketError& e) {
    EXPECT_EQ(e.GetSource(), "classes/SessionManager");
    EXPECT_EQ(e.GetLine(), 411u);
    EXPECT_EQ(e.GetText(), "(poll) Invalid argument");
  }
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);

  const std::string name = FWProduct::GetDisplayName();
  const std::time_t built = FWProduct::GetBuildTime();
  char build_date[32];
  std::tm fields{};
  ASSERT_GT(
      std::strftime(build_date, sizeof(build_date), "%b %d, %Y", localtime_r(&built, &fields)), 0u);
  std::string configuration;
  FWIniParser("1.0", false).GenerateFromObject(manager_, configuration, false);
  const std::string rule(60, '-');
  Lines expected{rule,
                 name + " starting ...",
                 rule,
                 std::string("Version Build Date: ") + build_date,
                 "Current Date: ",
                 "OS version: " + FWProduct::GetOSVersion(),
                 "Physical Memory: " + std::to_string(FWProduct::GetMemoryMB()) + "MB",
                 "Directory for temporary files: /tmp",
                 "Configuration:"};
  std::istringstream text(configuration);
  for (std::string line; std::getline(text, line);) expected.push_back("    " + line);
  expected.push_back(name + " listening on 127.0.0.1:" + port->GetIncomingPort());
  manager_.Exit();
  manager_.Exit();  // nor does a second Exit
  expected.push_back(name + " shutting down");
  Lines lines = log_.Lines();
  ASSERT_EQ(lines.size(), expected.size());
  // The current date is the one variable part: check its prefix and that something follows.
  EXPECT_GT(lines[4].size(), expected[4].size());
  EXPECT_TRUE(lines[4].starts_with(expected[4]));
  lines[4] = expected[4];
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(port->GetListeningSocket(), 0);
  EXPECT_EQ(manager_.GetThread(), nullptr);
}

// ---- The worker thread and the update check ----

// The check runs on the worker thread from start-up, and a second start is refused meanwhile; what
// a check finds, a newer version or a failure, is logged once (FWSupportTest covers the findings).
TEST_F(SessionManagerLoopTest, UpdateCheckRefusesASecondThreadAndLogsEachFindingOnce) {
  FeedPeer server;  // plays the web server; a second check waits in its backlog, unanswered
  const std::string address = "127.0.0.1:" + std::to_string(server.Port());
  manager_.SetUpdateCheck("http://" + address + "/", kWait);
  manager_.Init();
  ASSERT_TRUE(server.Accept());  // the check has connected, so the thread has set its prefix
  manager_.ThreadStart();
  const std::string request = "GET / HTTP/1.0\r\nHost: " + address + "\r\nUser-Agent: Norvane/" +
                              FWProduct::GetVersion() + "\r\n\r\n";
  EXPECT_EQ(server.ReceiveRaw(request.size()), request);
  server.SendRaw("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n99.0.1\n");
  server.Close();
  ASSERT_TRUE(PassUntil([&] { return manager_.GetThread() == nullptr; }));
  manager_.SetUpdateCheck("http://" + address + "/", milliseconds(1500));
  manager_.ThreadStart();
  manager_.Exit();  // waits for the check to give up
  EXPECT_EQ(manager_.GetThread(), nullptr);
  EXPECT_EQ(
      LinesStartingWith("Update check: "),
      (Lines{"Update check: Start thread operation failed (thread is still running)",
             "Update check: Version 99.0.1 is available (running " + FWProduct::GetVersion() + ")",
             "Update check: No answer from " + address + " within 1500 ms"}));
}

// ---- The whole loop ----

TEST_F(SessionManagerLoopTest, TwoPortsServeConcurrentClientsRelayBothWaysAndLogExactly) {
  LogStream.SetOptions(FWLogStream::kLogConnections);
  LoopPort* echo = AddPort("Echo");
  LoopPort* relay = AddPort("Relay", true);
  std::vector<std::unique_ptr<FeedPeer>> echo_clients, relay_clients, servers;
  for (int i = 0; i < 2; ++i) servers.push_back(std::make_unique<FeedPeer>());
  relay->SetOutgoingServer(FWString("127.0.0.1"));
  manager_.Init();
  const std::size_t start_lines = log_.Lines().size();
  for (int i = 0; i < 2; ++i) {
    echo_clients.push_back(Connect(echo));
    relay->SetOutgoingPort(FWString(std::to_string(servers[i]->Port())));
    relay_clients.push_back(Connect(relay));
    ASSERT_TRUE(PassUntil([&] { return relay->GetSessions().size() == i + 1u; }));
    ASSERT_TRUE(servers[i]->Accept());
  }
  ASSERT_TRUE(PassUntil([&] { return echo->GetSessions().size() == 2; }));
  const Numbers echo_numbers = NumbersOf(echo);
  const Numbers relay_numbers = NumbersOf(relay);
  for (int i = 0; i < 2; ++i) {
    echo_clients[i]->SendRaw("ping" + std::to_string(i + 1));
    relay_clients[i]->SendRaw("ping" + std::to_string(i + 1));
  }
  for (int i = 0; i < 2; ++i) {
    const std::string ping = "ping" + std::to_string(i + 1);
    EXPECT_TRUE(PassUntilReceived(*echo_clients[i], ping));
    EXPECT_TRUE(PassUntilReceived(*servers[i], ping));
    servers[i]->SendRaw("re:" + ping);
    servers[i]->Close();
    EXPECT_TRUE(PassUntilReceived(*relay_clients[i], "re:" + ping, true));
  }
  for (auto& client : echo_clients) client->SendRaw("quit");
  ASSERT_TRUE(
      PassUntil([&] { return echo->GetSessions().empty() && relay->GetSessions().empty(); }));
  EXPECT_TRUE(manager_.GetLoop().GetPool().GetUsed().empty());
  EXPECT_EQ(Counter.Get("Echo_ReceiveIncoming"), 18u);
  EXPECT_EQ(Counter.Get("Echo_SendIncoming"), 18u);
  EXPECT_EQ(Counter.Get("Relay_SendOutgoing"), 10u);
  EXPECT_EQ(Counter.Get("Relay_SendIncoming"), 16u);
  EXPECT_EQ(Counter.Get("InternalSessionManagerIdle"), 1u);
  manager_.Exit();

  Lines expected;
  for (const auto& [numbers, port] : {std::pair{echo_numbers, echo}, {relay_numbers, relay}}) {
    for (unsigned int number : numbers) {
      const std::string prefix = "Session " + std::to_string(number) + ": ";
      expected.push_back(
          prefix + "Connection from 127.0.0.1 accepted on 127.0.0.1:" + port->GetIncomingPort());
      expected.push_back(prefix + "Connection from 127.0.0.1 closed");
    }
  }
  Lines lines = log_.Lines();
  ASSERT_EQ(lines.size(), start_lines + expected.size() + 1);
  EXPECT_EQ(lines.back(), FWProduct::GetDisplayName() + " shutting down");
  Lines session_lines(lines.begin() + static_cast<long>(start_lines), lines.end() - 1);
  std::sort(session_lines.begin(), session_lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(session_lines, expected);
}

// ---- One proxy session, call by call ----

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
