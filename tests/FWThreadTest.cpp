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

using Codes = std::vector<int32_t>;

// Records every notification with the thread it arrived on; safe to use from several threads.
// With park set, it suspends that thread from inside a failure notification, as the service does.
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
    {
      std::lock_guard<std::mutex> lock(mutex_);
      entries_.push_back({notification.GetRawText(), notification.GetCode(),
                          notification.GetSeverity(), sender, pthread_self()});
    }
    if (park != nullptr && notification.GetSeverity() != FWThread::kAnnouncementSeverity) {
      park->Suspend();
    }
  }
  std::vector<Entry> Entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  Codes GetCodes() const {
    Codes codes;
    for (const Entry& entry : Entries()) codes.push_back(entry.code);
    return codes;
  }

  FWThread* park = nullptr;

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

// A worker that does one of several things, each bounded or ended by Kill.
class TestThread : public FWThread {
 public:
  enum class Mode { kHandshake, kSleep, kSuspend, kPoll, kThrowFramework, kThrowOther };
  explicit TestThread(Mode mode) : mode_(mode) {}
  ~TestThread() override { Kill(); }
  int value() const { return value_; }  // only while the thread is suspended
  bool passed() const { return passed_; }
  void Release() { released_ = true; }
  std::atomic<bool> entered{false};

 protected:
  int32_t ThreadMain() override {
    entered = true;
    switch (mode_) {
      case Mode::kHandshake:  // hands three values over, then returns 7
        for (value_ = 10; value_ <= 30; value_ += 10) Suspend();
        return 7;
      case Mode::kSleep:
        Sleep(30000);
        break;
      case Mode::kSuspend:
        Suspend();
        break;
      case Mode::kPoll:  // until released, at most about 10 s
        for (int i = 0; i < 2000 && !released_; ++i) Sleep(5);
        return 9;
      case Mode::kThrowFramework:
        throw FWEProtocolError(FW_HERE, "bad frame");
      case Mode::kThrowOther:
        throw 42;
    }
    passed_ = true;
    return 5;
  }

 private:
  const Mode mode_;
  int value_ = 0;  // written by the worker before it suspends, read by the test meanwhile
  std::atomic<bool> passed_{false};
  std::atomic<bool> released_{false};
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

class FWThreadTest : public ::testing::Test {
 protected:
  using Mode = TestThread::Mode;
  const Codes kRunKill = {FWThread::kAnnounceRun, FWThread::kAnnounceKill};

  void Start(FWThread& thread, Recorder* recorder = nullptr) {
    thread.Attach(recorder != nullptr ? recorder : &recorder_);
    thread.Run();
  }
  static void WaitFinished(const FWThread& thread) {
    ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsFinished(); }));
  }
  // The text of the FWEAssertionFailed that call throws.
  static std::string AssertionText(const std::function<void()>& call) {
    try {
      call();
    } catch (const FWEAssertionFailed& e) {
      return e.GetText();
    }
    return "no assertion";
  }
  // "text|code|severity" of the one failure that followed kAnnounceRun, received on the worker.
  static std::string Failure(const Recorder& recorder) {
    const std::vector<Recorder::Entry> entries = recorder.Entries();
    if (entries.size() != 2u) return "entries: " + std::to_string(entries.size());
    const Recorder::Entry& entry = entries[1];
    EXPECT_FALSE(pthread_equal(entry.receiver, pthread_self()));
    return entry.text + "|" + std::to_string(entry.code) + "|" + std::to_string(entry.severity);
  }

  Recorder recorder_;
};

TEST_F(FWThreadTest, SuspendResumeHandshakeHandsOverEachValue) {
  TestThread thread(Mode::kHandshake);
  Start(thread);
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsSuspended(); })) << "round " << i;
    EXPECT_EQ(i * 10, thread.value());
    EXPECT_FALSE(thread.IsFinished());
    thread.Resume();
  }
  WaitFinished(thread);
  EXPECT_FALSE(thread.IsSuspended());
  EXPECT_EQ(7, thread.Wait());
  EXPECT_EQ(7, thread.GetResult());
}

TEST_F(FWThreadTest, BaseThreadAnnouncesRunMainAndWaitEachOnItsOwnThread) {
  FWThread thread;
  EXPECT_FALSE(thread.IsStarted());
  Start(thread);
  EXPECT_TRUE(thread.IsStarted());
  WaitFinished(thread);
  EXPECT_EQ(0, thread.Wait());
  EXPECT_TRUE(thread.IsStarted());
  const Codes expected = {FWThread::kAnnounceRun, FWThread::kAnnounceMain, FWThread::kAnnounceWait};
  ASSERT_EQ(expected, recorder_.GetCodes());
  const std::vector<Recorder::Entry> entries = recorder_.Entries();
  for (const Recorder::Entry& entry : entries) {
    EXPECT_EQ("", entry.text) << entry.code;
    EXPECT_EQ(FWThread::kAnnouncementSeverity, entry.severity) << entry.code;
    EXPECT_EQ(&thread, entry.sender);
  }
  EXPECT_TRUE(pthread_equal(entries[0].receiver, pthread_self()));
  EXPECT_FALSE(pthread_equal(entries[1].receiver, pthread_self()));
  EXPECT_TRUE(pthread_equal(entries[2].receiver, pthread_self()));
}

TEST_F(FWThreadTest, KillEndsThreadBlockedInSleepOrSuspendAndReleasesTheLock) {
  for (const Mode mode : {Mode::kSleep, Mode::kSuspend}) {
    Recorder recorder;
    TestThread thread(mode);
    Start(thread, &recorder);
    ASSERT_TRUE(testutil::WaitUntil(
        [&] { return mode == Mode::kSleep ? thread.entered.load() : thread.IsSuspended(); }));
    bool finished = false;
    bool suspended = true;
    // The queries take the lock that a cancelled suspended thread held inside its wait.
    RunBounded(
        [&] {
          thread.Kill();
          finished = thread.IsFinished();
          suspended = thread.IsSuspended();
        },
        "Kill of a blocked thread");
    EXPECT_TRUE(finished);
    EXPECT_FALSE(suspended);
    EXPECT_TRUE(thread.IsStarted());
    EXPECT_FALSE(thread.passed());
    EXPECT_EQ(-1, thread.GetResult());
    EXPECT_EQ(kRunKill, recorder.GetCodes());
    EXPECT_EQ(-1, thread.Wait());
  }
}

TEST_F(FWThreadTest, DestructorAndClearKillRunningThread) {
  RunBounded(
      [&] {
        TestThread thread(Mode::kSleep);
        Start(thread);
        testutil::WaitUntil([&] { return thread.entered.load(); });
      },
      "Destruction of a running thread");
  EXPECT_EQ(kRunKill, recorder_.GetCodes());
  TestThread thread(Mode::kSleep);
  Start(thread);
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.entered.load(); }));
  RunBounded([&] { thread.Clear(); }, "Clear of a sleeping thread");
  EXPECT_FALSE(thread.IsStarted());
  EXPECT_FALSE(thread.IsFinished());
  EXPECT_EQ(-1, thread.GetResult());
  EXPECT_EQ((Codes{2, 3, 2, 3}), recorder_.GetCodes());  // run and kill, twice
}

TEST_F(FWThreadTest, OperationsWithoutRunningThreadDoNothingAndSendNothing) {
  FWThread thread;
  thread.Attach(&recorder_);
  thread.Kill();
  thread.Resume();
  thread.Suspend();
  EXPECT_FALSE(thread.IsStarted());
  EXPECT_FALSE(thread.IsFinished());
  EXPECT_FALSE(thread.IsSuspended());
  EXPECT_EQ(0, thread.GetResult());
  EXPECT_TRUE(recorder_.GetCodes().empty());
}

TEST_F(FWThreadTest, SuspendFromAnotherThreadAndSecondRunThrowAssertions) {
  TestThread thread(Mode::kPoll);
  Start(thread);
  EXPECT_EQ("Assertion Failed (Thread == 0)", AssertionText([&] { thread.Run(); }));
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.entered.load(); }));
  EXPECT_EQ("Assertion Failed (Thread == pthread_self())",
            AssertionText([&] { thread.Suspend(); }));
  thread.Resume();  // not suspended: nothing happens
  EXPECT_FALSE(thread.IsSuspended());
  thread.Release();
  WaitFinished(thread);
  EXPECT_EQ(9, thread.Wait());
  EXPECT_EQ((Codes{FWThread::kAnnounceRun, FWThread::kAnnounceWait}), recorder_.GetCodes());
}

TEST_F(FWThreadTest, EscapingExceptionsReachSubscribersFromTheWorker) {
  TestThread framework(Mode::kThrowFramework);
  Start(framework);
  WaitFinished(framework);
  EXPECT_EQ("protocol error: bad frame|10012|3", Failure(recorder_));
  EXPECT_EQ(-1, framework.Wait());
  Recorder recorder;
  TestThread other(Mode::kThrowOther);
  Start(other, &recorder);
  WaitFinished(other);
  EXPECT_EQ("execute operation failed (unhandled exception)|10014|3", Failure(recorder));
}

TEST_F(FWThreadTest, ExceptionIsReportedWhileThreadStillCountsAsRunning) {
  TestThread thread(Mode::kThrowFramework);
  recorder_.park = &thread;
  Start(thread);
  ASSERT_TRUE(testutil::WaitUntil([&] { return thread.IsSuspended(); }));
  EXPECT_EQ("protocol error: bad frame", recorder_.Entries().back().text);
  EXPECT_FALSE(thread.IsFinished());
  thread.Resume();
  WaitFinished(thread);
  EXPECT_EQ(-1, thread.Wait());
}

TEST_F(FWThreadTest, ClearReturnsToNotStartedAndThreadRunsAgain) {
  FWThread thread;
  Start(thread);
  WaitFinished(thread);
  thread.Clear();
  EXPECT_FALSE(thread.IsStarted());
  EXPECT_FALSE(thread.IsFinished());
  thread.Run();
  WaitFinished(thread);
  thread.Run();  // a thread that finished by itself is joined first
  WaitFinished(thread);
  EXPECT_EQ(0, thread.Wait());
  EXPECT_EQ((Codes{2, 0, 2, 0, 2, 0, 1}), recorder_.GetCodes());
}

TEST_F(FWThreadTest, SleepLastsAtLeastTheGivenMilliseconds) {
  for (const unsigned long ms : {250ul, 1005ul}) {
    const auto start = std::chrono::steady_clock::now();
    FWThread::Sleep(ms);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(ms)) << ms;
  }
}

}  // namespace
