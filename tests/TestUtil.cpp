#include "TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace testutil {

TempDir::TempDir() {
  char pattern[] = "/tmp/norvane-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  if (made == nullptr) {
    ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    return;
  }
  path_ = made;
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& text, bool append) {
  std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  ASSERT_TRUE(out.good()) << "cannot write " << path;
  out << text;
  ASSERT_TRUE(out.good()) << "short write to " << path;
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

LoopbackListener::LoopbackListener() {
  fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd_ < 0) {
    ADD_FAILURE() << "socket: " << std::strerror(errno);
    return;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof(addr);
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::listen(fd_, 16) != 0 || ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    ADD_FAILURE() << "loopback listener: " << std::strerror(errno);
    return;
  }
  port_ = ntohs(addr.sin_port);
}

LoopbackListener::~LoopbackListener() {
  if (fd_ >= 0) ::close(fd_);
}

int FreePort() { return LoopbackListener().Port(); }

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::string& working_dir, const std::string& output_file) {
  std::vector<std::string> argv_text;
  argv_text.push_back(program);
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    if (!working_dir.empty() && ::chdir(working_dir.c_str()) != 0) _exit(126);
    if (!output_file.empty()) {
      const int fd = ::open(output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || ::dup2(fd, 1) < 0 || ::dup2(fd, 2) < 0) _exit(126);
      ::close(fd);
    }
    ::execv(program.c_str(), argv.data());
    _exit(127);
  }
  if (pid_ < 0) ADD_FAILURE() << "fork: " << std::strerror(errno);
}

ChildProcess::~ChildProcess() { Stop(); }

void ChildProcess::Signal(int sig) {
  if (pid_ > 0 && !reaped_) ::kill(pid_, sig);
}

bool ChildProcess::WaitExit(std::chrono::milliseconds timeout, int* status) {
  if (pid_ <= 0 || reaped_) return reaped_;
  int st = 0;
  const bool ended = WaitUntil(
      [&] {
        const pid_t r = ::waitpid(pid_, &st, WNOHANG);
        return r == pid_;
      },
      timeout);
  if (ended) {
    reaped_ = true;
    if (status != nullptr) *status = st;
  }
  return ended;
}

void ChildProcess::Stop() {
  if (pid_ <= 0 || reaped_) return;
  ::kill(pid_, SIGKILL);
  int st = 0;
  ::waitpid(pid_, &st, 0);
  reaped_ = true;
}

}  // namespace testutil
