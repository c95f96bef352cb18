#include "ProxyPort.h"

#include "FWPublishSubscribe.h"

namespace {

constexpr unsigned kGetClassLine = 155;

}  // namespace

ProxyPort::ProxyPort() { Initialize(); }

ProxyPort::ProxyPort(const ProxyPort& other) : FWObject(other) { Copy(other); }

void ProxyPort::Assign(const FWObject* other) {
  operator=(CastOrThrow<ProxyPort>(other, "ProxyPort"));
}

bool ProxyPort::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<ProxyPort>(other, "ProxyPort"));
}

const FWObject* ProxyPort::Cast(const FWObject* object) const {
  return dynamic_cast<const ProxyPort*>(object);
}

FWObject* ProxyPort::Cast(FWObject* object) const { return dynamic_cast<ProxyPort*>(object); }

void ProxyPort::Clear() { FWObject::Clear(); }

const FWClass* ProxyPort::GetClass() const {
  return GetRegisteredClass("ProxyPort", "classes/ProxyPort", kGetClassLine);
}

void ProxyPort::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
  if (incoming_port_.empty()) notifications.push_back(FWMValueRequired("Port"));
}

ProxyPort& ProxyPort::operator=(const ProxyPort& other) {
  if (&other == this) return *this;
  FWObject::operator=(other);
  Copy(other);
  return *this;
}

bool ProxyPort::operator==(const ProxyPort& other) const {
  return FWObject::operator==(other) &&
         incoming_connection_count_ == other.incoming_connection_count_ &&
         incoming_port_ == other.incoming_port_ && incoming_server_ == other.incoming_server_ &&
         incoming_timeout_ == other.incoming_timeout_ &&
         keep_alive_timeout_ == other.keep_alive_timeout_ && name_ == other.name_ &&
         outgoing_connection_count_ == other.outgoing_connection_count_ &&
         outgoing_port_ == other.outgoing_port_ && outgoing_server_ == other.outgoing_server_ &&
         outgoing_timeout_ == other.outgoing_timeout_;
}

void ProxyPort::Copy(const ProxyPort& other) {
  incoming_connection_count_ = other.incoming_connection_count_;
  incoming_port_ = other.incoming_port_;
  incoming_server_ = other.incoming_server_;
  incoming_timeout_ = other.incoming_timeout_;
  keep_alive_timeout_ = other.keep_alive_timeout_;
  name_ = other.name_;
  outgoing_connection_count_ = other.outgoing_connection_count_;
  outgoing_port_ = other.outgoing_port_;
  outgoing_server_ = other.outgoing_server_;
  outgoing_timeout_ = other.outgoing_timeout_;
}

void ProxyPort::Initialize() {
  incoming_connection_count_ = FWVariable<int>(20);
  incoming_port_.Clear();
  incoming_server_.Clear();
  incoming_timeout_.Clear();
  keep_alive_timeout_ = FWVariable<int>(40);
  name_.Clear();
  outgoing_connection_count_ = FWVariable<int>(1000);
  outgoing_port_.Clear();
  outgoing_server_.Clear();
  outgoing_timeout_.Clear();
}
