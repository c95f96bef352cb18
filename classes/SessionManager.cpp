#include "SessionManager.h"

#include <algorithm>
#include <memory>
#include <typeinfo>

#include "ProxyPort.h"

namespace {

constexpr unsigned kGetClassLine = 185;

bool SamePort(const ProxyPort* left, const ProxyPort* right) {
  return typeid(*left) == typeid(*right) && left->IsEqual(right);
}

}  // namespace

SessionManager::SessionManager() { Initialize(); }

SessionManager::SessionManager(const SessionManager& other) : FWObject(other) { Copy(other); }

SessionManager::~SessionManager() { DeletePorts(); }

SessionManager* SessionManager::New() const { return new SessionManager(); }

SessionManager* SessionManager::Clone() const { return new SessionManager(*this); }

void SessionManager::Assign(const FWObject* other) {
  operator=(CastOrThrow<SessionManager>(other, "SessionManager"));
}

bool SessionManager::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<SessionManager>(other, "SessionManager"));
}

const FWObject* SessionManager::Cast(const FWObject* object) const {
  return dynamic_cast<const SessionManager*>(object);
}

FWObject* SessionManager::Cast(FWObject* object) const {
  return dynamic_cast<SessionManager*>(object);
}

void SessionManager::Clear() {
  FWObject::Clear();
  DeletePorts();
}

const FWClass* SessionManager::GetClass() const {
  return GetRegisteredClass("SessionManager", "classes/SessionManager", kGetClassLine);
}

void SessionManager::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
  for (const ProxyPort* port : ports_) port->Validate(notifications);
}

SessionManager& SessionManager::operator=(const SessionManager& other) {
  if (&other == this) return *this;
  FWObject::operator=(other);
  Copy(other);
  return *this;
}

bool SessionManager::operator==(const SessionManager& other) const {
  if (!FWObject::operator==(other)) return false;
  if (max_log_file_days_ != other.max_log_file_days_) return false;
  if (max_log_file_size_ != other.max_log_file_size_) return false;
  if (ports_.size() != other.ports_.size()) return false;
  return std::equal(ports_.begin(), ports_.end(), other.ports_.begin(), SamePort);
}

void SessionManager::Copy(const SessionManager& other) {
  max_log_file_days_ = other.max_log_file_days_;
  max_log_file_size_ = other.max_log_file_size_;
  // Clone first, so that a failure leaves this manager's ports as they were.
  std::list<std::unique_ptr<ProxyPort>> copies;
  for (const ProxyPort* port : other.ports_) copies.emplace_back(port->Clone());
  DeletePorts();
  for (std::unique_ptr<ProxyPort>& copy : copies) {
    ports_.push_back(copy.get());
    copy.release();
  }
}

void SessionManager::Initialize() {
  max_log_file_days_ = FWVariable<int>(1);
  max_log_file_size_.Clear();
}

bool SessionManager::IsAddressInUse(const ProxyPort* port) const {
  if (port == nullptr) return false;
  const FWString port_text = port->GetIncomingPort();
  const FWString server = port->GetIncomingServer();
  for (const ProxyPort* other : ports_) {
    if (other == port || other->GetIncomingPort() != port_text) continue;
    const FWString other_server = other->GetIncomingServer();
    if (other_server == server || other_server.empty() || server.empty()) return true;
  }
  return false;
}

bool SessionManager::IsPortNameUnique(const ProxyPort* port) const {
  if (port == nullptr) return false;
  const FWString name = port->GetName();
  std::size_t count = 0;
  for (const ProxyPort* other : ports_) {
    if (other->GetName() == name) ++count;
  }
  return count == 1;
}

void SessionManager::DeletePorts() {
  for (ProxyPort* port : ports_) delete port;
  ports_.clear();
}
