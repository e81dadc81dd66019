// LoggingWrapper core: construction from the environment, sinks, records.
// Rotation lives in LoggingWrapperRotation.cpp, tracing in
// LoggingWrapperTrace.cpp.
#include <zel/LoggingWrapper.h>

#include <pthread.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>

#include <Poco/File.h>

#include "internal/LogFileNames.h"
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
static_assert(kTimeSize == internal::LocalTimeCache::kMaxStampLength + 1, "a stamp buffer holds the whole stamp");
const unsigned kRawFacility = 13;
const unsigned kHighestLevel = 6;
const size_t kFunctionWidth = 25;  // the function name's column in file records

// Wall-clock seconds broken into local time at most once per second; used
// only under LoggingWrapper::_lock.
internal::LocalTimeCache gTimeCache;

// A record composed in a buffer of `size` bytes. Every append is cut at the
// buffer's last byte, as snprintf cuts, so the text is byte for byte what
// snprintf(buffer, size, ...) gives for the same pieces.
class RecordText {
 public:
  RecordText(char* buffer, size_t size) : _begin(buffer), _end(buffer), _last(buffer + size - 1) {}
  // Appends `length` characters of text.
  void append(const char* text, size_t length) {
    const size_t room = static_cast<size_t>(_last - _end);
    if (length > room) length = room;
    std::memcpy(_end, text, length);
    _end += length;
  }
  // Appends count blanks.
  void pad(size_t count) {
    const size_t room = static_cast<size_t>(_last - _end);
    if (count > room) count = room;
    std::memset(_end, ' ', count);
    _end += count;
  }
  // "%s": up to the text's NUL, never reading past what still fits.
  void appendString(const char* text) {
    const size_t room = static_cast<size_t>(_last - _end);
    append(text, strnlen(text, room));
  }
  // "%-<width>s" (leftAligned) or "%<width>s". A null text prints as "(null)",
  // as the C library's printf does.
  void appendPadded(const char* text, size_t width, bool leftAligned) {
    if (text == nullptr) text = "(null)";
    const size_t length = std::strlen(text);
    const size_t blanks = length < width ? width - length : 0;
    if (!leftAligned) pad(blanks);
    append(text, length);
    if (leftAligned) pad(blanks);
  }
  void appendChar(char c) { append(&c, 1); }
  // NUL-terminates the text and returns its length.
  size_t finish() {
    *_end = '\0';
    return static_cast<size_t>(_end - _begin);
  }

 private:
  char* _begin;
  char* _end;
  char* _last;  // where the terminating NUL goes at the latest
};

// Writes "record\n" to a stream that only the caller, holding
// LoggingWrapper::_lock, uses: the lock already serialises every access to
// the wrapper's file, so the stream's own locking is skipped.
void writeLine(FILE* file, const char* record, size_t length) {
  fwrite_unlocked(record, 1, length, file);
  putc_unlocked('\n', file);
}

// How long a record writer keeps retrying a busy lock before it sleeps on
// it: about a few microseconds, longer than a record holds the lock.
const int kLockSpins = 200;

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield" ::: "memory");
#endif
}

// Takes LoggingWrapper::_lock for one record. A record holds the lock for
// about a microsecond (most of it the fstat of the rotation check), so a
// writer that finds it taken retries for a moment before sleeping: sleeping
// would put a futex wait and a futex wake-up, two system calls longer than
// the wait itself, on the path of both threads. The final lock() keeps the
// lock's error checking: a thread that already holds it still gets the
// exception, after the retries.
void lockForRecord(ZelThreadLock* lock) ZEL_ACQUIRE(lock) ZEL_NO_THREAD_SAFETY_ANALYSIS {
  pthread_mutex_t* mutex = lock->getMutex();
  for (int i = 0; i < kLockSpins; ++i) {
    if (pthread_mutex_trylock(mutex) == 0) return;
    cpuRelax();
  }
  lock->lock();
}

// The local file's stdio buffer. Records are never flushed one by one, and
// the rotation check sees only what has reached the file, so the live file
// may grow past the size limit by up to one buffer before it is rotated. A
// buffer larger than stdio's default (one file system block, usually 4 KiB)
// saves write system calls, so it is used when the limit is at least 64
// times its size (from 4 MiB, the default 5 MiB included): the overshoot
// then stays below 1/64 of the limit. Smaller limits keep stdio's default.
const size_t kLargeFileBuffer = 64 * 1024;
const uint64_t kLargeBufferMinLimit = 64 * kLargeFileBuffer;

// One large buffer per wrapper, made at its first open and reused by every
// later stream of that wrapper (a wrapper has at most one open at a time);
// freed when the wrapper is destroyed, after its file is closed. The
// registry is never destroyed: stdio flushes the streams still open at exit,
// after static objects are gone, and those streams use these buffers.
class FileBuffers {
 public:
  // The wrapper's buffer, or null when none can be had.
  static char* get(const LoggingWrapper* wrapper) noexcept {
    try {
      return lookUp(wrapper);
    } catch (...) {
      return nullptr;  // out of memory: stdio's default buffer will do
    }
  }
  static void release(const LoggingWrapper* wrapper) noexcept {
    FileBuffers& self = instance();
    std::lock_guard<std::mutex> guard(self._mutex);
    auto it = self._buffers.find(wrapper);
    if (it == self._buffers.end()) return;
    delete[] it->second;
    self._buffers.erase(it);
  }

 private:
  static char* lookUp(const LoggingWrapper* wrapper) {
    FileBuffers& self = instance();
    std::lock_guard<std::mutex> guard(self._mutex);
    char*& buffer = self._buffers[wrapper];
    if (buffer == nullptr) buffer = new (std::nothrow) char[kLargeFileBuffer];
    return buffer;
  }
  static FileBuffers& instance() {
    static FileBuffers* self = new FileBuffers();
    return *self;
  }
  std::mutex _mutex;
  std::unordered_map<const LoggingWrapper*, char*> _buffers;
};

// strtol of an environment value, truncated to 32 bits; no error check.
uint32_t parseEnvNumber(const char* value) { return static_cast<uint32_t>(std::strtol(value, nullptr, 10)); }

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

// Composes the local file's line "%s %2s %-25s %s" (time stamp, level tag,
// function name, message) into record, cut at size - 1 characters, and
// returns its length. Reads the wall clock: callers hold LoggingWrapper::_lock
// so that lines of different threads stay in time order.
size_t composeFileLine(char* record, size_t size, unsigned level, const char* functionName, const char* message) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  char stamp[internal::LocalTimeCache::kMaxStampLength];
  const size_t stampLength = gTimeCache.write(stamp, now);
  const std::string tag = _get_level_str(level);
  const size_t functionLength = functionName != nullptr ? std::strlen(functionName) : 0;
  if (size == kRecordSize && tag.size() == 2 && functionName != nullptr && functionLength <= kFunctionWidth) {
    // The usual record: everything before the message takes at most 59
    // characters, so only the message can reach the cut.
    char* out = record;
    std::memcpy(out, stamp, stampLength);
    out += stampLength;
    *out++ = ' ';
    std::memcpy(out, tag.data(), 2);
    out += 2;
    *out++ = ' ';
    std::memset(out, ' ', kFunctionWidth);
    std::memcpy(out, functionName, functionLength);
    out += kFunctionWidth;
    *out++ = ' ';
    const size_t messageLength = strnlen(message, static_cast<size_t>(record + kRecordSize - 1 - out));
    std::memcpy(out, message, messageLength);
    out += messageLength;
    *out = '\0';
    return static_cast<size_t>(out - record);
  }
  RecordText text(record, size);
  text.append(stamp, stampLength);
  text.appendChar(' ');
  text.appendPadded(tag.c_str(), 2, false);
  text.appendChar(' ');
  text.appendPadded(functionName, kFunctionWidth, true);
  text.appendChar(' ');
  text.appendString(message);
  return text.finish();
}

// Writes "record\n" to the open file, or to standard error (flushed) when
// there is none; a file stream that fails to write is reported and dropped
// (file becomes null). Callers hold LoggingWrapper::_lock.
void writeLineOrStderr(FILE*& file, const char* record, size_t length) {
  if (file != nullptr) {
    writeLine(file, record, length);
    if (!ferror_unlocked(file)) return;
    // The stream could not write (disk full, file size limit): it would
    // swallow every later record without a word. Say so, keep this record on
    // standard error, and drop the stream like a failed fstat does, so that
    // the next record opens the file again.
    const int writeError = errno;
    std::fprintf(stderr, "Failed to write log file. Errno: %d: %s\n", writeError, std::strerror(writeError));
    std::fprintf(stderr, "%s\n", record);
    std::fflush(stderr);
    if (std::fclose(file) != 0) {
      const int closeError = errno;
      std::fprintf(stderr, "Failed to close log file. Errno: %d: %s\n", closeError, std::strerror(closeError));
      std::fflush(stderr);
    }
    file = nullptr;
  } else {
    std::fprintf(stderr, "%s\n", record);
    std::fflush(stderr);
  }
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
    const int32_t idx = internal::filenameIndex(fname);
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
  // A stream still open here (reopened by set_fname after close) keeps its
  // buffer: stdio flushes it at exit.
  if (_file == nullptr) FileBuffers::release(this);
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
  if (_file == nullptr) {
    std::perror("Failed to open log file!");
    return;
  }
  if (static_cast<uint64_t>(load(_maxSize)) >= kLargeBufferMinLimit) {
    if (char* buffer = FileBuffers::get(this)) (void)std::setvbuf(_file, buffer, _IOFBF, kLargeFileBuffer);
  }
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
  (void)composeFileLine(record, size, level, functionName, message);
}

void LoggingWrapper::writeRecordLine(const char* record) { writeLineOrStderr(_file, record, std::strlen(record)); }

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
  lockForRecord(_lock);
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
      const size_t length =
          raw ? std::strlen(record) : composeFileLine(record, sizeof(record), level, functionName, message);
      check_and_rotate_log_file();
      writeLineOrStderr(_file, record, length);
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
