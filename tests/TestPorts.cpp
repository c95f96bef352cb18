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

}  // namespace testutil
