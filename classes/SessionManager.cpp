#include "SessionManager.h"

#include <algorithm>
#include <memory>
#include <typeinfo>
#include <vector>

#include "FWException.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWStringUtils.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "StartupLog.h"

namespace {

constexpr unsigned kGetClassLine = 185;
// Days from 30 December 1899 to 1 January 1970.
constexpr long kDayNumberOf1970 = 25569;

bool SamePort(const std::unique_ptr<ProxyPort>& left, const std::unique_ptr<ProxyPort>& right) {
  const ProxyPort& first = *left;
  const ProxyPort& second = *right;
  return typeid(first) == typeid(second) && first.IsEqual(&second);
}

}  // namespace

SessionManager::SessionManager() { Initialize(); }

SessionManager::SessionManager(const SessionManager& other) : FWObject(other), FWSubscriber() {
  worker_.SetUpdateCheck(other.worker_.GetUpdateURL(), other.worker_.GetUpdateTimeout());
  Copy(other);
}

// The order of the members does the work: the worker's thread ends first, then the ports and their
// sessions go, then the loop they borrowed from.
SessionManager::~SessionManager() = default;

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
  ports_.clear();
  loop_.ForgetPorts();
}

const FWClass* SessionManager::GetClass() const {
  return GetRegisteredClass("SessionManager", "classes/SessionManager", kGetClassLine);
}

void SessionManager::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
  for (const std::unique_ptr<ProxyPort>& port : ports_) port->Validate(notifications);
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
  PortList copies;
  for (const std::unique_ptr<ProxyPort>& port : other.ports_) {
    std::unique_ptr<ProxyPort> copy(port->Clone());
    copies.push_back(std::move(copy));
  }
  ports_.clear();
  ports_.splice(ports_.end(), copies);
  loop_.ForgetPorts();
}

void SessionManager::Initialize() {
  max_log_file_days_ = FWVariable<int>(1);
  max_log_file_size_.Clear();
  initialized_ = false;
  worker_.Reset();
}

bool SessionManager::IsAddressInUse(const ProxyPort* port) const {
  if (port == nullptr) return false;
  const FWString port_text = port->GetIncomingPort();
  const FWString server = port->GetIncomingServer();
  for (const std::unique_ptr<ProxyPort>& other : ports_) {
    if (other.get() == port || other->GetIncomingPort() != port_text) continue;
    const FWString other_server = other->GetIncomingServer();
    if (other_server == server || other_server.empty() || server.empty()) return true;
  }
  return false;
}

bool SessionManager::IsPortNameUnique(const ProxyPort* port) const {
  if (port == nullptr) return false;
  const FWString name = port->GetName();
  std::size_t count = 0;
  for (const std::unique_ptr<ProxyPort>& other : ports_) {
    if (other->GetName() == name) ++count;
  }
  return count == 1;
}

// ---- Start-up and shutdown ----

void SessionManager::Init() {
  if (initialized_) return;
  InitPorts();
  InitWorker();
}

void SessionManager::InitPorts() {
  if (initialized_) return;
  initialized_ = true;
  loop_.Start(ports_.size());
  if (!max_log_file_days_.IsNull()) LogStream.SetMaxDays(max_log_file_days_.Get());
  if (!max_log_file_size_.IsNull()) LogStream.SetMaxSize(max_log_file_size_.Get());
  LogStartupBanner();
  LogConfiguration(*this);
  for (const std::unique_ptr<ProxyPort>& port : ports_) port->Open();
}

void SessionManager::InitWorker() {
  LoadStatisticsFile();
  ThreadStart();
}

std::vector<std::string> SessionManager::ConfigurationProblems() const {
  std::vector<std::string> problems;
  std::list<FWNotification> notifications;
  FWObject::Validate(notifications);
  for (const FWNotification& notification : notifications) {
    problems.push_back(notification.GetRawText());
  }
  int number = 0;
  for (const std::unique_ptr<ProxyPort>& port : ports_) {
    ++number;
    notifications.clear();
    port->Validate(notifications);
    const std::string name = port->GetName().empty() ? "" : port->GetName() + ", ";
    for (const FWNotification& notification : notifications) {
      problems.push_back(FWStringUtils::Printf("port %d (%s%s): %s", number, name.c_str(),
                                               port->GetAddressText().c_str(),
                                               notification.GetRawText().c_str()));
    }
  }
  return problems;
}

std::vector<std::string> SessionManager::SecurityWarnings() const {
  std::vector<std::string> warnings;
  int number = 0;
  for (const std::unique_ptr<ProxyPort>& port : ports_) {
    ++number;
    const auto* monitoring = dynamic_cast<const MonitoringPort*>(port.get());
    if (monitoring == nullptr || !monitoring->HasDefaultPassword()) continue;
    const std::string name = port->GetName().empty() ? "" : port->GetName() + ", ";
    warnings.push_back(FWStringUtils::Printf(
        "port %d (%s%s) keeps the built-in default password, so it admits logins from 127.0.0.1 "
        "and ::1 only; set a Password of its own to serve other hosts",
        number, name.c_str(), port->GetAddressText().c_str()));
  }
  return warnings;
}

void SessionManager::Exit() {
  if (!initialized_) return;
  initialized_ = false;
  try {
    LogStream.Log(FWStringUtils::Printf("%s shutting down", FWProduct::GetDisplayName().c_str()));
    SaveStatisticsFile(TodayNumber());
    ThreadStop();
    for (const std::unique_ptr<ProxyPort>& port : ports_) port->Close();
  } catch (...) {
    // Whatever failed, the daemon still goes down; the steps after the failing one are skipped.
    LogStream.Log(FWNotification("Shutdown incomplete", 0, FWNotification::kWarning));
  }
}

// Days since 30 December 1899, local time. gmtime never reports daylight-saving time, so the
// hour it would add is never added; the formula is kept as the daemon has always had it.
unsigned int SessionManager::TodayNumber() {
  tzset();
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  const bool dst = gmtime_r(&now, &fields) != nullptr && fields.tm_isdst > 0;
  const long seconds = static_cast<long>(now) - timezone + (dst ? 3600 : 0);
  return static_cast<unsigned int>(seconds / 86400 + kDayNumberOf1970);
}

void SessionManager::LoadStatisticsFile() {}

void SessionManager::SaveStatisticsFile(unsigned int /*day*/) {}

void SessionManager::Select() { loop_.Pass(ports_, worker_); }

void SessionManager::NotificationReceive(const FWNotification& notification, FWPublisher* sender) {
  worker_.NotificationReceive(notification, sender);
}
