#include "ProxySession.h"

#include <netinet/in.h>

#include <cerrno>

#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWLogStream.h"
#include "FWMIMEParser.h"
#include "FWSocket.h"
#include "FWStringUtils.h"
#include "ProxyPort.h"

ProxySession::ProxySession(int number, ProxyPort* port)
    : log_prefix_(FWStringUtils::Printf("Session %d: ", number)),
      number_(static_cast<unsigned int>(number)),
      port_(port) {}

ProxySession::~ProxySession() = default;

void ProxySession::Close() {
  if (!open_) return;
  CloseSockets();
  incoming_buffer_.Clear();
  outgoing_buffer_.Clear();
  if (IsConnectionLogging()) {
    Log(FWStringUtils::Printf("connection from %s closed", incoming_address_.c_str()));
  }
  open_ = false;
}

// A failed accept that is normal flow (nothing pending, no descriptor left) leaves the session
// without a socket and the errno in GetAcceptError(); the concrete session then closes itself.
void ProxySession::OpenIncoming(int listening) {
  incoming_closed_ = false;
  const int fd = FWSocketManager::GetInstance().AcceptNonBlocking(listening, accept_error_);
  if (fd < 0) return;
  incoming_socket_.Reset(fd);
  start_time_ = std::time(nullptr);
  accept_date_ = FWMIMEParser::MIMETime(start_time_);
  GetPeerInfo(fd, incoming_host_, incoming_address_);
  GetSockInfo(fd, local_host_, local_address_);
  if (!IsConnectionLogging()) return;
  const std::string port_text = port_ != nullptr ? port_->GetIncomingPort() : std::string();
  Log(FWStringUtils::Printf("connection from %s accepted on %s:%s", incoming_address_.c_str(),
                            local_address_.c_str(), port_text.c_str()));
}

void ProxySession::OpenOutgoing(const std::string& server, const std::string& port) {
  const FWSocketManager& sockets = FWSocketManager::GetInstance();
  outgoing_closed_ = false;
  outgoing_socket_.Reset();
  try {
    sockaddr_in address{};
    sockets.AddressCreate(address, server, port, "tcp");
    outgoing_socket_.Reset(sockets.CreateSocket("tcp"));
    sockets.SetBlocking(outgoing_socket_.Get(), true);
    sockets.Connect(outgoing_socket_.Get(), address);
    GetPeerInfo(outgoing_socket_.Get(), outgoing_host_, outgoing_address_);
  } catch (const FWESocketError& error) {
    Log(FWStringUtils::Printf("Connect to %s:%s failed: ", server.c_str(), port.c_str()) +
        error.GetText());
    outgoing_socket_.Reset();
  }
  outgoing_activity_ = std::time(nullptr);
}

int ProxySession::ReceiveIncoming() { return Receive(ClientSide()); }

int ProxySession::ReceiveOutgoing() { return Receive(ServerSide()); }

int ProxySession::SendIncoming() { return Send(ClientSide()); }

int ProxySession::SendOutgoing() { return Send(ServerSide()); }

void ProxySession::CheckFinished() {
  if (Finished() && incoming_buffer_.empty() && outgoing_buffer_.empty()) Close();
}

void ProxySession::GetPeerInfo(int socket, std::string& host, std::string& address) {
  sockaddr_in peer{};
  FWSocketManager::GetInstance().AddressOfPeer(peer, socket);
  address = FWSocketManager::Dotted(peer.sin_addr);
  host.clear();
}

// No reverse look-up: it would hold the loop for as long as the name server takes.
void ProxySession::GetSockInfo(int socket, std::string& host, std::string& address) {
  sockaddr_in local{};
  FWSocketManager::GetInstance().AddressOfSocket(local, socket);
  address = FWSocketManager::Dotted(local.sin_addr);
  host.clear();
}

void ProxySession::Log(const std::string& text) const { LogStream.Log(text, log_prefix_); }

ProxySession::Side ProxySession::ClientSide() {
  return Side{&incoming_socket_,
              &incoming_buffer_,
              &incoming_closed_,
              &incoming_activity_,
              true,
              "connection closed by client",
              "Receive from client: ",
              "Send to client: "};
}

ProxySession::Side ProxySession::ServerSide() {
  return Side{&outgoing_socket_,
              &outgoing_buffer_,
              &outgoing_closed_,
              &outgoing_activity_,
              false,
              "connection closed by server",
              "Receive from server: ",
              "Send to server: "};
}

// A read of 0 bytes without try-again is the peer's end of stream. A session that is finished and
// has sent everything to that peer ends quietly through CheckFinished; any other ends here.
int ProxySession::Receive(const Side& side) {
  if (!side.socket->IsOpen()) return 0;
  std::string data;
  bool try_again = false;
  int count = 0;
  try {
    count = FWSocketManager::GetInstance().Recv(side.socket->Get(), data, try_again);
  } catch (const FWESocketError& error) {
    Log(side.receive_text + error.GetText());
    Close();
    return 0;
  }
  if (side.is_client) {
    QueueOutgoing(data);
  } else {
    QueueIncoming(data, false);
  }
  if (count > 0) {
    *side.activity = std::time(nullptr);
    return count;
  }
  if (try_again) return 0;
  *side.closed = true;
  if (Finished() && side.buffer->empty()) return 0;
  Log(side.closed_text);
  Close();
  return 0;
}

// Writes until the socket would block, at most kSendPerPass bytes, so that one fast peer with a
// long queue cannot hold the loop from the others.
int ProxySession::Send(const Side& side) {
  if (!side.socket->IsOpen() || side.buffer->empty()) return 0;
  const long count = side.buffer->Send(side.socket->Get(), kSendPerPass);
  if (count < 0) {
    Log(side.send_text + FWMSocketError("send", GetErrorMessage(errno)).GetText());
    Close();
    return 0;
  }
  if (count == 0) return 0;
  *side.activity = std::time(nullptr);
  if (side.is_client) incoming_bytes_sent_ += static_cast<std::uint64_t>(count);
  return static_cast<int>(count);
}

bool ProxySession::IsConnectionLogging() {
  return (LogStream.GetOptions() & FWLogStream::kLogConnections) != 0;
}

void ProxySession::CloseSockets() {
  incoming_socket_.Reset();
  outgoing_socket_.Reset();
}
