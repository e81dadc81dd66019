// LogFollower.cpp - exactly-once reading of the log across rotations.
#include "LogFollower.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <vector>

namespace ZelTool {
namespace {

// Lines of the log are at most 1000 bytes; a longer run without a line break
// is no record and is handed out in pieces of this size.
const size_t CHUNK = 65536;
// How many of a file's first bytes identify it next to its inode.
const uint64_t HEAD = 256;
// How often start() looks again before it calls a file of the cursor gone.
const int RESCANS = 3;
// Files held open ahead of the one being read. Newer files wait, unopened,
// until the queue has room (a follower that far behind may lose files
// pruned meanwhile, as it would without holding them at all).
const size_t MAX_OPEN = 256;

uint64_t fnv1a(const char* data, size_t size) {
  uint64_t hash = 1469598103934665603ull;
  for (size_t i = 0; i < size; ++i) {
    hash ^= static_cast<unsigned char>(data[i]);
    hash *= 1099511628211ull;
  }
  return hash;
}

// pread that retries on EINTR; -1 on error.
ssize_t readAt(int fd, char* buffer, size_t size, uint64_t offset) {
  for (;;) {
    const ssize_t n = ::pread(fd, buffer, size, static_cast<off_t>(offset));
    if (n >= 0 || errno != EINTR) return n;
  }
}

}  // namespace

std::string LogPosition::toText() const {
  char text[512];
  std::snprintf(text, sizeof(text),
                "position %ju %ju %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRId32 " %d %" PRId64 " %" PRId32 " %d\n",
                static_cast<uintmax_t>(identity.device), static_cast<uintmax_t>(identity.inode), offset, headLength,
                headHash, number, live ? 1 : 0, size, newestNumber, anyNumbered ? 1 : 0);
  return text;
}

bool LogPosition::fromText(const std::string& text) {
  std::istringstream in(text);
  std::string word;
  uintmax_t device = 0;
  uintmax_t inode = 0;
  int isLive = 0;
  int numbered = 0;
  if (!(in >> word >> device >> inode >> offset >> headLength >> headHash >> number >> isLive >> size >>
        newestNumber >> numbered) ||
      word != "position")
    return false;
  identity.device = static_cast<dev_t>(device);
  identity.inode = static_cast<ino_t>(inode);
  live = isLive != 0;
  anyNumbered = numbered != 0;
  valid = true;
  return true;
}

LogFollower::LogFollower(const LogLocation& location) : _location(location) {
  _inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  // Without inotify (no instances left) the caller waits by its timeout.
  if (_inotify >= 0 &&
      ::inotify_add_watch(_inotify, _location.directory.c_str(),
                          IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE) < 0) {
    ::close(_inotify);
    _inotify = -1;
  }
}

LogFollower::~LogFollower() {
  for (OpenFile& file : _queue) ::close(file.fd);
  if (_inotify >= 0) ::close(_inotify);
}

void LogFollower::drain() {
  if (_inotify < 0) return;
  char buffer[8192];
  while (::read(_inotify, buffer, sizeof(buffer)) > 0) {
  }
}

void LogFollower::fingerprint(int fd, uint64_t length, uint64_t& headLength, uint64_t& hash) {
  char buffer[HEAD];
  const ssize_t n = readAt(fd, buffer, static_cast<size_t>(std::min<uint64_t>(length, HEAD)), 0);
  headLength = n > 0 ? static_cast<uint64_t>(n) : 0;
  hash = fnv1a(buffer, static_cast<size_t>(headLength));
}

bool LogFollower::isKnown(const LogFileEntry& entry) const {
  for (const OpenFile& file : _queue)
    if (file.identity == entry.identity) return true;
  const auto done = _done.find(entry.identity);
  // Files only grow: one smaller than the file finished under this inode is
  // a new file that got the inode of a deleted one.
  return done != _done.end() && entry.size >= done->second.size;
}

bool LogFollower::scanAndOpen(std::string* error) {
  std::vector<LogFileEntry> files;
  std::string message;
  if (!scanLog(_location, files, message)) {
    if (error != nullptr) *error = message;
    return false;
  }
  for (OpenFile& file : _queue) file.present = false;
  // Files made and pruned between two scans were never seen: the numbers
  // after the newest file known tell how many.
  bool anyKnown = false;
  int32_t newestKnown = 0;
  int64_t numberedBytes = 0;
  int numberedFiles = 0;
  for (const LogFileEntry& entry : files) {
    if (entry.live) continue;
    numberedBytes += entry.size;
    ++numberedFiles;
    if (isKnown(entry) && (!anyKnown || entry.number > newestKnown)) {
      newestKnown = entry.number;
      anyKnown = true;
    }
  }
  if (anyKnown) {
    _newestKnown = newestKnown;
    _anyKnown = true;
  }
  if (_anyKnown) {
    for (const LogFileEntry& entry : files) {
      if (entry.live || isKnown(entry) || entry.number <= _newestKnown) continue;
      // A renumbering after the highest number starts again low and is not
      // a gap; the first new number above the newest known one is.
      const int64_t missed = static_cast<int64_t>(entry.number) - _newestKnown - 1;
      if (missed > 0) {
        std::ostringstream text;
        text << missed
             << (missed == 1 ? " log file was pruned before it could be read"
                             : " log files were pruned before they could be read")
             << ": about "
             << missed * (numberedFiles > 0 ? numberedBytes / numberedFiles : 0) << " bytes skipped";
        if (!_notice.empty()) _notice += "\n";
        _notice += text.str();
      }
      _newestKnown = entry.number;
      break;
    }
  }
  std::set<FileIdentity> seen;
  _anyNumbered = false;
  for (size_t i = 0; i < files.size(); ++i) {
    const LogFileEntry& entry = files[i];
    seen.insert(entry.identity);
    if (!entry.live) {
      _newestNumber = entry.number;  // the files come by number
      _anyNumbered = true;
    }
    bool inQueue = false;
    for (OpenFile& file : _queue)
      if (file.identity == entry.identity) {
        file.path = entry.path;
        file.number = entry.number;
        file.live = entry.live;
        file.present = true;
        file.scanIndex = i;
        inQueue = true;
      }
    if (inQueue || isKnown(entry)) continue;
    // The files come oldest first: once the queue is full, the rest wait for
    // a later scan.
    if (_queue.size() >= MAX_OPEN) continue;
    const int fd = ::open(entry.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) continue;  // gone meanwhile: the next scan shows where it went
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_dev != entry.identity.device ||
        st.st_ino != entry.identity.inode) {
      // The name stands for another file by now; the next scan finds both.
      ::close(fd);
      continue;
    }
    OpenFile file;
    file.fd = fd;
    file.identity = entry.identity;
    file.path = entry.path;
    file.number = entry.number;
    file.live = entry.live;
    file.scanIndex = i;
    _queue.push_back(file);
  }
  // The file being read stays first. Of the others, those no longer in the
  // directory (pruned, still readable here) are the oldest; the rest go in
  // the order of the log.
  if (_queue.size() > 2)
    std::stable_sort(_queue.begin() + 1, _queue.end(), [](const OpenFile& a, const OpenFile& b) {
      if (a.present != b.present) return !a.present;
      return a.present && a.scanIndex < b.scanIndex;
    });
  // Finished files that left the directory are forgotten: their inode may be
  // reused for a new file.
  for (auto it = _done.begin(); it != _done.end();) it = seen.count(it->first) ? std::next(it) : _done.erase(it);
  return true;
}

void LogFollower::refresh() { (void)scanAndOpen(nullptr); }

std::string LogFollower::takeNotice() {
  std::string notice;
  notice.swap(_notice);
  return notice;
}

bool LogFollower::start(const LogPosition* resume, std::string& notice, std::string& error) {
  notice.clear();
  if (resume == nullptr || !resume->valid) return scanAndOpen(&error);

  std::vector<LogFileEntry> files;
  for (int attempt = 0; attempt < RESCANS; ++attempt) {
    if (attempt > 0) ::usleep(20000);
    if (!scanLog(_location, files, error)) return false;
    for (size_t i = 0; i < files.size(); ++i) {
      if (files[i].identity != resume->identity) continue;
      const int fd = ::open(files[i].path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
      if (fd < 0) break;
      struct stat st;
      uint64_t length = 0;
      uint64_t hash = 0;
      const bool same = ::fstat(fd, &st) == 0 && st.st_dev == resume->identity.device &&
                        st.st_ino == resume->identity.inode &&
                        static_cast<uint64_t>(st.st_size) >= resume->headLength;
      if (same) fingerprint(fd, resume->headLength, length, hash);
      ::close(fd);
      if (!same || length != resume->headLength || hash != resume->headHash) break;
      // Everything before the cursor's file was read before.
      for (size_t k = 0; k < i; ++k) _done[files[k].identity] = DoneFile{files[k].size, 0, 0};
      if (!scanAndOpen(&error)) return false;
      if (!_queue.empty() && _queue.front().identity == resume->identity) {
        _queue.front().offset = std::min<uint64_t>(resume->offset, static_cast<uint64_t>(st.st_size));
        return true;
      }
      // Renamed or pruned between the scans: look again.
      for (OpenFile& file : _queue) ::close(file.fd);
      _queue.clear();
      _done.clear();
      break;
    }
  }

  // The cursor's file is gone: its rest and the files after it that were
  // pruned before anybody read them are lost. Their number follows from the
  // numbers; their sizes are known only for the cursor's own file (when it
  // was a numbered file, it was complete) and are estimated from the kept
  // numbered files for the others.
  if (!scanAndOpen(&error)) return false;
  int64_t keptBytes = 0;
  int kept = 0;
  int32_t oldest = 0;
  for (const OpenFile& file : _queue) {
    if (file.live) continue;
    if (kept == 0) oldest = file.number;
    struct stat st;
    if (::fstat(file.fd, &st) == 0) keptBytes += st.st_size;
    ++kept;
  }
  const int64_t cursorNumber = resume->live ? static_cast<int64_t>(resume->newestNumber) + (resume->anyNumbered ? 1 : 0)
                                            : resume->number;
  int64_t skippedFiles = kept > 0 && oldest > cursorNumber ? oldest - cursorNumber : 1;
  const int64_t typical = kept > 0 ? keptBytes / kept : resume->size;
  const int64_t cursorFileSize = resume->live ? std::max<int64_t>(resume->size, typical) : resume->size;
  const int64_t rest = std::max<int64_t>(cursorFileSize - static_cast<int64_t>(resume->offset), 0);
  const int64_t skippedBytes = rest + (skippedFiles - 1) * typical;
  std::ostringstream text;
  text << "the log files after the cursor were pruned before they were read: skipped " << skippedFiles
       << (skippedFiles == 1 ? " file, " : " files, ") << (skippedFiles > 1 || resume->live ? "about " : "")
       << skippedBytes << " bytes; going on with the oldest file kept";
  notice = text.str();
  return true;
}

bool LogFollower::isLiveFile(const OpenFile& file) const {
  struct stat st;
  return ::stat(_location.live.c_str(), &st) == 0 && st.st_dev == file.identity.device &&
         st.st_ino == file.identity.inode;
}

bool LogFollower::readLines(OpenFile& file, const LineSink& sink, size_t maxBytes, size_t& lines, size_t& bytes,
                            bool& atEnd) {
  std::vector<char> buffer(CHUNK);
  atEnd = false;
  for (;;) {
    const ssize_t n = readAt(file.fd, buffer.data(), buffer.size(), file.offset);
    if (n <= 0) {
      atEnd = true;  // the end, or a read error: the file has nothing more for us
      return n == 0;
    }
    const char* data = buffer.data();
    size_t begin = 0;
    const size_t count = static_cast<size_t>(n);
    while (begin < count) {
      const char* newline = static_cast<const char*>(std::memchr(data + begin, '\n', count - begin));
      if (newline == nullptr) break;
      const size_t end = static_cast<size_t>(newline - data);
      const uint64_t lineOffset = file.offset;
      file.offset += end - begin + 1;
      sink(std::string(data + begin, end - begin), file.path, lineOffset);
      bytes += end - begin + 1;
      ++lines;
      begin = end + 1;
      if (bytes >= maxBytes) return true;
    }
    if (begin == 0 && count == buffer.size()) {
      // A whole chunk without a line break: no record, handed out as it is.
      const uint64_t lineOffset = file.offset;
      file.offset += count;
      sink(std::string(data, count), file.path, lineOffset);
      bytes += count;
      ++lines;
      if (bytes >= maxBytes) return true;
      continue;
    }
    if (count < buffer.size()) {
      atEnd = true;
      return true;
    }
  }
}

void LogFollower::finishFront(const LineSink& sink) {
  OpenFile& file = _queue.front();
  size_t lines = 0;
  size_t bytes = 0;
  bool atEnd = false;
  while (!atEnd) readLines(file, sink, SIZE_MAX, lines, bytes, atEnd);
  readIncompleteLine(sink);
  DoneFile done;
  done.size = static_cast<int64_t>(file.offset);
  fingerprint(file.fd, HEAD, done.headLength, done.headHash);
  if (file.present) _done[file.identity] = done;
  ::close(file.fd);
  _queue.pop_front();
}

void LogFollower::readIncompleteLine(const LineSink& sink) {
  if (_queue.empty()) return;
  OpenFile& file = _queue.front();
  std::vector<char> buffer(CHUNK);
  for (;;) {
    const ssize_t n = readAt(file.fd, buffer.data(), buffer.size(), file.offset);
    if (n <= 0) return;
    const uint64_t lineOffset = file.offset;
    file.offset += static_cast<uint64_t>(n);
    sink(std::string(buffer.data(), static_cast<size_t>(n)), file.path, lineOffset);
  }
}

size_t LogFollower::read(const LineSink& sink, size_t maxBytes, bool& caughtUp) {
  caughtUp = false;
  size_t lines = 0;
  size_t bytes = 0;
  refresh();
  while (!_queue.empty()) {
    bool atEnd = false;
    readLines(_queue.front(), sink, maxBytes, lines, bytes, atEnd);
    if (!atEnd) return lines;  // more is there; the caller comes back
    // At the end of the file. While it is the live file, or no newer file is
    // known yet, it may still grow: wait for it.
    if (_queue.size() == 1 || isLiveFile(_queue.front())) break;
    // Renamed away: every write into it has ended, so what is in it now is
    // all it will ever hold.
    finishFront(sink);
    if (bytes >= maxBytes) return lines;
  }
  caughtUp = true;
  return lines;
}

LogPosition LogFollower::position() const {
  LogPosition position;
  if (_queue.empty()) return position;
  const OpenFile& file = _queue.front();
  position.valid = true;
  position.identity = file.identity;
  position.offset = file.offset;
  // The first bytes of a file never change once they are there.
  if (file.headLength < HEAD) fingerprint(file.fd, HEAD, file.headLength, file.headHash);
  position.headLength = file.headLength;
  position.headHash = file.headHash;
  position.number = file.number;
  position.live = file.live;
  struct stat st;
  position.size = ::fstat(file.fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
  position.newestNumber = _newestNumber;
  position.anyNumbered = _anyNumbered;
  return position;
}

}  // namespace ZelTool
