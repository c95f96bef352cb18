// One configured listener of the forwarding frame: where it listens (IncomingServer:IncomingPort),
// how many sessions it holds, and the settings its sessions use. Abstract: each concrete port
// creates its own kind of session (SessionCreate).
//
// This unit holds the configuration side only: members, defaults, accessors and validation.
// Opening the listening socket (Open, Close), the sessions it owns and SessionOpen belong to the
// run-time side of the port and are added with the event loop.
#ifndef NORVANE_CLASSES_PROXYPORT_H_
#define NORVANE_CLASSES_PROXYPORT_H_

#include <list>

#include "FWObject.h"
#include "FWType.h"

class ProxySession;

class ProxyPort : public FWObject {
 public:
  ProxyPort();
  ProxyPort(const ProxyPort& other);
  ~ProxyPort() override = default;

  // ProxyPort is abstract, so New() and Clone() are left to the concrete ports.
  ProxyPort* New() const override = 0;
  ProxyPort* Clone() const override = 0;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  // The port owns no objects yet (its sessions come with the run-time side): nothing to release.
  void Clear() override;
  // The registry's "ProxyPort" record; throws FWEAssertionFailed("Class")
  // ("classes/ProxyPort", 155) if it is missing.
  const FWClass* GetClass() const override;
  // Appends "Port must not be empty" when IncomingPort is empty. Addresses and names are not
  // compared with those of other ports.
  void Validate(std::list<FWNotification>& notifications) const override;

  // A new session of the port's own kind for the given session number; the port owns it.
  virtual ProxySession* SessionCreate(int number) = 0;

  ProxyPort& operator=(const ProxyPort& other);
  bool operator==(const ProxyPort& other) const;
  void Copy(const ProxyPort& other);
  // IncomingConnectionCount 20, KeepAliveTimeout 40, OutgoingConnectionCount 1000, the rest null.
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
};

#endif  // NORVANE_CLASSES_PROXYPORT_H_
