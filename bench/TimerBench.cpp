// TimerBench.cpp - how late Zel::Timer invokes its callback.
//
// BM_TimerLateness/<period ms>: a Timer(period, period) runs for a fixed number
// of invocations (300 at 10 ms, 2000 at 1 ms). Each invocation reads the
// monotonic clock on entry and compares it with its deadline, start + (k + 1)
// periods, where start is read just before Timer::start. Counters, in
// microseconds of actual minus deadline: p50_us (median), p99_us (99th
// percentile), min_us and max_us. Negative values are invocations that came
// early: the timer waits whole milliseconds, truncated, so it may fire up to
// 1 ms before a deadline. The reported time is the whole run.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <benchmark/benchmark.h>

#include <zel/Clock.h>
#include <zel/Timer.h>

namespace {

// Shared by the callback (on the timer thread) and the benchmark thread.
struct LatenessLog {
  std::mutex mutex;
  std::condition_variable full;
  std::vector<long> invocations;  // monotonic microseconds
  size_t wanted = 0;
};

class StampingCallback : public Zel::AbstractTimerCallback {
 public:
  explicit StampingCallback(LatenessLog* log) : _log(log) {}
  void invoke(Zel::Timer&) override {
    const long now = Zel::Clock().value();
    std::lock_guard<std::mutex> guard(_log->mutex);
    if (_log->invocations.size() < _log->wanted) _log->invocations.push_back(now);
    if (_log->invocations.size() == _log->wanted) _log->full.notify_all();
  }
  Zel::AbstractTimerCallback* clone() const override { return new StampingCallback(*this); }

 private:
  LatenessLog* _log;
};

double percentile(const std::vector<long>& sorted, size_t percent) {
  return static_cast<double>(sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)]);
}

void BM_TimerLateness(benchmark::State& state) {
  const long period = state.range(0);
  const size_t invocations = period >= 10 ? 300 : 2000;
  std::vector<long> lateness;
  for (auto _ : state) {
    LatenessLog log;
    log.wanted = invocations;
    log.invocations.reserve(invocations);
    Zel::Timer timer(period, period);
    const long start = Zel::Clock().value();
    timer.start(StampingCallback(&log));
    {
      std::unique_lock<std::mutex> lock(log.mutex);
      log.full.wait(lock, [&log] { return log.invocations.size() >= log.wanted; });
    }
    timer.stop();
    for (size_t k = 0; k < log.invocations.size(); ++k)
      lateness.push_back(log.invocations[k] - (start + static_cast<long>(k + 1) * period * 1000));
  }
  std::sort(lateness.begin(), lateness.end());
  state.counters["p50_us"] = percentile(lateness, 50);
  state.counters["p99_us"] = percentile(lateness, 99);
  state.counters["min_us"] = static_cast<double>(lateness.front());
  state.counters["max_us"] = static_cast<double>(lateness.back());
}

BENCHMARK(BM_TimerLateness)->Arg(10)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
