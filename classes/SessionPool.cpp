#include "SessionPool.h"

#include <sys/resource.h>
#include <sys/select.h>  // FD_SETSIZE, which sizes the pool

#include <algorithm>
#include <cassert>
#include <iterator>

#include "FWStringUtils.h"

namespace {

// Each session may hold two descriptors: its socket and the file it follows. A session in step
// with the shared feed of its file holds none for the file: the feed holds it once for all of its
// sessions, and the file watches' descriptor comes out of that saving too. Besides the sessions
// and the listeners the daemon holds the three standard descriptors, the log, the worker thread's
// connection, one directory being listed and the root opened for a file.
constexpr int kDescriptorsPerSession = 2;
constexpr int kOtherDescriptors = 3 + 1 + 1 + 1 + 1;

}  // namespace

int SessionPool::GetFixedDescriptors(std::size_t listeners) {
  return kOtherDescriptors + static_cast<int>(listeners);
}

int SessionPool::GetFullPoolSize(std::size_t listeners) {
  return std::max(0, (FD_SETSIZE - GetFixedDescriptors(listeners)) / kDescriptorsPerSession);
}

int SessionPool::GetPoolSize(std::size_t listeners) {
  rlimit current{};
  if (::getrlimit(RLIMIT_NOFILE, &current) != 0 || current.rlim_cur >= FD_SETSIZE) {
    return GetFullPoolSize(listeners);
  }
  const long room = static_cast<long>(current.rlim_cur) - GetFixedDescriptors(listeners);
  return static_cast<int>(std::max<long>(0, room / kDescriptorsPerSession));
}

std::string SessionPool::FitDescriptorLimit(std::size_t listeners) {
  const auto wanted = static_cast<rlim_t>(GetFixedDescriptors(listeners) +
                                          kDescriptorsPerSession * GetFullPoolSize(listeners));
  rlimit current{};
  if (::getrlimit(RLIMIT_NOFILE, &current) != 0 || current.rlim_cur >= wanted) return "";
  const rlim_t before = current.rlim_cur;
  rlimit raised = current;
  raised.rlim_cur = std::min(wanted, current.rlim_max);
  if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) raised.rlim_cur = before;
  if (raised.rlim_cur >= wanted) {
    return FWStringUtils::Printf("descriptor limit raised from %lu to %lu",
                                 static_cast<unsigned long>(before),
                                 static_cast<unsigned long>(raised.rlim_cur));
  }
  return FWStringUtils::Printf(
      "descriptor limit %lu (hard limit %lu) holds only %d sessions; raise it to %lu for all %d",
      static_cast<unsigned long>(raised.rlim_cur), static_cast<unsigned long>(current.rlim_max),
      GetPoolSize(listeners), static_cast<unsigned long>(wanted), GetFullPoolSize(listeners));
}

void SessionPool::Fill(int size) {
  used_.clear();
  free_.clear();
  for (int number = 0; number < size; ++number) {
    free_.insert(free_.end(), static_cast<unsigned int>(number));
  }
}

unsigned int SessionPool::Take(End end) {
  assert(HasFree() && "a session number is taken only while one is free");
  const auto it = end == End::kTop ? std::prev(free_.end()) : free_.begin();
  const unsigned int number = *it;
  free_.erase(it);
  used_.insert(number);
  return number;
}

void SessionPool::Give(unsigned int number) {
  used_.erase(number);
  free_.insert(number);
}
