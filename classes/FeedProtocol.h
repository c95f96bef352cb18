// The log feed protocol without its transport: what the daemon answers to each command line
// (FeedServer), how a client conducts its side of the dialogue (FeedClient), the position line of
// the extensions, and the bounds both ends keep. Nothing here touches a socket or a file: a
// session hands the protocol the text it received and carries out what the protocol asks of it,
// so the same dialogue runs over any transport and can be tested without one. The texts
// themselves are in FeedTexts.h.
//
// The commands (one "\r\n"-terminated line each; keywords matched case-insensitively on the
// whole line, arguments taken from the line as received):
//   user NAME, pass PASSWORD     log in
//   list                         the offered file names, one message each, then "+OK"
//   start NAME                   follow NAME from its end: each poll's new data as replies
//   stop                         end the transmission
//   quit                         end the session once the reply is sent
// Extensions (commands a client of the original protocol never sends, so it sees no change):
//   backlog N NAME               follow NAME after sending its last N lines (N <= 10000, at most
//                                4 MiB of them)
//   resume DEV INO OFFSET NAME   follow NAME from OFFSET when it is still that file (device and
//                                inode) and not shorter; otherwise from what exists
// Both answer as "start" does ("+OK start transmitting PATH", "-ERR invalid logfile name";
// "-ERR bad arguments" for malformed numbers). After an accepted one, each poll's data is one
// message (not cut into 1 MiB replies) that begins with a position line, "+FEED DEV INO
// OFFSET\r\n", giving the file and the offset of the next byte after the data. The first such
// message follows the reply at once (with the backlog, if any); after resume its line ends in
// " continued", " rotated", " truncated" or " gone".
#ifndef NORVANE_CLASSES_FEEDPROTOCOL_H_
#define NORVANE_CLASSES_FEEDPROTOCOL_H_

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "FWFeedCodec.h"
#include "FWSendQueue.h"
#include "FeedTexts.h"

class LoginGuard;

namespace feed {

// The bounds of a session, before and after login.
// One poll's data goes out as replies of at most this many bytes each (without positions)...
inline constexpr std::size_t kMaxReplyBytes = 1u << 20;
// ...and the session neither polls nor reads commands while more than this many bytes of replies
// wait to be sent to its client.
inline constexpr std::size_t kMaxPendingBytes = 8u << 20;
// A backlog reaches back at most this many lines and bytes from the end of the file.
inline constexpr std::size_t kMaxBacklogLines = 10000;
inline constexpr std::size_t kMaxBacklogBytes = 4u << 20;
// The most command text held without "\r\n".
inline constexpr std::size_t kLineLimit = 64 * 1024;
// Before login: frames and messages of at most this size, at most this much unsent reply text,
// this many invalid commands answered (then the session ends), this long to log in, and this
// many wrong passwords.
inline constexpr std::size_t kPreLoginFrameLimit = 4 * 1024;
inline constexpr std::size_t kPreLoginPendingBytes = 64 * 1024;
inline constexpr int kInvalidCommandLimit = 10;
inline constexpr std::time_t kLoginTimeoutSeconds = 30;
inline constexpr int kPasswordFailureLimit = 3;
// At most this many command lines are handled in one pass of the loop; the rest wait for the
// next, so that one frame of many lines cannot hold the loop from the other sessions.
inline constexpr int kLinesPerPass = 1000;

// Where a transmission stands: the file (device and inode; both 0 before a file was opened) and
// the offset of the next byte to be sent from it.
struct Position {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t offset = 0;
};

// How a resumed file was found: the same and not shorter, another file under the name, the same
// file shrunk, or missing.
enum class Resumed { kContinued, kRotated, kTruncated, kGone };
// The note of the position line for it: "continued", "rotated", "truncated", "gone".
const char* ResumedNote(Resumed resumed);

// "+FEED DEV INO OFFSET\r\n", with " " and the note before the "\r\n" when there is one.
std::string FeedHead(const Position& at, const std::string& note = "");
// A data message after an extension: its position line, its note ("" when none) and where its
// data begins.
struct FeedMessage {
  Position at;
  std::string note;
  std::size_t data_start = 0;
};
// Reads the position line at the front of message; false when it holds no device, inode and
// offset.
bool ParseFeedHead(const std::string& message, FeedMessage* parsed);

// The frames of one poll's data read up to `at`: replies of at most kMaxReplyBytes each, or, with
// positions, one message behind its position line (with the note, if any).
std::vector<FWSharedBytes> FrameData(const FWFeedCodec& codec, const std::string& data,
                                     const Position& at, bool positions,
                                     const std::string& note = "");
// Cuts data into consecutive pieces of at most max bytes (max > 0); none for "".
std::vector<std::string> SplitReplies(const std::string& data, std::size_t max);

// A client's text for the log: quoted, control bytes and quotes escaped, at most 80 bytes of it,
// so that no client can forge or flood log lines.
std::string Quoted(const std::string& text);

}  // namespace feed

// The daemon's side of one dialogue. Main thread only.
//
// Login: "user" with the configured name, then "pass" with the password (which may be retried).
// A session that has not logged in gets less (see the bounds above); an unknown user counts as an
// invalid command. A login from an address that the login guard refuses fails like a wrong
// password, and a port that keeps the built-in default password admits loopback clients only.
// Failed logins, refused names, "start", "stop" and the end of the session are logged with the
// client's address, never with a password.
class FeedServer final {
 public:
  // States.
  static constexpr int kAwaitingLogin = 1;
  static constexpr int kLoggedIn = 2;
  static constexpr int kQuitting = 4;

  // What the dialogue needs of the session that carries it.
  class Host {
   public:
    virtual ~Host() = default;
    // Queues one message for the client.
    virtual void Reply(const std::string& text) = 0;
    // Logs one line under the session's prefix.
    virtual void Log(const std::string& text) = 0;
    // A good password was given: the client may send larger frames from now on.
    virtual void LoggedIn() = 0;
    // The names offered to the client, relative to the document root and sorted; collected at
    // the first call.
    virtual const std::vector<std::string>& LogFiles() = 0;
    // Ends the transmission of the file followed so far, if any.
    virtual void StopFile() = 0;
    // Opens the listed name for following from its end: 0, EXDEV when the name leads out of the
    // document root, or the errno that keeps it from being read.
    virtual int OpenFile(const std::string& name) = 0;
    // After the reply that accepted the opened file: sends what an extension sends first
    // (the last `lines` lines; the rest of the file from `from`) and follows the file.
    virtual void FollowFile() = 0;
    virtual void FollowBacklog(std::size_t lines) = 0;
    virtual void FollowResumed(const feed::Position& from) = 0;
  };

  // The port's settings as the dialogue reads them.
  struct Settings {
    std::string document_root;
    std::string user;
    std::string password;
    // The password is the built-in default (or empty): loopback clients only.
    bool default_password = false;
  };

  // host is the session (not owned; it owns this dialogue). guard is the daemon's login brake
  // (not owned; null for none). peer is the client's address.
  FeedServer(Host& host, Settings settings, LoginGuard* guard, std::string peer, std::time_t now);

  // Sends the greeting: the product name and " Monitoring Service Ready.".
  void Greet(const std::string& product);
  // Handles one line with its "\r\n".
  void HandleLine(const std::string& line);
  // True when a session awaiting login at `now` has run out of time; logs it once.
  bool LoginExpired(std::time_t now);

  int GetState() const { return state_; }
  bool IsLoggedIn() const { return state_ == kLoggedIn; }
  // After "quit" (or too many failures before login): the session ends once its replies are sent.
  bool IsFinished() const { return state_ == kQuitting; }
  // A "start" (or extension) is in force.
  bool IsTransmitting() const { return transmitting_; }
  // The transmission was begun by an extension: data messages carry their position line.
  bool IsExtended() const { return extended_; }
  // The unsent replies this session may hold before it is held back.
  std::size_t GetPendingLimit() const {
    return state_ == kLoggedIn ? feed::kMaxPendingBytes : feed::kPreLoginPendingBytes;
  }
  // The followed file's full path (document root + "/" + name); "" when none.
  const std::string& GetCurrentFile() const { return current_file_; }
  // Ends any transmission without a reply (the session closes).
  void Reset();

 private:
  void HandleLoggedIn(const std::string& line, const std::string& lower);
  void HandleLogin(const std::string& line, const std::string& lower);
  void HandleUser(const std::string& user);
  void HandlePassword(const std::string& password);
  // Why a login with this password fails; "" when it succeeds.
  std::string LoginRefusal(const std::string& password) const;
  void CountFailedLogin(const std::string& user, const std::string& reason);
  void CountInvalidCommand();
  void HandleStart(const std::string& line);
  void HandleBacklog(const std::string& line);
  void HandleResume(const std::string& line);
  void HandleStop();
  void HandleList();
  // Stops any transmission, then looks name up and opens it. Replies as "start" does; false
  // when refused.
  bool BeginFile(const std::string& name);

  Host& host_;
  const Settings settings_;
  LoginGuard* const guard_;
  const std::string peer_;
  int state_ = kAwaitingLogin;
  bool user_accepted_ = false;
  int invalid_commands_ = 0;
  int password_failures_ = 0;
  std::time_t login_deadline_;
  bool transmitting_ = false;
  bool extended_ = false;
  std::string current_file_;
};

// A client's side of one dialogue, as `norvane` conducts it and as a session's client role
// reads another daemon's feed. Nothing is sent before the greeting; then the client logs in and
// asks for the list or for its file.
//
// The daemon's messages are told apart by their order alone: a reply answers the oldest command
// still unanswered, and after "+OK start transmitting ..." every message is file data, whatever
// its first character. Stopping a feed sends "stop" and "quit"; data may still arrive before
// their replies, and a data message may even read exactly like them, so the two replies are only
// held back: they count as replies if the connection closes right after them, and as data if
// anything follows. After "stop" the daemon sends no more data, so nothing but its close can
// follow the real replies. With the extensions every data message carries its position line, so
// replies are never taken for data.
class FeedClient final {
 public:
  enum class Phase { kGreeting, kUser, kPass, kList, kStart, kStreaming, kClosing };
  // Why the daemon refused: the user, the password, or the file.
  enum class Refusal { kUser, kPassword, kFile };

  // What the dialogue asks of its connection and reports to its program.
  class Host {
   public:
    virtual ~Host() = default;
    // Frames and sends one command line.
    virtual void Send(const std::string& command) = 0;
    // A listed name arrived (the list is complete at OnListed).
    virtual void OnName() = 0;
    virtual void OnListed() = 0;
    // The daemon accepted the file; path is its full path as the daemon named it (cut after 4096
    // bytes).
    virtual void OnFollowing(const std::string& path) = 0;
    // File data as received, line ends "\r\n".
    virtual void OnData(const std::string& data) = 0;
    // A position line's note other than "continued" ("rotated", "truncated", "gone", or an
    // unknown word): the data before it ends with the old file.
    virtual void OnResumeNote(const std::string& note) = 0;
    // The daemon has neither backlog nor resume: the dialogue goes on with "start".
    virtual void OnExtensionsRefused() = 0;
    virtual void OnRefused(Refusal refusal, const std::string& reply) = 0;
    // A message that fits nowhere in the dialogue: the daemon broke the protocol.
    virtual void OnUnexpected(const std::string& message) = 0;
  };

  // What to ask for once logged in.
  struct Request {
    std::string user = feed::kDefaultUser;
    std::string password;
    // List the files instead of following one.
    bool list = false;
    std::string file;
    // Lines to send first (-1: none, as with "start"); a file that appeared after the client
    // began is followed from its first line as far as a backlog reaches.
    int backlog_lines = -1;
    // Resume after a lost connection: positions are wanted.
    bool retry = false;
    bool from_start = false;
  };

  // host is not owned and outlives the dialogue.
  FeedClient(Host& host, Request request) : host_(host), request_(std::move(request)) {}

  // Why the daemon can never take value as the argument of keyword ("start", "user", "pass"), or
  // "" when it can: the daemon removes the keyword, then leading white space and every "\r\n".
  static std::string ArgumentProblem(const std::string& keyword, const std::string& value);
  // The start of a data message after an extension.
  static bool IsFeedMessage(const std::string& message);

  // A new connection: the dialogue begins again at the greeting (the extensions that the daemon
  // refused stay off, the position stays for "resume").
  void Restart();
  // One message from the daemon.
  void Receive(const std::string& message);
  // The other way to read a feed, for a caller that sends the commands itself (a session's
  // client role): one "\r\n"-terminated line at a time. The first line is the greeting; after
  // it, lines beginning with "+" or "-" are replies and are dropped, and every other line goes to
  // OnData.
  void ReadLine(const std::string& line);
  // The greeting has come.
  bool HasGreeting() const { return phase_ != Phase::kGreeting; }
  // Sends "stop" (while a file is asked for or streams) and "quit".
  void Stop();
  // The replies to "stop"/"quit" arrived and only the close may follow.
  bool IsQuitAnswered() const { return quit_answered_; }
  bool IsStopping() const { return stop_sent_; }
  // Follows the file from its first line from now on: it appeared after the client began.
  void FollowFromStart() { request_.from_start = true; }

  Phase GetPhase() const { return phase_; }
  // The extensions are still to be used with this daemon.
  bool WantsExtension() const;
  // The position after the last data received ("DEV INO OFFSET"), empty before any.
  const std::string& GetPosition() const { return position_; }
  const std::vector<std::string>& GetNames() const { return names_; }
  void ClearNames() { names_.clear(); }

 private:
  std::string StartCommand() const;
  void OnReply(const std::string& message);
  void OnLoginReply(const std::string& message);
  void OnStarted(const std::string& message);
  void OnFeed(const std::string& message);
  void OnMessageWhileStopping(const std::string& message);
  void HoldOrData(const std::string& message);

  Host& host_;
  Request request_;
  Phase phase_ = Phase::kGreeting;
  std::vector<std::string> names_;
  bool stop_sent_ = false;
  std::vector<std::string> expected_;
  std::vector<std::string> held_;
  bool quit_answered_ = false;
  bool extensions_ = true;
  std::string position_;
};

#endif  // NORVANE_CLASSES_FEEDPROTOCOL_H_
