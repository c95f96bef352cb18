#include "FWSocket.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "TestUtil.h"

namespace {

class FWSocketTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int fd : fds_) ::close(fd);
  }

  // Keeps fd open until the test ends.
  int Own(int fd) {
    fds_.push_back(fd);
    return fd;
  }

  // Closes a descriptor taken with Own before the test ends.
  void CloseOwned(int fd) {
    std::erase(fds_, fd);
    ::close(fd);
  }

  sockaddr_in Loopback(int port) {
    sockaddr_in address;
    sockets_.AddressCreate(address, "127.0.0.1", std::to_string(port), "tcp");
    return address;
  }

  // A loopback port on which nothing listens.
  int ClosedPort() {
    testutil::LoopbackListener listener;
    return listener.Port();
  }

  // A connected client and the server side accepted from listener_.
  void Connect(int& client, int& server) {
    client = Own(sockets_.CreateSocket("tcp"));
    sockets_.Connect(client, Loopback(listener_.Port()));
    server = Own(sockets_.Accept(listener_.Fd()));
  }

  static bool Readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
  }

  static int OpenDescriptors() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (dir != nullptr && ::readdir(dir) != nullptr) ++count;
    if (dir != nullptr) ::closedir(dir);
    return count;
  }

  // Runs call, which must throw FWESocketError; returns it for inspection.
  template <typename Call>
  static FWException Failure(Call call) {
    try {
      call();
    } catch (const FWESocketError& e) {
      return e;
    }
    ADD_FAILURE() << "no FWESocketError";
    return FWException("", 0, FWNotification());
  }

  static void ExpectFailure(const FWException& e, unsigned line, const std::string& text) {
    EXPECT_EQ(e.GetSource(), "src/FWSocket");
    EXPECT_EQ(e.GetLine(), line);
    EXPECT_EQ(e.GetText(), text);
    EXPECT_EQ(e.GetFullText(), text + " (src/FWSocket: " + std::to_string(line) + ")");
  }

  FWSocketManager& sockets_ = FWSocketManager::GetInstance();
  testutil::LoopbackListener listener_;
  std::vector<int> fds_;
};

TEST_F(FWSocketTest, AddressCreateTakesDottedHostAndNumericPortCutToSixteenBits) {
  sockaddr_in address;
  sockets_.AddressCreate(address, "127.0.0.1", "65535", "tcp");
  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ntohs(address.sin_port), 65535);
  sockets_.AddressCreate(address, "", "65537", "tcp");
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(ntohs(address.sin_port), 1);
}

TEST_F(FWSocketTest, ServiceNamePortIsLookedUpInServicesDatabase) {
  if (testutil::ReadFile("/etc/services").find("pop3") == std::string::npos) {
    GTEST_SKIP() << "/etc/services is missing or does not list pop3";
  }
  sockaddr_in address;
  sockets_.AddressCreate(address, "127.0.0.1", "pop3", "tcp");
  EXPECT_EQ(ntohs(address.sin_port), 110);
}

TEST_F(FWSocketTest, PortZeroAndPortOnePastLimitFailAsUnknownServices) {
  for (const std::string port : {"0", "65536"}) {
    // The reason is the system's errno text after the failed look-up, whatever the resolver sets.
    errno = 0;
    EXPECT_EQ(getservbyname(port.c_str(), "tcp"), nullptr);
    const std::string reason = std::strerror(errno);
    sockaddr_in address;
    const FWException e = Failure([&] { sockets_.AddressCreate(address, "", port, "tcp"); });
    ExpectFailure(e, 106, "(" + port + ") " + reason);
  }
}

TEST_F(FWSocketTest, IsAddressLocalHoldsForPrivateRangesOnly) {
  EXPECT_FALSE(sockets_.IsAddressLocal("127.0.0.1"));
  EXPECT_FALSE(sockets_.IsAddressLocal("9.255.255.255"));
  EXPECT_TRUE(sockets_.IsAddressLocal("10.1.2.3"));
  EXPECT_FALSE(sockets_.IsAddressLocal("11.0.0.0"));
  EXPECT_FALSE(sockets_.IsAddressLocal("172.15.255.255"));
  EXPECT_TRUE(sockets_.IsAddressLocal("172.16.0.0"));
  EXPECT_TRUE(sockets_.IsAddressLocal("172.31.255.255"));
  EXPECT_FALSE(sockets_.IsAddressLocal("172.32.0.0"));
  EXPECT_TRUE(sockets_.IsAddressLocal("192.168.0.1"));
  EXPECT_FALSE(sockets_.IsAddressLocal("192.169.0.0"));
}

TEST_F(FWSocketTest, MalformedAddressFailsAsInvalidArgument) {
  ExpectFailure(Failure([&] { sockets_.IsAddressLocal("10.1.2.x"); }), 357,
                "(invalid argument) 10.1.2.x");
  ExpectFailure(Failure([&] { sockets_.GetHostByAddress("not-an-address"); }), 239,
                "(invalid argument) not-an-address");
}

TEST_F(FWSocketTest, GetDNSServersListsNameserverLinesInFileOrderWhateverTheirCase) {
  testutil::TempDir dir;
  testutil::WriteFile(dir.File("resolv.conf"),
                      "# nameserver 1.1.1.1\nNameServer 10.0.0.1\nsearch example.org\n"
                      "nameserver 192.168.1.1\r\n;nameserver 2.2.2.2\noptions ndots:1\n");
  EXPECT_EQ(sockets_.GetDNSServers(dir.File("resolv.conf")),
            (std::vector<std::string>{"10.0.0.1", "192.168.1.1"}));
  EXPECT_TRUE(sockets_.GetDNSServers(dir.File("missing.conf")).empty());
  EXPECT_TRUE(sockets_.GetDNSServers(dir.File("resolv.conf") + "/below-a-file").empty());
}

TEST_F(FWSocketTest, CreateSocketPicksTypeFromProtocolAndRejectsUnknownOnes) {
  int type = 0;
  socklen_t length = sizeof(type);
  const int tcp = Own(sockets_.CreateSocket("tcp"));
  ASSERT_EQ(::getsockopt(tcp, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_STREAM);
  const int udp = Own(sockets_.CreateSocket("udp"));
  ASSERT_EQ(::getsockopt(udp, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_DGRAM);
  ExpectFailure(Failure([&] { sockets_.CreateSocket("nosuchproto"); }), 176,
                "(nosuchproto) unknown protocol");
  ExpectFailure(Failure([&] { sockets_.Listen(udp, 5); }), 342, "(listen) Operation not supported");
}

TEST_F(FWSocketTest, BindToAddressInUseFailsWithSystemReason) {
  const int fd = Own(sockets_.CreateSocket("tcp"));
  const sockaddr_in address = Loopback(listener_.Port());
  ExpectFailure(Failure([&] { sockets_.Bind(fd, address); }), 138, "(bind) Address already in use");
}

TEST_F(FWSocketTest, IsAddressInUseProbesWithoutLeakingTheSocket) {
  const int before = OpenDescriptors();
  EXPECT_TRUE(sockets_.IsAddressInUse("127.0.0.1", std::to_string(listener_.Port())));
  EXPECT_FALSE(sockets_.IsAddressInUse("127.0.0.1", std::to_string(ClosedPort())));
  EXPECT_TRUE(sockets_.IsAddressInUse("127.0.0.1", "nosuchservice"));
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FWSocketTest, AcceptedConnectionKnowsBothAddresses) {
  int client = 0;
  int server = 0;
  Connect(client, server);
  sockaddr_in client_side;
  sockaddr_in server_view;
  sockets_.AddressOfSocket(client_side, client);
  sockets_.AddressOfPeer(server_view, server);
  EXPECT_EQ(server_view.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(server_view.sin_port, client_side.sin_port);
  sockaddr_in unused;
  const int lone = Own(sockets_.CreateSocket("tcp"));
  ExpectFailure(Failure([&] { sockets_.AddressOfPeer(unused, lone); }), 115,
                "(getpeername) Transport endpoint is not connected");
  ExpectFailure(Failure([&] { sockets_.Accept(lone); }), 76, "(accept) Invalid argument");
}

TEST_F(FWSocketTest, ConnectToClosedLoopbackPortIsRefused) {
  const int fd = Own(sockets_.CreateSocket("tcp"));
  const sockaddr_in address = Loopback(ClosedPort());
  ExpectFailure(Failure([&] { sockets_.Connect(fd, address); }), 168,
                "(connect) Connection refused");
}

TEST_F(FWSocketTest, SendOfEmptyTextReturnsZeroAndLeavesTryAgainAlone) {
  int client = 0;
  int server = 0;
  Connect(client, server);
  std::string empty;
  for (const bool flag : {true, false}) {
    bool try_again = flag;
    EXPECT_EQ(sockets_.Send(client, empty, try_again), 0);
    EXPECT_EQ(try_again, flag);
  }
}

TEST_F(FWSocketTest, SendAndRecvMoveAtMost32000BytesPerCall) {
  int client = 0;
  int server = 0;
  Connect(client, server);
  std::string original(40000, '\0');
  for (std::size_t i = 0; i < original.size(); ++i) original[i] = static_cast<char>(i % 251);
  std::string outgoing = original;
  bool try_again = true;
  EXPECT_EQ(sockets_.Send(client, outgoing, try_again), 32000);
  EXPECT_FALSE(try_again);
  EXPECT_EQ(outgoing, original.substr(32000));
  EXPECT_EQ(sockets_.Send(client, outgoing, try_again), 8000);
  EXPECT_TRUE(outgoing.empty());
  ASSERT_TRUE(testutil::WaitUntil([&] {
    int queued = 0;
    return ::ioctl(server, FIONREAD, &queued) == 0 && queued == 40000;
  }));
  std::string incoming;
  EXPECT_EQ(sockets_.Recv(server, incoming, try_again), 32000);
  EXPECT_EQ(sockets_.Recv(server, incoming, try_again), 8000);  // appended to what is there
  EXPECT_EQ(incoming, original);
}

TEST_F(FWSocketTest, RecvReturnsZeroWithoutTryAgainWhenPeerClosed) {
  int client = 0;
  int server = 0;
  Connect(client, server);
  ::shutdown(client, SHUT_WR);
  ASSERT_TRUE(testutil::WaitUntil([&] { return Readable(server); }));
  std::string data;
  bool try_again = true;
  EXPECT_EQ(sockets_.Recv(server, data, try_again), 0);
  EXPECT_FALSE(try_again);
  EXPECT_TRUE(data.empty());
}

TEST_F(FWSocketTest, SendToResetConnectionThrowsInsteadOfRaisingSigpipe) {
  // The default action of SIGPIPE ends the process: a missing MSG_NOSIGNAL kills this test.
  const sighandler_t previous = ::signal(SIGPIPE, SIG_DFL);
  int client = 0;
  int server = 0;
  Connect(client, server);
  const linger reset{1, 0};
  ASSERT_EQ(::setsockopt(server, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
  CloseOwned(server);  // with a zero linger time, close sends a reset
  ASSERT_TRUE(testutil::WaitUntil([&] { return Readable(client); }));
  std::string data;
  bool try_again = false;
  ExpectFailure(Failure([&] { sockets_.Recv(client, data, try_again); }), 394,
                "(receive) Connection reset by peer");
  data = "after the reset";
  ExpectFailure(Failure([&] { sockets_.Send(client, data, try_again); }), 413,
                "(send) Broken pipe");
  ::signal(SIGPIPE, previous);
}

TEST_F(FWSocketTest, SetBlockingTogglesNonBlockingFlag) {
  const int fd = Own(sockets_.CreateSocket("tcp"));
  sockets_.SetBlocking(fd, false);
  EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  sockets_.SetBlocking(fd, false);
  EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  sockets_.SetBlocking(fd, true);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(FWSocketTest, NonBlockingTransfersThatCannotProceedSetTryAgain) {
  int client = 0;
  int server = 0;
  Connect(client, server);
  sockets_.SetBlocking(server, false);
  sockets_.SetBlocking(client, false);
  std::string data;
  bool try_again = false;
  EXPECT_EQ(sockets_.Recv(server, data, try_again), 0);
  EXPECT_TRUE(try_again);
  EXPECT_TRUE(data.empty());
  // Nobody reads the server side, so the buffers fill within a bounded number of sends.
  try_again = false;
  std::string block(FWSocketManager::kTransferLimit, 'x');
  for (int i = 0; i < 10000 && !try_again; ++i) {
    if (block.empty()) block.assign(FWSocketManager::kTransferLimit, 'x');
    const int sent = sockets_.Send(client, block, try_again);
    EXPECT_EQ(sent == 0, try_again);
  }
  EXPECT_TRUE(try_again);
}

}  // namespace
