// Notifications (a text, a message code and a severity) and the many-to-many links between the
// publishers that send them and the subscribers that receive them.
#ifndef NORVANE_SRC_FWPUBLISHSUBSCRIBE_H_
#define NORVANE_SRC_FWPUBLISHSUBSCRIBE_H_

#include <cstdint>
#include <list>
#include <set>
#include <string>

class FWNotification {
 public:
  enum Severity : int32_t {
    kFatalError = 0,
    kError = 1,
    kWarning = 2,
    kMessage = 3,
    kDebug = 4,
    kTrace = 5,
  };

  FWNotification() = default;
  FWNotification(std::string text, int32_t code, int32_t severity)
      : text_(std::move(text)), code_(code), severity_(severity) {}
  virtual ~FWNotification() = default;
  FWNotification(const FWNotification&) = default;
  FWNotification& operator=(const FWNotification&) = default;

  // The text with its first character upper-cased; the stored text keeps its case.
  std::string GetText() const;
  // The texts of the notifications, upper-cased as above, joined by the separator.
  static std::string GetText(const std::list<FWNotification>& notifications,
                             const std::string& separator);

  // The text exactly as its maker formatted it.
  const std::string& GetRawText() const { return text_; }
  int32_t GetCode() const { return code_; }
  int32_t GetSeverity() const { return severity_; }

 private:
  std::string text_;
  int32_t code_ = 0;
  int32_t severity_ = kMessage;
};

class FWSubscriber;

// A publisher and its subscribers know each other through sets of plain pointers; neither owns the
// other. Destroying either side removes all of its links first. Not thread-safe: link, unlink and
// send from one thread at a time. Copying is not supported: a link belongs to an address.
class FWPublisher {
 public:
  FWPublisher() = default;
  virtual ~FWPublisher();
  FWPublisher(const FWPublisher&) = delete;
  FWPublisher& operator=(const FWPublisher&) = delete;

  // Both throw FWEAssertionFailed("Subscriber && this") for a null subscriber.
  void Attach(FWSubscriber* subscriber);
  void Detach(FWSubscriber* subscriber);
  // Attaches every subscriber of the other publisher to this one as well.
  void AttachAll(const FWPublisher& other);
  void DetachAll();
  // Calls NotificationReceive on every subscriber, in address order, before returning. A
  // subscriber must not link to or unlink from this publisher while it handles the call.
  void NotificationSend(const FWNotification& notification);

 private:
  friend class FWSubscriber;
  std::set<FWSubscriber*> subscribers_;
};

class FWSubscriber {
 public:
  FWSubscriber() = default;
  virtual ~FWSubscriber();
  FWSubscriber(const FWSubscriber&) = delete;
  FWSubscriber& operator=(const FWSubscriber&) = delete;

  virtual void NotificationReceive(const FWNotification& notification, FWPublisher* sender) = 0;

  // Throws FWEAssertionFailed("Subscriber && this") for a null publisher.
  void Subscribe(FWPublisher* publisher);
  // Subscribes to every publisher that the other subscriber is attached to.
  void SubscribeAll(const FWSubscriber& other);
  void UnsubscribeAll();

 private:
  friend class FWPublisher;
  std::set<FWPublisher*> publishers_;
};

#endif  // NORVANE_SRC_FWPUBLISHSUBSCRIBE_H_
