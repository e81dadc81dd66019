// Tests of the logging wrapper's core: construction from the environment,
// filters, record formats and sinks, time stamps, shutdown.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "internal/TimeStamp.h"
#include "support/ChildProcess.h"
#include "support/Fakes.h"
#include "support/LogLines.h"
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelTest::FakeLogSpi;
using ZelTest::readFile;
using ZelTest::StderrCapture;

// The stamp is 29 characters when the fraction has three digits, fewer when
// the microsecond count is below 100.
using ZelTest::kStampPattern;

std::vector<std::string> lines(const std::string& text) { return ZelTest::splitLines(text); }

// Splits a file line into its stamp and the rest (which starts with " ").
std::pair<std::string, std::string> splitStamp(const std::string& line) {
  const size_t blank = line.find(' ');
  return {line.substr(0, blank), line.substr(blank)};
}

std::string realPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  std::string result = real != nullptr ? real : "";
  std::free(real);
  return result;
}

class LoggingWrapperTest : public ZelTest::WrapperTest {
 protected:
  void TearDown() override {
    FakeLogSpi::reset();
    ZelTest::WrapperTest::TearDown();
  }
  std::string logText() { return readFile(liveFile()); }
  void flush(LoggingWrapper* w) {
    // Closing flushes; the next record reopens the file for appending.
    ZelTest::closeWrapperFile(w);
  }
};

// ---------------------------------------------------------------- environment

TEST_F(LoggingWrapperTest, DefaultsWithoutVariables) {
  LoggingWrapper* w = wrapper();
  EXPECT_EQ(tmp.file("zel.log"), w->get_fname());
  EXPECT_EQ(6u, w->get_level());
  EXPECT_EQ(5242880u, w->get_max_size());
  EXPECT_EQ(5u, w->get_max_count());
  EXPECT_EQ(63u, w->get_vek_level());
  EXPECT_EQ(63u, w->get_vekSec_level());
  EXPECT_EQ(63u, w->get_vekDebug_level());
  EXPECT_TRUE(w->isApplLogLevelCheckRequired());
  EXPECT_EQ(tmp.file("zel.log.1"), w->makeLogFilename(1));
  // The file itself is opened by the first record, not by the constructor.
  EXPECT_FALSE(ZelTest::fileExists(liveFile()));
}

TEST(LoggingWrapperSingleton, DefaultsToTmpWithoutTmpdir) {
  EXPECT_EXIT(
      {
        unsetenv("TMPDIR");
        LoggingWrapper* w = LoggingWrapper::getInstance();
        CHILD_EXPECT_EQ(std::string("/tmp/zel.log"), w->get_fname());
        CHILD_EXPECT_EQ(std::string("/tmp/zel.log.3"), w->makeLogFilename(3));
        // Nothing is written: the file is opened by the first record only.
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LoggingWrapperSingleton, GetInstanceCreatesOneInstanceFromTheEnvironment) {
  ZelTest::TempDir dir;
  EXPECT_EXIT(
      {
        setenv("TMPDIR", dir.path().c_str(), 1);
        setenv("ZEL_LOGGING_LEVEL", "4", 1);
        CHILD_EXPECT(LoggingWrapper::theInstance == nullptr);
        LoggingWrapper* first = LoggingWrapper::getInstance();
        CHILD_EXPECT(first != nullptr);
        CHILD_EXPECT(LoggingWrapper::theInstance == first);
        CHILD_EXPECT_EQ(4u, first->get_level());
        CHILD_EXPECT_EQ(dir.file("zel.log"), first->get_fname());
        // Read once: later changes of the environment change nothing.
        setenv("ZEL_LOGGING_LEVEL", "1", 1);
        CHILD_EXPECT(LoggingWrapper::getInstance() == first);
        CHILD_EXPECT_EQ(4u, LoggingWrapper::getInstance()->get_level());
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LoggingWrapperSingleton, ConcurrentFirstUseCreatesOneInstance) {
  ZelTest::TempDir dir;
  EXPECT_EXIT(
      {
        setenv("TMPDIR", dir.path().c_str(), 1);
        std::vector<LoggingWrapper*> seen(8, nullptr);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < seen.size(); ++i)
          threads.emplace_back([&seen, i] { seen[i] = LoggingWrapper::getInstance(); });
        for (auto& t : threads) t.join();
        for (LoggingWrapper* w : seen) CHILD_EXPECT(w == seen[0] && w != nullptr);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LoggingWrapperSingleton, RenamedVariableGlobalsAreHonoured) {
  ZelTest::TempDir dir;
  EXPECT_EXIT(
      {
        setenv("TMPDIR", dir.path().c_str(), 1);
        setenv("MY_LEVEL", "2", 1);
        setenv("ZEL_LOGGING_LEVEL", "5", 1);
        Zel::_ZEL_LOGGING_LEVEL = "MY_LEVEL";
        Zel::_LOGGER_FNAME = "app.log";
        LoggingWrapper* w = LoggingWrapper::getInstance();
        CHILD_EXPECT_EQ(2u, w->get_level());
        CHILD_EXPECT_EQ(dir.file("app.log"), w->get_fname());
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LoggingWrapperSingleton, NameGlobalsHaveTheirDefaults) {
  EXPECT_STREQ("zel.log", Zel::_LOGGER_FNAME);
  EXPECT_STREQ("ZEL_LOGGING_LEVEL", Zel::_ZEL_LOGGING_LEVEL);
  EXPECT_STREQ("ZEL_LOGGING_FNAME", Zel::_ZEL_LOGGING_FNAME);
  EXPECT_STREQ("ZEL_LOGGING_FMAXSIZE", Zel::_ZEL_LOGGING_FMAXSIZE);
  EXPECT_STREQ("ZEL_LOGGING_FMAXCOUNT", Zel::_ZEL_LOGGING_FMAXCOUNT);
}

TEST(LoggingWrapperSingleton, LockExistsBeforeAnyInstance) {
  EXPECT_TRUE(LoggingWrapper::_lock != nullptr);
}

TEST(LoggingWrapperDeathTest, MissingDirectoryAborts) {
  ZelTest::TempDir dir;
  const std::string missing = dir.file("missing");
  EXPECT_EXIT(
      {
        setenv("TMPDIR", missing.c_str(), 1);
        LoggingWrapper::getInstance();
      },
      ::testing::KilledBySignal(SIGABRT), "Logging directory " + missing + " does not exist, aborting.\n");
}

TEST(LoggingWrapperDeathTest, UnwritableDirectoryAborts) {
  ZelTest::TempDir dir;
  const std::string locked = dir.file("locked");
  ASSERT_EQ(0, mkdir(locked.c_str(), 0555));
  EXPECT_EXIT(
      {
        setenv("TMPDIR", locked.c_str(), 1);
        LoggingWrapper::getInstance();
      },
      ::testing::KilledBySignal(SIGABRT), "Logging directory " + locked + " is not writable, aborting.\n");
}

TEST(LoggingWrapperDeathTest, BadTmpdirAbortsEvenWhenFnamePointsElsewhere) {
  ZelTest::TempDir dir;
  const std::string missing = dir.file("missing");
  const std::string fname = dir.file("elsewhere.log");
  EXPECT_EXIT(
      {
        setenv("TMPDIR", missing.c_str(), 1);
        setenv("ZEL_LOGGING_FNAME", fname.c_str(), 1);
        LoggingWrapper::getInstance();
      },
      ::testing::KilledBySignal(SIGABRT), "does not exist, aborting");
}

TEST_F(LoggingWrapperTest, FnameWithoutSlashChangesNothing) {
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", "app.log"}});
  EXPECT_EQ(tmp.file("zel.log"), w->get_fname());
  EXPECT_EQ(tmp.file("zel.log.1"), w->makeLogFilename(1));
}

TEST_F(LoggingWrapperTest, FnameIsSplitAndItsDirectoryCanonicalised) {
  ASSERT_EQ(0, mkdir(tmp.file("log").c_str(), 0700));
  const std::string given = tmp.path() + "/log/../log/x.log";
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", given}});
  EXPECT_EQ(given, w->get_fname());
  EXPECT_EQ(realPath(tmp.file("log")) + "/x.log.1", w->makeLogFilename(1));
  EXPECT_EQ(realPath(tmp.file("log")) + "/x.log.2", w->getAbsFilename("x.log.2"));
}

TEST_F(LoggingWrapperTest, FnameUnderVarLogKeepsGivenTextAndUsesCanonicalDirectory) {
  if (realPath("/var/log") != "/var/log") GTEST_SKIP() << "/var/log is not a plain directory here";
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", "/var/log/../log/x.log"}});
  EXPECT_EQ("/var/log/../log/x.log", w->get_fname());
  EXPECT_EQ("/var/log/x.log.1", w->makeLogFilename(1));
}

TEST_F(LoggingWrapperTest, FnameInMissingDirectoryKeepsTrailingSlash) {
  const std::string given = tmp.path() + "/nowhere/x.log";
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", given}});
  EXPECT_EQ(given, w->get_fname());
  EXPECT_EQ(tmp.path() + "/nowhere//x.log.1", w->makeLogFilename(1));
}

TEST_F(LoggingWrapperTest, LevelWithoutDigitsBecomesZero) {
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_LEVEL", "abc"}});
  EXPECT_EQ(0u, w->get_level());
  EXPECT_TRUE(w->isSaLoggingAllowed(1u << 0, 0));
  EXPECT_FALSE(w->isSaLoggingAllowed(1u << 1, 1));
  EXPECT_FALSE(w->isSaLoggingAllowed(1u << 3, 3));
}

TEST_F(LoggingWrapperTest, NumericVariablesAreParsedWithoutChecks) {
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_LEVEL", "7xyz"},
                               {"ZEL_LOGGING_FMAXSIZE", "1024"},
                               {"ZEL_LOGGING_FMAXCOUNT", "12"}});
  EXPECT_EQ(7u, w->get_level());
  EXPECT_EQ(1024u, w->get_max_size());
  EXPECT_EQ(12u, w->get_max_count());
  // Truncated to 32 bits: 2^32 + 1 -> 1.
  LoggingWrapper* big = wrapper({{"ZEL_LOGGING_LEVEL", "4294967297"}});
  EXPECT_EQ(1u, big->get_level());
}

TEST_F(LoggingWrapperTest, TavEnvSetEvenEmptyDisablesLevelOnlyCheck) {
  EXPECT_TRUE(wrapper()->isApplLogLevelCheckRequired());
  EXPECT_FALSE(wrapper({{"TAV_ENV", ""}})->isApplLogLevelCheckRequired());
  EXPECT_FALSE(wrapper({{"TAV_ENV", "1"}})->isApplLogLevelCheckRequired());
}

// ---------------------------------------------------------------- filters

TEST_F(LoggingWrapperTest, InterfaceMaskDecidesWhenTavEnvIsSet) {
  LoggingWrapper* w = wrapper({{"TAV_ENV", "1"}, {"ZEL_LOGGING_LEVEL", "0"}});
  EXPECT_FALSE(w->isSaLoggingAllowed(8, 3));  // no interface yet: the level decides
  w->set_log_spi(FakeLogSpi::spi());
  EXPECT_TRUE(w->isSaLoggingAllowed(8, 3));
  w->set_vek_level(63 & ~8u);
  EXPECT_FALSE(w->isSaLoggingAllowed(8, 3));
  w->set_vek_level(8);
  EXPECT_TRUE(w->isSaLoggingAllowed(8, 3));
  EXPECT_FALSE(w->isSaLoggingAllowed(4, 2));
}

TEST_F(LoggingWrapperTest, WithoutTavEnvOnlyTheLevelCounts) {
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_LEVEL", "0"}});
  w->set_log_spi(FakeLogSpi::spi());
  EXPECT_FALSE(w->isSaLoggingAllowed(8, 3));
  w->set_level(3);
  EXPECT_TRUE(w->isSaLoggingAllowed(8, 3));
  EXPECT_FALSE(w->isSaLoggingAllowed(16, 4));
}

TEST_F(LoggingWrapperTest, DebugFilterNeedsTraceTavEnvAndBit64) {
  LoggingWrapper* w = wrapper({{"TAV_ENV", "1"}, {"ZEL_LOGGING_LEVEL", "0"}});
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  w->set_trace_spi(ZelTest::FakeTraceV1::spi());
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));  // default mask 63 lacks bit 64
  w->set_vekDebug_level(64);
  EXPECT_TRUE(w->isDebugLoggingAllowed(8));
  // The argument never selects the bit.
  EXPECT_TRUE(w->isDebugLoggingAllowed(0));
  w->set_trace_spi(nullptr);
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
}

TEST_F(LoggingWrapperTest, DebugFilterFallsBackToLevel) {
  LoggingWrapper* w = wrapper();
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  w->set_level(8);
  EXPECT_TRUE(w->isDebugLoggingAllowed(8));
  w->set_trace_spi(ZelTest::FakeTraceV1::spi());
  w->set_vekDebug_level(64);
  w->set_level(0);
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));  // TAV_ENV unset: level only
  w->set_trace_spi(nullptr);
}

TEST_F(LoggingWrapperTest, SettersAndGettersRoundTrip) {
  LoggingWrapper* w = wrapper();
  w->set_level(2);
  w->set_vek_level(5);
  w->set_vekSec_level(9);
  w->set_vekDebug_level(64);
  w->set_max_size(77);
  EXPECT_EQ(2u, w->get_level());
  EXPECT_EQ(5u, w->get_vek_level());
  EXPECT_EQ(9u, w->get_vekSec_level());
  EXPECT_EQ(64u, w->get_vekDebug_level());
  EXPECT_EQ(77u, w->get_max_size());
}

// ---------------------------------------------------------------- records

TEST_F(LoggingWrapperTest, FileRecordLayout) {
  LoggingWrapper* w = wrapper();
  w->log_printf("signal", 3, 1, "Failed to write signal. Errno %d", 32);
  flush(w);
  const std::vector<std::string> got = lines(logText());
  ASSERT_EQ(1u, got.size());
  const auto parts = splitStamp(got[0]);
  EXPECT_TRUE(std::regex_match(parts.first, std::regex(kStampPattern))) << parts.first;
  EXPECT_GE(parts.first.size(), 27u);
  EXPECT_LE(parts.first.size(), 29u);
  EXPECT_EQ(" ER signal                    Failed to write signal. Errno 32", parts.second);
  EXPECT_EQ('\n', logText().back());
}

TEST_F(LoggingWrapperTest, EveryLevelGetsItsTag) {
  LoggingWrapper* w = wrapper();
  for (unsigned level = 0; level <= 6; ++level) w->log_printf("f", level, 1, "m%u", level);
  flush(w);
  const std::vector<std::string> got = lines(logText());
  ASSERT_EQ(7u, got.size());
  const char* tags[] = {"EM", "AL", "CR", "ER", "WA", "NO", "IN"};
  for (unsigned level = 0; level <= 6; ++level)
    EXPECT_EQ(std::string(" ") + tags[level] + " f" + std::string(24, ' ') + " m" + std::to_string(level),
              splitStamp(got[level]).second);
}

TEST_F(LoggingWrapperTest, LevelAboveSixIsDroppedWhateverTheThreshold) {
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_LEVEL", "9"}});
  StderrCapture err;
  w->log_printf("f", 7, 1, "seven");
  w->log_printf("f", 8, 1, "eight");
  EXPECT_EQ("", err.release());
  flush(w);
  EXPECT_FALSE(ZelTest::fileExists(liveFile()));
  w->set_log_spi(FakeLogSpi::spi());
  FakeLogSpi::reset();
  w->log_printf("f", 7, 13, "raw seven");
  EXPECT_TRUE(FakeLogSpi::calls().empty());
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, RawRecordOnFileHasNoPrefix) {
  LoggingWrapper* w = wrapper();
  w->log_printf("ignored", 6, 13, "raw %s %d", "text", 1);
  flush(w);
  EXPECT_EQ("raw text 1\n", logText());
}

TEST_F(LoggingWrapperTest, RawRecordOnInterfaceIsExactlyTheText) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset();
  w->set_log_spi(FakeLogSpi::spi());
  w->log_printf("ignored", 5, 13, "raw %d", 42);
  const auto calls = FakeLogSpi::calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(1u, calls[0].one);
  EXPECT_EQ(5u, calls[0].level);
  EXPECT_EQ(13u, calls[0].facility);
  EXPECT_EQ("raw 42", calls[0].text);
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, InterfaceReceivesOneLevelFacilityAndRecord) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset();
  w->set_log_spi(FakeLogSpi::spi());
  w->log_printf("signal", 3, 7, "Errno %d", 5);
  const auto calls = FakeLogSpi::calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(1u, calls[0].one);
  EXPECT_EQ(3u, calls[0].level);
  EXPECT_EQ(7u, calls[0].facility);
  EXPECT_EQ(" signal                    Errno 5", calls[0].text);
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, InterfaceIsCalledAfterTheLockIsReleased) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset();
  int trylock = -1;
  FakeLogSpi::hook = [&] {
    trylock = pthread_mutex_trylock(LoggingWrapper::_lock->getMutex());
    if (trylock == 0) pthread_mutex_unlock(LoggingWrapper::_lock->getMutex());
  };
  w->set_log_spi(FakeLogSpi::spi());
  w->log_printf("f", 3, 1, "m");
  EXPECT_EQ(0, trylock);
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, InterfaceMayLogAgainFromInsideItsWrite) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset();
  int depth = 0;
  FakeLogSpi::hook = [&] {
    if (depth++ == 0) w->log_printf("inner", 3, 1, "from inside");
  };
  w->set_log_spi(FakeLogSpi::spi());
  EXPECT_NO_THROW(w->log_printf("outer", 3, 1, "first"));
  const auto calls = FakeLogSpi::calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(" outer                     first", calls[0].text);
  EXPECT_EQ(" inner                     from inside", calls[1].text);
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, RejectingInterfaceComplainsAndWritesNoFile) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset(-1);
  w->set_log_spi(FakeLogSpi::spi());
  StderrCapture err;
  w->log_printf("f", 3, 1, "lost");
  EXPECT_EQ("Failed to write ' f                         lost' to log interface!\n", err.release());
  EXPECT_FALSE(ZelTest::fileExists(liveFile()));
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, SettingInterfaceClosesFileAndNullReturnsToIt) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset();
  w->log_printf("f", 3, 1, "one");
  w->set_log_spi(FakeLogSpi::spi());
  w->log_printf("f", 3, 1, "two");  // closes (and so flushes) the file first
  const std::vector<std::string> before = lines(logText());
  ASSERT_EQ(1u, before.size());
  EXPECT_NE(std::string::npos, before[0].find(" one"));
  ASSERT_EQ(1u, FakeLogSpi::calls().size());
  w->set_log_spi(nullptr);
  w->log_printf("f", 3, 1, "three");
  flush(w);
  const std::vector<std::string> after = lines(logText());
  ASSERT_EQ(2u, after.size());
  EXPECT_NE(std::string::npos, after[1].find(" three"));
}

TEST_F(LoggingWrapperTest, MessageIsCutAt799Characters) {
  LoggingWrapper* w = wrapper();
  const std::string text(1000, 'm');
  w->log_printf("f", 3, 1, "%s", text.c_str());
  flush(w);
  const std::vector<std::string> got = lines(logText());
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(" ER f" + std::string(24, ' ') + " " + std::string(799, 'm'), splitStamp(got[0]).second);
}

TEST_F(LoggingWrapperTest, RecordIsCutAt999Characters) {
  LoggingWrapper* w = wrapper();
  const std::string raw(1500, 'r');
  w->log_printf("f", 3, 13, "%s", raw.c_str());
  const std::string function(300, 'F');
  w->log_printf(function.c_str(), 3, 1, "%s", std::string(790, 'm').c_str());
  flush(w);
  const std::vector<std::string> got = lines(logText());
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(std::string(999, 'r'), got[0]);
  EXPECT_EQ(999u, got[1].size());
}

TEST_F(LoggingWrapperTest, InterfaceRecordIsCutAt999Characters) {
  LoggingWrapper* w = wrapper();
  FakeLogSpi::reset();
  w->set_log_spi(FakeLogSpi::spi());
  const std::string function(500, 'F');
  w->log_printf(function.c_str(), 3, 1, "%s", std::string(799, 'm').c_str());
  ASSERT_EQ(1u, FakeLogSpi::calls().size());
  EXPECT_EQ(999u, FakeLogSpi::calls()[0].text.size());
  w->set_log_spi(nullptr);
}

TEST_F(LoggingWrapperTest, UnopenableFileSendsRecordToStderrAndRetries) {
  LoggingWrapper* w = wrapper();
  const std::string dir = tmp.file("later");
  {
    StderrCapture err;
    w->set_fname(dir + "/x.log");
    w->log_printf("f", 3, 1, "to stderr");
    const std::string text = err.release();
    EXPECT_NE(std::string::npos, text.find("Failed to open log file!: No such file or directory\n")) << text;
    EXPECT_NE(std::string::npos, text.find(" ER f                         to stderr\n")) << text;
  }
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  w->log_printf("f", 3, 1, "to file");
  flush(w);
  const std::vector<std::string> got = lines(readFile(dir + "/x.log"));
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(" ER f                         to file", splitStamp(got[0]).second);
}

TEST_F(LoggingWrapperTest, FlushTellsWhetherEveryRecordSinceTheLastFlushReachedTheFile) {
  LoggingWrapper* w = wrapper();
  EXPECT_TRUE(w->flush());  // nothing logged yet
  const std::string dir = tmp.file("later");
  {
    StderrCapture err;
    w->set_fname(dir + "/x.log");
    w->log_printf("f", 6, 1, "to stderr");
    EXPECT_FALSE(w->flush());  // the record went to standard error
    EXPECT_NE(std::string::npos, err.release().find(" IN f                         to stderr\n"));
  }
  EXPECT_TRUE(w->flush());  // nothing new since
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  w->log_printf("f", 6, 1, "to file");
  EXPECT_TRUE(w->flush());
  const std::vector<std::string> got = lines(readFile(dir + "/x.log"));
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(" IN f                         to file", splitStamp(got[0]).second);
}

TEST_F(LoggingWrapperTest, SetFnameSwitchesFileAndSameNameDoesNothing) {
  LoggingWrapper* w = wrapper();
  w->log_printf("f", 3, 1, "first");
  w->set_fname(w->get_fname());  // same name: the open file stays
  w->log_printf("f", 3, 1, "second");
  w->set_fname(tmp.file("other.log"));
  w->log_printf("f", 3, 1, "third");
  flush(w);
  EXPECT_EQ(2u, lines(logText()).size());
  EXPECT_EQ(1u, lines(readFile(tmp.file("other.log"))).size());
  EXPECT_EQ(tmp.file("other.log"), w->get_fname());
}

TEST_F(LoggingWrapperTest, AppendsToExistingFile) {
  ZelTest::writeFile(liveFile(), "old line\n");
  LoggingWrapper* w = wrapper();
  w->log_printf("f", 3, 1, "new");
  flush(w);
  const std::vector<std::string> got = lines(logText());
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ("old line", got[0]);
}

TEST_F(LoggingWrapperTest, NullFunctionNameDoesNotCrash) {
  LoggingWrapper* w = wrapper();
  w->log_printf(nullptr, 3, 1, "m");
  flush(w);
  EXPECT_EQ(1u, lines(logText()).size());
}

// ---------------------------------------------------------------- close

TEST_F(LoggingWrapperTest, RecordAfterCloseComplainsAndNeverReopens) {
  LoggingWrapper* w = wrapper();
  w->log_printf("f", 3, 1, "before");
  w->close();
  ASSERT_EQ(0, unlink(liveFile().c_str()));
  StderrCapture err;
  w->log_printf("signal", 3, 1, "after");
  w->log_printf("signal", 3, 13, "raw after");
  EXPECT_EQ(
      "Logging after loggingWrapper has been closed! (:signal)\n"
      "Logging after loggingWrapper has been closed! (:signal)\n",
      err.release());
  EXPECT_FALSE(ZelTest::fileExists(liveFile()));
}

TEST_F(LoggingWrapperTest, CloseDropsInterfacesAndIsIdempotent) {
  LoggingWrapper* w = wrapper({{"TAV_ENV", "1"}});
  FakeLogSpi::reset();
  w->set_log_spi(FakeLogSpi::spi());
  w->set_trace_spi(ZelTest::FakeTraceV1::spi());
  w->set_vekDebug_level(64);
  EXPECT_TRUE(w->isDebugLoggingAllowed(8));
  w->close();
  w->close();
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));  // trace interface gone
  w->set_level(0);
  EXPECT_FALSE(w->isSaLoggingAllowed(8, 3));  // log interface gone
  StderrCapture err;
  w->log_printf("f", 3, 1, "x");
  EXPECT_TRUE(FakeLogSpi::calls().empty());
  EXPECT_EQ("Logging after loggingWrapper has been closed! (:f)\n", err.release());
}

TEST_F(LoggingWrapperTest, StartLogServiceChangesNothing) {
  LoggingWrapper* w = wrapper();
  w->start_logService();
  w->log_printf("f", 3, 1, "still writing");
  flush(w);
  EXPECT_EQ(1u, lines(logText()).size());
}

TEST(LoggingWrapperSingleton, DestructorClosesAndDestroysTheSharedLock) {
  ZelTest::TempDir dir;
  EXPECT_EXIT(
      {
        setenv("TMPDIR", dir.path().c_str(), 1);
        LoggingWrapper* w = LoggingWrapper::getInstance();
        w->log_printf("f", 3, 1, "x");
        Zel::ZelThreadLock* lock = LoggingWrapper::_lock;
        delete w;
        // The pointer is deliberately not reset.
        CHILD_EXPECT(LoggingWrapper::_lock == lock);
        CHILD_EXPECT_EQ(1u, lines(readFile(dir.file("zel.log"))).size());
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------- time stamp

struct tm sampleTime(long gmtoff) {
  struct tm t = {};
  t.tm_year = 2026 - 1900;
  t.tm_mon = 10;
  t.tm_mday = 21;
  t.tm_hour = 20;
  t.tm_min = 5;
  t.tm_sec = 7;
  t.tm_gmtoff = gmtoff;
  return t;
}

TEST(LoggingWrapperTimeStamp, FractionKeepsFirstThreeDigitsOfMicroseconds) {
  char buffer[30];
  const struct tm t = sampleTime(3600);
  EXPECT_STREQ("2026-11-21T20:05:07.512+01:00", Zel::internal::formatTimeStamp(buffer, 30, 5123, &t));
  EXPECT_STREQ("2026-11-21T20:05:07.42+01:00", Zel::internal::formatTimeStamp(buffer, 30, 42, &t));
  EXPECT_STREQ("2026-11-21T20:05:07.0+01:00", Zel::internal::formatTimeStamp(buffer, 30, 0, &t));
  EXPECT_STREQ("2026-11-21T20:05:07.999+01:00", Zel::internal::formatTimeStamp(buffer, 30, 999999, &t));
  EXPECT_STREQ("2026-11-21T20:05:07.100+01:00", Zel::internal::formatTimeStamp(buffer, 30, 100000, &t));
  EXPECT_EQ(29u, std::strlen(Zel::internal::formatTimeStamp(buffer, 30, 123456, &t)));
}

TEST(LoggingWrapperTimeStamp, OffsetSignHoursAndMinutes) {
  char buffer[30];
  struct tm t = sampleTime(-(5 * 3600 + 30 * 60));
  EXPECT_STREQ("2026-11-21T20:05:07.123-05:30", Zel::internal::formatTimeStamp(buffer, 30, 123456, &t));
  t = sampleTime(0);
  EXPECT_STREQ("2026-11-21T20:05:07.123+00:00", Zel::internal::formatTimeStamp(buffer, 30, 123456, &t));
  t = sampleTime(13 * 3600 + 45 * 60);
  EXPECT_STREQ("2026-11-21T20:05:07.123+13:45", Zel::internal::formatTimeStamp(buffer, 30, 123456, &t));
}

TEST(LoggingWrapperTimeStamp, FailedLocalTimeGivesYear1900) {
  char buffer[30];
  EXPECT_STREQ("1900-01-00T00:00:00.42+00:00", Zel::internal::formatTimeStamp(buffer, 30, 42, nullptr));
}

TEST(LoggingWrapperTimeStamp, StampIsCutToTheBufferSize) {
  char buffer[30];
  const struct tm t = sampleTime(0);
  EXPECT_STREQ("2026-11-", Zel::internal::formatTimeStamp(buffer, 9, 5123, &t));
}

TEST(LoggingWrapperTimeStamp, CacheGivesTheSameTextAsLocaltime) {
  Zel::internal::LocalTimeCache cache;
  for (time_t second : {time_t(0), time_t(1700000000), time_t(1700000000), time_t(1700000001)}) {
    struct timeval now = {second, 5123};
    struct tm local;
    ASSERT_NE(nullptr, localtime_r(&second, &local));
    char expected[30];
    char got[30];
    Zel::internal::formatTimeStamp(expected, 30, 5123, &local);
    EXPECT_STREQ(expected, cache.format(got, 30, now));
  }
}

TEST(LoggingWrapperTimeStamp, FillInTimeStrReadsTheClock) {
  char buffer[30];
  EXPECT_EQ(buffer, Zel::fill_in_time_str(buffer, 30));
  EXPECT_TRUE(std::regex_match(buffer, std::regex(kStampPattern))) << buffer;
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  EXPECT_EQ(std::to_string(local.tm_year + 1900), std::string(buffer, 4));
}

TEST(LoggingWrapperLevels, TagTable) {
  EXPECT_EQ("EM", Zel::_get_level_str(0));
  EXPECT_EQ("AL", Zel::_get_level_str(1));
  EXPECT_EQ("CR", Zel::_get_level_str(2));
  EXPECT_EQ("ER", Zel::_get_level_str(3));
  EXPECT_EQ("WA", Zel::_get_level_str(4));
  EXPECT_EQ("NO", Zel::_get_level_str(5));
  EXPECT_EQ("IN", Zel::_get_level_str(6));
  EXPECT_EQ("TR", Zel::_get_level_str(7));
  EXPECT_EQ("TR", Zel::_get_level_str(8));
  EXPECT_EQ("TR", Zel::_get_level_str(UINT_MAX));
}

// ---------------------------------------------------------------- threads

TEST_F(LoggingWrapperTest, ConcurrentRecordsAreWholeLines) {
  LoggingWrapper* w = wrapper();
  const int kThreads = 4;
  const int kRecords = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([w, t] {
      for (int i = 0; i < kRecords; ++i) {
        if (w->isSaLoggingAllowed(8, 3)) w->log_printf("worker", 3, 1, "thread %d record %d", t, i);
        w->set_level(6);  // setters race with filters by design
      }
    });
  }
  for (auto& thread : threads) thread.join();
  flush(w);
  const std::vector<std::string> got = lines(logText());
  ASSERT_EQ(static_cast<size_t>(kThreads * kRecords), got.size());
  std::set<std::string> unique;
  const std::regex shape(std::string(kStampPattern) + R"( ER worker {19} thread \d record \d+)");
  for (const std::string& line : got) {
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
    unique.insert(splitStamp(line).second);
  }
  EXPECT_EQ(got.size(), unique.size());
}

}  // namespace
