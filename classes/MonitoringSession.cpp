#include "MonitoringSession.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "FWFile.h"
#include "FWProduct.h"
#include "FWStringUtils.h"
#include "LogDirectory.h"
#include "LoginGuard.h"
#include "MonitoringPort.h"

namespace {

constexpr const char* kGreetingTail = " Monitoring Service Ready.\r\n";
constexpr const char* kLineEnd = "\r\n";

// The argument of a command line: the leading keyword removed (case-sensitively: "USER x" keeps
// its keyword and so names an unknown user), then leading white space and every "\r\n". Only
// the keyword is removed, so names such as restart.log and passwords such as bypass1 survive.
std::string Argument(std::string line, const std::string& keyword) {
  if (line.starts_with(keyword)) line.erase(0, keyword.size());
  line = FWStringUtils::TrimRight(line);  // the product's name: strips the start
  FWStringUtils::ReplaceAll(line, kLineEnd, "");
  return line;
}

// A client's text for the log: quoted, control bytes and quotes escaped, at most kQuotedLimit
// bytes of it, so that no client can forge or flood log lines.
constexpr std::size_t kQuotedLimit = 80;

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (std::size_t i = 0; i < text.size() && i < kQuotedLimit; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') {
      quoted += FWStringUtils::Printf("\\x%02X", c);
    } else {
      quoted += static_cast<char>(c);
    }
  }
  return quoted + (text.size() > kQuotedLimit ? "\"..." : "\"");
}

// Compares in time that depends on the lengths only, not on where the texts differ.
bool EqualInConstantTime(const std::string& left, const std::string& right) {
  unsigned char difference = left.size() == right.size() ? 0 : 1;
  const std::size_t length = std::max(left.size(), right.size());
  for (std::size_t i = 0; i < length; ++i) {
    const char a = i < left.size() ? left[i] : '\0';
    const char b = i < right.size() ? right[i] : '\0';
    difference |= static_cast<unsigned char>(a ^ b);
  }
  return difference == 0;
}

bool IsLoopback(const std::string& address) { return address == "127.0.0.1" || address == "::1"; }

// Splits the argument text of an extension command into count decimal numbers, each followed by
// one blank, and the rest (a name). False when a number is missing, not decimal or too large.
bool ParseNumbers(const std::string& text, std::size_t count,
                  std::vector<unsigned long long>* numbers, std::string* rest) {
  std::size_t pos = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t blank = text.find(' ', pos);
    if (blank == std::string::npos || blank == pos || blank - pos > 19) return false;
    const std::string digits = text.substr(pos, blank - pos);
    if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    numbers->push_back(std::strtoull(digits.c_str(), nullptr, 10));
    if (errno == ERANGE) return false;
    pos = blank + 1;
  }
  *rest = text.substr(pos);
  return !rest->empty();
}

// The arguments of an extension command: the line without its keyword, its one blank and its
// "\r\n". Unlike the original commands nothing else is removed, so any listed name can be asked.
std::string ExtensionArguments(const std::string& line, const std::string& keyword) {
  return line.substr(keyword.size() + 1, line.size() - keyword.size() - 3);
}

const char* ResumedText(LogTail::Resumed outcome) {
  switch (outcome) {
    case LogTail::Resumed::kContinued:
      return "continued";
    case LogTail::Resumed::kRotated:
      return "rotated";
    case LogTail::Resumed::kTruncated:
      return "truncated";
    default:
      return "gone";
  }
}

const char* FailureText(FWFeedCodec::Result result) {
  switch (result) {
    case FWFeedCodec::Result::kLostSync:
      return "lost sync reading from server";
    case FWFeedCodec::Result::kFrameTooLarge:
      return "frame too large";
    case FWFeedCodec::Result::kMessageTooLarge:
      return "message too large";
    default:
      return "unexpected frame result";
  }
}

}  // namespace

MonitoringSession::MonitoringSession(int number, MonitoringPort* port,
                                     const SessionContext& context)
    : ProxySession(number, port),
      monitoring_port_(port),
      client_frames_(kPreLoginFrameLimit, kPreLoginFrameLimit),
      server_frames_(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit),
      context_(context) {}

class MonitoringSession::FeedLink final : public LogFeed::Follower {
 public:
  explicit FeedLink(MonitoringSession& session) : session_(session) {}

  bool IsHeldBack() const override { return session_.HeldBack(); }
  bool WantsPositions() const override { return session_.extended_; }
  void Deliver(const std::vector<FWSharedBytes>& frames) override { session_.QueueFrames(frames); }
  LogTail* GetOwnTail() override { return session_.own_tail_.get(); }
  void SetOwnTail(std::unique_ptr<LogTail> tail) override { session_.own_tail_ = std::move(tail); }
  std::string GetReaderPrefix() const override { return session_.GetLogPrefix(); }

 private:
  MonitoringSession& session_;
};

MonitoringSession::~MonitoringSession() { StopFile(); }

void MonitoringSession::Open(int listening) {
  ClearData();
  client_frames_.Clear();
  client_frames_.SetLimits(kPreLoginFrameLimit, kPreLoginFrameLimit);
  server_frames_.Clear();
  if (listening != 0) {
    OpenServer(listening);
  } else {
    OpenClient();
  }
}

void MonitoringSession::OpenServer(int listening) {
  OpenIncoming(listening);
  SetOpen(true);
  client_state_ = 0;
  server_state_ = kAwaitingLogin;
  user_accepted_ = false;
  invalid_commands_ = 0;
  password_failures_ = 0;
  login_deadline_ = Now() + kLoginTimeoutSeconds;
  SendReply(FWProduct::GetName() + kGreetingTail);
  if (GetIncomingSocket() == 0) Close();
}

void MonitoringSession::OpenClient() {
  OpenOutgoing(monitoring_port_->GetOutgoingServer(), monitoring_port_->GetOutgoingPort());
  SetOpen(true);
  server_state_ = 0;
  client_state_ = kAwaitingGreeting;
  if (GetOutgoingSocket() == 0) Close();
}

// Collected after login only, so that a client that has not logged in costs no directory walk.
void MonitoringSession::CollectLogfilesOnce() {
  if (log_files_collected_) return;
  log_files_collected_ = true;
  log_files_ = LogDirectory(monitoring_port_->GetDocumentRoot(),
                            monitoring_port_->GetSearchPattern(), GetLogPrefix())
                   .Collect();
}

std::time_t MonitoringSession::Now() const { return context_.Now(); }

LoginGuard* MonitoringSession::Guard() const { return context_.login_guard; }

void MonitoringSession::Close() {
  const bool served_client = IsOpen() && server_state_ != 0 && GetIncomingSocket() != 0;
  ProxySession::Close();
  if (served_client) {
    Log(FWStringUtils::Printf("connection from %s ended, %llu bytes sent",
                              GetIncomingAddress().c_str(),
                              static_cast<unsigned long long>(GetIncomingBytesSent())));
  }
  reply_text_.Clear();
  command_text_.Clear();
  client_frames_.Clear();
  server_frames_.Clear();
  ClearData();
}

void MonitoringSession::ClearData() {
  received_text_.clear();
  transmitting_ = false;
  extended_ = false;
  StopFile();
  log_files_.clear();
  log_files_collected_ = false;
  current_file_.clear();
}

void MonitoringSession::CheckActive() {
  if (!IsOpen()) return;
  if (server_state_ == kAwaitingLogin && Now() >= login_deadline_) {
    Log(FWStringUtils::Printf("no login within %d s, closing",
                              static_cast<int>(kLoginTimeoutSeconds)));
    Close();
    return;
  }
  // Lines the read of this pass served count against its share.
  if (!commands_served_) ServeCommands();
  commands_served_ = false;
  if (!IsOpen() || !transmitting_ || own_tail_ == nullptr || HeldBack()) return;
  const std::string data = own_tail_->Poll();
  if (!data.empty()) SendData(data, extended_);
  if (feed_ != nullptr) feed_->Rejoin(link_.get());
}

bool MonitoringSession::IsBehind() const {
  if (!IsOpen() || HeldBack()) return false;
  return commands_waiting_ || (transmitting_ && own_tail_ != nullptr && own_tail_->HasMore());
}

bool MonitoringSession::ReadyToReceiveIncoming() {
  return GetIncomingSocket() != 0 && !HeldBack() && !commands_waiting_;
}

bool MonitoringSession::HeldBack() const {
  const std::size_t limit =
      server_state_ == kLoggedIn ? LogTail::kMaxPendingBytes : kPreLoginPendingBytes;
  return GetIncomingBuffer().size() > limit;
}

void MonitoringSession::SendReply(const std::string& text) {
  AppendIncoming(client_frames_.Frame(text));
}

void MonitoringSession::QueueFrames(const std::vector<FWSharedBytes>& frames) {
  for (const FWSharedBytes& frame : frames) AppendIncoming(frame);
}

void MonitoringSession::SendCommand(const std::string& text) {
  AppendOutgoing(server_frames_.Frame(text));
}

void MonitoringSession::Fail(FWFeedCodec::Result result) {
  Log(FailureText(result));
  Close();
}

void MonitoringSession::LineBuffer::Append(const std::string& text) {
  text_.erase(0, pos_);
  pos_ = 0;
  text_ += text;
}

bool MonitoringSession::LineBuffer::CutLine(std::string* line) {
  const std::size_t end = text_.find(kLineEnd, pos_);
  if (end == std::string::npos) return false;
  line->assign(text_, pos_, end + 2 - pos_);
  pos_ = end + 2;
  return true;
}

void MonitoringSession::LineBuffer::Clear() {
  std::string().swap(text_);
  pos_ = 0;
}

// ---- Server role ----

void MonitoringSession::QueueOutgoing(const std::string& data) {
  client_frames_.Append(data);
  ServeCommands();
  commands_served_ = true;
}

// Lines are handled as soon as their message is taken, before the next frame: the result is the
// same as reassembling all frames first, and the command text never holds more than one message
// plus the rest of the line before it.
void MonitoringSession::ServeCommands() {
  std::string line;
  commands_waiting_ = false;
  for (int handled = 0; IsOpen() && !HeldBack();) {
    if (handled == kLinesPerPass) {
      commands_waiting_ = true;  // the rest at the next pass: the loop serves the others first
      return;
    }
    if (command_text_.CutLine(&line)) {
      HandleCommand(line);
      ++handled;
      continue;
    }
    if (command_text_.GetPendingSize() > kLineLimit) {
      Log("line too long");
      Close();
      return;
    }
    std::string message;
    const FWFeedCodec::Result result = client_frames_.Next(&message);
    if (result == FWFeedCodec::Result::kNeedMore) return;
    if (result != FWFeedCodec::Result::kMessage) {
      Fail(result);
      return;
    }
    command_text_.Append(message);
  }
}

// The keyword tests use a lower-cased copy of the whole line, "\r\n" included; the arguments are
// taken from the line as received.
void MonitoringSession::HandleCommand(const std::string& line) {
  const std::string lower = FWStringUtils::GetDefaultInstance().Lower(line);
  if (lower == "quit\r\n") {
    server_state_ = kQuitting;
    SendReply("+OK closing connection\r\n");
    return;
  }
  if (server_state_ == kLoggedIn) {
    HandleLoggedIn(line, lower);
  } else if (server_state_ == kAwaitingLogin) {
    HandleLogin(line, lower);
  }
  // After quit every other line is ignored.
}

void MonitoringSession::HandleLoggedIn(const std::string& line, const std::string& lower) {
  if (lower.starts_with("start")) {
    CollectLogfilesOnce();
    HandleStart(line);
  } else if (lower.starts_with("backlog ")) {
    CollectLogfilesOnce();
    HandleBacklog(line);
  } else if (lower.starts_with("resume ")) {
    CollectLogfilesOnce();
    HandleResume(line);
  } else if (lower == "stop\r\n") {
    SendReply("+OK logfile transmission stopped\r\n");
    if (transmitting_) {
      Log(FWStringUtils::Printf("stop %s from %s", Quoted(current_file_).c_str(),
                                GetIncomingAddress().c_str()));
    }
    transmitting_ = false;
    StopFile();
  } else if (lower == "list\r\n") {
    CollectLogfilesOnce();
    HandleList();
  } else {
    SendReply("-ERR unrecognized command\r\n");
  }
}

void MonitoringSession::HandleLogin(const std::string& line, const std::string& lower) {
  if (lower.starts_with("user")) {
    const std::string user = Argument(line, "user");
    if (!user.empty()) HandleUser(user);
    return;
  }
  if (lower.starts_with("pass") && user_accepted_) {
    const std::string password = Argument(line, "pass");
    if (!password.empty()) HandlePassword(password);
    return;
  }
  SendReply("-ERR invalid command\r\n");
  CountInvalidCommand();
}

void MonitoringSession::HandleUser(const std::string& user) {
  if (user == monitoring_port_->GetUser()) {
    user_accepted_ = true;
    SendReply("+OK\r\n");
    return;
  }
  SendReply("-ERR User unknown\r\n");
  CountFailedLogin(user, "unknown user");
  CountInvalidCommand();
}

void MonitoringSession::HandlePassword(const std::string& password) {
  const std::string refusal = LoginRefusal(password);
  if (refusal.empty()) {
    server_state_ = kLoggedIn;
    client_frames_.SetLimits(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit);
    SendReply("+OK Login successful\r\n");
    Log(FWStringUtils::Printf("login of user %s from %s",
                              Quoted(monitoring_port_->GetUser()).c_str(),
                              GetIncomingAddress().c_str()));
    return;
  }
  SendReply("-ERR Login failed (invalid password)\r\n");
  CountFailedLogin(monitoring_port_->GetUser(), refusal);
  if (++password_failures_ < kPasswordFailureLimit || server_state_ != kAwaitingLogin) return;
  Log(FWStringUtils::Printf("closing after %d failed logins", kPasswordFailureLimit));
  server_state_ = kQuitting;
}

std::string MonitoringSession::LoginRefusal(const std::string& password) const {
  const LoginGuard* guard = Guard();
  if (guard != nullptr && guard->IsRefused(GetIncomingAddress())) {
    return "address refused after repeated failures";
  }
  if (!EqualInConstantTime(password, monitoring_port_->GetPassword())) return "wrong password";
  if (monitoring_port_->HasDefaultPassword() && !IsLoopback(GetIncomingAddress())) {
    return "the default password admits loopback clients only";
  }
  return "";
}

// The audit line, and the address brake: a failure that starts a refusal is logged once.
void MonitoringSession::CountFailedLogin(const std::string& user, const std::string& reason) {
  const std::string& peer = GetIncomingAddress();
  Log(FWStringUtils::Printf("login failed: user %s from %s (%s)", Quoted(user).c_str(),
                            peer.c_str(), reason.c_str()));
  LoginGuard* guard = Guard();
  if (guard == nullptr || !guard->RecordFailure(peer)) return;
  Log(FWStringUtils::Printf("refusing logins from %s for %d s after %zu failed logins",
                            peer.c_str(), static_cast<int>(LoginGuard::kRefusalSeconds),
                            LoginGuard::kFailuresPerAddress));
}

// Unknown users count as invalid commands too. The last one allowed has been answered; then the
// session ends as after "quit", once its replies are sent.
void MonitoringSession::CountInvalidCommand() {
  if (++invalid_commands_ < kInvalidCommandLimit || server_state_ != kAwaitingLogin) return;
  Log(FWStringUtils::Printf("closing after %d invalid commands before login",
                            kInvalidCommandLimit));
  server_state_ = kQuitting;
}

// An empty name changes nothing: while a file is transmitted it is confirmed again and its
// position is kept. A listed file that exists but cannot be opened is refused; the session stays
// logged in.
void MonitoringSession::HandleStart(const std::string& line) {
  last_start_time_ = std::time(nullptr);
  const std::string name = Argument(line, "start");
  if (!name.empty()) {
    if (BeginFile(name)) JoinFeed();
    return;
  }
  if (transmitting_) {
    SendReply("+OK start transmitting " + current_file_ + kLineEnd);
  } else {
    SendReply("-ERR invalid logfile name\r\n");
  }
}

bool MonitoringSession::BeginFile(const std::string& name) {
  current_file_.clear();
  transmitting_ = false;
  extended_ = false;
  StopFile();
  const auto found = std::find(log_files_.begin(), log_files_.end(), name);
  const std::string root = monitoring_port_->GetDocumentRoot();
  // A name not listed is refused like one that leads out of the root. Listed files are opened
  // beneath the root, so a link swapped in since the listing cannot lead out of it either.
  int error = EXDEV;
  auto tail = std::make_unique<LogTail>(GetLogPrefix());
  if (found != log_files_.end()) error = tail->Start(root, *found);
  if (error == EXDEV) {
    SendReply("-ERR invalid logfile name\r\n");
    Log(FWStringUtils::Printf("refused name %s from %s", Quoted(name).c_str(),
                              GetIncomingAddress().c_str()));
    return false;
  }
  if (error != 0) {
    SendReply("-ERR can't read " + name + ": " + GetErrorMessage(error) + kLineEnd);
    return false;
  }
  // The slash is added even when DocumentRoot ends in one; clients see this path.
  current_file_ = root + "/" + *found;
  file_name_ = *found;
  own_tail_ = std::move(tail);
  transmitting_ = true;
  Log(FWStringUtils::Printf("start %s from %s", Quoted(current_file_).c_str(),
                            GetIncomingAddress().c_str()));
  SendReply("+OK start transmitting " + current_file_ + kLineEnd);
  return true;
}

void MonitoringSession::HandleBacklog(const std::string& line) {
  last_start_time_ = std::time(nullptr);
  std::vector<unsigned long long> numbers;
  std::string name;
  if (!ParseNumbers(ExtensionArguments(line, "backlog"), 1, &numbers, &name)) {
    SendReply("-ERR bad arguments\r\n");
    return;
  }
  const std::size_t lines =
      static_cast<std::size_t>(std::min<unsigned long long>(numbers[0], LogTail::kMaxBacklogLines));
  if (!BeginFile(name)) return;
  own_tail_->Backlog(lines);
  extended_ = true;
  SendData(own_tail_->Poll(), true);
  JoinFeed();
}

void MonitoringSession::HandleResume(const std::string& line) {
  last_start_time_ = std::time(nullptr);
  std::vector<unsigned long long> numbers;
  std::string name;
  if (!ParseNumbers(ExtensionArguments(line, "resume"), 3, &numbers, &name)) {
    SendReply("-ERR bad arguments\r\n");
    return;
  }
  LogTail::Position from;
  from.dev = static_cast<dev_t>(numbers[0]);
  from.ino = static_cast<ino_t>(numbers[1]);
  from.offset = static_cast<off_t>(
      std::min<unsigned long long>(numbers[2], std::numeric_limits<off_t>::max()));
  if (!BeginFile(name)) return;
  const LogTail::Resumed outcome = own_tail_->Reposition(from);
  extended_ = true;
  SendData(own_tail_->Poll(), true, ResumedText(outcome));
  JoinFeed();
}

void MonitoringSession::JoinFeed() {
  feeds_ = context_.log_feeds;
  if (feeds_ == nullptr) return;
  link_ = std::make_unique<FeedLink>(*this);
  feed_ = feeds_->Join(monitoring_port_->GetDocumentRoot(), file_name_, link_.get());
}

void MonitoringSession::StopFile() {
  if (feed_ != nullptr) feeds_->Leave(feed_, link_.get());
  feed_ = nullptr;
  link_.reset();
  own_tail_.reset();
}

void MonitoringSession::SendData(const std::string& data, bool positions, const std::string& note) {
  QueueFrames(LogFeed::Frame(client_frames_, data, own_tail_->GetPosition(), positions, note));
}

void MonitoringSession::HandleList() {
  for (const std::string& name : log_files_) SendReply(name + kLineEnd);
  SendReply("+OK\r\n");
}

// ---- Client role ----

void MonitoringSession::QueueIncoming(const std::string& data, bool /*flag*/) {
  server_frames_.Append(data);
  std::string message;
  for (;;) {
    const FWFeedCodec::Result result = server_frames_.Next(&message);
    if (result == FWFeedCodec::Result::kNeedMore) break;
    if (result != FWFeedCodec::Result::kMessage) {
      Fail(result);
      return;
    }
    reply_text_.Append(message);
  }
  std::string line;
  while (reply_text_.CutLine(&line)) HandleReply(line);
}

// The first line is the greeting; after it, replies ("+..." and "-...") are dropped and every
// other line is log data.
void MonitoringSession::HandleReply(const std::string& line) {
  if (client_state_ == kAwaitingGreeting) {
    client_state_ = kGreetingSeen;
    return;
  }
  if (line[0] == '+' || line[0] == '-') return;
  received_text_ += line;
}
