// The session manager's run-time side: start-up and shutdown, the select loop driven pass by pass
// over real loopback connections, session numbers, and the worker thread's update check.
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWCounter.h"
#include "FWException.h"
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWProduct.h"
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

// Echoes what the client sends. "quit" ends the session without a reply; "boom" throws.
class EchoSession final : public ProxySession {
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
  bool Finished() override { return seen_quit_; }
  void QueueIncoming(const std::string& data, bool) override { AppendIncoming(data); }
  void QueueOutgoing(const std::string& data) override {
    if (data == "boom") throw FWEProtocolError(FW_HERE, "boom");
    if (data == "quit") {
      seen_quit_ = true;
      return;
    }
    AppendIncoming(data);
  }

 private:
  bool seen_quit_ = false;
};

// Relays between the client and the port's outgoing server; finished when the server has closed.
class RelaySession final : public ProxySession {
 public:
  using ProxySession::ProxySession;

  void Open(int listening) override {
    OpenIncoming(listening);
    SetOpen(true);
    OpenOutgoing(GetPort()->GetOutgoingServer(), GetPort()->GetOutgoingPort());
  }
  void CheckActive() override {}
  std::size_t GetMemoryRequired() const override { return 0; }
  bool ReadyToReceiveIncoming() override { return true; }
  bool ReadyToReceiveOutgoing() override { return true; }
  bool Finished() override { return IsOutgoingClosed(); }
  void QueueIncoming(const std::string& data, bool) override { AppendIncoming(data); }
  void QueueOutgoing(const std::string& data) override { AppendOutgoing(data); }
};

class LoopPort final : public ProxyPort {
 public:
  explicit LoopPort(bool relay) : relay_(relay) {}

  LoopPort* New() const override { return new LoopPort(relay_); }
  LoopPort* Clone() const override { return new LoopPort(*this); }
  ProxySession* SessionCreate(int number) override {
    if (relay_) return new RelaySession(number, this);
    return new EchoSession(number, this);
  }

 private:
  const bool relay_;
};

// Answers one HTTP request on a loopback port with a canned response. Every wait in its thread is
// bounded, so the destructor returns in bounded time.
class HttpServer {
 public:
  explicit HttpServer(std::string response)
      : response_(std::move(response)), thread_([this] { Serve(); }) {}
  ~HttpServer() { thread_.join(); }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(peer_.Port()) + "/"; }

 private:
  void Serve() {
    if (!peer_.Accept()) return;
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) {
      const std::string byte = peer_.ReceiveRaw(1);
      if (byte.empty()) return;
      request += byte;
    }
    peer_.SendRaw(response_);
    peer_.Close();  // the end of the response
  }

  FeedPeer peer_;
  const std::string response_;
  std::thread thread_;  // last: starts once everything it uses exists
};

// Runs the update check of a manager without ports until its thread is gone: the log lines of
// the check.
Lines RunUpdateCheck(const std::string& url) {
  LogStream.ClearLogBuffer();
  SessionManager manager;
  manager.SetUpdateCheck(url, milliseconds(3000));
  manager.Init();
  EXPECT_TRUE(testutil::WaitUntil(
      [&] {
        manager.Select();
        return manager.GetThread() == nullptr;
      },
      kWait));
  manager.Exit();
  Lines lines;
  for (const std::string& line : testutil::Lines(LogStream.GetLogBuffer(), 23)) {
    if (line.starts_with("Update check: ")) lines.push_back(line);
  }
  return lines;
}

class SessionManagerLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_max_days_ = LogStream.GetMaxDays();
    saved_max_size_ = LogStream.GetMaxSize();
    LogStream.SetOptions(0);
    ResetCounters();
    manager_.SetUpdateCheck("", milliseconds(1000));
  }
  void TearDown() override {
    manager_.Exit();
    LogStream.SetOptions(0);
    LogStream.SetMaxDays(saved_max_days_);
    LogStream.SetMaxSize(saved_max_size_);
    ResetCounters();
  }

  unsigned PoolSize() const { return static_cast<unsigned>(manager_.GetPoolSize()); }
  static void ResetCounters() {
    std::vector<std::string> names;
    for (const auto& entry : Counter.GetAll()) names.push_back(entry.first);
    for (const std::string& name : names) Counter.Clear(name);
  }

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
    Lines lines;
    for (const std::string& line : log_.Lines()) {
      if (line.starts_with(start)) lines.push_back(line);
    }
    return lines;
  }

  testutil::LogCapture log_;
  SessionManager manager_;
  int32_t saved_max_days_ = 0;
  int64_t saved_max_size_ = 0;
};

// ---- Serving sessions ----

// A session that finishes is closed in that pass and reaped in the next; plain ports take the
// smallest free number, the monitoring port the largest, and reaping gives them back.
TEST_F(SessionManagerLoopTest, SessionsAreServedReapedAndNumberedFromBothEndsOfThePool) {
  LoopPort* port = AddPort("Echo", false);
  testutil::TempDir root;
  auto* monitoring = AddPort<MonitoringPort>("Monitoring");
  monitoring->SetDocumentRoot(FWString(root.Path()));
  manager_.Init();
  ASSERT_EQ(manager_.GetFreeNumbers().size(), PoolSize());
  auto first = Connect(port);
  ASSERT_TRUE(PassUntil([&] { return port->GetSessions().size() == 1; }));
  auto second = Connect(port);
  auto watcher = Connect(monitoring);
  ASSERT_TRUE(
      PassUntil([&] { return NumbersOf(port).size() == 2 && NumbersOf(monitoring).size(); }));
  EXPECT_EQ(NumbersOf(port), (Numbers{0, 1}));
  EXPECT_EQ(NumbersOf(monitoring), Numbers{PoolSize() - 1});
  first->SendRaw("hello");
  EXPECT_TRUE(PassUntilReceived(*first, "hello"));
  first->SendRaw("quit");
  ProxySession* session = port->GetSessions().front().get();
  ASSERT_TRUE(PassUntil([&] { return !session->IsOpen(); }));
  EXPECT_EQ(port->GetSessions().size(), 2u);  // closed, but kept until the next pass
  EXPECT_TRUE(PassUntilReceived(*first, "", true)) << "the session's close reaches the client";
  EXPECT_TRUE(PassUntil([&] { return NumbersOf(port) == Numbers{1}; }));
  watcher.reset();
  ASSERT_TRUE(PassUntil([&] { return monitoring->GetSessions().empty(); }));
  EXPECT_EQ(manager_.GetUsedNumbers(), Numbers{1});
  auto third = Connect(port);
  watcher = Connect(monitoring);
  ASSERT_TRUE(
      PassUntil([&] { return NumbersOf(port).size() == 2 && NumbersOf(monitoring).size(); }));
  EXPECT_EQ(NumbersOf(port), (Numbers{0, 1}));
  EXPECT_EQ(NumbersOf(monitoring), Numbers{PoolSize() - 1});
  EXPECT_EQ(manager_.GetFreeNumbers().size(), PoolSize() - 3);
}

TEST_F(SessionManagerLoopTest, SessionExceptionIsLoggedUnderItsPrefixAndEndsOnlyThatSession) {
  LoopPort* port = AddPort("Echo", false);
  manager_.Init();
  auto failing = Connect(port);
  auto other = Connect(port);
  ASSERT_TRUE(PassUntil([&] { return port->GetSessions().size() == 2; }));
  failing->SendRaw("boom");
  ASSERT_TRUE(PassUntilReceived(*failing, "", true));
  EXPECT_EQ(LinesStartingWith("Session "), Lines{"Session 0: Protocol error: boom"});
  other->SendRaw("still here");
  EXPECT_TRUE(PassUntilReceived(*other, "still here"));
  EXPECT_EQ(NumbersOf(port), Numbers{1});
}

TEST_F(SessionManagerLoopTest, AcceptsStartAtTheNextPortEachPass) {
  LoopPort* a = AddPort("A", false);
  LoopPort* b = AddPort("B", false);
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

// ---- Failures of the loop ----

TEST_F(SessionManagerLoopTest, PollFailureThrowsSocketErrorWithItsSourceAndLine) {
  LoopPort* port = AddPort("Echo", false);
  manager_.Init();
  auto client = Connect(port);
  ASSERT_TRUE(PassUntil([&] { return port->GetSessions().size() == 1; }));
  // poll() refuses more entries than the descriptor limit: the listener and the session are two.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit one = saved;
  one.rlim_cur = 1;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &one), 0);
  try {
    manager_.Select();
    ADD_FAILURE() << "poll past the descriptor limit succeeded";
  } catch (const FWESocketError& e) {
    EXPECT_EQ(e.GetSource(), "classes/SessionManager");
    EXPECT_EQ(e.GetLine(), 411u);
    EXPECT_EQ(e.GetText(), "(poll) Invalid argument");
  }
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

volatile sig_atomic_t alarm_seen = 0;
void OnAlarm(int) { alarm_seen = 1; }

TEST_F(SessionManagerLoopTest, InterruptedSelectCountsAsNothingReady) {
  AddPort("Echo", false);
  manager_.Init();
  struct sigaction action {};
  action.sa_handler = OnAlarm;  // no SA_RESTART: select returns EINTR
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
}

// ---- Start-up and shutdown ----

TEST_F(SessionManagerLoopTest, InitAndExitLogTheirLinesInOrderOnlyOnce) {
  manager_.SetMaxLogFileDays(FWVariable<int>(3));
  manager_.SetMaxLogFileSize(FWVariable<int>(123456));
  LoopPort* port = AddPort("Main", false);
  manager_.Init();
  EXPECT_EQ(LogStream.GetMaxDays(), 3);
  EXPECT_EQ(LogStream.GetMaxSize(), 123456);

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
  manager_.Init();  // a second Init does nothing
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

TEST_F(SessionManagerLoopTest, AddressInUseEndsInitAtThatPort) {
  testutil::LoopbackListener occupant;
  LoopPort* first = AddPort("First", false);
  LoopPort* taken = AddPort("Taken", false);
  taken->SetIncomingPort(FWString(std::to_string(occupant.Port())));
  try {
    manager_.Init();
    FAIL() << "Init with a port in use succeeded";
  } catch (const FWESocketError& e) {
    EXPECT_EQ(e.GetText(), "(bind) Address already in use");
  }
  EXPECT_EQ(
      LinesStartingWith(FWProduct::GetDisplayName() + " listening"),
      Lines{FWProduct::GetDisplayName() + " listening on 127.0.0.1:" + first->GetIncomingPort()});
  EXPECT_NE(first->GetListeningSocket(), 0);
  EXPECT_EQ(taken->GetListeningSocket(), 0);
  manager_.Exit();
  EXPECT_EQ(first->GetListeningSocket(), 0);
}

// ---- The worker thread and the update check ----

// A newer version is logged once; the same version, or no URL, logs nothing; a failed check is
// reported once, and never as an update.
TEST_F(SessionManagerLoopTest, UpdateCheckLogsANewerVersionOnceAndAFailureOnce) {
  EXPECT_EQ(RunUpdateCheck(""), Lines{});
  const std::vector<std::pair<std::string, Lines>> cases = {
      {"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n99.0.1\n",
       {"Update check: Version 99.0.1 is available (running " + FWProduct::GetVersion() + ")"}},
      {"HTTP/1.0 200 OK\r\n\r\n" + FWProduct::GetVersion() + "\n", {}},
  };
  for (const auto& [response, lines] : cases) {
    HttpServer server(response);
    EXPECT_EQ(RunUpdateCheck(server.Url()), lines) << response;
  }
  Lines failure;
  {
    HttpServer server("HTTP/1.0 404 Not Found\r\n\r\nnothing here\n");
    failure = RunUpdateCheck(server.Url());
  }
  ASSERT_EQ(failure.size(), 1u);
  EXPECT_EQ(failure[0].find("is available"), std::string::npos) << failure[0];
  EXPECT_GT(failure[0].size(), std::string("Update check: ").size()) << failure[0];
}

TEST_F(SessionManagerLoopTest, SecondThreadIsRefusedAndATimedOutCheckIsReportedOnce) {
  // Accepts connections into its backlog and never answers.
  testutil::LoopbackListener silent;
  const std::string peer = "127.0.0.1:" + std::to_string(silent.Port());
  manager_.SetUpdateCheck("http://" + peer + "/", milliseconds(1500));
  manager_.Init();
  // The check has connected, so the thread has set its prefix.
  ASSERT_TRUE(testutil::WaitUntil([&] {
    pollfd entry{silent.Fd(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
  }));
  manager_.ThreadStart();
  manager_.Exit();  // waits for the check to give up
  EXPECT_EQ(manager_.GetThread(), nullptr);
  EXPECT_EQ(LinesStartingWith("Update check: "),
            (Lines{"Update check: Start thread operation failed (thread is still running)",
                   "Update check: No answer from " + peer + " within 1500 ms"}));
}

// ---- The whole loop ----

TEST_F(SessionManagerLoopTest, TwoPortsServeConcurrentClientsRelayBothWaysAndLogExactly) {
  LogStream.SetOptions(FWLogStream::kLogConnections);
  LoopPort* echo = AddPort("Echo", false);
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
  echo_clients[0]->SendRaw("one");
  echo_clients[1]->SendRaw("two");
  relay_clients[0]->SendRaw("ping1");
  relay_clients[1]->SendRaw("ping2");
  EXPECT_TRUE(PassUntilReceived(*echo_clients[0], "one"));
  EXPECT_TRUE(PassUntilReceived(*echo_clients[1], "two"));
  for (int i = 0; i < 2; ++i) {
    const std::string ping = "ping" + std::to_string(i + 1);
    EXPECT_TRUE(PassUntilReceived(*servers[i], ping));
    servers[i]->SendRaw("re:" + ping);
    servers[i]->Close();
    EXPECT_TRUE(PassUntilReceived(*relay_clients[i], "re:" + ping, true));
  }
  for (auto& client : echo_clients) client->SendRaw("quit");
  ASSERT_TRUE(
      PassUntil([&] { return echo->GetSessions().empty() && relay->GetSessions().empty(); }));
  EXPECT_TRUE(manager_.GetUsedNumbers().empty());
  EXPECT_EQ(Counter.Get("Echo_ReceiveIncoming"), 14u);
  EXPECT_EQ(Counter.Get("Echo_SendIncoming"), 6u);
  EXPECT_EQ(Counter.Get("Relay_SendOutgoing"), 10u);
  EXPECT_EQ(Counter.Get("Relay_SendIncoming"), 16u);
  EXPECT_EQ(Counter.Get("InternalSessionManagerIdle"), 1u);
  manager_.Exit();

  Lines expected;
  const auto expect_session = [&](const Numbers& numbers, const ProxyPort* port) {
    for (unsigned int number : numbers) {
      const std::string prefix = "Session " + std::to_string(number) + ": ";
      expected.push_back(
          prefix + "Connection from 127.0.0.1 accepted on 127.0.0.1:" + port->GetIncomingPort());
      expected.push_back(prefix + "Connection from 127.0.0.1 closed");
    }
  };
  expect_session(echo_numbers, echo);
  expect_session(relay_numbers, relay);
  Lines lines = log_.Lines();
  ASSERT_EQ(lines.size(), start_lines + expected.size() + 1);
  EXPECT_EQ(lines.back(), FWProduct::GetDisplayName() + " shutting down");
  Lines session_lines(lines.begin() + static_cast<long>(start_lines), lines.end() - 1);
  std::sort(session_lines.begin(), session_lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(session_lines, expected);
  EXPECT_EQ(echo_numbers.size() + relay_numbers.size(), 4u);
}

}  // namespace
