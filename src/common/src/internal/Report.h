// Report.h - the one way library components report errors and debug traces.
//
// Every component reports through these two calls instead of repeating the
// filter-then-forward steps by hand:
//   reportError: if the singleton's isSaLoggingAllowed(1 << 3, 3) holds, a
//     log_printf(function, 3, 1, ...) record; then, always,
//     trace_v2_printf(Trace::Common, 3, file, function, line, ...).
//   reportDebug: if isDebugLoggingAllowed(8) holds, trace_printf(file,
//     function, line, 8, 0, ...); then, always,
//     trace_v2_printf(Trace::Common, 14, file, function, line, ...).
// `file` and `line` are the values the component's reports are known by
// (e.g. "src/common/src/PipeExt", 143), passed as given.
//
// Both reach the singleton through getInstance() (creating it on first use)
// and take the logging lock, so they must not be called while it is held.
// They are the public logReport(LogLevel::Error, ...) and debugReport(...)
// behind the ZEL_LOG_ERROR and ZEL_DEBUG macros (LogMacros.h), called with
// the component's fixed file, function and line instead of __FILE__,
// __func__ and __LINE__.
#ifndef ZEL_INTERNAL_REPORT_H
#define ZEL_INTERNAL_REPORT_H

#include <cstdint>

namespace Zel {
namespace internal {

// The trace level of debug records on the version 2 trace interface.
constexpr uint32_t kDebugTraceLevel = 14;

void reportError(const char* file, const char* function, uint32_t line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void reportDebug(const char* file, const char* function, uint32_t line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_REPORT_H
