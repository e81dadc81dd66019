// Tests of Zel::PipeExt: queue order, the wake-up bytes in the pipe, the drain
// and its trace, descriptor flags, write failures, concurrent producers and
// the raised pipe capacity.
#include <zel/PipeExt.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/ChildProcess.h"
#include "support/Fakes.h"

namespace {

const Zel::MessageTypeT kTestType = static_cast<Zel::MessageTypeT>(7);

struct NumberedMessage : Zel::PipeMessage {
  explicit NumberedMessage(int number) : Zel::PipeMessage(kTestType), number(number) {}
  int number;
};

// Owns the messages of a test, so nothing leaks when an assertion fails; the
// queue only carries the pointers.
class MessagePool {
 public:
  NumberedMessage* make(int number) {
    _messages.emplace_back(new NumberedMessage(number));
    return _messages.back().get();
  }

 private:
  std::vector<std::unique_ptr<NumberedMessage>> _messages;
};

// The numbers of the popped messages, front first; deletes the list.
std::vector<int> numbersOf(std::list<Zel::PipeMessage*>* popped) {
  std::vector<int> numbers;
  if (popped == nullptr) return numbers;
  for (Zel::PipeMessage* message : *popped) numbers.push_back(static_cast<NumberedMessage*>(message)->number);
  delete popped;
  return numbers;
}

int bytesInPipe(int fd) {
  int count = -1;
  if (ioctl(fd, FIONREAD, &count) != 0) return -1;
  return count;
}

int statusFlags(int fd) { return fcntl(fd, F_GETFL); }

bool readable(int fd) {
  struct pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

long systemPipeMaxSize() {
  long size = -1;
  FILE* file = std::fopen("/proc/sys/fs/pipe-max-size", "r");
  if (file == nullptr) return size;
  if (std::fscanf(file, "%ld", &size) != 1) size = -1;
  std::fclose(file);
  return size;
}

// Observes the reports of the queue through a recording version 2 trace
// interface and a recording log interface set on the logging singleton.
class PipeExtReportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZelTest::FakeTraceV2::reset();
    ZelTest::FakeLogSpi::reset();
    Zel::LoggingWrapper::getInstance()->set_trace_spi(ZelTest::FakeTraceV2::spi());
    Zel::LoggingWrapper::getInstance()->set_log_spi(ZelTest::FakeLogSpi::spi());
  }
  void TearDown() override {
    Zel::LoggingWrapper::getInstance()->set_trace_spi(nullptr);
    Zel::LoggingWrapper::getInstance()->set_log_spi(nullptr);
    ZelTest::FakeTraceV2::reset();
    ZelTest::FakeLogSpi::reset();
  }
  static std::vector<ZelTest::FakeTraceV2::Call> traces() { return ZelTest::FakeTraceV2::calls(); }
  static void expectDrainTrace(const ZelTest::FakeTraceV2::Call& call) {
    EXPECT_EQ(Zel::Trace::Common, call.handle);
    EXPECT_EQ(14u, call.level);
    EXPECT_EQ("src/common/src/PipeExt", call.file);
    EXPECT_EQ(169u, call.line);
    EXPECT_EQ("clear", call.function);
    EXPECT_EQ("read returned %zd", call.format);
    EXPECT_EQ("read returned -1", call.text);
  }
};

TEST(PipeExt, NewQueueIsEmptyWithBlockingEnds) {
  Zel::PipeExt queue;
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(0, statusFlags(queue.readHandle()) & O_NONBLOCK);
  EXPECT_EQ(0, statusFlags(queue.writeHandle()) & O_NONBLOCK);
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  EXPECT_NE(queue.readHandle(), queue.writeHandle());
}

TEST(PipeExt, PopOnEmptyQueueReturnsNullAndLeavesPipeAndFlagsAlone) {
  Zel::PipeExt queue;
  // A byte that no message accounts for, and flags the drain would change.
  ASSERT_EQ(1, write(queue.writeHandle(), "x", 1));
  ASSERT_EQ(0, fcntl(queue.readHandle(), F_SETFL, O_APPEND));
  const int flagsBefore = statusFlags(queue.readHandle());

  EXPECT_EQ(nullptr, queue.pop());

  EXPECT_EQ(flagsBefore, statusFlags(queue.readHandle()));
  EXPECT_EQ(0, statusFlags(queue.readHandle()) & O_NONBLOCK);
  EXPECT_EQ(1, bytesInPipe(queue.readHandle()));
}

TEST(PipeExt, EachPushWritesOneByteS) {
  MessagePool pool;
  Zel::PipeExt queue;
  queue.push(pool.make(1));
  EXPECT_EQ(1, bytesInPipe(queue.readHandle()));
  queue.push_front(pool.make(2));
  EXPECT_EQ(2, bytesInPipe(queue.readHandle()));
  char bytes[2] = {0, 0};
  ASSERT_EQ(2, read(queue.readHandle(), bytes, sizeof(bytes)));
  EXPECT_EQ('s', bytes[0]);
  EXPECT_EQ('s', bytes[1]);
  EXPECT_EQ((std::vector<int>{2, 1}), numbersOf(queue.pop()));
}

TEST_F(PipeExtReportTest, ThreePushesPopInPushOrderAndDrainSilently) {
  MessagePool pool;
  Zel::PipeExt queue;
  queue.push(pool.make(1));
  queue.push(pool.make(2));
  queue.push(pool.make(3));
  EXPECT_FALSE(queue.empty());
  EXPECT_EQ(3, bytesInPipe(queue.readHandle()));

  std::list<Zel::PipeMessage*>* popped = queue.pop();
  ASSERT_NE(nullptr, popped);
  EXPECT_EQ(3u, popped->size());
  EXPECT_EQ((std::vector<int>{1, 2, 3}), numbersOf(popped));

  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(nullptr, queue.pop());
  EXPECT_TRUE(traces().empty()) << "a read of 3 bytes ends the drain without a trace";
}

TEST(PipeExt, PushFrontOvertakesQueuedMessages) {
  MessagePool pool;
  Zel::PipeExt queue;
  queue.push(pool.make('A'));
  queue.push_front(pool.make('B'));
  EXPECT_EQ((std::vector<int>{'B', 'A'}), numbersOf(queue.pop()));

  queue.push(pool.make(1));
  queue.push(pool.make(2));
  queue.push_front(pool.make(3));
  queue.push(pool.make(4));
  queue.push_front(pool.make(5));
  EXPECT_EQ((std::vector<int>{5, 3, 1, 2, 4}), numbersOf(queue.pop()));
}

TEST_F(PipeExtReportTest, DrainOf126BytesEndsInDebugTraceOfMinusOne) {
  MessagePool pool;
  Zel::PipeExt queue;
  for (int i = 0; i < 126; ++i) queue.push(pool.make(i));
  ASSERT_EQ(126, bytesInPipe(queue.readHandle()));

  EXPECT_EQ(126u, numbersOf(queue.pop()).size());

  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  const std::vector<ZelTest::FakeTraceV2::Call> calls = traces();
  ASSERT_EQ(1u, calls.size());
  expectDrainTrace(calls[0]);
}

TEST_F(PipeExtReportTest, DrainOfAnyMultipleOf126BytesTracesOnce) {
  MessagePool pool;
  Zel::PipeExt queue;
  for (int i = 0; i < 3 * 126; ++i) queue.push(pool.make(i));
  EXPECT_EQ(3u * 126u, numbersOf(queue.pop()).size());
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  const std::vector<ZelTest::FakeTraceV2::Call> calls = traces();
  ASSERT_EQ(1u, calls.size());
  expectDrainTrace(calls[0]);
}

TEST_F(PipeExtReportTest, DrainEndingInShortReadIsSilent) {
  MessagePool pool;
  Zel::PipeExt queue;
  for (int i = 0; i < 127; ++i) queue.push(pool.make(i));
  EXPECT_EQ(127u, numbersOf(queue.pop()).size());
  for (int i = 0; i < 125; ++i) queue.push(pool.make(i));
  EXPECT_EQ(125u, numbersOf(queue.pop()).size());
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  EXPECT_TRUE(traces().empty());
}

TEST_F(PipeExtReportTest, ClearOfEmptyPipeTracesMinusOne) {
  Zel::PipeExt queue;
  queue.clear();
  const std::vector<ZelTest::FakeTraceV2::Call> calls = traces();
  ASSERT_EQ(1u, calls.size());
  expectDrainTrace(calls[0]);
  EXPECT_TRUE(ZelTest::FakeLogSpi::calls().empty()) << "a drain trace is no error record";
}

TEST(PipeExt, ReadEndTurnsNonBlockingForEveryUserAfterFirstSuccessfulPop) {
  MessagePool pool;
  Zel::PipeExt queue;
  const int otherUser = dup(queue.readHandle());
  ASSERT_GE(otherUser, 0);
  EXPECT_EQ(0, statusFlags(otherUser) & O_NONBLOCK);

  EXPECT_EQ(nullptr, queue.pop());
  EXPECT_EQ(0, statusFlags(queue.readHandle()) & O_NONBLOCK) << "an empty pop changes nothing";

  queue.push(pool.make(1));
  EXPECT_EQ(1u, numbersOf(queue.pop()).size());

  EXPECT_NE(0, statusFlags(queue.readHandle()) & O_NONBLOCK);
  EXPECT_NE(0, statusFlags(otherUser) & O_NONBLOCK);
  EXPECT_EQ(0, statusFlags(queue.writeHandle()) & O_NONBLOCK) << "the write end stays blocking";
  // Non-blocking now: a read of the empty pipe returns at once.
  char byte;
  EXPECT_EQ(-1, read(otherUser, &byte, 1));
  EXPECT_EQ(EAGAIN, errno);
  close(otherUser);
}

TEST(PipeExt, EveryDrainSetsReadFlagsToExactlyNonBlocking) {
  MessagePool pool;
  Zel::PipeExt queue;
  ASSERT_EQ(0, fcntl(queue.readHandle(), F_SETFL, O_APPEND));
  queue.push(pool.make(1));
  EXPECT_EQ((std::vector<int>{1}), numbersOf(queue.pop()));
  EXPECT_EQ(O_NONBLOCK, statusFlags(queue.readHandle()) & (O_APPEND | O_NONBLOCK));

  // Made blocking again by another user: the next drain sets it back.
  ASSERT_EQ(0, fcntl(queue.readHandle(), F_SETFL, O_APPEND));
  queue.push(pool.make(2));
  EXPECT_EQ((std::vector<int>{2}), numbersOf(queue.pop()));
  EXPECT_EQ(O_NONBLOCK, statusFlags(queue.readHandle()) & (O_APPEND | O_NONBLOCK));
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
}

TEST_F(PipeExtReportTest, FailedSignalWriteIsReportedAndMessageStaysQueued) {
  MessagePool pool;
  Zel::PipeExt queue;
  // Replace the write descriptor with a read-only one: write() fails with EBADF.
  ASSERT_EQ(queue.writeHandle(), dup2(queue.readHandle(), queue.writeHandle()));

  EXPECT_NO_THROW(queue.push(pool.make(42)));

  const std::vector<ZelTest::FakeTraceV2::Call> calls = traces();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(Zel::Trace::Common, calls[0].handle);
  EXPECT_EQ(3u, calls[0].level);
  EXPECT_EQ("src/common/src/PipeExt", calls[0].file);
  EXPECT_EQ(143u, calls[0].line);
  EXPECT_EQ("signal", calls[0].function);
  EXPECT_EQ("Failed to write signal. Errno %d", calls[0].format);
  EXPECT_EQ("Failed to write signal. Errno " + std::to_string(EBADF), calls[0].text);

  const std::vector<ZelTest::FakeLogSpi::Call> records = ZelTest::FakeLogSpi::calls();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(3u, records[0].level);
  EXPECT_EQ(1u, records[0].facility);
  const std::string paddedFunction = std::string("signal") + std::string(25 - 6, ' ');
  EXPECT_EQ(" " + paddedFunction + " Failed to write signal. Errno " + std::to_string(EBADF), records[0].text);

  // The message is still delivered. The pipe has no writer left, so the
  // drain's read returns 0 (end of file) and ends without a trace.
  EXPECT_FALSE(queue.empty());
  EXPECT_EQ((std::vector<int>{42}), numbersOf(queue.pop()));
  EXPECT_EQ(1u, traces().size());
}

TEST(PipeExt, ManyProducersAndOneConsumerLoseAndDuplicateNothing) {
  const int kProducers = 4;
  const int kPerProducer = 5000;
  Zel::PipeExt queue;
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&queue, p] {
      for (int i = 0; i < kPerProducer; ++i) queue.push(new NumberedMessage(p * kPerProducer + i));
    });
  }

  std::vector<int> timesSeen(kProducers * kPerProducer, 0);
  std::vector<int> lastOfProducer(kProducers, -1);
  int received = 0;
  bool inOrder = true;
  bool timedOut = false;
  while (received < kProducers * kPerProducer) {
    struct pollfd entry = {queue.readHandle(), POLLIN, 0};
    const int ready = poll(&entry, 1, 10000);
    if (ready == 0) {
      timedOut = true;
      break;
    }
    ASSERT_EQ(1, ready);
    std::list<Zel::PipeMessage*>* popped = queue.pop();
    ASSERT_NE(nullptr, popped) << "readable pipe without messages";
    for (Zel::PipeMessage* message : *popped) {
      const int number = static_cast<NumberedMessage*>(message)->number;
      ++timesSeen[number];
      const int producer = number / kPerProducer;
      if (number <= lastOfProducer[producer]) inOrder = false;
      lastOfProducer[producer] = number;
      ++received;
      delete message;
    }
    delete popped;
  }
  for (std::thread& producer : producers) producer.join();

  EXPECT_FALSE(timedOut) << "only " << received << " messages arrived";
  for (int number = 0; number < kProducers * kPerProducer; ++number)
    ASSERT_EQ(1, timesSeen[number]) << "message " << number;
  EXPECT_TRUE(inOrder) << "each producer's messages arrive in its push order";
  EXPECT_EQ(nullptr, queue.pop());
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
}

TEST(PipeExt, CapacityIsRaisedToTheSystemMaximum) {
  const long maximum = systemPipeMaxSize();
  ASSERT_GT(maximum, 0);
  Zel::PipeExt queue;
  const int capacity = fcntl(queue.writeHandle(), F_GETPIPE_SZ);
  if (geteuid() == 0) {
    EXPECT_EQ(maximum, capacity);  // root is never refused
  } else {
    EXPECT_GE(capacity, 65536);
    EXPECT_LE(capacity, maximum);
  }
}

TEST(PipeExt, QueueWorksWhenTheKernelRefusesTheRaise) {
  // An unprivileged user whose pipe quota is used up gets neither the raise
  // nor more than the smallest new pipes; the queue must still work.
  EXPECT_EXIT(
      {
        if (geteuid() == 0) CHILD_EXPECT(setgid(65534) == 0 && setuid(65534) == 0);
        std::vector<std::unique_ptr<Zel::PipeExt>> queues;
        for (int i = 0; i < 100; ++i) queues.emplace_back(new Zel::PipeExt());
        const int first = fcntl(queues.front()->writeHandle(), F_GETPIPE_SZ);
        const int last = fcntl(queues.back()->writeHandle(), F_GETPIPE_SZ);
        CHILD_EXPECT(first > 65536);
        CHILD_EXPECT(last > 0);
        CHILD_EXPECT(last < first);
        NumberedMessage message(5);
        queues.back()->push(&message);
        std::list<Zel::PipeMessage*>* popped = queues.back()->pop();
        CHILD_EXPECT(popped != nullptr && popped->size() == 1u && popped->front() == &message);
        delete popped;
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(PipeExt, PipeFullOfUnpoppedMessagesNeitherBlocksNorLosesAny) {
  Zel::PipeExt queue;
  const int capacity = fcntl(queue.writeHandle(), F_GETPIPE_SZ);
  ASSERT_GE(capacity, 65536);
  const int count = capacity;  // one byte per message: exactly what the pipe holds
  std::vector<NumberedMessage> messages;
  messages.reserve(count);
  for (int i = 0; i < count; ++i) messages.emplace_back(i);

  // No consumer while pushing. The pushes run on a thread of their own so a
  // push that blocks fails the test instead of hanging it.
  std::atomic<int> pushed(0);
  std::future<void> producer = std::async(std::launch::async, [&] {
    for (NumberedMessage& message : messages) {
      queue.push(&message);
      pushed.fetch_add(1, std::memory_order_relaxed);
    }
  });
  if (producer.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
    // Unblock the producer before failing: read the pipe dry until it is done.
    char buffer[4096];
    while (producer.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
      if (read(queue.readHandle(), buffer, sizeof(buffer)) <= 0) break;
    producer.wait();
    FAIL() << "push blocked after " << pushed.load() << " of " << count << " messages";
  }
  producer.get();

  EXPECT_EQ(count, bytesInPipe(queue.readHandle()));
  struct pollfd entry = {queue.writeHandle(), POLLOUT, 0};
  EXPECT_EQ(0, poll(&entry, 1, 0)) << "the pipe holds exactly its capacity";

  std::list<Zel::PipeMessage*>* popped = queue.pop();
  ASSERT_NE(nullptr, popped);
  ASSERT_EQ(static_cast<size_t>(count), popped->size());
  int expected = 0;
  bool inOrder = true;
  for (Zel::PipeMessage* message : *popped) inOrder = inOrder && static_cast<NumberedMessage*>(message)->number == expected++;
  delete popped;
  EXPECT_TRUE(inOrder);
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  EXPECT_FALSE(readable(queue.readHandle()));
}

TEST(PipeMessage, KeepsItsTypeAndIsDeletedThroughTheBase) {
  struct Counted : Zel::PipeMessage {
    explicit Counted(int* deaths) : Zel::PipeMessage(static_cast<Zel::MessageTypeT>(-3)), deaths(deaths) {}
    ~Counted() override { ++*deaths; }
    int* deaths;
  };
  int deaths = 0;
  Zel::PipeMessage* message = new Counted(&deaths);
  EXPECT_EQ(static_cast<Zel::MessageTypeT>(-3), message->messageType);
  delete message;
  EXPECT_EQ(1, deaths);
  static_assert(sizeof(Zel::MessageTypeT) == 4, "MessageTypeT is a 32-bit enumeration");
}

}  // namespace
