#include "FWProduct.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;

bool WaitReadable(int fd, milliseconds timeout) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, static_cast<int>(timeout.count())) == 1;
}

// Answers one request on a loopback port with a canned response, or, when silent, holds the
// connection for at most 10 s. Every wait in its thread is bounded, so Join() returns in time.
class OneShotServer {
 public:
  explicit OneShotServer(std::string response, bool silent = false)
      : response_(std::move(response)), silent_(silent), thread_([this] { Serve(); }) {}
  ~OneShotServer() { Join(); }

  std::string Address() const { return "127.0.0.1:" + std::to_string(listener_.Port()); }
  // The request line as received; valid after Join().
  std::string RequestLine() const { return request_.substr(0, request_.find("\r\n")); }
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
    if (silent_ && WaitReadable(fd, milliseconds(10000))) (void)::recv(fd, buffer, 1, 0);
    if (!silent_) (void)::send(fd, response_.data(), response_.size(), MSG_NOSIGNAL);
    ::close(fd);
  }

  testutil::LoopbackListener listener_;
  const std::string response_;
  const bool silent_;
  std::string request_;
  std::thread thread_;  // last: starts once everything it uses exists
};

class FWProductTest : public ::testing::Test {
 protected:
  // Runs an update check against a server that answers response; false when it found an update.
  bool Check(const std::string& response, const std::string& path = "/v") {
    server_ = std::make_unique<OneShotServer>(response);
    return product_.CheckForUpdate("http://" + server_->Address() + path, milliseconds(5000));
  }
  static std::string Answer(const std::string& body) {
    return "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n" + body;
  }
  // "message|failure" after the last check.
  std::string Result() const {
    return product_.GetUpdateMessage() + "|" + product_.GetUpdateFailure();
  }

  std::unique_ptr<OneShotServer> server_;
  FWProduct product_;
};

TEST_F(FWProductTest, NamesAndVersionComeFromTheBuild) {
  const std::string version = NORVANE_PROJECT_VERSION;  // handed to this test by the build
  EXPECT_EQ(FWProduct::GetName(), "Norvane");
  EXPECT_EQ(FWProduct::GetVersion(), version);
  EXPECT_EQ(FWProduct::GetDisplayName(), "Norvane " + version);
  // The build time read back in the compiler's own layout gives the build date text.
  const std::time_t built = FWProduct::GetBuildTime();
  ASSERT_NE(built, -1);
  char text[64];
  std::tm fields;
  ASSERT_NE(localtime_r(&built, &fields), nullptr);
  ASSERT_GT(std::strftime(text, sizeof(text), "%b %e %Y %H:%M:%S", &fields), 0u);
  EXPECT_EQ(FWProduct::GetBuildDate(), text);
}

TEST_F(FWProductTest, VersionsCompareNumberByNumber) {
  EXPECT_TRUE(FWProduct::IsNewerVersion("0.10.0", "0.9.1"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("0.9.1", "0.10.0"));
  EXPECT_TRUE(FWProduct::IsNewerVersion("1.0.1", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("1.0.0", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("1.0", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("2.x", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("2..0", "1.0"));
}

TEST_F(FWProductTest, SystemTextsAreReadFromInjectedFilesOrThisMachine) {
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
  const std::string os = FWProduct::GetOSVersion();
  EXPECT_FALSE(os.empty());
  EXPECT_NE(os.back(), '\n');
  EXPECT_GT(FWProduct::GetMemoryMB(), 0);
}

TEST_F(FWProductTest, NewerVersionOnServerReportsUpdateAfterAPlainGet) {
  EXPECT_TRUE(Check(Answer("999.0.1\r\nsecond line\r\n"), "/norvane/latest.txt"));
  EXPECT_EQ(Result(), "Version 999.0.1 is available (running " + FWProduct::GetVersion() + ")|");
  server_->Join();
  EXPECT_EQ(server_->RequestLine(), "GET /norvane/latest.txt HTTP/1.0");
  EXPECT_NE(server_->Request().find("\r\nHost: " + server_->Address() + "\r\n"), std::string::npos);
  EXPECT_TRUE(server_->Request().ends_with("\r\n\r\n"));
  EXPECT_FALSE(Check(Answer("0.0.0\n"), ""));
  server_->Join();
  EXPECT_EQ(server_->RequestLine(), "GET / HTTP/1.0");  // a URL without a path asks for the root
}

TEST_F(FWProductTest, SameOrOlderVersionReportsNoUpdateAndNoFailure) {
  for (const std::string& version : {FWProduct::GetVersion(), std::string("0.0.0")}) {
    EXPECT_FALSE(Check(Answer(version + "\n"))) << version;
    EXPECT_EQ(Result(), "|") << version;
  }
}

// Every failure is no update, with a reason for the log.
TEST_F(FWProductTest, BadAnswersReportNoUpdateWithReason) {
  const std::pair<std::string, std::string> cases[] = {
      {"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n999.0\r\n",
       "answer without a blank line after the header"},
      {"HTTP/1.0 404 Not Found\r\n\r\n999.0\r\n", "server answered 'HTTP/1.0 404 Not Found'"},
      {"HTTP/1.0 2000 OK\r\n\r\n999.0\r\n", "server answered 'HTTP/1.0 2000 OK'"},
      {Answer("latest!\r\n"), "bad version text 'latest!'"},
      {Answer("\r\n999.0\r\n"), "answer without a version"},
  };
  for (const auto& [response, reason] : cases) {
    EXPECT_FALSE(Check(response)) << reason;
    EXPECT_EQ(Result(), "|" + reason);
  }
  EXPECT_FALSE(Check(""));
  EXPECT_EQ(Result(), "|empty answer from " + server_->Address());
}

TEST_F(FWProductTest, UnusableUrlsAndClosedPortsReportNoUpdate) {
  EXPECT_FALSE(product_.CheckForUpdate("", milliseconds(1000)));
  EXPECT_EQ(Result(), "|");
  for (const std::string url : {"ftp://127.0.0.1/v", "http://", "http://127.0.0.1:0/v",
                                "http://127.0.0.1:65536/v", "http://127.0.0.1:8x/v"}) {
    EXPECT_FALSE(product_.CheckForUpdate(url, milliseconds(1000)));
    EXPECT_EQ(Result(), "|bad update URL '" + url + "'");
  }
  const std::string closed = "127.0.0.1:" + std::to_string(testutil::LoopbackListener().Port());
  EXPECT_FALSE(product_.CheckForUpdate("http://" + closed + "/v", milliseconds(5000)));
  EXPECT_EQ(Result(), "|cannot connect to " + closed + ": (connect) Connection refused");
}

TEST_F(FWProductTest, SilentServerTimesOutWithNoUpdate) {
  OneShotServer server("", true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(product_.CheckForUpdate("http://" + server.Address() + "/v", milliseconds(1000)));
  // The server would hold the connection for 10 seconds; the check must not wait for it.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(Result(), "|no answer from " + server.Address() + " within 1000 ms");
}

}  // namespace
