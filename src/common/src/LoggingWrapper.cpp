// LoggingWrapper core: construction from the environment, sinks, records.
// Rotation lives in LoggingWrapperRotation.cpp, tracing in
// LoggingWrapperTrace.cpp.
#include <zel/LoggingWrapper.h>

#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <Poco/File.h>

#include "internal/LogFile.h"
#include "internal/LogFileNames.h"
#include "internal/ThreadLockGuard.h"
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
const unsigned kRawFacility = 13;
const unsigned kHighestLevel = 6;
const unsigned kUrgentLevel = 2;  // EM, AL and CR records are written at once

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

// Wrappers whose files are written at the end of the process (and made
// usable again in the child of a fork). The registry is never destroyed: the
// exit handler runs after static objects are gone.
struct ExitRegistry {
  std::mutex mutex;
  std::vector<LoggingWrapper*> wrappers;
  std::atomic<bool> lockDestroyed{false};  // a wrapper was destroyed, and _lock with it
};
ExitRegistry& exitRegistry() {
  static ExitRegistry* registry = new ExitRegistry();
  return *registry;
}

}  // namespace

// At exit, every wrapper's buffered records are written, as stdio did for
// its streams. A thread that keeps the logging lock for long (a version 2
// trace interface blocked under it) does not hold up the exit for good.
void internal::flushLogFilesAtExit() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  ExitRegistry& registry = exitRegistry();
  std::lock_guard<std::mutex> guard(registry.mutex);
  if (registry.wrappers.empty()) return;
  if (registry.lockDestroyed) return;
  pthread_mutex_t* mutex = LoggingWrapper::_lock->getMutex();
  bool locked = false;
  for (int i = 0; i < 1000 && !locked; ++i) {
    locked = pthread_mutex_trylock(mutex) == 0;
    if (!locked) usleep(1000);
  }
  if (!locked) return;
  for (LoggingWrapper* wrapper : registry.wrappers) wrapper->flushForExit();
  pthread_mutex_unlock(mutex);
}

void internal::resetLogFilesInForkedChild() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  // Only the forking thread exists here; the fork handler holds the
  // registry's mutex and the logging lock.
  for (LoggingWrapper* wrapper : exitRegistry().wrappers) wrapper->_file->afterForkInChild();
}

namespace {

void flushAtExit() { internal::flushLogFilesAtExit(); }

// fork() from a threaded process: another thread may be in the middle of a
// record, holding LoggingWrapper::_lock (and perhaps the directory lock).
// Only the forking thread goes on in the child, so a lock copied while held
// would stay held there for ever. The handlers take the logging lock (and
// the registry's mutex, which the constructor takes under it) around the
// fork, so the child starts with no record half written; in the child the
// logging lock is made anew (an error-checking mutex records its owner's
// thread id, which the forking thread no longer has) and every wrapper's file
// drops its parent's state (LogFile::afterForkInChild).
enum class ForkLock { NotTaken, Taken, HeldByCaller };
ForkLock gForkLock = ForkLock::NotTaken;

bool loggingLockExists() {
  return LoggingWrapper::_lock != nullptr && !exitRegistry().lockDestroyed.load(std::memory_order_acquire);
}

void prepareFork() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  ForkLock state = ForkLock::NotTaken;
  if (loggingLockExists()) {
    const int rc = pthread_mutex_lock(LoggingWrapper::_lock->getMutex());
    // EDEADLK: the forking thread holds it itself (a version 2 trace
    // interface that forks); it stays held in both processes.
    if (rc == 0) state = ForkLock::Taken;
    if (rc == EDEADLK) state = ForkLock::HeldByCaller;
  }
  exitRegistry().mutex.lock();
  gForkLock = state;  // written and read only while the registry's mutex is held
}

void parentAfterFork() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  const ForkLock state = gForkLock;
  exitRegistry().mutex.unlock();
  if (state == ForkLock::Taken) pthread_mutex_unlock(LoggingWrapper::_lock->getMutex());
}

void childAfterFork() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  const ForkLock state = gForkLock;
  internal::resetLogFilesInForkedChild();
  exitRegistry().mutex.unlock();
  if (state == ForkLock::NotTaken) return;
  pthread_mutex_t* mutex = LoggingWrapper::_lock->getMutex();
  // Fails (EPERM: the owner's thread id is the parent's), but tells thread
  // checkers that the lock is free; the mutex is then made anew.
  (void)pthread_mutex_unlock(mutex);
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return;
  (void)pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  (void)pthread_mutex_init(mutex, &attributes);
  (void)pthread_mutexattr_destroy(&attributes);
  // Held by the caller before the fork: held by it in the child too, under
  // its new thread id, so that its own unlock works.
  if (state == ForkLock::HeldByCaller) (void)pthread_mutex_lock(mutex);
}

struct ForkHandlers {
  ForkHandlers() { (void)pthread_atfork(&prepareFork, &parentAfterFork, &childAfterFork); }
};
// Registered when the library is loaded, right after _lock is made.
ForkHandlers gForkHandlers;

void registerForExit(LoggingWrapper* wrapper) {
  ExitRegistry& registry = exitRegistry();
  std::lock_guard<std::mutex> guard(registry.mutex);
  static bool registered = std::atexit(&flushAtExit) == 0;
  (void)registered;
  registry.wrappers.push_back(wrapper);
}

void unregisterForExit(LoggingWrapper* wrapper) {
  ExitRegistry& registry = exitRegistry();
  std::lock_guard<std::mutex> guard(registry.mutex);
  registry.wrappers.erase(std::remove(registry.wrappers.begin(), registry.wrappers.end(), wrapper),
                          registry.wrappers.end());
  registry.lockDestroyed.store(true, std::memory_order_release);
}

// Opt-in crash flush (ZEL_LOGGING_CRASH_FLUSH=1): the fatal signals write the
// pending records of the file set here, with write(2) only, then the
// previous disposition is put back and the signal raised again.
std::atomic<internal::LogFile*> gCrashFile{nullptr};
const int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
struct sigaction gPreviousActions[sizeof(kCrashSignals) / sizeof(kCrashSignals[0])];

void crashHandler(int signal) {
  const int savedErrno = errno;
  if (internal::LogFile* file = gCrashFile.load(std::memory_order_acquire)) file->writeForCrash();
  for (size_t i = 0; i < sizeof(kCrashSignals) / sizeof(kCrashSignals[0]); ++i) {
    if (kCrashSignals[i] == signal) (void)sigaction(signal, &gPreviousActions[i], nullptr);
  }
  errno = savedErrno;
  // Blocked while this handler runs: delivered, with the previous
  // disposition, as soon as it returns.
  (void)raise(signal);
}

void installCrashFlush(internal::LogFile* file) {
  static std::once_flag once;
  gCrashFile.store(file, std::memory_order_release);
  std::call_once(once, [] {
    for (size_t i = 0; i < sizeof(kCrashSignals) / sizeof(kCrashSignals[0]); ++i) {
      struct sigaction action;
      std::memset(&action, 0, sizeof(action));
      action.sa_handler = &crashHandler;
      sigemptyset(&action.sa_mask);
      action.sa_flags = SA_RESTART;
      (void)sigaction(kCrashSignals[i], &action, &gPreviousActions[i]);
    }
  });
}

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
      _file(new internal::LogFile()),
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
  const char* crashFlush = std::getenv("ZEL_LOGGING_CRASH_FLUSH");
  if (crashFlush != nullptr && std::strcmp(crashFlush, "1") == 0) installCrashFlush(_file);
  registerForExit(this);
}

LoggingWrapper::~LoggingWrapper() {
  close();
  unregisterForExit(this);
  internal::LogFile* expected = _file;
  gCrashFile.compare_exchange_strong(expected, nullptr);
  // A file still open here (reopened by set_fname after close) is written
  // and closed now.
  delete _file;
  delete _lock;  // the pointer is deliberately left as it is
}

void LoggingWrapper::close() {
  if (isClosed()) return;
  internal::ThreadLockGuard guard(_lock);
  __atomic_store_n(&_logSpi, nullptr, __ATOMIC_RELAXED);
  _traceSpi = nullptr;
  _traceV2Spi = nullptr;
  close_log_file();
  __atomic_store_n(&_traceEnabled, false, __ATOMIC_RELAXED);
  __atomic_store_n(&_closed, true, __ATOMIC_RELAXED);
  syslog(kServiceLogPriority, "%s", "ZelLoggingWrapper service closed successfully");
}

void LoggingWrapper::start_logService() {
  syslog(kServiceLogPriority, "%s", "ZelLoggingWrapper service started successfully");
}

void LoggingWrapper::set_fname(const std::string& fname) {
  if (fname == _fname) return;
  internal::ThreadLockGuard guard(_lock);
  _fname = fname;
  close_log_file();
  open_log_file();
}

void LoggingWrapper::set_log_spi(ZelMgmtSpiInterface_1* logSpi) {
  internal::ThreadLockGuard guard(_lock);
  __atomic_store_n(&_logSpi, logSpi, __ATOMIC_RELAXED);
}

bool LoggingWrapper::flush() {
  internal::ThreadLockGuard guard(_lock);
  if (_file->isOpen()) (void)_file->flush();
  return _file->takeAllWritten();
}

void LoggingWrapper::flushForExit() {
  if (_file->isOpen()) (void)_file->flush();
}

void LoggingWrapper::open_log_file() {
  const int error = _file->open(_fname, _dirName, load(_maxSize));
  if (error != 0) {
    errno = error;
    std::perror("Failed to open log file!");
  }
}

void LoggingWrapper::close_log_file() {
  if (!_file->isOpen()) return;
  const int error = _file->close();
  if (error != 0) {
    std::fprintf(stderr, "Failed to close log file. Errno: %d: %s\n", error, std::strerror(error));
    std::fflush(stderr);
  }
}

void LoggingWrapper::log_printf(const char* functionName, unsigned level, unsigned facility, const char* format,
                                ...) {
  va_list args;
  va_start(args, format);
  vlog_printf(functionName, level, facility, format, args);
  va_end(args);
}

void LoggingWrapper::writeFileLine(const char* line, size_t length, bool urgent, const struct timeval& now) {
  if (_file->isOpen()) {
    _file->append(line, length, urgent, now);
  } else {
    _file->writeToStderr(line, length);
  }
}

void LoggingWrapper::vlog_printf(const char* functionName, unsigned level, unsigned facility, const char* format,
                                 va_list args) {
  // The caller's text depends on nothing shared, so it is formatted before
  // the lock is taken; the time stamp is read under the lock so that lines
  // of different threads stay in time order in the file.
  const bool raw = facility == kRawFacility;
  char message[internal::kMessageSize];
  char record[internal::kRecordSize];
  if (level <= kHighestLevel) {
    if (raw) {
      std::vsnprintf(record, sizeof(record), format, args);
    } else {
      std::vsnprintf(message, sizeof(message), format, args);
    }
  }

  ZelMgmtSpiLog_1* logSpi = nullptr;
  lockForRecord(_lock);
  {
    internal::ThreadLockGuard guard(_lock, internal::ThreadLockGuard::Adopt());
    if (isClosed()) {
      std::fprintf(stderr, "Logging after loggingWrapper has been closed! (:%s)\n", functionName);
      std::fflush(stderr);
      return;
    }
    if (level > kHighestLevel) return;
    logSpi = reinterpret_cast<ZelMgmtSpiLog_1*>(_logSpi);
    if (logSpi != nullptr) {
      close_log_file();  // switching from the file to the interface
      if (!raw) std::snprintf(record, sizeof(record), " %-25s %s", functionName, message);
    } else {
      if (!_file->isOpen()) open_log_file();
      struct timeval now;
      gettimeofday(&now, nullptr);
      size_t length;
      if (raw) {
        length = std::strlen(record);
      } else {
        char stamp[internal::LocalTimeCache::kMaxStampLength];
        const size_t stampLength = _file->stamp(stamp, now);
        length = internal::composeLine(record, sizeof(record), stamp, stampLength, _get_level_str(level).c_str(),
                                       nullptr, 0, functionName, message);
      }
      check_and_rotate_log_file();
      writeFileLine(record, length, level <= kUrgentLevel, now);
    }
  }

  // The interface is called without the lock, so a slow or re-entrant
  // interface does not hold up other threads' file writes.
  if (logSpi != nullptr && logSpi->logWrite(1, level, facility, record) != 0) {
    std::fprintf(stderr, "Failed to write '%s' to log interface!\n", record);
    std::fflush(stderr);
  }
}

}  // namespace Zel
