// One POSIX thread for an object that runs work of its own, announcing its life-cycle events to
// its subscribers.
#ifndef NORVANE_SRC_FWTHREAD_H_
#define NORVANE_SRC_FWTHREAD_H_

#include <pthread.h>

#include <cstdint>

#include "FWPublishSubscribe.h"

// Life-cycle announcements are notifications with empty text, severity kAnnouncementSeverity and
// one of the codes below, sent synchronously on the thread that caused them.
//
// Every field is guarded by mutex_. Suspend and Resume are the whole handshake between the worker
// and the thread that controls it: the worker writes what it has to hand over, then suspends; the
// other side reads it only while the worker is suspended, then resumes it.
//
// Run, Kill, Wait, Clear and the destructor belong to one controlling thread, never to the thread
// itself. A derived class whose ThreadMain uses its own members must Kill in its own destructor:
// the base destructor runs after those members are gone.
class FWThread : public FWPublisher {
 public:
  static constexpr int32_t kAnnouncementSeverity = 6;
  static constexpr int32_t kAnnounceMain = 0;  // the base ThreadMain runs (on the new thread)
  static constexpr int32_t kAnnounceWait = 1;  // Wait has joined the thread
  static constexpr int32_t kAnnounceRun = 2;   // Run is about to create the thread
  static constexpr int32_t kAnnounceKill = 3;  // Kill is about to end the thread

  FWThread();
  // Kills a thread that still runs.
  ~FWThread() override;
  FWThread(const FWThread&) = delete;
  FWThread& operator=(const FWThread&) = delete;

  // Starts the thread. Throws FWEOperationFailed("thread create", system text) when it cannot be
  // created; the object then stays locked, as the product has always done. A thread that finished
  // by itself is joined first; Run while a thread still runs throws FWEAssertionFailed
  // "Thread == 0" and sends nothing.
  void Run();
  // Parks the calling thread until Resume. Only on the thread itself (else FWEAssertionFailed
  // "Thread == pthread_self()"); does nothing when no thread runs or it is already suspended.
  void Suspend();
  // Wakes a suspended thread; does nothing otherwise.
  void Resume();
  // Ends a running thread: announces kAnnounceKill, then cancels and joins it; result -1,
  // finished. A thread is ended by cancellation, not by a signal: a SIGTERM aimed at one thread
  // runs the process-wide handler (or ends the process) and leaves the thread running. Blocking
  // calls (sleeps, waits, socket calls) are where the thread ends; code that runs on it must let
  // the unwinding pass (a catch (...) must rethrow). kAnnounceKill is sent under the lock: its
  // subscribers must not call back into this object. Does nothing when no thread runs.
  void Kill();
  // Joins a finished or killed thread, announces kAnnounceWait and returns the result. Throws
  // FWEOperationFailed("thread wait", system text) when the join fails. On a thread that still
  // runs it waits, without the lock, until ThreadMain returns.
  int32_t Wait();
  // Kill, then back to "not started".
  void Clear();
  // Sleeps the calling thread; an interrupted sleep is not resumed.
  static void Sleep(unsigned long milliseconds);

  bool IsStarted() const;
  bool IsSuspended() const;
  bool IsFinished() const;
  int32_t GetResult() const;

  void Lock() const;
  void Unlock() const;

 protected:
  // The thread's work. The base version announces kAnnounceMain and returns the result field.
  // An FWException escaping it is sent to the subscribers as its notification; any other
  // exception as FWMOperationFailed("execute", "unhandled exception").
  virtual int32_t ThreadMain();

 private:
  static void* Entry(void* self);
  int32_t Callback();
  // Under the lock: a thread runs and has not finished ("the thread id is set").
  bool IsAliveLocked() const { return running_ && !finished_; }
  // Under the lock: joins a thread that finished by itself and that nobody has joined yet.
  void ReapFinishedLocked();

  bool finished_ = false;
  int32_t result_ = 0;
  bool suspended_ = false;
  pthread_t thread_{};
  bool running_ = false;       // thread_ holds a live thread that nobody has joined yet
  bool start_failed_ = false;  // Run failed and left mutex_ locked
  mutable pthread_cond_t wake_up_;
  mutable pthread_mutex_t mutex_;
};

#endif  // NORVANE_SRC_FWTHREAD_H_
