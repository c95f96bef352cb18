#include "NorvaneClient.h"

#include <fnmatch.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <utility>

#include "FWDescriptor.h"
#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWFeedCodec.h"
#include "FWSocket.h"
#include "FWStringUtils.h"
#include "FeedProtocol.h"

namespace {

using Clock = std::chrono::steady_clock;

// Source prefixes on a terminal: cyan, yellow, magenta, green, blue, red; then again.
constexpr const char* kColours[] = {"\x1b[36m", "\x1b[33m", "\x1b[35m",
                                    "\x1b[32m", "\x1b[34m", "\x1b[31m"};
constexpr const char* kColourOff = "\x1b[0m";
constexpr const char kHex[] = "0123456789abcdef";
// Keepalive probes after the idle time: every kProbeInterval seconds, kProbeCount of them.
constexpr int kProbeInterval = 10;
constexpr int kProbeCount = 3;

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

// A daemon's reply for an error message: line ends as "\n", cut to kMaxQuotedBytes, control
// characters escaped, so a hostile daemon can neither flood nor garble the terminal.
constexpr std::size_t kMaxQuotedBytes = 200;
std::string QuotedReply(const std::string& message) {
  const std::string text = FWStringUtils::Convert2Unix(message);
  const bool cut = text.size() > kMaxQuotedBytes;
  return Quoted(NorvaneClient::Escape(text.substr(0, kMaxQuotedBytes), true)) +
         (cut ? " (cut to " + std::to_string(kMaxQuotedBytes) + " bytes)" : "");
}

// Writes all of text; false with errno set when the descriptor fails.
bool WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    done += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

// One daemon connection: its socket, its frames, its deadlines and its share of the output. The
// conversation itself is the protocol's FeedClient, which tells the connection what to send and
// what each message of the daemon means.
class NorvaneClient::Feed final : private FeedClient::Host {
 public:
  // The connection's own state; the dialogue's is FeedClient's phase.
  enum class Phase {
    kConnecting,
    kConnected,
    kWaiting,  // retry: connecting again at the deadline
    kDone
  };

  // mode is the feed's own: a tail run lists a daemon's files for a pattern with a kList feed.
  Feed(NorvaneClient* owner, Mode mode, Target target, bool prefixed)
      : owner_(owner),
        mode_(mode),
        target_(std::move(target)),
        prefixed_(prefixed),
        colour_(owner->feeds_.size() % (sizeof(kColours) / sizeof(kColours[0]))),
        codec_(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit),
        dialogue_(*this, MakeRequest(owner->options_, mode_, target_)) {}

  void Start();
  // A pattern's listing: empties the names and lists again after seconds.
  void ListAgain(int seconds);
  // Follows the file from its first byte (as far as a backlog reaches): it appeared after the
  // run began.
  void FollowFromStart() { dialogue_.FollowFromStart(); }
  void RequestStop();
  // Closes without a word to the daemon.
  void Abandon() { Finish(); }
  void Handle(short revents);
  void CheckDeadline(Clock::time_point now);

  bool IsDone() const { return phase_ == Phase::kDone; }
  int Fd() const { return socket_.Get(); }
  short Events() const;
  bool HasDeadline() const { return has_deadline_; }
  Clock::time_point Deadline() const { return deadline_; }
  // The names the daemon listed; complete only when IsListed().
  const std::vector<std::string>& Names() const { return dialogue_.GetNames(); }
  bool IsListed() const { return listed_; }
  const Target& GetTarget() const { return target_; }

 private:
  static FeedClient::Request MakeRequest(const Options& options, Mode mode, const Target& target);
  bool CheckArguments();
  void Retry(const std::string& text);
  void Reset();
  void Connect();
  void Connected();
  void SetKeepalive();
  void Receive();
  void Flush();
  void OnClose();
  void AddData(const std::string& text);
  // Data as written: escaped when the options ask for it.
  std::string Shown(const std::string& text) const;
  // The source prefix, coloured when the options ask for it.
  std::string Prefix() const;
  void FlushData();
  void Fail(int code, const std::string& text);
  // Tells the listener, if there is one.
  void Notify(Listener::State state, const std::string& text) const;
  void Refused(int code, const std::string& text);
  void Finish();
  void Arm();
  std::string Where() const;

  // What the dialogue asks and reports (FeedClient::Host).
  void Send(const std::string& command) override;
  void OnName() override { Arm(); }
  void OnListed() override;
  void OnFollowing(const std::string& path) override;
  void OnData(const std::string& data) override { AddData(data); }
  void OnResumeNote(const std::string& note) override;
  void OnExtensionsRefused() override;
  void OnRefused(FeedClient::Refusal refusal, const std::string& reply) override;
  void OnUnexpected(const std::string& message) override;

  NorvaneClient* const owner_;
  const Mode mode_;
  const Target target_;
  const bool prefixed_;
  const std::size_t colour_;
  FWFeedCodec codec_;
  FeedClient dialogue_;
  FWDescriptor socket_;
  Phase phase_ = Phase::kConnecting;
  std::string send_buffer_;
  bool has_deadline_ = false;
  Clock::time_point deadline_;
  bool listed_ = false;
  // Output not yet written: a trailing "\r" that may start a "\r\n", and (prefixed) the
  // unfinished last line.
  std::string carry_;
  std::string partial_;
  // A first start was seen.
  bool followed_ = false;
  int retry_seconds_ = kFirstRetrySeconds;
};

FeedClient::Request NorvaneClient::Feed::MakeRequest(const Options& options, Mode mode,
                                                     const Target& target) {
  FeedClient::Request request;
  request.user = options.user;
  request.password = options.password;
  request.list = mode == Mode::kList;
  request.file = target.file;
  request.backlog_lines = options.backlog_lines;
  request.retry = options.retry;
  return request;
}

bool NorvaneClient::Feed::CheckArguments() {
  const Options& options = owner_->options_;
  std::string problem = FeedClient::ArgumentProblem("user", options.user);
  if (problem.empty()) problem = FeedClient::ArgumentProblem("pass", options.password);
  if (!problem.empty()) {
    Fail(kExitLogin, "login impossible: " + problem);
    return false;
  }
  if (mode_ == Mode::kList) return true;
  problem = FeedClient::ArgumentProblem("start", target_.file);
  if (problem.empty()) return true;
  Fail(kExitNotOffered, "cannot be requested: " + problem);
  return false;
}

void NorvaneClient::Feed::ListAgain(int seconds) {
  Reset();
  dialogue_.ClearNames();
  listed_ = false;
  phase_ = Phase::kWaiting;
  has_deadline_ = true;
  deadline_ = Clock::now() + std::chrono::seconds(seconds);
}

void NorvaneClient::Feed::Start() {
  if (!CheckArguments()) return;
  try {
    Connect();
  } catch (const FWESocketError& error) {
    Fail(kExitConnection, "cannot connect: " + error.GetReason());
  } catch (const FWException& error) {
    Fail(kExitConnection, "cannot connect: " + error.GetText());
  }
}

void NorvaneClient::Feed::Connect() {
  const FWSocketManager& sockets = FWSocketManager::GetInstance();
  sockaddr_in address{};
  sockets.AddressCreate(address, target_.host, std::to_string(target_.port), "tcp");
  socket_.Reset(sockets.CreateSocket("tcp"));
  sockets.SetBlocking(socket_.Get(), false);
  // In progress is success here; the outcome is read when the socket turns writable.
  sockets.Connect(socket_.Get(), address);
  Arm();
}

void NorvaneClient::Feed::Connected() {
  int error = 0;
  socklen_t size = sizeof(error);
  if (::getsockopt(socket_.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  if (error != 0) {
    Fail(kExitConnection, "cannot connect: " + GetErrorMessage(error));
    return;
  }
  SetKeepalive();
  phase_ = Phase::kConnected;
  Arm();
}

// A feed may be silent for hours when its file does not grow, so silence is no failure. A host
// that vanished is found by keepalive probes; their failure shows as ETIMEDOUT on the socket.
void NorvaneClient::Feed::SetKeepalive() {
  const int idle = owner_->options_.keepalive_seconds;
  if (idle <= 0) return;
  const int on = 1;
  const int interval = idle < kProbeInterval ? idle : kProbeInterval;
  const int count = kProbeCount;
  const int fd = socket_.Get();
  if (::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) != 0 ||
      ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle)) != 0 ||
      ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof(interval)) != 0 ||
      ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof(count)) != 0) {
    const int error = errno;
    owner_->WriteErr("norvane: " + Where() + ": setsockopt keepalive: " + GetErrorMessage(error) +
                     "\n");
  }
}

short NorvaneClient::Feed::Events() const {
  if (phase_ == Phase::kConnecting) return POLLOUT;
  return static_cast<short>(POLLIN | (send_buffer_.empty() ? 0 : POLLOUT));
}

void NorvaneClient::Feed::Handle(short revents) {
  if (IsDone() || revents == 0) return;
  if (phase_ == Phase::kConnecting) {
    Connected();
    return;
  }
  if ((revents & POLLERR) != 0) {
    int error = 0;
    socklen_t size = sizeof(error);
    if (::getsockopt(socket_.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
    if (error == ETIMEDOUT) {
      Fail(kExitNoAnswer, "daemon stopped answering (keepalive probes unanswered)");
    } else {
      Fail(kExitConnection, "connection lost: " + GetErrorMessage(error));
    }
    return;
  }
  try {
    if ((revents & POLLOUT) != 0) Flush();
    if ((revents & (POLLIN | POLLHUP)) != 0 && !IsDone()) Receive();
  } catch (const FWESocketError& error) {
    Fail(kExitConnection, "connection lost: " + error.GetReason());
  } catch (const FWException& error) {
    Fail(kExitConnection, "connection lost: " + error.GetText());
  }
}

void NorvaneClient::Feed::Flush() {
  bool try_again = false;
  while (!send_buffer_.empty() && !try_again) {
    FWSocketManager::GetInstance().Send(socket_.Get(), send_buffer_, try_again);
  }
}

// Up to eight reads a wake-up: a busy feed comes in far larger pieces than one read takes. The end
// of the connection is noticed by the read that finds nothing else.
void NorvaneClient::Feed::Receive() {
  std::string bytes;
  bool try_again = false;
  for (int reads = 0; reads < 8; ++reads) {
    const int count = FWSocketManager::GetInstance().Recv(socket_.Get(), bytes, try_again);
    if (static_cast<std::size_t>(count) < FWSocketManager::kTransferLimit) break;
  }
  if (bytes.empty() && !try_again) {
    OnClose();
    return;
  }
  codec_.Append(bytes);
  std::string message;
  while (!IsDone()) {
    FWFeedCodec::Result result = FWFeedCodec::Result::kNeedMore;
    try {
      result = codec_.Next(&message);
    } catch (const FWException& error) {
      Fail(kExitProtocol, "corrupt frame from the daemon: " + error.GetText());
      return;
    }
    if (result == FWFeedCodec::Result::kNeedMore) return;
    if (result != FWFeedCodec::Result::kMessage) {
      Fail(kExitProtocol, "corrupt frame from the daemon");
      return;
    }
    dialogue_.Receive(message);
  }
}

void NorvaneClient::Feed::Send(const std::string& command) {
  send_buffer_ += codec_.Frame(command);
  Arm();
}

void NorvaneClient::Feed::OnListed() {
  listed_ = true;
  RequestStop();
}

void NorvaneClient::Feed::OnFollowing(const std::string& path) {
  has_deadline_ = false;
  retry_seconds_ = kFirstRetrySeconds;
  Notify(Listener::State::kFollowing, "following " + Escape(path, false));
  if (followed_ || owner_->options_.quiet) return;
  followed_ = true;
  owner_->WriteErr("norvane: " + Where() + ": following " + path + "\n");
}

// The note of a resumed feed: the unfinished line of the old position ends here.
void NorvaneClient::Feed::OnResumeNote(const std::string& note) {
  FlushData();
  std::string notice;
  if (note == feed::kNoteRotated || note == feed::kNoteTruncated) {
    notice = "the file was " + note + " meanwhile; following it from its first byte";
  } else if (note == feed::kNoteGone) {
    notice = "the file is gone; following it once it appears";
  }
  if (notice.empty()) return;
  owner_->WriteErr("norvane: " + Where() + ": " + notice + "\n");
  Notify(Listener::State::kNotice, notice);
}

// An older daemon: warned once per feed.
void NorvaneClient::Feed::OnExtensionsRefused() {
  const std::string notice =
      std::string("the daemon has no backlog or resume extension; following new lines only") +
      (owner_->options_.retry ? ", and a reconnection will miss what was written meanwhile" : "");
  owner_->WriteErr("norvane: " + Where() + ": " + notice + "\n");
  Notify(Listener::State::kNotice, notice);
}

void NorvaneClient::Feed::OnRefused(FeedClient::Refusal refusal, const std::string& reply) {
  const Options& options = owner_->options_;
  switch (refusal) {
    case FeedClient::Refusal::kUser:
      Refused(kExitLogin, "login refused: user " + Quoted(options.user) + " unknown");
      break;
    case FeedClient::Refusal::kPassword:
      Refused(kExitLogin, "login refused: wrong password for user " + Quoted(options.user));
      break;
    case FeedClient::Refusal::kFile:
      Refused(kExitNotOffered, "file not offered by the daemon (" +
                                   reply.substr(0, reply.size() - 2) +
                                   "); `norvane list` shows the files it offers");
      break;
  }
}

void NorvaneClient::Feed::OnUnexpected(const std::string& message) {
  Fail(kExitProtocol, "unexpected reply " + QuotedReply(message));
}

void NorvaneClient::Feed::RequestStop() {
  if (IsDone() || dialogue_.IsStopping()) return;
  if (phase_ == Phase::kConnecting || phase_ == Phase::kWaiting) {
    Finish();
    return;
  }
  dialogue_.Stop();
}

void NorvaneClient::Feed::OnClose() {
  if (dialogue_.IsStopping()) {
    Finish();
    return;
  }
  Fail(kExitConnection, "connection lost: the daemon closed the connection");
}

void NorvaneClient::Feed::CheckDeadline(Clock::time_point now) {
  if (IsDone() || !has_deadline_ || now < deadline_) return;
  if (phase_ == Phase::kWaiting) {
    phase_ = Phase::kConnecting;
    Start();
    return;
  }
  const std::string seconds = std::to_string(owner_->options_.timeout_seconds);
  if (phase_ == Phase::kConnecting) {
    Fail(kExitConnection, "cannot connect: no answer within " + seconds + " s");
  } else if (!dialogue_.IsStopping()) {
    Fail(kExitNoAnswer, "daemon stopped answering (no reply within " + seconds + " s)");
  } else if (dialogue_.IsQuitAnswered()) {
    Finish();
  } else {
    Fail(kExitNoAnswer, "daemon stopped answering (no reply to \"quit\" within " + seconds + " s)");
  }
}

// A "\r" at the end of a message is held back: the next one may begin with its "\n".
void NorvaneClient::Feed::AddData(const std::string& message) {
  std::string text;
  if (owner_->options_.keep_crlf) {
    text = message;
  } else {
    text = FWStringUtils::Convert2Unix(carry_.empty() ? message : carry_ + message);
    carry_.clear();
    if (!text.empty() && text.back() == '\r') {
      carry_ = "\r";
      text.pop_back();
    }
  }
  if (owner_->options_.listener != nullptr) {
    owner_->options_.listener->OnData(target_, text, false);
    return;
  }
  if (owner_->options_.escape) text = Escape(text, true);
  if (!prefixed_) {
    owner_->WriteOut(text);
    return;
  }
  partial_ += text;
  const std::string prefix = Prefix();
  std::string lines;
  std::size_t start = 0;
  for (std::size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
    lines += prefix + partial_.substr(start, end + 1 - start);
  }
  partial_.erase(0, start);
  owner_->WriteOut(lines);
}

// The end of a source: a held "\r" and an unfinished last line are written as they are; a
// prefixed line gets its line end so that the next source's line starts on a line of its own.
void NorvaneClient::Feed::FlushData() {
  if (owner_->options_.listener != nullptr) {
    if (mode_ == Mode::kTail) owner_->options_.listener->OnData(target_, carry_, true);
    carry_.clear();
    return;
  }
  std::string rest = Shown(carry_) + partial_;
  carry_.clear();
  partial_.clear();
  if (rest.empty()) return;
  if (prefixed_) rest = Prefix() + rest + (owner_->options_.keep_crlf ? "\r\n" : "\n");
  owner_->WriteOut(rest);
}

std::string NorvaneClient::Feed::Shown(const std::string& text) const {
  return owner_->options_.escape ? Escape(text, true) : text;
}

std::string NorvaneClient::Feed::Prefix() const {
  const std::string label = Label(target_);
  if (!owner_->options_.colour) return label;
  return kColours[colour_] + label.substr(0, label.size() - 2) + kColourOff + ": ";
}

void NorvaneClient::Feed::Fail(int code, const std::string& text) {
  if (IsDone()) return;
  const bool retryable = code == kExitConnection || code == kExitNoAnswer;
  if (owner_->options_.retry && retryable && !dialogue_.IsStopping() &&
      owner_->mode_ == Mode::kTail) {
    Retry(text);
    return;
  }
  FlushData();
  owner_->WriteErr("norvane: " + Where() + ": " + text + "\n");
  Notify(Listener::State::kEnded, text);
  if (owner_->first_failure_ == kExitOk) owner_->first_failure_ = code;
  Finish();
}

void NorvaneClient::Feed::Notify(Listener::State state, const std::string& text) const {
  if (owner_->options_.listener != nullptr)
    owner_->options_.listener->OnState(target_, state, text);
}

// A refusal leaves a working connection: it is ended with "quit" like any other.
void NorvaneClient::Feed::Refused(int code, const std::string& text) {
  owner_->WriteErr("norvane: " + Where() + ": " + text + "\n");
  Notify(Listener::State::kEnded, text);
  if (owner_->first_failure_ == kExitOk) owner_->first_failure_ = code;
  RequestStop();
}

// The unfinished last line is kept: a resumed feed completes it.
void NorvaneClient::Feed::Retry(const std::string& text) {
  const std::string notice =
      text + "; connecting again in " + std::to_string(retry_seconds_) + " s";
  owner_->WriteErr("norvane: " + Where() + ": " + notice + "\n");
  Notify(Listener::State::kReconnecting, notice);
  Reset();
  phase_ = Phase::kWaiting;
  has_deadline_ = true;
  deadline_ = Clock::now() + std::chrono::seconds(retry_seconds_);
  retry_seconds_ = std::min(retry_seconds_ * 2, kLastRetrySeconds);
}

void NorvaneClient::Feed::Reset() {
  socket_.Reset();
  codec_.Clear();
  send_buffer_.clear();
  dialogue_.Restart();
  phase_ = Phase::kConnecting;
}

void NorvaneClient::Feed::Finish() {
  FlushData();
  socket_.Reset();
  phase_ = Phase::kDone;
  has_deadline_ = false;
}

void NorvaneClient::Feed::Arm() {
  has_deadline_ = true;
  deadline_ = Clock::now() + std::chrono::seconds(owner_->options_.timeout_seconds);
}

std::string NorvaneClient::Feed::Where() const {
  const std::string label = Label(target_);
  return owner_->mode_ == Mode::kList ? label.substr(0, label.find('/'))
                                      : label.substr(0, label.size() - 2);
}

// ---- NorvaneClient ----

bool NorvaneClient::ParsePort(const std::string& text, int* port) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const int value = std::stoi(text);
  if (value < 1 || value > 65535) return false;
  *port = value;
  return true;
}

bool NorvaneClient::ParseDaemon(const std::string& text, const Target& defaults, Target* target,
                                std::string* error) {
  *target = defaults;
  target->file.clear();
  const std::size_t colon = text.find(':');
  target->host = text.substr(0, colon);
  if (target->host.empty()) target->host = defaults.host;
  if (colon == std::string::npos) return true;
  const std::string port = text.substr(colon + 1);
  if (port.empty() || ParsePort(port, &target->port)) return true;
  *error = "bad port " + Quoted(port) + " (expected 1 to 65535)";
  return false;
}

bool NorvaneClient::ParseTailTarget(const std::string& text, const Target& defaults, Target* target,
                                    std::string* error) {
  const std::size_t slash = text.find('/');
  const bool has_daemon = slash != std::string::npos && text.find(':') < slash;
  *target = defaults;
  target->file = text;
  if (has_daemon) {
    if (!ParseDaemon(text.substr(0, slash), defaults, target, error)) {
      *error += " in " + Quoted(text);
      return false;
    }
    target->file = text.substr(slash + 1);
  }
  if (!target->file.empty()) return true;
  *error = "no file name in " + Quoted(text);
  return false;
}

std::string NorvaneClient::Escape(const std::string& text, bool keep_line_ends) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const bool c1 = c == 0xc2 && i + 1 < text.size() &&
                    static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) <= 0x9f;
    const bool line_end = c == '\n' || (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n');
    if ((c >= 0x20 && c != 0x7f && !c1) || c == '\t' || (line_end && keep_line_ends)) {
      out += text[i];
      continue;
    }
    // A C1 control in UTF-8 (U+0080..U+009F) is shown as its code point's byte.
    const unsigned char shown = c1 ? static_cast<unsigned char>(text[++i]) : c;
    out += "\\x";
    out += kHex[shown >> 4];
    out += kHex[shown & 0xf];
  }
  return out;
}

std::string NorvaneClient::Label(const Target& target) {
  return target.host + ":" + std::to_string(target.port) + "/" + target.file + ": ";
}

NorvaneClient::NorvaneClient(Mode mode, std::vector<Target> targets, Options options, int out_fd,
                             int err_fd)
    : mode_(mode), options_(std::move(options)), out_fd_(out_fd), err_fd_(err_fd) {
  bool prefixed = targets.size() > 1;
  for (const Target& target : targets) prefixed = prefixed || IsPattern(target.file);
  for (Target& target : targets) {
    const bool pattern = mode_ == Mode::kTail && IsPattern(target.file);
    feeds_.push_back(
        std::make_unique<Feed>(this, pattern ? Mode::kList : mode_, std::move(target), prefixed));
    if (pattern) patterns_.push_back(Pattern{feeds_.back().get(), {}, false});
  }
}

NorvaneClient::~NorvaneClient() = default;

int NorvaneClient::Run(int stop_fd) {
  StartAll();
  while (PollOnce(stop_fd)) {
  }
  if (mode_ == Mode::kList && first_failure_ == kExitOk) PrintList();
  return first_failure_;
}

// After a failure the remaining feeds are not even started.
void NorvaneClient::StartAll() {
  for (auto& feed : feeds_) {
    if (stopping_) {
      feed->Abandon();
      continue;
    }
    feed->Start();
    HandleFailures();
  }
}

bool NorvaneClient::PollOnce(int stop_fd) {
  std::vector<pollfd> fds;
  fds.push_back(pollfd{stop_fd, POLLIN, 0});
  std::size_t open = 0;
  for (const auto& feed : feeds_) {
    const bool active = !feed->IsDone();
    open += active ? 1 : 0;
    fds.push_back(pollfd{active ? feed->Fd() : -1, active ? feed->Events() : short{0}, 0});
  }
  if (open == 0) return false;
  // A poll interrupted by a signal counts as nothing ready; the stop pipe carries the request.
  if (::poll(fds.data(), fds.size(), PollTimeoutMs()) < 0 && errno != EINTR) {
    const int error = errno;
    WriteErr("norvane: poll: " + GetErrorMessage(error) + "\n");
    if (first_failure_ == kExitOk) first_failure_ = kExitConnection;
    for (auto& feed : feeds_) feed->Abandon();
    return false;
  }
  if (fds[0].fd >= 0 && fds[0].revents != 0) DrainStop(stop_fd);
  for (std::size_t i = 0; i < feeds_.size() && !abandon_; ++i) {
    feeds_[i]->Handle(fds[i + 1].revents);
    HandleFailures();
  }
  const Clock::time_point now = Clock::now();
  for (auto& feed : feeds_) feed->CheckDeadline(now);
  HandleFailures();
  ExpandPatterns();
  return true;
}

bool NorvaneClient::IsPattern(const std::string& file) {
  return file.find_first_of("*?[") != std::string::npos;
}

// A pattern's listing that has ended adds a feed for every matching name not yet followed; "*"
// and "?" do not match "/". Without retry the first listing is the only one, and finding nothing
// fails; with it the daemon is asked again every kRelistSeconds.
void NorvaneClient::ExpandPatterns() {
  for (Pattern& pattern : patterns_) {
    if (stopping_ || !pattern.lister->IsDone() || !pattern.lister->IsListed()) continue;
    if (pattern.listed_once && !options_.retry) continue;
    const Target& where = pattern.lister->GetTarget();
    std::size_t added = 0;
    for (const std::string& name : pattern.lister->Names()) {
      if (::fnmatch(where.file.c_str(), name.c_str(), FNM_PATHNAME) != 0) continue;
      if (!pattern.followed.insert(name).second) continue;
      Target target = where;
      target.file = name;
      feeds_.push_back(std::make_unique<Feed>(this, Mode::kTail, target, true));
      if (pattern.listed_once) {
        const std::string notice = "new file matching " + Quoted(where.file);
        WriteErr("norvane: " + Label(target).substr(0, Label(target).size() - 2) + ": " + notice +
                 "\n");
        if (options_.listener != nullptr) {
          options_.listener->OnState(target, Listener::State::kNotice, notice);
        }
        feeds_.back()->FollowFromStart();
      }
      feeds_.back()->Start();
      ++added;
    }
    const bool none = pattern.followed.empty();
    const std::string none_text =
        "no file matches; `norvane list` shows the files the daemon offers";
    if (!pattern.listed_once && none && !options_.retry) {
      WriteErr("norvane: " + Label(where).substr(0, Label(where).size() - 2) + ": " + none_text +
               "\n");
      if (first_failure_ == kExitOk) first_failure_ = kExitNotOffered;
    }
    if (options_.listener != nullptr) {
      const bool ended = none && !options_.retry;
      const std::size_t count = pattern.followed.size();
      options_.listener->OnState(
          where, ended ? Listener::State::kEnded : Listener::State::kFollowing,
          none ? none_text
               : std::to_string(count) + (count == 1 ? " matching file" : " matching files") +
                     " followed");
    }
    pattern.listed_once = true;
    if (options_.retry) pattern.lister->ListAgain(kRelistSeconds);
    HandleFailures();
  }
}

int NorvaneClient::PollTimeoutMs() const {
  int timeout = -1;
  const Clock::time_point now = Clock::now();
  for (const auto& feed : feeds_) {
    if (feed->IsDone() || !feed->HasDeadline()) continue;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(feed->Deadline() - now).count();
    // Rounded up by one so that the deadline has passed when poll returns.
    const int wait = left < 0 ? 0 : static_cast<int>(left) + 1;
    if (timeout < 0 || wait < timeout) timeout = wait;
  }
  return timeout;
}

void NorvaneClient::DrainStop(int stop_fd) {
  char buffer[64];
  while (::read(stop_fd, buffer, sizeof(buffer)) > 0) {
  }
  RequestStop();
}

void NorvaneClient::RequestStop() {
  if (stopping_) {
    abandon_ = true;
    for (auto& feed : feeds_) feed->Abandon();
    return;
  }
  stopping_ = true;
  for (auto& feed : feeds_) feed->RequestStop();
}

void NorvaneClient::HandleFailures() {
  if (first_failure_ != kExitOk && !stopping_) RequestStop();
}

void NorvaneClient::PrintList() {
  const bool prefixed = feeds_.size() > 1;
  std::string text;
  for (const auto& feed : feeds_) {
    const std::string label = Label(feed->GetTarget());
    const std::string prefix = prefixed ? label.substr(0, label.size() - 2) : "";
    if (!feed->IsListed()) continue;  // stopped before the daemon's "+OK"
    for (const std::string& name : feed->Names()) {
      text += prefix + (options_.escape ? Escape(name, false) : name) + "\n";
    }
  }
  WriteOut(text);
}

// A closed output (EPIPE: the reader went away) ends the run like a stop request; any other
// output error ends it with kExitOutput.
void NorvaneClient::WriteOut(const std::string& text) {
  if (text.empty() || out_failed_) return;
  if (WriteAll(out_fd_, text)) return;
  const int error = errno;
  out_failed_ = true;
  if (error != EPIPE) {
    WriteErr("norvane: cannot write the output: " + GetErrorMessage(error) + "\n");
    if (first_failure_ == kExitOk) first_failure_ = kExitOutput;
  }
  if (!stopping_) RequestStop();
}

// Messages may quote what a daemon sent (paths, names, replies): shown escaped.
void NorvaneClient::WriteErr(const std::string& text) const {
  // Nothing better can be done when the error output itself fails.
  (void)WriteAll(err_fd_, Escape(text, true));
}
