#include "FWPublishSubscribe.h"

#include "FWException.h"
#include "FWStringUtils.h"

std::string FWNotification::GetText() const {
  if (text_.empty()) return text_;
  std::string text = text_;
  text[0] = FWStringUtils::GetDefaultInstance().ToUpper(text[0]);
  return text;
}

std::string FWNotification::GetText(const std::list<FWNotification>& notifications,
                                    const std::string& separator) {
  std::string joined;
  bool first = true;
  for (const FWNotification& notification : notifications) {
    if (!first) joined += separator;
    first = false;
    joined += notification.GetText();
  }
  return joined;
}

namespace {

// The one check that every linking operation makes.
void RequireBothSides(const void* partner, const void* self) {
  if (partner == nullptr || self == nullptr) {
    throw FWEAssertionFailed(FW_HERE, std::string("Subscriber && this"));
  }
}

}  // namespace

FWPublisher::~FWPublisher() { DetachAll(); }

void FWPublisher::Attach(FWSubscriber* subscriber) {
  RequireBothSides(subscriber, this);
  subscribers_.insert(subscriber);
  subscriber->publishers_.insert(this);
}

void FWPublisher::Detach(FWSubscriber* subscriber) {
  RequireBothSides(subscriber, this);
  subscribers_.erase(subscriber);
  subscriber->publishers_.erase(this);
}

void FWPublisher::AttachAll(const FWPublisher& other) {
  // Copied first: attaching a publisher's subscribers to itself must not walk a growing set.
  const std::set<FWSubscriber*> others = other.subscribers_;
  for (FWSubscriber* subscriber : others) Attach(subscriber);
}

void FWPublisher::DetachAll() {
  while (!subscribers_.empty()) Detach(*subscribers_.begin());
}

void FWPublisher::NotificationSend(const FWNotification& notification) {
  for (FWSubscriber* subscriber : subscribers_) subscriber->NotificationReceive(notification, this);
}

FWSubscriber::~FWSubscriber() { UnsubscribeAll(); }

void FWSubscriber::Subscribe(FWPublisher* publisher) {
  RequireBothSides(publisher, this);
  publisher->Attach(this);
}

void FWSubscriber::SubscribeAll(const FWSubscriber& other) {
  const std::set<FWPublisher*> others = other.publishers_;
  for (FWPublisher* publisher : others) Subscribe(publisher);
}

void FWSubscriber::UnsubscribeAll() {
  while (!publishers_.empty()) (*publishers_.begin())->Detach(this);
}
