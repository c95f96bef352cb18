// The gateway of norvane web in this process: its text helpers, and its HTTP side fed through the
// listener interface as a tail run feeds it (the browser test drives the real programs).
#include <httplib.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "NorvaneWeb.h"
#include "TestUtil.h"

namespace {

using State = NorvaneClient::Listener::State;

const NorvaneClient::Target kApp{"127.0.0.1", 9080, "app.log"};

// Reads /events until the text holds `until` (at most 20 s); returns what arrived.
std::string ReadEvents(int port, const std::string& until, const httplib::Headers& headers = {}) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(20);
  std::string text;
  client.Get("/events?token=secret-token", headers, [&](const char* data, std::size_t size) {
    const std::size_t from = text.size() > until.size() ? text.size() - until.size() : 0;
    text.append(data, size);
    return text.find(until, from) == std::string::npos;
  });
  return text;
}

std::string Between(const std::string& text, const std::string& start, const std::string& end) {
  const std::size_t from = text.find(start);
  if (from == std::string::npos) return "";
  return text.substr(from + start.size(),
                     text.find(end, from + start.size()) - from - start.size());
}

// A view of kApp serving on a free port of 127.0.0.1, and that port; a null view if it cannot
// listen. An empty token leaves the view open to loopback hosts.
std::pair<std::unique_ptr<NorvaneWeb>, int> StartView(const std::string& token) {
  NorvaneWeb::Settings settings;
  settings.port = 0;
  settings.token = token;
  auto web = std::make_unique<NorvaneWeb>(settings, std::vector<NorvaneClient::Target>{kApp});
  std::string error;
  if (!web->Listen(&error)) {
    ADD_FAILURE() << error;
    return {};
  }
  web->Start();
  const int port = std::stoi(Between(web->Url(), "127.0.0.1:", "/"));
  return {std::move(web), port};
}

}  // namespace

TEST(WebViewTest, JsonStringsKeepValidUtf8AndEscapeEverythingElse) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain <script>", "\"plain <script>\""},
      {"q\"b\\", "\"q\\\"b\\\\\""},
      {"\t\n\x01\x7f", "\"\\t\\n\\u0001\\u007f\""},
      {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
      {"a\xff", "\"a\\ufffd\""},
      {"\xc0\xaf", "\"\\ufffd\\ufffd\""},                        // overlong
      {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},             // surrogate
      {"\xf4\x90\x80\x80", "\"\\ufffd\\ufffd\\ufffd\\ufffd\""},  // beyond U+10FFFF
      {"\xe2\x82", "\"\\ufffd\\ufffd\""},                        // cut short
  };
  for (const auto& [bytes, json] : cases) EXPECT_EQ(NorvaneWeb::JsonString(bytes), json);
}

TEST(WebViewTest, ListenAddressesLoopbackAndTokens) {
  // "HOST PORT", or the error.
  const auto listen = [](const std::string& text) {
    NorvaneWeb::Settings settings;
    std::string error;
    const bool parsed = NorvaneWeb::ParseListen(text, &settings, &error);
    return parsed ? settings.host + " " + std::to_string(settings.port) : error;
  };
  EXPECT_EQ(listen(":9000"), "127.0.0.1 9000");
  EXPECT_EQ(listen("[::1]:0"), "::1 0");
  EXPECT_EQ(listen("8080"), "bad listen address \"8080\" (expected HOST:PORT)");
  EXPECT_EQ(listen("h:65536"), "bad port \"65536\" in listen address (expected 0 to 65535)");
  for (const char* host : {"127.0.0.1", "127.9.8.7", "localhost", "::1"}) {
    EXPECT_TRUE(NorvaneWeb::IsLoopback(host)) << host;
  }
  for (const char* host : {"0.0.0.0", "::", "10.0.0.1", "128.0.0.1", "web1"}) {
    EXPECT_FALSE(NorvaneWeb::IsLoopback(host)) << host;
  }
  EXPECT_EQ(NorvaneWeb::TokenProblem("Ab3-._~x"), "");
  EXPECT_EQ(NorvaneWeb::TokenProblem("7chars_"), "a token has 8 to 256 characters");
  EXPECT_EQ(NorvaneWeb::TokenProblem("with space"),
            "a token holds only letters, digits and - . _ ~");
  EXPECT_EQ(NorvaneWeb::NewToken().size(), 32u);
}

TEST(WebViewTest, EveryRequestNeedsTheTokenOrWithoutOneALoopbackHost) {
  const auto [web, port] = StartView("secret-token");
  ASSERT_NE(web, nullptr);
  const std::string cookie = "norvane_web_" + std::to_string(port);
  httplib::Client client("127.0.0.1", port);
  for (const char* path : {"/", "/app.js", "/events"}) {
    const auto result = client.Get(path);
    ASSERT_TRUE(result) << path;
    EXPECT_EQ(result->status, 401) << path;
    EXPECT_EQ(result->body,
              "norvane web: this view needs its token: open the address that norvane web printed "
              "at start (http://HOST:PORT/?token=...)\n");
  }
  EXPECT_EQ(client.Get("/?token=secret-tokeN")->status, 401);
  const auto page = client.Get("/?token=secret-token");
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->get_header_value("Set-Cookie"),
            cookie + "=secret-token; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(client.Get("/app.css", {{"Cookie", "a=b; " + cookie + "=secret-token"}})->status, 200);
  EXPECT_EQ(client.Get("/app.js", {{"Authorization", "Bearer secret-token"}})->status, 200);

  const auto [open, open_port] = StartView("");
  ASSERT_NE(open, nullptr);
  httplib::Client local("127.0.0.1", open_port);
  EXPECT_EQ(local.Get("/")->status, 200);
  EXPECT_EQ(local.Get("/", {{"Host", "localhost:8080"}})->status, 200);
  // A page of another site whose name was made to point at 127.0.0.1.
  EXPECT_EQ(local.Get("/", {{"Host", "attacker.example:8080"}})->status, 403);
}

TEST(WebViewTest, StreamsLinesInOrderResumesAndKeepsABoundedHistory) {
  const auto [web, port] = StartView("secret-token");
  ASSERT_NE(web, nullptr);

  // A browser that asks for the stream and never reads it holds up nobody.
  testutil::FeedPeer stalled(port, "127.0.0.1", 4096);  // raw bytes only
  ASSERT_TRUE(stalled.Connected());
  stalled.SendRaw("GET /events?token=secret-token HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");

  web->OnState(kApp, State::kFollowing, "following /logs/app.log");
  web->OnData(kApp, "one\ntwo\nthr", false);
  web->OnData(kApp, "ee\n" + std::string(16390, 'x') + "\n\x1b[1m", false);
  web->OnData(kApp, "<b>", true);
  web->OnState(kApp, State::kReconnecting, "connection lost; connecting again in 1 s");
  std::string text = ReadEvents(port, "in 1 s\"}]\n\n");
  EXPECT_NE(text.find("retry: 2000\nevent: hello\ndata: {\"instance\":"), std::string::npos);
  // A long line arrives in pieces of 16384 bytes.
  std::string items = Between(text, "event: feed\ndata: [", "]\n\n");
  const std::size_t piece = items.find(std::string(16384, 'x') + "\"");
  ASSERT_NE(piece, std::string::npos);
  items.replace(piece, 16384, "<16384 x>");
  EXPECT_EQ(items,
            "{\"s\":0,\"label\":\"127.0.0.1:9080/app.log\",\"pattern\":false,"
            "\"state\":\"connecting\",\"text\":\"\"},{\"s\":0,\"label\":\"127.0.0.1:9080/app.log\","
            "\"pattern\":false,\"state\":\"following\",\"text\":\"following /logs/app.log\"},"
            "{\"s\":0,\"t\":\"one\"},{\"s\":0,\"t\":\"two\"},{\"s\":0,\"t\":\"three\"},{\"s\":0,"
            "\"t\":\"<16384 x>\"},{\"s\":0,\"t\":\"xxxxxx\"},{\"s\":0,\"t\":\"\\\\x1b[1m<b>\"},"
            "{\"s\":0,\"label\":\"127.0.0.1:9080/app.log\",\"pattern\":false,"
            "\"state\":\"reconnecting\",\"text\":\"connection lost; connecting again in 1 s\"}");

  // A stream made again after the last id it received gets only what followed.
  const std::string last = Between(text, "id: ", "\n");
  web->OnData(kApp, "four\n", false);
  text = ReadEvents(port, "four", {{"Last-Event-ID", last}});
  EXPECT_EQ(Between(text, "event: feed\ndata: [", "]"), "{\"s\":0,\"t\":\"four\"}");

  // 20000 lines are kept; a stream that was further behind is told how much it missed. Feeding
  // (6 MB, more than the stalled browser's socket takes) does not wait for any browser.
  const std::string filler(300, '.');
  auto feeding = std::async(std::launch::async, [&] {
    for (int i = 1; i <= 20500; ++i) web->OnData(kApp, filler + std::to_string(i) + "\n", false);
  });
  ASSERT_EQ(feeding.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  text = ReadEvents(port, ".20500\"", {{"Last-Event-ID", last}});
  EXPECT_NE(text.find("data: [{\"skipped\":501},{\"s\":0,\"t\":\"" + filler + "501\"},"),
            std::string::npos);
  // A new stream gets all the history, batch after batch.
  EXPECT_EQ(testutil::Count(ReadEvents(port, ".20500\""), "\"t\":"), 20000u);

  // Nor does the stalled browser hold up the end: its write times out.
  auto stopping = std::async(std::launch::async, [&] { web->Stop(); });
  const bool stopped = stopping.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  stalled.Close();
  EXPECT_TRUE(stopped);
}
