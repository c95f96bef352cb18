// A table of named unsigned 32-bit counters for run-time statistics. Values wrap modulo 2^32.
// Not thread-safe: the session manager's loop is its one user.
#ifndef NORVANE_SRC_FWCOUNTER_H_
#define NORVANE_SRC_FWCOUNTER_H_

#include <cstdint>
#include <map>
#include <string>

class FWCounter {
 public:
  // Returned by Clear for a counter that does not exist: the product's own status convention.
  static constexpr int kUnknownCounter = 42;

  FWCounter() = default;

  bool Exists(const std::string& name) const;
  // The value, or 0 for a counter that does not exist.
  uint32_t Get(const std::string& name) const;
  // Adds amount, creating the counter with that value when needed.
  void Increment(const std::string& name, uint32_t amount);
  void Set(const std::string& name, uint32_t value);
  // 0 after setting an existing counter to 0; kUnknownCounter, changing nothing, otherwise.
  int Clear(const std::string& name);
  // The counter's value itself, for a user that updates it often: the counter is created with 0
  // when needed (as Increment would create it), and since no counter is ever removed, the
  // reference stays valid as long as the table.
  uint32_t& Reference(const std::string& name);

  const std::map<std::string, uint32_t>& GetAll() const { return values_; }

 private:
  std::map<std::string, uint32_t> values_;
};

// The one table of the process.
extern FWCounter Counter;

#endif  // NORVANE_SRC_FWCOUNTER_H_
