// Fault injection into the logging wrapper and the message pipe: the file
// system changing under the wrapper, system calls failing (through the
// wrappers of faults/FaultInjection.h, linked in with --wrap), resource
// limits hit in a forked child, and framework interfaces that misbehave.
//
// Each test asserts what users rely on: the problem is reported on standard
// error with the library's own message, the next record tries again, nothing
// crashes and nothing deadlocks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <list>
#include <regex>
#include <string>
#include <vector>

#include <Poco/Exception.h>

#include <zel/LoggingWrapper.h>
#include <zel/PipeExt.h>
#include <zel/ThreadWPipes.h>
#include <zel/ZelException.h>
#include "faults/FaultInjection.h"
#include "support/ChildProcess.h"
#include "support/Fakes.h"
#include "support/LogLines.h"
#include "support/Processes.h"
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelFault::Call;
using ZelTest::fileExists;
using ZelTest::FakeLogSpi;
using ZelTest::FakeTraceV1;
using ZelTest::FakeTraceV2;
using ZelTest::listDir;
using ZelTest::readFile;
using ZelTest::StderrCapture;

// Faults injected and survived in this process, printed at the end.
std::atomic<int> gFaultsSurvived{0};

std::string recordText(int number) { return "fault record " + std::to_string(number); }

void writeRecord(LoggingWrapper* w, int number) {
  w->log_printf("faulty", 6, 1, "%s", recordText(number).c_str());
}

// True when `text` holds the line of record `number` (file format).
bool holdsRecord(const std::string& text, int number) {
  return text.find(" IN faulty                    " + recordText(number) + "\n") != std::string::npos;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

// The `count` lowest descriptor numbers not in use.
std::vector<int> freeDescriptors(size_t count) {
  std::vector<int> free;
  for (int fd = 0; free.size() < count; ++fd)
    if (::fcntl(fd, F_GETFD) == -1) free.push_back(fd);
  return free;
}

// Everything in the log directory, numbered files by number, live file last.
std::string allLogText(const std::string& dir) {
  std::string text;
  for (int n = 1; n < 100; ++n)
    if (fileExists(dir + "/zel.log." + std::to_string(n))) text += readFile(dir + "/zel.log." + std::to_string(n));
  return text + readFile(dir + "/zel.log");
}

std::string errnoText(int error) { return std::to_string(error) + ": " + std::strerror(error); }

class LoggingFaultTest : public ZelTest::WrapperTest {
 protected:
  void SetUp() override { ZelFault::reset(); }
  void TearDown() override {
    ZelFault::reset();
    FakeLogSpi::reset();
    FakeTraceV1::reset();
    FakeTraceV2::reset();
    ::chmod(tmp.path().c_str(), 0700);
    ZelTest::WrapperTest::TearDown();
  }
  // Counts a fault as survived once the test has checked the aftermath.
  void survived(int faults = 1) { gFaultsSurvived += faults; }

  // A wrapper rotating at `maxSize` bytes.
  LoggingWrapper* smallWrapper(unsigned maxSize, unsigned count = 5) {
    return wrapper({{"ZEL_LOGGING_FMAXSIZE", std::to_string(maxSize)},
                    {"ZEL_LOGGING_FMAXCOUNT", std::to_string(count)}});
  }
};

// ------------------------------------------------------ the file system changes

TEST_F(LoggingFaultTest, LogDirectoryRemovedWhileLoggingGoesToStderrUntilItIsBack) {
  LoggingWrapper* w = smallWrapper(100);
  writeRecord(w, 1);
  ZelTest::closeWrapperFile(w);  // flushed, reopened by the next record
  writeRecord(w, 2);
  const std::string dir = tmp.path();
  ASSERT_TRUE(holdsRecord(readFile(liveFile()), 1));
  ZelTest::removeTree(dir);
  ASSERT_FALSE(fileExists(dir));

  StderrCapture cap;
  // The file is let go of at the first write of the buffer (its path no
  // longer names it) and cannot be opened again: the buffered records and
  // every later one go to standard error, each exactly once.
  const int last = 200;
  for (int n = 3; n <= last; ++n) writeRecord(w, n);
  const std::string err = cap.release();
  EXPECT_NE(std::string::npos, err.find("Failed to open log file!: " + std::string(std::strerror(ENOENT)) + "\n"))
      << err;
  for (int n = 2; n <= last; ++n) EXPECT_EQ(1u, countOf(err, recordText(n) + "\n")) << n;
  EXPECT_EQ(static_cast<size_t>(last - 1), countOf(err, " IN faulty ")) << err;

  // The directory comes back: the next record reopens the file there.
  ASSERT_EQ(0, ::mkdir(dir.c_str(), 0700));
  StderrCapture quiet;
  writeRecord(w, last + 1);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", quiet.release());
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), last + 1));
  survived();
}

TEST_F(LoggingFaultTest, LiveFileReplacedByDirectoryBeforeOpeningSendsRecordsToStderr) {
  LoggingWrapper* w = smallWrapper(100000);
  ASSERT_EQ(0, ::mkdir(liveFile().c_str(), 0700));

  StderrCapture cap;
  writeRecord(w, 1);
  writeRecord(w, 2);
  const std::string err = cap.release();
  const std::string failure = "Failed to open log file!: " + std::string(std::strerror(EISDIR)) + "\n";
  // Every record tries to open the file again, and lands on stderr.
  EXPECT_EQ(2u, countOf(err, failure)) << err;
  EXPECT_TRUE(holdsRecord(err, 1)) << err;
  EXPECT_TRUE(holdsRecord(err, 2)) << err;

  ASSERT_EQ(0, ::rmdir(liveFile().c_str()));
  StderrCapture quiet;
  writeRecord(w, 3);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", quiet.release());
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), 3));
  survived();
}

TEST_F(LoggingFaultTest, LiveFileReplacedByDirectoryBetweenRecordsSendsRecordsToStderr) {
  LoggingWrapper* w = smallWrapper(200);
  writeRecord(w, 1);
  ZelTest::closeWrapperFile(w);
  ASSERT_EQ(0, ::unlink(liveFile().c_str()));
  ASSERT_EQ(0, ::mkdir(liveFile().c_str(), 0700));
  ZelTest::writeFile(liveFile() + "/inside", "x");  // a directory that is not empty

  // The wrapper reopens its file by name: that is now a directory.
  StderrCapture cap;
  for (int n = 2; n <= 20; ++n) writeRecord(w, n);
  std::string err = cap.release();
  EXPECT_NE(std::string::npos, err.find("Failed to open log file!: " + std::string(std::strerror(EISDIR))))
      << err;
  for (int n = 2; n <= 20; ++n) EXPECT_TRUE(holdsRecord(err, n)) << n;

  // Once the directory is gone again, records go back to a file.
  ZelTest::removeTree(liveFile());
  StderrCapture quiet;
  writeRecord(w, 21);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", quiet.release());
  EXPECT_TRUE(holdsRecord(allLogText(tmp.path()), 21));
  survived();
}

TEST_F(LoggingFaultTest, LiveFileReplacedByDirectoryWhileOpenSendsEveryRecordToStderrNoneIntoTheUnlinkedFile) {
  LoggingWrapper* w = smallWrapper(200);
  writeRecord(w, 1);  // the file is open now, the record buffered
  ASSERT_EQ(0, ::unlink(liveFile().c_str()));
  ASSERT_EQ(0, ::mkdir(liveFile().c_str(), 0700));
  StderrCapture cap;
  const int last = 200;
  for (int n = 2; n <= last; ++n) writeRecord(w, n);
  ZelTest::closeWrapperFile(w);
  const std::string err = cap.release();
  // The first write of the buffer finds that the path no longer names the
  // open file and reopens it: a directory, so the buffer and every later
  // record go to standard error. Nothing went into the unlinked file.
  EXPECT_NE(std::string::npos, err.find("Failed to open log file!: " + std::string(std::strerror(EISDIR))))
      << err;
  for (int n = 1; n <= last; ++n) EXPECT_EQ(1u, countOf(err, recordText(n) + "\n")) << n;
  struct stat st;
  ASSERT_EQ(0, ::stat(liveFile().c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  survived();
}

TEST_F(LoggingFaultTest, LogDirectoryMadeReadOnlyStopsRotationButNoRecordIsLost) {
  if (::geteuid() == 0) {
    // root writes into read-only directories anyway; make the rename fail
    // instead, which is what the read-only directory causes.
    ZelFault::arm(Call::Rename, EACCES, 1000);
  }
  LoggingWrapper* w = smallWrapper(200);
  writeRecord(w, 1);
  ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0500));
  StderrCapture cap;
  for (int n = 2; n <= 30; ++n) {
    writeRecord(w, n);
    ZelTest::closeWrapperFile(w);  // flushed, so that the size calls for rotations
  }
  EXPECT_EQ("", cap.release());
  ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0700));
  // Every rotation's rename was refused, so the live file was reopened and
  // appended to each time.
  EXPECT_EQ(std::vector<std::string>{"zel.log"}, listDir(tmp.path()));
  if (::geteuid() == 0) {
    EXPECT_GT(ZelFault::injected(Call::Rename), 10);
  }
  const std::string text = allLogText(tmp.path());
  for (int n = 1; n <= 30; ++n) EXPECT_TRUE(holdsRecord(text, n)) << n;
  survived();
}

// ---------------------------------------------------------- system calls fail

TEST_F(LoggingFaultTest, FailedRenameKeepsTheLiveFileAndTheNextRecordRotatesIt) {
  LoggingWrapper* w = smallWrapper(200);
  StderrCapture cap;
  int n = 1;
  // Fill the live file past the limit (closing flushes, so the size is seen).
  while (ZelTest::closeWrapperFile(w), readFile(liveFile()).size() <= 200) writeRecord(w, n++);
  ZelFault::arm(Call::Rename, EIO, 1);
  writeRecord(w, n++);  // rotation: the rename fails silently
  EXPECT_EQ(1, ZelFault::injected(Call::Rename));
  EXPECT_FALSE(fileExists(tmp.file("zel.log.1")));
  writeRecord(w, n++);  // the file is still too big: this rotation succeeds
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", cap.release()) << "a failed rename is not reported";
  EXPECT_TRUE(fileExists(tmp.file("zel.log.1")));
  const std::string text = allLogText(tmp.path());
  for (int i = 1; i < n; ++i) EXPECT_TRUE(holdsRecord(text, i)) << i;
  survived();
}

TEST_F(LoggingFaultTest, FailedUnlinkLeavesAnOldFileThatTheNextRotationDeletes) {
  LoggingWrapper* w = smallWrapper(100, 2);
  StderrCapture cap;
  int n = 1;
  // Writes records (each one flushed) until the rotation makes zel.log.<k>.
  auto rotateTo = [&](int k) {
    while (!fileExists(tmp.file("zel.log." + std::to_string(k)))) {
      writeRecord(w, n++);
      ZelTest::closeWrapperFile(w);
    }
  };
  rotateTo(1);
  rotateTo(2);
  ZelFault::arm(Call::Unlink, EBUSY, 1);
  rotateTo(3);  // deleting zel.log.1 fails
  EXPECT_EQ(1, ZelFault::injected(Call::Unlink));
  EXPECT_EQ((std::vector<std::string>{"zel.log", "zel.log.1", "zel.log.2", "zel.log.3"}), listDir(tmp.path()));
  rotateTo(4);  // the two oldest go
  EXPECT_EQ((std::vector<std::string>{"zel.log", "zel.log.3", "zel.log.4"}), listDir(tmp.path()));
  EXPECT_EQ("", cap.release()) << "a failed unlink is not reported";
  survived();
}

TEST_F(LoggingFaultTest, FailedOpendirIsReportedAndTheLiveFileTakesTheFirstSlot) {
  LoggingWrapper* w = smallWrapper(100);
  int n = 1;
  while (!fileExists(tmp.file("zel.log.2"))) {
    writeRecord(w, n++);
    ZelTest::closeWrapperFile(w);
  }
  const int firstOfLive = n;
  StderrCapture cap;
  ZelFault::arm(Call::Opendir, EMFILE, 1);
  while (ZelFault::injected(Call::Opendir) == 0) {
    writeRecord(w, n++);
    ZelTest::closeWrapperFile(w);
  }
  const std::string err = cap.release();
  EXPECT_EQ("Failed to open dir " + tmp.path() + "\n\n", err);
  // With no numbered files seen, the live file went to the first slot,
  // replacing what was there; the newer numbered file is untouched.
  const std::string first = readFile(tmp.file("zel.log.1"));
  EXPECT_TRUE(holdsRecord(first, firstOfLive)) << first;
  EXPECT_FALSE(holdsRecord(first, 1)) << first;
  EXPECT_TRUE(fileExists(tmp.file("zel.log.2")));
  // The record that triggered the rotation is in the new live file.
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), n - 1));
  survived();
}

TEST_F(LoggingFaultTest, FailedFstatDropsTheStreamAndTheRecordGoesToStderrOnce) {
  LoggingWrapper* w = smallWrapper(100000);
  writeRecord(w, 1);
  writeRecord(w, 2);  // still buffered in the stream
  StderrCapture cap;
  ZelFault::arm(Call::Fstat, EIO, 1);
  writeRecord(w, 3);
  const std::string err = cap.release();
  EXPECT_EQ(1, ZelFault::injected(Call::Fstat));
  EXPECT_EQ(0u, err.find("Failed to stat log file. Errno: " + errnoText(EIO) + "\n")) << err;
  EXPECT_TRUE(holdsRecord(err, 3)) << err;
  // The dropped stream was closed, so what it held reached the file.
  std::string text = readFile(liveFile());
  EXPECT_TRUE(holdsRecord(text, 1));
  EXPECT_TRUE(holdsRecord(text, 2));
  EXPECT_FALSE(holdsRecord(text, 3));

  // The next record reopens the file.
  StderrCapture quiet;
  writeRecord(w, 4);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", quiet.release());
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), 4));
  survived();
}

TEST_F(LoggingFaultTest, FstatFailingOnEveryRecordSendsEachToStderrAndLogsAgainAfterwards) {
  LoggingWrapper* w = smallWrapper(100000);
  w->set_level(8);
  StderrCapture cap;
  ZelFault::arm(Call::Fstat, EBADF, 3);
  writeRecord(w, 1);
  w->trace_printf("src/x/file.cpp", "tracer", 7, 8, 0, "%s", "trace during fault");
  writeRecord(w, 2);
  const std::string err = cap.release();
  EXPECT_EQ(3u, countOf(err, "Failed to stat log file. Errno: " + errnoText(EBADF) + "\n")) << err;
  EXPECT_TRUE(holdsRecord(err, 1));
  EXPECT_NE(std::string::npos, err.find(" TR file.cpp                :7     - tracer                    trace during fault\n"))
      << err;
  EXPECT_TRUE(holdsRecord(err, 2));

  StderrCapture quiet;
  writeRecord(w, 3);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", quiet.release());
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), 3));
  survived(3);
}

// --------------------------------------------------------- resource limits hit

struct Note : Zel::PipeMessage {
  Note() : Zel::PipeMessage(static_cast<Zel::MessageTypeT>(7)) {}
};

// The lines of `text` that are not whole records of this file: whatever is
// not " IN faulty <record text>" behind a time stamp.
std::vector<std::string> malformedLines(const std::string& text) {
  static const std::regex record(std::string("^") + ZelTest::kStampPattern +
                                 " ((IN|CR) faulty                    fault record \\d+|ER LoggingWrapper  .*)$");
  std::vector<std::string> bad;
  for (const std::string& line : ZelTest::splitLines(text))
    if (!std::regex_match(line, record)) bad.push_back(line);
  return bad;
}

// True when a time stamp starts anywhere but at the beginning of `line`: a
// record glued to the rest of another.
bool holdsSecondStamp(const std::string& line) {
  static const std::regex stamp(ZelTest::kStampPattern);
  return line.size() > 1 && std::regex_search(line.substr(1), stamp);
}

void setFileSizeLimit(rlim_t limit) {
  struct rlimit rl;
  CHILD_EXPECT(::getrlimit(RLIMIT_FSIZE, &rl) == 0);
  rl.rlim_cur = limit;  // the hard limit stays, so the limit can be raised again
  CHILD_EXPECT(::setrlimit(RLIMIT_FSIZE, &rl) == 0);
}

// Runs in a forked child: the file size limit stays with the process.
void writeLimitChild(const std::string& dir) {
  std::signal(SIGXFSZ, SIG_IGN);
  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "1000"}});
  // A file may not grow past 1500 bytes: the first write of the record
  // buffer stops there, in the middle of a record.
  const rlim_t limit = 1500;
  setFileSizeLimit(limit);
  StderrCapture cap;
  int n = 1;
  while (!fileExists(dir + "/zel.log.1") && n < 1000) writeRecord(w, n++);
  // Room again (the new file has the same limit), then the rest is written.
  setFileSizeLimit(RLIM_INFINITY);
  const int last = n;
  writeRecord(w, last);
  ZelTest::closeWrapperFile(w);
  const std::string err = cap.release();
  // Said once, when writing started to fail; no record went to stderr.
  const std::string writeFailure = "Failed to write log file. Errno: " + errnoText(EFBIG) + "\n";
  CHILD_EXPECT_EQ(writeFailure, err);
  // The record the limit cut was taken back from the end of the file, and
  // written whole into the next one: both files hold whole records only,
  // and every record is in one of them once.
  const std::string rotated = readFile(dir + "/zel.log.1");
  CHILD_EXPECT(rotated.size() <= static_cast<size_t>(limit) && rotated.size() > 1000u);
  CHILD_EXPECT(rotated.back() == '\n');
  CHILD_EXPECT(malformedLines(rotated).empty());
  const std::string live = readFile(dir + "/zel.log");
  CHILD_EXPECT(malformedLines(live).empty());
  for (int k = 1; k <= last; ++k) CHILD_EXPECT_EQ(size_t(1), countOf(rotated + live, recordText(k) + "\n"));
  _exit(0);
}

TEST_F(LoggingFaultTest, WriteLimitHitMidRecordIsSaidOnceAndEveryRecordIsWholeInTheNextFile) {
  EXPECT_EXIT(writeLimitChild(tmp.path()), ::testing::ExitedWithCode(0), "");
  survived();
}

// A file size limit below the rotation limit: the file can never grow far
// enough to be rotated away. The records that do not fit in the buffer
// are counted, and the count is written once the file takes records again.
void writeLimitBelowRotationChild(const std::string& dir) {
  std::signal(SIGXFSZ, SIG_IGN);
  LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "100000"}});
  setFileSizeLimit(1500);
  StderrCapture cap;
  const int last = 300;
  for (int n = 1; n <= last; ++n) writeRecord(w, n);
  CHILD_EXPECT(!w->flush());  // records dropped, the rest still buffered
  ZelTest::closeWrapperFile(w);
  const std::string err = cap.release();
  // One message however many writes failed.
  CHILD_EXPECT_EQ("Failed to write log file. Errno: " + errnoText(EFBIG) + "\n", err);
  // The record the limit cut was taken back: the file holds whole records
  // only, as close to the limit as they fit.
  const std::string before = readFile(dir + "/zel.log");
  CHILD_EXPECT(before.size() <= 1500u && before.size() > 1500u - 100u);
  CHILD_EXPECT(before.back() == '\n');
  CHILD_EXPECT_EQ(size_t(0), malformedLines(before).size());

  // Space again: the next write goes on with what was kept, then one record
  // with the number dropped.
  setFileSizeLimit(RLIM_INFINITY);
  StderrCapture quiet;
  writeRecord(w, last + 1);
  CHILD_EXPECT(w->flush());  // everything since the failed flush is in the file
  ZelTest::closeWrapperFile(w);
  CHILD_EXPECT_EQ(std::string(), quiet.release());
  const std::string text = readFile(dir + "/zel.log");
  CHILD_EXPECT_EQ(size_t(0), malformedLines(text).size());  // no cut line anywhere
  const std::regex notice(" ER LoggingWrapper" + std::string(12, ' ') +
                          "(\\d+) log records were dropped while the log file could not be written\n");
  std::smatch match;
  CHILD_EXPECT(std::regex_search(text, match, notice));
  const int dropped = std::stoi(match[1]);
  int kept = 0;
  for (int n = 1; n <= last; ++n) kept += holdsRecord(text, n) ? 1 : 0;
  CHILD_EXPECT(dropped > 0);
  CHILD_EXPECT_EQ(last, kept + dropped);  // every record is either in the file or counted
  // Those kept are the oldest; the notice follows them, then the new record.
  for (int n = 1; n <= kept; ++n) CHILD_EXPECT(holdsRecord(text, n));
  CHILD_EXPECT(text.find(recordText(kept) + "\n") < static_cast<size_t>(match.position(0)));
  CHILD_EXPECT(holdsRecord(text.substr(static_cast<size_t>(match.position(0))), last + 1));
  _exit(0);
}

// One writer's file-size limit cuts a record in the middle; another process
// (without that limit) writes next. Its record must start a line of its own:
// the cut piece was taken back from the file's end.
TEST_F(LoggingFaultTest, RecordCutByOneWriterNeverHasAnotherWritersRecordGluedToIt) {
  const std::string dir = tmp.path();
  const pid_t cutter = ZelTest::startProcess([dir] {
    std::signal(SIGXFSZ, SIG_IGN);
    LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "1000000"}});
    for (int n = 1; n <= 5; ++n) w->log_printf("faulty", 2, 1, "%s", recordText(n).c_str());
    const size_t size = readFile(dir + "/zel.log").size();
    setFileSizeLimit(static_cast<rlim_t>(size + 100));  // inside the second record below
    {
      StderrCapture quiet;
      for (int n = 6; n <= 15; ++n) writeRecord(w, n);
      CHILD_EXPECT(!w->flush());
    }
    _exit(0);  // what it could not write stays unwritten
  });
  ASSERT_EQ(0, ZelTest::waitStatus(cutter));
  const pid_t next = ZelTest::startProcess([dir] {
    LoggingWrapper* w = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", "1000000"}});
    for (int n = 101; n <= 103; ++n) writeRecord(w, n);
    _exit(w->flush() ? 0 : 1);
  });
  ASSERT_EQ(0, ZelTest::waitStatus(next));
  const std::string text = readFile(dir + "/zel.log");
  for (const std::string& line : ZelTest::splitLines(text)) EXPECT_FALSE(holdsSecondStamp(line)) << line;
  EXPECT_TRUE(malformedLines(text).empty()) << text;
  for (int n = 101; n <= 103; ++n) EXPECT_EQ(1u, countOf(text, recordText(n) + "\n")) << n;
  EXPECT_TRUE(holdsRecord(text, 6));  // the whole record before the cut
  survived();
}

// An outside rename of the live file during a rotation, with another
// writer's fresh file at the live path when the rename is due: that file is
// not the one this process rotates, so it is neither renamed into a
// numbered slot (where a later rotation could take it for a not-full file
// of ours and replace it) nor lost; it stays live and is appended to.
TEST_F(LoggingFaultTest, FileAnotherWriterStartedDuringARotationIsNeverRenamedOrReplaced) {
  LoggingWrapper* w = smallWrapper(1000, 100);
  int n = 1;
  while (!fileExists(tmp.file("zel.log.1"))) w->log_printf("faulty", 2, 1, "%s", recordText(n++).c_str());
  const std::string live = liveFile();
  const std::string moved = tmp.file("moved-away.log");
  const std::string others = "another writer's record\n";
  // At the next rotation, between closing our file and renaming the live
  // path: a tool moves our file away, another writer starts a fresh one.
  bool happened = false;
  ZelFault::before(Call::Opendir, [live, moved, others, &happened] {
    if (std::rename(live.c_str(), moved.c_str()) == 0) ZelTest::writeFile(live, others);
    happened = true;
  });
  while (!happened) w->log_printf("faulty", 2, 1, "%s", recordText(n++).c_str());
  const int beforeRotation = n - 2;  // the last record written before the rotation began
  EXPECT_FALSE(fileExists(tmp.file("zel.log.2")));  // no slot taken by the other writer's file
  EXPECT_EQ(0u, readFile(live).find(others));       // still live, our records after it
  EXPECT_EQ(1u, countOf(readFile(moved), " CR faulty                    " + recordText(beforeRotation) + "\n"));
  // Later rotations go on as usual, and replace nothing.
  while (!fileExists(tmp.file("zel.log.3"))) w->log_printf("faulty", 2, 1, "%s", recordText(n++).c_str());
  EXPECT_EQ(0u, readFile(tmp.file("zel.log.2")).find(others));
  ZelTest::closeWrapperFile(w);
  std::string all;
  for (const std::string& name : ZelTest::listDir(tmp.path())) all += readFile(tmp.file(name));
  EXPECT_EQ(1u, countOf(all, others));
  for (int k = 1; k < n; ++k)
    EXPECT_EQ(1u, countOf(all, " CR faulty                    " + recordText(k) + "\n")) << k;
  survived();
}

// Our file is over the limit (another writer's records grew it) while some
// of ours are buffered, and a tool moves it away just as the rotation
// starts: the records buffered go to a fresh live file, which is not the
// file the rotation was for, so it is not renamed into a numbered slot (and
// so never taken for a not-full file of ours and replaced later).
TEST_F(LoggingFaultTest, LiveFileMovedAwayAsTheRotationStartsLosesNoBufferedRecord) {
  LoggingWrapper* w = smallWrapper(1000, 100);
  for (int n = 1; n <= 3; ++n) writeRecord(w, n);  // buffered
  const std::string live = liveFile();
  const std::string moved = tmp.file("moved-away.log");
  ZelTest::writeFile(live, std::string(1200, 'o') + "\n");  // another writer's record
  ZelFault::before(Call::Fstat, [live, moved] { (void)std::rename(live.c_str(), moved.c_str()); });
  writeRecord(w, 4);  // its size check finds our file over the limit
  EXPECT_FALSE(fileExists(tmp.file("zel.log.1")));
  int n = 5;
  while (!fileExists(tmp.file("zel.log.2"))) w->log_printf("faulty", 2, 1, "%s", recordText(n++).c_str());
  ZelTest::closeWrapperFile(w);
  std::string all;
  for (const std::string& name : ZelTest::listDir(tmp.path())) all += readFile(tmp.file(name));
  for (int k = 1; k <= 4; ++k) EXPECT_TRUE(holdsRecord(all, k)) << k;
  for (int k = 5; k < n; ++k)
    EXPECT_EQ(1u, countOf(all, " CR faulty                    " + recordText(k) + "\n")) << k;
  survived();
}

TEST_F(LoggingFaultTest, WriteLimitBelowTheRotationLimitIsSaidOnceAndTheDroppedRecordsAreCountedInTheFile) {
  EXPECT_EXIT(writeLimitBelowRotationChild(tmp.path()), ::testing::ExitedWithCode(0), "");
  survived();
}

// A 256 KiB tmpfs as the log directory, mounted in a mount namespace of the
// child's own (root only): the disk fills up for real.
void fullTmpfsChild(const std::string& mountPoint) {
  CHILD_EXPECT(::unshare(CLONE_NEWNS) == 0);
  CHILD_EXPECT(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
  CHILD_EXPECT(::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=256k") == 0);
  const std::string filler = mountPoint + "/filler";
  // Half the disk: freeing it makes room for the 64 KiB buffer and more.
  ZelTest::writeFile(filler, std::string(128 * 1024, 'f'));
  LoggingWrapper* w = ZelTest::makeWrapper(mountPoint, {{"ZEL_LOGGING_FMAXSIZE", "10000000"}});
  StderrCapture cap;
  const int last = 5000;  // about 370 KiB of records: the disk fills on the way
  for (int n = 1; n <= last; ++n) writeRecord(w, n);
  CHILD_EXPECT(!w->flush());
  const std::string err = cap.release();
  CHILD_EXPECT_EQ("Failed to write log file. Errno: " + errnoText(ENOSPC) + "\n", err);

  // Space again: the kept records, then the count of the dropped ones.
  CHILD_EXPECT(::unlink(filler.c_str()) == 0);
  StderrCapture quiet;
  writeRecord(w, last + 1);
  CHILD_EXPECT(w->flush());
  CHILD_EXPECT_EQ(std::string(), quiet.release());
  std::string text = readFile(mountPoint + "/zel.log");
  // Lines the full disk cut (each write that only partly fitted leaves one),
  // each ended by a newline: none holds the start of another record.
  for (const std::string& cut : malformedLines(text)) CHILD_EXPECT(!holdsSecondStamp(cut));
  const std::regex notice(" ER LoggingWrapper" + std::string(12, ' ') +
                          "(\\d+) log records were dropped while the log file could not be written\n");
  std::smatch match;
  CHILD_EXPECT(std::regex_search(text, match, notice));
  int kept = 0;
  for (int n = 1; n <= last; ++n) kept += holdsRecord(text, n) ? 1 : 0;
  CHILD_EXPECT_EQ(last, kept + std::stoi(match[1]));
  CHILD_EXPECT(holdsRecord(text.substr(static_cast<size_t>(match.position(0))), last + 1));

  // Full again; then the live file is deleted: the next write lets go of
  // it, its space is free at once and the records go to a new file.
  StderrCapture again;
  for (int n = last + 2; n <= 2 * last; ++n) writeRecord(w, n);
  w->flush();
  CHILD_EXPECT_EQ("Failed to write log file. Errno: " + errnoText(ENOSPC) + "\n", again.release());
  CHILD_EXPECT(::unlink((mountPoint + "/zel.log").c_str()) == 0);
  StderrCapture freed;
  w->log_printf("faulty", 2, 1, "%s", recordText(2 * last + 1).c_str());
  CHILD_EXPECT_EQ(std::string(), freed.release());
  text = readFile(mountPoint + "/zel.log");
  CHILD_EXPECT(text.find(" CR faulty                    " + recordText(2 * last + 1) + "\n") != std::string::npos);
  for (const std::string& cut : malformedLines(text)) CHILD_EXPECT(!holdsSecondStamp(cut));
  ZelTest::closeWrapperFile(w);
  _exit(0);
}

TEST_F(LoggingFaultTest, FullDiskIsSaidOnceTheDroppedRecordsAreCountedAndADeletedFileIsLetGoOf) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a small tmpfs needs root";
  const std::string mountPoint = tmp.file("small");
  ASSERT_EQ(0, ::mkdir(mountPoint.c_str(), 0700));
  EXPECT_EXIT(fullTmpfsChild(mountPoint), ::testing::ExitedWithCode(0), "");
  survived();
}

// Open descriptors of this process.
int openDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 4096; ++fd)
    if (::fcntl(fd, F_GETFD) != -1) ++count;
  return count;
}

void descriptorExhaustionChild() {
  // A first object of each kind, made while descriptors are plentiful: the
  // undefined-behaviour sanitizer checks a class's dynamic type once and
  // needs a pipe of its own for that, which it could not make below.
  {
    Zel::ThreadWPipes warmUp;
    warmUp.pushToInput(new Note());
  }
  struct rlimit saved;
  CHILD_EXPECT(::getrlimit(RLIMIT_NOFILE, &saved) == 0);
  const int before = openDescriptors();
  // The limit caps the numbers of new descriptors: with it at the lowest
  // free number there is room for none, and the pipe cannot be made.
  const std::vector<int> free = freeDescriptors(2);
  struct rlimit rl = saved;
  rl.rlim_cur = static_cast<rlim_t>(free[0]);
  CHILD_EXPECT(::setrlimit(RLIMIT_NOFILE, &rl) == 0);
  std::string what;
  try {
    Zel::PipeExt pipe;
    what = "constructed";
  } catch (const Poco::Exception& e) {
    what = e.displayText();
  }
  CHILD_EXPECT(what != "constructed");
  CHILD_EXPECT(what.find("pipe") != std::string::npos);
  CHILD_EXPECT_EQ(before, openDescriptors());

  // Room for one pipe only: a ThreadWPipes makes its input pipe, fails
  // on the output pipe, and gives the input pipe's descriptors back.
  rl.rlim_cur = static_cast<rlim_t>(free[1] + 1);
  CHILD_EXPECT(::setrlimit(RLIMIT_NOFILE, &rl) == 0);
  what = "";
  try {
    Zel::ThreadWPipes thread;
    what = "constructed";
  } catch (const Poco::Exception& e) {
    what = e.displayText();
  }
  CHILD_EXPECT(what != "constructed");
  CHILD_EXPECT_EQ(before, openDescriptors());

  // Exactly room for the pipe: it is made and works.
  {
    Zel::PipeExt pipe;
    Note* m = new Note();
    pipe.push(m);
    std::list<Zel::PipeMessage*>* taken = pipe.pop();
    CHILD_EXPECT(taken != nullptr && taken->size() == 1 && taken->front() == m);
    Zel::ThreadWPipes::removeMessages(taken);  // deletes as the warm-up did
    delete taken;
  }
  CHILD_EXPECT(::setrlimit(RLIMIT_NOFILE, &saved) == 0);
  CHILD_EXPECT_EQ(before, openDescriptors());
  _exit(0);
}

TEST(PipeExtFault, DescriptorExhaustionThrowsAClearExceptionAndLeaksNothing) {
  EXPECT_EXIT(descriptorExhaustionChild(), ::testing::ExitedWithCode(0), "");
  gFaultsSurvived += 2;
}

// ------------------------------------------------------------ the message pipe

void wakeUpWriteChild(const std::string& dir) {
  // The singleton may exist already (made by an earlier test of this
  // process): point its file into the test's directory.
  LoggingWrapper::getInstance()->set_fname(dir + "/zel.log");
  ZelFault::reset();
  FakeTraceV2::reset();
  Zel::PipeExt pipe;
  ZelFault::arm(Call::Write, EAGAIN, 1, 0, pipe.writeHandle());
  Note* first = new Note();
  Note* second = new Note();
  pipe.push(first);  // the wake-up byte cannot be written
  CHILD_EXPECT_EQ(1, ZelFault::injected(Call::Write));
  CHILD_EXPECT(!pipe.empty());
  // Reported through the logging singleton: the error record in its file...
  LoggingWrapper::_lock->lock();
  LoggingWrapper::getInstance()->close_log_file();
  LoggingWrapper::_lock->unlock();
  const std::string text = readFile(dir + "/zel.log");
  CHILD_EXPECT(text.find(" ER signal                    Failed to write signal. Errno " +
                         std::to_string(EAGAIN) + "\n") != std::string::npos);
  // ...and the trace, once a version 2 interface is there.
  LoggingWrapper::getInstance()->set_trace_spi(FakeTraceV2::spi());
  ZelFault::arm(Call::Write, EPIPE, 1, 0, pipe.writeHandle());
  pipe.push_front(second);
  const std::vector<FakeTraceV2::Call> calls = FakeTraceV2::calls();
  CHILD_EXPECT_EQ(1u, calls.size());
  CHILD_EXPECT_EQ(std::string("src/common/src/PipeExt"), calls[0].file);
  CHILD_EXPECT_EQ(std::string("signal"), calls[0].function);
  CHILD_EXPECT_EQ(143u, calls[0].line);
  CHILD_EXPECT_EQ(3u, calls[0].level);
  CHILD_EXPECT_EQ("Failed to write signal. Errno " + std::to_string(EPIPE), calls[0].text);
  LoggingWrapper::getInstance()->set_trace_spi(nullptr);

  // Both messages are still delivered, the later one first, and the
  // next push wakes the consumer again.
  Note* third = new Note();
  pipe.push(third);
  std::list<Zel::PipeMessage*>* taken = pipe.pop();
  CHILD_EXPECT(taken != nullptr);
  CHILD_EXPECT_EQ(3u, taken->size());
  CHILD_EXPECT(taken->front() == second);
  CHILD_EXPECT(taken->back() == third);
  for (Zel::PipeMessage* m : *taken) delete m;
  delete taken;
  CHILD_EXPECT(pipe.empty());
  _exit(0);
}

TEST(PipeExtFault, FailingWakeUpWriteIsReportedAndTheMessageStaysQueued) {
  ZelTest::TempDir dir;
  EXPECT_EXIT(wakeUpWriteChild(dir.path()), ::testing::ExitedWithCode(0), "");
  gFaultsSurvived += 2;
}

// ---------------------------------------------- framework interfaces misbehave

TEST_F(LoggingFaultTest, LogInterfaceRejectingEveryRecordIsReportedForEachAndNothingGoesToTheFile) {
  LoggingWrapper* w = smallWrapper(100000);
  FakeLogSpi::reset(-1);
  w->set_log_spi(FakeLogSpi::spi());
  StderrCapture cap;
  for (int n = 1; n <= 5; ++n) writeRecord(w, n);
  const std::string err = cap.release();
  EXPECT_EQ(5u, FakeLogSpi::calls().size()) << "every record is offered again";
  for (int n = 1; n <= 5; ++n) {
    const std::string line = "Failed to write ' faulty                    " + recordText(n) + "' to log interface!\n";
    EXPECT_NE(std::string::npos, err.find(line)) << err;
  }
  EXPECT_FALSE(fileExists(liveFile()));
  w->set_log_spi(nullptr);
  writeRecord(w, 6);
  ZelTest::closeWrapperFile(w);
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), 6));
  survived(5);
}

TEST_F(LoggingFaultTest, LogInterfaceLoggingAgainFromItsCallbackDoesNotDeadlock) {
  LoggingWrapper* w = smallWrapper(100000);
  FakeLogSpi::reset();
  int depth = 0;
  FakeLogSpi::hook = [&] {
    // The interface is called without the lock: logging again is allowed.
    if (++depth == 1) w->log_printf("callback", 3, 1, "nested %d", depth);
    --depth;
  };
  w->set_log_spi(FakeLogSpi::spi());
  writeRecord(w, 1);
  const std::vector<FakeLogSpi::Call> calls = FakeLogSpi::calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(" faulty                    " + recordText(1), calls[0].text);
  EXPECT_EQ(" callback                  nested 1", calls[1].text);
  w->set_log_spi(nullptr);
  survived();
}

TEST_F(LoggingFaultTest, TraceV1InterfaceLoggingAgainFromItsCallbackDoesNotDeadlock) {
  LoggingWrapper* w = smallWrapper(100000);
  w->set_level(8);
  FakeTraceV1::reset();
  int depth = 0;
  FakeTraceV1::hook = [&] {
    // Called outside the lock: both entry points may be used again.
    if (++depth == 1) {
      w->trace_printf("a/b.cpp", "inner", 2, 8, 0, "%s", "nested trace");
      writeRecord(w, 2);
    }
    --depth;
  };
  w->set_trace_spi(FakeTraceV1::spi());
  w->trace_printf("a/b.cpp", "outer", 1, 8, 0, "%s", "outer trace");
  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_NE(std::string::npos, calls[0].text.find("outer trace"));
  EXPECT_NE(std::string::npos, calls[1].text.find("nested trace"));
  ZelTest::closeWrapperFile(w);
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), 2));
  w->set_trace_spi(nullptr);
  survived();
}

TEST_F(LoggingFaultTest, TraceV2InterfaceLoggingAgainUnderTheLockThrowsInsteadOfDeadlocking) {
  LoggingWrapper* w = smallWrapper(100000);
  FakeTraceV2::reset();
  bool reentered = false;
  FakeTraceV2::hook = [&] {
    // vtrace runs under the logging lock, which is not recursive: logging
    // again from here fails at once instead of hanging.
    if (!reentered) {
      reentered = true;
      writeRecord(w, 1);
    }
  };
  w->set_trace_spi(FakeTraceV2::spi());
  std::string reason;
  try {
    w->trace_v2_printf(Zel::Trace::Common, 3, "f.cpp", "fn", 1, "%s", "first");
  } catch (const Zel::ZelInternalErrorException& e) {
    reason = e.getReason();
  }
  EXPECT_EQ("TxThreadLock::put, pthread_mutex_lock failed(" + std::to_string(EDEADLK) + "," +
                std::strerror(EDEADLK) + ")",
            reason);
  // The lock was given back on the way out: the wrapper works on.
  FakeTraceV2::hook = nullptr;
  w->trace_v2_printf(Zel::Trace::Common, 3, "f.cpp", "fn", 2, "%s", "second");
  ASSERT_EQ(2u, FakeTraceV2::calls().size());
  EXPECT_EQ("second", FakeTraceV2::calls()[1].text);
  w->set_trace_spi(nullptr);
  writeRecord(w, 2);
  ZelTest::closeWrapperFile(w);
  EXPECT_TRUE(holdsRecord(readFile(liveFile()), 2));
  survived();
}

TEST_F(LoggingFaultTest, TraceV2InterfaceRejectingEveryRegistrationStillForwards) {
  LoggingWrapper* w = smallWrapper(100000);
  FakeTraceV2::reset(ZelFailure);
  StderrCapture cap;
  w->set_trace_spi(FakeTraceV2::spi());
  const std::string err = cap.release();
  EXPECT_EQ(11u, countOf(err, " subsystem in v2 of trace if\n")) << err;
  w->trace_v2_printf(Zel::Trace::Common, 3, "f.cpp", "fn", 1, "%s", "still forwarded");
  ASSERT_EQ(1u, FakeTraceV2::calls().size());
  EXPECT_EQ("still forwarded", FakeTraceV2::calls()[0].text);
  w->set_trace_spi(nullptr);
  survived();
}

// Prints how many faults this process injected and survived, for the
// reliability report, when the tests are done.
class FaultFigures : public ::testing::Environment {
 public:
  void TearDown() override {
    std::printf("[ figures  ] %ld system-call failures injected, %d faults survived in this process\n",
                ZelFault::totalInjected(), gFaultsSurvived.load());
  }
};
::testing::Environment* const gFigures = ::testing::AddGlobalTestEnvironment(new FaultFigures);

}  // namespace
