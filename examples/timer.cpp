// timer.cpp - a periodic Zel::Timer counting ticks on its own thread.
//
//   ./example_timer
//
// Timer(start, period) calls its callback `start` ms after start(), then
// every `period` ms (period 0: once). start() keeps a clone of the callback,
// so the object passed in may be a temporary; stop() joins the timer thread.
// Deadlines advance by whole periods, so the schedule does not drift.
#include <Poco/Event.h>

#include <atomic>
#include <cstdio>

#include <zel/AbstractTimerCallback.h>
#include <zel/Clock.h>
#include <zel/Timer.h>

namespace {

// Runs on the timer's thread: shares state with main() through atomics and
// an event, never through plain variables.
class Tick : public Zel::AbstractTimerCallback {
 public:
  Tick(std::atomic<int>& ticks, Poco::Event& done, const Zel::Clock& started)
      : _ticks(ticks), _done(done), _started(started) {}

  void invoke(Zel::Timer&) override {
    int tick = ++_ticks;
    std::printf("tick %d after %ld ms\n", tick, (Zel::Clock() - _started) / 1000);
    if (tick == 5) _done.set();
  }
  AbstractTimerCallback* clone() const override { return new Tick(*this); }

 private:
  std::atomic<int>& _ticks;
  Poco::Event& _done;
  const Zel::Clock _started;
};

}  // namespace

int main() {
  std::atomic<int> ticks(0);
  Poco::Event done;
  Zel::Clock started;  // now, on the monotonic clock (microseconds)

  Zel::Timer timer(100, 50);  // first tick after 100 ms, then every 50 ms
  timer.start(Tick(ticks, done, started));
  bool fiveTicks = done.tryWait(5000);
  timer.stop();  // waits for a running callback, then ends the thread

  std::printf("%d ticks in %ld ms\n", ticks.load(), (Zel::Clock() - started) / 1000);
  return fiveTicks ? 0 : 1;
}
