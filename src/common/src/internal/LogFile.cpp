// LogFile: the shared local log file (see LogFile.h for the why).
#include "internal/LogFile.h"

#include <fcntl.h>
#include <pthread.h>
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

// Bumped in the child of every fork: a child shares its parent's open
// directory description, and flock locks belong to that description, so the
// child opens the directory again before it locks.
std::atomic<unsigned> gForkGeneration{0};
void noteFork() { gForkGeneration.fetch_add(1, std::memory_order_relaxed); }
struct ForkWatch {
  ForkWatch() { (void)pthread_atfork(nullptr, nullptr, &noteFork); }
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
      _buffer(nullptr),
      _capacity(kSmallBuffer),
      _length(0),
      _writing(false),
      _oldest(),
      _needNewline(false),
      _failing(false),
      _dropped(0),
      _missed(0),
      _lockState(LockState::None),
      _gaveUpUntil(0),
      _exclusiveBusySince(0),
      _saidUncoordinated(false),
      _forkGeneration(0),
      _bufferGeneration(gForkGeneration.load(std::memory_order_relaxed)),
      _rotatedByUs(),
      _cutFile(),
      _createdAt() {
  static ForkWatch forkWatch;
  // A file written before this moment has a modification time no later
  // than it, whether the file system keeps coarse or fine times.
  clock_gettime(CLOCK_REALTIME, &_createdAt);
}

LogFile::~LogFile() {
  (void)close();
  if (_dirFd >= 0) ::close(_dirFd);
  delete[] _buffer;
}

void LogFile::dropInheritedRecords() {
  const unsigned generation = gForkGeneration.load(std::memory_order_relaxed);
  if (generation == _bufferGeneration) return;
  // A child of fork(): the buffered records are its parent's, which writes
  // them itself; writing them here too would duplicate them.
  _bufferGeneration = generation;
  _length.store(0, std::memory_order_release);
  _needNewline = false;
  _failing = false;
  _dropped = 0;
}

int LogFile::open(const std::string& path, const std::string& lockDirectory, uint64_t sizeLimit) {
  dropInheritedRecords();
  if (isOpen()) (void)close();  // a second open replaces the first, it does not leak it
  if (_buffer == nullptr) {
    _buffer = new (std::nothrow) char[kLargeBuffer];
    if (_buffer == nullptr) return ENOMEM;
  }
  const size_t wanted = sizeLimit >= kLargeBufferMinLimit ? kLargeBuffer : kSmallBuffer;
  // Records still buffered (from a file that could not be written) keep
  // their room.
  if (wanted >= _length.load(std::memory_order_relaxed)) _capacity = wanted;
  _path = path;
  if (lockDirectory != _lockDirectory) {
    if (_dirFd >= 0) ::close(_dirFd);
    _dirFd = -1;
    _lockDirectory = lockDirectory;
  }
  return openDescriptor();
}

int LogFile::openDescriptor() {
  int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  struct stat entry;
  if (::lstat(_path.c_str(), &entry) == 0) {
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
  if (fd < 0 && errno == ENOENT && (flags & O_CREAT) == 0) {
    fd = ::open(_path.c_str(), flags | O_CREAT, 0666);  // it went away meanwhile
  }
  if (fd < 0) return errno;
  struct stat st;
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
  if (_needNewline && !(_cutFile.valid && st.st_dev == _cutFile.device && st.st_ino == _cutFile.inode))
    _needNewline = false;
  _fd.store(fd, std::memory_order_relaxed);
  return 0;
}

int LogFile::close() {
  if (!isOpen()) return 0;
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
    (void)writeSome(fd, _buffer, length);
    _length.store(0, std::memory_order_release);
    _writing.store(false, std::memory_order_relaxed);
  }
  _needNewline = false;
  return ::close(fd) == 0 ? 0 : errno;
}

void LogFile::append(const char* line, size_t length, bool urgent, const struct timeval& now) {
  if (_buffer == nullptr) return;
  dropInheritedRecords();
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
  dropInheritedRecords();
  if (_length.load(std::memory_order_relaxed) == 0 && _dropped == 0 && !_needNewline) return true;
  if (!isOpen()) return false;
  // A write that cannot have the lock goes on without it: the identity
  // check below still keeps it out of files renamed away or deleted.
  const bool locked = _lockState == LockState::None && lockDirectory(LOCK_SH) == LockResult::Locked;
  // Still the live file? Another process may have rotated it away, a tool
  // renamed or deleted it. Then the live path is opened again, which also
  // lets go of a deleted file's space.
  const FileIdentity mine = identityOfDescriptor();
  struct stat live;
  const bool isLive = mine.valid && ::stat(_path.c_str(), &live) == 0 && live.st_dev == mine.device &&
                      live.st_ino == mine.inode;
  bool written = false;
  if (!isLive) {
    // A descriptor that fstat no longer knows was closed behind our back:
    // its number may belong to somebody else now, so it is not closed.
    const int old = _fd.exchange(-1, std::memory_order_relaxed);
    if (mine.valid && old >= 0) ::close(old);
    const int error = openDescriptor();
    if (error != 0) {
      errno = error;
      std::perror("Failed to open log file!");
      bufferToStderr();
    } else {
      written = writeBuffer();
    }
  } else {
    written = writeBuffer();
  }
  if (locked) unlockDirectory();
  return written;
}

bool LogFile::writeBuffer() {
  const int fd = _fd.load(std::memory_order_relaxed);
  _writing.store(true, std::memory_order_relaxed);
  bool ok = true;
  for (;;) {
    if (_needNewline) {
      // The file ends inside a record of ours (a short write): end that
      // line, so that the next record is not glued to it.
      const ssize_t written = writeSome(fd, "\n", 1);
      if (written != 1) {
        enterFailing(written < 0 ? errno : ENOSPC);
        ok = false;
        break;
      }
      _needNewline = false;
    }
    const size_t length = _length.load(std::memory_order_relaxed);
    if (length == 0) break;
    const ssize_t written = writeSome(fd, _buffer, length);
    if (written <= 0) {
      enterFailing(written < 0 ? errno : ENOSPC);
      ok = false;
      break;
    }
    if (static_cast<size_t>(written) == length) {
      _length.store(0, std::memory_order_release);
      break;
    }
    // A short write: the file took only part of the buffer. Whole records
    // are done; the cut one is written again, whole, on a fresh line.
    size_t boundary = static_cast<size_t>(written);
    while (boundary > 0 && _buffer[boundary - 1] != '\n') --boundary;
    if (boundary != static_cast<size_t>(written)) {
      _needNewline = true;
      _cutFile = identityOfDescriptor();
    }
    std::memmove(_buffer, _buffer + boundary, length - boundary);
    _length.store(length - boundary, std::memory_order_release);
  }
  _writing.store(false, std::memory_order_relaxed);
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

FileIdentity LogFile::identityOfDescriptor() const {
  FileIdentity identity;
  struct stat st;
  const int fd = _fd.load(std::memory_order_relaxed);
  if (fd >= 0 && ::fstatat(fd, "", &st, AT_EMPTY_PATH) == 0) {
    identity.device = st.st_dev;
    identity.inode = st.st_ino;
    identity.valid = true;
  }
  return identity;
}

bool LogFile::replacedAtPath() const {
  const FileIdentity mine = identityOfDescriptor();
  struct stat live;
  if (!mine.valid || ::stat(_path.c_str(), &live) != 0) return false;
  return live.st_dev != mine.device || live.st_ino != mine.inode;
}

int LogFile::reopen() {
  const FileIdentity mine = identityOfDescriptor();
  const int old = _fd.exchange(-1, std::memory_order_relaxed);
  if (mine.valid && old >= 0) ::close(old);
  return openDescriptor();
}

void LogFile::noteRotated(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return;
  _rotatedByUs.device = st.st_dev;
  _rotatedByUs.inode = st.st_ino;
  _rotatedByUs.valid = true;
}

bool LogFile::mayReuse(const std::string& path) const {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return true;
  if (_rotatedByUs.valid && st.st_dev == _rotatedByUs.device && st.st_ino == _rotatedByUs.inode) return true;
  // Older than this file object: left by an earlier run, not rotated by a
  // process writing beside us.
  if (st.st_mtim.tv_sec != _createdAt.tv_sec) return st.st_mtim.tv_sec < _createdAt.tv_sec;
  return st.st_mtim.tv_nsec <= _createdAt.tv_nsec;
}

LogFile::LockResult LogFile::lockDirectory(int operation) {
  const unsigned generation = gForkGeneration.load(std::memory_order_relaxed);
  if (_dirFd >= 0 && generation != _forkGeneration) {
    ::close(_dirFd);  // the parent's description: its lock is not ours
    _dirFd = -1;
  }
  if (_dirFd < 0) {
    _dirFd = ::open(_lockDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (_dirFd < 0) return LockResult::Unavailable;
    _forkGeneration = generation;
  }
  long pause = 20;
  long start = 0;
  for (;;) {
    if (::flock(_dirFd, operation | LOCK_NB) == 0) {
      _lockState = operation == LOCK_EX ? LockState::Exclusive : LockState::Shared;
      if (operation == LOCK_EX) _exclusiveBusySince = 0;
      return LockResult::Locked;
    }
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return LockResult::Unavailable;
    const long now = monotonicMicroseconds();
    if (operation == LOCK_EX && _exclusiveBusySince == 0) _exclusiveBusySince = now;
    if (now < _gaveUpUntil) return LockResult::Busy;  // gave up a moment ago: do not wait again yet
    if (start == 0) start = now;
    if (now - start >= kLockWaitMicroseconds) break;
    struct timespec nap = {0, pause * 1000};
    nanosleep(&nap, nullptr);
    if (pause < 1000) pause *= 2;
  }
  // Somebody holds the lock for longer than any writer would: go on without
  // it, and do not wait again for a while.
  _gaveUpUntil = monotonicMicroseconds() + kGiveUpMicroseconds;
  if (!_saidUncoordinated) {
    _saidUncoordinated = true;
    std::fprintf(stderr,
                 "Logging directory %s stays locked by another process: the log file is written without "
                 "coordination\n",
                 _lockDirectory.c_str());
    std::fflush(stderr);
  }
  return LockResult::Busy;
}

void LogFile::unlockDirectory() {
  if (_lockState == LockState::None) return;
  (void)::flock(_dirFd, LOCK_UN);
  _lockState = LockState::None;
}

LogFile::RotationLock::RotationLock(LogFile& file) : _file(file), _locked(false), _mayRotate(true) {
  if (_file._lockState != LockState::None) return;
  switch (_file.lockDirectory(LOCK_EX)) {
    case LockResult::Locked:
      _locked = true;
      break;
    case LockResult::Unavailable:
      break;  // nothing to coordinate with: rotate as a lone process does
    case LockResult::Busy:
      // Held by another process: most likely one that is rotating and was
      // descheduled. Put the rotation off, unless the lock has been out of
      // reach for so long that it is held for good.
      _mayRotate =
          monotonicMicroseconds() - _file._exclusiveBusySince >= kRotateUncoordinatedAfterMicroseconds;
      break;
  }
}

LogFile::RotationLock::~RotationLock() {
  if (_locked) _file.unlockDirectory();
}

void LogFile::writeForCrash() {
  const int fd = _fd.load(std::memory_order_relaxed);
  if (fd < 0 || _buffer == nullptr || _writing.load(std::memory_order_relaxed)) return;
  const size_t length = _length.load(std::memory_order_acquire);
  if (length == 0) return;
  if (_needNewline) (void)::write(fd, "\n", 1);
  size_t done = 0;
  while (done < length) {
    const ssize_t written = ::write(fd, _buffer + done, length - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    done += static_cast<size_t>(written);
  }
  _length.store(0, std::memory_order_release);
}

}  // namespace internal
}  // namespace Zel
