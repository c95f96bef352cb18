#include "TestPorts.h"

#include "FWException.h"

namespace testutil {

TestSession::TestSession(int number, ProxyPort* port, bool relay)
    : ProxySession(number, port), relay_(relay) {}

void TestSession::Open(int listening) {
  OpenIncoming(listening);
  SetOpen(true);
  if (relay_) OpenOutgoing(GetPort()->GetOutgoingServer(), GetPort()->GetOutgoingPort());
}

void TestSession::QueueOutgoing(const std::string& data) {
  if (data == "boom") throw FWEProtocolError(FW_HERE, "boom");
  if (relay_) {
    AppendOutgoing(data);
    return;
  }
  seen_quit_ = seen_quit_ || data.find("quit") != std::string::npos;
  AppendIncoming(data);
}

ProxySession* LoopPort::SessionCreate(int number, const SessionContext& /*context*/) {
  return new TestSession(number, this, relay_);
}

bool PassUntil(const std::function<void()>& pass, const std::function<bool()>& pred) {
  return WaitUntil(
      [&] {
        if (pred()) return true;
        pass();
        return pred();
      },
      seconds(10));
}

bool PassUntilReceived(const std::function<void()>& pass, FeedPeer& peer, const std::string& data,
                       bool closed) {
  std::string received;
  return PassUntil(pass, [&] {
    received += peer.ReceiveRaw(65536, milliseconds(0));
    return received == data && (!closed || peer.Closed());
  });
}

std::set<unsigned int> NumbersOf(const ProxyPort* port) {
  std::set<unsigned int> numbers;
  for (const auto& session : port->GetSessions()) numbers.insert(session->GetNumber());
  return numbers;
}

}  // namespace testutil
