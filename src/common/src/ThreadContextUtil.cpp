#include <zel/ThreadContextUtil.h>

#include "internal/Report.h"

namespace Zel {

namespace {

// The values the dump's reports are known by in traces and log records.
const char* const REPORT_FILE = "src/common/src/ThreadContextUtil";
const char* const REPORT_FUNCTION = "DumpThreadContextToLogAndClearMessages";

enum ReportLine : uint32_t {
  LINE_GET_INTERFACE_FAILED = 28,
  LINE_GET_LOG_FAILED = 48,
  LINE_GET_NBI_FAILED = 56,
  LINE_LOG_HEADING = 60,
  LINE_LOG_MESSAGE = 62,
  LINE_NBI_HEADING = 65,
  LINE_NBI_MESSAGE = 67,
  LINE_RELEASE_LOG_FAILED = 72,
  LINE_RELEASE_NBI_FAILED = 78,
  LINE_CLEAR_LOG_FAILED = 84,
  LINE_CLEAR_NBI_FAILED = 90
};

// Traces every entry of a service-owned, null-terminated message array.
void traceMessages(const char* const* messages, uint32_t line) {
  for (const char* const* entry = messages; *entry != nullptr; ++entry)
    internal::reportDebug(REPORT_FILE, REPORT_FUNCTION, line, "%s", *entry);
}

}  // namespace

const ZelMgmtSpiInterface_1 ThreadContextUtil::THREAD_CONTEXT_INTERFACE_ID = {
    "ZelMgmtSpiThreadContextService", "ZelMgmtSpiThreadContext", "2"};

ThreadContextUtil::ThreadContextUtil() {}

ThreadContextUtil::~ThreadContextUtil() {}

void ThreadContextUtil::DumpThreadContextToLogAndClearMessages(ZelMgmtSpiInterfacePortal_3* portal) {
  if (portal == nullptr) return;
  ZelMgmtSpiInterface_1* found = nullptr;
  const ZelReturnT result = portal->getInterface(THREAD_CONTEXT_INTERFACE_ID, &found);
  // No thread context service in this process: nothing to dump, nothing wrong.
  if (result == ZelNotExist) return;
  if (result != ZelOk) {
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_GET_INTERFACE_FAILED,
                          "Failed to get interface ThreadContext. Got return code %d.", static_cast<int>(result));
    return;
  }
  // The interface record begins with its header, so the header's address is
  // the record's.
  DumpThreadContextToLogAndClearMessages(reinterpret_cast<ZelMgmtSpiThreadContext_2*>(found));
}

void ThreadContextUtil::DumpThreadContextToLogAndClearMessages(ZelMgmtSpiThreadContext_2* threadContext) {
  if (threadContext == nullptr) return;

  ZelMgmtSpiThreadContextHandle_2T logHandle = 0;
  const char** logMessages = nullptr;
  ZelReturnT result = threadContext->getMessages(ZelMgmtSpiThreadContextLogMessages, &logHandle, &logMessages);
  if (result != ZelOk) {
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_GET_LOG_FAILED,
                          "Failed to get log messages. Got return code %d.", static_cast<int>(result));
    return;
  }

  ZelMgmtSpiThreadContextHandle_2T nbiHandle = 0;
  const char** nbiMessages = nullptr;
  result = threadContext->getMessages(ZelMgmtSpiThreadContextNbiMessages, &nbiHandle, &nbiMessages);
  if (result != ZelOk) {
    // The dump ends at the first failure; the log handle is not given back.
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_GET_NBI_FAILED,
                          "Failed to get NBI messages. Got return code %d.", static_cast<int>(result));
    return;
  }

  // Everything is written while both arrays are still valid, i.e. before any
  // handle is given back.
  internal::reportDebug(REPORT_FILE, REPORT_FUNCTION, LINE_LOG_HEADING, "Clearing Thread Context, Log Messages:");
  traceMessages(logMessages, LINE_LOG_MESSAGE);
  internal::reportDebug(REPORT_FILE, REPORT_FUNCTION, LINE_NBI_HEADING, "Clearing Thread Context, NBI Messages:");
  traceMessages(nbiMessages, LINE_NBI_MESSAGE);

  result = threadContext->releaseHandle(logHandle);
  if (result != ZelOk) {
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_RELEASE_LOG_FAILED,
                          "Failed to release log handle. Got return code %d.", static_cast<int>(result));
    return;
  }
  result = threadContext->releaseHandle(nbiHandle);
  if (result != ZelOk) {
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_RELEASE_NBI_FAILED,
                          "Failed to release NBI handle. Got return code %d.", static_cast<int>(result));
    return;
  }

  // The lists are cleared only after both handles were given back.
  result = threadContext->clearMessages(ZelMgmtSpiThreadContextLogMessages);
  if (result != ZelOk) {
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_CLEAR_LOG_FAILED,
                          "Failed to clear log messages. Got return code %d.", static_cast<int>(result));
    return;
  }
  result = threadContext->clearMessages(ZelMgmtSpiThreadContextNbiMessages);
  if (result != ZelOk) {
    internal::reportError(REPORT_FILE, REPORT_FUNCTION, LINE_CLEAR_NBI_FAILED,
                          "Failed to clear NBI messages. Got return code %d.", static_cast<int>(result));
  }
}

}  // namespace Zel
