// The daemon's one worker thread. It runs the update check at start-up, which may take long, off
// the loop, and hands what the check found to the loop, which logs it.
#ifndef NORVANE_CLASSES_UPDATEWORKER_H_
#define NORVANE_CLASSES_UPDATEWORKER_H_

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "FWPublishSubscribe.h"

class FWThread;

// Start, Check, Stop, Reset and SetUpdateCheck belong to the main thread. The worker thread calls
// NotificationReceive, which writes only the prefix and the message (under mutex_) and then
// suspends the thread until Check on the main thread has logged the message and resumed it.
class UpdateWorker final : public FWSubscriber {
 public:
  // The build's update URL and time-out.
  UpdateWorker();
  // Kills a thread that still runs.
  ~UpdateWorker() override;

  // Where and how long the update check asks; an empty URL makes no check. Set it while no
  // thread runs.
  void SetUpdateCheck(const std::string& url, std::chrono::milliseconds timeout);
  const std::string& GetUpdateURL() const { return update_url_; }
  std::chrono::milliseconds GetUpdateTimeout() const { return update_timeout_; }

  // Starts the worker thread; if one exists, logs "Start thread operation failed (thread is still
  // running)" under the thread prefix instead. Throws FWEOperationFailed when the thread cannot be
  // created.
  void Start();
  // Logs and clears the message of a suspended worker and resumes it; destroys a finished worker.
  // Does nothing without a worker.
  void Check();
  // Check up to 10 times, 500 ms apart, until the worker is gone; then logs "killing thread"
  // under the thread prefix and kills it.
  void Stop();
  // Destroys the worker without a word, killing a thread that still runs.
  void Reset();
  // The worker thread; null when none exists.
  const FWThread* GetThread() const { return thread_.get(); }

  // Runs on the worker thread: its start announcement (severity 6, code 0) runs the update check;
  // other announcements are ignored; any other notification is handed over as the message.
  void NotificationReceive(const FWNotification& notification, FWPublisher* sender) override;

 private:
  // The worker thread's side.
  void RunUpdateCheck(FWPublisher* sender);
  // Leaves the message and suspends the worker until the main thread has logged it.
  void HandOver(const std::string& message, FWPublisher* sender);
  std::string Prefix() const;

  std::unique_ptr<FWThread> thread_;
  // Set on the main thread while no worker runs; read by the worker.
  std::string update_url_;
  std::chrono::milliseconds update_timeout_;

  mutable std::mutex mutex_;
  std::string prefix_;   // protected by mutex_
  std::string message_;  // protected by mutex_
};

#endif  // NORVANE_CLASSES_UPDATEWORKER_H_
