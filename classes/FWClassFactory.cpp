// The class factory: the registry's description of the service classes, and the construction of
// their objects by class number.
#include "FWClassFactory.h"

#include <iterator>
#include <memory>
#include <vector>

#include "FWApplication.h"
#include "FWClass.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "SessionManager.h"

namespace {

constexpr const char* kSource = "classes/FWClassFactory";
constexpr unsigned kInitTwiceLine = 115;
constexpr unsigned kNewInstanceLine = 200;

enum ClassNumber : int {
  kMonitoringPort = 1,
  kProxyPort = 2,
  kSessionManager = 3,
};

std::unique_ptr<FWClass> NewClass(const char* name, const char* base_name, const char* caption,
                                  int number) {
  auto cls = std::make_unique<FWClass>();
  cls->SetName(FWString(name));
  cls->SetBaseName(FWString(base_name));
  cls->SetCaption(FWString(caption));
  cls->SetNumber(number);
  return cls;
}

// One scalar member bound to C's accessor pair of the same name.
template <typename V, typename C>
void AddMember(FWClass& cls, const char* name, const char* type_name, int size, int required,
               const char* caption, const char* description, V (C::*getter)() const,
               void (C::*setter)(const V&)) {
  cls.AddMember(std::make_unique<FWTypedClassMember<V, C>>(name, &cls, type_name, size, description,
                                                           required, caption, getter, setter));
}

std::unique_ptr<FWClass> MonitoringPortClass() {
  using M = MonitoringPort;
  auto cls = NewClass("MonitoringPort", "ProxyPort", "Norvane Settings", kMonitoringPort);
  // "were" in the first description and the class caption repeated for MonitoringInterval and
  // User are what users have always been shown; kept.
  AddMember(*cls, "DocumentRoot", "FWString", 0, 1, "Log File Path",
            "The file system path were to look for log files.", &M::GetDocumentRoot,
            &M::SetDocumentRoot);
  AddMember(*cls, "MonitoringInterval", "FWInteger", 0, 0, "Norvane Settings", "",
            &M::GetMonitoringInterval, &M::SetMonitoringInterval);
  AddMember(*cls, "Password", "FWString", 0, 1, "Password",
            "The password a client must submit to connect log feeds.", &M::GetPassword,
            &M::SetPassword);
  AddMember(*cls, "SearchPattern", "FWString", 0, 1, "Log File Search Pattern",
            "The search pattern used to find log files.", &M::GetSearchPattern,
            &M::SetSearchPattern);
  AddMember(*cls, "User", "FWString", 0, 0, "Norvane Settings", "", &M::GetUser, &M::SetUser);
  return cls;
}

std::unique_ptr<FWClass> ProxyPortClass() {
  using P = ProxyPort;
  auto cls = NewClass("ProxyPort", "FWObject", "", kProxyPort);
  AddMember(*cls, "IncomingConnectionCount", "FWInteger", 0, 0, "", "",
            &P::GetIncomingConnectionCount, &P::SetIncomingConnectionCount);
  AddMember(*cls, "IncomingPort", "FWString", 0, 1, "Port",
            "The port used by Norvane to listen for incoming client connections.",
            &P::GetIncomingPort, &P::SetIncomingPort);
  AddMember(*cls, "IncomingServer", "FWString", 0, 0, "Interface IP",
            "The IP address of the interface used by Norvane to listen for incoming client "
            "connections.",
            &P::GetIncomingServer, &P::SetIncomingServer);
  AddMember(*cls, "IncomingTimeout", "FWInteger", 0, 0, "", "", &P::GetIncomingTimeout,
            &P::SetIncomingTimeout);
  AddMember(*cls, "KeepAliveTimeout", "FWInteger", 0, 0, "", "", &P::GetKeepAliveTimeout,
            &P::SetKeepAliveTimeout);
  AddMember(*cls, "Name", "FWString", 30, 0, "", "", &P::GetName, &P::SetName);
  AddMember(*cls, "OutgoingConnectionCount", "FWInteger", 0, 0, "", "",
            &P::GetOutgoingConnectionCount, &P::SetOutgoingConnectionCount);
  AddMember(*cls, "OutgoingPort", "FWString", 0, 0, "", "", &P::GetOutgoingPort,
            &P::SetOutgoingPort);
  AddMember(*cls, "OutgoingServer", "FWString", 0, 0, "", "", &P::GetOutgoingServer,
            &P::SetOutgoingServer);
  AddMember(*cls, "OutgoingTimeout", "FWInteger", 0, 0, "", "", &P::GetOutgoingTimeout,
            &P::SetOutgoingTimeout);
  return cls;
}

std::unique_ptr<FWClass> SessionManagerClass() {
  using S = SessionManager;
  auto cls = NewClass("SessionManager", "FWObject", "", kSessionManager);
  AddMember(*cls, "MaxLogFileDays", "FWInteger", 0, 0, "", "", &S::GetMaxLogFileDays,
            &S::SetMaxLogFileDays);
  AddMember(*cls, "MaxLogFileSize", "FWInteger", 0, 0, "", "", &S::GetMaxLogFileSize,
            &S::SetMaxLogFileSize);
  S::PortList& (S::*ports)() = &S::GetPorts;
  cls->AddMemberObject(std::make_unique<FWTypedClassMemberObject<S::PortList, S>>(
      "Ports", cls.get(), "ProxyPort", "", 0, "", "n", ports));
  return cls;
}

// The records of the three classes, appended to the registry's list in the order made; the
// registry sorts them.
void FillClasses(std::vector<const FWClass*>& classes) {
  if (!classes.empty()) throw FWEInternal(kSource, kInitTwiceLine);
  std::unique_ptr<FWClass> made[] = {MonitoringPortClass(), ProxyPortClass(),
                                     SessionManagerClass()};
  // Room first, so that no record is released into a list that then fails to grow.
  classes.reserve(std::size(made));
  for (std::unique_ptr<FWClass>& cls : made) classes.push_back(cls.release());
}

FWObject* NewObject(int number) {
  switch (number) {
    case kMonitoringPort:
      return new MonitoringPort();
    case kSessionManager:
      return new SessionManager();
    default:
      throw FWEInternal(kSource, kNewInstanceLine);
  }
}

}  // namespace

void RegisterServiceClasses() { FWApplication::SetClassFactory({&FillClasses, &NewObject}); }
