// LogFile.h - the local log file that several processes may share.
//
// What it is for: the logging wrapper's local file as one unit - the
// descriptor, the record buffer, the time-stamp cache, the identity checks
// that keep a process writing into the live file, the directory lock that
// coordinates the writers of one directory, and the flush policy. The
// rotation steps themselves (which numbered slot the file goes to) stay with
// LoggingWrapper; this unit tells it when it may rotate, whether another
// process already has, and which numbered file it made itself.
//
// Why it is shaped like this: every process of the framework may append to
// the same file. A write therefore carries whole records only and goes to a
// descriptor opened with O_APPEND, so the kernel never splices another
// process's record into one of ours. Each buffer write and each rotation
// holds the log directory's flock exclusively: the writer checks under it
// that its descriptor is still the live file (another process may have
// rotated it away, a tool renamed or deleted it) and reopens the live path if
// not; and a record that a short write cut (a full disk, a file-size limit)
// is taken back from the file's end before anybody else writes, so no
// writer's record can start on a cut line. The
// lock is flock(2) on the directory now at the path, checked again once
// locked (a directory removed and made anew gets the new lock); no lock file
// that another user could pre-create.
//
// A lock that somebody holds for a long time never lets a rotation run
// without it: the rotation is put off to a later record and the file grows
// past its limit meanwhile (said once on standard error after
// kSayPostponedAfterMicroseconds, and once more when the rotation has run).
// Buffer writes wait for the lock for a bounded time and then go on without
// it: an append of whole records needs no lock and loses nothing.
//
// Flush policy: records at level 0 to 2 are written at once together with
// everything before them; buffered records are written no later than the
// first record made one second or more after the oldest of them; flush(),
// close() and the end of the process write everything. A write that fails
// (disk full, file-size limit) keeps the records buffered while there is
// room, counts and drops the rest, says so once on standard error, and
// writes one record with the count when writing works again. A record cut by
// a short write is written again, whole, later.
//
// fork(): afterForkInChild() is run in the child (by the logging wrapper's
// fork handlers, with the logging lock held across the fork, so no write or
// rotation is half done): the child drops its parent's buffered records and
// lets go of the inherited directory descriptor, whose lock belongs to the
// parent's open file description.
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
  bool is(const struct stat& st) const { return valid && st.st_dev == device && st.st_ino == inode; }
  static FileIdentity of(const struct stat& st) {
    FileIdentity identity;
    identity.device = st.st_dev;
    identity.inode = st.st_ino;
    identity.valid = true;
    return identity;
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
  // How long a writer waits for the directory lock before a buffer write
  // goes on without it, or a rotation is put off.
  static constexpr long kLockWaitMicroseconds = 100 * 1000;
  // After waiting in vain, how long a writer only tries the lock without
  // waiting for it.
  static constexpr long kGiveUpMicroseconds = 10 * 1000 * 1000;
  // How long a rotation must have been put off for a busy lock before that
  // is said on standard error: a lock that other writers hold for moments
  // (descheduled on a loaded machine) is no news; one held for this long is.
  static constexpr long kSayPostponedAfterMicroseconds = 10 * 1000 * 1000;

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
  // destructor. mayRotate() is false while another process holds the lock:
  // the rotation is then put off to a later record, never run without it.
  // (A directory that cannot be locked at all - not readable, no flock on
  // its file system - is rotated as a lone process would.)
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
  // Whether the rotation may rename the live path: false when it names a
  // file other than the one this process had open until the rotation closed
  // it (a tool renamed ours away and another writer started a new one
  // meanwhile). That file is then left where it is and appended to: renamed
  // into a numbered slot it would look like a full rotation of ours.
  bool mayRenameLivePath() const;
  // Called after the rotation renamed the live path to `target`: the
  // numbered file counts as this process's own only when it is the file
  // this process had open until the rotation closed it (same device and
  // inode), not whatever an outside rename put at the live path meanwhile.
  void noteRotated(const std::string& target);
  // Whether the newest numbered file at `path` may be reused by the
  // rotation: it was made by this process's own rotation, it predates this
  // file object, or it cannot be examined. A numbered file another process
  // rotated meanwhile is never written over.
  bool mayReuse(const std::string& path) const;

  // --- fork ---------------------------------------------------------------
  // In the child of fork(), before anything else runs there: forgets the
  // parent's buffered records (the parent writes them), its write-failure
  // state and its own rotated file, and closes the inherited directory
  // descriptor without unlocking it (the lock is the parent's). The log
  // file descriptor is kept: appends through it are the child's own.
  void afterForkInChild();

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
  // Locked: taken. Busy: another process holds it (past the bounded wait,
  // or within the give-up window). Unavailable: the directory cannot be
  // locked at all (not readable, no flock on its file system).
  enum class LockResult { Locked, Busy, Unavailable };
  // Takes the lock of the directory now at _lockDirectory exclusively, with
  // a bounded wait; a directory descriptor left on a directory that was
  // removed (and perhaps made anew) is replaced first.
  LockResult lockDirectory();
  // One bounded wait for flock(LOCK_EX) on the open directory descriptor.
  LockResult waitForLock();
  // Whether _dirFd is still the directory at _lockDirectory.
  bool directoryIsCurrent() const;
  void closeDirectory();
  void unlockDirectory();
  // Opens the live path; on success `st` is what fstat said of it.
  int openDescriptor(struct stat& st);
  int openDescriptor() {
    struct stat st;
    return openDescriptor(st);
  }
  // fstat of the descriptor; false when it fails.
  bool statDescriptor(struct stat& st) const;
  FileIdentity identityOfDescriptor() const;
  // Whether the file, `size` bytes long, ends inside a line; false when it
  // cannot be read.
  bool endsInsideLine(int fd, off_t size) const;
  // Writes the buffer (and the dropped-records notice) to the descriptor of
  // a file `size` bytes long. `locked`: this process holds the directory
  // lock, so a record cut by a short write can be taken back from the end.
  bool writeBuffer(off_t size, bool locked);
  // Sends the buffer to standard error (no file could be opened) and empties it.
  void bufferToStderr();
  void enterFailing(int error);
  void sayPostponed();

  std::atomic<int> _fd;
  int _dirFd;
  FileIdentity _dirIdentity;         // of the directory _dirFd has open
  std::string _path;
  std::string _lockDirectory;
  // kLargeBuffer bytes of records, made at the first open, behind one byte
  // that holds a newline: a write that must start on a fresh line sends it
  // together with the records, in one write(2).
  char* _storage;
  char* _buffer;
  size_t _capacity;                  // bytes of _buffer in use as the record buffer
  std::atomic<size_t> _length;       // bytes of whole records buffered
  std::atomic<bool> _writing;        // a write of the buffer is under way
  struct timeval _oldest;            // when the oldest buffered record was made
  bool _needNewline;                 // _cutFile ends inside a record: the next write starts a fresh line
  off_t _knownEnd;                   // the file's size after this writer's last write; -1: unknown
  bool _openedBefore;                // open() has succeeded once
  bool _failing;                     // writes are failing; said once on stderr
  uint64_t _dropped;                 // records dropped while failing
  uint64_t _missed;                  // records sent to stderr or dropped since takeAllWritten()
  bool _locked;                      // this process holds the directory lock
  long _gaveUpUntil;                 // monotonic microseconds; no waiting before then
  long _postponedSince;              // monotonic microseconds of the first put-off rotation; 0: none
  bool _saidPostponed;               // the put-off rotation was said on standard error
  FileIdentity _closedFile;          // the file close() last closed
  FileIdentity _rotatedByUs;         // the file this process last rotated away
  FileIdentity _cutFile;             // the file a short write left inside a record
  struct timespec _createdAt;        // wall clock when this object was made
  LocalTimeCache _timeCache;
};

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_LOG_FILE_H
