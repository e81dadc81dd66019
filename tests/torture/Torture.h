// Torture.h - what the parts of the torture run share: the options, the
// seeded random numbers, the text of a record and the journal each logging
// process keeps.
//
// The run is one program in three roles: the supervisor (main: starts the
// writers, applies the faults of the schedule, checks the files at the end),
// the writer (the same program exec'd with --writer: several threads that
// log numbered records through the logging wrapper, fork children and switch
// the file name), and the checker (reads every log file, every writer's
// standard error and every journal, and tests the invariants).
//
// The journal: every process that logs appends one line per event to a file
// of its own (one write(2) each, so a SIGKILL leaves whole lines), outside the
// log directory:
//   P <id> <pid> <W|C> <parent id> <threads> <toggler>   who this process is
//   B <thread> <first seq> <last seq> <start> <end>      a batch was logged
//   f <thread> <start>                                   flush() is called
//   F <thread> <start> <end> <0|1>                       flush() returned
//   N <thread> <path>                                    set_fname(path)
//   C <child id> <child pid> <kind>                      a child was forked
//   E                                                    the process is done
// <start> and <end> are ticks of a per-process counter taken before the
// first and after the last call, so the checker can tell which flush() calls
// may have come between a record and the flush() that confirmed it.
#ifndef ZEL_TORTURE_TORTURE_H
#define ZEL_TORTURE_TORTURE_H

#include <cstdint>
#include <string>
#include <vector>

namespace ZelTorture {

// Size limit of every writer (one limit per run: the reuse rule of the
// rotation then never fires) and a count limit no run reaches, so that no
// numbered file is pruned and every record can be looked for.
constexpr unsigned kSizeLimit = 64 * 1024;
constexpr unsigned kMaxCount = 1000000;
// Function name of the records and the level they are logged at.
constexpr const char* kFunction = "torture";

// The faults; each can be switched on and off by name (--faults).
enum Fault : unsigned {
  kFork = 1u << 0,      // writers fork children that log, sleep or _exit
  kKill = 1u << 1,      // SIGKILL of writers, often while they hold the directory lock
  kRename = 1u << 2,    // the live file renamed from outside, in bursts
  kRmdir = 1u << 3,     // the log directory moved away and made again, new writers started
  kHold = 1u << 4,      // the directory lock held by a stranger for a while
  kHoldLong = 1u << 5,  // ... and for good (longer than the writers' 10 s give-up)
  kFname = 1u << 6,     // writers switch set_fname between two names
  kFullFs = 1u << 7,    // the log file system filled and freed (root: private tmpfs)
};
struct FaultName {
  const char* name;
  unsigned bit;
  const char* what;
};
extern const FaultName kFaultNames[];
extern const size_t kFaultCount;
constexpr unsigned kAllFaults = (1u << 8) - 1;
// "all", "none" or a comma list of names, each optionally prefixed with "-"
// to take it out ("all,-kill"). False on an unknown name.
bool parseFaults(const std::string& text, unsigned& faults);
std::string faultList(unsigned faults);

// splitmix64: small, fast and the same on every machine.
class Random {
 public:
  explicit Random(uint64_t seed) : _state(seed) {}
  uint64_t next() {
    uint64_t z = (_state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  // Uniform in [low, high].
  uint64_t between(uint64_t low, uint64_t high) { return low + next() % (high - low + 1); }
  bool chance(unsigned percent) { return next() % 100 < percent; }

 private:
  uint64_t _state;
};
uint64_t mix(uint64_t a, uint64_t b);

// The message of record (id, thread, seq) of process pid. The padding's
// length and letter follow from the numbers, so a record cut anywhere never
// reads as a whole one.
std::string recordMessage(unsigned id, unsigned thread, uint64_t seq, long pid);
// The line as the local file holds it, after the time stamp.
std::string lineAfterStamp(const std::string& message);

// Monotonic clock in microseconds (the same clock in every process).
int64_t monotonicMicros();
void sleepMicros(int64_t micros);

// Appends a whole line to a descriptor with one write(2).
void writeLine(int fd, const std::string& line);
void writeAll(int fd, const std::string& text);
std::string readFile(const std::string& path);
std::vector<std::string> listDir(const std::string& dir);
bool removeTree(const std::string& path);

// The run directory's layout, shared by the supervisor and the writers.
struct Layout {
  std::string run;       // the run's own temporary directory
  std::string fs;        // the file system of the logs (a tmpfs when root)
  std::string logDir;    // fs/log: TMPDIR of every writer
  std::string journals;  // run/journal
  std::string stderrs;   // run/stderr
  explicit Layout(const std::string& runDir);
  std::string journal(unsigned id) const { return journals + "/" + std::to_string(id); }
  std::string stderrFile(unsigned id) const { return stderrs + "/" + std::to_string(id); }
  std::string liveFile() const { return logDir + "/zel.log"; }
  std::string otherFile() const { return logDir + "/other.log"; }
};

// Writer mode: argv after "--writer".
int writerMain(int argc, char** argv);

}  // namespace ZelTorture

#endif  // ZEL_TORTURE_TORTURE_H
