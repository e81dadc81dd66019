// Tests of Zel::ThreadWPipes: clean-up of queued messages, the priority path,
// the descriptors and a worker round trip.
#include <zel/ThreadWPipes.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <Poco/Runnable.h>

#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace {

const Zel::MessageTypeT kWork = static_cast<Zel::MessageTypeT>(1);
const Zel::MessageTypeT kQuit = static_cast<Zel::MessageTypeT>(2);

// Counts how often each message's destructor runs.
class DestructorLog {
 public:
  void died(int id) {
    std::lock_guard<std::mutex> guard(_mutex);
    ++_deaths[id];
  }
  int deathsOf(int id) {
    std::lock_guard<std::mutex> guard(_mutex);
    return _deaths.count(id) != 0 ? _deaths[id] : 0;
  }
  int total() {
    std::lock_guard<std::mutex> guard(_mutex);
    int sum = 0;
    for (const auto& entry : _deaths) sum += entry.second;
    return sum;
  }

 private:
  std::mutex _mutex;
  std::map<int, int> _deaths;
};

struct LoggedMessage : Zel::PipeMessage {
  LoggedMessage(DestructorLog* log, int id, Zel::MessageTypeT type = kWork)
      : Zel::PipeMessage(type), log(log), id(id) {}
  ~LoggedMessage() override { log->died(id); }
  DestructorLog* log;
  int id;
};

bool readable(int fd) {
  struct pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

bool waitReadable(int fd, int milliseconds) {
  struct pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, milliseconds) == 1 && (entry.revents & POLLIN) != 0;
}

// Ids of the popped messages, front first; deletes list and messages.
std::vector<int> takeIds(std::list<Zel::PipeMessage*>* popped) {
  std::vector<int> ids;
  if (popped == nullptr) return ids;
  for (Zel::PipeMessage* message : *popped) ids.push_back(static_cast<LoggedMessage*>(message)->id);
  Zel::ThreadWPipes::removeMessages(popped);
  delete popped;
  return ids;
}

TEST(ThreadWPipes, DestructionDeletesEveryQueuedMessageOnce) {
  DestructorLog log;
  {
    Zel::ThreadWPipes worker;
    worker.pushToInput(new LoggedMessage(&log, 1));
    worker.pushPrioToInput(new LoggedMessage(&log, 2));
    worker.pushToOutput(new LoggedMessage(&log, 3));
    EXPECT_EQ(0, log.total());
  }
  EXPECT_EQ(1, log.deathsOf(1));
  EXPECT_EQ(1, log.deathsOf(2));
  EXPECT_EQ(1, log.deathsOf(3));
  EXPECT_EQ(3, log.total());
}

TEST(ThreadWPipes, DestructionSkipsNullMessagesAndEmptyQueues) {
  DestructorLog log;
  {
    Zel::ThreadWPipes worker;
    worker.pushToOutput(nullptr);
    worker.pushToOutput(new LoggedMessage(&log, 9));
  }
  EXPECT_EQ(1, log.deathsOf(9));
  EXPECT_EQ(1, log.total());
  { Zel::ThreadWPipes idle; }  // both queues empty: nothing to pop
}

TEST(ThreadWPipes, PoppedMessagesBelongToTheCallerNotTheDestructor) {
  DestructorLog log;
  std::list<Zel::PipeMessage*>* popped = nullptr;
  {
    Zel::ThreadWPipes worker;
    worker.pushToInput(new LoggedMessage(&log, 1));
    popped = worker.popFromInput();
  }
  EXPECT_EQ(0, log.total());
  EXPECT_EQ((std::vector<int>{1}), takeIds(popped));
  EXPECT_EQ(1, log.deathsOf(1));
}

TEST(ThreadWPipes, PriorityMessageOvertakesQueuedInput) {
  DestructorLog log;
  Zel::ThreadWPipes worker;
  worker.pushToInput(new LoggedMessage(&log, 'A'));
  worker.pushPrioToInput(new LoggedMessage(&log, 'B'));
  EXPECT_EQ((std::vector<int>{'B', 'A'}), takeIds(worker.popFromInput()));
}

TEST(ThreadWPipes, QueuesAreSeparateAndEmptyPopsReturnNull) {
  DestructorLog log;
  Zel::ThreadWPipes worker;
  EXPECT_EQ(nullptr, worker.popFromInput());
  EXPECT_EQ(nullptr, worker.popFromOutput());
  worker.pushToInput(new LoggedMessage(&log, 1));
  worker.pushToOutput(new LoggedMessage(&log, 2));
  worker.pushToOutput(new LoggedMessage(&log, 3));
  EXPECT_EQ((std::vector<int>{2, 3}), takeIds(worker.popFromOutput()));
  EXPECT_EQ((std::vector<int>{1}), takeIds(worker.popFromInput()));
  EXPECT_EQ(nullptr, worker.popFromInput());
  EXPECT_EQ(nullptr, worker.popFromOutput());
}

TEST(ThreadWPipes, FourDescriptorsAreDistinctAndOpen) {
  Zel::ThreadWPipes worker;
  const std::set<int> fds = {worker.getInputReadFD(), worker.getInputWriteFD(), worker.getOutputReadFD(),
                             worker.getOutputWriteFD()};
  EXPECT_EQ(4u, fds.size());
  for (int fd : fds) EXPECT_GE(fcntl(fd, F_GETFD), 0) << "descriptor " << fd;
  EXPECT_EQ(O_RDONLY, fcntl(worker.getInputReadFD(), F_GETFL) & O_ACCMODE);
  EXPECT_EQ(O_WRONLY, fcntl(worker.getInputWriteFD(), F_GETFL) & O_ACCMODE);
  EXPECT_EQ(O_RDONLY, fcntl(worker.getOutputReadFD(), F_GETFL) & O_ACCMODE);
  EXPECT_EQ(O_WRONLY, fcntl(worker.getOutputWriteFD(), F_GETFL) & O_ACCMODE);
}

TEST(ThreadWPipes, ReadDescriptorOfASideBecomesReadableAfterOnePush) {
  DestructorLog log;
  Zel::ThreadWPipes worker;
  EXPECT_FALSE(readable(worker.getInputReadFD()));
  EXPECT_FALSE(readable(worker.getOutputReadFD()));

  worker.pushToInput(new LoggedMessage(&log, 1));
  EXPECT_TRUE(readable(worker.getInputReadFD()));
  EXPECT_FALSE(readable(worker.getOutputReadFD()));

  worker.pushToOutput(new LoggedMessage(&log, 2));
  EXPECT_TRUE(readable(worker.getOutputReadFD()));

  takeIds(worker.popFromInput());
  EXPECT_FALSE(readable(worker.getInputReadFD())) << "a pop drains the side's pipe";
  EXPECT_TRUE(readable(worker.getOutputReadFD()));
}

TEST(ThreadWPipes, RemoveMessagesDeletesEachMessageAndKeepsTheList) {
  DestructorLog log;
  std::list<Zel::PipeMessage*> messages = {new LoggedMessage(&log, 1), nullptr, new LoggedMessage(&log, 2)};
  Zel::ThreadWPipes::removeMessages(&messages);
  EXPECT_TRUE(messages.empty());
  EXPECT_EQ(1, log.deathsOf(1));
  EXPECT_EQ(1, log.deathsOf(2));
  std::list<Zel::PipeMessage*> none;
  Zel::ThreadWPipes::removeMessages(&none);
  EXPECT_TRUE(none.empty());
}

// The worker side of a round trip: waits on the input descriptor, answers
// every work message with a message of the same id on the output, ends on quit.
class EchoRunnable : public Poco::Runnable {
 public:
  EchoRunnable(Zel::ThreadWPipes& worker, DestructorLog& log) : _worker(worker), _log(log) {}
  void run() override {
    for (;;) {
      if (!waitReadable(_worker.getInputReadFD(), 10000)) return;
      std::list<Zel::PipeMessage*>* popped = _worker.popFromInput();
      if (popped == nullptr) continue;
      bool quit = false;
      for (Zel::PipeMessage* message : *popped) {
        if (message->messageType == kQuit) quit = true;
        else _worker.pushToOutput(new LoggedMessage(&_log, static_cast<LoggedMessage*>(message)->id + 1000));
      }
      Zel::ThreadWPipes::removeMessages(popped);
      delete popped;
      if (quit) return;
    }
  }

 private:
  Zel::ThreadWPipes& _worker;
  DestructorLog& _log;
};

TEST(ThreadWPipes, WorkerAnswersThroughTheOutputPipe) {
  DestructorLog log;
  Zel::ThreadWPipes worker;
  EchoRunnable echo(worker, log);
  worker.start(echo);
  std::vector<int> answers;
  bool answered = true;
  for (int id = 1; id <= 50 && answered; ++id) {
    worker.pushToInput(new LoggedMessage(&log, id));
    while (answered && answers.size() < static_cast<size_t>(id)) {
      answered = waitReadable(worker.getOutputReadFD(), 10000);
      for (int answer : takeIds(worker.popFromOutput())) answers.push_back(answer);
    }
  }
  // The worker is always ended and joined before the objects it uses go.
  worker.pushToInput(new LoggedMessage(&log, 0, kQuit));
  worker.join();
  ASSERT_TRUE(answered) << "no answer after " << answers.size() << " answers";
  ASSERT_EQ(50u, answers.size());
  for (int id = 1; id <= 50; ++id) EXPECT_EQ(id + 1000, answers[id - 1]);
  EXPECT_EQ(101, log.total());  // 50 requests, 50 answers, the quit message
}

}  // namespace
