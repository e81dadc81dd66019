// fork() from a process whose threads keep logging: the child can log at
// once and as often as it likes, and it holds nothing of its parent's that
// other processes wait for (the log directory's lock).
//
// Each case runs in a forked test process with a wrapper of its own on the
// test's temp dir, so the logging lock and the fork handlers are exercised
// the way a daemon meets them.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/ChildProcess.h"
#include "support/Processes.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelTest::readFile;

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

std::string allFiles(const std::string& dir) {
  std::string text;
  for (const std::string& name : ZelTest::listDir(dir)) text += readFile(dir + "/" + name);
  return text;
}

// Waits up to `seconds` for `pid`; kills it and returns -1 when it is still
// running then (a hung child).
int waitWithTimeout(pid_t pid, int seconds) {
  for (int i = 0; i < seconds * 100; ++i) {
    int status = 0;
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) return status;
    if (done < 0) return -2;
    ::usleep(10000);
  }
  ::kill(pid, SIGKILL);
  (void)::waitpid(pid, nullptr, 0);
  return -1;
}

// Threads that log until stopped, as a daemon's workers do.
class LoggingThreads {
 public:
  LoggingThreads(LoggingWrapper* w, int count, unsigned level) {
    for (int t = 0; t < count; ++t) {
      _threads.emplace_back([this, w, t, level] {
        for (long n = 0; !_stop.load(std::memory_order_relaxed); ++n)
          w->log_printf("worker", level, 1, "thread %d record %ld", t, n);
      });
    }
  }
  ~LoggingThreads() {
    _stop.store(true);
    for (std::thread& thread : _threads) thread.join();
  }

 private:
  std::atomic<bool> _stop{false};
  std::vector<std::thread> _threads;
};

// Forks children while four threads log flat out (the parent also rotates
// now and then). Each child logs ten records, flushes and exits.
// Returns the number of children that hung, or -1 on another failure.
int forkChildrenWhileThreadsLog(const std::string& dir, int children) {
  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "4194304"},
                                                 {"ZEL_LOGGING_FMAXCOUNT", "100000"}});
  int hung = 0;
  {
    LoggingThreads threads(w, 4, 6);
    for (int c = 0; c < children; ++c) {
      const pid_t pid = ::fork();
      if (pid < 0) return -1;
      if (pid == 0) {
        for (int n = 0; n < 10; ++n) w->log_printf("child", 6, 1, "child %d record %d", c, n);
        _exit(w->flush() ? 0 : 3);
      }
      const int status = waitWithTimeout(pid, 20);
      if (status == -1) {
        ++hung;
      } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return -1;
      }
    }
  }
  w->flush();
  return hung;
}

TEST(LoggingForkTest, ChildForkedWhileOtherThreadsLogCanLogAtOnceAndNeverHangs) {
  ZelTest::TempDir tmp;
  const std::string dir = tmp.path();
  const int children = 30;
  const pid_t process = ZelTest::startProcess([&] {
    const int hung = forkChildrenWhileThreadsLog(dir, children);
    if (hung != 0) std::fprintf(stderr, "%d of %d children hung\n", hung, children);
    _exit(hung == 0 ? 0 : 1);
  });
  const int status = ZelTest::waitStatus(process);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(0, WEXITSTATUS(status));
  // Every child's records are in the files, each exactly once.
  const std::string text = allFiles(dir);
  for (int c = 0; c < children; ++c)
    for (int n = 0; n < 10; ++n)
      EXPECT_EQ(1u, countOf(text, " child " + std::to_string(c) + " record " + std::to_string(n) + "\n"))
          << c << "/" << n;
}

// The directories the calling process has open, as /proc shows them.
std::vector<std::string> openDirectories() {
  std::vector<std::string> result;
  DIR* fds = ::opendir("/proc/self/fd");
  if (fds == nullptr) return result;
  while (struct dirent* entry = ::readdir(fds)) {
    char link[4096];
    const std::string path = std::string("/proc/self/fd/") + entry->d_name;
    const ssize_t length = ::readlink(path.c_str(), link, sizeof(link) - 1);
    if (length <= 0) continue;
    link[length] = '\0';
    result.push_back(link);
  }
  ::closedir(fds);
  return result;
}

// A child that never logs (a long-lived helper) keeps no descriptor of the
// log directory: a lock taken through its parent's descriptor cannot be
// held on by the child after the parent is gone.
TEST(LoggingForkTest, ChildThatNeverLogsKeepsNoDescriptorOfTheLogDirectory) {
  ZelTest::TempDir tmp;
  const std::string dir = tmp.path();
  const pid_t process = ZelTest::startProcess([&] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir);
    w->log_printf("parent", 2, 1, "%s", "before the fork");  // written at once, under the directory's lock
    int held = 0;
    for (const std::string& link : openDirectories()) held += link == dir ? 1 : 0;
    CHILD_EXPECT_EQ(1, held);  // the parent keeps its directory descriptor
    const pid_t child = ::fork();
    if (child == 0) {
      int inherited = 0;
      for (const std::string& link : openDirectories()) inherited += link == dir ? 1 : 0;
      _exit(inherited == 0 ? 0 : 1);
    }
    const int status = ZelTest::waitStatus(child);
    CHILD_EXPECT(WIFEXITED(status));
    CHILD_EXPECT_EQ(0, WEXITSTATUS(status));
    _exit(0);
  });
  const int status = ZelTest::waitStatus(process);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

// A writer that rotates all the time forks a helper that never logs and is
// then killed, often while it holds the directory lock. The lock must be
// free at once afterwards, while the helper lives on.
TEST(LoggingForkTest, WriterKilledWhileItsHelperLivesLeavesTheDirectoryLockFree) {
  for (int round = 0; round < 10; ++round) {
    ZelTest::TempDir tmp;
    const std::string dir = tmp.path();
    int helperPipe[2];
    ASSERT_EQ(0, ::pipe(helperPipe));
    const pid_t writer = ZelTest::startProcess([&] {
      ::close(helperPipe[0]);
      LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "300"}});
      w->log_printf("writer", 2, 1, "%s", "first");
      const pid_t helper = ::fork();
      if (helper == 0) {
        for (;;) ::pause();  // a helper that never logs
      }
      (void)!::write(helperPipe[1], &helper, sizeof(helper));
      // Critical records with a tiny limit: every few records rotate.
      for (long n = 0;; ++n) w->log_printf("writer", 2, 1, "record %ld", n);
    });
    ::close(helperPipe[1]);
    pid_t helper = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(helper)), ::read(helperPipe[0], &helper, sizeof(helper)));
    ::close(helperPipe[0]);
    struct timespec nap = {0, (20 + round * 7) * 1000000L};
    nanosleep(&nap, nullptr);
    ::kill(writer, SIGKILL);
    (void)ZelTest::waitStatus(writer);
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const int locked = ::flock(fd, LOCK_EX | LOCK_NB);
    ::close(fd);
    ::kill(helper, SIGKILL);
    (void)::waitpid(helper, nullptr, 0);  // reaped by init when not our child
    EXPECT_EQ(0, locked) << "round " << round << ": the directory lock is held by the killed writer's helper";
  }
}

}  // namespace
