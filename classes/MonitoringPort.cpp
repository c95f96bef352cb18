#include "MonitoringPort.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "FWFile.h"
#include "FWPublishSubscribe.h"
#include "MonitoringSession.h"

namespace {

constexpr unsigned kGetClassLine = 135;

// Why path cannot serve as a directory to list and read ("" when it can).
std::string DirectoryProblem(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return GetErrorMessage(errno);
  if (!S_ISDIR(st.st_mode)) return GetErrorMessage(ENOTDIR);
  if (::access(path.c_str(), R_OK | X_OK) != 0) return GetErrorMessage(errno);
  return "";
}

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
  if (document_root_.empty()) {
    notifications.push_front(FWMValueRequired("Log File Path"));
  } else if (const std::string problem = DirectoryProblem(document_root_); !problem.empty()) {
    notifications.push_front(FWNotification(
        "Log File Path " + document_root_ + " is not a readable directory (" + problem + ")", 0,
        FWNotification::kError));
  }
  if (search_pattern_.empty()) {
    notifications.push_front(FWMValueRequired("Log File Search Pattern"));
  }
  if (password_.empty()) notifications.push_front(FWMValueRequired("Password"));
}

ProxySession* MonitoringPort::SessionCreate(int number, const SessionContext& context) {
  return new MonitoringSession(number, this, context);
}

std::string MonitoringPort::GetStatusString() const { return ""; }

bool MonitoringPort::HasDefaultPassword() const {
  return password_.empty() || password_ == kDefaultPassword;
}

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
  password_ = FWString(kDefaultPassword);
  SetIncomingPort(FWString("9080"));
  SetName(FWString("Monitoring"));
}
