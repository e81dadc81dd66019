// LoggingWrapper core: construction from the environment, sinks, records.
// Rotation lives in LoggingWrapperRotation.cpp, tracing in
// LoggingWrapperTrace.cpp.
#include "LoggingWrapper.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Poco/File.h>

#include "internal/TimeStamp.h"

namespace Zel {

const char* _LOGGER_FNAME = "zel.log";
const char* _ZEL_LOGGING_LEVEL = "ZEL_LOGGING_LEVEL";
const char* _ZEL_LOGGING_FNAME = "ZEL_LOGGING_FNAME";
const char* _ZEL_LOGGING_FMAXSIZE = "ZEL_LOGGING_FMAXSIZE";
const char* _ZEL_LOGGING_FMAXCOUNT = "ZEL_LOGGING_FMAXCOUNT";

LoggingWrapper* LoggingWrapper::theInstance = nullptr;
// Created when the library is loaded, before any wrapper can exist.
ZelThreadLock* LoggingWrapper::_lock = new ZelThreadLock();

namespace {

// Priority of the two service messages: user facility, informational.
const int kServiceLogPriority = LOG_USER | LOG_INFO;  // 14
const size_t kMessageSize = 800;
const size_t kRecordSize = 1000;
const int kTimeSize = 30;
const unsigned kRawFacility = 13;
const unsigned kHighestLevel = 6;

// Wall-clock seconds broken into local time at most once per second; used
// only under LoggingWrapper::_lock.
internal::LocalTimeCache gTimeCache;

// strtol of an environment value, truncated to 32 bits; no error check.
uint32_t parseEnvNumber(const char* value) { return static_cast<uint32_t>(std::strtol(value, nullptr, 10)); }

// Position just past the last "/", or 0 for "" or a name without one.
int32_t lastSlashEnd(const char* name) {
  const char* slash = std::strrchr(name, '/');
  return slash == nullptr ? 0 : static_cast<int32_t>(slash - name + 1);
}

// Aborts unless `dir` exists and is writable by this process.
void checkLogDirectoryOrAbort(const std::string& dir) {
  bool exists = false;
  bool writable = false;
  try {
    Poco::File file(dir);
    exists = file.exists();
    writable = exists && file.canWrite();
  } catch (...) {
    // An unusable path (e.g. an empty TMPDIR) counts as missing.
  }
  if (!exists) {
    std::fprintf(stderr, "Logging directory %s does not exist, aborting.\n", dir.c_str());
  } else if (!writable) {
    std::fprintf(stderr, "Logging directory %s is not writable, aborting.\n", dir.c_str());
  } else {
    return;
  }
  std::fflush(stderr);
  std::abort();
}

}  // namespace

std::string _get_level_str(unsigned level) {
  switch (level) {
    case 0: return "EM";
    case 1: return "AL";
    case 2: return "CR";
    case 3: return "ER";
    case 4: return "WA";
    case 5: return "NO";
    case 6: return "IN";
    default: return "TR";
  }
}

LoggingWrapper::LoggingWrapper()
    : _logSpi(nullptr),
      _traceSpi(nullptr),
      _traceV2Spi(nullptr),
      _level(6),
      _vekSecLevel(63),
      _vekLevel(63),
      _vekDebugLevel(63),
      _maxSize(5242880),
      _maxCount(5),
      _firstIndex(1),
      _lastIndex(999999),
      _file(nullptr),
      _applLogLevelCheckRequired(true),
      _traceEnabled(false),
      _closed(false) {
  const char* tmpDir = std::getenv("TMPDIR");
  _dirName = tmpDir != nullptr ? tmpDir : "/tmp";
  _baseName = _LOGGER_FNAME;
  _fname = _dirName + "/" + _baseName;
  checkLogDirectoryOrAbort(_dirName);

  if (const char* fname = std::getenv(_ZEL_LOGGING_FNAME)) {
    const int32_t idx = lastSlashEnd(fname);
    if (idx > 0) {
      _dirName.assign(fname, static_cast<size_t>(idx));
      if (char* real = realpath(_dirName.c_str(), nullptr)) {
        _dirName = real;
        std::free(real);
      }
      _baseName = fname + idx;
      _fname = fname;
    }
  }
  if (const char* value = std::getenv(_ZEL_LOGGING_LEVEL)) _level = parseEnvNumber(value);
  if (const char* value = std::getenv(_ZEL_LOGGING_FMAXCOUNT)) _maxCount = parseEnvNumber(value);
  if (const char* value = std::getenv(_ZEL_LOGGING_FMAXSIZE)) _maxSize = parseEnvNumber(value);
  if (std::getenv("TAV_ENV") != nullptr) _applLogLevelCheckRequired = false;
}

LoggingWrapper::~LoggingWrapper() {
  close();
  delete _lock;  // the pointer is deliberately left as it is
}

void LoggingWrapper::close() {
  if (isClosed()) return;
  _lock->lock();
  __atomic_store_n(&_logSpi, nullptr, __ATOMIC_RELAXED);
  _traceSpi = nullptr;
  _traceV2Spi = nullptr;
  close_log_file();
  __atomic_store_n(&_traceEnabled, false, __ATOMIC_RELAXED);
  __atomic_store_n(&_closed, true, __ATOMIC_RELAXED);
  syslog(kServiceLogPriority, "%s", "ZelLoggingWrapper service closed successfully");
  _lock->unlock();
}

void LoggingWrapper::start_logService() {
  syslog(kServiceLogPriority, "%s", "ZelLoggingWrapper service started successfully");
}

void LoggingWrapper::set_fname(const std::string& fname) {
  if (fname == _fname) return;
  _lock->lock();
  try {
    _fname = fname;
    close_log_file();
    open_log_file();
  } catch (...) {
    _lock->errUnlock();
    throw;
  }
  _lock->unlock();
}

void LoggingWrapper::set_log_spi(ZelMgmtSpiInterface_1* logSpi) {
  _lock->lock();
  __atomic_store_n(&_logSpi, logSpi, __ATOMIC_RELAXED);
  _lock->unlock();
}

void LoggingWrapper::open_log_file() {
  _file = std::fopen(_fname.c_str(), "a");
  if (_file == nullptr) std::perror("Failed to open log file!");
}

void LoggingWrapper::close_log_file() {
  if (_file == nullptr) return;
  if (std::fclose(_file) != 0) {
    const int error = errno;
    std::fprintf(stderr, "Failed to close log file. Errno: %d: %s\n", error, std::strerror(error));
    std::fflush(stderr);
  }
  _file = nullptr;
}

void LoggingWrapper::log_printf(const char* functionName, unsigned level, unsigned facility, const char* format,
                                ...) {
  va_list args;
  va_start(args, format);
  vlog_printf(functionName, level, facility, format, args);
  va_end(args);
}

void LoggingWrapper::composeFileRecord(char* record, size_t size, unsigned level, const char* functionName,
                                       const char* message) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  char stamp[kTimeSize];
  gTimeCache.format(stamp, kTimeSize, now);
  const std::string tag = _get_level_str(level);
  std::snprintf(record, size, "%s %2s %-25s %s", stamp, tag.c_str(), functionName, message);
}

void LoggingWrapper::writeRecordLine(const char* record) {
  if (_file != nullptr) {
    std::fputs(record, _file);
    std::fputc('\n', _file);
  } else {
    std::fprintf(stderr, "%s\n", record);
    std::fflush(stderr);
  }
}

void LoggingWrapper::vlog_printf(const char* functionName, unsigned level, unsigned facility, const char* format,
                                 va_list args) {
  // The caller's text depends on nothing shared, so it is formatted before
  // the lock is taken; the time stamp is read under the lock so that lines
  // of different threads stay in time order in the file.
  const bool raw = facility == kRawFacility;
  char message[kMessageSize];
  char record[kRecordSize];
  if (level <= kHighestLevel) {
    if (raw) {
      std::vsnprintf(record, sizeof(record), format, args);
    } else {
      std::vsnprintf(message, sizeof(message), format, args);
    }
  }

  ZelMgmtSpiLog_1* logSpi = nullptr;
  _lock->lock();
  try {
    if (isClosed()) {
      std::fprintf(stderr, "Logging after loggingWrapper has been closed! (:%s)\n", functionName);
      std::fflush(stderr);
      _lock->unlock();
      return;
    }
    if (level > kHighestLevel) {
      _lock->unlock();
      return;
    }
    logSpi = reinterpret_cast<ZelMgmtSpiLog_1*>(_logSpi);
    if (logSpi != nullptr) {
      close_log_file();  // switching from the file to the interface
      if (!raw) std::snprintf(record, sizeof(record), " %-25s %s", functionName, message);
    } else {
      if (_file == nullptr) open_log_file();
      if (!raw) composeFileRecord(record, sizeof(record), level, functionName, message);
      check_and_rotate_log_file();
      writeRecordLine(record);
    }
  } catch (...) {
    _lock->errUnlock();
    throw;
  }
  _lock->unlock();

  // The interface is called without the lock, so a slow or re-entrant
  // interface does not hold up other threads' file writes.
  if (logSpi != nullptr && logSpi->logWrite(1, level, facility, record) != 0) {
    std::fprintf(stderr, "Failed to write '%s' to log interface!\n", record);
    std::fflush(stderr);
  }
}

}  // namespace Zel
