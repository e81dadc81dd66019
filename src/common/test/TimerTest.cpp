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
typedef int (*PthreadCondTimedwaitFunction)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*);

// Simulated preemption of a timer thread: when armed, the next timed wait of
// gPreemptedThread that times out (the timer's wait for a deadline expired)
// releases the wait's mutex, raises gPreempted, sleeps gPreemptionUs and
// takes the mutex back before it returns, as if the thread had lost its CPU
// right after the timeout.
std::atomic<pthread_t> gPreemptedThread{pthread_t()};
std::atomic<bool> gPreemptionArmed(false);
std::atomic<long> gPreemptionUs(0);
std::mutex gPreemptionMutex;
std::condition_variable gPreemptionChanged;
// Guarded by gPreemptionMutex: whether the thread is held off now, and how
// many preemptions have begun so far (a waiter that comes late still sees
// that one has happened).
bool gPreempted = false;
unsigned long gPreemptionsBegun = 0;

void setPreempted(bool preempted) {
  {
    std::lock_guard<std::mutex> guard(gPreemptionMutex);
    gPreempted = preempted;
    if (preempted) ++gPreemptionsBegun;
  }
  gPreemptionChanged.notify_all();
}

bool preempted() {
  std::lock_guard<std::mutex> guard(gPreemptionMutex);
  return gPreempted;
}

unsigned long preemptionsBegun() {
  std::lock_guard<std::mutex> guard(gPreemptionMutex);
  return gPreemptionsBegun;
}

// Waits until a preemption after the first `begun` ones has begun.
bool waitForPreemption(unsigned long begun) {
  std::unique_lock<std::mutex> lock(gPreemptionMutex);
  return gPreemptionChanged.wait_for(lock, std::chrono::seconds(5), [begun] { return gPreemptionsBegun > begun; });
}
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                              void* argument) noexcept {
  static PthreadCreateFunction real = reinterpret_cast<PthreadCreateFunction>(dlsym(RTLD_NEXT, "pthread_create"));
  if (tFailThreadCreation) return EAGAIN;
  return real(thread, attributes, routine, argument);
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const struct timespec* until) {
  static PthreadCondTimedwaitFunction real =
      reinterpret_cast<PthreadCondTimedwaitFunction>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
  const int result = real(condition, mutex, until);
  if (result == ETIMEDOUT && pthread_equal(pthread_self(), gPreemptedThread.load()) &&
      gPreemptionArmed.exchange(false)) {
    pthread_mutex_unlock(mutex);
    setPreempted(true);
    std::this_thread::sleep_for(std::chrono::microseconds(gPreemptionUs.load()));
    setPreempted(false);
    pthread_mutex_lock(mutex);
  }
  return result;
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
  // Waits until `count` invocations that started after `afterUs` have
  // finished.
  bool waitForStartsAfter(long afterUs, size_t count, long limitMs = 5000) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, std::chrono::milliseconds(limitMs), [&] {
      size_t finished = 0;
      for (size_t k = 0; k < _starts.size(); ++k)
        if (_starts[k] > afterUs && _ends[k] != 0) ++finished;
      return finished >= count;
    });
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
  // Each callback takes 30 ms of a 50 ms period; deadlines still stay on the
  // 50 ms grid from the start instead of sliding by 30 ms per invocation.
  Recorder recorder;
  Zel::Timer timer(0, 50);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder, [](size_t, Zel::Timer&) { sleepMs(30); }));
  ASSERT_TRUE(recorder.waitFor(6));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  for (size_t k = 0; k < 6; ++k) EXPECT_GE(starts[k] - started, static_cast<long>(50 * k) * 1000 - kEarlySlackUs);
  // A schedule drifting by the callback time would put the sixth invocation
  // at 5 * 80 = 400 ms at the earliest; on the grid it is at 250 ms.
  EXPECT_LT(starts[5] - started, 380 * 1000);
}

TEST(Timer, OverrunDeadlinesAreInvokedBackToBackWithoutSkipping) {
  // The first invocation takes 250 ms of a 100 ms period: the deadlines at
  // 100 and 200 ms are already due when it ends, and follow at once.
  Recorder recorder;
  Zel::Timer timer(0, 100);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder, [](size_t index, Zel::Timer&) {
    if (index == 0) sleepMs(250);
  }));
  ASSERT_TRUE(recorder.waitFor(5));
  timer.stop();
  const std::vector<long> starts = recorder.starts();
  const std::vector<long> ends = recorder.ends();
  for (size_t k = 0; k < 5; ++k)
    EXPECT_GE(starts[k] - started, static_cast<long>(100 * k) * 1000 - kEarlySlackUs) << "invocation " << k;
  // Back to back: no wait between the slow invocation and the two overdue
  // ones (a wait of a period would take 100 ms).
  EXPECT_LT(starts[1] - ends[0], 80 * 1000);
  EXPECT_LT(starts[2] - ends[1], 80 * 1000);
  // None skipped: invocation k belongs to the deadline at 100 * k ms, so the
  // on-time ones that follow are due at 300 and 400 ms (skipping the two
  // overdue ones would put invocation 3 at 500 ms).
  EXPECT_LT(starts[3] - started, 450 * 1000);
}

TEST(Timer, RestartMovesTheNextInvocationToAPeriodFromNow) {
  Recorder recorder;
  Zel::Timer timer(100, 50);
  const long started = nowUs();
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(1));  // at about 100 ms
  // Between deadlines, at about 130 ms (the timing of the call does not
  // matter for what is checked: everything is measured from the call).
  const long wanted = started + 130 * 1000;
  if (nowUs() < wanted) std::this_thread::sleep_for(std::chrono::microseconds(wanted - nowUs()));
  const long called = nowUs();
  timer.restart();
  const long returned = nowUs();
  ASSERT_TRUE(recorder.waitForStartsAfter(returned, 2));
  timer.stop();
  // Nothing of the old schedule (150 ms, 200 ms) starts once restart() has
  // returned: the next invocation comes a full period after the call, the
  // one after it a period later.
  const std::vector<long> later = startsAfter(recorder.starts(), returned);
  ASSERT_GE(later.size(), 2u);
  EXPECT_GE(later[0] - called, 50 * 1000 - kEarlySlackUs);
  EXPECT_GE(later[1] - called, 100 * 1000 - kEarlySlackUs);
  EXPECT_GE(recorder.starts()[0] - started, 100 * 1000 - kEarlySlackUs) << "the start delay was used first";
}

TEST(Timer, RestartWithPeriodChangesThePeriodFromNow) {
  Recorder recorder;
  Zel::Timer timer(0, 50);
  timer.start(RecordingCallback(&recorder));
  ASSERT_TRUE(recorder.waitFor(2));
  const long called = nowUs();
  timer.restart(200);
  const long returned = nowUs();
  ASSERT_TRUE(recorder.waitForStartsAfter(returned, 2));
  timer.stop();
  const std::vector<long> later = startsAfter(recorder.starts(), returned);
  ASSERT_GE(later.size(), 2u);
  EXPECT_GE(later[0] - called, 200 * 1000 - kEarlySlackUs);
  EXPECT_GE(later[1] - called, 400 * 1000 - kEarlySlackUs);
}

TEST(Timer, RestartAimedAtTheNextDeadlineNeverLetsTheOldDeadlineFire) {
  // A 2 ms schedule, 1000 times: the timer thread's wait for its next
  // deadline expires, the thread then loses its CPU for 3 ms (simulated),
  // and restart(10) is called in that gap, after the deadline has expired but
  // before its invocation could start. Once restart(10) has returned, the
  // next invocation must be a new period (10 ms, less the 1 ms wait
  // truncation) after the call; one for the expired deadline would come as
  // soon as the thread runs again, within about 3 ms.
  const int kTries = 1000;
  const long kOldPeriodMs = 2;
  const long kNewPeriodMs = 10;
  Recorder recorder;
  Zel::Timer timer(0, kOldPeriodMs);
  timer.start(RecordingCallback(&recorder, [](size_t, Zel::Timer&) { gPreemptedThread = pthread_self(); }));
  ASSERT_TRUE(recorder.waitFor(1));
  gPreemptionUs = 3000;
  int early = 0;
  int inTheGap = 0;
  int missing = 0;
  std::string examples;
  for (int attempt = 0; attempt < kTries && missing == 0; ++attempt) {
    const unsigned long begun = preemptionsBegun();
    gPreemptionArmed = true;
    // Usually inside the 3 ms gap; on a busy machine this thread may only
    // run again after it, and the invocation has then begun before the call.
    if (!waitForPreemption(begun)) {
      ++missing;
      break;
    }
    const long called = nowUs();
    timer.restart(kNewPeriodMs);
    const long returned = nowUs();
    if (preempted()) ++inTheGap;  // restart() was over before the thread could go on
    gPreemptionArmed = false;
    if (!recorder.waitForStartsAfter(returned, 1)) {
      ++missing;
      break;
    }
    const long next = startsAfter(recorder.starts(), returned).front();
    if (next - called < kNewPeriodMs * 1000 - kEarlySlackUs / 2 && ++early <= 5)
      examples += " [" + std::to_string(next - returned) + " us after restart returned]";
    timer.restart(kOldPeriodMs);  // back on the 2 ms schedule
  }
  timer.stop();
  gPreemptedThread = pthread_t();
  EXPECT_EQ(0, early) << "invocations of an expired deadline after restart() returned:" << examples;
  EXPECT_EQ(0, missing) << "no deadline expired, or no invocation came, within 5 s";
  EXPECT_GT(inTheGap, 0) << "no restart fell between a deadline's expiry and its invocation";
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
  Zel::Timer timer(1000, 0);
  timer.start(RecordingCallback(&recorder));
  timer.restart();
  // The thread has ended, so no invocation can follow.
  EXPECT_TRUE(waitForThreadCount(threadsBefore));
  EXPECT_EQ(0u, recorder.count());
  timer.stop();
  EXPECT_EQ(0u, recorder.count());
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

// A callback that restarts its timer while stop() waits for it: the first
// start's callback holds its invocation until stop() has been called, then
// calls `restartAction` (restart(5) or restart()) from inside the join.
void restartDuringStopLeavesTheTimerStopped(const std::function<void(Zel::Timer&)>& restartAction) {
  const int threadsBefore = threadsBeforeTimer();
  Recorder recorder;
  Zel::Timer timer(0, 0);
  std::atomic<bool> stopCalled(false);
  std::atomic<bool> restarted(false);
  timer.start(RecordingCallback(&recorder, [&](size_t, Zel::Timer& firing) {
    while (!stopCalled.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Give stop() time to get into its join, so that the restart comes
    // after stop() has cleared the period (the outcome checked below is the
    // same if it comes earlier).
    sleepMs(50);
    restartAction(firing);
    restarted = true;
  }));
  // The invocation has begun (it waits for stopCalled before it ends).
  for (int waited = 0; recorder.count() == 0 && waited < 5000; ++waited) sleepMs(1);
  ASSERT_EQ(1u, recorder.count());
  stopCalled = true;
  timer.stop();
  ASSERT_TRUE(restarted.load());
  EXPECT_TRUE(waitForThreadCount(threadsBefore));

  // Stopped means the period is 0: started again, the timer is a one-shot.
  Recorder again;
  timer.start(RecordingCallback(&again));
  ASSERT_TRUE(again.waitFor(1));
  EXPECT_TRUE(waitForThreadCount(threadsBefore)) << "the one-shot thread ends after its invocation";
  sleepMs(100);
  EXPECT_EQ(1u, again.count());
  timer.stop();
  EXPECT_EQ(1u, again.count());
}

TEST(Timer, RestartWithPeriodWhileStopWaitsChangesNothing) {
  restartDuringStopLeavesTheTimerStopped([](Zel::Timer& timer) { timer.restart(5); });
}

TEST(Timer, RestartWhileStopWaitsChangesNothing) {
  restartDuringStopLeavesTheTimerStopped([](Zel::Timer& timer) { timer.restart(); });
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
