#include "FWCounter.h"

FWCounter Counter;

bool FWCounter::Exists(const std::string& name) const { return values_.count(name) != 0; }

uint32_t FWCounter::Get(const std::string& name) const {
  const auto it = values_.find(name);
  return it == values_.end() ? 0 : it->second;
}

// Unsigned arithmetic: the value wraps modulo 2^32.
void FWCounter::Increment(const std::string& name, uint32_t amount) { values_[name] += amount; }

void FWCounter::Set(const std::string& name, uint32_t value) {
  uint32_t& counter = values_[name];
  counter = 0;
  counter += value;
}

int FWCounter::Clear(const std::string& name) {
  const auto it = values_.find(name);
  if (it == values_.end()) return kUnknownCounter;
  it->second = 0;
  return 0;
}

uint32_t& FWCounter::Reference(const std::string& name) { return values_[name]; }
