// LoggingWrapper: naming and size rotation of the local log file.
//
// The live file (e.g. /tmp/zel.log) is shifted into numbered siblings
// (/tmp/zel.log.1, .2, ...; a higher number is newer) when it has grown past
// _maxSize. Everything here runs under LoggingWrapper::_lock, held by the
// record writers; nothing here takes it. Failures of rename and unlink are
// deliberately ignored: a record must never be lost to a rotation problem.
//
// Several processes may write the same file. A rotation therefore runs
// under the log directory's lock held exclusively (internal::LogFile), and
// is checked again under it: when the live path already names another file
// than the one this process has open, another process has just rotated, and
// this one only reopens the live file. While another process holds the lock
// the rotation is put off to a later record, never run without it.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <sstream>

#include <zel/LoggingWrapper.h>
#include "internal/LogFile.h"
#include "internal/LogFileNames.h"

namespace Zel {

namespace internal {

int32_t filenameIndex(const char* name) {
  if (name == nullptr || *name == '\0') return 0;
  const char* slash = std::strrchr(name, '/');
  return slash == nullptr ? 0 : static_cast<int32_t>(slash - name + 1);
}

bool parseNumber(uint64_t& value, const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  const long number = std::strtol(begin, &end, 10);
  // The conversion must stop on the string's own terminating NUL, not on a
  // NUL embedded in it ("1\0x" is not the number 1).
  if (end != begin + text.size()) return false;
  value = static_cast<uint64_t>(number);
  return true;
}

int64_t getFileSize(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return 0;
  return static_cast<int64_t>(st.st_size);
}

bool matchLogFileName(const std::string& entry, const std::string& baseName, uint64_t& number) {
  // Deliberately loose: a substring anywhere, not an anchored prefix.
  if (entry.size() <= baseName.size() || entry.find(baseName) == std::string::npos) return false;
  return parseNumber(number, entry.substr(baseName.size() + 1));
}

}  // namespace internal

namespace {

// last + 1 without signed overflow: a stray name such as zel.log.2147483647
// wraps to the lowest number. Such a last number is never below _lastIndex,
// so the slot is renumbered before it is used.
int32_t followingIndex(int32_t last) {
  return static_cast<int32_t>(static_cast<uint32_t>(last) + 1u);
}

}  // namespace

std::string LoggingWrapper::getAbsFilename(const std::string& name) const { return _dirName + "/" + name; }

std::string LoggingWrapper::makeLogFilename(int32_t index) const {
  std::ostringstream name;
  // Plain digits whatever global locale the host program has installed: a
  // number written with thousands separators ("1,000") would never be read
  // back by getFileMatches.
  name.imbue(std::locale::classic());
  name << _dirName << "/" << _baseName << "." << index;
  return name.str();
}

bool LoggingWrapper::getFileMatches(FileMatches& matches) const {
  matches.clear();
  DIR* dir = opendir(_dirName.c_str());
  if (dir == nullptr) {
    std::fprintf(stderr, "Failed to open dir %s\n\n", _dirName.c_str());
    std::fflush(stderr);
    return false;
  }
  while (struct dirent* entry = readdir(dir)) {
    uint64_t number = 0;
    const std::string name = entry->d_name;
    if (!internal::matchLogFileName(name, _baseName, number)) continue;
    matches.emplace_back(static_cast<int32_t>(number), getAbsFilename(name));
  }
  closedir(dir);
  std::sort(matches.begin(), matches.end());
  return true;
}

void LoggingWrapper::renumberFiles(FileMatches& matches) {
  for (size_t i = 0; i < matches.size(); ++i) {
    const int32_t number = _firstIndex + static_cast<int32_t>(i);
    std::string path = makeLogFilename(number);
    if (::access(matches[i].second.c_str(), W_OK) == 0) (void)std::rename(matches[i].second.c_str(), path.c_str());
    matches[i].first = number;
    matches[i].second = std::move(path);
  }
}

void LoggingWrapper::removeOldLogFiles(FileMatches& matches) {
  const size_t keep = _maxCount;
  if (matches.size() <= keep) return;
  const size_t surplus = matches.size() - keep;
  for (size_t i = 0; i < surplus; ++i) {
    if (::access(matches[i].second.c_str(), W_OK) == 0) (void)::unlink(matches[i].second.c_str());
  }
  matches.erase(matches.begin(), matches.begin() + static_cast<std::ptrdiff_t>(surplus));
}

void LoggingWrapper::rotateLogs() {
  FileMatches matches;
  (void)getFileMatches(matches);
  if (!matches.empty()) {
    const int32_t last = matches.back().first;
    const uint64_t lastSize = static_cast<uint64_t>(internal::getFileSize(matches.back().second));
    // A newest numbered file that is not full is reused: the live file is
    // renamed onto it.
    // A numbered file that another process rotated while this one ran is
    // never written over: it holds that process's records.
    if (!(static_cast<uint64_t>(load(_maxSize)) > lastSize && _file->mayReuse(matches.back().second))) {
      const int32_t next = followingIndex(last);
      matches.emplace_back(next, makeLogFilename(next));
      if (!(_lastIndex > last)) renumberFiles(matches);
    }
  } else {
    matches.emplace_back(_firstIndex, makeLogFilename(_firstIndex));
  }
  removeOldLogFiles(matches);
  // With a count limit of 0 nothing is kept and there is no target: the
  // live file then stays and is appended to.
  if (matches.empty()) return;
  const std::string target = matches.back().second;
  // Only the file this process had open is rotated: a file another writer
  // started after a tool renamed ours away stays live.
  if (::access(_fname.c_str(), W_OK) == 0 && _file->mayRenameLivePath()) {
    (void)std::rename(_fname.c_str(), target.c_str());
    _file->noteRotated(target);
  }
}

void LoggingWrapper::check_and_rotate_log_file() {
  if (isClosed()) {
    std::fprintf(stderr, "%s\n", "LoggingWrapper::check_and_rotate_log_file: LoggingWrapper has been closed!");
    std::fflush(stderr);
    return;
  }
  if (!_file->isOpen()) return;
  struct stat st;
  if (::fstat(_file->descriptor(), &st) != 0) {
    const int statError = errno;
    std::fprintf(stderr, "Failed to stat log file. Errno: %d: %s\n", statError, std::strerror(statError));
    std::fflush(stderr);
    const int closeError = _file->closeAfterStatFailure();
    if (closeError != 0) {
      std::fprintf(stderr, "Failed to close log file. Errno: %d: %s\n", closeError, std::strerror(closeError));
      std::fflush(stderr);
    }
    return;
  }
  if (static_cast<int64_t>(st.st_size) <= static_cast<int64_t>(load(_maxSize))) return;
  // Only one process of the directory rotates at a time, and the check is
  // made again once the lock is held: another process may have rotated the
  // file in the meantime, and then the live file is reopened instead.
  internal::LogFile::RotationLock rotation(*_file);
  if (!rotation.mayRotate()) return;  // put off to a later record
  if (_file->replacedAtPath()) {
    const int error = _file->reopen();  // the buffer stays and goes to the live file
    if (error != 0) {
      errno = error;
      std::perror("Failed to open log file!");
    }
    return;
  }
  close_log_file();
  rotateLogs();
  open_log_file();
}

}  // namespace Zel
