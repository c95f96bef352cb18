#include "MonitoringPort.h"

#include "FWPublishSubscribe.h"
#include "MonitoringSession.h"

namespace {

constexpr unsigned kGetClassLine = 135;

}  // namespace

MonitoringPort::MonitoringPort() { Initialize(); }

MonitoringPort::MonitoringPort(const MonitoringPort& other) : ProxyPort(other) { Copy(other); }

MonitoringPort* MonitoringPort::New() const { return new MonitoringPort(); }

MonitoringPort* MonitoringPort::Clone() const { return new MonitoringPort(*this); }

void MonitoringPort::Assign(const FWObject* other) {
  operator=(CastOrThrow<MonitoringPort>(other, "MonitoringPort"));
}

bool MonitoringPort::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<MonitoringPort>(other, "MonitoringPort"));
}

const FWObject* MonitoringPort::Cast(const FWObject* object) const {
  return dynamic_cast<const MonitoringPort*>(object);
}

FWObject* MonitoringPort::Cast(FWObject* object) const {
  return dynamic_cast<MonitoringPort*>(object);
}

void MonitoringPort::Clear() { ProxyPort::Clear(); }

const FWClass* MonitoringPort::GetClass() const {
  return GetRegisteredClass("MonitoringPort", "classes/MonitoringPort", kGetClassLine);
}

void MonitoringPort::Validate(std::list<FWNotification>& notifications) const {
  ProxyPort::Validate(notifications);
  if (document_root_.empty()) notifications.push_front(FWMValueRequired("Log File Path"));
  if (search_pattern_.empty()) {
    notifications.push_front(FWMValueRequired("Log File Search Pattern"));
  }
  if (password_.empty()) notifications.push_front(FWMValueRequired("Password"));
}

ProxySession* MonitoringPort::SessionCreate(int number) {
  return new MonitoringSession(number, this);
}

std::string MonitoringPort::GetStatusString() const { return ""; }

MonitoringPort& MonitoringPort::operator=(const MonitoringPort& other) {
  if (&other == this) return *this;
  ProxyPort::operator=(other);
  Copy(other);
  return *this;
}

bool MonitoringPort::operator==(const MonitoringPort& other) const {
  return ProxyPort::operator==(other) && monitoring_interval_ == other.monitoring_interval_ &&
         document_root_ == other.document_root_ && search_pattern_ == other.search_pattern_ &&
         user_ == other.user_ && password_ == other.password_;
}

void MonitoringPort::Copy(const MonitoringPort& other) {
  monitoring_interval_ = other.monitoring_interval_;
  document_root_ = other.document_root_;
  search_pattern_ = other.search_pattern_;
  user_ = other.user_;
  password_ = other.password_;
}

void MonitoringPort::Initialize() {
  monitoring_interval_ = FWVariable<int>(1);
  document_root_.Clear();
  search_pattern_ = FWString("*.log");
  user_ = FWString("logwatcher");
  password_ = FWString("Kem01&*sB");
  SetIncomingPort(FWString("9080"));
  SetName(FWString("Monitoring"));
}
