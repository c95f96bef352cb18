// Helpers shared by the test suites: a temporary directory per test, bounded waits, loopback
// listeners and child processes stopped by pid.
#ifndef NORVANE_TESTS_TESTUTIL_H_
#define NORVANE_TESTS_TESTUTIL_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace testutil {

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

// Polls pred every few milliseconds until it holds or the timeout runs out; returns its last
// value.
bool WaitUntil(const std::function<bool()>& pred,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

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

// A child process started with execv. Stop() (and the destructor) sends SIGKILL to its pid and
// reaps it, unless it has already been reaped.
class ChildProcess {
 public:
  // With an output file, the child's standard output and error are written to it.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::string& working_dir = "", const std::string& output_file = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return pid_; }
  // Sends a signal to the child's pid.
  void Signal(int sig);
  // Waits at most timeout for the child to end; true with its wait status when it did.
  bool WaitExit(std::chrono::milliseconds timeout, int* status);
  void Stop();

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

}  // namespace testutil

#endif  // NORVANE_TESTS_TESTUTIL_H_
