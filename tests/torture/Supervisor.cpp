// zel_torture: a seeded torture run of the shared log file.
//
//   zel_torture [--seconds N] [--seed S] [--faults LIST] [--dir D] [--keep] [--verbose]
//
// From one seed it draws a schedule of faults and starts several writer
// processes (this program again, exec'd in writer mode: threads that log
// numbered records through the logging wrapper into one log directory,
// fork children and switch the file name). While they write, it applies the
// schedule: SIGKILLs writers (all but the first two, most often while they
// hold the directory lock), renames the live file from outside, moves the
// log directory away and makes it again, holds the directory lock for a
// while or for good, fills the log file system and frees it again. At the end it waits for
// every process (a process that does not end is a hang: its stacks are
// printed when gdb is there), then checks the invariants (Checker.h) over
// every file and prints each broken one with concrete record ids and the
// seed that replays the schedule.
//
// Exit status: 0 when every invariant held, 1 when one was broken, 2 on a
// usage error or when the run could not be set up or was interrupted.
//
// Everything lives in a fresh directory under --dir (default $TMPDIR, else
// /tmp), removed at the end unless --keep. As root the log directory is a
// tmpfs in a private mount namespace, which is what makes the disk-full
// fault possible; otherwise that fault is left out.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Checker.h"
#include "Torture.h"

namespace ZelTorture {

namespace {

// The last seconds of a run have no faults, so that every writer can catch
// up before it stops.
const int64_t kQuietMicros = 3000000;
// How long the writers may take to stop after the run's end, and how long
// logging children may still need after that, before they count as hung.
const int64_t kStopGraceMicros = 30000000;
const int64_t kChildGraceMicros = 5000000;
// Stacks are printed for this many hung processes; the rest are only listed.
const int kMaxStacks = 3;
// The tmpfs's size when it is not being filled: far beyond what a run writes.
const unsigned long long kRoomyFs = 8ull << 30;
const unsigned kMaxWriters = 6;

volatile sig_atomic_t gInterrupted = 0;
void onInterrupt(int) { gInterrupted = 1; }

struct Options {
  int64_t seconds = 30;
  uint64_t seed = 0;
  bool seedGiven = false;
  unsigned faults = kAllFaults;
  std::string dir;
  bool keep = false;
  bool verbose = false;
};

void usage(FILE* out) {
  std::fprintf(out,
               "usage: zel_torture [--seconds N] [--seed S] [--faults LIST] [--dir D] [--keep] [--verbose]\n"
               "  --seconds N    length of the run (default 30)\n"
               "  --seed S       seed of the schedule (default: a new one, printed)\n"
               "  --faults LIST  comma list of faults, \"all\" (default) or \"none\"; \"-name\" takes one out,\n"
               "                 e.g. all,-kill\n"
               "  --dir D        where the run's directory is made (default $TMPDIR, else /tmp)\n"
               "  --keep         keep the run's directory (logs, journals, standard error)\n"
               "  --verbose      print every fault as it is applied\n"
               "faults:\n");
  for (size_t i = 0; i < kFaultCount; ++i) std::fprintf(out, "  %-9s %s\n", kFaultNames[i].name, kFaultNames[i].what);
  std::fprintf(out, "exit status: 0 every invariant held, 1 one was broken, 2 usage error or no run\n");
}

bool parseNumber(const char* text, unsigned long long& value) {
  if (text == nullptr || *text == '\0' || *text == '-') return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtoull(text, &end, 10);
  return errno == 0 && *end == '\0';
}

// 0: parsed; otherwise the exit status.
int parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    unsigned long long number = 0;
    if (arg == "--help" || arg == "-h") {
      usage(stdout);
      return -1;
    } else if (arg == "--keep") {
      options.keep = true;
    } else if (arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--seconds") {
      if (!parseNumber(value, number) || number < 5 || number > 86400) {
        std::fprintf(stderr, "zel_torture: --seconds takes a number of seconds from 5 to 86400\n");
        return 2;
      }
      options.seconds = static_cast<int64_t>(number);
      ++i;
    } else if (arg == "--seed") {
      if (!parseNumber(value, number)) {
        std::fprintf(stderr, "zel_torture: --seed takes an unsigned number\n");
        return 2;
      }
      options.seed = number;
      options.seedGiven = true;
      ++i;
    } else if (arg == "--faults") {
      if (value == nullptr || !parseFaults(value, options.faults)) {
        std::fprintf(stderr, "zel_torture: --faults takes a comma list of fault names (see --help)\n");
        return 2;
      }
      ++i;
    } else if (arg == "--dir") {
      if (value == nullptr || *value == '\0') {
        std::fprintf(stderr, "zel_torture: --dir takes a directory\n");
        return 2;
      }
      options.dir = value;
      ++i;
    } else {
      std::fprintf(stderr, "zel_torture: unknown argument %s\n", arg.c_str());
      usage(stderr);
      return 2;
    }
  }
  return 0;
}

uint64_t newSeed() {
  uint64_t seed = 0;
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    if (::read(fd, &seed, sizeof(seed)) != static_cast<ssize_t>(sizeof(seed))) seed = 0;
    ::close(fd);
  }
  if (seed == 0) seed = static_cast<uint64_t>(monotonicMicros()) ^ (static_cast<uint64_t>(::getpid()) << 32);
  return seed % 1000000000000ull;  // short enough to type
}

// ---- the schedule ------------------------------------------------------------

enum class Action { Spawn, Kill, RenameBurst, ReplaceDir, Hold, HoldLong, FillFs };

struct Event {
  int64_t at;  // microseconds from the start
  Action action;
  uint64_t a;  // what the action needs (see apply)
  uint64_t b;
  uint64_t c;
};

const char* actionName(Action action) {
  switch (action) {
    case Action::Spawn: return "spawn";
    case Action::Kill: return "kill";
    case Action::RenameBurst: return "rename";
    case Action::ReplaceDir: return "rmdir";
    case Action::Hold: return "hold";
    case Action::HoldLong: return "holdlong";
    case Action::FillFs: return "fullfs";
  }
  return "?";
}

std::vector<Event> makeSchedule(uint64_t seed, int64_t micros, unsigned faults) {
  Random rng(seed);
  std::vector<Event> events;
  const unsigned initial = static_cast<unsigned>(rng.between(3, 5));
  for (unsigned i = 0; i < initial; ++i) events.push_back({0, Action::Spawn, 1, 0, 0});
  const int64_t end = micros - kQuietMicros;
  // One hold for good per run, long enough that the writers give up
  // waiting for the lock (10 s) and go on.
  if ((faults & kHoldLong) != 0 && end > 14000000) {
    const int64_t latest = end - 12000000;
    const int64_t at = static_cast<int64_t>(rng.between(500000, static_cast<uint64_t>(std::max<int64_t>(latest, 500001))));
    events.push_back({at, Action::HoldLong, static_cast<uint64_t>(end - at), 0, 0});
  }
  struct Weighted {
    Action action;
    unsigned fault;
    unsigned weight;
  };
  const Weighted kinds[] = {
      {Action::Kill, kKill, 4},      {Action::RenameBurst, kRename, 2}, {Action::ReplaceDir, kRmdir, 1},
      {Action::Hold, kHold, 2},      {Action::FillFs, kFullFs, 2},      {Action::Spawn, 0, 1},
  };
  unsigned total = 0;
  for (const Weighted& k : kinds)
    if (k.fault == 0 || (faults & k.fault) != 0) total += k.weight;
  int64_t t = 0;
  for (;;) {
    t += static_cast<int64_t>(rng.between(150000, 1200000));
    if (t >= end) break;
    uint64_t pick = rng.between(0, total - 1);
    const Weighted* chosen = nullptr;
    for (const Weighted& k : kinds) {
      if (k.fault != 0 && (faults & k.fault) == 0) continue;
      if (pick < k.weight) {
        chosen = &k;
        break;
      }
      pick -= k.weight;
    }
    if (chosen == nullptr) continue;
    Event e{t, chosen->action, 0, 0, 0};
    switch (chosen->action) {
      case Action::Kill:
        e.a = rng.next();                  // which writer
        e.b = rng.chance(80) ? 1 : 0;      // aim at a moment it holds the directory lock
        e.c = rng.between(0, 500000);      // when its successor starts
        break;
      case Action::RenameBurst:
        e.a = rng.between(300000, 3000000);  // length
        e.b = rng.between(10000, 80000);     // between two renames
        break;
      case Action::ReplaceDir:
        e.a = rng.between(1, 2);  // new writers
        break;
      case Action::Hold:
        e.a = rng.between(20000, 3000000);
        break;
      case Action::FillFs:
        e.a = rng.between(200000, 3000000);  // how long the disk stays full
        e.b = rng.between(0, 32) * 1024;     // room left
        break;
      case Action::Spawn:
        e.a = 1;
        break;
      case Action::HoldLong:
        break;
    }
    events.push_back(e);
  }
  std::stable_sort(events.begin(), events.end(), [](const Event& x, const Event& y) { return x.at < y.at; });
  return events;
}

// ---- processes ---------------------------------------------------------------

struct ProcInfo {
  long pid = 0;
  long ppid = 0;
  std::string comm;
  unsigned long long startTicks = 0;
};

std::map<long, ProcInfo> allProcesses() {
  std::map<long, ProcInfo> result;
  for (const std::string& name : listDir("/proc")) {
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = readFile("/proc/" + name + "/stat");
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) continue;
    ProcInfo p;
    p.pid = std::strtol(name.c_str(), nullptr, 10);
    p.comm = stat.substr(open + 1, close - open - 1);
    // After the name: state ppid pgrp session tty tpgid flags minflt cminflt
    // majflt cmajflt utime stime cutime cstime priority nice threads
    // itrealvalue starttime.
    std::istringstream rest(stat.substr(close + 2));
    std::string state;
    rest >> state >> p.ppid;
    std::string skip;
    for (int i = 0; i < 17; ++i) rest >> skip;
    rest >> p.startTicks;
    if (state == "Z") continue;
    result[p.pid] = p;
  }
  return result;
}

// Every live process below this one (orphans come back to us: we are a
// child subreaper).
std::vector<ProcInfo> descendants() {
  const std::map<long, ProcInfo> all = allProcesses();
  std::vector<ProcInfo> found;
  std::set<long> mine = {static_cast<long>(::getpid())};
  bool grew = true;
  while (grew) {
    grew = false;
    for (const auto& entry : all) {
      if (mine.count(entry.first) == 0 && mine.count(entry.second.ppid) != 0) {
        mine.insert(entry.first);
        found.push_back(entry.second);
        grew = true;
      }
    }
  }
  return found;
}

bool haveGdb() {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  size_t at = 0;
  while (at <= dirs.size()) {
    size_t colon = dirs.find(':', at);
    if (colon == std::string::npos) colon = dirs.size();
    const std::string candidate = dirs.substr(at, colon - at) + "/gdb";
    if (::access(candidate.c_str(), X_OK) == 0) return true;
    at = colon + 1;
  }
  return false;
}

// The stacks of every thread of `pid`, from gdb, or why there are none.
std::string stacksOf(long pid) {
  if (!haveGdb()) return "    (no stacks: gdb is not installed)\n";
  const std::string command =
      "timeout 60 gdb -p " + std::to_string(pid) + " -batch -ex 'thread apply all bt' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return "    (no stacks: popen failed)\n";
  std::string out;
  char line[1024];
  int lines = 0;
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    // Only the stack frames and thread headings.
    if (line[0] != '#' && std::strncmp(line, "Thread ", 7) != 0) continue;
    if (++lines > 80) continue;
    out += "    ";
    out += line;
  }
  ::pclose(pipe);
  return out.empty() ? "    (gdb printed no stack)\n" : out;
}

// ---- the supervisor ------------------------------------------------------------

// The first writers of a run are never killed: a fault such as a lock
// pinned by a dead writer's child only loses records in writers that live
// long enough to give up waiting for the lock.
const unsigned kLastImmortalWriter = 2;

struct Writer {
  unsigned id;
  long pid;
  bool killed = false;
  bool exited = false;
  int status = 0;
};

class Supervisor {
 public:
  Supervisor(const Options& options, const std::string& self)
      : _options(options), _self(self), _layout(""), _rng(mix(options.seed, 0x70727475)) {}

  int run();

 private:
  bool setUp();
  void tearDown(bool failed);
  bool makeMountNamespace();
  void apply(const Event& e);
  void tick(int64_t now);
  void reap();
  long spawnWriter();
  long startHolder(int64_t micros);
  void killWriter(const Event& e);
  bool holdsDirectoryLock(long pid);
  void replaceDirectory(unsigned newWriters);
  bool fillFs(unsigned long long room);
  void freeFs();
  void stopFaults();
  void finishProcesses();
  void say(const std::string& text) {
    if (_options.verbose) std::printf("  %7.3f s  %s\n", static_cast<double>(monotonicMicros() - _start) / 1e6, text.c_str());
  }

  Options _options;
  std::string _self;
  Layout _layout;
  Random _rng;  // runtime choices that do not change the schedule
  bool _tmpfs = false;
  int64_t _start = 0;
  int64_t _until = 0;
  unsigned _nextWriterId = 1;
  unsigned _generation = 0;
  std::vector<Writer> _writers;
  std::set<long> _holders;
  std::vector<std::pair<int64_t, unsigned>> _pendingSpawns;  // (when, how many)
  int64_t _renameUntil = 0;
  int64_t _renameEvery = 0;
  int64_t _nextRename = 0;
  unsigned _renameCount = 0;
  int64_t _fullUntil = 0;
  std::set<long> _hung;
  Violations _violations;
  // What was applied, for the summary.
  unsigned _kills = 0, _killsHolding = 0, _bursts = 0, _replaced = 0, _holds = 0, _fills = 0;
  int64_t _longHold = 0;
};

bool Supervisor::makeMountNamespace() {
  if (::geteuid() != 0) {
    std::printf("zel_torture: not root: no private tmpfs, so the full-disk fault is left out\n");
    return false;
  }
  if (::unshare(CLONE_NEWNS) != 0) {
    std::printf("zel_torture: no private mount namespace (unshare: %s): the full-disk fault is left out\n",
                std::strerror(errno));
    return false;
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    std::printf("zel_torture: cannot make / private in the mount namespace (%s): the full-disk fault is left out\n",
                std::strerror(errno));
    return false;
  }
  const std::string size = "size=" + std::to_string(kRoomyFs) + ",mode=0755";
  if (::mount("tmpfs", _layout.fs.c_str(), "tmpfs", 0, size.c_str()) != 0) {
    std::printf("zel_torture: cannot mount a tmpfs (%s): the full-disk fault is left out\n", std::strerror(errno));
    return false;
  }
  return true;
}

bool Supervisor::setUp() {
  std::string base = _options.dir;
  if (base.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  }
  std::string pattern = base + "/zel-torture.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    std::fprintf(stderr, "zel_torture: cannot make a directory in %s: %s\n", base.c_str(), std::strerror(errno));
    return false;
  }
  // Absolute, so that the writers' TMPDIR does not depend on where they run.
  char* absolute = ::realpath(buffer.data(), nullptr);
  _layout = Layout(absolute != nullptr ? absolute : buffer.data());
  std::free(absolute);
  for (const std::string& dir : {_layout.fs, _layout.journals, _layout.stderrs}) {
    if (::mkdir(dir.c_str(), 0755) != 0) {
      std::fprintf(stderr, "zel_torture: mkdir %s: %s\n", dir.c_str(), std::strerror(errno));
      return false;
    }
  }
  if ((_options.faults & kFullFs) != 0) {
    _tmpfs = makeMountNamespace();
    if (!_tmpfs) _options.faults &= ~kFullFs;
  }
  if (::mkdir(_layout.logDir.c_str(), 0755) != 0) {
    std::fprintf(stderr, "zel_torture: mkdir %s: %s\n", _layout.logDir.c_str(), std::strerror(errno));
    return false;
  }
  // Orphaned children of killed writers come back to us, so that every
  // process of the run can be found and ended.
  (void)prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  return true;
}

long Supervisor::spawnWriter() {
  const unsigned id = _nextWriterId++;
  const std::string until = std::to_string(_until);
  const std::string seed = std::to_string(_options.seed);
  const std::string faults = std::to_string(_options.faults);
  const std::string errPath = _layout.stderrFile(id);
  const pid_t pid = ::fork();
  if (pid < 0) {
    std::fprintf(stderr, "zel_torture: fork: %s\n", std::strerror(errno));
    return -1;
  }
  if (pid == 0) {
    ::setenv("TMPDIR", _layout.logDir.c_str(), 1);
    ::setenv("ZEL_LOGGING_FNAME", _layout.liveFile().c_str(), 1);
    ::setenv("ZEL_LOGGING_FMAXSIZE", std::to_string(kSizeLimit).c_str(), 1);
    ::setenv("ZEL_LOGGING_FMAXCOUNT", std::to_string(kMaxCount).c_str(), 1);
    ::setenv("ZEL_LOGGING_LEVEL", "6", 1);
    ::unsetenv("TAV_ENV");
    ::unsetenv("ZEL_LOGGING_CRASH_FLUSH");
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (err >= 0) {
      (void)::dup2(err, 2);
      ::close(err);
    }
    const std::string idText = std::to_string(id);
    const char* argv[] = {"zel_torture", "--writer", idText.c_str(), seed.c_str(), until.c_str(), faults.c_str(),
                          _layout.run.c_str(), nullptr};
    ::execv(_self.c_str(), const_cast<char* const*>(argv));
    std::perror("zel_torture: exec of a writer");
    _exit(127);
  }
  _writers.push_back({id, static_cast<long>(pid)});
  say("writer " + std::to_string(id) + " started, pid " + std::to_string(pid));
  return pid;
}

long Supervisor::startHolder(int64_t micros) {
  const std::string dir = _layout.logDir;
  const pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    (void)prctl(PR_SET_NAME, "zt-holder", 0, 0, 0);
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) _exit(1);
    while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    sleepMicros(micros);
    _exit(0);
  }
  _holders.insert(pid);
  return pid;
}

// Whether /proc/locks shows a flock on the log directory taken by `pid`.
bool Supervisor::holdsDirectoryLock(long pid) {
  struct stat dir;
  if (::stat(_layout.logDir.c_str(), &dir) != 0) return false;
  std::istringstream locks(readFile("/proc/locks"));
  std::string line;
  while (std::getline(locks, line)) {
    // "1: FLOCK  ADVISORY  WRITE 1234 00:2d:5678 0 EOF"; blocked waiters
    // are shown with "->" and hold nothing.
    if (line.find("->") != std::string::npos) continue;
    std::istringstream fields(line);
    std::string number, type, advisory, mode, where;
    long holder = 0;
    fields >> number >> type >> advisory >> mode >> holder >> where;
    if (type != "FLOCK" || holder != pid) continue;
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos) continue;
    if (std::strtoull(where.c_str() + colon + 1, nullptr, 10) == static_cast<unsigned long long>(dir.st_ino))
      return true;
  }
  return false;
}

void Supervisor::killWriter(const Event& e) {
  std::vector<Writer*> alive;
  for (Writer& w : _writers)
    if (!w.exited && !w.killed && w.id > kLastImmortalWriter) alive.push_back(&w);
  if (alive.empty()) return;
  Writer& victim = *alive[e.a % alive.size()];
  bool holding = false;
  if (e.b != 0) {
    // Stop it at random moments until it is caught holding the directory
    // lock (a rotation, or a write under the shared lock); give up after a
    // while and kill it anyway.
    const int64_t giveUp = monotonicMicros() + 1500000;
    while (monotonicMicros() < giveUp && !holding) {
      if (::kill(static_cast<pid_t>(victim.pid), SIGSTOP) != 0) break;
      int status = 0;
      const pid_t got = ::waitpid(static_cast<pid_t>(victim.pid), &status, WUNTRACED);
      if (got == victim.pid && !WIFSTOPPED(status)) {
        victim.exited = true;
        victim.status = status;
        return;
      }
      holding = holdsDirectoryLock(victim.pid);
      if (holding) break;
      (void)::kill(static_cast<pid_t>(victim.pid), SIGCONT);
      sleepMicros(static_cast<int64_t>(_rng.between(100, 3000)));
    }
  }
  (void)::kill(static_cast<pid_t>(victim.pid), SIGKILL);
  (void)::kill(static_cast<pid_t>(victim.pid), SIGCONT);
  victim.killed = true;
  ++_kills;
  if (holding) ++_killsHolding;
  say("writer " + std::to_string(victim.id) + " killed" + (holding ? " while holding the directory lock" : ""));
  _pendingSpawns.emplace_back(monotonicMicros() + static_cast<int64_t>(e.c), 1);
}

void Supervisor::replaceDirectory(unsigned newWriters) {
  // Moved away, not deleted: what the writers wrote before stays readable
  // for the checker, and to the writers it is the same as a deletion (the
  // path names a new directory).
  const std::string old = _layout.fs + "/log.gen" + std::to_string(++_generation);
  if (::rename(_layout.logDir.c_str(), old.c_str()) != 0) {
    std::fprintf(stderr, "zel_torture: rename %s: %s\n", _layout.logDir.c_str(), std::strerror(errno));
    return;
  }
  if (::mkdir(_layout.logDir.c_str(), 0755) != 0) {
    std::fprintf(stderr, "zel_torture: mkdir %s: %s\n", _layout.logDir.c_str(), std::strerror(errno));
    return;
  }
  ++_replaced;
  say("log directory replaced (old one is log.gen" + std::to_string(_generation) + ")");
  _pendingSpawns.emplace_back(monotonicMicros() + 50000, newWriters);
}

bool Supervisor::fillFs(unsigned long long room) {
  // The tmpfs made just big enough for what it holds: no memory is spent on
  // a filler file, and the writers find the disk full at once.
  for (int attempt = 0; attempt < 20; ++attempt) {
    struct statvfs st;
    if (::statvfs(_layout.fs.c_str(), &st) != 0) return false;
    const unsigned long long used = (st.f_blocks - st.f_bfree) * st.f_frsize;
    const std::string size = "size=" + std::to_string(used + room + 4096);
    if (::mount("tmpfs", _layout.fs.c_str(), "tmpfs", MS_REMOUNT, size.c_str()) == 0) return true;
    if (errno != EINVAL) break;  // EINVAL: it grew meanwhile
  }
  std::fprintf(stderr, "zel_torture: cannot shrink the tmpfs: %s\n", std::strerror(errno));
  return false;
}

void Supervisor::freeFs() {
  if (_fullUntil == 0) return;
  _fullUntil = 0;
  const std::string size = "size=" + std::to_string(kRoomyFs);
  if (::mount("tmpfs", _layout.fs.c_str(), "tmpfs", MS_REMOUNT, size.c_str()) != 0)
    std::fprintf(stderr, "zel_torture: cannot grow the tmpfs again: %s\n", std::strerror(errno));
  say("disk free again");
}

void Supervisor::apply(const Event& e) {
  const int64_t now = monotonicMicros();
  switch (e.action) {
    case Action::Spawn: {
      unsigned alive = 0;
      for (const Writer& w : _writers) alive += !w.exited && !w.killed ? 1 : 0;
      if (alive < kMaxWriters) spawnWriter();
      break;
    }
    case Action::Kill:
      killWriter(e);
      break;
    case Action::RenameBurst:
      ++_bursts;
      _renameUntil = std::max(_renameUntil, now + static_cast<int64_t>(e.a));
      _renameEvery = static_cast<int64_t>(e.b);
      _nextRename = now;
      say("renames from outside for " + std::to_string(e.a / 1000) + " ms");
      break;
    case Action::ReplaceDir:
      replaceDirectory(static_cast<unsigned>(e.a));
      break;
    case Action::Hold:
      ++_holds;
      startHolder(static_cast<int64_t>(e.a));
      say("directory lock held for " + std::to_string(e.a / 1000) + " ms");
      break;
    case Action::HoldLong:
      _longHold = static_cast<int64_t>(e.a);
      startHolder(static_cast<int64_t>(e.a) + 60000000);  // ended by stopFaults
      say("directory lock held for good (" + std::to_string(e.a / 1000000) + " s)");
      break;
    case Action::FillFs:
      if (_fullUntil != 0) break;
      if (fillFs(e.b)) {
        ++_fills;
        _fullUntil = now + static_cast<int64_t>(e.a);
        say("disk full for " + std::to_string(e.a / 1000) + " ms");
      }
      break;
  }
}

void Supervisor::reap() {
  for (;;) {
    int status = 0;
    const pid_t pid = ::waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return;
    _holders.erase(pid);
    for (Writer& w : _writers) {
      if (w.pid != pid) continue;
      w.exited = true;
      w.status = status;
      if (!w.killed && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
        const std::string how = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                                    : "status " + std::to_string(WEXITSTATUS(status));
        _violations.add("a process died unasked", "writer " + std::to_string(w.id) + " (pid " + std::to_string(pid) +
                                                      ") ended with " + how + "; see its standard error");
      }
    }
  }
}

void Supervisor::tick(int64_t now) {
  if (_renameUntil != 0 && now >= _nextRename) {
    if (now >= _renameUntil) {
      _renameUntil = 0;
    } else {
      const std::string target = _layout.logDir + "/moved-" + std::to_string(++_renameCount);
      (void)::rename(_layout.liveFile().c_str(), target.c_str());  // no live file at this moment: nothing to do
      _nextRename = now + _renameEvery;
    }
  }
  if (_fullUntil != 0 && now >= _fullUntil) freeFs();
  for (size_t i = 0; i < _pendingSpawns.size();) {
    if (_pendingSpawns[i].first <= now) {
      for (unsigned n = 0; n < _pendingSpawns[i].second; ++n) spawnWriter();
      _pendingSpawns.erase(_pendingSpawns.begin() + static_cast<std::ptrdiff_t>(i));
    } else {
      ++i;
    }
  }
  reap();
}

void Supervisor::stopFaults() {
  _renameUntil = 0;
  freeFs();
  for (long pid : _holders) (void)::kill(static_cast<pid_t>(pid), SIGKILL);
  say("faults stopped");
}

// After the end: every writer must stop, every logging child must finish;
// the ones that do not are hung. Children that never log are ended here.
void Supervisor::finishProcesses() {
  const int64_t writersBy = _until + kStopGraceMicros;
  for (;;) {
    reap();
    bool running = false;
    for (const Writer& w : _writers) running = running || !w.exited;
    if (!running || monotonicMicros() >= writersBy || gInterrupted) break;
    sleepMicros(20000);
  }
  const int64_t childrenBy = monotonicMicros() + kChildGraceMicros;
  for (;;) {
    reap();
    bool waiting = false;
    for (const ProcInfo& p : descendants()) {
      if (p.comm == "zt-sleeper" || p.comm == "zt-holder") {
        (void)::kill(static_cast<pid_t>(p.pid), SIGKILL);
      } else {
        waiting = true;
      }
    }
    if (!waiting || monotonicMicros() >= childrenBy || gInterrupted) break;
    sleepMicros(50000);
  }
  // What is left has hung. Logging children are named by their journals.
  std::map<long, std::string> named;
  for (const std::string& name : listDir(_layout.journals)) {
    std::istringstream first(readFile(_layout.journals + "/" + name));
    std::string kind, role;
    unsigned id = 0, parent = 0;
    long pid = 0;
    first >> kind >> id >> pid >> role >> parent;
    if (kind == "P" && role == "C") named[pid] = "child " + std::to_string(id) + " of writer " + std::to_string(parent);
  }
  int stacks = 0;
  for (const ProcInfo& p : descendants()) {
    if (p.comm == "zt-sleeper" || p.comm == "zt-holder" || gInterrupted) continue;
    const long ticks = sysconf(_SC_CLK_TCK);
    std::string uptimeText = readFile("/proc/uptime");
    const double age = std::strtod(uptimeText.c_str(), nullptr) - static_cast<double>(p.startTicks) / ticks;
    std::string what = p.comm == "zt-writer" ? "writer" : (p.comm == "zt-child" ? "forked child" : p.comm);
    for (const Writer& w : _writers)
      if (w.pid == p.pid) what = "writer " + std::to_string(w.id);
    if (named.count(p.pid) != 0) what = "forked " + named[p.pid];
    char head[256];
    std::snprintf(head, sizeof(head), "%s, pid %ld, still running %.1f s after its start (the run ended %.1f s ago)",
                  what.c_str(), p.pid, age, static_cast<double>(monotonicMicros() - _until) / 1e6);
    _violations.add("a process hung", std::string(head) + (stacks++ < kMaxStacks ? "\n" + stacksOf(p.pid) : ""));
    _hung.insert(p.pid);
  }
  for (int round = 0; round < 50; ++round) {
    const std::vector<ProcInfo> left = descendants();
    if (left.empty()) break;
    for (const ProcInfo& p : left) (void)::kill(static_cast<pid_t>(p.pid), SIGKILL);
    sleepMicros(20000);
    reap();
  }
  reap();
}

void copyTree(const std::string& from, const std::string& to) {
  (void)::mkdir(to.c_str(), 0755);
  for (const std::string& name : listDir(from)) {
    struct stat st;
    const std::string source = from + "/" + name;
    if (::lstat(source.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      copyTree(source, to + "/" + name);
    } else if (S_ISREG(st.st_mode)) {
      const std::string text = readFile(source);
      const int fd = ::open((to + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0) continue;
      writeAll(fd, text);
      ::close(fd);
    }
  }
}

void Supervisor::tearDown(bool failed) {
  for (int round = 0; round < 50; ++round) {
    const std::vector<ProcInfo> left = descendants();
    if (left.empty()) break;
    for (const ProcInfo& p : left) (void)::kill(static_cast<pid_t>(p.pid), SIGKILL);
    sleepMicros(20000);
    reap();
  }
  if (_layout.run.empty()) return;
  if (_options.keep && _tmpfs) copyTree(_layout.fs, _layout.run + "/logs");
  if (_tmpfs && ::umount2(_layout.fs.c_str(), MNT_DETACH) != 0)
    std::fprintf(stderr, "zel_torture: umount %s: %s\n", _layout.fs.c_str(), std::strerror(errno));
  if (_options.keep) {
    std::printf("zel_torture: the run's files are in %s%s\n", _layout.run.c_str(),
                _tmpfs ? " (the log files in logs/)" : " (the log files in fs/)");
  } else if (!removeTree(_layout.run)) {
    std::fprintf(stderr, "zel_torture: could not remove all of %s\n", _layout.run.c_str());
  }
  (void)failed;
}

int Supervisor::run() {
  std::printf("zel_torture: seed %llu, %lld s, faults %s\n", static_cast<unsigned long long>(_options.seed),
              static_cast<long long>(_options.seconds), faultList(_options.faults).c_str());
  std::fflush(stdout);
  if (!setUp()) {
    tearDown(true);
    return 2;
  }
  if ((_options.faults & kHoldLong) != 0 && _options.seconds < 18)
    std::printf("zel_torture: the lock held for good needs --seconds 18 or more; left out\n");
  _start = monotonicMicros();
  _until = _start + _options.seconds * 1000000;
  const std::vector<Event> schedule = makeSchedule(_options.seed, _options.seconds * 1000000, _options.faults);
  if (_options.verbose) {
    std::printf("zel_torture: schedule:");
    for (const Event& e : schedule)
      std::printf(" %s@%.2f", actionName(e.action), static_cast<double>(e.at) / 1e6);
    std::printf("\n");
  }
  size_t next = 0;
  bool stopped = false;
  while (!gInterrupted) {
    const int64_t now = monotonicMicros();
    if (now >= _until) break;
    while (next < schedule.size() && _start + schedule[next].at <= now) apply(schedule[next++]);
    if (!stopped && now >= _until - kQuietMicros) {
      stopFaults();
      stopped = true;
    }
    tick(now);
    sleepMicros(2000);
  }
  if (!stopped) stopFaults();
  finishProcesses();
  if (gInterrupted) {
    std::printf("zel_torture: interrupted; seed %llu\n", static_cast<unsigned long long>(_options.seed));
    tearDown(true);
    return 2;
  }
  const CheckFigures figures = checkRun(_layout, _hung, _violations);

  std::printf("zel_torture: %u writers (%u killed, %u of them while holding the directory lock), %zu logging "
              "processes (writers and logging children), %zu of them killed or hung\n",
              _nextWriterId - 1, _kills, _killsHolding, figures.processes, figures.killedProcesses);
  std::printf("zel_torture: faults: %u rename bursts (%u renames), %u directory replacements, %u lock holds, "
              "lock held for good %.0f s, %u full disks\n",
              _bursts, _renameCount, _replaced, _holds, static_cast<double>(_longHold) / 1e6, _fills);
  std::printf("zel_torture: %llu records logged, %llu confirmed by flush(), %llu found in %zu files "
              "(%zu directories, %.1f MB, largest %llu bytes), %llu on standard error, %llu missing, "
              "%llu counted as dropped, %llu cut lines, %llu empty lines\n",
              figures.logged, figures.confirmed, figures.found, figures.files, figures.directories,
              static_cast<double>(figures.bytes) / 1e6, figures.largestFile, figures.onStderr, figures.missing,
              figures.notices, figures.cutLines, figures.emptyLines);
  for (const auto& message : figures.stderrMessages)
    std::printf("zel_torture: standard error: %u x %s\n", message.second, message.first.c_str());
  const bool failed = !_violations.empty();
  for (const auto& entry : _violations.all()) {
    const Violation& v = entry.second;
    std::printf("INVARIANT BROKEN (seed %llu): %s: %zu case%s\n", static_cast<unsigned long long>(_options.seed),
                v.invariant.c_str(), v.count, v.count == 1 ? "" : "s");
    for (const std::string& detail : v.details) std::printf("  %s\n", detail.c_str());
    if (v.count > v.details.size()) std::printf("  ... and %zu more\n", v.count - v.details.size());
  }
  if (failed) {
    std::printf("zel_torture: FAILED; replay with: zel_torture --seed %llu --seconds %lld --faults %s\n",
                static_cast<unsigned long long>(_options.seed), static_cast<long long>(_options.seconds),
                faultList(_options.faults).c_str());
  } else {
    std::printf("zel_torture: every invariant held (seed %llu)\n", static_cast<unsigned long long>(_options.seed));
  }
  std::fflush(stdout);
  tearDown(failed);
  return failed ? 1 : 0;
}

std::string selfPath() {
  char path[4096];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0) return std::string();
  path[n] = '\0';
  return path;
}

}  // namespace

}  // namespace ZelTorture

int main(int argc, char** argv) {
  using namespace ZelTorture;
  if (argc >= 2 && std::strcmp(argv[1], "--writer") == 0) return writerMain(argc, argv);
  Options options;
  const int parsed = parseOptions(argc, argv, options);
  if (parsed != 0) return parsed < 0 ? 0 : parsed;
  if (!options.seedGiven) options.seed = newSeed();
  const std::string self = selfPath();
  if (self.empty()) {
    std::fprintf(stderr, "zel_torture: cannot find its own executable\n");
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  struct sigaction action;
  std::memset(&action, 0, sizeof(action));
  action.sa_handler = &onInterrupt;
  sigemptyset(&action.sa_mask);
  (void)sigaction(SIGINT, &action, nullptr);
  (void)sigaction(SIGTERM, &action, nullptr);
  (void)sigaction(SIGHUP, &action, nullptr);
  Supervisor supervisor(options, self);
  return supervisor.run();
}
