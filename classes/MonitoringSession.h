// One connection of the log feed. In the server role (opened on a listening socket) it greets the
// client, lets it log in with the port's User and Password, lists the log files found under the
// port's DocumentRoot, and after "start" sends what is appended to the chosen file as it is
// written (see LogFeed: the file is watched, and polled once a second). In the client role (opened
// without a socket) it connects to the port's OutgoingServer:OutgoingPort, sends commands with
// SendCommand and collects the data lines of the other end's feed. Every message in either
// direction is one frame of the feed codec.
#ifndef NORVANE_CLASSES_MONITORINGSESSION_H_
#define NORVANE_CLASSES_MONITORINGSESSION_H_

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "FWFeedCodec.h"
#include "LogFeed.h"
#include "LogTail.h"
#include "ProxySession.h"
#include "SessionContext.h"

class LoginGuard;
class MonitoringPort;

// Main thread only (the session manager's loop); holds no lock.
//
// Input from a client is bounded: a frame longer than 1 MiB, a message inflating past 1 MiB, or
// more than 64 KiB of command text without "\r\n" is logged ("frame too large", "message too
// large", "line too long") and ends the session, as does a frame without its sync marker ("lost
// sync reading from server"). A zlib failure throws FWEOperationFailed out of QueueOutgoing /
// QueueIncoming; the loop then ends the session.
//
// Extensions (commands a client of the original protocol never sends, so it sees no change):
//   backlog N NAME               follow NAME after sending its last N lines (N <= 10000, at most
//                                4 MiB of them)
//   resume DEV INO OFFSET NAME   follow NAME from OFFSET when it is still that file (device and
//                                inode) and not shorter; otherwise from what exists
// Both answer as "start" does ("+OK start transmitting PATH\r\n", "-ERR invalid logfile
// name\r\n"; "-ERR bad arguments\r\n" for malformed numbers). After an accepted one, each poll's
// data is one message (not cut into 1 MiB replies) that begins with a position line,
// "+FEED DEV INO OFFSET\r\n", giving the file and the offset of the next byte after the data.
// The first such message follows the reply at once (with the backlog, if any); after resume its
// line ends in " continued", " rotated", " truncated" or " gone".
//
// Back-pressure: while more than LogTail::kMaxPendingBytes (8 MiB) of replies wait to be sent to
// the client, the session neither polls its log file nor reads or handles further commands; both
// resume once the client has read enough (commands already received are taken up again by
// CheckActive).
//
// Before login a client gets less: frames and messages of at most kPreLoginFrameLimit bytes,
// kPreLoginPendingBytes of unsent replies, kInvalidCommandLimit invalid commands answered (then
// the session ends), kLoginTimeoutSeconds to log in, and kPasswordFailureLimit wrong passwords.
// A port with the built-in default password admits logins from loopback only. The log files are
// collected at the first "list" or "start" after login. Failed logins, refused names, "start",
// "stop" and the end of the session are logged with the client's address (never a password).
class MonitoringSession final : public ProxySession {
 public:
  // Server states.
  static constexpr int kAwaitingLogin = 1;
  static constexpr int kLoggedIn = 2;
  static constexpr int kQuitting = 4;
  // Client states.
  static constexpr int kGreetingSeen = 2;
  static constexpr int kAwaitingGreeting = 3;

  // The most command text held without "\r\n".
  static constexpr std::size_t kLineLimit = 64 * 1024;
  // The limits before login.
  static constexpr std::size_t kPreLoginFrameLimit = 4 * 1024;
  static constexpr std::size_t kPreLoginPendingBytes = 64 * 1024;
  static constexpr int kInvalidCommandLimit = 10;
  static constexpr std::time_t kLoginTimeoutSeconds = 30;
  static constexpr int kPasswordFailureLimit = 3;
  // At most this many command lines are handled in one pass; the rest wait for the next, so that
  // one frame of many lines cannot hold the loop from the other sessions.
  static constexpr int kLinesPerPass = 1000;

  // The port supplies the settings and is not owned; it must outlive the session.
  MonitoringSession(int number, MonitoringPort* port, const SessionContext& context);
  // Leaves the shared feed of its file, if any.
  ~MonitoringSession() override;

  // Non-zero listening socket: server role (accepts, greets, collects the log files). Zero:
  // client role (connects to the port's outgoing server; a failed connect closes the session).
  // OpenIncoming's FWESocketError propagates to the port.
  void Open(int listening) override;
  // ProxySession::Close, then empties the texts and frame buffers and ClearData().
  void Close() override;
  // While open: closes a session not logged in within kLoginTimeoutSeconds, takes up commands
  // held back by back-pressure, then, while transmitting from its own reader and not held back,
  // polls the log file and sends its new data as replies of at most LogTail::kMaxReplyBytes
  // (1 MiB) of text each. With the port's shared feeds, a session reads on its own only until it
  // is in step with the feed of its file (at start, and after it fell behind); the feed's polls
  // send it the data meanwhile.
  void CheckActive() override;
  std::size_t GetMemoryRequired() const override { return 0; }
  // Command lines wait beyond one pass's share, or the session reads on its own and its file has
  // more data than one poll takes; either way the client keeps up.
  bool IsBehind() const override;
  // True while the client socket is open, the replies to it are not held back and no command
  // lines wait.
  bool ReadyToReceiveIncoming() override;
  bool ReadyToReceiveOutgoing() override { return GetOutgoingSocket() != 0; }
  // True after "quit".
  bool Finished() override { return server_state_ == kQuitting; }
  // Client role: the server's frames. The flag is not used.
  void QueueIncoming(const std::string& data, bool flag) override;
  // Server role: the client's frames.
  void QueueOutgoing(const std::string& data) override;

  // Frames text towards the client (server role).
  void SendReply(const std::string& text);
  // Frames text towards the server (client role): "user name\r\n", "list\r\n", ...
  void SendCommand(const std::string& text);
  // Empties the received text, the log file list and the current file; stops transmitting.
  void ClearData();

  // The shared feed the session follows; null when it follows none.
  const LogFeed* GetFeed() const { return feed_; }
  // The session's own reader of its file while it is not in step with a shared feed; null while
  // it is, or when no file is transmitted.
  const LogTail* GetOwnTail() const { return own_tail_.get(); }

  // Client role: the data lines received so far, each with its "\r\n".
  const std::string& GetReceivedText() const { return received_text_; }
  // Names relative to DocumentRoot, sorted by byte value; collected once, at the first "list" or
  // "start" after login.
  const std::vector<std::string>& GetLogFiles() const { return log_files_; }
  int GetClientState() const { return client_state_; }
  int GetServerState() const { return server_state_; }
  bool IsTransmitting() const { return transmitting_; }

 private:
  // Received text not yet split into lines. Lines are cut off the front without moving the rest,
  // so a message of many short lines costs linear time.
  class LineBuffer {
   public:
    void Append(const std::string& text);
    // Cuts the next "\r\n"-terminated line (with its "\r\n") into *line; false when there is
    // none. A line ended by a bare "\n" waits for a "\r\n".
    bool CutLine(std::string* line);
    std::size_t GetPendingSize() const { return text_.size() - pos_; }
    void Clear();

   private:
    std::string text_;
    std::size_t pos_ = 0;
  };

  void OpenServer(int listening);
  void OpenClient();
  void CollectLogfilesOnce();
  // The time of the loop's current pass (time() without a login guard).
  std::time_t Now() const;
  LoginGuard* Guard() const;

  // Server role: takes frames and handles their lines until the input runs out, the session
  // ends, or back-pressure holds it back.
  void ServeCommands();
  // The replies waiting for the client are past the bound: no command is taken, no file read.
  bool HeldBack() const;
  void HandleCommand(const std::string& line);
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
  // Stops any transmission, then looks name up and starts reading it from its end. Replies as
  // "start" does; false when refused.
  bool BeginFile(const std::string& name);
  // After BeginFile (and the first message of an extension): follows the port's shared feed of
  // the file, when the port has shared feeds.
  void JoinFeed();
  // Ends the transmission: leaves the shared feed and closes the own reader.
  void StopFile();
  // Sends what the own reader read; with positions, as one message behind its position line
  // (note ends that line), also when data is empty.
  void SendData(const std::string& data, bool positions, const std::string& note = "");
  void QueueFrames(const std::vector<FWSharedBytes>& frames);
  void HandleList();

  // Client role.
  void HandleReply(const std::string& line);

  // Logs the failure of a codec result under the session prefix and closes the session.
  void Fail(FWFeedCodec::Result result);

  MonitoringPort* const monitoring_port_;
  std::string received_text_;
  // Frames read from the client (server role, server limits) and from the server (client role,
  // client limits). Each holds the keyed cipher and the bytes of an incomplete frame.
  FWFeedCodec client_frames_;
  FWFeedCodec server_frames_;
  // Server role: deciphered, inflated text from the client not yet split into lines.
  LineBuffer command_text_;
  // Client role: the same for the server's replies.
  LineBuffer reply_text_;
  std::string current_file_;
  // The followed file under DocumentRoot.
  std::string file_name_;
  // The file's reader while the session is not in step with a shared feed (always, without one).
  std::unique_ptr<LogTail> own_tail_;
  // The session as its feed sees it. Made only when the session joins a feed, which it does with
  // a descriptor in hand: the sanitizer's first check of a polymorphic type needs one, and a
  // session may be made and ended when none is left.
  class FeedLink;
  std::unique_ptr<FeedLink> link_;
  // The shared feed of the followed file, and the port's feeds it belongs to (which outlive the
  // session); null when none.
  LogFeed* feed_ = nullptr;
  LogFeeds* feeds_ = nullptr;
  std::time_t last_start_time_ = 0;
  int client_state_ = 0;
  int server_state_ = 0;
  bool transmitting_ = false;
  // The transmission was begun by an extension: data messages carry their position line.
  bool extended_ = false;
  std::vector<std::string> log_files_;
  bool log_files_collected_ = false;
  bool user_accepted_ = false;
  int invalid_commands_ = 0;
  // Lines beyond one pass's share wait in the command text (see kLinesPerPass).
  bool commands_waiting_ = false;
  // Commands were served by a read since the last CheckActive: one pass serves them only once.
  bool commands_served_ = false;
  int password_failures_ = 0;
  std::time_t login_deadline_ = 0;
  // The guard and feeds lent by the loop that opened the session.
  SessionContext context_;
};

#endif  // NORVANE_CLASSES_MONITORINGSESSION_H_
