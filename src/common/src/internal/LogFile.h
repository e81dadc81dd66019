// LogFile.h - the local log file that several processes may share.
//
// What it is for: the logging wrapper's local file as one unit - the
// descriptor, the record buffer, the time-stamp cache, the identity checks
// that keep a process writing into the live file, the directory lock that
// coordinates rotation with the other processes of the same directory, and
// the flush policy. The rotation steps themselves (which numbered slot the
// file goes to) stay with LoggingWrapper; this unit only tells it when it may
// rotate and whether another process already has.
//
// Why it is shaped like this: every process of the framework may append to
// the same file. A write therefore carries whole records only and goes to a
// descriptor opened with O_APPEND, so the kernel never splices another
// process's record into one of ours. Before the buffer is written the
// writer checks, under the directory lock held shared, that its descriptor
// is still the live file (another process may have rotated it away, or a
// tool renamed or deleted it) and reopens the live path if not. Rotation
// holds the same lock exclusively, so no buffer write lands in a file while
// it is being renamed. The lock is flock(2) on the log directory itself: no
// lock file that another user could pre-create, and a lock held for good by
// somebody else only delays a writer by a bounded time, after which it goes
// on uncoordinated and says so once on standard error.
//
// Flush policy: records at level 0 to 2 are written at once together with
// everything before them; buffered records are written no later than the
// first record made one second or more after the oldest of them; flush(),
// close() and the end of the process write everything. A write that fails
// (disk full, file-size limit) keeps the records buffered while there is
// room, counts and drops the rest, says so once on standard error, and
// writes one record with the count when writing works again. After a short
// write that ended inside a record, the next write starts on a fresh line.
//
// Ownership: owns its descriptor, the directory descriptor and the buffer.
// Thread safety: none of its own; the logging wrapper calls it only under
// LoggingWrapper::_lock. writeForCrash() is the one exception: it may run in
// a signal handler at any moment and uses async-signal-safe calls only.
#ifndef ZEL_INTERNAL_LOG_FILE_H
#define ZEL_INTERNAL_LOG_FILE_H

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "internal/TimeStamp.h"

namespace Zel {
namespace internal {

// Size of a record line without its newline, at most (the record buffer of
// 1000 bytes less its NUL).
constexpr size_t kRecordSize = 1000;
constexpr size_t kMessageSize = 800;

// The one composer of local-file lines:
//   "<stamp> <tag, right-aligned in 2> <function, left-aligned in 25> <message>"
// and, when `tail` is not null (trace records), with the source location
// "<tail, left-aligned in 24>:<line, left-aligned in 5> - " before the
// function. Cut at size - 1 characters like snprintf; NUL-terminated; returns
// the length. A null function prints as "(null)".
size_t composeLine(char* record, size_t size, const char* stamp, size_t stampLength, const char* tag,
                   const char* tail, int line, const char* function, const char* message);

// Identity of a file: device and inode.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool valid = false;
  bool operator==(const FileIdentity& other) const {
    return valid && other.valid && device == other.device && inode == other.inode;
  }
};

class LogFile {
 public:
  // Record buffers: stdio's usual block for small size limits, 64 KiB from a
  // limit of 4 MiB on, so that a rotated file overshoots its limit by less
  // than 1/64.
  static constexpr size_t kSmallBuffer = 4096;
  static constexpr size_t kLargeBuffer = 64 * 1024;
  static constexpr uint64_t kLargeBufferMinLimit = 64 * kLargeBuffer;
  // How long a writer waits for the directory lock before it goes on
  // without it.
  static constexpr long kLockWaitMicroseconds = 100 * 1000;
  // After waiting in vain, how long a writer only tries the lock without
  // waiting for it.
  static constexpr long kGiveUpMicroseconds = 10 * 1000 * 1000;
  // How long the lock must have stayed out of reach before a rotation goes
  // on without it. Until then a rotation whose lock is busy is put off to a
  // later record: the file grows a little past its limit, and no record is
  // put at risk by two processes rotating at once because one of them was
  // merely slow (descheduled on a loaded machine) while it held the lock.
  static constexpr long kRotateUncoordinatedAfterMicroseconds = 10 * 1000 * 1000;

  LogFile();
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // Opens `path` for appending (created with mode 0666 less the umask),
  // close-on-exec, without blocking; it must be a regular file. In a sticky
  // world-writable directory a symlink or other non-regular entry is
  // followed only when it belongs to this process's user or to root.
  // `lockDirectory` is the directory whose flock coordinates the writers;
  // `sizeLimit` picks the buffer size. Returns 0, or the errno of the
  // failure (the descriptor then stays closed).
  int open(const std::string& path, const std::string& lockDirectory, uint64_t sizeLimit);
  bool isOpen() const { return _fd.load(std::memory_order_relaxed) >= 0; }
  int descriptor() const { return _fd.load(std::memory_order_relaxed); }
  // Writes what is buffered (see flush) and closes. Returns 0, or the errno
  // of a failed close; the descriptor is closed either way.
  int close();
  // After the size check's fstat failed: writes the buffer to the descriptor
  // as it is, whatever becomes of it, drops it, and closes. Returns 0 or the
  // errno of the close.
  int closeAfterStatFailure();

  // Appends one line (without newline; at most kRecordSize - 1 characters)
  // and applies the flush policy. `urgent`: write before returning.
  void append(const char* line, size_t length, bool urgent, const struct timeval& now);
  // Writes the buffer: checks under the shared directory lock that the
  // descriptor is still the live file and reopens the live path if not.
  // True when nothing is left buffered.
  bool flush();

  // The time stamp of `now` (29 characters at most, no NUL); returns its length.
  size_t stamp(char* out, const struct timeval& now) { return _timeCache.write(out, now); }

  // --- rotation coordination ------------------------------------------
  // Holds the directory lock exclusively for a rotation; released by the
  // destructor. mayRotate() is false while another process holds the lock
  // (for less than kRotateUncoordinatedAfterMicroseconds so far): the
  // rotation is then put off, not run uncoordinated.
  class RotationLock {
   public:
    explicit RotationLock(LogFile& file);
    ~RotationLock();
    RotationLock(const RotationLock&) = delete;
    RotationLock& operator=(const RotationLock&) = delete;
    bool mayRotate() const { return _mayRotate; }

   private:
    LogFile& _file;
    bool _locked;
    bool _mayRotate;
  };
  // True when the live path names an existing file other than the one this
  // descriptor has open: another process rotated it (or a tool replaced it).
  bool replacedAtPath() const;
  // Closes the descriptor and opens the live path again, keeping the buffer.
  // Returns 0 or the errno of the failed open.
  int reopen();
  // Notes the file at `path` as the one this process is about to rename
  // away, so that the reuse rule of the rotation knows its own files.
  void noteRotated(const std::string& path);
  // Whether the newest numbered file at `path` may be reused by the
  // rotation: it was made by this process's own rotation, it predates this
  // file object, or it cannot be examined. A numbered file another process
  // rotated meanwhile is never written over.
  bool mayReuse(const std::string& path) const;

  // --- end of the process -----------------------------------------------
  // Writes the pending records with write(2) only; for fatal-signal
  // handlers. Skips the buffer while a regular write of it is under way.
  void writeForCrash();

  // Writes one line to standard error in place of the file (no file could
  // be opened) and counts it as a record the file did not get.
  void writeToStderr(const char* line, size_t length);
  // True when every record given to this file since the previous call is in
  // the file: none went to standard error, none was dropped, none is still
  // buffered. Starts the next count.
  bool takeAllWritten();

  // Records counted as dropped and not yet reported in the file.
  uint64_t droppedRecords() const { return _dropped; }
  bool writeFailing() const { return _failing; }

 private:
  enum class LockState { None, Shared, Exclusive };
  // Locked: taken. Busy: another process holds it (past the bounded wait,
  // or within the give-up window). Unavailable: the directory cannot be
  // locked at all (not readable, no flock on its file system).
  enum class LockResult { Locked, Busy, Unavailable };
  // Takes the directory lock (LOCK_SH or LOCK_EX) with a bounded wait.
  LockResult lockDirectory(int operation);
  void unlockDirectory();
  int openDescriptor();
  FileIdentity identityOfDescriptor() const;
  // Writes the buffer (and the dropped-records notice) to the descriptor.
  bool writeBuffer();
  // Sends the buffer to standard error (no file could be opened) and empties it.
  void bufferToStderr();
  void enterFailing(int error);
  // In a child of fork(), forgets the records buffered by the parent.
  void dropInheritedRecords();

  std::atomic<int> _fd;
  int _dirFd;
  std::string _path;
  std::string _lockDirectory;
  char* _buffer;                     // kLargeBuffer bytes, made at the first open
  size_t _capacity;                  // bytes of _buffer in use as the record buffer
  std::atomic<size_t> _length;       // bytes of whole records buffered
  std::atomic<bool> _writing;        // a write of the buffer is under way
  struct timeval _oldest;            // when the oldest buffered record was made
  bool _needNewline;                 // the file ends inside a record of ours
  bool _failing;                     // writes are failing; said once on stderr
  uint64_t _dropped;                 // records dropped while failing
  uint64_t _missed;                  // records sent to stderr or dropped since takeAllWritten()
  LockState _lockState;
  long _gaveUpUntil;                 // monotonic microseconds; no waiting before then
  long _exclusiveBusySince;          // monotonic microseconds of the first busy LOCK_EX since one was taken; 0: none
  bool _saidUncoordinated;
  unsigned _forkGeneration;          // of the process that opened _dirFd
  unsigned _bufferGeneration;        // of the process whose records are buffered
  FileIdentity _rotatedByUs;         // the file this process last rotated away
  FileIdentity _cutFile;             // the file a short write left inside a record
  struct timespec _createdAt;        // wall clock when this object was made
  LocalTimeCache _timeCache;
};

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_LOG_FILE_H
