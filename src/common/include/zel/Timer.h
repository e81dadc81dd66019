// Timer.h - a one-shot or periodic timer running a callback on its own thread.
//
// Zel::Timer calls an AbstractTimerCallback once after a start delay and then,
// when a period is set, again at every period, from a thread it creates in
// start() and joins in stop(). Times given to the timer are milliseconds; the
// deadline is kept as a Clock in microseconds.
//
// Schedule: deadlines advance by whole periods from the previous deadline, not
// from the end of the callback, so the period does not drift. A callback that
// overruns one or more periods is invoked again at once for every deadline it
// missed, back to back, until the schedule has caught up; none is skipped. The
// wait before a deadline is counted in whole milliseconds (truncated), so an
// invocation may come up to 1 ms before its deadline.
//
// States: constructed (no callback, no thread) -> start() -> running (owns a
// clone of the callback, thread alive) -> a one-shot ends its thread after its
// only invocation: expired (clone still owned, thread not yet joined) ->
// stop() -> stopped. stop() also sets the period to 0, so a timer started again
// after stop() is a one-shot unless restart(long) gives it a period while it
// runs. The destructor stops the timer.
//
// Threads: the application thread calls start(), stop(), restart() and the
// destructor (start() and stop() from one thread at a time); the timer thread
// runs run() and the callback, with no lock held, so the callback may call
// restart() on its own timer but must not stop or destroy it. A mutex of the
// timer guards the callback pointer, the period, the stop request and the
// deadline.
//
// Programming faults abort the process after logging "Assertion failed: <condition>"
// (level 2) when the logging levels allow it, in every build type: negative
// intervals in the constructor, start() of a timer that is running or expired,
// restart(long) with a negative period.
#ifndef ZEL_TIMER_H
#define ZEL_TIMER_H

#include <pthread.h>

#include <Poco/Event.h>
#include <Poco/Mutex.h>

#include <zel/AbstractTimerCallback.h>
#include <zel/Clock.h>
#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API Timer {
 public:
  // A timer that fires startInterval ms after start(), then every
  // periodicInterval ms (0: only once). Does not start a thread. Aborts when
  // an interval is negative ("startInterval >= 0 && periodicInterval >= 0").
  Timer(long startInterval, long periodicInterval);
  // stop(); an exception out of it ends the process (std::terminate).
  virtual ~Timer();

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Clones the callback and starts the timer thread; the first invocation is
  // due startInterval ms from now. Aborts ("!_pCallback") when the timer is
  // running or expired: stop() it first. When the thread cannot be created,
  // the clone is deleted, the timer stays stopped and Poco::SystemException
  // "cannot create timer thread" is thrown with the error number as its code.
  void start(const AbstractTimerCallback& callback);
  // Ends the timer thread, waiting for a running callback to finish, and
  // deletes the clone; sets the period to 0. Returns at once when the timer
  // was not started. Must not be called from the callback.
  void stop();
  // When started: the next invocation is one full period from now, or, on a
  // one-shot timer, none (its thread ends without calling the callback).
  // Otherwise nothing happens.
  void restart();
  // When started: the period becomes `milliseconds` and the next invocation is
  // that many ms from now; 0 ends the thread without calling the callback.
  // When not started the value is dropped. Aborts when milliseconds < 0
  // ("milliseconds >= 0").
  void restart(long milliseconds);

  // The timer thread's start routine: runs static_cast<Timer*>(timer)->run()
  // and returns nullptr.
  static void* runnableEntry(void* timer);
  // The timer thread's loop (started by start(); not for direct calls).
  void run();

 private:
  // Calls the callback; its exceptions go to Poco::ErrorHandler.
  void invokeCallback();

  const long _startInterval;
  // _periodicInterval, _stopRequested, _pCallback and _nextInvocation are
  // guarded by _mutex (documented here rather than annotated: clang's lock
  // analysis cannot see POCO's lock types).
  long _periodicInterval;
  Poco::Event _wakeUp;  // auto-reset; set by stop() and restart() to wake the thread early
  bool _stopRequested;
  pthread_t _thread;  // valid while _pCallback is set
  // Written by start() before the thread exists and by stop() after joining
  // it, so the timer thread reads it without the lock.
  AbstractTimerCallback* _pCallback;
  Clock _nextInvocation;
  Poco::FastMutex _mutex;
};

}  // namespace Zel

#endif  // ZEL_TIMER_H
