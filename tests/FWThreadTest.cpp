#include "FWThread.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "FWException.h"
#include "FWPublishSubscribe.h"
#include "TestUtil.h"

namespace {

using std::chrono::milliseconds;

// Records every notification with the thread it arrived on; safe to use from several threads.
class Recorder : public FWSubscriber {
 public:
  struct Entry {
    std::string text;
    int32_t code;
    int32_t severity;
    FWPublisher* sender;
    pthread_t receiver;
  };

  void NotificationReceive(const FWNotification& notification, FWPublisher* sender) override {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back({notification.GetRawText(), notification.GetCode(),
                        notification.GetSeverity(), sender, pthread_self()});
    OnReceive(notification);
  }

  std::vector<Entry> Entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

  std::vector<int32_t> Codes() const {
    std::vector<int32_t> codes;
    for (const Entry& entry : Entries()) codes.push_back(entry.code);
    return codes;
  }

 protected:
  virtual void OnReceive(const FWNotification&) {}

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Runs fn on a helper thread and waits for it at most 10 seconds. A thread operation that hangs
// cannot be recovered (the object would be destroyed under it), so a timeout ends the process.
void RunBounded(const std::function<void()>& fn, const char* what) {
  std::atomic<bool> done{false};
  std::thread helper([&] {
    fn();
    done = true;
  });
  if (!testutil::WaitUntil([&] { return done.load(); })) {
    std::fprintf(stderr, "%s did not return within 10 s\n", what);
    std::abort();
  }
  helper.join();
}

// Hands three values over through the suspend/resume handshake, then returns 7.
class HandshakeThread : public FWThread {
 public:
  ~HandshakeThread() override { Kill(); }
  int value() const { return value_; }  // only while the thread is suspended

 protected:
  int32_t ThreadMain() override {
    for (int i = 1; i <= 3; ++i) {
      value_ = i * 10;
      Suspend();
    }
    return 7;
  }

 private:
  int value_ = 0;  // written by the worker before it suspends, read by the test meanwhile
};

// Blocks in a long Sleep or in Suspend; records whether it ever got past it.
class BlockingThread : public FWThread {
 public:
  explicit BlockingThread(bool suspend) : suspend_(suspend) {}
  ~BlockingThread() override { Kill(); }
  bool entered() const { return entered_; }
  bool passed() const { return passed_; }

 protected:
  int32_t ThreadMain() override {
    entered_ = true;
    if (suspend_) {
      Suspend();
    } else {
      Sleep(30000);
    }
    passed_ = true;
    return 5;
  }

 private:
  const bool suspend_;
  std::atomic<bool> entered_{false};
  std::atomic<bool> passed_{false};
};

// Polls until released (at most about 10 s), then returns 9.
class PollingThread : public FWThread {
 public:
  ~PollingThread() override { Kill(); }
  void Release() { released_ = true; }
  std::atomic<bool> entered{false};

 protected:
  int32_t ThreadMain() override {
    entered = true;
    for (int i = 0; i < 2000 && !released_; ++i) Sleep(5);
    return 9;
  }

 private:
  std::atomic<bool> released_{false};
};

// Throws a framework exception, or something else.
class ThrowingThread : public FWThread {
 public:
  explicit ThrowingThread(bool framework) : framework_(framework) {}
  ~ThrowingThread() override { Kill(); }

 protected:
  int32_t ThreadMain() override {
    if (framework_) throw FWEProtocolError(FW_HERE, "bad frame");
    throw 42;
  }

 private:
  const bool framework_;
};

bool IsAnnouncement(const Recorder::Entry& entry) {
  return entry.text.empty() && entry.severity == FWThread::kAnnouncementSeverity;
}

TEST(FWThreadTest, SuspendResumeHandshakeHandsOverEachValue) {
  HandshakeThread thread;
  thread.Run();
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsSuspended(); })) << "round " << i;
    EXPECT_EQ(i * 10, thread.value());
    EXPECT_FALSE(thread.IsFinished());
    EXPECT_TRUE(thread.IsSuspended());
    thread.Resume();
  }
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  EXPECT_FALSE(thread.IsSuspended());
  EXPECT_EQ(7, thread.Wait());
  EXPECT_EQ(7, thread.GetResult());
}

TEST(FWThreadTest, BaseThreadAnnouncesRunMainAndWaitInOrder) {
  Recorder recorder;
  FWThread thread;
  thread.Attach(&recorder);
  EXPECT_FALSE(thread.IsStarted());
  thread.Run();
  EXPECT_TRUE(thread.IsStarted());
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  EXPECT_EQ(0, thread.Wait());
  EXPECT_TRUE(thread.IsStarted());
  const std::vector<int32_t> expected = {FWThread::kAnnounceRun, FWThread::kAnnounceMain,
                                         FWThread::kAnnounceWait};
  ASSERT_EQ(expected, recorder.Codes());
  const std::vector<Recorder::Entry> entries = recorder.Entries();
  for (const Recorder::Entry& entry : entries) {
    EXPECT_TRUE(IsAnnouncement(entry)) << entry.code;
    EXPECT_EQ(&thread, entry.sender);
  }
  EXPECT_TRUE(pthread_equal(entries[0].receiver, pthread_self()));
  EXPECT_FALSE(pthread_equal(entries[1].receiver, pthread_self()));
  EXPECT_TRUE(pthread_equal(entries[2].receiver, pthread_self()));
}

TEST(FWThreadTest, KillEndsThreadBlockedInSleep) {
  Recorder recorder;
  BlockingThread thread(false);
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.entered(); }));
  RunBounded([&] { thread.Kill(); }, "Kill of a sleeping thread");
  EXPECT_TRUE(thread.IsFinished());
  EXPECT_TRUE(thread.IsStarted());
  EXPECT_EQ(-1, thread.GetResult());
  EXPECT_FALSE(thread.passed());
  const std::vector<int32_t> expected = {FWThread::kAnnounceRun, FWThread::kAnnounceKill};
  EXPECT_EQ(expected, recorder.Codes());
  EXPECT_EQ(-1, thread.Wait());
}

TEST(FWThreadTest, KillEndsSuspendedThreadAndReleasesTheLock) {
  Recorder recorder;
  BlockingThread thread(true);
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsSuspended(); }));
  bool finished = false;
  bool suspended = true;
  // The queries take the lock that the cancelled thread held inside its wait.
  RunBounded(
      [&] {
        thread.Kill();
        finished = thread.IsFinished();
        suspended = thread.IsSuspended();
      },
      "Kill of a suspended thread");
  EXPECT_TRUE(finished);
  EXPECT_FALSE(suspended);
  EXPECT_EQ(-1, thread.GetResult());
  EXPECT_FALSE(thread.passed());
  const std::vector<int32_t> expected = {FWThread::kAnnounceRun, FWThread::kAnnounceKill};
  EXPECT_EQ(expected, recorder.Codes());
}

TEST(FWThreadTest, DestructorKillsRunningThread) {
  Recorder recorder;
  RunBounded(
      [&] {
        BlockingThread thread(false);
        thread.Attach(&recorder);
        thread.Run();
        testutil::WaitUntil([&] { return thread.entered(); });
      },
      "Destruction of a running thread");
  const std::vector<int32_t> expected = {FWThread::kAnnounceRun, FWThread::kAnnounceKill};
  EXPECT_EQ(expected, recorder.Codes());
}

TEST(FWThreadTest, OperationsWithoutRunningThreadDoNothingAndSendNothing) {
  Recorder recorder;
  FWThread thread;
  thread.Attach(&recorder);
  thread.Kill();
  thread.Resume();
  thread.Suspend();
  EXPECT_FALSE(thread.IsStarted());
  EXPECT_FALSE(thread.IsFinished());
  EXPECT_FALSE(thread.IsSuspended());
  EXPECT_EQ(0, thread.GetResult());
  EXPECT_TRUE(recorder.Codes().empty());
}

TEST(FWThreadTest, SuspendFromAnotherThreadThrowsAssertion) {
  Recorder recorder;
  PollingThread thread;
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.entered.load(); }));
  try {
    thread.Suspend();
    ADD_FAILURE() << "Suspend from another thread did not throw";
  } catch (const FWEAssertionFailed& e) {
    EXPECT_EQ("Assertion Failed (Thread == pthread_self())", e.GetText());
  }
  thread.Resume();  // not suspended: nothing happens
  EXPECT_FALSE(thread.IsSuspended());
  thread.Release();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  EXPECT_EQ(9, thread.Wait());
  const std::vector<int32_t> expected = {FWThread::kAnnounceRun, FWThread::kAnnounceWait};
  EXPECT_EQ(expected, recorder.Codes());
}

TEST(FWThreadTest, RunWhileThreadRunsThrowsAndSendsNothing) {
  Recorder recorder;
  PollingThread thread;
  thread.Attach(&recorder);
  thread.Run();
  try {
    thread.Run();
    ADD_FAILURE() << "second Run did not throw";
  } catch (const FWEAssertionFailed& e) {
    EXPECT_EQ("Assertion Failed (Thread == 0)", e.GetText());
  }
  thread.Release();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  EXPECT_EQ(std::vector<int32_t>{FWThread::kAnnounceRun}, recorder.Codes());
}

TEST(FWThreadTest, FrameworkExceptionReachesSubscribersAsItsNotification) {
  Recorder recorder;
  ThrowingThread thread(true);
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  const std::vector<Recorder::Entry> entries = recorder.Entries();
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("protocol error: bad frame", entries[1].text);
  EXPECT_EQ(10012, entries[1].code);
  EXPECT_EQ(3, entries[1].severity);
  EXPECT_FALSE(pthread_equal(entries[1].receiver, pthread_self()));
  EXPECT_EQ(-1, thread.Wait());
}

TEST(FWThreadTest, OtherExceptionReachesSubscribersAsExecuteFailure) {
  Recorder recorder;
  ThrowingThread thread(false);
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  const std::vector<Recorder::Entry> entries = recorder.Entries();
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("execute operation failed (unhandled exception)", entries[1].text);
  EXPECT_EQ(10014, entries[1].code);
}

// The service's pattern: the subscriber parks the worker from inside NotificationReceive, and the
// controlling thread reads the message while it is parked.
class SuspendingRecorder : public Recorder {
 public:
  FWThread* thread = nullptr;
  std::string message;  // written on the worker before it suspends

 protected:
  void OnReceive(const FWNotification& notification) override {
    if (notification.GetSeverity() == FWThread::kAnnouncementSeverity) return;
    message = notification.GetRawText();
    thread->Suspend();
  }
};

TEST(FWThreadTest, ExceptionIsReportedWhileThreadStillCountsAsRunning) {
  SuspendingRecorder recorder;
  ThrowingThread thread(true);
  recorder.thread = &thread;
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsSuspended(); }));
  EXPECT_EQ("protocol error: bad frame", recorder.message);
  EXPECT_FALSE(thread.IsFinished());
  thread.Resume();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  EXPECT_EQ(-1, thread.Wait());
}

TEST(FWThreadTest, ClearReturnsToNotStartedAndThreadRunsAgain) {
  Recorder recorder;
  FWThread thread;
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  thread.Clear();
  EXPECT_FALSE(thread.IsStarted());
  EXPECT_FALSE(thread.IsFinished());
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  thread.Run();  // a thread that finished by itself is joined first
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  EXPECT_EQ(0, thread.Wait());
  const std::vector<int32_t> expected = {2, 0, 2, 0, 2, 0, 1};
  EXPECT_EQ(expected, recorder.Codes());
}

TEST(FWThreadTest, ClearKillsRunningThread) {
  Recorder recorder;
  BlockingThread thread(false);
  thread.Attach(&recorder);
  thread.Run();
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.entered(); }));
  RunBounded([&] { thread.Clear(); }, "Clear of a sleeping thread");
  EXPECT_FALSE(thread.IsStarted());
  EXPECT_FALSE(thread.IsFinished());
  EXPECT_EQ(-1, thread.GetResult());
  const std::vector<int32_t> expected = {FWThread::kAnnounceRun, FWThread::kAnnounceKill};
  EXPECT_EQ(expected, recorder.Codes());
}

TEST(FWThreadTest, SleepLastsAtLeastTheGivenMilliseconds) {
  for (const unsigned long ms : {250ul, 1005ul}) {
    const auto start = std::chrono::steady_clock::now();
    FWThread::Sleep(ms);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(ms)) << ms;
  }
}

}  // namespace
