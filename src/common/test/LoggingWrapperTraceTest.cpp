// Tests of trace forwarding: accepting trace interfaces of versions "1" and
// "2", registering the trace subsystems, routing trace_printf and
// trace_v2_printf records to the interfaces, the own log file or standard
// error, and the path_tail helper.
//
// Each test works on a wrapper of its own (support/WrapperFixture.h) whose log
// directory is the test's fresh temp dir; the recording fakes of
// support/Fakes.h stand in for the framework's interfaces. Setting a version 2
// interface writes the process-wide Zel::Trace handles, which no other test
// here relies on.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "internal/LogFileNames.h"
#include "support/Fakes.h"
#include "support/LogLines.h"
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using Zel::path_tail;
using Zel::internal::getFileSize;
using ZelTest::FakeTraceV1;
using ZelTest::FakeTraceV2;
using ZelTest::listDir;
using ZelTest::readFile;
using ZelTest::StderrCapture;
using ZelTest::writeFile;

typedef std::vector<std::string> Names;

using ZelTest::kStampPattern;

std::string padded(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::vector<std::string> lines(const std::string& text) { return ZelTest::splitLines(text); }

// True when `line` is a time stamp followed by exactly `body`.
::testing::AssertionResult stampThen(const std::string& body, const std::string& line) {
  const size_t blank = line.find(' ');
  if (blank == std::string::npos) return ::testing::AssertionFailure() << "no blank in [" << line << "]";
  if (!std::regex_match(line.substr(0, blank), std::regex(kStampPattern)))
    return ::testing::AssertionFailure() << "no time stamp in front of [" << line << "]";
  if (line.substr(blank) != body)
    return ::testing::AssertionFailure() << "body [" << line.substr(blank) << "] is not [" << body << "]";
  return ::testing::AssertionSuccess();
}

// The record text a version 1 interface receives, built field by field.
std::string v1Record(const std::string& tail, const std::string& line, const std::string& function,
                     const std::string& message) {
  return padded(tail, 24) + ":" + padded(line, 5) + " - " + padded(function, 25) + " " + message;
}

const char* const kSubsystemNames[] = {"ZelCommon",        "ZelCore",        "ZelAc",     "ZelCmRouter",
                                       "ZelEventRouter",   "ZelModelRepository", "ZelThreadContext",
                                       "ZelTransaction",   "ZelSession",     "ZelSvs",    "ZelOther"};

ZelMwSpiTraceSubsystemHandle_2T* const kHandles[] = {
    &Zel::Trace::Common,        &Zel::Trace::Core,          &Zel::Trace::Ac,
    &Zel::Trace::CmRouter,      &Zel::Trace::EventRouter,   &Zel::Trace::ModelRepository,
    &Zel::Trace::ThreadContext, &Zel::Trace::Transaction,   &Zel::Trace::Session,
    &Zel::Trace::Svs,           &Zel::Trace::Other};

const char* const kRegistrationFailures =
    "Could not register ZelCommon subsystem in v2 of trace if\n"
    "Could not register ZelCore subsystem in v2 of trace if\n"
    "Could not register ZelAc subsystem in v2 of trace if\n"
    "Could not register ZelCmRouter subsystem in v2 of trace if\n"
    "Could not register ZelEventRouter subsystem in v2 of trace if\n"
    "Could not register ZelModelRepository subsystem in v2 of trace if\n"
    "Could not register ZelThreadContext subsystem in v2 of trace if\n"
    "Could not register ZelTransactionService subsystem in v2 of trace if\n"
    "Could not register ZelSession subsystem in v2 of trace if\n"
    "Could not register ZelSvs subsystem in v2 of trace if\n"
    "Could not register ZelOther subsystem in v2 of trace if\n";

class LoggingWrapperTraceTest : public ZelTest::WrapperTest {
 protected:
  void SetUp() override {
    FakeTraceV1::reset();
    FakeTraceV2::reset();
  }
  void TearDown() override {
    FakeTraceV1::reset();
    FakeTraceV2::reset();
    ZelTest::WrapperTest::TearDown();
  }
  // A wrapper whose debug filter reports whether a trace interface is in
  // use: with TAV_ENV set, level 0 and the debug bit on,
  // isDebugLoggingAllowed(8) is true exactly when tracing is enabled.
  LoggingWrapper* tracing() {
    LoggingWrapper* w = wrapper({{"TAV_ENV", ""}, {"ZEL_LOGGING_LEVEL", "0"}});
    w->set_vekDebug_level(64);
    return w;
  }
  // A debug record as components write it.
  void debugRecord(LoggingWrapper* w, const char* text) {
    w->trace_printf("/src/common/src/PipeExt.cpp", "signal", 143, 8, 0, "%s", text);
  }
  void flush(LoggingWrapper* w) { ZelTest::closeWrapperFile(w); }
  // Writes a raw record that stays in the stdio buffer until the own file is
  // closed: the file's size on disk shows whether it was closed.
  void pendingRecord(LoggingWrapper* w) { w->log_printf("fn", 6, 13, "%s", "pending"); }
  int64_t liveSize() const { return getFileSize(liveFile()); }
};

// ---------------------------------------------------------------- path_tail

TEST(PathTail, TakesTheLastComponent) {
  struct Row {
    const char* path;
    const char* tail;
  };
  const Row rows[] = {
      {"/a/b/file.ext", "file.ext"},
      {"dir/sub/", "sub"},
      {"  name", "name"},
      {"x y/a b  ", "a b"},
      {"//", ""},
      {"/", ""},
      {"", ""},
      {"   ", ""},
      {" /", ""},
      {"/ ", ""},
      {"/ /", ""},
      {"file", "file"},
      {"a", "a"},
      {"ab", "ab"},
      {"a/", "a"},
      {"a /", "a"},
      {"/a", "a"},
      {"x///", "x"},
      {"/x/", "x"},
      {"///a///", "a"},
      {" a b /", "a b"},
      {"src/common/src/PipeExt", "PipeExt"},
      {"\tname", "\tname"},  // tabs are not skipped
      {"a/b\t", "b\t"},
      {"a/\t", "\t"},
  };
  for (const Row& row : rows) {
    char tail[65];
    std::memset(tail, '#', sizeof(tail));
    EXPECT_EQ(tail, path_tail(tail, row.path, sizeof(tail))) << "[" << row.path << "]";
    EXPECT_STREQ(row.tail, tail) << "[" << row.path << "]";
  }
}

TEST(PathTail, NullPathNullDestinationOrSizeZeroGiveNull) {
  char tail[8] = "keep";
  EXPECT_EQ(nullptr, path_tail(tail, nullptr, sizeof(tail)));
  EXPECT_EQ(nullptr, path_tail(nullptr, "/a/b", 8));
  EXPECT_EQ(nullptr, path_tail(tail, "/a/b", 0));
  EXPECT_STREQ("keep", tail);
}

TEST(PathTail, SizeOneGivesTheEmptyText) {
  char tail[8] = "keep";
  EXPECT_EQ(tail, path_tail(tail, "/a/b", 1));
  EXPECT_STREQ("", tail);
}

TEST(PathTail, ComponentLongerThanSizeMinusOneKeepsItsBeginning) {
  char tail[65];
  EXPECT_STREQ("abc", path_tail(tail, "/dir/abcdefgh", 4));
  EXPECT_STREQ("abcdefg", path_tail(tail, "/dir/abcdefgh", 8));
  EXPECT_STREQ("abcdefgh", path_tail(tail, "/dir/abcdefgh", 9));
  EXPECT_STREQ("abcdefgh", path_tail(tail, "/dir/abcdefgh/  ", 9));
  const std::string longName = "B" + std::string(98, 'm') + "E";
  EXPECT_EQ("B" + std::string(63, 'm'), path_tail(tail, ("/x/" + longName).c_str(), sizeof(tail)));
}

TEST(PathTail, CanCutAPathInPlace) {
  char buffer[32] = "/a/b/file.ext";
  EXPECT_STREQ("file.ext", path_tail(buffer, buffer, sizeof(buffer)));
  char blanks[32] = "  x y/a b  ";
  EXPECT_STREQ("a b", path_tail(blanks, blanks, sizeof(blanks)));
}

// ---------------------------------------------------------------- set_trace_spi

TEST_F(LoggingWrapperTraceTest, VersionTwoRegistersTheElevenSubsystemsInOrder) {
  LoggingWrapper* w = tracing();
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  for (ZelMwSpiTraceSubsystemHandle_2T* handle : kHandles) *handle = 0;
  StderrCapture capture;
  w->set_trace_spi(FakeTraceV2::spi());
  EXPECT_EQ("", capture.release());
  const std::vector<FakeTraceV2::Registration> registrations = FakeTraceV2::registrations();
  ASSERT_EQ(11u, registrations.size());
  for (size_t i = 0; i < 11; ++i) {
    EXPECT_EQ(kSubsystemNames[i], registrations[i].name) << i;
    EXPECT_EQ(kHandles[i], registrations[i].handle) << i;
    EXPECT_EQ(1001u + i, *kHandles[i]) << kSubsystemNames[i];  // what the fake issued
  }
  EXPECT_TRUE(w->isDebugLoggingAllowed(8));
}

TEST_F(LoggingWrapperTraceTest, SettingVersionTwoAgainRegistersAgainAndOverwritesTheHandles) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV2::spi());
  Zel::Trace::Common = 5;
  Zel::Trace::Other = 6;
  FakeTraceV2::reset();
  w->set_trace_spi(FakeTraceV2::spi());
  EXPECT_EQ(11u, FakeTraceV2::registrations().size());
  EXPECT_EQ(1001u, Zel::Trace::Common);
  EXPECT_EQ(1011u, Zel::Trace::Other);
}

TEST_F(LoggingWrapperTraceTest, FailedRegistrationsPrintAllElevenMessagesAndTheInterfaceStays) {
  LoggingWrapper* w = tracing();
  FakeTraceV2::reset(ZelFailure);
  for (ZelMwSpiTraceSubsystemHandle_2T* handle : kHandles) *handle = 77;
  StderrCapture capture;
  w->set_trace_spi(FakeTraceV2::spi());
  EXPECT_EQ(kRegistrationFailures, capture.release());
  EXPECT_EQ(11u, FakeTraceV2::registrations().size());
  for (ZelMwSpiTraceSubsystemHandle_2T* handle : kHandles) EXPECT_EQ(77u, *handle);  // left as the call left it
  EXPECT_TRUE(w->isDebugLoggingAllowed(8));

  w->trace_v2_printf(Zel::Trace::Common, 3, "src/x.cpp", "fn", 5, "after %d", 1);
  const std::vector<FakeTraceV2::Call> calls = FakeTraceV2::calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(77u, calls[0].handle);
  EXPECT_EQ("after 1", calls[0].text);
}

TEST_F(LoggingWrapperTraceTest, UnsupportedVersionThreeComplainsAndClearsAVersionOneInterface) {
  LoggingWrapper* w = tracing();
  w->set_trace_spi(FakeTraceV1::spi());
  ASSERT_TRUE(w->isDebugLoggingAllowed(8));
  StderrCapture capture;
  w->set_trace_spi(ZelTest::traceSpiWithVersion("3"));
  EXPECT_EQ("Not a supported trace SPI version [3]\n", capture.release());
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  debugRecord(w, "to the file");
  flush(w);
  EXPECT_TRUE(FakeTraceV1::calls().empty());
  const std::vector<std::string> written = lines(readFile(liveFile()));
  ASSERT_EQ(1u, written.size());
  EXPECT_NE(std::string::npos, written[0].find("to the file"));
}

TEST_F(LoggingWrapperTraceTest, UnsupportedVersionThreeClearsAVersionTwoInterface) {
  LoggingWrapper* w = tracing();
  w->set_trace_spi(FakeTraceV2::spi());
  StderrCapture capture;
  w->set_trace_spi(ZelTest::traceSpiWithVersion("3"));
  EXPECT_EQ("Not a supported trace SPI version [3]\n", capture.release());
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/x.cpp", "fn", 5, "dropped");
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_EQ(11u, FakeTraceV2::registrations().size());  // only from the version 2 call
}

TEST_F(LoggingWrapperTraceTest, OnlyTheWholeTextsOneAndTwoAreSupported) {
  for (const char* version : {"1.0", "12", "", "2 ", " 1", "v2"}) {
    LoggingWrapper* w = tracing();
    w->set_trace_spi(FakeTraceV1::spi());
    StderrCapture capture;
    w->set_trace_spi(ZelTest::traceSpiWithVersion(version));
    EXPECT_EQ(std::string("Not a supported trace SPI version [") + version + "]\n", capture.release());
    EXPECT_FALSE(w->isDebugLoggingAllowed(8)) << "[" << version << "]";
  }
  EXPECT_TRUE(FakeTraceV2::registrations().empty());
}

TEST_F(LoggingWrapperTraceTest, MissingVersionTextIsUnsupported) {
  LoggingWrapper* w = tracing();
  w->set_trace_spi(FakeTraceV1::spi());
  StderrCapture capture;
  w->set_trace_spi(ZelTest::traceSpiWithVersion(nullptr));
  EXPECT_EQ("Not a supported trace SPI version [(null)]\n", capture.release());
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
}

TEST_F(LoggingWrapperTraceTest, NoneClearsAVersionOneInterface) {
  LoggingWrapper* w = tracing();
  w->set_trace_spi(FakeTraceV1::spi());
  StderrCapture capture;
  w->set_trace_spi(nullptr);
  EXPECT_EQ("", capture.release());
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  debugRecord(w, "to the file");
  flush(w);
  EXPECT_TRUE(FakeTraceV1::calls().empty());
  EXPECT_EQ(1u, lines(readFile(liveFile())).size());
}

TEST_F(LoggingWrapperTraceTest, NoneClearsAVersionTwoInterface) {
  LoggingWrapper* w = tracing();
  w->set_trace_spi(FakeTraceV2::spi());
  w->set_trace_spi(nullptr);
  EXPECT_FALSE(w->isDebugLoggingAllowed(8));
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/x.cpp", "fn", 5, "dropped");
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  debugRecord(w, "to the file");  // no longer dropped for version 2
  flush(w);
  EXPECT_EQ(1u, lines(readFile(liveFile())).size());
}

TEST_F(LoggingWrapperTraceTest, ALaterInterfaceReplacesTheEarlierOne) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV1::spi());
  w->set_trace_spi(FakeTraceV2::spi());
  debugRecord(w, "dropped");
  EXPECT_TRUE(FakeTraceV1::calls().empty());
  w->set_trace_spi(FakeTraceV1::spi());
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/x.cpp", "fn", 5, "dropped");
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  debugRecord(w, "forwarded");
  ASSERT_EQ(1u, FakeTraceV1::calls().size());
  EXPECT_EQ(Names(), listDir(tmp.path()));
}

// ---------------------------------------------------------------- trace_v2_printf

TEST_F(LoggingWrapperTraceTest, VersionTwoGetsLineBeforeFunctionAndTheUnformattedFormat) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV2::spi());
  w->trace_v2_printf(Zel::Trace::Core, 14, "src/common/src/Timer", "start", 42, "v=%d %s %%", 5, "s");
  const std::vector<FakeTraceV2::Call> calls = FakeTraceV2::calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(1002u, calls[0].handle);
  EXPECT_EQ(14u, calls[0].level);
  EXPECT_EQ("src/common/src/Timer", calls[0].file);
  EXPECT_EQ(42u, calls[0].line);
  EXPECT_EQ("start", calls[0].function);
  EXPECT_EQ("v=%d %s %%", calls[0].format);
  EXPECT_EQ("v=5 s %", calls[0].text);
  EXPECT_EQ(Names(), listDir(tmp.path()));
}

TEST_F(LoggingWrapperTraceTest, VersionTwoRecordsAreDroppedSilentlyWithoutAVersionTwoInterface) {
  LoggingWrapper* w = wrapper();
  StderrCapture capture;
  w->trace_v2_printf(Zel::Trace::Common, 3, "src/x.cpp", "fn", 5, "none");
  w->set_trace_spi(FakeTraceV1::spi());
  w->trace_v2_printf(Zel::Trace::Common, 3, "src/x.cpp", "fn", 5, "v1");
  EXPECT_EQ("", capture.release());
  EXPECT_TRUE(FakeTraceV1::calls().empty());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_EQ(Names(), listDir(tmp.path()));
}

TEST_F(LoggingWrapperTraceTest, FirstForwardedVersionTwoRecordClosesTheOwnFile) {
  LoggingWrapper* w = wrapper();
  pendingRecord(w);
  w->set_trace_spi(FakeTraceV2::spi());
  EXPECT_EQ(0, liveSize());  // setting the interface leaves the file open
  debugRecord(w, "dropped");
  EXPECT_EQ(0, liveSize());  // nor does a dropped trace_printf close it
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/x.cpp", "fn", 5, "forwarded");
  EXPECT_EQ("pending\n", readFile(liveFile()));  // closed, so flushed
  EXPECT_EQ(1u, FakeTraceV2::calls().size());
}

TEST_F(LoggingWrapperTraceTest, VersionTwoIsCalledWithTheLockHeld) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV2::spi());
  int tryLock = -1;
  FakeTraceV2::hook = [&tryLock] {
    tryLock = pthread_mutex_trylock(LoggingWrapper::_lock->getMutex());
    if (tryLock == 0) pthread_mutex_unlock(LoggingWrapper::_lock->getMutex());
  };
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/x.cpp", "fn", 5, "x");
  EXPECT_EQ(EBUSY, tryLock);
  EXPECT_EQ(0, pthread_mutex_trylock(LoggingWrapper::_lock->getMutex()));  // and released after
  pthread_mutex_unlock(LoggingWrapper::_lock->getMutex());
}

// ---------------------------------------------------------------- trace_printf

TEST_F(LoggingWrapperTraceTest, LevelsOtherThanEightWriteNothingAnywhere) {
  for (unsigned level : {7u, 9u, 0u, 3u, 14u}) {
    LoggingWrapper* w = wrapper();
    StderrCapture capture;
    w->trace_printf("src/x.cpp", "fn", 1, level, 0, "no interface");
    w->set_trace_spi(FakeTraceV1::spi());
    w->trace_printf("src/x.cpp", "fn", 1, level, 9, "version 1");
    w->set_trace_spi(FakeTraceV2::spi());
    w->trace_printf("src/x.cpp", "fn", 1, level, 0, "version 2");
    EXPECT_EQ("", capture.release()) << level;
    EXPECT_EQ(Names(), listDir(tmp.path())) << level;
  }
  EXPECT_TRUE(FakeTraceV1::calls().empty());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
}

TEST_F(LoggingWrapperTraceTest, LevelNineDoesNotCloseTheOwnFile) {
  LoggingWrapper* w = wrapper();
  pendingRecord(w);
  w->set_trace_spi(FakeTraceV1::spi());
  w->trace_printf("src/x.cpp", "fn", 1, 9, 0, "dropped");
  EXPECT_EQ(0, liveSize());
  EXPECT_TRUE(FakeTraceV1::calls().empty());
}

TEST_F(LoggingWrapperTraceTest, VersionOneKindNineGoesToTheFunctionWriter) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV1::spi());
  w->trace_printf("/src/common/src/PipeExt.cpp", "signal", 143, 8, 9, "x=%d", 5);
  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(2, calls[0].slot);
  EXPECT_EQ(9u, calls[0].kind);
  EXPECT_EQ("signal", calls[0].function);
  EXPECT_EQ("PipeExt.cpp             :143   - signal                    x=5", calls[0].text);
  EXPECT_EQ(v1Record("PipeExt.cpp", "143", "signal", "x=5"), calls[0].text);
}

TEST_F(LoggingWrapperTraceTest, VersionOneKindTenGoesToTheFunctionValueWriterWithZero) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV1::spi());
  w->trace_printf("src/common/src/Timer", "start", 7, 8, 10, "%s", "armed");
  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(3, calls[0].slot);
  EXPECT_EQ(10u, calls[0].kind);
  EXPECT_EQ("start", calls[0].function);
  EXPECT_EQ(0u, calls[0].value);
  EXPECT_EQ("Timer                   :7     - start                     armed", calls[0].text);
}

TEST_F(LoggingWrapperTraceTest, VersionOneOtherKindsGoToThePlainWriter) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV1::spi());
  for (unsigned kind : {0u, 8u, 11u, 4294967295u}) w->trace_printf("a/b.cpp", "fn", 99999, 8, kind, "k");
  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  ASSERT_EQ(4u, calls.size());
  const unsigned kinds[] = {0u, 8u, 11u, 4294967295u};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(1, calls[i].slot);
    EXPECT_EQ(kinds[i], calls[i].kind);
    EXPECT_EQ(v1Record("b.cpp", "99999", "fn", "k"), calls[i].text);
  }
}

TEST_F(LoggingWrapperTraceTest, VersionOneRecordCutsAtItsBuffers) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV1::spi());
  const std::string longMessage(2000, 'm');
  w->trace_printf("a/b.cpp", "fn", 1, 8, 0, "%s", longMessage.c_str());  // message cut at 799
  const std::string longFunction(1200, 'f');
  w->trace_printf("a/b.cpp", longFunction.c_str(), 1, 8, 0, "x");  // record cut at 999
  const std::string longFile = "/dir/" + std::string(100, 'c');
  w->trace_printf(longFile.c_str(), "fn", 1, 8, 0, "x");  // tail cut at 64
  w->trace_printf(nullptr, "fn", 1, 8, 0, "x");            // no file: empty tail
  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  ASSERT_EQ(4u, calls.size());
  EXPECT_EQ(v1Record("b.cpp", "1", "fn", std::string(799, 'm')), calls[0].text);
  EXPECT_EQ((padded("b.cpp", 24) + ":1     - " + longFunction).substr(0, 999), calls[1].text);
  EXPECT_EQ(v1Record(std::string(64, 'c'), "1", "fn", "x"), calls[2].text);
  EXPECT_EQ(v1Record("", "1", "fn", "x"), calls[3].text);
}

TEST_F(LoggingWrapperTraceTest, FirstVersionOneRecordClosesTheOwnFile) {
  LoggingWrapper* w = wrapper();
  pendingRecord(w);
  w->set_trace_spi(FakeTraceV1::spi());
  EXPECT_EQ(0, liveSize());
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/x.cpp", "fn", 5, "dropped");
  EXPECT_EQ(0, liveSize());
  debugRecord(w, "forwarded");
  EXPECT_EQ("pending\n", readFile(liveFile()));
  EXPECT_EQ(1u, FakeTraceV1::calls().size());
}

TEST_F(LoggingWrapperTraceTest, VersionOneIsCalledAfterTheLockIsReleased) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV1::spi());
  int tryLock = -1;
  bool threw = false;
  FakeTraceV1::hook = [&] {
    tryLock = pthread_mutex_trylock(LoggingWrapper::_lock->getMutex());
    if (tryLock == 0) pthread_mutex_unlock(LoggingWrapper::_lock->getMutex());
    try {
      w->log_printf("hook", 6, 13, "%s", "from the hook");  // takes the lock again
    } catch (...) {
      threw = true;
    }
  };
  debugRecord(w, "x");
  EXPECT_EQ(0, tryLock);
  EXPECT_FALSE(threw);
  flush(w);
  EXPECT_EQ("from the hook\n", readFile(liveFile()));
}

TEST_F(LoggingWrapperTraceTest, WithoutInterfaceTheRecordGoesToTheOwnFileWithStampAndTag) {
  LoggingWrapper* w = wrapper();
  w->trace_printf("/src/common/src/Timer.cpp", "start", 88, 8, 0, "n=%d", 3);
  w->trace_printf(nullptr, "stop", 123456, 8, 10, "%s", "done");
  flush(w);
  const std::vector<std::string> written = lines(readFile(liveFile()));
  ASSERT_EQ(2u, written.size());
  EXPECT_TRUE(stampThen(" TR Timer.cpp               :88    - start                     n=3", written[0]));
  EXPECT_TRUE(stampThen(" TR " + padded("", 24) + ":123456 - " + padded("stop", 25) + " done", written[1]));
}

TEST_F(LoggingWrapperTraceTest, WithoutInterfaceTheOwnFileMayBeRotatedFirst) {
  writeFile(liveFile(), std::string(101, 'L'));
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FMAXSIZE", "100"}});
  debugRecord(w, "after rotation");
  flush(w);
  EXPECT_EQ(Names({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  EXPECT_EQ(std::string(101, 'L'), readFile(tmp.file("zel.log.1")));
  const std::vector<std::string> written = lines(readFile(liveFile()));
  ASSERT_EQ(1u, written.size());
  EXPECT_TRUE(stampThen(" TR " + v1Record("PipeExt.cpp", "143", "signal", "after rotation"), written[0]));
}

TEST_F(LoggingWrapperTraceTest, WithoutInterfaceAndWithoutFileTheRecordGoesToStandardError) {
  LoggingWrapper* w = wrapper({{"ZEL_LOGGING_FNAME", tmp.file("missing/zel.log")}});
  StderrCapture capture;
  debugRecord(w, "first");
  debugRecord(w, "second");  // the file is tried again
  const std::vector<std::string> err = lines(capture.release());
  ASSERT_EQ(4u, err.size());
  const std::string failed = std::string("Failed to open log file!: ") + std::strerror(ENOENT);
  EXPECT_EQ(failed, err[0]);
  EXPECT_TRUE(stampThen(" TR " + v1Record("PipeExt.cpp", "143", "signal", "first"), err[1]));
  EXPECT_EQ(failed, err[2]);
  EXPECT_TRUE(stampThen(" TR " + v1Record("PipeExt.cpp", "143", "signal", "second"), err[3]));
  EXPECT_EQ(Names(), listDir(tmp.path()));
}

TEST_F(LoggingWrapperTraceTest, AfterCloseEveryRecordOnlyPrintsTheClosedMessage) {
  LoggingWrapper* w = wrapper();
  w->set_trace_spi(FakeTraceV2::spi());
  w->close();
  StderrCapture capture;
  w->trace_printf("src/a.cpp", "fa", 12, 8, 0, "x");
  w->trace_printf("src/b.cpp", "fb", 13, 7, 9, "x");
  w->trace_v2_printf(Zel::Trace::Common, 14, "src/c.cpp", "fc", 14, "x");
  w->set_trace_spi(FakeTraceV1::spi());  // accepted, but a closed wrapper forwards nothing
  w->trace_printf("src/d.cpp", "fd", 15, 8, 10, "x");
  EXPECT_EQ(
      "Logging after loggingWrapper has been closed! (src/a.cpp:fa:12)\n"
      "Logging after loggingWrapper has been closed! (src/b.cpp:fb:13)\n"
      "Logging after loggingWrapper has been closed! (src/c.cpp:fc:14)\n"
      "Logging after loggingWrapper has been closed! (src/d.cpp:fd:15)\n",
      capture.release());
  EXPECT_TRUE(FakeTraceV1::calls().empty());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_EQ(Names(), listDir(tmp.path()));
}

}  // namespace
