// LoggingWrapper.h - the process-wide logging service.
//
// Zel::LoggingWrapper is the one logging object of a process. It filters
// records by level, formats them, and writes them either to the log interface
// the framework hands over at run time (set_log_spi) or, until then, to a
// local text file that it rotates by size into numbered siblings
// (zel.log -> zel.log.1, zel.log.2, ...; a higher number is newer). Trace
// records go to a version "1" or "2" trace interface (set_trace_spi), or to
// the local file.
//
// Ownership: the singleton is created on first use by getInstance() and lives
// until the process ends; it owns its strings and the open file, never the
// framework's interfaces. Settings come from the environment, read once by the
// constructor: TMPDIR (log directory, default /tmp), ZEL_LOGGING_FNAME,
// ZEL_LOGGING_LEVEL (6), ZEL_LOGGING_FMAXSIZE (5242880), ZEL_LOGGING_FMAXCOUNT
// (5), TAV_ENV. The variable names are read through the writable globals
// below, so a host program may rename them before the first use.
//
// Threads: every thread may log. The class-wide error-checking lock _lock
// (created when the library is loaded) serialises the singleton's creation,
// sink switching, every record written to the file and every version 2 trace
// call; it is released before a log interface or a version 1 trace interface
// is called. It is not recursive: nothing running under it may log again on
// the same thread. The filters and the level setters take no lock; they use
// relaxed atomic accesses, so a filter may see a setter's value late.
//
// The local file may be shared by every process of the framework: records
// are buffered and written in whole records on an append-mode descriptor;
// rotation is serialised across processes by a lock on the log directory and
// a writer follows a live file that another process rotated (or a tool
// renamed or deleted) before it writes. Records at levels 0 to 2 are written
// before log_printf returns, the others once the buffer is full or its oldest
// record is a second old, and at flush(), close() and exit().
// ZEL_LOGGING_CRASH_FLUSH=1 also writes them on a fatal signal.
//
// Problems of the logging machinery itself go to standard error, never to the
// caller.
#ifndef ZEL_LOGGING_WRAPPER_H
#define ZEL_LOGGING_WRAPPER_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <zel/ZelExport.h>
#include <zel/ZelMgmtSpiInterface.h>
#include <zel/ZelMwSpiTrace.h>
#include <zel/ZelThreadAnnotations.h>
#include <zel/ZelThreadLock.h>

struct timeval;

namespace Zel {

namespace internal {
class LogFile;
// Writes the buffered records of every wrapper; run by exit().
void flushLogFilesAtExit();
// Makes every wrapper's file usable in the child of fork(); run by the
// library's fork handler in the child.
void resetLogFilesInForkedChild();
}  // namespace internal

// Names of the environment variables and the default file name, read by the
// constructor. Writable so that a host program can change them before the
// singleton is first created.
extern ZEL_API const char* _LOGGER_FNAME;          // "zel.log"
extern ZEL_API const char* _ZEL_LOGGING_LEVEL;     // "ZEL_LOGGING_LEVEL"
extern ZEL_API const char* _ZEL_LOGGING_FNAME;     // "ZEL_LOGGING_FNAME"
extern ZEL_API const char* _ZEL_LOGGING_FMAXSIZE;  // "ZEL_LOGGING_FMAXSIZE"
extern ZEL_API const char* _ZEL_LOGGING_FMAXCOUNT; // "ZEL_LOGGING_FMAXCOUNT"

// Handles of the framework's trace subsystems, filled when a version 2 trace
// interface is set (zero until then). Components trace on Trace::Common.
namespace Trace {
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Common;           // "ZelCommon"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Core;             // "ZelCore"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Ac;               // "ZelAc"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T CmRouter;         // "ZelCmRouter"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T EventRouter;      // "ZelEventRouter"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T ModelRepository;  // "ZelModelRepository"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T ThreadContext;    // "ZelThreadContext"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Transaction;      // "ZelTransaction"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Session;          // "ZelSession"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Svs;              // "ZelSvs"
extern ZEL_API ZelMwSpiTraceSubsystemHandle_2T Other;            // "ZelOther"
}  // namespace Trace

// Two-letter tag of a syslog level: 0 "EM", 1 "AL", 2 "CR", 3 "ER", 4 "WA",
// 5 "NO", 6 "IN", anything else "TR".
ZEL_API std::string _get_level_str(unsigned level);

// Writes the local time stamp "YYYY-MM-DDThh:mm:ss.fff+hh:mm" (29 characters)
// into buffer, cut to size, and returns buffer. The fraction is the first
// three digits of the microsecond count as a plain number: 5123 us -> ".512",
// 42 us -> ".42", 999999 us -> ".999". If local time cannot be computed the
// stamp reads "1900-01-00T00:00:00.<fraction>+00:00".
ZEL_API char* fill_in_time_str(char* buffer, int size);

// Copies the last component of path into destination: at most size - 1
// characters and a NUL. Leading blanks are skipped, trailing blanks and
// slashes ignored; blanks inside a component are kept.
//   "/a/b/file.ext" -> "file.ext"      "dir/sub/" -> "sub"
//   "  name"        -> "name"          "x y/a b  " -> "a b"
//   "//"            -> ""              "/abcdef", size 4 -> "abc"
// Returns destination, or nullptr when path or destination is null or size is 0.
ZEL_API char* path_tail(char* destination, const char* path, uint32_t size);

class ZEL_API LoggingWrapper {
 public:
  // A numbered log file found in the log directory: (index, absolute path).
  typedef std::pair<int32_t, std::string> FileMatch;
  typedef std::vector<FileMatch> FileMatches;  // numbered files, sorted by (index, path)

  // The singleton; null until the first getInstance(). Read with acquire
  // semantics so a thread that sees it also sees the constructed object.
  static LoggingWrapper* theInstance;
  // The lock of the whole logging subsystem, created when the library loads.
  static ZelThreadLock* _lock;

  // Returns the singleton, creating it from the environment on first use
  // (double-checked under _lock). Aborts the process if the log directory
  // is missing or not writable.
  static LoggingWrapper* getInstance() {
    LoggingWrapper* instance = __atomic_load_n(&theInstance, __ATOMIC_ACQUIRE);
    if (instance != nullptr) return instance;
    _lock->lock();
    instance = __atomic_load_n(&theInstance, __ATOMIC_RELAXED);
    if (instance == nullptr) {
      try {
        instance = new LoggingWrapper();
      } catch (...) {
        _lock->errUnlock();
        throw;
      }
      __atomic_store_n(&theInstance, instance, __ATOMIC_RELEASE);
    }
    _lock->unlock();
    return instance;
  }

  // Reads the environment (see above). Prefer getInstance(); a wrapper made
  // directly shares _lock with the singleton.
  LoggingWrapper();
  // close(), then destroys the object _lock points to (the pointer is not
  // reset). Only for the end of the process.
  ~LoggingWrapper();

  LoggingWrapper(const LoggingWrapper&) = delete;
  LoggingWrapper& operator=(const LoggingWrapper&) = delete;

  // Ends logging for good: drops the interfaces, closes the file and writes
  // "ZelLoggingWrapper service closed successfully" to the system log.
  // Later records only produce a complaint on standard error.
  void close();
  // Writes "ZelLoggingWrapper service started successfully" to the system log.
  void start_logService();

  // --- configuration ---------------------------------------------------
  const std::string& get_fname() const { return _fname; }  // full path of the local log file
  // Switches the local file to a new path (close and reopen, appending).
  void set_fname(const std::string& fname);
  unsigned get_level() const { return load(_level); }         // highest level written (6)
  void set_level(unsigned level) { store(_level, level); }     // sets the highest level written
  unsigned get_vek_level() const { return load(_vekLevel); }   // levels bound for the log interface (63)
  void set_vek_level(unsigned level) { store(_vekLevel, level); }  // sets that mask
  unsigned get_vekSec_level() const { return load(_vekSecLevel); }  // security-log mask (63), only kept
  void set_vekSec_level(unsigned level) { store(_vekSecLevel, level); }  // sets that mask
  unsigned get_vekDebug_level() const { return load(_vekDebugLevel); }  // debug mask (63); bit 64 admits debug
  void set_vekDebug_level(unsigned level) { store(_vekDebugLevel, level); }  // sets that mask
  void set_max_size(unsigned size) { store(_maxSize, size); }  // size in bytes past which the file rotates
  unsigned get_max_size() const { return load(_maxSize); }     // that size (5242880)
  // Number of numbered files kept by the rotation.
  unsigned get_max_count() const { return _maxCount; }
  // True unless TAV_ENV is set; while true only the level decides, never the interface masks.
  bool isApplLogLevelCheckRequired() const { return _applLogLevelCheckRequired; }
  // Sets the framework's log interface (a ZelMgmtSpiLog_1); nullptr returns
  // to the local file.
  void set_log_spi(ZelMgmtSpiInterface_1* logSpi);

  // --- filters (lock-free; callers test them before formatting) ---------
  // True when a log interface is set, TAV_ENV is set and the interface mask
  // (get_vek_level()) shares a bit with mask; otherwise whether the overall
  // level admits `level`.
  bool isSaLoggingAllowed(unsigned mask, unsigned level) const {
    if (__atomic_load_n(&_logSpi, __ATOMIC_RELAXED) != nullptr && !_applLogLevelCheckRequired &&
        (load(_vekLevel) & mask) != 0)
      return true;
    return load(_level) >= level;
  }
  // True when a trace interface is set, TAV_ENV is set and the debug bit 64
  // of the debug mask (get_vekDebug_level()) is on; otherwise whether the
  // overall level admits `level` (callers pass 8).
  bool isDebugLoggingAllowed(unsigned level) const {
    if (__atomic_load_n(&_traceEnabled, __ATOMIC_RELAXED) && !_applLogLevelCheckRequired &&
        (load(_vekDebugLevel) & 64u) != 0)
      return true;
    return load(_level) >= level;
  }

  // --- writing ----------------------------------------------------------
  // Writes one record. Levels above 6 are dropped. Facility 13 is a raw
  // record (the formatted text alone); otherwise the local file gets
  // "<stamp> <tag> <function padded to 25> <message>" and the log interface
  // " <function padded to 25> <message>". The message is cut at 799
  // characters, the whole record at 999.
  // The message is written as the caller formats it, control characters
  // included: a line break in it starts what reads as a further record. Pass
  // text you do not control through Zel::LogEscape::escape (LogEscape.h)
  // first, as the zel tool does.
  void log_printf(const char* functionName, unsigned level, unsigned facility, const char* format, ...)
      __attribute__((format(printf, 5, 6)));
  // log_printf with the arguments as a va_list.
  void vlog_printf(const char* functionName, unsigned level, unsigned facility, const char* format, va_list args)
      __attribute__((format(printf, 5, 0)));

  // Writes every buffered record of the local file now (under _lock). Records
  // are buffered and written in whole records: at once for levels 0 to 2,
  // otherwise when the buffer is full or its oldest record is a second old,
  // and at flush(), close() and the end of the process.
  //
  // Returns true when every record sent to the local file since the
  // previous flush() is in the file now; false when some went to standard
  // error instead (the file could not be opened), were dropped or are still
  // buffered (the file cannot take them: a full disk, a file-size limit).
  // Records sent to a framework interface do not count.
  bool flush();

  // Opens the log file (get_fname()) for appending; on failure
  // perror("Failed to open log file!").
  void open_log_file() ZEL_REQUIRES(_lock);
  // Closes the local file if open; a failed close is reported on stderr.
  void close_log_file() ZEL_REQUIRES(_lock);

  // --- rotation (callers hold _lock) ------------------------------------
  // dir + "/" + name, no normalisation: "zel.log.3" -> "/tmp/zel.log.3".
  std::string getAbsFilename(const std::string& name) const;
  // dir/base.index: 7 -> "/tmp/zel.log.7", -3 -> "/tmp/zel.log.-3".
  std::string makeLogFilename(int32_t index) const;
  // Numbered files of the log directory, sorted by (index, path). False only
  // when the directory cannot be opened.
  bool getFileMatches(FileMatches& matches) const;
  // Renames the files to consecutive numbers from the first index.
  void renumberFiles(FileMatches& matches);
  // Deletes the oldest files until at most the count limit remain.
  void removeOldLogFiles(FileMatches& matches);
  // One rotation step; the live file must be closed.
  void rotateLogs() ZEL_REQUIRES(_lock);
  // Rotates the live file when it has grown past the size limit.
  void check_and_rotate_log_file() ZEL_REQUIRES(_lock);

  // --- tracing ----------------------------------------------------------
  // Accepts a version "1" or "2" trace interface (a ZelMwSpiTrace_1 or _2);
  // version 2 registers the eleven subsystems into Zel::Trace. nullptr clears.
  void set_trace_spi(ZelMgmtSpiInterface_1* traceSpi);
  // Passes format and arguments unformatted to a version 2 interface (called
  // under _lock); dropped silently without one.
  void trace_v2_printf(ZelMwSpiTraceSubsystemHandle_2T handle, ZelMwSpiTraceLevelT level, const char* file,
                       const char* function, uint32_t line, const char* format, ...)
      __attribute__((format(printf, 7, 8)));
  // trace_v2_printf with the arguments as a va_list.
  void vtrace_v2_printf(ZelMwSpiTraceSubsystemHandle_2T handle, ZelMwSpiTraceLevelT level, const char* file,
                        const char* function, uint32_t line, const char* format, va_list args)
      __attribute__((format(printf, 7, 0)));
  // A debug record (level 8 only): to a version 1 interface as
  // "<file tail padded to 24>:<line padded to 5> - <function padded to 25> <message>",
  // or without any trace interface to the local file with the time stamp and
  // tag in front. Dropped while a version 2 interface is set.
  void trace_printf(const char* file, const char* function, uint32_t line, uint32_t level, uint32_t kind,
                    const char* format, ...) __attribute__((format(printf, 7, 8)));
  // trace_printf with the arguments as a va_list.
  void vtrace_printf(const char* file, const char* function, uint32_t line, uint32_t level, uint32_t kind,
                     const char* format, va_list args) __attribute__((format(printf, 7, 0)));

 private:
  friend void internal::flushLogFilesAtExit();
  friend void internal::resetLogFilesInForkedChild();
  // flush() for the exit handler, which already holds _lock.
  void flushForExit() ZEL_REQUIRES(_lock);

  static unsigned load(const uint32_t& value) { return __atomic_load_n(&value, __ATOMIC_RELAXED); }
  static void store(uint32_t& value, unsigned v) { __atomic_store_n(&value, v, __ATOMIC_RELAXED); }

  bool isClosed() const { return __atomic_load_n(&_closed, __ATOMIC_RELAXED); }
  // Hands a composed file line to the local file (its buffer and flush
  // policy), or to standard error when no file is open; under _lock.
  void writeFileLine(const char* line, size_t length, bool urgent, const struct timeval& now) ZEL_REQUIRES(_lock);

  ZelMgmtSpiInterface_1* _logSpi;     // written under _lock; read lock-free by the filter
  ZelMwSpiTrace_1* _traceSpi;         // guarded by _lock
  ZelMwSpiTrace_2* _traceV2Spi;       // guarded by _lock
  uint32_t _level;                    // relaxed atomic
  uint32_t _vekSecLevel;              // relaxed atomic
  uint32_t _vekLevel;                 // relaxed atomic
  uint32_t _vekDebugLevel;            // relaxed atomic
  uint32_t _maxSize;                  // relaxed atomic
  uint32_t _maxCount;                 // set by the constructor
  std::string _fname;                 // guarded by _lock after construction
  std::string _dirName;               // set by the constructor
  std::string _baseName;              // set by the constructor
  int32_t _firstIndex;
  int32_t _lastIndex;
  // The local file: descriptor (open or not), record buffer, time-stamp
  // cache, rotation coordination and flush policy. Made by the constructor,
  // owned by the wrapper.
  internal::LogFile* _file ZEL_PT_GUARDED_BY(_lock);
  bool _applLogLevelCheckRequired;    // set by the constructor
  bool _traceEnabled;                 // written under _lock; read lock-free by the filter
  bool _closed;                       // written under _lock; read lock-free
};

}  // namespace Zel

// ZEL_LOG_ERROR(format, ...) and the other one-line record macros, and the
// Zel::LogLevel enumeration.
#include <zel/LogMacros.h>

#endif  // ZEL_LOGGING_WRAPPER_H
