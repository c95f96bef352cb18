// The real norvaned binary, started as an operator starts it: copied into a directory of its own
// with its configuration beside it, started by path, watched through its pid file, its log and
// its port, and stopped with a signal.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWFeedCodec.h"
#include "FWMember.h"
#include "FWStringUtils.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kRule(60, '-');

// A plain TCP client of the test, closed by its destructor.
class Client {
 public:
  explicit Client(int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    timeval timeout{2, 0};  // every read of the test is bounded
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  }
  ~Client() { ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool Connected() const { return connected_; }
  void Send(const std::string& line) {
    const std::string frame = codec_.Frame(line);
    ASSERT_EQ(::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(frame.size()));
  }
  // The next message from the daemon; "<closed>" when it closed the connection, "<timeout>" when
  // nothing whole arrived within the bounded read.
  std::string Receive() {
    std::string message;
    for (;;) {
      const FWFeedCodec::Result result = codec_.Next(&message);
      if (result == FWFeedCodec::Result::kMessage) return message;
      if (result != FWFeedCodec::Result::kNeedMore) return "<bad frame>";
      char buffer[65536];
      const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), 0);
      if (got == 0) return "<closed>";
      if (got < 0) return "<timeout>";
      codec_.Append(std::string_view(buffer, static_cast<std::size_t>(got)));
    }
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  FWFeedCodec codec_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
};

class NorvanedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The daemon detaches from the process that starts it; as subreaper the test inherits it and
    // can reap it by pid and read its exit status.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    binary_ = home_.File("norvaned");
    std::filesystem::copy_file(NORVANED_BINARY, binary_);
    port_ = testutil::FreePort();
  }

  void TearDown() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  // A configuration with one monitoring port on 127.0.0.1 serving logs_, plus extra keys.
  void WriteConfig(const std::string& root_keys = "", const std::string& port_keys = "") {
    testutil::WriteFile(home_.File("Norvane.cf"),
                        "FileVersion=1.0\n[SessionManager]\n" + root_keys +
                            "[SessionManager\\Ports\\MonitoringPort]\nIncomingServer=127.0.0.1\n"
                            "IncomingPort=" +
                            std::to_string(port_) + "\nDocumentRoot=" + logs_.Path() + "\n" +
                            port_keys);
  }

  // Runs the binary by its absolute path from another directory until the launched process
  // returns (a daemon that detaches returns at once); its exit status, and its standard output
  // and error in *output.
  int Launch(const std::vector<std::string>& args, std::string* output = nullptr) {
    testutil::ChildProcess launcher(binary_, args, elsewhere_.Path(), home_.File("output"));
    int status = -1;
    EXPECT_TRUE(launcher.WaitExit(seconds(20), &status)) << "the launcher did not return";
    if (output != nullptr) *output = testutil::ReadFile(home_.File("output"));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Starts the daemon and waits for its pid file.
  void Start() {
    std::filesystem::remove(home_.File("Norvane.pid"));
    ASSERT_EQ(Launch({}, &output_), 0) << output_;
    ASSERT_TRUE(testutil::WaitUntil([&] { return !PidFile().empty(); }, seconds(10)))
        << "no Norvane.pid";
    pid_ = std::stoi(PidFile());
  }

  bool WaitForLog(const std::string& text) {
    return testutil::WaitUntil([&] { return Log().find(text) != std::string::npos; }, seconds(10));
  }
  bool WaitForPort() {
    return testutil::WaitUntil([&] { return Client(port_).Connected(); }, seconds(10));
  }
  // Waits for the daemon to end and returns its exit status (-1 if it is still running).
  int WaitForExit() {
    int status = -1;
    const bool ended =
        testutil::WaitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, seconds(10));
    if (!ended) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  int StopWith(int sig) {
    ::kill(pid_, sig);
    return WaitForExit();
  }

  std::string PidFile() const { return testutil::ReadFile(home_.File("Norvane.pid")); }
  std::string Log() const { return testutil::ReadFile(home_.File("Norvane.log")); }
  // The log's lines without their time stamps (the first 23 bytes of every line).
  std::vector<std::string> LogLines() const {
    std::vector<std::string> lines;
    std::size_t start = 0;
    const std::string log = Log();
    for (std::size_t end; (end = log.find('\n', start)) != std::string::npos; start = end + 1) {
      lines.push_back(end - start > 23 ? log.substr(start + 23, end - start - 23) : "");
    }
    return lines;
  }

  testutil::TempDir home_;
  testutil::TempDir elsewhere_;
  testutil::TempDir logs_;
  std::string binary_;
  std::string output_;  // what the last Start printed before detaching
  int port_ = 0;
  pid_t pid_ = -1;
};

std::size_t IndexOf(const std::vector<std::string>& lines, const std::string& prefix) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].rfind(prefix, 0) == 0) return i;
  }
  return lines.size();
}

}  // namespace

TEST_F(NorvanedTest, StartsInItsOwnDirectoryLogsStartupAndStopsOnSigterm) {
  WriteConfig();
  Start();
  EXPECT_EQ(PidFile(), std::to_string(pid_) + "\n");
  ASSERT_TRUE(WaitForPort());
  const std::vector<std::string> lines = LogLines();
  ASSERT_GE(lines.size(), 10u) << Log();
  EXPECT_EQ(lines[0], kRule);
  EXPECT_EQ(lines[1].rfind("Norvane ", 0), 0u);
  EXPECT_EQ(lines[1].substr(lines[1].size() - 13), " starting ...");
  EXPECT_EQ(lines[2], kRule);
  const std::vector<std::string> in_order = {"Version Build Date: ",
                                             "Current Date: ",
                                             "OS version: ",
                                             "Physical Memory: ",
                                             "Directory for temporary files: /tmp",
                                             "Configuration:",
                                             "    FileVersion=1.0",
                                             "    [SessionManager]",
                                             "    [SessionManager\\Ports\\MonitoringPort]",
                                             "    IncomingPort=\"" + std::to_string(port_) + "\""};
  std::size_t previous = 2;
  for (const std::string& prefix : in_order) {
    const std::size_t at = IndexOf(lines, prefix);
    ASSERT_LT(at, lines.size()) << "missing: " << prefix << "\n" << Log();
    EXPECT_GT(at, previous) << "out of order: " << prefix;
    previous = at;
  }
  EXPECT_LT(IndexOf(lines, lines[1].substr(0, lines[1].size() - 13) +
                               " listening on 127.0.0.1:" + std::to_string(port_)),
            lines.size());

  EXPECT_EQ(StopWith(SIGTERM), 0);
  const std::vector<std::string> after = LogLines();
  ASSERT_GE(after.size(), 2u);
  EXPECT_EQ(after[after.size() - 2], "Going down on signal 15");
  EXPECT_EQ(after.back(), lines[1].substr(0, lines[1].size() - 13) + " shutting down");
  EXPECT_FALSE(Client(port_).Connected()) << "the port is still open after shutdown";
  EXPECT_FALSE(testutil::FileExists(home_.File("Norvane.pid")));
  EXPECT_EQ(output_, "") << "a good start prints nothing";
}

TEST_F(NorvanedTest, SigintEndsItTheSameWayAndClosesConnectedClients) {
  WriteConfig();
  Start();
  ASSERT_TRUE(WaitForPort());
  Client client(port_);
  ASSERT_TRUE(client.Connected());
  EXPECT_EQ(client.Receive(), "Norvane Monitoring Service Ready.\r\n");
  EXPECT_EQ(StopWith(SIGINT), 0);
  EXPECT_EQ(client.Receive(), "<closed>");
  EXPECT_TRUE(WaitForLog("Going down on signal 2\n"));
}

TEST_F(NorvanedTest, StartedByBareNameKeepsTheInheritedDirectoryAndWritesNoPidFile) {
  // The configuration lies in the directory the daemon inherits, not beside the binary.
  WriteConfig();
  std::filesystem::rename(home_.File("Norvane.cf"), elsewhere_.File("Norvane.cf"));
  const pid_t launcher = ::fork();
  if (launcher == 0) {
    if (::chdir(elsewhere_.Path().c_str()) != 0) _exit(126);
    ::setenv("PATH", home_.Path().c_str(), 1);
    ::execlp("norvaned", "norvaned", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(launcher, &status, 0), launcher);
  ASSERT_EQ(status, 0) << "norvaned could not be started through PATH";
  ASSERT_TRUE(WaitForPort()) << testutil::ReadFile(elsewhere_.File("Norvane.log"));
  // The only child left to this subreaper is the detached daemon.
  pid_ = -1;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code error;
    const std::string exe = std::filesystem::read_symlink(entry.path() / "exe", error).string();
    if (exe == binary_) {
      pid_ = std::stoi(name);
    }
  }
  ASSERT_GT(pid_, 0) << "the daemon's process was not found";
  EXPECT_FALSE(testutil::FileExists(home_.File("Norvane.pid")));
  EXPECT_FALSE(testutil::FileExists(elsewhere_.File("Norvane.pid")));
  EXPECT_FALSE(testutil::FileExists(home_.File("Norvane.log")));
  EXPECT_EQ(StopWith(SIGTERM), 0);
  EXPECT_NE(testutil::ReadFile(elsewhere_.File("Norvane.log")).find("Going down on signal 15"),
            std::string::npos);
}

TEST_F(NorvanedTest, WithoutConfigurationItSaysSoAndRunsOnDefaultsWithoutPorts) {
  Start();
  const std::string config = home_.File("Norvane.cf");
  EXPECT_EQ(output_, "norvaned: no configuration file " + config +
                         ": running on the defaults; copy Norvane.cf.example there and set "
                         "DocumentRoot and Password\nnorvaned: " +
                         config +
                         ": no port is configured, so norvaned serves nothing; add a "
                         "[SessionManager\\Ports\\MonitoringPort] section\n");
  ASSERT_TRUE(WaitForLog("Configuration:\n"));
  ASSERT_TRUE(WaitForLog("    [SessionManager]\n"));
  EXPECT_EQ(Log().find(" listening on "), std::string::npos);
  EXPECT_EQ(StopWith(SIGTERM), 0);
  EXPECT_EQ(LogLines().back().substr(LogLines().back().size() - 14), " shutting down");
}

TEST_F(NorvanedTest, StartupFailuresArePrintedAndLoggedAndEndWithStatusOneWithoutDetaching) {
  testutil::LoopbackListener taken;
  const std::string config = home_.File("Norvane.cf");
  const std::string section =
      "FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\MonitoringPort]\n"
      "IncomingServer=127.0.0.1\nIncomingPort=";
  const struct {
    std::string config;
    std::string message;
  } cases[] = {
      {"FileVersion=1.0\n[SessionManager]\nMaxLogFileDays 3\n",
       config + ":3: Parse operation failed (parse error: MaxLogFileDays 3); settings are lines "
                "Key=value under a [section] header; fix the line and test the file with "
                "norvaned --check"},
      {section + std::to_string(port_) + "\nDocumentRoot=" + logs_.File("gone") + "\n",
       config + ": port 1 (Monitoring, 127.0.0.1:" + std::to_string(port_) + "): Log File Path " +
           logs_.File("gone") +
           " is not a readable directory (No such file or directory); set it in the port's "
           "section (Norvane.cf.example describes every setting)"},
      {section + std::to_string(taken.Port()) + "\nDocumentRoot=" + logs_.Path() + "\n",
       "can't listen on 127.0.0.1:" + std::to_string(taken.Port()) + " (port 1 of " + config +
           "): (bind) Address already in use; another program listens there (ss -ltnp shows "
           "which): stop it or choose another IncomingPort"},
  };
  for (const auto& [text, message] : cases) {
    SCOPED_TRACE(message);
    testutil::WriteFile(config, text);
    std::filesystem::remove(home_.File("Norvane.log"));
    std::string output;
    EXPECT_EQ(Launch({}, &output), 1);
    EXPECT_EQ(output, "norvaned: " + message + "\n");
    std::string logged = message;  // the log starts every entry with a capital
    logged[0] = static_cast<char>(std::toupper(logged[0]));
    EXPECT_NE(Log().find(logged + "\n"), std::string::npos) << Log();
    EXPECT_FALSE(testutil::FileExists(home_.File("Norvane.pid")));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a daemon detached";
  }
}

TEST_F(NorvanedTest, CheckReportsTheConfigurationAndStartsNothing) {
  WriteConfig();
  std::string output;
  EXPECT_EQ(Launch({"--check"}, &output), 0);
  EXPECT_EQ(output, home_.File("Norvane.cf") + ": configuration OK, 1 port(s)\n  Monitoring on " +
                        "127.0.0.1:" + std::to_string(port_) + " serves " + logs_.Path() +
                        " (*.log)\n");
  // -c names a file relative to the directory norvaned is started from.
  testutil::WriteFile(elsewhere_.File("other.cf"), "FileVersion=1.0\n[SessionManager]\nx\n");
  EXPECT_EQ(Launch({"-t", "-c", "other.cf"}, &output), 1);
  EXPECT_EQ(output, "norvaned: " + elsewhere_.File("other.cf") +
                        ":3: Parse operation failed (parse error: x); settings are lines "
                        "Key=value under a [section] header; fix the line and test the file with "
                        "norvaned --check\n");
  EXPECT_EQ(Launch({"--check", "-c", "missing.cf"}, &output), 1);
  EXPECT_NE(output.find(elsewhere_.File("missing.cf")), std::string::npos) << output;
  EXPECT_EQ(Launch({"--version"}, &output), 0);
  EXPECT_EQ(output.rfind("norvaned 0.", 0), 0u) << output;
  EXPECT_EQ(Launch({"--bogus"}, &output), 2);
  EXPECT_EQ(output, "norvaned: unknown option --bogus (norvaned --help lists the options)\n");
  EXPECT_FALSE(testutil::FileExists(home_.File("Norvane.log")));
}

TEST_F(NorvanedTest, ForegroundLogsToStandardErrorAndEndsOnSigtermAlsoDuringStartUp) {
  WriteConfig();
  // The signal arrives as soon as the handlers are installed, while the daemon is starting.
  {
    testutil::ChildProcess daemon(binary_, {"--foreground"}, elsewhere_.Path(),
                                  home_.File("early"));
    const auto catches_sigterm = [&] {
      const std::string status =
          testutil::ReadFile("/proc/" + std::to_string(daemon.Pid()) + "/status");
      const std::size_t at = status.find("SigCgt:\t");
      return at != std::string::npos &&
             (std::stoull(status.substr(at + 8, 16), nullptr, 16) & (1ull << (SIGTERM - 1))) != 0;
    };
    ASSERT_TRUE(testutil::WaitUntil(catches_sigterm, seconds(20)));
    daemon.Signal(SIGTERM);
    int status = -1;
    ASSERT_TRUE(daemon.WaitExit(seconds(20), &status)) << "SIGTERM during start-up was forgotten";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(testutil::ReadFile(home_.File("early")).find(" Going down on signal 15\n"),
              std::string::npos);
  }
  testutil::ChildProcess daemon(binary_, {"-f"}, elsewhere_.Path(), home_.File("late"));
  ASSERT_TRUE(WaitForPort());
  daemon.Signal(SIGTERM);
  int status = -1;
  ASSERT_TRUE(daemon.WaitExit(seconds(20), &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const std::string echoed = testutil::ReadFile(home_.File("late"));
  EXPECT_NE(echoed.find(" listening on 127.0.0.1:" + std::to_string(port_) + "\n"),
            std::string::npos)
      << echoed;
  EXPECT_EQ(echoed.substr(echoed.size() - 14), "shutting down\n");
}

TEST_F(NorvanedTest, LogRotatesBySizeWhenMaxLogFileSizeIsSmall) {
  WriteConfig("MaxLogFileSize=700\n");
  Start();
  ASSERT_TRUE(WaitForPort());
  EXPECT_EQ(StopWith(SIGTERM), 0);
  // The start-up lines pass 700 bytes: the log was rotated, the start of the run is in the
  // backup, and the newest lines are in the current file.
  const std::string backup = testutil::ReadFile(home_.File("Norvane.log~"));
  EXPECT_NE(backup.find(" starting ..."), std::string::npos) << backup;
  EXPECT_EQ(Log().find(" starting ..."), std::string::npos);
  EXPECT_NE(Log().find("Going down on signal 15"), std::string::npos);
}

TEST_F(NorvanedTest, WholeSessionThroughTheRealBinary) {
  testutil::WriteFile(logs_.File("restart.log"), "old line\n");
  testutil::WriteFile(logs_.File("notes.txt"), "");
  testutil::WriteFile(logs_.File("other.dat"), "");
  WriteConfig("", "SearchPattern=*.log *.txt\n");
  Start();
  ASSERT_TRUE(WaitForPort());
  Client client(port_);
  EXPECT_EQ(client.Receive(), "Norvane Monitoring Service Ready.\r\n");
  client.Send("user logwatcher\r\n");
  EXPECT_EQ(client.Receive(), "+OK\r\n");
  client.Send("pass Kem01&*sB\r\n");
  EXPECT_EQ(client.Receive(), "+OK Login successful\r\n");
  client.Send("list\r\n");
  EXPECT_EQ(client.Receive(), "notes.txt\r\n");
  EXPECT_EQ(client.Receive(), "restart.log\r\n");
  EXPECT_EQ(client.Receive(), "+OK\r\n");
  client.Send("start restart.log\r\n");
  EXPECT_EQ(client.Receive(), "+OK start transmitting " + logs_.Path() + "/restart.log\r\n");
  // Appended right after the reply: not old content, so it arrives.
  testutil::WriteFile(logs_.File("restart.log"), "new line\n", true);
  EXPECT_EQ(client.Receive(), "new line\r\n");
  client.Send("quit\r\n");
  EXPECT_EQ(client.Receive(), "+OK closing connection\r\n");
  EXPECT_EQ(client.Receive(), "<closed>");
  EXPECT_EQ(StopWith(SIGTERM), 0);
}

TEST_F(NorvanedTest, ShippedExampleConfigurationNamesEveryMemberAndStartsTheDaemon) {
  std::string example = testutil::ReadFile(NORVANE_SOURCE_DIR "/dist/Norvane.cf.example");
  for (const char* name : {"SessionManager", "MonitoringPort"}) {
    for (const FWMember* member : FWApplication::GetInstance().GetClass(name)->GetMembers()) {
      EXPECT_NE(example.find("\n" + std::string(member->GetName()) + "="), std::string::npos)
          << name << " member missing: " << std::string(member->GetName());
    }
  }
  ASSERT_EQ(FWStringUtils::ReplaceAll(example, "IncomingPort=\"9080\"",
                                      "IncomingPort=\"" + std::to_string(port_) + "\""),
            1);
  ASSERT_EQ(FWStringUtils::ReplaceAll(example, "DocumentRoot=\"/var/log\"",
                                      "DocumentRoot=\"" + logs_.Path() + "\""),
            1);
  testutil::WriteFile(home_.File("Norvane.cf"), example);
  Start();
  ASSERT_TRUE(WaitForPort()) << Log();
  EXPECT_EQ(Log().find("Invalid configuration option"), std::string::npos) << Log();
  EXPECT_EQ(StopWith(SIGTERM), 0);
}
