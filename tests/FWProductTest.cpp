#include "FWProduct.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Waits at most timeout for fd to become readable.
bool WaitReadable(int fd, milliseconds timeout) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, static_cast<int>(timeout.count())) == 1;
}

// Answers one request on a loopback port with a canned response, or with nothing at all until the
// client gives up. Every wait in its thread is bounded, so Join() returns in bounded time.
class OneShotServer {
 public:
  explicit OneShotServer(std::string response, bool silent = false)
      : response_(std::move(response)), silent_(silent), thread_([this] { Serve(); }) {}
  ~OneShotServer() { Join(); }

  int Port() const { return listener_.Port(); }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(Port()) + path;
  }
  // The request as received; valid after Join().
  const std::string& Request() const { return request_; }
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  void Serve() {
    if (!WaitReadable(listener_.Fd(), milliseconds(5000))) return;
    const int fd = ::accept(listener_.Fd(), nullptr, nullptr);
    if (fd < 0) return;
    char buffer[4096];
    while (request_.find("\r\n\r\n") == std::string::npos && WaitReadable(fd, milliseconds(5000))) {
      const ssize_t got = ::recv(fd, buffer, sizeof(buffer), 0);
      if (got <= 0) break;
      request_.append(buffer, static_cast<std::size_t>(got));
    }
    if (silent_) {
      // Holds the connection until the client closes it, or for at most 10 seconds.
      if (WaitReadable(fd, milliseconds(10000))) (void)::recv(fd, buffer, sizeof(buffer), 0);
    } else {
      (void)::send(fd, response_.data(), response_.size(), MSG_NOSIGNAL);
    }
    ::close(fd);
  }

  testutil::LoopbackListener listener_;
  const std::string response_;
  const bool silent_;
  std::string request_;
  std::thread thread_;  // last: starts once everything it uses exists
};

// The project version, handed to this test by the build as it is to the product.
std::string ProjectVersion() { return NORVANE_PROJECT_VERSION; }

std::string Answer(const std::string& body) {
  return "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n" + body;
}

TEST(FWProductTest, NamesAndVersionComeFromTheBuild) {
  EXPECT_EQ(FWProduct::GetName(), "Norvane");
  EXPECT_EQ(FWProduct::GetVersion(), ProjectVersion());
  EXPECT_EQ(FWProduct::GetDisplayName(), "Norvane " + ProjectVersion());
  // The build time read back in the compiler's own layout gives the build date text.
  const std::time_t built = FWProduct::GetBuildTime();
  ASSERT_NE(built, -1);
  char text[64];
  std::tm fields;
  ASSERT_NE(localtime_r(&built, &fields), nullptr);
  ASSERT_GT(std::strftime(text, sizeof(text), "%b %e %Y %H:%M:%S", &fields), 0u);
  EXPECT_EQ(FWProduct::GetBuildDate(), text);
}

TEST(FWProductTest, VersionsCompareNumberByNumber) {
  EXPECT_TRUE(FWProduct::IsNewerVersion("0.10.0", "0.9.1"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("0.9.1", "0.10.0"));
  EXPECT_TRUE(FWProduct::IsNewerVersion("1.0.1", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("1.0.0", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("1.0", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("2.x", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("2..0", "1.0"));
}

TEST(FWProductTest, SystemTextsAreReadFromInjectedFiles) {
  testutil::TempDir dir;
  testutil::WriteFile(dir.File("version"), "Linux version 6.1.0-test (gcc 12)\n");
  testutil::WriteFile(dir.File("meminfo"), "MemFree: 12 kB\nMemTotal:       16384000 kB\n");
  testutil::WriteFile(dir.File("small"), "MemTotal: 1023 kB\n");
  EXPECT_EQ(FWProduct::GetOSVersion(dir.File("version")), "Linux version 6.1.0-test (gcc 12)");
  EXPECT_EQ(FWProduct::GetMemoryMB(dir.File("meminfo")), 16000);
  EXPECT_EQ(FWProduct::GetMemoryMB(dir.File("small")), 0);
  EXPECT_EQ(FWProduct::GetMemoryMB(dir.File("version")), 0);
  EXPECT_EQ(FWProduct::GetOSVersion(dir.File("missing")), "");
  EXPECT_EQ(FWProduct::GetMemoryMB(dir.File("missing")), 0);
}

TEST(FWProductTest, SystemTextsOfThisMachineAreAvailable) {
  const std::string os = FWProduct::GetOSVersion();
  EXPECT_FALSE(os.empty());
  EXPECT_NE(os.back(), '\n');
  EXPECT_GT(FWProduct::GetMemoryMB(), 0);
}

TEST(FWProductTest, NewerVersionOnServerReportsUpdate) {
  OneShotServer server(Answer("999.0.1\r\nsecond line\r\n"));
  FWProduct product;
  EXPECT_TRUE(product.CheckForUpdate(server.Url("/norvane/latest.txt"), milliseconds(5000)));
  EXPECT_EQ(product.GetUpdateMessage(),
            "Version 999.0.1 is available (running " + FWProduct::GetVersion() + ")");
  EXPECT_EQ(product.GetUpdateFailure(), "");
  server.Join();
  const std::string& request = server.Request();
  EXPECT_EQ(request.substr(0, request.find("\r\n")), "GET /norvane/latest.txt HTTP/1.0");
  EXPECT_NE(request.find("\r\nHost: 127.0.0.1:" + std::to_string(server.Port()) + "\r\n"),
            std::string::npos);
  EXPECT_TRUE(request.ends_with("\r\n\r\n"));
}

TEST(FWProductTest, UrlWithoutPathRequestsRoot) {
  OneShotServer server(Answer("0.0.0\n"));
  FWProduct product;
  EXPECT_FALSE(product.CheckForUpdate(server.Url(""), milliseconds(5000)));
  server.Join();
  EXPECT_EQ(server.Request().substr(0, server.Request().find("\r\n")), "GET / HTTP/1.0");
}

TEST(FWProductTest, SameOrOlderVersionReportsNoUpdateAndNoFailure) {
  for (const std::string& version : {FWProduct::GetVersion(), std::string("0.0.0")}) {
    OneShotServer server(Answer(version + "\n"));
    FWProduct product;
    EXPECT_FALSE(product.CheckForUpdate(server.Url("/v"), milliseconds(5000))) << version;
    EXPECT_EQ(product.GetUpdateMessage(), "");
    EXPECT_EQ(product.GetUpdateFailure(), "") << version;
  }
}

// Every failure is no update, with a reason for the log.
TEST(FWProductTest, BadAnswersReportNoUpdateWithReason) {
  const std::pair<std::string, std::string> cases[] = {
      {"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n999.0\r\n",
       "answer without a blank line after the header"},
      {"HTTP/1.0 404 Not Found\r\n\r\n999.0\r\n", "server answered 'HTTP/1.0 404 Not Found'"},
      {"HTTP/1.0 2000 OK\r\n\r\n999.0\r\n", "server answered 'HTTP/1.0 2000 OK'"},
      {Answer("latest!\r\n"), "bad version text 'latest!'"},
      {Answer("\r\n999.0\r\n"), "answer without a version"},
  };
  for (const auto& [response, reason] : cases) {
    OneShotServer server(response);
    FWProduct product;
    EXPECT_FALSE(product.CheckForUpdate(server.Url("/v"), milliseconds(5000))) << reason;
    EXPECT_EQ(product.GetUpdateMessage(), "");
    EXPECT_EQ(product.GetUpdateFailure(), reason);
  }
  OneShotServer closing("");
  FWProduct product;
  EXPECT_FALSE(product.CheckForUpdate(closing.Url("/v"), milliseconds(5000)));
  EXPECT_EQ(product.GetUpdateFailure(),
            "empty answer from 127.0.0.1:" + std::to_string(closing.Port()));
}

TEST(FWProductTest, UnusableUrlsReportNoUpdate) {
  FWProduct product;
  EXPECT_FALSE(product.CheckForUpdate("", milliseconds(1000)));
  EXPECT_EQ(product.GetUpdateFailure(), "");
  for (const std::string url : {"ftp://127.0.0.1/v", "http://", "http://127.0.0.1:0/v",
                                "http://127.0.0.1:65536/v", "http://127.0.0.1:8x/v"}) {
    EXPECT_FALSE(product.CheckForUpdate(url, milliseconds(1000)));
    EXPECT_EQ(product.GetUpdateFailure(), "bad update URL '" + url + "'");
  }
}

TEST(FWProductTest, ClosedPortReportsNoUpdate) {
  int port = 0;
  {
    testutil::LoopbackListener listener;
    port = listener.Port();
  }
  FWProduct product;
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/v";
  EXPECT_FALSE(product.CheckForUpdate(url, milliseconds(5000)));
  EXPECT_EQ(product.GetUpdateFailure(), "cannot connect to 127.0.0.1:" + std::to_string(port) +
                                            ": (connect) Connection refused");
}

TEST(FWProductTest, SilentServerTimesOutWithNoUpdate) {
  OneShotServer server("", true);
  FWProduct product;
  const auto start = steady_clock::now();
  EXPECT_FALSE(product.CheckForUpdate(server.Url("/v"), milliseconds(1000)));
  // The server would hold the connection for 10 seconds; the check must not wait for it.
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(product.GetUpdateFailure(),
            "no answer from 127.0.0.1:" + std::to_string(server.Port()) + " within 1000 ms");
}

}  // namespace
