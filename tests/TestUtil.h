// Helpers shared by the test suites: temporary directories, bounded waits, loopback listeners,
// child processes stopped by pid, a capture of the process's log, one peer that speaks the framed
// feed protocol, and one fixture for the real norvaned started as an operator starts it.
#ifndef NORVANE_TESTS_TESTUTIL_H_
#define NORVANE_TESTS_TESTUTIL_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FWFeedCodec.h"

namespace testutil {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A fresh directory under /tmp, removed with everything in it by the destructor.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  // Path() + "/" + name.
  std::string File(const std::string& name) const;

 private:
  std::string path_;
};

// Reads a whole file; "" when it cannot be read.
std::string ReadFile(const std::string& path);
// Writes (or with append, appends) text to a file; fails the test when it cannot.
void WriteFile(const std::string& path, const std::string& text, bool append = false);
bool FileExists(const std::string& path);
// The lines of text (without their "\n"), each without its first skip bytes.
std::vector<std::string> Lines(const std::string& text, std::size_t skip = 0);
// How often what occurs in text.
std::size_t Count(const std::string& text, const std::string& what);

// Polls pred every few milliseconds until it holds or the timeout runs out; returns its last
// value.
bool WaitUntil(const std::function<bool()>& pred, milliseconds timeout = seconds(10));

// A TCP listener on 127.0.0.1 with a port chosen by the system; closed by the destructor.
class LoopbackListener {
 public:
  LoopbackListener();
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  int Fd() const { return fd_; }
  int Port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// A TCP port on 127.0.0.1 that nothing listens on right now: the system picks it for a listener
// that is closed again at once.
int FreePort();

// A child process started with execvp (a program named without a slash is looked up in the
// PATH of its environment). The destructor sends SIGKILL to its pid and reaps it, unless it has
// already been reaped.
class ChildProcess {
 public:
  struct Setup {
    std::string working_dir = "";  // "" keeps the test's
    std::string out_file = "";     // standard output (and error, unless err_file is set) goes here
    std::string err_file = "";
    std::string terminal = "";  // a pseudo-terminal's name: standard output goes there instead
    // Environment changes; an empty value removes the variable.
    std::vector<std::pair<std::string, std::string>> environment = {};
  };
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const Setup& setup);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return pid_; }
  // Sends a signal to the child's pid.
  void Signal(int sig);
  // Waits (bounded) for the child to end: its exit code, 128 + the signal that ended it, or -1
  // when it did not end in time.
  int Wait(milliseconds timeout = seconds(20));

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// Collects what the process's LogStream logs for the life of the object.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The entries logged so far, without their 23-byte time stamps.
  std::vector<std::string> Lines() const;
};

// One end of a feed connection played by the test, speaking the framed protocol on 127.0.0.1.
// As a client it connects to a daemon; as a daemon it listens on a port of its own and accepts
// one client. Every wait is bounded.
class FeedPeer {
 public:
  // The daemon side: listens; Accept() takes the client.
  FeedPeer();
  // A client of the daemon listening on port, connecting from source (127.0.0.2 stands in for a
  // remote host), with SO_RCVBUF and TCP_MAXSEG (as small as over some networks) when > 0.
  explicit FeedPeer(int port, const char* source = "127.0.0.1", int receive_buffer = 0,
                    int max_segment = 0);
  ~FeedPeer();
  FeedPeer(const FeedPeer&) = delete;
  FeedPeer& operator=(const FeedPeer&) = delete;

  int Port() const { return port_; }
  bool Connected() const { return fd_ >= 0; }
  bool Accept();
  // Sends one message in one frame.
  void Send(const std::string& message);
  // The next message; "<closed>" when the other end closed, "<timeout>" when nothing whole
  // arrived in time (with a timeout of 0: from what has arrived), "<bad frame>" for anything
  // that is not a frame.
  std::string Receive(milliseconds timeout = seconds(10));
  // Raw bytes, for peers of sessions that do not frame: sends all of them; receives what comes
  // within the timeout, up to size bytes. Closed() tells when the other end has closed.
  void SendRaw(const std::string& bytes);
  std::string ReceiveRaw(std::size_t size, milliseconds timeout = seconds(10));
  bool Closed() const { return closed_; }
  // Closes with a zero linger time: the other end gets a reset.
  void Reset();
  // As a client: greeting, user and password; the last reply.
  std::string Login(const std::string& password, const std::string& user = "logwatcher");
  void Close();

 private:
  std::unique_ptr<LoopbackListener> listener_;
  int fd_ = -1;
  int port_ = 0;
  bool closed_ = false;
  FWFeedCodec codec_;
};

// The real norvaned, as an operator runs it: copied into a directory of its own (Home) with its
// configuration beside it, started through its path from another directory, watched through its
// pid file, its log and its port, and stopped with a signal. The test process becomes a child
// subreaper, so that it inherits the detached daemon and reaps it by pid; the destructor kills
// a daemon still running.
class Daemon {
 public:
  Daemon();
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const TempDir& Home() const { return home_; }
  const TempDir& Elsewhere() const { return elsewhere_; }  // the directory it is started from
  const TempDir& Logs() const { return logs_; }            // its DocumentRoot
  std::string Binary() const { return home_.File("norvaned"); }
  std::string Config() const { return home_.File("Norvane.cf"); }
  int Port() const { return port_; }
  pid_t Pid() const { return pid_; }

  // A configuration, only for its owner to read, with one monitoring port on 127.0.0.1:Port()
  // serving Logs(), plus further keys of the root and of the port.
  void WriteConfig(const std::string& root_keys = "", const std::string& port_keys = "");
  // Runs the binary by its absolute path from Elsewhere(), through a wrapper command if one is
  // given, until the started process returns (a daemon that detaches returns at once): its exit
  // code, and its standard output and error in *output.
  int Run(const std::vector<std::string>& args, std::string* output = nullptr,
          std::vector<std::string> wrapper = {});
  // Starts the daemon, which must detach with status 0, and waits for its pid file (written once
  // every port listens); what it printed before detaching is in *output.
  void Start(std::string* output = nullptr, const std::vector<std::string>& wrapper = {});
  // Sends sig and waits (bounded) for the end: as ChildProcess::Wait.
  int Stop(int sig);

  std::string Log() const { return ReadFile(home_.File("Norvane.log")); }
  // The log's entries without their time stamps.
  std::vector<std::string> LogLines() const { return Lines(Log(), 23); }
  std::size_t CountInLog(const std::string& text) const { return Count(Log(), text); }
  bool WaitForLog(const std::string& text, milliseconds timeout = seconds(15)) const;

 private:
  TempDir home_;
  TempDir elsewhere_;
  TempDir logs_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace testutil

#endif  // NORVANE_TESTS_TESTUTIL_H_
