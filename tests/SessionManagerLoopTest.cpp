// The session manager's life cycle over its run-time parts: start-up and shutdown with their log
// lines, and the whole loop through Select serving two ports until Exit. The parts have suites of
// their own: ServiceLoopTest, SessionPoolTest, UpdateWorkerTest.
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
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "ProxyPort.h"
#include "ProxySession.h"
#include "SessionManager.h"
#include "TestPorts.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using testutil::FeedPeer;
using testutil::LoopPort;
using Lines = std::vector<std::string>;
using Numbers = std::set<unsigned int>;
using testutil::NumbersOf;

class SessionManagerLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.SetOptions(0);
    for (const auto& entry : Counter.GetAll()) Counter.Clear(entry.first);  // sets it to 0
    manager_.SetUpdateCheck("", milliseconds(1000));
  }
  void TearDown() override { manager_.Exit(); }

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
  bool PassUntil(const std::function<bool()>& pred) {
    return testutil::PassUntil([&] { manager_.Select(); }, pred);
  }
  bool PassUntilReceived(FeedPeer& peer, const std::string& data, bool closed = false) {
    return testutil::PassUntilReceived([&] { manager_.Select(); }, peer, data, closed);
  }

  testutil::LogCapture log_;
  SessionManager manager_;
};

// ---- Start-up and shutdown ----

// Between a second Init and a second Exit, which do nothing: Init starts the worker thread, and
// Exit ends it.
TEST_F(SessionManagerLoopTest, InitAndExitLogTheirLinesInOrderOnlyOnce) {
  manager_.SetMaxLogFileDays(FWVariable<int>(3));
  manager_.SetMaxLogFileSize(FWVariable<int>(123456));
  LoopPort* port = AddPort("Main");
  manager_.Init();
  EXPECT_EQ(LogStream.GetMaxDays(), 3);
  EXPECT_EQ(LogStream.GetMaxSize(), 123456);
  EXPECT_NE(manager_.GetThread(), nullptr);
  manager_.Init();    // a second Init does nothing
  manager_.Select();  // a pass with nothing to serve logs nothing

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

}  // namespace
