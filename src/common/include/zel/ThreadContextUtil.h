// ThreadContextUtil.h - empties the calling thread's context in the framework's
// thread context service.
//
// DumpThreadContextToLogAndClearMessages writes every collected log message and
// NBI message of the calling thread to the debug trace, gives back the handles
// the messages were read through, and clears both lists in the service.
//
// Reports go through the logging service (Zel::LoggingWrapper) under the
// function name "DumpThreadContextToLogAndClearMessages" and the source path
// "src/common/src/ThreadContextUtil", on Zel::Trace::Common:
//   errors (log_printf level 3 when allowed, then trace level 3), each with the
//   service's return code as a signed decimal:
//     line 28 "Failed to get interface ThreadContext. Got return code %d."
//     line 48 "Failed to get log messages. Got return code %d."
//     line 56 "Failed to get NBI messages. Got return code %d."
//     line 72 "Failed to release log handle. Got return code %d."
//     line 78 "Failed to release NBI handle. Got return code %d."
//     line 84 "Failed to clear log messages. Got return code %d."
//     line 90 "Failed to clear NBI messages. Got return code %d."
//   debug traces (trace_printf level 8 when allowed, then trace level 14):
//     line 60 "Clearing Thread Context, Log Messages:"
//     line 62 each log message ("%s")
//     line 65 "Clearing Thread Context, NBI Messages:"
//     line 67 each NBI message ("%s")
//
// Nothing is thrown and nothing is returned: the first failing step of the
// service is reported and ends the dump, leaving the later steps undone
// (handles unreleased, lists uncleared). The class holds no data.
//
// Threads: the thread context belongs to the calling thread; no lock of its
// own is taken. Reporting takes the logging lock, so the dump must not run
// while that lock is held (e.g. from inside a trace interface).
#ifndef ZEL_THREAD_CONTEXT_UTIL_H
#define ZEL_THREAD_CONTEXT_UTIL_H

#include <zel/ZelExport.h>
#include <zel/ZelMgmtSpiInterface.h>
#include <zel/ZelMgmtSpiThreadContext.h>

namespace Zel {

class ZEL_API ThreadContextUtil {
 public:
  // The identifier the portal is asked for: component
  // "ZelMgmtSpiThreadContextService", interface "ZelMgmtSpiThreadContext",
  // version "2".
  static const ZelMgmtSpiInterface_1 THREAD_CONTEXT_INTERFACE_ID;

  ThreadContextUtil();
  ~ThreadContextUtil();

  // Dumps and clears the thread context, strictly in this order, stopping at
  // the first failure: get the log messages (kind 0), get the NBI messages
  // (kind 1), trace the log heading and every log message, trace the NBI
  // heading and every NBI message, release the log handle, release the NBI
  // handle, clear the log list, clear the NBI list. A null threadContext
  // does nothing. The service must hand over a message array (possibly
  // empty) whenever getMessages succeeds.
  static void DumpThreadContextToLogAndClearMessages(ZelMgmtSpiThreadContext_2* threadContext);

  // Looks up the thread context interface through the portal and dumps it as
  // above. ZelNotExist (-2) from the lookup means no thread context service
  // is present: nothing is done and nothing reported. Any other failure is
  // reported (line 28) and nothing is dumped. A null portal does nothing.
  static void DumpThreadContextToLogAndClearMessages(ZelMgmtSpiInterfacePortal_3* portal);
};

}  // namespace Zel

#endif  // ZEL_THREAD_CONTEXT_UTIL_H
