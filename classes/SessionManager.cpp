#include "SessionManager.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>  // FD_SETSIZE, which sizes the session pool
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <typeinfo>
#include <vector>

#include "FWCounter.h"
#include "FWException.h"
#include "FWFile.h"
#include "FWHeap.h"
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWMIMEParser.h"
#include "FWProduct.h"
#include "FWSocket.h"
#include "FWStringUtils.h"
#include "FWThread.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "ProxySession.h"

namespace {

constexpr unsigned kGetClassLine = 185;
constexpr unsigned kSelectLine = 411;
// Each pass waits at most this long for readiness (or sleeps it when there are no ports).
constexpr unsigned long kPassTimeoutMs = 500;
// Each session may hold two descriptors: its socket and the file it follows. A session in step
// with the shared feed of its file holds none for the file: the feed holds it once for all of its
// sessions, and the file watches' descriptor comes out of that saving too. Besides the sessions
// and the listeners the daemon holds the three standard descriptors, the log, the worker thread's
// connection, one directory being listed and the root opened for a file.
constexpr int kDescriptorsPerSession = 2;
constexpr int kOtherDescriptors = 3 + 1 + 1 + 1 + 1;
constexpr int kThreadStopTries = 10;
constexpr unsigned long kThreadStopPauseMs = 500;
// Days from 30 December 1899 to 1 January 1970.
constexpr long kDayNumberOf1970 = 25569;

bool SamePort(const std::unique_ptr<ProxyPort>& left, const std::unique_ptr<ProxyPort>& right) {
  const ProxyPort& first = *left;
  const ProxyPort& second = *right;
  return typeid(first) == typeid(second) && first.IsEqual(&second);
}

}  // namespace

SessionManager::SessionManager()
    : update_url_(FWProduct::GetUpdateURL()), update_timeout_(FWProduct::kUpdateTimeout) {
  Initialize();
}

SessionManager::SessionManager(const SessionManager& other)
    : FWObject(other),
      FWSubscriber(),
      update_url_(other.update_url_),
      update_timeout_(other.update_timeout_) {
  Copy(other);
}

SessionManager::~SessionManager() {
  // The worker calls into this object: end it before any member goes. The ports go next, by
  // hand: their sessions still reach log_feeds_, which is declared after ports_ and so would be
  // destroyed first.
  thread_.reset();
  ports_.clear();
}

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
}

void SessionManager::Initialize() {
  max_log_file_days_ = FWVariable<int>(1);
  max_log_file_size_.Clear();
  initialized_ = false;
  thread_.reset();
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

void SessionManager::SetUpdateCheck(const std::string& url, std::chrono::milliseconds timeout) {
  update_url_ = url;
  update_timeout_ = timeout;
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
  login_guard_.SetNow(Now());
  log_feeds_ = std::make_unique<LogFeeds>();
  context_ = SessionContext{&login_guard_, log_feeds_.get()};
  if (!max_log_file_days_.IsNull()) LogStream.SetMaxDays(max_log_file_days_.Get());
  if (!max_log_file_size_.IsNull()) LogStream.SetMaxSize(max_log_file_size_.Get());
  LogBanner();
  LogConfiguration();
  ResetSessionNumbers();
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

void SessionManager::LogBanner() const {
  const std::string rule(60, '-');
  LogStream.Log(rule);
  LogStream.Log(FWStringUtils::Printf("%s starting ...", FWProduct::GetDisplayName().c_str()));
  LogStream.Log(rule);
  const std::time_t built = FWProduct::GetBuildTime();
  std::tm fields{};
  char date[64] = "";
  if (localtime_r(&built, &fields) != nullptr) {
    std::strftime(date, sizeof(date), "%b %d, %Y", &fields);
  }
  LogStream.Log(std::string("Version Build Date: ") + date);
  LogStream.Log("Current Date: " + FWMIMEParser::MIMETime());
  LogStream.Log("OS version: " + FWProduct::GetOSVersion());
  LogStream.Log(
      FWStringUtils::Printf("Physical Memory: %dMB", static_cast<int>(FWProduct::GetMemoryMB())));
  LogStream.Log("Directory for temporary files: " + FWFileName::GetTmpDirectory());
}

// The log shows that a password is set, never the password itself.
void SessionManager::LogConfiguration() const {
  SessionManager masked(*this);
  for (const std::unique_ptr<ProxyPort>& port : masked.ports_) {
    auto* monitoring = dynamic_cast<MonitoringPort*>(port.get());
    if (monitoring != nullptr && !monitoring->GetPassword().empty()) {
      monitoring->SetPassword(FWString("********"));
    }
  }
  FWIniParser parser("1.0", false);
  std::string text;
  parser.GenerateFromObject(masked, text, false);
  LogStream.Log("Configuration:");
  LogStream.Log(text, "    ");
}

int SessionManager::GetFixedDescriptors() const {
  return kOtherDescriptors + static_cast<int>(ports_.size());
}

int SessionManager::GetFullPoolSize() const {
  return std::max(0, (FD_SETSIZE - GetFixedDescriptors()) / kDescriptorsPerSession);
}

int SessionManager::GetPoolSize() const {
  rlimit current{};
  if (::getrlimit(RLIMIT_NOFILE, &current) != 0 || current.rlim_cur >= FD_SETSIZE) {
    return GetFullPoolSize();
  }
  const long room = static_cast<long>(current.rlim_cur) - GetFixedDescriptors();
  return static_cast<int>(std::max<long>(0, room / kDescriptorsPerSession));
}

std::string SessionManager::FitDescriptorLimit() {
  const auto wanted =
      static_cast<rlim_t>(GetFixedDescriptors() + kDescriptorsPerSession * GetFullPoolSize());
  rlimit current{};
  if (::getrlimit(RLIMIT_NOFILE, &current) != 0 || current.rlim_cur >= wanted) return "";
  const rlim_t before = current.rlim_cur;
  rlimit raised = current;
  raised.rlim_cur = std::min(wanted, current.rlim_max);
  if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) raised.rlim_cur = before;
  if (raised.rlim_cur >= wanted) {
    return FWStringUtils::Printf("descriptor limit raised from %lu to %lu",
                                 static_cast<unsigned long>(before),
                                 static_cast<unsigned long>(raised.rlim_cur));
  }
  return FWStringUtils::Printf(
      "descriptor limit %lu (hard limit %lu) holds only %d sessions; raise it to %lu for all %d",
      static_cast<unsigned long>(raised.rlim_cur), static_cast<unsigned long>(current.rlim_max),
      GetPoolSize(), static_cast<unsigned long>(wanted), GetFullPoolSize());
}

void SessionManager::ResetSessionNumbers() {
  used_numbers_.clear();
  free_numbers_.clear();
  const int pool = GetPoolSize();
  for (int number = 0; number < pool; ++number) {
    free_numbers_.insert(free_numbers_.end(), static_cast<unsigned int>(number));
  }
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

// ---- One pass of the loop ----

void SessionManager::PassSets::Add(int fd, short events) {
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
short SessionManager::PassSets::Revents(int fd, short wanted) const {
  const auto index = static_cast<std::size_t>(fd);
  if (fd <= 0 || index >= slot_of.size() || slot_of[index] < 0) return 0;
  const pollfd& entry = entries[static_cast<std::size_t>(slot_of[index])];
  if ((entry.events & wanted) == 0) return 0;
  return static_cast<short>(entry.revents & (wanted | POLLERR | POLLHUP | POLLNVAL));
}

bool SessionManager::PassSets::IsReadable(int fd) const { return Revents(fd, POLLIN) != 0; }

bool SessionManager::PassSets::IsWritable(int fd) const { return Revents(fd, POLLOUT) != 0; }

int SessionManager::PassSets::CountReady() const {
  int ready = 0;
  for (const pollfd& entry : entries) {
    ready += IsReadable(entry.fd) ? 1 : 0;
    ready += IsWritable(entry.fd) ? 1 : 0;
  }
  return ready;
}

void SessionManager::Select() {
  PassSets sets = ReapAndCollectSockets();  // closed sessions go first
  int ready = WaitForReadiness(sets);       // one poll(); EINTR counts as nothing ready
  if (thread_) ThreadCheck();
  const bool new_second = TickClock();     // per-second work follows the clock
  ServeSessions(sets, ready, new_second);  // a session's exception ends only that session
  PollFeeds(sets, new_second);             // each followed file read once for all its sessions
  AcceptConnections(sets);                 // starts at the next port in rotation
}

SessionManager::PassSets SessionManager::ReapAndCollectSockets() {
  PassSets sets;
  for (const std::unique_ptr<ProxyPort>& port : ports_) {
    CollectSessions(*port, sets);
    if (IsListenerPolled(*port)) sets.Add(port->GetListeningSocket(), POLLIN);
    Counter.Set(port->GetName() + "_Active", static_cast<uint32_t>(port->GetSessions().size()));
  }
  Counter.Set("InternalSessionManagerIdle", used_numbers_.empty() ? 1 : 0);
  if (log_feeds_) {
    sets.events_held = log_feeds_->GetWaitBound();
    if (sets.events_held < 0) sets.Add(log_feeds_->GetEventDescriptor(), POLLIN);
    if (log_feeds_->IsBusy()) sets.busy = true;
  }
  return sets;
}

// Reaps the sessions that are no longer open (their numbers go back to the pool) and adds the
// sockets of the others.
void SessionManager::CollectSessions(ProxyPort& port, PassSets& sets) {
  ProxyPort::SessionList& sessions = port.GetSessions();
  for (auto it = sessions.begin(); it != sessions.end();) {
    ProxySession* session = it->get();
    if (!session->IsOpen()) {
      used_numbers_.erase(session->GetNumber());
      free_numbers_.insert(session->GetNumber());
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
bool SessionManager::IsListenerPolled(const ProxyPort& port) const {
  if (free_numbers_.empty() || port.GetListeningSocket() == 0 || IsAcceptPaused()) return false;
  const FWVariable<int> limit = port.GetOutgoingConnectionCount();
  if (limit.IsNull()) return true;
  return static_cast<long>(port.GetSessions().size()) < static_cast<long>(limit.Get());
}

// poll() has no limit on descriptor numbers, so no socket is ever left out of a pass.
int SessionManager::WaitForReadiness(PassSets& sets) const {
  if (ports_.empty()) {
    FWThread::Sleep(kPassTimeoutMs);
    return 0;
  }
  int timeout = sets.busy ? 0 : static_cast<int>(kPassTimeoutMs);
  if (sets.events_held >= 0) timeout = std::min(timeout, sets.events_held);
  const int result = ::poll(sets.entries.data(), sets.entries.size(), timeout);
  if (result >= 0) return sets.CountReady();
  if (errno != EINTR) {
    throw FWESocketError("classes/SessionManager", kSelectLine, "poll",
                         FWSocketManager::GetInstance().SocketError());
  }
  // After a failed poll nothing is ready.
  for (pollfd& entry : sets.entries) entry.revents = 0;
  return 0;
}

std::time_t SessionManager::Now() const { return clock_ ? clock_() : std::time(nullptr); }

bool SessionManager::TickClock() {
  const std::time_t now = Now();
  login_guard_.SetNow(now);
  if (now == last_second_) return false;
  last_second_ = now;
  return true;
}

void SessionManager::ServeSessions(const PassSets& sets, int& ready, bool new_second) {
  for (const std::unique_ptr<ProxyPort>& port : ports_) {
    const std::string name = port->GetName();
    for (const std::unique_ptr<ProxySession>& session : port->GetSessions()) {
      try {
        ServeTransfers(name, *session, sets, ready);
        if (new_second || session->IsBehind()) session->CheckActive();
      } catch (const FWException& e) {
        LogStream.Log(e.GetText(), session->GetLogPrefix());
        session->Close();
      }
    }
  }
}

// Files with news (an event, or more to read) are read now; on a new second every followed file.
void SessionManager::PollFeeds(const PassSets& sets, bool new_second) {
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

// The socket is read again before each step: the step before may have closed the session.
void SessionManager::ServeTransfers(const std::string& name, ProxySession& session,
                                    const PassSets& sets, int& ready) {
  if (ready == 0) return;
  if (sets.IsReadable(session.GetIncomingSocket())) {
    Counter.Increment(name + "_ReceiveIncoming", static_cast<uint32_t>(session.ReceiveIncoming()));
    --ready;
  }
  if (sets.IsWritable(session.GetIncomingSocket())) {
    Counter.Increment(name + "_SendIncoming", static_cast<uint32_t>(session.SendIncoming()));
    --ready;
  }
  if (sets.IsReadable(session.GetOutgoingSocket())) {
    Counter.Increment(name + "_ReceiveOutgoing", static_cast<uint32_t>(session.ReceiveOutgoing()));
    --ready;
  }
  if (sets.IsWritable(session.GetOutgoingSocket())) {
    Counter.Increment(name + "_SendOutgoing", static_cast<uint32_t>(session.SendOutgoing()));
    --ready;
  }
  session.CheckFinished();
}

void SessionManager::AcceptConnections(const PassSets& sets) {
  if (ports_.empty()) return;
  rotation_ = (rotation_ + 1) % static_cast<unsigned int>(ports_.size());
  // Views of the ports; the list keeps owning them.
  std::vector<ProxyPort*> order;
  order.reserve(ports_.size());
  for (const std::unique_ptr<ProxyPort>& port : ports_) order.push_back(port.get());
  std::rotate(order.begin(), order.begin() + rotation_, order.end());
  for (ProxyPort* port : order) {
    if (!sets.IsReadable(port->GetListeningSocket())) continue;
    if (!AcceptWaiting(*port)) return;
  }
}

// A burst of connections is taken in one pass instead of one a pass, so the kernel's backlog
// never overflows while the loop is busy elsewhere. After the first accept, which the pass's poll
// announced, a zero-time poll of the listener tells whether another connection waits: a session
// is made only for a connection that is there.
bool SessionManager::AcceptWaiting(ProxyPort& port) {
  for (bool waiting = true; waiting && IsListenerPolled(port);) {
    // A view: the port's list owns the session.
    const ProxySession* session = port.SessionOpen(static_cast<int>(TakeNumber(port)), context_);
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

void SessionManager::PauseAccepting(const ProxyPort& port, int error) {
  accept_paused_until_ = last_second_ + 1;
  if (accept_shortage_logged_) return;
  accept_shortage_logged_ = true;
  LogStream.Log(FWStringUtils::Printf("accept on port %s: %s; new connections wait",
                                      port.GetIncomingPort().c_str(),
                                      GetErrorMessage(error).c_str()));
}

// Monitoring sessions take numbers from the top of the pool, all others from the bottom.
unsigned int SessionManager::TakeNumber(const ProxyPort& port) {
  const bool from_top = dynamic_cast<const MonitoringPort*>(&port) != nullptr;
  const auto it = from_top ? std::prev(free_numbers_.end()) : free_numbers_.begin();
  const unsigned int number = *it;
  free_numbers_.erase(it);
  used_numbers_.insert(number);
  return number;
}

// ---- The worker thread ----

void SessionManager::ThreadStart() {
  if (thread_) {
    LogStream.Log(FWMOperationFailed("start thread", "thread is still running").GetText(),
                  ThreadPrefix());
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(thread_mutex_);
    thread_prefix_.clear();
  }
  thread_ = std::make_unique<FWThread>();
  thread_->Attach(this);
  thread_->Run();
}

void SessionManager::ThreadCheck() {
  if (!thread_) return;
  if (thread_->IsSuspended()) {
    std::string message;
    {
      const std::lock_guard<std::mutex> lock(thread_mutex_);
      message.swap(thread_message_);
    }
    LogStream.Log(message, ThreadPrefix());
    thread_->Resume();
  }
  if (thread_->IsFinished()) thread_.reset();
}

void SessionManager::ThreadStop() {
  for (int attempt = 0; attempt < kThreadStopTries; ++attempt) {
    ThreadCheck();
    if (!thread_) return;
    FWThread::Sleep(kThreadStopPauseMs);
  }
  LogStream.Log("killing thread", ThreadPrefix());
  thread_.reset();
}

void SessionManager::NotificationReceive(const FWNotification& notification, FWPublisher* sender) {
  if (notification.GetSeverity() == FWThread::kAnnouncementSeverity) {
    if (notification.GetCode() == FWThread::kAnnounceMain) RunUpdateCheck(sender);
    return;
  }
  HandOver(notification.GetText(), sender);
}

// On the worker thread. A failed check is reported once, like an update, through the message.
void SessionManager::RunUpdateCheck(FWPublisher* sender) {
  {
    const std::lock_guard<std::mutex> lock(thread_mutex_);
    thread_prefix_ = "Update check: ";
  }
  FWProduct product;
  if (product.CheckForUpdate(update_url_, update_timeout_)) {
    HandOver(product.GetUpdateMessage(), sender);
  } else if (!product.GetUpdateFailure().empty()) {
    HandOver(product.GetUpdateFailure(), sender);
  }
}

// On the worker thread: leaves the message and waits until the main thread has logged it.
void SessionManager::HandOver(const std::string& message, FWPublisher* sender) {
  {
    const std::lock_guard<std::mutex> lock(thread_mutex_);
    thread_message_ = message;
  }
  if (auto* thread = dynamic_cast<FWThread*>(sender)) thread->Suspend();
}

std::string SessionManager::ThreadPrefix() const {
  const std::lock_guard<std::mutex> lock(thread_mutex_);
  return thread_prefix_;
}
