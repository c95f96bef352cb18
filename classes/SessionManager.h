// The root configuration object of the daemon: the log limits and the list of configured ports.
//
// This unit holds the configuration side only: members, defaults, accessors, validation and the
// address and name checks over the ports. The run-time side (Init, Select, Exit, session numbers,
// the worker thread and its notifications through FWSubscriber, the statistics file) is added with
// the event loop.
#ifndef NORVANE_CLASSES_SESSIONMANAGER_H_
#define NORVANE_CLASSES_SESSIONMANAGER_H_

#include <list>

#include "FWObject.h"
#include "FWType.h"

class ProxyPort;

class SessionManager final : public FWObject {
 public:
  // The ports, in configuration order. The manager owns every port in the list: a pointer put
  // into it is deleted by the manager (Clear, destruction, assignment).
  using PortList = std::list<ProxyPort*>;

  SessionManager();
  // Deep copy: the ports are cloned.
  SessionManager(const SessionManager& other);
  // Deletes the ports.
  ~SessionManager() override;

  SessionManager* New() const override;
  SessionManager* Clone() const override;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  // Deletes the ports and empties the list; MaxLogFileDays and MaxLogFileSize stay as they are.
  void Clear() override;
  // The registry's "SessionManager" record; throws FWEAssertionFailed("Class")
  // ("classes/SessionManager", 185) if it is missing.
  const FWClass* GetClass() const override;
  // No rule of its own: the notifications of every port, in list order.
  void Validate(std::list<FWNotification>& notifications) const override;

  // Replaces the ports with clones of the other manager's ports.
  SessionManager& operator=(const SessionManager& other);
  // Equal limits, and the same number of ports, pairwise of the same class and equal.
  bool operator==(const SessionManager& other) const;
  void Copy(const SessionManager& other);
  // MaxLogFileDays 1, MaxLogFileSize null; the port list is left as it is.
  void Initialize();

  // True when another port of the list (by identity) has the same IncomingPort text and either the
  // same IncomingServer text or an empty one on either side (all interfaces). False for null.
  bool IsAddressInUse(const ProxyPort* port) const;
  // True when exactly one port of the list has this port's Name. False for null.
  bool IsPortNameUnique(const ProxyPort* port) const;

  // Copied into the log stream's day limit at start-up when not null.
  FWVariable<int> GetMaxLogFileDays() const { return max_log_file_days_; }
  void SetMaxLogFileDays(const FWVariable<int>& value) { max_log_file_days_ = value; }
  // Copied into the log stream's size limit at start-up when not null.
  FWVariable<int> GetMaxLogFileSize() const { return max_log_file_size_; }
  void SetMaxLogFileSize(const FWVariable<int>& value) { max_log_file_size_ = value; }
  const PortList& GetPorts() const { return ports_; }
  PortList& GetPorts() { return ports_; }

 private:
  void DeletePorts();

  FWVariable<int> max_log_file_days_;
  FWVariable<int> max_log_file_size_;
  PortList ports_;
};

#endif  // NORVANE_CLASSES_SESSIONMANAGER_H_
