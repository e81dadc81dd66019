// LoggingWrapper: trace interfaces of versions "1" and "2", and the trace
// record writers.
//
// Locking: set_trace_spi and trace_v2_printf do all their work under
// LoggingWrapper::_lock, including the calls into a version 2 interface;
// trace_printf releases the lock before it calls a version 1 interface.
#include <sys/time.h>

#include <cstdio>
#include <cstring>

#include <zel/LoggingWrapper.h>
#include "internal/LogFile.h"
#include "internal/ThreadLockGuard.h"
#include "internal/TimeStamp.h"

namespace Zel {

namespace Trace {
ZelMwSpiTraceSubsystemHandle_2T Common = 0;
ZelMwSpiTraceSubsystemHandle_2T Core = 0;
ZelMwSpiTraceSubsystemHandle_2T Ac = 0;
ZelMwSpiTraceSubsystemHandle_2T CmRouter = 0;
ZelMwSpiTraceSubsystemHandle_2T EventRouter = 0;
ZelMwSpiTraceSubsystemHandle_2T ModelRepository = 0;
ZelMwSpiTraceSubsystemHandle_2T ThreadContext = 0;
ZelMwSpiTraceSubsystemHandle_2T Transaction = 0;
ZelMwSpiTraceSubsystemHandle_2T Session = 0;
ZelMwSpiTraceSubsystemHandle_2T Svs = 0;
ZelMwSpiTraceSubsystemHandle_2T Other = 0;
}  // namespace Trace

namespace {

const uint32_t kTailSize = 65;
const uint32_t kDebugLevel = 8;
const uint32_t kKindFunction = 9;
const uint32_t kKindFunctionValue = 10;

struct Subsystem {
  const char* name;
  ZelMwSpiTraceSubsystemHandle_2T* handle;
  const char* failure;
};

// Registration order of the framework's trace subsystems. The transaction
// row's message names "ZelTransactionService" while the registered name is
// "ZelTransaction"; both texts are what the framework's operators know.
const Subsystem kSubsystems[] = {
    {"ZelCommon", &Trace::Common, "Could not register ZelCommon subsystem in v2 of trace if"},
    {"ZelCore", &Trace::Core, "Could not register ZelCore subsystem in v2 of trace if"},
    {"ZelAc", &Trace::Ac, "Could not register ZelAc subsystem in v2 of trace if"},
    {"ZelCmRouter", &Trace::CmRouter, "Could not register ZelCmRouter subsystem in v2 of trace if"},
    {"ZelEventRouter", &Trace::EventRouter, "Could not register ZelEventRouter subsystem in v2 of trace if"},
    {"ZelModelRepository", &Trace::ModelRepository,
     "Could not register ZelModelRepository subsystem in v2 of trace if"},
    {"ZelThreadContext", &Trace::ThreadContext, "Could not register ZelThreadContext subsystem in v2 of trace if"},
    {"ZelTransaction", &Trace::Transaction,
     "Could not register ZelTransactionService subsystem in v2 of trace if"},
    {"ZelSession", &Trace::Session, "Could not register ZelSession subsystem in v2 of trace if"},
    {"ZelSvs", &Trace::Svs, "Could not register ZelSvs subsystem in v2 of trace if"},
    {"ZelOther", &Trace::Other, "Could not register ZelOther subsystem in v2 of trace if"},
};

bool isBlankOrSlash(char c) { return c == ' ' || c == '/'; }

void complainClosed(const char* file, const char* function, uint32_t line) {
  std::fprintf(stderr, "Logging after loggingWrapper has been closed! (%s:%s:%d)\n", file, function,
               static_cast<int>(line));
  std::fflush(stderr);
}

}  // namespace

char* path_tail(char* destination, const char* path, uint32_t size) {
  if (path == nullptr || destination == nullptr || size == 0) return nullptr;
  while (*path == ' ') ++path;
  const size_t length = std::strlen(path);
  if (length == 0 || size == 1 || std::strcmp(path, "/") == 0) {
    destination[0] = '\0';
    return destination;
  }
  // End of the component: back over trailing blanks and slashes, never
  // further than the second character.
  size_t end = length - 1;
  while (end > 1 && isBlankOrSlash(path[end])) --end;
  size_t componentEnd;  // one past the component's last character
  if (end == 1 && isBlankOrSlash(path[1])) {
    // Everything after the first character is blanks and slashes.
    componentEnd = path[0] == '/' ? 0 : 1;
  } else {
    componentEnd = end + 1;
  }
  size_t start = componentEnd;
  while (start > 0 && path[start - 1] != '/') --start;
  size_t count = componentEnd - start;
  if (count > size - 1) count = size - 1;
  // memmove: callers may cut a path down in place (destination == path).
  std::memmove(destination, path + start, count);
  destination[count] = '\0';
  return destination;
}

void LoggingWrapper::set_trace_spi(ZelMgmtSpiInterface_1* traceSpi) {
  internal::ThreadLockGuard guard(_lock);
  {
    if (traceSpi == nullptr) {
      _traceSpi = nullptr;
      _traceV2Spi = nullptr;
      __atomic_store_n(&_traceEnabled, false, __ATOMIC_RELAXED);
    } else if (traceSpi->interfaceVersion != nullptr && std::strcmp(traceSpi->interfaceVersion, "1") == 0) {
      _traceSpi = reinterpret_cast<ZelMwSpiTrace_1*>(traceSpi);
      _traceV2Spi = nullptr;
      __atomic_store_n(&_traceEnabled, true, __ATOMIC_RELAXED);
    } else if (traceSpi->interfaceVersion != nullptr && std::strcmp(traceSpi->interfaceVersion, "2") == 0) {
      _traceSpi = nullptr;
      _traceV2Spi = reinterpret_cast<ZelMwSpiTrace_2*>(traceSpi);
      __atomic_store_n(&_traceEnabled, true, __ATOMIC_RELAXED);
      for (const Subsystem& subsystem : kSubsystems) {
        if (_traceV2Spi->registerSubsystem(subsystem.name, subsystem.handle) != 0) {
          std::fprintf(stderr, "%s\n", subsystem.failure);
          std::fflush(stderr);
        }
      }
    } else {
      std::fprintf(stderr, "Not a supported trace SPI version [%s]\n",
                   traceSpi->interfaceVersion != nullptr ? traceSpi->interfaceVersion : "(null)");
      std::fflush(stderr);
      _traceSpi = nullptr;
      _traceV2Spi = nullptr;
      __atomic_store_n(&_traceEnabled, false, __ATOMIC_RELAXED);
    }
  }
}

void LoggingWrapper::trace_v2_printf(ZelMwSpiTraceSubsystemHandle_2T handle, ZelMwSpiTraceLevelT level,
                                     const char* file, const char* function, uint32_t line, const char* format,
                                     ...) {
  va_list args;
  va_start(args, format);
  vtrace_v2_printf(handle, level, file, function, line, format, args);
  va_end(args);
}

void LoggingWrapper::vtrace_v2_printf(ZelMwSpiTraceSubsystemHandle_2T handle, ZelMwSpiTraceLevelT level,
                                      const char* file, const char* function, uint32_t line, const char* format,
                                      va_list args) {
  internal::ThreadLockGuard guard(_lock);
  if (isClosed()) {
    complainClosed(file, function, line);
  } else if (_traceV2Spi != nullptr) {
    close_log_file();  // from the first forwarded record on, nothing is written locally
    _traceV2Spi->vtrace(handle, level, file, line, function, format, args);
  }
}

void LoggingWrapper::trace_printf(const char* file, const char* function, uint32_t line, uint32_t level,
                                  uint32_t kind, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vtrace_printf(file, function, line, level, kind, format, args);
  va_end(args);
}

void LoggingWrapper::vtrace_printf(const char* file, const char* function, uint32_t line, uint32_t level,
                                   uint32_t kind, const char* format, va_list args) {
  const char* filePath = file != nullptr ? file : "";
  char message[internal::kMessageSize];
  char record[internal::kRecordSize];
  char tail[kTailSize];
  ZelMwSpiTrace_1* traceSpi = nullptr;

  // The message and the path tail depend on nothing shared, so a debug
  // record's are made before the lock is taken, keeping the time other
  // threads wait short; records of other levels are dropped unformatted.
  if (level == kDebugLevel) {
    std::vsnprintf(message, sizeof(message), format, args);
    path_tail(tail, filePath, kTailSize);
  }

  {
    internal::ThreadLockGuard guard(_lock);
    if (isClosed()) {
      complainClosed(file, function, line);
      return;
    }
    if (_traceV2Spi != nullptr || level != kDebugLevel) return;
    if (_traceSpi != nullptr) {
      close_log_file();
      std::snprintf(record, sizeof(record), "%-24s:%-5d - %-25s %s", tail, static_cast<int>(line), function,
                    message);
      traceSpi = _traceSpi;
    } else {
      if (!_file->isOpen()) open_log_file();
      struct timeval now;
      gettimeofday(&now, nullptr);
      char stamp[internal::LocalTimeCache::kMaxStampLength];
      const size_t stampLength = _file->stamp(stamp, now);
      const size_t length =
          internal::composeLine(record, sizeof(record), stamp, stampLength, _get_level_str(kDebugLevel).c_str(),
                                tail, static_cast<int>(line), function, message);
      check_and_rotate_log_file();
      writeFileLine(record, length, false, now);
    }
  }

  if (traceSpi == nullptr) return;
  // The version 1 interface is called outside the lock.
  if (kind == kKindFunction) {
    traceSpi->traceWriteFunction(kKindFunction, function, record);
  } else if (kind == kKindFunctionValue) {
    traceSpi->traceWriteFunctionValue(kKindFunctionValue, function, 0, record);
  } else {
    traceSpi->traceWrite(kind, record);
  }
}

}  // namespace Zel
