// The log feed session end to end: a monitoring port served by the real session manager loop,
// driven pass by pass, and a test client on 127.0.0.1 that frames its commands and decodes the
// replies with the feed codec, as a foreign client would.
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
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "FWBlowfish.h"
#include "FWCounter.h"
#include "FWFeedCodec.h"
#include "FWFile.h"
#include "FWLogStream.h"
#include "FWSocket.h"
#include "LogTail.h"
#include "LoginGuard.h"
#include "MonitoringPort.h"
#include "SessionManager.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

constexpr milliseconds kWait{20000};
constexpr std::size_t kStampWidth = 23;  // "<22-character stamp> "
constexpr std::size_t kMiB = 1024 * 1024;
const std::string kGreeting = "Norvane Monitoring Service Ready.\r\n";
const std::string kPassword = "Kem01&*sB";

std::string FreePort() { return std::to_string(testutil::FreePort()); }

bool IsReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 0) == 1;
}

// Text of exactly `size` bytes made of "user <blanks>\r\n" lines: each is a user command without
// argument, which gets no reply, so the whole text is handled silently.
std::string SilentText(std::size_t size) {
  std::string line = "user" + std::string(994, ' ') + "\r\n";  // 1000 bytes
  std::string text;
  while (text.size() + line.size() <= size) text += line;
  const std::size_t rest = size - text.size();
  if (rest >= 6) text += "user" + std::string(rest - 6, ' ') + "\r\n";
  text += std::string(size - text.size(), ' ');
  return text;
}

// A frame with a hand-made header; the body is enciphered as the codec does.
std::string RawFrame(std::uint32_t length, std::string body) {
  Blowfish(FWFeedCodec::kFeedKey).Encrypt(body);
  std::string frame(4, '\0');
  for (int shift = 24; shift >= 0; shift -= 8) frame.push_back(static_cast<char>(length >> shift));
  return frame + body;
}

// A frame whose compressed message is exactly `length` bytes: a zlib stream of stored blocks
// holding silent text.
std::string FrameOfCompressedLength(std::size_t length) {
  for (std::size_t text_size = length - 200; text_size < length; ++text_size) {
    const std::string text = SilentText(text_size);
    std::string stream(compressBound(text.size()) + 64, '\0');
    uLongf size = stream.size();
    if (compress2(reinterpret_cast<Bytef*>(stream.data()), &size,
                  reinterpret_cast<const Bytef*>(text.data()), text.size(), 0) != Z_OK) {
      break;
    }
    if (size != length) continue;
    stream.resize(size);
    return RawFrame(static_cast<std::uint32_t>(size), stream);
  }
  ADD_FAILURE() << "no stored stream of " << length << " bytes";
  return "";
}

std::string Dos(const std::string& text) {
  std::string result;
  for (char c : text) {
    if (c == '\n') result += '\r';
    result += c;
  }
  return result;
}

// The test's client: writes without blocking (what does not fit waits for the next pass) and
// decodes what arrives into messages. Owns its descriptor.
class FeedClient {
 public:
  // receive_buffer > 0 fixes the socket's receive buffer, so that the kernel holds little of
  // what the session sends.
  FeedClient(const std::string& port, int receive_buffer) {
    const FWSocketManager& sockets = FWSocketManager::GetInstance();
    sockaddr_in address{};
    sockets.AddressCreate(address, "127.0.0.1", port, "tcp");
    fd_ = sockets.CreateSocket("tcp");
    if (receive_buffer > 0) {
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    }
    sockets.SetBlocking(fd_, true);
    sockets.Connect(fd_, address);
    sockets.SetBlocking(fd_, false);
  }
  ~FeedClient() { ::close(fd_); }
  FeedClient(const FeedClient&) = delete;
  FeedClient& operator=(const FeedClient&) = delete;

  void Write(const std::string& bytes) {
    outbox_ += bytes;
    Flush();
  }
  void Flush() {
    while (!outbox_.empty()) {
      const ssize_t sent = ::send(fd_, outbox_.data(), outbox_.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      outbox_.erase(0, static_cast<std::size_t>(sent));
    }
  }
  // Reads what has arrived (unless reading is paused) and decodes whole frames.
  void Read() {
    if (!reading_) return;
    char buffer[65536];
    for (;;) {
      const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (got == 0) closed_ = true;
      if (got <= 0) break;
      codec_.Append(std::string_view(buffer, static_cast<std::size_t>(got)));
    }
    std::string message;
    while (codec_.Next(&message) == FWFeedCodec::Result::kMessage) messages_.push_back(message);
  }
  std::optional<std::string> TakeMessage() {
    if (messages_.empty()) return std::nullopt;
    std::string message = messages_.front();
    messages_.pop_front();
    return message;
  }
  bool HasMessage() const { return !messages_.empty(); }
  bool IsClosed() const { return closed_; }
  void SetReading(bool reading) { reading_ = reading; }

 private:
  int fd_ = -1;
  std::string outbox_;
  FWFeedCodec codec_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
  std::deque<std::string> messages_;
  bool closed_ = false;
  bool reading_ = true;
};

class MonitoringSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogStream.ClearLogBuffer();
    LogStream.SetBufferLimit(1 << 20);
    LogStream.SetOptions(0);
    testutil::WriteFile(root_.File("a.log"), "old a\n");
    testutil::WriteFile(root_.File("b.log"), "");
    testutil::WriteFile(root_.File("restart.log"), "");
    testutil::WriteFile(root_.File("notes.txt"), "");
    ASSERT_EQ(::mkdir(root_.File("sub").c_str(), 0755), 0);
    testutil::WriteFile(root_.File("sub/c.log"), "");
    auto port = std::make_unique<MonitoringPort>();
    port_ = port.get();
    port_->SetIncomingServer(FWString("127.0.0.1"));
    port_->SetIncomingPort(FWString(FreePort()));
    port_->SetDocumentRoot(FWString(root_.Path()));
    manager_.GetPorts().push_back(std::move(port));
    manager_.SetUpdateCheck("", milliseconds(1000));
    // Every pass is a new second, so every pass polls the transmitted file; a test that stops
    // the clock moves it itself.
    manager_.SetClock([this] { return ticking_ ? ++now_ : now_; });
  }
  void TearDown() override {
    client_.reset();
    others_.clear();
    manager_.Exit();
    LogStream.SetBufferLimit(0);
    LogStream.ClearLogBuffer();
    std::vector<std::string> names;
    for (const auto& entry : Counter.GetAll()) names.push_back(entry.first);
    for (const std::string& name : names) Counter.Clear(name);
  }

  // One pass of the loop, then the client sends what waits and reads what came.
  void Pass() {
    manager_.Select();
    if (extra_pass_) extra_pass_();
    for (const auto& other : others_) other->Flush(), other->Read();
    if (!client_) return;
    client_->Flush();
    client_->Read();
  }
  void Pump(int passes) {
    for (int i = 0; i < passes; ++i) Pass();
  }
  bool PumpUntil(const std::function<bool()>& pred) {
    return testutil::WaitUntil(
        [&] {
          if (pred()) return true;
          Pass();
          return pred();
        },
        kWait);
  }

  // Connects a new client (the manager starts on first use) and takes the greeting.
  void Connect(int receive_buffer = 0) {
    if (!manager_.IsInitialized()) manager_.Init();
    client_.reset();
    ASSERT_TRUE(PumpUntil([&] { return port_->GetSessions().empty(); }));
    client_ = std::make_unique<FeedClient>(port_->GetIncomingPort(), receive_buffer);
    ASSERT_TRUE(PumpUntil([&] { return port_->GetSessions().size() == 1; }));
    Expect(kGreeting);
  }
  void Send(const std::string& text) { client_->Write(codec_.Frame(text)); }
  void SendRaw(const std::string& bytes) { client_->Write(bytes); }
  std::string Next() {
    if (!PumpUntil([&] { return client_->HasMessage(); })) return "<no reply>";
    return *client_->TakeMessage();
  }
  void Expect(const std::string& reply) { EXPECT_EQ(Next(), reply); }
  void ExpectNoReply() {
    Pump(2);
    EXPECT_FALSE(client_->HasMessage()) << *client_->TakeMessage();
  }
  // The session ends without another reply.
  void ExpectClosed() {
    EXPECT_TRUE(PumpUntil([&] { return client_->IsClosed(); }));
    EXPECT_FALSE(client_->HasMessage()) << *client_->TakeMessage();
  }
  // A further client that logs in and starts a.log; the passes serve it as the first.
  FeedClient& StartAnother() {
    others_.push_back(std::make_unique<FeedClient>(port_->GetIncomingPort(), 0));
    FeedClient& other = *others_.back();
    other.Write(codec_.Frame("user logwatcher\r\n") + codec_.Frame("pass " + kPassword + "\r\n") +
                codec_.Frame("start a.log\r\n"));
    const std::string started = "+OK start transmitting " + root_.Path() + "/a.log\r\n";
    bool seen = false;
    EXPECT_TRUE(PumpUntil([&] {
      while (auto message = other.TakeMessage()) seen = seen || *message == started;
      return seen;
    }));
    return other;
  }
  // Collects tail data until `size` bytes of text have arrived (from the first client unless
  // another is given).
  std::string ReceiveData(std::size_t size, std::size_t* largest = nullptr,
                          FeedClient* from = nullptr) {
    FeedClient& client = from != nullptr ? *from : *client_;
    std::string data;
    PumpUntil([&] {
      while (auto message = client.TakeMessage()) {
        if (largest != nullptr) *largest = std::max(*largest, message->size());
        data += *message;
      }
      return data.size() >= size;
    });
    return data;
  }
  void Login() {
    Send("user logwatcher\r\n");
    Expect("+OK\r\n");
    Send("pass " + kPassword + "\r\n");
    Expect("+OK Login successful\r\n");
  }
  // Passes until the session's unsent output stays the same for three passes: *settled is then
  // its size, *largest the most it held meanwhile.
  bool PumpUntilUnsentSettles(std::size_t* settled, std::size_t* largest) {
    int unchanged = 0;
    return PumpUntil([&] {
      const std::size_t unsent = Session().GetIncomingBuffer().size();
      *largest = std::max(*largest, unsent);
      unchanged = unsent == *settled ? unchanged + 1 : 0;
      *settled = unsent;
      return unchanged == 3;
    });
  }
  // Logs in and starts a.log: from the reply on, every appended byte is sent.
  void StartA() {
    Login();
    Send("start a.log\r\n");
    Expect("+OK start transmitting " + root_.Path() + "/a.log\r\n");
  }
  MonitoringSession& Session() {
    return *dynamic_cast<MonitoringSession*>(port_->GetSessions().front().get());
  }
  // The log prefix of the first monitoring session: numbers are taken from the top of the pool.
  std::string Prefix() const {
    return "Session " + std::to_string(manager_.GetPoolSize() - 1) + ": ";
  }
  std::string Ended(int bytes) const {
    return Prefix() + "Connection from 127.0.0.1 ended, " + std::to_string(bytes) + " bytes sent";
  }
  static Lines SessionLogLines() {
    Lines lines;
    std::istringstream stream(LogStream.GetLogBuffer());
    for (std::string line; std::getline(stream, line);) {
      if (line.compare(kStampWidth, 8, "Session ") == 0) lines.push_back(line.substr(kStampWidth));
    }
    return lines;
  }

  testutil::TempDir root_;
  SessionManager manager_;
  MonitoringPort* port_ = nullptr;  // owned by manager_
  std::unique_ptr<FeedClient> client_;
  std::vector<std::unique_ptr<FeedClient>> others_;
  FWFeedCodec codec_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
  std::time_t now_ = 1000000;
  bool ticking_ = true;
  std::function<void()> extra_pass_;
};

// ---- The reply table ----

TEST_F(MonitoringSessionTest, LoginRepliesBeforeLoginAreExact) {
  Connect();
  EXPECT_EQ(Session().GetNumber(), static_cast<unsigned>(manager_.GetPoolSize() - 1));
  Send("list\r\n");
  Expect("-ERR invalid command\r\n");
  Send("pass " + kPassword + "\r\n");  // no user accepted yet
  Expect("-ERR invalid command\r\n");
  Send("user nobody\r\n");
  Expect("-ERR User unknown\r\n");
  Send("user logwatcher\r\n");
  Expect("+OK\r\n");
  Send("user nobody\r\n");  // does not take the accepted user back
  Expect("-ERR User unknown\r\n");
  Send("pass wrong\r\n");
  Expect("-ERR Login failed (invalid password)\r\n");
  Send("pass " + kPassword + "\r\n");  // a retry succeeds
  Expect("+OK Login successful\r\n");
  EXPECT_EQ(Session().GetServerState(), MonitoringSession::kLoggedIn);
}

TEST_F(MonitoringSessionTest, RepliesAfterLoginAreExact) {
  Connect();
  Login();
  Send("list\r\n");
  for (const char* name :
       {"a.log\r\n", "b.log\r\n", "restart.log\r\n", "sub/c.log\r\n", "+OK\r\n"}) {
    Expect(name);
  }
  Send("start missing.log\r\n");
  Expect("-ERR invalid logfile name\r\n");
  Send("start sub/c.log\r\n");
  Expect("+OK start transmitting " + root_.Path() + "/sub/c.log\r\n");
  EXPECT_TRUE(Session().IsTransmitting());
  Send("stop\r\n");
  Expect("+OK logfile transmission stopped\r\n");
  EXPECT_FALSE(Session().IsTransmitting());
  Send("user logwatcher\r\n");
  Expect("-ERR unrecognized command\r\n");
  Send("START a.log\r\n");  // passes the keyword test, but the upper-case keyword stays
  Expect("-ERR invalid logfile name\r\n");
  Send("quit\r\n");
  Expect("+OK closing connection\r\n");
  ExpectClosed();
}

TEST_F(MonitoringSessionTest, QuitInAnyCaseEndsButQuitWithATrailingBlankDoesNot) {
  Connect();
  Send("quit \r\n");
  Expect("-ERR invalid command\r\n");
  Login();
  Send("quit \r\n");
  Expect("-ERR unrecognized command\r\n");
  Send("QuIt\r\n");
  Expect("+OK closing connection\r\n");
  ExpectClosed();
  Connect();  // also before login
  Send("QUIT\r\n");
  Expect("+OK closing connection\r\n");
  ExpectClosed();
}

TEST_F(MonitoringSessionTest, LinesAfterQuitInTheSameFrameAreIgnored) {
  Connect();
  Send("quit\r\nuser logwatcher\r\nlist\r\n");
  Expect("+OK closing connection\r\n");
  ExpectClosed();
}

TEST_F(MonitoringSessionTest, BareLineFeedWaitsForCarriageReturnLineFeed) {
  Connect();
  Send("user logwatcher\n");
  ExpectNoReply();
  Send("\r\n");  // one line "user logwatcher\n\r\n": the "\n" stays in the name
  Expect("-ERR User unknown\r\n");
}

TEST_F(MonitoringSessionTest, UserAndPassWithoutArgumentGetNoReply) {
  Connect();
  Send("user\r\n");
  Send("user   \r\n");
  Send("user nobody\r\n");
  Expect("-ERR User unknown\r\n");  // the first reply: the two before got none
  Send("user logwatcher\r\n");
  Expect("+OK\r\n");
  Send("pass \r\n");
  Send("pass\r\n");
  Send("pass wrong\r\n");
  Expect("-ERR Login failed (invalid password)\r\n");
}

TEST_F(MonitoringSessionTest, UpperCaseKeywordsPassTheTestButStayInTheArgument) {
  Connect();
  Send("USER logwatcher\r\n");
  Expect("-ERR User unknown\r\n");
  Send("user logwatcher\r\n");
  Expect("+OK\r\n");
  Send("PASS " + kPassword + "\r\n");
  Expect("-ERR Login failed (invalid password)\r\n");
}

TEST_F(MonitoringSessionTest, OnlyTheLeadingKeywordIsRemovedFromAnArgument) {
  port_->SetUser(FWString("superuser"));
  port_->SetPassword(FWString("bypass1"));
  Connect();
  Send("user superuser\r\n");
  Expect("+OK\r\n");
  Send("pass bypass1\r\n");
  Expect("+OK Login successful\r\n");
  Send("start restart.log\r\n");
  Expect("+OK start transmitting " + root_.Path() + "/restart.log\r\n");
}

TEST_F(MonitoringSessionTest, StartOnAFileThatCannotBeReadIsRefusedAndTheSessionGoesOn) {
  Connect();
  Login();
  Send("start\r\n");  // collects the list
  Expect("-ERR invalid logfile name\r\n");
  // Listed as a file, then replaced by a directory of the same name.
  ASSERT_EQ(::unlink(root_.File("b.log").c_str()), 0);
  ASSERT_EQ(::mkdir(root_.File("b.log").c_str(), 0755), 0);
  Send("start b.log\r\n");
  Expect("-ERR can't read b.log: Is a directory\r\n");
  EXPECT_FALSE(Session().IsTransmitting());
  Send("start a.log\r\n");
  Expect("+OK start transmitting " + root_.Path() + "/a.log\r\n");
  EXPECT_EQ(SessionLogLines(),
            (Lines{Prefix() + "Login of user \"logwatcher\" from 127.0.0.1",
                   Prefix() + "Can't read file: " + root_.Path() + "/b.log (Is a directory)",
                   Prefix() + "Start \"" + root_.Path() + "/a.log\" from 127.0.0.1"}));
}

TEST_F(MonitoringSessionTest, StartWithoutNameConfirmsTheCurrentFileAndKeepsItsPosition) {
  Connect();
  Login();
  Send("start\r\n");  // nothing is transmitted yet
  Expect("-ERR invalid logfile name\r\n");
  Send("start a.log\r\n");
  Expect("+OK start transmitting " + root_.Path() + "/a.log\r\n");
  Pump(2);
  // Appended before the command is read; the poll of that pass still sends it.
  testutil::WriteFile(root_.File("a.log"), "two\n", true);
  Send("start  \r\n");
  Expect("+OK start transmitting " + root_.Path() + "/a.log\r\n");
  Expect("two\r\n");
  Send("stop\r\n");
  Expect("+OK logfile transmission stopped\r\n");
  Send("start\r\n");
  Expect("-ERR invalid logfile name\r\n");
}

// The extensions: each data message begins with the position after it (device, inode, offset).
TEST_F(MonitoringSessionTest, BacklogAndResumeRepliesAreExact) {
  struct stat st;
  ASSERT_EQ(::stat(root_.File("a.log").c_str(), &st), 0);
  const std::string id = std::to_string(st.st_dev) + " " + std::to_string(st.st_ino) + " ";
  const std::string started = "+OK start transmitting " + root_.Path() + "/a.log\r\n";
  Connect();
  Login();
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"backlog 5 a.log", {started, "+FEED " + id + "6\r\nold a\r\n"}},
      {"backlog 0 a.log", {started, "+FEED " + id + "6\r\n"}},
      {"resume " + id + "2 a.log", {started, "+FEED " + id + "6 continued\r\nd a\r\n"}},
      {"resume " + id + "7 a.log", {started, "+FEED " + id + "6 truncated\r\nold a\r\n"}},
      {"resume 1 2 3 a.log", {started, "+FEED " + id + "6 rotated\r\nold a\r\n"}},
      {"backlog 1 none.log", {"-ERR invalid logfile name\r\n"}},
      {"backlog x a.log", {"-ERR bad arguments\r\n"}},
      {"backlog 1 ", {"-ERR bad arguments\r\n"}},
      {"resume 1 2 a.log", {"-ERR bad arguments\r\n"}},
  };
  for (const auto& [command, replies] : cases) {
    Send(command + "\r\n");
    for (const std::string& reply : replies) Expect(reply);
  }
  testutil::WriteFile(root_.File("a.log"), "new\n", true);
  Send("backlog 1 a.log\r\n");
  Expect(started);
  Expect("+FEED " + id + "10\r\nnew\r\n");
  testutil::WriteFile(root_.File("a.log"), "more\n", true);
  Expect("+FEED " + id + "15\r\nmore\r\n");
}

TEST_F(MonitoringSessionTest, ListWithoutMatchingFilesAnswersOnlyOk) {
  port_->SetSearchPattern(FWString("*.none"));
  Connect();
  Login();
  Send("list\r\n");
  Expect("+OK\r\n");
  Send("start a.log\r\n");
  Expect("-ERR invalid logfile name\r\n");
}

// ---- Framing ----

TEST_F(MonitoringSessionTest, CommandsAreHandledAlikeWhateverTheirFrames) {
  Connect();
  Send("user logwatcher\r\npass " + kPassword + "\r\n");  // two in one frame
  Expect("+OK\r\n");
  Expect("+OK Login successful\r\n");
  Send("li");  // one over two frames
  Send("st\r");
  Send("\nstop\r\n");
  for (const char* name :
       {"a.log\r\n", "b.log\r\n", "restart.log\r\n", "sub/c.log\r\n", "+OK\r\n"}) {
    Expect(name);
  }
  Expect("+OK logfile transmission stopped\r\n");
  SendRaw(codec_.Frame("") + codec_.Frame("stop\r\n") + codec_.Frame("list\r\n").substr(0, 9));
  Expect("+OK logfile transmission stopped\r\n");
  SendRaw(codec_.Frame("list\r\n").substr(9));
  Expect("a.log\r\n");
}

TEST_F(MonitoringSessionTest, WrongSyncMarkerClosesEvenWithAValidFrameBehind) {
  Connect();
  const std::string prefix = Session().GetLogPrefix();
  std::string bad = codec_.Frame("list\r\n");
  bad[0] = '\x01';
  SendRaw(bad + codec_.Frame("quit\r\n"));
  ExpectClosed();
  EXPECT_EQ(SessionLogLines(), (Lines{prefix + "Lost sync reading from server", Ended(64)}));
}

TEST_F(MonitoringSessionTest, CorruptCompressedMessageEndsOnlyThatSessionThroughTheLoop) {
  Connect();
  SendRaw(RawFrame(8, "garbage!"));
  ExpectClosed();
  EXPECT_EQ(SessionLogLines(),
            (Lines{Prefix() + "ProxySession::Inflate operation failed (inflate: -3)", Ended(64)}));
  Connect();  // the port goes on serving
  Send("user nobody\r\n");
  Expect("-ERR User unknown\r\n");
}

// ---- Bounded input ----

// Before login frames and messages may hold 4 KiB, after it 1 MiB. The header of a longer frame
// is enough to end the session.
TEST_F(MonitoringSessionTest, FramesAndMessagesPastTheirLimitEndTheSession) {
  const std::size_t limit = MonitoringSession::kPreLoginFrameLimit;
  Connect();
  SendRaw(FrameOfCompressedLength(limit));  // at the limit: handled, silently
  Send(SilentText(limit));
  Send("user nobody\r\n");
  Expect("-ERR User unknown\r\n");
  Send(SilentText(limit + 1));
  ExpectClosed();
  Connect();
  SendRaw(RawFrame(limit + 1, ""));
  ExpectClosed();
  Connect();
  Login();
  std::mt19937 random(7);
  std::string noise(3 * limit, ' ');  // compresses to more than 4 KiB
  for (char& c : noise) c = static_cast<char>('!' + random() % 94);
  Send(noise + "\r\n");
  Expect("-ERR unrecognized command\r\n");
  SendRaw(RawFrame(kMiB + 1, ""));
  ExpectClosed();
  const Lines lines = SessionLogLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Prefix() + "Message too large"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Prefix() + "Frame too large"), 2);
}

TEST_F(MonitoringSessionTest, CommandTextOver64KiBWithoutLineEndEndsTheSession) {
  Connect();
  Login();
  Send(std::string(MonitoringSession::kLineLimit, 'x'));  // at the limit: waits for its end
  Send("\r\n");
  Expect("-ERR unrecognized command\r\n");
  Send(std::string(MonitoringSession::kLineLimit + 1, 'x'));
  Send("\r\n");
  ExpectClosed();
  EXPECT_EQ(SessionLogLines().at(1), Prefix() + "Line too long");
}

// ---- Clients that have not logged in ----

// Each ends its session: after the replies it was owed, or at once when it only waited.
TEST_F(MonitoringSessionTest, InvalidCommandsWrongPasswordsAndIdlenessEndASessionBeforeLogin) {
  struct Case {
    bool user;  // "user logwatcher" first
    std::string line;
    int lines;
    std::string reply;  // to each line but the last
    std::string logged;
  };
  const std::vector<Case> cases = {
      {false, "list\r\n", 11, "-ERR invalid command\r\n",
       "Closing after 10 invalid commands before login"},
      {true, "pass wrong\r\n", 4, "-ERR Login failed (invalid password)\r\n",
       "Closing after 3 failed logins"},
      {false, "", 0, "", "No login within 30 s, closing"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    LogStream.ClearLogBuffer();
    Connect();
    if (c.user) {
      Send("user logwatcher\r\n");
      Expect("+OK\r\n");
    }
    std::string commands;
    for (int i = 0; i < c.lines; ++i) commands += c.line;
    if (commands.empty())
      now_ += MonitoringSession::kLoginTimeoutSeconds;
    else
      Send(commands);
    for (int i = 0; i + 1 < c.lines; ++i) Expect(c.reply);
    ExpectClosed();
    const Lines lines = SessionLogLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], Prefix() + c.logged);
  }
}

// A client that sends commands but does not read its replies holds at most 64 KiB of them
// before login; then its commands wait.
TEST_F(MonitoringSessionTest, RepliesWaitingForAClientThatHasNotLoggedInStayUnder64KiB) {
  Connect(4096);
  const int small = 4096;
  ASSERT_EQ(
      ::setsockopt(Session().GetIncomingSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
  client_->SetReading(false);
  std::string users;
  while (users.size() + 17 <= MonitoringSession::kPreLoginFrameLimit)
    users += "user logwatcher\r\n";
  for (int i = 0; i < 30; ++i) Send(users);  // 7200 replies of about 24 bytes
  std::size_t largest_unsent = 0;
  std::size_t previous = 0;
  ASSERT_TRUE(PumpUntilUnsentSettles(&previous, &largest_unsent));
  EXPECT_GT(largest_unsent, MonitoringSession::kPreLoginPendingBytes);
  EXPECT_LE(largest_unsent, MonitoringSession::kPreLoginPendingBytes + 8 * 1024);
}

// The clock stands still here: the test moves it.
TEST_F(MonitoringSessionTest, TenFailedLoginsFromOneAddressWithinAMinuteRefuseItForAMinute) {
  ticking_ = false;
  for (int session = 0; session < 4; ++session) {
    Connect();
    Send("user logwatcher\r\n");
    Expect("+OK\r\n");
    for (int i = 0; i < (session < 3 ? 3 : 1); ++i) {
      Send("pass wrong\r\n");
      Expect("-ERR Login failed (invalid password)\r\n");
    }
  }
  Send("pass " + kPassword + "\r\n");
  Expect("-ERR Login failed (invalid password)\r\n");
  now_ += LoginGuard::kRefusalSeconds;
  Send("pass " + kPassword + "\r\n");
  Expect("+OK Login successful\r\n");
  const std::string peer = " from 127.0.0.1";
  const Lines lines = SessionLogLines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
            (Lines{Prefix() + "Login failed: user \"logwatcher\"" + peer + " (wrong password)",
                   Prefix() + "Refusing logins from 127.0.0.1 for 60 s after 10 failed logins",
                   Prefix() + "Login failed: user \"logwatcher\"" + peer +
                       " (address refused after repeated failures)",
                   Prefix() + "Login of user \"logwatcher\"" + peer}));
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
  Send("list\r\n");
  for (const char* name :
       {"a.log\r\n", "b.log\r\n", "in.log\r\n", "restart.log\r\n", "sub/c.log\r\n", "+OK\r\n"}) {
    Expect(name);
  }
  for (const char* name : {"b.log", "a.log"}) {  // swapped for links after the listing
    ASSERT_EQ(::unlink(root_.File(name).c_str()), 0);
    ASSERT_EQ(::symlink(outside.File("secret.log").c_str(), root_.File(name).c_str()), 0);
  }
  testutil::WriteFile(outside.File("secret.log"), "more\n", true);
  ExpectNoReply();  // the a.log that is followed now leads out of the root
  const Lines names = {"../" + FWFileName::GetName(outside.Path()) + "/secret.log", "b.log",
                       "in.log"};
  for (const std::string& name : names) {
    Send("start " + name + "\r\n");
    Expect("-ERR invalid logfile name\r\n");
  }
  const std::string log = LogStream.GetLogBuffer();
  EXPECT_NE(log.find("Not inside the document root, skipped: " + root_.File("out.log") + " -> " +
                     outside.File("secret.log")),
            std::string::npos);
  EXPECT_NE(log.find("Refused name \"b.log\" from 127.0.0.1"), std::string::npos);
  EXPECT_NE(log.find("Refused name \"../"), std::string::npos);
}

// ---- Tailing ----

TEST_F(MonitoringSessionTest, StartSendsNothingOldAndEveryLineAppendedAfterItsReply) {
  Connect();
  StartA();
  // Appended right after the reply, before any poll: it must not be taken for old content.
  testutil::WriteFile(root_.File("a.log"), "one\ntwo\n", true);
  Expect("one\r\ntwo\r\n");
  testutil::WriteFile(root_.File("a.log"), "three", true);  // ends mid-line
  Expect("three");
  testutil::WriteFile(root_.File("a.log"), "\nfour\n", true);
  Expect("\r\nfour\r\n");
}

TEST_F(MonitoringSessionTest, LargeAppendArrivesWholeInOrderWithinOneSecondOfTheClock) {
  Connect();
  StartA();
  std::string lines;
  for (int i = 0; lines.size() < 10 * kMiB; ++i) lines += "line " + std::to_string(i) + "\n";
  testutil::WriteFile(root_.File("a.log"), lines, true);
  // One second passes, then the clock stands: a file with more to read than one poll takes is
  // read again at the next passes, not a second later.
  const std::time_t stopped = now_ + 1;
  manager_.SetClock([stopped] { return stopped; });
  const std::string expected = Dos(lines);
  std::size_t largest = 0;
  const std::string data = ReceiveData(expected.size(), &largest);
  EXPECT_EQ(data.size(), expected.size());
  EXPECT_TRUE(data == expected) << "the data differs from the appended lines";
  EXPECT_LE(largest, LogTail::kMaxReplyBytes);
  Pump(2);
  EXPECT_FALSE(client_->HasMessage()) << "data sent twice";
}

TEST_F(MonitoringSessionTest, ClientThatDoesNotReadCostsBoundedMemoryAndLosesNothing) {
  Connect(64 * 1024);
  StartA();
  // Printable noise compresses little, so what waits for the client is close to the file size.
  std::mt19937 random(7);
  std::string lines;
  while (lines.size() < 24 * kMiB) {
    for (int i = 0; i < 99; ++i) lines += static_cast<char>('!' + random() % 94);
    lines += '\n';
  }
  testutil::WriteFile(root_.File("a.log"), lines, true);
  client_->SetReading(false);
  std::size_t largest_unsent = 0;
  std::size_t previous = 0;
  int unchanged = 0;
  ASSERT_TRUE(PumpUntil([&] {
    const std::size_t unsent = Session().GetIncomingBuffer().size();
    largest_unsent = std::max(largest_unsent, unsent);
    unchanged = unsent == previous ? unchanged + 1 : 0;
    previous = unsent;
    return unchanged == 3;  // the socket is full and no poll adds more
  }));
  EXPECT_GT(previous, LogTail::kMaxPendingBytes);
  EXPECT_LE(largest_unsent, LogTail::kMaxPendingBytes + LogTail::kMaxPollBytes);
  client_->SetReading(true);
  const std::string expected = Dos(lines);
  const std::string data = ReceiveData(expected.size());
  EXPECT_EQ(data.size(), expected.size());
  EXPECT_TRUE(data == expected) << "the data differs from the appended lines";
}

TEST_F(MonitoringSessionTest, SessionsOfOneFileShareOneFeedAndEachGetsExactlyItsOwnSuffix) {
  Connect();
  StartA();
  const std::string a = root_.File("a.log");
  testutil::WriteFile(a, "one\n", true);
  FeedClient& second = StartAnother();
  testutil::WriteFile(a, "two\n", true);
  // Rotated: the rest of the old file comes first, then the new one whole.
  ASSERT_EQ(::rename(a.c_str(), root_.File("a.log.1").c_str()), 0);
  testutil::WriteFile(root_.File("a.log.1"), "three\n", true);
  testutil::WriteFile(a, "four\n");
  FeedClient& third = StartAnother();
  const std::vector<FeedClient*> clients = {client_.get(), &second, &third};
  Lines received(clients.size());
  const auto receive_until = [&](const Lines& wanted) {
    return PumpUntil([&] {
      for (std::size_t i = 0; i < clients.size(); ++i) {
        while (auto message = clients[i]->TakeMessage()) received[i] += *message;
      }
      return received == wanted;
    });
  };
  testutil::WriteFile(a, "five\n", true);
  EXPECT_TRUE(receive_until(
      {"one\r\ntwo\r\nthree\r\nfour\r\nfive\r\n", "two\r\nthree\r\nfour\r\nfive\r\n", "five\r\n"}))
      << received[0] << "|" << received[1] << "|" << received[2];
  testutil::WriteFile(a, "six\n");  // truncated and rewritten, shorter than before
  EXPECT_TRUE(receive_until({"one\r\ntwo\r\nthree\r\nfour\r\nfive\r\nsix\r\n",
                             "two\r\nthree\r\nfour\r\nfive\r\nsix\r\n", "five\r\nsix\r\n"}))
      << received[0] << "|" << received[1] << "|" << received[2];
  Pump(3);
  for (FeedClient* client : clients) EXPECT_FALSE(client->HasMessage()) << "data sent twice";
  ASSERT_EQ(manager_.GetLogFeeds()->size(), 1u);
  for (const auto& session : port_->GetSessions()) {
    const auto& follower = dynamic_cast<MonitoringSession&>(*session);
    EXPECT_NE(follower.GetFeed(), nullptr);
    EXPECT_EQ(follower.GetFeed(), Session().GetFeed());
  }
}

TEST_F(MonitoringSessionTest, AStalledSessionHoldsBackNoOtherAndCatchesUpAloneWithEveryByte) {
  Connect(64 * 1024);
  StartA();
  FeedClient& fast = StartAnother();
  std::mt19937 random(11);
  std::string lines;
  while (lines.size() < 16 * kMiB) {
    for (int i = 0; i < 99; ++i) lines += static_cast<char>('!' + random() % 94);
    lines += '\n';
  }
  client_->SetReading(false);
  testutil::WriteFile(root_.File("a.log"), lines, true);
  const std::string expected = Dos(lines);
  std::string fast_data;
  std::size_t largest_unsent = 0;
  PumpUntil([&] {
    largest_unsent = std::max(largest_unsent, Session().GetIncomingBuffer().size());
    while (auto message = fast.TakeMessage()) fast_data += *message;
    return fast_data.size() >= expected.size();
  });
  EXPECT_TRUE(fast_data == expected) << "the fast client's data differs";
  EXPECT_LE(largest_unsent, (8 + 4) * kMiB) << "the stalled session held more than its bound";
  EXPECT_NE(Session().GetOwnTail(), nullptr) << "the stalled session did not read on its own";
  client_->SetReading(true);
  const std::string data = ReceiveData(expected.size());
  EXPECT_EQ(data.size(), expected.size());
  EXPECT_TRUE(data == expected) << "the stalled client's data differs";
  // Caught up, it takes the shared frames again.
  EXPECT_TRUE(PumpUntil([&] { return Session().GetOwnTail() == nullptr; }));
  testutil::WriteFile(root_.File("a.log"), "after\n", true);
  EXPECT_EQ(ReceiveData(7), "after\r\n");
  EXPECT_EQ(ReceiveData(7, nullptr, &fast), "after\r\n");
}

TEST_F(MonitoringSessionTest, AFrameOfManyLinesIsServedAThousandLinesAPass) {
  Connect();
  Login();
  std::string lines;
  for (int i = 0; i < 4500; ++i) lines += "x\r\n";
  Send(lines);  // one small frame: it inflates to 4500 commands
  int passes = 0;
  int replies = 0;
  EXPECT_TRUE(PumpUntil([&] {
    ++passes;
    while (auto message = client_->TakeMessage()) {
      EXPECT_EQ(*message, "-ERR unrecognized command\r\n");
      ++replies;
    }
    return replies == 4500;
  }));
  EXPECT_GE(passes, 5) << "more than 1000 lines handled in one pass";
}

TEST_F(MonitoringSessionTest, CommandsWaitWhileRepliesToAClientThatDoesNotReadPileUp) {
  // Long names that do not compress make each list's replies about 5 KiB, so that two thousand
  // lists pass the bound with few frames: the work stays small on a slow machine.
  std::mt19937 random(7);
  std::uniform_int_distribution<int> letter('a', 'z');
  for (int i = 0; i < 40; ++i) {
    std::string name(240, 'x');
    for (char& c : name) c = static_cast<char>(letter(random));
    testutil::WriteFile(root_.File(name + ".log"), "");
  }
  Connect(64 * 1024);
  Login();
  client_->SetReading(false);
  constexpr int kLists = 2000;  // about 10 MiB of replies
  constexpr int kNamesPerList = 44;
  std::string lists;
  for (int i = 0; i < kLists; ++i) lists += "list\r\n";
  Send(lists);
  std::size_t largest_unsent = 0;
  std::size_t previous = 0;
  ASSERT_TRUE(PumpUntilUnsentSettles(&previous, &largest_unsent));
  EXPECT_GT(previous, LogTail::kMaxPendingBytes);
  EXPECT_LE(largest_unsent, LogTail::kMaxPendingBytes + 16 * 1024)
      << "more than one list's replies";
  client_->SetReading(true);
  int oks = 0;
  int names = 0;
  PumpUntil([&] {
    while (auto message = client_->TakeMessage()) ++(*message == "+OK\r\n" ? oks : names);
    return oks == kLists;
  });
  EXPECT_EQ(oks, kLists);
  EXPECT_EQ(names, kNamesPerList * kLists);
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

  constexpr int kClients = 300;
  sockaddr_in address{};
  FWSocketManager::GetInstance().AddressCreate(address, "127.0.0.1", port_->GetIncomingPort(),
                                               "tcp");
  std::vector<pollfd> clients;
  for (int i = 0; i < kClients; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_GT(fd, 1023);
    ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    clients.push_back(pollfd{fd, POLLOUT, 0});
  }
  // All connected: the kernel holds them until the loop accepts.
  ASSERT_TRUE(testutil::WaitUntil([&] {
    for (pollfd& client : clients) client.revents = 0;
    ::poll(clients.data(), clients.size(), 100);
    return std::all_of(clients.begin(), clients.end(),
                       [](const pollfd& client) { return (client.revents & POLLOUT) != 0; });
  }));
  int passes = 0;
  const auto all_greeted = [&] {
    for (pollfd& client : clients) client.events = POLLIN, client.revents = 0;
    ::poll(clients.data(), clients.size(), 0);
    return std::all_of(clients.begin(), clients.end(),
                       [](const pollfd& client) { return (client.revents & POLLIN) != 0; });
  };
  EXPECT_TRUE(PumpUntil([&] { return ++passes, all_greeted(); }));
  EXPECT_LE(passes, 6) << "connections were taken one a pass";
  EXPECT_EQ(port_->GetSessions().size(), static_cast<std::size_t>(kClients));
  for (const pollfd& client : clients) ::close(client.fd);
  for (const int fd : taken) ::close(fd);
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

// ---- The client role ----

TEST_F(MonitoringSessionTest, ClientRoleLogsInAndReceivesDataLines) {
  manager_.Init();
  MonitoringPort client_port;
  client_port.SetOutgoingServer(FWString("127.0.0.1"));
  client_port.SetOutgoingPort(port_->GetIncomingPort());
  MonitoringSession reader(7, &client_port);
  reader.Open(0);
  ASSERT_TRUE(reader.IsOpen());
  EXPECT_EQ(reader.GetClientState(), MonitoringSession::kAwaitingGreeting);
  EXPECT_EQ(reader.GetServerState(), 0);
  // The reader is no port's session: its transfers run after each pass, in the loop's order.
  extra_pass_ = [&] {
    if (IsReadable(reader.GetOutgoingSocket())) reader.ReceiveOutgoing();
    reader.SendOutgoing();
    reader.CheckFinished();
  };
  ASSERT_TRUE(PumpUntil([&] { return port_->GetSessions().size() == 1; }));
  reader.SendCommand("user logwatcher\r\n");
  reader.SendCommand("pass " + kPassword + "\r\n");
  reader.SendCommand("list\r\n");
  reader.SendCommand("start a.log\r\n");
  ASSERT_TRUE(PumpUntil([&] { return Session().IsTransmitting(); }));
  Pump(3);
  EXPECT_EQ(reader.GetClientState(), MonitoringSession::kGreetingSeen);
  // Replies ("+..." and "-...") are dropped; the list's names are lines like any other.
  EXPECT_EQ(reader.GetReceivedText(), "a.log\r\nb.log\r\nrestart.log\r\nsub/c.log\r\n");
  testutil::WriteFile(root_.File("a.log"), "alpha\n-minus\n+plus\nbeta\n", true);
  const std::string expected = "a.log\r\nb.log\r\nrestart.log\r\nsub/c.log\r\nalpha\r\nbeta\r\n";
  EXPECT_TRUE(PumpUntil([&] { return reader.GetReceivedText() == expected; }))
      << reader.GetReceivedText();
  reader.SendCommand("quit\r\n");
  EXPECT_TRUE(PumpUntil([&] { return !reader.IsOpen(); }));
  const Lines lines = SessionLogLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Session 7: Connection closed by server"), 1);
  extra_pass_ = nullptr;
}

TEST_F(MonitoringSessionTest, ClientRoleClosesOnLostSyncAndOnAFailedConnect) {
  testutil::LoopbackListener server;
  MonitoringPort client_port;
  client_port.SetOutgoingServer(FWString("127.0.0.1"));
  client_port.SetOutgoingPort(FWString(std::to_string(server.Port())));
  MonitoringSession reader(7, &client_port);
  reader.Open(0);
  ASSERT_TRUE(reader.IsOpen());
  const int peer = ::accept(server.Fd(), nullptr, nullptr);
  ASSERT_GE(peer, 0);
  reader.QueueIncoming(codec_.Frame(kGreeting) + codec_.Frame("data\r\n+OK\r\n"), false);
  EXPECT_EQ(reader.GetReceivedText(), "data\r\n");
  reader.QueueIncoming(std::string(8, '\x01'), false);
  EXPECT_FALSE(reader.IsOpen());
  EXPECT_EQ(reader.GetReceivedText(), "");
  ::close(peer);

  const std::string closed_port = FreePort();
  client_port.SetOutgoingPort(FWString(closed_port));
  MonitoringSession refused(8, &client_port);
  refused.Open(0);
  EXPECT_FALSE(refused.IsOpen());
  const Lines lines = SessionLogLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "Session 7: Lost sync reading from server");
  EXPECT_EQ(lines[1].rfind("Session 8: Connect to 127.0.0.1:" + closed_port + " failed: ", 0), 0u)
      << lines[1];
}

}  // namespace
