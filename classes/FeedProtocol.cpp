#include "FeedProtocol.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>
#include <utility>

#include "FWErrorMessage.h"
#include "FWStringUtils.h"
#include "FeedTexts.h"
#include "LoginGuard.h"

namespace {

// The argument of a command line: the leading keyword removed (case-sensitively: "USER x" keeps
// its keyword and so names an unknown user), then leading white space and every "\r\n". Only
// the keyword is removed, so names such as restart.log and passwords such as bypass1 survive.
std::string Argument(std::string line, const std::string& keyword) {
  if (line.starts_with(keyword)) line.erase(0, keyword.size());
  line = FWStringUtils::TrimRight(line);  // the product's name: strips the start
  FWStringUtils::ReplaceAll(line, feed::kLineEnd, "");
  return line;
}

// The arguments of an extension command: the line without its keyword, its one blank and its
// "\r\n". Unlike the original commands nothing else is removed, so any listed name can be asked.
std::string ExtensionArguments(const std::string& line, const std::string& keyword) {
  return line.substr(keyword.size() + 1, line.size() - keyword.size() - 3);
}

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

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string QuotedPlain(const std::string& text) { return "\"" + text + "\""; }

// No real path is longer; a hostile daemon's text is cut.
constexpr std::size_t kMaxPathBytes = 4096;
// A client's text in the log is cut after this many bytes.
constexpr std::size_t kQuotedLimit = 80;

}  // namespace

// ---- The shared pieces ----

const char* feed::ResumedNote(Resumed resumed) {
  switch (resumed) {
    case Resumed::kContinued:
      return kNoteContinued;
    case Resumed::kRotated:
      return kNoteRotated;
    case Resumed::kTruncated:
      return kNoteTruncated;
    default:
      return kNoteGone;
  }
}

std::string feed::FeedHead(const Position& at, const std::string& note) {
  std::ostringstream head;
  head << kFeedHead << at.dev << ' ' << at.ino << ' ' << at.offset << (note.empty() ? "" : " ")
       << note << kLineEnd;
  return head.str();
}

bool feed::ParseFeedHead(const std::string& message, FeedMessage* parsed) {
  const std::size_t end = message.find(kLineEnd);
  std::istringstream head(message.substr(0, end == std::string::npos ? 0 : end));
  std::string word;
  unsigned long long dev = 0, ino = 0, offset = 0;
  if (!(head >> word >> dev >> ino >> offset)) return false;
  parsed->note.clear();
  head >> parsed->note;
  parsed->at.dev = static_cast<dev_t>(dev);
  parsed->at.ino = static_cast<ino_t>(ino);
  parsed->at.offset = static_cast<off_t>(offset);
  parsed->data_start = end + 2;
  return true;
}

std::vector<FWSharedBytes> feed::FrameData(const FWFeedCodec& codec, const std::string& data,
                                           const Position& at, bool positions,
                                           const std::string& note) {
  std::vector<FWSharedBytes> frames;
  if (!positions) {
    for (const std::string& reply : SplitReplies(data, kMaxReplyBytes)) {
      frames.emplace_back(codec.Frame(reply));
    }
    return frames;
  }
  frames.emplace_back(codec.Frame(FeedHead(at, note), data));
  return frames;
}

std::vector<std::string> feed::SplitReplies(const std::string& data, std::size_t max) {
  assert(max > 0 && "a reply holds at least one byte");
  std::vector<std::string> replies;
  for (std::size_t pos = 0; pos < data.size(); pos += max) replies.push_back(data.substr(pos, max));
  return replies;
}

std::string feed::Quoted(const std::string& text) {
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

// ---- The daemon's side ----

FeedServer::FeedServer(Host& host, Settings settings, LoginGuard* guard, std::string peer,
                       std::time_t now)
    : host_(host),
      settings_(std::move(settings)),
      guard_(guard),
      peer_(std::move(peer)),
      login_deadline_(now + feed::kLoginTimeoutSeconds) {}

void FeedServer::Greet(const std::string& product) { host_.Reply(product + feed::kGreetingTail); }

bool FeedServer::LoginExpired(std::time_t now) {
  if (state_ != kAwaitingLogin || now < login_deadline_) return false;
  host_.Log(FWStringUtils::Printf("no login within %d s, closing",
                                  static_cast<int>(feed::kLoginTimeoutSeconds)));
  return true;
}

void FeedServer::Reset() {
  transmitting_ = false;
  extended_ = false;
  current_file_.clear();
}

// The keyword tests use a lower-cased copy of the whole line, "\r\n" included; the arguments are
// taken from the line as received.
void FeedServer::HandleLine(const std::string& line) {
  const std::string lower = FWStringUtils::GetDefaultInstance().Lower(line);
  if (lower == "quit\r\n") {
    state_ = kQuitting;
    host_.Reply(feed::kClosing);
    return;
  }
  if (state_ == kLoggedIn) {
    HandleLoggedIn(line, lower);
  } else if (state_ == kAwaitingLogin) {
    HandleLogin(line, lower);
  }
  // After quit every other line is ignored.
}

// The files are collected at the first command after login that needs them, so that a client
// that has not logged in costs no directory walk.
void FeedServer::HandleLoggedIn(const std::string& line, const std::string& lower) {
  const bool needs_files = lower.starts_with("start") || lower.starts_with("backlog ") ||
                           lower.starts_with("resume ") || lower == "list\r\n";
  if (needs_files) host_.LogFiles();
  if (lower.starts_with("start")) {
    HandleStart(line);
  } else if (lower.starts_with("backlog ")) {
    HandleBacklog(line);
  } else if (lower.starts_with("resume ")) {
    HandleResume(line);
  } else if (lower == "stop\r\n") {
    HandleStop();
  } else if (lower == "list\r\n") {
    HandleList();
  } else {
    host_.Reply(feed::kUnrecognizedCommand);
  }
}

void FeedServer::HandleLogin(const std::string& line, const std::string& lower) {
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
  host_.Reply(feed::kInvalidCommand);
  CountInvalidCommand();
}

void FeedServer::HandleUser(const std::string& user) {
  if (user == settings_.user) {
    user_accepted_ = true;
    host_.Reply(feed::kUserAccepted);
    return;
  }
  host_.Reply(feed::kUserUnknown);
  CountFailedLogin(user, "unknown user");
  CountInvalidCommand();
}

void FeedServer::HandlePassword(const std::string& password) {
  const std::string refusal = LoginRefusal(password);
  if (refusal.empty()) {
    state_ = kLoggedIn;
    host_.LoggedIn();
    host_.Reply(feed::kLoginAccepted);
    host_.Log(FWStringUtils::Printf("login of user %s from %s",
                                    feed::Quoted(settings_.user).c_str(), peer_.c_str()));
    return;
  }
  host_.Reply(feed::kLoginFailed);
  CountFailedLogin(settings_.user, refusal);
  if (++password_failures_ < feed::kPasswordFailureLimit || state_ != kAwaitingLogin) return;
  host_.Log(FWStringUtils::Printf("closing after %d failed logins", feed::kPasswordFailureLimit));
  state_ = kQuitting;
}

std::string FeedServer::LoginRefusal(const std::string& password) const {
  if (guard_ != nullptr && guard_->IsRefused(peer_)) {
    return "address refused after repeated failures";
  }
  if (!EqualInConstantTime(password, settings_.password)) return "wrong password";
  if (settings_.default_password && !IsLoopback(peer_)) {
    return "the default password admits loopback clients only";
  }
  return "";
}

// The audit line, and the address brake: a failure that starts a refusal is logged once.
void FeedServer::CountFailedLogin(const std::string& user, const std::string& reason) {
  host_.Log(FWStringUtils::Printf("login failed: user %s from %s (%s)", feed::Quoted(user).c_str(),
                                  peer_.c_str(), reason.c_str()));
  if (guard_ == nullptr || !guard_->RecordFailure(peer_)) return;
  host_.Log(FWStringUtils::Printf("refusing logins from %s for %d s after %zu failed logins",
                                  peer_.c_str(), static_cast<int>(LoginGuard::kRefusalSeconds),
                                  LoginGuard::kFailuresPerAddress));
}

// Unknown users count as invalid commands too. The last one allowed has been answered; then the
// session ends as after "quit", once its replies are sent.
void FeedServer::CountInvalidCommand() {
  if (++invalid_commands_ < feed::kInvalidCommandLimit || state_ != kAwaitingLogin) return;
  host_.Log(FWStringUtils::Printf("closing after %d invalid commands before login",
                                  feed::kInvalidCommandLimit));
  state_ = kQuitting;
}

// An empty name changes nothing: while a file is transmitted it is confirmed again and its
// position is kept.
void FeedServer::HandleStart(const std::string& line) {
  const std::string name = Argument(line, "start");
  if (!name.empty()) {
    if (BeginFile(name)) host_.FollowFile();
    return;
  }
  if (transmitting_) {
    host_.Reply(feed::kStarted + current_file_ + feed::kLineEnd);
  } else {
    host_.Reply(feed::kNotOffered);
  }
}

void FeedServer::HandleBacklog(const std::string& line) {
  std::vector<unsigned long long> numbers;
  std::string name;
  if (!ParseNumbers(ExtensionArguments(line, "backlog"), 1, &numbers, &name)) {
    host_.Reply(feed::kBadArguments);
    return;
  }
  const auto lines =
      static_cast<std::size_t>(std::min<unsigned long long>(numbers[0], feed::kMaxBacklogLines));
  if (!BeginFile(name)) return;
  extended_ = true;
  host_.FollowBacklog(lines);
}

void FeedServer::HandleResume(const std::string& line) {
  std::vector<unsigned long long> numbers;
  std::string name;
  if (!ParseNumbers(ExtensionArguments(line, "resume"), 3, &numbers, &name)) {
    host_.Reply(feed::kBadArguments);
    return;
  }
  feed::Position from;
  from.dev = static_cast<dev_t>(numbers[0]);
  from.ino = static_cast<ino_t>(numbers[1]);
  from.offset = static_cast<off_t>(
      std::min<unsigned long long>(numbers[2], std::numeric_limits<off_t>::max()));
  if (!BeginFile(name)) return;
  extended_ = true;
  host_.FollowResumed(from);
}

void FeedServer::HandleStop() {
  host_.Reply(feed::kStopped);
  if (transmitting_) {
    host_.Log(FWStringUtils::Printf("stop %s from %s", feed::Quoted(current_file_).c_str(),
                                    peer_.c_str()));
  }
  transmitting_ = false;
  host_.StopFile();
}

void FeedServer::HandleList() {
  for (const std::string& name : host_.LogFiles()) host_.Reply(name + feed::kLineEnd);
  host_.Reply(feed::kListEnd);
}

// A name not listed is refused like one that leads out of the root. A listed file that exists
// but cannot be opened is refused with the reason; the session stays logged in.
bool FeedServer::BeginFile(const std::string& name) {
  current_file_.clear();
  transmitting_ = false;
  extended_ = false;
  host_.StopFile();
  const std::vector<std::string>& files = host_.LogFiles();
  const bool listed = std::find(files.begin(), files.end(), name) != files.end();
  const int error = listed ? host_.OpenFile(name) : EXDEV;
  if (error == EXDEV) {
    host_.Reply(feed::kNotOffered);
    host_.Log(FWStringUtils::Printf("refused name %s from %s", feed::Quoted(name).c_str(),
                                    peer_.c_str()));
    return false;
  }
  if (error != 0) {
    host_.Reply(feed::kCannotRead + name + ": " + GetErrorMessage(error) + feed::kLineEnd);
    return false;
  }
  // The slash is added even when the document root ends in one; clients see this path.
  current_file_ = settings_.document_root + "/" + name;
  transmitting_ = true;
  host_.Log(FWStringUtils::Printf("start %s from %s", feed::Quoted(current_file_).c_str(),
                                  peer_.c_str()));
  host_.Reply(feed::kStarted + current_file_ + feed::kLineEnd);
  return true;
}

// ---- A client's side ----

std::string FeedClient::ArgumentProblem(const std::string& keyword, const std::string& value) {
  if (value.empty()) return "the " + keyword + " argument is empty";
  const bool leading_blank = value.front() == ' ' || value.front() == '\t';
  if (!leading_blank && value.find(feed::kLineEnd) == std::string::npos) return "";
  const std::string what = keyword == "start"  ? "name"
                           : keyword == "user" ? "user name"
                                               : "password";
  return "the daemon removes leading blanks and line ends from a " + what + ", so " +
         (keyword == "pass" ? "this password" : QuotedPlain(value)) + " can never reach it";
}

bool FeedClient::IsFeedMessage(const std::string& message) {
  return message.starts_with(feed::kFeedHead);
}

bool FeedClient::WantsExtension() const {
  return extensions_ && (request_.backlog_lines >= 0 || request_.retry || request_.from_start);
}

void FeedClient::Restart() {
  phase_ = Phase::kGreeting;
  stop_sent_ = false;
  expected_.clear();
  held_.clear();
  quit_answered_ = false;
}

std::string FeedClient::StartCommand() const {
  if (!WantsExtension() && !request_.from_start) return "start " + request_.file + "\r\n";
  if (!position_.empty()) return "resume " + position_ + " " + request_.file + "\r\n";
  const int lines = request_.from_start ? static_cast<int>(feed::kMaxBacklogLines)
                                        : std::max(request_.backlog_lines, 0);
  return "backlog " + std::to_string(lines) + " " + request_.file + "\r\n";
}

void FeedClient::Receive(const std::string& message) {
  if (phase_ == Phase::kStreaming && WantsExtension() && IsFeedMessage(message)) {
    OnFeed(message);
    return;
  }
  if (stop_sent_) {
    OnMessageWhileStopping(message);
    return;
  }
  if (phase_ == Phase::kStreaming && !WantsExtension()) {
    host_.OnData(message);
    return;
  }
  OnReply(message);
}

void FeedClient::ReadLine(const std::string& line) {
  if (phase_ == Phase::kGreeting) {
    phase_ = Phase::kStreaming;
    return;
  }
  if (line[0] == '+' || line[0] == '-') return;
  host_.OnData(line);
}

void FeedClient::OnReply(const std::string& message) {
  if (phase_ == Phase::kGreeting && EndsWith(message, feed::kGreetingTail)) {
    phase_ = Phase::kUser;
    host_.Send("user " + request_.user + "\r\n");
  } else if (phase_ == Phase::kUser || phase_ == Phase::kPass) {
    OnLoginReply(message);
  } else if (phase_ == Phase::kList && message == feed::kListEnd) {
    host_.OnListed();
  } else if (phase_ == Phase::kList && EndsWith(message, feed::kLineEnd)) {
    names_.push_back(message.substr(0, message.size() - 2));
    host_.OnName();
  } else if (phase_ == Phase::kStart && message.starts_with(feed::kStarted)) {
    OnStarted(message);
  } else if (phase_ == Phase::kStart && WantsExtension() &&
             (message == feed::kUnrecognizedCommand || message == feed::kInvalidCommand)) {
    // An older daemon: the dialogue uses the original "start" for good.
    extensions_ = false;
    host_.OnExtensionsRefused();
    host_.Send(StartCommand());
  } else if (phase_ == Phase::kStart && message == feed::kNotOffered) {
    phase_ = Phase::kClosing;
    host_.OnRefused(Refusal::kFile, message);
  } else {
    host_.OnUnexpected(message);
  }
}

void FeedClient::OnLoginReply(const std::string& message) {
  if (phase_ == Phase::kUser && message == feed::kUserAccepted) {
    phase_ = Phase::kPass;
    host_.Send("pass " + request_.password + "\r\n");
  } else if (phase_ == Phase::kUser && message == feed::kUserUnknown) {
    phase_ = Phase::kClosing;
    host_.OnRefused(Refusal::kUser, message);
  } else if (phase_ == Phase::kPass && message == feed::kLoginFailed) {
    phase_ = Phase::kClosing;
    host_.OnRefused(Refusal::kPassword, message);
  } else if (phase_ == Phase::kPass && message == feed::kLoginAccepted) {
    phase_ = request_.list ? Phase::kList : Phase::kStart;
    host_.Send(request_.list ? std::string("list\r\n") : StartCommand());
  } else {
    host_.OnUnexpected(message);
  }
}

void FeedClient::OnStarted(const std::string& message) {
  phase_ = Phase::kStreaming;
  std::string path = message.substr(std::strlen(feed::kStarted));
  path.resize(path.size() - (EndsWith(path, feed::kLineEnd) ? 2 : 0));
  if (path.size() > kMaxPathBytes) path = path.substr(0, kMaxPathBytes) + " (cut)";
  host_.OnFollowing(path);
}

// "+FEED DEV INO OFFSET[ NOTE]\r\n" and the data. Anything but "continued" ends the unfinished
// line of the old position.
void FeedClient::OnFeed(const std::string& message) {
  feed::FeedMessage parsed;
  if (!feed::ParseFeedHead(message, &parsed)) {
    host_.OnUnexpected(message);
    return;
  }
  position_ = std::to_string(static_cast<unsigned long long>(parsed.at.dev)) + " " +
              std::to_string(static_cast<unsigned long long>(parsed.at.ino)) + " " +
              std::to_string(static_cast<unsigned long long>(parsed.at.offset));
  if (!parsed.note.empty() && parsed.note != feed::kNoteContinued) host_.OnResumeNote(parsed.note);
  host_.OnData(message.substr(parsed.data_start));
}

void FeedClient::Stop() {
  stop_sent_ = true;
  if (phase_ == Phase::kStart || phase_ == Phase::kStreaming) {
    host_.Send("stop\r\n");
    expected_ = {feed::kStopped, feed::kClosing};
  } else {
    expected_ = {feed::kClosing};
  }
  host_.Send("quit\r\n");
}

// Replies to commands sent before the stop are dropped, except that a pending "start" may still
// turn the dialogue into a stream whose data is delivered.
void FeedClient::OnMessageWhileStopping(const std::string& message) {
  if (phase_ == Phase::kStart) {
    phase_ = message.starts_with(feed::kStarted) ? Phase::kStreaming : Phase::kClosing;
    return;
  }
  if (phase_ == Phase::kStreaming && !WantsExtension()) {
    HoldOrData(message);
    return;
  }
  if (message == feed::kClosing) quit_answered_ = true;
}

void FeedClient::HoldOrData(const std::string& message) {
  if (held_.size() < expected_.size() && message == expected_[held_.size()]) {
    held_.push_back(message);
    quit_answered_ = held_.size() == expected_.size();
    return;
  }
  for (const std::string& data : held_) host_.OnData(data);
  held_.clear();
  quit_answered_ = false;
  if (message == expected_.front()) {
    held_.push_back(message);
    return;
  }
  host_.OnData(message);
}
