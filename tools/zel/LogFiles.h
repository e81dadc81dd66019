// LogFiles.h - reading the framework's local log as the logging wrapper
// writes it: where the live file and its numbered siblings are, which files
// belong to the log and in which order, and what a record line holds.
//
// The order of the files: the numbered files by their number (higher is
// newer), then the live file. A shell glob (zel.log*) sorts zel.log.10
// before zel.log.2 and so mixes up the records of every writer; this unit
// reads numbers exactly as the wrapper does when it rotates, so the tool and
// the wrapper never disagree on which file is older.
#ifndef ZEL_TOOL_LOG_FILES_H
#define ZEL_TOOL_LOG_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace ZelTool {

// The live file and where its numbered siblings are looked for.
struct LogLocation {
  std::string directory;  // where numbered files are made (no trailing "/")
  std::string baseName;   // numbered files are <directory>/<baseName>.<n>
  std::string live;       // the live file
};

// The log that the wrapper writes under the present environment: TMPDIR
// (default /tmp) and zel.log, or the file named by ZEL_LOGGING_FNAME when
// that has a "/" (its directory canonicalised as the wrapper does).
LogLocation defaultLogLocation();

// The log whose live file is `path`; a directory stands for zel.log in it.
LogLocation logLocationFor(const std::string& path);

// Identity of a file: device and inode. Names change at every rotation, the
// identity of an open file never does.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
  bool operator!=(const FileIdentity& other) const { return !(*this == other); }
  bool operator<(const FileIdentity& other) const {
    return device != other.device ? device < other.device : inode < other.inode;
  }
};

// One file of the log as a directory scan found it.
struct LogFileEntry {
  int32_t number = 0;  // the number of a numbered file; unused for the live file
  bool live = false;
  std::string path;
  FileIdentity identity;
  int64_t size = 0;
};

// The wrapper's test of a directory entry: longer than the base name, the
// base name somewhere in it, and the text from one past the base name's
// length a whole base-10 number (strtol), narrowed to 32 bits.
//   base "zel.log": "zel.log.3" -> 3, "zel.log." -> 0, "zel.log.007" -> 7,
//   "zel.log.7.gz" -> no, "zel.log" -> no
bool matchNumberedName(const std::string& entry, const std::string& baseName, int32_t& number);

// The files of the log, oldest first: the numbered files by number (equal
// numbers by path), then the live file if it exists. Entries that vanish
// between the directory read and their stat are left out. False, with a
// message in `error`, when the directory cannot be read.
bool scanLog(const LogLocation& location, std::vector<LogFileEntry>& files, std::string& error);

// The levels of the file: 0-6 with the tags EM AL CR ER WA NO IN, and the
// debug (trace) records, tag TR, counted as level 7 here (syslog's debug).
const int DEBUG_RECORD_LEVEL = 7;

// A level given by an operator: 0-7, syslog's names (emerg ... debug, with
// the usual aliases), the file's tags (EM ... IN, TR); 8 is taken as debug
// too, as the trace path writes at that level. Case does not matter.
bool parseLevelName(const std::string& text, int& level);

// Syslog's name of a level 0-7 ("emerg" ... "debug").
const char* levelName(int level);

// A line of the log taken apart. Lines that are not records (raw records,
// lines cut by a failed write) have `isRecord` false and only `line`.
struct LogRecord {
  bool isRecord = false;
  std::string stamp;     // as written, 23 to 29 characters
  time_t seconds = 0;    // the stamp's whole second, as a point in time
  int level = 0;         // 0-6, or DEBUG_RECORD_LEVEL for TR
  std::string tag;       // "EM" ... "TR"
  std::string source;    // trace records: "<file>:<line>"
  std::string function;
  std::string message;
};

// Takes one line (without its line break) apart.
LogRecord parseRecordLine(const std::string& line);

// A time stamp as the wrapper writes it, or a shorter form of it:
//   2026-03-01T12:00:00.512+01:00, 2026-03-01T12:00:00+01:00,
//   2026-03-01T12:00:00, 2026-03-01T12:00, 2026-03-01 (a blank may stand for
//   the T). Without an offset the time is local time. The fraction is read
//   and ignored: the wrapper writes the first three digits of the
//   microsecond count, which is no decimal fraction of the second (42 us is
//   written .42), so records can only be placed by their whole second.
bool parseTimeStamp(const std::string& text, time_t& seconds);

// Text as a JSON string, quotes included. Bytes that are not UTF-8 are
// written as the text \xNN, the way the log escapes control characters.
std::string jsonString(const std::string& text);

}  // namespace ZelTool

#endif  // ZEL_TOOL_LOG_FILES_H
