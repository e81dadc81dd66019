// LogFile: the shared local log file (see LogFile.h for the why).
#include "internal/LogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

namespace Zel {
namespace internal {

namespace {

const size_t kFunctionWidth = 25;  // the function name's column
const size_t kTailWidth = 24;      // the source file's column of trace records
const size_t kLineWidth = 5;       // the source line's column of trace records

// A record composed in a buffer of `size` bytes. Every append is cut at the
// buffer's last byte, as snprintf cuts, so the text is byte for byte what
// snprintf(buffer, size, ...) gives for the same pieces.
class RecordText {
 public:
  RecordText(char* buffer, size_t size) : _begin(buffer), _end(buffer), _last(buffer + size - 1) {}
  void append(const char* text, size_t length) {
    const size_t room = static_cast<size_t>(_last - _end);
    if (length > room) length = room;
    std::memcpy(_end, text, length);
    _end += length;
  }
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
  // "%-<width>s" (leftAligned) or "%<width>s"; null prints as "(null)".
  void appendPadded(const char* text, size_t width, bool leftAligned) {
    if (text == nullptr) text = "(null)";
    const size_t length = std::strlen(text);
    const size_t blanks = length < width ? width - length : 0;
    if (!leftAligned) pad(blanks);
    append(text, length);
    if (leftAligned) pad(blanks);
  }
  void appendChar(char c) { append(&c, 1); }
  size_t finish() {
    *_end = '\0';
    return static_cast<size_t>(_end - _begin);
  }

 private:
  char* _begin;
  char* _end;
  char* _last;
};

bool ownedByUsOrRoot(const struct stat& st) { return st.st_uid == 0 || st.st_uid == geteuid(); }

// A sticky directory that everybody may write to, such as /tmp.
bool isSharedStickyDirectory(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return false;
  return (st.st_mode & S_ISVTX) != 0 && (st.st_mode & S_IWOTH) != 0;
}

long microsecondsBetween(const struct timeval& from, const struct timeval& to) {
  return (to.tv_sec - from.tv_sec) * 1000000L + (to.tv_usec - from.tv_usec);
}

long monotonicMicroseconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000L + now.tv_nsec / 1000;
}

// write(2) of the whole range unless the file takes less; EINTR retried.
// Returns the bytes written, or -1 with errno set when nothing was.
ssize_t writeSome(int fd, const char* data, size_t length) {
  for (;;) {
    const ssize_t written = ::write(fd, data, length);
    if (written >= 0 || errno != EINTR) return written;
  }
}

}  // namespace

size_t composeLine(char* record, size_t size, const char* stamp, size_t stampLength, const char* tag,
                   const char* tail, int line, const char* function, const char* message) {
  const size_t functionLength = function != nullptr ? std::strlen(function) : 0;
  if (tail == nullptr && size == kRecordSize && std::strlen(tag) == 2 && function != nullptr &&
      functionLength <= kFunctionWidth && stampLength <= LocalTimeCache::kMaxStampLength) {
    // The usual log record: everything before the message takes at most 59
    // characters, so only the message can reach the cut.
    char* out = record;
    std::memcpy(out, stamp, stampLength);
    out += stampLength;
    *out++ = ' ';
    std::memcpy(out, tag, 2);
    out += 2;
    *out++ = ' ';
    std::memset(out, ' ', kFunctionWidth);
    std::memcpy(out, function, functionLength);
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
  text.appendPadded(tag, 2, false);
  text.appendChar(' ');
  if (tail != nullptr) {
    char number[16];
    std::snprintf(number, sizeof(number), "%d", line);
    text.appendPadded(tail, kTailWidth, true);
    text.appendChar(':');
    text.appendPadded(number, kLineWidth, true);
    text.append(" - ", 3);
  }
  text.appendPadded(function, kFunctionWidth, true);
  text.appendChar(' ');
  text.appendString(message);
  return text.finish();
}

LogFile::LogFile()
    : _fd(-1),
      _dirFd(-1),
      _dirIdentity(),
      _storage(nullptr),
      _buffer(nullptr),
      _capacity(kSmallBuffer),
      _length(0),
      _writing(false),
      _oldest(),
      _needNewline(false),
      _knownEnd(-1),
      _openedBefore(false),
      _failing(false),
      _dropped(0),
      _missed(0),
      _locked(false),
      _gaveUpUntil(0),
      _postponedSince(0),
      _saidPostponed(false),
      _closedFile(),
      _rotatedByUs(),
      _cutFile(),
      _createdAt() {
  // A file written before this moment has a modification time no later
  // than it, whether the file system keeps coarse or fine times.
  clock_gettime(CLOCK_REALTIME, &_createdAt);
}

LogFile::~LogFile() {
  (void)close();
  closeDirectory();
  delete[] _storage;
}

void LogFile::afterForkInChild() {
  // The buffered records are the parent's, which writes them itself;
  // writing them here too would duplicate them.
  _length.store(0, std::memory_order_release);
  _writing.store(false, std::memory_order_relaxed);
  _needNewline = false;
  _failing = false;
  _dropped = 0;
  _missed = 0;
  // The directory descriptor shares the parent's open file description, and
  // flock locks belong to that description: kept open here, it would hold
  // the parent's lock for as long as this child lives, even after the
  // parent died holding it. Closing it leaves the parent's lock alone.
  if (_dirFd >= 0) ::close(_dirFd);
  _dirFd = -1;
  _dirIdentity = FileIdentity();
  _locked = false;
  _gaveUpUntil = 0;
  _postponedSince = 0;
  _saidPostponed = false;
  // The parent's rotated file is not the child's own.
  _rotatedByUs = FileIdentity();
  _closedFile = FileIdentity();
}

int LogFile::open(const std::string& path, const std::string& lockDirectory, uint64_t sizeLimit) {
  if (isOpen()) (void)close();  // a second open replaces the first, it does not leak it
  if (_storage == nullptr) {
    _storage = new (std::nothrow) char[kLargeBuffer + 1];
    if (_storage == nullptr) return ENOMEM;
    _storage[0] = '\n';
    _buffer = _storage + 1;
  }
  const size_t wanted = sizeLimit >= kLargeBufferMinLimit ? kLargeBuffer : kSmallBuffer;
  // Records still buffered (from a file that could not be written) keep
  // their room.
  if (wanted >= _length.load(std::memory_order_relaxed)) _capacity = wanted;
  _path = path;
  if (lockDirectory != _lockDirectory) {
    closeDirectory();
    _lockDirectory = lockDirectory;
  }
  const off_t previousEnd = _knownEnd;
  struct stat st;
  const int error = openDescriptor(st);
  // What the file holds when this writer first opens a file is taken as it
  // is, even a last line without its newline (records are appended to it),
  // and so is the file it just closed, opened again unchanged (a rotation
  // that kept it); only an end that somebody leaves later is looked at
  // (writeBuffer). Any other file opened later (set_fname back and forth, a
  // rotation) may end in a record cut meanwhile, so it is looked at.
  if (error == 0 && (!_openedBefore || (_closedFile.is(st) && st.st_size == previousEnd))) _knownEnd = st.st_size;
  if (error == 0) _openedBefore = true;
  return error;
}

int LogFile::openDescriptor(struct stat& st) {
  _knownEnd = -1;  // another writer's file, or ours after somebody else wrote
  // Read access too, for a regular file (or a new one): a writer looks at
  // the last byte another writer left (endsInsideLine). Anything else is
  // opened for writing only, as the checks below expect.
  int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  struct stat entry;
  const bool exists = ::lstat(_path.c_str(), &entry) == 0;
  if (!exists || S_ISREG(entry.st_mode)) flags = (flags & ~O_WRONLY) | O_RDWR;
  if (exists) {
    // In a directory where anybody may plant entries, only follow what this
    // user or root put there: a symlink of another user could point our
    // records into a file of its choice, a FIFO could block or spy.
    const bool foreign = !ownedByUsOrRoot(entry);
    if (S_ISLNK(entry.st_mode)) {
      if (foreign && isSharedStickyDirectory(_path)) return EACCES;
    } else {
      flags |= O_NOFOLLOW;  // what was checked is what gets opened
      if (!S_ISREG(entry.st_mode) && foreign && isSharedStickyDirectory(_path)) return EACCES;
      // An existing file is opened without O_CREAT: the kernel's
      // protected_regular refuses O_CREAT on another user's file in a
      // sticky directory, and appending to it is allowed.
      if (S_ISREG(entry.st_mode)) flags &= ~O_CREAT;
    }
  } else {
    flags |= O_NOFOLLOW;  // a symlink planted between the check and the open is refused
  }
  int fd = ::open(_path.c_str(), flags, 0666);
  if (fd < 0 && errno == EACCES && (flags & O_RDWR) != 0) {
    flags = (flags & ~O_RDWR) | O_WRONLY;  // a file we may append to but not read
    fd = ::open(_path.c_str(), flags, 0666);
  }
  if (fd < 0 && errno == ENOENT && (flags & O_CREAT) == 0) {
    fd = ::open(_path.c_str(), flags | O_CREAT, 0666);  // it went away meanwhile
  }
  if (fd < 0) return errno;
  if (::fstatat(fd, "", &st, AT_EMPTY_PATH) != 0) {
    const int error = errno;
    ::close(fd);
    return error;
  }
  if (!S_ISREG(st.st_mode)) {
    // A FIFO or device: records must not block on it or vanish into it.
    ::close(fd);
    return EINVAL;
  }
  // The open did not block; writes to a regular file never would, but the
  // flag is cleared so the descriptor behaves as an ordinary one.
  const int status = ::fcntl(fd, F_GETFL);
  if (status != -1) (void)::fcntl(fd, F_SETFL, status & ~O_NONBLOCK);
  // Only the file that ends inside a record of ours needs its line ended.
  if (_needNewline && !_cutFile.is(st)) _needNewline = false;
  _fd.store(fd, std::memory_order_relaxed);
  return 0;
}

int LogFile::close() {
  if (!isOpen()) return 0;
  // Remembered for the rotation that may follow: it renames the live path,
  // and the numbered file is this process's own only if this was it. Taken
  // before the flush, which may move to a new live file (ours was renamed
  // away or deleted): that one is not the file the rotation was for.
  _closedFile = identityOfDescriptor();
  (void)flush();  // what cannot be written stays buffered for the next open
  const int fd = _fd.exchange(-1, std::memory_order_relaxed);
  if (fd < 0) return 0;
  return ::close(fd) == 0 ? 0 : errno;
}

int LogFile::closeAfterStatFailure() {
  const int fd = _fd.exchange(-1, std::memory_order_relaxed);
  if (fd < 0) return 0;
  const size_t length = _length.load(std::memory_order_relaxed);
  if (length > 0) {
    _writing.store(true, std::memory_order_relaxed);
    const size_t lead = _needNewline ? 1 : 0;
    (void)writeSome(fd, _buffer - lead, length + lead);
    _length.store(0, std::memory_order_release);
    _writing.store(false, std::memory_order_relaxed);
  }
  _needNewline = false;
  return ::close(fd) == 0 ? 0 : errno;
}

void LogFile::append(const char* line, size_t length, bool urgent, const struct timeval& now) {
  if (_buffer == nullptr) return;
  if (length + 1 > _capacity - _length.load(std::memory_order_relaxed)) (void)flush();
  if (!isOpen()) {
    // The live file could not be reopened: the buffer went to standard
    // error, and so does this record.
    writeToStderr(line, length);
    return;
  }
  const size_t used = _length.load(std::memory_order_relaxed);
  if (length + 1 > _capacity - used) {
    ++_dropped;  // the file takes nothing and the buffer is full
    ++_missed;
    return;
  }
  if (used == 0) _oldest = now;
  std::memcpy(_buffer + used, line, length);
  _buffer[used + length] = '\n';
  // Published after the bytes, for writeForCrash.
  _length.store(used + length + 1, std::memory_order_release);
  const long age = microsecondsBetween(_oldest, now);
  if (urgent || age >= 1000000L || age < 0) (void)flush();
}

bool LogFile::flush() {
  if (_length.load(std::memory_order_relaxed) == 0 && _dropped == 0) return true;
  if (!isOpen()) return false;
  // A write that cannot have the lock goes on without it: the identity
  // check below still keeps it out of files renamed away or deleted.
  // (Held already when a rotation closes the file.)
  const bool tookLock = !_locked && lockDirectory() == LockResult::Locked;
  // Still the live file? Another process may have rotated it away, a tool
  // renamed or deleted it. Then the live path is opened again, which also
  // lets go of a deleted file's space.
  struct stat mine;
  const bool known = statDescriptor(mine);
  struct stat live;
  const bool isLive = known && ::stat(_path.c_str(), &live) == 0 && live.st_dev == mine.st_dev &&
                      live.st_ino == mine.st_ino;
  bool written = false;
  if (!isLive) {
    // A descriptor that fstat no longer knows was closed behind our back:
    // its number may belong to somebody else now, so it is not closed.
    const int old = _fd.exchange(-1, std::memory_order_relaxed);
    if (known && old >= 0) ::close(old);
    struct stat opened;
    const int error = openDescriptor(opened);
    if (error != 0) {
      errno = error;
      std::perror("Failed to open log file!");
      bufferToStderr();
    } else {
      written = writeBuffer(opened.st_size, _locked);
    }
  } else {
    written = writeBuffer(mine.st_size, _locked);
  }
  if (tookLock) unlockDirectory();
  return written;
}

bool LogFile::endsInsideLine(int fd, off_t size) const {
  if (size <= 0) return false;
  char last = '\n';
  for (;;) {
    const ssize_t got = ::pread(fd, &last, 1, size - 1);
    if (got == 1) return last != '\n';
    if (got < 0 && errno == EINTR) continue;
    return false;  // not readable (a file we may only append to): not known
  }
}

bool LogFile::writeBuffer(off_t size, bool locked) {
  const int fd = _fd.load(std::memory_order_relaxed);
  _writing.store(true, std::memory_order_relaxed);
  bool ok = true;
  off_t end = size;  // where the file ends, as far as this writer knows
  // Another writer wrote since we last did, and its last record is cut (a
  // writer killed in the middle of its write(2), which no lock can take
  // back): our records start on a fresh line.
  if (!_needNewline && size != _knownEnd && endsInsideLine(fd, size)) {
    _needNewline = true;
    _cutFile = identityOfDescriptor();
  }
  for (;;) {
    const size_t length = _length.load(std::memory_order_relaxed);
    // The file ends inside a record of ours (a short write we could not
    // take back): end that line in the same write(2) as the records.
    const size_t lead = _needNewline ? 1 : 0;  // _buffer[-1] is the newline
    if (length + lead == 0) break;
    ssize_t written = writeSome(fd, _buffer - lead, length + lead);
    if (written <= 0) {
      enterFailing(written < 0 ? errno : ENOSPC);
      ok = false;
      break;
    }
    if (lead == 1) _needNewline = false;
    end += written;
    size_t took = static_cast<size_t>(written) - lead;
    if (took == length) {
      _length.store(0, std::memory_order_release);
      break;
    }
    // A short write: the file took only part of the buffer (a full disk, a
    // file-size limit). If it stopped inside a record, the rest of that
    // record is offered at once: space may have come back.
    size_t boundary = took;
    while (boundary > 0 && _buffer[boundary - 1] != '\n') --boundary;
    if (boundary != took) {
      const char* newline = static_cast<const char*>(std::memchr(_buffer + took, '\n', length - took));
      const size_t recordEnd = static_cast<size_t>(newline - _buffer) + 1;
      int error = 0;
      while (took < recordEnd) {
        written = writeSome(fd, _buffer + took, recordEnd - took);
        if (written <= 0) {
          error = written < 0 ? errno : ENOSPC;
          break;
        }
        took += static_cast<size_t>(written);
        end += written;
      }
      if (error != 0) {
        // The record stays cut. Under the exclusive lock no other writer of
        // the directory appends while we do, so the cut piece is still the
        // file's end: it is taken back, and no writer, this one or another,
        // can start a record on the cut line; the record is written again,
        // whole, later. Without the lock (or if the file grew meanwhile) the
        // piece stays, and this writer's next write starts on a fresh line.
        const off_t whole = end - static_cast<off_t>(took - boundary);
        struct stat st;
        if (locked && statDescriptor(st) && st.st_size == end && ::ftruncate(fd, whole) == 0) {
          end = whole;
        } else {
          _needNewline = true;
          _cutFile = identityOfDescriptor();
        }
        std::memmove(_buffer, _buffer + boundary, length - boundary);
        _length.store(length - boundary, std::memory_order_release);
        enterFailing(error);
        ok = false;
        break;
      }
      boundary = recordEnd;
    }
    std::memmove(_buffer, _buffer + boundary, length - boundary);
    _length.store(length - boundary, std::memory_order_release);
  }
  _writing.store(false, std::memory_order_relaxed);
  _knownEnd = end;
  if (!ok) return false;
  if (_failing) {
    _failing = false;
    if (_dropped > 0) {
      struct timeval now;
      gettimeofday(&now, nullptr);
      char stampText[LocalTimeCache::kMaxStampLength];
      const size_t stampLength = _timeCache.write(stampText, now);
      char message[kMessageSize];
      std::snprintf(message, sizeof(message),
                    "%" PRIu64 " log records were dropped while the log file could not be written", _dropped);
      char record[kRecordSize];
      size_t length =
          composeLine(record, sizeof(record), stampText, stampLength, "ER", nullptr, 0, "LoggingWrapper", message);
      record[length++] = '\n';
      if (writeSome(fd, record, length) == static_cast<ssize_t>(length)) {
        _dropped = 0;
        _knownEnd += static_cast<off_t>(length);
      } else {
        _failing = true;  // try again with the next write
      }
    }
  }
  return true;
}

void LogFile::enterFailing(int error) {
  if (_failing) return;
  _failing = true;
  // Said once; the records stay buffered while there is room, the rest are
  // counted and reported in the file when writing works again.
  std::fprintf(stderr, "Failed to write log file. Errno: %d: %s\n", error, std::strerror(error));
  std::fflush(stderr);
}

void LogFile::writeToStderr(const char* line, size_t length) {
  std::fprintf(stderr, "%.*s\n", static_cast<int>(length), line);
  std::fflush(stderr);
  ++_missed;
}

bool LogFile::takeAllWritten() {
  const bool all = _missed == 0 && _length.load(std::memory_order_relaxed) == 0;
  _missed = 0;
  return all;
}

void LogFile::bufferToStderr() {
  const size_t length = _length.load(std::memory_order_relaxed);
  if (length > 0) std::fwrite(_buffer, 1, length, stderr);
  for (size_t i = 0; i < length; ++i)
    if (_buffer[i] == '\n') ++_missed;
  std::fflush(stderr);
  _length.store(0, std::memory_order_release);
  _needNewline = false;
}

bool LogFile::statDescriptor(struct stat& st) const {
  const int fd = _fd.load(std::memory_order_relaxed);
  return fd >= 0 && ::fstatat(fd, "", &st, AT_EMPTY_PATH) == 0;
}

FileIdentity LogFile::identityOfDescriptor() const {
  struct stat st;
  return statDescriptor(st) ? FileIdentity::of(st) : FileIdentity();
}

bool LogFile::replacedAtPath() const {
  const FileIdentity mine = identityOfDescriptor();
  struct stat live;
  if (!mine.valid || ::stat(_path.c_str(), &live) != 0) return false;
  return !mine.is(live);
}

int LogFile::reopen() {
  const FileIdentity mine = identityOfDescriptor();
  const int old = _fd.exchange(-1, std::memory_order_relaxed);
  if (mine.valid && old >= 0) ::close(old);
  return openDescriptor();
}

bool LogFile::mayRenameLivePath() const {
  if (!_closedFile.valid) return true;  // no file of ours to tell apart
  struct stat st;
  return ::stat(_path.c_str(), &st) != 0 || _closedFile.is(st);
}

void LogFile::noteRotated(const std::string& target) {
  struct stat st;
  if (::stat(target.c_str(), &st) != 0 || !_closedFile.is(st)) return;
  _rotatedByUs = _closedFile;
}

bool LogFile::mayReuse(const std::string& path) const {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return true;
  if (_rotatedByUs.is(st)) return true;
  // Older than this file object: left by an earlier run, not rotated by a
  // process writing beside us.
  if (st.st_mtim.tv_sec != _createdAt.tv_sec) return st.st_mtim.tv_sec < _createdAt.tv_sec;
  return st.st_mtim.tv_nsec <= _createdAt.tv_nsec;
}

void LogFile::closeDirectory() {
  if (_dirFd >= 0) ::close(_dirFd);
  _dirFd = -1;
  _dirIdentity = FileIdentity();
  _locked = false;
}

bool LogFile::directoryIsCurrent() const {
  struct stat st;
  // A directory that is gone altogether has no successor to coordinate on.
  if (::stat(_lockDirectory.c_str(), &st) != 0) return errno == ENOENT || errno == ENOTDIR;
  return _dirIdentity.is(st);
}

LogFile::LockResult LogFile::lockDirectory() {
  // At most a few rounds: the directory at the path may be replaced while we
  // wait for the lock of the one we have open.
  for (int round = 0; round < 3; ++round) {
    if (_dirFd < 0) {
      _dirFd = ::open(_lockDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (_dirFd < 0) return LockResult::Unavailable;
      struct stat st;
      if (::fstatat(_dirFd, "", &st, AT_EMPTY_PATH) != 0) {
        closeDirectory();
        return LockResult::Unavailable;
      }
      _dirIdentity = FileIdentity::of(st);
    }
    const LockResult result = waitForLock();
    if (result == LockResult::Locked) {
      // The lock of a directory that was removed (and perhaps made anew)
      // coordinates with nobody: writers of the new one lock that.
      if (directoryIsCurrent()) return result;
      unlockDirectory();
      closeDirectory();
      continue;
    }
    if (result == LockResult::Busy && !directoryIsCurrent()) {
      closeDirectory();  // busy, but a stale directory's lock: try the new one
      continue;
    }
    return result;
  }
  return LockResult::Busy;
}

LogFile::LockResult LogFile::waitForLock() {
  long pause = 20;
  long start = 0;
  for (;;) {
    if (::flock(_dirFd, LOCK_EX | LOCK_NB) == 0) {
      _locked = true;
      return LockResult::Locked;
    }
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return LockResult::Unavailable;
    const long now = monotonicMicroseconds();
    if (now < _gaveUpUntil) return LockResult::Busy;  // gave up a moment ago: do not wait again yet
    if (start == 0) start = now;
    if (now - start >= kLockWaitMicroseconds) break;
    struct timespec nap = {0, pause * 1000};
    nanosleep(&nap, nullptr);
    if (pause < 1000) pause *= 2;
  }
  // Somebody holds the lock for longer than any writer would: do not wait
  // again for a while.
  _gaveUpUntil = monotonicMicroseconds() + kGiveUpMicroseconds;
  return LockResult::Busy;
}

void LogFile::unlockDirectory() {
  if (!_locked) return;
  (void)::flock(_dirFd, LOCK_UN);
  _locked = false;
}

void LogFile::sayPostponed() {
  const long now = monotonicMicroseconds();
  if (_postponedSince == 0) _postponedSince = now;
  if (_saidPostponed || now - _postponedSince < kSayPostponedAfterMicroseconds) return;
  _saidPostponed = true;
  std::fprintf(stderr,
               "Logging directory %s stays locked by another process: rotation is postponed and %s grows past "
               "its size limit\n",
               _lockDirectory.c_str(), _path.c_str());
  std::fflush(stderr);
}

LogFile::RotationLock::RotationLock(LogFile& file) : _file(file), _locked(false), _mayRotate(true) {
  if (_file._locked) return;
  switch (_file.lockDirectory()) {
    case LockResult::Locked:
      _locked = true;
      break;
    case LockResult::Unavailable:
      break;  // nothing to coordinate with: rotate as a lone process does
    case LockResult::Busy:
      // Held by another process: one that is rotating and was descheduled,
      // or one that holds it for good. The rotation is put off to a later
      // record either way; appending meanwhile loses nothing.
      _mayRotate = false;
      _file.sayPostponed();
      return;
  }
  if (_file._saidPostponed) {
    std::fprintf(stderr, "Logging directory %s is free again: the postponed rotation of %s goes on\n",
                 _file._lockDirectory.c_str(), _file._path.c_str());
    std::fflush(stderr);
  }
  _file._postponedSince = 0;
  _file._saidPostponed = false;
}

LogFile::RotationLock::~RotationLock() {
  if (_locked) _file.unlockDirectory();
}

void LogFile::writeForCrash() {
  const int fd = _fd.load(std::memory_order_relaxed);
  if (fd < 0 || _buffer == nullptr || _writing.load(std::memory_order_relaxed)) return;
  const size_t length = _length.load(std::memory_order_acquire);
  if (length == 0) return;
  const size_t lead = _needNewline ? 1 : 0;
  const char* data = _buffer - lead;
  const size_t total = length + lead;
  size_t done = 0;
  while (done < total) {
    const ssize_t written = ::write(fd, data + done, total - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    done += static_cast<size_t>(written);
  }
  _length.store(0, std::memory_order_release);
}

}  // namespace internal
}  // namespace Zel
