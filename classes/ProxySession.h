// One accepted client connection, optionally paired with one connection to a server, and the two
// send buffers between them. The event loop says when a socket is ready; the session moves the
// bytes and decides when the pair is finished. Abstract: what received bytes mean, when the
// session may receive and when it is finished belong to the concrete session.
//
// "Incoming" is the client side (the accepted socket), "outgoing" the server side. Bytes read from
// the client go to QueueOutgoing, bytes read from the server to QueueIncoming. The incoming buffer
// holds bytes waiting to be sent to the client, the outgoing buffer bytes waiting for the server.
#ifndef NORVANE_CLASSES_PROXYSESSION_H_
#define NORVANE_CLASSES_PROXYSESSION_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "FWDescriptor.h"
#include "FWSendQueue.h"

class ProxyPort;

// Main thread only.
//
// Sockets: the session owns both (FWDescriptor); their getters give 0 for none, as the loop takes
// them. Close() closes them (and logs the connection line when connection logging is on). The
// destructor closes, silently, a socket that is still open: one left by a start-up that failed
// before the session was open, or by a port that destroys its sessions without closing them. It
// calls no virtual operation and logs nothing.
//
// Transfer errors never leave the four transfer operations: they are logged under the log prefix
// and end the session. Exceptions thrown by QueueIncoming and QueueOutgoing leave them unchanged.
class ProxySession {
 public:
  // A send writes until the socket would block, but at most this many bytes a pass.
  static constexpr std::size_t kSendPerPass = 4u << 20;

  // Not open, no sockets, empty texts and buffers. The port is the owning port; it is not owned
  // by the session and may be null (then the accept line names no port).
  ProxySession(int number, ProxyPort* port);
  ProxySession(const ProxySession&) = delete;
  ProxySession& operator=(const ProxySession&) = delete;
  virtual ~ProxySession();

  // Called once by the port right after creation: must call OpenIncoming(listening) and then
  // SetOpen(true); may queue a greeting and may call OpenOutgoing. An FWException leaving it is
  // logged by the port, which then closes the session.
  virtual void Open(int listening) = 0;
  // When open: closes both sockets, empties both buffers, logs "connection from %s closed" when
  // connection logging is on, and leaves the session not open. Does nothing when not open. An
  // override calls this first and then clears its own data.
  virtual void Close();
  // Called by the loop once per second of wall time, open or not: time-outs and periodic work.
  virtual void CheckActive() = 0;
  // True when the session has work for the next pass that neither its sockets nor the next second
  // will announce (a followed file with more unread data): the loop then runs CheckActive on the
  // next pass without waiting.
  virtual bool IsBehind() const { return false; }
  // The memory the session holds, in bytes.
  virtual std::size_t GetMemoryRequired() const = 0;
  // While false, the client (server) socket is not polled for reading.
  virtual bool ReadyToReceiveIncoming() = 0;
  virtual bool ReadyToReceiveOutgoing() = 0;
  // True when the session has nothing more to do; with both send buffers empty it ends the
  // session (CheckFinished).
  virtual bool Finished() = 0;
  // Accepts the client on the listening socket as a non-blocking socket and records its address,
  // the local address and the accept time. An accept that finds nothing pending or no descriptor
  // left leaves the session without a socket and sets GetAcceptError(). Throws FWESocketError
  // when the accept fails otherwise or an address query fails.
  virtual void OpenIncoming(int listening);
  // Connects (blocking) to server:port. A failure is logged as "Connect to %s:%s failed: " and
  // the error text; it does not propagate, and the session goes on without a server side. An
  // outgoing socket that is still set is closed first.
  virtual void OpenOutgoing(const std::string& server, const std::string& port);
  // Every chunk read from the server. The flag is always false from this class.
  virtual void QueueIncoming(const std::string& data, bool flag) = 0;
  // Every chunk read from the client, including an empty one when a read produced nothing.
  virtual void QueueOutgoing(const std::string& data) = 0;

  // The transfers, called when the loop has seen the socket ready; each returns the bytes moved
  // (0 when none). A receive reads at most FWSocketManager::kTransferLimit (32000) bytes; a send
  // writes until the socket would block, at most kSendPerPass (4 MiB).
  int ReceiveIncoming();
  int ReceiveOutgoing();
  int SendIncoming();
  int SendOutgoing();
  // Closes the session when Finished() and both send buffers are empty, so a last reply is sent
  // completely before the session ends.
  void CheckFinished();

  // The peer's dotted address; host is always set empty.
  static void GetPeerInfo(int socket, std::string& host, std::string& address);
  // The local dotted address; host is always set empty (no reverse look-up on the loop). A
  // failing address query throws FWESocketError.
  static void GetSockInfo(int socket, std::string& host, std::string& address);

  bool IsOpen() const { return open_; }
  int GetIncomingSocket() const { return incoming_socket_.IsOpen() ? incoming_socket_.Get() : 0; }
  const std::string& GetIncomingAddress() const { return incoming_address_; }
  const FWSendQueue& GetIncomingBuffer() const { return incoming_buffer_; }
  bool IsIncomingClosed() const { return incoming_closed_; }
  const std::string& GetIncomingHost() const { return incoming_host_; }
  std::time_t GetIncomingActivity() const { return incoming_activity_; }
  // The accept time as mail-style clock text.
  const std::string& GetAcceptDate() const { return accept_date_; }
  std::time_t GetStartTime() const { return start_time_; }
  const std::string& GetLocalHost() const { return local_host_; }
  const std::string& GetLocalAddress() const { return local_address_; }
  int GetOutgoingSocket() const { return outgoing_socket_.IsOpen() ? outgoing_socket_.Get() : 0; }
  const std::string& GetOutgoingAddress() const { return outgoing_address_; }
  const FWSendQueue& GetOutgoingBuffer() const { return outgoing_buffer_; }
  bool IsOutgoingClosed() const { return outgoing_closed_; }
  const std::string& GetOutgoingHost() const { return outgoing_host_; }
  std::time_t GetOutgoingActivity() const { return outgoing_activity_; }
  // "Session <number>: ", put before every log line of the session.
  const std::string& GetLogPrefix() const { return log_prefix_; }
  unsigned int GetNumber() const { return number_; }
  // The errno of an accept that gave no socket; 0 after a successful one.
  int GetAcceptError() const { return accept_error_; }
  // Bytes sent to the client so far.
  std::uint64_t GetIncomingBytesSent() const { return incoming_bytes_sent_; }
  ProxyPort* GetPort() const { return port_; }

 protected:
  void SetOpen(bool open) { open_ = open; }
  // Queues bytes to be sent to the client (incoming) or to the server (outgoing).
  void AppendIncoming(std::string data) { incoming_buffer_.Append(std::move(data)); }
  void AppendIncoming(const FWSharedBytes& data) { incoming_buffer_.Append(data); }
  void AppendOutgoing(std::string data) { outgoing_buffer_.Append(std::move(data)); }
  // Logs one line under the session's log prefix.
  void Log(const std::string& text) const;

 private:
  // One end of the connection pair as the transfer operations see it.
  struct Side {
    FWDescriptor* socket;
    FWSendQueue* buffer;
    bool* closed;
    std::time_t* activity;
    bool is_client;
    const char* closed_text;
    const char* receive_text;
    const char* send_text;
  };

  Side ClientSide();
  Side ServerSide();
  int Receive(const Side& side);
  int Send(const Side& side);
  static bool IsConnectionLogging();
  // Closes and clears both sockets; no log, no virtual call.
  void CloseSockets();

  bool open_ = false;
  FWDescriptor incoming_socket_;
  std::string incoming_address_;
  FWSendQueue incoming_buffer_;
  bool incoming_closed_ = false;
  std::string incoming_host_;
  std::time_t incoming_activity_ = 0;
  std::string accept_date_;
  std::time_t start_time_ = 0;
  std::string local_host_;
  std::string local_address_;
  FWDescriptor outgoing_socket_;
  std::string outgoing_address_;
  FWSendQueue outgoing_buffer_;
  bool outgoing_closed_ = false;
  std::string outgoing_host_;
  std::time_t outgoing_activity_ = 0;
  int accept_error_ = 0;
  std::uint64_t incoming_bytes_sent_ = 0;
  const std::string log_prefix_;
  const unsigned int number_;
  ProxyPort* const port_;
};

#endif  // NORVANE_CLASSES_PROXYSESSION_H_
