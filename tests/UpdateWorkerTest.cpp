// The worker thread: the update check off the loop, a refused second start, and the hand-over of
// what the check found to the main thread, which logs it.
#include "UpdateWorker.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FWLogStream.h"
#include "FWProduct.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;
using testutil::FeedPeer;
using Lines = std::vector<std::string>;

constexpr milliseconds kWait{10000};

class UpdateWorkerTest : public ::testing::Test {
 protected:
  void SetUp() override { LogStream.SetOptions(0); }

  // Checks the worker, as each pass of the loop does, until the worker is gone.
  bool CheckUntilGone() {
    return testutil::WaitUntil(
        [&] {
          worker_.Check();
          return worker_.GetThread() == nullptr;
        },
        kWait);
  }
  Lines LinesStartingWith(const std::string& start) const {
    Lines lines = log_.Lines();
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(start); });
    return lines;
  }

  testutil::LogCapture log_;
  UpdateWorker worker_;
};

// The check runs on the worker thread, and a second start is refused meanwhile; what a check
// finds, a newer version or a failure, is logged once (FWSupportTest covers the findings).
TEST_F(UpdateWorkerTest, RefusesASecondThreadAndLogsEachFindingOnce) {
  FeedPeer server;  // plays the web server; a second check waits in its backlog, unanswered
  const std::string address = "127.0.0.1:" + std::to_string(server.Port());
  worker_.SetUpdateCheck("http://" + address + "/", kWait);
  worker_.Start();
  ASSERT_TRUE(server.Accept());  // the check has connected, so the thread has set its prefix
  worker_.Start();
  const std::string request = "GET / HTTP/1.0\r\nHost: " + address + "\r\nUser-Agent: Norvane/" +
                              FWProduct::GetVersion() + "\r\n\r\n";
  EXPECT_EQ(server.ReceiveRaw(request.size()), request);
  server.SendRaw("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n99.0.1\n");
  server.Close();
  ASSERT_TRUE(CheckUntilGone());
  worker_.SetUpdateCheck("http://" + address + "/", milliseconds(1500));
  worker_.Start();
  worker_.Stop();  // waits for the check to give up
  EXPECT_EQ(worker_.GetThread(), nullptr);
  EXPECT_EQ(
      LinesStartingWith("Update check: "),
      (Lines{"Update check: Start thread operation failed (thread is still running)",
             "Update check: Version 99.0.1 is available (running " + FWProduct::GetVersion() + ")",
             "Update check: No answer from " + address + " within 1500 ms"}));
}

}  // namespace
