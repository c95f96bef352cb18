// What the running daemon lends each session it opens: the login brake that all feed sessions
// share and the clock of the loop's current pass, and the shared feeds of the followed files.
// These are run-time parts, not configuration: the loop owns them and hands a context to every
// port's SessionOpen, which passes it on to SessionCreate.
#ifndef NORVANE_CLASSES_SESSIONCONTEXT_H_
#define NORVANE_CLASSES_SESSIONCONTEXT_H_

#include <ctime>

#include "LoginGuard.h"

class LogFeeds;

// A value of two plain pointers, copied into each session. The loop owns what they point to and
// outlives every session it opened. The default context (both null) is that of a session outside
// the daemon's loop: no brake, time() as clock, and each session reads its file on its own.
struct SessionContext {
  // The brake on password guessing and the pass clock; null for none. Not owned.
  LoginGuard* login_guard = nullptr;
  // The shared feeds; null when each session reads its file alone. Not owned.
  LogFeeds* log_feeds = nullptr;

  // The time of the loop's current pass; time() without a guard.
  std::time_t Now() const {
    return login_guard != nullptr ? login_guard->Now() : std::time(nullptr);
  }
};

#endif  // NORVANE_CLASSES_SESSIONCONTEXT_H_
