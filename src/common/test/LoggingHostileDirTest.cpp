// The log directory as hostile ground: what other users may plant there
// (a FIFO, a symlink into a file of theirs choosing) or hold (the directory
// lock) must neither hang a process, nor redirect its records, nor stall
// them.
//
// The planting user is "nobody" (uid 65534), through setpriv; those tests
// need root and are skipped otherwise. Cases that might hang run in a forked
// child with an alarm, so that a hang fails the test instead of the run.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/ChildProcess.h"
#include "support/Processes.h"
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelTest::readFile;
using ZelTest::StderrCapture;

const uid_t kNobody = 65534;

std::string recordText(int number) { return "hostile record " + std::to_string(number); }

// Whatever its level: the function column, then the text.
bool holdsRecord(const std::string& text, int number) {
  return text.find(" hostile" + std::string(19, ' ') + recordText(number) + "\n") != std::string::npos;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

// Runs a command as user nobody; true when it exited with 0.
bool asNobody(const std::vector<std::string>& command) {
  std::vector<std::string> full = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  full.insert(full.end(), command.begin(), command.end());
  const pid_t pid = ::fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (std::string& part : full) argv.push_back(&part[0]);
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    _exit(127);
  }
  const int status = ZelTest::waitStatus(pid);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

uid_t ownerOf(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

class LoggingHostileDirTest : public ZelTest::TempDirTest {
 protected:
  void TearDown() override { ::chmod(ZelTest::testRoot().c_str(), 0700); }
  std::string liveFile() const { return tmp.file("zel.log"); }
  // Makes the test dir a sticky directory everybody may write to, like
  // /tmp, reachable by user nobody.
  void makeShared() {
    ASSERT_EQ(0, ::chmod(ZelTest::testRoot().c_str(), 0711));
    ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 01777));
  }
};

// A FIFO where the live file should be: with nobody reading it, a blocking
// open would wait for ever.
void fifoWithoutReaderChild(const std::string& dir) {
  alarm(10);
  LoggingWrapper* w = ZelTest::makeWrapper(dir);
  StderrCapture cap;
  w->log_printf("hostile", 6, 1, "%s", recordText(1).c_str());
  w->log_printf("hostile", 6, 1, "%s", recordText(2).c_str());
  const std::string err = cap.release();
  const std::string failure = "Failed to open log file!: " + std::string(std::strerror(ENXIO)) + "\n";
  CHILD_EXPECT_EQ(size_t(2), countOf(err, failure));
  CHILD_EXPECT(holdsRecord(err, 1) && holdsRecord(err, 2));
  _exit(0);
}

TEST_F(LoggingHostileDirTest, FifoAsTheLiveFileDoesNotHangAndEachRecordGoesToStderr) {
  ASSERT_EQ(0, ::mkfifo(liveFile().c_str(), 0666));
  EXPECT_EXIT(fifoWithoutReaderChild(tmp.path()), ::testing::ExitedWithCode(0), "");
}

// With a reader the open would succeed: the file must still be refused,
// records must not vanish into the pipe.
void fifoWithReaderChild(const std::string& dir, const std::string& fifo) {
  alarm(10);
  const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  CHILD_EXPECT(reader >= 0);
  LoggingWrapper* w = ZelTest::makeWrapper(dir);
  StderrCapture cap;
  w->log_printf("hostile", 2, 1, "%s", recordText(1).c_str());
  const std::string err = cap.release();
  CHILD_EXPECT_EQ(size_t(1), countOf(err, "Failed to open log file!: " + std::string(std::strerror(EINVAL)) + "\n"));
  CHILD_EXPECT(holdsRecord(err, 1));
  char buffer[64];
  CHILD_EXPECT(::read(reader, buffer, sizeof(buffer)) <= 0);  // nothing went into the pipe
  _exit(0);
}

TEST_F(LoggingHostileDirTest, FifoWithAReaderIsRefusedAsNotARegularFile) {
  ASSERT_EQ(0, ::mkfifo(liveFile().c_str(), 0666));
  EXPECT_EXIT(fifoWithReaderChild(tmp.path(), liveFile()), ::testing::ExitedWithCode(0), "");
}

TEST_F(LoggingHostileDirTest, ForeignSymlinkInAStickySharedDirectoryIsNotFollowed) {
  if (::geteuid() != 0) GTEST_SKIP() << "planting files as another user needs root";
  makeShared();
  // A file only root may write, in a directory of its own.
  ZelTest::TempDir secret;
  const std::string target = secret.file("root-only");
  ZelTest::writeFile(target, "secret\n");
  ASSERT_EQ(0, ::chmod(target.c_str(), 0600));
  ASSERT_TRUE(asNobody({"ln", "-s", target, liveFile()}));
  ASSERT_EQ(kNobody, ownerOf(liveFile()));

  LoggingWrapper* w = ZelTest::makeWrapper(tmp.path());
  StderrCapture cap;
  w->log_printf("hostile", 2, 1, "%s", recordText(1).c_str());
  const std::string err = cap.release();
  EXPECT_EQ("Failed to open log file!: " + std::string(std::strerror(EACCES)) + "\n", err.substr(0, err.find('\n') + 1));
  EXPECT_TRUE(holdsRecord(err, 1)) << err;
  EXPECT_EQ("secret\n", readFile(target));
  ZelTest::closeWrapperFile(w);
}

TEST_F(LoggingHostileDirTest, OwnSymlinkInAStickySharedDirectoryIsFollowed) {
  makeShared();
  ZelTest::TempDir other;
  const std::string target = other.file("mine.log");
  ASSERT_EQ(0, ::symlink(target.c_str(), liveFile().c_str()));
  LoggingWrapper* w = ZelTest::makeWrapper(tmp.path());
  w->log_printf("hostile", 2, 1, "%s", recordText(1).c_str());
  ZelTest::closeWrapperFile(w);
  EXPECT_TRUE(holdsRecord(readFile(target), 1));
}

TEST_F(LoggingHostileDirTest, ForeignFifoInAStickySharedDirectoryIsNotOpened) {
  if (::geteuid() != 0) GTEST_SKIP() << "planting files as another user needs root";
  makeShared();
  ASSERT_TRUE(asNobody({"mkfifo", "-m", "666", liveFile()}));
  ASSERT_EQ(kNobody, ownerOf(liveFile()));
  const int reader = ::open(liveFile().c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  LoggingWrapper* w = ZelTest::makeWrapper(tmp.path());
  StderrCapture cap;
  w->log_printf("hostile", 2, 1, "%s", recordText(1).c_str());
  const std::string err = cap.release();
  // Refused before any open, so not even its owner's reader sees a writer.
  EXPECT_EQ(1u, countOf(err, "Failed to open log file!: " + std::string(std::strerror(EACCES)) + "\n")) << err;
  EXPECT_TRUE(holdsRecord(err, 1));
  ::close(reader);
  ZelTest::closeWrapperFile(w);
}

TEST_F(LoggingHostileDirTest, RegularFileOfAnotherUserIsAppendedTo) {
  if (::geteuid() != 0) GTEST_SKIP() << "making a file of another user needs root";
  makeShared();
  ASSERT_TRUE(asNobody({"sh", "-c", "umask 0; echo 'first line of nobody' > '" + liveFile() + "'"}));
  ASSERT_EQ(kNobody, ownerOf(liveFile()));
  LoggingWrapper* w = ZelTest::makeWrapper(tmp.path());
  StderrCapture cap;
  w->log_printf("hostile", 2, 1, "%s", recordText(1).c_str());
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", cap.release());
  const std::string text = readFile(liveFile());
  EXPECT_EQ(0u, text.find("first line of nobody\n"));
  EXPECT_TRUE(holdsRecord(text, 1));
}

TEST_F(LoggingHostileDirTest, DescriptorIsCloseOnExec) {
  LoggingWrapper* w = ZelTest::makeWrapper(tmp.path());
  w->log_printf("hostile", 6, 1, "%s", recordText(1).c_str());
  int found = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char link[4096];
    const std::string proc = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = ::readlink(proc.c_str(), link, sizeof(link) - 1);
    if (length <= 0) continue;
    link[length] = '\0';
    if (std::string(link).find("/zel.log") == std::string::npos) continue;
    ++found;
    EXPECT_NE(0, ::fcntl(fd, F_GETFD) & FD_CLOEXEC) << link;
  }
  EXPECT_EQ(1, found);
  ZelTest::closeWrapperFile(w);
}

long millisecondsSince(const struct timespec& start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
}

// Another process holding the log directory's lock exclusively from its
// construction until release() (or its destruction).
class DirectoryLockHolder {
 public:
  explicit DirectoryLockHolder(const std::string& dir) {
    int ready[2];
    EXPECT_EQ(0, ::pipe(ready));
    EXPECT_EQ(0, ::pipe(_release));
    _pid = ZelTest::startProcess([&] {
      // Only the test keeps the write end: if it dies, read() sees the end.
      ::close(_release[1]);
      ::close(ready[0]);
      const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
      if (fd < 0 || ::flock(fd, LOCK_EX) != 0) _exit(1);
      const char byte = 'l';
      (void)::write(ready[1], &byte, 1);
      char done;
      (void)::read(_release[0], &done, 1);  // until released or the test is gone
      _exit(0);
    });
    char byte = 0;
    EXPECT_EQ(1, ::read(ready[0], &byte, 1));
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~DirectoryLockHolder() { release(); }
  void release() {
    if (_pid <= 0) return;
    const char byte = 'r';
    EXPECT_EQ(1, ::write(_release[1], &byte, 1));
    EXPECT_EQ(0, ZelTest::waitStatus(_pid));
    ::close(_release[0]);
    ::close(_release[1]);
    _pid = 0;
  }

 private:
  pid_t _pid = 0;
  int _release[2] = {-1, -1};
};

std::string allFiles(const std::string& dir) {
  std::string text;
  for (const std::string& name : ZelTest::listDir(dir)) text += readFile(dir + "/" + name);
  return text;
}

TEST_F(LoggingHostileDirTest, DirectoryLockHeldForGoodByAnotherProcessDelaysRecordsOnceAndLosesNone) {
  const std::string dir = tmp.path();
  DirectoryLockHolder holder(dir);

  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "2000"}});
  StderrCapture cap;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  // Critical records: each is written at once, without the lock after one
  // bounded wait; the rotation they call for is put off.
  const int last = 60;
  for (int n = 1; n <= last; ++n) w->log_printf("hostile", 2, 1, "%s", recordText(n).c_str());
  const long elapsed = millisecondsSince(start);
  ZelTest::closeWrapperFile(w);
  const std::string err = cap.release();
  holder.release();

  // One bounded wait, not one per write: well under what sixty waits of
  // 100 ms would take; a lock busy for so short a time is not news.
  EXPECT_LT(elapsed, 3000);
  EXPECT_EQ("", err);
  EXPECT_EQ(std::vector<std::string>{"zel.log"}, ZelTest::listDir(dir));
  const std::string text = readFile(dir + "/zel.log");
  for (int n = 1; n <= last; ++n) EXPECT_EQ(1u, countOf(text, " CR hostile                   " + recordText(n) + "\n")) << n;
}

// A lock that another process holds for a while (a writer descheduled in
// the middle of its rotation) puts the rotation off instead of letting two
// processes rotate at once; it happens at the first record after the lock
// is free.
TEST_F(LoggingHostileDirTest, RotationWaitsForABusyLockInsteadOfGoingOnWithoutIt) {
  const std::string dir = tmp.path();
  DirectoryLockHolder holder(dir);
  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "2000"}});
  StderrCapture cap;
  const int last = 60;  // about 4 KiB of critical records, each written at once
  for (int n = 1; n < last; ++n) w->log_printf("hostile", 2, 1, "%s", recordText(n).c_str());
  EXPECT_EQ(std::vector<std::string>{"zel.log"}, ZelTest::listDir(dir));  // put off, file past its limit
  EXPECT_GT(readFile(dir + "/zel.log").size(), 2000u);
  holder.release();
  w->log_printf("hostile", 2, 1, "%s", recordText(last).c_str());
  ZelTest::closeWrapperFile(w);
  (void)cap.release();
  EXPECT_TRUE(ZelTest::fileExists(dir + "/zel.log.1"));
  const std::string text = allFiles(dir);
  for (int n = 1; n <= last; ++n) EXPECT_EQ(1u, countOf(text, recordText(n) + "\n")) << n;
}

// A lock held for good never lets the rotation run without it: the file
// grows past its limit, which is said once after ten seconds, and once more
// when the rotation has caught up after the lock was freed. Nothing is lost.
TEST_F(LoggingHostileDirTest, RotationStaysPostponedWhileALockIsHeldForGoodAndSaysSoOnce) {
  const std::string dir = tmp.path();
  DirectoryLockHolder holder(dir);
  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "2000"}});
  StderrCapture cap;
  const int held = 60;
  for (int n = 1; n < held; ++n) w->log_printf("hostile", 2, 1, "%s", recordText(n).c_str());
  ::sleep(11);
  for (int n = held; n < 2 * held; ++n) w->log_printf("hostile", 2, 1, "%s", recordText(n).c_str());
  EXPECT_EQ(std::vector<std::string>{"zel.log"}, ZelTest::listDir(dir));  // never rotated without the lock
  EXPECT_GT(readFile(dir + "/zel.log").size(), 8000u);
  const std::string postponed = "Logging directory " + dir +
                                " stays locked by another process: rotation is postponed and " + dir +
                                "/zel.log grows past its size limit\n";
  EXPECT_EQ(postponed, cap.release());
  StderrCapture after;
  holder.release();
  w->log_printf("hostile", 2, 1, "%s", recordText(2 * held).c_str());
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("Logging directory " + dir + " is free again: the postponed rotation of " + dir +
                "/zel.log goes on\n",
            after.release());
  EXPECT_TRUE(ZelTest::fileExists(dir + "/zel.log.1"));
  const std::string text = allFiles(dir);
  for (int n = 1; n <= 2 * held; ++n) EXPECT_EQ(1u, countOf(text, recordText(n) + "\n")) << n;
}

// The log directory removed and made anew while a writer runs: the writer
// coordinates on the new directory's lock, not on the removed one's, so a
// lock held on the new directory holds its rotation off too.
TEST_F(LoggingHostileDirTest, DirectoryMadeAnewIsLockedAsTheNewDirectory) {
  const std::string dir = tmp.path() + "/logs";
  ASSERT_EQ(0, ::mkdir(dir.c_str(), 0755));
  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "2000"}});
  StderrCapture cap;
  for (int n = 1; n <= 40; ++n) w->log_printf("hostile", 2, 1, "%s", recordText(n).c_str());
  ASSERT_TRUE(ZelTest::fileExists(dir + "/zel.log.1"));  // it rotated, so it holds the directory open
  ZelTest::removeTree(dir);
  ASSERT_EQ(0, ::mkdir(dir.c_str(), 0755));
  {
    DirectoryLockHolder holder(dir);
    for (int n = 41; n <= 100; ++n) w->log_printf("hostile", 2, 1, "%s", recordText(n).c_str());
    // Records go to the new directory's live file; no rotation while its
    // lock is held by somebody else.
    EXPECT_EQ(std::vector<std::string>{"zel.log"}, ZelTest::listDir(dir));
    EXPECT_GT(readFile(dir + "/zel.log").size(), 2000u);
  }
  w->log_printf("hostile", 2, 1, "%s", recordText(101).c_str());
  ZelTest::closeWrapperFile(w);
  (void)cap.release();
  EXPECT_TRUE(ZelTest::fileExists(dir + "/zel.log.1"));
  const std::string text = allFiles(dir);
  for (int n = 41; n <= 101; ++n) EXPECT_EQ(1u, countOf(text, recordText(n) + "\n")) << n;
}

}  // namespace
