// Tests of the local log file's naming and size rotation: when the live file
// is rotated, which numbered slot it goes to, which old files are deleted, how
// numbered files are found in the directory, and the failure paths.
//
// Each test works on a wrapper of its own whose log directory is the test's
// fresh temp dir. The live file is buffered by stdio and fstat sees flushed
// bytes only, so sizes are set up by writing files on disk first and, where
// the exact moment matters, by calling the rotation members directly under
// LoggingWrapper::_lock as the record writers do.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <locale>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "internal/LogFileNames.h"
#include "support/LogLines.h"
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using Zel::internal::filenameIndex;
using Zel::internal::getFileSize;
using Zel::internal::matchLogFileName;
using Zel::internal::parseNumber;
using ZelTest::fileExists;
using ZelTest::listDir;
using ZelTest::readFile;
using ZelTest::StderrCapture;
using ZelTest::writeFile;

typedef std::vector<std::string> Names;

// Holds the logging lock for a scope, as log_printf and trace_printf do
// around the size check and the rotation.
class LoggingLock {
 public:
  LoggingLock() { LoggingWrapper::_lock->lock(); }
  ~LoggingLock() { (void)LoggingWrapper::_lock->errUnlock(); }
  LoggingLock(const LoggingLock&) = delete;
  LoggingLock& operator=(const LoggingLock&) = delete;
};

void appendFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::app);
  out << content;
}

std::string realPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  std::string result = real != nullptr ? real : "";
  std::free(real);
  return result;
}

// Descriptor number under which this process has `path` open, or -1.
int openDescriptorOf(const std::string& path) {
  const std::string wanted = realPath(path);
  for (int fd = 0; fd < 1024; ++fd) {
    char link[PATH_MAX];
    const std::string proc = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(proc.c_str(), link, sizeof(link) - 1);
    if (length <= 0) continue;
    link[length] = '\0';
    if (wanted == link) return fd;
  }
  return -1;
}

// Uses up every free file descriptor below a lowered soft limit, so that the
// next opendir (or open) fails with EMFILE; gives everything back when
// destroyed.
class DescriptorExhaustion {
 public:
  DescriptorExhaustion() {
    getrlimit(RLIMIT_NOFILE, &_saved);
    struct rlimit low = _saved;
    low.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &low) != 0) return;
    _lowered = true;
    const int first = open("/dev/null", O_RDONLY);
    if (first < 0) return;
    _fds.push_back(first);
    for (;;) {
      const int fd = dup(first);
      if (fd < 0) break;
      _fds.push_back(fd);
    }
  }
  ~DescriptorExhaustion() {
    for (int fd : _fds) ::close(fd);
    if (_lowered) setrlimit(RLIMIT_NOFILE, &_saved);
  }
  bool active() const { return _lowered; }

 private:
  struct rlimit _saved;
  bool _lowered = false;
  std::vector<int> _fds;
};

class LoggingWrapperRotationTest : public ZelTest::WrapperTest {
 protected:
  // A wrapper with the given size limit and count limit.
  LoggingWrapper* sized(unsigned maxSize, unsigned maxCount = 5) {
    return wrapper({{"ZEL_LOGGING_FMAXSIZE", std::to_string(maxSize)},
                    {"ZEL_LOGGING_FMAXCOUNT", std::to_string(maxCount)}});
  }
  std::string numbered(int index) const { return tmp.file("zel.log." + std::to_string(index)); }
  // One size check as a record writer makes it: open the live file if it is
  // not open, check (and maybe rotate), and leave the file open.
  void checkOnce(LoggingWrapper* w) {
    LoggingLock lock;
    w->open_log_file();
    w->check_and_rotate_log_file();
  }
  // A raw record (facility 13): the text and a newline, nothing else.
  void rawRecord(LoggingWrapper* w, const char* text) { w->log_printf("fn", 6, 13, "%s", text); }
  void flush(LoggingWrapper* w) { ZelTest::closeWrapperFile(w); }
};

// ------------------------------------------------------------ file-name helpers

TEST(LogFileNames, FilenameIndexIsPositionPastTheLastSlash) {
  EXPECT_EQ(0, filenameIndex(""));
  EXPECT_EQ(0, filenameIndex("zel.log"));
  EXPECT_EQ(3, filenameIndex("/a/b"));
  EXPECT_EQ(1, filenameIndex("/zel.log"));
  EXPECT_EQ(5, filenameIndex("/tmp/"));
  EXPECT_EQ(3, filenameIndex("a//b"));
  EXPECT_EQ(9, filenameIndex("/var/log/x.log"));
  EXPECT_EQ(0, filenameIndex(nullptr));
}

TEST(LogFileNames, ParseNumberAcceptsOnlyWholeStrings) {
  struct Row {
    const char* text;
    bool accepted;
    uint64_t value;
  };
  const Row rows[] = {
      {"12", true, 12},  {"", true, 0},       {"12a", false, 0}, {"1 ", false, 0},   {"+7", true, 7},
      {" 7", true, 7},   {"007", true, 7},    {"0", true, 0},    {"-3", true, static_cast<uint64_t>(-3)},
      {"a12", false, 0}, {"1.5", false, 0},   {" ", false, 0},    {".gz", false, 0},  {"7.gz", false, 0},
  };
  for (const Row& row : rows) {
    uint64_t value = 4242;
    EXPECT_EQ(row.accepted, parseNumber(value, row.text)) << "[" << row.text << "]";
    EXPECT_EQ(row.accepted ? row.value : 4242u, value) << "[" << row.text << "]";
  }
}

TEST(LogFileNames, ParseNumberRejectsEmbeddedNul) {
  uint64_t value = 4242;
  EXPECT_FALSE(parseNumber(value, std::string("1\0x", 3)));
  EXPECT_EQ(4242u, value);
}

TEST(LogFileNames, ParseNumberTakesOutOfRangeValuesAsStrtolClampsThem) {
  uint64_t value = 0;
  EXPECT_TRUE(parseNumber(value, "99999999999999999999999"));
  EXPECT_EQ(static_cast<uint64_t>(LONG_MAX), value);
}

TEST(LogFileNames, MatchingIsALooseSubstringTestWithANumericSuffix) {
  struct Row {
    const char* entry;
    bool matched;
    uint64_t number;
  };
  const Row rows[] = {
      {"zel.log.3", true, 3},        {"zel.log.", true, 0},          {"zel.log.+7", true, 7},
      {"zel.log. 7", true, 7},       {"zel.log.007", true, 7},       {"zel.logX9", true, 9},
      {"zel.log.-3", true, static_cast<uint64_t>(-3)},               {"zel.log.7.gz", false, 0},
      {"zel.log", false, 0},         {"backup-zel.log-3", false, 0}, {"other.log.3", false, 0},
      {".", false, 0},               {"..", false, 0},               {"Xzel.log5", true, 5},
  };
  for (const Row& row : rows) {
    uint64_t number = 4242;
    EXPECT_EQ(row.matched, matchLogFileName(row.entry, "zel.log", number)) << row.entry;
    EXPECT_EQ(row.matched ? row.number : 4242u, number) << row.entry;
  }
}

TEST_F(LoggingWrapperRotationTest, GetFileSizeIsZeroWhenStatFails) {
  writeFile(tmp.file("five"), "12345");
  EXPECT_EQ(5, getFileSize(tmp.file("five")));
  EXPECT_EQ(0, getFileSize(tmp.file("missing")));
  writeFile(tmp.file("empty"), "");
  EXPECT_EQ(0, getFileSize(tmp.file("empty")));
}

TEST_F(LoggingWrapperRotationTest, NumberedNamesAreDirBaseDotIndex) {
  LoggingWrapper* w = wrapper();
  EXPECT_EQ(tmp.file("zel.log.1"), w->makeLogFilename(1));
  EXPECT_EQ(tmp.file("zel.log.999999"), w->makeLogFilename(999999));
  EXPECT_EQ(tmp.file("zel.log.0"), w->makeLogFilename(0));
  EXPECT_EQ(tmp.file("zel.log.-3"), w->makeLogFilename(-3));
  EXPECT_EQ(tmp.file("zel.log.3"), w->getAbsFilename("zel.log.3"));
  EXPECT_EQ(tmp.path() + "/../x", w->getAbsFilename("../x"));
}

// A host program may install a global locale that groups digits; numbered
// names must stay plain digits or they could never be found again.
TEST_F(LoggingWrapperRotationTest, NumberedNamesIgnoreTheGlobalLocalesDigitGrouping) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };
  LoggingWrapper* w = wrapper();
  const std::locale saved = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  std::ostringstream probe;
  probe << 1234567;
  const std::string grouped = probe.str();
  const std::string name = w->makeLogFilename(1234567);
  std::locale::global(saved);
  ASSERT_EQ("1,234,567", grouped);  // the locale really groups
  EXPECT_EQ(tmp.file("zel.log.1234567"), name);
}

// ------------------------------------------------------------ getFileMatches

TEST_F(LoggingWrapperRotationTest, GetFileMatchesIsLooseAndSortedByIndexThenPath) {
  for (const char* name : {"zel.log.10", "zel.log.3", "zel.log.2", "zel.log.", "zel.log.+7", "zel.log. 7",
                           "zel.log.007", "zel.log.7.gz", "zel.log", "backup-zel.log-3", "zel.logX9",
                           "zel.log.-3", "other.txt", "Xzel.log5"})
    writeFile(tmp.file(name), "x");
  LoggingWrapper* w = wrapper();
  LoggingWrapper::FileMatches matches = {{77, "stale"}};
  ASSERT_TRUE(w->getFileMatches(matches));
  const LoggingWrapper::FileMatches expected = {
      {-3, tmp.file("zel.log.-3")}, {0, tmp.file("zel.log.")},   {2, tmp.file("zel.log.2")},
      {3, tmp.file("zel.log.3")},   {5, tmp.file("Xzel.log5")},   {7, tmp.file("zel.log. 7")},
      {7, tmp.file("zel.log.+7")},  {7, tmp.file("zel.log.007")}, {9, tmp.file("zel.logX9")},
      {10, tmp.file("zel.log.10")},
  };
  EXPECT_EQ(expected, matches);
}

TEST_F(LoggingWrapperRotationTest, GetFileMatchesIsEmptyInAnEmptyDirectory) {
  LoggingWrapper* w = wrapper();
  LoggingWrapper::FileMatches matches = {{1, "stale"}};
  EXPECT_TRUE(w->getFileMatches(matches));
  EXPECT_TRUE(matches.empty());
}

TEST_F(LoggingWrapperRotationTest, GetFileMatchesFailsAndComplainsWhenTheDirectoryCannotBeOpened) {
  // realpath of the missing directory fails, so the name keeps its slash.
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", tmp.file("missing/zel.log")}});
  LoggingWrapper::FileMatches matches = {{1, "stale"}};
  StderrCapture capture;
  const bool opened = w->getFileMatches(matches);
  const std::string err = capture.release();
  EXPECT_FALSE(opened);
  EXPECT_TRUE(matches.empty());
  EXPECT_EQ("Failed to open dir " + tmp.path() + "/missing/\n\n", err);
}

// ------------------------------------------------------------ when to rotate

TEST_F(LoggingWrapperRotationTest, FileOfExactlyMaxSizeIsNotRotated) {
  writeFile(liveFile(), std::string(100, 'o'));
  LoggingWrapper* w = sized(100);
  rawRecord(w, "record");
  flush(w);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(100, 'o') + "record\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, FileOneByteOverMaxSizeIsRotatedBeforeTheRecord) {
  writeFile(liveFile(), std::string(101, 'o'));
  LoggingWrapper* w = sized(100);
  rawRecord(w, "record");
  flush(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'o'), readFile(numbered(1)));
  EXPECT_EQ("record\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, SameOpenFileRotatesOnceItGrowsOneBytePastTheLimit) {
  writeFile(liveFile(), std::string(100, 'o'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  appendFile(liveFile(), "+");  // the open file now holds 101 bytes
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(100, 'o') + "+", readFile(numbered(1)));
}

TEST_F(LoggingWrapperRotationTest, BufferedRecordsAreNotCountedUntilFlushed) {
  // Every record is checked before it is written, against what the file
  // holds on disk; stdio keeps small records in its buffer.
  LoggingWrapper* w = sized(10);
  for (int i = 0; i < 5; ++i) rawRecord(w, "0123456789");
  flush(w);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  EXPECT_EQ(55u, readFile(liveFile()).size());
  rawRecord(w, "next");  // reopened: 55 bytes on disk, over the limit
  flush(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  EXPECT_EQ(55u, readFile(numbered(1)).size());
  EXPECT_EQ("next\n", readFile(liveFile()));
}

// ------------------------------------------------------------ where the file goes

TEST_F(LoggingWrapperRotationTest, FirstRotationUsesTheFirstSlotAndOpensAnEmptyLiveFile) {
  writeFile(liveFile(), std::string(101, 'o'));
  LoggingWrapper* w = sized(100);
  EXPECT_EQ(tmp.file("zel.log.1"), w->makeLogFilename(1));
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'o'), readFile(numbered(1)));
  EXPECT_EQ(0, getFileSize(liveFile()));
  // The reopened file is the one the next record goes to.
  rawRecord(w, "after");
  flush(w);
  EXPECT_EQ("after\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, WithFiveFullFilesTheOldestIsDeletedAndTheLiveFileBecomesSix) {
  for (int i = 1; i <= 5; ++i) writeFile(numbered(i), std::string(100, static_cast<char>('0' + i)));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  ASSERT_EQ(5u, w->get_max_count());
  rawRecord(w, "record");
  flush(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.2", "zel.log.3", "zel.log.4", "zel.log.5", "zel.log.6"}),
            listDir(tmp.path()));
  for (int i = 2; i <= 5; ++i) EXPECT_EQ(std::string(100, static_cast<char>('0' + i)), readFile(numbered(i)));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(6)));
  EXPECT_EQ("record\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, NewestFileNotFullAfterTheLimitWasRaisedIsReplaced) {
  writeFile(numbered(1), std::string(150, 'a'));
  writeFile(numbered(2), std::string(150, 'b'));
  LoggingWrapper* w = sized(100);
  w->set_max_size(200);
  writeFile(liveFile(), std::string(201, 'L'));
  rawRecord(w, "record");
  flush(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(150, 'a'), readFile(numbered(1)));
  EXPECT_EQ(std::string(201, 'L'), readFile(numbered(2)));  // replaced, no number 3
  EXPECT_EQ("record\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, NewestFileOfExactlyMaxSizeCountsAsFull) {
  writeFile(numbered(1), std::string(100, 'a'));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(100, 'a'), readFile(numbered(1)));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(2)));
}

TEST_F(LoggingWrapperRotationTest, NewestFileThatCannotBeStatCountsAsEmptyAndIsReplaced) {
  writeFile(numbered(1), std::string(100, 'a'));
  ASSERT_EQ(0, symlink(tmp.file("nowhere").c_str(), numbered(2).c_str()));  // dangling
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2"}), listDir(tmp.path()));
  struct stat st;
  ASSERT_EQ(0, lstat(numbered(2).c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(2)));
}

TEST_F(LoggingWrapperRotationTest, NumbersBelowTheLastIndexJustGrow) {
  writeFile(tmp.file("zel.log.999997"), std::string(100, '7'));
  writeFile(tmp.file("zel.log.999998"), std::string(100, '8'));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.999997", "zel.log.999998", "zel.log.999999"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'L'), readFile(tmp.file("zel.log.999999")));
}

TEST_F(LoggingWrapperRotationTest, AfterNumber999999FilesAreRenumberedFromOneAndTheOldestDeleted) {
  for (int i = 999995; i <= 999999; ++i)
    writeFile(tmp.file("zel.log." + std::to_string(i)), std::string(100, static_cast<char>('0' + i % 10)));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.2", "zel.log.3", "zel.log.4", "zel.log.5", "zel.log.6"}),
            listDir(tmp.path()));
  EXPECT_EQ(std::string(100, '6'), readFile(numbered(2)));  // former 999996
  EXPECT_EQ(std::string(100, '7'), readFile(numbered(3)));
  EXPECT_EQ(std::string(100, '8'), readFile(numbered(4)));
  EXPECT_EQ(std::string(100, '9'), readFile(numbered(5)));  // former 999999
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(6)));
}

TEST_F(LoggingWrapperRotationTest, AfterNumber999999WithRoomForSixTheFormer999995BecomesOne) {
  for (int i = 999995; i <= 999999; ++i)
    writeFile(tmp.file("zel.log." + std::to_string(i)), std::string(100, static_cast<char>('0' + i % 10)));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100, 6);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2", "zel.log.3", "zel.log.4", "zel.log.5", "zel.log.6"}),
            listDir(tmp.path()));
  EXPECT_EQ(std::string(100, '5'), readFile(numbered(1)));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(6)));
}

TEST_F(LoggingWrapperRotationTest, HighestPossibleNumberWrapsWithoutOverflow) {
  writeFile(tmp.file("zel.log.2147483647"), std::string(100, 'm'));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(100, 'm'), readFile(numbered(1)));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(2)));
}

TEST_F(LoggingWrapperRotationTest, StrayNameEndingInTheDotIsNumberZeroAndDeletedFirst) {
  writeFile(tmp.file("zel.log."), std::string(100, 's'));
  for (int i = 1; i <= 4; ++i) writeFile(numbered(i), std::string(100, static_cast<char>('0' + i)));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  {
    LoggingWrapper::FileMatches matches;
    ASSERT_TRUE(w->getFileMatches(matches));
    ASSERT_EQ(5u, matches.size());
    EXPECT_EQ(LoggingWrapper::FileMatch(0, tmp.file("zel.log.")), matches.front());
  }
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2", "zel.log.3", "zel.log.4", "zel.log.5"}),
            listDir(tmp.path()));
  EXPECT_EQ(std::string(100, '1'), readFile(numbered(1)));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(5)));
}

TEST_F(LoggingWrapperRotationTest, OnlyNamesWithANumericSuffixTakePartInTheRotation) {
  writeFile(tmp.file("backup-zel.log-3"), "backup");
  writeFile(tmp.file("zel.logX9"), std::string(100, '9'));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  checkOnce(w);
  // zel.logX9 is number 9 and full, so the live file becomes number 10;
  // backup-zel.log-3 is left alone.
  EXPECT_EQ(Names({"backup-zel.log-3", "zel.log", "zel.log.10", "zel.logX9"}), listDir(tmp.path()));
  EXPECT_EQ("backup", readFile(tmp.file("backup-zel.log-3")));
  EXPECT_EQ(std::string(101, 'L'), readFile(numbered(10)));
}

TEST_F(LoggingWrapperRotationTest, CountZeroDeletesNumberedFilesAndKeepsAppendingToTheLiveFile) {
  writeFile(numbered(1), std::string(100, '1'));
  writeFile(numbered(2), std::string(100, '2'));
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100, 0);
  rawRecord(w, "record");
  flush(w);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'L') + "record\n", readFile(liveFile()));
}

// ------------------------------------------------------------ the parts

TEST_F(LoggingWrapperRotationTest, RenumberFilesGivesConsecutiveNumbersFromTheFirstIndex) {
  writeFile(numbered(5), "five");
  writeFile(numbered(9), "nine");
  LoggingWrapper* w = wrapper();
  LoggingWrapper::FileMatches matches = {{5, numbered(5)}, {9, numbered(9)}, {12, numbered(12)}};
  w->renumberFiles(matches);
  const LoggingWrapper::FileMatches expected = {{1, numbered(1)}, {2, numbered(2)}, {3, numbered(3)}};
  EXPECT_EQ(expected, matches);
  // Number 12 had no file: it is only renamed in the sequence.
  EXPECT_EQ(Names({"zel.log.1", "zel.log.2"}), listDir(tmp.path()));
  EXPECT_EQ("five", readFile(numbered(1)));
  EXPECT_EQ("nine", readFile(numbered(2)));
}

TEST_F(LoggingWrapperRotationTest, RemoveOldLogFilesDropsTheOldestBeyondTheCount) {
  for (int i = 1; i <= 3; ++i) writeFile(numbered(i), "x");
  LoggingWrapper* w = sized(100, 2);
  // Number 0 is gone already: its pair is dropped all the same.
  LoggingWrapper::FileMatches matches = {{0, numbered(0)}, {1, numbered(1)}, {2, numbered(2)}, {3, numbered(3)}};
  w->removeOldLogFiles(matches);
  const LoggingWrapper::FileMatches expected = {{2, numbered(2)}, {3, numbered(3)}};
  EXPECT_EQ(expected, matches);
  EXPECT_EQ(Names({"zel.log.2", "zel.log.3"}), listDir(tmp.path()));
  // At the count or below nothing happens.
  w->removeOldLogFiles(matches);
  EXPECT_EQ(expected, matches);
  EXPECT_EQ(Names({"zel.log.2", "zel.log.3"}), listDir(tmp.path()));
}

// ------------------------------------------------------------ names and paths

TEST_F(LoggingWrapperRotationTest, WhenRealpathFailedNumberedNamesCarryADoubleSlashAndStillWork) {
  // The directory does not exist when the wrapper is made, so realpath
  // fails and the directory keeps its trailing slash; it is made afterwards.
  const std::string dir = tmp.file("later");
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", dir + "/zel.log"}, {"ZEL_LOGGING_FMAXSIZE", "100"}});
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  EXPECT_EQ(dir + "/zel.log", w->get_fname());
  EXPECT_EQ(dir + "//zel.log.1", w->makeLogFilename(1));
  EXPECT_EQ(dir + "//x", w->getAbsFilename("x"));
  writeFile(dir + "/zel.log.1", std::string(100, '1'));
  writeFile(dir + "/zel.log", std::string(101, 'L'));
  LoggingWrapper::FileMatches matches;
  ASSERT_TRUE(w->getFileMatches(matches));
  EXPECT_EQ(LoggingWrapper::FileMatches({{1, dir + "//zel.log.1"}}), matches);
  checkOnce(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1", "zel.log.2"}), listDir(dir));
  EXPECT_EQ(std::string(101, 'L'), readFile(dir + "/zel.log.2"));
  EXPECT_EQ(0, getFileSize(dir + "/zel.log"));
}

TEST_F(LoggingWrapperRotationTest, WhenRealpathSucceedsNumberedNamesUseTheCanonicalDirectory) {
  ASSERT_EQ(0, mkdir(tmp.file("sub").c_str(), 0700));
  const std::string given = tmp.file("sub/../sub/x.log");
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", given}, {"ZEL_LOGGING_FMAXSIZE", "100"}});
  const std::string real = realPath(tmp.file("sub"));
  EXPECT_EQ(given, w->get_fname());
  EXPECT_EQ(real + "/x.log.1", w->makeLogFilename(1));
  writeFile(tmp.file("sub/x.log"), std::string(101, 'L'));
  checkOnce(w);
  EXPECT_EQ(Names({"x.log", "x.log.1"}), listDir(tmp.file("sub")));
  EXPECT_EQ(std::string(101, 'L'), readFile(tmp.file("sub/x.log.1")));
}

TEST_F(LoggingWrapperRotationTest, AfterSetFnameTheNewLiveFileIsRotatedUnderTheOldNames) {
  LoggingWrapper* w = sized(100);
  writeFile(tmp.file("other.log"), std::string(101, 'O'));
  w->set_fname(tmp.file("other.log"));
  rawRecord(w, "record");
  flush(w);
  EXPECT_EQ(Names({"other.log", "zel.log.1"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'O'), readFile(numbered(1)));
  EXPECT_EQ("record\n", readFile(tmp.file("other.log")));
}

// ------------------------------------------------------------ failures

TEST_F(LoggingWrapperRotationTest, WhenTheDirectoryCannotBeOpenedTheLiveFileGoesToTheFirstSlot) {
  writeFile(numbered(3), "three");
  writeFile(liveFile(), "live");
  LoggingWrapper* w = sized(100);
  // The undefined-behaviour sanitizer checks the dynamic type of the name
  // stream once, and needs a pipe of its own for that: done while
  // descriptors are plentiful.
  (void)w->makeLogFilename(0);
  std::string err;
  {
    StderrCapture capture;  // needs descriptors of its own: made first
    {
      DescriptorExhaustion exhaustion;
      ASSERT_TRUE(exhaustion.active());
      LoggingLock lock;
      w->rotateLogs();  // the live file is closed, as rotateLogs expects
    }
    err = capture.release();
  }
  EXPECT_EQ("Failed to open dir " + tmp.path() + "\n\n", err);
  EXPECT_EQ(Names({"zel.log.1", "zel.log.3"}), listDir(tmp.path()));
  EXPECT_EQ("live", readFile(numbered(1)));
  EXPECT_EQ("three", readFile(numbered(3)));
}

TEST_F(LoggingWrapperRotationTest, WhenTheOpenFileCannotBeStatItIsDroppedWithBothMessages) {
  LoggingWrapper* w = sized(100);
  rawRecord(w, "first");  // opens the file; the record waits in the buffer
  const int fd = openDescriptorOf(liveFile());
  ASSERT_GE(fd, 0);
  std::string err;
  {
    StderrCapture capture;  // made before the descriptor is pulled away
    ASSERT_EQ(0, ::close(fd));
    rawRecord(w, "second");
    err = capture.release();
  }
  // fstat fails, the close fails on the same descriptor, the stream is
  // forgotten and the record goes to standard error.
  const std::string ebadf = std::to_string(EBADF) + ": " + std::strerror(EBADF);
  EXPECT_EQ("Failed to stat log file. Errno: " + ebadf + "\nFailed to close log file. Errno: " + ebadf +
                "\nsecond\n",
            err);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  // The next record opens the file again.
  rawRecord(w, "third");
  flush(w);
  EXPECT_EQ("third\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, AfterAStatFailureTheCheckHasNoFileToLookAt) {
  LoggingWrapper* w = sized(100);
  std::string err;
  {
    LoggingLock lock;
    w->open_log_file();
    const int fd = openDescriptorOf(liveFile());
    ASSERT_GE(fd, 0);
    StderrCapture capture;
    ASSERT_EQ(0, ::close(fd));
    w->check_and_rotate_log_file();
    w->check_and_rotate_log_file();  // no file any more: silent
    w->close_log_file();             // nothing to close: silent
    err = capture.release();
  }
  const std::string ebadf = std::to_string(EBADF) + ": " + std::strerror(EBADF);
  EXPECT_EQ("Failed to stat log file. Errno: " + ebadf + "\nFailed to close log file. Errno: " + ebadf + "\n",
            err);
}

TEST_F(LoggingWrapperRotationTest, LiveFileGoneIsNotRenamedAndANewOneIsOpened) {
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  {
    LoggingLock lock;
    w->open_log_file();
    ASSERT_EQ(0, unlink(liveFile().c_str()));  // the open file still holds 101 bytes
    w->check_and_rotate_log_file();
  }
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  EXPECT_EQ(0, getFileSize(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, ClosedWrapperComplainsAndDoesNotRotate) {
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  w->close();
  std::string err;
  {
    StderrCapture capture;
    LoggingLock lock;
    w->check_and_rotate_log_file();
    err = capture.release();
  }
  EXPECT_EQ("LoggingWrapper::check_and_rotate_log_file: LoggingWrapper has been closed!\n", err);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'L'), readFile(liveFile()));
}

TEST_F(LoggingWrapperRotationTest, WithoutAnOpenFileTheCheckDoesNothing) {
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = sized(100);
  std::string err;
  {
    StderrCapture capture;
    LoggingLock lock;
    w->check_and_rotate_log_file();
    err = capture.release();
  }
  EXPECT_EQ("", err);
  EXPECT_EQ(Names({"zel.log"}), listDir(tmp.path()));
}

// ------------------------------------------------------------ end to end

using ZelTest::kStampPattern;

std::string padded(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

// Payload of record `seq`: a length that varies so records straddle the
// buffer and size boundaries in every way.
std::string payload(int seq) { return std::string(static_cast<size_t>(seq % 97), static_cast<char>('a' + seq % 26)); }

// The text behind the time stamp that record `seq` must have; even numbers
// are written with log_printf, odd ones with trace_printf. `thread` tags the
// records of the threaded run.
std::string expectedBody(int thread, int seq) {
  char id[32];
  std::snprintf(id, sizeof(id), "t%d seq=%06d ", thread, seq);
  if (seq % 2 == 0) return " IN " + padded("e2eLog", 25) + " " + id + payload(seq);
  return " TR " + padded("E2eSource.cpp", 24) + ":" + padded("77", 5) + " - " + padded("e2eTrace", 25) + " " + id +
         payload(seq);
}

void writeRecord(LoggingWrapper* w, int thread, int seq) {
  if (seq % 2 == 0) {
    w->log_printf("e2eLog", 6, 1, "t%d seq=%06d %s", thread, seq, payload(seq).c_str());
  } else {
    w->trace_printf("/src/common/E2eSource.cpp", "e2eTrace", 77, 8, 0, "t%d seq=%06d %s", thread, seq,
                    payload(seq).c_str());
  }
}

struct ParsedRecord {
  int thread;
  int seq;
};

// Parses every line of a log file; a line that is not a whole record of the
// expected shape fails the test.
std::vector<ParsedRecord> parseRecords(const std::string& path) {
  static const std::regex stamp(kStampPattern);
  static const std::regex id(R"(t(\d+) seq=(\d{6}) )");
  std::vector<ParsedRecord> records;
  const std::string text = readFile(path);
  EXPECT_TRUE(text.empty() || text.back() == '\n') << path << " ends inside a record";
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    const size_t blank = line.find(' ');
    std::smatch match;
    const std::string body = blank == std::string::npos ? "" : line.substr(blank);
    if (blank == std::string::npos || !std::regex_match(line.substr(0, blank), stamp) ||
        !std::regex_search(body, match, id)) {
      ADD_FAILURE() << "torn or foreign line in " << path << ": [" << line << "]";
      continue;
    }
    const ParsedRecord record = {std::stoi(match[1]), std::stoi(match[2])};
    EXPECT_EQ(expectedBody(record.thread, record.seq), body) << path;
    records.push_back(record);
  }
  return records;
}

// Sequence numbers of one file, in file order.
std::vector<int> sequenceOf(const std::string& path) {
  std::vector<int> seqs;
  for (const ParsedRecord& record : parseRecords(path)) seqs.push_back(record.seq);
  return seqs;
}

// Writes `count` records one by one and, whenever a rotation has made a new
// numbered file, reads that (now complete) file. Returns the sequence
// numbers of every numbered file ever made, by number.
std::map<int, std::vector<int>> writeAndWatch(LoggingWrapper* w, int count) {
  std::map<int, std::vector<int>> made;
  int next = 1;
  for (int seq = 0; seq < count; ++seq) {
    writeRecord(w, 0, seq);
    const std::string path = w->makeLogFilename(next);
    if (fileExists(path)) made[next++] = sequenceOf(path);
  }
  return made;
}

TEST_F(LoggingWrapperRotationTest, EndToEndManyRotationsLoseAndTearNoRecord) {
  const int kRecords = 4000;
  LoggingWrapper* w = sized(3000, 1000);
  const std::map<int, std::vector<int>> made = writeAndWatch(w, kRecords);
  flush(w);
  const int last = static_cast<int>(made.size());
  ASSERT_GE(last, 20) << "too few rotations to mean anything";

  // The live file and the numbered files 1..last, nothing else.
  Names expectedNames = {"zel.log"};
  for (int i = 1; i <= last; ++i) expectedNames.push_back("zel.log." + std::to_string(i));
  std::sort(expectedNames.begin(), expectedNames.end());
  EXPECT_EQ(expectedNames, listDir(tmp.path()));

  // Read oldest to newest, then the live file: every record exactly once,
  // in order. Every numbered file grew past the limit before it was rotated.
  std::vector<int> all;
  for (int i = 1; i <= last; ++i) {
    const std::vector<int> seqs = sequenceOf(numbered(i));
    EXPECT_EQ(made.at(i), seqs) << "file " << i << " changed after it was made";
    EXPECT_GT(getFileSize(numbered(i)), 3000) << "file " << i;
    all.insert(all.end(), seqs.begin(), seqs.end());
  }
  const std::vector<int> live = sequenceOf(liveFile());
  EXPECT_FALSE(live.empty());
  all.insert(all.end(), live.begin(), live.end());
  ASSERT_EQ(static_cast<size_t>(kRecords), all.size());
  for (int seq = 0; seq < kRecords; ++seq) ASSERT_EQ(seq, all[static_cast<size_t>(seq)]);
}

TEST_F(LoggingWrapperRotationTest, EndToEndPruningDeletesOnlyWholeOldestFiles) {
  const int kRecords = 4000;
  const int kCount = 3;
  LoggingWrapper* w = sized(3000, kCount);
  const std::map<int, std::vector<int>> made = writeAndWatch(w, kRecords);
  flush(w);
  const int last = static_cast<int>(made.size());
  ASSERT_GT(last, kCount + 5);

  // Only the newest kCount numbers are left.
  Names expectedNames = {"zel.log"};
  for (int i = last - kCount + 1; i <= last; ++i) expectedNames.push_back("zel.log." + std::to_string(i));
  std::sort(expectedNames.begin(), expectedNames.end());
  EXPECT_EQ(expectedNames, listDir(tmp.path()));

  // All files ever made, then the live file, hold every record once and in
  // order: what is missing on disk now is exactly the deleted files' records.
  std::vector<int> all;
  for (const auto& file : made) all.insert(all.end(), file.second.begin(), file.second.end());
  std::vector<int> onDisk;
  for (int i = last - kCount + 1; i <= last; ++i) {
    const std::vector<int> seqs = sequenceOf(numbered(i));
    EXPECT_EQ(made.at(i), seqs) << "file " << i;
    onDisk.insert(onDisk.end(), seqs.begin(), seqs.end());
  }
  const std::vector<int> live = sequenceOf(liveFile());
  all.insert(all.end(), live.begin(), live.end());
  onDisk.insert(onDisk.end(), live.begin(), live.end());
  ASSERT_EQ(static_cast<size_t>(kRecords), all.size());
  for (int seq = 0; seq < kRecords; ++seq) ASSERT_EQ(seq, all[static_cast<size_t>(seq)]);
  // The survivors are a whole-file suffix: they start with the first record
  // of the oldest surviving file and run without a gap to the end.
  ASSERT_FALSE(onDisk.empty());
  const int firstKept = made.at(last - kCount + 1).front();
  EXPECT_EQ(made.at(last - kCount).back() + 1, firstKept);
  for (size_t i = 0; i < onDisk.size(); ++i) ASSERT_EQ(firstKept + static_cast<int>(i), onDisk[i]);
}

TEST_F(LoggingWrapperRotationTest, EndToEndConcurrentWritersKeepEveryRecordWhole) {
  const int kThreads = 4;
  const int kPerThread = 1000;
  LoggingWrapper* w = sized(3000, 100000);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([w, t] {
      for (int seq = 0; seq < kPerThread; ++seq) writeRecord(w, t, seq);
    });
  for (std::thread& thread : threads) thread.join();
  flush(w);

  std::vector<std::string> files;
  for (int i = 1; fileExists(numbered(i)); ++i) files.push_back(numbered(i));
  ASSERT_GE(files.size(), 10u);
  EXPECT_EQ(files.size() + 1, listDir(tmp.path()).size()) << "a gap in the numbers";
  files.push_back(liveFile());
  std::vector<int> nextOf(kThreads, 0);
  for (const std::string& file : files) {
    for (const ParsedRecord& record : parseRecords(file)) {
      ASSERT_GE(record.thread, 0);
      ASSERT_LT(record.thread, kThreads);
      EXPECT_EQ(nextOf[static_cast<size_t>(record.thread)]++, record.seq) << file;
    }
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kPerThread, nextOf[static_cast<size_t>(t)]) << "thread " << t;
}

}  // namespace
