// The one place that talks to the system's IPv4 socket and resolver interfaces. Everyone else
// holds plain descriptors and sockaddr_in addresses and calls the socket manager; every failure
// is an FWESocketError from source "src/FWSocket" with the line the message has always carried.
// Beside its text "(where) reason" it carries the facts (FWSystemFacts): the errno of a failed
// call (0 for resolver misses, unknown protocols and malformed addresses) and the object: the
// address a call was given (bind, connect), the listening socket's own address (accept,
// listen), or the host, service, protocol or address text looked up; "" for the other calls on a
// descriptor (receive, send, socket, getpeername, getsockname).
#ifndef NORVANE_SRC_FWSOCKET_H_
#define NORVANE_SRC_FWSOCKET_H_

#include <netinet/in.h>

#include <cstddef>
#include <string>
#include <vector>

// A stateless singleton. Descriptors are plain ints owned by the caller; callers treat 0 as "no
// socket". Addresses are AF_INET only.
//
// Threads: the socket calls (Accept, Bind, Connect, Recv, Send, SetBlocking, ...) may be used from
// any thread. The operations that use the resolver or the services/protocol databases
// (AddressCreate, CreateSocket, GetHost*, GetIPAddresses, IsAddressInUse) use non-reentrant
// library calls and belong to the main thread.
class FWSocketManager final {
 public:
  // The most bytes one Recv or Send call moves.
  static constexpr std::size_t kTransferLimit = 32000;

  static FWSocketManager& GetInstance();
  // The address in dotted form ("127.0.0.1"); "" when it cannot be written.
  static std::string Dotted(const in_addr& address);
  // The address and port as "127.0.0.1:9080": the object of a failure about that address.
  static std::string AddressText(const sockaddr_in& address);

  FWSocketManager(const FWSocketManager&) = delete;
  FWSocketManager& operator=(const FWSocketManager&) = delete;

  // Accepts one connection on the listening socket; the caller owns the new descriptor. The
  // peer's address is not kept.
  int Accept(int listening) const;
  // Accepts one connection as a non-blocking, close-on-exec descriptor, which the caller owns.
  // The failures that belong to normal flow return -1 with their errno in error: nothing pending
  // (EAGAIN, EINTR, ECONNABORTED, EPROTO) or no descriptor or buffer left (EMFILE, ENFILE,
  // ENOBUFS, ENOMEM; see IsResourceShortage). Any other failure throws FWESocketError.
  int AcceptNonBlocking(int listening, int& error) const;
  // True for the accept failures that mean the process or system is out of descriptors or memory.
  static bool IsResourceShortage(int error);
  // Builds an IPv4 address. An empty server means any address; otherwise a dotted address or a
  // host name. The port text is a number (cut to 16 bits) or, when that gives 0, a service name
  // looked up for the protocol ("tcp", "udp").
  void AddressCreate(sockaddr_in& address, const std::string& server, const std::string& port,
                     const std::string& protocol) const;
  void AddressOfPeer(sockaddr_in& address, int socket) const;
  void AddressOfSocket(sockaddr_in& address, int socket) const;
  // Sets SO_REUSEADDR, then binds.
  void Bind(int socket, const sockaddr_in& address) const;
  // Closes the descriptor; never fails.
  void CloseSocket(int socket) const;
  // Connects, retrying when interrupted. A connection still in progress (non-blocking socket)
  // counts as success.
  void Connect(int socket, const sockaddr_in& address) const;
  // A stream socket for "tcp", a datagram socket for any other known protocol; the caller owns it.
  int CreateSocket(const std::string& protocol) const;
  // The name servers listed in the resolver configuration, in file order. Lines are lower-cased
  // before matching "nameserver <address>". An unreadable file gives an empty list.
  std::vector<std::string> GetDNSServers(const std::string& path = "/etc/resolv.conf") const;
  // The official host name of a dotted address.
  std::string GetHostByAddress(const std::string& address) const;
  std::string GetHostByAddress(const sockaddr_in& address) const;
  // The first address of a host name, dotted.
  std::string GetHostByName(const std::string& name) const;
  // The machine's host name, or "localhost" when it cannot be read.
  std::string GetHostName() const;
  // Every address "localhost" resolves to, dotted, in resolver order, separated by one blank;
  // empty when the look-up fails.
  std::string GetIPAddresses() const;
  // True when a TCP socket cannot be created, addressed or bound to server:port. The probe socket
  // is always closed again.
  bool IsAddressInUse(const std::string& server, const std::string& port) const;
  void Listen(int socket, unsigned int backlog) const;
  // True for the private ranges 10.0.0.0/8, 172.16.0.0/12 and 192.168.0.0/16; loopback and every
  // other address are not local.
  bool IsAddressLocal(const std::string& address) const;
  bool IsAddressLocal(const sockaddr_in& address) const;
  // Appends at most kTransferLimit received bytes to data and returns their count; 0 with
  // try_again clear means the peer has closed its side. An interrupted or would-block receive
  // sets try_again and returns 0.
  int Recv(int socket, std::string& data, bool& try_again) const;
  // Sends at most kTransferLimit bytes from the front of data, removes what was sent and returns
  // its count. Empty data returns 0 at once and leaves try_again as it is. An interrupted or
  // would-block send sets try_again and returns 0. A peer that reset the connection gives an
  // exception, never SIGPIPE.
  int Send(int socket, std::string& data, bool& try_again) const;
  // Clears (blocking) or sets (non-blocking) O_NONBLOCK; never fails.
  void SetBlocking(int socket, bool blocking) const;
  // The system's text for the current errno: GetErrorMessage(errno) (FWErrorMessage.h), kept for
  // the session manager's poll failure.
  std::string SocketError() const;

 private:
  FWSocketManager() = default;
};

#endif  // NORVANE_SRC_FWSOCKET_H_
