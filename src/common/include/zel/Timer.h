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
// Restarts are exact: once restart() or restart(long) has returned, no
// invocation for a deadline of the old schedule starts; the next one is due a
// full (new) period after the timer thread took the restart in. The one
// exception is an invocation that had already begun when restart() was
// called: it runs to its end (and the restart then takes effect after it).
// Once stop() has begun, restart() and restart(long) change nothing, so a
// callback that restarts its timer while stop() waits for it cannot give the
// stopped timer a period back.
//
// Threads: the application thread calls start(), stop(), restart() and the
// destructor (start() and stop() from one thread at a time); the timer thread
// runs run() and the callback, with no lock held, so the callback may call
// restart() on its own timer but must not stop or destroy it. A mutex of the
// timer guards the callback pointer, the period, the stop request, the
// deadline and the count of restarts.
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

#include <atomic>

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
  // one-shot timer, none (its thread ends without calling the callback); no
  // invocation for the old deadline starts after this returns (an invocation
  // already under way finishes). When not started, or once stop() has begun,
  // nothing happens.
  void restart();
  // When started: the period becomes `milliseconds` and the next invocation is
  // that many ms from now; 0 ends the thread without calling the callback.
  // Exact in the same way as restart(). When not started, or once stop() has
  // begun, the value is dropped. Aborts when milliseconds < 0
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
  // With _mutex held: whether restart() may act (started, stop() not begun),
  // once an invocation the timer thread has begun is under way.
  bool restartable();

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
  // Guarded by _mutex: counts the restarts. The timer thread compares it,
  // under the lock, with the restarts it has handled before it invokes.
  unsigned long _restartGeneration;
  // Set by the timer thread under _mutex when it has decided to invoke the
  // callback, cleared (without the lock) just before the call; restart()
  // waits while it is set.
  std::atomic<bool> _invocationStarting;
};

}  // namespace Zel

#endif  // ZEL_TIMER_H
