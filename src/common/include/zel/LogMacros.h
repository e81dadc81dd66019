// LogMacros.h - one call per record at the call site, and the log levels.
//
// Included by LoggingWrapper.h; include that header, not this one.
//
//   ZEL_LOG_ERROR("Failed to write to pipe %d: %s", fd, std::strerror(errno));
//   ZEL_DEBUG("queue length %zu", queue.size());
//
// Each ZEL_LOG_<LEVEL>(format, ...) macro makes the two calls every component
// of the framework makes for a record, with the caller's file, function
// (__func__) and line:
//   1. if getInstance()->isSaLoggingAllowed(1 << level, level) holds,
//      log_printf(function, level, 1, format, ...);
//   2. always trace_v2_printf(Zel::Trace::Common, level, file, function, line,
//      format, ...), which drops the record while no version 2 trace
//      interface is set.
// ZEL_DEBUG(format, ...) makes the debug pair: trace_printf(file, function,
// line, 8, 0, format, ...) if isDebugLoggingAllowed(8) holds, then always
// trace_v2_printf(Zel::Trace::Common, 14, file, function, line, format, ...).
//
// The function name is the compiler's __func__: the plain name of the
// enclosing function ("signal", not "PipeExt::signal"), and "operator()"
// inside a lambda.
//
// The format and its arguments are checked like printf's. The macros expand
// to one call of logReport or debugReport, the same functions the library's
// own components report through, so every argument is evaluated exactly once
// and the record costs no more than writing the two steps by hand.
//
// Threads: like the calls they make, the macros may be used on any thread,
// but never while holding LoggingWrapper::_lock (that is, never from inside a
// log or trace interface the wrapper is calling).
#ifndef ZEL_LOG_MACROS_H
#define ZEL_LOG_MACROS_H

#include <cstdarg>
#include <cstdint>

#include <zel/ZelExport.h>

namespace Zel {

// The syslog severities the logging wrapper takes, plus the level of debug
// records. The enumerators convert to unsigned, so direct callers can write
//   if (logger->isSaLoggingAllowed(logLevelMask(LogLevel::Warning), LogLevel::Warning))
//     logger->log_printf("connect", LogLevel::Warning, 1, "retrying in %d s", delay);
enum LogLevel : unsigned {
  Emergency = 0,  // "EM"
  Alert = 1,      // "AL"
  Critical = 2,   // "CR"
  Error = 3,      // "ER"
  Warning = 4,    // "WA"
  Notice = 5,     // "NO"
  Info = 6,       // "IN"
  // The level of trace_printf's debug records and of isDebugLoggingAllowed;
  // log_printf drops it like any level above Info.
  Debug = 8,
};

// The mask bit isSaLoggingAllowed expects for a level: 1 << level.
constexpr unsigned logLevelMask(LogLevel level) { return 1u << static_cast<unsigned>(level); }

// One record at a level from Emergency to Info: the filter, log_printf and
// trace_v2_printf on Trace::Common at the same level, as described above.
// `file` and `line` are passed on as given.
ZEL_API void logReport(LogLevel level, const char* file, const char* function, uint32_t line, const char* format,
                       ...) __attribute__((format(printf, 5, 6)));
// logReport with the arguments as a va_list (used once for each of the two calls).
ZEL_API void vlogReport(LogLevel level, const char* file, const char* function, uint32_t line, const char* format,
                        va_list args) __attribute__((format(printf, 5, 0)));
// One debug record: the debug filter, trace_printf at level 8 and
// trace_v2_printf on Trace::Common at level 14.
ZEL_API void debugReport(const char* file, const char* function, uint32_t line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// debugReport with the arguments as a va_list.
ZEL_API void vdebugReport(const char* file, const char* function, uint32_t line, const char* format, va_list args)
    __attribute__((format(printf, 4, 0)));

}  // namespace Zel

// The format is the first of the variadic arguments so that a record without
// arguments (ZEL_LOG_INFO("started")) needs no compiler extension.

// A record at level 0 ("EM"): ZEL_LOG_EMERG(format, ...).
#define ZEL_LOG_EMERG(...) ::Zel::logReport(::Zel::LogLevel::Emergency, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A record at level 1 ("AL"): ZEL_LOG_ALERT(format, ...).
#define ZEL_LOG_ALERT(...) ::Zel::logReport(::Zel::LogLevel::Alert, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A record at level 2 ("CR"): ZEL_LOG_CRIT(format, ...).
#define ZEL_LOG_CRIT(...) ::Zel::logReport(::Zel::LogLevel::Critical, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A record at level 3 ("ER"): ZEL_LOG_ERROR(format, ...).
#define ZEL_LOG_ERROR(...) ::Zel::logReport(::Zel::LogLevel::Error, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A record at level 4 ("WA"): ZEL_LOG_WARNING(format, ...).
#define ZEL_LOG_WARNING(...) ::Zel::logReport(::Zel::LogLevel::Warning, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A record at level 5 ("NO"): ZEL_LOG_NOTICE(format, ...).
#define ZEL_LOG_NOTICE(...) ::Zel::logReport(::Zel::LogLevel::Notice, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A record at level 6 ("IN"): ZEL_LOG_INFO(format, ...).
#define ZEL_LOG_INFO(...) ::Zel::logReport(::Zel::LogLevel::Info, __FILE__, __func__, __LINE__, __VA_ARGS__)
// A debug record (trace_printf at level 8, trace_v2_printf at 14): ZEL_DEBUG(format, ...).
#define ZEL_DEBUG(...) ::Zel::debugReport(__FILE__, __func__, __LINE__, __VA_ARGS__)

#endif  // ZEL_LOG_MACROS_H
