// Records that must survive the end of the process: killed right after a
// critical record, after a second of quiet logging, at exit(), at a failed
// Timer check, and at a fatal signal with the opt-in crash flush.
//
// Every case runs in a real child process that ends the way the case says;
// the parent then reads the log file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <zel/LoggingWrapper.h>
#include <zel/Timer.h>
#include "support/Processes.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelTest::readFile;

std::string recordText(int number) { return "crash record " + std::to_string(number); }

bool holdsRecord(const std::string& text, const std::string& tag, int number) {
  return text.find(" " + tag + " crashTest                 " + recordText(number) + "\n") != std::string::npos;
}

// Tells the parent that the child got this far, so the parent can kill it.
void signalReady(int fd) {
  const char byte = 'r';
  (void)::write(fd, &byte, 1);
}

void waitReady(int fd) {
  char byte;
  while (::read(fd, &byte, 1) < 0) {
  }
}

class LoggingCrashTest : public ZelTest::TempDirTest {
 protected:
  std::string liveFile() const { return tmp.file("zel.log"); }
};

TEST_F(LoggingCrashTest, SigkillRightAfterACriticalRecordLosesNothingBeforeIt) {
  int ready[2];
  ASSERT_EQ(0, ::pipe(ready));
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    for (int n = 1; n <= 1000; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    w->log_printf("crashTest", 2, 1, "%s", recordText(1001).c_str());
    signalReady(ready[1]);
    for (;;) pause();
  });
  ASSERT_GT(child, 0);
  waitReady(ready[0]);
  ASSERT_EQ(0, ::kill(child, SIGKILL));
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 1000; ++n) ASSERT_TRUE(holdsRecord(text, "IN", n)) << n;
  EXPECT_TRUE(holdsRecord(text, "CR", 1001));
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(LoggingCrashTest, EveryLevelFromZeroToTwoIsWrittenBeforeLogPrintfReturns) {
  int ready[2];
  ASSERT_EQ(0, ::pipe(ready));
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    const char* tags[] = {"EM", "AL", "CR"};
    for (unsigned level = 0; level <= 2; ++level) {
      w->log_printf("crashTest", 3, 1, "%s", recordText(static_cast<int>(2 * level)).c_str());
      w->log_printf("crashTest", level, 1, "%s", recordText(static_cast<int>(2 * level + 1)).c_str());
      const std::string text = readFile(dir + "/zel.log");
      if (!holdsRecord(text, "ER", static_cast<int>(2 * level)) ||
          !holdsRecord(text, tags[level], static_cast<int>(2 * level + 1)))
        _exit(1);
    }
    // A record of level 3 alone stays buffered.
    w->log_printf("crashTest", 3, 1, "%s", recordText(6).c_str());
    _exit(holdsRecord(readFile(dir + "/zel.log"), "ER", 6) ? 2 : 0);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(LoggingCrashTest, SigkillLosesAtMostTheLastSecondOfAProcessThatKeepsLogging) {
  int ready[2];
  ASSERT_EQ(0, ::pipe(ready));
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    for (int n = 1; n <= 10; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    usleep(1100 * 1000);
    // The oldest buffered record is now more than a second old: this one
    // writes them all, itself included.
    w->log_printf("crashTest", 6, 1, "%s", recordText(11).c_str());
    signalReady(ready[1]);
    for (;;) pause();
  });
  waitReady(ready[0]);
  ASSERT_EQ(0, ::kill(child, SIGKILL));
  (void)ZelTest::waitStatus(child);
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 11; ++n) EXPECT_TRUE(holdsRecord(text, "IN", n)) << n;
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(LoggingCrashTest, ExitWritesEveryBufferedRecord) {
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    for (int n = 1; n <= 100; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    std::exit(0);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFEXITED(status));
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 100; ++n) EXPECT_TRUE(holdsRecord(text, "IN", n)) << n;
}

TEST_F(LoggingCrashTest, ForkedChildThatExitsDoesNotWriteItsParentsRecordsAgain) {
  const std::string dir = tmp.path();
  const pid_t parent = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    for (int n = 1; n <= 3; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    const pid_t child = ::fork();  // a plain fork: nothing flushed before it
    if (child == 0) {
      w->log_printf("crashTest", 6, 1, "%s", recordText(4).c_str());
      std::exit(0);  // writes the child's own record only
    }
    (void)ZelTest::waitStatus(child);
    std::exit(0);
  });
  (void)ZelTest::waitStatus(parent);
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 4; ++n) {
    const std::string line = " IN crashTest                 " + recordText(n) + "\n";
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
    EXPECT_EQ(1u, count) << n << "\n" << text;
  }
}

TEST_F(LoggingCrashTest, PublicFlushWritesEveryBufferedRecord) {
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    for (int n = 1; n <= 5; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    if (holdsRecord(readFile(dir + "/zel.log"), "IN", 1)) _exit(2);  // still buffered
    w->flush();
    const std::string text = readFile(dir + "/zel.log");
    for (int n = 1; n <= 5; ++n)
      if (!holdsRecord(text, "IN", n)) _exit(1);
    _exit(0);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(LoggingCrashTest, FailedTimerCheckWritesTheAssertionAndEverythingBeforeItThenAborts) {
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    for (const char* name : {"ZEL_LOGGING_FNAME", "ZEL_LOGGING_LEVEL", "ZEL_LOGGING_FMAXSIZE",
                             "ZEL_LOGGING_FMAXCOUNT", "TAV_ENV", "ZEL_LOGGING_CRASH_FLUSH"})
      unsetenv(name);
    setenv("TMPDIR", dir.c_str(), 1);
    LoggingWrapper* logger = LoggingWrapper::getInstance();
    for (int n = 1; n <= 5; ++n) logger->log_printf("crashTest", 3, 1, "%s", recordText(n).c_str());
    ::close(2);  // the C library's assertion message is not this test's output
    Zel::Timer timer(-1, 0);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 5; ++n) EXPECT_TRUE(holdsRecord(text, "ER", n)) << n << text;
  EXPECT_NE(std::string::npos,
            text.find(" CR Timer                     Assertion failed: startInterval >= 0 && periodicInterval >= 0\n"))
      << text;
}

// The signal ends the child: with the previous disposition (the default)
// restored, the re-raised SIGSEGV kills it.
TEST_F(LoggingCrashTest, SigsegvWithTheCrashFlushOptInWritesThePendingRecords) {
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    signal(SIGSEGV, SIG_DFL);  // whatever a sanitizer runtime put there
    LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_CRASH_FLUSH", "1"}});
    for (int n = 1; n <= 10; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    raise(SIGSEGV);
    _exit(3);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 10; ++n) EXPECT_TRUE(holdsRecord(text, "IN", n)) << n;
}

// A handler the host installed before keeps working: it runs after the
// records are written.
void hostHandler(int) { _exit(42); }

TEST_F(LoggingCrashTest, CrashFlushRunsThePreviousHandlerAfterwards) {
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    signal(SIGBUS, &hostHandler);
    LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_CRASH_FLUSH", "1"}});
    for (int n = 1; n <= 3; ++n) w->log_printf("crashTest", 6, 1, "%s", recordText(n).c_str());
    raise(SIGBUS);
    _exit(3);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(42, WEXITSTATUS(status));
  const std::string text = readFile(liveFile());
  for (int n = 1; n <= 3; ++n) EXPECT_TRUE(holdsRecord(text, "IN", n)) << n;
}

TEST_F(LoggingCrashTest, WithoutTheOptInNoSignalHandlerIsInstalled) {
  const std::string dir = tmp.path();
  const pid_t child = ZelTest::startProcess([&] {
    const int signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
    struct sigaction before[5];
    for (int i = 0; i < 5; ++i) sigaction(signals[i], nullptr, &before[i]);
    LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_CRASH_FLUSH", "0"}});
    w->log_printf("crashTest", 6, 1, "%s", recordText(1).c_str());
    LoggingWrapper* v = ZelTest::makeWrapper(dir);
    v->log_printf("crashTest", 6, 1, "%s", recordText(2).c_str());
    for (int i = 0; i < 5; ++i) {
      struct sigaction after;
      if (sigaction(signals[i], nullptr, &after) != 0 || after.sa_handler != before[i].sa_handler) _exit(1);
    }
    _exit(0);
  });
  const int status = ZelTest::waitStatus(child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
