// The real norvaned binary as an operator runs it (Daemon): start-up and its log, the
// configuration check, exit statuses and signals, a whole session, and clients that try to
// exhaust it or log in from afar.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWProduct.h"
#include "TestUtil.h"

namespace {

using namespace testutil;  // the shared helpers

const std::string kGreeting = "Norvane Monitoring Service Ready.\r\n";
const std::string kPassword = "Kem01&*sB";
const std::string kLoggedIn = "+OK Login successful\r\n";
const std::string kLoginFailed = "-ERR Login failed (invalid password)\r\n";
const std::string kParseHint =
    "; settings are lines Key=value under a [section] header; fix the line and test the file "
    "with norvaned --check";
const std::string kPortHint =
    "; set it in the port's section (Norvane.cf.example describes every setting)";

class NorvanedTest : public ::testing::Test {
 protected:
  std::string Port() const { return std::to_string(daemon_.Port()); }
  std::string Name() const { return "Norvane " + FWProduct::GetVersion(); }
  Daemon daemon_;
};

}  // namespace

// A whole session and its audit trail, between the start (its files and start-up lines, whose
// wording the session manager's tests check line by line) and the stop.
TEST_F(NorvanedTest, StartsInItsOwnDirectoryServesASessionWithItsAuditTrailAndStopsOnSigterm) {
  const std::string logs = daemon_.Logs().Path();
  WriteFile(logs + "/restart.log", "old line\n");
  WriteFile(logs + "/notes.txt", "");
  WriteFile(logs + "/other.dat", "");
  daemon_.WriteConfig("", "Password=own-Secret-7\nSearchPattern=*.log *.txt\n");
  std::string output;
  daemon_.Start(&output);
  EXPECT_EQ(output, "") << "a good start prints nothing";  // own password, private file
  EXPECT_EQ(ReadFile(daemon_.Home().File("Norvane.pid")), std::to_string(daemon_.Pid()) + "\n");
  for (const char* name : {"Norvane.log", "Norvane.pid"}) {
    struct stat st {};
    ASSERT_EQ(::stat(daemon_.Home().File(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u) << name;
  }
  // The configuration as read, without its blank lines and with the password masked.
  const std::vector<std::string> start = Lines(
      Name() + " starting ...\n" + std::string(60, '-') +
      "\nConfiguration:\n    FileVersion=1.0\n    [SessionManager]\n"
      "    [SessionManager\\Ports\\MonitoringPort]\n    DocumentRoot=\"" +
      logs + "\"\n    IncomingPort=\"" + Port() +
      "\"\n    IncomingServer=\"127.0.0.1\"\n    Password=\"********\"\n    SearchPattern=\"*.log "
      "*.txt\"\n" +
      Name() + " listening on 127.0.0.1:" + Port() + "\n");
  std::vector<std::string> lines = daemon_.LogLines();
  std::erase(lines, "    ");
  const auto config = std::find(lines.begin(), lines.end(), "Configuration:");
  ASSERT_TRUE(lines.size() > 2 && config != lines.end() && config + 9 < lines.end())
      << daemon_.Log();
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 1, lines.begin() + 3),
            std::vector<std::string>(start.begin(), start.begin() + 2));
  EXPECT_EQ(std::vector<std::string>(config, config + 10),
            std::vector<std::string>(start.begin() + 2, start.end()));

  FeedPeer client(daemon_.Port());
  const std::string started = "+OK start transmitting " + logs + "/restart.log\r\n";
  // Each command and the replies it gets, in order; "" sends nothing.
  const std::vector<std::pair<std::string, std::vector<std::string>>> dialogue = {
      {"", {kGreeting}},
      {"user logwatcher\r\n", {"+OK\r\n"}},
      {"pass own-Secret-7\r\n", {kLoggedIn}},
      {"list\r\n", {"notes.txt\r\n", "restart.log\r\n", "+OK\r\n"}},
      {"start restart.log\r\n", {started}},
  };
  for (const auto& [command, replies] : dialogue) {
    if (!command.empty()) client.Send(command);
    for (const std::string& reply : replies) EXPECT_EQ(client.Receive(), reply) << command;
  }
  // Appended after the reply: new, so it arrives, with the daemon's line end.
  WriteFile(logs + "/restart.log", "new line\n", true);
  EXPECT_EQ(client.Receive(), "new line\r\n");
  for (const auto& [command, reply] : std::vector<std::pair<std::string, std::string>>{
           {"stop\r\n", "+OK logfile transmission stopped\r\n"},
           {"start ../../../etc/passwd\r\n", "-ERR invalid logfile name\r\n"},
           {"quit\r\n", "+OK closing connection\r\n"}}) {
    client.Send(command);
    EXPECT_EQ(client.Receive(), reply);
  }
  EXPECT_EQ(client.Receive(), "<closed>");

  EXPECT_EQ(daemon_.Stop(SIGTERM), 0);
  EXPECT_FALSE(FileExists(daemon_.Home().File("Norvane.pid")));
  const std::string log = daemon_.Log();
  EXPECT_EQ(Count(log, "own-Secret-7"), 0u);
  const std::size_t login = log.find(": Login of user");
  ASSERT_NE(login, std::string::npos) << log;
  const std::size_t at = log.rfind("Session ", login);
  const std::string session = log.substr(at, login + 2 - at);
  const std::string path = "\"" + logs + "/restart.log\" from 127.0.0.1";
  for (const std::string& line :
       {std::string("Login of user \"logwatcher\" from 127.0.0.1\n"), "Start " + path + "\n",
        "Stop " + path + "\n", std::string("Refused name \"../../../etc/passwd\" from 127.0.0.1\n"),
        std::string("Connection from 127.0.0.1 ended, ")}) {
    EXPECT_EQ(Count(log, session + line), 1u) << session + line;
  }
  lines = daemon_.LogLines();
  EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()),
            (std::vector<std::string>{"Going down on signal 15", Name() + " shutting down"}));
}

TEST_F(NorvanedTest, ForegroundLogsToStandardErrorAndSignalsEndItAlsoDuringStartUp) {
  daemon_.WriteConfig("MaxLogFileSize=700\n");
  const std::string early = daemon_.Home().File("early");
  {
    // SIGTERM as soon as the handler is installed, while the daemon is still starting.
    ChildProcess foreground(daemon_.Binary(), {"--foreground"},
                            {daemon_.Elsewhere().Path(), early});
    const auto catches_sigterm = [&] {
      const std::string status = ReadFile("/proc/" + std::to_string(foreground.Pid()) + "/status");
      const std::size_t at = status.find("SigCgt:\t");
      return at != std::string::npos &&
             (std::stoull(status.substr(at + 8, 16), nullptr, 16) & (1ull << (SIGTERM - 1))) != 0;
    };
    ASSERT_TRUE(WaitUntil(catches_sigterm, seconds(20)));
    foreground.Signal(SIGTERM);
    EXPECT_EQ(foreground.Wait(), 0) << "SIGTERM during start-up was forgotten";
    EXPECT_NE(ReadFile(early).find(" Going down on signal 15\n"), std::string::npos);
  }
  // Started by its bare name through PATH, it keeps the directory it inherits: its log is there,
  // and no pid file anywhere. The log rotates by size: the start-up lines pass 700 bytes, so the
  // start of the run is in the backup and its end is not.
  const TempDir& elsewhere = daemon_.Elsewhere();
  std::filesystem::rename(daemon_.Config(), elsewhere.File("Norvane.cf"));
  std::filesystem::remove(daemon_.Home().File("Norvane.log"));
  const std::string late = daemon_.Home().File("late");
  ChildProcess foreground("norvaned", {"-f"},
                          {elsewhere.Path(), late, "", "", {{"PATH", daemon_.Home().Path()}}});
  // A greeting comes from the serving loop, which starts after the pid file would be written.
  ASSERT_TRUE(WaitUntil([&] {
    FeedPeer client(daemon_.Port());
    return client.Connected() && client.Receive() == kGreeting;
  })) << ReadFile(late);
  for (const std::string& file : {daemon_.Home().File("Norvane.pid"), elsewhere.File("Norvane.pid"),
                                  daemon_.Home().File("Norvane.log")}) {
    EXPECT_FALSE(FileExists(file)) << file;
  }
  foreground.Signal(SIGINT);
  EXPECT_EQ(foreground.Wait(), 0);
  const std::vector<std::string> lines = Lines(ReadFile(late), 23);
  for (const std::string& line :
       {Name() + " listening on 127.0.0.1:" + Port(), std::string("Going down on signal 2"),
        Name() + " shutting down"}) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line << "\n" << ReadFile(late);
  }
  const std::string log = ReadFile(elsewhere.File("Norvane.log"));
  EXPECT_NE(ReadFile(elsewhere.File("Norvane.log~")).find(" starting ...\n"), std::string::npos);
  EXPECT_EQ(Count(log, " starting ...\n"), 0u) << log;
  EXPECT_EQ(Count(log, " Going down on signal 2\n"), 1u) << log;
}

TEST_F(NorvanedTest, WithoutConfigurationItSaysSoAndRunsOnDefaultsWithoutPorts) {
  std::string output;
  daemon_.Start(&output);
  const std::string config = daemon_.Config();
  EXPECT_EQ(output, "norvaned: no configuration file " + config +
                        ": running on the defaults; copy Norvane.cf.example there and set "
                        "DocumentRoot and Password\nnorvaned: " +
                        config +
                        ": no port is configured, so norvaned serves nothing; add a "
                        "[SessionManager\\Ports\\MonitoringPort] section\n");
  EXPECT_EQ(daemon_.CountInLog(" listening on "), 0u);
  EXPECT_EQ(daemon_.Stop(SIGTERM), 0);
  EXPECT_EQ(daemon_.LogLines().back(), Name() + " shutting down");
}

TEST_F(NorvanedTest, StartupFailuresArePrintedAndLoggedAndEndWithStatusOneWithoutDetaching) {
  LoopbackListener taken;
  const std::string config = daemon_.Config();
  const std::string port =
      "[SessionManager\\Ports\\MonitoringPort]\nIncomingServer=127.0.0.1\nIncomingPort=";
  const std::string section = "FileVersion=1.0\n[SessionManager]\n" + port;
  const std::string gone = daemon_.Logs().File("gone");
  const std::string in_use = std::to_string(taken.Port());
  const struct {
    std::string config;
    std::string message;
    std::size_t listening;  // lines " listening on 127.0.0.1:<Port()>"
  } cases[] = {
      {"FileVersion=1.0\n[SessionManager]\nMaxLogFileDays 3\n",
       config + ":3: Parse operation failed (parse error: MaxLogFileDays 3)" + kParseHint, 0},
      {section + Port() + "\nDocumentRoot=" + gone + "\n",
       config + ": port 1 (Monitoring, 127.0.0.1:" + Port() + "): Log File Path " + gone +
           " is not a readable directory (No such file or directory)" + kPortHint,
       0},
      // Start-up ends at the port in use; the one before it listened.
      {section + Port() + "\nDocumentRoot=/\n" + port + in_use + "\nDocumentRoot=/\n",
       "can't listen on 127.0.0.1:" + in_use + " (port 2 of " + config +
           "): (bind) Address already in use; another program listens there (ss -ltnp shows "
           "which): stop it or choose another IncomingPort",
       1},
  };
  for (const auto& [text, message, listening] : cases) {
    SCOPED_TRACE(message);
    WriteFile(config, text);
    std::filesystem::remove(daemon_.Home().File("Norvane.log"));
    std::string output;
    EXPECT_EQ(daemon_.Run({}, &output), 1);
    EXPECT_EQ(output, "norvaned: " + message + "\n");
    std::string logged = message;  // the log starts every entry with a capital
    logged[0] = static_cast<char>(std::toupper(logged[0]));
    EXPECT_EQ(daemon_.CountInLog(logged + "\n"), 1u) << daemon_.Log();
    EXPECT_EQ(daemon_.CountInLog(" listening on "), listening);
    EXPECT_EQ(daemon_.CountInLog(" listening on 127.0.0.1:" + Port() + "\n"), listening);
    EXPECT_FALSE(FileExists(daemon_.Home().File("Norvane.pid")));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a daemon detached";
  }
  // A log that cannot be created (here a link into a missing directory) is a failure too.
  const std::string log = daemon_.Home().File("Norvane.log");
  std::filesystem::remove(log);
  ASSERT_EQ(::symlink(daemon_.Home().File("missing/x").c_str(), log.c_str()), 0);
  std::string output;
  EXPECT_EQ(daemon_.Run({}, &output), 1);
  EXPECT_EQ(output, "norvaned: can't open the log " + log +
                        " (No such file or directory); the directory must be writable by the user "
                        "running norvaned\n");
}

// --check reads the file as the daemon would (comments, indentation, blanks around "=", quotes
// or none, several ports), prints what it would serve or what is wrong, and starts nothing.
TEST_F(NorvanedTest, CheckPrintsWhatItWouldServeOrWhatIsWrong) {
  daemon_.WriteConfig();
  const std::string good = ReadFile(daemon_.Config());
  const std::string cf = daemon_.Elsewhere().File("t.cf");
  const std::string head = "FileVersion=1.0\n[SessionManager]\n";
  const std::string port = head + "[SessionManager\\Ports\\MonitoringPort]\n";
  const std::string logs = daemon_.Logs().Path();
  const std::string all = "Monitoring, <all interfaces>:";
  const struct {
    std::string text;  // written to t.cf, named with -c
    std::string args;  // "" for "-c t.cf", relative to the directory it is started from
    int code;
    std::string output;
  } cases[] = {
      {good, "", 0,
       cf + ": configuration OK, 1 port(s)\n  Monitoring on 127.0.0.1:" + Port() + " serves " +
           logs + " (*.log)\nwarning: port 1 (Monitoring, 127.0.0.1:" + Port() +
           ") keeps the built-in default password, so it admits logins from 127.0.0.1 and ::1 "
           "only; set a Password of its own to serve other hosts\n"},
      {"; by hand\n  # two ports\n   FileVersion=\"1.0\"\n\n[SessionManager]\n\t"
       "[SessionManager\\Ports\\MonitoringPort]\n  DocumentRoot = " +
           logs + "\nIncomingPort=  \"9090\"\nPassword=p\nSearchPattern=\"*.log syslog\"\n" +
           "[SessionManager\\Ports\\MonitoringPort]\nName = Second\nDocumentRoot=\"/\"\n" +
           "Password=q\nColour=blue\n",
       "", 0,
       "norvaned: " + cf + ": ERROR: Invalid configuration option (Colour)\n" + cf +
           ": configuration OK, 2 port(s)\n  Monitoring on <all interfaces>:9090 serves " + logs +
           " (*.log syslog)\n  Second on <all interfaces>:9080 serves / (*.log)\n"},
      {head + "x\n", "", 1,
       "norvaned: " + cf + ":3: Parse operation failed (parse error: x)" + kParseHint + "\n"},
      {port + "Password=\nSearchPattern=\nIncomingPort=\n", "", 1,
       "norvaned: " + cf + ": port 1 (" + all + "): Password must not be empty" + kPortHint +
           "\nnorvaned: " + cf + ": port 1 (" + all +
           "): Log File Search Pattern must not be empty" + kPortHint + "\nnorvaned: " + cf +
           ": port 1 (" + all + "): Log File Path must not be empty" + kPortHint + "\nnorvaned: " +
           cf + ": port 1 (" + all + "): Port must not be empty" + kPortHint + "\n"},
      {"", "-c missing.cf", 1,
       "norvaned: " + daemon_.Elsewhere().File("missing.cf") + ": Cannot open file " +
           daemon_.Elsewhere().File("missing.cf") +
           " mode=read (No such file or directory); name an existing file that the user "
           "running norvaned may read\n"},
      {"", "--bogus", 2, "norvaned: unknown option --bogus (norvaned --help lists the options)\n"},
      {"", "-c", 2, "norvaned: -c needs an argument (norvaned --help lists the options)\n"},
      {"", "x", 2, "norvaned: unexpected argument \"x\" (norvaned --help lists the options)\n"},
  };
  for (const auto& [text, args, code, expected] : cases) {
    SCOPED_TRACE(expected);
    WriteFile(cf, text);
    ASSERT_EQ(::chmod(cf.c_str(), 0600), 0);
    std::vector<std::string> all_args = {"--check"};
    std::istringstream words(args.empty() ? "-c t.cf" : args);
    for (std::string word; words >> word;) all_args.push_back(word);
    std::string output;
    EXPECT_EQ(daemon_.Run(all_args, &output), code);
    EXPECT_EQ(output, expected);
  }
  std::string output;
  EXPECT_EQ(daemon_.Run({"--version"}, &output), 0);
  EXPECT_EQ(output.rfind("norvaned " + FWProduct::GetVersion() + " (built ", 0), 0u) << output;
  EXPECT_FALSE(FileExists(daemon_.Home().File("Norvane.log")));
}

// ---- Clients that try to exhaust or break in ----

// The soft limit of 32 is raised to the hard limit of 64, which holds 28 sessions (8 are the
// daemon's own); lowered to 16 after start, accepts fail: the daemon logs that once, stops
// accepting for a moment instead of spinning, and serves again once descriptors are free.
TEST_F(NorvanedTest, OutOfDescriptorsItSaysSoWaitsWithoutSpinningAndRecovers) {
  daemon_.WriteConfig();
  daemon_.Start(nullptr, {"/usr/bin/prlimit", "--nofile=32:64"});
  EXPECT_TRUE(daemon_.WaitForLog("Descriptor limit 64 (hard limit 64) holds only 28 sessions"));
  const rlimit tiny{16, 16};
  ASSERT_EQ(::prlimit(daemon_.Pid(), RLIMIT_NOFILE, &tiny, nullptr), 0);
  std::vector<std::unique_ptr<FeedPeer>> clients;
  for (int i = 0; i < 16; ++i) clients.push_back(std::make_unique<FeedPeer>(daemon_.Port()));
  const std::string shortage = "Too many open files; new connections wait";
  ASSERT_TRUE(daemon_.WaitForLog(shortage));
  const auto cpu_ticks = [&] {  // utime + stime, fields 14 and 15 of /proc/<pid>/stat
    const std::string stat = ReadFile("/proc/" + std::to_string(daemon_.Pid()) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) ticks += i >= 14 ? std::stol(field) : 0;
    return ticks;
  };
  const long ticks_before = cpu_ticks();
  // Two seconds in which a spinning loop would log thousands of lines and burn the CPU.
  EXPECT_FALSE(WaitUntil([&] { return daemon_.CountInLog(shortage) > 1; }, seconds(2)));
  EXPECT_LT(cpu_ticks() - ticks_before, ::sysconf(_SC_CLK_TCK) / 2) << "ticks of CPU time";
  EXPECT_EQ(daemon_.CountInLog("(accept)"), 0u);
  clients.clear();
  EXPECT_EQ(FeedPeer(daemon_.Port()).Login(kPassword), kLoggedIn);
}

// The built-in password admits loopback clients only (the session's own tests cover wrong
// passwords, their brake and oversized frames). 127.0.0.2 stands in for a remote host.
TEST_F(NorvanedTest, DefaultPasswordIsWarnedAboutAndAdmitsLoopbackClientsOnly) {
  daemon_.WriteConfig();
  const std::string config = daemon_.Config();
  ASSERT_EQ(::chmod(config.c_str(), 0644), 0);
  std::string output;
  daemon_.Start(&output);
  const std::string warnings[] = {
      config + " may be read by every user (mode 0644) and holds the ports' passwords; chmod o-r " +
          config,
      "port 1 (Monitoring, 127.0.0.1:" + Port() +
          ") keeps the built-in default password, so it admits logins from 127.0.0.1 and ::1 "
          "only; set a Password of its own to serve other hosts"};
  EXPECT_EQ(output,
            "norvaned: warning: " + warnings[0] + "\nnorvaned: warning: " + warnings[1] + "\n");
  for (std::string warning : warnings) {
    warning[0] = static_cast<char>(std::toupper(warning[0]));
    EXPECT_EQ(daemon_.CountInLog("WARNING: " + warning + "\n"), 1u) << warning;
  }
  EXPECT_EQ(FeedPeer(daemon_.Port(), "127.0.0.2").Login(kPassword), kLoginFailed);
  EXPECT_EQ(FeedPeer(daemon_.Port()).Login(kPassword), kLoggedIn);
  EXPECT_TRUE(daemon_.WaitForLog(
      "Login failed: user \"logwatcher\" from 127.0.0.2 (the default password admits loopback "
      "clients only)\n"));
}
