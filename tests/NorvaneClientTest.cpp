// The norvane client: its argument rules, and the norvane binary reading a feed from a daemon
// played by the test (FeedPeer) that decides every message boundary, or from the real
// norvaned binary (Daemon).
#include "NorvaneClient.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWProduct.h"
#include "TestUtil.h"

namespace {

using namespace testutil;  // the shared helpers

const std::string kGreeting = "Norvane Monitoring Service Ready.\r\n";

// A finished run of the norvane binary.
struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

// The daemon's side of a dialogue: each reply is sent (unless empty), then the client's next
// command must be the one given (unless empty).
void Play(FeedPeer& daemon, const std::vector<std::pair<std::string, std::string>>& steps) {
  for (const auto& [reply, command] : steps) {
    if (!reply.empty()) daemon.Send(reply);
    if (!command.empty()) {
      EXPECT_EQ(daemon.Receive(), command) << "after " << reply;
    }
  }
}

// Greeting and login of user logwatcher with password "secret", then the command that follows.
std::vector<std::pair<std::string, std::string>> LoginThen(const std::string& command) {
  return {{kGreeting, "user logwatcher\r\n"},
          {"+OK\r\n", "pass secret\r\n"},
          {"+OK Login successful\r\n", command}};
}

class NorvaneClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (terminal_ >= 0) ::close(terminal_);
  }

  // ---- The real binaries ----

  void StartDaemon() {
    daemon_.WriteConfig();
    daemon_.Start();
  }
  std::string Port() const { return std::to_string(daemon_.Port()); }
  std::string Source() const { return "127.0.0.1:" + Port() + "/"; }

  // Starts the norvane binary with standard input from /dev/null and its output in files (or
  // standard output on the terminal of OpenTerminal); password "" for none.
  void StartClient(const std::vector<std::string>& args, const std::string& password = "Kem01&*sB",
                   const std::string& no_colour = "") {
    client_.reset();
    client_ = std::make_unique<ChildProcess>(
        NORVANE_BINARY, args,
        ChildProcess::Setup{"",
                            Path("out"),
                            Path("err"),
                            terminal_ >= 0 ? ::ptsname(terminal_) : "",
                            {{"NORVANE_PASSWORD", password}, {"NO_COLOR", no_colour}}});
  }
  void Signal(int sig) { client_->Signal(sig); }
  // Waits (bounded) for the client to end; code -1 when it did not.
  Outcome WaitClient() { return Outcome{client_->Wait(), Out(), Err()}; }
  Outcome RunClient(const std::vector<std::string>& args,
                    const std::string& password = "Kem01&*sB") {
    StartClient(args, password);
    return WaitClient();
  }

  // The daemon sends only what is appended after its first look at the file, which comes some
  // time after "start": append marker lines until one shows in the output. What follows is then
  // appended after that look. A marker that arrives late is removed by WithoutMarkers.
  void Synchronize(const std::string& file, const std::string& marker = "sync") {
    for (int i = 0; i < 20 && Out().find(marker + " ") == std::string::npos; ++i) {
      Append(file, marker + " " + std::to_string(i) + "\n");
      WaitUntil([&] { return Out().find(marker + " ") != std::string::npos; },
                std::chrono::milliseconds(1500));
    }
    EXPECT_NE(Out().find(marker + " "), std::string::npos) << "no data arrived: " << Err();
  }
  static std::string WithoutMarkers(const std::string& out) {
    std::string kept;
    for (const std::string& line : Lines(out + "\n")) {
      if (line.find("sync") == std::string::npos) kept += line + "\n";
    }
    return kept.substr(0, kept.size() - 1);
  }
  bool WaitForOutput(const std::string& text, int wait_seconds = 15) {
    return WaitUntil([&] { return Out().find(text) != std::string::npos; }, seconds(wait_seconds));
  }
  void Append(const std::string& file, const std::string& text) {
    WriteFile(daemon_.Logs().File(file), text, true);
  }

  // A pseudo-terminal for the client's standard output: what it shows arrives in terminal_out_.
  void OpenTerminal() {
    terminal_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal_, 0);
    ASSERT_EQ(::grantpt(terminal_), 0);
    ASSERT_EQ(::unlockpt(terminal_), 0);
  }
  bool WaitForTerminal(const std::string& text) {
    return WaitUntil(
        [&] {
          pollfd entry{terminal_, POLLIN, 0};
          char buffer[4096];
          if (::poll(&entry, 1, 100) == 1) {
            const ssize_t got = ::read(terminal_, buffer, sizeof(buffer));
            if (got > 0) terminal_out_.append(buffer, static_cast<std::size_t>(got));
          }
          return terminal_out_.find(text) != std::string::npos;
        },
        seconds(15));
  }

  std::string Path(const std::string& name) const { return files_.File(name); }
  std::string Out() const { return ReadFile(Path("out")); }
  std::string Err() const { return ReadFile(Path("err")); }

  Daemon daemon_;
  TempDir files_;
  std::unique_ptr<ChildProcess> client_;
  int terminal_ = -1;
  std::string terminal_out_;
};

}  // namespace

// ---- Arguments ----

TEST_F(NorvaneClientTest, TailTargetsTakeTheDaemonOnlyWhenAColonComesBeforeTheFirstSlash) {
  const NorvaneClient::Target defaults{"127.0.0.1", 9080, ""};
  // The argument and what it names, "host|port|file", or the error.
  const std::pair<std::string, std::string> cases[] = {
      {"app.log", "127.0.0.1|9080|app.log"},
      {"nginx/access.log", "127.0.0.1|9080|nginx/access.log"},
      {"web1:9081/access.log", "web1|9081|access.log"},
      {"web1:/a/b.log", "web1|9080|a/b.log"},
      {":9082/x.log", "127.0.0.1|9082|x.log"},
      {"a:b.log", "127.0.0.1|9080|a:b.log"},
      {"h:65535/x", "h|65535|x"},
      {"h:65536/x", "bad port \"65536\" (expected 1 to 65535) in \"h:65536/x\""},
      {"h:0/x", "bad port \"0\" (expected 1 to 65535) in \"h:0/x\""},
      {"h:80x/x", "bad port \"80x\" (expected 1 to 65535) in \"h:80x/x\""},
      {"h:80/", "no file name in \"h:80/\""},
  };
  for (const auto& [text, expected] : cases) {
    NorvaneClient::Target target;
    std::string error;
    const bool parsed = NorvaneClient::ParseTailTarget(text, defaults, &target, &error);
    EXPECT_EQ(parsed ? target.host + "|" + std::to_string(target.port) + "|" + target.file : error,
              expected)
        << text;
  }
  NorvaneClient::Target target;
  std::string error;
  ASSERT_TRUE(NorvaneClient::ParseDaemon("web2", defaults, &target, &error));
  EXPECT_EQ(NorvaneClient::Label(target), "web2:9080/: ");
}

// ---- Against a daemon played by the test ----

TEST_F(NorvaneClientTest, DataIsToldFromRepliesByOrderAndTheEndByTheClose) {
  FeedPeer daemon;
  StartClient({"tail", "-q", "-p", std::to_string(daemon.Port()), "app.log"}, "secret");
  ASSERT_TRUE(daemon.Accept());
  Play(daemon, LoginThen("start app.log\r\n"));
  daemon.Send("+OK start transmitting /logs/app.log\r\n");
  daemon.Send("+OK looks like a reply\r\n-ERR so does this\r\n");
  daemon.Send("half ");
  daemon.Send("line\r");  // the "\r\n" itself is split over two messages
  daemon.Send("\nlast\r\n");
  ASSERT_TRUE(WaitForOutput("last\n"));
  Signal(SIGINT);
  EXPECT_EQ(daemon.Receive(), "stop\r\n");
  EXPECT_EQ(daemon.Receive(), "quit\r\n");
  // Data still in flight that reads exactly like the two replies, then more data: all data.
  for (const char* message :
       {"+OK logfile transmission stopped\r\n", "+OK closing connection\r\n",
        "+OK logfile transmission stopped\r\n", "after\r\n", "+OK logfile transmission stopped\r\n",
        "+OK closing connection\r\n"}) {
    daemon.Send(message);
  }
  daemon.Close();
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "+OK looks like a reply\n-ERR so does this\nhalf line\nlast\n"
            "+OK logfile transmission stopped\n+OK closing connection\n"
            "+OK logfile transmission stopped\nafter\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(NorvaneClientTest, SilentDaemonAndBrokenRepliesEndWithTheirCodes) {
  {
    FeedPeer silent;
    StartClient({"list", "-t", "1", "-p", std::to_string(silent.Port())}, "secret");
    ASSERT_TRUE(silent.Accept());  // and never greets
    const Outcome outcome = WaitClient();
    EXPECT_EQ(outcome.code, 6);
    EXPECT_EQ(outcome.err, "norvane: 127.0.0.1:" + std::to_string(silent.Port()) +
                               ": daemon stopped answering (no reply within 1 s)\n");
  }
  FeedPeer odd;
  StartClient({"list", "-p", std::to_string(odd.Port())}, "secret");
  ASSERT_TRUE(odd.Accept());
  // A hostile reply: escaped, and cut to 200 bytes.
  Play(odd, {{kGreeting, "user logwatcher\r\n"},
             {"-ERR \x1b]0;pwned\x07" + std::string(300, 'x') + "\r\n", ""}});
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 7);
  EXPECT_EQ(outcome.err, "norvane: 127.0.0.1:" + std::to_string(odd.Port()) +
                             ": unexpected reply \"-ERR \\x1b]0;pwned\\x07" +
                             std::string(185, 'x') + "\" (cut to 200 bytes)\n");
}

TEST_F(NorvaneClientTest, BacklogAgainstAnOlderDaemonWarnsOnceAndFollowsUntilTheConnectionIsLost) {
  FeedPeer daemon;
  StartClient({"tail", "-q", "-n", "5", "-p", std::to_string(daemon.Port()), "app.log"}, "secret");
  ASSERT_TRUE(daemon.Accept());
  Play(daemon, LoginThen("backlog 5 app.log\r\n"));
  Play(daemon, {{"-ERR unrecognized command\r\n", "start app.log\r\n"},
                {"+OK start transmitting /logs/app.log\r\n", ""},
                {"+FEED 1 2 3\r\nnew line\r\nunfinished", ""}});  // data to an old client
  ASSERT_TRUE(WaitForOutput("unfinished"));
  daemon.Close();
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 3);
  EXPECT_EQ(outcome.out, "+FEED 1 2 3\nnew line\nunfinished");
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
  WriteFile(daemon_.Logs().File("app.log"), hundred);
  StartDaemon();
  StartClient({"tail", "-q", "-p", Port(), "-n", "5", "app.log"});
  ASSERT_TRUE(WaitForOutput("line 100\n")) << Err();
  Append("app.log", "after 1\n");
  ASSERT_TRUE(WaitForOutput("after 1\n")) << Out();
  Signal(SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "line 96\nline 97\nline 98\nline 99\nline 100\nafter 1\n");
  EXPECT_EQ(outcome.err, "");
}

// Lines written while the daemon is down arrive once; a file rotated meanwhile is announced.
TEST_F(NorvaneClientTest, RetryResumesAcrossDaemonRestartsAndReportsARotation) {
  WriteFile(daemon_.Logs().File("app.log"), "old\n");
  StartDaemon();
  StartClient({"tail", "-F", "-q", "-p", Port(), "app.log"});
  Synchronize("app.log");
  ASSERT_EQ(daemon_.Stop(SIGTERM), 0);
  Append("app.log", "while down\nunfinished ");
  daemon_.Start();
  ASSERT_TRUE(WaitForOutput("while down\nunfinished ")) << Err();
  Append("app.log", "line\n");
  ASSERT_TRUE(WaitForOutput("unfinished line\n")) << Err();
  ASSERT_NE(daemon_.Stop(SIGKILL), -1);
  std::filesystem::rename(daemon_.Logs().File("app.log"), daemon_.Logs().File("app.log.1"));
  WriteFile(daemon_.Logs().File("app.log"), "rotated\n");
  daemon_.Start();
  ASSERT_TRUE(WaitForOutput("rotated\n")) << Err();
  Signal(SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(WithoutMarkers(outcome.out), "while down\nunfinished line\nrotated\n");
  const std::string where = "norvane: " + Source() + "app.log: ";
  EXPECT_EQ(outcome.err.find(where), 0u) << outcome.err;
  for (const char* notice :
       {"connection lost: the daemon closed the connection; connecting again in 1 s\n",
        "the file was rotated meanwhile; following it from its first byte\n"}) {
    EXPECT_NE(outcome.err.find(where + notice), std::string::npos) << outcome.err;
  }
}

TEST_F(NorvaneClientTest, ListPrintsTheOfferedFilesOnePerLine) {
  WriteFile(daemon_.Logs().File("b.log"), "");
  WriteFile(daemon_.Logs().File("a.log"), "x\n");
  std::filesystem::create_directory(daemon_.Logs().File("sub"));
  WriteFile(daemon_.Logs().File("sub/c.log"), "");
  StartDaemon();
  Outcome outcome = RunClient({"list", "--port", Port()});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "a.log\nb.log\nsub/c.log\n");
  EXPECT_EQ(outcome.err, "");
  // Two daemons (here the same one twice): names in the form tail takes.
  outcome = RunClient({"list", "127.0.0.1:" + Port(), "localhost:" + Port()});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  std::string expected;
  for (const std::string host : {"127.0.0.1:", "localhost:"}) {
    for (const char* name : {"a.log", "b.log", "sub/c.log"})
      expected += host + Port() + "/" + name + "\n";
  }
  EXPECT_EQ(outcome.out, expected);
  EXPECT_EQ(daemon_.Log().find("closed by client"), std::string::npos) << daemon_.Log();
}

TEST_F(NorvaneClientTest, TailWritesAppendedLinesAndCtrlCQuitsCleanly) {
  WriteFile(daemon_.Logs().File("app.log"), "old line, not sent\n");
  StartDaemon();
  StartClient({"tail", "-p", Port(), "app.log"});
  ASSERT_TRUE(WaitUntil([&] { return Err().find("following") != std::string::npos; }, seconds(15)));
  EXPECT_EQ(Err(),
            "norvane: " + Source() + "app.log: following " + daemon_.Logs().Path() + "/app.log\n");
  Synchronize("app.log");
  Append("app.log", "+OK not a reply\n-ERR not an error\nfirst half ");
  ASSERT_TRUE(WaitForOutput("first half ")) << Out();  // the half line is written at once
  Append("app.log", "second half\n");
  ASSERT_TRUE(WaitForOutput("second half\n")) << Out();
  Signal(SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(WithoutMarkers(outcome.out),
            "+OK not a reply\n-ERR not an error\nfirst half second half\n");
  EXPECT_EQ(outcome.out.find("old line"), std::string::npos);
  // The daemon saw "quit" and closed the session itself (had the client closed first, the
  // daemon would have logged "Connection closed by client" by the end of a later session).
  EXPECT_EQ(RunClient({"list", "-p", Port()}).code, 0);
  EXPECT_EQ(daemon_.Log().find("closed by client"), std::string::npos) << daemon_.Log();
}

TEST_F(NorvaneClientTest, TwoFilesArePrefixedAndLinesNeverInterleave) {
  WriteFile(daemon_.Logs().File("a.log"), "");
  WriteFile(daemon_.Logs().File("b.log"), "");
  StartDaemon();
  StartClient({"tail", "--port", Port(), "--crlf", "a.log", "b.log"});
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
  Signal(SIGTERM);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  const std::string source = Source();
  EXPECT_EQ(WithoutMarkers(outcome.out),
            source + "b.log: beta 0\r\n" + source + "b.log: beta 1\r\n" + source +
                "a.log: alpha begins and ends\r\n" + source + "b.log: unfinished\r\n");
}

TEST_F(NorvaneClientTest, PatternFollowsEveryMatchAndPicksUpANewFile) {
  for (const char* name : {"a.log", "b.log", "c.log", "sub/d.log"}) {
    std::filesystem::create_directories(
        std::filesystem::path(daemon_.Logs().File(name)).parent_path());
    WriteFile(daemon_.Logs().File(name), std::string(name) + " last\n");
  }
  StartDaemon();
  StartClient({"tail", "-q", "-F", "-n", "1", ":" + Port() + "/*.log"});
  ASSERT_TRUE(WaitUntil(
      [&] {
        const std::string out = Out();
        return std::count(out.begin(), out.end(), '\n') == 3;
      },
      seconds(15)))
      << Out();
  WriteFile(daemon_.Logs().File("e.log"), "e.log first\n");
  // The daemon is asked again 8 s after the first list: a wider bound than other waits.
  ASSERT_TRUE(WaitForOutput("e.log: e.log first\n", 40)) << Err();
  Signal(SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  std::vector<std::string> lines = Lines(outcome.out);
  std::sort(lines.begin(), lines.end());
  const std::string source = Source();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       source + "a.log: a.log last", source + "b.log: b.log last",
                       source + "c.log: c.log last", source + "e.log: e.log first"}));
  EXPECT_EQ(outcome.err, "norvane: " + source + "e.log: new file matching \"*.log\"\n");
}

// On a terminal control characters are shown escaped and source prefixes coloured.
TEST_F(NorvaneClientTest, TerminalShowsControlCharactersEscapedAndPrefixesColoured) {
  WriteFile(daemon_.Logs().File("a.log"), "\x1b]0;pwned\x07 title\n");
  WriteFile(daemon_.Logs().File("b.log"), "\xc2\x9b tab\tbell\x07\n");
  StartDaemon();
  const std::string source = Source();
  OpenTerminal();
  StartClient({"tail", "-q", "-n", "1", "-p", Port(), "a.log", "b.log"});
  // The terminal turns "\n" into "\r\n".
  EXPECT_TRUE(WaitForTerminal("\x1b[36m" + source + "a.log\x1b[0m: \\x1b]0;pwned\\x07 title\r\n"))
      << terminal_out_;
  EXPECT_TRUE(WaitForTerminal("\x1b[33m" + source + "b.log\x1b[0m: \\x9b tab\tbell\\x07\r\n"))
      << terminal_out_;
  Signal(SIGINT);
  EXPECT_EQ(WaitClient().code, 0);
  terminal_out_.clear();
  StartClient({"tail", "-q", "-n", "1", "--raw", "-p", Port(), "a.log", "b.log"}, "Kem01&*sB", "1");
  EXPECT_TRUE(WaitForTerminal(source + "a.log: \x1b]0;pwned\x07 title\r\n")) << terminal_out_;
  Signal(SIGINT);
  EXPECT_EQ(WaitClient().code, 0);
}

TEST_F(NorvaneClientTest, RefusalsAndUsageErrorsHaveTheirMessagesAndCodes) {
  WriteFile(daemon_.Logs().File("app.log"), "");
  StartDaemon();
  const std::string daemon = "norvane: 127.0.0.1:" + Port();
  const std::string again = "\nTry 'norvane --help'.\n";
  const struct {
    std::vector<std::string> args;
    std::string password;
    int code;
    std::string err;
  } cases[] = {
      {{"list", "-p", Port()},
       "wrong",
       4,
       daemon + ": login refused: wrong password for user \"logwatcher\"\n"},
      {{"list", "-p", Port(), "--user", "bob"},
       "Kem01&*sB",
       4,
       daemon + ": login refused: user \"bob\" unknown\n"},
      {{"tail", "-q", "-p", Port(), "missing.log"},
       "Kem01&*sB",
       5,
       daemon + "/missing.log: file not offered by the daemon (-ERR invalid logfile name); "
                "`norvane list` shows the files it offers\n"},
      {{"tail", "-p", Port(), " lead.log"},
       "Kem01&*sB",
       5,
       daemon + "/ lead.log: cannot be requested: the daemon removes leading blanks and line ends "
                "from a name, so \" lead.log\" can never reach it\n"},
      {{"tail", "-p", Port(), "x*"},
       "Kem01&*sB",
       5,
       daemon + "/x*: no file matches; `norvane list` shows the files the daemon offers\n"},
      {{"list", "-p", Port()},
       "",
       2,
       "norvane: no password: give --password, set NORVANE_PASSWORD, or run on a terminal to be "
       "asked" +
           again},
      {{"tail", "--port"}, "Kem01&*sB", 2, "norvane: option --port needs a value" + again},
      {{"tail", "-n", "10001", "app.log"},
       "Kem01&*sB",
       2,
       "norvane: bad line count: 10001 (expected 0 to 10000)" + again},
  };
  for (const auto& [args, password, code, err] : cases) {
    const Outcome outcome = RunClient(args, password);
    EXPECT_EQ(outcome.code, code) << err;
    EXPECT_EQ(outcome.err, err);
  }
  // The refused sessions were still ended with "quit".
  EXPECT_EQ(daemon_.Log().find("closed by client"), std::string::npos) << daemon_.Log();
  Outcome outcome = RunClient({"--help"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_NE(outcome.out.find("  6  the daemon stopped answering"), std::string::npos);
  EXPECT_EQ(RunClient({"--version"}).out, "norvane " + FWProduct::GetVersion() + "\n");

  EXPECT_EQ(daemon_.Stop(SIGTERM), 0);
  outcome = RunClient({"list", "-p", Port()});
  EXPECT_EQ(outcome.code, 3);
  EXPECT_EQ(outcome.err, daemon + ": cannot connect: Connection refused\n");
}
