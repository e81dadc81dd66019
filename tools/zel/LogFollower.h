// LogFollower.h - reads every line of the log exactly once and in order,
// across rotations by any number of processes, and remembers where it is.
//
// Why it works by identity and keeps files open: a rotation renames the live
// file to the next number and another one may prune the oldest files at any
// moment, so a name read now may stand for another file a moment later. The
// follower therefore opens each file of the log as soon as a directory scan
// shows it and from then on knows it only by its open descriptor and its
// device and inode. A file that is renamed or deleted while it waits or is
// being read stays readable through the descriptor. The file being read is
// finished once it is no longer the live file (the writers of the library
// check, under the directory lock, that they write into the live file, and
// a rotation renames under the same lock held exclusively, so nothing is
// appended to a file after it has been renamed away) and has been read to
// its end after that was seen; the follower then goes on with the next file
// in the order of the log: numbered files by number, then the live file.
//
// Only whole lines are handed out; the incomplete last line of the live file
// waits for its line break. A finished file whose last line has none (a
// record cut by a failed write) hands that line out as it is.
//
// The position (file identity, offset just behind the last line handed out,
// and a fingerprint of the file's first bytes so that a reused inode is not
// taken for the old file) can be saved and given to start() again.
//
// Not thread-safe; one follower per thread.
#ifndef ZEL_TOOL_LOG_FOLLOWER_H
#define ZEL_TOOL_LOG_FOLLOWER_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "LogFiles.h"

namespace ZelTool {

// Where reading stands: behind `offset` bytes of the file `identity`.
struct LogPosition {
  bool valid = false;
  FileIdentity identity;
  uint64_t offset = 0;
  uint64_t headLength = 0;  // how many of the file's first bytes `headHash` covers
  uint64_t headHash = 0;
  int32_t number = 0;       // the file's number when last seen, if it was numbered
  bool live = false;        // the file was the live file when last seen
  int64_t size = 0;         // its size when last seen
  int32_t newestNumber = 0; // the highest number in the log when last scanned
  bool anyNumbered = false;

  std::string toText() const;
  bool fromText(const std::string& text);
};

class LogFollower {
 public:
  // line (without its line break), path of the file when last seen, offset
  // of the line in that file. While it runs, position() is the position just
  // behind the line.
  typedef std::function<void(const std::string& line, const std::string& path, uint64_t offset)> LineSink;

  explicit LogFollower(const LogLocation& location);
  ~LogFollower();
  LogFollower(const LogFollower&) = delete;
  LogFollower& operator=(const LogFollower&) = delete;

  // Opens the files of the log, from the beginning or from `resume`. When
  // the file of `resume` is gone (pruned meanwhile), reading starts at the
  // oldest file there is and `notice` says how many files and bytes were
  // skipped. False with `error` when the directory cannot be read.
  bool start(const LogPosition* resume, std::string& notice, std::string& error);

  // Hands out whole lines that are there now, up to about maxBytes of them
  // (at least one line when there is one), moving on to the next file when
  // the present one is finished. Returns the number of lines. `caughtUp` is
  // set when the live file has been read to its end.
  size_t read(const LineSink& sink, size_t maxBytes, bool& caughtUp);

  // Scans the directory and opens the files not seen before, so that files
  // pruned while the caller is busy elsewhere stay readable.
  void refresh();

  // Hands out the incomplete last line of the file being read, if any (for a
  // snapshot of the log, which will not wait for its line break).
  void readIncompleteLine(const LineSink& sink);

  LogPosition position() const;

  // What went wrong while reading that the reader should hear about (files
  // pruned before they could be opened), once; empty when nothing did.
  std::string takeNotice();

  // A descriptor that becomes readable when something in the log directory
  // changes (inotify), or -1; drain() empties it.
  int changeDescriptor() const { return _inotify; }
  void drain();

 private:
  struct OpenFile {
    int fd = -1;
    FileIdentity identity;
    uint64_t offset = 0;
    std::string path;
    int32_t number = 0;
    bool live = false;
    bool present = true;
    size_t scanIndex = 0;
    mutable uint64_t headLength = 0;  // of the fingerprint, filled in by position()
    mutable uint64_t headHash = 0;
  };
  struct DoneFile {
    int64_t size = 0;
    uint64_t headLength = 0;
    uint64_t headHash = 0;
  };

  bool scanAndOpen(std::string* error);
  bool isKnown(const LogFileEntry& entry) const;
  bool readLines(OpenFile& file, const LineSink& sink, size_t maxBytes, size_t& lines, size_t& bytes, bool& atEnd);
  bool isLiveFile(const OpenFile& file) const;
  void finishFront(const LineSink& sink);
  static void fingerprint(int fd, uint64_t length, uint64_t& headLength, uint64_t& hash);

  LogLocation _location;
  std::deque<OpenFile> _queue;  // front: the file being read
  std::map<FileIdentity, DoneFile> _done;
  int32_t _newestNumber = 0;
  int32_t _newestKnown = 0;  // the highest number of a file opened or read
  bool _anyKnown = false;
  std::string _notice;
  bool _anyNumbered = false;
  int _inotify = -1;
};

}  // namespace ZelTool

#endif  // ZEL_TOOL_LOG_FOLLOWER_H
