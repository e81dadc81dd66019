#include <zel/Timer.h>

#include <cxxabi.h>

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>
#include <Poco/Thread.h>

#include <exception>
#include <memory>

#include <zel/LoggingWrapper.h>

// glibc's report-and-abort routine behind assert(). It is called directly so
// that the timer's assertions hold in every build type, NDEBUG included
// (<assert.h> declares it only without NDEBUG).
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((__noreturn__));

namespace Zel {

AbstractTimerCallback::~AbstractTimerCallback() {}

namespace {

const char kAssertFile[] = "src/common/src/Timer";

// A failed check is a programming fault: it is logged at level 2 when the
// levels allow it, then reported like a failed assert() and the process
// aborts. The logging step must not keep the abort from happening.
void checkTimerAssertion(bool holds, const char* condition, const char* function, unsigned int line,
                         const char* signature) {
  if (holds) return;
  try {
    LoggingWrapper* logger = LoggingWrapper::getInstance();
    if (logger->isSaLoggingAllowed(4, 2)) logger->log_printf(function, 2, 1, "Assertion failed: %s", condition);
    // The abort ends the process without exit handlers: whatever the log
    // file still buffers is written now.
    logger->flush();
  } catch (...) {
  }
  __assert_fail(condition, kAssertFile, line, signature);
}

// `clock` moved `milliseconds` (>= 0) ahead; an interval too long for the
// clock's range saturates at its end instead of wrapping into the past.
Clock millisecondsLater(const Clock& clock, long milliseconds) {
  long microseconds = 0;
  long later = 0;
  if (__builtin_mul_overflow(milliseconds, 1000L, &microseconds) ||
      __builtin_add_overflow(clock.value(), microseconds, &later))
    return Clock(Clock::CLOCKVAL_MAX);
  return Clock(later);
}

// Milliseconds to wait for a deadline that is `microsecondsLeft` away:
// truncated, and 0 once it is due.
long waitMilliseconds(long microsecondsLeft) { return microsecondsLeft > 0 ? microsecondsLeft / 1000 : 0; }

}  // namespace

Timer::Timer(long startInterval, long periodicInterval)
    : _startInterval(startInterval),
      _periodicInterval(periodicInterval),
      _wakeUp(Poco::Event::EVENT_AUTORESET),
      _stopRequested(false),
      _thread(),
      _pCallback(nullptr),
      _nextInvocation(),
      _restartGeneration(0),
      _invocationStarting(false) {
  checkTimerAssertion(startInterval >= 0 && periodicInterval >= 0, "startInterval >= 0 && periodicInterval >= 0",
                      "Timer", 12, "Zel::Timer::Timer(long int, long int)");
}

Timer::~Timer() { stop(); }

void Timer::start(const AbstractTimerCallback& callback) {
  const Clock firstInvocation = millisecondsLater(Clock(), _startInterval);
  // Only start() and stop(), on the application thread, write _pCallback.
  checkTimerAssertion(_pCallback == nullptr, "!_pCallback", "start", 28,
                      "void Zel::Timer::start(const Zel::AbstractTimerCallback&)");

  Poco::FastMutex::ScopedLock guard(_mutex);
  _nextInvocation = firstInvocation;
  std::unique_ptr<AbstractTimerCallback> clone(callback.clone());
  _pCallback = clone.get();
  try {
    _wakeUp.reset();
    _stopRequested = false;
    const int result = pthread_create(&_thread, nullptr, &Timer::runnableEntry, this);
    if (result != 0) throw Poco::SystemException("cannot create timer thread", result);
  } catch (...) {
    _pCallback = nullptr;  // the clone is deleted on the way out: the timer stays stopped
    throw;
  }
  clone.release();  // owned through _pCallback until stop()
}

void Timer::stop() {
  {
    Poco::FastMutex::ScopedLock guard(_mutex);
    if (_pCallback == nullptr) return;
    _periodicInterval = 0;
    // From here on restart() changes nothing, so the period stays 0.
    _stopRequested = true;
  }
  // The lock is released while joining, so a running callback can finish
  // (and may still call restart(), which then does nothing).
  _wakeUp.set();
  pthread_join(_thread, nullptr);

  Poco::FastMutex::ScopedLock guard(_mutex);
  delete _pCallback;
  _pCallback = nullptr;
}

void Timer::restart() {
  Poco::FastMutex::ScopedLock guard(_mutex);
  if (!restartable()) return;
  ++_restartGeneration;
  _wakeUp.set();
}

void Timer::restart(long milliseconds) {
  checkTimerAssertion(milliseconds >= 0, "milliseconds >= 0", "restart", 64, "void Zel::Timer::restart(long int)");
  Poco::FastMutex::ScopedLock guard(_mutex);
  if (!restartable()) return;
  _periodicInterval = milliseconds;
  ++_restartGeneration;
  _wakeUp.set();
}

bool Timer::restartable() {
  if (_pCallback == nullptr || _stopRequested) return false;
  // The timer thread has decided to invoke the callback for the current
  // deadline and released the lock, but not yet called it. That invocation
  // has begun; let it get under way before this restart takes effect and
  // returns, so that no invocation for the old deadline starts after
  // restart() has returned. The thread needs no lock for this step, which
  // is a few instructions long; the loop only yields while it is preempted.
  while (_invocationStarting.load(std::memory_order_acquire)) {
    _mutex.unlock();
    Poco::Thread::yield();
    _mutex.lock();
  }
  return _pCallback != nullptr && !_stopRequested;
}

void* Timer::runnableEntry(void* timer) {
  static_cast<Timer*>(timer)->run();
  return nullptr;
}

void Timer::run() {
  unsigned long handledRestarts = 0;
  {
    Poco::FastMutex::ScopedLock guard(_mutex);
    handledRestarts = _restartGeneration;
  }
  for (;;) {
    Clock deadline(Clock::CLOCKVAL_MIN);
    {
      Poco::FastMutex::ScopedLock guard(_mutex);
      deadline = _nextInvocation;
    }
    const long wait = waitMilliseconds(deadline - Clock());
    const bool woken = _wakeUp.tryWait(wait);

    long interval = 0;
    {
      Poco::FastMutex::ScopedLock guard(_mutex);
      // stop() has begun: no further invocation.
      if (_stopRequested) return;
      // restart() and this thread agree here, under the lock, whether the
      // deadline was consumed: a restart that took the lock before this
      // point cancels the invocation even when the wait had already timed
      // out, and one that comes later finds the invocation begun.
      if (woken || _restartGeneration != handledRestarts) {
        // A new period starts now, without an invocation. The event is
        // cleared in case the restart came after the wait had timed out;
        // every restart sets it under this lock, so none is lost.
        handledRestarts = _restartGeneration;
        _wakeUp.reset();
        interval = _periodicInterval;
        _nextInvocation = millisecondsLater(Clock(), interval);
        if (interval <= 0) return;
        continue;
      }
      _invocationStarting.store(true, std::memory_order_release);
    }
    _invocationStarting.store(false, std::memory_order_release);
    invokeCallback();

    bool stopRequested = false;
    {
      Poco::FastMutex::ScopedLock guard(_mutex);
      interval = _periodicInterval;
      // From the previous deadline, not from now: overdue deadlines are
      // invoked back to back on the next rounds instead of being skipped.
      _nextInvocation = millisecondsLater(_nextInvocation, interval);
      stopRequested = _stopRequested;
    }
    if (stopRequested || interval <= 0) return;
  }
}

void Timer::invokeCallback() {
  // _pCallback is set before this thread is created and reset only after it
  // has been joined, so it is read here without the lock.
  AbstractTimerCallback* callback = _pCallback;
  try {
    callback->invoke(*this);
  } catch (abi::__forced_unwind&) {
    throw;  // thread cancellation must unwind
  } catch (const Poco::Exception& exception) {
    Poco::ErrorHandler::handle(exception);
  } catch (const std::exception& exception) {
    Poco::ErrorHandler::handle(exception);
  } catch (...) {
    Poco::ErrorHandler::handle();
  }
}

}  // namespace Zel
