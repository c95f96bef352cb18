#include "ServiceLoop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "FWCounter.h"
#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWHeap.h"
#include "FWLogStream.h"
#include "FWSocket.h"
#include "FWStringUtils.h"
#include "FWThread.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "ProxySession.h"
#include "UpdateWorker.h"

namespace {

// A failed poll has always been reported from here, as the session manager's; logs and tests
// match the source and line.
constexpr const char* kPollSource = "classes/SessionManager";
constexpr unsigned kPollLine = 411;
// Each pass waits at most this long for readiness (or sleeps it when there are no ports).
constexpr unsigned long kPassTimeoutMs = 500;

}  // namespace

ServiceLoop::ServiceLoop() : idle_("InternalSessionManagerIdle") {}

ServiceLoop::~ServiceLoop() = default;

void ServiceLoop::Start(std::size_t listeners) {
  login_guard_.SetNow(Now());
  log_feeds_ = std::make_unique<LogFeeds>();
  context_ = SessionContext{&login_guard_, log_feeds_.get()};
  pool_.Fill(SessionPool::GetPoolSize(listeners));
}

std::time_t ServiceLoop::Now() const { return clock_ ? clock_() : std::time(nullptr); }

// ---- The descriptors of a pass ----

void ServiceLoop::PassSets::Add(int fd, short events) {
  if (fd <= 0) return;
  const auto index = static_cast<std::size_t>(fd);
  if (index >= slot_of.size()) slot_of.resize(index + 1, -1);
  if (slot_of[index] < 0) {
    slot_of[index] = static_cast<int>(entries.size());
    entries.push_back(pollfd{fd, 0, 0});
  }
  entries[static_cast<std::size_t>(slot_of[index])].events |= events;
}

// An error or hang-up counts as readiness for what was asked, as select() reported it: the
// next read or write then tells the session.
short ServiceLoop::PassSets::Revents(int fd, short wanted) const {
  const auto index = static_cast<std::size_t>(fd);
  if (fd <= 0 || index >= slot_of.size() || slot_of[index] < 0) return 0;
  const pollfd& entry = entries[static_cast<std::size_t>(slot_of[index])];
  if ((entry.events & wanted) == 0) return 0;
  return static_cast<short>(entry.revents & (wanted | POLLERR | POLLHUP | POLLNVAL));
}

bool ServiceLoop::PassSets::IsReadable(int fd) const { return Revents(fd, POLLIN) != 0; }

bool ServiceLoop::PassSets::IsWritable(int fd) const { return Revents(fd, POLLOUT) != 0; }

int ServiceLoop::PassSets::CountReady() const {
  int ready = 0;
  for (const pollfd& entry : entries) {
    ready += IsReadable(entry.fd) ? 1 : 0;
    ready += IsWritable(entry.fd) ? 1 : 0;
  }
  return ready;
}

// ---- What the pass keeps of each port ----

uint32_t& ServiceLoop::CounterSlot::Value() {
  if (value_ == nullptr) value_ = &Counter.Reference(name_);
  return *value_;
}

ServiceLoop::PortEntry::PortEntry(ProxyPort& of)
    : port(&of),
      numbers_from(dynamic_cast<const MonitoringPort*>(&of) != nullptr ? SessionPool::End::kTop
                                                                       : SessionPool::End::kBottom),
      active(of.GetName() + "_Active"),
      receive_incoming(of.GetName() + "_ReceiveIncoming"),
      send_incoming(of.GetName() + "_SendIncoming"),
      receive_outgoing(of.GetName() + "_ReceiveOutgoing"),
      send_outgoing(of.GetName() + "_SendOutgoing") {}

// Once per pass and port, a comparison of two pointers; the entries are made again only when the
// list holds other ports than at the last pass.
void ServiceLoop::MatchPortEntries(const PortList& ports) {
  const bool same = ports.size() == port_entries_.size() &&
                    std::equal(ports.begin(), ports.end(), port_entries_.begin(),
                               [](const std::unique_ptr<ProxyPort>& port, const PortEntry& entry) {
                                 return port.get() == entry.port;
                               });
  if (same) return;
  port_entries_.clear();
  port_entries_.reserve(ports.size());
  for (const std::unique_ptr<ProxyPort>& port : ports) port_entries_.emplace_back(*port);
}

// ---- One pass ----

void ServiceLoop::Pass(const PortList& ports, UpdateWorker& worker) {
  PassSets sets = ReapAndCollectSockets(ports);       // closed sessions go first
  int ready = WaitForReadiness(sets, ports.empty());  // one poll(); EINTR: nothing ready
  worker.Check();                                     // logs what the worker handed over
  const bool new_second = TickClock();                // per-second work follows the clock
  ServeSessions(sets, ready, new_second);  // a session's exception ends only that session
  PollFeeds(sets, new_second);             // each followed file read once for all its sessions
  AcceptConnections(sets);                 // starts at the next port in rotation
}

ServiceLoop::PassSets ServiceLoop::ReapAndCollectSockets(const PortList& ports) {
  MatchPortEntries(ports);
  PassSets sets;
  for (PortEntry& entry : port_entries_) {
    ProxyPort& port = *entry.port;
    CollectSessions(port, sets);
    if (IsListenerPolled(port)) sets.Add(port.GetListeningSocket(), POLLIN);
    entry.active.Value() = static_cast<uint32_t>(port.GetSessions().size());
  }
  idle_.Value() = pool_.IsIdle() ? 1 : 0;
  if (log_feeds_) {
    sets.events_held = log_feeds_->GetWaitBound();
    if (sets.events_held < 0) sets.Add(log_feeds_->GetEventDescriptor(), POLLIN);
    if (log_feeds_->IsBusy()) sets.busy = true;
  }
  return sets;
}

// Reaps the sessions that are no longer open (their numbers go back to the pool) and adds the
// sockets of the others.
void ServiceLoop::CollectSessions(ProxyPort& port, PassSets& sets) {
  ProxyPort::SessionList& sessions = port.GetSessions();
  for (auto it = sessions.begin(); it != sessions.end();) {
    ProxySession* session = it->get();
    if (!session->IsOpen()) {
      pool_.Give(session->GetNumber());
      it = sessions.erase(it);  // destroys the session
      continue;
    }
    if (session->IsBehind()) sets.busy = true;
    if (session->ReadyToReceiveIncoming()) sets.Add(session->GetIncomingSocket(), POLLIN);
    if (!session->GetIncomingBuffer().empty()) sets.Add(session->GetIncomingSocket(), POLLOUT);
    if (session->ReadyToReceiveOutgoing()) sets.Add(session->GetOutgoingSocket(), POLLIN);
    if (!session->GetOutgoingBuffer().empty()) sets.Add(session->GetOutgoingSocket(), POLLOUT);
    ++it;
  }
}

// While the port holds OutgoingConnectionCount sessions, or no number is free, new connections
// wait in the kernel's backlog.
bool ServiceLoop::IsListenerPolled(const ProxyPort& port) const {
  if (!pool_.HasFree() || port.GetListeningSocket() == 0 || IsAcceptPaused()) return false;
  const FWVariable<int> limit = port.GetOutgoingConnectionCount();
  if (limit.IsNull()) return true;
  return static_cast<long>(port.GetSessions().size()) < static_cast<long>(limit.Get());
}

// poll() has no limit on descriptor numbers, so no socket is ever left out of a pass.
int ServiceLoop::WaitForReadiness(PassSets& sets, bool no_ports) const {
  if (no_ports) {
    FWThread::Sleep(kPassTimeoutMs);
    return 0;
  }
  int timeout = sets.busy ? 0 : static_cast<int>(kPassTimeoutMs);
  if (sets.events_held >= 0) timeout = std::min(timeout, sets.events_held);
  const int result = ::poll(sets.entries.data(), sets.entries.size(), timeout);
  if (result >= 0) return sets.CountReady();
  const int error = errno;
  if (error != EINTR) {
    throw FWESocketError(kPollSource, kPollLine, "poll",
                         FWSocketManager::GetInstance().SocketError(), error);
  }
  // After a failed poll nothing is ready.
  for (pollfd& entry : sets.entries) entry.revents = 0;
  return 0;
}

bool ServiceLoop::TickClock() {
  const std::time_t now = Now();
  login_guard_.SetNow(now);
  if (now == last_second_) return false;
  last_second_ = now;
  return true;
}

void ServiceLoop::ServeSessions(const PassSets& sets, int& ready, bool new_second) {
  for (PortEntry& entry : port_entries_) {
    for (const std::unique_ptr<ProxySession>& session : entry.port->GetSessions()) {
      try {
        ServeTransfers(entry, *session, sets, ready);
        if (new_second || session->IsBehind()) session->CheckActive();
      } catch (const FWException& e) {
        LogStream.Log(e.GetText(), session->GetLogPrefix());
        session->Close();
      }
    }
  }
}

// The socket is read again before each step: the step before may have closed the session.
// Counter values wrap modulo 2^32, as FWCounter::Increment's do.
void ServiceLoop::ServeTransfers(PortEntry& entry, ProxySession& session, const PassSets& sets,
                                 int& ready) {
  if (ready == 0) return;
  if (sets.IsReadable(session.GetIncomingSocket())) {
    entry.receive_incoming.Value() += static_cast<uint32_t>(session.ReceiveIncoming());
    --ready;
  }
  if (sets.IsWritable(session.GetIncomingSocket())) {
    entry.send_incoming.Value() += static_cast<uint32_t>(session.SendIncoming());
    --ready;
  }
  if (sets.IsReadable(session.GetOutgoingSocket())) {
    entry.receive_outgoing.Value() += static_cast<uint32_t>(session.ReceiveOutgoing());
    --ready;
  }
  if (sets.IsWritable(session.GetOutgoingSocket())) {
    entry.send_outgoing.Value() += static_cast<uint32_t>(session.SendOutgoing());
    --ready;
  }
  session.CheckFinished();
}

// Files with news (an event, or more to read) are read now; on a new second every followed file.
void ServiceLoop::PollFeeds(const PassSets& sets, bool new_second) {
  if (!log_feeds_) return;
  // On a new second the events held back for the next round are read too: the second's poll is
  // only for files that had none.
  if (new_second || sets.IsReadable(log_feeds_->GetEventDescriptor())) log_feeds_->ReadEvents();
  try {
    log_feeds_->PollDue(new_second);
  } catch (const FWException& e) {
    LogStream.Log(e.GetText());
  }
  // Much memory left free by the second's reads and frames goes back to the system.
  if (new_second) FWHeap::GiveBack();
}

// The ports are visited from the next one in rotation, round the list.
void ServiceLoop::AcceptConnections(const PassSets& sets) {
  if (port_entries_.empty()) return;
  const auto count = static_cast<unsigned int>(port_entries_.size());
  rotation_ = (rotation_ + 1) % count;
  for (unsigned int step = 0; step < count; ++step) {
    const PortEntry& entry = port_entries_[(rotation_ + step) % count];
    if (!sets.IsReadable(entry.port->GetListeningSocket())) continue;
    if (!AcceptWaiting(entry)) return;
  }
}

// A burst of connections is taken in one pass instead of one a pass, so the kernel's backlog
// never overflows while the loop is busy elsewhere. After the first accept, which the pass's poll
// announced, a zero-time poll of the listener tells whether another connection waits: a session
// is made only for a connection that is there.
bool ServiceLoop::AcceptWaiting(const PortEntry& entry) {
  ProxyPort& port = *entry.port;
  for (bool waiting = true; waiting && IsListenerPolled(port);) {
    const auto number = static_cast<int>(pool_.Take(entry.numbers_from));
    // A view: the port's list owns the session.
    const ProxySession* session = port.SessionOpen(number, context_);
    const int error = session->GetAcceptError();
    if (FWSocketManager::IsResourceShortage(error)) {
      PauseAccepting(port, error);
      return false;
    }
    pollfd listener{port.GetListeningSocket(), POLLIN, 0};
    waiting = error == 0 && ::poll(&listener, 1, 0) == 1 && (listener.revents & POLLIN) != 0;
  }
  // The queue was taken without running short: a later shortage is logged again.
  accept_shortage_logged_ = false;
  return true;
}

void ServiceLoop::PauseAccepting(const ProxyPort& port, int error) {
  accept_paused_until_ = last_second_ + 1;
  if (accept_shortage_logged_) return;
  accept_shortage_logged_ = true;
  LogStream.Log(FWStringUtils::Printf("accept on port %s: %s; new connections wait",
                                      port.GetIncomingPort().c_str(),
                                      GetErrorMessage(error).c_str()));
}
