// The norvane client: its argument rules, and the norvane binary reading a feed from a daemon
// played by the test (FeedPeer) that decides every message boundary, or from the real norvaned
// binary (Daemon).
#include "NorvaneClient.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
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
  // standard output on the terminal_ when one is open); password "" for none.
  void StartClient(const std::vector<std::string>& args, const std::string& password = "Kem01&*sB",
                   const std::string& no_colour = "") {
    client_.reset();
    client_ = std::make_unique<ChildProcess>(
        NORVANE_BINARY, args,
        ChildProcess::Setup{"",
                            files_.File("out"),
                            files_.File("err"),
                            terminal_ >= 0 ? ::ptsname(terminal_) : "",
                            {{"NORVANE_PASSWORD", password}, {"NO_COLOR", no_colour}}});
  }
  // Waits (bounded) for the client to end; code -1 when it did not.
  Outcome WaitClient() { return Outcome{client_->Wait(), Out(), Err()}; }
  Outcome RunClient(const std::vector<std::string>& args,
                    const std::string& password = "Kem01&*sB") {
    StartClient(args, password);
    return WaitClient();
  }

  // Waits for text in standard output.
  bool WaitForOutput(const std::string& text, int wait_seconds = 15) {
    return WaitUntil([&] { return Out().find(text) != std::string::npos; }, seconds(wait_seconds));
  }
  void Append(const std::string& file, const std::string& text) {
    WriteFile(daemon_.Logs().File(file), text, true);
  }

  // What the client shows on the pseudo-terminal terminal_ arrives in terminal_out_.
  bool WaitForTerminal(const std::string& text) {
    return WaitUntil(
        [&] {
          char buffer[4096];
          for (ssize_t got; (got = ::read(terminal_, buffer, sizeof(buffer))) > 0;) {
            terminal_out_.append(buffer, static_cast<std::size_t>(got));
          }
          return terminal_out_.find(text) != std::string::npos;
        },
        seconds(15));
  }

  std::string Out() const { return ReadFile(files_.File("out")); }
  std::string Err() const { return ReadFile(files_.File("err")); }

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
      {"logs/a:b.log", "127.0.0.1|9080|logs/a:b.log"},  // the colon comes after the slash
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
  client_->Signal(SIGINT);
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

// A daemon that never greets, one with a hostile reply (escaped and cut to 200 bytes), and one
// without the backlog extension (a warning, then followed until it closes). In the messages "@"
// stands for "norvane: 127.0.0.1:PORT".
TEST_F(NorvaneClientTest, SilentBrokenAndOlderDaemonsEndWithTheirCodes) {
  using Steps = std::vector<std::pair<std::string, std::string>>;
  Steps older = LoginThen("backlog 5 app.log\r\n");
  older.insert(older.end(), {{"-ERR unrecognized command\r\n", "start app.log\r\n"},
                             {"+OK start transmitting /logs/app.log\r\n", ""},
                             {"+FEED 1 2 3\r\nnew line\r\nunfinished", ""}});
  const std::string hostile = "-ERR \x1b]0;pwned\x07" + std::string(300, 'x') + "\r\n";
  // The daemon closes after the steps when told to; otherwise the client ends first.
  const auto expect = [&](std::vector<std::string> args, const Steps& steps, bool close, int code,
                          const std::string& out, std::string err) {
    FeedPeer daemon;
    args.insert(args.begin() + 1, {"-p", std::to_string(daemon.Port())});
    StartClient(args, "secret");
    ASSERT_TRUE(daemon.Accept());
    Play(daemon, steps);
    if (close) daemon.Close();
    const Outcome outcome = WaitClient();
    for (std::size_t at = 0; (at = err.find('@', at)) != std::string::npos;) {
      err.replace(at, 1, "norvane: 127.0.0.1:" + std::to_string(daemon.Port()));
    }
    EXPECT_EQ(outcome.code, code) << err;
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
  };
  expect({"list", "-t", "1"}, {}, false, 6, "",
         "@: daemon stopped answering (no reply within 1 s)\n");
  expect({"list"}, {{kGreeting, "user logwatcher\r\n"}, {hostile, ""}}, false, 7, "",
         "@: unexpected reply \"-ERR \\x1b]0;pwned\\x07" + std::string(185, 'x') +
             "\" (cut to 200 bytes)\n");
  expect({"tail", "-q", "-n", "5", "app.log"}, older, true, 3, "+FEED 1 2 3\nnew line\nunfinished",
         "@/app.log: the daemon has no backlog or resume extension; following new lines only\n"
         "@/app.log: connection lost: the daemon closed the connection\n");
}

// ---- The norvane binary against the real daemon ----

// The last lines, then every appended byte once: data that reads like a reply included, a half line
// written at once, and with -F lines written while the daemon is down; a file rotated meanwhile is
// announced. Ctrl-C ends with status 0 after "quit".
TEST_F(NorvaneClientTest, TailWritesTheBacklogThenEveryAppendedByteOnceAcrossDaemonRestarts) {
  std::string hundred;
  for (int i = 1; i <= 100; ++i) hundred += "line " + std::to_string(i) + "\n";
  WriteFile(daemon_.Logs().File("app.log"), hundred);
  StartDaemon();
  StartClient({"tail", "-F", "-p", Port(), "-n", "5", "app.log"});
  ASSERT_TRUE(WaitForOutput("line 100\n")) << Err();
  const std::string where = "norvane: " + Source() + "app.log: ";
  EXPECT_EQ(Err(), where + "following " + daemon_.Logs().Path() + "/app.log\n");
  Append("app.log", "+OK not a reply\n-ERR not an error\n");
  ASSERT_TRUE(WaitForOutput("not an error\n")) << Out();  // with the position to resume from
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
  client_->Signal(SIGINT);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "line 96\nline 97\nline 98\nline 99\nline 100\n+OK not a reply\n-ERR not an error\n"
            "while down\nunfinished line\nrotated\n");
  for (const char* notice :
       {"connection lost: the daemon closed the connection; connecting again in 1 s\n",
        "the file was rotated meanwhile; following it from its first byte\n"}) {
    EXPECT_NE(outcome.err.find(where + notice), std::string::npos) << outcome.err;
  }
}

// A pattern follows every match, "*" not crossing "/", each line prefixed with its source and
// never interleaved with another's; with -F a file that appears later is picked up.
TEST_F(NorvaneClientTest, PatternFollowsEveryMatchWithLinesThatNeverInterleaveAndPicksUpANewFile) {
  std::filesystem::create_directory(daemon_.Logs().File("sub"));
  WriteFile(daemon_.Logs().File("sub/d.log"), "no match\n");
  WriteFile(daemon_.Logs().File("a.log"), "a last\n");
  // Empty: a line written before b.log is followed arrives as its backlog.
  WriteFile(daemon_.Logs().File("b.log"), "");
  StartDaemon();
  StartClient({"tail", "-q", "-F", "--crlf", "-n", "1", ":" + Port() + "/*.log"});
  ASSERT_TRUE(WaitForOutput("a last")) << Err();
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
  // A new file is followed from its first byte; the daemon is asked again 8 s after the first
  // list: a wider bound than other waits.
  WriteFile(daemon_.Logs().File("e.log"), "e 1\ne 2\n");
  ASSERT_TRUE(WaitForOutput("e 2", 40)) << Err();
  client_->Signal(SIGTERM);
  const Outcome outcome = WaitClient();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  std::string expected;
  for (const char* line :
       {"a.log: a last", "b.log: beta 0", "b.log: beta 1", "a.log: alpha begins and ends",
        "e.log: e 1", "e.log: e 2", "b.log: unfinished"}) {
    expected += Source() + line + "\r\n";
  }
  EXPECT_EQ(outcome.out, expected);
  EXPECT_EQ(outcome.err, "norvane: " + Source() + "e.log: new file matching \"*.log\"\n");
}

// list, the codes of refusals and usage errors, and at the end one daemon's files on a terminal,
// where control characters are shown escaped and source prefixes coloured.
TEST_F(NorvaneClientTest, ListRefusalsAndUsageErrorsHaveTheirCodesAndATerminalGetsEscapes) {
  WriteFile(daemon_.Logs().File("b.log"), "\xc2\x9b tab\tbell\x07\n");
  WriteFile(daemon_.Logs().File("a.log"), "\x1b]0;pwned\x07 title\n");
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

  const std::string daemon = "norvane: 127.0.0.1:" + Port();
  const std::string again = "\nTry 'norvane --help'.\n";
  const std::string p = Port();
  // Refusals end the session with "quit"; usage errors come before any connection.
  const auto expect = [&](int code, const std::string& password,
                          const std::vector<std::string>& args, const std::string& err) {
    outcome = RunClient(args, password);
    EXPECT_EQ(outcome.code, code) << err;
    EXPECT_EQ(outcome.err, err);
  };
  expect(4, "wrong", {"list", "-p", p},
         daemon + ": login refused: wrong password for user \"logwatcher\"\n");
  expect(4, "Kem01&*sB", {"list", "-p", p, "--user", "bob"},
         daemon + ": login refused: user \"bob\" unknown\n");
  expect(5, "Kem01&*sB", {"tail", "-q", "-n", "0", "-p", p, "missing.log"},
         daemon +
             "/missing.log: file not offered by the daemon (-ERR invalid logfile name); "
             "`norvane list` shows the files it offers\n");
  expect(5, "Kem01&*sB", {"tail", "-p", p, " lead.log"},
         daemon +
             "/ lead.log: cannot be requested: the daemon removes leading blanks and line "
             "ends from a name, so \" lead.log\" can never reach it\n");
  expect(5, "Kem01&*sB", {"tail", "-p", p, "x*"},
         daemon + "/x*: no file matches; `norvane list` shows the files the daemon offers\n");
  expect(2, "", {"list", "-p", p},
         "norvane: no password: give --password, set NORVANE_PASSWORD, or run on a terminal to "
         "be asked" +
             again);
  expect(2, "Kem01&*sB", {"tail", "--port"}, "norvane: option --port needs a value" + again);
  expect(2, "Kem01&*sB", {"tail", "-n", "10001", "app.log"},
         "norvane: bad line count: 10001 (expected 0 to 10000)" + again);
  // The listed and the refused sessions were all ended with "quit".
  EXPECT_EQ(daemon_.Log().find("closed by client"), std::string::npos) << daemon_.Log();
  const std::string nobody = std::to_string(FreePort());
  expect(3, "Kem01&*sB", {"list", "-p", nobody},
         "norvane: 127.0.0.1:" + nobody + ": cannot connect: Connection refused\n");
  outcome = RunClient({"--help"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_NE(outcome.out.find("  6  the daemon stopped answering"), std::string::npos);
  EXPECT_EQ(RunClient({"--version"}).out, "norvane " + FWProduct::GetVersion() + "\n");

  const std::string source = Source();
  terminal_ = ::posix_openpt(O_RDWR | O_NOCTTY);  // the client's standard output
  ASSERT_GE(terminal_, 0);
  ASSERT_EQ(::grantpt(terminal_) | ::unlockpt(terminal_) | ::fcntl(terminal_, F_SETFL, O_NONBLOCK),
            0);
  StartClient({"tail", "-q", "-n", "1", "-p", p, "a.log", "b.log"});
  // The terminal turns "\n" into "\r\n".
  EXPECT_TRUE(WaitForTerminal("\x1b[36m" + source + "a.log\x1b[0m: \\x1b]0;pwned\\x07 title\r\n"))
      << terminal_out_;
  EXPECT_TRUE(WaitForTerminal("\x1b[33m" + source + "b.log\x1b[0m: \\x9b tab\tbell\\x07\r\n"))
      << terminal_out_;
  StartClient({"tail", "-q", "-n", "1", "--raw", "-p", p, "a.log", "b.log"}, "Kem01&*sB", "1");
  EXPECT_TRUE(WaitForTerminal(source + "a.log: \x1b]0;pwned\x07 title\r\n")) << terminal_out_;
}
