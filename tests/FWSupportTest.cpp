// The framework parts that operators meet only through the daemon: file name patterns
// (SearchPattern), port texts (IncomingPort) and the update check's HTTP exchange; and the class
// registry of a program that is not the daemon (this suite does not link the service classes).
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWDescriptor.h"
#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWFile.h"
#include "FWProduct.h"
#include "FWSocket.h"
#include "FWStringUtils.h"
#include "TestUtil.h"

namespace {

using testutil::milliseconds;

TEST(FWSupportTest, PatternsMatchTheWholeNameCaseSensitivelyAndBacktrackOverStars) {
  // For each pattern: the names and whether it matches each ("1") or not ("0").
  const struct {
    std::string pattern;
    std::vector<std::string> names;
    std::string matches;
  } cases[] = {
      {"*.log", {"x.log", "x.LOG", "x.log.1", ".log"}, "1001"},
      {"a?c", {"abc", "a*c", "ac", "abbc"}, "1100"},
      {"*", {"", "anything"}, "11"},
      {"", {"", "a"}, "10"},
      {"*?", {"", "a"}, "01"},
      {"syslog", {"syslog", "syslog.1", "xsyslog"}, "100"},
      {"*a*b*c", {"xxaxxbxxc", "abcab"}, "10"},
      {"a*b*c", {"abbcbc", "acb"}, "10"},
      {"*x*?y", {"xxzy", "xy"}, "10"},
      {"*a*a*a*a*a*b", {std::string(60, 'a')}, "0"},  // backtracking stays bounded
  };
  for (const auto& [pattern, names, matches] : cases) {
    std::string found;
    for (const std::string& name : names) found += FWStringUtils::Match(pattern, name) ? "1" : "0";
    EXPECT_EQ(found, matches) << pattern;
  }
}

TEST(FWSupportTest, PortIsANumberFrom1To65535OrAServiceName) {
  FWSocketManager& sockets = FWSocketManager::GetInstance();
  sockaddr_in address{};
  sockets.AddressCreate(address, "127.0.0.1", "65535", "tcp");
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ntohs(address.sin_port), 65535);
  if (testutil::ReadFile("/etc/services").find("\npop3\t") != std::string::npos) {
    sockets.AddressCreate(address, "127.0.0.1", "pop3", "tcp");
    EXPECT_EQ(ntohs(address.sin_port), 110);
  }
  for (const char* port : {"0", "65536", "nosuchservice"}) {
    EXPECT_THROW(sockets.AddressCreate(address, "", port, "tcp"), FWESocketError) << port;
  }
}

// The framework names no service class: without a class factory the registry is empty, and a
// class record has nothing to construct its objects with.
TEST(FWSupportTest, RegistryWithoutAClassFactoryHoldsNoClass) {
  const FWApplication& registry = FWApplication::GetInstance();
  EXPECT_TRUE(registry.GetClasses().empty());
  EXPECT_EQ(registry.GetClass("SessionManager"), nullptr);
  FWClass record;
  record.SetName(FWString("MonitoringPort"));
  record.SetNumber(1);
  EXPECT_THROW(delete record.NewInstance(), FWEInternal);
}

// ---- System errors as data ----

// What `call` threw as "text|errno|object|reason", for a failure of type E.
template <typename E>
std::string Facts(const std::function<void()>& call) {
  try {
    call();
  } catch (const E& e) {
    return e.GetText() + "|" + std::to_string(e.GetErrno()) + "|" + e.GetObject() + "|" +
           e.GetReason();
  } catch (const FWException& e) {
    return "another failure: " + e.GetText();
  }
  return "no failure";
}

// Beside the text the logs have always shown, a socket failure carries the errno, the address or
// name it was about, and the system's reason without the "(call) " in front.
TEST(FWSupportTest, SocketFailuresCarryErrnoObjectAndReason) {
  const FWSocketManager& sockets = FWSocketManager::GetInstance();
  const testutil::LoopbackListener taken;
  const std::string busy = std::to_string(taken.Port());
  const std::string closed = std::to_string(testutil::FreePort());
  // Binds a fresh TCP socket (UDP for "udp:") to host:port, then listens on it.
  const auto bind_and_listen = [&](const std::string& host, const std::string& port,
                                   const std::string& protocol = "tcp") {
    const FWDescriptor socket(sockets.CreateSocket(protocol));
    sockaddr_in address{};
    sockets.AddressCreate(address, host, port, protocol);
    sockets.Bind(socket.Get(), address);
    sockets.Listen(socket.Get(), 1);
  };
  const auto connect = [&](const std::string& port) {
    const FWDescriptor socket(sockets.CreateSocket("tcp"));
    sockaddr_in address{};
    sockets.AddressCreate(address, "127.0.0.1", port, "tcp");
    sockets.Connect(socket.Get(), address);
  };
  const auto number = [](int error) { return "|" + std::to_string(error) + "|"; };
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { bind_and_listen("127.0.0.1", busy); }, "(bind) Address already in use" +
                                                        number(EADDRINUSE) + "127.0.0.1:" + busy +
                                                        "|Address already in use"},
      {[&] { bind_and_listen("192.0.2.1", "4000"); },  // an address of no interface here
       "(bind) Cannot assign requested address" + number(EADDRNOTAVAIL) +
           "192.0.2.1:4000|Cannot assign requested address"},
      {[&] { connect(closed); }, "(connect) Connection refused" + number(ECONNREFUSED) +
                                     "127.0.0.1:" + closed + "|Connection refused"},
      // A datagram socket cannot listen: the object is the address it is bound to.
      {[&] { bind_and_listen("127.0.0.1", busy, "udp"); },
       "(listen) Operation not supported" + number(EOPNOTSUPP) + "127.0.0.1:" + busy +
           "|Operation not supported"},
      {[&] { (void)sockets.Accept(-1); },
       "(accept) Bad file descriptor" + number(EBADF) + "|Bad file descriptor"},
      {[&] { (void)sockets.CreateSocket("nosuchprotocol"); },
       "(nosuchprotocol) unknown protocol|0|nosuchprotocol|unknown protocol"},
      {[&] { (void)sockets.IsAddressLocal("10.0.0.300"); },
       "(invalid argument) 10.0.0.300|0|10.0.0.300|10.0.0.300"},
  };
  for (const auto& [call, expected] : cases) {
    EXPECT_EQ(Facts<FWESocketError>(call), expected);
  }
  std::string data;
  bool try_again = false;
  EXPECT_EQ(Facts<FWESocketError>([&] { (void)sockets.Recv(-1, data, try_again); }),
            "(receive) Bad file descriptor" + number(EBADF) + "|Bad file descriptor");
  // A service the services database lacks: the reason is whatever errno the look-up left.
  sockaddr_in address{};
  try {
    sockets.AddressCreate(address, "", "nosuchservice", "tcp");
    ADD_FAILURE() << "nosuchservice resolved";
  } catch (const FWESocketError& e) {
    EXPECT_EQ(e.GetObject(), "nosuchservice");
    EXPECT_EQ(e.GetReason(), GetErrorMessage(e.GetErrno()));
    EXPECT_EQ(e.GetText(), "(nosuchservice) " + e.GetReason());
  }
}

// A file or directory that cannot be opened names its path and errno beside the text.
TEST(FWSupportTest, FileFailuresCarryErrnoPathAndReason) {
  const testutil::TempDir dir;
  const std::string file = dir.File("plain");
  testutil::WriteFile(file, "x");
  const std::string missing = dir.File("missing");
  const std::string under_file = file + "/x";  // ENOTDIR, which root cannot get around
  const auto open_directory = [](const std::string& path) {
    return [path] { FWDirectory().Open(path); };
  };
  const auto load = [](const std::string& path) {
    return [path] {
      std::string text;
      FWStringUtils::LoadFromFile(text, path, 100);
    };
  };
  const std::string report = ", please report this error to the software vendor";
  const auto number = [](int error) { return "|" + std::to_string(error) + "|"; };
  EXPECT_EQ(Facts<FWESystemException>(open_directory(missing)),
            "No such file or directory" + report + number(ENOENT) + missing +
                "|No such file or directory");
  EXPECT_EQ(Facts<FWESystemException>(open_directory(file)),
            "Not a directory" + report + number(ENOTDIR) + file + "|Not a directory");
  EXPECT_EQ(Facts<FWECantOpen>(load(missing)),
            "Cannot open file " + missing + " mode=read (No such file or directory)" +
                number(ENOENT) + missing + "|No such file or directory");
  EXPECT_EQ(Facts<FWECantOpen>(load(under_file)),
            "Cannot open file " + under_file + " mode=read (Not a directory)" + number(ENOTDIR) +
                under_file + "|Not a directory");
  EXPECT_EQ(Facts<FWECantOpen>([&] { FWStringUtils::SaveToFile("x", dir.Path()); }),
            "Cannot open file " + dir.Path() + " mode=write (Is a directory)" + number(EISDIR) +
                dir.Path() + "|Is a directory");
}

// ---- The update check ----

// Answers one request on a loopback port with a canned response or, silent, holds the connection
// until the client gives up. Every wait is bounded (10 s), so the destructor returns in time.
class OneShotServer {
 public:
  explicit OneShotServer(std::string response, bool silent = false)
      : thread_([this, response = std::move(response), silent] {
          pollfd entry{listener_.Fd(), POLLIN, 0};
          if (::poll(&entry, 1, 10000) != 1) return;
          const int fd = ::accept(listener_.Fd(), nullptr, nullptr);
          const timeval limit{10, 0};
          ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
          char buffer[4096];
          for (ssize_t got; request_.find("\r\n\r\n") == std::string::npos &&
                            (got = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
            request_.append(buffer, static_cast<std::size_t>(got));
          }
          if (silent) (void)::recv(fd, buffer, 1, 0);
          if (!silent) (void)::send(fd, response.data(), response.size(), MSG_NOSIGNAL);
          ::close(fd);
        }) {}
  ~OneShotServer() { Request(); }
  std::string Address() const { return "127.0.0.1:" + std::to_string(listener_.Port()); }
  // The request as received, once the server is done.
  std::string Request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  testutil::LoopbackListener listener_;
  std::string request_;
  std::thread thread_;  // last: starts once everything it uses exists
};

TEST(FWSupportTest, VersionsCompareNumberByNumber) {
  EXPECT_TRUE(FWProduct::IsNewerVersion("0.10.0", "0.9.1"));
  EXPECT_TRUE(FWProduct::IsNewerVersion("1.0.1", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("1.0.0", "1.0"));
  EXPECT_FALSE(FWProduct::IsNewerVersion("2.x", "1.0"));
}

// One plain GET; the first line of the body names the newest version. Every failure is no
// update, with a reason for the log.
TEST(FWSupportTest, UpdateCheckReportsANewerVersionOrWhyItFoundNone) {
  const std::string ok = "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n";
  const std::string running = FWProduct::GetVersion();
  // The response, and "message|failure" after the check.
  const std::pair<std::string, std::string> cases[] = {
      {ok + "999.0.1\r\nsecond line\r\n",
       "Version 999.0.1 is available (running " + running + ")|"},
      {ok + running + "\n", "|"},
      {ok + "0.0.0\n", "|"},
      {"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n999.0\r\n",
       "|answer without a blank line after the header"},
      {"HTTP/1.0 404 Not Found\r\n\r\n999.0\r\n", "|server answered 'HTTP/1.0 404 Not Found'"},
      {ok + "latest!\r\n", "|bad version text 'latest!'"},
      {ok + "\r\n999.0\r\n", "|answer without a version"},
      {"", "|empty answer from "},  // + the address
  };
  for (const auto& [response, result] : cases) {
    OneShotServer server(response);
    FWProduct product;
    EXPECT_EQ(product.CheckForUpdate("http://" + server.Address(), milliseconds(10000)),
              result.front() != '|');
    EXPECT_EQ(product.GetUpdateMessage() + "|" + product.GetUpdateFailure(),
              result + (response.empty() ? server.Address() : ""));
    EXPECT_EQ(server.Request(), "GET / HTTP/1.0\r\nHost: " + server.Address() +
                                    "\r\nUser-Agent: Norvane/" + running + "\r\n\r\n");
  }
  OneShotServer silent("", true);
  FWProduct product;
  EXPECT_FALSE(product.CheckForUpdate("http://" + silent.Address() + "/n/v", milliseconds(500)));
  EXPECT_EQ(product.GetUpdateFailure(), "no answer from " + silent.Address() + " within 500 ms");
  EXPECT_EQ(silent.Request().substr(0, 21), "GET /n/v HTTP/1.0\r\nHo");
  const std::string closed = "127.0.0.1:" + std::to_string(testutil::FreePort());
  EXPECT_FALSE(product.CheckForUpdate("http://" + closed + "/v", milliseconds(10000)));
  EXPECT_EQ(product.GetUpdateFailure(),
            "cannot connect to " + closed + ": (connect) Connection refused");
  for (const std::string url : {"http://127.0.0.1:65536/v", "http://127.0.0.1:0/v"}) {
    EXPECT_FALSE(product.CheckForUpdate(url, milliseconds(1000)));
    EXPECT_EQ(product.GetUpdateFailure(), "bad update URL '" + url + "'");
  }
  EXPECT_FALSE(product.CheckForUpdate("", milliseconds(1000)));
  EXPECT_EQ(product.GetUpdateMessage() + "|" + product.GetUpdateFailure(), "|");
}

}  // namespace
