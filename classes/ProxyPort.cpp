#include "ProxyPort.h"

#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "FWException.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWPublishSubscribe.h"
#include "FWSocket.h"
#include "ProxySession.h"

namespace {

constexpr unsigned kGetClassLine = 155;
// The backlog of a port whose IncomingConnectionCount is null when it opens.
constexpr int kDefaultBacklog = 5;
// The kernel's queue holds at least this many connections, so that a burst of a few hundred
// (one client following many files) is not dropped while the loop takes them.
constexpr int kMinimumBacklog = 1024;

}  // namespace

ProxyPort::ProxyPort() { Initialize(); }

ProxyPort::ProxyPort(const ProxyPort& other) : FWObject(other) { Copy(other); }

ProxyPort::~ProxyPort() { ReleaseRunTimeState(); }

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

void ProxyPort::Close() {
  for (const std::unique_ptr<ProxySession>& session : sessions_) session->Close();
  ReleaseRunTimeState();
}

std::string ProxyPort::GetAddressText() const {
  const std::string& server = incoming_server_;
  return (server.empty() ? std::string("<all interfaces>") : server) + ":" + incoming_port_;
}

void ProxyPort::Open() {
  if (incoming_connection_count_.IsNull()) incoming_connection_count_.Set(kDefaultBacklog);
  try {
    const FWSocketManager& sockets = FWSocketManager::GetInstance();
    sockaddr_in address{};
    sockets.AddressCreate(address, incoming_server_, incoming_port_, "tcp");
    listening_socket_.Reset(sockets.CreateSocket("tcp"));
    // Non-blocking, so that an accept whose connection has gone meanwhile cannot hold the loop.
    sockets.SetBlocking(listening_socket_.Get(), false);
    sockets.Bind(listening_socket_.Get(), address);
    sockets.Listen(
        listening_socket_.Get(),
        static_cast<unsigned>(std::max(incoming_connection_count_.Get(), kMinimumBacklog)));
    LogStream.Log(FWProduct::GetDisplayName() + " listening on " + GetAddressText());
  } catch (...) {
    Close();
    throw;
  }
}

void ProxyPort::UpdateAddressLists() {}

ProxySession* ProxyPort::SessionOpen(int number, const SessionContext& context) {
  std::unique_ptr<ProxySession> created(SessionCreate(number, context));
  sessions_.push_back(std::move(created));
  ProxySession* session = sessions_.back().get();
  try {
    session->Open(GetListeningSocket());
  } catch (const FWException& e) {
    LogStream.Log(e.GetText() + " - closing session", session->GetLogPrefix());
    session->Close();
  }
  // Nothing was accepted (gone meanwhile, or no descriptor left): the caller decides what to log.
  if (session->GetAcceptError() != 0) session->Close();
  return session;
}

void ProxyPort::ReleaseRunTimeState() {
  sessions_.clear();
  listening_socket_.Reset();
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
  listening_socket_.Reset();
}
