#include "UpdateWorker.h"

#include "FWException.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWThread.h"

namespace {

constexpr int kStopTries = 10;
constexpr unsigned long kStopPauseMs = 500;

}  // namespace

UpdateWorker::UpdateWorker()
    : update_url_(FWProduct::GetUpdateURL()), update_timeout_(FWProduct::kUpdateTimeout) {}

// The worker calls into this object: end it before any member goes.
UpdateWorker::~UpdateWorker() { thread_.reset(); }

void UpdateWorker::SetUpdateCheck(const std::string& url, std::chrono::milliseconds timeout) {
  update_url_ = url;
  update_timeout_ = timeout;
}

void UpdateWorker::Start() {
  if (thread_) {
    LogStream.Log(FWMOperationFailed("start thread", "thread is still running").GetText(),
                  Prefix());
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    prefix_.clear();
  }
  thread_ = std::make_unique<FWThread>();
  thread_->Attach(this);
  thread_->Run();
}

void UpdateWorker::Check() {
  if (!thread_) return;
  if (thread_->IsSuspended()) {
    std::string message;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      message.swap(message_);
    }
    LogStream.Log(message, Prefix());
    thread_->Resume();
  }
  if (thread_->IsFinished()) thread_.reset();
}

void UpdateWorker::Stop() {
  for (int attempt = 0; attempt < kStopTries; ++attempt) {
    Check();
    if (!thread_) return;
    FWThread::Sleep(kStopPauseMs);
  }
  LogStream.Log("killing thread", Prefix());
  thread_.reset();
}

void UpdateWorker::Reset() { thread_.reset(); }

void UpdateWorker::NotificationReceive(const FWNotification& notification, FWPublisher* sender) {
  if (notification.GetSeverity() == FWThread::kAnnouncementSeverity) {
    if (notification.GetCode() == FWThread::kAnnounceMain) RunUpdateCheck(sender);
    return;
  }
  HandOver(notification.GetText(), sender);
}

// A failed check is reported once, like an update, through the message.
void UpdateWorker::RunUpdateCheck(FWPublisher* sender) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    prefix_ = "Update check: ";
  }
  FWProduct product;
  if (product.CheckForUpdate(update_url_, update_timeout_)) {
    HandOver(product.GetUpdateMessage(), sender);
  } else if (!product.GetUpdateFailure().empty()) {
    HandOver(product.GetUpdateFailure(), sender);
  }
}

void UpdateWorker::HandOver(const std::string& message, FWPublisher* sender) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    message_ = message;
  }
  if (auto* thread = dynamic_cast<FWThread*>(sender)) thread->Suspend();
}

std::string UpdateWorker::Prefix() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return prefix_;
}
