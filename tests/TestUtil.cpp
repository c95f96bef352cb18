#include "TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "FWLogStream.h"

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

std::vector<std::string> Lines(const std::string& text, std::size_t skip) {
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(end - start > skip ? text.substr(start + skip, end - start - skip) : "");
  }
  return lines;
}

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

bool WaitUntil(const std::function<bool()>& pred, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return pred();
    std::this_thread::sleep_for(milliseconds(5));
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

namespace {

// Waits (bounded) for a child process to end: as ChildProcess::Wait.
int WaitForExit(pid_t pid, milliseconds timeout) {
  int status = 0;
  if (!WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Whether fd becomes readable before the deadline.
bool ReadableBy(int fd, std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, static_cast<int>(std::max<long long>(0, left.count()))) == 1;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const Setup& setup) {
  std::vector<std::string> argv_text = {program};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    if (!setup.working_dir.empty() && ::chdir(setup.working_dir.c_str()) != 0) _exit(126);
    const auto redirect = [](const std::string& file, int target, int flags) {
      if (file.empty()) return;
      const int fd = ::open(file.c_str(), flags, 0600);
      if (fd < 0 || ::dup2(fd, target) < 0) _exit(126);
      ::close(fd);
    };
    redirect("/dev/null", 0, O_RDONLY);
    redirect(setup.out_file, 1, O_WRONLY | O_CREAT | O_TRUNC);
    if (setup.err_file.empty() && !setup.out_file.empty() && ::dup2(1, 2) < 0) _exit(126);
    redirect(setup.err_file, 2, O_WRONLY | O_CREAT | O_TRUNC);
    redirect(setup.terminal, 1, O_RDWR);
    for (const auto& [name, value] : setup.environment) {
      value.empty() ? ::unsetenv(name.c_str()) : ::setenv(name.c_str(), value.c_str(), 1);
    }
    ::execvp(program.c_str(), argv.data());
    _exit(127);
  }
  if (pid_ < 0) ADD_FAILURE() << "fork: " << std::strerror(errno);
}

ChildProcess::~ChildProcess() {
  if (pid_ <= 0 || reaped_) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void ChildProcess::Signal(int sig) {
  if (pid_ > 0 && !reaped_) ::kill(pid_, sig);
}

int ChildProcess::Wait(milliseconds timeout) {
  if (pid_ <= 0 || reaped_) return -1;
  const int code = WaitForExit(pid_, timeout);
  reaped_ = code != -1;
  return code;
}

LogCapture::LogCapture() {
  LogStream.ClearLogBuffer();
  LogStream.SetBufferLimit(1 << 20);
}

LogCapture::~LogCapture() {
  LogStream.SetBufferLimit(0);
  LogStream.ClearLogBuffer();
}

std::vector<std::string> LogCapture::Lines() const {
  return testutil::Lines(LogStream.GetLogBuffer(), 23);
}

FeedPeer::FeedPeer()
    : listener_(std::make_unique<LoopbackListener>()),
      port_(listener_->Port()),
      codec_(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit) {}

FeedPeer::FeedPeer(int port, const char* source, int receive_buffer, int max_segment)
    : port_(port), codec_(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit) {
  fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, source, &address.sin_addr);
  ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  if (receive_buffer > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(int));
  if (max_segment > 0) ::setsockopt(fd_, IPPROTO_TCP, TCP_MAXSEG, &max_segment, sizeof(int));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) Close();
}

FeedPeer::~FeedPeer() { Close(); }

bool FeedPeer::Accept() {
  if (!ReadableBy(listener_->Fd(), std::chrono::steady_clock::now() + seconds(15))) return false;
  fd_ = ::accept(listener_->Fd(), nullptr, nullptr);
  return fd_ >= 0;
}

void FeedPeer::Send(const std::string& message) { SendRaw(codec_.Frame(message)); }

void FeedPeer::SendRaw(const std::string& bytes) {
  ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

std::string FeedPeer::ReceiveRaw(std::size_t size, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string data;
  char buffer[65536];
  while (data.size() < size && ReadableBy(fd_, deadline)) {
    const ssize_t got = ::recv(fd_, buffer, std::min(sizeof(buffer), size - data.size()), 0);
    if (got <= 0) {
      closed_ = true;
      break;
    }
    data.append(buffer, static_cast<std::size_t>(got));
  }
  return data;
}

void FeedPeer::Reset() {
  const linger reset{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  Close();
}

std::string FeedPeer::Receive(milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string message;
  for (;;) {
    const FWFeedCodec::Result result = codec_.Next(&message);
    if (result == FWFeedCodec::Result::kMessage) return message;
    if (result != FWFeedCodec::Result::kNeedMore) return "<bad frame>";
    if (!ReadableBy(fd_, deadline)) return "<timeout>";
    char buffer[65536];
    const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (got <= 0) {
      closed_ = true;
      return "<closed>";
    }
    codec_.Append(std::string_view(buffer, static_cast<std::size_t>(got)));
  }
}

std::string FeedPeer::Login(const std::string& password, const std::string& user) {
  Receive();
  Send("user " + user + "\r\n");
  Receive();
  Send("pass " + password + "\r\n");
  return Receive();
}

void FeedPeer::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

Daemon::Daemon() {
  EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  std::filesystem::copy_file(NORVANED_BINARY, Binary());
  port_ = FreePort();
}

Daemon::~Daemon() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

void Daemon::WriteConfig(const std::string& root_keys, const std::string& port_keys) {
  WriteFile(Config(), "");
  ASSERT_EQ(::chmod(Config().c_str(), 0600), 0);
  WriteFile(Config(), "FileVersion=1.0\n[SessionManager]\n" + root_keys +
                          "[SessionManager\\Ports\\MonitoringPort]\nIncomingServer=127.0.0.1\n"
                          "IncomingPort=" +
                          std::to_string(port_) + "\nDocumentRoot=" + logs_.Path() + "\n" +
                          port_keys);
}

int Daemon::Run(const std::vector<std::string>& args, std::string* output,
                std::vector<std::string> wrapper) {
  wrapper.push_back(Binary());
  wrapper.insert(wrapper.end(), args.begin(), args.end());
  const std::string output_file = elsewhere_.File("output");
  ChildProcess launcher(wrapper.front(), {wrapper.begin() + 1, wrapper.end()},
                        {elsewhere_.Path(), output_file});
  const int code = launcher.Wait();
  EXPECT_NE(code, -1) << "the launched process did not return";
  if (output != nullptr) *output = ReadFile(output_file);
  return code;
}

void Daemon::Start(std::string* output, const std::vector<std::string>& wrapper) {
  const std::string pid_file = home_.File("Norvane.pid");
  std::filesystem::remove(pid_file);
  std::string printed;
  ASSERT_EQ(Run({}, &printed, wrapper), 0) << printed;
  if (output != nullptr) *output = printed;
  // The pid file is written after every port listens, in one write ending in "\n".
  ASSERT_TRUE(WaitUntil([&] { return ReadFile(pid_file).ends_with("\n"); }, seconds(15)))
      << "no Norvane.pid";
  pid_ = std::stoi(ReadFile(pid_file));
}

int Daemon::Stop(int sig) {
  ::kill(pid_, sig);
  const int code = WaitForExit(pid_, seconds(20));
  if (code != -1) pid_ = -1;
  return code;
}

bool Daemon::WaitForLog(const std::string& text, milliseconds timeout) const {
  return WaitUntil([&] { return Log().find(text) != std::string::npos; }, timeout);
}

}  // namespace testutil
