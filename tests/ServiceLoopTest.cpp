// The event loop driven pass by pass over real loopback connections: serving, reaping and
// numbering sessions, the accept rotation, the idle pass, the activity counters, and how a pass
// fails.
#include "ServiceLoop.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWCounter.h"
#include "FWException.h"
#include "FWLogStream.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "ProxySession.h"
#include "SessionPool.h"
#include "TestPorts.h"
#include "TestUtil.h"
#include "UpdateWorker.h"

namespace {

using std::chrono::milliseconds;
using testutil::FeedPeer;
using testutil::LoopPort;
using Lines = std::vector<std::string>;
using Numbers = std::set<unsigned int>;
using testutil::NumbersOf;

class ServiceLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.SetOptions(0);
    for (const auto& entry : Counter.GetAll()) Counter.Clear(entry.first);  // sets it to 0
  }
  void TearDown() override {
    for (const auto& port : ports_) port->Close();
  }

  // A port on 127.0.0.1 and a free port number, appended to the list.
  template <typename Port = LoopPort, typename... Args>
  Port* AddPort(const std::string& name, Args... args) {
    auto owned = std::make_unique<Port>(args...);
    Port* port = owned.get();  // the list owns the port
    port->SetName(FWString(name));
    port->SetIncomingServer(FWString("127.0.0.1"));
    port->SetIncomingPort(FWString(std::to_string(testutil::FreePort())));
    ports_.push_back(std::move(owned));
    return port;
  }
  // Starts the loop and opens the ports, as the daemon does at start-up.
  void Start() {
    loop_.Start(ports_.size());
    for (const auto& port : ports_) port->Open();
  }
  void Pass() { loop_.Pass(ports_, worker_); }
  unsigned PoolSize() const {
    return static_cast<unsigned>(SessionPool::GetPoolSize(ports_.size()));
  }
  static std::unique_ptr<FeedPeer> Connect(const ProxyPort* port) {
    return std::make_unique<FeedPeer>(std::stoi(port->GetIncomingPort()));
  }
  bool PassUntil(const std::function<bool()>& pred) {
    return testutil::PassUntil([&] { Pass(); }, pred);
  }
  bool PassUntilReceived(FeedPeer& peer, const std::string& data, bool closed = false) {
    return testutil::PassUntilReceived([&] { Pass(); }, peer, data, closed);
  }
  Lines LinesStartingWith(const std::string& start) const {
    Lines lines = log_.Lines();
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(start); });
    return lines;
  }

  testutil::LogCapture log_;
  // Declared before the ports, whose sessions borrow its guard and feeds.
  ServiceLoop loop_;
  ServiceLoop::PortList ports_;
  UpdateWorker worker_;  // never started
};

// ---- Serving sessions ----

// A session that finishes is closed in that pass and reaped in the next; plain ports take the
// smallest free number, the monitoring port the largest, and reaping gives them back. An
// exception ends only its session and is logged under the session's prefix.
TEST_F(ServiceLoopTest, SessionsAreServedReapedAndNumberedFromBothEndsOfThePool) {
  LoopPort* port = AddPort("Echo");
  testutil::TempDir root;
  auto* monitoring = AddPort<MonitoringPort>("Monitoring");
  monitoring->SetDocumentRoot(FWString(root.Path()));
  Start();
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
  EXPECT_EQ(loop_.GetPool().GetUsed(), Numbers{0});
  watcher = Connect(monitoring);
  ASSERT_TRUE(PassUntil([&] { return NumbersOf(monitoring).size() == 1; }));
  EXPECT_EQ(NumbersOf(monitoring), Numbers{PoolSize() - 1});
  EXPECT_EQ(loop_.GetPool().GetFree().size(), PoolSize() - 2);
}

TEST_F(ServiceLoopTest, AcceptsStartAtTheNextPortEachPass) {
  LoopPort* a = AddPort("A");
  LoopPort* b = AddPort("B");
  Start();
  auto a1 = Connect(a);
  auto b1 = Connect(b);
  Pass();  // both listeners are ready: this pass starts at B
  EXPECT_EQ(NumbersOf(b), Numbers{0});
  EXPECT_EQ(NumbersOf(a), Numbers{1});
  auto a2 = Connect(a);
  auto b2 = Connect(b);
  Pass();  // and this one at A
  EXPECT_EQ(NumbersOf(a), (Numbers{1, 2}));
  EXPECT_EQ(NumbersOf(b), (Numbers{0, 3}));
}

// A slower machine only makes the pass longer.
TEST_F(ServiceLoopTest, PassWithoutPortsSleepsHalfASecondAndReportsIdle) {
  Start();
  const auto start = std::chrono::steady_clock::now();
  Pass();
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(490));
  EXPECT_EQ(Counter.Get("InternalSessionManagerIdle"), 1u);
}

// ---- The activity counters ----

// Ports of one name count into the same counters. A transfer counter exists from the first
// transfer of its kind on: nothing was received from a server, so there is no such counter.
TEST_F(ServiceLoopTest, PortsOfOneNameShareCountersThatExistFromTheirFirstUse) {
  LoopPort* first = AddPort("Shared");
  LoopPort* second = AddPort("Shared");
  Start();
  auto one = Connect(first);
  auto two = Connect(second);
  ASSERT_TRUE(PassUntil([&] { return NumbersOf(first).size() + NumbersOf(second).size() == 2; }));
  EXPECT_FALSE(Counter.Exists("Shared_ReceiveIncoming"));
  one->SendRaw("ab");
  two->SendRaw("cde");
  EXPECT_TRUE(PassUntilReceived(*one, "ab"));
  EXPECT_TRUE(PassUntilReceived(*two, "cde"));
  Pass();
  EXPECT_EQ(Counter.Get("Shared_Active"), 1u);
  EXPECT_EQ(Counter.Get("Shared_ReceiveIncoming"), 5u);
  EXPECT_EQ(Counter.Get("Shared_SendIncoming"), 5u);
  EXPECT_EQ(Counter.Get("InternalSessionManagerIdle"), 0u);
  EXPECT_FALSE(Counter.Exists("Shared_ReceiveOutgoing"));
  EXPECT_FALSE(Counter.Exists("Shared_SendOutgoing"));
}

// What the loop keeps of a port is made again only for other ports or after ForgetPorts: until
// then a renamed port counts under its old name.
TEST_F(ServiceLoopTest, RenamedPortCountsUnderItsNewNameOnlyAfterForgetPorts) {
  LoopPort* port = AddPort("Before");
  Start();
  Pass();
  EXPECT_TRUE(Counter.Exists("Before_Active"));
  port->SetName(FWString("After"));
  Pass();
  EXPECT_FALSE(Counter.Exists("After_Active"));
  loop_.ForgetPorts();
  Pass();
  EXPECT_TRUE(Counter.Exists("After_Active"));
}

// ---- Failures of a pass ----

volatile sig_atomic_t alarm_seen = 0;
void OnAlarm(int) { alarm_seen = 1; }

// A pass interrupted by a signal counts as nothing ready, and a failed poll throws a socket
// error with its source and line.
TEST_F(ServiceLoopTest, InterruptedPassSeesNothingReadyAndAFailedPollThrowsWithSourceAndLine) {
  AddPort("Main");
  Start();
  struct sigaction action {};
  action.sa_handler = OnAlarm;  // no SA_RESTART: poll returns EINTR
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGALRM, &action, &previous), 0);
  alarm_seen = 0;
  itimerval timer{};
  timer.it_value.tv_usec = 100000;  // well inside the pass's half-second wait
  ASSERT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);
  EXPECT_NO_THROW(Pass());
  EXPECT_EQ(static_cast<int>(alarm_seen), 1);
  timer = itimerval{};
  ::setitimer(ITIMER_REAL, &timer, nullptr);
  ::sigaction(SIGALRM, &previous, nullptr);

  // poll() refuses more entries than the descriptor limit: the listener is one. Under the
  // sanitizers the first check of a polymorphic type takes a descriptor (a pipe), so the
  // notification the failure is reported with is made once while descriptors are left.
  EXPECT_EQ(FWMSocketError("poll", "Invalid argument").GetText(), "(poll) Invalid argument");
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  const rlimit none{0, saved.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  try {
    Pass();
    ADD_FAILURE() << "poll past the descriptor limit succeeded";
  } catch (const FWESocketError& e) {
    EXPECT_EQ(e.GetSource(), "classes/SessionManager");
    EXPECT_EQ(e.GetLine(), 411u);
    EXPECT_EQ(e.GetText(), "(poll) Invalid argument");
  }
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

}  // namespace
