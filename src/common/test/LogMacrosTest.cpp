// Tests of the one-line record macros (ZEL_LOG_*, ZEL_DEBUG), the functions
// behind them (logReport, debugReport) and the library's report helpers that
// share them: the exact calls each makes on recording log and trace
// interfaces. Each test replaces the logging singleton inside a forked child
// with a wrapper of its own, so the settings it makes stay there.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "internal/Report.h"
#include "support/ChildProcess.h"
#include "support/Fakes.h"
#include "support/TempDir.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelTest::FakeLogSpi;
using ZelTest::FakeTraceV1;
using ZelTest::FakeTraceV2;

static_assert(Zel::LogLevel::Emergency == 0 && Zel::LogLevel::Alert == 1 && Zel::LogLevel::Critical == 2 &&
                  Zel::LogLevel::Error == 3 && Zel::LogLevel::Warning == 4 && Zel::LogLevel::Notice == 5 &&
                  Zel::LogLevel::Info == 6 && Zel::LogLevel::Debug == 8,
              "the levels are the syslog severities and the debug level 8");
static_assert(Zel::logLevelMask(Zel::LogLevel::Error) == 8 && Zel::logLevelMask(Zel::LogLevel::Emergency) == 1,
              "a level's mask bit is 1 shifted left by the level");

// Makes a wrapper from the given environment the process's singleton, with
// the recording log interface and, when given, a trace interface set.
LoggingWrapper* installSingleton(const std::string& dir, ZelMgmtSpiInterface_1* traceSpi,
                                 const ZelTest::EnvList& env = {}) {
  FakeLogSpi::reset();
  FakeTraceV1::reset();
  FakeTraceV2::reset();
  LoggingWrapper* wrapper = ZelTest::makeWrapper(dir, env);
  LoggingWrapper::theInstance = wrapper;
  wrapper->set_log_spi(FakeLogSpi::spi());
  if (traceSpi != nullptr) wrapper->set_trace_spi(traceSpi);
  return wrapper;
}

// Copies of the recorded calls (the fakes hand out their lists by value).
FakeLogSpi::Call logCall(size_t i) { return FakeLogSpi::calls().at(i); }
FakeTraceV2::Call traceCall(size_t i) { return FakeTraceV2::calls().at(i); }

// The record the log interface gets for a message from `function`.
std::string interfaceRecord(const std::string& function, const std::string& message) {
  char record[1000];
  std::snprintf(record, sizeof(record), " %-25s %s", function.c_str(), message.c_str());
  return record;
}

// Call sites with names of their own, so that the function the macros pass
// on is known. Each returns the line of its macro.
uint32_t emergSite(int n) { ZEL_LOG_EMERG("emerg %d", n); return __LINE__; }       // clang-format off
uint32_t alertSite(int n) { ZEL_LOG_ALERT("alert %d", n); return __LINE__; }
uint32_t critSite(int n) { ZEL_LOG_CRIT("crit %d", n); return __LINE__; }
uint32_t errorSite(int n) { ZEL_LOG_ERROR("error %d", n); return __LINE__; }
uint32_t warningSite(int n) { ZEL_LOG_WARNING("warning %d", n); return __LINE__; }
uint32_t noticeSite(int n) { ZEL_LOG_NOTICE("notice %d", n); return __LINE__; }
uint32_t infoSite(int n) { ZEL_LOG_INFO("info %d", n); return __LINE__; }
uint32_t debugSite(int n) { ZEL_DEBUG("debug %d", n); return __LINE__; }
uint32_t noArgumentSite() { ZEL_LOG_INFO("started"); return __LINE__; }  // clang-format on

struct LevelSite {
  uint32_t (*site)(int);
  unsigned level;
  const char* function;
  const char* word;
};
const LevelSite kLevelSites[] = {
    {emergSite, 0, "emergSite", "emerg"},       {alertSite, 1, "alertSite", "alert"},
    {critSite, 2, "critSite", "crit"},          {errorSite, 3, "errorSite", "error"},
    {warningSite, 4, "warningSite", "warning"}, {noticeSite, 5, "noticeSite", "notice"},
    {infoSite, 6, "infoSite", "info"},
};

void eachLevelMacroWritesThenTraces() {
  ZelTest::TempDir tmp;
  installSingleton(tmp.path(), FakeTraceV2::spi());
  unsigned index = 0;
  for (const LevelSite& site : kLevelSites) {
    const uint32_t line = site.site(static_cast<int>(index));
    const std::string message = std::string(site.word) + " " + std::to_string(index);
    const std::vector<FakeLogSpi::Call> logs = FakeLogSpi::calls();
    CHILD_EXPECT_EQ(index + 1, logs.size());
    CHILD_EXPECT_EQ(1u, logs.back().one);
    CHILD_EXPECT_EQ(site.level, logs.back().level);
    CHILD_EXPECT_EQ(1u, logs.back().facility);  // the flag every caller passes
    CHILD_EXPECT_EQ(interfaceRecord(site.function, message), logs.back().text);
    const std::vector<FakeTraceV2::Call> traces = FakeTraceV2::calls();
    CHILD_EXPECT_EQ(index + 1, traces.size());
    CHILD_EXPECT_EQ(Zel::Trace::Common, traces.back().handle);
    CHILD_EXPECT_EQ(site.level, traces.back().level);
    CHILD_EXPECT_EQ(std::string(__FILE__), traces.back().file);
    CHILD_EXPECT_EQ(std::string(site.function), traces.back().function);
    CHILD_EXPECT_EQ(line, traces.back().line);
    CHILD_EXPECT_EQ(std::string(site.word) + " %d", traces.back().format);
    CHILD_EXPECT_EQ(message, traces.back().text);
    ++index;
  }
  _exit(0);
}

TEST(LogMacros, EachLevelMacroWritesALogRecordThenTracesOnCommon) {
  EXPECT_EXIT(eachLevelMacroWritesThenTraces(), ::testing::ExitedWithCode(0), "");
}

void recordWithoutArguments() {
  ZelTest::TempDir tmp;
  installSingleton(tmp.path(), FakeTraceV2::spi());
  const uint32_t line = noArgumentSite();
  CHILD_EXPECT_EQ(1u, FakeLogSpi::calls().size());
  CHILD_EXPECT_EQ(interfaceRecord("noArgumentSite", "started"), logCall(0).text);
  CHILD_EXPECT_EQ(1u, FakeTraceV2::calls().size());
  CHILD_EXPECT_EQ(line, traceCall(0).line);
  CHILD_EXPECT_EQ(std::string("started"), traceCall(0).text);
  _exit(0);
}

TEST(LogMacros, RecordWithoutArguments) {
  EXPECT_EXIT(recordWithoutArguments(), ::testing::ExitedWithCode(0), "");
}

// With TAV_ENV unset only the overall level decides; the trace call is made
// whatever the filter says.
void filteredByLevelStillTraced() {
  ZelTest::TempDir tmp;
  LoggingWrapper* wrapper = installSingleton(tmp.path(), FakeTraceV2::spi());
  wrapper->set_level(3);
  warningSite(1);
  CHILD_EXPECT_EQ(0u, FakeLogSpi::calls().size());
  CHILD_EXPECT_EQ(1u, FakeTraceV2::calls().size());
  CHILD_EXPECT_EQ(4u, traceCall(0).level);
  errorSite(2);
  CHILD_EXPECT_EQ(1u, FakeLogSpi::calls().size());
  CHILD_EXPECT_EQ(3u, logCall(0).level);
  CHILD_EXPECT_EQ(2u, FakeTraceV2::calls().size());
  _exit(0);
}

TEST(LogMacros, RecordAboveTheLevelIsNotLoggedButStillTraced) {
  EXPECT_EXIT(filteredByLevelStillTraced(), ::testing::ExitedWithCode(0), "");
}

// With TAV_ENV set and a log interface, the filter asks the interface mask
// for the bit 1 << level: a warning passes on bit 16 alone, an error does not.
void filterUsesTheLevelsMaskBit() {
  ZelTest::TempDir tmp;
  LoggingWrapper* wrapper = installSingleton(tmp.path(), FakeTraceV2::spi(), {{"TAV_ENV", ""}});
  wrapper->set_level(0);
  wrapper->set_vek_level(1u << 4);
  errorSite(1);
  CHILD_EXPECT_EQ(0u, FakeLogSpi::calls().size());
  warningSite(2);
  CHILD_EXPECT_EQ(1u, FakeLogSpi::calls().size());
  CHILD_EXPECT_EQ(4u, logCall(0).level);
  CHILD_EXPECT_EQ(2u, FakeTraceV2::calls().size());
  _exit(0);
}

TEST(LogMacros, FilterIsAskedForTheLevelsMaskBit) {
  EXPECT_EXIT(filterUsesTheLevelsMaskBit(), ::testing::ExitedWithCode(0), "");
}

// The debug pair, seen on a version 1 interface: trace_printf at level 8 with
// kind 0 (the record "<file tail>:<line> - <function> <message>").
void debugGoesToTracePrintfAtLevel8() {
  ZelTest::TempDir tmp;
  LoggingWrapper* wrapper = installSingleton(tmp.path(), FakeTraceV1::spi());
  wrapper->set_level(8);
  const uint32_t line = debugSite(5);
  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  CHILD_EXPECT_EQ(1u, calls.size());
  CHILD_EXPECT_EQ(1, calls[0].slot);
  CHILD_EXPECT_EQ(0u, calls[0].kind);
  char record[1000];
  std::snprintf(record, sizeof(record), "%-24s:%-5d - %-25s %s", "LogMacrosTest.cpp", static_cast<int>(line),
                "debugSite", "debug 5");
  CHILD_EXPECT_EQ(std::string(record), calls[0].text);
  CHILD_EXPECT_EQ(0u, FakeLogSpi::calls().size());
  _exit(0);
}

TEST(LogMacros, DebugCallsTracePrintfAtLevel8WithFileFunctionAndLine) {
  EXPECT_EXIT(debugGoesToTracePrintfAtLevel8(), ::testing::ExitedWithCode(0), "");
}

void debugFilteredByLevel() {
  ZelTest::TempDir tmp;
  LoggingWrapper* wrapper = installSingleton(tmp.path(), FakeTraceV1::spi());
  wrapper->set_level(7);
  debugSite(1);
  CHILD_EXPECT_EQ(0u, FakeTraceV1::calls().size());
  wrapper->set_level(8);
  debugSite(2);
  CHILD_EXPECT_EQ(1u, FakeTraceV1::calls().size());
  _exit(0);
}

TEST(LogMacros, DebugIsFilteredByTheDebugFilter) {
  EXPECT_EXIT(debugFilteredByLevel(), ::testing::ExitedWithCode(0), "");
}

// The debug pair, seen on a version 2 interface: trace_v2_printf on Common at
// level 14, whatever the debug filter says.
void debugGoesToTraceV2AtLevel14() {
  ZelTest::TempDir tmp;
  LoggingWrapper* wrapper = installSingleton(tmp.path(), FakeTraceV2::spi());
  wrapper->set_level(0);
  const uint32_t line = debugSite(9);
  const std::vector<FakeTraceV2::Call> calls = FakeTraceV2::calls();
  CHILD_EXPECT_EQ(1u, calls.size());
  CHILD_EXPECT_EQ(Zel::Trace::Common, calls[0].handle);
  CHILD_EXPECT_EQ(14u, calls[0].level);
  CHILD_EXPECT_EQ(std::string(__FILE__), calls[0].file);
  CHILD_EXPECT_EQ(std::string("debugSite"), calls[0].function);
  CHILD_EXPECT_EQ(line, calls[0].line);
  CHILD_EXPECT_EQ(std::string("debug %d"), calls[0].format);
  CHILD_EXPECT_EQ(std::string("debug 9"), calls[0].text);
  CHILD_EXPECT_EQ(0u, FakeLogSpi::calls().size());
  _exit(0);
}

TEST(LogMacros, DebugCallsTraceV2OnCommonAtLevel14) {
  EXPECT_EXIT(debugGoesToTraceV2AtLevel14(), ::testing::ExitedWithCode(0), "");
}

// The library's report helpers pass their fixed source path, function and
// line through the same implementation.
void reportHelpersKeepTheirFixedValues() {
  ZelTest::TempDir tmp;
  installSingleton(tmp.path(), FakeTraceV2::spi());
  Zel::internal::reportError("src/common/src/PipeExt", "signal", 143, "Failed to write signal. Errno %d", 32);
  Zel::internal::reportDebug("src/common/src/PipeExt", "clear", 169, "read returned %zd", static_cast<ssize_t>(-1));
  CHILD_EXPECT_EQ(1u, FakeLogSpi::calls().size());
  CHILD_EXPECT_EQ(3u, logCall(0).level);
  CHILD_EXPECT_EQ(1u, logCall(0).facility);
  CHILD_EXPECT_EQ(interfaceRecord("signal", "Failed to write signal. Errno 32"), logCall(0).text);
  const std::vector<FakeTraceV2::Call> calls = FakeTraceV2::calls();
  CHILD_EXPECT_EQ(2u, calls.size());
  CHILD_EXPECT_EQ(3u, calls[0].level);
  CHILD_EXPECT_EQ(std::string("src/common/src/PipeExt"), calls[0].file);
  CHILD_EXPECT_EQ(std::string("signal"), calls[0].function);
  CHILD_EXPECT_EQ(143u, calls[0].line);
  CHILD_EXPECT_EQ(14u, calls[1].level);
  CHILD_EXPECT_EQ(std::string("clear"), calls[1].function);
  CHILD_EXPECT_EQ(169u, calls[1].line);
  CHILD_EXPECT_EQ(std::string("read returned -1"), calls[1].text);
  _exit(0);
}

TEST(LogMacros, ReportHelpersShareTheImplementationWithTheirFixedValues) {
  EXPECT_EXIT(reportHelpersKeepTheirFixedValues(), ::testing::ExitedWithCode(0), "");
}

// Without any interface the records land in the local file, as the two steps
// written by hand would put them there.
void macrosWriteTheLocalFile() {
  ZelTest::TempDir tmp;
  LoggingWrapper* wrapper = ZelTest::makeWrapper(tmp.path());
  LoggingWrapper::theInstance = wrapper;
  wrapper->set_level(8);
  errorSite(3);
  debugSite(4);
  ZelTest::closeWrapperFile(wrapper);
  const std::string text = ZelTest::readFile(tmp.file("zel.log"));
  CHILD_EXPECT(text.find(" ER errorSite                 error 3\n") != std::string::npos);
  CHILD_EXPECT(text.find(" TR LogMacrosTest.cpp       :") != std::string::npos);
  CHILD_EXPECT(text.find(" - debugSite                 debug 4\n") != std::string::npos);
  _exit(0);
}

TEST(LogMacros, WithoutInterfacesRecordsGoToTheLocalFile) {
  EXPECT_EXIT(macrosWriteTheLocalFile(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
