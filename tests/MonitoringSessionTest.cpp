// The log feed session end to end: a monitoring port served by the real session manager loop,
// driven pass by pass, and test clients (FeedPeer) on 127.0.0.1 that frame their commands and
// decode the replies as a foreign client would.
#include "MonitoringSession.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "FWBlowfish.h"
#include "FWFeedCodec.h"
#include "FWFile.h"
#include "FWLogStream.h"
#include "FWSocket.h"
#include "MonitoringPort.h"
#include "SessionManager.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using testutil::FeedPeer;
using Lines = std::vector<std::string>;

constexpr milliseconds kWait{30000};
constexpr std::size_t kMiB = 1024 * 1024;
const std::string kGreeting = "Norvane Monitoring Service Ready.\r\n";
const std::string kPassword = "Kem01&*sB";
const Lines kListing = {"a.log\r\n", "b.log\r\n", "restart.log\r\n", "sub/c.log\r\n", "+OK\r\n"};

// A line of exactly `size` bytes that gets no reply: a user command without argument.
std::string SilentText(std::size_t size) { return "user" + std::string(size - 6, ' ') + "\r\n"; }

std::string Repeated(const std::string& line, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += line;
  return text;
}

// A frame with a hand-made header; the body is enciphered as the codec does.
std::string RawFrame(std::uint32_t length, std::string body) {
  Blowfish(FWFeedCodec::kFeedKey).Encrypt(body);
  std::string frame(4, '\0');
  for (int shift = 24; shift >= 0; shift -= 8) frame.push_back(static_cast<char>(length >> shift));
  return frame + body;
}

// Lines of 99 printable random bytes and a line end: they compress little, so what waits for a
// client is close to their size.
std::string Noise(std::size_t size, unsigned seed, const char* end = "\r\n") {
  std::mt19937 random(seed);
  std::string lines;
  while (lines.size() < size) {
    for (int i = 0; i < 99; ++i) lines += static_cast<char>('!' + random() % 94);
    lines += end;
  }
  return lines;
}

class MonitoringSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.SetOptions(0);
    testutil::WriteFile(root_.File("a.log"), "old a\n");
    for (const char* name : {"b.log", "restart.log", "notes.txt"}) {
      testutil::WriteFile(root_.File(name), "");
    }
    ASSERT_EQ(::mkdir(root_.File("sub").c_str(), 0755), 0);
    testutil::WriteFile(root_.File("sub/c.log"), "");
    auto port = std::make_unique<MonitoringPort>();
    port_ = port.get();
    port_->SetIncomingServer(FWString("127.0.0.1"));
    port_->SetIncomingPort(FWString(std::to_string(testutil::FreePort())));
    port_->SetDocumentRoot(FWString(root_.Path()));
    manager_.GetPorts().push_back(std::move(port));  // the manager's list owns the port
    manager_.SetUpdateCheck("", milliseconds(1000));
    // Every pass is a new second, so every pass polls the transmitted file; a test that stops
    // the clock moves it itself.
    manager_.SetClock([this] { return ticking_ ? ++now_ : now_; });
  }
  void TearDown() override { manager_.Exit(); }

  void Pass() {
    manager_.Select();
    if (extra_pass_) extra_pass_();
  }
  bool PumpUntil(const std::function<bool()>& pred) {
    return testutil::WaitUntil([&] { return pred() || (Pass(), pred()); }, kWait);
  }
  int Port() const { return std::stoi(port_->GetIncomingPort()); }

  // Connects a new client once the last one's session is gone, and takes the greeting.
  void Connect(int receive_buffer = 0) {
    if (!manager_.IsInitialized()) manager_.Init();
    client_.reset();
    ASSERT_TRUE(PumpUntil([&] { return port_->GetSessions().empty(); }));
    client_ = std::make_unique<FeedPeer>(Port(), "127.0.0.1", receive_buffer);
    Expect(kGreeting);
  }
  // The next message from the peer ("<closed>" once it is closed), the loop running meanwhile.
  std::string Next(FeedPeer* peer = nullptr) {
    FeedPeer& from = peer != nullptr ? *peer : *client_;
    std::string message;
    PumpUntil([&] { return (message = from.Receive(milliseconds(0))) != "<timeout>"; });
    return message;
  }
  void Expect(const std::string& reply, FeedPeer* peer = nullptr) { EXPECT_EQ(Next(peer), reply); }
  // Each text in a frame of its own, then exactly its replies: none where none is listed (the
  // next reply listed shows that).
  void Talk(const std::vector<std::pair<std::string, Lines>>& steps, FeedPeer* peer = nullptr) {
    for (const auto& [text, replies] : steps) {
      SCOPED_TRACE(text);
      (peer != nullptr ? *peer : *client_).Send(text);
      for (const std::string& reply : replies) Expect(reply, peer);
    }
  }
  void Login() {
    Talk({{"user logwatcher\r\n", {"+OK\r\n"}},
          {"pass " + kPassword + "\r\n", {"+OK Login successful\r\n"}}});
  }
  // Logs in and starts a.log, with the connected client or (another) a new one that the passes
  // serve as the first: from the reply on, every appended byte is sent.
  FeedPeer& StartA(bool another = false) {
    FeedPeer* peer = client_.get();
    Lines replies = {"+OK\r\n", "+OK Login successful\r\n",
                     "+OK start transmitting " + root_.Path() + "/a.log\r\n"};
    if (another) {
      peer = others_.emplace_back(std::make_unique<FeedPeer>(Port())).get();
      replies.insert(replies.begin(), kGreeting);
    }
    Talk({{"user logwatcher\r\npass " + kPassword + "\r\nstart a.log\r\n", replies}}, peer);
    return *peer;
  }
  // Collects messages until `size` bytes have come (or the peer closed).
  std::string ReceiveData(std::size_t size, FeedPeer* peer = nullptr,
                          std::size_t* largest = nullptr) {
    FeedPeer& from = peer != nullptr ? *peer : *client_;
    std::string data;
    PumpUntil([&] {
      for (std::string message; data.size() < size;) {
        message = from.Receive(milliseconds(0));
        if (message == "<timeout>") break;
        if (largest != nullptr) *largest = std::max(*largest, message.size());
        data += message;
        if (message == "<closed>" || message == "<bad frame>") return true;
      }
      return data.size() >= size;
    });
    return data;
  }
  MonitoringSession& Session() {
    return *dynamic_cast<MonitoringSession*>(port_->GetSessions().front().get());
  }
  // The log prefix of the first monitoring session: numbers are taken from the top of the pool.
  std::string Prefix() const {
    return "Session " + std::to_string(manager_.GetPoolSize() - 1) + ": ";
  }
  Lines SessionLog() const {
    Lines lines;
    for (const std::string& line : log_.Lines()) {
      if (line.starts_with("Session ")) lines.push_back(line);
    }
    return lines;
  }

  testutil::LogCapture log_;
  testutil::TempDir root_;
  SessionManager manager_;
  MonitoringPort* port_ = nullptr;  // owned by manager_
  std::unique_ptr<FeedPeer> client_;
  std::vector<std::unique_ptr<FeedPeer>> others_;
  FWFeedCodec codec_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
  std::time_t now_ = 1000000;
  bool ticking_ = true;
  std::function<void()> extra_pass_;
};

// ---- Replies ----

// The user and the password contain the keywords "start" and "pass": only the leading keyword is
// taken from an argument.
TEST_F(MonitoringSessionTest, EveryReplyOfADialogueIsExact) {
  port_->SetUser(FWString("restarter"));
  port_->SetPassword(FWString("bypass1"));
  const std::string started = "+OK start transmitting " + root_.Path();
  Connect();
  // The dialogue itself is FeedProtocolTest's; here what the transport adds: lines cut by a bare
  // LF, over two frames, several in one frame, and the real files.
  Talk({
      {"user restarter\n", {}},             // a bare LF waits for CRLF ...
      {"\r\n", {"-ERR User unknown\r\n"}},  // ... and stays in the name
      {"user restarter\r\n", {"+OK\r\n"}},
      {"pass wrong\r\npass bypass1\r\n",
       {"-ERR Login failed (invalid password)\r\n", "+OK Login successful\r\n"}},
      {"li", {}},  // one line over two frames
      {"st\r\n", kListing},
      {"start missing.log\r\n", {"-ERR invalid logfile name\r\n"}},
      {"start restart.log\r\n", {started + "/restart.log\r\n"}},
      {"stop\r\n", {"+OK logfile transmission stopped\r\n"}},
  });
  // Listed as a file, then replaced by a directory: refused, and the session goes on.
  ASSERT_EQ(::unlink(root_.File("b.log").c_str()), 0);
  ASSERT_EQ(::mkdir(root_.File("b.log").c_str(), 0755), 0);
  Talk({{"start b.log\r\n", {"-ERR can't read b.log: Is a directory\r\n"}},
        {"start sub/c.log\r\n", {started + "/sub/c.log\r\n"}}});
  // Appended before the next command is read: a start without name confirms and keeps the place.
  testutil::WriteFile(root_.File("sub/c.log"), "two\n", true);
  Talk({{"start  \r\n", {started + "/sub/c.log\r\n", "two\r\n"}},
        {"QuIt\r\nuser restarter\r\nlist\r\n", {"+OK closing connection\r\n", "<closed>"}}});
  const Lines log = SessionLog();
  EXPECT_EQ(std::count(log.begin(), log.end(),
                       Prefix() + "Can't read file: " + root_.Path() + "/b.log (Is a directory)"),
            1);
  Connect();  // quit in any case also before login
  Talk({{"QUIT\r\n", {"+OK closing connection\r\n", "<closed>"}}});
  port_->SetSearchPattern(FWString("*.none"));  // a listing with nothing matching
  Connect();
  Talk({{"user restarter\r\n", {"+OK\r\n"}},
        {"pass bypass1\r\n", {"+OK Login successful\r\n"}},
        {"list\r\n", {"+OK\r\n"}},
        {"start a.log\r\n", {"-ERR invalid logfile name\r\n"}}});
}

// The extensions: each data message begins with the position after it (device, inode, offset).
TEST_F(MonitoringSessionTest, BacklogAndResumeRepliesAreExact) {
  struct stat st;
  ASSERT_EQ(::stat(root_.File("a.log").c_str(), &st), 0);
  const std::string id = std::to_string(st.st_dev) + " " + std::to_string(st.st_ino) + " ";
  const std::string started = "+OK start transmitting " + root_.Path() + "/a.log\r\n";
  Connect();
  Login();
  Talk({
      {"backlog 5 a.log\r\n", {started, "+FEED " + id + "6\r\nold a\r\n"}},
      {"backlog 0 a.log\r\n", {started, "+FEED " + id + "6\r\n"}},
      {"resume " + id + "2 a.log\r\n", {started, "+FEED " + id + "6 continued\r\nd a\r\n"}},
      {"resume " + id + "7 a.log\r\n", {started, "+FEED " + id + "6 truncated\r\nold a\r\n"}},
      {"resume 1 2 3 a.log\r\n", {started, "+FEED " + id + "6 rotated\r\nold a\r\n"}},
      {"backlog 1 none.log\r\n", {"-ERR invalid logfile name\r\n"}},
      {"backlog x a.log\r\n", {"-ERR bad arguments\r\n"}},
      {"backlog 1 \r\n", {"-ERR bad arguments\r\n"}},
      {"resume 1 2 a.log\r\n", {"-ERR bad arguments\r\n"}},
  });
  testutil::WriteFile(root_.File("a.log"), "new\n", true);
  Talk({{"backlog 1 a.log\r\n", {started, "+FEED " + id + "10\r\nnew\r\n"}}});
  testutil::WriteFile(root_.File("a.log"), "more\n", true);
  Expect("+FEED " + id + "15\r\nmore\r\n");
}

// ---- Framing and bounded input ----

// Each fault ends its session, logged under the session's prefix, after the replies it was owed;
// the same input at the limit is served first. Before login frames and messages hold at most 4096
// bytes, after it frames 1 MiB; command text without a line end at most 64 KiB. Before login ten
// invalid commands, three wrong passwords or 30 s of idleness end a session too.
TEST_F(MonitoringSessionTest, FaultsInputPastItsLimitAndIdlenessEndOnlyThatSession) {
  // A compressed message of exactly 4096 bytes: silent text in one stored zlib block, which adds
  // 11 bytes (2 of header, 5 of block header, 4 of checksum).
  const std::string text = SilentText(4085);
  std::string at_limit(4096 + 64, '\0');
  uLongf size = at_limit.size();
  ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(at_limit.data()), &size,
                      reinterpret_cast<const Bytef*>(text.data()), text.size(), 0),
            Z_OK);
  ASSERT_EQ(size, 4096u);
  at_limit.resize(size);
  struct Case {
    int login;           // 0: none, 1: "user logwatcher" only, 2: logged in
    std::string served;  // at the limit, then a command
    std::string reply;   // to that command
    std::string fault;   // "" for waiting 30 s
    Lines owed;          // replies to the fault's commands
    std::string logged;
  };
  const std::vector<Case> cases = {
      {0,
       RawFrame(4096, at_limit) + codec_.Frame(SilentText(4096)) + codec_.Frame("user nobody\r\n"),
       "-ERR User unknown\r\n", RawFrame(4097, ""), Lines(), "Frame too large"},
      {0, "", "", codec_.Frame(SilentText(4097)), Lines(), "Message too large"},
      {2, codec_.Frame(Noise(12000, 7, "\n") + "\r\n"), "-ERR unrecognized command\r\n",
       RawFrame(1048577, ""), Lines(), "Frame too large"},
      {2, codec_.Frame(std::string(65536, 'x')) + codec_.Frame("\r\n"),
       "-ERR unrecognized command\r\n", codec_.Frame(std::string(65537, 'x')), Lines(),
       "Line too long"},
      {0, "", "", "\x01" + codec_.Frame("list\r\n").substr(1) + codec_.Frame("quit\r\n"), Lines(),
       "Lost sync reading from server"},
      {0, "", "", RawFrame(8, "garbage!"), Lines(),
       "ProxySession::Inflate operation failed (inflate: -3)"},
      {0, "", "", codec_.Frame(Repeated("list\r\n", 11)), Lines(10, "-ERR invalid command\r\n"),
       "Closing after 10 invalid commands before login"},
      {1, "", "", codec_.Frame(Repeated("pass wrong\r\n", 4)),
       Lines(3, "-ERR Login failed (invalid password)\r\n"), "Closing after 3 failed logins"},
      {0, "", "", "", Lines(), "No login within 30 s, closing"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    Connect();
    if (c.login == 1) Talk({{"user logwatcher\r\n", {"+OK\r\n"}}});
    if (c.login == 2) Login();
    if (!c.served.empty()) {
      client_->SendRaw(c.served);
      Expect(c.reply);
    }
    if (c.fault.empty()) now_ += 30;
    client_->SendRaw(c.fault);
    for (const std::string& reply : c.owed) Expect(reply);
    Expect("<closed>");
    const Lines lines = SessionLog();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], Prefix() + c.logged);
    EXPECT_TRUE(lines.back().starts_with(Prefix() + "Connection from 127.0.0.1 ended, "))
        << lines.back();
  }
  Connect();  // the port goes on serving
  Talk({{"user nobody\r\n", {"-ERR User unknown\r\n"}}});
}

// A client that sends commands but does not read its replies: its lines are handled 1000 a pass
// (the reply bytes made, sent or not, over one reply's size), and before login at most 64 KiB of
// replies wait for it; then its commands wait, and all are answered once it reads. Each pass is a
// new second (commands held back are taken up at the next one), but the time to log in never ends.
TEST_F(MonitoringSessionTest,
       LinesAreServedAThousandAPassAndRepliesWaitingBeforeLoginStayUnder64KiB) {
  ticking_ = false;
  extra_pass_ = [this] { now_ ^= 1; };
  Connect(4096);
  const int small = 4096;
  ASSERT_EQ(
      ::setsockopt(Session().GetIncomingSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
  const std::size_t reply = codec_.Frame("+OK\r\n").size();
  const auto made = [&] {
    return Session().GetIncomingBytesSent() + Session().GetIncomingBuffer().size();
  };
  const std::size_t before = made();
  const std::string users = Repeated("user logwatcher\r\n", 240);  // a frame's 4080 bytes
  for (int i = 0; i < 30; ++i) client_->Send(users);               // 7200 lines
  // Passes until the lines handled stay the same for three passes.
  std::size_t largest = 0, handled = 0;
  int unchanged = 0;
  EXPECT_TRUE(PumpUntil([&] {
    largest = std::max(largest, Session().GetIncomingBuffer().size());
    const std::size_t now = (made() - before) / reply;
    EXPECT_LE(now - handled, 1000u);
    EXPECT_TRUE(now % 1000 == 0 || largest > 64 * 1024) << now << " lines before the bound";
    unchanged = now == handled ? unchanged + 1 : 0;
    handled = now;
    return unchanged == 3;
  }));
  EXPECT_GT(largest, 64u * 1024);
  EXPECT_LE(largest, 72u * 1024);
  EXPECT_GE(handled, 2000u);
  EXPECT_TRUE(ReceiveData(7200 * 5) == Repeated("+OK\r\n", 7200));
}

// The clock stands still here: the test moves it.
TEST_F(MonitoringSessionTest, TenFailedLoginsFromOneAddressWithinAMinuteRefuseItForAMinute) {
  ticking_ = false;
  for (int session = 0; session < 4; ++session) {
    Connect();
    Talk({{"user logwatcher\r\n", {"+OK\r\n"}}});
    for (int i = 0; i < (session < 3 ? 3 : 1); ++i) {
      Talk({{"pass wrong\r\n", {"-ERR Login failed (invalid password)\r\n"}}});
    }
  }
  Talk({{"pass " + kPassword + "\r\n", {"-ERR Login failed (invalid password)\r\n"}}});
  now_ += 60;
  Talk({{"pass " + kPassword + "\r\n", {"+OK Login successful\r\n"}}});
  const std::string failed = Prefix() + "Login failed: user \"logwatcher\" from 127.0.0.1 (";
  const Lines lines = SessionLog();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
            (Lines{failed + "wrong password)",
                   Prefix() + "Refusing logins from 127.0.0.1 for 60 s after 10 failed logins",
                   failed + "address refused after repeated failures)",
                   Prefix() + "Login of user \"logwatcher\" from 127.0.0.1"}));
}

// Files are listed after login only; neither a link out of the root nor ".." reaches a file
// outside it, also when the link replaces a listed file later.
TEST_F(MonitoringSessionTest, NothingOutsideTheDocumentRootIsListedOrSent) {
  testutil::TempDir outside;
  testutil::WriteFile(outside.File("secret.log"), "secret\n");
  ASSERT_EQ(::symlink(outside.File("secret.log").c_str(), root_.File("out.log").c_str()), 0);
  ASSERT_EQ(::symlink("a.log", root_.File("in.log").c_str()), 0);
  Connect();
  EXPECT_TRUE(Session().GetLogFiles().empty());
  StartA();
  Talk({{"list\r\n",
         {"a.log\r\n", "b.log\r\n", "in.log\r\n", "restart.log\r\n", "sub/c.log\r\n", "+OK\r\n"}}});
  for (const char* name : {"b.log", "a.log"}) {  // swapped for links after the listing
    ASSERT_EQ(::unlink(root_.File(name).c_str()), 0);
    ASSERT_EQ(::symlink(outside.File("secret.log").c_str(), root_.File(name).c_str()), 0);
  }
  // The a.log that is followed now leads out of the root: nothing comes before the replies.
  testutil::WriteFile(outside.File("secret.log"), "more\n", true);
  for (const std::string& name : {"../" + FWFileName::GetName(outside.Path()) + "/secret.log",
                                  std::string("b.log"), std::string("in.log")}) {
    Talk({{"start " + name + "\r\n", {"-ERR invalid logfile name\r\n"}}});
  }
  // The listing's and the "../" refusal's log lines are checked by the directory and daemon tests.
  EXPECT_NE(LogStream.GetLogBuffer().find("Refused name \"b.log\" from 127.0.0.1"),
            std::string::npos);
}

// ---- Tailing ----

TEST_F(MonitoringSessionTest, SessionsOfOneFileShareOneFeedAndEachGetsExactlyItsOwnSuffix) {
  Connect();
  StartA();
  const std::string a = root_.File("a.log");
  testutil::WriteFile(a, "one\n", true);
  FeedPeer& second = StartA(true);
  testutil::WriteFile(a, "two\n", true);
  // Rotated: the rest of the old file comes first, then the new one whole.
  ASSERT_EQ(::rename(a.c_str(), root_.File("a.log.1").c_str()), 0);
  testutil::WriteFile(root_.File("a.log.1"), "three\n", true);
  testutil::WriteFile(a, "four\n");
  FeedPeer& third = StartA(true);
  const std::vector<FeedPeer*> clients = {client_.get(), &second, &third};
  const auto receive = [&](const Lines& wanted) {
    for (std::size_t i = 0; i < clients.size(); ++i) {
      EXPECT_EQ(ReceiveData(wanted[i].size(), clients[i]), wanted[i]) << "client " << i;
    }
  };
  testutil::WriteFile(a, "five\n", true);
  receive(
      {"one\r\ntwo\r\nthree\r\nfour\r\nfive\r\n", "two\r\nthree\r\nfour\r\nfive\r\n", "five\r\n"});
  testutil::WriteFile(a, "six\n");  // truncated and rewritten, shorter than before
  receive({"six\r\n", "six\r\n", "six\r\n"});
  testutil::WriteFile(a, "seven\n", true);
  receive({"seven\r\n", "seven\r\n", "seven\r\n"});  // nothing was sent twice
  ASSERT_EQ(manager_.GetLogFeeds()->size(), 1u);
  for (const auto& session : port_->GetSessions()) {
    EXPECT_NE(dynamic_cast<MonitoringSession&>(*session).GetFeed(), nullptr);
    EXPECT_EQ(dynamic_cast<MonitoringSession&>(*session).GetFeed(), Session().GetFeed());
  }
  // One poll's data (3 MiB) goes out in messages of at most 1 MiB.
  std::string lines;
  for (int i = 0; lines.size() < 3 * kMiB; ++i) lines += "line " + std::to_string(i) + "\r\n";
  testutil::WriteFile(a, lines, true);
  std::size_t largest = 0;
  EXPECT_TRUE(ReceiveData(lines.size(), nullptr, &largest) == lines);
  EXPECT_LE(largest, 1048576u) << "a data message over 1 MiB";
}

// The first client stops reading while 256 KiB blocks are appended: the second gets every block
// meanwhile. The first is held back once more than 8 MiB of replies wait for it, not before and
// not much later, and is then left to a reader of its own while the feed reads on for the second;
// reading again, it gets every byte, then takes the shared frames again.
TEST_F(MonitoringSessionTest, AStalledClientCostsBoundedMemoryHoldsBackNoOtherAndLosesNothing) {
  Connect(64 * 1024);
  // Little room in the kernel while the client stalls: the unsent replies reach the bound soon.
  const auto send_buffer = [&](int size) {
    ASSERT_EQ(
        ::setsockopt(Session().GetIncomingSocket(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
  };
  send_buffer(16 * 1024);
  StartA();
  FeedPeer& fast = StartA(true);
  std::size_t largest = 0;
  extra_pass_ = [&] { largest = std::max(largest, Session().GetIncomingBuffer().size()); };
  std::string expected;
  std::size_t held_at = 0;
  for (unsigned block = 0; block < 64 && Session().GetOwnTail() == nullptr; ++block) {
    const std::string data = Noise(256 * 1024, block);
    testutil::WriteFile(root_.File("a.log"), data, true);
    expected += data;
    ASSERT_TRUE(ReceiveData(data.size(), &fast) == data) << "the fast client's block " << block;
    held_at = Session().GetIncomingBuffer().size();
  }
  ASSERT_NE(Session().GetOwnTail(), nullptr) << "the stalled session was never held back";
  EXPECT_GT(held_at, 8u * 1024 * 1024);
  // Held back at most this late: held_at is one of the sizes largest saw.
  EXPECT_LE(largest, 8u * 1024 * 1024 + 512 * 1024) << "the stalled session took past its bound";
  extra_pass_ = nullptr;
  send_buffer(1024 * 1024);
  EXPECT_TRUE(ReceiveData(expected.size()) == expected) << "the stalled client's data differs";
  EXPECT_TRUE(PumpUntil([&] { return Session().GetOwnTail() == nullptr; }));
  testutil::WriteFile(root_.File("a.log"), "after\n", true);
  EXPECT_EQ(ReceiveData(7), "after\r\n");
  EXPECT_EQ(ReceiveData(7, &fast), "after\r\n");
}

// ---- Many connections ----

TEST_F(MonitoringSessionTest, ABurstOfConnectionsAboveDescriptor1023IsGreetedInAFewPasses) {
  // Every socket of this test, the daemon's included, gets a number above 1023.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit raised = saved;
  raised.rlim_cur = std::min<rlim_t>(saved.rlim_max, 4096);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<int> taken;
  for (int fd = ::open("/dev/null", O_RDONLY); fd >= 0 && fd < 1100; fd = ::dup(fd)) {
    taken.push_back(fd);
  }
  ASSERT_GE(taken.size(), 1000u) << "the descriptor limit is too low for this test";
  manager_.Init();
  sockaddr_in address{};
  FWSocketManager::GetInstance().AddressCreate(address, "127.0.0.1", port_->GetIncomingPort(),
                                               "tcp");
  std::vector<pollfd> clients;
  for (int i = 0; i < 300; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_GT(fd, 1023);
    ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    clients.push_back(pollfd{fd, POLLOUT, 0});
  }
  const auto all = [&](short events, int wait_ms) {
    for (pollfd& client : clients) client.events = events, client.revents = 0;
    ::poll(clients.data(), clients.size(), wait_ms);
    return std::all_of(clients.begin(), clients.end(),
                       [&](const pollfd& client) { return (client.revents & events) != 0; });
  };
  // All connected: the kernel holds them until the loop accepts.
  ASSERT_TRUE(testutil::WaitUntil([&] { return all(POLLOUT, 100); }));
  int passes = 0;
  EXPECT_TRUE(PumpUntil([&] { return ++passes, all(POLLIN, 0); }));
  EXPECT_LE(passes, 6) << "connections were taken one a pass";
  EXPECT_EQ(port_->GetSessions().size(), 300u);
  for (const pollfd& client : clients) ::close(client.fd);
  for (const int fd : taken) ::close(fd);
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

// ---- The client role ----

// Against a test server, the reader frames each command, drops the greeting and the replies
// ("+..." and "-...") and keeps the data lines; it closes when the server closes, on lost sync
// (its text emptied) and when the connect fails.
TEST_F(MonitoringSessionTest,
       ClientRoleFramesCommandsKeepsDataLinesAndClosesOnEndLostSyncOrFailure) {
  FeedPeer server;
  MonitoringPort client_port;
  client_port.SetOutgoingServer(FWString("127.0.0.1"));
  client_port.SetOutgoingPort(FWString(std::to_string(server.Port())));
  const SessionContext none;
  MonitoringSession reader(7, &client_port, none), lost(8, &client_port, none),
      refused(9, &client_port, none);
  reader.Open(0);
  ASSERT_TRUE(reader.IsOpen() && server.Accept());
  EXPECT_EQ(reader.GetClientState(), MonitoringSession::kAwaitingGreeting);
  reader.SendCommand("user logwatcher\r\n");
  reader.SendCommand("list\r\n");
  reader.SendOutgoing();
  EXPECT_EQ(server.Receive(), "user logwatcher\r\n");
  EXPECT_EQ(server.Receive(), "list\r\n");
  reader.QueueIncoming(
      codec_.Frame(kGreeting + "alpha\r\n-minus\r\n+pl") + codec_.Frame("us\r\nbeta\r\n"), false);
  EXPECT_EQ(reader.GetReceivedText(), "alpha\r\nbeta\r\n");
  EXPECT_EQ(reader.GetClientState(), MonitoringSession::kGreetingSeen);
  EXPECT_EQ(reader.GetServerState(), 0);
  server.Close();
  EXPECT_TRUE(testutil::WaitUntil([&] { return reader.ReceiveOutgoing(), !reader.IsOpen(); }));
  lost.Open(0);
  lost.QueueIncoming(codec_.Frame(kGreeting + "data\r\n"), false);  // emptied at the close
  lost.QueueIncoming(std::string(8, '\x01'), false);
  EXPECT_FALSE(lost.IsOpen());
  EXPECT_EQ(lost.GetReceivedText(), "");
  const std::string closed_port = std::to_string(testutil::FreePort());
  client_port.SetOutgoingPort(FWString(closed_port));
  refused.Open(0);
  EXPECT_FALSE(refused.IsOpen());
  const Lines log = SessionLog();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(Lines(log.begin(), log.end() - 1), (Lines{"Session 7: Connection closed by server",
                                                      "Session 8: Lost sync reading from server"}));
  EXPECT_TRUE(
      log.back().starts_with("Session 9: Connect to 127.0.0.1:" + closed_port + " failed: "))
      << log.back();
}

}  // namespace
