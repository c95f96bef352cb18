#include "FWSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
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
  std::pair<int, int> Connect() {
    const int client = Own(sockets_.CreateSocket("tcp"));
    sockets_.Connect(client, Loopback(listener_.Port()));
    return {client, Own(sockets_.Accept(listener_.Fd()))};
  }

  static bool Readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
  }

  static long OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }

  // Runs call, which must throw FWESocketError from the given line with the given text.
  static void ExpectFailure(unsigned line, const std::string& text,
                            const std::function<void()>& call) {
    try {
      call();
      ADD_FAILURE() << "no FWESocketError: " << text;
    } catch (const FWESocketError& e) {
      EXPECT_EQ(e.GetSource(), "src/FWSocket");
      EXPECT_EQ(e.GetLine(), line);
      EXPECT_EQ(e.GetText(), text);
      EXPECT_EQ(e.GetFullText(), text + " (src/FWSocket: " + std::to_string(line) + ")");
    }
  }

  FWSocketManager& sockets_ = FWSocketManager::GetInstance();
  testutil::LoopbackListener listener_;
  std::vector<int> fds_;
};

TEST_F(FWSocketTest, AddressCreateCutsNumericPortToSixteenBitsButRejectsZeroAnd65536) {
  sockaddr_in address;
  sockets_.AddressCreate(address, "127.0.0.1", "65535", "tcp");
  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ntohs(address.sin_port), 65535);
  sockets_.AddressCreate(address, "", "65537", "tcp");
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(ntohs(address.sin_port), 1);
  for (const std::string port : {"0", "65536"}) {
    // The reason is the system's errno text after the failed look-up, whatever the resolver sets.
    errno = 0;
    EXPECT_EQ(getservbyname(port.c_str(), "tcp"), nullptr);
    const std::string reason = std::strerror(errno);
    ExpectFailure(106, "(" + port + ") " + reason,
                  [&] { sockets_.AddressCreate(address, "", port, "tcp"); });
  }
}

TEST_F(FWSocketTest, ServiceNamePortIsLookedUpInServicesDatabase) {
  if (testutil::ReadFile("/etc/services").find("pop3") == std::string::npos) {
    GTEST_SKIP() << "/etc/services is missing or does not list pop3";
  }
  sockaddr_in address;
  sockets_.AddressCreate(address, "127.0.0.1", "pop3", "tcp");
  EXPECT_EQ(ntohs(address.sin_port), 110);
}

TEST_F(FWSocketTest, IsAddressLocalHoldsForPrivateRangesOnlyAndRejectsMalformedAddresses) {
  // Each range from its first to its last address, and the neighbours just outside it.
  for (const char* local : {"10.1.2.3", "172.16.0.0", "172.31.255.255", "192.168.0.1"}) {
    EXPECT_TRUE(sockets_.IsAddressLocal(local)) << local;
  }
  for (const char* other :
       {"127.0.0.1", "9.255.255.255", "11.0.0.0", "172.15.255.255", "172.32.0.0", "192.169.0.0"}) {
    EXPECT_FALSE(sockets_.IsAddressLocal(other)) << other;
  }
  ExpectFailure(357, "(invalid argument) 10.1.2.x", [&] { sockets_.IsAddressLocal("10.1.2.x"); });
  ExpectFailure(239, "(invalid argument) not-an-address",
                [&] { sockets_.GetHostByAddress("not-an-address"); });
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

TEST_F(FWSocketTest, CreateSocketPicksTypeFromProtocolAndFailuresCarryTheSystemReason) {
  int type = 0;
  socklen_t length = sizeof(type);
  const int tcp = Own(sockets_.CreateSocket("tcp"));
  ASSERT_EQ(::getsockopt(tcp, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_STREAM);
  const int udp = Own(sockets_.CreateSocket("udp"));
  ASSERT_EQ(::getsockopt(udp, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_DGRAM);
  ExpectFailure(176, "(nosuchproto) unknown protocol",
                [&] { sockets_.CreateSocket("nosuchproto"); });
  ExpectFailure(342, "(listen) Operation not supported", [&] { sockets_.Listen(udp, 5); });
  const int tcp_in_use = Own(sockets_.CreateSocket("tcp"));
  const sockaddr_in in_use = Loopback(listener_.Port());
  ExpectFailure(138, "(bind) Address already in use", [&] { sockets_.Bind(tcp_in_use, in_use); });
}

TEST_F(FWSocketTest, IsAddressInUseProbesWithoutLeakingTheSocket) {
  const int before = OpenDescriptors();
  EXPECT_TRUE(sockets_.IsAddressInUse("127.0.0.1", std::to_string(listener_.Port())));
  EXPECT_FALSE(sockets_.IsAddressInUse("127.0.0.1", std::to_string(ClosedPort())));
  EXPECT_TRUE(sockets_.IsAddressInUse("127.0.0.1", "nosuchservice"));
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FWSocketTest, AcceptedConnectionKnowsBothAddressesAndLoneSocketFails) {
  const auto [client, server] = Connect();
  sockaddr_in client_side;
  sockaddr_in server_view;
  sockets_.AddressOfSocket(client_side, client);
  sockets_.AddressOfPeer(server_view, server);
  EXPECT_EQ(server_view.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(server_view.sin_port, client_side.sin_port);
  sockaddr_in unused;
  const int lone = Own(sockets_.CreateSocket("tcp"));
  ExpectFailure(115, "(getpeername) Transport endpoint is not connected",
                [&] { sockets_.AddressOfPeer(unused, lone); });
  ExpectFailure(76, "(accept) Invalid argument", [&] { sockets_.Accept(lone); });
  const sockaddr_in closed = Loopback(ClosedPort());
  ExpectFailure(168, "(connect) Connection refused", [&] { sockets_.Connect(lone, closed); });
}

TEST_F(FWSocketTest, SendAndRecvMoveAtMost32000BytesPerCallAndRecvSeesTheClose) {
  const auto [client, server] = Connect();
  std::string empty;
  for (const bool flag : {true, false}) {
    bool try_again = flag;
    EXPECT_EQ(sockets_.Send(client, empty, try_again), 0);
    EXPECT_EQ(try_again, flag);  // an empty send leaves try_again alone
  }
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
  ::shutdown(client, SHUT_WR);
  ASSERT_TRUE(testutil::WaitUntil([&] { return Readable(server); }));
  std::string data;
  try_again = true;
  EXPECT_EQ(sockets_.Recv(server, data, try_again), 0);
  EXPECT_FALSE(try_again);
  EXPECT_TRUE(data.empty());
}

TEST_F(FWSocketTest, SendToResetConnectionThrowsInsteadOfRaisingSigpipe) {
  // The default action of SIGPIPE ends the process: a missing MSG_NOSIGNAL kills this test.
  const sighandler_t previous = ::signal(SIGPIPE, SIG_DFL);
  const auto [client, server] = Connect();
  const linger reset{1, 0};
  ASSERT_EQ(::setsockopt(server, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
  CloseOwned(server);  // with a zero linger time, close sends a reset
  ASSERT_TRUE(testutil::WaitUntil([&] { return Readable(client); }));
  std::string data;
  bool try_again = false;
  ExpectFailure(394, "(receive) Connection reset by peer",
                [&] { sockets_.Recv(client, data, try_again); });
  data = "after the reset";
  ExpectFailure(413, "(send) Broken pipe", [&] { sockets_.Send(client, data, try_again); });
  ::signal(SIGPIPE, previous);
}

TEST_F(FWSocketTest, SetBlockingTogglesFlagAndNonBlockingTransfersThatCannotProceedSetTryAgain) {
  const auto [client, server] = Connect();
  for (const bool blocking : {false, false, true, false}) {
    sockets_.SetBlocking(server, blocking);
    EXPECT_EQ(::fcntl(server, F_GETFL) & O_NONBLOCK, blocking ? 0 : O_NONBLOCK) << blocking;
  }
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
