// Concurrency stress of the logging wrapper's local file: many threads write
// records through log_printf and trace_printf at once while the file rotates
// under them. Afterwards every line in the log directory is checked against
// the exact text its writer produced, so that a lost, doubled, torn or
// interleaved record, or a gap in the file numbering, fails the test.
//
// What rotation guarantees and what is asserted:
// - Records are written and files are rotated under the one logging lock, so
//   reading the numbered files from the lowest number up and the live file
//   last yields each thread's records in the order that thread wrote them.
// - A numbered file is made only when the live file has grown strictly past
//   the size limit (checked before each record, on what has reached the disk),
//   so every numbered file is larger than the limit and at most one stdio
//   buffer plus one record larger.
// - Without pruning, the numbers are consecutive from 1 and every record is
//   present exactly once.
// - With pruning, only whole numbered files are deleted, oldest first: the
//   survivors are the newest `count` numbers, each thread's surviving records
//   are a contiguous run that ends with its last record, and the records that
//   are missing add up to the sizes of the deleted files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;

const unsigned kThreads = 8;
const unsigned kDebugLevel = 8;
const unsigned kInfoLevel = 6;
const char kLogFunction[] = "stress_log";
const char kTraceFunction[] = "stress_trace";
const char kTraceFile[] = "src/stress/writer.cpp";
const char kTraceFileTail[] = "writer.cpp";
const size_t kPayloadLength = 48;
// A stamp is 29 characters unless the microsecond count is below 100, when its
// fraction has fewer than three digits.
const size_t kFullStampLength = 29;
const size_t kShortestStampLength = 27;
const size_t kRecordLimit = 999;  // longest record line without its newline

// The payload letter depends on thread and number, so that a line made of the
// pieces of two records does not match either record.
char payloadLetter(unsigned thread, unsigned number) {
  return static_cast<char>('a' + (thread * 7 + number) % 26);
}

std::string message(unsigned thread, unsigned number) {
  char head[64];
  std::snprintf(head, sizeof(head), "t=%u n=%u ", thread, number);
  return std::string(head) + std::string(kPayloadLength, payloadLetter(thread, number)) + "|";
}

// Even numbers go through log_printf, odd ones through trace_printf.
bool isTraceRecord(unsigned number) { return number % 2 == 1; }

unsigned traceLine(unsigned thread) { return 100 + thread; }

// The text of a record's line after the time stamp.
std::string lineAfterStamp(unsigned thread, unsigned number) {
  char head[256];
  if (isTraceRecord(number)) {
    std::snprintf(head, sizeof(head), " %2s %-24s:%-5d - %-25s ", "TR", kTraceFileTail,
                  static_cast<int>(traceLine(thread)), kTraceFunction);
  } else {
    std::snprintf(head, sizeof(head), " %2s %-25s ", "IN", kLogFunction);
  }
  return std::string(head) + message(thread, number);
}

// Bytes the record's line takes in the file, newline included, for a stamp
// of the given length.
size_t lineBytes(unsigned thread, unsigned number, size_t stampLength) {
  return stampLength + lineAfterStamp(thread, number).size() + 1;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// "YYYY-MM-DDThh:mm:ss.f[ff]+hh:mm"
bool isStamp(const std::string& s) {
  if (s.size() < kShortestStampLength || s.size() > kFullStampLength) return false;
  const std::string shape = "dddd-dd-ddTdd:dd:dd.";
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd' ? !isDigit(s[i]) : s[i] != shape[i]) return false;
  }
  const size_t fraction = s.size() - shape.size() - 6;
  for (size_t i = 0; i < fraction; ++i)
    if (!isDigit(s[shape.size() + i])) return false;
  const std::string zone = s.substr(s.size() - 6);
  return (zone[0] == '+' || zone[0] == '-') && isDigit(zone[1]) && isDigit(zone[2]) && zone[3] == ':' &&
         isDigit(zone[4]) && isDigit(zone[5]);
}

struct Record {
  unsigned thread;
  unsigned number;
};

// One file of the log directory as read back.
struct LogFile {
  std::string name;
  long long size;
  std::vector<Record> records;
};

// Parses one line; false (with `why` set) when it is not exactly a line that
// one of the writers produced.
bool parseLine(const std::string& line, Record& record, std::string& why) {
  const size_t blank = line.find(' ');
  if (blank == std::string::npos || !isStamp(line.substr(0, blank))) {
    why = "no time stamp";
    return false;
  }
  const size_t at = line.find(" t=", blank);
  unsigned thread = 0;
  unsigned number = 0;
  if (at == std::string::npos || std::sscanf(line.c_str() + at, " t=%u n=%u ", &thread, &number) != 2 ||
      thread >= kThreads) {
    why = "no record identity";
    return false;
  }
  if (line.compare(blank, std::string::npos, lineAfterStamp(thread, number)) != 0) {
    why = "torn or interleaved";
    return false;
  }
  record.thread = thread;
  record.number = number;
  return true;
}

// The log directory's files in writing order: zel.log.<n> by ascending n,
// then the live file. Fails the test on a stray name or a malformed line.
std::vector<LogFile> readLogDirectory(const std::string& dir, std::vector<long>& numbers) {
  std::map<long, std::string> numbered;
  bool haveLive = false;
  for (const std::string& name : ZelTest::listDir(dir)) {
    if (name == "zel.log") {
      haveLive = true;
      continue;
    }
    char* end = nullptr;
    const long n = name.compare(0, 8, "zel.log.") == 0 ? std::strtol(name.c_str() + 8, &end, 10) : -1;
    if (n <= 0 || end == nullptr || *end != '\0') {
      ADD_FAILURE() << "unexpected file in the log directory: " << name;
      continue;
    }
    numbered[n] = name;
  }
  std::vector<std::string> order;
  numbers.clear();
  for (const auto& entry : numbered) {
    numbers.push_back(entry.first);
    order.push_back(entry.second);
  }
  if (haveLive) order.push_back("zel.log");

  std::vector<LogFile> files;
  for (const std::string& name : order) {
    LogFile file;
    file.name = name;
    const std::string text = ZelTest::readFile(dir + "/" + name);
    file.size = static_cast<long long>(text.size());
    size_t start = 0;
    size_t bad = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) {
        ADD_FAILURE() << name << " ends in a partial line: " << text.substr(start);
        break;
      }
      const std::string line = text.substr(start, end - start);
      Record record;
      std::string why;
      if (parseLine(line, record, why)) {
        file.records.push_back(record);
      } else if (++bad <= 5) {
        ADD_FAILURE() << name << ": " << why << ": [" << line << "]";
      }
      start = end + 1;
    }
    EXPECT_EQ(0u, bad) << "malformed lines in " << name;
    files.push_back(file);
  }
  return files;
}

// The stdio buffer of a file in dir is st_blksize bytes (what glibc uses).
long long stdioBufferSize(const std::string& dir) {
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || st.st_blksize <= 0) return BUFSIZ;
  return std::max<long long>(static_cast<long long>(st.st_blksize), BUFSIZ);
}

// Runs kThreads writers of `perThread` records each through the wrapper's
// filters, as components call it, all starting at once.
void writeConcurrently(LoggingWrapper* w, unsigned perThread) {
  std::mutex mutex;
  std::condition_variable start;
  bool go = false;
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      {
        std::unique_lock<std::mutex> lock(mutex);
        start.wait(lock, [&] { return go; });
      }
      for (unsigned n = 0; n < perThread; ++n) {
        const std::string text(std::string(kPayloadLength, payloadLetter(t, n)) + "|");
        if (isTraceRecord(n)) {
          if (w->isDebugLoggingAllowed(kDebugLevel))
            w->trace_printf(kTraceFile, kTraceFunction, traceLine(t), kDebugLevel, 0, "t=%u n=%u %s", t, n,
                            text.c_str());
        } else {
          if (w->isSaLoggingAllowed(1u << kInfoLevel, kInfoLevel))
            w->log_printf(kLogFunction, kInfoLevel, 1, "t=%u n=%u %s", t, n, text.c_str());
        }
      }
    });
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    go = true;
  }
  start.notify_all();
  for (std::thread& thread : threads) thread.join();
}

class LoggingStressTest : public ZelTest::WrapperTest {
 protected:
  // A wrapper whose local file rotates at maxSize and keeps `count` files,
  // with the level raised to 8 so that trace_printf writes to the file.
  LoggingWrapper* stressWrapper(unsigned maxSize, unsigned count) {
    LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FMAXSIZE", std::to_string(maxSize)},
                                 {"ZEL_LOGGING_FMAXCOUNT", std::to_string(count)}});
    w->set_level(kDebugLevel);
    return w;
  }
};

TEST_F(LoggingStressTest, EveryRecordOfEightThreadsLandsExactlyOnceAcrossRotatedFiles) {
  const unsigned perThread = 20000;
  const unsigned maxSize = 65536;
  // Far more files than the run makes (about 18 MB / 64 KiB), so none is pruned.
  LoggingWrapper* w = stressWrapper(maxSize, 100000);

  ZelTest::StderrCapture err;
  writeConcurrently(w, perThread);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", err.release()) << "the logging machinery complained";

  std::vector<long> numbers;
  const std::vector<LogFile> files = readLogDirectory(tmp.path(), numbers);
  ASSERT_FALSE(files.empty());
  ASSERT_EQ("zel.log", files.back().name);

  // Consecutive numbering 1..N, and enough rotations to have raced.
  ASSERT_GE(numbers.size(), 100u);
  for (size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(static_cast<long>(i + 1), numbers[i]);

  // Each numbered file grew strictly past the limit before it was rotated.
  const long long slack = stdioBufferSize(tmp.path()) + kRecordLimit + 1;
  for (size_t i = 0; i + 1 < files.size(); ++i) {
    EXPECT_GT(files[i].size, static_cast<long long>(maxSize)) << files[i].name;
    EXPECT_LE(files[i].size, maxSize + slack) << files[i].name;
  }
  EXPECT_LE(files.back().size, maxSize + slack);

  // In reading order, each thread's numbers run 0, 1, 2, ... without gap or
  // repetition, up to its last record.
  std::vector<unsigned> next(kThreads, 0);
  size_t total = 0;
  for (const LogFile& file : files) {
    for (const Record& r : file.records) {
      ASSERT_EQ(next[r.thread], r.number) << "thread " << r.thread << " out of order in " << file.name;
      ++next[r.thread];
      ++total;
    }
  }
  for (unsigned t = 0; t < kThreads; ++t) EXPECT_EQ(perThread, next[t]) << "thread " << t;
  EXPECT_EQ(static_cast<size_t>(kThreads) * perThread, total);
  std::printf("[ figures  ] %zu records written and verified in %zu files\n", total, files.size());
}

TEST_F(LoggingStressTest, PruningDeletesOnlyWholeFilesOfTheOldestRecords) {
  const unsigned perThread = 5000;
  const unsigned maxSize = 16384;
  const unsigned count = 4;
  LoggingWrapper* w = stressWrapper(maxSize, count);

  ZelTest::StderrCapture err;
  writeConcurrently(w, perThread);
  ZelTest::closeWrapperFile(w);
  EXPECT_EQ("", err.release()) << "the logging machinery complained";

  std::vector<long> numbers;
  const std::vector<LogFile> files = readLogDirectory(tmp.path(), numbers);
  ASSERT_EQ(count + 1, files.size()) << "count numbered files and the live file";
  ASSERT_EQ("zel.log", files.back().name);

  // The survivors are the newest `count` numbers, consecutive; every number
  // below them was made and deleted, one per rotation.
  const long newest = numbers.back();
  ASSERT_GT(newest, static_cast<long>(count) * 10) << "too few rotations to test pruning";
  for (size_t i = 0; i < numbers.size(); ++i) {
    ASSERT_EQ(newest - static_cast<long>(count) + 1 + static_cast<long>(i), numbers[i]);
  }
  const long deletedFiles = newest - static_cast<long>(count);

  const long long slack = stdioBufferSize(tmp.path()) + kRecordLimit + 1;
  for (size_t i = 0; i + 1 < files.size(); ++i) {
    EXPECT_GT(files[i].size, static_cast<long long>(maxSize)) << files[i].name;
    EXPECT_LE(files[i].size, maxSize + slack) << files[i].name;
  }

  // Per thread, the surviving records are a contiguous run ending with the
  // thread's last record: the thread's oldest records are the missing ones.
  std::vector<long> first(kThreads, -1);
  std::vector<unsigned> next(kThreads, 0);
  for (const LogFile& file : files) {
    for (const Record& r : file.records) {
      if (first[r.thread] < 0) {
        first[r.thread] = r.number;
        next[r.thread] = r.number;
      }
      ASSERT_EQ(next[r.thread], r.number) << "gap or disorder for thread " << r.thread << " in " << file.name;
      ++next[r.thread];
    }
  }
  size_t missing = 0;
  long long missingBytesMax = 0;  // as if every missing stamp were full length
  long long missingBytesMin = 0;
  for (unsigned t = 0; t < kThreads; ++t) {
    if (first[t] >= 0) {
      EXPECT_EQ(perThread, next[t]) << "thread " << t << " lost its newest records";
    }
    const unsigned firstSurviving = first[t] >= 0 ? static_cast<unsigned>(first[t]) : perThread;
    for (unsigned n = 0; n < firstSurviving; ++n) {
      missingBytesMax += static_cast<long long>(lineBytes(t, n, kFullStampLength));
      missingBytesMin += static_cast<long long>(lineBytes(t, n, kShortestStampLength));
      ++missing;
    }
  }
  // The missing records fill exactly the deleted files, each of which had
  // grown past the limit by at most the slack.
  EXPECT_GT(missingBytesMax, deletedFiles * static_cast<long long>(maxSize));
  EXPECT_LE(missingBytesMin, deletedFiles * (maxSize + slack));
  EXPECT_GT(missing, 0u);
  std::printf("[ figures  ] %zu records written, %zu pruned in %ld whole files, the rest verified\n",
              static_cast<size_t>(kThreads) * perThread, missing, deletedFiles);
}

}  // namespace
