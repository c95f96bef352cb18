// The norvane client: its argument helpers, its reading of a feed against a scripted daemon on
// 127.0.0.1 that decides every message boundary, and the norvane binary against the real
// norvaned binary, both started as processes.
#include "NorvaneClient.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "FWFeedCodec.h"
#include "FWProduct.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kGreeting = "Norvane Monitoring Service Ready.\r\n";
const std::string kPassword = "Kem01&*sB";

// The daemon's side of one connection, played by the test: accepts on a loopback listener and
// exchanges framed messages. Every wait is bounded.
class ScriptedDaemon {
 public:
  ~ScriptedDaemon() { Close(); }

  int Port() const { return listener_.Port(); }
  bool Accept() {
    pollfd entry{listener_.Fd(), POLLIN, 0};
    if (::poll(&entry, 1, 10000) != 1) return false;
    fd_ = ::accept(listener_.Fd(), nullptr, nullptr);
    return fd_ >= 0;
  }
  void Send(const std::string& message) {
    const std::string frame = codec_.Frame(message);
    ASSERT_EQ(::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(frame.size()));
  }
  // The next command; "<closed>" or "<timeout>" when none came within 10 s.
  std::string Receive() {
    std::string message;
    for (;;) {
      const FWFeedCodec::Result result = codec_.Next(&message);
      if (result == FWFeedCodec::Result::kMessage) return message;
      if (result != FWFeedCodec::Result::kNeedMore) return "<bad frame>";
      pollfd entry{fd_, POLLIN, 0};
      if (::poll(&entry, 1, 10000) != 1) return "<timeout>";
      char buffer[4096];
      const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), 0);
      if (got <= 0) return "<closed>";
      codec_.Append(std::string_view(buffer, static_cast<std::size_t>(got)));
    }
  }
  // Greets, accepts the login and the start of app.log, checking each command.
  void LogInAndStart() {
    Send(kGreeting);
    EXPECT_EQ(Receive(), "user logwatcher\r\n");
    Send("+OK\r\n");
    EXPECT_EQ(Receive(), "pass secret\r\n");
    Send("+OK Login successful\r\n");
    EXPECT_EQ(Receive(), "start app.log\r\n");
    Send("+OK start transmitting /logs/app.log\r\n");
  }
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  testutil::LoopbackListener listener_;
  int fd_ = -1;
  FWFeedCodec codec_{FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit};
};

// A finished run of the norvane binary or of the client library.
struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

class NorvaneClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The daemon detaches; as subreaper the test inherits it and reaps it by its pid.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    ASSERT_EQ(::pipe2(stop_, O_NONBLOCK | O_CLOEXEC), 0);
  }
  void TearDown() override {
    if (library_.joinable()) {
      RequestStop();  // a second request ends the run at once
      RequestStop();
      library_.join();
    }
    if (client_pid_ > 0) {
      ::kill(client_pid_, SIGKILL);
      ::waitpid(client_pid_, nullptr, 0);
    }
    if (daemon_pid_ > 0) {
      ::kill(daemon_pid_, SIGKILL);
      ::waitpid(daemon_pid_, nullptr, 0);
    }
    ::close(stop_[0]);
    ::close(stop_[1]);
    if (terminal_ >= 0) ::close(terminal_);
  }

  // ---- The client library in a thread of the test, against a ScriptedDaemon ----

  void RunLibrary(NorvaneClient::Mode mode, int port, const std::string& file, int timeout = 10) {
    NorvaneClient::Options options = options_;
    options.timeout_seconds = timeout;
    const int out = ::open(files_.File("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(files_.File("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    library_ = std::thread([=, this] {
      NorvaneClient client(mode, {{"127.0.0.1", port, file}}, options, out, err);
      library_code_ = client.Run(stop_[0]);
      ::close(out);
      ::close(err);
      library_done_ = true;
    });
  }
  void RequestStop() { ASSERT_EQ(::write(stop_[1], "s", 1), 1); }
  Outcome JoinLibrary() {
    if (!testutil::WaitUntil([&] { return library_done_.load(); }, seconds(20))) {
      RequestStop();  // a second request ends the run at once
      RequestStop();
    }
    library_.join();
    return Outcome{library_code_, Out(), Err()};
  }

  // ---- The real binaries ----

  void StartDaemon() {
    std::filesystem::copy_file(NORVANED_BINARY, home_.File("norvaned"));
    port_ = testutil::FreePort();
    testutil::WriteFile(home_.File("Norvane.cf"),
                        "FileVersion=1.0\n[SessionManager]\n"
                        "[SessionManager\\Ports\\MonitoringPort]\nIncomingServer=127.0.0.1\n"
                        "IncomingPort=" +
                            std::to_string(port_) + "\nDocumentRoot=" + logs_.Path() + "\n");
    LaunchDaemon();
  }
  // Starts the daemon copied by StartDaemon (again, after DaemonExit) and waits until it listens.
  void LaunchDaemon() {
    ::unlink(PidPath().c_str());
    ::unlink(home_.File("Norvane.log").c_str());
    testutil::ChildProcess launcher(home_.File("norvaned"), {}, home_.Path());
    int status = -1;
    ASSERT_TRUE(launcher.WaitExit(seconds(10), &status)) << "the launcher did not return";
    ASSERT_TRUE(testutil::WaitUntil([&] { return !testutil::ReadFile(PidPath()).empty(); }))
        << "no Norvane.pid";
    daemon_pid_ = std::stoi(testutil::ReadFile(PidPath()));
    ASSERT_TRUE(WaitFor([&] { return DaemonLog().find(" listening on ") != std::string::npos; }))
        << DaemonLog();
  }
  std::string PidPath() const { return home_.File("Norvane.pid"); }
  std::string DaemonLog() const { return testutil::ReadFile(home_.File("Norvane.log")); }
  int DaemonExit(int sig) {
    ::kill(daemon_pid_, sig);
    int status = -1;
    if (!WaitFor([&] { return ::waitpid(daemon_pid_, &status, WNOHANG) == daemon_pid_; })) {
      return -1;
    }
    daemon_pid_ = -1;
    return status;
  }

  // Starts the norvane binary with standard input from /dev/null and its output in files.
  void StartClient(const std::vector<std::string>& args, const char* password = kPassword.c_str()) {
    std::vector<std::string> text = {NORVANE_BINARY};
    text.insert(text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : text) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const std::string out = files_.File("out");
    const std::string err = files_.File("err");
    client_pid_ = ::fork();
    if (client_pid_ == 0) {
      const int in = ::open("/dev/null", O_RDONLY);
      const int out_fd = terminal_ >= 0 ? ::open(::ptsname(terminal_), O_RDWR)
                                        : ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err_fd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (in < 0 || out_fd < 0 || err_fd < 0 || ::dup2(in, 0) < 0 || ::dup2(out_fd, 1) < 0 ||
          ::dup2(err_fd, 2) < 0) {
        _exit(126);
      }
      ::unsetenv("NO_COLOR");
      for (const auto& [name, value] : environment_) ::setenv(name.c_str(), value.c_str(), 1);
      if (password == nullptr) {
        ::unsetenv("NORVANE_PASSWORD");
      } else {
        ::setenv("NORVANE_PASSWORD", password, 1);
      }
      ::execv(argv[0], argv.data());
      _exit(127);
    }
    ASSERT_GT(client_pid_, 0);
  }
  // Waits (bounded) for the client to end; code -1 when it did not.
  Outcome WaitClient() {
    int status = -1;
    Outcome outcome;
    if (WaitFor([&] { return ::waitpid(client_pid_, &status, WNOHANG) == client_pid_; })) {
      client_pid_ = -1;
      outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    outcome.out = Out();
    outcome.err = Err();
    return outcome;
  }
  Outcome RunClient(const std::vector<std::string>& args,
                    const char* password = kPassword.c_str()) {
    StartClient(args, password);
    return WaitClient();
  }

  // The daemon sends only what is appended after its first look at the file, which comes some
  // time after "start": append marker lines until one shows in the output. What follows is then
  // appended after that look. A marker that arrives late is removed by WithoutMarkers.
  void Synchronize(const std::string& file, const std::string& marker = "sync") {
    for (int i = 0; i < 20; ++i) {
      testutil::WriteFile(logs_.File(file), marker + " " + std::to_string(i) + "\n", true);
      if (testutil::WaitUntil([&] { return Out().find(marker + " ") != std::string::npos; },
                              milliseconds(1500))) {
        break;
      }
    }
    EXPECT_NE(Out().find(marker + " "), std::string::npos) << "no data arrived: " << Err();
  }
  // The output without the lines that hold a marker of Synchronize.
  static std::string WithoutMarkers(const std::string& out) {
    std::string kept;
    std::size_t start = 0;
    while (start < out.size()) {
      std::size_t end = out.find('\n', start);
      end = end == std::string::npos ? out.size() : end + 1;
      const std::string line = out.substr(start, end - start);
      if (line.find("sync") == std::string::npos) kept += line;
      start = end;
    }
    return kept;
  }
  bool WaitForOutput(const std::string& text) {
    return WaitFor([&] { return Out().find(text) != std::string::npos; });
  }
  void Append(const std::string& file, const std::string& text) {
    testutil::WriteFile(logs_.File(file), text, true);
  }

  // A pseudo-terminal for the client's standard output: what it shows arrives in terminal_out_.
  void OpenTerminal() {
    terminal_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal_, 0);
    ASSERT_EQ(::grantpt(terminal_), 0);
    ASSERT_EQ(::unlockpt(terminal_), 0);
  }
  bool WaitForTerminal(const std::string& text) {
    return WaitFor([&] {
      pollfd entry{terminal_, POLLIN, 0};
      char buffer[4096];
      if (::poll(&entry, 1, 100) == 1) {
        const ssize_t got = ::read(terminal_, buffer, sizeof(buffer));
        if (got > 0) terminal_out_.append(buffer, static_cast<std::size_t>(got));
      }
      return terminal_out_.find(text) != std::string::npos;
    });
  }

  std::string Out() const { return testutil::ReadFile(files_.File("out")); }
  std::string Err() const { return testutil::ReadFile(files_.File("err")); }
  static bool WaitFor(const std::function<bool()>& pred) {
    return testutil::WaitUntil(pred, seconds(15));
  }

  testutil::TempDir home_;
  testutil::TempDir logs_;
  testutil::TempDir files_;
  int port_ = 0;
  pid_t daemon_pid_ = -1;
  pid_t client_pid_ = -1;
  int stop_[2] = {-1, -1};
  int terminal_ = -1;
  std::string terminal_out_;
  std::vector<std::pair<std::string, std::string>> environment_;
  std::thread library_;
  std::atomic<bool> library_done_{false};
  int library_code_ = -1;
  NorvaneClient::Options options_ = [] {
    NorvaneClient::Options options;
    options.password = "secret";
    options.quiet = true;
    return options;
  }();
};

}  // namespace

// ---- Arguments ----

TEST_F(NorvaneClientTest, TailTargetsTakeTheDaemonOnlyWhenAColonComesBeforeTheFirstSlash) {
  const NorvaneClient::Target defaults{"127.0.0.1", 9080, ""};
  struct Case {
    std::string text, host;
    int port;
    std::string file;
  };
  const std::vector<Case> cases = {
      {"app.log", "127.0.0.1", 9080, "app.log"},
      {"nginx/access.log", "127.0.0.1", 9080, "nginx/access.log"},
      {"web1:9081/access.log", "web1", 9081, "access.log"},
      {"web1:/a/b.log", "web1", 9080, "a/b.log"},
      {":9082/x.log", "127.0.0.1", 9082, "x.log"},
      {"a:b.log", "127.0.0.1", 9080, "a:b.log"},
      {"h:65535/x", "h", 65535, "x"},
  };
  for (const Case& c : cases) {
    NorvaneClient::Target target;
    std::string error;
    ASSERT_TRUE(NorvaneClient::ParseTailTarget(c.text, defaults, &target, &error)) << c.text;
    EXPECT_EQ(target.host + "|" + std::to_string(target.port) + "|" + target.file,
              c.host + "|" + std::to_string(c.port) + "|" + c.file);
  }
  NorvaneClient::Target target;
  std::string error;
  EXPECT_FALSE(NorvaneClient::ParseTailTarget("h:65536/x", defaults, &target, &error));
  EXPECT_EQ(error, "bad port \"65536\" (expected 1 to 65535) in \"h:65536/x\"");
  EXPECT_FALSE(NorvaneClient::ParseTailTarget("h:0/x", defaults, &target, &error));
  EXPECT_FALSE(NorvaneClient::ParseTailTarget("h:80x/x", defaults, &target, &error));
  EXPECT_FALSE(NorvaneClient::ParseTailTarget("h:80/", defaults, &target, &error));
  EXPECT_EQ(error, "no file name in \"h:80/\"");
  ASSERT_TRUE(NorvaneClient::ParseDaemon("web2", defaults, &target, &error));
  EXPECT_EQ(NorvaneClient::Label(target), "web2:9080/: ");
}

TEST_F(NorvaneClientTest, NamesTheDaemonWouldMangleAreRecognised) {
  EXPECT_EQ(NorvaneClient::ArgumentProblem("start", "restart.log"), "");
  EXPECT_EQ(NorvaneClient::ArgumentProblem("user", "superuser"), "");
  EXPECT_EQ(NorvaneClient::ArgumentProblem("pass", "bypass1"), "");
  EXPECT_EQ(NorvaneClient::ArgumentProblem("start", " lead.log"),
            "the daemon removes leading blanks and line ends from a name, so \" lead.log\" can "
            "never reach it");
  EXPECT_EQ(NorvaneClient::ArgumentProblem("pass", "a\r\nb"),
            "the daemon removes leading blanks and line ends from a password, so this password "
            "can never reach it");
  EXPECT_EQ(NorvaneClient::ArgumentProblem("pass", ""), "the pass argument is empty");
}

// ---- The feed, message by message, against a scripted daemon ----

TEST_F(NorvaneClientTest, DataIsToldFromRepliesByOrderAndTheEndByTheClose) {
  ScriptedDaemon daemon;
  RunLibrary(NorvaneClient::Mode::kTail, daemon.Port(), "app.log");
  ASSERT_TRUE(daemon.Accept());
  daemon.LogInAndStart();
  daemon.Send("+OK looks like a reply\r\n-ERR so does this\r\n");
  daemon.Send("half ");
  daemon.Send("line\r");  // the "\r\n" itself is split over two messages
  daemon.Send("\nlast\r\n");
  RequestStop();
  EXPECT_EQ(daemon.Receive(), "stop\r\n");
  EXPECT_EQ(daemon.Receive(), "quit\r\n");
  // Data still in flight that reads exactly like the two replies, then more data: all data.
  daemon.Send("+OK logfile transmission stopped\r\n");
  daemon.Send("+OK closing connection\r\n");
  daemon.Send("+OK logfile transmission stopped\r\n");
  daemon.Send("after\r\n");
  daemon.Send("+OK logfile transmission stopped\r\n");
  daemon.Send("+OK closing connection\r\n");
  daemon.Close();
  const Outcome outcome = JoinLibrary();
  EXPECT_EQ(outcome.code, NorvaneClient::kExitOk) << outcome.err;
  EXPECT_EQ(outcome.out,
            "+OK looks like a reply\n-ERR so does this\nhalf line\nlast\n"
            "+OK logfile transmission stopped\n+OK closing connection\n"
            "+OK logfile transmission stopped\nafter\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(NorvaneClientTest, SilentDaemonAndBrokenRepliesEndWithTheirCodes) {
  {
    ScriptedDaemon silent;
    RunLibrary(NorvaneClient::Mode::kList, silent.Port(), "", 1);
    ASSERT_TRUE(silent.Accept());  // and never greets
    const Outcome outcome = JoinLibrary();
    EXPECT_EQ(outcome.code, NorvaneClient::kExitNoAnswer);
    EXPECT_EQ(outcome.err, "norvane: 127.0.0.1:" + std::to_string(silent.Port()) +
                               ": daemon stopped answering (no reply within 1 s)\n");
  }
  library_done_ = false;
  ScriptedDaemon odd;
  RunLibrary(NorvaneClient::Mode::kList, odd.Port(), "");
  ASSERT_TRUE(odd.Accept());
  odd.Send(kGreeting);
  EXPECT_EQ(odd.Receive(), "user logwatcher\r\n");
  // A hostile reply: escaped, and cut to 200 bytes.
  odd.Send("-ERR \x1b]0;pwned\x07" + std::string(300, 'x') + "\r\n");
  const Outcome outcome = JoinLibrary();
  EXPECT_EQ(outcome.code, NorvaneClient::kExitProtocol);
  EXPECT_EQ(outcome.err, "norvane: 127.0.0.1:" + std::to_string(odd.Port()) +
                             ": unexpected reply \"-ERR \\x1b]0;pwned\\x07" +
                             std::string(185, 'x') + "\" (cut to 200 bytes)\n");
}

TEST_F(NorvaneClientTest, BacklogAgainstADaemonWithoutTheExtensionWarnsOnceAndFollows) {
  ScriptedDaemon daemon;
  options_.backlog_lines = 5;
  RunLibrary(NorvaneClient::Mode::kTail, daemon.Port(), "app.log");
  ASSERT_TRUE(daemon.Accept());
  daemon.Send(kGreeting);
  EXPECT_EQ(daemon.Receive(), "user logwatcher\r\n");
  daemon.Send("+OK\r\n");
  EXPECT_EQ(daemon.Receive(), "pass secret\r\n");
  daemon.Send("+OK Login successful\r\n");
  EXPECT_EQ(daemon.Receive(), "backlog 5 app.log\r\n");
  daemon.Send("-ERR unrecognized command\r\n");
  EXPECT_EQ(daemon.Receive(), "start app.log\r\n");
  daemon.Send("+OK start transmitting /logs/app.log\r\n");
  daemon.Send("+FEED 1 2 3\r\nnew line\r\n");  // data to an original client
  daemon.Close();
  const Outcome outcome = JoinLibrary();
  EXPECT_EQ(outcome.code, NorvaneClient::kExitConnection);
  EXPECT_EQ(outcome.out, "+FEED 1 2 3\nnew line\n");
  const std::string where = "norvane: 127.0.0.1:" + std::to_string(daemon.Port()) + "/app.log: ";
  EXPECT_EQ(outcome.err, where +
                             "the daemon has no backlog or resume extension; following new lines "
                             "only\n" +
                             where + "connection lost: the daemon closed the connection\n");
}

// ---- The norvane binary against the real daemon ----

TEST_F(NorvaneClientTest, BacklogWritesTheLastLinesThenTheAppendsEachOnce) {
  std::string hundred;
  for (int i = 1; i <= 100; ++i) hundred += "line " + std::to_string(i) + "\n";
  testutil::WriteFile(logs_.File("app.log"), hundred);
  StartDaemon();
  StartClient({"tail", "-q", "-p", std::to_string(port_), "-n", "5", "app.log"});
  ASSERT_TRUE(WaitForOutput("line 100\n")) << Err();
  Append("app.log", "after 1\n");
  ASSERT_TRUE(WaitForOutput("after 1\n")) << Out();
  ::kill(client_pid_, SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "line 96\nline 97\nline 98\nline 99\nline 100\nafter 1\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(RunClient({"tail", "-n", "10001", "app.log"}).err,
            "norvane: bad line count: 10001 (expected 0 to 10000)\nTry 'norvane --help'.\n");
}

// Lines written while the daemon is down arrive once; a file rotated meanwhile is announced.
TEST_F(NorvaneClientTest, RetryResumesAcrossDaemonRestartsAndReportsARotation) {
  testutil::WriteFile(logs_.File("app.log"), "old\n");
  StartDaemon();
  StartClient({"tail", "-F", "-q", "-p", std::to_string(port_), "app.log"});
  Synchronize("app.log");
  ASSERT_NE(DaemonExit(SIGTERM), -1);
  Append("app.log", "while down\nunfinished ");
  LaunchDaemon();
  ASSERT_TRUE(WaitForOutput("while down\nunfinished ")) << Err();
  Append("app.log", "line\n");
  ASSERT_TRUE(WaitForOutput("unfinished line\n")) << Err();
  ASSERT_NE(DaemonExit(SIGKILL), -1);
  std::filesystem::rename(logs_.File("app.log"), logs_.File("app.log.1"));
  testutil::WriteFile(logs_.File("app.log"), "rotated\n");
  LaunchDaemon();
  ASSERT_TRUE(WaitForOutput("rotated\n")) << Err();
  ::kill(client_pid_, SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(WithoutMarkers(outcome.out), "while down\nunfinished line\nrotated\n");
  const std::string where = "norvane: 127.0.0.1:" + std::to_string(port_) + "/app.log: ";
  EXPECT_EQ(outcome.err.find(where), 0u) << outcome.err;
  for (const char* notice :
       {"connection lost: the daemon closed the connection; connecting again in 1 s\n",
        "the file was rotated meanwhile; following it from its first byte\n"}) {
    EXPECT_NE(outcome.err.find(where + std::string(notice)), std::string::npos) << outcome.err;
  }
}

TEST_F(NorvaneClientTest, ListPrintsTheOfferedFilesOnePerLine) {
  testutil::WriteFile(logs_.File("b.log"), "");
  testutil::WriteFile(logs_.File("a.log"), "x\n");
  std::filesystem::create_directory(logs_.File("sub"));
  testutil::WriteFile(logs_.File("sub/c.log"), "");
  StartDaemon();
  const std::string port = std::to_string(port_);
  Outcome outcome = RunClient({"list", "--port", port});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "a.log\nb.log\nsub/c.log\n");
  EXPECT_EQ(outcome.err, "");
  // Two daemons (here the same one twice): names in the form tail takes.
  outcome = RunClient({"list", "127.0.0.1:" + port, "localhost:" + port});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "127.0.0.1:" + port + "/a.log\n127.0.0.1:" + port + "/b.log\n127.0.0.1:" +
                             port + "/sub/c.log\nlocalhost:" + port + "/a.log\nlocalhost:" + port +
                             "/b.log\nlocalhost:" + port + "/sub/c.log\n");
  EXPECT_EQ(DaemonLog().find("closed by client"), std::string::npos) << DaemonLog();
}

TEST_F(NorvaneClientTest, TailWritesAppendedLinesAndCtrlCQuitsCleanly) {
  testutil::WriteFile(logs_.File("app.log"), "old line, not sent\n");
  StartDaemon();
  StartClient({"tail", "-p", std::to_string(port_), "app.log"});
  ASSERT_TRUE(WaitFor([&] { return Err().find("following") != std::string::npos; })) << Err();
  EXPECT_EQ(Err(), "norvane: 127.0.0.1:" + std::to_string(port_) + "/app.log: following " +
                       logs_.Path() + "/app.log\n");
  Synchronize("app.log");
  Append("app.log", "+OK not a reply\n-ERR not an error\nfirst half ");
  ASSERT_TRUE(WaitForOutput("first half ")) << Out();  // the half line is written at once
  Append("app.log", "second half\n");
  ASSERT_TRUE(WaitForOutput("second half\n")) << Out();
  ::kill(client_pid_, SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(WithoutMarkers(outcome.out),
            "+OK not a reply\n-ERR not an error\nfirst half second half\n");
  EXPECT_EQ(outcome.out.find("old line"), std::string::npos);
  // The daemon saw "quit" and closed the session itself (had the client closed first, the
  // daemon would have logged "Connection closed by client" by the end of a later session).
  EXPECT_EQ(RunClient({"list", "-p", std::to_string(port_)}).code, 0);
  EXPECT_EQ(DaemonLog().find("closed by client"), std::string::npos) << DaemonLog();
  EXPECT_EQ(DaemonExit(SIGTERM), 0);
}

TEST_F(NorvaneClientTest, TwoFilesArePrefixedAndLinesNeverInterleave) {
  testutil::WriteFile(logs_.File("a.log"), "");
  testutil::WriteFile(logs_.File("b.log"), "");
  StartDaemon();
  const std::string source = "127.0.0.1:" + std::to_string(port_) + "/";
  StartClient({"tail", "--port", std::to_string(port_), "--crlf", "a.log", "b.log"});
  Synchronize("a.log", "sync-a");
  Synchronize("b.log", "sync-b");
  // a.log's line is cut in two by the daemon's polls while b.log's lines arrive in between.
  Append("a.log", "alpha begins ");
  for (int i = 0; i < 2; ++i) {
    Append("b.log", "beta " + std::to_string(i) + "\n");
    ASSERT_TRUE(WaitForOutput("beta " + std::to_string(i))) << Out();
  }
  // b.log's unfinished line is written first, so it is read no later than a.log's end.
  Append("b.log", "unfinished");
  Append("a.log", "and ends\n");
  ASSERT_TRUE(WaitForOutput("and ends")) << Out();
  ::kill(client_pid_, SIGTERM);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(WithoutMarkers(outcome.out),
            source + "b.log: beta 0\r\n" + source + "b.log: beta 1\r\n" + source +
                "a.log: alpha begins and ends\r\n" + source + "b.log: unfinished\r\n");
}

TEST_F(NorvaneClientTest, PatternFollowsEveryMatchAndPicksUpANewFile) {
  for (const char* name : {"a.log", "b.log", "c.log", "sub/d.log"}) {
    std::filesystem::create_directories(std::filesystem::path(logs_.File(name)).parent_path());
    testutil::WriteFile(logs_.File(name), std::string(name) + " last\n");
  }
  StartDaemon();
  const std::string source = "127.0.0.1:" + std::to_string(port_) + "/";
  StartClient({"tail", "-q", "-F", "-n", "1", ":" + std::to_string(port_) + "/*.log"});
  ASSERT_TRUE(WaitFor([&] {
    const std::string out = Out();
    return std::count(out.begin(), out.end(), '\n') == 3;
  })) << Out();
  testutil::WriteFile(logs_.File("e.log"), "e.log first\n");
  // The daemon is asked again 8 s after the first list: a wider bound than other waits.
  ASSERT_TRUE(testutil::WaitUntil(
      [&] { return Out().find("e.log: e.log first\n") != std::string::npos; }, seconds(30)))
      << Err();
  ::kill(client_pid_, SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  std::vector<std::string> lines;
  std::istringstream stream(outcome.out);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{
                       source + "a.log: a.log last", source + "b.log: b.log last",
                       source + "c.log: c.log last", source + "e.log: e.log first"}));
  EXPECT_EQ(outcome.err, "norvane: " + source + "e.log: new file matching \"*.log\"\n");
  EXPECT_EQ(RunClient({"tail", "-p", std::to_string(port_), "x*"}).err,
            "norvane: " + source +
                "x*: no file matches; `norvane list` shows the files the daemon "
                "offers\n");
}

// On a terminal control characters are shown escaped and source prefixes coloured.
TEST_F(NorvaneClientTest, TerminalShowsControlCharactersEscapedAndPrefixesColoured) {
  testutil::WriteFile(logs_.File("a.log"), "\x1b]0;pwned\x07 title\n");
  testutil::WriteFile(logs_.File("b.log"), "\xc2\x9b tab\tbell\x07\n");
  StartDaemon();
  const std::string source = "127.0.0.1:" + std::to_string(port_) + "/";
  OpenTerminal();
  StartClient({"tail", "-q", "-n", "1", "-p", std::to_string(port_), "a.log", "b.log"});
  // The terminal turns "\n" into "\r\n".
  EXPECT_TRUE(WaitForTerminal("\x1b[36m" + source + "a.log\x1b[0m: \\x1b]0;pwned\\x07 title\r\n"))
      << terminal_out_;
  EXPECT_TRUE(WaitForTerminal("\x1b[33m" + source + "b.log\x1b[0m: \\x9b tab\tbell\\x07\r\n"))
      << terminal_out_;
  ::kill(client_pid_, SIGINT);
  EXPECT_EQ(WaitClient().code, 0);
  terminal_out_.clear();
  environment_ = {{"NO_COLOR", "1"}};
  StartClient({"tail", "-q", "-n", "1", "--raw", "-p", std::to_string(port_), "a.log", "b.log"});
  EXPECT_TRUE(WaitForTerminal(source + "a.log: \x1b]0;pwned\x07 title\r\n")) << terminal_out_;
  ::kill(client_pid_, SIGINT);
  EXPECT_EQ(WaitClient().code, 0);
}

TEST_F(NorvaneClientTest, RefusalsAndUsageErrorsHaveTheirMessagesAndCodes) {
  testutil::WriteFile(logs_.File("app.log"), "");
  testutil::WriteFile(logs_.File("restart.log"), "");
  StartDaemon();
  const std::string port = std::to_string(port_);
  const std::string daemon = "norvane: 127.0.0.1:" + port;
  Outcome outcome = RunClient({"list", "-p", port}, "wrong");
  EXPECT_EQ(outcome.code, 4);
  EXPECT_EQ(outcome.err, daemon + ": login refused: wrong password for user \"logwatcher\"\n");
  outcome = RunClient({"list", "-p", port, "--user", "bob"});
  EXPECT_EQ(outcome.code, 4);
  EXPECT_EQ(outcome.err, daemon + ": login refused: user \"bob\" unknown\n");
  outcome = RunClient({"tail", "-q", "-p", port, "missing.log"});
  EXPECT_EQ(outcome.code, 5);
  EXPECT_EQ(outcome.err, daemon +
                             "/missing.log: file not offered by the daemon (-ERR invalid logfile "
                             "name); `norvane list` shows the files it offers\n");
  outcome = RunClient({"tail", "-p", port, " lead.log"});
  EXPECT_EQ(outcome.code, 5);
  EXPECT_EQ(outcome.err, daemon +
                             "/ lead.log: cannot be requested: the daemon removes leading blanks "
                             "and line ends from a name, so \" lead.log\" can never reach it\n");
  // The refused sessions were still ended with "quit".
  EXPECT_EQ(DaemonLog().find("closed by client"), std::string::npos) << DaemonLog();

  outcome = RunClient({"list", "-p", port}, nullptr);
  EXPECT_EQ(outcome.code, 2);
  EXPECT_EQ(outcome.err,
            "norvane: no password: give --password, set NORVANE_PASSWORD, or run on a terminal "
            "to be asked\nTry 'norvane --help'.\n");
  outcome = RunClient({"tail", "--port"});
  EXPECT_EQ(outcome.code, 2);
  EXPECT_EQ(outcome.err, "norvane: option --port needs a value\nTry 'norvane --help'.\n");
  outcome = RunClient({"--help"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_NE(outcome.out.find("  6  the daemon stopped answering"), std::string::npos);
  EXPECT_EQ(RunClient({"--version"}).out, "norvane " + FWProduct::GetVersion() + "\n");

  EXPECT_EQ(DaemonExit(SIGTERM), 0);
  outcome = RunClient({"list", "-p", port});
  EXPECT_EQ(outcome.code, 3);
  EXPECT_EQ(outcome.err, daemon + ": cannot connect: Connection refused\n");
}

TEST_F(NorvaneClientTest, DaemonKilledMidFeedEndsTheTailWithConnectionLost) {
  testutil::WriteFile(logs_.File("app.log"), "");
  StartDaemon();
  StartClient({"tail", "-q", "-p", std::to_string(port_), "app.log"});
  Synchronize("app.log");
  Append("app.log", "unfinished");
  ASSERT_TRUE(WaitForOutput("unfinished")) << Out();
  ASSERT_NE(DaemonExit(SIGKILL), -1);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 3);
  EXPECT_EQ(outcome.err, "norvane: 127.0.0.1:" + std::to_string(port_) +
                             "/app.log: connection lost: the daemon closed the connection\n");
  EXPECT_EQ(WithoutMarkers(outcome.out), "unfinished");
}
