#include "internal/Report.h"

#include <cstdarg>

#include "LoggingWrapper.h"

namespace Zel {
namespace internal {

void reportError(const char* file, const char* function, uint32_t line, const char* format, ...) {
  LoggingWrapper* logger = LoggingWrapper::getInstance();
  va_list args;
  va_start(args, format);
  if (logger->isSaLoggingAllowed(1u << 3, 3)) {
    va_list copy;
    va_copy(copy, args);
    logger->vlog_printf(function, 3, 1, format, copy);
    va_end(copy);
  }
  logger->vtrace_v2_printf(Trace::Common, 3, file, function, line, format, args);
  va_end(args);
}

void reportDebug(const char* file, const char* function, uint32_t line, const char* format, ...) {
  LoggingWrapper* logger = LoggingWrapper::getInstance();
  va_list args;
  va_start(args, format);
  if (logger->isDebugLoggingAllowed(8)) {
    va_list copy;
    va_copy(copy, args);
    logger->vtrace_printf(file, function, line, 8, 0, format, copy);
    va_end(copy);
  }
  logger->vtrace_v2_printf(Trace::Common, 14, file, function, line, format, args);
  va_end(args);
}

}  // namespace internal
}  // namespace Zel
