// PipeExtBench.cpp - Zel::PipeExt next to two other ways of waking the
// consumer of the same queue, with one producer and one consumer thread.
//
//   PipeExt   Zel::PipeExt: list under a mutex, one byte per message written
//             to a pipe under that mutex; the consumer polls the read
//             descriptor, then pop() takes every message and drains the pipe
//   Eventfd   the same list under a mutex, woken through an eventfd (one
//             8-byte add per message, under the mutex); the consumer polls it,
//             then takes every message and resets the counter
//   CondVar   the same list under a std::mutex, woken by
//             std::condition_variable::notify_one; the consumer waits on it
//
// BM_QueueThroughput_<X>: the producer pushes 100 000 preallocated messages
//   as fast as it can while the consumer takes them in batches; the time runs
//   until the consumer has taken the last one. items_per_second is messages/s.
// BM_QueueWakeUp_<X>: the producer stamps one message, pushes it and waits
//   until the consumer has taken it, then pauses briefly so the consumer is
//   asleep again before the next one. The measured time is the stamp-to-taken
//   latency; counters p50_us and p99_us give its median and 99th percentile.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <zel/PipeExt.h>

namespace {

typedef std::chrono::steady_clock SteadyClock;

const Zel::MessageTypeT kBenchMessage = static_cast<Zel::MessageTypeT>(1);

struct StampedMessage : Zel::PipeMessage {
  StampedMessage() : Zel::PipeMessage(kBenchMessage) {}
  SteadyClock::time_point stamp;
  bool last = false;
};

int64_t nanosecondsSince(SteadyClock::time_point then) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - then).count();
}

// The library's queue: the consumer waits on the pipe's read descriptor.
class PipeExtQueue {
 public:
  void push(Zel::PipeMessage* message) { _queue.push(message); }
  // Blocks until there is something, then moves everything into `out`.
  void waitAndTake(std::vector<Zel::PipeMessage*>& out) {
    for (;;) {
      struct pollfd entry = {_queue.readHandle(), POLLIN, 0};
      poll(&entry, 1, -1);
      std::list<Zel::PipeMessage*>* taken = _queue.pop();
      if (taken == nullptr) continue;
      out.insert(out.end(), taken->begin(), taken->end());
      delete taken;
      return;
    }
  }

 private:
  Zel::PipeExt _queue;
};

// The same list and lock, woken through an eventfd.
class EventfdQueue {
 public:
  EventfdQueue() : _fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
  ~EventfdQueue() { close(_fd); }
  void push(Zel::PipeMessage* message) {
    std::lock_guard<std::mutex> guard(_mutex);
    _messages.push_back(message);
    const uint64_t one = 1;
    if (write(_fd, &one, sizeof(one)) != sizeof(one)) std::abort();
  }
  void waitAndTake(std::vector<Zel::PipeMessage*>& out) {
    for (;;) {
      struct pollfd entry = {_fd, POLLIN, 0};
      poll(&entry, 1, -1);
      std::lock_guard<std::mutex> guard(_mutex);
      uint64_t count = 0;
      if (read(_fd, &count, sizeof(count)) < 0) count = 0;  // reset the counter
      if (_messages.empty()) continue;
      out.insert(out.end(), _messages.begin(), _messages.end());
      _messages.clear();
      return;
    }
  }

 private:
  int _fd;
  std::mutex _mutex;
  std::list<Zel::PipeMessage*> _messages;
};

// The same list, woken through a condition variable.
class CondVarQueue {
 public:
  void push(Zel::PipeMessage* message) {
    {
      std::lock_guard<std::mutex> guard(_mutex);
      _messages.push_back(message);
    }
    _nonEmpty.notify_one();
  }
  void waitAndTake(std::vector<Zel::PipeMessage*>& out) {
    std::unique_lock<std::mutex> lock(_mutex);
    _nonEmpty.wait(lock, [this] { return !_messages.empty(); });
    out.insert(out.end(), _messages.begin(), _messages.end());
    _messages.clear();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _nonEmpty;
  std::list<Zel::PipeMessage*> _messages;
};

template <class Queue>
void BM_QueueThroughput(benchmark::State& state) {
  const size_t kMessages = 100000;
  std::vector<StampedMessage> messages(kMessages);
  Queue queue;
  for (auto _ : state) {
    const SteadyClock::time_point begin = SteadyClock::now();
    std::thread consumer([&queue] {
      std::vector<Zel::PipeMessage*> taken;
      taken.reserve(kMessages);
      while (taken.size() < kMessages) queue.waitAndTake(taken);
      benchmark::DoNotOptimize(taken.data());
    });
    for (StampedMessage& message : messages) queue.push(&message);
    consumer.join();
    state.SetIterationTime(static_cast<double>(nanosecondsSince(begin)) / 1e9);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kMessages));
}

template <class Queue>
void BM_QueueWakeUp(benchmark::State& state) {
  Queue queue;
  std::atomic<int64_t> latency(-1);  // written by the consumer, -1 while waiting
  std::vector<double> samples;
  std::thread consumer([&queue, &latency] {
    std::vector<Zel::PipeMessage*> taken;
    for (;;) {
      taken.clear();
      queue.waitAndTake(taken);
      for (Zel::PipeMessage* message : taken) {
        StampedMessage* stamped = static_cast<StampedMessage*>(message);
        if (stamped->last) return;
        latency.store(nanosecondsSince(stamped->stamp), std::memory_order_release);
      }
    }
  });
  StampedMessage message;
  for (auto _ : state) {
    latency.store(-1, std::memory_order_relaxed);
    message.stamp = SteadyClock::now();
    queue.push(&message);
    int64_t measured;
    while ((measured = latency.load(std::memory_order_acquire)) < 0) std::this_thread::yield();
    state.SetIterationTime(static_cast<double>(measured) / 1e9);
    samples.push_back(static_cast<double>(measured) / 1000.0);
    // Let the consumer go back to sleep, so every message has to wake it.
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  StampedMessage last;
  last.last = true;
  queue.push(&last);
  consumer.join();

  std::sort(samples.begin(), samples.end());
  if (!samples.empty()) {
    state.counters["p50_us"] = samples[samples.size() / 2];
    state.counters["p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
  }
}

void BM_QueueThroughput_PipeExt(benchmark::State& state) { BM_QueueThroughput<PipeExtQueue>(state); }
void BM_QueueThroughput_Eventfd(benchmark::State& state) { BM_QueueThroughput<EventfdQueue>(state); }
void BM_QueueThroughput_CondVar(benchmark::State& state) { BM_QueueThroughput<CondVarQueue>(state); }
void BM_QueueWakeUp_PipeExt(benchmark::State& state) { BM_QueueWakeUp<PipeExtQueue>(state); }
void BM_QueueWakeUp_Eventfd(benchmark::State& state) { BM_QueueWakeUp<EventfdQueue>(state); }
void BM_QueueWakeUp_CondVar(benchmark::State& state) { BM_QueueWakeUp<CondVarQueue>(state); }

BENCHMARK(BM_QueueThroughput_PipeExt)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueueThroughput_Eventfd)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueueThroughput_CondVar)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueueWakeUp_PipeExt)->UseManualTime()->Iterations(3000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QueueWakeUp_Eventfd)->UseManualTime()->Iterations(3000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QueueWakeUp_CondVar)->UseManualTime()->Iterations(3000)->Unit(benchmark::kMicrosecond);

}  // namespace
