// Tests of Zel::Timer. Timing checks assert order and counts with wide
// margins: an invocation is never more than the 1 ms wait truncation early,
// and lateness is only bounded where the behaviour cannot be told apart
// otherwise. Aborting checks run as death tests.
#include <zel/Timer.h>

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/Fakes.h"

// pthread_create is replaced for this test program so that one test can make
// thread creation fail; only the thread that arms the failure is affected,
// every other call goes to the real function.
namespace {
thread_local bool tFailThreadCreation = false;
typedef int (*PthreadCreateFunction)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                              void* argument) noexcept {
  static PthreadCreateFunction real = reinterpret_cast<PthreadCreateFunction>(dlsym(RTLD_NEXT, "pthread_create"));
  if (tFailThreadCreation) return EAGAIN;
  return real(thread, attributes, routine, argument);
}

namespace {

const long kEarlySlackUs = 2000;  // the wait is truncated to whole milliseconds

long nowUs() { return Zel::Clock().value(); }

void sleepMs(long milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

// Threads of this process.
int threadCount() {
  int count = 0;
  DIR* directory = opendir("/proc/self/task");
  if (directory == nullptr) return -1;
  while (struct dirent* entry = readdir(directory))
    if (entry->d_name[0] != '.') ++count;
  closedir(directory);
  return count;
}

// Threads of this process before a test starts a timer. One thread is started
// and joined first, so helper threads that a runtime starts along with the
// first thread of the process (a sanitizer's, say) are already counted.
// A joined thread can still be listed in /proc for a moment after
// pthread_join returns (the kernel finishes its exit after waking the
// joiner), so the count is read once it has stopped changing.
int threadsBeforeTimer() {
  static const bool warmedUp = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)warmedUp;
  int count = threadCount();
  for (int stableReads = 0, tries = 0; stableReads < 5 && tries < 500; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const int now = threadCount();
    stableReads = now == count ? stableReads + 1 : 0;
    count = now;
  }
  return count;
}

// Waits until the process has `expected` threads again.
bool waitForThreadCount(int expected, long limitMs = 5000) {
  const long end = nowUs() + limitMs * 1000;
  while (threadCount() != expected) {
    if (nowUs() > end) return false;
    sleepMs(2);
  }
  return true;
}

// What the callbacks of one test saw: start and end of every invocation.
class Recorder {
 public:
  // Returns the index of the invocation that begins.
  size_t begin(long startUs) {
    std::lock_guard<std::mutex> guard(_mutex);
    _starts.push_back(startUs);
    _ends.push_back(0);
    return _starts.size() - 1;
  }
  void end(size_t index, long endUs) {
    {
      std::lock_guard<std::mutex> guard(_mutex);
      _ends[index] = endUs;
      ++_finished;
    }
    _changed.notify_all();
  }
  // Waits until `count` invocations have finished.
  bool waitFor(size_t count, long limitMs = 5000) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, std::chrono::milliseconds(limitMs), [&] { return _finished >= count; });
  }
  size_t count() {
    std::lock_guard<std::mutex> guard(_mutex);
    return _starts.size();
  }
  std::vector<long> starts() {
    std::lock_guard<std::mutex> guard(_mutex);
    return _starts;
  }
  std::vector<long> ends() {
    std::lock_guard<std::mutex> guard(_mutex);
    return _ends;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<long> _starts;
  std::vector<long> _ends;
  size_t _finished = 0;
};

std::atomic<int> gLiveCallbacks(0);

// Records each invocation; an optional action runs inside it with the
// invocation's index.
class RecordingCallback : public Zel::AbstractTimerCallback {
 public:
  typedef std::function<void(size_t index, Zel::Timer& timer)> Action;
  explicit RecordingCallback(Recorder* recorder, Action action = Action())
      : _recorder(recorder), _action(std::move(action)) {
    ++gLiveCallbacks;
  }
  RecordingCallback(const RecordingCallback& other)
      : Zel::AbstractTimerCallback(other), _recorder(other._recorder), _action(other._action) {
    ++gLiveCallbacks;
  }
  ~RecordingCallback() override { --gLiveCallbacks; }

  void invoke(Zel::Timer& timer) override {
    const size_t index = _recorder->begin(nowUs());
    struct EndRecord {  // the end is recorded even when the action throws
      Recorder* recorder;
      size_t index;
      ~EndRecord() { recorder->end(index, nowUs()); }
    } endRecord{_recorder, index};
    if (_action) _action(index, timer);
  }
  Zel::AbstractTimerCallback* clone() const override { return new RecordingCallback(*this); }

 private:
  Recorder* _recorder;
  Action _action;
};

// Invocations that started after `afterUs`.
std::vector<long> startsAfter(const std::vector<long>& starts, long afterUs) {
  std::vector<long> later;
  for (long start : starts)
    if (start > afterUs) later.push_back(start);
  return later;
}

TEST(Timer, OneShotWithoutDelayRunsOnceAtOnceAndEndsItsThread) {
  const int threadsBefore = threadsBeforeTimer();
  Recorder recorder;
  Zel::Timer timer(0, 0);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));
  EXPECT_TRUE(waitForThreadCount(threadsBefore)) << "the one-shot thread ends by itself";
  sleepMs(150);
  EXPECT_EQ(1u, recorder.count());
  EXPECT_GE(recorder.starts()[0], started);
  timer.stop();
  EXPECT_EQ(1u, recorder.count());
}

TEST(Timer, OneShotWithDelayWaitsForIt) {
  Recorder recorder;
  Zel::Timer timer(60, 0);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));
  EXPECT_GE(recorder.starts()[0] - started, 60 * 1000 - kEarlySlackUs);
  sleepMs(100);
  EXPECT_EQ(1u, recorder.count());
}

TEST(Timer, PeriodicTimerFiresAfterDelayThenEveryPeriod) {
  Recorder recorder;
  Zel::Timer timer(100, 50);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(4));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  // Due at about 100, 150, 200, 250 ms after start; never early.
  for (size_t k = 0; k < 4; ++k)
    EXPECT_GE(starts[k] - started, static_cast<long>(100 + 50 * k) * 1000 - kEarlySlackUs) << "invocation " << k;
  for (size_t k = 1; k < starts.size(); ++k) EXPECT_LE(starts[k - 1], starts[k]);
}

TEST(Timer, DeadlinesAdvanceByWholePeriodsSoTheScheduleDoesNotDrift) {
  // Each callback takes 20 ms of a 50 ms period; deadlines still stay on the
  // 50 ms grid from the start instead of sliding by 20 ms per invocation.
  Recorder recorder;
  Zel::Timer timer(0, 50);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder, [](size_t, Zel::Timer&) { sleepMs(20); }));
  ASSERT_TRUE(recorder.waitFor(6));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  for (size_t k = 0; k < 6; ++k) EXPECT_GE(starts[k] - started, static_cast<long>(50 * k) * 1000 - kEarlySlackUs);
  // A schedule drifting by the callback time would put the sixth invocation
  // at 5 * 70 = 350 ms; on the grid it is at 250 ms.
  EXPECT_LT(starts[5] - started, 340 * 1000);
}

TEST(Timer, OverrunDeadlinesAreInvokedBackToBackWithoutSkipping) {
  // The first invocation takes 120 ms of a 50 ms period: the deadlines at 50
  // and 100 ms are already due when it ends, and follow at once.
  Recorder recorder;
  Zel::Timer timer(0, 50);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder, [](size_t index, Zel::Timer&) {
    if (index == 0) sleepMs(120);
  }));
  ASSERT_TRUE(recorder.waitFor(6));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  const std::vector<long> ends = recorder.ends();
  for (size_t k = 0; k < 6; ++k)
    EXPECT_GE(starts[k] - started, static_cast<long>(50 * k) * 1000 - kEarlySlackUs) << "invocation " << k;
  // Back to back: no wait between the slow invocation and the two overdue
  // ones (a wait of a period would take 50 ms).
  EXPECT_LT(starts[1] - ends[0], 40 * 1000);
  EXPECT_LT(starts[2] - ends[1], 40 * 1000);
  // None skipped: invocation k belongs to the deadline at 50 * k ms, so the
  // on-time ones that follow come before the next deadline (skipping the two
  // overdue ones would put invocation 3 at 250 ms).
  EXPECT_LT(starts[3] - started, 200 * 1000);
  EXPECT_LT(starts[4] - started, 250 * 1000);
}

TEST(Timer, RestartMovesTheNextInvocationToAPeriodFromNow) {
  Recorder recorder;
  Zel::Timer timer(100, 50);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));  // at about 100 ms
  const long wanted = started + 130 * 1000;
  if (nowUs() < wanted) std::this_thread::sleep_for(std::chrono::microseconds(wanted - nowUs()));
  const long restarted = nowUs();
  const size_t before = recorder.count();
  timer.restart();
  ASSERT_TRUE(recorder.waitFor(before + 2));
  timer.stop();
  // An invocation already under way when restart() is called may start just
  // after it; the next one comes a full period after the restart (about 180
  // ms instead of 150 ms), then the period goes on from there.
  const std::vector<long> later = startsAfter(recorder.starts(), restarted + 5000);
  ASSERT_GE(later.size(), 2u);
  EXPECT_GE(later[0] - restarted, 50 * 1000 - kEarlySlackUs);
  EXPECT_GE(later[1] - restarted, 100 * 1000 - kEarlySlackUs);
  EXPECT_GE(recorder.starts()[0] - started, 100 * 1000 - kEarlySlackUs) << "the start delay was used first";
}

TEST(Timer, RestartWithPeriodChangesThePeriodFromNow) {
  Recorder recorder;
  Zel::Timer timer(0, 50);
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(2));
  const long restarted = nowUs();
  const size_t before = recorder.count();
  timer.restart(200);
  ASSERT_TRUE(recorder.waitFor(before + 3));
  timer.stop();
  const std::vector<long> later = startsAfter(recorder.starts(), restarted + 5000);
  ASSERT_GE(later.size(), 2u);
  EXPECT_GE(later[0] - restarted, 200 * 1000 - kEarlySlackUs);
  EXPECT_GE(later[1] - restarted, 400 * 1000 - kEarlySlackUs);
}

TEST(Timer, RestartWithPeriodOnTimerNeverStartedChangesNothing) {
  Recorder recorder;
  Zel::Timer timer(10, 0);
  timer.restart(20);  // dropped: the timer stays a one-shot
  timer.restart();
  const int threadsBefore = threadsBeforeTimer();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  sleepMs(150);
  EXPECT_EQ(1u, recorder.count());
  timer.stop();
}

TEST(Timer, IntervalsBeyondTheClockRangeWaitForeverWithoutWrapping) {
  // A start delay or period whose microseconds overflow the clock must not
  // wrap into the past (which would fire at once).
  Recorder recorder;
  Zel::Timer farStart(Zel::Clock::CLOCKVAL_MAX, 0);
  farStart.start(RecordingCallback(&recorder));
  Zel::Timer farPeriod(0, 1000);
  farPeriod.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));  // farPeriod's first invocation
  farPeriod.restart(Zel::Clock::CLOCKVAL_MAX / 10);
  sleepMs(100);
  EXPECT_EQ(1u, recorder.count());
  const long before = nowUs();
  farStart.stop();
  farPeriod.stop();
  EXPECT_LT(nowUs() - before, 1000 * 1000) << "stop wakes a timer waiting for a far deadline";
}

TEST(Timer, StopOnTimerNeverStartedReturnsAtOnce) {
  const int threadsBefore = threadsBeforeTimer();
  const int liveBefore = gLiveCallbacks.load();
  Zel::Timer timer(10, 50);
  const long before = nowUs();
  timer.stop();
  timer.stop();
  EXPECT_LT(nowUs() - before, 1000 * 1000);
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  EXPECT_EQ(liveBefore, gLiveCallbacks.load());
}

TEST(Timer, StartAfterStopRunsAsOneShot) {
  const int threadsBefore = threadsBeforeTimer();
  Recorder recorder;
  Zel::Timer timer(10, 50);
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(2)) << "periodic while first started";
  timer.stop();
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  const size_t firstRun = recorder.count();

  const long restarted = nowUs();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(firstRun + 1));
  EXPECT_TRUE(waitForThreadCount(threadsBefore)) << "stop set the period to 0: the thread ends";
  sleepMs(200);
  EXPECT_EQ(firstRun + 1, recorder.count());
  EXPECT_GE(recorder.starts()[firstRun] - restarted, 10 * 1000 - kEarlySlackUs);
  timer.stop();
}

TEST(Timer, StopWaitsForARunningCallbackAndDeletesTheClone) {
  const int liveBefore = gLiveCallbacks.load();
  Recorder recorder;
  Zel::Timer timer(0, 20);
  {
    RecordingCallback callback(&recorder, [](size_t, Zel::Timer&) { sleepMs(50); });
    timer.start(callback);
    EXPECT_EQ(liveBefore + 2, gLiveCallbacks.load()) << "the timer holds a clone";
  }
  ASSERT_TRUE(recorder.waitFor(1));
  timer.stop();
  const size_t count = recorder.count();
  const std::vector<long> ends = recorder.ends();
  EXPECT_NE(0, ends[count - 1]) << "the running callback finished before stop returned";
  EXPECT_EQ(liveBefore, gLiveCallbacks.load());
  sleepMs(100);
  EXPECT_EQ(count, recorder.count());
}

TEST(Timer, DestructorStopsARunningTimer) {
  const int threadsBefore = threadsBeforeTimer();
  const int liveBefore = gLiveCallbacks.load();
  Recorder recorder;
  {
    Zel::Timer timer(0, 10);
    timer.start(RecordingCallback(&recorder));
    ASSERT_TRUE(recorder.waitFor(2));
  }
  EXPECT_EQ(liveBefore, gLiveCallbacks.load());
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  const size_t count = recorder.count();
  sleepMs(60);
  EXPECT_EQ(count, recorder.count());
}

TEST(Timer, RestartOfARunningOneShotEndsItWithoutInvocation) {
  const int threadsBefore = threadsBeforeTimer();
  Recorder recorder;
  Zel::Timer timer(300, 0);
  timer.start(RecordingCallback(&recorder));
  timer.restart();
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  sleepMs(400);
  EXPECT_EQ(0u, recorder.count());
  timer.stop();
}

TEST(Timer, RestartWithZeroEndsAPeriodicTimerWithoutInvocation) {
  const int threadsBefore = threadsBeforeTimer();
  Recorder recorder;
  Zel::Timer timer(0, 30);
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));
  timer.restart(0);
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  const size_t count = recorder.count();
  sleepMs(100);
  EXPECT_EQ(count, recorder.count());
  timer.stop();
}

TEST(Timer, CallbackMayRestartItsOwnTimer) {
  Recorder recorder;
  Zel::Timer timer(0, 20);
  std::atomic<long> restartedAt(0);
  timer.start(RecordingCallback(&recorder, [&restartedAt](size_t index, Zel::Timer& firing) {
    if (index == 0) {
      restartedAt = nowUs();
      firing.restart(80);
    }
  }));
  ASSERT_TRUE(recorder.waitFor(3));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  // The new period counts from the moment the thread wakes, which is after
  // the callback returned; deadlines then stay on that 80 ms grid.
  EXPECT_GE(starts[1] - restartedAt.load(), 80 * 1000 - kEarlySlackUs);
  EXPECT_GE(starts[2] - restartedAt.load(), 160 * 1000 - kEarlySlackUs);
}

// Records what the timer hands to the POCO error handler.
class RecordingErrorHandler : public Poco::ErrorHandler {
 public:
  void exception(const Poco::Exception& exception) override {
    std::lock_guard<std::mutex> guard(_mutex);
    _seen.push_back("poco:" + exception.displayText());
  }
  void exception(const std::exception& exception) override {
    std::lock_guard<std::mutex> guard(_mutex);
    _seen.push_back(std::string("std:") + exception.what());
  }
  void exception() override {
    std::lock_guard<std::mutex> guard(_mutex);
    _seen.push_back("other");
  }
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> guard(_mutex);
    return _seen;
  }

 private:
  std::mutex _mutex;
  std::vector<std::string> _seen;
};

// Installs a handler for one test and puts the previous one back.
class TimerErrorHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { _previous = Poco::ErrorHandler::set(&handler); }
  void TearDown() override { Poco::ErrorHandler::set(_previous); }
  RecordingErrorHandler handler;

 private:
  Poco::ErrorHandler* _previous = nullptr;
};

TEST_F(TimerErrorHandlerTest, ThrowingCallbackGoesToTheErrorHandlerAndKeepsThePeriod) {
  Recorder recorder;
  Zel::Timer timer(0, 30);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder, [](size_t, Zel::Timer&) { throw std::runtime_error("tick failed"); }));
  ASSERT_TRUE(recorder.waitFor(4));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  for (size_t k = 0; k < 4; ++k) EXPECT_GE(starts[k] - started, static_cast<long>(30 * k) * 1000 - kEarlySlackUs);
  const std::vector<std::string> seen = handler.seen();
  ASSERT_EQ(starts.size(), seen.size());
  for (const std::string& entry : seen) EXPECT_EQ("std:tick failed", entry);
}

TEST_F(TimerErrorHandlerTest, PocoAndForeignExceptionsGoToTheirHandlers) {
  Recorder recorder;
  Zel::Timer timer(0, 10);
  timer.start(RecordingCallback(&recorder, [](size_t index, Zel::Timer&) {
    if (index == 0) throw Poco::InvalidArgumentException("bad tick");
    if (index == 1) throw 7;
  }));
  ASSERT_TRUE(recorder.waitFor(3));
  timer.stop();
  const std::vector<std::string> seen = handler.seen();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("poco:Invalid argument: bad tick", seen[0]);
  EXPECT_EQ("other", seen[1]);
}

TEST(Timer, FailedThreadCreationThrowsAndLeavesTheTimerStopped) {
  const int liveBefore = gLiveCallbacks.load();
  Recorder recorder;
  Zel::Timer timer(0, 0);
  tFailThreadCreation = true;
  try {
    timer.start(RecordingCallback(&recorder));
    tFailThreadCreation = false;
    FAIL() << "no exception";
  } catch (const Poco::SystemException& exception) {
    tFailThreadCreation = false;
    EXPECT_EQ("cannot create timer thread", exception.message());
    EXPECT_EQ(EAGAIN, exception.code());
  }
  EXPECT_EQ(liveBefore, gLiveCallbacks.load()) << "the clone was deleted";
  timer.stop();  // nothing to stop
  // Still startable: the failed start left no callback behind.
  timer.start(RecordingCallback(&recorder));
  EXPECT_TRUE(recorder.waitFor(1));
  timer.stop();
}

// --- assertions --------------------------------------------------------------

// Escapes a literal text for a death-test regular expression.
std::string literal(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

// The log record as the log interface receives it: " <function padded to 25> <message>".
std::string logLine(const std::string& function, const std::string& condition) {
  std::string padded = function;
  padded.resize(25, ' ');
  return " " + padded + " Assertion failed: " + condition;
}

// Expected standard error of an aborting check: the log record (printed by the
// recording log interface when it is written), then glibc's assertion text.
std::string assertionOutput(const std::string& function, const std::string& condition, int line,
                            const std::string& signature) {
  return literal("LOGGED level=2 facility=1 text=" + logLine(function, condition) + "\n") + ".*" +
         literal(": src/common/src/Timer:" + std::to_string(line) + ": " + signature + ": Assertion `" + condition +
                 "' failed.");
}

// In the child of a death test: a recording log interface that prints every
// record to standard error as it is written.
void logToStderr() {
  ZelTest::FakeLogSpi::reset();
  ZelTest::FakeLogSpi::hook = [] {
    const ZelTest::FakeLogSpi::Call call = ZelTest::FakeLogSpi::calls().back();
    std::fprintf(stderr, "LOGGED level=%u facility=%u text=%s\n", call.level, call.facility, call.text.c_str());
    std::fflush(stderr);
  };
  Zel::LoggingWrapper::getInstance()->set_log_spi(ZelTest::FakeLogSpi::spi());
}

class TimerDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(TimerDeathTest, NegativeStartIntervalAbortsAfterLogging) {
  EXPECT_EXIT(
      {
        logToStderr();
        Zel::Timer timer(-1, 0);
      },
      ::testing::KilledBySignal(SIGABRT),
      assertionOutput("Timer", "startInterval >= 0 && periodicInterval >= 0", 12,
                      "Zel::Timer::Timer(long int, long int)"));
}

TEST_F(TimerDeathTest, NegativePeriodicIntervalAbortsAfterLogging) {
  EXPECT_EXIT(
      {
        logToStderr();
        Zel::Timer timer(0, -50);
      },
      ::testing::KilledBySignal(SIGABRT),
      assertionOutput("Timer", "startInterval >= 0 && periodicInterval >= 0", 12,
                      "Zel::Timer::Timer(long int, long int)"));
}

TEST_F(TimerDeathTest, SecondStartOfExpiredOneShotAbortsAfterLogging) {
  EXPECT_EXIT(
      {
        logToStderr();
        Recorder recorder;
        Zel::Timer timer(0, 0);
        timer.start(RecordingCallback(&recorder));
        recorder.waitFor(1);
        timer.start(RecordingCallback(&recorder));
      },
      ::testing::KilledBySignal(SIGABRT),
      assertionOutput("start", "!_pCallback", 28, "void Zel::Timer::start(const Zel::AbstractTimerCallback&)"));
}

TEST_F(TimerDeathTest, SecondStartOfRunningTimerAbortsAfterLogging) {
  EXPECT_EXIT(
      {
        logToStderr();
        Recorder recorder;
        Zel::Timer timer(1000, 1000);
        timer.start(RecordingCallback(&recorder));
        timer.start(RecordingCallback(&recorder));
      },
      ::testing::KilledBySignal(SIGABRT),
      assertionOutput("start", "!_pCallback", 28, "void Zel::Timer::start(const Zel::AbstractTimerCallback&)"));
}

TEST_F(TimerDeathTest, NegativeRestartPeriodAbortsAfterLogging) {
  EXPECT_EXIT(
      {
        logToStderr();
        Zel::Timer timer(10, 10);
        timer.restart(-1);
      },
      ::testing::KilledBySignal(SIGABRT),
      assertionOutput("restart", "milliseconds >= 0", 64, "void Zel::Timer::restart(long int)"));
}

TEST_F(TimerDeathTest, AssertionAbortsEvenWhenTheLevelDropsTheRecord) {
  // Level 1 admits no level-2 record: nothing is logged (the log interface
  // would end the child with status 3), and the process still aborts.
  EXPECT_EXIT(
      {
        ZelTest::FakeLogSpi::reset();
        ZelTest::FakeLogSpi::hook = [] { _exit(3); };
        Zel::LoggingWrapper::getInstance()->set_log_spi(ZelTest::FakeLogSpi::spi());
        Zel::LoggingWrapper::getInstance()->set_level(1);
        Zel::Timer timer(10, 10);
        timer.restart(-5);
      },
      ::testing::KilledBySignal(SIGABRT),
      literal(": src/common/src/Timer:64: void Zel::Timer::restart(long int): Assertion `milliseconds >= 0' failed."));
}

}  // namespace
