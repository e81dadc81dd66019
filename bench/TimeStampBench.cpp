// TimeStampBench.cpp - cost of one local-file time stamp.
//
// The cache behind the stamp is keyed on the second and on the time-zone
// state tzset() leaves behind (tzname, timezone, daylight). These benchmarks
// put it side by side with a cache keyed on the second alone (the cache before
// the zone joined the key, which kept a stale offset for up to a second after
// a zone change) to show what the zone check adds to a record:
//
//   BM_TimeStamp_ZoneKeyed     LocalTimeCache::write, the stamp of a record
//   BM_TimeStamp_SecondKeyed   the same cached pieces behind a second-only key
//   BM_TimeStamp_FillInTimeStr the exported fill_in_time_str (localtime_r on
//                              every call, no cache)
//
// Each reads the wall clock with gettimeofday as a record does. The *_Fixed
// variants stamp one fixed time so that only the key check and the copy of
// the cached pieces are timed.
#include <sys/time.h>

#include <ctime>

#include <benchmark/benchmark.h>

#include <zel/LoggingWrapper.h>
#include "internal/TimeStamp.h"

namespace {

using Zel::internal::LocalTimeCache;

// The cache as it was keyed before: recomputed only when the second changes.
class SecondKeyedCache {
 public:
  size_t write(char* out, const struct timeval& now) {
    if (now.tv_sec != _second) {
      _cache.refresh(now.tv_sec);
      _second = now.tv_sec;
    }
    return _cache.writeCached(out, static_cast<long>(now.tv_usec));
  }

 private:
  LocalTimeCache _cache;
  time_t _second = -1;
};

template <typename Cache>
void stampWithClock(benchmark::State& state) {
  Cache cache;
  char out[LocalTimeCache::kMaxStampLength];
  for (auto _ : state) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    benchmark::DoNotOptimize(cache.write(out, now));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}

template <typename Cache>
void stampFixed(benchmark::State& state) {
  Cache cache;
  char out[LocalTimeCache::kMaxStampLength];
  struct timeval now;
  gettimeofday(&now, nullptr);
  for (auto _ : state) {
    benchmark::DoNotOptimize(now);
    benchmark::DoNotOptimize(cache.write(out, now));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_TimeStamp_ZoneKeyed(benchmark::State& state) { stampWithClock<LocalTimeCache>(state); }
void BM_TimeStamp_SecondKeyed(benchmark::State& state) { stampWithClock<SecondKeyedCache>(state); }
void BM_TimeStamp_ZoneKeyed_Fixed(benchmark::State& state) { stampFixed<LocalTimeCache>(state); }
void BM_TimeStamp_SecondKeyed_Fixed(benchmark::State& state) { stampFixed<SecondKeyedCache>(state); }

void BM_TimeStamp_FillInTimeStr(benchmark::State& state) {
  char buffer[30];
  for (auto _ : state) {
    benchmark::DoNotOptimize(Zel::fill_in_time_str(buffer, sizeof(buffer)));
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_TimeStamp_ZoneKeyed);
BENCHMARK(BM_TimeStamp_SecondKeyed);
BENCHMARK(BM_TimeStamp_ZoneKeyed_Fixed);
BENCHMARK(BM_TimeStamp_SecondKeyed_Fixed);
BENCHMARK(BM_TimeStamp_FillInTimeStr);

}  // namespace
