#include "MonitoringSession.h"

#include <algorithm>

#include "FWFile.h"
#include "FWProduct.h"
#include "FWStringUtils.h"
#include "LogDirectory.h"
#include "MonitoringPort.h"

namespace {

constexpr const char* kGreetingTail = " Monitoring Service Ready.\r\n";
constexpr const char* kLineEnd = "\r\n";

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// The argument of a command line: the leading keyword removed (case-sensitively: "USER x" keeps
// its keyword and so names an unknown user), then leading white space and every "\r\n". Only
// the keyword is removed, so names such as restart.log and passwords such as bypass1 survive.
std::string Argument(std::string line, const std::string& keyword) {
  if (StartsWith(line, keyword)) line.erase(0, keyword.size());
  line = FWStringUtils::TrimRight(line);  // the product's name: strips the start
  FWStringUtils::ReplaceAll(line, kLineEnd, "");
  return line;
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

MonitoringSession::MonitoringSession(int number, MonitoringPort* port)
    : ProxySession(number, port),
      monitoring_port_(port),
      client_frames_(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit),
      server_frames_(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit),
      tail_(GetLogPrefix()) {}

void MonitoringSession::Open(int listening) {
  ClearData();
  client_frames_.Clear();
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
  SendReply(FWProduct::GetName() + kGreetingTail);
  if (GetIncomingSocket() == 0) {
    Close();
    return;
  }
  CollectLogfiles();
}

void MonitoringSession::OpenClient() {
  OpenOutgoing(monitoring_port_->GetOutgoingServer(), monitoring_port_->GetOutgoingPort());
  SetOpen(true);
  server_state_ = 0;
  client_state_ = kAwaitingGreeting;
  if (GetOutgoingSocket() == 0) Close();
}

void MonitoringSession::CollectLogfiles() {
  log_files_ = LogDirectory(monitoring_port_->GetDocumentRoot(),
                            monitoring_port_->GetSearchPattern(), GetLogPrefix())
                   .Collect();
  std::sort(log_files_.begin(), log_files_.end());
}

void MonitoringSession::Close() {
  ProxySession::Close();
  reply_text_.Clear();
  command_text_.Clear();
  client_frames_.Clear();
  server_frames_.Clear();
  ClearData();
}

void MonitoringSession::ClearData() {
  received_text_.clear();
  transmitting_ = false;
  tail_.Stop();
  log_files_.clear();
  current_file_.clear();
}

void MonitoringSession::CheckActive() {
  if (!IsOpen()) return;
  ServeCommands();
  if (!IsOpen() || !transmitting_ || IsHeldBack()) return;
  for (const std::string& reply : LogTail::SplitReplies(tail_.Poll(), LogTail::kMaxReplyBytes)) {
    SendReply(reply);
  }
}

bool MonitoringSession::ReadyToReceiveIncoming() {
  return GetIncomingSocket() != 0 && !IsHeldBack();
}

bool MonitoringSession::IsHeldBack() const {
  return GetIncomingBuffer().size() > LogTail::kMaxPendingBytes;
}

void MonitoringSession::SendReply(const std::string& text) {
  AppendIncoming(client_frames_.Frame(text));
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
}

// Lines are handled as soon as their message is taken, before the next frame: the result is the
// same as reassembling all frames first, and the command text never holds more than one message
// plus the rest of the line before it.
void MonitoringSession::ServeCommands() {
  std::string line;
  while (IsOpen() && !IsHeldBack()) {
    if (command_text_.CutLine(&line)) {
      HandleCommand(line);
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
  if (StartsWith(lower, "start")) {
    HandleStart(line);
  } else if (lower == "stop\r\n") {
    SendReply("+OK logfile transmission stopped\r\n");
    transmitting_ = false;
    tail_.Stop();
  } else if (lower == "list\r\n") {
    HandleList();
  } else {
    SendReply("-ERR unrecognized command\r\n");
  }
}

void MonitoringSession::HandleLogin(const std::string& line, const std::string& lower) {
  if (StartsWith(lower, "user")) {
    const std::string user = Argument(line, "user");
    if (user.empty()) return;
    if (user != monitoring_port_->GetUser()) {
      SendReply("-ERR User unknown\r\n");
      return;
    }
    user_accepted_ = true;
    SendReply("+OK\r\n");
    return;
  }
  if (StartsWith(lower, "pass") && user_accepted_) {
    const std::string password = Argument(line, "pass");
    if (password.empty()) return;
    if (password != monitoring_port_->GetPassword()) {
      SendReply("-ERR Login failed (invalid password)\r\n");
      return;
    }
    server_state_ = kLoggedIn;
    SendReply("+OK Login successful\r\n");
    return;
  }
  SendReply("-ERR invalid command\r\n");
}

// An empty name changes nothing: while a file is transmitted it is confirmed again and its
// position is kept. A listed file that exists but cannot be opened is refused; the session stays
// logged in.
void MonitoringSession::HandleStart(const std::string& line) {
  last_start_time_ = std::time(nullptr);
  const std::string name = Argument(line, "start");
  if (!name.empty()) {
    current_file_.clear();
    transmitting_ = false;
    tail_.Stop();
    const auto found = std::find(log_files_.begin(), log_files_.end(), name);
    if (found == log_files_.end()) {
      SendReply("-ERR invalid logfile name\r\n");
      return;
    }
    // The slash is added even when DocumentRoot ends in one; clients see this path.
    const std::string path = monitoring_port_->GetDocumentRoot() + "/" + *found;
    const int error = tail_.Start(path);
    if (error != 0) {
      SendReply("-ERR can't read " + name + ": " + GetErrorMessage(error) + kLineEnd);
      return;
    }
    current_file_ = path;
    transmitting_ = true;
  }
  if (transmitting_) {
    SendReply("+OK start transmitting " + current_file_ + kLineEnd);
  } else {
    SendReply("-ERR invalid logfile name\r\n");
  }
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
