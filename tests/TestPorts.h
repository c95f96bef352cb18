// A port and session of the forwarding frame for tests of the loop and of the session itself:
// the session echoes or relays what it receives, and fails on demand.
#ifndef NORVANE_TESTS_TESTPORTS_H_
#define NORVANE_TESTS_TESTPORTS_H_

#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "ProxyPort.h"
#include "ProxySession.h"
#include "SessionContext.h"
#include "TestUtil.h"

namespace testutil {

// Echoes what the client sends and is finished once that held "quit"; "boom" throws
// FWEProtocolError. With relay it passes each side's data to the other, finished once the port's
// outgoing server has closed. The context is not used.
class TestSession final : public ProxySession {
 public:
  TestSession(int number, ProxyPort* port, bool relay);

  void Open(int listening) override;
  void CheckActive() override {}
  std::size_t GetMemoryRequired() const override { return 0; }
  bool ReadyToReceiveIncoming() override { return true; }
  bool ReadyToReceiveOutgoing() override { return true; }
  bool Finished() override { return relay_ ? IsOutgoingClosed() : seen_quit_; }
  void QueueIncoming(const std::string& data, bool) override { AppendIncoming(data); }
  void QueueOutgoing(const std::string& data) override;

 private:
  const bool relay_;
  bool seen_quit_ = false;
};

// A port whose sessions are TestSessions (relaying ones with relay).
class LoopPort final : public ProxyPort {
 public:
  explicit LoopPort(bool relay = false) : relay_(relay) {}

  LoopPort* New() const override { return new LoopPort(relay_); }
  LoopPort* Clone() const override { return new LoopPort(*this); }
  ProxySession* SessionCreate(int number, const SessionContext& context) override;

 private:
  const bool relay_;
};

// Runs pass() until pred holds, for at most 10 s.
bool PassUntil(const std::function<void()>& pass, const std::function<bool()>& pred);
// Passes until the peer has received exactly data (and, with closed, seen the end).
bool PassUntilReceived(const std::function<void()>& pass, FeedPeer& peer, const std::string& data,
                       bool closed = false);
// The numbers of the port's sessions.
std::set<unsigned int> NumbersOf(const ProxyPort* port);

}  // namespace testutil

#endif  // NORVANE_TESTS_TESTPORTS_H_
