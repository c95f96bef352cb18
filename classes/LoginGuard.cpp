#include "LoginGuard.h"

#include <iterator>

bool LoginGuard::IsRefused(const std::string& address) const {
  const auto it = records_.find(address);
  return it != records_.end() && now_ < it->second.refused_until;
}

bool LoginGuard::RecordFailure(const std::string& address) {
  Prune();
  Record& record = records_[address];
  while (!record.failures.empty() && record.failures.front() <= now_ - kWindowSeconds) {
    record.failures.pop_front();
  }
  record.failures.push_back(now_);
  if (now_ < record.refused_until || record.failures.size() < kFailuresPerAddress) return false;
  record.refused_until = now_ + kRefusalSeconds;
  record.failures.clear();
  return true;
}

void LoginGuard::Prune() {
  if (now_ - last_prune_ < kWindowSeconds) return;
  last_prune_ = now_;
  for (auto it = records_.begin(); it != records_.end();) {
    const Record& record = it->second;
    const bool stale = record.failures.empty() || record.failures.back() <= now_ - kWindowSeconds;
    it = stale && now_ >= record.refused_until ? records_.erase(it) : std::next(it);
  }
}
