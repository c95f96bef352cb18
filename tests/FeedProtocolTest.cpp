// The feed protocol without a transport: the daemon's dialogue and a client's, driven line by
// line and message by message through hosts that record what they are asked, and the position
// line of the extensions.
#include "FeedProtocol.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWFeedCodec.h"
#include "LoginGuard.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kRoot = "/var/log/app";

// A session as the dialogue sees it: replies, log lines and actions, in order, in one list.
class ServerHost final : public FeedServer::Host {
 public:
  void Reply(const std::string& text) override { seen.push_back(text); }
  void Log(const std::string& text) override { seen.push_back("log: " + text); }
  void LoggedIn() override { seen.push_back("<logged in>"); }
  const std::vector<std::string>& LogFiles() override {
    if (!collected) seen.push_back("<collect>");
    collected = true;
    return files;
  }
  void StopFile() override { seen.push_back("<stop>"); }
  int OpenFile(const std::string& name) override {
    seen.push_back("<open " + name + ">");
    const auto found = open_errors.find(name);
    return found == open_errors.end() ? 0 : found->second;
  }
  void FollowFile() override { seen.push_back("<follow>"); }
  void FollowBacklog(std::size_t lines) override {
    seen.push_back("<backlog " + std::to_string(lines) + ">");
  }
  void FollowResumed(const feed::Position& from) override {
    seen.push_back("<resume " + std::to_string(from.dev) + " " + std::to_string(from.ino) + " " +
                   std::to_string(from.offset) + ">");
  }

  // Everything seen since the last call.
  Lines Take() { return std::exchange(seen, {}); }

  Lines seen;
  std::vector<std::string> files{"a.log", "b.log", "re.log", "restart.log"};
  std::map<std::string, int> open_errors{{"b.log", EISDIR}, {"gone.log", EXDEV}};
  bool collected = false;
};

struct Exchange {
  std::string lines;  // one or more "\r\n"-terminated lines
  Lines seen;
};

void Talk(FeedServer& server, ServerHost& host, const std::vector<Exchange>& dialogue) {
  for (const Exchange& step : dialogue) {
    for (std::size_t at = 0; at < step.lines.size();) {
      const std::size_t end = step.lines.find("\r\n", at) + 2;
      server.HandleLine(step.lines.substr(at, end - at));
      at = end;
    }
    EXPECT_EQ(host.Take(), step.seen) << step.lines;
  }
}

FeedServer::Settings Settings(const std::string& password = "bypass1") {
  return FeedServer::Settings{kRoot, "restarter", password, false};
}

TEST(FeedServerTest, EveryReplyAndActionOfADialogueIsExact) {
  ServerHost host;
  FeedServer server(host, Settings(), nullptr, "10.0.0.9", 1000);
  const std::string started = "+OK start transmitting " + kRoot + "/";
  const std::string peer = " from 10.0.0.9";
  Talk(
      server, host,
      {
          {"list\r\n", {"-ERR invalid command\r\n"}},
          {"pass bypass1\r\n", {"-ERR invalid command\r\n"}},  // no user accepted yet
          {"quit \r\n", {"-ERR invalid command\r\n"}},         // a trailing blank is no quit
          {"user\r\nuser   \r\npass\r\n", {"-ERR invalid command\r\n"}},  // no argument
          {"USER restarter\r\n",
           {"-ERR User unknown\r\n",
            "log: login failed: user \"USER restarter\"" + peer + " (unknown user)"}},
          {"user restarter\r\n", {"+OK\r\n"}},
          {"user nobody\r\n",  // does not take the accepted user back
           {"-ERR User unknown\r\n",
            "log: login failed: user \"nobody\"" + peer + " (unknown user)"}},
          {"pass \r\n", {}},
          {"PASS bypass1\r\n",
           {"-ERR Login failed (invalid password)\r\n",
            "log: login failed: user \"restarter\"" + peer + " (wrong password)"}},
          {"pass bypass1\r\n",
           {"<logged in>", "+OK Login successful\r\n", "log: login of user \"restarter\"" + peer}},
          {"start\r\n", {"<collect>", "-ERR invalid logfile name\r\n"}},
          {"list\r\n", {"a.log\r\n", "b.log\r\n", "re.log\r\n", "restart.log\r\n", "+OK\r\n"}},
          {"START a.log\r\n",  // the keyword stays in the name
           {"<stop>", "-ERR invalid logfile name\r\n", "log: refused name \"START a.log\"" + peer}},
          {"start restart.log\r\n",  // only the leading keyword goes
           {"<stop>", "<open restart.log>", "log: start \"" + kRoot + "/restart.log\"" + peer,
            started + "restart.log\r\n", "<follow>"}},
          {"start  \r\n", {started + "restart.log\r\n"}},  // confirms, keeps the place
          {"start b.log\r\n",
           {"<stop>", "<open b.log>", "-ERR can't read b.log: Is a directory\r\n"}},
          {"start\r\n", {"-ERR invalid logfile name\r\n"}},  // the refusal ended the file
          {"user restarter\r\nquit \r\n",
           {"-ERR unrecognized command\r\n", "-ERR unrecognized command\r\n"}},
          {"start missing.log\r\n",
           {"<stop>", "-ERR invalid logfile name\r\n", "log: refused name \"missing.log\"" + peer}},
          {"stop\r\n", {"+OK logfile transmission stopped\r\n", "<stop>"}},
          {"start a.log\r\nstop\r\n",
           {"<stop>", "<open a.log>", "log: start \"" + kRoot + "/a.log\"" + peer,
            started + "a.log\r\n", "<follow>", "+OK logfile transmission stopped\r\n",
            "log: stop \"" + kRoot + "/a.log\"" + peer, "<stop>"}},
          {"QuIt\r\n", {"+OK closing connection\r\n"}},
          {"user restarter\r\nlist\r\n", {}},  // after quit only quit is answered
      });
  EXPECT_TRUE(server.IsFinished());
  EXPECT_FALSE(server.IsTransmitting());
}

TEST(FeedServerTest, LimitsBeforeLoginEndTheSessionAndTheBrakeAndDefaultPasswordRefuse) {
  ServerHost host;
  FeedServer invalid(host, Settings(), nullptr, "10.0.0.9", 1000);
  for (int i = 0; i < 9; ++i) invalid.HandleLine("help\r\n");
  EXPECT_FALSE(invalid.IsFinished());
  invalid.HandleLine("help\r\n");
  EXPECT_TRUE(invalid.IsFinished());
  EXPECT_EQ(host.Take().back(), "log: closing after 10 invalid commands before login");
  EXPECT_EQ(invalid.GetPendingLimit(), feed::kPreLoginPendingBytes);

  FeedServer guessing(host, Settings(), nullptr, "10.0.0.9", 1000);
  guessing.HandleLine("user restarter\r\n");
  for (int i = 0; i < 3; ++i) guessing.HandleLine("pass guess\r\n");
  EXPECT_TRUE(guessing.IsFinished());
  EXPECT_EQ(host.Take().back(), "log: closing after 3 failed logins");

  FeedServer late(host, Settings(), nullptr, "10.0.0.9", 1000);
  EXPECT_FALSE(late.LoginExpired(1029));
  EXPECT_TRUE(late.LoginExpired(1030));
  EXPECT_EQ(host.Take(), Lines{"log: no login within 30 s, closing"});
  late.HandleLine("user restarter\r\n");
  late.HandleLine("pass bypass1\r\n");
  EXPECT_FALSE(late.LoginExpired(5000));
  EXPECT_EQ(late.GetPendingLimit(), feed::kMaxPendingBytes);
  host.Take();

  // The built-in password from another host, then from loopback.
  for (const auto& [peer, reply] : std::vector<std::pair<std::string, std::string>>{
           {"10.0.0.9", "-ERR Login failed (invalid password)\r\n"},
           {"127.0.0.1", "+OK Login successful\r\n"}}) {
    FeedServer defaulted(host,
                         FeedServer::Settings{kRoot, "restarter", feed::kDefaultPassword, true},
                         nullptr, peer, 1000);
    defaulted.HandleLine("user restarter\r\n");
    defaulted.HandleLine(std::string("pass ") + feed::kDefaultPassword + "\r\n");
    const Lines seen = host.Take();
    EXPECT_NE(std::find(seen.begin(), seen.end(), reply), seen.end()) << peer;
  }

  // Ten failures from one address within the window: even the right password is refused.
  LoginGuard guard;
  guard.SetNow(1000);
  for (int i = 0; i < 10; ++i) {
    FeedServer wrong(host, Settings(), &guard, "10.0.0.7", 1000);
    wrong.HandleLine("user nobody\r\n");
  }
  EXPECT_EQ(host.Take().back(),
            "log: refusing logins from 10.0.0.7 for 60 s after 10 failed logins");
  FeedServer refused(host, Settings(), &guard, "10.0.0.7", 1000);
  refused.HandleLine("user restarter\r\n");
  refused.HandleLine("pass bypass1\r\n");
  EXPECT_EQ(host.Take(),
            (Lines{"+OK\r\n", "-ERR Login failed (invalid password)\r\n",
                   "log: login failed: user \"restarter\" from 10.0.0.7 (address refused after "
                   "repeated failures)"}));
}

TEST(FeedServerTest, ExtensionsParseTheirNumbersStrictlyAndFollowAfterTheirReply) {
  const std::string started = "+OK start transmitting " + kRoot + "/a.log\r\n";
  const std::string log = "log: start \"" + kRoot + "/a.log\" from 127.0.0.1";
  const Lines bad{"-ERR bad arguments\r\n"};
  const std::vector<std::pair<std::string, Lines>> table{
      {"backlog 5 a.log", {"<stop>", "<open a.log>", log, started, "<backlog 5>"}},
      {"backlog 20000 a.log", {"<stop>", "<open a.log>", log, started, "<backlog 10000>"}},
      {"BACKLOG 0 a.log", {"<stop>", "<open a.log>", log, started, "<backlog 0>"}},
      {"resume 1 2 3 a.log", {"<stop>", "<open a.log>", log, started, "<resume 1 2 3>"}},
      {"backlog 5 missing.log",
       {"<stop>", "-ERR invalid logfile name\r\n",
        "log: refused name \"missing.log\" from 127.0.0.1"}},
      {"backlog x a.log", bad},
      {"backlog 5", bad},
      {"backlog  5 a.log", bad},
      {"backlog 5 ", bad},
      {"backlog 12345678901234567890 a.log", bad},
      {"backlog 9999999999999999999 a.log",
       {"<stop>", "<open a.log>", log, started, "<backlog 10000>"}},
      {"resume 1 2 a.log", bad},
      {"resume 1 2 -3 a.log", bad},
  };
  for (const auto& [command, seen] : table) {
    ServerHost host;
    FeedServer server(host, Settings(), nullptr, "127.0.0.1", 1000);
    server.HandleLine("user restarter\r\n");
    server.HandleLine("pass bypass1\r\n");
    host.Take();
    server.HandleLine(command + "\r\n");
    Lines expected{"<collect>"};
    expected.insert(expected.end(), seen.begin(), seen.end());
    EXPECT_EQ(host.Take(), expected) << command;
    EXPECT_EQ(server.IsExtended(),
              seen.back().starts_with("<backlog") || seen.back().starts_with("<resume"))
        << command;
  }
}

TEST(FeedProtocolTest, ThePositionLineIsWrittenReadAndFramedExactly) {
  EXPECT_EQ(feed::FeedHead({1, 2, 3}), "+FEED 1 2 3\r\n");
  EXPECT_EQ(feed::FeedHead({64769, 131, 0}, feed::ResumedNote(feed::Resumed::kRotated)),
            "+FEED 64769 131 0 rotated\r\n");
  EXPECT_STREQ(feed::ResumedNote(feed::Resumed::kContinued), "continued");
  EXPECT_STREQ(feed::ResumedNote(feed::Resumed::kTruncated), "truncated");
  EXPECT_STREQ(feed::ResumedNote(feed::Resumed::kGone), "gone");

  feed::FeedMessage parsed;
  ASSERT_TRUE(feed::ParseFeedHead("+FEED 7 8 9 gone\r\nline\r\n", &parsed));
  EXPECT_EQ(parsed.at.dev, 7u);
  EXPECT_EQ(parsed.at.ino, 8u);
  EXPECT_EQ(parsed.at.offset, 9);
  EXPECT_EQ(parsed.note, "gone");
  EXPECT_EQ(parsed.data_start, 18u);
  ASSERT_TRUE(feed::ParseFeedHead("+FEED 7 8 10\r\n", &parsed));
  EXPECT_EQ(parsed.note, "");
  for (const char* broken : {"+FEED 1 2\r\n", "+FEED a b c\r\n", "+FEED 1 2 3"}) {
    EXPECT_FALSE(feed::ParseFeedHead(broken, &parsed)) << broken;
  }

  // Without positions a poll's data goes out in replies of at most 1 MiB; with them, as one
  // message behind its position line.
  const FWFeedCodec codec(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit);
  const std::string data(feed::kMaxReplyBytes + 5, 'x');
  const auto decode = [&](const std::vector<FWSharedBytes>& frames) {
    FWFeedCodec reader(FWFeedCodec::kClientFrameLimit, 8 * feed::kMaxReplyBytes);
    Lines messages;
    for (const FWSharedBytes& frame : frames) reader.Append({frame.data(), frame.size()});
    for (std::string message; reader.Next(&message) == FWFeedCodec::Result::kMessage;) {
      messages.push_back(message);
    }
    return messages;
  };
  EXPECT_EQ(decode(feed::FrameData(codec, data, {1, 2, 3}, false)),
            (Lines{data.substr(0, feed::kMaxReplyBytes), "xxxxx"}));
  EXPECT_EQ(decode(feed::FrameData(codec, data, {1, 2, 3}, true, "continued")),
            Lines{"+FEED 1 2 3 continued\r\n" + data});
  EXPECT_TRUE(decode(feed::FrameData(codec, "", {1, 2, 3}, false)).empty());
  EXPECT_EQ(feed::Quoted(std::string("a\"\x01") + std::string(90, 'z')),
            "\"a\\x22\\x01" + std::string(77, 'z') + "\"...");
}

// A client's program as the dialogue sees it: what it sends and what it is told, in order.
class ClientHost final : public FeedClient::Host {
 public:
  void Send(const std::string& command) override { seen.push_back("> " + command); }
  void OnName() override {}
  void OnListed() override { seen.push_back("<listed>"); }
  void OnFollowing(const std::string& path) override { seen.push_back("<following " + path + ">"); }
  void OnData(const std::string& data) override { seen.push_back("data: " + data); }
  void OnResumeNote(const std::string& note) override { seen.push_back("<note " + note + ">"); }
  void OnExtensionsRefused() override { seen.push_back("<no extensions>"); }
  void OnRefused(FeedClient::Refusal refusal, const std::string& reply) override {
    seen.push_back("<refused " + std::to_string(static_cast<int>(refusal)) + " " + reply + ">");
  }
  void OnUnexpected(const std::string& message) override {
    seen.push_back("<unexpected " + message + ">");
  }

  Lines Take() { return std::exchange(seen, {}); }

  Lines seen;
};

struct Said {
  std::string message;
  Lines seen;
};

void Hear(FeedClient& client, ClientHost& host, const std::vector<Said>& script) {
  for (const Said& step : script) {
    client.Receive(step.message);
    EXPECT_EQ(host.Take(), step.seen) << step.message;
  }
}

const std::string kGreeting = "Norvane Monitoring Service Ready.\r\n";

FeedClient::Request Request(const std::string& file, int backlog_lines, bool retry = false) {
  FeedClient::Request request;
  request.user = "watcher";
  request.password = "s3cret";
  request.file = file;
  request.list = file.empty();
  request.backlog_lines = backlog_lines;
  request.retry = retry;
  return request;
}

TEST(FeedClientTest, TheDialogueLogsInAsksAndTellsRepliesFromData) {
  ClientHost host;
  FeedClient lister(host, Request("", -1));
  Hear(lister, host,
       {{kGreeting, {"> user watcher\r\n"}},
        {"+OK\r\n", {"> pass s3cret\r\n"}},
        {"+OK Login successful\r\n", {"> list\r\n"}},
        {"a.log\r\n", {}},
        {"+OK\r\n", {"<listed>"}}});
  EXPECT_EQ(lister.GetNames(), Lines{"a.log"});

  // The original protocol: after the start every message is data, also one that reads like a
  // reply; stop's two replies are held back and become data when more follows.
  FeedClient plain(host, Request("a.log", -1));
  Hear(plain, host,
       {{kGreeting, {"> user watcher\r\n"}},
        {"+OK\r\n", {"> pass s3cret\r\n"}},
        {"+OK Login successful\r\n", {"> start a.log\r\n"}},
        {"+OK start transmitting /logs/a.log\r\n", {"<following /logs/a.log>"}},
        {"+OK\r\n", {"data: +OK\r\n"}}});
  plain.Stop();
  EXPECT_EQ(host.Take(), (Lines{"> stop\r\n", "> quit\r\n"}));
  Hear(plain, host,
       {{"+OK logfile transmission stopped\r\n", {}},
        {"more\r\n", {"data: +OK logfile transmission stopped\r\n", "data: more\r\n"}},
        {"+OK logfile transmission stopped\r\n", {}},
        {"+OK closing connection\r\n", {}}});
  EXPECT_TRUE(plain.IsQuitAnswered());

  // Refusals end the dialogue with a quit.
  for (const auto& [reply, refusal] : std::vector<std::pair<std::string, int>>{
           {"-ERR User unknown\r\n", 0}, {"-ERR Login failed (invalid password)\r\n", 1}}) {
    FeedClient refused(host, Request("a.log", -1));
    refused.Receive(kGreeting);
    if (refusal == 1) refused.Receive("+OK\r\n");
    host.Take();
    refused.Receive(reply);
    EXPECT_EQ(host.Take().front(), "<refused " + std::to_string(refusal) + " " + reply + ">");
    refused.Stop();
    EXPECT_EQ(host.Take(), Lines{"> quit\r\n"});
  }
  FeedClient odd(host, Request("a.log", -1));
  Hear(odd, host, {{"Welcome\r\n", {"<unexpected Welcome\r\n>"}}});
}

TEST(FeedClientTest, ExtensionsCarryThePositionAcrossConnectionsAndFallBackOnAnOlderDaemon) {
  ClientHost host;
  FeedClient client(host, Request("a.log", 5, true));
  const std::vector<Said> login{{kGreeting, {"> user watcher\r\n"}},
                                {"+OK\r\n", {"> pass s3cret\r\n"}}};
  Hear(client, host, login);
  Hear(client, host,
       {{"+OK Login successful\r\n", {"> backlog 5 a.log\r\n"}},
        {"+OK start transmitting /logs/a.log\r\n", {"<following /logs/a.log>"}},
        {"+FEED 1 2 30\r\nold\r\n", {"data: old\r\n"}},
        {"+FEED 1 2 34 rotated\r\nnew\r\n", {"<note rotated>", "data: new\r\n"}},
        {"+FEED 1 2 x\r\n", {"<unexpected +FEED 1 2 x\r\n>"}}});
  EXPECT_EQ(client.GetPosition(), "1 2 34");
  client.Restart();
  Hear(client, host, login);
  Hear(client, host, {{"+OK Login successful\r\n", {"> resume 1 2 34 a.log\r\n"}}});

  FeedClient older(host, Request("a.log", 0));
  Hear(older, host, login);
  Hear(older, host,
       {{"+OK Login successful\r\n", {"> backlog 0 a.log\r\n"}},
        {"-ERR unrecognized command\r\n", {"<no extensions>", "> start a.log\r\n"}},
        {"-ERR invalid logfile name\r\n", {"<refused 2 -ERR invalid logfile name\r\n>"}}});
  EXPECT_FALSE(older.WantsExtension());

  EXPECT_EQ(FeedClient::ArgumentProblem("user", ""), "the user argument is empty");
  EXPECT_EQ(FeedClient::ArgumentProblem("start", " x"),
            "the daemon removes leading blanks and line ends from a name, so \" x\" can never "
            "reach it");
  EXPECT_EQ(FeedClient::ArgumentProblem("pass", "a\r\nb"),
            "the daemon removes leading blanks and line ends from a password, so this password "
            "can never reach it");
  EXPECT_EQ(FeedClient::ArgumentProblem("user", "ok"), "");

  // The passive reading of a session's client role.
  FeedClient reader(host, FeedClient::Request{});
  EXPECT_FALSE(reader.HasGreeting());
  for (const char* line :
       {"Norvane Monitoring Service Ready.\r\n", "+OK\r\n", "-ERR x\r\n", "data\r\n"}) {
    reader.ReadLine(line);
  }
  EXPECT_TRUE(reader.HasGreeting());
  EXPECT_EQ(host.Take(), Lines{"data: data\r\n"});
}

}  // namespace
