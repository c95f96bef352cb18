// The client side of the log feed, as the command-line tool `norvane` uses it: logs in to one or
// more norvaned daemons, lists the files they offer or follows files and writes what arrives.
//
// Exit codes of the tool (NorvaneClient::Run returns them):
//   0 done (list printed; tail stopped by the user or because standard output was closed)
//   1 standard output could not be written
//   2 usage error
//   3 connection refused, lost or not made in time, or host not found
//   4 login refused (user or password)
//   5 file not offered by the daemon ("-ERR invalid logfile name"), or a name it cannot be asked,
//     or a FILE pattern that matches none of the daemon's files
//   6 daemon stopped answering (no reply within the time-out, or keepalive probes unanswered)
//   7 the daemon broke the protocol (unexpected reply, corrupt frame)
#ifndef NORVANE_TOOLS_NORVANECLIENT_H_
#define NORVANE_TOOLS_NORVANECLIENT_H_

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FeedProtocol.h"

// Runs every connection in one thread over poll(). The first failure of any connection ends the
// whole run: its message is written, the other daemons get "quit", and its exit code is returned.
// With Options::retry a lost or unanswering connection is no failure: it is reported and made
// again.
// Not thread-safe; one Run per object.
class NorvaneClient final {
 public:
  static constexpr int kExitOk = 0;
  static constexpr int kExitOutput = 1;
  static constexpr int kExitUsage = 2;
  static constexpr int kExitConnection = 3;
  static constexpr int kExitLogin = 4;
  static constexpr int kExitNotOffered = 5;
  static constexpr int kExitNoAnswer = 6;
  static constexpr int kExitProtocol = 7;

  static constexpr const char* kDefaultHost = "127.0.0.1";
  static constexpr int kDefaultPort = feed::kDefaultPort;
  static constexpr const char* kDefaultUser = feed::kDefaultUser;
  static constexpr int kDefaultTimeoutSeconds = 10;
  static constexpr int kDefaultKeepaliveSeconds = 60;

  enum class Mode { kList, kTail };

  // One daemon, and for tail one file on it (empty for list).
  struct Target {
    std::string host;
    int port = kDefaultPort;
    std::string file;
  };

  // Receives what a tail run delivers, for a program that shows it elsewhere than on the output
  // descriptors (norvane web). Called on the thread of Run.
  class Listener {
   public:
    enum class State { kFollowing, kNotice, kReconnecting, kEnded };
    virtual ~Listener() = default;
    // Data of a source with "\n" line ends, never escaped. end: the source's unfinished last line
    // ends here (the source ended, or its file was replaced).
    virtual void OnData(const Target& source, const std::string& text, bool end) = 0;
    // A source's state, or a notice about it; text is what the error output says after
    // "norvane: SOURCE: ". A pattern's source reports its listing ("3 files match").
    virtual void OnState(const Target& source, State state, const std::string& text) = 0;
  };

  struct Options {
    std::string user = kDefaultUser;
    std::string password;
    // Longest wait for a connection, for each reply, and for the daemon to close after "quit".
    int timeout_seconds = kDefaultTimeoutSeconds;
    // Idle time before TCP keepalive probes start on a connection; 0 turns them off.
    int keepalive_seconds = kDefaultKeepaliveSeconds;
    // Write "\r\n" as received instead of "\n".
    bool keep_crlf = false;
    // Leave out the notice on the error output that a file is being followed.
    bool quiet = false;
    // Tail: write the last this many lines of each file first (-1: none, as the original
    // protocol does). Needs the daemon's backlog extension; without it a warning is written and
    // only new lines follow.
    int backlog_lines = -1;
    // Tail: after a lost connection or an unanswering daemon, connect again (after 1 s, doubling
    // up to 30 s) and resume where the feed stopped (needs the daemon's resume extension).
    bool retry = false;
    // Show the control characters of data and names escaped (for a terminal; see Escape).
    bool escape = false;
    // Colour each source's prefix (for a terminal).
    bool colour = false;
    // Tail: receives the data instead of the output descriptor, and every change of state (not
    // owned; it must outlive Run). The error output still gets every message.
    Listener* listener = nullptr;
  };

  static constexpr int kMaxBacklogLines = static_cast<int>(feed::kMaxBacklogLines);
  static constexpr int kFirstRetrySeconds = 1;
  static constexpr int kLastRetrySeconds = 30;
  // With retry, a FILE pattern's daemon is asked for its list again this long after the last.
  static constexpr int kRelistSeconds = 8;

  // Parses a tail argument "[HOST:PORT/]FILE". The part before the first "/" is a daemon only
  // when it holds a ":" (HOST or PORT may be empty there: the defaults fill in); otherwise the
  // whole text is a file on the default daemon. False with *error set on a bad argument.
  static bool ParseTailTarget(const std::string& text, const Target& defaults, Target* target,
                              std::string* error);
  // Parses a list argument "HOST[:PORT]" (an empty HOST or PORT takes the default).
  static bool ParseDaemon(const std::string& text, const Target& defaults, Target* target,
                          std::string* error);
  // Parses a port number 1..65535.
  static bool ParsePort(const std::string& text, int* port);
  // text with every control character but tab (and "\n" and "\r\n" when keep_line_ends) shown
  // as \xHH: C0 controls, DEL, and the C1 controls U+0080..U+009F in their UTF-8 form.
  static std::string Escape(const std::string& text, bool keep_line_ends);
  // A tail FILE holding "*", "?" or "[" is a pattern matched against the daemon's list.
  static bool IsPattern(const std::string& file);
  // The source prefix of a tail line: "host:port/file: ".
  static std::string Label(const Target& target);

  // out_fd and err_fd are not owned and must stay open during Run.
  NorvaneClient(Mode mode, std::vector<Target> targets, Options options, int out_fd, int err_fd);
  ~NorvaneClient();
  NorvaneClient(const NorvaneClient&) = delete;
  NorvaneClient& operator=(const NorvaneClient&) = delete;

  // Connects to every target and runs until all connections have ended; returns the exit code.
  // stop_fd (not owned; -1 for none) becoming readable asks for a clean stop: its bytes are
  // drained, every daemon gets "quit" and the run ends when they have closed. A second stop
  // request ends the run without waiting.
  int Run(int stop_fd);

 private:
  class Feed;
  // A tail FILE pattern: the feed that lists its daemon, and the names already followed.
  struct Pattern {
    Feed* lister;
    std::set<std::string> followed;
    bool listed_once;
  };

  void StartAll();
  // One poll() over the stop descriptor and every open connection; false when nothing is left.
  bool PollOnce(int stop_fd);
  int PollTimeoutMs() const;
  void DrainStop(int stop_fd);
  void RequestStop();
  void HandleFailures();
  void ExpandPatterns();
  void PrintList();
  void WriteOut(const std::string& text);
  void WriteErr(const std::string& text) const;

  const Mode mode_;
  const Options options_;
  const int out_fd_;
  const int err_fd_;
  std::vector<std::unique_ptr<Feed>> feeds_;
  std::vector<Pattern> patterns_;
  bool stopping_ = false;
  bool abandon_ = false;
  bool out_failed_ = false;
  // The first failure decides the exit code; output errors count as failures too.
  int first_failure_ = kExitOk;
};

#endif  // NORVANE_TOOLS_NORVANECLIENT_H_
