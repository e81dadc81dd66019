// Tests of Zel::ThreadContextUtil against recording fakes of the portal and the
// thread context interface.
//
// Reports are observed on the logging singleton: a recording version 2 trace
// interface (every report reaches it) and a recording log interface (error
// reports also go through log_printf). Each fake call, trace and log record is
// also appended to one timeline (FakeThreadContext::calls()) so the order of
// service calls and reports is asserted as a whole. The singleton is restored
// in TearDown.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include <zel/LoggingWrapper.h>
#include <zel/ThreadContextUtil.h>
#include "support/Fakes.h"
#include "support/StderrCapture.h"
#include "support/TempDir.h"
#include "support/ThreadContextFakes.h"

using Zel::ThreadContextUtil;
using ZelTest::FakeLogSpi;
using ZelTest::FakePortal;
using ZelTest::FakeThreadContext;
using ZelTest::FakeTraceV1;
using ZelTest::FakeTraceV2;

namespace {

const char* const FILE_PATH = "src/common/src/ThreadContextUtil";
const char* const FUNCTION = "DumpThreadContextToLogAndClearMessages";
const char* const LOG_HEADING = "Clearing Thread Context, Log Messages:";
const char* const NBI_HEADING = "Clearing Thread Context, NBI Messages:";

typedef std::vector<std::string> Strings;

Zel::LoggingWrapper* logger() { return Zel::LoggingWrapper::getInstance(); }

void dump(ZelMgmtSpiThreadContext_2* threadContext) {
  ThreadContextUtil::DumpThreadContextToLogAndClearMessages(threadContext);
}
void dumpThroughPortal(ZelMgmtSpiInterfacePortal_3* portal) {
  ThreadContextUtil::DumpThreadContextToLogAndClearMessages(portal);
}

// Timeline entries the hooks write for reports.
std::string traceEntry(uint32_t line, const std::string& text) { return "trace " + std::to_string(line) + ": " + text; }
std::string logEntry(const std::string& text) { return "log: " + text; }

class ThreadContextUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    _savedLevel = logger()->get_level();
    FakeThreadContext::reset();
    FakePortal::reset();
    FakeTraceV2::reset();
    FakeLogSpi::reset();
    logger()->set_trace_spi(FakeTraceV2::spi());
    logger()->set_log_spi(FakeLogSpi::spi());
    FakeTraceV2::hook = [] {
      const FakeTraceV2::Call call = FakeTraceV2::calls().back();
      FakeThreadContext::note(traceEntry(call.line, call.text));
    };
    FakeLogSpi::hook = [] { FakeThreadContext::note(logEntry(FakeLogSpi::calls().back().text)); };
  }

  void TearDown() override {
    logger()->set_trace_spi(nullptr);
    logger()->set_log_spi(nullptr);
    logger()->set_level(_savedLevel);
    FakeTraceV2::reset();
    FakeTraceV1::reset();
    FakeLogSpi::reset();
  }

  // Checks one recorded version 2 trace in full.
  static void expectTrace(const FakeTraceV2::Call& call, ZelMwSpiTraceLevelT level, uint32_t line,
                          const std::string& format, const std::string& text) {
    EXPECT_EQ(Zel::Trace::Common, call.handle);
    EXPECT_EQ(level, call.level);
    EXPECT_EQ(FILE_PATH, call.file);
    EXPECT_EQ(line, call.line);
    EXPECT_EQ(FUNCTION, call.function);
    EXPECT_EQ(format, call.format);
    EXPECT_EQ(text, call.text);
  }

  // Checks that exactly one error was reported: one trace at level 3 and one
  // log record at level 3, facility 1.
  static void expectOnlyError(uint32_t line, const std::string& format, const std::string& text) {
    const std::vector<FakeTraceV2::Call> traces = FakeTraceV2::calls();
    ASSERT_EQ(1u, traces.size());
    expectTrace(traces[0], 3, line, format, text);
    const std::vector<FakeLogSpi::Call> logs = FakeLogSpi::calls();
    ASSERT_EQ(1u, logs.size());
    EXPECT_EQ(1u, logs[0].one);
    EXPECT_EQ(3u, logs[0].level);
    EXPECT_EQ(1u, logs[0].facility);
    EXPECT_EQ(std::string(" ") + FUNCTION + " " + text, logs[0].text);
  }

 private:
  unsigned _savedLevel = 6;
};

// --- the interface records ------------------------------------------------

TEST(ThreadContextUtilId, IdentifiesThreadContextServiceVersionTwo) {
  EXPECT_STREQ("ZelMgmtSpiThreadContextService", ThreadContextUtil::THREAD_CONTEXT_INTERFACE_ID.componentName);
  EXPECT_STREQ("ZelMgmtSpiThreadContext", ThreadContextUtil::THREAD_CONTEXT_INTERFACE_ID.interfaceName);
  EXPECT_STREQ("2", ThreadContextUtil::THREAD_CONTEXT_INTERFACE_ID.interfaceVersion);
}

TEST_F(ThreadContextUtilTest, ConstructionAndDestructionTouchNothing) {
  { ThreadContextUtil util; }
  EXPECT_TRUE(FakeThreadContext::calls().empty());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
}

// --- success -----------------------------------------------------------------

TEST_F(ThreadContextUtilTest, NullThreadContextCallsNothing) {
  dump(static_cast<ZelMgmtSpiThreadContext_2*>(nullptr));
  EXPECT_TRUE(FakeThreadContext::calls().empty());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_TRUE(FakeLogSpi::calls().empty());
}

TEST_F(ThreadContextUtilTest, TwoLogMessagesAreTracedThenHandlesReleasedThenListsCleared) {
  FakeThreadContext::setMessages({"a", "b"}, {});
  dump(FakeThreadContext::spi());

  EXPECT_EQ((Strings{"getMessages(0)", "getMessages(1)", traceEntry(60, LOG_HEADING), traceEntry(62, "a"),
                     traceEntry(62, "b"), traceEntry(65, NBI_HEADING), "releaseHandle(log)", "releaseHandle(nbi)",
                     "clearMessages(0)", "clearMessages(1)"}),
            FakeThreadContext::calls());
  const std::vector<FakeTraceV2::Call> traces = FakeTraceV2::calls();
  ASSERT_EQ(4u, traces.size());
  expectTrace(traces[0], 14, 60, LOG_HEADING, LOG_HEADING);
  expectTrace(traces[1], 14, 62, "%s", "a");
  expectTrace(traces[2], 14, 62, "%s", "b");
  expectTrace(traces[3], 14, 65, NBI_HEADING, NBI_HEADING);
  EXPECT_TRUE(FakeLogSpi::calls().empty());
  EXPECT_TRUE(FakeThreadContext::outstandingHandles().empty());
  EXPECT_TRUE(FakeThreadContext::cleared(0));
  EXPECT_TRUE(FakeThreadContext::cleared(1));
}

TEST_F(ThreadContextUtilTest, NbiMessagesAreTracedAfterTheirHeading) {
  FakeThreadContext::setMessages({"log one"}, {"nbi one", "nbi two with %d and %s"});
  dump(FakeThreadContext::spi());

  EXPECT_EQ((Strings{"getMessages(0)", "getMessages(1)", traceEntry(60, LOG_HEADING), traceEntry(62, "log one"),
                     traceEntry(65, NBI_HEADING), traceEntry(67, "nbi one"), traceEntry(67, "nbi two with %d and %s"),
                     "releaseHandle(log)", "releaseHandle(nbi)", "clearMessages(0)", "clearMessages(1)"}),
            FakeThreadContext::calls());
  const std::vector<FakeTraceV2::Call> traces = FakeTraceV2::calls();
  ASSERT_EQ(5u, traces.size());
  expectTrace(traces[3], 14, 67, "%s", "nbi one");
  // A message is an argument, never a format.
  expectTrace(traces[4], 14, 67, "%s", "nbi two with %d and %s");
}

TEST_F(ThreadContextUtilTest, EmptyListsStillTraceBothHeadingsAndClear) {
  dump(FakeThreadContext::spi());
  EXPECT_EQ((Strings{"getMessages(0)", "getMessages(1)", traceEntry(60, LOG_HEADING), traceEntry(65, NBI_HEADING),
                     "releaseHandle(log)", "releaseHandle(nbi)", "clearMessages(0)", "clearMessages(1)"}),
            FakeThreadContext::calls());
}

TEST_F(ThreadContextUtilTest, WithoutDebugTracingOrTraceInterfaceNothingIsVisible) {
  logger()->set_trace_spi(nullptr);
  logger()->set_log_spi(nullptr);
  ASSERT_FALSE(logger()->isDebugLoggingAllowed(8));
  const std::string logFile = logger()->get_fname();
  const std::string before = ZelTest::readFile(logFile);
  FakeThreadContext::setMessages({"a", "b"}, {"c"});

  ZelTest::StderrCapture capture;
  dump(FakeThreadContext::spi());
  const std::string err = capture.release();

  EXPECT_EQ((Strings{"getMessages(0)", "getMessages(1)", "releaseHandle(log)", "releaseHandle(nbi)",
                     "clearMessages(0)", "clearMessages(1)"}),
            FakeThreadContext::calls());
  EXPECT_TRUE(FakeThreadContext::cleared(0));
  EXPECT_TRUE(FakeThreadContext::cleared(1));
  EXPECT_EQ("", err);
  EXPECT_EQ(before, ZelTest::readFile(logFile));
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_TRUE(FakeLogSpi::calls().empty());
}

TEST_F(ThreadContextUtilTest, DebugTracesAlsoGoToTraceInterfaceOneWhenLevelAllowsThem) {
  logger()->set_trace_spi(FakeTraceV1::spi());
  FakeTraceV1::reset();
  logger()->set_level(8);
  FakeThreadContext::setMessages({"a"}, {"n"});
  dump(FakeThreadContext::spi());

  const std::vector<FakeTraceV1::Call> calls = FakeTraceV1::calls();
  ASSERT_EQ(4u, calls.size());
  const std::string prefix = "ThreadContextUtil       :";
  EXPECT_EQ(prefix + "60    - " + FUNCTION + " " + LOG_HEADING, calls[0].text);
  EXPECT_EQ(prefix + "62    - " + FUNCTION + " a", calls[1].text);
  EXPECT_EQ(prefix + "65    - " + FUNCTION + " " + NBI_HEADING, calls[2].text);
  EXPECT_EQ(prefix + "67    - " + FUNCTION + " n", calls[3].text);
  for (const FakeTraceV1::Call& call : calls) EXPECT_EQ(1, call.slot);
  EXPECT_TRUE(FakeThreadContext::cleared(1));
}

// --- failures of the service --------------------------------------------------

struct FailureCase {
  const char* name;
  FakeThreadContext::Step step;
  ZelReturnT result;
  Strings timeline;  // service calls and reports, in order
  uint32_t line;
  const char* format;
  const char* text;
  std::vector<ZelMgmtSpiThreadContextHandle_2T> unreleased;
  bool logCleared;
  bool nbiCleared;
};

// GoogleTest prints a parameter it knows nothing about as its bytes, which
// hold pointers and so change from build to build; the step's name says it.
void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }

const Strings TRACES = {traceEntry(60, LOG_HEADING), traceEntry(62, "a"), traceEntry(62, "b"),
                        traceEntry(65, NBI_HEADING), traceEntry(67, "n")};

Strings concat(std::initializer_list<Strings> parts) {
  Strings all;
  for (const Strings& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::vector<FailureCase> failureCases() {
  const ZelMgmtSpiThreadContextHandle_2T log = FakeThreadContext::LOG_HANDLE;
  const ZelMgmtSpiThreadContextHandle_2T nbi = FakeThreadContext::NBI_HANDLE;
  const char* getLog = "Failed to get log messages. Got return code %d.";
  const char* getNbi = "Failed to get NBI messages. Got return code %d.";
  const char* relLog = "Failed to release log handle. Got return code %d.";
  const char* relNbi = "Failed to release NBI handle. Got return code %d.";
  const char* clrLog = "Failed to clear log messages. Got return code %d.";
  const char* clrNbi = "Failed to clear NBI messages. Got return code %d.";
  return {
      {"GetLogMessages", FakeThreadContext::GetLog, ZelFailure,
       {"getMessages(0)", logEntry(std::string(" ") + FUNCTION + " Failed to get log messages. Got return code -1."),
        traceEntry(48, "Failed to get log messages. Got return code -1.")},
       48, getLog, "Failed to get log messages. Got return code -1.", {}, false, false},
      {"GetNbiMessages", FakeThreadContext::GetNbi, ZelFailure,
       {"getMessages(0)", "getMessages(1)",
        logEntry(std::string(" ") + FUNCTION + " Failed to get NBI messages. Got return code -1."),
        traceEntry(56, "Failed to get NBI messages. Got return code -1.")},
       56, getNbi, "Failed to get NBI messages. Got return code -1.", {log}, false, false},
      {"ReleaseLogHandle", FakeThreadContext::ReleaseLog, ZelTimeOut,
       concat({{"getMessages(0)", "getMessages(1)"}, TRACES,
               {"releaseHandle(log)",
                logEntry(std::string(" ") + FUNCTION + " Failed to release log handle. Got return code -11."),
                traceEntry(72, "Failed to release log handle. Got return code -11.")}}),
       72, relLog, "Failed to release log handle. Got return code -11.", {log, nbi}, false, false},
      {"ReleaseNbiHandle", FakeThreadContext::ReleaseNbi, ZelNotActive,
       concat({{"getMessages(0)", "getMessages(1)"}, TRACES,
               {"releaseHandle(log)", "releaseHandle(nbi)",
                logEntry(std::string(" ") + FUNCTION + " Failed to release NBI handle. Got return code 2."),
                traceEntry(78, "Failed to release NBI handle. Got return code 2.")}}),
       78, relNbi, "Failed to release NBI handle. Got return code 2.", {nbi}, false, false},
      {"ClearLogMessages", FakeThreadContext::ClearLog, ZelObjectLocked,
       concat({{"getMessages(0)", "getMessages(1)"}, TRACES,
               {"releaseHandle(log)", "releaseHandle(nbi)", "clearMessages(0)",
                logEntry(std::string(" ") + FUNCTION + " Failed to clear log messages. Got return code -5."),
                traceEntry(84, "Failed to clear log messages. Got return code -5.")}}),
       84, clrLog, "Failed to clear log messages. Got return code -5.", {}, false, false},
      {"ClearNbiMessages", FakeThreadContext::ClearNbi, ZelTryAgain,
       concat({{"getMessages(0)", "getMessages(1)"}, TRACES,
               {"releaseHandle(log)", "releaseHandle(nbi)", "clearMessages(0)", "clearMessages(1)",
                logEntry(std::string(" ") + FUNCTION + " Failed to clear NBI messages. Got return code 1."),
                traceEntry(90, "Failed to clear NBI messages. Got return code 1.")}}),
       90, clrNbi, "Failed to clear NBI messages. Got return code 1.", {}, true, false},
  };
}

class ThreadContextUtilFailure : public ThreadContextUtilTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(ThreadContextUtilFailure, ReportsTheFailureAndStopsThere) {
  const FailureCase& c = GetParam();
  FakeThreadContext::setMessages({"a", "b"}, {"n"});
  FakeThreadContext::setResult(c.step, c.result);
  dump(FakeThreadContext::spi());

  EXPECT_EQ(c.timeline, FakeThreadContext::calls());
  EXPECT_EQ(c.unreleased, FakeThreadContext::outstandingHandles());
  EXPECT_EQ(c.logCleared, FakeThreadContext::cleared(0));
  EXPECT_EQ(c.nbiCleared, FakeThreadContext::cleared(1));

  // The error is the last trace, at level 3; log records hold only it.
  const std::vector<FakeTraceV2::Call> traces = FakeTraceV2::calls();
  ASSERT_FALSE(traces.empty());
  expectTrace(traces.back(), 3, c.line, c.format, c.text);
  const std::vector<FakeLogSpi::Call> logs = FakeLogSpi::calls();
  ASSERT_EQ(1u, logs.size());
  EXPECT_EQ(3u, logs[0].level);
  EXPECT_EQ(1u, logs[0].facility);
  EXPECT_EQ(std::string(" ") + FUNCTION + " " + c.text, logs[0].text);
}

INSTANTIATE_TEST_SUITE_P(EachStep, ThreadContextUtilFailure, ::testing::ValuesIn(failureCases()),
                         [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

TEST_F(ThreadContextUtilTest, NbiFailureTracesNoMessageAndClearsNothing) {
  FakeThreadContext::setMessages({"a"}, {"n"});
  FakeThreadContext::setResult(FakeThreadContext::GetNbi, ZelNoResources);
  dump(FakeThreadContext::spi());
  expectOnlyError(56, "Failed to get NBI messages. Got return code %d.",
                  "Failed to get NBI messages. Got return code -10.");
  EXPECT_FALSE(FakeThreadContext::cleared(0));
  EXPECT_FALSE(FakeThreadContext::cleared(1));
}

TEST_F(ThreadContextUtilTest, ErrorReportsReachTheLocalLogFileWithoutLogInterface) {
  logger()->set_log_spi(nullptr);
  const std::string logFile = logger()->get_fname();
  const size_t before = ZelTest::readFile(logFile).size();
  FakeThreadContext::setResult(FakeThreadContext::GetLog, ZelAborted);
  dump(FakeThreadContext::spi());
  const std::string written = ZelTest::readFile(logFile).substr(before);
  EXPECT_NE(std::string::npos,
            written.find(std::string(" ER ") + FUNCTION + " Failed to get log messages. Got return code -4.\n"))
      << written;
}

// --- through the portal ---------------------------------------------------------

TEST_F(ThreadContextUtilTest, PortalLookupAsksForThreadContextAndDumpsIt) {
  FakeThreadContext::setMessages({"a"}, {});
  dumpThroughPortal(FakePortal::spi());

  const std::vector<FakePortal::Lookup> lookups = FakePortal::lookups();
  ASSERT_EQ(1u, lookups.size());
  EXPECT_EQ("ZelMgmtSpiThreadContextService", lookups[0].componentName);
  EXPECT_EQ("ZelMgmtSpiThreadContext", lookups[0].interfaceName);
  EXPECT_EQ("2", lookups[0].interfaceVersion);
  EXPECT_TRUE(lookups[0].resultStartedNull);
  EXPECT_EQ((Strings{"getInterface", "getMessages(0)", "getMessages(1)", traceEntry(60, LOG_HEADING),
                     traceEntry(62, "a"), traceEntry(65, NBI_HEADING), "releaseHandle(log)", "releaseHandle(nbi)",
                     "clearMessages(0)", "clearMessages(1)"}),
            FakeThreadContext::calls());
}

TEST_F(ThreadContextUtilTest, PortalWithoutThreadContextServiceIsSilent) {
  FakePortal::reset(ZelNotExist);
  FakeThreadContext::setMessages({"a"}, {});
  dumpThroughPortal(FakePortal::spi());
  EXPECT_EQ(1u, FakePortal::lookups().size());
  EXPECT_EQ((Strings{"getInterface"}), FakeThreadContext::calls());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_TRUE(FakeLogSpi::calls().empty());
}

TEST_F(ThreadContextUtilTest, PortalFailureIsReportedAndNothingIsDumped) {
  FakePortal::reset(ZelFailure);
  FakeThreadContext::setMessages({"a"}, {});
  dumpThroughPortal(FakePortal::spi());
  EXPECT_EQ((Strings{"getInterface",
                     logEntry(std::string(" ") + FUNCTION +
                              " Failed to get interface ThreadContext. Got return code -1."),
                     traceEntry(28, "Failed to get interface ThreadContext. Got return code -1.")}),
            FakeThreadContext::calls());
  expectOnlyError(28, "Failed to get interface ThreadContext. Got return code %d.",
                  "Failed to get interface ThreadContext. Got return code -1.");
}

TEST_F(ThreadContextUtilTest, PortalFailuresOtherThanNotExistAreNotSilent) {
  FakePortal::reset(ZelTimeOut);
  dumpThroughPortal(FakePortal::spi());
  expectOnlyError(28, "Failed to get interface ThreadContext. Got return code %d.",
                  "Failed to get interface ThreadContext. Got return code -11.");
  FakeTraceV2::reset();
  FakeLogSpi::reset();
  FakePortal::reset(ZelTryAgain);
  dumpThroughPortal(FakePortal::spi());
  expectOnlyError(28, "Failed to get interface ThreadContext. Got return code %d.",
                  "Failed to get interface ThreadContext. Got return code 1.");
  for (const std::string& call : FakeThreadContext::calls()) EXPECT_EQ(std::string::npos, call.find("getMessages"));
}

TEST_F(ThreadContextUtilTest, NullPortalOrNullInterfaceDoesNothing) {
  dumpThroughPortal(static_cast<ZelMgmtSpiInterfacePortal_3*>(nullptr));
  EXPECT_TRUE(FakeThreadContext::calls().empty());
  FakePortal::setFound(nullptr);
  dumpThroughPortal(FakePortal::spi());
  EXPECT_EQ((Strings{"getInterface"}), FakeThreadContext::calls());
  EXPECT_TRUE(FakeTraceV2::calls().empty());
  EXPECT_TRUE(FakeLogSpi::calls().empty());
}

}  // namespace
