// The brake on password guessing that all feed sessions of the daemon share: it counts failed
// logins per client address and refuses logins from an address that failed too often, and it
// carries the time of the loop's current pass, which the sessions' timers read.
#ifndef NORVANE_CLASSES_LOGINGUARD_H_
#define NORVANE_CLASSES_LOGINGUARD_H_

#include <ctime>
#include <deque>
#include <map>
#include <string>

// Main thread only. Owned by the service loop, which sets the time at every pass; the sessions
// hold a plain pointer to it in their SessionContext, and the feed dialogue consults it. Nothing
// here blocks: a refused login is answered at once, never delayed.
class LoginGuard final {
 public:
  // An address with this many failures within kWindowSeconds is refused for kRefusalSeconds.
  static constexpr std::size_t kFailuresPerAddress = 10;
  static constexpr std::time_t kWindowSeconds = 60;
  static constexpr std::time_t kRefusalSeconds = 60;

  void SetNow(std::time_t now) { now_ = now; }
  std::time_t Now() const { return now_; }

  // True while logins from the address are refused.
  bool IsRefused(const std::string& address) const;
  // Counts one failed login; true when it starts the address's refusal (log it then, once).
  bool RecordFailure(const std::string& address);

 private:
  struct Record {
    std::deque<std::time_t> failures;  // within the window, oldest first
    std::time_t refused_until = 0;
  };

  // Drops records with nothing left to remember, so that the table stays as small as the
  // number of addresses that failed within the last minute.
  void Prune();

  std::map<std::string, Record> records_;
  std::time_t now_ = 0;
  std::time_t last_prune_ = 0;
};

#endif  // NORVANE_CLASSES_LOGINGUARD_H_
