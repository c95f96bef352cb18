// The root configuration object of the daemon (the log limits and the list of configured ports)
// and the owner of the event loop: Init opens the ports, each Select is one pass of the loop over
// every listening and session socket, Exit closes the ports. A worker thread runs the update check
// at start-up and hands its message to the loop.
#ifndef NORVANE_CLASSES_SESSIONMANAGER_H_
#define NORVANE_CLASSES_SESSIONMANAGER_H_

#include <poll.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "FWObject.h"
#include "FWPublishSubscribe.h"
#include "FWType.h"
#include "LogFeed.h"
#include "LoginGuard.h"
#include "SessionContext.h"

class FWThread;
class ProxyPort;
class ProxySession;

// Init, Select, Exit and everything they touch belong to the main thread. The worker thread
// calls NotificationReceive, which writes only the thread prefix and message (under
// thread_mutex_) and then suspends the thread until ThreadCheck on the main thread has logged the
// message and resumed it.
class SessionManager final : public FWObject, public FWSubscriber {
 public:
  // The ports, in configuration order. The list owns them; the manager empties it on Clear,
  // destruction and assignment.
  using PortList = std::list<std::unique_ptr<ProxyPort>>;

  SessionManager();
  // Deep copy of the configuration: the ports are cloned (closed, without sessions). The run-time
  // state starts afresh.
  SessionManager(const SessionManager& other);
  // Kills a worker thread that still runs, then destroys the ports (which closes them).
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
  // The first part of Init: makes the shared feeds and lends them and the login guard to the
  // sessions opened from then on, copies the log limits into LogStream, logs the banner, the
  // system texts and the configuration (passwords masked), fills the session-number pool
  // (GetPoolSize()) and opens every port (an exception from a port propagates; the failing port is
  // the first one without a listening socket). The daemon runs it before it detaches: sockets
  // survive the fork, a thread would not.
  void InitPorts();
  // The second part of Init: starts the worker thread. Call it after InitPorts.
  void InitWorker();
  // What keeps this configuration from serving, one text per problem, each naming its port
  // ("port 1 (Monitoring, 127.0.0.1:9080): Password must not be empty"); empty when it can serve.
  std::vector<std::string> ConfigurationProblems() const;
  // What the operator must be warned of at start-up, one text per port that keeps the built-in
  // default password (or has none), which admits loopback clients only.
  std::vector<std::string> SecurityWarnings() const;
  // One pass of the event loop; see the .cpp for its steps. Throws FWESocketError
  // ("classes/SessionManager", 411, "poll", ...) when poll fails other than by EINTR, and
  // lets through exceptions that are not FWExceptions. A session's FWException ends that session.
  virtual void Select();
  // Shutdown, once per initialization (does nothing before Init): logs "%s shutting down", stops
  // the worker thread and closes every port. An exception in these steps skips the rest and is
  // logged as the warning "Shutdown incomplete"; Exit itself never throws.
  virtual void Exit();
  // Runs on the worker thread: its start announcement (severity 6, code 0) runs the update check;
  // other announcements are ignored; any other notification is handed over as the message.
  void NotificationReceive(const FWNotification& notification, FWPublisher* sender) override;

  // No statistics file is read or written; the operations are kept empty.
  void LoadStatisticsFile();
  void SaveStatisticsFile(unsigned int day);

  // Starts the worker thread; if one exists, logs "Start thread operation failed (thread is still
  // running)" under the thread prefix instead. Throws FWEOperationFailed when the thread cannot be
  // created.
  void ThreadStart();
  // Logs and clears the message of a suspended worker and resumes it; destroys a finished worker.
  void ThreadCheck();
  // ThreadCheck up to 10 times, 500 ms apart, until the worker is gone; then logs "killing thread"
  // under the thread prefix and kills it.
  void ThreadStop();

  // Where and how long the update check asks; the build's URL and 10 seconds unless set. An empty
  // URL makes no check. Set before Init.
  void SetUpdateCheck(const std::string& url, std::chrono::milliseconds timeout);
  // The clock whose change between passes starts the per-second work and that the sessions'
  // timers and the login brake read; time() unless set.
  void SetClock(std::function<std::time_t()> clock) { clock_ = std::move(clock); }

  // Descriptors the daemon holds besides its sessions: the three standard ones, the log, the
  // listening sockets, the worker thread's connection and one directory being listed.
  int GetFixedDescriptors() const;
  // The session-number pool Init fills: two descriptors per session (its socket and the file it
  // follows, or its two sockets) must fit into 1024 descriptors (the pool keeps the size one
  // select set once gave it; the loop itself polls any descriptor number) and below
  // the soft descriptor limit.
  int GetPoolSize() const;
  // The pool under the 1024-descriptor bound alone.
  int GetFullPoolSize() const;
  // Raises the soft descriptor limit (RLIMIT_NOFILE) to what the full pool needs, as far as the
  // hard limit allows. Returns what it did for the start-up messages: "" when the limit was
  // enough, else the raise or, when the hard limit is too low, the smaller pool. Call before Init.
  std::string FitDescriptorLimit();

  bool IsInitialized() const { return initialized_; }
  const std::set<unsigned int>& GetFreeNumbers() const { return free_numbers_; }
  const std::set<unsigned int>& GetUsedNumbers() const { return used_numbers_; }
  // The worker thread; null when none exists.
  const FWThread* GetThread() const { return thread_.get(); }

  // True when another port of the list (by identity) has the same IncomingPort text and either the
  // same IncomingServer text or an empty one on either side (all interfaces). False for null.
  bool IsAddressInUse(const ProxyPort* port) const;
  // True when exactly one port of the list has this port's Name. False for null.
  bool IsPortNameUnique(const ProxyPort* port) const;

  // The shared feeds of the followed files; null before Init.
  const LogFeeds* GetLogFeeds() const { return log_feeds_.get(); }
  // The login brake and pass clock the monitoring ports' sessions share.
  const LoginGuard& GetLoginGuard() const { return login_guard_; }
  // True while new connections wait because an accept found no descriptor left.
  bool IsAcceptPaused() const { return last_second_ < accept_paused_until_; }

  // Copied into the log stream's day limit at start-up when not null.
  FWVariable<int> GetMaxLogFileDays() const { return max_log_file_days_; }
  void SetMaxLogFileDays(const FWVariable<int>& value) { max_log_file_days_ = value; }
  // Copied into the log stream's size limit at start-up when not null.
  FWVariable<int> GetMaxLogFileSize() const { return max_log_file_size_; }
  void SetMaxLogFileSize(const FWVariable<int>& value) { max_log_file_size_ = value; }
  const PortList& GetPorts() const { return ports_; }
  PortList& GetPorts() { return ports_; }

 private:
  // The descriptors of one pass and what each waits for, rebuilt every pass; poll() fills in
  // what is ready. Descriptor 0 stands for "no socket" and is never added.
  struct PassSets {
    void Add(int fd, short events);
    bool IsReadable(int fd) const;
    bool IsWritable(int fd) const;
    // Readiness counted per direction: a descriptor both readable and writable counts twice.
    int CountReady() const;

    std::vector<pollfd> entries;
    std::vector<int> slot_of;  // by descriptor: its index in entries, or -1
    // A session is behind its file: the pass must not wait.
    bool busy = false;
    // The file events wait for their next round (their descriptor is not polled): the pass waits
    // at most this many milliseconds; -1 when they are polled.
    int events_held = -1;

   private:
    short Revents(int fd, short wanted) const;
  };

  // The steps of Init and Exit.
  void LogBanner() const;
  void LogConfiguration() const;
  void ResetSessionNumbers();
  static unsigned int TodayNumber();

  // The steps of one Select pass, in order.
  PassSets ReapAndCollectSockets();
  int WaitForReadiness(PassSets& sets) const;
  bool TickClock();
  void ServeSessions(const PassSets& sets, int& ready, bool new_second);
  void PollFeeds(const PassSets& sets, bool new_second);
  void AcceptConnections(const PassSets& sets);
  // Accepts what waits on the port while numbers are free and the port is under its limit;
  // false when accepting must pause (no descriptor left).
  bool AcceptWaiting(ProxyPort& port);

  void CollectSessions(ProxyPort& port, PassSets& sets);
  std::time_t Now() const;
  // After an accept that found no descriptor left: no listener is polled until the next second
  // of the clock; logged once until an accept succeeds again.
  void PauseAccepting(const ProxyPort& port, int error);
  bool IsListenerPolled(const ProxyPort& port) const;
  static void ServeTransfers(const std::string& name, ProxySession& session, const PassSets& sets,
                             int& ready);
  unsigned int TakeNumber(const ProxyPort& port);

  // The worker thread's side.
  void RunUpdateCheck(FWPublisher* sender);
  void HandOver(const std::string& message, FWPublisher* sender);
  std::string ThreadPrefix() const;

  FWVariable<int> max_log_file_days_;
  FWVariable<int> max_log_file_size_;
  PortList ports_;

  // Run-time state, main thread only.
  bool initialized_ = false;
  std::set<unsigned int> used_numbers_;
  std::set<unsigned int> free_numbers_;
  unsigned int rotation_ = 0;
  std::time_t last_second_ = 0;
  std::function<std::time_t()> clock_;
  LoginGuard login_guard_;
  std::unique_ptr<LogFeeds> log_feeds_;
  // What each session opened is lent: empty before Init.
  SessionContext context_;
  std::time_t accept_paused_until_ = 0;
  bool accept_shortage_logged_ = false;
  std::unique_ptr<FWThread> thread_;
  // Set on the main thread before the worker starts; read by the worker.
  std::string update_url_;
  std::chrono::milliseconds update_timeout_;

  mutable std::mutex thread_mutex_;
  std::string thread_prefix_;   // protected by thread_mutex_
  std::string thread_message_;  // protected by thread_mutex_
};

#endif  // NORVANE_CLASSES_SESSIONMANAGER_H_
