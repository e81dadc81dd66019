// AbstractTimerCallback.h - what a Timer calls when it fires.
//
// Derive from Zel::AbstractTimerCallback, implement invoke() (the work done at
// each expiry) and clone() (a heap copy of the callback). Timer::start() keeps
// a clone of the callback it is given and owns it until stop(), so the object
// passed to start() may be a temporary. invoke() runs on the timer's own
// thread, never on the thread that started the timer; state it shares with
// other threads needs its own locking.
//
// Example:
//   struct Tick : Zel::AbstractTimerCallback {
//     void invoke(Zel::Timer&) override { ++*counter; }
//     AbstractTimerCallback* clone() const override { return new Tick(*this); }
//     std::atomic<int>* counter;
//   };
#ifndef ZEL_ABSTRACT_TIMER_CALLBACK_H
#define ZEL_ABSTRACT_TIMER_CALLBACK_H

#include <zel/ZelExport.h>

namespace Zel {

class Timer;

class ZEL_API AbstractTimerCallback {
 public:
  AbstractTimerCallback() {}
  AbstractTimerCallback(const AbstractTimerCallback&) {}  // copies nothing: the interface has no state
  // Copies nothing (the interface has no state) and returns this object.
  AbstractTimerCallback& operator=(const AbstractTimerCallback&) { return *this; }
  virtual ~AbstractTimerCallback();

  // Called on the timer's thread at each expiry, with the timer that fires
  // and without any of the timer's locks held, so it may call restart() on
  // that timer (never stop() or its destruction: they would wait for this
  // very call). Exceptions thrown here go to Poco::ErrorHandler; the timer
  // keeps running.
  virtual void invoke(Timer& timer) = 0;
  // A new heap copy of this callback; the caller owns it.
  virtual AbstractTimerCallback* clone() const = 0;
};

}  // namespace Zel

#endif  // ZEL_ABSTRACT_TIMER_CALLBACK_H
