#include "internal/Report.h"

#include <cstdarg>

#include <zel/LoggingWrapper.h>

namespace Zel {

// The one implementation of the two-step report: the ZEL_LOG_* and ZEL_DEBUG
// macros and the library's own components (through internal/Report.h) all
// end up here. The caller's argument list is used twice, so the first use
// gets a copy.

void vlogReport(LogLevel level, const char* file, const char* function, uint32_t line, const char* format,
                va_list args) {
  LoggingWrapper* logger = LoggingWrapper::getInstance();
  if (logger->isSaLoggingAllowed(logLevelMask(level), level)) {
    va_list copy;
    va_copy(copy, args);
    logger->vlog_printf(function, level, 1, format, copy);
    va_end(copy);
  }
  logger->vtrace_v2_printf(Trace::Common, level, file, function, line, format, args);
}

void logReport(LogLevel level, const char* file, const char* function, uint32_t line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogReport(level, file, function, line, format, args);
  va_end(args);
}

void vdebugReport(const char* file, const char* function, uint32_t line, const char* format, va_list args) {
  LoggingWrapper* logger = LoggingWrapper::getInstance();
  if (logger->isDebugLoggingAllowed(LogLevel::Debug)) {
    va_list copy;
    va_copy(copy, args);
    logger->vtrace_printf(file, function, line, LogLevel::Debug, 0, format, copy);
    va_end(copy);
  }
  logger->vtrace_v2_printf(Trace::Common, internal::kDebugTraceLevel, file, function, line, format, args);
}

void debugReport(const char* file, const char* function, uint32_t line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vdebugReport(file, function, line, format, args);
  va_end(args);
}

namespace internal {

void reportError(const char* file, const char* function, uint32_t line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogReport(LogLevel::Error, file, function, line, format, args);
  va_end(args);
}

void reportDebug(const char* file, const char* function, uint32_t line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vdebugReport(file, function, line, format, args);
  va_end(args);
}

}  // namespace internal
}  // namespace Zel
