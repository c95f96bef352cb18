// A configured port of the log-feed service: listens like any ProxyPort and adds where the log
// files lie, which names count as log files, and the one user name and password a client must
// present.
#ifndef NORVANE_CLASSES_MONITORINGPORT_H_
#define NORVANE_CLASSES_MONITORINGPORT_H_

#include <string>

#include "FeedTexts.h"
#include "ProxyPort.h"

class MonitoringPort final : public ProxyPort {
 public:
  // The password every port has until the configuration gives it one of its own. Everyone who
  // has the product knows it, so a port that keeps it admits logins from loopback only.
  static constexpr const char* kDefaultPassword = feed::kDefaultPassword;

  MonitoringPort();
  MonitoringPort(const MonitoringPort& other);
  ~MonitoringPort() override = default;

  MonitoringPort* New() const override;
  MonitoringPort* Clone() const override;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  // Forwards to ProxyPort::Clear; no steps of its own.
  void Clear() override;
  // The registry's "MonitoringPort" record; throws FWEAssertionFailed("Class")
  // ("classes/MonitoringPort", 135) if it is missing.
  const FWClass* GetClass() const override;
  // ProxyPort's rules, then, each inserted at the FRONT of the list: "Log File Path", "Log File
  // Search Pattern", "Password" value-required notifications for an empty DocumentRoot,
  // SearchPattern, Password. The list thus reads Password, pattern, path, then ProxyPort's. A
  // DocumentRoot that is given but is not an existing directory the daemon may list and read
  // takes the place of the path notification ("Log File Path /x is not a readable directory
  // (No such file or directory)"). User is deliberately not checked.
  void Validate(std::list<FWNotification>& notifications) const override;
  // A new MonitoringSession(number, this, context) serving the log feed; the port owns it.
  ProxySession* SessionCreate(int number, const SessionContext& context) override;

  // The port reports no status line of its own: always "".
  virtual std::string GetStatusString() const;
  // True when Password is empty or the built-in default.
  bool HasDefaultPassword() const;

  MonitoringPort& operator=(const MonitoringPort& other);
  bool operator==(const MonitoringPort& other) const;
  void Copy(const MonitoringPort& other);
  // MonitoringInterval 1, DocumentRoot "", SearchPattern "*.log", User "logwatcher", Password
  // "Kem01&*sB"; overrides IncomingPort ("9080") and Name ("Monitoring") of the ProxyPort defaults
  // that the base constructor set.
  void Initialize();

  // Kept with the configuration; followed files are watched, and polled once a second, whatever
  // it says.
  FWVariable<int> GetMonitoringInterval() const { return monitoring_interval_; }
  void SetMonitoringInterval(const FWVariable<int>& value) { monitoring_interval_ = value; }
  // Directory under which log files are looked for, recursively.
  FWString GetDocumentRoot() const { return document_root_; }
  void SetDocumentRoot(const FWString& value) { document_root_ = value; }
  // Wildcard pattern that a file's bare name must match.
  FWString GetSearchPattern() const { return search_pattern_; }
  void SetSearchPattern(const FWString& value) { search_pattern_ = value; }
  FWString GetUser() const { return user_; }
  void SetUser(const FWString& value) { user_ = value; }
  FWString GetPassword() const { return password_; }
  void SetPassword(const FWString& value) { password_ = value; }

 private:
  FWVariable<int> monitoring_interval_;
  FWString document_root_;
  FWString search_pattern_;
  FWString user_;
  FWString password_;
};

#endif  // NORVANE_CLASSES_MONITORINGPORT_H_
