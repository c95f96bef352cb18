#include "FWSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "FWDescriptor.h"
#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWStringUtils.h"

namespace {

// The source and line numbers are part of the messages users and logs see; they stay fixed.
constexpr const char* kSource = "src/FWSocket";
constexpr unsigned kAcceptLine = 76;
constexpr unsigned kHostNotFoundLine = 95;
constexpr unsigned kServiceNotFoundLine = 106;
constexpr unsigned kPeerNameLine = 115;
constexpr unsigned kSocketNameLine = 123;
constexpr unsigned kBindLine = 138;
constexpr unsigned kConnectLine = 168;
constexpr unsigned kUnknownProtocolLine = 176;
constexpr unsigned kSocketLine = 179;
constexpr unsigned kBadHostAddressLine = 239;
constexpr unsigned kHostByAddressLine = 250;
constexpr unsigned kHostByNameLine = 262;
constexpr unsigned kListenLine = 342;
constexpr unsigned kBadLocalAddressLine = 357;
constexpr unsigned kReceiveLine = 394;
constexpr unsigned kSendLine = 413;

// The resolver configuration is a few lines; anything bigger is not one.
constexpr std::size_t kResolverConfigLimit = 100000;

bool IsTransient(int error) { return error == EINTR || error == EAGAIN || error == EWOULDBLOCK; }

sockaddr* AsSockaddr(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

const sockaddr* AsSockaddr(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// The socket's own address as AddressText gives it; "" when it has none (not bound, not an
// IPv4 socket, not a socket). Called on failure paths, after errno has been saved.
std::string OwnAddressText(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (::getsockname(socket, AsSockaddr(address), &length) != 0) return "";
  if (address.sin_family != AF_INET || address.sin_port == 0) return "";
  return FWSocketManager::AddressText(address);
}

}  // namespace

std::string FWSocketManager::Dotted(const in_addr& address) {
  char buffer[INET_ADDRSTRLEN];
  if (inet_ntop(AF_INET, &address, buffer, sizeof(buffer)) == nullptr) return "";
  return buffer;
}

std::string FWSocketManager::AddressText(const sockaddr_in& address) {
  return Dotted(address.sin_addr) + ":" + std::to_string(ntohs(address.sin_port));
}

FWSocketManager& FWSocketManager::GetInstance() {
  static FWSocketManager instance;
  return instance;
}

int FWSocketManager::Accept(int listening) const {
  const int fd = ::accept(listening, nullptr, nullptr);
  if (fd < 0) {
    const int error = errno;
    throw FWESocketError(kSource, kAcceptLine, "accept", GetErrorMessage(error), error,
                         OwnAddressText(listening));
  }
  return fd;
}

int FWSocketManager::AcceptNonBlocking(int listening, int& error) const {
  const int fd = ::accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd >= 0) {
    error = 0;
    return fd;
  }
  error = errno;
  const bool nothing_pending = IsTransient(error) || error == ECONNABORTED || error == EPROTO;
  if (nothing_pending || IsResourceShortage(error)) return -1;
  throw FWESocketError(kSource, kAcceptLine, "accept", GetErrorMessage(error), error,
                       OwnAddressText(listening));
}

bool FWSocketManager::IsResourceShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void FWSocketManager::AddressCreate(sockaddr_in& address, const std::string& server,
                                    const std::string& port, const std::string& protocol) const {
  std::memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  if (!server.empty()) {
    in_addr_t host = inet_addr(server.c_str());
    if (host == INADDR_NONE) {
      const hostent* entry = gethostbyname(server.c_str());
      if (entry == nullptr || entry->h_addr_list[0] == nullptr) {
        const int error = h_errno;
        throw FWESocketError(kSource, kHostNotFoundLine, server, hstrerror(error), 0, server);
      }
      std::memcpy(&host, entry->h_addr_list[0], sizeof(host));
    }
    address.sin_addr.s_addr = host;
  }
  const auto number = static_cast<std::uint16_t>(FWStringUtils::GetDefaultInstance().Str2Int(port));
  address.sin_port = htons(number);
  if (number != 0) return;
  // A miss in the services database need not set errno; clear it so no stale text is reported.
  errno = 0;
  const servent* service = getservbyname(port.c_str(), protocol.c_str());
  if (service == nullptr) {
    const int error = errno;
    throw FWESocketError(kSource, kServiceNotFoundLine, port, GetErrorMessage(error), error, port);
  }
  // s_port holds the 16-bit port already in network order.
  address.sin_port = static_cast<in_port_t>(service->s_port);
}

void FWSocketManager::AddressOfPeer(sockaddr_in& address, int socket) const {
  socklen_t length = sizeof(address);
  if (::getpeername(socket, AsSockaddr(address), &length) != 0) {
    const int error = errno;
    throw FWESocketError(kSource, kPeerNameLine, "getpeername", GetErrorMessage(error), error);
  }
}

void FWSocketManager::AddressOfSocket(sockaddr_in& address, int socket) const {
  socklen_t length = sizeof(address);
  if (::getsockname(socket, AsSockaddr(address), &length) != 0) {
    const int error = errno;
    throw FWESocketError(kSource, kSocketNameLine, "getsockname", GetErrorMessage(error), error);
  }
}

void FWSocketManager::Bind(int socket, const sockaddr_in& address) const {
  const int reuse = 1;
  // Only a bad descriptor makes this fail, and then bind below fails with the same reason.
  (void)::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  if (::bind(socket, AsSockaddr(address), sizeof(address)) != 0) {
    const int error = errno;
    throw FWESocketError(kSource, kBindLine, "bind", GetErrorMessage(error), error,
                         AddressText(address));
  }
}

void FWSocketManager::CloseSocket(int socket) const {
  // Closing has no failure the callers could act on.
  (void)::close(socket);
}

void FWSocketManager::Connect(int socket, const sockaddr_in& address) const {
  int result = 0;
  int error = 0;
  do {
    result = ::connect(socket, AsSockaddr(address), sizeof(address));
    error = errno;
  } while (result != 0 && error == EINTR);
  if (result == 0 || error == EINPROGRESS) return;
  throw FWESocketError(kSource, kConnectLine, "connect", GetErrorMessage(error), error,
                       AddressText(address));
}

int FWSocketManager::CreateSocket(const std::string& protocol) const {
  const protoent* entry = getprotobyname(protocol.c_str());
  if (entry == nullptr) {
    throw FWESocketError(kSource, kUnknownProtocolLine, protocol, "unknown protocol", 0, protocol);
  }
  const int type = protocol == "tcp" ? SOCK_STREAM : SOCK_DGRAM;
  const int fd = ::socket(AF_INET, type, entry->p_proto);
  if (fd < 0) {
    const int error = errno;
    throw FWESocketError(kSource, kSocketLine, "socket", GetErrorMessage(error), error);
  }
  return fd;
}

std::vector<std::string> FWSocketManager::GetDNSServers(const std::string& path) const {
  std::vector<std::string> servers;
  std::string text;
  try {
    FWStringUtils::LoadFromFile(text, path, kResolverConfigLimit);
  } catch (const FWException&) {
    return servers;  // no readable configuration means no name servers
  }
  std::vector<std::string> lines;
  FWStringUtils::Str2Lines(text, lines);
  for (const std::string& line : lines) {
    const std::string lower = FWStringUtils::GetDefaultInstance().Lower(line);
    // The field cannot be longer than the line it comes from.
    std::vector<char> field(lower.size() + 1, '\0');
    if (FWStringUtils::Scanf(lower, "nameserver %s", field.data()) == 1) {
      servers.emplace_back(field.data());
    }
  }
  return servers;
}

std::string FWSocketManager::GetHostByAddress(const std::string& address) const {
  sockaddr_in socket_address{};
  socket_address.sin_family = AF_INET;
  socket_address.sin_addr.s_addr = inet_addr(address.c_str());
  if (socket_address.sin_addr.s_addr == INADDR_NONE) {
    throw FWESocketError(kSource, kBadHostAddressLine, "invalid argument", address, 0, address);
  }
  return GetHostByAddress(socket_address);
}

std::string FWSocketManager::GetHostByAddress(const sockaddr_in& address) const {
  const hostent* entry = gethostbyaddr(&address.sin_addr, 4, AF_INET);
  if (entry == nullptr) {
    const int error = h_errno;
    const std::string dotted = Dotted(address.sin_addr);
    throw FWESocketError(kSource, kHostByAddressLine, dotted, hstrerror(error), 0, dotted);
  }
  return entry->h_name;
}

std::string FWSocketManager::GetHostByName(const std::string& name) const {
  const hostent* entry = gethostbyname(name.c_str());
  if (entry == nullptr || entry->h_addr_list[0] == nullptr) {
    const int error = h_errno;
    throw FWESocketError(kSource, kHostByNameLine, name, hstrerror(error), 0, name);
  }
  in_addr first;
  std::memcpy(&first, entry->h_addr_list[0], sizeof(first));
  return Dotted(first);
}

std::string FWSocketManager::GetHostName() const {
  char buffer[256] = {};
  if (::gethostname(buffer, sizeof(buffer) - 1) != 0) return "localhost";
  return buffer;
}

std::string FWSocketManager::GetIPAddresses() const {
  const hostent* entry = gethostbyname("localhost");
  if (entry == nullptr || entry->h_addrtype != AF_INET) return "";
  std::string addresses;
  for (char** item = entry->h_addr_list; *item != nullptr; ++item) {
    in_addr address;
    std::memcpy(&address, *item, sizeof(address));
    if (!addresses.empty()) addresses += ' ';
    addresses += Dotted(address);
  }
  return addresses;
}

bool FWSocketManager::IsAddressInUse(const std::string& server, const std::string& port) const {
  try {
    const FWDescriptor probe(CreateSocket("tcp"));
    sockaddr_in address;
    AddressCreate(address, server, port, "tcp");
    Bind(probe.Get(), address);
  } catch (const FWESocketError&) {
    return true;  // any failure on the way to a bound socket means the address is not free
  }
  return false;
}

void FWSocketManager::Listen(int socket, unsigned int backlog) const {
  // The kernel caps the backlog itself; only keep the value within int.
  const int limited = static_cast<int>(std::min<unsigned int>(backlog, INT_MAX));
  if (::listen(socket, limited) != 0) {
    const int error = errno;
    throw FWESocketError(kSource, kListenLine, "listen", GetErrorMessage(error), error,
                         OwnAddressText(socket));
  }
}

bool FWSocketManager::IsAddressLocal(const std::string& address) const {
  sockaddr_in socket_address{};
  socket_address.sin_family = AF_INET;
  socket_address.sin_addr.s_addr = inet_addr(address.c_str());
  if (socket_address.sin_addr.s_addr == INADDR_NONE) {
    throw FWESocketError(kSource, kBadLocalAddressLine, "invalid argument", address, 0, address);
  }
  return IsAddressLocal(socket_address);
}

bool FWSocketManager::IsAddressLocal(const sockaddr_in& address) const {
  const std::uint32_t host = ntohl(address.sin_addr.s_addr);
  const bool in_10 = (host & 0xFF000000u) == 0x0A000000u;
  const bool in_172_16 = (host & 0xFFF00000u) == 0xAC100000u;
  const bool in_192_168 = (host & 0xFFFF0000u) == 0xC0A80000u;
  return in_10 || in_172_16 || in_192_168;
}

int FWSocketManager::Recv(int socket, std::string& data, bool& try_again) const {
  try_again = false;
  char buffer[kTransferLimit];
  const ssize_t received = ::recv(socket, buffer, sizeof(buffer), 0);
  if (received >= 0) {
    data.append(buffer, static_cast<std::size_t>(received));
    return static_cast<int>(received);
  }
  const int error = errno;
  if (IsTransient(error)) {
    try_again = true;
    return 0;
  }
  throw FWESocketError(kSource, kReceiveLine, "receive", GetErrorMessage(error), error);
}

int FWSocketManager::Send(int socket, std::string& data, bool& try_again) const {
  if (data.empty()) return 0;
  try_again = false;
  const std::size_t count = std::min(data.size(), kTransferLimit);
  // MSG_NOSIGNAL: a peer that reset the connection gives EPIPE here instead of killing the
  // process with SIGPIPE.
  const ssize_t sent = ::send(socket, data.data(), count, MSG_NOSIGNAL);
  if (sent >= 0) {
    data.erase(0, static_cast<std::size_t>(sent));
    return static_cast<int>(sent);
  }
  const int error = errno;
  if (IsTransient(error)) {
    try_again = true;
    return 0;
  }
  throw FWESocketError(kSource, kSendLine, "send", GetErrorMessage(error), error);
}

void FWSocketManager::SetBlocking(int socket, bool blocking) const {
  const int flags = ::fcntl(socket, F_GETFL);
  if (flags < 0) return;  // a bad descriptor: nothing to change, and no failure by contract
  const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
  if (wanted == flags) return;
  // Failure is possible only for a bad descriptor, which the check above excluded.
  (void)::fcntl(socket, F_SETFL, wanted);
}

std::string FWSocketManager::SocketError() const { return GetErrorMessage(errno); }
