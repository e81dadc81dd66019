// Checker.h - the invariants of a torture run, tested over what it left:
// every log file of every generation of the log directory, every logging
// process's standard error and journal.
//
//  - a record logged before a flush() that returned true (and before every
//    other flush() that may have come between) is in the files exactly once;
//  - no record is in the files twice, or in the files and on standard error;
//  - within a file, each thread's records are in the order it logged them;
//    across the numbered files and the live file of each directory
//    generation too, for processes that never switched the file name;
//  - no line holds parts of two records, and every line is a record, a
//    dropped-records notice or a record cut by a full disk;
//  - a process that never failed a write has no hole in its records (a
//    killed one may miss only its last, unconfirmed ones);
//  - the dropped-records notices add up to the missing records;
//  - no process hung or died unasked (the supervisor reports those).
#ifndef ZEL_TORTURE_CHECKER_H
#define ZEL_TORTURE_CHECKER_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Torture.h"

namespace ZelTorture {

struct Violation {
  std::string invariant;
  std::vector<std::string> details;  // concrete record ids, files, lines
  size_t count = 0;                   // how many cases (details holds the first few)
  void add(const std::string& detail);
};

class Violations {
 public:
  void add(const std::string& invariant, const std::string& detail);
  bool empty() const { return _byName.empty(); }
  const std::map<std::string, Violation>& all() const { return _byName; }

 private:
  std::map<std::string, Violation> _byName;
};

struct CheckFigures {
  size_t processes = 0;         // logging processes with a journal
  size_t killedProcesses = 0;   // of these, killed or hung (no end in the journal)
  size_t files = 0;             // log files read
  size_t directories = 0;       // generations of the log directory
  unsigned long long bytes = 0;
  unsigned long long largestFile = 0;
  unsigned long long logged = 0;      // records the journals say were logged
  unsigned long long confirmed = 0;   // of these, confirmed by flush()
  unsigned long long found = 0;       // records found in the files
  unsigned long long onStderr = 0;    // records found on standard error
  unsigned long long missing = 0;     // logged and found nowhere
  unsigned long long notices = 0;     // sum of the dropped-records notices
  unsigned long long cutLines = 0;    // records cut by a full disk (allowed)
  unsigned long long emptyLines = 0;
  std::map<std::string, unsigned> stderrMessages;  // library messages on standard error, by kind
};

// Checks the run in `layout`. `hungPids` are processes the supervisor had to
// kill at the end (reported by it): their records count as a killed
// process's.
CheckFigures checkRun(const Layout& layout, const std::set<long>& hungPids, Violations& violations);

}  // namespace ZelTorture

#endif  // ZEL_TORTURE_CHECKER_H
