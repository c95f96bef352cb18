// The session numbers of the running daemon and how many there may be. Every live session holds
// a number of its own, the "%d" of its log prefix; when the loop reaps the session the number goes
// back. The size of the pool bounds the descriptors the daemon holds: the descriptor policy below
// decides it from the number of listening ports and the process's descriptor limit.
#ifndef NORVANE_CLASSES_SESSIONPOOL_H_
#define NORVANE_CLASSES_SESSIONPOOL_H_

#include <cstddef>
#include <set>
#include <string>

// Main thread only.
class SessionPool final {
 public:
  // Which end of the free numbers a session takes: monitoring sessions take the largest free
  // number, all others the smallest.
  enum class End { kBottom, kTop };

  // Descriptors the daemon holds besides its sessions: the three standard ones, the log, the
  // listening sockets, the worker thread's connection, one directory being listed and the root
  // opened for a file.
  static int GetFixedDescriptors(std::size_t listeners);
  // The pool under the 1024-descriptor bound alone: two descriptors per session (its socket and
  // the file it follows, or its two sockets) besides the fixed ones. The pool keeps the size one
  // select set once gave it; the loop itself polls any descriptor number.
  static int GetFullPoolSize(std::size_t listeners);
  // The full pool, or fewer sessions when the soft descriptor limit (RLIMIT_NOFILE) is below
  // 1024 and holds fewer.
  static int GetPoolSize(std::size_t listeners);
  // Raises the soft descriptor limit to what the full pool needs, as far as the hard limit allows.
  // Returns what it did for the start-up messages: "" when the limit was enough, else the raise
  // ("descriptor limit raised from 200 to 1024") or, when the hard limit is too low, the smaller
  // pool. Call before the pool is filled.
  static std::string FitDescriptorLimit(std::size_t listeners);

  // Forgets every number in use and frees the numbers 0 to size - 1 (none for a size below 1).
  void Fill(int size);
  bool HasFree() const { return !free_.empty(); }
  // True when no number is in use.
  bool IsIdle() const { return used_.empty(); }
  // Moves the free number at the given end to the numbers in use and returns it. Only while
  // HasFree().
  unsigned int Take(End end);
  // Returns a number in use to the free numbers.
  void Give(unsigned int number);

  const std::set<unsigned int>& GetFree() const { return free_; }
  const std::set<unsigned int>& GetUsed() const { return used_; }

 private:
  std::set<unsigned int> free_;
  std::set<unsigned int> used_;
};

#endif  // NORVANE_CLASSES_SESSIONPOOL_H_
