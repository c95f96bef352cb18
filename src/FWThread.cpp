#include "FWThread.h"

#include <cxxabi.h>
#include <pthread.h>
#include <time.h>

#include "FWErrorMessage.h"
#include "FWException.h"

namespace {

FWNotification Announcement(int32_t code) {
  return FWNotification("", code, FWThread::kAnnouncementSeverity);
}

// Holds a mutex for a scope. Its destructor also runs during the forced unwinding of a cancelled
// thread, so a thread cancelled inside pthread_cond_wait (which re-acquires the mutex first)
// does not end with the lock held.
class ScopedLock {
 public:
  explicit ScopedLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~ScopedLock() { pthread_mutex_unlock(mutex_); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  pthread_mutex_t* const mutex_;
};

}  // namespace

FWThread::FWThread() {
  pthread_mutex_init(&mutex_, nullptr);
  pthread_cond_init(&wake_up_, nullptr);
}

FWThread::~FWThread() {
  if (start_failed_) {
    // A failed Run left the mutex locked on this (the controlling) thread and no thread exists.
    Unlock();
  } else {
    Kill();
  }
  pthread_cond_destroy(&wake_up_);
  pthread_mutex_destroy(&mutex_);
}

void FWThread::Lock() const { pthread_mutex_lock(&mutex_); }

void FWThread::Unlock() const { pthread_mutex_unlock(&mutex_); }

// The thread has already left Callback's locked section, so joining under the lock cannot block
// for long.
void FWThread::ReapFinishedLocked() {
  if (!running_ || !finished_) return;
  (void)pthread_join(thread_, nullptr);  // cannot fail: the thread was never joined or detached
  running_ = false;
}

void FWThread::Run() {
  Lock();
  if (IsAliveLocked()) {
    Unlock();
    throw FWEAssertionFailed(FW_HERE, "Thread == 0");
  }
  ReapFinishedLocked();
  Unlock();
  NotificationSend(Announcement(kAnnounceRun));
  Lock();
  finished_ = false;
  suspended_ = false;
  const int rc = pthread_create(&thread_, nullptr, &FWThread::Entry, this);
  if (rc != 0) {
    start_failed_ = true;
    throw FWEOperationFailed(FW_HERE, "thread create", GetErrorMessage(rc));
  }
  running_ = true;
  Unlock();
}

void* FWThread::Entry(void* self) {
  static_cast<FWThread*>(self)->Callback();
  return nullptr;
}

// For the forced unwinding of a cancelled thread libstdc++ binds the handler's reference to a
// null object, which the sanitizer's null check reports; the handler never uses the reference.
__attribute__((no_sanitize("address", "null"))) int32_t FWThread::Callback() {
  int32_t result = -1;
  try {
    result = ThreadMain();
  } catch (abi::__forced_unwind&) {
    throw;  // Kill's cancellation: the unwinding must reach the thread's start
  } catch (const FWException& e) {
    NotificationSend(e.GetNotification());
  } catch (...) {
    NotificationSend(FWMOperationFailed("execute", "unhandled exception"));
  }
  ScopedLock lock(&mutex_);
  // Kill may have ended this thread's run already; its result -1 stands.
  if (IsAliveLocked()) {
    result_ = result;
    finished_ = true;
  }
  return result;
}

int32_t FWThread::ThreadMain() {
  NotificationSend(Announcement(kAnnounceMain));
  return GetResult();
}

void FWThread::Suspend() {
  ScopedLock lock(&mutex_);
  if (!IsAliveLocked() || suspended_) return;
  if (!pthread_equal(thread_, pthread_self())) {
    throw FWEAssertionFailed(FW_HERE, "Thread == pthread_self()");
  }
  suspended_ = true;
  // A loop, not a single wait: pthread_cond_wait may return without a signal.
  while (suspended_) pthread_cond_wait(&wake_up_, &mutex_);
}

void FWThread::Resume() {
  ScopedLock lock(&mutex_);
  if (!IsAliveLocked() || !suspended_) return;
  suspended_ = false;
  pthread_cond_signal(&wake_up_);
}

// The state says "killed" before the lock is released, so Callback of a thread that gets past
// ThreadMain meanwhile keeps the result -1. The lock is released before the cancellation because
// the ending thread may need it (a thread cancelled in Suspend re-acquires it, then unwinds).
void FWThread::Kill() {
  Lock();
  if (!IsAliveLocked()) {
    ReapFinishedLocked();
    Unlock();
    return;
  }
  NotificationSend(Announcement(kAnnounceKill));
  const pthread_t thread = thread_;
  result_ = -1;
  finished_ = true;
  suspended_ = false;
  running_ = false;
  Unlock();
  // Neither call can fail for a thread that nobody has joined, and Kill also runs in the
  // destructor, where a failure could not be reported.
  (void)pthread_cancel(thread);
  (void)pthread_join(thread, nullptr);
}

int32_t FWThread::Wait() {
  Lock();
  if (running_) {
    const pthread_t thread = thread_;
    Unlock();  // a thread that still runs takes the lock in Callback before it ends
    const int rc = pthread_join(thread, nullptr);
    if (rc != 0) throw FWEOperationFailed(FW_HERE, "thread wait", GetErrorMessage(rc));
    Lock();
    running_ = false;
  }
  const int32_t result = result_;
  Unlock();
  NotificationSend(Announcement(kAnnounceWait));
  return result;
}

void FWThread::Clear() {
  Kill();
  ScopedLock lock(&mutex_);
  finished_ = false;
  suspended_ = false;
}

void FWThread::Sleep(unsigned long milliseconds) {
  timespec duration{};
  duration.tv_sec = static_cast<time_t>(milliseconds / 1000);
  duration.tv_nsec = static_cast<long>((milliseconds % 1000) * 1000000);
  // An interrupted sleep is not resumed: the remaining time is dropped on purpose.
  (void)nanosleep(&duration, nullptr);
}

bool FWThread::IsStarted() const {
  ScopedLock lock(&mutex_);
  return IsAliveLocked() || finished_;
}

bool FWThread::IsSuspended() const {
  ScopedLock lock(&mutex_);
  return IsAliveLocked() && suspended_;
}

bool FWThread::IsFinished() const {
  ScopedLock lock(&mutex_);
  return finished_;
}

int32_t FWThread::GetResult() const {
  ScopedLock lock(&mutex_);
  return result_;
}
