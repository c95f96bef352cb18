#include "MonitoringSession.h"

#include <utility>

#include "FWProduct.h"
#include "FWStringUtils.h"
#include "FeedTexts.h"
#include "LogDirectory.h"
#include "MonitoringPort.h"

namespace {

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
      context_(context),
      client_frames_(feed::kPreLoginFrameLimit, feed::kPreLoginFrameLimit),
      server_frames_(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit) {}

class MonitoringSession::FeedLink final : public LogFeed::Follower {
 public:
  explicit FeedLink(MonitoringSession& session) : session_(session) {}

  bool IsHeldBack() const override { return session_.HeldBack(); }
  bool WantsPositions() const override { return session_.server_->IsExtended(); }
  void Deliver(const std::vector<FWSharedBytes>& frames) override { session_.QueueFrames(frames); }
  LogTail* GetOwnTail() override { return session_.own_tail_.get(); }
  void SetOwnTail(std::unique_ptr<LogTail> tail) override { session_.own_tail_ = std::move(tail); }
  std::string GetReaderPrefix() const override { return session_.GetLogPrefix(); }

 private:
  MonitoringSession& session_;
};

// The dialogue's view of a server-role session.
class MonitoringSession::ServerLink final : public FeedServer::Host {
 public:
  explicit ServerLink(MonitoringSession& session) : session_(session) {}

  void Reply(const std::string& text) override { session_.SendReply(text); }
  void Log(const std::string& text) override { session_.Log(text); }
  void LoggedIn() override { session_.LoggedIn(); }
  const std::vector<std::string>& LogFiles() override { return session_.LogFiles(); }
  void StopFile() override { session_.StopFile(); }
  int OpenFile(const std::string& name) override { return session_.OpenFile(name); }
  void FollowFile() override { session_.JoinFeed(); }
  void FollowBacklog(std::size_t lines) override { session_.FollowBacklog(lines); }
  void FollowResumed(const feed::Position& from) override { session_.FollowResumed(from); }

 private:
  MonitoringSession& session_;
};

// The client role's reading of its feed: it reports only data, since the caller sends the
// commands itself.
class MonitoringSession::ClientLink final : public FeedClient::Host {
 public:
  explicit ClientLink(MonitoringSession& session) : session_(session) {}

  void Send(const std::string& command) override { session_.SendCommand(command); }
  void OnData(const std::string& data) override { session_.received_text_ += data; }
  void OnName() override {}
  void OnListed() override {}
  void OnFollowing(const std::string& /*path*/) override {}
  void OnResumeNote(const std::string& /*note*/) override {}
  void OnExtensionsRefused() override {}
  void OnRefused(FeedClient::Refusal /*refusal*/, const std::string& /*reply*/) override {}
  void OnUnexpected(const std::string& /*message*/) override {}

 private:
  MonitoringSession& session_;
};

MonitoringSession::~MonitoringSession() { StopFile(); }

void MonitoringSession::Open(int listening) {
  ClearData();
  client_frames_.Clear();
  client_frames_.SetLimits(feed::kPreLoginFrameLimit, feed::kPreLoginFrameLimit);
  server_frames_.Clear();
  if (listening != 0) {
    OpenServer(listening);
  } else {
    OpenClient();
  }
}

// The port's settings are read once: a session keeps those it was opened with. A session whose
// accept found nothing, or no descriptor left, is closed before it gets its dialogue. The
// greeting goes out through the dialogue, so the sanitizer's first check of the dialogue's view
// of a session (which needs a spare descriptor) comes with the first accepted connection.
void MonitoringSession::OpenServer(int listening) {
  OpenIncoming(listening);
  SetOpen(true);
  client_.reset();
  if (GetIncomingSocket() == 0) {
    Close();
    return;
  }
  FeedServer::Settings settings{monitoring_port_->GetDocumentRoot(), monitoring_port_->GetUser(),
                                monitoring_port_->GetPassword(),
                                monitoring_port_->HasDefaultPassword()};
  server_link_ = std::make_unique<ServerLink>(*this);
  server_.emplace(*server_link_, std::move(settings), context_.login_guard, GetIncomingAddress(),
                  context_.Now());
  server_->Greet(FWProduct::GetName());
}

void MonitoringSession::OpenClient() {
  OpenOutgoing(monitoring_port_->GetOutgoingServer(), monitoring_port_->GetOutgoingPort());
  SetOpen(true);
  server_.reset();
  if (GetOutgoingSocket() == 0) {
    Close();
    return;
  }
  client_link_ = std::make_unique<ClientLink>(*this);
  client_.emplace(*client_link_, FeedClient::Request{});
}

void MonitoringSession::Close() {
  const bool served_client = IsOpen() && server_ && GetIncomingSocket() != 0;
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
  if (server_) server_->Reset();
  StopFile();
  log_files_.clear();
  log_files_collected_ = false;
}

void MonitoringSession::CheckActive() {
  if (!IsOpen()) return;
  if (server_ && server_->LoginExpired(context_.Now())) {
    Close();
    return;
  }
  // Lines the read of this pass served count against its share.
  if (!commands_served_) ServeCommands();
  commands_served_ = false;
  if (!IsOpen() || !IsTransmitting() || own_tail_ == nullptr || HeldBack()) return;
  const std::string data = own_tail_->Poll();
  if (!data.empty()) SendData(data, server_->IsExtended());
  if (feed_ != nullptr) feed_->Rejoin(link_.get());
}

int MonitoringSession::GetClientState() const {
  if (!client_) return 0;
  return client_->HasGreeting() ? kGreetingSeen : kAwaitingGreeting;
}

bool MonitoringSession::IsBehind() const {
  if (!IsOpen() || HeldBack()) return false;
  return commands_waiting_ || (IsTransmitting() && own_tail_ != nullptr && own_tail_->HasMore());
}

bool MonitoringSession::ReadyToReceiveIncoming() {
  return GetIncomingSocket() != 0 && !HeldBack() && !commands_waiting_;
}

bool MonitoringSession::HeldBack() const {
  const std::size_t limit = server_ ? server_->GetPendingLimit() : feed::kPreLoginPendingBytes;
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
  const std::size_t end = text_.find(feed::kLineEnd, pos_);
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
// same as reassembling all frames first, the frame limits follow the login at once, and the
// command text never holds more than one message plus the rest of the line before it.
void MonitoringSession::ServeCommands() {
  std::string line;
  commands_waiting_ = false;
  for (int handled = 0; IsOpen() && server_ && !HeldBack();) {
    if (handled == feed::kLinesPerPass) {
      commands_waiting_ = true;  // the rest at the next pass: the loop serves the others first
      return;
    }
    if (command_text_.CutLine(&line)) {
      server_->HandleLine(line);
      ++handled;
      continue;
    }
    if (command_text_.GetPendingSize() > feed::kLineLimit) {
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

void MonitoringSession::LoggedIn() {
  client_frames_.SetLimits(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit);
}

// Collected after login only, so that a client that has not logged in costs no directory walk.
const std::vector<std::string>& MonitoringSession::LogFiles() {
  if (!log_files_collected_) {
    log_files_collected_ = true;
    log_files_ = LogDirectory(monitoring_port_->GetDocumentRoot(),
                              monitoring_port_->GetSearchPattern(), GetLogPrefix())
                     .Collect();
  }
  return log_files_;
}

// Listed files are opened beneath the root, so a link swapped in since the listing cannot lead
// out of it either.
int MonitoringSession::OpenFile(const std::string& name) {
  auto tail = std::make_unique<LogTail>(GetLogPrefix());
  const int error = tail->Start(monitoring_port_->GetDocumentRoot(), name);
  if (error != 0) return error;
  file_name_ = name;
  own_tail_ = std::move(tail);
  return 0;
}

void MonitoringSession::FollowBacklog(std::size_t lines) {
  own_tail_->Backlog(lines);
  SendData(own_tail_->Poll(), true);
  JoinFeed();
}

void MonitoringSession::FollowResumed(const feed::Position& from) {
  const feed::Resumed outcome = own_tail_->Reposition(from);
  SendData(own_tail_->Poll(), true, feed::ResumedNote(outcome));
  JoinFeed();
}

void MonitoringSession::JoinFeed() {
  if (context_.log_feeds == nullptr) return;
  link_ = std::make_unique<FeedLink>(*this);
  feed_ = context_.log_feeds->Join(monitoring_port_->GetDocumentRoot(), file_name_, link_.get());
}

// Ends the transmission: leaves the shared feed and closes the own reader.
void MonitoringSession::StopFile() {
  if (feed_ != nullptr) context_.log_feeds->Leave(feed_, link_.get());
  feed_ = nullptr;
  link_.reset();
  own_tail_.reset();
}

void MonitoringSession::SendData(const std::string& data, bool positions, const std::string& note) {
  QueueFrames(feed::FrameData(client_frames_, data, own_tail_->GetPosition(), positions, note));
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
  while (client_ && reply_text_.CutLine(&line)) client_->ReadLine(line);
}
