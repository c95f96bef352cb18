// The real norvaned binary, started as an operator starts it: copied into a directory of its own
// with its configuration beside it, started by path, watched through its pid file, its log and
// its port, and stopped with a signal.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <sstream>
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

// A plain TCP client of the test, closed by its destructor. It connects to 127.0.0.1 from source
// (127.0.0.2 stands in for a remote host); receive_buffer > 0 fixes its receive buffer, and
// max_segment > 0 its segment size, as small as over some real networks.
class Client {
 public:
  explicit Client(int port, const char* source = "127.0.0.1", int receive_buffer = 0,
                  int timeout_seconds = 2, int max_segment = 0) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, source, &address.sin_addr);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    if (receive_buffer > 0) {
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    }
    if (max_segment > 0) {
      ::setsockopt(fd_, IPPROTO_TCP, TCP_MAXSEG, &max_segment, sizeof(max_segment));
    }
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    timeval timeout{timeout_seconds, 0};  // every read of the test is bounded
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
  // Greeting, user and password: the last reply.
  std::string Login(const std::string& password) {
    Receive();
    Send("user logwatcher\r\n");
    Receive();
    Send("pass " + password + "\r\n");
    return Receive();
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

  // A configuration with one monitoring port on 127.0.0.1 serving logs_, plus extra keys; only its
  // owner may read it.
  void WriteConfig(const std::string& root_keys = "", const std::string& port_keys = "") {
    testutil::WriteFile(home_.File("Norvane.cf"), "");
    ASSERT_EQ(::chmod(home_.File("Norvane.cf").c_str(), 0600), 0);
    testutil::WriteFile(home_.File("Norvane.cf"),
                        "FileVersion=1.0\n[SessionManager]\n" + root_keys +
                            "[SessionManager\\Ports\\MonitoringPort]\nIncomingServer=127.0.0.1\n"
                            "IncomingPort=" +
                            std::to_string(port_) + "\nDocumentRoot=" + logs_.Path() + "\n" +
                            port_keys);
  }

  // Runs the binary by its absolute path from another directory, through a wrapper command
  // ("prlimit", ...) if one is given, until the launched process returns (a daemon that detaches
  // returns at once); its exit status, and its standard output and error in *output.
  int Launch(const std::vector<std::string>& args, std::string* output = nullptr,
             std::vector<std::string> wrapper = {}) {
    wrapper.push_back(binary_);
    wrapper.insert(wrapper.end(), args.begin(), args.end());
    testutil::ChildProcess launcher(wrapper.front(), {wrapper.begin() + 1, wrapper.end()},
                                    elsewhere_.Path(), home_.File("output"));
    int status = -1;
    EXPECT_TRUE(launcher.WaitExit(seconds(20), &status)) << "the launcher did not return";
    if (output != nullptr) *output = testutil::ReadFile(home_.File("output"));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Starts the daemon and waits for its pid file.
  void Start(const std::vector<std::string>& wrapper = {}) {
    std::filesystem::remove(home_.File("Norvane.pid"));
    ASSERT_EQ(Launch({}, &output_, wrapper), 0) << output_;
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
  // A field of the daemon's /proc/<pid>/<file> ("VmRSS:" of status, "rchar:" of io); -1 if none.
  long ProcField(const std::string& file, const std::string& field) const {
    const std::string text =
        "\n" + testutil::ReadFile("/proc/" + std::to_string(pid_) + "/" + file);
    const std::size_t at = text.find("\n" + field);
    return at == std::string::npos ? -1 : std::stol(text.substr(at + 1 + field.size()));
  }
  // The daemon's sockets that are in blocking mode (O_NONBLOCK, octal 04000, clear in the flags
  // of /proc/<pid>/fdinfo), and how many sockets it has.
  int BlockingSockets(int* sockets) const {
    const std::string proc = "/proc/" + std::to_string(pid_);
    int blocking = 0;
    *sockets = 0;
    for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd")) {
      std::error_code error;
      if (std::filesystem::read_symlink(entry.path(), error).string().rfind("socket:", 0) != 0) {
        continue;
      }
      ++*sockets;
      const std::string info =
          testutil::ReadFile(proc + "/fdinfo/" + entry.path().filename().string());
      const std::size_t at = info.find("flags:");
      if (at == std::string::npos || (std::stoul(info.substr(at + 6), nullptr, 8) & 04000) == 0) {
        ++blocking;
      }
    }
    return blocking;
  }
  std::size_t CountInLog(const std::string& text) const {
    std::size_t count = 0;
    const std::string log = Log();
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
      ++count;
    }
    return count;
  }
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
  WriteConfig("", "Password=own-Secret-7\n");
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

  // The password is masked; the log and the pid file are for the owner and the group only.
  EXPECT_LT(IndexOf(lines, "    Password=\"********\""), lines.size());
  EXPECT_EQ(Log().find("own-Secret-7"), std::string::npos);
  for (const char* name : {"Norvane.log", "Norvane.pid"}) {
    struct stat st {};
    ASSERT_EQ(::stat(home_.File(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u) << name;
  }

  EXPECT_EQ(StopWith(SIGTERM), 0);
  const std::vector<std::string> after = LogLines();
  const std::size_t going_down = IndexOf(after, "Going down on signal 15");
  ASSERT_LT(going_down + 1, after.size());
  EXPECT_EQ(after[going_down + 1], lines[1].substr(0, lines[1].size() - 13) + " shutting down");
  EXPECT_FALSE(Client(port_).Connected()) << "the port is still open after shutdown";
  EXPECT_FALSE(testutil::FileExists(home_.File("Norvane.pid")));
  EXPECT_EQ(output_, "") << "a good start prints nothing";  // own password, private file
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
  EXPECT_EQ(output,
            home_.File("Norvane.cf") + ": configuration OK, 1 port(s)\n  Monitoring on " +
                "127.0.0.1:" + std::to_string(port_) + " serves " + logs_.Path() +
                " (*.log)\nwarning: port 1 (Monitoring, 127.0.0.1:" + std::to_string(port_) +
                ") keeps the built-in default password, so it admits logins from "
                "127.0.0.1 and ::1 only; set a Password of its own to serve other hosts\n");
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
  // Sessions still open when it goes down are ended after this line.
  EXPECT_NE(echoed.find(" shutting down\n"), std::string::npos) << echoed;
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
  client.Send("stop\r\n");
  EXPECT_EQ(client.Receive(), "+OK logfile transmission stopped\r\n");
  client.Send("start ../../../etc/passwd\r\n");
  EXPECT_EQ(client.Receive(), "-ERR invalid logfile name\r\n");
  client.Send("quit\r\n");
  EXPECT_EQ(client.Receive(), "+OK closing connection\r\n");
  EXPECT_EQ(client.Receive(), "<closed>");
  EXPECT_EQ(StopWith(SIGTERM), 0);
  // The audit trail: who logged in, followed and stopped which file, asked for what, and sent
  // how much.
  const std::string log = Log();
  const std::size_t login = log.find(": Login of user");
  ASSERT_NE(login, std::string::npos);
  const std::size_t start = log.rfind("Session ", login);
  const std::string prefix = log.substr(start, login + 2 - start);
  const std::string path = "\"" + logs_.Path() + "/restart.log\" from 127.0.0.1";
  for (const std::string& line :
       {std::string("Login of user \"logwatcher\" from 127.0.0.1"), "Start " + path, "Stop " + path,
        std::string("Refused name \"../../../etc/passwd\" from 127.0.0.1"),
        std::string("Connection from 127.0.0.1 ended, ")}) {
    EXPECT_EQ(CountInLog(prefix + line), 1u) << prefix + line;
  }
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

// ---- Hostile clients ----

namespace {

const std::string kPassword = "Kem01&*sB";
const std::string kLoginFailed = "-ERR Login failed (invalid password)\r\n";
constexpr std::size_t kMiB = 1024 * 1024;

}  // namespace

// A logged-in client with a small receive buffer and small segments (so that the daemon's send
// buffer fills with little data) never reads while its file grows by megabytes: the daemon goes
// on reading the file for it and serves another client meanwhile.
TEST_F(NorvanedTest, ClientThatNeverReadsHoldsUpNoOtherClient) {
  testutil::WriteFile(logs_.File("app.log"), "");
  WriteConfig();
  Start();
  ASSERT_TRUE(WaitForPort());
  Client stalled(port_, "127.0.0.1", 4096, 2, 100);
  ASSERT_EQ(stalled.Login(kPassword), "+OK Login successful\r\n");
  stalled.Send("start app.log\r\n");
  ASSERT_EQ(stalled.Receive(), "+OK start transmitting " + logs_.Path() + "/app.log\r\n");
  const long read_before = ProcField("io", "rchar:");
  std::mt19937 random(7);
  std::string noise;  // printable noise: the frames are nearly as large as the file
  while (noise.size() < 12 * kMiB) {
    for (int i = 0; i < 99; ++i) noise += static_cast<char>('!' + random() % 94);
    noise += '\n';
  }
  testutil::WriteFile(logs_.File("app.log"), noise, true);
  ASSERT_TRUE(testutil::WaitUntil(
      [&] { return ProcField("io", "rchar:") - read_before >= static_cast<long>(8 * kMiB); },
      seconds(30)))
      << "the daemon stopped reading the file for the stalled client";
  Client other(port_, "127.0.0.1", 0, 10);
  EXPECT_EQ(other.Login(kPassword), "+OK Login successful\r\n");
  other.Send("list\r\n");
  EXPECT_EQ(other.Receive(), "app.log\r\n");
  EXPECT_EQ(other.Receive(), "+OK\r\n");
  // Whether a blocking send would have stalled here depends on the kernel's send buffer sizing;
  // a non-blocking socket never stalls.
  int sockets = 0;
  EXPECT_EQ(BlockingSockets(&sockets), 0);
  EXPECT_EQ(sockets, 3) << "the listener and the two clients";
}

// One frame of about 4.6 KB that inflates to 524,287 empty lines, each an invalid command.
TEST_F(NorvanedTest, FrameOfEmptyLinesBeforeLoginEndsOnlyItsConnectionAndCostsNoMemory) {
  WriteConfig();
  Start();
  ASSERT_TRUE(WaitForPort());
  EXPECT_EQ(Client(port_).Login(kPassword), "+OK Login successful\r\n");
  const long rss_before = ProcField("status", "VmRSS:");
  Client attacker(port_, "127.0.0.1", 4096);
  EXPECT_EQ(attacker.Receive(), "Norvane Monitoring Service Ready.\r\n");
  std::string lines;
  for (int i = 0; i < 524287; ++i) lines += "\r\n";
  ASSERT_GT(FWFeedCodec(1, 1).Frame(lines).size(), 4096u + 8);
  attacker.Send(lines);
  EXPECT_EQ(attacker.Receive(), "<closed>");
  EXPECT_EQ(Client(port_).Login(kPassword), "+OK Login successful\r\n");
  EXPECT_LT(ProcField("status", "VmRSS:") - rss_before, 4096) << "KiB more resident memory";
  EXPECT_TRUE(WaitForLog("Frame too large\n"));
}

// The hard limit of 64 descriptors holds 28 sessions (8 are the daemon's own); lowered to 16
// after start, accepts fail: the daemon logs that once, stops accepting for a moment instead of
// spinning, and serves again once descriptors are free.
TEST_F(NorvanedTest, OutOfDescriptorsItSaysSoWaitsWithoutSpinningAndRecovers) {
  WriteConfig();
  Start({"/usr/bin/prlimit", "--nofile=64:64"});
  ASSERT_TRUE(WaitForPort());
  EXPECT_TRUE(WaitForLog("Descriptor limit 64 (hard limit 64) holds only 28 sessions"));
  const rlimit tiny{16, 16};
  ASSERT_EQ(::prlimit(pid_, RLIMIT_NOFILE, &tiny, nullptr), 0);
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 16; ++i) clients.push_back(std::make_unique<Client>(port_));
  const std::string shortage = "Too many open files; new connections wait";
  ASSERT_TRUE(WaitForLog(shortage));
  const std::string stat_path = "/proc/" + std::to_string(pid_) + "/stat";
  const auto cpu_ticks = [&] {  // utime + stime, fields 14 and 15
    std::istringstream fields(
        testutil::ReadFile(stat_path).substr(testutil::ReadFile(stat_path).rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i >= 14) ticks += std::stol(field);
    }
    return ticks;
  };
  const long ticks_before = cpu_ticks();
  // Two seconds in which a spinning loop would log thousands of lines and burn the CPU.
  EXPECT_FALSE(testutil::WaitUntil([&] { return CountInLog(shortage) > 1; }, seconds(2)));
  EXPECT_LT(cpu_ticks() - ticks_before, ::sysconf(_SC_CLK_TCK) / 2) << "ticks of CPU time";
  EXPECT_EQ(CountInLog("(accept)"), 0u);
  clients.clear();
  Client late(port_, "127.0.0.1", 0, 10);
  EXPECT_EQ(late.Login(kPassword), "+OK Login successful\r\n");
}

// The built-in password admits loopback clients only; three wrong passwords end a session and
// ten failures from one address within a minute refuse it. 127.0.0.2 stands in for a remote host.
TEST_F(NorvanedTest, DefaultPasswordAdmitsLoopbackOnlyAndGuessesAreBraked) {
  WriteConfig();
  const std::string config = home_.File("Norvane.cf");
  ASSERT_EQ(::chmod(config.c_str(), 0644), 0);
  Start();
  const std::string warnings[] = {
      config + " may be read by every user (mode 0644) and holds the ports' passwords; chmod o-r " +
          config,
      "port 1 (Monitoring, 127.0.0.1:" + std::to_string(port_) +
          ") keeps the built-in default password, so it admits logins from 127.0.0.1 and ::1 "
          "only; set a Password of its own to serve other hosts"};
  EXPECT_EQ(output_,
            "norvaned: warning: " + warnings[0] + "\nnorvaned: warning: " + warnings[1] + "\n");
  for (std::string warning : warnings) {
    warning[0] = static_cast<char>(std::toupper(warning[0]));
    EXPECT_EQ(CountInLog("WARNING: " + warning + "\n"), 1u) << warning;
  }
  ASSERT_TRUE(WaitForPort());
  EXPECT_EQ(Client(port_, "127.0.0.2").Login(kPassword), kLoginFailed);
  EXPECT_EQ(Client(port_).Login(kPassword), "+OK Login successful\r\n");
  for (int session = 0; session < 3; ++session) {
    Client guesser(port_, "127.0.0.2");
    EXPECT_EQ(guesser.Login("guess1"), kLoginFailed);
    for (const char* guess : {"pass guess2\r\n", "pass guess3\r\n"}) {
      guesser.Send(guess);
      EXPECT_EQ(guesser.Receive(), kLoginFailed);
    }
    EXPECT_EQ(guesser.Receive(), "<closed>");
  }
  EXPECT_EQ(Client(port_).Login(kPassword), "+OK Login successful\r\n");
  ASSERT_TRUE(WaitForLog("Refusing logins from 127.0.0.2 for 60 s after 10 failed logins\n"));
  EXPECT_EQ(CountInLog("Refusing logins"), 1u);
  EXPECT_EQ(CountInLog("Login failed: user \"logwatcher\" from 127.0.0.2 (the default password "
                       "admits loopback clients only)\n"),
            1u);
  EXPECT_EQ(CountInLog("Login failed: user \"logwatcher\" from 127.0.0.2 (wrong password)\n"), 9u);
  EXPECT_EQ(CountInLog("Closing after 3 failed logins\n"), 3u);
  EXPECT_EQ(CountInLog("guess"), 0u);
}
