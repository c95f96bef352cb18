// The event loop of the running daemon, one pass at a time: it polls every listening and session
// socket of the configured ports, serves the sessions, reads the shared feeds of the followed
// files and accepts new connections. It owns what the sessions borrow (the login guard with the
// clock of the pass, and the shared feeds), the session numbers, and the activity counters'
// places.
#ifndef NORVANE_CLASSES_SERVICELOOP_H_
#define NORVANE_CLASSES_SERVICELOOP_H_

#include <poll.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LogFeed.h"
#include "LoginGuard.h"
#include "SessionContext.h"
#include "SessionPool.h"

class ProxyPort;
class ProxySession;
class UpdateWorker;

// Main thread only. The ports are the configuration's: the loop is handed them at every pass and
// keeps no ownership of them or of their sessions. It must outlive the sessions it opened, which
// hold plain pointers to its guard and feeds.
class ServiceLoop final {
 public:
  // The configured ports, in configuration order; the list owns them.
  using PortList = std::list<std::unique_ptr<ProxyPort>>;

  ServiceLoop();
  ~ServiceLoop();
  ServiceLoop(const ServiceLoop&) = delete;
  ServiceLoop& operator=(const ServiceLoop&) = delete;

  // The clock whose change between passes starts the per-second work and that the sessions'
  // timers and the login brake read; time() unless set.
  void SetClock(std::function<std::time_t()> clock) { clock_ = std::move(clock); }
  // Readies the loop for serving before the ports open: the guard takes the clock's time, the
  // shared feeds are made afresh, every number of the pool for this many listeners is freed, and
  // the sessions opened from now on are lent the guard and the feeds (before, none).
  void Start(std::size_t listeners);
  // One pass of the loop over the ports; see the .cpp for its steps. The worker's message, if it
  // left one, is logged after the wait. Throws FWESocketError ("classes/SessionManager", 411,
  // "poll", ...) when poll fails other than by EINTR, and lets through exceptions that are not
  // FWExceptions. A session's FWException ends that session.
  void Pass(const PortList& ports, UpdateWorker& worker);
  // Drops what the loop keeps of each port (its counters' names, its end of the pool), which it
  // otherwise makes again only for a list with other port addresses. Call it when ports were
  // destroyed, so that a new port at a freed address is not taken for the old one.
  void ForgetPorts() { port_entries_.clear(); }

  const SessionPool& GetPool() const { return pool_; }
  // The shared feeds of the followed files; null before Start.
  const LogFeeds* GetLogFeeds() const { return log_feeds_.get(); }
  // The login brake and pass clock the monitoring sessions share.
  const LoginGuard& GetLoginGuard() const { return login_guard_; }
  // True while new connections wait because an accept found no descriptor left.
  bool IsAcceptPaused() const { return last_second_ < accept_paused_until_; }

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

  // A named counter of the global table, found by its name at its first use and by reference
  // from then on, so that the pass builds no name. Until that use the counter does not exist,
  // as when it was looked up by name every time.
  class CounterSlot {
   public:
    explicit CounterSlot(std::string name) : name_(std::move(name)) {}
    uint32_t& Value();

   private:
    std::string name_;
    uint32_t* value_ = nullptr;  // into the table, which never removes a counter
  };

  // What the pass needs of a port beyond the port itself: its counters (port Name + "_Active",
  // "_ReceiveIncoming", "_SendIncoming", "_ReceiveOutgoing", "_SendOutgoing"; ports of one name
  // share them) and the end of the pool its sessions' numbers come from. Made from the port list
  // when a pass first sees it, and again after ForgetPorts or when the list holds ports at other
  // addresses; a port renamed meanwhile keeps counting under its old name.
  struct PortEntry {
    explicit PortEntry(ProxyPort& port);

    ProxyPort* port;  // a view; the port list owns the port
    SessionPool::End numbers_from;
    CounterSlot active;
    CounterSlot receive_incoming;
    CounterSlot send_incoming;
    CounterSlot receive_outgoing;
    CounterSlot send_outgoing;
  };

  // The steps of one pass, in order.
  PassSets ReapAndCollectSockets(const PortList& ports);
  int WaitForReadiness(PassSets& sets, bool no_ports) const;
  bool TickClock();
  void ServeSessions(const PassSets& sets, int& ready, bool new_second);
  void PollFeeds(const PassSets& sets, bool new_second);
  void AcceptConnections(const PassSets& sets);

  void MatchPortEntries(const PortList& ports);
  void CollectSessions(ProxyPort& port, PassSets& sets);
  bool IsListenerPolled(const ProxyPort& port) const;
  static void ServeTransfers(PortEntry& entry, ProxySession& session, const PassSets& sets,
                             int& ready);
  // Accepts what waits on the port while numbers are free and the port is under its limit;
  // false when accepting must pause (no descriptor left).
  bool AcceptWaiting(const PortEntry& entry);
  // After an accept that found no descriptor left: no listener is polled until the next second
  // of the clock; logged once until an accept succeeds again.
  void PauseAccepting(const ProxyPort& port, int error);
  std::time_t Now() const;

  std::function<std::time_t()> clock_;
  LoginGuard login_guard_;
  std::unique_ptr<LogFeeds> log_feeds_;
  // What each session opened is lent: empty before Start.
  SessionContext context_;
  SessionPool pool_;
  // In port list order.
  std::vector<PortEntry> port_entries_;
  CounterSlot idle_;
  unsigned int rotation_ = 0;
  std::time_t last_second_ = 0;
  std::time_t accept_paused_until_ = 0;
  bool accept_shortage_logged_ = false;
};

#endif  // NORVANE_CLASSES_SERVICELOOP_H_
