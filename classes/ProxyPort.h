// One configured listener of the forwarding frame: where it listens (IncomingServer:IncomingPort),
// how many sessions it holds, and the settings its sessions use. Abstract: each concrete port
// creates its own kind of session (SessionCreate).
//
// Two sides: the configuration (members, defaults, accessors, validation), which copying,
// comparison and the configuration file see; and the run-time state (the listening socket and the
// sessions accepted on it), which only Open, Close, SessionOpen and the service loop touch. Copying
// a port copies its configuration only, never its socket or sessions.
#ifndef NORVANE_CLASSES_PROXYPORT_H_
#define NORVANE_CLASSES_PROXYPORT_H_

#include <list>
#include <memory>

#include "FWDescriptor.h"
#include "FWObject.h"
#include "FWType.h"
#include "SessionContext.h"

class ProxySession;

// Main thread only.
class ProxyPort : public FWObject {
 public:
  // The sessions accepted on the port, in accept order. The list owns them: Close and the
  // destructor empty it; the service loop removes a session that is no longer open when it
  // reaps it.
  using SessionList = std::list<std::unique_ptr<ProxySession>>;

  ProxyPort();
  // Copies the configuration; the copy is closed and has no sessions.
  ProxyPort(const ProxyPort& other);
  // Destroys the sessions and closes the listening socket, as ProxyPort::Close does.
  ~ProxyPort() override;

  // ProxyPort is abstract, so New() and Clone() are left to the concrete ports.
  ProxyPort* New() const override = 0;
  ProxyPort* Clone() const override = 0;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  // The port has no owned configuration objects; its sessions are run-time state, released by
  // Close and the destructor, not by Clear.
  void Clear() override;
  // The registry's "ProxyPort" record; throws FWEAssertionFailed("Class")
  // ("classes/ProxyPort", 155) if it is missing.
  const FWClass* GetClass() const override;
  // Appends "Port must not be empty" when IncomingPort is empty. Addresses and names are not
  // compared with those of other ports.
  void Validate(std::list<FWNotification>& notifications) const override;
  // Closes every session, empties the list (which destroys them), and closes the listening
  // socket if one is open.
  virtual void Close();
  // Binds IncomingServer:IncomingPort (empty server: all interfaces), listens with
  // IncomingConnectionCount as backlog, at least 1024 (null: 5, which is stored), and logs the
  // display name, " listening on " and the address ("<all interfaces>" for an empty server). Call
  // it on a closed port. On any failure it calls Close() and rethrows: FWESocketError from the
  // socket manager ("(bind) Address already in use", ...).
  virtual void Open();
  // Nothing to update in this class.
  virtual void UpdateAddressLists();
  // A new session of the port's own kind for the given session number, lent the context's run-time
  // parts (a session that uses them keeps a copy of the context); the caller (SessionOpen) puts it
  // into the port's list, which then owns it.
  virtual ProxySession* SessionCreate(int number, const SessionContext& context) = 0;

  // Called when the listening socket is readable: creates the session, appends it to the list and
  // calls its Open, which accepts the connection. An FWException from Open is logged as
  // "<text> - closing session" under the session's prefix and the session is closed; it stays in
  // the list until the loop reaps it. An accept that gave no socket (GetAcceptError() set)
  // closes the session without a log line. Exceptions from SessionCreate propagate. Returns the
  // session, which the port's list owns; the pointer is a view for the caller.
  // SessionCreate gets the context; the default one is that of a session outside the loop.
  ProxySession* SessionOpen(int number, const SessionContext& context = SessionContext{});
  const SessionList& GetSessions() const { return sessions_; }
  // For the service loop, which reaps closed sessions: removing one destroys it.
  SessionList& GetSessions() { return sessions_; }
  // The listening socket; 0 while the port is closed.
  int GetListeningSocket() const {
    return listening_socket_.IsOpen() ? listening_socket_.Get() : 0;
  }
  // IncomingServer:IncomingPort as the log names it ("<all interfaces>:9080" for an empty server).
  std::string GetAddressText() const;

  ProxyPort& operator=(const ProxyPort& other);
  bool operator==(const ProxyPort& other) const;
  void Copy(const ProxyPort& other);
  // IncomingConnectionCount 20, KeepAliveTimeout 40, OutgoingConnectionCount 1000, the rest null;
  // no listening socket.
  void Initialize();

  // Listen backlog.
  FWVariable<int> GetIncomingConnectionCount() const { return incoming_connection_count_; }
  void SetIncomingConnectionCount(const FWVariable<int>& value) {
    incoming_connection_count_ = value;
  }
  // Port number or service name to listen on; kept as text.
  FWString GetIncomingPort() const { return incoming_port_; }
  void SetIncomingPort(const FWString& value) { incoming_port_ = value; }
  // Local address to bind; empty binds all interfaces.
  FWString GetIncomingServer() const { return incoming_server_; }
  void SetIncomingServer(const FWString& value) { incoming_server_ = value; }
  FWVariable<int> GetIncomingTimeout() const { return incoming_timeout_; }
  void SetIncomingTimeout(const FWVariable<int>& value) { incoming_timeout_ = value; }
  FWVariable<int> GetKeepAliveTimeout() const { return keep_alive_timeout_; }
  void SetKeepAliveTimeout(const FWVariable<int>& value) { keep_alive_timeout_ = value; }
  // Port name; prefix of the port's counters.
  FWString GetName() const { return name_; }
  void SetName(const FWString& value) { name_ = value; }
  // The most sessions the port holds at once.
  FWVariable<int> GetOutgoingConnectionCount() const { return outgoing_connection_count_; }
  void SetOutgoingConnectionCount(const FWVariable<int>& value) {
    outgoing_connection_count_ = value;
  }
  FWString GetOutgoingPort() const { return outgoing_port_; }
  void SetOutgoingPort(const FWString& value) { outgoing_port_ = value; }
  FWString GetOutgoingServer() const { return outgoing_server_; }
  void SetOutgoingServer(const FWString& value) { outgoing_server_ = value; }
  FWVariable<int> GetOutgoingTimeout() const { return outgoing_timeout_; }
  void SetOutgoingTimeout(const FWVariable<int>& value) { outgoing_timeout_ = value; }

 private:
  // Destroys the sessions and closes the socket; no virtual call, never throws.
  void ReleaseRunTimeState();

  FWVariable<int> incoming_connection_count_;
  FWString incoming_port_;
  FWString incoming_server_;
  FWVariable<int> incoming_timeout_;
  FWVariable<int> keep_alive_timeout_;
  FWString name_;
  FWVariable<int> outgoing_connection_count_;
  FWString outgoing_port_;
  FWString outgoing_server_;
  FWVariable<int> outgoing_timeout_;

  FWDescriptor listening_socket_;
  SessionList sessions_;
};

#endif  // NORVANE_CLASSES_PROXYPORT_H_
