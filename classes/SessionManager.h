// The root configuration object of the daemon (the log limits and the list of configured ports),
// and the daemon's life cycle over it: Init opens the ports, each Select is one pass of the event
// loop (ServiceLoop) over every listening and session socket, Exit closes the ports. The worker
// thread (UpdateWorker) runs the update check at start-up and hands its message to the loop.
#ifndef NORVANE_CLASSES_SESSIONMANAGER_H_
#define NORVANE_CLASSES_SESSIONMANAGER_H_

#include <chrono>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FWObject.h"
#include "FWPublishSubscribe.h"
#include "FWType.h"
#include "LogFeed.h"
#include "ServiceLoop.h"
#include "UpdateWorker.h"

class FWThread;
class ProxyPort;

// Init, Select, Exit and everything they touch belong to the main thread; the worker thread
// touches only the UpdateWorker (see there). The run-time operations below forward to the loop,
// its session pool and the worker.
class SessionManager final : public FWObject, public FWSubscriber {
 public:
  // The ports, in configuration order. The list owns them; the manager empties it on Clear,
  // destruction and assignment.
  using PortList = ServiceLoop::PortList;

  SessionManager();
  // Deep copy of the configuration: the ports are cloned (closed, without sessions). The run-time
  // state starts afresh.
  SessionManager(const SessionManager& other);
  // Kills a worker thread that still runs, then destroys the ports (which closes them), then the
  // loop.
  ~SessionManager() override;

  SessionManager* New() const override;
  SessionManager* Clone() const override;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  // Empties the port list, which destroys the ports; MaxLogFileDays and MaxLogFileSize stay as
  // they are.
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
  // MaxLogFileDays 1, MaxLogFileSize null, not initialized, no thread; the port list is left as it
  // is.
  void Initialize();

  // Start-up, once per initialization (a second call does nothing): InitPorts, then InitWorker.
  virtual void Init();
  // The first part of Init: starts the loop (guard, feeds, a full session-number pool of
  // GetPoolSize()), copies the log limits into LogStream, logs the banner, the system texts and
  // the configuration (passwords masked), and opens every port (an exception from a port
  // propagates; the failing port is the first one without a listening socket). The daemon runs it
  // before it detaches: sockets survive the fork, a thread would not.
  void InitPorts();
  // The second part of Init: starts the worker thread. Call it after InitPorts.
  void InitWorker();
  // What keeps this configuration from serving, one text per problem, each naming its port
  // ("port 1 (Monitoring, 127.0.0.1:9080): Password must not be empty"); empty when it can serve.
  std::vector<std::string> ConfigurationProblems() const;
  // What the operator must be warned of at start-up, one text per port that keeps the built-in
  // default password (or has none), which admits loopback clients only.
  std::vector<std::string> SecurityWarnings() const;
  // One pass of the event loop over the ports (ServiceLoop::Pass). Throws FWESocketError
  // ("classes/SessionManager", 411, "poll", ...) when poll fails other than by EINTR, and
  // lets through exceptions that are not FWExceptions. A session's FWException ends that session.
  virtual void Select();
  // Shutdown, once per initialization (does nothing before Init): logs "%s shutting down", stops
  // the worker thread and closes every port. An exception in these steps skips the rest and is
  // logged as the warning "Shutdown incomplete"; Exit itself never throws.
  virtual void Exit();
  // Forwards to the worker (UpdateWorker::NotificationReceive), which is what the worker thread
  // itself calls.
  void NotificationReceive(const FWNotification& notification, FWPublisher* sender) override;

  // No statistics file is read or written; the operations are kept empty.
  void LoadStatisticsFile();
  void SaveStatisticsFile(unsigned int day);

  // UpdateWorker::Start, Check and Stop.
  void ThreadStart() { worker_.Start(); }
  void ThreadCheck() { worker_.Check(); }
  void ThreadStop() { worker_.Stop(); }

  // Where and how long the update check asks; the build's URL and 10 seconds unless set. An empty
  // URL makes no check. Set before Init.
  void SetUpdateCheck(const std::string& url, std::chrono::milliseconds timeout) {
    worker_.SetUpdateCheck(url, timeout);
  }
  // The loop's clock (ServiceLoop::SetClock); time() unless set.
  void SetClock(std::function<std::time_t()> clock) { loop_.SetClock(std::move(clock)); }

  // The session-number pool Init fills for the configured ports (SessionPool::GetPoolSize).
  int GetPoolSize() const { return SessionPool::GetPoolSize(ports_.size()); }
  // SessionPool::FitDescriptorLimit for the configured ports. Call before Init.
  std::string FitDescriptorLimit() { return SessionPool::FitDescriptorLimit(ports_.size()); }

  bool IsInitialized() const { return initialized_; }
  // The event loop with its session numbers, login guard and accept state, for inspection.
  const ServiceLoop& GetLoop() const { return loop_; }
  // The worker thread; null when none exists.
  const FWThread* GetThread() const { return worker_.GetThread(); }

  // True when another port of the list (by identity) has the same IncomingPort text and either the
  // same IncomingServer text or an empty one on either side (all interfaces). False for null.
  bool IsAddressInUse(const ProxyPort* port) const;
  // True when exactly one port of the list has this port's Name. False for null.
  bool IsPortNameUnique(const ProxyPort* port) const;

  // The shared feeds of the followed files; null before Init.
  const LogFeeds* GetLogFeeds() const { return loop_.GetLogFeeds(); }

  // Copied into the log stream's day limit at start-up when not null.
  FWVariable<int> GetMaxLogFileDays() const { return max_log_file_days_; }
  void SetMaxLogFileDays(const FWVariable<int>& value) { max_log_file_days_ = value; }
  // Copied into the log stream's size limit at start-up when not null.
  FWVariable<int> GetMaxLogFileSize() const { return max_log_file_size_; }
  void SetMaxLogFileSize(const FWVariable<int>& value) { max_log_file_size_ = value; }
  const PortList& GetPorts() const { return ports_; }
  PortList& GetPorts() { return ports_; }

 private:
  // Days since 30 December 1899, local time, for SaveStatisticsFile.
  static unsigned int TodayNumber();

  FWVariable<int> max_log_file_days_;
  FWVariable<int> max_log_file_size_;
  // The run-time parts. The loop is declared before the ports and so outlives them: their
  // sessions borrow its guard and feeds. The worker is declared last and so goes first: its
  // thread ends before anything else is destroyed.
  ServiceLoop loop_;
  PortList ports_;
  bool initialized_ = false;  // main thread only
  UpdateWorker worker_;
};

#endif  // NORVANE_CLASSES_SESSIONMANAGER_H_
