// One connection of the log feed: a transport (the session's socket, its send queue and the frame
// codec) carrying the feed protocol (FeedServer, FeedClient) and linked to the shared feed of the
// file it follows. In the server role (opened on a listening socket) it greets the client and
// hands each command line to the protocol, which answers and asks the session to list, open,
// follow and stop files (see LogFeed: the file is watched, and polled once a second). In the
// client role (opened without a socket) it connects to the port's OutgoingServer:OutgoingPort,
// sends commands with SendCommand and collects the data lines of the other end's feed. Every
// message in either direction is one frame of the feed codec.
#ifndef NORVANE_CLASSES_MONITORINGSESSION_H_
#define NORVANE_CLASSES_MONITORINGSESSION_H_

#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FWFeedCodec.h"
#include "FeedProtocol.h"
#include "LogFeed.h"
#include "LogTail.h"
#include "ProxySession.h"
#include "SessionContext.h"

class MonitoringPort;

// Main thread only (the service loop); holds no lock.
//
// Input from a client is bounded: a frame longer than 1 MiB, a message inflating past 1 MiB, or
// more than feed::kLineLimit of command text without "\r\n" is logged ("frame too large",
// "message too large", "line too long") and ends the session, as does a frame without its sync
// marker ("lost sync reading from server"). A zlib failure throws FWEOperationFailed out of
// QueueOutgoing / QueueIncoming; the loop then ends the session. Before login the protocol's
// smaller bounds apply (feed::kPreLoginFrameLimit, ...).
//
// Back-pressure: while more than the protocol's pending limit of replies wait to be sent to the
// client (feed::kMaxPendingBytes after login), the session neither polls its log file nor reads
// or handles further commands; both resume once the client has read enough (commands already
// received are taken up again by CheckActive).
class MonitoringSession final : public ProxySession {
 public:
  // Client states.
  static constexpr int kGreetingSeen = 2;
  static constexpr int kAwaitingGreeting = 3;

  // The port supplies the settings and is not owned; it must outlive the session. The context's
  // login guard and feeds belong to the loop, which outlives the session too.
  MonitoringSession(int number, MonitoringPort* port, const SessionContext& context);
  // Leaves the shared feed of its file, if any.
  ~MonitoringSession() override;

  // Non-zero listening socket: server role (accepts, greets; the log files are collected at the
  // first "list" or "start" after login). Zero: client role (connects to the port's outgoing
  // server; a failed connect closes the session). OpenIncoming's FWESocketError propagates to
  // the port.
  void Open(int listening) override;
  // ProxySession::Close, then empties the texts and frame buffers and ClearData().
  void Close() override;
  // While open: closes a session not logged in within feed::kLoginTimeoutSeconds, takes up
  // commands held back by back-pressure, then, while transmitting from its own reader and not
  // held back, polls the log file and sends its new data as replies of at most
  // feed::kMaxReplyBytes of text each. With the shared feeds, a session reads on its own only
  // until it is in step with the feed of its file (at start, and after it fell behind); the
  // feed's polls send it the data meanwhile.
  void CheckActive() override;
  std::size_t GetMemoryRequired() const override { return 0; }
  // Command lines wait beyond one pass's share, or the session reads on its own and its file has
  // more data than one poll takes; either way the client keeps up.
  bool IsBehind() const override;
  // True while the client socket is open, the replies to it are not held back and no command
  // lines wait.
  bool ReadyToReceiveIncoming() override;
  bool ReadyToReceiveOutgoing() override { return GetOutgoingSocket() != 0; }
  // True after "quit" (or after too many failures before login).
  bool Finished() override { return server_ && server_->IsFinished(); }
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
  // Client role: awaiting the greeting, or greeting seen; 0 in the server role.
  int GetClientState() const;
  // FeedServer's state (awaiting login, logged in, quitting); 0 in the client role.
  int GetServerState() const { return server_ ? server_->GetState() : 0; }
  bool IsTransmitting() const { return server_ && server_->IsTransmitting(); }

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

  // Server role: takes frames and hands their lines to the protocol until the input runs out,
  // the session ends, or back-pressure holds it back.
  void ServeCommands();
  // The replies waiting for the client are past the bound: no command is taken, no file read.
  bool HeldBack() const;

  // What the dialogue asks of the session, through its link (ServerLink).
  void LoggedIn();
  const std::vector<std::string>& LogFiles();
  int OpenFile(const std::string& name);
  void FollowBacklog(std::size_t lines);
  void FollowResumed(const feed::Position& from);
  // Ends the transmission: leaves the shared feed and closes the own reader.
  void StopFile();
  // Follows the port's shared feed of the file, when the loop has shared feeds.
  void JoinFeed();
  // Sends what the own reader read; with positions, as one message behind its position line
  // (note ends that line), also when data is empty.
  void SendData(const std::string& data, bool positions, const std::string& note = "");
  void QueueFrames(const std::vector<FWSharedBytes>& frames);

  // Logs the failure of a codec result under the session prefix and closes the session.
  void Fail(FWFeedCodec::Result result);

  MonitoringPort* const monitoring_port_;
  const SessionContext context_;
  // The dialogue's views of the session, and the dialogue of the server role and the reading of
  // the client role; each empty in the other role, before Open and after an accept that gave no
  // socket. The views are objects of their own, made only for a session with a socket: the
  // sanitizer's first check of a polymorphic type needs a spare descriptor, and a session may be
  // made and ended when none is left.
  class ServerLink;
  class ClientLink;
  std::unique_ptr<ServerLink> server_link_;
  std::unique_ptr<ClientLink> client_link_;
  std::optional<FeedServer> server_;
  std::optional<FeedClient> client_;
  std::string received_text_;
  // Frames read from the client (server role, server limits) and from the server (client role,
  // client limits). Each holds the keyed cipher and the bytes of an incomplete frame.
  FWFeedCodec client_frames_;
  FWFeedCodec server_frames_;
  // Server role: deciphered, inflated text from the client not yet split into lines.
  LineBuffer command_text_;
  // Client role: the same for the server's replies.
  LineBuffer reply_text_;
  // The followed file under DocumentRoot.
  std::string file_name_;
  // The file's reader while the session is not in step with a shared feed (always, without one).
  std::unique_ptr<LogTail> own_tail_;
  // The session as its feed sees it. Made only when the session joins a feed, which it does with
  // a descriptor in hand: the sanitizer's first check of a polymorphic type needs one, and a
  // session may be made and ended when none is left.
  class FeedLink;
  std::unique_ptr<FeedLink> link_;
  // The shared feed of the followed file; null when none. It belongs to context_.log_feeds.
  LogFeed* feed_ = nullptr;
  std::vector<std::string> log_files_;
  bool log_files_collected_ = false;
  // Lines beyond one pass's share wait in the command text (see feed::kLinesPerPass).
  bool commands_waiting_ = false;
  // Commands were served by a read since the last CheckActive: one pass serves them only once.
  bool commands_served_ = false;
};

#endif  // NORVANE_CLASSES_MONITORINGSESSION_H_
