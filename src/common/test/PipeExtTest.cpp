// Tests of Zel::PipeExt: queue order, the wake-up bytes in the pipe, the drain
// and its trace, descriptor flags, write failures, concurrent producers, and
// pushes beyond the pipe's capacity (also as an unprivileged user).
#include <zel/PipeExt.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/ChildProcess.h"
#include "support/Fakes.h"
#include "support/TempDir.h"

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

TEST(PipeExt, PipeKeepsTheSizeTheKernelGaveIt) {
  // Not raised: a queue costs the user's pipe allowance what a plain pipe does.
  int plain[2];
  ASSERT_EQ(0, pipe(plain));
  const int plainSize = fcntl(plain[1], F_GETPIPE_SZ);
  close(plain[0]);
  close(plain[1]);
  Zel::PipeExt queue;
  EXPECT_EQ(plainSize, fcntl(queue.writeHandle(), F_GETPIPE_SZ));
}

// Pushes `count` messages numbered from `first` on a thread of its own and
// waits for it at most `limit`; false when the pushes did not finish (a push
// blocked). The thread is then left behind, blocked: callers in the test
// process itself unblock it before failing, children simply exit.
bool pushAllWithin(Zel::PipeExt& queue, std::vector<NumberedMessage>& messages, std::chrono::seconds limit,
                   std::atomic<int>& pushed, std::future<void>& producer) {
  producer = std::async(std::launch::async, [&queue, &messages, &pushed] {
    for (NumberedMessage& message : messages) {
      queue.push(&message);
      pushed.fetch_add(1, std::memory_order_relaxed);
    }
  });
  return producer.wait_for(limit) == std::future_status::ready;
}

// Unblocks a producer stuck in a push before the test fails: reads the pipe
// (without blocking) until the producer is done.
void drainUntilDone(Zel::PipeExt& queue, std::future<void>& producer) {
  fcntl(queue.readHandle(), F_SETFL, O_NONBLOCK);
  char buffer[4096];
  while (producer.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
    while (read(queue.readHandle(), buffer, sizeof(buffer)) > 0) {
    }
  producer.wait();
}

std::vector<NumberedMessage> numbered(int count) {
  std::vector<NumberedMessage> messages;
  messages.reserve(count);
  for (int i = 0; i < count; ++i) messages.emplace_back(i);
  return messages;
}

// True when `popped` holds exactly messages 0 .. count-1 in order; deletes the list.
bool allInOrder(std::list<Zel::PipeMessage*>* popped, int count) {
  if (popped == nullptr) return count == 0;
  bool inOrder = popped->size() == static_cast<size_t>(count);
  int expected = 0;
  for (Zel::PipeMessage* message : *popped) inOrder = inOrder && static_cast<NumberedMessage*>(message)->number == expected++;
  delete popped;
  return inOrder;
}

TEST(PipeExt, PushesBeyondTheCapacityNeitherBlockNorLoseAnyAndKeepThePipeReadable) {
  Zel::PipeExt queue;
  const int capacity = fcntl(queue.writeHandle(), F_GETPIPE_SZ);
  ASSERT_GT(capacity, 0);
  const int count = capacity + 10000;
  std::vector<NumberedMessage> messages = numbered(count);

  // No consumer while pushing. The pushes run on a thread of their own so a
  // push that blocks fails the test instead of hanging it.
  std::atomic<int> pushed(0);
  std::future<void> producer;
  if (!pushAllWithin(queue, messages, std::chrono::seconds(120), pushed, producer)) {
    const int stuckAt = pushed.load();
    drainUntilDone(queue, producer);
    FAIL() << "push blocked after " << stuckAt << " of " << count << " messages";
  }
  producer.get();

  // One byte for each message up to the capacity, none beyond it.
  EXPECT_EQ(capacity, bytesInPipe(queue.readHandle()));
  EXPECT_TRUE(readable(queue.readHandle()));
  EXPECT_TRUE(allInOrder(queue.pop(), count));
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  EXPECT_FALSE(readable(queue.readHandle()));

  // Drained: every push writes its byte again.
  MessagePool pool;
  queue.push(pool.make(1));
  queue.push(pool.make(2));
  EXPECT_EQ(2, bytesInPipe(queue.readHandle()));
  EXPECT_EQ((std::vector<int>{1, 2}), numbersOf(queue.pop()));
}

TEST(PipeExt, DirectSignalsStopAtTheCapacityToo) {
  Zel::PipeExt queue;
  const int capacity = fcntl(queue.writeHandle(), F_GETPIPE_SZ);
  std::future<void> signaller = std::async(std::launch::async, [&queue, capacity] {
    for (int i = 0; i < capacity + 100; ++i) queue.signal();
  });
  if (signaller.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
    drainUntilDone(queue, signaller);
    FAIL() << "signal() blocked on a full pipe";
  }
  EXPECT_EQ(capacity, bytesInPipe(queue.readHandle()));
  queue.clear();
  EXPECT_EQ(0, bytesInPipe(queue.readHandle()));
  queue.signal();
  EXPECT_EQ(1, bytesInPipe(queue.readHandle())) << "the drain reset the count";
  queue.clear();
}

// Ends a child process with a failure: threads still blocked in the queue
// are left to the exit.
[[noreturn]] void failChild(const std::string& problem) {
  std::fprintf(stderr, "%s\n", problem.c_str());
  std::fflush(stderr);
  _exit(1);
}

// In a child process: a burst of `count` messages into `queue` while a
// consumer that works `workMs` per pop takes them. A deadlock shows as the
// burst not arriving within a minute and fails the child.
void burstWithSlowConsumer(Zel::PipeExt& queue, int count, int workMs) {
  std::vector<NumberedMessage> messages = numbered(count);
  std::atomic<int> received(0);
  std::atomic<bool> inOrder(true);
  std::thread consumer([&] {
    int expected = 0;
    while (received.load() < count) {
      struct pollfd entry = {queue.readHandle(), POLLIN, 0};
      if (poll(&entry, 1, 1000) != 1) continue;
      std::list<Zel::PipeMessage*>* popped = queue.pop();
      if (popped == nullptr) continue;
      for (Zel::PipeMessage* message : *popped)
        if (static_cast<NumberedMessage*>(message)->number != expected++) inOrder = false;
      received.fetch_add(static_cast<int>(popped->size()));
      delete popped;
      std::this_thread::sleep_for(std::chrono::milliseconds(workMs));
    }
  });
  std::atomic<int> pushed(0);
  std::future<void> producer;
  const bool pushedAll = pushAllWithin(queue, messages, std::chrono::seconds(60), pushed, producer);
  for (int waited = 0; pushedAll && received.load() < count && waited < 60000; waited += 10)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!pushedAll || received.load() != count)
    failChild("stuck: " + std::to_string(pushed.load()) + " of " + std::to_string(count) + " pushed, " +
              std::to_string(received.load()) + " received");
  consumer.join();
  producer.get();
  if (!inOrder) failChild("messages out of order");
  if (queue.pop() != nullptr) failChild("messages left over");
}

TEST(PipeExt, BurstIntoAFullPipeWithASlowConsumerDeliversEverything) {
  // The consumer pops every 20 ms; between pops the burst fills the pipe
  // many times over. Run in a child so that a deadlock fails the test
  // instead of leaving blocked threads in the test process.
  EXPECT_EXIT(
      {
        Zel::PipeExt queue;
        burstWithSlowConsumer(queue, 200000, 20);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// --- an unprivileged user with many queues ----------------------------------

// Set in the environment of the unprivileged copy of this test program.
const char kUnprivilegedChildVariable[] = "ZEL_TEST_PIPEEXT_UNPRIVILEGED_CHILD";
const char kUnprivilegedTest[] = "PipeExt.UnprivilegedUserWithManyQueuesNeverBlocksABurst";

// In a child process of an unprivileged user: with 200 queues of that user
// open, a burst of 200 000 messages into the last one with no consumer, then
// the same burst with a consumer that works 20 ms per pop.
void manyQueuesBurst() {
  const int kQueues = 200;
  const int kBurst = 200000;
  std::vector<std::unique_ptr<Zel::PipeExt>> queues;
  for (int i = 0; i < kQueues; ++i) queues.emplace_back(new Zel::PipeExt());
  Zel::PipeExt& last = *queues.back();

  std::vector<NumberedMessage> messages = numbered(kBurst);
  std::atomic<int> pushed(0);
  std::future<void> producer;
  if (!pushAllWithin(last, messages, std::chrono::seconds(60), pushed, producer))
    failChild("push blocked without a consumer after " + std::to_string(pushed.load()) + " of " +
              std::to_string(kBurst) + " messages (pipe of " +
              std::to_string(fcntl(last.writeHandle(), F_GETPIPE_SZ)) + " bytes)");
  producer.get();
  if (!readable(last.readHandle())) failChild("the full pipe is not readable");
  if (!allInOrder(last.pop(), kBurst)) failChild("the burst did not pop whole and in order");

  burstWithSlowConsumer(last, kBurst, 20);
}

// Runs this test program again as user and group 65534 (nobody), without
// supplementary groups, limited to the one test; returns its exit status (-1
// when it had to be killed after `limitSeconds`) and its output.
int runUnprivilegedCopy(const std::string& tmpdir, int limitSeconds, std::string& output) {
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return -2;
  self[length] = '\0';
  int out[2];
  if (pipe(out) != 0) return -2;
  const pid_t child = fork();
  if (child < 0) return -2;
  if (child == 0) {
    dup2(out[1], 1);
    dup2(out[1], 2);
    close(out[0]);
    close(out[1]);
    setenv(kUnprivilegedChildVariable, "1", 1);
    setenv("TMPDIR", tmpdir.c_str(), 1);
    const std::string filter = std::string("--gtest_filter=") + kUnprivilegedTest;
    execlp("setpriv", "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", self, filter.c_str(),
           static_cast<char*>(nullptr));
    std::perror("exec setpriv");
    _exit(127);
  }
  close(out[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
  bool killed = false;
  for (;;) {
    const long left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      kill(child, SIGKILL);
      killed = true;
      break;
    }
    struct pollfd entry = {out[0], POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(std::min(left, 1000L))) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(out[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    output.append(buffer, static_cast<size_t>(n));
  }
  close(out[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (killed) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(PipeExt, UnprivilegedUserWithManyQueuesNeverBlocksABurst) {
  // The unprivileged copy started below, or a test run by an ordinary user:
  // the check itself, in a child.
  if (std::getenv(kUnprivilegedChildVariable) != nullptr || geteuid() != 0) {
    ASSERT_NE(0u, geteuid()) << "the copy was to run unprivileged";
    EXPECT_EXIT(
        {
          manyQueuesBurst();
          _exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    return;
  }
  // Root's pipes are never limited: run the check as user and group nobody,
  // in a copy of this program started through setpriv.
  if (std::system("setpriv --version >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "setpriv is not available: cannot run the check as an unprivileged user";
  // The copy makes its own private directory below this one.
  ZelTest::TempDir tmp;
  ASSERT_EQ(0, chown(tmp.path().c_str(), 65534, 65534));
  ASSERT_EQ(0, chmod(ZelTest::testRoot().c_str(), 0711));
  std::string output;
  const int status = runUnprivilegedCopy(tmp.path(), 280, output);
  chmod(ZelTest::testRoot().c_str(), 0700);
  EXPECT_NE(-1, status) << "the unprivileged copy hung:\n" << output;
  EXPECT_EQ(0, status) << output;
  EXPECT_NE(std::string::npos, output.find("[  PASSED  ] 1 test")) << output;
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
