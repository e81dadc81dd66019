// worker.cpp - hand work to a worker thread and collect its results, both
// sides waiting with poll() on the queues' pipe descriptors.
//
//   ./example_worker
//
// A Zel::ThreadWPipes is a Poco::Thread with two queues: the input (work for
// the worker) and the output (results for us). Every push makes the queue's
// read descriptor readable, so a thread can wait for messages with poll()
// next to its other descriptors, then take everything queued with one pop.
// Whoever pops a batch owns it: the list and every message in it.
#include <poll.h>

#include <Poco/Runnable.h>

#include <cerrno>
#include <cstdio>
#include <list>
#include <memory>

#include <zel/ThreadWPipes.h>

namespace {

// Message kinds of this program; the library defines none of its own.
const Zel::MessageTypeT MsgSquare = static_cast<Zel::MessageTypeT>(1);
const Zel::MessageTypeT MsgResult = static_cast<Zel::MessageTypeT>(2);
const Zel::MessageTypeT MsgStop = static_cast<Zel::MessageTypeT>(3);

struct NumberMessage : Zel::PipeMessage {
  NumberMessage(Zel::MessageTypeT type, long number) : Zel::PipeMessage(type), number(number) {}
  long number;
};

typedef std::unique_ptr<std::list<Zel::PipeMessage*>> Batch;

// Waits until fd is readable; false after 5 s without news.
bool waitReadable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  int ready;
  do ready = ::poll(&entry, 1, 5000);
  while (ready < 0 && errno == EINTR);
  return ready > 0;
}

// The worker: squares numbers until it is told to stop.
class Squarer : public Poco::Runnable {
 public:
  explicit Squarer(Zel::ThreadWPipes& thread) : _thread(thread) {}

  void run() override {
    bool stop = false;
    while (!stop && waitReadable(_thread.getInputReadFD())) {
      Batch batch(_thread.popFromInput());
      if (!batch) continue;  // nothing queued (yet)
      for (Zel::PipeMessage* message : *batch) {
        if (message->messageType == MsgStop) stop = true;
        if (message->messageType != MsgSquare) continue;
        long n = static_cast<NumberMessage*>(message)->number;
        _thread.pushToOutput(new NumberMessage(MsgResult, n * n));
      }
      Zel::ThreadWPipes::removeMessages(batch.get());  // deletes the messages; the Batch deletes the list
    }
  }

 private:
  Zel::ThreadWPipes& _thread;
};

}  // namespace

int main() {
  Zel::ThreadWPipes worker;
  Squarer squarer(worker);
  worker.start(squarer);

  const int count = 5;
  for (int i = 1; i <= count; ++i) worker.pushToInput(new NumberMessage(MsgSquare, i));
  // The priority path: queued in front of everything not yet popped.
  worker.pushPrioToInput(new NumberMessage(MsgSquare, 100));
  worker.pushToInput(new Zel::PipeMessage(MsgStop));

  int received = 0;
  while (received < count + 1) {
    if (!waitReadable(worker.getOutputReadFD())) {
      std::fprintf(stderr, "no answer from the worker\n");
      return 1;
    }
    Batch batch(worker.popFromOutput());
    if (!batch) continue;
    std::printf("batch of %zu result(s):", batch->size());
    for (Zel::PipeMessage* message : *batch) std::printf(" %ld", static_cast<NumberMessage*>(message)->number);
    std::printf("\n");
    received += static_cast<int>(batch->size());
    Zel::ThreadWPipes::removeMessages(batch.get());
  }
  worker.join();  // the worker ends after MsgStop; join before destroying it
  std::printf("%d results, worker joined\n", received);
  return 0;
}
